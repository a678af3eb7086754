// Arbitrary request texts through the JSON dispatcher and all 21 handlers,
// on a configured daemon: pools with options, static and port bindings,
// leases, relay interfaces. The state is built afresh for every input.
//
// Checked for every input:
// - the reply never exceeds the response buffer;
// - a reading request, an unknown one and a text that does not parse leave
//   the state (running configuration, lease table) unchanged;
// - a changing request whose "config" items are carried out one request
//   each, on a fresh state, up to the first that fails, ends in the same
//   state with the same result: the items before the failing one applied,
//   nothing after it.
#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/fuzz_common.h"
#include "dhcp/dhcp_json.h"
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
#include "platform/jserver.h"
#include "platform/uif.h"

namespace fs = std::filesystem;

namespace {

constexpr std::int32_t NOW = 1700000000;
// Items replayed one by one at most; longer lists are only run.
constexpr int REPLAY_ITEMS_MAX = 32;

// Scratch files on a memory file system when there is one: every changing
// request saves the configuration.
fs::path scratch_dir() {
    const fs::path base = fs::exists("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
    return base / ("fuzz-json-" + std::to_string(getpid()));
}

void netdev(const fs::path &root, const std::string &name, int idx) {
    fs::create_directories(root / name);
    std::ofstream(root / name / "ifindex") << idx << "\n";
    std::ofstream(root / name / "address") << "02:00:00:00:00:" << idx << "\n";
}

void add_address(const char *ifname, const char *addr) {
    interface *ifp = if_get_by_name(ifname);
    prefix p{};
    str2prefix(addr, &p);
    connected_add(ifp, 0, &p, nullptr);
}

bool set_up() {
    fuzz_quiet_log();
    const fs::path dir = scratch_dir();
    fs::remove_all(dir);
    // libFuzzer ends the process with exit(): the scratch files go then.
    std::atexit([] {
        std::error_code ec;
        fs::remove_all(scratch_dir(), ec);
    });
    const fs::path sys = dir / "sys";
    netdev(sys, "vlanif10", 5);
    for (int i = 1; i <= 3; ++i) {
        netdev(sys, "swp" + std::to_string(i), 10 + i);
        fs::create_symlink("../vlanif10", sys / ("swp" + std::to_string(i)) / "master");
    }
    uif_set_sysfs_root(sys.string());
    uif_init();
    uvlan_init();
    static const std::string conf = (dir / "dhcpd.conf").string();
    static const std::string leases = (dir / "dhcps.leases").string();
    thread_master *master = thread_master_create();
    cmd_init(1);
    cmd_set_hostname("sw1");
    cmd_set_config_file(conf.c_str());
    if_init();
    dhcps_set_lease_file(leases.c_str());
    dhcps_init(master);
    dhcps_vty_init();
    dhcpr_init(master);
    dhcpr_vty_init();
    dhcp_json_register();
    kq_time_set(NOW);
    add_address("vlanif10", "192.168.1.1/24");
    add_address("vlanif20", "10.0.20.1/24");
    add_address("vlanif30", "172.16.0.1/16");
    add_address("lo", "127.0.0.1/8");
    add_address("v6only", "2001:db8::1/64");
    return true;
}

void clear_state() {
    dhcps_set_enable(0);
    dhcpr_reset();
    for (const auto &p : dhcps_pool_list()) {
        while (!p->static_leases.empty()) {
            dhcps_pool_delete_static(nullptr, p.get(), ipv4_text(p->static_leases.front().ip).buf);
        }
        while (!p->allow_circuit_ids.empty()) {
            const std::string id = p->allow_circuit_ids.front();
            allow_delete(&p->allow_circuit_ids, id.c_str());
        }
    }
    dhcps_pool_list_free();
    // Deleted pools keep their static bindings and circuit ids counted;
    // start from none.
    dhcps_static_count_recount();
    allow_count_recount();
    dhcps_settings_init();
    dhcps_lease_list_free();
    dhcps_lease_list_init();
}

dhcps_pool *make_pool(const char *name, const char *router, const char *net) {
    dhcps_pool *pool = nullptr;
    require(dhcps_pool_enter(nullptr, name, &pool) == CMD_SUCCESS);
    require(dhcps_pool_set_router(nullptr, pool, router) == CMD_SUCCESS);
    require(dhcps_pool_set_network(nullptr, pool, net) == CMD_SUCCESS);
    return pool;
}

void add_lease(int i, std::uint32_t state, std::int32_t expires) {
    std::uint8_t mac[6] = {2, 0, 0, 0, 1, static_cast<std::uint8_t>(i)};
    const std::string host = "host" + std::to_string(i);
    in_addr a{};
    inet_pton(AF_INET, ("192.168.1." + std::to_string(100 + i)).c_str(), &a);
    dhcps_add_lease(mac, a.s_addr, 3600, expires, host.c_str(), static_cast<int>(host.size()),
                    state, 0);
}

// The configured state every input starts from.
void build_state() {
    clear_state();
    dhcps_pool *p1 = make_pool("p1", "192.168.1.1", "192.168.1.0/24");
    require(dhcps_pool_set_range(nullptr, p1, "192.168.1.100", "192.168.1.200") == CMD_SUCCESS);
    require(dhcps_pool_set_dns(nullptr, p1, "8.8.8.8", "8.8.4.4") == CMD_SUCCESS);
    require(dhcps_pool_add_static(nullptr, p1, "192.168.1.60", "00-11-22-33-44-55") == CMD_SUCCESS);
    require(dhcps_pool_add_port_bind(nullptr, p1, "swp1", "192.168.1.50") == CMD_SUCCESS);
    dhcps_pool *p2 = make_pool("p2", "10.0.20.1", "10.0.20.0/24");
    require(dhcps_pool_add_static(nullptr, p2, "10.0.20.7", "00-11-22-33-44-77") == CMD_SUCCESS);
    require(dhcps_pool_add_port_bind(nullptr, p2, "swp2", "10.0.20.8") == CMD_SUCCESS);
    dhcps_pool *bare = nullptr;
    require(dhcps_pool_enter(nullptr, "p3", &bare) == CMD_SUCCESS);
    for (int i = 1; i <= 12; ++i) {
        add_lease(i, i == 4 ? 0 : 1, NOW + (i == 5 ? 0 : 100 * i));
    }
    require(dhcpr_remote_server_set(nullptr, if_lookup_by_name("vlanif20"), "10.0.20.2") ==
            CMD_SUCCESS);
}

struct snapshot {
    std::string config;
    int leases = 0;
    int active = 0;
    std::size_t statics = 0;
    bool operator==(const snapshot &) const = default;
};

snapshot take() {
    std::unique_ptr<vty> v = vty_new(VTY_FILE);
    vty_write_config(v.get());
    return {v->obuf, dhcps_get_leases_num(), dhcps_get_active_leases_num(), dhcps_static_count()};
}

std::string run(std::string_view text) {
    const char *reply = nullptr;
    const std::size_t n = dhcp_json_handle_text(text.data(), text.size(), &reply);
    require(n < DHCP_JSON_RESPONSE_SIZE);
    return {reply, n};
}

bool changing(const char *cmd) {
    static constexpr const char *names[] = {
        "dhcps_gloabl_set",       "dhcps_pool_add",
        "dhcps_pool_delete",      "dhcps_pool_config",
        "dhcps_bind_mac_ip_add",  "dhcps_bind_mac_ip_delete",
        "dhcps_bind_port_ip_add", "dhcps_bind_port_ip_delete",
        "dhcpr_state_set",        "dhcpr_if_server_add",
        "dhcpr_if_server_delete",
    };
    for (const char *n : names) {
        if (std::strcmp(n, cmd) == 0) {
            return true;
        }
    }
    return false;
}

struct json_deleter {
    void operator()(cJSON *j) const { cJSON_Delete(j); }
};
using json_ptr = std::unique_ptr<cJSON, json_deleter>;

std::string print(const cJSON *j) {
    std::unique_ptr<char, decltype(&std::free)> text(cJSON_PrintUnformatted(j), std::free);
    return text ? std::string(text.get()) : std::string();
}

// The request "cmd" with one item as its whole "config".
std::string single(const char *cmd, const cJSON *item) {
    json_ptr r(cJSON_CreateObject());
    cJSON_AddStringToObject(r.get(), "cmd", cmd);
    cJSON *list = cJSON_AddArrayToObject(r.get(), "config");
    cJSON_AddItemToArray(list, cJSON_Duplicate(item, 1));
    return print(r.get());
}

// Replays the items one request each on a fresh state, up to the first
// that fails; its reply must be the whole request's, and so the state.
void check_item_by_item(const char *cmd, const cJSON *config, const std::string &reply,
                        const snapshot &after) {
    build_state();
    std::string last;
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, config) {
        last = run(single(cmd, item));
        if (!last.empty()) {
            break;
        }
    }
    require(last == reply);
    require(take() == after);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool ready = set_up();
    (void)ready;
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    build_state();
    const snapshot before = take();
    const std::string reply = run(text);
    const snapshot after = take();

    json_ptr root(cJSON_ParseWithLength(text.data(), text.size()));
    const cJSON *cmd = root && cJSON_IsObject(root.get())
                           ? cJSON_GetObjectItemCaseSensitive(root.get(), "cmd")
                           : nullptr;
    if (!cJSON_IsString(cmd) || cmd->valuestring == nullptr || !changing(cmd->valuestring)) {
        require(after == before);
        return 0;
    }
    // Success is silent; a failure is "{result: N}" with N from 1 to 19.
    int code = 0;
    require(reply.empty() || (std::sscanf(reply.c_str(), "{result: %d}", &code) == 1 && code >= 1 &&
                              code <= 19 && reply == "{result: " + std::to_string(code) + "}"));
    const cJSON *config = cJSON_GetObjectItem(root.get(), "config");
    if (cJSON_GetArraySize(config) <= REPLAY_ITEMS_MAX) {
        check_item_by_item(cmd->valuestring, config, reply, after);
    }
    return 0;
}
