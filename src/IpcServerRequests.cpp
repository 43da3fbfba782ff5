// What each message asks of the controller, and the reply.
#include "IpcServer.h"

#include "NfsMain.h"
#include "RuntimeParam.h"
#include "Text.h"
#include "Utilities.h"

namespace {

// The server's own context, with its ID and log control, on behalf of the client that asks.
class CClientParam : public CRuntimeParam {
public:
    CClientParam(const CRuntimeParam* pServer, const char* pcIpcID)
        : CRuntimeParam(pServer->GetID(), pServer->GetLogControl())
    {
        SetIpcID(pcIpcID);
    }
};

}  // namespace

void CIpcServer::ReplyBool(IpcDataInst* pData, bool bValue)
{
    InitialReplyData(&pData->reply, IPC_REPLY_TYPE_BOOL);
    AsRecord<IpcReply_Bool>(&pData->reply)->bVal = bValue ? 1 : 0;
}

void CIpcServer::ReplyInt(IpcDataInst* pData, int iValue)
{
    InitialReplyData(&pData->reply, IPC_REPLY_TYPE_INT);
    AsRecord<IpcReply_Int>(&pData->reply)->iVal = iValue;
}

// Makes the reply one of text, empty so far: REASON_SIZE bytes for whoever has something to say.
char* CIpcServer::ReplyText(IpcDataInst* pData, int iType)
{
    InitialReplyData(&pData->reply, iType);
    char* pcText = AsRecord<IpcReply_Message>(&pData->reply)->cMsg;
    pcText[0] = '\0';
    return pcText;
}

void CIpcServer::ProcessRequest(IpcDataInst* pData, int iType)
{
    if (!ProcessServerRequest(pData, iType) && !ProcessExportRequest(pData, iType) &&
        !ProcessFileRequest(pData, iType) && !ProcessListingRequest(pData, iType))
        FormatReason(ReplyText(pData, IPC_REPLY_TYPE_EXPT), "Unknown request type (%d)", iType);
}

bool CIpcServer::ProcessServerRequest(IpcDataInst* pData, int iType)
{
    switch (iType) {
    case IPC_REQUEST_TYPE_GET_VERSION:
        m_pNfsHandle->GetVersion(ReplyText(pData, IPC_REPLY_TYPE_MSG));
        return true;
    case IPC_REQUEST_TYPE_GET_DESCRIPTION:
        m_pNfsHandle->GetDescription(ReplyText(pData, IPC_REPLY_TYPE_MSG));
        return true;
    case IPC_REQUEST_TYPE_IS_SERVER_RUNNING:
        ReplyBool(pData, m_pNfsHandle->IsServerRunning());
        return true;
    case IPC_REQUEST_TYPE_START: {
        const auto* pStart = AsRecord<IpcRequest_Start>(&pData->request);
        if (m_pNfsHandle->StartServer(pStart->iMountPort, pStart->iNfsPort, pStart->iUId,
                                      pStart->iGId, pStart->bReadOnly != 0,
                                      ReplyText(pData, IPC_REPLY_TYPE_EXPT)))
            ReplyBool(pData, true);
        return true;
    }
    case IPC_REQUEST_TYPE_SET_LOG_CTRL:
        m_pNfsHandle->SetLogControl(
            AsRecord<IpcRequest_SetLogControl>(&pData->request)->iLogControl);
        ReplyBool(pData, true);
        return true;
    case IPC_REQUEST_TYPE_AUTO_SHUTDOWN:
        // The controller hears of it when the reply is out.
        if (m_pNfsHandle->IsAutoShutdownEnabled())
            m_bAutoShutdownRequested = true;
        ReplyBool(pData, m_bAutoShutdownRequested);
        return true;
    case IPC_REQUEST_TYPE_GET_SERVER_STATUS:
        ReplyInt(pData, m_pNfsHandle->GetServerStatus());
        return true;
    case IPC_REQUEST_TYPE_SET_DEBUG_ACTION_ENABLED:
        m_pNfsHandle->SetDebugActionEnabled(
            AsRecord<IpcRequest_SetBoolean>(&pData->request)->bVal != 0);
        ReplyBool(pData, true);
        return true;
    default:
        return false;
    }
}

