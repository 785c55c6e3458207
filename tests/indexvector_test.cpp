#include <database/indexvector.h>
#include <database/masterindex.h>

#include "tablefixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace {

// A vector index over integer column 0; ids are in column 1.
class IntVector : public IndexVector
{
public:
    using IndexVector::IndexVector;
    int compare(const Record &a, const Record &b) const override
    {
        return getInt(a, 0) < getInt(b, 0) ? -1 : (getInt(a, 0) > getInt(b, 0) ? 1 : 0);
    }
    std::vector<int> ids() const
    {
        std::vector<int> result;
        for (int i = 0; i < count(); ++i)
            result.push_back(getInt(get(i), 1));
        return result;
    }
};

class VectorTest : public ::testing::Test
{
protected:
    void SetUp() override { addKeyIdColumns(table); }
    Record append(int key, int id) { return appendRow(table, {key, id}); }

    Table table{QStringLiteral("t")};
};

TEST_F(VectorTest, AddsAfterEqualKeysSearchesAndRemovesByRow)
{
    IntVector index(&table);
    EXPECT_EQ(table.indexes(), QList<Index *>({&index}));
    append(3, 1);
    const Record a1 = append(1, 2);
    append(2, 3);
    const Record a2 = append(1, 4);
    EXPECT_EQ(index.ids(), std::vector<int>({2, 4, 3, 1}));

    EXPECT_EQ(index.search(a2, -1), 0); // by key: the first equal element
    EXPECT_EQ(index.search(a2, 0), 1);
    EXPECT_EQ(index.search(a2, index.count() - 1), -1);
    EXPECT_TRUE(index.contains(makeRow(table, {2, 99}))); // a key, not a row
    EXPECT_FALSE(index.contains(makeRow(table, {7, 99})));
    EXPECT_TRUE(index.get(index.count()).isNull());
    EXPECT_TRUE(index.get(-1).isNull());
    EXPECT_EQ(index.indexOf(a1), -1);

    index.remove(a2, 0); // the position is not trusted: the row decides
    EXPECT_EQ(index.ids(), std::vector<int>({2, 3, 1}));
    index.clear();
    index.build();
    EXPECT_EQ(index.ids(), std::vector<int>({2, 4, 3, 1}));
}

TEST_F(VectorTest, ResortIsAStableSortThroughTheSharedIndex)
{
    IntVector index(&table);
    std::mt19937 random(7);
    std::vector<Record> rows;
    for (int id = 0; id < 300; ++id)
        rows.push_back(append(static_cast<int>(random() % 10), id));
    // Keys changed behind the index's back, then put right in one go.
    std::vector<std::pair<int, int>> expected; // (new key, id) in the index's old order
    for (int i = 0; i < index.count(); ++i) {
        const Record record = index.get(i);
        setInt(record, 0, static_cast<int>(random() % 7));
        expected.emplace_back(getInt(record, 0), getInt(record, 1));
    }
    std::stable_sort(expected.begin(), expected.end(),
                     [](const auto &x, const auto &y) { return x.first < y.first; });
    index.resort();
    EXPECT_EQ(IndexVector::sortIndex, &index);
    std::vector<int> ids;
    for (const auto &entry : expected)
        ids.push_back(entry.second);
    EXPECT_EQ(index.ids(), ids);
}

} // namespace
