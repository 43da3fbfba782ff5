#include "Utilities.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>

#include <gtest/gtest.h>

#include "FileCacheFixture.h"

namespace {

// The clock of this program, in seconds: it stands still unless a case moves it.
std::atomic<time_t> g_iNow;

class UtilitiesFileEviction : public CFileCacheFixture {
protected:
    UtilitiesFileEviction() { g_iNow = 1700000000; }

    // Lets one more file be opened without a free descriptor; whose descriptors that costs.
    Lines GetEvicted()
    {
        const std::string sNew = m_folder.Write("newest", "");
        AllowNoMoreDescriptors();
        SetBits(LOG_CONTROL_FILE_ACCESS | LOG_CONTROL_ERROR);
        EXPECT_NE(Get(sNew), -1);
        Lines vClosed;
        for (const std::string& sLine : m_recorder.Lines()) {
            if (sLine.find("OS close file") != std::string::npos)
                vClosed.push_back(sLine);
        }
        return vClosed;
    }
};

// A host that makes system calls of its own while it takes a line.
class CErrnoSpoiler : public CLogRecorder {
public:
    bool LogError(const char* pcID, const char* pcMessage) override
    {
        errno = 0;
        return CLogRecorder::LogError(pcID, pcMessage);
    }
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

TEST_F(UtilitiesFileEviction, FailedEntriesOfOneSecond_ShareThePlaceOfTheLastOne)
{
    EXPECT_EQ(Get(m_folder.Path("first")), -1);
    g_iNow++;
    EXPECT_EQ(Get(m_folder.Path("second")), -1);
    EXPECT_EQ(Get(m_folder.Path("first")), -1);
    g_iNow++;
    OpenFiles(0, 18);
    const Lines vEvicted = GetEvicted();
    ASSERT_EQ(vEvicted.size(), 2U);
    EXPECT_EQ(vEvicted[0], GetFailedCloseLine(m_folder.Path("first")));
}

// They share their places in the order, so that not even all places together stand for a tenth.
TEST_F(UtilitiesFileEviction, FailedEntriesBeyondTheLimit_AreAllDropped)
{
    for (int i = 0; i < FILE_CACHE_LIMIT; i++)
        ASSERT_EQ(Get(GetName(i)), -1);
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ(Get(m_folder.Path("missing")), -1);
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{GetEvictionLine("102"), GetModeLine("read only", m_folder.Path("missing"))}));
    SetBits(LOG_CONTROL_FILE_ACCESS);
    OpenFiles(0, FILE_CACHE_LIMIT - 1);  // there is room again
    EXPECT_FALSE(m_recorder.Contains("Close exceeded"));
    EXPECT_EQ(CountDescriptors(), m_iDescriptors + FILE_CACHE_LIMIT - 1);
}

TEST_F(UtilitiesFileEviction, HitOneSecondLater_MakesAnEntryTheLastUsed)
{
    const std::vector<int> vFiles = OpenFiles(0, 2);
    // The one that would be dropped first, were they still of one age.
    const int iHit = std::to_string(vFiles[0]) < std::to_string(vFiles[1]) ? 0 : 1;
    g_iNow++;
    Get(GetName(iHit));
    g_iNow++;
    OpenFiles(2, 8);
    EXPECT_EQ(GetEvicted(), Lines{GetCloseLine(GetName(1 - iHit))});
}

TEST_F(UtilitiesFileEviction, HitWithinTheSameSecond_ChangesNothing)
{
    const std::vector<int> vFiles = OpenFiles(0, 10);
    int iFirst = 0;  // by the text of its descriptor
    for (int i = 1; i < 10; i++) {
        if (std::to_string(vFiles[static_cast<size_t>(i)]) <
            std::to_string(vFiles[static_cast<size_t>(iFirst)]))
            iFirst = i;
    }
    Get(GetName(iFirst));
    Get(GetName(iFirst));
    EXPECT_EQ(GetEvicted(), Lines{GetCloseLine(GetName(iFirst))});
}

// What was opened after all takes the place of its descriptor, not that of the failed open.
TEST_F(UtilitiesFileEviction, OpenedInTheSecondOfItsFailure_HasAPlaceOfItsOwn)
{
    EXPECT_EQ(Get(m_folder.Path("late")), -1);
    const std::vector<int> vFiles = OpenFiles(0, 18);
    m_folder.Write("late", "");
    const std::string sLate = std::to_string(Get(m_folder.Path("late")));
    std::vector<std::pair<std::string, std::string>> vOrder = {{sLate, m_folder.Path("late")}};
    for (int i = 0; i < 18; i++)
        vOrder.emplace_back(std::to_string(vFiles[static_cast<size_t>(i)]), GetName(i));
    std::sort(vOrder.begin(), vOrder.end());
    ASSERT_NE(vOrder[0].first, sLate);
    EXPECT_EQ(GetEvicted(), Lines{GetCloseLine(vOrder[0].second)});
}

// A closed file that is opened again is as young as its last use, however it was closed.
TEST_F(UtilitiesFileEviction, ClosedAndOpenedAgain_KeepsNoOldPlace)
{
    const std::function<void(const std::string&)> CLOSES[] = {
        [this](const std::string& sPath) {
            m_utilities.CloseCachedFileHandle(&m_param, &m_argu, sPath.c_str());
        },
        [this](const std::string& sPath) {
            m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu, sPath.c_str());
        },
        [this](const std::string&) { m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu); },
    };
    for (const auto& Close : CLOSES) {
        OpenFiles(0, 1);
        Close(GetName(0));
        for (int i = 1; i < 10; i++) {
            g_iNow++;
            OpenFiles(i, 1);
        }
        g_iNow++;
        Get(GetName(0));
        EXPECT_EQ(GetEvicted(), Lines{GetCloseLine(GetName(1))});
        SetDescriptorLimit(2 * FILE_CACHE_LIMIT);
        m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu);
        g_iNow++;
    }
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

TEST_F(UtilitiesFileEviction, NoFreeDescriptor_IsRecognisedWhateverTheHostDoesMeanwhile)
{
    CErrnoSpoiler spoiler;
    m_utilities.SetCallback(&spoiler);
    m_utilities.LogError(&m_param, "%s", "x");  // a sanitizer's first look at a class needs a pipe
    spoiler.Clear();
    OpenFiles(0, 10);
    const std::string sNew = m_folder.Write("new", "");
    const std::string sOther = m_folder.Write("other", "");
    AllowNoMoreDescriptors();
    m_param.SetLogControl(LOG_CONTROL_ERROR);
    EXPECT_NE(Get(sNew), -1);
    const CAutoFd other(
        m_utilities.OS_FileOpen(&m_param, &m_argu, sOther.c_str(), O_RDONLY, true, nullptr));
    EXPECT_NE(other.Get(), -1);
    EXPECT_EQ(spoiler.Lines(), (Lines{GetFullLine(sNew), GetFullLine(sOther)}));
    m_utilities.SetCallback(&m_recorder);
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
