#include "dhcp/dhcp_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_options.h"
#include "lib/log.h"
#include "lib/thread.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using LogLine = std::pair<int, std::string>;

class Sockets : public ::testing::Test {
  protected:
    void SetUp() override {
        dhcp_debug = 0;
        zlog_set_hook([this](int prio, std::string_view text) { logs.emplace_back(prio, text); });
    }
    void TearDown() override {
        zlog_set_hook({});
        dhcp_debug = 0;
    }
    std::vector<LogLine> logs;
};

bool is_root() {
    return geteuid() == 0;
}

std::uint16_t bound_port(int fd) {
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    return ntohs(addr.sin_port);
}

int int_option(int fd, int level, int name) {
    int value = -1;
    socklen_t len = sizeof value;
    getsockopt(fd, level, name, &value, &len);
    return value;
}

// Sends `payload` over UDP from loopback to `to`:`port`.
void send_udp(const Bytes &payload, const char *to, std::uint16_t port) {
    dhcp_unique_fd fd(::socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_TRUE(fd);
    sockaddr_in dst{};
    dst.sin_family = AF_INET;
    dst.sin_port = htons(port);
    inet_pton(AF_INET, to, &dst.sin_addr);
    ASSERT_EQ(::sendto(fd.get(), payload.data(), payload.size(), 0,
                       reinterpret_cast<const sockaddr *>(&dst), sizeof dst),
              static_cast<ssize_t>(payload.size()));
}

Bytes pattern(std::size_t n) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; i++) {
        b[i] = static_cast<std::uint8_t>(i * 7 + 1);
    }
    return b;
}

std::string hex(const Bytes &b) {
    std::string s;
    char two[3];
    for (const std::uint8_t x : b) {
        std::snprintf(two, sizeof two, "%02x", x);
        s += two;
    }
    return s;
}

// ---- small helpers -------------------------------------------------------

TEST_F(Sockets, SocketAndBindLogFailures) {
    EXPECT_LT(dhcp_socket(12345, SOCK_DGRAM, 0), 0);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "socket(2,0)"}}));

    dhcp_unique_fd fd(dhcp_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
    ASSERT_TRUE(fd);
    EXPECT_NE(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    inet_pton(AF_INET, "192.0.2.77", &addr.sin_addr);  // not ours
    logs.clear();
    EXPECT_LT(dhcp_bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "bind"}}));
}

TEST_F(Sockets, SafeReadWriteMoveBytes) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    dhcp_unique_fd rd(fds[0]);
    dhcp_unique_fd wr(fds[1]);
    const Bytes out = pattern(100);
    EXPECT_EQ(dhcp_safe_write(wr.get(), std::as_bytes(std::span(out))), 100);
    Bytes in(200);
    EXPECT_EQ(dhcp_safe_read(rd.get(), std::as_writable_bytes(std::span(in))), 100);
    in.resize(100);
    EXPECT_EQ(in, out);
    EXPECT_LT(dhcp_safe_read(-1, std::as_writable_bytes(std::span(in))), 0);
}

TEST_F(Sockets, SockoptHelpersSetOne) {
    dhcp_unique_fd fd(::socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_EQ(dhcp_setsockopt_reuseaddr(fd.get()), 0);
    EXPECT_EQ(dhcp_setsockopt_broadcast(fd.get()), 0);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_BROADCAST), 1);
    EXPECT_LT(dhcp_setsockopt_broadcast(-1), 0);
}

TEST_F(Sockets, BindToUnknownDeviceFails) {
    dhcp_unique_fd fd(::socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_LT(dhcp_bind_to_device(fd.get(), "nosuchif0"), 0);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "can't bind to interface nosuchif0"}}));
}

// ---- the listening socket ------------------------------------------------

TEST_F(Sockets, ListenSocketOptions) {
    dhcp_unique_fd fd(dhcp_listen_socket(INADDR_LOOPBACK, 0, nullptr));
    ASSERT_TRUE(fd);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "Opening listen socket on *:0 "}}));
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_BROADCAST), 1);
    EXPECT_EQ(int_option(fd.get(), IPPROTO_IP, IP_PKTINFO), 1);
    EXPECT_EQ(int_option(fd.get(), SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
    EXPECT_NE(bound_port(fd.get()), 0);
}

TEST_F(Sockets, ListenSocketOnDevice) {
    if (!is_root()) {
        GTEST_SKIP() << "SO_BINDTODEVICE needs privilege";
    }
    dhcp_unique_fd fd(dhcp_listen_socket(0, 0, "lo"));
    ASSERT_TRUE(fd);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "Opening listen socket on *:0 lo"}}));
    char name[IFNAMSIZ] = {};
    socklen_t len = sizeof name;
    getsockopt(fd.get(), SOL_SOCKET, SO_BINDTODEVICE, name, &len);
    EXPECT_STREQ(name, "lo");

    logs.clear();
    EXPECT_EQ(dhcp_listen_socket(0, 0, "nosuchif0"), -1);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "Opening listen socket on *:0 nosuchif0"},
                                          {LOG_ERR, "can't bind to interface nosuchif0"},
                                          {LOG_ERR, "bindtodevice"}}));
}

