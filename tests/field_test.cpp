#include "testutil.h"

#include <database/exception.h>
#include <database/field.h>
#include <database/fieldvalue.h>
#include <database/table.h>

#include <QtCore/QLocale>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

namespace {

// One row with a column of every type: i Integer, l Integer64, d Double,
// m Decimal(2), s String(5), t DateTime, b BoardList, c String(1).
class FieldTest : public ::testing::Test
{
protected:
    FieldTest()
    {
        table.addColumn(QStringLiteral("i"), FieldType::Integer);
        table.addColumn(QStringLiteral("l"), FieldType::Integer64);
        table.addColumn(QStringLiteral("d"), FieldType::Double);
        table.addColumn(QStringLiteral("m"), FieldType::Decimal, 2);
        table.addColumn(QStringLiteral("s"), FieldType::String, 5);
        table.addColumn(QStringLiteral("t"), FieldType::DateTime);
        table.addColumn(QStringLiteral("b"), FieldType::BoardList);
        table.addColumn(QStringLiteral("c"), FieldType::String, 1);
        row = Record(&table); // rows take the layout of the table as it is now
        other = Record(&table);
    }

    Field field(FieldType::Type type) { return row.data(static_cast<int>(type) - 1); }

    Table table{QStringLiteral("fields")};
    Record row;
    Record other;
};

// What a write does: the text it leaves, null, or what it throws.
struct Outcome
{
    enum Kind { Text, Null, ThrowsException, ThrowsString, ThrowsCString } kind;
    QString text;

    static Outcome is(const char *t) { return {Text, QString::fromUtf8(t)}; }
    static Outcome null() { return {Null, QString()}; }
    static Outcome exception(const char *m) { return {ThrowsException, QString::fromUtf8(m)}; }
    static Outcome string(const QString &m) { return {ThrowsString, m}; }
    static Outcome cstring(const char *m) { return {ThrowsCString, QString::fromUtf8(m)}; }
};

struct WriteCase
{
    const char *name;
    FieldType::Type column;
    std::function<void(Field &)> write;
    Outcome expected;
};

boardlist pairs(std::initializer_list<std::pair<int, int>> values)
{
    boardlist list;
    std::memset(&list, 0, sizeof list);
    for (const auto &v : values) {
        list.entries[list.count].first = v.first;
        list.entries[list.count].second = v.second;
        ++list.count;
    }
    return list;
}

} // namespace

