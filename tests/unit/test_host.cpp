// Pid file and host record.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "platform/host.h"

namespace {

TEST(PidFile, HoldsThePidAndIsLockedAgainstASecondInstance) {
    std::string path = ::testing::TempDir() + "/dhcp-test.pid";
    ASSERT_EQ(pid_output(path.c_str()), getpid());
    std::ifstream in(path);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, std::to_string(getpid()) + "\n");
    pid_t child = fork();
    if (child == 0) {
        // The lock is ours, and the holder a second instance sees is us.
        _exit(pid_output(path.c_str()) == -1 && pid_file_holder(path.c_str()) == getppid() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(pid_output("/nonexistent-dir/x.pid"), -1);
    EXPECT_EQ(pid_file_holder("/nonexistent-dir/x.pid"), 0);
}

TEST(PidFile, AnUnlockedFileHasNoHolder) {
    std::string path = ::testing::TempDir() + "/dhcp-stale.pid";
    std::ofstream(path) << "4242\n";
    EXPECT_EQ(pid_file_holder(path.c_str()), 0);
}

TEST(Host, KeepsThePlatformValues) {
    host_init(0x48000, 0);
    EXPECT_EQ(host_features(), 0x48000u);
    EXPECT_EQ(host_flags(), 0);
    hal_init(13);
    EXPECT_EQ(hal_client_id(), 13);
}

}  // namespace