TEST_F(Sockets, ListenSocketBindFailureIsOnlyLogged) {
    dhcp_unique_fd fd(dhcp_listen_socket(0xc0000263, 0, nullptr));  // 192.0.2.99, not ours
    EXPECT_TRUE(fd);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "Opening listen socket on *:0 "},
                                          {LOG_ERR, "bind"}}));
}

// ---- dhcp_recvmsg --------------------------------------------------------

class Receive : public Sockets {
  protected:
    void SetUp() override {
        Sockets::SetUp();
        fd = dhcp_unique_fd(dhcp_listen_socket(INADDR_ANY, 0, nullptr));
        ASSERT_TRUE(fd);
        port = bound_port(fd.get());
        logs.clear();
    }
    dhcp_unique_fd fd;
    std::uint16_t port = 0;
};

TEST_F(Receive, GivesLocalAddressAndCopiesMessage) {
    const Bytes payload = pattern(300);
    send_udp(payload, "127.0.0.2", port);
    dhcp_packet p;
    std::memset(&p, 0xee, sizeof p);
    int len = -1;
    std::uint32_t local = 0;
    testing::internal::CaptureStdout();
    ASSERT_EQ(dhcp_recvmsg(fd.get(), &p, &len, &local), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(len, 300);
    EXPECT_EQ(local, htonl(0x7f000002));
    const auto *b = reinterpret_cast<const std::uint8_t *>(&p);
    EXPECT_EQ(Bytes(b, b + 300), payload);
    EXPECT_EQ(Bytes(b + 300, b + 628), Bytes(328, 0));
    EXPECT_TRUE(logs.empty());
}

TEST_F(Receive, PacketDebugTracesAndDumpsToStdout) {
    const Bytes payload = pattern(250);
    send_udp(payload, "127.0.0.1", port);
    dhcp_debug = DHCP_DEBUG_PACKET;
    dhcp_packet p;
    int len = 0;
    std::uint32_t local = 0;
    testing::internal::CaptureStdout();
    ASSERT_EQ(dhcp_recvmsg(fd.get(), &p, &len, &local), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), hex(payload) + "\n");
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "dhcp recv ipaddr=127.0.0.1, ifindex=1"},
                                          {LOG_INFO, "pkt_buf len=250"}}));
}

TEST_F(Receive, EventsDebugAloneLogsNothing) {
    send_udp(pattern(240), "127.0.0.1", port);
    dhcp_debug = DHCP_DEBUG_EVENTS | DHCP_DEBUG_INTERFACE | DHCP_DEBUG_TIMER;
    dhcp_packet p;
    int len = 0;
    std::uint32_t local = 0;
    testing::internal::CaptureStdout();
    ASSERT_EQ(dhcp_recvmsg(fd.get(), &p, &len, &local), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(logs.empty());
}

TEST_F(Receive, LongDatagramIsCutAtTheRecord) {
    const Bytes payload = pattern(1000);
    send_udp(payload, "127.0.0.1", port);
    dhcp_debug = DHCP_DEBUG_PACKET;
    dhcp_packet p;
    int len = 0;
    std::uint32_t local = 0;
    testing::internal::CaptureStdout();
    ASSERT_EQ(dhcp_recvmsg(fd.get(), &p, &len, &local), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), hex(payload) + "\n");
    EXPECT_EQ(len, 628);
    const auto *b = reinterpret_cast<const std::uint8_t *>(&p);
    EXPECT_EQ(Bytes(b, b + 628), Bytes(payload.begin(), payload.begin() + 628));
    EXPECT_EQ(logs.back(), (LogLine{LOG_INFO, "pkt_buf len=1000"}));
}

TEST_F(Receive, OversizedDatagramIsTruncated) {
    const Bytes payload = pattern(2000);
    send_udp(payload, "127.0.0.1", port);
    dhcp_debug = DHCP_DEBUG_PACKET;
    dhcp_packet p;
    int len = 0;
    std::uint32_t local = 0;
    testing::internal::CaptureStdout();
    ASSERT_EQ(dhcp_recvmsg(fd.get(), &p, &len, &local), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              hex(Bytes(payload.begin(), payload.begin() + 1518)) + "\n");
    EXPECT_EQ(len, 628);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "dhcp recv ipaddr=127.0.0.1, ifindex=1"},
                                          {LOG_INFO, "datagram truncated"},
                                          {LOG_INFO, "pkt_buf len=1518"}}));
}

TEST_F(Receive, MissingOutputsOrBadDescriptor) {
    dhcp_packet p;
    int len = 5;
    std::uint32_t local = 5;
    EXPECT_EQ(dhcp_recvmsg(fd.get(), nullptr, &len, &local), -1);
    EXPECT_EQ(dhcp_recvmsg(fd.get(), &p, nullptr, &local), -1);
    EXPECT_EQ(dhcp_recvmsg(fd.get(), &p, &len, nullptr), -1);
    EXPECT_EQ(len, 5);
    EXPECT_EQ(dhcp_recvmsg(-1, &p, &len, &local), -1);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(local, 0u);
}

// ---- dhcp_read_packet ----------------------------------------------------

class ReadPacket : public Sockets {
  protected:
    void SetUp() override {
        Sockets::SetUp();
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, fds), 0);
        rd = dhcp_unique_fd(fds[0]);
        wr = dhcp_unique_fd(fds[1]);
    }
    void write_bytes(const Bytes &b) {
        ASSERT_EQ(write(wr.get(), b.data(), b.size()), static_cast<ssize_t>(b.size()));
    }
    dhcp_unique_fd rd;
    dhcp_unique_fd wr;
};

