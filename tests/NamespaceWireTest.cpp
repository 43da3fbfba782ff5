// Names made, removed and renamed by a client over the wire, as well-behaved ones do it.
#include <unistd.h>

#include <gtest/gtest.h>

#include "NamespaceFixture.h"

namespace {

class NamespaceWire : public CNamespaceFixture {
protected:
    void TearDown() override
    {
        EXPECT_EQ(CountLeftOpen(), 0U);
        CNamespaceFixture::TearDown();
    }

    // A folder whose files a client has read, so that their descriptors are kept.
    void MakeOpenFolder()
    {
        MakeFolder("from/sub");
        m_Folder.Write("from/a", "text a");
        m_Folder.Write("from/sub/b", "text b");
        m_sFolder = Lookup(m_sRoot, "from");
        m_sA = Lookup(m_sFolder, "a");
        m_sB = Lookup(Lookup(m_sFolder, "sub"), "b");
        EXPECT_EQ(Read(m_sA), "text a");
        EXPECT_EQ(Read(m_sB), "text b");
    }

    std::string m_sFolder;  // handles
    std::string m_sA;
    std::string m_sB;
};

class NamespaceWireReadOnly : public CReadOnlyNamespaceFixture {};

}  // namespace

// ---- CREATE ----

TEST_F(NamespaceWire, Create_NewFile_AnswersItsHandleAndAttributes)
{
    for (const std::string& sHow : {Unchecked(), Guarded(), EXCLUSIVELY}) {
        const std::string sName = "new" + std::to_string(GetWord(sHow, 0));
        const std::string sReply = Create(m_sRoot, sName, sHow);
        EXPECT_EQ(ToHex(sReply), ToHex(MadeReply(Lookup(m_sRoot, sName), m_Folder.Path(sName))));
        EXPECT_EQ(Contents(sName), "");
    }
    EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureCREATE] Mode: 2, Is file exist before "
                               "create: 0"));
    EXPECT_TRUE(
        m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureCREATE] Is file exist after create: 1"));
}

TEST_F(NamespaceWire, Create_NewFile_CanBeWrittenAndReadAtOnce)
{
    const std::string sHandle = Create(m_sRoot, "new").substr(12, HANDLE_SIZE);
    EXPECT_EQ(Write(sHandle, "data"), 0U);
    EXPECT_EQ(Read(sHandle), "data");
    EXPECT_EQ(Contents("new"), "data");
}

TEST_F(NamespaceWire, Create_Guarded_ExistingFile_Exists)
{
    m_Folder.Write("file", "text");
    MakeFolder("folder");
    EXPECT_EQ(Create(m_sRoot, "file", Guarded(SattrSize(0))), Status(17));
    EXPECT_EQ(Create(m_sRoot, "folder", Guarded()), Status(17));
    EXPECT_EQ(Contents("file"), "text");
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureCREATE] Mode: 1, Is file exist before create: "
                               "1"));
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureCREATE] End stat=17"));
}

TEST_F(NamespaceWire, Create_Unchecked_ExistingFile_KeepsItsContents)
{
    m_Folder.Write("file", "text");
    ExpectMade(Create(m_sRoot, "file"), "file");
    EXPECT_EQ(Contents("file"), "text");
}

TEST_F(NamespaceWire, Create_Unchecked_WithASize_CutsAnExistingFile)
{
    m_Folder.Write("file", "text");
    const std::string sHandle = Lookup(m_sRoot, "file");
    ExpectMade(Create(m_sRoot, "file", Unchecked(SattrSize(2))), "file");
    EXPECT_EQ(Contents("file"), "te");
    ExpectMade(Create(m_sRoot, "file", Unchecked(SattrSize(0))), "file");
    EXPECT_EQ(Contents("file"), "");
    EXPECT_EQ(Read(sHandle), "");
}

