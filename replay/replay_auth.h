// Credentials of the replay server's clients: RTSP Digest as players send it
// (with or without qop=auth), and for HTTP Digest or Basic. Nonces carry
// their own issue time and a keyed hash, so no state is kept per client.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

inline constexpr char kReplayRealm[] = "AVRecord";
inline constexpr uint32_t kReplayNonceLifetime = 12 * 3600;  // seconds a nonce stays good

class ReplayAuth {
public:
    // No user: every request passes (the server then listens on loopback only).
    ReplayAuth(std::string user, std::string password);

    bool Required() const { return !m_user.empty(); }

    // The WWW-Authenticate values: a Digest challenge with a fresh nonce, and
    // the Basic one (HTTP only).
    std::string DigestChallenge() const;
    std::string BasicChallenge() const;

    // True when no credentials are required, or the Authorization header value
    // proves them for a request of that method (Basic only when allowed).
    bool Check(std::string_view method, std::string_view authorization, bool bAllowBasic) const;

    // The clock the nonces are stamped with (tests move it).
    void SetClockForTest(uint32_t (*now)()) { m_now = now; }

private:
    std::string Nonce(uint32_t issued) const;
    bool NonceValid(std::string_view nonce) const;
    bool CheckDigest(std::string_view method, std::string_view parameters) const;
    bool CheckBasic(std::string_view credentials) const;

    std::string m_user;
    std::string m_password;
    std::string m_secret;  // keys the nonces of this process
    uint32_t (*m_now)();
};

// The value of name in a Digest parameter list (`a="b", c=d`), quotes removed;
// false when absent.
bool DigestParameter(std::string_view parameters, std::string_view name, std::string *value);
