#include "field.h"

#include "exception.h"

#include <QtCore/QLocale>
#include <QtCore/QMap>
#include <QtCore/QStringList>

#include <cmath>
#include <limits>

namespace {

// The scale a double takes in a Decimal field: one digit more than a
// decimal made from a number elsewhere (decimal.cpp's NumberScale), as
// stored data expects.
constexpr short DoubleScale = 6;

Exception incorrectConversion()
{
    return Exception(QStringLiteral("Incorrect type conversion."));
}

QString incorrectType()
{
    return QStringLiteral("Incorrect type of field.");
}

// C++ leaves out-of-range conversions from double undefined; these saturate
// (NaN gives 0) and otherwise truncate towards zero.
template <typename Int>
Int truncated(double value)
{
    if (std::isnan(value))
        return 0;
    if (value <= static_cast<double>(std::numeric_limits<Int>::min()))
        return std::numeric_limits<Int>::min();
    if (value >= static_cast<double>(std::numeric_limits<Int>::max()))
        return std::numeric_limits<Int>::max();
    return static_cast<Int>(value);
}

int clampedToInt(long long value)
{
    return static_cast<int>(qBound<long long>(std::numeric_limits<int>::min(), value, std::numeric_limits<int>::max()));
}

} // namespace

// ---------------------------------------------------------------------------
// Names and errors

QString Field::typeName() const
{
    return typeName(type());
}

QString Field::typeName(FieldType::Type type)
{
    switch (type) {
    case FieldType::Invalid:
        return QStringLiteral("Invalid");
    case FieldType::Integer:
        return QStringLiteral("Integer");
    case FieldType::Integer64:
        return QStringLiteral("Integer64");
    case FieldType::Double:
        return QStringLiteral("Double");
    case FieldType::Decimal:
        return QStringLiteral("Decimal");
    case FieldType::String:
        return QStringLiteral("String");
    case FieldType::DateTime:
        return QStringLiteral("DateTime");
    default:
        return QStringLiteral("undefined");
    }
}

void Field::incompatibleType(FieldType::Type columnType, FieldType::Type sourceType)
{
    throw Exception(QStringLiteral("Can't convert from %1 to %2")
                        .arg(QString::fromLatin1(FieldType::typeName(sourceType)),
                             QString::fromLatin1(FieldType::typeName(columnType))));
}

void Field::incompatibleType(FieldType::Type sourceType) const
{
    incompatibleType(type(), sourceType);
}

// ---------------------------------------------------------------------------
// Board lists

QString Field::boardlistToString(const boardlist &value)
{
    if (value.count < 1)
        return QString();
    // A stored count may be anything: never read past the 50 entries.
    const int count = std::min<int>(value.count, 50);
    QMap<QString, QStringList> groups;
    for (int i = 0; i < count; ++i)
        groups[QString::number(value.entries[i].first)].append(QString::number(value.entries[i].second));
    QStringList parts;
    for (auto it = groups.cbegin(); it != groups.cend(); ++it)
        parts.append(it.key() + QLatin1Char(':') + it.value().join(QLatin1Char(',')));
    return parts.join(QLatin1Char(' '));
}

boardlist Field::boardlistFromString(const QString &text)
{
    boardlist result;
    std::memset(&result, 0, sizeof result);
    const QStringList groups = text.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    for (const QString &group : groups) {
        const QStringList parts = group.split(QLatin1Char(':'));
        if (parts.size() != 2)
            continue;
        bool ok = false;
        const int first = parts[0].toInt(&ok, 10);
        if (!ok)
            continue;
        const QStringList seconds = parts[1].split(QLatin1Char(','));
        for (const QString &piece : seconds) {
            const int second = piece.toInt(&ok, 10);
            if (!ok)
                continue;
            // Text holds at most 49 pairs, although the structure has 50.
            if (result.count + 1 >= 50)
                throw "List size exceed";
            result.entries[result.count].first = first;
            result.entries[result.count].second = second;
            ++result.count;
        }
    }
    return result;
}

// ---------------------------------------------------------------------------
// Readers

int Field::toInteger() const
{
    if (isNull())
        return 0;
    switch (type()) {
    case FieldType::Integer:
        return asInteger();
    case FieldType::Integer64:
        return clampedToInt(asInteger64());
    default:
        throw incorrectConversion();
    }
}

