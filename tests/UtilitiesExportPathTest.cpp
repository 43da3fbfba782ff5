#include "Utilities.h"

#include <atomic>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "UtilitiesFixture.h"

namespace {

class UtilitiesExportPath : public CUtilitiesFixture {
protected:
    std::string GetCanonical(const std::string& sPath)
    {
        char cPath[PATH_SIZE];
        m_utilities.GetCanonicalPath(&m_param, &m_argu, cPath, sPath.c_str());
        return cPath;
    }

    std::string GetTarget(const std::string& sPath)
    {
        std::string sBuffer(PATH_SIZE + 1, '#');
        m_utilities.GetCanonicalTargetPath(&m_param, &m_argu, sBuffer.data(), sPath.c_str());
        EXPECT_EQ(sBuffer.back(), '#');
        return sBuffer.c_str();
    }
};

std::string GetPathToCompare(std::string sPath)
{
    sPath.resize(PATH_SIZE);
    CUtilities::SetPathToCompare(sPath.data());
    return sPath.c_str();
}

}  // namespace

// ---- Paths ----

TEST_F(UtilitiesExportPath, GetCanonicalPath_ExistingPath_IsResolved)
{
    std::filesystem::create_directory(m_folder.Path("a"));
    std::filesystem::create_directory_symlink(m_folder.Path("a"), m_folder.Path("link"));
    EXPECT_EQ(GetCanonical(m_folder.Path("a/")), m_folder.Path("a"));
    EXPECT_EQ(GetCanonical(m_folder.Path("a/../a/./")), m_folder.Path("a"));
    EXPECT_EQ(GetCanonical(m_folder.Path("link")), m_folder.Path("a"));
    EXPECT_TRUE(m_recorder.Lines().empty());
}

TEST_F(UtilitiesExportPath, GetCanonicalPath_MissingPath_IsCopiedUnchanged)
{
    EXPECT_EQ(GetCanonical("/no/such//path/../x/"), "/no/such//path/../x/");
    EXPECT_EQ(GetCanonical(""), "");
    EXPECT_TRUE(m_recorder.Lines().empty());
}

TEST_F(UtilitiesExportPath, GetCanonicalPath_OverlongPath_IsCutAtItsBuffer)
{
    EXPECT_EQ(GetCanonical("/" + std::string(2 * PATH_SIZE, 'x')),
              "/" + std::string(PATH_SIZE - 2, 'x'));
}

TEST_F(UtilitiesExportPath, GetCanonicalPath_GeneralInfo_IsLogged)
{
    m_param.SetLogControl(LOG_CONTROL_GENERAL_INFO);
    GetCanonical(m_folder.Path() + "/");
    GetCanonical("/no/such/path/");
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"info|host|[Test] Get canonical path successfully: " + m_folder.Path(),
                     "info|host|[Test] Fail to get canonical path from non-exist path: "
                     "/no/such/path/"}));
}

TEST_F(UtilitiesExportPath, GetCanonicalPath_EveryOtherBit_LogsNothing)
{
    m_param.SetLogControl(0x3FF & ~LOG_CONTROL_GENERAL_INFO);
    GetCanonical(m_folder.Path());
    GetCanonical("/no/such/path");
    EXPECT_TRUE(m_recorder.Lines().empty());
}

// ---- Where something new would come to stand ----

TEST_F(UtilitiesExportPath, GetCanonicalTargetPath_ExistingPath_IsResolved)
{
    std::filesystem::create_directory(m_folder.Path("a"));
    std::filesystem::create_directory_symlink("a", m_folder.Path("link"));
    EXPECT_EQ(GetTarget(m_folder.Path("a/../link/.")), m_folder.Path("a"));
    EXPECT_EQ(GetTarget("/"), "/");
    EXPECT_TRUE(m_recorder.Lines().empty());
}

