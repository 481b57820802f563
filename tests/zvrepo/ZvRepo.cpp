// A stand-in for the optional repository module "zvrepo": it appends one line
// per call to the file named by ZVREPO_TEST_LOG, and reports itself enabled
// unless ZVREPO_TEST_DISABLED is set.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "zvlog/Message.h"

namespace {

void record(const char* format, ...) __attribute__((format(printf, 1, 2)));

void record(const char* format, ...) {
    const char* path = getenv("ZVREPO_TEST_LOG");
    if (!path) return;
    FILE* f = fopen(path, "a");
    if (!f) return;
    va_list arguments;
    va_start(arguments, format);
    vfprintf(f, format, arguments);
    va_end(arguments);
    fclose(f);
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) bool ZVREPO_Enabled(int flags) {
    record("ZVREPO_Enabled %d\n", flags);
    return getenv("ZVREPO_TEST_DISABLED") == nullptr;
}

__attribute__((visibility("default"))) void ZVREPO_RecordMessage(const CMessage* message) {
    char code[10] = "";
    if (message) message->GetMessageCode(code);
    record("ZVREPO_RecordMessage %u %s\n", message ? message->GetMessageID() : 0u, code);
}

__attribute__((visibility("default"))) void ZVREPO_SetProcessState(int state) {
    record("ZVREPO_SetProcessState %d\n", state);
}

__attribute__((visibility("default"))) void ZVREPO_Shutdown() { record("ZVREPO_Shutdown\n"); }

}  // extern "C"
