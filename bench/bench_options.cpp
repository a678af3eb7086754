// Option lookup in received messages and reply building, plus the raw send
// path (needs privilege; skipped otherwise).
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <linux/if_ether.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <vector>

#include "dhcp/dhcp_debug.h"
#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_packet.h"
#include "dhcp/dhcp_socket.h"
#include "lib/log.h"

namespace {

void put(std::uint8_t *area, std::size_t at, std::initializer_list<std::uint8_t> bytes) {
    std::memcpy(area + at, std::data(bytes), bytes.size());
}

// A DISCOVER as clients send it.
dhcp_packet discover() {
    dhcp_packet p;
    dhcp_init_header(p, DHCPDISCOVER);
    dhcp_add_binary_option(p, std::vector<std::uint8_t>{61, 7, 1, 2, 0, 0, 0, 0, 1});
    dhcp_add_simple_option(p, DHCP_REQUESTED_IP, htonl(0xc0a80132));
    dhcp_add_binary_option(p, std::vector<std::uint8_t>{12, 6, 's', 'w', 'i', 't', 'c', 'h'});
    dhcp_add_binary_option(p, std::vector<std::uint8_t>{55, 7, 1, 3, 6, 15, 51, 58, 59});
    dhcp_add_simple_option(p, DHCP_MAX_SIZE, htons(1500));
    return p;
}

void BM_GetOptionMessageType(benchmark::State &state) {
    const dhcp_packet p = discover();
    for (auto _ : state) {
        benchmark::DoNotOptimize(dhcp_get_option(&p, DHCP_MESSAGE_TYPE));
    }
}
BENCHMARK(BM_GetOptionMessageType);

void BM_GetOptionAbsent(benchmark::State &state) {
    const dhcp_packet p = discover();
    for (auto _ : state) {
        benchmark::DoNotOptimize(dhcp_get_option(&p, DHCP_RELAY_AGENT_INFO));
    }
}
BENCHMARK(BM_GetOptionAbsent);

// 97 four-byte options fill the 388 bytes; the last one is wanted.
void BM_GetOptionFullArea(benchmark::State &state) {
    dhcp_packet p{};
    for (std::size_t i = 0; i < 97; i++) {
        put(p.options, i * 4, {static_cast<std::uint8_t>(i == 96 ? 82 : 60), 2, 'a', 'b'});
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(dhcp_get_option(&p, DHCP_RELAY_AGENT_INFO));
    }
}
BENCHMARK(BM_GetOptionFullArea);

// Main area, then file, then sname, where the option is.
void BM_GetOptionOverloadSname(benchmark::State &state) {
    dhcp_packet p = discover();
    std::memset(p.options, 0, sizeof p.options);
    put(p.options, 0, {53, 1, 1, 52, 1, 3, 255});
    put(p.file, 0, {60, 8, 'v', 'e', 'n', 'd', 'o', 'r', '-', 'x', 255});
    put(p.sname, 0, {12, 4, 'h', 'o', 's', 't', 255});
    for (auto _ : state) {
        benchmark::DoNotOptimize(dhcp_get_option(&p, DHCP_HOST_NAME));
    }
}
BENCHMARK(BM_GetOptionOverloadSname);

std::unique_ptr<option_set> pool_options() {
    std::unique_ptr<option_set> list;
    const std::vector<std::uint8_t> mask = {255, 255, 255, 0};
    const std::vector<std::uint8_t> router = {192, 168, 1, 1};
    const std::vector<std::uint8_t> dns = {8, 8, 8, 8, 8, 8, 4, 4};
    const std::vector<std::uint8_t> domain = {192, 168, 1, 2};
    const std::vector<std::uint8_t> lease = {'8', '6', '4', '0', '0', '0'};
    dhcp_attach_option(list, dhcp_option{0x11, DHCP_SUBNET_MASK}, mask);
    dhcp_attach_option(list, dhcp_option{0x31, DHCP_ROUTER}, router);
    dhcp_attach_option(list, dhcp_option{0x31, DHCP_DNS_SERVER}, dns);
    dhcp_attach_option(list, dhcp_option{0x14, DHCP_DOMAIN_NAME}, domain);
    dhcp_attach_option(list, dhcp_option{0x13, DHCP_LEASE_TIME}, lease);
    return list;
}

// The server's OFFER: header, server id, lease times, pool options.
void BM_BuildOffer(benchmark::State &state) {
    const auto list = pool_options();
    const dhcp_packet request = discover();
    dhcp_packet reply;
    for (auto _ : state) {
        dhcp_init_header(reply, DHCPOFFER);
        reply.xid = request.xid;
        std::memcpy(reply.chaddr, request.chaddr, sizeof reply.chaddr);
        dhcp_add_simple_option(reply, DHCP_SERVER_ID, htonl(0xc0a80101));
        dhcp_add_simple_option(reply, DHCP_LEASE_TIME, htonl(864000));
        dhcp_add_simple_option(reply, DHCP_T1, htonl(432000));
        dhcp_add_simple_option(reply, DHCP_T2, htonl(756000));
        for (const option_set *n = list.get(); n != nullptr; n = n->next.get()) {
            if (n->code() != DHCP_LEASE_TIME) {
                dhcp_add_binary_option(reply, n->data);
            }
        }
        benchmark::DoNotOptimize(reply);
    }
}
BENCHMARK(BM_BuildOffer);

// A pool's options configured from scratch: delete then attach, per code.
void BM_ConfigurePoolOptions(benchmark::State &state) {
    for (auto _ : state) {
        auto list = pool_options();
        dhcp_delete_option(list, DHCP_DNS_SERVER);
        const std::vector<std::uint8_t> dns = {1, 1, 1, 1};
        dhcp_attach_option(list, dhcp_option{0x31, DHCP_DNS_SERVER}, dns);
        benchmark::DoNotOptimize(dhcp_find_option(list, DHCP_LEASE_TIME));
    }
}
BENCHMARK(BM_ConfigurePoolOptions);

// One reply out of the loopback device on the process's send socket.
void BM_RawSendLoopback(benchmark::State &state) {
    if (geteuid() != 0) {
        state.SkipWithError("packet sockets need privilege");
        return;
    }
    dhcp_packet reply;
    dhcp_init_header(reply, DHCPACK);
    dhcp_add_simple_option(reply, DHCP_SERVER_ID, htonl(0x7f000001));
    const std::uint8_t mac[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    for (auto _ : state) {
        if (dhcp_send_raw_packet(reply, htonl(0x7f000001), 67, htonl(0x7f000001), 9, mac, 1) < 0) {
            state.SkipWithError("send failed");
            break;
        }
    }
}
BENCHMARK(BM_RawSendLoopback);

// What a socket per message would add to every send: opening and closing
// a packet socket.
void BM_PacketSocketOpenClose(benchmark::State &state) {
    if (geteuid() != 0) {
        state.SkipWithError("packet sockets need privilege");
        return;
    }
    for (auto _ : state) {
        dhcp_unique_fd fd(::socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_IP)));
        benchmark::DoNotOptimize(fd.get());
    }
}
BENCHMARK(BM_PacketSocketOpenClose)->Iterations(200);

// Quiet log: no line is formatted into a destination while measuring.
const bool quiet = [] {
    dhcp_debug = 0;
    zlog *zl = openzlog("bench", 0, 0, LOG_DAEMON);
    zlog_set_level(zl, ZLOG_DEST_SYSLOG, ZLOG_DISABLED);
    zlog_set_level(zl, ZLOG_DEST_STDOUT, ZLOG_DISABLED);
    return true;
}();

}  // namespace
