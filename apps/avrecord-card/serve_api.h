// The JSON answers of "avrecord-card serve" under /api/, apart from the
// HTTP server itself: every query parameter is checked here before the card
// is read, and every answer is a status code and a JSON body
// ({"error":"..."} for anything but 200).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "avrecord_lib/index_records.h"

// Query parameters as the HTTP layer hands them over; a name may repeat.
using ApiQuery = std::multimap<std::string, std::string>;

inline constexpr int kHttpOk = 200;
inline constexpr int kHttpAccepted = 202;
inline constexpr int kHttpBadRequest = 400;
inline constexpr int kHttpForbidden = 403;
inline constexpr int kHttpNotFound = 404;
inline constexpr int kHttpServerError = 500;

struct ApiReply {
    int status;        // HTTP status
    std::string body;  // JSON
};

ApiReply ApiError(int status, const std::string &message);

// Checks the query against the parameters a call takes, then reads them.
// The first problem found is kept; every later read fails too.
class ApiParams {
public:
    ApiParams(const ApiQuery &query, std::initializer_list<const char *> accepted);

    // A time: seconds since 1970 or local YYYY-MM-DDTHH:MM:SS.
    bool Time(const char *name, uint32_t *value);
    // from and to, from not after to.
    bool Range(uint32_t *from, uint32_t *to);
    // An alarm type 1, 4 or 8; 0 when the parameter is absent.
    bool AlarmType(const char *name, uint16_t *type);
    // "0" or "1"; false when absent.
    bool Flag(const char *name, bool *value);
    // A recording name as the search lists it.
    bool RecordingName(const char *name, std::string *value);

    bool Ok() const { return error_.empty(); }
    ApiReply Error() const { return ApiError(kHttpBadRequest, error_); }

private:
    const std::string *Find(const char *name, bool required);
    bool Fail(const std::string &message);

    const ApiQuery &query_;
    std::string error_;
};

// Every section and alarm event the card's index holds, in index order.
struct CatalogSection {
    std::string name;        // "hi%06d_%06d.mp4"
    SectionInfoHead head;    // the section record
    uint32_t end;            // end as listed (midnight corrected)
    uint32_t firstKeyEntry;  // its first entry in the media file's key-frame table
};
struct CatalogEvent {
    std::string name;       // "he%06d_%06d.mp4"
    AlarmEventEntry entry;  // the event record
    uint32_t end;           // end as listed; the start while still open
};
struct CardCatalog {
    std::vector<CatalogSection> sections;
    std::vector<CatalogEvent> events;
};

// Reads the catalog of the card directory (ending with '/'). 0, or -1 with
// a one-line reason.
int LoadCardCatalog(const std::string &cardDir, CardCatalog *catalog, std::string *reason);

// A click this close before a section plays the section from its start.
inline constexpr uint32_t kPlaySlackSeconds = 5;

// The section that holds moment at, or failing that the first one that
// starts within slack seconds after it; nullptr when there is none.
const CatalogSection *CatalogSectionAt(const CardCatalog &catalog, uint32_t at, uint32_t slack);

// The calls. Each reads the card only after its parameters passed.
ApiReply ApiDays(const std::string &cardDir, const ApiQuery &query);
ApiReply ApiSections(const std::string &cardDir, const ApiQuery &query);
ApiReply ApiEvents(const std::string &cardDir, const ApiQuery &query);
ApiReply ApiSection(const std::string &cardDir, const ApiQuery &query);
// The section to play for moment "at", its details and "key_time", the time
// of the key frame playback starts on.
ApiReply ApiPlay(const std::string &cardDir, const ApiQuery &query);

// What a play query names: the section, and the stretch to play from the
// moment (or the section's start, when the moment lies before it) to the
// section's end. section points into catalog.
struct PlayTarget {
    CardCatalog catalog;
    const CatalogSection *section = nullptr;
    uint32_t at = 0;
    uint32_t end = 0;
};
// 200, or the reply refusing the query; /api/play and the video it
// streams (/api/video) both read the query through it.
ApiReply FindPlayable(const std::string &cardDir, const ApiQuery &query, PlayTarget *target);
ApiReply ApiInfo(const std::string &cardDir, const ApiQuery &query);
ApiReply ApiCheck(const std::string &cardDir, const ApiQuery &query);
// The recorder's published status (its JSON object as it stands) when the
// card served is the camera's own, mounted where the recorder writes it;
// 404 for any other card or when the recorder publishes none.
ApiReply ApiRecorderStatus(const std::string &cardDir, const ApiQuery &query);

// The JSON object of one section: times, size, frames, resolution, frame
// rate, audio codec and record type.
std::string SectionJson(const CatalogSection &section);
