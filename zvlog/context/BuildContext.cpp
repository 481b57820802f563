#include "zvlog/BuildContext.h"

#include <string>

#include "zvlog/context/ProgramTables.h"
#include "zvstd/ModuleLoader.h"

#ifndef ZVLOG_LIBRARY_VERSION
#define ZVLOG_LIBRARY_VERSION ""
#endif
#ifndef ZVLOG_LIBRARY_CONFIG
#define ZVLOG_LIBRARY_CONFIG ""
#endif

// The library's own build, exported like every program's. The library never
// reads these itself: a program that exports none must not be described by them.
ZVLOG_DEFINE_BUILD_CONTEXT("zvlog", ZVLOG_LIBRARY_VERSION, ZVLOG_LIBRARY_CONFIG, "None", "");

namespace {

enum class VariableKind { String, Time };

struct BuildVariable {
    const char* symbol;
    ContextItemID item;
    VariableKind kind;
};

constexpr BuildVariable kVariables[9] = {
    {"BuildContext_BuildApplication", BuildApplication, VariableKind::String},
    {"BuildContext_BuildVersion", BuildVersion, VariableKind::String},
    {"BuildContext_BuildConfig", BuildConfig, VariableKind::String},
    {"BuildContext_BuildDateTime", BuildDateTime, VariableKind::Time},
    {"BuildContext_BuildHostName", BuildHostName, VariableKind::String},
    {"BuildContext_BuildDBMS", BuildDBMS, VariableKind::String},
    {"BuildContext_BuildDBMSVersion", BuildDBMSVersion, VariableKind::String},
    {"BuildContext_BuildOS", BuildOS, VariableKind::String},
    {"BuildContext_BuildOSArch", BuildOSArch, VariableKind::String},
};

}  // namespace

CBuildContext::CBuildContext() {
    void* program = zvs::zvlib::zvLoadModule(nullptr);
    for (const BuildVariable& variable : kVariables) {
        void* address = zvs::zvlib::zvFindSymbol(program, variable.symbol);
        if (!address) continue;
        if (variable.kind == VariableKind::String) {
            const char* text = *static_cast<const char* const*>(address);
            AddItem(new CContextItem(variable.item, text));  // an owned copy
        } else {
            const void* pointer = address;
            AddItem(new CContextItem(variable.item, pointer));
        }
    }
    zvs::zvlib::zvUnloadModule(program);
    SetProgramItems();
}

CBuildContext::~CBuildContext() = default;

void CBuildContext::SetProgramItems() {
    auto ownString = [this](ContextItemID id) -> const char* {
        auto* node = items_.find(id);
        if (!node || !node->value || node->value->GetType() != CDataItem::TypeString) return nullptr;
        return static_cast<const char*>(*node->value);
    };
    std::string programString;
    unsigned int type = zvs::zvlib::zvlog::detail::describeProgram(ownString(BuildApplication),
                                                                   ownString(BuildDBMS), programString);
    const char* text = programString.c_str();
    AddItem(new CContextItem(BuildProgramString, text));  // an owned copy
    AddItem(new CContextItem(BuildProgramType, type));
}
