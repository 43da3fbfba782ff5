// The command line: what each option does, the log file and the pid file of a run.
#include <csignal>
#include <filesystem>
#include <sstream>

#include <gtest/gtest.h>

#include "ConsoleFixture.h"
#include "SmallDisk.h"

namespace {

const std::string USAGE_END =
    " [-help]\n"
    "       [-shutdown]\n"
    "       [-query]\n"
    "       [-test <path=max_file_size>]\n"
    "       [-id <name>] [-log <num>] [-md <int|svr|cli>] [-logfile <path>] [-pidfile <path>]\n";

constexpr char AUTO_SHUTDOWN[] = "Auto shutdown is activated, terminate now";
constexpr char ABSENT[] = "Terminated. Reason=Fail to get server version\n";

std::string NoRemoteController(const char* pcID)
{
    return std::string("[info] (") + pcID +
           ") [NfsMain.StartRemoteController] No remote controller to start. It is NOT support in "
           "internal server mode.\n";
}

// The lines of a log file without their times.
std::string ReadLog(const std::string& sPath)
{
    constexpr size_t TIME_LENGTH = 21;  // "[2026/01/31 23:59:59]"
    std::istringstream file(ReadWholeFile(sPath));
    std::string sTexts;
    for (std::string sLine; std::getline(file, sLine);)
        sTexts += sLine.substr(std::min(TIME_LENGTH, sLine.length())) + "\n";
    return sTexts;
}

// A process ID that nobody has any more.
pid_t GetDeadPid()
{
    CChildProcess child({"/bin/true"});
    const pid_t iPid = child.Pid();
    EXPECT_EQ(child.WaitForExit(), 0);
    return iPid;
}

// What stands in the pid file of a console that was started with sBefore in it.
class PidFile : public testing::Test {
protected:
    std::string GetPath() const { return m_folder.Path("pid"); }
    bool Exists() const { return std::filesystem::exists(GetPath()); }
    Words Arguments(const char* pcMode = "int") const
    {
        return {"-md", pcMode, "-pidfile", GetPath()};
    }

    // A run that finds sBefore in the file goes on with its own ID in it.
    void ExpectReplaced(const std::string& sBefore)
    {
        m_folder.Write("pid", sBefore);
        CConsole console(Arguments());
        EXPECT_EQ(console.Greeting(), GREETING) << sBefore;
        EXPECT_EQ(ReadWholeFile(GetPath()), std::to_string(console.Pid()) + "\n") << sBefore;
        console.ExpectQuit();
        EXPECT_FALSE(Exists()) << sBefore;
    }

    const CScratchFolder m_folder;
};

}  // namespace

// ---- Usage ----

TEST(ConsoleOptions, Help_PrintsTheUsage)
{
    EXPECT_EQ(RunWith({"-help"}),
              (Outcome{0, std::string("\nUsage: ") + CONSOLE_PROGRAM + USAGE_END}));
}

TEST(ConsoleOptions, Help_WithABackslashInTheProgramsName_ShowsWhatFollowsTheLast)
{
    const CScratchFolder folder;
    const std::string sProgram = folder.Path("one\\two/x\\three");
    std::filesystem::create_directory(folder.Path("one\\two"));
    std::filesystem::create_symlink(CONSOLE_PROGRAM, sProgram);
    EXPECT_EQ(RunCommand({sProgram, "-help"}), (Outcome{0, "\nUsage: three" + USAGE_END}));
}

TEST(ConsoleOptions, Help_BehindOthers_EndsTheRunAtOnce)
{
    const CScratchFolder folder;
    const Outcome usage = {0, std::string("\nUsage: ") + CONSOLE_PROGRAM + USAGE_END};
    EXPECT_EQ(
        RunWith({"-md", "int", "-pidfile", folder.Path("pid"), "-shutdown", "-help", "-md", "xyz"}),
        usage);
    EXPECT_FALSE(std::filesystem::exists(folder.Path("pid")));
}

TEST(ConsoleOptions, Help_AsAValue_IsNone)
{
    CConsole console({"-md", "int", "-id", "-help", "-what", "-help"});
    EXPECT_EQ(console.Greeting(), GREETING);
    console.ExpectQuit();
}

// ---- Words ----

