// One export.
#pragma once

#include <string>

struct MountInfo {
    std::string sLocalMountPath;  // canonical absolute path of the exported directory
    std::string sExportName;      // name under which clients mount it; the table's key
    std::string sIcpID;           // process that defined the export, else empty (kept spelling)
    std::string sRemoteIpAddr;    // client that has it mounted, empty when nobody has
};
