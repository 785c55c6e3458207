#include "decimal.h"

#include <QtCore/QDebug>

#include <atomic>
#include <QtCore/QCoreApplication>
#include <QtCore/QLocale>

#include <cmath>

const decimal decimal::zero = decimal::from56s7(0);
const decimal decimal::maximum = decimal::from56s7(0x410FFFFFFFFFFFFFLL);
const decimal decimal::minimum = decimal::from56s7(static_cast<long long>(0xC1F0000000000001ULL));

namespace {

// The scale of a number or locale text that brings none of its own. A double
// written into a Decimal field gets one more digit (see field.cpp): both are
// what stored data and callers were made with.
constexpr short NumberScale = 5;

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

inline bool fitsMantissa(long long m)
{
    return m >= -(1LL << 56) && m < (1LL << 56);
}

// 0 - a without overflow: the smallest value stays itself.
inline long long wrapNegate(long long a)
{
    return static_cast<long long>(0ull - static_cast<unsigned long long>(a));
}

// The five accepted shapes of a number, each matched against the whole text
// (\d is any Unicode decimal digit, as in the regular expressions they were
// first written as):
//   integer      ([+-]?\d+)
//   point        ([+-]?)(\d*)[.](\d+)
//   exponent     ([+-]?)(\d+)[.]?(\d*)e([+-]?\d+)
//   comma        ([+-]?)(\d*)[,](\d+)
//   comma exp.   ([+-]?)(\d+)[,]?(\d*)e([+-]?\d+)
// The parser reads only the first three; the comma ones are recognised by
// canConvert(). Matching by hand costs a tenth of a regular expression.
struct Shape
{
    QStringRef sign;
    QStringRef whole;
    QStringRef fraction;
    QStringRef exponent;
};

int digitRun(const QString &text, int from)
{
    int i = from;
    while (i < text.size() && text.at(i).isDigit())
        ++i;
    return i - from;
}

int signLength(const QString &text, int from)
{
    return from < text.size() && (text.at(from) == QLatin1Char('+') || text.at(from) == QLatin1Char('-')) ? 1 : 0;
}

bool matchInteger(const QString &text)
{
    const int sign = signLength(text, 0);
    const int digits = digitRun(text, sign);
    return digits > 0 && sign + digits == text.size();
}

bool matchPoint(const QString &text, QChar point, Shape *shape)
{
    const int sign = signLength(text, 0);
    const int whole = digitRun(text, sign);
    int i = sign + whole;
    if (i >= text.size() || text.at(i) != point)
        return false;
    const int fraction = digitRun(text, ++i);
    if (fraction == 0 || i + fraction != text.size())
        return false;
    if (shape) {
        shape->sign = text.midRef(0, sign);
        shape->whole = text.midRef(sign, whole);
        shape->fraction = text.midRef(i, fraction);
    }
    return true;
}

bool matchExponent(const QString &text, QChar point, Shape *shape)
{
    const int sign = signLength(text, 0);
    // Greedy: the leading digits take the whole run.
    const int whole = digitRun(text, sign);
    if (whole == 0)
        return false;
    int i = sign + whole;
    if (i < text.size() && text.at(i) == point)
        ++i;
    const int fractionStart = i;
    const int fraction = digitRun(text, i);
    i += fraction;
    if (i >= text.size() || text.at(i) != QLatin1Char('e'))
        return false;
    const int exponentStart = ++i;
    i += signLength(text, i);
    const int exponentDigits = digitRun(text, i);
    if (exponentDigits == 0 || i + exponentDigits != text.size())
        return false;
    if (shape) {
        shape->sign = text.midRef(0, sign);
        shape->whole = text.midRef(sign, whole);
        shape->fraction = text.midRef(fractionStart, fraction);
        shape->exponent = text.midRef(exponentStart);
    }
    return true;
}

QString cannotCreate(const QString &text)
{
    return QCoreApplication::translate("decimal", "Невозможно создать decimal по строке '%1'").arg(text);
}

QString cannotCreate(const QString &text, const QString &detail)
{
    return QCoreApplication::translate("decimal", "Невозможно создать decimal по строке '%1' (%2)").arg(text, detail);
}

long long parseLongLong(const QStringRef &digits, const QString &text)
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
    if (matchInteger(text)) {
        bool ok = false;
        const long long whole = text.toLongLong(&ok, 10);
        if (ok && fitsMantissa(whole))
            return decimal(whole, 0);
        // A mantissa holds 57 bits: trailing zeros of a longer number become
        // a negative scale (down to -64), which is how toString writes such
        // values.
        for (int zeros = 1; zeros <= 64 && zeros < text.size(); ++zeros) {
            if (text.at(text.size() - zeros) != QLatin1Char('0'))
                break;
            bool fits = false;
            const long long m = text.leftRef(text.size() - zeros).toLongLong(&fits, 10);
            if (fits && fitsMantissa(m))
                return decimal(m, static_cast<short>(-zeros));
        }
        if (ok)
            return decimal(whole, 0); // the bits beyond the mantissa drop, as they always did
        throw cannotCreate(text);
    }

