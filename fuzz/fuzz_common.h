// What the fuzz targets share: require(ok), a check that names the target's
// file and line on stderr ("<file>:<line>: check failed") before aborting;
// fuzz_quiet_log(), the daemon's log opened with syslog and stdout off; and
// fuzz_make_if(), an interface with an index and one connected address.
#pragma once

#include <syslog.h>

#include <cstdio>
#include <cstdlib>

#include "lib/if.h"
#include "lib/log.h"
#include "lib/prefix.h"

inline void fuzz_require_at(bool ok, const char *file, int line) {
    if (!ok) {
        std::fprintf(stderr, "%s:%d: check failed\n", file, line);
        std::abort();
    }
}
#define require(ok) fuzz_require_at((ok), __FILE_NAME__, __LINE__)

inline zlog *fuzz_quiet_log() {
    zlog *zl = openzlog("fuzz", 0, 0, LOG_DAEMON);
    zlog_set_level(zl, ZLOG_DEST_SYSLOG, ZLOG_DISABLED);
    zlog_set_level(zl, ZLOG_DEST_STDOUT, ZLOG_DISABLED);
    return zl;
}

inline interface *fuzz_make_if(const char *name, int index, const char *addr) {
    interface *ifp = if_get_by_name(name);
    ifp->ifindex = index;
    prefix p{};
    str2prefix(addr, &p);
    connected_add(ifp, 0, &p, nullptr);
    return ifp;
}
