// dhcpload: a DHCP load generator for benchmarks.
//
// Thousands of simulated clients (MAC 02:SS:NN:NN:NN:NN, SS the seed, N the
// client's index) run full exchanges: DISCOVER, then on the OFFER a REQUEST
// carrying options 50 and 54, then ACK or NAK. New exchanges start at a paced
// rate (a token bucket on the monotonic clock) for a given time or count; the
// replies that come back are matched to their client by transaction id (the
// low 20 bits are the client's index, the high 12 a per-exchange generation),
// in a state array allocated once. Input and output are batched: replies
// are read with recvmmsg, up to kRecvBatch a call, and the messages one
// wake-up produces are queued and handed over with sendmmsg, up to
// kSendBatch a call, so one core offers well beyond what a server takes.
// Two modes:
//   direct  broadcast clients: raw Ethernet/IPv4/UDP frames from each
//           client's MAC through an AF_PACKET socket on the interface, replies
//           read from the same socket (UDP port 68);
//   relay   a relay agent: requests with giaddr and hops set, sent by UDP to a
//           server's port 67 from port 67 or 68, replies read on that port.
// Every reply is untrusted input: frames and datagrams are parsed with
// bounds checks and copied into a zeroed message record before the option
// codec reads them.
//
// Once the sockets are open, "dhcpload: ready on IFNAME" goes to stderr (with
// --progress, a line of counts follows every second). At the end, after
// "lease MAC ADDRESS" lines for --leases, one machine-readable line goes to
// stdout:
//   dhcpload: sent_discover=N offers=N requests=N acks=N naks=N completed=N
//             timeouts=N retransmits=N unmatched=N send_errors=N elapsed_s=X
//             rate=X/s loss_pct=X avg_ms=X max_ms=X cpu_s=X
// Every started exchange ends completed (ACK), refused (NAK) or timed out
// (unanswered after its retries, or still open when the drain time is over),
// so sent_discover = completed + naks + timeouts. elapsed_s is the sending
// window, rate the completed exchanges per second of it, loss_pct the share
// of started exchanges that did not complete, avg_ms and max_ms the time
// from DISCOVER to ACK, cpu_s the generator's own CPU time (user + system,
// the kernel's work on its frames included). unmatched counts replies that belong to no open
// exchange or lack what the next step needs; frames that are not IPv4/UDP to
// the client port are not counted.
#include <arpa/inet.h>
#include <getopt.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_packet.h"
#include "lib/unique_fd.h"
#include "platform/util.h"

namespace {

using bytes = std::span<const std::uint8_t>;

constexpr unsigned kIndexBits = 20;
constexpr std::uint32_t kIndexMask = (1u << kIndexBits) - 1;
constexpr std::uint32_t kMaxClients = 1u << kIndexBits;
constexpr std::size_t kBootpMinPayload = 300;  // clients pad their messages so
constexpr std::size_t kEthHeader = 14;
constexpr std::uint16_t kEthIp = 0x0800;
constexpr std::uint16_t kEthVlan = 0x8100;
constexpr std::size_t kRecvBatch = 64;  // messages a recvmmsg call takes
constexpr std::size_t kRecvCalls = 4;   // recvmmsg calls a wake-up makes at most
constexpr std::size_t kSendBatch = 64;  // messages queued before a sendmmsg
constexpr std::size_t kFrameMax = kEthHeader + sizeof(ip_udp_dhcp_packet);
constexpr std::size_t kRecvFrameMax = 2048;
constexpr std::uint64_t kPaceTickNs = 1000000;  // sending wake-ups at most this often
constexpr int kSocketBuffer = 8 << 20;

struct eth_header {
    std::uint8_t dst[6];
    std::uint8_t src[6];
    std::uint16_t type;  // network order
};
static_assert(sizeof(eth_header) == kEthHeader);

enum class Mode { direct, relay };

struct Config {
    std::string ifname;
    Mode mode = Mode::direct;
    std::uint32_t clients = 1000;
    double rate = 1000;
    double seconds = 10;
    std::uint64_t exchanges = UINT64_MAX;  // stop starting after this many
    double timeout = 2;
    unsigned retries = 0;
    double drain = -1;  // < 0: timeout x (retries + 1)
    bool broadcast = false;
    std::uint32_t server = 0;  // network order
    std::uint32_t giaddr = 0;  // network order; 0: the interface's address
    std::uint16_t port = DHCP_SERVER_PORT;
    std::uint8_t hops = 1;
    std::uint8_t mac_seed = 0;
    bool progress = false;
    bool leases = false;
};

enum class Phase : std::uint8_t { idle, selecting, requesting };

// One simulated client; the array of them is the generator's whole state.
struct Client {
    std::uint64_t started_ns = 0;  // start of the current exchange
    std::uint64_t sent_ns = 0;     // last transmission, for the timeout
    std::uint32_t xid = 0;         // host order
    std::uint32_t offered = 0;     // network order, from the OFFER
    std::uint32_t server_id = 0;   // network order, option 54 of the OFFER
    std::uint32_t leased = 0;      // network order, the last ACKed address
    std::uint16_t generation = 0;
    Phase phase = Phase::idle;
    std::uint8_t tries = 0;
};

struct Counters {
    std::uint64_t sent_discover = 0;
    std::uint64_t offers = 0;
    std::uint64_t requests = 0;
    std::uint64_t acks = 0;
    std::uint64_t naks = 0;
    std::uint64_t completed = 0;
    std::uint64_t timeouts = 0;
    std::uint64_t retransmits = 0;
    std::uint64_t unmatched = 0;
    std::uint64_t send_errors = 0;
    std::uint64_t latency_sum_ns = 0;
    std::uint64_t latency_max_ns = 0;
};

volatile std::sig_atomic_t g_stop = 0;

void on_signal(int) {
    g_stop = 1;
}

std::uint64_t now_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u +
           static_cast<std::uint64_t>(ts.tv_nsec);
}

