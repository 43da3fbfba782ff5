#include "IpcClient.h"

#include <cerrno>
#include <poll.h>
#include <unistd.h>

#include "AutoFd.h"
#include "IpcServer.h"
#include "Pause.h"
#include "RuntimeParam.h"
#include "StopGrace.h"
#include "StopSignal.h"
#include "Utilities.h"

namespace {

constexpr int CONNECT_PAUSE = 1;  // milliseconds between two tries to connect
constexpr int REPLY_PAUSE = 100;  // milliseconds between two looks whether to go on waiting
constexpr int PATIENCE = CStopGrace::GRACE;

}  // namespace

CIpcClient::CIpcClient(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam)
    : CIpcBasic(pUtilities, pRuntimeParam)
{
}

bool CIpcClient::SendRequest(const char* pcChannel, char* pcError)
{
    LogArgu logArgu = {"IpcClient.SendRequest"};
    sockaddr_un address;
    if (!SetAddress(&address, pcChannel, pcError))
        return false;
    if (m_pRuntimeParam->IsLogIpcState())
        LogInfo("[%s] Open channel: %s", logArgu.pcName, pcChannel);
    PrintData(&logArgu, &m_IpcDataInst.request);

    LogState(&logArgu, "[%s] Open ipc client socket");
    const CAutoFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket.Get() == -1)
        return Fail("Fail to open ipc client socket. %s", errno, pcError);
    const bool bResult = Exchange(&logArgu, socket.Get(), address, pcError);
    shutdown(socket.Get(), SHUT_RDWR);
    return bResult;
}

bool CIpcClient::Exchange(LogArgu* pLogArgu, int iSocket, const sockaddr_un& address, char* pcError)
{
    LogState(pLogArgu, "[%s] Connect ipc client socket");
    if (!Connect(iSocket, address))
        return Fail("Fail to connect ipc client socket. %s", errno, pcError);

    LogState(pLogArgu, "[%s] Send ipc client request");
    const IpcDataBuf* pRequest = &m_IpcDataInst.request;
    ssize_t iSent = -1;
    do {
        iSent =
            send(iSocket, pRequest->cBuf, static_cast<size_t>(pRequest->lDataLen), MSG_NOSIGNAL);
    } while (iSent == -1 && errno == EINTR);
    if (iSent == -1)
        return Fail("Fail to send ipc client request. %s", errno, pcError);
    if (iSent < pRequest->lDataLen)
        LogError("[%s] Fail to send complete ipc client request. (Send = %d, Target = %ld)",
                 pLogArgu->pcName, static_cast<int>(iSent), pRequest->lDataLen);

    LogState(pLogArgu, "[%s] Read ipc server reply");
    IpcDataBuf* pReply = &m_IpcDataInst.reply;
    const ssize_t iReceived = Receive(iSocket, pReply);
    if (iReceived == -1)
        return Fail("Fail to read ipc server reply. %s", errno, pcError);
    pReply->lDataLen = iReceived;
    PrintData(pLogArgu, pReply);
    return true;
}

// There is no time-out, but whoever stops this process, or what the calling thread belongs to, need
// not wait for long; nor is it any use to wait below too many requests, when nobody can be served
// any more who may be waited for. Takes the time that was waited off what is left, if that is so;
// false if nothing is.
bool CIpcClient::HasPatience(int iWaited, int* piPatience)
{
    CIpcServer* pServing = CIpcServer::GetServing();
    CStopGrace& grace =
        pServing == nullptr ? m_pUtilities->GetStopGrace() : pServing->GetCloseGrace();
    if (CStopSignal::IsRequested() || (pServing != nullptr && pServing->IsServingEnough()))
        *piPatience -= iWaited;
    if (grace.Spend(iWaited) && *piPatience > 0)
        return true;
    errno = EINTR;
    return false;
}

// A channel whose queue is full is asked again until there is room.
bool CIpcClient::Connect(int iSocket, const sockaddr_un& address)
{
    int iPatience = PATIENCE;
    while (connect(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1) {
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN)
            return false;
        Pause(CONNECT_PAUSE);
        if (!HasPatience(CONNECT_PAUSE, &iPatience))
            return false;
    }
    return true;
}

ssize_t CIpcClient::Receive(int iSocket, IpcDataBuf* pReply)
{
    // Below a request to this process: the other one may ask something here before it answers.
    CIpcServer* pServing = CIpcServer::GetServing();
    int iPatience = PATIENCE;
    for (;;) {
        if (pServing != nullptr && !pServing->ServeWhileWaiting(iSocket))
            pServing = nullptr;
        // Where none is left, what has come already is taken all the same.
        const int iPause = HasPatience(0, &iPatience) ? REPLY_PAUSE : 0;
        struct pollfd wait = {iSocket, POLLIN, 0};
        const int iReady = poll(&wait, 1, iPause);
        if (iReady == -1)
            Pause(iPause);  // out of memory, or a signal
        if (iReady == 1) {
            const ssize_t iReceived =
                recv(iSocket, pReply->cBuf, sizeof(pReply->cBuf), MSG_DONTWAIT);
            if (iReceived != -1 || (errno != EINTR && errno != EAGAIN))
                return iReceived;
        }
        if (!HasPatience(iPause, &iPatience))
            return -1;
    }
}

bool CIpcClient::SendRequest(const char* pcChannel)
{
    char cError[REASON_SIZE] = "";
    if (SendRequest(pcChannel, cError))
        return true;
    if (m_pRuntimeParam->IsLogError())
        LogError("[%s] %s", "IpcClient.SendRequest", cError);
    return false;
}

bool CIpcClient::IsReply(int iType)
{
    const auto* pHeader = AsRecord<Ipc_Header>(&m_IpcDataInst.reply);
    return pHeader->iGroup == IPC_GROUP_REPLY && pHeader->iType == iType;
}

bool CIpcClient::GetBoolReply()
{
    return IsReply(IPC_REPLY_TYPE_BOOL) && AsRecord<IpcReply_Bool>(&m_IpcDataInst.reply)->bVal != 0;
}

long CIpcClient::GetLongReply()
{
    return IsReply(IPC_REPLY_TYPE_LONG) ? AsRecord<IpcReply_Long>(&m_IpcDataInst.reply)->lVal : 0;
}

int CIpcClient::GetIntReply()
{
    return IsReply(IPC_REPLY_TYPE_INT) ? AsRecord<IpcReply_Int>(&m_IpcDataInst.reply)->iVal : -1;
}

const char* CIpcClient::GetExptReply()
{
    return GetText(IPC_REPLY_TYPE_EXPT);
}

const char* CIpcClient::GetMsgReply()
{
    return GetText(IPC_REPLY_TYPE_MSG);
}

const char* CIpcClient::GetText(int iType)
{
    if (!IsReply(iType))
        return nullptr;
    return GetField(AsRecord<IpcReply_Message>(&m_IpcDataInst.reply)->cMsg);
}
