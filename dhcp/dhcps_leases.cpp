// The lease table, its indexes and the lease file.
//
// Table order lives in a treap with implicit keys (position only), threaded
// by prev/next for walks. Each subtree knows its size, how many of its
// records carry a MAC, how many have no address and its smallest expiry, so
// the insertion point (first record with a MAC), the first expired record
// and the first record with a zero MAC or address are found by one descent,
// and two records are ordered by their ranks. MAC and address lookups go
// through open-addressing tables whose slots hold the first record with the
// key (and its expiry); further records with the same key hang off it in a
// chain kept in table order. An order-statistics tree over (expires, uid)
// counts the expired records.
#include "dhcp/dhcps_leases.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <ext/pb_ds/assoc_container.hpp>
#include <ext/pb_ds/tree_policy.hpp>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "dhcp/dhcp_arp.h"
#include "dhcp/dhcp_options.h"
#include "dhcp/dhcp_socket.h"
#include "dhcp/dhcp_zebra.h"
#include "dhcp/dhcps_pool.h"
#include "lib/log.h"
#include "lib/thread.h"
#include "platform/clock.h"

namespace {

// A lease that ended this long ago (12 hours and a second) is not loaded.
constexpr std::int64_t kStaleAge = 43201;
// The largest max-lease-num the server accepts: a file we wrote never holds
// more records, so loading stops there whatever the current setting.
constexpr std::uint32_t kLeaseNumCeiling = 10240;
// Records read from the lease file per read(2).
constexpr std::size_t kLoadChunk = 128;

std::uint32_t load_be32(const std::uint8_t *p) {
    return (static_cast<std::uint32_t>(p[0]) << 24) | (static_cast<std::uint32_t>(p[1]) << 16) |
           (static_cast<std::uint32_t>(p[2]) << 8) | static_cast<std::uint32_t>(p[3]);
}

void store_be32(std::uint8_t *p, std::uint32_t v) {
    p[0] = static_cast<std::uint8_t>(v >> 24);
    p[1] = static_cast<std::uint8_t>(v >> 16);
    p[2] = static_cast<std::uint8_t>(v >> 8);
    p[3] = static_cast<std::uint8_t>(v);
}

std::uint64_t mac_key(const std::uint8_t *mac) {
    std::uint64_t k = 0;
    for (int i = 0; i < 6; ++i) {
        k = (k << 8) | mac[i];
    }
    return k;
}

std::uint32_t nip_of(const dhcps_lease &l) {
    std::uint32_t v;
    std::memcpy(&v, l.nip, 4);
    return v;
}

std::uint64_t splitmix64(std::uint64_t &state) {
    std::uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

std::uint64_t random_seed() {
    std::uint64_t seed = 0;
    if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof seed)) {
        seed = static_cast<std::uint64_t>(std::time(nullptr)) ^
               static_cast<std::uint64_t>(::getpid()) << 32;
    }
    return seed;
}

// MACs come from clients: a keyed mix keeps them from piling into one place.
struct keyed_home {
    std::uint64_t key;
    std::size_t operator()(std::uint64_t v) const noexcept {
        std::uint64_t s = v ^ key;
        return static_cast<std::size_t>(splitmix64(s));
    }
};

struct lease_node;

// Open addressing with linear probing; key 0 marks a free slot (records with
// a zero MAC or address are found through the treap instead).
template <typename Key, typename Home>
class flat_index {
  public:
    using key_type = Key;
    struct slot {
        Key key = 0;
        std::int32_t expires = 0;  // of `head`
        lease_node *head = nullptr;
    };

    explicit flat_index(Home home) : home_(home) {}

    const slot *find(Key k) const {
        if (count_ == 0 || k == 0) {
            return nullptr;
        }
        for (std::size_t i = home_(k) & mask_;; i = (i + 1) & mask_) {
            const slot &s = slots_[i];
            if (s.key == k) {
                return &s;
            }
            if (s.key == 0) {
                return nullptr;
            }
        }
    }
    slot *find(Key k) { return const_cast<slot *>(std::as_const(*this).find(k)); }

    // The slot of `k`, made with no head when absent. Valid until the next
    // insertion or erasure.
    slot &get(Key k) {
        if ((count_ + 1) * 2 > slots_.size()) {
            rehash(std::max<std::size_t>(16, slots_.size() * 2));
        }
        std::size_t i = home_(k) & mask_;
        while (slots_[i].key != 0 && slots_[i].key != k) {
            i = (i + 1) & mask_;
        }
        if (slots_[i].key == 0) {
            slots_[i].key = k;
            ++count_;
        }
        return slots_[i];
    }

    // Backward-shift deletion: no tombstones, probes stay short.
    void erase(slot &gone) {
        std::size_t i = static_cast<std::size_t>(&gone - slots_.data());
        for (std::size_t j = (i + 1) & mask_; slots_[j].key != 0; j = (j + 1) & mask_) {
            const std::size_t h = home_(slots_[j].key) & mask_;
            // The entry at j may fill the hole at i unless its home lies
            // cyclically in (i, j].
            const bool stays = i <= j ? (h > i && h <= j) : (h > i || h <= j);
            if (!stays) {
                slots_[i] = slots_[j];
                i = j;
            }
        }
        slots_[i] = slot{};
        --count_;
    }

    std::size_t size() const { return count_; }

    void clear() {
        slots_.clear();
        slots_.shrink_to_fit();
        mask_ = 0;
        count_ = 0;
    }

  private:
    void rehash(std::size_t size) {
        std::vector<slot> old(size);
        old.swap(slots_);
        mask_ = size - 1;
        for (const slot &s : old) {
            if (s.key != 0) {
                std::size_t i = home_(s.key) & mask_;
                while (slots_[i].key != 0) {
                    i = (i + 1) & mask_;
                }
                slots_[i] = s;
            }
        }
    }

    Home home_;
    std::vector<slot> slots_;
    std::size_t mask_ = 0;
    std::size_t count_ = 0;
};

struct chain_link {
    struct lease_node *prev = nullptr;
    struct lease_node *next = nullptr;
};