TEST(ConsoleOptions, BadMode_NamesTheOptionAndFails)
{
    EXPECT_EQ(RunWith({"-md", "xyz"}), (Outcome{1, "Un-supported mode: -md\n"}));
    EXPECT_EQ(RunWith({"-id", "a", "-md", ""}), (Outcome{1, "Un-supported mode: -md\n"}));
    EXPECT_EQ(RunWith({"-md", "xyz", "-help"}), (Outcome{1, "Un-supported mode: -md\n"}));
}

TEST(ConsoleOptions, BadTest_ShowsTheValueAndFails)
{
    for (const char* pcValue : {"", "/tmp", "100", "-md"})
        EXPECT_EQ(RunWith({"-test", pcValue}),
                  (Outcome{1, std::string("In-valid test mode value: ") + pcValue + "\n"}));
}

TEST(ConsoleOptions, NoMode_IsTheServerProcess)
{
    const Words vCommandLines[] = {
        {},
        {"-id", "a"},
        {"-md"},                 // without its value, at the end
        {"-what", "-md", "int"}  // the unknown one takes the next word
    };
    for (const Words& vArguments : vCommandLines) {
        CConsole console(vArguments);
        EXPECT_EQ(console.Greeting(), SERVER_GREETING);
        EXPECT_TRUE(std::filesystem::exists(SERVER_CHANNEL));
        console.ExpectQuit();
        EXPECT_FALSE(std::filesystem::exists(SERVER_CHANNEL));
    }
}

TEST(ConsoleOptions, InternalMode_HasNoChannel)
{
    CConsole console;
    EXPECT_EQ(console.Greeting(), GREETING);
    EXPECT_FALSE(std::filesystem::exists(SERVER_CHANNEL));
    console.ExpectQuit();
}

TEST(ConsoleOptions, UnknownOption_SwallowsAWord)
{
    CConsole console({"-what", "-md", "-md", "int", "-last"});
    EXPECT_EQ(console.Greeting(), GREETING);
    console.ExpectQuit();
}

TEST(ConsoleOptions, OptionWithoutItsValueAtTheEnd_IsPassedOver)
{
    for (const char* pcOption : {"-id", "-log", "-md", "-logfile", "-pidfile", "-test"}) {
        CConsole console({"-md", "int", pcOption});
        EXPECT_EQ(console.Greeting(), GREETING) << pcOption;
        console.ExpectQuit();
    }
}

TEST(ConsoleOptions, OptionGivenTwice_IsTheLast)
{
    CConsole console(
        {"-md", "cli", "-id", "one", "-log", "0", "-log", "2", "-id", "two", "-md", "int"});
    EXPECT_EQ(console.Greeting(), VERSION_BLOCK + NoRemoteController("two") + HELP_HINT);
}

TEST(ConsoleOptions, ArgumentsBeyondTheBuffer_AreRefused)
{
    EXPECT_EQ(RunWith({"-id", std::string(4096, 'x'), "-md", "int"}),
              (Outcome{1, "Too many arguments\n"}));
}

TEST(ConsoleOptions, Arguments_FillTheBufferToItsLastByte)
{
    // With a newline behind each of the four words.
    const std::string sId(4095 - std::string("-md\nint\n-id\n\n").length(), 'x');
    CConsole console({"-md", "int", "-id", sId});
    EXPECT_EQ(console.Greeting(), GREETING);
    console.ExpectQuit();
    EXPECT_EQ(RunWith({"-md", "int", "-id", sId + "x"}), (Outcome{1, "Too many arguments\n"}));
}

// ---- IDs ----

TEST(ConsoleOptions, EmptyID_EndsWithTheReason)
{
    EXPECT_EQ(RunWith({"-md", "int", "-id", ""}),
              (Outcome{1, VERSION_BLOCK + "Terminated. Reason=ID is not defined\n"}));
    EXPECT_EQ(RunWith({"-md", "svr", "-id", ""}),
              (Outcome{1, SERVER_VERSION_BLOCK + "Terminated. Reason=ID is not defined\n"}));
}

TEST(ConsoleOptions, IDThatIsNoneForAProcessWithAChannel_EndsWithTheReason)
{
    const std::string sTerminated = SERVER_VERSION_BLOCK + "Terminated. Reason=";
    EXPECT_EQ(RunWith({"-md", "svr", "-id", "server"}),
              (Outcome{1, sTerminated + "Cannot use \"server\" as ID\n"}));
    EXPECT_EQ(RunWith({"-md", "svr", "-id", "a b/c"}),
              (Outcome{1, sTerminated + "Invalid char \" \" inside ID\n"}));
    EXPECT_EQ(RunWith({"-md", "svr", "-id", "a/b c"}),
              (Outcome{1, sTerminated + "Invalid char \"/\" inside ID\n"}));
    EXPECT_FALSE(std::filesystem::exists(SERVER_CHANNEL));
}

