// dhcpsh against a fake daemon: framing, the client connection, the command
// line and what each mode sends, prints and returns.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tools/dhcpsh/cmdline.h"
#include "tools/dhcpsh/shell.h"
#include "tools/dhcpsh/vtyclient.h"
#include "tests/unit/scratch_dir.h"

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using dhcpsh::DecodeResult;
using dhcpsh::Mode;
using dhcpsh::Options;
using dhcpsh::Reply;
using dhcpsh::ReplyDecoder;
using dhcpsh::RequestKind;
using dhcpsh::Session;
using dhcpsh::unique_fd;
using dhcpsh::VtyClient;
using dhcpsh::VtyError;

// Built by hand so the decoder is checked against bytes, not against itself.
std::string frame(std::string_view text, unsigned char code, std::string_view prompt) {
    std::string bytes(text);
    bytes.push_back('\0');
    bytes.push_back(static_cast<char>(code));
    bytes.append(prompt);
    bytes.push_back('\0');
    return bytes;
}

bool write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

// Reads one request (kind, line, NUL) from the peer; empty on EOF.
std::string read_request(int fd) {
    std::string bytes;
    char c = 0;
    while (::read(fd, &c, 1) == 1) {
        bytes.push_back(c);
        if (c == '\0' && bytes.size() > 1) {
            break;
        }
    }
    return bytes;
}

struct TempDir : test_dirs::ScratchDir {
    TempDir() : ScratchDir("dhcpsh-") {}
};

struct Request {
    char kind;
    std::string line;
    bool operator==(const Request &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Request &r) {
    return os << r.kind << '"' << r.line << '"';
}

// What the fake daemon sends back: raw bytes, so tests can send anything.
struct Answer {
    std::string bytes;
    bool hang_up = false;
    std::chrono::milliseconds hang_up_after{0};
};
using Script = std::function<Answer(const Request &)>;

// A daemon on a temporary UNIX socket, served by a thread: one connection at a
// time, every request recorded.
class FakeDaemon {
  public:
    explicit FakeDaemon(Script script) : script_(std::move(script)), path_(dir_.file("vty")) {
        listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
        const bool bound = ::bind(listener_.get(), reinterpret_cast<const sockaddr *>(&addr),
                                  static_cast<socklen_t>(sizeof addr)) == 0 &&
                           ::listen(listener_.get(), 4) == 0;
        int fds[2] = {-1, -1};
        const bool piped = ::pipe2(fds, O_CLOEXEC) == 0;
        stop_read_.reset(fds[0]);
        stop_write_.reset(fds[1]);
        ready_ = bound && piped;
        if (ready_) {
            thread_ = std::thread([this] { serve(); });
        }
    }
    ~FakeDaemon() {
        if (thread_.joinable()) {
            const char byte = 'q';
            [[maybe_unused]] const ssize_t n = ::write(stop_write_.get(), &byte, 1);
            thread_.join();
        }
    }
    FakeDaemon(const FakeDaemon &) = delete;
    FakeDaemon &operator=(const FakeDaemon &) = delete;

    bool ready() const { return ready_; }
    const std::string &path() const { return path_; }
    dhcpsh::Settings settings() const {
        dhcpsh::Settings s;
        s.socket_path = path_;
        s.boot_file = dir_.file("dhcpd.conf");
        return s;
    }
    const TempDir &dir() const { return dir_; }
    std::vector<Request> requests() const {
        const std::lock_guard lock(mu_);
        return requests_;
    }
    std::vector<std::string> executed() const {
        std::vector<std::string> lines;
        for (const Request &r : requests()) {
            if (r.kind == 'X') {
                lines.push_back(r.line);
            }
        }
        return lines;
    }
    int connections() const { return connections_; }

  private:
    // Waits for `fd` or the stop pipe; false when asked to stop.
    bool wait_for(int fd) {
        pollfd pfds[2] = {{fd, POLLIN, 0}, {stop_read_.get(), POLLIN, 0}};
        while (::poll(pfds, 2, -1) < 0) {
            if (errno != EINTR) {
                return false;
            }
        }
        return (pfds[1].revents & POLLIN) == 0;
    }

    void serve() {
        while (wait_for(listener_.get())) {
            unique_fd conn(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!conn) {
                continue;
            }
            ++connections_;
            if (!serve_connection(conn.get())) {
                return;
            }
        }
    }

    bool serve_connection(int fd) {
        std::string pending;
        char buf[4096];
        for (;;) {
            if (!wait_for(fd)) {
                return false;
            }
            const ssize_t n = ::read(fd, buf, sizeof buf);
            if (n <= 0) {
                return true;
            }
            pending.append(buf, static_cast<std::size_t>(n));
            for (std::size_t nul; (nul = pending.find('\0')) != std::string::npos;) {
                Request req{pending.empty() ? '\0' : pending[0],
                            nul > 0 ? pending.substr(1, nul - 1) : std::string()};
                pending.erase(0, nul + 1);
                {
                    const std::lock_guard lock(mu_);
                    requests_.push_back(req);
                }
                const Answer answer = script_(req);
                write_all(fd, answer.bytes);
                if (answer.hang_up) {
                    std::this_thread::sleep_for(answer.hang_up_after);
                    return true;
                }
            }
        }
    }

