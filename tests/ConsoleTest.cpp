// The console program from outside: what it prints, what it serves, how it ends.
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/resource.h>

#include <gtest/gtest.h>

#include "ConsoleFixture.h"
#include "Ports.h"

namespace {

const std::string HELP_FRAME = "==========================\n";
const std::string BASIC_HELP = "  help: display help\n"
                               "  quit: quit this program\n"
                               "  log <num>: display log messages or not\n"
                               "  status: show status\n";
const std::string EXTENDED_HELP =
    "  start <mount_port=nfs_port]: start server\n"
    "  mount <path=exportName>: add mount point\n"
    "  umount <path>: remove mount point\n"
    "  test <dirPath=fileSizeInByte>: run platform test on target file\n"
    "  logfilesize <size>: set max log file size\n"
    "  print <message>: print message to log\n"
    "  debugaction <num>: turn on/off debug action control in KVR\n"
    "  addvsphereinfo <datastore MOID> <host> <port> <user> <password>: add VSphere info\n"
    "  removevsphereinfo <datastore MOID>: remove VSphere info\n";

CReply CallNfs(uint32_t iProc, const CXdr& arguments)
{
    RpcCall call = NullCall(WIRE_NFS_PROG);
    call.iProc = iProc;
    call.sArguments = arguments.Bytes();
    return CallOnce(WIRE_NFS_PORT, call);
}

// The handle of a file in an export that is mounted for it.
std::string LookupFile(const char* pcExport, const char* pcName)
{
    CReply mount = Mount(pcExport);
    EXPECT_EQ(mount.Word(), 0U);
    CReply lookup = CallNfs(3, CXdr().Opaque(mount.Opaque()).String(pcName));
    EXPECT_EQ(lookup.Word(), 0U);
    return lookup.Opaque();
}

// The status of a WRITE of four bytes.
uint32_t WriteStatus(const std::string& sFile, uint64_t iOffset)
{
    return CallNfs(7, CXdr().Opaque(sFile).Hyper(iOffset).Word(4).Word(2).Opaque("text")).Word();
}

}  // namespace

// ---- Basic commands ----

TEST(Console, Help_ListsWhatWorksBeforeAndAfterDebug)
{
    CConsole console;
    EXPECT_EQ(console.Type("help"), HELP_FRAME + "Command:\n" + BASIC_HELP + HELP_FRAME);
    EXPECT_EQ(console.Type("debug"), "");
    EXPECT_EQ(console.Type("help"),
              HELP_FRAME + "Command:\n" + BASIC_HELP + EXTENDED_HELP + HELP_FRAME);
    EXPECT_EQ(console.Type("debug"), "");
    EXPECT_EQ(console.Type("help"),
              HELP_FRAME + "Command:\n" + BASIC_HELP + EXTENDED_HELP + HELP_FRAME);
    console.ExpectQuit();
}

TEST(Console, EmptyLine_OnlyPrompts)
{
    CConsole console;
    EXPECT_EQ(console.Type(""), "");
    EXPECT_EQ(console.Type(""), "");
}

TEST(Console, UnknownCommand_PointsToHelp)
{
    const Words vLines = {"xyz", "Help", "help ", " help", "quit now", "log", "log ", "%s%n"};
    CConsole console;
    console.Enter(vLines);
    for (const std::string& sLine : vLines)
        EXPECT_EQ(console.ReadToPrompt(), Unknown(sLine));
}

TEST(Console, ExtendedCommands_BeforeDebug_AreUnknown)
{
    const Words vLines = {"start",
                          "start 1=2",
                          "mount /tmp",
                          "mount /tmp=vm1",
                          "umount /tmp",
                          "test /tmp=1",
                          "test x",
                          "logfilesize 1",
                          "print x",
                          "debugaction 1",
                          "addvsphereinfo a b c d e",
                          "removevsphereinfo a"};
    CConsole console;
    console.Enter(vLines);
    for (const std::string& sLine : vLines)
        EXPECT_EQ(console.ReadToPrompt(), Unknown(sLine));
    EXPECT_EQ(console.Type("status"), Status(false));
}

