// The vty server: request framing, exact reply frames, independent sessions
// and sessions that misbehave (over-long lines, garbage, hang-ups).
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "lib/command.h"
#include "lib/thread.h"
#include "lib/vty.h"
#include "lib/vty_proto.h"

namespace {

using namespace std::string_literals;
using clock_type = std::chrono::steady_clock;

struct Reply {
    std::string text;
    int code = -1;
    std::string prompt;
    bool operator==(const Reply &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Reply &r) {
    return os << "{text=\"" << r.text << "\" code=" << r.code << " prompt=\"" << r.prompt << "\"}";
}

std::string request(char kind, std::string_view line) {
    std::string r(1, kind);
    r.append(line);
    r.push_back('\0');
    return r;
}

// A shell connection driven from the test thread: it never blocks, it turns
// the daemon's loop while it waits.
class Client {
  public:
    Client(thread_master *m, const std::string &path) : m_(m) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un sa{};
        sa.sun_family = AF_UNIX;
        std::strncpy(sa.sun_path, path.c_str(), sizeof sa.sun_path - 1);
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0;
        // Let the daemon accept before anything else happens.
        thread_run_once(m_, 10);
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client() { close(); }

    bool connected() const { return connected_; }
    void shutdown_write() { ::shutdown(fd_, SHUT_WR); }
    void close() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = -1;
    }

    bool send_all(std::string_view data) {
        auto deadline = clock_type::now() + std::chrono::seconds(60);
        while (!data.empty() && clock_type::now() < deadline) {
            ssize_t n = ::send(fd_, data.data(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n > 0) {
                data.remove_prefix(static_cast<std::size_t>(n));
            } else if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
                return false;
            }
            thread_run_once(m_, 0);
            pump();
        }
        return data.empty();
    }

    std::optional<Reply> reply(int timeout_ms = 30000) {
        auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
        while (true) {
            if (auto r = parse()) {
                return r;
            }
            if (eof_ || clock_type::now() >= deadline) {
                return std::nullopt;
            }
            thread_run_once(m_, 5);
            pump();
        }
    }

    std::optional<Reply> ask(char kind, std::string_view line) {
        if (!send_all(request(kind, line))) {
            return std::nullopt;
        }
        return reply();
    }

    // True once the daemon has hung up (all replies read first).
    bool wait_eof(int timeout_ms = 30000) {
        auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
        while (!eof_ && clock_type::now() < deadline) {
            thread_run_once(m_, 5);
            pump();
        }
        return eof_;
    }

    // Nothing more arrives for a while.
    bool quiet(int ms = 50) {
        for (int i = 0; i < ms / 5; ++i) {
            thread_run_once(m_, 5);
            pump();
        }
        return buf_.empty();
    }

    std::size_t buffered() const { return buf_.size(); }

  private:
    void pump() {
        char tmp[65536];
        while (fd_ >= 0 && !eof_) {
            ssize_t n = ::recv(fd_, tmp, sizeof tmp, MSG_DONTWAIT);
            if (n > 0) {
                buf_.append(tmp, static_cast<std::size_t>(n));
            } else if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
                eof_ = true;
            } else {
                return;
            }
        }
    }

    std::optional<Reply> parse() {
        std::size_t text_end = buf_.find('\0');
        if (text_end == std::string::npos || text_end + 1 >= buf_.size()) {
            return std::nullopt;
        }
        std::size_t prompt_end = buf_.find('\0', text_end + 2);
        if (prompt_end == std::string::npos) {
            return std::nullopt;
        }
        Reply r;
        r.text = buf_.substr(0, text_end);
        r.code = static_cast<unsigned char>(buf_[text_end + 1]);
        r.prompt = buf_.substr(text_end + 2, prompt_end - text_end - 2);
        buf_.erase(0, prompt_end + 1);
        return r;
    }

    thread_master *m_;
    int fd_ = -1;
    bool connected_ = false;
    bool eof_ = false;
    std::string buf_;
};

std::size_t big_output_size = 0;

int big_output(cmd_element *, vty *vty, int, const char *[]) {
    std::string chunk(4096, 'o');
    for (std::size_t done = 0; done < big_output_size; done += chunk.size()) {
        vty_out(vty, "%s", chunk.c_str());
    }
    return CMD_SUCCESS;
}

int nul_output(cmd_element *, vty *vty, int, const char *[]) {
    vty->obuf.append("a\0b\n", 4);
    return CMD_SUCCESS;
}

