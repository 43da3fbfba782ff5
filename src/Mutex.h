// A mutex that clang can check: members marked GUARDED_BY are refused outside its hold.
#pragma once

#include <mutex>

#include "Deferral.h"

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
#define NOT_ANALYSED THREAD_ATTRIBUTE(no_thread_safety_analysis)
#define RELEASE(...) THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

// Whether the host may be called under a mutex. Where it may not, log lines wait until the thread
// has let go of it (see CDeferral).
enum class HostCalls {
    WAIT,
    ALLOWED,
};

// Not recursive. The order in which mutexes nest is in docs/locking.md.
class CAPABILITY("mutex") CMutex {
public:
    explicit CMutex(HostCalls hostCalls = HostCalls::WAIT) : m_hostCalls(hostCalls) {}
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    void Lock() ACQUIRE()
    {
        if (m_hostCalls == HostCalls::WAIT)
            CDeferral::Enter();
        m_mutex.lock();
    }
    void Unlock() RELEASE()
    {
        const HostCalls hostCalls = m_hostCalls;  // whoever waits for the mutex may destroy it
        m_mutex.unlock();
        if (hostCalls == HostCalls::WAIT)
            CDeferral::Leave();
    }

private:
    std::mutex m_mutex;
    const HostCalls m_hostCalls;
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
