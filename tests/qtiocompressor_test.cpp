#include "testutil.h"

#include <database/qtiocompressor.h>

#include <QtCore/QBuffer>
#include <QtCore/QFile>
#include <QtCore/QRandomGenerator>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

#include "zlibutil.h"

struct QtIOCompressorTestAccess
{
    static bool checkGzipSupport(const char *version) { return QtIOCompressor::checkGzipSupport(version); }
};

namespace {

QByteArray compress(const QByteArray &data, QtIOCompressor::StreamFormat format)
{
    QBuffer buffer;
    QtIOCompressor compressor(&buffer);
    compressor.setStreamFormat(format);
    EXPECT_TRUE(compressor.open(QIODevice::WriteOnly));
    EXPECT_EQ(compressor.write(data), data.size());
    compressor.close();
    return buffer.data();
}

QByteArray decompress(QByteArray compressed, QtIOCompressor::StreamFormat format)
{
    QBuffer buffer(&compressed);
    QtIOCompressor compressor(&buffer, 6, 100); // a small buffer: many refills
    compressor.setStreamFormat(format);
    EXPECT_TRUE(compressor.open(QIODevice::ReadOnly));
    return compressor.readAll();
}

QByteArray sample(int size)
{
    QByteArray data(size, Qt::Uninitialized);
    QRandomGenerator random(size);
    for (char &c : data)
        c = static_cast<char>("abcdefgh"[random.bounded(8)]);
    return data;
}

} // namespace

TEST(QtIOCompressor, RoundTripsInEveryFormat)
{
    const QByteArray data = sample(200000);
    for (const auto format : {QtIOCompressor::ZlibFormat, QtIOCompressor::GzipFormat, QtIOCompressor::RawZipFormat}) {
        SCOPED_TRACE(format);
        const QByteArray compressed = compress(data, format);
        EXPECT_LT(compressed.size(), data.size() / 2);
        EXPECT_EQ(decompress(compressed, format), data);
    }
}

TEST(QtIOCompressor, StreamsAreOrdinaryZlibStreams)
{
    const QByteArray data = sample(70000);
    EXPECT_EQ(inflateWithZlib(compress(data, QtIOCompressor::GzipFormat), 31), data);
    EXPECT_EQ(inflateWithZlib(compress(data, QtIOCompressor::ZlibFormat), 15), data);
    EXPECT_EQ(inflateWithZlib(compress(data, QtIOCompressor::RawZipFormat), -15), data);
    EXPECT_EQ(decompress(deflateWithZlib(data, 31), QtIOCompressor::GzipFormat), data);
    EXPECT_EQ(decompress(deflateWithZlib(data, 15), QtIOCompressor::ZlibFormat), data);
}

TEST(QtIOCompressor, ThreeBytesThroughAGzipFile)
{
    QTemporaryDir dir;
    QFile file(dir.filePath(QStringLiteral("t.gz")));
    {
        QtIOCompressor compressor(&file);
        compressor.setStreamFormat(QtIOCompressor::GzipFormat);
        ASSERT_TRUE(compressor.open(QIODevice::WriteOnly));
        EXPECT_FALSE(file.openMode() == QIODevice::NotOpen);
        compressor.write("abc", 3);
    } // the destructor finishes the stream and closes the file it opened
    EXPECT_FALSE(file.isOpen());
    QtIOCompressor reader(&file);
    reader.setStreamFormat(QtIOCompressor::GzipFormat);
    ASSERT_TRUE(reader.open(QIODevice::ReadOnly));
    char out[8];
    EXPECT_EQ(reader.read(out, 8), 3);
    EXPECT_EQ(QByteArray(out, 3), QByteArray("abc"));
    EXPECT_EQ(reader.read(out, 8), 0);
    EXPECT_EQ(reader.bytesAvailable(), 0);
}

TEST(QtIOCompressor, NothingWrittenMeansNoTrailer)
{
    QBuffer buffer;
    QtIOCompressor compressor(&buffer);
    compressor.setStreamFormat(QtIOCompressor::GzipFormat);
    ASSERT_TRUE(compressor.open(QIODevice::WriteOnly));
    compressor.close();
    EXPECT_TRUE(buffer.data().isEmpty());
}

TEST(QtIOCompressor, OpenModesAreChecked)
{
    QBuffer buffer;
    QtIOCompressor compressor(&buffer);
    MessageCapture capture;
    EXPECT_FALSE(compressor.open(QIODevice::ReadWrite));
    ASSERT_TRUE(compressor.open(QIODevice::WriteOnly));
    EXPECT_FALSE(compressor.open(QIODevice::WriteOnly));
    compressor.close();
    QBuffer writeOnly;
    writeOnly.open(QIODevice::WriteOnly);
    QtIOCompressor reader(&writeOnly);
    EXPECT_FALSE(reader.open(QIODevice::ReadOnly));
    EXPECT_TRUE(writeOnly.isOpen()); // not its device to close
    EXPECT_EQ(capture.messages,
              QStringList({"QtIOCompressor::open: QtIOCompressor can only be opened in the ReadOnly or WriteOnly modes",
                           "QtIOCompressor::open: device already open",
                           "QtIOCompressor::open: underlying device must be open in one of the ReadOnly or "
                           "WriteOnly modes"}));

    QFile missing(QStringLiteral("/nonexistent/dir/file"));
    QtIOCompressor failing(&missing);
    EXPECT_FALSE(failing.open(QIODevice::ReadOnly));
    EXPECT_TRUE(failing.errorString().startsWith(QStringLiteral("Error opening underlying device: ")));
}

TEST(QtIOCompressor, ConcatenatedMembersAndTinyBuffers)
{
    // Two gzip members one after the other read as one stream.
    const QByteArray first = sample(3000), second = sample(7000);
    const QByteArray joined =
        compress(first, QtIOCompressor::GzipFormat) + compress(second, QtIOCompressor::GzipFormat);
    EXPECT_EQ(decompress(joined, QtIOCompressor::GzipFormat), first + second);
    EXPECT_EQ(inflateWithZlib(compress(first, QtIOCompressor::GzipFormat), 31), first);

    // Every buffer size flushes and closes, and the stream reads back.
    for (int size = 1; size <= 8; ++size) {
        SCOPED_TRACE(size);
        QBuffer buffer;
        QtIOCompressor writer(&buffer, 6, size);
        writer.setStreamFormat(QtIOCompressor::GzipFormat);
        ASSERT_TRUE(writer.open(QIODevice::WriteOnly));
        writer.write(first);
        writer.flush();
        writer.write(second);
        writer.close();
        EXPECT_EQ(decompress(buffer.data(), QtIOCompressor::GzipFormat), first + second);
    }
}

TEST(QtIOCompressor, GzipNeedsZlibOneTwo)
{
    EXPECT_TRUE(QtIOCompressor::isGzipSupported());
    EXPECT_FALSE(QtIOCompressorTestAccess::checkGzipSupport("1.1.4"));
    EXPECT_FALSE(QtIOCompressorTestAccess::checkGzipSupport("1.0"));
    EXPECT_FALSE(QtIOCompressorTestAccess::checkGzipSupport("0.9"));
    EXPECT_FALSE(QtIOCompressorTestAccess::checkGzipSupport("1."));
    EXPECT_TRUE(QtIOCompressorTestAccess::checkGzipSupport("1.2.5"));
    EXPECT_TRUE(QtIOCompressorTestAccess::checkGzipSupport("2.0"));
}
