#include "log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

struct zlog {
    std::string ident;
    int protocol = 0;
    int syslog_flags = 0;
    int facility = LOG_DAEMON;
    int maxlvl[ZLOG_NUM_DESTS] = {ZLOG_DEFAULT_LEVEL, ZLOG_DEFAULT_LEVEL, ZLOG_DISABLED};
    int deflvl[ZLOG_NUM_DESTS] = {ZLOG_DEFAULT_LEVEL, ZLOG_DEFAULT_LEVEL, ZLOG_DISABLED};
    std::string filename;
    std::FILE *fp = nullptr;
    bool buffered = false;
    // The time stamp of the current second, made once per second.
    std::time_t stamp_time = -1;
    char stamp[32] = {};
};

zlog *zlog_default = nullptr;

namespace {

std::unique_ptr<zlog> default_owner;
std::function<void(int, std::string_view)> line_hook;

constexpr const char *kLevelNames[] = {"emergencies",   "alerts",   "critical",
                                       "errors",        "warnings", "notifications",
                                       "informational", "debugging"};
constexpr const char *kShortNames[] = {"emerg",   "alert",  "crit", "err",
                                       "warning", "notice", "info", "debug"};

void put(std::FILE *fp, std::string_view s) {
    fwrite_unlocked(s.data(), 1, s.size(), fp);
}

const char *stamp_of(zlog *zl) {
    const std::time_t now = std::time(nullptr);
    if (now != zl->stamp_time) {
        std::tm tm{};
        localtime_r(&now, &tm);
        std::strftime(zl->stamp, sizeof zl->stamp, "%Y/%m/%d %H:%M:%S", &tm);
        zl->stamp_time = now;
    }
    return zl->stamp;
}

void write_line(std::FILE *fp, zlog *zl, int priority, std::string_view text) {
    flockfile(fp);
    put(fp, stamp_of(zl));
    put(fp, " ");
    put(fp, zl->ident);
    put(fp, ": ");
    put(fp, kShortNames[priority & 7]);
    put(fp, ": ");
    put(fp, text);
    put(fp, "\n");
    funlockfile(fp);
    if (!zl->buffered) {
        std::fflush(fp);
    }
}

// True when some destination (or the test hook) takes this priority, so a
// filtered debug line costs a comparison, not a formatting pass.
bool wanted(const zlog *zl, int level) {
    if (line_hook || zl == nullptr) {
        return true;
    }
    for (int dest = 0; dest < ZLOG_NUM_DESTS; ++dest) {
        if (level <= zl->maxlvl[dest] && (dest != ZLOG_DEST_FILE || zl->fp != nullptr)) {
            return true;
        }
    }
    return false;
}

void vzlog(zlog *zl, int priority, const char *format, va_list args) {
    if (!wanted(zl, priority & 7)) {
        return;
    }
    char text[1024];
    const int len = std::vsnprintf(text, sizeof text, format, args);
    // Several messages carry their own trailing newline; one line per message.
    std::size_t n =
        len < 0 ? 0 : std::min<std::size_t>(static_cast<std::size_t>(len), sizeof text - 1);
    text[n] = '\0';
    while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == '\r')) {
        text[--n] = '\0';
    }
    // Some messages carry raw bytes (option contents); one message stays one
    // readable line.
    for (std::size_t i = 0; i < n; ++i) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7f) {
            text[i] = '.';
        }
    }
    int level = priority & 7;
    if (line_hook) {
        line_hook(level, text);
    }
    if (zl == nullptr) {
        std::fprintf(stderr, "%s\n", text);
        return;
    }
    if (level <= zl->maxlvl[ZLOG_DEST_SYSLOG]) {
        syslog(level | zl->facility, "%s", text);
    }
    const std::string_view line(text, n);
    if (level <= zl->maxlvl[ZLOG_DEST_STDOUT]) {
        write_line(stdout, zl, level, line);
    }
    if (zl->fp != nullptr && level <= zl->maxlvl[ZLOG_DEST_FILE]) {
        write_line(zl->fp, zl, level, line);
    }
}

}  // namespace

zlog *openzlog(const char *progname, int protocol, int syslog_flags, int syslog_facility) {
    auto zl = std::make_unique<zlog>();
    zl->ident = progname ? progname : "";
    zl->protocol = protocol;
    zl->syslog_flags = syslog_flags;
    zl->facility = syslog_facility;
    openlog(zl->ident.c_str(), syslog_flags, syslog_facility);
    zlog *raw = zl.get();
    if (zlog_default == nullptr) {
        default_owner = std::move(zl);
        zlog_default = raw;
        return raw;
    }
    return zl.release();
}

void closezlog(zlog *zl) {
    if (zl == nullptr) {
        return;
    }
    zlog_flush(zl);
    closelog();
    zlog_reset_file(zl);
    if (zl == zlog_default) {
        zlog_default = nullptr;
        default_owner.reset();
    } else {
        std::unique_ptr<zlog> owned(zl);
    }
}