std::uint64_t seconds_ns(double s) {
    return s <= 0 ? 0 : static_cast<std::uint64_t>(s * 1e9);
}

std::uint16_t load_be16(bytes b, std::size_t at) {
    return static_cast<std::uint16_t>((b[at] << 8) | b[at + 1]);
}

// ---- reading replies ----

// The UDP payload of an IPv4 frame (untagged or with one 802.1Q tag) whose
// UDP destination port is `port`; nothing for anything else. Every length
// field is checked against the bytes actually held.
std::optional<bytes> udp_payload_of_frame(bytes frame, std::uint16_t port) {
    if (frame.size() < kEthHeader) {
        return std::nullopt;
    }
    std::size_t off = kEthHeader;
    std::uint16_t type = load_be16(frame, 12);
    if (type == kEthVlan) {
        if (frame.size() < kEthHeader + 4) {
            return std::nullopt;
        }
        type = load_be16(frame, 16);
        off += 4;
    }
    if (type != kEthIp) {
        return std::nullopt;
    }
    bytes ip = frame.subspan(off);
    if (ip.size() < sizeof(dhcp_ip_header) || (ip[0] >> 4) != 4) {
        return std::nullopt;
    }
    const std::size_t ihl = static_cast<std::size_t>(ip[0] & 0x0f) * 4;
    const std::size_t total = load_be16(ip, 2);
    const bool fragment = (load_be16(ip, 6) & 0x3fff) != 0;
    if (ihl < sizeof(dhcp_ip_header) || total < ihl + sizeof(dhcp_udp_header) ||
        total > ip.size() || fragment || ip[9] != IPPROTO_UDP) {
        return std::nullopt;
    }
    bytes udp = ip.subspan(ihl, total - ihl);
    const std::size_t udp_len = load_be16(udp, 4);
    if (load_be16(udp, 2) != port || udp_len < sizeof(dhcp_udp_header) || udp_len > udp.size()) {
        return std::nullopt;
    }
    return udp.subspan(sizeof(dhcp_udp_header), udp_len - sizeof(dhcp_udp_header));
}

// Option `code` of a received message as one value of exactly `len` bytes.
const std::uint8_t *option_of_length(const dhcp_packet &msg, std::uint8_t code, std::uint8_t len) {
    const std::uint8_t *value = dhcp_get_option(&msg, code);
    // The codec returns the value; its length byte lies just before it,
    // inside the record.
    if (value == nullptr || value[-1] != len) {
        return nullptr;
    }
    return value;
}

// ---- the generator ----

class Generator {
  public:
    explicit Generator(const Config &cfg) : cfg_(cfg), clients_(cfg.clients) {}

    bool open();
    void run();
    void report() const;

  private:
    bool open_direct();
    bool open_relay();
    int read_fd() const { return cfg_.mode == Mode::direct ? packet_fd_.get() : udp_fd_.get(); }

    std::array<std::uint8_t, 6> mac_of(std::uint32_t index) const;
    std::size_t build(dhcp_packet &msg, std::uint32_t index, std::uint8_t type) const;
    void transmit(std::uint32_t index, std::uint8_t type);
    void queue_frame(const dhcp_packet &msg, std::size_t len, std::uint32_t index);
    void queue_datagram(const dhcp_packet &msg, std::size_t len);
    void flush();
    void receive_batch(std::size_t got, std::uint64_t now);

    void start_exchanges(std::uint64_t now);
    bool start_one(std::uint64_t now);
    void expire(std::uint64_t now);
    void receive(std::uint64_t now);
    void handle_payload(bytes payload, std::uint64_t now);
    void on_offer(Client &c, std::uint32_t index, const dhcp_packet &msg, std::uint64_t now);
    void on_ack(Client &c, const dhcp_packet &msg, std::uint64_t now);
    void finish(Client &c);
    void wait(std::uint64_t now, std::uint64_t until);
    void progress(std::uint64_t now);

