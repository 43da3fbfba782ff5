#include "UtilitiesIpcServer.h"

#include <cerrno>

#include "IpcClient.h"
#include "RuntimeParam.h"

namespace {

// One callback to the client of a context.
class CRelay : public CIpcClient {
public:
    CRelay(CUtilitiesIpcServer* pUtilities, CRuntimeParam* pRuntimeParam)
        : CIpcClient(pUtilities, pRuntimeParam)
    {
        pUtilities->GetIpcCallbackChannel(pRuntimeParam->GetIpcID(), m_cIpcChannel);
    }

    // Shows the callback as its record, with the context's ID in it.
    template <typename Record>
    Record* InitialCallback(int iType)
    {
        InitialCallbackData(&GetDataInst()->request, iType);
        auto* pRecord = AsRecord<Record>(&GetDataInst()->request);
        SetField(pRecord->cID, m_pRuntimeParam->GetID());
        return pRecord;
    }

    // The host's answer, or -1. A client that took the news and died has not got it, though it
    // counts as an exchange.
    int Send()
    {
        if (!SendRequest(m_cIpcChannel))
            return -1;
        char cError[REASON_SIZE] = "";
        if (GetDataInst()->reply.lDataLen == 0 &&
            !Fail("Fail to read ipc server reply. %s", ECONNRESET, cError) &&
            m_pRuntimeParam->IsLogError())
            LogError("[%s] %s", "IpcClient.SendRequest", cError);
        return GetIntReply();
    }

private:
    char m_cIpcChannel[IPC_CHANNEL_SIZE];
};

bool HasClient(const CRuntimeParam* pRuntimeParam)
{
    return pRuntimeParam->GetIpcID()[0] != '\0';
}

}  // namespace

CUtilitiesIpcServer::~CUtilitiesIpcServer() = default;

void CUtilitiesIpcServer::GetIpcCallbackChannel(const char* pcIpcID, char* pcOut)
{
    GetIpcChannel(pcOut, pcIpcID);
}

void CUtilitiesIpcServer::LogInfo(CRuntimeParam* pRuntimeParam, char* pcText)
{
    CUtilities::LogInfo(pRuntimeParam->GetID(), pcText);
    RelayMessage(pRuntimeParam, pcText, IPC_MESSAGE_TYPE_INFO);
}

void CUtilitiesIpcServer::LogError(CRuntimeParam* pRuntimeParam, char* pcText)
{
    CUtilities::LogError(pRuntimeParam->GetID(), pcText);
    RelayMessage(pRuntimeParam, pcText, IPC_MESSAGE_TYPE_ERROR);
}

void CUtilitiesIpcServer::LogRaw(CRuntimeParam* pRuntimeParam, char* pcText)
{
    CUtilities::LogRaw(pRuntimeParam->GetID(), pcText);
    RelayMessage(pRuntimeParam, pcText, IPC_MESSAGE_TYPE_RAW);
}

void CUtilitiesIpcServer::RelayMessage(CRuntimeParam* pRuntimeParam, const char* pcText, int iType)
{
    if (!HasClient(pRuntimeParam))
        return;
    CRelay relay(this, pRuntimeParam);
    auto* pMessage = relay.InitialCallback<IpcCb_LogMessage>(IPC_CALLBACK_TYPE_MESSAGE);
    SetField(pMessage->cMsg, pcText);
    pMessage->iType = iType;
    relay.Send();
}

int CUtilitiesIpcServer::LogUpdateRedirectedFileAttributes(
    CRuntimeParam* pRuntimeParam, const char* pcPath, bool bSize, unsigned long long iSize,
    bool bAccessTime, unsigned long iAccessTimeSec, bool bLastModifiedTime,
    unsigned long iLastModifiedTimeSec)
{
    if (!HasClient(pRuntimeParam))
        return CUtilities::LogUpdateRedirectedFileAttributes(
            pRuntimeParam->GetID(), pcPath, bSize, iSize, bAccessTime, iAccessTimeSec,
            bLastModifiedTime, iLastModifiedTimeSec);
    CRelay relay(this, pRuntimeParam);
    auto* pChange = relay.InitialCallback<IpcCb_SetRedirectedFileAttributes>(
        IPC_CALLBACK_TYPE_SET_RD_FILE_ATTR);
    SetField(pChange->cPath, pcPath);
    pChange->bSize = bSize ? 1 : 0;
    pChange->iSize = iSize;
    pChange->bAccessTime = bAccessTime ? 1 : 0;
    pChange->lAccessTimeSec = iAccessTimeSec;
    pChange->bLastModifiedTime = bLastModifiedTime ? 1 : 0;
    pChange->lLastModifiedTimeSec = iLastModifiedTimeSec;
    return relay.Send();
}

int CUtilitiesIpcServer::LogRemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath)
{
    if (!HasClient(pRuntimeParam))
        return CUtilities::LogRemoveRedirectedFile(pRuntimeParam->GetID(), pcPath);
    CRelay relay(this, pRuntimeParam);
    auto* pChange =
        relay.InitialCallback<IpcCb_RemoveRedirectedFile>(IPC_CALLBACK_TYPE_REMOVE_RD_FILE);
    SetField(pChange->cPath, pcPath);
    return relay.Send();
}

int CUtilitiesIpcServer::LogRenameRedirectedFile(CRuntimeParam* pRuntimeParam,
                                                 const char* pcPathFrom, const char* pcPathTo)
{
    if (!HasClient(pRuntimeParam))
        return CUtilities::LogRenameRedirectedFile(pRuntimeParam->GetID(), pcPathFrom, pcPathTo);
    CRelay relay(this, pRuntimeParam);
    auto* pChange =
        relay.InitialCallback<IpcCb_RenameRedirectedFile>(IPC_CALLBACK_TYPE_RENAME_RD_FILE);
    SetField(pChange->cPathFm, pcPathFrom);
    SetField(pChange->cPathTo, pcPathTo);
    return relay.Send();
}

int CUtilitiesIpcServer::LogWriteRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                                unsigned long long iSeek, int iSeekType,
                                                unsigned int iLength)
{
    if (!HasClient(pRuntimeParam))
        return CUtilities::LogWriteRedirectedFile(pRuntimeParam->GetID(), pcPath, iSeek, iSeekType,
                                                  iLength);
    CRelay relay(this, pRuntimeParam);
    auto* pChange =
        relay.InitialCallback<IpcCb_WriteRedirectedFile>(IPC_CALLBACK_TYPE_WRITE_RD_FILE);
    SetField(pChange->cPath, pcPath);
    pChange->iSeek = iSeek;
    pChange->iSeekType = iSeekType;
    pChange->iLen = iLength;
    return relay.Send();
}