bool zlog_wanted(int priority) {
    return wanted(zlog_default, priority & 7);
}

void zlog_msg(zlog *zl, int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vzlog(zl, priority, format, args);
    va_end(args);
}

#define ZLOG_FUNC(name, prio)                    \
    void name(const char *format, ...) {         \
        va_list args;                            \
        va_start(args, format);                  \
        vzlog(zlog_default, prio, format, args); \
        va_end(args);                            \
    }
ZLOG_FUNC(zlog_err, LOG_ERR)
ZLOG_FUNC(zlog_warn, LOG_WARNING)
ZLOG_FUNC(zlog_info, LOG_INFO)
ZLOG_FUNC(zlog_notice, LOG_NOTICE)
ZLOG_FUNC(zlog_debug, LOG_DEBUG)
#undef ZLOG_FUNC

int zlog_rotate(zlog *zl) {
    if (zl == nullptr) {
        return 0;
    }
    closelog();
    openlog(zl->ident.c_str(), zl->syslog_flags, zl->facility);
    if (zl->fp == nullptr) {
        return 1;
    }
    std::fclose(zl->fp);  // flushes what the buffered mode held
    zl->fp = std::fopen(zl->filename.c_str(), "a");
    if (zl->fp == nullptr) {
        zl->maxlvl[ZLOG_DEST_FILE] = ZLOG_DISABLED;
        return 0;
    }
    return 1;
}

void zlog_set_level(zlog *zl, zlog_dest dest, int level) {
    if (zl != nullptr && dest >= 0 && dest < ZLOG_NUM_DESTS) {
        zl->maxlvl[dest] = level;
    }
}

int zlog_get_level(const zlog *zl, zlog_dest dest) {
    return (zl && dest >= 0 && dest < ZLOG_NUM_DESTS) ? zl->maxlvl[dest] : ZLOG_DISABLED;
}

int zlog_set_file(zlog *zl, const char *filename, int level) {
    if (zl == nullptr || filename == nullptr) {
        return 0;
    }
    std::FILE *fp = std::fopen(filename, "a");
    if (fp == nullptr) {
        return 0;
    }
    zlog_reset_file(zl);
    zl->fp = fp;
    zl->filename = filename;
    zl->maxlvl[ZLOG_DEST_FILE] = level;
    return 1;
}

void zlog_reset_file(zlog *zl) {
    if (zl == nullptr) {
        return;
    }
    if (zl->fp != nullptr) {
        std::fclose(zl->fp);
    }
    zl->fp = nullptr;
    zl->filename.clear();
    zl->maxlvl[ZLOG_DEST_FILE] = ZLOG_DISABLED;
}

void zlog_set_buffered(zlog *zl, bool on) {
    if (zl == nullptr) {
        return;
    }
    if (!on) {
        zlog_flush(zl);
    }
    zl->buffered = on;
}

void zlog_flush(zlog *zl) {
    if (zl == nullptr || !zl->buffered) {
        return;
    }
    std::fflush(stdout);
    if (zl->fp != nullptr) {
        std::fflush(zl->fp);
    }
}

const char *zlog_get_filename(const zlog *zl) {
    return (zl && zl->fp) ? zl->filename.c_str() : nullptr;
}

void zlog_mark_defaults(zlog *zl) {
    if (zl != nullptr) {
        std::memcpy(zl->deflvl, zl->maxlvl, sizeof zl->deflvl);
    }
}

int zlog_get_default_level(const zlog *zl, zlog_dest dest) {
    return (zl && dest >= 0 && dest < ZLOG_NUM_DESTS) ? zl->deflvl[dest] : ZLOG_DISABLED;
}

const char *zlog_level_name(int level) {
    return (level >= 0 && level <= 7) ? kLevelNames[level] : "disabled";
}

int zlog_level_from_name(const char *name) {
    if (name == nullptr) {
        return -1;
    }
    for (int i = 0; i <= 7; ++i) {
        if (std::strcmp(name, kLevelNames[i]) == 0) {
            return i;
        }
    }
    return -1;
}

void zlog_set_hook(std::function<void(int, std::string_view)> hook) {
    line_hook = std::move(hook);
}

void _zlog_assert_failed(const char *assertion, const char *file, unsigned int line,
                         const char *function) {
    // Name the module, not the source file: "dhcp/dhcps_leases", not ".cpp".
    std::string module = file ? file : "";
    if (auto dot = module.rfind('.');
        dot != std::string::npos && module.find('/', dot) == module.npos) {
        module.erase(dot);
    }
    zlog_msg(zlog_default, LOG_CRIT, "Assertion `%s' failed in file %s, line %u, function %s",
             assertion, module.c_str(), line, function);
    zlog_flush(zlog_default);
    std::abort();
}
