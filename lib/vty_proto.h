// The shell protocol spoken on the vty socket (dhcpsh <-> dhcpd).
//
// Request: one kind byte, the command line (at most VTY_MAXLINE bytes),
//          one NUL byte.
//   'X' execute the line in the session's node
//   'D' describe: the possible next words of the line, with help (`?`)
//   'C' complete: candidates for the line's last word (TAB)
//   'P' prompt only (the line is ignored)
// Reply:   the output text (never contains NUL), one NUL byte, one byte
//          result code (CMD_*), the session's prompt after the request, one
//          NUL byte.
//   For 'D' the text is one line per word: the word padded, then its help.
//   For 'C' the text is one candidate per line.
// A request longer than VTY_MAXLINE, or with an unknown kind byte, is refused
// with a message and CMD_WARNING; the bytes up to its NUL are discarded.
// After "exit" or "quit" in the privileged node the daemon closes the
// connection once the reply is sent.
#pragma once

#include <cstddef>

constexpr std::size_t VTY_MAXLINE = 4096;
constexpr char VTY_REQ_EXECUTE = 'X';
constexpr char VTY_REQ_DESCRIBE = 'D';
constexpr char VTY_REQ_COMPLETE = 'C';
constexpr char VTY_REQ_PROMPT = 'P';
constexpr const char *VTY_SOCKET_PATH = "/var/run/dhcp.vty";