    Shape shape;
    if (matchPoint(text, QLatin1Char('.'), &shape)) {
        long long m = 0;
        if (!shape.whole.isEmpty()) {
            bool ok = false;
            m = shape.whole.toLongLong(&ok, 10);
            if (!ok)
                throw cannotCreate(text, shape.sign.toString()); // the sign group, as it always was
        }
        for (int i = 0; i < shape.fraction.size(); ++i)
            m = wrapMul(m, 10);
        m = wrapAdd(m, parseLongLong(shape.fraction, text));
        if (shape.sign == QLatin1String("-"))
            m = wrapNegate(m);
        return decimal(m, static_cast<short>(shape.fraction.size()));
    }

    if (matchExponent(text, QLatin1Char('.'), &shape)) {
        long long m = parseLongLong(shape.whole, text);
        const bool negative = shape.sign == QLatin1String("-");
        bool ok = false;
        // 64 bits, so that an exponent at the edge of int cannot overflow
        // below; the scale keeps its low bits, as it always did.
        long long e = shape.exponent.toInt(&ok, 10);
        if (!ok)
            throw cannotCreate(text);
        if (!shape.fraction.isEmpty()) {
            e -= shape.fraction.size();
            for (int i = 0; i < shape.fraction.size(); ++i)
                m = wrapMul(m, 10);
            m = wrapAdd(m, parseLongLong(shape.fraction, text));
        }
        if (negative)
            m = wrapNegate(m);
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
        const decimal result = fromSystemString(text, NumberScale);
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
    return matchInteger(text) || matchPoint(text, QLatin1Char('.'), nullptr)
        || matchExponent(text, QLatin1Char('.'), nullptr) || matchPoint(text, QLatin1Char(','), nullptr)
        || matchExponent(text, QLatin1Char(','), nullptr);
}

int decimal::metatypeId()
{
    // The dummy pointer stops qRegisterMetaType asking back for the id.
    static const int id = qRegisterMetaType<decimal>("decimal", reinterpret_cast<decimal *>(quintptr(-1)));
    // Registering a converter asks for the id again: the flag, set before,
    // lets that call through.
    static std::atomic<bool> converters{false};
    if (!converters.exchange(true)) {
        QMetaType::registerConverter<decimal, QString>(&decimal::toString);
        QMetaType::registerConverter<decimal, double>([](const decimal &value) { return value.toDouble(); });
        QMetaType::registerConverter<QString, decimal>([](const QString &text) { return fromAnyString(text); });
        QMetaType::registerComparators<decimal>();
        QMetaType::registerDebugStreamOperator<decimal>();
    }
    return id;
}

QDebug operator<<(QDebug debug, const decimal &value)
{
    QDebugStateSaver saver(debug);
    debug.nospace().noquote() << "decimal(" << value.toString() << ')';
    return debug;
}

uint qHash(const decimal &value, uint seed) noexcept
{
    // The value with its trailing zeros taken off, so that equal values
    // written at different scales hash alike.
    long long m = value.value();
    int scale = value.scale();
    while (m != 0 && m % 10 == 0) {
        m /= 10;
        --scale;
    }
    if (m == 0)
        scale = 0;
    return ::qHash(qMakePair(m, scale), seed);
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
        return fromDouble(value.toDouble(), NumberScale);
    case QMetaType::QString:
        return fromString(value.toString());
    default:
        break;
    }
    if (ok)
        *ok = false;
    return decimal();
}
