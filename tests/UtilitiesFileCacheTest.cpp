#include "Utilities.h"

#include <atomic>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "CachedFile.h"
#include "FileCacheFixture.h"

namespace {

using UtilitiesFileCache = CFileCacheFixture;

}  // namespace

// ---- Opening ----

TEST_F(UtilitiesFileCache, SecondAccess_OpensNothing)
{
    const std::string sFile = m_folder.Write("file", "text");
    m_param.SetLogControl(0x3FF);
    const int iFile = Get(sFile);
    EXPECT_EQ(m_recorder.Lines(), (Lines{GetModeLine("read only", sFile), GetOpenLine(sFile)}));
    EXPECT_EQ(Get(sFile), iFile);
    EXPECT_EQ(Get(sFile, true), iFile);
    EXPECT_EQ(m_recorder.Lines().size(), 2U);
    EXPECT_EQ(CountDescriptors(), m_iDescriptors + 1);
}

TEST_F(UtilitiesFileCache, WithoutFileAccess_WritesNothing)
{
    m_param.SetLogControl(0x3FF & ~LOG_CONTROL_FILE_ACCESS);
    EXPECT_NE(Get(m_folder.Write("file", "text")), -1);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(UtilitiesFileCache, NullOrEmptyPath_IsNone)
{
    m_param.SetLogControl(0x3FF);
    EXPECT_EQ(m_utilities.GetCachedFileHandle(&m_param, &m_argu, nullptr, false), -1);
    EXPECT_EQ(Get(""), -1);
    const CCachedFile none(&m_utilities, &m_param, &m_argu, nullptr, true);
    const CCachedFile empty(&m_utilities, &m_param, &m_argu, "", true);
    EXPECT_EQ(none.Get(), -1);
    EXPECT_EQ(empty.Get(), -1);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(UtilitiesFileCache, OutsideExports_IsReadOnly)
{
    const int iFile = Get(m_folder.Write("file", "text"));
    EXPECT_EQ(fcntl(iFile, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(fcntl(iFile, F_GETFD), FD_CLOEXEC);
}

TEST_F(UtilitiesFileCache, WantedForWriting_IsReadWrite)
{
    const std::string sFile = m_folder.Write("file", "text");
    m_param.SetLogControl(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ(fcntl(Get(sFile, true), F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(m_recorder.Lines(), (Lines{GetModeLine("read/write", sFile), GetOpenLine(sFile)}));
}

TEST_F(UtilitiesFileCache, InsideAnExport_IsReadWrite)
{
    ASSERT_EQ(Add(m_folder.Path(), "vm1"), "");
    const std::string sFile = m_folder.Write("file", "text");
    m_param.SetLogControl(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ(fcntl(Get(sFile), F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(m_recorder.Lines(), (Lines{GetModeLine("read/write", sFile), GetOpenLine(sFile)}));
}

TEST_F(UtilitiesFileCache, FailedOpen_IsTriedAgain)
{
    m_param.SetLogControl(0x3FF);
    const std::string sFile = m_folder.Path("file");
    EXPECT_EQ(Get(sFile), -1);
    EXPECT_EQ(Get(sFile), -1);
    EXPECT_EQ(
        m_recorder.Count("OS open file \"" + sFile + "\". Error=No such file or directory (2)"),
        2U);
    m_folder.Write("file", "text");
    EXPECT_NE(Get(sFile), -1);
}

TEST_F(UtilitiesFileCache, FailedOpen_LeavesAnEntryWithoutADescriptor)
{
    const std::string sFile = m_folder.Path("file");
    EXPECT_EQ(Get(sFile), -1);
    SetBits(0x3FF);
    m_utilities.CloseCachedFileHandle(&m_param, &m_argu, sFile.c_str());
    EXPECT_EQ(m_recorder.Lines(), Lines{GetFailedCloseLine(sFile)});
    SetBits(0x3FF);
    m_utilities.CloseCachedFileHandle(&m_param, &m_argu, sFile.c_str());
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

// ---- Closing ----

TEST_F(UtilitiesFileCache, Close_LetsThatDescriptorGo)
{
    const std::vector<int> vFiles = OpenFiles(0, 2);
    SetBits(0x3FF);
    m_utilities.CloseCachedFileHandle(&m_param, &m_argu, GetName(0).c_str());
    EXPECT_EQ(m_recorder.Lines(), Lines{GetCloseLine(GetName(0))});
    EXPECT_FALSE(IsOpen(vFiles[0]));
    EXPECT_TRUE(IsOpen(vFiles[1]));
    SetBits(0x3FF);
    Get(GetName(0));
    EXPECT_TRUE(m_recorder.Contains("OS open file"));
}

TEST_F(UtilitiesFileCache, Close_NotCachedNullOrEmpty_DoesNothing)
{
    OpenFiles(0, 1);
    SetBits(0x3FF);
    m_utilities.CloseCachedFileHandle(&m_param, &m_argu, m_folder.Path().c_str());
    m_utilities.CloseCachedFileHandle(&m_param, &m_argu, nullptr);
    m_utilities.CloseCachedFileHandle(&m_param, &m_argu, "");
    m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu, nullptr);
    m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu, "");
    EXPECT_EQ(m_recorder.Lines(), Lines{});
    EXPECT_EQ(CountDescriptors(), m_iDescriptors + 1);
}

class UtilitiesFileCachePrefix : public UtilitiesFileCache {
protected:
    UtilitiesFileCachePrefix()
    {
        std::filesystem::create_directory(m_folder.Path("b"));
        m_folder.Write("a", "");
        m_folder.Write("b/x", "");
        m_folder.Write("bc", "");
        for (const char* pcName : {"a", "b", "b/x", "bc"})  // a folder can be opened too
            EXPECT_NE(Get(m_folder.Path(pcName)), -1);
    }

    void CloseBelow(const std::string& sPath)
    {
        m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu, sPath.c_str());
    }
    std::string GetCompareLine(const char* pcCached) const
    {
        return "info|host|[CloseAllCachedFileHandles] Path compare: \"" + m_folder.Path("b/") +
               "\" vs \"" + m_folder.Path(pcCached) + "\"";
    }
};

TEST_F(UtilitiesFileCachePrefix, CloseAll_TakesThePathAndWhatIsBelow_ButNoNeighbour)
{
    for (const char* pcPrefix : {"b", "b/"}) {
        Get(m_folder.Path("b"));
        Get(m_folder.Path("b/x"));
        SetBits(LOG_CONTROL_FILE_ACCESS);
        CloseBelow(m_folder.Path(pcPrefix));
        EXPECT_EQ(m_recorder.Lines(),
                  (Lines{GetCloseLine(m_folder.Path("b")), GetCloseLine(m_folder.Path("b/x"))}));
        EXPECT_EQ(CountDescriptors(), m_iDescriptors + 2);
    }
}

TEST_F(UtilitiesFileCachePrefix, CloseAll_WithGeneralInfo_ShowsTheWalkThatStartsAgain)
{
    SetBits(LOG_CONTROL_GENERAL_INFO);
    CloseBelow(m_folder.Path("b"));
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{GetCompareLine("a/"), GetCompareLine("b/"), GetCompareLine("a/"),
                     GetCompareLine("b/x/"), GetCompareLine("a/"), GetCompareLine("bc/")}));
}

TEST_F(UtilitiesFileCachePrefix, CloseAll_WithoutTheBits_WritesNothing)
{
    SetBits(0x3FF & ~(LOG_CONTROL_GENERAL_INFO | LOG_CONTROL_FILE_ACCESS));
    CloseBelow(m_folder.Path("b"));
    EXPECT_EQ(m_recorder.Lines(), Lines{});
    EXPECT_EQ(CountDescriptors(), m_iDescriptors + 2);
}

TEST_F(UtilitiesFileCachePrefix, CloseAllOfAll_ClosesEveryEntryInTheOrderOfPaths)
{
    EXPECT_EQ(Get(m_folder.Path("missing")), -1);
    SetBits(0x3FF);
    m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu);
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{GetCloseLine(m_folder.Path("a")), GetCloseLine(m_folder.Path("b")),
                     GetCloseLine(m_folder.Path("b/x")), GetCloseLine(m_folder.Path("bc")),
                     GetFailedCloseLine(m_folder.Path("missing"))}));
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
    SetBits(0x3FF);
    m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

// ---- Descriptors in use ----

TEST_F(UtilitiesFileCache, InUse_ClosedByAnotherThread_StaysOpenUntilReleased)
{
    const std::string sFile = m_folder.Write("file", "text");
    int iFile = -1;
    SetBits(LOG_CONTROL_FILE_ACCESS);
    {
        const CCachedFile file(&m_utilities, &m_param, &m_argu, sFile.c_str(), false);
        iFile = file.Get();
        std::thread([this, &sFile] {
            CRuntimeParam param("other", 0x3FF);
            m_utilities.CloseCachedFileHandle(&param, &m_argu, sFile.c_str());
        }).join();
        EXPECT_FALSE(m_recorder.Contains("OS close file"));
        char cText[4];
        EXPECT_EQ(pread(iFile, cText, sizeof(cText), 0), 4);
        EXPECT_NE(Get(sFile), iFile);  // dropped from the cache: a fresh one is opened
    }
    EXPECT_FALSE(IsOpen(iFile));
    EXPECT_EQ(m_recorder.Lines().back(), GetCloseLine(sFile));
}

TEST_F(UtilitiesFileCache, InUse_EveryWayOfDropping_LeavesItOpen)
{
    const std::string sFile = m_folder.Write("file", "text");
    const std::string sNew = m_folder.Write("new", "text");
    const CCachedFile file(&m_utilities, &m_param, &m_argu, sFile.c_str(), false);
    m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu, m_folder.Path().c_str());
    EXPECT_TRUE(IsOpen(file.Get()));
    const CCachedFile second(&m_utilities, &m_param, &m_argu, sFile.c_str(), false);
    m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu);
    EXPECT_TRUE(IsOpen(second.Get()));
    const CCachedFile third(&m_utilities, &m_param, &m_argu, sFile.c_str(), false);
    AllowNoMoreDescriptors();
    EXPECT_EQ(Get(sNew), -1);  // evicts all, and still no descriptor is free
    EXPECT_TRUE(IsOpen(third.Get()));
    EXPECT_EQ((std::set<int>{file.Get(), second.Get(), third.Get()}).size(), 3U);
}

TEST_F(UtilitiesFileCache, InUse_NotDropped_StaysCachedAfterItsRelease)
{
    const std::string sFile = m_folder.Write("file", "text");
    int iFile = -1;
    {
        const CCachedFile file(&m_utilities, &m_param, &m_argu, sFile.c_str(), false);
        iFile = file.Get();
        EXPECT_NE(iFile, -1);
    }
    EXPECT_TRUE(IsOpen(iFile));
    EXPECT_EQ(Get(sFile), iFile);
}

TEST_F(UtilitiesFileCache, InUseTwice_TheLastUserClosesIt)
{
    const std::string sFile = m_folder.Write("file", "text");
    const int iFile = m_utilities.AcquireCachedFile(&m_param, &m_argu, sFile.c_str(), false);
    EXPECT_EQ(m_utilities.AcquireCachedFile(&m_param, &m_argu, sFile.c_str(), false), iFile);
    m_utilities.CloseCachedFileHandle(&m_param, &m_argu, sFile.c_str());
    m_utilities.ReleaseCachedFile(&m_param, &m_argu, iFile);
    EXPECT_TRUE(IsOpen(iFile));
    m_utilities.ReleaseCachedFile(&m_param, &m_argu, iFile);
    EXPECT_FALSE(IsOpen(iFile));
}

// Readers of one file each, while another thread drops all descriptors again and again and opens
// files of its own: nobody ever reads through a number that has become another file's.
TEST_F(UtilitiesFileCache, ManyThreads_ReadTheirOwnFileWhileDescriptorsAreDropped)
{
    constexpr int READERS = 3;
    for (int i = 0; i < READERS; i++)
        m_folder.Write(std::to_string(i), std::string(1000, static_cast<char>('a' + i)));
    const std::string sOther = m_folder.Write("other", std::string(1000, '?'));
    std::atomic<int> iRunning = READERS;
    std::vector<std::thread> vThreads;
    for (int i = 0; i < READERS; i++)
        vThreads.emplace_back([this, i, &iRunning] {
            CRuntimeParam param("", 0);
            LogArgu argu = {"Test"};
            const std::string sExpected(1000, static_cast<char>('a' + i));
            for (int j = 0; j < 500; j++) {
                std::string sText(1000, '\0');
                bool bEof = false;
                EXPECT_EQ(m_utilities.ReadFile(&param, &argu, GetName(i).c_str(), 0, SEEK_SET,
                                               sText.data(), 1000, &bEof),
                          1000);
                EXPECT_EQ(sText, sExpected);
            }
            iRunning--;
        });
    while (iRunning > 0) {
        m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu);
        m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu, m_folder.Path().c_str());
        m_utilities.CloseCachedFileHandle(&m_param, &m_argu, GetName(0).c_str());
        const CAutoFd other(open(sOther.c_str(), O_RDONLY | O_CLOEXEC));
    }
    for (std::thread& thread : vThreads)
        thread.join();
}

TEST_F(UtilitiesFileCache, Destruction_ClosesWhatIsStillCached)
{
    const std::string sPath = m_folder.Write("file", "");
    const size_t iBefore = CountDescriptors();
    {
        CUtilities utilities;
        EXPECT_NE(utilities.GetCachedFileHandle(&m_param, &m_argu, sPath.c_str(), false), -1);
        EXPECT_EQ(CountDescriptors(), iBefore + 1);
    }
    EXPECT_EQ(CountDescriptors(), iBefore);
}
