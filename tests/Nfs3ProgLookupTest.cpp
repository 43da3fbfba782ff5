// GETATTR, SETATTR, LOOKUP, ACCESS and READLINK as clients see them.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Nfs3Fixture.h"

namespace {

constexpr uint32_t GETATTR = 1;
constexpr uint32_t SETATTR = 2;
constexpr uint32_t LOOKUP = 3;
constexpr uint32_t ACCESS = 4;
constexpr uint32_t READLINK = 5;

const std::string NO_GUARD = Words({0});
const std::string SET_NOTHING = Words({0, 0, 0, 0, 0, 0});
const std::string SET_DONE = Words({0, 0, 0});  // status, and both halves absent
const std::string SET_REFUSED = Words({22, 0, 0});
const std::string LOOKUP_MISSING = Words({2, 0});

std::string SetMode(uint32_t iMode)
{
    return Words({1, iMode, 0, 0, 0, 0, 0});
}

std::string SetSize(uint64_t iSize)
{
    return CXdr().Raw(Words({0, 0, 0, 1})).Hyper(iSize).Raw(Words({0, 0})).Bytes();
}

class Nfs3ProgLookup : public CNfs3WireFixture {
protected:
    std::string CallLookup(const std::string& sDirectory, const std::string& sName)
    {
        return Results(LOOKUP, CXdr().Opaque(sDirectory).String(sName).Bytes());
    }

    // What LOOKUP answers for a file that it finds, whose handle the reply holds.
    static std::string Found(const std::string& sReply, const std::string& sPath)
    {
        return CXdr()
            .Word(0)
            .Opaque(sReply.size() < 64 ? "" : sReply.substr(8, 56))
            .Word(1)
            .Raw(AttributesOf(sPath))
            .Word(0)
            .Bytes();
    }

    mode_t GetMode(const std::string& sName) const { return GetStat(sName).st_mode & 07777; }
    off_t GetSize(const std::string& sName) const { return GetStat(sName).st_size; }

    struct stat GetStat(const std::string& sName) const
    {
        struct stat info = {};
        EXPECT_EQ(lstat(m_Folder.Path(sName).c_str(), &info), 0);
        return info;
    }
};

class Nfs3ProgLookupReadOnly : public Nfs3ProgLookup {
protected:
    void SetUp() override { StartMounted(true); }
};

}  // namespace

TEST_F(Nfs3ProgLookup, Getattr_TellsTheAttributes)
{
    const std::string sPath = m_Folder.Write("file", "12345");
    EXPECT_EQ(ToHex(Results(GETATTR, HandleArgument("file"))),
              ToHex(Words({0}) + AttributesOf(sPath)));
    EXPECT_EQ(ToHex(Results(GETATTR, RootArgument())),
              ToHex(Words({0}) + AttributesOf(m_Folder.Path())));
    EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureGETATTR] End stat=0"));
}

TEST_F(Nfs3ProgLookup, Getattr_SeesWhatChangedBehindTheServer)
{
    m_Folder.Write("file", "12345");
    const std::string sHandle = HandleArgument("file");
    Results(GETATTR, sHandle);
    const std::string sPath = m_Folder.Write("file", "1234567890");
    EXPECT_EQ(ToHex(Results(GETATTR, sHandle)), ToHex(Words({0}) + AttributesOf(sPath)));
}

TEST_F(Nfs3ProgLookup, Getattr_OfUnknownAndMissingObjects_IsAnIoError)
{
    m_Folder.Write("file", "x");
    const std::string sHandle = HandleArgument("file");
    std::filesystem::remove(m_Folder.Path("file"));
    EXPECT_EQ(Results(GETATTR, sHandle), Words({5}));
    EXPECT_FALSE(m_Log.Contains("Path record not found"));
    EXPECT_EQ(Results(GETATTR, CXdr().Opaque(MakeHandle(999)).Bytes()), Words({5}));
    EXPECT_TRUE(
        m_Log.Contains("error|127.0.0.1|[Nfs3Prog.ProcedureGETATTR] Path record not found"));
    EXPECT_EQ(m_Log.Count("[Nfs3Prog.ProcedureGETATTR] End stat=5"), 2U);
}

