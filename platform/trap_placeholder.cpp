// Placeholder bodies of the trapped-frame channel and snooping state until
// the Linux implementation lands; they refuse everything.
#include "platform/dhcpsnoop.h"
#include "platform/trap.h"
#include "platform/vemix.h"

int hal_netlink_async = -1;

int hal_recv(int, hal_recv_cb) {
    return -1;
}

std::uint8_t *vemix_remove_tag(std::uint8_t *frame) {
    return frame;
}

int dhcpsnoop_enable_get() {
    return 0;
}
int dhcpsnoop_if_untrust_get(const uif *) {
    return -1;
}
void dhcpsnoop_enable_set(int) {}
int dhcpsnoop_if_untrust_set(std::uint32_t, int) {
    return -1;
}
