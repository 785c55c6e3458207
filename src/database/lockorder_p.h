#ifndef DATABASE_LOCKORDER_P_H
#define DATABASE_LOCKORDER_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources and may change from version to version
// without notice.
//

class Table;

// The order in which one thread may take table locks. A join makes its main
// table come before each of its dependent tables (and so, through chains of
// joins, before their dependents): a thread that holds a dependent table and
// then locks its main table can deadlock with a writer of the main table.
//
// The joins between tables are always recorded: they also refuse a join that
// would close a cycle. The locks each thread holds are followed, and a lock
// taken out of order stops the process with a message naming both tables,
// only in builds with DATABASE_CHECKS (debug and sanitizer builds).
namespace LockOrder {

// Whether the checks are compiled in.
bool checked();

// `main` comes before `dependent`. Counted: two joins of the same pair need
// two removals.
void addJoin(const Table *main, const Table *dependent);
void removeJoin(const Table *main, const Table *dependent);
// Drops every join of a table being destroyed.
void forget(const Table *table);
// Whether `first` must be locked before `second`: a chain of joins leads
// from `first` down to `second`.
bool precedes(const Table *first, const Table *second);

// The calling thread is about to take (checked first against the locks it
// holds), or has let go of, one level of `table`'s lock. Every lock level
// calls them: without the checks they cost nothing.
#ifdef DATABASE_CHECKS
void acquired(const Table *table);
void released(const Table *table);
#else
inline void acquired(const Table *) {}
inline void released(const Table *) {}
#endif

} // namespace LockOrder

#endif // DATABASE_LOCKORDER_P_H
