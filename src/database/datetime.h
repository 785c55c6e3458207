#ifndef DATABASE_DATETIME_H
#define DATABASE_DATETIME_H

#include "database_export.h"

#include <QtCore/QDateTime>
#include <QtCore/QLocale>
#include <QtCore/QMetaType>
#include <QtCore/QString>
#include <QtCore/QVariant>

// datetime: the time stamp of DateTime columns, one signed 64-bit count of
// milliseconds. It carries no time zone: a wall-clock reading (date and time
// of day as the user or a data source gives it) is stored as the
// milliseconds from 1970-01-01 00:00:00.000 to that reading counted as if it
// were UTC, and reads back as the same fields whatever the machine's zone.
//
// Every conversion follows that rule:
//   - from a QDateTime of any time spec: the fields are re-labelled as UTC
//     (setTimeSpec(Qt::UTC), no shift) and the epoch milliseconds taken;
//   - to fields: the stamp read as a UTC QDateTime.
// Texts are parsed and formatted on those fields too, so a wall-clock time
// that does not exist in the machine's zone (a daylight-saving gap) is kept,
// parsed and printed like any other.
//
// The stamp 0 doubles as the empty value: isZero() tests it, and the text
// conversions answer a null QString for it.
//
// No operation throws. Arithmetic does not check for overflow; addDays()
// multiplies in 32 bits, as files and callers expect.
class QDebug;

class DATABASE_EXPORT datetime
{
public:
    constexpr datetime() noexcept : m_stamp(0) {}
    constexpr explicit datetime(long long stamp) noexcept : m_stamp(stamp) {}
    datetime(const QDateTime &value);
    datetime(const QDate &date);
    datetime(const QDate &date, const QTime &time);
    // Tries the time formats "yyyy.MM.dd HH:mm:ss.zzz" (sic), "HH:mm:ss.zzz"
    // and "HH:mm:ss"; an unparsable time gives the date at 00:00.
    datetime(const QDate &date, const QString &time);
    // Tries "yyyy.MM.dd HH:mm:ss.zzz", "yyyy-MM-dd HH:mm:ss", "yyyy.MM.dd",
    // "yyyy-MM-dd"; text matching none gives the stamp 0.
    explicit datetime(const QString &text);
    datetime(int year, int month, int day, int hour = 0, int minute = 0, int second = 0, int msec = 0);

    void set(int year, int month, int day, int hour, int minute, int second, int msec);

    static datetime fromString(const QString &text, const QString &format);
    // The machine's local wall clock.
    static datetime now();

    long long data() const noexcept { return m_stamp; }
    unsigned long long toMSecsSinceEpoch() const noexcept { return static_cast<unsigned long long>(m_stamp); }

    // Fields of the stored reading. Year, month and day go to QDate::getDate;
    // the time pointers are written when not null.
    void get(int *year, int *month, int *day, int *hour = nullptr, int *minute = nullptr, int *second = nullptr,
             int *msec = nullptr) const;
    QDate getDate() const;
    QTime getTime() const;
    // The fields with time spec UTC.
    QDateTime getDateTime() const;
    // The fields with time spec local time.
    operator QDateTime() const;
    datetime toDate() const;

    int compare(const datetime &o) const noexcept { return m_stamp < o.m_stamp ? -1 : (m_stamp > o.m_stamp ? 1 : 0); }
    bool operator==(const datetime &o) const noexcept { return m_stamp == o.m_stamp; }
    bool operator!=(const datetime &o) const noexcept { return m_stamp != o.m_stamp; }
    bool operator<(const datetime &o) const noexcept { return m_stamp < o.m_stamp; }
    bool operator>(const datetime &o) const noexcept { return m_stamp > o.m_stamp; }
    bool operator<=(const datetime &o) const noexcept { return m_stamp <= o.m_stamp; }
    bool operator>=(const datetime &o) const noexcept { return m_stamp >= o.m_stamp; }
    bool isEqual(const datetime &o) const noexcept { return m_stamp == o.m_stamp; }
    bool isZero() const noexcept { return m_stamp == 0; }

    datetime addMSecs(long long msecs) const noexcept { return datetime(wrapAdd(m_stamp, msecs)); }
    datetime addSecs(long long secs) const noexcept;
    // n x 86400000 is computed in 32 bits and wraps from |n| = 25 on.
    datetime addDays(int days) const noexcept;
    datetime addMonths(int months) const;
    datetime addYears(int years) const;
    long long msecsTo(const datetime &other) const noexcept { return wrapAdd(other.m_stamp, 0 - static_cast<unsigned long long>(m_stamp)); }
    long long secsTo(const datetime &other) const noexcept { return msecsTo(other) / 1000; }

    // A datetime used as a duration: plain sums and differences of stamps.
    datetime operator+(const datetime &o) const noexcept { return datetime(wrapAdd(m_stamp, o.m_stamp)); }
    datetime operator-(const datetime &o) const noexcept { return datetime(o.msecsTo(*this)); }
    datetime &operator+=(const datetime &o) noexcept { return *this = *this + o; }
    datetime &operator-=(const datetime &o) noexcept { return *this = *this - o; }

    // Null for the stamp 0.
    QString toString(const QString &format) const;
    QString toString() const;
    static QString defaultFormat();
    static QString sqlFormat(bool withMSecs);
    // The system locale's date format of the given type, with " HH:mm:ss.zzz"
    // appended unless dateOnly. Null for the stamp 0.
    QString toSystemString(bool dateOnly = false, QLocale::FormatType format = QLocale::ShortFormat) const;
    // Reads text in the format toSystemString() writes. A locale format with
    // a two-digit year reads 19xx and is moved a century on (05.03.24 is
    // 2024-03-05). Unparsable text gives the stamp 0.
    static datetime fromSystemString(const QString &text, bool dateOnly = false,
                                     QLocale::FormatType format = QLocale::ShortFormat);

    // Id of the meta-type "datetime", registered on the first call.
    static int metatypeId();
    QVariant toVariant() const;

private:
    static long long wrapAdd(long long a, unsigned long long b) noexcept
    {
        return static_cast<long long>(static_cast<unsigned long long>(a) + b);
    }

    long long m_stamp;
};

Q_DECLARE_TYPEINFO(datetime, Q_MOVABLE_TYPE);
// QVariant and Qt conveniences. The meta-type is registered on first use
// (metatypeId()), with converters to and from QString (toString() and the
// text constructor, an unreadable text giving the empty value) and to
// QDateTime, comparators and the debug stream operator.
template <>
struct QMetaTypeId<datetime>
{
    enum { Defined = 1 };
    static int qt_metatype_id() { return datetime::metatypeId(); }
};
// datetime(2024.03.05 10:00:00.000)
DATABASE_EXPORT QDebug operator<<(QDebug debug, const datetime &value);
DATABASE_EXPORT uint qHash(const datetime &value, uint seed = 0) noexcept;

#endif // DATABASE_DATETIME_H
