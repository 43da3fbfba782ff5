// File IDs: where a local path and the 32-bit number inside an NFS file handle meet.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

constexpr unsigned int NO_FILE_ID = 0xFFFFFFFF;  // never the ID of a file

// One registered path. No entry is removed alone, so an ID keeps its meaning until Clear.
struct FileItem {
    std::string sPath;     // canonical local path
    unsigned int iID = 0;  // the entry's position: block << 10 | slot
};

// Gives every local path that a client was handed a number, and turns a number back into its path.
// Locking: none of its own; the caller holds CUtilities::m_hMutexFileTable around every call.
// Cost: number to path is an index, path to number a hash look-up, with ten paths as with millions.
class CFileTable {
public:
    CFileTable() = default;
    ~CFileTable();
    CFileTable(const CFileTable&) = delete;
    CFileTable& operator=(const CFileTable&) = delete;

    // Forgets all paths; IDs start again at 0.
    void Clear();

    // The ID of a path, which is added if it is new; NO_FILE_ID for null.
    unsigned int GetIDByPath(const char* pcPath);

    // Copies the path of iID, with its terminating zero, into pcBuffer of iSize bytes; a null
    // pcBuffer only asks whether the ID exists. False, with pcBuffer untouched, if there is no such
    // ID or the path does not fit.
    bool GetPathByID(unsigned int iID, char* pcBuffer, size_t iSize);

    // Lets the entry of pcOldPath stand for pcNewPath, under the same ID. False if either is null
    // or the old path was never added.
    bool UpdateItemPath(const char* pcOldPath, const char* pcNewPath);

    // Lets all entries below pcOldFolder stand for what now lies below pcNewFolder, under the same
    // IDs. Looks at every entry.
    void UpdateItemPathsBelow(const char* pcOldFolder, const char* pcNewFolder);

    // Entries are owned by the table and stay where they are until Clear; null where there is none.
    // AddItem does not ask whether the path has an entry already.
    FileItem* AddItem(const char* pcPath);
    FileItem* FindItemByPath(const char* pcPath);
    FileItem* GetItemByID(unsigned int iID);

    // True if both are there and the entry's path is, byte for byte, the iLength bytes of pcPath.
    static bool IsMatchItem(const FileItem* pItem, const char* pcPath, size_t iLength);

private:
    static constexpr unsigned int SLOT_BITS = 10;
    static constexpr unsigned int SLOT_MASK = (1U << SLOT_BITS) - 1;
    static constexpr size_t BLOCK_SIZE = size_t{1} << SLOT_BITS;  // entries
    static constexpr size_t CACHE_SIZE = 1024;                    // IDs

    // The entries of a path that has several: only renames onto a known path make these.
    struct Twins {
        std::set<unsigned int> ids;
        std::set<std::pair<unsigned long long, unsigned int>> found;  // those in m_vCache, by age
    };

    void MoveItem(FileItem* pItem, const std::string& sNewPath);
    void AddToIndex(const FileItem* pItem);
    void RemoveFromIndex(const FileItem* pItem);  // the entry is still under its old path
    void RememberFoundID(unsigned int iID);
    void SetFound(unsigned int iID, unsigned long long iFound);

    std::vector<std::vector<FileItem>> m_vvTable;  // blocks of 1024; only the last one grows
    std::vector<unsigned int> m_vCache;            // recently found IDs, oldest first

    // These stand for a scan of m_vCache and the blocks, and yield what it would.
    std::unordered_map<std::string_view, unsigned int> m_mIDByPath;  // the lowest ID of each path;
                                                                     // keys lie in its entry
    std::map<std::string, Twins, std::less<>> m_mTwins;              // by path
    std::vector<unsigned long long> m_vFound;  // by ID: grows with the place in m_vCache, else 0
    unsigned long long m_iFinds = 0;           // IDs that ever entered m_vCache
};
