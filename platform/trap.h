// The trapped-frame channel: DHCP frames the switch copies to the processor.
//
// On Linux the channel is one AF_PACKET socket, read through a receive ring
// mapped with it (or its queue where no ring can be mapped), a bounded batch
// of frames per hal_recv() call. Its kernel filter passes only
// IPv4 frames with UDP or TCP source or destination port 67 or 68 (with or
// without one 802.1Q tag; for a fragmented datagram only the first fragment,
// which holds the ports) that the switch received; frames the switch itself
// sends are never trapped. Of those, hal_recv() keeps the frames that came in
// on a switch port (a netdev enslaved to a vlanifN bridge) or on a vlanifN
// netdev that is not a bridge; the copy a vlanifN bridge passes up to itself
// is not a trapped frame (its port's copy is): the filter refuses it in the
// kernel, from the bridges of the VLAN table, and is rebuilt whenever that
// table is read again (user space still checks). Each frame is handed on as the
// switching chip would: message type 1 and the trapped-frame message below,
// with a VLAN tag the kernel moved out of the frame put back into it.
//
// Trapping is turned on and off by hal_dhcp_enable() (platform/hal.h).
#pragma once

#include <linux/filter.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

// The trapped-frame message: this header, hdr.gap bytes, then the frame.
// Fields are in host order; reserved bytes and the gap read 0.
struct hal_trap_hdr {
    std::uint32_t port;  // ingress switch port number (swp3 -> 3); 0 for a
                         // vlanifN netdev that is not a bridge. uif_lookup_by_index
                         // and uif_get_portmac take it as it is.
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
// and the frame's length in bytes. The message may be changed in place (its
// buffer is the channel's own, reused for the next frame); frame_len counts
// the frame only, a tag included.
using hal_recv_cb = int (*)(std::uint32_t type, std::uint8_t *msg, std::uint32_t frame_len);

// Reads the channel `fd` and hands the trapped frames waiting to `cb`, one
// call per frame in the order they came, at most HAL_RECV_BATCH_MAX per call
// so that the loop's other tasks get their turn. Frames that are not trapped
// frames (outgoing, from another interface, too long for the buffer) are
// read and dropped on the way. 0 (whatever the callback returned, and when
// nothing was waiting); -1 on a read error or a missing argument.
int hal_recv(int fd, hal_recv_cb cb);
constexpr int HAL_RECV_BATCH_MAX = 32;

// What the channel has read since the process started: every frame taken
// from the socket, and those of them dropped in user space (not handed on).
struct hal_trap_counters {
    std::uint64_t read;
    std::uint64_t dropped;
};
hal_trap_counters hal_trap_counters_get();

// ---- Pieces of the channel, for hal_dhcp_enable and the tests ----

// The gap between header and frame: 2 puts an untagged frame's IPv4 header
// on a 4-byte boundary.
constexpr std::uint32_t HAL_TRAP_GAP = 2;
// Longest frame taken, as the kernel hands it (without its tag); longer
// ones are dropped.
constexpr std::size_t HAL_TRAP_FRAME_MAX = 4096;
constexpr std::size_t HAL_TRAP_MSG_MAX =
    sizeof(hal_trap_hdr) + HAL_TRAP_GAP + HAL_TRAP_FRAME_MAX + 4;

// The classic-BPF programs: the trap rule, and one that passes nothing.
const sock_fprog &trap_filter_dhcp();
const sock_fprog &trap_filter_none();
// The trap rule that also refuses frames that came in on the kernel
// interfaces `skip` (the channel's, with the vlanifN bridges). With no index,
// or too many, it is the trap rule itself.
std::vector<sock_filter> trap_filter_skipping(std::span<const int> skip);

// Opens the channel (once; sets hal_netlink_async). 0, or -1 when the
// socket cannot be made.
int trap_channel_open();
// Delivery on (the trap rule) or off (nothing passes). Either way frames
// already queued are dropped: they were trapped before this call. 0, or -1
// when the filter cannot be set or (turning on) the channel is not open.
int trap_channel_deliver(bool on);

// Where a frame came in, in trapped-frame terms.
struct trap_ingress {
    std::uint32_t port = 0;  // switch port number, 0 for none
    std::uint16_t vid = 0;   // N of the vlanifN the port belongs to
};
enum class trap_source { ingress, other, unknown };
// The kernel interface `ifindex` as the channel sees it, from the platform's
// port and VLAN tables as they stand: a switch port or a vlanifN netdev that
// is not a bridge (ingress, *in filled), a vlanifN bridge (other), or a
// netdev the tables do not know (unknown).
trap_source trap_source_of(int ifindex, trap_ingress *in);

// The VLAN tag the kernel took out of a frame (packet auxiliary data).
struct trap_aux {
    bool tagged = false;
    std::uint16_t tpid = 0;  // 0 when the kernel did not say
    std::uint16_t tci = 0;
};
// Builds the trapped-frame message for `frame` (as received) into `out`:
// header, zeroed gap, then the frame with the tag of `aux` put back after the
// MAC addresses. The VLAN is the tag's VID (in the frame or in `aux`), or the
// ingress VLAN when the frame is untagged or priority-tagged (VID 0).
// Returns the frame's length in the message, or 0 when the frame is dropped:
// shorter than an Ethernet header, tagged twice, tagged with another TPID
// than 0x8100, or too long for `out`.
std::size_t trap_build_msg(std::span<std::uint8_t> out, std::span<const std::uint8_t> frame,
                           const trap_ingress &in, const trap_aux &aux);
