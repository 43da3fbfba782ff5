// Exports by local path, so that finding the export of a path does not walk all exports.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>

// Stands beside the export table and names, for a path, the export that a walk of that table in
// the order of its names would meet first.
// Locking: none of its own; the caller holds CUtilities::m_hMutexMountInfos around every call.
// Cost: one look-up per folder of the path, whatever the number of exports.
class CExportIndex {
public:
    void Add(const std::string& sLocalMountPath, const std::string& sExportName);
    void Remove(const std::string& sLocalMountPath, const std::string& sExportName);
    void Clear() { m_NamesByPath.clear(); }

    // The smallest name among the exports that hold the path, which must be in the form of
    // SetPathToCompare; null if there is none. Good until the next change.
    const std::string* Find(std::string_view sPathToCompare) const;

    // The names of the exports whose path is this one, a "/" at its end apart, in their order.
    const std::set<std::string>& GetNames(const std::string& sLocalMountPath) const;

private:
    // Names by local path with its closing "/". The empty path holds every path.
    std::map<std::string, std::set<std::string>, std::less<>> m_NamesByPath;
};
