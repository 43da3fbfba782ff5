// Listings that go on where their last page ended, and clients that cannot tell.
#include <cstdlib>
#include <functional>
#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "DescriptorShortage.h"
#include "ListingWorld.h"
#include "Sanitizers.h"

namespace {

constexpr uint32_t REMOVE = 12;
constexpr uint32_t RMDIR = 13;
constexpr uint32_t RENAME = 14;
const std::string DONE = Words({0, 0, 0});

// Open descriptors of directories at and below a path, also of removed ones.
size_t CountOpenFolders(const std::string& sPath)
{
    size_t iCount = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        const std::string sTarget = std::filesystem::read_symlink(entry.path(), error).string();
        struct stat info = {};
        iCount += sTarget.starts_with(sPath) && stat(entry.path().c_str(), &info) == 0 &&
                          S_ISDIR(info.st_mode)
                      ? 1
                      : 0;
    }
    return iCount;
}

// The program as an object. Every directory is at rest, unless a case sets the clock right.
class Nfs3ProgListingPositions : public CNfs3ProgFixture {
protected:
    Nfs3ProgListingPositions()
    {
        StopAccessTimes();
        Add(m_folder.Path(), "vm1");
        MakeFiles(m_sFolder, 35);
    }

    // One page; it must be the one that a listing from the start comes to.
    ListedPage List(const std::string& sFolder, uint64_t iCookie, uint32_t iProc = READDIR)
    {
        const std::string sHandle = HandleArgument(sFolder);
        const unsigned int iBefore = g_iOpened;
        const std::string sReply = Process(iProc, ListArguments(iProc, sHandle, iCookie));
        m_iOpened = g_iOpened - iBefore;
        EXPECT_EQ(ToHex(ClearPadding(iProc, sReply)),
                  ToHex(ExpectedPage(iProc, sFolder, iCookie,
                                     [this](const std::string& sPath) { return GetID(sPath); })));
        return ParsePage(iProc, sReply);
    }

    // True if a page needed no directory to be opened.
    bool IsContinued(const std::string& sFolder, uint64_t iCookie, uint32_t iProc = READDIR)
    {
        List(sFolder, iCookie, iProc);
        return m_iOpened == 0;
    }

    // A call for an entry of the export's directory; names may lead deeper down.
    std::string CallNamed(uint32_t iProc, const std::string& sName, const std::string& sRest = {})
    {
        return Process(iProc,
                       HandleArgument(m_folder.Path()) + CXdr().String(sName).Bytes() + sRest);
    }
    std::string Rename(const std::string& sFrom, const std::string& sTo)
    {
        return CallNamed(RENAME, sFrom,
                         HandleArgument(m_folder.Path()) + CXdr().String(sTo).Bytes());
    }

    size_t CountKept() const { return CountOpenFolders(m_folder.Path()); }

    const CClockAhead m_ahead;
    const std::string m_sFolder = m_folder.Path("folder");
    unsigned int m_iOpened = 0;  // directories, for the last page
};

// The same server over the wire.
class Nfs3ProgListingPositionsWire : public CNfs3WireFixture {
protected:
    void SetUp() override
    {
        StopAccessTimes();
        CNfs3WireFixture::SetUp();
        MakeFiles(m_sFolder, 35);
    }

    ListedPage List(const std::string& sHandle, uint64_t iCookie)
    {
        const unsigned int iBefore = g_iOpened;
        const std::string sReply = Results(READDIR, ListArguments(READDIR, sHandle, iCookie));
        m_iOpened = g_iOpened - iBefore;
        return ParsePage(READDIR, sReply);
    }

    const CClockAhead m_ahead;
    const std::string m_sFolder = m_Folder.Path("folder");
    unsigned int m_iOpened = 0;  // directories, for the last page
};

