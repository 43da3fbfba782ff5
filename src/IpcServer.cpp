// Connections and their messages; what the messages ask for is in IpcServerRequests.cpp.
#include "IpcServer.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "NfsMain.h"
#include "RuntimeParam.h"
#include "Utilities.h"

namespace {

constexpr int BACKLOG = 5;
constexpr size_t MAX_SILENT = 128;  // connections; the oldest goes when there are more
constexpr int RETRY_PAUSE = 100;    // milliseconds, when there is no descriptor for a connection
constexpr int CHANNEL_MODE = 0777;
constexpr int MAX_SERVING = 16;  // requests begun; beyond, nobody is served while one waits

thread_local CIpcServer* t_pServing = nullptr;

// Marks the calling thread as serving, also while it writes its own lines: they may lead a host
// back to the library.
class CServing {
public:
    explicit CServing(CIpcServer* pServer) : m_pBefore(std::exchange(t_pServing, pServer)) {}
    ~CServing() { t_pServing = m_pBefore; }
    CServing(const CServing&) = delete;
    CServing& operator=(const CServing&) = delete;

private:
    CIpcServer* m_pBefore;
};

// Counts a request from its beginning to its end.
class CCounted {
public:
    explicit CCounted(int* piServing) : m_piServing(piServing) { (*m_piServing)++; }
    ~CCounted() { (*m_piServing)--; }
    CCounted(const CCounted&) = delete;
    CCounted& operator=(const CCounted&) = delete;

private:
    int* m_piServing;
};

}  // namespace

CIpcServer::CIpcServer(CNfsMain* pNfsHandle)
    : CIpcBasic(pNfsHandle->GetUtils(), pNfsHandle->GetRuntimeParam()), m_pNfsHandle(pNfsHandle)
{
}

CIpcServer::~CIpcServer()
{
    Close();
}

bool CIpcServer::Open(const char* pcChannel, char* pcError)
{
    LogArgu logArgu = {"IpcServer.Open"};
    {
        const CMutexLock lock(m_hMutexRequest);
        if (pcChannel == nullptr) {
            FormatReason(pcError, "Channel is not defined");
            return false;
        }
        if (m_bOpened) {
            FormatReason(pcError, "Channel already opened");
            return false;
        }
        sockaddr_un address;
        if (!SetAddress(&address, pcChannel, pcError))
            return false;
        if (m_pRuntimeParam->IsLogIpcState())
            LogInfo("[%s] Open channel: %s", logArgu.pcName, pcChannel);
        m_pWakePipe = std::make_unique<CWakePipe>();
        m_CloseGrace.End();
        m_bOpened = true;
        if (Listen(&logArgu, address, pcError))
            return true;
    }
    Close(nullptr);
    return false;
}

bool CIpcServer::Listen(LogArgu* pLogArgu, const sockaddr_un& address, char* pcError)
{
    // Not blocking: a connection that is gone again before accept must not hold the thread.
    m_IpcServerInst.iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_IpcServerInst.iSocket == -1 || !m_pWakePipe->Open())
        return Fail("Fail to open ipc server socket. %s", errno, pcError);

    unlink(address.sun_path);  // what stays in the way makes bind fail
    LogState(pLogArgu, "[%s] Bind ipc server socket");
    if (bind(m_IpcServerInst.iSocket, reinterpret_cast<const sockaddr*>(&address),
             sizeof(address)) != 0)
        return Fail("Fail to bind ipc server socket. %s", errno, pcError);
    m_IpcServerInst.socketAddr = address;
    if (m_pUtilities->OS_SetFileMode(m_pRuntimeParam, pLogArgu, address.sun_path, CHANNEL_MODE,
                                     pcError) != 0)
        return false;
    if (listen(m_IpcServerInst.iSocket, BACKLOG) != 0)
        return Fail("Fail to listen ipc server socket. %s", errno, pcError);
    return true;
}

bool CIpcServer::Open(const char* pcChannel)
{
    char cError[REASON_SIZE] = "";
    if (Open(pcChannel, cError))
        return true;
    if (m_pRuntimeParam->IsLogError())
        LogError("[%s] %s", "IpcServer.Open", cError);
    return false;
}

bool CIpcServer::Close(char*)
{
    if (!m_bOpened.exchange(false))
        return true;
    m_CloseGrace.Begin();
    m_pWakePipe->Wake();

    // Closed only when nobody waits on it any more: its number may be given out again at once.
    const CMutexLock lock(m_hMutexRequest);
    if (m_IpcServerInst.iSocket != -1) {
        shutdown(m_IpcServerInst.iSocket, SHUT_RDWR);
        close(m_IpcServerInst.iSocket);
    }
    const char* pcPath = m_IpcServerInst.socketAddr.sun_path;  // empty if it was never bound
    LogArgu logArgu = {"IpcServer.Close"};
    if (pcPath[0] != '\0' && unlink(pcPath) != 0 && m_pUtilities->OS_IsFileExists(pcPath))
        m_pUtilities->OS_FileRemove(m_pRuntimeParam, &logArgu, pcPath, nullptr);
    m_IpcServerInst = IpcServerInst{};
    m_vConnections.clear();
    m_pWakePipe.reset();
    return true;
}

