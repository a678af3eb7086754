#include "lib/command.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstring>
#include <map>
#include <string_view>

#include "lib/log.h"
#include "lib/log_vty.h"
#include "lib/unique_fd.h"
#include "lib/vty.h"

namespace {

enum class tok_kind : std::uint8_t { keyword, range, ipv4, prefix, variable };

// How well a word fits a token; higher wins when several commands match.
enum match_rank : int {
    RANK_NONE = -1,
    RANK_VARIABLE = 0,
    RANK_TYPED = 1,  // range, address, prefix
    RANK_PARTIAL = 2,
    RANK_EXACT = 3,
};

struct alt {
    tok_kind kind = tok_kind::keyword;
    std::string text;
    std::int64_t lo = 0;
    std::int64_t hi = 0;
    std::string help;
};

struct token {
    std::vector<alt> alts;  // one, or several for a (a|b) choice
    bool choice = false;
    bool vararg = false;
    bool plain_keyword() const { return !choice && alts[0].kind == tok_kind::keyword; }
};

struct command {
    cmd_element *el = nullptr;
    std::vector<token> toks;
    bool has_vararg() const { return !toks.empty() && toks.back().vararg; }
};

struct node_rec {
    bool installed = false;
    cmd_node node{};
    std::string prompt;
    int (*writer)(vty *) = nullptr;
    std::vector<command> cmds;
};

struct engine {
    std::map<int, node_rec> nodes;
    bool initialised = false;
    std::string hostname;
    std::string config_file = CONFIG_STARTUP_FILE;
};

engine &eng() {
    static engine e;
    return e;
}

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}
bool is_upper(char c) {
    return c >= 'A' && c <= 'Z';
}

// Splits on blanks; stops after `max` words so a huge line costs nothing.
std::vector<std::string_view> split_words(std::string_view line, std::size_t max) {
    std::vector<std::string_view> words;
    std::size_t i = 0;
    while (i < line.size() && words.size() < max) {
        while (i < line.size() && is_blank(line[i])) {
            ++i;
        }
        std::size_t start = i;
        while (i < line.size() && !is_blank(line[i])) {
            ++i;
        }
        if (i > start) {
            words.push_back(line.substr(start, i - start));
        }
    }
    return words;
}

bool ends_with_blank(std::string_view line) {
    return !line.empty() && is_blank(line.back());
}

// ---- command string parsing ----

bool parse_int(std::string_view s, std::int64_t &out) {
    if (s.empty() || s.size() > 20) {
        return false;
    }
    const char *first = s.data();
    const char *last = s.data() + s.size();
    if (*first == '+') {
        return false;
    }
    auto [ptr, ec] = std::from_chars(first, last, out);
    return ec == std::errc() && ptr == last;
}

bool parse_range(std::string_view s, alt &a) {
    if (s.size() < 5 || s.front() != '<' || s.back() != '>') {
        return false;
    }
    std::string_view inner = s.substr(1, s.size() - 2);
    std::size_t dash = inner.find('-', 1);
    if (dash == std::string_view::npos) {
        return false;
    }
    if (!parse_int(inner.substr(0, dash), a.lo) || !parse_int(inner.substr(dash + 1), a.hi)) {
        return false;
    }
    return a.lo <= a.hi;
}

bool is_variable_name(std::string_view s) {
    bool upper = false;
    for (char c : s) {
        if (is_upper(c)) {
            upper = true;
        } else if (!is_digit(c) && c != '-' && c != '_' && c != '.') {
            return false;
        }
    }
    return upper;
}

alt parse_alt(std::string_view s) {
    alt a;
    a.text = std::string(s);
    if (s == "A.B.C.D") {
        a.kind = tok_kind::ipv4;
    } else if (s == "A.B.C.D/M") {
        a.kind = tok_kind::prefix;
    } else if (parse_range(s, a)) {
        a.kind = tok_kind::range;
    } else if (is_variable_name(s)) {
        a.kind = tok_kind::variable;
    }
    return a;
}

