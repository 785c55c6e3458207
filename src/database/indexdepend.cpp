#include "indexdepend.h"

#include "index.h"
#include "tableindexrebuilder.h"
#include "tablejoin.h"

#include <QtCore/QSet>
#include <QtCore/QtDebug>

IndexDependBase::IndexDependBase() = default;

IndexDependBase::~IndexDependBase()
{
    // Destroying them would rebuild their tables from a destructor; they are
    // left to leak, as the owner was meant to call build(true).
    if (!m_rebuilders.isEmpty())
        qWarning("IndexDependBase destroyed with %d pending rebuilders", int(m_rebuilders.size()));
}

void IndexDependBase::addDependentIndex(Index *index)
{
    m_dependents.append(index);
}

void IndexDependBase::removeDependentIndex(Index *index)
{
    m_dependents.removeOne(index);
}

void IndexDependBase::add(const Record &record)
{
    const QList<Index *> dependents = m_dependents;
    for (Index *index : dependents)
        index->add(record);
}

void IndexDependBase::remove(const Record &record, int position)
{
    const QList<Index *> dependents = m_dependents;
    for (Index *index : dependents)
        index->remove(record, position);
}

void IndexDependBase::update(const Record &record, int firstColumn, int lastColumn, int position)
{
    const QList<Index *> dependents = m_dependents;
    for (Index *index : dependents)
        index->update(record, firstColumn, lastColumn, position);
}

void IndexDependBase::process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn,
                              int lastColumn, const QList<Record> &inserted)
{
    const QList<Index *> dependents = m_dependents;
    for (Index *index : dependents)
        index->process(removed, updated, firstColumn, lastColumn, inserted);
}

void IndexDependBase::clear(bool full)
{
    const QList<Index *> dependents = m_dependents;
    if (!full) {
        for (Index *index : dependents)
            index->clear();
        return;
    }
    // Tables in the order first met, each once.
    QList<Table *> tables;
    QSet<Table *> seen;
    for (Index *index : dependents) {
        Table *table = TableJoin::table(index);
        if (!table) {
            index->clear();
        } else if (!seen.contains(table)) {
            seen.insert(table);
            tables.append(table);
        }
    }
    for (Table *table : qAsConst(tables))
        m_rebuilders.append(new TableIndexRebuilder(table));
}

void IndexDependBase::build(bool full)
{
    if (!full) {
        const QList<Index *> dependents = m_dependents;
        for (Index *index : dependents)
            index->build();
        return;
    }
    while (!m_rebuilders.isEmpty())
        delete m_rebuilders.takeFirst();
}
