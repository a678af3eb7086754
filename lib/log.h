// The daemon's log.
//
// One default log opened by openzlog(). Each line goes to every destination
// whose threshold admits its priority: syslog (identity, flags and facility
// as opened), standard output and an optional file. Standard output and the
// file get one line per message: "YYYY/MM/DD HH:MM:SS dhcpd: <level>: text",
// trailing newlines of the text folded away. Thresholds are syslog
// priorities (LOG_ERR ... LOG_DEBUG); ZLOG_DISABLED turns a destination off.
// The operator changes them with the log commands (log_vty.h).
#pragma once

#include <syslog.h>

#include <functional>
#include <string_view>

enum zlog_dest { ZLOG_DEST_SYSLOG = 0, ZLOG_DEST_STDOUT, ZLOG_DEST_FILE, ZLOG_NUM_DESTS };
constexpr int ZLOG_DISABLED = -1;
constexpr int ZLOG_DEFAULT_LEVEL = LOG_INFO;

struct zlog;
extern zlog *zlog_default;

zlog *openzlog(const char *progname, int protocol, int syslog_flags, int syslog_facility);
void closezlog(zlog *zl);

#define ZLOG_PRINTF(a, b) __attribute__((format(printf, a, b)))
void zlog_msg(zlog *zl, int priority, const char *format, ...) ZLOG_PRINTF(3, 4);
void zlog_err(const char *format, ...) ZLOG_PRINTF(1, 2);
void zlog_warn(const char *format, ...) ZLOG_PRINTF(1, 2);
void zlog_info(const char *format, ...) ZLOG_PRINTF(1, 2);
void zlog_notice(const char *format, ...) ZLOG_PRINTF(1, 2);
void zlog_debug(const char *format, ...) ZLOG_PRINTF(1, 2);

// True when a line of this priority would be written somewhere (or reach the
// test hook): a caller whose arguments cost something to make asks first.
bool zlog_wanted(int priority);

// Reopens the log file and syslog (SIGUSR1). Returns 1, or 0 when the file
// could not be reopened (that destination is then off).
int zlog_rotate(zlog *zl);

// Buffered mode: lines for standard output and the file stay in their stdio
// buffers until zlog_flush(), so a burst of lines costs one write instead of
// one each. The daemon turns it on and flushes after every callback of its
// loop; an assertion failure flushes before it aborts. Off by default: each
// line is written as it is made.
void zlog_set_buffered(zlog *zl, bool on);
void zlog_flush(zlog *zl);

void zlog_set_level(zlog *zl, zlog_dest dest, int level);
int zlog_get_level(const zlog *zl, zlog_dest dest);
// Opens (append) the log file and sets its threshold; 1 on success, 0 on failure.
int zlog_set_file(zlog *zl, const char *filename, int level);
void zlog_reset_file(zlog *zl);
const char *zlog_get_filename(const zlog *zl);  // nullptr when no file
// The thresholds taken as defaults: what the running configuration leaves out.
void zlog_mark_defaults(zlog *zl);
int zlog_get_default_level(const zlog *zl, zlog_dest dest);

// Level names as the CLI takes them ("errors", "debugging", ...), and back.
const char *zlog_level_name(int level);
int zlog_level_from_name(const char *name);  // -1 when unknown

// Every formatted line (priority, text) is also handed to this hook; tests
// use it to assert exact log lines. An empty function removes it.
void zlog_set_hook(std::function<void(int, std::string_view)> hook);

[[noreturn]] void _zlog_assert_failed(const char *assertion, const char *file, unsigned int line,
                                      const char *function);

#define zassert(EX) ((void)((EX) ? 0 : (_zlog_assert_failed(#EX, __FILE__, __LINE__, __func__), 0)))
