// The library as a file: what it shows to whoever loads it, and what it needs.
#include <algorithm>
#include <cstring>
#include <dlfcn.h>
#include <elf.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestEnvironment.h"

namespace {

using Names = std::vector<std::string>;

const std::string NAME_START = "Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_";

const Names METHODS = {
    "addMountPoint",
    "addRedirectedFileSegment",
    "addSession",
    "addVSphereInfo",
    "closeAllOpenedFiles",
    "closeAllRedirectedFiles",
    "closeOpenedFile",
    "closeRedirectedFile",
    "exportRedirectedFile",
    "exportRedirectedFileInfo",
    "getAccessMode",
    "getDescription",
    "getMountInfo",
    "getServerStatus",
    "getSessionInfo",
    "getVersion",
    "initial",
    "isLocalSessionExists",
    "isServerRunning",
    "isSessionExists",
    "openRedirectedFile",
    "receiveCallbackLoop",
    "removeMountPoint",
    "removeSession",
    "removeVSphereInfo",
    "runTestMode",
    "setLogControl",
    "startRemoteController",
    "startServer",
    "stopRemoteController",
    "stopServer",
    "terminate",
};

// What its users have without development packages: a compiler's runtime libraries and ONC RPC.
const Names ALLOWED = {
    "libc.so.6",  "libgcc_s.so.1",  "libm.so.6",      "libpthread.so.0", "libdl.so.2",
    "librt.so.1", "libresolv.so.2", "libstdc++.so.6", "libtirpc.so.3",   "ld-linux-x86-64.so.2",
};

// The tables of an ELF file that the loader reads.
class CElfFile {
public:
    explicit CElfFile(const std::string& sPath) : m_sBytes(ReadWholeFile(sPath))
    {
        const auto header = Get<Elf64_Ehdr>(0);
        for (size_t i = 0; i < header.e_shnum; i++)
            m_vSections.push_back(Get<Elf64_Shdr>(header.e_shoff + i * header.e_shentsize));
    }

    // The symbols that others can use, in alphabetical order.
    Names GetExports() const
    {
        Names vNames;
        ForEach<Elf64_Sym>(SHT_DYNSYM, [&](const Elf64_Sym& symbol, size_t iNames) {
            if (symbol.st_shndx != SHN_UNDEF && ELF64_ST_BIND(symbol.st_info) != STB_LOCAL)
                vNames.emplace_back(&m_sBytes[iNames + symbol.st_name]);
        });
        std::sort(vNames.begin(), vNames.end());
        return vNames;
    }

    // The texts of a kind of entry of the dynamic section.
    Names GetDynamicTexts(Elf64_Sxword iTag) const
    {
        Names vNames;
        ForEach<Elf64_Dyn>(SHT_DYNAMIC, [&](const Elf64_Dyn& entry, size_t iNames) {
            if (entry.d_tag == iTag)
                vNames.emplace_back(&m_sBytes[iNames + entry.d_un.d_val]);
        });
        return vNames;
    }

private:
    template <typename Record>
    Record Get(size_t iPosition) const
    {
        Record record = {};
        EXPECT_LE(iPosition + sizeof(record), m_sBytes.size());
        if (iPosition + sizeof(record) <= m_sBytes.size())
            memcpy(&record, &m_sBytes[iPosition], sizeof(record));
        return record;
    }

    // Calls with every record of the sections of a type, and with where their names begin.
    template <typename Record, typename Operation>
    void ForEach(Elf64_Word iType, Operation operation) const
    {
        for (const Elf64_Shdr& section : m_vSections) {
            if (section.sh_type != iType)
                continue;
            for (size_t i = 0; i + sizeof(Record) <= section.sh_size; i += sizeof(Record))
                operation(Get<Record>(section.sh_offset + i),
                          m_vSections.at(section.sh_link).sh_offset);
        }
    }

    std::string m_sBytes;
    std::vector<Elf64_Shdr> m_vSections;
};

Names GetFullNames()
{
    Names vNames;
    for (const std::string& sMethod : METHODS)
        vNames.push_back(NAME_START + sMethod);
    return vNames;
}

}  // namespace

TEST(Library, Exports_AreTheNativeMethodsAndNothingElse)
{
    EXPECT_EQ(METHODS.size(), 32U);
    EXPECT_EQ(CElfFile(LIBRARY).GetExports(), GetFullNames());
}

TEST(Library, Needs_NothingButRuntimeLibrariesAndOncRpc)
{
    const CElfFile library(LIBRARY);
    const Names vNeeded = library.GetDynamicTexts(DT_NEEDED);
    EXPECT_NE(std::find(vNeeded.begin(), vNeeded.end(), "libc.so.6"), vNeeded.end());
    for (const std::string& sName : vNeeded)
        EXPECT_NE(std::find(ALLOWED.begin(), ALLOWED.end(), sName), ALLOWED.end()) << sName;
    EXPECT_EQ(library.GetDynamicTexts(DT_RPATH), Names());
    EXPECT_EQ(library.GetDynamicTexts(DT_RUNPATH), Names());
}

TEST(Library, Load_FindsAllThatItNeeds)
{
    void* pLibrary = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(pLibrary, nullptr) << dlerror();
    for (const std::string& sName : GetFullNames())
        EXPECT_NE(dlsym(pLibrary, sName.c_str()), nullptr) << sName;
    dlclose(pLibrary);
}
