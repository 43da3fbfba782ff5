#include "NfsIpcClientMain.h"

#include <cstring>

#include "IpcClient.h"
#include "RuntimeParam.h"
#include "Text.h"
#include "Utilities.h"

namespace {

constexpr char UNKNOWN[] = "Unknown";  // version and description of a server out of reach
constexpr char VERSION_1_0[] = "1.0";
constexpr char VERSION_1_1[] = "1.1";

// One exchange on behalf of a controller.
class CExchange : public CIpcClient {
public:
    explicit CExchange(CNfsMain* pMain) : CIpcClient(pMain->GetUtils(), pMain->GetRuntimeParam()) {}
};

bool RefuseText(const char* pcText, char* pcReason)
{
    FormatReason(pcReason, "Text is too long: %s", pcText);
    return false;
}

}  // namespace

CNfsIpcClientMain::CNfsIpcClientMain(const char* pcID, int iLogControl)
{
    // This class's own, whatever derives from it: no derived object exists yet.
    CNfsIpcClientMain::InitMemberVaribles(pcID, iLogControl);
}

CNfsIpcClientMain::~CNfsIpcClientMain()
{
    CloseRemoteController();
}

void CNfsIpcClientMain::InitMemberVaribles(const char* pcID, int iLogControl)
{
    CNfsIpcServerMain::InitMemberVaribles(pcID, iLogControl);
    GetIpcChannel(m_cIpcChannel, IPC_SERVER_NAME);
}

bool CNfsIpcClientMain::InitialNetwork(char*)
{
    return true;
}

void CNfsIpcClientMain::TerminateNetwork() {}

// What arrives here is for this process's own host.
std::unique_ptr<CUtilities> CNfsIpcClientMain::CreateUtilities()
{
    return std::make_unique<CUtilities>();
}

void CNfsIpcClientMain::GetIpcServerThreadChannel(char* pcOut)
{
    GetIpcChannel(pcOut, GetRuntimeParam()->GetID());
}

bool CNfsIpcClientMain::Send(CIpcClient* pClient)
{
    return pClient->SendRequest(m_cIpcChannel);
}

// For operations that can fail with a reason, which the server words as a rule.
bool CNfsIpcClientMain::SendForBool(CIpcClient* pClient, char* pcReason)
{
    if (!pClient->SendRequest(m_cIpcChannel, pcReason))
        return false;
    if (const char* pcText = pClient->GetExptReply(); pcText != nullptr) {
        FormatReason(pcReason, "%s", pcText);
        return false;
    }
    return pClient->GetBoolReply();
}

int CNfsIpcClientMain::SendForCount(CIpcClient* pClient)
{
    return Send(pClient) ? pClient->GetIntReply() : 0;
}

void CNfsIpcClientMain::SendForText(int iType, char* pcOut)
{
    CExchange exchange(this);
    exchange.InitialRequest<Ipc_Header>(iType);
    const char* pcText = Send(&exchange) ? exchange.GetMsgReply() : nullptr;
    CopyText(pcOut, DESCRIPTION_SIZE, pcText == nullptr ? UNKNOWN : pcText);
}

void CNfsIpcClientMain::SendPath(int iType, const char* pcPath)
{
    if (pcPath == nullptr)
        return;
    CExchange exchange(this);
    SetField(exchange.InitialRequest<IpcRequest_CloseRedirectedFile>(iType)->cPath, pcPath);
    Send(&exchange);
}

bool CNfsIpcClientMain::StartServer(int iMountPort, int iNfsPort, unsigned int iUid,
                                    unsigned int iGid, bool bReadOnly, char* pcReason)
{
    CExchange exchange(this);
    auto* pRequest = exchange.InitialRequest<IpcRequest_Start>(IPC_REQUEST_TYPE_START);
    pRequest->iMountPort = iMountPort;
    pRequest->iNfsPort = iNfsPort;
    pRequest->iUId = iUid;
    pRequest->iGId = iGid;
    pRequest->bReadOnly = bReadOnly ? 1 : 0;
    return SendForBool(&exchange, pcReason);
}

void CNfsIpcClientMain::StopServer()
{
    if (GetRuntimeParam()->IsLogGeneralInfo())
        GetUtils()->LogInfo(GetRuntimeParam(), "[%s] Cannot stop NFS service in client mode.",
                            "NfsIpcClientMain.StopServer");
}

