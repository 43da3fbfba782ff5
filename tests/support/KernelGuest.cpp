#include "KernelGuest.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <elf.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "WireClient.h"

namespace {

constexpr char EMULATOR[] = "/usr/bin/qemu-system-x86_64";
constexpr char BUSYBOX[] = "/bin/busybox";
constexpr char GUEST_ADDRESS_OF_HOST[] = "10.0.2.2";
// No disk, and a serial port that is our pipe. A reboot ends it.
constexpr char MACHINE[] = "-nodefaults -no-user-config -no-reboot -display none -serial stdio "
                           "-accel tcg,thread=multi -cpu max -smp 2 -m 512 "
                           "-nic user,model=virtio-net-pci";

// The kernel itself speaks at the serial port only when it dies, and then it ends the guest.
constexpr char KERNEL_SETTINGS[] = "console=ttyS0 loglevel=1 oops=panic panic=-1";

constexpr char LAST_LINE[] = "GUEST-ENDS";

// What brings the guest to the network and to NFS, each after what it needs.
const std::vector<std::string> NFS_MODULES = {
    "virtio_ring",
    "virtio",
    "virtio_pci_legacy_dev",
    "virtio_pci_modern_dev",
    "virtio_pci",
    "failover",
    "net_failover",
    "virtio_net",
    "sunrpc",
    "grace",
    "lockd",
    "netfs",
    "fscache",
    "nfs_acl",
    "nfs",
    "nfsv3",
};

// A file system in the form that the kernel unpacks into its memory at boot ("newc" of cpio). Each
// entry is a header of hexadecimal numbers, the name with its zero, and the contents, the last two
// filled up to a multiple of four.
class CArchive {
public:
    void AddFolder(const std::string& sName) { Add(sName, S_IFDIR | 0755, {}); }
    void AddFile(const std::string& sName, const std::string& sContents)
    {
        Add(sName, S_IFREG | 0755, sContents);
    }
    void AddLink(const std::string& sName, const std::string& sTarget)
    {
        Add(sName, S_IFLNK | 0777, sTarget);
    }

    const std::string& Finish()
    {
        Add("TRAILER!!!", 0, {});
        return m_sBytes;
    }

private:
    void Add(const std::string& sName, uint32_t iMode, const std::string& sContents)
    {
        char cHeader[111];
        snprintf(cHeader, sizeof(cHeader),
                 "070701%08X%08X%08X%08X%08X%08X%08zX%08X%08X%08X%08X%08zX%08X", ++m_iNode, iMode,
                 0, 0, 1, 0, sContents.size(), 0, 0, 0, 0, sName.size() + 1, 0);
        m_sBytes += cHeader + sName + '\0';
        Pad();
        m_sBytes += sContents;
        Pad();
    }

    void Pad() { m_sBytes.resize((m_sBytes.size() + 3) / 4 * 4); }

    std::string m_sBytes;
    uint32_t m_iNode = 0;
};

// The guest has no libraries, so only the busybox that needs none will do.
bool IsStaticProgram(const char* pcPath)
{
    std::string sBytes(0x1000, '\0');  // has all the headers
    std::ifstream file(pcPath, std::ios::binary);
    file.read(sBytes.data(), static_cast<std::streamsize>(sBytes.size()));
    sBytes.resize(static_cast<size_t>(file.gcount()));
    Elf64_Ehdr header;
    if (sBytes.size() < sizeof(header))
        return false;
    memcpy(&header, sBytes.data(), sizeof(header));
    for (size_t i = 0; i < header.e_phnum; i++) {
        Elf64_Phdr segment;
        const size_t iPosition = header.e_phoff + i * sizeof(segment);
        if (iPosition + sizeof(segment) > sBytes.size())
            return false;
        memcpy(&segment, sBytes.data() + iPosition, sizeof(segment));
        if (segment.p_type == PT_INTERP)
            return false;
    }
    return true;
}

std::string KernelFile(const std::string& sName)
{
    return std::string(GUEST_KERNEL_DIR) + "/" + sName;
}

std::string SourceFile(const std::string& sName)
{
    return ReadWholeFile(std::string(GUEST_SOURCE_DIR) + "/" + sName);
}

// For sh, in single quotes.
std::string Quote(const std::string& sText)
{
    return "'" + std::regex_replace(sText, std::regex("'"), "'\\''") + "'";
}

// What the job's script finds in its environment.
std::string Settings(const GuestJob& job)
{
    std::map<std::string, std::string> mVariables = {
        {"SERVER", GUEST_ADDRESS_OF_HOST},
        {"MOUNT_PORT", std::to_string(WIRE_MOUNT_PORT)},
        {"NFS_PORT", std::to_string(WIRE_NFS_PORT)},
        {"JOB_SECONDS", std::to_string(job.iSeconds)},
    };
    mVariables.insert(job.mVariables.begin(), job.mVariables.end());
    std::string sSettings;
    for (const auto& [sName, sValue] : mVariables)
        sSettings += "export " + sName + "=" + Quote(sValue) + "\n";
    return sSettings;
}

}  // namespace

