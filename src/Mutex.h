// A mutex that clang can check: members marked GUARDED_BY are refused outside its hold.
#pragma once

#include <mutex>

#if defined(__clang__)
#define THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) THREAD_ATTRIBUTE(guarded_by(x))
#define REQUIRES(...) THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

// Not recursive. The order in which mutexes nest is in docs/locking.md.
class CAPABILITY("mutex") CMutex {
public:
    CMutex() = default;
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    void Lock() ACQUIRE() { m_mutex.lock(); }
    void Unlock() RELEASE() { m_mutex.unlock(); }

private:
    std::mutex m_mutex;
};

// Holds a mutex for the length of a block.
class SCOPED_CAPABILITY CMutexLock {
public:
    explicit CMutexLock(CMutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~CMutexLock() RELEASE() { m_mutex.Unlock(); }
    CMutexLock(const CMutexLock&) = delete;
    CMutexLock& operator=(const CMutexLock&) = delete;

private:
    CMutex& m_mutex;
};