TEST_F(UtilitiesExportPath, GetCanonicalTargetPath_MissingName_StandsInItsResolvedFolder)
{
    std::filesystem::create_directory(m_folder.Path("a"));
    std::filesystem::create_directory_symlink("a", m_folder.Path("link"));
    EXPECT_EQ(GetTarget(m_folder.Path("new")), m_folder.Path("new"));
    EXPECT_EQ(GetTarget(m_folder.Path("a/../new")), m_folder.Path("new"));
    EXPECT_EQ(GetTarget(m_folder.Path("link/new")), m_folder.Path("a/new"));
    EXPECT_EQ(GetTarget(m_folder.Path("a//./new")), m_folder.Path("a/new"));
    EXPECT_EQ(GetTarget(m_folder.Path("../new")), GetScratchRoot() + "/new");
    EXPECT_EQ(GetTarget("/missing"), "/missing");
    EXPECT_EQ(GetTarget("/../missing"), "/missing");
}

TEST_F(UtilitiesExportPath, GetCanonicalTargetPath_SlashesBehindTheName_LeadToTheSamePlace)
{
    EXPECT_EQ(GetTarget(m_folder.Path("new/")), m_folder.Path("new"));
    EXPECT_EQ(GetTarget(m_folder.Path("new///")), m_folder.Path("new"));
    EXPECT_EQ(GetTarget(m_folder.Path("../new/")), GetScratchRoot() + "/new");
    EXPECT_EQ(GetTarget("/missing/"), "/missing");
}

// Nothing can be made there, so the path may stay; but not one whose end is elsewhere.
TEST_F(UtilitiesExportPath, GetCanonicalTargetPath_FolderIsMissing_StaysUnlessItLeadsUpwards)
{
    m_folder.Write("file", "");
    for (const char* pcName : {"missing/new", "missing/deeper/new", "missing/.", "missing/..new",
                               "missing/new..", "missing/.../new", "file/new"})
        EXPECT_EQ(GetTarget(m_folder.Path(pcName)), m_folder.Path(pcName));
    for (const char* pcName : {"missing/..", "missing/../new", "missing/../../new",
                               "../missing/new", "file/../new", "missing/../"})
        EXPECT_EQ(GetTarget(m_folder.Path(pcName)), "") << pcName;
}

// Whoever made a file there would make it where the link leads.
TEST_F(UtilitiesExportPath, GetCanonicalTargetPath_DanglingLink_LeadsNowhere)
{
    const CScratchFolder outside;
    std::filesystem::create_directory(m_folder.Path("a"));
    std::filesystem::create_symlink("a/new", m_folder.Path("relative"));
    std::filesystem::create_symlink(outside.Path("new"), m_folder.Path("absolute"));
    std::filesystem::create_symlink("../../new", m_folder.Path("a/upwards"));
    std::filesystem::create_symlink("relative", m_folder.Path("chain"));
    std::filesystem::create_symlink("two", m_folder.Path("one"));
    std::filesystem::create_symlink("one", m_folder.Path("two"));
    std::filesystem::create_directory_symlink("a", m_folder.Path("door"));
    for (const char* pcName : {"relative", "relative/", "absolute", "absolute/", "a/upwards",
                               "door/upwards", "chain", "one", "two", "one/"})
        EXPECT_EQ(GetTarget(m_folder.Path(pcName)), "") << pcName;
}

TEST_F(UtilitiesExportPath, GetCanonicalTargetPath_ResultThatDoesNotFit_IsEmpty)
{
    // A short link to a folder with a long path.
    std::string sDeep = m_folder.Path();
    while (sDeep.size() < 1000)
        sDeep += "/" + std::string(200, 'd');
    std::filesystem::create_directories(sDeep);
    std::filesystem::create_directory_symlink(sDeep, m_folder.Path("l"));
    const size_t iFits = PATH_SIZE - 1 - sDeep.size() - 1;
    const std::string sName(iFits, 'n');
    EXPECT_EQ(GetTarget(m_folder.Path("l/" + sName)), sDeep + "/" + sName);
    EXPECT_EQ(GetTarget(m_folder.Path("l/n" + sName)), "");
}

TEST_F(UtilitiesExportPath, GetCanonicalTargetPath_OfNothing_IsNothing)
{
    EXPECT_EQ(GetTarget(""), "");
}

