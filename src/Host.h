// The host application, as the rest of the library sees it.
#pragma once

// What the host application is told: log lines, and the changes that NFS clients make to
// redirected files. Of those installed in a CUtilities, the oldest is told.
// Locking: operations are called from any thread, several at once, and may call back into the
// library, except to start, stop or destroy what is calling them.
class IHost {
public:
    IHost() = default;
    virtual ~IHost() = default;
    IHost(const IHost&) = delete;
    IHost& operator=(const IHost&) = delete;

    // True once the host wants whoever waits on its behalf to give up.
    virtual bool IsInterrupted() { return false; }

    // One line for the host; false if the host did not take it.
    virtual bool LogInfo(const char* pcID, const char* pcMessage) = 0;
    virtual bool LogError(const char* pcID, const char* pcMessage) = 0;
    virtual bool LogRaw(const char* pcID, const char* pcMessage) = 0;

    // One change that a client made. The result is the host's: 0 where it accepts the change, for
    // a write the number of bytes that it took, and -1 where the host could not be reached. Times
    // are seconds since 1970; a value counts only where the flag before it is set.
    virtual int UpdateRedirectedFileAttributes(const char* pcID, const char* pcPath, bool bSize,
                                               unsigned long long iSize, bool bAccessTime,
                                               unsigned long iAccessTimeSec, bool bLastModifiedTime,
                                               unsigned long iLastModifiedTimeSec) = 0;
    virtual int RemoveRedirectedFile(const char* pcID, const char* pcPath) = 0;
    virtual int RenameRedirectedFile(const char* pcID, const char* pcPathFrom,
                                     const char* pcPathTo) = 0;
    virtual int WriteRedirectedFile(const char* pcID, const char* pcPath, unsigned long long iSeek,
                                    int iSeekType, unsigned int iLength) = 0;
};
