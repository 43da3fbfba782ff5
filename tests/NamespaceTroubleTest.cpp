// Names that lead astray, disks that are full, files that change behind the server: each call gets
// its status, nothing is lost, and no descriptor stays behind.
#include <unistd.h>

#include <gtest/gtest.h>

#include "DescriptorShortage.h"
#include "NamespaceFixture.h"

namespace {

class NamespaceTrouble : public CNamespaceFixture {
protected:
    void TearDown() override
    {
        EXPECT_EQ(CountLeftOpen(), 0U);
        CNamespaceFixture::TearDown();
    }

    // What the five procedures answer for a name: CREATE, MKDIR, REMOVE, RMDIR, and RENAME with the
    // name as its source. None of them may leave a descriptor.
    std::vector<uint32_t> GetStatuses(const std::string& sDirectory, const std::string& sName)
    {
        const size_t iBefore = CountOpenFiles();
        std::vector<uint32_t> vStatuses;
        for (const std::string& sReply :
             {Create(sDirectory, sName, Unchecked(SattrSize(0))), Mkdir(sDirectory, sName),
              Remove(sDirectory, sName), Rmdir(sDirectory, sName),
              Rename(sDirectory, sName, m_sRoot, "target")})
            vStatuses.push_back(GetWord(sReply, 0));
        EXPECT_EQ(CountOpenFiles(), iBefore);
        return vStatuses;
    }

    size_t CountEntries(const std::string& sName = "") const
    {
        return static_cast<size_t>(
            std::distance(std::filesystem::directory_iterator(m_Folder.Path(sName)), {}));
    }

    // Makes, renames and removes a file and a folder of these names, and looks at the disk.
    void ExpectUsable(const std::string& sName)
    {
        const std::string sOther = sName.substr(0, sName.size() - 1) + "~";
        ExpectMade(Create(m_sRoot, sName), sName);
        EXPECT_EQ(Rename(sName, sOther), RenameStatus(0));
        EXPECT_FALSE(Exists(sName));
        EXPECT_TRUE(Exists(sOther));
        EXPECT_EQ(Remove(m_sRoot, sOther), Status(0));
        ExpectMade(Mkdir(m_sRoot, sName), sName);
        EXPECT_EQ(Rename(sName, sOther), RenameStatus(0));
        EXPECT_TRUE(std::filesystem::is_directory(m_Folder.Path(sOther)));
        EXPECT_EQ(Rmdir(m_sRoot, sOther), Status(0));
        EXPECT_EQ(CountEntries(), 0U);
        EXPECT_EQ(CountOpenFiles(), 0U);
    }
};

using Statuses = std::vector<uint32_t>;

const Statuses OUTSIDE = {5, 5, 2, 2, 2};  // and where the parent is missing
const Statuses DIRECTORY_ITSELF = {5, 5, 5, 5, 5};

}  // namespace

// ---- Names that lead out ----

TEST_F(NamespaceTrouble, NamesOutsideTheExports_AreRefusedAndNothingIsTouched)
{
    const CScratchFolder outside;
    outside.Write("file", "text");
    std::filesystem::create_directory(outside.Path("empty"));
    MakeFolder("sub");
    const std::string sUp = "../" + outside.Path().substr(outside.Path().rfind('/') + 1);
    for (const std::string& sName :
         {sUp + "/new", sUp + "/file", sUp + "/empty", sUp + "/new/", sUp + "/empty/.", sUp,
          "sub/../" + sUp + "/new", "sub/../" + sUp + "/file", std::string("../new"),
          std::string("../new/"), std::string("sub/../../new"), std::string(".."),
          std::string("../.."), std::string("/../../../../../../new"), sUp + "/missing/new"})
        EXPECT_EQ(GetStatuses(m_sRoot, sName), OUTSIDE) << sName;
    EXPECT_EQ(Create(m_sRoot, sUp + "/file", Guarded()), Status(5));
    EXPECT_EQ(ReadWholeFile(outside.Path("file")), "text");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(outside.Path()), {}), 2);
    EXPECT_FALSE(std::filesystem::exists(GetScratchRoot() + "/new"));
    EXPECT_EQ(CountEntries(), 1U);
}

