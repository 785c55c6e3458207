// The sorted index's batch engine on plain values: elements are handles to
// rows of an integer key, as records are, so a key changed in the row is
// seen through every handle. Each batch is checked against what it must
// give, worked out here from the batch alone: the survivors and newcomers,
// in order, the untouched ones in their old order, newcomers after the
// equal keys already there and in arrival order.

#include <database/sortbatch_p.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

struct Row
{
    int key;
    bool accepted = true;
};

struct Item
{
    Row *row;
    const unsigned char *rowPtr() const { return reinterpret_cast<const unsigned char *>(row); }
    bool operator==(const Item &o) const { return row == o.row; }
};

struct ByKey
{
    int compare(const Item &a, const Item &b) const { return a.row->key < b.row->key ? -1 : a.row->key > b.row->key; }
    bool accepts(const Item &item) const { return item.row->accepted; }
    void sort(std::vector<Item> &items) const
    {
        std::stable_sort(items.begin(), items.end(),
                         [this](const Item &a, const Item &b) { return compare(a, b) < 0; });
    }
};

using List = PartitionList<Item>;

std::vector<Item> itemsOf(const List &list)
{
    return std::vector<Item>(list.begin(), list.end());
}

// Fills `list` with `n` rows in order, keys below `keys`, rows kept in `rows`.
void fillSorted(List &list, std::deque<Row> &rows, int n, int keys, std::mt19937 &random)
{
    std::vector<Item> items;
    for (int i = 0; i < n; ++i) {
        rows.push_back({static_cast<int>(random() % static_cast<unsigned>(keys))});
        items.push_back({&rows.back()});
    }
    ByKey().sort(items);
    for (const Item &item : items)
        list.append(item);
}

TEST(SortBatch, LocateFindsEveryRowWhereverItStands)
{
    std::mt19937 random(7);
    // Few keys put rows deeper than a scan of their run reaches; small
    // batches search, large ones make one pass; some rows have a key changed
    // since they were placed, some are not in the list at all.
    // A list of 300,000 makes the pass long enough to be cut among threads.
    for (const int n : {4000, 300000}) {
    for (const int keys : {3, 1000}) {
        for (const int batch : {4, 60, 3000}) {
            std::deque<Row> rows;
            List list;
            fillSorted(list, rows, n, keys, random);
            std::deque<Row> strangers(5);
            std::vector<Item> all = itemsOf(list);
            std::vector<const Item *> asked;
            for (int b = 0; b < batch; ++b) {
                Item &item = all[random() % all.size()];
                if (b % 7 == 0)
                    item.row->key = static_cast<int>(random() % static_cast<unsigned>(keys));
                asked.push_back(&item);
            }
            Item stranger{&strangers[0]};
            asked.push_back(&stranger);
            const sortbatch::Positions positions = sortbatch::locate(ByKey(), list, asked);
            ASSERT_TRUE(std::is_sorted(positions.begin(), positions.end()));
            std::unordered_map<const Row *, int> where;
            for (size_t k = 0; k < all.size(); ++k)
                where[all[k].row] = static_cast<int>(k);
            for (const Item *item : asked) {
                const auto at = where.find(item->row);
                const int expected = at == where.end() ? -1 : at->second;
                ASSERT_EQ(sortbatch::positionOf(positions, *item), expected)
                    << "n " << n << " keys " << keys << " batch " << batch;
            }
        }
    }
    }
}

// A sorted list of 300,000 rows: long enough for its searches and its pass
// to be cut among threads.
struct LongList
{
    explicit LongList(unsigned seed) : random(seed)
    {
        fillSorted(list, rows, 300000, 1000, random);
        all = itemsOf(list);
    }
    // Locates `asked`, each of which is in the list, and checks that each
    // is found where it stands.
    void expectLocated(const std::vector<const Item *> &asked, const std::string &trace) const
    {
        const sortbatch::Positions positions = sortbatch::locate(ByKey(), list, asked);
        for (const Item *item : asked)
            ASSERT_EQ(sortbatch::positionOf(positions, *item), static_cast<int>(item - all.data())) << trace;
    }

    std::mt19937 random;
    std::deque<Row> rows;
    List list;
    std::vector<Item> all;
};

TEST(SortBatch, ManySearchesAreSharedWithThePool)
{
    // Enough records to search on several threads and too few for a pass;
    // then the same with one record moved in the middle, whose miss stops
    // every thread's searches and leaves the rest to the pass.
    LongList l(5);
    for (const bool moveOne : {false, true}) {
        std::vector<const Item *> asked;
        for (int b = 0; b < 700; ++b)
            asked.push_back(&l.all[l.random() % l.all.size()]);
        Row *moved = asked[350]->row;
        const int key = moved->key;
        if (moveOne)
            moved->key = 1000 + key;
        l.expectLocated(asked, "one moved " + std::to_string(moveOne));
        moved->key = key;
    }
}

