// An in-memory copy of the bridges' forwarding databases, kept from
// rtnetlink neighbour messages (AF_BRIDGE RTM_NEWNEIGH / RTM_DELNEIGH, from
// a dump or from the neighbour multicast group).
//
// Only the bridges' own entries are kept: those naming their bridge
// (NDA_MASTER), not the ports' own address lists (NTF_SELF), and only for
// VLAN 0 (no NDA_VLAN, or 0), the entries the kernel's single-entry lookup
// answers without a VLAN. Each (bridge, MAC) maps to the ifindex it was
// learned on; a later RTM_NEWNEIGH moves it, RTM_DELNEIGH removes it.
//
// Every message is untrusted: lengths are checked against the bytes held,
// anything malformed or of another kind is ignored. The table holds at most
// kMaxEntries; a new entry beyond that is refused and the table marks itself
// overflowed, after which its answers cannot be trusted until clear().
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>

class fdb_table {
  public:
    static constexpr std::size_t kMaxEntries = 1u << 18;

    // Applies every neighbour message of one netlink datagram; returns how
    // many added, moved or removed an entry.
    std::size_t feed(std::span<const std::uint8_t> datagram);
    // The ifindex `mac` was learned on in `bridge`; 0 when not known.
    int find(int bridge, std::span<const std::uint8_t, 6> mac) const;
    void clear();
    std::size_t size() const { return entries_.size(); }
    bool overflowed() const { return overflowed_; }

  private:
    struct key {
        int bridge;
        std::uint64_t mac;  // the 6 bytes, big-endian, in the low 48 bits
        bool operator==(const key &) const = default;
    };
    struct key_hash {
        std::size_t operator()(const key &k) const {
            return std::hash<std::uint64_t>{}(k.mac ^ (static_cast<std::uint64_t>(k.bridge) << 48));
        }
    };
    bool apply(std::uint16_t type, std::span<const std::uint8_t> payload);

    std::unordered_map<key, int, key_hash> entries_;
    bool overflowed_ = false;
};