bool CIpcServer::ProcessExportRequest(IpcDataInst* pData, int iType)
{
    switch (iType) {
    case IPC_REQUEST_TYPE_ADD_MOUNT_POINT: {
        auto* pMount = AsRecord<IpcRequest_AddMountPoint>(&pData->request);
        if (m_pNfsHandle->AddMountPoint(GetField(pMount->cLocalMountFolder),
                                        GetField(pMount->cExportName), GetField(pMount->cIpcID),
                                        ReplyText(pData, IPC_REPLY_TYPE_EXPT)))
            ReplyBool(pData, true);
        return true;
    }
    case IPC_REQUEST_TYPE_REMOVE_MOUNT_POINT:
        m_pNfsHandle->RemoveMountPoint(
            GetField(AsRecord<IpcRequest_RemoveMountPoint>(&pData->request)->cLocalMountFolder));
        break;
    case IPC_REQUEST_TYPE_ADD_SESSION: {
        auto* pSession = AsRecord<IpcRequest_AddSession>(&pData->request);
        m_pNfsHandle->AddSessionInfo(GetField(pSession->cSessionID),
                                     GetField(pSession->cLocalMountFolder));
        break;
    }
    case IPC_REQUEST_TYPE_REMOVE_SESSION:
        m_pNfsHandle->RemoveSessionInfo(
            GetField(AsRecord<IpcRequest_RemoveSession>(&pData->request)->cSessionID));
        break;
    case IPC_REQUEST_TYPE_IS_SESSION_EXIST:
        ReplyBool(pData, m_pNfsHandle->IsSessionExists(GetField(
                             AsRecord<IpcRequest_IsSessionExists>(&pData->request)->cSessionID)));
        return true;
    case IPC_REQUEST_TYPE_ADD_VSPHERE_INFO: {
        auto* pInfo = AsRecord<IpcRequest_AddVSphereInfo>(&pData->request);
        m_pNfsHandle->AddVSphereInfo(GetField(pInfo->cDatastoreMoid), GetField(pInfo->cHost),
                                     GetField(pInfo->cPort), GetField(pInfo->cUser),
                                     GetField(pInfo->cPwd));
        // The buffer is used again, and what a short message leaves of it could be read back.
        WipeText(pInfo->cPwd, sizeof(pInfo->cPwd));
        break;
    }
    case IPC_REQUEST_TYPE_REMOVE_VSPHERE_INFO:
        m_pNfsHandle->RemoveVSphereInfo(
            GetField(AsRecord<IpcRequest_RemoveVSphereInfo>(&pData->request)->cDatastoreMoid));
        break;
    default:
        return false;
    }
    ReplyBool(pData, true);
    return true;
}

bool CIpcServer::ProcessFileRequest(IpcDataInst* pData, int iType)
{
    auto* pFile = AsRecord<IpcRequest_CloseRedirectedFile>(&pData->request);
    switch (iType) {
    case IPC_REQUEST_TYPE_OPEN_RD_FILE: {
        auto* pOpen = AsRecord<IpcRequest_OpenRedirectedFile>(&pData->request);
        m_pNfsHandle->OpenRedirectedFile(GetField(pOpen->cPath), pOpen->iSize,
                                         pOpen->bCreateInfoFile != 0, pOpen->iInfoFileSegmentSizeMB,
                                         pOpen->iInfoFileCheckPointSizeMB);
        break;
    }
    case IPC_REQUEST_TYPE_CLOSE_RD_FILE:
        m_pNfsHandle->CloseRedirectedFile(GetField(pFile->cPath));
        break;
    case IPC_REQUEST_TYPE_CLOSE_ALL_RD_FILE:
        m_pNfsHandle->CloseAllRedirectedFiles(GetField(pFile->cPath));
        break;
    case IPC_REQUEST_TYPE_ADD_RD_FILE_SEG: {
        auto* pSegment = AsRecord<IpcRequest_AddRedirectedFileSegment>(&pData->request);
        if (m_pNfsHandle->AddRedirectedFileSegment(
                GetField(pSegment->cPath), GetField(pSegment->cSrcPath), pSegment->iSrcFileOffset,
                pSegment->iOffset, pSegment->iLength, ReplyText(pData, IPC_REPLY_TYPE_EXPT)))
            ReplyBool(pData, true);
        return true;
    }
    case IPC_REQUEST_TYPE_EXPORT_RD_FILE: {
        auto* pExport = AsRecord<IpcRequest_ExportRedirectedFile>(&pData->request);
        m_pNfsHandle->ExportRedirectedFile(GetField(pExport->cPath),
                                           GetField(pExport->cExportPath));
        break;
    }
    case IPC_REQUEST_TYPE_EXPORT_RD_FILE_INFO: {
        auto* pExport = AsRecord<IpcRequest_ExportRedirectedFileInfo>(&pData->request);
        m_pNfsHandle->ExportRedirectedFileInfo(
            GetField(pExport->cPath), GetField(pExport->cExportPath), pExport->bMergeRange != 0);
        break;
    }
    case IPC_REQUEST_TYPE_CLOSE_FILE:
        m_pNfsHandle->CloseCachedFileHandle(GetField(pFile->cPath));
        break;
    case IPC_REQUEST_TYPE_CLOSE_ALL_FILE:
        m_pNfsHandle->CloseAllCachedFileHandles(GetField(pFile->cPath));
        break;
    default:
        return false;
    }
    ReplyBool(pData, true);
    return true;
}

