// Test main: each test process enters a System V IPC namespace of its own
// before any test runs, so keys never collide between tests and nothing is
// left behind on the host.
#include <gtest/gtest.h>
#include <sched.h>

#include "support/test_support.h"

namespace {
bool g_privateIpc = false;
}

bool InPrivateIpcNamespace() { return g_privateIpc; }

int main(int argc, char **argv) {
    g_privateIpc = unshare(CLONE_NEWIPC) == 0;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
