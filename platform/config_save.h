// Saving the switch's running configuration.
#pragma once

// Writes the running configuration (every node's configuration writer) to
// the startup file atomically, through the same writer as "write memory":
// a temporary file beside it, fsync, rename. The file is what `dhcpsh -b`
// replays at boot. 0, or -1 (logged).
int config_save();
