// The NFS program as an object: dispatch, the frame of its procedures, attributes and paths.
#include "Nfs3Prog.h"

#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "Nfs3Fixture.h"
#include "Nfs3Xdr.h"
#include "NfsProg.h"
#include "UnreadablePath.h"

namespace {

const std::string FULL_SATTR = Words({1, 0644, 1, 1, 1, 1, 1, 0, 3, 2, 4, 5, 2, 6, 7});

// The procedures that take an object's handle first: what follows it, and how each refuses.
struct ObjectProcedure {
    uint32_t iProc;
    const char* pcName;
    std::string sRest;
    std::string sRefusal;
};

const std::vector<ObjectProcedure> OBJECT_PROCEDURES = {
    {1, "GETATTR", "", Words({5})},
    {2, "SETATTR", FULL_SATTR + Words({1, 0, 0}), Words({5, 0, 0})},
    {3, "LOOKUP", CXdr().String("name").Bytes(), Words({2, 0})},
    {4, "ACCESS", Words({0x3F}), Words({5, 0})},
    {5, "READLINK", "", Words({5, 0})},
    {6, "READ", Words({0, 0, 4}), Words({5, 0})},
    {7, "WRITE", Words({0, 0, 5, 0}) + CXdr().Opaque("hello").Bytes(), Words({5, 0, 0})},
    {8, "CREATE", CXdr().String("name").Word(0).Raw(FULL_SATTR).Bytes(), Words({5, 0, 0})},
    {9, "MKDIR", CXdr().String(".").Raw(FULL_SATTR).Bytes(), Words({5, 0, 0})},
    {10, "SYMLINK", CXdr().String("name").Raw(FULL_SATTR).String("text").Bytes(), Words({5, 0, 0})},
    {11, "MKNOD", CXdr().String("name").Word(3).Raw(FULL_SATTR).Word(4).Word(5).Bytes(),
     Words({10004, 0, 0})},
    {12, "REMOVE", CXdr().String("missing").Bytes(), Words({2, 0, 0})},
    {13, "RMDIR", CXdr().String("missing").Bytes(), Words({2, 0, 0})},
    {14, "RENAME", CXdr().String("missing").Opaque(MakeHandle(0)).String("to").Bytes(),
     Words({2, 0, 0, 0, 0})},
    {15, "LINK", CXdr().Opaque(MakeHandle(0)).String("name").Bytes(), Words({5, 0, 0, 0})},
    {16, "READDIR", Words({0, 0, 1, 2, 512}), Words({5, 0})},
    {17, "READDIRPLUS", Words({0, 0, 1, 2, 512, 8192}), Words({5, 0})},
    {18, "FSSTAT", "", Words({5, 0})},
    {19, "FSINFO", "", Words({5, 0})},
    {20, "PATHCONF", "", Words({5, 0})},
    {21, "COMMIT", Words({0, 0, 4}), Words({5, 0, 0})},
};

// Throws something that is no truncation when a procedure announces itself.
class CThrowingUtilities : public CUtilities {
public:
    using CUtilities::LogInfo;
    void LogInfo(CRuntimeParam* pRuntimeParam, char* pcText) override
    {
        if (strcmp(pcText, "[Nfs3Prog.ProcedureNULL]") == 0)
            throw std::runtime_error("not a truncation");
        CUtilities::LogInfo(pRuntimeParam, pcText);
    }
};

class Nfs3Prog : public CNfs3ProgFixture {
protected:
    Nfs3Prog() { Add(m_folder.Path(), "vm1"); }
    ~Nfs3Prog() override { g_pcUnreadable = nullptr; }

    // What GetNfsFileAttributes tells, as bytes.
    std::string GetAttributes(const std::string& sPath)
    {
        fattr3 attributes;
        EXPECT_TRUE(m_prog.GetNfsFileAttributes(&m_param, &m_argu, sPath.c_str(), &attributes));
        COutputStream out;
        Write(&out, attributes);
        return GetWritten(out);
    }

    // One word of it.
    uint32_t GetAttribute(const std::string& sPath, size_t iWord)
    {
        return GetWord(GetAttributes(sPath), iWord * 4);
    }

    // What ReadPath makes of a directory's handle and a name; "(none)" if they do not resolve.
    std::string ReadEntryPath(const std::string& sDirectory, const std::string& sName)
    {
        CInputStream in;
        Receive(&in, HandleArgument(sDirectory) + CXdr().String(sName).Bytes());
        char cPath[PATH_SIZE] = "old";
        const bool bDone = m_prog.ReadPath(&m_param, &m_argu, &in, &m_entry, cPath);
        EXPECT_EQ(in.GetFilledBufferSize(), 0U);
        return bDone ? cPath : "(none)" + std::string(cPath);
    }

    diropargs3 m_entry;
};

constexpr size_t WORD_TYPE = 0;
constexpr size_t WORD_MODE = 1;
constexpr size_t WORD_RDEV = 9;

}  // namespace

TEST_F(Nfs3Prog, VersionAndProcedures)
{
    EXPECT_EQ(m_prog.GetVersion(), 3U);
    EXPECT_EQ(m_prog.GetMaxSupportProc(), 22U);
}

