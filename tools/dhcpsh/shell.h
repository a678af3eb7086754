// What dhcpsh does in each mode, without the terminal: the readline front end
// in dhcpsh.cpp drives a Session; everything else runs from run().
#pragma once

#include <chrono>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dhcp/dhcp_json.h"
#include "lib/command.h"
#include "lib/vty_proto.h"
#include "tools/dhcpsh/cmdline.h"
#include "tools/dhcpsh/result.h"
#include "tools/dhcpsh/vtyclient.h"

namespace dhcpsh {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;   // a command or configuration line failed
constexpr int kExitTrouble = 2;  // usage, an unreadable file, no daemon, a broken connection

struct Settings {
    std::string socket_path = VTY_SOCKET_PATH;
    std::string boot_file = CONFIG_STARTUP_FILE;
    std::string json_path = DHCP_JSON_PATH;
};
// `socket_env` is $DHCPSH_SOCKET, `json_env` $DHCPSH_JSON_SOCKET (null or
// empty: the default path).
Settings settings_from_env(const char *socket_env, const char *json_env = nullptr);

std::string_view trim(std::string_view text);
// A reply's text as printed: ends with a newline unless it is empty.
void print_output(std::ostream &out, std::string_view text);
// The non-empty lines of a reply (completion candidates).
std::vector<std::string> split_lines(std::string_view text);
// A completion candidate that stands for a value (A.B.C.D, <1-100>, NAME)
// rather than a word to insert.
bool is_placeholder(std::string_view word);
// Whether the line could be "exit" or "quit", after which the daemon may hang up.
bool may_end_session(std::string_view line);
// "dhcpsh: WHY" and the usage line, for stderr.
std::string usage_error(std::string_view why);

// Whole file; the error is an errno value.
Result<std::string, int> read_file(const std::string &path);

// Connects, or prints "cannot connect to PATH: reason" on `err`.
std::optional<VtyClient> connect_or_complain(const std::string &path, std::ostream &err);

// -c: runs the commands in order, printing only their output; stops at the
// first whose result is not CMD_SUCCESS.
int run_commands(VtyClient &client, std::span<const std::string> commands, std::ostream &out,
                 std::ostream &err);

// -f / -b: replays `contents` in the configuration node. Failed lines are
// reported on `err` as "dhcpsh: NAME:LINE: TEXT: OUTPUT" and the replay goes on.
int replay_config(VtyClient &client, std::string_view contents, std::string_view name,
                  std::ostream &out, std::ostream &err);

// An interactive session: the terminal front end and piped stdin share it.
class Session {
  public:
    enum class Step {
        more,   // go on reading lines
        ended,  // the daemon hung up after exit/quit: leave with status 0
        lost,   // the connection broke (already reported): leave with status 2
    };

    explicit Session(VtyClient client) : client_(std::move(client)) {}

    // Fetches the prompt of the new session.
    Step start(std::ostream &err);
    Step execute(std::string_view line, std::ostream &out, std::ostream &err);
    // `?` and TAB; nullopt when the session is over (see state()).
    std::optional<Reply> describe(std::string_view line, std::ostream &err);
    std::optional<std::vector<std::string>> complete(std::string_view line, std::ostream &err);

    const std::string &prompt() const { return prompt_; }
    // more while the session lives; what ended it otherwise.
    Step state() const { return state_; }
    // How long to wait for the hang-up after an exit that looks final.
    void set_close_wait(std::chrono::milliseconds wait) { close_wait_ = wait; }

  private:
    Step trouble(const VtyError &error, std::ostream &err);

    VtyClient client_;
    std::string prompt_;
    bool after_exit_ = false;  // the last command may have ended the session
    Step state_ = Step::more;
    std::chrono::milliseconds close_wait_{500};
};

// Lines from a pipe: outputs only, no prompts.
int run_script(Session &session, std::istream &in, std::ostream &out, std::ostream &err);

// -j: sends `request` to the JSON socket at `path` and prints the reply
// exactly as it came (nothing for an empty one).
int run_json(const std::string &path, std::string_view request, std::ostream &out,
             std::ostream &err);

// Every mode but the terminal one; interactive mode reads lines from `in`.
int run(const Options &opts, const Settings &settings, std::istream &in, std::ostream &out,
        std::ostream &err);

}  // namespace dhcpsh
