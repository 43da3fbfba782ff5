#include "Utilities.h"

#include <algorithm>
#include <atomic>

#include <gtest/gtest.h>

#include "FileCacheFixture.h"

namespace {

// The clock of this program, in seconds: it stands still unless a case moves it.
std::atomic<time_t> g_iNow;

class UtilitiesFileEviction : public CFileCacheFixture {
protected:
    UtilitiesFileEviction() { g_iNow = 1700000000; }
};

}  // namespace

// Stands before the system's, so that no case has to wait for a second to pass.
extern "C" time_t time(time_t* pResult) noexcept
{
    const time_t iNow = g_iNow;
    if (pResult != nullptr)
        *pResult = iNow;
    return iNow;
}

// ---- Eviction ----

TEST_F(UtilitiesFileEviction, FullCache_LosesThe102LeastRecentlyUsedBeforeTheNextOpen)
{
    for (int i = 0; i < FILE_CACHE_LIMIT; i++) {
        g_iNow++;
        OpenFiles(i, 1);
    }
    g_iNow++;
    Get(GetName(5));  // used again, so not among the oldest
    EXPECT_EQ(CountDescriptors(), m_iDescriptors + FILE_CACHE_LIMIT);
    m_folder.Write("new", "");
    SetBits(0x3FF);
    Get(m_folder.Path("new"));

    Lines vExpected = {GetEvictionLine("102")};
    for (int i = 0; i <= 102; i++) {
        if (i != 5)
            vExpected.push_back(GetCloseLine(GetName(i)));
    }
    vExpected.push_back(GetModeLine("read only", m_folder.Path("new")));
    vExpected.push_back(GetOpenLine(m_folder.Path("new")));
    EXPECT_EQ(m_recorder.Lines(), vExpected);
    EXPECT_EQ(CountDescriptors(), m_iDescriptors + FILE_CACHE_LIMIT - 102 + 1);

    SetBits(0x3FF);
    for (int i = 103; i < FILE_CACHE_LIMIT; i++)
        Get(GetName(i));
    Get(GetName(5));
    EXPECT_EQ(m_recorder.Lines(), Lines{});  // all still cached
}

TEST_F(UtilitiesFileEviction, CacheBelowItsLimit_LosesNothing)
{
    SetBits(0x3FF);
    OpenFiles(0, FILE_CACHE_LIMIT);
    EXPECT_FALSE(m_recorder.Contains("Close exceeded"));
    EXPECT_FALSE(m_recorder.Contains("OS close file"));
}

TEST_F(UtilitiesFileEviction, HitInAFullCache_LosesNothing)
{
    OpenFiles(0, FILE_CACHE_LIMIT);
    SetBits(0x3FF);
    Get(GetName(0));
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(UtilitiesFileEviction, WithinOneSecond_TheTextOfTheDescriptorDecides)
{
    const std::vector<int> vFiles = OpenFiles(0, 120);  // enough for numbers of two lengths
    m_folder.Write("new", "");
    std::vector<std::pair<std::string, int>> vOrder;  // by text, and kept so: "10" before "9"
    for (int i = 0; i < 120; i++)
        vOrder.emplace_back(std::to_string(vFiles[static_cast<size_t>(i)]), i);
    std::sort(vOrder.begin(), vOrder.end());
    ASSERT_NE(vOrder[0].second, 0);  // or it would be the order of numbers as well

    AllowNoMoreDescriptors();
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_NE(Get(m_folder.Path("new")), -1);
    Lines vExpected = {GetModeLine("read only", m_folder.Path("new")), GetEvictionLine("12")};
    for (size_t i = 0; i < 12; i++)
        vExpected.push_back(GetCloseLine(GetName(vOrder[i].second)));
    vExpected.push_back(GetOpenLine(m_folder.Path("new")));
    EXPECT_EQ(m_recorder.Lines(), vExpected);
}

TEST_F(UtilitiesFileEviction, Seconds_AreOrderedAsNumbers)
{
    g_iNow = 9;
    OpenFiles(0, 1);
    g_iNow = 10;
    OpenFiles(1, 9);
    m_folder.Write("new", "");
    AllowNoMoreDescriptors();
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_NE(Get(m_folder.Path("new")), -1);
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{GetModeLine("read only", m_folder.Path("new")), GetEvictionLine("1"),
                     GetCloseLine(GetName(0)), GetOpenLine(m_folder.Path("new"))}));
}

TEST_F(UtilitiesFileEviction, FailedEntries_CountAmongTheEvicted)
{
    EXPECT_EQ(Get(m_folder.Path("missing")), -1);
    g_iNow++;
    OpenFiles(0, 19);
    m_folder.Write("new", "");
    AllowNoMoreDescriptors();
    SetBits(LOG_CONTROL_ERROR);
    EXPECT_NE(Get(m_folder.Path("new")), -1);
    EXPECT_EQ(m_recorder.Lines(), (Lines{GetFullLine(m_folder.Path("new")),
                                         GetFailedCloseLine(m_folder.Path("missing"))}));
}

// ---- No free descriptor ----

TEST_F(UtilitiesFileEviction, NoFreeDescriptor_EvictsATenthAndTriesAgain)
{
    for (int i = 0; i < 25; i++) {
        g_iNow++;
        OpenFiles(i, 1);
    }
    const std::string sNew = m_folder.Write("new", "");
    AllowNoMoreDescriptors();
    SetBits(LOG_CONTROL_ERROR | LOG_CONTROL_FILE_ACCESS);
    EXPECT_NE(Get(sNew), -1);
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{GetModeLine("read only", sNew), GetFullLine(sNew), GetEvictionLine("2"),
                     GetCloseLine(GetName(0)), GetCloseLine(GetName(1)), GetOpenLine(sNew)}));
}

