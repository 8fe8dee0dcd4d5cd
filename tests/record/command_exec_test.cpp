#include "record/command_exec.h"

#include <gtest/gtest.h>

#include <fstream>

#include "support/test_support.h"

TEST(CommandExecTest, RunsThroughTheShellAndIgnoresTheExitStatus) {
    TempDir dir;
    std::string marker = dir.File("ran");
    EXPECT_EQ(Command_System(("echo yes > " + marker + "; exit 3").c_str()), 0);
    EXPECT_EQ(ReadWholeFile(marker), "yes\n");
    EXPECT_EQ(Command_Exec("exit 1"), 0);
}

TEST(CommandExecTest, NullCommandIsRefused) { EXPECT_EQ(Command_System(nullptr), -1); }