    Script script_;
    TempDir dir_;
    std::string path_;
    unique_fd listener_;
    unique_fd stop_read_;
    unique_fd stop_write_;
    bool ready_ = false;
    std::atomic<int> connections_{0};
    mutable std::mutex mu_;
    std::vector<Request> requests_;
    std::thread thread_;
};

struct Canned {
    unsigned char code;
    std::string text;
};

// A small CLI: the privileged and configuration nodes, "configure terminal",
// "end" and "exit" (which hangs up in the privileged node); lines in `canned`
// get their answer, any other line succeeds silently.
Script fake_cli(std::map<std::string, Canned> canned = {},
                std::chrono::milliseconds hang_up_after = 0ms) {
    auto config = std::make_shared<bool>(false);
    return [canned = std::move(canned), config, hang_up_after](const Request &req) {
        auto prompt = [&] { return *config ? "sw1(config)# "s : "sw1# "s; };
        switch (req.kind) {
            case 'P':
                return Answer{frame("", 0, prompt())};
            case 'D':
                return Answer{
                    frame("  show  Show running system information\n"
                          "  sync  Synchronise\n",
                          0, prompt())};
            case 'C':
                return Answer{frame("show\nA.B.C.D\nshutdown\n", 0, prompt())};
            default:
                break;
        }
        const std::string line(dhcpsh::trim(req.line));
        if (auto it = canned.find(line); it != canned.end()) {
            return Answer{frame(it->second.text, it->second.code, prompt())};
        }
        if (line == "configure terminal") {
            *config = true;
        } else if (line == "end") {
            *config = false;
        } else if (line == "exit") {
            if (!*config) {
                return Answer{frame("", 0, prompt()), true, hang_up_after};
            }
            *config = false;
        }
        return Answer{frame("", 0, prompt())};
    };
}

std::pair<unique_fd, unique_fd> socket_pair() {
    int fds[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    return {unique_fd(fds[0]), unique_fd(fds[1])};
}

// ---------------------------------------------------------------- framing

struct EncodeCase {
    RequestKind kind;
    std::string line;
    std::optional<std::string> bytes;
};

TEST(DhcpshFrame, EncodeRequests) {
    const std::string longest(VTY_MAXLINE, 'a');
    const EncodeCase cases[] = {
        {RequestKind::execute, "show ip dhcp binding", "Xshow ip dhcp binding\0"s},
        {RequestKind::describe, "show ", "Dshow \0"s},
        {RequestKind::complete, "conf", "Cconf\0"s},
        {RequestKind::prompt, "", "P\0"s},
        {RequestKind::execute, "", "X\0"s},
        {RequestKind::execute, "  ip address 10.0.0.1/24", "X  ip address 10.0.0.1/24\0"s},
        {RequestKind::execute, longest, "X" + longest + "\0"s},
        {RequestKind::execute, longest + "a", std::nullopt},
        {RequestKind::execute, "show\0version"s, std::nullopt},
    };
    for (const EncodeCase &c : cases) {
        SCOPED_TRACE(c.line.substr(0, 40));
        EXPECT_EQ(dhcpsh::encode_request(c.kind, c.line), c.bytes);
    }
}

struct DecodeCase {
    const char *name;
    std::string bytes;
    ReplyDecoder::Status status;
    Reply reply;
    std::string error;  // part of the message
};

TEST(DhcpshFrame, DecodeReplies) {
    using S = ReplyDecoder::Status;
    const DecodeCase cases[] = {
        {"output", "Pool lan\n\0\0sw1# \0"s, S::complete, {"Pool lan\n", 0, "sw1# "}, ""},
        {"no output", "\0\0sw1(config)# \0"s, S::complete, {"", 0, "sw1(config)# "}, ""},
        {"warning", "% Invalid\n\0\1sw1# \0"s, S::complete, {"% Invalid\n", 1, "sw1# "}, ""},
        {"limit", "\0\x0dsw1# \0"s, S::complete, {"", 13, "sw1# "}, ""},
        {"empty prompt", "x\0\0\0"s, S::complete, {"x", 0, ""}, ""},
        {"tabs and utf-8",
         "a\tb \xc3\xa9\n\0\0h# \0"s,
         S::complete,
         {"a\tb \xc3\xa9\n", 0, "h# "},
         ""},
        {"nothing", "", S::incomplete, {}, ""},
        {"text only", "some text", S::incomplete, {}, ""},
        {"no code", "text\0"s, S::incomplete, {}, ""},
        {"no prompt end", "text\0\0sw1"s, S::incomplete, {}, ""},
        {"trailing bytes", "a\0\0p\0junk"s, S::malformed, {}, "after the reply"},
        {"second reply", "a\0\0p\0b\0\0p\0"s, S::malformed, {}, "after the reply"},
        {"printable code", "a\0Ap\0"s, S::malformed, {}, "result code"},
        {"escape in prompt", "a\0\0\x1b[2Jp\0"s, S::malformed, {}, "control character"},
        {"newline in prompt", "a\0\0sw1\n# \0"s, S::malformed, {}, "control character"},
        {"huge prompt", "a\0\0"s + std::string(2000, 'p'), S::malformed, {}, "prompt longer"},
    };
    for (const DecodeCase &c : cases) {
        SCOPED_TRACE(c.name);
        const DecodeResult whole = dhcpsh::decode_reply(c.bytes);
        EXPECT_EQ(whole.status, c.status);
        if (c.status == S::complete) {
            EXPECT_EQ(whole.reply, c.reply);
        }
        EXPECT_NE(whole.error.find(c.error), std::string::npos) << whole.error;

        // Byte by byte must end the same way.
        ReplyDecoder decoder;
        S status = S::incomplete;
        for (const char byte : c.bytes) {
            status = decoder.feed(std::string_view(&byte, 1));
            if (status == S::malformed) {
                break;
            }
        }
        EXPECT_EQ(status, c.status);
        if (status == S::complete) {
            EXPECT_EQ(decoder.take(), c.reply);
        }
    }
}

TEST(DhcpshFrame, TextLimit) {
    const std::size_t limit = 1000;
    EXPECT_EQ(dhcpsh::decode_reply(frame(std::string(limit, 'x'), 0, "h# "), limit).status,
              ReplyDecoder::Status::complete);
    const DecodeResult over =
        dhcpsh::decode_reply(frame(std::string(limit + 1, 'x'), 0, "h# "), limit);
    EXPECT_EQ(over.status, ReplyDecoder::Status::malformed);
    EXPECT_NE(over.error.find("larger than 1000 bytes"), std::string::npos) << over.error;
    // Refused before the NUL shows up, not after buffering everything.
    EXPECT_EQ(dhcpsh::decode_reply(std::string(limit + 1, 'x'), limit).status,
              ReplyDecoder::Status::malformed);
    EXPECT_EQ(dhcpsh::kMaxReplyText, std::size_t{64} * 1024 * 1024);
}

TEST(DhcpshFrame, DecoderIsReusedAfterTake) {
    ReplyDecoder decoder;
    ASSERT_EQ(decoder.feed(frame("one\n", 0, "a# ")), ReplyDecoder::Status::complete);
    EXPECT_EQ(decoder.take(), (Reply{"one\n", 0, "a# "}));
    EXPECT_TRUE(decoder.empty());
    ASSERT_EQ(decoder.feed(frame("two\n", 2, "b# ")), ReplyDecoder::Status::complete);
    EXPECT_EQ(decoder.take(), (Reply{"two\n", 2, "b# "}));
}

// ---------------------------------------------------------------- client

TEST(DhcpshClient, RequestAndReplyInPieces) {
    auto [ours, theirs] = socket_pair();
    VtyClient client(std::move(ours));
    std::string seen;
    std::thread peer([&, fd = theirs.get()] {
        seen = read_request(fd);
        // Dribble the reply out so the client has to put it together.
        for (const char byte : frame("line 1\nline 2\n", 0, "sw1# ")) {
            write_all(fd, std::string_view(&byte, 1));
            std::this_thread::sleep_for(1ms);
        }
    });
    auto reply = client.request(RequestKind::execute, "show pools");
    peer.join();
    ASSERT_TRUE(reply) << reply.error().message;
    EXPECT_EQ(*reply, (Reply{"line 1\nline 2\n", 0, "sw1# "}));
    EXPECT_EQ(seen, "Xshow pools\0"s);
}

TEST(DhcpshClient, LargeReply) {
    auto [ours, theirs] = socket_pair();
    VtyClient client(std::move(ours));
    std::string table;
    for (int i = 0; table.size() < (std::size_t{5} << 20); ++i) {
        table += "10.0.0." + std::to_string(i % 250) + "  00:11:22:33:44:55  lan  86400\n";
    }
    std::thread peer([&, fd = theirs.get()] {
        read_request(fd);
        write_all(fd, frame(table, 0, "sw1# "));
    });
    auto reply = client.request(RequestKind::execute, "show ip dhcp binding");
    peer.join();
    ASSERT_TRUE(reply) << reply.error().message;
    EXPECT_EQ(reply->text, table);
}

struct BrokenReplyCase {
    const char *name;
    std::string bytes;  // sent before the peer hangs up
    VtyError::Kind kind;
    std::string message;
};

TEST(DhcpshClient, BrokenReplies) {
    const BrokenReplyCase cases[] = {
        {"hang-up before replying", "", VtyError::Kind::closed, "closed the connection"},
        {"hang-up in the text", "partial output", VtyError::Kind::protocol, "middle of a reply"},
        {"hang-up before the code", "text\0"s, VtyError::Kind::protocol, "middle of a reply"},
        {"hang-up in the prompt", "text\0\0sw1"s, VtyError::Kind::protocol, "middle of a reply"},
        {"trailing garbage", "text\0\0sw1# \0garbage"s, VtyError::Kind::protocol,
         "after the reply"},
        {"not a result code", "text\0Zsw1# \0"s, VtyError::Kind::protocol, "result code"},
        {"too big", std::string(3000, 'x'), VtyError::Kind::protocol, "larger than"},
    };
    for (const BrokenReplyCase &c : cases) {
        SCOPED_TRACE(c.name);
        auto [ours, theirs] = socket_pair();
        VtyClient client(std::move(ours), 2000);
        std::thread peer([&, fd = std::move(theirs)]() mutable {
            read_request(fd.get());
            write_all(fd.get(), c.bytes);
            fd.reset();
        });
        auto reply = client.request(RequestKind::execute, "show");
        peer.join();
        ASSERT_FALSE(reply);
        EXPECT_EQ(reply.error().kind, c.kind);
        EXPECT_NE(reply.error().message.find(c.message), std::string::npos)
            << reply.error().message;
        // A broken connection is dropped, never reused out of step.
        EXPECT_FALSE(client.connected());
        EXPECT_FALSE(client.request(RequestKind::execute, "show"));
    }
}

TEST(DhcpshClient, UnsendableLineKeepsTheConnection) {
    auto [ours, theirs] = socket_pair();
    VtyClient client(std::move(ours));
    auto too_long = client.request(RequestKind::execute, std::string(VTY_MAXLINE + 1, 'a'));
    ASSERT_FALSE(too_long);
    EXPECT_EQ(too_long.error().kind, VtyError::Kind::bad_request);
    EXPECT_EQ(too_long.error().message, "line longer than 4096 bytes");
    auto with_nul = client.request(RequestKind::execute, "a\0b"s);
    ASSERT_FALSE(with_nul);
    EXPECT_EQ(with_nul.error().kind, VtyError::Kind::bad_request);
    EXPECT_TRUE(client.connected());

    std::thread peer([fd = theirs.get()] {
        read_request(fd);
        write_all(fd, frame("ok\n", 0, "sw1# "));
    });
    auto reply = client.request(RequestKind::execute, "show");
    peer.join();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->text, "ok\n");
}

TEST(DhcpshClient, SendToClosedPeer) {
    auto [ours, theirs] = socket_pair();
    VtyClient client(std::move(ours));
    theirs.reset();
    auto reply = client.request(RequestKind::execute, "show");
    ASSERT_FALSE(reply);
    EXPECT_EQ(reply.error().kind, VtyError::Kind::closed);
}

void ignore_signal(int) {}

TEST(DhcpshClient, SignalsWhileWaitingAreRetried) {
    struct sigaction sa {};
    struct sigaction old {};
    sa.sa_handler = ignore_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: recv really sees EINTR
    ASSERT_EQ(::sigaction(SIGUSR1, &sa, &old), 0);

    auto [ours, theirs] = socket_pair();
    VtyClient client(std::move(ours));
    const pthread_t waiter = ::pthread_self();
    std::thread peer([fd = theirs.get(), waiter] {
        read_request(fd);
        for (int i = 0; i < 5; ++i) {
            std::this_thread::sleep_for(10ms);
            ::pthread_kill(waiter, SIGUSR1);
        }
        write_all(fd, frame("fine\n", 0, "sw1# "));
    });
    auto reply = client.request(RequestKind::execute, "show");
    peer.join();
    ::sigaction(SIGUSR1, &old, nullptr);
    ASSERT_TRUE(reply) << reply.error().message;
    EXPECT_EQ(reply->text, "fine\n");
}

TEST(DhcpshClient, WaitClosed) {
    {
        auto [ours, theirs] = socket_pair();
        VtyClient client(std::move(ours));
        EXPECT_FALSE(client.wait_closed(20ms));
        EXPECT_TRUE(client.connected());
    }
    {
        auto [ours, theirs] = socket_pair();
        VtyClient client(std::move(ours));
        theirs.reset();
        EXPECT_TRUE(client.wait_closed(1000ms));
        EXPECT_FALSE(client.connected());
    }
}

TEST(DhcpshClient, ConnectFailures) {
    TempDir dir;
    auto missing = VtyClient::connect(dir.file("nothing.vty"));
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error(), ENOENT);