Bytes message(std::size_t n, bool cookie) {
    Bytes b(n, 0);
    b[0] = 1;
    if (cookie && n >= 240) {
        b[236] = 0x63;
        b[237] = 0x82;
        b[238] = 0x53;
        b[239] = 0x63;
    }
    return b;
}

TEST_F(ReadPacket, GoodMessage) {
    write_bytes(message(300, true));
    dhcp_packet p;
    EXPECT_EQ(dhcp_read_packet(p, rd.get()), 300);
    EXPECT_EQ(p.op, 1);
    EXPECT_TRUE(logs.empty());
    dhcp_debug = DHCP_DEBUG_PACKET;
    write_bytes(message(240, true));
    EXPECT_EQ(dhcp_read_packet(p, rd.get()), 240);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "Received a packet"}}));
}

TEST_F(ReadPacket, ShortOrWithoutCookieIsBadMagic) {
    Bytes short_one = message(239, false);
    std::memcpy(&short_one[236], "\x63\x82\x53", 3);
    for (const Bytes &b : {short_one, message(300, false), message(10, false)}) {
        logs.clear();
        write_bytes(b);
        dhcp_packet p;
        EXPECT_EQ(dhcp_read_packet(p, rd.get()), -2);
        EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "Packet with bad magic, ignoring"}}));
    }
}

TEST_F(ReadPacket, LongMessageIsBounded) {
    write_bytes(message(900, true));
    dhcp_packet p;
    EXPECT_EQ(dhcp_read_packet(p, rd.get()), 628);
}

TEST_F(ReadPacket, ReadError) {
    dhcp_packet p;
    EXPECT_LT(dhcp_read_packet(p, -1), 0);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "Packet read error, ignoring"}}));
}

// ---- dhcp_send_kernel_packet ---------------------------------------------

TEST_F(Sockets, KernelSendWritesUpToEndMarker) {
    dhcp_unique_fd rx(dhcp_listen_socket(INADDR_LOOPBACK, 0, nullptr));
    const std::uint16_t port = bound_port(rx.get());
    dhcp_packet p;
    dhcp_init_header(p, DHCPREQUEST);
    dhcp_add_simple_option(p, DHCP_REQUESTED_IP, htonl(0x0a000005));
    const std::uint32_t lo = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(dhcp_send_kernel_packet(p, lo, 0, lo, port), 240 + 9 + 1);

    dhcp_packet got;
    int len = 0;
    std::uint32_t local = 0;
    ASSERT_EQ(dhcp_recvmsg(rx.get(), &got, &len, &local), 0);
    EXPECT_EQ(len, 250);
    EXPECT_EQ(std::memcmp(&got, &p, 250), 0);
}

TEST_F(Sockets, KernelSendWithoutEndMarkerStaysInRecord) {
    dhcp_unique_fd rx(dhcp_listen_socket(INADDR_LOOPBACK, 0, nullptr));
    const std::uint16_t port = bound_port(rx.get());
    dhcp_packet p;
    dhcp_init_header(p, DHCPREQUEST);
    std::memset(p.options, 0, sizeof p.options);
    const std::uint32_t lo = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(dhcp_send_kernel_packet(p, lo, 0, lo, port), 628);
}

TEST_F(Sockets, KernelSendFailures) {
    dhcp_packet p;
    dhcp_init_header(p, DHCPREQUEST);
    EXPECT_EQ(dhcp_send_kernel_packet(p, htonl(0xc0000263), 0, htonl(INADDR_LOOPBACK), 9), -1);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "bind(UDP)"}}));
}

// ---- dhcp_send_raw_packet ------------------------------------------------

// Frames seen on the loopback device, IP header first.
class RawSend : public Sockets {
  protected:
    void SetUp() override {
        if (!is_root()) {
            GTEST_SKIP() << "packet sockets need privilege";
        }
        Sockets::SetUp();
        capture = dhcp_unique_fd(::socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_IP)));
        ASSERT_TRUE(capture);
        sockaddr_ll addr{};
        addr.sll_family = AF_PACKET;
        addr.sll_protocol = htons(ETH_P_IP);
        addr.sll_ifindex = static_cast<int>(if_nametoindex("lo"));
        ASSERT_EQ(bind(capture.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        std::random_device rd;
        dst_port = static_cast<std::uint16_t>(20000 + rd() % 40000);
    }

    // The next captured datagram to our destination port, or empty. Other
    // traffic on the host's loopback is skipped; the bound only limits the
    // wait (the frame is on its way once the send returned).
    Bytes next_frame() {
        for (int i = 0; i < 100000; i++) {
            pollfd pfd{capture.get(), POLLIN, 0};
            if (poll(&pfd, 1, 10000) <= 0) {
                break;
            }
            Bytes buf(2000);
            const ssize_t n = recv(capture.get(), buf.data(), buf.size(), 0);
            if (n < 28) {
                continue;
            }
            buf.resize(static_cast<std::size_t>(n));
            if (buf[9] == 17 && buf[22] == (dst_port >> 8) && buf[23] == (dst_port & 0xff)) {
                return buf;
            }
        }
        return {};
    }

    dhcp_unique_fd capture;
    std::uint16_t dst_port = 0;
    const std::uint8_t mac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
};