long long Field::toInteger64() const
{
    if (isNull())
        return 0;
    switch (type()) {
    case FieldType::Integer:
        return asInteger();
    case FieldType::Integer64:
        return asInteger64();
    default:
        throw incorrectConversion();
    }
}

double Field::toDouble() const
{
    if (isNull())
        return 0.0;
    switch (type()) {
    case FieldType::Integer:
        return asInteger();
    case FieldType::Integer64:
        return static_cast<double>(asInteger64());
    case FieldType::Double:
        return asDouble();
    case FieldType::Decimal:
        return toDecimal().toDouble();
    default:
        throw incorrectConversion();
    }
}

decimal Field::toDecimal() const
{
    if (isNull())
        return decimal();
    if (type() != FieldType::Decimal)
        throw incorrectConversion();
    return FieldType::getDecimal(m_data, length());
}

datetime Field::toDatetime() const
{
    if (isNull())
        return datetime();
    switch (type()) {
    case FieldType::DateTime:
        return asDatetime();
    case FieldType::String:
        return datetime(toString());
    default:
        throw incorrectConversion();
    }
}

namespace {

// A DateTime reader: the null result, the type check, then `read` of the stamp.
template <typename Result, typename Read>
Result readStamp(const Field &field, Read read)
{
    if (field.isNull())
        return Result();
    if (field.type() != FieldType::DateTime)
        throw incorrectConversion();
    return read(field.asDatetime());
}

} // namespace

QDateTime Field::toQDateTime() const
{
    return readStamp<QDateTime>(*this, [](const datetime &d) { return d.getDateTime(); });
}

QDate Field::toQDate() const
{
    return readStamp<QDate>(*this, [](const datetime &d) { return d.getDate(); });
}

QTime Field::toQTime() const
{
    return readStamp<QTime>(*this, [](const datetime &d) { return d.getTime(); });
}

boardlist Field::toBoardlist() const
{
    boardlist result;
    if (isNull()) {
        std::memset(&result, 0, sizeof result);
        return result;
    }
    if (type() != FieldType::BoardList)
        throw incorrectConversion();
    std::memcpy(&result, m_data, sizeof result);
    return result;
}

QString Field::asString() const
{
    if (isNull())
        return QString();
    if (type() != FieldType::String)
        throw incorrectType();
    return FieldType::getString(m_data, length());
}

QChar Field::asChar() const
{
    if (isNull())
        throw QStringLiteral("String is null for QChar");
    if (type() != FieldType::String)
        throw incorrectType();
    if (length() != 1)
        throw QStringLiteral("String length is not 1 for QChar: %1.").arg(length());
    ushort unit;
    std::memcpy(&unit, m_data, sizeof unit);
    return QChar(unit);
}

QChar Field::toChar() const
{
    if (isNull())
        return QChar(0);
    return asChar();
}

// ---------------------------------------------------------------------------
// Text and variants

QString Field::toString() const
{
    if (isNull())
        return QString();
    switch (type()) {
    case FieldType::Invalid:
        return QStringLiteral("");
    case FieldType::Integer:
        return QString::number(asInteger());
    case FieldType::Integer64:
        return QString::number(asInteger64());
    case FieldType::Double:
        return QStringLiteral("%1").arg(asDouble(), 0, 'g', -1);
    case FieldType::Decimal:
        return toDecimal().toString();
    case FieldType::String:
        return FieldType::getString(m_data, length());
    case FieldType::DateTime:
        return asDatetime().toString();
    case FieldType::BoardList:
        return QStringLiteral("[BoardList]");
    default:
        throw incorrectType();
    }
}

QString Field::toSystemString() const
{
    if (isNull())
        return QString();
    switch (type()) {
    case FieldType::Invalid:
        return QStringLiteral("");
    case FieldType::Integer:
        return QLocale::system().toString(asInteger());
    case FieldType::Integer64:
        return QLocale::system().toString(asInteger64());
    case FieldType::Double:
        return QLocale::system().toString(asDouble(), 'g', 6);
    case FieldType::Decimal:
        return toDecimal().toSystemString();
    case FieldType::String:
        return FieldType::getString(m_data, length());
    case FieldType::DateTime:
        return asDatetime().toSystemString(false, QLocale::ShortFormat);
    case FieldType::BoardList:
        return boardlistToString(toBoardlist());
    default:
        throw incorrectType();
    }
}