TEST_F(Nfs3ProgLookup, Call_AfterACallForAnExport_StartsAsTheClients)
{
    Results(GETATTR, RootArgument());
    m_Log.Clear();
    Results(0, "");
    Results(GETATTR, CXdr().Opaque(MakeHandle(999)).Bytes());
    EXPECT_EQ(m_Log.Count("info|127.0.0.1|[Nfs3Prog.Process]"), 2U);
    EXPECT_EQ(m_Log.Count("|vm1|"), 0U);
}

TEST_F(Nfs3ProgLookup, Getattr_UnderARemovedExport_IsAnIoError)
{
    const CScratchFolder other;
    Export(other.Path(), "other");
    m_pMain->RemoveMountPoint(m_Folder.Path().c_str());
    EXPECT_EQ(Results(GETATTR, RootArgument()), Words({5}));
}

TEST_F(Nfs3ProgLookup, Setattr_OfMode_SetsItAsSent)
{
    m_Folder.Write("file", "x");
    EXPECT_EQ(Results(SETATTR, HandleArgument("file") + SetMode(07751) + NO_GUARD), SET_DONE);
    EXPECT_EQ(GetMode("file"), 07751U);
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureSETATTR] Guard check: 0, time: 0"));
    EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureSETATTR] End stat=0"));
}

TEST_F(Nfs3ProgLookup, Setattr_OfSize_CutsAndGrows)
{
    m_Folder.Write("file", "12345");
    const std::string sHandle = HandleArgument("file");
    EXPECT_EQ(Results(SETATTR, sHandle + SetSize(2) + NO_GUARD), SET_DONE);
    EXPECT_EQ(ReadWholeFile(m_Folder.Path("file")), "12");
    EXPECT_EQ(Results(SETATTR, sHandle + SetSize(0x100000003) + NO_GUARD), SET_DONE);
    EXPECT_EQ(GetSize("file"), 0x100000003);
    EXPECT_EQ(Results(SETATTR, sHandle + SetSize(0) + NO_GUARD), SET_DONE);
    EXPECT_EQ(GetSize("file"), 0);
}

TEST_F(Nfs3ProgLookup, Setattr_OfOwnerAndGroup_SucceedsAndChangesNothing)
{
    const std::string sPath = m_Folder.Write("file", "12345");
    const std::string sHandle = HandleArgument("file");
    const std::string sBefore = AttributesOf(sPath);
    const std::string sOwner = Words({0, 1, 1000, 1, 1001, 0, 0, 0});
    EXPECT_EQ(Results(SETATTR, sHandle + sOwner + NO_GUARD), SET_DONE);
    EXPECT_EQ(Results(SETATTR, sHandle + SET_NOTHING + NO_GUARD), SET_DONE);
    EXPECT_EQ(ToHex(AttributesOf(sPath)), ToHex(sBefore));
}

TEST_F(Nfs3ProgLookup, Setattr_PassesEveryValueOn)
{
    const std::string sPath = m_Folder.Write("file", "x");
    const std::string sAll = Words({1, 0100644, 1, 7, 1, 8, 1, 0, 9, 2, 10, 11, 2, 12, 13});
    EXPECT_EQ(Results(SETATTR, HandleArgument("file") + sAll + NO_GUARD), SET_DONE);
    EXPECT_TRUE(m_Log.Contains(
        "[Nfs3Prog.ProcedureSETATTR] Update file attributes, path=" + sPath +
        ", set_mode=1, mode=33188, set_uid=1, uid=7, set_gid=1, gid=8, set_size=1, size=9, "
        "set_atime=1, atime.sec=10, atime.nsec=11, set_mtime=1, mtime.sec=12, mtime.nsec=13"));
}

