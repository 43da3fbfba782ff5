// The descriptor cache: at most 1024 files stay open, the least recently used are closed first.
#include "Utilities.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <utility>

#include "AutoFd.h"
#include "Text.h"

namespace {

constexpr size_t OPENED_FILE_LIMIT = 1024;  // entries

}  // namespace

int CUtilities::GetCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                    const char* pcPath, bool bWrite)
{
    if (pcPath == nullptr || pcPath[0] == '\0')
        return -1;
    const CMutexLock lock(m_hMutexOpenedFileHandles);
    return GetCachedFileHandleLocked(pRuntimeParam, pLogArgu, pcPath, bWrite);
}

int CUtilities::AcquireCachedFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                  const char* pcPath, bool bWrite)
{
    if (pcPath == nullptr || pcPath[0] == '\0')
        return -1;
    const CMutexLock lock(m_hMutexOpenedFileHandles);
    const int iFile = GetCachedFileHandleLocked(pRuntimeParam, pLogArgu, pcPath, bWrite);
    if (iFile == -1)
        return -1;
    const auto it = std::find_if(m_vFilesInUse.begin(), m_vFilesInUse.end(),
                                 [iFile](const FileInUse& use) { return use.iFile == iFile; });
    if (it != m_vFilesInUse.end())
        it->iUsers++;
    else
        m_vFilesInUse.push_back({iFile, 1, false, {}});
    return iFile;
}

void CUtilities::ReleaseCachedFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile)
{
    if (iFile == -1)
        return;
    const CMutexLock lock(m_hMutexOpenedFileHandles);
    const auto it = std::find_if(m_vFilesInUse.begin(), m_vFilesInUse.end(),
                                 [iFile](const FileInUse& use) { return use.iFile == iFile; });
    if (--it->iUsers > 0)
        return;
    if (it->bClose)
        OS_FileClose(pRuntimeParam, pLogArgu, it->sPath.c_str(), iFile, nullptr);
    m_vFilesInUse.erase(it);
}

int CUtilities::GetCachedFileHandleLocked(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                          const char* pcPath, bool bWrite)
{
    auto it = m_OpenedFileHandles.find(pcPath);
    if (it == m_OpenedFileHandles.end() || it->second.iFile == -1) {
        if (m_OpenedFileHandles.size() >= OPENED_FILE_LIMIT)
            CloseExceededCachedFileHandle(pRuntimeParam, pLogArgu);

        const bool bReadWrite =
            bWrite || GetMountInfoByPath(pRuntimeParam, pLogArgu, pcPath, nullptr);
        if (pRuntimeParam->IsLogFileAccess())  // kept: the mode comes first, then the path
            LogInfo(pRuntimeParam, "[%s] open %s mode %s", pLogArgu->pcName,
                    bReadWrite ? "read/write" : "read only", pcPath);
        CAutoFd file(OpenFileWithRetry(pRuntimeParam, pLogArgu, pcPath,
                                       bReadWrite ? O_RDWR : O_RDONLY, nullptr));

        // Looked up again: the evictions above may have taken the entry. A failed open leaves an
        // entry too, and the next call tries again.
        it = m_OpenedFileHandles.try_emplace(pcPath).first;
        it->second.sPath = pcPath;
        it->second.iTime = -1;
        it->second.iFile = file.Release();
    }
    TouchCachedFile(&it->second);
    return it->second.iFile;
}

// Makes an entry the last used one. Keys sort by second and then by the descriptor's text, so "10"
// comes before "9": that order within one second is kept.
void CUtilities::TouchCachedFile(OpenedFileInfo* pInfo)
{
    const time_t iNow = time(nullptr);
    if (iNow == pInfo->iTime && pInfo->iFile != -1)
        return;  // the key would be the same, and no other entry has it
    pInfo->iTime = iNow;
    char cTimeKey[40];
    snprintf(cTimeKey, sizeof(cTimeKey), "%016llu%d", static_cast<unsigned long long>(iNow),
             pInfo->iFile);

    // The old node is used again, so that a hit allocates nothing.
    auto node = m_OpenedFileLastAccessList.extract(pInfo->sTimeKey);
    pInfo->sTimeKey = cTimeKey;
    if (node.empty()) {
        m_OpenedFileLastAccessList.insert_or_assign(pInfo->sTimeKey, pInfo->sPath);
        return;
    }
    node.key() = pInfo->sTimeKey;
    node.mapped() = pInfo->sPath;
    auto result = m_OpenedFileLastAccessList.insert(std::move(node));
    if (!result.inserted)  // entries whose open failed share one key per second
        result.position->second = pInfo->sPath;
}

