#include "lib/log_vty.h"

#include "lib/command.h"
#include "lib/log.h"
#include "lib/vty.h"

namespace {

#define LOG_STR "Logging control\n"
#define LEVELS "(emergencies|alerts|critical|errors|warnings|notifications|informational|debugging)"
#define LEVELS_STR                                                                         \
    "System is unusable\nImmediate action needed\nCritical conditions\nError conditions\n" \
    "Warning conditions\nNormal but significant conditions\nInformational messages\n"      \
    "Debugging messages\n"
#define STDOUT_STR "Set stdout logging level\n"
#define SYSLOG_STR "Set syslog logging level\n"
#define FILE_STR "Logging to file\nLogging filename\n"

// The level named by argv[index], or the default threshold when it is absent.
int level_arg(int argc, const char *argv[], int index) {
    if (argc <= index) {
        return ZLOG_DEFAULT_LEVEL;
    }
    int level = zlog_level_from_name(argv[index]);
    return level < 0 ? ZLOG_DEFAULT_LEVEL : level;
}

int no_log_open(vty *vty) {
    vty_out(vty, "%% Logging is not open%s", VTY_NEWLINE);
    return CMD_WARNING;
}

int set_level(vty *vty, zlog_dest dest, int level) {
    if (zlog_default == nullptr) {
        return no_log_open(vty);
    }
    zlog_set_level(zlog_default, dest, level);
    return CMD_SUCCESS;
}

DEFUN(config_log_stdout, config_log_stdout_cmd, "log stdout", LOG_STR STDOUT_STR) {
    return set_level(vty, ZLOG_DEST_STDOUT, level_arg(argc, argv, 0));
}
ALIAS(config_log_stdout, config_log_stdout_level_cmd, "log stdout " LEVELS,
      LOG_STR STDOUT_STR LEVELS_STR)

DEFUN(no_config_log_stdout, no_config_log_stdout_cmd, "no log stdout", NO_STR LOG_STR STDOUT_STR) {
    return set_level(vty, ZLOG_DEST_STDOUT, ZLOG_DISABLED);
}
ALIAS(no_config_log_stdout, no_config_log_stdout_level_cmd, "no log stdout " LEVELS,
      NO_STR LOG_STR STDOUT_STR LEVELS_STR)

DEFUN(config_log_syslog, config_log_syslog_cmd, "log syslog", LOG_STR SYSLOG_STR) {
    return set_level(vty, ZLOG_DEST_SYSLOG, level_arg(argc, argv, 0));
}
ALIAS(config_log_syslog, config_log_syslog_level_cmd, "log syslog " LEVELS,
      LOG_STR SYSLOG_STR LEVELS_STR)

DEFUN(no_config_log_syslog, no_config_log_syslog_cmd, "no log syslog", NO_STR LOG_STR SYSLOG_STR) {
    return set_level(vty, ZLOG_DEST_SYSLOG, ZLOG_DISABLED);
}
ALIAS(no_config_log_syslog, no_config_log_syslog_level_cmd, "no log syslog " LEVELS,
      NO_STR LOG_STR SYSLOG_STR LEVELS_STR)

DEFUN(config_log_file, config_log_file_cmd, "log file FILENAME", LOG_STR FILE_STR) {
    if (zlog_default == nullptr) {
        return no_log_open(vty);
    }
    if (zlog_set_file(zlog_default, argv[0], level_arg(argc, argv, 1)) == 0) {
        vty_out(vty, "%% Can't open log file %s%s", argv[0], VTY_NEWLINE);
        return CMD_WARNING;
    }
    return CMD_SUCCESS;
}
ALIAS(config_log_file, config_log_file_level_cmd, "log file FILENAME " LEVELS,
      LOG_STR FILE_STR LEVELS_STR)

DEFUN(no_config_log_file, no_config_log_file_cmd, "no log file",
      NO_STR LOG_STR "Logging to file\n") {
    if (zlog_default == nullptr) {
        return no_log_open(vty);
    }
    zlog_reset_file(zlog_default);
    return CMD_SUCCESS;
}
ALIAS(no_config_log_file, no_config_log_file_name_cmd, "no log file FILENAME",
      NO_STR LOG_STR FILE_STR)
ALIAS(no_config_log_file, no_config_log_file_level_cmd, "no log file FILENAME " LEVELS,
      NO_STR LOG_STR FILE_STR LEVELS_STR)

cmd_element *const log_cmds[] = {
    &config_log_stdout_cmd,          &config_log_stdout_level_cmd,    &no_config_log_stdout_cmd,
    &no_config_log_stdout_level_cmd, &config_log_syslog_cmd,          &config_log_syslog_level_cmd,
    &no_config_log_syslog_cmd,       &no_config_log_syslog_level_cmd, &config_log_file_cmd,
    &config_log_file_level_cmd,      &no_config_log_file_cmd,         &no_config_log_file_name_cmd,
    &no_config_log_file_level_cmd,
};

void write_dest(vty *vty, zlog_dest dest, const char *name) {
    int level = zlog_get_level(zlog_default, dest);
    if (level == zlog_get_default_level(zlog_default, dest)) {
        return;
    }
    if (level == ZLOG_DISABLED) {
        vty_out(vty, "no log %s%s", name, VTY_NEWLINE);
    } else {
        vty_out(vty, "log %s %s%s", name, zlog_level_name(level), VTY_NEWLINE);
    }
}

}  // namespace

void zlog_cmd_init() {
    for (cmd_element *cmd : log_cmds) {
        install_element(CONFIG_NODE, cmd);
    }
}

void zlog_config_write(vty *vty) {
    if (zlog_default == nullptr) {
        return;
    }
    write_dest(vty, ZLOG_DEST_STDOUT, "stdout");
    write_dest(vty, ZLOG_DEST_SYSLOG, "syslog");
    const char *file = zlog_get_filename(zlog_default);
    int level = zlog_get_level(zlog_default, ZLOG_DEST_FILE);
    if (file != nullptr && level != zlog_get_default_level(zlog_default, ZLOG_DEST_FILE)) {
        vty_out(vty, "log file %s %s%s", file, zlog_level_name(level), VTY_NEWLINE);
    }
}
