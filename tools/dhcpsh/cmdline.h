// dhcpsh's command line.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/dhcpsh/result.h"

namespace dhcpsh {

enum class Mode {
    interactive,  // no options
    commands,     // -c CMD [-c CMD ...]
    file,         // -f FILE
    boot,         // -b
    json,         // -j REQUEST
    metrics,      // --metrics
    help,         // -h, --help
};

struct Options {
    Mode mode = Mode::interactive;
    std::vector<std::string> commands;  // -c, in the order given
    std::string file;                   // -f
    std::string request{};              // -j

    bool operator==(const Options &) const = default;
};

// `args` excludes the program name. The error says what is wrong; the caller
// adds the usage line.
Result<Options, std::string> parse_args(std::span<const std::string_view> args);
Result<Options, std::string> parse_args(int argc, const char *const argv[]);

std::string_view usage_line();
std::string help_text();

}  // namespace dhcpsh
