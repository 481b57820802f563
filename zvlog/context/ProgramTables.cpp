#include "zvlog/context/ProgramTables.h"

#include <cstring>

namespace zvs::zvlib::zvlog::detail {

namespace {

struct ProgramRow {
    const char* baseName;
    unsigned int type;
    const char* displayName;
};

// Type codes: 1-2 capture, 3-4 apply, 5 manager, 6 collector, 7 command shell,
// 8 definition generator, 9-12 the four services, 13 apply coordinator; 0 a
// plain utility.
constexpr ProgramRow kPrograms[31] = {
    {"zvcapture", 1, "Capture"},
    {"zvcapturelr", 2, "Log Reader Capture"},
    {"zvapply", 3, "Apply"},
    {"zvapplypar", 4, "Parallel Apply"},
    {"zvmanager", 5, "Manager"},
    {"zvcollect", 6, "Collector"},
    {"zvshell", 7, "Command Shell"},
    {"zvschemagen", 8, "Schema Definition Generator"},
    {"zvadminsvc", 9, "Administration Service"},
    {"zvdistsvc", 10, "Distribution Service"},
    {"zvrecvsvc", 11, "Receiver Service"},
    {"zvmonsvc", 12, "Monitoring Service"},
    {"zvcoord", 13, "Apply Coordinator"},
    {"zvconvchk", 0, "Checkpoint Converter"},
    {"zvlogdump", 0, "Activity Log Dump"},
    {"zvjrnldump", 0, "Journal Dump"},
    {"zvkeygen", 0, "Key Generator"},
    {"zvwallet", 0, "Wallet Utility"},
    {"zvcatalog", 0, "Message Catalog Lookup"},
    {"zvversion", 0, "Version Reporter"},
    {"zvinstall", 0, "Installer"},
    {"zvservice", 0, "Service Controller"},
    {"zvdiag", 0, "Diagnostics Collector"},
    {"zvcompare", 0, "Data Compare"},
    {"zvloader", 0, "Initial Load Utility"},
    {"zvpurge", 0, "Journal Purge Utility"},
    {"zvschemachk", 0, "Schema Checker"},
    {"zvtrace", 0, "Trace Formatter"},
    {"zvstatus", 0, "Status Reporter"},
    {"zvupgrade", 0, "Upgrade Utility"},
    {"zvcredstore", 0, "Credential Store Utility"},
};

struct DbmsRow {
    const char* key;
    const char* displayName;
};

// Matched by prefix, in this order: a more specific key stands before the key
// it starts with.
constexpr DbmsRow kDbmsRows[16] = {
    {"MSSQL", "SQL Server"},
    {"Oracle", "Oracle Database"},
    {"DB2zOS", "Db2 for z/OS"},
    {"DB2i", "Db2 for i"},
    {"DB2", "Db2 for Linux, UNIX and Windows"},
    {"Informix", "Informix"},
    {"Sybase", "Sybase ASE"},
    {"MySQL", "MySQL"},
    {"MariaDB", "MariaDB"},
    {"PostgreSQL", "PostgreSQL"},
    {"Teradata", "Teradata"},
    {"Netezza", "Netezza"},
    {"Vertica", "Vertica"},
    {"HANA", "SAP HANA"},
    {"SQLite", "SQLite"},
    {kOwnDatabaseKey, "ZV Database"},
};

}  // namespace

unsigned int describeProgram(const char* application, const char* dbms, std::string& programString) {
    const ProgramRow* row = nullptr;
    if (application)
        for (const ProgramRow& candidate : kPrograms)
            if (strcmp(candidate.baseName, application) == 0) {
                row = &candidate;
                break;
            }
    programString = kProductDisplayName;
    programString += ' ';
    programString += row ? row->displayName : "Unknown Application - please modify zvlog/msgContext";
    if (dbms && strcmp(dbms, "None") != 0)
        for (const DbmsRow& candidate : kDbmsRows)
            if (strncmp(candidate.key, dbms, strlen(candidate.key)) == 0) {
                programString += " for ";
                programString += candidate.displayName;
                break;
            }
    return row ? row->type : 0;
}

}  // namespace zvs::zvlib::zvlog::detail
