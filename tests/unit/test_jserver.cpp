// The JSON request server: the dispatcher's error replies, and the socket
// side driven through real UNIX sockets on a private event loop (when a
// request is complete, the bounds, the connection limit, idle connections and
// replies larger than a socket buffer). Timers are fired by hand, never waited for.
#include <cjson/cJSON.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "lib/thread.h"
#include "lib/unique_fd.h"
#include "platform/jserver.h"

namespace {

// ---------------------------------------------------------------- dispatcher

int handler_a(cJSON *, char *response) {
    std::memcpy(response, "A", 1);
    return 1;
}
int handler_b(cJSON *, char *response) {
    std::memcpy(response, "{\"b\":2}", 7);
    return 7;
}
int handler_silent(cJSON *, char *) {
    return 0;
}
int handler_negative(cJSON *, char *) {
    return -5;
}

struct DispatchCase {
    const char *text;  // null: a tree that did not parse
    int rc;
    std::string reply;
};

TEST(JserverDispatch, RepliesByCmd) {
    jserver_cmd_reset();
    ASSERT_EQ(jserver_cmd_add("req_a", handler_a), 0);
    ASSERT_EQ(jserver_cmd_add("req_b", handler_b), 0);
    ASSERT_EQ(jserver_cmd_add("req_silent", handler_silent), 0);
    ASSERT_EQ(jserver_cmd_add("req_negative", handler_negative), 0);
    const DispatchCase cases[] = {
        {nullptr, -1, "{\"error\":\"malformed request\"}"},
        {"[1,2]", -1, "{\"error\":\"malformed request\"}"},
        {"\"req_a\"", -1, "{\"error\":\"malformed request\"}"},
        {"17", -1, "{\"error\":\"malformed request\"}"},
        {"{}", -1, "{\"error\":\"missing cmd\"}"},
        {"{\"config\":[]}", -1, "{\"error\":\"missing cmd\"}"},
        {"{\"cmd\":1}", -1, "{\"error\":\"missing cmd\"}"},
        {"{\"cmd\":null}", -1, "{\"error\":\"missing cmd\"}"},
        {"{\"cmd\":[\"req_a\"]}", -1, "{\"error\":\"missing cmd\"}"},
        {"{\"CMD\":\"req_a\"}", -1, "{\"error\":\"missing cmd\"}"},
        {"{\"cmd\":\"nope\"}", -1, "{\"error\":\"unknown request\"}"},
        {"{\"cmd\":\"\"}", -1, "{\"error\":\"unknown request\"}"},
        {"{\"cmd\":\"REQ_A\"}", -1, "{\"error\":\"unknown request\"}"},
        {"{\"cmd\":\"req_a \"}", -1, "{\"error\":\"unknown request\"}"},
        {"{\"cmd\":\"req_a\"}", 0, "A"},
        {"{\"cmd\":\"req_b\",\"config\":[{}]}", 0, "{\"b\":2}"},
        {"{\"cmd\":\"req_silent\"}", 0, ""},
        {"{\"cmd\":\"req_negative\"}", 0, ""},
    };
    for (const DispatchCase &c : cases) {
        SCOPED_TRACE(c.text == nullptr ? "(null tree)" : c.text);
        cJSON *root = c.text == nullptr ? nullptr : cJSON_Parse(c.text);
        ASSERT_TRUE(c.text == nullptr || root != nullptr);
        std::string response(256, '\0');
        int len = -1;
        EXPECT_EQ(jserver_cmd_handle(root, response.data(), response.size(), &len), c.rc);
        ASSERT_GE(len, 0);
        EXPECT_EQ(response.substr(0, static_cast<std::size_t>(len)), c.reply);
        cJSON_Delete(root);
    }
    jserver_cmd_reset();
}

TEST(JserverDispatch, ErrorRepliesFitIn64Bytes) {
    for (const char *text : {JSERVER_ERR_PARSE, JSERVER_ERR_NO_CMD, JSERVER_ERR_UNKNOWN,
                             JSERVER_ERR_TOO_LONG, JSERVER_ERR_TOO_DEEP}) {
        EXPECT_LT(std::strlen(text), 64u) << text;
    }
    EXPECT_STREQ(JSERVER_ERR_TOO_LONG, "{\"error\":\"request too long\"}");
    EXPECT_STREQ(JSERVER_ERR_TOO_DEEP, "{\"error\":\"request nested too deeply\"}");
    // A buffer too small for the error gets what fits, never more.
    char small[8] = {};
    int len = 0;
    EXPECT_EQ(jserver_cmd_handle(nullptr, small, sizeof small, &len), -1);
    EXPECT_EQ(std::string(small, static_cast<std::size_t>(len)), "{\"error\"");
}

TEST(JserverDispatch, Registry) {
    jserver_cmd_reset();
    EXPECT_EQ(jserver_cmd_add(nullptr, handler_a), -1);
    EXPECT_EQ(jserver_cmd_add("", handler_a), -1);
    EXPECT_EQ(jserver_cmd_add("x", nullptr), -1);
    std::string name = "req";
    EXPECT_EQ(jserver_cmd_add(name.c_str(), handler_a), 0);
    name = "zzz";                                     // the name was copied
    EXPECT_EQ(jserver_cmd_add("req", handler_b), 0);  // the later handler wins

    cJSON *root = cJSON_Parse("{\"cmd\":\"req\"}");
    char response[64] = {};
    int len = 0;
    EXPECT_EQ(jserver_cmd_handle(root, response, sizeof response, &len), 0);
    EXPECT_EQ(std::string(response, static_cast<std::size_t>(len)), "{\"b\":2}");

    jserver_cmd_reset();
    EXPECT_EQ(jserver_cmd_handle(root, response, sizeof response, &len), -1);
    EXPECT_EQ(std::string(response, static_cast<std::size_t>(len)), JSERVER_ERR_UNKNOWN);
    cJSON_Delete(root);
}

// ---------------------------------------------------------------- socket side

// What the test callback saw and does; reset by every test.
struct Callback {
    std::vector<std::string> requests;
    std::optional<std::string> reply = std::string("{\"ok\":1}");
    bool nonblocking = true;
    int second_reply_rc = 0;
};
Callback cb;

int record_request(int fd, const char *text, std::size_t len) {
    cb.requests.emplace_back(text, len);
    const int flags = ::fcntl(fd, F_GETFL);
    cb.nonblocking = cb.nonblocking && flags >= 0 && (flags & O_NONBLOCK) != 0;
    if (cb.reply) {
        EXPECT_EQ(jserver_reply(fd, cb.reply->data(), cb.reply->size()), 0);
        cb.second_reply_rc = jserver_reply(fd, "x", 1);
    }
    return 0;
}

// Turns of the loop a wait may take before the test gives up; a bound on a
// wait, never a verdict (each turn waits at most 10 ms for something to happen).
constexpr int MAX_IDLE_TURNS = 3000;

class Jserver : public ::testing::Test {
  protected:
    Jserver() {
        std::string templ = ::testing::TempDir() + "jserver-XXXXXX";
        dir_ = ::mkdtemp(templ.data()) != nullptr ? templ : std::string();
        path_ = dir_ + "/dhcp.jsr";
        cb = Callback{};
        master_ = thread_master_create();
        init_rc_ = jserver_init(master_, path_.c_str(), record_request);
    }
    ~Jserver() override {
        jserver_close();
        thread_master_free(master_);
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    unique_fd connect_client() {
        unique_fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un sa{};
        sa.sun_family = AF_UNIX;
        std::memcpy(sa.sun_path, path_.c_str(), path_.size() + 1);
        EXPECT_EQ(::connect(fd.get(), reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0)
            << std::strerror(errno);
        return fd;
    }

    // Runs the loop until `done` holds; false when it never did.
    bool pump_until(const std::function<bool()> &done) {
        for (int idle = 0; idle < MAX_IDLE_TURNS; ++idle) {
            if (done()) {
                return true;
            }
            if (thread_run_once(master_, 10) > 0) {
                idle = 0;
            }
        }
        return done();
    }

    // Sends `bytes`, letting the server read in between; false when the
    // server closed before taking them all (what it answered is read next).
    bool send_all(int fd, std::string_view bytes) {
        int stuck = 0;
        while (!bytes.empty() && stuck < MAX_IDLE_TURNS) {
            const ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n > 0) {
                bytes.remove_prefix(static_cast<std::size_t>(n));
                stuck = 0;
                continue;
            }
            if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
                return false;
            }
            ++stuck;
            thread_run_once(master_, 10);
        }
        return bytes.empty();
    }

