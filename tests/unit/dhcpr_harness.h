// Shared harness for the in-process relay tests: byte helpers, the
// senders that capture what the relay sends (ServerSend/ClientSend), a fake
// clock, DHCP messages being built (Msg, discover, offer), trapped-frame
// messages (Trap, frame_of, deliver, request, from_server, reply), a fake
// sysfs with four switch ports (FakePorts), interface and address helpers
// (make_if, su_of), snooping with an untrusted uplink (untrust_uplink) and
// the Relay fixture: vlanif10 relaying to 10.0.20.2 over vlanif20, with
// every log line kept.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcp_zebra.h"
#include "dhcp/dhcpr.h"
#include "lib/if.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "lib/zclient.h"
#include "platform/dhcpsnoop.h"
#include "platform/trap.h"
#include "platform/uif.h"

namespace dhcpr_harness {

using Bytes = std::vector<std::uint8_t>;

inline std::uint32_t nip(const char *a) {
    in_addr v{};
    EXPECT_EQ(inet_pton(AF_INET, a, &v), 1) << a;
    return v.s_addr;
}

// First index where two byte strings differ, for failure messages.
inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

inline constexpr std::uint8_t CLIENT_MAC[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
inline constexpr std::uint32_t CLIENT_PORT_NUM = 3;
inline constexpr std::uint32_t UPLINK_PORT_NUM = 9;
inline const std::string PORT3_MAC_TEXT = "02-1a-2b-3c-4d-03";

// ---- captured sends ----

struct ServerSend {
    int sock;
    Bytes bytes;
    sockaddr_in to;
};
struct ClientSend {
    dhcp_packet packet;
    std::uint32_t src, dst;
    std::uint16_t sport, dport;
    std::array<std::uint8_t, 6> mac;
    int ifindex;
    int size;
};
inline std::vector<ServerSend> to_server;
inline std::vector<ClientSend> to_client;
inline ssize_t server_send_result = -2;  // -2: the datagram's size

inline ssize_t capture_server(int sock, std::span<const std::uint8_t> d, const sockaddr_in &to) {
    to_server.push_back({sock, Bytes(d.begin(), d.end()), to});
    return server_send_result == -2 ? static_cast<ssize_t>(d.size()) : server_send_result;
}

inline int capture_client(const dhcp_packet &p, std::uint32_t src, std::uint16_t sport,
                          std::uint32_t dst, std::uint16_t dport, const std::uint8_t *mac,
                          int ifindex, int size) {
    ClientSend s{p, src, dst, sport, dport, {}, ifindex, size};
    std::copy(mac, mac + 6, s.mac.begin());
    to_client.push_back(s);
    return size;
}

inline std::uint32_t fake_now = 1000;
inline std::uint32_t fake_clock() {
    return fake_now;
}

// ---- messages ----

// A DHCP message being built: fixed header, options appended in order, then
// END; the payload is its first `len` bytes (zero padding after END).
struct Msg {
    dhcp_packet p{};
    std::size_t at = 0;
    int len = 300;

    Msg(std::uint8_t op, std::uint8_t type, std::uint32_t xid) {
        p.op = op;
        p.htype = 1;
        p.hlen = 6;
        p.xid = htonl(xid);
        std::memcpy(p.chaddr, CLIENT_MAC, 6);
        p.cookie = htonl(DHCP_MAGIC);
        opt(DHCP_MESSAGE_TYPE, {type});
    }
    Msg &opt(std::uint8_t code, Bytes v) {
        p.options[at++] = code;
        p.options[at++] = static_cast<std::uint8_t>(v.size());
        for (auto b : v) {
            p.options[at++] = b;
        }
        p.options[at] = DHCP_END;
        return *this;
    }
    Msg &addr_opt(std::uint8_t code, const char *a) {
        std::uint32_t n = nip(a);
        auto *b = reinterpret_cast<std::uint8_t *>(&n);
        return opt(code, {b[0], b[1], b[2], b[3]});
    }
    Msg &hops(std::uint8_t h) {
        p.hops = h;
        return *this;
    }
    Msg &flags(std::uint16_t f) {
        p.flags = htons(f);
        return *this;
    }
    Msg &giaddr(const char *a) {
        p.gateway_nip = nip(a);
        return *this;
    }
    Msg &length(int l) {
        len = l;
        return *this;
    }
    Bytes payload() const {
        const auto *b = reinterpret_cast<const std::uint8_t *>(&p);
        return Bytes(b, b + len);
    }
};

inline Msg discover(std::uint32_t xid = 0x1234) {
    return Msg(BOOTREQUEST, DHCPDISCOVER, xid)
        .opt(DHCP_CLIENT_ID, {1, 0, 0x11, 0x22, 0x33, 0x44, 0x55});
}

inline Msg offer(std::uint32_t xid = 0x1234, std::uint8_t type = DHCPOFFER) {
    Msg m(BOOTREPLY, type, xid);
    m.p.yiaddr = nip("192.168.10.50");
    m.p.gateway_nip = nip("192.168.10.1");
    m.addr_opt(DHCP_SERVER_ID, "10.0.20.2");
    return m;
}

// ---- trapped-frame messages ----

struct Trap {
    std::uint32_t port = CLIENT_PORT_NUM;
    std::uint16_t vlan = 10;
    std::uint32_t gap = 0;
    bool tagged = false;
    int ip_option_words = 0;
    std::uint8_t protocol = 17;
    std::uint16_t sport = 68;
    std::uint16_t dport = 67;
    std::uint32_t type = HAL_MSG_TRAPPED_FRAME;
    const char *dst = "255.255.255.255";  // IPv4 destination
};

inline void put16(Bytes &b, std::uint16_t v) {
    b.push_back(static_cast<std::uint8_t>(v >> 8));
    b.push_back(static_cast<std::uint8_t>(v));
}

// The Ethernet/IPv4/UDP frame around a payload, as the chip traps it.
inline Bytes frame_of(const Trap &t, const Bytes &payload) {
    Bytes f(6, 0xff);
    f.insert(f.end(), CLIENT_MAC, CLIENT_MAC + 6);
    if (t.tagged) {
        put16(f, 0x8100);
        put16(f, t.vlan);
    }
    put16(f, 0x0800);
    const auto ihl = static_cast<std::uint8_t>(5 + t.ip_option_words);
    const auto udp_len = static_cast<std::uint16_t>(8 + payload.size());
    f.push_back(static_cast<std::uint8_t>(0x40 | ihl));
    f.push_back(0);
    put16(f, static_cast<std::uint16_t>(ihl * 4 + udp_len));
    put16(f, 0x1111);
    put16(f, 0);
    f.push_back(64);
    f.push_back(t.protocol);
    put16(f, 0);
    f.insert(f.end(), {0, 0, 0, 0});
    const std::uint32_t dst = nip(t.dst);
    const auto *d = reinterpret_cast<const std::uint8_t *>(&dst);
    f.insert(f.end(), d, d + 4);
    for (int i = 0; i < t.ip_option_words * 4; ++i) {
        f.push_back(1);  // NOP
    }
    put16(f, t.sport);
    put16(f, t.dport);
    put16(f, udp_len);
    put16(f, 0);
    f.insert(f.end(), payload.begin(), payload.end());
    return f;
}

// Header, gap, frame: the message hal_recv hands its callback.
inline int deliver(const Trap &t, const Bytes &payload) {
    const Bytes frame = frame_of(t, payload);
    hal_trap_hdr hdr{};
    hdr.port = t.port;
    hdr.vlan = t.vlan;
    hdr.gap = t.gap;
    Bytes msg(sizeof hdr + t.gap, 0xaa);
    std::memcpy(msg.data(), &hdr, sizeof hdr);
    msg.insert(msg.end(), frame.begin(), frame.end());
    return dhcpr_netlink_msg(t.type, msg.data(), static_cast<std::uint32_t>(frame.size()));
}

inline int request(const Msg &m, Trap t = {}) {
    return deliver(t, m.payload());
}

// A server's reply as it comes up the uplink: to `dst`, UDP port `dport`.
inline Trap from_server(const char *dst = "192.168.10.1", std::uint16_t dport = 68) {
    Trap t;
    t.port = UPLINK_PORT_NUM;
    t.vlan = 20;
    t.sport = 67;
    t.dport = dport;
    t.dst = dst;
    return t;
}

inline int reply(const Msg &m) {
    return deliver(from_server(), m.payload());
}

inline const Bytes DISCOVER_OPTS = {53, 1, 1, 61, 7, 1, 0, 0x11, 0x22, 0x33, 0x44, 0x55};
inline const Bytes DISCOVER_END = cat({DISCOVER_OPTS, {255}});

// Snooping on with the uplink untrusted; false, with the uplink trusted
// again, where this platform build carries no snooping state.
inline bool untrust_uplink() {
    dhcpsnoop_enable_set(1);
    dhcpsnoop_if_untrust_set(UPLINK_PORT_NUM, 1);
    if (dhcpsnoop_enable_get() != 1) {
        dhcpsnoop_if_untrust_set(UPLINK_PORT_NUM, 0);
        return false;
    }
    return true;
}

// ---- the switch ----

// A fake sysfs: swp1..swp3 in vlanif10, swp9 (the uplink) in vlanif20.
struct FakePorts {
    std::filesystem::path root =
        std::filesystem::path(::testing::TempDir()) / ("dhcpr-sysfs-" + std::to_string(getpid()));
    FakePorts() {
        std::filesystem::remove_all(root);
        netdev("vlanif10", 5, "02:1a:2b:3c:4d:00");
        netdev("vlanif20", 6, "02:1a:2b:3c:4d:01");
        for (int i : {1, 2, 3, 9}) {
            const std::string name = "swp" + std::to_string(i);
            netdev(name, 10 + i, "02:1a:2b:3c:4d:0" + std::to_string(i));
            std::filesystem::create_symlink(i == 9 ? "../vlanif20" : "../vlanif10",
                                            root / name / "master");
        }
        uif_set_sysfs_root(root.string());
        uif_init();
        uvlan_init();
    }
    ~FakePorts() {
        uif_set_sysfs_root("/sys/class/net");
        uif_refresh();
        std::filesystem::remove_all(root);
    }
    void netdev(const std::string &name, int idx, const std::string &mac) {
        std::filesystem::create_directories(root / name);
        std::ofstream(root / name / "ifindex") << idx << "\n";
        std::ofstream(root / name / "address") << mac << "\n";
    }
};

inline interface *make_if(const char *name, int index, const char *addr) {
    interface *ifp = if_get_by_name(name);
    ifp->ifindex = index;
    if (addr != nullptr) {
        prefix p{};
        EXPECT_EQ(str2prefix(addr, &p), 1);
        connected_add(ifp, 0, &p, nullptr);
    }
    return ifp;
}

inline sockunion su_of(const char *a) {
    sockunion su{};
    EXPECT_EQ(str2sockunion(a, &su), 0);
    return su;
}

struct Relay : ::testing::Test {
    FakePorts ports;
    thread_master *master = thread_master_create();
    std::vector<std::string> log;
    interface *v10 = nullptr;
    interface *v20 = nullptr;

    Relay() {
        if_init();
        dhcpr_init(master);
        dhcpr_set_senders(capture_server, capture_client);
        fake_now = 1000;
        dhcpr_set_clock(fake_clock);
        to_server.clear();
        to_client.clear();
        server_send_result = -2;
        v10 = make_if("vlanif10", 5, "192.168.10.1/24");
        v20 = make_if("vlanif20", 6, "10.0.20.1/24");
        const sockunion server = su_of("10.0.20.2");
        EXPECT_EQ(dhcpr_if_relay_set(v10, &server), 0);
        zlog_set_hook([this](int, std::string_view t) { log.emplace_back(t); });
    }
    ~Relay() override {
        zlog_set_hook({});
        dhcpr_reset();
        dhcpr_set_senders(nullptr, nullptr);
        dhcpr_set_clock(nullptr);
        dhcp_zebra_relay_teardown = nullptr;
        if_terminate();
        thread_master_free(master);
    }
    dhcpr_if &rec() { return *dhcpr_if_record(v10); }
    void opt82(std::uint32_t strategy = DHCPR_OPT82_REPLACE) {
        ASSERT_EQ(dhcpr_if_opt82_enable_set(v10, 1), 0);
        ASSERT_EQ(dhcpr_if_opt82_strategy_set(v10, strategy), 0);
    }
    bool logged(const std::string &line) const {
        return std::find(log.begin(), log.end(), line) != log.end();
    }
};

}  // namespace dhcpr_harness