// Independent one's-complement sum of 16-bit big-endian words.
std::uint32_t sum_be(const Bytes &b, std::uint32_t sum = 0) {
    for (std::size_t i = 0; i < b.size(); i += 2) {
        sum += static_cast<std::uint32_t>(b[i] << 8) + (i + 1 < b.size() ? b[i + 1] : 0u);
    }
    return sum;
}

std::uint16_t fold(std::uint32_t sum) {
    while (sum >> 16) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<std::uint16_t>(sum);
}

void expect_valid_udp(const Bytes &frame, std::size_t total) {
    ASSERT_EQ(frame.size(), total);
    EXPECT_EQ(frame[0], 0x45);
    EXPECT_EQ((frame[2] << 8) | frame[3], static_cast<int>(total));
    EXPECT_EQ(frame[8], 64);
    EXPECT_EQ(frame[9], 17);
    EXPECT_EQ(fold(sum_be(Bytes(frame.begin(), frame.begin() + 20))), 0xffff);
    const std::size_t udp_len = total - 20;
    EXPECT_EQ(static_cast<std::size_t>((frame[24] << 8) | frame[25]), udp_len);
    Bytes pseudo(frame.begin() + 12, frame.begin() + 20);
    pseudo.insert(pseudo.end(), {0, 17, static_cast<std::uint8_t>(udp_len >> 8),
                                 static_cast<std::uint8_t>(udp_len & 0xff)});
    const std::uint32_t sum = sum_be(Bytes(frame.begin() + 20, frame.end()), sum_be(pseudo));
    EXPECT_EQ(fold(sum), 0xffff);
}

TEST_F(RawSend, EmptyOptionsMake269Bytes) {
    dhcp_packet p;
    std::memset(&p, 0, sizeof p);
    p.op = BOOTREPLY;
    p.xid = htonl(0x12345678);
    p.cookie = htonl(DHCP_MAGIC);
    p.options[0] = DHCP_END;
    const std::uint32_t lo = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(dhcp_send_raw_packet(p, lo, 67, lo, dst_port, mac, 1), 269);
    const Bytes frame = next_frame();
    expect_valid_udp(frame, 269);
    // Golden IP header up to its checksum, then the addresses.
    EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 10),
              (Bytes{0x45, 0, 0x01, 0x0d, 0, 0, 0, 0, 64, 17}));
    EXPECT_EQ(Bytes(frame.begin() + 12, frame.begin() + 28),
              (Bytes{127, 0, 0, 1, 127, 0, 0, 1, 0, 67, static_cast<std::uint8_t>(dst_port >> 8),
                     static_cast<std::uint8_t>(dst_port & 0xff), 0, 249, frame[26], frame[27]}));
    EXPECT_EQ(std::memcmp(frame.data() + 28, &p, 241), 0);
    EXPECT_TRUE(logs.empty());
}

TEST_F(RawSend, FullOptionsMake576Bytes) {
    dhcp_packet p;
    dhcp_init_header(p, DHCPACK);
    std::memset(p.options, 0, sizeof p.options);
    p.options[307] = DHCP_END;
    const std::uint32_t src = htonl(0x7f000001);
    const std::uint32_t dst = htonl(0x7f0000fe);
    EXPECT_EQ(dhcp_send_raw_packet(p, src, 67, dst, dst_port, mac, 1), 576);
    const Bytes frame = next_frame();
    expect_valid_udp(frame, 576);
    EXPECT_EQ(Bytes(frame.begin() + 16, frame.begin() + 20), (Bytes{127, 0, 0, 254}));
}

TEST_F(RawSend, BuiltReplyLengthFollowsEndMarker) {
    dhcp_packet p;
    dhcp_init_header(p, DHCPOFFER);
    dhcp_add_simple_option(p, DHCP_SERVER_ID, htonl(0x7f000001));
    dhcp_add_simple_option(p, DHCP_LEASE_TIME, htonl(3600));
    const std::uint32_t lo = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(dhcp_send_raw_packet(p, lo, 67, lo, dst_port, mac, 1), 269 + 15);
    expect_valid_udp(next_frame(), 284);
}

TEST_F(RawSend, NoEndMarkerSendsWholeRecord) {
    dhcp_packet p;
    dhcp_init_header(p, DHCPOFFER);
    std::memset(p.options, 1, sizeof p.options);
    const std::uint32_t lo = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(dhcp_send_raw_packet(p, lo, 67, lo, dst_port, mac, 1), 656);
    expect_valid_udp(next_frame(), 656);
}

TEST_F(RawSend, AGivenSizeIsSentWithinTheRecord) {
    dhcp_packet p;
    dhcp_init_header(p, DHCPOFFER);
    dhcp_add_simple_option(p, DHCP_SERVER_ID, htonl(0x7f000001));
    const std::uint32_t lo = htonl(INADDR_LOOPBACK);
    // {size asked, size sent}: padding after the end marker goes too; too
    // short keeps the fixed part, too long stops at the record's end.
    const std::pair<std::size_t, int> cases[] = {
        {348, 348}, {269 + 7, 269 + 7}, {10, 268}, {5000, 656}};
    for (const auto &[asked, sent] : cases) {
        SCOPED_TRACE(asked);
        EXPECT_EQ(dhcp_send_raw_packet(p, lo, 67, lo, dst_port, mac, 1, asked), sent);
        expect_valid_udp(next_frame(), static_cast<std::size_t>(sent));
    }
}

