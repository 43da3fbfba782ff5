#include "IpcClient.h"

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <future>
#include <latch>
#include <map>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "DescriptorShortage.h"
#include "FakeIpcServer.h"
#include "IpcBytes.h"
#include "LogRecorder.h"
#include "StopSignal.h"
#include "TestEnvironment.h"
#include "Text.h"
#include "Utilities.h"

using Lines = std::vector<std::string>;

namespace {

constexpr int LOG_ERROR = 0x01;
constexpr int LOG_IPC = 0x40;
constexpr int LOG_STATE = 0x80;
constexpr int LOG_ALL = 0x3FF;

constexpr char LABEL[] = "info|host|[IpcClient.SendRequest] ";
constexpr char STEP_CONNECT[] = "Connect ipc client socket";
constexpr char STEP_SEND[] = "Send ipc client request";
constexpr char STEP_READ[] = "Read ipc server reply";

constexpr size_t ADDRESS_PATH = 108;  // bytes of a path in an address, with its zero

// A host that does something when the client comes to a step, before the client takes it.
class CStepHost : public CLogRecorder {
public:
    void At(const char* pcStep, std::function<void()> action) { m_Actions[pcStep] = action; }

    // Waits until the client is about to take the step.
    void WaitFor(const char* pcStep)
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Changed.wait(lock, [this, pcStep] { return m_sReached.ends_with(pcStep); });
    }

    bool LogInfo(const char* pcID, const char* pcMessage) override
    {
        const bool bTaken = CLogRecorder::LogInfo(pcID, pcMessage);
        for (const auto& [sStep, action] : m_Actions)
            if (std::string_view(pcMessage).ends_with(sStep))
                action();
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_sReached = pcMessage;
        m_Changed.notify_all();
        return bTaken;
    }

private:
    std::map<std::string, std::function<void()>> m_Actions;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::string m_sReached;  // the last line
};

std::atomic<int> g_iSignals = 0;

extern "C" void CountSignal(int)
{
    g_iSignals++;
}

// A disposition that ends with the object.
class CSignalAction {
public:
    CSignalAction(int iSignal, void (*pHandler)(int)) : m_iSignal(iSignal)
    {
        struct sigaction action = {};
        action.sa_handler = pHandler;  // no SA_RESTART: calls that wait are disturbed
        sigaction(iSignal, &action, &m_Before);
    }
    ~CSignalAction() { sigaction(m_iSignal, &m_Before, nullptr); }
    CSignalAction(const CSignalAction&) = delete;
    CSignalAction& operator=(const CSignalAction&) = delete;

private:
    const int m_iSignal;
    struct sigaction m_Before = {};
};

// The descriptor that the next open of anything yields.
int GetNextDescriptor()
{
    return CAutoFd(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)).Get();
}

// Waits until the thread waits in that system call; false if it has ended.
bool WaitUntilBlocked(pid_t iThread, long iCall)
{
    const std::string sPath = "/proc/self/task/" + std::to_string(iThread) + "/syscall";
    const std::string sCall = std::to_string(iCall) + " ";
    for (;;) {
        const std::string sState = ReadWholeFile(sPath);
        if (sState.empty() || sState.starts_with(sCall))
            return !sState.empty();
        sched_yield();
    }
}

class IpcClient : public testing::Test {
protected:
    IpcClient()
    {
        m_utilities.SetCallback(&m_host);
        Renew();
    }

    // A client that asks for the version.
    void Renew()
    {
        m_pClient = std::make_unique<CIpcClient>(&m_utilities, &m_param);
        m_pClient->InitialRequest<Ipc_Header>(1);
    }

    bool Send(const char* pcChannel = SERVER_CHANNEL)
    {
        strcpy(m_cError, "untouched");
        return m_pClient->SendRequest(pcChannel, m_cError);
    }

    // The reason of a failure.
    std::string Fail(const char* pcChannel = SERVER_CHANNEL)
    {
        EXPECT_FALSE(Send(pcChannel));
        return m_cError;
    }

    // A new client that got this reply.
    CIpcClient& Receive(CFakeIpcServer* pServer, const std::string& sReply)
    {
        pServer->AnswerAll(sReply);
        Renew();
        EXPECT_TRUE(Send()) << m_cError;
        return *m_pClient;
    }

