#include "testutil.h"

#include <database/exception.h>
#include <database/fieldtype.h>

#include <gtest/gtest.h>

#include <vector>

namespace {

QString typeLengthError(FieldType::Type type, int length)
{
    try {
        FieldType::typeLength(type, length);
    } catch (const Exception &e) {
        return e.message;
    }
    return QStringLiteral("<no error>");
}

// A buffer with a slot at an odd offset, guarded on both sides.
class Slot
{
public:
    explicit Slot(size_t size) : m_bytes(size + 2 * (Guard + 1), 0xAB) {}
    unsigned char *ptr() { return m_bytes.data() + Guard + 1; }
    bool guardsIntact(size_t size) const
    {
        for (size_t i = 0; i < Guard + 1; ++i) {
            if (m_bytes[i] != 0xAB || m_bytes[Guard + 1 + size + i] != 0xAB)
                return false;
        }
        return true;
    }

private:
    static constexpr size_t Guard = 8;
    std::vector<unsigned char> m_bytes;
};

} // namespace

TEST(FieldType, TypeLength)
{
    EXPECT_EQ(FieldType::typeLength(FieldType::Integer, 9), 4u);
    EXPECT_EQ(FieldType::typeLength(FieldType::Integer64, 0), 8u);
    EXPECT_EQ(FieldType::typeLength(FieldType::Double, 0), 8u);
    EXPECT_EQ(FieldType::typeLength(FieldType::Decimal, 4), 8u);
    EXPECT_EQ(FieldType::typeLength(FieldType::DateTime, 0), 8u);
    EXPECT_EQ(FieldType::typeLength(FieldType::String, 1), 2u);
    EXPECT_EQ(FieldType::typeLength(FieldType::String, 20), 40u);
    EXPECT_EQ(FieldType::typeLength(FieldType::BoardList, 99), 404u);

    EXPECT_EQ(typeLengthError(FieldType::String, 0), QStringLiteral("Length of string can't be zero"));
    EXPECT_EQ(typeLengthError(FieldType::Invalid, 0), QStringLiteral("Type is undefined."));
    EXPECT_EQ(typeLengthError(static_cast<FieldType::Type>(8), 0), QStringLiteral("Type is undefined."));
    EXPECT_EQ(typeLengthError(static_cast<FieldType::Type>(-1), 0), QStringLiteral("Type is undefined."));
}

