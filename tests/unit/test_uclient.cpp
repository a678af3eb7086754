// Management-bus client: framing, dispatch, PING, malformed messages, the
// DHCP snooping messages and the bus retry slot.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/dhcpsnoop.h"
#include "platform/uclient.h"
#include "platform/uif.h"

namespace {

std::vector<std::uint8_t> frame(std::uint16_t type, const std::string &payload) {
    auto n = static_cast<std::uint32_t>(payload.size());
    std::vector<std::uint8_t> f;
    f.reserve(8 + payload.size());
    const std::uint32_t t = type;
    for (std::uint32_t v : {0x55u, 0x42u, t >> 8, t & 0xffu, n >> 24, n >> 16, n >> 8, n}) {
        f.push_back(static_cast<std::uint8_t>(v));
    }
    for (char ch : payload) {
        f.push_back(static_cast<std::uint8_t>(ch));
    }
    return f;
}

std::vector<std::pair<int, std::string>> seen;
int record(void *arg) {
    auto *m = static_cast<uclient_msg *>(arg);
    seen.emplace_back(m->type, std::string(m->payload.begin(), m->payload.end()));
    return uclient_new_if(arg);
}

struct Bus : ::testing::Test {
    int sv[2] = {-1, -1};
    uclient c;
    Bus() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        c.callback = record;
        seen.clear();
    }
    ~Bus() override {
        close(sv[0]);
        close(sv[1]);
    }
    void send_bytes(const std::vector<std::uint8_t> &b) {
        ASSERT_EQ(write(sv[1], b.data(), b.size()), static_cast<ssize_t>(b.size()));
    }
};

TEST_F(Bus, WholeMessagesAreDispatchedAndPartialOnesWait) {
    auto a = frame(UCLIENT_MSG_HELLO, "peer");
    auto b = frame(UCLIENT_MSG_IF_NOTICE, "swp1");
    std::vector<std::uint8_t> both(a);
    both.insert(both.end(), b.begin(), b.begin() + 5);  // b cut short
    send_bytes(both);
    EXPECT_EQ(uclient_handle_async(&c, sv[0]), 0);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0], std::make_pair(1, std::string("peer")));
    send_bytes({b.begin() + 5, b.end()});
    EXPECT_EQ(uclient_handle_async(&c, sv[0]), 0);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1], std::make_pair(2, std::string("swp1")));
}

TEST_F(Bus, PingIsAnsweredWithPong) {
    send_bytes(frame(UCLIENT_MSG_PING, "abc"));
    EXPECT_EQ(uclient_handle_async(&c, sv[0]), 0);
    std::uint8_t reply[64];
    ssize_t n = read(sv[1], reply, sizeof reply);
    auto want = frame(UCLIENT_MSG_PONG, "abc");
    ASSERT_EQ(n, static_cast<ssize_t>(want.size()));
    EXPECT_EQ(std::vector<std::uint8_t>(reply, reply + n), want);
}

TEST_F(Bus, BadMagicOverlongPayloadAndBadNoticeEndThePeer) {
    send_bytes({0, 0, 0, 1, 0, 0, 0, 0});
    EXPECT_LT(uclient_handle_async(&c, sv[0]), 0);
    EXPECT_TRUE(seen.empty());
}

TEST_F(Bus, OverlongPayloadEndsThePeer) {
    send_bytes({0x55, 0x42, 0, 3, 0x00, 0x01, 0x00, 0x01});  // 65537 bytes announced
    EXPECT_LT(uclient_handle_async(&c, sv[0]), 0);
}

TEST_F(Bus, InterfaceNoticeWithBadNameEndsThePeer) {
    send_bytes(frame(UCLIENT_MSG_IF_NOTICE, std::string(21, 'x')));
    EXPECT_LT(uclient_handle_async(&c, sv[0]), 0);
}

TEST_F(Bus, UnknownTypesAreIgnored) {
    send_bytes(frame(99, "future"));
    EXPECT_EQ(uclient_handle_async(&c, sv[0]), 0);
    EXPECT_EQ(seen.size(), 1u);
}

