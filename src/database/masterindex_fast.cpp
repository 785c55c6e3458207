#include "masterindex_fast.h"

#include "keytable_p.h"
#include "largealloc_p.h"
#include "parallel_p.h"
#include "table.h"
#include "table_p.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QtEndian>

#include <cstring>

MasterIndex_Fast::MasterIndex_Fast(Table *table, const QStringList &columns)
    : MasterIndexColumn(table, columns)
{
    setup();
}

MasterIndex_Fast::MasterIndex_Fast(Table *table, const QList<int> &columns)
    : MasterIndexColumn(table, columns)
{
    setup();
}

MasterIndex_Fast::~MasterIndex_Fast()
{
    delete m_keys;
}

void MasterIndex_Fast::setup()
{
    m_keyLength = 0;
    if (m_columns.isEmpty())
        return;
    int expected = m_columns.first();
    for (const int column : qAsConst(m_columns)) {
        const TableColumnDef &def = m_table->columnDef(column);
        if (column != expected)
            throw QStringLiteral("Columns must be sequenced: %1(%3) / %2").arg(column).arg(expected).arg(def.name);
        switch (def.type) {
        case FieldType::Integer:
        case FieldType::Integer64:
        case FieldType::Decimal:
        case FieldType::String:
        case FieldType::DateTime:
            break;
        default:
            throw QStringLiteral("Type '%1' unsuported for %2")
                .arg(QString::fromLatin1(FieldType::typeName(def.type)), def.name);
        }
        if (def.nullable)
            throw QStringLiteral("Columns can't be nullable %1").arg(def.name);
        if (column == m_columns.first())
            m_keyOffset = Table::base + def.offset;
        m_keyLength += static_cast<int>(def.size);
        ++expected;
    }
}

int MasterIndex_Fast::compare(const Record &a, const Record &b) const
{
    const unsigned char *x = a.rowPtr() + m_keyOffset;
    const unsigned char *y = b.rowPtr() + m_keyOffset;
    // The common key widths as one big-endian load each: the same answer as
    // memcmp, without the call.
    switch (m_keyLength) {
    case 4: {
        const quint32 u = qFromBigEndian<quint32>(x), v = qFromBigEndian<quint32>(y);
        return u < v ? -1 : (u > v ? 1 : 0);
    }
    case 8: {
        const quint64 u = qFromBigEndian<quint64>(x), v = qFromBigEndian<quint64>(y);
        return u < v ? -1 : (u > v ? 1 : 0);
    }
    default:
        return std::memcmp(x, y, static_cast<size_t>(m_keyLength));
    }
}

QString MasterIndex_Fast::getClassName() const
{
    return QStringLiteral("MasterIndex_Fast");
}

MasterIndex *MasterIndex_Fast::create(Table *table, QStringList columns)
{
    try {
        return new MasterIndex_Fast(table, columns);
    } catch (const QString &message) {
        QMessageLogger(__FILE__, __LINE__, Q_FUNC_INFO).warning().noquote().nospace()
            << QCoreApplication::translate("MasterIndex_Fast", "Невозможно использовать оптимальный MasterIndex для '")
            << table->name() << "':\n" << message;
    }
    return new MasterIndexColumn(table, columns);
}

void MasterIndex_Fast::createMasterIndex(Table *table, QStringList columns)
{
    table->setMasterIndex(create(table, columns));
}

void MasterIndex_Fast::createIndex(const QString &name, Table *table, QStringList columns)
{
    table->setIndexName(name, create(table, columns));
}

// ---------------------------------------------------------------------------
// The key table

namespace {

// A lookup that has to search because the key table was refused counts
// towards building it again; a rebuild costs about as much as this share
// of a million-row table's searches.
int searchesBeforeRebuild(int rows)
{
    return rows / 16 + 64;
}

} // namespace

quint64 MasterIndex_Fast::packedKey(const unsigned char *row) const
{
    const unsigned char *key = row + m_keyOffset;
    // The common widths without a call; any width packs as its bytes would.
    switch (m_keyLength) {
    case 8:
        return qFromLittleEndian<quint64>(key);
    case 4:
        return qFromLittleEndian<quint32>(key);
    default: {
        quint64 packed = 0;
        std::memcpy(&packed, key, static_cast<size_t>(m_keyLength));
        return qFromLittleEndian(packed);
    }
    }
}

bool MasterIndex_Fast::keysUsable() const
{
    // findRecord() comes here for this very class only: a subclass may
    // compare or filter otherwise than the bytes say.
    return m_keyLength > 0 && m_keyLength <= 8;
}

bool MasterIndex_Fast::keysLive() const
{
    return m_keysState == Keys::Live && m_keysSeen == m_list.changes();
}

void MasterIndex_Fast::dropKeys(Keys why) const
{
    if (m_keys)
        m_keys->clear();
    m_keysState = why;
    m_searchesSinceRefused = 0;
}

void MasterIndex_Fast::keysFollowed(bool ok) const
{
    if (!ok || m_keys->count() != m_list.count()) {
        dropKeys(Keys::Refused);
        return;
    }
    m_keysSeen = m_list.changes();
#ifdef DATABASE_CHECKS
    // Lookups check the row they are given, so a key changed unreported
    // costs no wrong answer; but it breaks the index's order as well, and a
    // build with run-time checks stops at once (on tables of a size where a
    // pass per change is affordable).
    if (m_list.count() > 65536)
        return;
    int position = 0;
    for (const Record &record : m_list) {
        if (!m_keys->holds(packedKey(record.rowPtr()), record.rowPtr()))
            qFatal("MasterIndex_Fast of %s: the key of row %d changed unreported", qPrintable(m_table->name()),
                   position);
        ++position;
    }
#endif
}

