#include "testutil.h"

#include <database/datetime.h>

#include <QtCore/QDebug>
#include <QtCore/QLocale>

#include <gtest/gtest.h>

#include <cstdlib>

// These tests run under several time zones (TZ) and locales: a datetime must
// give the same stamps and fields in all of them.

namespace {

// 2020-01-01 10:00:00.000 read as UTC.
constexpr long long newYearTen = 1577872800000LL;

} // namespace

TEST(Datetime, TheZoneInForceIsTheOneRequested)
{
    const char *expected = std::getenv("DATABASE_TEST_UTC_OFFSET");
    const QDateTime local(QDate(2020, 1, 15), QTime(12, 0), Qt::LocalTime);
    EXPECT_EQ(local.offsetFromUtc(), expected ? std::atoi(expected) : 0);
}

TEST(Datetime, WallClockIsReadAsUtcInEveryZone)
{
    const QDateTime local(QDate(2020, 1, 1), QTime(10, 0), Qt::LocalTime);
    const QDateTime utc(QDate(2020, 1, 1), QTime(10, 0), Qt::UTC);
    const QDateTime offset(QDate(2020, 1, 1), QTime(10, 0), Qt::OffsetFromUTC, 3 * 3600);
    EXPECT_EQ(datetime(local).data(), newYearTen);
    EXPECT_EQ(datetime(utc).data(), newYearTen);
    EXPECT_EQ(datetime(offset).data(), newYearTen);
    EXPECT_EQ(datetime(2020, 1, 1, 10, 0, 0, 0).data(), newYearTen);
    EXPECT_EQ(datetime(QDate(2020, 1, 1), QTime(10, 0)).data(), newYearTen);
    EXPECT_EQ(datetime(QDate(2020, 1, 1)).data(), newYearTen - 10 * 3600 * 1000);

    const datetime d(newYearTen);
    EXPECT_EQ(d.getTime(), QTime(10, 0));
    EXPECT_EQ(d.getDate(), QDate(2020, 1, 1));
    EXPECT_EQ(d.getDateTime().timeSpec(), Qt::UTC);
    EXPECT_EQ(d.getDateTime().time(), QTime(10, 0));
    const QDateTime asLocal = d;
    EXPECT_EQ(asLocal.timeSpec(), Qt::LocalTime);
    EXPECT_EQ(asLocal.date(), QDate(2020, 1, 1));
    EXPECT_EQ(asLocal.time(), QTime(10, 0));
}

TEST(Datetime, DaylightSavingGapsAreOrdinaryReadings)
{
    // 02:30 does not exist on these days in Europe and in North America.
    for (const QDate &day : {QDate(2024, 3, 31), QDate(2024, 3, 10)}) {
        SCOPED_TRACE(day.toString(Qt::ISODate).toStdString());
        const datetime d(day.year(), day.month(), day.day(), 2, 30, 0, 0);
        EXPECT_EQ(d.getTime(), QTime(2, 30));
        const QString text = day.toString(QStringLiteral("yyyy.MM.dd")) + QStringLiteral(" 02:30:00.000");
        EXPECT_EQ(d.toString(), text);
        EXPECT_EQ(datetime(text), d);
        EXPECT_EQ(datetime::fromString(text, datetime::defaultFormat()), d);
        EXPECT_EQ(datetime::fromSystemString(d.toSystemString()), d);
    }
}

TEST(Datetime, StringConstructorTriesFourFormats)
{
    struct Case {
        const char *text;
        datetime expected;
    };
    const Case cases[] = {
        {"2024.03.05 10:11:12.345", datetime(2024, 3, 5, 10, 11, 12, 345)},
        {"2024-03-05 10:11:12", datetime(2024, 3, 5, 10, 11, 12, 0)},
        {"2024.03.05", datetime(2024, 3, 5, 0, 0, 0, 0)},
        {"2024-03-05", datetime(2024, 3, 5, 0, 0, 0, 0)},
        // Matches none of the four formats: the stamp of an invalid QDateTime.
        {"2024-03-05 10:11:12.345", datetime()},
        {"yesterday", datetime()},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(datetime(QString::fromLatin1(c.text)).data(), c.expected.data());
    }
}

TEST(Datetime, DateAndTimeTextConstructor)
{
    const QDate day(2024, 3, 5);
    EXPECT_EQ(datetime(day, QStringLiteral("10:11:12.345")), datetime(2024, 3, 5, 10, 11, 12, 345));
    EXPECT_EQ(datetime(day, QStringLiteral("10:11:12")), datetime(2024, 3, 5, 10, 11, 12, 0));
    EXPECT_EQ(datetime(day, QStringLiteral("noon")), datetime(day));
}

TEST(Datetime, ZeroIsEmptyAndPrintsNull)
{
    const datetime zero;
    EXPECT_TRUE(zero.isZero());
    EXPECT_TRUE(zero.toString().isNull());
    EXPECT_TRUE(zero.toString(QStringLiteral("yyyy")).isNull());
    EXPECT_TRUE(zero.toSystemString().isNull());
    EXPECT_TRUE(zero.toSystemString(true, QLocale::LongFormat).isNull());
    EXPECT_EQ(zero.getDate(), QDate(1970, 1, 1));
    EXPECT_FALSE(datetime(1).isZero());
}