// Its verifier is not kept, so it behaves as an unchecked one that sets nothing.
TEST_F(NamespaceWire, Create_Exclusive_ExistingFile_IsAcceptedAsCreated)
{
    m_Folder.Write("file", "text");
    ExpectMade(Create(m_sRoot, "file", EXCLUSIVELY), "file");
    ExpectMade(Create(m_sRoot, "file", Words({2, 0, 0})), "file");
    EXPECT_EQ(Contents("file"), "text");
}

TEST_F(NamespaceWire, Create_UnknownMode_IsAnIoError)
{
    m_Folder.Write("file", "text");
    for (const uint32_t iMode : {3U, 4U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(Create(m_sRoot, "new", Words({iMode})), Status(5)) << iMode;
        EXPECT_EQ(Create(m_sRoot, "file", Words({iMode})), Status(5)) << iMode;
    }
    EXPECT_FALSE(Exists("new"));
    EXPECT_EQ(Contents("file"), "text");
}

TEST_F(NamespaceWire, Create_SetsModeAndSize)
{
    const CUmask umask(022);
    Create(m_sRoot, "plain");
    EXPECT_EQ(GetMode("plain"), 0644U);
    for (const auto& [sName, sHow] :
         {std::pair{"a", Unchecked(SattrMode(07751))}, {"b", Guarded(SattrMode(07751))}}) {
        EXPECT_EQ(GetWord(Create(m_sRoot, sName, sHow), 0), 0U);
        EXPECT_EQ(GetMode(sName), 07751U);
    }
    EXPECT_EQ(GetWord(Create(m_sRoot, "a", Unchecked(SattrMode(0600))), 0), 0U);
    EXPECT_EQ(GetMode("a"), 0600U);
    EXPECT_EQ(GetWord(Create(m_sRoot, "big", Unchecked(SattrSize(5000000000))), 0), 0U);
    EXPECT_EQ(std::filesystem::file_size(m_Folder.Path("big")), 5000000000U);
}

TEST_F(NamespaceWire, Create_OwnerAndTimes_AreAcceptedWithoutEffect)
{
    const std::string sOwnerAndTimes = Words({0, 1, 1000, 1, 1001, 0, 2, 4, 5, 2, 6, 7});
    EXPECT_EQ(GetWord(Create(m_sRoot, "new", Unchecked(sOwnerAndTimes)), 0), 0U);
    struct stat info = {};
    ASSERT_EQ(stat(m_Folder.Path("new").c_str(), &info), 0);
    EXPECT_EQ(info.st_uid | info.st_gid, 0U);
    EXPECT_GT(info.st_mtime, 1000000);
}

TEST_F(NamespaceWire, Create_WhereItCannotBe_IsAnIoError)
{
    MakeFolder("folder");
    m_Folder.Write("file", "text");
    EXPECT_EQ(Create(m_sRoot, "folder"), Status(5));
    EXPECT_EQ(Create(m_sRoot, "missing/new"), Status(5));
    EXPECT_EQ(Create(Lookup(m_sRoot, "file"), "new"), Status(5));
    EXPECT_EQ(Create(MakeHandle(999), "new"), Status(5));
    EXPECT_EQ(Create(m_sRoot, "huge", Unchecked(SattrSize(~uint64_t{0}))), Status(5));
    EXPECT_EQ(m_Log.Count("[Nfs3Prog.ProcedureCREATE] End stat=5"), 5U);
    EXPECT_EQ(Contents("file"), "text");
}

// ---- MKDIR ----

TEST_F(NamespaceWire, Mkdir_WithoutMode_Is0755)
{
    const CUmask umask(022);
    ExpectMade(Mkdir(m_sRoot, "new"), "new");
    EXPECT_EQ(GetMode("new"), 0755U);
    EXPECT_TRUE(std::filesystem::is_directory(m_Folder.Path("new")));
}

TEST_F(NamespaceWire, Mkdir_WithMode_HasIt)
{
    const CUmask umask(0);
    for (const uint32_t iMode : {0U, 0700U, 0777U}) {
        const std::string sName = "new" + std::to_string(iMode);
        EXPECT_EQ(GetWord(Mkdir(m_sRoot, sName, SattrMode(iMode)), 0), 0U);
        EXPECT_EQ(GetMode(sName), iMode);
    }
}

TEST_F(NamespaceWire, Mkdir_NewFolder_IsFilledAtOnce)
{
    const std::string sFolder = Mkdir(m_sRoot, "new").substr(12, HANDLE_SIZE);
    EXPECT_EQ(GetWord(Create(sFolder, "file"), 0), 0U);
    EXPECT_EQ(GetWord(Mkdir(sFolder, "deeper"), 0), 0U);
    EXPECT_TRUE(Exists("new/file"));
    EXPECT_TRUE(Exists("new/deeper"));
}

TEST_F(NamespaceWire, Mkdir_WhereItCannotBe_IsAnIoError)
{
    MakeFolder("folder/sub");
    m_Folder.Write("file", "text");
    EXPECT_EQ(Mkdir(m_sRoot, "folder"), Status(5));
    EXPECT_EQ(Mkdir(m_sRoot, "file"), Status(5));
    EXPECT_EQ(Mkdir(m_sRoot, "missing/new"), Status(5));
    EXPECT_EQ(Mkdir(MakeHandle(999), "new"), Status(5));
    EXPECT_EQ(m_Log.Count("info|vm1|[Nfs3Prog.ProcedureMKDIR] End stat=5"), 3U);
    EXPECT_EQ(m_Log.Count("error|127.0.0.1|[Nfs3Prog.ProcedureMKDIR] Path record not found"), 1U);
    EXPECT_TRUE(Exists("folder/sub"));
    EXPECT_EQ(Contents("file"), "text");
}

// ---- SYMLINK, MKNOD and LINK ----

TEST_F(NamespaceWire, SymlinkMknodAndLink_AreRefusedAndTheNextCallIsAnswered)
{
    m_Folder.Write("file", "text");
    const std::string sFile = CXdr().Opaque(Lookup(m_sRoot, "file")).Bytes();
    const std::string sName = DirOpArgs(m_sRoot, "new");
    const struct {
        uint32_t iProc;
        std::string sArguments;
        std::string sReply;
    } CASES[] = {
        {SYMLINK, sName + SATTR_ALL + CXdr().String("file").Bytes(), Status(5)},
        {SYMLINK, sName + SATTR_NONE + CXdr().String("").Bytes(), Status(5)},
        {MKNOD, sName + Words({3}) + SATTR_ALL + Words({4, 5}), Status(10004)},
        {MKNOD, sName + Words({4}) + SATTR_NONE + Words({4, 5}), Status(10004)},
        {MKNOD, sName + Words({6}) + SATTR_ALL, Status(10004)},
        {MKNOD, sName + Words({7}) + SATTR_ALL, Status(10004)},
        {MKNOD, sName + Words({1}), Status(10007)},
        {MKNOD, sName + Words({2}), Status(10007)},
        {MKNOD, sName + Words({5}), Status(10007)},
        {MKNOD, sName + Words({0xFFFFFFFF}), Status(10007)},
        {LINK, sFile + sName, Words({5, 0, 0, 0})},
    };
    CTcpClient client(WIRE_NFS_PORT);
    for (const auto& [iProc, sArguments, sReply] : CASES) {
        RpcCall first = NfsCall(iProc, sArguments);
        RpcCall second = NfsCall(GETATTR, sFile);
        first.iXid = 7;
        second.iXid = 8;
        ASSERT_TRUE(client.Send(first.Record() + second.Record()));
        const CReply reply = client.ReceiveReply();
        ASSERT_TRUE(reply.IsSuccess(7)) << iProc;
        EXPECT_EQ(ToHex(reply.Bytes().substr(REPLY_HEADER_SIZE)), ToHex(sReply));
        CReply attributes = client.ReceiveReply();
        ASSERT_TRUE(attributes.IsSuccess(8)) << iProc;
        EXPECT_EQ(attributes.Word(), 0U);
    }
    EXPECT_FALSE(Exists("new"));
    for (const char* pcName : {"SYMLINK", "MKNOD", "LINK"})
        EXPECT_TRUE(m_Log.Contains("error|127.0.0.1|[Nfs3Prog.Procedure" + std::string(pcName) +
                                   "] Path record not found"));
}

TEST_F(NamespaceWire, TruncatedCall_HasNoResultsAndTheNextIsAnswered)
{
    const std::string sName = DirOpArgs(m_sRoot, "new");
    const std::string sText = CXdr().String("text").Bytes();
    const std::pair<uint32_t, std::string> CALLS[] = {
        {CREATE, sName + Unchecked(SATTR_ALL)},
        {CREATE, sName + EXCLUSIVELY},
        {MKDIR, sName + SATTR_ALL},
        {SYMLINK, sName + SATTR_ALL + sText},
        {MKNOD, sName + Words({3}) + SATTR_ALL + Words({4, 5})},
        {MKNOD, sName + Words({7}) + SATTR_ALL},
        {REMOVE, sName},
        {RMDIR, sName},
        {RENAME, sName + sName},
        {LINK, CXdr().Opaque(m_sRoot).Bytes() + sName},
    };
    CTcpClient client(WIRE_NFS_PORT);
    for (const auto& [iProc, sArguments] : CALLS) {
        for (size_t iLength = 0; iLength < sArguments.size(); iLength += 4) {
            // A cut call waits for its rest until another comes, and that one for the next bytes.
            const std::string sRoot = CXdr().Opaque(m_sRoot).Bytes();
            RpcCall calls[] = {NfsCall(iProc, sArguments.substr(0, iLength)),
                               NfsCall(GETATTR, sRoot), NfsCall(GETATTR, sRoot)};
            for (RpcCall& call : calls)
                call.iXid = ++m_iXid;
            ASSERT_TRUE(client.Send(calls[0].Record() + calls[1].Record()));
            const CReply reply = client.ReceiveReply();
            ASSERT_TRUE(reply.IsSuccess(calls[0].iXid)) << iProc << " " << iLength;
            EXPECT_EQ(reply.Bytes().size(), REPLY_HEADER_SIZE);
            ASSERT_TRUE(client.Send(calls[2].Record()));
            ASSERT_TRUE(client.ReceiveReply().IsSuccess(calls[1].iXid)) << iProc << " " << iLength;
            ASSERT_TRUE(client.ReceiveReply().IsSuccess(calls[2].iXid)) << iProc << " " << iLength;
        }
    }
    EXPECT_FALSE(Exists("new"));
}

// ---- REMOVE and RMDIR ----

TEST_F(NamespaceWire, Remove_OfAFile_RemovesItAndClosesIt)
{
    m_Folder.Write("file", "text");
    const std::string sHandle = Lookup(m_sRoot, "file");
    EXPECT_EQ(Read(sHandle), "text");
    EXPECT_EQ(CountOpenFiles(), 1U);
    EXPECT_EQ(Remove(m_sRoot, "file"), Status(0));
    EXPECT_EQ(CountOpenFiles(), 0U);
    EXPECT_FALSE(Exists("file"));
    EXPECT_EQ(Read(sHandle), "(status 5)");
    EXPECT_EQ(Remove(m_sRoot, "file"), Status(2));
    EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureREMOVE] Remove file, path=" +
                               m_Folder.Path("file")));
}

