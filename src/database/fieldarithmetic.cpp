#include "field.h"

#include "decimal.h"
#include "exception.h"

// Field arithmetic and comparison: the in-place operators and compare(),
// with the asymmetries callers depend on (see field.h).

// ---------------------------------------------------------------------------
// Arithmetic

namespace {

// this +/- other, for the in-place operators; `sign` is 1 or -1.
void accumulate(Field &field, const Field &other, int sign)
{
    if (other.isNull())
        return;
    switch (field.type()) {
    case FieldType::Integer:
    case FieldType::Integer64:
    case FieldType::Double:
    case FieldType::Decimal:
    case FieldType::DateTime:
        break;
    default:
        field.incompatibleType(FieldType::String);
    }
    // Read everything first: a failure must leave the field as it was.
    switch (field.type()) {
    case FieldType::Integer: {
        const quint32 right = static_cast<quint32>(other.toInteger());
        const quint32 left = field.isNull() ? 0u : static_cast<quint32>(qAsConst(field).asInteger());
        FieldType::setInt(field.data(), static_cast<qint32>(sign > 0 ? left + right : left - right));
        break;
    }
    case FieldType::Integer64: {
        const quint64 right = static_cast<quint64>(other.toInteger64());
        const quint64 left = field.isNull() ? 0u : static_cast<quint64>(qAsConst(field).asInteger64());
        FieldType::setInt64(field.data(), static_cast<qint64>(sign > 0 ? left + right : left - right));
        break;
    }
    case FieldType::Double: {
        const double right = other.toDouble();
        const double left = field.isNull() ? 0.0 : qAsConst(field).asDouble();
        FieldType::setDouble(field.data(), sign > 0 ? left + right : left - right);
        break;
    }
    case FieldType::Decimal: {
        const decimal right(other.toString());
        decimal left = field.isNull() ? decimal() : field.toDecimal();
        if (sign > 0)
            left += right;
        else
            left -= right;
        FieldType::setDecimal(field.data(), field.length(), left);
        break;
    }
    case FieldType::DateTime: {
        const datetime right = other.toDatetime();
        const datetime left = field.isNull() ? datetime() : qAsConst(field).asDatetime();
        FieldType::setDatetime(field.data(), sign > 0 ? left + right : left - right);
        break;
    }
    default:
        break;
    }
    field.clearNull();
}

} // namespace

Field &Field::operator+=(const Field &other)
{
    accumulate(*this, other, 1);
    return *this;
}

Field &Field::operator-=(const Field &other)
{
    accumulate(*this, other, -1);
    return *this;
}

// ---------------------------------------------------------------------------
// Comparison

int Field::compare(const Field &other) const
{
    const bool thisNull = isNull();
    const bool otherNull = other.isNull();
    if (thisNull || otherNull)
        return thisNull == otherNull ? 0 : (thisNull ? -1 : 1);
    if (type() != other.type())
        return static_cast<int>(type()) - static_cast<int>(other.type());
    switch (type()) {
    case FieldType::Integer:
        // The plain difference, wrapping as 32-bit arithmetic does.
        return static_cast<qint32>(static_cast<quint32>(asInteger()) - static_cast<quint32>(other.asInteger()));
    case FieldType::Integer64:
    case FieldType::DateTime: {
        const long long a = asInteger64(), b = other.asInteger64();
        return a < b ? -1 : (a > b ? 1 : 0);
    }
    case FieldType::Double:
        // A larger value on the left compares equal: kept on purpose.
        return asDouble() - other.asDouble() < 0.0 ? -1 : 0;
    case FieldType::Decimal:
        return toDecimal().compare(other.toDecimal());
    case FieldType::String:
        return QString::compare(asString(), other.asString(), Qt::CaseSensitive);
    default:
        return 0;
    }
}

bool Field::isEqual(const Field &other) const
{
    const bool thisNull = isNull();
    const bool otherNull = other.isNull();
    if (thisNull || otherNull)
        return thisNull && otherNull;
    if (type() != other.type())
        return false;
    switch (type()) {
    case FieldType::Invalid:
        return false;
    case FieldType::Integer:
        return asInteger() == other.asInteger();
    case FieldType::Integer64:
    case FieldType::DateTime:
        return asInteger64() == other.asInteger64();
    case FieldType::Double:
        return asDouble() == other.asDouble();
    case FieldType::Decimal:
        return toDecimal().compare(other.toDecimal()) == 0;
    case FieldType::String:
        return toString() == other.toString();
    default:
        throw Exception(QStringLiteral("Can't equal; two fields."));
    }
}
