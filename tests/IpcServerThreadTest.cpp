// A thread that serves a local channel.
#include "IpcServerThread.h"

#include <atomic>
#include <dlfcn.h>
#include <filesystem>
#include <pthread.h>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "IpcFixture.h"
#include "LogWaiter.h"
#include "NfsIpcServerMain.h"
#include "RuntimeParam.h"
#include "Sanitizers.h"

#ifndef STAGENFS_SANITIZED

namespace {

std::atomic<bool> g_bRefuseThread = false;  // the next one

}  // namespace

// Stands before the C library's in this program, to refuse.
extern "C" __attribute__((visibility("default"))) int
pthread_create(pthread_t* pThread, const pthread_attr_t* pAttributes, void* (*pRun)(void*),
               void* pArgument) noexcept
{
    using Function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    if (g_bRefuseThread.exchange(false))
        return EAGAIN;
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_create"))(pThread, pAttributes,
                                                                          pRun, pArgument);
}

#endif

namespace {

constexpr int SILENT_PEERS = 200;  // more than are kept
constexpr int KEPT_PEERS = 100;    // fewer than are kept

// Its status cannot be had.
class CThrowingMain : public CNfsIpcServerMain {
public:
    using CNfsIpcServerMain::CNfsIpcServerMain;

    int GetServerStatus() override { throw std::runtime_error("no status"); }
};

class IpcServerThread : public testing::Test {
protected:
    IpcServerThread()
    {
        signal(SIGPIPE, SIG_DFL);
        m_main.SetCallback(&m_recorder);
    }

    // A sanitizer may have a thread of its own from the first one on.
    static void SetUpTestSuite()
    {
        std::thread([] {}).join();
    }

    void Open() { ASSERT_TRUE(m_thread.Open(m_sChannel.c_str(), &m_main, m_cError)) << m_cError; }

    // It must not matter who stays connected.
    void Close()
    {
        ExpectReturns("Close", [this] { m_thread.Close(); });
        EXPECT_FALSE(m_thread.IsActive());
        EXPECT_FALSE(std::filesystem::exists(m_sChannel));
    }

    void ExpectServed()
    {
        EXPECT_TRUE(SameReply(Exchange(m_sChannel, Request(1)), MsgReply("1.2")));
    }

    CScratchFolder m_folder;
    const std::string m_sChannel = m_folder.Path("channel");
    CLogWaiter m_recorder;
    char m_cError[REASON_SIZE] = "";
    CThrowingMain m_main{"svr", LOG_CONTROL_ERROR};
    CIpcServerThread m_thread;
};

}  // namespace

TEST_F(IpcServerThread, NotOpened_IsNotActive)
{
    EXPECT_FALSE(m_thread.IsActive());
    m_thread.Close();
    EXPECT_FALSE(m_thread.IsActive());
}

TEST_F(IpcServerThread, Open_ServesOneExchangeAfterAnother)
{
    Open();
    EXPECT_TRUE(m_thread.IsActive());
    for (int i = 0; i < 50; i++)
        ExpectServed();
    EXPECT_TRUE(m_thread.IsActive());
    Close();
}

TEST_F(IpcServerThread, Close_LeavesNothingOpen)
{
    Open();
    Close();
    const size_t iDescriptors = CountDescriptors();
    const size_t iThreads = CountLiveThreads();
    Open();
    EXPECT_EQ(CountLiveThreads(), iThreads + 1);
    ExpectServed();
    m_thread.Close();
    EXPECT_EQ(CountLiveThreads(), iThreads);
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    m_thread.Close();
}

TEST_F(IpcServerThread, Open_Fails_SaysWhyAndStartsNoThread)
{
    const size_t iThreads = CountLiveThreads();
    EXPECT_FALSE(m_thread.Open(m_folder.Path("missing/channel").c_str(), &m_main, m_cError));
    EXPECT_STREQ(m_cError, "Fail to bind ipc server socket. No such file or directory (2)");
    EXPECT_FALSE(m_thread.IsActive());
    EXPECT_EQ(CountLiveThreads(), iThreads);
    EXPECT_FALSE(m_thread.Open(nullptr, &m_main, m_cError));
    EXPECT_STREQ(m_cError, "Channel is not defined");
    EXPECT_FALSE(m_thread.Open(nullptr, &m_main, nullptr));
    Open();
    ExpectServed();
}

TEST_F(IpcServerThread, Open_Again_TakesThePlaceOfTheFirst)
{
    Open();
    const size_t iThreads = CountLiveThreads();
    const std::string sOther = m_folder.Path("other");
    ASSERT_TRUE(m_thread.Open(sOther.c_str(), &m_main, m_cError)) << m_cError;
    EXPECT_FALSE(std::filesystem::exists(m_sChannel));
    EXPECT_TRUE(SameReply(Exchange(sOther, Request(1)), MsgReply("1.2")));
    EXPECT_EQ(CountLiveThreads(), iThreads);
    Open();
    ExpectServed();

    // What fails to open closes the first one too.
    EXPECT_FALSE(m_thread.Open(nullptr, &m_main, m_cError));
    EXPECT_FALSE(m_thread.IsActive());
    EXPECT_FALSE(std::filesystem::exists(m_sChannel));
}

