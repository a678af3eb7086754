// The daemon-wide debug flag word and the commands that set it, and the
// interface configuration node.
#pragma once

#include <cstdint>

extern std::uint32_t dhcp_debug;

constexpr std::uint32_t DHCP_DEBUG_EVENTS = 0x1;
constexpr std::uint32_t DHCP_DEBUG_PACKET = 0x2;
constexpr std::uint32_t DHCP_DEBUG_INTERFACE = 0x4;
constexpr std::uint32_t DHCP_DEBUG_TIMER = 0x8;

inline bool dhcp_debug_on(std::uint32_t bit) {
    return (dhcp_debug & bit) != 0;
}

// Installs the interface node and its commands, then the debug commands.
void dhcp_debug_init();
