#include "runnablemanager.h"

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
    m_active = false;
}

bool Runnable::canRun() const
{
    QMutexLocker locker(&m_mutex);
    return m_active;
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
    m_runnable->run();
    HRunnable handle = this;
    QMetaObject::invokeMethod(m_manager, "finished", Qt::QueuedConnection, Q_ARG(HRunnable, handle));
    {
        QWriteLocker locker(m_lock);
        m_list->removeOne(this);
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
        m_running.append(wrapper);
    }
    wrapper->setAutoDelete(true);
    pool->start(wrapper, priority);
    return wrapper;
}

namespace {

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
    QReadLocker locker(&m_lock);
    RunnableWrapper *wrapper = findRunning(m_running, handle);
    if (!wrapper)
        return;
    wrapper->m_runnable->stop();
    if (wait) {
        // Shared, so that it outlives the wrapper the pool deletes.
        const QSharedPointer<QWaitCondition> done = wrapper->m_done;
        done->wait(&m_lock, ULONG_MAX);
    }
}

void RunnableManager::stopRunnables(bool wait)
{
    QReadLocker locker(&m_lock);
    const QList<RunnableWrapper *> running = m_running;
    for (RunnableWrapper *wrapper : running)
        wrapper->m_runnable->stop();
    if (!wait)
        return;
    while (!m_running.isEmpty()) {
        const QSharedPointer<QWaitCondition> done = m_running.first()->m_done;
        done->wait(&m_lock, ULONG_MAX);
    }
}

bool RunnableManager::isRunning() const
{
    QReadLocker locker(&m_lock);
    return !m_running.isEmpty();
}

bool RunnableManager::isRunning(void *handle) const
{
    QReadLocker locker(&m_lock);
    return findRunning(m_running, handle) != nullptr;
}
