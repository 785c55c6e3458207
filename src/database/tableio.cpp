#include "tableio.h"
#include "tablefile_p.h"
#include "tableformat_p.h"
#include "tablerecords_p.h"

#include "index.h"
#include "indexsort.h"
#include "masterindex.h"
#include "qtiocompressor.h"
#include "recordsort_p.h"
#include "settings.h"
#include "table.h"

#include <QtCore/QDataStream>
#include <QtCore/QDebug>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QSaveFile>
#include <QtCore/QScopeGuard>

#include <cstring>
#include <memory>
#include <typeinfo>
#include <vector>

namespace {

constexpr int BatchSize = 10240;
// Loads of this many rows sort their sorted indexes' runs as the rows come.
constexpr qint32 PresortFrom = 65536;
// Rows are saved in blocks of about this many bytes.
constexpr int WriteBlock = 256 * 1024;

// When every live column is a plain copy of the stored column at the same
// place, a row converts as one copy of its slotBytes and of its null bits (only
// the columns' bits: the spare bits of the last null byte stay clear, as
// column-by-column copies leave them).
struct WholeCopy
{
    bool enabled = false;
    size_t slotBytes = 0;
    std::vector<unsigned char> nullMasks;

    void copy(unsigned char *destination, const unsigned char *source) const
    {
        std::memcpy(destination, source, slotBytes);
        for (size_t i = 0; i < nullMasks.size(); ++i)
            destination[slotBytes + i] = source[slotBytes + i] & nullMasks[i];
    }
};

WholeCopy wholeCopy(const QList<FieldDefConvertor *> &list, const Table *live, const Table *stored)
{
    WholeCopy whole;
    const int columns = live->columnCount();
    if (columns == 0 || list.size() != columns || stored->columnCount() != columns
        || stored->rowLength() != live->rowLength())
        return whole;
    for (int c = 0; c < columns; ++c) {
        const FieldDefConvertor *convertor = list.at(c);
        const std::type_info &type = typeid(*convertor);
        if (type != typeid(TableIO::FieldDefConvertor_Copy) && type != typeid(TableIO::FieldDefConvertor_Copy4)
            && type != typeid(TableIO::FieldDefConvertor_Copy8))
            return whole;
        const TableColumnDef *to = convertor->destination;
        const TableColumnDef *from = convertor->source;
        if (to != &live->columnDef(c) || from != &stored->columnDef(c) || to->offset != from->offset
            || to->size != from->size || to->nullIndex != from->nullIndex || to->nullIndex != c)
            return whole;
    }
    whole.enabled = true;
    whole.slotBytes = static_cast<size_t>(live->rowLength());
    whole.nullMasks.assign(static_cast<size_t>((columns + 7) / 8), 0xFF);
    if (columns % 8)
        whole.nullMasks.back() = static_cast<unsigned char>((1u << (columns % 8)) - 1);
    return whole;
}
// Compressed files from this size on are read ahead on a thread.
constexpr qint64 ReadAheadFrom = 256 * 1024;
// Rows made up after a stream has ended (see TableIO::read).
constexpr qint64 MaxRowsPastEnd = 65536;
constexpr qint64 MaxBytesPastEnd = 256LL << 20;

void copyNullBit(Field &destination, const Field &source, const TableColumnDef &to, const TableColumnDef &from)
{
    unsigned char *target = destination.data() - to.offset + to.nullByteOffset;
    const unsigned char *origin = source.data() - from.offset + from.nullByteOffset;
    if ((*origin & from.nullMask) == from.nullMask)
        *target |= to.nullMask;
    else
        *target = static_cast<unsigned char>((*target | to.nullMask) ^ to.nullMask);
}

// The stored column S is left out of a load that adds columns when its name
// is empty, or when an entry with an empty key names it and no entry has S
// as its key.
bool dropped(const QString &stored, const TableIO::Convertors &convertors)
{
    if (stored.isEmpty())
        return true;
    bool marked = false;
    for (auto it = convertors.cbegin(); it != convertors.cend(); ++it) {
        if (it.key() == stored)
            return false;
        if (it.key().isEmpty() && it.value().first == stored)
            marked = true;
    }
    return marked;
}

} // namespace

// ---------------------------------------------------------------------------
// Convertors

