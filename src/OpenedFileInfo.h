// One entry of the descriptor cache.
#pragma once

#include <ctime>
#include <string>

struct OpenedFileInfo {
    int iFile = -1;        // the descriptor; -1 after an open that failed
    std::string sTimeKey;  // the entry's key in the access list
    time_t iTime = -1;     // the second in sTimeKey; -1 before there is one
    std::string sPath;     // the path that it was opened by
};
