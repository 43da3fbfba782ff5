// The controller of a server process.
#include "NfsIpcServerMain.h"

#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <thread>

#include <gtest/gtest.h>

#include "FileLogger.h"
#include "IpcFixture.h"
#include "RuntimeParam.h"

namespace {

constexpr char CHANNEL[] = "/tmp/nfs-server";
constexpr int LOG_EVERYTHING = 0x3FF;

class NfsIpcServerMain : public testing::Test {
protected:
    void SetUp() override { Make("svr"); }

    void TearDown() override
    {
        m_pMain.reset();
        EXPECT_FALSE(std::filesystem::exists(CHANNEL));
    }

    // A sanitizer may have a thread of its own from the first one on.
    static void SetUpTestSuite()
    {
        std::thread([] {}).join();
    }

    void Make(const char* pcID, int iLogControl = LOG_CONTROL_ERROR)
    {
        m_pMain = std::make_unique<CNfsIpcServerMain>(pcID, iLogControl);
        m_pMain->SetCallback(&m_recorder);
    }

    void Start()
    {
        ASSERT_TRUE(m_pMain->StartRemoteController(m_cReason)) << m_cReason;
        EXPECT_STREQ(m_cReason, "");
    }

    void ExpectServed()
    {
        EXPECT_TRUE(SameReply(Exchange(CHANNEL, Request(2)), MsgReply("External NFS Server")));
    }

    // The reason that a controller of this ID gives for not starting.
    std::string GetInitialReason(const char* pcID)
    {
        CNfsIpcServerMain main(pcID, 0);
        char cReason[REASON_SIZE] = "";
        const bool bDone = main.Initial(cReason);
        EXPECT_EQ(bDone, cReason[0] == '\0') << pcID;
        EXPECT_EQ(main.Initial(nullptr), bDone) << pcID;
        return cReason;
    }

    // Lines of the log file without the time in front.
    Lines ReadLog()
    {
        Lines vLines;
        std::ifstream file(m_folder.Path("log"));
        for (std::string sLine; std::getline(file, sLine);)
            vLines.push_back(sLine.substr(sLine.find(']') + 1));
        return vLines;
    }

    CScratchFolder m_folder;
    CLogRecorder m_recorder;
    char m_cReason[REASON_SIZE] = "";
    std::unique_ptr<CNfsIpcServerMain> m_pMain;
};

// A process of another kind at the channel, which tells nobody its version.
class CStranger {
public:
    CStranger() : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        CopyText(address.sun_path, sizeof(address.sun_path), CHANNEL);
        EXPECT_EQ(
            bind(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(m_socket.Get(), 1), 0);
        m_thread = std::thread([this] {
            for (;;) {
                const CAutoFd connection(accept(m_socket.Get(), nullptr, nullptr));
                if (connection.Get() == -1)
                    return;
                char cRequest[64];
                const std::string sReply = BoolReply(true);
                if (recv(connection.Get(), cRequest, sizeof(cRequest), 0) > 0)
                    send(connection.Get(), sReply.data(), sReply.size(), MSG_NOSIGNAL);
            }
        });
    }
    ~CStranger()
    {
        shutdown(m_socket.Get(), SHUT_RDWR);
        m_thread.join();
    }
    CStranger(const CStranger&) = delete;
    CStranger& operator=(const CStranger&) = delete;

private:
    const CAutoFd m_socket;
    std::thread m_thread;
};

}  // namespace

// ---- Who it is ----

TEST_F(NfsIpcServerMain, Constructed_IsAServerThatOthersDrive)
{
    char cDescription[DESCRIPTION_SIZE];
    char cVersion[DESCRIPTION_SIZE];
    char cChannel[IPC_CHANNEL_SIZE];
    m_pMain->GetDescription(cDescription);
    m_pMain->GetVersion(cVersion);
    m_pMain->GetIpcServerThreadChannel(cChannel);
    EXPECT_EQ(m_pMain->GetAccessMode(), 1);
    EXPECT_STREQ(cDescription, "External NFS Server");
    EXPECT_STREQ(cVersion, "1.2");
    EXPECT_STREQ(cChannel, CHANNEL);
    EXPECT_STREQ(m_pMain->GetRuntimeParam()->GetID(), "svr");
    EXPECT_EQ(m_pMain->GetRuntimeParam()->GetLogControl(), LOG_CONTROL_ERROR);
    EXPECT_FALSE(m_pMain->IsServerRunning());
    EXPECT_FALSE(std::filesystem::exists(CHANNEL));
}