TEST(ConsoleOptions, IdAndLog_AppearInTheFirstAndLastLines)
{
    CConsole console({"-id", "me", "-log", "2", "-md", "int"});
    EXPECT_EQ(console.Greeting(), VERSION_BLOCK + NoRemoteController("me") + HELP_HINT);
    console.Write("quit\n");
    console.ExpectEnd("\nExit[info] (me) [NfsMain.StopRemoteController] No remote controller to "
                      "stop. It is NOT support in internal server mode.\n");
}

TEST(ConsoleOptions, LogBits_SelectTheLines)
{
    EXPECT_EQ(CConsole({"-md", "int", "-log", "1021"}).Greeting(), GREETING);  // all but 2
    EXPECT_EQ(CConsole({"-md", "int", "-log", "x2"}).Greeting(), GREETING);
    EXPECT_EQ(CConsole({"-md", "int", "-log", "6x"}).Greeting(),
              VERSION_BLOCK + NoRemoteController("cRun") + HELP_HINT);
}

TEST(ConsoleOptions, Id_DefaultsToWhatTheRunIsFor)
{
    CConsole console({"-log", "2", "-md", "int", "-id"});
    EXPECT_EQ(console.Greeting(), VERSION_BLOCK + NoRemoteController("cRun") + HELP_HINT);

    const std::string sTest = VERSION_BLOCK + NoRemoteController("tmRun");
    const Outcome test = RunWith({"-log", "2", "-md", "int", "-test", "/tmp=0"});
    EXPECT_TRUE(test.sOutput.starts_with(sTest)) << test;

    // Nobody to talk to, which each says under its ID; the last that applies wins.
    const std::pair<Words, const char*> runs[] = {
        {{"-shutdown"}, "shRun"},           {{"-query"}, "qyRun"},
        {{"-query", "-shutdown"}, "qyRun"}, {{"-test", "/tmp=0", "-query", "-shutdown"}, "tmRun"},
        {{"-md", "cli"}, "cRun"},           {{"-query", "-id", "mine"}, "mine"},
    };
    for (const auto& [vOptions, pcID] : runs) {
        Words vArguments = vOptions;
        vArguments.insert(vArguments.end(), {"-log", "1"});
        const std::string sLine = std::string("[erro] (") + pcID +
                                  ") [IpcClient.SendRequest] Fail to connect ipc client socket. "
                                  "No such file or directory (2)\n";
        const std::string sOutput = RunWith(vArguments).sOutput;
        EXPECT_TRUE(sOutput.starts_with(sLine + sLine + UNKNOWN_VERSION_BLOCK)) << sOutput;
    }
}

// ---- One thing instead of commands ----

TEST(ConsoleOptions, Shutdown_InAServersMode_EndsAtOnce)
{
    for (const char* pcMode : {"svr", "int"}) {
        const CScratchFolder folder;
        const Outcome outcome = RunWith({"-shutdown", "-md", pcMode, "-pidfile", folder.Path("pid"),
                                         "-logfile", folder.Path("log")});
        EXPECT_EQ(outcome, (Outcome{0, AUTO_SHUTDOWN})) << pcMode;
        EXPECT_TRUE(std::filesystem::is_empty(folder.Path())) << pcMode;
        EXPECT_FALSE(std::filesystem::exists(SERVER_CHANNEL)) << pcMode;
    }
}

TEST(ConsoleOptions, WithoutAServer_AClientEndsWithTheReason)
{
    const Outcome absent = {1, UNKNOWN_VERSION_BLOCK + ABSENT};
    EXPECT_EQ(RunWith({"-md", "cli"}), absent);
    EXPECT_EQ(RunWith({"-shutdown"}), absent);
    EXPECT_EQ(RunWith({"-md", "cli", "-test", "/tmp=0"}), absent);
    EXPECT_FALSE(std::filesystem::exists("/tmp/nfs-cRun"));
}

TEST(ConsoleOptions, Query_WithoutAServer_SaysSo)
{
    const Outcome inaccessible = {0,
                                  UNKNOWN_VERSION_BLOCK + "Server Status: NotAccessible\n" + RULER};
    EXPECT_EQ(RunWith({"-query"}), inaccessible);
    EXPECT_EQ(RunWith({"-md", "cli", "-query", "-shutdown"}), inaccessible);
}