QVariant Field::toVariant() const
{
    if (isNull())
        return QVariant();
    switch (type()) {
    case FieldType::Integer:
        return asInteger();
    case FieldType::Integer64:
        return asInteger64();
    case FieldType::Double:
        return asDouble();
    case FieldType::Decimal:
        return toDecimal().toVariant();
    case FieldType::String:
        return FieldType::getString(m_data, length());
    case FieldType::DateTime:
        return asDatetime().getDateTime();
    case FieldType::BoardList:
        return boardlistToString(toBoardlist());
    default:
        return QVariant();
    }
}

// ---------------------------------------------------------------------------
// Writers: every check and parse comes before the store.

Field &Field::operator=(int value)
{
    switch (type()) {
    case FieldType::Integer:
        FieldType::setInt(m_data, value);
        break;
    case FieldType::Integer64:
        FieldType::setInt64(m_data, value);
        break;
    case FieldType::Double:
        FieldType::setDouble(m_data, value);
        break;
    case FieldType::Decimal:
        FieldType::setDecimal(m_data, length(), decimal(value, 0));
        break;
    case FieldType::String:
        return *this = QString::number(value);
    default:
        incompatibleType(FieldType::Integer);
    }
    markPresent();
    return *this;
}

Field &Field::operator=(long long value)
{
    switch (type()) {
    case FieldType::Integer:
        FieldType::setInt(m_data, clampedToInt(value));
        break;
    case FieldType::Integer64:
        FieldType::setInt64(m_data, value);
        break;
    case FieldType::Double:
        FieldType::setDouble(m_data, static_cast<double>(value));
        break;
    case FieldType::Decimal:
        FieldType::setDecimal(m_data, length(), decimal(value, 0));
        break;
    case FieldType::String:
        return *this = QString::number(value);
    default:
        incompatibleType(FieldType::Integer64);
    }
    markPresent();
    return *this;
}

Field &Field::operator=(double value)
{
    switch (type()) {
    case FieldType::Integer:
        FieldType::setInt(m_data, truncated<int>(value));
        break;
    case FieldType::Integer64:
        FieldType::setInt64(m_data, truncated<long long>(value));
        break;
    case FieldType::Double:
        FieldType::setDouble(m_data, value);
        break;
    case FieldType::Decimal:
        FieldType::setDecimal(m_data, length(), decimal::fromDouble(value, DoubleScale));
        break;
    case FieldType::String:
        return *this = QStringLiteral("%1").arg(value, 0, 'f', DoubleScale);
    case FieldType::DateTime:
        throw Exception(QStringLiteral("Can't convert double to datetime."));
    default:
        incompatibleType(FieldType::Double);
    }
    markPresent();
    return *this;
}

Field &Field::operator=(const decimal &value)
{
    switch (type()) {
    case FieldType::Integer:
        FieldType::setInt(m_data, truncated<int>(value.toDouble()));
        break;
    case FieldType::Integer64:
        FieldType::setInt64(m_data, truncated<long long>(value.toDouble()));
        break;
    case FieldType::Double:
        FieldType::setDouble(m_data, value.toDouble());
        break;
    case FieldType::Decimal:
        FieldType::setInt64(m_data, value.to56s7()); // the word as it is, scale and all
        break;
    case FieldType::String:
        return *this = value.toString();
    case FieldType::DateTime:
        throw Exception(QStringLiteral("Can't convert from decimal to datetime."));
    default:
        incompatibleType(FieldType::Decimal);
    }
    markPresent();
    return *this;
}

Field &Field::operator=(const QString &value)
{
    if (value.isEmpty()) {
        setNull();
        return *this;
    }
    auto unparsable = [&]() {
        return Exception(QStringLiteral("Can't convert from '%1'' to %2")
                             .arg(value, QString::fromLatin1(FieldType::typeName(type()))));
    };
    bool ok = false;
    switch (type()) {
    case FieldType::Integer: {
        const int parsed = value.toInt(&ok, 10);
        if (!ok)
            throw unparsable();
        FieldType::setInt(m_data, parsed);
        break;
    }
    case FieldType::Integer64: {
        const long long parsed = value.toLongLong(&ok, 10);
        if (!ok)
            throw unparsable();
        FieldType::setInt64(m_data, parsed);
        break;
    }
    case FieldType::Double: {
        const double parsed = value.toDouble(&ok);
        if (!ok)
            throw unparsable();
        FieldType::setDouble(m_data, parsed);
        break;
    }
    case FieldType::Decimal:
        // Text is a number like any other: stored at the column's scale.
        FieldType::setDecimal(m_data, length(), decimal(value));
        break;
    case FieldType::String:
        FieldType::setString(m_data, length(), value);
        break;
    case FieldType::DateTime:
        FieldType::setDatetime(m_data, datetime(value));
        break;
    default:
        incompatibleType(FieldType::String);
    }
    markPresent();
    return *this;
}