int CNfsIpcClientMain::GetAccessMode()
{
    return ACCESS_MODE_CLIENT;
}

void CNfsIpcClientMain::GetVersion(char* pcOut)
{
    SendForText(IPC_REQUEST_TYPE_GET_VERSION, pcOut);
}

void CNfsIpcClientMain::GetDescription(char* pcOut)
{
    SendForText(IPC_REQUEST_TYPE_GET_DESCRIPTION, pcOut);
}

bool CNfsIpcClientMain::IsServerRunning()
{
    CExchange exchange(this);
    exchange.InitialRequest<Ipc_Header>(IPC_REQUEST_TYPE_IS_SERVER_RUNNING);
    return Send(&exchange) && exchange.GetBoolReply();
}

bool CNfsIpcClientMain::AddMountPoint(const char* pcLocalPath, const char* pcExportName,
                                      char* pcReason)
{
    if (!IsMountDefined(pcLocalPath, pcExportName, pcReason))
        return false;
    CExchange exchange(this);
    auto* pRequest =
        exchange.InitialRequest<IpcRequest_AddMountPoint>(IPC_REQUEST_TYPE_ADD_MOUNT_POINT);
    if (!SetField(pRequest->cLocalMountFolder, pcLocalPath))
        return RefuseText(pcLocalPath, pcReason);
    if (!SetField(pRequest->cExportName, pcExportName))
        return RefuseText(pcExportName, pcReason);
    if (!SetField(pRequest->cIpcID, GetRuntimeParam()->GetID()))
        return RefuseText(GetRuntimeParam()->GetID(), pcReason);
    return SendForBool(&exchange, pcReason);
}

void CNfsIpcClientMain::RemoveMountPoint(const char* pcLocalPath)
{
    SendPath(IPC_REQUEST_TYPE_REMOVE_MOUNT_POINT, pcLocalPath);
}

void CNfsIpcClientMain::AddSessionInfo(const char* pcSessionID, const char* pcLocalPath)
{
    if (pcSessionID == nullptr)
        return;
    CExchange exchange(this);
    auto* pRequest = exchange.InitialRequest<IpcRequest_AddSession>(IPC_REQUEST_TYPE_ADD_SESSION);
    SetField(pRequest->cSessionID, pcSessionID);
    SetField(pRequest->cLocalMountFolder, pcLocalPath);
    Send(&exchange);
}

void CNfsIpcClientMain::RemoveSessionInfo(const char* pcSessionID)
{
    if (pcSessionID == nullptr)
        return;
    CExchange exchange(this);
    SetField(exchange.InitialRequest<IpcRequest_RemoveSession>(IPC_REQUEST_TYPE_REMOVE_SESSION)
                 ->cSessionID,
             pcSessionID);
    Send(&exchange);
}

bool CNfsIpcClientMain::IsSessionExists(const char* pcSessionID)
{
    if (pcSessionID == nullptr)
        return false;
    CExchange exchange(this);
    SetField(exchange.InitialRequest<IpcRequest_IsSessionExists>(IPC_REQUEST_TYPE_IS_SESSION_EXIST)
                 ->cSessionID,
             pcSessionID);
    return Send(&exchange) && exchange.GetBoolReply();
}

void CNfsIpcClientMain::OpenRedirectedFile(const char* pcPath, long long iSize,
                                           bool bCreateInfoFile, int iInfoFileSegmentSizeMB,
                                           int iInfoFileCheckPointSizeMB)
{
    if (pcPath == nullptr)
        return;
    CExchange exchange(this);
    auto* pRequest =
        exchange.InitialRequest<IpcRequest_OpenRedirectedFile>(IPC_REQUEST_TYPE_OPEN_RD_FILE);
    SetField(pRequest->cPath, pcPath);
    pRequest->iSize = iSize;
    pRequest->bCreateInfoFile = bCreateInfoFile ? 1 : 0;
    pRequest->iInfoFileSegmentSizeMB = iInfoFileSegmentSizeMB;
    pRequest->iInfoFileCheckPointSizeMB = iInfoFileCheckPointSizeMB;
    Send(&exchange);
}

void CNfsIpcClientMain::CloseRedirectedFile(const char* pcPath)
{
    SendPath(IPC_REQUEST_TYPE_CLOSE_RD_FILE, pcPath);
}

void CNfsIpcClientMain::CloseAllRedirectedFiles(const char* pcPath)
{
    SendPath(IPC_REQUEST_TYPE_CLOSE_ALL_RD_FILE, pcPath);
}