TEST_F(NamespaceWire, Remove_OfAFolder_WorksOnlyWhereItIsEmpty)
{
    MakeFolder("empty");
    m_Folder.Write(MakeFolder("full").substr(m_Folder.Path().size() + 1) + "/file", "text");
    EXPECT_EQ(Remove(m_sRoot, "empty"), Status(0));
    EXPECT_EQ(Remove(m_sRoot, "full"), Status(5));
    EXPECT_FALSE(Exists("empty"));
    EXPECT_EQ(Contents("full/file"), "text");
}

TEST_F(NamespaceWire, Rmdir_OfAFolder_WorksOnlyWhereItIsEmpty)
{
    MakeFolder("empty");
    MakeFolder("full");
    m_Folder.Write("full/file", "text");
    EXPECT_EQ(Rmdir(m_sRoot, "empty"), Status(0));
    EXPECT_EQ(Rmdir(m_sRoot, "full"), Status(5));
    EXPECT_FALSE(Exists("empty"));
    EXPECT_EQ(Contents("full/file"), "text");
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureRMDIR] End stat=5"));
}

TEST_F(NamespaceWire, Rmdir_OfAFile_IsAnIoError)
{
    m_Folder.Write("file", "text");
    EXPECT_EQ(Rmdir(m_sRoot, "file"), Status(5));
    EXPECT_EQ(Contents("file"), "text");
}

