#include "VSphereWebController.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "FileLogger.h"
#include "HelperStandIn.h"
#include "NfsMain.h"
#include "Text.h"
#include "Utilities.h"
#include "WatchedThread.h"
#include "WireClient.h"

using Lines = std::vector<std::string>;

namespace {

constexpr size_t MAX_COMMAND = 1023;  // bytes that fit

class VSphereWebController : public testing::Test {
protected:
    void Remove(const std::string& sMoid) { RemoveWith("secret", sMoid); }

    void RemoveWith(const std::string& sPwd, const std::string& sMoid = "d")
    {
        m_controller.RemoveSession(sMoid.c_str(), "esx", "443", "root", sPwd.c_str());
    }

    // A password that makes the command line so many bytes long.
    static std::string Padding(const std::string& sHelper, size_t iLength)
    {
        const std::string sRest = "\"" + sHelper +
                                  "\" -host esx -port 443 -user root -pwd  -method "
                                  "removeDatastore -argu d";
        EXPECT_LT(sRest.length(), iLength);
        return std::string(iLength - sRest.length(), 'x');
    }

    static bool HasRoom(const std::string& sPwd)
    {
        return CVSphereWebController::HasRoom("d", "esx", "443", "root", sPwd.c_str());
    }

    CHelperStandIn m_helper;
    CHelperGate m_gate;
    CVSphereWebController m_controller;
};

// Sets a variable of the environment for the length of a block.
class CVariable {
public:
    CVariable(const char* pcName, const std::string& sValue) : m_pcName(pcName)
    {
        if (const char* pcBefore = getenv(pcName); pcBefore != nullptr)
            m_sBefore = pcBefore;
        setenv(pcName, sValue.c_str(), 1);
    }
    ~CVariable()
    {
        if (m_sBefore.has_value())
            setenv(m_pcName, m_sBefore->c_str(), 1);
        else
            unsetenv(m_pcName);
    }
    CVariable(const CVariable&) = delete;
    CVariable& operator=(const CVariable&) = delete;

private:
    const char* m_pcName;
    std::optional<std::string> m_sBefore;
};

// Helpers without a folder are looked for where this folder is the first.
std::string PathBefore(const std::string& sFolder)
{
    return sFolder + ":" + getenv("PATH");
}

// Sets what a signal does for the length of a block.
class CDisposition {
public:
    CDisposition(int iSignal, void (*pHandler)(int)) : m_iSignal(iSignal)
    {
        struct sigaction action = {};  // without SA_RESTART: system calls are interrupted
        action.sa_handler = pHandler;
        sigaction(iSignal, &action, &m_Before);
    }
    ~CDisposition() { sigaction(m_iSignal, &m_Before, nullptr); }
    CDisposition(const CDisposition&) = delete;
    CDisposition& operator=(const CDisposition&) = delete;

private:
    const int m_iSignal;
    struct sigaction m_Before = {};
};

// The line of this process's status with that name, as it is for the calling thread.
std::string StatusLine(const std::string& sName)
{
    const std::string sStatus = ReadWholeFile("/proc/thread-self/status");
    const size_t iBegin = sStatus.find("\n" + sName + ":") + 1;
    return sStatus.substr(iBegin, sStatus.find('\n', iBegin) - iBegin);
}

// The bits of such a line; all of them if it is none.
unsigned long Signals(const std::string& sLine)
{
    const size_t iColon = sLine.find(':');
    return iColon == std::string::npos ? ~0UL : std::stoul(sLine.substr(iColon + 1), nullptr, 16);
}

}  // namespace

// ---- The command line ----

TEST_F(VSphereWebController, RemoveSession_RunsTheHelperOnceWithTheValuesInOrder)
{
    m_controller.RemoveSession("d", "h", "443", "u", "p");
    EXPECT_EQ(m_helper.Record(), Lines{"run [-host] [h] [-port] [443] [-user] [u] [-pwd] [p] "
                                       "[-method] [removeDatastore] [-argu] [d]"});
}

TEST_F(VSphereWebController, RemoveSession_ShellIsGivenTheLineAsItIs)
{
    // The name of the helper tells a shell of the test's own from the rest of the line.
    m_helper.Install("note \"$0\"");
    Remove("d");
    EXPECT_EQ(m_helper.Record(), (Lines{HelperRun("d"), m_helper.Path()}));
}