    void ExpectFallbacks(CIpcClient& client)
    {
        EXPECT_FALSE(client.GetBoolReply());
        EXPECT_EQ(client.GetLongReply(), 0);
        EXPECT_EQ(client.GetIntReply(), -1);
        EXPECT_EQ(client.GetExptReply(), nullptr);
        EXPECT_EQ(client.GetMsgReply(), nullptr);
    }

    // Sends on a thread of its own, which is disturbed three times while it waits in the system
    // call of the step; then proceed lets it go on.
    bool SendDisturbed(const char* pcStep, long iCall, const std::function<void()>& proceed)
    {
        const CSignalAction action(SIGUSR1, CountSignal);
        g_iSignals = 0;
        std::promise<pid_t> threadID;
        bool bSent = false;
        std::thread hThread([this, &threadID, &bSent] {
            threadID.set_value(static_cast<pid_t>(syscall(SYS_gettid)));
            bSent = Send();
        });
        const pid_t iThread = threadID.get_future().get();
        m_host.WaitFor(pcStep);
        for (int i = 1; i <= 3 && WaitUntilBlocked(iThread, iCall); i++) {
            pthread_kill(hThread.native_handle(), SIGUSR1);
            while (g_iSignals < i)
                sched_yield();
        }
        const bool bWaits = WaitUntilBlocked(iThread, iCall);
        EXPECT_TRUE(bWaits) << "it gave up";
        if (bWaits)
            proceed();
        hThread.join();
        return bSent;
    }

    CStepHost m_host;
    CUtilities m_utilities;
    CRuntimeParam m_param{"host", LOG_STATE};
    std::unique_ptr<CIpcClient> m_pClient;
    char m_cError[REASON_SIZE] = "";
};

}  // namespace

// ---- A good exchange ----

TEST_F(IpcClient, Constructed_HasEmptyBuffers)
{
    CIpcClient client(&m_utilities, &m_param);
    const IpcDataInst* pData = client.GetDataInst();
    const std::string sZeros(4096, '\0');
    EXPECT_EQ(std::string(pData->request.cBuf, 4096), sZeros);
    EXPECT_EQ(std::string(pData->reply.cBuf, 4096), sZeros);
    EXPECT_EQ(pData->request.lDataLen, 0);
    EXPECT_EQ(pData->reply.lDataLen, 0);
}

TEST_F(IpcClient, SendRequest_SendsTheMessageAndReadsTheReply)
{
    CFakeIpcServer server;
    server.SetVersion("1.2");
    EXPECT_TRUE(Send());
    EXPECT_STREQ(m_cError, "untouched");
    EXPECT_STREQ(m_pClient->GetMsgReply(), "1.2");
    EXPECT_EQ(m_pClient->GetDataInst()->reply.lDataLen, 2064);
    EXPECT_EQ(server.Requests(),
              (Lines{std::string("\x02\0\0\0\x01\0\0\0\x31\x2E\x32\0\0\0\0\0", 16)}));
}

TEST_F(IpcClient, SendRequest_SendsAsManyBytesAsTheTypeHas)
{
    CFakeIpcServer server;
    auto* pRequest = m_pClient->InitialRequest<IpcRequest_RunTestMode>(21);
    SetField(pRequest->cDirPath, std::string(3071, 'd').c_str());
    pRequest->iFileSize = -1;
    EXPECT_TRUE(Send());
    const Lines vRequests = server.Requests();
    ASSERT_EQ(vRequests.size(), 1U);
    EXPECT_TRUE(SameMessage(vRequests[0], Request(21) + Field("", 256) +
                                              Field(std::string(3071, 'd'), 3072) + Int64(-1)));
}

TEST_F(IpcClient, SendRequest_NoErrorBuffer_IsAccepted)
{
    EXPECT_FALSE(m_pClient->SendRequest(SERVER_CHANNEL, nullptr));
    EXPECT_FALSE(m_pClient->SendRequest(nullptr, nullptr));
    CFakeIpcServer server;
    server.AnswerAll(BoolReply(true));
    EXPECT_TRUE(m_pClient->SendRequest(SERVER_CHANNEL, nullptr));
    EXPECT_TRUE(m_pClient->GetBoolReply());
}

