// The Linux side of Platform.h.
#include "Platform.h"

#include <cstdio>
#include <cstring>
#include <sys/vfs.h>

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

}  // namespace Platform
