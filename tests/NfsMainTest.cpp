#include "NfsMain.h"

#include <algorithm>
#include <filesystem>

#include <gtest/gtest.h>

#include "NfsMainFixture.h"
#include "Utilities.h"

// ---- Construction and what needs no server ----

TEST_F(NfsMain, Constructed_IsStoppedAndOwnsItsContext)
{
    EXPECT_STREQ(m_pMain->GetRuntimeParam()->GetID(), "host");
    EXPECT_STREQ(m_pMain->GetRuntimeParam()->GetIpcID(), "");
    EXPECT_EQ(m_pMain->GetRuntimeParam()->GetLogControl(), LOG_EVERYTHING);
    EXPECT_NE(m_pMain->GetUtils(), nullptr);
    EXPECT_FALSE(m_pMain->IsServerRunning());
    EXPECT_FALSE(m_pMain->IsAutoShutdownEnabled());
    EXPECT_FALSE(m_pMain->IsAutoShutdownRequested());
    EXPECT_EQ(m_pMain->GetAccessMode(), 0);
    EXPECT_EQ(m_pMain->GetCallback().get(), &m_recorder);
    EXPECT_EQ(m_pMain->GetUtils()->GetCallback().get(), &m_recorder);
}

TEST_F(NfsMain, VersionAndDescription_AreFixed)
{
    char cVersion[DESCRIPTION_SIZE];
    char cDescription[DESCRIPTION_SIZE];
    m_pMain->GetVersion(cVersion);
    m_pMain->GetDescription(cDescription);
    EXPECT_STREQ(cVersion, "1.2");
    EXPECT_STREQ(cDescription, "Internal NFS Server");
}

TEST_F(NfsMain, Initial_WithAnID_Succeeds)
{
    EXPECT_TRUE(m_pMain->Initial(m_cReason));
    EXPECT_STREQ(m_cReason, "");
    m_pMain->Terminate();
}

TEST_F(NfsMain, Initial_EmptyID_FailsWithItsReason)
{
    Make("", 0);
    EXPECT_FALSE(m_pMain->Initial(m_cReason));
    EXPECT_STREQ(m_cReason, "ID is not defined");
    Make(nullptr, 0);
    EXPECT_FALSE(m_pMain->Initial(nullptr));
}

TEST_F(NfsMain, AutoShutdown_IsRefusedUntilItIsEnabled)
{
    EXPECT_FALSE(m_pMain->RequestAutoShutdown());
    EXPECT_FALSE(m_pMain->IsAutoShutdownRequested());
    m_pMain->EnableAutoShutdown(true);
    EXPECT_TRUE(m_pMain->IsAutoShutdownEnabled());
    EXPECT_FALSE(m_pMain->IsAutoShutdownRequested());
    EXPECT_TRUE(m_pMain->RequestAutoShutdown());
    EXPECT_TRUE(m_pMain->IsAutoShutdownRequested());
}

TEST_F(NfsMain, AutoShutdown_DisabledAgain_IsRefused)
{
    m_pMain->EnableAutoShutdown(true);
    m_pMain->EnableAutoShutdown(false);
    EXPECT_FALSE(m_pMain->IsAutoShutdownEnabled());
    EXPECT_FALSE(m_pMain->RequestAutoShutdown());
    EXPECT_FALSE(m_pMain->IsAutoShutdownRequested());
}

TEST_F(NfsMain, ServerStatus_ShowsRunningAndDebugActions)
{
    EXPECT_EQ(m_pMain->GetServerStatus(), 1);
    EXPECT_TRUE(m_pMain->SetDebugActionEnabled(true));
    EXPECT_EQ(m_pMain->GetServerStatus(), 5);
    Start();
    EXPECT_EQ(m_pMain->GetServerStatus(), 7);
    EXPECT_TRUE(m_pMain->SetDebugActionEnabled(false));
    EXPECT_EQ(m_pMain->GetServerStatus(), 3);
    m_pMain->StopServer();
    EXPECT_EQ(m_pMain->GetServerStatus(), 1);
}

