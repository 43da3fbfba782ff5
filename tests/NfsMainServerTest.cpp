// Starting and stopping the server, and what reaches it while it runs.
#include "NfsMain.h"

#include <atomic>
#include <climits>
#include <malloc.h>
#include <thread>

#include <gtest/gtest.h>

#include "NfsMainFixture.h"
#include "Sanitizers.h"
#include "Utilities.h"

namespace {

class NfsMainServer : public NfsMain {
protected:
    // A start that may be in another one's way; whatever comes of it must be told rightly.
    bool StartOrBeRefused(int iMountPort)
    {
        char cReason[REASON_SIZE] = "";
        if (m_pMain->StartServer(iMountPort, 0, 0, 0, false, cReason)) {
            EXPECT_LE(iMountPort, 0xFFFF);
            return true;
        }
        const std::string sNoPort =
            "Mount daemon failed to open port " + std::to_string(iMountPort);
        EXPECT_TRUE(cReason == std::string("NFS already running") ||
                    (iMountPort > 0xFFFF && cReason == sNoPort))
            << cReason;
        return false;
    }
};

// A controller that shows which of its overridable steps were taken.
class CDerivedMain : public CNfsMain {
public:
    CDerivedMain() { InitMemberVaribles("derived", 0); }

    void SetLogControl(int iLogControl) override
    {
        m_iLogControls++;
        CNfsMain::SetLogControl(iLogControl);
    }
    void StopServer() override
    {
        m_iStops++;
        CNfsMain::StopServer();
    }

    int m_iLogControls = 0;
    int m_iStops = 0;
    int m_iUtilities = 0;
    bool m_bNetwork = true;
    int m_iTerminated = 0;

protected:
    std::unique_ptr<CUtilities> CreateUtilities() override
    {
        m_iUtilities++;
        return std::make_unique<CUtilities>();
    }
    bool InitialNetwork(char* pcReason) override
    {
        if (!m_bNetwork)
            FormatReason(pcReason, "no network");
        return m_bNetwork;
    }
    void TerminateNetwork() override { m_iTerminated++; }
};

// A controller that somebody else tries to start at the moment when its failed start is undone.
class CRestartedMain : public CNfsMain {
public:
    CRestartedMain() : CNfsMain("restarted", 0), m_blocker(OccupyPort(SOCK_STREAM, NFS_PORT)) {}

    void StopServer() override
    {
        if (m_blocker.Get() != -1) {
            m_blocker.Reset();  // nothing but the first start stands in its way
            std::thread other(
                [this] { m_bSecond = StartServer(0, 0, 0, 0, false, m_cSecondReason); });
            other.join();
        }
        CNfsMain::StopServer();
    }

    CAutoFd m_blocker;
    bool m_bSecond = true;
    char m_cSecondReason[REASON_SIZE] = "";
};

// Bytes that the program has from the allocator.
size_t CountBytes()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

}  // namespace

// ---- Starting ----

TEST_F(NfsMainServer, StartServer_PortsBelowOne_ServesOnTheDefaults)
{
    Start();
    EXPECT_TRUE(m_pMain->IsServerRunning());
    ExpectServing();
    EXPECT_STREQ(m_cReason, "");
    m_pMain->StopServer();
    EXPECT_FALSE(m_pMain->IsServerRunning());
    ExpectAllPortsFree();

    ASSERT_TRUE(m_pMain->StartServer(-1, INT_MIN, 0, 0, false, nullptr));
    ExpectServing();
}

TEST_F(NfsMainServer, StartServer_GivenPorts_ServesAndAnnouncesThese)
{
    ASSERT_TRUE(m_pMain->StartServer(3058, 3049, 0, 0, false, m_cReason)) << m_cReason;
    ExpectServing(3058, 3049);
    ExpectPortFree(MOUNT_PORT);
    ExpectPortFree(NFS_PORT);
}