TEST_F(Nfs3Prog, NullProcedure_IsAnEmptySuccess)
{
    m_param.SetLogControl(LOG_CONTROL_PROC_FUNC_NAME);
    EXPECT_EQ(Process(0, "ignored"), "");
    EXPECT_EQ(m_iResult, PRC_OK);
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"info|host|[Nfs3Prog.Process]", "info|host|[Nfs3Prog.ProcedureNULL]"}));
}

TEST_F(Nfs3Prog, UnknownProcedure_IsNotImplemented)
{
    m_param.SetLogControl(LOG_CONTROL_PROC_FUNC_NAME);
    for (const uint32_t iProc : {22U, 23U, 0x80000000U, 0xFFFFFFFFU}) {
        m_recorder.Clear();
        EXPECT_EQ(Process(iProc, Words({1, 2, 3})), "");
        EXPECT_EQ(m_iResult, PRC_NOTIMP) << iProc;
        EXPECT_EQ(m_recorder.Lines(),
                  (Lines{"info|host|[Nfs3Prog.Process]", "info|host|[Nfs3Prog.ProcedureNOIMP]"}));
    }
}

TEST_F(Nfs3Prog, WithoutServiceObject_NothingIsImplemented)
{
    CNfs3Prog prog(nullptr);
    Process(&prog, 0, "");
    EXPECT_EQ(m_iResult, PRC_NOTIMP);
}

TEST_F(Nfs3Prog, EveryProcedure_WritesItsNameAndItsStatus)
{
    const std::string sHandle = HandleArgument(m_folder.Path());
    for (const ObjectProcedure& procedure : OBJECT_PROCEDURES) {
        const std::string sLabel = "[Nfs3Prog.Procedure" + std::string(procedure.pcName) + "]";
        m_param.SetID("host");
        m_recorder.Clear();
        m_param.SetLogControl(LOG_CONTROL_PROC_FUNC_NAME);
        const std::string sResults = Process(procedure.iProc, sHandle + procedure.sRest);
        EXPECT_EQ(m_iResult, PRC_OK);
        EXPECT_EQ(m_recorder.Lines(),
                  (Lines{"info|host|[Nfs3Prog.Process]", "info|host|" + sLabel}));

        m_recorder.Clear();
        m_param.SetLogControl(LOG_CONTROL_PROC_FUNC_ARGU);
        EXPECT_EQ(Process(procedure.iProc, sHandle + procedure.sRest).size(), sResults.size());
        const Lines vLines = m_recorder.Lines();
        ASSERT_FALSE(vLines.empty()) << sLabel;
        EXPECT_NE(vLines.back().find(sLabel + " End stat=" + std::to_string(GetWord(sResults, 0))),
                  std::string::npos)
            << vLines.back();
        for (const std::string& sLine : vLines)
            EXPECT_NE(sLine.find("|" + sLabel + " "), std::string::npos) << sLine;
    }
}

TEST_F(Nfs3Prog, Arguments_AreShownByTheirBitAlone)
{
    const std::string sPath = m_folder.Write("file", "12345");
    const std::string sHandle = HandleArgument(sPath);
    const std::string sSetattr = sHandle + Words({0, 0, 0, 0, 0, 0, 1, 0, 7});
    EXPECT_EQ(LinesOf(LOG_CONTROL_PROC_FUNC_ARGU, 2, sSetattr),
              (Lines{"info|host|[Nfs3Prog.ProcedureSETATTR] Path = " + sPath,
                     "info|host|[Nfs3Prog.ProcedureSETATTR] Guard check: 1, time: 0",
                     "info|vm1|[Nfs3Prog.ProcedureSETATTR] End stat=0"}));
    const Lines vAccess = LinesOf(LOG_CONTROL_PROC_FUNC_ARGU, 4, sHandle + Words({0x3F}));
    ASSERT_EQ(vAccess.size(), 4U);  // path, mask, attributes, end
    EXPECT_EQ(vAccess[1], "info|vm1|[Nfs3Prog.ProcedureACCESS] Readonly: 0, access: 3f");

    const std::string sLookup = HandleArgument(m_folder.Path()) + CXdr().String("file").Bytes();
    const int iOthers = 0x3FF & ~(LOG_CONTROL_PROC_FUNC_ARGU | LOG_CONTROL_PROC_FUNC_NAME |
                                  LOG_CONTROL_FILE_ACCESS | LOG_CONTROL_GENERAL_INFO);
    EXPECT_EQ(LinesOf(iOthers, 1, sHandle), Lines{});
    EXPECT_EQ(LinesOf(iOthers, 2, sSetattr), Lines{});
    EXPECT_EQ(LinesOf(iOthers, 3, sLookup), Lines{});
    EXPECT_EQ(LinesOf(iOthers, 4, sHandle + Words({0x3F})), Lines{});
    EXPECT_EQ(LinesOf(iOthers, 18, sHandle), Lines{});
    EXPECT_EQ(LinesOf(iOthers, 19, sHandle), Lines{});
}

