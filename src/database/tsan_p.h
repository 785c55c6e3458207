#ifndef DATABASE_TSAN_P_H
#define DATABASE_TSAN_P_H

//
//  W A R N I N G
//  -------------
//
// This file is not part of the database API. It exists for the convenience
// of the library's own sources and may change from version to version
// without notice.
//

// Qt's locks, wait conditions and thread pool synchronise inside Qt Core,
// which the thread sanitizer does not see (it is not instrumented), so it
// would report the data they guard as races. Where the library relies on
// them, it states the order they give with these annotations; they are
// nothing in other builds.

#if defined(__SANITIZE_THREAD__)
#define DATABASE_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define DATABASE_TSAN 1
#endif
#endif

#ifdef DATABASE_TSAN
extern "C" void __tsan_acquire(void *address);
extern "C" void __tsan_release(void *address);
inline void tsanAcquire(const void *address)
{
    __tsan_acquire(const_cast<void *>(address));
}
inline void tsanRelease(const void *address)
{
    __tsan_release(const_cast<void *>(address));
}
#else
inline void tsanAcquire(const void *) {}
inline void tsanRelease(const void *) {}
#endif

#endif // DATABASE_TSAN_P_H