    // Reads until the server closes, `per_turn` bytes at most between two
    // turns of the loop. nullopt when the connection never closed.
    std::optional<std::string> read_to_close(int fd, std::size_t per_turn = 64 * 1024) {
        std::string got;
        std::vector<char> chunk(per_turn);
        for (int idle = 0; idle < MAX_IDLE_TURNS; ++idle) {
            const ssize_t n = ::recv(fd, chunk.data(), chunk.size(), MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno == ECONNRESET)) {
                return got;
            }
            if (n > 0) {
                got.append(chunk.data(), static_cast<std::size_t>(n));
                idle = 0;
            }
            thread_run_once(master_, n > 0 ? 0 : 10);
        }
        return std::nullopt;
    }

    // Whether the server has neither answered nor closed `fd` yet.
    static bool still_open(int fd) {
        char byte = 0;
        const ssize_t n = ::recv(fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK);
        return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }

    // Sends `text`, waits for the request to be complete without closing
    // the write side, and returns what came back before the close.
    std::optional<std::string> exchange(std::string_view text) {
        unique_fd c = connect_client();
        send_all(c.get(), text);
        return read_to_close(c.get());
    }

    std::string dir_;
    std::string path_;
    thread_master *master_ = nullptr;
    int init_rc_ = -1;
};