TEST_F(VSphereWebController, RemoveSession_AnyValueNull_RunsNothing)
{
    for (size_t i = 0; i < 5; i++) {
        std::array<const char*, 5> values = {"d", "esx", "443", "root", "secret"};
        values[i] = nullptr;
        testing::internal::CaptureStderr();  // not even a shell, which would not like "(null)"
        m_controller.RemoveSession(values[0], values[1], values[2], values[3], values[4]);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << i;
        EXPECT_EQ(m_helper.Record(), Lines{}) << i;
    }
    Remove("d");
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d")});
}

TEST_F(VSphereWebController, RemoveSession_EmptyValues_LeaveTheirPlacesEmpty)
{
    m_controller.RemoveSession("", "", "", "", "");
    EXPECT_EQ(m_helper.Record(),
              Lines{"run [-host] [-port] [-user] [-pwd] [-method] [removeDatastore] [-argu]"});
}

TEST_F(VSphereWebController, RemoveSession_BlankInThePassword_MakesTwoArguments)
{
    RemoveWith("two words");
    EXPECT_EQ(m_helper.Record(), Lines{"run [-host] [esx] [-port] [443] [-user] [root] [-pwd] "
                                       "[two] [words] [-method] [removeDatastore] [-argu] [d]"});
}

TEST_F(VSphereWebController, RemoveSession_CharactersOfTheShell_AreTheShells)
{
    const CVariable variable("STAND_IN_WORD", "expanded");
    const std::string sSame = HelperRun("d", "esx", "443", "root", "two words");
    RemoveWith("$STAND_IN_WORD");
    RemoveWith("\"two words\"");
    RemoveWith("'two words'");
    RemoveWith("two\\ words");
    RemoveWith("%s%n");  // no format
    EXPECT_EQ(m_helper.Record(),
              (Lines{HelperRun("d", "esx", "443", "root", "expanded"), sSame, sSame, sSame,
                     HelperRun("d", "esx", "443", "root", "%s%n")}));
}

TEST_F(VSphereWebController, RemoveSession_BytesBeyondAscii_ArriveAsTheyAre)
{
    RemoveWith("p\xC3\xA4ss\xFF");
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d", "esx", "443", "root", "p\xC3\xA4ss\xFF")});
}

// ---- Where the helper is looked for ----

TEST_F(VSphereWebController, RemoveSession_FolderWithBlanks_IsFound)
{
    const CHelperStandIn helper("my programs/a  b/host program");
    Remove("d");
    EXPECT_EQ(helper.Record(), Lines{HelperRun("d")});
    EXPECT_EQ(m_helper.Record(), Lines{});
}

TEST_F(VSphereWebController, RemoveSession_NameRelativeToTheWorkingFolder_IsFoundFromThere)
{
    const CAutoFd before(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));  // it may have no path here
    std::filesystem::current_path(m_helper.Folder().Path());
    SetProgramName("./program");
    Remove("d1");
    std::filesystem::create_directory("below");
    SetProgramName("below/../program");
    Remove("d2");
    ASSERT_EQ(fchdir(before.Get()), 0);
    EXPECT_EQ(m_helper.Record(), (Lines{HelperRun("d1"), HelperRun("d2")}));
}

TEST_F(VSphereWebController, RemoveSession_NameWithoutAFolder_LeavesTheSearchToTheShell)
{
    m_helper.InstallAt(m_helper.Folder().Path(std::string("foo") + HELPER_NAME), "note appended");
    const CVariable path("PATH", PathBefore(m_helper.Folder().Path()));
    SetProgramName("foo");
    Remove("d");
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d")});
}

TEST_F(VSphereWebController, RemoveSession_EmptyName_LeavesTheSearchToTheShell)
{
    const CVariable path("PATH", PathBefore(m_helper.Folder().Path()));
    SetProgramName("");
    Remove("d");
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d")});
}

TEST_F(VSphereWebController, RemoveSession_FurtherArguments_DoNotCount)
{
    const CVariable path("PATH", PathBefore(m_helper.Folder().Path()));
    SetProgramName(std::string("foo\0/folder/argument", 20));
    Remove("d");
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d")});
}

