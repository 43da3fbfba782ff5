#include "ServerSocket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <new>
#include <sys/socket.h>
#include <unistd.h>

#include "LogArgu.h"
#include "RuntimeParam.h"
#include "Text.h"
#include "Utilities.h"

namespace {

constexpr int RETRY_PAUSE = 100;  // milliseconds, when there is no descriptor for a connection

void SetOption(int iSocket, int iLevel, int iOption, int iValue)
{
    setsockopt(iSocket, iLevel, iOption, &iValue, sizeof(iValue));  // each only improves matters
}

// Replies leave at once, and a peer that vanished frees its place after some two minutes.
void SetConnectionOptions(int iSocket)
{
    SetOption(iSocket, IPPROTO_TCP, TCP_NODELAY, 1);
    SetOption(iSocket, SOL_SOCKET, SO_KEEPALIVE, 1);
    SetOption(iSocket, IPPROTO_TCP, TCP_KEEPIDLE, 60);
    SetOption(iSocket, IPPROTO_TCP, TCP_KEEPINTVL, 10);
    SetOption(iSocket, IPPROTO_TCP, TCP_KEEPCNT, 6);
}

}  // namespace

CServerSocket::~CServerSocket()
{
    Close();
}

bool CServerSocket::Open(unsigned long lProgId, int nPort, int nMaxNum, CUtilities* pUtilities,
                         char* pcReason)
{
    Close();
    m_nPort = nPort;
    m_nMaxNum = nMaxNum;
    m_pUtilities = pUtilities;
    if (!Listen(pcReason))
        return false;
    try {
        for (int i = 0; i < m_nMaxNum; i++)
            m_pSockets.push_back(std::make_unique<CSocket>(SOCKET_STREAM, lProgId));
    } catch (const std::bad_alloc&) {  // their streams are large
        m_pSockets.clear();
        return Fail("Fail to create server socket. %s", ENOMEM, pcReason);
    }
    return StartThread(pcReason);
}

bool CServerSocket::Listen(char* pcReason)
{
    // Not blocking: a connection that is gone again before accept must not hold the thread.
    m_ServerSocket.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (m_ServerSocket.Get() == -1)
        return Fail("Fail to create server socket. %s", errno, pcReason);

    SetOption(m_ServerSocket.Get(), SOL_SOCKET, SO_REUSEADDR, 1);  // a restart need not wait
    if (!BindToPort(m_ServerSocket.Get(), m_nPort))
        return Fail("Fail to bind server socket. %s", errno, pcReason);
    if (listen(m_ServerSocket.Get(), m_nMaxNum) != 0)
        return Fail("Fail to listen server socket. %s", errno, pcReason);
    return true;
}

bool CServerSocket::StartThread(char* pcReason)
{
    m_pWakePipe = std::make_unique<CWakePipe>();
    if (!m_pWakePipe->Open())
        return Fail("Fail to create server socket. %s", errno, pcReason);
    m_bClosed = false;
    m_iThreadCreated = pthread_create(&m_hThread, nullptr, RunThread, this);
    if (m_iThreadCreated == 0)
        return true;
    const int iError = m_iThreadCreated;
    Close();
    return Fail("Fail to create server socket. %s", iError, pcReason);
}

bool CServerSocket::Fail(const char* pcText, int iError, char* pcReason)
{
    char cError[REASON_SIZE] = "";
    m_pUtilities->GetLastErrorText(cError, iError);
    m_ServerSocket.Reset();
    FormatReason(pcReason, pcText, cError);
    return false;
}

void CServerSocket::Close()
{
    if (m_bClosed)
        return;
    m_bClosed = true;
    m_pWakePipe->Wake();
    if (m_iThreadCreated == 0)
        pthread_join(m_hThread, nullptr);
    m_iThreadCreated = -1;
    m_pWakePipe.reset();
    m_ServerSocket.Reset();
    m_pSockets.clear();  // each closes itself
}

void* CServerSocket::RunThread(void* pServerSocket)
{
    static_cast<CServerSocket*>(pServerSocket)->Run();
    return nullptr;
}

void CServerSocket::Run()
{
    while (m_pWakePipe->WaitReadable(m_ServerSocket.Get(), -1))
        Accept();
}

void CServerSocket::Accept()
{
    sockaddr_in peer = {};
    socklen_t iLength = sizeof(peer);
    CAutoFd connection(
        accept4(m_ServerSocket.Get(), reinterpret_cast<sockaddr*>(&peer), &iLength, SOCK_CLOEXEC));
    if (connection.Get() == -1) {
        // Short of descriptors or memory: the connection stays in the backlog, and asking for it
        // again at once would only burn the processor. A connection that went away does not matter.
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNABORTED)
            m_pWakePipe->WaitReadable(-1, RETRY_PAUSE);
        return;
    }
    if (connection.Get() == 0) {
        // Standard input was closed. This connection is turned away, and the number stays taken, so
        // that the next one gets another.
        shutdown(connection.Release(), SHUT_RDWR);
        return;
    }
    const auto it = std::find_if(m_pSockets.begin(), m_pSockets.end(),
                                 [](const auto& pSocket) { return !pSocket->IsActive(); });
    if (it == m_pSockets.end()) {
        if (m_pRuntimeParam != nullptr && m_pRuntimeParam->IsLogError())
            m_pUtilities->LogError(m_pRuntimeParam,
                                   "[ServerSocket.Run] Connection refused, port %d has %d already",
                                   m_nPort, m_nMaxNum);
        return;
    }
    SetConnectionOptions(connection.Get());
    try {
        (*it)->Open(connection.Release(), m_pListener, &peer);
    } catch (const std::bad_alloc&) {
        // No memory for its streams: it costs this connection, not the process.
    }
}