bool CIpcServer::Close()
{
    return Close(nullptr);
}

bool CIpcServer::ReadRequest(char* pcError)
{
    const CMutexLock lock(m_hMutexRequest);
    const CServing serving(this);
    return ReadRequestLocked(pcError);
}

bool CIpcServer::ReadRequestLocked(char* pcError)
{
    LogArgu logArgu = {"IpcServer.ReadRequest"};
    LogState(&logArgu, "[%s] Start");
    if (!m_bOpened) {
        FormatReason(pcError, "Channel not yet opened.");
        return false;
    }
    if (m_IpcServerInst.iSocket == -1) {
        FormatReason(pcError, "Invalid socket descriptor.");
        return false;
    }

    LogState(&logArgu, "[%s] Accept ipc request");
    CAutoFd connection;
    switch (WaitForRequest(&connection, -1)) {
    case WAIT_CLOSED:
    case WAIT_OTHER:
        LogState(&logArgu, "[%s] Socket closed");
        return true;
    case WAIT_FAILED:
        return Fail("Fail to accept ipc request. %s", errno, pcError);
    case WAIT_READY:
        break;
    }
    return Serve(&logArgu, connection.Get(), &m_IpcServerInst.data, pcError);
}

// Hands out the first connection that has something to say.
CIpcServer::WaitResult CIpcServer::WaitForRequest(CAutoFd* pConnection, int iOther)
{
    for (;;) {
        std::vector<struct pollfd> vWaits = {{m_IpcServerInst.iSocket, POLLIN, 0},
                                             {iOther, POLLIN, 0}};
        for (const CAutoFd& connection : m_vConnections)
            vWaits.push_back({connection.Get(), POLLIN, 0});
        if (!m_pWakePipe->WaitReadable(&vWaits, -1) || !m_bOpened)
            return WAIT_CLOSED;
        if (vWaits[1].revents != 0)
            return WAIT_OTHER;

        // Before anyone is served, for the queue of the listener is short.
        const bool bAccepted = vWaits[0].revents == 0 || AcceptConnections();
        const int iError = errno;
        // Not by its place: where descriptors are short, others are gone by now. One that has
        // something to say is not.
        const auto it = std::find_if(
            m_vConnections.begin(), m_vConnections.end(), [&vWaits](const CAutoFd& connection) {
                return std::any_of(vWaits.begin(), vWaits.end(),
                                   [&connection](const struct pollfd& wait) {
                                       return wait.fd == connection.Get() && wait.revents != 0;
                                   });
            });
        if (it != m_vConnections.end()) {
            *pConnection = std::move(*it);
            m_vConnections.erase(it);
            return WAIT_READY;
        }
        if (!bAccepted) {
            m_pWakePipe->WaitReadable(-1, RETRY_PAUSE);  // at once again, it would fail again
            errno = iError;
            return WAIT_FAILED;
        }
        if (m_vConnections.size() > MAX_SILENT)
            DropSilent();
    }
}

// Turns the oldest connection away, unless it speaks after all.
bool CIpcServer::DropSilent()
{
    if (m_vConnections.empty())
        return false;
    struct pollfd oldest = {m_vConnections.front().Get(), POLLIN, 0};
    if (poll(&oldest, 1, 0) != 0)
        return false;
    m_vConnections.erase(m_vConnections.begin());
    return true;
}

// False, with errno set, if a connection could not be taken out of the listener's queue.
bool CIpcServer::AcceptConnections()
{
    while (m_vConnections.size() <= MAX_SILENT) {
        CAutoFd connection(accept4(m_IpcServerInst.iSocket, nullptr, nullptr, SOCK_CLOEXEC));
        if (connection.Get() != -1) {
            m_vConnections.push_back(std::move(connection));
            continue;
        }
        const int iError = errno;
        if (iError == EAGAIN || iError == EWOULDBLOCK)
            return true;
        const bool bShortage = iError == EMFILE || iError == ENFILE;
        if (iError != EINTR && iError != ECONNABORTED && !(bShortage && DropSilent())) {
            errno = iError;
            return false;
        }
    }
    return true;
}

