#include "tablejoin.h"

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

namespace {

// The key of main rows that match no dependent row whatever it holds; no
// key hash is 0.
const quint64 NoMatch = 0;

quint64 mix(quint64 z)
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

struct MainSlot
{
    quint64 key;
    int at; // place in the key's group
};


} // namespace

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
    QHash<const unsigned char *, MainSlot> mainSlots;
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
                return NoMatch;
            try {
                TableJoinNamespace::typeToMaster(value, link.probe.data(link.depKey.at(i)));
            } catch (const Exception &) {
                return NoMatch;
            } catch (const QString &) {
                return NoMatch;
            } catch (const char *) {
                return NoMatch;
            }
        }
        return keyHash(link.probe, link.depKey);
    }

    // The dependent row with the probe's key, or null.
    static Record searchProbe(TableJoinLink &link)
    {
        MasterIndex *master = link.table->masterIndex();
        const int at = master->search(link.probe, -1);
        return at < 0 ? Record() : master->at(at);
    }

    static Record match(TableJoinLink &link, quint64 key)
    {
        return key == NoMatch ? Record() : searchProbe(link);
    }

    static void file(TableJoinLink &link, const Record &main, quint64 key)
    {
        unfile(link, main.rowPtr());
        QVector<Record> &group = link.mainByKey[key];
        link.mainSlots.insert(main.rowPtr(), MainSlot{key, static_cast<int>(group.size())});
        group.append(main);
    }

    static void unfile(TableJoinLink &link, const unsigned char *row)
    {
        const auto slot = link.mainSlots.find(row);
        if (slot == link.mainSlots.end())
            return;
        const MainSlot place = *slot;
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
                changed |= assignField(main.data(link.mainFill.at(i)), nullptr);
            } else {
                const Field source = dependent.data(link.depFill.at(i));
                changed |= assignField(main.data(link.mainFill.at(i)), &source);
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
};

void TableJoinPrivate::changed(TableJoinLink &link, const unsigned char *leaving)
{
    if (link.batchDepth.load() > 0 || !link.table || !main)
        return;
    TablePrivate *dependent = TableJoin::tablePrivate(link.table);
    if (dependent->heldByCurrentThread() && !TableJoin::tablePrivate(main)->heldByCurrentThread()) {
        dependent->runAfterUnlock(&TableJoinPrivate::flushAfterUnlock, &link);
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
            tablePrivate(link->table)->dropUnlockHooks(link.get());
            link->table->removeDependentIndex(link->index);
            link->table->removeIndex(link->index);
        }
        delete link->index;
    }
    if (d->main) {
        TableLocker locker(d->main);
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

// --- TableJoinMain -------------------------------------------------------------

TableJoinMain::TableJoinMain(TableJoin *join)
    : m_join(join)
{
}

void TableJoinMain::clear()
{
    for (const auto &link : m_join->d->links) {
        link->mainByKey.clear();
        link->mainSlots.clear();
    }
}

void TableJoinMain::build()
{
    Table *main = m_join->d->main;
    if (!main)
        return;
    TableLocker locker(main);
    for (const Record &row : *main->masterIndex())
        add(row);
}

void TableJoinMain::add(const Record &record)
{
    for (const auto &link : m_join->d->links)
        TableJoinPrivate::join(*link, record);
}

void TableJoinMain::process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn,
                            int lastColumn, const QList<Record> &inserted)
{
    // The dependent tables once for the batch rather than once per row.
    std::vector<std::unique_ptr<TableLocker>> lockers;
    for (const auto &link : m_join->d->links) {
        if (link->table)
            lockers.push_back(std::make_unique<TableLocker>(link->table));
    }
    Index::process(removed, updated, firstColumn, lastColumn, inserted);
}

void TableJoinMain::remove(const Record &record, int)
{
    for (const auto &link : m_join->d->links)
        TableJoinPrivate::unfile(*link, record.rowPtr());
}

bool TableJoinMain::filter(const Record &) const
{
    return true;
}

bool TableJoinMain::contains(const Record &record) const
{
    const auto &links = m_join->d->links;
    return !links.empty() && links.front()->mainSlots.contains(record.rowPtr());
}

void TableJoinMain::update(const Record &record, int firstColumn, int lastColumn, int)
{
    if (m_join->d->refreshing)
        return;
    for (const auto &link : m_join->d->links) {
        bool keyChanged = !knownRange(firstColumn, lastColumn) || !link->mainSlots.contains(record.rowPtr());
        for (int i = 0; !keyChanged && i < link->mainKey.size(); ++i) {
            const int column = link->mainKey.at(i);
            keyChanged = column >= firstColumn && column <= lastColumn;
        }
        if (keyChanged)
            TableJoinPrivate::join(*link, record);
    }
}

