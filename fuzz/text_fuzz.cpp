// The text parsers: decimal (with the round trip of what it writes), date
// and time, board lists, master keys and field assignment from text into
// every column type. Nothing may run undefined behaviour or throw anything
// but the documented kinds.

#include "fuzzcommon.h"

#include <database/datetime.h>
#include <database/decimal.h>
#include <database/field.h>
#include <database/masterindex.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::setUp();
    const QString text = fuzz::text(data, size);

    fuzz::documented([&] {
        const decimal value = decimal::fromString(text);
        // What toString writes reads back to the same value (positive
        // scales with long mantissas print through double: skip those).
        if (value.scale() <= 0 || (value.value() < (1LL << 53) && value.value() > -(1LL << 53))) {
            if (decimal::fromString(value.toString()).compare(value) != 0)
                abort();
        }
    });
    bool ok = false;
    fuzz::documented([&] { (void)decimal::fromAnyString(text, &ok); });
    fuzz::documented([&] { (void)decimal::canConvert(text, true); });
    fuzz::documented([&] { (void)datetime(text).toString(); });
    fuzz::documented([&] { (void)datetime::fromString(text, QStringLiteral("dd.MM.yyyy hh:mm:ss")); });
    fuzz::documented([&] { (void)datetime::fromSystemString(text); });
    fuzz::documented([&] { (void)Field::boardlistToString(Field::boardlistFromString(text)); });

    static Table *table = [] {
        auto *t = new Table(QStringLiteral("every"));
        t->addColumn(QStringLiteral("i"), FieldType::Integer);
        t->addColumn(QStringLiteral("l"), FieldType::Integer64);
        t->addColumn(QStringLiteral("d"), FieldType::Double);
        t->addColumn(QStringLiteral("m"), FieldType::Decimal, 3);
        t->addColumn(QStringLiteral("s"), FieldType::String, 6);
        t->addColumn(QStringLiteral("t"), FieldType::DateTime);
        t->addColumn(QStringLiteral("b"), FieldType::BoardList);
        t->setMasterIndex(new MasterIndexColumn(t, QStringList({QStringLiteral("i"), QStringLiteral("s")})));
        return t;
    }();
    const Record row(table);
    for (int column = 0; column < table->columnCount(); ++column) {
        fuzz::documented([&] {
            Field field = row.data(column);
            field = text;
            (void)field.toString();
        });
    }
    fuzz::documented([&] { (void)table->masterIndex()->fromText(text); });
    return 0;
}
