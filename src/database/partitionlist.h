#ifndef DATABASE_PARTITIONLIST_H
#define DATABASE_PARTITIONLIST_H

#include <QtCore/QList>
#include <QtCore/QVector>
#include <QtCore/QtGlobal>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <type_traits>
#include <vector>

// Given `skipped`, the ascending, distinct positions of some elements of a
// sequence, how many of them come before the i-th element (from 0) that is
// not among them: that element stands at i plus the answer. Searched in
// skipped[lo, hi), which must hold every position that may count and not
// be counted yet (lo of them come before). A list's edit is followed with
// it: the removed positions of the list before, the inserted ones after.
inline size_t skippedBefore(const std::vector<int> &skipped, long long i, size_t lo = 0, size_t hi = SIZE_MAX)
{
    hi = std::min(hi, skipped.size());
    // Most answers are lo: an element seldom has a skipped one just before.
    while (lo < hi && skipped[lo] - static_cast<long long>(lo) <= i) {
        const size_t mid = lo + (hi - lo) / 2;
        // skipped[mid] has skipped[mid] - mid of the others before it.
        if (skipped[mid] - static_cast<long long>(mid) <= i)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

// PartitionList: a sequence cut into partitions of bounded size, so that an
// insertion or removal in the middle of millions of elements moves at most
// one partition's worth of them. It is the record container of every
// list-based index.
//
// The partition layout is part of the behaviour and follows fixed rules:
//   - append fills the last partition up to partitionSize - 1 elements, then
//     starts a new one;
//   - insert puts an element on a boundary at the end of the earlier
//     partition, and splits a partition that reaches partitionSize into
//     halves (the new one after it takes elements count / 2 .. end);
//   - a block insertion goes into one partition and splits it at most once,
//     so partitions may grow past partitionSize;
//   - a removal deletes a partition that became empty, else merges the next
//     partition into it and then it into the previous one when their counts
//     together are below partitionSize / 2.
// The partition vector always starts and ends with a null sentinel entry.
//
// Positions are found through a table of partition start offsets, so at()
// and iterator arithmetic cost a binary search over the partitions, and
// single steps are pointer increments.
//
// REQUIRES: T is relocatable (Q_MOVABLE_TYPE or primitive): elements are
// moved inside and between partitions with memmove, never copied one by one.
//
// Thread safety: none of its own. Const operations may run concurrently.
template <typename T>
class PartitionList
{
    static_assert(QTypeInfo<T>::isRelocatable, "PartitionList moves its elements bytewise");

public:
    struct Partition
    {
        T *first;
        T *last; // past the last element
        int count;
        int capacity;
    };

    template <bool Const>
    class Iterator
    {
    public:
        using iterator_category = std::random_access_iterator_tag;
        using value_type = T;
        using difference_type = int;
        using pointer = std::conditional_t<Const, const T *, T *>;
        using reference = std::conditional_t<Const, const T &, T &>;

        Iterator() = default;
        Iterator(const PartitionList *list, Partition *const *entry, T *element)
            : m_list(list), m_entry(entry), m_element(element)
        {
        }
        // A mutable iterator converts to a const one.
        template <bool C = Const, typename = std::enable_if_t<C>>
        Iterator(const Iterator<false> &other) : m_list(other.m_list), m_entry(other.m_entry), m_element(other.m_element)
        {
        }

        reference operator*() const { return *m_element; }
        pointer operator->() const { return m_element; }
        reference operator[](int n) const { return *(*this + n); }

        Iterator &operator++()
        {
            if (++m_element == (*m_entry)->last) {
                ++m_entry;
                m_element = *m_entry ? (*m_entry)->first : nullptr;
            }
            return *this;
        }
        Iterator operator++(int)
        {
            Iterator old = *this;
            ++*this;
            return old;
        }
        Iterator &operator--()
        {
            if (!m_element || m_element == (*m_entry)->first) {
                --m_entry;
                m_element = (*m_entry)->last - 1;
            } else {
                --m_element;
            }
            return *this;
        }
        Iterator operator--(int)
        {
            Iterator old = *this;
            --*this;
            return old;
        }
        Iterator &operator+=(int n)
        {
            if (m_element) {
                const Partition *p = *m_entry;
                const auto offset = m_element - p->first + n;
                if (offset >= 0 && offset < p->count) {
                    m_element = p->first + offset;
                    return *this;
                }
            }
            return *this = m_list->template iteratorAt<Const>(position() + n);
        }
        Iterator &operator-=(int n) { return *this += -n; }
        friend Iterator operator+(Iterator it, int n) { return it += n; }
        friend Iterator operator+(int n, Iterator it) { return it += n; }
        friend Iterator operator-(Iterator it, int n) { return it += -n; }
        friend int operator-(const Iterator &a, const Iterator &b) { return a.position() - b.position(); }

        bool operator==(const Iterator &o) const { return m_entry == o.m_entry && m_element == o.m_element; }
        bool operator!=(const Iterator &o) const { return !(*this == o); }
        bool operator<(const Iterator &o) const { return position() < o.position(); }
        bool operator>(const Iterator &o) const { return o < *this; }
        bool operator<=(const Iterator &o) const { return !(o < *this); }
        bool operator>=(const Iterator &o) const { return !(*this < o); }

        // The element's position in the whole list; count() at the end.
        int position() const
        {
            const int entry = static_cast<int>(m_entry - m_list->m_partitions.constData());
            return m_list->m_offsets[entry] + (m_element ? static_cast<int>(m_element - (*m_entry)->first) : 0);
        }

    private:
        friend class PartitionList;
        friend class Iterator<!Const>;
        const PartitionList *m_list = nullptr;
        Partition *const *m_entry = nullptr;
        T *m_element = nullptr;
    };

    using const_iterator = Iterator<true>;
    using iterator = Iterator<false>;

    explicit PartitionList(int partitionSize = 10000)
        : m_count(0), m_partitionSize(partitionSize), m_mergeThreshold(partitionSize / 2)
    {
        m_partitions = {nullptr, nullptr};
        m_offsets = {0, 0};
    }
    ~PartitionList() { clear(); }
    PartitionList(const PartitionList &) = delete;
    PartitionList &operator=(const PartitionList &) = delete;

    int count() const { return m_count; }
    int size() const { return m_count; }
    bool isEmpty() const { return m_count == 0; }
    int partitionSize() const { return m_partitionSize; }
    // A count of the calls that may have changed the elements, mutable
    // access included: a structure kept beside the list compares it with the
    // count it last saw to know whether some change went past it.
    quint64 changes() const { return m_changes; }
    int mergeThreshold() const { return m_mergeThreshold; }
    // The elements the partitions have room for, all together.
    long long capacity() const
    {
        long long total = 0;
        for (int k = 1; k + 1 < m_partitions.size(); ++k)
            total += m_partitions[k]->capacity;
        return total;
    }
    // The element counts of the partitions, in order: the layout.
    QVector<int> partitionCounts() const
    {
        QVector<int> counts;
        for (int k = 1; k + 1 < m_partitions.size(); ++k)
            counts.append(m_partitions[k]->count);
        return counts;
    }

    // The partitions' element arrays, in order: (first element, count). For
    // algorithms that work on contiguous runs (sorting); the layout must not
    // change while they are in use.
    struct Segment
    {
        T *first;
        int count;
    };
    std::vector<Segment> segments()
    {
        ++m_changes;
        std::vector<Segment> result;
        result.reserve(static_cast<size_t>(m_partitions.size()));
        for (int k = 1; k + 1 < m_partitions.size(); ++k)
            result.push_back({m_partitions[k]->first, m_partitions[k]->count});
        return result;
    }

    // Random access that remembers the partition of the last element it
    // gave: the probes of a binary search soon stay inside one partition and
    // then cost a pointer offset each. REQUIRES: 0 <= i < count().
    class Reader
    {
    public:
        Reader() = default;
        explicit Reader(const PartitionList &list) : m_list(&list) {}
        const T &at(int i)
        {
            if (i < m_start || i >= m_end) {
                const int k = m_list->entryContaining(i);
                const Partition *p = m_list->m_partitions[k];
                m_start = m_list->m_offsets[k];
                m_end = m_start + p->count;
                m_first = p->first;
            }
            return m_first[i - m_start];
        }

    private:
        const PartitionList *m_list = nullptr;
        int m_start = 0;
        int m_end = 0;
        const T *m_first = nullptr;
    };

    // Calls f(first, count) for each partition's array, in order.
    template <typename F>
    void forEachSegment(F f) const
    {
        for (int k = 1; k + 1 < m_partitions.size(); ++k)
            f(static_cast<const T *>(m_partitions[k]->first), m_partitions[k]->count);
    }

    // The same over positions [from, to) only, as f(first, count, start),
    // `start` the position of `first`: a pass cut into pieces.
    template <typename F>
    void forEachSegmentIn(int from, int to, F f) const
    {
        to = std::min(to, m_count);
        if (from < 0 || from >= to)
            return;
        for (int k = entryContaining(from); k > 0 && k + 1 < m_partitions.size() && m_offsets[k] < to; ++k) {
            const int start = m_offsets[k];
            const int lo = std::max(from, start);
            const int hi = std::min(to, start + m_partitions[k]->count);
            if (lo < hi)
                f(static_cast<const T *>(m_partitions[k]->first) + (lo - start), hi - lo, lo);
        }
    }

    // The i-th element; a shared empty element when i is out of range.
    const T &at(int i) const
    {
        const int k = entryContaining(i);
        if (k < 0)
            return emptyElement();
        return m_partitions[k]->first[i - m_offsets[k]];
    }
    const T &operator[](int i) const { return at(i); }

    const_iterator begin() const
    {
        Partition *const *entry = m_partitions.constData() + 1;
        return const_iterator(this, entry, *entry ? (*entry)->first : nullptr);
    }
    const_iterator end() const
    {
        return const_iterator(this, m_partitions.constData() + m_partitions.size() - 1, nullptr);
    }
    const_iterator constBegin() const { return begin(); }
    const_iterator constEnd() const { return end(); }
    iterator mutableBegin()
    {
        ++m_changes;
        Partition *const *entry = m_partitions.constData() + 1;
        return iterator(this, entry, *entry ? (*entry)->first : nullptr);
    }
    iterator mutableEnd() { return iterator(this, m_partitions.constData() + m_partitions.size() - 1, nullptr); }
    // The iterator at position i; end() when i is count() or more.
    template <bool Const = true>
    Iterator<Const> iteratorAt(int i) const
    {
        const int k = entryContaining(i);
        if (k < 0)
            return Iterator<Const>(this, m_partitions.constData() + m_partitions.size() - 1, nullptr);
        return Iterator<Const>(this, m_partitions.constData() + k, m_partitions[k]->first + (i - m_offsets[k]));
    }

    void append(const T &value) { emplaceBack(value); }
    void append(T &&value) { emplaceBack(std::move(value)); }

    template <class Value>
    void emplaceBack(Value &&value)
    {
        [[maybe_unused]] const CheckedTail checked{this};
        ++m_changes;
        Partition *p = tailWithRoom();
        reserve(p, p->count + 1);
        new (p->last) T(std::forward<Value>(value));
        ++p->last;
        ++p->count;
        ++m_count;
        ++m_offsets.last();
    }

    // Appends n elements relocated bytewise from `from`, in the layout that
    // n appends give: the caller owns nothing there afterwards and must not
    // destroy them.
    void appendRelocated(const T *from, int n)
    {
        [[maybe_unused]] const CheckedTail checked{this};
        ++m_changes;
        while (n > 0) {
            Partition *p = tailWithRoom();
            const int k = std::min(n, m_partitionSize - 1 - p->count);
            reserve(p, p->count + k);
            std::memcpy(static_cast<void *>(p->last), from, static_cast<size_t>(k) * sizeof(T));
            p->last += k;
            p->count += k;
            m_count += k;
            m_offsets.last() += k;
            from += k;
            n -= k;
        }
    }

    // Inserts before the element now at i; i == count() appends to the last
    // partition. An i outside 0..count() inserts nothing.
    void insert(int i, const T &value)
    {
        insertBlock(i, 1, [&value](T *to) { new (to) T(value); });
    }
    void insert(int i, const QList<T> &block)
    {
        if (!block.isEmpty()) {
            insertBlock(i, block.size(), [&block](T *to) {
                for (const T &value : block)
                    new (to++) T(value);
            });
        }
    }
    void insert(int i, const T *elements, int n)
    {
        if (n > 0) {
            insertBlock(i, n, [elements, n](T *to) {
                for (int e = 0; e < n; ++e)
                    new (to + e) T(elements[e]);
            });
        }
    }

    // Inserts `blocks` blocks as that many insert(points[j], block j) calls
    // in a row would, with the same splits, but moving each element of a
    // partition once for all the blocks that land in it. Block j holds the
    // next sizes[j] elements of `elements` (copied); each point is taken in
    // the list as it stands once the blocks before it are in, and a point out
    // of range inserts nothing. A point before the end of the block before
    // it (a block inside another, or going back) puts the blocks so far in
    // place first: the cheap case is points at or past the blocks before.
    void insertBlocks(const int *points, const int *sizes, int blocks, const T *elements)
    {
        std::vector<const T *> sources(static_cast<size_t>(std::max(blocks, 0)));
        for (int j = 0; j < blocks; ++j) {
            sources[static_cast<size_t>(j)] = elements;
            elements += sizes[j];
        }
        insertBlocksFrom(points, sizes, blocks, sources.data());
    }

    // Runs body(first, last) over jobs [0, jobs) on the calling thread: how
    // replace() does its partitions' work unless told otherwise.
    struct SerialRunner
    {
        template <typename Body>
        void operator()(int jobs, long long /*work*/, const Body &body) const
        {
            body(0, jobs);
        }
    };

    // removeRanges(ranges) and then insertBlocks(points, sizes, blocks,
    // elements), with the same elements, layout and capacities. A partition
    // that neither empties, merges nor splits on the way is rewritten in one
    // forward pass for both, each of its elements moved once, instead of a
    // pass to close the gaps and one from the back to open them; the
    // partitions' passes are independent, and `run(jobs, work, body)` may
    // spread body(first, last) over jobs [0, jobs) among threads (`work`:
    // the elements they move). When the ranges are not sorted and disjoint,
    // a block's point falls inside the block before it or a size is
    // negative, it makes the two calls.
    template <typename Runner = SerialRunner>
    void replace(const QVector<QPair<int, int>> &ranges, const int *points, const int *sizes, int blocks,
                 const T *elements, Runner run = Runner())
    {
        const quint64 before = m_changes;
        const int countBefore = m_count;
        replaceNow(ranges, points, sizes, blocks, elements, run);
        noteEdit(before, countBefore, ranges, points, sizes, blocks);
    }

    // What the last replace() did to the positions, so that a copy of the
    // list can follow it instead of reading the list again.
    struct Edit
    {
        std::vector<int> removed;  // positions in the list before, ascending
        std::vector<int> inserted; // positions in the list after, ascending
        // Positions before of elements that stayed but changed, ascending
        // (see noteTouched).
        std::vector<int> touched;
    };
    // The last replace() when it took the list from changes() == `since` to
    // the list as it stands, nothing after it; else null (also when it was
    // larger than MaxEdit positions, or its blocks went back).
    static constexpr size_t MaxEdit = size_t(1) << 16;
    const Edit *lastEdit(quint64 since) const
    {
        return m_edit && m_edit->valid && m_edit->before == since && m_edit->after == m_changes ? &m_edit->edit
                                                                                               : nullptr;
    }
    // Adds to the last replace(), when nothing came after it, the positions
    // before it of elements that it left in place but whose values the
    // caller changed (its own view of what changed).
    void noteTouched(std::vector<int> positions)
    {
        if (!m_edit || !m_edit->valid || m_edit->after != m_changes)
            return;
        std::sort(positions.begin(), positions.end());
        positions.erase(std::unique(positions.begin(), positions.end()), positions.end());
        m_edit->edit.touched = std::move(positions);
    }

private:
    struct EditRecord
    {
        quint64 before = 0;
        quint64 after = 0;
        bool valid = false;
        Edit edit;
    };
    void noteEdit(quint64 before, int countBefore, const QVector<QPair<int, int>> &ranges, const int *points,
                  const int *sizes, int blocks)
    {
        if (!m_edit)
            m_edit = std::make_unique<EditRecord>();
        EditRecord &e = *m_edit;
        e.before = before;
        e.after = m_changes;
        e.valid = false;
        e.edit.removed.clear();
        e.edit.inserted.clear();
        e.edit.touched.clear();
        int total = countBefore;
        int last = 0;
        for (const auto &range : ranges) {
            if (range.first < last || range.second <= range.first || range.second > countBefore
                || e.edit.removed.size() + static_cast<size_t>(range.second - range.first) > MaxEdit)
                return;
            for (int p = range.first; p < range.second; ++p)
                e.edit.removed.push_back(p);
            total -= range.second - range.first;
            last = range.second;
        }
        long long lastEnd = 0;
        for (int j = 0; j < blocks; ++j) {
            const int i = points[j];
            const int n = sizes[j];
            if (n < 0)
                return;
            if (i < 0 || i > total || n == 0)
                continue;
            if (i < lastEnd || e.edit.removed.size() + e.edit.inserted.size() + static_cast<size_t>(n) > MaxEdit)
                return;
            for (int p = i; p < i + n; ++p)
                e.edit.inserted.push_back(p);
            lastEnd = static_cast<long long>(i) + n;
            total += n;
        }
        e.valid = true;
    }

    template <typename Runner>
    void replaceNow(const QVector<QPair<int, int>> &ranges, const int *points, const int *sizes, int blocks,
                    const T *elements, Runner &run)
    {
        const int entries = m_partitions.size();
        bool plain = entries < 3;
        for (int r = 0; r < ranges.size() && !plain; ++r) {
            plain = ranges[r].first < (r > 0 ? ranges[r - 1].second : 0) || ranges[r].second <= ranges[r].first
                || ranges[r].second > m_count;
        }
        for (int j = 0; j < blocks && !plain; ++j)
            plain = sizes[j] < 0;
        if (plain) {
            removeRanges(ranges);
            insertBlocks(points, sizes, blocks, elements);
            return;
        }

        // Each partition's share of the ranges and its count without them.
        struct Work
        {
            int firstRange = 0;
            int removed = 0;
            int count = 0;       // after the removals, then with its blocks
            int firstBlock = -1; // in `placed`
            int blockCount = 0;
            bool splits = false;
        };
        std::vector<Work> work(static_cast<size_t>(entries));
        int removedTotal = 0;
        for (int k = 1, r = 0; k + 1 < entries; ++k) {
            const int start = m_offsets[k];
            const int stop = start + m_partitions[k]->count;
            while (r < ranges.size() && ranges[r].second <= start)
                ++r;
            Work &w = work[static_cast<size_t>(k)];
            w.firstRange = r;
            for (int q = r; q < ranges.size() && ranges[q].first < stop; ++q)
                w.removed += std::min(ranges[q].second, stop) - std::max(ranges[q].first, start);
            w.count = m_partitions[k]->count - w.removed;
            removedTotal += w.removed;
        }
        // The compaction would delete or merge a partition: the layout
        // changes, the two calls make it.
        bool compacts = false;
        for (int k = 1; k + 1 < entries && !compacts; ++k) {
            compacts = work[static_cast<size_t>(k)].count == 0
                || (k + 2 < entries
                    && work[static_cast<size_t>(k)].count + work[static_cast<size_t>(k + 1)].count < m_mergeThreshold);
        }

        // Where each block lands, following the blocks before it: a
        // boundary belongs to the earlier partition. A partition that
        // reaches partitionSize splits, and its blocks go in as
        // insertBlocks puts them, after the rest.
        struct Placed
        {
            int offset; // in its partition, with its earlier blocks in
            int n;
            const T *source;
            int block;
            int entry;
        };
        std::vector<Placed> placed;
        placed.reserve(static_cast<size_t>(std::max(blocks, 0)));
        bool ordered = true;
        {
            int total = m_count - removedTotal;
            int k = 1;
            int startK = 0; // where partition k starts now
            long long lastEnd = -1;
            const T *next = elements;
            for (int j = 0; j < blocks && !compacts && ordered; ++j) {
                const int n = sizes[j];
                const T *source = next;
                next += n;
                const int i = points[j];
                if (i < 0 || i > total || n == 0)
                    continue; // as insertBlocks: nothing goes in
                ordered = i >= lastEnd;
                lastEnd = static_cast<long long>(i) + n;
                while (startK + work[static_cast<size_t>(k)].count < i) {
                    startK += work[static_cast<size_t>(k)].count;
                    ++k;
                }
                Work &w = work[static_cast<size_t>(k)];
                if (w.firstBlock < 0)
                    w.firstBlock = static_cast<int>(placed.size());
                ++w.blockCount;
                placed.push_back({i - startK, n, source, j, k});
                w.count += n;
                total += n;
                if (w.count >= m_partitionSize)
                    w.splits = true;
            }
        }
        if (compacts || !ordered) {
            removeRanges(ranges);
            insertBlocks(points, sizes, blocks, elements);
            return;
        }

        [[maybe_unused]] const Checked checked{this};
        ++m_changes;
        std::vector<int> jobs;
        long long moved = 0;
        int scratchSize = 0;
        for (int k = 1; k + 1 < entries; ++k) {
            const Work &w = work[static_cast<size_t>(k)];
            if (w.removed > 0 || (w.blockCount > 0 && !w.splits)) {
                jobs.push_back(k);
                moved += m_partitions[k]->count;
                if (!w.splits)
                    scratchSize = std::max(scratchSize, w.count);
            }
        }
        run(static_cast<int>(jobs.size()), moved, [&](int first, int last) {
            // Sized as most partitions are, so that it can trade places
            // with the storage of the partition just written.
            const int scratchCapacity = std::max(scratchSize, m_partitionSize + 2);
            T *scratch = nullptr;
            for (int job = first; job < last; ++job) {
                const int k = jobs[static_cast<size_t>(job)];
                const Work &w = work[static_cast<size_t>(k)];
                if (!w.splits && w.blockCount > 0 && !scratch) {
                    scratch = static_cast<T *>(
                        qMallocAligned(static_cast<size_t>(scratchCapacity) * sizeof(T), alignof(T)));
                    Q_CHECK_PTR(scratch);
                }
                rewrite(k, ranges, w.firstRange, w.splits ? nullptr : placed.data() + std::max(w.firstBlock, 0),
                        w.splits ? 0 : w.blockCount, scratch, scratchCapacity);
            }
            qFreeAligned(scratch);
        });
        m_count -= removedTotal;
        for (const Placed &b : placed) {
            if (!work[static_cast<size_t>(b.entry)].splits)
                m_count += b.n;
        }
        rebuildOffsets();

        // The splitting partitions' blocks, at their own points: the blocks
        // already in lie in later partitions and do not move them.
        std::vector<int> splitPoints;
        std::vector<int> splitSizes;
        std::vector<const T *> splitSources;
        for (const Placed &b : placed) {
            if (work[static_cast<size_t>(b.entry)].splits) {
                splitPoints.push_back(points[b.block]);
                splitSizes.push_back(b.n);
                splitSources.push_back(b.source);
            }
        }
        if (!splitPoints.empty())
            insertBlocksFrom(splitPoints.data(), splitSizes.data(), static_cast<int>(splitPoints.size()),
                             splitSources.data());
    }

public:
    // As insertBlocks, block j taken from sources[j].
    void insertBlocksFrom(const int *points, const int *sizes, int blocks, const T *const *sources)
    {
        [[maybe_unused]] const Checked checked{this};
        ++m_changes;
        struct Pending
        {
            int offset; // in the partition, counting the blocks before it
            int n;
            const T *source;
        };
        std::vector<Pending> pending;
        int current = -1;  // the entry whose blocks are pending
        int physical = 0;  // elements really in its storage
        int pendingEnd = 0; // past the last block that went in

        auto materialize = [&]() {
            if (current < 0)
                return;
            Partition *p = m_partitions[current];
            if (p->count > p->capacity) {
                T *storage = static_cast<T *>(qReallocAligned(p->first, static_cast<size_t>(p->count) * sizeof(T),
                                                              static_cast<size_t>(p->capacity) * sizeof(T),
                                                              alignof(T)));
                Q_CHECK_PTR(storage);
                p->first = storage;
                p->capacity = p->count;
            }
            // From the back: every old element moves once, to its final place.
            int before = 0;
            for (const Pending &b : pending)
                before += b.n;
            int oldEnd = physical;
            int destinationEnd = p->count;
            for (auto b = pending.rbegin(); b != pending.rend(); ++b) {
                before -= b->n;
                const int oldStart = b->offset - before;
                const int moved = oldEnd - oldStart;
                std::memmove(static_cast<void *>(p->first + destinationEnd - moved), p->first + oldStart,
                             static_cast<size_t>(moved) * sizeof(T));
                destinationEnd -= moved;
                for (int e = 0; e < b->n; ++e)
                    new (p->first + destinationEnd - b->n + e) T(b->source[e]);
                destinationEnd -= b->n;
                oldEnd = oldStart;
            }
            p->last = p->first + p->count;
            pending.clear();
            current = -1;
        };

        for (int j = 0; j < blocks; ++j) {
            const int n = sizes[j];
            const T *source = sources[j];
            const int k = entryForInsert(points[j]);
            if (k < 0 || n <= 0)
                continue;
            if (k != current || points[j] < pendingEnd)
                materialize();
            pendingEnd = points[j] + n;
            if (!m_partitions[k]) {
                m_partitions.insert(k, newPartition(std::max(m_partitionSize + 2, n)));
                m_offsets.insert(k, m_count);
            }
            Partition *p = m_partitions[k];
            if (current != k) {
                current = k;
                physical = p->count;
            }
            pending.push_back({points[j] - m_offsets[k], n, source});
            p->count += n;
            m_count += n;
            for (int e = k + 1; e < m_offsets.size(); ++e)
                m_offsets[e] += n;
            if (p->count >= m_partitionSize) {
                materialize();
                split(k);
            }
        }
        materialize();
    }

    // Removes the i-th element; an i out of range changes nothing.
    void removeAt(int i)
    {
        [[maybe_unused]] const Checked checked{this};
        ++m_changes;
        int k = entryContaining(i);
        if (k < 0)
            return;
        Partition *p = m_partitions[k];
        T *at = p->first + (i - m_offsets[k]);
        at->~T();
        std::memmove(static_cast<void *>(at), at + 1, static_cast<size_t>(p->last - at - 1) * sizeof(T));
        --p->last;
        --p->count;
        --m_count;
        if (p->count == 0) {
            destroyPartition(p, false);
            m_partitions.remove(k);
            rebuildOffsets();
            return;
        }
        bool merged = false;
        Partition *next = m_partitions[k + 1];
        if (next && p->count + next->count < m_mergeThreshold) {
            moveAllInto(p, next);
            m_partitions.remove(k + 1);
            merged = true;
        }
        Partition *previous = k > 1 ? m_partitions[k - 1] : nullptr;
        if (previous && previous->count + p->count < m_mergeThreshold) {
            moveAllInto(previous, p);
            m_partitions.remove(k);
            merged = true;
        }
        if (merged) {
            rebuildOffsets();
        } else {
            for (int j = k + 1; j < m_offsets.size(); ++j)
                --m_offsets[j];
        }
    }

    // Position of the first element equal to `value`, scanning from the
    // front; -1 if none.
    int indexOf(const T &value) const
    {
        for (int k = 1; k + 1 < m_partitions.size(); ++k) {
            const Partition *p = m_partitions[k];
            for (const T *e = p->first; e != p->last; ++e) {
                if (*e == value)
                    return m_offsets[k] + static_cast<int>(e - p->first);
            }
        }
        return -1;
    }

    void clear()
    {
        ++m_changes;
        for (int k = 1; k + 1 < m_partitions.size(); ++k)
            destroyPartition(m_partitions[k], true);
        m_partitions = {nullptr, nullptr};
        m_offsets = {0, 0};
        m_count = 0;
    }

    // Deletes the elements in `ranges` (half-open, sorted, disjoint) in one
    // pass over the partitions, then compacts in one forward pass: empty
    // partitions go, and each partition absorbs the following ones while
    // their counts together stay below the merge threshold. The compaction
    // runs even when there is nothing to delete.
    void removeRanges(const QVector<QPair<int, int>> &ranges)
    {
        [[maybe_unused]] const Checked checked{this};
        ++m_changes;
        int r = 0;
        for (int k = 1; k + 1 < m_partitions.size() && r < ranges.size(); ++k) {
            Partition *p = m_partitions[k];
            const int start = m_offsets[k];
            const int stop = start + p->count;
            T *write = p->first;
            T *read = p->first;
            while (r < ranges.size() && ranges[r].first < stop) {
                const int from = std::max(ranges[r].first, start) - start;
                const int to = std::min(ranges[r].second, stop) - start;
                if (to > from) {
                    const int keep = static_cast<int>(p->first + from - read);
                    std::memmove(static_cast<void *>(write), read, static_cast<size_t>(keep) * sizeof(T));
                    write += keep;
                    for (T *e = p->first + from; e != p->first + to; ++e)
                        e->~T();
                    read = p->first + to;
                }
                if (ranges[r].second > stop)
                    break; // the range goes on into the next partition
                ++r;
            }
            if (write != read) {
                const int keep = static_cast<int>(p->last - read);
                std::memmove(static_cast<void *>(write), read, static_cast<size_t>(keep) * sizeof(T));
                write += keep;
                const int removed = static_cast<int>(p->last - write);
                p->last = write;
                p->count -= removed;
                m_count -= removed;
            }
        }

        int k = 1;
        while (k + 1 < m_partitions.size()) {
            Partition *p = m_partitions[k];
            if (p->count == 0) {
                destroyPartition(p, false);
                m_partitions.remove(k);
                continue;
            }
            while (m_partitions[k + 1] && p->count + m_partitions[k + 1]->count < m_mergeThreshold) {
                moveAllInto(p, m_partitions[k + 1]);
                m_partitions.remove(k + 1);
            }
            ++k;
        }
        rebuildOffsets();
    }

private:
    template <typename>
    friend struct PartitionListProbe; // the tests' way to break a layout

    // In builds with DATABASE_CHECKS, a change ends by checking the layout
    // rules above and aborts naming the first one broken: an index whose
    // partitions disagree with their offsets would answer wrong rows, not
    // crash, long after the change that broke them.
    struct Checked
    {
        const PartitionList *list;
#ifdef DATABASE_CHECKS
        ~Checked() { list->verify(false); }
#endif
    };
    // An append touches the last partition only: checking the rest each time
    // would make filling a table quadratic.
    struct CheckedTail
    {
        const PartitionList *list;
#ifdef DATABASE_CHECKS
        ~CheckedTail() { list->verify(true); }
#endif
    };
    void verify(bool tailOnly) const
    {
        if (const char *broken = brokenRule(tailOnly))
            qFatal("PartitionList: %s", broken);
    }
    // The first layout rule broken, or null.
    const char *brokenRule(bool tailOnly = false) const
    {
        const int entries = m_partitions.size();
        if (entries < 2 || m_partitions.first() || m_partitions.last())
            return "the partition vector lost a null sentinel";
        if (m_offsets.size() != entries)
            return "offsets and partitions differ in number";
        int total = 0;
        for (int k = tailOnly ? std::max(1, entries - 2) : 1; k + 1 < entries; ++k) {
            const Partition *p = m_partitions[k];
            if (!p)
                return "a null partition between the sentinels";
            if (p->count <= 0)
                return "an empty partition";
            if (p->last - p->first != p->count || p->count > p->capacity)
                return "a partition's count disagrees with its elements";
            if (tailOnly)
                total = m_offsets[k];
            else if (m_offsets[k] != total)
                return "a partition's offset is not the count of the elements before it";
            total += p->count;
        }
        if (m_offsets.last() != total || total != m_count)
            return "the partitions' counts do not add up to count()";
        return nullptr;
    }

    static const T &emptyElement()
    {
        static const T empty{};
        return empty;
    }

    // The entry of the partition holding position i (i < its end), or -1.
    int entryContaining(int i) const
    {
        if (i < 0 || i >= m_count)
            return -1;
        const int *begin = m_offsets.constData() + 2;
        const int *found = std::upper_bound(begin, m_offsets.constData() + m_offsets.size(), i);
        return static_cast<int>(found - m_offsets.constData()) - 1;
    }

    // The entry where an insertion at i goes: a boundary position belongs to
    // the earlier partition. The end sentinel for an empty list; -1 when i is
    // out of range.
    int entryForInsert(int i) const
    {
        if (i < 0 || i > m_count)
            return -1;
        if (m_count == 0)
            return 1;
        const int *begin = m_offsets.constData() + 2;
        const int *found = std::lower_bound(begin, m_offsets.constData() + m_offsets.size(), i);
        return static_cast<int>(found - m_offsets.constData()) - 1;
    }

    // Makes room for n elements at i and lets `construct` build them there.
    template <typename Construct>
    void insertBlock(int i, int n, Construct construct)
    {
        [[maybe_unused]] const Checked checked{this};
        ++m_changes;
        int k = entryForInsert(i);
        if (k < 0)
            return;
        if (!m_partitions[k]) {
            m_partitions.insert(k, newPartition(std::max(m_partitionSize + 2, n)));
            m_offsets.insert(k, m_count);
        }
        Partition *p = m_partitions[k];
        const int offset = i - m_offsets[k];
        reserve(p, p->count + n);
        T *at = p->first + offset;
        std::memmove(static_cast<void *>(at + n), at, static_cast<size_t>(p->count - offset) * sizeof(T));
        construct(at);
        p->last += n;
        p->count += n;
        m_count += n;
        if (p->count >= m_partitionSize) {
            split(k);
        } else {
            for (int j = k + 1; j < m_offsets.size(); ++j)
                m_offsets[j] += n;
        }
    }

    // Halves the partition at entry k: a new partition right after it takes
    // the elements from count / 2 on.
    void split(int k)
    {
        Partition *p = m_partitions[k];
        const int keep = p->count / 2;
        const int moved = p->count - keep;
        Partition *second = newPartition(std::max(m_partitionSize + 2, moved));
        std::memcpy(static_cast<void *>(second->first), p->first + keep, static_cast<size_t>(moved) * sizeof(T));
        second->last = second->first + moved;
        second->count = moved;
        p->last = p->first + keep;
        p->count = keep;
        // A partition that a large block had grown gives back what it no
        // longer needs (never below the usual reserve).
        const int reserveSize = std::max(m_partitionSize + 2, keep);
        if (p->capacity > reserveSize + reserveSize / 8) {
            T *storage = static_cast<T *>(qReallocAligned(p->first, static_cast<size_t>(reserveSize) * sizeof(T),
                                                          static_cast<size_t>(p->capacity) * sizeof(T), alignof(T)));
            if (storage) {
                p->first = storage;
                p->last = storage + keep;
                p->capacity = reserveSize;
            }
        }
        m_partitions.insert(k + 1, second);
        rebuildOffsets();
    }

    // One partition's share of replace(): the ranges from ranges[firstRange]
    // on that fall in partition k go, then its blocks come in, merged with
    // what stays into `scratch` (room for the result, scratchCapacity
    // elements), which then trades places with the partition's storage when
    // their capacities agree, else is copied back.
    template <typename Placed>
    void rewrite(int k, const QVector<QPair<int, int>> &ranges, int firstRange, const Placed *blocks, int blockCount,
                 T *&scratch, int scratchCapacity)
    {
        Partition *p = m_partitions[k];
        const int start = m_offsets[k];
        const int stop = start + p->count;
        // The local range [from, to) of ranges[r], or false past the partition.
        auto rangeAt = [&](int r, int &from, int &to) {
            if (r >= ranges.size() || ranges[r].first >= stop)
                return false;
            from = std::max(ranges[r].first, start) - start;
            to = std::min(ranges[r].second, stop) - start;
            return true;
        };
        // What goes is let go of first: the rest only moves bytes.
        int removed = 0;
        int from = 0;
        int to = 0;
        for (int r = firstRange; rangeAt(r, from, to); ++r) {
            for (T *e = p->first + from; e != p->first + to; ++e)
                e->~T();
            removed += to - from;
        }
        if (blockCount == 0) {
            T *write = p->first;
            const T *read = p->first;
            for (int r = firstRange; rangeAt(r, from, to); ++r) {
                const auto keep = static_cast<size_t>(p->first + from - read);
                std::memmove(static_cast<void *>(write), read, keep * sizeof(T));
                write += keep;
                read = p->first + to;
            }
            std::memmove(static_cast<void *>(write), read, static_cast<size_t>(p->last - read) * sizeof(T));
            p->count -= removed;
            p->last = p->first + p->count;
            return;
        }
        T *out = scratch;
        int at = 0; // the next element of the partition to look at
        int r = firstRange;
        // Copies the next m elements that stay.
        auto stay = [&](int m) {
            while (m > 0) {
                int end = p->count;
                if (rangeAt(r, from, to)) {
                    if (at >= from) {
                        at = to;
                        ++r;
                        continue;
                    }
                    end = from;
                }
                const int take = std::min(m, end - at);
                if (take <= 0)
                    break;
                std::memcpy(static_cast<void *>(out), p->first + at, static_cast<size_t>(take) * sizeof(T));
                out += take;
                at += take;
                m -= take;
            }
        };
        int stayed = 0;
        int before = 0; // elements of the earlier blocks
        for (int b = 0; b < blockCount; ++b) {
            const int stays = blocks[b].offset - before;
            stay(stays - stayed);
            stayed = stays;
            for (int e = 0; e < blocks[b].n; ++e)
                new (out++) T(blocks[b].source[e]);
            before += blocks[b].n;
        }
        stay(p->count - removed - stayed);
        const int count = static_cast<int>(out - scratch);
        if (count <= p->capacity && p->capacity == scratchCapacity) {
            // The written copy becomes the partition; its old storage, the
            // scratch of the next one.
            std::swap(p->first, scratch);
            p->count = count;
            p->last = p->first + count;
            return;
        }
        if (count > p->capacity) {
            // As insertBlocks grows a partition: to the count, no more.
            T *storage = static_cast<T *>(qMallocAligned(static_cast<size_t>(count) * sizeof(T), alignof(T)));
            Q_CHECK_PTR(storage);
            qFreeAligned(p->first);
            p->first = storage;
            p->capacity = count;
        }
        std::memcpy(static_cast<void *>(p->first), scratch, static_cast<size_t>(count) * sizeof(T));
        p->count = count;
        p->last = p->first + count;
    }

    // Moves every element of `from` to the end of `to` and destroys `from`.
    void moveAllInto(Partition *to, Partition *from)
    {
        reserve(to, to->count + from->count);
        std::memcpy(static_cast<void *>(to->last), from->first, static_cast<size_t>(from->count) * sizeof(T));
        to->last += from->count;
        to->count += from->count;
        destroyPartition(from, false);
    }

    Partition *newPartition(int capacity)
    {
        Partition *p = new Partition;
        p->first = static_cast<T *>(qMallocAligned(static_cast<size_t>(capacity) * sizeof(T), alignof(T)));
        Q_CHECK_PTR(p->first);
        p->last = p->first;
        p->count = 0;
        p->capacity = capacity;
        return p;
    }

    static void destroyPartition(Partition *p, bool destroyElements)
    {
        if (destroyElements) {
            for (T *e = p->first; e != p->last; ++e)
                e->~T();
        }
        qFreeAligned(p->first);
        delete p;
    }

    // The last partition, or a new one after it when it is full (appends
    // fill a partition to one below the size).
    Partition *tailWithRoom()
    {
        const int lastEntry = m_partitions.size() - 2;
        Partition *p = m_partitions[lastEntry];
        if (!p || p->count + 1 >= m_partitionSize) {
            p = newPartition(m_partitionSize + 2);
            m_partitions.insert(lastEntry + 1, p);
            m_offsets.insert(lastEntry + 1, m_count);
        }
        return p;
    }

    static void reserve(Partition *p, int needed)
    {
        if (needed <= p->capacity)
            return;
        const int capacity = std::max(needed, p->capacity + p->capacity / 2);
        T *storage = static_cast<T *>(qReallocAligned(p->first, static_cast<size_t>(capacity) * sizeof(T),
                                                      static_cast<size_t>(p->capacity) * sizeof(T), alignof(T)));
        Q_CHECK_PTR(storage);
        p->first = storage;
        p->last = storage + p->count;
        p->capacity = capacity;
    }

    void rebuildOffsets()
    {
        m_offsets.resize(m_partitions.size());
        int total = 0;
        m_offsets[0] = 0;
        for (int k = 1; k < m_partitions.size(); ++k) {
            m_offsets[k] = total;
            if (m_partitions[k])
                total += m_partitions[k]->count;
        }
    }

    int m_count;
    // Bumped by every call that may change the elements (see changes()).
    quint64 m_changes = 0;
    int m_partitionSize;
    int m_mergeThreshold;
    QVector<Partition *> m_partitions;
    // m_offsets[k]: the number of elements before entry k of m_partitions.
    QVector<int> m_offsets;
    std::unique_ptr<EditRecord> m_edit; // the last replace(), from the first one on
};

#endif // DATABASE_PARTITIONLIST_H
