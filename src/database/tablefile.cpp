#include "tablefile_p.h"

#include <QtCore/QThread>

#include <zlib.h>

#include <algorithm>
#include <cstring>

namespace {

// Deflate's window: what a chunk may refer back to.
constexpr size_t Window = 32768;

QString zlibText(int status)
{
    const char *text = zError(status);
    return text ? QString::fromLatin1(text) : QStringLiteral("Unknown error, code %1").arg(status);
}

} // namespace

// ---------------------------------------------------------------------------
// TableGzipWriter

struct TableGzipWriter::Chunk
{
    std::vector<unsigned char> input;
    std::vector<unsigned char> dictionary;
    bool last = false;
    std::vector<unsigned char> output;
    unsigned long crc = 0;
    int status = Z_OK;
    bool done = false; // guarded by the writer's mutex

    void deflateIt(int level)
    {
        z_stream stream{};
        int result = deflateInit2(&stream, level, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
        if (result == Z_OK && !dictionary.empty())
            result = deflateSetDictionary(&stream, dictionary.data(), static_cast<uInt>(dictionary.size()));
        if (result == Z_OK) {
            // The bound covers the flush marker with room to spare; the loop
            // is there in case it does not.
            output.resize(deflateBound(&stream, static_cast<uLong>(input.size())) + 64);
            stream.next_in = input.data();
            stream.avail_in = static_cast<uInt>(input.size());
            const int flush = last ? Z_FINISH : Z_FULL_FLUSH;
            for (;;) {
                stream.next_out = output.data() + stream.total_out;
                stream.avail_out = static_cast<uInt>(output.size() - stream.total_out);
                result = deflate(&stream, flush);
                if (result == Z_STREAM_END || (result == Z_OK && stream.avail_out > 0)
                    || (result == Z_BUF_ERROR && stream.avail_in == 0 && !last)) {
                    result = Z_OK;
                    break;
                }
                if (result != Z_OK)
                    break;
                output.resize(output.size() * 2);
            }
            output.resize(stream.total_out);
        }
        deflateEnd(&stream);
        crc = crc32(0, input.data(), static_cast<uInt>(input.size()));
        status = result;
    }
};

TableGzipWriter::TableGzipWriter(QIODevice *device, int level, int threads, int chunkSize)
    : m_device(device)
    , m_level(level)
    , m_threads(threads > 0 ? threads : std::max(1, QThread::idealThreadCount()))
    , m_chunkSize(static_cast<size_t>(std::max(chunkSize, 64 * 1024)))
{
}

TableGzipWriter::~TableGzipWriter()
{
    close();
}

bool TableGzipWriter::open(OpenMode mode)
{
    if (isOpen() || mode != WriteOnly || !m_device || !m_device->isWritable())
        return false;
    m_input.reserve(m_chunkSize);
    return QIODevice::open(mode);
}

qint64 TableGzipWriter::writeData(const char *data, qint64 size)
{
    if (m_failed)
        return -1;
    const auto *from = reinterpret_cast<const unsigned char *>(data);
    for (qint64 left = size; left > 0;) {
        const size_t take = std::min(static_cast<size_t>(left), m_chunkSize - m_input.size());
        m_input.insert(m_input.end(), from, from + take);
        from += take;
        left -= static_cast<qint64>(take);
        if (m_input.size() == m_chunkSize)
            submit(false);
        if (m_failed)
            return -1;
    }
    return size;
}

void TableGzipWriter::submit(bool last)
{
    auto chunk = std::make_shared<Chunk>();
    chunk->input.swap(m_input);
    if (!last)
        m_input.reserve(m_chunkSize);
    chunk->dictionary = m_dictionary;
    chunk->last = last;
    m_total += chunk->input.size();
    // The next chunk's dictionary: the last 32 KiB before it.
    const std::vector<unsigned char> &in = chunk->input;
    if (in.size() >= Window) {
        m_dictionary.assign(in.end() - Window, in.end());
    } else {
        m_dictionary.insert(m_dictionary.end(), in.begin(), in.end());
        if (m_dictionary.size() > Window)
            m_dictionary.erase(m_dictionary.begin(), m_dictionary.end() - Window);
    }

    if (last && m_workers.empty()) {
        // All of it in one chunk: no thread is worth starting.
        chunk->deflateIt(m_level);
        chunk->done = true;
        m_chunks.push_back(std::move(chunk));
        ++m_taken;
        writeOldest();
        return;
    }
    if (m_workers.empty()) {
        for (int i = 0; i < m_threads; ++i)
            m_workers.emplace_back([this] { work(); });
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_chunks.push_back(std::move(chunk));
    }
    m_wake.notify_one();
    // Each worker one chunk ahead and one in hand bounds the memory.
    const size_t inFlight = last ? 0 : 2 * static_cast<size_t>(m_threads);
    while (!m_failed && m_chunks.size() > inFlight)
        writeOldest();
}

void TableGzipWriter::writeOldest()
{
    std::shared_ptr<Chunk> chunk;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_done.wait(lock, [this] { return m_chunks.front()->done; });
        chunk = std::move(m_chunks.front());
        m_chunks.pop_front();
        --m_taken;
    }
    if (m_failed)
        return;
    if (chunk->status != Z_OK) {
        fail(QStringLiteral("Internal zlib error when compressing: ") + zlibText(chunk->status));
        return;
    }
    if (!m_headerWritten) {
        // What deflate writes itself for a gzip stream: no name, no time;
        // the extra flags tell the fastest and the best levels; Unix.
        const char xfl = m_level == 9 ? 2 : (m_level == 1 ? 4 : 0);
        const char header[10] = {'\x1f', '\x8b', 8, 0, 0, 0, 0, 0, xfl, 3};
        if (!writeOut(header, sizeof header))
            return;
        m_headerWritten = true;
    }
    if (!writeOut(reinterpret_cast<const char *>(chunk->output.data()), static_cast<qint64>(chunk->output.size())))
        return;
    m_crc = crc32_combine(m_crc, chunk->crc, static_cast<z_off_t>(chunk->input.size()));
    if (chunk->last) {
        char trailer[8];
        const unsigned long values[2] = {m_crc, static_cast<unsigned long>(m_total & 0xFFFFFFFFu)};
        for (int v = 0; v < 2; ++v) {
            for (int b = 0; b < 4; ++b)
                trailer[v * 4 + b] = static_cast<char>((values[v] >> (8 * b)) & 0xFF);
        }
        writeOut(trailer, sizeof trailer);
    }
}