TEST_F(IpcClient, SendRequest_SocketIsNotInheritedByOtherPrograms)
{
    CFakeIpcServer server;
    const int iSocket = GetNextDescriptor();
    int iFlags = -1;
    m_host.At(STEP_CONNECT, [&] { iFlags = fcntl(iSocket, F_GETFD); });
    EXPECT_TRUE(Send());
    EXPECT_EQ(iFlags, FD_CLOEXEC);
}

// ---- Channels that cannot be had ----

TEST_F(IpcClient, SendRequest_NoChannel_Fails)
{
    m_param.SetLogControl(LOG_ALL);
    EXPECT_EQ(Fail(nullptr), "Channel is not defined");
    EXPECT_EQ(Fail(""), "Channel is not defined");
    EXPECT_EQ(m_host.Lines(), Lines{});
}

TEST_F(IpcClient, SendRequest_LongestChannelThatFits_IsServed)
{
    const std::string sChannel = "/tmp/nfs-" + std::string(ADDRESS_PATH - 1 - 9, 'n');
    ASSERT_EQ(sChannel.size(), 107U);
    CFakeIpcServer server(sChannel);
    EXPECT_TRUE(Send(sChannel.c_str())) << m_cError;
}

TEST_F(IpcClient, SendRequest_ChannelTooLong_IsRefused)
{
    m_param.SetLogControl(LOG_ALL);
    const std::string sFits = "/tmp/nfs-" + std::string(ADDRESS_PATH - 1 - 9, 'n');
    const CFakeIpcServer server(sFits);  // a cut path would lead here
    EXPECT_EQ(Fail((sFits + "n").c_str()), "Channel path is longer than 107 bytes: " + sFits + "n");
    EXPECT_EQ(m_host.Lines(), Lines{});
}

TEST_F(IpcClient, SendRequest_EndlessChannel_HasItsReasonCut)
{
    const std::string sReason = Fail(std::string(5000, 'n').c_str());
    EXPECT_EQ(sReason,
              ("Channel path is longer than 107 bytes: " + std::string(5000, 'n')).substr(0, 2047));
}

TEST_F(IpcClient, SendRequest_MissingChannel_Fails)
{
    EXPECT_EQ(Fail(), "Fail to connect ipc client socket. No such file or directory (2)");
}

TEST_F(IpcClient, SendRequest_StaleChannel_Fails)
{
    CAutoFd(BindChannel(SERVER_CHANNEL)).Reset();  // bound once, and whoever did it is gone
    ASSERT_EQ(access(SERVER_CHANNEL, F_OK), 0);
    EXPECT_EQ(Fail(), "Fail to connect ipc client socket. Connection refused (111)");
    unlink(SERVER_CHANNEL);
}

TEST_F(IpcClient, SendRequest_ChannelIsAFolder_Fails)
{
    EXPECT_EQ(Fail("/tmp"), "Fail to connect ipc client socket. Connection refused (111)");
}

TEST_F(IpcClient, SendRequest_NoDescriptorLeft_Fails)
{
    CFakeIpcServer server;
    EXPECT_EQ(Fail(""), "Channel is not defined");  // a sanitizer's first look needs a descriptor
    {
        const CDescriptorShortage shortage;
        EXPECT_EQ(Fail(), "Fail to open ipc client socket. Too many open files (24)");
    }
    EXPECT_TRUE(Send());
}

// ---- Servers that do not behave ----

TEST_F(IpcClient, SendRequest_ServerClosesWithoutAWord_SucceedsAndReadsNothing)
{
    CFakeIpcServer server;
    EXPECT_TRUE(Send());
    EXPECT_EQ(m_pClient->GetDataInst()->reply.lDataLen, 0);
    ExpectFallbacks(*m_pClient);
}

// With the default disposition, a SIGPIPE would end this program.
TEST_F(IpcClient, SendRequest_ServerIsGoneBeforeItIsAsked_FailsAndNobodyDies)
{
    const CSignalAction action(SIGPIPE, SIG_DFL);
    CFakeIpcServer server(SERVER_CHANNEL, CFakeIpcServer::Manners::CLOSES_AT_ONCE);
    m_host.At(STEP_SEND, [&server] { server.WaitForClosed(1); });
    EXPECT_EQ(Fail(), "Fail to send ipc client request. Broken pipe (32)");
}

