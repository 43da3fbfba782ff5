// The console program from outside: what it prints, what it serves, how it ends.
#include <csignal>
#include <fstream>
#include <memory>
#include <sched.h>
#include <sys/resource.h>
#include <termios.h>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Ports.h"
#include "TestEnvironment.h"
#include "WireClient.h"

namespace {

using Words = std::vector<std::string>;

constexpr char PROMPT[] = "\nCommand: ";
constexpr char RULER[] = "------------------------------------\n";

const std::string VERSION_BLOCK = std::string(RULER) + "Execute Version: 1.2\n" +
                                  "Server Version: 1.2\n" +
                                  "Server Description: Internal NFS Server\n" + RULER;
const std::string GREETING = VERSION_BLOCK + "Type 'help' to see help\n";

const std::string BASIC_HELP = "  help: display help\n"
                               "  quit: quit this program\n"
                               "  log <num>: display log messages or not\n"
                               "  status: show status\n";

Words Command(const Words& vArguments)
{
    Words vCommand = {CONSOLE_PROGRAM};
    vCommand.insert(vCommand.end(), vArguments.begin(), vArguments.end());
    return vCommand;
}

// The console over pipes, at its first prompt.
class CConsole : public CChildProcess {
public:
    explicit CConsole(const Words& vArguments = {"-md", "int"}) : CChildProcess(Command(vArguments))
    {
        m_sGreeting = ReadToPrompt();
    }

    // What it wrote before the first prompt.
    const std::string& Greeting() const { return m_sGreeting; }

    // Everything up to the next prompt, which is left out.
    std::string ReadToPrompt()
    {
        std::string sText = ReadUntil(PROMPT);
        if (sText.ends_with(PROMPT))
            sText.resize(sText.size() - (sizeof(PROMPT) - 1));
        return sText;
    }

    // Enters a line and yields what stands between it and the next prompt.
    std::string Type(const std::string& sLine)
    {
        Write(sLine + "\n");
        return ReadToPrompt();
    }

    // Enters all lines in one go, so that the program need not rest in between; each leaves a
    // prompt to be read.
    void Enter(const Words& vLines)
    {
        std::string sText;
        for (const std::string& sLine : vLines)
            sText += sLine + "\n";
        Write(sText);
    }

    void ExpectQuit()
    {
        Write("quit\n");
        EXPECT_EQ(ReadToEnd(), "\nExit");
        EXPECT_EQ(WaitForExit(), 0);
    }

    // Waits until the program has looked for input some times and gone to rest again.
    void WaitForRounds()
    {
        const long iStart = CountRests();
        long iNow = iStart;
        while (iNow != -1 && iNow < iStart + 5) {
            sched_yield();
            iNow = CountRests();
        }
    }

private:
    // How often its only thread has waited so far; waits are the only thing it does when idle.
    long CountRests() const
    {
        std::ifstream status("/proc/" + std::to_string(Pid()) + "/status");
        std::string sLine;
        while (std::getline(status, sLine)) {
            if (sLine.starts_with("State:") && sLine.find('Z') != std::string::npos)
                break;
            if (sLine.starts_with("voluntary_ctxt_switches:"))
                return std::stol(sLine.substr(sLine.find(':') + 1));
        }
        ADD_FAILURE() << "The program has ended";
        return -1;
    }

