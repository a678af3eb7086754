#include "if.h"

#include <net/if.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "lib/vty.h"

namespace {

std::map<std::string, std::unique_ptr<interface>> &table() {
    static std::map<std::string, std::unique_ptr<interface>> t;
    return t;
}

int (*new_hook)(interface *) = nullptr;
int (*delete_hook)(interface *) = nullptr;

}  // namespace

void if_init() {
    table();
}

void if_terminate() {
    table().clear();
}

void if_add_hook(int type, int (*func)(interface *)) {
    if (type == IF_NEW_HOOK) {
        new_hook = func;
    } else if (type == IF_DELETE_HOOK) {
        delete_hook = func;
    }
}

interface *if_create(const char *name, std::size_t namelen) {
    if (name == nullptr || namelen == 0 || namelen > INTERFACE_NAMSIZ) {
        return nullptr;
    }
    std::string key(name, strnlen(name, namelen));
    auto &slot = table()[key];
    if (!slot) {
        slot = std::make_unique<interface>();
        std::memcpy(slot->name, key.data(), key.size());
        if (new_hook != nullptr) {
            new_hook(slot.get());
        }
    }
    return slot.get();
}

interface *if_lookup_by_name(const char *name) {
    if (name == nullptr) {
        return nullptr;
    }
    auto it = table().find(name);
    return it == table().end() ? nullptr : it->second.get();
}

interface *if_get_by_name(const char *name) {
    interface *ifp = if_lookup_by_name(name);
    return ifp ? ifp : if_create(name, name ? std::strlen(name) : 0);
}

interface *if_lookup_by_index(ifindex_t ifindex) {
    if (ifindex == IFINDEX_INTERNAL) {
        return nullptr;
    }
    for (auto &[name, ifp] : table()) {
        if (ifp->ifindex == ifindex) {
            return ifp.get();
        }
    }
    return nullptr;
}

interface *if_lookup_address(in_addr addr) {
    prefix host{};
    host.family = AF_INET;
    host.prefixlen = IPV4_MAX_BITLEN;
    host.u.prefix4 = addr;
    interface *best = nullptr;
    int bestlen = -1;
    for (auto &[name, ifp] : table()) {
        for (auto &c : ifp->connected) {
            if (c->address->family != AF_INET) {
                continue;
            }
            if (c->address->u.prefix4.s_addr == addr.s_addr) {
                return ifp.get();
            }
            const prefix *net = CONNECTED_PREFIX(c.get());
            if (prefix_match(net, &host) && net->prefixlen > bestlen) {
                best = ifp.get();
                bestlen = net->prefixlen;
            }
        }
    }
    return best;
}

interface *if_lookup_exact_address(in_addr addr) {
    for (auto &[name, ifp] : table()) {
        for (auto &c : ifp->connected) {
            if (c && c->address && c->address->family == AF_INET &&
                c->address->u.prefix4.s_addr == addr.s_addr) {
                return ifp.get();
            }
        }
    }
    return nullptr;
}

bool if_exists(const interface *ifp) {
    return std::any_of(table().begin(), table().end(),
                       [ifp](const auto &entry) { return entry.second.get() == ifp; });
}

void if_delete(interface *ifp) {
    if (ifp == nullptr) {
        return;
    }
    if (delete_hook != nullptr) {
        delete_hook(ifp);
    }
    // A session configuring this interface in another connection must not
    // keep it as its object.
    vty_forget_index(ifp);
    table().erase(ifp->name);
}

int if_is_up(const interface *ifp) {
    return (ifp != nullptr && (ifp->flags & IFF_UP)) ? 1 : 0;
}

std::vector<interface *> vrf_iflist(vrf_id_t) {
    std::vector<interface *> out;
    out.reserve(table().size());
    for (auto &[name, ifp] : table()) {
        out.push_back(ifp.get());
    }
    return out;
}

void vrf_init() {
    if_init();
}

connected *connected_add(interface *ifp, std::uint8_t flags, const prefix *address,
                         const prefix *destination) {
    if (ifp == nullptr || address == nullptr) {
        return nullptr;
    }
    for (auto &c : ifp->connected) {
        if (prefix_same(c->address.get(), address)) {
            return c.get();
        }
    }
    auto c = std::make_unique<connected>();
    c->ifp = ifp;
    c->flags = flags;
    c->address = std::make_unique<prefix>(*address);
    if (destination != nullptr) {
        c->destination = std::make_unique<prefix>(*destination);
    }
    ifp->connected.push_back(std::move(c));
    return ifp->connected.back().get();
}

bool connected_delete(interface *ifp, const prefix *address) {
    if (ifp == nullptr || address == nullptr) {
        return false;
    }
    auto &list = ifp->connected;
    auto it = std::find_if(list.begin(), list.end(),
                           [&](const auto &c) { return prefix_same(c->address.get(), address); });
    if (it == list.end()) {
        return false;
    }
    list.erase(it);
    return true;
}

DEFUN(interface_func, interface_cmd, "interface IFNAME",
      "Select an interface to configure\nInterface's name\n") {
    if (argc < 1) {
        return CMD_WARNING;
    }
    if (std::strlen(argv[0]) > INTERFACE_NAMSIZ) {
        vty_out(vty, "%% Interface name %s is invalid: length exceeds %zu characters%s", argv[0],
                INTERFACE_NAMSIZ, VTY_NEWLINE);
        return CMD_WARNING;
    }
    interface *ifp = if_get_by_name(argv[0]);
    if (ifp == nullptr) {
        return CMD_WARNING;
    }
    vty->index = ifp;
    vty->node = INTERFACE_NODE;
    return CMD_SUCCESS;
}

namespace {
DEFUN(show_memory, show_memory_cmd, "show memory", SHOW_STR "Memory statistics\n") {
    std::FILE *fp = std::fopen("/proc/self/status", "r");
    if (fp == nullptr) {
        vty_out(vty, "%% Memory statistics are not available%s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    char line[256];
    while (std::fgets(line, sizeof line, fp) != nullptr) {
        if (std::strncmp(line, "Vm", 2) == 0) {
            line[std::strcspn(line, "\n")] = '\0';
            vty_out(vty, "%s%s", line, VTY_NEWLINE);
        }
    }
    std::fclose(fp);
    return CMD_SUCCESS;
}
}  // namespace

void memory_init() {
    install_element(ENABLE_NODE, &show_memory_cmd);
    install_element(CONFIG_NODE, &show_memory_cmd);
}
