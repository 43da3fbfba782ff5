#include "FolderPositions.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "Text.h"

std::unique_ptr<CFolderReader> CFolderPositions::Take(const char* pcPath, unsigned int iEntries)
{
    const auto it =
        std::find_if(m_vPositions.begin(), m_vPositions.end(), [=](const Position& position) {
            return position.iEntries == iEntries && position.pFolder->GetPath() == pcPath;
        });
    if (it == m_vPositions.end())
        return nullptr;
    std::unique_ptr<CFolderReader> pFolder = std::move(it->pFolder);
    m_vPositions.erase(it);
    return pFolder;
}

void CFolderPositions::Keep(std::unique_ptr<CFolderReader> pFolder, unsigned int iEntries)
{
    if (m_vPositions.size() >= LIMIT)
        m_vPositions.erase(m_vPositions.begin());
    m_vPositions.push_back({std::move(pFolder), iEntries});
}

void CFolderPositions::Close(const char* pcPath)
{
    std::string_view sFolder = pcPath;
    if (sFolder.length() > 1 && sFolder.back() == '/')
        sFolder.remove_suffix(1);  // a path to compare, whose "/" ends at the folder's border
    std::erase_if(m_vPositions, [=](const Position& position) {
        const std::string& sPath = position.pFolder->GetPath();
        return sPath == sFolder || IsPathBelow(sPath, sFolder);
    });
}

bool CFolderPositions::CloseAll()
{
    return !std::exchange(m_vPositions, {}).empty();
}