TEST_F(Nfs3ProgLookup, Setattr_ToServerTime_PassesATimeOfZero)
{
    m_Folder.Write("file", "x");
    const std::string sTimes = Words({0, 0, 0, 0, 1, 1});
    EXPECT_EQ(Results(SETATTR, HandleArgument("file") + sTimes + NO_GUARD), SET_DONE);
    EXPECT_TRUE(m_Log.Contains("set_atime=1, atime.sec=0, atime.nsec=0, set_mtime=1, mtime.sec=0, "
                               "mtime.nsec=0"));
    EXPECT_EQ(Results(SETATTR, HandleArgument("file") + SET_NOTHING + NO_GUARD), SET_DONE);
    EXPECT_TRUE(m_Log.Contains("set_atime=0, atime.sec=0, atime.nsec=0, set_mtime=0, mtime.sec=0"));
}

TEST_F(Nfs3ProgLookup, Setattr_WithAGuard_KnowsOnlyTheTimeZero)
{
    m_Folder.Write("file", "12345");
    const std::string sHandle = HandleArgument("file");
    const auto iChanged = static_cast<uint32_t>(GetStat("file").st_ctime);
    EXPECT_EQ(Results(SETATTR, sHandle + SetSize(1) + Words({1, iChanged, 0})),
              Words({10002, 0, 0}));
    EXPECT_EQ(GetSize("file"), 5);
    const std::string sTime = std::to_string(iChanged);
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureSETATTR] Guard check: 1, time: " + sTime));
    EXPECT_TRUE(m_Log.Contains("error|vm1|[Nfs3Prog.ProcedureSETATTR] Guard check fail, client: 0, "
                               "server: " +
                               sTime));
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureSETATTR] End stat=10002"));
    EXPECT_EQ(m_Log.Count("Update file attributes"), 0U);

    // Nanoseconds do not count.
    EXPECT_EQ(Results(SETATTR, sHandle + SetSize(1) + Words({1, 0, 999})), SET_DONE);
    EXPECT_EQ(GetSize("file"), 1);
}

TEST_F(Nfs3ProgLookup, Setattr_GuardOfAMissingFile_IsNotLookedAt)
{
    m_Folder.Write("file", "x");
    const std::string sHandle = HandleArgument("file");
    std::filesystem::remove(m_Folder.Path("file"));
    EXPECT_EQ(Results(SETATTR, sHandle + SetSize(1) + Words({1, 7, 7})), Words({5, 0, 0}));
    EXPECT_FALSE(m_Log.Contains("Guard check fail"));
    EXPECT_FALSE(std::filesystem::exists(m_Folder.Path("file")));
}

TEST_F(Nfs3ProgLookup, Setattr_ThatTheFileRefuses_IsInvalid)
{
    std::filesystem::create_directory(m_Folder.Path("folder"));
    m_Folder.Write("file", "x");
    EXPECT_EQ(Results(SETATTR, HandleArgument("folder") + SetSize(1) + NO_GUARD), SET_REFUSED);
    EXPECT_TRUE(m_Log.Contains("error|vm1|[Nfs3Prog.ProcedureSETATTR] Update file attribute to " +
                               m_Folder.Path("folder") + " fail"));
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureSETATTR] End stat=22"));
    for (const uint64_t iSize : {uint64_t{1} << 63, ~uint64_t{0}})
        EXPECT_EQ(Results(SETATTR, HandleArgument("file") + SetSize(iSize) + NO_GUARD),
                  SET_REFUSED);
    EXPECT_EQ(GetSize("file"), 1);
}

TEST_F(Nfs3ProgLookup, Setattr_OnAReadOnlyFileSystem_IsInvalid)
{
    const std::string sFolder = m_Folder.Path("frozen");
    std::filesystem::create_directory(sFolder);
    ASSERT_EQ(mount("tmpfs", sFolder.c_str(), "tmpfs", MS_RDONLY, "size=64k"), 0);
    EXPECT_EQ(Results(SETATTR, HandleArgument("frozen") + SetMode(0700) + NO_GUARD), SET_REFUSED);
    EXPECT_EQ(umount2(sFolder.c_str(), MNT_DETACH), 0);
}