TEST_F(NfsMainServer, StartServer_WhileRunning_IsRefusedAndLosesNothing)
{
    m_folder.Write("file", "data");
    Start();
    Export();
    m_pMain->AddSessionInfo("session", m_folder.Path().c_str());
    const std::string sHandle = MountAndLookup("file");
    const size_t iDescriptors = CountDescriptors();

    EXPECT_FALSE(m_pMain->StartServer(0, 0, 0, 0, false, m_cReason));
    EXPECT_STREQ(m_cReason, "NFS already running");
    EXPECT_FALSE(m_pMain->StartServer(3058, 3049, 0, 0, false, nullptr));

    EXPECT_TRUE(m_pMain->IsServerRunning());
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_EQ(m_pMain->GetMountInfo(true, false), 1);
    EXPECT_TRUE(m_pMain->IsSessionExists("session"));
    EXPECT_EQ(ReadStatus(sHandle), 0U);
    ExpectServing();
}

TEST_F(NfsMainServer, StartServer_FromTwoThreads_StartsOnce)
{
    for (int i = 0; i < 10; i++) {
        char cOtherReason[REASON_SIZE] = "";
        bool bOther = false;
        m_cReason[0] = '\0';
        std::thread other([&] { bOther = m_pMain->StartServer(0, 0, 0, 0, false, cOtherReason); });
        const bool bStarted = m_pMain->StartServer(0, 0, 0, 0, false, m_cReason);
        other.join();
        EXPECT_NE(bStarted, bOther);
        EXPECT_STREQ(bStarted ? cOtherReason : m_cReason, "NFS already running");
        EXPECT_TRUE(AnswersNull(WIRE_NFS_PROG, NFS_PORT));
        m_pMain->StopServer();
    }
}

TEST_F(NfsMainServer, StartServer_WhileAFailedOneIsBeingUndone_IsRefusedAndHarmless)
{
    CRestartedMain main;
    EXPECT_FALSE(main.StartServer(0, 0, 0, 0, false, m_cReason));
    EXPECT_STREQ(m_cReason, "NFS daemon failed to open port 2049");
    EXPECT_FALSE(main.m_bSecond);
    EXPECT_STREQ(main.m_cSecondReason, "NFS already running");
    EXPECT_FALSE(main.IsServerRunning());
    ExpectAllPortsFree();

    ASSERT_TRUE(main.StartServer(0, 0, 0, 0, false, m_cReason)) << m_cReason;
    ExpectServing();
}

TEST_F(NfsMainServer, StartsFailingStartsAndStops_FromManyThreads_LeaveAServerThatStarts)
{
    m_pMain->SetLogControl(0);
    std::vector<std::thread> vThreads;
    std::atomic<int> iStarted = 0;
    std::atomic<int> iFailed = 0;
    for (int i = 0; i < 4; i++)
        vThreads.emplace_back([this, i, &iStarted, &iFailed] {
            for (int iRound = i; iRound < i + 25; iRound++) {
                const bool bStarted = StartOrBeRefused(iRound % 3 == 0 ? 70000 : 0);
                (bStarted ? iStarted : iFailed)++;
                EXPECT_EQ(m_pMain->GetServerStatus() & SERVER_STATUS_ALIVE, 1);
                if (iRound % 2 == 0)
                    m_pMain->StopServer();
            }
        });
    for (std::thread& thread : vThreads)
        thread.join();
    EXPECT_GT(iStarted, 0);
    EXPECT_GT(iFailed, 0);

    m_pMain->StopServer();
    EXPECT_FALSE(m_pMain->IsServerRunning());
    ExpectAllPortsFree();
    Start();
    ExpectServing();
}