token parse_token(std::string_view s) {
    token t;
    if (s.size() >= 2 && s.front() == '(' && s.back() == ')') {
        t.choice = true;
        std::string_view inner = s.substr(1, s.size() - 2);
        while (true) {
            std::size_t bar = inner.find('|');
            std::string_view part = inner.substr(0, bar);
            if (!part.empty()) {
                t.alts.push_back(parse_alt(part));
            }
            if (bar == std::string_view::npos) {
                break;
            }
            inner.remove_prefix(bar + 1);
        }
        if (!t.alts.empty()) {
            return t;
        }
        t.choice = false;
    }
    if (s.size() > 1 && s.front() == '.' && is_variable_name(s.substr(1))) {
        t.vararg = true;
        alt a;
        a.kind = tok_kind::variable;
        a.text = std::string(s);
        t.alts.push_back(std::move(a));
        return t;
    }
    t.alts.push_back(parse_alt(s));
    return t;
}

// Words of a command string; a choice written with blanks inside stays one word.
std::vector<std::string> split_command_string(std::string_view s) {
    std::vector<std::string> out;
    std::string cur;
    int depth = 0;
    for (char c : s) {
        if (c == '(') {
            ++depth;
        } else if (c == ')' && depth > 0) {
            --depth;
        }
        if (is_blank(c)) {
            if (depth == 0 && !cur.empty()) {
                out.push_back(std::move(cur));
                cur.clear();
            }
            continue;
        }
        cur.push_back(c);
    }
    if (!cur.empty()) {
        out.push_back(std::move(cur));
    }
    return out;
}

std::vector<std::string> split_help(const char *doc) {
    std::vector<std::string> lines;
    std::string_view d = doc ? doc : "";
    while (!d.empty()) {
        std::size_t nl = d.find('\n');
        lines.emplace_back(d.substr(0, nl));
        if (nl == std::string_view::npos) {
            break;
        }
        d.remove_prefix(nl + 1);
    }
    return lines;
}

// A choice takes one help line per alternative; older strings give one per
// word, in which case the alternatives share it.
void assign_help(std::vector<token> &toks, const char *doc) {
    std::vector<std::string> lines = split_help(doc);
    std::size_t expanded = 0;
    for (const token &t : toks) {
        expanded += t.alts.size();
    }
    bool per_alt = lines.size() >= expanded;
    std::size_t next = 0;
    for (token &t : toks) {
        const std::string *shared = next < lines.size() ? &lines[next] : nullptr;
        for (alt &a : t.alts) {
            if (per_alt) {
                a.help = next < lines.size() ? lines[next] : "";
                ++next;
            } else {
                a.help = shared ? *shared : "";
            }
        }
        if (!per_alt) {
            ++next;
        }
    }
}

command parse_command(cmd_element *el) {
    command c;
    c.el = el;
    for (const std::string &w : split_command_string(el->string ? el->string : "")) {
        c.toks.push_back(parse_token(w));
    }
    // A variadic word swallows the rest; anything written after it is unreachable.
    for (std::size_t i = 0; i < c.toks.size(); ++i) {
        if (c.toks[i].vararg) {
            c.toks.resize(i + 1);
            break;
        }
    }
    assign_help(c.toks, el->doc);
    return c;
}

// ---- matching ----

bool all_of(std::string_view w, bool (*pred)(char)) {
    return std::all_of(w.begin(), w.end(), pred);
}
bool is_addr_char(char c) {
    return is_digit(c) || c == '.';
}
bool has_digit(std::string_view w) {
    return std::any_of(w.begin(), w.end(), is_digit);
}

bool ipv4_shape(std::string_view w) {
    return all_of(w, is_addr_char) && has_digit(w);
}

bool prefix_shape(std::string_view w) {
    std::size_t slash = w.find('/');
    if (slash == std::string_view::npos) {
        return false;
    }
    std::string_view len = w.substr(slash + 1);
    return ipv4_shape(w.substr(0, slash)) && !len.empty() && all_of(len, is_digit);
}

// What a prefix of an address or prefix may look like while being typed.
bool prefix_partial_shape(std::string_view w) {
    std::size_t slash = w.find('/');
    if (slash == std::string_view::npos) {
        return all_of(w, is_addr_char);
    }
    return all_of(w.substr(0, slash), is_addr_char) && all_of(w.substr(slash + 1), is_digit);
}

bool range_match(const alt &a, std::string_view w) {
    std::int64_t v = 0;
    return parse_int(w, v) && v >= a.lo && v <= a.hi;
}

// A partly typed number fits while more digits could still bring it in range.
bool range_partial(const alt &a, std::string_view w) {
    if (w.empty()) {
        return true;
    }
    if (w == "-") {
        return a.lo < 0;
    }
    std::int64_t v = 0;
    if (!parse_int(w, v)) {
        return false;
    }
    return v < 0 ? v >= a.lo : v <= a.hi;
}