TEST_F(VSphereWebController, RemoveSession_NameInTheRoot_KeepsItsSlash)
{
    const std::string sHelper = std::string("/") + HELPER_NAME;
    SetProgramName("/program");
    EXPECT_TRUE(HasRoom(Padding(sHelper, MAX_COMMAND)));
    EXPECT_FALSE(HasRoom(Padding(sHelper, MAX_COMMAND + 1)));
}

TEST_F(VSphereWebController, RemoveSession_LongName_RunsWhereItHasRoom)
{
    const std::string sFolder = m_helper.Folder().Path();
    SetProgramName(sFolder + std::string(700, '/') + "program");
    Remove("d1");
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d1")});
    SetProgramName(sFolder + "/" + std::string(PROGRAM_NAME_ROOM - 100, 'p'));
    Remove("d2");  // the rest of the name is cut, wherever it ends
    EXPECT_EQ(m_helper.Record(), (Lines{HelperRun("d1"), HelperRun("d2")}));
    for (const size_t iSlashes : {1000U, 4095U, 4096U, 5000U}) {
        SetProgramName(sFolder + std::string(iSlashes, '/') + "program");
        EXPECT_FALSE(HasRoom("secret")) << iSlashes;
        Remove("d3");
    }
    EXPECT_EQ(m_helper.Record(), (Lines{HelperRun("d1"), HelperRun("d2")}));
}

// ---- Room for the command line ----

TEST_F(VSphereWebController, RemoveSession_AsLongAsTheBufferAllows_ReachesTheHelperWhole)
{
    const std::string sPwd = Padding(m_helper.Path(), MAX_COMMAND);
    EXPECT_TRUE(HasRoom(sPwd));
    RemoveWith(sPwd);
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d", "esx", "443", "root", sPwd)});
}

TEST_F(VSphereWebController, RemoveSession_OneByteMore_RunsNothing)
{
    EXPECT_EQ(CVSphereWebController::COMMAND_SIZE, MAX_COMMAND + 1);
    const std::string sPwd = Padding(m_helper.Path(), MAX_COMMAND + 1);
    EXPECT_FALSE(HasRoom(sPwd));
    RemoveWith(sPwd);
    EXPECT_EQ(m_helper.Record(), Lines{});
    Remove("d");
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d")});
}

TEST_F(VSphereWebController, RemoveSession_AnyValueTooLong_RunsNothing)
{
    for (const size_t iLength : {1024U, 5000U, 1000000U}) {
        const std::string sLong(iLength, 'x');
        for (size_t i = 0; i < 5; i++) {
            std::array<const char*, 5> values = {"d", "esx", "443", "root", "secret"};
            values[i] = sLong.c_str();
            EXPECT_FALSE(CVSphereWebController::HasRoom(values[0], values[1], values[2], values[3],
                                                        values[4]));
            m_controller.RemoveSession(values[0], values[1], values[2], values[3], values[4]);
        }
    }
    EXPECT_EQ(m_helper.Record(), Lines{});
}

// ---- Helpers in trouble ----

TEST_F(VSphereWebController, RemoveSession_WithoutAHelper_LeavesWhatTheShellSays)
{
    m_helper.Remove();
    testing::internal::CaptureStderr();
    Remove("d");
    const std::string sSaid = testing::internal::GetCapturedStderr();
    EXPECT_NE(sSaid.find(m_helper.Path()), std::string::npos) << sSaid;
    EXPECT_EQ(sSaid.find("secret"), std::string::npos) << sSaid;

    m_helper.Install();
    Remove("d");
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d")});
}

TEST_F(VSphereWebController, RemoveSession_HelperThatMayNotRun_LeavesWhatTheShellSays)
{
    ASSERT_EQ(chmod(m_helper.Path().c_str(), 0644), 0);
    testing::internal::CaptureStderr();
    Remove("d");
    const std::string sSaid = testing::internal::GetCapturedStderr();
    EXPECT_NE(sSaid.find("denied"), std::string::npos) << sSaid;
    EXPECT_EQ(m_helper.Record(), Lines{});
}

