#include "Portmap.h"

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "DescriptorShortage.h"
#include "FileLogger.h"
#include "LogRecorder.h"
#include "NfsMain.h"
#include "Ports.h"
#include "Rpcbind.h"
#include "Sanitizers.h"
#include "ServerSocket.h"
#include "TestEnvironment.h"
#include "Text.h"
#include "Utilities.h"
#include "WireClient.h"

// Of the ONC RPC library; its headers would bring macros that spoil WireClient.h.
extern "C" int pmap_set(unsigned long iProg, unsigned long iVers, int iProtocol, int iPort);
extern "C" void* svctcp_create(int iSocket, unsigned int iSendSize, unsigned int iReceiveSize);

namespace {

int s_iTcpTransportsLeft = -1;  // so many are made, and then none; -1 for no end

}  // namespace

// Stands before the library's own: nothing else makes it refuse TCP where it has just made UDP.
extern "C" void* svctcp_create(int iSocket, unsigned int iSendSize, unsigned int iReceiveSize)
{
    using Function = void* (*)(int, unsigned int, unsigned int);
    if (s_iTcpTransportsLeft == 0)
        return nullptr;
    if (s_iTcpTransportsLeft > 0)
        s_iTcpTransportsLeft--;
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "svctcp_create"))(iSocket, iSendSize,
                                                                         iReceiveSize);
}

namespace {

using Lines = std::vector<std::string>;

constexpr uint32_t PROC_GETPORT = 3;
constexpr uint32_t PROC_DUMP = 4;

constexpr int EXTERNAL_NFS_PORT = 2050;
constexpr int EXTERNAL_MOUNT_PORT = 1059;
constexpr int OTHER_PORT = 4050;

// One line of the port mapper's table.
struct Mapping {
    uint32_t iProg;
    uint32_t iVers;
    uint32_t iProtocol;
    uint32_t iPort;
    bool operator==(const Mapping&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Mapping& mapping)
{
    return out << mapping.iProg << " v" << mapping.iVers << " protocol " << mapping.iProtocol
               << " at " << mapping.iPort;
}

RpcCall PortmapCall(uint32_t iProc, const std::string& sArguments)
{
    RpcCall call;
    call.iProg = WIRE_PORTMAP_PROG;
    call.iVers = 2;
    call.iProc = iProc;
    call.sArguments = sArguments;
    return call;
}

// The port of a program by the port mapper's word, asked over TCP and over UDP.
uint32_t GetPort(uint32_t iProg, uint32_t iProtocol, uint32_t iVers = 3)
{
    const RpcCall call =
        PortmapCall(PROC_GETPORT, CXdr().Word(iProg).Word(iVers).Word(iProtocol).Word(0).Bytes());
    CReply overTcp = CallOnce(PORTMAP_PORT, call);
    CReply overUdp = CUdpClient(PORTMAP_PORT).Call(call);
    const uint32_t iPort = overTcp.Word();
    EXPECT_EQ(iPort, overUdp.Word());
    return iPort;
}

// All mappings but the port mapper's own, in its order.
std::vector<Mapping> Dump()
{
    CReply reply = CallOnce(PORTMAP_PORT, PortmapCall(PROC_DUMP, {}));
    EXPECT_TRUE(reply.IsSuccess(1));
    std::vector<Mapping> vMappings;
    while (reply.Bool()) {
        Mapping mapping = {};
        for (uint32_t* pField :
             {&mapping.iProg, &mapping.iVers, &mapping.iProtocol, &mapping.iPort})
            *pField = reply.Word();
        if (mapping.iProg != WIRE_PORTMAP_PROG)
            vMappings.push_back(mapping);
    }
    return vMappings;
}

// UDP and TCP of one program, as a registration makes them.
std::vector<Mapping> Both(uint32_t iProg, uint32_t iPort)
{
    return {{iProg, 3, IPPROTO_UDP, iPort}, {iProg, 3, IPPROTO_TCP, iPort}};
}

std::vector<Mapping> ServerMappings()
{
    std::vector<Mapping> vMappings = Both(PROG_NFS, EXTERNAL_NFS_PORT);
    for (const Mapping& mapping : Both(PROG_MOUNT, EXTERNAL_MOUNT_PORT))
        vMappings.push_back(mapping);
    return vMappings;
}

// Maps the NFS program to port 9, as another process: the library's call loses memory, and that
// goes with it.
bool MapElsewhere(int iProtocol)
{
    const pid_t iPid = fork();
    if (iPid == 0)
        _exit(pmap_set(PROG_NFS, 3, iProtocol, 9) != 0 ? EXIT_SUCCESS : EXIT_FAILURE);
    int iStatus = -1;
    return waitpid(iPid, &iStatus, 0) == iPid && iStatus == 0;
}

// No port mapper runs unless a test starts one.
class Portmap : public testing::Test {
protected:
    void SetUp() override { m_utilities.SetCallback(&m_recorder); }

