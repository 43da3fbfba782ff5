// CREATE, MKDIR, SYMLINK, MKNOD, REMOVE, RMDIR, RENAME and LINK as the program's object answers
// them: statuses, bytes and lines.
#include <unistd.h>

#include <gtest/gtest.h>

#include "NamespaceFixture.h"
#include "UnreadablePath.h"

namespace {

class Nfs3ProgNamespace : public CNfs3ProgFixture {
protected:
    Nfs3ProgNamespace() { Add(m_folder.Path(), "vm1"); }
    ~Nfs3ProgNamespace() override
    {
        g_pcUnreadable = nullptr;
        m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu);
        EXPECT_EQ(CountDescriptors(), m_iDescriptors);
    }

    // The arguments of one name in the export's root.
    std::string In(const std::string& sName)
    {
        return HandleArgument(m_folder.Path()) + CXdr().String(sName).Bytes();
    }

    std::string Create(const std::string& sName, const std::string& sHow = Unchecked())
    {
        return Process(CREATE, In(sName) + sHow);
    }

    std::string Rename(const std::string& sFrom, const std::string& sTo)
    {
        return Process(RENAME, In(sFrom) + In(sTo));
    }

    // What a call shows of its arguments, without the lines of the attributes and without labels:
    // "ID|text".
    Lines ArgumentsOf(uint32_t iProc, const std::string& sArguments)
    {
        Lines vTexts;
        for (const std::string& sLine : LinesOf(LOG_CONTROL_PROC_FUNC_ARGU, iProc, sArguments)) {
            const size_t iLabel = sLine.find("|[Nfs3Prog.Procedure");
            EXPECT_TRUE(sLine.starts_with("info|")) << sLine;
            EXPECT_NE(iLabel, std::string::npos) << sLine;
            const std::string sText = sLine.substr(sLine.find("] ") + 2);
            if (!sText.starts_with("Path=" + m_folder.Path()))
                vTexts.push_back(sLine.substr(5, iLabel - 4) + sText);
        }
        return vTexts;
    }

    // The lines in which one name becomes a path.
    Lines PathLines(const std::string& sID, const std::string& sName) const
    {
        return {sID + "|Path = " + m_folder.Path(),
                sID + "|Read path=" + m_folder.Path() + ", name=" + sName,
                sID + "|Path = " + m_folder.Path(sName)};
    }

    static Lines Join(Lines vLines, const Lines& vMore)
    {
        vLines.insert(vLines.end(), vMore.begin(), vMore.end());
        return vLines;
    }

    // Every call in every form of its arguments, each whole. None of them can succeed but CREATE
    // and MKDIR.
    std::vector<std::pair<uint32_t, std::string>> GetAllForms()
    {
        const std::string sDevice = SATTR_ALL + Words({4, 5});
        const std::string sName = In("name");
        return {{CREATE, sName + Unchecked(SATTR_ALL)},
                {CREATE, sName + Guarded(SATTR_ALL)},
                {CREATE, sName + Unchecked()},
                {CREATE, sName + EXCLUSIVELY},
                {CREATE, sName + Words({3})},
                {MKDIR, sName + SATTR_ALL},
                {MKDIR, sName + SATTR_NONE},
                {SYMLINK, sName + SATTR_ALL + CXdr().String("text").Bytes()},
                {SYMLINK, sName + SATTR_NONE + CXdr().String("a longer text").Bytes()},
                {SYMLINK, sName + SATTR_NONE + CXdr().String(std::string(5000, 't')).Bytes()},
                {MKNOD, sName + Words({3}) + sDevice},
                {MKNOD, sName + Words({4}) + sDevice},
                {MKNOD, sName + Words({6}) + SATTR_ALL},
                {MKNOD, sName + Words({7}) + SATTR_ALL},
                {MKNOD, sName + Words({7}) + SATTR_NONE},
                {MKNOD, sName + Words({1})},
                {MKNOD, sName + Words({99})},
                {REMOVE, In("missing")},
                {RMDIR, In("missing")},
                {RENAME, In("missing") + In("target")},
                {LINK, HandleArgument(m_folder.Path()) + sName}};
    }

