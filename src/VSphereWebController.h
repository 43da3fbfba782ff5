// Takes datastores off hypervisor hosts through a helper program.
#pragma once

#include <cstddef>

#include "Mutex.h"

// The helper, VcDatastoreCtlFbdX64, lies in the folder of the running program.
// Locking: each object runs one helper at a time; any thread.
class CVSphereWebController {
public:
    // Bytes of the helper's command line, its terminating zero included.
    static constexpr size_t COMMAND_SIZE = 1024;

    CVSphereWebController() = default;
    virtual ~CVSphereWebController() = default;
    CVSphereWebController(const CVSphereWebController&) = delete;
    CVSphereWebController& operator=(const CVSphereWebController&) = delete;

    // Runs the helper once, through the shell, and waits for its end, whatever that is. The values
    // are not quoted: a blank in one makes two arguments of it, and the shell reads the rest of its
    // own characters too. While the helper runs, the process list shows the password. Nothing
    // happens if a value is null, or if HasRoom is false.
    void RemoveSession(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                       const char* pcUser, const char* pcPwd);

    // Whether the command line of these values, none of them null, has room in its buffer.
    static bool HasRoom(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                        const char* pcUser, const char* pcPwd);

private:
    CMutex m_hMutex;
};