    CLogRecorder m_recorder;
    CUtilities m_utilities;
    CRuntimeParam m_param{"host", LOG_CONTROL_PORTMAP};
    char m_cReason[REASON_SIZE] = "";
};

class PortmapWithRpcbind : public Portmap {
protected:
    // A listener at OTHER_PORT, to be announced.
    void OpenListener()
    {
        ASSERT_TRUE(m_listener.Open(PROG_NFS, OTHER_PORT, 1, &m_utilities, m_cReason)) << m_cReason;
    }

    CRpcbind m_rpcbind;
    CServerSocket m_listener;
};

// A whole server, in whatever surroundings a test makes.
class PortmapServer : public Portmap {
protected:
    void Make(int iLogControl)
    {
        m_pMain = std::make_unique<CNfsMain>("host", iLogControl);
        m_pMain->SetCallback(&m_recorder);
    }
    bool Start() { return m_pMain->StartServer(0, 0, 0, 0, false, m_cReason); }

    std::unique_ptr<CNfsMain> m_pMain;
};

}  // namespace

// ---- Without a port mapper ----

TEST_F(Portmap, NothingOnItsPort_IsNotRunning)
{
    CPortmap portmap(&m_utilities, &m_param);
    EXPECT_FALSE(portmap.IsRunning());
    EXPECT_FALSE(portmap.IsRunning(false));
    EXPECT_FALSE(portmap.IsRunning(true));
    EXPECT_EQ(m_recorder.Lines(), Lines{});
    ExpectPortFree(PORTMAP_PORT);
}

TEST_F(Portmap, PortTaken_IsRunningAndSaysSo)
{
    const CAutoFd other(OccupyPort(SOCK_STREAM, PORTMAP_PORT));
    CPortmap portmap(&m_utilities, &m_param);
    EXPECT_TRUE(portmap.IsRunning());
    EXPECT_EQ(m_recorder.Lines(),
              Lines{"info|host|[Portmap.IsRunning] Port 111 is already in used"});
}

TEST_F(Portmap, PortTaken_WithoutThePortmapBit_IsSilent)
{
    const CAutoFd other(OccupyPort(SOCK_STREAM, PORTMAP_PORT));
    m_param.SetLogControl(~LOG_CONTROL_PORTMAP & 0x3FF);
    EXPECT_TRUE(CPortmap(&m_utilities, &m_param).IsRunning());
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(Portmap, Detection_HappensOnceAndProbeOnlyLooks)
{
    CPortmap portmap(&m_utilities, &m_param);
    const CAutoFd other(OccupyPort(SOCK_STREAM, PORTMAP_PORT));
    EXPECT_TRUE(portmap.IsRunning(true));
    EXPECT_FALSE(portmap.IsRunning(false));
    EXPECT_FALSE(portmap.IsRunning());
}

TEST_F(Portmap, UdpPortTaken_IsNoPortMapper)
{
    const CAutoFd other(OccupyPort(SOCK_DGRAM, PORTMAP_PORT));
    EXPECT_FALSE(CPortmap(&m_utilities, &m_param).IsRunning());
}

TEST_F(Portmap, Register_NotRunning_Fails)
{
    CPortmap portmap(&m_utilities, &m_param);
    CServerSocket listener;
    EXPECT_FALSE(portmap.Register(PROG_NFS, 3, &listener, m_cReason));
    EXPECT_STREQ(m_cReason, "Portmapper is not running.");
    m_cReason[0] = '\0';
    EXPECT_FALSE(portmap.Register(PROG_NFS, 3, 0, OTHER_PORT, m_cReason));
    EXPECT_STREQ(m_cReason, "Portmapper is not running.");
    EXPECT_FALSE(portmap.Register(PROG_NFS, 3, 0, OTHER_PORT, nullptr));
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(Portmap, Unregister_NotRunning_Fails)
{
    CPortmap portmap(&m_utilities, &m_param);
    EXPECT_FALSE(portmap.Unregister(PROG_NFS, 3, m_cReason));
    EXPECT_STREQ(m_cReason, "Portmapper is not running.");
    EXPECT_FALSE(portmap.Unregister(PROG_NFS, 3, nullptr));
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(Portmap, CreateSocket_FreePort_IsBoundToIt)
{
    CPortmap portmap(&m_utilities, &m_param);
    const CAutoFd socket(portmap.CreateSocket(OTHER_PORT, m_cReason));
    ASSERT_GE(socket.Get(), 0);
    EXPECT_STREQ(m_cReason, "");
    sockaddr_in address = {};
    socklen_t iLength = sizeof(address);
    ASSERT_EQ(getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&address), &iLength), 0);
    EXPECT_EQ(ntohs(address.sin_port), OTHER_PORT);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
    int iReuse = 0;
    iLength = sizeof(iReuse);
    getsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &iReuse, &iLength);
    EXPECT_NE(iReuse, 0);
}

TEST_F(Portmap, CreateSocket_PortTaken_IsMinusTwo)
{
    CPortmap portmap(&m_utilities, &m_param);
    const CAutoFd other(OccupyPort(SOCK_STREAM, OTHER_PORT));
    const size_t iDescriptors = CountDescriptors();
    EXPECT_EQ(portmap.CreateSocket(OTHER_PORT, m_cReason), -2);
    EXPECT_STREQ(m_cReason, "Error binding socket with port 4050");
    EXPECT_EQ(portmap.CreateSocket(OTHER_PORT, nullptr), -2);
    EXPECT_EQ(CountDescriptors(), iDescriptors);
}

TEST_F(Portmap, CreateSocket_NumberThatIsNoPort_IsMinusTwo)
{
    CPortmap portmap(&m_utilities, &m_param);
    const size_t iDescriptors = CountDescriptors();
    for (const unsigned long lPort :
         {0x10000UL, 0x10000UL + OTHER_PORT, 0xFFFFFFFFUL, 0x100000000UL + OTHER_PORT, ~0UL}) {
        EXPECT_EQ(portmap.CreateSocket(lPort, m_cReason), -2);
        EXPECT_EQ(m_cReason, "Error binding socket with port " + std::to_string(lPort));
    }
    EXPECT_EQ(CountDescriptors(), iDescriptors);
}

TEST_F(Portmap, CreateSocket_NoDescriptor_IsMinusOne)
{
    CPortmap portmap(&m_utilities, &m_param);
    const CDescriptorShortage famine;
    EXPECT_EQ(portmap.CreateSocket(OTHER_PORT, m_cReason), -1);
    EXPECT_STREQ(m_cReason, "Error opening socket for port 4050");
    EXPECT_EQ(portmap.CreateSocket(OTHER_PORT, nullptr), -1);
}

TEST_F(Portmap, NoDescriptorForTheProbe_IsNotRunning)
{
    const CAutoFd other(OccupyPort(SOCK_STREAM, PORTMAP_PORT));
    const CDescriptorShortage famine;
    EXPECT_FALSE(CPortmap(&m_utilities, &m_param).IsRunning());
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

// ---- With one ----

TEST_F(PortmapWithRpcbind, Register_Listener_IsMappedForUdpAndTcp)
{
    OpenListener();
    CPortmap portmap(&m_utilities, &m_param);
    ASSERT_TRUE(portmap.IsRunning());
    ASSERT_TRUE(portmap.Register(PROG_NFS, 3, &m_listener, m_cReason)) << m_cReason;
    EXPECT_EQ(Dump(), Both(PROG_NFS, OTHER_PORT));
    EXPECT_EQ(GetPort(PROG_NFS, IPPROTO_TCP), static_cast<uint32_t>(OTHER_PORT));
    EXPECT_STREQ(m_cReason, "");

    EXPECT_TRUE(portmap.Unregister(PROG_NFS, 3, m_cReason));
    EXPECT_EQ(Dump(), std::vector<Mapping>{});
    EXPECT_EQ(GetPort(PROG_NFS, IPPROTO_TCP), 0U);
    EXPECT_STREQ(m_cReason, "");
}

TEST_F(PortmapWithRpcbind, RegisterAndUnregister_WriteALineForEachStep)
{
    OpenListener();
    CPortmap portmap(&m_utilities, &m_param);
    portmap.Register(PROG_NFS, 3, &m_listener, m_cReason);
    portmap.Unregister(PROG_NFS, 3, m_cReason);
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"info|host|[Portmap.IsRunning] Port 111 is already in used",
                     "info|host|[Portmap.RegisterSvc] Creating UDP for 100003 ver=3",
                     "info|host|[Portmap.RegisterSvc] Registering UDP for 100003 ver=3",
                     "info|host|[Portmap.RegisterSvc] Registered UDP for 100003 ver=3",
                     "info|host|[Portmap.RegisterSvc] Creating TCP for 100003 ver=3",
                     "info|host|[Portmap.RegisterSvc] Registering TCP for 100003 ver=3",
                     "info|host|[Portmap.RegisterSvc] Registered TCP for 100003 ver=3",
                     "info|host|[Portmap.Unregister] Unregistered the program 100003 ver=3"}));
}

