#include "indexvector.h"

#include "masterindex.h"
#include "recordsort_p.h"

IndexVector *IndexVector::sortIndex = nullptr;

IndexVector::IndexVector(Table *table)
    : m_table(table)
{
    m_table->addIndex(this);
}

IndexVector::IndexVector(const IndexVector &other) = default;

IndexVector &IndexVector::operator=(const IndexVector &other) = default;

IndexVector::~IndexVector()
{
    if (m_table) // the table may be gone first
        m_table->removeIndex(this);
}

Record IndexVector::get(int i) const
{
    return i >= 0 && i < m_records.size() ? m_records.at(i) : Record();
}

void IndexVector::clear()
{
    m_records.clear();
}

void IndexVector::build()
{
    Q_ASSERT_X(m_table, "IndexVector::build", "the index's table was deleted");
    TableLocker locker(m_table);
    for (const Record &record : *m_table->masterIndex()) {
        if (filter(record))
            add(record);
    }
}

void IndexVector::add(const Record &record)
{
    int i = 0;
    while (i < m_records.size() && compare(m_records.at(i), record) <= 0)
        ++i;
    m_records.insert(i, record);
}

void IndexVector::remove(const Record &record, int)
{
    for (int i = 0; i < m_records.size(); ++i) {
        if (m_records.at(i) == record) {
            m_records.remove(i);
            return;
        }
    }
}

bool IndexVector::filter(const Record &) const
{
    return true;
}

bool IndexVector::contains(const Record &record) const
{
    return search(record, -1) != -1;
}

QString IndexVector::getClassName() const
{
    return QStringLiteral("IndexVector");
}

int IndexVector::search(const Record &record, int after) const
{
    for (int i = qMax(after + 1, 0); i < m_records.size(); ++i) {
        if (compare(record, m_records.at(i)) == 0)
            return i;
    }
    return -1;
}

void IndexVector::resort()
{
    sortIndex = this;
    const auto less = [](const Record &a, const Record &b) { return lessThan(a, b); };
    recordsort::mergeSort(m_records.begin(), m_records.end(), m_records.size(), less);
}

bool IndexVector::lessThan(const Record &a, const Record &b)
{
    return sortIndex->compare(a, b) < 0;
}
