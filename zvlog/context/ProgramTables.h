// The suite's programs and the DBMSs it is built for: what BuildProgramString
// and BuildProgramType say about a program.
#pragma once

#include <string>

#include "zvlog/Export.h"

namespace zvs::zvlib::zvlog::detail {

// The product's display name, the first word of every BuildProgramString.
inline constexpr const char* kProductDisplayName = "ZV Replicator";
// The maker's own database: the DBMS key whose builds name it in their terms.
inline constexpr const char* kOwnDatabaseKey = "ZVDB";

// The program string for an application base name and a BuildDBMS text
// (either may be null), and its type code: the row's for a program of the
// table, 0 otherwise.
ZVLOG_API unsigned int describeProgram(const char* application, const char* dbms, std::string& programString);

}  // namespace zvs::zvlib::zvlog::detail
