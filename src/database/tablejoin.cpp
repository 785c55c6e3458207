#include "tablejoin.h"
#include "tablejoin_p.h"

#include "core.h"
#include "exception.h"
#include "lockorder_p.h"
#include "masterindex.h"
#include "table_p.h"

#include <QtCore/QHash>
#include <QtCore/QPointer>
#include <QtCore/QScopeGuard>
#include <QtCore/QSet>
#include <QtCore/QVector>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <vector>

using namespace tablejoin_detail;

namespace tablejoin_detail {


static quint64 mix(quint64 z)
{
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

// A hash of the key fields of a row of the dependent table. Values that the
// master index compares equal hash alike: decimals at the column's scale,
// both zeros of a double; strings are zero-filled after their text, so
// their bytes are canonical. Matches are confirmed by the master index.
quint64 keyHash(const Record &row, const QVector<int> &columns)
{
    quint64 h = 0x9E3779B97F4A7C15ull;
    for (int column : columns) {
        const Field field = row.data(column);
        if (field.isNull()) {
            h = mix(h + 0x51ull);
            continue;
        }
        quint64 word = 0;
        switch (field.type()) {
        case FieldType::Decimal: {
            const decimal value = field.toDecimal();
            std::memcpy(&word, &value, sizeof word);
            h = mix(h ^ word);
            break;
        }
        case FieldType::Double: {
            const double value = field.asDouble() == 0.0 ? 0.0 : field.asDouble();
            std::memcpy(&word, &value, sizeof word);
            h = mix(h ^ word);
            break;
        }
        default: {
            const unsigned char *data = field.data();
            const size_t size = static_cast<size_t>(field.columnDef()->size);
            size_t i = 0;
            for (; i + 8 <= size; i += 8) {
                std::memcpy(&word, data + i, 8);
                h = mix(h ^ word);
            }
            if (i < size) {
                word = 0;
                std::memcpy(&word, data + i, size - i);
                h = mix(h ^ word ^ (size << 56));
            }
        }
        }
    }
    return h == NoMatch ? 1 : h;
}

// Assigns source (null: sets null) to target; answers whether the field's
// value changed.
bool assignField(Field target, const Field *source)
{
    const size_t size = static_cast<size_t>(target.columnDef()->size);
    const bool wasNull = target.isNull();
    unsigned char before[512];
    const bool compared = size <= sizeof before;
    if (compared)
        std::memcpy(before, target.data(), size);
    if (!source || source->isNull())
        target.setNull();
    else
        target = *source;
    if (wasNull != target.isNull())
        return true;
    if (target.isNull())
        return false;
    return !compared || std::memcmp(before, target.data(), size) != 0;
}

QString notFound(const QString &column, const Table *table)
{
    return QStringLiteral("Column '%1' not found to join table '%2'.").arg(column, table->name());
}

// Whether an update names the columns it changed. New rows come with
// (-1, -1) and transactions with an empty range (column count, -1): both
// say nothing, so every column may have changed.
bool knownRange(int firstColumn, int lastColumn)
{
    return firstColumn >= 0 && firstColumn <= lastColumn;
}

} // namespace tablejoin_detail

void TableJoinPrivate::changed(TableJoinLink &link, const unsigned char *leaving)
{
    if (link.batchDepth.load() > 0 || !link.table || !main)
        return;
    TablePrivate *dependent = TableJoin::tablePrivate(link.table);
    if (dependent->lock.heldByCurrentThread() && !TableJoin::tablePrivate(main)->lock.heldByCurrentThread()) {
        dependent->lock.runAfterUnlock(&TableJoinPrivate::flushAfterUnlock, &link);
        return;
    }
    flush(link, leaving);
}

void TableJoinPrivate::flushAfterUnlock(void *cookie)
{
    TableJoinLink *link = static_cast<TableJoinLink *>(cookie);
    link->owner->flush(*link);
}

void TableJoinPrivate::widen(int &first, int &last) const
{
    if (!knownRange(first, last))
        return;
    int wideFirst = first;
    int wideLast = last;
    for (const auto &link : links) {
        if (link->firstFill < 0)
            continue;
        for (int column : qAsConst(link->mainKey)) {
            if (column >= first && column <= last) {
                wideFirst = std::min(wideFirst, link->firstFill);
                wideLast = std::max(wideLast, link->lastFill);
                break;
            }
        }
    }
    first = wideFirst;
    last = wideLast;
}

// Refills the main rows that the dependent side's changes reach, and tells
// the main table's indexes of those whose filled columns changed. The main
// table is taken before the dependent one.
void TableJoinPrivate::flush(TableJoinLink &link, const unsigned char *leaving)
{
    if (!main || !link.table) {
        link.pending.clear();
        return;
    }
    const bool opened = TableJoin::beginExclusive(main);
    auto close = qScopeGuard([&] {
        refreshing = false;
        TableJoin::endExclusive(main, opened);
    });

    QList<Record> changed;
    {
        TableLocker locker(link.table);
        if (!link.refreshAll && !link.nullAll && link.pending.empty())
            return;
        MasterIndex *master = link.table->masterIndex();
        Record last;
        // Main rows sharing a key mostly follow one another in a group:
        // the dependent row found for one serves the next without a search.
        auto refresh = [&](const Record &row) {
            Record dependent;
            if (probeKey(link, row) != NoMatch) {
                if (!last.isNull() && master->compare(last, link.probe) == 0) {
                    dependent = last;
                } else {
                    dependent = searchProbe(link);
                    if (dependent.rowPtr() == leaving)
                        dependent = Record();
                    if (!dependent.isNull())
                        last = dependent;
                }
            }
            return fill(link, row, dependent);
        };
        if (link.refreshAll || link.nullAll) {
            // In the main table's order, so that its indexes hear one order.
            for (const Record &row : *main->masterIndex()) {
                if (!link.mainSlots.contains(row.rowPtr()))
                    continue;
                if (link.refreshAll ? refresh(row) : fill(link, row, Record()))
                    changed.append(row);
            }
        }
        if (!link.refreshAll) {
            std::sort(link.pending.begin(), link.pending.end());
            link.pending.erase(std::unique(link.pending.begin(), link.pending.end()), link.pending.end());
            QSet<const unsigned char *> seen;
            if (link.nullAll) {
                for (const Record &row : qAsConst(changed))
                    seen.insert(row.rowPtr());
            }
            for (quint64 key : link.pending) {
                const auto group = link.mainByKey.constFind(key);
                if (group == link.mainByKey.constEnd())
                    continue;
                for (const Record &row : *group) {
                    if (refresh(row) && !seen.contains(row.rowPtr())) {
                        seen.insert(row.rowPtr());
                        changed.append(row);
                    }
                }
            }
        }
        link.pending.clear();
        link.refreshAll = false;
        link.nullAll = false;
    }
    if (!changed.isEmpty() && link.firstFill >= 0) {
        refreshing = true;
        main->process(QList<Record>(), changed, link.firstFill, link.lastFill, QList<Record>());
    }
}

#ifdef DATABASE_CHECKS
void TableJoinPrivate::touched(Table *table)
{
    if (table && TableJoin::tablePrivate(table)->lock.heldByCurrentThread())
        TableJoin::tablePrivate(table)->lock.runAfterUnlock(&TableJoinPrivate::verifyAfterUnlock, this);
}

void TableJoinPrivate::verifyAfterUnlock(void *join)
{
    static_cast<TableJoinPrivate *>(join)->verify();
}

namespace {

// Past this many rows a scan per unlock would make checked builds crawl.
constexpr int VerifiedRows = 20000;

} // namespace

void TableJoinPrivate::verify()
{
    if (!main)
        return;
    // A side whose table this thread still holds may have changes not
    // reported yet: it waits for its own unlock. The main table may not be
    // taken after a dependent one.
    const bool mainHeld = TableJoin::tablePrivate(main)->lock.heldByCurrentThread();
    for (const auto &link : links) {
        if (!mainHeld && link->table && TableJoin::tablePrivate(link->table)->lock.heldByCurrentThread())
            return;
    }
    // An index taken off its table by a rebuilder hears nothing meanwhile.
    const auto beingRebuilt = [](Table *table) { return TableJoin::tablePrivate(table)->rebuilders.load() > 0; };
    TableLocker mainLocker(main);
    if (beingRebuilt(main) || main->rowCount() > VerifiedRows)
        return;
    for (const auto &link : links) {
        if (!link->table)
            continue;
        const bool dependentHeld = TableJoin::tablePrivate(link->table)->lock.heldByCurrentThread();
        TableLocker dependentLocker(link->table);
        if (beingRebuilt(link->table) || link->table->rowCount() > VerifiedRows)
            continue;
        const auto stop = [&](const QString &what) {
            qFatal("TableJoin of '%s' and '%s': %s", qPrintable(main->name()), qPrintable(link->table->name()),
                   qPrintable(what));
        };
        const QString unreported = QStringLiteral(" (was a key changed without updated()?)");
        if (!mainHeld) {
            int filed = 0;
            for (const Record &row : *main->masterIndex()) {
                const auto slot = link->mainSlots.constFind(row.rowPtr());
                const quint64 key = probeKey(*link, row);
                const auto group = link->mainByKey.constFind(key);
                if (slot == link->mainSlots.constEnd() || slot->key != key || group == link->mainByKey.constEnd()
                    || slot->at >= group->size() || group->at(slot->at).rowPtr() != row.rowPtr())
                    stop(QStringLiteral("main row %1 is not filed under its key").arg(filed) + unreported);
                ++filed;
            }
            if (filed != link->mainSlots.size())
                stop(QStringLiteral("%1 main rows filed, the table has %2").arg(link->mainSlots.size()).arg(filed));
        }
        if (!dependentHeld) {
            int known = 0;
            for (const Record &row : *link->table->masterIndex()) {
                const auto key = link->depKeys.constFind(row.rowPtr());
                if (key == link->depKeys.constEnd() || *key != keyHash(row, link->depKey))
                    stop(QStringLiteral("the key of dependent row %1 is not the one heard").arg(known) + unreported);
                ++known;
            }
            if (known != link->depKeys.size())
                stop(QStringLiteral("%1 dependent rows known, the table has %2").arg(link->depKeys.size()).arg(known));
        }
    }
}
#endif

// --- TableJoin -----------------------------------------------------------------

TableJoin::TableJoin(MasterIndex *mainIndex)
    : d(new TableJoinPrivate)
{
    d->main = mainIndex->table();
    d->mainIndex = new TableJoinMain(this);
    d->main->addIndex(d->mainIndex);
    // First among the indexes (after other joins' main indexes), so that the
    // others see a row's filled columns when they hear of it.
    QList<Index *> indexes = d->main->indexes();
    indexes.removeOne(d->mainIndex);
    int at = 0;
    while (at < indexes.size() && indexes.at(at)->getClassName() == QLatin1String("TableJoinMain"))
        ++at;
    indexes.insert(at, d->mainIndex);
    setIndexes(d->main, indexes);
    TableLocker locker(d->main);
    tablePrivate(d->main)->joins.append(this);
}

TableJoin::~TableJoin()
{
    for (const auto &link : d->links) {
        if (link->table) {
            LockOrder::removeJoin(d->main, link->table);
            TableLocker locker(link->table);
            tablePrivate(link->table)->lock.dropUnlockHooks(link.get());
            tablePrivate(link->table)->lock.dropUnlockHooks(d.data());
            link->table->removeDependentIndex(link->index);
            link->table->removeIndex(link->index);
        }
        delete link->index;
    }
    if (d->main) {
        TableLocker locker(d->main);
        tablePrivate(d->main)->lock.dropUnlockHooks(d.data());
        tablePrivate(d->main)->joins.removeOne(this);
        d->main->removeIndex(d->mainIndex);
    }
    delete d->mainIndex;
}

TablePrivate *TableJoin::tablePrivate(Table *table)
{
    return table->d_func();
}

void TableJoin::widen(int &firstColumn, int &lastColumn) const
{
    d->widen(firstColumn, lastColumn);
}

Table *TableJoin::mainTable() const
{
    return d->main;
}

Index *TableJoin::mainIndex() const
{
    return d->mainIndex;
}

QList<Table *> TableJoin::dependentTables() const
{
    QList<Table *> tables;
    for (const auto &link : d->links)
        tables.append(link->table);
    return tables;
}

void TableJoin::addDependent(MasterIndex *dependentIndex, const QStringList &columns)
{
    QList<QPair<QString, QString>> pairs;
    for (const QString &column : columns)
        pairs.append(qMakePair(column, column));
    addDependent(dependentIndex, pairs);
}

void TableJoin::addDependent(MasterIndex *dependentIndex, const QList<QPair<QString, QString>> &columns)
{
    Table *main = d->main;
    Table *dependent = dependentIndex->table();
    if (dependentIndex->columns().isEmpty())
        throw QStringLiteral("Table '%1' has no key columns to join.").arg(dependent->name());
    // A refill of the main table would change the dependent one in turn,
    // and each would wait for the other's lock.
    if (dependent == main)
        throw QStringLiteral("Table '%1' can't be joined to itself.").arg(main->name());
    if (LockOrder::precedes(dependent, main))
        throw QStringLiteral("Joining table '%1' to table '%2' would make a cycle of joins.")
            .arg(dependent->name(), main->name());

    auto link = std::make_unique<TableJoinLink>();
    link->owner = d.data();
    link->table = dependent;
    for (const auto &pair : TableJoinNamespace::connectIndexes(main->masterIndex(), dependentIndex)) {
        link->mainKey.append(pair.first);
        link->depKey.append(pair.second);
    }
    QList<int> keys = main->masterIndex()->columns();
    QList<int> filled;
    for (const auto &other : d->links) {
        keys += other->mainKey.toList();
        filled += other->mainFill.toList();
    }
    keys += link->mainKey.toList();
    for (int column : qAsConst(link->mainKey)) {
        if (filled.contains(column))
            throw QStringLiteral("Column '%1' of table '%2' is a key and can't be filled by a join.")
                .arg(main->columnName(column), main->name());
    }
    for (const auto &pair : columns) {
        const int target = main->columnIndex(pair.first);
        if (target < 0)
            throw notFound(pair.first, main);
        const int source = dependent->columnIndex(pair.second);
        if (source < 0)
            throw notFound(pair.second, dependent);
        if (keys.contains(target))
            throw QStringLiteral("Column '%1' of table '%2' is a key and can't be filled by a join.")
                .arg(pair.first, main->name());
        link->mainFill.append(target);
        link->depFill.append(source);
    }
    if (!link->mainFill.isEmpty()) {
        link->firstFill = *std::min_element(link->mainFill.cbegin(), link->mainFill.cend());
        link->lastFill = *std::max_element(link->mainFill.cbegin(), link->mainFill.cend());
    }
    link->probe = Record(dependent);
    link->probeSize = dependent->rowSize();

    // Types that cannot convert at all fail here rather than on the first
    // row: zero values of each pair are converted once. Text is not tried,
    // since whether it converts depends on the text.
    const Record mainRow(main);
    const Record dependentRow(dependent);
    for (int i = 0; i < link->mainKey.size(); ++i) {
        Field source = mainRow.data(link->mainKey.at(i));
        if (source.type() != FieldType::String) {
            source.clearNull();
            TableJoinNamespace::typeToMaster(source, dependentRow.data(link->depKey.at(i)));
        }
    }
    for (int i = 0; i < link->mainFill.size(); ++i) {
        Field source = dependentRow.data(link->depFill.at(i));
        if (source.type() != FieldType::String) {
            source.clearNull();
            Field target = mainRow.data(link->mainFill.at(i));
            target = source;
        }
    }

    TableJoinLink &added = *link;
    LockOrder::addJoin(main, dependent);
    const bool opened = beginExclusive(main);
    auto close = qScopeGuard([&] { endExclusive(main, opened); });
    {
        TableLocker locker(dependent);
        for (const Record &row : *dependent->masterIndex())
            added.depKeys.insert(row.rowPtr(), keyHash(row, added.depKey));
        for (const Record &row : *main->masterIndex())
            TableJoinPrivate::file(added, row, TableJoinPrivate::probeKey(added, row));
        added.index = new TableJoinDep(this, &added);
        d->links.push_back(std::move(link));
        dependent->addIndex(added.index);
        dependent->addDependentIndex(added.index);
        added.refreshAll = true;
    }
    d->flush(added);
}

void TableJoin::registerWithCore()
{
    ApplicationCore::registerJoin(this);
}

bool TableJoin::isJoinIndex(Index *index, bool *isDependent)
{
    if (!index)
        return false;
    const QString name = index->getClassName();
    if (name == QLatin1String("TableJoinMain")) {
        if (isDependent)
            *isDependent = false;
        return true;
    }
    if (name == QLatin1String("TableJoinDep")) {
        if (isDependent)
            *isDependent = true;
        return true;
    }
    return false;
}

Table *TableJoin::table(Index *index)
{
    if (!isJoinIndex(index, nullptr))
        return nullptr;
    if (auto *main = dynamic_cast<TableJoinMain *>(index))
        return main->join()->mainTable();
    if (auto *dependent = dynamic_cast<TableJoinDep *>(index))
        return dependent->join()->mainTable();
    return nullptr;
}

bool TableJoin::beginExclusive(Table *table)
{
    return table->beginExclusiveUpdate();
}

void TableJoin::endExclusive(Table *table, bool opened)
{
    table->endExclusiveUpdate(opened);
}

void TableJoin::setIndexes(Table *table, const QList<Index *> &indexes)
{
    table->setIndexes(indexes);
}

