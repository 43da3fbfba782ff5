#include "Utilities.h"

#include <atomic>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "FileCacheFixture.h"
#include "FolderHooks.h"
#include "Listing.h"

namespace {

using Closing = std::pair<const char*, std::function<void()>>;

// Every directory is at rest, unless a case sets the clock right.
class UtilitiesFolders : public CFileCacheFixture {
protected:
    UtilitiesFolders()
    {
        MakeFiles(m_folder.Path("a/b"), 3);
        MakeFiles(m_folder.Path("ab"), 3);
        EXPECT_EQ(Add(m_folder.Path(), "vm1"), "");
    }

    std::unique_ptr<CFolderReader> Open(const std::string& sName)
    {
        return m_utilities.OpenFolder(&m_param, &m_argu, m_folder.Path(sName).c_str());
    }
    std::unique_ptr<CFolderReader> Take(const std::string& sName, unsigned int iEntries = 10)
    {
        return m_utilities.TakeFolder(m_folder.Path(sName).c_str(), iEntries);
    }
    void OpenAndKeep(const std::string& sName, unsigned int iEntries = 10)
    {
        std::unique_ptr<CFolderReader> pFolder = Open(sName);
        ASSERT_NE(pFolder, nullptr);
        m_utilities.KeepFolder(std::move(pFolder), iEntries);
    }

    // From here on, no descriptor is free. What cases do then is done once before: a sanitizer's
    // first look at a class needs a pipe.
    void RunOutOfDescriptors()
    {
        EXPECT_NE(Open("ab"), nullptr);
        EXPECT_EQ(Take("none"), nullptr);
        m_utilities.LogInfo(&m_param, "%s", "x");
        m_recorder.Clear();
        AllowNoMoreDescriptors();
    }

    size_t CountKept() const { return CountDescriptors() - m_iDescriptors; }

    const CClockAhead m_ahead;
};

}  // namespace

TEST_F(UtilitiesFolders, Open_StandsAtTheFirstEntry)
{
    std::unique_ptr<CFolderReader> pFolder = Open("ab");
    ASSERT_NE(pFolder, nullptr);
    EXPECT_EQ(pFolder->GetPath(), m_folder.Path("ab"));
    int iNames = 0;
    while (pFolder->ReadName() != nullptr)
        iNames++;
    EXPECT_EQ(iNames, 5);
}

TEST_F(UtilitiesFolders, Open_OfNoDirectory_IsNone)
{
    m_param.SetLogControl(0x3FF);
    m_folder.Write("file", "");
    const unsigned int iBefore = g_iOpened;
    EXPECT_EQ(Open("file"), nullptr);
    EXPECT_EQ(Open("missing"), nullptr);
    EXPECT_EQ(g_iOpened, iBefore + 2);  // no second try, and no file is given up for one
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(UtilitiesFolders, Keep_LetsTheNextPageTakeIt)
{
    std::unique_ptr<CFolderReader> pFolder = Open("a");
    const CFolderReader* pKept = pFolder.get();
    m_utilities.KeepFolder(std::move(pFolder), 10);
    EXPECT_EQ(CountKept(), 1U);
    EXPECT_EQ(Take("a", 20), nullptr);
    EXPECT_EQ(Take("ab"), nullptr);
    EXPECT_EQ(Take("a").get(), pKept);
    EXPECT_EQ(Take("a"), nullptr);
    EXPECT_EQ(CountKept(), 0U);
}

TEST_F(UtilitiesFolders, Keep_OfADirectoryNotAtRest_ClosesIt)
{
    g_iClockAhead = 0;
    OpenAndKeep("a");
    EXPECT_EQ(CountKept(), 0U);
    EXPECT_EQ(Take("a"), nullptr);
}

TEST_F(UtilitiesFolders, Keep_OutsideEveryExport_ClosesIt)
{
    const CScratchFolder other;
    std::unique_ptr<CFolderReader> pFolder =
        m_utilities.OpenFolder(&m_param, &m_argu, other.Path().c_str());
    ASSERT_NE(pFolder, nullptr);
    EXPECT_TRUE(pFolder->IsReusable());
    m_utilities.KeepFolder(std::move(pFolder), 10);
    EXPECT_EQ(CountKept(), 0U);
}

TEST_F(UtilitiesFolders, Keep_AfterTheExportWasWithdrawn_ClosesIt)
{
    std::unique_ptr<CFolderReader> pFolder = Open("a");
    m_utilities.RemoveMountInfoByExportName("vm1");
    m_utilities.KeepFolder(std::move(pFolder), 10);
    EXPECT_EQ(CountKept(), 0U);
}

TEST_F(UtilitiesFolders, Keep_OfTheExportItself)
{
    std::unique_ptr<CFolderReader> pFolder =
        m_utilities.OpenFolder(&m_param, &m_argu, m_folder.Path().c_str());
    m_utilities.KeepFolder(std::move(pFolder), 10);
    EXPECT_EQ(CountKept(), 1U);
    EXPECT_NE(m_utilities.TakeFolder(m_folder.Path().c_str(), 10), nullptr);
}

TEST_F(UtilitiesFolders, Take_OfAChangedDirectory_ClosesIt)
{
    OpenAndKeep("a");
    WaitForNextTimestamp();
    m_folder.Write("a/new", "");
    EXPECT_EQ(CountKept(), 1U);
    EXPECT_EQ(Take("a"), nullptr);
    EXPECT_EQ(CountKept(), 0U);
}

TEST_F(UtilitiesFolders, ThirtyTwoAreKept_AndTheOldestGoesFirst)
{
    for (unsigned int i = 0; i < 33; i++)
        OpenAndKeep("a", i);
    EXPECT_EQ(CountKept(), 32U);
    EXPECT_EQ(Take("a", 0), nullptr);
    for (unsigned int i = 1; i < 33; i++)
        EXPECT_NE(Take("a", i), nullptr) << i;
}

TEST_F(UtilitiesFolders, CloseFolders_TakesTheFolderAndAllBelow)
{
    for (const char* pcName : {"a", "a/b", "ab"})
        OpenAndKeep(pcName);
    m_utilities.CloseFolders(m_folder.Path("a").c_str());
    EXPECT_EQ(CountKept(), 1U);
    EXPECT_NE(Take("ab"), nullptr);
}

TEST_F(UtilitiesFolders, CloseAllCachedFileHandlesBelow_TakesFoldersToo)
{
    for (const char* pcPath : {"a", "a/"}) {
        for (const char* pcName : {"a", "a/b", "ab"})
            OpenAndKeep(pcName);
        m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu, m_folder.Path(pcPath).c_str());
        EXPECT_EQ(CountKept(), 1U) << pcPath;
        EXPECT_NE(Take("ab"), nullptr) << pcPath;
    }
}