TEST_F(FieldTest, TheWriterMatrix)
{
    using T = FieldType;
    const QDateTime wallClock(QDate(2024, 3, 5), QTime(10, 0), Qt::LocalTime);
    const QString m1 = QStringLiteral("Невозможно создать decimal по строке '1,5'");
    const WriteCase cases[] = {
        {"int into Integer", T::Integer, [](Field &f) { f = 7; }, Outcome::is("7")},
        {"int into Integer64", T::Integer64, [](Field &f) { f = -7; }, Outcome::is("-7")},
        {"int into Double", T::Double, [](Field &f) { f = 7; }, Outcome::is("7")},
        {"int into Decimal: column scale", T::Decimal, [](Field &f) { f = 7; }, Outcome::is("7.00")},
        {"int into String", T::String, [](Field &f) { f = 123456; }, Outcome::is("12345")},
        {"int into DateTime", T::DateTime, [](Field &f) { f = 7; },
         Outcome::exception("Can't convert from Integer to DateTime")},
        {"int into BoardList", T::BoardList, [](Field &f) { f = 7; },
         Outcome::exception("Can't convert from Integer to BoardList")},
        {"long long clamped into Integer", T::Integer, [](Field &f) { f = 3000000000LL; }, Outcome::is("2147483647")},
        {"long long clamped below", T::Integer, [](Field &f) { f = -3000000000LL; }, Outcome::is("-2147483648")},
        {"long long into Integer64", T::Integer64, [](Field &f) { f = 3000000000LL; }, Outcome::is("3000000000")},
        {"long long into Decimal", T::Decimal, [](Field &f) { f = 5LL; }, Outcome::is("5.00")},
        {"long long into String", T::String, [](Field &f) { f = -12LL; }, Outcome::is("-12")},
        {"long long into DateTime", T::DateTime, [](Field &f) { f = 5LL; },
         Outcome::exception("Can't convert from Integer64 to DateTime")},
        {"double truncated into Integer", T::Integer, [](Field &f) { f = 2.9; }, Outcome::is("2")},
        {"negative double truncated", T::Integer, [](Field &f) { f = -2.9; }, Outcome::is("-2")},
        {"double into Integer64", T::Integer64, [](Field &f) { f = -7.5; }, Outcome::is("-7")},
        {"double into Double", T::Double, [](Field &f) { f = 2.5; }, Outcome::is("2.5")},
        {"double into Decimal via scale 6", T::Decimal, [](Field &f) { f = 1.555; }, Outcome::is("1.56")},
        {"double into String, six digits", T::String, [](Field &f) { f = 1.5; }, Outcome::is("1.500")},
        {"double too large for Decimal", T::Decimal, [](Field &f) { f = 1e12; }, Outcome::cstring("decimal:overflow")},
        {"double into DateTime", T::DateTime, [](Field &f) { f = 1.0; },
         Outcome::exception("Can't convert double to datetime.")},
        {"decimal into Integer", T::Integer, [](Field &f) { f = decimal(199, 2); }, Outcome::is("1")},
        {"decimal into Double", T::Double, [](Field &f) { f = decimal(125, 2); }, Outcome::is("1.25")},
        {"decimal into Decimal: its own word", T::Decimal, [](Field &f) { f = decimal(125, 2); }, Outcome::is("1.25")},
        // The word keeps scale 1; reading at the column's scale 2 gives 0.15.
        {"decimal of another scale", T::Decimal, [](Field &f) { f = decimal(15, 1); }, Outcome::is("0.15")},
        {"decimal into String", T::String, [](Field &f) { f = decimal(-5, 3); }, Outcome::is("-0.00")},
        {"decimal into DateTime", T::DateTime, [](Field &f) { f = decimal(1, 0); },
         Outcome::exception("Can't convert from decimal to datetime.")},
        {"text into Integer", T::Integer, [](Field &f) { f = QStringLiteral("42"); }, Outcome::is("42")},
        {"bad text into Integer", T::Integer, [](Field &f) { f = QStringLiteral("abc"); },
         Outcome::exception("Can't convert from 'abc'' to Integer")},
        {"bad text into Integer64", T::Integer64, [](Field &f) { f = QStringLiteral("1.5"); },
         Outcome::exception("Can't convert from '1.5'' to Integer64")},
        {"text into Double", T::Double, [](Field &f) { f = QStringLiteral("1.5"); }, Outcome::is("1.5")},
        {"bad text into Double", T::Double, [](Field &f) { f = QStringLiteral("1,5"); },
         Outcome::exception("Can't convert from '1,5'' to Double")},
        {"text into Decimal", T::Decimal, [](Field &f) { f = QStringLiteral("1.25"); }, Outcome::is("1.25")},
        {"text rescaled into Decimal", T::Decimal, [](Field &f) { f = QStringLiteral("1.5"); }, Outcome::is("1.50")},
        {"comma text into Decimal", T::Decimal, [](Field &f) { f = QStringLiteral("1,5"); }, Outcome::string(m1)},
        {"text cut into String", T::String, [](Field &f) { f = QStringLiteral("abcdefg"); }, Outcome::is("abcde")},
        {"C string into String", T::String, [](Field &f) { f = "xyz"; }, Outcome::is("xyz")},
        {"text into DateTime", T::DateTime, [](Field &f) { f = QStringLiteral("2024.03.05"); },
         Outcome::is("2024.03.05 00:00:00.000")},
        {"text into BoardList", T::BoardList, [](Field &f) { f = QStringLiteral("1:2"); },
         Outcome::exception("Can't convert from VarChar to BoardList")},
        {"empty text nulls Integer", T::Integer, [](Field &f) { f = QString(); }, Outcome::null()},
        {"empty text nulls BoardList", T::BoardList, [](Field &f) { f = QStringLiteral(""); }, Outcome::null()},
        {"QChar into String", T::String, [](Field &f) { f = QChar('x'); }, Outcome::is("x")},
        {"QChar into Integer", T::Integer, [](Field &f) { f = QChar('x'); },
         Outcome::exception("Can't convert from VarChar to Integer")},
        {"datetime into String", T::String, [](Field &f) { f = datetime(2024, 3, 5); }, Outcome::is("2024.")},
        {"datetime into DateTime", T::DateTime, [](Field &f) { f = datetime(2024, 3, 5, 10, 0, 0, 0); },
         Outcome::is("2024.03.05 10:00:00.000")},
        {"zero datetime into String", T::String, [](Field &f) { f = datetime(); }, Outcome::null()},
        {"datetime into Integer", T::Integer, [](Field &f) { f = datetime(1); },
         Outcome::exception("Can't convert from DateTime to Integer")},
        {"QDateTime into DateTime: wall clock", T::DateTime, [&](Field &f) { f = wallClock; },
         Outcome::is("2024.03.05 10:00:00.000")},
        {"invalid QDateTime nulls", T::DateTime, [](Field &f) { f = QDateTime(); }, Outcome::null()},
        {"QDateTime into Double", T::Double, [&](Field &f) { f = wallClock; },
         Outcome::exception("Can't convert from DateTime to Double")},
        {"boardlist into BoardList", T::BoardList, [](Field &f) { f = pairs({{1, 2}}); }, Outcome::is("[BoardList]")},
        {"boardlist into String", T::String, [](Field &f) { f = pairs({}); },
         Outcome::exception("Can't convert from BoardList to VarChar")},
    };
    for (const WriteCase &c : cases) {
        SCOPED_TRACE(c.name);
        Field f = field(c.column);
        f.setNull();
        f.erase();
        const QByteArray before(reinterpret_cast<const char *>(f.data()), static_cast<int>(f.columnDef()->size));
        try {
            c.write(f);
            switch (c.expected.kind) {
            case Outcome::Text:
                EXPECT_FALSE(f.isNull());
                EXPECT_EQ(f.toString(), c.expected.text);
                break;
            case Outcome::Null:
                EXPECT_TRUE(f.isNull());
                break;
            default:
                ADD_FAILURE() << "nothing thrown";
            }
            continue;
        } catch (const Exception &e) {
            EXPECT_EQ(c.expected.kind, Outcome::ThrowsException);
            EXPECT_EQ(e.message, c.expected.text);
        } catch (const QString &message) {
            EXPECT_EQ(c.expected.kind, Outcome::ThrowsString);
            EXPECT_EQ(message, c.expected.text);
        } catch (const char *message) {
            EXPECT_EQ(c.expected.kind, Outcome::ThrowsCString);
            EXPECT_EQ(QString::fromUtf8(message), c.expected.text);
        }
        // A failed write leaves the slot and the null bit as they were.
        EXPECT_TRUE(f.isNull());
        EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(f.data()), before.size()), before);
    }
}

