// What a stop of the server does about the datastores that hypervisor hosts hold on its exports.
#include "NfsMain.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HelperStandIn.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "NfsMainFixture.h"
#include "WatchedThread.h"

namespace {

constexpr char BEGIN[] = "Start cleanup mounted NFS datastores";

std::string Unmount(const std::string& sMoid)
{
    return "Unmount NFS datastore with MOID \"" + sMoid + "\" on host \"esx:443\"";
}

void AddDatastore(CNfsMain* pMain, const std::string& sMoid)
{
    pMain->AddVSphereInfo(sMoid.c_str(), "esx", "443", "root", "secret");
}

class NfsMainCleanUp : public NfsMain {
protected:
    void InstallGate() { m_helper.Install(m_gate.Script() + "\nnote end"); }

    // Everything that clients and the host had is still there.
    void ExpectServingAsBefore()
    {
        ExpectServing();
        EXPECT_EQ(ReadStatus(MountAndLookup("file")), 0U);
        const RpcCall unmount = MakeCall(WIRE_MOUNT_PROG, 3, 3, CXdr().String("vm1").Bytes());
        EXPECT_TRUE(CallOnce(MOUNT_PORT, unmount).IsReceived());
        EXPECT_TRUE(m_pMain->IsServerRunning());
        EXPECT_EQ(m_pMain->GetMountInfo(false, false), 1);
        EXPECT_EQ(m_pMain->GetSessionInfo(false), 1);
    }

    CHelperStandIn m_helper;
    CHelperGate m_gate;
};

}  // namespace

// ---- In one process ----

TEST_F(NfsMainCleanUp, StopServer_ServesUntilTheLastDatastoreIsGone)
{
    m_folder.Write("file", "data");
    Start();
    Export();
    m_pMain->AddSessionInfo("s1", "/x");
    AddDatastore(m_pMain.get(), "d1");
    AddDatastore(m_pMain.get(), "d2");
    CTcpClient client(NFS_PORT);
    InstallGate();

    CWatchedThread stop([this] { m_pMain->StopServer(); });
    for (const char* pcMoid : {"d1", "d2"}) {
        m_gate.WaitUntilHeld();
        EXPECT_EQ(m_helper.Record().back(), HelperRun(pcMoid));
        ExpectServingAsBefore();
        EXPECT_TRUE(client.Call(MakeCall(WIRE_NFS_PROG, 3, 0)).IsReceived());
        EXPECT_FALSE(stop.IsDone());
        m_gate.LetGo();
    }
    stop.Join();
    EXPECT_TRUE(client.IsClosedByServer());
    EXPECT_FALSE(m_pMain->IsServerRunning());
    EXPECT_EQ(m_pMain->GetMountInfo(false, false), 0);
    EXPECT_EQ(m_pMain->GetSessionInfo(false), 0);
    EXPECT_EQ(m_pMain->GetVSphereInfo(false), 0);
    EXPECT_EQ(m_helper.Record(), (Lines{HelperRun("d1"), "end", HelperRun("d2"), "end"}));
    ExpectAllPortsFree();
}

TEST_F(NfsMainCleanUp, StopServer_SaysFirstThatItStops)
{
    m_pMain->SetLogControl(0);
    OpenLogFile();
    Start();
    AddDatastore(m_pMain.get(), "d1");
    InstallGate();
    const size_t iBefore = ReadLog(m_logFolder.Path("log")).size();
    CWatchedThread stop([this] { m_pMain->StopServer(); });
    m_gate.WaitUntilHeld();
    const Lines vLog = ReadLog(m_logFolder.Path("log"));
    m_gate.LetGo();
    stop.Join();
    EXPECT_EQ(
        Lines(vLog.begin() + static_cast<ptrdiff_t>(iBefore), vLog.end()),
        (Lines{"[info] Stop NFS", std::string("[info] ") + BEGIN, "[info] " + Unmount("d1")}));
    EXPECT_EQ(ReadLog(m_logFolder.Path("log")), vLog);
}

