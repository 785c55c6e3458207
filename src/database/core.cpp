#include "core.h"

namespace {

ApplicationCore::TableLookup &tableLookup()
{
    static ApplicationCore::TableLookup lookup;
    return lookup;
}

} // namespace

void ApplicationCore::setTableLookup(TableLookup lookup)
{
    tableLookup() = std::move(lookup);
}

Table *ApplicationCore::table(const QString &name)
{
    const TableLookup &lookup = tableLookup();
    return lookup ? lookup(name) : nullptr;
}