TEST_F(Nfs3ProgLookup, Lookup_OfAFile_GivesHandleAndAttributes)
{
    const std::string sPath = m_Folder.Write("file", "12345");
    const std::string sReply = CallLookup(m_sRoot, "file");
    EXPECT_EQ(ToHex(sReply), ToHex(Found(sReply, sPath)));
    EXPECT_EQ(Results(GETATTR, sReply.substr(4, 60)), Words({0}) + AttributesOf(sPath));
    EXPECT_EQ(CallLookup(m_sRoot, "file"), sReply);  // the file keeps its number
    EXPECT_TRUE(m_Log.Contains(
        "info|127.0.0.1|[Nfs3Prog.ProcedureLOOKUP] Read path=" + m_Folder.Path() + ", name=file"));
    EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureLOOKUP] End stat=0"));
}

TEST_F(Nfs3ProgLookup, Lookup_OfAFolder_LeadsOn)
{
    std::filesystem::create_directory(m_Folder.Path("folder"));
    const std::string sPath = m_Folder.Write("folder/file with blanks", "x");
    const std::string sFolder = Lookup(m_sRoot, "folder");
    const std::string sReply = CallLookup(sFolder, "file with blanks");
    EXPECT_EQ(ToHex(sReply), ToHex(Found(sReply, sPath)));
}

TEST_F(Nfs3ProgLookup, Lookup_OfAMissingName_IsNoEntry)
{
    EXPECT_EQ(ToHex(CallLookup(m_sRoot, "missing")), ToHex(LOOKUP_MISSING));
    EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureLOOKUP] End stat=2"));
    EXPECT_FALSE(m_Log.Contains("Path record not found"));
    EXPECT_EQ(CallLookup(m_sRoot, std::string(300, 'n')), LOOKUP_MISSING);
    EXPECT_EQ(CallLookup(m_sRoot, "no/such/way"), LOOKUP_MISSING);
}

TEST_F(Nfs3ProgLookup, Lookup_InAnUnknownDirectory_IsNoEntry)
{
    EXPECT_EQ(CallLookup(MakeHandle(999), "name"), LOOKUP_MISSING);
    EXPECT_EQ(CallLookup("abc", "name"), LOOKUP_MISSING);
    EXPECT_EQ(m_Log.Count("error|127.0.0.1|[Nfs3Prog.ProcedureLOOKUP] Path record not found"), 2U);
}

TEST_F(Nfs3ProgLookup, Lookup_InAFile_IsNoEntry)
{
    m_Folder.Write("file", "x");
    EXPECT_EQ(CallLookup(Lookup(m_sRoot, "file"), "name"), LOOKUP_MISSING);
}

TEST_F(Nfs3ProgLookup, Lookup_OfTheParentOfTheRoot_IsNoEntry)
{
    EXPECT_EQ(CallLookup(m_sRoot, ".."), LOOKUP_MISSING);
    EXPECT_EQ(CallLookup(m_sRoot, "../.."), LOOKUP_MISSING);
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureLOOKUP] Path record not found"));
}

TEST_F(Nfs3ProgLookup, Lookup_OfTheParent_WithinAnEnclosingExport_Leads)
{
    std::filesystem::create_directory(m_Folder.Path("inner"));
    Export(m_Folder.Path("inner"), "vm0");
    EXPECT_EQ(Lookup(Mount("vm0"), ".."), m_sRoot);
}

TEST_F(Nfs3ProgLookup, Lookup_OfDotNames_StaysWithin)
{
    std::filesystem::create_directory(m_Folder.Path("folder"));
    EXPECT_EQ(Lookup(m_sRoot, "."), m_sRoot);
    EXPECT_EQ(Lookup(Lookup(m_sRoot, "folder"), ".."), m_sRoot);
    EXPECT_EQ(Lookup(m_sRoot, ""), m_sRoot);
}

