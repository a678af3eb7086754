// The relay's operator commands: "dhcp-relay (enable|disable)",
// "dhcp-relay server-reply-port (67|68)", the eight
// interface commands (remote server and option 82), "show dhcp-relay" and
// the relay's part of the running configuration.
//
// Handlers are thin: they change records only through the relay's setters
// (dhcp/dhcpr.h). The remote-server workers take vty = nullptr from the JSON
// surface (messages then go nowhere) and return the same CLI result codes:
// CMD_SUCCESS, CMD_WARNING (no interface or argument, nothing printed),
// CMD_ERR_NOTHING_TODO (refused, message printed).
#pragma once

#include <cstdint>

struct vty;
struct interface;

// Installs node 82 (writer and "show dhcp-relay" only) and every relay
// command. Called once at start-up, after the interface node exists.
void dhcpr_vty_init();

// "dhcp-relay remote-server A.B.C.D" and "no dhcp-relay remote-server".
int dhcpr_remote_server_set(vty *vty, interface *ifp, const char *address);
int dhcpr_remote_server_unset(vty *vty, interface *ifp);
// "dhcp-relay server-reply-port (67|68)": the port as text, "67" or "68".
// CMD_WARNING without an argument; any other text is refused
// (CMD_ERR_NOTHING_TODO, message printed) and changes nothing.
int dhcpr_server_reply_port_set(vty *vty, const char *port);

// Writer of node 82. Returns 0.
int dhcpr_config_write(vty *vty);
// "show dhcp-relay". Returns 0.
int show_dhcp_relay(vty *vty);

// Display words of the option-82 codes: drop, keep, replace; string, normal.
const char *option82_strategy_str(std::uint32_t strategy);
const char *option82_submode_str(std::uint32_t mode);
