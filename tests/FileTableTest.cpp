#include "FileTable.h"

#include <algorithm>
#include <cstring>
#include <random>

#include <gtest/gtest.h>

namespace {

constexpr size_t RECENT_LIMIT = 1024;  // IDs that the table remembers

std::string GetName(unsigned int iNumber)
{
    return "/srv/" + std::to_string(iNumber);
}

// Adds GetName(iFirst) and what follows; none of them becomes a recently found one.
void AddNames(CFileTable* pTable, unsigned int iFirst, unsigned int iCount)
{
    for (unsigned int i = iFirst; i < iFirst + iCount; i++)
        pTable->GetIDByPath(GetName(i).c_str());
}

void FindNames(CFileTable* pTable, unsigned int iFirst, unsigned int iCount)
{
    for (unsigned int i = iFirst; i < iFirst + iCount; i++)
        ASSERT_NE(pTable->FindItemByPath(GetName(i).c_str()), nullptr);
}

std::string GetPath(CFileTable* pTable, unsigned int iID)
{
    char cPath[64];
    return pTable->GetPathByID(iID, cPath, sizeof(cPath)) ? cPath : "(none)";
}

// The table as one would first write it: two scans and nothing else. Paths are numbers here.
class CSlowTable {
public:
    unsigned int Find(int iPath)
    {
        for (const unsigned int iID : m_vRecent) {
            if (m_vPaths[iID] == iPath)
                return iID;
        }
        const auto it = std::find(m_vPaths.begin(), m_vPaths.end(), iPath);
        if (it == m_vPaths.end())
            return NO_FILE_ID;
        if (m_vRecent.size() >= RECENT_LIMIT) {
            const auto iDropped = static_cast<std::ptrdiff_t>(m_vRecent.size() / 10);
            m_vRecent.erase(m_vRecent.begin(), m_vRecent.begin() + iDropped);
            m_iEvictions++;
        }
        m_vRecent.push_back(static_cast<unsigned int>(it - m_vPaths.begin()));
        return m_vRecent.back();
    }

    unsigned int Add(int iPath)
    {
        m_vPaths.push_back(iPath);
        return static_cast<unsigned int>(m_vPaths.size() - 1);
    }

    unsigned int FindOrAdd(int iPath)
    {
        const unsigned int iID = Find(iPath);
        return iID == NO_FILE_ID ? Add(iPath) : iID;
    }

    bool Rename(int iFrom, int iTo)
    {
        const unsigned int iID = Find(iFrom);
        if (iID == NO_FILE_ID)
            return false;
        if (iFrom != iTo && std::count(m_vPaths.begin(), m_vPaths.end(), iTo) > 0)
            m_iDuplicates++;
        m_vPaths[iID] = iTo;
        return true;
    }

    std::vector<int> m_vPaths;            // by ID
    std::vector<unsigned int> m_vRecent;  // oldest first
    int m_iEvictions = 0;
    int m_iDuplicates = 0;
};

}  // namespace

TEST(FileTable, NewPaths_AreNumberedByBlockAndSlot)
{
    CFileTable table;
    for (unsigned int i = 0; i < 3000; i++)
        ASSERT_EQ(table.GetIDByPath(GetName(i).c_str()), i);
    EXPECT_EQ(table.GetItemByID(0)->sPath, GetName(0));
    EXPECT_EQ(table.GetItemByID(1023)->sPath, GetName(1023));
    EXPECT_EQ(table.GetItemByID(0x400)->sPath, GetName(1024));
    EXPECT_EQ(table.GetItemByID(0x400)->iID, 0x400U);
    EXPECT_EQ(table.GetItemByID(2999)->sPath, GetName(2999));
}

TEST(FileTable, SamePathTwice_HasOneEntry)
{
    CFileTable table;
    EXPECT_EQ(table.GetIDByPath("/a"), 0U);
    EXPECT_EQ(table.GetIDByPath("/a"), 0U);
    EXPECT_EQ(table.GetItemByID(1), nullptr);
    EXPECT_EQ(table.GetIDByPath("/b"), 1U);
}

TEST(FileTable, Paths_AreComparedByteForByte)
{
    CFileTable table;
    EXPECT_EQ(table.GetIDByPath("/a"), 0U);
    EXPECT_EQ(table.GetIDByPath("/A"), 1U);
    EXPECT_EQ(table.GetIDByPath("/a/"), 2U);
    EXPECT_EQ(table.GetIDByPath(""), 3U);
}

