// A fake sysfs for the server tests: vlanif10 (ifindex 5) with the ports
// swp1..swp3 (ifindex 11..13) in it, MAC 02:00:00:00:00:<ifindex>. The tree
// lives under the test temp dir, one per process (CTest runs the cases side
// by side), is installed as the sysfs root on construction and removed again
// on destruction.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/uif.h"

namespace test_sysfs {

struct Vlan10Ports {
    std::filesystem::path root;
    explicit Vlan10Ports(const std::string &prefix)
        : root(std::filesystem::path(::testing::TempDir()) / (prefix + std::to_string(getpid()))) {
        std::filesystem::remove_all(root);
        netdev("vlanif10", 5);
        for (int i = 1; i <= 3; ++i) {
            netdev("swp" + std::to_string(i), 10 + i);
            std::filesystem::create_symlink("../vlanif10",
                                            root / ("swp" + std::to_string(i)) / "master");
        }
        uif_set_sysfs_root(root.string());
        uif_init();
        uvlan_init();
    }
    ~Vlan10Ports() {
        uif_set_sysfs_root("/sys/class/net");
        std::filesystem::remove_all(root);
    }
    Vlan10Ports(const Vlan10Ports &) = delete;
    Vlan10Ports &operator=(const Vlan10Ports &) = delete;
    void netdev(const std::string &name, int idx) {
        std::filesystem::create_directories(root / name);
        std::ofstream(root / name / "ifindex") << idx << "\n";
        std::ofstream(root / name / "address") << "02:00:00:00:00:" << idx << "\n";
    }
    void remove(const std::string &name) { std::filesystem::remove_all(root / name); }
};

}  // namespace test_sysfs
