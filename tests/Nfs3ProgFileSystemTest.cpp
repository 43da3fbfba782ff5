// FSSTAT, FSINFO and PATHCONF.
#include <dlfcn.h>
#include <optional>
#include <sys/statfs.h>
#include <sys/statvfs.h>

#include <gtest/gtest.h>

#include "Nfs3Fixture.h"

namespace {

constexpr uint32_t FSSTAT = 18;
constexpr uint32_t FSINFO = 19;
constexpr uint32_t PATHCONF = 20;

// What the two system calls below answer for every path, while it is set.
std::optional<struct statvfs> g_pretendedFileSystem;
std::optional<unsigned long> g_iPretendedType;
bool g_bUnknown = false;  // neither answers

class Nfs3ProgFileSystem : public CNfs3ProgFixture {
protected:
    Nfs3ProgFileSystem() : m_sPath(m_folder.Write("file", "12345"))
    {
        Add(m_folder.Path(), "vm1");
        m_sHandle = HandleArgument(m_sPath);
        m_param.SetLogControl(LOG_CONTROL_ERROR | LOG_CONTROL_PROC_FUNC_ARGU);
    }
    ~Nfs3ProgFileSystem() override
    {
        g_pretendedFileSystem.reset();
        g_iPretendedType.reset();
        g_bUnknown = false;
    }

    // The reply of FSINFO to an object whose file system allows files of iMaximum bytes.
    std::string Info(uint64_t iMaximum) const
    {
        return CXdr()
            .Word(0)
            .Word(1)
            .Raw(AttributesOf(m_sPath))
            .Raw(Words({65536, 65536, 512, 16384, 16384, 512, 8192}))
            .Hyper(iMaximum)
            .Raw(Words({1, 0, 24}))
            .Bytes();
    }

    std::string m_sPath;
    std::string m_sHandle;
};

using Nfs3ProgFileSystemWire = CNfs3WireFixture;

}  // namespace

// These two stand before the system's, to show file systems that no test machine has.
extern "C" int statvfs(const char* pcPath, struct statvfs* pInfo) noexcept
{
    if (g_bUnknown)
        return -1;
    if (g_pretendedFileSystem) {
        *pInfo = *g_pretendedFileSystem;
        return 0;
    }
    using Function = int (*)(const char*, struct statvfs*);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "statvfs"))(pcPath, pInfo);
}

extern "C" int statfs(const char* pcPath, struct statfs* pInfo) noexcept
{
    if (g_bUnknown)
        return -1;
    if (g_iPretendedType) {
        pInfo->f_type = static_cast<decltype(pInfo->f_type)>(*g_iPretendedType);
        return 0;
    }
    using Function = int (*)(const char*, struct statfs*);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "statfs"))(pcPath, pInfo);
}

TEST_F(Nfs3ProgFileSystem, Fsstat_TellsSpaceAndSlotsInTheirOrder)
{
    struct statvfs info = {};
    info.f_bsize = 1000000;
    info.f_frsize = 4096;
    info.f_blocks = 0x1000000000;
    info.f_bfree = 0x200000000;
    info.f_bavail = 0x100000000;
    info.f_files = 5000000000;
    info.f_ffree = 4000000000;
    info.f_favail = 3;
    info.f_fsid = 0x1234567890ABCDEF;
    g_pretendedFileSystem = info;
    const std::string sExpected = CXdr()
                                      .Word(0)
                                      .Word(1)
                                      .Raw(AttributesOf(m_sPath))
                                      .Hyper(0x1000000000000)  // tbytes, fbytes, abytes
                                      .Hyper(0x200000000000)
                                      .Hyper(0x100000000000)
                                      .Hyper(5000000000)  // tfiles, ffiles, afiles
                                      .Hyper(4000000000)
                                      .Hyper(4000000000)  // as ffiles
                                      .Word(0)            // invarsec
                                      .Bytes();
    const std::string sResults = Process(FSSTAT, m_sHandle);
    EXPECT_EQ(ToHex(sResults), ToHex(sExpected));
    EXPECT_EQ(sResults.substr(8 + 44, 8), FromHex("12345678 90abcdef"));  // the attributes' fsid
    EXPECT_EQ(m_iResult, PRC_OK);
    EXPECT_TRUE(m_recorder.Contains("info|vm1|[Nfs3Prog.ProcedureFSSTAT] End stat=0"));
}

