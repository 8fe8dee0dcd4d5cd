#include "apps/avrecord-card/serve_admission.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(ServeAdmissionTest, ListenAddresses) {
    struct Case {
        const char *text;
        bool ok;
        const char *host = "";
        int port = 0;
    } cases[] = {
        {"127.0.0.1:8080", true, "127.0.0.1", 8080},
        {"0.0.0.0:0", true, "0.0.0.0", 0},
        {"[::1]:65535", true, "::1", 65535},
        {"localhost:1", true, "localhost", 1},
        {"127.0.0.1", false},
        {"127.0.0.1:", false},
        {":8080", false},
        {"127.0.0.1:65536", false},
        {"127.0.0.1:123456", false},
        {"127.0.0.1:80a", false},
        {"127.0.0.1:-1", false},
        {"::1:8080", false},  // IPv6 only in brackets
        {"[::1:8080", false},
        {"[]:8080", false},
    };
    for (const Case &c : cases) {
        std::string host = "unchanged";
        int port = -7;
        ASSERT_EQ(ParseListenAddress(c.text, &host, &port), c.ok) << c.text;
        if (!c.ok) {
            EXPECT_EQ(host, "unchanged") << c.text;
            continue;
        }
        EXPECT_EQ(host, c.host) << c.text;
        EXPECT_EQ(port, c.port) << c.text;
    }
}

TEST(ServeAdmissionTest, LoopbackHosts) {
    for (const char *host : {"127.0.0.1", "127.255.0.9", "::1", "localhost", "LocalHost"})
        EXPECT_TRUE(IsLoopbackHost(host)) << host;
    for (const char *host : {"128.0.0.1", "0.0.0.0", "::", "192.168.1.2", "localhost.example", "", "127.0.0"})
        EXPECT_FALSE(IsLoopbackHost(host)) << host;
}

// Each query is read as sent: a repeated name stays repeated (the call then
// refuses it), and nothing that is not NAME=VALUE with a name is taken.
TEST(ServeAdmissionTest, Queries) {
    struct Case {
        const char *target;
        int status;
        std::vector<std::pair<std::string, std::string>> query;
    } cases[] = {
        {"/api/days", kHttpOk, {}},
        {"/api/days?", kHttpOk, {}},
        {"/api/play?at=5", kHttpOk, {{"at", "5"}}},
        {"/api/play?at=5&at=6", kHttpOk, {{"at", "5"}, {"at", "6"}}},
        {"/api/play?at=", kHttpOk, {{"at", ""}}},
        {"/api/play?at=2026-03-10T08%3A00%3A05", kHttpOk, {{"at", "2026-03-10T08:00:05"}}},
        {"/api/x?a+b=c%2Bd", kHttpOk, {{"a b", "c+d"}}},
        {"/api/x?a==b", kHttpOk, {{"a", "=b"}}},
        {"/api/play?at", kHttpBadRequest, {}},
        {"/api/play?=5", kHttpBadRequest, {}},
        {"/api/play?at=5&", kHttpBadRequest, {}},
        {"/api/play?at=5&&b=1", kHttpBadRequest, {}},
        {"/api/play?at=1%00junk", kHttpBadRequest, {}},
        {"/api/play?at=1%0A", kHttpBadRequest, {}},
        {"/api/play?a%7Ft=1", kHttpBadRequest, {}},
        {"/api/play?at=%4", kHttpBadRequest, {}},
        {"/api/play?at=%zz", kHttpBadRequest, {}},
    };
    for (const Case &c : cases) {
        ApiQuery query;
        ApiReply reply = ParseQuery(c.target, &query);
        EXPECT_EQ(reply.status, c.status) << c.target << " " << reply.body;
        if (c.status != kHttpOk) continue;
        EXPECT_EQ(ApiQuery(c.query.begin(), c.query.end()), query) << c.target;
    }
}

httplib::Request MakeRequest(const std::string &method, const std::string &path,
                             std::initializer_list<std::pair<std::string, std::string>> headers) {
    httplib::Request req;
    req.method = method;
    req.path = path;
    req.target = path;
    for (const auto &[name, value] : headers) req.headers.emplace(name, value);
    return req;
}

// Host, method and origin, for a server on the loopback address and one
// listening beyond it.
TEST(ServeAdmissionTest, AdmissionOfRequests) {
    const ServeOptions loopback{"/card/", "127.0.0.1", 8080};
    const ServeOptions wide{"/card/", "0.0.0.0", 8080};
    struct Case {
        const char *what;
        const ServeOptions &options;
        httplib::Request req;
        int status;  // 0: taken
    } cases[] = {
        {"page", loopback, MakeRequest("GET", "/", {{"Host", "127.0.0.1:8080"}}), 0},
        {"localhost", loopback, MakeRequest("HEAD", "/api/days", {{"Host", "localhost:8080"}}), 0},
        {"IPv6", loopback, MakeRequest("GET", "/", {{"Host", "[::1]:8080"}}), 0},
        {"rebound name", loopback, MakeRequest("GET", "/api/days", {{"Host", "evil.example:8080"}}),
         kHttpForbidden},
        {"no host", loopback, MakeRequest("GET", "/", {}), kHttpForbidden},
        {"two hosts", loopback, MakeRequest("GET", "/", {{"Host", "127.0.0.1"}, {"Host", "127.0.0.1"}}),
         kHttpBadRequest},
        {"any name when wide", wide, MakeRequest("GET", "/", {{"Host", "camera-pc:8080"}}), 0},
        {"post elsewhere", loopback, MakeRequest("POST", "/api/days", {{"Host", "127.0.0.1:8080"}}),
         kHttpMethodNotAllowed},
        {"get clips", loopback, MakeRequest("GET", kClipsPath, {{"Host", "127.0.0.1:8080"}}),
         kHttpMethodNotAllowed},
        {"put", loopback, MakeRequest("PUT", "/", {{"Host", "127.0.0.1:8080"}}), kHttpMethodNotAllowed},
        {"clip from a tool", loopback, MakeRequest("POST", kClipsPath, {{"Host", "127.0.0.1:8080"}}), 0},
        {"clip from the page", loopback,
         MakeRequest("POST", kClipsPath,
                     {{"Host", "127.0.0.1:8080"},
                      {"Origin", "http://127.0.0.1:8080"},
                      {"Sec-Fetch-Site", "same-origin"}}),
         0},
        {"clip from another site", loopback,
         MakeRequest("POST", kClipsPath, {{"Host", "127.0.0.1:8080"}, {"Origin", "http://evil.example"}}),
         kHttpForbidden},
        {"clip across sites", loopback,
         MakeRequest("POST", kClipsPath, {{"Host", "127.0.0.1:8080"}, {"Sec-Fetch-Site", "cross-site"}}),
         kHttpForbidden},
    };
    for (const Case &c : cases) {
        httplib::Response res;
        ApiReply reply = Admit(c.req, res, c.options, c.options.port);
        EXPECT_EQ(reply.status, c.status) << c.what << ": " << reply.body;
        EXPECT_EQ(res.has_header("Allow"), c.status == kHttpMethodNotAllowed) << c.what;
    }
}

TEST(ServeAdmissionTest, StreamSlotsAreCappedAndGivenBack) {
    StreamSlots slots;
    std::vector<std::shared_ptr<void>> taken;
    for (unsigned i = 0; i < kMaxStreams; ++i) taken.push_back(slots.Take());
    EXPECT_EQ(slots.Take(), nullptr);
    taken.pop_back();
    EXPECT_NE(slots.Take(), nullptr);  // the returned slot, given back again at once
}

}  // namespace
