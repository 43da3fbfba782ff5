// Starting and stopping the server.
#include "NfsMain.h"

#include <utility>

#include "DatagramSocket.h"
#include "MountProg.h"
#include "Nfs3Types.h"
#include "NfsProg.h"
#include "Portmap.h"
#include "PortmapProg.h"
#include "RpcServer.h"
#include "ServerSocket.h"
#include "Text.h"
#include "Utilities.h"

namespace {

constexpr char START_NAME[] = "NfsMain.StartServer";
constexpr int CONTROL_CONNECTIONS = 3;  // at a time, for the port mapper and for MOUNT
constexpr int NFS_CONNECTIONS = 10;     // at a time

}  // namespace

bool CNfsMain::StartServer(int iMountPort, int iNfsPort, unsigned int iUid, unsigned int iGid,
                           bool bReadOnly, char* pcReason)
{
    if (IsRefusedInsideCallback(START_NAME)) {
        FormatReason(pcReason, "NFS cannot be started from a callback");
        return false;
    }
    {
        const CMutexLock lock(m_hMutexServer);
        // What is served must not be lost to a second start, nor one start to another's failure.
        if (m_bServerRunning || m_bStartFailed) {
            FormatReason(pcReason, "NFS already running");
            return false;
        }
        m_bServerRunning = StartAll(iMountPort, iNfsPort, iUid, iGid, bReadOnly, pcReason);
        if (m_bServerRunning)
            return true;
        m_bStartFailed = true;
    }
    StopServer();
    const CMutexLock lock(m_hMutexServer);
    m_bStartFailed = false;
    return false;
}

bool CNfsMain::StartAll(int iMountPort, int iNfsPort, unsigned int iUid, unsigned int iGid,
                        bool bReadOnly, char* pcReason)
{
    StopAll();  // what a start that threw has left
    CreatePrograms();
    SetLogControl(m_pRuntimeParam->GetLogControl());

    // Beside an external port mapper there may be another NFS server too: one port further.
    const bool bExternal = m_pPortmap->IsRunning();
    if (iMountPort < 1)
        iMountPort = bExternal ? MOUNT_PORT + 1 : MOUNT_PORT;
    if (iNfsPort < 1)
        iNfsPort = bExternal ? NFS_PORT + 1 : NFS_PORT;
    if (HasFileLogger()) {
        if (bExternal)
            m_pUtilities->LogInfo(
                m_pRuntimeParam.get(),
                "Start NFS with external portmapper: MountPort = %d, NfsPort = %d", iMountPort,
                iNfsPort);
        else
            m_pUtilities->LogInfo(
                m_pRuntimeParam.get(),
                "Start NFS with internal portmapper: MountPort = %d, NfsPort = %d", iMountPort,
                iNfsPort);
    }
    if (m_pPortmapProg != nullptr) {
        m_pPortmapProg->Set(PROG_MOUNT, static_cast<unsigned long>(iMountPort));
        m_pPortmapProg->Set(PROG_NFS, static_cast<unsigned long>(iNfsPort));
    }
    m_pNfsProg->SetUserID(iUid, iGid);
    m_pNfsProg->SetReadOnly(bReadOnly);

    CreateSockets();
    return OpenListeners(iMountPort, iNfsPort, pcReason) &&
           (!bExternal || RegisterPrograms(pcReason));
}

void CNfsMain::CreatePrograms()
{
    m_pMountProg = std::make_unique<CMountProg>(m_pUtilities.get());
    m_pPortmap = std::make_unique<CPortmap>(m_pUtilities.get(), m_pRuntimeParam.get());
    if (!m_pPortmap->IsRunning())
        m_pPortmapProg = std::make_unique<CPortmapProg>(m_pUtilities.get());
    m_pNfsProg = std::make_unique<CNfsProg>(m_pUtilities.get());

    auto pRpcServer = std::make_unique<CRpcServer>(m_pUtilities.get(), m_pRuntimeParam.get());
    if (m_pPortmapProg != nullptr)
        pRpcServer->Set(PROG_PORTMAP, m_pPortmapProg.get());
    pRpcServer->Set(PROG_NFS, m_pNfsProg.get());
    pRpcServer->Set(PROG_MOUNT, m_pMountProg.get());
    const CMutexLock lock(m_hMutexRpcServer);
    m_pRpcServer = std::move(pRpcServer);
}

void CNfsMain::CreateSockets()
{
    const CMutexLock lock(m_hMutexRpcServer);
    for (SocketHandle& sockets : m_Sockets) {
        sockets.pServerSocket = std::make_unique<CServerSocket>();
        sockets.pServerSocket->SetListener(m_pRpcServer.get());
        sockets.pServerSocket->SetRuntimeParam(m_pRuntimeParam.get());
        sockets.pDatagramSocket = std::make_unique<CDatagramSocket>();
        sockets.pDatagramSocket->SetListener(m_pRpcServer.get());
    }
}

bool CNfsMain::OpenSockets(SocketIndex index, int iProg, int iPort, int iMaxNum,
                           char* pcSocketReason)
{
    const SocketHandle& sockets = m_Sockets[index];
    const auto lProg = static_cast<unsigned long>(iProg);
    return sockets.pServerSocket->Open(lProg, iPort, iMaxNum, m_pUtilities.get(), pcSocketReason) &&
           sockets.pDatagramSocket->Open(lProg, iPort, m_pUtilities.get(), pcSocketReason);
}