TEST_F(NamespaceWire, RemoveRmdirAndRename_OfWhatIsNotThere_AreNoEntry)
{
    m_Folder.Write("file", "text");
    const std::string sFile = Lookup(m_sRoot, "file");
    for (const auto& [sDirectory, sName] : {std::pair{m_sRoot, "missing"},
                                            {m_sRoot, "missing/name"},
                                            {sFile, "name"},
                                            {MakeHandle(999), "file"},
                                            {std::string("abc"), "file"}}) {
        EXPECT_EQ(Remove(sDirectory, sName), Status(2));
        EXPECT_EQ(Rmdir(sDirectory, sName), Status(2));
        EXPECT_EQ(Rename(sDirectory, sName, m_sRoot, "file"), RenameStatus(2));
    }
    EXPECT_EQ(Contents("file"), "text");
    for (const char* pcName : {"REMOVE", "RMDIR", "RENAME"}) {
        EXPECT_EQ(m_Log.Count("[Nfs3Prog.Procedure" + std::string(pcName) + "] End stat=2"), 5U);
        EXPECT_EQ(m_Log.Count("error|127.0.0.1|[Nfs3Prog.Procedure" + std::string(pcName) +
                              "] Path record not found"),
                  2U);
    }
}

// ---- RENAME ----