TEST_F(Nfs3Prog, Setattr_OfOneValue_SetsThatOneAlone)
{
    const struct {
        std::string sAttributes;
        std::string sShown;
    } CASES[] = {
        {Words({1, 0600, 0, 0, 0, 0, 0}), "set_mode=1, mode=384,"},
        {Words({0, 1, 11, 0, 0, 0, 0}), "set_uid=1, uid=11,"},
        {Words({0, 0, 1, 12, 0, 0, 0}), "set_gid=1, gid=12,"},
        {Words({0, 0, 0, 1, 1, 2, 0, 0}), "set_size=1, size=4294967298,"},
        {Words({0, 0, 0, 0, 2, 13, 14, 0}), "set_atime=1, atime.sec=13, atime.nsec=14,"},
        {Words({0, 0, 0, 0, 0, 2, 15, 16}), "set_mtime=1, mtime.sec=15, mtime.nsec=16"},
    };
    const std::string sHandle = HandleArgument(m_folder.Write("file", ""));
    for (const auto& [sAttributes, sShown] : CASES) {
        const Lines vLines =
            LinesOf(LOG_CONTROL_FILE_ACCESS, 2, sHandle + sAttributes + Words({0}));
        ASSERT_FALSE(vLines.empty());
        const std::string& sLine = vLines[0];
        EXPECT_NE(sLine.find("] Update file attributes, "), std::string::npos) << sLine;
        EXPECT_NE(sLine.find(sShown), std::string::npos) << sLine;
        size_t iSet = 0;
        for (size_t i = sLine.find("=1,"); i != std::string::npos; i = sLine.find("=1,", i + 1))
            iSet++;
        EXPECT_EQ(iSet, 1U) << sLine;
    }
}

TEST_F(Nfs3Prog, SetattrFailures_AreShownByTheErrorBitAlone)
{
    const std::string sPath = m_folder.Write("file", "12345");
    const std::string sHandle = HandleArgument(sPath);
    const std::string sLabel = "error|vm1|[Nfs3Prog.ProcedureSETATTR] ";
    const std::string sGuarded = sHandle + Words({0, 0, 0, 0, 0, 0, 1, 9, 0});
    const std::string sTooBig = sHandle + Words({0, 0, 0, 1, 0x80000000, 0, 0, 0, 0});
    EXPECT_EQ(LinesOf(LOG_CONTROL_ERROR, 2, sGuarded),
              Lines{sLabel + "Guard check fail, client: 0, server: 9"});
    EXPECT_EQ(LinesOf(LOG_CONTROL_ERROR, 2, sTooBig),
              (Lines{sLabel + "OS set file file \"" + sPath + "\". Error=Invalid argument (22)",
                     sLabel + "Update file attribute to " + sPath + " fail"}));
    for (const std::string& sArguments : {sGuarded, sTooBig}) {
        for (const std::string& sLine : LinesOf(0x3FF & ~LOG_CONTROL_ERROR, 2, sArguments))
            EXPECT_TRUE(sLine.starts_with("info|")) << sLine;
    }
}

TEST_F(Nfs3Prog, NoLogBits_NothingIsWritten)
{
    for (const ObjectProcedure& procedure : OBJECT_PROCEDURES) {
        Process(procedure.iProc, HandleArgument(m_folder.Path()) + procedure.sRest);
        Process(procedure.iProc, CXdr().Opaque(MakeHandle(77)).Bytes() + procedure.sRest);
        Process(procedure.iProc, "");
    }
    Process(22, "");
    EXPECT_EQ(m_recorder.Lines(), Lines());
}

TEST_F(Nfs3Prog, Frame_LinesOfAWholeCall)
{
    const std::string sPath = m_folder.Write("file", "12345");
    const std::string sHandle = HandleArgument(sPath);
    m_param.SetLogControl(LOG_CONTROL_PROC_FUNC_NAME | LOG_CONTROL_PROC_FUNC_ARGU);
    Process(1, sHandle);
    struct stat info = {};
    struct statvfs fileSystem = {};
    ASSERT_EQ(stat(sPath.c_str(), &info) | statvfs(sPath.c_str(), &fileSystem), 0);
    const std::string sTime = std::to_string(info.st_mtime);
    const std::string sLabel = "[Nfs3Prog.ProcedureGETATTR]";
    char cMode[16];
    snprintf(cMode, sizeof(cMode), "%x", info.st_mode & 0777);
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"info|host|[Nfs3Prog.Process]", "info|host|" + sLabel,
                     "info|host|" + sLabel + " Path = " + sPath,
                     "info|vm1|" + sLabel + " Path=" + sPath + ", type=1, mode=" + cMode +
                         ", nlink=1, uid=0, gid=0, size=5, used=5, rdev.1=" +
                         std::to_string(info.st_dev >> 8 & 0xFF) +
                         ", rdev.2=" + std::to_string(info.st_dev & 0xFFFF00FF) +
                         ", fsid=" + std::to_string(fileSystem.f_fsid) + ", atime.s=" +
                         std::to_string(info.st_atime) + ", atime.ns=0, mtime.s=" + sTime +
                         ", mtime.ns=0, ctime.s=" + std::to_string(info.st_ctime) + ", ctime.ns=0",
                     "info|vm1|" + sLabel + " End stat=0"}));
}