int match_alt(const alt &a, std::string_view w) {
    switch (a.kind) {
        case tok_kind::keyword:
            if (w == a.text) {
                return RANK_EXACT;
            }
            return (!w.empty() && a.text.starts_with(w)) ? RANK_PARTIAL : RANK_NONE;
        case tok_kind::range:
            return range_match(a, w) ? RANK_TYPED : RANK_NONE;
        case tok_kind::ipv4:
            return ipv4_shape(w) ? RANK_TYPED : RANK_NONE;
        case tok_kind::prefix:
            return prefix_shape(w) ? RANK_TYPED : RANK_NONE;
        case tok_kind::variable:
            return w.empty() ? RANK_NONE : RANK_VARIABLE;
    }
    return RANK_NONE;
}

bool partial_alt(const alt &a, std::string_view w) {
    switch (a.kind) {
        case tok_kind::keyword:
            return a.text.starts_with(w);
        case tok_kind::range:
            return range_partial(a, w);
        case tok_kind::ipv4:
            return all_of(w, is_addr_char);
        case tok_kind::prefix:
            return prefix_partial_shape(w);
        case tok_kind::variable:
            return true;
    }
    return false;
}

struct word_match {
    int rank = RANK_NONE;
    const alt *hit = nullptr;
    bool multi = false;  // the word abbreviates several keywords of one choice
};

word_match match_token(const token &t, std::string_view w) {
    word_match m;
    for (const alt &a : t.alts) {
        int r = match_alt(a, w);
        if (r > m.rank) {
            m = word_match{r, &a, false};
        } else if (r == m.rank && r == RANK_PARTIAL) {
            m.multi = true;
        }
    }
    return m;
}

const token *token_at(const command &c, std::size_t i) {
    if (i < c.toks.size()) {
        return &c.toks[i];
    }
    return c.has_vararg() ? &c.toks.back() : nullptr;
}

bool complete_at(const command &c, std::size_t n) {
    return n == c.toks.size() || (c.has_vararg() && n >= c.toks.size());
}

using word_list = std::vector<std::string_view>;

bool matches_all(const command &c, const word_list &words, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const token *t = token_at(c, i);
        if (t == nullptr || match_token(*t, words[i]).rank == RANK_NONE) {
            return false;
        }
    }
    return true;
}

struct match_result {
    std::vector<const command *> cands;
    int status = CMD_SUCCESS;
};

// Keeps the best-ranked candidates for word i; an abbreviation of two
// different keywords is ambiguous.
bool narrow_word(std::vector<const command *> &cands, const word_list &words, std::size_t i) {
    std::vector<word_match> ms;
    int best = RANK_NONE;
    for (const command *c : cands) {
        ms.push_back(match_token(*token_at(*c, i), words[i]));
        best = std::max(best, ms.back().rank);
    }
    std::vector<const command *> kept;
    const std::string *keyword = nullptr;
    bool ambiguous = false;
    for (std::size_t k = 0; k < cands.size(); ++k) {
        if (ms[k].rank != best) {
            continue;
        }
        kept.push_back(cands[k]);
        if (best == RANK_PARTIAL) {
            ambiguous = ambiguous || ms[k].multi || (keyword && *keyword != ms[k].hit->text);
            keyword = &ms[k].hit->text;
        }
    }
    cands = std::move(kept);
    return !ambiguous;
}

match_result filter_commands(const node_rec *nr, const word_list &words, std::size_t count) {
    match_result r;
    if (nr == nullptr) {
        r.status = CMD_ERR_NO_MATCH;
        return r;
    }
    for (const command &c : nr->cmds) {
        if (matches_all(c, words, count)) {
            r.cands.push_back(&c);
        }
    }
    for (std::size_t i = 0; i < count && !r.cands.empty(); ++i) {
        if (!narrow_word(r.cands, words, i)) {
            r.status = CMD_ERR_AMBIGUOUS;
            return r;
        }
    }
    if (r.cands.empty()) {
        r.status = CMD_ERR_NO_MATCH;
    }
    return r;
}

const node_rec *find_node(int node) {
    auto it = eng().nodes.find(node);
    return it == eng().nodes.end() ? nullptr : &it->second;
}

node_rec &get_node(int node) {
    return eng().nodes[node];
}

// ---- execution ----