TEST_F(NfsMainServer, StartServer_NumberThatIsNoPort_FailsWithItsReasonAndLeavesNothingOpen)
{
    const size_t iDescriptors = CountDescriptors();
    // The last two would be the defaults if they were cut to 16 bits.
    for (const int iPort : {0x10000, INT_MAX, 0x10000 + NFS_PORT, 0x10000 + MOUNT_PORT}) {
        m_recorder.Clear();
        const std::string sPort = std::to_string(iPort);
        EXPECT_FALSE(m_pMain->StartServer(0, iPort, 0, 0, false, m_cReason));
        EXPECT_EQ(m_cReason, "NFS daemon failed to open port " + sPort);
        EXPECT_FALSE(m_pMain->StartServer(iPort, 0, 0, 0, false, m_cReason));
        EXPECT_EQ(m_cReason, "Mount daemon failed to open port " + sPort);
        for (const char* pcDaemon : {"NFS", "Mount"})
            EXPECT_TRUE(m_recorder.Contains(std::string("error|host|[NfsMain.StartServer] Fail to "
                                                        "start ") +
                                            pcDaemon +
                                            " daemon. Reason=Fail to bind server socket. Invalid "
                                            "argument (22)"));
        EXPECT_FALSE(m_pMain->IsServerRunning());
        EXPECT_EQ(CountDescriptors(), iDescriptors);
        ExpectAllPortsFree();
    }
}

TEST_F(NfsMainServer, ConnectionBeyondTheLimitOfItsPort_IsRefused)
{
    struct Limit {
        int iPort;
        uint32_t iProg;
        size_t iConnections;
    };
    Start();
    for (const Limit& limit :
         {Limit{PORTMAP_PORT, WIRE_PORTMAP_PROG, 3}, Limit{NFS_PORT, WIRE_NFS_PROG, 10},
          Limit{MOUNT_PORT, WIRE_MOUNT_PROG, 3}}) {
        std::vector<CTcpClient> vClients;
        for (size_t i = 0; i < limit.iConnections; i++) {
            vClients.emplace_back(limit.iPort);
            EXPECT_TRUE(vClients.back().Call(MakeCall(limit.iProg, 3, 0)).IsReceived())
                << limit.iPort << " " << i;
        }
        EXPECT_TRUE(CTcpClient(limit.iPort).IsClosedByServer());
        EXPECT_TRUE(m_recorder.Contains("error|host|[ServerSocket.Run] Connection refused, port " +
                                        std::to_string(limit.iPort) + " has " +
                                        std::to_string(limit.iConnections) + " already"));
        for (CTcpClient& client : vClients)
            EXPECT_TRUE(client.Call(MakeCall(limit.iProg, 3, 0)).IsReceived());
    }
}

TEST_F(NfsMainServer, StartServer_ReadOnly_ReachesTheNfsProgram)
{
    const std::string sFile = m_folder.Write("file", "data");
    Start(true);
    Export();
    const std::string sHandle = MountAndLookup("file");
    EXPECT_EQ(ReadStatus(sHandle), 0U);
    EXPECT_EQ(WriteStatus(sHandle, "gone"), STATUS_ACCESS);
    EXPECT_EQ(ReadWholeFile(sFile), "data");
    m_pMain->StopServer();

    Start(false);
    Export();
    EXPECT_EQ(WriteStatus(MountAndLookup("file"), "gone"), 0U);
    EXPECT_EQ(ReadWholeFile(sFile), "gone");
}

TEST_F(NfsMainServer, DerivedController_ItsStepsAreTheOnesThatRun)
{
    CDerivedMain main;
    EXPECT_EQ(main.m_iUtilities, 1);
    EXPECT_STREQ(main.GetRuntimeParam()->GetID(), "derived");
    main.SetCallback(&m_recorder);

    main.m_bNetwork = false;
    EXPECT_FALSE(main.Initial(m_cReason));
    EXPECT_STREQ(m_cReason, "no network");
    main.Terminate();
    EXPECT_EQ(main.m_iTerminated, 1);

    ASSERT_TRUE(main.StartServer(0, 0, 0, 0, false, m_cReason)) << m_cReason;
    EXPECT_EQ(main.m_iLogControls, 1);
    main.StopServer();
    const CAutoFd blocker(OccupyPort(SOCK_STREAM, NFS_PORT));
    EXPECT_FALSE(main.StartServer(0, 0, 0, 0, false, m_cReason));
    EXPECT_EQ(main.m_iStops, 2) << "A start that failed is undone by the derived StopServer";
}

// ---- A port that somebody else has ----