    Config cfg_;
    std::vector<Client> clients_;
    Counters n_;
    unique_fd packet_fd_;
    unique_fd udp_fd_;
    int ifindex_ = 0;
    std::uint32_t cursor_ = 0;
    std::uint32_t idle_ = 0;
    std::uint64_t outstanding_ = 0;
    double tokens_ = 1;  // the first exchange starts at once
    std::uint64_t last_token_ns_ = 0;
    std::uint64_t start_ns_ = 0;
    std::uint64_t send_end_ns_ = 0;
    std::uint64_t elapsed_ns_ = 0;
    std::uint64_t next_progress_ns_ = 0;

    // Queued messages, sent by flush(); buffers allocated once.
    struct TxSlot {
        std::array<std::uint8_t, kFrameMax> data;
        std::size_t len;
    };
    std::vector<TxSlot> tx_ = std::vector<TxSlot>(kSendBatch);
    std::size_t tx_count_ = 0;
    sockaddr_in tx_to_{};
    // Receive buffers for one recvmmsg call.
    std::vector<std::array<std::uint8_t, kRecvFrameMax>> rx_ =
        std::vector<std::array<std::uint8_t, kRecvFrameMax>>(kRecvBatch);
    std::array<sockaddr_ll, kRecvBatch> rx_from_{};
    std::array<unsigned, kRecvBatch> rx_len_{};
};

std::array<std::uint8_t, 6> Generator::mac_of(std::uint32_t index) const {
    return {0x02,
            cfg_.mac_seed,
            static_cast<std::uint8_t>(index >> 24),
            static_cast<std::uint8_t>(index >> 16),
            static_cast<std::uint8_t>(index >> 8),
            static_cast<std::uint8_t>(index)};
}

bool Generator::open() {
    ifindex_ = static_cast<int>(if_nametoindex(cfg_.ifname.c_str()));
    if (ifindex_ == 0) {
        std::fprintf(stderr, "dhcpload: no interface %s\n", cfg_.ifname.c_str());
        return false;
    }
    idle_ = cfg_.clients;
    const std::uint32_t seed = static_cast<std::uint32_t>(now_ns() >> 10);
    for (auto &c : clients_) {
        c.generation = static_cast<std::uint16_t>(seed & 0x0fff);
    }
    return cfg_.mode == Mode::direct ? open_direct() : open_relay();
}

void grow_buffers(int fd) {
    // The forced variants need CAP_NET_ADMIN; the plain ones are capped by
    // the system's maximum, which is enough at modest rates.
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kSocketBuffer, sizeof kSocketBuffer) < 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer);
    }
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &kSocketBuffer, sizeof kSocketBuffer) < 0) {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer);
    }
}

bool Generator::open_direct() {
    packet_fd_.reset(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IP)));
    if (!packet_fd_) {
        std::perror("dhcpload: socket(AF_PACKET)");
        return false;
    }
    sockaddr_ll sll{};
    sll.sll_family = AF_PACKET;
    sll.sll_protocol = htons(ETH_P_IP);
    sll.sll_ifindex = ifindex_;
    if (bind(packet_fd_.get(), reinterpret_cast<const sockaddr *>(&sll), sizeof sll) < 0) {
        std::perror("dhcpload: bind(AF_PACKET)");
        return false;
    }
    // Replies go to the clients' own MACs, which are not the interface's.
    packet_mreq mr{};
    mr.mr_ifindex = ifindex_;
    mr.mr_type = PACKET_MR_PROMISC;
    setsockopt(packet_fd_.get(), SOL_PACKET, PACKET_ADD_MEMBERSHIP, &mr, sizeof mr);
    const int one = 1;
    // Our own frames would come back as outgoing copies; they are skipped
    // by packet type too where the kernel lacks this option.
    setsockopt(packet_fd_.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one);
    // Frames go straight to the driver: a generator has no traffic to shape.
    setsockopt(packet_fd_.get(), SOL_PACKET, PACKET_QDISC_BYPASS, &one, sizeof one);
    grow_buffers(packet_fd_.get());
    return true;
}

bool Generator::open_relay() {
    udp_fd_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!udp_fd_) {
        std::perror("dhcpload: socket(UDP)");
        return false;
    }
    if (cfg_.giaddr == 0) {
        ifreq ifr{};
        std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", cfg_.ifname.c_str());
        if (ioctl(udp_fd_.get(), SIOCGIFADDR, &ifr) < 0) {
            std::fprintf(stderr, "dhcpload: %s has no IPv4 address; give --giaddr\n",
                         cfg_.ifname.c_str());
            return false;
        }
        sockaddr_in sin{};
        std::memcpy(&sin, &ifr.ifr_addr, sizeof sin);
        cfg_.giaddr = sin.sin_addr.s_addr;
    }
    const int one = 1;
    setsockopt(udp_fd_.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(cfg_.port);
    if (bind(udp_fd_.get(), reinterpret_cast<const sockaddr *>(&local), sizeof local) < 0) {
        std::perror("dhcpload: bind(UDP)");
        return false;
    }
    grow_buffers(udp_fd_.get());
    tx_to_.sin_family = AF_INET;
    tx_to_.sin_port = htons(DHCP_SERVER_PORT);
    tx_to_.sin_addr.s_addr = cfg_.server;
    return true;
}

