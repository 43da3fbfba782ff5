// One backup session that uses an exported directory.
#pragma once

#include <string>

struct SessionInfo {
    std::string sSessionID;       // the table's key
    std::string sLocalMountPath;  // as given, not canonicalised
};
