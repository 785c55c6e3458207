#include "testutil.h"

#include <database/indexlist.h>
#include <database/partitionlist.h>
#include <database/table.h>

#include <QtCore/QRandomGenerator>

#include <gtest/gtest.h>

#include <vector>

namespace {

using Counts = QVector<int>;

void appendN(PartitionList<int> &list, int n, int from = 0)
{
    for (int i = 0; i < n; ++i)
        list.append(from + i);
}

std::vector<int> contents(const PartitionList<int> &list)
{
    return std::vector<int>(list.begin(), list.end());
}

} // namespace

// Reaches into a list to break its layout the way a faulty change would.
template <typename T>
struct PartitionListProbe
{
    static const char *brokenRule(const PartitionList<T> &list) { return list.brokenRule(); }
    static int &count(PartitionList<T> &list, int partition) { return list.m_partitions[partition + 1]->count; }
    static int &offset(PartitionList<T> &list, int partition) { return list.m_offsets[partition + 1]; }
};
using Probe = PartitionListProbe<int>;

// Each rule of the layout is checked, and in builds with run-time checks a
// change that leaves one broken stops the program, naming it.
TEST(PartitionList, ABrokenLayoutIsNamed)
{
    PartitionList<int> list(4);
    appendN(list, 9); // 3 + 3 + 3
    ASSERT_EQ(Probe::brokenRule(list), nullptr);
    Probe::offset(list, 2) = 5;
    EXPECT_STREQ(Probe::brokenRule(list), "a partition's offset is not the count of the elements before it");
    Probe::offset(list, 2) = 6;
    Probe::count(list, 1) = 0;
    EXPECT_STREQ(Probe::brokenRule(list), "an empty partition");
    Probe::count(list, 1) = 2;
    EXPECT_STREQ(Probe::brokenRule(list), "a partition's count disagrees with its elements");
    Probe::count(list, 1) = 3;
    ASSERT_EQ(Probe::brokenRule(list), nullptr);
#ifdef DATABASE_CHECKS
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            Probe::offset(list, 1) = 2;
            list.removeAt(0);
        },
        "PartitionList: a partition's offset is not the count");
    EXPECT_DEATH(
        {
            list.removeAt(8); // 3 + 3 + 2: the next append goes into the last partition
            Probe::offset(list, 2) = 7;
            list.append(9); // checks that partition only
        },
        "PartitionList: the partitions' counts do not add up");
#endif
}

TEST(PartitionList, AppendsFillPartitionsToOneBelowTheSize)
{
    PartitionList<int> list;
    appendN(list, 10000);
    EXPECT_EQ(list.partitionCounts(), Counts({9999, 1}));
    EXPECT_EQ(list.count(), 10000);
    EXPECT_EQ(list.at(9999), 9999);
}

// Relocated blocks, into an empty list or after appends, across partition
// ends and exactly onto them: the layout and contents of one append each.
TEST(PartitionList, RelocatedBlocksLayOutAsAppendsDo)
{
    for (const int before : {0, 3, 9}) {
        PartitionList<int> appended(10);
        PartitionList<int> relocated(10);
        appendN(appended, before);
        appendN(relocated, before);
        int next = before;
        for (const int n : {1, 5, 9, 0, 20, 4}) {
            std::vector<int> block(static_cast<size_t>(n));
            for (int &value : block)
                value = next++;
            relocated.appendRelocated(block.data(), n);
            appendN(appended, n, next - n);
            EXPECT_EQ(relocated.partitionCounts(), appended.partitionCounts()) << before << " then " << n;
            EXPECT_EQ(Probe::brokenRule(relocated), nullptr);
        }
        EXPECT_EQ(contents(relocated), contents(appended));
        EXPECT_EQ(relocated.at(relocated.count() - 1), next - 1);
    }
}

TEST(PartitionList, InsertSplitsAFullPartitionInHalves)
{
    PartitionList<int> list;
    appendN(list, 9999);
    list.insert(5, -1);
    EXPECT_EQ(list.partitionCounts(), Counts({5000, 5000}));
    EXPECT_EQ(list.at(5), -1);
    EXPECT_EQ(list.at(6), 5);
    EXPECT_EQ(list.at(9999), 9998);
}