Field &Field::operator=(const QChar &value)
{
    if (type() != FieldType::String)
        incompatibleType(FieldType::String);
    return *this = QString(value);
}

Field &Field::operator=(const datetime &value)
{
    switch (type()) {
    case FieldType::String:
        return *this = value.toString();
    case FieldType::DateTime:
        FieldType::setDatetime(m_data, value);
        break;
    default:
        incompatibleType(FieldType::DateTime);
    }
    markPresent();
    return *this;
}

Field &Field::operator=(const QDateTime &value)
{
    if (!value.isValid()) {
        setNull();
        return *this;
    }
    switch (type()) {
    case FieldType::String:
        return *this = value.toString(QStringLiteral("yyyy.MM.dd HH:mm:ss.zzz"));
    case FieldType::DateTime:
        FieldType::setDatetime(m_data, datetime(value));
        break;
    default:
        incompatibleType(FieldType::DateTime);
    }
    markPresent();
    return *this;
}

Field &Field::operator=(const boardlist &value)
{
    if (type() != FieldType::BoardList)
        incompatibleType(FieldType::BoardList);
    std::memcpy(m_data, &value, sizeof value);
    markPresent();
    return *this;
}

Field &Field::operator=(const QVariant &value)
{
    switch (type()) {
    case FieldType::Integer:
        return *this = value.toInt();
    case FieldType::Integer64:
        return *this = static_cast<long long>(value.toLongLong());
    case FieldType::Double:
        return *this = value.toDouble();
    case FieldType::String:
        return *this = value.toString();
    case FieldType::Decimal: {
        if (value.userType() == decimal::metatypeId())
            return *this = value.value<decimal>();
        // Text is not converted here, although QVariant now could: a text
        // variant assigns 0, as it always has.
        QVariant converted = value;
        const bool text = value.userType() == QMetaType::QString;
        return *this = !text && converted.convert(decimal::metatypeId()) ? converted.value<decimal>() : decimal();
    }
    case FieldType::DateTime: {
        if (value.userType() == datetime::metatypeId())
            return *this = value.value<datetime>();
        // Text is read as a board list below, as it always was, not through
        // the QVariant converter from text.
        QVariant converted = value;
        if (value.userType() != QMetaType::QString && converted.convert(datetime::metatypeId()))
            return *this = converted.value<datetime>();
        if (value.userType() == QMetaType::QDateTime)
            return *this = value.toDateTime();
        // Anything else is read as a board list, which a DateTime refuses.
        return *this = boardlistFromString(value.toString());
    }
    case FieldType::BoardList:
        return *this = boardlistFromString(value.toString());
    default:
        return *this;
    }
}

Field &Field::operator=(const Field &other)
{
    if (other.isNull()) {
        setNull();
        return *this;
    }
    const FieldType::Type sourceType = other.type();
    if (sourceType == type()) {
        bool sameSlot = true;
        switch (sourceType) {
        case FieldType::String:
        case FieldType::Decimal:
            sameSlot = other.length() == length() && other.m_def->size == m_def->size;
            break;
        case FieldType::Integer:
        case FieldType::Integer64:
        case FieldType::Double:
        case FieldType::DateTime:
        case FieldType::BoardList:
            break;
        default:
            sameSlot = false;
        }
        if (sameSlot) {
            std::memmove(m_data, other.m_data, static_cast<size_t>(m_def->size));
            markPresent();
            return *this;
        }
    }
    switch (sourceType) {
    case FieldType::Integer:
        return *this = other.toInteger();
    case FieldType::Integer64:
        return *this = other.toInteger64();
    case FieldType::Double:
        return *this = other.toDouble();
    case FieldType::Decimal:
        return *this = other.toDecimal();
    case FieldType::String:
        return *this = other.toString();
    case FieldType::DateTime:
        return *this = other.toDatetime();
    default:
        incompatibleType(sourceType);
    }
}
