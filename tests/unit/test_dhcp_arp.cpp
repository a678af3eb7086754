#include "dhcp/dhcp_arp.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "dhcp/dhcp_debug.h"
#include "lib/log.h"

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

// Probes over the loopback device. The request really goes out; what comes
// back and when is scripted: each wait of the probe takes the next step,
// which may advance the fake clock and hand over a frame, so no outcome
// depends on how fast this machine is.
class Probe : public ::testing::Test {
  protected:
    struct Step {
        std::uint64_t advance_ms = 0;  // clock time the wait takes
        Bytes frame;                   // empty: the wait runs out
    };

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
        dhcp_arp_set_io({});
        zlog_set_hook({});
        dhcp_debug = 0;
    }

    // Scripts the waits; once the steps are used up, every further wait
    // hands over `then` (an endless stream), or runs out when it is empty.
    void script(std::vector<Step> steps, Bytes then = {}) {
        dhcp_arp_set_io({[this] { return clock_ms; },
                         [this, steps = std::move(steps), then = std::move(then)](
                             int, std::span<std::byte> out, unsigned timeout_ms) -> long {
                             waits.push_back(timeout_ms);
                             const std::size_t i = waits.size() - 1;
                             Step step = i < steps.size() ? steps[i] : Step{0, then};
                             if (step.frame.empty()) {
                                 clock_ms += timeout_ms;
                                 return -1;
                             }
                             clock_ms += step.advance_ms;
                             const std::size_t n = std::min(out.size(), step.frame.size());
                             std::memcpy(out.data(), step.frame.data(), n);
                             return static_cast<long>(n);
                         }});
    }

    // An ARP frame: `op` from `mac` for `sender_ip` (network order).
    static Bytes arp(std::uint16_t op, const std::uint8_t *mac, std::uint32_t sender_ip) {
        dhcp_arp_frame f = dhcp_arp_request(htonl(0x0a000001), sender_ip, mac);
        f.operation = htons(op);
        std::memcpy(f.h_dest, kServerMac, 6);
        std::memcpy(f.target_mac, kServerMac, 6);
        const auto *b = reinterpret_cast<const std::uint8_t *>(&f);
        return Bytes(b, b + sizeof f);
    }
    Bytes answer_from(const std::uint8_t *mac) const { return arp(2, mac, test_ip); }
    Bytes unrelated() const { return arp(2, kOtherMac, test_ip ^ htonl(1)); }

    int probe(const std::uint8_t *safe_mac) {
        return arpping(test_ip, safe_mac, htonl(0x7f000001), kServerMac, "lo");
    }

    std::vector<LogLine> logs;
    std::uint32_t test_ip = 0;
    std::uint64_t clock_ms = 1000000;
    std::vector<unsigned> waits;  // the timeout of each wait, in order
};

const std::vector<LogLine> kFree = {{LOG_INFO, "No arp reply received for this address"}};
const std::vector<LogLine> kInUse = {{LOG_INFO, "Arp reply received for this address"}};

TEST_F(Probe, NoAnswerIsFreeAfterOneWaitOfTwoSeconds) {
    script({});
    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_EQ(probe(kClientMac), 1);
    EXPECT_EQ(waits, std::vector<unsigned>{2000});
    EXPECT_EQ(logs, kFree);
}

TEST_F(Probe, AnotherHostAnswersInUse) {
    script({{100, answer_from(kOtherMac)}});
    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_EQ(probe(kClientMac), 0);
    EXPECT_EQ(waits, std::vector<unsigned>{2000});
    EXPECT_EQ(logs, kInUse);
}

TEST_F(Probe, ClientItselfAnswersFreeAndTheAnswerEndsTheWait) {
    script({{100, answer_from(kClientMac)}}, unrelated());
    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_EQ(probe(kClientMac), 1);
    EXPECT_EQ(waits, std::vector<unsigned>{2000});
    EXPECT_EQ(logs, kFree);
}

TEST_F(Probe, AnAnswerAfterUnrelatedFramesStillCounts) {
    script({{300, unrelated()}, {0, unrelated()}, {600, answer_from(kOtherMac)}});
    EXPECT_EQ(probe(kClientMac), 0);
    // Each wait gets what is left: the time spent, and a millisecond per frame.
    EXPECT_EQ(waits, (std::vector<unsigned>{2000, 1699, 1698}));
}

TEST_F(Probe, TheBudgetSpentByTimeEndsTheProbeBeforeALaterAnswer) {
    script({{1500, unrelated()}, {499, unrelated()}, {0, answer_from(kOtherMac)}});
    EXPECT_EQ(probe(kClientMac), 1);
    // 2000 - 1501 - 500 leaves nothing: the answer is never read.
    EXPECT_EQ(waits, (std::vector<unsigned>{2000, 499}));
}

TEST_F(Probe, UnrelatedTrafficCannotHoldTheProbeOpen) {
    // An endless stream of unrelated frames on a clock that stands still:
    // each costs its millisecond, so 2000 of them spend the budget and the
    // one read with none left ends the wait.
    script({}, unrelated());
    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_EQ(probe(kClientMac), 1);
    ASSERT_EQ(waits.size(), 2001u);
    for (std::size_t i = 0; i < waits.size(); ++i) {
        EXPECT_EQ(waits[i], 2000 - i) << i;
    }
    EXPECT_EQ(logs, kFree);
}

TEST_F(Probe, FramesTooShortOrNotRepliesAreNoAnswer) {
    Bytes short_answer = answer_from(kOtherMac);
    short_answer.resize(41);  // the target address cut
    Bytes request = arp(1, kOtherMac, test_ip);
    script({{0, short_answer}, {0, request}});
    EXPECT_EQ(probe(kClientMac), 1);
    EXPECT_EQ(waits, (std::vector<unsigned>{2000, 1999, 1998}));
}

TEST_F(Probe, ARealWaitOnTheSocketRunsOut) {
    // The default clock and wait: our own request comes back on loopback
    // and is read and ignored, then nothing answers.
    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_EQ(probe(kClientMac), 1);
    EXPECT_EQ(logs, kFree);
}

TEST_F(Probe, WithoutSafeMacAnyAnswerIsInUse) {
    script({{0, answer_from(kClientMac)}});
    EXPECT_EQ(probe(nullptr), 0);
    EXPECT_TRUE(logs.empty());  // events debug off
}

TEST_F(Probe, UnknownInterfaceSendFailsFree) {
    script({});
    dhcp_debug = DHCP_DEBUG_EVENTS;
    EXPECT_EQ(arpping(test_ip, nullptr, htonl(0x7f000001), kServerMac, "nosuchif0"), 1);
    EXPECT_TRUE(waits.empty());  // nothing sent, nothing waited for
    EXPECT_EQ(logs, kFree);
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
        long waited = 0;
        dhcp_arp_set_io({{}, [&waited](int, std::span<std::byte>, unsigned) -> long {
                             ++waited;
                             return -1;
                         }});
        const int result = arpping(test_ip, nullptr, htonl(0x7f000001), kServerMac, "lo");
        (void)!write(pipefd[1], seen.data(), seen.size());
        _exit(result * 10 + (waited == 0 ? 1 : 0));
    }
    close(pipefd[1]);
    char buf[256] = {};
    (void)!read(pipefd[0], buf, sizeof buf - 1);
    close(pipefd[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);  // result 0, without waiting
    EXPECT_EQ(std::string(buf), std::to_string(LOG_ERR) + ":can not create raw socket\n");
}

}  // namespace