TEST_F(NamespaceWire, Rename_OfAFile_KeepsItsHandle)
{
    m_Folder.Write("from", "text");
    MakeFolder("folder");
    const std::string sHandle = Lookup(m_sRoot, "from");
    EXPECT_EQ(Rename(m_sRoot, "from", Lookup(m_sRoot, "folder"), "to"), RenameStatus(0));
    EXPECT_FALSE(Exists("from"));
    EXPECT_EQ(Contents("folder/to"), "text");
    EXPECT_EQ(Read(sHandle), "text");
    EXPECT_EQ(Lookup(m_sRoot, "folder/to"), sHandle);
    EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureRENAME] End stat=0"));
}

TEST_F(NamespaceWire, Rename_OntoAFile_ReplacesItUnderBothHandles)
{
    m_Folder.Write("from", "new");
    m_Folder.Write("to", "old");
    const std::string sFrom = Lookup(m_sRoot, "from");
    const std::string sTo = Lookup(m_sRoot, "to");
    EXPECT_EQ(Read(sFrom), "new");
    EXPECT_EQ(Read(sTo), "old");
    EXPECT_EQ(Rename("from", "to"), RenameStatus(0));
    EXPECT_FALSE(Exists("from"));
    EXPECT_EQ(Contents("to"), "new");
    EXPECT_EQ(Read(sFrom), "new");
    EXPECT_EQ(Read(sTo), "new");
    EXPECT_EQ(ToHex(Getattr(sFrom)), ToHex(Words({0}) + AttributesOf(m_Folder.Path("to"))));

    m_Folder.Write("from", "another");
    EXPECT_EQ(Read(Lookup(m_sRoot, "from")), "another");
    EXPECT_EQ(Read(sFrom), "new");
}

TEST_F(NamespaceWire, Rename_OfAFileThatWasNeverLookedUp_IsDoneAndReportedAsFailed)
{
    m_Folder.Write("from", "new");
    m_Folder.Write("to", "old");
    EXPECT_EQ(Rename("from", "to"), RenameStatus(5));
    EXPECT_FALSE(Exists("from"));
    EXPECT_EQ(Contents("to"), "new");
}