// A neighbour whose name begins as the export's does.
TEST_F(NamespaceTrouble, NeighbourWithALongerName_IsOutside)
{
    const std::string sNeighbour = m_Folder.Path() + "2";
    std::filesystem::create_directory(sNeighbour);
    const std::string sName = "../" + sNeighbour.substr(sNeighbour.rfind('/') + 1) + "/new";
    EXPECT_EQ(GetStatuses(m_sRoot, sName), OUTSIDE);
    EXPECT_TRUE(std::filesystem::is_empty(sNeighbour));
    std::filesystem::remove(sNeighbour);
}

TEST_F(NamespaceTrouble, NamesThatComeBack_AreInside)
{
    MakeFolder("sub");
    const std::string sRoot = m_Folder.Path().substr(m_Folder.Path().rfind('/') + 1);
    EXPECT_EQ(GetWord(Create(m_sRoot, "../" + sRoot + "/a"), 0), 0U);
    EXPECT_EQ(GetWord(Create(m_sRoot, "sub/../b"), 0), 0U);
    EXPECT_EQ(GetWord(Mkdir(Lookup(m_sRoot, "sub"), "../c"), 0), 0U);
    EXPECT_TRUE(Exists("a") && Exists("b") && Exists("c"));
    EXPECT_EQ(Remove(m_sRoot, "sub/../b"), Status(0));
    EXPECT_FALSE(Exists("b"));
}

TEST_F(NamespaceTrouble, NamesWithASlashInside_LeadDeeper)
{
    MakeFolder("sub/deep");
    ExpectMade(Create(m_sRoot, "sub/deep/file"), "sub/deep/file");
    EXPECT_EQ(GetWord(Mkdir(m_sRoot, "sub//deep/./folder/"), 0), 0U);
    EXPECT_TRUE(std::filesystem::is_directory(m_Folder.Path("sub/deep/folder")));
    EXPECT_EQ(Rename("sub/deep/file", "sub/moved"), RenameStatus(0));
    EXPECT_EQ(Remove(m_sRoot, "sub/moved"), Status(0));
    EXPECT_EQ(Rmdir(m_sRoot, "sub/deep/folder"), Status(0));
    EXPECT_EQ(CountEntries("sub/deep"), 0U);
    EXPECT_EQ(CountEntries("sub"), 1U);
}

TEST_F(NamespaceTrouble, MissingParent_IsRefused)
{
    m_Folder.Write("file", "text");
    for (const char* pcName : {"missing/new", "missing/../new", "missing/../file", "file/new",
                               "file/../file", "missing/deeper/new"})
        EXPECT_EQ(GetStatuses(m_sRoot, pcName), OUTSIDE) << pcName;
    EXPECT_EQ(Contents("file"), "text");
    EXPECT_EQ(CountEntries(), 1U);
}

TEST_F(NamespaceTrouble, DanglingLinkThatLeadsOut_MakesNothingThere)
{
    const CScratchFolder outside;
    std::filesystem::create_symlink(outside.Path("new"), m_Folder.Path("absolute"));
    std::filesystem::create_symlink("../" + outside.Path().substr(outside.Path().rfind('/') + 1) +
                                        "/new",
                                    m_Folder.Path("relative"));
    std::filesystem::create_symlink("relative", m_Folder.Path("chain"));
    for (const char* pcName : {"absolute", "relative", "chain", "absolute/", "relative/new"})
        EXPECT_EQ(GetStatuses(m_sRoot, pcName), OUTSIDE) << pcName;
    for (const std::string& sHow : {Guarded(), EXCLUSIVELY, Unchecked(SATTR_ALL)})
        EXPECT_EQ(Create(m_sRoot, "relative", sHow), Status(5));
    EXPECT_TRUE(std::filesystem::is_empty(outside.Path()));
    EXPECT_EQ(CountEntries(), 3U);  // the links
}