TEST_F(NfsIpcServerMain, Initial_IDsThatAChannelCannotBear_AreRefused)
{
    EXPECT_EQ(GetInitialReason("server"), "Cannot use \"server\" as ID");
    EXPECT_EQ(GetInitialReason("a b"), "Invalid char \" \" inside ID");
    EXPECT_EQ(GetInitialReason("a/b"), "Invalid char \"/\" inside ID");
    EXPECT_EQ(GetInitialReason("/a b"), "Invalid char \"/\" inside ID");
    EXPECT_EQ(GetInitialReason("a b/"), "Invalid char \" \" inside ID");
    EXPECT_EQ(GetInitialReason("server "), "Invalid char \" \" inside ID");
    EXPECT_EQ(GetInitialReason(""), "ID is not defined");
    EXPECT_EQ(GetInitialReason(nullptr), "ID is not defined");
}

TEST_F(NfsIpcServerMain, Initial_OtherIDs_AreTaken)
{
    for (const char* pcID : {"svr", "Server", "server1", "aserver", "a-b_c.d", "\xc3\xa4"})
        EXPECT_EQ(GetInitialReason(pcID), "");
}

// ---- The channel ----

TEST_F(NfsIpcServerMain, StartRemoteController_ServesTheChannelUntilItIsStopped)
{
    const size_t iDescriptors = CountDescriptors();
    const size_t iThreads = CountLiveThreads();
    Start();
    EXPECT_EQ(CountLiveThreads(), iThreads + 1);
    struct stat info = {};
    ASSERT_EQ(stat(CHANNEL, &info), 0);
    EXPECT_EQ(info.st_mode, static_cast<mode_t>(S_IFSOCK | 0777));
    ExpectServed();
    m_pMain->StopRemoteController();
    EXPECT_FALSE(std::filesystem::exists(CHANNEL));
    EXPECT_EQ(CountLiveThreads(), iThreads);
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(NfsIpcServerMain, StartRemoteController_Twice_IsStartedOnce)
{
    Start();
    const size_t iThreads = CountLiveThreads();
    Start();
    EXPECT_EQ(CountLiveThreads(), iThreads);
    ExpectServed();
}

TEST_F(NfsIpcServerMain, StopAndStart_ServeAgain)
{
    for (int i = 0; i < 3; i++) {
        Start();
        ExpectServed();
        m_pMain->StopRemoteController();
        m_pMain->StopRemoteController();
        EXPECT_FALSE(std::filesystem::exists(CHANNEL));
    }
}

TEST_F(NfsIpcServerMain, Destructor_StopsByItself)
{
    m_pMain.reset();
    const size_t iDescriptors = CountDescriptors();
    const size_t iThreads = CountLiveThreads();
    Make("svr");
    Start();
    ExpectServed();
    ExpectReturns("The destructor", [this] { m_pMain.reset(); });
    EXPECT_FALSE(std::filesystem::exists(CHANNEL));
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_EQ(CountLiveThreads(), iThreads);
}

TEST_F(NfsIpcServerMain, Destructor_SilentPeers_DoNotHoldIt)
{
    Start();
    CIpcPeer silent(CHANNEL);
    CIpcPeer half(CHANNEL);
    half.Send(Request(1).substr(0, 7));
    ExpectServed();
    std::vector<std::unique_ptr<CIpcPeer>> vMore;
    for (int i = 0; i < 200; i++)
        vMore.push_back(std::make_unique<CIpcPeer>(CHANNEL));
    ExpectReturns("The destructor", [this] { m_pMain.reset(); });
    EXPECT_EQ(silent.Read(), "");
}

TEST_F(NfsIpcServerMain, StartRemoteController_ChannelOfAnotherServer_IsLeftToIt)
{
    Start();
    CNfsIpcServerMain second("svr2", LOG_EVERYTHING & ~LOG_CONTROL_IPC & ~LOG_CONTROL_IPC_STATE);
    second.SetCallback(&m_recorder);
    for (int i = 0; i < 2; i++) {
        char cReason[REASON_SIZE] = "";
        EXPECT_FALSE(second.StartRemoteController(cReason));
        EXPECT_STREQ(cReason, "Ipc channel is already created by others.");
        EXPECT_FALSE(second.StartRemoteController(nullptr));
    }
    EXPECT_EQ(m_recorder.Lines(), Lines{});
    second.StopRemoteController();
    ExpectServed();

    m_pMain->StopRemoteController();
    EXPECT_TRUE(second.StartRemoteController(m_cReason)) << m_cReason;
    ExpectServed();
}

TEST_F(NfsIpcServerMain, StartRemoteController_AsksOnceForTheVersionOfAnotherServer)
{
    Make("svr", LOG_CONTROL_IPC);
    Start();
    m_recorder.Clear();
    CNfsIpcServerMain second("svr2", 0);
    EXPECT_FALSE(second.StartRemoteController(m_cReason));
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"info|svr|[IpcServer.ReadRequest] Request action group (type = 1, ver = 1.2, "
                     "dataLen = 16)",
                     "info|svr|[IpcServer.ReadRequest] Reply action group (type = 5, ver = 1.2, "
                     "dataLen = 2064)"}));
}