cmd_element big_output_cmd = {"big-output", big_output, "Lots of output\n"};
cmd_element nul_output_cmd = {"nul-output", nul_output, "Output with a NUL\n"};

struct Server : ::testing::Test {
    thread_master *m = thread_master_create();
    std::string dir;
    std::string path;

    Server() {
        char tmpl[] = "/tmp/vtytest.XXXXXX";
        dir = mkdtemp(tmpl);
        path = dir + "/dhcp.vty";
        cmd_terminate();
        cmd_init(1);
        cmd_set_hostname("sw1");
        cmd_set_config_file((dir + "/missing/dhcpd.conf").c_str());
        install_element(ENABLE_NODE, &big_output_cmd);
        install_element(ENABLE_NODE, &nul_output_cmd);
        vty_init(m);
    }
    ~Server() override {
        vty_terminate();
        thread_master_free(m);
        cmd_terminate();
        std::system(("rm -rf '" + dir + "'").c_str());
    }
    void SetUp() override { ASSERT_EQ(vty_serv_sock(nullptr, 0, path.c_str()), 0); }
    void settle(int ms = 30) {
        for (int i = 0; i < ms / 5; ++i) {
            thread_run_once(m, 5);
        }
    }
};

const Reply kEnablePrompt{"", CMD_SUCCESS, "sw1# "};

TEST_F(Server, SocketIsCreatedWithGroupAccess) {
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0770u);
}

TEST_F(Server, RequestsAndExactReplies) {
    Client c(m, path);
    ASSERT_TRUE(c.connected());
    struct Case {
        char kind;
        std::string line;
        Reply reply;
    };
    const std::vector<Case> cases = {
        {'P', "", kEnablePrompt},
        {'P', "ignored", kEnablePrompt},
        {'X', "", kEnablePrompt},
        {'X', "nonsense", {"% Unknown command.\n", CMD_ERR_NO_MATCH, "sw1# "}},
        {'X',
         "write",
         {"% Can't save configuration to " + dir +
              "/missing/dhcpd.conf: No such file or directory\n",
          CMD_WARNING, "sw1# "}},
        {'X', "configure", {"% Command incomplete.\n", CMD_ERR_INCOMPLETE, "sw1# "}},
        {'D', "conf", {"  configure  Configuration from vty interface\n", CMD_SUCCESS, "sw1# "}},
        {'D',
         "write ",
         {"  file      Write to configuration file\n"
          "  memory    Write configuration to the file (same as write file)\n"
          "  terminal  Write to terminal\n"
          "  <cr>\n",
          CMD_SUCCESS, "sw1# "}},
        {'D', "zzz", {"% There is no matched command.\n", CMD_ERR_NO_MATCH, "sw1# "}},
        {'C', "write ", {"file\nmemory\nterminal\n", CMD_SUCCESS, "sw1# "}},
        {'C', "conf", {"configure\n", CMD_SUCCESS, "sw1# "}},
        {'C', "zzz", {"", CMD_ERR_NO_MATCH, "sw1# "}},
        {'X', "conf t", {"", CMD_SUCCESS, "sw1(config)# "}},
        {'D',
         "exi",
         {"  exit  Exit current mode and down to previous mode\n", CMD_SUCCESS, "sw1(config)# "}},
        {'X', "show running-config", {"!\nend\n", CMD_SUCCESS, "sw1(config)# "}},
        {'X', "end", kEnablePrompt},
        {'Z', "list", {"% Unknown request.\n", CMD_WARNING, "sw1# "}},
        {'x', "list", {"% Unknown request.\n", CMD_WARNING, "sw1# "}},
        {'X', "nul-output", {"ab\n", CMD_SUCCESS, "sw1# "}},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(std::string(1, k.kind) + k.line);
        EXPECT_EQ(c.ask(k.kind, k.line), k.reply);
    }
    EXPECT_TRUE(c.quiet());
    EXPECT_EQ(vty_session_count(), 1u);
}

TEST_F(Server, EmptyFrameIsAnUnknownRequest) {
    Client c(m, path);
    ASSERT_TRUE(c.send_all("\0"s));
    EXPECT_EQ(c.reply(), (Reply{"% Unknown request.\n", CMD_WARNING, "sw1# "}));
    EXPECT_EQ(c.ask('P', ""), kEnablePrompt);
}

