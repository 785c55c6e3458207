#include "indexsort.h"

#include "recordsort_p.h"
#include "sortbatch_p.h"

#include <algorithm>
#include <vector>

namespace {

using namespace sortbatch;

// The engine's view of a sorted index.
struct IndexOrder
{
    const IndexSort *index;
    int compare(const Record &a, const Record &b) const { return index->compare(a, b); }
    bool accepts(const Record &record) const { return index->filter(record); }
    size_t rowReach() const { return recordsort::rowReach(index); }
    void sort(std::vector<Record> &records) const
    {
        // Large batches sort on the worker pool too, as resort() does.
        constexpr size_t ParallelSortFrom = 32768;
        recordsort::stableSort({{records.data(), static_cast<int>(records.size())}}, IndexSort::LessThan{index},
                               records.size() >= ParallelSortFrom);
    }
};

} // namespace

IndexSort::IndexSort(Table *table, bool registered)
    : IndexList(table, registered)
{
}

IndexSort::IndexSort(const QString &tableName)
    : IndexList(tableName)
{
}

void IndexSort::build()
{
    // After a load, its rows come sorted run by run while they were read.
    if (recordsort::LoadedRuns *runs = recordsort::LoadedRuns::current(); runs && m_table) {
        TableLocker locker(m_table);
        if (runs->build(this, m_list))
            return;
    }
    appendFromMaster(false);
    resort();
}

void IndexSort::add(const Record &record)
{
    m_list.insert(indexOfAdd(record), record);
}

QString IndexSort::getClassName() const
{
    return QStringLiteral("IndexSort");
}

int IndexSort::search(const Record &key, int after) const
{
    return searchEqual(key, after, false);
}

int IndexSort::searchLast(const Record &key, int after) const
{
    return searchEqual(key, after, true);
}

int IndexSort::searchEqual(const Record &key, int after, bool last) const
{
    int lo = std::max(after + 1, 0);
    int hi = m_list.count();
    if (lo >= hi)
        return -1;
    int found = -1;
    PartitionList<Record>::Reader reader(m_list);
    const size_t reach = IndexOrder{this}.rowReach();
    while (lo < hi) {
        const int mid = lo + (hi - lo) / 2;
        const Record &element = reader.at(mid);
        prefetchNextProbes(reader, lo, mid, hi, reach);
        const int c = compare(element, key);
        if (c == 0)
            found = mid;
        // An equal key narrows towards the first or the last of the run.
        if (c > 0 || (c == 0 && !last))
            hi = mid;
        else
            lo = mid + 1;
    }
    return found;
}

int IndexSort::searchFull(const Record &key, int after) const
{
    int offset = 0;
    for (auto it = m_list.iteratorAt(std::max(after + 1, 0)); it != m_list.end(); ++it, ++offset) {
        if (compare(*it, key) == 0)
            return offset;
    }
    return -1;
}

int IndexSort::indexOfAdd(const Record &record) const
{
    return boundIn(IndexOrder{this}, m_list, record, 0, m_list.count(), true);
}

int IndexSort::indexOf(const Record &record) const
{
    const int lo = boundIn(IndexOrder{this}, m_list, record, 0, m_list.count(), false);
    const int scanned = scanForRow(m_list, lo, record.rowPtr(), RowScan);
    if (scanned != -1)
        return scanned;
    int position = lo;
    for (auto it = m_list.iteratorAt(lo); it != m_list.end(); ++it, ++position) {
        if (it->rowPtr() == record.rowPtr())
            return position;
        if (compare(*it, record) > 0)
            break;
    }
    // The key may have changed since the record was placed.
    return IndexList::indexOf(record);
}

