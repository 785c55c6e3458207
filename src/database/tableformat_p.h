#ifndef DATABASE_TABLEFORMAT_P_H
#define DATABASE_TABLEFORMAT_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources and tools, and may change from version to
// version without notice.
//

#include "columndef.h"
#include "database_export.h"

#include <QtCore/QList>
#include <QtCore/QString>

class QDataStream;

// The header of a table file (doc/table_format.md): the one reader of it,
// for the loader, tabletool and the tests of damaged files.
namespace tableformat {

struct DATABASE_EXPORT Header
{
    QList<TableColumnDef> columns; // as stored, offsets and sizes included
    qint32 rowCount = 0;
    qint32 rowLength = 0;
    qint32 recordLength = 0;
    // The stream held the whole header.
    bool complete = false;
};

// Reads the header as the loader always has: the stored number of column
// records, whatever the stream's state after each (a record read past the
// end comes back empty), then the three counts.
DATABASE_EXPORT Header readHeader(QDataStream &stream);

// What this library's writer would never have put in the header, followed
// by `dataBytes` bytes of rows (negative: not known): the first problem
// found, in words, or an empty string. The loader copes with most of these
// (see TableIO); this says what it coped with.
DATABASE_EXPORT QString problem(const Header &header, qint64 dataBytes);

} // namespace tableformat

#endif // DATABASE_TABLEFORMAT_P_H