    auto too_long = VtyClient::connect("/tmp/" + std::string(200, 'x'));
    ASSERT_FALSE(too_long);
    EXPECT_EQ(too_long.error(), ENAMETOOLONG);

    // A socket file with nobody listening.
    const std::string stale = dir.file("stale.vty");
    {
        unique_fd fd(::socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::memcpy(addr.sun_path, stale.c_str(), stale.size() + 1);
        ASSERT_EQ(::bind(fd.get(), reinterpret_cast<const sockaddr *>(&addr),
                         static_cast<socklen_t>(sizeof addr)),
                  0);
    }
    auto refused = VtyClient::connect(stale);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error(), ECONNREFUSED);
}

// ---------------------------------------------------------------- command line

struct ArgsCase {
    std::vector<std::string_view> args;
    std::optional<Options> options;  // nullopt: a usage error
    std::string error;
};

TEST(DhcpshArgs, Parse) {
    const ArgsCase cases[] = {
        {{}, Options{Mode::interactive, {}, {}}, ""},
        {{"-c", "show version"}, Options{Mode::commands, {"show version"}, {}}, ""},
        {{"-c", "a", "-c", "b", "-c", "c"}, Options{Mode::commands, {"a", "b", "c"}, {}}, ""},
        {{"-cshow pools"}, Options{Mode::commands, {"show pools"}, {}}, ""},
        {{"-c", ""}, Options{Mode::commands, {""}, {}}, ""},
        {{"-c", "-f"}, Options{Mode::commands, {"-f"}, {}}, ""},
        {{"-f", "a.conf"}, Options{Mode::file, {}, "a.conf"}, ""},
        {{"-f/mnt/x.conf"}, Options{Mode::file, {}, "/mnt/x.conf"}, ""},
        {{"-b"}, Options{Mode::boot, {}, {}}, ""},
        {{"-b", "-b"}, Options{Mode::boot, {}, {}}, ""},
        {{"-h"}, Options{Mode::help, {}, {}}, ""},
        {{"--help"}, Options{Mode::help, {}, {}}, ""},
        {{"-c", "x", "--help"}, Options{Mode::help, {}, {}}, ""},
        {{"-c"}, std::nullopt, "option -c needs a command"},
        {{"-f"}, std::nullopt, "option -f needs a file name"},
        {{"-f", ""}, std::nullopt, "option -f needs a file name"},
        {{"-f", "a", "-f", "b"}, std::nullopt, "option -f given twice"},
        {{"-c", "x", "-f", "y"}, std::nullopt, "-c, -f, -b and -j cannot be combined"},
        {{"-b", "-c", "x"}, std::nullopt, "-c, -f, -b and -j cannot be combined"},
        {{"-f", "a", "-b"}, std::nullopt, "-c, -f, -b and -j cannot be combined"},
        {{"-x"}, std::nullopt, "unknown option -x"},
        {{"--verbose"}, std::nullopt, "unknown option --verbose"},
        {{"-bh"}, std::nullopt, "unknown option -bh"},
        {{"show"}, std::nullopt, "unexpected argument show"},
        {{"-b", "extra"}, std::nullopt, "unexpected argument extra"},
        {{"-"}, std::nullopt, "unexpected argument -"},
    };
    for (const ArgsCase &c : cases) {
        std::string joined;
        for (const auto a : c.args) {
            joined += "[" + std::string(a) + "]";
        }
        SCOPED_TRACE(joined);
        const auto parsed = dhcpsh::parse_args(c.args);
        if (c.options) {
            ASSERT_TRUE(parsed) << parsed.error();
            EXPECT_EQ(*parsed, *c.options);
        } else {
            ASSERT_FALSE(parsed);
            EXPECT_EQ(parsed.error(), c.error);
        }
    }
}