void MasterIndex_Fast::buildKeys() const
{
    if (!m_keys)
        m_keys = new KeyTable;
    m_keys->clear();
    m_keys->reserve(m_list.count());
    // The rows lie anywhere in the heap: their keys are read first, on
    // every core, a few rows ahead of each read; then the keys go in, each
    // slot fetched a few keys ahead of its insertion.
    const int n = m_list.count();
    largealloc::Vector<quint64> keys(static_cast<size_t>(n));
    // A first touch of a fresh page costs more than its zeroing: the slots
    // are faulted in on a thread of their own while the keys are read.
    const largealloc::Prefault prefault{{m_keys->slotBlock(), m_keys->bytes()}};
    constexpr int Ahead = 16;
    parallel::forEachSegment(m_list, [&](const Record *first, int count, int start) {
        for (int i = 0; i < count; ++i) {
            if (i + Ahead < count)
                __builtin_prefetch(first[i + Ahead].rowPtr() + m_keyOffset);
            keys[static_cast<size_t>(start + i)] = packedKey(first[i].rowPtr());
        }
    });
    bool unique = true;
    int position = 0;
    m_list.forEachSegment([&](const Record *first, int count) {
        for (int i = 0; i < count && unique; ++i, ++position) {
            if (position + Ahead < n)
                m_keys->prefetch(keys[static_cast<size_t>(position + Ahead)]);
            unique = m_keys->insert(keys[static_cast<size_t>(position)], first[i].rowPtr());
        }
    });
    if (!unique) {
        dropKeys(Keys::Refused);
        return;
    }
    m_keysState = Keys::Live;
    m_keysSeen = m_list.changes();
}

bool MasterIndex_Fast::lookup(const Record &key, Record &found) const
{
    if (!keysUsable() || key.isNull() || !m_table || !m_table->d_func()->lock.heldByCurrentThread())
        return false;
    if (!keysLive()) {
        if (m_keysState == Keys::Refused && ++m_searchesSinceRefused < searchesBeforeRebuild(m_list.count()))
            return false;
        buildKeys();
        if (!keysLive())
            return false;
    }
    const quint64 packed = packedKey(key.rowPtr());
    unsigned char *row = m_keys->find(packed);
    if (row && packedKey(row) != packed) {
        // The row's key changed without the index hearing of it.
        dropKeys(Keys::Refused);
        return false;
    }
    found = row ? Record(m_table, row) : Record();
    return true;
}

void MasterIndex_Fast::add(const Record &record)
{
    const bool live = keysLive();
    MasterIndexColumn::add(record);
    if (live)
        keysFollowed(m_keys->insert(packedKey(record.rowPtr()), record.rowPtr()));
}

void MasterIndex_Fast::remove(const Record &record, int position)
{
    const bool live = keysLive();
    const int before = m_list.count();
    MasterIndexColumn::remove(record, position);
    if (live)
        keysFollowed(m_list.count() == before || m_keys->erase(packedKey(record.rowPtr()), record.rowPtr()));
}

void MasterIndex_Fast::update(const Record &record, int firstColumn, int lastColumn, int position)
{
    if (!keysLive()) {
        MasterIndexColumn::update(record, firstColumn, lastColumn, position);
        return;
    }
    // A row the table holds under its present key stays where it is.
    if (m_keys->holds(packedKey(record.rowPtr()), record.rowPtr())) {
        keysFollowed(true);
        return;
    }
    MasterIndexColumn::update(record, firstColumn, lastColumn, position);
    dropKeys(Keys::Refused);
}

void MasterIndex_Fast::process(const QList<Record> &removed, const QList<Record> &updated, int firstColumn,
                               int lastColumn, const QList<Record> &inserted)
{
    if (!keysLive()) {
        MasterIndexColumn::process(removed, updated, firstColumn, lastColumn, inserted);
        return;
    }
    // The rows of a batch lie anywhere in the heap and their slots anywhere
    // in the table: each row is fetched a few records ahead of its slot, and
    // its slot a few ahead of its use.
    auto forEachKey = [this](const QList<Record> &records, auto use) {
        constexpr int RowAhead = 16;
        constexpr int SlotAhead = 8;
        const int n = records.size();
        for (int i = 0; i < n; ++i) {
            if (i + RowAhead < n)
                __builtin_prefetch(records[i + RowAhead].rowPtr() + m_keyOffset);
            if (i + SlotAhead < n)
                m_keys->prefetch(packedKey(records[i + SlotAhead].rowPtr()));
            use(records[i], packedKey(records[i].rowPtr()));
        }
    };
    // Updated rows still under their keys stay where they are, as the sorted
    // batch would leave them: only the others go to it.
    bool ok = true;
    QList<Record> moved;
    forEachKey(updated, [&](const Record &record, quint64 key) {
        if (!m_keys->holds(key, record.rowPtr())) {
            moved.append(record);
            ok = false;
        }
    });
    // A removed row that is not in the table has no key to give back; one
    // that is but was not found under its key leaves the counts unequal.
    forEachKey(removed, [&](const Record &record, quint64 key) { m_keys->erase(key, record.rowPtr()); });
    forEachKey(inserted, [&](const Record &record, quint64 key) {
        ok = m_keys->insert(key, record.rowPtr()) && ok;
    });
    MasterIndexColumn::process(removed, moved, firstColumn, lastColumn, inserted);
    keysFollowed(ok);
}