TEST_F(NfsMain, RemoteController_OnlySaysThatThereIsNone)
{
    EXPECT_TRUE(m_pMain->StartRemoteController(m_cReason));
    m_pMain->StopRemoteController();
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"info|host|[NfsMain.StartRemoteController] No remote controller to start. It "
                     "is NOT support in internal server mode.",
                     "info|host|[NfsMain.StopRemoteController] No remote controller to stop. It is "
                     "NOT support in internal server mode."}));
    EXPECT_STREQ(m_cReason, "");
}

TEST_F(NfsMain, RemoteController_WithoutTheGeneralBit_IsSilent)
{
    m_pMain->SetLogControl(LOG_EVERYTHING & ~LOG_CONTROL_GENERAL_INFO);
    EXPECT_TRUE(m_pMain->StartRemoteController(m_cReason));
    m_pMain->StopRemoteController();
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

// ---- Lines that only a log file gets ----

TEST_F(NfsMain, LogFile_HasALineForEachStepOfALife)
{
    m_pMain->SetLogControl(0);
    OpenLogFile();
    EXPECT_TRUE(m_pMain->Initial(m_cReason));
    EXPECT_TRUE(m_pMain->StartRemoteController(m_cReason));
    Start();
    m_pMain->StopServer();
    m_pMain->StopServer();  // stopped already: no second line
    m_pMain->StopRemoteController();
    m_pMain->Terminate();
    EXPECT_EQ(ReadLog(m_logFolder.Path("log")),
              (Lines{"[info] Initial NFS", "[info] Start Remote Controller",
                     "[info] Start NFS with internal portmapper: MountPort = 1058, NfsPort = 2049",
                     "[info] Stop NFS", "[info] Stop Remote Controller", "[info] Terminate NFS"}));
}

TEST_F(NfsMain, WithoutALogFile_TheseLinesAreNotWritten)
{
    EXPECT_TRUE(m_pMain->Initial(m_cReason));
    EXPECT_TRUE(m_pMain->StartRemoteController(m_cReason));
    Start();
    m_pMain->StopServer();
    m_pMain->StopRemoteController();
    m_pMain->Terminate();
    for (const char* pcText : {"Initial NFS", "Start Remote Controller", "Start NFS", "Stop NFS",
                               "Stop Remote Controller", "Terminate NFS"})
        EXPECT_FALSE(m_recorder.Contains(pcText)) << pcText;
}

TEST_F(NfsMain, LogFile_NamesThePortsThatAreAskedFor)
{
    m_pMain->SetLogControl(0);
    OpenLogFile();
    ASSERT_TRUE(m_pMain->StartServer(3058, 3049, 0, 0, false, m_cReason));
    EXPECT_EQ(ReadLog(m_logFolder.Path("log")),
              (Lines{"[info] Start NFS with internal portmapper: MountPort = 3058, "
                     "NfsPort = 3049"}));
}
// ---- The rest of the operations ----

TEST_F(NfsMain, MountPoints_AreAddedListedAndRemoved)
{
    m_pMain->SetLogControl(0);
    const std::string sPath = m_folder.Path();
    EXPECT_EQ(m_pMain->GetMountInfo(false, false), 0);
    EXPECT_TRUE(m_pMain->AddMountPoint(sPath.c_str(), "vm1", "ipc", m_cReason));
    EXPECT_FALSE(m_pMain->AddMountPoint("/elsewhere", "vm1", m_cReason));
    EXPECT_STREQ(m_cReason, "Export name \"vm1\" already defined");
    EXPECT_TRUE(m_pMain->AddMountPoint("/elsewhere", "vm2", m_cReason));

    EXPECT_EQ(m_pMain->GetMountInfo(false, true), 2);
    EXPECT_EQ(m_recorder.Lines(), (Lines{"raw|host| mount1 - " + sPath + " : vm1 () [ipc]",
                                         "raw|host| mount2 - /elsewhere : vm2 () []"}));
    EXPECT_EQ(m_pMain->GetMountInfo(true, false), 0) << "No client holds one";

    m_recorder.Clear();
    CRuntimeParam other("other", 0);
    m_pMain->RemoveMountPoint("/elsewhere");
    EXPECT_EQ(m_pMain->GetMountInfo(&other, false, true), 1);
    EXPECT_EQ(m_recorder.Lines(), (Lines{"raw|other| mount1 - " + sPath + " : vm1 () [ipc]"}));
}

TEST_F(NfsMain, MountPoints_WhileRunning_AreServedAtOnce)
{
    m_folder.Write("file", "data");
    Start();
    Export();
    EXPECT_EQ(ReadStatus(MountAndLookup("file")), 0U);
    EXPECT_EQ(m_pMain->GetMountInfo(true, false), 1);
    m_pMain->RemoveMountPoint(m_folder.Path().c_str());
    CReply reply =
        CallOnce(MOUNT_PORT, MakeCall(WIRE_MOUNT_PROG, 3, PROC_MNT, CXdr().String("vm1").Bytes()));
    EXPECT_EQ(reply.Word(), STATUS_ACCESS);
}

TEST_F(NfsMain, Operations_LabelTheirLinesWithTheirNames)
{
    const std::string sFile = m_folder.Write("file", "data");
    LogArgu logArgu = {"Test"};
    CUtilities* pUtilities = m_pMain->GetUtils();
    CRuntimeParam* pParam = m_pMain->GetRuntimeParam();
    Export();
    EXPECT_TRUE(m_recorder.Contains("[NfsMain.AddMountPoint] "));
    EXPECT_NE(pUtilities->GetCachedFileHandle(pParam, &logArgu, sFile.c_str(), false), -1);
    m_pMain->CloseCachedFileHandle(sFile.c_str());
    EXPECT_TRUE(m_recorder.Contains("[NfsMain.CloseCachedFileHandle] "));
    EXPECT_NE(pUtilities->GetCachedFileHandle(pParam, &logArgu, sFile.c_str(), false), -1);
    m_pMain->CloseAllCachedFileHandles(m_folder.Path().c_str());
    EXPECT_TRUE(m_recorder.Contains("[NfsMain.CloseAllCachedFileHandles] "));
    m_pMain->RemoveMountPoint(m_folder.Path().c_str());
    EXPECT_TRUE(m_recorder.Contains("[NfsMain.RemoveMountPoint] "));
}

TEST_F(NfsMain, CachedFileHandles_AreClosedByPathAndByFolder)
{
    const std::string sFirst = m_folder.Write("first", "1");
    const std::string sSecond = m_folder.Write("second", "2");
    LogArgu logArgu = {"Test"};
    const size_t iDescriptors = CountDescriptors();
    for (const std::string& sFile : {sFirst, sSecond})
        m_pMain->GetUtils()->GetCachedFileHandle(m_pMain->GetRuntimeParam(), &logArgu,
                                                 sFile.c_str(), false);
    EXPECT_EQ(CountDescriptors(), iDescriptors + 2);
    m_pMain->CloseCachedFileHandle(sFirst.c_str());
    EXPECT_EQ(CountDescriptors(), iDescriptors + 1);
    m_pMain->CloseAllCachedFileHandles(m_folder.Path().c_str());
    EXPECT_EQ(CountDescriptors(), iDescriptors);
}

TEST_F(NfsMain, Sessions_AreAddedListedAndRemoved)
{
    EXPECT_FALSE(m_pMain->IsSessionExists("s1"));
    m_pMain->AddSessionInfo("s1", "/data");
    EXPECT_TRUE(m_pMain->IsSessionExists("s1"));
    EXPECT_TRUE(m_pMain->IsLocalSessionExists("s1"));
    EXPECT_EQ(m_pMain->GetSessionInfo(true), 1);
    CRuntimeParam other("other", 0);
    EXPECT_EQ(m_pMain->GetSessionInfo(&other, true), 1);
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"raw|host| session1 - s1 : /data", "raw|other| session1 - s1 : /data"}));
    m_pMain->RemoveSessionInfo("s1");
    EXPECT_FALSE(m_pMain->IsSessionExists("s1"));
    EXPECT_FALSE(m_pMain->IsLocalSessionExists("s1"));
    EXPECT_EQ(m_pMain->GetSessionInfo(false), 0);
}