TEST_F(NfsMainCleanUp, StopServer_WithoutDatastores_RunsNothing)
{
    Start();
    m_pMain->StopServer();
    EXPECT_EQ(m_helper.Record(), Lines{});
    EXPECT_FALSE(m_recorder.Contains(BEGIN));
}

TEST_F(NfsMainCleanUp, StopServer_WithoutAServer_CleansUpToo)
{
    AddDatastore(m_pMain.get(), "d1");
    m_pMain->StopServer();
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d1")});
    EXPECT_EQ(m_pMain->GetVSphereInfo(false), 0);
    m_pMain->StopServer();
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d1")});
}

TEST_F(NfsMainCleanUp, StopServer_LinesBearTheIDOfTheController)
{
    m_pMain->SetLogControl(0);
    AddDatastore(m_pMain.get(), "d1");
    m_pMain->StopServer();
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{std::string("info|host|") + BEGIN, "info|host|" + Unmount("d1")}));
}

TEST_F(NfsMainCleanUp, StopServer_HelperThatFailsOrIsMissing_StopsAllTheSame)
{
    m_helper.Install("exit 3");
    Start();
    AddDatastore(m_pMain.get(), "d1");
    m_pMain->StopServer();
    ExpectAllPortsFree();

    m_helper.Remove();
    Start();
    AddDatastore(m_pMain.get(), "d2");
    testing::internal::CaptureStderr();
    m_pMain->StopServer();
    testing::internal::GetCapturedStderr();
    ExpectAllPortsFree();
    EXPECT_EQ(m_pMain->GetVSphereInfo(false), 0);
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d1")});
}

TEST_F(NfsMainCleanUp, StopServer_Twice_TheSecondWaitsForTheFirst)
{
    Start();
    AddDatastore(m_pMain.get(), "d1");
    InstallGate();
    CWatchedThread stop([this] { m_pMain->StopServer(); });
    m_gate.WaitUntilHeld();
    CWatchedThread again([this] { m_pMain->StopServer(); });
    EXPECT_TRUE(again.WaitUntilAsleep());
    m_gate.LetGo();
    stop.Join();
    again.Join();
    EXPECT_EQ(m_helper.Record(), (Lines{HelperRun("d1"), "end"}));
}

TEST_F(NfsMainCleanUp, StartServer_ThatFails_CleansUpAndTellsItsReason)
{
    AddDatastore(m_pMain.get(), "d1");
    const CAutoFd blocker(OccupyPort(SOCK_STREAM, NFS_PORT));
    EXPECT_FALSE(m_pMain->StartServer(0, 0, 0, 0, false, m_cReason));
    EXPECT_STREQ(m_cReason, "NFS daemon failed to open port 2049");
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d1")});
    EXPECT_EQ(m_pMain->GetVSphereInfo(false), 0);
}

TEST_F(NfsMainCleanUp, StartServer_WhileRunning_LeavesTheDatastoresAlone)
{
    Start();
    AddDatastore(m_pMain.get(), "d1");
    EXPECT_FALSE(m_pMain->StartServer(0, 0, 0, 0, false, m_cReason));
    EXPECT_EQ(m_helper.Record(), Lines{});
    EXPECT_EQ(m_pMain->GetVSphereInfo(false), 1);
}

TEST_F(NfsMainCleanUp, StartServer_ThatSucceeds_LeavesTheDatastoresAlone)
{
    AddDatastore(m_pMain.get(), "d1");
    Start();
    EXPECT_EQ(m_helper.Record(), Lines{});
    EXPECT_EQ(m_pMain->GetVSphereInfo(false), 1);
}

TEST_F(NfsMainCleanUp, TerminateAndDestructor_WithoutAStop_RunNothing)
{
    Start();
    AddDatastore(m_pMain.get(), "d1");
    m_pMain->Terminate();
    m_pMain.reset();
    EXPECT_EQ(m_helper.Record(), Lines{});
    EXPECT_FALSE(m_recorder.Contains(BEGIN));
}

