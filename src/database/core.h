#ifndef DATABASE_CORE_H
#define DATABASE_CORE_H

#include "database_export.h"

#include <QtCore/QString>

#include <functional>

class Table;
class TableJoin;

// The services this library needs from the host application's core: its
// registry of tables by name, and the registration of joins. The host
// installs them once at start-up, before any index is made by table name or
// any join registers; until then every lookup finds nothing and a join's
// registration goes nowhere. Installing is not synchronised with use.
namespace ApplicationCore {

using TableLookup = std::function<Table *(const QString &name)>;

// Installs the lookup; an empty function restores the default.
DATABASE_EXPORT void setTableLookup(TableLookup lookup);
// The table registered under `name`, or null.
DATABASE_EXPORT Table *table(const QString &name);

using JoinRegistration = std::function<void(TableJoin *join)>;

// Installs the join registration; an empty function restores the default.
DATABASE_EXPORT void setJoinRegistration(JoinRegistration registration);
// Hands the join to the installed registration, if any.
DATABASE_EXPORT void registerJoin(TableJoin *join);

} // namespace ApplicationCore

#endif // DATABASE_CORE_H