TEST(SortBatch, ThePassStopsOnlyOnceEveryRowIsFound)
{
    // Every row asked is in the list: the pass may stop early, but not
    // before the last one. Rows near the front, spanning several partitions
    // of the first piece, then rows at both ends, in pieces on two threads.
    LongList l(11);
    for (const int span : {45000, 300000}) {
        std::vector<const Item *> asked;
        for (int b = 0; b < 3000; ++b)
            asked.push_back(&l.all[l.random() % static_cast<unsigned>(span)]);
        if (span == 300000) {
            asked.push_back(&l.all.front());
            asked.push_back(&l.all.back());
        }
        for (const Item *item : asked)
            item->row->key = -item->row->key - 1; // moved: found by the pass only
        l.expectLocated(asked, "span " + std::to_string(span));
        for (const Item *item : asked)
            item->row->key = -item->row->key - 1;
    }
}

// One random batch over a sorted list, checked against its outcome.
void checkBatch(std::mt19937 &random, int n, int keys)
{
    std::deque<Row> rows;
    List list;
    fillSorted(list, rows, n, keys, random);
    const std::vector<Item> before = itemsOf(list);
    std::map<const Row *, int> oldPosition;
    for (size_t i = 0; i < before.size(); ++i)
        oldPosition[before[i].row] = static_cast<int>(i);

    QList<Item> removed, updated, inserted;
    std::set<const Row *> touched;
    std::set<const Row *> unchangedKey; // updated without a change to their key
    const int changes = 1 + static_cast<int>(random() % static_cast<unsigned>(std::max(2, n / 3)));
    for (int c = 0; c < changes && !before.empty(); ++c) {
        const Item item = before[random() % before.size()];
        if (touched.count(item.row))
            continue;
        touched.insert(item.row);
        switch (random() % 4) {
        case 0:
            removed.append(item);
            break;
        case 1:
            item.row->accepted = random() % 4 != 0;
            unchangedKey.insert(item.row);
            updated.append(item);
            break;
        default:
            item.row->key = static_cast<int>(random() % static_cast<unsigned>(keys));
            item.row->accepted = random() % 8 != 0;
            updated.append(item);
        }
    }
    // Rows that come in: new ones, and updated rows that were not listed.
    for (int c = static_cast<int>(random() % 5); c > 0; --c) {
        rows.push_back({static_cast<int>(random() % static_cast<unsigned>(keys)), random() % 6 != 0});
        (random() % 3 ? inserted : updated).append({&rows.back()});
    }

    const quint64 since = list.changes();
    sortbatch::apply(ByKey(), list, removed, updated, inserted);
    const std::vector<Item> after = itemsOf(list);

    // The edit the list keeps takes `before` to `after`; what it says
    // stayed in place is an updated row, in both.
    if (const List::Edit *edit = list.lastEdit(since)) {
        std::vector<Item> followed;
        size_t r = 0, a = 0;
        for (size_t i = 0; i <= before.size(); ++i) {
            while (a < edit->inserted.size() && edit->inserted[a] == static_cast<int>(followed.size()))
                followed.push_back(after[static_cast<size_t>(edit->inserted[a++])]);
            if (i == before.size())
                break;
            if (r < edit->removed.size() && edit->removed[r] == static_cast<int>(i))
                ++r;
            else
                followed.push_back(before[i]);
        }
        ASSERT_EQ(followed, after);
        std::set<const Row *> updatedRows;
        for (const Item &item : updated)
            updatedRows.insert(item.row);
        std::unordered_map<const Row *, int> inAfter;
        for (const Item &item : after)
            ++inAfter[item.row];
        for (const int t : edit->touched) {
            ASSERT_TRUE(updatedRows.count(before[static_cast<size_t>(t)].row));
            ASSERT_EQ(inAfter[before[static_cast<size_t>(t)].row], 1);
        }
    } else {
        ASSERT_GT(removed.size() + updated.size() + inserted.size(), static_cast<size_t>(List::MaxEdit / 2));
    }

    // The survivors and the newcomers, each once.
    std::set<const Row *> gone;
    for (const Item &item : removed)
        gone.insert(item.row);
    for (const Item &item : updated) {
        if (!item.row->accepted)
            gone.insert(item.row);
    }
    std::multiset<const Row *> expected, got;
    for (const Item &item : before) {
        if (!gone.count(item.row))
            expected.insert(item.row);
    }
    for (const Item &item : inserted + updated) {
        if (item.row->accepted && !oldPosition.count(item.row))
            expected.insert(item.row);
    }
    for (const Item &item : after)
        got.insert(item.row);
    ASSERT_EQ(got, expected);

    ASSERT_TRUE(std::is_sorted(after.begin(), after.end(),
                               [](const Item &a, const Item &b) { return ByKey().compare(a, b) < 0; }));

    // Untouched rows keep their order; a newcomer follows the untouched rows
    // of its key, and newcomers of a key keep their arrival order.
    int lastOld = -1;
    std::map<int, int> lastUntouchedAt, firstNewAt;
    std::map<int, int> lastArrival;
    std::map<const Row *, int> arrival;
    for (const Item &item : inserted + updated)
        arrival.emplace(item.row, static_cast<int>(arrival.size()));
    for (size_t i = 0; i < after.size(); ++i) {
        const Row *row = after[i].row;
        if (oldPosition.count(row) && !touched.count(row)) {
            ASSERT_GT(oldPosition[row], lastOld) << "an untouched row moved past another";
            lastOld = oldPosition[row];
            lastUntouchedAt[row->key] = static_cast<int>(i);
        } else if (!oldPosition.count(row)) {
            firstNewAt.emplace(row->key, static_cast<int>(i));
            const int arrived = arrival.at(row);
            ASSERT_GT(arrived, lastArrival.count(row->key) ? lastArrival[row->key] : -1) << "newcomers out of arrival order";
            lastArrival[row->key] = arrived;
        }
    }
    for (const auto &first : firstNewAt) {
        if (lastUntouchedAt.count(first.first)) {
            ASSERT_GT(first.second, lastUntouchedAt[first.first]) << "a newcomer went before an equal key";
        }
    }

    // A row updated without a new key, between two untouched rows, stays
    // between them.
    std::map<const Row *, int> newPosition;
    for (size_t i = 0; i < after.size(); ++i)
        newPosition[after[i].row] = static_cast<int>(i);
    for (const Row *row : unchangedKey) {
        const int p = oldPosition[row];
        if (!row->accepted || p == 0 || p + 1 >= n || touched.count(before[p - 1].row) || touched.count(before[p + 1].row))
            continue;
        const auto at = [&](const Row *r) { return newPosition.at(r); };
        ASSERT_GT(at(row), at(before[p - 1].row)) << "a row still in order was moved";
        ASSERT_LT(at(row), at(before[p + 1].row)) << "a row still in order was moved";
    }
}

