#include "runnablemanager.h"

#include "tsan_p.h"

#include <QtCore/QThreadPool>
#include <QtCore/QWaitCondition>

#include <climits>

// The handle type is known to Qt before any client asks for it.
static void registerHandleType()
{
    qRegisterMetaType<HRunnable>("HRunnable");
}
Q_CONSTRUCTOR_FUNCTION(registerHandleType)

Runnable::Runnable()
    : m_active(true)
{
}

Runnable::~Runnable() = default;

void Runnable::stop()
{
    QMutexLocker locker(&m_mutex);
    tsanAcquire(&m_mutex);
    m_active = false;
    tsanRelease(&m_mutex);
}

bool Runnable::canRun() const
{
    QMutexLocker locker(&m_mutex);
    tsanAcquire(&m_mutex);
    const bool active = m_active;
    tsanRelease(&m_mutex);
    return active;
}

RunnableWrapper::RunnableWrapper(Runnable *runnable, const QSharedPointer<QWaitCondition> &done,
                                 RunnableManager *manager, QList<RunnableWrapper *> *list, QReadWriteLock *lock)
    : m_runnable(runnable)
    , m_done(done)
    , m_manager(manager)
    , m_list(list)
    , m_lock(lock)
{
}

RunnableWrapper::~RunnableWrapper()
{
    if (m_runnable->autoDelete())
        delete m_runnable;
}

void RunnableWrapper::run()
{
    tsanAcquire(this); // what the starting thread wrote
    m_runnable->run();
    HRunnable handle = this;
    QMetaObject::invokeMethod(m_manager, "finished", Qt::QueuedConnection, Q_ARG(HRunnable, handle));
    {
        QWriteLocker locker(m_lock);
        tsanAcquire(m_lock);
        m_list->removeOne(this);
        tsanRelease(m_lock);
    }
    // After the lock: a waiter holds the read lock until it waits, so the
    // wake-up cannot come before the wait.
    m_done->wakeAll();
}

RunnableManager::RunnableManager() = default;

RunnableManager::~RunnableManager()
{
    stopRunnables(true);
}

void *RunnableManager::startRunnable(Runnable *runnable, QThreadPool *pool, int priority)
{
    auto *wrapper = new RunnableWrapper(runnable, QSharedPointer<QWaitCondition>::create(), this, &m_running, &m_lock);
    {
        QWriteLocker locker(&m_lock);
        tsanAcquire(&m_lock);
        m_running.append(wrapper);
        tsanRelease(&m_lock);
    }
    wrapper->setAutoDelete(true);
    tsanRelease(wrapper);
    pool->start(wrapper, priority);
    return wrapper;
}

namespace {

// The manager's read lock, its order stated for the thread sanitizer.
class ReadLocker
{
public:
    explicit ReadLocker(QReadWriteLock *lock) : m_lock(lock)
    {
        m_lock->lockForRead();
        tsanAcquire(m_lock);
    }
    ~ReadLocker()
    {
        tsanRelease(m_lock);
        m_lock->unlock();
    }
    // Waits with the lock released meanwhile: the finishing wrapper needs
    // the write lock before it can wake anyone, so no wake-up is lost.
    void wait(QWaitCondition &done)
    {
        tsanRelease(m_lock);
        done.wait(m_lock, ULONG_MAX);
        tsanAcquire(m_lock);
    }

private:
    QReadWriteLock *m_lock;
};

// Searched from the back by address only: a stale handle finds nothing.
RunnableWrapper *findRunning(const QList<RunnableWrapper *> &running, void *handle)
{
    for (int i = running.size() - 1; i >= 0; --i) {
        if (running.at(i) == handle)
            return running.at(i);
    }
    return nullptr;
}

} // namespace

void RunnableManager::stopRunnable(void *handle, bool wait)
{
    ReadLocker locker(&m_lock);
    RunnableWrapper *wrapper = findRunning(m_running, handle);
    if (!wrapper)
        return;
    wrapper->m_runnable->stop();
    if (wait) {
        // Shared, so that it outlives the wrapper the pool deletes.
        const QSharedPointer<QWaitCondition> done = wrapper->m_done;
        locker.wait(*done);
    }
}

void RunnableManager::stopRunnables(bool wait)
{
    ReadLocker locker(&m_lock);
    const QList<RunnableWrapper *> running = m_running;
    for (RunnableWrapper *wrapper : running)
        wrapper->m_runnable->stop();
    if (!wait)
        return;
    while (!m_running.isEmpty()) {
        const QSharedPointer<QWaitCondition> done = m_running.first()->m_done;
        locker.wait(*done);
    }
}

bool RunnableManager::isRunning() const
{
    ReadLocker locker(&m_lock);
    return !m_running.isEmpty();
}

bool RunnableManager::isRunning(void *handle) const
{
    ReadLocker locker(&m_lock);
    return findRunning(m_running, handle) != nullptr;
}
