// The one service object of a running server: where log lines go, what is published to whom, which
// number a file has, and every access to a local file.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

#include "CleanUpGate.h"
#include "ExportIndex.h"
#include "FolderPositions.h"
#include "LogArgu.h"
#include "MountInfo.h"
#include "Mutex.h"
#include "OpenedFileInfo.h"
#include "RuntimeParam.h"
#include "SessionInfo.h"
#include "StopGrace.h"
#include "VSphereInfo.h"

class CFileLogger;
class CFileTable;
class CRedirectedFile;
class CVSphereWebController;
class IHost;
struct stat;

// Shared by all threads of a server. Most operations take the caller's context (pRuntimeParam: who
// asks and which lines are wanted) and label (pLogArgu: the "[%s]" of its lines); both are not
// owned and must not be null.
// Locking: each table has a mutex of its own, held for one operation on that table; the order in
// which they nest is in docs/locking.md. The log operations take none of them.
// Failures are results, never exceptions. Reason and error buffers hold REASON_SIZE bytes, path
// buffers PATH_SIZE bytes; texts are cut to that and always terminated. A null reason buffer means
// that no words are wanted.
class CUtilities {
public:
    CUtilities();
    virtual ~CUtilities();
    CUtilities(const CUtilities&) = delete;
    CUtilities& operator=(const CUtilities&) = delete;

    // ---- Override point: deliver for this caller. The order of these is fixed. ----

    virtual void LogInfo(CRuntimeParam* pRuntimeParam, char* pcText);
    virtual void LogError(CRuntimeParam* pRuntimeParam, char* pcText);
    virtual void LogRaw(CRuntimeParam* pRuntimeParam, char* pcText);

