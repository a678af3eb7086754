#include "dhcpsnoop.h"

#include <bitset>

#include "platform/uif.h"

namespace {

struct snoop_state {
    bool on = false;
    std::bitset<DHCPSNOOP_PORT_MAX + 1> untrusted;  // by port number
};

snoop_state &S() {
    static snoop_state s;
    return s;
}

bool valid_port(std::uint32_t number) {
    return number >= 1 && number <= DHCPSNOOP_PORT_MAX;
}

}  // namespace

int dhcpsnoop_enable_get() {
    return S().on ? 1 : 0;
}

int dhcpsnoop_if_untrust_get(const uif *port) {
    if (port == nullptr) {
        return -1;
    }
    return dhcpsnoop_port_untrust_get(port->number) == 1 ? 1 : 0;
}

void dhcpsnoop_enable_set(int on) {
    S().on = on != 0;
}

int dhcpsnoop_if_untrust_set(std::uint32_t port_number, int untrusted) {
    if (!valid_port(port_number)) {
        return -1;
    }
    S().untrusted.set(port_number, untrusted != 0);
    return 0;
}

int dhcpsnoop_port_untrust_get(std::uint32_t port_number) {
    if (!valid_port(port_number)) {
        return -1;
    }
    return S().untrusted.test(port_number) ? 1 : 0;
}