TEST_F(NfsIpcServerMain, StartRemoteController_StaleChannel_IsReplaced)
{
    {
        CStranger left;
    }
    ASSERT_TRUE(std::filesystem::exists(CHANNEL));
    Start();
    ExpectServed();
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(NfsIpcServerMain, StartRemoteController_FileAtTheChannel_IsReplaced)
{
    std::ofstream(CHANNEL) << "left";
    Start();
    ExpectServed();
}

TEST_F(NfsIpcServerMain, StartRemoteController_OwnerWithoutAVersion_LosesTheChannel)
{
    const CStranger other;
    Start();
    ExpectServed();
}

TEST_F(NfsIpcServerMain, StartRemoteController_Fails_SaysSoAndCountsAsStarted)
{
    std::filesystem::create_directory(CHANNEL);
    const std::string sReason = "Fail to bind ipc server socket. Address already in use (98)";
    EXPECT_FALSE(m_pMain->StartRemoteController(m_cReason));
    EXPECT_EQ(m_cReason, sReason);
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"error|svr|[NfsIpcServerMain.StartRemoteController] Fail to start ipc server "
                     "thread. Reason=" +
                     sReason}));

    // Nothing is tried any more, though it would do.
    std::filesystem::remove(CHANNEL);
    m_recorder.Clear();
    EXPECT_TRUE(m_pMain->StartRemoteController(nullptr));
    EXPECT_FALSE(std::filesystem::exists(CHANNEL));
    EXPECT_EQ(m_recorder.Lines(), Lines{});

    m_pMain->StopRemoteController();
    m_cReason[0] = '\0';
    Start();
    ExpectServed();
}

TEST_F(NfsIpcServerMain, StartRemoteController_FailsWithoutTheErrorBit_IsSilent)
{
    Make("svr", LOG_EVERYTHING & ~LOG_CONTROL_ERROR);
    std::filesystem::create_directory(CHANNEL);
    EXPECT_FALSE(m_pMain->StartRemoteController(nullptr));
    EXPECT_EQ(m_recorder.Count("error|"), 0U);
    EXPECT_EQ(m_recorder.Count("Fail to start"), 0U);
    std::filesystem::remove(CHANNEL);
}

TEST_F(NfsIpcServerMain, FileLogger_HasALineForEachStartAndStop)
{
    CFileLogger logger(m_folder.Path("log").c_str());
    ASSERT_TRUE(logger.Open(0));
    m_pMain->SetCallback(nullptr);
    m_pMain->SetFileLogger(&logger);
    Start();
    Start();
    m_pMain->StopRemoteController();
    m_pMain->StopRemoteController();
    m_pMain->SetFileLogger(nullptr);
    EXPECT_EQ(ReadLog(), (Lines{"[info] Start Remote Controller", "[info] Start Remote Controller",
                                "[info] Stop Remote Controller", "[info] Stop Remote Controller"}));
}

TEST_F(NfsIpcServerMain, WithoutAFileLogger_TheseLinesAreNotWritten)
{
    Make("svr", LOG_EVERYTHING);
    Start();
    m_pMain->StopRemoteController();
    EXPECT_EQ(m_recorder.Count("Start Remote Controller"), 0U);
    EXPECT_EQ(m_recorder.Count("Stop Remote Controller"), 0U);
    EXPECT_EQ(m_recorder.Count("No remote controller"), 0U);
}

// ---- What others can have it do ----

TEST_F(NfsIpcServerMain, AutoShutdown_IsPassedOnOnlyWhereItIsEnabled)
{
    Start();
    EXPECT_TRUE(SameReply(Exchange(CHANNEL, Request(22)), BoolReply(false)));
    ExpectServed();
    EXPECT_FALSE(m_pMain->IsAutoShutdownRequested());
    m_pMain->EnableAutoShutdown(true);
    EXPECT_TRUE(SameReply(Exchange(CHANNEL, Request(22)), BoolReply(true)));
    ExpectReturns("The wait for the request", [this] {
        while (!m_pMain->IsAutoShutdownRequested())
            std::this_thread::yield();
    });
    ExpectReturns("StopRemoteController", [this] { m_pMain->StopRemoteController(); });
}

TEST_F(NfsIpcServerMain, Requests_DriveTheController)
{
    Start();
    const std::string sStart =
        Request(4) + Int32(0) + Int32(0) + Int32(0) + Int32(0) + Flag(0) + Pad(3);
    EXPECT_TRUE(SameReply(Exchange(CHANNEL, sStart), BoolReply(true)));
    EXPECT_TRUE(m_pMain->IsServerRunning());
    EXPECT_TRUE(SameReply(Exchange(CHANNEL, Request(23)), IntReply(3)));
    EXPECT_TRUE(SameReply(Exchange(CHANNEL, Request(18) + Int32(0)), BoolReply(true)));
    EXPECT_EQ(m_pMain->GetRuntimeParam()->GetLogControl(), 0);
    m_pMain->StopServer();
    EXPECT_TRUE(SameReply(Exchange(CHANNEL, Request(23)), IntReply(1)));
}