// Builds the client's DISCOVER or REQUEST; returns the payload length, the
// message up to its end marker padded to the BOOTP minimum.
std::size_t Generator::build(dhcp_packet &msg, std::uint32_t index, std::uint8_t type) const {
    const Client &c = clients_[index];
    dhcp_init_header(msg, type);
    msg.xid = htonl(c.xid);
    msg.flags = cfg_.broadcast ? htons(DHCP_BROADCAST_FLAG) : 0;
    const auto mac = mac_of(index);
    std::memcpy(msg.chaddr, mac.data(), mac.size());
    if (cfg_.mode == Mode::relay) {
        msg.hops = cfg_.hops;
        msg.gateway_nip = cfg_.giaddr;
    }
    if (type == DHCPREQUEST) {
        dhcp_add_simple_option(msg, DHCP_REQUESTED_IP, c.offered);
        dhcp_add_simple_option(msg, DHCP_SERVER_ID, c.server_id);
    }
    static constexpr std::uint8_t params[] = {
        DHCP_PARAM_REQ, 4, DHCP_SUBNET_MASK, DHCP_ROUTER, DHCP_DNS_SERVER, DHCP_LEASE_TIME};
    dhcp_add_binary_option(msg, params);
    const int end =
        dhcp_end_option(std::span<const std::uint8_t>(msg.options, DHCP_OPTIONS_BUFSIZE));
    const std::size_t used = DHCP_FIXED_SIZE + static_cast<std::size_t>(std::max(end, 0)) + 1;
    return std::clamp(used, kBootpMinPayload, DHCP_FIXED_SIZE + DHCP_OPTIONS_BUFSIZE);
}

// Builds the client's broadcast frame into the next transmit slot.
void Generator::queue_frame(const dhcp_packet &msg, std::size_t len, std::uint32_t index) {
    ip_udp_dhcp_packet ipudp{};
    std::memcpy(&ipudp.data, &msg, len);
    const std::size_t udp_len = sizeof(dhcp_udp_header) + len;
    const std::size_t total = sizeof(dhcp_ip_header) + udp_len;
    // With the IP fields still zero, the header doubles as the UDP pseudo
    // header for the checksum.
    ipudp.ip.protocol = IPPROTO_UDP;
    ipudp.ip.saddr = 0;
    ipudp.ip.daddr = INADDR_BROADCAST;
    ipudp.udp.source = htons(DHCP_CLIENT_PORT);
    ipudp.udp.dest = htons(DHCP_SERVER_PORT);
    ipudp.udp.len = htons(static_cast<std::uint16_t>(udp_len));
    ipudp.ip.tot_len = ipudp.udp.len;
    const auto *raw = reinterpret_cast<const std::uint8_t *>(&ipudp);
    ipudp.udp.check = inet_cksum({raw, total});
    if (ipudp.udp.check == 0) {
        ipudp.udp.check = 0xffff;
    }
    ipudp.ip.tot_len = htons(static_cast<std::uint16_t>(total));
    ipudp.ip.version_ihl = (4 << 4) | 5;
    ipudp.ip.ttl = 64;
    ipudp.ip.check = inet_cksum({raw, sizeof(dhcp_ip_header)});

    eth_header eth{};
    std::memset(eth.dst, 0xff, sizeof eth.dst);
    const auto mac = mac_of(index);
    std::memcpy(eth.src, mac.data(), mac.size());
    eth.type = htons(kEthIp);
    TxSlot &slot = tx_[tx_count_++];
    std::memcpy(slot.data.data(), &eth, sizeof eth);
    std::memcpy(slot.data.data() + kEthHeader, raw, total);
    slot.len = kEthHeader + total;
}

void Generator::queue_datagram(const dhcp_packet &msg, std::size_t len) {
    TxSlot &slot = tx_[tx_count_++];
    std::memcpy(slot.data.data(), &msg, len);
    slot.len = len;
}