struct lease_node {
    dhcps_lease rec{};
    // Treap over table order.
    lease_node *parent = nullptr;
    lease_node *left = nullptr;
    lease_node *right = nullptr;
    std::uint64_t prio = 0;
    std::uint32_t size = 1;
    std::uint32_t macs = 0;       // records in the subtree with a non-zero MAC
    std::uint32_t zero_nips = 0;  // records in the subtree without an address
    std::int32_t min_expires = 0;
    // Table order threads.
    lease_node *prev = nullptr;
    lease_node *next = nullptr;
    // Records sharing a non-zero key, in table order.
    chain_link mac_chain;
    chain_link nip_chain;
    // The keys this record is indexed under, so a record whose bytes were
    // changed behind our back is still unlinked cleanly.
    std::uint64_t mac_idx = 0;
    std::uint32_t nip_idx = 0;
    std::int32_t exp_idx = 0;
    std::uint64_t uid = 0;
};

using expiry_key = std::pair<std::int32_t, std::uint64_t>;
using expiry_tree =
    __gnu_pbds::tree<expiry_key, __gnu_pbds::null_type, std::less<expiry_key>,
                     __gnu_pbds::rb_tree_tag, __gnu_pbds::tree_order_statistics_node_update>;

// Which addresses hold at least one record: one bit per address (host
// order) in 64 Ki-address blocks, so the free-address search steps over 64
// leased addresses per word instead of probing each.
class leased_map {
  public:
    void set(std::uint32_t host, bool on) {
        auto &block = blocks_[host >> 16];
        if (!block) {
            if (!on) {
                return;
            }
            block = std::make_unique<words>();
        }
        const std::uint64_t bit = std::uint64_t{1} << (host & 63u);
        auto &w = (*block)[(host & 0xffffu) >> 6];
        w = on ? (w | bit) : (w & ~bit);
    }

    // Lowest address in [from, to] without a record; to + 1 when none.
    std::uint64_t first_clear(std::uint64_t from, std::uint64_t to) const {
        while (from <= to) {
            auto it = blocks_.find(static_cast<std::uint32_t>(from >> 16));
            if (it == blocks_.end()) {
                return from;
            }
            const words &b = *it->second;
            std::uint64_t idx = from & 0xffffu;
            std::uint64_t free = ~b[idx >> 6] & (~std::uint64_t{0} << (idx & 63u));
            for (std::size_t w = idx >> 6;;) {
                if (free != 0) {
                    std::uint64_t found = (from & ~std::uint64_t{0xffff}) | (w << 6) |
                                          static_cast<std::uint64_t>(__builtin_ctzll(free));
                    return found <= to ? found : to + 1;
                }
                if (++w == b.size()) {
                    break;
                }
                free = ~b[w];
            }
            from = ((from >> 16) + 1) << 16;
        }
        return to + 1;
    }

    void clear() { blocks_.clear(); }

    std::size_t count() const {
        std::size_t n = 0;
        for (const auto &[block, w] : blocks_) {
            for (std::uint64_t bits : *w) {
                n += static_cast<std::size_t>(__builtin_popcountll(bits));
            }
        }
        return n;
    }

  private:
    using words = std::array<std::uint64_t, 1024>;
    std::unordered_map<std::uint32_t, std::unique_ptr<words>> blocks_;
};

class lease_table {
  public:
    lease_table()
        : seed_(random_seed()), mac_heads_(keyed_home{seed_}), nip_heads_(keyed_home{~seed_}) {}
    lease_table(const lease_table &) = delete;
    lease_table &operator=(const lease_table &) = delete;

    std::size_t size() const { return nodes_.size(); }
    lease_node *head() const { return head_; }

    lease_node *find(const dhcps_lease *l) const {
        auto it = nodes_.find(l);
        return it == nodes_.end() ? nullptr : it->second.get();
    }

    void clear() {
        root_ = head_ = tail_ = nullptr;
        mac_heads_.clear();
        nip_heads_.clear();
        leased_.clear();
        expiry_.clear();
        nodes_.clear();
    }

    // A record placed where a zeroed one goes, before the first record that
    // has a MAC, and given its MAC (none for nullptr), address and expiry
    // there: the same as filling a zeroed record in place, in one pass.
    lease_node *create(const std::uint8_t *mac = nullptr, std::uint32_t nip = 0,
                       std::int32_t expires = 0) {
        auto owned = std::make_unique<lease_node>();
        lease_node *n = owned.get();
        n->uid = ++uid_;
        n->prio = splitmix64(prio_state_);
        auto it = nodes_.try_emplace(&n->rec, std::move(owned)).first;
        try {
            expiry_.insert({expires, n->uid});
        } catch (...) {
            nodes_.erase(it);
            throw;
        }
        store_be32(n->rec.expires, static_cast<std::uint32_t>(expires));
        n->exp_idx = expires;
        std::memcpy(n->rec.nip, &nip, 4);
        n->nip_idx = nip;
        if (mac != nullptr) {
            std::memcpy(n->rec.mac, mac, 6);
            n->mac_idx = mac_key(mac);
        }
        pull(n);
        link_before(first_with_mac(), n);
        chain_link_in(mac_heads_, &lease_node::mac_chain, n, n->mac_idx);
        chain_link_in(nip_heads_, &lease_node::nip_chain, n, n->nip_idx);
        if (nip != 0) {
            leased_.set(ntohl(nip), true);
        }
        return n;
    }

    void erase(lease_node *n) noexcept {
        chain_unlink(mac_heads_, &lease_node::mac_chain, n, n->mac_idx);
        chain_unlink(nip_heads_, &lease_node::nip_chain, n, n->nip_idx);
        if (n->nip_idx != 0 && nip_heads_.find(n->nip_idx) == nullptr) {
            leased_.set(ntohl(n->nip_idx), false);
        }
        expiry_.erase({n->exp_idx, n->uid});
        unlink_tree(n);
        (n->prev ? n->prev->next : head_) = n->next;
        (n->next ? n->next->prev : tail_) = n->prev;
        nodes_.erase(&n->rec);
    }

    // The one record holding `mac` and `nip` when no other record holds
    // either: a client's own record, met again at each of its requests.
    lease_node *sole_holder(const std::uint8_t *mac, std::uint32_t nip) const {
        const std::uint64_t k = mac != nullptr ? mac_key(mac) : 0;
        if (k == 0 || nip == 0) {
            return nullptr;
        }
        const auto *by_mac = mac_heads_.find(k);
        const auto *by_nip = nip_heads_.find(nip);
        if (by_mac == nullptr || by_nip == nullptr || by_mac->head != by_nip->head) {
            return nullptr;
        }
        lease_node *n = by_mac->head;
        return (n->mac_chain.next == nullptr && n->nip_chain.next == nullptr) ? n : nullptr;
    }

