#include "testutil.h"

#include <database/decimal.h>

#include <QtCore/QDate>
#include <QtCore/QDebug>
#include <QtCore/QLocale>
#include <QtCore/QRandomGenerator>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

namespace {

decimal dec(long long mantissa, short scale)
{
    return decimal(mantissa, scale);
}

QString fromStringError(const QString &text)
{
    try {
        decimal::fromString(text);
    } catch (const QString &message) {
        return message;
    }
    return QStringLiteral("<no error>");
}

QString m1(const QString &text)
{
    return QStringLiteral("Невозможно создать decimal по строке '%1'").arg(text);
}

bool throwsOverflow(double value, short scale)
{
    try {
        decimal::fromDouble(value, scale);
    } catch (const char *message) {
        return std::strcmp(message, "decimal:overflow") == 0;
    }
    return false;
}

} // namespace

TEST(Decimal, PacksMantissaAndScaleIntoOneWord)
{
    const decimal d(-5, 3);
    EXPECT_EQ(d.value(), -5);
    EXPECT_EQ(d.scale(), 3);
    EXPECT_EQ(static_cast<unsigned long long>(d.to56s7()), 0x83FFFFFFFFFFFFFBULL);
    EXPECT_EQ(decimal(7, -63).scale(), -63);
    EXPECT_EQ((static_cast<unsigned long long>(decimal(7, -63).data()) >> 56) & 0x7F, 0x41u);
    EXPECT_EQ(decimal().to56s7(), 0);

    // Mantissa bits 56-62 are overwritten silently; bit 63 stays.
    const decimal truncated(0x0100000000000001LL, 0);
    EXPECT_EQ(truncated.value(), 1);
    EXPECT_EQ(decimal::from56s7(d.to56s7()).isEqual(d), true);
}

TEST(Decimal, ConstantsAreTheStatedWords)
{
    EXPECT_EQ(decimal::zero.to56s7(), 0);
    EXPECT_EQ(static_cast<unsigned long long>(decimal::maximum.to56s7()), 0x410FFFFFFFFFFFFFULL);
    EXPECT_EQ(static_cast<unsigned long long>(decimal::minimum.to56s7()), 0xC1F0000000000001ULL);
    EXPECT_EQ(decimal::maximum.value(), 4503599627370495LL);
    EXPECT_EQ(decimal::maximum.scale(), -63);
    EXPECT_EQ(decimal::minimum.value(), -4503599627370495LL);
    EXPECT_LT(decimal::minimum, decimal::zero);
    EXPECT_GT(decimal::maximum, dec(999999999, 0));
}

TEST(Decimal, CompareAlignsScales)
{
    struct Case {
        const char *name;
        decimal a, b;
        int expected;
    };
    const Case cases[] = {
        {"1.5 vs 1.50", dec(15, 1), dec(150, 2), 0},
        {"-1.5 vs -1.50", dec(-15, 1), dec(-150, 2), 0},
        {"zero at scale 3 vs zero", dec(0, 3), dec(0, 0), 0},
        {"zero vs negative", dec(0, 3), dec(-1, 0), 1},
        {"zero vs positive", dec(0, 3), dec(1, 0), -1},
        {"negative vs zero", dec(-1, 2), dec(0, 0), -1},
        {"signs differ", dec(-1, 5), dec(1, 0), -1},
        {"maximum vs one, cut-off", decimal::maximum, dec(1, 0), 1},
        {"one vs maximum, cut-off", dec(1, 0), decimal::maximum, -1},
        {"one vs 500", dec(1, 0), dec(5, -2), -1},
        {"1 vs 100e-4 (a million)", dec(1, 0), decimal::fromString(QStringLiteral("100e-4")), -1},
        {"1 vs 1.0000", dec(1, 0), dec(10000, 4), 0},
        {"-2 vs -1.5", dec(-2, 0), dec(-15, 1), -1},
        {"0.123 vs 0.12", dec(123, 3), dec(12, 2), 1},
        {"0.12 vs 0.123", dec(12, 2), dec(123, 3), -1},
        {"16 orders apart, equal", dec(1, 0), dec(10000000000000000LL, 16), 0},
        {"17 orders apart, cut-off", dec(1, 0), dec(72057594037927935LL, 17), 1},
        {"negative, 17 orders apart", dec(-1, 0), dec(-72057594037927935LL, 17), -1},
        {"same scale plain order", dec(-3, 2), dec(2, 2), -1},
        {"largest magnitudes", dec(-72057594037927936LL, 1), dec(-7205759403792793LL, 0), -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.a.compare(c.b), c.expected);
        EXPECT_EQ(c.b.compare(c.a), -c.expected);
    }
}

