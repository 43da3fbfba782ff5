#include "FolderPositions.h"

#include <gtest/gtest.h>

#include "TestEnvironment.h"

namespace {

constexpr unsigned int LIMIT = 32;  // readers

class FolderPositions : public testing::Test {
protected:
    ~FolderPositions() override
    {
        m_positions.CloseAll();
        EXPECT_EQ(CountDescriptors(), m_iDescriptors);
    }

    // Opens a folder below the scratch one, which is made if it is missing, and keeps its reader.
    CFolderReader* Keep(const std::string& sName, unsigned int iEntries)
    {
        std::filesystem::create_directories(m_folder.Path(sName));
        auto pFolder = std::make_unique<CFolderReader>(m_folder.Path(sName).c_str());
        EXPECT_TRUE(pFolder->IsOpen());
        CFolderReader* pKept = pFolder.get();
        m_positions.Keep(std::move(pFolder), iEntries);
        return pKept;
    }

    std::unique_ptr<CFolderReader> Take(const std::string& sName, unsigned int iEntries)
    {
        return m_positions.Take(m_folder.Path(sName).c_str(), iEntries);
    }

    bool IsKept(const std::string& sName, unsigned int iEntries)
    {
        return Take(sName, iEntries) != nullptr;
    }

    size_t CountKept() const { return CountDescriptors() - m_iDescriptors; }

    const size_t m_iDescriptors = CountDescriptors();
    const CScratchFolder m_folder;
    CFolderPositions m_positions;
};

}  // namespace

TEST_F(FolderPositions, Take_YieldsWhatWasKeptAndOnlyOnce)
{
    CFolderReader* pKept = Keep("a", 10);
    EXPECT_EQ(CountKept(), 1U);
    EXPECT_EQ(Take("a", 10).get(), pKept);  // and closes it
    EXPECT_EQ(CountKept(), 0U);
    EXPECT_EQ(Take("a", 10), nullptr);
}

TEST_F(FolderPositions, Take_NeedsThePathAndTheNumber)
{
    Keep("a", 10);
    Keep("a/b", 20);
    EXPECT_EQ(Take("a", 9), nullptr);
    EXPECT_EQ(Take("a", 20), nullptr);
    EXPECT_EQ(Take("a/b", 10), nullptr);
    EXPECT_EQ(Take("", 10), nullptr);
    EXPECT_EQ(Take("A", 10), nullptr);
    EXPECT_EQ(CountKept(), 2U);
    EXPECT_TRUE(IsKept("a", 10));
    EXPECT_TRUE(IsKept("a/b", 20));
}

TEST_F(FolderPositions, TwoAtOnePlace_AreBothKept)
{
    CFolderReader* pFirst = Keep("a", 10);
    CFolderReader* pSecond = Keep("a", 10);
    EXPECT_EQ(Take("a", 10).get(), pFirst);
    EXPECT_EQ(Take("a", 10).get(), pSecond);
    EXPECT_EQ(Take("a", 10), nullptr);
}

TEST_F(FolderPositions, BeyondTheLimit_TheOldestIsClosedFirst)
{
    for (unsigned int i = 0; i < LIMIT; i++)
        Keep("a", i);
    EXPECT_EQ(CountKept(), LIMIT);
    Keep("b", 0);
    EXPECT_EQ(CountKept(), LIMIT);
    EXPECT_FALSE(IsKept("a", 0));
    for (unsigned int i = 1; i < LIMIT; i++)
        EXPECT_TRUE(IsKept("a", i)) << i;
    EXPECT_TRUE(IsKept("b", 0));
}

TEST_F(FolderPositions, TakenAndKeptAgain_IsTheYoungest)
{
    for (unsigned int i = 0; i < LIMIT; i++)
        Keep("a", i);
    m_positions.Keep(Take("a", 0), 100);
    Keep("b", 0);
    EXPECT_TRUE(IsKept("a", 100));
    EXPECT_FALSE(IsKept("a", 1));
    EXPECT_TRUE(IsKept("a", 2));
}

TEST_F(FolderPositions, Close_TakesTheFolderAndAllBelow_ButNoNeighbour)
{
    for (const char* pcName : {"a", "a/b", "a/b/c", "ab", "a.b", "b"})
        Keep(pcName, 10);
    Keep("a", 20);
    m_positions.Close(m_folder.Path("a").c_str());
    EXPECT_EQ(CountKept(), 3U);
    for (const char* pcName : {"ab", "a.b", "b"})
        EXPECT_TRUE(IsKept(pcName, 10)) << pcName;
}

TEST_F(FolderPositions, Close_OfAFolderBelow_LeavesThoseAbove)
{
    Keep("a", 10);
    Keep("a/b", 10);
    m_positions.Close(m_folder.Path("a/b").c_str());
    EXPECT_TRUE(IsKept("a", 10));
    EXPECT_FALSE(IsKept("a/b", 10));
    m_positions.Close(m_folder.Path("missing").c_str());
}

TEST_F(FolderPositions, Close_OfTheRoot_TakesAll)
{
    Keep("a", 10);
    Keep("b", 10);
    m_positions.Close("/");
    EXPECT_EQ(CountKept(), 0U);
}

TEST_F(FolderPositions, CloseAll_LeavesNothingAndCanKeepAgain)
{
    for (unsigned int i = 0; i < LIMIT; i++)
        Keep("a", i);
    m_positions.CloseAll();
    EXPECT_EQ(CountKept(), 0U);
    EXPECT_FALSE(IsKept("a", 5));
    Keep("a", 5);
    EXPECT_TRUE(IsKept("a", 5));
}

TEST_F(FolderPositions, Destruction_ClosesWhatIsKept)
{
    {
        CFolderPositions positions;
        positions.Keep(std::make_unique<CFolderReader>(m_folder.Path().c_str()), 1);
        EXPECT_EQ(CountKept(), 1U);
    }
    EXPECT_EQ(CountKept(), 0U);
}