// Hands the queued messages to the kernel; those it does not take count as
// send errors (their exchanges time out).
void Generator::flush() {
    std::array<iovec, kSendBatch> iov{};
    std::array<mmsghdr, kSendBatch> hdr{};
    for (std::size_t i = 0; i < tx_count_; i++) {
        iov[i] = {tx_[i].data.data(), tx_[i].len};
        hdr[i].msg_hdr.msg_iov = &iov[i];
        hdr[i].msg_hdr.msg_iovlen = 1;
        if (cfg_.mode == Mode::relay) {
            hdr[i].msg_hdr.msg_name = &tx_to_;
            hdr[i].msg_hdr.msg_namelen = sizeof tx_to_;
        }
    }
    const int fd = cfg_.mode == Mode::direct ? packet_fd_.get() : udp_fd_.get();
    std::size_t done = 0;
    while (done < tx_count_) {
        const int n = ::sendmmsg(fd, hdr.data() + done, static_cast<unsigned>(tx_count_ - done), 0);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) {
                continue;
            }
            n_.send_errors += tx_count_ - done;
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    tx_count_ = 0;
}

void Generator::transmit(std::uint32_t index, std::uint8_t type) {
    dhcp_packet msg;
    const std::size_t len = build(msg, index, type);
    if (cfg_.mode == Mode::direct) {
        queue_frame(msg, len, index);
    } else {
        queue_datagram(msg, len);
    }
    if (tx_count_ == kSendBatch) {
        flush();
    }
}

// Starts one exchange on the next idle client; false when none is idle. The
// DISCOVER is queued; one the kernel refuses counts as a send error and its
// exchange times out.
bool Generator::start_one(std::uint64_t now) {
    if (idle_ == 0) {
        return false;
    }
    std::uint32_t index = cursor_;
    while (clients_[index].phase != Phase::idle) {
        index = index + 1 == cfg_.clients ? 0 : index + 1;
    }
    cursor_ = index + 1 == cfg_.clients ? 0 : index + 1;
    Client &c = clients_[index];
    c.generation = static_cast<std::uint16_t>((c.generation + 1) & 0x0fff);
    c.xid = (static_cast<std::uint32_t>(c.generation) << kIndexBits) | index;
    c.tries = 0;
    c.started_ns = now;
    c.sent_ns = now;
    transmit(index, DHCPDISCOVER);
    c.phase = Phase::selecting;
    idle_--;
    outstanding_++;
    n_.sent_discover++;
    return true;
}

void Generator::start_exchanges(std::uint64_t now) {
    const double burst = std::max(1.0, cfg_.rate / 50);  // at most 20 ms worth at once
    tokens_ =
        std::min(burst, tokens_ + static_cast<double>(now - last_token_ns_) * cfg_.rate / 1e9);
    last_token_ns_ = now;
    while (tokens_ >= 1 && n_.sent_discover < cfg_.exchanges) {
        tokens_ -= 1;
        if (!start_one(now)) {
            break;
        }
    }
}

void Generator::finish(Client &c) {
    c.phase = Phase::idle;
    idle_++;
    outstanding_--;
}

// Retransmits or gives up exchanges whose last message went unanswered.
void Generator::expire(std::uint64_t now) {
    const std::uint64_t timeout = seconds_ns(cfg_.timeout);
    for (std::uint32_t i = 0; i < cfg_.clients; i++) {
        Client &c = clients_[i];
        if (c.phase == Phase::idle || now - c.sent_ns < timeout) {
            continue;
        }
        if (c.tries < cfg_.retries) {
            c.tries++;
            c.sent_ns = now;
            n_.retransmits++;
            transmit(i, c.phase == Phase::selecting ? DHCPDISCOVER : DHCPREQUEST);
            continue;
        }
        n_.timeouts++;
        finish(c);
    }
}

void Generator::on_offer(Client &c, std::uint32_t index, const dhcp_packet &msg,
                         std::uint64_t now) {
    const std::uint8_t *sid = option_of_length(msg, DHCP_SERVER_ID, 4);
    if (sid == nullptr) {
        n_.unmatched++;  // no REQUEST can name the server
        return;
    }
    n_.offers++;
    c.offered = msg.yiaddr;
    std::memcpy(&c.server_id, sid, 4);
    c.phase = Phase::requesting;
    c.tries = 0;
    c.sent_ns = now;
    transmit(index, DHCPREQUEST);
    n_.requests++;
}

void Generator::on_ack(Client &c, const dhcp_packet &msg, std::uint64_t now) {
    n_.acks++;
    n_.completed++;
    c.leased = msg.yiaddr;
    const std::uint64_t latency = now - c.started_ns;
    n_.latency_sum_ns += latency;
    n_.latency_max_ns = std::max(n_.latency_max_ns, latency);
    finish(c);
}

