// The server's operator commands, displays and running-configuration writer.
#include "dhcp/dhcps_vty.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcps.h"
#include "dhcp/dhcps_leases.h"
#include "dhcp/dhcps_pool.h"
#include "lib/command.h"
#include "lib/log.h"
#include "lib/prefix.h"
#include "lib/vty.h"
#include "platform/clock.h"
#include "platform/uif.h"
#include "platform/vemix.h"

namespace {

// Descriptors the pool options are stored with.
constexpr dhcp_option OPT_ROUTER = {0x31, DHCP_ROUTER};
constexpr dhcp_option OPT_DNS = {0x31, DHCP_DNS_SERVER};
constexpr dhcp_option OPT_DOMAIN = {0x14, DHCP_DOMAIN_NAME};
constexpr dhcp_option OPT_NETBIOS = {0x31, DHCP_WINS_SERVER};
constexpr dhcp_option OPT_LEASE = {0x13, DHCP_LEASE_TIME};

constexpr std::uint32_t DEFAULT_WRITE_TIME = 300;
constexpr std::uint32_t DEFAULT_MAX_LEASE_NUM = 4096;

// Static bindings of all pools. Deleting a pool does not give its bindings
// back, just as the circuit-id count keeps a deleted pool's entries.
std::size_t static_total = 0;

ipv4_text_buf ntoa(std::uint32_t nip) {
    return ipv4_text(nip);
}

ipv4_text_buf ntoa_host(std::uint32_t hip) {
    return ntoa(htonl(hip));
}

std::uint32_t load_nip(std::span<const std::uint8_t> v) {
    std::uint32_t nip = 0;
    std::memcpy(&nip, v.data(), sizeof nip);
    return nip;
}

// Addresses as option bytes, as they lie (network order).
std::span<const std::uint8_t> addr_bytes(std::span<const std::uint32_t> nips) {
    return {reinterpret_cast<const std::uint8_t *>(nips.data()), nips.size_bytes()};
}

// IPv4 only: an IPv6 text would leave a meaningless 4-byte value behind.
bool parse_addr(const char *text, std::uint32_t &nip) {
    prefix_ipv4 p{};
    if (str2prefix_ipv4(text, &p) < 1) {
        return false;
    }
    nip = p.prefix.s_addr;
    return true;
}

int malformed(vty *vty) {
    vty_out(vty, "%% Malformed address %s", VTY_NEWLINE);
    return CMD_WARNING;
}

std::uint32_t pool_mask(const dhcps_pool *pool) {
    in_addr mask{};
    masklen2ip(pool->prefix->prefixlen, &mask);
    return mask.s_addr;
}

bool in_network(const dhcps_pool *pool, std::uint32_t nip) {
    return (nip & pool_mask(pool)) == pool->prefix->prefix.s_addr;
}

// Checks a binding's address against the pool's network.
int check_bind_addr(vty *vty, const dhcps_pool *pool, std::uint32_t nip) {
    if (!pool->prefix) {
        vty_out(vty, "%% haven't set network yet!%s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    if (!in_network(pool, nip)) {
        vty_out(vty, "%% bind IP address should in related network!%s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    return CMD_SUCCESS;
}

int replace_option(dhcps_pool *pool, const dhcp_option &desc, std::span<const std::uint8_t> v) {
    dhcp_delete_option(pool->options, desc.code);
    return dhcp_attach_option(pool->options, desc, v);
}

int set_addr_option(vty *vty, dhcps_pool *pool, const char *text, const dhcp_option &desc) {
    if (pool == nullptr || text == nullptr) {
        return CMD_WARNING;
    }
    std::uint32_t nip = 0;
    if (!parse_addr(text, nip)) {
        return malformed(vty);
    }
    replace_option(pool, desc, addr_bytes({&nip, 1}));
    return CMD_SUCCESS;
}

// A pool name must be one word the CLI can type: the saved configuration
// names the pool in "dhcp-server pool NAME" and has to replay. The command
// line never hands over anything else; the JSON surface can.
bool pool_name_typable(const char *name) {
    if (*name == '\0') {
        return false;
    }
    for (const char *c = name; *c != '\0'; ++c) {
        const auto u = static_cast<unsigned char>(*c);
        if (u <= 0x20 || u == 0x7f) {
            return false;
        }
    }
    return true;
}

// The pool a session is in; none when it was deleted under the session.
dhcps_pool *current_pool(vty *vty) {
    const auto *want = static_cast<const dhcps_pool *>(vty->index);
    for (const auto &p : dhcps_pool_list()) {
        if (p.get() == want) {
            return p.get();
        }
    }
    return nullptr;
}

const char *pool_prompt_arg(vty *vty) {
    const dhcps_pool *pool = current_pool(vty);
    return pool != nullptr ? pool->name : "";
}

cmd_node dhcps_pool_node = {DHCPS_POOL_NODE, "%s(config-%s)# ", 1, dhcps_config_write,
                            pool_prompt_arg};

void write_lease_option(vty *vty, std::span<const std::uint8_t> v) {
    if (v.size() == 1 && v[0] == 0) {
        vty_out(vty, " lease infinite%s", VTY_NEWLINE);
        return;
    }
    std::array<char, 16> text{};
    std::memcpy(text.data(), v.data(), std::min(v.size(), text.size() - 1));
    const long seconds = std::strtol(text.data(), nullptr, 10);
    vty_out(vty, " lease %d %s", static_cast<int>(seconds), VTY_NEWLINE);
}

void write_option(vty *vty, const option_set &opt) {
    const auto v = opt.value();
    if (opt.code() == DHCP_LEASE_TIME) {
        write_lease_option(vty, v);
        return;
    }
    if (v.size() < 4) {
        return;
    }
    const auto first = ntoa(load_nip(v));
    switch (opt.code()) {
        case DHCP_ROUTER:
            vty_out(vty, " default-router %s%s", first.buf, VTY_NEWLINE);
            break;
        case DHCP_DNS_SERVER:
            vty_out(vty, " dns-server %s", first.buf);
            if (v.size() == 8) {
                vty_out(vty, " %s", ntoa(load_nip(v.subspan(4))).buf);
            }
            vty_out(vty, "%s", VTY_NEWLINE);
            break;
        case DHCP_DOMAIN_NAME:
            vty_out(vty, " domain-name %s%s", first.buf, VTY_NEWLINE);
            break;
        case DHCP_WINS_SERVER:
            vty_out(vty, " netbios-name-server %s%s", first.buf, VTY_NEWLINE);
            break;
        default:
            break;
    }
}

// Pool name, options, network and range: the head both writers share.
void write_pool_head(vty *vty, const dhcps_pool *pool) {
    vty_out(vty, "dhcp-server pool %s%s", pool->name, VTY_NEWLINE);
    dhcps_pool_write_options(vty, pool);
    if (pool->prefix) {
        std::array<char, PREFIX_STRLEN> net{};
        prefix2str(as_prefix(pool->prefix.get()), net.data(), static_cast<int>(net.size()));
        vty_out(vty, " network %s%s", net.data(), VTY_NEWLINE);
    }
    vty_out(vty, " begin-ip %s", ntoa_host(pool->begin_ip).buf);
    vty_out(vty, " end-ip %s%s", ntoa_host(pool->end_ip).buf, VTY_NEWLINE);
}

void write_pool_tail(vty *vty, const dhcps_pool *pool) {
    dhcps_pool_write_statics(vty, pool);
    dhcps_pool_write_port_binds(vty, pool);
    dhcps_pool_write_circuit_ids(vty, pool);
}

void write_lease_line(vty *vty, const dhcps_lease &l, std::int64_t now) {
    const std::uint8_t *m = l.mac;
    std::array<char, sizeof l.hostname + 1> host{};
    std::memcpy(host.data(), l.hostname, sizeof l.hostname);
    const std::int64_t left = std::max<std::int64_t>(0, dhcps_lease_expires(&l) - now);
    vty_out(vty, "%-16s  %02x-%02x-%02x-%02x-%02x-%02x  %-20s  %-10ld     %-10ld%s",
            ntoa(dhcps_lease_nip(&l)).buf, m[0], m[1], m[2], m[3], m[4], m[5], host.data(),
            static_cast<long>(dhcps_lease_time(&l)), static_cast<long>(left), VTY_NEWLINE);
}

// ---- global commands ----

DEFUN(dhcps_enable, dhcps_enable_cmd, "dhcp-server (enable|disable)",
      "Configure dhcp server\nEnable dhcp-server\nDisable dhcp-server\n") {
    // A socket failure is the settings' to log; the command stands.
    dhcps_set_enable(argv[0][0] == 'e' ? 1 : 0);
    return CMD_SUCCESS;
}

DEFUN(dhcps_write_time, dhcps_write_time_cmd, "dhcp-server write-time <30-65535>",
      "Configure dhcp server\nConfigure write lease time\nSpecify write time\n") {
    dhcps_set_write_time(static_cast<std::uint32_t>(std::atoi(argv[0])));
    return CMD_SUCCESS;
}

DEFUN(no_dhcps_write_time, no_dhcps_write_time_cmd, "no dhcp-server write-time",
      NO_STR "Configure dhcp server\nConfigure write lease time\n") {
    dhcps_set_write_time(DEFAULT_WRITE_TIME);
    return CMD_SUCCESS;
}

DEFUN(dhcps_max_lease, dhcps_max_lease_cmd, "dhcp-server max-lease-num <2048-10240>",
      "Configure dhcp server\nConfigure max lease num\nSpecify max lease num\n") {
    dhcps_set_max_lease_num(static_cast<std::uint32_t>(std::atoi(argv[0])));
    return CMD_SUCCESS;
}

DEFUN(no_dhcps_max_lease, no_dhcps_max_lease_cmd, "no dhcp-server max-lease-num",
      NO_STR "Configure dhcp server\nConfigure max lease num\n") {
    dhcps_set_max_lease_num(DEFAULT_MAX_LEASE_NUM);
    return CMD_SUCCESS;
}

DEFUN(dhcps_information, dhcps_information_cmd, "dhcp-server information (enable|disable)",
      "Configure dhcp server\nDHCP Server Option-82 Configuration\nEnable Option-82\n"
      "Disable Option-82\n") {
    dhcps_set_information(argv[0][0] == 'e' ? 1 : 0);
    return CMD_SUCCESS;
}

DEFUN(dhcps_relay_reply_port, dhcps_relay_reply_port_cmd, "dhcp-server relay-reply-port (67|68)",
      "Configure dhcp server\nConfigure relay reply port\n"
      "Reply to the relay at port 67, as RFC 2131 servers do\n"
      "Reply to the relay at port 68 in a broadcast frame (default)\n") {
    const auto port = static_cast<std::uint32_t>(std::atoi(argv[0]));
    return dhcps_set_relay_reply_port(port) == 0 ? CMD_SUCCESS : CMD_WARNING;
}

DEFUN(dhcps_pool_cmd_fn, dhcps_pool_cmd, "dhcp-server pool NAME",
      "Configure dhcp server\nConfigure dhcp address pool\nSpecify dhcp pool name\n") {
    dhcps_pool *pool = nullptr;
    int rc = dhcps_pool_enter(vty, argv[0], &pool);
    if (rc != CMD_SUCCESS) {
        return rc;
    }
    vty->index = pool;
    vty->node = DHCPS_POOL_NODE;
    return CMD_SUCCESS;
}

DEFUN(no_dhcps_pool, no_dhcps_pool_cmd, "no dhcp-server pool NAME",
      NO_STR "Configure dhcp server\nConfigure dhcp address pool\nSpecify dhcp pool name\n") {
    return dhcps_pool_remove(vty, argv[0]);
}

// ---- pool commands ----

DEFUN(pool_enable, pool_enable_cmd, "pool (enable|disable)",
      "Configure dhcp address pool\nEnable pool\nDisable pool\n") {
    const char c = argv[0][0];
    if (c != 'e' && c != 'd') {
        return CMD_ERR_NO_MATCH;
    }
    return dhcps_pool_set_enable(current_pool(vty), c == 'e' ? 1 : 0);
}

DEFUN(pool_network, pool_network_cmd, "network A.B.C.D/M",
      "Configure dhcp-server apply L3 interface\nSpecifys the subnet network and mask\n") {
    return dhcps_pool_set_network(vty, current_pool(vty), argv[0]);
}

DEFUN(pool_range, pool_range_cmd, "begin-ip A.B.C.D end-ip A.B.C.D",
      "pool ip range, begin-ip\nSpecify the begin-ip address\npool ip range, end-ip\n"
      "Specify the end-ip address\n") {
    // The engine hands over both addresses; a missing text is the setter's
    // silent refusal, the wrong count the command's own.
    if (argc != 2) {
        vty_out(vty, "%% Format: begin-ip A.B.C.D/M end-ip A.B.C.D/M%s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    return dhcps_pool_set_range(vty, current_pool(vty), argv[0], argv[1]);
}

DEFUN(pool_domain, pool_domain_cmd, "domain-name DOMAIN",
      "Configure domain name\nSpecify the domain name for the client\n") {
    return dhcps_pool_set_domain(vty, current_pool(vty), argv[0]);
}

DEFUN(no_pool_domain, no_pool_domain_cmd, "no domain-name", NO_STR "Domain name\n") {
    return dhcps_pool_unset_domain(vty, current_pool(vty));
}

DEFUN(pool_dns, pool_dns_cmd, "dns-server .DNSLIST",
      "Configure DNS server\nSpecify the IP address of DNS server List\n") {
    return dhcps_pool_set_dns_list(vty, current_pool(vty),
                                   std::span(argv, static_cast<std::size_t>(std::max(argc, 0))));
}

DEFUN(no_pool_dns, no_pool_dns_cmd, "no dns-server", NO_STR "Configure DNS server\n") {
    return dhcps_pool_unset_dns(vty, current_pool(vty));
}

DEFUN(pool_netbios, pool_netbios_cmd, "netbios-name-server A.B.C.D",
      "Configure netbios name server\nSpecify the NetBIOS WINS server\n") {
    return dhcps_pool_set_netbios(vty, current_pool(vty), argv[0]);
}

DEFUN(no_pool_netbios, no_pool_netbios_cmd, "no netbios-name-server",
      NO_STR "Configure netbios name server\n") {
    return dhcps_pool_unset_netbios(vty, current_pool(vty));
}

DEFUN(pool_router, pool_router_cmd, "default-router A.B.C.D",
      "Configure gateway address\nSpecify the IP address of the default router\n") {
    return dhcps_pool_set_router(vty, current_pool(vty), argv[0]);
}

DEFUN(no_pool_router, no_pool_router_cmd, "no default-router",
      NO_STR "Configure gateway address\n") {
    return dhcps_pool_unset_router(vty, current_pool(vty));
}

DEFUN(pool_lease_infinite, pool_lease_infinite_cmd, "lease infinite",
      "Configure the duration of the lease\nSpecify the duration of the lease to unlimited\n") {
    return dhcps_pool_set_lease(current_pool(vty), 0) == 0 ? CMD_SUCCESS : CMD_WARNING;
}

DEFUN(pool_lease, pool_lease_cmd, "lease <0-31536000>",
      "Configure the duration of the lease\nSpecify the duration of the lease in second\n") {
    const auto seconds = static_cast<std::uint32_t>(std::atoi(argv[0]));
    return dhcps_pool_set_lease(current_pool(vty), seconds) == 0 ? CMD_SUCCESS : CMD_WARNING;
}

DEFUN(pool_allow, pool_allow_cmd, "allow circuit-id STRING",
      "Allow Circuit-ID into this pool\nOption-82 sub-option1: Circuit-ID\n"
      "Specify string as Circuit ID\n") {
    return dhcps_allow_circuitID(vty, current_pool(vty), argv[0]);
}

DEFUN(no_pool_allow, no_pool_allow_cmd, "no allow circuit-id STRING",
      NO_STR
      "Allow Circuit-ID into this pool\nOption-82 sub-option1: Circuit-ID\n"
      "Specify string as Circuit ID\n") {
    return dhcps_pool_delete_circuit_id(vty, current_pool(vty), argv[0]);
}

DEFUN(pool_static, pool_static_cmd, "static A.B.C.D MM-MM-MM-MM-MM-MM",
      "Configure static dhcp lease\nIp address\nMac address\n") {
    return dhcps_pool_add_static(vty, current_pool(vty), argv[0], argv[1]);
}

DEFUN(no_pool_static, no_pool_static_cmd, "no static A.B.C.D",
      NO_STR "Configure static dhcp lease\nStatic ip address\n") {
    return dhcps_pool_delete_static(vty, current_pool(vty), argv[0]);
}

DEFUN(pool_port_bind, pool_port_bind_cmd, "port-bind IFNAME A.B.C.D",
      "Bind port to static ip\nSpecify interface\nSpecify ip\n") {
    return dhcps_pool_add_port_bind(vty, current_pool(vty), argv[0], argv[1]);
}

DEFUN(no_pool_port_bind, no_pool_port_bind_cmd, "no port-bind IFNAME",
      NO_STR "Bind port to static ip\nSpecify interface\n") {
    return dhcps_pool_delete_port_bind(vty, current_pool(vty), argv[0]);
}

// ---- displays ----

DEFUN(show_dhcps_lease, show_dhcps_lease_cmd, "show dhcp-server lease",
      SHOW_STR "Configure dhcp server\nDhcp lease information\n") {
    std::uint32_t nip = 0;
    if (argc > 0 && !parse_addr(argv[0], nip)) {
        return malformed(vty);
    }
    return dhcps_show_leases(vty, nip);
}

ALIAS(show_dhcps_lease, show_dhcps_lease_addr_cmd, "show dhcp-server lease A.B.C.D",
      SHOW_STR "Configure dhcp server\nDhcp lease information\nSpecify ip lease information\n")

DEFUN(show_dhcps, show_dhcps_cmd, "show dhcp-server", SHOW_STR "Configure dhcp server\n") {
    return show_dhcp_server(vty);
}

cmd_element *const global_cmds[] = {
    &dhcps_enable_cmd,           &dhcps_write_time_cmd,   &no_dhcps_write_time_cmd,
    &dhcps_max_lease_cmd,        &no_dhcps_max_lease_cmd, &dhcps_information_cmd,
    &dhcps_relay_reply_port_cmd,
};

cmd_element *const pool_cmds[] = {
    &pool_enable_cmd,     &pool_network_cmd,   &pool_range_cmd,        &pool_domain_cmd,
    &no_pool_domain_cmd,  &pool_dns_cmd,       &no_pool_dns_cmd,       &pool_netbios_cmd,
    &no_pool_netbios_cmd, &pool_router_cmd,    &no_pool_router_cmd,    &pool_lease_infinite_cmd,
    &pool_lease_cmd,      &pool_allow_cmd,     &no_pool_allow_cmd,     &pool_static_cmd,
    &no_pool_static_cmd,  &pool_port_bind_cmd, &no_pool_port_bind_cmd,
};

cmd_element *const show_cmds[] = {
    &show_dhcps_lease_cmd,
    &show_dhcps_lease_addr_cmd,
    &show_dhcps_cmd,
};

}  // namespace

void dhcps_vty_init() {
    install_node(&dhcps_pool_node, dhcps_config_write);
    install_default(DHCPS_POOL_NODE);
    for (cmd_element *cmd : global_cmds) {
        install_element(CONFIG_NODE, cmd);
    }
    install_element(CONFIG_NODE, &dhcps_pool_cmd);
    install_element(DHCPS_POOL_NODE, &dhcps_pool_cmd);
    install_element(CONFIG_NODE, &no_dhcps_pool_cmd);
    for (cmd_element *cmd : pool_cmds) {
        install_element(DHCPS_POOL_NODE, cmd);
    }
    for (cmd_element *cmd : show_cmds) {
        for (int node : {CONFIG_NODE, ENABLE_NODE, DHCPS_POOL_NODE}) {
            install_element(node, cmd);
        }
    }
}

// ---- writers and displays ----

void dhcps_pool_write_options(vty *vty, const dhcps_pool *pool) {
    for (const option_set *o = pool->options.get(); o != nullptr; o = o->next.get()) {
        write_option(vty, *o);
    }
}

void dhcps_pool_write_statics(vty *vty, const dhcps_pool *pool) {
    for (const dhcps_static_lease &s : pool->static_leases) {
        const std::uint8_t *m = s.mac;
        vty_out(vty, " static %s ", ntoa(s.ip).buf);
        vty_out(vty, "%02x-%02x-%02x-%02x-%02x-%02x%s", m[0], m[1], m[2], m[3], m[4], m[5],
                VTY_NEWLINE);
    }
}

void dhcps_pool_write_port_binds(vty *vty, const dhcps_pool *pool) {
    for (const dhcps_port_bind &b : pool->port_binds) {
        const uif *port = uif_lookup_by_index(static_cast<std::uint32_t>(b.ifindex));
        if (port == nullptr) {
            // The old walk retried a vanished port for ever and hung the
            // daemon; leaving the binding out keeps it alive.
            zlog_warn("port-bind of pool %s: port index %#x no longer exists, skipped", pool->name,
                      static_cast<unsigned>(b.ifindex));
            continue;
        }
        vty_out(vty, " port-bind %s %s%s", port->name.c_str(), ntoa(b.ip).buf, VTY_NEWLINE);
    }
}

void dhcps_pool_write_circuit_ids(vty *vty, const dhcps_pool *pool) {
    for (const std::string &id : pool->allow_circuit_ids) {
        vty_out(vty, " allow circuit-id %s%s", id.c_str(), VTY_NEWLINE);
    }
}

void dhcps_pool_block_write(vty *vty, const dhcps_pool *pool, dhcps_block_step step) {
    if (pool == nullptr) {
        return;
    }
    switch (step) {
        case dhcps_block_step::options:
            dhcps_pool_write_options(vty, pool);
            break;
        case dhcps_block_step::statics:
            dhcps_pool_write_statics(vty, pool);
            break;
        case dhcps_block_step::port_binds:
            dhcps_pool_write_port_binds(vty, pool);
            break;
        case dhcps_block_step::circuit_ids:
            dhcps_pool_write_circuit_ids(vty, pool);
            break;
    }
}

int dhcps_config_write(vty *vty) {
    if (dhcps_get_enable() != 0) {
        vty_out(vty, "dhcp-server enable%s", VTY_NEWLINE);
    }
    if (dhcps_get_write_time() != DEFAULT_WRITE_TIME) {
        vty_out(vty, "dhcp-server write-time %d%s", static_cast<int>(dhcps_get_write_time()),
                VTY_NEWLINE);
    }
    // Always written, also at the default.
    vty_out(vty, "dhcp-server max-lease-num %d%s", static_cast<int>(dhcps_get_max_lease_num()),
            VTY_NEWLINE);
    if (dhcps_get_information() != 0) {
        vty_out(vty, "dhcp-server information enable%s", VTY_NEWLINE);
    }
    if (dhcps_get_relay_reply_port() != DHCP_CLIENT_PORT) {
        vty_out(vty, "dhcp-server relay-reply-port %d%s",
                static_cast<int>(dhcps_get_relay_reply_port()), VTY_NEWLINE);
    }
    for (const auto &pool : dhcps_pool_list()) {
        zassert(pool != nullptr);
        // Options first: a replay must set the router before the network.
        write_pool_head(vty, pool.get());
        vty_out(vty, " pool %s%s", pool->enable ? "enable" : "disable", VTY_NEWLINE);
        write_pool_tail(vty, pool.get());
        vty_out(vty, " quit%s", VTY_NEWLINE);
        vty_out(vty, "!%s", VTY_NEWLINE);
    }
    return 0;
}

int show_dhcp_server(vty *vty) {
    vty_out(vty, "********************************%s", VTY_NEWLINE);
    vty_out(vty, "dhcp-server is %s.%s", dhcps_get_enable() ? "enabled" : "disabled", VTY_NEWLINE);
    vty_out(vty, "********************************%s", VTY_NEWLINE);
    vty_out(vty, "dhcp-server write-time    : %d seconds%s",
            static_cast<int>(dhcps_get_write_time()), VTY_NEWLINE);
    vty_out(vty, "dhcp-server max-lease-num : %d%s", static_cast<int>(dhcps_get_max_lease_num()),
            VTY_NEWLINE);
    vty_out(vty, "dhcp-server information   : %s%s",
            dhcps_get_information() ? "Enabled" : "Disabled", VTY_NEWLINE);
    for (const auto &pool : dhcps_pool_list()) {
        zassert(pool != nullptr);
        write_pool_head(vty, pool.get());
        vty_out(vty, "interface: %s, ", pool->interface ? pool->interface->name : "all");
        vty_out(vty, "state: %s%s", pool->enable ? "run" : "stop", VTY_NEWLINE);
        write_pool_tail(vty, pool.get());
    }
    return CMD_SUCCESS;
}

int dhcps_show_leases(vty *vty, std::uint32_t nip) {
    vty_out(vty, "%-16s  %-16s   %-20s  Lease Time(s)  Expires(s)%s", "Ip Address", "MAC Address",
            "Host Name", VTY_NEWLINE);
    const std::int64_t now = kq_time_get();
    int count = 0;
    dhcps_lease_foreach([&](const dhcps_lease &l) {
        // Offers and conflict reservations are not leases yet.
        if (dhcps_lease_state(&l) == 0 || (nip != 0 && dhcps_lease_nip(&l) != nip)) {
            return;
        }
        write_lease_line(vty, l, now);
        ++count;
    });
    vty_out(vty, "%s", VTY_NEWLINE);
    vty_out(vty, "Total: %d leases match.%s", count, VTY_NEWLINE);
    return CMD_SUCCESS;
}

// ---- pool entry and removal ----

int dhcps_pool_enter(vty *vty, const char *name, dhcps_pool **out) {
    if (name == nullptr || out == nullptr || !pool_name_typable(name)) {
        return CMD_WARNING;
    }
    if (std::strlen(name) >= DHCPS_POOL_NAME_LEN) {
        vty_out(vty, "%% the length of %s shoule be less than %d%s", name,
                static_cast<int>(DHCPS_POOL_NAME_LEN), VTY_NEWLINE);
        return CMD_WARNING;
    }
    dhcps_pool *pool = dhcps_pool_get(name);
    if (pool == nullptr) {
        vty_out(vty, "%% Max dhcp server pool is%d%s", static_cast<int>(DHCPS_POOL_MAX),
                VTY_NEWLINE);
        return CMD_WARNING;
    }
    // Entering a pool puts its lease back to ten days, also an existing one.
    if (dhcps_pool_set_lease(pool, DHCPS_DEFAULT_LEASE_TIME) != 0) {
        vty_out(vty, "%% Init pool DHCP_DEFAULT_LEASE_TIME fail!%s", VTY_NEWLINE);
    }
    *out = pool;
    return CMD_SUCCESS;
}

int dhcps_pool_remove(vty *vty, const char *name) {
    if (name == nullptr) {
        return CMD_WARNING;
    }
    dhcps_pool *pool = dhcps_lookup_by_name(name);
    if (pool == nullptr) {
        vty_out(vty, "%% dhcp pool %s not exsit%s", name, VTY_NEWLINE);
        return CMD_WARNING;
    }
    dhcps_delete_a_pool(pool);
    return CMD_SUCCESS;
}

// ---- pool setters ----

int dhcps_pool_set_enable(dhcps_pool *pool, std::uint32_t v) {
    if (pool == nullptr || v > 1) {
        return CMD_WARNING;
    }
    pool->enable = v;
    return CMD_SUCCESS;
}

int dhcps_pool_set_network(vty *vty, dhcps_pool *pool, const char *text) {
    if (pool == nullptr || text == nullptr) {
        return CMD_WARNING;
    }
    prefix_ipv4 p{};
    if (str2prefix_ipv4(text, &p) < 1) {
        return malformed(vty);
    }
    if (dhcp_find_option(pool->options, DHCP_ROUTER) == nullptr) {
        vty_out(vty, "Please set default-router first %s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    // The network's own refusals are logged there; the command stands.
    dhcps_network(pool, &p);
    return CMD_SUCCESS;
}

int dhcps_pool_set_range(vty *vty, dhcps_pool *pool, const char *begin, const char *end) {
    if (pool == nullptr || begin == nullptr || end == nullptr) {
        return CMD_WARNING;
    }
    std::uint32_t bnip = 0;
    std::uint32_t enip = 0;
    if (!parse_addr(begin, bnip)) {
        vty_out(vty, "%% Malformed begin-ip address %s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    if (!parse_addr(end, enip)) {
        vty_out(vty, "%% Malformed end-ip address %s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    if (ntohl(enip) < ntohl(bnip)) {
        vty_out(vty, "%% begin-ip must be not bigger than end-ip %s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    if (!pool->prefix) {
        vty_out(vty, "%% haven't set network yet!%s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    if (!in_network(pool, bnip)) {
        vty_out(vty, "%% begin IP address should in related network!%s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    if (!in_network(pool, enip)) {
        vty_out(vty, "%% end IP address should in related network!%s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    pool->begin_ip = ntohl(bnip);
    pool->end_ip = ntohl(enip);
    return CMD_SUCCESS;
}

int dhcps_pool_set_domain(vty *vty, dhcps_pool *pool, const char *text) {
    if (pool == nullptr || text == nullptr) {
        return CMD_WARNING;
    }
    // The option carries an address, not a DNS domain.
    std::uint32_t nip = 0;
    if (!parse_addr(text, nip)) {
        vty_out(vty, "%% domain address %s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    replace_option(pool, OPT_DOMAIN, addr_bytes({&nip, 1}));
    return CMD_SUCCESS;
}

int dhcps_pool_set_dns(vty *vty, dhcps_pool *pool, const char *text1, const char *text2) {
    if (pool == nullptr || text1 == nullptr) {
        return CMD_WARNING;
    }
    std::array<std::uint32_t, 2> nips{};
    std::size_t count = 1;
    if (!parse_addr(text1, nips[0])) {
        return malformed(vty);
    }
    if (text2 != nullptr && text2[0] != '\0') {
        if (!parse_addr(text2, nips[1])) {
            return malformed(vty);
        }
        count = 2;
    }
    replace_option(pool, OPT_DNS, addr_bytes(std::span(nips).first(count)));
    return CMD_SUCCESS;
}

int dhcps_pool_set_dns_list(vty *vty, dhcps_pool *pool, std::span<const char *const> texts) {
    if (texts.empty() || texts.size() > 2) {
        vty_out(vty, "%% Only support max 2 DNS Servers!%s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    return dhcps_pool_set_dns(vty, pool, texts[0], texts.size() == 2 ? texts[1] : nullptr);
}

int dhcps_pool_set_netbios(vty *vty, dhcps_pool *pool, const char *text) {
    return set_addr_option(vty, pool, text, OPT_NETBIOS);
}

int dhcps_pool_set_router(vty *vty, dhcps_pool *pool, const char *text) {
    return set_addr_option(vty, pool, text, OPT_ROUTER);
}

int dhcps_pool_set_lease(dhcps_pool *pool, std::uint32_t seconds) {
    if (pool == nullptr) {
        return CMD_WARNING;
    }
    seconds = std::min(seconds, DHCPS_LEASE_TIME_MAX);
    std::array<char, 16> text{};
    const int n = std::snprintf(text.data(), text.size(), "%u", seconds);
    const auto len = static_cast<std::size_t>(std::clamp(n, 0, 15));
    const int rc = replace_option(
        pool, OPT_LEASE, std::span(reinterpret_cast<const std::uint8_t *>(text.data()), len));
    if (rc != 0) {
        return rc;
    }
    pool->lease_time = seconds;
    return 0;
}

int dhcps_pool_unset_option(dhcps_pool *pool, std::uint8_t code) {
    if (pool == nullptr) {
        return CMD_WARNING;
    }
    if (dhcp_find_option(pool->options, code) == nullptr) {
        return CMD_ERR_NOTHING_TODO;
    }
    dhcp_delete_option(pool->options, code);
    return CMD_SUCCESS;
}

int dhcps_pool_unset_domain(vty *, dhcps_pool *pool) {
    return dhcps_pool_unset_option(pool, DHCP_DOMAIN_NAME);
}

int dhcps_pool_unset_dns(vty *, dhcps_pool *pool) {
    return dhcps_pool_unset_option(pool, DHCP_DNS_SERVER);
}

int dhcps_pool_unset_netbios(vty *, dhcps_pool *pool) {
    return dhcps_pool_unset_option(pool, DHCP_WINS_SERVER);
}

// The network stays when its router goes.
int dhcps_pool_unset_router(vty *, dhcps_pool *pool) {
    return dhcps_pool_unset_option(pool, DHCP_ROUTER);
}

int dhcps_allow_circuitID(vty *vty, dhcps_pool *pool, const char *text) {
    if (pool == nullptr || text == nullptr) {
        return CMD_WARNING;
    }
    const auto *id = reinterpret_cast<const std::uint8_t *>(text);
    const int len = static_cast<int>(std::min<std::size_t>(std::strlen(text), INT_MAX));
    // Matching is by prefix: an entry that begins with the new id blocks it.
    for (const auto &p : dhcps_pool_list()) {
        zassert(p != nullptr);
        if (allow_match(&p->allow_circuit_ids, id, len) == 1) {
            vty_out(vty, "%% Find a allow with same circuitID! Deconfigured it first!%s",
                    VTY_NEWLINE);
            return CMD_WARNING;
        }
    }
    switch (allow_add(&pool->allow_circuit_ids, text)) {
        case 0:
            return CMD_SUCCESS;
        case -6:
            vty_out(vty, "%% The allow circuitID num exceeds max: %d!%s",
                    static_cast<int>(DHCPS_ALLOW_CIRCUIT_MAX), VTY_NEWLINE);
            return CMD_ERR_LIMIT_REACHED;
        case -2:
            vty_out(vty, "%% malloc memory fail!%s", VTY_NEWLINE);
            return CMD_WARNING;
        case -8:
            vty_out(vty, "%% Already have a allow with same circuitID!%s", VTY_NEWLINE);
            return CMD_WARNING;
        default:
            return CMD_WARNING;
    }
}

int dhcps_pool_delete_circuit_id(vty *, dhcps_pool *pool, const char *text) {
    if (pool == nullptr || text == nullptr) {
        return CMD_WARNING;
    }
    allow_delete(&pool->allow_circuit_ids, text);
    return CMD_SUCCESS;
}

int dhcps_pool_add_static(vty *vty, dhcps_pool *pool, const char *ip, const char *mac) {
    if (pool == nullptr || ip == nullptr || mac == nullptr) {
        return CMD_WARNING;
    }
    std::uint32_t nip = 0;
    if (!parse_addr(ip, nip)) {
        return malformed(vty);
    }
    if (int rc = check_bind_addr(vty, pool, nip); rc != CMD_SUCCESS) {
        return rc;
    }
    dhcps_static_lease s{};
    s.ip = nip;
    if (vemix_str2mac(mac, s.mac) != 0) {
        vty_out(vty, "%% Invalid mac format%s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    const bool dup = std::any_of(pool->static_leases.begin(), pool->static_leases.end(),
                                 [&](const auto &e) { return std::memcmp(e.mac, s.mac, 6) == 0; });
    if (dup) {
        vty_out(vty, "%% Already have a lease with same port!%s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    if (static_total >= DHCPS_STATIC_MAX) {
        vty_out(vty, "%% The static lease num exceeds max: %d!%s",
                static_cast<int>(DHCPS_STATIC_MAX), VTY_NEWLINE);
        return CMD_ERR_LIMIT_REACHED;
    }
    pool->static_leases.push_back(s);
    ++static_total;
    // The address is handed out anew, under the binding.
    if (dhcps_lease *l = dhcps_find_lease_by_nip(nip); l != nullptr) {
        dhcps_lease_free(l);
    }
    return CMD_SUCCESS;
}

int dhcps_pool_delete_static(vty *vty, dhcps_pool *pool, const char *ip) {
    if (pool == nullptr || ip == nullptr) {
        return CMD_WARNING;
    }
    std::uint32_t nip = 0;
    if (!parse_addr(ip, nip)) {
        return malformed(vty);
    }
    auto &list = pool->static_leases;
    auto it = std::find_if(list.begin(), list.end(), [&](const auto &e) { return e.ip == nip; });
    if (it != list.end()) {
        list.erase(it);
        --static_total;
    }
    return CMD_SUCCESS;
}

std::size_t dhcps_static_count() {
    return static_total;
}

void dhcps_static_count_recount() {
    static_total = 0;
    for (const auto &p : dhcps_pool_list()) {
        static_total += p->static_leases.size();
    }
}

int dhcps_pool_add_port_bind(vty *vty, dhcps_pool *pool, const char *ifname, const char *ip) {
    if (pool == nullptr || ifname == nullptr || ip == nullptr) {
        return CMD_WARNING;
    }
    const uif *port = uif_lookup_by_name(ifname);
    if (port == nullptr) {
        vty_out(vty, "%% Can't find interface %s%s", ifname, VTY_NEWLINE);
        return CMD_WARNING;
    }
    std::uint32_t nip = 0;
    if (!parse_addr(ip, nip)) {
        return malformed(vty);
    }
    if (int rc = check_bind_addr(vty, pool, nip); rc != CMD_SUCCESS) {
        return rc;
    }
    const auto ifindex = static_cast<std::int32_t>(port->index);
    auto &list = pool->port_binds;
    if (std::any_of(list.begin(), list.end(),
                    [&](const auto &b) { return b.ifindex == ifindex; })) {
        vty_out(vty, "%% Already have a lease with same mac!%s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    list.push_back({nip, ifindex});
    return CMD_SUCCESS;
}

int dhcps_pool_delete_port_bind(vty *vty, dhcps_pool *pool, const char *ifname) {
    if (pool == nullptr || ifname == nullptr) {
        return CMD_WARNING;
    }
    const uif *port = uif_lookup_by_name(ifname);
    if (port == nullptr) {
        vty_out(vty, "%% Can't find interface %s%s", ifname, VTY_NEWLINE);
        return CMD_WARNING;
    }
    const auto ifindex = static_cast<std::int32_t>(port->index);
    auto &list = pool->port_binds;
    auto it =
        std::find_if(list.begin(), list.end(), [&](const auto &b) { return b.ifindex == ifindex; });
    if (it != list.end()) {
        list.erase(it);
    }
    return CMD_SUCCESS;
}
