#include "replay/rtsp_session.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <random>
#include <vector>

#include "common/log.h"
#include "common/nal_unit.h"
#include "replay/sdp_builder.h"

namespace {

constexpr size_t kMaxInputBytes = kRtspMaxHeadBytes + kRtspMaxBodyBytes;
constexpr size_t kReadChunk = 4096;
constexpr int kReadPollMs = 250;
constexpr uint32_t kMaxAuthFailures = 5;  // wrong credentials on one connection before it is closed
constexpr size_t kInterleaveHeader = 4;
constexpr char kInterleaveMark = '$';
constexpr char kReplayPath[] = "/replay";
constexpr char kOnvifReplay[] = "onvif-replay";
constexpr char kPublic[] = "OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, TEARDOWN, GET_PARAMETER, SET_PARAMETER";
constexpr int kFirstUnitTries = 3;  // a live range may have nothing yet: the play starts without a first unit

const char *Reason(int code) {
    switch (code) {
        case 200:
            return "OK";
        case 400:
            return "Bad Request";
        case 401:
            return "Unauthorized";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 454:
            return "Session Not Found";
        case 455:
            return "Method Not Valid in This State";
        case 456:
            return "Header Field Not Valid for Resource";
        case 457:
            return "Invalid Range";
        case 459:
            return "Aggregate Operation Not Allowed";
        case 461:
            return "Unsupported Transport";
        case 500:
            return "Internal Server Error";
        case 501:
            return "Not Implemented";
        case 503:
            return "Service Unavailable";
        case 505:
            return "RTSP Version Not Supported";
        case 551:
            return "Option not supported";
        default:
            return "Error";
    }
}

// The track a URL names ("/replay/trackID=1"); -1 for none.
int TrackOfUri(const std::string &uri) {
    std::string_view path = RtspUrlPath(uri);
    size_t at = path.rfind("trackID=");
    if (at == std::string_view::npos) return -1;
    int track = atoi(std::string(path.substr(at + 8)).c_str());
    return track >= 0 && track < kRtspTracks ? track : -1;
}

bool ReplayPath(const std::string &uri) {
    std::string_view path = RtspUrlPath(uri);
    std::string_view prefix = kReplayPath;
    return path.substr(0, prefix.size()) == prefix &&
           (path.size() == prefix.size() || path[prefix.size()] == '/');
}

// "rtsp://host:port/replay/" of the request's URL.
std::string BaseUrl(const std::string &uri) {
    size_t scheme = uri.find("://");
    if (scheme == std::string::npos) return std::string(kReplayPath) + "/";
    size_t slash = uri.find('/', scheme + 3);
    return uri.substr(0, slash) + kReplayPath + "/";
}

std::string RandomHex(int digits) {
    static std::mutex mutex;
    static std::mt19937_64 generator{std::random_device{}()};
    std::lock_guard<std::mutex> lock(mutex);
    std::string text;
    for (int i = 0; i < digits; ++i) text += "0123456789ABCDEF"[generator() & 0x0F];
    return text;
}

uint32_t RandomWord() { return static_cast<uint32_t>(strtoul(RandomHex(8).c_str(), nullptr, 16)); }

// "a-b" into two ports, or two interleaved channels (which start at 0).
bool PortPair(const std::string &text, bool channels, uint16_t *first, uint16_t *second) {
    unsigned a = 0, b = 0;
    int n = sscanf(text.c_str(), "%u-%u", &a, &b);
    if (n < 1) return false;
    if (n < 2) b = a + 1;
    unsigned lowest = channels ? 0 : 1;
    unsigned highest = channels ? UINT8_MAX : UINT16_MAX;
    if (a < lowest || b < lowest || a > highest || b > highest) return false;
    *first = static_cast<uint16_t>(a);
    *second = static_cast<uint16_t>(b);
    return true;
}

// Immediate: yes: the PLAY replaces the range under way and what is queued.
bool AskedImmediate(const RtspRequest &request) {
    const std::string *immediate = request.Header("Immediate");
    return immediate != nullptr && RtspNameEquals(RtspTrim(*immediate), "yes");
}

// The stream's parameter sets as Annex B (VPS for H.265, SPS, PPS).
std::vector<uint8_t> ParameterSets(const ReplayTracks &tracks) {
    std::vector<uint8_t> sets;
    for (const std::vector<uint8_t> *nal : {&tracks.vps, &tracks.sps, &tracks.pps}) {
        if (nal->empty()) continue;
        sets.insert(sets.end(), std::begin(kNalStartCode), std::end(kNalStartCode));
        sets.insert(sets.end(), nal->begin(), nal->end());
    }
    return sets;
}

}  // namespace

