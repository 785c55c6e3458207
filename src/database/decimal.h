#ifndef DATABASE_DECIMAL_H
#define DATABASE_DECIMAL_H

#include "database_export.h"

#include <QtCore/QMetaType>
#include <QtCore/QString>
#include <QtCore/QVariant>

// decimal: an exact fixed-point number packed into one 64-bit word, the value
// of Decimal columns.
//
// Layout of the packed word ("56s7"):
//   bits 0-55   low 56 bits of the mantissa, two's complement
//   bits 56-62  scale, a 7-bit two's-complement number (-64..63)
//   bit  63     sign of the mantissa
// The numeric value is mantissa x 10^-scale; a negative scale appends zeros.
// Packing keeps bit 63 of the mantissa and overwrites bits 56-62 with the
// scale, so mantissa bits beyond the 56-bit range are dropped silently. Only
// fromDouble() checks the range. The same number has several encodings
// (1.5 is 15/1 and 150/2): operator== compares numbers, isEqual() words.
//
// Failures are thrown, and callers catch them by type:
//   - QString: the text parsers fromString() and fromSystemString();
//   - const char* "decimal:overflow": fromDouble().
//
// Thread safety: a decimal is a plain value. All static members are
// reentrant; the meta-type is registered on first use of metatypeId().
class QDebug;

class DATABASE_EXPORT decimal
{
public:
    static const decimal zero;    // 0x0000000000000000
    static const decimal minimum; // 0xC1F0000000000001: -(2^52-1) x 10^63
    static const decimal maximum; // 0x410FFFFFFFFFFFFF:  (2^52-1) x 10^63

    constexpr decimal() noexcept : m_data(0) {}
    decimal(long long value, short scale) noexcept { set(value, scale); }
    // Parses with fromString(); throws its QString message on failure.
    explicit decimal(const QString &text);

    void set(long long value, short scale) noexcept
    {
        m_data = static_cast<long long>((static_cast<unsigned long long>(value) & ~ScaleMask)
                                        | ((static_cast<unsigned long long>(scale) & 0x7F) << 56));
    }

    static constexpr decimal from56s7(long long word) noexcept { return decimal(word, Raw()); }
    constexpr long long to56s7() const noexcept { return m_data; }
    constexpr long long data() const noexcept { return m_data; }

    // The mantissa, sign-extended from bit 63 over bits 56-63.
    long long value() const noexcept
    {
        const unsigned long long w = static_cast<unsigned long long>(m_data);
        return static_cast<long long>((w >> 63) ? (w | ~MantissaMask) : (w & MantissaMask));
    }
    short scale() const noexcept
    {
        const int field = static_cast<int>((static_cast<unsigned long long>(m_data) >> 56) & 0x7F);
        return static_cast<short>(field >= 64 ? field - 128 : field);
    }

    bool isZero() const noexcept { return (static_cast<unsigned long long>(m_data) & ~ScaleMask) == 0; }

    // -1, 0 or 1 by numeric value, scales aligned without overflow.
    int compare(const decimal &other) const noexcept;
    // Equality of the packed words: 1.50 is == 1.5 but not isEqual to it.
    bool isEqual(const decimal &other) const noexcept { return m_data == other.m_data; }

    bool operator==(const decimal &o) const noexcept { return compare(o) == 0; }
    bool operator!=(const decimal &o) const noexcept { return compare(o) != 0; }
    bool operator<(const decimal &o) const noexcept { return compare(o) < 0; }
    bool operator>(const decimal &o) const noexcept { return compare(o) > 0; }
    bool operator<=(const decimal &o) const noexcept { return compare(o) <= 0; }
    bool operator>=(const decimal &o) const noexcept { return compare(o) >= 0; }