TEST_F(IpcClient, SendRequest_ServerDoesNotListen_Fails)
{
    const CFakeIpcServer server(SERVER_CHANNEL, CFakeIpcServer::Manners::CLOSES_UNREAD);
    EXPECT_EQ(Fail(), "Fail to read ipc server reply. Connection reset by peer (104)");
}

// The socket has room for a part of the request and may not wait for more. Nobody reads before the
// client has come to the next step.
TEST_F(IpcClient, SendRequest_ShortWrite_IsOnlyLogged)
{
    m_param.SetLogControl(LOG_ERROR | LOG_STATE);
    const CAutoFd listener(BindChannel(SERVER_CHANNEL));
    ASSERT_EQ(listen(listener.Get(), 1), 0);
    const int iSocket = GetNextDescriptor();
    m_host.At(STEP_SEND, [iSocket] {
        const int iSmallest = 1;
        setsockopt(iSocket, SOL_SOCKET, SO_SNDBUF, &iSmallest, sizeof(iSmallest));
        EXPECT_EQ(send(iSocket, "f", 1, 0), 1);  // takes the room from the second half
        EXPECT_EQ(fcntl(iSocket, F_SETFL, O_NONBLOCK), 0);
    });
    CAutoFd connection;
    ssize_t iReceived = 0;
    m_host.At(STEP_READ, [&] {
        EXPECT_EQ(fcntl(iSocket, F_SETFL, 0), 0);
        connection.Reset(accept(listener.Get(), nullptr, nullptr));
        char cBuffer[8192];
        iReceived = recv(connection.Get(), cBuffer, sizeof(cBuffer), 0) - 1;
        const std::string sReply = BoolReply(true);
        send(connection.Get(), sReply.data(), sReply.size(), MSG_NOSIGNAL);
    });
    m_pClient->InitialRequest<IpcRequest_RunTestMode>(21);
    EXPECT_TRUE(Send());
    EXPECT_TRUE(m_pClient->GetBoolReply());

    ASSERT_GT(iReceived, 0);
    ASSERT_LT(iReceived, 3352);
    EXPECT_EQ(m_host.Count("error|"), 1U);
    EXPECT_TRUE(m_host.Contains("error|host|[IpcClient.SendRequest] Fail to send complete ipc "
                                "client request. (Send = " +
                                std::to_string(iReceived) + ", Target = 3352)"));
    unlink(SERVER_CHANNEL);
}

// ---- Replies ----

TEST_F(IpcClient, Readers_EachTakesItsOwnKindOnly)
{
    CFakeIpcServer server;
    for (int iType = 0; iType <= 6; iType++) {
        const std::string sReply = Header(GROUP_REPLY, iType) + Field("\x01yz", 2048);
        CIpcClient& client = Receive(&server, sReply);
        EXPECT_EQ(client.GetBoolReply(), iType == 1);
        EXPECT_EQ(client.GetLongReply(), iType == 2 ? 0x7A7901 : 0);
        EXPECT_EQ(client.GetIntReply(), iType == 3 ? 0x7A7901 : -1);
        EXPECT_STREQ(client.GetExptReply(), iType == 4 ? "\x01yz" : nullptr);
        EXPECT_STREQ(client.GetMsgReply(), iType == 5 ? "\x01yz" : nullptr);
    }
}

TEST_F(IpcClient, Readers_OtherGroup_YieldFallbacks)
{
    CFakeIpcServer server;
    for (const int iGroup : {0, GROUP_REQUEST, GROUP_CALLBACK, 4, -1})
        for (int iType = 1; iType <= 5; iType++)
            ExpectFallbacks(Receive(&server, Header(iGroup, iType) + Field("\x01yz", 2048)));
}

TEST_F(IpcClient, Readers_TakeValuesWhole)
{
    CFakeIpcServer server;
    EXPECT_EQ(Receive(&server, LongReply(-0x1122334455667788LL)).GetLongReply(),
              -0x1122334455667788LL);
    EXPECT_EQ(Receive(&server, IntReply(-2)).GetIntReply(), -2);
    EXPECT_EQ(Receive(&server, IntReply(0x11223344)).GetIntReply(), 0x11223344);
    EXPECT_FALSE(Receive(&server, BoolReply(false)).GetBoolReply());
    EXPECT_TRUE(Receive(&server, BoolReply(true)).GetBoolReply());
    EXPECT_STREQ(Receive(&server, ExptReply("")).GetExptReply(), "");
}

