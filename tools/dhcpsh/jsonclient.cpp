#include "tools/dhcpsh/jsonclient.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "tools/dhcpsh/unique_fd.h"
#include "tools/dhcpsh/vtyclient.h"

namespace dhcpsh {

namespace {

JsonError io_error(const char *what, int err) {
    return JsonError{JsonError::Kind::io, err, std::string(what) + ": " + std::strerror(err)};
}

// Sends all of `text`. A daemon that answered early and closed is not an
// error here: its answer is waiting to be read.
Result<bool, JsonError> send_request(int fd, std::string_view text) {
    while (!text.empty()) {
        // MSG_NOSIGNAL: a daemon that hung up is an answer to read, not SIGPIPE.
        const ssize_t n = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EPIPE || errno == ECONNRESET) {
                return true;
            }
            return Failure{io_error("send", errno)};
        }
        text.remove_prefix(static_cast<std::size_t>(n));
    }
    if (::shutdown(fd, SHUT_WR) != 0 && errno != ENOTCONN) {
        return Failure{io_error("shutdown", errno)};
    }
    return true;
}

}  // namespace

Result<std::string, JsonError> json_request(const std::string &path, std::string_view text,
                                            std::size_t max_reply) {
    auto fd = connect_unix(path);
    if (!fd) {
        return Failure{JsonError{JsonError::Kind::connect, fd.error(),
                                 "cannot connect to " + path + ": " + std::strerror(fd.error())}};
    }
    if (auto sent = send_request(fd->get(), text); !sent) {
        return Failure{sent.error()};
    }
    std::string reply;
    std::array<char, 64 * 1024> chunk{};
    for (;;) {
        const ssize_t n = ::recv(fd->get(), chunk.data(), chunk.size(), 0);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            // The daemon closes with our surplus bytes unread: a reset after
            // its answer, which ends the answer like a close.
            if (errno == ECONNRESET) {
                return reply;
            }
            return Failure{io_error("receive", errno)};
        }
        if (n == 0) {
            return reply;
        }
        if (reply.size() + static_cast<std::size_t>(n) > max_reply) {
            return Failure{JsonError{JsonError::Kind::io, EFBIG,
                                     "reply longer than " + std::to_string(max_reply) + " bytes"}};
        }
        reply.append(chunk.data(), static_cast<std::size_t>(n));
    }
}

}  // namespace dhcpsh
