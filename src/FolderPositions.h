// Directories that stay open between two pages of a listing.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "FolderReader.h"

// A client asks for a directory page by page, and each page says only how many entries it has had.
// Whoever opened the directory anew for each page would read it from its start each time. So a page
// leaves its reader here, and the page that goes on where it ended takes it.
// A few readers are kept, and the oldest is closed first: any can be lost, for the next page can
// always be found from the start.
// Locking: none of its own; the caller holds CUtilities::m_hMutexOpenedFileHandles.
class CFolderPositions {
public:
    CFolderPositions() = default;
    CFolderPositions(const CFolderPositions&) = delete;
    CFolderPositions& operator=(const CFolderPositions&) = delete;

    // Takes out the reader of a directory that iEntries entries were read from; null if there is
    // none.
    std::unique_ptr<CFolderReader> Take(const char* pcPath, unsigned int iEntries);

    // Keeps a reader that iEntries entries were read from. Several may stand at one place: two
    // clients that list a directory at the same pace need one each.
    void Keep(std::unique_ptr<CFolderReader> pFolder, unsigned int iEntries);

    // Closes the readers of a directory and of all below it.
    void Close(const char* pcPath);

    // Closes all readers; false if there was none.
    bool CloseAll();

private:
    static constexpr size_t LIMIT = 32;  // readers: a few for each connection of the NFS port

    struct Position {
        std::unique_ptr<CFolderReader> pFolder;
        unsigned int iEntries;
    };

    std::vector<Position> m_vPositions;  // oldest first
};
