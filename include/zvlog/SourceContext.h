// The code location that raised a message: component, source file, function
// and line.
#pragma once

#include <cstddef>

#include "zvlog/CContext.h"
#include "zvlog/Export.h"

// The strings are not copied: callers pass literals. The four items
// SourceModule, SourceID, SourceMethod and SourceLine are created (as owned
// copies and an unsigned line) on the first GetItem.
class ZVLOG_API CSourceContext : public CContext {
public:
    CSourceContext(const char* module, const char* id, const char* method, unsigned int line);
    CSourceContext(const CSourceContext& other);
    ~CSourceContext() override;

    // Allocates with the library's out-of-memory handler installed and leaves
    // errno as it was.
    static void* operator new(std::size_t size);
    static void operator delete(void* memory) noexcept;

    // 4, plus the children's own items with the flag.
    unsigned int GetItemCount(bool includeChildren) const override;
    // SourceModule, SourceID, SourceMethod, SourceLine, then the base's answer
    // for index - 4. The base counts this context's own items as 4 again, so
    // indices 4 to 7 name the four items once more and the children's items
    // start at 8, though GetItemCount(true) counts them from 4. Kept so: stored
    // indices depend on it.
    ContextItemID GetItemID(unsigned int index) override;
    CContextItem* GetItem(ContextItemID id) const override;

    const char* GetModule() const { return module_; }
    const char* GetID() const { return id_; }
    const char* GetMethod() const { return method_; }
    unsigned int GetLine() const { return line_; }

private:
    const char* module_;
    const char* id_;
    const char* method_;
    unsigned int line_;
};
