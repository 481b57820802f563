#include "zvlog/SourceContext.h"

#include <cerrno>
#include <new>

#include "zvstd/Fatal.h"

namespace {

// A source context is made on the way to reporting a failure; running out of
// memory there leaves nothing sensible to report with.
void outOfMemory() { zvs::zvlib::zvFatalSystemError(ENOMEM, "CSourceContext::operator new"); }

}  // namespace

CSourceContext::CSourceContext(const char* module, const char* id, const char* method, unsigned int line)
    : module_(module), id_(id), method_(method), line_(line) {}

CSourceContext::CSourceContext(const CSourceContext& other)
    : CContext(), module_(other.module_), id_(other.id_), method_(other.method_), line_(other.line_) {}

CSourceContext::~CSourceContext() = default;

void* CSourceContext::operator new(std::size_t size) {
    int savedErrno = errno;
    std::new_handler previous = std::set_new_handler(outOfMemory);
    void* memory = ::operator new(size);
    std::set_new_handler(previous);
    errno = savedErrno;
    return memory;
}

void CSourceContext::operator delete(void* memory) noexcept { ::operator delete(memory); }

unsigned int CSourceContext::GetItemCount(bool includeChildren) const {
    unsigned int count = 4;
    if (includeChildren)
        for (const CContext* child : children_) count += child->GetItemCount(false);
    return count;
}

ContextItemID CSourceContext::GetItemID(unsigned int index) {
    static constexpr ContextItemID kOwn[4] = {SourceModule, SourceID, SourceMethod, SourceLine};
    if (index < 4) return kOwn[index];
    return CContext::GetItemID(index - 4);
}

CContextItem* CSourceContext::GetItem(ContextItemID id) const {
    if (items_.size() == 0) {
        auto* self = const_cast<CSourceContext*>(this);
        const char* module = module_;
        const char* sourceId = id_;
        const char* method = method_;
        unsigned int line = line_;
        self->AddItem(new CContextItem(SourceModule, module));  // owned copies
        self->AddItem(new CContextItem(SourceID, sourceId));
        self->AddItem(new CContextItem(SourceMethod, method));
        self->AddItem(new CContextItem(SourceLine, line));
    }
    return CContext::GetItem(id);
}
