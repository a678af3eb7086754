#include "platform/config_save.h"

#include "lib/command.h"
#include "lib/log.h"

#include <cerrno>
#include <cstring>

int config_save() {
    const char *path = cmd_config_file();
    if (config_write_file(path) != 0) {
        zlog_err("config_save: cannot write %s: %s", path, std::strerror(errno));
        return -1;
    }
    return 0;
}