TEST_F(Nfs3Prog, RequestCutAnywhere_IsTruncatedAndLeavesNoReply)
{
    m_param.SetLogControl(LOG_CONTROL_ERROR);
    const std::string sHandle = HandleArgument(m_folder.Path());
    for (const ObjectProcedure& procedure : OBJECT_PROCEDURES) {
        const std::string sArguments = sHandle + procedure.sRest;
        for (size_t iLength = 0; iLength < sArguments.size(); iLength++) {
            m_recorder.Clear();
            EXPECT_EQ(Process(procedure.iProc, sArguments.substr(0, iLength)), "");
            EXPECT_EQ(m_iResult, PRC_TRUNCATED) << procedure.pcName << " cut at " << iLength;
            ASSERT_EQ(m_recorder.Lines().size(), 1U);
            EXPECT_EQ(m_recorder.Lines()[0].rfind("error|host|[Nfs3Prog.Process] Data is "
                                                  "truncated.Missing ",
                                                  0),
                      0U);
        }
    }
}

TEST_F(Nfs3Prog, TruncatedRequest_TellsWhatIsMissing)
{
    m_param.SetLogControl(LOG_CONTROL_ERROR);
    Process(2, HandleArgument(m_folder.Path()) + FULL_SATTR.substr(0, 9));
    EXPECT_EQ(m_iResult, PRC_TRUNCATED);
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"error|host|[Nfs3Prog.Process] Data is truncated.Missing 3 data"}));
}

TEST_F(Nfs3Prog, HandleLongerThanTheRequest_IsTruncated)
{
    for (const ObjectProcedure& procedure : OBJECT_PROCEDURES) {
        for (const uint32_t iLength : {0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFDU, 0xFFFFFFFFU}) {
            const std::string sHandle = HandleArgument(m_folder.Path()).substr(4);
            EXPECT_EQ(Process(procedure.iProc, Words({iLength}) + sHandle + procedure.sRest), "");
            EXPECT_EQ(m_iResult, PRC_TRUNCATED) << procedure.pcName;
        }
    }
}

TEST_F(Nfs3Prog, OtherException_Fails)
{
    CThrowingUtilities utilities;
    utilities.SetCallback(&m_recorder);
    CNfs3Prog prog(&utilities);
    m_param.SetLogControl(LOG_CONTROL_PROC_FUNC_NAME | LOG_CONTROL_ERROR);
    EXPECT_EQ(Process(&prog, 0, ""), "");
    EXPECT_EQ(m_iResult, PRC_FAIL);
    EXPECT_EQ(m_recorder.Lines(), (Lines{"info|host|[Nfs3Prog.Process]",
                                         "error|host|[Nfs3Prog.Process] Unknown exception"}));
}

TEST_F(Nfs3Prog, UnknownHandle_IsRefusedByEveryProcedure)
{
    m_param.SetLogControl(LOG_CONTROL_ERROR);
    const std::string HANDLES[] = {MakeHandle(77),
                                   MakeHandle(0xFFFFFFFF),
                                   MakeHandle(1U << 31),
                                   "abc",
                                   std::string(3, '\0'),
                                   std::string(1, '\0'),
                                   ""};
    ASSERT_EQ(GetID(m_folder.Path()), 0U);  // what the short ones would be with their padding
    for (const ObjectProcedure& procedure : OBJECT_PROCEDURES) {
        for (const std::string& sHandle : HANDLES) {
            m_recorder.Clear();
            EXPECT_EQ(
                ToHex(Process(procedure.iProc, CXdr().Opaque(sHandle).Bytes() + procedure.sRest)),
                ToHex(procedure.sRefusal))
                << procedure.pcName;
            EXPECT_EQ(m_iResult, PRC_OK);
            EXPECT_EQ(m_recorder.Count("error|host|[Nfs3Prog.Procedure" +
                                       std::string(procedure.pcName) + "] Path record not found"),
                      1U);
        }
    }
}

TEST_F(Nfs3Prog, ShortHandle_ThatHoldsTheNumber_Resolves)
{
    const std::string sNumber = HandleOf(m_folder.Path()).substr(0, 4);
    EXPECT_EQ(ToHex(Process(1, CXdr().Opaque(sNumber).Bytes())),
              ToHex(Words({0}) + AttributesOf(m_folder.Path())));
}

TEST_F(Nfs3Prog, MissingObject_IsRefusedWithoutALine)
{
    const std::string sPath = m_folder.Write("gone", "x");
    const std::string sHandle = HandleArgument(sPath);
    ASSERT_EQ(unlink(sPath.c_str()), 0);
    for (const ObjectProcedure& procedure : OBJECT_PROCEDURES) {
        if (procedure.sRest.empty() && procedure.iProc != 1)
            continue;  // below
        EXPECT_EQ(ToHex(Process(procedure.iProc, sHandle + procedure.sRest)),
                  ToHex(procedure.sRefusal))
            << procedure.pcName;
    }
    EXPECT_FALSE(std::filesystem::exists(sPath));  // nobody made it anew
    m_param.SetLogControl(LOG_CONTROL_ERROR);
    EXPECT_EQ(Process(1, sHandle), Words({5}));
    EXPECT_EQ(Process(18, sHandle), Words({5, 0}));
    EXPECT_EQ(Process(19, sHandle), Words({5, 0}));
    EXPECT_EQ(m_recorder.Lines(), Lines());
}

