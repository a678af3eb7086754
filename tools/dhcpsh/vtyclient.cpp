#include "tools/dhcpsh/vtyclient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace dhcpsh {

namespace {

constexpr std::size_t kChunk = std::size_t{64} * 1024;

std::string size_text(std::size_t bytes) {
    if (bytes >= (std::size_t{1} << 20) && bytes % (std::size_t{1} << 20) == 0) {
        return std::to_string(bytes >> 20) + " MiB";
    }
    return std::to_string(bytes) + " bytes";
}

std::string errno_text(const char *what, int err) {
    return std::string(what) + ": " + std::strerror(err);
}

}  // namespace

std::optional<std::string> encode_request(RequestKind kind, std::string_view line) {
    if (line.size() > VTY_MAXLINE || line.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    std::string frame;
    frame.reserve(line.size() + 2);
    frame.push_back(static_cast<char>(kind));
    frame.append(line);
    frame.push_back('\0');
    return frame;
}

ReplyDecoder::Status ReplyDecoder::fail(std::string why) {
    status_ = Status::malformed;
    error_ = std::move(why);
    return status_;
}

ReplyDecoder::Status ReplyDecoder::feed(std::string_view bytes) {
    if (status_ == Status::malformed) {
        return status_;
    }
    if (status_ == Status::complete) {
        // The daemon speaks only when asked: more bytes mean we are out of step.
        return bytes.empty() ? status_ : fail("unexpected bytes after the reply");
    }
    buf_.append(bytes);

    if (!text_end_) {
        const std::size_t nul = buf_.find('\0', scanned_);
        if (nul == std::string::npos) {
            scanned_ = buf_.size();
            if (buf_.size() > max_text_) {
                return fail("reply larger than " + size_text(max_text_));
            }
            return status_;
        }
        if (nul > max_text_) {
            return fail("reply larger than " + size_text(max_text_));
        }
        text_end_ = nul;
    }

    const std::size_t code_at = *text_end_ + 1;
    if (buf_.size() <= code_at) {
        return status_;
    }
    // Result codes are small numbers; a printable byte here means we are reading text.
    if (static_cast<unsigned char>(buf_[code_at]) >= 0x20) {
        return fail("bad result code in reply");
    }

    const std::size_t prompt_at = code_at + 1;
    const std::size_t prompt_end = buf_.find('\0', prompt_at);
    const std::size_t prompt_len =
        (prompt_end == std::string::npos ? buf_.size() : prompt_end) - prompt_at;
    if (prompt_len > kMaxPrompt) {
        return fail("prompt longer than " + size_text(kMaxPrompt));
    }
    for (std::size_t i = prompt_at; i < prompt_at + prompt_len; ++i) {
        const auto c = static_cast<unsigned char>(buf_[i]);
        // The prompt goes straight to the terminal: no control sequences.
        if (c < 0x20 || c == 0x7f) {
            return fail("control character in prompt");
        }
    }
    if (prompt_end == std::string::npos) {
        return status_;
    }
    if (prompt_end + 1 != buf_.size()) {
        return fail("unexpected bytes after the reply");
    }
    status_ = Status::complete;
    return status_;
}

Reply ReplyDecoder::take() {
    Reply reply;
    if (status_ != Status::complete) {
        return reply;
    }
    const std::size_t code_at = *text_end_ + 1;
    reply.code = static_cast<unsigned char>(buf_[code_at]);
    // The prompt ends at the last byte, the NUL that closes the reply.
    reply.prompt = buf_.substr(code_at + 1, buf_.size() - code_at - 2);
    buf_.resize(*text_end_);
    reply.text = std::move(buf_);

    buf_.clear();
    scanned_ = 0;
    text_end_.reset();
    status_ = Status::incomplete;
    error_.clear();
    return reply;
}

DecodeResult decode_reply(std::string_view bytes, std::size_t max_text) {
    ReplyDecoder decoder(max_text);
    DecodeResult result{decoder.feed(bytes), {}, {}};
    if (result.status == ReplyDecoder::Status::complete) {
        result.reply = decoder.take();
    } else if (result.status == ReplyDecoder::Status::malformed) {
        result.error = decoder.error();
    }
    return result;
}

VtyClient::VtyClient(unique_fd fd, std::size_t max_text)
    : fd_(std::move(fd)), max_text_(max_text), chunk_(kChunk) {}

Result<unique_fd, int> connect_unix(const std::string &path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty()) {
        return Failure{ENOENT};
    }
    if (path.size() >= sizeof addr.sun_path) {
        return Failure{ENAMETOOLONG};
    }
    std::memcpy(addr.sun_path, path.data(), path.size());

    unique_fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        return Failure{errno};
    }
    if (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&addr),
                  static_cast<socklen_t>(sizeof addr)) != 0) {
        if (errno != EINTR) {
            return Failure{errno};
        }
        // An interrupted connect goes on without us; wait for its outcome.
        pollfd pfd{fd.get(), POLLOUT, 0};
        while (::poll(&pfd, 1, -1) < 0) {
            if (errno != EINTR) {
                return Failure{errno};
            }
        }
        int so_error = 0;
        socklen_t len = sizeof so_error;
        if (::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &so_error, &len) != 0) {
            return Failure{errno};
        }
        if (so_error != 0) {
            return Failure{so_error};
        }
    }
    return Result<unique_fd, int>(std::move(fd));
}

