// What both ends of a local channel share.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include "IpcMessages.h"
#include "LogArgu.h"
#include "Text.h"

class CRuntimeParam;
class CUtilities;

constexpr char IPC_SERVER_NAME[] = "server";  // of the server process's own channel

// Writes the path of the channel of that name, IPC_CHANNEL_SIZE bytes, cut and terminated.
void GetIpcChannel(char* pcOut, const char* pcName);

// Builds message headers and writes the trace of a channel's traffic.
// Trace lines go out under the context's ID and never pass through a relay to another process: a
// relay sends messages itself, and would trace those too.
// Locking: one thread at a time.
class CIpcBasic {
public:
    virtual ~CIpcBasic() = default;
    CIpcBasic(const CIpcBasic&) = delete;
    CIpcBasic& operator=(const CIpcBasic&) = delete;

    // Write the header and set the length that goes with the type; the fields behind the header
    // stay as they are. A type that is none becomes 0, in a message that is only a header.
    void InitialRequestData(IpcDataBuf* pData, int iType);
    void InitialReplyData(IpcDataBuf* pData, int iType);
    void InitialCallbackData(IpcDataBuf* pData, int iType);

    // One trace line about a message, if such lines are wanted.
    void PrintData(LogArgu* pLogArgu, IpcDataBuf* pData);

    void LogInfo(const char* pcFormat, ...) __attribute__((format(printf, 2, 3)));
    void LogError(const char* pcFormat, ...) __attribute__((format(printf, 2, 3)));

protected:
    // Neither is owned; both outlive this object.
    CIpcBasic(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam);

    // A line about a step, if such lines are wanted; the label takes the place of its "%s".
    void LogState(LogArgu* pLogArgu, const char* pcFormat);

    // False, with the reason, if there is no channel or its path does not fit an address.
    static bool SetAddress(sockaddr_un* pAddress, const char* pcChannel, char* pcError);

    // Fills pcError with a text that takes the system's text for iError. Always false.
    bool Fail(const char* pcFormat, int iError, char* pcError)
        __attribute__((format(printf, 2, 0)));

    CUtilities* m_pUtilities;        // not owned
    CRuntimeParam* m_pRuntimeParam;  // not owned
};
