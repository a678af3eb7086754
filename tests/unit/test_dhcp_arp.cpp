#include "dhcp/dhcp_arp.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_socket.h"
#include "lib/log.h"
#include "platform/util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using LogLine = std::pair<int, std::string>;

const std::uint8_t kServerMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
const std::uint8_t kClientMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
const std::uint8_t kOtherMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x03};

TEST(ArpFrame, RequestGoldenBytes) {
    const dhcp_arp_frame f = dhcp_arp_request(htonl(0xc0a80164), htonl(0xc0a80101), kServerMac);
    const auto *b = reinterpret_cast<const std::uint8_t *>(&f);
    const Bytes expected = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // destination
                            0x02, 0x00, 0x00, 0x00, 0x00, 0x01,  // source
                            0x08, 0x06,                          // ARP
                            0x00, 0x01, 0x08, 0x00, 6,    4,     // Ethernet, IPv4
                            0x00, 0x01,                          // request
                            0x02, 0x00, 0x00, 0x00, 0x00, 0x01,  // sender MAC
                            192,  168,  1,    1,                 // sender IP
                            0,    0,    0,    0,    0,    0,     // target MAC
                            192,  168,  1,    100,               // target IP
                            0,    0,    0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(Bytes(b, b + sizeof f), expected);
}

// Probes over the loopback device, with an optional responder thread that
// answers requests for one address from a given MAC.
class Probe : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "packet sockets need privilege";
        }
        dhcp_debug = 0;
        zlog_set_hook([this](int prio, std::string_view text) { logs.emplace_back(prio, text); });
        std::random_device rd;
        // A fresh address per test, so parallel runs on the host don't meet.
        test_ip = htonl(0x0a400000u | (rd() & 0x3fffffu));
    }
    void TearDown() override {
        stop = true;
        if (responder.joinable()) {
            responder.join();
        }
        zlog_set_hook({});
        dhcp_debug = 0;
    }

    void respond_from(const std::uint8_t *mac, int delay_ms = 0) {
        dhcp_unique_fd fd(::socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ARP)));
        ASSERT_TRUE(fd);
        sockaddr_ll addr{};
        addr.sll_family = AF_PACKET;
        addr.sll_protocol = htons(ETH_P_ARP);
        addr.sll_ifindex = static_cast<int>(if_nametoindex("lo"));
        ASSERT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        Bytes who(mac, mac + 6);
        responder = std::thread([this, sock = std::move(fd), who, delay_ms]() {
            while (!stop) {
                pollfd pfd{sock.get(), POLLIN, 0};
                if (poll(&pfd, 1, 50) <= 0) {
                    continue;
                }
                dhcp_arp_frame f{};
                if (recv(sock.get(), &f, sizeof f, 0) < 42 || f.operation != htons(1) ||
                    std::memcmp(f.target_ip, &test_ip, 4) != 0) {
                    continue;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
                dhcp_arp_frame reply = f;
                std::memcpy(reply.h_dest, f.h_source, 6);
                std::memcpy(reply.h_source, who.data(), 6);
                reply.operation = htons(2);
                std::memcpy(reply.target_mac, f.sender_mac, 6);
                std::memcpy(reply.target_ip, f.sender_ip, 4);
                std::memcpy(reply.sender_mac, who.data(), 6);
                std::memcpy(reply.sender_ip, &test_ip, 4);
                send(sock.get(), &reply, sizeof reply, 0);
            }
        });
    }

    std::vector<LogLine> logs;
    std::uint32_t test_ip = 0;
    std::atomic<bool> stop{false};
    std::thread responder;
};

TEST_F(Probe, NoAnswerIsFreeAfterTwoSeconds) {
    dhcp_debug = DHCP_DEBUG_EVENTS;
    const std::uint64_t start = monotonic_ms();
    // Our own request comes back on loopback and is read and ignored.
    EXPECT_EQ(arpping(test_ip, kClientMac, htonl(0x7f000001), kServerMac, "lo"), 1);
    const std::uint64_t took = monotonic_ms() - start;
    EXPECT_GE(took, 1900u);
    EXPECT_LE(took, 2300u);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "No arp reply received for this address"}}));
}

TEST_F(Probe, AnotherHostAnswersInUse) {
    respond_from(kOtherMac, 100);
    dhcp_debug = DHCP_DEBUG_EVENTS;
    const std::uint64_t start = monotonic_ms();
    EXPECT_EQ(arpping(test_ip, kClientMac, htonl(0x7f000001), kServerMac, "lo"), 0);
    EXPECT_LT(monotonic_ms() - start, 1500u);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "Arp reply received for this address"}}));
}

TEST_F(Probe, ClientItselfAnswersFree) {
    respond_from(kClientMac);
    dhcp_debug = DHCP_DEBUG_EVENTS;
    const std::uint64_t start = monotonic_ms();
    EXPECT_EQ(arpping(test_ip, kClientMac, htonl(0x7f000001), kServerMac, "lo"), 1);
    EXPECT_LT(monotonic_ms() - start, 1500u);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "No arp reply received for this address"}}));
}

TEST_F(Probe, WithoutSafeMacAnyAnswerIsInUse) {
    respond_from(kClientMac);
    EXPECT_EQ(arpping(test_ip, nullptr, htonl(0x7f000001), kServerMac, "lo"), 0);
    EXPECT_TRUE(logs.empty());  // events debug off
}

TEST_F(Probe, UnknownInterfaceSendFailsFree) {
    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_EQ(arpping(test_ip, nullptr, htonl(0x7f000001), kServerMac, "nosuchif0"), 1);
    EXPECT_EQ(logs, (std::vector<LogLine>{{LOG_INFO, "No arp reply received for this address"}}));
}

TEST_F(Probe, WithoutPrivilegeInUseAtOnce) {
    int pipefd[2];
    ASSERT_EQ(pipe(pipefd), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(pipefd[0]);
        std::string seen;
        zlog_set_hook([&](int prio, std::string_view text) {
            seen += std::to_string(prio) + ":" + std::string(text) + "\n";
        });
        dhcp_debug = DHCP_DEBUG_EVENTS;
        if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) {
            _exit(99);
        }
        const std::uint64_t start = monotonic_ms();
        const int result = arpping(test_ip, nullptr, htonl(0x7f000001), kServerMac, "lo");
        const bool quick = monotonic_ms() - start < 100;
        (void)!write(pipefd[1], seen.data(), seen.size());
        _exit(result * 10 + (quick ? 1 : 0));
    }
    close(pipefd[1]);
    char buf[256] = {};
    (void)!read(pipefd[0], buf, sizeof buf - 1);
    close(pipefd[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);  // result 0, at once
    EXPECT_EQ(std::string(buf), std::to_string(LOG_ERR) + ":can not create raw socket\n");
}

}  // namespace