TEST(PartitionList, BoundaryInsertsGoToTheEarlierPartition)
{
    PartitionList<int> list(10);
    list.insert(0, 1); // empty list: first partition
    EXPECT_EQ(list.partitionCounts(), Counts({1}));
    appendN(list, 9, 2); // 9 fill the first, the 10th opens a second
    EXPECT_EQ(list.partitionCounts(), Counts({9, 1}));
    list.insert(9, 100); // boundary: end of the first, which reaches 10 and splits
    EXPECT_EQ(list.partitionCounts(), Counts({5, 5, 1}));
    list.insert(list.count(), 200); // appends to the last partition
    EXPECT_EQ(list.partitionCounts(), Counts({5, 5, 2}));
    EXPECT_EQ(contents(list), std::vector<int>({1, 2, 3, 4, 5, 6, 7, 8, 9, 100, 10, 200}));

    list.insert(list.count() + 1, 7); // out of range: nothing
    list.insert(-1, 7);
    EXPECT_EQ(list.count(), 12);
}

TEST(PartitionList, BlockInsertSplitsOnlyOnce)
{
    PartitionList<int> list(10);
    appendN(list, 3);
    QList<int> block;
    for (int i = 0; i < 25; ++i)
        block.append(100 + i);
    list.insert(1, block);
    EXPECT_EQ(list.partitionCounts(), Counts({14, 14}));
    EXPECT_EQ(list.at(0), 0);
    EXPECT_EQ(list.at(1), 100);
    EXPECT_EQ(list.at(26), 1);
    // A single insertion into an oversized partition splits it again.
    list.insert(20, -5);
    EXPECT_EQ(list.partitionCounts(), Counts({14, 7, 8}));

    PartitionList<int> empty(10);
    empty.insert(0, QList<int>({1, 2, 3}));
    EXPECT_EQ(empty.partitionCounts(), Counts({3}));
}

TEST(PartitionList, RemovalMergesNeighboursBelowHalfTheSize)
{
    PartitionList<int> list;
    appendN(list, 9999);
    list.insert(2600, -1); // splits into 5000 and 5000
    ASSERT_EQ(list.partitionCounts(), Counts({5000, 5000}));
    for (int i = 0; i < 2400; ++i)
        list.removeAt(0);
    for (int i = 0; i < 2599; ++i)
        list.removeAt(list.count() - 1);
    EXPECT_EQ(list.partitionCounts(), Counts({2600, 2401}));
    list.removeAt(list.count() - 1); // 2600 + 2400 is not below 5000
    EXPECT_EQ(list.partitionCounts(), Counts({2600, 2400}));
    list.removeAt(0); // 2599 + 2400 is: the next partition is merged in
    EXPECT_EQ(list.partitionCounts(), Counts({4999}));

    PartitionList<int> three(10);
    appendN(three, 27); // 9, 9, 9
    for (int i = 0; i < 6; ++i)
        three.removeAt(9); // 9 + 3 is not below 5: no merge
    EXPECT_EQ(three.partitionCounts(), Counts({9, 3, 9}));
    three.removeAt(9);
    three.removeAt(9); // middle holds 1: 1 + 9 not below 5 either way
    three.removeAt(9); // middle empty: removed
    EXPECT_EQ(three.partitionCounts(), Counts({9, 9}));
}

TEST(PartitionList, OutOfRangeAccessIsHarmless)
{
    PartitionList<Record> records;
    EXPECT_TRUE(records.at(0).isNull());
    EXPECT_TRUE(records.at(-1).isNull());
    records.removeAt(0);
    PartitionList<int> list;
    appendN(list, 3);
    EXPECT_EQ(list.at(3), 0);
    list.removeAt(3);
    list.removeAt(-1);
    EXPECT_EQ(contents(list), std::vector<int>({0, 1, 2}));
}

TEST(PartitionList, IteratorArithmeticAcrossPartitions)
{
    PartitionList<int> list(10);
    appendN(list, 40);
    auto it = list.begin();
    it += 17;
    EXPECT_EQ(*it, 17);
    EXPECT_EQ(it.position(), 17);
    it -= 9;
    EXPECT_EQ(*it, 8);
    EXPECT_EQ((it + 30) - it, 30);
    EXPECT_EQ(list.end() - list.begin(), 40);
    EXPECT_EQ(*(list.end() - 1), 39);
    auto back = list.end();
    --back;
    EXPECT_EQ(*back, 39);
    EXPECT_TRUE(list.begin() + 40 == list.end());
    EXPECT_EQ(list.iteratorAt(40), list.end());
    EXPECT_EQ(*list.iteratorAt(26), 26);
    int expected = 0;
    for (const int value : list)
        EXPECT_EQ(value, expected++);
    PartitionList<int> empty;
    EXPECT_TRUE(empty.begin() == empty.end());
}