TEST_F(PortmapWithRpcbind, RegisterAndUnregister_WithoutThePortmapBit_AreSilent)
{
    OpenListener();
    m_param.SetLogControl(~LOG_CONTROL_PORTMAP & 0x3FF);
    CPortmap portmap(&m_utilities, &m_param);
    EXPECT_TRUE(portmap.Register(PROG_NFS, 3, &m_listener, m_cReason));
    EXPECT_TRUE(portmap.Unregister(PROG_NFS, 3, m_cReason));
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(PortmapWithRpcbind, Register_AgainElsewhere_ReplacesTheMapping)
{
    OpenListener();
    CPortmap portmap(&m_utilities, &m_param);
    ASSERT_TRUE(portmap.Register(PROG_NFS, 3, 0, OTHER_PORT + 1, m_cReason)) << m_cReason;
    ASSERT_TRUE(portmap.Register(PROG_NFS, 3, &m_listener, m_cReason)) << m_cReason;
    EXPECT_EQ(Dump(), Both(PROG_NFS, OTHER_PORT));
}

TEST_F(PortmapWithRpcbind, Register_MappingOfAnEarlierProcess_IsReplaced)
{
    ASSERT_TRUE(MapElsewhere(IPPROTO_TCP));
    ASSERT_TRUE(MapElsewhere(IPPROTO_UDP));
    OpenListener();
    CPortmap portmap(&m_utilities, &m_param);
    ASSERT_TRUE(portmap.Register(PROG_NFS, 3, &m_listener, m_cReason)) << m_cReason;
    EXPECT_EQ(Dump(), Both(PROG_NFS, OTHER_PORT));
}

TEST_F(PortmapWithRpcbind, Register_SocketZero_AnnouncesThePortAndClosesItsSocket)
{
    CPortmap portmap(&m_utilities, &m_param);
    const size_t iDescriptors = CountDescriptors();
    ASSERT_TRUE(portmap.Register(PROG_MOUNT, 3, 0, OTHER_PORT, m_cReason)) << m_cReason;
    EXPECT_EQ(Dump(), Both(PROG_MOUNT, OTHER_PORT));
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    ExpectPortFree(OTHER_PORT);
}

TEST_F(PortmapWithRpcbind, Register_SocketZeroAndPortTaken_Fails)
{
    OpenListener();
    CPortmap portmap(&m_utilities, &m_param);
    EXPECT_FALSE(portmap.Register(PROG_MOUNT, 3, 0, OTHER_PORT, m_cReason));
    EXPECT_STREQ(m_cReason, "Fail to opening register socket for port 4050. "
                            "Reason=Error binding socket with port 4050");
    EXPECT_EQ(Dump(), std::vector<Mapping>{});
}

TEST_F(PortmapWithRpcbind, Register_SocketZeroAndNoDescriptor_Fails)
{
    CPortmap portmap(&m_utilities, &m_param);
    const size_t iDescriptors = CountDescriptors();
    {
        const CDescriptorShortage famine;
        EXPECT_FALSE(portmap.Register(PROG_MOUNT, 3, 0, OTHER_PORT, m_cReason));
    }
    EXPECT_STREQ(m_cReason, "Fail to opening register socket for port 4050. "
                            "Reason=Error opening socket for port 4050");
    EXPECT_EQ(CountDescriptors(), iDescriptors);
}

TEST_F(PortmapWithRpcbind, Register_BadDescriptor_CannotCreateUdp)
{
    CPortmap portmap(&m_utilities, &m_param);
    m_recorder.Clear();
    EXPECT_FALSE(portmap.Register(PROG_NFS, 3, 9999, OTHER_PORT, m_cReason));
    EXPECT_STREQ(m_cReason, "Fail to register socket for port 4050. "
                            "Reason=Cannot create UDP for 100003 ver=3");
    EXPECT_FALSE(portmap.Register(PROG_NFS, 3, 9999, OTHER_PORT, nullptr));
    EXPECT_EQ(m_recorder.Lines(),
              Lines(2, "info|host|[Portmap.RegisterSvc] Creating UDP for 100003 ver=3"));
}

TEST_F(PortmapWithRpcbind, Register_ListenerNotOpen_CannotCreateUdp)
{
    CPortmap portmap(&m_utilities, &m_param);
    EXPECT_FALSE(portmap.Register(PROG_NFS, 3, &m_listener, m_cReason));
    EXPECT_STREQ(m_cReason, "Fail to register socket for port 0. "
                            "Reason=Cannot create UDP for 100003 ver=3");
}

TEST_F(PortmapWithRpcbind, RegisterSvc_UdpMappedElsewhere_UnableToRegisterUdp)
{
    ASSERT_TRUE(MapElsewhere(IPPROTO_UDP));
    OpenListener();
    CPortmap portmap(&m_utilities, &m_param);
    m_recorder.Clear();
    EXPECT_FALSE(portmap.RegisterSvc(PROG_NFS, 3, m_listener.GetSocket(), m_cReason));
    EXPECT_STREQ(m_cReason, "Unable to register UDP for 100003 ver=3");
    EXPECT_EQ(m_recorder.Lines().back(),
              "info|host|[Portmap.RegisterSvc] Registering UDP for 100003 ver=3");
    portmap.Unregister(PROG_NFS, 3, nullptr);
}

TEST_F(PortmapWithRpcbind, RegisterSvc_TcpTransportRefused_CannotCreateTcp)
{
    OpenListener();
    CPortmap portmap(&m_utilities, &m_param);
    const size_t iDescriptors = CountDescriptors();
    m_recorder.Clear();
    s_iTcpTransportsLeft = 0;
    EXPECT_FALSE(portmap.RegisterSvc(PROG_NFS, 3, m_listener.GetSocket(), m_cReason));
    s_iTcpTransportsLeft = -1;
    EXPECT_STREQ(m_cReason, "Cannot create TCP for 100003 ver=3");
    EXPECT_EQ(m_recorder.Lines().back(),
              "info|host|[Portmap.RegisterSvc] Creating TCP for 100003 ver=3");
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    portmap.Unregister(PROG_NFS, 3, nullptr);
    EXPECT_EQ(Dump(), std::vector<Mapping>{});
}

TEST_F(PortmapWithRpcbind, RegisterSvc_TcpMappedElsewhere_UnableToRegisterTcp)
{
    ASSERT_TRUE(MapElsewhere(IPPROTO_TCP));
    OpenListener();
    CPortmap portmap(&m_utilities, &m_param);
    m_recorder.Clear();
    EXPECT_FALSE(portmap.RegisterSvc(PROG_NFS, 3, m_listener.GetSocket(), m_cReason));
    EXPECT_STREQ(m_cReason, "Unable to register TCP for 100003 ver=3");
    EXPECT_EQ(m_recorder.Lines().back(),
              "info|host|[Portmap.RegisterSvc] Registering TCP for 100003 ver=3");
    portmap.Unregister(PROG_NFS, 3, nullptr);
}

TEST_F(PortmapWithRpcbind, Unregister_WhatIsNotMapped_Succeeds)
{
    CPortmap portmap(&m_utilities, &m_param);
    EXPECT_TRUE(portmap.Unregister(PROG_NFS, 3, m_cReason));
}

TEST_F(PortmapWithRpcbind, RegisterAndUnregister_TwoHundredTimes_LeaksNoDescriptor)
{
    OpenListener();
    CPortmap portmap(&m_utilities, &m_param);
    ASSERT_TRUE(portmap.Register(PROG_NFS, 3, &m_listener, m_cReason)) << m_cReason;
    portmap.Unregister(PROG_NFS, 3, nullptr);
    const size_t iDescriptors = CountDescriptors();
    for (int i = 0; i < (IS_SANITIZED ? 20 : 200); i++) {
        ASSERT_TRUE(portmap.Register(PROG_NFS, 3, &m_listener, m_cReason)) << m_cReason;
        ASSERT_TRUE(portmap.Unregister(PROG_NFS, 3, m_cReason)) << m_cReason;
    }
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_EQ(Dump(), std::vector<Mapping>{});
}

// ---- A server beside one ----

TEST_F(PortmapServer, Start_BesideAPortMapper_RunsOnePortFurtherAndIsRegistered)
{
    const CRpcbind rpcbind;
    Make(0);
    ASSERT_TRUE(Start()) << m_cReason;
    EXPECT_EQ(Dump(), ServerMappings());
    for (const uint32_t iProtocol : {IPPROTO_UDP, IPPROTO_TCP}) {
        EXPECT_EQ(GetPort(PROG_NFS, iProtocol), 2050U);
        EXPECT_EQ(GetPort(PROG_MOUNT, iProtocol), 1059U);
    }
    for (const auto& [iProg, iPort] : {std::pair(WIRE_NFS_PROG, EXTERNAL_NFS_PORT),
                                       std::pair(WIRE_MOUNT_PROG, EXTERNAL_MOUNT_PORT)}) {
        RpcCall call;
        call.iProg = iProg;
        call.iVers = 3;
        EXPECT_TRUE(CallOnce(iPort, call).IsSuccess(call.iXid));
        EXPECT_TRUE(CUdpClient(iPort).Call(call).IsSuccess(call.iXid));
    }
    ExpectPortFree(NFS_PORT);
    ExpectPortFree(MOUNT_PORT);
}

TEST_F(PortmapServer, Start_GivenPorts_RegistersThese)
{
    const CRpcbind rpcbind;
    Make(0);
    ASSERT_TRUE(m_pMain->StartServer(3058, 3049, 0, 0, false, m_cReason)) << m_cReason;
    EXPECT_EQ(GetPort(PROG_NFS, IPPROTO_TCP), 3049U);
    EXPECT_EQ(GetPort(PROG_MOUNT, IPPROTO_UDP), 3058U);
}

TEST_F(PortmapServer, StopServer_Unregisters)
{
    const CRpcbind rpcbind;
    Make(LOG_CONTROL_PORTMAP);
    ASSERT_TRUE(Start()) << m_cReason;
    m_recorder.Clear();
    m_pMain->StopServer();
    EXPECT_EQ(Dump(), std::vector<Mapping>{});
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"info|host|[Portmap.Unregister] Unregistered the program 100003 ver=3",
                     "info|host|[Portmap.Unregister] Unregistered the program 100005 ver=3"}));
    ExpectPortFree(EXTERNAL_NFS_PORT);
    ExpectPortFree(EXTERNAL_MOUNT_PORT);

    ASSERT_TRUE(Start()) << m_cReason;
    EXPECT_EQ(Dump(), ServerMappings());
}

