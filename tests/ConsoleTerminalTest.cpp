// The console program at a terminal.
#include <csignal>
#include <filesystem>
#include <termios.h>

#include <gtest/gtest.h>

#include "ConsoleFixture.h"

namespace {

constexpr char END_OF_INPUT[] = "\x04";  // Ctrl-D
constexpr char INTERRUPT[] = "\x03";     // Ctrl-C
constexpr char QUIT[] = "\x1c";          // Ctrl-backslash

struct TerminalState {
    explicit TerminalState(int iTerminal)
    {
        struct termios settings = {};
        EXPECT_EQ(tcgetattr(iTerminal, &settings), 0);
        iLocalFlags = settings.c_lflag;
        iInputFlags = settings.c_iflag;
        iOutputFlags = settings.c_oflag;
        iControlFlags = settings.c_cflag;
        sKeys.assign(settings.c_cc, settings.c_cc + NCCS);
        iFileFlags = fcntl(iTerminal, F_GETFL);
    }
    bool operator==(const TerminalState&) const = default;

    tcflag_t iLocalFlags;
    tcflag_t iInputFlags;
    tcflag_t iOutputFlags;
    tcflag_t iControlFlags;
    std::basic_string<cc_t> sKeys;
    int iFileFlags;
};

// As every terminal is before a program has it.
TerminalState FreshTerminal()
{
    int iMaster = -1;
    int iTerminal = -1;
    EXPECT_EQ(openpty(&iMaster, &iTerminal, nullptr, nullptr, nullptr), 0);
    const CAutoFd master(iMaster);
    const CAutoFd terminal(iTerminal);
    return TerminalState(iTerminal);
}

// The console at its first prompt. Typed lines come back as echoes, between what it prints itself;
// where lines end, a terminal makes two characters out of one.
class CTerminalConsole : public CChildProcess {
public:
    explicit CTerminalConsole(const Words& vArguments = {"-md", "int"},
                              Channel channel = Channel::TERMINAL)
        : CChildProcess(Command(vArguments), channel)
    {
        ReadUntil(PROMPT);
        if (channel == Channel::TERMINAL)
            WaitForFirstRest(Pid());
    }

    // It hears, and obeys, a command.
    void ExpectAnswer()
    {
        Write("status\n");
        ReadUntil("Server Status: ");
        ReadUntil(PROMPT);
    }

    // It says so and ends, and the terminal is as it was.
    void ExpectEnd(const char* pcLast = "\nExit", int iStatus = 0)
    {
        ReadUntil(pcLast);
        EXPECT_EQ(WaitForExit(), iStatus);
        EXPECT_EQ(TerminalState(Terminal()), FreshTerminal());
    }
};

std::string FirstWord(const std::string& sText)
{
    return sText.substr(0, sText.find('\n'));
}

}  // namespace

TEST(ConsoleTerminal, TypedCommands_AreObeyed)
{
    CTerminalConsole console;
    EXPECT_NE(TerminalState(console.Terminal()).iLocalFlags & ISIG, 0U);
    console.ExpectAnswer();
    for (const char cKey : std::string("debug\nstart\n"))
        console.Write(std::string(1, cKey));
    console.ReadUntil("Start NFS success");
    EXPECT_TRUE(IsServed(WIRE_NFS_PROG, WIRE_NFS_PORT));
    console.Write("quit\n");
    console.ExpectEnd();
}

TEST(ConsoleTerminal, LineTypedSlowly_IsOneCommand)
{
    CTerminalConsole console;
    for (const char* pcPiece : {"st", "a", "tus", "\n"}) {
        console.Write(pcPiece);
        WaitForRounds(console.Pid());
    }
    console.ReadUntil("Server Status: Stopped");
    console.Write("quit\n");
    console.ExpectEnd();
}

TEST(ConsoleTerminal, SeveralLinesAtOnce_AreAllObeyed)
{
    CTerminalConsole console;
    console.Write("debug\nmount x\nstatus\nquit\n");
    console.ReadUntil("In-valid input value: x");
    console.ReadUntil("Server Status: Stopped");
    console.ExpectEnd();
}

TEST(ConsoleTerminal, Signals_EndItAndTheSettingsComeBack)
{
    for (const int iSignal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        CTerminalConsole console;
        console.Signal(iSignal);
        console.ExpectEnd();
    }
}

TEST(ConsoleTerminal, KeysThatStop_EndItAndTheSettingsComeBack)
{
    for (const char* pcKey : {INTERRUPT, QUIT}) {
        CTerminalConsole console;
        console.Write(pcKey);
        console.ExpectEnd();
    }
}

