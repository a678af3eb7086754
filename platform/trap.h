// The trapped-frame channel: DHCP frames the switch copies to the processor.
//
// On Linux the channel is one AF_PACKET socket whose kernel filter passes
// only IPv4 frames with UDP or TCP source or destination port 67 or 68 (with
// or without one 802.1Q tag) that arrive on a switch port (a netdev enslaved
// to a vlanifN bridge) or on a vlanifN netdev that is not a bridge; frames
// the switch itself sends are never trapped. hal_recv() hands each frame on
// as the switching chip would: message type 1 and the trapped-frame message
// below, with a VLAN tag the kernel stripped put back into the frame.
#pragma once

#include <cstddef>
#include <cstdint>

// The trapped-frame message: this header, hdr.gap bytes, then the frame.
// Fields are in host order.
struct hal_trap_hdr {
    std::uint32_t port;  // ingress switch port number (swp3 -> 3)
    std::uint32_t reserved1;
    std::uint16_t vlan;  // the tag's VLAN, else N of the port's vlanifN
    std::uint16_t reserved2;
    std::uint32_t gap;  // bytes between this header and the frame
    std::uint8_t reserved3[16];
};
static_assert(sizeof(hal_trap_hdr) == 32);

constexpr std::uint32_t HAL_MSG_TRAPPED_FRAME = 1;

// Descriptor of the channel: -1 until trapping is first turned on; from then
// on the same descriptor for the life of the process (turning trapping off
// stops delivery, it does not close it), so a read task armed on it stays
// valid.
extern int hal_netlink_async;

// Called by hal_recv with the message type, the message (header, gap, frame)
// and the frame's length in bytes.
using hal_recv_cb = int (*)(std::uint32_t type, std::uint8_t *msg, std::uint32_t frame_len);

// Reads one frame from the channel `fd` and hands it to `cb`. 0 when a frame
// was handed on (whatever the callback returned) or nothing was waiting; -1
// on a read error or a missing argument.
int hal_recv(int fd, hal_recv_cb cb);