Result<VtyClient, int> VtyClient::connect(const std::string &path) {
    auto fd = connect_unix(path);
    if (!fd) {
        return Failure{fd.error()};
    }
    return VtyClient(std::move(fd).value());
}

Result<Reply, VtyError> VtyClient::broken(VtyError::Kind kind, std::string message) {
    fd_.reset();
    return Failure{VtyError{kind, std::move(message)}};
}

Result<Reply, VtyError> VtyClient::request(RequestKind kind, std::string_view line) {
    if (!fd_) {
        return Failure{VtyError{VtyError::Kind::closed, "not connected to dhcpd"}};
    }
    const auto frame = encode_request(kind, line);
    if (!frame) {
        return Failure{VtyError{VtyError::Kind::bad_request,
                                line.size() > VTY_MAXLINE
                                    ? "line longer than " + std::to_string(VTY_MAXLINE) + " bytes"
                                    : std::string("line holds a NUL byte")}};
    }

    std::string_view rest = *frame;
    while (!rest.empty()) {
        // MSG_NOSIGNAL: a vanished daemon is an error to report, not SIGPIPE.
        const ssize_t n = ::send(fd_.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EPIPE || errno == ECONNRESET) {
                return broken(VtyError::Kind::closed, "dhcpd closed the connection");
            }
            return broken(VtyError::Kind::io, errno_text("send", errno));
        }
        rest.remove_prefix(static_cast<std::size_t>(n));
    }

    ReplyDecoder decoder(max_text_);
    for (;;) {
        const ssize_t n = ::recv(fd_.get(), chunk_.data(), chunk_.size(), 0);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == ECONNRESET && decoder.empty()) {
                return broken(VtyError::Kind::closed, "dhcpd closed the connection");
            }
            return broken(VtyError::Kind::io, errno_text("receive", errno));
        }
        if (n == 0) {
            if (decoder.empty()) {
                return broken(VtyError::Kind::closed, "dhcpd closed the connection");
            }
            return broken(VtyError::Kind::protocol, "connection closed in the middle of a reply");
        }
        switch (decoder.feed(std::string_view(chunk_.data(), static_cast<std::size_t>(n)))) {
            case ReplyDecoder::Status::complete:
                return decoder.take();
            case ReplyDecoder::Status::malformed:
                return broken(VtyError::Kind::protocol, decoder.error());
            case ReplyDecoder::Status::incomplete:
                break;
        }
    }
}

bool VtyClient::wait_closed(std::chrono::milliseconds timeout) {
    using clock = std::chrono::steady_clock;
    if (!fd_) {
        return true;
    }
    const auto deadline = clock::now() + timeout;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now());
        pollfd pfd{fd_.get(), POLLIN | POLLRDHUP, 0};
        const int ready = ::poll(&pfd, 1, static_cast<int>(std::max<long long>(0, left.count())));
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        if (ready == 0) {
            return false;
        }
        char byte = 0;
        const ssize_t n = ::recv(fd_.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
            fd_.reset();
            return true;
        }
        // Bytes nobody asked for are not a close.
        return false;
    }
}

}  // namespace dhcpsh
