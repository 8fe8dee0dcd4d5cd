#include "common/card_time.h"

#include <atomic>

#include "common/log.h"

namespace {

// 1 while a refusal has been logged and no time in range stored since.
std::atomic<uint32_t> g_refusalLogged{0};

}  // namespace

int TimeToCardTime(time_t t, uint32_t *card) {
    if (!CardTimeInRange(t)) return -1;
    *card = static_cast<uint32_t>(t);
    return 0;
}

int CardTimeForStore(time_t t, uint32_t *card, const char *what, const char *function) {
    if (TimeToCardTime(t, card) == 0) {
        g_refusalLogged.store(0, std::memory_order_relaxed);
        return 0;
    }
    if (g_refusalLogged.exchange(1, std::memory_order_relaxed) == 0) {
        LogError(
            "%s %d: %s %lld is outside the card's time range (1970-01-01 to 2106-02-07 06:28:15 UTC), "
            "not stored\n",
            function, __LINE__, what, static_cast<long long>(t));
    }
    return -1;
}

int CardTimeNow(uint32_t *card) {
    struct timespec now {};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) return -1;
    return TimeToCardTime(now.tv_sec, card);
}

uint32_t CardTimeNowOrZero() {
    uint32_t card = 0;
    return CardTimeNow(&card) == 0 ? card : 0;
}

struct tm *CardTimeUtc(uint32_t card, struct tm *out) {
    time_t t = CardTimeToTime(card);
    return gmtime_r(&t, out);
}

struct tm *CardTimeLocal(uint32_t card, struct tm *out) {
    time_t t = CardTimeToTime(card);
    return localtime_r(&t, out);
}

int CardTimeFromLocal(struct tm *local, uint32_t *card) {
    struct tm fields = *local;
    time_t t = mktime(&fields);
    // mktime answers -1 both for an error and for 1969-12-31 23:59:59 UTC;
    // either way the card cannot hold it.
    if (TimeToCardTime(t, card) != 0) return -1;
    *local = fields;
    return 0;
}

void CardTimeResetForTest() { g_refusalLogged.store(0, std::memory_order_relaxed); }