TEST(Console, ExtendedCommands_WithoutTheirValue_AreUnknown)
{
    const Words vLines = {"mount",
                          "mount ",
                          "umount",
                          "umount ",
                          "start ",
                          "starting",
                          "test",
                          "test ",
                          "logfilesize",
                          "logfilesize ",
                          "print",
                          "print ",
                          "debugaction",
                          "debugaction ",
                          "addvsphereinfo",
                          "addvsphereinfo ",
                          "removevsphereinfo",
                          "removevsphereinfo ",
                          "Debug",
                          "debug "};
    CConsole console;
    console.Type("debug");
    console.Enter(vLines);
    for (const std::string& sLine : vLines)
        EXPECT_EQ(console.ReadToPrompt(), Unknown(sLine));
}

TEST(Console, OverlongLine_IsCutAndItsRestIsNoCommand)
{
    CConsole console;
    console.Write(std::string(4095, 'x') + "quit\n");
    EXPECT_EQ(console.ReadToPrompt(), Unknown(std::string(4095, 'x')));
    console.Write(std::string(20000, 'y') + "\n");
    EXPECT_EQ(console.ReadToPrompt(), Unknown(std::string(4095, 'y')));
    EXPECT_EQ(console.Type(std::string(4095, 'z')), Unknown(std::string(4095, 'z')));
    EXPECT_EQ(console.Type("status"), Status(false));
}

TEST(Console, SeveralLinesAtOnce_AreAllObeyed)
{
    CConsole console;
    console.Write("debug\nstatus\n\nxyz\nquit\n");
    EXPECT_EQ(console.ReadToEnd(),
              PROMPT + Status(false) + PROMPT + PROMPT + Unknown("xyz") + PROMPT + "\nExit");
    EXPECT_EQ(console.WaitForExit(), 0);
}

TEST(Console, LineInPieces_IsOneCommand)
{
    CConsole console;
    for (const char* pcPiece : {"s", "tat", "us", "\n"})
        console.Write(pcPiece);
    EXPECT_EQ(console.ReadToPrompt(), Status(false));
}

TEST(Console, LastLineWithoutNewline_IsObeyed)
{
    CConsole console;
    console.Write("quit");
    console.CloseInput();
    EXPECT_EQ(console.ReadToEnd(), "\nExit");
    EXPECT_EQ(console.WaitForExit(), 0);
}

// ---- Serving ----

TEST(Console, Start_WithoutPorts_ServesOnTheDefaults)
{
    CConsole console;
    console.Type("debug");
    EXPECT_EQ(console.Type("start"), "Start NFS success");
    EXPECT_TRUE(IsServed(WIRE_NFS_PROG, WIRE_NFS_PORT));
    EXPECT_TRUE(IsServed(WIRE_MOUNT_PROG, WIRE_MOUNT_PORT));
    EXPECT_EQ(console.Type("status"), Status(true));
    console.ExpectQuit();
    ExpectPortFree(WIRE_NFS_PORT);
    ExpectPortFree(WIRE_MOUNT_PORT);
    ExpectPortFree(WIRE_PORTMAP_PORT);
}

TEST(Console, Start_WithPorts_ServesMountOnTheFirst)
{
    CConsole console;
    console.Type("debug");
    EXPECT_EQ(console.Type("start 3058=3049"), "Start NFS success");
    EXPECT_TRUE(IsServed(WIRE_MOUNT_PROG, 3058));
    EXPECT_TRUE(IsServed(WIRE_NFS_PROG, 3049));
}

TEST(Console, Start_Twice_SaysSoAndKeepsServing)
{
    CConsole console;
    console.Type("debug");
    EXPECT_EQ(console.Type("start"), "Start NFS success");
    EXPECT_EQ(console.Type("start 3058=3049"), "NFS already running");
    EXPECT_TRUE(IsServed(WIRE_NFS_PROG, WIRE_NFS_PORT));
    ExpectPortFree(3049);
}