TEST_F(UtilitiesExportPath, GetCanonicalTargetPath_GeneralInfo_WritesTheLinesOfGetCanonicalPath)
{
    m_param.SetLogControl(LOG_CONTROL_GENERAL_INFO);
    GetTarget(m_folder.Path() + "/");
    GetTarget(m_folder.Path("../new"));
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"info|host|[Test] Get canonical path successfully: " + m_folder.Path(),
                     "info|host|[Test] Fail to get canonical path from non-exist path: " +
                         m_folder.Path("../new")}));
    m_recorder.Clear();
    m_param.SetLogControl(0x3FF & ~LOG_CONTROL_GENERAL_INFO);
    GetTarget(m_folder.Path("../new"));
    EXPECT_TRUE(m_recorder.Lines().empty());
}

TEST(UtilitiesPathToCompare, SetPathToCompare_AppendsAMissingSlash)
{
    EXPECT_EQ(GetPathToCompare("/a/b"), "/a/b/");
    EXPECT_EQ(GetPathToCompare("/a/b/"), "/a/b/");
    EXPECT_EQ(GetPathToCompare("/"), "/");
    EXPECT_EQ(GetPathToCompare("x"), "x/");
    EXPECT_EQ(GetPathToCompare(""), "");
}

TEST(UtilitiesPathToCompare, SetPathToCompare_NoRoom_LeavesThePath)
{
    const std::string sFits(PATH_SIZE - 2, 'x');
    const std::string sFull(PATH_SIZE - 1, 'x');
    EXPECT_EQ(GetPathToCompare(sFits), sFits + "/");
    EXPECT_EQ(GetPathToCompare(sFull), sFull);
}

// ---- The export of a path ----

TEST_F(UtilitiesExportPath, GetMountInfoByPath_FolderAndBelow_ButNoNeighbour)
{
    ASSERT_EQ(Add("/srv/a", "vm1"), "");
    for (const int iBits : {0, 0x3FF}) {
        m_param.SetLogControl(iBits);
        EXPECT_EQ(Find("/srv/a"), "vm1");
        EXPECT_EQ(Find("/srv/a/"), "vm1");
        EXPECT_EQ(Find("/srv/a/x"), "vm1");
        EXPECT_EQ(Find("/srv/ab"), "(none)");
        EXPECT_EQ(Find("/srv"), "(none)");
        EXPECT_EQ(Find(""), "(none)");
    }
}

TEST_F(UtilitiesExportPath, GetMountInfoByPath_NestedExports_TheSmallestNameWins)
{
    ASSERT_EQ(Add("/srv", "b"), "");
    ASSERT_EQ(Add("/srv/deep", "c"), "");
    ASSERT_EQ(Add("/srv/deep/deeper", "a"), "");
    for (const int iBits : {0, 0x3FF}) {
        m_param.SetLogControl(iBits);
        EXPECT_EQ(Find("/srv/deep/x"), "b");
        EXPECT_EQ(Find("/srv/deep/deeper/x"), "a");
    }
}

TEST_F(UtilitiesExportPath, GetMountInfoByPath_PathIsNotCanonicalised)
{
    ASSERT_EQ(Add(m_folder.Path(), "vm1"), "");
    EXPECT_EQ(Find("/run/../" + m_folder.Path()), "(none)");
    EXPECT_EQ(Find(m_folder.Path() + "/../elsewhere"), "vm1");
}

TEST_F(UtilitiesExportPath, GetMountInfoByPath_NoCopyWanted_StillAnswers)
{
    ASSERT_EQ(Add("/a", "vm1"), "");
    EXPECT_TRUE(m_utilities.GetMountInfoByPath(&m_param, &m_argu, "/a", nullptr));
    EXPECT_FALSE(m_utilities.GetMountInfoByPath(&m_param, &m_argu, "/b", nullptr));
}