    // Erasing the sole holder of its MAC and address and creating a record
    // of the same two with `expires` in one step: the record is zeroed but
    // for those, and moves to where create() puts a new one, with the uid
    // and priority create() would have drawn; its memory, its index slots and
    // its address's bit stay. False (nothing changed) when out of memory.
    bool renew(lease_node *n, std::int32_t expires) noexcept {
        const std::uint64_t uid = uid_ + 1;
        try {
            expiry_.insert({expires, uid});
        } catch (...) {
            return false;
        }
        uid_ = uid;
        expiry_.erase({n->exp_idx, n->uid});
        n->uid = uid;
        n->prio = splitmix64(prio_state_);
        unlink_tree(n);
        (n->prev ? n->prev->next : head_) = n->next;
        (n->next ? n->next->prev : tail_) = n->prev;
        n->prev = n->next = nullptr;
        const dhcps_lease kept = n->rec;
        n->rec = dhcps_lease{};
        std::memcpy(n->rec.mac, kept.mac, sizeof kept.mac);
        std::memcpy(n->rec.nip, kept.nip, sizeof kept.nip);
        store_be32(n->rec.expires, static_cast<std::uint32_t>(expires));
        n->exp_idx = expires;
        pull(n);
        link_before(first_with_mac(), n);
        refresh_head(mac_heads_, &lease_node::mac_chain, n, n->mac_idx);
        refresh_head(nip_heads_, &lease_node::nip_chain, n, n->nip_idx);
        return true;
    }

    void set_mac(lease_node *n, const std::uint8_t *mac) noexcept {
        chain_unlink(mac_heads_, &lease_node::mac_chain, n, n->mac_idx);
        std::memcpy(n->rec.mac, mac, 6);
        n->mac_idx = mac_key(mac);
        chain_link_in(mac_heads_, &lease_node::mac_chain, n, n->mac_idx);
        pull_up(n);
    }

    void set_expires(lease_node *n, std::int32_t expires) noexcept {
        expiry_.erase({n->exp_idx, n->uid});
        store_be32(n->rec.expires, static_cast<std::uint32_t>(expires));
        n->exp_idx = expires;
        expiry_.insert({expires, n->uid});
        pull_up(n);
        refresh_head(mac_heads_, &lease_node::mac_chain, n, n->mac_idx);
        refresh_head(nip_heads_, &lease_node::nip_chain, n, n->nip_idx);
    }

    lease_node *first_by_mac(const std::uint8_t *mac) const {
        const std::uint64_t k = mac_key(mac);
        if (k == 0) {
            return descend([](const lease_node *s) { return s->size - s->macs; },
                           [](const lease_node *s) { return s->mac_idx == 0; });
        }
        const auto *s = mac_heads_.find(k);
        return s ? s->head : nullptr;
    }

    lease_node *first_by_nip(std::uint32_t nip) const {
        if (nip == 0) {
            return descend([](const lease_node *s) { return s->zero_nips; },
                           [](const lease_node *s) { return s->nip_idx == 0; });
        }
        const auto *s = nip_heads_.find(nip);
        return s ? s->head : nullptr;
    }

    // The first record with a non-zero address and its expiry, read from
    // the index alone (the search looks at thousands of them).
    std::pair<lease_node *, std::int32_t> first_by_nip_with_expiry(std::uint32_t nip) const {
        if (nip == 0) {
            lease_node *n = first_by_nip(0);
            return {n, n ? n->exp_idx : 0};
        }
        const auto *s = nip_heads_.find(nip);
        return s ? std::pair{s->head, s->expires} : std::pair<lease_node *, std::int32_t>{};
    }

    // First record in table order whose expiry lies before `now`.
    lease_node *first_expired(std::int32_t now) const {
        lease_node *v = root_;
        if (v == nullptr || v->min_expires >= now) {
            return nullptr;
        }
        for (;;) {
            if (v->left != nullptr && v->left->min_expires < now) {
                v = v->left;
            } else if (v->exp_idx < now) {
                return v;
            } else {
                v = v->right;
            }
        }
    }

    std::size_t expired_count(std::int32_t now) const { return expiry_.order_of_key({now, 0}); }

    std::uint64_t first_unleased(std::uint64_t from, std::uint64_t to) const {
        return leased_.first_clear(from, to);
    }

    // Every index against a plain walk of the table; empty when they agree.
    std::string check(std::int32_t now) const;

  private:
    std::string check_threads(std::vector<const lease_node *> &order) const;
    std::string check_tree(const std::vector<const lease_node *> &order) const;
    template <typename Index, typename KeyOf>
    static std::string check_index(const Index &heads, chain_link lease_node::*link,
                                   const std::vector<const lease_node *> &order, KeyOf key_of,
                                   const char *what);
    std::string check_lookups(const std::vector<const lease_node *> &order, std::int32_t now) const;

  public:
  private:
    static std::uint32_t sz(const lease_node *n) { return n ? n->size : 0; }

    static void pull(lease_node *n) {
        n->size = 1;
        n->macs = n->mac_idx != 0 ? 1 : 0;
        n->zero_nips = n->nip_idx == 0 ? 1 : 0;
        n->min_expires = n->exp_idx;
        for (const lease_node *c : {n->left, n->right}) {
            if (c != nullptr) {
                n->size += c->size;
                n->macs += c->macs;
                n->zero_nips += c->zero_nips;
                n->min_expires = std::min(n->min_expires, c->min_expires);
            }
        }
    }

    static void pull_up(lease_node *n) {
        for (; n != nullptr; n = n->parent) {
            pull(n);
        }
    }

    // Leftmost record of the subtree counts that matches `own`.
    template <typename Count, typename Own>
    lease_node *descend(Count count, Own own) const {
        lease_node *v = root_;
        if (v == nullptr || count(v) == 0) {
            return nullptr;
        }
        for (;;) {
            if (v->left != nullptr && count(v->left) != 0) {
                v = v->left;
            } else if (own(v)) {
                return v;
            } else {
                v = v->right;
            }
        }
    }

