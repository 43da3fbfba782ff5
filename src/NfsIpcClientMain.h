// The controller of a process that drives the server of another one.
#pragma once

#include <memory>

#include "IpcMessages.h"
#include "NfsIpcServerMain.h"

class CIpcClient;

// Forwards nearly every operation as one request to the server process; see CNfsMain for what they
// do. There is no standing connection and nothing is repeated: where the server cannot be reached,
// an operation answers false, 0, -1 or "Unknown", and the reason goes to the caller's buffer or
// else to the log. None of them takes a time-out.
// Text longer than its field in a message is refused where there is a reason buffer, else cut.
// Its remote controller is the channel on which the server tells this process what happens.
// Locking: operations may be called from any thread, several at once.
class CNfsIpcClientMain : public CNfsIpcServerMain {
public:
    CNfsIpcClientMain(const char* pcID, int iLogControl);
    ~CNfsIpcClientMain() override;

    bool StartServer(int iMountPort, int iNfsPort, unsigned int iUid, unsigned int iGid,
                     bool bReadOnly, char* pcReason) override;
    void StopServer() override;  // only says so: the server goes on
    int GetAccessMode() override;
    void GetVersion(char* pcOut) override;
    void GetDescription(char* pcOut) override;
    bool IsServerRunning() override;

    using CNfsIpcServerMain::AddMountPoint;
    bool AddMountPoint(const char* pcLocalPath, const char* pcExportName, char* pcReason) override;
    void RemoveMountPoint(const char* pcLocalPath) override;
    void AddSessionInfo(const char* pcSessionID, const char* pcLocalPath) override;
    void RemoveSessionInfo(const char* pcSessionID) override;
    bool IsSessionExists(const char* pcSessionID) override;

    void OpenRedirectedFile(const char* pcPath, long long iSize, bool bCreateInfoFile,
                            int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB) override;
    void CloseRedirectedFile(const char* pcPath) override;
    void CloseAllRedirectedFiles(const char* pcPath) override;
    bool AddRedirectedFileSegment(const char* pcPath, const char* pcSrcPath,
                                  long long iSrcFileOffset, long long iOffset, long long iLength,
                                  char* pcReason) override;
    void ExportRedirectedFile(const char* pcPath, const char* pcDest) override;
    void ExportRedirectedFileInfo(const char* pcPath, const char* pcDest,
                                  bool bMergeRange) override;
    void CloseCachedFileHandle(const char* pcPath) override;
    void CloseAllCachedFileHandles(const char* pcPath) override;

    // Both processes.
    void SetLogControl(int iLogControl) override;

    using CNfsIpcServerMain::GetMountInfo;
    using CNfsIpcServerMain::GetSessionInfo;
    using CNfsIpcServerMain::GetVSphereInfo;
    using CNfsIpcServerMain::RunTestMode;
    int GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly,
                     bool bPrintDetails) override;
    int GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) override;
    void RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath,
                     long long iFileSize) override;

    void EnableAutoShutdown(bool bEnabled) override;  // never: this process serves nobody
    bool RequestAutoShutdown() override;              // of the server

    // 0 if the server cannot be reached.
    int GetServerStatus() override;
    bool SetDebugActionEnabled(bool bEnabled) override;

    // Servers of versions 1.0 and 1.1 know nothing of datastores and are not asked.
    int GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) override;
    void AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                        const char* pcUser, const char* pcPwd) override;
    void RemoveVSphereInfo(const char* pcDatastoreMoid) override;

protected:
    void InitMemberVaribles(const char* pcID, int iLogControl) override;
    bool InitialNetwork(char* pcReason) override;
    void TerminateNetwork() override;
    std::unique_ptr<CUtilities> CreateUtilities() override;

public:
    void GetIpcServerThreadChannel(char* pcOut) override;

private:
    bool Send(CIpcClient* pClient);
    bool SendForBool(CIpcClient* pClient, char* pcReason);
    int SendForCount(CIpcClient* pClient);
    void SendForText(int iType, char* pcOut);
    void SendPath(int iType, const char* pcPath);
    bool HasDatastores();

    char m_cIpcChannel[IPC_CHANNEL_SIZE] = "";  // of the server process
};