TEST(FileTable, NullPath_HasNoIDAndNoEntry)
{
    CFileTable table;
    EXPECT_EQ(table.GetIDByPath(nullptr), NO_FILE_ID);
    EXPECT_EQ(table.AddItem(nullptr), nullptr);
    EXPECT_EQ(table.FindItemByPath(nullptr), nullptr);
    EXPECT_EQ(table.GetItemByID(0), nullptr);
}

TEST(FileTable, GetItemByID_BeyondLastEntry_IsNone)
{
    CFileTable table;
    AddNames(&table, 0, 1025);
    EXPECT_NE(table.GetItemByID(1024), nullptr);
    EXPECT_EQ(table.GetItemByID(1025), nullptr);   // a slot that the last block has not got yet
    EXPECT_EQ(table.GetItemByID(0x800), nullptr);  // a block that is not there
    EXPECT_EQ(table.GetItemByID(NO_FILE_ID), nullptr);
}

TEST(FileTable, GetItemByID_EmptyTable_IsNone)
{
    CFileTable table;
    EXPECT_EQ(table.GetItemByID(0), nullptr);
    EXPECT_FALSE(table.GetPathByID(0, nullptr, 0));
}

TEST(FileTable, GetPathByID_RoomForZero_Succeeds)
{
    CFileTable table;
    table.GetIDByPath("/abc");
    char cPath[] = "......";
    EXPECT_TRUE(table.GetPathByID(0, cPath, 5));
    EXPECT_EQ(std::string(cPath, 6), std::string("/abc\0.", 6));
}

TEST(FileTable, GetPathByID_NoRoomForZero_Fails)
{
    CFileTable table;
    table.GetIDByPath("/abc");
    char cPath[] = "......";
    EXPECT_FALSE(table.GetPathByID(0, cPath, 4));
    EXPECT_STREQ(cPath, "......");
    EXPECT_FALSE(table.GetPathByID(0, cPath, 0));
    EXPECT_STREQ(cPath, "......");
}

TEST(FileTable, GetPathByID_NoBuffer_TellsWhetherTheIDExists)
{
    CFileTable table;
    table.GetIDByPath("/abc");
    EXPECT_TRUE(table.GetPathByID(0, nullptr, 0));
    EXPECT_FALSE(table.GetPathByID(1, nullptr, 0));
    EXPECT_FALSE(table.GetPathByID(NO_FILE_ID, nullptr, 0));
}

TEST(FileTable, UpdateItemPath_KnownPath_KeepsTheID)
{
    CFileTable table;
    table.GetIDByPath("/other");
    const unsigned int iID = table.GetIDByPath("/a");
    EXPECT_TRUE(table.UpdateItemPath("/a", "/b"));
    EXPECT_EQ(GetPath(&table, iID), "/b");
    EXPECT_EQ(table.GetIDByPath("/b"), iID);
    EXPECT_EQ(table.FindItemByPath("/a"), nullptr);
    EXPECT_EQ(table.GetIDByPath("/a"), iID + 1);
}

TEST(FileTable, UpdateItemPath_UnknownOrNullPath_Fails)
{
    CFileTable table;
    table.GetIDByPath("/a");
    EXPECT_FALSE(table.UpdateItemPath("/never", "/b"));
    EXPECT_FALSE(table.UpdateItemPath(nullptr, "/b"));
    EXPECT_FALSE(table.UpdateItemPath("/a", nullptr));
    EXPECT_EQ(GetPath(&table, 0), "/a");
}

TEST(FileTable, UpdateItemPath_OntoItself_ChangesNothing)
{
    CFileTable table;
    table.GetIDByPath("/a");
    EXPECT_TRUE(table.UpdateItemPath("/a", "/a"));
    EXPECT_EQ(table.GetIDByPath("/a"), 0U);
    EXPECT_EQ(table.GetItemByID(1), nullptr);
}

TEST(FileTable, UpdateItemPath_OntoKnownPath_LeavesTwoEntriesAndFindsTheFirst)
{
    CFileTable table;
    const unsigned int iFirst = table.GetIDByPath("/a");
    const unsigned int iSecond = table.GetIDByPath("/b");
    table.AddItem("/a");
    EXPECT_EQ(table.FindItemByPath("/a")->iID, iFirst);
    EXPECT_TRUE(table.UpdateItemPath("/a", "/c"));  // lets go of the first one only
    EXPECT_EQ(table.FindItemByPath("/a")->iID, 2U);
    EXPECT_EQ(GetPath(&table, iFirst), "/c");
    EXPECT_EQ(GetPath(&table, iSecond), "/b");
}

