// Socket addresses of either family, with text conversion.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>

union sockunion {
    sockaddr sa;
    sockaddr_in sin;
    sockaddr_in6 sin6;
};

// 0 on success, -1 on malformed text.
int str2sockunion(const char *str, sockunion *su);
// The address as text in buf; returns buf (empty text on failure).
const char *sockunion2str(const sockunion *su, char *buf, std::size_t len);
