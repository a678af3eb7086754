#include "platform/fdb_table.h"

#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <cstring>

namespace {

constexpr std::size_t kMacLen = 6;

std::uint64_t mac_key(std::span<const std::uint8_t, 6> mac) {
    std::uint64_t k = 0;
    for (std::uint8_t b : mac) {
        k = (k << 8) | b;
    }
    return k;
}

struct neigh_fields {
    const std::uint8_t *lladdr = nullptr;
    std::uint32_t master = 0;
    std::uint16_t vlan = 0;
};

// The attributes after the ndmsg header; false when one runs past the end.
bool parse_attrs(std::span<const std::uint8_t> attrs, neigh_fields &f) {
    while (attrs.size() >= sizeof(nlattr)) {
        nlattr a;
        std::memcpy(&a, attrs.data(), sizeof a);
        if (a.nla_len < sizeof(nlattr) || a.nla_len > attrs.size()) {
            return false;
        }
        const auto value = attrs.subspan(sizeof(nlattr), a.nla_len - sizeof(nlattr));
        switch (a.nla_type & NLA_TYPE_MASK) {
            case NDA_LLADDR:
                f.lladdr = value.size() == kMacLen ? value.data() : nullptr;
                break;
            case NDA_MASTER:
                if (value.size() == sizeof f.master) {
                    std::memcpy(&f.master, value.data(), sizeof f.master);
                }
                break;
            case NDA_VLAN:
                if (value.size() == sizeof f.vlan) {
                    std::memcpy(&f.vlan, value.data(), sizeof f.vlan);
                }
                break;
            default:
                break;
        }
        const std::size_t step = NLA_ALIGN(a.nla_len);
        attrs = attrs.subspan(std::min(step, attrs.size()));
    }
    return true;
}

}  // namespace

bool fdb_table::apply(std::uint16_t type, std::span<const std::uint8_t> payload) {
    if (payload.size() < sizeof(ndmsg)) {
        return false;
    }
    ndmsg ndm;
    std::memcpy(&ndm, payload.data(), sizeof ndm);
    neigh_fields f;
    if (ndm.ndm_family != AF_BRIDGE || (ndm.ndm_flags & NTF_SELF) != 0 ||
        !parse_attrs(payload.subspan(NLMSG_ALIGN(sizeof(ndmsg))), f) || f.lladdr == nullptr ||
        f.master == 0 || f.master > static_cast<std::uint32_t>(INT_MAX) || f.vlan != 0 ||
        ndm.ndm_ifindex <= 0) {
        return false;
    }
    const key k{static_cast<int>(f.master), mac_key(std::span<const std::uint8_t, 6>(f.lladdr, 6))};
    if (type == RTM_DELNEIGH) {
        return entries_.erase(k) != 0;
    }
    auto it = entries_.find(k);
    if (it != entries_.end()) {
        const bool moved = it->second != ndm.ndm_ifindex;
        it->second = ndm.ndm_ifindex;
        return moved;
    }
    if (entries_.size() >= kMaxEntries) {
        overflowed_ = true;
        return false;
    }
    entries_.emplace(k, ndm.ndm_ifindex);
    return true;
}

std::size_t fdb_table::feed(std::span<const std::uint8_t> datagram) {
    std::size_t changed = 0;
    while (datagram.size() >= sizeof(nlmsghdr)) {
        nlmsghdr h;
        std::memcpy(&h, datagram.data(), sizeof h);
        if (h.nlmsg_len < sizeof(nlmsghdr) || h.nlmsg_len > datagram.size()) {
            break;
        }
        if (h.nlmsg_type == RTM_NEWNEIGH || h.nlmsg_type == RTM_DELNEIGH) {
            const auto payload = datagram.subspan(
                NLMSG_HDRLEN, h.nlmsg_len - std::min<std::size_t>(h.nlmsg_len, NLMSG_HDRLEN));
            changed += apply(h.nlmsg_type, payload) ? 1 : 0;
        }
        datagram =
            datagram.subspan(std::min<std::size_t>(NLMSG_ALIGN(h.nlmsg_len), datagram.size()));
    }
    return changed;
}

int fdb_table::find(int bridge, std::span<const std::uint8_t, 6> mac) const {
    auto it = entries_.find(key{bridge, mac_key(mac)});
    return it == entries_.end() ? 0 : it->second;
}

void fdb_table::clear() {
    entries_.clear();
    overflowed_ = false;
}