TEST(DhcpshArgs, FromArgv) {
    const char *argv[] = {"dhcpsh", "-c", "show version", "-c", "show pools", nullptr};
    const auto parsed = dhcpsh::parse_args(5, argv);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(*parsed, (Options{Mode::commands, {"show version", "show pools"}, {}}));
}

TEST(DhcpshArgs, UsageAndHelp) {
    EXPECT_EQ(dhcpsh::usage_error("unknown option -x"),
              "dhcpsh: unknown option -x\n" + std::string(dhcpsh::usage_line()) + "\n");
    std::istringstream in;
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(dhcpsh::run(Options{Mode::help, {}, {}}, {}, in, out, err), dhcpsh::kExitOk);
    EXPECT_EQ(out.str().rfind(dhcpsh::usage_line(), 0), 0u);
    EXPECT_NE(out.str().find("/mnt/dhcpd.conf"), std::string::npos);
    EXPECT_EQ(err.str(), "");
}

TEST(DhcpshArgs, SocketFromEnvironment) {
    EXPECT_EQ(dhcpsh::settings_from_env(nullptr).socket_path, "/var/run/dhcp.vty");
    EXPECT_EQ(dhcpsh::settings_from_env("").socket_path, "/var/run/dhcp.vty");
    EXPECT_EQ(dhcpsh::settings_from_env("/tmp/t.vty").socket_path, "/tmp/t.vty");
    EXPECT_EQ(dhcpsh::settings_from_env(nullptr).boot_file, "/mnt/dhcpd.conf");
}