TEST(FileTable, UpdateItemPathsBelow_MovesAllBelowAndNothingElse)
{
    CFileTable table;
    const char* const PATHS[] = {"/a", "/a/x", "/a/x/y", "/ab", "/ab/x", "/b/a/x", "/a/", "/"};
    for (const char* pcPath : PATHS)
        table.GetIDByPath(pcPath);
    table.UpdateItemPathsBelow("/a", "/new/place");
    EXPECT_EQ(GetPath(&table, 0), "/a");  // the folder's own entry is moved on its own
    EXPECT_EQ(GetPath(&table, 1), "/new/place/x");
    EXPECT_EQ(GetPath(&table, 2), "/new/place/x/y");
    EXPECT_EQ(GetPath(&table, 3), "/ab");
    EXPECT_EQ(GetPath(&table, 4), "/ab/x");
    EXPECT_EQ(GetPath(&table, 5), "/b/a/x");
    EXPECT_EQ(GetPath(&table, 6), "/new/place/");
    EXPECT_EQ(GetPath(&table, 7), "/");
}

TEST(FileTable, UpdateItemPathsBelow_NewPathsAreFoundAndOldOnesAreNot)
{
    CFileTable table;
    table.GetIDByPath("/a");
    const unsigned int iID = table.GetIDByPath("/a/x");
    table.UpdateItemPathsBelow("/a", "/b");
    EXPECT_EQ(table.FindItemByPath("/b/x"), table.GetItemByID(iID));
    EXPECT_EQ(table.FindItemByPath("/a/x"), nullptr);
    EXPECT_EQ(table.GetIDByPath("/a/x"), iID + 1);  // what comes to the old place is another file
}

TEST(FileTable, UpdateItemPathsBelow_ReachesEveryBlock)
{
    CFileTable table;
    AddNames(&table, 0, 3000);
    table.UpdateItemPathsBelow("/srv", "/moved");
    for (unsigned int i = 0; i < 3000; i++)
        ASSERT_EQ(GetPath(&table, i), "/moved/" + std::to_string(i));
}

TEST(FileTable, UpdateItemPathsBelow_SeveralEntriesOfOnePath_MoveTogether)
{
    CFileTable table;
    for (int i = 0; i < 3; i++)
        table.AddItem("/a/x");
    table.FindItemByPath("/a/x");
    table.UpdateItemPathsBelow("/a", "/b");
    for (unsigned int i = 0; i < 3; i++)
        EXPECT_EQ(GetPath(&table, i), "/b/x");
    EXPECT_EQ(table.FindItemByPath("/a/x"), nullptr);
    EXPECT_EQ(table.FindItemByPath("/b/x")->iID, 0U);
}

TEST(FileTable, UpdateItemPathsBelow_OntoKnownPaths_FindsTheFirst)
{
    CFileTable table;
    table.GetIDByPath("/b/x");
    table.GetIDByPath("/a/x");
    table.UpdateItemPathsBelow("/a", "/b");
    EXPECT_EQ(table.FindItemByPath("/b/x")->iID, 0U);
    EXPECT_TRUE(table.UpdateItemPath("/b/x", "/c"));
    EXPECT_EQ(table.FindItemByPath("/b/x")->iID, 1U);
}

TEST(FileTable, UpdateItemPathsBelow_IntoTheFolderItself_MovesEachOnce)
{
    CFileTable table;
    table.GetIDByPath("/a/x");
    table.GetIDByPath("/a/b/x");
    table.UpdateItemPathsBelow("/a", "/a/b");
    EXPECT_EQ(GetPath(&table, 0), "/a/b/x");
    EXPECT_EQ(GetPath(&table, 1), "/a/b/b/x");
}

TEST(FileTable, UpdateItemPathsBelow_NullPath_MovesNothing)
{
    CFileTable table;
    table.GetIDByPath("/a/x");
    table.UpdateItemPathsBelow(nullptr, "/b");
    table.UpdateItemPathsBelow("/a", nullptr);
    EXPECT_EQ(GetPath(&table, 0), "/a/x");
}

TEST(FileTable, Clear_ForgetsAllAndStartsAgainAtZero)
{
    CFileTable table;
    AddNames(&table, 0, 1500);
    FindNames(&table, 0, 1500);
    table.Clear();
    EXPECT_EQ(table.GetItemByID(0), nullptr);
    EXPECT_EQ(table.FindItemByPath(GetName(3).c_str()), nullptr);
    EXPECT_EQ(table.GetIDByPath(GetName(7).c_str()), 0U);
    EXPECT_EQ(GetPath(&table, 0), GetName(7));
}