TEST_F(UtilitiesFileEviction, NoFreeDescriptorAndFewEntries_EvictsAll)
{
    OpenFiles(0, 9);
    const std::string sNew = m_folder.Write("new", "");
    AllowNoMoreDescriptors();
    SetBits(LOG_CONTROL_ERROR | LOG_CONTROL_FILE_ACCESS);
    EXPECT_NE(Get(sNew), -1);
    Lines vExpected = {GetModeLine("read only", sNew), GetFullLine(sNew), GetEvictionLine("ALL")};
    for (int i = 0; i < 9; i++)
        vExpected.push_back(GetCloseLine(GetName(i)));
    vExpected.push_back(GetOpenLine(sNew));
    EXPECT_EQ(m_recorder.Lines(), vExpected);
    SetBits(LOG_CONTROL_FILE_ACCESS);
    Get(sNew);
    EXPECT_EQ(m_recorder.Lines(), Lines{});  // the new entry is there
}

TEST_F(UtilitiesFileEviction, NoFreeDescriptorAndNothingToEvict_FailsAfterOneRetry)
{
    const std::string sNew = m_folder.Write("new", "");
    AllowNoMoreDescriptors();
    SetBits(LOG_CONTROL_ERROR | LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ(Get(sNew), -1);
    EXPECT_EQ(m_recorder.Lines(), (Lines{GetModeLine("read only", sNew), GetFullLine(sNew),
                                         GetEvictionLine("ALL"), GetFullLine(sNew)}));
}

TEST_F(UtilitiesFileEviction, NoFreeDescriptor_FailedEntryOfTheSamePathIsReplaced)
{
    const std::string sNew = m_folder.Path("new");
    EXPECT_EQ(Get(sNew), -1);
    OpenFiles(0, 3);
    m_folder.Write("new", "");
    AllowNoMoreDescriptors();
    const int iFile = Get(sNew);  // evicts all, the entry that is being opened included
    EXPECT_NE(iFile, -1);
    SetBits(0x3FF);
    EXPECT_EQ(Get(sNew), iFile);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(UtilitiesFileEviction, WithoutTheBits_EvictionWritesNothing)
{
    OpenFiles(0, 20);
    const std::string sNew = m_folder.Write("new", "");
    AllowNoMoreDescriptors();
    SetBits(0x3FF & ~(LOG_CONTROL_ERROR | LOG_CONTROL_FILE_ACCESS));
    EXPECT_NE(Get(sNew), -1);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(UtilitiesFileEviction, OSFileOpen_WithRetry_EvictsAndTriesOnceMore)
{
    OpenFiles(0, 10);
    const std::string sNew = m_folder.Write("new", "");
    AllowNoMoreDescriptors();
    SetBits(LOG_CONTROL_ERROR | LOG_CONTROL_FILE_ACCESS);
    const CAutoFd file(
        m_utilities.OS_FileOpen(&m_param, &m_argu, sNew.c_str(), O_RDONLY, true, nullptr));
    EXPECT_NE(file.Get(), -1);
    const Lines vLines = m_recorder.Lines();
    ASSERT_EQ(vLines.size(), 4U);
    EXPECT_EQ(vLines[0], GetFullLine(sNew));
    EXPECT_EQ(vLines[1], GetEvictionLine("1"));
    EXPECT_NE(vLines[2].find("OS close file"), std::string::npos);
    EXPECT_EQ(vLines[3], GetOpenLine(sNew));
}

TEST_F(UtilitiesFileEviction, OSFileOpen_WithoutRetry_FailsAtOnce)
{
    OpenFiles(0, 10);
    const std::string sNew = m_folder.Write("new", "");
    AllowNoMoreDescriptors();
    SetBits(0x3FF);
    char cError[REASON_SIZE] = "";
    EXPECT_EQ(m_utilities.OS_FileOpen(&m_param, &m_argu, sNew.c_str(), O_RDONLY, false, cError),
              -1);
    EXPECT_STREQ(cError, "Too many open files (24)");
    EXPECT_EQ(m_recorder.Lines(), Lines{GetFullLine(sNew)});
}

TEST_F(UtilitiesFileEviction, OSFileOpen_OtherErrors_EvictNothing)
{
    OpenFiles(0, 10);
    SetBits(0x3FF);
    EXPECT_EQ(m_utilities.OS_FileOpen(&m_param, &m_argu, m_folder.Path("missing").c_str(), O_RDONLY,
                                      true, nullptr),
              -1);
    EXPECT_EQ(m_recorder.Lines().size(), 1U);
}

TEST_F(UtilitiesFileEviction, ForceOpen_NoFreeDescriptor_EvictsAndTriesOnceMore)
{
    OpenFiles(0, 10);
    const std::string sLog = m_folder.Write("log", "");
    AllowNoMoreDescriptors();
    SetBits(LOG_CONTROL_ERROR | LOG_CONTROL_FILE_ACCESS);
    const CAutoFd file(m_utilities.OS_FileForceOpen(&m_param, &m_argu, sLog.c_str(), nullptr));
    EXPECT_NE(file.Get(), -1);
    EXPECT_TRUE(m_recorder.Contains(GetFullLine(sLog)));
    EXPECT_TRUE(m_recorder.Contains(GetEvictionLine("1")));
}