TEST(Console, Start_BadValue_IsShownWithoutAPromptBehindIt)
{
    CConsole console;
    console.Type("debug");
    for (const char* pcValue : {"3058", "1=2=3", "x"}) {
        console.Write(std::string("start ") + pcValue + "\n");
        EXPECT_EQ(console.Type("xyz"), std::string("Fail to start NFS. Reason=In-valid input "
                                                   "value: ") +
                                           pcValue + "\n" + Unknown("xyz"));
    }
    EXPECT_EQ(console.Type("status"), Status(false));
}

TEST(Console, Start_PortTaken_ShowsTheReason)
{
    const CAutoFd other(OccupyPort(SOCK_STREAM, WIRE_NFS_PORT));
    CConsole console;
    console.Type("debug");
    EXPECT_EQ(console.Type("start"), "Fail to start NFS. NFS daemon failed to open port 2049\n");
    EXPECT_EQ(console.Type("status"), Status(false));
}

TEST(Console, Start_NumberThatIsNoPort_ShowsTheReason)
{
    CConsole console;
    console.Type("debug");
    EXPECT_EQ(console.Type("start 0=65536"),
              "Fail to start NFS. NFS daemon failed to open port 65536\n");
    EXPECT_EQ(console.Type("start 67585=0"),
              "Fail to start NFS. Mount daemon failed to open port 67585\n");
    EXPECT_EQ(console.Type("status"), Status(false));
    ExpectPortFree(WIRE_NFS_PORT);
    ExpectPortFree(WIRE_PORTMAP_PORT);
}

TEST(Console, Mount_ListsAndServesUntilUmount)
{
    CScratchFolder folder;
    CConsole console;
    console.Type("debug");
    console.Type("start");
    EXPECT_EQ(console.Type("mount " + folder.Path() + "=vm1"), "");
    EXPECT_EQ(console.Type("status"), Status(true, {folder.Path() + " : vm1 () []"}));
    EXPECT_EQ(MountStatus("vm1"), 0U);
    EXPECT_EQ(console.Type("status"), Status(true, {folder.Path() + " : vm1 (127.0.0.1) []"}));
    EXPECT_EQ(console.Type("umount " + folder.Path()), "");
    EXPECT_EQ(console.Type("status"), Status(true));
    EXPECT_EQ(MountStatus("vm1"), 13U);
}

TEST(Console, Mount_BadValue_IsShown)
{
    CConsole console;
    console.Type("debug");
    console.Enter({"mount /tmp", "mount /tmp=vm1=vm2", "mount x y", "mount =vm1"});
    for (const char* pcValue : {"/tmp", "/tmp=vm1=vm2", "x y", "=vm1"})
        EXPECT_EQ(console.ReadToPrompt(),
                  std::string("Fail to add mount point to NFS. Reason=In-valid input value: ") +
                      pcValue + "\n");
    EXPECT_EQ(console.Type("status"), Status(false));
}

TEST(Console, Mount_Refused_ShowsTheReason)
{
    CConsole console;
    console.Type("debug");
    EXPECT_EQ(console.Type("mount /nowhere=vm1"), "");
    EXPECT_EQ(console.Type("mount /elsewhere=vm1"),
              "Fail to add mount point to NFS. Reason=Export name \"vm1\" already defined\n");
    EXPECT_EQ(console.Type("mount /elsewhere=a b"),
              "Fail to add mount point to NFS. Reason=Invalid char \" \" inside export name\n");
    EXPECT_EQ(console.Type("status"), Status(false, {"/nowhere : vm1 () []"}));
}

TEST(Console, Log_TakesEffectAtOnceInARunningServer)
{
    CConsole console;
    console.Type("debug");
    console.Type("start");
    EXPECT_TRUE(IsServed(WIRE_NFS_PROG, WIRE_NFS_PORT));
    EXPECT_EQ(console.Type("log 8"), "");
    EXPECT_TRUE(IsServed(WIRE_NFS_PROG, WIRE_NFS_PORT));
    EXPECT_EQ(console.ReadUntil("[info] (127.0.0.1) [Nfs3Prog.ProcedureNULL]\n"),
              "[info] (127.0.0.1) [Nfs3Prog.Process]\n"
              "[info] (127.0.0.1) [Nfs3Prog.ProcedureNULL]\n");
    EXPECT_EQ(console.Type("log 0"), "");
    EXPECT_TRUE(IsServed(WIRE_NFS_PROG, WIRE_NFS_PORT));
    EXPECT_EQ(console.Type("status"), Status(true));
}