void RtspServeConnection(int fd, std::shared_ptr<RtspServerContext> context) {
    RtspSession session(fd, std::move(context));
    session.Serve();
}

RtspSession::RtspSession(int fd, std::shared_ptr<RtspServerContext> context)
    : m_fd(fd), m_context(std::move(context)), m_writer(fd), m_lastHeardUs(ReplayClockUs(CLOCK_MONOTONIC)) {
    timeval timeout = {static_cast<time_t>(m_context->options.u32RequestTimeout), 0};
    setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    socklen_t size = sizeof m_local;
    getsockname(m_fd, reinterpret_cast<sockaddr *>(&m_local), &size);
    size = sizeof m_peer;
    getpeername(m_fd, reinterpret_cast<sockaddr *>(&m_peer), &size);
}

RtspSession::~RtspSession() { EndSession(); }

void RtspSession::Serve() {
    while (!m_closing && m_context->stop.load(std::memory_order_relaxed) == 0 && !m_writer.Broken()) {
        pollfd wait = {m_fd, POLLIN, 0};
        int ready = poll(&wait, 1, kReadPollMs);
        if (ready > 0 && (!ReadMore() || !TakeInput())) break;
        uint64_t now = ReplayClockUs(CLOCK_MONOTONIC);
        if (m_stream.TakeClientHeard() || StreamingOverConnection()) m_lastHeardUs = now;
        if (TimedOut(now)) break;
    }
    m_writer.ShutDown();
}

bool RtspSession::StreamingOverConnection() const {
    // Data taken off the connection shows the client is there: one that stops
    // reading loses the connection when a write times out.
    const RtspTrack &video = m_track[kRtspVideoTrack];
    return m_stream.Running() && !m_stream.Paused() && video.output && video.output->Tcp();
}

bool RtspSession::ReadMore() {
    char chunk[kReadChunk];
    ssize_t n = recv(m_fd, chunk, sizeof chunk, 0);
    if (n <= 0) return false;
    if (m_input.empty()) m_partialSinceUs = ReplayClockUs(CLOCK_MONOTONIC);
    m_input.append(chunk, static_cast<size_t>(n));
    m_lastHeardUs = ReplayClockUs(CLOCK_MONOTONIC);
    return m_input.size() <= kMaxInputBytes + kReadChunk;
}

bool RtspSession::TakeInput() {
    while (!m_input.empty() && !m_closing) {
        if (m_input[0] == kInterleaveMark) {
            // The client's RTCP on an interleaved channel: taken as a sign of life.
            if (m_input.size() < kInterleaveHeader) return true;
            size_t length = kInterleaveHeader +
                            (static_cast<uint8_t>(m_input[2]) << 8 | static_cast<uint8_t>(m_input[3]));
            if (m_input.size() < length) return true;
            m_input.erase(0, length);
            continue;
        }
        RtspRequest request;
        size_t consumed = 0;
        RtspParse parsed = RtspParseRequest(m_input.data(), m_input.size(), &request, &consumed);
        if (parsed == kRtspIncomplete) return true;
        if (parsed == kRtspMalformed) {
            RtspRequest none;
            Send(none, Answer{400, "", "", ""});
            return false;
        }
        m_input.erase(0, consumed);
        Handle(request);
    }
    if (m_input.empty())
        m_partialSinceUs = 0;
    else
        m_partialSinceUs = ReplayClockUs(CLOCK_MONOTONIC);
    return !m_closing;
}

bool RtspSession::TimedOut(uint64_t now) {
    const RtspServerOptions &options = m_context->options;
    if (m_partialSinceUs != 0 && now - m_partialSinceUs > options.u32RequestTimeout * kUsPerSecond) {
        LogTrace("%s %d: a request took too long to arrive, connection closed\n", __FUNCTION__, __LINE__);
        return true;
    }
    if (now - m_lastHeardUs > options.u32SessionTimeout * kUsPerSecond) {
        LogTrace("%s %d: session %s timed out\n", __FUNCTION__, __LINE__, m_sessionId.c_str());
        return true;
    }
    return false;
}