TEST_F(NamespaceTrouble, LinkThatLeadsOut_IsNotFollowed)
{
    const CScratchFolder outside;
    outside.Write("file", "text");
    std::filesystem::create_directory_symlink(outside.Path(), m_Folder.Path("door"));
    std::filesystem::create_symlink(outside.Path("file"), m_Folder.Path("link"));
    for (const char* pcName : {"door", "door/file", "door/new", "link"})
        EXPECT_EQ(GetStatuses(m_sRoot, pcName), OUTSIDE) << pcName;
    EXPECT_EQ(ReadWholeFile(outside.Path("file")), "text");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(outside.Path()), {}), 1);
    EXPECT_TRUE(Exists("door") && Exists("link"));
}

TEST_F(NamespaceTrouble, DanglingLinkThatLeadsInside_MakesNothingEither)
{
    MakeFolder("sub");
    std::filesystem::create_symlink("sub/new", m_Folder.Path("link"));
    m_Folder.Write("file", "text");
    const std::string sFile = Lookup(m_sRoot, "file");
    for (const char* pcName : {"link", "link/", "link/new"}) {
        EXPECT_EQ(GetStatuses(m_sRoot, pcName), OUTSIDE) << pcName;
        EXPECT_EQ(Rename("file", pcName), RenameStatus(5)) << pcName;
    }
    EXPECT_EQ(CountEntries("sub"), 0U);
    EXPECT_TRUE(Exists("link"));
    EXPECT_EQ(Read(sFile), "text");
}

TEST_F(NamespaceTrouble, LinkToAFile_StandsForTheFile)
{
    MakeFolder("sub");
    m_Folder.Write("sub/file", "text");
    std::filesystem::create_symlink("sub/file", m_Folder.Path("link"));
    const std::string sFile = Lookup(m_sRoot, "sub/file");
    EXPECT_EQ(Create(m_sRoot, "link", Guarded()), Status(17));
    EXPECT_EQ(Create(m_sRoot, "link").substr(12, HANDLE_SIZE), sFile);
    EXPECT_EQ(Rename("link", "sub/moved"), RenameStatus(0));
    EXPECT_EQ(Read(sFile), "text");
    EXPECT_EQ(Contents("sub/moved"), "text");
}

TEST_F(NamespaceTrouble, LinkLoop_IsRefused)
{
    std::filesystem::create_symlink("two", m_Folder.Path("one"));
    std::filesystem::create_symlink("one", m_Folder.Path("two"));
    for (const char* pcName : {"one", "two", "one/new", "one/", "one/."})
        EXPECT_EQ(GetStatuses(m_sRoot, pcName), OUTSIDE) << pcName;
    EXPECT_EQ(CountEntries(), 2U);
}

// ---- Odd names ----

TEST_F(NamespaceTrouble, OrdinaryAndOddNames_AreUsable)
{
    for (const std::string& sName :
         {std::string("n"), std::string(255, 'n'), std::string(" a  b "), std::string("..."),
          std::string(".hidden"),
          std::string("Gr\xC3\xBC\xC3\x9F"
                      "e \xE6\x97\xA5\xE6\x9C\xAC"),
          std::string("\x80\xFE\xFF"), std::string("%s%n\n\t"), std::string("back\\slash")}) {
        ExpectUsable(sName);
        ASSERT_FALSE(HasFailure()) << sName;
    }
}

TEST_F(NamespaceTrouble, NamesTooLongForTheFileSystem_AreRefused)
{
    m_Folder.Write("file", "text");
    const std::string sHandle = Lookup(m_sRoot, "file");
    const size_t iFits = PATH_SIZE - 1 - m_Folder.Path().size() - 1;
    for (const size_t iLength : {size_t{256}, size_t{1000}, iFits, iFits + 1, size_t{4095}}) {
        const std::string sName(iLength, 'n');
        EXPECT_EQ(GetStatuses(m_sRoot, sName), OUTSIDE) << iLength;
        EXPECT_EQ(Rename("file", sName), RenameStatus(5)) << iLength;
    }
    EXPECT_EQ(Read(sHandle), "text");
    EXPECT_EQ(CountEntries(), 1U);
}