TEST_F(PortmapServer, Destructor_WhileRunning_Unregisters)
{
    const CRpcbind rpcbind;
    Make(0);
    ASSERT_TRUE(Start()) << m_cReason;
    m_pMain.reset();
    EXPECT_EQ(Dump(), std::vector<Mapping>{});
    ExpectPortFree(EXTERNAL_NFS_PORT);
    ExpectPortFree(EXTERNAL_MOUNT_PORT);
}

TEST_F(PortmapServer, Start_BesideAPortMapper_SaysSoInTheLogFile)
{
    const CRpcbind rpcbind;
    CScratchFolder folder;
    CFileLogger logger(folder.Path("log").c_str());
    ASSERT_TRUE(logger.Open(0));
    Make(0);
    m_pMain->SetCallback(nullptr);
    m_pMain->SetFileLogger(&logger);
    ASSERT_TRUE(Start()) << m_cReason;
    EXPECT_NE(ReadWholeFile(folder.Path("log"))
                  .find("[info] Start NFS with external portmapper: MountPort = 1059, "
                        "NfsPort = 2050\n"),
              std::string::npos);
}

TEST_F(PortmapServer, Start_PortTakenBesideAPortMapper_LeavesNoMapping)
{
    const CRpcbind rpcbind;
    const CAutoFd other(OccupyPort(SOCK_STREAM, EXTERNAL_MOUNT_PORT));
    Make(0);
    EXPECT_FALSE(Start());
    EXPECT_STREQ(m_cReason, "Mount daemon failed to open port 1059");
    EXPECT_EQ(Dump(), std::vector<Mapping>{});
    ExpectPortFree(EXTERNAL_NFS_PORT);
}

