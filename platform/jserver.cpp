// The request registry and dispatcher of the JSON request server. The socket
// side lives beside it (jserver_init, jserver_close).
#include "platform/jserver.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct jserver_cmd {
    std::string name;
    jserver_handler_fn handler;
};

std::vector<jserver_cmd> &cmds() {
    static std::vector<jserver_cmd> list;
    return list;
}

int reply_text(const char *text, char *response, std::size_t size, int *len) {
    const std::size_t n = std::min(std::strlen(text), size);
    std::memcpy(response, text, n);
    *len = static_cast<int>(n);
    return -1;
}

}  // namespace

int jserver_cmd_add(const char *name, jserver_handler_fn handler) {
    if (name == nullptr || *name == '\0' || handler == nullptr) {
        return -1;
    }
    for (auto &c : cmds()) {
        if (c.name == name) {
            c.handler = handler;
            return 0;
        }
    }
    cmds().push_back({name, handler});
    return 0;
}

void jserver_cmd_reset() {
    cmds().clear();
}

int jserver_cmd_handle(cJSON *root, char *response, std::size_t size, int *len) {
    *len = 0;
    if (root == nullptr) {
        return reply_text(JSERVER_ERR_PARSE, response, size, len);
    }
    if (!cJSON_IsObject(root)) {
        return reply_text(JSERVER_ERR_PARSE, response, size, len);
    }
    const cJSON *cmd = cJSON_GetObjectItemCaseSensitive(root, "cmd");
    if (!cJSON_IsString(cmd) || cmd->valuestring == nullptr) {
        return reply_text(JSERVER_ERR_NO_CMD, response, size, len);
    }
    for (const auto &c : cmds()) {
        if (c.name == cmd->valuestring) {
            *len = std::max(0, c.handler(root, response));
            return 0;
        }
    }
    return reply_text(JSERVER_ERR_UNKNOWN, response, size, len);
}