void Generator::handle_payload(bytes payload, std::uint64_t now) {
    if (payload.size() < DHCP_FIXED_SIZE) {
        n_.unmatched++;
        return;
    }
    dhcp_packet msg{};
    std::memcpy(&msg, payload.data(), std::min(payload.size(), sizeof msg));
    const std::uint32_t xid = ntohl(msg.xid);
    const std::uint32_t index = xid & kIndexMask;
    if (msg.op != BOOTREPLY || msg.hlen != 6 || msg.cookie != htonl(DHCP_MAGIC) ||
        index >= cfg_.clients) {
        n_.unmatched++;
        return;
    }
    Client &c = clients_[index];
    const auto mac = mac_of(index);
    const std::uint8_t *type = option_of_length(msg, DHCP_MESSAGE_TYPE, 1);
    if (c.phase == Phase::idle || c.xid != xid || std::memcmp(msg.chaddr, mac.data(), 6) != 0 ||
        type == nullptr) {
        n_.unmatched++;
        return;
    }
    if (*type == DHCPOFFER && c.phase == Phase::selecting) {
        on_offer(c, index, msg, now);
    } else if (*type == DHCPACK && c.phase == Phase::requesting) {
        on_ack(c, msg, now);
    } else if (*type == DHCPNAK) {
        n_.naks++;
        finish(c);
    } else {
        n_.unmatched++;  // a second OFFER, an ACK before any REQUEST...
    }
}

void Generator::receive_batch(std::size_t got, std::uint64_t now) {
    for (std::size_t i = 0; i < got; i++) {
        const bytes data(rx_[i].data(), std::min<std::size_t>(rx_len_[i], kRecvFrameMax));
        if (cfg_.mode == Mode::relay) {
            handle_payload(data, now);
            continue;
        }
        if (rx_from_[i].sll_pkttype == PACKET_OUTGOING) {
            continue;
        }
        if (auto payload = udp_payload_of_frame(data, DHCP_CLIENT_PORT)) {
            handle_payload(*payload, now);
        }
    }
}

// Reads what is waiting, a bounded number of recvmmsg calls, and answers it.
void Generator::receive(std::uint64_t now) {
    std::array<iovec, kRecvBatch> iov{};
    std::array<mmsghdr, kRecvBatch> hdr{};
    for (std::size_t call = 0; call < kRecvCalls; call++) {
        for (std::size_t i = 0; i < kRecvBatch; i++) {
            iov[i] = {rx_[i].data(), kRecvFrameMax};
            hdr[i] = {};
            hdr[i].msg_hdr.msg_iov = &iov[i];
            hdr[i].msg_hdr.msg_iovlen = 1;
            hdr[i].msg_hdr.msg_name = &rx_from_[i];
            hdr[i].msg_hdr.msg_namelen = sizeof(sockaddr_ll);
        }
        const int got = ::recvmmsg(read_fd(), hdr.data(), kRecvBatch, MSG_DONTWAIT, nullptr);
        if (got <= 0) {
            return;  // EAGAIN: drained; anything else: try again next wake-up
        }
        for (std::size_t i = 0; i < static_cast<std::size_t>(got); i++) {
            rx_len_[i] = hdr[i].msg_len;
        }
        receive_batch(static_cast<std::size_t>(got), now);
        if (static_cast<std::size_t>(got) < kRecvBatch) {
            return;
        }
    }
}

// Sleeps until the socket is readable or `until`, whichever is first.
void Generator::wait(std::uint64_t now, std::uint64_t until) {
    const std::uint64_t span = until > now ? until - now : 0;
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(span / 1000000000u);
    ts.tv_nsec = static_cast<long>(span % 1000000000u);
    pollfd pfd{read_fd(), POLLIN, 0};
    ppoll(&pfd, 1, &ts, nullptr);
}

void Generator::progress(std::uint64_t now) {
    if (!cfg_.progress || now < next_progress_ns_) {
        return;
    }
    next_progress_ns_ += 1000000000u;
    std::fprintf(stderr,
                 "dhcpload: t=%.0f sent_discover=%llu offers=%llu acks=%llu naks=%llu "
                 "outstanding=%llu unmatched=%llu\n",
                 static_cast<double>(now - start_ns_) / 1e9,
                 static_cast<unsigned long long>(n_.sent_discover),
                 static_cast<unsigned long long>(n_.offers),
                 static_cast<unsigned long long>(n_.acks), static_cast<unsigned long long>(n_.naks),
                 static_cast<unsigned long long>(outstanding_),
                 static_cast<unsigned long long>(n_.unmatched));
}

