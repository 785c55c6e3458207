#include "datetime.h"

#include <QtCore/QDebug>

#include <atomic>

namespace {

const QString &defaultFormatText()
{
    static const QString format = QStringLiteral("yyyy.MM.dd HH:mm:ss.zzz");
    return format;
}

const QString &timeSuffix()
{
    static const QString suffix = QStringLiteral(" HH:mm:ss.zzz");
    return suffix;
}

// The wall-clock rule: the fields of any QDateTime, read as UTC.
long long stampOf(QDateTime value)
{
    value.setTimeSpec(Qt::UTC);
    return value.toMSecsSinceEpoch();
}

long long stampOf(const QDate &date, const QTime &time)
{
    return stampOf(QDateTime(date, time, Qt::UTC));
}

// QDateTime::fromString() reads local time, where a reading inside a
// daylight-saving gap does not exist and fails. Asking the parser for a UTC
// reading keeps every wall-clock time parsable in every zone; a format that
// already names a zone or quotes text is left to the plain parser.
QDateTime parseFields(const QString &text, const QString &format)
{
    if (!format.contains(QLatin1Char('t')) && !format.contains(QLatin1Char('\'')))
        return QDateTime::fromString(text + QLatin1String(" UTC"), format + QLatin1String(" t"));
    return QDateTime::fromString(text, format);
}

long long parseStamp(const QString &text, const QString &format)
{
    return stampOf(parseFields(text, format));
}

QDateTime utcFields(long long stamp)
{
    return QDateTime::fromMSecsSinceEpoch(stamp, Qt::UTC);
}

} // namespace

datetime::datetime(const QDateTime &value)
    : m_stamp(stampOf(value))
{
}

datetime::datetime(const QDate &date)
    : m_stamp(stampOf(date, QTime(0, 0)))
{
}

datetime::datetime(const QDate &date, const QTime &time)
    : m_stamp(stampOf(date, time))
{
}

datetime::datetime(const QDate &date, const QString &time)
{
    // The first format is the whole default format applied to a time text;
    // it never matches a bare time and is kept for compatibility.
    QTime t;
    for (const QString &format : {defaultFormatText(), QStringLiteral("HH:mm:ss.zzz"), QStringLiteral("HH:mm:ss")}) {
        t = QTime::fromString(time, format);
        if (t.isValid())
            break;
    }
    m_stamp = stampOf(date, t);
}

datetime::datetime(const QString &text)
{
    QDateTime parsed;
    for (const QString &format : {defaultFormatText(), QStringLiteral("yyyy-MM-dd HH:mm:ss"),
                                  QStringLiteral("yyyy.MM.dd"), QStringLiteral("yyyy-MM-dd")}) {
        parsed = parseFields(text, format);
        if (parsed.isValid())
            break;
    }
    m_stamp = stampOf(parsed);
}

datetime::datetime(int year, int month, int day, int hour, int minute, int second, int msec)
{
    set(year, month, day, hour, minute, second, msec);
}

void datetime::set(int year, int month, int day, int hour, int minute, int second, int msec)
{
    m_stamp = stampOf(QDate(year, month, day), QTime(hour, minute, second, msec));
}

datetime datetime::fromString(const QString &text, const QString &format)
{
    return datetime(parseStamp(text, format));
}

datetime datetime::now()
{
    return datetime(stampOf(QDateTime::currentDateTime()));
}

void datetime::get(int *year, int *month, int *day, int *hour, int *minute, int *second, int *msec) const
{
    const QDateTime fields = utcFields(m_stamp);
    fields.date().getDate(year, month, day);
    const QTime time = fields.time();
    if (hour)
        *hour = time.hour();
    if (minute)
        *minute = time.minute();
    if (second)
        *second = time.second();
    if (msec)
        *msec = time.msec();
}

QDate datetime::getDate() const
{
    return utcFields(m_stamp).date();
}