    // Tell the host what a client did to a redirected file. The result is the host's answer (see
    // IHost); without a host it is -1 and nothing else happens.
    virtual int LogUpdateRedirectedFileAttributes(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                                  bool bSize, unsigned long long iSize,
                                                  bool bAccessTime, unsigned long iAccessTimeSec,
                                                  bool bLastModifiedTime,
                                                  unsigned long iLastModifiedTimeSec);
    virtual int LogRemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath);
    virtual int LogRenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFrom,
                                        const char* pcPathTo);
    virtual int LogWriteRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                       unsigned long long iSeek, int iSeekType,
                                       unsigned int iLength);

    // ---- Log ----

    // What call sites use: formats into REASON_SIZE bytes, cutting what is longer, and delivers.
    // Nothing is filtered here; the call site tests its log-control bit first.
    void LogInfo(CRuntimeParam* pRuntimeParam, const char* pcFormat, ...)
        __attribute__((format(printf, 3, 4)));
    void LogError(CRuntimeParam* pRuntimeParam, const char* pcFormat, ...)
        __attribute__((format(printf, 3, 4)));
    void LogRaw(CRuntimeParam* pRuntimeParam, const char* pcFormat, ...)
        __attribute__((format(printf, 3, 4)));

    // Takes one line to exactly one place, the first that accepts it: the host, the log file,
    // standard output.
    void LogInfo(const char* pcID, char* pcText);
    void LogError(const char* pcID, char* pcText);
    void LogRaw(const char* pcID, char* pcText);

    // The same notifications for an ID instead of a context.
    int LogUpdateRedirectedFileAttributes(const char* pcID, const char* pcPath, bool bSize,
                                          unsigned long long iSize, bool bAccessTime,
                                          unsigned long iAccessTimeSec, bool bLastModifiedTime,
                                          unsigned long iLastModifiedTimeSec);
    int LogRemoveRedirectedFile(const char* pcID, const char* pcPath);
    int LogRenameRedirectedFile(const char* pcID, const char* pcPathFrom, const char* pcPathTo);
    int LogWriteRedirectedFile(const char* pcID, const char* pcPath, unsigned long long iSeek,
                               int iSeekType, unsigned int iLength);

    // Sets the host, in place of all others; null for none. Not owned: whoever sets it keeps it
    // alive as long as any thread may be using it.
    void SetCallback(IHost* pCallback);

    // Adds a host, which is told what happens once those that were added before it are taken out
    // again. It lives until it is taken out and no thread is using it any more.
    void InstallCallback(std::shared_ptr<IHost> pCallback);
    void RemoveCallback(const IHost* pCallback);

    // The host that is told what happens; null if there is none.
    std::shared_ptr<IHost> GetCallback() const;

    // What that host answers to the question; false if there is none.
    bool IsInterrupted();

    // True while the calling thread is somewhere below a call of the host. It may hold what a start
    // or a stop of the server waits for.
    static bool IsInsideCallback();

    // Begun while the server is being stopped: then nothing waits for other processes for long.
    CStopGrace& GetStopGrace() { return m_StopGrace; }

    // Not owned: whoever sets it keeps it alive as long as any thread may be using it.
    void SetFileLogger(CFileLogger* pFileLogger) { m_pFileLogger = pFileLogger; }
    CFileLogger* GetFileLogger() const { return m_pFileLogger; }

    // Writes "text (number)" of a system error into pcTarget, REASON_SIZE bytes; leaves pcTarget
    // untouched if the system has no text for the number.
    void GetLastErrorText(char* pcTarget, int iError);

    // Empties exports, sessions, cached descriptors and redirected files, in this order.
    void Reset(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu);

    // ---- Paths ----

    // Writes the canonical form of pcIn into pcOut, or pcIn itself where it names nothing.
    void GetCanonicalPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, char* pcOut,
                          const char* pcIn);

    // As above, but where pcIn, an absolute path, names nothing, the path at which something made
    // under this name would come to stand: its folder's canonical path with the name. Empty for a
    // link to nothing, and where a folder is missing on a way that leads upwards again.
    void GetCanonicalTargetPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, char* pcOut,
                                const char* pcIn);

    // Appends "/" to a non-empty path that lacks it, so that prefixes end at a folder's border.
    // No room for it leaves the path as it is.
    static void SetPathToCompare(char* pcPath);

    // ---- Exports ----

    // Publishes a directory. The path is canonicalised; it need not exist. False, with the reason,
    // for a name or path that is published already and for a name with "/" or a blank in it.
    bool AddMountInfo(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcLocalPath,
                      const char* pcExportName, const char* pcIpcID, char* pcReason);

    // Withdraw an export; nothing happens if there is none. When no export is left, the file table
    // is emptied too, and every handle given out goes stale. Directories that are kept open for
    // listings are closed.
    void RemoveMountInfoByLocalMountPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                         const char* pcLocalPath);
    void RemoveMountInfoByExportName(const char* pcExportName);
    void RemoveAllMountInfo();

    // With an address: binds the export to that client and copies it to *pInfo (may be null);
    // false, with the reason, for an unknown name or an export that any client holds already.
    // With a null address: clears the binding whoever holds it.
    bool UpdateMountClientIpAddrByExportName(const char* pcExportName, const char* pcRemoteAddr,
                                             MountInfo* pInfo, char* pcReason);

    // Finds the export that contains pcPath, which must be canonical. Where exports nest, the one
    // with the smallest name holds the path. Copies it to *pInfo (may be null).
    bool GetMountInfoByPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                            MountInfo* pInfo);

    // True, with the reason, if the name or else the path is published; either may be null.
    bool IsMountInfoExists(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcLocalPath,
                           const char* pcExportName, char* pcReason);

    bool IsRemoteAddrExists(const char* pcRemoteAddr);

    // Counts the exports, or those that a client holds, and lists them as raw lines if asked to.
    int GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly, bool bPrintDetails);

    // ---- Sessions ----

    // A second add of the same ID replaces the first.
    void AddSessionInfo(const char* pcSessionID, const char* pcLocalPath);
    void RemoveSessionInfo(const char* pcSessionID);
    void RemoveSessionInfoByLocalMountPath(const char* pcLocalPath);
    void RemoveAllSessionInfo();
    bool IsSessionExists(const char* pcSessionID);
    int GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails);

    // ---- Datastores on hypervisor hosts ----

    // A second add of the same datastore replaces the first. The password is never printed. All
    // three wait for the end of a clean-up in hand; not within a call of the host, and not where a
    // line has held the host up for half a second.
    void AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                        const char* pcUser, const char* pcPwd);
    void RemoveVSphereInfo(const char* pcDatastoreMoid);
    int GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails);

    // Takes the recorded datastores off their hosts, in the order of their IDs, and forgets them,
    // whatever comes of it (see CVSphereWebController). Takes as long as the helper does.
    void RemoveAllVSphereInfoWithWebCtrl(CRuntimeParam* pRuntimeParam);

    // ---- File numbers and handles ----

    // The number of a path, which gets one if it has none; 0xFFFFFFFF if pcPath is null.
    unsigned int GetFileID(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath);

    // Writes the handle of a path: its number in the machine's byte order, then zeros up to
    // iLength, which must exceed 4.
    bool GetFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                       void* pBuffer, unsigned int iLength);

    // Turns the first four bytes of a handle back into a path of at most iSize bytes with its
    // zero; a null pcBuffer only asks whether the handle is known.
    bool GetFilePath(CRuntimeParam* pRuntimeParam, const void* pHandle, char* pcBuffer,
                     size_t iSize);

    void ResetFileTable();

    // ---- Descriptor cache ----

    // The cached descriptor of a path, opened if need be: read/write where bWrite is set or the
    // path lies in an export, else read only. -1 if it cannot be opened. The cache owns the
    // descriptor and may close it as soon as this returns; CCachedFile keeps it open during use.
    int GetCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                            bool bWrite);

    // As above, but the descriptor stays open until it is released, even if the cache drops it.
    // CCachedFile pairs the two.
    int AcquireCachedFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                          bool bWrite);
    void ReleaseCachedFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile);

    void CloseCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath);

    // Closes pcPath itself and everything below it, directories kept open for listings included.
    void CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                   const char* pcPath);
    void CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu);

    // ---- Directories, open for a listing ----

    // Opens a directory at its first entry; null if it cannot be opened. Where no descriptor is
    // free, cached ones are closed first. Takes the descriptor cache's mutex.
    std::unique_ptr<CFolderReader> OpenFolder(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                              const char* pcPath);

    // A reader that went through iEntries entries of the directory, kept by an earlier page; null
    // if there is none or the directory changed since it was opened.
    std::unique_ptr<CFolderReader> TakeFolder(const char* pcPath, unsigned int iEntries);

    // Keeps a reader, which iEntries entries were read from, for the next page; closes it instead
    // if it could not be used then, or if no export holds the directory any more.
    void KeepFolder(std::unique_ptr<CFolderReader> pFolder, unsigned int iEntries);

    // Closes the kept readers of a directory and of all below it.
    void CloseFolders(const char* pcPath);

    // ---- Files, through the cache ----

    // The size in bytes, or iDefault if the file cannot be opened.
    long long GetFileSize(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                          long long iDefault);

    // Creates the file if it is missing; an existing one keeps its contents.
    bool NewFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath);

    // Bytes read or written, or -1. iSeekType is SEEK_SET, SEEK_CUR or SEEK_END. *pbEof tells
    // whether the read ended at or behind the end of the file.
    int ReadFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                 unsigned long long iSeek, int iSeekType, void* pBuffer, unsigned int iLength,
                 bool* pbEof);
    int WriteFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                  unsigned long long iSeek, int iSeekType, const void* pBuffer,
                  unsigned int iLength);

    // Moves a file or folder over whatever is at pcPathTo, which is removed first. Handles of it,
    // and of all that a folder contains, stay good. False also if it was moved but had never been
    // given a number. A path renamed to itself stays as it is.
    bool RenameFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPathFrom,
                    const char* pcPathTo);
    bool RemoveFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath);

    // Sets mode and size, in this order; owner, group and times are accepted without effect. Each
    // value counts only where the flag before it is set.
    bool UpdateFileAttributes(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                              bool bSetMode, unsigned int iMode, bool bSetUid, unsigned int iUid,
                              bool bSetGid, unsigned int iGid, bool bSetSize,
                              unsigned long long iSize, bool bSetAtime, unsigned int iAtimeSec,
                              unsigned int iAtimeNsec, bool bSetMtime, unsigned int iMtimeSec,
                              unsigned int iMtimeNsec);

    // ---- System calls: each writes its line, and on failure fills pcError (may be null) ----

    int OS_FileCreate(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                      char* pcError);
    int OS_FileRemove(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                      char* pcError);
    int OS_FileRename(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPathFrom,
                      const char* pcPathTo, char* pcError);

    // With bRetry, an open that finds no free descriptor closes cached ones and tries once more.
    int OS_FileOpen(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath, int iFlags,
                    bool bRetry, char* pcError);
    int OS_FileClose(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath, int iFile,
                     char* pcError);
    int OS_FileRead(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile, void* pBuffer,
                    unsigned int iLength, char* pcError);
    // OS_FileSeek to iOffset and OS_FileRead in one, with the lines of both, but the descriptor's
    // position, which others may be using, stays where it is.
    int OS_FileReadAt(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile, long long iOffset,
                      void* pBuffer, unsigned int iLength, char* pcError);
    int OS_FileWrite(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                     const void* pBuffer, unsigned int iLength, char* pcError);
    // OS_FileWrite, with its line, but at iOffset; the descriptor's position stays likewise.
    int OS_FileWriteAt(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                       long long iOffset, const void* pBuffer, unsigned int iLength, char* pcError);
    long long OS_FileSeek(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                          long long iOffset, int iWhence, char* pcError);
    long long OS_FileTell(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                          char* pcError);
    int OS_FolderCreate(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                        int iMode, char* pcError);
    int OS_FolderRemove(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                        char* pcError);
    int OS_SetFileMode(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                       int iMode, char* pcError);
    int OS_GetFileStat(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                       struct stat* pStat, char* pcError);
    bool OS_SetFileSize(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                        long long iSize, char* pcError);

    // Opens a file for appending, creating it and the folders above it where they are missing. The
    // caller owns the descriptor.
    int OS_FileForceOpen(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                         char* pcError);

    // Links are followed: a link to nothing does not exist.
    bool OS_IsFileExists(const char* pcPath);

    // ---- File system that holds a path. Bytes and counts; all bits set if it cannot be asked ----

    unsigned long long GetTotalDiskSpace(const char* pcPath);
    unsigned long long GetFreeDiskSpace(const char* pcPath);
    unsigned long long GetFreeDiskSpaceAvailableToCaller(const char* pcPath);
    unsigned long long GetTotalFileSlots(const char* pcPath);
    unsigned long long GetFreeFileSlots(const char* pcPath);
    unsigned long long GetFreeFileSlotsAvailableToCaller(const char* pcPath);
    unsigned long long GetFileSystemID(const char* pcPath);  // 4 if it cannot be asked
    unsigned long long GetMaxFileSize(const char* pcPath);   // bytes
    unsigned long long GetCurrentSystemTimeInMilliseconds();

    // ---- Redirected files ----

    // Makes the file of this path, which should exist as a placeholder, one that is assembled from
    // segments; replaces what was open under it. iSize is in bytes. With bCreateInfoFile the
    // segments are kept in the placeholder, which must be empty, and the two sizes in MiB count
    // (see CRedirectedFile::Open). The table owns the result.
    CRedirectedFile* OpenRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                        long long iSize, bool bCreateInfoFile,
                                        int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB);

    // Null if no file is open under this path. Whoever holds the result can go on using it when
    // the file is closed; it reads as zeros then.
    std::shared_ptr<CRedirectedFile> GetRedirectedFile(const char* pcPath);

    // Nothing happens for a path that is not open. The second form closes pcDirPath itself and
    // everything below it.
    void CloseRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath);
    void CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam, const char* pcDirPath);
    void CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam);

    // See CRedirectedFile::AddSegment. False for a path that is not open.
    bool AddRedirectedFileSegment(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                  const char* pcSrcPath, long long iSrcFileOffset,
                                  long long iOffset, long long iLength, char* pcReason);

    // Moves an open file to another path; what was open there is closed. It goes on looking for
    // its index file, if it has one, at the path under which it was opened.
    void RenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFrom,
                              const char* pcPathTo);

    // Write the contents, or a listing of the segments, into a file that exists. The host's other
    // operations on redirected files wait meanwhile, but nothing that clients do.
    void ExportRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                              const char* pcExportPath);
    void ExportRedirectedFileInfo(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                  const char* pcExportPath, bool bMergeRange);

    // ---- Self-test of the platform: each step writes one line, whatever the log control ----

    // Does below pcDirPath, which must exist, what the server does to files, in a folder "_test" of
    // its own that is gone in the end. A folder of that name which is there already is left alone.
    // iFileSize, in bytes and above 0, is the size of the file that is written; it is sparse.
    // Nothing happens without a context.
    void RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcDirPath, long long iFileSize);

    // The parts of it that have several steps. The last two texts begin the line of a step that
    // went well or did not. A step that needs an earlier one which failed says so and does nothing.

    // Sets the size and looks whether it is there.
    void RunTestUpdateFileSize(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                               long long iSize, const char* pcLabel, const char* pcOkText,
                               const char* pcFailText);

    // Writes up to 2,047 bytes at iPosition, or so far in front of it that they end within the
    // file, reads them back and compares. iFile is not owned, its position moves.
    void RunTestReadWriteFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                              long long iPosition, long long iFileSize, const char* pcOkText,
                              const char* pcFailText);

    // Sets the mode, whose bits for the file's type are those of the file, and looks whether it is
    // there.
    void RunTestUpdateFileAttribute(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                    const char* pcPath, unsigned int iMode, const char* pcOkText,
                                    const char* pcFailText);

    // Writes a number of bytes as people read it, such as "1.5KB", into pcOut of REASON_SIZE bytes.
    // 1024 of a unit are still written in that unit.
    static void GetPrintableFileSize(unsigned long long iBytes, char* pcOut);