TEST_F(UtilitiesExportPath, GetMountInfoByPath_GeneralInfo_LogsTheWalkUpToTheMatch)
{
    ASSERT_EQ(Add("/x", "vm1"), "");
    ASSERT_EQ(Add("/srv/a", "vm2"), "");
    ASSERT_EQ(Add("/srv/ab", "vm3"), "");
    ASSERT_EQ(Add("/srv", "vm4"), "");
    m_param.SetLogControl(LOG_CONTROL_GENERAL_INFO);
    EXPECT_EQ(Find("/srv/ab"), "vm3");
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"info|host|[Test] Path scan: \"/srv/ab/\" vs \"/x\"",
                     "info|host|[Test] Path scan: \"/srv/ab/\" vs \"/srv/a\"",
                     "info|host|[Test] Path compare: \"/srv/ab/\" vs \"/srv/a/\"",
                     "info|host|[Test] Path scan: \"/srv/ab/\" vs \"/srv/ab\"",
                     "info|host|[Test] Path compare: \"/srv/ab/\" vs \"/srv/ab/\"",
                     "info|host|[Test] Path match"}));
}

TEST_F(UtilitiesExportPath, GetMountInfoByPath_NoMatch_LogsNoMoreThanTheWalk)
{
    ASSERT_EQ(Add("/x", "vm1"), "");
    m_param.SetLogControl(LOG_CONTROL_GENERAL_INFO);
    EXPECT_EQ(Find("/y"), "(none)");
    EXPECT_EQ(m_recorder.Lines(), Lines{"info|host|[Test] Path scan: \"/y/\" vs \"/x\""});
}

TEST_F(UtilitiesExportPath, GetMountInfoByPath_EveryOtherBit_LogsNothing)
{
    ASSERT_EQ(Add("/x", "vm1"), "");
    m_param.SetLogControl(0x3FF & ~LOG_CONTROL_GENERAL_INFO);
    EXPECT_EQ(Find("/x"), "vm1");
    EXPECT_TRUE(m_recorder.Lines().empty());
}

// The walk that general information shows and the index that answers without it: the same export.
TEST_F(UtilitiesExportPath, GetMountInfoByPath_WithAndWithoutLines_FindsTheSame)
{
    std::mt19937 random(51);
    const auto NextPath = [&random] {
        const char* const NAMES[] = {"a", "b", "ab", "ba"};
        std::string sPath;
        for (auto i = random() % 5; i > 0; i--)
            sPath += std::string("/") + NAMES[random() % 4];
        return sPath + (random() % 3 == 0 ? "/" : "");
    };
    int iFound = 0;
    for (int i = 0; i < 5000; i++) {
        const std::string sName = "vm" + std::to_string(random() % 30);
        char cReason[REASON_SIZE];
        m_param.SetLogControl(0);
        if (i % 4 == 0)
            m_utilities.RemoveMountInfoByExportName(sName.c_str());
        else if (CountExports() < 10)
            m_utilities.AddMountInfo(&m_param, &m_argu, NextPath().c_str(), sName.c_str(), "",
                                     cReason);
        const std::string sPath = NextPath();
        const std::string sQuick = Find(sPath);
        m_param.SetLogControl(LOG_CONTROL_GENERAL_INFO);
        ASSERT_EQ(Find(sPath), sQuick) << sPath;
        iFound += sQuick != "(none)";
        m_recorder.Clear();
    }
    EXPECT_GT(iFound, 500);
    EXPECT_LT(iFound, 4500);
}

// The longest path that a buffer holds: no room for a slash, neither here nor there.
TEST_F(UtilitiesExportPath, GetMountInfoByPath_LongestPath_FindsTheSameBothWays)
{
    const std::string sPath = "/" + std::string(PATH_SIZE - 2, 'x');
    ASSERT_EQ(Add(sPath, "vm1"), "");
    const std::string sQuick = Find(sPath);
    m_param.SetLogControl(LOG_CONTROL_GENERAL_INFO);
    EXPECT_EQ(Find(sPath), sQuick);
}

// ---- Several threads ----

