// Nothing of this process listens on any TCP port unless the debug marker
// file exists: the listening sockets are read from the kernel's tables
// (/proc/net/tcp, /proc/net/tcp6) and matched to this process's descriptors,
// around the watchdog's switch check with and without the marker.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "common/platform_paths.h"
#include "support/test_support.h"
#include "tools/debug_output.h"

namespace {

constexpr const char kListenState[] = "0A";

// Socket inodes among this process's descriptors.
std::set<unsigned long> OwnSocketInodes() {
    std::set<unsigned long> inodes;
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) return inodes;
    while (dirent *e = readdir(dir)) {
        char target[64] = {};
        std::string link = std::string("/proc/self/fd/") + e->d_name;
        unsigned long inode;
        if (readlink(link.c_str(), target, sizeof target - 1) > 0 &&
            sscanf(target, "socket:[%lu]", &inode) == 1)
            inodes.insert(inode);
    }
    closedir(dir);
    return inodes;
}

// Local ports this process listens on, over IPv4 and IPv6.
std::set<unsigned> OwnListeningPorts() {
    std::set<unsigned long> own = OwnSocketInodes();
    std::set<unsigned> ports;
    for (const char *table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        std::ifstream in(table);
        std::string line;
        std::getline(in, line);  // column titles
        while (std::getline(in, line)) {
            std::istringstream fields(line);
            std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout;
            unsigned long inode = 0;
            fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >> timeout >>
                inode;
            if (state != kListenState || own.count(inode) == 0) continue;
            ports.insert(static_cast<unsigned>(std::stoul(local.substr(local.find(':') + 1), nullptr, 16)));
        }
    }
    return ports;
}

// A port nobody uses right now.
uint16_t FreePort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &length);
    close(fd);
    return ntohs(addr.sin_port);
}

TEST(ListenPorts, OnlyTheDebugPortAndOnlyWhileItsMarkerExists) {
    ScopedRoot root;
    libDebugOutputSetBindAddress("127.0.0.1");
    uint16_t port = FreePort();
    ASSERT_NE(port, 0);
    EXPECT_TRUE(OwnListeningPorts().empty());

    // The switch check without the marker, as the watchdog runs it.
    testing::internal::CaptureStderr();
    libDebugOutputStart(port);
    libDebugOutputStart(port);
    EXPECT_TRUE(OwnListeningPorts().empty());

    root.WriteFile(kDebugPortMarker, "");
    libDebugOutputStart(port);
    EXPECT_EQ(OwnListeningPorts(), std::set<unsigned>{port});

    ASSERT_EQ(unlink(root.Under(kDebugPortMarker).c_str()), 0);
    libDebugOutputStart(port);
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(OwnListeningPorts().empty());
    libDebugOutputSetBindAddress(nullptr);
}

}  // namespace
