// The controller of a server process.
#pragma once

#include <memory>

#include "Mutex.h"
#include "NfsMain.h"

class CIpcServerThread;

// A controller that other processes drive through a local channel.
class CNfsIpcServerMain : public CNfsMain {
public:
    // The ID names the process towards others. See CRuntimeParam::IsValidServerID; Initial tells.
    CNfsIpcServerMain(const char* pcID, int iLogControl);
    ~CNfsIpcServerMain() override;

    // False, with the reason, for an ID that no server process may bear, too.
    bool Initial(char* pcReason) override;

    // Opens the channel and serves it on a thread of its own. False, with the reason, if another
    // process serves it already, or if it cannot be opened; what failed to open once counts as
    // started from then on, until it is stopped (kept). Asks the other process, and so waits for
    // it, if it is there but does not answer.
    bool StartRemoteController(char* pcReason) override;

    // Waits for the request in hand, and takes no more of them.
    void StopRemoteController() override;

    int GetAccessMode() override;
    void GetDescription(char* pcOut) override;

protected:
    // For derived controllers, as the base's.
    CNfsIpcServerMain();

    // For destructors: the thread calls virtual operations, so it ends before any part does.
    void CloseRemoteController();

    void InitMemberVaribles(const char* pcID, int iLogControl) override;
    std::unique_ptr<CUtilities> CreateUtilities() override;

public:
    // Writes the path of the channel that StartRemoteController opens, IPC_CHANNEL_SIZE bytes.
    virtual void GetIpcServerThreadChannel(char* pcOut);

private:
    bool IsServed(const char* pcChannel);

    CMutex m_hMutexController{HostCalls::ALLOWED};  // held for a whole start or stop
    std::unique_ptr<CIpcServerThread> m_pIpcServerThread GUARDED_BY(m_hMutexController);  // owned
};