TEST(Decimal, EqualityIsNumericButIsEqualIsRepresentational)
{
    EXPECT_TRUE(dec(15, 1) == dec(150, 2));
    EXPECT_FALSE(dec(15, 1) != dec(150, 2));
    EXPECT_FALSE(dec(15, 1).isEqual(dec(150, 2)));
    EXPECT_TRUE(dec(15, 1).isEqual(dec(15, 1)));
    EXPECT_TRUE(dec(0, 3).isZero());
    EXPECT_TRUE(decimal().isZero());
    EXPECT_FALSE(dec(-1, 3).isZero());
    EXPECT_TRUE(dec(1, 0) <= dec(10, 1));
    EXPECT_TRUE(dec(1, 0) >= dec(10, 1));
}

TEST(Decimal, ArithmeticWorksAtTheLargerScale)
{
    const decimal sum = dec(15, 1) + dec(25, 2); // 1.5 + 0.25
    EXPECT_EQ(sum.value(), 175);
    EXPECT_EQ(sum.scale(), 2);

    const decimal difference = dec(1, 0) - dec(5, 3);
    EXPECT_EQ(difference.value(), 995);
    EXPECT_EQ(difference.scale(), 3);

    decimal total(1, 0);
    total += dec(5, 1);
    EXPECT_EQ(total.value(), 15);
    EXPECT_EQ(total.scale(), 1);
    total -= dec(25, 2);
    EXPECT_EQ(total.value(), 125);
    EXPECT_EQ(total.scale(), 2);

    EXPECT_EQ(dec(-15, 1).negative().value(), 15);
    EXPECT_EQ(dec(-15, 1).negative().scale(), 1);
    EXPECT_TRUE((dec(125, 2) * 3).isEqual(dec(375, 2)));
    EXPECT_TRUE((dec(125, 2) * 3LL).isEqual(dec(375, 2)));

    // No overflow check: bits past the mantissa are lost in packing.
    EXPECT_EQ((dec(72057594037927935LL, 0) + dec(1, 0)).value(), 0);
    EXPECT_EQ((dec(1, 0) * 72057594037927937LL).value(), 1);
}

TEST(Decimal, SetScaleRoundsHalfAwayFromZero)
{
    struct Case {
        const char *name;
        decimal value;
        short scale;
        long long mantissa;
    };
    const Case cases[] = {
        {"1.2349 to 2", dec(12349, 4), 2, 123},
        {"0.0951 to 1", dec(951, 4), 1, 1},
        {"-1.25 to 1", dec(-125, 2), 1, -13},
        {"1.25 to 0", dec(125, 2), 0, 1},
        {"1.5 to 0", dec(15, 1), 0, 2},
        {"-1.5 to 0", dec(-15, 1), 0, -2},
        {"0.04 to 0 rounds from zero", dec(4, 2), 0, 0},
        {"1.5 up to 3", dec(15, 1), 3, 1500},
        {"500 to 1", dec(5, -2), 1, 5000},
        {"12 to -1", dec(12, 0), -1, 1},
        {"15 to -1", dec(15, 0), -1, 2},
        {"same scale", dec(123, 2), 2, 123},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        decimal d = c.value;
        d.setScale(c.scale);
        EXPECT_EQ(d.value(), c.mantissa);
        EXPECT_EQ(d.scale(), c.scale);
    }

    decimal zero(0, 5);
    zero.setScale(-2);
    EXPECT_EQ(zero.to56s7(), decimal(0, -2).to56s7());
}

