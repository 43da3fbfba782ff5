// Console programs that talk to each other: server processes, and clients that drive them.
#include <csignal>
#include <filesystem>

#include <gtest/gtest.h>

#include "ConsoleFixture.h"
#include "Ports.h"
#include "Rpcbind.h"

namespace {

constexpr char REFUSED[] = "Fail to connect ipc client socket. Connection refused (111)";
const Outcome INACCESSIBLE = {0, UNKNOWN_VERSION_BLOCK + "Server Status: NotAccessible\n" + RULER};
const Outcome SHUT_DOWN = {0, SERVER_VERSION_BLOCK};
const Outcome CHANNEL_TAKEN = {
    1, SERVER_VERSION_BLOCK + "Terminated. Reason=Ipc channel is already created by others.\n"};

bool Exists(const std::string& sPath)
{
    return std::filesystem::exists(sPath);
}

// A server process at its first prompt, all commands enabled.
class CServer : public CConsole {
public:
    explicit CServer(const Words& vOptions = {}) : CConsole(Arguments("svr", vOptions))
    {
        EXPECT_EQ(Greeting(), SERVER_GREETING);
        EXPECT_EQ(Type("debug"), "");
    }

    // Serves NFS, with an export under the name "vm1".
    void Start(const std::string& sFolder)
    {
        EXPECT_EQ(Type("start"), "Start NFS success");
        EXPECT_EQ(Type("mount " + sFolder + "=vm1"), "");
    }

    // Ends it as no program can prevent.
    void Kill()
    {
        Signal(SIGKILL);
        EXPECT_EQ(WaitForExit(), -SIGKILL);
    }

protected:
    static Words Arguments(const char* pcMode, const Words& vOptions)
    {
        Words vArguments = {"-md", pcMode};
        vArguments.insert(vArguments.end(), vOptions.begin(), vOptions.end());
        return vArguments;
    }
};

// A client of a running server at its first prompt, all commands enabled.
class CClient : public CConsole {
public:
    explicit CClient(const Words& vArguments = {"-md", "cli"}) : CConsole(vArguments)
    {
        EXPECT_EQ(Greeting(), SERVER_GREETING);
        EXPECT_EQ(Type("debug"), "");
    }
};

void ExpectNothingServed()
{
    for (const int iPort : {WIRE_NFS_PORT, WIRE_MOUNT_PORT, WIRE_PORTMAP_PORT})
        ExpectPortFree(iPort);
    EXPECT_FALSE(Exists(SERVER_CHANNEL));
}

// The port that an external port mapper names for a program over TCP; 0 if it knows none.
uint32_t GetMappedPort(uint32_t iProg)
{
    RpcCall call;
    call.iProg = WIRE_PORTMAP_PROG;
    call.iVers = 2;
    call.iProc = 3;
    call.sArguments = CXdr().Word(iProg).Word(3).Word(IPPROTO_TCP).Word(0).Bytes();
    return CallOnce(WIRE_PORTMAP_PORT, call).Word();
}

}  // namespace

// ---- A client drives a server ----

TEST(ConsoleProcesses, Client_StartsTheServerAndMounts)
{
    const CScratchFolder folder;
    CServer server;
    CClient client;
    EXPECT_TRUE(Exists("/tmp/nfs-cRun"));
    EXPECT_EQ(client.Type("status"), Status(false));
    EXPECT_EQ(client.Type("start"), "Start NFS success");
    EXPECT_TRUE(IsServed(WIRE_NFS_PROG, WIRE_NFS_PORT));
    EXPECT_EQ(client.Type("mount " + folder.Path() + "=vm1"), "");
    EXPECT_EQ(MountStatus("vm1"), 0U);
    EXPECT_EQ(server.Type("status"), Status(true, {folder.Path() + " : vm1 (127.0.0.1) [cRun]"}));
    EXPECT_EQ(client.Type("umount " + folder.Path()), "");
    EXPECT_EQ(MountStatus("vm1"), 13U);
    EXPECT_EQ(server.Type("status"), Status(true));
    EXPECT_EQ(client.Type("status"), Status(true));
    client.ExpectQuit();
    EXPECT_FALSE(Exists("/tmp/nfs-cRun"));
}