TEST_F(FieldTest, Readers)
{
    Field i = field(FieldType::Integer), l = field(FieldType::Integer64), m = field(FieldType::Decimal);
    Field s = field(FieldType::String), t = field(FieldType::DateTime), c = row.data(7);
    EXPECT_EQ(i.toInteger(), 0); // null
    EXPECT_TRUE(s.asString().isNull());
    EXPECT_EQ(t.toQDateTime(), QDateTime());
    EXPECT_EQ(c.toChar(), QChar(0));
    EXPECT_EQ(field(FieldType::BoardList).toBoardlist().count, 0);

    l = 5000000000LL;
    EXPECT_EQ(l.toInteger(), 2147483647);
    EXPECT_EQ(static_cast<int>(l), 2147483647);
    i = -3;
    EXPECT_EQ(i.toInteger64(), -3);
    m = decimal(150, 2);
    EXPECT_DOUBLE_EQ(m.toDouble(), 1.5);
    EXPECT_EQ(m.toDecimal().scale(), 2);
    t = datetime(2024, 3, 5, 10, 11, 12, 13);
    EXPECT_EQ(t.toQDateTime().timeSpec(), Qt::UTC);
    EXPECT_EQ(t.toQDate(), QDate(2024, 3, 5));
    EXPECT_EQ(t.toQTime(), QTime(10, 11, 12, 13));
    c = QChar('q');
    EXPECT_EQ(c.asChar(), QChar('q'));
    s = QStringLiteral("q");

    auto exceptionOf = [](const std::function<void()> &read) -> QString {
        try {
            read();
        } catch (const Exception &e) {
            return QStringLiteral("Exception: ") + e.message;
        } catch (const QString &message) {
            return QStringLiteral("QString: ") + message;
        }
        return QStringLiteral("<nothing>");
    };
    EXPECT_EQ(exceptionOf([&] { s.toInteger(); }), QStringLiteral("Exception: Incorrect type conversion."));
    EXPECT_EQ(exceptionOf([&] { i.toDecimal(); }), QStringLiteral("Exception: Incorrect type conversion."));
    EXPECT_EQ(exceptionOf([&] { m.toInteger64(); }), QStringLiteral("Exception: Incorrect type conversion."));
    EXPECT_EQ(exceptionOf([&] { i.toQDate(); }), QStringLiteral("Exception: Incorrect type conversion."));
    EXPECT_EQ(exceptionOf([&] { i.asString(); }), QStringLiteral("QString: Incorrect type of field."));
    EXPECT_EQ(exceptionOf([&] { s.asChar(); }), QStringLiteral("QString: String length is not 1 for QChar: 5."));
    c.setNull();
    EXPECT_EQ(exceptionOf([&] { c.asChar(); }), QStringLiteral("QString: String is null for QChar"));
    EXPECT_EQ(exceptionOf([&] { i.asChar(); }), QStringLiteral("QString: Incorrect type of field."));
}