    const size_t m_iDescriptors = CountDescriptors();
};

}  // namespace

// ---- Arguments ----

TEST_F(Nfs3ProgNamespace, EveryForm_IsReadToItsEnd)
{
    for (const auto& [iProc, sArguments] : GetAllForms()) {
        EXPECT_GE(Process(iProc, sArguments).size(), 12U) << iProc;
        EXPECT_EQ(m_iResult, PRC_OK);
        EXPECT_EQ(m_in.GetFilledBufferSize(), 0U) << iProc << " " << ToHex(sArguments);
    }
}

TEST_F(Nfs3ProgNamespace, EveryForm_WithAnUnknownHandle_IsReadToItsEndAllTheSame)
{
    for (const std::string& sHandle : {MakeHandle(77), std::string("abc"), std::string()}) {
        for (const auto& [iProc, sArguments] : GetAllForms()) {
            const std::string sKnown = HandleArgument(m_folder.Path());
            std::string sChanged = sArguments;
            for (size_t i = sChanged.find(sKnown); i != std::string::npos;
                 i = sChanged.find(sKnown))
                sChanged.replace(i, sKnown.size(), CXdr().Opaque(sHandle).Bytes());
            EXPECT_GE(Process(iProc, sChanged).size(), 12U) << iProc;
            EXPECT_EQ(m_in.GetFilledBufferSize(), 0U) << iProc << " " << ToHex(sArguments);
        }
    }
    EXPECT_TRUE(std::filesystem::is_empty(m_folder.Path()));
}

TEST_F(Nfs3ProgNamespace, EveryForm_CutAnywhere_IsTruncatedAndChangesNothing)
{
    m_param.SetLogControl(LOG_CONTROL_ERROR);
    for (const auto& [iProc, sArguments] : GetAllForms()) {
        const size_t iStep = sArguments.size() > 1000 ? 97 : 1;
        for (size_t iLength = 0; iLength < sArguments.size(); iLength += iStep) {
            m_recorder.Clear();
            EXPECT_EQ(Process(iProc, sArguments.substr(0, iLength)), "");
            EXPECT_EQ(m_iResult, PRC_TRUNCATED) << iProc << " cut at " << iLength;
            EXPECT_EQ(m_recorder.Lines().size(), 1U);
        }
    }
    EXPECT_TRUE(std::filesystem::is_empty(m_folder.Path()));
}

TEST_F(Nfs3ProgNamespace, Name_EndsAtItsFirstZero)
{
    EXPECT_EQ(GetWord(Create(std::string("ab\0cd", 5)), 0), 0U);
    EXPECT_TRUE(std::filesystem::exists(m_folder.Path("ab")));
}

// ---- CREATE ----

TEST_F(Nfs3ProgNamespace, Create_ShowsModeAndExistence)
{
    const std::string sArguments = In("new") + Unchecked();
    EXPECT_EQ(
        ArgumentsOf(CREATE, sArguments),
        Join(PathLines("host", "new"), {"vm1|Mode: 0, Is file exist before create: 0",
                                        "vm1|Is file exist after create: 1", "vm1|End stat=0"}));
    EXPECT_EQ(
        ArgumentsOf(CREATE, sArguments),
        Join(PathLines("host", "new"), {"vm1|Mode: 0, Is file exist before create: 1",
                                        "vm1|Is file exist after create: 1", "vm1|End stat=0"}));
    EXPECT_EQ(
        ArgumentsOf(CREATE, In("new") + Guarded()),
        Join(PathLines("host", "new"), {"vm1|Mode: 1, Is file exist before create: 1",
                                        "vm1|Is file exist after create: 1", "vm1|End stat=17"}));
    EXPECT_EQ(
        ArgumentsOf(CREATE, In("other") + EXCLUSIVELY),
        Join(PathLines("host", "other"), {"vm1|Mode: 2, Is file exist before create: 0",
                                          "vm1|Is file exist after create: 1", "vm1|End stat=0"}));
    EXPECT_EQ(
        ArgumentsOf(CREATE, In("third") + Words({7})),
        Join(PathLines("host", "third"), {"vm1|Mode: 7, Is file exist before create: 0",
                                          "vm1|Is file exist after create: 0", "vm1|End stat=5"}));
}

