// The service object of a server process.
#pragma once

#include "Utilities.h"

// Sends what happens on behalf of a client process to that process: log lines, which go to this
// process's own log as well, and notifications, which go to nobody else. Whose an event is, its
// context tells (CRuntimeParam::GetIpcID): the process that asked, or that owns the export.
// A client that cannot be reached costs a line in the log; there is no time-out, so one that does
// not answer holds up whoever brings it the news.
class CUtilitiesIpcServer : public CUtilities {
public:
    ~CUtilitiesIpcServer() override;

    void LogInfo(CRuntimeParam* pRuntimeParam, char* pcText) override;
    void LogError(CRuntimeParam* pRuntimeParam, char* pcText) override;
    void LogRaw(CRuntimeParam* pRuntimeParam, char* pcText) override;

    // -1 if the client cannot be reached.
    int LogUpdateRedirectedFileAttributes(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                          bool bSize, unsigned long long iSize, bool bAccessTime,
                                          unsigned long iAccessTimeSec, bool bLastModifiedTime,
                                          unsigned long iLastModifiedTimeSec) override;
    int LogRemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) override;
    int LogRenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFrom,
                                const char* pcPathTo) override;
    int LogWriteRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                               unsigned long long iSeek, int iSeekType,
                               unsigned int iLength) override;

    // Writes the path of a client's channel, IPC_CHANNEL_SIZE bytes.
    void GetIpcCallbackChannel(const char* pcIpcID, char* pcOut);

private:
    void RelayMessage(CRuntimeParam* pRuntimeParam, const char* pcText, int iType);
};
