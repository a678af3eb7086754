// The relay's commands, display and running-configuration writer.
#include "dhcp/dhcpr_vty.h"

#include <algorithm>
#include <cstring>

#include "dhcp/dhcpr.h"
#include "lib/command.h"
#include "lib/if.h"
#include "lib/sockunion.h"
#include "lib/vty.h"

namespace {

constexpr std::size_t SU_TEXT_SIZE = 46;

#define RELAY_STR "Configure dhcp-relay\n"
#define REMOTE_SERVER_STR "Remote DHCP Server(Relay it's DHCP packets)\n"
#define INFORMATION_STR "DHCP Relay Option-82 Configuration\n"
#define CIRCUIT_ID_STR "Circuit-ID(sub-option 1) of Option-82\n"
#define REMOTE_ID_STR "Remote-ID(sub-option 2) of Option-82\n"

// Node 82: entered by no command; it carries the writer and the display.
cmd_node dhcpr_node = {DHCPR_NODE, "%s(config-%s)# ", 1, dhcpr_config_write};

// The interface a session is in; none when it was deleted under the session.
interface *current_interface(vty *vty) {
    const auto *want = static_cast<const interface *>(vty->index);
    if (want == nullptr) {
        return nullptr;
    }
    const auto list = vrf_iflist(VRF_DEFAULT);
    auto it = std::find(list.begin(), list.end(), want);
    return it == list.end() ? nullptr : *it;
}

// Argument words are told apart by their first letter only.
char first_letter(int argc, const char *argv[]) {
    return (argc >= 1 && argv[0] != nullptr) ? argv[0][0] : '\0';
}

std::uint32_t strategy_of(char c) {
    switch (c) {
        case 'k':
            return DHCPR_OPT82_KEEP;
        case 'r':
            return DHCPR_OPT82_REPLACE;
        default:
            return DHCPR_OPT82_DROP;
    }
}

// The checks every option-82 command makes before setting; its result is
// the command's, and *proceed says whether there is a record to set.
int opt82_precheck(vty *vty, interface *ifp, bool *proceed) {
    *proceed = false;
    if (ifp == nullptr) {
        return CMD_WARNING;
    }
    const dhcpr_if_info *info = dhcpr_if_binding(ifp);
    if (info == nullptr || info->kind != DHCPR_IF_KIND_RELAY) {
        vty_out(vty, "%% No dhcp-relay be configured at this interface%s", VTY_NEWLINE);
        return CMD_ERR_NOTHING_TODO;
    }
    *proceed = info->relay != nullptr;
    return CMD_SUCCESS;
}

using id_setter = int (*)(interface *, std::uint32_t, const char *);

// circuit-id and remote-id: s is string mode with the STRING argument, n
// normal mode.
int set_id_command(vty *vty, int argc, const char *argv[], id_setter set) {
    interface *ifp = current_interface(vty);
    bool proceed = false;
    const int rc = opt82_precheck(vty, ifp, &proceed);
    if (!proceed) {
        return rc;
    }
    const char c = first_letter(argc, argv);
    if (c == 's') {
        if (argc < 2 || argv[1] == nullptr) {
            return CMD_WARNING;
        }
        set(ifp, DHCPR_SUBMODE_STRING, argv[1]);
    } else if (c == 'n') {
        set(ifp, DHCPR_SUBMODE_NORMAL, nullptr);
    }
    return CMD_SUCCESS;
}

// Only relay bindings are listed.
template <class F>
void for_each_relay(F f) {
    for (interface *ifp : vrf_iflist(VRF_DEFAULT)) {
        const dhcpr_if_info *info = dhcpr_if_binding(ifp);
        if (info != nullptr && info->kind == DHCPR_IF_KIND_RELAY && info->relay != nullptr) {
            f(*ifp, *info->relay);
        }
    }
}

struct su_text {
    char buf[SU_TEXT_SIZE] = {};
};

su_text server_text(const dhcpr_if &r) {
    su_text t;
    sockunion2str(&r.server, t.buf, sizeof t.buf);
    return t;
}

void show_one(vty *vty, const interface &ifp, const dhcpr_if &r) {
    vty_out(vty, "%s", VTY_NEWLINE);
    vty_out(vty, "Interface         : %s%s", ifp.name, VTY_NEWLINE);
    vty_out(vty, "Remote Server-IP  : %s%s", server_text(r).buf, VTY_NEWLINE);
    vty_out(vty, "Option-82 Enable  : %s%s", r.opt82_enable != 0 ? "Enabled" : "Disabled",
            VTY_NEWLINE);
    vty_out(vty, "Option-82 Strategy: %s%s", option82_strategy_str(r.opt82_strategy), VTY_NEWLINE);
    vty_out(vty, "Circuit-ID Mode   : %s%s", option82_submode_str(r.circuit_id_mode), VTY_NEWLINE);
    vty_out(vty, "Remote-ID Mode    : %s%s", option82_submode_str(r.remote_id_mode), VTY_NEWLINE);
    vty_out(vty, "Circuit-ID string : %s%s", r.circuit_id, VTY_NEWLINE);
    vty_out(vty, "Remote-ID String  : %s%s", r.remote_id, VTY_NEWLINE);
}

void write_id(vty *vty, const char *word, std::uint32_t mode, const char *text) {
    if (mode == DHCPR_SUBMODE_NORMAL) {
        return;
    }
    vty_out(vty, " dhcp-relay information %s %s", word, option82_submode_str(mode));
    if (mode == DHCPR_SUBMODE_STRING) {
        vty_out(vty, " %s", text);
    }
    vty_out(vty, "%s", VTY_NEWLINE);
}

void write_one(vty *vty, const interface &ifp, const dhcpr_if &r) {
    vty_out(vty, "interface %s%s", ifp.name, VTY_NEWLINE);
    vty_out(vty, " dhcp-relay remote-server %s%s", server_text(r).buf, VTY_NEWLINE);
    if (r.opt82_enable != 0) {
        vty_out(vty, " dhcp-relay information enable%s", VTY_NEWLINE);
    }
    if (r.opt82_strategy != DHCPR_OPT82_REPLACE) {
        vty_out(vty, " dhcp-relay information strategy %s%s",
                option82_strategy_str(r.opt82_strategy), VTY_NEWLINE);
    }
    write_id(vty, "circuit-id", r.circuit_id_mode, r.circuit_id);
    write_id(vty, "remote-id", r.remote_id_mode, r.remote_id);
    vty_out(vty, " quit%s", VTY_NEWLINE);
}

// ---- commands ----

DEFUN(dhcp_relay_enable, dhcp_relay_enable_cmd, "dhcp-relay (enable|disable)",
      "Configure dhcp relay\nEnable dhcp-relay\nDisable dhcp-relay\n") {
    // A socket failure shows in the log only.
    dhcpr_enable_set(first_letter(argc, argv) == 'e' ? 1 : 0);
    return CMD_SUCCESS;
}

DEFUN(dhcp_relay_server_reply_port, dhcp_relay_server_reply_port_cmd,
      "dhcp-relay server-reply-port (67|68)",
      "Configure dhcp relay\n"
      "UDP port of DHCP Server's replies(and of relayed requests)\n"
      "Port 67(as RFC 2131 DHCP Servers reply to a relay)\n"
      "Port 68(default)\n") {
    return dhcpr_server_reply_port_set(vty, argc >= 1 ? argv[0] : nullptr);
}

DEFUN(dhcp_relay_remote_server, dhcp_relay_remote_server_cmd, "dhcp-relay remote-server A.B.C.D",
      RELAY_STR REMOTE_SERVER_STR "Specify the IP Address\n") {
    return dhcpr_remote_server_set(vty, current_interface(vty), argc >= 1 ? argv[0] : nullptr);
}

DEFUN(no_dhcp_relay_remote_server, no_dhcp_relay_remote_server_cmd, "no dhcp-relay remote-server",
      NO_STR RELAY_STR REMOTE_SERVER_STR) {
    return dhcpr_remote_server_unset(vty, current_interface(vty));
}

DEFUN(dhcp_relay_information, dhcp_relay_information_cmd, "dhcp-relay information (enable|disable)",
      RELAY_STR INFORMATION_STR "Enable Option-82\nDisable Option-82\n") {
    interface *ifp = current_interface(vty);
    bool proceed = false;
    const int rc = opt82_precheck(vty, ifp, &proceed);
    if (proceed) {
        dhcpr_if_opt82_enable_set(ifp, first_letter(argc, argv) == 'e' ? 1 : 0);
    }
    return rc;
}

DEFUN(dhcp_relay_strategy, dhcp_relay_strategy_cmd,
      "dhcp-relay information strategy (drop|keep|replace)",
      RELAY_STR INFORMATION_STR
      "Processing strategy of DHCP Request with Option-82\n"
      "Drop the packet with Option-82\n"
      "Keep Option-82 in the packet\n"
      "Replace the Option-82 with device's information\n") {
    interface *ifp = current_interface(vty);
    bool proceed = false;
    const int rc = opt82_precheck(vty, ifp, &proceed);
    if (proceed) {
        dhcpr_if_opt82_strategy_set(ifp, strategy_of(first_letter(argc, argv)));
    }
    return rc;
}

DEFUN(dhcp_relay_circuit_id, dhcp_relay_circuit_id_cmd,
      "dhcp-relay information circuit-id (normal)",
      RELAY_STR INFORMATION_STR CIRCUIT_ID_STR "Fill Circuit ID sub-option in Normal mode\n") {
    return set_id_command(vty, argc, argv, dhcpr_if_circuit_id_set);
}

ALIAS(dhcp_relay_circuit_id, dhcp_relay_circuit_id_string_cmd,
      "dhcp-relay information circuit-id (string) STRING",
      RELAY_STR INFORMATION_STR CIRCUIT_ID_STR
      "Fill Circuit ID sub-option with specified string\n"
      "Specify string as Circuit ID\n")

DEFUN(dhcp_relay_remote_id, dhcp_relay_remote_id_cmd, "dhcp-relay information remote-id (normal)",
      RELAY_STR INFORMATION_STR REMOTE_ID_STR "Fill Remote ID sub-option in Normal mode\n") {
    return set_id_command(vty, argc, argv, dhcpr_if_remote_id_set);
}

ALIAS(dhcp_relay_remote_id, dhcp_relay_remote_id_string_cmd,
      "dhcp-relay information remote-id (string) STRING",
      RELAY_STR INFORMATION_STR REMOTE_ID_STR
      "Fill Remote ID sub-option with specified string\n"
      "Specify string as Remote ID\n")

DEFUN(show_dhcp_relay_func, show_dhcp_relay_cmd, "show dhcp-relay",
      SHOW_STR "dhcp-relay configurations\n") {
    return show_dhcp_relay(vty);
}

cmd_element *const interface_cmds[] = {
    &dhcp_relay_remote_server_cmd, &no_dhcp_relay_remote_server_cmd,
    &dhcp_relay_information_cmd,   &dhcp_relay_strategy_cmd,
    &dhcp_relay_circuit_id_cmd,    &dhcp_relay_circuit_id_string_cmd,
    &dhcp_relay_remote_id_cmd,     &dhcp_relay_remote_id_string_cmd,
};

}  // namespace