QString TableJoinMain::getClassName() const
{
    return QStringLiteral("TableJoinMain");
}

// --- TableJoinDep --------------------------------------------------------------

TableJoinDep::TableJoinDep(TableJoin *join, TableJoinLink *link)
    : m_join(join)
    , m_link(link)
{
}

Table *TableJoinDep::dependentTable() const
{
    return m_link->table;
}

void TableJoinDep::clear()
{
    m_link->depKeys.clear();
    m_link->pending.clear();
    m_link->refreshAll = false;
    m_link->nullAll = true;
    m_join->d->changed(*m_link);
}

void TableJoinDep::build()
{
    if (!m_join->d->main || !m_link->table)
        return;
    {
        TableLocker locker(m_link->table);
        for (const Record &row : *m_link->table->masterIndex())
            m_link->depKeys.insert(row.rowPtr(), keyHash(row, m_link->depKey));
        m_link->refreshAll = true;
    }
    m_join->d->changed(*m_link);
}

void TableJoinDep::add(const Record &record)
{
    const quint64 key = keyHash(record, m_link->depKey);
    m_link->depKeys.insert(record.rowPtr(), key);
    m_link->pending.push_back(key);
    m_join->d->changed(*m_link);
}

void TableJoinDep::remove(const Record &record, int)
{
    const auto known = m_link->depKeys.find(record.rowPtr());
    if (known != m_link->depKeys.end()) {
        m_link->pending.push_back(*known);
        m_link->depKeys.erase(known);
    } else {
        m_link->pending.push_back(keyHash(record, m_link->depKey));
    }
    // The master index hears of the removal after this index.
    m_join->d->changed(*m_link, record.rowPtr());
}

void TableJoinDep::process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn,
                           int lastColumn, const QList<Record> &inserted)
{
    // One refill for the whole batch, also outside a batch of the table (a
    // transaction applied without a TableUpdater). The master index has
    // processed the batch already.
    {
        ++m_link->batchDepth;
        auto restore = qScopeGuard([&] { --m_link->batchDepth; });
        Index::process(removed, updated, firstColumn, lastColumn, inserted);
    }
    m_join->d->changed(*m_link);
}

bool TableJoinDep::filter(const Record &) const
{
    return true;
}

bool TableJoinDep::contains(const Record &record) const
{
    return m_link->depKeys.contains(record.rowPtr());
}

void TableJoinDep::update(const Record &record, int firstColumn, int lastColumn, int)
{
    // Columns that are neither key nor filled change nothing in the main rows.
    if (knownRange(firstColumn, lastColumn)) {
        bool relevant = false;
        for (const QVector<int> *columns : {&m_link->depKey, &m_link->depFill}) {
            for (int column : *columns)
                relevant |= column >= firstColumn && column <= lastColumn;
        }
        if (!relevant)
            return;
    }
    const quint64 key = keyHash(record, m_link->depKey);
    const auto known = m_link->depKeys.find(record.rowPtr());
    if (known != m_link->depKeys.end() && *known != key)
        m_link->pending.push_back(*known);
    m_link->depKeys.insert(record.rowPtr(), key);
    m_link->pending.push_back(key);
    m_join->d->changed(*m_link);
}

void TableJoinDep::dependentBeginUpdate(Table *table)
{
    if (table != m_link->table || !m_join->d->main)
        return;
    // The main table's batch opens before the dependent table locks.
    m_link->opened.append(TableJoin::beginExclusive(m_join->d->main));
    ++m_link->batchDepth;
}

void TableJoinDep::dependentEndUpdate(Table *table)
{
    if (table != m_link->table || m_link->opened.isEmpty())
        return;
    auto close = qScopeGuard([&] {
        --m_link->batchDepth;
        const bool opened = m_link->opened.takeLast();
        if (m_join->d->main)
            TableJoin::endExclusive(m_join->d->main, opened);
    });
    m_join->d->flush(*m_link);
}

QString TableJoinDep::getClassName() const
{
    return QStringLiteral("TableJoinDep");
}

// --- Free functions ------------------------------------------------------------

QList<QPair<int, int>> TableJoinNamespace::connectIndexes(MasterIndex *main, MasterIndex *dependent)
{
    Table *mainTable = main->table();
    Table *dependentTable = dependent->table();
    QList<QPair<int, int>> pairs;
    for (int column : dependent->columns()) {
        const QString name = dependentTable->columnName(column);
        const int mainColumn = mainTable->columnIndex(name);
        if (mainColumn < 0)
            throw notFound(name, mainTable);
        pairs.append(qMakePair(mainColumn, column));
    }
    return pairs;
}

bool TableJoinNamespace::typeToMaster(const Field &value, Field key)
{
    key = value;
    return !key.isNull();
}