TEST(FileTable, Clear_ForgetsPathsWithSeveralEntries)
{
    CFileTable table;
    AddNames(&table, 0, 600);
    ASSERT_TRUE(table.UpdateItemPath(GetName(0).c_str(), "/twin"));
    ASSERT_TRUE(table.UpdateItemPath(GetName(500).c_str(), "/twin"));
    table.Clear();
    EXPECT_EQ(table.GetIDByPath("/twin"), 0U);
    EXPECT_EQ(table.FindItemByPath("/twin"), table.GetItemByID(0));
    EXPECT_TRUE(table.UpdateItemPath("/twin", "/other"));
    EXPECT_EQ(table.FindItemByPath("/twin"), nullptr);
    EXPECT_EQ(GetPath(&table, 0), "/other");
}

TEST(FileTable, Entries_StayWhereTheyAreWhileTheTableGrows)
{
    CFileTable table;
    const FileItem* pFirst = table.AddItem("/first");
    AddNames(&table, 0, 5000);
    EXPECT_EQ(table.GetItemByID(0), pFirst);
    EXPECT_EQ(table.FindItemByPath("/first"), pFirst);
}

TEST(FileTable, IsMatchItem_ComparesLengthAndBytes)
{
    const FileItem item = {"/abc", 0};
    EXPECT_TRUE(CFileTable::IsMatchItem(&item, "/abc", 4));
    EXPECT_TRUE(CFileTable::IsMatchItem(&item, "/abcdef", 4));
    EXPECT_FALSE(CFileTable::IsMatchItem(&item, "/abc", 3));
    EXPECT_FALSE(CFileTable::IsMatchItem(&item, "/abC", 4));
    EXPECT_FALSE(CFileTable::IsMatchItem(nullptr, "/abc", 4));
    EXPECT_FALSE(CFileTable::IsMatchItem(&item, nullptr, 4));
}

// The recently found IDs are met before all others: where a path has two entries, one of them
// recent, the answer shows whether that one is still remembered.
class FileTableRecent : public testing::Test {
protected:
    // Entry 0 is "/twin"; RECENT_LIMIT names from 1 on are known and found, in their order.
    void SetUp() override
    {
        m_table.GetIDByPath("/twin");
        AddNames(&m_table, 1, 3 * RECENT_LIMIT);
        FindNames(&m_table, 1, RECENT_LIMIT);
    }

    // Lets the recent entry of a name be a second "/twin" and finds what "/twin" is then.
    unsigned int FindTwin(unsigned int iNumber)
    {
        EXPECT_TRUE(m_table.UpdateItemPath(GetName(iNumber).c_str(), "/twin"));
        return m_table.FindItemByPath("/twin")->iID;
    }

    CFileTable m_table;
};

TEST_F(FileTableRecent, RecentEntry_IsMetBeforeTheFirstEntry)
{
    EXPECT_EQ(FindTwin(500), 500U);
}

TEST_F(FileTableRecent, FullList_IsNotPrunedBeforeTheNextFind)
{
    EXPECT_EQ(FindTwin(1), 1U);
}

TEST_F(FileTableRecent, AddingAPath_DoesNotPruneTheFullList)
{
    ASSERT_TRUE(m_table.UpdateItemPath(GetName(1).c_str(), "/twin"));
    m_table.AddItem("/new");
    m_table.GetIDByPath("/newer");
    EXPECT_EQ(m_table.FindItemByPath("/twin")->iID, 1U);
}

TEST_F(FileTableRecent, OneMoreFind_DropsTheOldest102)
{
    ASSERT_TRUE(m_table.UpdateItemPath(GetName(102).c_str(), "/twin"));
    ASSERT_EQ(m_table.FindItemByPath("/twin")->iID, 102U);
    FindNames(&m_table, RECENT_LIMIT + 1, 1);
    EXPECT_EQ(m_table.FindItemByPath("/twin")->iID, 0U);
}

TEST_F(FileTableRecent, OneMoreFind_KeepsThe103rd)
{
    ASSERT_TRUE(m_table.UpdateItemPath(GetName(103).c_str(), "/twin"));
    FindNames(&m_table, RECENT_LIMIT + 1, 1);
    EXPECT_EQ(m_table.FindItemByPath("/twin")->iID, 103U);
}

TEST_F(FileTableRecent, AfterPruning_102FindsFitBeforeTheNext)
{
    ASSERT_TRUE(m_table.UpdateItemPath(GetName(103).c_str(), "/twin"));
    FindNames(&m_table, RECENT_LIMIT + 1, 102);  // the first prunes; the list is full again
    EXPECT_EQ(m_table.FindItemByPath("/twin")->iID, 103U);
    FindNames(&m_table, RECENT_LIMIT + 103, 1);
    EXPECT_EQ(m_table.FindItemByPath("/twin")->iID, 0U);
}

