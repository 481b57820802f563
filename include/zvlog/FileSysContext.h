// The installation's directory table as a context: one string item per
// directory entry (DirProcess...) and DirStructureIsLegacy.
#pragma once

#include "zvlog/CContext.h"
#include "zvlog/Export.h"

class ZVLOG_API CFileSysContext : public CContext {
public:
    // Builds the filesystem hierarchy on first use, with the executable's
    // directory as the hint.
    CFileSysContext();
    ~CFileSysContext() override;
};
