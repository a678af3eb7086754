// Arbitrary lines through the command engine, in every node, on a daemon
// configured with the server's and the relay's commands: pools with
// options, ranges, static and port bindings and circuit ids, relay
// interfaces, settings and debug switches.
//
// After each input the running configuration, replayed line by line into a
// fresh daemon, gives back the same running configuration. The state is rebuilt for every input.
//
// Input: lines separated by '\n'. A line starting with byte 1 to 4 first
// goes to a node: 1 the configuration node, 2 pool "p1", 3 interface
// vlanif10, 4 the privileged node; the rest of the line runs there. Lines
// naming the log commands are skipped: "log file" writes where it is told.
// Everything else runs in a network namespace of its own (as root), so the
// server and relay sockets stay off the host's ports, and the files the
// commands write go to a directory of the fuzzer's.
#include <arpa/inet.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_common.h"
#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcpr.h"
#include "dhcp/dhcpr_vty.h"
#include "dhcp/dhcps.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "dhcp/dhcps_vty.h"
#include "lib/command.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/prefix.h"
#include "lib/thread.h"
#include "lib/vty.h"
#include "platform/clock.h"
#include "platform/uif.h"

namespace fs = std::filesystem;

namespace {

thread_master *master = nullptr;
fs::path dir;

const std::vector<std::string> BASE = {
    "configure terminal",
    "dhcp-server write-time 60",
    "dhcp-server relay-reply-port 67",
    "dhcp-server pool p1",
    "default-router 192.168.1.1",
    "network 192.168.1.0/24",
    "begin-ip 192.168.1.10 end-ip 192.168.1.100",
    "dns-server 192.168.1.1 8.8.8.8",
    "netbios-name-server 192.168.1.2",
    "lease 3600",
    "static 192.168.1.50 02-00-00-00-00-50",
    "port-bind swp1 192.168.1.60",
    "allow circuit-id port1",
    "exit",
    "dhcp-server pool p2",
    "default-router 10.0.0.1",
    "network 10.0.0.0/8",
    "lease infinite",
    "pool disable",
    "exit",
    "interface vlanif20",
    "dhcp-relay remote-server 10.0.20.2",
    "dhcp-relay information enable",
    "exit",
    "debug dhcp packet",
    "end",
};

// Ports swp1..swp3 in vlanif10, as the platform reads them from sysfs.
void fake_ports(const fs::path &root) {
    auto netdev = [&](const std::string &name, int idx) {
        fs::create_directories(root / name);
        std::ofstream(root / name / "ifindex") << idx << "\n";
        std::ofstream(root / name / "address") << "02:00:00:00:00:" << idx << "\n";
    };
    netdev("vlanif10", 5);
    for (int i = 1; i <= 3; ++i) {
        netdev("swp" + std::to_string(i), 10 + i);
        fs::create_symlink("../vlanif10", root / ("swp" + std::to_string(i)) / "master");
    }
}

void make_if(const char *name, int index, const char *addr) {
    interface *ifp = if_get_by_name(name);
    ifp->ifindex = index;
    prefix p{};
    str2prefix(addr, &p);
    connected_add(ifp, 0, &p, nullptr);
}

// A daemon as after start-up, with nothing configured.
void fresh() {
    dhcps_set_enable(0);
    dhcpr_reset();
    for (const auto &p : dhcps_pool_list()) {
        while (!p->allow_circuit_ids.empty()) {
            const std::string id = p->allow_circuit_ids.front();
            allow_delete(&p->allow_circuit_ids, id.c_str());
        }
        while (!p->static_leases.empty()) {
            dhcps_pool_delete_static(nullptr, p.get(),
                                     inet_ntoa(in_addr{p->static_leases.front().ip}));
        }
    }
    dhcps_pool_list_free();
    // A deleted pool's circuit ids stay counted in the process (kept so):
    // each input starts from a fresh process's counts.
    allow_count_recount();
    dhcps_static_count_recount();
    dhcps_settings_init();
    dhcps_lease_list_init();
    cmd_terminate();
    if_terminate();
    if_init();
    cmd_init(1);
    cmd_set_hostname("fz");
    cmd_set_config_file((dir / "dhcpd.conf").c_str());
    dhcp_debug = 0;
    dhcpr_init(master);
    dhcp_debug_init();
    dhcps_vty_init();
    dhcpr_vty_init();
    make_if("vlanif10", 5, "192.168.1.1/24");
    make_if("vlanif20", 6, "10.0.20.1/24");
}

// A pool whose default router was removed, or moved out of its network,
// after the network was set keeps the network and is written with it; on
// the way back the network is refused ("Please set default-router first",
// or "The default gateway should in network!" in the log), and the range and
// bindings with it. Kept so: the blocks of the pools written so are left out
// of both texts before they are compared.
std::vector<std::string> pool_blocks(const std::string &text, std::string &rest) {
    std::istringstream in(text);
    std::vector<std::string> blocks;
    bool in_pool = false;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("dhcp-server pool ", 0) == 0) {
            in_pool = true;
            blocks.emplace_back();
        }
        (in_pool ? blocks.back() : rest) += line + "\n";
        if (line == "!") {
            in_pool = false;
        }
    }
    return blocks;
}