// A folder on the file system that the program lies on, mounted elsewhere without access times.
class CDiskFolder {
public:
    explicit CDiskFolder(const std::string& sMountPoint) : m_sMountPoint(sMountPoint)
    {
        const auto program = std::filesystem::read_symlink("/proc/self/exe");
        m_sPath = program.parent_path().string() + "/listing-XXXXXX";
        std::filesystem::create_directory(sMountPoint);
        const char* pcPoint = sMountPoint.c_str();
        m_bMounted =
            mkdtemp(m_sPath.data()) != nullptr &&
            mount(m_sPath.c_str(), pcPoint, nullptr, MS_BIND, nullptr) == 0 &&
            mount(nullptr, pcPoint, nullptr, MS_REMOUNT | MS_BIND | MS_NOATIME, nullptr) == 0;
    }
    ~CDiskFolder()
    {
        umount2(m_sMountPoint.c_str(), MNT_DETACH);
        std::error_code error;
        std::filesystem::remove_all(m_sPath, error);
    }
    CDiskFolder(const CDiskFolder&) = delete;
    CDiskFolder& operator=(const CDiskFolder&) = delete;

    bool IsMounted() const { return m_bMounted; }

private:
    const std::string m_sMountPoint;
    std::string m_sPath;
    bool m_bMounted = false;
};

}  // namespace

// ---- Going on ----

TEST_F(Nfs3ProgListingPositions, WholeListing_OpensTheDirectoryOnce)
{
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        EXPECT_FALSE(IsContinued(m_sFolder, 0, iProc));
        EXPECT_EQ(CountKept(), 1U);
        EXPECT_TRUE(IsContinued(m_sFolder, 10, iProc));
        EXPECT_TRUE(IsContinued(m_sFolder, 20, iProc));
        EXPECT_TRUE(IsContinued(m_sFolder, 30, iProc));
        EXPECT_EQ(CountKept(), 0U);  // that was the end
    }
}

TEST_F(Nfs3ProgListingPositions, EndBehindAFullPage_IsFoundInTheKeptPosition)
{
    const std::string sFolder = m_folder.Path("ten");
    MakeFiles(sFolder, 10);
    List(sFolder, 0);
    EXPECT_TRUE(IsContinued(sFolder, 10));
    EXPECT_EQ(CountKept(), 0U);
}

TEST_F(Nfs3ProgListingPositions, ManyPages_AcrossTheSystemsOwnBuffers)
{
    const std::string sFolder = m_folder.Path("many");
    std::filesystem::create_directory(sFolder);
    for (int i = 0; i < 400; i++)  // 100 KB of names
        m_folder.Write("many/" + std::to_string(i) + std::string(240, 'n'), "");
    List(sFolder, 0);
    for (uint64_t iCookie = 10; iCookie <= 400; iCookie += 10)
        EXPECT_TRUE(IsContinued(sFolder, iCookie)) << iCookie;
}

TEST_F(Nfs3ProgListingPositions, BothProcedures_GoOnAfterEachOther)
{
    List(m_sFolder, 0, READDIR);
    EXPECT_TRUE(IsContinued(m_sFolder, 10, READDIRPLUS));
    EXPECT_TRUE(IsContinued(m_sFolder, 20, READDIR));
}

TEST_F(Nfs3ProgListingPositions, CookieThatStandsAtTheSamePlace_GoesOnThere)
{
    List(m_sFolder, 0x8000000000000000);
    EXPECT_TRUE(IsContinued(m_sFolder, 10));
    List(m_sFolder, 0x80000000);  // negative: from the start
    EXPECT_FALSE(IsContinued(m_sFolder, 0x8000000A));
    EXPECT_TRUE(IsContinued(m_sFolder, uint64_t{7} << 32 | 10));
}

TEST_F(Nfs3ProgListingPositions, AnyOtherCookie_OpensAnew)
{
    List(m_sFolder, 0);
    for (const uint64_t iCookie : {9U, 11U, 30U, 20U, 34U, 35U, 36U, 0x7FFFFFFFU, 0U})
        EXPECT_FALSE(IsContinued(m_sFolder, iCookie)) << iCookie;
    EXPECT_TRUE(IsContinued(m_sFolder, 10));  // the first one is still there, and so is
    EXPECT_TRUE(IsContinued(m_sFolder, 10));  // that of the last
}

