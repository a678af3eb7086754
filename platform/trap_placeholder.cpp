// Placeholder bodies of the trapped-frame channel until the Linux
// implementation lands; they refuse everything.
#include "platform/trap.h"
#include "platform/vemix.h"

int hal_netlink_async = -1;

int hal_recv(int, hal_recv_cb) {
    return -1;
}

std::uint8_t *vemix_remove_tag(std::uint8_t *frame) {
    return frame;
}