TEST_F(Nfs3ProgNamespace, Create_Refused_DoesNotShowWhatItDidNotDo)
{
    const Lines vOutside = ArgumentsOf(CREATE, In("../new") + Unchecked());
    ASSERT_EQ(vOutside.size(), 4U);
    EXPECT_EQ(vOutside.back(), "host|End stat=5");
    m_prog.SetReadOnly(true);
    EXPECT_EQ(ArgumentsOf(CREATE, In("new") + Unchecked()),
              Join(PathLines("host", "new"), {"vm1|End stat=13"}));
}

TEST_F(Nfs3ProgNamespace, WithoutTheArgumentBit_NoArgumentsAreShown)
{
    const int iOthers = 0x3FF & ~LOG_CONTROL_PROC_FUNC_ARGU;
    for (const auto& [iProc, sArguments] : GetAllForms()) {
        for (const std::string& sLine : LinesOf(iOthers, iProc, sArguments)) {
            for (const char* pcShown : {"Mode: ", "Is file exist after", "End stat",
                                        "] Path = ", "] Read path=", "] Path="})
                EXPECT_EQ(sLine.find(pcShown), std::string::npos) << sLine;
        }
    }
}

TEST_F(Nfs3ProgNamespace, Create_TouchesTheFileInThisOrder)
{
    const std::string sPath = m_folder.Path("new");
    const Lines vLines = LinesOf(LOG_CONTROL_FILE_ACCESS, CREATE, In("new") + Unchecked(SATTR_ALL));
    const std::string sLabel = "info|vm1|[Nfs3Prog.ProcedureCREATE] ";
    ASSERT_GE(vLines.size(), 5U);
    EXPECT_EQ(Lines(vLines.begin(), vLines.begin() + 5),
              (Lines{sLabel + "OS create file \"" + sPath + "\"",
                     sLabel + "OS close file \"" + sPath + "\"",
                     sLabel + "Update file attributes, path=" + sPath +
                         ", set_mode=1, mode=416, set_uid=1, uid=1, set_gid=1, gid=1, "
                         "set_size=1, size=3, set_atime=1, atime.sec=4, atime.nsec=5, "
                         "set_mtime=1, mtime.sec=6, mtime.nsec=7",
                     sLabel + "OS set file mode \"" + sPath + "\" (mode = 416)",
                     sLabel + "OS set file file \"" + sPath + "\""}));
}

TEST_F(Nfs3ProgNamespace, Create_TimesCountWhereTheyAreToChange)
{
    const std::string sServerTime = Words({0, 0, 0, 0, 1, 1});
    const auto GetUpdateLine = [&](const std::string& sHow) {
        for (const std::string& sLine : LinesOf(LOG_CONTROL_FILE_ACCESS, CREATE, In("new") + sHow))
            if (sLine.find("Update file attributes") != std::string::npos)
                return sLine;
        return std::string();
    };
    const std::string sSet = "set_atime=1, atime.sec=0, atime.nsec=0, set_mtime=1, mtime.sec=0";
    const std::string sUnset = "set_atime=0, atime.sec=0, atime.nsec=0, set_mtime=0, mtime.sec=0";
    EXPECT_NE(GetUpdateLine(Unchecked(sServerTime)).find(sSet), std::string::npos);
    EXPECT_NE(GetUpdateLine(Unchecked()).find(sUnset), std::string::npos);
    const std::string sExclusive = GetUpdateLine(EXCLUSIVELY);
    EXPECT_NE(sExclusive.find(sUnset), std::string::npos);
    EXPECT_NE(sExclusive.find("set_mode=0"), std::string::npos);
    EXPECT_NE(sExclusive.find("set_size=0"), std::string::npos);
}

