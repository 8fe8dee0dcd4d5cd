#include "tools/debug_output.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <thread>

#include "common/platform_paths.h"

namespace {

constexpr const char kSourceName[] = "libDebugOutput";
// A client is taken in by the listen thread; its lines name that thread.
constexpr const char kListenFunction[] = "ListenSocketThread";
constexpr int kListenBacklog = 5;
constexpr int kClientSendBufferSize = 1048576;
constexpr int kReceiveBufferSize = 10240;
constexpr useconds_t kMicrosPerMilli = 1000;
constexpr useconds_t kListenPace = 500 * kMicrosPerMilli;
constexpr useconds_t kClientBusyWait = 200 * kMicrosPerMilli;
constexpr useconds_t kAcceptRetryWait = 1000 * kMicrosPerMilli;
constexpr useconds_t kReceivePace = 500 * kMicrosPerMilli;
constexpr useconds_t kNoClientWait = 200 * kMicrosPerMilli;
constexpr long kReceiveWaitMicros = 500000;

std::atomic<uint32_t> g_running{0};
std::atomic<uint32_t> g_enabled{0};
std::atomic<int> g_listenFd{-1};
std::atomic<int> g_clientFd{-1};
// Redirection state: our own copy of the client socket and the saved
// standard output and standard error.
int g_redirectFd = -1;
int g_savedStdout = -1;
int g_savedStderr = -1;
std::thread g_listenThread;
std::thread g_receiveThread;
in_addr_t g_bindAddress = htonl(INADDR_ANY);

bool MarkerExists() { return access(PlatformPath(kDebugPortMarker).c_str(), F_OK) == 0; }

void CloseIfOpen(std::atomic<int> &fd) {
    int old = fd.exchange(-1);
    if (old >= 0) close(old);
}

// A duplicate that shell commands started by the process do not inherit.
int DupPrivate(int fd) { return fcntl(fd, F_DUPFD_CLOEXEC, 0); }

void CloseIfOpen(int &fd) {
    if (fd >= 0) close(fd);
    fd = -1;
}

// Socket options of a new client: never block the writers, a large send
// buffer, no batching of small log lines.
void PrepareClient(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int sendBuffer = kClientSendBufferSize;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof(sendBuffer));
    int noDelay = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));
}

void AcceptClient(int listenFd) {
    printf("%s %d\n", kListenFunction, __LINE__);
    sockaddr_in peer{};
    socklen_t peerLength = sizeof(peer);
    int fd = accept4(listenFd, reinterpret_cast<sockaddr *>(&peer), &peerLength, SOCK_CLOEXEC);
    if (fd < 0) {
        printf("%s %d: Accept fd < 0\n", kListenFunction, __LINE__);
        usleep(kAcceptRetryWait);
        return;
    }
    printf("%s %d : A stupid connect!ip = %s, port = %d\n", kListenFunction, __LINE__,
           inet_ntoa(peer.sin_addr), peer.sin_port);
    printf("///////%s %d : ..........fd = %d\n", kListenFunction, __LINE__, fd);
    PrepareClient(fd);
    if (libDebugOutputRedirect(fd) != 0) {
        close(fd);
        return;
    }
    g_clientFd.store(fd);
}

// Waits up to kReceiveWaitMicros on the client; true when the client left.
bool ClientLeft(int fd, char *buffer) {
    fd_set readSet, writeSet, errorSet;
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    FD_ZERO(&errorSet);
    FD_SET(fd, &readSet);
    FD_SET(fd, &writeSet);
    FD_SET(fd, &errorSet);
    timeval wait{0, kReceiveWaitMicros};
    if (select(fd + 1, &readSet, &writeSet, &errorSet, &wait) <= 0 || !FD_ISSET(fd, &readSet)) return false;
    return read(fd, buffer, kReceiveBufferSize) <= 0;
}

}  // namespace

int libDebugOutputStart(int port) {
    bool marker = MarkerExists();
    bool enabled = g_enabled.load(std::memory_order_relaxed) != 0;
    if (marker && !enabled) {
        fprintf(stderr, "%s %d :Run Debuginfo++++\n", __func__, __LINE__);
        libDebugOutputStartPort(static_cast<uint16_t>(port));
        g_enabled.store(1, std::memory_order_relaxed);
    } else if (!marker && enabled) {
        fprintf(stderr, "%s %d :Stop Debuginfo----\n", __func__, __LINE__);
        libDebugOutputStop();
        g_enabled.store(0, std::memory_order_relaxed);
    }
    return 0;
}

int libDebugOutputStartPort(uint16_t port) {
    // Already running (a start without a stop): nothing to do.
    if (g_running.load(std::memory_order_relaxed) != 0) return 0;
    signal(SIGPIPE, SIG_IGN);
    g_running.store(1, std::memory_order_relaxed);
    SetupNetwork(port);
    return 0;
}

