#include "Portmap.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "AutoFd.h"
#include "Platform.h"
#include "RuntimeParam.h"
#include "ServerSocket.h"
#include "Text.h"
#include "Utilities.h"

namespace {

constexpr int NO_SOCKET = -1;  // results of CreateSocket
constexpr int NO_PORT = -2;

}  // namespace

CPortmap::CPortmap(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam)
    : m_pUtilities(pUtilities), m_pRuntimeParam(pRuntimeParam)
{
    bIsRunning = IsRunning(true);
}

bool CPortmap::IsRunning(bool bProbe)
{
    if (!bProbe)
        return bIsRunning;
    const int iSocket = CreateSocket(PORTMAP_PORT, nullptr);
    if (iSocket >= 0)
        close(iSocket);
    if (iSocket != NO_PORT)
        return false;
    if (m_pRuntimeParam->IsLogPortmap())
        m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Port %ld is already in used",
                              "Portmap.IsRunning", static_cast<long>(PORTMAP_PORT));
    return true;
}

int CPortmap::CreateSocket(unsigned long lPort, char* pcReason)
{
    CAutoFd endpoint(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (endpoint.Get() == -1) {
        FormatReason(pcReason, "Error opening socket for port %lu", lPort);
        return NO_SOCKET;
    }
    const int iPort = lPort > 0xFFFF ? -1 : static_cast<int>(lPort);  // -1 binds to nothing
    const int iReuse = 1;
    if (setsockopt(endpoint.Get(), SOL_SOCKET, SO_REUSEADDR, &iReuse, sizeof(iReuse)) != 0 ||
        !BindToPort(endpoint.Get(), iPort)) {
        FormatReason(pcReason, "Error binding socket with port %lu", lPort);
        return NO_PORT;
    }
    return endpoint.Release();
}

bool CPortmap::Register(unsigned long lProg, unsigned long lVers, CServerSocket* pServerSocket,
                        char* pcReason)
{
    return Register(lProg, lVers, pServerSocket->GetSocket(),
                    static_cast<unsigned long>(pServerSocket->GetPort()), pcReason);
}

bool CPortmap::Register(unsigned long lProg, unsigned long lVers, int iSocket, unsigned long lPort,
                        char* pcReason)
{
    if (!bIsRunning) {
        FormatReason(pcReason, "Portmapper is not running.");
        return false;
    }
    Platform::UnsetRpcMapping(lProg, lVers);  // most often there is none

    char cError[REASON_SIZE] = "";
    CAutoFd own;
    if (iSocket == 0) {
        iSocket = CreateSocket(lPort, cError);
        if (iSocket < 0) {
            FormatReason(pcReason, "Fail to opening register socket for port %lu. Reason=%s", lPort,
                         cError);
            return false;
        }
        own.Reset(iSocket);
    }
    if (RegisterSvc(static_cast<long>(lProg), static_cast<long>(lVers), iSocket, cError))
        return true;
    FormatReason(pcReason, "Fail to register socket for port %lu. Reason=%s", lPort, cError);
    return false;
}

bool CPortmap::RegisterSvc(long lProg, long lVers, int iSocket, char* pcReason)
{
    const char* pcName = "Portmap.RegisterSvc";
    const bool bLog = m_pRuntimeParam->IsLogPortmap();
    const auto iProg = static_cast<unsigned long>(lProg);
    const auto iVers = static_cast<unsigned long>(lVers);

    if (bLog)
        m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Creating UDP for %ld ver=%ld", pcName, lProg,
                              lVers);
    Platform::CRpcTransport udp(iSocket, IPPROTO_UDP);
    if (!udp.IsCreated()) {
        FormatReason(pcReason, "Cannot create UDP for %ld ver=%ld", lProg, lVers);
        return false;
    }
    if (bLog)
        m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Registering UDP for %ld ver=%ld", pcName,
                              lProg, lVers);
    if (!udp.Register(iProg, iVers)) {
        FormatReason(pcReason, "Unable to register UDP for %ld ver=%ld", lProg, lVers);
        return false;
    }
    if (bLog)
        m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Registered UDP for %ld ver=%ld", pcName, lProg,
                              lVers);

    if (bLog)
        m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Creating TCP for %ld ver=%ld", pcName, lProg,
                              lVers);
    Platform::CRpcTransport tcp(iSocket, IPPROTO_TCP);
    if (!tcp.IsCreated()) {
        FormatReason(pcReason, "Cannot create TCP for %ld ver=%ld", lProg, lVers);
        return false;
    }
    if (bLog)
        m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Registering TCP for %ld ver=%ld", pcName,
                              lProg, lVers);
    if (!tcp.Register(iProg, iVers)) {
        FormatReason(pcReason, "Unable to register TCP for %ld ver=%ld", lProg, lVers);
        return false;
    }
    if (bLog)
        m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Registered TCP for %ld ver=%ld", pcName, lProg,
                              lVers);
    return true;
}

bool CPortmap::Unregister(unsigned long lProg, unsigned long lVers, char* pcReason)
{
    if (!bIsRunning) {
        FormatReason(pcReason, "Portmapper is not running.");
        return false;
    }
    Platform::UnregisterRpcService(lProg, lVers);
    Platform::UnsetRpcMapping(lProg, lVers);
    if (m_pRuntimeParam->IsLogPortmap())
        m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Unregistered the program %ld ver=%ld",
                              "Portmap.Unregister", static_cast<long>(lProg),
                              static_cast<long>(lVers));
    return true;
}
