#include "lib/unix_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "lib/log.h"

namespace {

bool prepare_path(const char *who, const char *path, sockaddr_un &sa) {
    const std::size_t len = path == nullptr ? 0 : std::strlen(path);
    if (len == 0 || len >= sizeof sa.sun_path) {
        zlog_err("%s: socket path '%s' is empty or too long", who, path == nullptr ? "" : path);
        return false;
    }
    sa.sun_family = AF_UNIX;
    std::memcpy(sa.sun_path, path, len + 1);
    // A socket left behind by an earlier run would make bind fail.
    struct stat st {};
    if (::lstat(path, &st) == 0 && S_ISSOCK(st.st_mode)) {
        ::unlink(path);
    }
    return true;
}

}  // namespace

unique_fd unix_listen(const char *who, const char *path, int backlog) {
    sockaddr_un sa{};
    if (!prepare_path(who, path, sa)) {
        return unique_fd();
    }
    unique_fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd || ::bind(fd.get(), reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 ||
        ::chmod(path, 0770) != 0 || ::listen(fd.get(), backlog) != 0) {
        zlog_err("%s: can't serve on %s: %s", who, path, std::strerror(errno));
        return unique_fd();
    }
    return fd;
}

unique_fd unix_accept(const char *who, int listen_fd, bool *starved) {
    unique_fd fd(::accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    *starved = false;
    if (!fd) {
        *starved = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
        if (*starved) {
            zlog_warn("%s: accept failed: %s", who, std::strerror(errno));
        }
    }
    return fd;
}