TEST_F(Nfs3ProgNamespace, Create_Failures_AreShownByTheErrorBit)
{
    const std::string sLabel = "error|vm1|[Nfs3Prog.ProcedureCREATE] OS ";
    const std::string sLong(256, 'n');
    EXPECT_EQ(LinesOf(LOG_CONTROL_ERROR, CREATE, In(sLong) + Unchecked()),
              Lines{sLabel + "create file \"" + m_folder.Path(sLong) +
                    "\". Error=File name too long (36)"});
    EXPECT_EQ(LinesOf(LOG_CONTROL_ERROR, CREATE, In("new") + Unchecked(SattrSize(~uint64_t{0}))),
              Lines{sLabel + "set file file \"" + m_folder.Path("new") +
                    "\". Error=Invalid argument (22)"});
    EXPECT_EQ(Create("new", Unchecked(SattrSize(~uint64_t{0}))), Status(5));
    EXPECT_EQ(LinesOf(LOG_CONTROL_ERROR, CREATE, In("../new") + Unchecked()),
              Lines{"error|host|[Nfs3Prog.ProcedureCREATE] Path record not found"});
}

TEST_F(Nfs3ProgNamespace, Create_AnswersHandleAndAttributes)
{
    const std::string sReply = Create("new", Unchecked(SATTR_ALL));
    const std::string sPath = m_folder.Path("new");
    EXPECT_EQ(ToHex(sReply), ToHex(MadeReply(HandleOf(sPath), sPath)));
    EXPECT_EQ(std::filesystem::file_size(sPath), 3U);
}

TEST_F(Nfs3ProgNamespace, CreateAndMkdir_UnreadableAttributes_AreLeftOut)
{
    const std::string sFile = m_folder.Path("file");
    const std::string sFolder = m_folder.Path("folder");
    g_pcUnreadable = sFile.c_str();
    EXPECT_EQ(ToHex(Create("file")),
              ToHex(Words({0, 1}) + HandleArgument(sFile) + Words({0, 0, 0})));
    g_pcUnreadable = sFolder.c_str();
    EXPECT_EQ(ToHex(Process(MKDIR, In("folder") + SATTR_NONE)),
              ToHex(Words({0, 1}) + HandleArgument(sFolder) + Words({0, 0, 0})));
}

// A descriptor that outlived its file must not take what is meant for the new one.
TEST_F(Nfs3ProgNamespace, Create_WhereTheHostRemovedAnOpenFile_MakesAFileThatIsReadAndWritten)
{
    const std::string sPath = m_folder.Write("file", "old");
    const std::string sHandle = HandleArgument(sPath);
    const std::string sRead = sHandle + Words({0, 0, 100});
    EXPECT_EQ(Process(READ, sRead), Words({0, 0, 3, 1, 3}) + std::string("old\0", 4));
    std::filesystem::remove(sPath);
    EXPECT_EQ(GetWord(Create("file", EXCLUSIVELY), 0), 0U);
    EXPECT_EQ(Process(READ, sRead), Words({0, 0, 0, 1, 0}));
    Process(WRITE, sHandle + Words({0, 0, 4, 2}) + CXdr().Opaque("data").Bytes());
    EXPECT_EQ(ReadWholeFile(sPath), "data");
}

// ---- MKDIR ----

TEST_F(Nfs3ProgNamespace, Mkdir_ShowsWhatItDoes)
{
    EXPECT_EQ(ArgumentsOf(MKDIR, In("new") + SATTR_NONE),
              Join(PathLines("host", "new"), {"vm1|End stat=0"}));
    const std::string sLine = "info|vm1|[Nfs3Prog.ProcedureMKDIR] OS create folder \"";
    EXPECT_EQ(LinesOf(LOG_CONTROL_FILE_ACCESS, MKDIR, In("a") + SATTR_NONE)[0],
              sLine + m_folder.Path("a") + "\" (mode = 493)");
    EXPECT_EQ(LinesOf(LOG_CONTROL_FILE_ACCESS, MKDIR, In("b") + SattrMode(0700))[0],
              sLine + m_folder.Path("b") + "\" (mode = 448)");
    EXPECT_EQ(LinesOf(LOG_CONTROL_ERROR, MKDIR, In("b") + SattrMode(0700)),
              Lines{"error|vm1|[Nfs3Prog.ProcedureMKDIR] OS create folder \"" + m_folder.Path("b") +
                    "\" (mode = 448). Error=File exists (17)"});
}

