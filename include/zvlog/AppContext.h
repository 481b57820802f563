// The application context: the process-wide root of the contexts that every
// message carries, with the build, process and filesystem contexts as its
// children.
#pragma once

#include <string>

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

    // Adds the catalog's terms for the running product as eight string items
    // (unnamed identifiers, see kTermItems): product, replication, database
    // (or the SQL Server wording), table, column, schema, catalog, and trail
    // (or the wording of the maker's own database). Always true.
    bool AddTerms();

    static constexpr uint32_t kTermItems[8] = {173406691, 141056738, 259380384, 267067602,
                                               257310238, 178786956, 119500682, 180306395};

private:
    CContextItem* instance_;
    CContextItem* instanceDescription_;
};

// The process's application context, made on the first call and never
// destroyed (messages may still print it while the process ends).
ZVLOG_API CAppContext* getAppContext();

// An item of the application context (or its children) as text: a string as
// it stands, a number in decimal, "" for other types or an absent item.
ZVLOG_API std::string getAppContextText(ContextItemID id);