TEST(ConsoleOptions, Query_InAServersMode_ShowsItsOwnStatus)
{
    EXPECT_EQ(RunWith({"-md", "int", "-query"}), (Outcome{0, VERSION_BLOCK + StatusBlock(false)}));
    EXPECT_EQ(RunWith({"-md", "svr", "-query"}),
              (Outcome{0, SERVER_VERSION_BLOCK + StatusBlock(false)}));
    EXPECT_FALSE(std::filesystem::exists(SERVER_CHANNEL));
}

TEST(ConsoleOptions, Test_EndsWithoutAPrompt)
{
    const CScratchFolder folder;
    for (const char* pcMode : {"int", "svr"}) {
        for (const char* pcSize : {"=100", "=", "=1=2"}) {
            const Outcome outcome = RunWith({"-md", pcMode, "-test", folder.Path() + pcSize});
            EXPECT_EQ(outcome.iStatus, 0) << outcome;
            EXPECT_EQ(outcome.sOutput.find(PROMPT), std::string::npos) << outcome;
            EXPECT_EQ(outcome.sOutput.find("Terminated"), std::string::npos) << outcome;
        }
    }
    EXPECT_FALSE(std::filesystem::exists(SERVER_CHANNEL));
}

TEST(ConsoleOptions, Test_AsAClient_LeavesTheServerRunning)
{
    const CScratchFolder folder;
    CConsole server({"-md", "svr"});
    const Outcome outcome = RunWith({"-md", "cli", "-test", folder.Path() + "=100"});
    EXPECT_EQ(outcome.iStatus, 0);
    EXPECT_TRUE(outcome.sOutput.starts_with(SERVER_VERSION_BLOCK)) << outcome;
    EXPECT_FALSE(std::filesystem::exists("/tmp/nfs-tmRun"));
    EXPECT_TRUE(server.Type("status").ends_with(Status(false)));
}

// ---- The log file ----

TEST(ConsoleOptions, LogFile_TellsTheRunFromStartToEnd)
{
    const CScratchFolder folder;
    const std::string sPid = folder.Path("pid");
    const std::string sLog = folder.Path("new/log");
    CConsole console({"-md", "int", "-id", "me", "-log", "1", "-logfile", sLog, "-pidfile", sPid});
    EXPECT_EQ(console.Greeting(), GREETING);
    EXPECT_EQ(ReadLog(sLog), "[info] ID = me, LogControl = 1, AccessMode = 0\n"
                             "[info] Create pid file \"" +
                                 sPid +
                                 "\"\n"
                                 "[info] Initial NFS\n"
                                 "[info] Start Remote Controller\n");
    std::filesystem::resize_file(sLog, 0);
    console.Type("debug");
    EXPECT_EQ(console.Type("start"), "Start NFS success");
    console.ExpectQuit();
    EXPECT_EQ(ReadLog(sLog), "[info] Start NFS with internal portmapper: MountPort = 1058, "
                             "NfsPort = 2049\n"
                             "[info] Stop NFS\n"
                             "[info] Stop Remote Controller\n"
                             "[info] Terminate NFS\n");
}

TEST(ConsoleOptions, LogFile_OfAServerProcess)
{
    const CScratchFolder folder;
    const std::string sLog = folder.Path("log");
    CConsole console({"-logfile", sLog});
    EXPECT_EQ(console.Greeting(), SERVER_GREETING);
    console.ExpectQuit();
    EXPECT_EQ(ReadLog(sLog), "[info] ID = cRun, LogControl = 0, AccessMode = 1\n"
                             "[info] Initial NFS\n"
                             "[info] Start Remote Controller\n"
                             "[info] Stop Remote Controller\n"
                             "[info] Terminate NFS\n");
}

TEST(ConsoleOptions, LogFile_OfAnEarlierRun_IsContinued)
{
    const CScratchFolder folder;
    const std::string sLog = folder.Write("log", "before\n");
    EXPECT_EQ(RunWith({"-query", "-logfile", sLog}).iStatus, 0);
    const std::string sFile = ReadWholeFile(sLog);
    EXPECT_TRUE(sFile.starts_with("before\n[")) << sFile;
    EXPECT_TRUE(sFile.ends_with("[info] ID = qyRun, LogControl = 0, AccessMode = 2\n")) << sFile;
}