TEST_F(Nfs3ProgListingPositions, PageAskedForAgain_IsTheSame)
{
    List(m_sFolder, 0);
    const ListedPage page = List(m_sFolder, 10);
    const ListedPage again = List(m_sFolder, 10);
    EXPECT_EQ(m_iOpened, 1U);
    for (size_t i = 0; i < PAGE_ENTRIES; i++)
        EXPECT_EQ(page.vEntries.at(i).sName, again.vEntries.at(i).sName);
    EXPECT_TRUE(IsContinued(m_sFolder, 20));
    EXPECT_TRUE(IsContinued(m_sFolder, 20));  // each of the two left its own
}

TEST_F(Nfs3ProgListingPositions, TwoClientsAtOnePace_BothGoOn)
{
    List(m_sFolder, 0);
    List(m_sFolder, 0);
    EXPECT_EQ(CountKept(), 2U);
    for (uint64_t iCookie = 10; iCookie <= 30; iCookie += 10) {
        EXPECT_TRUE(IsContinued(m_sFolder, iCookie)) << iCookie;
        EXPECT_TRUE(IsContinued(m_sFolder, iCookie)) << iCookie;
    }
    EXPECT_EQ(CountKept(), 0U);
}

TEST_F(Nfs3ProgListingPositions, ClientThatIsAlone_LeavesOneOpenAtMost)
{
    for (int i = 0; i < 3; i++) {
        for (uint64_t iCookie = 0; iCookie < 30; iCookie += 10) {
            List(m_sFolder, iCookie);
            EXPECT_EQ(CountKept(), 1U);
        }
        List(m_sFolder, 30);
    }
}

TEST_F(Nfs3ProgListingPositions, BeyondThirtyTwo_TheOldestIsClosed)
{
    for (int i = 0; i < 33; i++)
        MakeFiles(m_folder.Path(std::to_string(i)), 11);
    for (int i = 0; i < 33; i++)
        List(m_folder.Path(std::to_string(i)), 0);
    EXPECT_EQ(CountKept(), 32U);
    EXPECT_FALSE(IsContinued(m_folder.Path("0"), 10));
    for (int i = 1; i < 33; i++)
        EXPECT_TRUE(IsContinued(m_folder.Path(std::to_string(i)), 10)) << i;
}

// ---- Not at rest, or changed ----

TEST_F(Nfs3ProgListingPositions, DirectoryNotAtRest_IsOpenedForEachPage)
{
    g_iClockAhead = 0;
    MakeFiles(m_folder.Path("young"), 35);
    for (uint64_t iCookie = 0; iCookie <= 30; iCookie += 10) {
        EXPECT_FALSE(IsContinued(m_folder.Path("young"), iCookie)) << iCookie;
        EXPECT_EQ(CountKept(), 0U);
    }
}

// Nobody waits for the clock here, and nothing is overlooked.
TEST_F(Nfs3ProgListingPositions, ChangesWithinOneStepOfTheClock_AreSeen)
{
    g_iClockAhead = 0;
    for (int i = 0; i < 200 && !HasFailure(); i++) {
        const std::string sFolder = m_folder.Path("fast" + std::to_string(i));
        MakeFiles(sFolder, 12);
        List(sFolder, 0);
        std::filesystem::remove(sFolder + "/0");
        std::filesystem::remove(sFolder + "/11");
        MakeFiles(sFolder + "/inner", 0);
        List(sFolder, 10);
        std::filesystem::remove_all(sFolder);
    }
}

