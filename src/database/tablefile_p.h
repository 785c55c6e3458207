#ifndef DATABASE_TABLEFILE_P_H
#define DATABASE_TABLEFILE_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources and may change from version to version
// without notice.
//

#include "database_export.h"

#include <QtCore/QIODevice>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

// The two devices of the folder save and load of big tables, each keeping a
// second core busy.

// A write-only device that gzip-compresses what is written to it into one
// standard gzip member on `device`, deflating on several threads. The input
// is cut into chunks; each is deflated on its own with the 32 KiB before it
// as its dictionary and ends on a full flush (the last with the final
// block), so the chunks join into one deflate stream; the CRC of the whole
// is combined from the chunks'. Any gzip reader reads it back. Output
// reaches `device` in order on the writing thread; the threads start with
// the second chunk, so a small table costs no thread at all.
//
// Failures: "Error writing to underlying device: " plus the device's error
// string, or "Internal zlib error when compressing: " plus zlib's text; then
// writes answer -1 and close() writes nothing more. Nothing written, nothing
// output, as the serial compressor does.
class DATABASE_EXPORT TableGzipWriter : public QIODevice
{
public:
    // `threads` < 1: one per core. `chunkSize` is at least 64 KiB.
    explicit TableGzipWriter(QIODevice *device, int level = 6, int threads = 0, int chunkSize = 1 << 20);
    ~TableGzipWriter() override;

    // WriteOnly only, over a device open for writing.
    bool open(OpenMode mode) override;
    // Writes what is left and the trailer; the device stays open.
    void close() override;
    bool isSequential() const override { return true; }
    bool hasError() const { return m_failed; }

protected:
    qint64 readData(char *, qint64) override { return -1; }
    qint64 writeData(const char *data, qint64 size) override;

private:
    struct Chunk;

    void submit(bool last);
    void writeOldest();
    bool writeOut(const char *data, qint64 size);
    void fail(const QString &message);
    void work();
    void stopWorkers();

    QIODevice *m_device;
    int m_level;
    int m_threads;
    size_t m_chunkSize;
    std::vector<unsigned char> m_input;
    std::vector<unsigned char> m_dictionary;
    bool m_headerWritten = false;
    bool m_failed = false;
    unsigned long m_crc = 0;
    unsigned long long m_total = 0;

    std::mutex m_mutex;
    std::condition_variable m_wake; // a chunk queued, or stop
    std::condition_variable m_done; // a chunk deflated
    std::deque<std::shared_ptr<Chunk>> m_chunks; // in file order
    size_t m_taken = 0;                          // chunks handed to workers
    bool m_stop = false;
    std::vector<std::thread> m_workers;
};

// A read-only device that reads `source` ahead on a thread of its own, in
// blocks, so that inflating a file overlaps with converting its rows. It
// hands over exactly what `source` would: its bytes, then 0 at its end, or
// -1 once the bytes before a failure are all handed over. `source` must be
// open and is used by the thread alone until this device is closed or
// destroyed, which stops and joins the thread; only then may the caller ask
// `source` for its error.
class DATABASE_EXPORT TableReadAhead : public QIODevice
{
public:
    explicit TableReadAhead(QIODevice *source, int blockSize = 256 * 1024, int blocksAhead = 8);
    ~TableReadAhead() override;

    bool open(OpenMode mode) override; // ReadOnly only; starts the thread
    void close() override;
    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override;

protected:
    qint64 readData(char *data, qint64 size) override;
    qint64 writeData(const char *, qint64) override { return -1; }

private:
    void run();
    void stop();

    QIODevice *m_source;
    qint64 m_blockSize;
    size_t m_blocksAhead;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::vector<char>> m_blocks;
    size_t m_offset = 0;  // into the first block
    qint64 m_queued = 0;  // bytes not yet handed over
    int m_end = 1;        // 1 while reading; then 0 (end) or -1 (failure)
    bool m_stop = false;
    std::thread m_thread;
};

#endif // DATABASE_TABLEFILE_P_H