// 4096 bytes and more read as no name, and no name and "." are the directory itself.
TEST_F(NamespaceTrouble, NamesOfTheDirectoryItself_MakeAndLoseNothing)
{
    MakeFolder("empty");
    const std::string sEmpty = Lookup(m_sRoot, "empty");
    m_Folder.Write("file", "text");
    const std::string sFile = Lookup(m_sRoot, "file");
    for (const std::string& sName :
         {std::string(), std::string("."), std::string("./"), std::string("/"), std::string("./."),
          std::string(4096, 'n'), std::string(70000, 'n')}) {
        EXPECT_EQ(GetStatuses(sEmpty, sName), DIRECTORY_ITSELF) << sName.size();
        EXPECT_EQ(Rename(m_sRoot, "file", sEmpty, sName), RenameStatus(5)) << sName.size();
        EXPECT_EQ(GetStatuses(m_sRoot, sName), DIRECTORY_ITSELF) << sName.size();
        EXPECT_EQ(Create(sEmpty, sName, Guarded()), Status(17)) << sName.size();
    }
    EXPECT_TRUE(std::filesystem::is_directory(m_Folder.Path("empty")));
    EXPECT_EQ(Lookup(m_sRoot, "empty"), sEmpty);
    EXPECT_EQ(Read(sFile), "text");
    EXPECT_EQ(CountEntries(), 2U);
}

TEST_F(NamespaceTrouble, NamesOfTheEmptyExportItself_LoseNothing)
{
    for (const std::string& sName : {std::string(), std::string("."), std::string(5000, 'n')})
        EXPECT_EQ(GetStatuses(m_sRoot, sName), DIRECTORY_ITSELF) << sName.size();
    EXPECT_EQ(GetWord(Getattr(m_sRoot), 0), 0U);
}

// Nor do such names bring a directory back that is gone.
TEST_F(NamespaceTrouble, NamesOfADirectoryThatIsGone_MakeNothing)
{
    MakeFolder("gone");
    const std::string sGone = Lookup(m_sRoot, "gone");
    EXPECT_EQ(Rmdir(m_sRoot, "gone"), Status(0));
    for (const std::string& sName : {std::string(), std::string("."), std::string(5000, 'n'),
                                     std::string("new"), std::string("..")}) {
        EXPECT_EQ(GetStatuses(sGone, sName), OUTSIDE) << sName.size();
        for (const std::string& sHow : {Guarded(), EXCLUSIVELY})
            EXPECT_EQ(Create(sGone, sName, sHow), Status(5)) << sName.size();
    }
    EXPECT_EQ(CountEntries(), 0U);
}

TEST_F(NamespaceTrouble, NameOfTheParent_LosesNothing)
{
    MakeFolder("sub");
    m_Folder.Write("file", "text");
    const std::string sSub = Lookup(m_sRoot, "sub");
    const std::string sFile = Lookup(m_sRoot, "file");
    EXPECT_EQ(CountLeftOpen(), 0U);
    EXPECT_EQ(GetStatuses(sSub, ".."), DIRECTORY_ITSELF);
    EXPECT_EQ(Rename(m_sRoot, "file", sSub, ".."), RenameStatus(5));
    EXPECT_EQ(Rename(m_sRoot, "sub", sSub, "../file/.."), RenameStatus(5));
    EXPECT_EQ(Read(sFile), "text");
    EXPECT_EQ(Lookup(m_sRoot, "sub"), sSub);
    EXPECT_EQ(CountEntries(), 2U);
}

// An export that lies in another one is an entry there, but not one to be lost.
TEST_F(NamespaceTrouble, RootOfAnExport_IsNeitherRemovedNorRenamed)
{
    MakeFolder("inner/sub");
    MakeFolder("empty");
    Export(m_Folder.Path("inner"), "vm2");
    Export(m_Folder.Path("empty"), "vm3");
    const CScratchFolder outside;
    const std::string sSub = Lookup(m_sRoot, "inner/sub");
    const std::string sOut = "../" + outside.Path().substr(outside.Path().rfind('/') + 1) + "/x";
    EXPECT_EQ(Remove(m_sRoot, "empty"), Status(5));
    EXPECT_EQ(Rmdir(m_sRoot, "empty"), Status(5));
    EXPECT_EQ(Rename("empty", "other"), RenameStatus(5));
    EXPECT_EQ(Rename(sSub, "..", m_sRoot, "other"), RenameStatus(5));
    EXPECT_EQ(Rename(sSub, "../..", m_sRoot, sOut), RenameStatus(5));
    EXPECT_EQ(CountEntries(), 2U);
    EXPECT_TRUE(Exists("inner/sub") && Exists("empty"));
    EXPECT_EQ(Rmdir(m_sRoot, "inner/sub"), Status(0));  // what lies below one is an entry
}