FieldDefConvertor::~FieldDefConvertor() = default;

void FieldDefConvertor::convert(Field &destination, const Field &source)
{
    destination = source;
}

void TableIO::FieldDefConvertor_Copy::convert(Field &destination, const Field &source)
{
    std::memcpy(destination.data(), source.data(), static_cast<size_t>(size));
    copyNullBit(destination, source, *this->destination, *this->source);
}

void TableIO::FieldDefConvertor_Copy4::convert(Field &destination, const Field &source)
{
    std::memcpy(destination.data(), source.data(), 4);
    copyNullBit(destination, source, *this->destination, *this->source);
}

void TableIO::FieldDefConvertor_Copy8::convert(Field &destination, const Field &source)
{
    std::memcpy(destination.data(), source.data(), 8);
    copyNullBit(destination, source, *this->destination, *this->source);
}

void TableIO::make_fromDefs(QList<FieldDefConvertor *> &list, const Table *stored, const TableIO::Convertors &convertors)
{
    const QList<TableColumnDef *> live = m_table->fieldDefs();
    const QList<TableColumnDef *> storedDefs = stored->fieldDefs();
    for (TableColumnDef *column : live) {
        bool translated = false;
        for (auto it = convertors.cbegin(); it != convertors.cend(); ++it) {
            if (it.key() != column->name)
                continue;
            translated = true;
            const int from = stored->columnIndex(it.value().first);
            FieldDefConvertor *convertor = it.value().second;
            if (from == -1 || !convertor) {
                QMessageLogger("src/database/tableio", 0, nullptr).warning("Column not found in translation.");
                continue;
            }
            convertor->source = storedDefs.at(from);
            convertor->destination = column;
            list.append(convertor);
        }
        if (translated)
            continue;

        const int from = stored->columnIndex(column->name);
        if (from == -1)
            continue;
        TableColumnDef *source = storedDefs.at(from);
        FieldDefConvertor *convertor;
        if (source->type == column->type && source->length == column->length && source->size == column->size
            && source->nullable == column->nullable) {
            FieldDefConvertor_Copy *copy = source->size == 4 ? new FieldDefConvertor_Copy4
                : source->size == 8                          ? new FieldDefConvertor_Copy8
                                                             : new FieldDefConvertor_Copy;
            copy->size = source->size;
            convertor = copy;
        } else {
            convertor = new FieldDefConvertor;
        }
        convertor->source = source;
        convertor->destination = column;
        list.append(convertor);
    }
}

void TableIO::convertDefs(const QList<FieldDefConvertor *> &list, unsigned char *destination, unsigned char *source)
{
    for (FieldDefConvertor *convertor : list) {
        Field to(convertor->destination, destination);
        const Field from(convertor->source, source);
        convertor->convert(to, from);
    }
}

// ---------------------------------------------------------------------------
// Streams

QString TableIO::fileName(const QDir &dir) const
{
    return QFileInfo(dir, m_table->name()).filePath();
}

void TableIO::write(QDataStream &stream)
{
    write(stream, true);
}

void TableIO::write(QDataStream &stream, bool withRows)
{
    TableLocker locker(m_table);
    const QList<TableColumnDef *> columns = m_table->fieldDefs();
    stream << static_cast<qint16>(columns.size());
    for (const TableColumnDef *column : columns)
        column->write(stream);
    const int recordLength = static_cast<int>(m_table->rowSize() - Table::base);
    stream << static_cast<qint32>(m_table->rowCount()) << static_cast<qint32>(m_table->rowLength())
           << static_cast<qint32>(recordLength);
    if (!withRows)
        return;
    // Rows go out gathered in blocks: one device write per block, not per row.
    std::vector<char> block;
    block.reserve(static_cast<size_t>(std::max(recordLength, WriteBlock)));
    for (const Record &record : *m_table->masterIndex()) {
        if (block.size() + static_cast<size_t>(recordLength) > static_cast<size_t>(WriteBlock) && !block.empty()) {
            stream.writeRawData(block.data(), static_cast<int>(block.size()));
            block.clear();
        }
        const char *data = reinterpret_cast<const char *>(record.rowPtr() + Table::base);
        block.insert(block.end(), data, data + recordLength);
    }
    if (!block.empty())
        stream.writeRawData(block.data(), static_cast<int>(block.size()));
}