    lease_node *first_with_mac() const {
        return descend([](const lease_node *s) { return s->macs; },
                       [](const lease_node *s) { return s->mac_idx != 0; });
    }

    static std::uint32_t rank(const lease_node *n) {
        std::uint32_t r = sz(n->left);
        for (const lease_node *p = n->parent; p != nullptr; n = p, p = p->parent) {
            if (p->right == n) {
                r += sz(p->left) + 1;
            }
        }
        return r;
    }

    void replace_child(lease_node *parent, lease_node *old, lease_node *now) {
        if (parent == nullptr) {
            root_ = now;
        } else if (parent->left == old) {
            parent->left = now;
        } else {
            parent->right = now;
        }
        if (now != nullptr) {
            now->parent = parent;
        }
    }

    void rotate_up(lease_node *n) {
        lease_node *p = n->parent;
        lease_node *g = p->parent;
        if (p->left == n) {
            p->left = n->right;
            if (p->left != nullptr) {
                p->left->parent = p;
            }
            n->right = p;
        } else {
            p->right = n->left;
            if (p->right != nullptr) {
                p->right->parent = p;
            }
            n->left = p;
        }
        p->parent = n;
        replace_child(g, p, n);
        pull(p);
        pull(n);
    }

    // Links `n` directly before `succ` (at the tail for none).
    void link_before(lease_node *succ, lease_node *n) {
        lease_node *pred = succ ? succ->prev : tail_;
        n->prev = pred;
        n->next = succ;
        (pred ? pred->next : head_) = n;
        (succ ? succ->prev : tail_) = n;
        if (root_ == nullptr) {
            root_ = n;
            return;
        }
        // The in-order gap between pred and succ is a free child slot of one
        // of them: succ's left when empty, else pred's right.
        if (succ != nullptr && succ->left == nullptr) {
            succ->left = n;
            n->parent = succ;
        } else {
            pred->right = n;
            n->parent = pred;
        }
        pull_up(n->parent);
        while (n->parent != nullptr && n->prio > n->parent->prio) {
            rotate_up(n);
        }
    }

    void unlink_tree(lease_node *n) {
        while (n->left != nullptr || n->right != nullptr) {
            lease_node *c = n->left == nullptr               ? n->right
                            : n->right == nullptr            ? n->left
                            : n->left->prio > n->right->prio ? n->left
                                                             : n->right;
            rotate_up(c);
        }
        lease_node *p = n->parent;
        replace_child(p, n, nullptr);
        n->parent = nullptr;
        pull_up(p);
    }

    template <typename Index>
    static void chain_link_in(Index &heads, chain_link lease_node::*link, lease_node *n,
                              typename Index::key_type key) {
        (n->*link) = chain_link{};
        if (key == 0) {
            return;
        }
        auto &slot = heads.get(key);
        lease_node *cur = slot.head;
        if (cur == nullptr) {
            slot.head = n;
            slot.expires = n->exp_idx;
            return;
        }
        // Another record has this key: keep the chain in table order.
        const std::uint32_t r = rank(n);
        if (r < rank(cur)) {
            (n->*link).next = cur;
            (cur->*link).prev = n;
            slot.head = n;
            slot.expires = n->exp_idx;
            return;
        }
        while ((cur->*link).next != nullptr && rank((cur->*link).next) < r) {
            cur = (cur->*link).next;
        }
        (n->*link).prev = cur;
        (n->*link).next = (cur->*link).next;
        if ((cur->*link).next != nullptr) {
            ((cur->*link).next->*link).prev = n;
        }
        (cur->*link).next = n;
    }

    template <typename Index>
    static void chain_unlink(Index &heads, chain_link lease_node::*link, lease_node *n,
                             typename Index::key_type key) {
        if (key == 0) {
            return;
        }
        chain_link &l = n->*link;
        if (l.prev != nullptr) {
            (l.prev->*link).next = l.next;
        } else if (auto *slot = heads.find(key)) {
            if (l.next != nullptr) {
                slot->head = l.next;
                slot->expires = l.next->exp_idx;
            } else {
                heads.erase(*slot);
            }
        }
        if (l.next != nullptr) {
            (l.next->*link).prev = l.prev;
        }
        l = chain_link{};
    }

    // A chain's head carries its expiry into the index.
    template <typename Index>
    static void refresh_head(Index &heads, chain_link lease_node::*link, lease_node *n,
                             typename Index::key_type key) {
        if (key != 0 && (n->*link).prev == nullptr) {
            if (auto *slot = heads.find(key)) {
                slot->expires = n->exp_idx;
            }
        }
    }

    std::uint64_t seed_;
    std::uint64_t prio_state_ = seed_ ^ 0x5bd1e995ULL;
    std::uint64_t uid_ = 0;
    std::unordered_map<const dhcps_lease *, std::unique_ptr<lease_node>> nodes_;
    lease_node *root_ = nullptr;
    lease_node *head_ = nullptr;
    lease_node *tail_ = nullptr;
    flat_index<std::uint64_t, keyed_home> mac_heads_;
    flat_index<std::uint32_t, keyed_home> nip_heads_;
    expiry_tree expiry_;
    leased_map leased_;
};

// The table order from the head, with the links both ways and the owner map.
std::string lease_table::check_threads(std::vector<const lease_node *> &order) const {
    const lease_node *prev = nullptr;
    for (const lease_node *n = head_; n != nullptr; prev = n, n = n->next) {
        if (n->prev != prev || find(&n->rec) != n || order.size() > nodes_.size()) {
            return "table order links broken";
        }
        if (n->mac_idx != mac_key(n->rec.mac) || n->nip_idx != nip_of(n->rec) ||
            n->exp_idx != dhcps_lease_expires(&n->rec)) {
            return "record bytes differ from the keys it is indexed under";
        }
        order.push_back(n);
    }
    if (prev != tail_ || order.size() != nodes_.size()) {
        return "table order misses records";
    }
    return {};
}