    std::string m_sGreeting;
};

// What the program prints, and ends with, without a word from us.
struct Outcome {
    int iStatus;
    std::string sOutput;
    bool operator==(const Outcome&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome)
{
    return out << outcome.iStatus << ": " << outcome.sOutput;
}

Outcome RunWith(const Words& vArguments)
{
    CChildProcess console(Command(vArguments));
    const std::string sOutput = console.ReadToEnd();
    return {console.WaitForExit(), sOutput};
}

std::string Unknown(const std::string& sLine)
{
    return "Unknown command: '" + sLine + "'\nType 'help' to see help\n";
}

// The status of a server with so many exports, listed.
std::string Status(bool bStarted, const Words& vMounts = {})
{
    std::string sText = std::string("\nServer Status: ") + (bStarted ? "Started" : "Stopped") +
                        "\n" + RULER + "Number of Mount Point: " + std::to_string(vMounts.size()) +
                        "\n";
    for (size_t i = 0; i < vMounts.size(); i++)
        sText += " mount" + std::to_string(i + 1) + " - " + vMounts[i] + "\n";
    return sText + RULER + "Number of Session: 0\n" + RULER +
           "Number of mounted NFS datastore: 0\n" + RULER;
}

RpcCall NullCall(uint32_t iProg)
{
    RpcCall call;
    call.iProg = iProg;
    call.iVers = 3;
    return call;
}

bool IsServed(uint32_t iProg, int iPort)
{
    return CallOnce(iPort, NullCall(iProg)).IsSuccess(1);
}

CReply Mount(const char* pcName)
{
    RpcCall call = NullCall(WIRE_MOUNT_PROG);
    call.iProc = 1;
    call.sArguments = CXdr().String(pcName).Bytes();
    return CallOnce(WIRE_MOUNT_PORT, call);
}

uint32_t MountStatus(const char* pcName)
{
    return Mount(pcName).Word();
}

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

// ---- Options ----

TEST(Console, BadMode_NamesTheOptionAndFails)
{
    EXPECT_EQ(RunWith({"-md", "xyz"}), (Outcome{1, "Un-supported mode: -md\n"}));
    EXPECT_EQ(RunWith({"-id", "a", "-md", ""}), (Outcome{1, "Un-supported mode: -md\n"}));
}

TEST(Console, ModesThatAreNotThereYet_Fail)
{
    EXPECT_EQ(RunWith({"-md", "svr"}), (Outcome{1, "Un-supported access mode: 1\n"}));
    EXPECT_EQ(RunWith({"-md", "cli"}), (Outcome{1, "Un-supported access mode: 2\n"}));
}

TEST(Console, NoMode_IsTheServerProcess)
{
    const Outcome server = {1, "Un-supported access mode: 1\n"};
    EXPECT_EQ(RunWith({}), server);
    EXPECT_EQ(RunWith({"-id", "a"}), server);
    EXPECT_EQ(RunWith({"-md"}), server) << "An option without its value ends the scan";
    EXPECT_EQ(RunWith({"-what", "-md", "int"}), server) << "The unknown option takes the next word";
}

TEST(Console, EmptyID_EndsWithTheReason)
{
    EXPECT_EQ(RunWith({"-md", "int", "-id", ""}),
              (Outcome{1, VERSION_BLOCK + "Terminated. Reason=ID is not defined\n"}));
}

TEST(Console, ArgumentsBeyondTheBuffer_AreRefused)
{
    EXPECT_EQ(RunWith({"-id", std::string(4096, 'x'), "-md", "int"}),
              (Outcome{1, "Too many arguments\n"}));
}

TEST(Console, Arguments_FillTheBufferToItsLastByte)
{
    // With a newline behind each of the four words.
    const std::string sId(4095 - std::string("-md\nint\n-id\n\n").length(), 'x');
    CConsole console({"-md", "int", "-id", sId});
    EXPECT_EQ(console.Greeting(), GREETING);
    console.ExpectQuit();
    EXPECT_EQ(RunWith({"-md", "int", "-id", sId + "x"}), (Outcome{1, "Too many arguments\n"}));
}

TEST(Console, InternalMode_PrintsVersionsAndTheFirstPrompt)
{
    CConsole console;
    EXPECT_EQ(console.Greeting(), GREETING);
    console.ExpectQuit();
}

TEST(Console, UnknownOption_SwallowsAWord)
{
    CConsole console({"-what", "-md", "-md", "int", "-last"});
    EXPECT_EQ(console.Greeting(), GREETING);
    console.ExpectQuit();
}

TEST(Console, IdAndLog_AppearInTheFirstAndLastLines)
{
    CConsole console({"-id", "me", "-log", "2", "-md", "int"});
    EXPECT_EQ(console.Greeting(),
              VERSION_BLOCK +
                  "[info] (me) [NfsMain.StartRemoteController] No remote controller to start. It "
                  "is NOT support in internal server mode.\nType 'help' to see help\n");
    console.Write("quit\n");
    EXPECT_EQ(console.ReadToEnd(),
              "\nExit[info] (me) [NfsMain.StopRemoteController] No remote controller to stop. It "
              "is NOT support in internal server mode.\n");
    EXPECT_EQ(console.WaitForExit(), 0);
}

TEST(Console, Id_DefaultsToItsOwn)
{
    CConsole console({"-log", "2", "-md", "int", "-id"});
    EXPECT_NE(console.Greeting().find("[info] (cRun) "), std::string::npos);
}

// ---- Basic commands ----

TEST(Console, Help_ListsWhatWorksBeforeAndAfterDebug)
{
    const std::string sFrame = "==========================\n";
    CConsole console;
    EXPECT_EQ(console.Type("help"), sFrame + "Command:\n" + BASIC_HELP + sFrame);
    EXPECT_EQ(console.Type("debug"), "");
    EXPECT_EQ(console.Type("help"), sFrame + "Command:\n" + BASIC_HELP +
                                        "  start <mount_port=nfs_port]: start server\n"
                                        "  mount <path=exportName>: add mount point\n"
                                        "  umount <path>: remove mount point\n" +
                                        sFrame);
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
    const Words vLines = {"start", "start 1=2", "mount /tmp", "mount /tmp=vm1", "umount /tmp"};
    CConsole console;
    console.Enter(vLines);
    for (const std::string& sLine : vLines)
        EXPECT_EQ(console.ReadToPrompt(), Unknown(sLine));
    EXPECT_EQ(console.Type("status"), Status(false));
}

TEST(Console, ExtendedCommands_WithoutTheirValue_AreUnknown)
{
    const Words vLines = {"mount", "mount ", "umount", "umount ", "start ", "starting"};
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
    EXPECT_EQ(console.ReadToEnd(), "");
    EXPECT_EQ(console.WaitForExit(), -SIGTERM);
}

TEST(Console, NoInputAtAll_RunsUntilItIsStopped)
{
    CConsole console;
    console.CloseInput();
    console.WaitForRounds();
    console.Signal(SIGTERM);
    EXPECT_EQ(console.WaitForExit(), -SIGTERM);
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

// ---- At a terminal ----

namespace {

struct TerminalState {
    explicit TerminalState(int iTerminal)
    {
        struct termios settings = {};
        EXPECT_EQ(tcgetattr(iTerminal, &settings), 0);
        iLocalFlags = settings.c_lflag;
        iInputFlags = settings.c_iflag;
        iOutputFlags = settings.c_oflag;
        iMinimum = settings.c_cc[VMIN];
        iFileFlags = fcntl(iTerminal, F_GETFL);
    }
    bool operator==(const TerminalState&) const = default;

    tcflag_t iLocalFlags;
    tcflag_t iInputFlags;
    tcflag_t iOutputFlags;
    cc_t iMinimum;
    int iFileFlags;
};

}  // namespace

TEST(ConsoleTerminal, TypedCommands_WorkAndSettingsComeBack)
{
    CChildProcess console(Command({"-md", "int"}), Channel::TERMINAL);
    const TerminalState before(console.Terminal());
    EXPECT_NE(before.iLocalFlags & (ICANON | ECHO), 0U);
    console.ReadUntil("Command: ");
    console.Write("status\n");
    console.ReadUntil("Server Status: Stopped");
    console.ReadUntil("Command: ");
    for (const char cKey : std::string("debug\nstart\n"))
        console.Write(std::string(1, cKey));
    console.ReadUntil("Start NFS success");
    EXPECT_TRUE(IsServed(WIRE_NFS_PROG, WIRE_NFS_PORT));
    console.Write("quit\n");
    console.ReadUntil("Exit");
    EXPECT_EQ(console.WaitForExit(), 0);
    EXPECT_EQ(TerminalState(console.Terminal()), before);
}