int libDebugOutputStop() {
    g_running.store(0, std::memory_order_relaxed);
    if (g_listenThread.joinable()) g_listenThread.join();
    if (g_receiveThread.joinable()) g_receiveThread.join();
    libDebugOutputRestore();
    CloseIfOpen(g_listenFd);
    CloseIfOpen(g_clientFd);
    return 0;
}

int SetupNetwork(uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        printf("%s %s %d: Create socket error. errno = %d\n", kSourceName, __func__, __LINE__, errno);
        return -1;
    }
    g_listenFd.store(fd);
    int reuse = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse)) < 0) {
        printf("%s %s %d: Set SO_REUSEADDR error. errno = %d\n", kSourceName, __func__, __LINE__, errno);
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = g_bindAddress;
    address.sin_port = htons(port);
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) < 0) {
        printf("%s %s %d: Bind error. errno = %d\n", kSourceName, __func__, __LINE__, errno);
        return -1;
    }
    printf("create tcp connect success %d,start listen...\n", fd);
    if (listen(fd, kListenBacklog) < 0) {
        printf("%s %s %d: Start listen error. errno = %d\n", kSourceName, __func__, __LINE__, errno);
        return -1;
    }
    g_listenThread = std::thread(ListenSocketThread);
    g_receiveThread = std::thread(SendRecvSocketThread);
    return 0;
}

void ListenSocketThread() {
    prctl(PR_SET_NAME, "ListenSocketThread");
    int listenFd = g_listenFd.load();
    printf("%s %d: fd = %d\n", __func__, __LINE__, listenFd);
    // Set once: select shortens the stored limit, so later waits may return
    // at once; the sleep after each wait paces the loop.
    timeval wait{1, 5000};
    while (g_running.load(std::memory_order_relaxed) != 0) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(listenFd, &readSet);
        if (select(listenFd + 1, &readSet, nullptr, nullptr, &wait) > 0 && FD_ISSET(listenFd, &readSet)) {
            if (g_clientFd.load() > 0) {
                // One client at a time: the next one waits in the backlog.
                usleep(kClientBusyWait);
                continue;
            }
            AcceptClient(listenFd);
        }
        usleep(kListenPace);
    }
    CloseIfOpen(g_listenFd);
    printf("%s %d: Thread end!\n", __func__, __LINE__);
}

void SendRecvSocketThread() {
    std::unique_ptr<char[]> buffer(new char[kReceiveBufferSize]);
    while (g_running.load(std::memory_order_relaxed) != 0) {
        int fd = g_clientFd.load();
        if (fd <= 0) {
            usleep(kNoClientWait);
            continue;
        }
        if (ClientLeft(fd, buffer.get())) {
            libDebugOutputRestore();
            CloseIfOpen(g_clientFd);
            printf("%s %d: Command disconnect\n", __func__, __LINE__);
        }
        usleep(kReceivePace);
    }
    printf("%s %d: Thread end!\n", __func__, __LINE__);
}

int libDebugOutputRedirect(int fd) {
    if (g_redirectFd >= 0) return -1;
    fflush(stdout);
    g_redirectFd = DupPrivate(fd);
    g_savedStdout = DupPrivate(STDOUT_FILENO);
    g_savedStderr = DupPrivate(STDERR_FILENO);
    bool failed = g_redirectFd < 0 || g_savedStdout < 0 || g_savedStderr < 0 ||
                  dup2(g_redirectFd, STDOUT_FILENO) < 0 || dup2(g_redirectFd, STDERR_FILENO) < 0;
    if (failed) {
        perror("err in dup STDOUT.\n");
        if (g_savedStdout >= 0) dup2(g_savedStdout, STDOUT_FILENO);
        if (g_savedStderr >= 0) dup2(g_savedStderr, STDERR_FILENO);
        CloseIfOpen(g_redirectFd);
        CloseIfOpen(g_savedStdout);
        CloseIfOpen(g_savedStderr);
        return -4;
    }
    return 0;
}

int libDebugOutputRestore() {
    if (g_redirectFd < 0) return -1;
    fflush(stdout);
    if (dup2(g_savedStdout, STDOUT_FILENO) < 0) perror("err in cacle redirection stdout.");
    if (dup2(g_savedStderr, STDERR_FILENO) < 0) perror("err in cacle redirection stdout.");
    CloseIfOpen(g_redirectFd);
    CloseIfOpen(g_savedStdout);
    CloseIfOpen(g_savedStderr);
    return 0;
}

void libDebugOutputSetBindAddress(const char *address) {
    g_bindAddress = address != nullptr ? inet_addr(address) : htonl(INADDR_ANY);
}
