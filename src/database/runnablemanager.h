#ifndef DATABASE_RUNNABLEMANAGER_H
#define DATABASE_RUNNABLEMANAGER_H

#include "database_export.h"

#include <QtCore/QList>
#include <QtCore/QMetaType>
#include <QtCore/QMutex>
#include <QtCore/QObject>
#include <QtCore/QReadWriteLock>
#include <QtCore/QRunnable>
#include <QtCore/QSharedPointer>

class QThreadPool;
class QWaitCondition;
class RunnableManager;

// The handle of a started job: an identifier only (the job's wrapper is
// deleted soon after the job ends). Registered with Qt's meta-types as
// "HRunnable" when the library loads, so that it travels through queued
// signals.
typedef void *HRunnable;

// Runnable: a cancellable job. Its run() polls canRun() at its own
// checkpoints and returns early once it is false; stop() lowers the flag
// from any thread. Stopping is cooperative: no thread is ever killed.
// Auto-delete is on, as for any QRunnable.
class DATABASE_EXPORT Runnable : public QRunnable
{
public:
    Runnable();
    ~Runnable() override;

    virtual void stop();
    virtual bool canRun() const;

private:
    mutable QMutex m_mutex;
    bool m_active;
};

// Runs one job for a manager: created by startRunnable, deleted by the pool
// after its run(), which announces the end and leaves the manager's list.
// Deletes the job when the job's auto-delete flag is on.
class DATABASE_EXPORT RunnableWrapper : public QRunnable
{
public:
    RunnableWrapper(Runnable *runnable, const QSharedPointer<QWaitCondition> &done, RunnableManager *manager,
                    QList<RunnableWrapper *> *list, QReadWriteLock *lock);
    ~RunnableWrapper() override;
    void run() override;

private:
    friend class RunnableManager;
    Runnable *m_runnable;
    QSharedPointer<QWaitCondition> m_done;
    RunnableManager *m_manager;
    QList<RunnableWrapper *> *m_list;
    QReadWriteLock *m_lock;
};

// RunnableManager: starts jobs on a pool of the caller's choice, tells which
// are running, stops them (optionally waiting) and announces each job's end
// with the queued signal finished(), delivered in the manager's thread. A
// job's finished() is queued just before it leaves the running list. Stale
// or unknown handles are harmless. Its destruction stops every job and
// waits for all. A job must not wait for itself (stopRunnable(own handle,
// true) never returns).
class DATABASE_EXPORT RunnableManager : public QObject
{
    Q_OBJECT

public:
    RunnableManager();
    ~RunnableManager() override;

    void *startRunnable(Runnable *runnable, QThreadPool *pool, int priority = 0);
    void stopRunnable(void *handle, bool wait);
    void stopRunnables(bool wait);
    bool isRunning() const;
    bool isRunning(void *handle) const;

Q_SIGNALS:
    void finished(HRunnable hRunnable);

private:
    QList<RunnableWrapper *> m_running;
    mutable QReadWriteLock m_lock;
};

#endif // DATABASE_RUNNABLEMANAGER_H
