// Everything but starting and stopping, which is in NfsMainServer.cpp.
#include "NfsMain.h"

#include "DatagramSocket.h"
#include "MountProg.h"
#include "NfsProg.h"
#include "Portmap.h"
#include "PortmapProg.h"
#include "RpcServer.h"
#include "ServerSocket.h"
#include "Text.h"
#include "Utilities.h"

CNfsMain::CNfsMain() = default;

CNfsMain::CNfsMain(const char* pcID, int iLogControl)
{
    // The base's own, whatever derives from this: no derived object exists yet.
    CNfsMain::InitMemberVaribles(pcID, iLogControl);
}

CNfsMain::~CNfsMain()
{
    const CMutexLock lock(m_hMutexServer);
    StopAll();
}

void CNfsMain::InitMemberVaribles(const char* pcID, int iLogControl)
{
    m_pRuntimeParam = std::make_unique<CRuntimeParam>(pcID, iLogControl);
    // NOLINTNEXTLINE(clang-analyzer-optin.cplusplus.VirtualCall): see the constructor
    m_pUtilities = CreateUtilities();
}

std::unique_ptr<CUtilities> CNfsMain::CreateUtilities()
{
    return std::make_unique<CUtilities>();
}

// Such a thread may be one that a stop waits for, or hold what a start needs.
bool CNfsMain::IsRefusedInsideCallback(const char* pcName)
{
    if (!CUtilities::IsInsideCallback())
        return false;
    if (m_pRuntimeParam->IsLogError())
        m_pUtilities->LogError(m_pRuntimeParam.get(), "[%s] Cannot be called from a callback.",
                               pcName);
    return true;
}

bool CNfsMain::HasFileLogger()
{
    return m_pUtilities->GetFileLogger() != nullptr;
}

bool CNfsMain::Initial(char* pcReason)
{
    if (HasFileLogger())
        m_pUtilities->LogInfo(m_pRuntimeParam.get(), "Initial NFS");
    if (m_pRuntimeParam->GetID()[0] == '\0') {
        FormatReason(pcReason, "ID is not defined");
        return false;
    }
    return InitialNetwork(pcReason);
}

void CNfsMain::Terminate()
{
    if (HasFileLogger())
        m_pUtilities->LogInfo(m_pRuntimeParam.get(), "Terminate NFS");
    TerminateNetwork();
}

bool CNfsMain::InitialNetwork(char*)
{
    m_bNetworkInitialized = true;
    return true;
}

void CNfsMain::TerminateNetwork()
{
    m_bNetworkInitialized = false;
}

bool CNfsMain::StartRemoteController(char*)
{
    if (HasFileLogger())
        m_pUtilities->LogInfo(m_pRuntimeParam.get(), "Start Remote Controller");
    if (m_pRuntimeParam->IsLogGeneralInfo())
        m_pUtilities->LogInfo(m_pRuntimeParam.get(),
                              "[%s] No remote controller to start. It is NOT support in internal "
                              "server mode.",
                              "NfsMain.StartRemoteController");
    return true;
}

void CNfsMain::StopRemoteController()
{
    if (HasFileLogger())
        m_pUtilities->LogInfo(m_pRuntimeParam.get(), "Stop Remote Controller");
    if (m_pRuntimeParam->IsLogGeneralInfo())
        m_pUtilities->LogInfo(m_pRuntimeParam.get(),
                              "[%s] No remote controller to stop. It is NOT support in internal "
                              "server mode.",
                              "NfsMain.StopRemoteController");
}

int CNfsMain::GetAccessMode()
{
    return ACCESS_MODE_INTERNAL;
}

void CNfsMain::GetVersion(char* pcOut)
{
    CopyText(pcOut, DESCRIPTION_SIZE, LIBRARY_VERSION);
}

void CNfsMain::GetDescription(char* pcOut)
{
    CopyText(pcOut, DESCRIPTION_SIZE, "Internal NFS Server");
}

bool CNfsMain::IsServerRunning()
{
    return m_bServerRunning;
}