TEST_F(Nfs3ProgLookup, Lookup_OfALink_GivesItsTarget)
{
    const CScratchFolder outside;
    const std::string sPath = m_Folder.Write("file", "x");
    std::filesystem::create_symlink("file", m_Folder.Path("good"));
    std::filesystem::create_symlink("nowhere", m_Folder.Path("dangling"));
    std::filesystem::create_symlink(outside.Path(), m_Folder.Path("escape"));
    EXPECT_EQ(Lookup(m_sRoot, "good"), Lookup(m_sRoot, "file"));
    EXPECT_EQ(CallLookup(m_sRoot, "dangling"), LOOKUP_MISSING);
    EXPECT_EQ(CallLookup(m_sRoot, "escape"), LOOKUP_MISSING);
}

TEST_F(Nfs3ProgLookup, Lookup_OfANameThatFillsAPath)
{
    EXPECT_EQ(CallLookup(m_sRoot, std::string(4095, 'n')), LOOKUP_MISSING);  // no room to join
    EXPECT_EQ(Lookup(m_sRoot, std::string(4096, 'n')), m_sRoot);             // reads as empty
    EXPECT_EQ(Lookup(m_sRoot, std::string(70000, 'n')), m_sRoot);
}

TEST_F(Nfs3ProgLookup, Access_IsGrantedAsAsked)
{
    const std::string sPath = m_Folder.Write("file", "x");
    std::filesystem::permissions(sPath, std::filesystem::perms::none);  // do not count
    const std::string sHandle = HandleArgument("file");
    for (const uint32_t iMask : {0x3FU, 0x01U, 0U, 0xFFFFFFFFU})
        EXPECT_EQ(ToHex(Results(ACCESS, sHandle + Words({iMask}))),
                  ToHex(Words({0, 1}) + AttributesOf(sPath) + Words({iMask})));
    EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureACCESS] Readonly: 0, access: 3f"));
}

TEST_F(Nfs3ProgLookup, Access_OfUnknownAndMissingObjects_IsAnIoError)
{
    m_Folder.Write("file", "x");
    const std::string sHandle = HandleArgument("file");
    std::filesystem::remove(m_Folder.Path("file"));
    EXPECT_EQ(Results(ACCESS, sHandle + Words({0x3F})), Words({5, 0}));
    EXPECT_EQ(Results(ACCESS, CXdr().Opaque(MakeHandle(999)).Word(0x3F).Bytes()), Words({5, 0}));
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureACCESS] Path record not found"));
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureACCESS] End stat=5"));
}

TEST_F(Nfs3ProgLookup, Readlink_IsRefused)
{
    EXPECT_EQ(Results(READLINK, RootArgument()), Words({5, 0}));
    EXPECT_TRUE(
        m_Log.Contains("error|127.0.0.1|[Nfs3Prog.ProcedureREADLINK] Path record not found"));
    EXPECT_TRUE(m_Log.Contains("info|127.0.0.1|[Nfs3Prog.ProcedureREADLINK] End stat=5"));
}

TEST_F(Nfs3ProgLookupReadOnly, Access_GrantsOnlyReadAndLookup)
{
    const std::string sPath = m_Folder.Write("file", "x");
    const std::string sHandle = HandleArgument("file");
    EXPECT_EQ(ToHex(Results(ACCESS, sHandle + Words({0x3F}))),
              ToHex(Words({0, 1}) + AttributesOf(sPath) + Words({0x03})));
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureACCESS] Readonly: 1, access: 3f"));
    for (const uint32_t iBit : {0x04U, 0x08U, 0x10U, 0x20U})
        EXPECT_EQ(GetWord(Results(ACCESS, sHandle + Words({iBit})), 92), 0U);
}

TEST_F(Nfs3ProgLookupReadOnly, Setattr_IsDoneAllTheSame)
{
    m_Folder.Write("file", "12345");
    EXPECT_EQ(Results(SETATTR, HandleArgument("file") + SetSize(1) + NO_GUARD), SET_DONE);
    EXPECT_EQ(GetSize("file"), 1);
}

TEST_F(Nfs3ProgLookupReadOnly, Lookup_IsNotAffected)
{
    const std::string sPath = m_Folder.Write("file", "x");
    const std::string sReply = CallLookup(m_sRoot, "file");
    EXPECT_EQ(ToHex(sReply), ToHex(Found(sReply, sPath)));
}