namespace {

struct TakenPort {
    const char* pcName;
    int iType;
    int iPort;
    const char* pcReason;     // what the caller is told
    const char* pcErrorLine;  // up to the socket's own reason
    const char* pcFileLine;
    const char* pcSocketReason;
};

constexpr char BOUND_TCP[] = "Fail to bind server socket. Address already in use (98)";
constexpr char BOUND_UDP[] = "Fail to bind datagram socket. Address already in use (98)";
constexpr char NFS_REASON[] = "NFS daemon failed to open port 2049";
constexpr char NFS_ERROR[] = "[NfsMain.StartServer] Fail to start NFS daemon. Reason=";
constexpr char NFS_FILE[] = "Fail to start NFS daemon on port 2049. Reason=";
constexpr char MOUNT_REASON[] = "Mount daemon failed to open port 1058";
constexpr char MOUNT_ERROR[] = "[NfsMain.StartServer] Fail to start Mount daemon. Reason=";
constexpr char MOUNT_FILE[] = "Fail to start Mount daemon on port 1058. Reason=";

const TakenPort TAKEN_PORTS[] = {
    // TCP 111 is taken for a port mapper, so only the UDP half can fail.
    {"PortmapUdp", SOCK_DGRAM, PORTMAP_PORT, "PortMap daemon failed to open port 111",
     "Fail to start PortMap daemon. Reason=", "Fail to start PortMap daemon on port 111. Reason=",
     BOUND_UDP},
    {"NfsTcp", SOCK_STREAM, NFS_PORT, NFS_REASON, NFS_ERROR, NFS_FILE, BOUND_TCP},
    {"NfsUdp", SOCK_DGRAM, NFS_PORT, NFS_REASON, NFS_ERROR, NFS_FILE, BOUND_UDP},
    {"MountTcp", SOCK_STREAM, MOUNT_PORT, MOUNT_REASON, MOUNT_ERROR, MOUNT_FILE, BOUND_TCP},
    {"MountUdp", SOCK_DGRAM, MOUNT_PORT, MOUNT_REASON, MOUNT_ERROR, MOUNT_FILE, BOUND_UDP},
};

class NfsMainTakenPort : public NfsMain, public testing::WithParamInterface<TakenPort> {
protected:
    // Fails to start, and checks that everything is as before.
    void StartInVain(char* pcReason)
    {
        const CAutoFd blocker(OccupyPort(GetParam().iType, GetParam().iPort));
        ASSERT_NE(blocker.Get(), -1);
        const size_t iDescriptors = CountDescriptors();
        const size_t iThreads = CountThreads();
        EXPECT_FALSE(m_pMain->StartServer(0, 0, 0, 0, false, pcReason));
        EXPECT_FALSE(m_pMain->IsServerRunning());
        EXPECT_EQ(CountDescriptors(), iDescriptors);
        EXPECT_EQ(CountThreads(), iThreads);
        for (const int iPort : PORTS)
            for (const int iType : {SOCK_STREAM, SOCK_DGRAM})
                EXPECT_EQ(IsPortFree(iType, iPort),
                          iType != GetParam().iType || iPort != GetParam().iPort)
                    << iPort << ", type " << iType;
    }

    size_t CountErrors() const { return m_recorder.Count("error|"); }
};

std::string GetName(const testing::TestParamInfo<TakenPort>& info)
{
    return info.param.pcName;
}

}  // namespace

TEST_P(NfsMainTakenPort, Start_FailsWithReasonAndLineAndLeavesNothingOpen)
{
    StartInVain(m_cReason);
    EXPECT_STREQ(m_cReason, GetParam().pcReason);
    EXPECT_TRUE(m_recorder.Contains(std::string("error|host|") + GetParam().pcErrorLine +
                                    GetParam().pcSocketReason));
    EXPECT_EQ(CountErrors(), 1U) << "The line for a log file needs one";
}

TEST_P(NfsMainTakenPort, Start_WithoutTheErrorBit_OnlyTellsTheReason)
{
    m_pMain->SetLogControl(LOG_EVERYTHING & ~LOG_CONTROL_ERROR);
    StartInVain(m_cReason);
    EXPECT_STREQ(m_cReason, GetParam().pcReason);
    EXPECT_EQ(CountErrors(), 0U);
}