int CNfsMain::GetServerStatus()
{
    return SERVER_STATUS_ALIVE | (IsServerRunning() ? SERVER_STATUS_RUNNING : 0) |
           (m_bDebugActionEnabled ? SERVER_STATUS_DEBUG_ACTION : 0);
}

bool CNfsMain::SetDebugActionEnabled(bool bEnabled)
{
    m_bDebugActionEnabled = bEnabled;
    return true;
}

void CNfsMain::EnableAutoShutdown(bool bEnabled)
{
    m_bAutoShutdownEnabled = bEnabled;
}

bool CNfsMain::RequestAutoShutdown()
{
    if (!m_bAutoShutdownEnabled)
        return false;
    m_bAutoShutdownRequested = true;
    return true;
}

void CNfsMain::SetLogControl(int iLogControl)
{
    m_pRuntimeParam->SetLogControl(iLogControl);
    const CMutexLock lock(m_hMutexRpcServer);
    if (m_pRpcServer != nullptr)
        m_pRpcServer->SetLogControl(iLogControl);
}

void CNfsMain::SetCallback(IHost* pCallback)
{
    m_pUtilities->SetCallback(pCallback);
}

std::shared_ptr<IHost> CNfsMain::GetCallback()
{
    return m_pUtilities->GetCallback();
}

void CNfsMain::SetFileLogger(CFileLogger* pFileLogger)
{
    m_pUtilities->SetFileLogger(pFileLogger);
}

bool CNfsMain::IsMountDefined(const char* pcLocalPath, const char* pcExportName, char* pcReason)
{
    if (NotNull(pcLocalPath)[0] == '\0') {
        FormatReason(pcReason, "Local mount folder is not defined");
        return false;
    }
    if (pcExportName == nullptr) {
        FormatReason(pcReason, "Export name is not defined");
        return false;
    }
    return true;
}

bool CNfsMain::AddMountPoint(const char* pcLocalPath, const char* pcExportName, char* pcReason)
{
    return AddMountPoint(pcLocalPath, pcExportName, "", pcReason);
}

bool CNfsMain::AddMountPoint(const char* pcLocalPath, const char* pcExportName, const char* pcIpcID,
                             char* pcReason)
{
    if (!IsMountDefined(pcLocalPath, pcExportName, pcReason))
        return false;
    LogArgu logArgu = {"NfsMain.AddMountPoint"};
    return m_pUtilities->AddMountInfo(m_pRuntimeParam.get(), &logArgu, pcLocalPath, pcExportName,
                                      pcIpcID, pcReason);
}

void CNfsMain::RemoveMountPoint(const char* pcLocalPath)
{
    if (pcLocalPath == nullptr)
        return;
    LogArgu logArgu = {"NfsMain.RemoveMountPoint"};
    m_pUtilities->RemoveMountInfoByLocalMountPath(m_pRuntimeParam.get(), &logArgu, pcLocalPath);
}

void CNfsMain::AddSessionInfo(const char* pcSessionID, const char* pcLocalPath)
{
    if (pcSessionID == nullptr)
        return;
    m_pUtilities->AddSessionInfo(pcSessionID, NotNull(pcLocalPath));
}

void CNfsMain::RemoveSessionInfo(const char* pcSessionID)
{
    if (pcSessionID == nullptr)
        return;
    m_pUtilities->RemoveSessionInfo(pcSessionID);
}

bool CNfsMain::IsSessionExists(const char* pcSessionID)
{
    return IsLocalSessionExists(pcSessionID);
}

bool CNfsMain::IsLocalSessionExists(const char* pcSessionID)
{
    return pcSessionID != nullptr && m_pUtilities->IsSessionExists(pcSessionID);
}

void CNfsMain::OpenRedirectedFile(const char* pcPath, long long iSize, bool bCreateInfoFile,
                                  int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB)
{
    if (pcPath == nullptr)
        return;
    m_pUtilities->OpenRedirectedFile(m_pRuntimeParam.get(), pcPath, iSize, bCreateInfoFile,
                                     iInfoFileSegmentSizeMB, iInfoFileCheckPointSizeMB);
}

void CNfsMain::CloseRedirectedFile(const char* pcPath)
{
    if (pcPath == nullptr)
        return;
    m_pUtilities->CloseRedirectedFile(m_pRuntimeParam.get(), pcPath);
}

