#include "FolderReader.h"

#include <ctime>

#include "FileState.h"

namespace {

// The coarsest times that a file system keeps are even seconds.
constexpr time_t TIMESTAMP_STEP = 2;  // seconds

// True if a change from now on cannot leave this time as it is. A time that somebody set into the
// future is as good as one in the past.
bool IsAtRest(const struct timespec& time, time_t iNow)
{
    return time.tv_sec < iNow - TIMESTAMP_STEP || time.tv_sec > iNow + TIMESTAMP_STEP;
}

}  // namespace

CFolderReader::CFolderReader(const char* pcPath) : m_sPath(pcPath), m_pStream(opendir(pcPath))
{
    if (m_pStream == nullptr || fstat(dirfd(m_pStream.get()), &m_Opened) != 0)
        return;
    const time_t iNow = time(nullptr);
    m_bReusable = IsAtRest(m_Opened.st_mtim, iNow) && IsAtRest(m_Opened.st_ctim, iNow);
}

const char* CFolderReader::ReadName()
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe): a stream has one user at a time
    const struct dirent* pEntry = readdir(m_pStream.get());
    return pEntry == nullptr ? nullptr : pEntry->d_name;
}

bool CFolderReader::IsUnchanged() const
{
    struct stat now = {};
    return stat(m_sPath.c_str(), &now) == 0 && IsSameFileState(now, m_Opened);
}