TEST_F(PortmapServer, PortMapperComesAndGoes_EachStartLooksAnew)
{
    Make(0);
    ASSERT_TRUE(Start()) << m_cReason;
    EXPECT_EQ(GetPort(PROG_NFS, IPPROTO_TCP), 2049U);
    m_pMain->StopServer();
    {
        const CRpcbind rpcbind;
        ASSERT_TRUE(Start()) << m_cReason;
        EXPECT_EQ(GetPort(PROG_NFS, IPPROTO_TCP), 2050U);
        m_pMain->StopServer();
    }
    ASSERT_TRUE(Start()) << m_cReason;
    EXPECT_EQ(GetPort(PROG_NFS, IPPROTO_TCP), 2049U);
}

TEST_F(PortmapServer, Start_OnlyMountCannotBeRegistered_FailsAndLeavesNoMapping)
{
    const CRpcbind rpcbind;
    CScratchFolder folder;
    CFileLogger logger(folder.Path("log").c_str());
    ASSERT_TRUE(logger.Open(0));
    Make(0);
    m_pMain->SetCallback(nullptr);
    m_pMain->SetFileLogger(&logger);
    s_iTcpTransportsLeft = 1;  // for the NFS program
    EXPECT_FALSE(Start());
    s_iTcpTransportsLeft = -1;

    const std::string sText = "Fail to register Mount daemon to external portmapper. Reason=Fail "
                              "to register socket for port 1059. Reason=Cannot create TCP for "
                              "100005 ver=3";
    EXPECT_EQ(m_cReason, sText);
    const std::string sLog = ReadWholeFile(folder.Path("log"));
    EXPECT_NE(sLog.find("[error] " + sText + "\n"), std::string::npos) << sLog;
    EXPECT_EQ(sLog.find("register NFS daemon"), std::string::npos) << sLog;
    EXPECT_FALSE(m_pMain->IsServerRunning());
    EXPECT_EQ(Dump(), std::vector<Mapping>{});
    ExpectPortFree(EXTERNAL_NFS_PORT);
    ExpectPortFree(EXTERNAL_MOUNT_PORT);
}

