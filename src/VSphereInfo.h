// One NFS datastore that was created on a hypervisor host for an export.
#pragma once

#include <string>

struct VSphereInfo {
    std::string sDatastoreMoid;  // managed-object ID; the table's key
    std::string sHost;
    std::string sPort;
    std::string sUser;
    std::string sPwd;  // only handed on to the clean-up, never written anywhere
};
