// The dump of the event buffer: every buffered block's stream, one after
// another, in a file the binary reader decodes like any sequence of streams.
#include <cerrno>
#include <cstdio>
#include <mutex>
#include <string>

#include "zvlog/AppContext.h"
#include "zvlog/appenders/FileNames.h"
#include "zvlog/buffer/Block.h"
#include "zvlog/buffer/LogBufferImpl.h"
#include "zvlog/core/Library.h"
#include "zvlog/core/ThreadRecord.h"
#include "zvstd/Files.h"
#include "zvstd/RawFile.h"

namespace zvs::zvlib::zvlog {

using namespace binary;

namespace {

void reportFailure(const std::string& path, int error) {
    fprintf(stderr, "Failed to save data to '%s', error %d - %s\n", path.c_str(), error, zvErrorText(error).c_str());
    fflush(stderr);
}

// The first name is shared by every process of the instance, the second is
// this process's own. The first is taken unless it cannot be opened (another
// user's file, say) or another process holds its lock while it dumps; a
// failure is reported once, for the name that ended the attempt.
int openDumpFile(std::string& path, int& fd) {
    const std::string directory = getAppContextText(DirProcessLog);
    path = joinPath(directory, replaceFileNameTokens("zvlog-%I.dmp", true).c_str());
    int error = zvOpenFileForWriting(path, fd);
    if (error == 0) {
        error = zvTryLockFileFirstByte(fd);
        if (error != EAGAIN) return zvTruncateFileTo0(fd);  // a file system without locks still takes the dump
        zvCloseFile(fd);
    }
    path = joinPath(directory, replaceFileNameTokens("zvlog-%I-%P.dmp", true).c_str());
    error = zvOpenFileForWriting(path, fd);
    return error == 0 ? zvTruncateFileTo0(fd) : error;
}

}  // namespace

bool LogBufferImpl::saveAllToFile() {
    if (LibraryState::state() != LibraryRunState::Started) return false;
    const int savedErrno = errno;
    // One dump at a time per process: two would share the first name.
    static std::mutex saving;
    std::lock_guard<std::mutex> guard(saving);

    std::string path;
    int fd = -1;
    int error = openDumpFile(path, fd);
    if (error != 0) {
        if (fd >= 0) zvCloseFile(fd);
        reportFailure(path, error);
        errno = savedErrno;
        return false;
    }

    auto writeStream = [&](const unsigned char* stream, uint32_t length) {
        if (error == 0) error = zvWriteAll(fd, stream, length);
    };
    // Pooled blocks left the recent list before the ones still on it, so the
    // dump runs from older to newer events.
    forEachPooledBlock(writeStream);
    forEachRecentBlock(writeStream);

    // The calling thread's block, up to its last complete event (an event
    // whose arguments are still coming is left out), ended as a close would.
    ThreadRecord* record = peekThreadRecord();
    LogBufferImpl* buffer = record ? record->buffer : nullptr;
    if (buffer && buffer->base_) {
        const bool pending = buffer->eventPending();
        const unsigned end = pending ? buffer->eventStart_ : buffer->position_;
        const uint32_t complete = headOf(buffer->base_)->eventCount - (pending ? 1 : 0);
        if (complete > 0) {
            writeStream(streamOf(buffer->base_), end - kBlockHeadSize);
            writeStream(&kEnd, 1);
        }
    }

    const int closeError = zvCloseFile(fd);
    if (error == 0) error = closeError;
    if (error != 0) reportFailure(path, error);
    errno = savedErrno;
    return error == 0;
}

}  // namespace zvs::zvlib::zvlog