void RtspSession::Send(const RtspRequest &request, const Answer &answer) {
    const std::string *cseq = request.Header("CSeq");
    std::string text = "RTSP/1.0 " + std::to_string(answer.code) + " " + Reason(answer.code) + "\r\n";
    text += "CSeq: " + (cseq != nullptr ? *cseq : std::string("0")) + "\r\n";
    text += "Server: AVRecord replay\r\n";
    text += answer.headers;
    if (!answer.body.empty()) {
        text +=
            "Content-Type: " + (answer.contentType.empty() ? std::string("text/plain") : answer.contentType) +
            "\r\nContent-Length: " + std::to_string(answer.body.size()) + "\r\n";
    }
    text += "\r\n" + answer.body;
    m_writer.Write(text.data(), text.size());
}

bool RtspSession::Admitted(const RtspRequest &request, Answer *refusal) {
    if (request.version != "RTSP/1.0") {
        *refusal = Answer{505, "", "", ""};
        m_closing = request.version.substr(0, 5) == "HTTP/";
        return false;
    }
    const ReplayAuth &auth = *m_context->auth;
    const std::string *authorization = request.Header("Authorization");
    if (auth.Required() && (authorization == nullptr || !auth.Check(request.method, *authorization, false))) {
        if (authorization != nullptr && ++m_authFailures >= kMaxAuthFailures) m_closing = true;
        *refusal = Answer{401, "WWW-Authenticate: " + auth.DigestChallenge() + "\r\n", "", ""};
        return false;
    }
    const std::string *require = request.Header("Require");
    if (require != nullptr) {
        std::string unsupported;
        for (const auto &[option, value] : RtspSplitParameters(*require, ',')) {
            if (option == kOnvifReplay) continue;
            unsupported += (unsupported.empty() ? "" : ", ") + option;
        }
        if (!unsupported.empty()) {
            *refusal = Answer{551, "Unsupported: " + unsupported + "\r\n", "", ""};
            return false;
        }
    }
    const std::string *session = request.Header("Session");
    if (session != nullptr && request.method != "OPTIONS" && request.method != "SETUP") {
        std::string id(RtspTrim(std::string_view(*session).substr(0, session->find(';'))));
        if (id != m_sessionId) {
            *refusal = Answer{454, "", "", ""};
            return false;
        }
    }
    return true;
}

std::string RtspSession::SessionHeader() const {
    if (m_sessionId.empty()) return "";
    return "Session: " + m_sessionId + ";timeout=" + std::to_string(m_context->options.u32SessionTimeout) +
           "\r\n";
}

void RtspSession::Handle(const RtspRequest &request) {
    const std::string *range = request.Header("Range");
    LogTrace("%s %d: %s %s%s%s\n", __FUNCTION__, __LINE__, request.method.c_str(), request.uri.c_str(),
             range != nullptr ? " Range: " : "", range != nullptr ? range->c_str() : "");
    Answer answer;
    if (!Admitted(request, &answer)) {
        Send(request, answer);
        return;
    }
    const std::string &method = request.method;
    if (method == "OPTIONS")
        answer = Options();
    else if (method == "GET_PARAMETER" || method == "SET_PARAMETER")
        answer = Answer{};
    else if (!ReplayPath(request.uri))
        answer = Answer{404, "", "", ""};
    else if (method == "DESCRIBE")
        answer = Describe(request);
    else if (method == "SETUP")
        answer = Setup(request);
    else if (method == "PLAY")
        answer = Play(request);
    else if (method == "PAUSE")
        answer = Pause();
    else if (method == "TEARDOWN")
        answer = Teardown();
    else
        answer = Answer{501, "Allow: " + std::string(kPublic) + "\r\n", "", ""};
    if (answer.code < 0) return;  // answered on its own
    if (method != "TEARDOWN") answer.headers += SessionHeader();
    Send(request, answer);
}

RtspSession::Answer RtspSession::Options() {
    return Answer{200, "Public: " + std::string(kPublic) + "\r\n", "", ""};
}