#ifndef STAGENFS_SANITIZED
TEST_F(IpcServerThread, Open_NoThreadToBeHad_FailsAndClosesTheChannel)
{
    const size_t iDescriptors = CountDescriptors();
    g_bRefuseThread = true;
    EXPECT_FALSE(m_thread.Open(m_sChannel.c_str(), &m_main, m_cError));
    EXPECT_STREQ(m_cError,
                 "Fail to create ipc server thread. Resource temporarily unavailable (11)");
    EXPECT_FALSE(m_thread.IsActive());
    EXPECT_FALSE(std::filesystem::exists(m_sChannel));
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    Open();
    ExpectServed();
}
#endif

TEST_F(IpcServerThread, Destructor_Closes)
{
    const std::string sOther = m_folder.Path("other");
    ExpectReturns("The destructor", [&] {
        CIpcServerThread thread;
        EXPECT_TRUE(thread.Open(sOther.c_str(), &m_main, m_cError)) << m_cError;
        EXPECT_TRUE(SameReply(Exchange(sOther, Request(1)), MsgReply("1.2")));
    });
    EXPECT_FALSE(std::filesystem::exists(sOther));
}

TEST_F(IpcServerThread, Close_RightAfterOpen_MissesNothing)
{
    for (int i = 0; i < 200; i++) {
        Open();
        Close();
    }
}

TEST_F(IpcServerThread, SilentPeer_HoldsNeitherOthersNorClose)
{
    Open();
    CIpcPeer silent(m_sChannel);
    ExpectServed();
    EXPECT_TRUE(silent.IsKeptWaiting());
    Close();
    EXPECT_EQ(silent.Read(), "");
}

TEST_F(IpcServerThread, HalfAMessage_HoldsNeitherOthersNorClose)
{
    Open();
    CIpcPeer half(m_sChannel);
    half.Send(Request(1).substr(0, 8));
    ExpectServed();
    EXPECT_TRUE(SameReply(half.Read(), MsgReply("1.2")));
    CIpcPeer other(m_sChannel);
    other.Send(Request(7) + Field("s1", 100));
    ExpectServed();
    Close();
}

TEST_F(IpcServerThread, MoreSilentPeersThanAreKept_HoldNobodyAndTheOldestGo)
{
    const size_t iDescriptors = CountDescriptors();
    Open();
    std::vector<std::unique_ptr<CIpcPeer>> vSilent;
    for (int i = 0; i < SILENT_PEERS; i++) {
        vSilent.push_back(std::make_unique<CIpcPeer>(m_sChannel));
        ASSERT_TRUE(vSilent.back()->IsConnected());
    }
    ExpectServed();
    EXPECT_EQ(vSilent.front()->Read(), "");
    for (int i = SILENT_PEERS - KEPT_PEERS; i < SILENT_PEERS; i++) {
        CIpcPeer& peer = *vSilent[static_cast<size_t>(i)];
        EXPECT_TRUE(peer.IsKeptWaiting()) << i;
        peer.Send(Request(1));
        EXPECT_TRUE(SameReply(peer.Read(), MsgReply("1.2"))) << i;
    }
    ExpectServed();
    Close();
    vSilent.clear();
    EXPECT_EQ(CountDescriptors(), iDescriptors);
}

TEST_F(IpcServerThread, ManySilentPeers_DoNotHoldClose)
{
    Open();
    std::vector<std::unique_ptr<CIpcPeer>> vSilent;
    for (int i = 0; i < SILENT_PEERS; i++)
        vSilent.push_back(std::make_unique<CIpcPeer>(m_sChannel));
    Close();
    for (const auto& pPeer : vSilent)
        EXPECT_EQ(pPeer->Read(), "");
}

TEST_F(IpcServerThread, FailedExchanges_GoToTheLogAndTheNextIsServed)
{
    Open();
    for (size_t i = 1; i <= 10; i++) {
        CIpcPeer(m_sChannel).Leave();
        ASSERT_TRUE(m_recorder.WaitFor("error|svr|[IpcServer.SendRequest] Fail to read ipc "
                                       "request. Connection reset by peer (104)",
                                       i));
        ExpectServed();
    }
}

TEST_F(IpcServerThread, ExceptionInARequest_CostsOnlyThatRequest)
{
    Open();
    EXPECT_EQ(Exchange(m_sChannel, Request(23)), "");
    ExpectServed();
    EXPECT_TRUE(m_thread.IsActive());
}

TEST_F(IpcServerThread, AutoShutdown_EndsTheServiceButNotTheThread)
{
    Open();
    EXPECT_TRUE(SameReply(Exchange(m_sChannel, Request(22)), BoolReply(false)));
    ExpectServed();
    m_main.EnableAutoShutdown(true);
    m_main.GetRuntimeParam()->SetLogControl(LOG_CONTROL_IPC_STATE);
    EXPECT_TRUE(SameReply(Exchange(m_sChannel, Request(22)), BoolReply(true)));
    CIpcPeer late(m_sChannel);
    late.Send(Request(1));
    ASSERT_TRUE(m_recorder.WaitFor("[IpcServer.SendRequest] Waiting to auto shutdown", 2));
    EXPECT_TRUE(m_main.IsAutoShutdownRequested());
    EXPECT_TRUE(m_thread.IsActive());
    EXPECT_TRUE(std::filesystem::exists(m_sChannel));
    EXPECT_TRUE(late.IsKeptWaiting());
    Close();
    EXPECT_EQ(late.Read(), "");
}