// ---------------------------------------------------------------- helpers

TEST(DhcpshHelpers, Words) {
    EXPECT_EQ(dhcpsh::trim("  a b \t\r\n"), "a b");
    EXPECT_EQ(dhcpsh::trim(" \n "), "");

    const std::pair<const char *, bool> exits[] = {
        {"exit", true}, {"  exit  ", true},   {"ex", true},     {"e", true},
        {"quit", true}, {"q", true},          {"exits", false}, {"end", false},
        {"", false},    {"show exit", false}, {"quitx", false},
    };
    for (const auto &[line, expected] : exits) {
        EXPECT_EQ(dhcpsh::may_end_session(line), expected) << line;
    }

    const std::pair<const char *, bool> words[] = {
        {"show", false},
        {"802.1x", false},
        {"100", false},
        {"Ethernet1/0/1", false},
        {"A.B.C.D", true},
        {"A.B.C.D/M", true},
        {"<1-65535>", true},
        {"IFNAME", true},
        {".DNSLIST", true},
        {"(a|b)", true},
        {"MM-MM-MM-MM-MM-MM", true},
        {"", true},
    };
    for (const auto &[word, expected] : words) {
        EXPECT_EQ(dhcpsh::is_placeholder(word), expected) << word;
    }

    EXPECT_EQ(dhcpsh::split_lines("show\r\n\nshutdown\nsync"),
              (std::vector<std::string>{"show", "shutdown", "sync"}));
    EXPECT_TRUE(dhcpsh::split_lines("").empty());

    std::ostringstream out;
    dhcpsh::print_output(out, "");
    dhcpsh::print_output(out, "a\n");
    dhcpsh::print_output(out, "b");
    EXPECT_EQ(out.str(), "a\nb\n");
}

// ---------------------------------------------------------------- -c

struct CommandsCase {
    const char *name;
    std::vector<std::string> commands;
    int status;
    std::vector<std::string> sent;
    std::string out;
};

TEST(DhcpshCommands, StopAtFirstFailure) {
    const std::map<std::string, Canned> canned = {
        {"show a", {0, "A\n"}},
        {"show b", {0, "B"}},
        {"bogus", {2, "% Unknown command.\n"}},
        {"sh", {3, "% Ambiguous command.\n"}},
        {"show ip", {4, "% Command incomplete.\n"}},
        {"warn", {1, "% Pool lan has no range\n"}},
        {"no pool x", {6, "% No such pool\n"}},
        {"pool p9", {13, "% Too many pools\n"}},
    };
    const CommandsCase cases[] = {
        {"all fine", {"show a", "show b"}, 0, {"show a", "show b"}, "A\nB\n"},
        {"one", {"show a"}, 0, {"show a"}, "A\n"},
        {"silent", {"configure terminal", "end"}, 0, {"configure terminal", "end"}, ""},
        {"no match",
         {"show a", "bogus", "show b"},
         1,
         {"show a", "bogus"},
         "A\n% Unknown command.\n"},
        {"first fails", {"bogus", "show a"}, 1, {"bogus"}, "% Unknown command.\n"},
        {"ambiguous", {"sh"}, 1, {"sh"}, "% Ambiguous command.\n"},
        {"incomplete", {"show ip"}, 1, {"show ip"}, "% Command incomplete.\n"},
        {"warning", {"warn", "show a"}, 1, {"warn"}, "% Pool lan has no range\n"},
        {"nothing to do", {"no pool x"}, 1, {"no pool x"}, "% No such pool\n"},
        {"limit",
         {"show a", "pool p9", "show b"},
         1,
         {"show a", "pool p9"},
         "A\n% Too many pools\n"},
        {"exit last", {"show a", "exit"}, 0, {"show a", "exit"}, "A\n"},
    };
    for (const CommandsCase &c : cases) {
        SCOPED_TRACE(c.name);
        FakeDaemon daemon(fake_cli(canned));
        ASSERT_TRUE(daemon.ready());
        std::istringstream in;
        std::ostringstream out;
        std::ostringstream err;
        const int status =
            dhcpsh::run(Options{Mode::commands, c.commands, {}}, daemon.settings(), in, out, err);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(out.str(), c.out);
        EXPECT_EQ(err.str(), "");
        EXPECT_EQ(daemon.executed(), c.sent);
        // Nothing but execute requests: no prompt round trip in this mode.
        EXPECT_EQ(daemon.requests().size(), c.sent.size());
    }
}

