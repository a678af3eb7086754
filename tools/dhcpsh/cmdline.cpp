#include "tools/dhcpsh/cmdline.h"

#include "dhcp/dhcp_json.h"
#include "lib/command.h"
#include "lib/vty_proto.h"

namespace dhcpsh {

namespace {

// getopt's rules for an option with a value: "-cCMD" or "-c CMD", and the
// next word is taken as is even when it starts with '-'.
bool take_value(std::span<const std::string_view> args, std::size_t &i, std::string &value) {
    const std::string_view arg = args[i];
    if (arg.size() > 2) {
        value = arg.substr(2);
        return true;
    }
    if (i + 1 >= args.size()) {
        return false;
    }
    value = args[++i];
    return true;
}

}  // namespace

Result<Options, std::string> parse_args(std::span<const std::string_view> args) {
    Options opts;
    bool file_seen = false;
    bool boot_seen = false;
    bool json_seen = false;
    bool metrics_seen = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        if (arg == "-h" || arg == "--help") {
            return Options{Mode::help, {}, {}};
        }
        if (arg.starts_with("-c")) {
            std::string cmd;
            if (!take_value(args, i, cmd)) {
                return Failure{std::string("option -c needs a command")};
            }
            opts.commands.push_back(std::move(cmd));
        } else if (arg.starts_with("-f")) {
            if (file_seen) {
                return Failure{std::string("option -f given twice")};
            }
            if (!take_value(args, i, opts.file)) {
                return Failure{std::string("option -f needs a file name")};
            }
            if (opts.file.empty()) {
                return Failure{std::string("option -f needs a file name")};
            }
            file_seen = true;
        } else if (arg.starts_with("-j")) {
            if (json_seen) {
                return Failure{std::string("option -j given twice")};
            }
            if (!take_value(args, i, opts.request)) {
                return Failure{std::string("option -j needs a request")};
            }
            json_seen = true;
        } else if (arg == "-b") {
            boot_seen = true;
        } else if (arg == "--metrics") {
            metrics_seen = true;
        } else if (arg.size() > 1 && arg.front() == '-') {
            return Failure{"unknown option " + std::string(arg)};
        } else {
            return Failure{"unexpected argument " + std::string(arg)};
        }
    }

    const int modes = (opts.commands.empty() ? 0 : 1) + (file_seen ? 1 : 0) +
                      (boot_seen ? 1 : 0) + (json_seen ? 1 : 0);
    if (modes > 1) {
        return Failure{std::string("-c, -f, -b and -j cannot be combined")};
    }
    if (metrics_seen && modes > 0) {
        return Failure{std::string("--metrics cannot be combined with -c, -f, -b or -j")};
    }
    if (!opts.commands.empty()) {
        opts.mode = Mode::commands;
    } else if (file_seen) {
        opts.mode = Mode::file;
    } else if (boot_seen) {
        opts.mode = Mode::boot;
    } else if (json_seen) {
        opts.mode = Mode::json;
    } else if (metrics_seen) {
        opts.mode = Mode::metrics;
    }
    return opts;
}

Result<Options, std::string> parse_args(int argc, const char *const argv[]) {
    std::vector<std::string_view> args;
    for (int i = 1; i < argc; ++i) {
        args.emplace_back(argv[i]);
    }
    return parse_args(args);
}

std::string_view usage_line() {
    return "usage: dhcpsh [-c COMMAND]... | -f FILE | -b | -j REQUEST | -h";
}

std::string help_text() {
    std::string text(usage_line());
    text +=
        "\n"
        "Shell of the DHCP server and relay.\n"
        "  (no option)  interactive: TAB completes, ? lists what may follow\n"
        "  -c COMMAND   run COMMAND from the privileged node; repeat for more,\n"
        "               stops at the first that fails\n"
        "  -f FILE      replay a configuration file in the configuration node\n"
        "  -b           replay the boot configuration ";
    text += CONFIG_STARTUP_FILE;
    text +=
        "\n"
        "  -j REQUEST   send one JSON request of the web interface and print\n"
        "               the reply exactly as it comes\n"
        "  --metrics    print the counters in the Prometheus text format\n"
        "  -h, --help   show this help\n"
        "The daemon is reached at ";
    text += VTY_SOCKET_PATH;
    text +=
        " ($DHCPSH_SOCKET overrides it),\n"
        "its JSON requests at ";
    text += DHCP_JSON_PATH;
    text +=
        " ($DHCPSH_JSON_SOCKET overrides it).\n"
        "Exit status: 0 success (-j: a reply, possibly empty, came), 1 a command\n"
        "failed, 2 usage or connection trouble.\n";
    return text;
}

}  // namespace dhcpsh
