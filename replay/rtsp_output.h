// Where a session's packets go: interleaved on the client's RTSP connection
// (shared with the answers, so writes are whole and in order), or to the
// client's UDP ports from a pair of our own.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

// The client's RTSP connection. Writes are bounded in time: a client that
// stops reading for longer than the timeout loses its connection.
class RtspConnectionWriter {
public:
    explicit RtspConnectionWriter(int fd) : m_fd(fd) {}
    // All bytes or false (the connection is then shut down).
    bool Write(const void *data, size_t size);
    bool Broken() const;
    void ShutDown();

private:
    bool WriteLocked(const uint8_t *data, size_t size);

    int m_fd;
    mutable std::mutex m_mutex;
    bool m_bBroken = false;
};

// One track's way to the client.
class RtspTrackOutput {
public:
    // Interleaved on the connection, on channels rtp and rtp + 1.
    RtspTrackOutput(RtspConnectionWriter *writer, uint8_t channel);
    // UDP: our sockets bound beside localAddress, sending to the client's ports.
    RtspTrackOutput(const sockaddr_in &localAddress, const sockaddr_in &client, uint16_t clientRtpPort,
                    uint16_t clientRtcpPort);
    ~RtspTrackOutput();
    RtspTrackOutput(const RtspTrackOutput &) = delete;
    RtspTrackOutput &operator=(const RtspTrackOutput &) = delete;

    bool Ready() const { return m_writer != nullptr || (m_rtpFd >= 0 && m_rtcpFd >= 0); }
    bool Tcp() const { return m_writer != nullptr; }
    uint8_t Channel() const { return m_channel; }
    uint16_t ServerRtpPort() const { return m_serverRtpPort; }

    // Packets of one frame are gathered and written at once on a connection.
    bool QueueRtp(const uint8_t *packet, size_t size);
    bool FlushRtp();
    bool SendRtcp(const uint8_t *packet, size_t size);
    // True when the client sent us RTCP (its receiver reports keep a UDP session alive).
    bool DrainClientRtcp();

private:
    bool Interleave(uint8_t channel, const uint8_t *packet, size_t size);

    RtspConnectionWriter *m_writer = nullptr;
    uint8_t m_channel = 0;
    int m_rtpFd = -1;
    int m_rtcpFd = -1;
    uint16_t m_serverRtpPort = 0;
    std::vector<uint8_t> m_pending;  // interleaved packets of the frame being sent
};
