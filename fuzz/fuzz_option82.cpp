// The relay's option 82 added to and removed from arbitrary requests.
//
// A request padded with zeros after its end marker, with the relay's option
// added and removed again, is byte-identical up to the payload length when
// the payload has room for the moved tail (end + 2 * option + 1 bytes);
// adding never changes the bytes before the end marker nor writes beyond the
// 308-byte building area, removing never writes beyond the payload, and the
// record is allocated to its exact size so that a write past it is caught.
//
// Input: settings (circuit/remote mode), VLAN (2 bytes), port, circuit-id
// and remote-id lengths, payload length (2 bytes, taken into 240..628),
// then the message.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzz_common.h"
#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcpr.h"
#include "lib/if.h"
#include "lib/log.h"
#include "platform/uif.h"

namespace {

interface *relay_if = nullptr;

bool set_up() {
    fuzz_quiet_log();
    uif_set_sysfs_root("/nonexistent-dhcpr-fuzz");
    if_init();
    dhcpr_init(nullptr);
    relay_if = if_get_by_name("vlanif10");
    sockunion server{};
    str2sockunion("10.0.20.2", &server);
    dhcpr_if_relay_set(relay_if, &server);
    dhcpr_if_opt82_enable_set(relay_if, 1);
    return true;
}

constexpr std::size_t HEAD = 8;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool ready = set_up();
    (void)ready;
    if (size < HEAD) {
        return 0;
    }
    const std::uint8_t bits = data[0];
    const auto vlan = static_cast<std::uint16_t>(data[1] << 8 | data[2]);
    const std::uint32_t port = data[3];
    const std::string circuit(data[4] % 41, 'c');
    const std::string remote(data[5] % 41, 'r');
    const int len = 240 + (data[6] << 8 | data[7]) % 389;
    dhcpr_if_circuit_id_set(relay_if, bits & 1 ? DHCPR_SUBMODE_STRING : DHCPR_SUBMODE_NORMAL,
                            circuit.c_str());
    dhcpr_if_remote_id_set(relay_if, bits & 2 ? DHCPR_SUBMODE_STRING : DHCPR_SUBMODE_NORMAL,
                           remote.c_str());

    auto packet = std::make_unique<dhcp_packet>();
    auto *bytes = reinterpret_cast<std::uint8_t *>(packet.get());
    std::memcpy(bytes, data + HEAD, std::min(size - HEAD, static_cast<std::size_t>(len)));
    // A client message padded after its end marker.
    const auto end = static_cast<std::size_t>(std::max(dhcp_end_option(packet->options), 0));
    if (end < DHCP_OPTIONS_AREA) {
        std::memset(packet->options + end + 1, 0, DHCP_OPTIONS_AREA - end - 1);
    }
    const std::vector<std::uint8_t> before(bytes, bytes + sizeof(dhcp_packet));
    const bool had82 = dhcp_get_option(packet.get(), DHCP_RELAY_AGENT_INFO) != nullptr;

    dhcpr_option82_add(packet.get(), relay_if, vlan, port);
    const std::size_t fixed_end = DHCP_FIXED_SIZE + end;
    require(std::memcmp(bytes, before.data(), std::min(fixed_end, sizeof(dhcp_packet))) == 0);
    require(std::memcmp(packet->options + DHCP_OPTIONS_BUFSIZE,
                        before.data() + DHCP_FIXED_SIZE + DHCP_OPTIONS_BUFSIZE,
                        DHCP_OPTIONS_AREA - DHCP_OPTIONS_BUFSIZE) == 0);
    const bool added = std::memcmp(bytes, before.data(), sizeof(dhcp_packet)) != 0;
    std::size_t total = 0;
    if (added) {
        require(packet->options[end] == DHCP_RELAY_AGENT_INFO);
        total = 2u + packet->options[end + 1];
        require(end + total + 1 < DHCP_OPTIONS_BUFSIZE);
        require(packet->options[end + total] == DHCP_END);
    }

    // Removing writes inside the payload only.
    const std::vector<std::uint8_t> with82(bytes, bytes + sizeof(dhcp_packet));
    dhcpr_option82_remove(packet.get(), len);
    const auto plen = static_cast<std::size_t>(len);
    require(std::memcmp(bytes + plen, with82.data() + plen, sizeof(dhcp_packet) - plen) == 0);
    if (had82) {
        return 0;
    }
    if (!added) {
        require(std::memcmp(bytes, before.data(), sizeof(dhcp_packet)) == 0);
    } else if (fixed_end + 2 * total + 1 <= plen) {
        require(std::memcmp(bytes, before.data(), plen) == 0);
    }
    return 0;
}
