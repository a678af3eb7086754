// The log commands of the configuration node and their configuration lines.
//
//   [no] log (stdout|syslog) [LEVEL]
//   log file FILENAME [LEVEL]     no log file [FILENAME [LEVEL]]
// LEVEL is a name of zlog_level_name(); without one, "informational".
#pragma once

struct vty;

// Installs the log commands in CONFIG_NODE (cmd_init calls it).
void zlog_cmd_init();
// Writes the log commands that differ from the log's default thresholds.
void zlog_config_write(vty *vty);
