// tabledump: prints the columns and rows of a table file, plain or gzip.
//
//   tabledump FILE [MAX_ROWS]

#include <database/database.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDataStream>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QTextStream>

#include <memory>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    registerJsonSettingsFormat(); // as every host of the library does
    QTextStream out(stdout);
    QTextStream err(stderr);
    const QStringList args = QCoreApplication::arguments();
    if (args.size() < 2 || args.size() > 3) {
        err << "usage: tabledump FILE [MAX_ROWS]\n";
        return 2;
    }
    const int maxRows = args.size() == 3 ? args[2].toInt() : -1;

    QFile file(args[1]);
    if (!file.open(QIODevice::ReadOnly)) {
        err << "tabledump: " << file.errorString() << "\n";
        return 1;
    }
    // gzip files start with 1f 8b.
    const QByteArray magic = file.peek(2);
    std::unique_ptr<QtIOCompressor> compressor;
    QDataStream stream(&file);
    if (magic == QByteArray("\x1f\x8b", 2)) {
        compressor.reset(new QtIOCompressor(&file));
        compressor->setStreamFormat(QtIOCompressor::GzipFormat);
        if (!compressor->open(QIODevice::ReadOnly)) {
            err << "tabledump: " << compressor->errorString() << "\n";
            return 1;
        }
        stream.setDevice(compressor.get());
    }

    QString name = QFileInfo(args[1]).fileName();
    if (name.endsWith(QLatin1String(".gz")))
        name.chop(3);
    Table table(name);
    try {
        TableIO(&table).read(stream, true);
    } catch (const Exception &e) {
        err << "tabledump: damaged file: " << e.message << "\n";
        return 1;
    } catch (const QString &message) {
        err << "tabledump: damaged file: " << message << "\n";
        return 1;
    } catch (const char *message) {
        err << "tabledump: damaged file: " << message << "\n";
        return 1;
    }

    out << "table " << table.name() << ": " << table.columnCount() << " columns, " << table.rowCount() << " rows\n";
    for (int c = 0; c < table.columnCount(); ++c) {
        const TableColumnDef &def = table.columnDef(c);
        out << "  " << def.name << "  " << table.columnTypeName(c) << (def.nullable ? "" : "  not null");
        if (!def.title.isEmpty())
            out << "  \"" << def.title << "\"";
        out << "\n";
    }
    int shown = 0;
    for (const Record &record : *table.masterIndex()) {
        if (maxRows >= 0 && shown++ >= maxRows)
            break;
        QStringList fields;
        for (int c = 0; c < table.columnCount(); ++c) {
            const Field field = record.data(c);
            fields.append(field.isNull()                            ? QStringLiteral("NULL")
                              : field.type() == FieldType::BoardList ? field.toSystemString()
                                                                     : field.toString());
        }
        out << fields.join(QLatin1Char('\t')) << "\n";
    }
    return 0;
}
