#include "host.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "lib/log.h"

namespace {
std::uint32_t features_ = 0;
int flags_ = 0;
int hal_client = -1;
int pid_fd = -1;  // held open for the lock until exit
}  // namespace

void host_init(std::uint32_t features, int flags) {
    features_ = features;
    flags_ = flags;
}

std::uint32_t host_features() {
    return features_;
}
int host_flags() {
    return flags_;
}

pid_t pid_output(const char *path) {
    pid_t pid = getpid();
    int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        zlog_err("Can't create pid file %s: %s", path, std::strerror(errno));
        return -1;
    }
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (fcntl(fd, F_SETLK, &lock) < 0) {
        zlog_err("Could not lock pid file %s: %s", path, std::strerror(errno));
        close(fd);
        return -1;
    }
    char buf[24];
    int n = std::snprintf(buf, sizeof buf, "%d\n", static_cast<int>(pid));
    if (ftruncate(fd, 0) != 0 || write(fd, buf, static_cast<std::size_t>(n)) != n) {
        zlog_err("Can't write pid file %s: %s", path, std::strerror(errno));
    }
    if (pid_fd >= 0) {
        close(pid_fd);
    }
    pid_fd = fd;
    return pid;
}

pid_t pid_file_holder(const char *path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const int rc = fcntl(fd, F_GETLK, &lock);
    close(fd);
    if (rc < 0 || lock.l_type == F_UNLCK) {
        return 0;
    }
    return lock.l_pid;
}

void hal_init(int client_id) {
    hal_client = client_id;
}
int hal_client_id() {
    return hal_client;
}
