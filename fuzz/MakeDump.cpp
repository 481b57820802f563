// Writes a small dump of real events, the binary reader's seed input: events
// with arguments of every type from two threads, then the event buffer saved
// to "zvlog-fuzzseed.dmp" in the log directory. Run it with QMR_HOME set to
// an empty directory; the dump lands there.
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>

#include "zvlog/AppContext.h"
#include "zvlog/LogBuffer.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;

int main() {
    getAppContext()->SetItem(AppInstance, "fuzzseed");
    Logger* log = Logger::getRepository()->getLogger("fuzz.seed");
    log->setLevel(LEVEL_ALL);
    log->setAdditivity(false);
    Logger* other = Logger::getRepository()->getLogger("fuzz.seed.other");

    auto work = [&](int t) {
        const int16_t small = -12;
        const uint16_t usmall = 65000;
        const long long big = -5000000000ll;
        const unsigned long long ubig = 18000000000000000000ull;
        const float f = 2.5f;
        const void* p = &small;
        const timeval32_t when{1600000000, 250000};
        for (int i = 0; i < 3; ++i) {
            ZVLOG_INFO(log, "thread %d event %d of %s", t, i, "seed");
            ZVLOG_WARN(other, "%hd %hu %lld %llu %.2f %p", small, usmall, big, ubig, f, p);
        }
        ZVLOG_ERROR(log, "wide %S at %s", u"w\u00e9de \U0001F600", when);
        ZVLOG_DEBUG(log, "%-8s|%08x|%5.1f|%c", "left", 0xBEEFu, -1.25f, 'Z');
        static const unsigned char bytes[] = {0xde, 0xad, 0x00, 0x01, 'z', 'v', 0x7f, 0x80, 0xff};
        ZVLOG_INFO(other, "raw %s", RawBytes{bytes, sizeof bytes});
    };
    std::thread a(work, 1), b(work, 2);
    a.join();
    b.join();
    ZVLOG_INFO(log, "caller's block: %u items, %s", 7u, "last");
    return LogBuffer::saveAllToFile() ? 0 : 1;
}