TEST_F(Nfs3ProgFileSystem, Fsstat_OfAFileSystemThatCannotBeAsked_IsAllOnes)
{
    g_bUnknown = true;
    const std::string sResults = Process(FSSTAT, m_sHandle);
    ASSERT_EQ(sResults.size(), 4U + 88 + 52);
    EXPECT_EQ(GetWord(sResults, 0), 0U);
    EXPECT_EQ(sResults.substr(8 + 44, 8), Words({0, 4}));  // fsid
    EXPECT_EQ(sResults.substr(92), std::string(48, '\xFF') + Words({0}));
}

TEST_F(Nfs3ProgFileSystem, Fsinfo_TellsTheFixedValues)
{
    EXPECT_EQ(ToHex(Process(FSINFO, m_sHandle)), ToHex(Info(2199023255552)));  // a tmpfs
    EXPECT_EQ(m_iResult, PRC_OK);
    EXPECT_TRUE(m_recorder.Contains("info|vm1|[Nfs3Prog.ProcedureFSINFO] End stat=0"));
}

TEST_F(Nfs3ProgFileSystem, Fsinfo_MaximumFileSizeDependsOnTheFileSystem)
{
    for (const auto& [iType, iMaximum] :
         {std::pair<unsigned long, uint64_t>{0x52654973, uint64_t{1} << 43},
          {0x4D44, uint64_t{1} << 32},
          {0xEF53, uint64_t{1} << 41},
          {0x12345678, uint64_t{1} << 41}}) {
        g_iPretendedType = iType;
        EXPECT_EQ(ToHex(Process(FSINFO, m_sHandle)), ToHex(Info(iMaximum)));
    }
    g_bUnknown = true;
    EXPECT_EQ(Process(FSINFO, m_sHandle).substr(120, 8), CXdr().Hyper(uint64_t{1} << 41).Bytes());
}

TEST_F(Nfs3ProgFileSystem, Fsinfo_OfAReadOnlyProgram_IsTheSame)
{
    m_prog.SetReadOnly(true);
    EXPECT_EQ(ToHex(Process(FSINFO, m_sHandle)), ToHex(Info(2199023255552)));
}

TEST_F(Nfs3ProgFileSystem, UnknownAndMissingObjects_AreIoErrors)
{
    const std::string sUnknown = CXdr().Opaque(MakeHandle(999)).Bytes();
    std::filesystem::remove(m_sPath);
    for (const auto& [iProc, sName] :
         {std::pair<uint32_t, std::string>{FSSTAT, "FSSTAT"}, {FSINFO, "FSINFO"}}) {
        m_param.SetID("host");
        EXPECT_EQ(Process(iProc, sUnknown), Words({5, 0}));
        EXPECT_TRUE(m_recorder.Contains("error|host|[Nfs3Prog.Procedure" + sName +
                                        "] Path record not found"));
        m_recorder.Clear();
        EXPECT_EQ(Process(iProc, m_sHandle), Words({5, 0}));
        EXPECT_FALSE(m_recorder.Contains("Path record not found"));
        EXPECT_TRUE(m_recorder.Contains("info|vm1|[Nfs3Prog.Procedure" + sName + "] End stat=5"));
    }
}

TEST_F(Nfs3ProgFileSystem, Pathconf_IsRefused)
{
    EXPECT_EQ(Process(PATHCONF, m_sHandle), Words({5, 0}));
    EXPECT_EQ(m_iResult, PRC_OK);
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"error|host|[Nfs3Prog.ProcedurePATHCONF] Path record not found",
                     "info|host|[Nfs3Prog.ProcedurePATHCONF] End stat=5"}));
}

TEST_F(Nfs3ProgFileSystemWire, RepliesAreWhole)
{
    m_Folder.Write("file", "12345");
    const std::string sHandle = HandleArgument("file");
    const std::string sStat = Results(FSSTAT, sHandle);
    ASSERT_EQ(sStat.size(), 4U + 88 + 52);
    EXPECT_EQ(sStat.substr(4, 88), Words({1}) + AttributesOf(m_Folder.Path("file")));
    EXPECT_EQ(sStat.substr(92 + 32, 8), sStat.substr(92 + 40, 8));  // ffiles and afiles

    const std::string sInfo = Results(FSINFO, sHandle);
    EXPECT_EQ(ToHex(sInfo.substr(92)), "00010000 00010000 00000200 00004000 00004000 00000200 "
                                       "00002000 00000200 00000000 00000001 00000000 00000018");
    EXPECT_EQ(Results(PATHCONF, sHandle), Words({5, 0}));
    EXPECT_EQ(Results(FSINFO, RootArgument()).size(), sInfo.size());
}