// A pass cut into pieces sees each element of its range once, in order,
// with its position, across partitions of every fill (some emptied by
// removals) and ranges that start or end anywhere, or fall outside.
TEST(PartitionList, SegmentsOfARangeCoverItExactly)
{
    PartitionList<int> list(8);
    appendN(list, 60);
    list.insert(3, 1000);
    list.insert(30, 1001);
    for (int k = 0; k < 6; ++k)
        list.removeAt(40);
    const std::vector<int> all = contents(list);
    const int n = static_cast<int>(all.size());
    for (int from = -2; from <= n + 1; ++from) {
        for (int to = from - 1; to <= n + 2; ++to) {
            std::vector<int> seen;
            int expectedStart = std::max(from, 0);
            list.forEachSegmentIn(from, to, [&](const int *first, int count, int start) {
                ASSERT_GT(count, 0);
                ASSERT_EQ(start, expectedStart);
                seen.insert(seen.end(), first, first + count);
                expectedStart += count;
            });
            const int lo = std::max(from, 0);
            const int hi = std::min(to, n);
            const std::vector<int> expected =
                lo < hi && from >= 0 ? std::vector<int>(all.begin() + lo, all.begin() + hi) : std::vector<int>();
            ASSERT_EQ(seen, expected) << from << ".." << to;
        }
    }
}

TEST(PartitionList, RemoveRangesCompactsForwardOnly)
{
    PartitionList<int> list(10);
    appendN(list, 27); // 9, 9, 9
    list.removeRanges({qMakePair(1, 8), qMakePair(10, 12), qMakePair(17, 20)});
    // 2, 6 and 7 elements remain: no two neighbours together are below 5.
    EXPECT_EQ(list.partitionCounts(), Counts({2, 6, 7}));
    EXPECT_EQ(contents(list), std::vector<int>({0, 8, 9, 12, 13, 14, 15, 16, 20, 21, 22, 23, 24, 25, 26}));
    list.removeRanges({qMakePair(2, 6)}); // 2 + 2 merge; 4 + 7 do not
    EXPECT_EQ(list.partitionCounts(), Counts({4, 7}));
    list.removeRanges({qMakePair(0, 11)});
    EXPECT_TRUE(list.partitionCounts().isEmpty());
    EXPECT_EQ(list.count(), 0);
}

namespace {

// Runs its jobs in two pieces, the later one first: a replace() whose
// partitions' work depended on each other's order would come out wrong.
struct BackwardRunner
{
    template <typename Body>
    void operator()(int jobs, long long, const Body &body) const
    {
        body(jobs / 2, jobs);
        body(0, jobs / 2);
    }
};

} // namespace

