#include "Utilities.h"

#include <gtest/gtest.h>

#include "UtilitiesFixture.h"

namespace {

class UtilitiesExports : public CUtilitiesFixture {
protected:
    // Binds an export to a client or releases it; the reason is empty where that succeeds.
    std::string Bind(const char* pcName, const char* pcAddress, MountInfo* pInfo = nullptr)
    {
        char cReason[REASON_SIZE] = "";
        const bool bDone =
            m_utilities.UpdateMountClientIpAddrByExportName(pcName, pcAddress, pInfo, cReason);
        EXPECT_EQ(bDone, cReason[0] == '\0');
        return cReason;
    }

    bool IsKnown(unsigned int iID) { return m_utilities.GetFilePath(&m_param, &iID, nullptr, 0); }
};

}  // namespace

// ---- Adding ----

TEST_F(UtilitiesExports, AddMountInfo_StoresCanonicalPathNameAndProcess)
{
    EXPECT_EQ(Add(m_folder.Path() + "/", "vm1"), "");
    MountInfo info;
    ASSERT_TRUE(m_utilities.GetMountInfoByPath(&m_param, &m_argu, m_folder.Path().c_str(), &info));
    EXPECT_EQ(info.sLocalMountPath, m_folder.Path());
    EXPECT_EQ(info.sExportName, "vm1");
    EXPECT_EQ(info.sIcpID, "ipc");
    EXPECT_EQ(info.sRemoteIpAddr, "");
}

TEST_F(UtilitiesExports, AddMountInfo_MissingPath_IsStoredUnchanged)
{
    EXPECT_EQ(Add("/no/such//path/", "vm1"), "");
    m_utilities.GetMountInfo(&m_param, false, true);
    EXPECT_EQ(m_recorder.Lines(), Lines{"raw|host| mount1 - /no/such//path/ : vm1 () [ipc]"});
}

TEST_F(UtilitiesExports, AddMountInfo_SamePathInOtherWords_Fails)
{
    std::filesystem::create_directory(m_folder.Path("a"));
    std::filesystem::create_directory_symlink("a", m_folder.Path("link"));
    const std::string sReason = "Local mount path \"" + m_folder.Path("a") + "\" already defined";
    EXPECT_EQ(Add(m_folder.Path("a"), "vm1"), "");
    EXPECT_EQ(Add(m_folder.Path("a"), "vm2"), sReason);
    EXPECT_EQ(Add(m_folder.Path("a/"), "vm2"), sReason);
    EXPECT_EQ(Add(m_folder.Path("link"), "vm2"), sReason);
    EXPECT_EQ(CountExports(), 1);
}

TEST_F(UtilitiesExports, AddMountInfo_KnownName_IsReportedBeforeThePath)
{
    EXPECT_EQ(Add("/a", "vm1"), "");
    EXPECT_EQ(Add("/b", "vm1"), "Export name \"vm1\" already defined");
    EXPECT_EQ(Add("/a", "vm1"), "Export name \"vm1\" already defined");
    EXPECT_EQ(CountExports(), 1);
    EXPECT_EQ(Find("/a"), "vm1");
    EXPECT_EQ(Find("/b"), "(none)");
}

TEST_F(UtilitiesExports, AddMountInfo_InvalidName_FailsAtItsFirstInvalidCharacter)
{
    EXPECT_EQ(Add("/a", "a b"), "Invalid char \" \" inside export name");
    EXPECT_EQ(Add("/a", "x/y"), "Invalid char \"/\" inside export name");
    EXPECT_EQ(Add("/a", "x y/z"), "Invalid char \" \" inside export name");
    EXPECT_EQ(Add("/a", "x/y z"), "Invalid char \"/\" inside export name");
    EXPECT_EQ(Add("/a", "/"), "Invalid char \"/\" inside export name");
    EXPECT_EQ(Add("/a", "x "), "Invalid char \" \" inside export name");
    EXPECT_EQ(CountExports(), 0);
}

TEST_F(UtilitiesExports, AddMountInfo_ClashIsReportedBeforeAnInvalidName)
{
    EXPECT_EQ(Add("/a", "vm1"), "");
    EXPECT_EQ(Add("/a", "x/y"), "Local mount path \"/a\" already defined");
}