TEST_F(Server, PipelinedRequestsAnsweredInOrder) {
    Client c(m, path);
    ASSERT_TRUE(c.send_all(request('X', "conf t") + request('P', "") + request('X', "exit") +
                           request('P', "")));
    EXPECT_EQ(c.reply(), (Reply{"", CMD_SUCCESS, "sw1(config)# "}));
    EXPECT_EQ(c.reply(), (Reply{"", CMD_SUCCESS, "sw1(config)# "}));
    EXPECT_EQ(c.reply(), kEnablePrompt);
    EXPECT_EQ(c.reply(), kEnablePrompt);
}

TEST_F(Server, RequestSplitAcrossManyWrites) {
    Client c(m, path);
    std::string req = request('X', "configure terminal");
    for (char ch : req) {
        ASSERT_TRUE(c.send_all(std::string_view(&ch, 1)));
        settle(5);
    }
    EXPECT_EQ(c.reply(), (Reply{"", CMD_SUCCESS, "sw1(config)# "}));
}

TEST_F(Server, SessionsHaveIndependentNodes) {
    Client a(m, path);
    Client b(m, path);
    settle();
    EXPECT_EQ(vty_session_count(), 2u);
    EXPECT_EQ(a.ask('X', "configure terminal"), (Reply{"", CMD_SUCCESS, "sw1(config)# "}));
    EXPECT_EQ(b.ask('P', ""), kEnablePrompt);
    EXPECT_EQ(b.ask('X', "exit"), kEnablePrompt);
    EXPECT_TRUE(b.wait_eof());
    settle();
    EXPECT_EQ(vty_session_count(), 1u);
    EXPECT_EQ(a.ask('P', ""), (Reply{"", CMD_SUCCESS, "sw1(config)# "}));
    EXPECT_EQ(a.ask('X', "exit"), kEnablePrompt);
    EXPECT_EQ(a.ask('X', "quit"), kEnablePrompt);
    EXPECT_TRUE(a.wait_eof());
    settle();
    EXPECT_EQ(vty_session_count(), 0u);
}

const Reply kTooLong{"% Line too long, refused (more than 4096 bytes).\n", CMD_WARNING, "sw1# "};

TEST_F(Server, LineLengthLimit) {
    Client c(m, path);
    const std::string at_limit(VTY_MAXLINE, 'a');
    EXPECT_EQ(c.ask('X', at_limit), (Reply{"% Unknown command.\n", CMD_ERR_NO_MATCH, "sw1# "}));
    EXPECT_EQ(c.ask('X', at_limit + "a"), kTooLong);
    EXPECT_TRUE(c.quiet());
    EXPECT_EQ(c.ask('X', "conf t"), (Reply{"", CMD_SUCCESS, "sw1(config)# "}));
}

TEST_F(Server, MegabyteLineIsRefusedAndTheSessionSurvives) {
    Client c(m, path);
    Client other(m, path);
    EXPECT_TRUE(c.send_all("X" + std::string(1 << 20, 'a')));
    EXPECT_EQ(c.reply(), kTooLong);
    // The rest of the refused request, up to its NUL, is dropped silently.
    EXPECT_TRUE(c.send_all(std::string(1 << 16, 'b') + '\0'));
    EXPECT_TRUE(c.quiet());
    EXPECT_EQ(vty_session_count(), 2u);
    EXPECT_EQ(c.ask('X', "configure terminal"), (Reply{"", CMD_SUCCESS, "sw1(config)# "}));
    EXPECT_EQ(other.ask('P', ""), kEnablePrompt);
}

TEST_F(Server, MegabyteLineWithItsNulGetsOneReply) {
    Client c(m, path);
    EXPECT_TRUE(c.send_all(request('D', std::string(1 << 20, 'w'))));
    EXPECT_EQ(c.reply(), kTooLong);
    EXPECT_TRUE(c.quiet());
    EXPECT_EQ(c.ask('P', ""), kEnablePrompt);
}

