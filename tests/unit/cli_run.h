// Runs one command line through the CLI engine on a test's vty: expects the
// result `want` (the line names the failure) and gives back, then clears,
// what the command wrote.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "lib/command.h"
#include "lib/vty.h"

inline std::string cli_run(vty &v, const std::string &line, int want = CMD_SUCCESS) {
    const int rc = cmd_execute_command(line.c_str(), &v);
    EXPECT_EQ(rc, want) << line;
    std::string out = v.obuf;
    v.obuf.clear();
    return out;
}