// Exports come and go while others look them up: every answer is one that held at some moment, and
// what no thread touches stays.
TEST_F(UtilitiesExportPath, ManyThreads_TablesStayWhole)
{
    constexpr int ROUNDS = 300;
    ASSERT_EQ(Add("/fixed", "fixed"), "");
    m_utilities.SetCallback(nullptr);
    std::atomic<bool> bStop = false;
    std::vector<std::thread> vThreads;
    for (int i = 0; i < 3; i++)
        vThreads.emplace_back([this, i] {
            CRuntimeParam param("", 0);
            LogArgu argu = {"Test"};
            const std::string sPath = "/moving" + std::to_string(i);
            const std::string sName = "vm" + std::to_string(i);
            char cReason[REASON_SIZE];
            for (int j = 0; j < ROUNDS; j++) {
                EXPECT_TRUE(m_utilities.AddMountInfo(&param, &argu, sPath.c_str(), sName.c_str(),
                                                     "", cReason));
                EXPECT_TRUE(m_utilities.UpdateMountClientIpAddrByExportName(
                    sName.c_str(), "10.0.0.1", nullptr, cReason));
                m_utilities.AddSessionInfo(sName.c_str(), sPath.c_str());
                m_utilities.AddVSphereInfo(sName.c_str(), "h", "p", "u", "w");
                EXPECT_TRUE(m_utilities.IsSessionExists(sName.c_str()));
                if (j % 2 == 0)
                    m_utilities.RemoveMountInfoByExportName(sName.c_str());
                else
                    m_utilities.RemoveMountInfoByLocalMountPath(&param, &argu, sPath.c_str());
                m_utilities.RemoveSessionInfoByLocalMountPath(sPath.c_str());
                m_utilities.RemoveVSphereInfo(sName.c_str());
            }
        });
    std::thread reader([this, &bStop] {
        CRuntimeParam param("", 0);
        LogArgu argu = {"Test"};
        while (!bStop) {
            MountInfo info;
            EXPECT_TRUE(m_utilities.GetMountInfoByPath(&param, &argu, "/fixed/x", &info));
            EXPECT_EQ(info.sExportName, "fixed");
            if (m_utilities.GetMountInfoByPath(&param, &argu, "/moving1/x", &info)) {
                EXPECT_EQ(info.sExportName, "vm1");
            }
            EXPECT_LE(m_utilities.GetMountInfo(&param, true, false), 3);
            EXPECT_LE(m_utilities.GetSessionInfo(&param, false), 3);
            EXPECT_LE(m_utilities.GetVSphereInfo(&param, false), 3);
            EXPECT_EQ(m_utilities.GetFileID(&param, &argu, "/fixed/x"), 0U);
            m_utilities.IsRemoteAddrExists("10.0.0.1");
        }
    });
    for (std::thread& thread : vThreads)
        thread.join();
    bStop = true;
    reader.join();
    EXPECT_EQ(CountExports(), 1);
    EXPECT_EQ(m_utilities.GetSessionInfo(&m_param, false), 0);
    EXPECT_EQ(m_utilities.GetVSphereInfo(&m_param, false), 0);
    EXPECT_FALSE(m_utilities.IsRemoteAddrExists("10.0.0.1"));
}

// Of several threads that publish under one name, one does; the others hear of the clash.
TEST_F(UtilitiesExportPath, ManyThreads_OneNameIsAddedOnce)
{
    for (int iRound = 0; iRound < 50; iRound++) {
        std::atomic<int> iAdded = 0;
        std::vector<std::thread> vThreads;
        for (int i = 0; i < 3; i++)
            vThreads.emplace_back([this, i, &iAdded] {
                CRuntimeParam param("", 0);
                LogArgu argu = {"Test"};
                const std::string sPath = "/path" + std::to_string(i);
                iAdded += m_utilities.AddMountInfo(&param, &argu, sPath.c_str(), "vm", "", nullptr);
            });
        for (std::thread& thread : vThreads)
            thread.join();
        EXPECT_EQ(iAdded, 1);
        EXPECT_EQ(CountExports(), 1);
        m_utilities.RemoveAllMountInfo();
    }
}
