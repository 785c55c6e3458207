#include "decimal.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QLocale>
#include <QtCore/QRegExp>

#include <cmath>

const decimal decimal::zero = decimal::from56s7(0);
const decimal decimal::maximum = decimal::from56s7(0x410FFFFFFFFFFFFFLL);
const decimal decimal::minimum = decimal::from56s7(static_cast<long long>(0xC1F0000000000001ULL));

namespace {

// Mantissa arithmetic wraps like the packed word does; doing it unsigned keeps
// the wrap defined.
inline long long wrapMul(long long a, long long b)
{
    return static_cast<long long>(static_cast<unsigned long long>(a) * static_cast<unsigned long long>(b));
}

inline long long wrapAdd(long long a, long long b)
{
    return static_cast<long long>(static_cast<unsigned long long>(a) + static_cast<unsigned long long>(b));
}

enum Pattern { IntegerPattern, PointPattern, ExponentPattern, CommaPattern, CommaExponentPattern, PatternCount };

// QRegExp keeps its captures inside the object, so each thread gets its own
// set of the five expressions.
QRegExp &pattern(Pattern which)
{
    thread_local QRegExp patterns[PatternCount] = {
        QRegExp(QStringLiteral("([+-]?\\d+)")),
        QRegExp(QStringLiteral("([+-]?)(\\d*)[\\.](\\d+)")),
        QRegExp(QStringLiteral("([+-]?)(\\d+)[\\.]?(\\d*)e([+-]?\\d+)")),
        QRegExp(QStringLiteral("([+-]?)(\\d*)[,](\\d+)")),
        QRegExp(QStringLiteral("([+-]?)(\\d+)[,]?(\\d*)e([+-]?\\d+)")),
    };
    return patterns[which];
}

QString cannotCreate(const QString &text)
{
    return QCoreApplication::translate("decimal", "Невозможно создать decimal по строке '%1'").arg(text);
}

QString cannotCreate(const QString &text, const QString &detail)
{
    return QCoreApplication::translate("decimal", "Невозможно создать decimal по строке '%1' (%2)").arg(text, detail);
}

long long parseLongLong(const QString &digits, const QString &text)
{
    bool ok = false;
    const long long result = digits.toLongLong(&ok, 10);
    if (!ok)
        throw cannotCreate(text);
    return result;
}

} // namespace

decimal::decimal(const QString &text)
    : m_data(fromString(text).m_data)
{
}

int decimal::compare(const decimal &other) const noexcept
{
    const unsigned long long a = static_cast<unsigned long long>(m_data);
    const unsigned long long b = static_cast<unsigned long long>(other.m_data);
    if ((a & ScaleMask) == (b & ScaleMask))
        return m_data < other.m_data ? -1 : (m_data > other.m_data ? 1 : 0);

    const bool aZero = (a & ~ScaleMask) == 0;
    const bool bZero = (b & ~ScaleMask) == 0;
    const bool aNegative = a >> 63;
    const bool bNegative = b >> 63;
    if (aZero && bZero)
        return 0;
    if (aZero)
        return bNegative ? 1 : -1;
    if (bZero)
        return aNegative ? -1 : 1;
    if (aNegative != bNegative)
        return bNegative ? 1 : -1;

    int d = other.scale() - scale();
    // A 56-bit mantissa spans fewer than 17 decimal orders, so beyond that the
    // scales alone decide.
    if (d > 16)
        return aNegative ? -1 : 1;
    if (d < -16)
        return aNegative ? 1 : -1;

    const unsigned long long aMagnitude = aNegative ? (1ULL << 56) - (a & MantissaMask) : (a & MantissaMask);
    const unsigned long long bMagnitude = bNegative ? (1ULL << 56) - (b & MantissaMask) : (b & MantissaMask);
    int sense = 1;
    unsigned long long x = aMagnitude;
    unsigned long long y = bMagnitude;
    if (d < 0) {
        std::swap(x, y);
        d = -d;
        sense = -sense;
    }
    if (aNegative)
        sense = -sense;

    // Bring x up by 10^d, stopping as soon as it passes y: x stays below
    // 2^63 because it is multiplied only while it does not exceed y < 2^56.
    if (d & 1)
        x *= 10;
    for (int steps = d / 2; steps > 0; --steps) {
        if (x > y)
            break;
        x *= 100;
    }
    if (x == y)
        return 0;
    return x > y ? sense : -sense;
}

decimal decimal::add(const decimal &other) const noexcept
{
    const short s = std::max(scale(), other.scale());
    decimal left = *this;
    decimal right = other;
    left.setScale(s);
    right.setScale(s);
    return decimal(wrapAdd(left.value(), right.value()), s);
}

decimal &decimal::operator+=(const decimal &other) noexcept
{
    const short s = std::max(scale(), other.scale());
    setScale(s);
    decimal right = other;
    right.setScale(s);
    set(wrapAdd(value(), right.value()), s);
    return *this;
}

decimal decimal::operator*(const long long &factor) const noexcept
{
    return decimal(wrapMul(value(), factor), scale());
}

void decimal::setScale(short newScale) noexcept
{
    const short current = scale();
    if (newScale == current)
        return;
    long long m = value();
    if (m == 0) {
        set(0, newScale);
        return;
    }
    if (newScale > current) {
        for (int i = current; i < newScale; ++i)
            m = wrapMul(m, 10);
    } else {
        for (int steps = current - newScale; steps > 0; --steps) {
            if (steps == 1)
                m += m > 0 ? 5 : -5;
            m /= 10;
        }
    }
    set(m, newScale);
}

