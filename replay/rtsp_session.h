// One client connection of the RTSP server and the session on it: the
// requests of replay (OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, TEARDOWN and the
// keep-alives), credentials on every request, ONVIF replay's headers, and the
// session's timeout.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <string>

#include "replay/rtsp_range.h"
#include "replay/rtsp_request.h"
#include "replay/rtsp_server.h"
#include "replay/rtsp_stream.h"

class RtspSession {
public:
    RtspSession(int fd, std::shared_ptr<RtspServerContext> context);
    ~RtspSession();
    RtspSession(const RtspSession &) = delete;
    RtspSession &operator=(const RtspSession &) = delete;

    // Serves the connection until it ends.
    void Serve();

private:
    struct Answer {
        int code = 200;
        std::string headers;  // "Name: value\r\n" lines
        std::string contentType;
        std::string body;
    };

    bool ReadMore();
    bool TakeInput();
    bool TimedOut(uint64_t now);
    bool StreamingOverConnection() const;
    void Handle(const RtspRequest &request);
    void Send(const RtspRequest &request, const Answer &answer);
    bool Admitted(const RtspRequest &request, Answer *refusal);
    std::string SessionHeader() const;

    Answer Options();
    Answer Describe(const RtspRequest &request);
    Answer Setup(const RtspRequest &request);
    Answer Play(const RtspRequest &request);
    Answer Pause();
    Answer Teardown();

    bool LoadTracks();
    void NoteUrlRange(const std::string &uri);
    bool PlayRange(const RtspRequest &request, ReplayRange *range, RtspRangeUnit *unit, Answer *refusal);
    bool PlayOptions(const RtspRequest &request, RtspPlayOptions *options, Answer *refusal);
    std::string PlayInfo(const RtspRequest &request, uint64_t anchorUs, uint64_t toUs, RtspRangeUnit unit,
                         bool queued);
    uint64_t NptBase() const;
    bool OpenTrack(int index, const std::string &transport, Answer *answer);
    void EndSession();

    int m_fd;
    std::shared_ptr<RtspServerContext> m_context;
    RtspConnectionWriter m_writer;
    sockaddr_in m_local = {};
    sockaddr_in m_peer = {};
    std::string m_input;
    uint64_t m_lastHeardUs;
    uint64_t m_partialSinceUs = 0;
    uint32_t m_authFailures = 0;
    bool m_closing = false;

    bool m_hasTracks = false;
    ReplayTracks m_tracks = {};
    ReplayRange m_urlRange = {0, 0};
    std::string m_baseUrl;
    std::string m_sessionId;
    RtspTrack m_track[kRtspTracks];
    RtspStream m_stream{m_track};
};