// Those whose lines belong to the client that asks.
bool CIpcServer::ProcessListingRequest(IpcDataInst* pData, int iType)
{
    auto* pListing = AsRecord<IpcRequest_GetSessionInfo>(&pData->request);
    switch (iType) {
    case IPC_REQUEST_TYPE_GET_MOUNT_INFO: {
        auto* pMounts = AsRecord<IpcRequest_GetMountInfo>(&pData->request);
        CClientParam param(m_pRuntimeParam, GetField(pMounts->cIpcID));
        ReplyInt(pData, m_pNfsHandle->GetMountInfo(&param, pMounts->bClientMountedOnly != 0,
                                                   pMounts->bPrintDetails != 0));
        return true;
    }
    case IPC_REQUEST_TYPE_GET_SESSION_INFO: {
        CClientParam param(m_pRuntimeParam, GetField(pListing->cIpcID));
        ReplyInt(pData, m_pNfsHandle->GetSessionInfo(&param, pListing->bPrintDetails != 0));
        return true;
    }
    case IPC_REQUEST_TYPE_GET_VSPHERE_INFO: {
        CClientParam param(m_pRuntimeParam, GetField(pListing->cIpcID));
        ReplyInt(pData, m_pNfsHandle->GetVSphereInfo(&param, pListing->bPrintDetails != 0));
        return true;
    }
    case IPC_REQUEST_TYPE_RUN_TEST_MODE: {
        auto* pTest = AsRecord<IpcRequest_RunTestMode>(&pData->request);
        CClientParam param(m_pRuntimeParam, GetField(pTest->cIpcID));
        m_pNfsHandle->RunTestMode(&param, GetField(pTest->cDirPath), pTest->iFileSize);
        ReplyBool(pData, true);
        return true;
    }
    default:
        return false;
    }
}

// In the process of a client: what happened in the server goes to this process's host.
void CIpcServer::ProcessCallback(IpcDataInst* pData, int iType)
{
    switch (iType) {
    case IPC_CALLBACK_TYPE_MESSAGE: {
        auto* pMessage = AsRecord<IpcCb_LogMessage>(&pData->request);
        const char* pcID = GetField(pMessage->cID);
        char* pcText = GetField(pMessage->cMsg);
        if (pMessage->iType == IPC_MESSAGE_TYPE_ERROR)
            m_pUtilities->LogError(pcID, pcText);
        else if (pMessage->iType == IPC_MESSAGE_TYPE_RAW)
            m_pUtilities->LogRaw(pcID, pcText);
        else
            m_pUtilities->LogInfo(pcID, pcText);
        ReplyBool(pData, true);
        return;
    }
    case IPC_CALLBACK_TYPE_SET_RD_FILE_ATTR: {
        auto* pChange = AsRecord<IpcCb_SetRedirectedFileAttributes>(&pData->request);
        ReplyInt(pData, m_pUtilities->LogUpdateRedirectedFileAttributes(
                            GetField(pChange->cID), GetField(pChange->cPath), pChange->bSize != 0,
                            pChange->iSize, pChange->bAccessTime != 0, pChange->lAccessTimeSec,
                            pChange->bLastModifiedTime != 0, pChange->lLastModifiedTimeSec));
        return;
    }
    case IPC_CALLBACK_TYPE_REMOVE_RD_FILE: {
        auto* pChange = AsRecord<IpcCb_RemoveRedirectedFile>(&pData->request);
        ReplyInt(pData, m_pUtilities->LogRemoveRedirectedFile(GetField(pChange->cID),
                                                              GetField(pChange->cPath)));
        return;
    }
    case IPC_CALLBACK_TYPE_RENAME_RD_FILE: {
        auto* pChange = AsRecord<IpcCb_RenameRedirectedFile>(&pData->request);
        ReplyInt(pData, m_pUtilities->LogRenameRedirectedFile(GetField(pChange->cID),
                                                              GetField(pChange->cPathFm),
                                                              GetField(pChange->cPathTo)));
        return;
    }
    case IPC_CALLBACK_TYPE_WRITE_RD_FILE: {
        auto* pChange = AsRecord<IpcCb_WriteRedirectedFile>(&pData->request);
        ReplyInt(pData, m_pUtilities->LogWriteRedirectedFile(
                            GetField(pChange->cID), GetField(pChange->cPath), pChange->iSeek,
                            pChange->iSeekType, pChange->iLen));
        return;
    }
    default:
        FormatReason(ReplyText(pData, IPC_REPLY_TYPE_EXPT), "Unknown callback type (%d)", iType);
    }
}
