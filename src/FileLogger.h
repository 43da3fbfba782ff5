// The log file.
#pragma once

#include <memory>
#include <string>

#include "AutoFd.h"
#include "Mutex.h"
#include "RuntimeParam.h"

class CUtilities;

// Writes log lines to one file. When the file has reached its limit it is moved to the first free
// numbered name ("log.1", "log.2", ...) and a new one is started under the configured name.
// Locking: one mutex around every operation, so that a line and a rotation are never torn.
// A failure is only a false result: the facade then prints the line instead.
class CFileLogger {
public:
    // Opens nothing yet.
    explicit CFileLogger(const char* pcPath);
    virtual ~CFileLogger();
    CFileLogger(const CFileLogger&) = delete;
    CFileLogger& operator=(const CFileLogger&) = delete;

    // Opens the file for appending, creating it and the folders above it where they are missing.
    // iLogControl adds bits for the lines that this itself writes. True if the file is open.
    bool Open(int iLogControl);
    void Close();

    // Appends one line with the local time; true if it was written whole.
    bool LogInfo(const char* pcText);
    bool LogError(const char* pcText);
    bool LogRaw(const char* pcText);

    // The limit in bytes; 0 and less are ignored.
    void SetMaxLogSize(long long iSize);
    long long GetMaxLogSize();

private:
    bool LogMessage(const char* pcLevel, const char* pcText);
    bool Rotate() REQUIRES(m_hMutex);

    const std::string m_LogFile;
    std::unique_ptr<CUtilities> m_pUtilities;  // owned and private: it has no log file of its own
    std::unique_ptr<CRuntimeParam> m_pRuntimeParam;  // owned

    CMutex m_hMutex{HostCalls::ALLOWED};
    CAutoFd m_iLogFile GUARDED_BY(m_hMutex);
    long long m_iMaxLogSize GUARDED_BY(m_hMutex) = 0x2000000;  // bytes
    int m_iLastLogIndex GUARDED_BY(m_hMutex) = 1;              // next number to try
};
