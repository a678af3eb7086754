// Drives the trapped-frame channel as the relay does, inside a switch's
// namespace: trap_probe, then commands on standard input, one a line:
//   on    hal_dhcp_enable(1)    prints "enable rc=<rc> fd=<hal_netlink_async> on=<0|1>"
//   off   hal_dhcp_enable(0)    prints the same line
//   counters                    prints "counters read=<n> dropped=<n>": the
//                               frames the channel read, and those dropped
//                               in user space
//   quit  ends
// Every trapped message is printed as one line:
//   "trap type=<t> port=<p> vlan=<v> gap=<g> len=<frame length>
//    hdr=<32 header bytes in hex> pad=<gap bytes in hex> frame=<frame in hex>"
// (one line; fields from the header record, the bytes as handed over).
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <span>
#include <string>

#include "platform/hal.h"
#include "platform/trap.h"
#include "platform/uif.h"

namespace {

std::string hex(std::span<const std::uint8_t> bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(bytes.size() * 2);
    for (std::uint8_t b : bytes) {
        s += digits[b >> 4];
        s += digits[b & 0xf];
    }
    return s;
}

int print_trap(std::uint32_t type, std::uint8_t *msg, std::uint32_t frame_len) {
    hal_trap_hdr hdr;
    std::memcpy(&hdr, msg, sizeof hdr);
    std::span<const std::uint8_t> all(msg, HAL_TRAP_MSG_MAX);
    std::size_t gap = hdr.gap <= HAL_TRAP_MSG_MAX - sizeof hdr ? hdr.gap : 0;
    std::size_t len = frame_len <= HAL_TRAP_MSG_MAX - sizeof hdr - gap ? frame_len : 0;
    std::printf("trap type=%u port=%u vlan=%u gap=%u len=%u hdr=%s pad=%s frame=%s\n", type,
                hdr.port, hdr.vlan, hdr.gap, frame_len, hex(all.first(sizeof hdr)).c_str(),
                hex(all.subspan(sizeof hdr, gap)).c_str(),
                hex(all.subspan(sizeof hdr + gap, len)).c_str());
    return 0;
}

// Handles one command line; false to stop.
bool command(const std::string &line) {
    if (line == "quit") {
        return false;
    }
    if (line == "on" || line == "off") {
        int rc = hal_dhcp_enable(line == "on" ? 1 : 0);
        std::printf("enable rc=%d fd=%d on=%d\n", rc, hal_netlink_async, hal_dhcp_enabled());
    } else if (line == "counters") {
        const hal_trap_counters n = hal_trap_counters_get();
        std::printf("counters read=%llu dropped=%llu\n", static_cast<unsigned long long>(n.read),
                    static_cast<unsigned long long>(n.dropped));
    } else if (!line.empty()) {
        std::printf("unknown command %s\n", line.c_str());
    }
    return true;
}

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    uif_init();
    uvlan_init();
    std::printf("ready\n");
    std::string pending;
    for (;;) {
        pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {hal_netlink_async, POLLIN, 0}};
        if (poll(fds, hal_netlink_async >= 0 ? 2 : 1, -1) < 0) {
            continue;
        }
        if ((fds[1].revents & POLLIN) != 0 && hal_recv(hal_netlink_async, print_trap) != 0) {
            std::printf("hal_recv failed\n");
        }
        if ((fds[0].revents & (POLLIN | POLLHUP)) == 0) {
            continue;
        }
        char buf[256];
        ssize_t n = read(STDIN_FILENO, buf, sizeof buf);
        if (n <= 0) {
            return 0;
        }
        pending.append(buf, static_cast<std::size_t>(n));
        for (std::size_t nl; (nl = pending.find('\n')) != std::string::npos;) {
            std::string line = pending.substr(0, nl);
            pending.erase(0, nl + 1);
            if (!command(line)) {
                return 0;
            }
        }
    }
}
