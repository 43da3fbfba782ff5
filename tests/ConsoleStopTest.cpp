// The console program told to stop by signals, also while it hangs.
#include <csignal>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <gtest/gtest.h>

#include "ConsoleFixture.h"
#include "Ports.h"

namespace {

// A server process that takes requests and answers none, so that whoever asks hangs.
class CSilentServer {
public:
    CSilentServer() : m_Listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::string(SERVER_CHANNEL).copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(
            bind(m_Listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
            0);
        EXPECT_EQ(listen(m_Listener.Get(), 5), 0);
    }
    ~CSilentServer() { unlink(SERVER_CHANNEL); }
    CSilentServer(const CSilentServer&) = delete;
    CSilentServer& operator=(const CSilentServer&) = delete;

    // Waits until the console has asked something.
    void TakeRequest(const CChildProcess& console)
    {
        m_Connection.Reset(accept4(m_Listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        char cBuffer[4096];
        EXPECT_GT(read(m_Connection.Get(), cBuffer, sizeof(cBuffer)), 0);
        WaitForFirstRest(console.Pid());
    }

private:
    const CAutoFd m_Listener;
    CAutoFd m_Connection;
};

// Waits until the process has seen the signals that it was sent.
void WaitUntilDelivered(pid_t iPid)
{
    std::string sPending = "1";
    while (sPending.find_first_not_of('0') != std::string::npos) {
        sched_yield();
        sPending = ProcessStatus(iPid, "ShdPnd");
    }
}

}  // namespace

TEST(ConsoleStop, SignalsThatStop_EndItAsQuitDoes)
{
    for (const int iSignal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        CConsole console;
        console.Type("debug");
        console.Type("start");
        console.Signal(iSignal);
        console.ExpectEnd();
        ExpectPortFree(WIRE_NFS_PORT);
        ExpectPortFree(WIRE_MOUNT_PORT);
        ExpectPortFree(WIRE_PORTMAP_PORT);
    }
}

TEST(ConsoleStop, SignalInTheMiddleOfALine_EndsItToo)
{
    CConsole console;
    console.Write("stat");
    console.WaitForRounds();
    console.Signal(SIGTERM);
    console.ExpectEnd();
}

// As "nohup" has it.
TEST(ConsoleStop, SignalIgnoredFromTheStart_StaysIgnored)
{
    CChildProcess console({"/bin/sh", "-c", "trap '' HUP; exec \"$0\" -md int", CONSOLE_PROGRAM});
    console.ReadUntil(PROMPT);
    console.Signal(SIGHUP);
    WaitForRounds(console.Pid());
    console.Write("quit\n");
    EXPECT_EQ(console.ReadToEnd(), "\nExit");
    EXPECT_EQ(console.WaitForExit(), 0);
}

// ---- A run that hangs ----

TEST(ConsoleHanging, KeyThatStops_EndsAQuestionWithoutAnAnswer)
{
    CSilentServer server;
    CChildProcess console(Command({"-query"}), Channel::TERMINAL);
    server.TakeRequest(console);
    console.Write("\x03");  // Ctrl-C
    console.ReadUntil("NotAccessible");
    EXPECT_EQ(console.WaitForExit(), 0);
}

TEST(ConsoleHanging, SignalEndsAQuestionWithoutAnAnswer)
{
    const std::pair<Words, Outcome> runs[] = {
        {{"-query"}, {0, UNKNOWN_VERSION_BLOCK + "Server Status: NotAccessible\n" + RULER}},
        {{"-shutdown"},
         {1, UNKNOWN_VERSION_BLOCK + "Terminated. Reason=Fail to get server version\n"}},
        {{"-md", "svr"},
         {1, SERVER_VERSION_BLOCK + "Terminated. Reason=Stopped while waiting for the channel\n"}},
    };
    for (const auto& [vArguments, outcome] : runs) {
        for (const int iSignal : {SIGINT, SIGTERM}) {
            CSilentServer server;
            CChildProcess console(Command(vArguments));
            server.TakeRequest(console);
            console.Signal(iSignal);
            EXPECT_EQ(console.ReadToEnd(), outcome.sOutput);
            EXPECT_EQ(console.WaitForExit(), outcome.iStatus);
        }
    }
}

namespace {

// Nobody reads what it has to say, and so it waits.
class CStuckConsole : public CConsole {
public:
    CStuckConsole()
    {
        WaitForFirstRest(Pid());
        Enter(Words(2000, "xyz"));
        while (!IsWriting())
            sched_yield();
    }

    using CChildProcess::Signal;  // it does not rest any more

private:
    bool IsWriting() const
    {
        const std::string sCall = ReadWholeFile("/proc/" + std::to_string(Pid()) + "/syscall");
        return sCall.starts_with(std::to_string(SYS_write) + " 0x1 ");
    }
};

bool IsRunning(const CChildProcess& console)
{
    return ProcessStatus(console.Pid(), "State") != "";
}

}  // namespace

TEST(ConsoleHanging, SeveralSignalsAtOnce_AreOneRequest)
{
    CStuckConsole console;
    for (const int iSignal : {SIGHUP, SIGTERM, SIGHUP, SIGTERM}) {
        console.Signal(iSignal);
        WaitUntilDelivered(console.Pid());
    }
    EXPECT_TRUE(console.ReadToEnd().ends_with(PROMPT + std::string("\nExit")));
    EXPECT_EQ(console.WaitForExit(), 0);
}

// A second later or more, that is.
TEST(ConsoleHanging, InterruptedAgain_EndsAtOnce)
{
    if (IS_THREAD_SANITIZED)
        GTEST_SKIP() << "The thread sanitizer holds signals back while a write waits";
    CStuckConsole interrupted;
    CStuckConsole quit;
    const struct rlimit none = {};
    EXPECT_EQ(prlimit(quit.Pid(), RLIMIT_CORE, &none, nullptr), 0);  // SIGQUIT leaves one
    while (IsRunning(interrupted) || IsRunning(quit)) {
        interrupted.Signal(SIGINT);
        quit.Signal(SIGQUIT);
        sched_yield();
    }
    EXPECT_EQ(interrupted.WaitForExit(), -SIGINT);
    EXPECT_EQ(quit.WaitForExit(), -SIGQUIT);
}