TEST_F(FieldTest, VariantsAreReadByTheColumnType)
{
    Field i = field(FieldType::Integer), m = field(FieldType::Decimal), t = field(FieldType::DateTime);
    Field b = field(FieldType::BoardList), s = field(FieldType::String);
    i = QVariant(QStringLiteral("12"));
    EXPECT_EQ(i.toInteger(), 12);
    m = decimal(375, 2).toVariant();
    EXPECT_EQ(m.toString(), QStringLiteral("3.75"));
    m = QVariant(1.5); // no conversion to decimal: 0
    EXPECT_EQ(m.toString(), QStringLiteral("0.00"));
    t = QVariant(QDateTime(QDate(2024, 1, 2), QTime(3, 4), Qt::UTC));
    EXPECT_EQ(t.toString(), QStringLiteral("2024.01.02 03:04:00.000"));
    t = datetime(42).toVariant();
    EXPECT_EQ(t.toDatetime().data(), 42);
    EXPECT_THROW(t = QVariant(QStringLiteral("1:2")), Exception); // read as a board list
    b = QVariant(QStringLiteral("2:5 1:2 10:1 1:3"));
    EXPECT_EQ(b.toBoardlist().count, 4);
    // Groups in the order of their first numbers' text: "10" before "2".
    EXPECT_EQ(b.toSystemString(), QStringLiteral("1:2,3 10:1 2:5"));
    EXPECT_EQ(b.toVariant().toString(), QStringLiteral("1:2,3 10:1 2:5"));
    s = QVariant();
    EXPECT_TRUE(s.isNull());

    QStringList many;
    for (int k = 0; k < 49; ++k)
        many.append(QStringLiteral("%1:%2").arg(k).arg(k));
    b = QVariant(many.join(QLatin1Char(' ')));
    EXPECT_EQ(b.toBoardlist().count, 49);
    many.append(QStringLiteral("99:99"));
    try {
        b = QVariant(many.join(QLatin1Char(' ')));
        ADD_FAILURE() << "no error";
    } catch (const char *message) {
        EXPECT_STREQ(message, "List size exceed");
    }
    EXPECT_EQ(Field::boardlistToString(pairs({})), QString());
    EXPECT_EQ(Field::boardlistFromString(QStringLiteral("x:1 1:y,2 a:b:c  3:4")).count, 2);

    EXPECT_EQ(i.toVariant().userType(), QMetaType::Int);
    EXPECT_EQ(m.toVariant().userType(), decimal::metatypeId());
    EXPECT_EQ(t.toVariant().toDateTime().timeSpec(), Qt::UTC);
    EXPECT_FALSE(s.toVariant().isValid());
}

TEST_F(FieldTest, ComparisonKeepsItsAsymmetries)
{
    Record a(&table), b(&table);
    auto set = [](const Record &r, int column, const QVariant &v) {
        Field f = r.data(column);
        f = v;
    };
    set(a, 2, 2.0);
    set(b, 2, 1.0);
    EXPECT_EQ(a.data(2).compare(b.data(2)), 0); // the larger left compares equal
    EXPECT_TRUE(a.data(2) == b.data(2));
    EXPECT_FALSE(a.data(2) > b.data(2));
    EXPECT_EQ(b.data(2).compare(a.data(2)), -1);
    EXPECT_FALSE(a.data(2).isEqual(b.data(2)));

    set(a, 0, 2147483647);
    set(b, 0, -1);
    EXPECT_LT(a.data(0).compare(b.data(0)), 0); // the unreduced difference overflows
    set(b, 0, 2147483640);
    EXPECT_EQ(a.data(0).compare(b.data(0)), 7);

    EXPECT_EQ(a.data(5).compare(b.data(5)), 0); // both null
    EXPECT_EQ(a.data(0).compare(b.data(5)), 1);
    EXPECT_EQ(b.data(5).compare(a.data(0)), -1);

    Field am = a.data(3), bm = b.data(3);
    am = decimal(150, 2);
    bm = QStringLiteral("1.50");
    EXPECT_EQ(am.compare(bm), 0);
    EXPECT_TRUE(am.isEqual(bm));
    set(a, 4, QStringLiteral("abc"));
    set(b, 4, QStringLiteral("abd"));
    EXPECT_EQ(a.data(0).compare(a.data(4)), 1 - 5); // type codes
    EXPECT_LT(a.data(4).compare(b.data(4)), 0);
    EXPECT_FALSE(a.data(4).isEqual(b.data(4)));
    EXPECT_TRUE(a.data(6).isEqual(b.data(6))); // both null
    set(a, 6, QStringLiteral("1:1"));
    set(b, 6, QStringLiteral("1:1"));
    EXPECT_EQ(a.data(6).compare(b.data(6)), 0);
    EXPECT_THROW(a.data(6).isEqual(b.data(6)), Exception);
    EXPECT_FALSE(a.data(0).isEqual(a.data(1)));
}