TEST_F(Nfs3ProgNamespace, Mkdir_AllOtherAttributesAreIgnored)
{
    const std::string sReply = Process(MKDIR, In("new") + SATTR_ALL);
    const std::string sPath = m_folder.Path("new");
    EXPECT_EQ(ToHex(sReply), ToHex(MadeReply(HandleOf(sPath), sPath)));
    struct stat info = {};
    ASSERT_EQ(stat(sPath.c_str(), &info), 0);
    EXPECT_EQ(info.st_uid | info.st_gid, 0U);
    EXPECT_GT(info.st_mtime, 1000000);
}

TEST_F(Nfs3ProgNamespace, Mkdir_WhereTheHostRemovedAnOpenFile_MakesAFolderThatReadsAsOne)
{
    const std::string sPath = m_folder.Write("name", "old");
    const std::string sRead = HandleArgument(sPath) + Words({0, 0, 100});
    EXPECT_EQ(GetWord(Process(READ, sRead), 0), 0U);
    std::filesystem::remove(sPath);
    EXPECT_EQ(GetWord(Process(MKDIR, In("name") + SATTR_NONE), 0), 0U);
    EXPECT_EQ(Process(READ, sRead), Words({22, 0}));
}

// ---- SYMLINK, MKNOD and LINK ----

TEST_F(Nfs3ProgNamespace, SymlinkMknodAndLink_ShowNothingButTheirEnd)
{
    EXPECT_EQ(ArgumentsOf(SYMLINK, In("name") + SATTR_ALL + CXdr().String("text").Bytes()),
              Lines{"host|End stat=5"});
    EXPECT_EQ(ArgumentsOf(MKNOD, In("name") + Words({7}) + SATTR_ALL),
              Lines{"host|End stat=10004"});
    EXPECT_EQ(ArgumentsOf(MKNOD, In("name") + Words({1})), Lines{"host|End stat=10007"});
    EXPECT_EQ(ArgumentsOf(LINK, HandleArgument(m_folder.Path()) + In("name")),
              Lines{"host|End stat=5"});
}

TEST_F(Nfs3ProgNamespace, Mknod_AnswersByTheType)
{
    const std::string sDevice = SATTR_ALL + Words({4, 5});
    for (const uint32_t iType : {3U, 4U})
        EXPECT_EQ(Process(MKNOD, In("name") + Words({iType}) + sDevice), Status(10004)) << iType;
    for (const uint32_t iType : {6U, 7U})
        EXPECT_EQ(Process(MKNOD, In("name") + Words({iType}) + SATTR_ALL), Status(10004)) << iType;
    for (const uint32_t iType : {0U, 1U, 2U, 5U, 8U, 0x80000003U, 0xFFFFFFFFU})
        EXPECT_EQ(Process(MKNOD, In("name") + Words({iType})), Status(10007)) << iType;
    EXPECT_TRUE(std::filesystem::is_empty(m_folder.Path()));
}

// What reaches past the usual exports: one of the empty path holds what no handle resolves to.
TEST_F(Nfs3ProgNamespace, SymlinkMknodAndLink_WithAnExportOfTheEmptyPath_MakeNothing)
{
    ASSERT_EQ(Add("", "everything"), "");
    const std::string sText = CXdr().String("text").Bytes();
    EXPECT_EQ(Process(SYMLINK, In("name") + SATTR_ALL + sText), Words({0, 0, 0, 0, 0}));
    EXPECT_EQ(Process(LINK, HandleArgument(m_folder.Path()) + In("name")), Words({0, 0, 0, 0}));
    EXPECT_EQ(Process(MKNOD, In("name") + Words({7}) + SATTR_ALL), Status(10004));
    EXPECT_EQ(Process(MKNOD, In("name") + Words({1})), Status(10007));
    EXPECT_TRUE(std::filesystem::is_empty(m_folder.Path()));
}