void Generator::run() {
    start_ns_ = now_ns();
    last_token_ns_ = start_ns_;
    send_end_ns_ = start_ns_ + seconds_ns(cfg_.seconds);
    next_progress_ns_ = start_ns_ + 1000000000u;
    const double drain = cfg_.drain >= 0 ? cfg_.drain : cfg_.timeout * (cfg_.retries + 1);
    const std::uint64_t scan_every = std::max<std::uint64_t>(
        1000000u, std::min<std::uint64_t>(seconds_ns(cfg_.timeout) / 4, 250000000u));
    std::uint64_t next_scan = start_ns_ + scan_every;
    std::uint64_t stop_ns = UINT64_MAX;
    // Exchanges start in batches of at least a pacing tick's worth.
    const std::uint64_t token_ns =
        std::max(kPaceTickNs, static_cast<std::uint64_t>(1e9 / cfg_.rate));
    for (;;) {
        const std::uint64_t now = now_ns();
        const bool sending = g_stop == 0 && now < send_end_ns_ && n_.sent_discover < cfg_.exchanges;
        if (sending) {
            start_exchanges(now);
        } else if (stop_ns == UINT64_MAX) {
            stop_ns = now + seconds_ns(drain);
            elapsed_ns_ = now - start_ns_;
        }
        if (!sending && (outstanding_ == 0 || now >= stop_ns || g_stop != 0)) {
            flush();
            n_.timeouts += outstanding_;  // still unanswered at the end
            break;
        }
        receive(now);
        if (now >= next_scan) {
            expire(now);
            next_scan = now + scan_every;
        }
        flush();
        progress(now);
        std::uint64_t until =
            std::min(next_scan, sending ? std::min(now + token_ns, send_end_ns_) : stop_ns);
        wait(now_ns(), until);
    }
}

void Generator::report() const {
    if (cfg_.leases) {
        for (std::uint32_t i = 0; i < cfg_.clients; i++) {
            if (clients_[i].leased == 0) {
                continue;
            }
            const auto mac = mac_of(i);
            char ip[INET_ADDRSTRLEN];
            inet_ntop(AF_INET, &clients_[i].leased, ip, sizeof ip);
            std::printf("lease %02x:%02x:%02x:%02x:%02x:%02x %s\n", mac[0], mac[1], mac[2], mac[3],
                        mac[4], mac[5], ip);
        }
    }
    const double elapsed = static_cast<double>(elapsed_ns_) / 1e9;
    const auto u = [](std::uint64_t v) { return static_cast<unsigned long long>(v); };
    const double loss = n_.sent_discover == 0
                            ? 0.0
                            : 100.0 * static_cast<double>(n_.sent_discover - n_.completed) /
                                  static_cast<double>(n_.sent_discover);
    const double avg_ms = n_.completed == 0 ? 0.0
                                            : static_cast<double>(n_.latency_sum_ns) /
                                                  static_cast<double>(n_.completed) / 1e6;
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    const auto secs = [](const timeval &tv) {
        return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1e6;
    };
    std::printf(
        "dhcpload: sent_discover=%llu offers=%llu requests=%llu acks=%llu naks=%llu "
        "completed=%llu timeouts=%llu retransmits=%llu unmatched=%llu send_errors=%llu "
        "elapsed_s=%.3f rate=%.1f/s loss_pct=%.2f avg_ms=%.3f max_ms=%.3f cpu_s=%.3f\n",
        u(n_.sent_discover), u(n_.offers), u(n_.requests), u(n_.acks), u(n_.naks), u(n_.completed),
        u(n_.timeouts), u(n_.retransmits), u(n_.unmatched), u(n_.send_errors), elapsed,
        elapsed > 0 ? static_cast<double>(n_.completed) / elapsed : 0.0, loss, avg_ms,
        static_cast<double>(n_.latency_max_ns) / 1e6, secs(ru.ru_utime) + secs(ru.ru_stime));
    std::fflush(stdout);
}

// ---- command line ----

void usage(std::FILE *out) {
    std::fputs(
        "usage: dhcpload -i IFNAME [options]\n"
        "  --mode direct|relay  broadcast clients on the link (default), or a relay\n"
        "                       agent sending to --server by UDP\n"
        "  --clients N          simulated clients, 1..1048576 (1000)\n"
        "  --rate R             exchanges started per second (1000)\n"
        "  --seconds S          sending window (10)\n"
        "  --exchanges N        stop starting after N exchanges\n"
        "  --timeout S          wait for each reply (2)\n"
        "  --retries N          retransmissions of an unanswered message (0)\n"
        "  --drain S            wait for open exchanges after the window\n"
        "                       (timeout x (retries + 1))\n"
        "  --broadcast          set the broadcast flag in requests\n"
        "  --server A.B.C.D     relay mode: the server\n"
        "  --giaddr A.B.C.D     relay mode: giaddr (the interface's address)\n"
        "  --port 67|68         relay mode: source and reply port (67)\n"
        "  --hops N             relay mode: hops (1)\n"
        "  --mac-seed N         second byte of the client MACs (0)\n"
        "  --progress           counts on stderr every second\n"
        "  --leases             print each client's last ACKed address\n",
        out);
}

bool parse_number(const char *text, double lo, double hi, double &out) {
    char *end = nullptr;
    errno = 0;
    const double v = std::strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !(v >= lo && v <= hi)) {
        return false;
    }
    out = v;
    return true;
}

bool parse_address(const char *text, std::uint32_t &out) {
    in_addr a{};
    if (inet_pton(AF_INET, text, &a) != 1) {
        return false;
    }
    out = a.s_addr;
    return true;
}