void CNfsMain::CloseAllRedirectedFiles(const char* pcPath)
{
    if (pcPath == nullptr)
        return;
    m_pUtilities->CloseAllRedirectedFiles(m_pRuntimeParam.get(), pcPath);
}

bool CNfsMain::AddRedirectedFileSegment(const char* pcPath, const char* pcSrcPath,
                                        long long iSrcFileOffset, long long iOffset,
                                        long long iLength, char* pcReason)
{
    if (pcPath == nullptr) {
        FormatReason(pcReason, "Path is not defined");
        return false;
    }
    return m_pUtilities->AddRedirectedFileSegment(m_pRuntimeParam.get(), pcPath, pcSrcPath,
                                                  iSrcFileOffset, iOffset, iLength, pcReason);
}

void CNfsMain::ExportRedirectedFile(const char* pcPath, const char* pcDest)
{
    if (pcPath == nullptr || pcDest == nullptr)
        return;
    m_pUtilities->ExportRedirectedFile(m_pRuntimeParam.get(), pcPath, pcDest);
}

void CNfsMain::ExportRedirectedFileInfo(const char* pcPath, const char* pcDest, bool bMergeRange)
{
    if (pcPath == nullptr || pcDest == nullptr)
        return;
    m_pUtilities->ExportRedirectedFileInfo(m_pRuntimeParam.get(), pcPath, pcDest, bMergeRange);
}

void CNfsMain::CloseCachedFileHandle(const char* pcPath)
{
    if (pcPath == nullptr)
        return;
    LogArgu logArgu = {"NfsMain.CloseCachedFileHandle"};
    m_pUtilities->CloseCachedFileHandle(m_pRuntimeParam.get(), &logArgu, pcPath);
}

void CNfsMain::CloseAllCachedFileHandles(const char* pcPath)
{
    if (pcPath == nullptr)
        return;
    LogArgu logArgu = {"NfsMain.CloseAllCachedFileHandles"};
    m_pUtilities->CloseAllCachedFileHandles(m_pRuntimeParam.get(), &logArgu, pcPath);
}

int CNfsMain::GetMountInfo(bool bClientMountedOnly, bool bPrintDetails)
{
    return GetMountInfo(m_pRuntimeParam.get(), bClientMountedOnly, bPrintDetails);
}

int CNfsMain::GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly,
                           bool bPrintDetails)
{
    return m_pUtilities->GetMountInfo(pRuntimeParam, bClientMountedOnly, bPrintDetails);
}

int CNfsMain::GetSessionInfo(bool bPrintDetails)
{
    return GetSessionInfo(m_pRuntimeParam.get(), bPrintDetails);
}

int CNfsMain::GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails)
{
    return m_pUtilities->GetSessionInfo(pRuntimeParam, bPrintDetails);
}

void CNfsMain::RunTestMode(const char* pcPath, long long iFileSize)
{
    RunTestMode(m_pRuntimeParam.get(), pcPath, iFileSize);
}

void CNfsMain::RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, long long iFileSize)
{
    m_pUtilities->RunTestMode(pRuntimeParam, pcPath, iFileSize);
}

int CNfsMain::GetVSphereInfo(bool bPrintDetails)
{
    return GetVSphereInfo(m_pRuntimeParam.get(), bPrintDetails);
}

int CNfsMain::GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails)
{
    return m_pUtilities->GetVSphereInfo(pRuntimeParam, bPrintDetails);
}

void CNfsMain::AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                              const char* pcUser, const char* pcPwd)
{
    if (pcDatastoreMoid == nullptr)
        return;
    m_pUtilities->AddVSphereInfo(pcDatastoreMoid, NotNull(pcHost), NotNull(pcPort), NotNull(pcUser),
                                 NotNull(pcPwd));
}

void CNfsMain::RemoveVSphereInfo(const char* pcDatastoreMoid)
{
    if (pcDatastoreMoid == nullptr)
        return;
    m_pUtilities->RemoveVSphereInfo(pcDatastoreMoid);
}
