#include "uif.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>

#include "lib/if.h"

namespace {

struct tables {
    std::string root = "/sys/class/net";
    std::map<std::uint32_t, uif> ports;  // by uif index
    std::map<std::uint16_t, uvlan> vlans;
    std::uint64_t vlan_generation = 0;
};

tables &T() {
    static tables t;
    return t;
}

struct dir_closer {
    void operator()(DIR *d) const { closedir(d); }
};

std::string read_line(const std::string &path) {
    std::ifstream in(path);
    std::string s;
    std::getline(in, s);
    return s;
}

// Decimal number ending the name; -1 when the name does not end in digits.
long trailing_number(const std::string &name) {
    std::size_t i = name.size();
    while (i > 0 && name[i - 1] >= '0' && name[i - 1] <= '9') {
        --i;
    }
    if (i == name.size() || name.size() - i > 6) {
        return -1;
    }
    return std::strtol(name.c_str() + i, nullptr, 10);
}

void parse_mac(const std::string &text, std::uint8_t mac[6]) {
    unsigned v[6] = {};
    if (std::sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]) ==
        6) {
        for (int i = 0; i < 6; ++i) {
            mac[i] = static_cast<std::uint8_t>(v[i]);
        }
    }
}

// Name of the bridge a netdev is enslaved to, or "".
std::string master_of(const std::string &dev) {
    char target[512];
    std::string link = T().root + "/" + dev + "/master";
    ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
    if (n <= 0) {
        return {};
    }
    target[n] = '\0';
    const char *slash = std::strrchr(target, '/');
    return slash ? slash + 1 : target;
}

template <class F>
void for_each_netdev(F f) {
    std::unique_ptr<DIR, dir_closer> d(opendir(T().root.c_str()));
    if (!d) {
        return;
    }
    while (dirent *e = readdir(d.get())) {
        if (e->d_name[0] != '.') {
            f(std::string(e->d_name));
        }
    }
}

void scan_vlans() {
    ++T().vlan_generation;
    T().vlans.clear();
    for_each_netdev([](const std::string &dev) {
        std::uint16_t vid = vid_from_name(dev.c_str());
        if (vid != 0) {
            const std::string dir = T().root + "/" + dev;
            uvlan v{vid, dev, std::atoi(read_line(dir + "/ifindex").c_str()),
                    access((dir + "/bridge").c_str(), F_OK) == 0};
            T().vlans[vid] = v;
        }
    });
}

void scan_ports() {
    T().ports.clear();
    for_each_netdev([](const std::string &dev) {
        std::uint16_t vid = vid_from_name(master_of(dev).c_str());
        long number = trailing_number(dev);
        if (vid == 0 || number < 0) {
            return;
        }
        uif p;
        p.name = dev;
        p.number = static_cast<std::uint32_t>(number);
        p.index = UIF_INDEX_BASE | p.number;
        p.vid = vid;
        p.kernel_ifindex = std::atoi(read_line(T().root + "/" + dev + "/ifindex").c_str());
        parse_mac(read_line(T().root + "/" + dev + "/address"), p.mac);
        T().ports[p.index] = p;
    });
}

template <class Pred>
const uif *find_port(Pred pred) {
    for (int pass = 0; pass < 2; ++pass) {
        for (auto &[idx, p] : T().ports) {
            if (pred(p)) {
                return &p;
            }
        }
        if (pass == 0) {
            uif_refresh();
        }
    }
    return nullptr;
}

}  // namespace

void uif_init() {
    scan_ports();
}
void uvlan_init() {
    scan_vlans();
}

void uif_refresh() {
    scan_vlans();
    scan_ports();
}

void uif_foreach(const std::function<void(const uif &)> &fn) {
    for (const auto &[idx, p] : T().ports) {
        fn(p);
    }
}

const uif *uif_lookup_by_name(const char *name) {
    if (name == nullptr) {
        return nullptr;
    }
    return find_port([name](const uif &p) { return p.name == name; });
}

const uif *uif_lookup_by_index(std::uint32_t index) {
    if (index == 0) {
        return nullptr;  // names no port: not worth a re-read
    }
    if (index < UIF_INDEX_BASE) {
        index |= UIF_INDEX_BASE;  // a bare port number
    }
    return find_port([index](const uif &p) { return p.index == index; });
}

const uif *uif_lookup_by_number(std::uint32_t number) {
    return find_port([number](const uif &p) { return p.number == number; });
}

const uif *uif_lookup_by_kernel_ifindex(int ifindex) {
    if (ifindex <= 0) {
        return nullptr;
    }
    return find_port([ifindex](const uif &p) { return p.kernel_ifindex == ifindex; });
}

const uif *uif_peek_by_kernel_ifindex(int ifindex) {
    if (ifindex <= 0) {
        return nullptr;
    }
    for (const auto &[idx, p] : T().ports) {
        if (p.kernel_ifindex == ifindex) {
            return &p;
        }
    }
    return nullptr;
}

std::uint64_t uvlan_generation() {
    return T().vlan_generation;
}

std::vector<int> uvlan_bridge_ifindexes() {
    std::vector<int> out;
    for (const auto &[vid, v] : T().vlans) {
        if (v.bridge && v.kernel_ifindex > 0) {
            out.push_back(v.kernel_ifindex);
        }
    }
    return out;
}

const uvlan *uvlan_peek_by_kernel_ifindex(int ifindex) {
    if (ifindex <= 0) {
        return nullptr;
    }
    for (const auto &[vid, v] : T().vlans) {
        if (v.kernel_ifindex == ifindex) {
            return &v;
        }
    }
    return nullptr;
}

const uvlan *uvlan_lookup(std::uint16_t vid) {
    auto it = T().vlans.find(vid);
    if (it == T().vlans.end()) {
        scan_vlans();
        it = T().vlans.find(vid);
    }
    return it == T().vlans.end() ? nullptr : &it->second;
}

int uif_get_portmac(std::uint32_t index, std::uint8_t mac[6]) {
    const uif *p = uif_lookup_by_index(index);
    if (p == nullptr || mac == nullptr) {
        return -1;
    }
    std::memcpy(mac, p->mac, 6);
    return 0;
}

std::uint16_t vid_from_name(const char *name) {
    if (name == nullptr || std::strncmp(name, "vlanif", 6) != 0) {
        return 0;
    }
    const char *digits = name + 6;
    std::size_t n = std::strlen(digits);
    if (n == 0 || n > 4 || std::strspn(digits, "0123456789") != n) {
        return 0;
    }
    long vid = std::strtol(digits, nullptr, 10);
    return (vid >= 1 && vid <= 4094) ? static_cast<std::uint16_t>(vid) : 0;
}

std::uint16_t if_get_vid(const interface *ifp) {
    return ifp ? vid_from_name(ifp->name) : 0;
}

void uif_set_sysfs_root(const std::string &root) {
    T().root = root;
}
