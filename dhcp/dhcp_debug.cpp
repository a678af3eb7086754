// The interface configuration node and the debug switches.
#include "dhcp/dhcp_debug.h"

#include <cstring>

#include "dhcp/dhcp_zebra.h"
#include "lib/if.h"
#include "lib/vty.h"

namespace {

#define DHCP_STR "Dynamic Host Configuration Protocol\n"

cmd_node interface_node = {INTERFACE_NODE, "", 1};

DEFUN(show_debugging_dhcp, show_debugging_dhcp_cmd, "show debugging dhcp",
      SHOW_STR "Debugging information\nDhcp debugging information\n") {
    vty_out(vty, "Dhcp debugging status:%s", VTY_NEWLINE);
    if (dhcp_debug & DHCP_DEBUG_EVENTS) {
        vty_out(vty, "  Dhcp event debugging is on%s", VTY_NEWLINE);
    }
    if (dhcp_debug & DHCP_DEBUG_PACKET) {
        vty_out(vty, "  Dhcp packet debugging is on%s", VTY_NEWLINE);
    }
    if (dhcp_debug & DHCP_DEBUG_INTERFACE) {
        vty_out(vty, "  Dhcp interface debugging is on%s", VTY_NEWLINE);
    }
    // The timer line follows the interface bit, exactly as operators know it.
    if (dhcp_debug & DHCP_DEBUG_INTERFACE) {
        vty_out(vty, "  Dhcp timer debugging is on%s", VTY_NEWLINE);
    }
    return CMD_SUCCESS;
}

#define DEBUG_SET(fn, cmd, word, help, bits)                      \
    DEFUN(fn, cmd, "debug dhcp " word, DEBUG_STR DHCP_STR help) { \
        dhcp_debug |= (bits);                                     \
        return CMD_SUCCESS;                                       \
    }
#define DEBUG_CLEAR(fn, cmd, word, help, bits)                              \
    DEFUN(fn, cmd, "no debug dhcp " word, NO_STR DEBUG_STR DHCP_STR help) { \
        dhcp_debug &= ~(bits);                                              \
        return CMD_SUCCESS;                                                 \
    }

DEBUG_SET(debug_dhcp_events, debug_dhcp_events_cmd, "events", "Debug option set for dhcp events\n",
          DHCP_DEBUG_EVENTS)
DEBUG_SET(debug_dhcp_packet, debug_dhcp_packet_cmd, "packet", "Debug option set for dhcp packet\n",
          DHCP_DEBUG_PACKET)
DEBUG_SET(debug_dhcp_interface, debug_dhcp_interface_cmd, "interface",
          "Debug option set for interface\n", DHCP_DEBUG_INTERFACE)
DEBUG_SET(debug_dhcp_timer, debug_dhcp_timer_cmd, "timer", "Debug option set for timer\n",
          DHCP_DEBUG_TIMER)
DEBUG_SET(debug_dhcp_all, debug_dhcp_all_cmd, "all", "Debug option set for all\n",
          DHCP_DEBUG_EVENTS | DHCP_DEBUG_PACKET | DHCP_DEBUG_INTERFACE | DHCP_DEBUG_TIMER)
DEBUG_CLEAR(no_debug_dhcp_events, no_debug_dhcp_events_cmd, "events",
            "Debug option set for dhcp events\n", DHCP_DEBUG_EVENTS)
// The help line below names another protocol; operators' scripts match it as is.
DEBUG_CLEAR(no_debug_dhcp_packet, no_debug_dhcp_packet_cmd, "packet",
            "Debug option set for Igmp-snooping packet\n", DHCP_DEBUG_PACKET)
DEBUG_CLEAR(no_debug_dhcp_interface, no_debug_dhcp_interface_cmd, "interface",
            "Debug option set for interface\n", DHCP_DEBUG_INTERFACE)
DEBUG_CLEAR(no_debug_dhcp_timer, no_debug_dhcp_timer_cmd, "timer", "Debug option set for timer\n",
            DHCP_DEBUG_TIMER)
DEBUG_CLEAR(no_debug_dhcp_all, no_debug_dhcp_all_cmd, "all", "Debug option set for all\n",
            0xffffffffu)

DEFUN(dhcp_interface, dhcp_interface_cmd, "interface IFNAME",
      "Select an interface to configure\nInterface's name\n") {
    const char *name = argv[0];
    // Only routed VLAN interfaces and management ports carry DHCP.
    if (std::strncmp(name, "vlanif", 6) != 0 && std::strncmp(name, "eth", 3) != 0) {
        vty_out(vty, "%% [%s]Cann't create interface %s%s", "dhcp_interface", name, VTY_NEWLINE);
        return CMD_ERR_NOTHING_TODO;
    }
    return interface_cmd.func(self, vty, argc, argv);
}

DEFUN(no_dhcp_interface, no_dhcp_interface_cmd, "no interface IFNAME",
      NO_STR "Select an interface to configure\nInterface's name\n") {
    // Pools and the relay let go of the interface before its record goes.
    if (interface *ifp = if_lookup_by_name(argv[0]); ifp != nullptr) {
        dhcp_interface_forget(ifp);
    }
    return CMD_SUCCESS;
}

cmd_element *const debug_cmds[] = {
    &show_debugging_dhcp_cmd,  &debug_dhcp_events_cmd,    &debug_dhcp_packet_cmd,
    &debug_dhcp_interface_cmd, &debug_dhcp_timer_cmd,     &debug_dhcp_all_cmd,
    &no_debug_dhcp_events_cmd, &no_debug_dhcp_packet_cmd, &no_debug_dhcp_interface_cmd,
    &no_debug_dhcp_timer_cmd,  &no_debug_dhcp_all_cmd,
};

}  // namespace

void dhcp_debug_init() {
    install_node(&interface_node, nullptr);
    install_default(INTERFACE_NODE);
    install_element(CONFIG_NODE, &dhcp_interface_cmd);
    install_element(CONFIG_NODE, &no_dhcp_interface_cmd);
    for (int node : {ENABLE_NODE, CONFIG_NODE}) {
        for (cmd_element *cmd : debug_cmds) {
            install_element(node, cmd);
        }
    }
}
