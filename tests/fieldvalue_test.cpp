#include "testutil.h"

#include <database/fieldvalue.h>
#include <database/table.h>

#include <gtest/gtest.h>

TEST(FieldValue, FreshValuesAreNullAndRebased)
{
    const FieldValue plain;
    EXPECT_TRUE(plain.isNull());
    EXPECT_TRUE(plain.toText().isNull());
    EXPECT_EQ(plain.type(), FieldType::Integer);
    EXPECT_EQ(plain.length(), 1);
    EXPECT_EQ(plain.columnDef()->offset, 0u);
    EXPECT_EQ(plain.columnDef()->nullByteOffset, 4u);
    EXPECT_EQ(plain.columnDef()->nullMask, 1);

    FieldValue text(FieldType::String, 30, true);
    text.fromText(QStringLiteral("2024-03-05 10:11:12"));
    EXPECT_EQ(text.toDatetime(), datetime(2024, 3, 5, 10, 11, 12, 0));
    text.fromText(QString());
    EXPECT_TRUE(text.isNull());
}

TEST(FieldValue, CopiesAreDeepAndDetachedFromRows)
{
    Table table(QStringLiteral("t"));
    table.addColumn(QStringLiteral("price"), FieldType::Decimal, 2, false, QStringLiteral("Price"));
    FieldValue value;
    {
        const Record row(&table);
        Field field = row.data(0);
        field = QStringLiteral("1.25");
        value = FieldValue(field);
    }
    EXPECT_EQ(value.toText(), QStringLiteral("1.25"));
    EXPECT_EQ(value.columnDef()->table, nullptr);
    EXPECT_TRUE(value.columnDef()->name.isEmpty());
    EXPECT_FALSE(value.columnDef()->nullable);

    FieldValue copy = value;
    copy = decimal(5, 2);
    EXPECT_EQ(value.toText(), QStringLiteral("1.25"));
    EXPECT_EQ(copy.toText(), QStringLiteral("0.05"));
    EXPECT_EQ(FieldValue(&table, QStringLiteral("price")).length(), 2);

    // Into a row field, through Field's assignment.
    const Record row(&table);
    Field field = row.data(0);
    field = copy;
    EXPECT_EQ(field.toString(), QStringLiteral("0.05"));
}

TEST(FieldConstValue, ConstantsOfEachType)
{
    EXPECT_EQ(FieldConstValue(QChar('x')).toText(), QStringLiteral("x"));
    const FieldConstValue empty{QString()};
    EXPECT_FALSE(empty.isNull());
    EXPECT_TRUE(empty.toText().isEmpty());
    EXPECT_EQ(empty.length(), 0);
    EXPECT_EQ(FieldConstValue("caf\xe9").toText(), QStringLiteral("café")); // Latin-1
    EXPECT_EQ(FieldConstValue(static_cast<const char *>(nullptr)).length(), 0);
    EXPECT_EQ(FieldConstValue(decimal(15, 1)).toDecimal().scale(), 0); // the column scale is 0
    EXPECT_EQ(FieldConstValue(datetime(5)).toDatetime().data(), 5);
    EXPECT_EQ(FieldConstValue(7).toText(), QStringLiteral("7"));
    EXPECT_EQ(FieldConstValue(7LL).type(), FieldType::Integer64);
    EXPECT_FALSE(FieldConstValue(7).columnDef()->nullable);
}

TEST(KeyValue, ComparesOverItsOwnCount)
{
    const KeyValue two({FieldConstValue(1), FieldConstValue(QStringLiteral("b"))});
    const KeyValue other({FieldConstValue(1), FieldConstValue(QStringLiteral("a"))});
    EXPECT_TRUE(other < two);
    EXPECT_FALSE(two < other);
    EXPECT_TRUE(two != other);

    FieldValue high(FieldType::Double, 0, false), low(FieldType::Double, 0, false);
    high = 2.0;
    low = 1.0;
    // A larger Double on the left compares equal.
    EXPECT_TRUE(KeyValue({high}) == KeyValue({low}));
    EXPECT_FALSE(KeyValue({high}) < KeyValue({low}));
    EXPECT_FALSE(KeyValue({low}) == KeyValue({high}));
    EXPECT_TRUE(KeyValue({low}) < KeyValue({high}));

    const KeyValue empty;
    EXPECT_TRUE(empty == two);
    EXPECT_FALSE(empty != two);
    EXPECT_FALSE(empty < two);
    // Null sorts before a value.
    EXPECT_TRUE(KeyValue({FieldValue()}) < KeyValue({FieldConstValue(0)}));
}