TEST_F(RawSend, PacketDebugLogsTheCall) {
    dhcp_packet p;
    dhcp_init_header(p, DHCPNAK);
    dhcp_debug = DHCP_DEBUG_PACKET;
    const std::uint8_t bcast[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    const std::uint32_t src = htonl(0x7f000001);
    dhcp_send_raw_packet(p, src, 67, 0xffffffff, dst_port, bcast, 1);
    char expected[200];
    std::snprintf(expected, sizeof expected,
                  "dhcp_send_raw_packet 137: %#x 67 0xffffffff %d ff-ff-ff-ff-ff-ff  1", src,
                  dst_port);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, expected}}));
}

TEST_F(RawSend, OneSocketForManySends) {
    dhcp_packet p;
    dhcp_init_header(p, DHCPACK);
    const std::uint32_t lo = htonl(INADDR_LOOPBACK);
    ASSERT_GT(dhcp_send_raw_packet(p, lo, 67, lo, dst_port, mac, 1), 0);
    const int fd = dhcp_raw_send_socket();
    for (int i = 0; i < 20; i++) {
        ASSERT_GT(dhcp_send_raw_packet(p, lo, 67, lo, dst_port, mac, 1), 0);
    }
    EXPECT_EQ(dhcp_raw_send_socket(), fd);
    // Send-only: protocol 0, nothing is queued to it.
    EXPECT_EQ(int_option(fd, SOL_SOCKET, SO_PROTOCOL), 0);
}

TEST_F(RawSend, ReopensWhenClosedBehindItsBack) {
    dhcp_packet p;
    dhcp_init_header(p, DHCPACK);
    const std::uint32_t lo = htonl(INADDR_LOOPBACK);
    ASSERT_GT(dhcp_send_raw_packet(p, lo, 67, lo, dst_port, mac, 1), 0);
    close(dhcp_raw_send_socket());
    logs.clear();
    EXPECT_EQ(dhcp_send_raw_packet(p, lo, 67, lo, dst_port, mac, 1), 269 + 3);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "sendto"}}));
    EXPECT_EQ(int_option(dhcp_raw_send_socket(), SOL_SOCKET, SO_DOMAIN), AF_PACKET);
}

TEST_F(RawSend, NeverClosesADescriptorThatIsNoLongerOurs) {
    dhcp_packet p;
    dhcp_init_header(p, DHCPACK);
    const std::uint32_t lo = htonl(INADDR_LOOPBACK);
    ASSERT_GT(dhcp_send_raw_packet(p, lo, 67, lo, dst_port, mac, 1), 0);
    const int old = dhcp_raw_send_socket();
    close(old);
    // Someone else's socket takes the number.
    dhcp_unique_fd other(::socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_EQ(other.get(), old);
    logs.clear();
    EXPECT_EQ(dhcp_send_raw_packet(p, lo, 67, lo, dst_port, mac, 1), 269 + 3);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "sendto"}}));
    EXPECT_NE(fcntl(other.get(), F_GETFD), -1);
    EXPECT_EQ(int_option(other.get(), SOL_SOCKET, SO_DOMAIN), AF_INET);
    EXPECT_NE(dhcp_raw_send_socket(), old);
}

TEST_F(RawSend, BadInterfaceKeepsSocket) {
    dhcp_packet p;
    dhcp_init_header(p, DHCPACK);
    const std::uint32_t lo = htonl(INADDR_LOOPBACK);
    const int fd = dhcp_raw_send_socket();
    EXPECT_EQ(dhcp_send_raw_packet(p, lo, 67, lo, dst_port, mac, 999999), -1);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "sendto"}}));
    EXPECT_EQ(dhcp_raw_send_socket(), fd);
}

// ---- port 67, shared by the server and the relay --------------------------

int sh(const std::string &cmd) {
    return std::system((cmd + " >/dev/null 2>&1").c_str());
}

// The process moves, once, into a network namespace of its own: loopback,
// and a veth with 10.9.0.1/24 and 10.9.0.7/24 (no other route). Empty when
// done, else why not.
const std::string &private_net() {
    static const std::string failure = []() -> std::string {
        if (unshare(CLONE_NEWNET) != 0) {
            return std::string("no private network namespace: ") + std::strerror(errno);
        }
        if (sh("ip link set lo up && ip link add p0 type veth peer name p1 && "
               "ip link set p1 up && ip link set p0 up && "
               "ip addr add 10.9.0.1/24 dev p0 && ip addr add 10.9.0.7/24 dev p0") != 0) {
            return "ip failed";
        }
        return {};
    }();
    return failure;
}

std::uint32_t nip(const char *text) {
    in_addr a{};
    inet_pton(AF_INET, text, &a);
    return a.s_addr;
}

bool readable(int fd, int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, timeout_ms) == 1 && (p.revents & POLLIN) != 0;
}

