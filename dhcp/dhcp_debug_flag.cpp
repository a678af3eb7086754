#include "dhcp/dhcp_debug.h"

// Kept apart from the debug commands so the message layer links without the CLI.
std::uint32_t dhcp_debug = 0;