// What is passed over is not taken for a path, even if it reads as one.
TEST_F(Nfs3ProgNamespace, SymlinkMknodAndLink_HandleThatReadsAsAnExportedPath_AreRefused)
{
    const std::string sPath = CXdr().Opaque(m_folder.Path()).Bytes();
    const std::string sName = CXdr().String("name").Bytes();
    EXPECT_EQ(Process(SYMLINK, sPath + sName + SATTR_NONE + sPath), Status(5));
    EXPECT_EQ(Process(LINK, sPath + sPath + sName), Words({5, 0, 0, 0}));
    EXPECT_EQ(Process(MKNOD, sPath + sName + Words({6}) + SATTR_NONE), Status(10004));
}

// ---- REMOVE, RMDIR and RENAME ----

TEST_F(Nfs3ProgNamespace, RemoveRmdirAndRename_ShowPathsAndEnd)
{
    m_folder.Write("file", "");
    std::filesystem::create_directory(m_folder.Path("folder"));
    EXPECT_EQ(ArgumentsOf(REMOVE, In("file")), Join(PathLines("host", "file"), {"vm1|End stat=0"}));
    EXPECT_EQ(ArgumentsOf(RMDIR, In("folder")),
              Join(PathLines("host", "folder"), {"vm1|End stat=0"}));
    GetID(m_folder.Write("from", ""));
    EXPECT_EQ(ArgumentsOf(RENAME, In("from") + In("to")),
              Join(Join(PathLines("host", "from"), PathLines("host", "to")), {"vm1|End stat=0"}));
    for (const uint32_t iProc : {REMOVE, RMDIR})
        EXPECT_EQ(ArgumentsOf(iProc, In("none")),
                  Join(PathLines("host", "none"), {"vm1|End stat=2"}));
}

TEST_F(Nfs3ProgNamespace, RemoveAndRmdir_ShowWhatTheyDo)
{
    const std::string sFile = m_folder.Write("file", "");
    const std::string sFolder = m_folder.Path("folder");
    std::filesystem::create_directory(sFolder);
    m_folder.Write("folder/file", "");
    const std::string sRemove = "|vm1|[Nfs3Prog.ProcedureREMOVE] ";
    const std::string sRmdir = "|vm1|[Nfs3Prog.ProcedureRMDIR] OS remove folder \"" + sFolder;
    EXPECT_EQ(LinesOf(LOG_CONTROL_FILE_ACCESS, REMOVE, In("file")),
              (Lines{"info" + sRemove + "Remove file, path=" + sFile,
                     "info" + sRemove + "OS remove file \"" + sFile + "\""}));
    EXPECT_EQ(LinesOf(LOG_CONTROL_ERROR, RMDIR, In("folder")),
              Lines{"error" + sRmdir + "\". Error=Directory not empty (39)"});
    EXPECT_EQ(LinesOf(LOG_CONTROL_ERROR, REMOVE, In("folder")),
              Lines{"error" + sRemove + "OS remove file \"" + sFolder +
                    "\". Error=Directory not empty (39)"});
    std::filesystem::remove(m_folder.Path("folder/file"));
    EXPECT_EQ(LinesOf(LOG_CONTROL_FILE_ACCESS, RMDIR, In("folder")), Lines{"info" + sRmdir + "\""});
}

TEST_F(Nfs3ProgNamespace, MissingObjectOrObjectOutside_OnlyTheLatterLeavesALine)
{
    const struct {
        uint32_t iProc;
        std::string sRest;
        std::string sReply;
        const char* pcName;
    } CASES[] = {{REMOVE, "", Status(2), "REMOVE"},
                 {RMDIR, "", Status(2), "RMDIR"},
                 {RENAME, In("to"), RenameStatus(2), "RENAME"}};
    for (const auto& [iProc, sRest, sReply, pcName] : CASES) {
        EXPECT_EQ(LinesOf(LOG_CONTROL_ERROR, iProc, In("missing") + sRest), Lines{});
        EXPECT_EQ(GetWritten(m_out), sReply);
        EXPECT_EQ(LinesOf(LOG_CONTROL_ERROR, iProc, In("..") + sRest),
                  Lines{"error|host|[Nfs3Prog.Procedure" + std::string(pcName) +
                        "] Path record not found"});
        EXPECT_EQ(GetWritten(m_out), sReply);
    }
}