TEST_F(Nfs3ProgListingPositions, ChangedDirectory_IsOpenedAnew)
{
    const std::pair<const char*, std::function<void()>> CHANGES[] = {
        {"new", [&] { m_folder.Write("folder/new", ""); }},
        {"removed", [&] { std::filesystem::remove(m_sFolder + "/3"); }},
        {"all removed",
         [&] {
             std::filesystem::remove_all(m_sFolder);
             MakeFiles(m_sFolder, 35);
         }},
        {"renamed", [&] { std::filesystem::rename(m_sFolder + "/4", m_sFolder + "/x"); }},
        {"removed through the server", [&] { EXPECT_EQ(CallNamed(REMOVE, "folder/5"), DONE); }},
        {"created through the server",
         [&] {
             CallNamed(8, "folder/y", Words({0, 0, 0, 0, 0, 0, 0}));
         }},
    };
    for (const auto& [pcName, Change] : CHANGES) {
        List(m_sFolder, 0);
        WaitForNextTimestamp();
        Change();
        EXPECT_FALSE(IsContinued(m_sFolder, 10)) << pcName;
        EXPECT_EQ(CountKept(), 1U) << pcName;  // the stale one was closed
        EXPECT_TRUE(IsContinued(m_sFolder, 20)) << pcName;
        List(m_sFolder, 30);
        EXPECT_EQ(CountKept(), 0U) << pcName;
    }
}

TEST_F(Nfs3ProgListingPositions, ReplacedDirectory_IsNotContinuedInTheOldOne)
{
    List(m_sFolder, 0);
    std::filesystem::rename(m_sFolder, m_folder.Path("old"));
    std::filesystem::create_directory(m_sFolder);
    for (int i = 0; i < 15; i++)
        m_folder.Write("folder/new" + std::to_string(i), "");
    const ListedPage page = List(m_sFolder, 10);
    EXPECT_EQ(m_iOpened, 1U);
    ASSERT_EQ(page.vEntries.size(), 5U);
    for (const ListedEntry& entry : page.vEntries)
        EXPECT_TRUE(entry.sName.starts_with("new")) << entry.sName;
    EXPECT_EQ(CountKept(), 0U);
}

TEST_F(Nfs3ProgListingPositions, DirectoryThatBecameAFile_HasNoEntries)
{
    List(m_sFolder, 0);
    std::filesystem::rename(m_sFolder, m_folder.Path("old"));
    m_folder.Write("folder", "");
    const ListedPage page = List(m_sFolder, 10);
    EXPECT_TRUE(page.bEof);
    EXPECT_EQ(CountKept(), 0U);
}

// ---- Removed while it is listed ----

TEST_F(Nfs3ProgListingPositions, RemovedByAClient_IsClosedAtOnceAndTheNextPageFails)
{
    const std::string sHandle = HandleArgument(m_sFolder);
    List(m_sFolder, 0);
    for (const std::string& sName : ListNames(m_sFolder))
        EXPECT_EQ(CallNamed(REMOVE, "folder/" + sName), DONE);
    EXPECT_EQ(CallNamed(RMDIR, "folder"), DONE);
    EXPECT_EQ(CountKept(), 0U);
    for (const uint32_t iProc : LISTING_PROCEDURES)
        EXPECT_EQ(Process(iProc, ListArguments(iProc, sHandle, 10)), LISTING_REFUSED);
}

TEST_F(Nfs3ProgListingPositions, RemovedByTheHost_FailsTheNextPageAndLeavesNothingOpen)
{
    const size_t iDescriptors = CountDescriptors();
    const std::string sHandle = HandleArgument(m_sFolder);
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        MakeFiles(m_sFolder, 35);
        Process(READDIR, ListArguments(READDIR, sHandle));
        EXPECT_EQ(CountKept(), 1U);
        std::filesystem::remove_all(m_sFolder);
        EXPECT_EQ(Process(iProc, ListArguments(iProc, sHandle, 10)), LISTING_REFUSED);
        EXPECT_EQ(CountKept(), 0U);
        EXPECT_EQ(CountDescriptors(), iDescriptors);
    }
}

TEST_F(Nfs3ProgListingPositions, UnknownHandle_ClosesNobodysPosition)
{
    List(m_sFolder, 0);
    EXPECT_EQ(Process(READDIR, ListArguments(READDIR, CXdr().Opaque(MakeHandle(999)).Bytes())),
              LISTING_REFUSED);
    EXPECT_TRUE(IsContinued(m_sFolder, 10));
}