TEST(DhcpshCommands, DaemonGoneMidway) {
    FakeDaemon daemon(fake_cli());
    ASSERT_TRUE(daemon.ready());
    std::istringstream in;
    std::ostringstream out;
    std::ostringstream err;
    const int status = dhcpsh::run(Options{Mode::commands, {"exit", "show a"}, {}},
                                   daemon.settings(), in, out, err);
    EXPECT_EQ(status, dhcpsh::kExitTrouble);
    EXPECT_EQ(err.str(), "dhcpsh: dhcpd closed the connection\n");
}

TEST(DhcpshCommands, LineTooLong) {
    FakeDaemon daemon(fake_cli());
    ASSERT_TRUE(daemon.ready());
    std::istringstream in;
    std::ostringstream out;
    std::ostringstream err;
    const int status = dhcpsh::run(Options{Mode::commands, {std::string(5000, 'x'), "show a"}, {}},
                                   daemon.settings(), in, out, err);
    EXPECT_EQ(status, dhcpsh::kExitFailed);
    EXPECT_EQ(err.str(), "dhcpsh: line longer than 4096 bytes\n");
    EXPECT_TRUE(daemon.executed().empty());
}

// ---------------------------------------------------------------- cannot connect

TEST(DhcpshConnect, CannotConnect) {
    TempDir dir;
    dhcpsh::Settings settings;
    settings.socket_path = dir.file("dhcp.vty");
    settings.boot_file = dir.write("boot.conf", "hostname x\n");
    const std::string conf = dir.write("a.conf", "hostname x\n");
    const std::string expected =
        "dhcpsh: cannot connect to " + settings.socket_path + ": " + std::strerror(ENOENT) + "\n";
    const Options modes[] = {
        {Mode::commands, {"show version"}, {}},
        {Mode::file, {}, conf},
        {Mode::boot, {}, {}},
        {Mode::interactive, {}, {}},
    };
    for (const Options &opts : modes) {
        SCOPED_TRACE(static_cast<int>(opts.mode));
        std::istringstream in("show version\n");
        std::ostringstream out;
        std::ostringstream err;
        EXPECT_EQ(dhcpsh::run(opts, settings, in, out, err), dhcpsh::kExitTrouble);
        EXPECT_EQ(err.str(), expected);
        EXPECT_EQ(out.str(), "");
    }
}

TEST(DhcpshConnect, NobodyListening) {
    TempDir dir;
    dhcpsh::Settings settings;
    settings.socket_path = dir.write("dhcp.vty", "");  // a plain file, not a socket
    std::istringstream in;
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(dhcpsh::run(Options{Mode::commands, {"show"}, {}}, settings, in, out, err),
              dhcpsh::kExitTrouble);
    EXPECT_EQ(err.str(), "dhcpsh: cannot connect to " + settings.socket_path + ": " +
                             std::strerror(ECONNREFUSED) + "\n");
}

// ---------------------------------------------------------------- -f / -b

struct ReplayCase {
    const char *name;
    std::string contents;
    int status;
    std::vector<std::string> sent;  // between "configure terminal" and "end"
    std::string err;                // with FILE standing for the file's path
};

std::string replace_all(std::string text, std::string_view from, std::string_view to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
    return text;
}

TEST(DhcpshReplay, Lines) {
    const std::map<std::string, Canned> canned = {
        {"ip address 300.1.1.1/24", {1, "% Invalid address 300.1.1.1\n"}},
        {"bogus command", {2, "% Unknown command.\n\n"}},
        {"no ip dhcp pool x", {6, ""}},
        {"ip dhcp pool p99", {13, "  % Pool limit (64) reached  \n"}},
    };
    const ReplayCase cases[] = {
        {"running-config as written",
         "!\n"
         "hostname sw1\n"
         "!\n"
         "ip dhcp pool lan\n"
         " network 10.0.0.0/24\n"
         " default-router 10.0.0.1\n"
         "!\n"
         "interface vlan10\n"
         " ip dhcp relay server 10.9.9.9\n"
         "!\n"
         "end\n",
         0,
         {"hostname sw1", "ip dhcp pool lan", " network 10.0.0.0/24", " default-router 10.0.0.1",
          "interface vlan10", " ip dhcp relay server 10.9.9.9", "end"},
         ""},
        {"blanks and comments",
         "\n   \n\t\n# a comment\n  # indented comment\n  ! indented bang\n!\nhostname a\n",
         0,
         {"hostname a"},
         ""},
        {"crlf and no final newline",
         "hostname a\r\n ip dhcp pool b\r\nhostname c",
         0,
         {"hostname a", " ip dhcp pool b", "hostname c"},
         ""},
        {"trailing blanks sent as is", "hostname a  \n", 0, {"hostname a  "}, ""},
        {"empty file", "", 0, {}, ""},
        {"only comments", "!\n!\n", 0, {}, ""},
        {"failures reported, replay goes on",
         "hostname sw1\n"
         "interface vlan10\n"
         " ip address 300.1.1.1/24\n"
         "!\n"
         "bogus command\n"
         "hostname sw2\n",
         1,
         {"hostname sw1", "interface vlan10", " ip address 300.1.1.1/24", "bogus command",
          "hostname sw2"},
         "dhcpsh: FILE:3: ip address 300.1.1.1/24: % Invalid address 300.1.1.1\n"
         "dhcpsh: FILE:5: bogus command: % Unknown command.\n"},
        {"silent failure and limit",
         "no ip dhcp pool x\nip dhcp pool p99\n",
         1,
         {"no ip dhcp pool x", "ip dhcp pool p99"},
         "dhcpsh: FILE:1: no ip dhcp pool x: failed (result 6)\n"
         "dhcpsh: FILE:2: ip dhcp pool p99: % Pool limit (64) reached\n"},
        {"line too long",
         "hostname a\n" + std::string(4097, 'x') + "\nhostname b\n",
         1,
         {"hostname a", "hostname b"},
         "dhcpsh: FILE:2: " + std::string(4097, 'x') + ": line longer than 4096 bytes\n"},
    };
    for (const ReplayCase &c : cases) {
        SCOPED_TRACE(c.name);
        FakeDaemon daemon(fake_cli(canned));
        ASSERT_TRUE(daemon.ready());
        const std::string path = daemon.dir().write("test.conf", c.contents);
        std::istringstream in;
        std::ostringstream out;
        std::ostringstream err;
        const int status =
            dhcpsh::run(Options{Mode::file, {}, path}, daemon.settings(), in, out, err);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(err.str(), replace_all(c.err, "FILE", path));
        EXPECT_EQ(out.str(), "");

        std::vector<std::string> expected = {"configure terminal"};
        expected.insert(expected.end(), c.sent.begin(), c.sent.end());
        expected.emplace_back("end");
        EXPECT_EQ(daemon.executed(), expected);
        EXPECT_EQ(daemon.requests().size(), expected.size());
    }
}

