// The controller: owns the server and offers every operation of the library.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

#include "LogArgu.h"
#include "Mutex.h"
#include "Portmap.h"
#include "RuntimeParam.h"

class CDatagramSocket;
class CFileLogger;
class CMountProg;
class CNfsProg;
class CPortmapProg;
class CRedirectedFile;
class CRpcServer;
class CServerSocket;
class CUtilities;
class IHost;

constexpr int MOUNT_PORT = 1058;  // one higher beside an external port mapper, as NFS_PORT
constexpr int NFS_PORT = 2049;

constexpr int PROG_PORTMAP = 100000;
constexpr int PROG_NFS = 100003;
constexpr int PROG_MOUNT = 100005;

constexpr char LIBRARY_VERSION[] = "1.2";
constexpr size_t DESCRIPTION_SIZE = 256;  // bytes of the buffers of GetVersion and GetDescription

enum AccessMode : int {
    ACCESS_MODE_INTERNAL = 0,  // the server runs in this process
    ACCESS_MODE_SERVER = 1,    // the same, and other processes drive it
    ACCESS_MODE_CLIENT = 2,    // drives the server of another process
};

enum ServerStatus : int {
    SERVER_STATUS_ALIVE = 1,  // always
    SERVER_STATUS_RUNNING = 2,
    SERVER_STATUS_DEBUG_ACTION = 4,
};

// The sockets of one program: TCP and UDP on the same port.
struct SocketHandle {
    std::unique_ptr<CServerSocket> pServerSocket;      // owned; null while stopped
    std::unique_ptr<CDatagramSocket> pDatagramSocket;  // owned; null while stopped
};

// Runs the server in this process. Life: construct, Initial, any number of StartServer and
// StopServer, Terminate, destruct. Exports and sessions can be added whether or not the server
// runs; StopServer removes them.
// Reason buffers hold REASON_SIZE bytes and may be null. Paths and names are zero-terminated; an
// operation does nothing, or fails, if what it is about is null.
// Locking: operations may be called from any thread; starting and stopping exclude each other.
// StopServer and the destructor wait for the calls in hand, so neither may be called from one:
// StartServer and StopServer refuse to run below a call of the host.
class CNfsMain {
public:
    // The ID goes with every line and notification; iLogControl holds LogControl bits.
    CNfsMain(const char* pcID, int iLogControl);

    // ---- The order of the virtual operations is fixed. ----

    virtual ~CNfsMain();

    // False, with the reason, for an empty ID.
    virtual bool Initial(char* pcReason);
    virtual void Terminate();

    // Other processes cannot drive this controller: both only say so in the log.
    virtual bool StartRemoteController(char* pcReason);
    virtual void StopRemoteController();

    // Opens the MOUNT and NFS ports; a port below 1 stands for the default. Serves as port mapper
    // too, on port 111, or announces itself to the one that is there. iUid and iGid are kept for
    // the NFS program; with bReadOnly it refuses changes. False, with the reason and nothing left
    // open, if any step fails.
    virtual bool StartServer(int iMountPort, int iNfsPort, unsigned int iUid, unsigned int iGid,
                             bool bReadOnly, char* pcReason);
    virtual void StopServer();

    virtual int GetAccessMode();           // AccessMode
    virtual void GetVersion(char* pcOut);  // DESCRIPTION_SIZE bytes, as the next
    virtual void GetDescription(char* pcOut);
    virtual bool IsServerRunning();

    // See CUtilities for what these do. Without an IPC ID the export belongs to this process.
    virtual bool AddMountPoint(const char* pcLocalPath, const char* pcExportName, char* pcReason);
    virtual void RemoveMountPoint(const char* pcLocalPath);
    virtual void AddSessionInfo(const char* pcSessionID, const char* pcLocalPath);
    virtual void RemoveSessionInfo(const char* pcSessionID);
    virtual bool IsSessionExists(const char* pcSessionID);

    virtual void OpenRedirectedFile(const char* pcPath, long long iSize, bool bCreateInfoFile,
                                    int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB);
    virtual void CloseRedirectedFile(const char* pcPath);
    virtual void CloseAllRedirectedFiles(const char* pcPath);
    virtual bool AddRedirectedFileSegment(const char* pcPath, const char* pcSrcPath,
                                          long long iSrcFileOffset, long long iOffset,
                                          long long iLength, char* pcReason);
    virtual void ExportRedirectedFile(const char* pcPath, const char* pcDest);
    virtual void ExportRedirectedFileInfo(const char* pcPath, const char* pcDest, bool bMergeRange);

    virtual void CloseCachedFileHandle(const char* pcPath);
    virtual void CloseAllCachedFileHandles(const char* pcPath);

    // Takes effect at once, also in a running server.
    virtual void SetLogControl(int iLogControl);