TEST(ConsoleOptions, LogFile_ThatCannotBeOpened_IsDoneWithout)
{
    const CScratchFolder folder;
    const std::string& sLog = folder.Path();
    CConsole console({"-md", "int", "-logfile", sLog});
    EXPECT_EQ(console.Greeting(), "[erro] () [FileLogger.Open] OS open file \"" + sLog +
                                      "\". Error=Is a directory (21)\n"
                                      "[erro] () Fail to create log file \"" +
                                      sLog +
                                      "\". Reason=Is a directory (21)\n"
                                      "Fail to create log file: " +
                                      sLog + "\n" + GREETING);
    console.Type("debug");
    EXPECT_EQ(console.Type("print hello"), "[info] (cRun) hello\n");
    console.ExpectQuit();
}

// ---- The pid file ----

TEST_F(PidFile, HoldsTheOwnIDUntilTheEnd)
{
    CConsole console(Arguments());
    EXPECT_EQ(console.Greeting(), GREETING);
    EXPECT_EQ(ReadWholeFile(GetPath()), std::to_string(console.Pid()) + "\n");
    console.ExpectQuit();
    EXPECT_FALSE(Exists());
}

TEST_F(PidFile, GoesOnEverySignalThatStops)
{
    for (const int iSignal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        CConsole console(Arguments("svr"));
        EXPECT_TRUE(Exists());
        console.Signal(iSignal);
        console.ExpectEnd();
        EXPECT_FALSE(Exists()) << iSignal;
        EXPECT_FALSE(std::filesystem::exists(SERVER_CHANNEL)) << iSignal;
    }
}

TEST_F(PidFile, GoesWhenTheRunEndsByRequest)
{
    CConsole console(Arguments("svr"));
    EXPECT_TRUE(Exists());
    EXPECT_EQ(RunWith({"-shutdown"}).iStatus, 0);
    console.ExpectEnd("\nExit by request");
    EXPECT_FALSE(Exists());
}

TEST_F(PidFile, GoesWhenTheRunFails)
{
    Words vArguments = Arguments("svr");
    vArguments.insert(vArguments.end(), {"-id", "server"});
    EXPECT_EQ(RunWith(vArguments).iStatus, 1);
    EXPECT_FALSE(Exists());
    EXPECT_EQ(RunWith(Arguments("cli")), (Outcome{1, UNKNOWN_VERSION_BLOCK + ABSENT}));
    EXPECT_FALSE(Exists());
}

TEST_F(PidFile, OfALivingProcess_StopsTheStart)
{
    const std::string sOurs = std::to_string(getpid());
    for (const char* pcEnd : {"\n", "", "\r\n"}) {
        m_folder.Write("pid", sOurs + pcEnd);
        EXPECT_EQ(RunWith(Arguments()),
                  (Outcome{1, "Fail to create pid file \"" + GetPath() +
                                  "\". Reason=Process ID \"" + sOurs + "\" is still running\n"}));
        EXPECT_EQ(ReadWholeFile(GetPath()), sOurs + pcEnd);
    }
}

TEST_F(PidFile, OfARunningConsole_IsItsOwn)
{
    CConsole first(Arguments("svr"));
    const std::string sFirst = std::to_string(first.Pid());
    EXPECT_EQ(RunWith(Arguments("svr")),
              (Outcome{1, "Fail to create pid file \"" + GetPath() + "\". Reason=Process ID \"" +
                              sFirst + "\" is still running\n"}));
    EXPECT_EQ(ReadWholeFile(GetPath()), sFirst + "\n");
    EXPECT_EQ(first.Type("status"), Status(false));
}

TEST_F(PidFile, WithoutALivingProcess_IsReplaced)
{
    const std::string sDead = std::to_string(GetDeadPid());
    for (const std::string& sBefore :
         {sDead + "\n", sDead + "\r\n", sDead, std::string(), std::string("\n"),
          std::string("\r\n"), std::string("garbage\n"), std::string("0\n"), std::string("-1\n"),
          std::string(10000, 'x')})
        ExpectReplaced(sBefore);
}

// Left behind by a process that died and had the ID which is now the console's.
TEST_F(PidFile, WithTheOwnID_IsReplaced)
{
    CChildProcess console({"/bin/sh", "-c", "echo $$ > \"$1\"; exec \"$0\" -md int -pidfile \"$1\"",
                           CONSOLE_PROGRAM, GetPath()});
    EXPECT_EQ(console.ReadUntil(PROMPT), GREETING + PROMPT);
    EXPECT_EQ(ReadWholeFile(GetPath()), std::to_string(console.Pid()) + "\n");
    console.Write("quit\n");
    EXPECT_EQ(console.ReadToEnd(), "\nExit");
    EXPECT_EQ(console.WaitForExit(), 0);
    EXPECT_FALSE(Exists());
}