bool CIpcServer::Serve(LogArgu* pLogArgu, int iConnection, IpcDataInst* pData, char* pcError)
{
    LogState(pLogArgu, "[%s] Read ipc request");
    IpcDataBuf* pRequest = &pData->request;
    ssize_t iReceived = -1;
    do {
        // Not waiting: urgent data, say, count as something to read and then are nothing.
        iReceived = recv(iConnection, pRequest->cBuf, sizeof(pRequest->cBuf), MSG_DONTWAIT);
    } while (iReceived == -1 && errno == EINTR);
    if (iReceived == -1)
        return Fail("Fail to read ipc request. %s", errno, pcError);
    // Gone without a word. Whoever is still there and says nothing gets an answer; serving the
    // last request once more for nobody could only do harm.
    struct pollfd peer = {iConnection, 0, 0};
    if (iReceived == 0 && poll(&peer, 1, 0) == 1 && (peer.revents & POLLHUP) != 0)
        return Fail("Fail to read ipc request. %s", ECONNRESET, pcError);
    pRequest->lDataLen = iReceived;
    {
        const CCounted counted(&m_iServing);
        ParseData(pLogArgu, pData);
    }

    LogState(pLogArgu, "[%s] Send ipc reply");
    const IpcDataBuf* pReply = &pData->reply;
    ssize_t iSent = -1;
    do {  // never waits: a socket has room for a message
        iSent = send(iConnection, pReply->cBuf, static_cast<size_t>(pReply->lDataLen),
                     MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (iSent == -1 && errno == EINTR);
    if (iSent == -1)
        return Fail("Fail to send ipc reply. %s", errno, pcError);
    if (iSent < pReply->lDataLen)
        LogError("Fail to send ipc complete reply. (Send = %d, Target = %ld)",
                 static_cast<int>(iSent), pReply->lDataLen);
    return true;
}

CIpcServer* CIpcServer::GetServing()
{
    return t_pServing;
}

bool CIpcServer::IsServingEnough() const
{
    return m_iServing >= MAX_SERVING;
}

// The request in hand has its arguments in the buffer that all share, so this one brings another.
bool CIpcServer::ServeWhileWaiting(int iFile)
{
    LogArgu logArgu = {"IpcServer.ReadRequest"};
    while (m_bOpened && !m_bAutoShutdownRequested && !IsServingEnough()) {
        CAutoFd connection;
        const WaitResult result = WaitForRequest(&connection, iFile);
        if (result == WAIT_OTHER)
            return true;
        if (result != WAIT_READY)
            continue;
        const auto pData = std::make_unique<IpcDataInst>();
        char cError[REASON_SIZE] = "";
        if (!Serve(&logArgu, connection.Get(), pData.get(), cError) &&
            m_pRuntimeParam->IsLogError())
            LogError("[%s] %s", "IpcServer.SendRequest", cError);
        if (m_bAutoShutdownRequested)  // the request below this one may never end by itself
            m_pNfsHandle->RequestAutoShutdown();
    }
    return false;
}

bool CIpcServer::ReadRequest()
{
    LogArgu logArgu = {"IpcServer.SendRequest"};  // kept: not the name of this operation
    if (m_bAutoShutdownRequested) {
        LogState(&logArgu, "[%s] Waiting to auto shutdown");
        return false;
    }
    bool bResult = false;
    {
        const CMutexLock lock(m_hMutexRequest);
        const CServing serving(this);
        char cError[REASON_SIZE] = "";
        bResult = ReadRequestLocked(cError);
        if (!bResult && m_pRuntimeParam->IsLogError())
            LogError("[%s] %s", logArgu.pcName, cError);
    }
    if (m_bAutoShutdownRequested)
        m_pNfsHandle->RequestAutoShutdown();
    return bResult;
}

void CIpcServer::WaitForClose(int iMilliseconds)
{
    const CMutexLock lock(m_hMutexRequest);
    if (m_bOpened)
        m_pWakePipe->WaitReadable(-1, iMilliseconds);
}

void CIpcServer::ParseData(LogArgu* pLogArgu, IpcDataInst* pData)
{
    PrintData(pLogArgu, &pData->request);
    const Ipc_Header header = *AsRecord<Ipc_Header>(&pData->request);
    switch (header.iGroup) {
    case IPC_GROUP_REQUEST:
        ProcessRequest(pData, header.iType);
        break;
    case IPC_GROUP_CALLBACK:
        ProcessCallback(pData, header.iType);
        break;
    case IPC_GROUP_REPLY:
        FormatReason(ReplyText(pData, IPC_REPLY_TYPE_EXPT),
                     "Reply action group is not support (%d)", header.iType);
        break;
    default:
        FormatReason(ReplyText(pData, IPC_REPLY_TYPE_EXPT), "Unknown action group: %d (%d)",
                     header.iGroup, header.iType);
    }
    PrintData(pLogArgu, &pData->reply);
}