struct exec_outcome {
    int code = CMD_SUCCESS;
    bool ran = false;  // the code came from a handler, not from matching
};

bool is_comment_or_blank(std::string_view line) {
    for (char c : line) {
        if (!is_blank(c)) {
            return c == '!' || c == '#';
        }
    }
    return true;
}

std::vector<std::string> handler_args(const command &c, const word_list &words) {
    std::vector<std::string> args;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const token *t = token_at(c, i);
        if (t->plain_keyword()) {
            continue;
        }
        word_match m = match_token(*t, words[i]);
        bool full_keyword = m.hit != nullptr && m.hit->kind == tok_kind::keyword;
        args.emplace_back(full_keyword ? std::string_view(m.hit->text) : words[i]);
    }
    return args;
}

int run_handler(const command &c, const word_list &words, vty *vty) {
    std::vector<std::string> args = handler_args(c, words);
    std::vector<const char *> argv;
    argv.reserve(args.size() + 1);
    for (const std::string &a : args) {
        argv.push_back(a.c_str());
    }
    argv.push_back(nullptr);
    if (c.el->func == nullptr) {
        return CMD_WARNING;
    }
    return c.el->func(c.el, vty, static_cast<int>(args.size()), argv.data());
}

struct resolved {
    int status = CMD_SUCCESS;
    const command *cmd = nullptr;
};

resolved resolve(const word_list &words, int node) {
    match_result r = filter_commands(find_node(node), words, words.size());
    if (r.status != CMD_SUCCESS) {
        return {r.status, nullptr};
    }
    const command *found = nullptr;
    for (const command *c : r.cands) {
        if (complete_at(*c, words.size())) {
            if (found != nullptr) {
                return {CMD_ERR_AMBIGUOUS, nullptr};
            }
            found = c;
        }
    }
    return found ? resolved{CMD_SUCCESS, found} : resolved{CMD_ERR_INCOMPLETE, nullptr};
}

bool is_node_exit(const command *c);

// The line failed in a sub-node: run it in CONFIG_NODE as if "exit" came first.
exec_outcome execute_in_parent(const word_list &words, vty *vty, int original) {
    resolved r = resolve(words, CONFIG_NODE);
    if (r.status != CMD_SUCCESS) {
        return {original, false};
    }
    if (is_node_exit(r.cmd)) {
        // Leaving is relative to where the session really is.
        return {run_handler(*r.cmd, words, vty), true};
    }
    const int node = vty->node;
    void *index = vty->index;
    void *index_sub = vty->index_sub;
    vty->node = CONFIG_NODE;
    vty->index = nullptr;
    vty->index_sub = nullptr;
    int code = run_handler(*r.cmd, words, vty);
    if (code != CMD_SUCCESS && code != CMD_WARNING) {
        vty->node = node;
        vty->index = index;
        vty->index_sub = index_sub;
    }
    return {code, true};
}

exec_outcome execute_line(const char *line, vty *vty) {
    if (line == nullptr || is_comment_or_blank(line)) {
        return {};
    }
    if (vty == nullptr) {
        return {CMD_WARNING, false};
    }
    word_list words = split_words(line, CMD_ARGC_MAX + 1);
    if (words.size() > static_cast<std::size_t>(CMD_ARGC_MAX)) {
        return {CMD_ERR_EXEED_ARGC_MAX, false};
    }
    resolved r = resolve(words, vty->node);
    if (r.status == CMD_SUCCESS) {
        return {run_handler(*r.cmd, words, vty), true};
    }
    if (r.status == CMD_ERR_NO_MATCH && vty->node > CONFIG_NODE) {
        return execute_in_parent(words, vty, r.status);
    }
    return {r.status, false};
}

// ---- description and completion ----

void add_description(std::vector<cmd_description> &out, const alt &a) {
    bool seen = std::any_of(out.begin(), out.end(),
                            [&](const cmd_description &d) { return d.word == a.text; });
    if (!seen) {
        out.push_back({a.text, a.help});
    }
}

void sort_descriptions(std::vector<cmd_description> &out) {
    std::sort(out.begin(), out.end(), [](const cmd_description &a, const cmd_description &b) {
        bool acr = a.word == "<cr>";
        bool bcr = b.word == "<cr>";
        if (acr != bcr) {
            return bcr;
        }
        return a.word < b.word;
    });
}

