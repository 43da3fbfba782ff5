#include "IpcClient.h"

#include <cerrno>
#include <poll.h>
#include <unistd.h>

#include "AutoFd.h"
#include "Pause.h"
#include "RuntimeParam.h"
#include "StopSignal.h"

namespace {

constexpr int STOP_PAUSE = 100;  // milliseconds between two looks for a signal to stop

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
    const CAutoFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket.Get() == -1)
        return Fail("Fail to open ipc client socket. %s", errno, pcError);
    const bool bResult = Exchange(&logArgu, socket.Get(), address, pcError);
    shutdown(socket.Get(), SHUT_RDWR);
    return bResult;
}

bool CIpcClient::Exchange(LogArgu* pLogArgu, int iSocket, const sockaddr_un& address, char* pcError)
{
    LogState(pLogArgu, "[%s] Connect ipc client socket");
    while (connect(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1) {
        if (errno != EINTR)  // else the queue of the channel is full, and the wait was disturbed
            return Fail("Fail to connect ipc client socket. %s", errno, pcError);
    }

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

// There is no time-out, but whoever stops this process need not wait either.
ssize_t CIpcClient::Receive(int iSocket, IpcDataBuf* pReply)
{
    for (;;) {
        struct pollfd wait = {iSocket, POLLIN, 0};
        const int iReady = poll(&wait, 1, STOP_PAUSE);
        if (iReady == -1)
            Pause(STOP_PAUSE);  // out of memory, or a signal
        if (iReady == 1) {
            const ssize_t iReceived =
                recv(iSocket, pReply->cBuf, sizeof(pReply->cBuf), MSG_DONTWAIT);
            if (iReceived != -1 || (errno != EINTR && errno != EAGAIN))
                return iReceived;
        }
        if (CStopSignal::IsRequested()) {
            errno = EINTR;
            return -1;
        }
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