TEST_F(Nfs3ProgListingPositions, RefusedRemoval_LosesNothing)
{
    List(m_sFolder, 0);
    EXPECT_EQ(CallNamed(RMDIR, "folder"), Words({5, 0, 0}));  // it is not empty
    EXPECT_EQ(List(m_sFolder, 10).vEntries.size(), 10U);
}

// ---- Closed with what ends their use ----

TEST_F(Nfs3ProgListingPositions, RenameOfTheFolderOrOneAbove_ClosesAndTheHandleGoesOn)
{
    MakeFiles(m_folder.Path("a/b"), 35);
    MakeFiles(m_folder.Path("ab"), 35);
    const std::string sHandle = HandleArgument(m_folder.Path("a/b"));
    List(m_folder.Path("ab"), 0);
    const std::pair<const char*, const char*> RENAMES[] = {{"a", "c"}, {"c/b", "c/d"}};
    for (const auto& [pcFrom, pcTo] : RENAMES) {
        Process(READDIR, ListArguments(READDIR, sHandle));
        EXPECT_EQ(CountKept(), 2U);
        GetID(m_folder.Path(pcFrom));
        EXPECT_EQ(Rename(pcFrom, pcTo), Words({0, 0, 0, 0, 0}));
        EXPECT_EQ(CountKept(), 1U);
        const std::string sReply = Process(READDIR, ListArguments(READDIR, sHandle, 10));
        EXPECT_EQ(ParsePage(READDIR, sReply).vEntries.size(), 10U);
        m_utilities.CloseFolders(m_folder.Path("c").c_str());
    }
    EXPECT_EQ(HandleArgument(m_folder.Path("c/d")), sHandle);
    EXPECT_TRUE(IsContinued(m_folder.Path("ab"), 10));
}

TEST_F(Nfs3ProgListingPositions, RenameOntoAFolderThatIsListed_ListsTheNewOne)
{
    const std::string sTarget = m_folder.Path("target");
    MakeFiles(sTarget, 15);
    List(sTarget, 0);
    std::filesystem::remove_all(sTarget);
    std::filesystem::create_directory(sTarget);
    GetID(m_sFolder);
    const std::vector<std::string> vNames = ListNames(m_sFolder);
    EXPECT_EQ(Rename("folder", "target"), Words({0, 0, 0, 0, 0}));
    EXPECT_EQ(CountKept(), 0U);
    EXPECT_EQ(List(sTarget, 10).vEntries.at(0).sName, vNames[10]);
}

TEST_F(Nfs3ProgListingPositions, WithdrawnExport_ClosesThem)
{
    const std::function<void()> WITHDRAWALS[] = {
        [&] {
            m_utilities.RemoveMountInfoByLocalMountPath(&m_param, &m_argu, m_folder.Path().c_str());
        },
        [&] { m_utilities.RemoveMountInfoByExportName("vm1"); },
        [&] { m_utilities.RemoveAllMountInfo(); },
    };
    for (const auto& Withdraw : WITHDRAWALS) {
        List(m_sFolder, 0);
        EXPECT_EQ(CountKept(), 1U);
        Withdraw();
        EXPECT_EQ(CountKept(), 0U);
        EXPECT_EQ(Process(READDIR, ListArguments(READDIR, HandleArgument(m_sFolder), 10)),
                  LISTING_REFUSED);
        ASSERT_EQ(Add(m_folder.Path(), "vm1"), "");
        EXPECT_FALSE(IsContinued(m_sFolder, 10));
        m_utilities.CloseFolders(m_folder.Path().c_str());
    }
}

TEST_F(Nfs3ProgListingPositions, NoFreeDescriptor_GivesThemUpAndBothListingsGoOn)
{
    const std::string sOther = m_folder.Path("other");
    MakeFiles(sOther, 35);
    const std::string sHandle = HandleArgument(sOther);
    List(m_sFolder, 0);
    std::string sReply;
    {
        const CDescriptorShortage shortage;
        sReply = Process(READDIR, ListArguments(READDIR, sHandle));
    }
    EXPECT_EQ(ParsePage(READDIR, sReply).vEntries.size(), 10U);
    EXPECT_FALSE(IsContinued(m_sFolder, 10));
    EXPECT_TRUE(IsContinued(sOther, 10));
}

