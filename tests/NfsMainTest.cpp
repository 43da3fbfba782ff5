#include "NfsMain.h"

#include <atomic>
#include <climits>
#include <thread>

#include <gtest/gtest.h>

#include "FileLogger.h"
#include "LogRecorder.h"
#include "Ports.h"
#include "Sanitizers.h"
#include "TestEnvironment.h"
#include "Text.h"
#include "Utilities.h"
#include "WireClient.h"

namespace {

using Lines = std::vector<std::string>;

constexpr int LOG_EVERYTHING = 0x3FF;
constexpr int PORTS[] = {PORTMAP_PORT, NFS_PORT, MOUNT_PORT};

constexpr uint32_t PROC_GETPORT = 3;
constexpr uint32_t PROC_MNT = 1;
constexpr uint32_t PROC_READ = 6;
constexpr uint32_t PROC_WRITE = 7;
constexpr uint32_t STATUS_ACCESS = 13;

RpcCall MakeCall(uint32_t iProg, uint32_t iVers, uint32_t iProc, const std::string& sArguments = {})
{
    RpcCall call;
    call.iProg = iProg;
    call.iVers = iVers;
    call.iProc = iProc;
    call.sArguments = sArguments;
    return call;
}

bool AnswersNull(uint32_t iProg, int iPort)
{
    const RpcCall call = MakeCall(iProg, 3, 0);
    return CallOnce(iPort, call).IsSuccess(call.iXid) &&
           CUdpClient(iPort).Call(call).IsSuccess(call.iXid);
}

// What the port mapper says; it is asked both ways.
uint32_t GetPort(uint32_t iProg)
{
    const RpcCall call = MakeCall(WIRE_PORTMAP_PROG, 2, PROC_GETPORT,
                                  CXdr().Word(iProg).Word(3).Word(6).Word(0).Bytes());
    CReply overTcp = CallOnce(PORTMAP_PORT, call);
    CReply overUdp = CUdpClient(PORTMAP_PORT).Call(call);
    const uint32_t iPort = overTcp.Word();
    EXPECT_EQ(iPort, overUdp.Word());
    return iPort;
}

void ExpectServing(int iMountPort = MOUNT_PORT, int iNfsPort = NFS_PORT)
{
    EXPECT_TRUE(AnswersNull(WIRE_MOUNT_PROG, iMountPort));
    EXPECT_TRUE(AnswersNull(WIRE_NFS_PROG, iNfsPort));
    EXPECT_EQ(GetPort(WIRE_MOUNT_PROG), static_cast<uint32_t>(iMountPort));
    EXPECT_EQ(GetPort(WIRE_NFS_PROG), static_cast<uint32_t>(iNfsPort));
}

void ExpectAllPortsFree()
{
    for (const int iPort : PORTS)
        ExpectPortFree(iPort);
}

// Lines of a log file without the time in front.
Lines ReadLog(const std::string& sPath)
{
    Lines vLines;
    for (const std::string& sLine : SplitIntoVector(ReadWholeFile(sPath).c_str(), '\n'))
        if (const size_t iEnd = sLine.find(']'); iEnd != std::string::npos)
            vLines.push_back(sLine.substr(iEnd + 1));
    return vLines;
}

// One controller, which reports to a recorder until a test gives it a log file.
class NfsMain : public testing::Test {
protected:
    void SetUp() override { Make("host", LOG_EVERYTHING); }

    void TearDown() override
    {
        m_pMain.reset();
        ExpectAllPortsFree();
    }

    void Make(const char* pcID, int iLogControl)
    {
        m_pMain = std::make_unique<CNfsMain>(pcID, iLogControl);
        m_pMain->SetCallback(&m_recorder);
    }

    // From here on lines go to a log file, and only there.
    void OpenLogFile()
    {
        ASSERT_TRUE(m_logger.Open(0));
        m_pMain->SetCallback(nullptr);
        m_pMain->SetFileLogger(&m_logger);
    }

    void Start(bool bReadOnly = false)
    {
        ASSERT_TRUE(m_pMain->StartServer(0, 0, 0, 0, bReadOnly, m_cReason)) << m_cReason;
    }

    void Export()
    {
        ASSERT_TRUE(m_pMain->AddMountPoint(m_folder.Path().c_str(), "vm1", m_cReason))
            << m_cReason;
    }

    // The handle of a file in the export.
    std::string MountAndLookup(const std::string& sName)
    {
        CReply mount = CallOnce(MOUNT_PORT, MakeCall(WIRE_MOUNT_PROG, 3, PROC_MNT,
                                                     CXdr().String("vm1").Bytes()));
        EXPECT_EQ(mount.Word(), 0U);
        const std::string sArguments = CXdr().Opaque(mount.Opaque()).String(sName).Bytes();
        CReply lookup = CallOnce(NFS_PORT, MakeCall(WIRE_NFS_PROG, 3, 3, sArguments));
        EXPECT_EQ(lookup.Word(), 0U);
        return lookup.Opaque();
    }

    uint32_t ReadStatus(const std::string& sHandle)
    {
        const std::string sArguments = CXdr().Opaque(sHandle).Hyper(0).Word(4).Bytes();
        return CallOnce(NFS_PORT, MakeCall(WIRE_NFS_PROG, 3, PROC_READ, sArguments)).Word();
    }