TEST(DhcpshReplay, SuccessfulOutputIsPrinted) {
    FakeDaemon daemon(fake_cli({{"hostname a", {0, "% Host name changed\n"}}}));
    ASSERT_TRUE(daemon.ready());
    std::ostringstream out;
    std::ostringstream err;
    VtyClient client = std::move(VtyClient::connect(daemon.path())).value();
    EXPECT_EQ(dhcpsh::replay_config(client, "hostname a\n", "x.conf", out, err), dhcpsh::kExitOk);
    EXPECT_EQ(out.str(), "% Host name changed\n");
    EXPECT_EQ(err.str(), "");
}

TEST(DhcpshReplay, NoConfigurationNode) {
    FakeDaemon daemon(fake_cli({{"configure terminal", {2, "% Unknown command.\n"}}}));
    ASSERT_TRUE(daemon.ready());
    const std::string path = daemon.dir().write("test.conf", "hostname a\n");
    std::istringstream in;
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(dhcpsh::run(Options{Mode::file, {}, path}, daemon.settings(), in, out, err),
              dhcpsh::kExitFailed);
    EXPECT_EQ(err.str(), "dhcpsh: " + path + ": configure terminal: % Unknown command.\n");
    // Nothing replayed in the wrong node.
    EXPECT_EQ(daemon.executed(), std::vector<std::string>{"configure terminal"});
}

TEST(DhcpshReplay, DaemonGoneMidway) {
    FakeDaemon daemon([](const Request &req) {
        if (req.line == "hostname b") {
            return Answer{"", true};
        }
        return Answer{frame("", 0, "sw1(config)# ")};
    });
    ASSERT_TRUE(daemon.ready());
    const std::string path = daemon.dir().write("t.conf", "hostname a\nhostname b\nhostname c\n");
    std::istringstream in;
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(dhcpsh::run(Options{Mode::file, {}, path}, daemon.settings(), in, out, err),
              dhcpsh::kExitTrouble);
    EXPECT_EQ(err.str(), "dhcpsh: " + path + ":2: hostname b: dhcpd closed the connection\n");
    EXPECT_EQ(daemon.executed(),
              (std::vector<std::string>{"configure terminal", "hostname a", "hostname b"}));
}

TEST(DhcpshReplay, FileErrors) {
    FakeDaemon daemon(fake_cli());
    ASSERT_TRUE(daemon.ready());
    const std::string missing = daemon.dir().file("missing.conf");
    const std::string directory = daemon.dir().file("");
    const std::pair<std::string, int> cases[] = {{missing, ENOENT}, {directory, EISDIR}};
    for (const auto &[path, error] : cases) {
        SCOPED_TRACE(path);
        std::istringstream in;
        std::ostringstream out;
        std::ostringstream err;
        EXPECT_EQ(dhcpsh::run(Options{Mode::file, {}, path}, daemon.settings(), in, out, err),
                  dhcpsh::kExitTrouble);
        EXPECT_EQ(err.str(), "dhcpsh: cannot open " + path + ": " + std::strerror(error) + "\n");
    }
    // The file is looked at before the daemon is bothered.
    EXPECT_EQ(daemon.connections(), 0);
}

TEST(DhcpshReplay, BootFile) {
    {
        // No boot configuration yet: quietly nothing to do.
        FakeDaemon daemon(fake_cli());
        ASSERT_TRUE(daemon.ready());
        std::istringstream in;
        std::ostringstream out;
        std::ostringstream err;
        EXPECT_EQ(dhcpsh::run(Options{Mode::boot, {}, {}}, daemon.settings(), in, out, err),
                  dhcpsh::kExitOk);
        EXPECT_EQ(out.str(), "");
        EXPECT_EQ(err.str(), "");
        EXPECT_EQ(daemon.connections(), 0);
    }
    {
        FakeDaemon daemon(fake_cli({{"bogus", {2, "% Unknown command.\n"}}}));
        ASSERT_TRUE(daemon.ready());
        const dhcpsh::Settings settings = daemon.settings();
        daemon.dir().write("dhcpd.conf", "!\nhostname sw1\nbogus\nend\n");
        std::istringstream in;
        std::ostringstream out;
        std::ostringstream err;
        EXPECT_EQ(dhcpsh::run(Options{Mode::boot, {}, {}}, settings, in, out, err),
                  dhcpsh::kExitFailed);
        EXPECT_EQ(err.str(), "dhcpsh: " + settings.boot_file + ":3: bogus: % Unknown command.\n");
        EXPECT_EQ(daemon.executed(), (std::vector<std::string>{"configure terminal", "hostname sw1",
                                                               "bogus", "end", "end"}));
    }
}

