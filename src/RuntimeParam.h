// The calling context: who asks, for which client process, and which log lines are wanted.
#pragma once

#include <atomic>
#include <string>

// Log-control bits. Hosts and the console's log command carry these numbers.
enum LogControl : int {
    LOG_CONTROL_ERROR = 0x001,
    LOG_CONTROL_GENERAL_INFO = 0x002,
    LOG_CONTROL_RPC = 0x004,
    LOG_CONTROL_PROC_FUNC_NAME = 0x008,
    LOG_CONTROL_PROC_FUNC_ARGU = 0x010,
    LOG_CONTROL_REDIRECT_FILE = 0x020,
    LOG_CONTROL_IPC = 0x040,
    LOG_CONTROL_IPC_STATE = 0x080,
    LOG_CONTROL_FILE_ACCESS = 0x100,
    LOG_CONTROL_PORTMAP = 0x200,
};

// Passed by pointer to nearly every operation. A call site tests its bit here before it formats a
// line; the logging facade itself filters nothing.
// Locking: the log control may be changed and read from any thread at any time; the two IDs belong
// to the thread that uses the object.
class CRuntimeParam {
public:
    // A null pcID is the empty ID. The IPC ID starts empty.
    CRuntimeParam(const char* pcID, int iLogControl);
    virtual ~CRuntimeParam() = default;
    CRuntimeParam(const CRuntimeParam&) = delete;
    CRuntimeParam& operator=(const CRuntimeParam&) = delete;

    // Whether a server process may bear the ID: not the word "server" itself, which names the
    // channel of every server process, and no "/" or blank. If not, the reason goes to pcReason
    // (REASON_SIZE bytes, or null).
    static bool IsValidServerID(const char* pcID, char* pcReason);

    // The ID under which lines and notifications of this caller are delivered. Null sets the empty
    // string; the result is never null and good until the next SetID.
    void SetID(const char* pcID);
    const char* GetID() const { return m_sID.c_str(); }

    // The process that asked, if it asked through a local channel; else empty.
    void SetIpcID(const char* pcIpcID);
    const char* GetIpcID() const { return m_sIpcID.c_str(); }

    // The value is kept as given: bits that nothing tests come back unchanged.
    void SetLogControl(int iLogControl)
    {
        m_iLogControl.store(iLogControl, std::memory_order_relaxed);
    }
    int GetLogControl() const { return m_iLogControl.load(std::memory_order_relaxed); }

    // False also where the sign bit is among the bits in common: the comparison is a signed one.
    bool IsLogEnabled(int iMask) const { return (GetLogControl() & iMask) > 0; }

    bool IsLogError() const { return IsLogEnabled(LOG_CONTROL_ERROR); }
    bool IsLogGeneralInfo() const { return IsLogEnabled(LOG_CONTROL_GENERAL_INFO); }
    bool IsLogRpc() const { return IsLogEnabled(LOG_CONTROL_RPC); }
    bool IsLogProcFuncName() const { return IsLogEnabled(LOG_CONTROL_PROC_FUNC_NAME); }
    bool IsLogProcFuncArgu() const { return IsLogEnabled(LOG_CONTROL_PROC_FUNC_ARGU); }
    bool IsLogRedirectFile() const { return IsLogEnabled(LOG_CONTROL_REDIRECT_FILE); }
    bool IsLogIpc() const { return IsLogEnabled(LOG_CONTROL_IPC); }
    bool IsLogIpcState() const { return IsLogEnabled(LOG_CONTROL_IPC_STATE); }
    bool IsLogFileAccess() const { return IsLogEnabled(LOG_CONTROL_FILE_ACCESS); }
    bool IsLogPortmap() const { return IsLogEnabled(LOG_CONTROL_PORTMAP); }

private:
    std::string m_sID;
    std::string m_sIpcID;
    std::atomic<int> m_iLogControl;  // LogControl bits
};
