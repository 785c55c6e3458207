#include "qtiocompressor.h"

#include <QtCore/QtDebug>

#include <zlib.h>

#include <cstring>

class QtIOCompressorPrivate
{
public:
    enum State {
        // Reading.
        NotReadFirstByte = 0,
        InStream = 1,
        EndOfStream = 2,
        // Writing.
        NoBytesWritten = 3,
        BytesWritten = 4,
        // Both.
        Closed = 5,
        Error = 6,
    };

    QtIOCompressorPrivate(QtIOCompressor *q, QIODevice *device, int compressionLevel, int bufferSize);
    ~QtIOCompressorPrivate();

    void flushZlib(int flushMode);
    // Whether the input after a gzip member starts another member.
    bool nextMemberFollows();
    bool writeBytes(const unsigned char *data, qint64 size);
    void setZlibError(const QString &prefix, int status);

    QtIOCompressor *q_ptr;
    QIODevice *device;
    bool manageDevice = false;
    z_stream zlibStream;
    // A sync flush needs more than six bytes of room to make progress, so
    // deflate's output goes through at least this much, whatever the
    // buffer size; reads still take bufferSize bytes at a time.
    enum { MinOutputSize = 64 };

    int compressionLevel;
    int bufferSize;
    int outputSize;
    unsigned char *buffer;
    State state = Closed;
    QtIOCompressor::StreamFormat streamFormat = QtIOCompressor::ZlibFormat;

    Q_DECLARE_PUBLIC(QtIOCompressor)
};

QtIOCompressorPrivate::QtIOCompressorPrivate(QtIOCompressor *q, QIODevice *device, int compressionLevel,
                                             int bufferSize)
    : q_ptr(q)
    , device(device)
    , compressionLevel(compressionLevel)
    , bufferSize(qMax(bufferSize, 1))
    , outputSize(qMax(this->bufferSize, int(MinOutputSize)))
    // One byte more than the staging area: the character given back past the
    // pending input at the end of a stream is then always inside it.
    , buffer(new unsigned char[static_cast<size_t>(outputSize) + 1]())
{
    std::memset(&zlibStream, 0, sizeof zlibStream);
}

QtIOCompressorPrivate::~QtIOCompressorPrivate()
{
    delete[] buffer;
}

void QtIOCompressorPrivate::setZlibError(const QString &prefix, int status)
{
    Q_Q(QtIOCompressor);
    const char *text = zError(status);
    if (text && *text)
        q->setErrorString(prefix + QString::fromLatin1(text));
    else
        q->setErrorString(prefix + QStringLiteral(" Unknown error, code ") + QString::number(status));
}

bool QtIOCompressorPrivate::writeBytes(const unsigned char *data, qint64 size)
{
    Q_Q(QtIOCompressor);
    qint64 written = 0;
    while (written < size) {
        const qint64 result = device->write(reinterpret_cast<const char *>(data) + written, size - written);
        if (result == -1) {
            q->setErrorString(QStringLiteral("Error writing to underlying device: ") + device->errorString());
            return false;
        }
        written += result;
    }
    state = BytesWritten;
    return true;
}

bool QtIOCompressorPrivate::nextMemberFollows()
{
    unsigned char magic[2];
    const qint64 pending = zlibStream.avail_in;
    for (qint64 i = 0; i < qMin<qint64>(pending, 2); ++i)
        magic[i] = zlibStream.next_in[i];
    if (pending < 2) {
        char more[2];
        const qint64 wanted = 2 - pending;
        if (device->peek(more, wanted) != wanted)
            return false;
        for (qint64 i = 0; i < wanted; ++i)
            magic[pending + i] = static_cast<unsigned char>(more[i]);
    }
    return magic[0] == 0x1f && magic[1] == 0x8b;
}

void QtIOCompressorPrivate::flushZlib(int flushMode)
{
    zlibStream.next_in = nullptr;
    zlibStream.avail_in = 0;
    int status;
    do {
        zlibStream.next_out = buffer;
        zlibStream.avail_out = static_cast<uInt>(outputSize);
        status = deflate(&zlibStream, flushMode);
        if (status != Z_OK && status != Z_STREAM_END) {
            state = Error;
            setZlibError(QStringLiteral("Internal zlib error when compressing: "), status);
            return;
        }
        const qint64 produced = outputSize - zlibStream.avail_out;
        if (!writeBytes(buffer, produced))
            return;
    } while ((flushMode == Z_FINISH && status != Z_STREAM_END) || (flushMode != Z_FINISH && zlibStream.avail_out == 0));
}