TEST_F(IpcClient, Readers_AnyVersionWillDo)
{
    CFakeIpcServer server;
    const std::string sReply = Header(GROUP_REPLY, REPLY_INT, "98765432") + Int32(5);
    EXPECT_EQ(Receive(&server, sReply).GetIntReply(), 5);
}

TEST_F(IpcClient, Readers_PaddingMeansNothing)
{
    CFakeIpcServer server;
    EXPECT_FALSE(
        Receive(&server, Header(GROUP_REPLY, REPLY_BOOL) + std::string("\0\xff\xff\xff", 4))
            .GetBoolReply());
}

TEST_F(IpcClient, ShortReply_WithinTheHeader_YieldsFallbacks)
{
    CFakeIpcServer server;
    for (const size_t iLength : {1U, 3U, 4U}) {
        CIpcClient& client = Receive(&server, BoolReply(true).substr(0, iLength));
        EXPECT_EQ(client.GetDataInst()->reply.lDataLen, static_cast<long>(iLength));
        ExpectFallbacks(client);
    }
}

TEST_F(IpcClient, ShortReply_BehindTheHeader_ReadsWhatThereIs)
{
    CFakeIpcServer server;
    EXPECT_FALSE(Receive(&server, BoolReply(true).substr(0, 15)).GetBoolReply());
    EXPECT_FALSE(Receive(&server, BoolReply(true).substr(0, 16)).GetBoolReply());
    EXPECT_TRUE(Receive(&server, BoolReply(true).substr(0, 17)).GetBoolReply());
    EXPECT_EQ(Receive(&server, IntReply(0x11223344).substr(0, 16)).GetIntReply(), 0);
    EXPECT_EQ(Receive(&server, IntReply(0x11223344).substr(0, 18)).GetIntReply(), 0x3344);
    EXPECT_EQ(Receive(&server, LongReply(-1).substr(0, 20)).GetLongReply(), 0xFFFFFFFFL);
    EXPECT_STREQ(Receive(&server, MsgReply("text").substr(0, 16)).GetMsgReply(), "");
    EXPECT_STREQ(Receive(&server, ExptReply("text").substr(0, 18)).GetExptReply(), "te");
}

TEST_F(IpcClient, LongReply_IsReadUpTo4096Bytes)
{
    CFakeIpcServer server;
    CIpcClient& client = Receive(&server, MsgReply("text") + std::string(5000, 'x'));
    EXPECT_EQ(client.GetDataInst()->reply.lDataLen, 4096);
    EXPECT_STREQ(client.GetMsgReply(), "text");
}

TEST_F(IpcClient, Reply_TextWithoutEnd_IsCut)
{
    CFakeIpcServer server;
    const std::string sEndless(2048, 'x');
    const std::string sCut(2047, 'x');
    EXPECT_EQ(Receive(&server, ExptReply(sEndless) + "behind").GetExptReply(), sCut);
    EXPECT_EQ(Receive(&server, MsgReply(sEndless) + "behind").GetMsgReply(), sCut);
}

// ---- Signals ----

TEST_F(IpcClient, SendRequest_DisturbedWhileItWaitsForTheReply_GoesOn)
{
    std::latch proceed(1);  // outlives the server, which waits for it
    CFakeIpcServer server;
    server.SetHandler([&proceed](const std::string&) {
        proceed.wait();
        return MsgReply("late");
    });
    EXPECT_TRUE(SendDisturbed(STEP_READ, SYS_poll, [&proceed] { proceed.count_down(); }))
        << m_cError;
    if (!proceed.try_wait())
        proceed.count_down();  // the client gave up: let the server end
    EXPECT_STREQ(m_pClient->GetMsgReply(), "late");
    EXPECT_EQ(server.Requests(), (Lines{Request(1)}));
}

