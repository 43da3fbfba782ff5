// A Linux kernel in an emulated machine: the client of a server that nobody here wrote.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "TestEnvironment.h"

// What a guest is to do. The job is an sh script; all of busybox is there, `. /lib.sh` gives it the
// helpers of tests/guest/lib.sh, and it tells its findings with lines "RESULT name value".
struct GuestJob {
    std::string sScript;                            // name of a file in tests/guest
    std::map<std::string, std::string> mVariables;  // exported to the script
    std::map<std::string, std::string> mFiles;      // path in the guest -> file here
    std::vector<std::string> vModules = {};         // kernel modules beyond those for NFS, in order
    int iSeconds = 240;                             // the job is killed after that long
};

// Boots a guest, runs one job in it and keeps what it printed. The guest has no disk; the loopback
// of the test's namespace is its host 10.0.2.2, and it dies with the test. Booting costs some four
// seconds of both cores.
class CKernelGuest {
public:
    // What of the emulator, its tools and the kernel is not installed; empty if a guest can run.
    static std::string WhatIsMissing();

    // Returns once the guest has ended. A guest or job that does not come to its end is a test
    // failure that shows everything printed until then; false then too.
    bool Run(const GuestJob& job);

    // The value of a finding. None, or more than one of that name, is a test failure.
    std::string Result(const std::string& sName) const;

    // The values of all findings of that name, in their order.
    std::vector<std::string> Results(const std::string& sName) const;

    // What the kernel logged during the job.
    const std::vector<std::string>& KernelLog() const { return m_vKernelLog; }

    // The lines of that log which speak of NFS, of RPC, or of a kernel in trouble.
    std::string Complaints() const;

private:
    std::string WriteInitrd(const GuestJob& job) const;
    bool Parse(const std::string& sOutput);

    CScratchFolder m_Scratch;
    std::multimap<std::string, std::string> m_mResults;
    std::vector<std::string> m_vKernelLog;
};