struct line_parts {
    word_list words;
    std::string_view partial;  // the word being typed; empty after a blank
    std::size_t done = 0;      // words complete before it
    bool too_many = false;
};

line_parts split_line(const char *line) {
    line_parts p;
    std::string_view l = line ? line : "";
    p.words = split_words(l, CMD_ARGC_MAX + 1);
    p.too_many = p.words.size() > static_cast<std::size_t>(CMD_ARGC_MAX);
    p.done = p.words.size();
    if (!p.words.empty() && !ends_with_blank(l)) {
        --p.done;
        p.partial = p.words.back();
    }
    return p;
}

// Candidates whose words so far match, or the failure status.
match_result prepare(const line_parts &p, vty *vty) {
    match_result r;
    if (p.too_many) {
        r.status = CMD_ERR_EXEED_ARGC_MAX;
        return r;
    }
    return filter_commands(vty ? find_node(vty->node) : nullptr, p.words, p.done);
}

std::vector<cmd_description> describe(const line_parts &p, const match_result &r) {
    std::vector<cmd_description> out;
    bool typing = p.done < p.words.size();
    bool cr = false;
    for (const command *c : r.cands) {
        const token *t = token_at(*c, p.done);
        if (!typing && complete_at(*c, p.done)) {
            cr = true;
        }
        if (t == nullptr) {
            continue;
        }
        for (const alt &a : t->alts) {
            if (!typing || partial_alt(a, p.partial)) {
                add_description(out, a);
            }
        }
    }
    sort_descriptions(out);
    if (cr) {
        out.push_back({"<cr>", ""});
    }
    return out;
}

// ---- prompt ----

const char *default_prompt(int node) {
    switch (node) {
        case ENABLE_NODE:
            return "%s# ";
        case CONFIG_NODE:
            return "%s(config)# ";
        case INTERFACE_NODE:
            return "%s(config-if)# ";
        default:
            return node > CONFIG_NODE ? "%s(config)# " : "%s> ";
    }
}

// Fills "%s" in order with the given texts; never hands the format to printf.
std::string fill_prompt(std::string_view fmt, const std::string &first, const std::string &second) {
    std::string out;
    int used = 0;
    for (std::size_t i = 0; i < fmt.size(); ++i) {
        if (fmt[i] == '%' && i + 1 < fmt.size()) {
            char c = fmt[++i];
            if (c == 's') {
                out += used++ == 0 ? first : second;
            } else if (c == '%') {
                out += '%';
            }
            continue;
        }
        out += fmt[i];
    }
    return out;
}

std::string system_hostname() {
    char buf[256] = {};
    if (gethostname(buf, sizeof buf - 1) != 0 || buf[0] == '\0') {
        return "dhcpd";
    }
    return buf;
}

// ---- configuration saving ----

bool write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                errno = EIO;
            }
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