TEST(Datetime, Arithmetic)
{
    const datetime d(newYearTen);
    EXPECT_EQ(d.addMSecs(5).data(), newYearTen + 5);
    EXPECT_EQ(d.addSecs(-90).data(), newYearTen - 90000);
    EXPECT_EQ(d.addDays(24).data(), newYearTen + 2073600000LL);
    // 25 days overflow the 32-bit product, as they always did.
    EXPECT_EQ(d.addDays(25).data(), newYearTen - 2134967296LL);
    EXPECT_EQ(d.addDays(-1).getDate(), QDate(2019, 12, 31));

    EXPECT_EQ(datetime(2024, 1, 31, 10, 0, 0, 0).addMonths(1), datetime(2024, 2, 29, 10, 0, 0, 0));
    EXPECT_EQ(datetime(2024, 2, 29, 7, 0, 0, 0).addYears(1), datetime(2025, 2, 28, 7, 0, 0, 0));
    EXPECT_EQ(datetime(2024, 3, 5, 10, 11, 12, 345).toDate(), datetime(2024, 3, 5, 0, 0, 0, 0));

    EXPECT_EQ(datetime(1500).secsTo(datetime(0)), -1);
    EXPECT_EQ(datetime(0).secsTo(datetime(2500)), 2);
    EXPECT_EQ(datetime(100).msecsTo(datetime(40)), -60);

    datetime sum(1000);
    sum += datetime(500);
    EXPECT_EQ(sum.data(), 1500);
    sum -= datetime(2000);
    EXPECT_EQ(sum.data(), -500);
    EXPECT_EQ((datetime(7) + datetime(3)).data(), 10);
    EXPECT_EQ((datetime(7) - datetime(3)).data(), 4);
}

TEST(Datetime, FieldsAndFormats)
{
    const datetime d(2024, 3, 5, 10, 11, 12, 345);
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, msec = 0;
    d.get(&year, &month, &day, &hour, &minute, &second, &msec);
    EXPECT_EQ(QList<int>({year, month, day, hour, minute, second, msec}), QList<int>({2024, 3, 5, 10, 11, 12, 345}));
    hour = -1;
    d.get(&year, &month, &day, nullptr, nullptr, nullptr, &msec);
    EXPECT_EQ(hour, -1);

    EXPECT_EQ(d.toString(), QStringLiteral("2024.03.05 10:11:12.345"));
    EXPECT_EQ(d.toString(datetime::sqlFormat(true)), QStringLiteral("2024-03-05 10:11:12.345"));
    EXPECT_EQ(d.toString(datetime::sqlFormat(false)), QStringLiteral("2024-03-05 10:11:12"));
    EXPECT_EQ(datetime::defaultFormat(), QStringLiteral("yyyy.MM.dd HH:mm:ss.zzz"));
    EXPECT_EQ(datetime::fromString(QStringLiteral("05/03/2024 10:11"), QStringLiteral("dd/MM/yyyy HH:mm")),
              datetime(2024, 3, 5, 10, 11, 0, 0));
}

TEST(Datetime, SystemStringRoundTrips)
{
    const datetime d(2024, 3, 5, 10, 11, 12, 345);
    EXPECT_EQ(datetime::fromSystemString(d.toSystemString()), d);
    EXPECT_EQ(datetime::fromSystemString(d.toSystemString(true), true), d.toDate());
    EXPECT_TRUE(datetime::fromSystemString(QStringLiteral("not a date")).isZero());
}

TEST(Datetime, NowIsTheLocalWallClock)
{
    const datetime before(QDateTime::currentDateTime());
    const datetime now = datetime::now();
    EXPECT_GE(before.msecsTo(now), 0);
    EXPECT_LT(before.msecsTo(now), 5000);
}

// The system locale is German here: the short date format is "dd.MM.yy".
TEST(DatetimeCommaLocale, TwoDigitYearsAreThisCentury)
{
    ASSERT_EQ(QLocale::system().dateFormat(QLocale::ShortFormat), QStringLiteral("dd.MM.yy"));
    EXPECT_EQ(datetime::fromSystemString(QStringLiteral("05.03.24"), true), datetime(2024, 3, 5, 0, 0, 0, 0));
    EXPECT_EQ(datetime::fromSystemString(QStringLiteral("05.03.24 10:11:12.345")),
              datetime(2024, 3, 5, 10, 11, 12, 345));
    EXPECT_EQ(datetime(2024, 3, 5, 10, 11, 12, 345).toSystemString(), QStringLiteral("05.03.24 10:11:12.345"));
    EXPECT_EQ(datetime(2024, 3, 5).toSystemString(true), QStringLiteral("05.03.24"));
    // A four-digit-year format keeps the year as read.
    EXPECT_EQ(datetime::fromSystemString(QStringLiteral("Dienstag, 5. März 2024"), true, QLocale::LongFormat),
              datetime(2024, 3, 5));
}

TEST(Datetime, QtConveniences)
{
    const datetime value(QDate(2024, 3, 5), QTime(10, 1, 2, 3));
    const QVariant variant = QVariant::fromValue(value);
    EXPECT_EQ(variant.toString(), value.toString());
    EXPECT_EQ(variant.toDateTime(), value.getDateTime());
    EXPECT_EQ(QVariant(value.toString()).value<datetime>(), value);
    EXPECT_EQ(QVariant::fromValue(value), QVariant::fromValue(datetime(value.data())));
    EXPECT_EQ(qHash(value), qHash(datetime(value.data())));
    QString text;
    QDebug(&text) << value;
    EXPECT_EQ(text.trimmed(), QStringLiteral("datetime(") + value.toString() + QLatin1Char(')'));
}
