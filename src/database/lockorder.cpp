#include "lockorder_p.h"

#include "table.h"

#include <QtCore/QtGlobal>

#include <algorithm>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace {

struct Graph
{
    std::mutex mutex;
    // Each main table's dependent tables, once per join.
    std::unordered_map<const Table *, std::vector<const Table *>> dependents;

    // Depth-first: the graph has no cycle (addDependent refuses one).
    bool reaches(const Table *from, const Table *to) const
    {
        const auto it = dependents.find(from);
        if (it == dependents.end())
            return false;
        for (const Table *next : it->second) {
            if (next == to || reaches(next, to))
                return true;
        }
        return false;
    }
};

Graph &graph()
{
    static Graph instance;
    return instance;
}

#ifdef DATABASE_CHECKS
// One entry per lock level this thread holds, in the order taken.
thread_local std::vector<const Table *> held;
#endif

} // namespace

bool LockOrder::checked()
{
#ifdef DATABASE_CHECKS
    return true;
#else
    return false;
#endif
}

void LockOrder::addJoin(const Table *main, const Table *dependent)
{
    Graph &g = graph();
    std::lock_guard<std::mutex> guard(g.mutex);
    g.dependents[main].push_back(dependent);
}

void LockOrder::removeJoin(const Table *main, const Table *dependent)
{
    Graph &g = graph();
    std::lock_guard<std::mutex> guard(g.mutex);
    const auto it = g.dependents.find(main);
    if (it == g.dependents.end())
        return;
    auto &list = it->second;
    const auto one = std::find(list.begin(), list.end(), dependent);
    if (one != list.end())
        list.erase(one);
    if (list.empty())
        g.dependents.erase(it);
}

void LockOrder::forget(const Table *table)
{
    Graph &g = graph();
    std::lock_guard<std::mutex> guard(g.mutex);
    g.dependents.erase(table);
    for (auto it = g.dependents.begin(); it != g.dependents.end();) {
        auto &list = it->second;
        list.erase(std::remove(list.begin(), list.end(), table), list.end());
        it = list.empty() ? g.dependents.erase(it) : std::next(it);
    }
}

bool LockOrder::precedes(const Table *first, const Table *second)
{
    Graph &g = graph();
    std::lock_guard<std::mutex> guard(g.mutex);
    return g.reaches(first, second);
}

#ifdef DATABASE_CHECKS
void LockOrder::acquired(const Table *table)
{
    // A level more of a lock this thread holds is no new order.
    if (std::find(held.begin(), held.end(), table) == held.end()) {
        for (const Table *other : held) {
            if (precedes(table, other))
                qFatal("Lock order: table '%s' locked while this thread holds table '%s', a dependent table of "
                       "its joins; lock '%s' first",
                       qPrintable(table->name()), qPrintable(other->name()), qPrintable(table->name()));
        }
    }
    held.push_back(table);
}

void LockOrder::released(const Table *table)
{
    const auto last = std::find(held.rbegin(), held.rend(), table);
    if (last != held.rend())
        held.erase(std::next(last).base());
}
#endif