// ---- Full and read-only disks ----

TEST_F(NamespaceTrouble, DiskWithoutRoom_RefusesDataAndKeepsWhatIsThere)
{
    const CMountedFolder small(m_Folder.Path("small"));
    const std::string sSmall = Lookup(m_sRoot, "small");
    const std::string sFile = Create(sSmall, "file").substr(12, HANDLE_SIZE);
    const std::string sData(16384, 'd');
    uint64_t iOffset = 0;
    const auto WriteOn = [&](const std::string& sHandle) {
        const CXdr arguments = CXdr().Opaque(sHandle).Hyper(iOffset).Word(16384).Word(2);
        return Results(WRITE, CXdr(arguments).Opaque(sData).Bytes());
    };
    for (std::string sReply = WriteOn(sFile); GetWord(sReply, 0) == 0; sReply = WriteOn(sFile)) {
        ASSERT_GT(GetWord(sReply, 12), 0U);
        iOffset += GetWord(sReply, 12);
    }
    EXPECT_EQ(iOffset, 65536U);
    EXPECT_EQ(WriteOn(sFile), Status(22));
    EXPECT_EQ(std::filesystem::file_size(m_Folder.Path("small/file")), 65536U);
    EXPECT_EQ(Read(sFile), std::string(65536, 'd'));

    // Names need no room there; an empty file takes nothing either.
    const std::string sOther = Create(sSmall, "other").substr(12, HANDLE_SIZE);
    EXPECT_EQ(Write(sOther, "data"), 22U);
    EXPECT_EQ(GetWord(Mkdir(sSmall, "folder"), 0), 0U);
    EXPECT_EQ(Results(SETATTR, CXdr().Opaque(sOther).Bytes() + SattrSize(100000) + Words({0})),
              Status(0));
    EXPECT_EQ(Remove(sSmall, "file"), Status(0));
    EXPECT_EQ(Write(sOther, "data"), 0U);
    EXPECT_EQ(CountLeftOpen(), 0U);
}

TEST_F(NamespaceTrouble, DiskWithoutInodes_RefusesNewNamesAndKeepsWhatIsThere)
{
    const CMountedFolder small(m_Folder.Path("small"), "nr_inodes=3");
    const std::string sSmall = Lookup(m_sRoot, "small");
    m_Folder.Write("small/file", "text");
    MakeFolder("small/folder");  // with the root's own, all three are taken
    const size_t iBefore = CountOpenFiles();
    for (const std::string& sHow : {Unchecked(), Unchecked(SATTR_ALL), Guarded(), EXCLUSIVELY})
        EXPECT_EQ(Create(sSmall, "new", sHow), Status(5));
    EXPECT_EQ(Mkdir(sSmall, "new"), Status(5));
    EXPECT_TRUE(m_Log.Contains("error|vm1|[Nfs3Prog.ProcedureCREATE] OS create file \"" +
                               m_Folder.Path("small/new") +
                               "\". Error=No space left on device (28)"));
    EXPECT_TRUE(m_Log.Contains("\" (mode = 493). Error=No space left on device (28)"));
    EXPECT_EQ(CountOpenFiles(), iBefore);
    EXPECT_EQ(CountEntries("small"), 2U);

    EXPECT_EQ(GetWord(Create(sSmall, "file"), 0), 0U);  // which exists
    EXPECT_EQ(Contents("small/file"), "text");
    EXPECT_EQ(Rmdir(sSmall, "folder"), Status(0));
    EXPECT_EQ(GetWord(Create(sSmall, "new"), 0), 0U);
    EXPECT_EQ(CountLeftOpen(), 0U);
}