    uint32_t WriteStatus(const std::string& sHandle, const std::string& sData)
    {
        const std::string sArguments = CXdr()
                                           .Opaque(sHandle)
                                           .Hyper(0)
                                           .Word(static_cast<uint32_t>(sData.size()))
                                           .Word(2)
                                           .Opaque(sData)
                                           .Bytes();
        return CallOnce(NFS_PORT, MakeCall(WIRE_NFS_PROG, 3, PROC_WRITE, sArguments)).Word();
    }

    CScratchFolder m_folder;
    CScratchFolder m_logFolder;
    CFileLogger m_logger{m_logFolder.Path("log").c_str()};
    CLogRecorder m_recorder;
    char m_cReason[REASON_SIZE] = "";
    std::unique_ptr<CNfsMain> m_pMain;
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

}  // namespace

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
    EXPECT_EQ(m_pMain->GetCallback(), &m_recorder);
    EXPECT_EQ(m_pMain->GetUtils()->GetCallback(), &m_recorder);
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

// ---- Starting ----

TEST_F(NfsMain, StartServer_PortsBelowOne_ServesOnTheDefaults)
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

TEST_F(NfsMain, StartServer_GivenPorts_ServesAndAnnouncesThese)
{
    ASSERT_TRUE(m_pMain->StartServer(3058, 3049, 0, 0, false, m_cReason)) << m_cReason;
    ExpectServing(3058, 3049);
    ExpectPortFree(MOUNT_PORT);
    ExpectPortFree(NFS_PORT);
}

TEST_F(NfsMain, StartServer_WhileRunning_IsRefusedAndLosesNothing)
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

TEST_F(NfsMain, StartServer_ReadOnly_ReachesTheNfsProgram)
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

TEST_F(NfsMain, DerivedController_ItsStepsAreTheOnesThatRun)
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

TEST_F(NfsMain, StopServer_EmptiesExportsSessionsAndHandles)
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

TEST_F(NfsMain, StopServer_WithoutAServer_EmptiesExportsToo)
{
    Export();
    m_pMain->StopServer();
    EXPECT_EQ(m_pMain->GetMountInfo(false, false), 0);
}

TEST_F(NfsMain, StopServer_EndsTheConnectionsOfItsClients)
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

TEST_F(NfsMain, StartServer_RightAfterClientsWereConnected_Succeeds)
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

TEST_F(NfsMain, StartAndStop_AThousandTimes_LeaksNothing)
{
    constexpr int ROUNDS = IS_SANITIZED ? 50 : 1000;
    m_pMain->SetLogControl(0);
    const size_t iDescriptors = CountDescriptors();
    const size_t iThreads = CountThreads();
    for (int i = 0; i < ROUNDS; i++) {
        Start();
        m_pMain->StopServer();
    }
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_EQ(CountThreads(), iThreads);
}

TEST_F(NfsMain, Destructor_WhileRunningWithClients_ClosesEverything)
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

TEST_F(NfsMain, SetLogControl_ReachesTheRunningServer)
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

TEST_F(NfsMain, SetLogControl_BeforeAStart_IsWhatTheServerStartsWith)
{
    m_pMain->SetLogControl(LOG_CONTROL_PROC_FUNC_NAME);
    Start();
    EXPECT_TRUE(CallOnce(MOUNT_PORT, MakeCall(WIRE_MOUNT_PROG, 3, 0)).IsReceived());
    EXPECT_TRUE(m_recorder.Contains("[MountProg.ProcedureNULL]"));
}

TEST_F(NfsMain, SetLogControl_DuringStartsAndStops_IsSafe)
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
    CReply reply = CallOnce(MOUNT_PORT,
                            MakeCall(WIRE_MOUNT_PROG, 3, PROC_MNT, CXdr().String("vm1").Bytes()));
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

// Nothing stands behind these yet, and nothing pretends.
TEST_F(NfsMain, RedirectedFiles_FindNoneAndChangeNothing)
{
    const std::string sFile = m_folder.Write("file", "data");
    const char* pcPath = sFile.c_str();
    const std::string sExport = m_folder.Path("export");
    const size_t iDescriptors = CountDescriptors();

    m_pMain->OpenRedirectedFile(pcPath, 100, false, 0, 0);
    m_pMain->OpenRedirectedFile(pcPath, 100, true, 1, 1);
    EXPECT_FALSE(m_pMain->AddRedirectedFileSegment(pcPath, pcPath, 0, 0, 4, m_cReason));
    m_pMain->ExportRedirectedFile(pcPath, sExport.c_str());
    m_pMain->ExportRedirectedFileInfo(pcPath, sExport.c_str(), true);
    m_pMain->CloseRedirectedFile(pcPath);
    m_pMain->CloseAllRedirectedFiles(m_folder.Path().c_str());

    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_EQ(ReadWholeFile(sFile), "data");
    EXPECT_FALSE(std::filesystem::exists(sExport));
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}

TEST_F(NfsMain, RunTestMode_TouchesNothing)
{
    CRuntimeParam other("other", 0);
    m_pMain->RunTestMode(m_folder.Path().c_str(), 1024);
    m_pMain->RunTestMode(&other, m_folder.Path().c_str(), 1024);
    EXPECT_TRUE(std::filesystem::is_empty(m_folder.Path()));
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}