bool CNfsMain::OpenListeners(int iMountPort, int iNfsPort, char* pcReason)
{
    CRuntimeParam* pRuntimeParam = m_pRuntimeParam.get();
    char cSocketReason[REASON_SIZE] = "";
    if (m_pPortmapProg != nullptr && !OpenSockets(SOCKETS_PORTMAP, PROG_PORTMAP, PORTMAP_PORT,
                                                  CONTROL_CONNECTIONS, cSocketReason)) {
        if (pRuntimeParam->IsLogError())
            m_pUtilities->LogError(pRuntimeParam, "Fail to start PortMap daemon. Reason=%s",
                                   cSocketReason);
        if (HasFileLogger())
            m_pUtilities->LogError(pRuntimeParam,
                                   "Fail to start PortMap daemon on port %d. Reason=%s",
                                   PORTMAP_PORT, cSocketReason);
        FormatReason(pcReason, "PortMap daemon failed to open port %d", PORTMAP_PORT);
        return false;
    }
    if (!OpenSockets(SOCKETS_NFS, PROG_NFS, iNfsPort, NFS_CONNECTIONS, cSocketReason)) {
        if (pRuntimeParam->IsLogError())
            m_pUtilities->LogError(pRuntimeParam, "[%s] Fail to start NFS daemon. Reason=%s",
                                   START_NAME, cSocketReason);
        if (HasFileLogger())
            m_pUtilities->LogError(pRuntimeParam, "Fail to start NFS daemon on port %d. Reason=%s",
                                   iNfsPort, cSocketReason);
        FormatReason(pcReason, "NFS daemon failed to open port %d", iNfsPort);
        return false;
    }
    if (!OpenSockets(SOCKETS_MOUNT, PROG_MOUNT, iMountPort, CONTROL_CONNECTIONS, cSocketReason)) {
        if (pRuntimeParam->IsLogError())
            m_pUtilities->LogError(pRuntimeParam, "[%s] Fail to start Mount daemon. Reason=%s",
                                   START_NAME, cSocketReason);
        if (HasFileLogger())
            m_pUtilities->LogError(pRuntimeParam,
                                   "Fail to start Mount daemon on port %d. Reason=%s", iMountPort,
                                   cSocketReason);
        FormatReason(pcReason, "Mount daemon failed to open port %d", iMountPort);
        return false;
    }
    return true;
}

// Both are tried, whatever becomes of the first. The reason names the first that failed.
bool CNfsMain::RegisterPrograms(char* pcReason)
{
    char cError[REASON_SIZE] = "";
    char cText[REASON_SIZE] = "";
    const bool bNfs =
        m_pPortmap->Register(PROG_NFS, NFS_V3, m_Sockets[SOCKETS_NFS].pServerSocket.get(), cError);
    if (!bNfs) {
        FormatReason(cText, "Fail to register NFS daemon to external portmapper. Reason=%s",
                     cError);
        ReportRegistration(cText, pcReason);
    }
    const bool bMount = m_pPortmap->Register(PROG_MOUNT, MOUNT_V3,
                                             m_Sockets[SOCKETS_MOUNT].pServerSocket.get(), cError);
    if (!bMount) {
        FormatReason(cText, "Fail to register Mount daemon to external portmapper. Reason=%s",
                     cError);
        ReportRegistration(cText, bNfs ? pcReason : nullptr);
    }
    return bNfs && bMount;
}

void CNfsMain::ReportRegistration(const char* pcText, char* pcReason)
{
    if (HasFileLogger())
        m_pUtilities->LogError(m_pRuntimeParam.get(), "%s", pcText);
    CopyText(pcReason, REASON_SIZE, pcText);
}

void CNfsMain::StopServer()
{
    if (IsRefusedInsideCallback("NfsMain.StopServer"))
        return;
    const CMutexLock lock(m_hMutexServer);
    if (HasFileLogger() && m_bServerRunning)
        m_pUtilities->LogInfo(m_pRuntimeParam.get(), "Stop NFS");
    m_pUtilities->RemoveAllVSphereInfoWithWebCtrl(m_pRuntimeParam.get());
    m_bServerRunning = false;
    StopAll();
    LogArgu logArgu = {"NfsMain.StopServer"};
    m_pUtilities->Reset(m_pRuntimeParam.get(), &logArgu);
}

// Sockets first: they join their threads, and nobody uses the programs any more.
void CNfsMain::StopAll()
{
    m_pUtilities->GetStopGrace().Begin();  // a call in hand may be waiting for the host's process
    for (SocketHandle& sockets : m_Sockets) {
        sockets.pServerSocket.reset();
        sockets.pDatagramSocket.reset();
    }
    m_pMountProg.reset();
    m_pPortmapProg.reset();
    if (m_pPortmap != nullptr && m_pPortmap->IsRunning()) {
        m_pPortmap->Unregister(PROG_NFS, NFS_V3, nullptr);
        m_pPortmap->Unregister(PROG_MOUNT, MOUNT_V3, nullptr);
    }
    m_pPortmap.reset();
    m_pNfsProg.reset();
    m_pUtilities->GetStopGrace().End();
    const CMutexLock lock(m_hMutexRpcServer);
    m_pRpcServer.reset();
}