bool CNfsIpcClientMain::AddRedirectedFileSegment(const char* pcPath, const char* pcSrcPath,
                                                 long long iSrcFileOffset, long long iOffset,
                                                 long long iLength, char* pcReason)
{
    if (pcPath == nullptr) {
        FormatReason(pcReason, "Path is not defined");
        return false;
    }
    CExchange exchange(this);
    auto* pRequest = exchange.InitialRequest<IpcRequest_AddRedirectedFileSegment>(
        IPC_REQUEST_TYPE_ADD_RD_FILE_SEG);
    if (!SetField(pRequest->cPath, pcPath))
        return RefuseText(pcPath, pcReason);
    if (!SetField(pRequest->cSrcPath, pcSrcPath))
        return RefuseText(pcSrcPath, pcReason);
    pRequest->iSrcFileOffset = iSrcFileOffset;
    pRequest->iOffset = iOffset;
    pRequest->iLength = iLength;
    return SendForBool(&exchange, pcReason);
}

void CNfsIpcClientMain::ExportRedirectedFile(const char* pcPath, const char* pcDest)
{
    if (pcPath == nullptr || pcDest == nullptr)
        return;
    CExchange exchange(this);
    auto* pRequest =
        exchange.InitialRequest<IpcRequest_ExportRedirectedFile>(IPC_REQUEST_TYPE_EXPORT_RD_FILE);
    SetField(pRequest->cPath, pcPath);
    SetField(pRequest->cExportPath, pcDest);
    Send(&exchange);
}

void CNfsIpcClientMain::ExportRedirectedFileInfo(const char* pcPath, const char* pcDest,
                                                 bool bMergeRange)
{
    if (pcPath == nullptr || pcDest == nullptr)
        return;
    CExchange exchange(this);
    auto* pRequest = exchange.InitialRequest<IpcRequest_ExportRedirectedFileInfo>(
        IPC_REQUEST_TYPE_EXPORT_RD_FILE_INFO);
    SetField(pRequest->cPath, pcPath);
    SetField(pRequest->cExportPath, pcDest);
    pRequest->bMergeRange = bMergeRange ? 1 : 0;
    Send(&exchange);
}

void CNfsIpcClientMain::CloseCachedFileHandle(const char* pcPath)
{
    SendPath(IPC_REQUEST_TYPE_CLOSE_FILE, pcPath);
}

void CNfsIpcClientMain::CloseAllCachedFileHandles(const char* pcPath)
{
    SendPath(IPC_REQUEST_TYPE_CLOSE_ALL_FILE, pcPath);
}

void CNfsIpcClientMain::SetLogControl(int iLogControl)
{
    CNfsMain::SetLogControl(iLogControl);
    CExchange exchange(this);
    exchange.InitialRequest<IpcRequest_SetLogControl>(IPC_REQUEST_TYPE_SET_LOG_CTRL)->iLogControl =
        iLogControl;
    Send(&exchange);
}

int CNfsIpcClientMain::GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly,
                                    bool bPrintDetails)
{
    CExchange exchange(this);
    auto* pRequest =
        exchange.InitialRequest<IpcRequest_GetMountInfo>(IPC_REQUEST_TYPE_GET_MOUNT_INFO);
    SetField(pRequest->cIpcID, pRuntimeParam->GetID());
    pRequest->bClientMountedOnly = bClientMountedOnly ? 1 : 0;
    pRequest->bPrintDetails = bPrintDetails ? 1 : 0;
    return SendForCount(&exchange);
}

int CNfsIpcClientMain::GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails)
{
    CExchange exchange(this);
    auto* pRequest =
        exchange.InitialRequest<IpcRequest_GetSessionInfo>(IPC_REQUEST_TYPE_GET_SESSION_INFO);
    SetField(pRequest->cIpcID, pRuntimeParam->GetID());
    pRequest->bPrintDetails = bPrintDetails ? 1 : 0;
    return SendForCount(&exchange);
}

void CNfsIpcClientMain::RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                    long long iFileSize)
{
    if (pRuntimeParam == nullptr)
        return;
    if (pcPath == nullptr) {  // no message can say so
        CNfsMain::RunTestMode(pRuntimeParam, pcPath, iFileSize);
        return;
    }
    CExchange exchange(this);
    auto* pRequest =
        exchange.InitialRequest<IpcRequest_RunTestMode>(IPC_REQUEST_TYPE_RUN_TEST_MODE);
    SetField(pRequest->cIpcID, pRuntimeParam->GetID());
    SetField(pRequest->cDirPath, pcPath);
    pRequest->iFileSize = iFileSize;
    Send(&exchange);
}