TEST(SortBatch, RandomBatchesGiveTheirOutcome)
{
    std::mt19937 random(20261123);
    // Sizes across a partition's capacity, keys from all equal to all
    // distinct.
    for (int round = 0; round < 400; ++round) {
        const int n = static_cast<int>(random() % (round % 20 == 0 ? 30000 : 300));
        const int keys = 1 + static_cast<int>(random() % (round % 3 == 0 ? 4 : 1000));
        SCOPED_TRACE(testing::Message() << "round " << round << " n " << n << " keys " << keys);
        checkBatch(random, n, keys);
        if (HasFatalFailure())
            return;
    }
}

// A batch over a list long enough to be cut among threads: its partitions'
// rewrites shared with the pool, its additions' searches too.
TEST(SortBatch, ALargeBatchIsSharedWithThePool)
{
    std::mt19937 random(20261125);
    for (const int keys : {1000, 1 << 30}) {
        checkBatch(random, 300000, keys);
        if (HasFatalFailure())
            return;
    }
}

// A row checked against a neighbour that moves away is checked again
// against the next one that stays: keys 1 2 3 5, with the 2 raised to 7
// and the 3 to 10. The 7 fits before the 10 but not before the 5.
TEST(SortBatch, AStayingRowIsCheckedAgainstTheNeighboursThatStay)
{
    std::deque<Row> rows{{1}, {2}, {3}, {5}};
    List list;
    for (Row &row : rows)
        list.append({&row});
    rows[1].key = 7;
    rows[2].key = 10;
    sortbatch::apply(ByKey(), list, QList<Item>(), QList<Item>{{&rows[1]}, {&rows[2]}}, QList<Item>());
    EXPECT_EQ(itemsOf(list), (std::vector<Item>{{&rows[0]}, {&rows[3]}, {&rows[1]}, {&rows[2]}}));
}

} // namespace
