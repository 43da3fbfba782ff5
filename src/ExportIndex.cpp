#include "ExportIndex.h"

#include "Text.h"

namespace {

// What SetPathToCompare makes of a path: also here the longest one gets no slash.
std::string GetKey(const std::string& sLocalMountPath)
{
    const bool bClosed = sLocalMountPath.empty() || sLocalMountPath.back() == '/' ||
                         sLocalMountPath.length() + 1 >= PATH_SIZE;
    return bClosed ? sLocalMountPath : sLocalMountPath + "/";
}

}  // namespace

void CExportIndex::Add(const std::string& sLocalMountPath, const std::string& sExportName)
{
    m_NamesByPath[GetKey(sLocalMountPath)].insert(sExportName);
}

void CExportIndex::Remove(const std::string& sLocalMountPath, const std::string& sExportName)
{
    const auto it = m_NamesByPath.find(GetKey(sLocalMountPath));
    if (it == m_NamesByPath.end())
        return;
    it->second.erase(sExportName);
    if (it->second.empty())
        m_NamesByPath.erase(it);
}

const std::set<std::string>& CExportIndex::GetNames(const std::string& sLocalMountPath) const
{
    static const std::set<std::string> none;
    const auto it = m_NamesByPath.find(GetKey(sLocalMountPath));
    return it == m_NamesByPath.end() ? none : it->second;
}

const std::string* CExportIndex::Find(std::string_view sPathToCompare) const
{
    const std::string* pName = nullptr;
    // Every prefix that ends at a folder's border, from the empty one to the whole path.
    size_t iLength = 0;
    for (;;) {
        const auto it = m_NamesByPath.find(sPathToCompare.substr(0, iLength));
        if (it != m_NamesByPath.end()) {
            const std::string& sSmallest = *it->second.begin();
            if (pName == nullptr || sSmallest < *pName)
                pName = &sSmallest;
        }
        if (iLength == sPathToCompare.length())
            return pName;
        const size_t iSlash = sPathToCompare.find('/', iLength);
        iLength = iSlash == std::string_view::npos ? sPathToCompare.length() : iSlash + 1;
    }
}
