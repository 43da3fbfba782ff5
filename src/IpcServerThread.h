// A thread that serves a local channel.
#pragma once

#include <atomic>
#include <memory>
#include <pthread.h>

class CIpcServer;
class CNfsMain;

// Locking: Open and Close belong to one thread at a time.
class CIpcServerThread {
public:
    CIpcServerThread();
    virtual ~CIpcServerThread();
    CIpcServerThread(const CIpcServerThread&) = delete;
    CIpcServerThread& operator=(const CIpcServerThread&) = delete;

    // Opens the channel, in place of an earlier one, and serves it on behalf of the controller,
    // which is not owned and outlives this object. False, with the reason, if that fails.
    bool Open(const char* pcChannel, CNfsMain* pNfsHandle, char* pcError);

    // Waits for the request in hand. Does nothing if nothing is open.
    void Close();

    bool IsActive() const { return m_bActive; }

    // What the thread does: serves until the channel is closed.
    void Run();

private:
    static void* RunThread(void* pThread);

    std::unique_ptr<CIpcServer> m_pServer;  // owned
    std::atomic<bool> m_bActive = false;    // the thread serves
    pthread_t m_hThread = {};
    int m_iThreadCreated = -1;  // 0 if there is a thread to join
};