double decimal::toDouble() const noexcept
{
    const short s = scale();
    unsigned e = static_cast<unsigned>(s < 0 ? -s : s);
    double p = 1.0;
    double base = 10.0;
    while (e) {
        if (e & 1)
            p *= base;
        base *= base;
        e >>= 1;
    }
    const double m = static_cast<double>(value());
    return s <= 0 ? m * p : m * (1.0 / p);
}

decimal decimal::fromDouble(double x, short scale)
{
    if (scale > 0) {
        for (int i = 0; i < scale; ++i)
            x *= 10.0;
        x += x > 0 ? 0.5 : -0.5;
    } else {
        for (int i = 0; i < -scale; ++i)
            x /= 10.0;
    }
    // NaN fails both comparisons; it must not reach the integer conversion.
    if (!(x > -72057594037927936.0 && x < 72057594037927936.0))
        throw "decimal:overflow";
    return decimal(static_cast<long long>(x), scale);
}

QString decimal::toString() const
{
    const long long m = value();
    const short s = scale();
    if (s <= 0) {
        QString text = QString::number(m);
        if (m != 0)
            text += QString(-s, QLatin1Char('0'));
        return text;
    }
    // Through double on purpose: mantissas above 2^53 lose their last digits.
    QString digits = QString::number(static_cast<double>(m < 0 ? -m : m), 'f', 0);
    if (digits.size() <= s)
        digits.prepend(QString(s - digits.size() + 1, QLatin1Char('0')));
    digits.insert(digits.size() - s, QLatin1Char('.'));
    if (m < 0)
        digits.prepend(QLatin1Char('-'));
    return digits;
}

QString decimal::toExcelString() const
{
    return toString().replace(QLatin1Char('.'), QLocale::system().decimalPoint());
}

QString decimal::toSystemString() const
{
    const short s = scale();
    return QLocale::system().toString(toDouble(), 'f', s > 0 ? s : 0);
}

QString decimal::toSystemStringShort() const
{
    QString text = toSystemString();
    const QChar point = QLocale::system().decimalPoint();
    if (text.contains(point)) {
        while (text.endsWith(QLatin1Char('0')))
            text.chop(1);
        if (text.endsWith(point))
            text.chop(1);
    }
    return text;
}

decimal decimal::fromString(const QString &text)
{
    QRegExp &integer = pattern(IntegerPattern);
    if (integer.exactMatch(text))
        return decimal(parseLongLong(integer.cap(1), text), 0);

    QRegExp &point = pattern(PointPattern);
    if (point.exactMatch(text)) {
        const QString sign = point.cap(1);
        const QString whole = point.cap(2);
        const QString fraction = point.cap(3);
        long long m = 0;
        if (!whole.isEmpty()) {
            bool ok = false;
            m = whole.toLongLong(&ok, 10);
            if (!ok)
                throw cannotCreate(text, sign); // the sign group, as it always was
        }
        for (int i = 0; i < fraction.size(); ++i)
            m = wrapMul(m, 10);
        m = wrapAdd(m, parseLongLong(fraction, text));
        if (sign == QLatin1String("-"))
            m = 0 - m;
        return decimal(m, static_cast<short>(fraction.size()));
    }

    QRegExp &exponent = pattern(ExponentPattern);
    if (exponent.exactMatch(text)) {
        long long m = parseLongLong(exponent.cap(2), text);
        const bool negative = exponent.cap(1) == QLatin1String("-");
        bool ok = false;
        int e = exponent.cap(4).toInt(&ok, 10);
        if (!ok)
            throw cannotCreate(text);
        const QString fraction = exponent.cap(3);
        if (!fraction.isEmpty()) {
            e -= fraction.size();
            for (int i = 0; i < fraction.size(); ++i)
                m = wrapMul(m, 10);
            m = wrapAdd(m, parseLongLong(fraction, text));
        }
        if (negative)
            m = 0 - m;
        // The exponent is the scale itself: 15e2 is 0.15.
        return decimal(m, static_cast<short>(e));
    }

    throw cannotCreate(text);
}

decimal decimal::fromSystemString(const QString &text, int scale)
{
    bool ok = false;
    const double d = QLocale::system().toDouble(text, &ok);
    if (!ok)
        throw QStringLiteral("Error in input local string '%1'").arg(text);
    return fromDouble(d, static_cast<short>(scale));
}

decimal decimal::fromAnyString(const QString &text, bool *ok)
{
    try {
        const decimal result = fromString(text);
        if (ok)
            *ok = true;
        return result;
    } catch (const QString &) {
    }
    try {
        const decimal result = fromSystemString(text, 5);
        if (ok)
            *ok = true;
        return result;
    } catch (const QString &) {
    }
    if (ok)
        *ok = false;
    return decimal();
}

bool decimal::canConvert(const QString &text, bool emptyResult)
{
    if (text.isEmpty())
        return emptyResult;
    for (int p = 0; p < PatternCount; ++p) {
        if (pattern(static_cast<Pattern>(p)).exactMatch(text))
            return true;
    }
    return false;
}

int decimal::metatypeId()
{
    static const int id = qRegisterMetaType<decimal>("decimal");
    return id;
}

QVariant decimal::toVariant() const
{
    return QVariant(metatypeId(), this);
}

bool decimal::canConvert(const QVariant &value)
{
    if (value.userType() == metatypeId())
        return true;
    if (value.type() == QVariant::String)
        return canConvert(value.toString(), false);
    return false;
}

decimal decimal::fromVariant(const QVariant &value, bool *ok)
{
    if (ok)
        *ok = true;
    const int type = value.userType();
    if (type == metatypeId())
        return value.value<decimal>();
    switch (type) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
        return fromDouble(value.toDouble(), 5);
    case QMetaType::QString:
        return fromString(value.toString());
    default:
        break;
    }
    if (ok)
        *ok = false;
    return decimal();
}