TEST_F(Nfs3Prog, RemovedExport_RefusesItsHandles)
{
    const CScratchFolder other;
    Add(other.Path(), "other");
    const std::string sHandle = HandleArgument(m_folder.Write("file", "x"));
    m_utilities.RemoveMountInfoByExportName("vm1");  // the other one keeps the file table alive
    for (const ObjectProcedure& procedure : OBJECT_PROCEDURES)
        EXPECT_EQ(ToHex(Process(procedure.iProc, sHandle + procedure.sRest)),
                  ToHex(procedure.sRefusal))
            << procedure.pcName;

    m_utilities.RemoveAllMountInfo();
    EXPECT_EQ(Process(1, sHandle), Words({5}));
    EXPECT_EQ(ReadWholeFile(m_folder.Path("file")), "x");
}

TEST_F(Nfs3Prog, CheckProcessParam_MakesTheExportsOwnerTheCaller)
{
    EXPECT_EQ(m_prog.CheckProcessParam(&m_param, &m_argu, m_folder.Path("any").c_str()), NFS3_OK);
    EXPECT_STREQ(m_param.GetID(), "vm1");
    EXPECT_STREQ(m_param.GetIpcID(), "ipc");
}

TEST_F(Nfs3Prog, CheckProcessParam_OutsideEveryExport_KeepsTheCaller)
{
    m_param.SetLogControl(LOG_CONTROL_ERROR);
    const std::string sBeside = m_folder.Path() + "2";
    for (const char* pcPath : {static_cast<const char*>(nullptr), "", "/", sBeside.c_str()}) {
        m_recorder.Clear();
        EXPECT_EQ(m_prog.CheckProcessParam(&m_param, &m_argu, pcPath), NFS3ERR_IO);
        EXPECT_EQ(m_recorder.Lines(), (Lines{"error|host|[Test] Path record not found"}));
    }
    EXPECT_STREQ(m_param.GetID(), "host");
    EXPECT_STREQ(m_param.GetIpcID(), "");
}

TEST_F(Nfs3Prog, CheckPath)
{
    EXPECT_EQ(m_prog.CheckPath(nullptr, true), NFS3ERR_STALE);
    EXPECT_EQ(m_prog.CheckPath(nullptr, false), NFS3ERR_STALE);
    EXPECT_EQ(m_prog.CheckPath(m_folder.Path("missing").c_str(), true), NFS3ERR_IO);
    EXPECT_EQ(m_prog.CheckPath(m_folder.Path("missing").c_str(), false), NFS3_OK);
    EXPECT_EQ(m_prog.CheckPath(m_folder.Path().c_str(), true), NFS3_OK);
}

TEST_F(Nfs3Prog, AppendFilePath_JoinsWithASlash)
{
    char cPath[PATH_SIZE] = "old";
    EXPECT_TRUE(CNfs3Prog::AppendFilePath("/dir", "name", cPath));
    EXPECT_STREQ(cPath, "/dir/name");
    EXPECT_TRUE(CNfs3Prog::AppendFilePath("/", "", cPath));
    EXPECT_STREQ(cPath, "//");
    EXPECT_FALSE(CNfs3Prog::AppendFilePath(nullptr, "name", cPath));
    EXPECT_FALSE(CNfs3Prog::AppendFilePath("/dir", nullptr, cPath));
    EXPECT_FALSE(CNfs3Prog::AppendFilePath("/dir", "name", nullptr));
    EXPECT_STREQ(cPath, "//");
}

TEST_F(Nfs3Prog, AppendFilePath_StaysWithinItsBuffer)
{
    std::string sBuffer(PATH_SIZE + 1, '#');
    char* pcPath = sBuffer.data();
    const std::string sDir = "/" + std::string(2046, 'd');
    const std::string sJoined = sDir + "/" + std::string(2047, 'n');
    ASSERT_EQ(sJoined.size(), PATH_SIZE - 1);
    for (const size_t iTooLong : {2048U, 2049U, 5000U}) {
        const std::string sName(iTooLong, 'n');
        EXPECT_FALSE(CNfs3Prog::AppendFilePath(sDir.c_str(), sName.c_str(), pcPath));
        EXPECT_EQ(pcPath, sJoined);  // cut
        EXPECT_EQ(sBuffer.back(), '#');
    }
    EXPECT_TRUE(CNfs3Prog::AppendFilePath(sDir.c_str(), std::string(2047, 'n').c_str(), pcPath));
    EXPECT_EQ(pcPath, sJoined);
}

TEST_F(Nfs3Prog, IsInVaildDirName)
{
    for (const char* pcName : {static_cast<const char*>(nullptr), ".", ".."})
        EXPECT_TRUE(CNfs3Prog::IsInVaildDirName(pcName));
    for (const char* pcName : {"", "...", ".a", "a.", "name", "a/.."})
        EXPECT_FALSE(CNfs3Prog::IsInVaildDirName(pcName)) << pcName;
}

