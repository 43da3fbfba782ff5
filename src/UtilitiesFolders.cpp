// Directories that stay open between the pages of a listing.
#include "Utilities.h"

#include <cerrno>
#include <utility>

#include "Text.h"

std::unique_ptr<CFolderReader> CUtilities::OpenFolder(CRuntimeParam* pRuntimeParam,
                                                      LogArgu* pLogArgu, const char* pcPath)
{
    auto pFolder = std::make_unique<CFolderReader>(pcPath);
    if (!pFolder->IsOpen() && errno == EMFILE) {
        {
            const CMutexLock lock(m_hMutexOpenedFileHandles);
            FreeDescriptors(pRuntimeParam, pLogArgu);
        }
        pFolder = std::make_unique<CFolderReader>(pcPath);
    }
    return pFolder->IsOpen() ? std::move(pFolder) : nullptr;
}

std::unique_ptr<CFolderReader> CUtilities::TakeFolder(const char* pcPath, unsigned int iEntries)
{
    std::unique_ptr<CFolderReader> pFolder;
    {
        const CMutexLock lock(m_hMutexOpenedFileHandles);
        pFolder = m_FolderPositions.Take(pcPath, iEntries);
    }
    return pFolder != nullptr && pFolder->IsUnchanged() ? std::move(pFolder) : nullptr;
}

void CUtilities::KeepFolder(std::unique_ptr<CFolderReader> pFolder, unsigned int iEntries)
{
    if (!pFolder->IsReusable())
        return;
    char cPath[PATH_SIZE];
    CopyText(cPath, sizeof(cPath), pFolder->GetPath().c_str());
    SetPathToCompare(cPath);

    // Asked in the hold of the insert: an export that is withdrawn meanwhile closes the reader.
    const CMutexLock lock(m_hMutexOpenedFileHandles);
    bool bExported = false;
    {
        const CMutexLock lockExports(m_hMutexMountInfos);
        bExported = FindMountInfoByPath(cPath) != nullptr;
    }
    if (bExported)
        m_FolderPositions.Keep(std::move(pFolder), iEntries);
}

void CUtilities::CloseFolders(const char* pcPath)
{
    if (pcPath == nullptr || pcPath[0] == '\0')
        return;
    const CMutexLock lock(m_hMutexOpenedFileHandles);
    m_FolderPositions.Close(pcPath);
}

// True if there was one to close.
bool CUtilities::CloseAllFolders()
{
    const CMutexLock lock(m_hMutexOpenedFileHandles);
    return m_FolderPositions.CloseAll();
}