bool TableGzipWriter::writeOut(const char *data, qint64 size)
{
    while (size > 0) {
        const qint64 written = m_device->write(data, size);
        if (written < 0) {
            fail(QStringLiteral("Error writing to underlying device: ") + m_device->errorString());
            return false;
        }
        data += written;
        size -= written;
    }
    return true;
}

void TableGzipWriter::fail(const QString &message)
{
    m_failed = true;
    setErrorString(message);
}

void TableGzipWriter::work()
{
    for (;;) {
        std::shared_ptr<Chunk> chunk;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_wake.wait(lock, [this] { return m_stop || m_taken < m_chunks.size(); });
            if (m_stop)
                return;
            chunk = m_chunks[m_taken++];
        }
        chunk->deflateIt(m_level);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            chunk->done = true;
        }
        m_done.notify_all();
    }
}

void TableGzipWriter::stopWorkers()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    for (std::thread &worker : m_workers)
        worker.join();
    m_workers.clear();
    m_chunks.clear();
    m_taken = 0;
    m_stop = false;
}

void TableGzipWriter::close()
{
    if (!isOpen())
        return;
    // Nothing written, nothing output.
    if (!m_failed && (m_total > 0 || !m_input.empty()))
        submit(true);
    stopWorkers();
    QIODevice::close();
}

// ---------------------------------------------------------------------------
// TableReadAhead

TableReadAhead::TableReadAhead(QIODevice *source, int blockSize, int blocksAhead)
    : m_source(source)
    , m_blockSize(std::max(blockSize, 1))
    , m_blocksAhead(static_cast<size_t>(std::max(blocksAhead, 1)))
{
}

TableReadAhead::~TableReadAhead()
{
    close();
}

bool TableReadAhead::open(OpenMode mode)
{
    if (isOpen() || mode != ReadOnly || !m_source || !m_source->isReadable())
        return false;
    if (!QIODevice::open(mode))
        return false;
    m_thread = std::thread([this] { run(); });
    return true;
}

void TableReadAhead::run()
{
    int end = 0;
    try {
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_changed.wait(lock, [this] { return m_stop || m_blocks.size() < m_blocksAhead; });
                if (m_stop)
                    return;
            }
            std::vector<char> block(static_cast<size_t>(m_blockSize));
            const qint64 got = m_source->read(block.data(), m_blockSize);
            if (got <= 0) {
                end = got < 0 ? -1 : 0;
                break;
            }
            block.resize(static_cast<size_t>(got));
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_queued += got;
                m_blocks.push_back(std::move(block));
            }
            m_changed.notify_all();
        }
    } catch (...) {
        end = -1; // out of memory: the reader sees a failure, not a crash
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_end = end;
    }
    m_changed.notify_all();
}

qint64 TableReadAhead::readData(char *data, qint64 size)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_queued > 0 || m_end != 1; });
    if (m_queued == 0)
        return m_end;
    qint64 copied = 0;
    while (copied < size && !m_blocks.empty()) {
        std::vector<char> &block = m_blocks.front();
        const size_t take = std::min(static_cast<size_t>(size - copied), block.size() - m_offset);
        std::memcpy(data + copied, block.data() + m_offset, take);
        copied += static_cast<qint64>(take);
        m_offset += take;
        if (m_offset == block.size()) {
            m_blocks.pop_front();
            m_offset = 0;
        }
    }
    m_queued -= copied;
    lock.unlock();
    m_changed.notify_all();
    return copied;
}

qint64 TableReadAhead::bytesAvailable() const
{
    qint64 ahead;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ahead = m_queued + (m_end == 1 ? 1 : 0);
    }
    return ahead + QIODevice::bytesAvailable();
}

void TableReadAhead::stop()
{
    if (!m_thread.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

void TableReadAhead::close()
{
    if (!isOpen())
        return;
    stop();
    QIODevice::close();
}
