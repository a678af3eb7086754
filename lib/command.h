// The CLI engine: command nodes, command tables, matching and execution.
//
// A command is a `cmd_element`: its command string, its handler and its help
// text, one help line per word of the string. Words of a command string:
//   keyword          matched by unique prefix ("conf t" -> "configure terminal")
//   (a|b|c)          one of the keywords, passed to the handler in full
//   A.B.C.D          an IPv4 address, matched by shape (digits and dots), so a
//                    value such as 300.1.1.1 reaches the handler, which says
//                    what is wrong with it
//   A.B.C.D/M        an IPv4 prefix, matched by shape
//   <lo-hi>          a decimal number in the range, enforced by the engine
//   NAME, IFNAME ... any upper-case word: one argument of any text
//   MM-MM-MM-MM-MM-MM a MAC address text (an upper-case variable)
//   .DNSLIST         variadic: one or more further arguments
// Handlers get only the arguments (choices, variables, ranges), in order.
// A line matches a command when every word matches and the command has no
// more words; an exact keyword beats a prefix, a keyword beats a variable.
#pragma once

#include <string>
#include <vector>

struct vty;

// Node numbers are fixed: other tools and the configuration refer to them.
enum node_type {
    AUTH_NODE = 0,
    RESTRICTED_NODE = 1,
    VIEW_NODE = 2,
    AUTH_ENABLE_NODE = 3,
    ENABLE_NODE = 4,  // privileged exec; every session starts here
    CONFIG_NODE = 5,
    INTERFACE_NODE = 12,
    DHCPS_POOL_NODE = 81,
    DHCPR_NODE = 82,
    NODE_MAX = 128,
};

// Handler results.
constexpr int CMD_SUCCESS = 0;
constexpr int CMD_WARNING = 1;
constexpr int CMD_ERR_NO_MATCH = 2;
constexpr int CMD_ERR_AMBIGUOUS = 3;
constexpr int CMD_ERR_INCOMPLETE = 4;
constexpr int CMD_ERR_EXEED_ARGC_MAX = 5;
constexpr int CMD_ERR_NOTHING_TODO = 6;
constexpr int CMD_COMPLETE_FULL_MATCH = 7;
constexpr int CMD_COMPLETE_MATCH = 8;
constexpr int CMD_COMPLETE_LIST_MATCH = 9;
constexpr int CMD_SUCCESS_DAEMON = 10;
constexpr int CMD_ERR_LIMIT_REACHED = 13;  // a count limit was reached

constexpr int CMD_ARGC_MAX = 25;

struct cmd_node {
    int node;
    const char *prompt;  // printf format with the host name; "" means the library's default
    int vtysh;           // shown by the shell front end
    int (*func)(vty *) = nullptr;                // configuration writer, or none
    const char *(*prompt_arg)(vty *) = nullptr;  // text for a second %s in the prompt
};

using cmd_handler = int (*)(struct cmd_element *, vty *, int, const char *[]);

struct cmd_element {
    const char *string;  // command string
    cmd_handler func;
    const char *doc;  // help: one line per word, each ended by "\n"
};

#define DEFUN(funcname, cmdname, cmdstr, helpstr)                                    \
    static int funcname(struct cmd_element *, struct vty *, int, const char *[]);    \
    struct cmd_element cmdname = {cmdstr, funcname, helpstr};                        \
    static int funcname([[maybe_unused]] struct cmd_element *self,                   \
                        [[maybe_unused]] struct vty *vty, [[maybe_unused]] int argc, \
                        [[maybe_unused]] const char *argv[])

#define ALIAS(funcname, cmdname, cmdstr, helpstr) \
    struct cmd_element cmdname = {cmdstr, funcname, helpstr};

// Common help words.
#define SHOW_STR "Show running system information\n"
#define NO_STR "Negate a command or set its defaults\n"
#define DEBUG_STR "Debugging functions (see also 'undebug')\n"

// Sets up the engine and the enable and configuration nodes with their
// built-in commands. `terminal` is kept for the library's interface.
void cmd_init(int terminal);
// Drops every node and command (tests start from a clean engine).
void cmd_terminate();

void install_node(cmd_node *node, int (*func)(vty *));
void install_element(int node, cmd_element *cmd);
// exit, quit, end, list, write terminal/file/memory, show running-config.
void install_default(int node);

// Runs one line in vty->node. Empty lines and lines starting with '!' or '#'
// succeed and do nothing. Returns the handler's result or CMD_ERR_*.
// A line unknown in a node below CONFIG_NODE is tried in CONFIG_NODE, as if
// "exit" came first (so a saved configuration replays without "exit" lines);
// if it fails there too, the node and object are left as they were.
int cmd_execute_command(const char *line, vty *vty);

// Runs one line and prints the engine's own message for a failed match
// ("% Unknown command.", "% Ambiguous command.", "% Command incomplete.", ...).
int vty_command(vty *vty, const char *line);

// `?`: the possible next words of a partly typed line, with their help.
struct cmd_description {
    std::string word;
    std::string help;
};
std::vector<cmd_description> cmd_describe_command(const char *line, vty *vty, int *status);
// TAB: the words that can complete the last (partial) word of the line,
// keywords only, sorted. Status: CMD_SUCCESS with at least one candidate,
// else CMD_ERR_NO_MATCH (or CMD_ERR_AMBIGUOUS for the earlier words).
std::vector<std::string> cmd_complete_command(const char *line, vty *vty, int *status);

// The prompt of vty->node, filled with the host name (and prompt_arg).
std::string cmd_prompt(vty *vty);
// Command strings of a node, in installation order (the `list` command).
std::vector<std::string> cmd_list_node(int node);

// Running configuration: header, the writers of all nodes in node order, "end".
void vty_write_config(vty *vty);
// Saves the running configuration to `path` atomically (temporary file
// beside it, fsync, rename). 0 on success, -1 with errno set.
int config_write_file(const char *path);
constexpr const char *CONFIG_STARTUP_FILE = "/mnt/dhcpd.conf";
// Where "write memory" / "write file" save; CONFIG_STARTUP_FILE unless set.
const char *cmd_config_file();
void cmd_set_config_file(const char *path);

// Host name used in prompts; initialised from the system host name.
const char *cmd_hostname();
void cmd_set_hostname(const char *name);
