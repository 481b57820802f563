#include "zvlog/LogBuffer.h"
#include "zvlog/buffer/LogBufferImpl.h"

#include "zvlog/LoggingEvent.h"
#include "zvlog/buffer/BinaryFormat.h"

namespace zvs::zvlib::zvlog {

LogBuffer::~LogBuffer() = default;

void LoggingEvent::setBufferLocation(const LogBuffer* buffer) {
    bufferBase = buffer->blockBase();
    bufferOffset = buffer->eventOffset();
    bufferLength = buffer->writeOffset() - buffer->eventOffset();
}

unsigned int LoggingEvent::getMaxEventDetailSize() { return binary::kMaxArgumentData; }

bool LogBuffer::saveAllToFile() { return LogBufferImpl::saveAllToFile(); }

}  // namespace zvs::zvlib::zvlog