void dhcpr_vty_init() {
    install_node(&dhcpr_node, dhcpr_config_write);
    install_default(DHCPR_NODE);
    install_element(CONFIG_NODE, &dhcp_relay_enable_cmd);
    install_element(CONFIG_NODE, &dhcp_relay_server_reply_port_cmd);
    for (cmd_element *cmd : interface_cmds) {
        install_element(INTERFACE_NODE, cmd);
    }
    for (int node : {CONFIG_NODE, ENABLE_NODE, DHCPR_NODE}) {
        install_element(node, &show_dhcp_relay_cmd);
    }
}

int dhcpr_remote_server_set(vty *vty, interface *ifp, const char *address) {
    if (ifp == nullptr || address == nullptr) {
        return CMD_WARNING;
    }
    sockunion su{};
    const int rc = str2sockunion(address, &su);
    // Only an IPv4 server fits the record: another family is malformed here.
    if (rc != 0 || su.sa.sa_family != AF_INET) {
        vty_out(vty, "Malformed address: %d %s%s", rc != 0 ? rc : -1, address, VTY_NEWLINE);
        return CMD_ERR_NOTHING_TODO;
    }
    const dhcpr_if_info *info = dhcpr_if_binding(ifp);
    if (info != nullptr && info->kind != DHCPR_IF_KIND_RELAY) {
        vty_out(vty, "%%The interface has configure dhcp, undo it first%s", VTY_NEWLINE);
        return CMD_ERR_NOTHING_TODO;
    }
    if (dhcpr_enable_get() == 0) {
        vty_out(vty, "%% Since dhcp-relay is not enabled, config will be inactive now.%s",
                VTY_NEWLINE);
    }
    dhcpr_if_relay_set(ifp, &su);
    return CMD_SUCCESS;
}