// The treap in order is the table order; sizes, counts and heap order hold.
std::string lease_table::check_tree(const std::vector<const lease_node *> &order) const {
    std::vector<const lease_node *> stack;
    std::size_t at = 0;
    if (root_ != nullptr && root_->parent != nullptr) {
        return "tree root has a parent";
    }
    for (const lease_node *v = root_; v != nullptr || !stack.empty();) {
        for (; v != nullptr; v = v->left) {
            stack.push_back(v);
        }
        v = stack.back();
        stack.pop_back();
        if (at >= order.size() || order[at++] != v) {
            return "tree order differs from the table order";
        }
        lease_node probe = *v;
        pull(&probe);
        if (probe.size != v->size || probe.macs != v->macs || probe.zero_nips != v->zero_nips ||
            probe.min_expires != v->min_expires) {
            return "tree summaries stale";
        }
        for (const lease_node *c : {v->left, v->right}) {
            if (c != nullptr && (c->parent != v || c->prio > v->prio)) {
                return "tree links or heap order broken";
            }
        }
        v = v->right;
    }
    if (at != order.size()) {
        return "tree misses records";
    }
    return {};
}

// Each key's slot heads a chain holding exactly its records in table order.
template <typename Index, typename KeyOf>
std::string lease_table::check_index(const Index &heads, chain_link lease_node::*link,
                                     const std::vector<const lease_node *> &order, KeyOf key_of,
                                     const char *what) {
    std::unordered_map<typename Index::key_type, std::vector<const lease_node *>> by_key;
    std::vector<typename Index::key_type> keys;
    for (const lease_node *n : order) {
        const auto k = key_of(n);
        if (k == 0) {
            continue;
        }
        auto &v = by_key[k];
        if (v.empty()) {
            keys.push_back(k);
        }
        v.push_back(n);
    }
    if (heads.size() != keys.size()) {
        return std::string(what) + " index holds other keys than the table";
    }
    for (const auto k : keys) {
        const auto &want = by_key[k];
        const auto *slot = heads.find(k);
        if (slot == nullptr || slot->head != want.front() ||
            slot->expires != want.front()->exp_idx) {
            return std::string(what) + " index head differs from the first record";
        }
        const lease_node *prev = nullptr;
        std::size_t i = 0;
        for (const lease_node *c = slot->head; c != nullptr; prev = c, c = (c->*link).next) {
            if (i >= want.size() || want[i++] != c || (c->*link).prev != prev) {
                return std::string(what) + " chain differs from the table";
            }
        }
        if (i != want.size()) {
            return std::string(what) + " chain misses records";
        }
    }
    return {};
}

// The answers of the lookups against the plain walk.
std::string lease_table::check_lookups(const std::vector<const lease_node *> &order,
                                       std::int32_t now) const {
    const lease_node *first_zero_mac = nullptr;
    const lease_node *first_zero_nip = nullptr;
    const lease_node *first_old = nullptr;
    std::size_t expired = 0;
    std::unordered_map<std::uint32_t, bool> nips;
    for (const lease_node *n : order) {
        if (n->mac_idx == 0 && first_zero_mac == nullptr) {
            first_zero_mac = n;
        }
        if (n->nip_idx == 0 && first_zero_nip == nullptr) {
            first_zero_nip = n;
        }
        if (n->exp_idx < now) {
            ++expired;
            first_old = first_old ? first_old : n;
        }
        if (n->nip_idx != 0) {
            nips[n->nip_idx] = true;
            if (leased_.first_clear(ntohl(n->nip_idx), ntohl(n->nip_idx)) == ntohl(n->nip_idx)) {
                return "leased address missing from the address map";
            }
        }
    }
    static constexpr std::uint8_t zero[6] = {};
    if (first_by_mac(zero) != first_zero_mac || first_by_nip(0) != first_zero_nip) {
        return "zero-key lookup differs from the walk";
    }
    if (first_expired(now) != first_old || expired_count(now) != expired ||
        expiry_.size() != order.size()) {
        return "expiry index differs from the walk";
    }
    if (leased_.count() != nips.size()) {
        return "address map holds addresses without a record";
    }
    return {};
}

std::string lease_table::check(std::int32_t now) const {
    std::vector<const lease_node *> order;
    std::string why = check_threads(order);
    if (why.empty()) {
        why = check_tree(order);
    }
    if (why.empty()) {
        why = check_index(
            mac_heads_, &lease_node::mac_chain, order,
            [](const lease_node *n) { return n->mac_idx; }, "MAC");
    }
    if (why.empty()) {
        why = check_index(
            nip_heads_, &lease_node::nip_chain, order,
            [](const lease_node *n) { return n->nip_idx; }, "address");
    }
    if (why.empty()) {
        why = check_lookups(order, now);
    }
    return why;
}

lease_table &table() {
    static lease_table t;
    return t;
}