TEST_F(Jserver, SocketIsReplacedAndRestricted) {
    ASSERT_EQ(init_rc_, 0);
    struct stat st {};
    ASSERT_EQ(::lstat(path_.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0770u);
    // A second start on the same path replaces the socket left behind.
    EXPECT_EQ(jserver_init(master_, path_.c_str(), record_request), 0);
    EXPECT_EQ(exchange("{\"cmd\":\"x\"}"), "{\"ok\":1}");

    const std::string too_long(200, 'p');
    EXPECT_EQ(jserver_init(master_, too_long.c_str(), record_request), -1);
    EXPECT_EQ(jserver_init(master_, "", record_request), -1);
    EXPECT_EQ(jserver_init(nullptr, path_.c_str(), record_request), -1);
    EXPECT_EQ(jserver_init(master_, path_.c_str(), nullptr), -1);
}

TEST_F(Jserver, CloseRemovesSocketAndConnections) {
    ASSERT_EQ(init_rc_, 0);
    unique_fd c = connect_client();
    ASSERT_TRUE(pump_until([] { return jserver_conn_count() == 1; }));
    jserver_close();
    EXPECT_EQ(jserver_conn_count(), 0u);
    EXPECT_NE(::access(path_.c_str(), F_OK), 0);
    char byte = 0;
    EXPECT_EQ(::recv(c.get(), &byte, 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(thread_count(master_), 0u);
}

TEST_F(Jserver, CompleteValueWithoutShutdown) {
    ASSERT_EQ(init_rc_, 0);
    EXPECT_EQ(exchange("{\"cmd\":\"dhcps_gloabl_get\"}"), "{\"ok\":1}");
    ASSERT_EQ(cb.requests.size(), 1u);
    EXPECT_EQ(cb.requests[0], "{\"cmd\":\"dhcps_gloabl_get\"}");
    EXPECT_TRUE(cb.nonblocking);
    EXPECT_EQ(cb.second_reply_rc, -1);  // one reply per request
    EXPECT_EQ(jserver_conn_count(), 0u);
}

TEST_F(Jserver, ShutdownCompletesTheRequest) {
    ASSERT_EQ(init_rc_, 0);
    const std::string texts[] = {"{\"cmd\":\"x\"", "", "  ", "123", "nul", "{\"a\":\"}\\"};
    for (const std::string &text : texts) {
        SCOPED_TRACE(text);
        cb.requests.clear();
        unique_fd c = connect_client();
        send_all(c.get(), text);
        ASSERT_TRUE(pump_until([] { return jserver_conn_count() == 1; }));
        for (int i = 0; i < 5; ++i) {
            thread_run_once(master_, 0);
        }
        EXPECT_TRUE(cb.requests.empty());
        ASSERT_EQ(::shutdown(c.get(), SHUT_WR), 0);
        EXPECT_EQ(read_to_close(c.get()), "{\"ok\":1}");
        ASSERT_EQ(cb.requests.size(), 1u);
        EXPECT_EQ(cb.requests[0], text);
    }
}

TEST_F(Jserver, ValueSplitOverManyWrites) {
    ASSERT_EQ(init_rc_, 0);
    const std::string text = "{\"cmd\":\"dhcps_pool_add\",\"config\":[{\"pool_name\":\"p}1\"}]}";
    unique_fd c = connect_client();
    for (std::size_t i = 0; i < text.size(); ++i) {
        send_all(c.get(), text.substr(i, 1));
        for (int turn = 0; turn < 3; ++turn) {
            thread_run_once(master_, 0);
        }
        if (i + 1 < text.size()) {
            ASSERT_TRUE(cb.requests.empty()) << "complete after byte " << i;
        }
    }
    EXPECT_EQ(read_to_close(c.get()), "{\"ok\":1}");
    ASSERT_EQ(cb.requests.size(), 1u);
    EXPECT_EQ(cb.requests[0], text);
}

TEST_F(Jserver, StringsAndEscapesDoNotEndTheValue) {
    ASSERT_EQ(init_rc_, 0);
    const std::string texts[] = {
        R"({"a":"}"})",
        R"({"a":"\"}"})",
        R"({"a":"\\"})",
        R"({"a":"\\\"}]"})",
        R"(["]",[1,{"b":"{["}]])",
        R"("top } ] \" string")",
        R"({"cmd":"x","config":[{"pool_name":"{{{{{{"}]})",
    };
    for (const std::string &text : texts) {
        SCOPED_TRACE(text);
        cb.requests.clear();
        unique_fd c = connect_client();
        send_all(c.get(), text.substr(0, text.size() - 1));
        ASSERT_TRUE(pump_until([] { return jserver_conn_count() == 1; }));
        for (int i = 0; i < 5; ++i) {
            thread_run_once(master_, 0);
        }
        EXPECT_TRUE(cb.requests.empty());
        EXPECT_TRUE(still_open(c.get()));
        send_all(c.get(), text.substr(text.size() - 1));
        EXPECT_EQ(read_to_close(c.get()), "{\"ok\":1}");
        ASSERT_EQ(cb.requests.size(), 1u);
        EXPECT_EQ(cb.requests[0], text);
    }
}

TEST_F(Jserver, OnlyTheFirstValueIsTaken) {
    ASSERT_EQ(init_rc_, 0);
    EXPECT_EQ(exchange("{\"cmd\":\"a\"}{\"cmd\":\"b\"}\n"), "{\"ok\":1}");
    EXPECT_EQ(exchange("  \n{\"cmd\":\"c\"} trailing"), "{\"ok\":1}");
    EXPECT_EQ(exchange("]"), "{\"ok\":1}");
    const std::vector<std::string> expected = {"{\"cmd\":\"a\"}", "  \n{\"cmd\":\"c\"}", "]"};
    EXPECT_EQ(cb.requests, expected);
}

std::string nested(int depth) {
    return std::string(static_cast<std::size_t>(depth), '[') +
           std::string(static_cast<std::size_t>(depth), ']');
}

TEST_F(Jserver, DepthLimit) {
    ASSERT_EQ(init_rc_, 0);
    EXPECT_EQ(exchange(nested(64)), "{\"ok\":1}");
    ASSERT_EQ(cb.requests.size(), 1u);
    EXPECT_EQ(cb.requests[0], nested(64));
    // Mixed brackets count alike; brackets inside strings do not count.
    const std::string mixed = "{\"a\":" + nested(63) + "}";
    EXPECT_EQ(exchange(mixed), "{\"ok\":1}");
    const std::string in_string = "{\"a\":\"" + std::string(500, '[') + "\"}";
    EXPECT_EQ(exchange(in_string), "{\"ok\":1}");
    ASSERT_EQ(cb.requests.size(), 3u);

    // Level 65 is refused as soon as it opens, without waiting for the rest.
    unique_fd c = connect_client();
    send_all(c.get(), std::string(65, '['));
    EXPECT_EQ(read_to_close(c.get()), JSERVER_ERR_TOO_DEEP);
    EXPECT_EQ(exchange("{\"a\":" + nested(64) + "}"), JSERVER_ERR_TOO_DEEP);
    EXPECT_EQ(exchange(std::string(20000, '[')), JSERVER_ERR_TOO_DEEP);
    EXPECT_EQ(cb.requests.size(), 3u);
}

// A request of exactly `size` bytes that is complete at its last byte.
std::string padded_request(std::size_t size) {
    const std::string head = "{\"cmd\":\"x\",\"pad\":\"";
    const std::string tail = "\"}";
    return head + std::string(size - head.size() - tail.size(), 'a') + tail;
}

TEST_F(Jserver, SizeLimit) {
    ASSERT_EQ(init_rc_, 0);
    const std::string exact = padded_request(64 * 1024);
    ASSERT_EQ(exact.size(), JSERVER_REQUEST_MAX);
    EXPECT_EQ(exchange(exact), "{\"ok\":1}");
    ASSERT_EQ(cb.requests.size(), 1u);
    EXPECT_EQ(cb.requests[0], exact);

    // The same size ended by the shutdown instead of a closing bracket.
    unique_fd c = connect_client();
    const std::string open(JSERVER_REQUEST_MAX, ' ');
    send_all(c.get(), open);
    ASSERT_EQ(::shutdown(c.get(), SHUT_WR), 0);
    EXPECT_EQ(read_to_close(c.get()), "{\"ok\":1}");
    ASSERT_EQ(cb.requests.size(), 2u);
    EXPECT_EQ(cb.requests[1].size(), JSERVER_REQUEST_MAX);

    EXPECT_EQ(exchange(padded_request(64 * 1024 + 1)), JSERVER_ERR_TOO_LONG);
    EXPECT_EQ(exchange(padded_request(1024 * 1024)), JSERVER_ERR_TOO_LONG);
    EXPECT_EQ(cb.requests.size(), 2u);
}

TEST_F(Jserver, SeventeenthConnectionIsClosed) {
    ASSERT_EQ(init_rc_, 0);
    std::vector<unique_fd> clients;
    for (int i = 0; i < JSERVER_CONN_MAX; ++i) {
        clients.push_back(connect_client());
    }
    ASSERT_TRUE(pump_until([] { return jserver_conn_count() == 16; }));
    unique_fd extra = connect_client();
    EXPECT_EQ(read_to_close(extra.get()), "");
    EXPECT_EQ(jserver_conn_count(), 16u);
    for (const unique_fd &c : clients) {
        EXPECT_TRUE(still_open(c.get()));
    }
    // The ones let in are served; once one is gone, a new one is let in.
    send_all(clients[3].get(), "{\"cmd\":\"x\"}");
    EXPECT_EQ(read_to_close(clients[3].get()), "{\"ok\":1}");
    EXPECT_EQ(jserver_conn_count(), 15u);
    EXPECT_EQ(exchange("{\"cmd\":\"y\"}"), "{\"ok\":1}");
    EXPECT_EQ(cb.requests.size(), 2u);
}

TEST_F(Jserver, IdleConnectionIsClosed) {
    ASSERT_EQ(init_rc_, 0);
    unique_fd quiet = connect_client();
    unique_fd partial = connect_client();
    send_all(partial.get(), "{\"cmd\":\"x\"");
    ASSERT_TRUE(pump_until([] { return jserver_conn_count() == 2; }));
    for (int i = 0; i < 5; ++i) {
        thread_run_once(master_, 0);
    }
    // One idle timer per connection, armed for the idle period.
    const std::vector<long> armed = thread_timer_intervals(master_);
    EXPECT_EQ(armed, std::vector<long>(2, JSERVER_IDLE_SECONDS * 1000L));
    EXPECT_TRUE(still_open(quiet.get()));
    EXPECT_TRUE(still_open(partial.get()));

    EXPECT_EQ(thread_fire_timers(master_), 2);
    EXPECT_EQ(jserver_conn_count(), 0u);
    EXPECT_EQ(read_to_close(quiet.get()), "");
    EXPECT_EQ(read_to_close(partial.get()), "");
    EXPECT_TRUE(cb.requests.empty());
    EXPECT_TRUE(thread_timer_intervals(master_).empty());
}

TEST_F(Jserver, NoReplyClosesAtOnce) {
    ASSERT_EQ(init_rc_, 0);
    cb.reply.reset();
    EXPECT_EQ(exchange("{\"cmd\":\"dhcps_gloabl_set\"}"), "");
    cb.reply = std::string();
    EXPECT_EQ(exchange("{\"cmd\":\"dhcps_gloabl_set\"}"), "");
    EXPECT_EQ(cb.requests.size(), 2u);
    EXPECT_EQ(jserver_conn_count(), 0u);
}

TEST_F(Jserver, ReplyOnlyInsideTheCallback) {
    ASSERT_EQ(init_rc_, 0);
    EXPECT_EQ(jserver_reply(-1, "x", 1), -1);
    unique_fd c = connect_client();
    ASSERT_TRUE(pump_until([] { return jserver_conn_count() == 1; }));
    // No connection is waiting for its reply before its request is complete.
    for (int fd = 0; fd < 1024; ++fd) {
        EXPECT_EQ(jserver_reply(fd, "x", 1), -1);
    }
    EXPECT_TRUE(still_open(c.get()));
}

std::string pattern(std::size_t size) {
    std::string s(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        s[i] = static_cast<char>('a' + (i * 7 + i / 4096) % 26);
    }
    return s;
}

TEST_F(Jserver, LargeReplyToSlowReaderArrivesWhole) {
    ASSERT_EQ(init_rc_, 0);
    cb.reply = pattern(4u << 20);
    unique_fd c = connect_client();
    send_all(c.get(), "{\"cmd\":\"dhcps_leases_get_page\"}");
    const auto got = read_to_close(c.get(), 4096);
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(got->size(), cb.reply->size());
    EXPECT_TRUE(*got == *cb.reply);
}

TEST_F(Jserver, ClientThatNeverReadsIsClosedWhenIdle) {
    ASSERT_EQ(init_rc_, 0);
    cb.reply = pattern(4u << 20);
    unique_fd c = connect_client();
    send_all(c.get(), "{\"cmd\":\"dhcps_leases_get_page\"}");
    ASSERT_TRUE(pump_until([] { return !cb.requests.empty(); }));
    EXPECT_TRUE(cb.nonblocking);
    // The loop goes on turning (nothing waits for the client) and the
    // connection stays with its reply pending.
    for (int i = 0; i < 20; ++i) {
        thread_run_once(master_, 0);
    }
    EXPECT_EQ(jserver_conn_count(), 1u);
    // Others are served meanwhile.
    const std::string stuck_reply = *cb.reply;
    cb.reply = "{}";
    EXPECT_EQ(exchange("{\"cmd\":\"y\"}"), "{}");
    cb.reply = stuck_reply;
    EXPECT_EQ(thread_timer_intervals(master_), std::vector<long>{JSERVER_IDLE_SECONDS * 1000L});

    EXPECT_EQ(thread_fire_timers(master_), 1);
    EXPECT_EQ(jserver_conn_count(), 0u);
    // What the socket had taken is there, and then the end: never the whole reply.
    const auto got = read_to_close(c.get());
    ASSERT_TRUE(got.has_value());
    EXPECT_LT(got->size(), cb.reply->size());
    EXPECT_EQ(*got, cb.reply->substr(0, got->size()));
    EXPECT_EQ(thread_count(master_), 1u);  // the listening socket only
}

TEST_F(Jserver, ServerGoesOnAfterClientVanishes) {
    ASSERT_EQ(init_rc_, 0);
    cb.reply = pattern(1u << 20);
    {
        unique_fd c = connect_client();
        send_all(c.get(), "{\"cmd\":\"x\"}");
        ASSERT_TRUE(pump_until([] { return !cb.requests.empty(); }));
    }  // gone with the reply half sent
    ASSERT_TRUE(pump_until([] { return jserver_conn_count() == 0; }));
    {
        unique_fd c = connect_client();
        send_all(c.get(), "{\"cmd\":");
        ASSERT_TRUE(pump_until([] { return jserver_conn_count() == 1; }));
    }  // gone in the middle of its request
    ASSERT_TRUE(pump_until([] { return jserver_conn_count() == 0; }));
    // A client gone is a client that ended its request: what came is passed
    // on, and the reply has nobody to go to.
    ASSERT_EQ(cb.requests.size(), 2u);
    EXPECT_EQ(cb.requests[1], "{\"cmd\":");
    cb.reply = "{}";
    EXPECT_EQ(exchange("{\"cmd\":\"y\"}"), "{}");
}

}  // namespace
