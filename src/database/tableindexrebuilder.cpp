#include "tableindexrebuilder.h"

#include "index.h"
#include "table.h"
#include "tablejoin.h"

TableIndexRebuilder::TableIndexRebuilder(Table *table)
    : m_table(table)
{
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
    for (const QList<Index *> *group : {&m_joinIndexes, &m_dependIndexes, &m_otherIndexes}) {
        for (Index *index : *group)
            index->build(true);
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
