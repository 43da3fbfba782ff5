// System calls on files, each with its log line.
#include "Utilities.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "AutoFd.h"
#include "Text.h"

namespace {

// With every open: child processes do not get the descriptor, and neither a terminal nor a pipe
// that lies in an export can make the server wait. Files and folders do not mind.
constexpr int OPEN_FLAGS = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;

// The text of a failed call, taken from errno before anything else can change it.
class CErrorText {
public:
    // pcError, if not null, receives the text too. No system call was made for a descriptor of -1.
    CErrorText(CUtilities* pUtilities, char* pcError, bool bNoDescriptor = false)
    {
        if (bNoDescriptor)
            CopyText(m_cText, sizeof(m_cText), "Bad file descriptor");
        else
            pUtilities->GetLastErrorText(m_cText, errno);
        CopyText(pcError, REASON_SIZE, m_cText);
    }
    const char* Get() const { return m_cText; }

private:
    char m_cText[REASON_SIZE] = "";
};

// The lines of a call on a descriptor.
struct FileLines {
    const char* pcDone;
    const char* pcFailed;
};

constexpr FileLines READ = {"[%s] OS read file (%d)", "[%s] OS read file (%d). Error=%s"};
constexpr FileLines WRITE = {"[%s] OS write file (%d)", "[%s] OS write file (%d). Error=%s"};
constexpr FileLines SEEK = {"[%s] OS seek file (%d)", "[%s] OS seek file (%d). Error=%s"};
constexpr FileLines TELL = {"[%s] OS tell file (%d)", "[%s] OS tell file (%d). Error=%s"};

struct FileCall {
    CUtilities* pUtilities;
    CRuntimeParam* pRuntimeParam;
    LogArgu* pLogArgu;
    int iFile;      // -1: no call was made
    char* pcError;  // may be null
};

// Writes the line of a call that has just been made. The result is the call's, -1 if it failed.
long long LogCall(const FileCall& call, const FileLines& lines, long long iResult)
{
    if (iResult == -1) {
        const CErrorText error(call.pUtilities, call.pcError, call.iFile == -1);
        if (call.pRuntimeParam->IsLogError())
            call.pUtilities->LogError(call.pRuntimeParam, lines.pcFailed, call.pLogArgu->pcName,
                                      call.iFile, error.Get());
    } else if (call.pRuntimeParam->IsLogFileAccess()) {
        call.pUtilities->LogInfo(call.pRuntimeParam, lines.pcDone, call.pLogArgu->pcName,
                                 call.iFile);
    }
    return iResult;
}

}  // namespace

// An open beside the cache, which closes no cached file for it. But directories that are kept open
// only to be quick must not be what it fails for.
int CUtilities::OpenPlainly(const char* pcPath, int iFlags, mode_t iMode)
{
    const int iFile = open(pcPath, iFlags | OPEN_FLAGS, iMode);
    if (iFile != -1 || errno != EMFILE)
        return iFile;
    const bool bRetry = CloseAllFolders();
    errno = EMFILE;
    return bRetry ? open(pcPath, iFlags | OPEN_FLAGS, iMode) : -1;
}

int CUtilities::OS_FileCreate(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                              char* pcError)
{
    const int iFile = OpenPlainly(pcPath, O_RDWR | O_CREAT, 0666);
    if (iFile == -1) {
        const CErrorText error(this, pcError);
        if (pRuntimeParam->IsLogError())
            LogError(pRuntimeParam, "[%s] OS create file \"%s\". Error=%s", pLogArgu->pcName,
                     pcPath, error.Get());
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS create file \"%s\"", pLogArgu->pcName, pcPath);
    }
    return iFile;
}

int CUtilities::OS_FileRemove(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                              char* pcError)
{
    const int iResult = remove(pcPath);
    if (iResult == -1) {
        const CErrorText error(this, pcError);
        if (pRuntimeParam->IsLogError())
            LogError(pRuntimeParam, "[%s] OS remove file \"%s\". Error=%s", pLogArgu->pcName,
                     pcPath, error.Get());
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS remove file \"%s\"", pLogArgu->pcName, pcPath);
    }
    return iResult;
}

int CUtilities::OS_FileRename(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                              const char* pcPathFrom, const char* pcPathTo, char* pcError)
{
    const int iResult = rename(pcPathFrom, pcPathTo);
    if (iResult == -1) {
        const CErrorText error(this, pcError);
        if (pRuntimeParam->IsLogError())
            LogError(pRuntimeParam, "[%s] OS rename file from \"%s\" to \"%s\". Error=%s",
                     pLogArgu->pcName, pcPathFrom, pcPathTo, error.Get());
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS rename file from \"%s\" to \"%s\"", pLogArgu->pcName,
                pcPathFrom, pcPathTo);
    }
    return iResult;
}