TEST_F(UtilitiesExports, AddMountInfo_AnyOtherName_IsAccepted)
{
    EXPECT_EQ(Add("/a", ""), "");
    EXPECT_EQ(Add("/b", "\t\\:*\xC3\xA4%s"), "");
    EXPECT_EQ(Add("/c", std::string(5000, 'n')), "");
    EXPECT_EQ(Find("/a"), "");
    EXPECT_EQ(CountExports(), 3);
}

TEST_F(UtilitiesExports, AddMountInfo_Names_AreCaseSensitive)
{
    EXPECT_EQ(Add("/a", "vm"), "");
    EXPECT_EQ(Add("/b", "VM"), "");
}

TEST_F(UtilitiesExports, AddMountInfo_NoReasonWantedAndNoProcess_IsTheSame)
{
    EXPECT_TRUE(m_utilities.AddMountInfo(&m_param, &m_argu, "/a", "vm1", nullptr, nullptr));
    EXPECT_FALSE(m_utilities.AddMountInfo(&m_param, &m_argu, "/a", "vm2", nullptr, nullptr));
    EXPECT_FALSE(m_utilities.AddMountInfo(&m_param, &m_argu, "/b", "x y", nullptr, nullptr));
    MountInfo info;
    ASSERT_TRUE(m_utilities.GetMountInfoByPath(&m_param, &m_argu, "/a", &info));
    EXPECT_EQ(info.sIcpID, "");
}

TEST_F(UtilitiesExports, AddMountInfo_OverlongReason_IsCutAtItsBuffer)
{
    const std::string sName(5000, 'n');
    EXPECT_EQ(Add("/a", sName), "");
    const std::string sReason = Add("/b", sName);
    EXPECT_EQ(sReason, ("Export name \"" + sName).substr(0, REASON_SIZE - 1));
}

TEST_F(UtilitiesExports, IsMountInfoExists_TellsNameThenPath)
{
    ASSERT_EQ(Add(m_folder.Path(), "vm1"), "");
    const auto Ask = [this](const char* pcPath, const char* pcName) {
        char cReason[REASON_SIZE] = "";
        const bool bExists =
            m_utilities.IsMountInfoExists(&m_param, &m_argu, pcPath, pcName, cReason);
        EXPECT_EQ(bExists, cReason[0] != '\0');
        EXPECT_EQ(m_utilities.IsMountInfoExists(&m_param, &m_argu, pcPath, pcName, nullptr),
                  bExists);
        return std::string(cReason);
    };
    const std::string sPath = m_folder.Path() + "/";  // canonicalised before it is compared
    const std::string sPathReason = "Local mount path \"" + m_folder.Path() + "\" already defined";
    EXPECT_EQ(Ask(nullptr, "vm1"), "Export name \"vm1\" already defined");
    EXPECT_EQ(Ask(sPath.c_str(), "vm1"), "Export name \"vm1\" already defined");
    EXPECT_EQ(Ask(sPath.c_str(), "vm2"), sPathReason);
    EXPECT_EQ(Ask(sPath.c_str(), nullptr), sPathReason);
    EXPECT_EQ(Ask("/other", "vm2"), "");
    EXPECT_EQ(Ask(nullptr, "vm2"), "");
    EXPECT_EQ(Ask("/other", nullptr), "");
    EXPECT_EQ(Ask(nullptr, nullptr), "");
}

// How often a path is canonicalised shows in the log: for the export and for the clash.
TEST_F(UtilitiesExports, AddMountInfo_GeneralInfo_ShowsAPathTwiceOrOnceIfTheNameIsKnown)
{
    const std::string sFound =
        "info|host|[Test] Get canonical path successfully: " + m_folder.Path();
    const std::string sMissing =
        "info|host|[Test] Fail to get canonical path from non-exist path: /no/such/path";
    m_param.SetLogControl(LOG_CONTROL_GENERAL_INFO);
    EXPECT_EQ(Add(m_folder.Path() + "/", "vm1"), "");
    EXPECT_EQ(m_recorder.Lines(), (Lines{sFound, sFound}));
    m_recorder.Clear();
    EXPECT_NE(Add(m_folder.Path(), "vm2"), "");  // a clash of paths
    EXPECT_EQ(m_recorder.Lines(), (Lines{sFound, sFound}));
    m_recorder.Clear();
    EXPECT_NE(Add(m_folder.Path(), "vm1"), "");  // a clash of names
    EXPECT_EQ(m_recorder.Lines(), Lines{sFound});
    m_recorder.Clear();
    EXPECT_NE(Add("/no/such/path", "x y"), "");
    EXPECT_EQ(m_recorder.Lines(), (Lines{sMissing, sMissing}));
}

