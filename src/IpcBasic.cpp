#include "IpcBasic.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "RuntimeParam.h"
#include "Utilities.h"

namespace {

// Lengths by type; one that is none has just a header.
constexpr size_t REQUEST_LENGTHS[] = {
    sizeof(Ipc_Header),
    sizeof(Ipc_Header),
    sizeof(Ipc_Header),
    sizeof(Ipc_Header),
    sizeof(IpcRequest_Start),
    sizeof(IpcRequest_AddMountPoint),
    sizeof(IpcRequest_RemoveMountPoint),
    sizeof(IpcRequest_AddSession),
    sizeof(IpcRequest_RemoveSession),
    sizeof(IpcRequest_IsSessionExists),
    sizeof(IpcRequest_OpenRedirectedFile),
    sizeof(IpcRequest_CloseRedirectedFile),
    sizeof(IpcRequest_CloseAllRedirectedFiles),
    sizeof(IpcRequest_AddRedirectedFileSegment),
    sizeof(IpcRequest_ExportRedirectedFile),
    sizeof(IpcRequest_ExportRedirectedFileInfo),
    sizeof(IpcRequest_CloseOpenedFile),
    sizeof(IpcRequest_CloseAllOpenedFiles),
    sizeof(IpcRequest_SetLogControl),
    sizeof(IpcRequest_GetMountInfo),
    sizeof(IpcRequest_GetSessionInfo),
    sizeof(IpcRequest_RunTestMode),
    sizeof(Ipc_Header),
    sizeof(Ipc_Header),
    sizeof(IpcRequest_SetBoolean),
    sizeof(IpcRequest_GetVSphereInfo),
    sizeof(IpcRequest_AddVSphereInfo),
    sizeof(IpcRequest_RemoveVSphereInfo),
};
constexpr size_t REPLY_LENGTHS[] = {
    sizeof(Ipc_Header),   sizeof(IpcReply_Bool),    sizeof(IpcReply_Long),
    sizeof(IpcReply_Int), sizeof(IpcReply_Message), sizeof(IpcReply_Message),
};
constexpr size_t CALLBACK_LENGTHS[] = {
    sizeof(Ipc_Header),
    sizeof(IpcCb_LogMessage),
    sizeof(IpcCb_SetRedirectedFileAttributes),
    sizeof(IpcCb_RemoveRedirectedFile),
    sizeof(IpcCb_RenameRedirectedFile),
    sizeof(IpcCb_WriteRedirectedFile),
};
static_assert(std::size(REQUEST_LENGTHS) == IPC_REQUEST_TYPE_COUNT);
static_assert(std::size(REPLY_LENGTHS) == IPC_REPLY_TYPE_COUNT);
static_assert(std::size(CALLBACK_LENGTHS) == IPC_CALLBACK_TYPE_COUNT);

template <size_t COUNT>
void InitialData(IpcDataBuf* pData, int iGroup, int iType, const size_t (&lengths)[COUNT])
{
    if (iType < 0 || static_cast<size_t>(iType) >= COUNT)
        iType = 0;
    auto* pHeader = AsRecord<Ipc_Header>(pData);
    *pHeader = {iGroup, iType, {}};
    CopyText(pHeader->cVersion, sizeof(pHeader->cVersion), IPC_VERSION);
    pData->lDataLen = static_cast<long>(lengths[iType]);
}

}  // namespace

void GetIpcChannel(char* pcOut, const char* pcName)
{
    snprintf(pcOut, IPC_CHANNEL_SIZE, "%s%s%s%s", "/tmp/", "nfs-", pcName, "");
}

CIpcBasic::CIpcBasic(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam)
    : m_pUtilities(pUtilities), m_pRuntimeParam(pRuntimeParam)
{
}

void CIpcBasic::InitialRequestData(IpcDataBuf* pData, int iType)
{
    InitialData(pData, IPC_GROUP_REQUEST, iType, REQUEST_LENGTHS);
}

void CIpcBasic::InitialReplyData(IpcDataBuf* pData, int iType)
{
    InitialData(pData, IPC_GROUP_REPLY, iType, REPLY_LENGTHS);
}

void CIpcBasic::InitialCallbackData(IpcDataBuf* pData, int iType)
{
    InitialData(pData, IPC_GROUP_CALLBACK, iType, CALLBACK_LENGTHS);
}

void CIpcBasic::PrintData(LogArgu* pLogArgu, IpcDataBuf* pData)
{
    if (!m_pRuntimeParam->IsLogIpc())
        return;
    Ipc_Header header = *AsRecord<Ipc_Header>(pData);
    const char* pcVersion = GetField(header.cVersion);
    const auto iLength = static_cast<unsigned long>(pData->lDataLen);
    switch (header.iGroup) {
    case IPC_GROUP_REQUEST:
        LogInfo("[%s] Request action group (type = %d, ver = %s, dataLen = %lu)", pLogArgu->pcName,
                header.iType, pcVersion, iLength);
        break;
    case IPC_GROUP_CALLBACK:
        LogInfo("[%s] Callback action group (type = %d, ver = %s, dataLen = %lu)", pLogArgu->pcName,
                header.iType, pcVersion, iLength);
        break;
    case IPC_GROUP_REPLY:
        LogInfo("[%s] Reply action group (type = %d, ver = %s, dataLen = %lu)", pLogArgu->pcName,
                header.iType, pcVersion, iLength);
        break;
    default:
        LogInfo("[%s] Unknown action group: %d (type = %d, ver = %s, dataLen = %lu)",
                pLogArgu->pcName, header.iGroup, header.iType, pcVersion, iLength);
    }
}

void CIpcBasic::LogInfo(const char* pcFormat, ...)
{
    char cLogBuf[REASON_SIZE];  // no member: a host that is given the line may lead here again
    va_list arguments;
    va_start(arguments, pcFormat);
    vsnprintf(cLogBuf, sizeof(cLogBuf), pcFormat, arguments);
    va_end(arguments);
    m_pUtilities->LogInfo(m_pRuntimeParam->GetID(), cLogBuf);
}

void CIpcBasic::LogError(const char* pcFormat, ...)
{
    char cLogBuf[REASON_SIZE];  // no member: a host that is given the line may lead here again
    va_list arguments;
    va_start(arguments, pcFormat);
    vsnprintf(cLogBuf, sizeof(cLogBuf), pcFormat, arguments);
    va_end(arguments);
    m_pUtilities->LogError(m_pRuntimeParam->GetID(), cLogBuf);
}

void CIpcBasic::LogState(LogArgu* pLogArgu, const char* pcFormat)
{
    if (m_pRuntimeParam->IsLogIpcState())
        LogInfo(pcFormat, pLogArgu->pcName);
}

bool CIpcBasic::SetAddress(sockaddr_un* pAddress, const char* pcChannel, char* pcError)
{
    if (pcChannel == nullptr || pcChannel[0] == '\0') {
        FormatReason(pcError, "Channel is not defined");
        return false;
    }
    if (strlen(pcChannel) >= sizeof(pAddress->sun_path)) {
        FormatReason(pcError, "Channel path is longer than %zu bytes: %s",
                     sizeof(pAddress->sun_path) - 1, pcChannel);
        return false;
    }
    *pAddress = {};
    pAddress->sun_family = AF_UNIX;
    CopyText(pAddress->sun_path, sizeof(pAddress->sun_path), pcChannel);
    return true;
}

bool CIpcBasic::Fail(const char* pcFormat, int iError, char* pcError)
{
    char cText[REASON_SIZE] = "";
    m_pUtilities->GetLastErrorText(cText, iError);
    FormatReason(pcError, pcFormat, cText);
    return false;
}