// Allocation failure is the one way to get no record.
lease_node *new_node(const std::uint8_t *mac = nullptr, std::uint32_t nip = 0,
                     std::int32_t expires = 0) {
    try {
        return table().create(mac, nip, expires);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

std::string lease_file_path = DHCPS_LEASE_FILE;
dhcps_lease_file_writer lease_file_writer;
thread_master *write_master = nullptr;
thread *write_thread = nullptr;

const char *ip_text(std::uint32_t nip, char (&buf)[INET_ADDRSTRLEN]) {
    in_addr a{};
    a.s_addr = nip;
    return inet_ntop(AF_INET, &a, buf, sizeof buf);
}

// The first addresses of option `code`, as many as `out` holds; zero where absent.
void option_addresses(const dhcps_pool *pool, std::uint8_t code, std::span<std::uint32_t> out) {
    std::fill(out.begin(), out.end(), 0u);
    const option_set *o = dhcp_find_option(pool->options, code);
    if (o == nullptr) {
        return;
    }
    const auto value = o->value();
    for (std::size_t i = 0; i < out.size() && i * 4 < value.size(); ++i) {
        std::memcpy(&out[i], value.data() + i * 4, std::min<std::size_t>(4, value.size() - i * 4));
    }
}

bool write_all(int fd, std::span<const std::byte> buf) {
    while (!buf.empty()) {
        const ssize_t n = dhcp_safe_write(fd, buf);
        if (n <= 0) {
            return false;
        }
        buf = buf.subspan(static_cast<std::size_t>(n));
    }
    return true;
}

// Reads until `buf` is full, end of file or an error; the bytes read.
std::size_t read_full(int fd, std::span<std::byte> buf, bool &failed) {
    std::size_t got = 0;
    failed = false;
    while (got < buf.size()) {
        const ssize_t n = dhcp_safe_read(fd, buf.subspan(got));
        if (n < 0) {
            failed = true;
            break;
        }
        if (n == 0) {
            break;
        }
        got += static_cast<std::size_t>(n);
    }
    return got;
}

std::string dir_of(const std::string &path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

// The rest of a new record: state, lease time and the client's name, with
// control characters and, read as signed, every byte above 127 as '^'.
dhcps_lease *fill_lease(dhcps_lease *lease, std::uint32_t state, std::uint32_t lease_time,
                        const char *name, std::size_t name_len) {
    store_be32(lease->state, state);
    store_be32(lease->lease_time, lease_time);
    for (std::size_t i = 0; i < name_len; ++i) {
        const auto c = static_cast<signed char>(name[i]);
        lease->hostname[i] = (c < 32 || c == 127) ? '^' : name[i];
    }
    return lease;
}

// A missing record reads as all zero and takes no change.
bool missing(const void *p) {
    if (p == nullptr) {
        zlog_warn("The input pointer is NULL!");
        return true;
    }
    return false;
}

}  // namespace

std::uint32_t dhcps_lease_state(const dhcps_lease *l) {
    return missing(l) ? 0 : load_be32(l->state);
}
std::int32_t dhcps_lease_expires(const dhcps_lease *l) {
    return missing(l) ? 0 : static_cast<std::int32_t>(load_be32(l->expires));
}
std::uint32_t dhcps_lease_time(const dhcps_lease *l) {
    return missing(l) ? 0 : load_be32(l->lease_time);
}
std::uint32_t dhcps_lease_nip(const dhcps_lease *l) {
    return missing(l) ? 0 : nip_of(*l);
}

void dhcps_lease_set_state(dhcps_lease *l, std::uint32_t state) {
    if (!missing(l)) {
        store_be32(l->state, state);
    }
}

void dhcps_lease_set_expires(dhcps_lease *l, std::int32_t expires) {
    if (missing(l)) {
        return;
    }
    if (lease_node *n = table().find(l)) {
        table().set_expires(n, expires);
    } else {
        store_be32(l->expires, static_cast<std::uint32_t>(expires));
    }
}

void dhcps_lease_set_mac(dhcps_lease *l, const std::uint8_t mac[6]) {
    if (missing(l) || missing(mac)) {
        return;
    }
    if (lease_node *n = table().find(l)) {
        table().set_mac(n, mac);
    } else {
        std::memcpy(l->mac, mac, 6);
    }
}

void dhcps_lease_list_init() {
    table().clear();
}

void dhcps_lease_list_free() {
    table().clear();
}

dhcps_lease *dhcps_leases_new() {
    lease_node *n = new_node();
    return n ? &n->rec : nullptr;
}

dhcps_lease *dhcps_add_lease(const std::uint8_t *mac, std::uint32_t nip, std::uint32_t lease_time,
                             std::int32_t expires, const char *hostname, int hostname_len,
                             std::uint32_t state, int check_max) {
    // The caller's bytes may live in a record the clearing below frees.
    std::uint8_t mac_copy[6];
    if (mac != nullptr) {
        std::memcpy(mac_copy, mac, sizeof mac_copy);
        mac = mac_copy;
    }
    // One byte more than the name's length, as clients' names are copied
    // straight out of the message (the next option's code comes along); at
    // most the field, and no further than a NUL.
    char name[sizeof(dhcps_lease::hostname)] = {};
    std::size_t name_len = 0;
    if (hostname != nullptr && hostname_len >= 0) {
        const std::size_t count =
            std::min<std::size_t>(static_cast<std::size_t>(hostname_len) + 1, sizeof name);
        name_len = strnlen(hostname, count);
        std::memcpy(name, hostname, name_len);
    }

    // The client's own record, alone with its MAC and address: renewed in
    // place, which is the clearing and creation below in one step. Not when
    // the table is near its maximum, where the checks below decide.
    lease_table &t = table();
    lease_node *n = t.sole_holder(mac, nip);
    if (n != nullptr && (check_max != 1 || t.size() - 1 < dhcps_global.max_lease_num) &&
        t.renew(n, expires)) {
        return fill_lease(&n->rec, state, lease_time, name, name_len);
    }

    dhcps_clear_leases(mac, nip);

    if (check_max == 1) {
        const std::uint32_t max = dhcps_global.max_lease_num;
        if (static_cast<std::uint32_t>(dhcps_get_active_leases_num()) >= max) {
            zlog_debug("The lease num exceeds max: %d\n", static_cast<int>(max));
            return nullptr;
        }
        if (static_cast<std::uint32_t>(dhcps_get_leases_num()) >= max) {
            // Makes room for the next attempt but refuses this one: the
            // deletion reports 0, which reads as failure here. Kept so.
            if (dhcps_delete_an_expired_leases() == 0) {
                zlog_err("dhcps_delete_an_expired_leases fail!\n");
                return nullptr;
            }
        }
    }

    n = new_node(mac, nip, expires);
    if (n == nullptr) {
        zlog_err("dhcps_leases_new return NULL!\n");
        return nullptr;
    }
    return fill_lease(&n->rec, state, lease_time, name, name_len);
}

void dhcps_lease_free(dhcps_lease *lease) {
    if (missing(lease)) {
        return;
    }
    if (lease_node *n = table().find(lease)) {
        table().erase(n);
    }
}

void dhcps_clear_leases(const std::uint8_t *mac, std::uint32_t nip) {
    lease_table &t = table();
    if (mac != nullptr) {
        while (lease_node *n = t.first_by_mac(mac)) {
            t.erase(n);
        }
    }
    if (nip != 0) {
        while (lease_node *n = t.first_by_nip(nip)) {
            t.erase(n);
        }
    }
}

int dhcps_lease_expired(const dhcps_lease *lease) {
    if (missing(lease)) {
        return 0;
    }
    return dhcps_lease_expires(lease) < kq_time_get() ? 1 : 0;
}

int dhcps_get_active_leases_num() {
    const lease_table &t = table();
    return static_cast<int>(t.size() - t.expired_count(kq_time_get()));
}

int dhcps_get_leases_num() {
    return static_cast<int>(table().size());
}

int dhcps_delete_an_expired_leases() {
    if (lease_node *n = table().first_expired(kq_time_get())) {
        table().erase(n);
    }
    return 0;
}

dhcps_lease *dhcps_find_lease_by_mac(const std::uint8_t *mac) {
    if (mac == nullptr) {
        return nullptr;
    }
    lease_node *n = table().first_by_mac(mac);
    return n ? &n->rec : nullptr;
}

dhcps_lease *dhcps_find_lease_by_nip(std::uint32_t nip) {
    lease_node *n = table().first_by_nip(nip);
    return n ? &n->rec : nullptr;
}

int dhcps_reserve_check(interface *ifp, dhcps_pool *pool, std::uint32_t nip,
                        const std::uint8_t *client_mac) {
    if (ifp == nullptr || pool == nullptr) {
        zlog_warn("The input pointer is NULL!");
        return -1;
    }
    const int answer = arpping(nip, client_mac, pool->server_ip, pool->server_mac, ifp->name);
    if (answer == 1) {
        return answer;
    }
    char buf[INET_ADDRSTRLEN];
    zlog_info("%s belongs to someone, reserving it for %u seconds", ip_text(nip, buf),
              pool->conflict_time);
    dhcps_add_lease(nullptr, nip, pool->conflict_time,
                    kq_time_get() + static_cast<std::int32_t>(pool->conflict_time), nullptr, 0, 0,
                    1);
    return 0;
}

std::uint32_t dhcps_free_ip(interface *ifp, dhcps_pool *pool, const std::uint8_t *client_mac) {
    if (pool == nullptr) {
        zlog_warn("The input pointer is NULL!");
        return 0xffffffffu;
    }
    std::uint32_t router[1], netbios[1], dns[2];
    option_addresses(pool, DHCP_ROUTER, router);
    option_addresses(pool, DHCP_WINS_SERVER, netbios);
    option_addresses(pool, DHCP_DNS_SERVER, dns);

    // Static bindings inside the range, ascending, met by a cursor that moves
    // with the candidate.
    std::vector<std::uint32_t> statics;
    statics.reserve(pool->static_leases.size());
    for (const dhcps_static_lease &s : pool->static_leases) {
        const std::uint32_t h = ntohl(s.ip);
        if (h >= pool->begin_ip && h <= pool->end_ip) {
            statics.push_back(h);
        }
    }
    std::sort(statics.begin(), statics.end());
    auto next_static = statics.cbegin();

    auto skipped = [&](std::uint32_t a) {
        const std::uint32_t nip = htonl(a);
        const std::uint32_t low = a & 0xffu;
        while (next_static != statics.cend() && *next_static < a) {
            ++next_static;
        }
        return low == 0 || low == 255 || nip == pool->server_ip || nip == router[0] ||
               nip == netbios[0] || nip == dns[0] || nip == dns[1] ||
               (next_static != statics.cend() && *next_static == a) ||
               (ifp != nullptr && dhcp_connected_check(ifp, nip) == 1);
    };

    // The lowest candidate without a lease wins: visit only unleased
    // addresses, the leased ones are stepped over a word at a time.
    lease_table &t = table();
    for (std::uint64_t a = t.first_unleased(pool->begin_ip, pool->end_ip); a <= pool->end_ip;
         a = t.first_unleased(a + 1, pool->end_ip)) {
        if (!skipped(static_cast<std::uint32_t>(a))) {
            zlog_debug("get free IP address: %#x", static_cast<std::uint32_t>(a));
            return htonl(static_cast<std::uint32_t>(a));
        }
    }

    // Nothing free. Only the candidate lease expiring first matters now, and
    // only if it has expired: with no expired lease in the table at all the
    // answer is known without looking at the range.
    if (ifp == nullptr || t.expired_count(kq_time_get()) == 0) {
        return 0;
    }
    next_static = statics.cbegin();
    lease_node *oldest = nullptr;
    std::int32_t oldest_expires = 0;
    // 64 bits so a range ending at 255.255.255.255 still ends. Reached only
    // when every candidate of the range is leased or skipped, so however wide
    // the range, this walk is about as long as the lease table.
    for (std::uint64_t wide = pool->begin_ip; wide <= pool->end_ip; ++wide) {
        const auto a = static_cast<std::uint32_t>(wide);
        const auto [lease, expires] = t.first_by_nip_with_expiry(htonl(a));
        if (lease == nullptr || (oldest != nullptr && expires >= oldest_expires) || skipped(a)) {
            continue;
        }
        oldest = lease;
        oldest_expires = expires;
    }

    // Hands the oldest expired address out only when the probe found another
    // owner (and a reservation has just replaced its lease); an address the
    // probe finds free is not given. Deliberately so.
    if (oldest != nullptr && dhcps_lease_expired(&oldest->rec) == 1 && ifp != nullptr) {
        const std::uint32_t nip = dhcps_lease_nip(&oldest->rec);
        if (dhcps_reserve_check(ifp, pool, nip, client_mac) == 0) {
            return nip;
        }
    }
    return 0;
}

void dhcps_write_leases(const char *path) {
    if (path == nullptr) {
        zlog_warn("The input pointer is NULL!");
        return;
    }
    // Writing the live file in place (O_TRUNC) would leave a short or empty
    // file behind a crash or power cut, so the records go to a file beside
    // it, flushed and renamed over it: the file is always the old one or the
    // new one. Same mode as ever, 0666 before the umask.
    const std::string target = path;
    const std::string temp = target + ".tmp";
    dhcp_unique_fd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!fd) {
        return;
    }

    lease_table &t = table();
    const std::int32_t now = kq_time_get();
    for (lease_node *n = t.head(); n != nullptr;) {
        lease_node *next = n->next;
        if (dhcps_lease_state(&n->rec) == 0 && dhcps_lease_expires(&n->rec) < now) {
            t.erase(n);
        }
        n = next;
    }

    std::vector<dhcps_lease> out;
    out.reserve(t.size());
    for (const lease_node *n = t.head(); n != nullptr; n = n->next) {
        if (nip_of(n->rec) != 0 && dhcps_lease_state(&n->rec) != 0) {
            out.push_back(n->rec);
        }
    }

    // A failed write or flush keeps the old file rather than a partial one.
    const auto records = std::as_bytes(std::span(out));
    bool ok = lease_file_writer ? lease_file_writer(fd.get(), records)
                                : dhcps_lease_file_store(fd.get(), records);
    ok = (::close(fd.release()) == 0) && ok;
    if (!ok || ::rename(temp.c_str(), target.c_str()) != 0) {
        ::unlink(temp.c_str());
        return;
    }
    // The rename itself is durable only once the directory is.
    dhcp_unique_fd dir(::open(dir_of(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir) {
        ::fsync(dir.get());
    }
}

bool dhcps_lease_file_store(int fd, std::span<const std::byte> records) {
    return write_all(fd, records) && ::fsync(fd) == 0;
}

void dhcps_set_lease_file_writer(dhcps_lease_file_writer writer) {
    lease_file_writer = std::move(writer);
}

void dhcps_load_leases(const char *path) {
    if (path == nullptr) {
        zlog_warn("The input pointer is NULL!");
        return;
    }
    dhcp_unique_fd fd(::open(path, O_RDONLY | O_CLOEXEC));
    if (!fd) {
        return;
    }

    // Never more records than a file of ours can hold; whatever lies beyond
    // is not even read.
    const std::size_t limit = std::max(dhcps_global.max_lease_num, kLeaseNumCeiling);
    const std::int64_t now = kq_time_get();
    std::array<dhcps_lease, kLoadChunk> chunk;
    std::size_t records = 0;  // whole records taken from the file
    std::size_t no_address = 0;
    std::size_t tail_bytes = 0;
    bool too_many = false;
    bool read_failed = false;

    while (!too_many && !read_failed) {
        // One record more than may be taken, to tell a full file from a long one.
        const std::size_t want = std::min(kLoadChunk, limit + 1 - records);
        auto buf = std::as_writable_bytes(std::span(chunk).first(want));
        const std::size_t got = read_full(fd.get(), buf, read_failed);
        const std::size_t whole = got / sizeof(dhcps_lease);
        tail_bytes = got % sizeof(dhcps_lease);

        for (std::size_t i = 0; i < whole; ++i) {
            if (records == limit || static_cast<std::size_t>(dhcps_get_leases_num()) >= limit) {
                too_many = true;
                break;
            }
            ++records;
            const dhcps_lease &rec = chunk[i];
            // Widened: a garbage expiry must not wrap into a fresh one.
            if (now - dhcps_lease_expires(&rec) >= kStaleAge) {
                continue;
            }
            // We never write a record without an address.
            if (nip_of(rec) == 0) {
                ++no_address;
                continue;
            }
            if (dhcps_add_lease(rec.mac, nip_of(rec), dhcps_lease_time(&rec),
                                dhcps_lease_expires(&rec), rec.hostname, sizeof rec.hostname, 1,
                                0) == nullptr) {
                too_many = true;
                break;
            }
        }
        if (got < buf.size()) {
            break;  // end of file, or an error
        }
    }

    if (too_many) {
        zlog_err("too many leases while loading %s", path);
        struct stat st {};
        if (::fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode)) {
            const auto taken =
                static_cast<long long>(records) * static_cast<long long>(sizeof(dhcps_lease));
            zlog_warn("lease file %s: %lld bytes after %zu records ignored", path,
                      static_cast<long long>(st.st_size) - taken, records);
        }
    }
    if (no_address != 0) {
        zlog_warn("lease file %s: %zu records without an address skipped", path, no_address);
    }
    if (tail_bytes != 0 && !too_many) {
        zlog_warn("lease file %s: %zu trailing bytes ignored (not a whole record)", path,
                  tail_bytes);
    }
    if (read_failed) {
        zlog_warn("lease file %s: read error after %zu records: %s", path, records,
                  std::strerror(errno));
    }
}

void dhcps_leases_truncate(std::uint32_t max) {
    lease_table &t = table();
    bool deleted = false;
    const std::int32_t now = kq_time_get();
    // Expired records first, from the head.
    while (t.size() > max) {
        lease_node *n = t.first_expired(now);
        if (n == nullptr) {
            break;
        }
        t.erase(n);
        deleted = true;
    }
    // Then committed ones, from the head: the newest leases go first. Held
    // offers and reservations stay.
    for (lease_node *n = t.head(); n != nullptr && t.size() > max;) {
        lease_node *next = n->next;
        if (dhcps_lease_state(&n->rec) != 0 || dhcps_lease_expires(&n->rec) < now) {
            t.erase(n);
            deleted = true;
        }
        n = next;
    }
    if (deleted) {
        dhcps_write_leases(lease_file_path.c_str());
    }
}

int dhcps_write_timer(thread *t) {
    write_thread = nullptr;
    if (dhcps_global.leases_dirty == 1) {
        dhcps_write_leases(lease_file_path.c_str());
        dhcps_global.leases_dirty = 0;
    }
    thread_master *m = write_master != nullptr ? write_master : (t ? t->master : nullptr);
    if (m != nullptr) {
        // Read afresh: a changed write-time counts from the next period.
        write_thread = thread_add_timer(m, dhcps_write_timer, nullptr,
                                        static_cast<long>(dhcps_global.write_time));
    }
    return 0;
}

void dhcps_write_timer_start(thread_master *m) {
    dhcps_write_timer_stop();
    write_master = m;
    if (m != nullptr) {
        write_thread = thread_add_timer(m, dhcps_write_timer, nullptr,
                                        static_cast<long>(dhcps_global.write_time));
    }
}

void dhcps_write_timer_stop() {
    if (write_thread != nullptr && write_master != nullptr) {
        thread_cancel(write_thread);
    }
    write_thread = nullptr;
    write_master = nullptr;
}

void dhcps_set_lease_file(const char *path) {
    lease_file_path = path != nullptr ? path : DHCPS_LEASE_FILE;
}

const char *dhcps_lease_file() {
    return lease_file_path.c_str();
}

std::string dhcps_leases_check() {
    return table().check(kq_time_get());
}

void dhcps_lease_foreach(const std::function<void(const dhcps_lease &)> &fn) {
    for (const lease_node *n = table().head(); n != nullptr;) {
        const lease_node *next = n->next;
        fn(n->rec);
        n = next;
    }
}