bool RtspSession::LoadTracks() {
    if (m_hasTracks) return true;
    m_hasTracks = m_context->backend.describe(&m_tracks) == 0;
    return m_hasTracks;
}

void RtspSession::NoteUrlRange(const std::string &uri) {
    ReplayRange range;
    if (!RtspUrlQuery(uri).empty() && RtspUrlRange(uri, &range)) m_urlRange = range;
}

RtspSession::Answer RtspSession::Describe(const RtspRequest &request) {
    ReplayRange range;
    if (!RtspUrlRange(request.uri, &range))
        return Answer{400, "", "text/plain", "start= or end= is no time\r\n"};
    m_urlRange = range;
    m_hasTracks = false;
    if (!LoadTracks()) return Answer{404, "", "text/plain", "no recording on the card\r\n"};
    char address[INET_ADDRSTRLEN] = "0.0.0.0";
    inet_ntop(AF_INET, &m_local.sin_addr, address, sizeof address);
    m_baseUrl = BaseUrl(request.uri);
    // A URL with start= and end= describes that range: ONVIF players play the announced range.
    uint64_t from = static_cast<uint64_t>(m_tracks.u32Oldest) * kUsPerSecond;
    uint64_t to = static_cast<uint64_t>(m_tracks.u32Newest) * kUsPerSecond;
    if (m_urlRange.u64FromUs != 0) from = m_urlRange.u64FromUs;
    if (m_urlRange.u64ToUs != 0) to = m_urlRange.u64ToUs;
    std::string sdp = SdpDescribe(m_tracks, address, from, to);
    return Answer{200, "Content-Base: " + m_baseUrl + "\r\n", "application/sdp", sdp};
}

bool RtspSession::OpenTrack(int index, const std::string &transport, Answer *answer) {
    RtspTrack &track = m_track[index];
    SdpTrack sdp = SdpVideoTrack(m_tracks);
    if (index == kRtspAudioTrack && !SdpAudioTrack(m_tracks, &sdp)) {
        *answer = Answer{404, "", "text/plain", "the recording has no audio\r\n"};
        return true;
    }
    std::string_view alternatives = transport;
    while (!alternatives.empty()) {
        size_t comma = alternatives.find(',');
        std::string_view alternative = alternatives.substr(0, comma);
        alternatives = comma == std::string_view::npos ? std::string_view() : alternatives.substr(comma + 1);
        auto parameters = RtspSplitParameters(alternative, ';');
        if (parameters.empty()) continue;
        std::string profile = parameters[0].first;
        bool tcp = profile == "RTP/AVP/TCP";
        if (!tcp && profile != "RTP/AVP" && profile != "RTP/AVP/UDP") continue;
        bool multicast = false;
        uint16_t first = static_cast<uint16_t>(2 * index), second = static_cast<uint16_t>(first + 1);
        bool ports = tcp;
        for (const auto &[name, value] : parameters) {
            if (name == "multicast") multicast = true;
            if (name == (tcp ? "interleaved" : "client_port")) ports = PortPair(value, tcp, &first, &second);
        }
        if (multicast || !ports) continue;
        if (tcp) {
            track.output = std::make_unique<RtspTrackOutput>(&m_writer, static_cast<uint8_t>(first));
        } else {
            track.output = std::make_unique<RtspTrackOutput>(m_local, m_peer, first, second);
            if (!track.output->Ready()) {
                track.output.reset();
                continue;
            }
        }
        uint32_t ssrc = RandomWord();
        track.packetizer = std::make_unique<RtpPacketizer>(sdp.payload, sdp.u8PayloadType, ssrc,
                                                           static_cast<uint16_t>(RandomWord()));
        track.u32ClockRate = sdp.u32ClockRate;
        track.u32BaseTimestamp = RandomWord();
        if (index == kRtspVideoTrack) track.parameterSets = ParameterSets(m_tracks);
        char ssrcText[12];
        snprintf(ssrcText, sizeof ssrcText, "%08X", ssrc);
        std::string reply;
        if (tcp) {
            reply =
                "RTP/AVP/TCP;unicast;interleaved=" + std::to_string(first) + "-" + std::to_string(first + 1);
        } else {
            uint16_t port = track.output->ServerRtpPort();
            reply = "RTP/AVP;unicast;client_port=" + std::to_string(first) + "-" + std::to_string(second) +
                    ";server_port=" + std::to_string(port) + "-" + std::to_string(port + 1);
        }
        answer->headers += "Transport: " + reply + ";ssrc=" + ssrcText + "\r\n";
        return true;
    }
    return false;
}

