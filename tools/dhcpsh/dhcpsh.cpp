// dhcpsh: the operator's shell of dhcpd. The terminal front end lives here;
// everything it asks the daemon goes through dhcpsh_core.
#include <readline/history.h>
#include <readline/readline.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "tools/dhcpsh/cmdline.h"
#include "tools/dhcpsh/shell.h"

namespace {

using dhcpsh::Session;

// Readline calls back through plain functions, so the session has to be reachable from them.
Session *g_session = nullptr;
std::vector<std::string> g_candidates;
std::size_t g_next_candidate = 0;
volatile std::sig_atomic_t g_interrupted = 0;

void on_sigint(int) {
    g_interrupted = 1;
}

void catch_sigint(bool on) {
    struct sigaction sa {};
    sa.sa_handler = on ? on_sigint : SIG_DFL;
    sigemptyset(&sa.sa_mask);
    // No SA_RESTART: readline's read must see EINTR to call our hook.
    sa.sa_flags = 0;
    sigaction(SIGINT, &sa, nullptr);
}

// Ctrl-C abandons the line being typed; the session and its node stay as they are.
int on_signal_event() {
    if (g_interrupted != 0) {
        g_interrupted = 0;
        rl_echo_signal_char(SIGINT);
        rl_free_line_state();
        rl_replace_line("", 0);
        rl_point = 0;
        rl_crlf();
        rl_on_new_line();
        rl_redisplay();
    }
    return 0;
}

void print_under_line(std::string_view text) {
    if (text.empty()) {
        return;
    }
    std::fwrite(text.data(), 1, text.size(), rl_outstream);
    if (text.back() != '\n') {
        std::fputc('\n', rl_outstream);
    }
}

// `?`: the daemon's help for what may follow, then the line again as it was.
int on_describe(int, int) {
    const int point = rl_point;
    rl_point = rl_end;
    rl_redisplay();
    rl_crlf();
    std::fflush(rl_outstream);
    auto reply = g_session->describe(rl_line_buffer, std::cerr);
    if (!reply) {
        rl_done = 1;
        return 0;
    }
    print_under_line(reply->text);
    std::fflush(rl_outstream);
    rl_point = point;
    // Readline redraws prompt and line itself once we return; drawing them
    // here as well left it believing the line was on screen twice, and it
    // erased it.
    rl_on_new_line();
    return 0;
}

char *next_candidate(const char *text, int state) {
    if (state == 0) {
        g_next_candidate = 0;
    }
    const std::string_view typed(text);
    while (g_next_candidate < g_candidates.size()) {
        const std::string &word = g_candidates[g_next_candidate++];
        if (word.starts_with(typed) && !dhcpsh::is_placeholder(word)) {
            // Readline frees the matches with free().
            return strdup(word.c_str());
        }
    }
    return nullptr;
}

// TAB: the daemon completes the word before the cursor.
char **on_complete(const char *text, int, int) {
    rl_attempted_completion_over = 1;  // never fall back to file names
    auto candidates = g_session->complete(
        std::string_view(rl_line_buffer, static_cast<std::size_t>(rl_point)), std::cerr);
    if (!candidates) {
        rl_done = 1;
        return nullptr;
    }
    g_candidates = std::move(*candidates);
    return rl_completion_matches(text, next_candidate);
}

int exit_status(Session::Step step) {
    return step == Session::Step::ended ? dhcpsh::kExitOk : dhcpsh::kExitTrouble;
}

int interactive(const dhcpsh::Settings &settings) {
    auto client = dhcpsh::connect_or_complain(settings.socket_path, std::cerr);
    if (!client) {
        return dhcpsh::kExitTrouble;
    }
    Session session(std::move(*client));
    if (session.start(std::cerr) != Session::Step::more) {
        return dhcpsh::kExitTrouble;
    }
    g_session = &session;
    // The readline hooks reach the session through g_session: never leave it
    // pointing at this frame once we return.
    struct forget_session {
        ~forget_session() { g_session = nullptr; }
    } forget;

    rl_readline_name = "dhcpsh";
    rl_catch_signals = 0;
    rl_signal_event_hook = on_signal_event;
    rl_attempted_completion_function = on_complete;
    rl_completer_word_break_characters = " \t";
    rl_sort_completion_matches = 0;  // the daemon's order
    rl_bind_key('?', on_describe);
    using_history();

    for (;;) {
        g_interrupted = 0;
        catch_sigint(true);
        const std::unique_ptr<char, decltype(&std::free)> line(readline(session.prompt().c_str()),
                                                               &std::free);
        // Outside readline Ctrl-C is the usual way out of a daemon that does not answer.
        catch_sigint(false);

        // `?` or TAB may have found the session gone.
        if (session.state() != Session::Step::more) {
            return exit_status(session.state());
        }
        if (!line) {
            std::fputc('\n', stdout);  // leave the shell's prompt on a line of its own
            return dhcpsh::kExitOk;
        }
        if (!dhcpsh::trim(line.get()).empty()) {
            add_history(line.get());
        }
        const Session::Step step = session.execute(line.get(), std::cout, std::cerr);
        std::cout.flush();
        if (step != Session::Step::more) {
            return exit_status(step);
        }
    }
}

int run_main(int argc, char *argv[]) {
    auto opts = dhcpsh::parse_args(argc, argv);
    if (!opts) {
        std::cerr << dhcpsh::usage_error(opts.error());
        return dhcpsh::kExitTrouble;
    }
    const dhcpsh::Settings settings =
        dhcpsh::settings_from_env(std::getenv("DHCPSH_SOCKET"), std::getenv("DHCPSH_JSON_SOCKET"));
    if (opts->mode == dhcpsh::Mode::interactive && isatty(STDIN_FILENO) != 0 &&
        isatty(STDOUT_FILENO) != 0) {
        return interactive(settings);
    }
    return dhcpsh::run(*opts, settings, std::cin, std::cout, std::cerr);
}

}  // namespace

int main(int argc, char *argv[]) {
    try {
        const int status = run_main(argc, argv);
        std::cout.flush();
        return status;
    } catch (const std::exception &e) {
        std::cerr << "dhcpsh: " << e.what() << '\n';
    } catch (...) {
        std::cerr << "dhcpsh: unexpected error\n";
    }
    return dhcpsh::kExitTrouble;
}