TEST(ConsoleProcesses, Client_ShowsHowManyMountsAndDatastoresTheServerHas)
{
    CServer server;
    CClient client;
    client.Type("mount /a=vm1");
    client.Type("mount /b=vm2");
    client.Type("addvsphereinfo ds1 host1 443 user password");
    // The server lists them where its own lines go, and sends each line to whoever asked.
    EXPECT_EQ(client.Type("status"), "\n" + StatusBlock(false, 2,
                                                        " mount1 - /a : vm1 () [cRun]\n"
                                                        " mount2 - /b : vm2 () [cRun]\n",
                                                        1, " NFS datastore1 - ds1 (host1:443)\n"));
    EXPECT_EQ(server.ReadUntil("(host1:443)\n"), " mount1 - /a : vm1 () [cRun]\n"
                                                 " mount2 - /b : vm2 () [cRun]\n"
                                                 " NFS datastore1 - ds1 (host1:443)\n");
    client.Type("removevsphereinfo ds1");
    client.Type("umount /a");
    client.Type("umount /b");
    EXPECT_EQ(client.Type("status"), Status(false));
}

TEST(ConsoleProcesses, Client_StartWithPortsAndAgain)
{
    CServer server;
    CClient client;
    EXPECT_EQ(client.Type("start 3058=3049"), "Start NFS success");
    EXPECT_TRUE(IsServed(WIRE_MOUNT_PROG, 3058));
    EXPECT_TRUE(IsServed(WIRE_NFS_PROG, 3049));
    EXPECT_EQ(client.Type("start"), "NFS already running");
    EXPECT_EQ(server.Type("start"), "NFS already running");
}

TEST(ConsoleProcesses, Client_RefusedByTheServer_ShowsItsReason)
{
    const CAutoFd other(OccupyPort(SOCK_STREAM, WIRE_NFS_PORT));
    CServer server;
    CClient client;
    EXPECT_EQ(client.Type("start"), "Fail to start NFS. NFS daemon failed to open port 2049\n");
    EXPECT_EQ(client.Type("mount /a=vm1"), "");
    EXPECT_EQ(client.Type("mount /b=vm1"),
              "Fail to add mount point to NFS. Reason=Export name \"vm1\" already defined\n");
    EXPECT_EQ(client.Type("mount /b=a b"),
              "Fail to add mount point to NFS. Reason=Invalid char \" \" inside export name\n");
}

TEST(ConsoleProcesses, Client_Log_TakesEffectInTheServerAtOnce)
{
    CServer server;
    CClient client;
    client.Type("start");
    EXPECT_EQ(client.Type("log 8"), "");
    EXPECT_TRUE(IsServed(WIRE_NFS_PROG, WIRE_NFS_PORT));
    server.ReadUntil("[info] (127.0.0.1) [Nfs3Prog.ProcedureNULL]\n");
    EXPECT_EQ(client.Type("log 0"), "");
    EXPECT_TRUE(IsServed(WIRE_NFS_PROG, WIRE_NFS_PORT));
    EXPECT_EQ(server.Type("status"), Status(true));
}

TEST(ConsoleProcesses, Client_DebugAction_ShowsTheServersStatus)
{
    CServer server;
    CClient client;
    EXPECT_EQ(client.Type("debugaction 1"), "Current Server Status=5\n");
    client.Type("start");
    EXPECT_EQ(client.Type("debugaction 2"), "Current Server Status=7\n");
    EXPECT_EQ(client.Type("debugaction 0"), "Current Server Status=3\n");
}

TEST(ConsoleProcesses, Client_Quit_LeavesTheServerRunning)
{
    const CScratchFolder folder;
    CServer server;
    server.Start(folder.Path());
    {
        CClient client({"-md", "cli", "-log", "2"});
        client.Write("quit\n");
        client.ExpectEnd("\nExit[info] (cRun) [NfsIpcClientMain.StopServer] Cannot stop NFS "
                         "service in client mode.\n");
    }
    EXPECT_EQ(MountStatus("vm1"), 0U);
    EXPECT_EQ(server.Type("status"), Status(true, {folder.Path() + " : vm1 (127.0.0.1) []"}));
}

TEST(ConsoleProcesses, Client_Signal_LeavesTheServerRunning)
{
    const CScratchFolder folder;
    CServer server;
    server.Start(folder.Path());
    CClient client;
    client.Signal(SIGINT);
    client.ExpectEnd();
    EXPECT_FALSE(Exists("/tmp/nfs-cRun"));
    EXPECT_EQ(MountStatus("vm1"), 0U);
}