// One open with its line; errno is left as the open left it.
int CUtilities::OpenFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                         int iFlags, char* pcError)
{
    const int iFile = open(pcPath, iFlags | OPEN_FLAGS);
    const int iError = errno;
    if (iFile == -1) {
        const CErrorText error(this, pcError);
        if (pRuntimeParam->IsLogError())
            LogError(pRuntimeParam, "[%s] OS open file \"%s\". Error=%s", pLogArgu->pcName, pcPath,
                     error.Get());
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS open file \"%s\"", pLogArgu->pcName, pcPath);
    }
    errno = iError;
    return iFile;
}

int CUtilities::OpenFileWithRetry(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                  const char* pcPath, int iFlags, char* pcError)
{
    const int iFile = OpenFile(pRuntimeParam, pLogArgu, pcPath, iFlags, pcError);
    if (iFile != -1 || errno != EMFILE)
        return iFile;
    FreeDescriptors(pRuntimeParam, pLogArgu);
    return OpenFile(pRuntimeParam, pLogArgu, pcPath, iFlags, pcError);
}

int CUtilities::OS_FileOpen(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                            int iFlags, bool bRetry, char* pcError)
{
    const int iFile = OpenFile(pRuntimeParam, pLogArgu, pcPath, iFlags, pcError);
    if (iFile != -1 || errno != EMFILE || !bRetry)
        return iFile;
    {
        const CMutexLock lock(m_hMutexOpenedFileHandles);
        FreeDescriptors(pRuntimeParam, pLogArgu);
    }
    return OpenFile(pRuntimeParam, pLogArgu, pcPath, iFlags, pcError);
}

int CUtilities::OS_FileClose(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                             int iFile, char* pcError)
{
    const int iResult = iFile == -1 ? -1 : close(iFile);
    if (iResult == -1) {
        const CErrorText error(this, pcError, iFile == -1);
        if (pRuntimeParam->IsLogError())
            LogError(pRuntimeParam, "[%s] OS close file \"%s\". Error=%s", pLogArgu->pcName, pcPath,
                     error.Get());
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS close file \"%s\"", pLogArgu->pcName, pcPath);
    }
    return iResult;
}

int CUtilities::OS_FileRead(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                            void* pBuffer, unsigned int iLength, char* pcError)
{
    const ssize_t iResult = iFile == -1 ? -1 : read(iFile, pBuffer, iLength);
    return static_cast<int>(
        LogCall({this, pRuntimeParam, pLogArgu, iFile, pcError}, READ, iResult));
}

int CUtilities::OS_FileReadAt(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                              long long iOffset, void* pBuffer, unsigned int iLength, char* pcError)
{
    const FileCall call{this, pRuntimeParam, pLogArgu, iFile, pcError};
    const ssize_t iResult = iFile == -1 ? -1 : pread(iFile, pBuffer, iLength, iOffset);
    const int iError = errno;
    if (iResult == -1 && (iFile == -1 || iOffset < 0 || iError == ESPIPE))
        return static_cast<int>(LogCall(call, SEEK, -1));  // it is these that a seek fails of
    LogCall(call, SEEK, 0);
    errno = iError;
    return static_cast<int>(LogCall(call, READ, iResult));
}

int CUtilities::OS_FileWrite(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                             const void* pBuffer, unsigned int iLength, char* pcError)
{
    const ssize_t iResult = iFile == -1 ? -1 : write(iFile, pBuffer, iLength);
    return static_cast<int>(
        LogCall({this, pRuntimeParam, pLogArgu, iFile, pcError}, WRITE, iResult));
}

int CUtilities::OS_FileWriteAt(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                               long long iOffset, const void* pBuffer, unsigned int iLength,
                               char* pcError)
{
    const ssize_t iResult = iFile == -1 ? -1 : pwrite(iFile, pBuffer, iLength, iOffset);
    return static_cast<int>(
        LogCall({this, pRuntimeParam, pLogArgu, iFile, pcError}, WRITE, iResult));
}

long long CUtilities::OS_FileSeek(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                                  long long iOffset, int iWhence, char* pcError)
{
    const off_t iResult = iFile == -1 ? -1 : lseek(iFile, iOffset, iWhence);
    return LogCall({this, pRuntimeParam, pLogArgu, iFile, pcError}, SEEK, iResult);
}

long long CUtilities::OS_FileTell(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                                  char* pcError)
{
    const off_t iResult = iFile == -1 ? -1 : lseek(iFile, 0, SEEK_CUR);
    return LogCall({this, pRuntimeParam, pLogArgu, iFile, pcError}, TELL, iResult);
}