TEST_F(FieldTest, AssignmentBetweenFields)
{
    Field target = field(FieldType::String);
    Field source = other.data(4);
    source = QStringLiteral("hello");
    target = source;
    EXPECT_EQ(target.toString(), QStringLiteral("hello"));
    target = other.data(7); // null source
    EXPECT_TRUE(target.isNull());
    Field one = row.data(7);
    one = source; // another length: through text, cut
    EXPECT_EQ(one.toString(), QStringLiteral("h"));

    Field d = field(FieldType::Double);
    Field i = other.data(0);
    i = 42;
    d = i;
    EXPECT_EQ(d.toString(), QStringLiteral("42"));
    Field b = field(FieldType::BoardList);
    EXPECT_THROW(b = i, Exception);
    Field otherB = other.data(6);
    otherB = pairs({{3, 4}});
    b = otherB;
    EXPECT_EQ(b.toSystemString(), QStringLiteral("3:4"));
}

TEST_F(FieldTest, InPlaceArithmetic)
{
    Field i = field(FieldType::Integer), five = other.data(0);
    five = 5;
    i += five; // onto null: from zero
    EXPECT_EQ(i.toInteger(), 5);
    i -= other.data(1); // a null right-hand side changes nothing
    EXPECT_EQ(i.toInteger(), 5);
    i -= five;
    i -= five;
    EXPECT_EQ(i.toInteger(), -5);

    Field m = field(FieldType::Decimal), dm = other.data(3);
    m = decimal(100, 2);
    dm = decimal(5, 2);
    m += dm;
    EXPECT_EQ(m.toString(), QStringLiteral("1.05"));
    FieldValue fine(FieldType::Decimal, 3, true);
    fine = QStringLiteral("0.005");
    m += fine; // aligned to scale 3, stored at the column's 2
    EXPECT_EQ(m.toString(), QStringLiteral("1.06"));

    Field t = field(FieldType::DateTime), dt = other.data(5);
    t = datetime(1000);
    dt = datetime(300);
    t -= dt;
    EXPECT_EQ(t.toDatetime().data(), 700);

    Field s = field(FieldType::String);
    EXPECT_THROW(s += five, Exception);
    Field d = field(FieldType::Double);
    d += five;
    EXPECT_EQ(d.toDouble(), 5.0);
}

TEST_F(FieldTest, TextFormsAndNames)
{
    EXPECT_EQ(field(FieldType::Integer).typeName(), QStringLiteral("Integer"));
    EXPECT_EQ(field(FieldType::String).typeName(), QStringLiteral("String"));
    EXPECT_EQ(field(FieldType::BoardList).typeName(), QStringLiteral("undefined"));
    EXPECT_EQ(Field::typeName(FieldType::Invalid), QStringLiteral("Invalid"));
    Field d = field(FieldType::Double);
    d = 0.1;
    EXPECT_EQ(d.toString(), QStringLiteral("0.1"));
    Field l = field(FieldType::Integer64);
    l = 1234567LL;
    EXPECT_EQ(static_cast<QString>(l), QStringLiteral("1234567"));
    EXPECT_TRUE(field(FieldType::DateTime).toSystemString().isNull());
}

// The system locale is German here.
TEST_F(FieldTest, SystemFormsFollowTheCommaLocale)
{
    ASSERT_EQ(QLocale::system().decimalPoint(), QLatin1Char(','));
    Field d = field(FieldType::Double), m = field(FieldType::Decimal), i = field(FieldType::Integer64);
    Field t = field(FieldType::DateTime);
    d = 1234.5;
    m = decimal(150, 2);
    i = 1234567LL;
    t = datetime(2024, 3, 5, 10, 11, 12, 345);
    EXPECT_EQ(d.toSystemString(), QStringLiteral("1.234,5"));
    EXPECT_EQ(m.toSystemString(), QStringLiteral("1,50"));
    EXPECT_EQ(i.toSystemString(), QStringLiteral("1.234.567"));
    EXPECT_EQ(t.toSystemString(), QStringLiteral("05.03.24 10:11:12.345"));
}