TEST_F(NamespaceTrouble, ReadOnlyFileSystemBelowTheExport_RefusesEveryChange)
{
    const CMountedFolder frozen(m_Folder.Path("frozen"));
    m_Folder.Write("frozen/file", "text");
    m_Folder.Write("frozen/other", "other");
    m_Folder.Write("outer", "outer");
    MakeFolder("frozen/folder");
    frozen.Freeze();
    const std::string sFrozen = Lookup(m_sRoot, "frozen");
    const std::string sFile = Lookup(sFrozen, "file");
    Lookup(m_sRoot, "outer");
    const size_t iBefore = CountOpenFiles();
    EXPECT_EQ(GetStatuses(sFrozen, "new"), OUTSIDE);
    EXPECT_EQ(GetStatuses(sFrozen, "file"), DIRECTORY_ITSELF);
    EXPECT_EQ(GetStatuses(sFrozen, "folder"), DIRECTORY_ITSELF);
    EXPECT_EQ(Create(sFrozen, "file", Guarded()), Status(17));
    EXPECT_EQ(Create(sFrozen, "file", EXCLUSIVELY), Status(5));
    EXPECT_EQ(Rename(sFrozen, "file", sFrozen, "other"), RenameStatus(5));
    EXPECT_EQ(Rename(m_sRoot, "outer", sFrozen, "other"), RenameStatus(5));
    EXPECT_EQ(Write(sFile, "data"), 22U);
    EXPECT_EQ(Results(SETATTR, CXdr().Opaque(sFile).Bytes() + SattrSize(0) + Words({0})),
              Status(22));
    EXPECT_EQ(ToHex(Getattr(sFile)),
              ToHex(Words({0}) + AttributesOf(m_Folder.Path("frozen/file"))));
    EXPECT_TRUE(m_Log.Contains("Error=Read-only file system (30)"));
    EXPECT_EQ(CountOpenFiles(), iBefore - 1);  // the one of the file that was to be moved
    EXPECT_EQ(Contents("frozen/file"), "text");
    EXPECT_EQ(Contents("frozen/other"), "other");
    EXPECT_EQ(Contents("outer"), "outer");
    EXPECT_EQ(CountEntries("frozen"), 3U);
    EXPECT_EQ(CountLeftOpen(), 0U);
}

// ---- What changes between two calls ----

TEST_F(NamespaceTrouble, FileThatAClientReplacedByAFolder_IsAFolderToEveryCall)
{
    m_Folder.Write("name", "text");
    const std::string sHandle = Lookup(m_sRoot, "name");
    EXPECT_EQ(Read(sHandle), "text");
    EXPECT_EQ(Remove(m_sRoot, "name"), Status(0));
    EXPECT_EQ(Mkdir(m_sRoot, "name").substr(12, HANDLE_SIZE), sHandle);
    m_Folder.Write("name/file", "below");

    EXPECT_EQ(ToHex(Getattr(sHandle)), ToHex(Words({0}) + AttributesOf(m_Folder.Path("name"))));
    EXPECT_EQ(Read(sHandle), "(status 22)");
    EXPECT_EQ(Write(sHandle, "data"), 22U);
    for (const std::string& sHow : {Unchecked(), Unchecked(SattrSize(0)), EXCLUSIVELY})
        EXPECT_EQ(Create(m_sRoot, "name", sHow), Status(5));
    EXPECT_EQ(Remove(m_sRoot, "name"), Status(5));
    EXPECT_EQ(Rmdir(m_sRoot, "name"), Status(5));
    EXPECT_EQ(Contents("name/file"), "below");
    EXPECT_EQ(CountOpenFiles(), 0U);
    std::filesystem::remove(m_Folder.Path("name/file"));
    EXPECT_EQ(Rmdir(m_sRoot, "name"), Status(0));
}