// The address on the block's line starting with `key`, if any.
std::optional<prefix> line_prefix(const std::string &block, const std::string &key) {
    const std::size_t at = block.find("\n" + key);
    if (at == std::string::npos) {
        return std::nullopt;
    }
    const std::size_t from = at + 1 + key.size();
    const std::string text = block.substr(from, block.find('\n', from) - from);
    prefix p{};
    if (str2prefix(text.c_str(), &p) != 1) {
        return std::nullopt;
    }
    return p;
}

bool network_lost_on_replay(const std::string &block) {
    const auto net = line_prefix(block, " network ");
    if (!net) {
        return false;
    }
    const auto router = line_prefix(block, " default-router ");
    return !router || !prefix_match(&*net, &*router);
}

std::string first_line(const std::string &block) {
    return block.substr(0, block.find('\n'));
}

std::string without_pools(const std::string &text, const std::vector<std::string> &names) {
    std::string out;
    for (const std::string &b : pool_blocks(text, out)) {
        if (std::find(names.begin(), names.end(), first_line(b)) == names.end()) {
            out += b;
        }
    }
    return out;
}

std::vector<std::string> pools_losing_network(const std::string &written) {
    std::string rest;
    std::vector<std::string> names;
    for (const std::string &b : pool_blocks(written, rest)) {
        if (network_lost_on_replay(b)) {
            names.push_back(first_line(b));
        }
    }
    return names;
}

std::string running_config() {
    auto v = vty_new(VTY_SHELL_SERV);
    vty_write_config(v.get());
    return v->obuf;
}

bool set_up() {
    zlog *zl = fuzz_quiet_log();
    zlog_mark_defaults(zl);
    char tmpl[] = "/tmp/fuzz-cli.XXXXXX";
    require(::mkdtemp(tmpl) != nullptr);
    dir = tmpl;
    fake_ports(dir / "sys");
    uif_set_sysfs_root((dir / "sys").string());
    uif_init();
    uvlan_init();
    dhcps_set_lease_file((dir / "dhcps.leases").c_str());
    dhcps_set_lease_file_writer([](int, std::span<const std::byte>) { return true; });
    kq_time_set(1700000000);
    master = thread_master_create();
    dhcps_init(master);
    dhcps_lease_list_init();
    return true;
}

bool is_prefix(std::string_view word, std::string_view of) {
    return !word.empty() && word.size() <= of.size() && of.substr(0, word.size()) == word;
}

// The log commands, however abbreviated.
bool names_log(const std::string &line) {
    std::istringstream in(line);
    std::string first, second;
    in >> first >> second;
    return is_prefix(first, "log") || (is_prefix(first, "no") && is_prefix(second, "log"));
}

void go_to(vty *v, char where) {
    static const std::vector<std::vector<const char *>> paths = {
        {"end", "configure terminal"},
        {"end", "configure terminal", "dhcp-server pool p1"},
        {"end", "configure terminal", "interface vlanif10"},
        {"end"},
    };
    for (const char *line : paths[static_cast<std::size_t>(where - 1)]) {
        cmd_execute_command(line, v);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // Before libFuzzer starts threads of its own.
    (void)unshare(CLONE_NEWNET);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool ready = set_up();
    (void)ready;
    fresh();
    auto v = vty_new(VTY_SHELL_SERV);
    for (const std::string &line : BASE) {
        const int rc = cmd_execute_command(line.c_str(), v.get());
        if (rc != CMD_SUCCESS) {
            std::fprintf(stderr, "base line failed (%d): %s\n%s", rc, line.c_str(),
                         v->obuf.c_str());
            std::abort();
        }
    }
    v->obuf.clear();

    std::string_view in(reinterpret_cast<const char *>(data), size);
    while (!in.empty()) {
        const std::size_t nl = in.find('\n');
        std::string line(in.substr(0, nl));
        in = nl == std::string_view::npos ? std::string_view() : in.substr(nl + 1);
        if (!line.empty() && line[0] >= 1 && line[0] <= 4) {
            go_to(v.get(), line[0]);
            line.erase(0, 1);
        }
        if (line.size() > 4096 || names_log(line)) {
            continue;
        }
        vty_command(v.get(), line.c_str());
        v->obuf.clear();
        if (v->status == VTY_CLOSE) {
            v = vty_new(VTY_SHELL_SERV);
        }
    }
    const std::string written = running_config();
    v.reset();

    fresh();
    // Option-82 handling off is written by leaving its line out, which a
    // replay cannot tell from the default (on): kept so. The fresh daemon
    // starts from what the missing line stands for.
    if (written.find("\ndhcp-server information enable\n") == std::string::npos) {
        dhcps_set_information(0);
    }
    auto replay = vty_new(VTY_FILE);
    replay->node = CONFIG_NODE;
    std::istringstream lines(written);
    for (std::string line; std::getline(lines, line);) {
        // Not every written line is taken (a pool without a network writes
        // a range of 0.0.0.0, refused on the way back, which leaves it as
        // it was): only the text that results counts.
        cmd_execute_command(line.c_str(), replay.get());
        replay->obuf.clear();
    }
    const std::string again = running_config();
    const std::vector<std::string> lost = pools_losing_network(written);
    if (without_pools(again, lost) != without_pools(written, lost)) {
        std::fprintf(stderr, "written:\n%s\nreplayed:\n%s", written.c_str(), again.c_str());
        std::abort();
    }
    return 0;
}