TEST(ConsoleProcesses, TwoClients_ShareTheServer)
{
    CServer server;
    CClient one({"-md", "cli", "-id", "one"});
    CClient two({"-md", "cli", "-id", "two"});
    one.Type("mount /a=vm1");
    two.Type("mount /b=vm2");
    EXPECT_EQ(server.Type("status"), Status(false, {"/a : vm1 () [one]", "/b : vm2 () [two]"}));
    one.ExpectQuit();
    EXPECT_FALSE(Exists("/tmp/nfs-one"));
    EXPECT_TRUE(Exists("/tmp/nfs-two"));
    two.Type("umount /a");
    EXPECT_EQ(server.Type("status"), Status(false, {"/b : vm2 () [two]"}));
}

// ---- Channels that are taken, or were ----

TEST(ConsoleProcesses, SecondServer_IsRefusedAndTheFirstGoesOn)
{
    const CScratchFolder folder;
    CServer first;
    first.Start(folder.Path());
    EXPECT_EQ(RunWith({"-md", "svr"}), CHANNEL_TAKEN);
    EXPECT_EQ(RunWith({"-md", "svr", "-id", "other"}), CHANNEL_TAKEN);
    EXPECT_EQ(MountStatus("vm1"), 0U);
    CClient client;
    EXPECT_EQ(client.Type("debugaction 0"), "Current Server Status=3\n");
}

TEST(ConsoleProcesses, SecondClientWithTheSameID_IsRefusedAndTheFirstGoesOn)
{
    CServer server;
    CClient first({"-md", "cli", "-id", "same"});
    EXPECT_EQ(RunWith({"-md", "cli", "-id", "same"}), CHANNEL_TAKEN);
    EXPECT_TRUE(Exists("/tmp/nfs-same"));
    EXPECT_EQ(first.Type("status"), Status(false));
}

TEST(ConsoleProcesses, ClientsID_IsCheckedAsTheServersIs)
{
    CServer server;
    EXPECT_EQ(
        RunWith({"-md", "cli", "-id", "server"}),
        (Outcome{1, SERVER_VERSION_BLOCK + "Terminated. Reason=Cannot use \"server\" as ID\n"}));
    EXPECT_EQ(
        RunWith({"-md", "cli", "-id", "a b"}),
        (Outcome{1, SERVER_VERSION_BLOCK + "Terminated. Reason=Invalid char \" \" inside ID\n"}));
    EXPECT_TRUE(Exists(SERVER_CHANNEL));
}

TEST(ConsoleProcesses, StaleChannels_AreReplaced)
{
    {
        CServer server;
        CClient client;
        client.Signal(SIGKILL);
        EXPECT_EQ(client.WaitForExit(), -SIGKILL);
        EXPECT_TRUE(Exists("/tmp/nfs-cRun"));
        server.Kill();
        EXPECT_TRUE(Exists(SERVER_CHANNEL));
    }
    CServer server;
    CClient client;
    EXPECT_EQ(client.Type("status"), Status(false));
    client.ExpectQuit();
    server.ExpectQuit();
    EXPECT_FALSE(Exists("/tmp/nfs-cRun"));
    EXPECT_FALSE(Exists(SERVER_CHANNEL));
}

TEST(ConsoleProcesses, ChannelThatCannotBeReplaced_EndsTheServerWithTheReason)
{
    std::filesystem::create_directory(SERVER_CHANNEL);
    EXPECT_EQ(RunWith({"-md", "svr"}),
              (Outcome{1, SERVER_VERSION_BLOCK + "Terminated. Reason=Fail to bind ipc server "
                                                 "socket. Address already in use (98)\n"}));
    EXPECT_TRUE(std::filesystem::remove(SERVER_CHANNEL));
}

// ---- A server that was killed ----

TEST(ConsoleProcesses, KilledServer_MakesItsClientsFailClearly)
{
    CServer server;
    CClient client({"-md", "cli", "-log", "0"});
    server.Kill();
    EXPECT_EQ(client.Type("status"), Status(false));
    EXPECT_EQ(client.Type("start"), std::string("Fail to start NFS. ") + REFUSED + "\n");
    EXPECT_EQ(client.Type("mount /a=vm1"),
              std::string("Fail to add mount point to NFS. Reason=") + REFUSED + "\n");
    EXPECT_EQ(client.Type("umount /a"), "");
    EXPECT_EQ(client.Type("debugaction 1"), "Current Server Status=0\n");
    client.Type("log 1");
    EXPECT_EQ(client.Type("umount /a"),
              std::string("[erro] (cRun) [IpcClient.SendRequest] ") + REFUSED + "\n");
    client.Type("log 0");
    client.ExpectQuit();
}