TEST_F(PidFile, InAMissingFolder_FailsTheStart)
{
    const std::string sPath = m_folder.Path("missing/pid");
    const std::string sReason = "No such file or directory (2)\n";
    EXPECT_EQ(RunWith({"-md", "int", "-pidfile", sPath}),
              (Outcome{1, "[erro] () [ConsoleUtilities.CreatePidFile] OS create file \"" + sPath +
                              "\". Error=" + sReason + "[erro] () Fail to create pid file \"" +
                              sPath + "\". Reason=" + sReason + "Fail to create pid file \"" +
                              sPath + "\". Reason=" + sReason}));
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("missing")));
}

// Least of all is such a thing removed.
TEST_F(PidFile, ThatIsNoFile_FailsTheStart)
{
    for (const std::string& sPath : {m_folder.Path(), std::string("/dev/full")}) {
        EXPECT_EQ(
            RunWith({"-md", "int", "-pidfile", sPath}),
            (Outcome{1, "Fail to create pid file \"" + sPath + "\". Reason=Not a regular file\n"}));
        EXPECT_TRUE(std::filesystem::exists(sPath));
    }
}

TEST_F(PidFile, ThatCannotBeRemoved_FailsTheStart)
{
    m_folder.Write("pid", "garbage\n");
    const CHeldFile held(GetPath());
    const std::string sReason = "Device or resource busy (16)\n";
    EXPECT_EQ(RunWith(Arguments()),
              (Outcome{1, "[erro] () [ConsoleUtilities.CreatePidFile] OS remove file \"" +
                              GetPath() + "\". Error=" + sReason + "Fail to create pid file \"" +
                              GetPath() + "\". Reason=" + sReason}));
    EXPECT_EQ(ReadWholeFile(GetPath()), "garbage\n");
}

TEST_F(PidFile, ThatCannotBeRemovedAtTheEnd_IsALineOnly)
{
    CConsole console(Arguments());
    const CHeldFile held(GetPath());
    console.Write("quit\n");
    console.ExpectEnd("\nExit[erro] () [ConsoleUtilities.RemovePidFile] OS remove file \"" +
                      GetPath() + "\". Error=Device or resource busy (16)\n");
}

TEST_F(PidFile, ThatIsGoneAtTheEnd_IsNoMatter)
{
    CConsole console(Arguments());
    EXPECT_TRUE(std::filesystem::remove(GetPath()));
    console.ExpectQuit();
}

TEST_F(PidFile, OnAFullDisk_FailsTheStartAndLeavesNoFile)
{
    CSmallDisk disk;
    disk.Fill();
    const std::string sPath = disk.Path("pid");
    const std::string sReason = "No space left on device (28)\n";
    const Outcome outcome = RunWith({"-md", "int", "-pidfile", sPath});
    EXPECT_EQ(outcome.iStatus, 1);
    EXPECT_TRUE(outcome.sOutput.ends_with(
        "Error=" + sReason + "[erro] () Fail to create pid file \"" + sPath +
        "\". Reason=" + sReason + "Fail to create pid file \"" + sPath + "\". Reason=" + sReason))
        << outcome;
    EXPECT_FALSE(std::filesystem::exists(sPath));
}

TEST_F(PidFile, WithTheFileAccessBit_TellsEachStep)
{
    m_folder.Write("pid", "garbage\n");
    Words vArguments = Arguments();
    vArguments.insert(vArguments.end(), {"-log", "256"});
    CConsole console(vArguments);
    const std::string sLabel = "[info] () [ConsoleUtilities.CreatePidFile] OS ";
    EXPECT_TRUE(console.Greeting().starts_with(sLabel + "open file \"" + GetPath() + "\"\n"))
        << console.Greeting();
    for (const char* pcStep : {"remove file \"", "create file \""})
        EXPECT_NE(console.Greeting().find(sLabel + pcStep + GetPath() + "\"\n"), std::string::npos)
            << console.Greeting();
    console.Write("quit\n");
    console.ExpectEnd("\nExit[info] () [ConsoleUtilities.RemovePidFile] OS remove file \"" +
                      GetPath() + "\"\n");
}
