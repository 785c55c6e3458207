#include "index.h"

Index::~Index() = default;

void Index::clear(bool)
{
    clear();
}

void Index::build(bool)
{
    build();
}

void Index::rebuild()
{
    clear(true);
    build(true);
}

void Index::process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn, int lastColumn,
                    const QList<Record> &inserted)
{
    for (const Record &record : removed)
        remove(record, -1);
    for (const Record &record : updated)
        update(record, firstColumn, lastColumn, -1);
    for (const Record &record : inserted) {
        if (filter(record))
            add(record);
    }
}

void Index::update(const Record &record, int, int, int position)
{
    remove(record, position);
    if (filter(record))
        add(record);
}

int Index::indexOf(const Record &) const
{
    return -1;
}

void Index::beginUpdate()
{
}

void Index::endUpdate()
{
}

void Index::dependentBeginUpdate(Table *)
{
}

void Index::dependentEndUpdate(Table *)
{
}