QtIOCompressor::QtIOCompressor(QIODevice *device, int compressionLevel, int bufferSize)
    : d_ptr(new QtIOCompressorPrivate(this, device, compressionLevel, bufferSize))
{
}

QtIOCompressor::~QtIOCompressor()
{
    close();
    delete d_ptr;
}

void QtIOCompressor::setStreamFormat(StreamFormat format)
{
    d_func()->streamFormat = format;
}

QtIOCompressor::StreamFormat QtIOCompressor::streamFormat() const
{
    return d_func()->streamFormat;
}

bool QtIOCompressor::isGzipSupported()
{
    return checkGzipSupport(zlibVersion());
}

bool QtIOCompressor::checkGzipSupport(const char *const versionString)
{
    if (!versionString || std::strlen(versionString) < 3)
        return false;
    if (versionString[0] == '0')
        return false;
    if (versionString[0] != '1')
        return true;
    return versionString[2] != '0' && versionString[2] != '1';
}

bool QtIOCompressor::isSequential() const
{
    return true;
}

bool QtIOCompressor::open(OpenMode mode)
{
    Q_D(QtIOCompressor);
    if (isOpen()) {
        qWarning("QtIOCompressor::open: device already open");
        return false;
    }
    const bool read = mode & ReadOnly;
    const bool write = mode & WriteOnly;
    if (read == write) {
        qWarning("QtIOCompressor::open: QtIOCompressor can only be opened in the ReadOnly or WriteOnly modes");
        return false;
    }
    if (d->device->isOpen()) {
        d->manageDevice = false;
        const OpenMode deviceMode = d->device->openMode();
        if ((read && !(deviceMode & ReadOnly)) || (write && !(deviceMode & WriteOnly))) {
            qWarning("QtIOCompressor::open: underlying device must be open in one of the ReadOnly or WriteOnly modes");
            return false;
        }
    } else {
        d->manageDevice = true;
        if (!d->device->open(mode)) {
            setErrorString(QStringLiteral("Error opening underlying device: ") + d->device->errorString());
            return false;
        }
    }

    const int windowBits = d->streamFormat == GzipFormat ? 31 : -15;
    int status;
    std::memset(&d->zlibStream, 0, sizeof d->zlibStream);
    if (d->streamFormat != ZlibFormat && !isGzipSupported()) {
        setErrorString(QStringLiteral("The gzip format not supported in this version of zlib."));
        if (d->manageDevice)
            d->device->close();
        return false;
    }
    if (read) {
        d->state = QtIOCompressorPrivate::NotReadFirstByte;
        d->zlibStream.next_in = d->buffer;
        d->zlibStream.avail_in = 0;
        status = d->streamFormat == ZlibFormat ? inflateInit(&d->zlibStream)
                                               : inflateInit2(&d->zlibStream, windowBits);
    } else {
        d->state = QtIOCompressorPrivate::NoBytesWritten;
        status = d->streamFormat == ZlibFormat
            ? deflateInit(&d->zlibStream, d->compressionLevel)
            : deflateInit2(&d->zlibStream, d->compressionLevel, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
    }
    if (status != Z_OK) {
        d->setZlibError(QStringLiteral("Internal zlib error: "), status);
        if (d->manageDevice)
            d->device->close();
        return false;
    }
    return QIODevice::open(mode);
}

void QtIOCompressor::close()
{
    Q_D(QtIOCompressor);
    if (!isOpen())
        return;
    if (openMode() & ReadOnly) {
        d->state = QtIOCompressorPrivate::NotReadFirstByte;
        inflateEnd(&d->zlibStream);
    } else {
        if (d->state == QtIOCompressorPrivate::BytesWritten) {
            d->state = QtIOCompressorPrivate::NoBytesWritten;
            d->flushZlib(Z_FINISH);
        }
        deflateEnd(&d->zlibStream);
    }
    if (d->manageDevice)
        d->device->close();
    QIODevice::close();
}

void QtIOCompressor::flush()
{
    Q_D(QtIOCompressor);
    if (!isOpen() || (openMode() & ReadOnly))
        return;
    d->flushZlib(Z_SYNC_FLUSH);
}

bool QtIOCompressor::hasError() const
{
    return d_func()->state == QtIOCompressorPrivate::Error;
}

qint64 QtIOCompressor::bytesAvailable() const
{
    Q_D(const QtIOCompressor);
    if (!(openMode() & ReadOnly))
        return 0;
    qint64 count = 0;
    switch (d->state) {
    case QtIOCompressorPrivate::NotReadFirstByte:
        count = d->device->bytesAvailable();
        break;
    case QtIOCompressorPrivate::InStream:
        count = 1;
        break;
    default:
        break;
    }
    count += QIODevice::bytesAvailable();
    return count > 0 ? 1 : 0;
}

qint64 QtIOCompressor::readData(char *data, qint64 maxSize)
{
    Q_D(QtIOCompressor);
    if (d->state == QtIOCompressorPrivate::EndOfStream)
        return 0;
    if (d->state == QtIOCompressorPrivate::Error)
        return -1;
    // QIODevice asks for nothing (with no buffer) when it probes the device;
    // zlib would take a missing buffer for a broken stream.
    if (maxSize <= 0)
        return 0;

    // zlib counts in 32 bits.
    const uInt room = static_cast<uInt>(qMin<qint64>(maxSize, 0x7fffffff));
    d->zlibStream.next_out = reinterpret_cast<Bytef *>(data);
    d->zlibStream.avail_out = room;
    int status;
    do {
        if (d->zlibStream.avail_in == 0) {
            const qint64 read = d->device->read(reinterpret_cast<char *>(d->buffer), d->bufferSize);
            if (read == -1) {
                d->state = QtIOCompressorPrivate::Error;
                setErrorString(QStringLiteral("Error reading data from underlying device: ")
                               + d->device->errorString());
                return -1;
            }
            if (d->state != QtIOCompressorPrivate::InStream) {
                if (read == 0)
                    return 0;
                d->state = QtIOCompressorPrivate::InStream;
            }
            d->zlibStream.next_in = d->buffer;
            d->zlibStream.avail_in = static_cast<uInt>(read);
        }
        status = inflate(&d->zlibStream, Z_SYNC_FLUSH);
        switch (status) {
        case Z_NEED_DICT:
        case Z_DATA_ERROR:
        case Z_MEM_ERROR:
        case Z_STREAM_ERROR:
            d->state = QtIOCompressorPrivate::Error;
            d->setZlibError(QStringLiteral("Internal zlib error when decompressing: "), status);
            return -1;
        case Z_BUF_ERROR:
            // No more input for now: what was produced so far is the answer,
            // unless no more input will ever come. A file at its end before
            // the stream's trailer was cut short: an error, so that a reader
            // stops and can tell (atEnd() is true from here on).
            if (d->zlibStream.avail_in == 0 && !d->device->isSequential() && d->device->atEnd()) {
                d->state = QtIOCompressorPrivate::Error;
                setErrorString(QStringLiteral("The compressed stream ends before its end: the data is cut short."));
                const qint64 produced = room - d->zlibStream.avail_out;
                return produced > 0 ? produced : -1;
            }
            return room - d->zlibStream.avail_out;
        default:
            break;
        }
        // gzip members written one after another (as cat makes them) read as
        // one stream.
        if (status == Z_STREAM_END && d->streamFormat == GzipFormat && d->nextMemberFollows()) {
            inflateReset(&d->zlibStream);
            status = Z_OK;
        }
    } while (d->zlibStream.avail_out != 0 && status != Z_STREAM_END);

    if (status == Z_STREAM_END) {
        d->state = QtIOCompressorPrivate::EndOfStream;
        // Give the input read ahead back, from the character just past it
        // down to the first pending one.
        const unsigned char *pending = d->zlibStream.next_in;
        for (qint64 i = d->zlibStream.avail_in; i >= 0; --i)
            d->device->ungetChar(static_cast<char>(pending[i]));
    }
    return room - d->zlibStream.avail_out;
}

qint64 QtIOCompressor::writeData(const char *data, qint64 maxSize)
{
    Q_D(QtIOCompressor);
    if (maxSize < 1)
        return 0;
    if (d->state == QtIOCompressorPrivate::Error)
        return -1;
    qint64 consumed = 0;
    while (consumed < maxSize) {
        const uInt chunk = static_cast<uInt>(qMin<qint64>(maxSize - consumed, 0x7fffffff));
        d->zlibStream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data + consumed));
        d->zlibStream.avail_in = chunk;
        do {
            d->zlibStream.next_out = d->buffer;
            d->zlibStream.avail_out = static_cast<uInt>(d->outputSize);
            const int status = deflate(&d->zlibStream, Z_NO_FLUSH);
            if (status != Z_OK) {
                d->state = QtIOCompressorPrivate::Error;
                d->setZlibError(QStringLiteral("Internal zlib error when compressing: "), status);
                return -1;
            }
            if (!d->writeBytes(d->buffer, d->outputSize - d->zlibStream.avail_out)) {
                d->state = QtIOCompressorPrivate::Error;
                return -1;
            }
        } while (d->zlibStream.avail_out == 0);
        consumed += chunk;
    }
    return maxSize;
}
