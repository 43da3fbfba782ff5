// The FreeBSD side of Platform.h.
#include "Platform.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/param.h>
#include <unistd.h>

#include <sys/mount.h>   // needs sys/param.h
#include <sys/sysctl.h>  // likewise

namespace Platform {

unsigned long GetFileSystemType(const char* pcPath)
{
    struct statfs info = {};
    if (statfs(pcPath, &info) != 0)
        return 0;
    return info.f_type;
}

bool GetErrorText(int iError, char* pcBuffer, size_t iSize)
{
    char cText[256] = "";
    // The POSIX form: for a number without a text it still writes one ("Unknown error: 9999").
    if (strerror_r(iError, cText, sizeof(cText)) != 0 && cText[0] == '\0')
        return false;
    snprintf(pcBuffer, iSize, "%s", cText);
    return true;
}

void GetProgramArguments(char* pcBuffer, size_t iSize)
{
    memset(pcBuffer, 0, iSize);
    const int iName[] = {CTL_KERN, KERN_PROC, KERN_PROC_ARGS, getpid()};
    size_t iLength = iSize - 1;
    // ENOMEM: there are more than fit, and those that fit were copied.
    if (sysctl(iName, 4, pcBuffer, &iLength, nullptr, 0) != 0 && errno != ENOMEM)
        memset(pcBuffer, 0, iSize);
}

}  // namespace Platform