class Port67 : public Sockets {
  protected:
    void SetUp() override {
        if (!is_root()) {
            GTEST_SKIP() << "port 67 and namespaces need privilege";
        }
        if (!private_net().empty()) {
            GTEST_SKIP() << private_net();
        }
        Sockets::SetUp();
    }
    void TearDown() override {
        for (auto role : {dhcp_port67_role::handle, dhcp_port67_role::drain}) {
            while (dhcp_port67_users(role) > 0) {
                dhcp_port67_close(role);
            }
        }
        Sockets::TearDown();
    }
};

TEST_F(Port67, BothRolesGetOneSocketClosedWithTheLastReference) {
    const int h = dhcp_port67_open(dhcp_port67_role::handle);
    ASSERT_GE(h, 0);
    EXPECT_EQ(dhcp_port67_open(dhcp_port67_role::drain), h);
    EXPECT_EQ(dhcp_port67_open(dhcp_port67_role::drain), h);
    EXPECT_EQ(dhcp_port67_fd(), h);
    EXPECT_EQ(dhcp_port67_users(dhcp_port67_role::handle), 1);
    EXPECT_EQ(dhcp_port67_users(dhcp_port67_role::drain), 2);
    // Opened once, as the listening socket of the port.
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "Opening listen socket on *:67 "}}));
    EXPECT_EQ(bound_port(h), 67);
    EXPECT_EQ(int_option(h, SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(int_option(h, SOL_SOCKET, SO_BROADCAST), 1);
    EXPECT_EQ(int_option(h, IPPROTO_IP, IP_PKTINFO), 1);

    dhcp_port67_close(dhcp_port67_role::handle);
    dhcp_port67_close(dhcp_port67_role::handle);  // none left of that role: nothing
    EXPECT_EQ(dhcp_port67_users(dhcp_port67_role::handle), 0);
    EXPECT_EQ(dhcp_port67_fd(), h);
    EXPECT_NE(fcntl(h, F_GETFD), -1);
    dhcp_port67_close(dhcp_port67_role::drain);
    EXPECT_NE(fcntl(h, F_GETFD), -1);
    dhcp_port67_close(dhcp_port67_role::drain);
    EXPECT_EQ(dhcp_port67_fd(), -1);
    EXPECT_EQ(fcntl(h, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);

    logs.clear();
    EXPECT_GE(dhcp_port67_open(dhcp_port67_role::drain), 0);
    EXPECT_EQ(logs.size(), 1u);  // opened again
}

TEST_F(Port67, RefGivesItsReferenceBackOnceWhenDropped) {
    {
        dhcp_port67_ref a(dhcp_port67_role::drain);
        ASSERT_TRUE(a);
        EXPECT_EQ(a.get(), dhcp_port67_fd());
        dhcp_port67_ref b(std::move(a));
        EXPECT_TRUE(b.valid());
        EXPECT_FALSE(a.valid());
        EXPECT_FALSE(a);
        EXPECT_EQ(a.get(), -1);
        EXPECT_EQ(dhcp_port67_users(dhcp_port67_role::drain), 1);
        dhcp_port67_ref c;
        EXPECT_FALSE(c);
        c = std::move(b);
        EXPECT_EQ(dhcp_port67_users(dhcp_port67_role::drain), 1);
        c.reset();
        c.reset();
        EXPECT_EQ(dhcp_port67_users(dhcp_port67_role::drain), 0);
        EXPECT_EQ(dhcp_port67_fd(), -1);
        c = dhcp_port67_ref(dhcp_port67_role::handle);
        EXPECT_EQ(dhcp_port67_users(dhcp_port67_role::handle), 1);
    }
    EXPECT_EQ(dhcp_port67_users(dhcp_port67_role::handle), 0);
    EXPECT_EQ(dhcp_port67_fd(), -1);
}

// Why the roles share one socket: of two sockets on 0.0.0.0:67, only one
// gets a unicast datagram, while both get a broadcast.
TEST_F(Port67, KernelGivesAUnicastToOneOfTwoSocketsABroadcastToBoth) {
    dhcp_unique_fd a(dhcp_listen_socket(INADDR_ANY, 67, nullptr));
    dhcp_unique_fd b(dhcp_listen_socket(INADDR_ANY, 67, nullptr));
    ASSERT_TRUE(a && b);
    const Bytes payload = pattern(300);

    send_udp(payload, "10.9.0.1", 67);
    pollfd both[2] = {{a.get(), POLLIN, 0}, {b.get(), POLLIN, 0}};
    ASSERT_EQ(::poll(both, 2, 5000), 1);  // once one has it, the other never will
    Bytes got(600);
    const int winner = (both[0].revents & POLLIN) != 0 ? a.get() : b.get();
    EXPECT_EQ(::recv(winner, got.data(), got.size(), 0), 300);
    EXPECT_FALSE(readable(a.get(), 0) || readable(b.get(), 0));

    dhcp_unique_fd tx(::socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_EQ(dhcp_setsockopt_broadcast(tx.get()), 0);
    sockaddr_in dst{};
    dst.sin_family = AF_INET;
    dst.sin_port = htons(67);
    dst.sin_addr.s_addr = nip("10.9.0.255");
    ASSERT_EQ(::sendto(tx.get(), payload.data(), payload.size(), 0,
                       reinterpret_cast<const sockaddr *>(&dst), sizeof dst),
              300);
    for (int fd : {a.get(), b.get()}) {
        ASSERT_TRUE(readable(fd, 5000));
        EXPECT_EQ(::recv(fd, got.data(), got.size(), 0), 300);
    }
}

// Two roles' read tasks on the shared descriptor, as the server's and the
// relay's: the handler reads with dhcp_recvmsg, the drainer drains.
struct Roles {
    thread_master *m = thread_master_create();
    std::vector<Bytes> handled;
    int drains = 0;
    int drain_failures = 0;
    ~Roles() { thread_master_free(m); }

    static int handler_task(thread *t) {
        auto *r = static_cast<Roles *>(THREAD_ARG(t));
        dhcp_packet p{};
        int len = 0;
        std::uint32_t local = 0;
        if (dhcp_recvmsg(THREAD_FD(t), &p, &len, &local) == 0) {
            const auto *b = reinterpret_cast<const std::uint8_t *>(&p);
            r->handled.emplace_back(b, b + len);
        }
        thread_add_read(r->m, handler_task, r, THREAD_FD(t));
        return 0;
    }
    static int drain_task(thread *t) {
        auto *r = static_cast<Roles *>(THREAD_ARG(t));
        r->drains++;
        if (dhcp_port67_drain(THREAD_FD(t)) != 0) {
            r->drain_failures++;
        }
        thread_add_read(r->m, drain_task, r, THREAD_FD(t));
        return 0;
    }
    // Runs the loop until the handler has `n` datagrams; the bound on turns
    // only ends a wait that failed.
    void run_until_handled(std::size_t n) {
        for (int turn = 0; turn < 50 && handled.size() < n; turn++) {
            thread_run_once(m, 200);
        }
    }
};

TEST_F(Port67, UnicastReachesTheHandlerWhicheverRoleOpenedFirst) {
    for (const bool handler_first : {true, false}) {
        SCOPED_TRACE(handler_first ? "handler first" : "drainer first");
        Roles r;
        const auto first = handler_first ? dhcp_port67_role::handle : dhcp_port67_role::drain;
        const auto second = handler_first ? dhcp_port67_role::drain : dhcp_port67_role::handle;
        const int fd = dhcp_port67_open(first);
        ASSERT_EQ(dhcp_port67_open(second), fd);
        thread_add_read(r.m, Roles::handler_task, &r, fd);
        thread_add_read(r.m, Roles::drain_task, &r, fd);

        std::vector<Bytes> sent;
        for (std::size_t i = 0; i < 5; i++) {
            sent.push_back(pattern(260 + i));
            send_udp(sent.back(), i % 2 == 0 ? "10.9.0.1" : "10.9.0.7", 67);
        }
        r.run_until_handled(sent.size());
        EXPECT_EQ(r.handled, sent);
        EXPECT_GT(r.drains, 0);  // it was woken, and left every datagram alone
        EXPECT_EQ(r.drain_failures, 0);
        EXPECT_FALSE(readable(fd, 0));
        dhcp_port67_close(dhcp_port67_role::handle);
        dhcp_port67_close(dhcp_port67_role::drain);
    }
}

// A broadcast to port 67 reaches every socket on 0.0.0.0:67: once the
// witness has it, the shared socket has had it too, or never will.
void broadcast_seen_by(int witness) {
    dhcp_unique_fd tx(::socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_EQ(dhcp_setsockopt_broadcast(tx.get()), 0);
    sockaddr_in dst{};
    dst.sin_family = AF_INET;
    dst.sin_port = htons(67);
    dst.sin_addr.s_addr = nip("10.9.0.255");
    const Bytes payload = pattern(300);
    ASSERT_EQ(::sendto(tx.get(), payload.data(), payload.size(), 0,
                       reinterpret_cast<const sockaddr *>(&dst), sizeof dst),
              300);
    ASSERT_TRUE(readable(witness, 5000));
    Bytes got(600);
    ASSERT_EQ(::recv(witness, got.data(), got.size(), 0), 300);
}

TEST_F(Port67, DrainReadsOnlyWhileNoRoleHandlesAndNeverWaits) {
    const int fd = dhcp_port67_open(dhcp_port67_role::drain);
    ASSERT_GE(fd, 0);
    dhcp_unique_fd witness(dhcp_listen_socket(INADDR_ANY, 67, nullptr));
    ASSERT_TRUE(witness);
    logs.clear();
    EXPECT_EQ(dhcp_port67_drain(fd), 0);  // nothing waiting: returns at once
    broadcast_seen_by(witness.get());
    EXPECT_FALSE(readable(fd, 0));  // only drainers: dropped by the kernel
    EXPECT_EQ(dhcp_port67_drain(fd), 0);

    ASSERT_EQ(dhcp_port67_open(dhcp_port67_role::handle), fd);
    broadcast_seen_by(witness.get());
    ASSERT_TRUE(readable(fd, 0));  // queued for the handler
    EXPECT_EQ(dhcp_port67_drain(fd), 0);
    EXPECT_TRUE(readable(fd, 0));  // left to the handler

    dhcp_port67_close(dhcp_port67_role::handle);
    EXPECT_EQ(dhcp_port67_drain(fd), 0);  // what the handler left is read
    EXPECT_FALSE(readable(fd, 0));
    broadcast_seen_by(witness.get());
    EXPECT_FALSE(readable(fd, 0));  // dropped again

    // A handler that comes back gets what arrives from then on.
    ASSERT_EQ(dhcp_port67_open(dhcp_port67_role::handle), fd);
    broadcast_seen_by(witness.get());
    EXPECT_TRUE(readable(fd, 0));
    EXPECT_TRUE(logs.empty());  // quiet with packet debugging off
}

// The source address the kernel takes for `dst` when left to choose.
std::uint32_t kernel_source(std::uint32_t dst) {
    dhcp_unique_fd fd(::socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(9);
    addr.sin_addr.s_addr = dst;
    if (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        return 0;
    }
    socklen_t len = sizeof addr;
    getsockname(fd.get(), reinterpret_cast<sockaddr *>(&addr), &len);
    return addr.sin_addr.s_addr;
}

// The routed sender: from the given address when it is ours, else from the
// kernel's choice.
TEST_F(Port67, RoutedSendUsesOurSourceAddressOrTheKernels) {
    struct Case {
        const char *src;
        const char *dst;
        const char *seen_from;  // nullptr: the kernel's choice
    };
    const Case cases[] = {
        {"10.9.0.1", "10.9.0.7", "10.9.0.1"},
        {"10.9.0.7", "10.9.0.1", "10.9.0.7"},
        {"10.9.0.1", "10.9.0.1", "10.9.0.1"},
        {"192.168.5.0", "10.9.0.7", nullptr},  // a detached pool's network address
        {"192.168.5.0", "10.9.0.1", nullptr},
        {"0.0.0.0", "10.9.0.1", nullptr},
    };
    // The sources above are told apart from the kernel's own choice.
    ASSERT_EQ(kernel_source(nip("10.9.0.1")), nip("10.9.0.1"));
    dhcp_unique_fd rx(dhcp_listen_socket(INADDR_ANY, 0, nullptr));
    const std::uint16_t port = bound_port(rx.get());
    const int tx = dhcp_port67_open(dhcp_port67_role::handle);
    ASSERT_GE(tx, 0);
    dhcp_packet p;
    dhcp_init_header(p, DHCPOFFER);
    dhcp_add_simple_option(p, DHCP_SERVER_ID, nip("10.9.0.1"));
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(&p);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.src);
        logs.clear();
        EXPECT_EQ(dhcp_send_udp_packet(tx, p, nip(c.src), nip(c.dst), port), 240 + 9 + 1);
        ASSERT_TRUE(readable(rx.get(), 5000));
        Bytes got(700);
        sockaddr_in from{};
        socklen_t from_len = sizeof from;
        const ssize_t n = ::recvfrom(rx.get(), got.data(), got.size(), 0,
                                     reinterpret_cast<sockaddr *>(&from), &from_len);
        ASSERT_EQ(n, 250);
        got.resize(250);
        EXPECT_EQ(got, Bytes(bytes, bytes + 250));
        const std::uint32_t want =
            c.seen_from != nullptr ? nip(c.seen_from) : kernel_source(nip(c.dst));
        EXPECT_EQ(from.sin_addr.s_addr, want);
        EXPECT_EQ(ntohs(from.sin_port), 67);
        EXPECT_TRUE(logs.empty());
    }
}

TEST_F(Port67, RoutedSendWithoutRouteFailsWithOneLogLine) {
    dhcp_unique_fd tx(dhcp_listen_socket(INADDR_ANY, 0, nullptr));
    dhcp_packet p;
    dhcp_init_header(p, DHCPACK);
    logs.clear();
    EXPECT_EQ(dhcp_send_udp_packet(tx.get(), p, nip("10.9.0.1"), nip("203.0.113.9"), 67), -1);
    EXPECT_EQ(dhcp_send_udp_packet(tx.get(), p, nip("192.168.5.0"), nip("203.0.113.9"), 67), -1);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "sendto"}, {LOG_ERR, "sendto"}}));
}

