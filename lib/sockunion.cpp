#include "sockunion.h"

#include <arpa/inet.h>

#include <cstring>

int str2sockunion(const char *str, sockunion *su) {
    if (str == nullptr || su == nullptr) {
        return -1;
    }
    std::memset(su, 0, sizeof *su);
    if (inet_pton(AF_INET, str, &su->sin.sin_addr) == 1) {
        su->sin.sin_family = AF_INET;
        return 0;
    }
    if (inet_pton(AF_INET6, str, &su->sin6.sin6_addr) == 1) {
        su->sin6.sin6_family = AF_INET6;
        return 0;
    }
    return -1;
}

const char *sockunion2str(const sockunion *su, char *buf, std::size_t len) {
    if (buf == nullptr || len == 0) {
        return buf;
    }
    buf[0] = '\0';
    if (su == nullptr) {
        return buf;
    }
    auto n = static_cast<socklen_t>(len);
    if (su->sa.sa_family == AF_INET) {
        inet_ntop(AF_INET, &su->sin.sin_addr, buf, n);
    } else if (su->sa.sa_family == AF_INET6) {
        inet_ntop(AF_INET6, &su->sin6.sin6_addr, buf, n);
    }
    return buf;
}