private:
    using LogOperation = void (CUtilities::*)(CRuntimeParam*, char*);
    void Deliver(LogOperation operation, CRuntimeParam* pRuntimeParam, char* pcText);

    // A descriptor that an operation is using outside the cache's mutex.
    struct FileInUse {
        int iFile = -1;
        int iUsers = 0;
        bool bClose = false;  // the cache dropped it: the last user closes it
        std::string sPath;    // set with bClose
    };

    bool ResolvePath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, char* pcOut,
                     const char* pcIn);
    bool IsExportNameDefined(const char* pcExportName, char* pcReason) const
        REQUIRES(m_hMutexMountInfos);
    bool IsLocalMountPathDefined(const char* pcCanonicalPath, char* pcReason) const
        REQUIRES(m_hMutexMountInfos);
    const MountInfo* FindMountInfoByLocalMountPath(const char* pcCanonicalPath) const
        REQUIRES(m_hMutexMountInfos);
    const MountInfo* FindMountInfoByPath(const char* pcPathToCompare) const
        REQUIRES(m_hMutexMountInfos);
    const MountInfo* ScanMountInfoByPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                         const char* pcPathToCompare) REQUIRES(m_hMutexMountInfos);
    void EraseMountInfo(const MountInfo& info) REQUIRES(m_hMutexMountInfos);
    void ResetFileTableIfUnused() REQUIRES(m_hMutexMountInfos);

    bool CloseAllFolders();
    int OpenPlainly(const char* pcPath, int iFlags, mode_t iMode);

    void CloseRenamedFiles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                           bool bFolder);

    int GetCachedFileHandleLocked(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                  const char* pcPath, bool bWrite)
        REQUIRES(m_hMutexOpenedFileHandles);
    void TouchCachedFile(OpenedFileInfo* pInfo) REQUIRES(m_hMutexOpenedFileHandles);
    void CloseExceededCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu)
        REQUIRES(m_hMutexOpenedFileHandles);
    void CloseAllCachedFileHandlesLocked(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu)
        REQUIRES(m_hMutexOpenedFileHandles);
    void FreeDescriptors(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu)
        REQUIRES(m_hMutexOpenedFileHandles);
    void CloseDroppedFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                          const OpenedFileInfo& info) REQUIRES(m_hMutexOpenedFileHandles);
    int OpenFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath, int iFlags,
                 char* pcError);
    int OpenFileWithRetry(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                          int iFlags, char* pcError) REQUIRES(m_hMutexOpenedFileHandles);

    bool RenameRedirectedFiles(CRuntimeParam* pRuntimeParam, const char* pcPathFrom,
                               const char* pcPathTo, bool bFolder);
    int CountRedirectedFilesBeside(const char* pcPath);
    bool DropRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath);
    void DropRedirectedFiles(CRuntimeParam* pRuntimeParam);
    std::vector<std::string> GetRedirectedFilePaths();

    void WaitForVSphereCleanUp();
    void RemoveVSphereInfoWithWebCtrl(CRuntimeParam* pRuntimeParam,
                                      CVSphereWebController* pController, const VSphereInfo& info);

    mutable CMutex m_hMutexCallback;  // held for one look-up or change
    std::vector<std::shared_ptr<IHost>> m_vCallbacks GUARDED_BY(m_hMutexCallback);  // oldest first
    CStopGrace m_StopGrace;
    std::atomic<CFileLogger*> m_pFileLogger = nullptr;  // not owned

    CMutex m_hMutexFileTable;
    std::unique_ptr<CFileTable> m_pFileTable GUARDED_BY(m_hMutexFileTable);  // owned

    CMutex m_hMutexOpenedFileHandles;
    std::map<std::string, OpenedFileInfo, std::less<>>
        m_OpenedFileHandles GUARDED_BY(m_hMutexOpenedFileHandles);  // by path
    std::map<std::string, std::string, std::less<>> m_OpenedFileLastAccessList
        GUARDED_BY(m_hMutexOpenedFileHandles);  // path by time key, so oldest first
    std::vector<FileInUse> m_vFilesInUse GUARDED_BY(m_hMutexOpenedFileHandles);
    CFolderPositions m_FolderPositions GUARDED_BY(m_hMutexOpenedFileHandles);

    // Held for a whole operation of the host, which may call back into another one from a line of
    // it. Guards no data.
    std::recursive_mutex m_hMutexRedirectedFiles;
    CMutex m_hMutexRedirectedTable;  // held for one look-up or change
    std::map<std::string, std::shared_ptr<CRedirectedFile>, std::less<>>
        m_mRedirectedFiles GUARDED_BY(m_hMutexRedirectedTable);  // by path

    CMutex m_hMutexMountInfos;
    std::map<std::string, MountInfo> m_MountInfos GUARDED_BY(m_hMutexMountInfos);  // by name
    CExportIndex m_ExportIndex GUARDED_BY(m_hMutexMountInfos);  // the same, by path

    CMutex m_hMutexSessionInfos;
    std::map<std::string, SessionInfo> m_SessionInfos GUARDED_BY(m_hMutexSessionInfos);  // by ID

    CCleanUpGate m_VSphereCleanUp;
    CMutex m_hMutexVSphereInfos;
    std::map<std::string, VSphereInfo> m_VSphereInfos GUARDED_BY(m_hMutexVSphereInfos);  // by MOID
};