    // Arithmetic works at the larger of the two scales and never checks for
    // overflow. There is no product or quotient of two decimals.
    decimal add(const decimal &other) const noexcept;
    decimal operator+(const decimal &other) const noexcept { return add(other); }
    decimal operator-(const decimal &other) const noexcept { return add(other.negative()); }
    decimal &operator+=(const decimal &other) noexcept;
    decimal &operator-=(const decimal &other) noexcept { return *this += other.negative(); }
    decimal negative() const noexcept { return decimal(0 - value(), scale()); }
    decimal operator*(const long long &factor) const noexcept;
    decimal operator*(const int &factor) const noexcept { return *this * static_cast<long long>(factor); }

    // Rescales in place. Going down rounds half away from zero on the first
    // dropped digit; going up multiplies without an overflow check.
    void setScale(short scale) noexcept;

    double toDouble() const noexcept;
    // Rounds half away from zero for scale > 0, truncates for scale <= 0.
    // Throws the C string "decimal:overflow" when the scaled value is outside
    // (-2^56, 2^56), and for NaN.
    static decimal fromDouble(double value, short scale);

    // Canonical text: '.' as the point, trailing zeros kept ("1.00").
    QString toString() const;
    // toString() with the system locale's decimal point.
    QString toExcelString() const;
    // The value through toDouble() in the system locale, scale digits.
    QString toSystemString() const;
    // toSystemString() without trailing fraction zeros and point.
    QString toSystemStringShort() const;

    // Accepts "7", "+7", "-1.25", ".5", "-.5", and the exponent form
    // "15e2", where the number after 'e' is the scale (15e2 is 0.15).
    // An integer beyond the 57-bit mantissa takes as few of its trailing
    // zeros as it needs as a negative scale (down to -64), so every text
    // toString() writes reads back. Overflow inside the other shapes wraps.
    // Throws a translated QString message on anything else.
    static decimal fromString(const QString &text);
    // Parses with the system locale. Throws the QString
    // "Error in input local string '<text>'" on failure; a value out of range
    // throws "decimal:overflow" from fromDouble().
    static decimal fromSystemString(const QString &text, int scale);
    // fromString(), then fromSystemString(text, 5); 0 with *ok false when
    // neither parses. Only QString failures are caught. ok may be null.
    static decimal fromAnyString(const QString &text, bool *ok = nullptr);
    // Whether the text has one of the accepted shapes, comma forms included.
    // An empty text answers emptyResult.
    static bool canConvert(const QString &text, bool emptyResult);

    // Id of the meta-type "decimal", registered on the first call.
    static int metatypeId();
    QVariant toVariant() const;
    static bool canConvert(const QVariant &value);
    // A "decimal" variant as stored; numeric variants at scale 5; strings
    // through fromString() (its QString failure escapes). Anything else is 0
    // with *ok false. ok may be null.
    static decimal fromVariant(const QVariant &value, bool *ok = nullptr);

private:
    struct Raw {};
    constexpr decimal(long long word, Raw) noexcept : m_data(word) {}

    static constexpr unsigned long long ScaleMask = 0x7FULL << 56;
    static constexpr unsigned long long MantissaMask = 0x00FFFFFFFFFFFFFFULL;

    long long m_data;
};

Q_DECLARE_TYPEINFO(decimal, Q_MOVABLE_TYPE);
// QVariant and Qt conveniences. The meta-type is registered on first use
// (metatypeId()), with converters to and from QString (the text forms
// toString() and fromAnyString(), an unreadable text giving 0) and to
// double, comparators and the debug stream operator, so that a QVariant
// holding a decimal prints, compares and converts as Qt users expect.
template <>
struct QMetaTypeId<decimal>
{
    enum { Defined = 1 };
    static int qt_metatype_id() { return decimal::metatypeId(); }
};
// decimal(1.05)
DATABASE_EXPORT QDebug operator<<(QDebug debug, const decimal &value);
// Equal values (1.5 and 1.50) hash alike.
DATABASE_EXPORT uint qHash(const decimal &value, uint seed = 0) noexcept;

#endif // DATABASE_DECIMAL_H
