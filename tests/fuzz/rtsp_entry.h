// Fuzz entry: a replay client's bytes through the request parser, and each
// request's URL and headers through the parsers a session puts them to
// (ranges, parameter lists, credentials).
#pragma once

#include <cstdint>
#include <string>

#include "replay/replay_auth.h"
#include "replay/rtsp_range.h"
#include "replay/rtsp_request.h"

namespace fuzz {

inline void FuzzRtspHeaders(const RtspRequest &request, const ReplayAuth &auth) {
    ReplayRange range;
    RtspUrlRange(request.uri, &range);
    RtspUrlPath(request.uri);
    for (const auto &[name, value] : request.headers) {
        RtspRangeUnit unit;
        if (RtspParseRange(value, 1795582800ull * kUsPerSecond, 1795582900ull * kUsPerSecond, &range, &unit))
            RtspFormatRange(unit, 1795582800ull * kUsPerSecond, range.u64FromUs, range.u64ToUs);
        RtspSplitParameters(value, ';');
        RtspSplitParameters(value, ',');
        std::string nonce;
        DigestParameter(value, "nonce", &nonce);
        auth.Check(request.method, value, true);
    }
}

inline int FuzzRtspRequests(const uint8_t *data, size_t size) {
    static const ReplayAuth auth("viewer", "secret");
    const char *text = reinterpret_cast<const char *>(data);
    size_t at = 0;
    while (at < size) {
        RtspRequest request;
        size_t consumed = 0;
        if (RtspParseRequest(text + at, size - at, &request, &consumed) != kRtspParsed) break;
        if (consumed == 0 || consumed > size - at)
            __builtin_trap();  // the parser must move on within the input
        FuzzRtspHeaders(request, auth);
        at += consumed;
    }
    return 0;
}

}  // namespace fuzz