int dhcpr_remote_server_unset(vty *vty, interface *ifp) {
    if (ifp == nullptr) {
        return CMD_WARNING;
    }
    dhcpr_if_info *info = dhcpr_if_binding(ifp);
    if (info != nullptr && info->kind == DHCPR_IF_KIND_RELAY) {
        dhcpr_if_relay_delete(ifp, info);
        return CMD_SUCCESS;
    }
    vty_out(vty, "%% No dhcp-relay be configured at this interface%s", VTY_NEWLINE);
    return CMD_ERR_NOTHING_TODO;
}

int dhcpr_server_reply_port_set(vty *vty, const char *port) {
    if (port == nullptr) {
        return CMD_WARNING;
    }
    const std::uint16_t value = std::strcmp(port, "67") == 0   ? DHCPR_REPLY_PORT_RFC
                                : std::strcmp(port, "68") == 0 ? DHCPR_REPLY_PORT_DEFAULT
                                                               : 0;
    if (dhcpr_reply_port_set(value) != 0) {
        vty_out(vty, "%% Invalid server reply port %s, 67 or 68 expected%s", port, VTY_NEWLINE);
        return CMD_ERR_NOTHING_TODO;
    }
    return CMD_SUCCESS;
}

// The global lines come first; the reply port only when it is not 68.
int dhcpr_config_write(vty *vty) {
    if (dhcpr_enable_get() != 0) {
        vty_out(vty, "dhcp-relay enable%s", VTY_NEWLINE);
    }
    if (dhcpr_reply_port_get() != DHCPR_REPLY_PORT_DEFAULT) {
        vty_out(vty, "dhcp-relay server-reply-port %d%s", static_cast<int>(dhcpr_reply_port_get()),
                VTY_NEWLINE);
    }
    for_each_relay([vty](const interface &ifp, const dhcpr_if &r) { write_one(vty, ifp, r); });
    return 0;
}

// The relay state reads in lower case, option 82 in capitals, and "string"
// is lower-case in one label and capitalised in the other. Kept so.
int show_dhcp_relay(vty *vty) {
    vty_out(vty, "********************************%s", VTY_NEWLINE);
    vty_out(vty, "DHCP Relay is %s.%s", dhcpr_enable_get() != 0 ? "enabled" : "disabled",
            VTY_NEWLINE);
    vty_out(vty, "********************************%s", VTY_NEWLINE);
    for_each_relay([vty](const interface &ifp, const dhcpr_if &r) { show_one(vty, ifp, r); });
    return 0;
}

const char *option82_strategy_str(std::uint32_t strategy) {
    switch (strategy) {
        case DHCPR_OPT82_DROP:
            return "drop";
        case DHCPR_OPT82_KEEP:
            return "keep";
        case DHCPR_OPT82_REPLACE:
            return "replace";
        default:
            return "unknown";
    }
}

const char *option82_submode_str(std::uint32_t mode) {
    switch (mode) {
        case DHCPR_SUBMODE_STRING:
            return "string";
        case DHCPR_SUBMODE_NORMAL:
            return "normal";
        default:
            return "unknown";
    }
}