void TableIO::read(QDataStream &stream)
{
    read(stream, false);
}

void TableIO::read(QDataStream &stream, bool addMissingColumns)
{
    read(stream, addMissingColumns, Convertors());
}

void TableIO::read(QDataStream &stream, bool addMissingColumns, const TableIO::Convertors &convertors)
{
    if (stream.atEnd())
        return;
    const QList<Index *> indexes = m_table->indexes();
    QList<FieldDefConvertor *> list;
    auto freeConvertors = qScopeGuard([&] { qDeleteAll(list); });
    bool detached = false;
    std::unique_ptr<recordsort::LoadedRuns> runs;
    TableUpdater updater(m_table);
    // Before the batch closes, also when an exception unwinds: the indexes
    // come back and are rebuilt under the lock, so that a reader on another
    // thread (a model) never sees them half built, and inside the batch, so
    // that a join refills its main table once, when the batch ends, taking
    // the main table's lock before this one's as it always must.
    auto finish = qScopeGuard([&] {
        if (!detached)
            return;
        if (runs)
            runs->finish();
        m_table->setIndexes(indexes);
        const recordsort::LoadedRuns::Scope scope(runs.get());
        for (Index *index : m_table->indexes())
            index->build();
    });
    m_table->clear();

    const tableformat::Header header = tableformat::readHeader(stream);
    const int columnCount = header.columns.size();
    Table saved(QStringLiteral("saved"));
    {
        saved.deferNullLayout(true);
        auto layout = qScopeGuard([&] { saved.deferNullLayout(false); });
        for (const TableColumnDef &def : header.columns)
            saved.addColumn(def);
    }
    const qint32 rowCount = header.rowCount;
    const qint32 recordLength = header.recordLength;

    if (addMissingColumns && columnCount > 0) {
        m_table->deferNullLayout(true); // the table is empty here
        auto layout = qScopeGuard([&] { m_table->deferNullLayout(false); });
        for (const TableColumnDef *def : saved.fieldDefs()) {
            if (m_table->columnIndex(def->name) != -1 || dropped(def->name, convertors))
                continue;
            m_table->addColumn(def->name, def->type, def->length, def->nullable, def->title, def->secondFlag,
                               def->description);
        }
    }

    make_fromDefs(list, &saved, convertors);

    for (Index *index : indexes)
        index->clear();
    m_table->setIndexes(QList<Index *>());
    detached = true;

    // Many rows: the sorted indexes' runs are sorted while the rows come.
    if (rowCount >= PresortFrom) {
        std::vector<const IndexSort *> sorted;
        for (Index *index : indexes)
            if (const IndexSort *s = dynamic_cast<const IndexSort *>(index))
                if (static_cast<const Index *>(m_table->masterIndex()) != index)
                    sorted.push_back(s);
        if (!sorted.empty())
            runs.reset(new recordsort::LoadedRuns(sorted));
    }

    // Each record comes as the whole stored layout, so that no convertor
    // reads past it (see tablerecords_p.h for damaged streams).
    const qint64 layout = static_cast<qint64>(saved.rowSize()) - Table::base;
    const WholeCopy whole = wholeCopy(list, m_table, &saved);
    // A list holds each handle in a node of its own: the batch's nodes are
    // made once and written over batch after batch, so that a million rows
    // do not cost a million allocations and frees of handles.
    QList<Record> batch;
    batch.reserve(BatchSize);
    int filled = 0;
    // Made-up rows past the end also stop at 256 MiB of rows, so that a few
    // bytes that promise wide rows cannot claim gigabytes.
    const qint64 maxPastEnd = std::max<qint64>(
        1, std::min<qint64>(MaxRowsPastEnd, MaxBytesPastEnd / static_cast<qint64>(m_table->rowSize())));
    tablerecords::read(stream, layout, recordLength, rowCount, maxPastEnd, [&](const unsigned char *from) {
        Record row(m_table);
        if (whole.enabled)
            whole.copy(row.rowPtr() + Table::base, from);
        else
            convertDefs(list, row.rowPtr() + Table::base, const_cast<unsigned char *>(from));
        if (filled == BatchSize) {
            m_table->appendList(batch);
            if (runs)
                runs->take(batch, filled);
            filled = 0;
        }
        if (filled < batch.size())
            batch[filled] = std::move(row);
        else
            batch.append(row);
        ++filled;
    });
    if (filled < batch.size())
        batch.erase(batch.begin() + filled, batch.end());
    if (!batch.isEmpty()) {
        m_table->appendList(batch);
        if (runs)
            runs->take(batch, batch.size());
    }
}

