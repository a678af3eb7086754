// dhcpsh -j: the command line, the JSON client against a fake daemon (exact
// bytes both ways, exit status, messages) and against the real request server.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "lib/thread.h"
#include "platform/jserver.h"
#include "tools/dhcpsh/cmdline.h"
#include "tools/dhcpsh/jsonclient.h"
#include "tools/dhcpsh/shell.h"
#include "tests/unit/scratch_dir.h"

namespace {

using dhcpsh::Mode;
using dhcpsh::Options;
using dhcpsh::unique_fd;

struct TempDir : test_dirs::ScratchDir {
    TempDir() : ScratchDir("dhcpsh-json-") {}
};

// One connection's worth of a daemon: takes the request (to the client's
// shutdown, or only `read_limit` bytes), answers `reply` and closes.
class FakeJsonDaemon {
  public:
    explicit FakeJsonDaemon(std::string reply, std::size_t read_limit = SIZE_MAX)
        : reply_(std::move(reply)), read_limit_(read_limit), path_(dir_.file("dhcp.jsr")) {
        listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
        ready_ = ::bind(listener_.get(), reinterpret_cast<const sockaddr *>(&addr),
                        static_cast<socklen_t>(sizeof addr)) == 0 &&
                 ::listen(listener_.get(), 4) == 0;
        if (ready_) {
            thread_ = std::thread([this] { serve(); });
        }
    }
    ~FakeJsonDaemon() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    FakeJsonDaemon(const FakeJsonDaemon &) = delete;
    FakeJsonDaemon &operator=(const FakeJsonDaemon &) = delete;

    bool ready() const { return ready_; }
    const std::string &path() const { return path_; }
    // Valid once the client is done (the server thread has finished).
    const std::string &request() {
        thread_.join();
        return request_;
    }
    bool saw_shutdown() const { return saw_shutdown_; }

