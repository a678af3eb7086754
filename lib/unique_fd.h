// Owning file descriptor: closed exactly once, movable, never copied.
#pragma once

#include <unistd.h>

#include <utility>

class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    ~unique_fd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }

    int release() { return std::exchange(fd_, -1); }
    // close() is not retried on EINTR: on Linux the descriptor is gone either way.
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }
    // Closes now and reports the result: a failed close of a written file
    // can mean lost data.
    int close() {
        int rc = fd_ >= 0 ? ::close(fd_) : 0;
        fd_ = -1;
        return rc;
    }

  private:
    int fd_ = -1;
};
