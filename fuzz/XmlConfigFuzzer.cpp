// Fuzzes the XML configuration loader: the input, byte for byte, is a
// configuration file that DOMConfigurator::configure reads from disk, so the
// parser (entities, DTDs, encodings) and the loader (every element, class,
// parameter, layout and filter) see whatever an operator or another program
// could have written.
//
// Checked for every input: nothing escapes configure; it returns false
// exactly when message 1534 (parse error) was raised, once; and a reset
// afterwards leaves no appender attached to any logger.
//
// The loaded configuration never gets to act on the machine: no event is
// logged in this process (messages do no action here, and the thread layer
// does not trace), so a file appender opens no file; and syslog hosts, which
// are contacted when set, are cut off from the network: the target runs in a
// network namespace of its own where it may make one, and otherwise skips
// inputs that could name a host (those with "sysloghost" in any case, or
// with an entity or character reference that could spell it).
#include <sched.h>
#include <strings.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "FuzzCheck.h"
#include "zvlog/DOMConfigurator.h"
#include "zvlog/Message.h"
#include "zvlog/MultiThreading.h"
#include "zvlog/msg/MessageInternals.h"
#include "zvlog/msg/RaiseMessage.h"
#include "zvlog/zvlog.h"

using namespace zvs::zvlib::zvlog;

namespace {

std::string documentPath;
bool isolatedNetwork = false;

bool mayNameAHost(const uint8_t* data, size_t size) {
    if (std::memchr(data, '&', size)) return true;
    static const char kWord[] = "sysloghost";
    const size_t n = sizeof kWord - 1;
    for (size_t i = 0; i + n <= size; ++i)
        if (strncasecmp(reinterpret_cast<const char*>(data + i), kWord, n) == 0) return true;
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    isolatedNetwork = ::unshare(CLONE_NEWNET) == 0;
    if (!isolatedNetwork)
        std::fprintf(stderr, "fuzz_xml_config: no network namespace; inputs that may name a syslog host are skipped\n");
    // Messages print a line each on standard output; libFuzzer reports on
    // standard error.
    ZVFUZZ_CHECK(freopen("/dev/null", "w", stdout) != nullptr);

    // Messages are raised and counted but do nothing: no action logs.
    CMessageFactory* factory = CMessageFactory::GetDefaultFactory();
    factory->SuppressDuplicateMessages(false);
    factory->impl()->processActions.clear();
    for (msg::Severity* severity : factory->impl()->severities) severity->actions.clear();
    zvs::zvlib::MultiThreading::setTraceHook(nullptr);

    const char* tmp = std::getenv("TMPDIR");
    documentPath = std::string(tmp && *tmp ? tmp : "/tmp") + "/zvlog-fuzz-config-" + std::to_string(::getpid()) + ".xml";
    std::atexit([] { std::remove(documentPath.c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (!isolatedNetwork && mayNameAHost(data, size)) return -1;  // not added to the corpus
    {
        std::ofstream out(documentPath, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    const unsigned long long parseErrors = detail::raisedMessageCount(1534);
    bool loaded = false;
    try {
        DOMConfigurator configurator;
        loaded = configurator.configure(documentPath.c_str());
    } catch (...) {
        ZVFUZZ_CHECK(!"an exception escaped configure");
    }
    const unsigned long long raised = detail::raisedMessageCount(1534) - parseErrors;
    ZVFUZZ_CHECK(loaded ? raised == 0 : raised == 1);

    BasicConfigurator::resetConfiguration();
    for (Logger* logger : Logger::getRepository()->getCurrentLoggers())
        ZVFUZZ_CHECK(logger->getAllAppenders().empty());
    return 0;
}
