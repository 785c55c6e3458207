#ifndef DATABASE_QTIOCOMPRESSOR_H
#define DATABASE_QTIOCOMPRESSOR_H

#include "database_export.h"

#include <QtCore/QIODevice>

class QtIOCompressorPrivate;

// QtIOCompressor: a QIODevice that compresses what is written to it, or
// decompresses what is read from it, on top of another device. Sequential
// and one-directional: open it ReadOnly or WriteOnly. Three stream formats:
// zlib (the default), gzip and raw deflate.
//
// If the underlying device is closed, open() opens it with the same mode and
// close() closes it again; an open one must already allow the direction
// asked for. Misuse of open() is reported by a Qt warning and a false
// result; device and zlib failures by errorString(), after which reads and
// writes answer -1. A write stream to which nothing was written is closed
// without a trailer.
//
// When a read meets the end of the compressed stream, the input read ahead
// is given back to the underlying device with ungetChar(), one character
// more than was left, as this device always did. In gzip format, a member
// followed by another (files joined with cat) reads on as one stream.
//
// Damaged input is reported, never read past: a stream whose data is
// corrupt or whose trailer does not match (zlib checks the gzip CRC and
// length) is an error; so is a stream on a file (a device that is not
// sequential) that ends before its trailer. Either way the device enters
// its error state with errorString() saying why, reads answer -1 and
// atEnd() is true. On a sequential device a pause in the input is not an
// error: reads answer 0 until more arrives.
class DATABASE_EXPORT QtIOCompressor : public QIODevice
{
    Q_OBJECT

public:
    enum StreamFormat { ZlibFormat = 0, GzipFormat = 1, RawZipFormat = 2 };

    // What table files are written with.
    static const int TableCompressionLevel = 6;
    static const int TableBufferSize = 65500;

    explicit QtIOCompressor(QIODevice *device, int compressionLevel = TableCompressionLevel,
                            int bufferSize = TableBufferSize);
    ~QtIOCompressor() override;

    void setStreamFormat(StreamFormat format);
    StreamFormat streamFormat() const;
    static bool isGzipSupported();

    bool isSequential() const override;
    bool open(OpenMode mode) override;
    void close() override;
    void flush();
    qint64 bytesAvailable() const override;
    // Whether a device or zlib failure (or damaged input) stopped the stream.
    bool hasError() const;

protected:
    qint64 readData(char *data, qint64 maxSize) override;
    qint64 writeData(const char *data, qint64 maxSize) override;

private:
    friend class QtIOCompressorPrivate;
    friend struct QtIOCompressorTestAccess;
    // zlib 1.2 and later know gzip and raw streams.
    static bool checkGzipSupport(const char *const versionString);

    Q_DECLARE_PRIVATE(QtIOCompressor)
    Q_DISABLE_COPY(QtIOCompressor)
    QtIOCompressorPrivate *d_ptr;
};

#endif // DATABASE_QTIOCOMPRESSOR_H