// ---------------------------------------------------------------- piped interactive

struct ScriptCase {
    const char *name;
    std::string input;
    int status;
    std::vector<std::string> sent;
    std::string out;
    std::string err;
};

TEST(DhcpshScript, PipedLines) {
    const std::map<std::string, Canned> canned = {
        {"show a", {0, "A\n"}},
        {"bogus", {2, "% Unknown command.\n"}},
    };
    const ScriptCase cases[] = {
        {"outputs only",
         "show a\nbogus\nshow a\n",
         0,
         {"show a", "bogus", "show a"},
         "A\n% Unknown command.\nA\n",
         ""},
        {"blank lines are not sent", "\n  \nshow a\n", 0, {"show a"}, "A\n", ""},
        {"exit leaves the config node, then the session",
         "configure terminal\nexit\nshow a\nexit\nshow a\n",
         0,
         {"configure terminal", "exit", "show a", "exit"},
         "A\n",
         ""},
        {"eof", "show a", 0, {"show a"}, "A\n", ""},
        {"too long",
         std::string(4097, 'x') + "\nshow a\n",
         0,
         {"show a"},
         "A\n",
         "dhcpsh: line longer than 4096 bytes\n"},
    };
    for (const ScriptCase &c : cases) {
        SCOPED_TRACE(c.name);
        FakeDaemon daemon(fake_cli(canned));
        ASSERT_TRUE(daemon.ready());
        std::istringstream in(c.input);
        std::ostringstream out;
        std::ostringstream err;
        EXPECT_EQ(dhcpsh::run(Options{}, daemon.settings(), in, out, err), c.status);
        EXPECT_EQ(out.str(), c.out);
        EXPECT_EQ(err.str(), c.err);
        EXPECT_EQ(daemon.executed(), c.sent);
        // The session's prompt is asked for first.
        ASSERT_FALSE(daemon.requests().empty());
        EXPECT_EQ(daemon.requests().front(), (Request{'P', ""}));
    }
}

TEST(DhcpshScript, LateHangUpAfterExit) {
    // The daemon hangs up after we stopped waiting: the next line finds it gone.
    FakeDaemon daemon(fake_cli({}, 300ms));
    ASSERT_TRUE(daemon.ready());
    Session session(std::move(VtyClient::connect(daemon.path())).value());
    session.set_close_wait(10ms);
    std::istringstream in("exit\nshow a\n");
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(dhcpsh::run_script(session, in, out, err), dhcpsh::kExitOk);
    EXPECT_EQ(err.str(), "");
    EXPECT_EQ(session.state(), Session::Step::ended);
}

TEST(DhcpshScript, UnexpectedHangUp) {
    FakeDaemon daemon([](const Request &req) {
        if (req.kind == 'P') {
            return Answer{frame("", 0, "sw1# ")};
        }
        return Answer{"", true};
    });
    ASSERT_TRUE(daemon.ready());
    std::istringstream in("show a\nshow b\n");
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(dhcpsh::run(Options{}, daemon.settings(), in, out, err), dhcpsh::kExitTrouble);
    EXPECT_EQ(err.str(), "dhcpsh: dhcpd closed the connection\n");
    EXPECT_EQ(daemon.executed(), std::vector<std::string>{"show a"});
}

TEST(DhcpshScript, LeavingConfigNodeDoesNotWait) {
    FakeDaemon daemon(fake_cli());
    ASSERT_TRUE(daemon.ready());
    Session session(std::move(VtyClient::connect(daemon.path())).value());
    // A wait for the hang-up would outlast the test's own time limit: the
    // test ends only because there is none.
    session.set_close_wait(std::chrono::hours(24));
    std::ostringstream out;
    std::ostringstream err;
    ASSERT_EQ(session.start(err), Session::Step::more);
    EXPECT_EQ(session.prompt(), "sw1# ");
    ASSERT_EQ(session.execute("configure terminal", out, err), Session::Step::more);
    EXPECT_EQ(session.prompt(), "sw1(config)# ");
    EXPECT_EQ(session.execute("exit", out, err), Session::Step::more);
    EXPECT_EQ(session.prompt(), "sw1# ");
    EXPECT_EQ(session.execute("exit", out, err), Session::Step::ended);
}

TEST(DhcpshScript, DescribeAndComplete) {
    FakeDaemon daemon(fake_cli());
    ASSERT_TRUE(daemon.ready());
    Session session(std::move(VtyClient::connect(daemon.path())).value());
    std::ostringstream err;
    auto help = session.describe("s", err);
    ASSERT_TRUE(help);
    EXPECT_EQ(help->text, "  show  Show running system information\n  sync  Synchronise\n");
    auto words = session.complete("sh", err);
    ASSERT_TRUE(words);
    EXPECT_EQ(*words, (std::vector<std::string>{"show", "A.B.C.D", "shutdown"}));
    EXPECT_EQ(daemon.requests(), (std::vector<Request>{{'D', "s"}, {'C', "sh"}}));
    EXPECT_EQ(err.str(), "");
}

}  // namespace