TEST_F(NamespaceWire, Rename_OntoItself_ChangesNothing)
{
    m_Folder.Write("file", "text");
    m_Folder.Write("unknown", "text too");
    MakeFolder("folder");
    const std::string sHandle = Lookup(m_sRoot, "file");
    EXPECT_EQ(Rename("file", "file"), RenameStatus(0));
    EXPECT_EQ(Rename("file", "folder/../file"), RenameStatus(0));
    EXPECT_EQ(Rename("folder", "folder"), RenameStatus(0));
    EXPECT_EQ(Rename("unknown", "unknown"), RenameStatus(0));
    EXPECT_EQ(Read(sHandle), "text");
    EXPECT_EQ(Contents("unknown"), "text too");
    EXPECT_TRUE(Exists("folder"));
}

TEST_F(NamespaceWire, Rename_OntoAnotherNameOfTheSameFile_RemovesNeither)
{
    m_Folder.Write("from", "text");
    ASSERT_EQ(link(m_Folder.Path("from").c_str(), m_Folder.Path("to").c_str()), 0);
    const std::string sFrom = Lookup(m_sRoot, "from");
    const std::string sTo = Lookup(m_sRoot, "to");
    EXPECT_EQ(Rename("from", "to"), RenameStatus(0));
    EXPECT_EQ(Contents("from"), "text");
    EXPECT_EQ(Contents("to"), "text");
    EXPECT_EQ(Read(sFrom), "text");
    EXPECT_EQ(Read(sTo), "text");
}

TEST_F(NamespaceWire, Rename_OfAFolderWithOpenFiles_TakesTheirHandlesAlong)
{
    MakeOpenFolder();
    EXPECT_EQ(CountOpenFiles(), 2U);
    EXPECT_EQ(Rename("from", "to"), RenameStatus(0));
    EXPECT_EQ(CountOpenFiles(), 0U);
    EXPECT_EQ(Read(m_sA), "text a");
    EXPECT_EQ(Read(m_sB), "text b");
    EXPECT_EQ(Write(m_sB, "TEXT"), 0U);
    EXPECT_EQ(Contents("to/sub/b"), "TEXT b");
    EXPECT_EQ(Lookup(m_sFolder, "a"), m_sA);
    EXPECT_EQ(Lookup(m_sRoot, "to/sub/b"), m_sB);
}

TEST_F(NamespaceWire, Rename_OfAFolder_AnotherAtTheOldPlaceHasItsOwnFiles)
{
    MakeOpenFolder();
    EXPECT_EQ(Rename("from", "to"), RenameStatus(0));
    MakeFolder("from/sub");
    m_Folder.Write("from/a", "other a");
    m_Folder.Write("from/sub/b", "other b");
    const std::string sOtherA = Lookup(m_sRoot, "from/a");
    const std::string sOtherB = Lookup(m_sRoot, "from/sub/b");
    EXPECT_NE(sOtherA, m_sA);
    EXPECT_NE(sOtherB, m_sB);
    EXPECT_EQ(Read(sOtherA), "other a");
    EXPECT_EQ(Read(sOtherB), "other b");
    EXPECT_EQ(Read(m_sA), "text a");
    EXPECT_EQ(Read(m_sB), "text b");
}

TEST_F(NamespaceWire, Rename_OfAFolderOntoAnEmptyOne_ForgetsWhatWasOpenThere)
{
    MakeFolder("to/sub");
    m_Folder.Write("to/a", "stale a");
    m_Folder.Write("to/sub/b", "stale b");
    const std::string sStaleA = Lookup(m_sRoot, "to/a");
    const std::string sStaleB = Lookup(m_sRoot, "to/sub/b");
    EXPECT_EQ(Read(sStaleA) + Read(sStaleB), "stale astale b");
    MakeOpenFolder();
    for (const char* pcName : {"to/a", "to/sub/b", "to/sub"})
        std::filesystem::remove(m_Folder.Path(pcName));
    EXPECT_EQ(Rename("from", "to"), RenameStatus(0));
    for (const std::string& sHandle : {m_sA, sStaleA})
        EXPECT_EQ(Read(sHandle), "text a");
    for (const std::string& sHandle : {m_sB, sStaleB})
        EXPECT_EQ(Read(sHandle), "text b");
}