TEST_F(VSphereWebController, RemoveSession_HelperThatFails_IsRunOnceAndTheNextToo)
{
    for (const char* pcScript : {"exit 3", "kill -KILL $$", "kill -TERM $$", "exit 127"}) {
        const Lines vBefore = m_helper.Record();
        m_helper.Install(pcScript);
        testing::internal::CaptureStderr();  // the shell says what became of it
        Remove("d1");
        Remove("d2");
        testing::internal::GetCapturedStderr();
        const Lines vRecord = m_helper.Record();
        EXPECT_EQ(Lines(vRecord.begin() + static_cast<ptrdiff_t>(vBefore.size()), vRecord.end()),
                  (Lines{HelperRun("d1"), HelperRun("d2")}))
            << pcScript;
    }
}

TEST_F(VSphereWebController, RemoveSession_HelperThatPrintsMuch_IsNotHeldUp)
{
    constexpr size_t MIB = 1024 * 1024;
    m_helper.Install("head -c 1048576 /dev/zero; head -c 1048576 /dev/zero >&2; note end");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Remove("d");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string(MIB, '\0'));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string(MIB, '\0'));
    EXPECT_EQ(m_helper.Record(), (Lines{HelperRun("d"), "end"}));
}

TEST_F(VSphereWebController, RemoveSession_WaitsForTheEndOfTheHelper)
{
    m_helper.Install(m_gate.Script() + "\nnote end");
    CWatchedThread caller([this] { Remove("d"); });
    m_gate.WaitUntilHeld();
    EXPECT_TRUE(caller.WaitUntilAsleep());
    EXPECT_EQ(m_helper.Record(), Lines{HelperRun("d")});
    m_gate.LetGo();
    caller.Join();
    EXPECT_EQ(m_helper.Record(), (Lines{HelperRun("d"), "end"}));
}

// ---- At the same time ----

TEST_F(VSphereWebController, RemoveSession_TwiceOnOneObject_RunsOneHelperAfterTheOther)
{
    m_helper.Install(m_gate.Script() + "\nnote end");
    CWatchedThread first([this] { Remove("d1"); });
    m_gate.WaitUntilHeld();
    CWatchedThread second([this] { Remove("d2"); });
    EXPECT_TRUE(second.WaitUntilAsleep());
    EXPECT_FALSE(second.HasChild());
    m_gate.LetGo();
    m_gate.WaitUntilHeld();  // that is the second one
    EXPECT_EQ(m_helper.Record(), (Lines{HelperRun("d1"), "end", HelperRun("d2")}));
    m_gate.LetGo();
    first.Join();
    second.Join();
    EXPECT_EQ(m_helper.Record(), (Lines{HelperRun("d1"), "end", HelperRun("d2"), "end"}));
}

TEST_F(VSphereWebController, RemoveSession_ManyOnOneObject_NeverRunTogether)
{
    constexpr size_t THREADS = 4;
    constexpr size_t ROUNDS = 5;
    m_helper.Install("note end");
    {
        std::vector<std::unique_ptr<CWatchedThread>> vThreads;
        for (size_t i = 0; i < THREADS; i++)
            vThreads.push_back(std::make_unique<CWatchedThread>([this] {
                for (size_t iRound = 0; iRound < ROUNDS; iRound++)
                    Remove("d");
            }));
    }
    Lines vWanted;
    for (size_t i = 0; i < THREADS * ROUNDS; i++)
        vWanted.insert(vWanted.end(), {HelperRun("d"), "end"});
    EXPECT_EQ(m_helper.Record(), vWanted);
}

TEST_F(VSphereWebController, RemoveSession_OnTwoObjects_MayRunTogether)
{
    m_helper.Install(m_gate.Script());
    CVSphereWebController other;
    CWatchedThread first([this] { Remove("d"); });
    CWatchedThread second([&other] { other.RemoveSession("d", "esx", "443", "root", "secret"); });
    m_gate.WaitUntilHeld();
    m_gate.WaitUntilHeld();
    EXPECT_EQ(m_helper.Record(), (Lines{HelperRun("d"), HelperRun("d")}));
    m_gate.LetGo();
    m_gate.LetGo();
}

TEST_F(VSphereWebController, RemoveSession_SignalsMeanwhile_DoNotCutTheWaitShort)
{
    const CDisposition handler(SIGUSR1, [](int) {});
    m_helper.Install(m_gate.Script() + "\nnote end");
    CWatchedThread caller([this] { Remove("d"); });
    m_gate.WaitUntilHeld();
    for (int i = 0; i < 5; i++) {
        EXPECT_TRUE(caller.WaitUntilAsleep());
        caller.Signal(SIGUSR1);
    }
    EXPECT_TRUE(caller.WaitUntilAsleep());
    m_gate.LetGo();
    caller.Join();
    EXPECT_EQ(m_helper.Record(), (Lines{HelperRun("d"), "end"}));
}