TEST_P(NfsMainTakenPort, Start_WithALogFile_WritesThePortWhateverTheBits)
{
    m_pMain->SetLogControl(0);
    OpenLogFile();
    StartInVain(nullptr);
    const Lines vLog = ReadLog(m_logFolder.Path("log"));
    ASSERT_EQ(vLog.size(), 2U) << "Start, and why not; no stop of what did not run";
    EXPECT_EQ(vLog[1], std::string("[error] ") + GetParam().pcFileLine + GetParam().pcSocketReason);

    m_pMain->SetLogControl(LOG_CONTROL_ERROR);
    StartInVain(nullptr);
    EXPECT_EQ(ReadLog(m_logFolder.Path("log")).size(), 5U) << "Now both lines";
}

TEST_P(NfsMainTakenPort, Start_OnceThePortIsFree_Succeeds)
{
    StartInVain(m_cReason);
    Start();
    ExpectServing();
}

INSTANTIATE_TEST_SUITE_P(Ports, NfsMainTakenPort, testing::ValuesIn(TAKEN_PORTS), GetName);

// ---- Stopping ----

TEST_F(NfsMainServer, StopServer_EmptiesExportsSessionsAndHandles)
{
    m_folder.Write("file", "data");
    const size_t iDescriptors = CountDescriptors();
    Start();
    Export();
    m_pMain->AddSessionInfo("session", m_folder.Path().c_str());
    const std::string sHandle = MountAndLookup("file");
    EXPECT_EQ(ReadStatus(sHandle), 0U);  // opens the file for the cache
    CRuntimeParam param("host", 0);
    char cPath[PATH_SIZE];
    EXPECT_TRUE(m_pMain->GetUtils()->GetFilePath(&param, sHandle.data(), cPath, sizeof(cPath)));

    m_pMain->StopServer();
    EXPECT_EQ(m_pMain->GetMountInfo(false, false), 0);
    EXPECT_EQ(m_pMain->GetSessionInfo(false), 0);
    EXPECT_FALSE(m_pMain->GetUtils()->GetFilePath(&param, sHandle.data(), cPath, sizeof(cPath)));
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_TRUE(m_recorder.Contains("[NfsMain.StopServer] "));
}

TEST_F(NfsMainServer, StopServer_WithoutAServer_EmptiesExportsToo)
{
    Export();
    m_pMain->StopServer();
    EXPECT_EQ(m_pMain->GetMountInfo(false, false), 0);
}

TEST_F(NfsMainServer, StopServer_EndsTheConnectionsOfItsClients)
{
    Start();
    CTcpClient nfs(NFS_PORT);
    CTcpClient mount(MOUNT_PORT);
    CTcpClient portmap(PORTMAP_PORT);
    EXPECT_TRUE(nfs.Call(MakeCall(WIRE_NFS_PROG, 3, 0)).IsReceived());
    EXPECT_TRUE(mount.Call(MakeCall(WIRE_MOUNT_PROG, 3, 0)).IsReceived());
    EXPECT_TRUE(portmap.Call(MakeCall(WIRE_PORTMAP_PROG, 2, 0)).IsReceived());
    m_pMain->StopServer();
    EXPECT_TRUE(nfs.IsClosedByServer());
    EXPECT_TRUE(mount.IsClosedByServer());
    EXPECT_TRUE(portmap.IsClosedByServer());
}

TEST_F(NfsMainServer, StartServer_RightAfterClientsWereConnected_Succeeds)
{
    for (int i = 0; i < 3; i++) {
        Start();
        CTcpClient nfs(NFS_PORT);
        CTcpClient mount(MOUNT_PORT);
        EXPECT_TRUE(nfs.Call(MakeCall(WIRE_NFS_PROG, 3, 0)).IsReceived());
        EXPECT_TRUE(mount.Call(MakeCall(WIRE_MOUNT_PROG, 3, 0)).IsReceived());
        EXPECT_EQ(GetPort(WIRE_NFS_PROG), static_cast<uint32_t>(NFS_PORT));
        m_pMain->StopServer();
    }
}

