#include "replay/replay_auth.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>

#include "replay/base64.h"
#include "replay/md5.h"
#include "replay/rtsp_request.h"

namespace {

constexpr size_t kSecretWords = 4;
constexpr size_t kStampDigits = 8;  // issue time, hex
constexpr size_t kNonceHashDigits = 24;

uint32_t WallSeconds() { return static_cast<uint32_t>(time(nullptr)); }

// Compares without leaving the length of the common prefix in the timing.
bool SameText(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    unsigned char difference = 0;
    for (size_t i = 0; i < a.size(); ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

// The scheme word of an Authorization value and what follows it.
std::string_view Scheme(std::string_view authorization, std::string_view *rest) {
    authorization = RtspTrim(authorization);
    size_t blank = authorization.find(' ');
    std::string_view scheme = authorization.substr(0, blank);
    *rest = blank == std::string_view::npos ? std::string_view() : RtspTrim(authorization.substr(blank + 1));
    return scheme;
}

}  // namespace

bool DigestParameter(std::string_view parameters, std::string_view name, std::string *value) {
    size_t at = 0;
    while (at < parameters.size()) {
        while (at < parameters.size() && (parameters[at] == ' ' || parameters[at] == ',')) ++at;
        size_t equals = parameters.find('=', at);
        if (equals == std::string_view::npos) return false;
        std::string_view key = RtspTrim(parameters.substr(at, equals - at));
        std::string text;
        at = equals + 1;
        if (at < parameters.size() && parameters[at] == '"') {
            size_t close = parameters.find('"', at + 1);
            if (close == std::string_view::npos) return false;
            text = parameters.substr(at + 1, close - at - 1);
            at = close + 1;
        } else {
            size_t comma = parameters.find(',', at);
            if (comma == std::string_view::npos) comma = parameters.size();
            text = RtspTrim(parameters.substr(at, comma - at));
            at = comma;
        }
        if (RtspNameEquals(key, name)) {
            *value = text;
            return true;
        }
    }
    return false;
}

ReplayAuth::ReplayAuth(std::string user, std::string password)
    : m_user(std::move(user)), m_password(std::move(password)), m_now(WallSeconds) {
    std::random_device random;
    for (size_t i = 0; i < kSecretWords; ++i) m_secret += std::to_string(random());
}

std::string ReplayAuth::Nonce(uint32_t issued) const {
    char stamp[kStampDigits + 1];
    snprintf(stamp, sizeof stamp, "%08x", issued);
    return stamp + Md5Hex(m_secret + ":" + stamp).substr(0, kNonceHashDigits);
}

bool ReplayAuth::NonceValid(std::string_view nonce) const {
    if (nonce.size() != kStampDigits + kNonceHashDigits) return false;
    std::string stamp(nonce.substr(0, kStampDigits));
    char *end = nullptr;
    uint32_t issued = static_cast<uint32_t>(strtoul(stamp.c_str(), &end, 16));
    if (end != stamp.c_str() + kStampDigits) return false;
    uint32_t now = m_now();
    if (issued > now || now - issued > kReplayNonceLifetime) return false;
    return SameText(nonce, Nonce(issued));
}

std::string ReplayAuth::DigestChallenge() const {
    return std::string("Digest realm=\"") + kReplayRealm + "\", nonce=\"" + Nonce(m_now()) +
           "\", algorithm=MD5";
}

std::string ReplayAuth::BasicChallenge() const { return std::string("Basic realm=\"") + kReplayRealm + "\""; }

bool ReplayAuth::CheckDigest(std::string_view method, std::string_view parameters) const {
    std::string user, realm, nonce, uri, response, qop, nc, cnonce;
    if (!DigestParameter(parameters, "username", &user) || !DigestParameter(parameters, "realm", &realm) ||
        !DigestParameter(parameters, "nonce", &nonce) || !DigestParameter(parameters, "uri", &uri) ||
        !DigestParameter(parameters, "response", &response))
        return false;
    if (!SameText(user, m_user) || realm != kReplayRealm || !NonceValid(nonce)) return false;
    std::string ha1 = Md5Hex(m_user + ":" + kReplayRealm + ":" + m_password);
    std::string ha2 = Md5Hex(std::string(method) + ":" + uri);
    std::string expected;
    if (DigestParameter(parameters, "qop", &qop)) {
        if (qop != "auth" || !DigestParameter(parameters, "nc", &nc) ||
            !DigestParameter(parameters, "cnonce", &cnonce))
            return false;
        expected = Md5Hex(ha1 + ":" + nonce + ":" + nc + ":" + cnonce + ":" + qop + ":" + ha2);
    } else {
        expected = Md5Hex(ha1 + ":" + nonce + ":" + ha2);
    }
    return SameText(response, expected);
}

bool ReplayAuth::CheckBasic(std::string_view credentials) const {
    std::string decoded;
    if (!Base64Decode(credentials, &decoded)) return false;
    return SameText(decoded, m_user + ":" + m_password);
}

bool ReplayAuth::Check(std::string_view method, std::string_view authorization, bool bAllowBasic) const {
    if (!Required()) return true;
    std::string_view rest;
    std::string_view scheme = Scheme(authorization, &rest);
    if (RtspNameEquals(scheme, "Digest")) return CheckDigest(method, rest);
    if (bAllowBasic && RtspNameEquals(scheme, "Basic")) return CheckBasic(rest);
    return false;
}
