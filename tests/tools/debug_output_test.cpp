#include "tools/debug_output.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "common/platform_paths.h"
#include "support/test_support.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = std::chrono::seconds(8);

uint16_t FreeLoopbackPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address));
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
}

int Connect(uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Everything that arrives on fd within the wait; "<eof>" marks the end.
std::string Receive(int fd, int waitMs) {
    std::string text;
    pollfd p{fd, POLLIN, 0};
    while (poll(&p, 1, waitMs) > 0) {
        char buf[512];
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0) return text + "<eof>";
        text.append(buf, n);
        waitMs = 50;
    }
    return text;
}

ino_t StderrIdentity() {
    struct stat st {};
    fstat(STDERR_FILENO, &st);
    return st.st_ino;
}

bool StderrIsSocket() {
    struct stat st {};
    return fstat(STDERR_FILENO, &st) == 0 && S_ISSOCK(st.st_mode);
}

template <typename Condition>
bool WaitFor(Condition condition) {
    for (auto end = Clock::now() + kPatience; Clock::now() < end;) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return condition();
}

void Say(int fd, const std::string &text) {
    ASSERT_EQ(write(fd, text.data(), text.size()), (ssize_t)text.size());
}

class DebugOutputTest : public testing::Test {
protected:
    void SetUp() override {
        libDebugOutputSetBindAddress("127.0.0.1");
        port_ = FreeLoopbackPort();
        stderrIdentity_ = StderrIdentity();
    }
    void TearDown() override {
        RemoveMarker();
        libDebugOutputStart(port_);
        for (int fd : {first_, second_}) {
            if (fd >= 0) close(fd);
        }
    }
    void CreateMarker() { root_.WriteFile(kDebugPortMarker, ""); }
    void RemoveMarker() { unlink(root_.Under(kDebugPortMarker).c_str()); }
    // Switches the port on and connects the first client, waiting until the
    // outputs are redirected to it.
    void Attach() {
        CreateMarker();
        libDebugOutputStart(port_);
        first_ = Connect(port_);
        ASSERT_GE(first_, 0);
        ASSERT_TRUE(WaitFor(StderrIsSocket));
    }

    ScopedRoot root_;
    uint16_t port_ = 0;
    ino_t stderrIdentity_ = 0;
    int first_ = -1;
    int second_ = -1;
};

TEST_F(DebugOutputTest, ClientReceivesBothOutputsWhileAttached) {
    Attach();
    Say(first_, "help\n");  // read and dropped: no reply, no effect
    Say(STDOUT_FILENO, "to-stdout\n");
    Say(STDERR_FILENO, "to-stderr\n");
    std::string received = Receive(first_, 2000);
    EXPECT_NE(received.find("to-stdout\n"), std::string::npos) << received;
    EXPECT_NE(received.find("to-stderr\n"), std::string::npos) << received;
    EXPECT_EQ(received.find("help"), std::string::npos);

    // The client leaves: the process gets its own outputs back.
    close(first_);
    first_ = -1;
    EXPECT_TRUE(WaitFor([&] { return !StderrIsSocket(); }));
    EXPECT_EQ(StderrIdentity(), stderrIdentity_);
}

// The lines about a client taken in name the listen thread, whose work it is.
TEST_F(DebugOutputTest, AcceptedClientIsLoggedByTheListenThread) {
    testing::internal::CaptureStdout();
    Attach();
    close(first_);
    first_ = -1;
    bool restored = WaitFor([&] { return !StderrIsSocket(); });
    fflush(stdout);
    std::string log = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(restored);
    EXPECT_NE(log.find("A stupid connect!"), std::string::npos) << log;
    EXPECT_TRUE(LogNamesFunction(log, "ListenSocketThread")) << log;
    EXPECT_FALSE(LogNamesFunction(log, "AcceptClient")) << log;
}

TEST_F(DebugOutputTest, SecondClientWaitsForTheFirst) {
    Attach();
    second_ = Connect(port_);
    ASSERT_GE(second_, 0);  // queued in the backlog, not served
    Say(STDERR_FILENO, "for-first\n");
    EXPECT_NE(Receive(first_, 2000).find("for-first"), std::string::npos);
    EXPECT_EQ(Receive(second_, 700), "");

    close(first_);
    first_ = -1;
    std::string received;
    bool served = WaitFor([&] {
        // Writes into the first client's closed socket may fail until the
        // switch-over.
        if (StderrIsSocket()) (void)!write(STDERR_FILENO, "for-second\n", 11);
        received += Receive(second_, 100);
        return received.find("for-second") != std::string::npos;
    });
    EXPECT_TRUE(served) << received;
}

TEST_F(DebugOutputTest, RemovingMarkerClosesSocketsAndRestoresOutputs) {
    Attach();
    RemoveMarker();
    libDebugOutputStart(port_);
    EXPECT_FALSE(StderrIsSocket());
    EXPECT_EQ(StderrIdentity(), stderrIdentity_);
    EXPECT_NE(Receive(first_, 2000).find("<eof>"), std::string::npos);
    EXPECT_EQ(Connect(port_), -1);
    EXPECT_EQ(libDebugOutputRestore(), -1);  // nothing left redirected
}

TEST_F(DebugOutputTest, SwitchStartsOnceAndOnlyWithMarker) {
    libDebugOutputStart(port_);
    EXPECT_EQ(Connect(port_), -1);

    CreateMarker();
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    libDebugOutputStart(port_);
    libDebugOutputStart(port_);
    std::string out = testing::internal::GetCapturedStdout();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.find("Run Debuginfo++++"), err.rfind("Run Debuginfo++++")) << err;
    EXPECT_NE(err.find("Run Debuginfo++++"), std::string::npos) << err;
    EXPECT_EQ(out.find("error"), std::string::npos) << out;
    first_ = Connect(port_);
    EXPECT_GE(first_, 0);
}

// Error paths.
TEST_F(DebugOutputTest, RedirectRefusals) {
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    EXPECT_EQ(libDebugOutputRestore(), -1);
    EXPECT_EQ(libDebugOutputRedirect(-1), -4);
    EXPECT_EQ(StderrIdentity(), stderrIdentity_);
    ASSERT_EQ(libDebugOutputRedirect(pipeFds[1]), 0);
    EXPECT_EQ(libDebugOutputRedirect(pipeFds[1]), -1);
    Say(STDERR_FILENO, "piped\n");
    EXPECT_EQ(libDebugOutputRestore(), 0);
    EXPECT_EQ(StderrIdentity(), stderrIdentity_);
    close(pipeFds[1]);
    EXPECT_EQ(Receive(pipeFds[0], 500), "piped\n<eof>");
    close(pipeFds[0]);

    // A port taken by someone else: the switch reports the bind failure.
    int taken = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port_);
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(taken, 1), 0);
    CreateMarker();
    testing::internal::CaptureStdout();
    libDebugOutputStart(port_);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("libDebugOutput SetupNetwork"), std::string::npos);
    close(taken);
}

}  // namespace
