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
//   1 HELLO       payload: the client's name ("dhcpd"); sent on connecting
//   2 IF_NOTICE   payload: an interface name (1..20 bytes, no NUL); the
//                 platform refreshes its port and VLAN tables
//   3 PING        payload: anything (echoed)
//   4 PONG        the echo of a PING
//   5 SNOOP_SET   payload: 1 byte: 1 turns DHCP snooping on, 0 off
//   6 SNOOP_TRUST payload: 5 bytes: u32 switch port number (1..4095; the
//                 number that ends the port's name, swp3 is 3), then 1 byte:
//                 1 makes the port untrusted, 0 trusted
//   7 SNOOP_GET   payload: empty; answered with SNOOP_STATE
//   8 SNOOP_STATE payload: 1 byte snooping on (1) or off (0), then one u16
//                 per untrusted port: its number, in ascending order
// At start snooping is off and every port is trusted; the state is the
// daemon's (any peer may set it) and lasts as long as the daemon. Messages
// on one connection are handled in the order sent.
// A message with a bad magic, an over-long payload, or a payload its type
// does not allow (a wrong length, a value other than 0 or 1, a port number
// outside 1..4095) ends that connection, and what came after it on that
// connection is not handled; so does a PING or SNOOP_GET whose answer cannot
// be sent. The bus connection, once ended, is made again as above. Unknown
// types, and messages of types 1, 4 and 8 sent to the daemon, are ignored.
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
    UCLIENT_MSG_SNOOP_SET = 5,
    UCLIENT_MSG_SNOOP_TRUST = 6,
    UCLIENT_MSG_SNOOP_GET = 7,
    UCLIENT_MSG_SNOOP_STATE = 8,
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
