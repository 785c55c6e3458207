#include "tableindexrebuilder.h"

#include "index.h"
#include "table.h"
#include "table_p.h"
#include "tablejoin.h"

#include <QtCore/QScopeGuard>

TableIndexRebuilder::TableIndexRebuilder(Table *table)
    : m_table(table)
{
    ++m_table->d_func()->rebuilders;
    const QList<Index *> indexes = m_table->indexes();
    for (Index *index : indexes) {
        m_saved.append(qMakePair(index, m_table->indexName(index)));
        m_table->removeIndex(index);
    }
    detectIndexGroup(indexes);
    for (const QList<Index *> *group : {&m_otherIndexes, &m_dependIndexes, &m_joinIndexes}) {
        for (Index *index : *group)
            index->clear(true);
    }
}

TableIndexRebuilder::~TableIndexRebuilder() noexcept(false)
{
    auto done = qScopeGuard([this] { --m_table->d_func()->rebuilders; });
    // A join's main index goes first of all: it fills the joined columns,
    // which every other index of the table may read, those of the
    // "IndexDepend" group too. Only a real one: its class name alone puts
    // an index with the plain ones.
    QList<Index *> joinMains;
    for (Index *index : qAsConst(m_otherIndexes)) {
        bool isDependent = true;
        if (TableJoin::isJoinIndex(index, &isDependent) && !isDependent && TableJoin::table(index))
            joinMains.append(index);
    }
    for (Index *index : qAsConst(joinMains))
        index->build(true);
    for (const QList<Index *> *group : {&m_joinIndexes, &m_dependIndexes, &m_otherIndexes}) {
        for (Index *index : *group) {
            if (!joinMains.contains(index))
                index->build(true);
        }
    }
    for (const auto &saved : qAsConst(m_saved)) {
        m_table->addIndex(saved.first);
        if (!saved.second.isEmpty())
            m_table->setIndexName(saved.second, saved.first);
    }
}

void TableIndexRebuilder::detectIndexGroup(QList<Index *> indexes)
{
    for (Index *index : qAsConst(indexes)) {
        // Only the flag decides: a main join index answers true but leaves
        // the flag false, and so falls through to the other indexes.
        bool isJoin = false;
        TableJoin::isJoinIndex(index, &isJoin);
        if (isJoin)
            m_joinIndexes.append(index);
        else if (index->getClassName().startsWith(QLatin1String("IndexDepend")))
            m_dependIndexes.append(index);
        else
            m_otherIndexes.append(index);
    }
}
