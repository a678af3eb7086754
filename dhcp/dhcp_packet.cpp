#include "dhcp/dhcp_packet.h"

#include <arpa/inet.h>

#include <cstring>

#include "dhcp/dhcp_options.h"

void dhcp_init_header(dhcp_packet &packet, std::uint8_t type) {
    std::memset(&packet, 0, sizeof packet);
    packet.op = BOOTREQUEST;
    if (type == DHCPOFFER || type == DHCPACK || type == DHCPNAK) {
        packet.op = BOOTREPLY;
    }
    packet.htype = 1;
    packet.hlen = 6;
    packet.cookie = htonl(DHCP_MAGIC);
    packet.options[0] = DHCP_END;
    dhcp_add_simple_option(packet, DHCP_MESSAGE_TYPE, type);
}
