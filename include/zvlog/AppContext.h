// The application context: the process-wide root of the contexts that every
// message carries, with the build, process and filesystem contexts as its
// children.
#pragma once

#include "zvlog/BuildContext.h"
#include "zvlog/CContext.h"
#include "zvlog/Export.h"
#include "zvlog/FileSysContext.h"
#include "zvlog/ProcessContext.h"
#include "zvlog/SourceContext.h"
#include "zvlog/ThreadContext.h"

// Own items: AppInstance and AppInstanceDescription ("" until set),
// AppStartTime (when the context was made: seconds held in 32 bits,
// microseconds x 1000) and AppOperatingNormally (true). Children, in order:
// CBuildContext, CProcessContext, CFileSysContext, deleted with it. The
// context itself is never deleted with a parent.
class ZVLOG_API CAppContext : public CContext {
public:
    CAppContext();
    ~CAppContext() override;

    // Stores an owned copy of the text: into AppInstance or
    // AppInstanceDescription, into another own item if it holds a string (one
    // that holds another type is left alone), or into a new own item. Always
    // true.
    bool SetItem(ContextItemID id, const char* text);

private:
    CContextItem* instance_;
    CContextItem* instanceDescription_;
};

// The process's application context, made on the first call and never
// destroyed (messages may still print it while the process ends).
ZVLOG_API CAppContext* getAppContext();
