// zvlog-dump: prints the events of dump files and binary log files as text
// by a conversion pattern or as JSON lines. See --help.
#include <cstdio>
#include <exception>
#include <string>

#include "DumpOptions.h"
#include "EventWriter.h"
#include "StreamFile.h"

using namespace zvdump;

int main(int argc, char** argv) {
    DumpOptions options;
    const int status = parseDumpOptions(argc, argv, options);
    if (status >= 0) return status;

    try {
        EventWriter writer(options, stdout);
        // Events go to standard output, the reader's texts to standard
        // error, in the order met; output is flushed before each text so
        // that the two streams interleave as they happened.
        bool failed = false;
        auto onEvent = [&writer](const zvs::zvlib::zvlog::DecodedEvent& e) { writer.write(e); };
        auto onError = [&writer, &failed](const std::string& text) {
            failed = true;
            writer.flush();
            fputs(text.c_str(), stderr);
            if (text.empty() || text.back() != '\n') fputc('\n', stderr);
            fflush(stderr);
        };
        if (options.follow) {
            installStopHandlers();
            StreamFile file(options.files.front(), onEvent, onError);
            if (!file.follow(options.pollMilliseconds, [&writer] { writer.flush(); })) failed = true;
        } else {
            for (const std::string& path : options.files) {
                StreamFile file(path, onEvent, onError);
                if (!file.readAll()) failed = true;
            }
        }
        writer.flush();
        return failed ? kExitDecodeError : kExitOk;
    } catch (const std::exception& e) {
        fflush(stdout);
        fprintf(stderr, "zvlog-dump: %s\n", e.what());
        return kExitDecodeError;
    }
}
