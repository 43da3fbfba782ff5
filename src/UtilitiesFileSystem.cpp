// What is asked of the file system that holds a path.
#include "Utilities.h"

#include <optional>
#include <sys/statvfs.h>
#include <sys/time.h>

#include "Platform.h"

namespace {

constexpr unsigned long long UNKNOWN = ~0ULL;

std::optional<struct statvfs> GetFileSystem(const char* pcPath)
{
    struct statvfs info = {};
    if (statvfs(pcPath, &info) != 0)
        return std::nullopt;
    return info;
}

}  // namespace

unsigned long long CUtilities::GetTotalDiskSpace(const char* pcPath)
{
    const auto info = GetFileSystem(pcPath);
    return info ? static_cast<unsigned long long>(info->f_frsize) * info->f_blocks : UNKNOWN;
}

unsigned long long CUtilities::GetFreeDiskSpace(const char* pcPath)
{
    const auto info = GetFileSystem(pcPath);
    return info ? static_cast<unsigned long long>(info->f_frsize) * info->f_bfree : UNKNOWN;
}

unsigned long long CUtilities::GetFreeDiskSpaceAvailableToCaller(const char* pcPath)
{
    const auto info = GetFileSystem(pcPath);
    return info ? static_cast<unsigned long long>(info->f_frsize) * info->f_bavail : UNKNOWN;
}

unsigned long long CUtilities::GetTotalFileSlots(const char* pcPath)
{
    const auto info = GetFileSystem(pcPath);
    return info ? info->f_files : UNKNOWN;
}

unsigned long long CUtilities::GetFreeFileSlots(const char* pcPath)
{
    const auto info = GetFileSystem(pcPath);
    return info ? info->f_ffree : UNKNOWN;
}

// Kept: the free count, not the count that is left to unprivileged users.
unsigned long long CUtilities::GetFreeFileSlotsAvailableToCaller(const char* pcPath)
{
    return GetFreeFileSlots(pcPath);
}

unsigned long long CUtilities::GetFileSystemID(const char* pcPath)
{
    const auto info = GetFileSystem(pcPath);
    return info ? info->f_fsid : 4;
}

unsigned long long CUtilities::GetMaxFileSize(const char* pcPath)
{
    switch (Platform::GetFileSystemType(pcPath)) {
    case Platform::FILE_SYSTEM_REISERFS:
        return 1ULL << 43;
    case Platform::FILE_SYSTEM_MSDOS:
        return 1ULL << 32;
    case Platform::FILE_SYSTEM_EXT:
    default:
        return 1ULL << 41;
    }
}

unsigned long long CUtilities::GetCurrentSystemTimeInMilliseconds()
{
    struct timeval now = {};
    gettimeofday(&now, nullptr);
    return static_cast<unsigned long long>(now.tv_sec) * 1000 +
           static_cast<unsigned long long>(now.tv_usec) / 1000;
}