TEST_F(Nfs3Prog, ReadPath_OfAnEntry_JoinsAndCanonicalises)
{
    std::filesystem::create_directories(m_folder.Path("a/b"));
    std::filesystem::create_symlink("a/b", m_folder.Path("link"));
    m_param.SetLogControl(LOG_CONTROL_PROC_FUNC_ARGU);
    EXPECT_EQ(ReadEntryPath(m_folder.Path("a"), "b"), m_folder.Path("a/b"));
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"info|host|[Test] Path = " + m_folder.Path("a"),
                     "info|host|[Test] Read path=" + m_folder.Path("a") + ", name=b",
                     "info|host|[Test] Path = " + m_folder.Path("a/b")}));
    EXPECT_EQ(m_entry.dir, m_folder.Path("a"));
    EXPECT_EQ(m_entry.name, "b");

    EXPECT_EQ(ReadEntryPath(m_folder.Path("a/b"), ".."), m_folder.Path("a"));
    EXPECT_EQ(ReadEntryPath(m_folder.Path("a"), "."), m_folder.Path("a"));
    EXPECT_EQ(ReadEntryPath(m_folder.Path(), "link"), m_folder.Path("a/b"));
    EXPECT_EQ(ReadEntryPath(m_folder.Path(), "a/b/../b"), m_folder.Path("a/b"));
    EXPECT_EQ(ReadEntryPath(m_folder.Path(), "missing"), m_folder.Path("missing"));
}

TEST_F(Nfs3Prog, ReadPath_OfANameThatDoesNotFit_DoesNotResolve)
{
    EXPECT_EQ(ReadEntryPath(m_folder.Path(), std::string(4090, 'n')), "(none)");
    const size_t iFits = PATH_SIZE - 1 - m_folder.Path().size() - 1;
    EXPECT_EQ(ReadEntryPath(m_folder.Path(), std::string(iFits + 1, 'n')), "(none)");
    EXPECT_EQ(ReadEntryPath(m_folder.Path(), std::string(iFits, 'n')),
              m_folder.Path(std::string(iFits, 'n')));
    // A name that fills a path buffer on its own is empty, so the directory itself is meant.
    EXPECT_EQ(ReadEntryPath(m_folder.Path(), std::string(4096, 'n')), m_folder.Path());
    EXPECT_EQ(m_entry.name, "");
}

TEST_F(Nfs3Prog, ReadPath_OfAnUnknownDirectory_StillReadsTheName)
{
    CInputStream in;
    Receive(&in, CXdr().Opaque(MakeHandle(77)).String("name").Bytes());
    char cPath[PATH_SIZE] = "old";
    EXPECT_FALSE(m_prog.ReadPath(&m_param, &m_argu, &in, &m_entry, cPath));
    EXPECT_STREQ(cPath, "");
    EXPECT_EQ(in.GetFilledBufferSize(), 0U);
}

TEST_F(Nfs3Prog, ModeConversion_CarriesNeitherTypeNorStickyBit)
{
    const struct {
        unsigned int iFrom;
        unsigned int iTo;
    } CASES[] = {{0101755, 0755}, {0104711, 04711}, {0102755, 02755}, {0177777, 06777},
                 {0140000, 0},    {0xFFFF0000, 0},  {01000, 0}};
    for (const auto& [iFrom, iTo] : CASES) {
        EXPECT_EQ(CNfs3Prog::ConvertFileModeToNfsFileMode(iFrom), iTo);
        EXPECT_EQ(CNfs3Prog::ConvertNfsFileModeToFileMode(iFrom), iTo);
    }
    for (unsigned int iBit = 1; iBit < 01000; iBit <<= 1)
        EXPECT_EQ(CNfs3Prog::ConvertFileModeToNfsFileMode(iBit), iBit);
}

TEST_F(Nfs3Prog, Attributes_OfARegularFile)
{
    const std::string sPath = m_folder.Write("file", "12345");
    const struct timespec times[] = {{1000000001, 999999999}, {1000000002, 999999999}};
    ASSERT_EQ(chmod(sPath.c_str(), 04640), 0);
    ASSERT_EQ(link(sPath.c_str(), m_folder.Path("second").c_str()), 0);
    ASSERT_EQ(truncate(sPath.c_str(), 5000000000), 0);
    ASSERT_EQ(utimensat(AT_FDCWD, sPath.c_str(), times, 0), 0);
    m_prog.SetUserID(7, 8);  // shown nowhere

    const std::string sAttributes = GetAttributes(sPath);
    EXPECT_EQ(ToHex(sAttributes), ToHex(AttributesOf(sPath)));
    // type, mode, nlink, uid, gid; size and used: 5,000,000,000
    EXPECT_EQ(ToHex(sAttributes.substr(0, 36)), "00000001 000009a0 00000002 00000000 00000000 "
                                                "00000001 2a05f200 00000001 2a05f200");
    struct stat info = {};
    ASSERT_EQ(stat(sPath.c_str(), &info), 0);
    EXPECT_EQ(sAttributes.substr(52, 8), CXdr().Hyper(info.st_ino).Bytes());  // fileid
    EXPECT_EQ(sAttributes.substr(60, 16), Words({1000000001, 0, 1000000002, 0}));
    EXPECT_EQ(sAttributes.substr(76), Words({static_cast<uint32_t>(info.st_ctime), 0}));
}