TEST_F(Nfs3ProgNamespace, ReadOnly_RefusesAllFiveButMissingNamesComeFirst)
{
    m_prog.SetReadOnly(true);
    const std::string sFile = m_folder.Write("file", "text");
    std::filesystem::create_directory(m_folder.Path("folder"));
    GetID(sFile);
    EXPECT_EQ(Create("new"), Status(13));
    EXPECT_EQ(Create("file", Guarded()), Status(13));
    EXPECT_EQ(Create("file", Unchecked(SattrSize(0))), Status(13));
    EXPECT_EQ(Create("new", Words({7})), Status(13));
    EXPECT_EQ(Create("../new"), Status(13));
    EXPECT_EQ(Process(MKDIR, In("new") + SATTR_NONE), Status(13));
    EXPECT_EQ(Process(MKDIR, In("folder") + SATTR_NONE), Status(13));
    EXPECT_EQ(Process(REMOVE, In("file")), Status(13));
    EXPECT_EQ(Process(RMDIR, In("folder")), Status(13));
    EXPECT_EQ(Process(RMDIR, In("")), Status(13));
    EXPECT_EQ(Rename("file", "to"), RenameStatus(13));
    EXPECT_EQ(Rename("file", "file"), RenameStatus(13));
    EXPECT_EQ(Process(REMOVE, In("missing")), Status(2));
    EXPECT_EQ(Process(RMDIR, In("missing")), Status(2));
    EXPECT_EQ(Rename("missing", "to"), RenameStatus(2));
    EXPECT_EQ(Process(REMOVE, In("..")), Status(2));
    const std::string sText = CXdr().String("text").Bytes();
    EXPECT_EQ(Process(SYMLINK, In("name") + SATTR_NONE + sText), Status(5));
    EXPECT_EQ(Process(MKNOD, In("name") + Words({7}) + SATTR_NONE), Status(10004));
    EXPECT_EQ(Process(LINK, HandleArgument(sFile) + In("name")), Words({5, 0, 0, 0}));
    EXPECT_EQ(ReadWholeFile(sFile), "text");
    EXPECT_TRUE(std::filesystem::is_directory(m_folder.Path("folder")));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_folder.Path()), {}), 2);
}

TEST_F(Nfs3ProgNamespace, Rename_OfAKnownFile_ShowsWhatItDoes)
{
    const std::string sFrom = m_folder.Write("from", "new");
    const std::string sTo = m_folder.Write("to", "old");
    GetID(sFrom);
    const std::string sLabel = "info|vm1|[Nfs3Prog.ProcedureRENAME] ";
    EXPECT_EQ(LinesOf(LOG_CONTROL_FILE_ACCESS, RENAME, In("from") + In("to")),
              (Lines{sLabel + "Rename file, pathFrom=" + sFrom + ", pathTo=" + sTo,
                     sLabel + "Remove file, path=" + sTo, sLabel + "OS remove file \"" + sTo + "\"",
                     sLabel + "OS rename file from \"" + sFrom + "\" to \"" + sTo + "\""}));
    EXPECT_EQ(GetWritten(m_out), RenameStatus(0));
}

// The target's directory is as good as any; only the source is held against the exports.
TEST_F(Nfs3ProgNamespace, Rename_TargetOutsideTheExports_IsNotCheckedAndNotTheCaller)
{
    const CScratchFolder outside;
    GetID(m_folder.Write("file", "text"));
    const std::string sName = "../" + outside.Path().substr(outside.Path().rfind('/') + 1) + "/x";
    const Lines vLines = ArgumentsOf(RENAME, In("file") + In(sName));
    ASSERT_FALSE(vLines.empty());
    EXPECT_EQ(vLines.back(), "vm1|End stat=0");
    EXPECT_EQ(ReadWholeFile(outside.Path("x")), "text");
}
