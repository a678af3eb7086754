// Client of the daemon's JSON request socket: one request per connection.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tools/dhcpsh/result.h"

namespace dhcpsh {

// A full lease page is a few megabytes; anything past this is not a dhcpd talking.
constexpr std::size_t kMaxJsonReply = std::size_t{64} << 20;

struct JsonError {
    enum class Kind {
        connect,  // the socket cannot be reached (`err` holds the errno value)
        io,       // the exchange failed after connecting
    };
    Kind kind;
    int err = 0;
    std::string message;  // what failed, for "dhcpsh: MESSAGE"
};

// Connects to `path`, writes `text`, shuts down the write side and reads the
// reply to the end: the bytes exactly as the daemon sent them, possibly none.
// A daemon that refuses the request before taking all of it (too long, too
// deep) still has its answer read.
Result<std::string, JsonError> json_request(const std::string &path, std::string_view text,
                                            std::size_t max_reply = kMaxJsonReply);

}  // namespace dhcpsh