enum Opt {
    kMode = 256,
    kClients,
    kRate,
    kSeconds,
    kExchanges,
    kTimeout,
    kRetries,
    kDrain,
    kBroadcast,
    kServer,
    kGiaddr,
    kPort,
    kHops,
    kMacSeed,
    kProgress,
    kLeases,
};

const option kLongOptions[] = {
    {"interface", required_argument, nullptr, 'i'},
    {"help", no_argument, nullptr, 'h'},
    {"mode", required_argument, nullptr, kMode},
    {"clients", required_argument, nullptr, kClients},
    {"rate", required_argument, nullptr, kRate},
    {"seconds", required_argument, nullptr, kSeconds},
    {"exchanges", required_argument, nullptr, kExchanges},
    {"timeout", required_argument, nullptr, kTimeout},
    {"retries", required_argument, nullptr, kRetries},
    {"drain", required_argument, nullptr, kDrain},
    {"broadcast", no_argument, nullptr, kBroadcast},
    {"server", required_argument, nullptr, kServer},
    {"giaddr", required_argument, nullptr, kGiaddr},
    {"port", required_argument, nullptr, kPort},
    {"hops", required_argument, nullptr, kHops},
    {"mac-seed", required_argument, nullptr, kMacSeed},
    {"progress", no_argument, nullptr, kProgress},
    {"leases", no_argument, nullptr, kLeases},
    {nullptr, 0, nullptr, 0},
};

// One option into `cfg`; false when its value is not acceptable.
bool apply_option(Config &cfg, int opt, const char *arg) {
    double v = 0;
    switch (opt) {
        case 'i':
            cfg.ifname = arg;
            return !cfg.ifname.empty() && cfg.ifname.size() < IFNAMSIZ;
        case kMode:
            cfg.mode = std::strcmp(arg, "relay") == 0 ? Mode::relay : Mode::direct;
            return std::strcmp(arg, "relay") == 0 || std::strcmp(arg, "direct") == 0;
        case kClients:
            if (!parse_number(arg, 1, kMaxClients, v))
                return false;
            cfg.clients = static_cast<std::uint32_t>(v);
            return true;
        case kRate:
            return parse_number(arg, 0.001, 1e7, cfg.rate);
        case kSeconds:
            return parse_number(arg, 0, 1e6, cfg.seconds);
        case kExchanges:
            if (!parse_number(arg, 1, 1e15, v))
                return false;
            cfg.exchanges = static_cast<std::uint64_t>(v);
            return true;
        case kTimeout:
            return parse_number(arg, 0.001, 3600, cfg.timeout);
        case kRetries:
            if (!parse_number(arg, 0, 255, v))
                return false;
            cfg.retries = static_cast<unsigned>(v);
            return true;
        case kDrain:
            return parse_number(arg, 0, 3600, cfg.drain);
        case kBroadcast:
            cfg.broadcast = true;
            return true;
        case kServer:
            return parse_address(arg, cfg.server);
        case kGiaddr:
            return parse_address(arg, cfg.giaddr);
        case kPort:
            if (!parse_number(arg, 67, 68, v) || (v != 67 && v != 68))
                return false;
            cfg.port = static_cast<std::uint16_t>(v);
            return true;
        case kHops:
            if (!parse_number(arg, 0, 255, v))
                return false;
            cfg.hops = static_cast<std::uint8_t>(v);
            return true;
        case kMacSeed:
            if (!parse_number(arg, 0, 255, v))
                return false;
            cfg.mac_seed = static_cast<std::uint8_t>(v);
            return true;
        case kProgress:
            cfg.progress = true;
            return true;
        case kLeases:
            cfg.leases = true;
            return true;
        default:
            return false;
    }
}

std::optional<Config> parse_args(int argc, char **argv) {
    Config cfg;
    int opt;
    while ((opt = getopt_long(argc, argv, "hi:", kLongOptions, nullptr)) != -1) {
        if (opt == 'h') {
            usage(stdout);
            std::exit(0);
        }
        if (!apply_option(cfg, opt, optarg)) {
            if (opt != '?') {
                std::fprintf(stderr, "dhcpload: bad value '%s'\n", optarg ? optarg : "");
            }
            return std::nullopt;
        }
    }
    if (optind != argc || cfg.ifname.empty() || (cfg.mode == Mode::relay && cfg.server == 0)) {
        return std::nullopt;
    }
    return cfg;
}

}  // namespace

int main(int argc, char **argv) {
    const auto cfg = parse_args(argc, argv);
    if (!cfg) {
        usage(stderr);
        return 2;
    }
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    Generator gen(*cfg);
    if (!gen.open()) {
        return 1;
    }
    std::fprintf(stderr, "dhcpload: ready on %s\n", cfg->ifname.c_str());
    gen.run();
    gen.report();
    return 0;
}
