// Client side of the vty shell protocol (lib/vty_proto.h): request framing,
// reply decoding and one connection to the daemon.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lib/vty_proto.h"
#include "tools/dhcpsh/result.h"
#include "tools/dhcpsh/unique_fd.h"

namespace dhcpsh {

enum class RequestKind : char {
    execute = VTY_REQ_EXECUTE,
    describe = VTY_REQ_DESCRIBE,
    complete = VTY_REQ_COMPLETE,
    prompt = VTY_REQ_PROMPT,
};

struct Reply {
    std::string text;
    int code = 0;
    std::string prompt;

    bool operator==(const Reply &) const = default;
};

// A lease table can run to megabytes; anything past this is not a dhcpd talking.
constexpr std::size_t kMaxReplyText = std::size_t{64} << 20;
// Host name plus the node's prompt, with a pool or interface name at most.
constexpr std::size_t kMaxPrompt = 1024;

// The bytes of one request, or nullopt when the line cannot be carried:
// longer than VTY_MAXLINE or holding a NUL.
std::optional<std::string> encode_request(RequestKind kind, std::string_view line);

// Incremental reply parser: feed it whatever the socket gives, in any pieces.
class ReplyDecoder {
  public:
    enum class Status { incomplete, complete, malformed };

    explicit ReplyDecoder(std::size_t max_text = kMaxReplyText) : max_text_(max_text) {}

    Status feed(std::string_view bytes);
    Status status() const { return status_; }
    // True until the first byte arrives: EOF here is a clean close, not a torn reply.
    bool empty() const { return buf_.empty(); }
    // Why the reply was refused (status() == malformed).
    const std::string &error() const { return error_; }
    // The reply, once complete; leaves the decoder ready for the next one.
    Reply take();

  private:
    Status fail(std::string why);

    std::size_t max_text_;
    std::string buf_;
    std::size_t scanned_ = 0;  // text bytes already known to hold no NUL
    std::optional<std::size_t> text_end_;
    Status status_ = Status::incomplete;
    std::string error_;
};

struct DecodeResult {
    ReplyDecoder::Status status;
    Reply reply;
    std::string error;
};
// Decodes bytes that should hold exactly one reply.
DecodeResult decode_reply(std::string_view bytes, std::size_t max_text = kMaxReplyText);

struct VtyError {
    enum class Kind {
        bad_request,  // the line cannot be sent; the connection is still fine
        closed,       // the daemon closed the connection before replying
        io,           // the socket failed
        protocol,     // the reply was torn or not a reply
    };
    Kind kind;
    std::string message;
};

// Connects a stream socket to the UNIX socket at `path` (blocking, as the
// daemon's listen backlog may be full for a moment); the error is an errno value.
Result<unique_fd, int> connect_unix(const std::string &path);

class VtyClient {
  public:
    explicit VtyClient(unique_fd fd, std::size_t max_text = kMaxReplyText);

    // Connects to the daemon's UNIX socket; the error is an errno value.
    static Result<VtyClient, int> connect(const std::string &path);

    // Sends one request and waits for its whole reply. After any error but
    // bad_request the connection is dropped and further requests fail.
    Result<Reply, VtyError> request(RequestKind kind, std::string_view line);

    // Waits up to `timeout` for the daemon to close the connection.
    bool wait_closed(std::chrono::milliseconds timeout);

    bool connected() const { return fd_.valid(); }

  private:
    Result<Reply, VtyError> broken(VtyError::Kind kind, std::string message);

    unique_fd fd_;
    std::size_t max_text_;
    std::vector<char> chunk_;
};

}  // namespace dhcpsh