TEST_F(Nfs3ProgListingPositions, NoFreeDescriptor_AKeptPositionNeedsNone)
{
    const std::string sHandle = HandleArgument(m_sFolder);
    List(m_sFolder, 0);
    std::string sReply;
    {
        const CDescriptorShortage shortage;
        sReply = Process(READDIR, ListArguments(READDIR, sHandle, 10));
    }
    EXPECT_EQ(ParsePage(READDIR, sReply).vEntries.size(), 10U);
    EXPECT_TRUE(IsContinued(m_sFolder, 20));
}

// Sizes are asked for in the middle of a page, whose own directory stays open.
TEST_F(Nfs3ProgListingPositions, NoFreeDescriptorInTheMiddleOfAPage_GivesTheOthersUp)
{
    MakeFiles(m_folder.Path("other"), 35);
    List(m_folder.Path("other"), 0);
    List(m_sFolder, 0);
    const std::string sHandle = HandleArgument(m_sFolder);
    std::string sReply;
    {
        const CDescriptorShortage shortage;
        sReply = Process(READDIRPLUS, ListArguments(READDIRPLUS, sHandle, 10));
    }
    const ListedPage page = ParsePage(READDIRPLUS, sReply);
    ASSERT_EQ(page.vEntries.size(), 10U);
    EXPECT_EQ(page.vEntries[0].sName, ListNames(m_sFolder)[10]);
    EXPECT_FALSE(IsContinued(m_folder.Path("other"), 10));
    EXPECT_TRUE(IsContinued(m_sFolder, 20));
}

// ---- Over the wire ----

TEST_F(Nfs3ProgListingPositionsWire, WholeListing_OpensTheDirectoryOnce)
{
    const std::string sHandle = HandleArgument("folder");
    std::vector<std::string> vNames;
    ListedPage page;
    do {
        page = List(sHandle, vNames.size());
        EXPECT_EQ(m_iOpened, vNames.empty() ? 1U : 0U);
        for (const ListedEntry& entry : page.vEntries)
            vNames.push_back(entry.sName);
    } while (!page.bEof && !HasFailure());
    EXPECT_EQ(vNames, ListNames(m_sFolder));
    EXPECT_EQ(CountOpenFolders(m_Folder.Path()), 0U);
}

TEST_F(Nfs3ProgListingPositionsWire, ServerStop_ClosesThem)
{
    const std::string sHandle = HandleArgument("folder");
    List(sHandle, 0);
    EXPECT_EQ(CountOpenFolders(m_Folder.Path()), 1U);
    m_pNfs.reset();
    m_pMain->StopServer();
    EXPECT_EQ(CountOpenFolders(m_Folder.Path()), 0U);
}

TEST_F(Nfs3ProgListingPositionsWire, RemovedMountPoints_CloseThem)
{
    const std::string sHandle = HandleArgument("folder");
    List(sHandle, 0);
    m_pMain->RemoveMountPoint(m_Folder.Path().c_str());
    EXPECT_EQ(CountOpenFolders(m_Folder.Path()), 0U);
    EXPECT_EQ(Results(READDIR, ListArguments(READDIR, sHandle, 10)), LISTING_REFUSED);
}

TEST_F(Nfs3ProgListingPositionsWire, ClientThatLeaves_LeavesItToTheNextOne)
{
    const std::string sHandle = HandleArgument("folder");
    List(sHandle, 0);
    m_pNfs.reset();
    EXPECT_EQ(List(sHandle, 10).vEntries.size(), 10U);  // over a new connection
    EXPECT_EQ(m_iOpened, 0U);
}

TEST_F(Nfs3ProgListingPositionsWire, RemovedByTheHost_FailsTheNextPageAndLeavesNothingOpen)
{
    const std::string sHandle = HandleArgument("folder");
    List(sHandle, 0);
    const size_t iDescriptors = CountDescriptors();
    std::filesystem::remove_all(m_sFolder);
    EXPECT_EQ(Results(READDIR, ListArguments(READDIR, sHandle, 10)), LISTING_REFUSED);
    EXPECT_EQ(CountDescriptors(), iDescriptors - 1);
}

