#include "core.h"

namespace {

ApplicationCore::TableLookup &tableLookup()
{
    static ApplicationCore::TableLookup lookup;
    return lookup;
}

ApplicationCore::JoinRegistration &joinRegistration()
{
    static ApplicationCore::JoinRegistration registration;
    return registration;
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

void ApplicationCore::setJoinRegistration(JoinRegistration registration)
{
    joinRegistration() = std::move(registration);
}

void ApplicationCore::registerJoin(TableJoin *join)
{
    const JoinRegistration &registration = joinRegistration();
    if (registration)
        registration(join);
}
