#include "tools/dhcpsh/shell.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <istream>
#include <ostream>

#include "tools/dhcpsh/jsonclient.h"
#include "tools/dhcpsh/metrics.h"

namespace dhcpsh {

namespace {

// A switch's configuration is kilobytes; this only stops a wrong path from eating memory.
constexpr std::size_t kMaxFile = std::size_t{64} << 20;

constexpr std::string_view kBlanks = " \t\r\n\f\v";

std::string failure_text(const Reply &reply) {
    const std::string_view text = trim(reply.text);
    if (!text.empty()) {
        return std::string(text);
    }
    return "failed (result " + std::to_string(reply.code) + ")";
}

std::string_view strip_cr(std::string_view line) {
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return line;
}

}  // namespace

Settings settings_from_env(const char *socket_env, const char *json_env) {
    Settings settings;
    if (socket_env != nullptr && *socket_env != '\0') {
        settings.socket_path = socket_env;
    }
    if (json_env != nullptr && *json_env != '\0') {
        settings.json_path = json_env;
    }
    return settings;
}

std::string_view trim(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    const std::size_t last = text.find_last_not_of(kBlanks);
    return text.substr(first, last - first + 1);
}

void print_output(std::ostream &out, std::string_view text) {
    if (text.empty()) {
        return;
    }
    out << text;
    if (text.back() != '\n') {
        out << '\n';
    }
}

std::vector<std::string> split_lines(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const std::size_t nl = text.find('\n');
        const std::string_view line = strip_cr(text.substr(0, nl));
        if (!line.empty()) {
            lines.emplace_back(line);
        }
        if (nl == std::string_view::npos) {
            break;
        }
        text.remove_prefix(nl + 1);
    }
    return lines;
}

bool is_placeholder(std::string_view word) {
    if (word.empty() || word.front() == '<' || word.front() == '(' || word.front() == '.') {
        return true;
    }
    // Variables are upper case (IFNAME, A.B.C.D/M); keywords always carry a lower-case letter
    // or are plain numbers.
    bool upper = false;
    for (const char c : word) {
        if (c >= 'a' && c <= 'z') {
            return false;
        }
        upper = upper || (c >= 'A' && c <= 'Z');
    }
    return upper;
}

bool may_end_session(std::string_view line) {
    line = trim(line);
    const std::string_view word = line.substr(0, line.find_first_of(kBlanks));
    if (word.empty()) {
        return false;
    }
    // The daemon takes unique prefixes, so "ex" or "q" may well be exit or quit.
    return std::string_view("exit").starts_with(word) || std::string_view("quit").starts_with(word);
}

std::string usage_error(std::string_view why) {
    std::string text = "dhcpsh: ";
    text += why;
    text += '\n';
    text += usage_line();
    text += '\n';
    return text;
}

Result<std::string, int> read_file(const std::string &path) {
    unique_fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        return Failure{errno};
    }
    std::string contents;
    std::array<char, std::size_t{16} * 1024> chunk{};
    for (;;) {
        const ssize_t n = ::read(fd.get(), chunk.data(), chunk.size());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return Failure{errno};
        }
        if (n == 0) {
            return contents;
        }
        if (contents.size() + static_cast<std::size_t>(n) > kMaxFile) {
            return Failure{EFBIG};
        }
        contents.append(chunk.data(), static_cast<std::size_t>(n));
    }
}

std::optional<VtyClient> connect_or_complain(const std::string &path, std::ostream &err) {
    auto client = VtyClient::connect(path);
    if (!client) {
        err << "dhcpsh: cannot connect to " << path << ": " << std::strerror(client.error())
            << '\n';
        return std::nullopt;
    }
    return std::move(client).value();
}

int run_commands(VtyClient &client, std::span<const std::string> commands, std::ostream &out,
                 std::ostream &err) {
    for (const std::string &command : commands) {
        auto reply = client.request(RequestKind::execute, command);
        if (!reply) {
            err << "dhcpsh: " << reply.error().message << '\n';
            return reply.error().kind == VtyError::Kind::bad_request ? kExitFailed : kExitTrouble;
        }
        print_output(out, reply->text);
        if (reply->code != CMD_SUCCESS) {
            return kExitFailed;
        }
    }
    return kExitOk;
}

int replay_config(VtyClient &client, std::string_view contents, std::string_view name,
                  std::ostream &out, std::ostream &err) {
    auto enter = client.request(RequestKind::execute, "configure terminal");
    if (!enter) {
        err << "dhcpsh: " << enter.error().message << '\n';
        return kExitTrouble;
    }
    if (enter->code != CMD_SUCCESS) {
        // Replaying in the privileged node would run the lines somewhere else entirely.
        err << "dhcpsh: " << name << ": configure terminal: " << failure_text(*enter) << '\n';
        return kExitFailed;
    }

    bool failed = false;
    std::size_t lineno = 0;
    while (!contents.empty()) {
        const std::size_t nl = contents.find('\n');
        const std::string_view line = strip_cr(contents.substr(0, nl));
        contents.remove_prefix(nl == std::string_view::npos ? contents.size() : nl + 1);
        ++lineno;

        const std::string_view body = trim(line);
        if (body.empty() || body.front() == '!' || body.front() == '#') {
            continue;
        }
        auto reply = client.request(RequestKind::execute, line);
        if (!reply) {
            err << "dhcpsh: " << name << ':' << lineno << ": " << body << ": "
                << reply.error().message << '\n';
            if (reply.error().kind != VtyError::Kind::bad_request) {
                return kExitTrouble;
            }
            failed = true;
            continue;
        }
        if (reply->code != CMD_SUCCESS) {
            err << "dhcpsh: " << name << ':' << lineno << ": " << body << ": "
                << failure_text(*reply) << '\n';
            failed = true;
            continue;
        }
        print_output(out, reply->text);
    }

    auto leave = client.request(RequestKind::execute, "end");
    if (!leave) {
        err << "dhcpsh: " << name << ": end: " << leave.error().message << '\n';
        return kExitTrouble;
    }
    return failed ? kExitFailed : kExitOk;
}