TEST_F(NamespaceWire, Rename_OfAPathWithSeveralHandles_MovesThemAll)
{
    for (const char* pcName : {"a", "b", "c"})
        m_Folder.Write(pcName, pcName);
    const std::string HANDLES[] = {Lookup(m_sRoot, "a"), Lookup(m_sRoot, "b"),
                                   Lookup(m_sRoot, "c")};
    EXPECT_EQ(Rename("a", "b"), RenameStatus(0));
    EXPECT_EQ(Rename("b", "c"), RenameStatus(0));
    EXPECT_EQ(Rename("c", "d"), RenameStatus(0));
    m_Folder.Write("b", "another b");
    m_Folder.Write("c", "another c");
    for (const std::string& sHandle : HANDLES)
        EXPECT_EQ(Read(sHandle), "a");
    EXPECT_EQ(Read(Lookup(m_sRoot, "c")), "another c");
}

TEST_F(NamespaceWire, Rename_OfAFolderThatWasNeverLookedUp_FailsButTakesHandlesAlong)
{
    MakeFolder("from");
    m_Folder.Write("from/file", "text");
    const std::string sHandle = Lookup(m_sRoot, "from/file");
    EXPECT_EQ(Rename("from", "to"), RenameStatus(5));
    m_Folder.Write(MakeFolder("from").substr(m_Folder.Path().size() + 1) + "/file", "other");
    EXPECT_EQ(Read(sHandle), "text");
    EXPECT_EQ(Read(Lookup(m_sRoot, "from/file")), "other");
}

TEST_F(NamespaceWire, Rename_OfAFolderIntoItself_FailsAndKeepsTheTarget)
{
    MakeFolder("folder/empty");
    m_Folder.Write("folder/file", "text");
    const std::string sFolder = Lookup(m_sRoot, "folder");
    const std::string sFile = Lookup(sFolder, "file");
    for (const char* pcName : {"file", "empty", "new"})
        EXPECT_EQ(Rename(m_sRoot, "folder", sFolder, pcName), RenameStatus(5)) << pcName;
    EXPECT_EQ(Read(sFile), "text");
    EXPECT_TRUE(Exists("folder/empty"));
    EXPECT_FALSE(Exists("folder/new"));
}

TEST_F(NamespaceWire, Rename_OntoAnotherFileSystem_FailsAndKeepsBoth)
{
    const CMountedFolder mounted(m_Folder.Path("mounted"));
    m_Folder.Write("from", "text");
    m_Folder.Write("mounted/to", "old");
    MakeFolder("mounted/empty");
    const std::string sFrom = Lookup(m_sRoot, "from");
    const std::string sTo = Lookup(m_sRoot, "mounted/to");
    EXPECT_EQ(Read(sFrom) + Read(sTo), "textold");
    for (const char* pcName : {"to", "empty", "new"})
        EXPECT_EQ(Rename("from", "mounted/" + std::string(pcName)), RenameStatus(5)) << pcName;
    EXPECT_EQ(Read(sFrom), "text");
    EXPECT_EQ(Read(sTo), "old");
    EXPECT_TRUE(Exists("mounted/empty"));
    EXPECT_FALSE(Exists("mounted/new"));
    m_pMain->CloseAllCachedFileHandles(m_Folder.Path().c_str());
}

TEST_F(NamespaceWire, Rename_WhereItCannotBe_IsAnIoErrorAndKeepsTheSource)
{
    m_Folder.Write("from", "text");
    MakeFolder("full");
    m_Folder.Write("full/file", "text too");
    const std::string sFrom = Lookup(m_sRoot, "from");
    EXPECT_EQ(Rename("from", "full"), RenameStatus(5));
    EXPECT_EQ(Rename("from", "missing/to"), RenameStatus(5));
    EXPECT_EQ(Rename("from", "full/file/to"), RenameStatus(5));
    EXPECT_EQ(Rename(m_sRoot, "from", MakeHandle(999), "to"), RenameStatus(5));
    EXPECT_EQ(Rename("full", "from/to"), RenameStatus(5));
    EXPECT_EQ(Rename("full/file", "full"), RenameStatus(5));
    EXPECT_EQ(Read(sFrom), "text");
    EXPECT_EQ(Contents("full/file"), "text too");
    EXPECT_EQ(m_Log.Count("info|vm1|[Nfs3Prog.ProcedureRENAME] End stat=5"), 6U);
}