TEST_F(NamespaceTrouble, FileThatTheHostReplacedByAFolder_LosesNothingOfIt)
{
    m_Folder.Write("name", "text");
    const std::string sHandle = Lookup(m_sRoot, "name");
    std::filesystem::remove(m_Folder.Path("name"));
    MakeFolder("name");
    m_Folder.Write("name/file", "below");
    m_pMain->CloseAllCachedFileHandles(m_Folder.Path("name").c_str());

    EXPECT_EQ(ToHex(Getattr(sHandle)), ToHex(Words({0}) + AttributesOf(m_Folder.Path("name"))));
    EXPECT_EQ(Read(sHandle), "(status 22)");
    EXPECT_EQ(Write(sHandle, "data"), 22U);
    EXPECT_EQ(Create(m_sRoot, "name", Unchecked(SattrSize(0))), Status(5));
    EXPECT_EQ(Remove(m_sRoot, "name"), Status(5));
    EXPECT_EQ(Rmdir(m_sRoot, "name"), Status(5));
    EXPECT_EQ(Contents("name/file"), "below");
    EXPECT_EQ(CountOpenFiles(), 0U);
}

// Kept: whoever reads and writes an open file goes on in it, until the host lets it be closed.
TEST_F(NamespaceTrouble, OpenFileThatTheHostReplacedByAFolder_IsUsedUntilItIsClosed)
{
    m_Folder.Write("name", "text");
    const std::string sHandle = Lookup(m_sRoot, "name");
    EXPECT_EQ(Read(sHandle), "text");
    std::filesystem::remove(m_Folder.Path("name"));
    MakeFolder("name");
    EXPECT_EQ(ToHex(Getattr(sHandle)), ToHex(Words({0}) + AttributesOf(m_Folder.Path("name"))));
    EXPECT_EQ(Read(sHandle), "text");
    EXPECT_EQ(Write(sHandle, "more"), 0U);
    EXPECT_EQ(Read(sHandle), "more");

    m_pMain->CloseCachedFileHandle(m_Folder.Path("name").c_str());
    EXPECT_EQ(Read(sHandle), "(status 22)");
    EXPECT_EQ(Write(sHandle, "data"), 22U);
    EXPECT_EQ(CountOpenFiles(), 0U);
}

// The descriptor that is kept of the old file must not take what is written to a later one.
TEST_F(NamespaceTrouble, FileReplacedByAFolderAndMadeAnew_TakesItsOwnBytes)
{
    m_Folder.Write("name", "text");
    const std::string sHandle = Lookup(m_sRoot, "name");
    EXPECT_EQ(Read(sHandle), "text");
    std::filesystem::remove(m_Folder.Path("name"));
    MakeFolder("name");
    EXPECT_EQ(ToHex(Getattr(sHandle)), ToHex(Words({0}) + AttributesOf(m_Folder.Path("name"))));
    EXPECT_EQ(Rmdir(m_sRoot, "name"), Status(0));
    EXPECT_EQ(GetWord(Create(m_sRoot, "name"), 0), 0U);
    EXPECT_EQ(Read(sHandle), "");
    EXPECT_EQ(Write(sHandle, "data"), 0U);
    EXPECT_EQ(Contents("name"), "data");
}

TEST_F(NamespaceTrouble, FolderReplacedByAFile_IsAFileToEveryCall)
{
    MakeFolder("name");
    m_Folder.Write("name/file", "below");
    const std::string sHandle = Lookup(m_sRoot, "name");
    const std::string sBelow = Lookup(sHandle, "file");
    EXPECT_EQ(Read(sHandle), "(status 22)");
    EXPECT_EQ(Write(sHandle, "data"), 22U);
    EXPECT_EQ(CountLeftOpen(), 0U);
    std::filesystem::remove_all(m_Folder.Path("name"));
    m_Folder.Write("name", "text");

    EXPECT_EQ(ToHex(Getattr(sHandle)), ToHex(Words({0}) + AttributesOf(m_Folder.Path("name"))));
    EXPECT_EQ(Read(sHandle), "text");
    EXPECT_EQ(Write(sHandle, "TE"), 0U);
    EXPECT_EQ(Read(sBelow), "(status 5)");
    EXPECT_EQ(Write(sBelow, "data"), 5U);
    EXPECT_EQ(Rmdir(m_sRoot, "name"), Status(5));
    EXPECT_EQ(GetStatuses(sHandle, "file"), OUTSIDE);
    EXPECT_EQ(GetWord(Create(m_sRoot, "name"), 0), 0U);
    EXPECT_EQ(Contents("name"), "TExt");
    EXPECT_EQ(Remove(m_sRoot, "name"), Status(0));
    EXPECT_EQ(CountOpenFiles(), 0U);
}

