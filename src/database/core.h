#ifndef DATABASE_CORE_H
#define DATABASE_CORE_H

#include "database_export.h"

#include <QtCore/QString>

#include <functional>

class Table;

// The services this library needs from the host application's core: its
// registry of tables by name. The host installs them once at start-up,
// before any index is made by table name; until then every lookup finds
// nothing. Installing is not synchronised with lookups.
namespace ApplicationCore {

using TableLookup = std::function<Table *(const QString &name)>;

// Installs the lookup; an empty function restores the default.
DATABASE_EXPORT void setTableLookup(TableLookup lookup);
// The table registered under `name`, or null.
DATABASE_EXPORT Table *table(const QString &name);

} // namespace ApplicationCore

#endif // DATABASE_CORE_H
