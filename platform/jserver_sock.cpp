// The socket side of the JSON request server.
#include "platform/jserver.h"

#include "lib/log.h"

// Not served yet: the listening socket comes with the connection handling.
int jserver_init(thread_master * /*master*/, const char *path, jserver_request_fn /*callback*/) {
    zlog_err("jserver: %s not served", path);
    return -1;
}

void jserver_close() {}

int jserver_reply(int /*fd*/, const char * /*data*/, std::size_t /*len*/) {
    return -1;
}
