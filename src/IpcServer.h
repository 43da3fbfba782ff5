// The answering end of a local channel.
#pragma once

#include <atomic>
#include <memory>
#include <sys/un.h>
#include <vector>

#include "AutoFd.h"
#include "IpcBasic.h"
#include "Mutex.h"
#include "StopGrace.h"
#include "WakePipe.h"

class CNfsMain;

struct IpcServerInst {
    int iSocket = -1;             // listens; owned
    sockaddr_un socketAddr = {};  // path is empty until it is bound
    IpcDataInst data = {};        // of the exchange in hand
};

// Listens on a channel, and answers one message per connection by having a controller do what it
// asks for. Requests are served strictly one after another, but a peer that connects and then says
// nothing keeps nobody waiting: its turn comes when it speaks. And where a request makes this
// process ask another one, which may ask back before it answers, others are served meanwhile.
// The request buffer is not cleared between messages (kept: a message shorter than its record is
// served all the same, with what the last one left behind it).
// Locking: ReadRequest belongs to one thread; Close may be called from another one, and waits for
// the request in hand. No request leads to Close.
class CIpcServer : public CIpcBasic {
public:
    // The controller is not owned and outlives this object.
    explicit CIpcServer(CNfsMain* pNfsHandle);
    ~CIpcServer() override;

    // Takes over the channel's path, whatever is there, and listens; processes of any user may
    // connect. False, with the reason and nothing left open, if that fails.
    bool Open(const char* pcChannel, char* pcError);
    bool Open(const char* pcChannel);  // the reason goes to the log

    // Wakes a ReadRequest that waits, and removes the path. Does nothing on a closed server.
    bool Close(char* pcError);
    bool Close();

    bool IsOpened() const { return m_bOpened; }

    // Waits for a message and answers it. False, with the reason, if that one failed; the next may
    // do better. True also if the server was closed instead.
    bool ReadRequest(char* pcError);

    // The same for a thread that serves: a reason goes to the log, and a request to shut down is
    // handed to the controller once it is answered. After that no further one is read: false.
    bool ReadRequest();

    // Returns after iMilliseconds, or as soon as the server is closed.
    void WaitForClose(int iMilliseconds);

    // Begun once the server is being closed.
    CStopGrace& GetCloseGrace() { return m_CloseGrace; }

    bool IsAutoShutdownRequested() const { return m_bAutoShutdownRequested; }

    // The server that the calling thread is serving; null for most threads.
    static CIpcServer* GetServing();

    // For that thread: serves others until iFile has something to read. False, at once, if the
    // server is closed or cannot serve any more.
    bool ServeWhileWaiting(int iFile) NOT_ANALYSED;

    // For that thread: true if so many requests are begun that no further one is.
    bool IsServingEnough() const NOT_ANALYSED;

    // Makes the reply to a request.
    void ParseData(LogArgu* pLogArgu, IpcDataInst* pData);
    void ProcessRequest(IpcDataInst* pData, int iType);
    void ProcessCallback(IpcDataInst* pData, int iType);

private:
    enum WaitResult {
        WAIT_CLOSED,
        WAIT_FAILED,  // errno tells why
        WAIT_READY,
        WAIT_OTHER,  // the other descriptor has something to read
    };

    bool ReadRequestLocked(char* pcError) REQUIRES(m_hMutexRequest);
    bool Listen(LogArgu* pLogArgu, const sockaddr_un& address, char* pcError)
        REQUIRES(m_hMutexRequest);
    WaitResult WaitForRequest(CAutoFd* pConnection, int iOther) REQUIRES(m_hMutexRequest);
    bool AcceptConnections() REQUIRES(m_hMutexRequest);
    bool DropSilent() REQUIRES(m_hMutexRequest);
    bool Serve(LogArgu* pLogArgu, int iConnection, IpcDataInst* pData, char* pcError)
        REQUIRES(m_hMutexRequest);

    // The requests by subject. False for a type that belongs to another one.
    bool ProcessServerRequest(IpcDataInst* pData, int iType);
    bool ProcessExportRequest(IpcDataInst* pData, int iType);
    bool ProcessFileRequest(IpcDataInst* pData, int iType);
    bool ProcessListingRequest(IpcDataInst* pData, int iType);

    void ReplyBool(IpcDataInst* pData, bool bValue);
    void ReplyInt(IpcDataInst* pData, int iValue);
    char* ReplyText(IpcDataInst* pData, int iType);

    CNfsMain* m_pNfsHandle;  // not owned
    std::atomic<bool> m_bOpened = false;
    std::atomic<bool> m_bAutoShutdownRequested = false;
    CStopGrace m_CloseGrace;
    std::unique_ptr<CWakePipe> m_pWakePipe;  // owned; changes only under the mutex, while closed

    CMutex m_hMutexRequest{
        HostCalls::ALLOWED};  // held for a whole request, and while waiting for one
    IpcServerInst m_IpcServerInst GUARDED_BY(m_hMutexRequest);
    int m_iServing GUARDED_BY(m_hMutexRequest) = 0;  // requests begun and not yet answered
    std::vector<CAutoFd> m_vConnections GUARDED_BY(m_hMutexRequest);  // silent so far, oldest first
};