TEST(ConsoleProcesses, KilledServer_IsNotAccessible)
{
    CServer().Kill();
    EXPECT_EQ(RunWith({"-query"}), INACCESSIBLE);
    EXPECT_EQ(
        RunWith({"-shutdown"}),
        (Outcome{1, UNKNOWN_VERSION_BLOCK + "Terminated. Reason=Fail to get server version\n"}));
    EXPECT_EQ(RunWith({"-md", "cli"}).iStatus, 1);
}

TEST(ConsoleProcesses, KilledServer_StartedAgain_ServesOnTheSamePorts)
{
    const CScratchFolder folder;
    const std::string sPid = folder.Path("pid");
    CServer killed({"-pidfile", sPid});
    killed.Start(folder.Path());
    const CTcpClient nfs(WIRE_NFS_PORT);
    CClient client;
    killed.Kill();
    EXPECT_TRUE(Exists(sPid));

    CServer server({"-pidfile", sPid});
    EXPECT_EQ(ReadWholeFile(sPid), std::to_string(server.Pid()) + "\n");
    EXPECT_EQ(client.Type("status"), Status(false)) << "What was mounted went with the first";
    server.Start(folder.Path());
    EXPECT_EQ(MountStatus("vm1"), 0U);
    EXPECT_TRUE(IsServed(WIRE_NFS_PROG, WIRE_NFS_PORT));
    EXPECT_EQ(client.Type("debugaction 0"), "Current Server Status=3\n");
    server.ExpectQuit();
    ExpectNothingServed();
}

// ---- Shutting down ----

TEST(ConsoleProcesses, Shutdown_EndsAServerThatServes)
{
    const CScratchFolder folder;
    const std::string sPid = folder.Path("pid");
    CServer server({"-pidfile", sPid});
    server.Start(folder.Path());
    CTcpClient nfs(WIRE_NFS_PORT);
    EXPECT_TRUE(nfs.Call(NullCall(WIRE_NFS_PROG)).IsReceived());
    EXPECT_EQ(RunWith({"-shutdown"}), SHUT_DOWN);
    server.ExpectEnd("\nExit by request");
    EXPECT_TRUE(nfs.IsClosedByServer());
    EXPECT_FALSE(Exists(sPid));
    EXPECT_FALSE(Exists("/tmp/nfs-shRun"));
    ExpectNothingServed();
}

TEST(ConsoleProcesses, Shutdown_EndsAServerThatNeverServed)
{
    CServer server;
    EXPECT_EQ(RunWith({"-shutdown"}), SHUT_DOWN);
    server.ExpectEnd("\nExit by request");
    ExpectNothingServed();
}

TEST(ConsoleProcesses, Shutdown_LeavesClientsRunning)
{
    CServer server;
    CClient client;
    EXPECT_EQ(RunWith({"-shutdown"}), SHUT_DOWN);
    server.ExpectEnd("\nExit by request");
    EXPECT_EQ(client.Type("debugaction 0"), "Current Server Status=0\n");
    client.ExpectQuit();
}

TEST(ConsoleProcesses, Shutdown_DoesNotReachAServerWithoutAChannel)
{
    CConsole server;
    EXPECT_EQ(
        RunWith({"-shutdown"}),
        (Outcome{1, UNKNOWN_VERSION_BLOCK + "Terminated. Reason=Fail to get server version\n"}));
    EXPECT_EQ(server.Type("status"), Status(false));
}

TEST(ConsoleProcesses, Shutdown_AfterTheEndOfInput)
{
    const CScratchFolder folder;
    CServer server;
    server.Start(folder.Path());
    server.CloseInput();
    server.WaitForRounds();
    EXPECT_EQ(MountStatus("vm1"), 0U);
    EXPECT_EQ(RunWith({"-shutdown"}), SHUT_DOWN);
    server.ExpectEnd("\nExit by request");
    ExpectNothingServed();
}

TEST(ConsoleProcesses, Shutdown_WhenNobodyReadsTheOutput)
{
    const CScratchFolder folder;
    CServer server;
    server.Start(folder.Path());
    EXPECT_EQ(server.Type("log 12"), "");
    server.CloseOutput();
    for (int i = 0; i < 3; i++)  // each writes lines
        EXPECT_TRUE(IsServed(WIRE_NFS_PROG, WIRE_NFS_PORT));
    const Outcome query = RunWith({"-query"});
    EXPECT_TRUE(query.sOutput.starts_with(SERVER_VERSION_BLOCK + "Server Status: Started\n"))
        << query;
    EXPECT_EQ(RunWith({"-shutdown"}), SHUT_DOWN);
    EXPECT_EQ(server.WaitForExit(), 0);
    ExpectNothingServed();
}