RtspSession::Answer RtspSession::Setup(const RtspRequest &request) {
    int index = TrackOfUri(request.uri);
    if (index < 0) return Answer{459, "", "", ""};
    if (m_stream.Running()) return Answer{455, "", "", ""};
    NoteUrlRange(request.uri);
    if (!LoadTracks()) return Answer{404, "", "text/plain", "no recording on the card\r\n"};
    const std::string *transport = request.Header("Transport");
    if (transport == nullptr) return Answer{461, "", "", ""};
    if (m_sessionId.empty()) {
        uint32_t sessions = m_context->sessions.fetch_add(1);
        if (sessions >= m_context->options.u32MaxSessions) {
            m_context->sessions.fetch_sub(1);
            LogTrace("%s %d: session refused, %u are served\n", __FUNCTION__, __LINE__, sessions);
            return Answer{503, "", "text/plain", "too many replay sessions; try again later\r\n"};
        }
        m_sessionId = RandomHex(16);
    }
    Answer answer;
    if (!OpenTrack(index, *transport, &answer)) return Answer{461, "", "", ""};
    return answer;
}

uint64_t RtspSession::NptBase() const {
    return m_urlRange.u64FromUs != 0 ? m_urlRange.u64FromUs
                                     : static_cast<uint64_t>(m_tracks.u32Oldest) * kUsPerSecond;
}

bool RtspSession::PlayRange(const RtspRequest &request, ReplayRange *range, RtspRangeUnit *unit,
                            Answer *refusal) {
    NoteUrlRange(request.uri);
    *range = {NptBase(), m_urlRange.u64ToUs};
    *unit = RtspRangeUnit::kNpt;
    const std::string *header = request.Header("Range");
    if (header == nullptr) return true;
    if (!RtspParseRange(*header, NptBase(), ReplayClockUs(CLOCK_REALTIME), range, unit)) {
        *refusal = Answer{457, "", "", ""};
        return false;
    }
    if (range->u64ToUs == 0 && *unit == RtspRangeUnit::kNpt) range->u64ToUs = m_urlRange.u64ToUs;
    return true;
}

bool RtspSession::PlayOptions(const RtspRequest &request, RtspPlayOptions *options, Answer *refusal) {
    const std::string *cseq = request.Header("CSeq");
    options->u8CSeq = static_cast<uint8_t>(cseq != nullptr ? strtoul(cseq->c_str(), nullptr, 10) : 0);
    const std::string *rate = request.Header("Rate-Control");
    options->bRateControl = rate == nullptr || !RtspNameEquals(RtspTrim(*rate), "no");
    const std::string *frames = request.Header("Frames");
    if (frames != nullptr) {
        std::string_view value = RtspTrim(*frames);
        if (value.substr(0, 5) == "intra") {
            options->bIntraOnly = true;
            if (value.size() > 6 && value[5] == '/') {
                options->u32IntraGapMs =
                    static_cast<uint32_t>(strtoul(std::string(value.substr(6)).c_str(), nullptr, 10));
            }
        }
    }
    const std::string *scale = request.Header("Scale");
    if (scale != nullptr) {
        char *end = nullptr;
        double value = strtod(scale->c_str(), &end);
        if (end == scale->c_str() || !(value > 0) || value > 1000) {
            // Reverse playback is not offered.
            *refusal = Answer{456, "", "text/plain", "only forward Scale is served\r\n"};
            return false;
        }
        options->dScale = value;
    }
    return true;
}

