// A controller that does nothing but remember what it was asked for.
#pragma once

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "NfsIpcServerMain.h"
#include "RuntimeParam.h"
#include "Text.h"

// Calls are kept as "Operation|argument|argument"; a context shows as "ID,IPC ID,log control", with
// ",own" behind it if it is the controller's. Adding an export is no operation that a derived class
// sees: that one is done.
class CRecordingMain : public CNfsIpcServerMain {
public:
    using CNfsIpcServerMain::CNfsIpcServerMain;
    using CNfsMain::GetMountInfo;

    // What the operations answer from here on.
    void SetResult(int iResult, const std::string& sReason = {})
    {
        m_iResult = iResult;
        m_sReason = sReason;
    }

    std::vector<std::string> TakeCalls() { return std::exchange(m_vCalls, {}); }

    bool StartServer(int iMountPort, int iNfsPort, unsigned int iUid, unsigned int iGid,
                     bool bReadOnly, char* pcReason) override
    {
        return Answer(pcReason, "StartServer", iMountPort, iNfsPort, iUid, iGid, bReadOnly);
    }
    bool IsServerRunning() override { return Note("IsServerRunning") != 0; }
    void RemoveMountPoint(const char* pcLocalPath) override
    {
        Note("RemoveMountPoint", pcLocalPath);
    }
    void AddSessionInfo(const char* pcSessionID, const char* pcLocalPath) override
    {
        Note("AddSessionInfo", pcSessionID, pcLocalPath);
    }
    void RemoveSessionInfo(const char* pcSessionID) override
    {
        Note("RemoveSessionInfo", pcSessionID);
    }
    bool IsSessionExists(const char* pcSessionID) override
    {
        return Note("IsSessionExists", pcSessionID) != 0;
    }
    void OpenRedirectedFile(const char* pcPath, long long iSize, bool bCreateInfoFile,
                            int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB) override
    {
        Note("OpenRedirectedFile", pcPath, iSize, bCreateInfoFile, iInfoFileSegmentSizeMB,
             iInfoFileCheckPointSizeMB);
    }
    void CloseRedirectedFile(const char* pcPath) override { Note("CloseRedirectedFile", pcPath); }
    void CloseAllRedirectedFiles(const char* pcPath) override
    {
        Note("CloseAllRedirectedFiles", pcPath);
    }
    bool AddRedirectedFileSegment(const char* pcPath, const char* pcSrcPath,
                                  long long iSrcFileOffset, long long iOffset, long long iLength,
                                  char* pcReason) override
    {
        return Answer(pcReason, "AddRedirectedFileSegment", pcPath, pcSrcPath, iSrcFileOffset,
                      iOffset, iLength);
    }
    void ExportRedirectedFile(const char* pcPath, const char* pcDest) override
    {
        Note("ExportRedirectedFile", pcPath, pcDest);
    }
    void ExportRedirectedFileInfo(const char* pcPath, const char* pcDest, bool bMergeRange) override
    {
        Note("ExportRedirectedFileInfo", pcPath, pcDest, bMergeRange);
    }
    void CloseCachedFileHandle(const char* pcPath) override
    {
        Note("CloseCachedFileHandle", pcPath);
    }
    void CloseAllCachedFileHandles(const char* pcPath) override
    {
        Note("CloseAllCachedFileHandles", pcPath);
    }
    void SetLogControl(int iLogControl) override { Note("SetLogControl", iLogControl); }
    int GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly,
                     bool bPrintDetails) override
    {
        return Note("GetMountInfo", Describe(pRuntimeParam), bClientMountedOnly, bPrintDetails);
    }
    int GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) override
    {
        return Note("GetSessionInfo", Describe(pRuntimeParam), bPrintDetails);
    }
    void RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, long long iFileSize) override
    {
        Note("RunTestMode", Describe(pRuntimeParam), pcPath, iFileSize);
    }
    int GetServerStatus() override { return Note("GetServerStatus"); }
    bool SetDebugActionEnabled(bool bEnabled) override
    {
        return Note("SetDebugActionEnabled", bEnabled) != 0;
    }
    int GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) override
    {
        return Note("GetVSphereInfo", Describe(pRuntimeParam), bPrintDetails);
    }
    void AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                        const char* pcUser, const char* pcPwd) override
    {
        Note("AddVSphereInfo", pcDatastoreMoid, pcHost, pcPort, pcUser, pcPwd);
    }
    void RemoveVSphereInfo(const char* pcDatastoreMoid) override
    {
        Note("RemoveVSphereInfo", pcDatastoreMoid);
    }

private:
    std::string Describe(const CRuntimeParam* pParam)
    {
        return std::string(pParam->GetID()) + "," + pParam->GetIpcID() + "," +
               std::to_string(pParam->GetLogControl()) +
               (pParam == GetRuntimeParam() ? ",own" : "");
    }

    template <typename... Arguments>
    int Note(const char* pcOperation, const Arguments&... arguments)
    {
        std::ostringstream text;
        text << pcOperation;
        ((text << "|" << arguments), ...);
        m_vCalls.push_back(text.str());
        return m_iResult;
    }

    template <typename... Arguments>
    bool Answer(char* pcReason, const char* pcOperation, const Arguments&... arguments)
    {
        const bool bResult = Note(pcOperation, arguments...) != 0;
        if (!m_sReason.empty())
            CopyText(pcReason, REASON_SIZE, m_sReason.c_str());
        return bResult;
    }

    int m_iResult = 1;
    std::string m_sReason;
    std::vector<std::string> m_vCalls;
};