// ---- In a server process that clients drive ----

namespace {

class NfsServerCleanUp : public testing::Test {
protected:
    void SetUp() override
    {
        m_server.SetCallback(&m_serverHost);
        m_client.SetCallback(&m_clientHost);
        ASSERT_TRUE(m_server.Initial(m_cReason)) << m_cReason;
        ASSERT_TRUE(m_server.StartRemoteController(m_cReason)) << m_cReason;
        ASSERT_TRUE(m_client.Initial(m_cReason)) << m_cReason;
        ASSERT_TRUE(m_client.StartRemoteController(m_cReason)) << m_cReason;
    }
    void TearDown() override
    {
        m_client.StopRemoteController();
        m_server.StopRemoteController();
        ExpectAllPortsFree();
    }

    CHelperStandIn m_helper;
    CHelperGate m_gate;
    CLogRecorder m_serverHost;
    CLogRecorder m_clientHost;
    char m_cReason[REASON_SIZE] = "";
    CNfsIpcServerMain m_server{"svr", 0};
    CNfsIpcClientMain m_client{"cli", 0};
};

}  // namespace

TEST_F(NfsServerCleanUp, StopServer_RemovesWhatClientsAdded)
{
    ASSERT_TRUE(m_client.StartServer(0, 0, 0, 0, false, m_cReason)) << m_cReason;
    AddDatastore(&m_client, "d1");
    EXPECT_EQ(m_client.GetVSphereInfo(false), 1);
    m_server.StopServer();
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d1")});
    EXPECT_EQ(m_client.GetVSphereInfo(false), 0);
    EXPECT_EQ(m_serverHost.Lines(),
              (Lines{std::string("info|svr|") + BEGIN, "info|svr|" + Unmount("d1")}));
    EXPECT_EQ(m_clientHost.Lines(), Lines{});
}

TEST_F(NfsServerCleanUp, StopServer_OfAClient_RunsNothing)
{
    AddDatastore(&m_client, "d1");
    m_client.StopServer();
    EXPECT_EQ(m_helper.Record(), Lines{});
    EXPECT_EQ(m_client.GetVSphereInfo(false), 1);
    EXPECT_EQ(m_server.GetVSphereInfo(false), 1);
}

TEST_F(NfsServerCleanUp, StartServer_ThatFailsForAClient_CleansUp)
{
    AddDatastore(&m_client, "d1");
    const CAutoFd blocker(OccupyPort(SOCK_STREAM, NFS_PORT));
    EXPECT_FALSE(m_client.StartServer(0, 0, 0, 0, false, m_cReason));
    EXPECT_STREQ(m_cReason, "NFS daemon failed to open port 2049");
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d1")});
}

TEST_F(NfsServerCleanUp, Meanwhile_ClientsAreServedButForDatastores)
{
    ASSERT_TRUE(m_client.StartServer(0, 0, 0, 0, false, m_cReason)) << m_cReason;
    AddDatastore(&m_client, "d1");
    m_helper.Install(m_gate.Script());
    CWatchedThread stop([this] { m_server.StopServer(); });
    m_gate.WaitUntilHeld();
    EXPECT_TRUE(m_client.IsServerRunning());
    EXPECT_TRUE(m_client.AddMountPoint("/nothing", "vm1", m_cReason)) << m_cReason;
    EXPECT_EQ(m_client.GetMountInfo(false, false), 1);
    int iCount = -1;
    CWatchedThread count([this, &iCount] { iCount = m_client.GetVSphereInfo(false); });
    EXPECT_TRUE(count.WaitUntilAsleep());
    EXPECT_FALSE(stop.IsDone());
    m_gate.LetGo();
    count.Join();
    stop.Join();
    EXPECT_EQ(iCount, 0);
}