TEST_F(Server, BinaryGarbage) {
    Client c(m, path);
    std::mt19937 rng(42);
    std::string garbage;
    std::size_t frames = 0;
    for (int i = 0; i < 200000; ++i) {
        auto v = rng() % 300;
        char ch = v < 4 ? '\0' : static_cast<char>(0x80 + v % 128);
        if (i % 50000 == 0) {
            ch = '\x01';  // control bytes too
        }
        frames += ch == '\0';
        garbage.push_back(ch);
    }
    garbage.push_back('\0');
    ++frames;
    ASSERT_TRUE(c.send_all(garbage));
    for (std::size_t i = 0; i < frames; ++i) {
        auto r = c.reply();
        ASSERT_TRUE(r.has_value()) << "reply " << i << " of " << frames;
        EXPECT_EQ(r->code, CMD_WARNING);
        EXPECT_EQ(r->prompt, "sw1# ");
    }
    EXPECT_TRUE(c.quiet());
    EXPECT_EQ(c.ask('X', "conf t"), (Reply{"", CMD_SUCCESS, "sw1(config)# "}));
}

TEST_F(Server, AbruptCloseMidFrame) {
    {
        Client c(m, path);
        ASSERT_TRUE(c.send_all("Xconfigure ter"));
        settle();
        EXPECT_EQ(vty_session_count(), 1u);
    }
    settle();
    EXPECT_EQ(vty_session_count(), 0u);
    Client next(m, path);
    EXPECT_EQ(next.ask('P', ""), kEnablePrompt);
}

TEST_F(Server, CloseWithRepliesUnread) {
    {
        Client c(m, path);
        big_output_size = 1 << 20;
        ASSERT_TRUE(c.send_all(request('X', "big-output")));
        settle();
    }
    settle();
    EXPECT_EQ(vty_session_count(), 0u);
}

TEST_F(Server, HalfCloseStillGetsEveryReply) {
    Client c(m, path);
    big_output_size = 2u << 20;
    ASSERT_TRUE(c.send_all(request('X', "show running-config") + request('X', "big-output")));
    c.shutdown_write();
    auto first = c.reply(60000);
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(first->code, CMD_SUCCESS);
    auto r = c.reply(60000);
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->text.size(), big_output_size);
    EXPECT_EQ(r->prompt, "sw1# ");
    EXPECT_TRUE(c.wait_eof());
    settle();
    EXPECT_EQ(vty_session_count(), 0u);
}

TEST_F(Server, LargeOutputReachesASlowReader) {
    Client c(m, path);
    big_output_size = 8u << 20;
    ASSERT_TRUE(c.send_all(request('X', "big-output")));
    settle();
    auto r = c.reply(60000);
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->text.size(), big_output_size);
    EXPECT_EQ(r->text.find_first_not_of('o'), std::string::npos);
    EXPECT_EQ(r->prompt, "sw1# ");
    EXPECT_EQ(c.ask('P', ""), kEnablePrompt);
}

TEST_F(Server, OutputPastTheCapDropsOnlyThatSession) {
    Client c(m, path);
    Client other(m, path);
    big_output_size = 17u << 20;
    ASSERT_TRUE(c.send_all(request('X', "big-output")));
    EXPECT_TRUE(c.wait_eof());
    settle();
    EXPECT_EQ(vty_session_count(), 1u);
    EXPECT_EQ(other.ask('P', ""), kEnablePrompt);
}

TEST_F(Server, TerminateClosesEverything) {
    Client a(m, path);
    Client b(m, path);
    settle();
    EXPECT_EQ(vty_session_count(), 2u);
    vty_terminate();
    EXPECT_EQ(vty_session_count(), 0u);
    EXPECT_TRUE(a.wait_eof());
    EXPECT_TRUE(b.wait_eof());
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    EXPECT_EQ(thread_count(m), 0u);
}

TEST_F(Server, StaleSocketIsReplaced) {
    vty_terminate();
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::strncpy(sa.sun_path, path.c_str(), sizeof sa.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
    ::close(fd);
    vty_init(m);
    ASSERT_EQ(vty_serv_sock(nullptr, 0, path.c_str()), 0);
    Client c(m, path);
    EXPECT_EQ(c.ask('P', ""), kEnablePrompt);
}

TEST_F(Server, BadSocketPaths) {
    EXPECT_EQ(vty_serv_sock(nullptr, 0, (dir + "/no/such/dir/sock").c_str()), -1);
    EXPECT_EQ(vty_serv_sock(nullptr, 0, ("/tmp/" + std::string(200, 's')).c_str()), -1);
    EXPECT_EQ(vty_serv_sock(nullptr, 0, ""), -1);
    EXPECT_EQ(vty_serv_sock(nullptr, 0, nullptr), -1);
    // The working socket is untouched.
    Client c(m, path);
    EXPECT_EQ(c.ask('P', ""), kEnablePrompt);
}

}  // namespace