std::string RtspSession::PlayInfo(const RtspRequest &request, uint64_t anchorUs, uint64_t toUs,
                                  RtspRangeUnit unit, bool queued) {
    std::string headers = "Range: " + RtspFormatRange(unit, NptBase(), anchorUs, toUs) + "\r\n";
    std::string info;
    for (int index = 0; index < kRtspTracks; ++index) {
        const RtspTrack &track = m_track[index];
        if (!track.packetizer) continue;
        if (!info.empty()) info += ",";
        info += "url=" + m_baseUrl + (index == kRtspVideoTrack ? kSdpVideoControl : kSdpAudioControl);
        // A queued play's first sequence number is known only once the play before it ends.
        if (!queued) {
            uint16_t first =
                static_cast<uint16_t>(track.packetizer->NextSequence() + RtspLeadInPackets(track));
            info += ";seq=" + std::to_string(first);
        }
        info += ";rtptime=" + std::to_string(track.u32BaseTimestamp);
    }
    if (!info.empty()) headers += "RTP-Info: " + info + "\r\n";
    const std::string *scale = request.Header("Scale");
    if (scale != nullptr) headers += "Scale: " + *scale + "\r\n";
    const std::string *rate = request.Header("Rate-Control");
    if (rate != nullptr) headers += "Rate-Control: " + *rate + "\r\n";
    return headers;
}

RtspSession::Answer RtspSession::Play(const RtspRequest &request) {
    if (m_sessionId.empty() || (!m_track[kRtspVideoTrack].output && !m_track[kRtspAudioTrack].output))
        return Answer{455, "", "", ""};
    if (m_baseUrl.empty()) m_baseUrl = BaseUrl(request.uri);
    if (m_stream.Paused() && request.Header("Range") == nullptr) {
        m_stream.Pause(false);
        return Answer{};
    }
    Answer refusal;
    ReplayRange range;
    RtspPlayOptions options;
    RtspRangeUnit unit;
    if (!LoadTracks()) return Answer{404, "", "text/plain", "no recording on the card\r\n"};
    if (!PlayRange(request, &range, &unit, &refusal) || !PlayOptions(request, &options, &refusal))
        return refusal;
    options.bOpenEnd = range.u64ToUs == 0;
    // A play under way goes on to its end and the new range follows it,
    // unless the client asks for the new range at once.
    bool queued = m_stream.Running() && !m_stream.Paused() && !AskedImmediate(request);
    if (queued && m_stream.QueueFull())
        return Answer{503, "", "text/plain", "too many plays queued; try again later\r\n"};
    if (!queued) m_stream.Stop();
    RtspPlay play;
    play.source = m_context->backend.open(range.u64FromUs, range.u64ToUs, options.bIntraOnly);
    if (!play.source) return Answer{457, "", "text/plain", "nothing recorded in that range\r\n"};
    int result = kReplayWaiting;
    for (int attempt = 0; attempt < kFirstUnitTries && result == kReplayWaiting; ++attempt)
        result = play.source->Next(&play.first);
    if (result == kReplayDone) return Answer{457, "", "text/plain", "nothing recorded in that range\r\n"};
    if (result == kReplayError) return Answer{500, "", "text/plain", "the card could not be read\r\n"};
    play.bHasFirst = result == kReplayUnit;
    play.u64AnchorUs = play.bHasFirst ? play.first.u64CaptureUs : range.u64FromUs;
    play.options = options;
    // A fast play answers its range without an end: GStreamer's jitter
    // buffer estimates the end from its running time, and with every packet
    // in at once it can sleep through that estimate and hold the goodbye's
    // end of stream for good. The play still ends where it was asked to.
    uint64_t answerToUs = options.bRateControl ? range.u64ToUs : 0;
    Answer answer{200, PlayInfo(request, play.u64AnchorUs, answerToUs, unit, queued), "", ""};
    // The answer goes out before the first packet of the play.
    answer.headers += SessionHeader();
    Send(request, answer);
    if (queued)
        m_stream.Queue(std::move(play));
    else
        m_stream.Start(std::move(play));
    return Answer{-1, "", "", ""};
}

RtspSession::Answer RtspSession::Pause() {
    if (m_sessionId.empty()) return Answer{455, "", "", ""};
    m_stream.Pause(true);
    return Answer{};
}

void RtspSession::EndSession() {
    m_stream.Stop();
    for (RtspTrack &track : m_track) track = RtspTrack{};
    if (!m_sessionId.empty()) {
        m_context->sessions.fetch_sub(1);
        m_sessionId.clear();
    }
}

RtspSession::Answer RtspSession::Teardown() {
    EndSession();
    return Answer{};
}
