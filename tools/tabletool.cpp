// tabletool: inspects, dumps, verifies and converts the table files the
// library writes, plain or gzip.
//
//   tabletool info FILE
//   tabletool dump FILE [--format text|csv|json] [--columns a,b] [--limit N]
//   tabletool verify FILE
//   tabletool convert IN OUT [--gzip|--plain]
//
// Errors go to standard error, naming the file, with exit status 1; usage
// errors exit with 2.

#include <database/database.h>
#include <database/tableformat_p.h>

#include <QtCore/QBuffer>
#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QDataStream>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QSaveFile>
#include <QtCore/QTextStream>

#include <unistd.h>

#include <cstdio>
#include <memory>

namespace {

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

QTextStream &err()
{
    static QTextStream stream(stderr);
    return stream;
}

// Thrown to end a command with a message naming the file.
struct Failure
{
    QString message;
};

[[noreturn]] void fail(const QString &file, const QString &what)
{
    throw Failure{QStringLiteral("%1: %2").arg(file, what)};
}

// A progress bar on standard error, only when it is a terminal.
class Progress
{
public:
    Progress(const QString &what, qint64 total) : m_what(what), m_total(total), m_shown(isatty(2) && total > 0) {}
    ~Progress()
    {
        if (m_shown && m_drawn)
            std::fprintf(stderr, "\r%*s\r", 60, "");
    }
    void set(qint64 done)
    {
        if (!m_shown)
            return;
        const int percent = static_cast<int>(done * 100 / m_total);
        if (percent == m_percent)
            return;
        m_percent = percent;
        m_drawn = true;
        const int filled = percent * 30 / 100;
        std::fprintf(stderr, "\r%s [%s%s] %3d%%", qPrintable(m_what), QByteArray(filled, '#').constData(),
                     QByteArray(30 - filled, '.').constData(), percent);
        std::fflush(stderr);
    }

private:
    QString m_what;
    qint64 m_total;
    bool m_shown;
    bool m_drawn = false;
    int m_percent = -1;
};

// The whole uncompressed content of a table file, and what the gzip layer
// said of it.
struct Content
{
    QByteArray bytes;
    bool compressed = false;
    qint64 fileSize = 0;
    QString streamError; // a cut or damaged gzip stream
};

Content readContent(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        fail(path, file.errorString());
    Content content;
    content.fileSize = file.size();
    content.compressed = file.peek(2) == QByteArray("\x1f\x8b", 2);
    if (!content.compressed) {
        content.bytes = file.readAll();
        return content;
    }
    QtIOCompressor gz(&file);
    gz.setStreamFormat(QtIOCompressor::GzipFormat);
    if (!gz.open(QIODevice::ReadOnly))
        fail(path, gz.errorString());
    Progress progress(QStringLiteral("reading"), content.fileSize);
    char chunk[1 << 16];
    for (;;) {
        const qint64 n = gz.read(chunk, sizeof chunk);
        if (n <= 0)
            break;
        content.bytes.append(chunk, static_cast<int>(n));
        progress.set(file.pos());
    }
    if (gz.hasError())
        content.streamError = gz.errorString();
    return content;
}

// The stored header, read by the loader's own reader.
struct Header : tableformat::Header
{
    qint64 headerSize = 0;
};

Header readHeader(const QString &path, const QByteArray &bytes)
{
    QDataStream stream(bytes);
    Header header;
    static_cast<tableformat::Header &>(header) = tableformat::readHeader(stream);
    if (!header.complete)
        fail(path, QStringLiteral("the header is cut short"));
    header.headerSize = stream.device()->pos();
    return header;
}

// A table with the file's columns and rows.
std::unique_ptr<Table> load(const QString &path, const Content &content)
{
    QString name = QFileInfo(path).fileName();
    if (name.endsWith(QLatin1String(".gz")))
        name.chop(3);
    std::unique_ptr<Table> table(new Table(name));
    QDataStream stream(content.bytes);
    try {
        TableIO(table.get()).read(stream, true);
    } catch (const Exception &e) {
        fail(path, e.message);
    } catch (const QString &message) {
        fail(path, message);
    }
    return table;
}

int parseLimit(const QCommandLineParser &parser)
{
    if (!parser.isSet(QStringLiteral("limit")))
        return -1;
    bool ok = false;
    const int limit = parser.value(QStringLiteral("limit")).toInt(&ok);
    if (!ok || limit < 0)
        throw Failure{QStringLiteral("--limit takes a number of rows, not '%1'").arg(parser.value(QStringLiteral("limit")))};
    return limit;
}

QString flags(const TableColumnDef &def)
{
    QStringList flags;
    flags << (def.nullable ? QStringLiteral("nullable") : QStringLiteral("not null"));
    if (def.secondFlag)
        flags << QStringLiteral("second flag");
    return flags.join(QStringLiteral(", "));
}

void info(const QString &path)
{
    const Content content = readContent(path);
    const Header header = readHeader(path, content.bytes);
    out() << "file:             " << path << (content.compressed ? " (gzip)" : "") << "\n";
    out() << "file size:        " << content.fileSize << " bytes\n";
    out() << "uncompressed:     " << content.bytes.size() << " bytes\n";
    out() << "rows:             " << header.rowCount << "\n";
    out() << "row length:       " << header.rowLength << " bytes\n";
    out() << "record length:    " << header.recordLength << " bytes\n";
    out() << "columns:          " << header.columns.size() << "\n";
    for (const TableColumnDef &def : header.columns) {
        QString type = Field::typeName(def.type);
        if (FieldType::typeHasLength(def.type))
            type += QStringLiteral("(%1)").arg(def.length);
        out() << "  " << def.name.leftJustified(16) << ' ' << type.leftJustified(14) << ' ' << flags(def);
        if (!def.title.isEmpty())
            out() << "  title \"" << def.title << '"';
        if (!def.description.isEmpty())
            out() << "  \"" << def.description << '"';
        out() << "\n";
    }
    if (!content.streamError.isEmpty())
        fail(path, content.streamError);
}

QString fieldText(const Field &field)
{
    return field.type() == FieldType::BoardList ? field.toSystemString() : field.toString();
}

// RFC 4180: quoted when it holds a comma, a quote or a line break.
QString csv(const QString &text)
{
    if (!text.contains(QLatin1Char(',')) && !text.contains(QLatin1Char('"')) && !text.contains(QLatin1Char('\n'))
        && !text.contains(QLatin1Char('\r')))
        return text;
    QString quoted = text;
    quoted.replace(QLatin1String("\""), QLatin1String("\"\""));
    return QLatin1Char('"') + quoted + QLatin1Char('"');
}

void dump(const QString &path, const QString &format, const QStringList &names, int limit)
{
    const Content content = readContent(path);
    std::unique_ptr<Table> table = load(path, content);
    QList<int> columns;
    for (const QString &name : names) {
        const int column = table->columnIndex(name);
        if (column < 0)
            fail(path, QStringLiteral("no column '%1'").arg(name));
        columns << column;
    }
    if (names.isEmpty()) {
        for (int c = 0; c < table->columnCount(); ++c)
            columns << c;
    }
    QStringList header;
    for (int c : columns)
        header << table->columnName(c);

    QJsonArray rows;
    if (format == QLatin1String("csv")) {
        QStringList quoted;
        for (const QString &name : header)
            quoted << csv(name);
        out() << quoted.join(QLatin1Char(',')) << "\r\n";
    } else if (format == QLatin1String("text")) {
        out() << header.join(QLatin1Char('\t')) << "\n";
    }
    int shown = 0;
    for (const Record &record : *table->masterIndex()) {
        if (limit >= 0 && shown >= limit)
            break;
        ++shown;
        QStringList texts;
        QJsonObject object;
        for (int c : columns) {
            const Field field = record.data(c);
            if (format == QLatin1String("json"))
                object.insert(table->columnName(c), field.isNull() ? QJsonValue() : QJsonValue(fieldText(field)));
            else if (format == QLatin1String("csv"))
                texts << (field.isNull() ? QString() : csv(fieldText(field)));
            else
                texts << (field.isNull() ? QStringLiteral("NULL") : fieldText(field));
        }
        if (format == QLatin1String("json"))
            rows.append(object);
        else
            out() << texts.join(format == QLatin1String("csv") ? QStringLiteral(",") : QStringLiteral("\t"))
                  << (format == QLatin1String("csv") ? "\r\n" : "\n");
    }
    if (format == QLatin1String("json")) {
        QJsonObject document;
        document.insert(QStringLiteral("columns"), QJsonArray::fromStringList(header));
        document.insert(QStringLiteral("rows"), rows);
        out() << QJsonDocument(document).toJson(QJsonDocument::Indented);
    }
    if (!content.streamError.isEmpty())
        fail(path, content.streamError);
}

// What the loader deliberately lets pass.
void verify(const QString &path)
{
    const Content content = readContent(path);
    if (!content.streamError.isEmpty())
        fail(path, content.streamError);
    const Header header = readHeader(path, content.bytes);
    const QString problem = tableformat::problem(header, content.bytes.size() - header.headerSize);
    if (!problem.isEmpty())
        fail(path, problem);
    out() << path << ": ok, " << header.columns.size() << " columns, " << header.rowCount << " rows\n";
}

void convert(const QString &in, const QString &outPath, bool gzip)
{
    const Content content = readContent(in);
    if (!content.streamError.isEmpty())
        fail(in, content.streamError);
    std::unique_ptr<Table> table = load(in, content);
    // Written beside its name and renamed over it once complete.
    QSaveFile file(outPath);
    if (!file.open(QIODevice::WriteOnly))
        fail(outPath, file.errorString());
    std::unique_ptr<QtIOCompressor> gz;
    QDataStream stream(&file);
    if (gzip) {
        gz.reset(new QtIOCompressor(&file));
        gz->setStreamFormat(QtIOCompressor::GzipFormat);
        if (!gz->open(QIODevice::WriteOnly))
            fail(outPath, gz->errorString());
        stream.setDevice(gz.get());
    }
    TableIO(table.get()).write(stream);
    stream.setDevice(nullptr);
    if (gz)
        gz->close();
    if (!file.commit())
        fail(outPath, file.errorString());
    out() << outPath << ": " << table->rowCount() << " rows written" << (gzip ? " (gzip)" : "") << "\n";
}

const char *const Usage = "Commands:\n"
                          "  info FILE      columns, counts, lengths and sizes of a table file\n"
                          "  dump FILE      its rows (--format, --columns, --limit)\n"
                          "  verify FILE    checks what loading lets pass; exit 1 on the first problem\n"
                          "  convert IN OUT rewrites IN as OUT, plain or gzip (--gzip, --plain)\n"
                          "Files may be plain or gzip-compressed. 'tabletool COMMAND --help' tells more.";

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("tabletool"));
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Inspects and converts table files.\n") + QLatin1String(Usage));
    parser.addHelpOption();
    parser.addPositionalArgument(QStringLiteral("command"), QStringLiteral("info, dump, verify or convert"));
    parser.parse(QCoreApplication::arguments());
    const QStringList first = parser.positionalArguments();
    const QString command = first.value(0);

    parser.clearPositionalArguments();
    if (command == QLatin1String("info") || command == QLatin1String("verify")) {
        parser.addPositionalArgument(command, command == QLatin1String("info") ? QStringLiteral("Describes FILE.")
                                                                             : QStringLiteral("Checks FILE."));
        parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("A table file, plain or gzip."));
    } else if (command == QLatin1String("dump")) {
        parser.addPositionalArgument(QStringLiteral("dump"), QStringLiteral("Prints the rows of FILE."));
        parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("A table file, plain or gzip."));
        parser.addOption({QStringLiteral("format"), QStringLiteral("text (tab-separated, NULL for null), csv (RFC 4180, "
                                                                   "null empty) or json (null for null)."),
                          QStringLiteral("format"), QStringLiteral("text")});
        parser.addOption({QStringLiteral("columns"), QStringLiteral("The columns to print, comma-separated."),
                          QStringLiteral("a,b")});
        parser.addOption({QStringLiteral("limit"), QStringLiteral("At most N rows."), QStringLiteral("N")});
    } else if (command == QLatin1String("convert")) {
        parser.addPositionalArgument(QStringLiteral("convert"), QStringLiteral("Rewrites IN as OUT."));
        parser.addPositionalArgument(QStringLiteral("IN"), QStringLiteral("A table file, plain or gzip."));
        parser.addPositionalArgument(QStringLiteral("OUT"), QStringLiteral("The file to write; replaced only once complete."));
        parser.addOption({QStringLiteral("gzip"), QStringLiteral("Write gzip (the default when OUT ends in .gz).")});
        parser.addOption({QStringLiteral("plain"), QStringLiteral("Write a plain file.")});
    }
    parser.process(app); // --help, and unknown options, end here
    const QStringList args = parser.positionalArguments();

    try {
        if (command == QLatin1String("info") && args.size() == 2) {
            info(args[1]);
        } else if (command == QLatin1String("verify") && args.size() == 2) {
            verify(args[1]);
        } else if (command == QLatin1String("dump") && args.size() == 2) {
            const QString format = parser.value(QStringLiteral("format"));
            if (format != QLatin1String("text") && format != QLatin1String("csv") && format != QLatin1String("json"))
                throw Failure{QStringLiteral("--format takes text, csv or json, not '%1'").arg(format)};
            const QStringList columns = parser.isSet(QStringLiteral("columns"))
                ? parser.value(QStringLiteral("columns")).split(QLatin1Char(','), Qt::SkipEmptyParts)
                : QStringList();
            dump(args[1], format, columns, parseLimit(parser));
        } else if (command == QLatin1String("convert") && args.size() == 3) {
            if (parser.isSet(QStringLiteral("gzip")) && parser.isSet(QStringLiteral("plain")))
                throw Failure{QStringLiteral("--gzip and --plain exclude each other")};
            const bool gzip = parser.isSet(QStringLiteral("gzip"))
                || (!parser.isSet(QStringLiteral("plain")) && args[2].endsWith(QLatin1String(".gz")));
            convert(args[1], args[2], gzip);
        } else {
            err() << "usage: tabletool COMMAND ...\n" << Usage << "\n";
            return 2;
        }
    } catch (const Failure &failure) {
        out().flush();
        err() << "tabletool: " << failure.message << "\n";
        return 1;
    }
    return 0;
}
