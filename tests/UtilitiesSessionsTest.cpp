#include "Utilities.h"

#include <gtest/gtest.h>

#include "LogRecorder.h"

namespace {

using Lines = std::vector<std::string>;

class UtilitiesSessions : public testing::Test {
protected:
    void SetUp() override { m_utilities.SetCallback(&m_recorder); }

    Lines GetSessions()
    {
        m_recorder.Clear();
        const int iCount = m_utilities.GetSessionInfo(&m_param, true);
        EXPECT_EQ(m_recorder.Lines().size(), static_cast<size_t>(iCount));
        return m_recorder.Lines();
    }

    CLogRecorder m_recorder;
    CUtilities m_utilities;
    CRuntimeParam m_param{"host", 0};
};

}  // namespace

TEST_F(UtilitiesSessions, NoSessions_AreCountedAndFoundAsNone)
{
    EXPECT_EQ(m_utilities.GetSessionInfo(&m_param, false), 0);
    EXPECT_FALSE(m_utilities.IsSessionExists("s"));
    EXPECT_FALSE(m_utilities.IsSessionExists(""));
    EXPECT_EQ(GetSessions(), Lines{});
}

TEST_F(UtilitiesSessions, AddedSession_IsFoundByItsWholeID)
{
    m_utilities.AddSessionInfo("s1", "/p");
    EXPECT_TRUE(m_utilities.IsSessionExists("s1"));
    EXPECT_FALSE(m_utilities.IsSessionExists("s"));
    EXPECT_FALSE(m_utilities.IsSessionExists("S1"));
}

TEST_F(UtilitiesSessions, Listing_IsByIDWithARunningCount)
{
    m_utilities.AddSessionInfo("s2", "/run/../run/");  // stored as given
    m_utilities.AddSessionInfo("s10", "/q");
    EXPECT_EQ(GetSessions(),
              (Lines{"raw|host| session1 - s10 : /q", "raw|host| session2 - s2 : /run/../run/"}));
}

TEST_F(UtilitiesSessions, CountingOnly_WritesNothing)
{
    m_utilities.AddSessionInfo("s1", "/p");
    EXPECT_EQ(m_utilities.GetSessionInfo(&m_param, false), 1);
    EXPECT_TRUE(m_recorder.Lines().empty());
}

TEST_F(UtilitiesSessions, SameIDAgain_ReplacesTheSession)
{
    m_utilities.AddSessionInfo("s1", "/p");
    m_utilities.AddSessionInfo("s1", "/q");
    EXPECT_EQ(GetSessions(), Lines{"raw|host| session1 - s1 : /q"});
}

TEST_F(UtilitiesSessions, RemoveByID_TakesThatOneOnly)
{
    m_utilities.AddSessionInfo("s1", "/p");
    m_utilities.AddSessionInfo("s2", "/p");
    m_utilities.RemoveSessionInfo("s1");
    m_utilities.RemoveSessionInfo("never");
    EXPECT_FALSE(m_utilities.IsSessionExists("s1"));
    EXPECT_TRUE(m_utilities.IsSessionExists("s2"));
}

TEST_F(UtilitiesSessions, RemoveByPath_TakesAllSessionsOfExactlyThatPath)
{
    m_utilities.AddSessionInfo("s1", "/p");
    m_utilities.AddSessionInfo("s2", "/q");
    m_utilities.AddSessionInfo("s3", "/p");
    m_utilities.AddSessionInfo("s4", "/p/");
    m_utilities.RemoveSessionInfoByLocalMountPath("/p");
    EXPECT_EQ(GetSessions(),
              (Lines{"raw|host| session1 - s2 : /q", "raw|host| session2 - s4 : /p/"}));
}

TEST_F(UtilitiesSessions, RemoveAll_LeavesNone)
{
    m_utilities.AddSessionInfo("s1", "/p");
    m_utilities.AddSessionInfo("s2", "/q");
    m_utilities.RemoveAllSessionInfo();
    EXPECT_EQ(GetSessions(), Lines{});
    EXPECT_FALSE(m_utilities.IsSessionExists("s1"));
}
