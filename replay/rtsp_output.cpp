#include "replay/rtsp_output.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include "replay/rtp_rtcp.h"

namespace {

constexpr uint8_t kInterleaveMark = '$';
constexpr size_t kInterleaveHeader = 4;
constexpr size_t kMaxPendingBytes = 1 << 20;  // a frame's packets before they are written regardless
constexpr int kUdpPortTries = 16;

// A UDP socket bound to the address (port 0: any), connected to the peer.
int UdpSocket(sockaddr_in local, uint16_t port, const sockaddr_in &peer, uint16_t peerPort) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    local.sin_port = htons(port);
    sockaddr_in remote = peer;
    remote.sin_port = htons(peerPort);
    if (bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0 ||
        connect(fd, reinterpret_cast<sockaddr *>(&remote), sizeof remote) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

uint16_t BoundPort(int fd) {
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) != 0) return 0;
    return ntohs(address.sin_port);
}

}  // namespace

bool RtspConnectionWriter::WriteLocked(const uint8_t *data, size_t size) {
    while (size > 0 && !m_bBroken) {
        ssize_t n = send(m_fd, data, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            // The send timeout ran out or the client is gone.
            m_bBroken = true;
            shutdown(m_fd, SHUT_RDWR);
            break;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return !m_bBroken;
}

bool RtspConnectionWriter::Write(const void *data, size_t size) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return WriteLocked(static_cast<const uint8_t *>(data), size);
}

bool RtspConnectionWriter::Broken() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bBroken;
}

void RtspConnectionWriter::ShutDown() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_bBroken = true;
    shutdown(m_fd, SHUT_RDWR);
}

RtspTrackOutput::RtspTrackOutput(RtspConnectionWriter *writer, uint8_t channel)
    : m_writer(writer), m_channel(channel) {}

RtspTrackOutput::RtspTrackOutput(const sockaddr_in &localAddress, const sockaddr_in &client,
                                 uint16_t clientRtpPort, uint16_t clientRtcpPort) {
    // An even RTP port with RTCP on the next one, as players expect.
    for (int attempt = 0; attempt < kUdpPortTries && m_rtcpFd < 0; ++attempt) {
        int rtp = UdpSocket(localAddress, 0, client, clientRtpPort);
        uint16_t port = rtp >= 0 ? BoundPort(rtp) : 0;
        if (port == 0 || port % 2 != 0 || port == UINT16_MAX) {
            if (rtp >= 0) close(rtp);
            continue;
        }
        int rtcp = UdpSocket(localAddress, static_cast<uint16_t>(port + 1), client, clientRtcpPort);
        if (rtcp < 0) {
            close(rtp);
            continue;
        }
        m_rtpFd = rtp;
        m_rtcpFd = rtcp;
        m_serverRtpPort = port;
    }
}

RtspTrackOutput::~RtspTrackOutput() {
    if (m_rtpFd >= 0) close(m_rtpFd);
    if (m_rtcpFd >= 0) close(m_rtcpFd);
}

bool RtspTrackOutput::Interleave(uint8_t channel, const uint8_t *packet, size_t size) {
    m_pending.push_back(kInterleaveMark);
    m_pending.push_back(channel);
    m_pending.push_back(static_cast<uint8_t>(size >> 8));
    m_pending.push_back(static_cast<uint8_t>(size));
    m_pending.insert(m_pending.end(), packet, packet + size);
    return m_pending.size() < kMaxPendingBytes || FlushRtp();
}

bool RtspTrackOutput::QueueRtp(const uint8_t *packet, size_t size) {
    if (m_writer != nullptr) return Interleave(m_channel, packet, size);
    // A full socket buffer drops the packet as the network would; only a gone client ends the session.
    ssize_t n = send(m_rtpFd, packet, size, MSG_NOSIGNAL);
    return n >= 0 || errno == EAGAIN || errno == ENOBUFS || errno == ECONNREFUSED;
}

bool RtspTrackOutput::FlushRtp() {
    if (m_writer == nullptr || m_pending.empty()) return true;
    bool written = m_writer->Write(m_pending.data(), m_pending.size());
    m_pending.clear();
    return written;
}

bool RtspTrackOutput::SendRtcp(const uint8_t *packet, size_t size) {
    if (m_writer != nullptr)
        return Interleave(static_cast<uint8_t>(m_channel + 1), packet, size) && FlushRtp();
    return send(m_rtcpFd, packet, size, MSG_NOSIGNAL) >= 0 || errno != EBADF;
}

bool RtspTrackOutput::DrainClientRtcp() {
    if (m_rtcpFd < 0) return false;
    bool heard = false;
    uint8_t packet[kRtcpMaxCompound * 4];
    for (;;) {
        ssize_t n = recv(m_rtcpFd, packet, sizeof packet, MSG_DONTWAIT);
        if (n < 0) break;
        heard = heard || RtcpLooksValid(packet, static_cast<size_t>(n));
    }
    return heard;
}