void IndexSort::update(const Record &record, int, int, int position)
{
    if (!filter(record)) {
        remove(record, -1);
        return;
    }
    const int n = m_list.count();
    int p = -1;
    if (position != -1 && m_list.at(position).rowPtr() == record.rowPtr()) {
        p = position;
    } else {
        p = search(record, -1);
        const int scanned = p == -1 ? -1 : scanForRow(m_list, p, record.rowPtr(), RowScan);
        if (scanned != -1) {
            p = scanned;
        } else if (p != -1) {
            for (auto it = m_list.iteratorAt(p);; ++it, ++p) {
                if (it == m_list.end() || compare(record, *it) != 0) {
                    p = -1;
                    break;
                }
                if (it->rowPtr() == record.rowPtr())
                    break;
            }
        }
    }

    if (p != -1) {
        const bool inOrder = !(p > 0 && compare(m_list.at(p - 1), record) > 0)
            && !(p + 1 < n && compare(record, m_list.at(p + 1)) > 0);
        if (inOrder)
            return;
    } else {
        p = IndexList::indexOf(record);
        if (p == -1) {
            add(record);
            return;
        }
    }
    m_list.removeAt(p);
    m_list.insert(indexOfAdd(record), record);
}

QMap<Record, int> IndexSort::indexOfs(QList<Record> records) const
{
    std::vector<const Record *> pointers;
    pointers.reserve(static_cast<size_t>(records.size()));
    for (const Record &record : qAsConst(records))
        pointers.push_back(&record);
    const Positions positions = locate(IndexOrder{this}, m_list, pointers);
    QMap<Record, int> result;
    for (const Record &record : qAsConst(records))
        result.insert(record, positionOf(positions, record));
    return result;
}

QVector<int> IndexSort::searchMany(const QVector<Record> &keys) const
{
    const int n = m_list.count();
    QVector<int> found(keys.size(), -1);
    if (n == 0)
        return found;
    std::vector<int> lo(static_cast<size_t>(keys.size()), 0);
    std::vector<int> hi(static_cast<size_t>(keys.size()), n);
    // The probes of search(key, -1): an equal key is remembered and the
    // search goes on to the left for the first of the run.
    lockstepSearch<Record>(IndexOrder{this}, m_list, keys.size(), [&keys](int g) -> const Record & { return keys[g]; }, lo.data(),
                   hi.data(), [&found](int g, int mid, int c, int &low, int &high) {
                       if (c == 0)
                           found[g] = mid;
                       if (c >= 0)
                           high = mid;
                       else
                           low = mid + 1;
                   });
    return found;
}

namespace {

#ifdef DATABASE_CHECKS
// The first position whose record sorts before the one ahead of it, or -1.
int firstOutOfOrder(const IndexSort &index)
{
    int position = 0;
    const Record *previous = nullptr;
    for (const Record &record : index) {
        if (previous && index.compare(*previous, record) > 0)
            return position;
        previous = &record;
        ++position;
    }
    return -1;
}
#endif

// In builds with DATABASE_CHECKS a batch ends by checking the whole order:
// a record left out of place would make later searches miss rows quietly.
struct OrderChecked
{
    const IndexSort *index;
#ifdef DATABASE_CHECKS
    ~OrderChecked()
    {
        const int at = firstOutOfOrder(*index);
        if (at >= 0)
            qFatal("IndexSort %s: records %d and %d out of order after a batch (did its comparison change without "
                   "resort()?)",
                   qPrintable(index->getClassName()), at - 1, at);
    }
#endif
};

} // namespace

void IndexSort::process(const QList<Record> &removed, const QList<Record> &updated, int, int,
                        const QList<Record> &inserted)
{
    [[maybe_unused]] const OrderChecked checked{this};
    apply(IndexOrder{this}, m_list, removed, updated, inserted);
}

void IndexSort::resort()
{
    const int n = m_list.count();
    if (n == 0)
        return;
    const LessThan less{this};
    if (n < 512) {
        recordsort::mergeSort(m_list.mutableBegin(), m_list.mutableEnd(), n, less);
        return;
    }

    // Large lists: runs inside partitions sorted and merged on the worker
    // pool through a buffer of at most half the handles. A stable sort has
    // one result, so the order is the one of the eight-block merge.
    recordsort::stableSort(m_list.segments(), less, true);
}
