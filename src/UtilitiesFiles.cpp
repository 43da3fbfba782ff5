// What the NFS procedures do to files.
#include "Utilities.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

#include "CachedFile.h"
#include "FileTable.h"
#include "RedirectedFile.h"
#include "Text.h"

namespace {

// An offset that no file reaches means the same as the last one there is.
long long ClampOffset(unsigned long long iOffset)
{
    constexpr unsigned long long LAST = std::numeric_limits<long long>::max();
    return static_cast<long long>(std::min(iOffset, LAST));
}

}  // namespace

long long CUtilities::GetFileSize(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                  const char* pcPath, long long iDefault)
{
    if (const std::shared_ptr<CRedirectedFile> pRedirected = GetRedirectedFile(pcPath))
        return pRedirected->GetFileSize();
    const CCachedFile file(this, pRuntimeParam, pLogArgu, pcPath, false);
    if (file.Get() == -1)
        return iDefault;
    const long long iSize = OS_FileSeek(pRuntimeParam, pLogArgu, file.Get(), 0, SEEK_END, nullptr);
    return iSize < 0 ? iDefault : iSize;
}

bool CUtilities::NewFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath)
{
    const int iFile = OS_FileCreate(pRuntimeParam, pLogArgu, pcPath, nullptr);
    if (iFile == -1)
        return false;
    OS_FileClose(pRuntimeParam, pLogArgu, pcPath, iFile, nullptr);
    return true;
}

int CUtilities::ReadFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                         unsigned long long iSeek, int iSeekType, void* pBuffer,
                         unsigned int iLength, bool* pbEof)
{
    if (pRuntimeParam->IsLogFileAccess())
        LogInfo(pRuntimeParam, "[%s] Read file, path=%s, iSeek=%llu, iSeekType=%d, length=%u",
                pLogArgu->pcName, pcPath, iSeek, iSeekType, iLength);
    *pbEof = true;
    if (const std::shared_ptr<CRedirectedFile> pRedirected = GetRedirectedFile(pcPath))
        return pRedirected->Read(pRuntimeParam, ClampOffset(iSeek), pBuffer, iLength, pbEof);
    const CCachedFile file(this, pRuntimeParam, pLogArgu, pcPath, false);
    if (file.Get() == -1 || OS_FileSeek(pRuntimeParam, pLogArgu, file.Get(),
                                        static_cast<long long>(iSeek), iSeekType, nullptr) < 0)
        return -1;
    const int iRead = OS_FileRead(pRuntimeParam, pLogArgu, file.Get(), pBuffer, iLength, nullptr);
    const long long iPosition = OS_FileTell(pRuntimeParam, pLogArgu, file.Get(), nullptr);
    const long long iEnd = OS_FileSeek(pRuntimeParam, pLogArgu, file.Get(), 0, SEEK_END, nullptr);
    *pbEof = iPosition >= iEnd;
    return iRead;
}

int CUtilities::WriteFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                          unsigned long long iSeek, int iSeekType, const void* pBuffer,
                          unsigned int iLength)
{
    if (pRuntimeParam->IsLogFileAccess())
        LogInfo(pRuntimeParam, "[%s] Write file, path=%s, iSeek=%llu, iSeekType=%d, length=%u",
                pLogArgu->pcName, pcPath, iSeek, iSeekType, iLength);
    if (GetRedirectedFile(pcPath) != nullptr)  // nothing is stored: the host is told
        return LogWriteRedirectedFile(pRuntimeParam, pcPath, iSeek, iSeekType, iLength);
    const CCachedFile file(this, pRuntimeParam, pLogArgu, pcPath, false);
    if (file.Get() == -1 || OS_FileSeek(pRuntimeParam, pLogArgu, file.Get(),
                                        static_cast<long long>(iSeek), iSeekType, nullptr) < 0)
        return -1;
    return OS_FileWrite(pRuntimeParam, pLogArgu, file.Get(), pBuffer, iLength, nullptr);
}

bool CUtilities::RenameFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPathFrom,
                            const char* pcPathTo)
{
    if (pRuntimeParam->IsLogFileAccess())
        LogInfo(pRuntimeParam, "[%s] Rename file, pathFrom=%s, pathTo=%s", pLogArgu->pcName,
                pcPathFrom, pcPathTo);
    if (strcmp(pcPathFrom, pcPathTo) == 0)
        return true;
    struct stat from = {};
    struct stat to = {};
    const bool bFrom = lstat(pcPathFrom, &from) == 0;
    const bool bTo = lstat(pcPathTo, &to) == 0;
    // The target stays where it is one file with the source, and where nothing is going to take its
    // place: from a source that has gone, onto another file system, of a folder to below itself.
    const bool bKeepTarget =
        !bFrom || (bTo && (from.st_dev != to.st_dev || from.st_ino == to.st_ino ||
                           IsPathBelow(pcPathTo, pcPathFrom)));
    if (!bKeepTarget && OS_IsFileExists(pcPathTo) && !RemoveFile(pRuntimeParam, pLogArgu, pcPathTo))
        return false;
    const bool bFolder = bFrom && S_ISDIR(from.st_mode);
    if (OS_IsFileExists(pcPathFrom)) {
        CloseRenamedFiles(pRuntimeParam, pLogArgu, pcPathFrom, bFolder);
        CloseRenamedFiles(pRuntimeParam, pLogArgu, pcPathTo, bFolder);
        if (OS_FileRename(pRuntimeParam, pLogArgu, pcPathFrom, pcPathTo, nullptr) != 0)
            return false;
    }
    if (!RenameRedirectedFiles(pRuntimeParam, pcPathFrom, pcPathTo, bFolder))
        return false;
    const CMutexLock lock(m_hMutexFileTable);
    if (bFolder)
        m_pFileTable->UpdateItemPathsBelow(pcPathFrom, pcPathTo);
    const bool bKnown = m_pFileTable->UpdateItemPath(pcPathFrom, pcPathTo);
    while (m_pFileTable->UpdateItemPath(pcPathFrom, pcPathTo))
        ;  // an earlier rename may have left several entries at this path
    return bKnown;
}