TEST_F(Nfs3Prog, Attributes_OwnerIsTheFilesOwn)
{
    const std::string sPath = m_folder.Write("file", "");
    ASSERT_EQ(chown(sPath.c_str(), 1000, 70000), 0);
    m_prog.SetUserID(7, 8);
    EXPECT_EQ(GetAttribute(sPath, 3), 1000U);
    EXPECT_EQ(GetAttribute(sPath, 4), 70000U);
}

TEST_F(Nfs3Prog, Attributes_StickyBitIsNotShownAndSetIDBitsAre)
{
    const std::string sPath = m_folder.Write("file", "");
    for (const auto& [iMode, iShown] : {std::pair{01755U, 0755U},
                                        {04755U, 04755U},
                                        {02755U, 02755U},
                                        {07777U, 06777U},
                                        {0U, 0U}}) {
        ASSERT_EQ(chmod(sPath.c_str(), iMode), 0);
        EXPECT_EQ(GetAttribute(sPath, WORD_MODE), iShown);
    }
}

TEST_F(Nfs3Prog, Attributes_RdevOfAFileIsTheDeviceThatHoldsIt)
{
    const std::string sPath = m_folder.Write("file", "");
    struct stat info = {};
    ASSERT_EQ(stat(sPath.c_str(), &info), 0);
    EXPECT_EQ(GetAttribute(sPath, WORD_RDEV), info.st_dev >> 8 & 0xFF);
    EXPECT_EQ(GetAttribute(sPath, WORD_RDEV + 1), info.st_dev & 0xFFFF00FF);
    EXPECT_NE(GetAttribute(sPath, WORD_RDEV) | GetAttribute(sPath, WORD_RDEV + 1), 0U);
}

TEST_F(Nfs3Prog, Attributes_OfFoldersLinksPipesAndSockets)
{
    const std::string sFolder = m_folder.Path("folder");
    const std::string sLink = m_folder.Path("link");
    const std::string sPipe = m_folder.Path("pipe");
    ASSERT_EQ(mkdir(sFolder.c_str(), 0750), 0);
    ASSERT_EQ(symlink("/no/such/target", sLink.c_str()), 0);
    ASSERT_EQ(mkfifo(sPipe.c_str(), 0600), 0);

    const CAutoFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const std::string sSocket = m_folder.Path("socket");
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(sSocket.size(), sizeof(address.sun_path));
    CopyText(address.sun_path, sizeof(address.sun_path), sSocket.c_str());
    ASSERT_EQ(bind(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);

    for (const auto& [sPath, iType] :
         {std::pair{sFolder, 2U}, {sLink, 5U}, {sSocket, 6U}, {sPipe, 7U}}) {
        EXPECT_EQ(GetAttribute(sPath, WORD_TYPE), iType) << sPath;
        if (iType != 5) {  // the file system of a dangling link cannot be asked by its path
            EXPECT_EQ(ToHex(GetAttributes(sPath)), ToHex(AttributesOf(sPath))) << sPath;
        }
    }
    // The link describes itself; its file system is that of its target, here unknown: 4.
    EXPECT_EQ(GetAttributes(sLink).substr(20, 8), Words({0, 15}));
    EXPECT_EQ(GetAttributes(sLink).substr(44, 8), Words({0, 4}));
}

TEST_F(Nfs3Prog, Attributes_OfALinkToAFile_AreTheLinksOwn)
{
    m_folder.Write("file", "12345");
    const std::string sLink = m_folder.Path("link");
    ASSERT_EQ(symlink("./././file", sLink.c_str()), 0);
    EXPECT_EQ(ToHex(GetAttributes(sLink)), ToHex(AttributesOf(sLink)));
    EXPECT_EQ(GetAttributes(sLink).substr(20, 8), Words({0, 10}));  // the length of its text
}

TEST_F(Nfs3Prog, Attributes_OfDevices_SplitTheirNumber)
{
    const struct {
        const char* pcName;
        mode_t iMode;
        dev_t iDevice;
        uint32_t iType;
        uint32_t iSpec1;
        uint32_t iSpec2;
    } CASES[] = {{"char", S_IFCHR | 0600, makedev(4, 65), 4, 4, 65},
                 {"block", S_IFBLK | 0600, makedev(8, 3), 3, 8, 3},
                 {"wide", S_IFCHR | 0600, makedev(0x123, 0x45678), 4, 0x23, 0x45610078}};
    for (const auto& [pcName, iMode, iDevice, iType, iSpec1, iSpec2] : CASES) {
        const std::string sPath = m_folder.Path(pcName);
        ASSERT_EQ(mknod(sPath.c_str(), iMode, iDevice), 0) << errno;
        EXPECT_EQ(GetAttribute(sPath, WORD_TYPE), iType);
        EXPECT_EQ(GetAttribute(sPath, WORD_RDEV), iSpec1);
        EXPECT_EQ(GetAttribute(sPath, WORD_RDEV + 1), iSpec2);
        EXPECT_EQ(ToHex(GetAttributes(sPath)), ToHex(AttributesOf(sPath)));
    }
}

TEST_F(Nfs3Prog, Attributes_OfAMissingFile_CannotBeRead)
{
    fattr3 attributes;
    EXPECT_FALSE(m_prog.GetNfsFileAttributes(&m_param, &m_argu, m_folder.Path("missing").c_str(),
                                             &attributes));
}

TEST_F(Nfs3Prog, Attributes_BeforeAChange_AreNeverTold)
{
    wcc_attr attributes;
    EXPECT_FALSE(m_prog.GetNfsFileAttributes(m_folder.Path().c_str(), &attributes));
    EXPECT_EQ(attributes.size | attributes.mtime.seconds | attributes.ctime.seconds, 0U);
}

TEST_F(Nfs3Prog, UnreadableAttributes_FailGetattrFsstatAndFsinfo)
{
    const std::string sPath = m_folder.Write("file", "x");
    const std::string sHandle = HandleArgument(sPath);
    g_pcUnreadable = sPath.c_str();
    EXPECT_EQ(Process(1, sHandle), Words({5}));
    EXPECT_EQ(Process(18, sHandle), Words({5, 0}));
    EXPECT_EQ(Process(19, sHandle), Words({5, 0}));
    // What only adds them goes on without them.
    EXPECT_EQ(Process(4, sHandle + Words({0x3F})), Words({0, 0, 0x3F}));
    const std::string sArguments = HandleArgument(m_folder.Path()) + CXdr().String("file").Bytes();
    EXPECT_EQ(Process(3, sArguments), Words({0}) + sHandle + Words({0, 0}));
}

TEST_F(Nfs3Prog, FileHandle_IsTheNumberAndZeros)
{
    nfs_fh3 handle;
    memset(handle.cHandle, 0xFF, sizeof(handle.cHandle));
    EXPECT_TRUE(m_prog.GetNfsFileHandle(&m_param, &m_argu, m_folder.Path().c_str(), &handle));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(handle.cHandle), 56),
              MakeHandle(GetID(m_folder.Path())));
    EXPECT_FALSE(m_prog.GetNfsFileHandle(&m_param, &m_argu, m_folder.Path().c_str(), nullptr));
}