// Whoever sits on port 111 is taken for a port mapper; this one understands nothing.
TEST_F(PortmapServer, Start_BesideSomethingElseOnThePort_FailsAndLeavesNothingOpen)
{
    const CAutoFd other(OccupyPort(SOCK_STREAM, PORTMAP_PORT));
    CScratchFolder folder;
    CFileLogger logger(folder.Path("log").c_str());
    ASSERT_TRUE(logger.Open(0));
    Make(0);
    m_pMain->SetCallback(nullptr);
    m_pMain->SetFileLogger(&logger);
    const size_t iDescriptors = CountDescriptors();
    const size_t iThreads = CountThreads();

    EXPECT_FALSE(Start());

    EXPECT_STREQ(m_cReason, "Fail to register NFS daemon to external portmapper. Reason=Fail to "
                            "register socket for port 2050. Reason=Unable to register UDP for "
                            "100003 ver=3");
    EXPECT_FALSE(m_pMain->IsServerRunning());
    const std::string sLog = ReadWholeFile(folder.Path("log"));
    EXPECT_NE(sLog.find("[error] Fail to register NFS daemon to external portmapper. Reason=Fail "
                        "to register socket for port 2050. Reason=Unable to register UDP for "
                        "100003 ver=3\n"),
              std::string::npos)
        << sLog;
    EXPECT_NE(sLog.find("[error] Fail to register Mount daemon to external portmapper. Reason=Fail "
                        "to register socket for port 1059. Reason=Unable to register UDP for "
                        "100005 ver=3\n"),
              std::string::npos)
        << sLog;
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_EQ(CountThreads(), iThreads);
    ExpectPortFree(EXTERNAL_NFS_PORT);
    ExpectPortFree(EXTERNAL_MOUNT_PORT);
}

TEST_F(PortmapServer, Start_RegistrationFails_WithoutALogFileIsSilent)
{
    const CAutoFd other(OccupyPort(SOCK_STREAM, PORTMAP_PORT));
    Make(LOG_CONTROL_ERROR);
    EXPECT_FALSE(Start());
    EXPECT_EQ(m_recorder.Lines(), Lines{});
    EXPECT_STREQ(m_cReason, "Fail to register NFS daemon to external portmapper. Reason=Fail to "
                            "register socket for port 2050. Reason=Unable to register UDP for "
                            "100003 ver=3");
}