// The end of a child is not told to such a process, but waited for all the same.
TEST_F(VSphereWebController, RemoveSession_ProcessThatIgnoresItsChildren_WaitsToo)
{
    const CDisposition ignored(SIGCHLD, SIG_IGN);
    m_helper.Install(m_gate.Script() + "\nnote end");
    CWatchedThread caller([this] { Remove("d"); });
    m_gate.WaitUntilHeld();
    EXPECT_TRUE(caller.WaitUntilAsleep());
    m_gate.LetGo();
    caller.Join();
    EXPECT_EQ(m_helper.Record(), (Lines{HelperRun("d"), "end"}));
}

// ---- What the helper has of this process ----

TEST_F(VSphereWebController, RemoveSession_WhileAServerRuns_HelperHasNoDescriptorOfIt)
{
    ASSERT_EQ(close_range(3, ~0U, CLOSE_RANGE_CLOEXEC), 0);  // what the test was started with
    const std::string sFile = m_helper.Folder().Write("file", "contents");
    CFileLogger logger(m_helper.Folder().Path("log").c_str());
    ASSERT_TRUE(logger.Open(0));
    CNfsMain main("host", 0);
    main.SetFileLogger(&logger);
    char cReason[REASON_SIZE] = "";
    ASSERT_TRUE(main.StartServer(0, 0, 0, 0, false, cReason)) << cReason;
    ASSERT_TRUE(main.AddMountPoint(m_helper.Folder().Path().c_str(), "vm1", cReason)) << cReason;
    LogArgu argu = {"Test"};
    ASSERT_NE(
        main.GetUtils()->GetCachedFileHandle(main.GetRuntimeParam(), &argu, sFile.c_str(), false),
        -1);
    RpcCall call;
    call.iProg = WIRE_NFS_PROG;
    call.iVers = 3;
    CTcpClient client(NFS_PORT);
    EXPECT_TRUE(client.Call(call).IsReceived());

    // The fourth is that of the listing itself.
    const std::string sListing = m_helper.Folder().Path("descriptors");
    m_helper.Install("ls /proc/self/fd >'" + sListing + "'");
    const size_t iDescriptors = CountDescriptors();
    Remove("d");
    EXPECT_EQ(ReadWholeFile(sListing), "0\n1\n2\n3\n");
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_TRUE(client.Call(call).IsReceived());
    main.SetFileLogger(nullptr);
}

// The shell may clear its mask, and two signals are the threads library's own business.
TEST_F(VSphereWebController, RemoveSession_Signals_AreBlockedAndIgnoredNoFurtherThanInTheCaller)
{
    constexpr unsigned long OF_THREADS = 3UL << 31;
    const std::string sBlocked = m_helper.Folder().Path("blocked");
    const std::string sIgnored = m_helper.Folder().Path("ignored");
    m_helper.Install("grep SigBlk /proc/self/status >'" + sBlocked + "'\ngrep SigIgn " +
                     "/proc/self/status >'" + sIgnored + "'");
    sigset_t signals;
    sigset_t before;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &signals, &before), 0);
    const std::string sOwnBlocked = StatusLine("SigBlk");
    const std::string sOwnIgnored = StatusLine("SigIgn");
    Remove("d");
    EXPECT_EQ(StatusLine("SigBlk"), sOwnBlocked);
    EXPECT_EQ(StatusLine("SigIgn"), sOwnIgnored);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(Signals(ReadWholeFile(sBlocked)) & ~Signals(sOwnBlocked), 0UL);
    EXPECT_EQ(Signals(ReadWholeFile(sIgnored)) & ~Signals(sOwnIgnored) & ~OF_THREADS, 0UL);
}

TEST_F(VSphereWebController, RemoveSession_ManyTimes_LeavesNothingBehind)
{
    Remove("d");
    const size_t iDescriptors = CountDescriptors();
    const size_t iThreads = CountThreads();
    for (int i = 0; i < 20; i++)
        Remove("d");
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_EQ(CountThreads(), iThreads);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "A child was left unreaped";
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(m_helper.Record().size(), 21U);
}
