#include <database/watchindex.h>

#include "tablefixture.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>

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

// Rows removed and added back many times, against the lists kept the plain
// way: an added row is looked for in removed() by a scan, and its first entry
// there is taken out. A copy goes on from where the original stood.
TEST(WatchIndex, RowsComingBackFollowThePlainLists)
{
    Table table(QStringLiteral("t"));
    table.addColumn(QStringLiteral("id"), FieldType::Integer);
    std::vector<Record> rows;
    for (int i = 0; i < 6; ++i)
        rows.push_back(makeRow(table, {i}));
    std::unique_ptr<WatchIndex> watch = std::make_unique<WatchIndex>(&table);
    QList<Record> inserted, removed, updated;
    std::mt19937 random(5);
    for (int step = 0; step < 3000; ++step) {
        const Record &row = rows[random() % rows.size()];
        switch (random() % 8) {
        case 0:
        case 1:
        case 2:
            watch->remove(row, -1);
            removed.append(row);
            break;
        case 3:
        case 4:
        case 5:
            watch->add(row);
            if (removed.contains(row)) {
                removed.removeOne(row);
                updated.append(row);
            } else {
                inserted.append(row);
            }
            break;
        case 6:
            if (random() % 20 == 0) {
                watch->clear();
                inserted.clear();
                removed.clear();
                updated.clear();
            }
            break;
        default:
            if (random() % 10 == 0)
                watch = std::make_unique<WatchIndex>(*watch);
        }
        ASSERT_EQ(ids(watch->inserted()), ids(inserted)) << "step " << step;
        ASSERT_EQ(ids(watch->removed()), ids(removed)) << "step " << step;
        ASSERT_EQ(ids(watch->updated()), ids(updated)) << "step " << step;
    }
}

} // namespace