// What reaches past the usual exports: one of the empty path holds what no handle resolves to.
TEST_F(Nfs3Prog, SkippedHandle_WithAnExportOfTheEmptyPath_IsAnswered)
{
    ASSERT_EQ(Add("", "everything"), "");
    const std::string sHandle = CXdr().Opaque(MakeHandle(77)).Bytes();
    EXPECT_EQ(ToHex(Process(5, sHandle)), ToHex(Words({0, 0, 0})));
    EXPECT_EQ(ToHex(Process(20, sHandle)), ToHex(Words({0, 0, 0, 255, 0, 1, 1, 1})));
    EXPECT_EQ(ToHex(Process(21, sHandle + Words({0, 0, 0}))), ToHex(Words({0, 0, 0, 0, 0})));
}

// What is passed over is not taken for a path, even if it reads as one.
TEST_F(Nfs3Prog, SkippedHandle_ThatReadsAsAnExportedPath_IsRefused)
{
    const std::string sHandle = CXdr().Opaque(m_folder.Path()).Bytes();
    EXPECT_EQ(Process(5, sHandle), Words({5, 0}));
    EXPECT_EQ(Process(20, sHandle), Words({5, 0}));
    EXPECT_EQ(Process(21, sHandle + Words({0, 0, 0})), Words({5, 0, 0}));
}

TEST_F(Nfs3Prog, Front_PassesReadOnlyOn)
{
    const std::string sArguments = HandleArgument(m_folder.Path()) + Words({0x3F});
    const auto GetGranted = [&](CNfsProg* pFront) {
        const std::string sResults = Process(pFront, 4, sArguments);
        return GetWord(sResults, sResults.size() - 4);
    };
    CNfsProg front(&m_utilities);
    EXPECT_EQ(GetGranted(&front), 0x3FU);
    front.SetReadOnly(true);  // the program exists
    EXPECT_EQ(GetGranted(&front), 0x03U);
    front.SetReadOnly(false);
    EXPECT_EQ(GetGranted(&front), 0x3FU);

    CNfsProg later(&m_utilities);
    later.SetReadOnly(true);  // it does not yet
    EXPECT_EQ(GetGranted(&later), 0x03U);
}

TEST_F(Nfs3Prog, Front_OwnerChangesNoReply)
{
    const std::string sHandle = HandleArgument(m_folder.Path());
    CNfsProg front(&m_utilities);
    front.SetUserID(7, 8);
    const std::string sBefore = Process(&front, 1, sHandle);
    front.SetUserID(9, 10);
    EXPECT_EQ(Process(&front, 1, sHandle), sBefore);
    EXPECT_EQ(sBefore, Words({0}) + AttributesOf(m_folder.Path()));
}