QTime datetime::getTime() const
{
    return utcFields(m_stamp).time();
}

QDateTime datetime::getDateTime() const
{
    return utcFields(m_stamp);
}

datetime::operator QDateTime() const
{
    QDateTime local = utcFields(m_stamp);
    local.setTimeSpec(Qt::LocalTime);
    return local;
}

datetime datetime::toDate() const
{
    return datetime(getDate());
}

datetime datetime::addSecs(long long secs) const noexcept
{
    return datetime(wrapAdd(m_stamp, static_cast<unsigned long long>(secs) * 1000u));
}

datetime datetime::addDays(int days) const noexcept
{
    // 32-bit product on purpose: stored data and callers depend on the wrap.
    const qint32 product = static_cast<qint32>(static_cast<quint32>(days) * 86400000u);
    return datetime(wrapAdd(m_stamp, static_cast<unsigned long long>(static_cast<long long>(product))));
}

datetime datetime::addMonths(int months) const
{
    const QDateTime fields = utcFields(m_stamp);
    return datetime(fields.date().addMonths(months), fields.time());
}

datetime datetime::addYears(int years) const
{
    const QDateTime fields = utcFields(m_stamp);
    return datetime(fields.date().addYears(years), fields.time());
}

QString datetime::toString(const QString &format) const
{
    if (m_stamp == 0)
        return QString();
    // The stored fields, formatted without passing through the local zone.
    return utcFields(m_stamp).toString(format);
}

QString datetime::toString() const
{
    return toString(defaultFormatText());
}

QString datetime::defaultFormat()
{
    return defaultFormatText();
}

QString datetime::sqlFormat(bool withMSecs)
{
    return withMSecs ? QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz") : QStringLiteral("yyyy-MM-dd HH:mm:ss");
}

QString datetime::toSystemString(bool dateOnly, QLocale::FormatType type) const
{
    if (m_stamp == 0)
        return QString();
    QString format = QLocale::system().dateFormat(type);
    if (!dateOnly)
        format += timeSuffix();
    return toString(format);
}

datetime datetime::fromSystemString(const QString &text, bool dateOnly, QLocale::FormatType type)
{
    QString format = QLocale::system().dateFormat(type);
    const bool fourDigitYear = format.contains(QLatin1String("yyyy"));
    if (!dateOnly)
        format += timeSuffix();
    const datetime parsed(parseStamp(text, format));
    if (parsed.isZero())
        return datetime();
    if (fourDigitYear)
        return parsed;
    // Two-digit years come back as 19xx.
    return datetime(parsed.getDate().addYears(100), parsed.getTime());
}

int datetime::metatypeId()
{
    // The dummy pointer stops qRegisterMetaType asking back for the id.
    static const int id = qRegisterMetaType<datetime>("datetime", reinterpret_cast<datetime *>(quintptr(-1)));
    // Registering a converter asks for the id again: the flag, set before,
    // lets that call through.
    static std::atomic<bool> converters{false};
    if (!converters.exchange(true)) {
        QMetaType::registerConverter<datetime, QString>([](const datetime &value) { return value.toString(); });
        QMetaType::registerConverter<datetime, QDateTime>(&datetime::getDateTime);
        QMetaType::registerConverter<QString, datetime>([](const QString &text) {
            try {
                return datetime(text);
            } catch (...) {
                return datetime();
            }
        });
        QMetaType::registerComparators<datetime>();
        QMetaType::registerDebugStreamOperator<datetime>();
    }
    return id;
}

QDebug operator<<(QDebug debug, const datetime &value)
{
    QDebugStateSaver saver(debug);
    debug.nospace().noquote() << "datetime(" << value.toString() << ')';
    return debug;
}

uint qHash(const datetime &value, uint seed) noexcept
{
    return ::qHash(value.data(), seed);
}

QVariant datetime::toVariant() const
{
    return QVariant(metatypeId(), this);
}