TEST_F(FileTableRecent, FindingARecentOneAgain_DoesNotMakeItYounger)
{
    ASSERT_TRUE(m_table.UpdateItemPath(GetName(1).c_str(), "/twin"));
    ASSERT_EQ(m_table.FindItemByPath("/twin")->iID, 1U);
    FindNames(&m_table, RECENT_LIMIT + 1, 1);
    EXPECT_EQ(m_table.FindItemByPath("/twin")->iID, 0U);
}

TEST_F(FileTableRecent, Clear_ForgetsTheRecentOnes)
{
    m_table.Clear();
    m_table.AddItem("/pair");
    m_table.AddItem("/pair");  // an ID that was a recent one
    EXPECT_EQ(m_table.FindItemByPath("/pair")->iID, 0U);

    m_table.Clear();
    SetUp();  // fills the list anew: it prunes nothing
    EXPECT_EQ(FindTwin(1), 1U);
}

TEST_F(FileTableRecent, TwoRecentTwins_TheOneFoundLongestAgoIsMet)
{
    // Found out of their order, so that neither the smaller nor the larger ID wins by itself.
    FindNames(&m_table, 2000, 1);
    FindNames(&m_table, 1900, 1);
    ASSERT_TRUE(m_table.UpdateItemPath(GetName(1900).c_str(), "/pair"));
    ASSERT_TRUE(m_table.UpdateItemPath(GetName(2000).c_str(), "/pair"));
    EXPECT_EQ(m_table.FindItemByPath("/pair")->iID, 2000U);
}

// A file that is saved by renaming a fresh one onto it, again and again, gathers entries; neither
// it nor the fresh one becomes slower to find (a walk through the entries would take minutes here).
TEST(FileTable, ManyRenamesOntoOnePath_FindTheOldestRecentOne)
{
    CFileTable table;
    table.GetIDByPath("/target");
    unsigned int iOldest = 1;  // each rename finds a fresh entry, which so becomes a recent one
    for (unsigned int i = 1; i <= 100000; i++) {
        ASSERT_EQ(table.GetIDByPath("/fresh"), i);
        ASSERT_TRUE(table.UpdateItemPath("/fresh", "/target"));
        if (i - iOldest == RECENT_LIMIT)
            iOldest += RECENT_LIMIT / 10;
        ASSERT_EQ(table.FindItemByPath("/target")->iID, iOldest) << i;
    }
}

// 100,000 operations of all kinds, among paths enough to overflow the list and few enough to meet
// again and again: every answer is the one that the scans give.
TEST(FileTable, RandomOperations_GiveWhatTheScansGive)
{
    CFileTable table;
    CSlowTable slow;
    std::mt19937 random(20);
    const auto NextPath = [&random] { return static_cast<int>(random() % 1600); };
    const auto NextName = [](int iPath) { return GetName(static_cast<unsigned int>(iPath)); };

    for (int i = 0; i < 100000; i++) {
        const int iPath = NextPath();
        const std::string sPath = NextName(iPath);
        const unsigned int iKind = static_cast<unsigned int>(random() % 1000);
        if (iKind < 500) {
            ASSERT_EQ(table.GetIDByPath(sPath.c_str()), slow.FindOrAdd(iPath)) << i;
        } else if (iKind < 900) {
            const FileItem* pItem = table.FindItemByPath(sPath.c_str());
            ASSERT_EQ(pItem == nullptr ? NO_FILE_ID : pItem->iID, slow.Find(iPath)) << i;
        } else if (iKind < 970) {
            const unsigned int iID = static_cast<unsigned int>(random() % 5000);
            const bool bKnown = iID < slow.m_vPaths.size();
            ASSERT_EQ(GetPath(&table, iID), bKnown ? NextName(slow.m_vPaths[iID]) : "(none)") << i;
        } else if (iKind < 995) {
            const int iTo = NextPath();
            ASSERT_EQ(table.UpdateItemPath(sPath.c_str(), NextName(iTo).c_str()),
                      slow.Rename(iPath, iTo))
                << i;
        } else {
            ASSERT_EQ(table.AddItem(sPath.c_str())->iID, slow.Add(iPath)) << i;
        }
    }
    EXPECT_GT(slow.m_iEvictions, 10);
    EXPECT_GT(slow.m_iDuplicates, 1000);
    for (unsigned int i = 0; i < slow.m_vPaths.size(); i++)
        ASSERT_EQ(GetPath(&table, i), NextName(slow.m_vPaths[i]));
}