TEST(FieldType, Names)
{
    struct Case {
        int type;
        int length;
        const char *name;
        const char *withLength;
    };
    const Case cases[] = {
        {0, 3, "Undefined", "Undefined"},         {1, 4, "Integer", "Integer"},
        {2, 0, "Integer64", "Integer64"},         {3, 0, "Double", "Double"},
        {4, 4, "Decimal", "Decimal[4]"},          {5, 20, "VarChar", "VarChar[20]"},
        {6, 0, "DateTime", "DateTime"},           {7, 0, "BoardList", "BoardList"},
        {8, 0, "Undefined", "Undefined"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const auto type = static_cast<FieldType::Type>(c.type);
        EXPECT_STREQ(FieldType::typeName(type), c.name);
        EXPECT_EQ(FieldType::typeNameWithLength(type, c.length), QString::fromLatin1(c.withLength));
    }
    EXPECT_TRUE(FieldType::typeHasLength(FieldType::Decimal));
    EXPECT_TRUE(FieldType::typeHasLength(FieldType::String));
    EXPECT_FALSE(FieldType::typeHasLength(FieldType::Integer));
    EXPECT_FALSE(FieldType::typeHasLength(FieldType::BoardList));
}

TEST(FieldType, TypeLessThanIsInclusive)
{
    using T = FieldType;
    struct Case {
        const char *name;
        T::Type t1;
        int len1;
        T::Type t2;
        int len2;
        bool expected;
    };
    const Case cases[] = {
        {"Integer under Integer64", T::Integer, 0, T::Integer64, 0, true},
        {"Integer64 under Integer", T::Integer64, 0, T::Integer, 0, false},
        {"shorter string", T::String, 10, T::String, 20, true},
        {"longer string", T::String, 20, T::String, 10, false},
        {"equal strings", T::String, 10, T::String, 10, true},
        {"other decimal scale", T::Decimal, 2, T::Decimal, 4, false},
        {"same decimal scale", T::Decimal, 2, T::Decimal, 2, true},
        {"same double", T::Double, 0, T::Double, 0, true},
        {"double with stray length", T::Double, 1, T::Double, 0, false},
        {"integer under double", T::Integer, 0, T::Double, 0, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(FieldType::typeLessThan(c.t1, c.len1, c.t2, c.len2), c.expected);
    }
}

TEST(FieldType, NumbersAreUnalignedLittleEndian)
{
    Slot slot(8);
    unsigned char *p = slot.ptr();
    FieldType::setInt(p, -2);
    EXPECT_EQ(p[0], 0xFE);
    EXPECT_EQ(p[3], 0xFF);
    EXPECT_EQ(FieldType::getInt(p), -2);
    FieldType::setInt64(p, 0x0102030405060708LL);
    EXPECT_EQ(p[0], 0x08);
    EXPECT_EQ(p[7], 0x01);
    EXPECT_EQ(FieldType::getInt64(p), 0x0102030405060708LL);
    FieldType::setDouble(p, 1.5);
    EXPECT_EQ(FieldType::getDouble(p), 1.5);
    EXPECT_EQ(p[7], 0x3F);
    EXPECT_TRUE(slot.guardsIntact(8));
}

TEST(FieldType, DecimalSlotsCarryTheColumnScale)
{
    Slot slot(8);
    unsigned char *p = slot.ptr();
    FieldType::setDecimal(p, 4, decimal(15, 2)); // 0.15 into a scale-4 column
    EXPECT_EQ(FieldType::getDecimal(p, 4).value(), 1500);
    EXPECT_EQ(FieldType::getDecimal(p, 4).scale(), 4);

    // Same scale: the word is stored as it is.
    FieldType::setDecimal(p, 2, decimal(-7, 2));
    EXPECT_EQ(FieldType::getInt64(p), decimal(-7, 2).to56s7());

    // Reading forces the scale bits and leaves the rest as stored.
    FieldType::setInt64(p, decimal(123, 0).to56s7());
    const decimal read = FieldType::getDecimal(p, 2);
    EXPECT_EQ(read.value(), 123);
    EXPECT_EQ(read.scale(), 2);

    FieldType::setDecimal(p, 1, decimal(-125, 2)); // rounds half away from zero
    EXPECT_EQ(FieldType::getDecimal(p, 1).value(), -13);
    EXPECT_TRUE(slot.guardsIntact(8));
}

TEST(FieldType, DateTimeSlots)
{
    Slot slot(8);
    unsigned char *p = slot.ptr();
    const datetime stamp(2024, 3, 5, 10, 0, 0, 0);
    FieldType::setDatetime(p, stamp);
    EXPECT_EQ(FieldType::getDatetime(p), stamp);
    EXPECT_EQ(FieldType::getInt64(p), stamp.data());

    // setQDateTime stores the true instant, datetime the wall clock as UTC:
    // they differ by the local zone offset.
    const QDateTime local(QDate(2020, 1, 15), QTime(12, 0), Qt::LocalTime);
    FieldType::setQDateTime(p, local);
    EXPECT_EQ(datetime(local).data() - FieldType::getInt64(p), local.offsetFromUtc() * 1000LL);
    EXPECT_EQ(FieldType::getQDateTime(p), local);
    EXPECT_EQ(FieldType::getQDateTime(p).timeSpec(), Qt::LocalTime);
}

TEST(FieldType, StringSlotsAreCutAndZeroFilled)
{
    Slot slot(8);
    unsigned char *p = slot.ptr();
    FieldType::setString(p, 4, QStringLiteral("abcdef"));
    EXPECT_EQ(FieldType::getString(p, 4), QStringLiteral("abcd"));
    FieldType::setString(p, 4, QStringLiteral("ab"));
    EXPECT_EQ(FieldType::getString(p, 4), QStringLiteral("ab"));
    for (int i = 4; i < 8; ++i)
        EXPECT_EQ(p[i], 0) << i;
    EXPECT_EQ(FieldType::getSharedString(p, 4), QStringLiteral("ab"));

    FieldType::setString(p, 4, QString());
    EXPECT_TRUE(FieldType::getString(p, 4).isEmpty());
    EXPECT_FALSE(FieldType::getString(p, 4).isNull());

    const unsigned short units[] = {'x', 'y', 'z'};
    FieldType::setString(p, 4, units, 3);
    EXPECT_EQ(FieldType::getString(p, 4), QStringLiteral("xyz"));
    FieldType::setString(p, 2, units, 3);
    EXPECT_EQ(FieldType::getString(p, 2), QStringLiteral("xy"));
    EXPECT_EQ(FieldType::getString(p, 4), QStringLiteral("xyz")); // unit 3 untouched
    FieldType::setString(p, 4, QStringLiteral("ж€"));
    EXPECT_EQ(FieldType::getString(p, 4), QStringLiteral("ж€"));
    EXPECT_TRUE(slot.guardsIntact(8));
}

TEST(FieldType, HugeAndNegativeStringLengthsStayInTheBuffer)
{
    std::vector<unsigned char> big(2 * 40000, 'a');
    EXPECT_EQ(FieldType::getString(big.data(), 40000).size(), 32767);
    Slot slot(8);
    FieldType::setString(slot.ptr(), -1, QStringLiteral("abc"));
    EXPECT_EQ(FieldType::getString(slot.ptr(), -1), QString());
    EXPECT_TRUE(slot.guardsIntact(8));
}
