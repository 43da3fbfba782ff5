#include "FileTable.h"

#include <algorithm>
#include <cstring>

CFileTable::~CFileTable()
{
    Clear();
}

void CFileTable::Clear()
{
    m_mIDsByPath.clear();  // before the entries that hold its keys
    m_vvTable.clear();
    m_vCache.clear();
    m_vIsCached.clear();
}

unsigned int CFileTable::GetIDByPath(const char* pcPath)
{
    FileItem* pItem = FindItemByPath(pcPath);
    if (pItem == nullptr)
        pItem = AddItem(pcPath);
    return pItem == nullptr ? NO_FILE_ID : pItem->iID;
}

bool CFileTable::GetPathByID(unsigned int iID, char* pcBuffer, size_t iSize)
{
    const FileItem* pItem = GetItemByID(iID);
    if (pItem == nullptr)
        return false;
    if (pcBuffer == nullptr)
        return true;
    if (pItem->sPath.length() >= iSize)
        return false;
    memcpy(pcBuffer, pItem->sPath.c_str(), pItem->sPath.length() + 1);
    return true;
}

bool CFileTable::UpdateItemPath(const char* pcOldPath, const char* pcNewPath)
{
    if (pcOldPath == nullptr || pcNewPath == nullptr)
        return false;
    FileItem* pItem = FindItemByPath(pcOldPath);
    if (pItem == nullptr)
        return false;

    const auto [first, last] = m_mIDsByPath.equal_range(pItem->sPath);
    m_mIDsByPath.erase(std::find_if(
        first, last, [pItem](const auto& entry) { return entry.second == pItem->iID; }));
    pItem->sPath = pcNewPath;
    m_mIDsByPath.emplace(pItem->sPath, pItem->iID);
    return true;
}

FileItem* CFileTable::AddItem(const char* pcPath)
{
    if (pcPath == nullptr)
        return nullptr;
    if (m_vvTable.empty() || m_vvTable.back().size() >= BLOCK_SIZE) {
        m_vvTable.emplace_back();
        m_vvTable.back().reserve(BLOCK_SIZE);  // entries never move: the index points into them
    }
    std::vector<FileItem>& vBlock = m_vvTable.back();
    vBlock.push_back({pcPath, 0});
    FileItem* pItem = &vBlock.back();
    pItem->iID = (static_cast<unsigned int>(m_vvTable.size() - 1) << SLOT_BITS) +
                 static_cast<unsigned int>(vBlock.size() - 1);
    m_mIDsByPath.emplace(pItem->sPath, pItem->iID);
    m_vIsCached.push_back(false);
    return pItem;
}

// Yields the entry that a scan of m_vCache, then of all blocks, would meet first, and keeps
// m_vCache as that scan would.
FileItem* CFileTable::FindItemByPath(const char* pcPath)
{
    if (pcPath == nullptr)
        return nullptr;
    const auto [first, last] = m_mIDsByPath.equal_range(pcPath);
    if (first == last)
        return nullptr;

    unsigned int iLowestID = NO_FILE_ID;
    unsigned int iCachedID = NO_FILE_ID;
    int iCachedCount = 0;
    for (auto it = first; it != last; ++it) {
        iLowestID = std::min(iLowestID, it->second);
        if (m_vIsCached[it->second]) {
            iCachedID = it->second;
            iCachedCount++;
        }
    }
    if (iCachedCount > 1) {  // several entries of one path: the oldest in the list is met first
        const size_t iLength = strlen(pcPath);
        iCachedID = *std::find_if(m_vCache.begin(), m_vCache.end(), [&](unsigned int iID) {
            return IsMatchItem(GetItemByID(iID), pcPath, iLength);
        });
    }
    if (iCachedCount > 0)
        return GetItemByID(iCachedID);
    RememberFoundID(iLowestID);
    return GetItemByID(iLowestID);
}

void CFileTable::RememberFoundID(unsigned int iID)
{
    if (m_vCache.size() >= CACHE_SIZE) {
        const auto end = m_vCache.begin() + static_cast<std::ptrdiff_t>(m_vCache.size() / 10);
        std::for_each(m_vCache.begin(), end,
                      [this](unsigned int iOld) { m_vIsCached[iOld] = false; });
        m_vCache.erase(m_vCache.begin(), end);  // a tenth at once, not one with every new ID
    }
    m_vCache.push_back(iID);
    m_vIsCached[iID] = true;
}

FileItem* CFileTable::GetItemByID(unsigned int iID)
{
    const size_t iBlock = iID >> SLOT_BITS;
    const size_t iSlot = iID & SLOT_MASK;
    if (iBlock >= m_vvTable.size() || iSlot >= m_vvTable[iBlock].size())
        return nullptr;
    return &m_vvTable[iBlock][iSlot];
}

bool CFileTable::IsMatchItem(const FileItem* pItem, const char* pcPath, size_t iLength)
{
    return pItem != nullptr && pcPath != nullptr && pItem->sPath.length() == iLength &&
           memcmp(pItem->sPath.data(), pcPath, iLength) == 0;
}