TEST_F(UtilitiesExports, IsMountInfoExists_GeneralInfo_ShowsThePathOnceUnlessTheNameIsKnown)
{
    ASSERT_EQ(Add(m_folder.Path(), "vm1"), "");
    m_param.SetLogControl(LOG_CONTROL_GENERAL_INFO);
    const auto Ask = [this](const char* pcPath, const char* pcName) {
        m_recorder.Clear();
        m_utilities.IsMountInfoExists(&m_param, &m_argu, pcPath, pcName, nullptr);
        return m_recorder.Lines();
    };
    const char* pcPath = m_folder.Path().c_str();
    const Lines vOnce = {"info|host|[Test] Get canonical path successfully: " + m_folder.Path()};
    EXPECT_EQ(Ask(pcPath, "vm1"), Lines{});
    EXPECT_EQ(Ask(nullptr, "vm2"), Lines{});
    EXPECT_EQ(Ask(pcPath, "vm2"), vOnce);
    EXPECT_EQ(Ask(pcPath, nullptr), vOnce);
}

// ---- Removing ----

TEST_F(UtilitiesExports, RemoveByPath_CanonicalisesAndForgetsTheExport)
{
    ASSERT_EQ(Add(m_folder.Path(), "vm1"), "");
    m_utilities.RemoveMountInfoByLocalMountPath(&m_param, &m_argu,
                                                (m_folder.Path() + "/./").c_str());
    EXPECT_EQ(CountExports(), 0);
    EXPECT_EQ(Find(m_folder.Path()), "(none)");
    EXPECT_EQ(Add(m_folder.Path(), "vm1"), "");
}

TEST_F(UtilitiesExports, RemoveByPath_GeneralInfo_ShowsThePathOnce)
{
    m_param.SetLogControl(LOG_CONTROL_GENERAL_INFO);
    m_utilities.RemoveMountInfoByLocalMountPath(&m_param, &m_argu, m_folder.Path().c_str());
    EXPECT_EQ(m_recorder.Lines(),
              Lines{"info|host|[Test] Get canonical path successfully: " + m_folder.Path()});
}

// Paths that are not there stay as they were given, and those are compared byte for byte.
TEST_F(UtilitiesExports, MissingPathsThatDifferByASlash_AreTwoExports)
{
    ASSERT_EQ(Add("/no/such", "vm1"), "");
    ASSERT_EQ(Add("/no/such/", "vm2"), "");
    EXPECT_EQ(Add("/no/such", "vm3"), "Local mount path \"/no/such\" already defined");
    EXPECT_EQ(Add("/no/such/", "vm3"), "Local mount path \"/no/such/\" already defined");
    EXPECT_EQ(Find("/no/such/x"), "vm1");
    m_utilities.RemoveMountInfoByLocalMountPath(&m_param, &m_argu, "/no/such/");
    m_utilities.RemoveMountInfoByLocalMountPath(&m_param, &m_argu, "/no/such/");
    EXPECT_EQ(CountExports(), 1);
    EXPECT_EQ(Find("/no/such/x"), "vm1");
    m_utilities.RemoveMountInfoByLocalMountPath(&m_param, &m_argu, "/no/such");
    EXPECT_EQ(CountExports(), 0);
}

TEST_F(UtilitiesExports, RemoveByName_ForgetsTheExport)
{
    ASSERT_EQ(Add("/a", "vm1"), "");
    ASSERT_EQ(Add("/b", "vm2"), "");
    m_utilities.RemoveMountInfoByExportName("vm1");
    EXPECT_EQ(Find("/a"), "(none)");
    EXPECT_EQ(Find("/b"), "vm2");
    EXPECT_EQ(Add("/a", "vm1"), "");
}

TEST_F(UtilitiesExports, RemoveUnknown_ChangesNothing)
{
    ASSERT_EQ(Add("/a", "vm1"), "");
    m_utilities.RemoveMountInfoByLocalMountPath(&m_param, &m_argu, "/a/b");
    m_utilities.RemoveMountInfoByExportName("VM1");
    EXPECT_EQ(CountExports(), 1);
}