TEST_F(IpcClient, SendRequest_ProcessIsToStop_DoesNotWaitForTheReply)
{
    std::latch proceed(1);  // outlives the server, which waits for it
    CFakeIpcServer server;
    server.SetHandler([&proceed](const std::string&) {
        kill(getpid(), SIGTERM);
        proceed.wait();
        return MsgReply("late");
    });
    {
        const CStopSignal stopSignal;
        EXPECT_EQ(Fail(), "Fail to read ipc server reply. Interrupted system call (4)");
    }
    proceed.count_down();
    const CStopSignal forgetsIt;
}

// Nobody accepts, and there is room for one connection that waits.
TEST_F(IpcClient, SendRequest_DisturbedWhileTheChannelIsFull_GoesOn)
{
    const CAutoFd listener(BindChannel(SERVER_CHANNEL));
    ASSERT_EQ(listen(listener.Get(), 0), 0);
    const CAutoFd first(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = MakeChannelAddress(SERVER_CHANNEL);
    ASSERT_EQ(connect(first.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
              0);

    EXPECT_TRUE(SendDisturbed(STEP_CONNECT, SYS_clock_nanosleep, [&listener] {
        CAutoFd(accept(listener.Get(), nullptr, nullptr)).Reset();
        const CAutoFd connection(accept(listener.Get(), nullptr, nullptr));
        char cRequest[64];
        EXPECT_EQ(recv(connection.Get(), cRequest, sizeof(cRequest), 0), 16);
        const std::string sReply = MsgReply("at last");
        send(connection.Get(), sReply.data(), sReply.size(), MSG_NOSIGNAL);
    })) << m_cError;
    EXPECT_STREQ(m_pClient->GetMsgReply(), "at last");
    unlink(SERVER_CHANNEL);
}

// The test fills the socket, so that the request finds no room.
TEST_F(IpcClient, SendRequest_NoRoomForTheRequest_Fails)
{
    const CAutoFd listener(BindChannel(SERVER_CHANNEL));
    ASSERT_EQ(listen(listener.Get(), 1), 0);
    const int iSocket = GetNextDescriptor();
    m_host.At(STEP_SEND, [iSocket] {
        const char cFiller[1024] = {};
        while (send(iSocket, cFiller, sizeof(cFiller), MSG_DONTWAIT) > 0)
            ;
    });
    EXPECT_EQ(Fail(), "Fail to send ipc client request. Resource temporarily unavailable (11)");
    unlink(SERVER_CHANNEL);
}

// ---- Lines ----

TEST_F(IpcClient, StateBit_HasALineForEachStepInItsOrder)
{
    CFakeIpcServer server;
    EXPECT_TRUE(Send());
    EXPECT_EQ(
        m_host.Lines(),
        (Lines{std::string(LABEL) + "Open channel: /tmp/nfs-server",
               std::string(LABEL) + "Open ipc client socket", std::string(LABEL) + STEP_CONNECT,
               std::string(LABEL) + STEP_SEND, std::string(LABEL) + STEP_READ}));
}

TEST_F(IpcClient, StateBit_FailureEndsTheSteps)
{
    Fail();
    EXPECT_EQ(m_host.Lines(), (Lines{std::string(LABEL) + "Open channel: /tmp/nfs-server",
                                     std::string(LABEL) + "Open ipc client socket",
                                     std::string(LABEL) + STEP_CONNECT}));
}

TEST_F(IpcClient, TrafficBit_HasALineForEachMessage)
{
    m_param.SetLogControl(LOG_IPC);
    CFakeIpcServer server;
    server.AnswerAll(BoolReply(true));
    EXPECT_TRUE(Send());
    const std::string sRequest =
        std::string(LABEL) + "Request action group (type = 1, ver = 1.2, dataLen = 16)";
    EXPECT_EQ(m_host.Lines(), (Lines{sRequest, std::string(LABEL) + "Reply action group (type = "
                                                                    "1, ver = 1.2, dataLen = "
                                                                    "20)"}));
    server.AnswerAll({});
    Renew();
    m_host.Clear();
    EXPECT_TRUE(Send());
    EXPECT_EQ(m_host.Lines(), (Lines{sRequest, std::string(LABEL) + "Unknown action group: 0 "
                                                                    "(type = 0, ver = , dataLen "
                                                                    "= 0)"}));
}

TEST_F(IpcClient, TrafficBit_FailedExchange_ShowsTheRequestOnly)
{
    m_param.SetLogControl(LOG_IPC);
    Fail();
    EXPECT_EQ(m_host.Lines(), (Lines{std::string(LABEL) +
                                     "Request action group (type = 1, ver = 1.2, dataLen = 16)"}));
}

TEST_F(IpcClient, BothBits_RequestIsShownBeforeTheSocketIsOpened)
{
    m_param.SetLogControl(LOG_IPC | LOG_STATE);
    CFakeIpcServer server;
    server.AnswerAll(IntReply(1));
    EXPECT_TRUE(Send());
    EXPECT_EQ(
        m_host.Lines(),
        (Lines{std::string(LABEL) + "Open channel: /tmp/nfs-server",
               std::string(LABEL) + "Request action group (type = 1, ver = 1.2, dataLen = 16)",
               std::string(LABEL) + "Open ipc client socket", std::string(LABEL) + STEP_CONNECT,
               std::string(LABEL) + STEP_SEND, std::string(LABEL) + STEP_READ,
               std::string(LABEL) + "Reply action group (type = 3, ver = 1.2, dataLen = 20)"}));
}

TEST_F(IpcClient, OtherBits_AreSilentAsLongAsAllGoesWell)
{
    m_param.SetLogControl(LOG_ALL & ~LOG_STATE & ~LOG_IPC);
    CFakeIpcServer server;
    server.AnswerAll(IntReply(1));
    EXPECT_TRUE(Send());
    Renew();
    EXPECT_TRUE(m_pClient->SendRequest(SERVER_CHANNEL));
    EXPECT_EQ(m_host.Lines(), Lines{});
}

// ---- The form that logs its failures ----

TEST_F(IpcClient, LoggingForm_FailureGoesToTheLog)
{
    m_param.SetLogControl(LOG_ERROR);
    EXPECT_FALSE(m_pClient->SendRequest(SERVER_CHANNEL));
    EXPECT_FALSE(m_pClient->SendRequest(nullptr));
    EXPECT_EQ(m_host.Lines(),
              (Lines{"error|host|[IpcClient.SendRequest] Fail to connect ipc client socket. No "
                     "such file or directory (2)",
                     "error|host|[IpcClient.SendRequest] Channel is not defined"}));
}

TEST_F(IpcClient, LoggingForm_WithoutTheErrorBit_FailsInSilence)
{
    m_param.SetLogControl(LOG_ALL & ~LOG_ERROR & ~LOG_STATE & ~LOG_IPC);
    EXPECT_FALSE(m_pClient->SendRequest(SERVER_CHANNEL));
    EXPECT_EQ(m_host.Lines(), Lines{});
}

TEST_F(IpcClient, FormWithAReason_FailureIsTheCallersAndNotLogged)
{
    m_param.SetLogControl(LOG_ERROR);
    Fail();
    EXPECT_EQ(m_host.Lines(), Lines{});
}

TEST_F(IpcClient, LoggingForm_GoodExchange_Succeeds)
{
    CFakeIpcServer server;
    server.AnswerAll(IntReply(7));
    EXPECT_TRUE(m_pClient->SendRequest(SERVER_CHANNEL));
    EXPECT_EQ(m_pClient->GetIntReply(), 7);
}

// ---- What is left behind ----

TEST_F(IpcClient, SendRequest_LeavesNothingOpen)
{
    const size_t iBefore = CountDescriptors();
    Fail();
    Fail(nullptr);
    for (const auto manners :
         {CFakeIpcServer::Manners::ANSWERS, CFakeIpcServer::Manners::CLOSES_AT_ONCE,
          CFakeIpcServer::Manners::CLOSES_UNREAD}) {
        const CFakeIpcServer server(SERVER_CHANNEL, manners);
        for (int i = 0; i < 10; i++)
            Send();
    }
    EXPECT_EQ(CountDescriptors(), iBefore);
}

// The server's end sees the end of the stream although the client lives on.
TEST_F(IpcClient, SendRequest_ConnectionEndsWithTheExchange)
{
    CFakeIpcServer server;
    server.AnswerAll(IntReply(7));
    EXPECT_TRUE(Send());
    server.WaitForClosed(1);
    EXPECT_EQ(server.Requests().size(), 1U);
}