TEST_F(Nfs3ProgListingPositionsWire, RemovedByAClient_FailsTheNextPageAndLeavesNothingOpen)
{
    const std::string sHandle = HandleArgument("folder");
    List(sHandle, 0);
    const size_t iDescriptors = CountDescriptors();
    for (const std::string& sName : ListNames(m_sFolder))
        EXPECT_EQ(Results(REMOVE, sHandle + CXdr().String(sName).Bytes()), DONE);
    EXPECT_EQ(Results(RMDIR, RootArgument() + CXdr().String("folder").Bytes()), DONE);
    EXPECT_EQ(CountDescriptors(), iDescriptors - 1);
    EXPECT_EQ(Results(READDIR, ListArguments(READDIR, sHandle, 10)), LISTING_REFUSED);
}

// ---- Nobody can tell ----

class Nfs3ProgListingWorld : public Nfs3ProgListingPositions {
protected:
    Nfs3ProgListingWorld() { m_utilities.RemoveAllMountInfo(); }

    // Runs a world in a folder, which becomes an export; true if pages went on where others ended.
    void RunWorld(const std::string& sRoot, unsigned int iSeed, bool bContinued)
    {
        const std::string sName = "world" + std::to_string(iSeed);
        std::filesystem::create_directory(sRoot + "/" + sName);
        ASSERT_EQ(Add(sRoot + "/" + sName, sName), "");
        CListingWorld world(
            sRoot + "/" + sName, HandleOf(sRoot + "/" + sName),
            [this](uint32_t iProc, const std::string& sArguments) {
                return Process(iProc, sArguments);
            },
            iSeed);
        world.Run(STEPS);
        EXPECT_GT(world.GetLaterPages(), STEPS / 4U);
        if (bContinued) {
            EXPECT_GT(world.GetContinuedPages(), world.GetLaterPages() / 4);
        }
        m_utilities.RemoveAllMountInfo();
        EXPECT_EQ(CountKept(), 0U);
    }

    static constexpr int STEPS = IS_SANITIZED ? 300 : 600;
};

TEST_F(Nfs3ProgListingWorld, AtRest_InMemory)
{
    for (const unsigned int iSeed : {1U, 2U})
        RunWorld(m_folder.Path(), iSeed, true);
}

TEST_F(Nfs3ProgListingWorld, AtRest_OnDisk)
{
    const CDiskFolder disk(m_folder.Path("disk"));
    if (!disk.IsMounted())
        GTEST_SKIP() << "The folder of this program cannot be mounted elsewhere";
    for (const unsigned int iSeed : {3U, 4U})
        RunWorld(m_folder.Path("disk"), iSeed, true);
}

TEST_F(Nfs3ProgListingWorld, NotAtRest_InMemory)
{
    g_iClockAhead = 0;
    for (const unsigned int iSeed : {5U, 6U})
        RunWorld(m_folder.Path(), iSeed, false);
}

TEST_F(Nfs3ProgListingWorld, NotAtRest_OnDisk)
{
    g_iClockAhead = 0;
    const CDiskFolder disk(m_folder.Path("disk"));
    if (!disk.IsMounted())
        GTEST_SKIP() << "The folder of this program cannot be mounted elsewhere";
    RunWorld(m_folder.Path("disk"), 7, false);
}

TEST_F(Nfs3ProgListingPositionsWire, World)
{
    m_pMain->SetLogControl(0);
    constexpr int STEPS = IS_SANITIZED ? 150 : 500;
    CListingWorld world(
        m_Folder.Path(), m_sRoot,
        [this](uint32_t iProc, const std::string& sArguments) {
            return Results(iProc, sArguments);
        },
        8);
    world.Run(STEPS);
    EXPECT_GT(world.GetContinuedPages(), world.GetLaterPages() / 4);
}