TEST_F(UtilitiesExports, RemoveAll_ForgetsEveryExport)
{
    ASSERT_EQ(Add("/a", "vm1"), "");
    ASSERT_EQ(Add("/b", "vm2"), "");
    m_utilities.RemoveAllMountInfo();
    EXPECT_EQ(CountExports(), 0);
    EXPECT_EQ(Find("/a"), "(none)");
}

TEST_F(UtilitiesExports, RemovingOneOfTwo_KeepsTheFileTable_RemovingTheLastResetsIt)
{
    ASSERT_EQ(Add("/a", "vm1"), "");
    ASSERT_EQ(Add("/b", "vm2"), "");
    ASSERT_EQ(GetID("/a/x"), 0U);
    m_utilities.RemoveMountInfoByExportName("vm1");
    EXPECT_TRUE(IsKnown(0));
    m_utilities.RemoveMountInfoByExportName("vm2");
    EXPECT_FALSE(IsKnown(0));
    EXPECT_EQ(GetID("/b/new"), 0U);
}

TEST_F(UtilitiesExports, RemovingOneOfTwoByPath_KeepsTheFileTable_RemovingTheLastResetsIt)
{
    ASSERT_EQ(Add("/a", "vm1"), "");
    ASSERT_EQ(Add("/b", "vm2"), "");
    ASSERT_EQ(GetID("/a/x"), 0U);
    m_utilities.RemoveMountInfoByLocalMountPath(&m_param, &m_argu, "/b");
    EXPECT_TRUE(IsKnown(0));
    m_utilities.RemoveMountInfoByLocalMountPath(&m_param, &m_argu, "/a");
    EXPECT_FALSE(IsKnown(0));
}

TEST_F(UtilitiesExports, RemovingFromAnEmptyTable_ResetsTheFileTableToo)
{
    ASSERT_EQ(GetID("/x"), 0U);
    m_utilities.RemoveMountInfoByExportName("never");
    EXPECT_FALSE(IsKnown(0));
    ASSERT_EQ(GetID("/y"), 0U);
    m_utilities.RemoveMountInfoByLocalMountPath(&m_param, &m_argu, "/never");
    EXPECT_FALSE(IsKnown(0));
    ASSERT_EQ(GetID("/z"), 0U);
    m_utilities.RemoveAllMountInfo();
    EXPECT_FALSE(IsKnown(0));
}

// ---- The client that has an export mounted ----

TEST_F(UtilitiesExports, Bind_UnknownName_Fails)
{
    ASSERT_EQ(Add("/a", "vm1"), "");
    EXPECT_EQ(Bind("vm2", "10.0.0.1"), "Undefined export name \"vm2\"");
    EXPECT_EQ(Bind("VM1", "10.0.0.1"), "Undefined export name \"VM1\"");
    EXPECT_EQ(Bind("vm2", nullptr), "Undefined export name \"vm2\"");
    EXPECT_FALSE(m_utilities.UpdateMountClientIpAddrByExportName("vm2", "x", nullptr, nullptr));
}

TEST_F(UtilitiesExports, Bind_FreeExport_CopiesItWithTheAddress)
{
    ASSERT_EQ(Add("/a", "vm1"), "");
    MountInfo info;
    EXPECT_EQ(Bind("vm1", "10.0.0.1", &info), "");
    EXPECT_EQ(info.sLocalMountPath, "/a");
    EXPECT_EQ(info.sExportName, "vm1");
    EXPECT_EQ(info.sIcpID, "ipc");
    EXPECT_EQ(info.sRemoteIpAddr, "10.0.0.1");
}

TEST_F(UtilitiesExports, Bind_Again_FailsForEveryoneUntilReleased)
{
    ASSERT_EQ(Add("/a", "vm1"), "");
    const std::string sReason = "This mount point \"vm1\" already mounted by 10.0.0.1";
    EXPECT_EQ(Bind("vm1", "10.0.0.1"), "");
    EXPECT_EQ(Bind("vm1", "10.0.0.1"), sReason);
    EXPECT_EQ(Bind("vm1", "10.0.0.2"), sReason);
    EXPECT_FALSE(
        m_utilities.UpdateMountClientIpAddrByExportName("vm1", "10.0.0.2", nullptr, nullptr));
    EXPECT_TRUE(m_utilities.IsRemoteAddrExists("10.0.0.1"));
    EXPECT_FALSE(m_utilities.IsRemoteAddrExists("10.0.0.2"));
    EXPECT_EQ(Bind("vm1", nullptr), "");
    EXPECT_EQ(Bind("vm1", "10.0.0.2"), "");
}

