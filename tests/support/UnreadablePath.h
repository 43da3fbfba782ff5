// A file whose attributes go missing between two looks. Its function takes the place of the
// system's: include it in one source of a program only.
#pragma once

#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <sys/stat.h>

inline const char* g_pcUnreadable = nullptr;  // the path that lstat does not find, while it is set

extern "C" int lstat(const char* pcPath, struct stat* pInfo) noexcept
{
    if (g_pcUnreadable != nullptr && strcmp(pcPath, g_pcUnreadable) == 0) {
        errno = EIO;
        return -1;
    }
    using Function = int (*)(const char*, struct stat*);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "lstat"))(pcPath, pInfo);
}