  private:
    void serve() {
        unique_fd conn(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!conn) {
            return;
        }
        char buf[4096];
        while (request_.size() < read_limit_) {
            const ssize_t n =
                ::read(conn.get(), buf, std::min(sizeof buf, read_limit_ - request_.size()));
            if (n <= 0) {
                saw_shutdown_ = n == 0;
                break;
            }
            request_.append(buf, static_cast<std::size_t>(n));
        }
        std::string_view rest = reply_;
        while (!rest.empty()) {
            const ssize_t n = ::send(conn.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
            if (n <= 0) {
                break;
            }
            rest.remove_prefix(static_cast<std::size_t>(n));
        }
    }

    std::string reply_;
    std::size_t read_limit_;
    TempDir dir_;
    std::string path_;
    unique_fd listener_;
    bool ready_ = false;
    std::string request_;
    std::atomic<bool> saw_shutdown_{false};
    std::thread thread_;
};

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

Outcome run_dash_j(const std::string &path, const std::string &request) {
    dhcpsh::Settings settings;
    settings.json_path = path;
    settings.socket_path = path + ".vty-unused";
    std::istringstream in;
    std::ostringstream out;
    std::ostringstream err;
    Options opts{Mode::json, {}, {}};
    opts.request = request;
    const int status = dhcpsh::run(opts, settings, in, out, err);
    return {status, out.str(), err.str()};
}

TEST(DhcpshJsonArgs, Parse) {
    struct Case {
        std::vector<std::string_view> args;
        std::optional<std::string> request;  // nullopt: a usage error
        std::string error;
    };
    const Case cases[] = {
        {{"-j", "{\"cmd\":\"dhcps_gloabl_get\"}"}, "{\"cmd\":\"dhcps_gloabl_get\"}", ""},
        {{"-j{}"}, "{}", ""},
        {{"-j", ""}, "", ""},
        {{"-j", "-c"}, "-c", ""},
        {{"-j"}, std::nullopt, "option -j needs a request"},
        {{"-j", "a", "-j", "b"}, std::nullopt, "option -j given twice"},
        {{"-j", "a", "-c", "x"}, std::nullopt, "-c, -f, -b and -j cannot be combined"},
        {{"-b", "-j", "a"}, std::nullopt, "-c, -f, -b and -j cannot be combined"},
        {{"-f", "x", "-j", "a"}, std::nullopt, "-c, -f, -b and -j cannot be combined"},
    };
    for (const Case &c : cases) {
        std::string joined;
        for (const auto a : c.args) {
            joined += "[" + std::string(a) + "]";
        }
        SCOPED_TRACE(joined);
        const auto parsed = dhcpsh::parse_args(c.args);
        if (c.request) {
            ASSERT_TRUE(parsed) << parsed.error();
            EXPECT_EQ(parsed->mode, Mode::json);
            EXPECT_EQ(parsed->request, *c.request);
        } else {
            ASSERT_FALSE(parsed);
            EXPECT_EQ(parsed.error(), c.error);
        }
    }
}

TEST(DhcpshJsonArgs, PathAndHelp) {
    EXPECT_EQ(dhcpsh::settings_from_env(nullptr, nullptr).json_path, "/var/run/dhcp.jsr");
    EXPECT_EQ(dhcpsh::settings_from_env(nullptr, "").json_path, "/var/run/dhcp.jsr");
    EXPECT_EQ(dhcpsh::settings_from_env("/tmp/a.vty", "/tmp/a.jsr").json_path, "/tmp/a.jsr");
    EXPECT_EQ(dhcpsh::settings_from_env("/tmp/a.vty", "/tmp/a.jsr").socket_path, "/tmp/a.vty");
    EXPECT_EQ(dhcpsh::settings_from_env(nullptr).json_path, "/var/run/dhcp.jsr");
    EXPECT_EQ(dhcpsh::usage_line(),
              "usage: dhcpsh [-c COMMAND]... | -f FILE | -b | -j REQUEST | -h");
    const std::string help = dhcpsh::help_text();
    EXPECT_NE(help.find("  -j REQUEST   send one JSON request"), std::string::npos);
    EXPECT_NE(help.find("/var/run/dhcp.jsr ($DHCPSH_JSON_SOCKET overrides it)"), std::string::npos);
}

TEST(DhcpshJson, PrintsTheReplyExactly) {
    const std::string replies[] = {
        "{\"data\":[{\"enable\" :\"1\",\"max_lease_num\" :\"4096\"}]}",
        "{result: 3}",
        "",
        "two\nlines\n",
        std::string("nul\0inside", 10),
        std::string(3u << 20, 'x'),
    };
    for (const std::string &reply : replies) {
        SCOPED_TRACE(reply.substr(0, 40));
        FakeJsonDaemon daemon(reply);
        ASSERT_TRUE(daemon.ready());
        const std::string request = "{\"cmd\":\"dhcps_gloabl_get\"}";
        const Outcome o = run_dash_j(daemon.path(), request);
        EXPECT_EQ(o.status, dhcpsh::kExitOk);
        EXPECT_TRUE(o.out == reply);
        EXPECT_EQ(o.err, "");
        EXPECT_EQ(daemon.request(), request);
        EXPECT_TRUE(daemon.saw_shutdown());
    }
}

TEST(DhcpshJson, RequestSentAsGiven) {
    for (const std::string &request :
         {std::string(""), std::string("not json at all"), std::string(" {\"cmd\" : \"x\"} \n"),
          std::string(200000, '[')}) {
        SCOPED_TRACE(request.substr(0, 40));
        FakeJsonDaemon daemon("{}");
        ASSERT_TRUE(daemon.ready());
        const Outcome o = run_dash_j(daemon.path(), request);
        EXPECT_EQ(o.status, dhcpsh::kExitOk);
        EXPECT_EQ(o.out, "{}");
        EXPECT_TRUE(daemon.request() == request);
    }
}

TEST(DhcpshJson, AnswerBeforeTheWholeRequest) {
    // A daemon that refuses a request after its first bytes answers and
    // hangs up while the client still writes: the answer is still printed.
    FakeJsonDaemon daemon("{\"error\":\"request too long\"}", 100);
    ASSERT_TRUE(daemon.ready());
    const Outcome o = run_dash_j(daemon.path(), std::string(4u << 20, ' '));
    EXPECT_EQ(o.status, dhcpsh::kExitOk);
    EXPECT_EQ(o.out, "{\"error\":\"request too long\"}");
    EXPECT_EQ(o.err, "");
}

TEST(DhcpshJson, CannotConnect) {
    TempDir dir;
    const std::string missing = dir.file("dhcp.jsr");
    Outcome o = run_dash_j(missing, "{}");
    EXPECT_EQ(o.status, dhcpsh::kExitTrouble);
    EXPECT_EQ(o.out, "");
    EXPECT_EQ(o.err, "dhcpsh: cannot connect to " + missing + ": " + std::strerror(ENOENT) + "\n");

    const std::string plain = dir.file("plain");
    std::ofstream(plain) << "";
    o = run_dash_j(plain, "{}");
    EXPECT_EQ(o.status, dhcpsh::kExitTrouble);
    EXPECT_EQ(o.err,
              "dhcpsh: cannot connect to " + plain + ": " + std::strerror(ECONNREFUSED) + "\n");

    const auto direct = dhcpsh::json_request(missing, "{}");
    ASSERT_FALSE(direct);
    EXPECT_EQ(direct.error().kind, dhcpsh::JsonError::Kind::connect);
    EXPECT_EQ(direct.error().err, ENOENT);
}

TEST(DhcpshJson, ReplyLimit) {
    FakeJsonDaemon daemon(std::string(5000, 'r'));
    ASSERT_TRUE(daemon.ready());
    const auto reply = dhcpsh::json_request(daemon.path(), "{}", 4096);
    ASSERT_FALSE(reply);
    EXPECT_EQ(reply.error().kind, dhcpsh::JsonError::Kind::io);
    EXPECT_EQ(reply.error().message, "reply longer than 4096 bytes");
}

// ---------------------------------------------------------------- real server

int answer_with_length(int fd, const char *, std::size_t len) {
    const std::string reply = "{\"len\":" + std::to_string(len) + "}";
    jserver_reply(fd, reply.data(), reply.size());
    return 0;
}

// Runs the server's loop here while dhcpsh talks to it from a thread.
Outcome against_server(const std::string &request) {
    TempDir dir;
    const std::string path = dir.file("dhcp.jsr");
    thread_master *m = thread_master_create();
    EXPECT_EQ(jserver_init(m, path.c_str(), answer_with_length), 0);
    Outcome o{-1, {}, {}};
    std::atomic<bool> done{false};
    std::thread client([&] {
        o = run_dash_j(path, request);
        done = true;
    });
    // Bounded: the client's own end closes the connection either way.
    for (int turns = 0; !done && turns < 100000; ++turns) {
        thread_run_once(m, 10);
    }
    client.join();
    jserver_close();
    thread_master_free(m);
    return o;
}

TEST(DhcpshJson, AgainstTheRequestServer) {
    const struct {
        std::string request;
        std::string out;
    } cases[] = {
        {"{\"cmd\":\"dhcps_gloabl_get\"}", "{\"len\":26}"},
        {"{\"cmd\":", "{\"len\":7}"},
        {"", "{\"len\":0}"},
        {std::string(65, '['), JSERVER_ERR_TOO_DEEP},
        {std::string(1u << 20, ' '), JSERVER_ERR_TOO_LONG},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.request.substr(0, 40));
        const Outcome o = against_server(c.request);
        EXPECT_EQ(o.status, dhcpsh::kExitOk);
        EXPECT_EQ(o.out, c.out);
        EXPECT_EQ(o.err, "");
    }
}

}  // namespace
