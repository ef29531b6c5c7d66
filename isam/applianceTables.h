// applianceTables: the seventeen oldest tables of the appliance's database,
// held once as the exact statements that create them. The table layer runs
// them to make a missing table; sql/10_appliance_tables.sql is written from
// them (applianceTablesScript), and a test fails when the two differ.
#pragma once

#include <span>
#include <string>

// Version of the whole schema in sql/, as sql/00_version.sql records it in
// tq.schema_version. Raise both together when a file of sql/ changes what a
// statement may rely on.
constexpr int APPLIANCE_SCHEMA_VERSION = 1;

// One of the seventeen tables: its name in schema tq, its file number in the
// table layer, and the statement that creates it. The statement names the
// table without a schema: it relies on tq being first on the search path.
struct ApplianceTable {
    const char* name;
    int fileNumber;
    const char* tableDefinition;
};

// The statements, character for character as the appliance has always
// created these tables. Never edit one: a changed definition is a new column
// added by a later file of sql/, not a rewrite of the old statement.
extern const char D_MASTER_CREATE[];
extern const char F_MASTER_CREATE[];
extern const char JOBS_CREATE[];
extern const char DEVICES_CREATE[];
extern const char NODES_CREATE[];
extern const char TAPES_CREATE[];
extern const char BACKUPS_CREATE[];
extern const char FILESETS_CREATE[];
extern const char SQL_BACKUPS_CREATE[];
extern const char BACKUP_MSG_CREATE[];
extern const char LCS_CREATE[];
extern const char LCS_CLIENT_CREATE[];
extern const char LCS_HIST_CREATE[];
extern const char NETPATHS_CREATE[];
extern const char DETAIL_CREATE[];
extern const char LIBRARY_CREATE[];
extern const char PIDS_CREATE[];

// All seventeen, in the table layer's order (d_master first, pids last).
// The storage is static; the span is valid for the life of the process.
std::span<const ApplianceTable> applianceTables();

// The table of that name (exact, lower case), or nullptr when it is not one
// of the seventeen.
const ApplianceTable* findApplianceTable(const char* name);

// The text of sql/10_appliance_tables.sql: for each table, in order, a DO
// block that runs its statement only when tq.<name> does not exist yet, so
// that loading the file twice is harmless.
std::string applianceTablesScript();