TEST_F(Bus, PeerThatHangsUpIsFinished) {
    close(sv[1]);
    sv[1] = -1;
    EXPECT_LT(uclient_handle_async(&c, sv[0]), 0);
}

// ---- DHCP snooping state over the bus ----

std::vector<std::uint8_t> raw(std::uint16_t type, std::vector<std::uint8_t> payload) {
    return frame(type, std::string(payload.begin(), payload.end()));
}

struct Snoop : Bus {
    Snoop() { reset(); }
    ~Snoop() override { reset(); }
    static void reset() {
        dhcpsnoop_enable_set(0);
        for (std::uint32_t port = 1; port <= DHCPSNOOP_PORT_MAX; ++port) {
            dhcpsnoop_if_untrust_set(port, 0);
        }
    }
    // Sends `msg` and has it handled: the handler's verdict on the peer.
    int deliver(const std::vector<std::uint8_t> &msg) {
        send_bytes(msg);
        return uclient_handle_async(&c, sv[0]);
    }
    // Asks for the state; the whole answer as it came.
    std::vector<std::uint8_t> state() {
        EXPECT_EQ(deliver(raw(UCLIENT_MSG_SNOOP_GET, {})), 0);
        std::vector<std::uint8_t> got;
        std::size_t want = 8;
        std::uint8_t chunk[4096];
        while (got.size() < want) {
            ssize_t n = read(sv[1], chunk, sizeof chunk);
            if (n <= 0) {
                break;
            }
            got.insert(got.end(), chunk, chunk + n);
            if (got.size() >= 8) {
                want = 8 + (std::size_t{got[4]} << 24 | std::size_t{got[5]} << 16 |
                            std::size_t{got[6]} << 8 | got[7]);
            }
        }
        return got;
    }
};

TEST_F(Snoop, PeersTurnSnoopingOnAndOff) {
    EXPECT_EQ(state(), raw(UCLIENT_MSG_SNOOP_STATE, {0}));  // off at start
    EXPECT_EQ(deliver(raw(UCLIENT_MSG_SNOOP_SET, {1})), 0);
    EXPECT_EQ(dhcpsnoop_enable_get(), 1);
    EXPECT_EQ(state(), raw(UCLIENT_MSG_SNOOP_STATE, {1}));
    EXPECT_EQ(deliver(raw(UCLIENT_MSG_SNOOP_SET, {0})), 0);
    EXPECT_EQ(dhcpsnoop_enable_get(), 0);
}

TEST_F(Snoop, PortsAreMarkedByNumber) {
    EXPECT_EQ(deliver(raw(UCLIENT_MSG_SNOOP_TRUST, {0, 0, 0, 3, 1})), 0);
    EXPECT_EQ(deliver(raw(UCLIENT_MSG_SNOOP_TRUST, {0, 0, 0x0f, 0xff, 1})), 0);  // 4095
    EXPECT_EQ(deliver(raw(UCLIENT_MSG_SNOOP_TRUST, {0, 0, 0x01, 0x02, 1})), 0);  // 258
    EXPECT_EQ(deliver(raw(UCLIENT_MSG_SNOOP_TRUST, {0, 0, 0, 1, 0})), 0);        // trusted already
    EXPECT_EQ(state(), raw(UCLIENT_MSG_SNOOP_STATE, {0, 0, 3, 0x01, 0x02, 0x0f, 0xff}));
    uif swp3;
    swp3.number = 3;
    swp3.index = UIF_INDEX_BASE | 3;
    EXPECT_EQ(dhcpsnoop_if_untrust_get(&swp3), 1);
    EXPECT_EQ(deliver(raw(UCLIENT_MSG_SNOOP_TRUST, {0, 0, 0, 3, 0})), 0);
    EXPECT_EQ(dhcpsnoop_if_untrust_get(&swp3), 0);
    EXPECT_EQ(state(), raw(UCLIENT_MSG_SNOOP_STATE, {0, 0x01, 0x02, 0x0f, 0xff}));
    EXPECT_EQ(dhcpsnoop_if_untrust_get(nullptr), -1);
    uif far;
    far.number = 4096;  // beyond what the state holds: trusted
    EXPECT_EQ(dhcpsnoop_if_untrust_get(&far), 0);
}

