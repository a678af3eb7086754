#include "dhcp/dhcp_json.h"

#include "dhcp/dhcp_json_stats.h"
#include "platform/jserver.h"

#include <cjson/cJSON.h>

#include <array>

namespace {

// One response buffer shared by all requests: safe because requests run one
// at a time on the event loop.
std::array<char, 64 * 1024> response;

}  // namespace

void dhcp_json_register() {
    dhcp_json_stats_register();
}

void dhcp_json_init(thread_master *master) {
    jserver_init(master, DHCP_JSON_PATH, dhcp_json_request);
    dhcp_json_register();
}

std::size_t dhcp_json_handle_text(const char *text, std::size_t len, const char **reply) {
    cJSON *root = cJSON_ParseWithLength(text, len);
    int n = 0;
    jserver_cmd_handle(root, response.data(), response.size(), &n);
    cJSON_Delete(root);
    *reply = response.data();
    return static_cast<std::size_t>(n);
}

int dhcp_json_request(int fd, const char *text, std::size_t len) {
    const char *reply = nullptr;
    const std::size_t n = dhcp_json_handle_text(text, len, &reply);
    // The reply goes through the server rather than one write() on the
    // descriptor: a full lease page exceeds a socket buffer, and a client
    // that stops reading must not block the daemon or cut the reply short.
    jserver_reply(fd, reply, n);
    return 0;
}
