#ifndef DATABASE_TESTS_ZLIBUTIL_H
#define DATABASE_TESTS_ZLIBUTIL_H

// zlib used on its own, to check streams against something other than the
// device that wrote them.

#include <QtCore/QByteArray>

#include <gtest/gtest.h>
#include <zlib.h>

inline QByteArray inflateWithZlib(const QByteArray &compressed, int windowBits)
{
    z_stream stream{};
    EXPECT_EQ(inflateInit2(&stream, windowBits), Z_OK);
    QByteArray out(1 << 20, 0);
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(compressed.constData()));
    stream.avail_in = static_cast<uInt>(compressed.size());
    int status = Z_OK;
    while (status == Z_OK) {
        if (stream.total_out == static_cast<uLong>(out.size()))
            out.resize(out.size() * 2);
        stream.next_out = reinterpret_cast<Bytef *>(out.data()) + stream.total_out;
        stream.avail_out = static_cast<uInt>(out.size() - stream.total_out);
        status = inflate(&stream, Z_FINISH);
        if (status == Z_BUF_ERROR && stream.avail_out == 0)
            status = Z_OK; // room ran out, not input
    }
    EXPECT_EQ(status, Z_STREAM_END);
    out.resize(static_cast<int>(stream.total_out));
    inflateEnd(&stream);
    return out;
}

inline QByteArray deflateWithZlib(const QByteArray &data, int windowBits)
{
    z_stream stream{};
    EXPECT_EQ(deflateInit2(&stream, 9, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY), Z_OK);
    QByteArray out(static_cast<int>(deflateBound(&stream, static_cast<uLong>(data.size()))), 0);
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data.constData()));
    stream.avail_in = static_cast<uInt>(data.size());
    stream.next_out = reinterpret_cast<Bytef *>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    out.resize(static_cast<int>(stream.total_out));
    deflateEnd(&stream);
    return out;
}

#endif // DATABASE_TESTS_ZLIBUTIL_H