int CUtilities::OS_FolderCreate(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                                int iMode, char* pcError)
{
    const int iResult = mkdir(pcPath, static_cast<mode_t>(iMode));
    if (iResult == -1) {
        const CErrorText error(this, pcError);
        if (pRuntimeParam->IsLogError())
            LogError(pRuntimeParam, "[%s] OS create folder \"%s\" (mode = %d). Error=%s",
                     pLogArgu->pcName, pcPath, iMode, error.Get());
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS create folder \"%s\" (mode = %d)", pLogArgu->pcName, pcPath,
                iMode);
    }
    return iResult;
}

int CUtilities::OS_FolderRemove(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                                char* pcError)
{
    const int iResult = rmdir(pcPath);
    if (iResult == -1) {
        const CErrorText error(this, pcError);
        if (pRuntimeParam->IsLogError())
            LogError(pRuntimeParam, "[%s] OS remove folder \"%s\". Error=%s", pLogArgu->pcName,
                     pcPath, error.Get());
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS remove folder \"%s\"", pLogArgu->pcName, pcPath);
    }
    return iResult;
}

int CUtilities::OS_SetFileMode(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                               int iMode, char* pcError)
{
    const int iResult = chmod(pcPath, static_cast<mode_t>(iMode));
    if (iResult == -1) {
        const CErrorText error(this, pcError);
        if (pRuntimeParam->IsLogError())
            LogError(pRuntimeParam, "[%s] OS set file mode \"%s\" (mode = %d). Error=%s",
                     pLogArgu->pcName, pcPath, iMode, error.Get());
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS set file mode \"%s\" (mode = %d)", pLogArgu->pcName, pcPath,
                iMode);
    }
    return iResult;
}

int CUtilities::OS_GetFileStat(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                               struct stat* pStat, char* pcError)
{
    const int iResult = lstat(pcPath, pStat);
    if (iResult == -1) {
        const CErrorText error(this, pcError);
        if (pRuntimeParam->IsLogError())
            LogError(pRuntimeParam, "[%s] OS get file stat \"%s\". Error=%s", pLogArgu->pcName,
                     pcPath, error.Get());
    } else if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS get file stat \"%s\"", pLogArgu->pcName, pcPath);
    }
    return iResult;
}

bool CUtilities::OS_SetFileSize(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                                long long iSize, char* pcError)
{
    const CAutoFd file(OpenPlainly(pcPath, O_RDWR | O_CREAT, 0755));
    struct stat info = {};
    bool bDone = file.Get() != -1 && fstat(file.Get(), &info) == 0;
    const bool bChange = bDone && info.st_size != iSize;
    if (bChange)
        bDone = ftruncate(file.Get(), iSize) == 0;
    if (!bDone) {
        const CErrorText error(this, pcError);
        if (pRuntimeParam->IsLogError())  // kept here and below: "file file"
            LogError(pRuntimeParam, "[%s] OS set file file \"%s\". Error=%s", pLogArgu->pcName,
                     pcPath, error.Get());
    } else if (bChange && pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] OS set file file \"%s\"", pLogArgu->pcName, pcPath);
    }
    return bDone;
}

int CUtilities::OS_FileForceOpen(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                 const char* pcPath, char* pcError)
{
    const std::vector<std::string> vElements = SplitIntoVector(pcPath, '/');
    if (pRuntimeParam->IsLogFileAccess())
        LogInfo(pRuntimeParam, "[%s] OS splited path \"%s\" into %d elements", pLogArgu->pcName,
                pcPath, static_cast<int>(vElements.size()));

    std::string sFolder;
    for (size_t i = 0; i + 1 < vElements.size(); i++) {
        sFolder += vElements[i];
        if (!sFolder.empty()) {  // an absolute path starts with an empty element
            if (pRuntimeParam->IsLogFileAccess())
                LogInfo(pRuntimeParam, "[%s] Check folder \"%s\" exists", pLogArgu->pcName,
                        sFolder.c_str());
            if (!OS_IsFileExists(sFolder.c_str())) {
                if (pRuntimeParam->IsLogFileAccess())
                    LogInfo(pRuntimeParam, "[%s] Create folder \"%s\"", pLogArgu->pcName,
                            sFolder.c_str());
                if (OS_FolderCreate(pRuntimeParam, pLogArgu, sFolder.c_str(), 0755, pcError) != 0)
                    return -1;
            }
        }
        sFolder += '/';
    }
    if (OS_IsFileExists(pcPath))
        return OS_FileOpen(pRuntimeParam, pLogArgu, pcPath, O_RDWR | O_APPEND, true, pcError);
    return OS_FileCreate(pRuntimeParam, pLogArgu, pcPath, pcError);
}

bool CUtilities::OS_IsFileExists(const char* pcPath)
{
    struct stat info = {};
    return stat(pcPath, &info) == 0;
}
