#include "parallel_p.h"

#include "tsan_p.h"

#include <QtCore/QThread>
#include <QtCore/QThreadPool>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>

namespace parallel {

namespace {

// A pass over fewer handles than this takes less time than a pool thread
// takes to wake.
constexpr long long MinimumPerPiece = 128 * 1024;

// The address through which the sanitizer is told of a hand-over to the
// pool: one the helper can name before it reads anything of the caller's.
char handOver;

// What the caller and its helpers share. A helper may start after the
// caller has returned: it then finds no piece left and touches only this,
// which it keeps alive.
struct Work
{
    const std::function<void(long long, long long)> *body;
    long long count;
    int pieces;
    std::atomic<int> next{0};
    std::mutex mutex;
    std::condition_variable allDone;
    int finished = 0;
    std::exception_ptr error;

    void run()
    {
        for (;;) {
            const int piece = next.fetch_add(1, std::memory_order_relaxed);
            if (piece >= pieces)
                return;
            std::exception_ptr thrown;
            try {
                (*body)(pieceStart(count, pieces, piece), pieceStart(count, pieces, piece + 1));
            } catch (...) {
                thrown = std::current_exception();
            }
            const std::lock_guard<std::mutex> lock(mutex);
            if (thrown && !error)
                error = thrown;
            if (++finished == pieces)
                allDone.notify_all();
        }
    }
};

// The cores, as the system told them the first time: each asking reads a
// file of /sys, and the passes ask several times a batch.
int cores()
{
    static const int count = std::max(1, QThread::idealThreadCount());
    return count;
}

} // namespace

int threads()
{
    return std::max(1, std::min(QThreadPool::globalInstance()->maxThreadCount(), cores()));
}

void forPieces(long long count, int pieces, const std::function<void(long long, long long)> &body)
{
    if (count <= 0)
        return;
    pieces = static_cast<int>(std::max<long long>(1, std::min<long long>(pieces, count)));
    if (pieces == 1) {
        // A small pass, as most are: nothing to share.
        body(0, count);
        return;
    }
    QThreadPool *pool = QThreadPool::globalInstance();
    const int helpers = std::min(pieces, threads()) - 1;
    auto work = std::make_shared<Work>();
    work->body = &body;
    work->count = count;
    work->pieces = pieces;
    // Only threads that are free now: the caller never waits for a piece
    // that nobody has started. The pool's hand-over orders what the caller
    // wrote before it; the sanitizer is told, as it cannot see Qt's locks.
    for (int h = 0; h < helpers; ++h) {
        std::function<void()> helper = [work] {
            tsanAcquire(&handOver); // before the closure is read
            work->run();
        };
        // Moved, not copied: the closure is complete before the release.
        tsanRelease(&handOver);
        if (!pool->tryStart(std::move(helper)))
            break;
    }
    work->run();
    std::unique_lock<std::mutex> lock(work->mutex);
    work->allDone.wait(lock, [&] { return work->finished == work->pieces; });
    if (work->error)
        std::rethrow_exception(work->error);
}

int piecesFor(long long count)
{
    if (threads() == 1 || count < 2 * MinimumPerPiece)
        return 1;
    // Two pieces a thread, so that one that starts late is caught up by
    // the other.
    return static_cast<int>(std::min<long long>(2LL * threads(), count / MinimumPerPiece));
}

} // namespace parallel
