// Management-bus client.
//
// The daemon is a client of the switch's management bus on 127.0.0.1:30000
// and serves its own bus endpoint on 127.0.0.1:<listen port> (30008) for
// peers that talk to it directly. A missing bus is not fatal: while the bus
// is unreachable the connection slot `sock` holds a retry timer descriptor,
// and uclient_handle_async() on it tries again, swapping the connected socket
// into the same descriptor number, so the daemon's read task on `sock` stays
// valid across reconnects.
//
// Bus messages (both directions), all integers big-endian:
//   offset 0  u16 magic 0x5542 ("UB")
//   offset 2  u16 type
//   offset 4  u32 payload length (at most UCLIENT_MAX_PAYLOAD)
//   offset 8  payload
// Types:
//   1 HELLO     payload: the client's name ("dhcpd"); sent on connecting
//   2 IF_NOTICE payload: an interface name (1..20 bytes); the platform
//               refreshes its port and VLAN tables
//   3 PING      payload: anything (echoed)
//   4 PONG      the echo of a PING
// A message with a bad magic or an over-long payload ends that connection;
// unknown types are ignored.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

constexpr std::uint16_t UCLIENT_MAGIC = 0x5542;
constexpr std::size_t UCLIENT_HEADER_LEN = 8;
constexpr std::size_t UCLIENT_MAX_PAYLOAD = 65536;
constexpr int UCLIENT_RETRY_SECONDS = 3;

enum uclient_msg_type : std::uint16_t {
    UCLIENT_MSG_HELLO = 1,
    UCLIENT_MSG_IF_NOTICE = 2,
    UCLIENT_MSG_PING = 3,
    UCLIENT_MSG_PONG = 4,
};

// One received message, valid only during the callback.
struct uclient_msg {
    int fd;  // connection it came on (replies go there)
    std::uint16_t type;
    std::span<const std::uint8_t> payload;
};

struct uclient {
    int sock = -1;       // bus connection, or the retry timer while disconnected
    int serv_sock = -1;  // listening socket for direct peers
    bool connected = false;
    std::uint32_t addr = 0;  // bus address, host order
    std::uint16_t port = 0;
    int (*callback)(void *) = nullptr;                 // set by the daemon; gets a uclient_msg*
    std::map<int, std::vector<std::uint8_t>> partial;  // bytes of unfinished messages per fd
};

// Sets up the client: listening socket on 127.0.0.1:listen_port and the bus
// connection (or its retry timer). NULL when the listening socket cannot be
// set up (e.g. the port is held by another running instance).
uclient *uclient_connect(std::uint32_t addr, std::uint16_t port, std::uint16_t listen_port);
void uclient_free(uclient *c);
// Reads what is waiting on fd and hands each whole message to the callback.
// >= 0: keep reading this descriptor; < 0: the connection is finished (the
// caller closes fd).
int uclient_handle_async(uclient *c, int fd);
// The platform's handling of one bus message (a uclient_msg*). 0 or -1.
int uclient_new_if(void *msg);
// Sends one message; 0 or -1.
int uclient_send(int fd, std::uint16_t type, std::span<const std::uint8_t> payload);