// Whenever a signal comes in: with a line begun, or while a key is looked for.
TEST(ConsoleTerminal, KeyThatStops_AfterOtherKeys_EndsItToo)
{
    for (const char* pcKeys : {"s", "status"}) {
        CTerminalConsole console;
        console.Write(pcKeys);
        WaitForRounds(console.Pid());
        console.Write(INTERRUPT);
        console.ExpectEnd();
    }
}

TEST(ConsoleTerminal, HalfALine_DoesNotKeepASignalFromEndingIt)
{
    CTerminalConsole console;
    console.Write("stat");
    WaitForRounds(console.Pid());
    console.Signal(SIGTERM);
    console.ExpectEnd();
}

TEST(ConsoleTerminal, HalfALine_DoesNotKeepARequestFromEndingIt)
{
    CTerminalConsole console({"-md", "svr"});
    console.Write("stat");
    WaitForRounds(console.Pid());
    EXPECT_EQ(RunWith({"-shutdown"}), (Outcome{0, SERVER_VERSION_BLOCK}));
    console.ExpectEnd("\nExit by request");
}

TEST(ConsoleTerminal, Request_EndsItAndTheSettingsComeBack)
{
    CTerminalConsole console({"-md", "svr"});
    EXPECT_EQ(RunWith({"-shutdown"}), (Outcome{0, SERVER_VERSION_BLOCK}));
    console.ExpectEnd("\nExit by request");
}

TEST(ConsoleTerminal, EndOfInputTyped_DoesNotMakeItDeaf)
{
    CTerminalConsole console;
    for (int i = 0; i < 2; i++) {
        console.Write(END_OF_INPUT);
        console.ExpectAnswer();
        console.Write(END_OF_INPUT);
        WaitForRounds(console.Pid());
        console.ExpectAnswer();
    }
    console.Write("quit\n");
    console.ExpectEnd();
}

TEST(ConsoleTerminal, EndOfInputTypedInALine_DoesNotMakeItDeaf)
{
    CTerminalConsole console;
    console.Write(std::string("nothing") + END_OF_INPUT + "\n");
    WaitForRounds(console.Pid());
    console.ExpectAnswer();
    console.Write("noth");
    WaitForRounds(console.Pid());
    console.Write(END_OF_INPUT);
    WaitForRounds(console.Pid());
    console.Write(std::string("ing") + END_OF_INPUT + END_OF_INPUT + "\n");
    console.ExpectAnswer();
    console.Write("quit\n");
    console.ExpectEnd();
}

TEST(ConsoleTerminal, TerminalGone_EndsIt)
{
    const CScratchFolder folder;
    CTerminalConsole console({"-md", "int", "-pidfile", folder.Path("pid")});
    EXPECT_TRUE(std::filesystem::exists(folder.Path("pid")));
    console.CloseInput();
    console.CloseOutput();
    EXPECT_EQ(console.WaitForExit(), 0);
    EXPECT_FALSE(std::filesystem::exists(folder.Path("pid")));
}

// ---- Another job has the terminal ----

namespace {

// Its pid file tells the ID, for our child is the job in front.
class ConsoleInBackground : public testing::Test {
protected:
    ConsoleInBackground() { WaitForFirstRest(GetPid()); }

    pid_t GetPid() const { return std::stoi(FirstWord(ReadWholeFile(m_folder.Path("pid")))); }

    const CScratchFolder m_folder;
    CTerminalConsole m_console{{"-md", "svr", "-pidfile", m_folder.Path("pid")},
                               Channel::BACKGROUND};
};

}  // namespace

TEST_F(ConsoleInBackground, IsNotStopped)
{
    m_console.Write("status\n");  // not for it
    WaitForRounds(GetPid());
    const Outcome status = {0, SERVER_VERSION_BLOCK + StatusBlock(false)};
    EXPECT_EQ(RunWith({"-query"}), status);
    EXPECT_EQ(TerminalState(m_console.Terminal()), FreshTerminal());
    EXPECT_EQ(RunWith({"-shutdown"}).iStatus, 0);
    m_console.ExpectEnd("\nExit by request");
}

TEST_F(ConsoleInBackground, HearsWhatIsTypedOnceItIsInFront)
{
    m_console.Write("status\n");
    WaitForRounds(GetPid());
    m_console.BringToFront();
    m_console.ReadUntil("Server Status: Stopped");
    m_console.ReadUntil(PROMPT);
    m_console.ExpectAnswer();
    m_console.Write("quit\n");
    m_console.ExpectEnd();
}

TEST_F(ConsoleInBackground, SignalEndsIt)
{
    EXPECT_EQ(kill(GetPid(), SIGTERM), 0);
    m_console.ExpectEnd();
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("pid")));
}