TEST_F(NfsMain, Datastores_AreAddedListedAndRemoved)
{
    EXPECT_EQ(m_pMain->GetVSphereInfo(false), 0);
    m_pMain->AddVSphereInfo("ds-1", "esx", "443", "root", "secret");
    EXPECT_EQ(m_pMain->GetVSphereInfo(true), 1);
    CRuntimeParam other("other", 0);
    EXPECT_EQ(m_pMain->GetVSphereInfo(&other, true), 1);
    EXPECT_EQ(m_recorder.Lines(), (Lines{"raw|host| NFS datastore1 - ds-1 (esx:443)",
                                         "raw|other| NFS datastore1 - ds-1 (esx:443)"}));
    m_pMain->RemoveVSphereInfo("ds-1");
    EXPECT_EQ(m_pMain->GetVSphereInfo(false), 0);
}

TEST_F(NfsMain, RedirectedFiles_AreAssembledExportedAndClosed)
{
    const std::string sSource = m_folder.Write("source", "0123456789");
    const std::string sFile = m_folder.Write("disk", "");
    const std::string sContents = m_folder.Write("contents", "");
    const std::string sListing = m_folder.Write("listing", "");
    const char* pcPath = sFile.c_str();
    Export();  // elsewhere the targets below would be opened for reading only
    const size_t iDescriptors = CountDescriptors();

    m_pMain->OpenRedirectedFile(pcPath, 12, true, 1, 1);
    m_pMain->OpenRedirectedFile(pcPath, 8, false, 0, 0);  // replaces it
    EXPECT_TRUE(m_pMain->AddRedirectedFileSegment(pcPath, sSource.c_str(), 4, 0, 3, m_cReason));
    EXPECT_TRUE(m_pMain->AddRedirectedFileSegment(pcPath, nullptr, 0, 3, 1, m_cReason));
    EXPECT_FALSE(m_pMain->AddRedirectedFileSegment(pcPath, sSource.c_str(), 0, 8, 3, m_cReason));
    EXPECT_FALSE(m_pMain->AddRedirectedFileSegment(sSource.c_str(), nullptr, 0, 0, 1, m_cReason));
    m_pMain->ExportRedirectedFile(pcPath, sContents.c_str());
    m_pMain->ExportRedirectedFileInfo(pcPath, sListing.c_str(), false);
    EXPECT_EQ(ReadWholeFile(sContents), std::string("456\0\0\0\0\0", 8));
    EXPECT_EQ(ReadWholeFile(sListing), "Segment path=" + sSource +
                                           ", fox=4, ox=0, len=3\n"
                                           "Segment path=Null, fox=0, ox=3, len=1\n");
    m_pMain->CloseRedirectedFile(pcPath);
    EXPECT_FALSE(m_pMain->AddRedirectedFileSegment(pcPath, sSource.c_str(), 4, 0, 3, m_cReason));

    m_pMain->OpenRedirectedFile(pcPath, 8, false, 0, 0);
    m_pMain->CloseAllRedirectedFiles(m_folder.Path().c_str());
    EXPECT_FALSE(m_pMain->AddRedirectedFileSegment(pcPath, sSource.c_str(), 4, 0, 3, m_cReason));
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_EQ(ReadWholeFile(sFile), "");
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}

TEST_F(NfsMain, RunTestMode_TellsWhoAsked)
{
    CRuntimeParam other("other", 0);
    m_pMain->RunTestMode(m_folder.Path().c_str(), 1024);
    m_pMain->RunTestMode(&other, m_folder.Path().c_str(), 1024);
    EXPECT_TRUE(std::filesystem::is_empty(m_folder.Path()));
    const Lines vLines = m_recorder.Lines();
    const std::string sRuler(31, '=');
    const auto CountRuns = [&](const std::string& sID) {
        return std::count(vLines.begin(), vLines.end(),
                          "info|" + sID + "|" + sRuler + " START TEST " + sRuler);
    };
    EXPECT_EQ(CountRuns("host"), 1);
    EXPECT_EQ(CountRuns("other"), 1);
}
