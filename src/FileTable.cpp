#include "FileTable.h"

#include <algorithm>
#include <cstring>

#include "Text.h"

CFileTable::~CFileTable()
{
    Clear();
}

void CFileTable::Clear()
{
    m_mIDByPath.clear();  // before the entries that hold its keys
    m_mTwins.clear();
    m_vvTable.clear();
    m_vCache.clear();
    m_vFound.clear();
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
    MoveItem(pItem, pcNewPath);
    return true;
}

void CFileTable::UpdateItemPathsBelow(const char* pcOldFolder, const char* pcNewFolder)
{
    if (pcOldFolder == nullptr || pcNewFolder == nullptr)
        return;
    const size_t iOldLength = strlen(pcOldFolder);
    for (std::vector<FileItem>& vBlock : m_vvTable)
        for (FileItem& item : vBlock)
            if (IsPathBelow(item.sPath, pcOldFolder))
                MoveItem(&item, pcNewFolder + item.sPath.substr(iOldLength));
}

void CFileTable::MoveItem(FileItem* pItem, const std::string& sNewPath)
{
    RemoveFromIndex(pItem);
    pItem->sPath = sNewPath;
    AddToIndex(pItem);
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
    m_vFound.resize(size_t{pItem->iID} + 1);
    AddToIndex(pItem);
    return pItem;
}

// Yields the entry that a scan of m_vCache, then of all blocks, would meet first, and keeps
// m_vCache as that scan would.
FileItem* CFileTable::FindItemByPath(const char* pcPath)
{
    if (pcPath == nullptr)
        return nullptr;
    const auto it = m_mIDByPath.find(pcPath);
    if (it == m_mIDByPath.end())
        return nullptr;
    if (!m_mTwins.empty()) {
        const auto twins = m_mTwins.find(std::string_view(pcPath));
        if (twins != m_mTwins.end() && !twins->second.found.empty())
            return GetItemByID(twins->second.found.begin()->second);
    }
    if (m_vFound[it->second] == 0)
        RememberFoundID(it->second);
    return GetItemByID(it->second);
}

void CFileTable::AddToIndex(const FileItem* pItem)
{
    const auto [it, bNew] = m_mIDByPath.try_emplace(pItem->sPath, pItem->iID);
    if (bNew)
        return;
    Twins& twins = m_mTwins[pItem->sPath];
    for (const unsigned int iID : {it->second, pItem->iID}) {
        twins.ids.insert(iID);
        if (m_vFound[iID] != 0)
            twins.found.emplace(m_vFound[iID], iID);
    }
    if (pItem->iID < it->second) {
        auto node = m_mIDByPath.extract(it);
        node.key() = pItem->sPath;
        node.mapped() = pItem->iID;
        m_mIDByPath.insert(std::move(node));
    }
}

void CFileTable::RemoveFromIndex(const FileItem* pItem)
{
    auto node = m_mIDByPath.extract(pItem->sPath);
    const auto it = m_mTwins.find(pItem->sPath);
    if (it == m_mTwins.end())
        return;
    Twins& twins = it->second;
    twins.ids.erase(pItem->iID);
    twins.found.erase({m_vFound[pItem->iID], pItem->iID});
    const FileItem* pLowest = GetItemByID(*twins.ids.begin());
    node.key() = pLowest->sPath;
    node.mapped() = pLowest->iID;
    m_mIDByPath.insert(std::move(node));
    if (twins.ids.size() == 1)
        m_mTwins.erase(it);
}

void CFileTable::RememberFoundID(unsigned int iID)
{
    if (m_vCache.size() >= CACHE_SIZE) {
        const auto end = m_vCache.begin() + static_cast<std::ptrdiff_t>(m_vCache.size() / 10);
        std::for_each(m_vCache.begin(), end, [this](unsigned int iOld) { SetFound(iOld, 0); });
        m_vCache.erase(m_vCache.begin(), end);  // a tenth at once, not one with every new ID
    }
    m_vCache.push_back(iID);
    SetFound(iID, ++m_iFinds);
}

void CFileTable::SetFound(unsigned int iID, unsigned long long iFound)
{
    if (!m_mTwins.empty()) {
        const auto it = m_mTwins.find(GetItemByID(iID)->sPath);
        if (it != m_mTwins.end()) {
            it->second.found.erase({m_vFound[iID], iID});
            if (iFound != 0)
                it->second.found.emplace(iFound, iID);
        }
    }
    m_vFound[iID] = iFound;
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