// What was opened under one of the two names of a rename is not what the name leads to afterwards.
void CUtilities::CloseRenamedFiles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                   const char* pcPath, bool bFolder)
{
    if (bFolder)
        CloseAllCachedFileHandles(pRuntimeParam, pLogArgu, pcPath);
    else
        CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPath);
}

// Lets redirected files follow a rename and tells the host. False if it refuses the file's own;
// for files in a renamed folder nobody asks it.
bool CUtilities::RenameRedirectedFiles(CRuntimeParam* pRuntimeParam, const char* pcPathFrom,
                                       const char* pcPathTo, bool bFolder)
{
    for (const std::string& sFrom :
         bFolder ? GetRedirectedFilePaths() : std::vector<std::string>()) {
        if (!IsPathBelow(sFrom, pcPathFrom))
            continue;
        const std::string sTo = pcPathTo + sFrom.substr(strlen(pcPathFrom));
        RenameRedirectedFile(pRuntimeParam, sFrom.c_str(), sTo.c_str());
        LogRenameRedirectedFile(pRuntimeParam, sFrom.c_str(), sTo.c_str());
    }
    if (GetRedirectedFile(pcPathFrom) == nullptr)
        return true;
    RenameRedirectedFile(pRuntimeParam, pcPathFrom, pcPathTo);
    return LogRenameRedirectedFile(pRuntimeParam, pcPathFrom, pcPathTo) == 0;
}

bool CUtilities::RemoveFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath)
{
    if (pRuntimeParam->IsLogFileAccess())
        LogInfo(pRuntimeParam, "[%s] Remove file, path=%s", pLogArgu->pcName, pcPath);
    CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPath);
    CloseFolders(pcPath);
    if (OS_FileRemove(pRuntimeParam, pLogArgu, pcPath, nullptr) != 0)
        return false;
    return !DropRedirectedFile(pRuntimeParam, pcPath) ||
           LogRemoveRedirectedFile(pRuntimeParam, pcPath) == 0;
}

bool CUtilities::UpdateFileAttributes(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                      const char* pcPath, bool bSetMode, unsigned int iMode,
                                      bool bSetUid, unsigned int iUid, bool bSetGid,
                                      unsigned int iGid, bool bSetSize, unsigned long long iSize,
                                      bool bSetAtime, unsigned int iAtimeSec,
                                      unsigned int iAtimeNsec, bool bSetMtime,
                                      unsigned int iMtimeSec, unsigned int iMtimeNsec)
{
    if (pRuntimeParam->IsLogFileAccess())
        LogInfo(pRuntimeParam,
                "[%s] Update file attributes, path=%s, set_mode=%d, mode=%u, set_uid=%d, uid=%u, "
                "set_gid=%d, gid=%u, set_size=%d, size=%llu, set_atime=%d, atime.sec=%u, "
                "atime.nsec=%u, set_mtime=%d, mtime.sec=%u, mtime.nsec=%u",
                pLogArgu->pcName, pcPath, bSetMode, iMode, bSetUid, iUid, bSetGid, iGid, bSetSize,
                iSize, bSetAtime, iAtimeSec, iAtimeNsec, bSetMtime, iMtimeSec, iMtimeNsec);
    if (!bSetMode && !bSetUid && !bSetGid && !bSetSize && !bSetAtime && !bSetMtime)
        return true;
    if (GetRedirectedFile(pcPath) != nullptr)
        return LogUpdateRedirectedFileAttributes(pRuntimeParam, pcPath, bSetSize, iSize, bSetAtime,
                                                 iAtimeSec, bSetMtime, iMtimeSec) == 0;
    if (!bSetMode && !bSetSize)
        return true;  // owner, group and times are accepted and left as they are

    CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPath);
    if (bSetMode &&
        OS_SetFileMode(pRuntimeParam, pLogArgu, pcPath, static_cast<int>(iMode), nullptr) != 0)
        return false;
    return !bSetSize ||
           OS_SetFileSize(pRuntimeParam, pLogArgu, pcPath, static_cast<long long>(iSize), nullptr);
}
