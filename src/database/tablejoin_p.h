#ifndef DATABASE_TABLEJOIN_P_H
#define DATABASE_TABLEJOIN_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources and may change from version to version
// without notice.
//

#include "exception.h"
#include "masterindex.h"
#include "table.h"
#include "tablejoin.h"

#include <QtCore/QHash>
#include <QtCore/QPointer>
#include <QtCore/QVector>

#include <atomic>
#include <memory>
#include <vector>

// The join's state, shared by the join (tablejoin.cpp) and the indexes
// through which it hears its tables (tablejoinindexes.cpp).
namespace tablejoin_detail {

// The key of main rows that match no dependent row whatever it holds; no
// key hash is 0.
const quint64 NoMatch = 0;

// A hash of the key fields of a row of the dependent table; never NoMatch.
quint64 keyHash(const Record &row, const QVector<int> &columns);
// Assigns source (null: sets null) to target; answers whether the field's
// value changed.
bool assignField(Field target, const Field *source);
QString notFound(const QString &column, const Table *table);
// Whether an update names the columns it changed.
bool knownRange(int firstColumn, int lastColumn);

struct MainSlot
{
    quint64 key;
    int at; // place in the key's group
};

} // namespace tablejoin_detail

// One dependent table of a join.
struct TableJoinLink
{
    TableJoinPrivate *owner = nullptr;
    // Tracked, so that a table destroyed before the join is not reached.
    QPointer<Table> table;
    TableJoinDep *index = nullptr;
    QVector<int> mainKey;
    QVector<int> depKey;
    QVector<int> mainFill;
    QVector<int> depFill;
    int firstFill = -1;
    int lastFill = -1;
    // A row of the dependent table that carries a main row's key for the
    // master index to search; made again when the table's rows grow.
    Record probe;
    unsigned long long probeSize = 0;

    // Main rows by key hash; each row knows its group and place in it.
    QHash<quint64, QVector<Record>> mainByKey;
    QHash<const unsigned char *, tablejoin_detail::MainSlot> mainSlots;
    // The key hash of each dependent row, to know its old key on a change.
    QHash<const unsigned char *, quint64> depKeys;

    // What the dependent side changed since the main rows were refilled.
    std::vector<quint64> pending;
    bool refreshAll = false;
    bool nullAll = false;
    // Batches of the dependent table open (counted before it locks, so
    // read by a thread that changes it under a bare lock meanwhile).
    std::atomic<int> batchDepth{0};
    QVector<bool> opened;
};

class TableJoinPrivate
{
public:
    QPointer<Table> main;
    TableJoinMain *mainIndex = nullptr;
    std::vector<std::unique_ptr<TableJoinLink>> links;
    // Set while refilled rows go through the main table's process().
    bool refreshing = false;

    // Writes the main row's key into the probe; answers its hash, or
    // NoMatch for a key that no dependent row can have: one with a null
    // field, or with a value the dependent key column cannot take (a text
    // that is no number, say). Such rows get null joined columns.
    static quint64 probeKey(TableJoinLink &link, const Record &main)
    {
        if (link.probeSize != link.table->rowSize()) {
            link.probe = Record(link.table);
            link.probeSize = link.table->rowSize();
        }
        for (int i = 0; i < link.mainKey.size(); ++i) {
            const Field value = main.data(link.mainKey.at(i));
            if (value.isNull())
                return tablejoin_detail::NoMatch;
            try {
                TableJoinNamespace::typeToMaster(value, link.probe.data(link.depKey.at(i)));
            } catch (const Exception &) {
                return tablejoin_detail::NoMatch;
            } catch (const QString &) {
                return tablejoin_detail::NoMatch;
            } catch (const char *) {
                return tablejoin_detail::NoMatch;
            }
        }
        return tablejoin_detail::keyHash(link.probe, link.depKey);
    }

    // The dependent row with the probe's key, or null.
    static Record searchProbe(TableJoinLink &link)
    {
        return link.table->masterIndex()->findRecord(link.probe);
    }

    static Record match(TableJoinLink &link, quint64 key)
    {
        return key == tablejoin_detail::NoMatch ? Record() : searchProbe(link);
    }

    static void file(TableJoinLink &link, const Record &main, quint64 key)
    {
        unfile(link, main.rowPtr());
        QVector<Record> &group = link.mainByKey[key];
        link.mainSlots.insert(main.rowPtr(), tablejoin_detail::MainSlot{key, static_cast<int>(group.size())});
        group.append(main);
    }

    static void unfile(TableJoinLink &link, const unsigned char *row)
    {
        const auto slot = link.mainSlots.find(row);
        if (slot == link.mainSlots.end())
            return;
        const tablejoin_detail::MainSlot place = *slot;
        link.mainSlots.erase(slot);
        const auto group = link.mainByKey.find(place.key);
        QVector<Record> &rows = *group;
        const int last = rows.size() - 1;
        if (place.at != last) {
            rows[place.at] = std::move(rows[last]);
            link.mainSlots[rows.at(place.at).rowPtr()].at = place.at;
        }
        rows.removeLast();
        if (rows.isEmpty())
            link.mainByKey.erase(group);
    }

    // Fills the main row's columns from `dependent` (null: sets them null);
    // answers whether any changed.
    static bool fill(const TableJoinLink &link, const Record &main, const Record &dependent)
    {
        bool changed = false;
        for (int i = 0; i < link.mainFill.size(); ++i) {
            if (dependent.isNull()) {
                changed |= tablejoin_detail::assignField(main.data(link.mainFill.at(i)), nullptr);
            } else {
                const Field source = dependent.data(link.depFill.at(i));
                changed |= tablejoin_detail::assignField(main.data(link.mainFill.at(i)), &source);
            }
        }
        return changed;
    }

    // Files and fills one main row, silently.
    static void join(TableJoinLink &link, const Record &main)
    {
        if (!link.table)
            return;
        TableLocker locker(link.table);
        const quint64 key = probeKey(link, main);
        file(link, main, key);
        fill(link, main, match(link, key));
    }

    // After a change of the dependent table: refills now, or when its
    // batch ends, or when this thread lets go of a bare lock on it (the
    // main table may not be locked after it). `leaving` is a row that the
    // master index still holds but that is on its way out.
    void changed(TableJoinLink &link, const unsigned char *leaving = nullptr);
    void flush(TableJoinLink &link, const unsigned char *leaving = nullptr);
    static void flushAfterUnlock(void *link);
    // The join's filled columns that a change of `first`..`last` may change
    // as well: those of every dependent table whose key is in the range.
    void widen(int &first, int &last) const;

    // In builds with DATABASE_CHECKS, a change heard from `table` under its
    // lock has the maps compared with a scan of the tables once the thread
    // lets go of that lock: by then it has reported every change it made
    // there, whatever batches and bare locks came in between.
#ifdef DATABASE_CHECKS
    void touched(Table *table);
    static void verifyAfterUnlock(void *join);
    void verify();
#else
    void touched(Table *) {}
#endif
};

#endif // DATABASE_TABLEJOIN_P_H
