// Trapped-frame messages from arbitrary input through the relay's decoder
// and the whole engine behind it; what the relay sends is captured at its
// seams and checked.
//
// Input: settings (option 82 on, strategy, modes, record enabled), the
// circuit-id and remote-id lengths, then records {type, port, VLAN choice,
// gap, frame length (2 bytes, big-endian), frame...}; a frame is cut at the
// input's end. Each message is allocated to its exact size, so a read
// beyond the frame is caught.
#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "fuzz/fuzz_common.h"
#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcpr.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/prefix.h"
#include "platform/trap.h"
#include "platform/uif.h"

namespace {

interface *relay_if = nullptr;

ssize_t to_server(int, std::span<const std::uint8_t> d, const sockaddr_in &to) {
    require(d.size() >= DHCP_FIXED_SIZE && d.size() <= sizeof(dhcp_packet));
    require(to.sin_family == AF_INET && to.sin_port == htons(DHCP_SERVER_PORT));
    // The datagram is the head of the relay's whole record. An option 82
    // added near its end runs past it and is cut off on the wire (kept so),
    // and the relay took the type from the record as it holds it: so do we.
    dhcp_packet p{};
    std::memcpy(&p, d.data(), sizeof p);
    require(p.hops >= 1 && p.hops <= 9);
    require(p.gateway_nip != 0);
    const int mtype = dhcpr_message_type(p);
    require(mtype == DHCPDISCOVER || mtype == DHCPREQUEST || mtype == DHCPDECLINE ||
            mtype == DHCPRELEASE || mtype == DHCPINFORM);
    return static_cast<ssize_t>(d.size());
}

int to_client(const dhcp_packet &p, std::uint32_t, std::uint16_t sport, std::uint32_t,
              std::uint16_t dport, const std::uint8_t *mac, int ifindex, int size) {
    require(sport == DHCP_SERVER_PORT && dport == DHCP_CLIENT_PORT);
    require(mac != nullptr && ifindex == relay_if->ifindex);
    require(size >= static_cast<int>(DHCP_FIXED_SIZE + 28) &&
            size <= static_cast<int>(sizeof(dhcp_packet) + 28));
    const int mtype = dhcpr_message_type(p);
    require(mtype == DHCPOFFER || mtype == DHCPACK || mtype == DHCPNAK);
    return size;
}

bool set_up() {
    fuzz_quiet_log();
    // No ports: MACs read as zeros, without touching the host's sysfs.
    uif_set_sysfs_root("/nonexistent-dhcpr-fuzz");
    if_init();
    dhcpr_init(nullptr);
    dhcpr_set_senders(to_server, to_client);
    relay_if = fuzz_make_if("vlanif10", 5, "192.168.10.1/24");
    fuzz_make_if("vlanif20", 6, "10.0.20.1/24");
    fuzz_make_if("vlanif30", 7, "192.168.30.1/24");
    return true;
}

void configure(const std::uint8_t *data) {
    sockunion server{};
    str2sockunion("10.0.20.2", &server);
    dhcpr_if_relay_set(relay_if, &server);
    const std::uint8_t bits = data[0];
    dhcpr_if_opt82_enable_set(relay_if, bits & 1);
    dhcpr_if_opt82_strategy_set(relay_if, static_cast<std::uint32_t>((bits >> 1) & 3) % 3);
    const std::string circuit(data[1] % 41, 'C');
    const std::string remote(data[2] % 41, 'R');
    dhcpr_if_circuit_id_set(relay_if, (bits >> 3) & 1 ? DHCPR_SUBMODE_STRING : DHCPR_SUBMODE_NORMAL,
                            circuit.c_str());
    dhcpr_if_remote_id_set(relay_if, (bits >> 4) & 1 ? DHCPR_SUBMODE_STRING : DHCPR_SUBMODE_NORMAL,
                           remote.c_str());
    dhcpr_if_record(relay_if)->enable = (bits >> 5) & 1 ? 0 : 1;
}

constexpr std::uint16_t VLANS[3] = {10, 20, 30};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool ready = set_up();
    (void)ready;
    if (size < 3) {
        return 0;
    }
    configure(data);
    dhcpr_item_clear();
    std::size_t pos = 3;
    while (pos + 6 <= size) {
        const std::uint32_t type = data[pos] == 0xff ? 2 : HAL_MSG_TRAPPED_FRAME;
        const std::uint32_t port = data[pos + 1];
        const std::uint8_t vsel = data[pos + 2];
        const std::uint16_t vlan = vsel % 4 < 3 ? VLANS[vsel % 4] : vsel;
        const std::uint32_t gap = data[pos + 3] % 16;
        std::size_t flen = static_cast<std::size_t>(data[pos + 4]) << 8 | data[pos + 5];
        pos += 6;
        flen = std::min(flen, size - pos);

        hal_trap_hdr hdr{};
        hdr.port = port;
        hdr.vlan = vlan;
        hdr.gap = gap;
        std::vector<std::uint8_t> msg(sizeof hdr + gap + flen);
        std::memcpy(msg.data(), &hdr, sizeof hdr);
        std::memcpy(msg.data() + sizeof hdr + gap, data + pos, flen);
        pos += flen;

        const int rc = dhcpr_netlink_msg(type, msg.data(), static_cast<std::uint32_t>(flen));
        require(rc == 0 || rc == -1 || rc == -3 || rc == -4 || rc == -7);
        require(dhcpr_item_count() <= DHCPR_ITEM_MAX);
    }
    return 0;
}