TEST_F(NamespaceTrouble, FolderThatTheHostEmptied_LeavesNoDescriptorWhenItIsRemoved)
{
    MakeFolder("folder");
    m_Folder.Write("folder/file", "text");
    EXPECT_EQ(Read(Lookup(m_sRoot, "folder/file")), "text");
    std::filesystem::remove(m_Folder.Path("folder/file"));
    EXPECT_EQ(CountOpenFiles(), 1U);
    EXPECT_EQ(Rmdir(m_sRoot, "folder"), Status(0));
    EXPECT_EQ(CountOpenFiles(), 0U);
}

TEST_F(NamespaceTrouble, FileThatTheHostRemoved_IsNoEntry)
{
    m_Folder.Write("name", "text");
    const std::string sHandle = Lookup(m_sRoot, "name");
    EXPECT_EQ(Read(sHandle), "text");
    std::filesystem::remove(m_Folder.Path("name"));
    EXPECT_EQ(Read(sHandle), "(status 5)");
    EXPECT_EQ(Write(sHandle, "data"), 5U);
    EXPECT_EQ(Remove(m_sRoot, "name"), Status(2));
    EXPECT_EQ(Rmdir(m_sRoot, "name"), Status(2));
    EXPECT_EQ(Rename("name", "other"), RenameStatus(2));
    EXPECT_EQ(GetWord(Create(m_sRoot, "name", EXCLUSIVELY), 0), 0U);
    EXPECT_EQ(Write(sHandle, "data"), 0U);
    EXPECT_EQ(Contents("name"), "data");
}

// ---- No free descriptor ----

TEST_F(NamespaceTrouble, NoFreeDescriptor_CreateFailsAndNamesGoOn)
{
    m_Folder.Write("file", "text");
    const std::string sFile = Lookup(m_sRoot, "file");
    EXPECT_EQ(Read(sFile), "text");  // a sanitizer's first look at a class needs a pipe
    m_pMain->CloseAllCachedFileHandles(m_Folder.Path().c_str());
    {
        const CDescriptorShortage shortage;
        for (const std::string& sHow : {Unchecked(), Guarded(), EXCLUSIVELY})
            EXPECT_EQ(Create(m_sRoot, "new", sHow), Status(5));
        EXPECT_EQ(GetWord(Mkdir(m_sRoot, "folder"), 0), 0U);
        EXPECT_EQ(Rename("file", "moved"), RenameStatus(0));
        EXPECT_EQ(Rmdir(m_sRoot, "folder"), Status(0));
    }
    EXPECT_TRUE(m_Log.Contains("error|vm1|[Nfs3Prog.ProcedureCREATE] OS create file \"" +
                               m_Folder.Path("new") + "\". Error=Too many open files (24)"));
    EXPECT_EQ(CountOpenFiles(), 0U);
    EXPECT_FALSE(Exists("new"));
    EXPECT_EQ(Read(sFile), "text");
    EXPECT_EQ(GetWord(Create(m_sRoot, "new"), 0), 0U);
}

// One descriptor is enough to make a file; its attributes then need another's size, and do without.
TEST_F(NamespaceTrouble, LastFreeDescriptor_CreateSucceeds)
{
    Getattr(m_sRoot);  // the connection is open from here on
    {
        const CDescriptorShortage shortage(1);
        EXPECT_EQ(GetWord(Create(m_sRoot, "new", Unchecked(SATTR_ALL)), 0), 0U);
    }
    EXPECT_EQ(std::filesystem::file_size(m_Folder.Path("new")), 3U);
    EXPECT_EQ(GetMode("new"), 0640U);
}