Session::Step Session::trouble(const VtyError &error, std::ostream &err) {
    if (error.kind == VtyError::Kind::bad_request) {
        err << "dhcpsh: " << error.message << '\n';
        return Step::more;
    }
    if (error.kind == VtyError::Kind::closed && after_exit_) {
        // The hang-up after exit came later than we waited for it.
        state_ = Step::ended;
        return state_;
    }
    err << "dhcpsh: " << error.message << '\n';
    state_ = Step::lost;
    return state_;
}

Session::Step Session::start(std::ostream &err) {
    auto reply = client_.request(RequestKind::prompt, "");
    if (!reply) {
        return trouble(reply.error(), err);
    }
    prompt_ = std::move(reply->prompt);
    return Step::more;
}

Session::Step Session::execute(std::string_view line, std::ostream &out, std::ostream &err) {
    if (trim(line).empty()) {
        return Step::more;
    }
    auto reply = client_.request(RequestKind::execute, line);
    if (!reply) {
        return trouble(reply.error(), err);
    }
    print_output(out, reply->text);
    after_exit_ = reply->code == CMD_SUCCESS && may_end_session(line);
    // Leaving a configuration node changes the prompt; leaving the session does not.
    const bool same_node = reply->prompt.empty() || reply->prompt == prompt_;
    if (!reply->prompt.empty()) {
        prompt_ = std::move(reply->prompt);
    }
    if (after_exit_ && same_node && client_.wait_closed(close_wait_)) {
        state_ = Step::ended;
    }
    return state_;
}

std::optional<Reply> Session::describe(std::string_view line, std::ostream &err) {
    auto reply = client_.request(RequestKind::describe, line);
    if (!reply) {
        trouble(reply.error(), err);
        return std::nullopt;
    }
    return std::move(reply).value();
}

std::optional<std::vector<std::string>> Session::complete(std::string_view line,
                                                          std::ostream &err) {
    auto reply = client_.request(RequestKind::complete, line);
    if (!reply) {
        trouble(reply.error(), err);
        return std::nullopt;
    }
    if (reply->code != CMD_SUCCESS) {
        return std::vector<std::string>{};
    }
    return split_lines(reply->text);
}

int run_script(Session &session, std::istream &in, std::ostream &out, std::ostream &err) {
    if (session.start(err) != Session::Step::more) {
        return kExitTrouble;
    }
    std::string line;
    while (std::getline(in, line)) {
        switch (session.execute(strip_cr(line), out, err)) {
            case Session::Step::more:
                break;
            case Session::Step::ended:
                return kExitOk;
            case Session::Step::lost:
                return kExitTrouble;
        }
        out.flush();
    }
    return kExitOk;
}

int run_json(const std::string &path, std::string_view request, std::ostream &out,
             std::ostream &err) {
    auto reply = json_request(path, request);
    if (!reply) {
        err << "dhcpsh: " << reply.error().message << '\n';
        return kExitTrouble;
    }
    out.write(reply->data(), static_cast<std::streamsize>(reply->size()));
    return kExitOk;
}

int run(const Options &opts, const Settings &settings, std::istream &in, std::ostream &out,
        std::ostream &err) {
    switch (opts.mode) {
        case Mode::help:
            out << help_text();
            return kExitOk;

        case Mode::commands: {
            auto client = connect_or_complain(settings.socket_path, err);
            if (!client) {
                return kExitTrouble;
            }
            return run_commands(*client, opts.commands, out, err);
        }

        case Mode::file:
        case Mode::boot: {
            const bool boot = opts.mode == Mode::boot;
            const std::string &path = boot ? settings.boot_file : opts.file;
            auto contents = read_file(path);
            if (!contents) {
                // No boot configuration yet is the factory state, not a fault.
                if (boot && contents.error() == ENOENT) {
                    return kExitOk;
                }
                err << "dhcpsh: cannot open " << path << ": " << std::strerror(contents.error())
                    << '\n';
                return kExitTrouble;
            }
            auto client = connect_or_complain(settings.socket_path, err);
            if (!client) {
                return kExitTrouble;
            }
            return replay_config(*client, *contents, path, out, err);
        }

        case Mode::json:
            return run_json(settings.json_path, opts.request, out, err);
        case Mode::metrics:
            return run_metrics(settings.json_path, out, err);

        case Mode::interactive: {
            auto client = connect_or_complain(settings.socket_path, err);
            if (!client) {
                return kExitTrouble;
            }
            Session session(std::move(*client));
            return run_script(session, in, out, err);
        }
    }
    return kExitTrouble;
}

}  // namespace dhcpsh