// ---------------------------------------------------------------------------
// Folders

void TableIO::write(const QDir &dir)
{
    const QString path = fileName(dir);
    const bool compressed = Settings(QStringLiteral("Database")).value(QStringLiteral("compressed"), false).toBool();
    const QString gzPath = path + QStringLiteral(".gz");
    // Written beside its final name and renamed over it only when complete,
    // so a failed or killed save leaves the previous file as it was; the
    // file of the other kind goes only once the new one stands.
    m_error.clear();
    QSaveFile file(compressed ? gzPath : path);
    if (!file.open(QIODevice::WriteOnly)) {
        fail(file.fileName(), file.errorString());
        return;
    }
    // Compressed on every core, into one gzip member any reader takes.
    std::unique_ptr<TableGzipWriter> compressor;
    QDataStream stream;
    if (compressed) {
        compressor.reset(new TableGzipWriter(&file, 6));
        if (!compressor->open(QIODevice::WriteOnly)) {
            fail(file.fileName(), file.errorString());
            file.cancelWriting();
            return;
        }
        stream.setDevice(compressor.get());
    } else {
        stream.setDevice(&file);
    }
    write(stream, true);
    stream.setDevice(nullptr);
    if (compressor) {
        compressor->close(); // the file stays open: the compressor did not open it
        if (compressor->hasError()) {
            fail(file.fileName(), compressor->errorString());
            file.cancelWriting();
            return;
        }
    }
    if (!file.commit()) {
        fail(file.fileName(), file.errorString());
        return;
    }
    const QString other = compressed ? path : gzPath;
    if (QFile::exists(other))
        QFile::remove(other);
}

void TableIO::read(const QDir &dir, bool addMissingColumns)
{
    m_error.clear();
    const QString path = fileName(dir);
    QFile file(path);
    std::unique_ptr<QtIOCompressor> compressor;
    std::unique_ptr<TableReadAhead> readAhead;
    QDataStream stream;
    if (file.open(QIODevice::ReadOnly)) {
        stream.setDevice(&file);
    } else {
        file.setFileName(path + QStringLiteral(".gz"));
        compressor.reset(new QtIOCompressor(&file));
        compressor->setStreamFormat(QtIOCompressor::GzipFormat);
        if (compressor->open(QIODevice::ReadOnly)) {
            stream.setDevice(compressor.get());
            // A big file inflates on a thread of its own while its rows
            // are converted here.
            if (file.size() >= ReadAheadFrom) {
                readAhead.reset(new TableReadAhead(compressor.get()));
                if (readAhead->open(QIODevice::ReadOnly))
                    stream.setDevice(readAhead.get());
            }
        }
    }
    read(stream, addMissingColumns, Convertors());
    stream.setDevice(nullptr);
    readAhead.reset(); // the compressor is this thread's again
    if (compressor && compressor->hasError())
        fail(file.fileName(), compressor->errorString());
    else if (file.isOpen() && file.error() != QFileDevice::NoError)
        fail(file.fileName(), file.errorString());
    compressor.reset();
    file.close();
}

void TableIO::fail(const QString &path, const QString &reason)
{
    m_error = reason;
    qWarning().noquote() << QStringLiteral("TableIO: %1: %2").arg(QDir::toNativeSeparators(path), reason);
}

unsigned long long TableIO::memoryUsage(bool withRows, bool withRecords, bool withSpare) const
{
    const MasterIndex *master = m_table->masterIndex();
    if (!master)
        return 0;
    const unsigned long long count = static_cast<unsigned long long>(master->count());
    unsigned long long total = 0;
    if (withRows)
        total += count * master->table()->rowSize();
    if (withRecords)
        total += count * sizeof(Record);
    if (withSpare)
        total += sizeof(Record) * (static_cast<unsigned long long>(master->list().capacity()) - count);
    return total;
}
