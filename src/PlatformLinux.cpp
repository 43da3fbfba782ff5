// The Linux side of Platform.h.
#include "Platform.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "AutoFd.h"

namespace Platform {

unsigned long GetFileSystemType(const char* pcPath)
{
    struct statfs info = {};
    if (statfs(pcPath, &info) != 0)
        return 0;
    return static_cast<unsigned long>(info.f_type);
}

bool GetErrorText(int iError, char* pcBuffer, size_t iSize)
{
    char cText[256];
    // The GNU form: the text need not lie in the buffer that it is given.
    const char* pcText = strerror_r(iError, cText, sizeof(cText));
    if (pcText == nullptr)
        return false;
    snprintf(pcBuffer, iSize, "%s", pcText);
    return true;
}

void GetProgramArguments(char* pcBuffer, size_t iSize)
{
    memset(pcBuffer, 0, iSize);
    const CAutoFd file(open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC));
    size_t iLength = 0;
    while (iLength < iSize - 1) {
        const ssize_t iRead = read(file.Get(), pcBuffer + iLength, iSize - 1 - iLength);
        if (iRead == -1 && errno == EINTR)
            continue;
        if (iRead <= 0)
            return;
        iLength += static_cast<size_t>(iRead);
    }
}

}  // namespace Platform
