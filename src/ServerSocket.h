// The TCP listener of a program.
#pragma once

#include <memory>
#include <pthread.h>
#include <vector>

#include "AutoFd.h"
#include "Socket.h"
#include "WakePipe.h"

class CRuntimeParam;
class CUtilities;

// Accepts on a thread of its own and hands each connection to a free one of a fixed number of
// CSocket objects. A connection beyond that number is closed at once.
// Locking: Open and Close belong to one thread at a time.
class CServerSocket {
public:
    CServerSocket() = default;
    virtual ~CServerSocket();
    CServerSocket(const CServerSocket&) = delete;
    CServerSocket& operator=(const CServerSocket&) = delete;

    // Listens on any local IPv4 address at nPort for program lProgId, with at most nMaxNum
    // connections at a time. False, with the reason and nothing left open, if that fails.
    // pUtilities is not owned and outlives this object.
    bool Open(unsigned long lProgId, int nPort, int nMaxNum, CUtilities* pUtilities,
              char* pcReason);

    // Ends the accept thread and every connection. Does nothing on a closed listener.
    void Close();

    // Neither is owned; both are set before Open and outlive this object. Without a context, no
    // line is written about a refused connection.
    void SetListener(ISocketListener* pListener) { m_pListener = pListener; }
    void SetRuntimeParam(CRuntimeParam* pRuntimeParam) { m_pRuntimeParam = pRuntimeParam; }

    int GetPort() const { return m_nPort; }
    int GetSocket() const { return m_ServerSocket.Get(); }  // -1 while closed; stays ours

private:
    static void* RunThread(void* pServerSocket);
    void Run();
    void Accept();
    bool Listen(char* pcReason);
    bool StartThread(char* pcReason);
    bool Fail(const char* pcText, int iError, char* pcReason) __attribute__((format(printf, 2, 0)));

    int m_nPort = 0;
    int m_nMaxNum = 0;  // connections, and the backlog
    CAutoFd m_ServerSocket;
    bool m_bClosed = true;
    ISocketListener* m_pListener = nullptr;    // not owned
    CRuntimeParam* m_pRuntimeParam = nullptr;  // not owned
    CUtilities* m_pUtilities = nullptr;        // not owned
    std::unique_ptr<CWakePipe> m_pWakePipe;    // owned
    pthread_t m_hThread = {};
    int m_iThreadCreated = -1;                         // 0 if there is a thread to join
    std::vector<std::unique_ptr<CSocket>> m_pSockets;  // owned: nMaxNum, all made at Open
};