std::string parent_dir(const std::string &path) {
    std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool write_temp(const std::string &tmp, std::string_view text) {
    unique_fd fd(::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (fd.get() < 0) {
        return false;
    }
    if (!write_all(fd.get(), text) || ::fsync(fd.get()) != 0) {
        return false;
    }
    return fd.close() == 0;
}

void sync_dir(const std::string &path) {
    unique_fd dir(::open(parent_dir(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() >= 0) {
        ::fsync(dir.get());
    }
}

// ---- built-in commands ----

DEFUN(config_terminal, config_terminal_cmd, "configure terminal",
      "Configuration from vty interface\nConfiguration terminal\n") {
    vty->node = CONFIG_NODE;
    return CMD_SUCCESS;
}

DEFUN(config_exit, config_exit_cmd, "exit", "Exit current mode and down to previous mode\n") {
    if (vty->node > CONFIG_NODE) {
        vty->node = CONFIG_NODE;
    } else if (vty->node == CONFIG_NODE) {
        vty->node = ENABLE_NODE;
    } else {
        vty->status = VTY_CLOSE;
    }
    vty->index = nullptr;
    vty->index_sub = nullptr;
    return CMD_SUCCESS;
}

ALIAS(config_exit, config_quit_cmd, "quit", "Exit current mode and down to previous mode\n")

DEFUN(config_end, config_end_cmd, "end", "End current mode and change to enable mode\n") {
    if (vty->node >= CONFIG_NODE) {
        vty->node = ENABLE_NODE;
        vty->index = nullptr;
        vty->index_sub = nullptr;
    }
    return CMD_SUCCESS;
}

DEFUN(config_list, config_list_cmd, "list", "Print command list\n") {
    for (const std::string &s : cmd_list_node(vty->node)) {
        vty_out(vty, "%s%s", s.c_str(), VTY_NEWLINE);
    }
    return CMD_SUCCESS;
}

DEFUN(config_write_terminal, config_write_terminal_cmd, "write terminal",
      "Write running configuration to memory, network, or terminal\nWrite to terminal\n") {
    vty_write_config(vty);
    return CMD_SUCCESS;
}

DEFUN(show_running_config, show_running_config_cmd, "show running-config",
      SHOW_STR "Current operating configuration\n") {
    vty_write_config(vty);
    return CMD_SUCCESS;
}

DEFUN(config_write_file_func, config_write_file_cmd, "write file",
      "Write running configuration to memory, network, or terminal\n"
      "Write to configuration file\n") {
    const char *path = cmd_config_file();
    if (::config_write_file(path) != 0) {
        int err = errno;
        vty_out(vty, "%% Can't save configuration to %s: %s%s", path, std::strerror(err),
                VTY_NEWLINE);
        return CMD_WARNING;
    }
    vty_out(vty, "[OK]%s", VTY_NEWLINE);
    return CMD_SUCCESS;
}

ALIAS(config_write_file_func, config_write_memory_cmd, "write memory",
      "Write running configuration to memory, network, or terminal\n"
      "Write configuration to the file (same as write file)\n")

ALIAS(config_write_file_func, config_write_cmd, "write",
      "Write running configuration to memory, network, or terminal\n")

int config_node_write(vty *vty) {
    zlog_config_write(vty);
    return 0;
}

bool is_node_exit(const command *c) {
    return c->el == &config_exit_cmd || c->el == &config_quit_cmd || c->el == &config_end_cmd;
}

cmd_node enable_node = {ENABLE_NODE, "%s# ", 1};
cmd_node config_node = {CONFIG_NODE, "%s(config)# ", 1};

}  // namespace

// ---- public interface ----

void install_node(cmd_node *node, int (*func)(vty *)) {
    if (node == nullptr || node->node < 0 || node->node >= NODE_MAX) {
        return;
    }
    node_rec &nr = get_node(node->node);
    nr.installed = true;
    nr.node = *node;
    nr.prompt = node->prompt ? node->prompt : "";
    nr.writer = func ? func : node->func;
}

void install_element(int node, cmd_element *cmd) {
    if (cmd == nullptr || node < 0 || node >= NODE_MAX) {
        return;
    }
    node_rec &nr = get_node(node);
    command parsed = parse_command(cmd);
    if (parsed.toks.empty()) {
        return;
    }
    // The same text installed twice: the later handler takes over the slot.
    std::string_view text = cmd->string;
    for (command &c : nr.cmds) {
        if (c.el == cmd || text == c.el->string) {
            c = std::move(parsed);
            return;
        }
    }
    nr.cmds.push_back(std::move(parsed));
}

void install_default(int node) {
    install_element(node, &config_exit_cmd);
    install_element(node, &config_quit_cmd);
    install_element(node, &config_end_cmd);
    install_element(node, &config_list_cmd);
    install_element(node, &config_write_terminal_cmd);
    install_element(node, &config_write_file_cmd);
    install_element(node, &config_write_memory_cmd);
    install_element(node, &show_running_config_cmd);
}

void cmd_init(int /*terminal*/) {
    engine &e = eng();
    if (e.initialised) {
        return;
    }
    e.initialised = true;
    if (e.hostname.empty()) {
        e.hostname = system_hostname();
    }
    install_node(&enable_node, nullptr);
    install_node(&config_node, config_node_write);
    install_element(ENABLE_NODE, &config_terminal_cmd);
    install_element(ENABLE_NODE, &config_exit_cmd);
    install_element(ENABLE_NODE, &config_quit_cmd);
    install_element(ENABLE_NODE, &config_list_cmd);
    install_element(ENABLE_NODE, &show_running_config_cmd);
    install_element(ENABLE_NODE, &config_write_terminal_cmd);
    install_element(ENABLE_NODE, &config_write_file_cmd);
    install_element(ENABLE_NODE, &config_write_memory_cmd);
    install_element(ENABLE_NODE, &config_write_cmd);
    install_default(CONFIG_NODE);
    zlog_cmd_init();
}

void cmd_terminate() {
    engine &e = eng();
    e.nodes.clear();
    e.initialised = false;
    e.config_file = CONFIG_STARTUP_FILE;
}

int cmd_execute_command(const char *line, vty *vty) {
    return execute_line(line, vty).code;
}

int vty_command(vty *vty, const char *line) {
    exec_outcome r = execute_line(line, vty);
    if (r.ran) {
        return r.code;
    }
    switch (r.code) {
        case CMD_ERR_NO_MATCH:
            vty_out(vty, "%% Unknown command.%s", VTY_NEWLINE);
            break;
        case CMD_ERR_AMBIGUOUS:
            vty_out(vty, "%% Ambiguous command.%s", VTY_NEWLINE);
            break;
        case CMD_ERR_INCOMPLETE:
            vty_out(vty, "%% Command incomplete.%s", VTY_NEWLINE);
            break;
        case CMD_ERR_EXEED_ARGC_MAX:
            vty_out(vty, "%% Too many arguments.%s", VTY_NEWLINE);
            break;
        default:
            break;
    }
    return r.code;
}

std::vector<cmd_description> cmd_describe_command(const char *line, vty *vty, int *status) {
    line_parts p = split_line(line);
    match_result r = prepare(p, vty);
    std::vector<cmd_description> out;
    if (r.status == CMD_SUCCESS) {
        out = describe(p, r);
        if (out.empty()) {
            r.status = CMD_ERR_NO_MATCH;
        }
    }
    if (status != nullptr) {
        *status = r.status;
    }
    return out;
}

std::vector<std::string> cmd_complete_command(const char *line, vty *vty, int *status) {
    line_parts p = split_line(line);
    match_result r = prepare(p, vty);
    std::vector<std::string> out;
    for (const command *c : r.cands) {
        const token *t = token_at(*c, p.done);
        for (std::size_t i = 0; t != nullptr && i < t->alts.size(); ++i) {
            const alt &a = t->alts[i];
            if (a.kind == tok_kind::keyword && a.text.starts_with(p.partial)) {
                out.push_back(a.text);
            }
        }
    }
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    if (status != nullptr) {
        *status = r.status != CMD_SUCCESS ? r.status : out.empty() ? CMD_ERR_NO_MATCH : CMD_SUCCESS;
    }
    return out;
}

std::string cmd_prompt(vty *vty) {
    if (vty == nullptr) {
        return {};
    }
    const node_rec *nr = find_node(vty->node);
    std::string fmt = nr && !nr->prompt.empty() ? nr->prompt : default_prompt(vty->node);
    std::string arg;
    if (nr && nr->node.prompt_arg) {
        const char *s = nr->node.prompt_arg(vty);
        arg = s ? s : "";
    }
    return fill_prompt(fmt, cmd_hostname(), arg);
}

std::vector<std::string> cmd_list_node(int node) {
    std::vector<std::string> out;
    if (const node_rec *nr = find_node(node)) {
        for (const command &c : nr->cmds) {
            out.emplace_back(c.el->string);
        }
    }
    return out;
}

void vty_write_config(vty *vty) {
    vty_out(vty, "!%s", VTY_NEWLINE);
    for (const auto &[num, nr] : eng().nodes) {
        if (nr.writer != nullptr) {
            nr.writer(vty);
        }
    }
    vty_out(vty, "end%s", VTY_NEWLINE);
}

int config_write_file(const char *path) {
    if (path == nullptr || *path == '\0') {
        errno = EINVAL;
        return -1;
    }
    std::unique_ptr<vty> mem = vty_new(VTY_FILE);
    vty_write_config(mem.get());
    std::string target = path;
    std::string tmp = target + ".tmp";
    if (!write_temp(tmp, mem->obuf) || ::rename(tmp.c_str(), target.c_str()) != 0) {
        int err = errno;
        ::unlink(tmp.c_str());
        errno = err;
        return -1;
    }
    sync_dir(target);
    return 0;
}

const char *cmd_config_file() {
    return eng().config_file.c_str();
}

void cmd_set_config_file(const char *path) {
    eng().config_file = (path && *path) ? path : CONFIG_STARTUP_FILE;
}

const char *cmd_hostname() {
    engine &e = eng();
    if (e.hostname.empty()) {
        e.hostname = system_hostname();
    }
    return e.hostname.c_str();
}

void cmd_set_hostname(const char *name) {
    eng().hostname = (name && *name) ? name : system_hostname();
}