void CUtilities::CloseCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                       const char* pcPath)
{
    if (pcPath == nullptr || pcPath[0] == '\0')
        return;
    const CMutexLock lock(m_hMutexOpenedFileHandles);
    const auto it = m_OpenedFileHandles.find(pcPath);
    if (it == m_OpenedFileHandles.end())
        return;
    m_OpenedFileLastAccessList.erase(it->second.sTimeKey);
    CloseDroppedFile(pRuntimeParam, pLogArgu, it->second);
    m_OpenedFileHandles.erase(it);
}

void CUtilities::CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                           const char* pcPath)
{
    if (pcPath == nullptr || pcPath[0] == '\0')
        return;
    char cPrefix[PATH_SIZE];
    CopyText(cPrefix, sizeof(cPrefix), pcPath);
    SetPathToCompare(cPrefix);

    const CMutexLock lock(m_hMutexOpenedFileHandles);
    m_FolderPositions.Close(pcPath);
    for (auto it = m_OpenedFileHandles.begin(); it != m_OpenedFileHandles.end();) {
        char cCached[PATH_SIZE];
        CopyText(cCached, sizeof(cCached), it->first.c_str());
        SetPathToCompare(cCached);
        if (pRuntimeParam->IsLogGeneralInfo())
            LogInfo(pRuntimeParam, "[CloseAllCachedFileHandles] Path compare: \"%s\" vs \"%s\"",
                    cPrefix, cCached);
        if (strncmp(cCached, cPrefix, strlen(cPrefix)) != 0) {
            ++it;
            continue;
        }
        m_OpenedFileLastAccessList.erase(it->second.sTimeKey);
        CloseDroppedFile(pRuntimeParam, pLogArgu, it->second);
        m_OpenedFileHandles.erase(it);
        it = m_OpenedFileHandles.begin();
    }
}

void CUtilities::CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu)
{
    const CMutexLock lock(m_hMutexOpenedFileHandles);
    m_FolderPositions.CloseAll();
    CloseAllCachedFileHandlesLocked(pRuntimeParam, pLogArgu);
}

void CUtilities::CloseAllCachedFileHandlesLocked(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu)
{
    for (const auto& [sPath, info] : m_OpenedFileHandles)
        CloseDroppedFile(pRuntimeParam, pLogArgu, info);
    m_OpenedFileHandles.clear();
    m_OpenedFileLastAccessList.clear();
}

// What an open that found no free descriptor can do before it tries again.
void CUtilities::FreeDescriptors(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu)
{
    m_FolderPositions.CloseAll();
    CloseExceededCachedFileHandle(pRuntimeParam, pLogArgu);
}

// Makes room: drops the tenth of the files that were not used for the longest time.
void CUtilities::CloseExceededCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu)
{
    int iCount = static_cast<int>(m_OpenedFileHandles.size() / 10);
    if (iCount == 0) {
        if (pRuntimeParam->IsLogFileAccess())
            LogInfo(pRuntimeParam, "[%s] Close exceeded cached file handle: ALL", pLogArgu->pcName);
        CloseAllCachedFileHandlesLocked(pRuntimeParam, pLogArgu);
        return;
    }
    if (pRuntimeParam->IsLogFileAccess())
        LogInfo(pRuntimeParam, "[%s] Close exceeded cached file handle: %d", pLogArgu->pcName,
                iCount);
    while (!m_OpenedFileLastAccessList.empty() && iCount >= 1) {
        const auto oldest = m_OpenedFileLastAccessList.begin();
        const auto it = m_OpenedFileHandles.find(oldest->second);
        if (it != m_OpenedFileHandles.end()) {
            CloseDroppedFile(pRuntimeParam, pLogArgu, it->second);
            m_OpenedFileHandles.erase(it);
            iCount--;
        }
        m_OpenedFileLastAccessList.erase(oldest);
    }
    // Entries whose open failed share their places in the list, and those without one could never
    // be dropped: the cache would stay full for ever.
    if (iCount >= 1)
        std::erase_if(m_OpenedFileHandles,
                      [](const auto& entry) { return entry.second.iFile == -1; });
}

// Closes the descriptor of an entry that leaves the cache, or lets its last user do it.
void CUtilities::CloseDroppedFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                  const OpenedFileInfo& info)
{
    const auto it = std::find_if(m_vFilesInUse.begin(), m_vFilesInUse.end(),
                                 [&info](const FileInUse& use) { return use.iFile == info.iFile; });
    if (it == m_vFilesInUse.end()) {
        OS_FileClose(pRuntimeParam, pLogArgu, info.sPath.c_str(), info.iFile, nullptr);
        return;
    }
    it->bClose = true;
    it->sPath = info.sPath;
}
