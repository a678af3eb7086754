// The shell protocol on the vty socket: arbitrary bytes from one client
// through the server's framing, checked against a model of vty_proto.h.
//
// The replies read back are whole frames (text without NUL, NUL, code,
// prompt, NUL), one per request the model finds in the stream, in order,
// until the session ends: a request longer than VTY_MAXLINE gets the
// refusal and its rest is skipped, an unknown kind byte gets "% Unknown
// request." with CMD_WARNING, 'P' an empty text with CMD_SUCCESS; a session
// that ends early does so after an execute request (exit or quit). Bytes
// after the last NUL get no reply.
//
// The command set is the fuzzer's own (node changes, exit, output of chosen
// sizes): the framing is under test here, the command engine has its own
// target, and no command touches the host.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_common.h"
#include "lib/command.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "lib/vty.h"
#include "lib/vty_proto.h"

namespace {

DEFUN(fz_configure, fz_configure_cmd, "configure terminal", "Configure\nTerminal\n") {
    vty->node = CONFIG_NODE;
    return CMD_SUCCESS;
}

DEFUN(fz_exit, fz_exit_cmd, "exit", "Exit\n") {
    if (vty->node == CONFIG_NODE) {
        vty->node = ENABLE_NODE;
    } else {
        vty->status = VTY_CLOSE;
    }
    return CMD_SUCCESS;
}

ALIAS(fz_exit, fz_quit_cmd, "quit", "Exit\n")

DEFUN(fz_echo, fz_echo_cmd, "echo .WORDS", "Echo\nWords\n") {
    for (int i = 0; i < argc; ++i) {
        vty_out(vty, "%s%s", argv[i], i + 1 < argc ? " " : VTY_NEWLINE);
    }
    return CMD_SUCCESS;
}

DEFUN(fz_fill, fz_fill_cmd, "fill <0-65535>", "Output\nBytes\n") {
    const std::string text(static_cast<std::size_t>(std::atoi(argv[0])), 'x');
    vty_out(vty, "%s", text.c_str());
    return CMD_SUCCESS;
}

DEFUN(fz_warn, fz_warn_cmd, "warn (once|twice)", "Warn\nOnce\nTwice\n") {
    vty_out(vty, "%% warned %s%s", argv[0], VTY_NEWLINE);
    return CMD_WARNING;
}

cmd_node enable = {ENABLE_NODE, "%s# ", 1};
cmd_node config = {CONFIG_NODE, "%s(config)# ", 1};

thread_master *master = nullptr;
std::string path;

bool set_up() {
    fuzz_quiet_log();
    cmd_set_hostname("fz");
    install_node(&enable, nullptr);
    install_node(&config, nullptr);
    for (int node : {ENABLE_NODE, CONFIG_NODE}) {
        for (cmd_element *c :
             {&fz_exit_cmd, &fz_quit_cmd, &fz_echo_cmd, &fz_fill_cmd, &fz_warn_cmd}) {
            install_element(node, c);
        }
    }
    install_element(ENABLE_NODE, &fz_configure_cmd);
    char dir[] = "/tmp/fuzz-vty.XXXXXX";
    require(::mkdtemp(dir) != nullptr);
    path = std::string(dir) + "/vty";
    master = thread_master_create();
    vty_init(master);
    require(vty_serv_sock(nullptr, 0, path.c_str()) == 0);
    return true;
}

constexpr int REFUSED = 0x100;  // a request refused for its length

struct request {
    int kind;  // the kind byte, 0 for an empty frame, or REFUSED
};

// The requests the server must answer, in order.
std::vector<request> model(std::string_view in) {
    std::vector<request> out;
    std::size_t frame = 0;  // bytes of the current frame, kind included
    int kind = 0;
    bool discarding = false;
    while (!in.empty()) {
        const std::size_t nul = in.find('\0');
        const std::string_view chunk = in.substr(0, nul);
        const bool ended = nul != std::string_view::npos;
        in = ended ? in.substr(nul + 1) : std::string_view();
        if (discarding) {
            discarding = !ended;
            continue;
        }
        if (frame + chunk.size() > VTY_MAXLINE + 1) {
            frame = 0;
            discarding = !ended;
            out.push_back({REFUSED});
            continue;
        }
        if (frame == 0 && !chunk.empty()) {
            kind = static_cast<unsigned char>(chunk[0]);
        }
        frame += chunk.size();
        if (ended) {
            out.push_back({frame == 0 ? 0 : kind});
            frame = 0;
        }
    }
    return out;
}

struct reply {
    std::string text;
    int code;
    std::string prompt;
};

// Whole frames from the bytes read; what is left must be empty at the end.
std::vector<reply> parse(std::string_view in) {
    std::vector<reply> out;
    for (;;) {
        const std::size_t a = in.find('\0');
        if (a == std::string_view::npos || a + 2 > in.size()) {
            break;
        }
        const std::size_t b = in.find('\0', a + 2);
        if (b == std::string_view::npos) {
            break;
        }
        out.push_back({std::string(in.substr(0, a)), static_cast<unsigned char>(in[a + 1]),
                       std::string(in.substr(a + 2, b - a - 2))});
        in = in.substr(b + 1);
    }
    require(in.empty());
    return out;
}

int connect_client() {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    require(fd >= 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::memcpy(sa.sun_path, path.c_str(), path.size() + 1);
    require(::connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0);
    return fd;
}

// Whole reply frames in the bytes read (the code byte may be a NUL too).
std::size_t frames(std::string_view got) {
    std::size_t n = 0;
    for (;;) {
        const std::size_t a = got.find('\0');
        const std::size_t b = a == std::string_view::npos || a + 2 > got.size()
                                  ? std::string_view::npos
                                  : got.find('\0', a + 2);
        if (b == std::string_view::npos) {
            return n;
        }
        ++n;
        got.remove_prefix(b + 1);
    }
}

// Runs the server while sending the input, until `want` replies came back
// or it hung up. The client never half-closes: the server drops a session
// at end of input, replies not yet sent included.
std::string converse(int fd, std::string_view in, std::size_t want) {
    std::string got;
    for (bool eof = false; !eof && frames(got) < want;) {
        if (!in.empty()) {
            const ssize_t n = ::send(fd, in.data(), in.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n > 0) {
                in.remove_prefix(static_cast<std::size_t>(n));
            } else if (n < 0 && errno != EAGAIN) {
                in = {};  // the server hung up first
            }
        }
        thread_run_once(master, 1);
        char buf[65536];
        for (ssize_t n; !eof && (n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT)) != -1;) {
            eof = n == 0;
            got.append(buf, static_cast<std::size_t>(n));
        }
    }
    return got;
}

bool known_prompt(const std::string &p) {
    return p == "fz# " || p == "fz(config)# ";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const bool ready = set_up();
    (void)ready;
    const std::string_view in(reinterpret_cast<const char *>(data), size);
    const std::vector<request> want = model(in);
    const int fd = connect_client();
    const std::vector<reply> got = parse(converse(fd, in, want.size()));
    ::close(fd);
    // The server notices the hang-up before the next input connects.
    while (vty_session_count() != 0) {
        thread_run_once(master, 1);
    }

    require(got.size() <= want.size());
    for (std::size_t i = 0; i < got.size(); ++i) {
        const reply &r = got[i];
        require(known_prompt(r.prompt));
        switch (want[i].kind) {
            case REFUSED:
                require(r.code == CMD_WARNING &&
                        r.text == "% Line too long, refused (more than 4096 bytes).\n");
                break;
            case VTY_REQ_PROMPT:
                require(r.code == CMD_SUCCESS && r.text.empty());
                break;
            case VTY_REQ_EXECUTE:
            case VTY_REQ_DESCRIBE:
            case VTY_REQ_COMPLETE:
                require(r.code >= CMD_SUCCESS && r.code <= CMD_ERR_LIMIT_REACHED);
                break;
            default:
                require(r.code == CMD_WARNING && r.text == "% Unknown request.\n");
        }
    }
    // A session ends early only after it ran exit or quit.
    if (got.size() < want.size()) {
        require(!got.empty() && want[got.size() - 1].kind == VTY_REQ_EXECUTE);
    }
    return 0;
}