// Whatever ends the use of a folder closes its readers, and of all that lies below.
TEST_F(UtilitiesFolders, EveryEndOfAFoldersUse_ClosesItsReaders)
{
    const std::string sRoot = m_folder.Path();
    const std::string sFolder = m_folder.Path("a");
    const std::string sOther = m_folder.Path("other");
    const Closing CLOSINGS[] = {
        {"CloseAllCachedFileHandles",
         [&] { m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu); }},
        {"Reset", [&] { m_utilities.Reset(&m_param, &m_argu); }},
        {"RemoveMountInfoByLocalMountPath",
         [&] { m_utilities.RemoveMountInfoByLocalMountPath(&m_param, &m_argu, sRoot.c_str()); }},
        {"RemoveMountInfoByExportName", [&] { m_utilities.RemoveMountInfoByExportName("vm1"); }},
        {"RemoveAllMountInfo", [&] { m_utilities.RemoveAllMountInfo(); }},
        {"RenameFile",
         [&] { m_utilities.RenameFile(&m_param, &m_argu, sFolder.c_str(), sOther.c_str()); }},
        {"RemoveFile", [&] { m_utilities.RemoveFile(&m_param, &m_argu, sFolder.c_str()); }},
    };
    for (const auto& [pcName, Close] : CLOSINGS) {
        if (CountExports() == 0) {
            ASSERT_EQ(Add(sRoot, "vm1"), "");
        }
        std::filesystem::create_directories(m_folder.Path("a/b"));
        OpenAndKeep("a");
        OpenAndKeep("a/b");
        EXPECT_EQ(CountKept(), 2U) << pcName;
        Close();
        EXPECT_EQ(CountKept(), 0U) << pcName;
        EXPECT_EQ(Take("a"), nullptr) << pcName;
        std::filesystem::remove_all(sOther);
    }
}

TEST_F(UtilitiesFolders, RenameOntoAFolder_ClosesTheReadersOfBoth)
{
    std::filesystem::create_directory(m_folder.Path("empty"));
    OpenAndKeep("a");
    OpenAndKeep("empty");
    OpenAndKeep("ab");
    m_utilities.RenameFile(&m_param, &m_argu, m_folder.Path("a").c_str(),
                           m_folder.Path("empty").c_str());
    EXPECT_EQ(CountKept(), 1U);
    EXPECT_NE(Take("ab"), nullptr);
}

TEST_F(UtilitiesFolders, Destruction_ClosesWhatIsKept)
{
    {
        CUtilities utilities;
        ASSERT_TRUE(
            utilities.AddMountInfo(&m_param, &m_argu, m_folder.Path().c_str(), "vm1", "", nullptr));
        utilities.KeepFolder(utilities.OpenFolder(&m_param, &m_argu, m_folder.Path("a").c_str()),
                             10);
        EXPECT_EQ(CountKept(), 1U);
    }
    EXPECT_EQ(CountKept(), 0U);
}

// ---- No free descriptor ----