// ---- What the system allows the program ----

TEST(Console, DescriptorLimit_IsRaisedAsFarAsItGoes)
{
    struct rlimit saved = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    const struct rlimit low = {64, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    const CConsole console;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    struct rlimit limit = {};
    ASSERT_EQ(prlimit(console.Pid(), RLIMIT_NOFILE, nullptr, &limit), 0);
    EXPECT_EQ(limit.rlim_cur, saved.rlim_max);
    EXPECT_EQ(limit.rlim_max, saved.rlim_max);
}

// The numbers 0 to 2 must not become a client's: what the program prints would go there.
TEST(Console, StandardChannelsThatAreClosed_AreTaken)
{
    CChildProcess console({"/bin/sh", "-c", "exec \"$0\" -md int <&- 2>&-", CONSOLE_PROGRAM});
    console.ReadUntil(PROMPT);
    const std::string sFolder = "/proc/" + std::to_string(console.Pid()) + "/fd/";
    for (const char* pcFile : {"0", "2"})
        EXPECT_EQ(std::filesystem::read_symlink(sFolder + pcFile), "/dev/null");
    // No number more than these; whoever runs the tests may have handed down others.
    std::error_code none;
    EXPECT_NE(std::filesystem::read_symlink(sFolder + "3", none), "/dev/null");
}

TEST(Console, WriteBeyondTheLimitForFiles_FailsAndTheServerGoesOn)
{
    const CScratchFolder folder;
    folder.Write("file", "data");
    CConsole console;
    console.Type("debug");
    console.Type("start");
    console.Type("mount " + folder.Path() + "=vm1");
    const std::string sFile = LookupFile("vm1", "file");
    const struct rlimit limit = {4096, 4096};
    ASSERT_EQ(prlimit(console.Pid(), RLIMIT_FSIZE, &limit, nullptr), 0);
    EXPECT_EQ(WriteStatus(sFile, 0), 0U);
    EXPECT_NE(WriteStatus(sFile, 8192), 0U);  // the system would end the process for this
    EXPECT_EQ(WriteStatus(sFile, 0), 0U);
    console.ExpectQuit();
}

TEST(Console, ReaderOfTheOutputGone_ServerGoesOn)
{
    CConsole console({"-md", "int", "-log", "12"});
    console.Type("debug");
    console.Type("start");
    console.CloseOutput();
    for (int i = 0; i < 3; i++)  // each writes lines
        EXPECT_TRUE(IsServed(WIRE_NFS_PROG, WIRE_NFS_PORT));
    console.Write("quit\n");
    EXPECT_EQ(console.WaitForExit(), 0);
}

// ---- The end ----

TEST(Console, EndOfInput_KeepsTheServerRunning)
{
    CConsole console;
    console.Type("debug");
    console.Type("start");
    console.CloseInput();
    console.WaitForRounds();
    EXPECT_TRUE(IsServed(WIRE_NFS_PROG, WIRE_NFS_PORT));
    console.Signal(SIGTERM);
    console.ExpectEnd();
    ExpectPortFree(WIRE_NFS_PORT);
}

TEST(Console, NoInputAtAll_RunsUntilItIsStopped)
{
    CConsole console;
    console.CloseInput();
    console.WaitForRounds();
    console.Signal(SIGTERM);
    console.ExpectEnd();
}

TEST(Console, Quit_WithClientsConnected_Ends)
{
    CConsole console;
    console.Type("debug");
    console.Type("start");
    CTcpClient client(WIRE_NFS_PORT);
    EXPECT_TRUE(client.Call(NullCall(WIRE_NFS_PROG)).IsReceived());
    console.ExpectQuit();
    EXPECT_TRUE(client.IsClosedByServer());
}