void CNfsIpcClientMain::EnableAutoShutdown(bool)
{
    if (GetRuntimeParam()->IsLogGeneralInfo())  // kept: it is not supported
        GetUtils()->LogInfo(GetRuntimeParam(), "[%s] Auto shutdown is supported in client mode.",
                            "NfsIpcClientMain.EnableAutoShutdown");
    CNfsMain::EnableAutoShutdown(false);
}

bool CNfsIpcClientMain::RequestAutoShutdown()
{
    CExchange exchange(this);
    exchange.InitialRequest<Ipc_Header>(IPC_REQUEST_TYPE_AUTO_SHUTDOWN);
    return Send(&exchange) && exchange.GetBoolReply();
}

int CNfsIpcClientMain::GetServerStatus()
{
    char cVersion[DESCRIPTION_SIZE];
    GetVersion(cVersion);
    if (strcmp(cVersion, UNKNOWN) == 0)
        return 0;
    if (strcmp(cVersion, VERSION_1_0) == 0)  // has no such request
        return SERVER_STATUS_ALIVE | (IsServerRunning() ? SERVER_STATUS_RUNNING : 0);
    CExchange exchange(this);
    exchange.InitialRequest<Ipc_Header>(IPC_REQUEST_TYPE_GET_SERVER_STATUS);
    return Send(&exchange) ? exchange.GetIntReply() : static_cast<int>(SERVER_STATUS_ALIVE);
}

bool CNfsIpcClientMain::SetDebugActionEnabled(bool bEnabled)
{
    char cVersion[DESCRIPTION_SIZE];
    GetVersion(cVersion);
    if (strcmp(cVersion, VERSION_1_0) == 0)
        return false;
    CExchange exchange(this);
    exchange.InitialRequest<IpcRequest_SetBoolean>(IPC_REQUEST_TYPE_SET_DEBUG_ACTION_ENABLED)
        ->bVal = bEnabled ? 1 : 0;
    return Send(&exchange) && exchange.GetBoolReply();
}

bool CNfsIpcClientMain::HasDatastores()
{
    char cVersion[DESCRIPTION_SIZE];
    GetVersion(cVersion);
    return strcmp(cVersion, VERSION_1_0) != 0 && strcmp(cVersion, VERSION_1_1) != 0;
}

int CNfsIpcClientMain::GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails)
{
    if (!HasDatastores())
        return 0;
    CExchange exchange(this);
    auto* pRequest =
        exchange.InitialRequest<IpcRequest_GetVSphereInfo>(IPC_REQUEST_TYPE_GET_VSPHERE_INFO);
    SetField(pRequest->cIpcID, pRuntimeParam->GetID());
    pRequest->bPrintDetails = bPrintDetails ? 1 : 0;
    return SendForCount(&exchange);
}

void CNfsIpcClientMain::AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost,
                                       const char* pcPort, const char* pcUser, const char* pcPwd)
{
    if (pcDatastoreMoid == nullptr || !HasDatastores())
        return;
    CExchange exchange(this);
    auto* pRequest =
        exchange.InitialRequest<IpcRequest_AddVSphereInfo>(IPC_REQUEST_TYPE_ADD_VSPHERE_INFO);
    SetField(pRequest->cDatastoreMoid, pcDatastoreMoid);
    SetField(pRequest->cHost, pcHost);
    SetField(pRequest->cPort, pcPort);
    SetField(pRequest->cUser, pcUser);
    SetField(pRequest->cPwd, pcPwd);
    Send(&exchange);
    WipeText(pRequest->cPwd, sizeof(pRequest->cPwd));
}

void CNfsIpcClientMain::RemoveVSphereInfo(const char* pcDatastoreMoid)
{
    if (pcDatastoreMoid == nullptr || !HasDatastores())
        return;
    CExchange exchange(this);
    SetField(
        exchange.InitialRequest<IpcRequest_RemoveVSphereInfo>(IPC_REQUEST_TYPE_REMOVE_VSPHERE_INFO)
            ->cDatastoreMoid,
        pcDatastoreMoid);
    Send(&exchange);
}