TEST(ConsoleProcesses, Shutdown_LeavesAllStepsInTheLogFile)
{
    const CScratchFolder folder;
    CServer server({"-logfile", folder.Path("log")});
    server.Start(folder.Path());
    EXPECT_EQ(RunWith({"-shutdown"}), SHUT_DOWN);
    server.ExpectEnd("\nExit by request");
    const std::string sLog = ReadWholeFile(folder.Path("log"));
    size_t iPosition = 0;
    for (const char* pcStep : {"Initial NFS", "Start Remote Controller", "Start NFS with internal",
                               "Stop NFS", "Stop Remote Controller", "Terminate NFS"}) {
        iPosition = sLog.find(std::string("][info] ") + pcStep, iPosition);
        ASSERT_NE(iPosition, std::string::npos) << pcStep << " is missing in " << sLog;
    }
}

// ---- Asking ----

TEST(ConsoleProcesses, Query_ShowsAServerThatServes)
{
    CServer server;
    EXPECT_EQ(server.Type("start"), "Start NFS success");
    EXPECT_EQ(RunWith({"-query"}), (Outcome{0, SERVER_VERSION_BLOCK + StatusBlock(true)}));
    EXPECT_EQ(server.Type("mount /a=vm1"), "");
    EXPECT_EQ(
        RunWith({"-query"}),
        (Outcome{0, SERVER_VERSION_BLOCK + StatusBlock(true, 1, " mount1 - /a : vm1 () []\n")}));
    EXPECT_FALSE(Exists("/tmp/nfs-qyRun"));
    EXPECT_EQ(server.ReadUntil("[]\n"), " mount1 - /a : vm1 () []\n");
    EXPECT_EQ(server.Type("status"), Status(true, {"/a : vm1 () []"}));
}

TEST(ConsoleProcesses, Query_ShowsAServerThatNeverServed)
{
    const CServer server;
    EXPECT_EQ(RunWith({"-query"}), (Outcome{0, SERVER_VERSION_BLOCK + StatusBlock(false)}));
}

TEST(ConsoleProcesses, Query_OfAServerThatHasEnded)
{
    CServer server;
    server.ExpectQuit();
    EXPECT_EQ(RunWith({"-query"}), INACCESSIBLE);
}

// ---- Signals ----

TEST(ConsoleProcesses, Signals_EndAServerWithAMountedClientAsQuitDoes)
{
    for (const int iSignal : {SIGTERM, SIGINT}) {
        const CScratchFolder folder;
        const std::string sPid = folder.Path("pid");
        CServer server({"-pidfile", sPid});
        server.Start(folder.Path());
        EXPECT_EQ(MountStatus("vm1"), 0U);
        CTcpClient nfs(WIRE_NFS_PORT);
        EXPECT_TRUE(nfs.Call(NullCall(WIRE_NFS_PROG)).IsReceived());
        server.Signal(iSignal);
        server.ExpectEnd();
        EXPECT_TRUE(nfs.IsClosedByServer());
        EXPECT_FALSE(Exists(sPid));
        ExpectNothingServed();
    }
}

TEST(ConsoleProcesses, Signal_WithAnExternalPortMapper_UnregistersThePrograms)
{
    const CRpcbind rpcbind;
    CServer server;
    EXPECT_EQ(server.Type("start"), "Start NFS success");
    EXPECT_EQ(GetMappedPort(WIRE_NFS_PROG), 2050U);
    EXPECT_EQ(GetMappedPort(WIRE_MOUNT_PROG), 1059U);
    EXPECT_TRUE(IsServed(WIRE_NFS_PROG, 2050));
    server.Signal(SIGTERM);
    server.ExpectEnd();
    EXPECT_EQ(GetMappedPort(WIRE_NFS_PROG), 0U);
    EXPECT_EQ(GetMappedPort(WIRE_MOUNT_PROG), 0U);
}

TEST(ConsoleProcesses, Request_WithAnExternalPortMapper_UnregistersThePrograms)
{
    const CRpcbind rpcbind;
    CServer server;
    EXPECT_EQ(server.Type("start"), "Start NFS success");
    EXPECT_EQ(GetMappedPort(WIRE_NFS_PROG), 2050U);
    EXPECT_EQ(RunWith({"-shutdown"}), SHUT_DOWN);
    server.ExpectEnd("\nExit by request");
    EXPECT_EQ(GetMappedPort(WIRE_NFS_PROG), 0U);
    EXPECT_EQ(GetMappedPort(WIRE_MOUNT_PROG), 0U);
}