TEST(Decimal, DoubleConversions)
{
    EXPECT_DOUBLE_EQ(dec(15, 1).toDouble(), 1.5);
    EXPECT_DOUBLE_EQ(dec(5, -2).toDouble(), 500.0);
    EXPECT_DOUBLE_EQ(dec(-5, 3).toDouble(), -0.005);

    struct Case {
        const char *name;
        double value;
        short scale;
        long long mantissa;
    };
    const Case cases[] = {
        {"2.7 at 0 truncates", 2.7, 0, 2},
        {"-2.5 at 0 truncates", -2.5, 0, -2},
        {"1.25 at 1 rounds up", 1.25, 1, 13},
        {"-1.25 at 1 rounds down", -1.25, 1, -13},
        {"1234 at -2 truncates", 1234.0, -2, 12},
        {"1.5 at 6", 1.5, 6, 1500000},
        {"2.345 at 2, plain double arithmetic", 2.345, 2, static_cast<long long>(2.345 * 10.0 * 10.0 + 0.5)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const decimal d = decimal::fromDouble(c.value, c.scale);
        EXPECT_EQ(d.value(), c.mantissa);
        EXPECT_EQ(d.scale(), c.scale);
    }

    EXPECT_TRUE(throwsOverflow(72057594037927936.0, 0));
    EXPECT_TRUE(throwsOverflow(-72057594037927936.0, 0));
    EXPECT_TRUE(throwsOverflow(1e15, 2));
    EXPECT_TRUE(throwsOverflow(std::numeric_limits<double>::quiet_NaN(), 2));
    EXPECT_TRUE(throwsOverflow(std::numeric_limits<double>::infinity(), 0));
    EXPECT_FALSE(throwsOverflow(72057594037927935.0 - 64, 0));
}

TEST(Decimal, ToStringKeepsTrailingZeros)
{
    struct Case {
        decimal value;
        const char *text;
    };
    const Case cases[] = {
        {dec(100, 2), "1.00"},
        {dec(5, 2), "0.05"},
        {dec(-5, 3), "-0.005"},
        {dec(0, 2), "0.00"},
        {dec(5, -2), "500"},
        {dec(0, -3), "0"},
        {dec(-123, 0), "-123"},
        {dec(105, 2), "1.05"},
        // Formatted through double: digits beyond 2^53 are lost.
        {dec(9007199254740993LL, 1), "900719925474099.2"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(c.value.toString(), QString::fromLatin1(c.text));
    }
}

TEST(Decimal, FromStringAcceptsTheThreeShapes)
{
    struct Case {
        const char *text;
        long long mantissa;
        short scale;
    };
    const Case cases[] = {
        {"+7", 7, 0},
        {"-42", -42, 0},
        {"-.5", -5, 1},
        {".5", 5, 1},
        {"1.05", 105, 2},
        {"-0.0", 0, 1},
        {"12e3", 12, 3},   // the exponent is the scale
        {"15e2", 15, 2},   // 0.15
        {"1.5e2", 15, 1},  // 1.5
        {"15e-2", 15, -2}, // 1500
        {"-1.5e2", -15, 1},
        {"+2.50e3", 250, 1},
        // Beyond the 57-bit mantissa, as few trailing zeros as it takes
        // become a negative scale: toString writes 1 at scale -64 so.
        {"1" "0000000000" "0000000000" "0000000000" "0000000000" "0000000000" "0000000000" "0000", 10000000000000000,
         -48},
        {"-5" "0000000000" "0000000000", -50000000000000000, -4},
        {"1000000000000000000", 10000000000000000, -2}, // fits 64 bits but not the mantissa
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        const decimal d = decimal::fromString(QString::fromLatin1(c.text));
        EXPECT_EQ(d.value(), c.mantissa);
        EXPECT_EQ(d.scale(), c.scale);
        EXPECT_TRUE(decimal(QString::fromLatin1(c.text)).isEqual(d));
    }
}

TEST(Decimal, EveryWrittenTextReadsBack)
{
    // Extremes that used to overflow while parsing: they wrap, as the
    // arithmetic does (the sanitizer build checks there is no overflow).
    EXPECT_NO_THROW(decimal::fromString(QStringLiteral("-922337203685477580.8")));
    EXPECT_NO_THROW(decimal::fromString(QStringLiteral("1.5e-2147483648")));

    const long long mantissas[] = {0, 1, -1, 5, 123456789, (1LL << 53) - 1, (1LL << 55) + 3, -(1LL << 55)};
    for (short scale = -64; scale <= 63; ++scale) {
        for (long long m : mantissas) {
            const decimal d(m, scale);
            // Above 2^53 a positive scale writes through double: compare
            // with what the text says, not with the mantissa.
            const QString text = d.toString();
            SCOPED_TRACE(text.toStdString());
            const decimal back = decimal::fromString(text);
            EXPECT_EQ(back.toString(), text);
            if (scale <= 0 || m < (1LL << 53)) {
                EXPECT_EQ(back.compare(d), 0);
            }
        }
    }
}

TEST(Decimal, FromStringThrowsTranslatedMessages)
{
    for (const char *text : {"5.", "1,5", "", "abc", "1E5", "1.5.5", " 1", "99999999999999999999"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(fromStringError(QString::fromLatin1(text)), m1(QString::fromLatin1(text)));
    }
    // An integer part that does not fit names the sign group, not the digits.
    EXPECT_EQ(fromStringError(QStringLiteral("99999999999999999999.5")),
              QStringLiteral("Невозможно создать decimal по строке '99999999999999999999.5' ()"));
    EXPECT_EQ(fromStringError(QStringLiteral("-99999999999999999999.5")),
              QStringLiteral("Невозможно создать decimal по строке '-99999999999999999999.5' (-)"));
    EXPECT_EQ(fromStringError(QStringLiteral("1.99999999999999999999")), m1(QStringLiteral("1.99999999999999999999")));
    EXPECT_EQ(fromStringError(QStringLiteral("1e99999999999")), m1(QStringLiteral("1e99999999999")));
}

TEST(Decimal, CanConvertKnowsTheCommaShapes)
{
    struct Case {
        const char *text;
        bool expected;
    };
    const Case cases[] = {
        {"1,5", true}, {",5", true}, {"1,5e2", true}, {"15e2", true}, {"-.5", true},
        {"5.", false}, {"1.5.5", false}, {"abc", false}, {"1,", false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(decimal::canConvert(QString::fromLatin1(c.text), false), c.expected);
    }
    EXPECT_TRUE(decimal::canConvert(QString(), true));
    EXPECT_FALSE(decimal::canConvert(QStringLiteral(""), false));
}

TEST(Decimal, FromAnyStringFallsBackToTheLocale)
{
    bool ok = false;
    EXPECT_TRUE(decimal::fromAnyString(QStringLiteral("2.75"), &ok).isEqual(dec(275, 2)));
    EXPECT_TRUE(ok);
    EXPECT_TRUE(decimal::fromAnyString(QStringLiteral("abc"), &ok).isEqual(decimal()));
    EXPECT_FALSE(ok);
    EXPECT_TRUE(decimal::fromAnyString(QStringLiteral("abc")).isZero()); // ok may be null
}

TEST(Decimal, VariantRoundTripsAndConversions)
{
    const QVariant v = dec(-125, 2).toVariant();
    EXPECT_EQ(v.userType(), decimal::metatypeId());
    EXPECT_TRUE(decimal::canConvert(v));

    struct Case {
        const char *name;
        QVariant value;
        decimal expected;
        bool ok;
    };
    const Case cases[] = {
        {"decimal", v, dec(-125, 2), true},
        {"int at scale 5", QVariant(3), dec(300000, 5), true},
        {"unsigned", QVariant(3u), dec(300000, 5), true},
        {"long long", QVariant(qlonglong(-2)), dec(-200000, 5), true},
        {"double", QVariant(1.5), dec(150000, 5), true},
        {"string", QVariant(QStringLiteral("1.5")), dec(15, 1), true},
        {"date", QVariant(QDate(2020, 1, 1)), decimal(), false},
        {"invalid", QVariant(), decimal(), false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        bool ok = !c.ok;
        EXPECT_TRUE(decimal::fromVariant(c.value, &ok).isEqual(c.expected));
        EXPECT_EQ(ok, c.ok);
    }

    EXPECT_TRUE(decimal::canConvert(QVariant(QStringLiteral("1,5"))));
    EXPECT_FALSE(decimal::canConvert(QVariant(QStringLiteral("x"))));
    EXPECT_FALSE(decimal::canConvert(QVariant(5)));
    EXPECT_THROW(decimal::fromVariant(QVariant(QStringLiteral("x"))), QString);
}

// The system locale is German here: ',' as decimal point, '.' as group separator.
TEST(DecimalCommaLocale, SystemFormsUseTheLocale)
{
    ASSERT_EQ(QLocale::system().decimalPoint(), QLatin1Char(','));
    EXPECT_EQ(dec(150, 2).toExcelString(), QStringLiteral("1,50"));
    EXPECT_EQ(dec(150, 2).toSystemString(), QStringLiteral("1,50"));
    EXPECT_EQ(dec(5, -2).toSystemString(), QStringLiteral("500"));
    EXPECT_EQ(dec(150, 2).toSystemStringShort(), QStringLiteral("1,5"));
    EXPECT_EQ(dec(200, 2).toSystemStringShort(), QStringLiteral("2"));
    EXPECT_EQ(dec(100, 0).toSystemStringShort(), QStringLiteral("100")); // no point: zeros stay
}

TEST(DecimalCommaLocale, SystemParsingUsesTheLocale)
{
    ASSERT_EQ(QLocale::system().decimalPoint(), QLatin1Char(','));
    EXPECT_TRUE(decimal::fromSystemString(QStringLiteral("1,5"), 2).isEqual(dec(150, 2)));
    try {
        decimal::fromSystemString(QStringLiteral("1.5x"), 2);
        ADD_FAILURE() << "no error";
    } catch (const QString &message) {
        EXPECT_EQ(message, QStringLiteral("Error in input local string '1.5x'"));
    }
    bool ok = false;
    EXPECT_TRUE(decimal::fromAnyString(QStringLiteral("1,5"), &ok).isEqual(dec(150000, 5)));
    EXPECT_TRUE(ok);
    EXPECT_TRUE(decimal::fromAnyString(QStringLiteral("1.5"), &ok).isEqual(dec(15, 1)));
}

TEST(Decimal, QtConveniences)
{
    const decimal value(105, 2);
    const QVariant variant = QVariant::fromValue(value);
    EXPECT_EQ(variant.toString(), QStringLiteral("1.05"));
    EXPECT_DOUBLE_EQ(variant.toDouble(), 1.05);
    EXPECT_EQ(QVariant(QStringLiteral("-2.50")).value<decimal>().toString(), QStringLiteral("-2.50"));
    EXPECT_EQ(QVariant(QStringLiteral("junk")).value<decimal>().toString(), QStringLiteral("0"));
    EXPECT_EQ(QVariant::fromValue(decimal(15, 1)), QVariant::fromValue(decimal(150, 2))); // by value
    EXPECT_EQ(qHash(decimal(15, 1)), qHash(decimal(150, 2)));
    EXPECT_EQ(qHash(decimal(0, 3)), qHash(decimal(0, 0)));
    EXPECT_NE(qHash(decimal(15, 1)), qHash(decimal(15, 2)));
    QString text;
    QDebug(&text) << value;
    EXPECT_EQ(text.trimmed(), QStringLiteral("decimal(1.05)"));
    EXPECT_EQ(variant.userType(), decimal::metatypeId());
}
