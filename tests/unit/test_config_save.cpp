// config_save(): the same file and the same atomic write as "write memory".
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "lib/command.h"
#include "lib/vty.h"
#include "platform/config_save.h"

namespace {

std::string written;
int writer(vty *vty) {
    vty_out(vty, "%s", written.c_str());
    return 1;
}

cmd_node saved_node = {91, "%s(saved)# ", 1};

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

struct ConfigSave : ::testing::Test {
    std::string dir;
    std::unique_ptr<vty> v = vty_new(VTY_SHELL_SERV);

    ConfigSave() {
        std::string templ = ::testing::TempDir() + "config-save-XXXXXX";
        dir = ::mkdtemp(templ.data()) != nullptr ? templ : std::string();
        cmd_terminate();
        cmd_init(1);
        cmd_set_hostname("sw1");
        install_node(&saved_node, writer);
        written = "dhcp-server enable\ndhcp-server pool lan\n default-router 10.0.0.1\n quit\n!\n";
    }
    ~ConfigSave() override {
        cmd_terminate();
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }

    std::string write_memory() {
        v->obuf.clear();
        v->node = ENABLE_NODE;
        EXPECT_EQ(vty_command(v.get(), "write memory"), CMD_SUCCESS);
        EXPECT_EQ(v->obuf, "[OK]\n");
        return slurp(cmd_config_file());
    }
};

TEST_F(ConfigSave, DefaultFileIsTheBootFile) {
    EXPECT_STREQ(cmd_config_file(), "/mnt/dhcpd.conf");
    EXPECT_STREQ(cmd_config_file(), CONFIG_STARTUP_FILE);
}

TEST_F(ConfigSave, WritesWhatWriteMemoryWrites) {
    ASSERT_FALSE(dir.empty());
    const std::string path = dir + "/dhcpd.conf";
    cmd_set_config_file(path.c_str());
    const std::string expected =
        "!\ndhcp-server enable\ndhcp-server pool lan\n default-router 10.0.0.1\n quit\n!\nend\n";
    ASSERT_EQ(write_memory(), expected);

    { std::ofstream(path, std::ios::binary | std::ios::trunc) << "old contents\n"; }
    EXPECT_EQ(config_save(), 0);
    EXPECT_EQ(slurp(path), expected);
    EXPECT_NE(::access((path + ".tmp").c_str(), F_OK), 0);
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    // A changed configuration is saved whole, replacing the old file.
    written = "dhcp-relay enable\n!\n";
    EXPECT_EQ(config_save(), 0);
    const std::string saved = slurp(path);
    EXPECT_EQ(saved, "!\ndhcp-relay enable\n!\nend\n");
    EXPECT_EQ(write_memory(), saved);
}

TEST_F(ConfigSave, ReplacesTheFileAtomically) {
    ASSERT_FALSE(dir.empty());
    const std::string path = dir + "/dhcpd.conf";
    cmd_set_config_file(path.c_str());
    { std::ofstream(path, std::ios::binary) << "old contents\n"; }
    struct stat before {};
    ASSERT_EQ(::stat(path.c_str(), &before), 0);
    EXPECT_EQ(config_save(), 0);
    struct stat after {};
    ASSERT_EQ(::stat(path.c_str(), &after), 0);
    // A new file renamed over the old one, never the old one rewritten in place.
    EXPECT_NE(before.st_ino, after.st_ino);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir),
                            std::filesystem::directory_iterator()),
              1);
}

TEST_F(ConfigSave, FailureLeavesNothingBehind) {
    ASSERT_FALSE(dir.empty());
    const std::string path = dir + "/missing/dhcpd.conf";
    cmd_set_config_file(path.c_str());
    EXPECT_EQ(config_save(), -1);
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
    EXPECT_TRUE(std::filesystem::is_empty(dir));
}

}  // namespace