std::string CKernelGuest::WhatIsMissing()
{
    if (!std::filesystem::exists(EMULATOR))
        return "the package qemu-system-x86";
    if (!IsStaticProgram(BUSYBOX))
        return "the package busybox-static";
    if (!std::filesystem::exists(KernelFile("complete")))
        return "the kernel that scripts/fetch-guest-kernel brings";
    return {};
}

std::string CKernelGuest::WriteInitrd(const GuestJob& job) const
{
    CArchive archive;
    archive.AddFolder("bin");
    archive.AddFile("bin/busybox", ReadWholeFile(BUSYBOX));
    archive.AddLink("bin/sh", "busybox");
    archive.AddFile("init", SourceFile("init.sh"));
    archive.AddFile("lib.sh", SourceFile("lib.sh"));
    archive.AddFile("job.sh", SourceFile(job.sScript));

    std::vector<std::string> vModules = NFS_MODULES;
    vModules.insert(vModules.end(), job.vModules.begin(), job.vModules.end());
    std::string sOrder;
    archive.AddFolder("modules");
    for (const std::string& sModule : vModules) {
        const std::string sFile = sModule + ".ko";
        if (std::filesystem::exists(KernelFile(sFile)))  // else it is part of the kernel
            archive.AddFile("modules/" + sFile, ReadWholeFile(KernelFile(sFile)));
        sOrder += sModule + "\n";
    }
    archive.AddFile("modules/order", sOrder);

    archive.AddFile("settings", Settings(job));
    for (const auto& [sGuestPath, sPath] : job.mFiles)
        archive.AddFile(sGuestPath.substr(sGuestPath.find_first_not_of('/')), ReadWholeFile(sPath));
    return m_Scratch.Write("initrd", archive.Finish());
}

bool CKernelGuest::Run(const GuestJob& job)
{
    m_mResults.clear();
    m_vKernelLog.clear();
    std::vector<std::string> vCommand = {EMULATOR};
    std::istringstream machine(MACHINE);
    for (std::string sWord; machine >> sWord;)
        vCommand.push_back(sWord);
    vCommand.insert(vCommand.end(), {"-kernel", KernelFile("vmlinuz"), "-initrd", WriteInitrd(job),
                                     "-append", KERNEL_SETTINGS});
    CChildProcess emulator(vCommand);
    return Parse(emulator.ReadUntil(LAST_LINE));
}

bool CKernelGuest::Parse(const std::string& sOutput)
{
    int iExit = -1;
    std::string sTold;
    std::istringstream output(sOutput);
    for (std::string sLine; std::getline(output, sLine);) {
        sLine.erase(sLine.find_last_not_of(" \r") + 1);
        std::istringstream words(sLine);
        std::string sKind;
        words >> sKind;
        if (sKind == "TICK")
            continue;
        sTold += sLine + "\n";
        if (sKind == "RESULT") {
            std::string sName;
            std::string sValue;
            words >> sName >> std::ws;
            std::getline(words, sValue);
            m_mResults.emplace(sName, sValue);
        } else if (sKind == "DMESG") {
            m_vKernelLog.push_back(sLine.substr(sKind.size() + 1));
        } else if (sKind == "EXIT") {
            words >> iExit;
        } else if (sKind == "FAILED") {
            ADD_FAILURE() << "In the guest: " << sLine;
        }
    }
    std::cout << sTold << std::flush;
    EXPECT_EQ(iExit, 0) << "The job did not come to its end";
    return iExit == 0;
}

std::string CKernelGuest::Result(const std::string& sName) const
{
    const std::vector<std::string> vValues = Results(sName);
    if (vValues.size() == 1)
        return vValues[0];
    ADD_FAILURE() << "The guest tells " << vValues.size() << " results \"" << sName << "\"";
    return {};
}

std::vector<std::string> CKernelGuest::Results(const std::string& sName) const
{
    std::vector<std::string> vValues;
    const auto [first, last] = m_mResults.equal_range(sName);
    for (auto it = first; it != last; ++it)
        vValues.push_back(it->second);
    return vValues;
}

std::string CKernelGuest::Complaints() const
{
    const std::regex trouble("nfs|rpc|lockd|server|fileid|cookie|readdir|bug|warning|oops|"
                             "hung|blocked for|out of memory",
                             std::regex::icase);
    std::string sResult;
    for (const std::string& sLine : m_vKernelLog) {
        if (std::regex_search(sLine, trouble))
            sResult += sLine + "\n";
    }
    return sResult;
}