TEST_F(UtilitiesFolders, NoFreeDescriptor_KeptFoldersAndATenthOfTheFilesAreGivenUp)
{
    const std::vector<int> vFiles = OpenFiles(0, 20);
    OpenAndKeep("a", 10);
    OpenAndKeep("a", 20);
    RunOutOfDescriptors();
    SetBits(LOG_CONTROL_FILE_ACCESS | LOG_CONTROL_ERROR);
    EXPECT_NE(Open("ab"), nullptr);
    EXPECT_TRUE(m_recorder.Contains("Close exceeded cached file handle: 2"));
    size_t iOpen = 0;
    for (const int iFile : vFiles)
        iOpen += IsOpen(iFile) ? 1 : 0;
    EXPECT_EQ(iOpen, 18U);
    EXPECT_EQ(Take("a", 10), nullptr);
    EXPECT_EQ(Take("a", 20), nullptr);
}

TEST_F(UtilitiesFolders, NoFreeDescriptor_AFileTakesTheFoldersDescriptors)
{
    const std::string sFile = m_folder.Write("file", "");
    OpenAndKeep("a");
    RunOutOfDescriptors();
    EXPECT_NE(Get(sFile), -1);
    EXPECT_EQ(Take("a"), nullptr);
}

TEST_F(UtilitiesFolders, NoFreeDescriptor_AKeptFolderStillGoesOn)
{
    OpenAndKeep("a");
    RunOutOfDescriptors();
    std::unique_ptr<CFolderReader> pFolder = Take("a");
    ASSERT_NE(pFolder, nullptr);
    EXPECT_NE(pFolder->ReadName(), nullptr);
}

TEST_F(UtilitiesFolders, NoFreeDescriptorAndNothingToGiveUp_IsNone)
{
    RunOutOfDescriptors();
    const unsigned int iBefore = g_iOpened;
    EXPECT_EQ(Open("a"), nullptr);
    EXPECT_EQ(g_iOpened, iBefore + 2);  // tried once more, and then no more
}

TEST_F(UtilitiesFolders, OtherErrors_GiveNothingUp)
{
    OpenFiles(0, 2);
    OpenAndKeep("a");
    SetBits(0x3FF);
    {
        const COpenFailure failure(EACCES);
        EXPECT_EQ(Open("ab"), nullptr);
    }
    EXPECT_EQ(m_recorder.Lines(), Lines{});
    EXPECT_EQ(CountKept(), 3U);
}

// ---- Threads ----

// Listings go on while exports come and go and descriptors are dropped; nothing stays open.
TEST_F(UtilitiesFolders, ManyThreads_LeaveNothingOpen)
{
    constexpr int LISTINGS = 3;
    std::atomic<int> iRunning = LISTINGS;
    std::vector<std::thread> vThreads;
    for (int i = 0; i < LISTINGS; i++)
        vThreads.emplace_back([this, &iRunning] {
            CRuntimeParam param("", 0);
            LogArgu argu = {"Test"};
            const std::string sPath = m_folder.Path("a");
            for (unsigned int j = 0; j < 300; j++) {
                std::unique_ptr<CFolderReader> pFolder = m_utilities.TakeFolder(sPath.c_str(), 10);
                if (pFolder == nullptr)
                    pFolder = m_utilities.OpenFolder(&param, &argu, sPath.c_str());
                ASSERT_NE(pFolder, nullptr);
                EXPECT_EQ(pFolder->GetPath(), sPath);
                pFolder->ReadName();
                m_utilities.KeepFolder(std::move(pFolder), 10);
            }
            iRunning--;
        });
    while (iRunning > 0) {
        m_utilities.CloseFolders(m_folder.Path("a").c_str());
        m_utilities.RemoveAllMountInfo();
        EXPECT_EQ(Add(m_folder.Path(), "vm1"), "");
        m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu);
    }
    for (std::thread& thread : vThreads)
        thread.join();
    m_utilities.RemoveAllMountInfo();
    EXPECT_EQ(CountKept(), 0U);
}

// Directories are kept open only to be quick; nothing fails for them.
TEST_F(UtilitiesFolders, NoFreeDescriptor_FileIsMadeInPlaceOfAKeptDirectory)
{
    OpenAndKeep("ab");
    RunOutOfDescriptors();
    EXPECT_TRUE(m_utilities.NewFile(&m_param, &m_argu, m_folder.Path("made").c_str()));
    EXPECT_EQ(Take("ab"), nullptr);
}

TEST_F(UtilitiesFolders, NoFreeDescriptor_FileIsSizedInPlaceOfAKeptDirectory)
{
    const std::string sPath = m_folder.Write("made", "");
    OpenAndKeep("ab");
    RunOutOfDescriptors();
    EXPECT_TRUE(m_utilities.OS_SetFileSize(&m_param, &m_argu, sPath.c_str(), 7, nullptr));
    EXPECT_EQ(Take("ab"), nullptr);
    EXPECT_EQ(std::filesystem::file_size(sPath), 7U);
}

TEST_F(UtilitiesFolders, NoFreeDescriptor_NothingKept_MakingAFileFails)
{
    RunOutOfDescriptors();
    m_param.SetLogControl(LOG_CONTROL_ERROR);
    const std::string sPath = m_folder.Path("made");
    EXPECT_FALSE(m_utilities.NewFile(&m_param, &m_argu, sPath.c_str()));
    EXPECT_TRUE(
        m_recorder.Contains("OS create file \"" + sPath + "\". Error=Too many open files (24)"));
}