TEST_F(Snoop, EveryUntrustedPortFitsTheAnswer) {
    for (std::uint32_t port = 1; port <= DHCPSNOOP_PORT_MAX; ++port) {
        ASSERT_EQ(dhcpsnoop_if_untrust_set(port, 1), 0);
    }
    std::vector<std::uint8_t> want{1};
    dhcpsnoop_enable_set(1);
    for (std::uint32_t port = 1; port <= DHCPSNOOP_PORT_MAX; ++port) {
        want.push_back(static_cast<std::uint8_t>(port >> 8));
        want.push_back(static_cast<std::uint8_t>(port));
    }
    EXPECT_EQ(state(), raw(UCLIENT_MSG_SNOOP_STATE, want));
}

struct BadSnoop {
    const char *what;
    std::uint16_t type;
    std::vector<std::uint8_t> payload;
};

TEST_F(Snoop, MalformedMessagesEndThePeerAndChangeNothing) {
    for (const BadSnoop &b : {
             BadSnoop{"empty on/off", UCLIENT_MSG_SNOOP_SET, {}},
             BadSnoop{"long on/off", UCLIENT_MSG_SNOOP_SET, {1, 0}},
             BadSnoop{"on/off of 2", UCLIENT_MSG_SNOOP_SET, {2}},
             BadSnoop{"port 0", UCLIENT_MSG_SNOOP_TRUST, {0, 0, 0, 0, 1}},
             BadSnoop{"port 4096", UCLIENT_MSG_SNOOP_TRUST, {0, 0, 0x10, 0, 1}},
             BadSnoop{"port 2^32-1", UCLIENT_MSG_SNOOP_TRUST, {0xff, 0xff, 0xff, 0xff, 1}},
             BadSnoop{"trust of 2", UCLIENT_MSG_SNOOP_TRUST, {0, 0, 0, 3, 2}},
             BadSnoop{"short trust", UCLIENT_MSG_SNOOP_TRUST, {0, 0, 3, 1}},
             BadSnoop{"long trust", UCLIENT_MSG_SNOOP_TRUST, {0, 0, 0, 3, 1, 0}},
             BadSnoop{"question with a payload", UCLIENT_MSG_SNOOP_GET, {0}},
         }) {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        uclient peer;
        peer.callback = record;
        auto msg = raw(b.type, b.payload);
        ASSERT_EQ(write(pair[1], msg.data(), msg.size()), static_cast<ssize_t>(msg.size()));
        EXPECT_LT(uclient_handle_async(&peer, pair[0]), 0) << b.what;
        close(pair[0]);
        close(pair[1]);
    }
    EXPECT_EQ(state(), raw(UCLIENT_MSG_SNOOP_STATE, {0}));
}

TEST_F(Snoop, StateSentByPeersIsIgnored) {
    EXPECT_EQ(deliver(raw(UCLIENT_MSG_SNOOP_STATE, {1, 0, 3})), 0);
    EXPECT_EQ(dhcpsnoop_enable_get(), 0);
    EXPECT_EQ(dhcpsnoop_port_untrust_get(3), 0);
}

TEST(BusClient, MissingBusIsNotFatalAndListenerConflictIs) {
    // Ports on loopback nobody uses in the test environment.
    uclient *a = uclient_connect(0x7f000001, 1, 0);
    ASSERT_NE(a, nullptr);
    EXPECT_FALSE(a->connected);  // retry timer in the connection slot
    EXPECT_GE(a->sock, 0);
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    ASSERT_EQ(getsockname(a->serv_sock, reinterpret_cast<sockaddr *>(&sa), &len), 0);
    uclient *b = uclient_connect(0x7f000001, 1, ntohs(sa.sin_port));
    EXPECT_EQ(b, nullptr);  // the listening port is taken
    uclient_free(a);
}

}  // namespace
