#include <database/watchindex.h>

#include "tablefixture.h"

#include <gtest/gtest.h>

namespace {

std::vector<int> ids(const QList<Record> &records)
{
    std::vector<int> result;
    for (const Record &record : records)
        result.push_back(getInt(record, 0));
    return result;
}

TEST(WatchIndex, CollectsTheChangesOfAPeriod)
{
    Table table(QStringLiteral("t"));
    table.addColumn(QStringLiteral("id"), FieldType::Integer);
    WatchIndex watch(&table);
    const Record r1 = makeRow(table, {1}), r2 = makeRow(table, {2}), r3 = makeRow(table, {3});

    r1.append();
    r1.remove(); // inserted and removed: both lists keep it
    EXPECT_EQ(ids(watch.inserted()), std::vector<int>({1}));
    EXPECT_EQ(ids(watch.removed()), std::vector<int>({1}));
    EXPECT_TRUE(watch.contains(r1));

    watch.add(r2);
    watch.remove(r2, -1);
    watch.clear();
    watch.remove(r2, -1);
    EXPECT_FALSE(watch.contains(r2)); // only in removed
    watch.add(r2);                    // back within the period: updated
    EXPECT_TRUE(watch.removed().isEmpty());
    EXPECT_TRUE(watch.inserted().isEmpty());
    EXPECT_EQ(ids(watch.updated()), std::vector<int>({2}));
    EXPECT_TRUE(watch.contains(r2));

    // A batch: removals, then updates, then additions.
    watch.build();
    r3.append();
    table.process({r3}, {r3, r3}, 0, 0, {r1});
    EXPECT_EQ(ids(watch.inserted()), std::vector<int>({3, 1}));
    EXPECT_EQ(ids(watch.removed()), std::vector<int>({3}));
    EXPECT_EQ(ids(watch.updated()), std::vector<int>({3, 3}));
    EXPECT_EQ(watch.getClassName(), QStringLiteral("WatchIndex"));
}

} // namespace