    // Counts, with a listing as raw lines if asked for, under the caller's context.
    virtual int GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly,
                             bool bPrintDetails);
    virtual int GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails);
    virtual void RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, long long iFileSize);

    // A request is refused unless it is enabled; it only sets a flag, which whoever runs the main
    // loop polls.
    virtual void EnableAutoShutdown(bool bEnabled);
    virtual bool RequestAutoShutdown();

    virtual int GetServerStatus();  // ServerStatus bits
    virtual bool SetDebugActionEnabled(bool bEnabled);
    virtual int GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails);
    virtual void AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                                const char* pcUser, const char* pcPwd);
    virtual void RemoveVSphereInfo(const char* pcDatastoreMoid);

protected:
    // For derived controllers, which call InitMemberVaribles themselves (kept spelling).
    CNfsMain();

    bool HasFileLogger();

    // False, with the reason, if there is nothing to publish, or no name for it. No path at all
    // would publish everything.
    static bool IsMountDefined(const char* pcLocalPath, const char* pcExportName, char* pcReason);

    // True, with a line in the log, on a thread that is below a call of the host.
    bool IsRefusedInsideCallback(const char* pcName);

    virtual void InitMemberVaribles(const char* pcID, int iLogControl);
    virtual std::unique_ptr<CUtilities> CreateUtilities();
    virtual bool InitialNetwork(char* pcReason);
    virtual void TerminateNetwork();

public:
    CNfsMain(const CNfsMain&) = delete;
    CNfsMain& operator=(const CNfsMain&) = delete;

    // ---- The same operations under the controller's own context, or for another process ----

    bool AddMountPoint(const char* pcLocalPath, const char* pcExportName, const char* pcIpcID,
                       char* pcReason);
    bool IsLocalSessionExists(const char* pcSessionID);
    int GetMountInfo(bool bClientMountedOnly, bool bPrintDetails);
    int GetSessionInfo(bool bPrintDetails);
    void RunTestMode(const char* pcPath, long long iFileSize);
    int GetVSphereInfo(bool bPrintDetails);

    bool IsAutoShutdownEnabled() const { return m_bAutoShutdownEnabled; }
    bool IsAutoShutdownRequested() const { return m_bAutoShutdownRequested; }

    // Neither is owned; both outlive their time of being set here.
    void SetCallback(IHost* pCallback);
    std::shared_ptr<IHost> GetCallback();
    void SetFileLogger(CFileLogger* pFileLogger);

    CUtilities* GetUtils() { return m_pUtilities.get(); }
    CRuntimeParam* GetRuntimeParam() { return m_pRuntimeParam.get(); }

private:
    enum SocketIndex {
        SOCKETS_PORTMAP,
        SOCKETS_NFS,
        SOCKETS_MOUNT,
        SOCKETS_COUNT,
    };

    bool StartAll(int iMountPort, int iNfsPort, unsigned int iUid, unsigned int iGid,
                  bool bReadOnly, char* pcReason) REQUIRES(m_hMutexServer);
    void CreatePrograms() REQUIRES(m_hMutexServer);
    void CreateSockets() REQUIRES(m_hMutexServer);
    bool OpenListeners(int iMountPort, int iNfsPort, char* pcReason) REQUIRES(m_hMutexServer);
    bool OpenSockets(SocketIndex index, int iProg, int iPort, int iMaxNum, char* pcSocketReason)
        REQUIRES(m_hMutexServer);
    bool RegisterPrograms(char* pcReason) REQUIRES(m_hMutexServer);
    void ReportRegistration(const char* pcText, char* pcReason);
    void StopAll() REQUIRES(m_hMutexServer);

    std::unique_ptr<CRuntimeParam> m_pRuntimeParam;  // owned
    std::unique_ptr<CUtilities> m_pUtilities;        // owned

    CMutex m_hMutexServer{HostCalls::ALLOWED};  // starting and stopping; held for their whole run
    bool m_bStartFailed GUARDED_BY(m_hMutexServer) = false;  // and what it left is not gone yet
    std::unique_ptr<CMountProg> m_pMountProg GUARDED_BY(m_hMutexServer);  // owned, as all below
    SocketHandle m_Sockets[SOCKETS_COUNT] GUARDED_BY(m_hMutexServer);
    std::unique_ptr<CPortmapProg> m_pPortmapProg GUARDED_BY(m_hMutexServer);  // if internal
    std::unique_ptr<CPortmap> m_pPortmap GUARDED_BY(m_hMutexServer);
    std::unique_ptr<CNfsProg> m_pNfsProg GUARDED_BY(m_hMutexServer);

    CMutex m_hMutexRpcServer;  // only the pointer: SetLogControl may meet a start or a stop
    std::unique_ptr<CRpcServer> m_pRpcServer GUARDED_BY(m_hMutexRpcServer);

    std::atomic<bool> m_bNetworkInitialized = false;
    std::atomic<bool> m_bServerRunning = false;
    std::atomic<bool> m_bAutoShutdownEnabled = false;
    std::atomic<bool> m_bAutoShutdownRequested = false;
    std::atomic<bool> m_bDebugActionEnabled = false;
};