// replace() is removeRanges() then insertBlocks(): the same elements, layout
// and capacities, through partitions that empty, merge and split, blocks at
// partition boundaries, at the ends, empty or past the end, and calls it
// hands to the two (a block that goes back, or inside the one before it).
// The edit it reports takes the old elements to the new ones.
TEST(PartitionList, ReplaceIsRemoveRangesThenInsertBlocks)
{
    QRandomGenerator random(20261125);
    int edits = 0;
    for (const int size : {4, 6, 10, 16}) {
        PartitionList<QString> fast(size);
        PartitionList<QString> plain(size);
        int next = 0;
        for (int i = 0; i < 5 * size; ++i) {
            fast.append(QString::number(next));
            plain.append(QString::number(next++));
        }
        for (int step = 0; step < 400; ++step) {
            const int n = fast.count();
            QVector<QPair<int, int>> ranges;
            for (int at = random.bounded(4); at < n && ranges.size() < 6; at += 1 + random.bounded(size * 2)) {
                const int to = std::min(n, at + 1 + random.bounded(random.bounded(8) == 0 ? size * 2 : 3));
                ranges.append(qMakePair(at, to));
                at = to;
            }
            int left = n;
            for (const auto &r : ranges)
                left -= r.second - r.first;
            // Fewer rows in than out while the list is long, and the other way.
            const int blocks = random.bounded(n > 12 * size ? 3 : 7);
            std::vector<int> points;
            std::vector<int> sizes;
            std::vector<QString> elements;
            int point = random.bounded(3);
            for (int b = 0; b < blocks; ++b) {
                const int count = random.bounded(b == 0 && random.bounded(4) == 0 ? 2 * size : 5);
                if (b > 0 && points.back() > 0 && random.bounded(20) == 0)
                    point = points.back() + random.bounded(-1, std::max(0, sizes.back() - 1)); // back, or inside
                else if (random.bounded(40) == 0)
                    point = left + 1 + random.bounded(3); // past the end
                points.push_back(point);
                sizes.push_back(count);
                for (int e = 0; e < count; ++e)
                    elements.push_back(QStringLiteral("new %1").arg(next++));
                if (point >= 0 && point <= left)
                    left += count;
                point = std::max(0, point) + count + random.bounded(std::max(1, size));
                point = std::min(point, left);
            }
            const std::vector<QString> before(fast.begin(), fast.end());
            const quint64 since = fast.changes();
            fast.replace(ranges, points.data(), sizes.data(), blocks, elements.data(), BackwardRunner());
            // The edit it reports takes the old elements to the new ones.
            if (const auto *edit = fast.lastEdit(since)) {
                ++edits;
                std::vector<QString> followed;
                size_t removed = 0;
                size_t inserted = 0;
                for (size_t i = 0; i < before.size() || inserted < edit->inserted.size();) {
                    if (inserted < edit->inserted.size() && edit->inserted[inserted] == int(followed.size())) {
                        followed.push_back(fast.at(edit->inserted[inserted++]));
                    } else if (removed < edit->removed.size() && edit->removed[removed] == int(i)) {
                        ++removed;
                        ++i;
                    } else {
                        ASSERT_LT(i, before.size());
                        followed.push_back(before[i++]);
                    }
                }
                ASSERT_EQ(removed, edit->removed.size());
                ASSERT_TRUE(std::equal(followed.begin(), followed.end(), fast.begin(), fast.end()))
                    << "size " << size << ", step " << step;
            }
            plain.removeRanges(ranges);
            plain.insertBlocks(points.data(), sizes.data(), blocks, elements.data());
            ASSERT_EQ(fast.partitionCounts(), plain.partitionCounts()) << "size " << size << ", step " << step;
            ASSERT_EQ(fast.capacity(), plain.capacity()) << "size " << size << ", step " << step;
            ASSERT_TRUE(std::equal(fast.begin(), fast.end(), plain.begin(), plain.end()))
                << "size " << size << ", step " << step;
        }
        // Any later change ends what the edit describes.
        const quint64 since = fast.changes();
        fast.replace({}, nullptr, nullptr, 0, nullptr);
        EXPECT_NE(fast.lastEdit(since), nullptr);
        fast.append(QStringLiteral("later"));
        EXPECT_EQ(fast.lastEdit(since), nullptr);
    }
    EXPECT_GT(edits, 1000); // most calls are followed
}

namespace {

class MoveTest : public ::testing::Test
{
protected:
    MoveTest() : table(QStringLiteral("letters"))
    {
        table.addColumn(QStringLiteral("letter"), FieldType::Integer);
        for (char c = 'a'; c <= 'f'; ++c) {
            Record record(&table);
            FieldType::setInt(record.data(0).data(), c);
            record.data(0).clearNull();
            index.add(record);
        }
    }

    std::string letters() const
    {
        std::string text;
        for (const Record &record : index)
            text += static_cast<char>(record.data(0).asInteger());
        return text;
    }

    Table table;
    IndexList index{&table, true};
};

} // namespace

TEST_F(MoveTest, TargetCountsAfterTheBlockIsTakenOut)
{
    index.move(2, 4, 0);
    EXPECT_EQ(letters(), "cdeabf");
}

TEST_F(MoveTest, MovesForward)
{
    index.move(0, 1, 2);
    EXPECT_EQ(letters(), "cdabef");
}

TEST_F(MoveTest, NoOpCases)
{
    index.move(2, 4, 2);
    index.move(2, 4, 4);
    EXPECT_EQ(letters(), "abcdef");
    index.move(4, 10, 99); // past the end: only what exists moves, appended
    EXPECT_EQ(letters(), "abcdef");
    index.move(0, 0, 99);
    EXPECT_EQ(letters(), "bcdefa");
}