TEST_F(NfsMainServer, StartAndStop_AThousandTimes_LeaksNothing)
{
    constexpr int ROUNDS = IS_SANITIZED ? 50 : 1000;
    m_pMain->SetLogControl(0);
    const size_t iDescriptors = CountDescriptors();
    const size_t iThreads = CountThreads();
    size_t iBytes = 0;
    for (int i = 0; i < ROUNDS; i++) {
        Start();
        m_pMain->StopServer();
        if (i == 10)  // what the system keeps for itself is there by now
            iBytes = CountBytes();
    }
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_EQ(CountThreads(), iThreads);
    // Not one byte in each round: the least that the allocator gives is more than 16.
    EXPECT_LT(CountBytes(), iBytes + 16 * ROUNDS);
}

TEST_F(NfsMainServer, Destructor_WhileRunningWithClients_ClosesEverything)
{
    m_folder.Write("file", "data");
    m_pMain.reset();
    const size_t iDescriptors = CountDescriptors();
    const size_t iThreads = CountThreads();
    Make("host", 0);
    Start();
    Export();
    EXPECT_EQ(ReadStatus(MountAndLookup("file")), 0U);
    {
        CTcpClient nfs(NFS_PORT);
        EXPECT_TRUE(nfs.Call(MakeCall(WIRE_NFS_PROG, 3, 0)).IsReceived());
        m_pMain.reset();
        EXPECT_TRUE(nfs.IsClosedByServer());
    }
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_EQ(CountThreads(), iThreads);
    ExpectAllPortsFree();
}

// ---- Log control ----

TEST_F(NfsMainServer, SetLogControl_ReachesTheRunningServer)
{
    m_pMain->SetLogControl(0);
    Start();
    const RpcCall call = MakeCall(WIRE_NFS_PROG, 3, 0);
    EXPECT_TRUE(CallOnce(NFS_PORT, call).IsReceived());
    EXPECT_EQ(m_recorder.Lines(), Lines{});

    m_pMain->SetLogControl(LOG_CONTROL_PROC_FUNC_NAME);
    EXPECT_EQ(m_pMain->GetRuntimeParam()->GetLogControl(), LOG_CONTROL_PROC_FUNC_NAME);
    EXPECT_TRUE(CallOnce(NFS_PORT, call).IsReceived());
    EXPECT_EQ(m_recorder.Lines(), (Lines{"info|127.0.0.1|[Nfs3Prog.Process]",
                                         "info|127.0.0.1|[Nfs3Prog.ProcedureNULL]"}));

    m_recorder.Clear();
    m_pMain->SetLogControl(0);
    EXPECT_TRUE(CallOnce(NFS_PORT, call).IsReceived());
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(NfsMainServer, SetLogControl_BeforeAStart_IsWhatTheServerStartsWith)
{
    m_pMain->SetLogControl(LOG_CONTROL_PROC_FUNC_NAME);
    Start();
    EXPECT_TRUE(CallOnce(MOUNT_PORT, MakeCall(WIRE_MOUNT_PROG, 3, 0)).IsReceived());
    EXPECT_TRUE(m_recorder.Contains("[MountProg.ProcedureNULL]"));
}

TEST_F(NfsMainServer, SetLogControl_DuringStartsAndStops_IsSafe)
{
    m_pMain->SetLogControl(0);
    std::atomic<bool> bEnd = false;
    std::atomic<int> iCalls = 0;
    std::thread other([&] {
        while (!bEnd) {
            m_pMain->SetLogControl(iCalls % 2 == 0 ? 0 : LOG_CONTROL_IPC);
            EXPECT_GE(m_pMain->GetServerStatus(), 1);
            iCalls++;
        }
    });
    for (int i = 0; i < 10 || iCalls < 10; i++) {
        Start();
        EXPECT_TRUE(AnswersNull(WIRE_NFS_PROG, NFS_PORT));
        m_pMain->StopServer();
    }
    bEnd = true;
    other.join();
}