TEST_F(UtilitiesExports, Bind_Refused_LeavesTheCopyAlone)
{
    ASSERT_EQ(Add("/a", "vm1"), "");
    ASSERT_EQ(Bind("vm1", "10.0.0.1"), "");
    MountInfo info;
    info.sExportName = "before";
    EXPECT_NE(Bind("vm1", "10.0.0.2", &info), "");
    EXPECT_NE(Bind("vm2", "10.0.0.2", &info), "");
    EXPECT_EQ(info.sExportName, "before");
}

TEST_F(UtilitiesExports, Release_WorksWhetherBoundOrNot)
{
    ASSERT_EQ(Add("/a", "vm1"), "");
    MountInfo info;
    EXPECT_EQ(Bind("vm1", nullptr, &info), "");
    EXPECT_EQ(info.sLocalMountPath, "/a");
    EXPECT_EQ(Bind("vm1", "10.0.0.1"), "");
    EXPECT_EQ(Bind("vm1", nullptr, &info), "");
    EXPECT_EQ(info.sRemoteIpAddr, "");
}

TEST_F(UtilitiesExports, RemovingTheExport_EndsItsBinding)
{
    ASSERT_EQ(Add("/a", "vm1"), "");
    ASSERT_EQ(Bind("vm1", "10.0.0.1"), "");
    m_utilities.RemoveMountInfoByExportName("vm1");
    EXPECT_FALSE(m_utilities.IsRemoteAddrExists("10.0.0.1"));
    ASSERT_EQ(Add("/a", "vm1"), "");
    EXPECT_EQ(Bind("vm1", "10.0.0.2"), "");
}

TEST_F(UtilitiesExports, IsRemoteAddrExists_ComparesWholeAddresses)
{
    EXPECT_FALSE(m_utilities.IsRemoteAddrExists(""));
    ASSERT_EQ(Add("/a", "vm1"), "");
    ASSERT_EQ(Add("/b", "vm2"), "");
    ASSERT_EQ(Bind("vm2", "10.0.0.12"), "");
    EXPECT_TRUE(m_utilities.IsRemoteAddrExists("10.0.0.12"));
    EXPECT_FALSE(m_utilities.IsRemoteAddrExists("10.0.0.1"));
    EXPECT_TRUE(m_utilities.IsRemoteAddrExists(""));  // vm1, which nobody has
}

// ---- Listing ----

TEST_F(UtilitiesExports, GetMountInfo_CountsAllOrOnlyMounted)
{
    EXPECT_EQ(CountExports(), 0);
    ASSERT_EQ(Add("/a", "vm1"), "");
    ASSERT_EQ(Add("/b", "vm2"), "");
    ASSERT_EQ(Add("/c", "vm3"), "");
    EXPECT_EQ(m_utilities.GetMountInfo(&m_param, true, false), 0);
    ASSERT_EQ(Bind("vm2", "10.0.0.1"), "");
    EXPECT_EQ(CountExports(), 3);
    EXPECT_EQ(m_utilities.GetMountInfo(&m_param, true, false), 1);
    EXPECT_TRUE(m_recorder.Lines().empty());
}

TEST_F(UtilitiesExports, GetMountInfo_Details_AreListedByNameWithARunningCount)
{
    ASSERT_EQ(Add("/1", "vm2"), "");
    ASSERT_EQ(Add("/2", "vm10"), "");
    ASSERT_EQ(Add("/3", "VM3"), "");
    ASSERT_EQ(Bind("vm2", "10.0.0.1"), "");
    EXPECT_EQ(m_utilities.GetMountInfo(&m_param, false, true), 3);
    EXPECT_EQ(m_recorder.Lines(), (Lines{"raw|host| mount1 - /3 : VM3 () [ipc]",
                                         "raw|host| mount2 - /2 : vm10 () [ipc]",
                                         "raw|host| mount3 - /1 : vm2 (10.0.0.1) [ipc]"}));
    m_recorder.Clear();
    EXPECT_EQ(m_utilities.GetMountInfo(&m_param, true, true), 1);
    EXPECT_EQ(m_recorder.Lines(), Lines{"raw|host| mount1 - /1 : vm2 (10.0.0.1) [ipc]"});
}