TEST_F(NamespaceWire, Rename_FolderOntoAFile_AndFileOntoAnEmptyFolder_ReplaceIt)
{
    MakeFolder("from");
    m_Folder.Write("from/file", "text");
    m_Folder.Write("to", "old");
    Lookup(m_sRoot, "from");
    EXPECT_EQ(Rename("from", "to"), RenameStatus(0));
    EXPECT_EQ(Contents("to/file"), "text");

    MakeFolder("empty");
    m_Folder.Write("file", "new");
    const std::string sFolder = Lookup(m_sRoot, "empty");
    Lookup(m_sRoot, "file");
    EXPECT_EQ(Rename("file", "empty"), RenameStatus(0));
    EXPECT_EQ(Read(sFolder), "new");
}

// The target alone is not held against the exports.
TEST_F(NamespaceWire, Rename_OutOfTheExports_IsDone)
{
    const CScratchFolder outside;
    const std::string sUp = "../" + outside.Path().substr(outside.Path().rfind('/') + 1);
    m_Folder.Write("file", "text");
    outside.Write("existing", "old");
    const std::string sHandle = Lookup(m_sRoot, "file");
    EXPECT_EQ(Rename("file", sUp + "/existing"), RenameStatus(0));
    EXPECT_EQ(ReadWholeFile(outside.Path("existing")), "text");
    EXPECT_EQ(Read(sHandle), "(status 5)");  // it lies outside now
}

TEST_F(NamespaceWire, Rename_OntoAFileThatTheHostRemoved_DoesNotReadIt)
{
    m_Folder.Write("from", "new");
    m_Folder.Write("to", "old");
    const std::string sFrom = Lookup(m_sRoot, "from");
    const std::string sTo = Lookup(m_sRoot, "to");
    EXPECT_EQ(Read(sTo), "old");
    std::filesystem::remove(m_Folder.Path("to"));
    EXPECT_EQ(Rename("from", "to"), RenameStatus(0));
    EXPECT_EQ(Read(sFrom), "new");
    EXPECT_EQ(Read(sTo), "new");
}

// ---- A server that refuses changes ----

TEST_F(NamespaceWireReadOnly, AllFive_AreRefusedButMissingNamesComeFirst)
{
    MakeFolder("folder");
    m_Folder.Write("file", "text");
    Lookup(m_sRoot, "file");
    EXPECT_EQ(Create(m_sRoot, "new"), Status(13));
    EXPECT_EQ(Create(m_sRoot, "../new"), Status(13));
    EXPECT_EQ(Create(m_sRoot, "file", Unchecked(SattrSize(0))), Status(13));
    EXPECT_EQ(Create(m_sRoot, "file", Guarded()), Status(13));
    EXPECT_EQ(Mkdir(m_sRoot, "new"), Status(13));
    EXPECT_EQ(Remove(m_sRoot, "file"), Status(13));
    EXPECT_EQ(Rmdir(m_sRoot, "folder"), Status(13));
    EXPECT_EQ(Rename("file", "new"), RenameStatus(13));
    EXPECT_EQ(Remove(m_sRoot, "missing"), Status(2));
    EXPECT_EQ(Rmdir(m_sRoot, "missing"), Status(2));
    EXPECT_EQ(Rename("missing", "new"), RenameStatus(2));
    EXPECT_EQ(Contents("file"), "text");
    EXPECT_TRUE(Exists("folder"));
    EXPECT_FALSE(Exists("new"));
    EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureREMOVE] End stat=13"));
}