// ---- dhcp_read_interface -------------------------------------------------

TEST_F(Sockets, ReadInterfaceLoopback) {
    if (!is_root()) {
        GTEST_SKIP() << "raw sockets need privilege";
    }
    int ifindex = 0;
    std::uint32_t ip = 0;
    std::uint8_t mac[6] = {1, 1, 1, 1, 1, 1};
    EXPECT_EQ(dhcp_read_interface("lo", &ifindex, &ip, mac), 0);
    EXPECT_EQ(ifindex, static_cast<int>(if_nametoindex("lo")));
    EXPECT_EQ(ip, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(Bytes(mac, mac + 6), Bytes(6, 0));
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "IP 127.0.0.1"},
                                          {LOG_INFO, "Adapter index 1"},
                                          {LOG_INFO, "MAC 00:00:00:00:00:00"}}));
    logs.clear();
    EXPECT_EQ(dhcp_read_interface("lo", &ifindex, nullptr, nullptr), 0);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "Adapter index 1"}}));
}

TEST_F(Sockets, ReadInterfaceUnknown) {
    if (!is_root()) {
        GTEST_SKIP() << "raw sockets need privilege";
    }
    std::uint32_t ip = 0;
    int ifindex = 0;
    EXPECT_EQ(dhcp_read_interface("nosuchif0", nullptr, &ip, nullptr), -1);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_ERR, "is interface nosuchif0 up and configured?"}}));
    EXPECT_EQ(dhcp_read_interface("nosuchif0", &ifindex, nullptr, nullptr), -1);
}

}  // namespace
