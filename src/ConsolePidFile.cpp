// The file that tells others which process runs, and keeps a second one from starting.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "AutoFd.h"
#include "ConsoleUtilities.h"
#include "LogArgu.h"
#include "RuntimeParam.h"
#include "Text.h"
#include "Utilities.h"

namespace {

constexpr size_t PID_SIZE = 256;  // bytes of the file's text with its zero

// The ID that the file holds; 0 if there is none to be found.
int ReadPid(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
            const char* pcPath)
{
    const CAutoFd file(
        pUtilities->OS_FileOpen(pRuntimeParam, pLogArgu, pcPath, O_RDONLY, false, nullptr));
    char cText[PID_SIZE] = "";
    if (file.Get() == -1 || pUtilities->OS_FileRead(pRuntimeParam, pLogArgu, file.Get(), cText,
                                                    sizeof(cText) - 1, nullptr) <= 0)
        return 0;
    const long iPid = strtol(cText, nullptr, 10);  // ends before the end of the line
    return iPid == static_cast<int>(iPid) ? static_cast<int>(iPid) : 0;
}

// Another process, that is: one that died and had the ID that is now our own left the file behind.
// Where a machine has few processes, as a container does, that is not rare.
bool IsProcessAlive(int iPid)
{
    return iPid > 0 && iPid != getpid() && (kill(iPid, 0) == 0 || errno == EPERM);
}

}  // namespace

bool CConsoleUtilities::CreatePidFile(const char* pcPath, int iLogControl, char* pcReason)
{
    if (pcPath[0] == '\0')
        return true;
    CUtilities utilities;
    CRuntimeParam param("", iLogControl | LOG_CONTROL_ERROR);
    LogArgu logArgu = {"ConsoleUtilities.CreatePidFile"};
    if (utilities.OS_IsFileExists(pcPath)) {
        struct stat file = {};
        if (stat(pcPath, &file) == 0 && !S_ISREG(file.st_mode)) {
            FormatReason(pcReason, "Not a regular file");  // nor is it for us to remove
            return false;
        }
        const int iPid = ReadPid(&utilities, &param, &logArgu, pcPath);
        if (IsProcessAlive(iPid)) {
            FormatReason(pcReason, "Process ID \"%d\" is still running", iPid);
            return false;
        }
        if (utilities.OS_FileRemove(&param, &logArgu, pcPath, pcReason) != 0)
            return false;
    }

    char cText[PID_SIZE];
    const int iLength = snprintf(cText, sizeof(cText), "%d\n", static_cast<int>(getpid()));
    const CAutoFd file(utilities.OS_FileCreate(&param, &logArgu, pcPath, pcReason));
    if (file.Get() != -1 &&
        utilities.OS_FileWrite(&param, &logArgu, file.Get(), cText,
                               static_cast<unsigned int>(iLength), pcReason) == iLength)
        return true;
    utilities.LogError(&param, "Fail to create pid file \"%s\". Reason=%s", pcPath, pcReason);
    if (file.Get() != -1)
        utilities.OS_FileRemove(&param, &logArgu, pcPath, nullptr);  // nobody could read it
    return false;
}

void CConsoleUtilities::RemovePidFile(const char* pcPath, int iLogControl)
{
    CUtilities utilities;
    CRuntimeParam param("", iLogControl | LOG_CONTROL_ERROR);
    LogArgu logArgu = {"ConsoleUtilities.RemovePidFile"};
    if (pcPath[0] != '\0' && utilities.OS_IsFileExists(pcPath))
        utilities.OS_FileRemove(&param, &logArgu, pcPath, nullptr);
}
