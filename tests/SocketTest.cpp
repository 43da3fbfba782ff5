#include "Socket.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "DatagramSocket.h"
#include "DescriptorShortage.h"
#include "LogWaiter.h"
#include "RuntimeParam.h"
#include "ServerSocket.h"
#include "TestEnvironment.h"
#include "Text.h"
#include "Utilities.h"
#include "WireClient.h"

// ---- System calls that fail on request ----
// These stand before those of the C library in this program. An error waiting for a call is what
// its next caller gets, once; the tests' own thread never takes one.

namespace {

std::atomic<int> g_iListenError = 0;
std::atomic<int> g_iAcceptError = 0;
std::atomic<int> g_iReceiveError = 0;
std::atomic<int> g_iAccepts = 0;  // calls of accept4, whatever came of them

bool Fails(std::atomic<int>* piError)
{
    const int iError = piError->exchange(0);
    if (iError != 0)
        errno = iError;
    return iError != 0;
}

bool IsTestThread()
{
    return syscall(SYS_gettid) == getpid();
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int listen(int iSocket, int iBacklog) noexcept
{
    return Fails(&g_iListenError) ? -1 : static_cast<int>(syscall(SYS_listen, iSocket, iBacklog));
}

__attribute__((visibility("default"))) int accept4(int iSocket, sockaddr* pAddress,
                                                   socklen_t* piLength, int iFlags)
{
    g_iAccepts++;
    return Fails(&g_iAcceptError)
               ? -1
               : static_cast<int>(syscall(SYS_accept4, iSocket, pAddress, piLength, iFlags));
}

__attribute__((visibility("default"))) ssize_t recvfrom(int iSocket, void* pBuffer, size_t iLength,
                                                        int iFlags, sockaddr* pAddress,
                                                        socklen_t* piLength)
{
    if (!IsTestThread() && Fails(&g_iReceiveError))
        return -1;
    return syscall(SYS_recvfrom, iSocket, pBuffer, iLength, iFlags, pAddress, piLength);
}

__attribute__((visibility("default"))) ssize_t recv(int iSocket, void* pBuffer, size_t iLength,
                                                    int iFlags)
{
    return recvfrom(iSocket, pBuffer, iLength, iFlags, nullptr, nullptr);
}
}

namespace {

constexpr int PORT = 4000;
constexpr unsigned long PROG = 100003;
constexpr size_t BUFFER_SIZE = 0x100000;
constexpr auto DEADLINE = std::chrono::seconds(20);

// Waits for something that nothing announces; false if it does not come about.
template <typename Condition>
bool WaitUntil(Condition condition)
{
    const auto end = std::chrono::steady_clock::now() + DEADLINE;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::yield();
    }
    return true;
}

// Answers by the first byte that it finds.
class CListener : public ISocketListener {
public:
    void SocketReceived(CSocket* pSocket) override
    {
        CInputStream* pIn = pSocket->GetInputStream();
        const unsigned char cOrder = *pIn->GetCurrentBuffer();
        m_iReceived++;
        switch (cOrder) {
        case 'k':  // keep: leaves everything unread
            return;
        case 'l':  // leave: writes a reply and does not send it
            pSocket->GetOutputStream()->Write("left", 4);
            break;
        case 'f':  // flood: as much as the peer takes, and more
            m_iFloods++;
            pSocket->GetOutputStream()->Write(nullptr, BUFFER_SIZE);
            while (pSocket->Flush())
                pSocket->GetOutputStream()->Write(nullptr, BUFFER_SIZE);
            m_iFloods--;
            return;
        case 'g':  // gate: sends twice once it is let through
            m_Gate.Wait();
            Send(pSocket, "one");
            Send(pSocket, "two");
            break;
        case 'b':  // big: more than a datagram holds
            Send(pSocket, std::string(100000, 'b'));
            break;
        default:  // a line about the peer and what came
            Send(pSocket, pSocket->GetRemoteAddress() + ":" +
                              std::to_string(pSocket->GetRemotePort()) + " " +
                              std::to_string(pIn->GetFilledBufferSize()) + "\n");
        }
        pIn->Skip(pIn->GetFilledBufferSize());
    }

    // A door that stays open once it was opened.
    class CGate {
    public:
        void Open()
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_bOpen = true;
            m_Changed.notify_all();
        }
        void Wait()
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_Changed.wait(lock, [this] { return m_bOpen; });
        }

    private:
        std::mutex m_mutex;
        std::condition_variable m_Changed;
        bool m_bOpen = false;
    };

    CGate m_Gate;
    std::atomic<int> m_iReceived = 0;
    std::atomic<int> m_iFloods = 0;

private:
    static void Send(CSocket* pSocket, const std::string& sText)
    {
        pSocket->GetOutputStream()->Write(sText.data(), static_cast<unsigned int>(sText.size()));
        pSocket->Send();
    }
};

int LocalPort(int iSocket)
{
    sockaddr_in address = {};
    socklen_t iLength = sizeof(address);
    getsockname(iSocket, reinterpret_cast<sockaddr*>(&address), &iLength);
    return ntohs(address.sin_port);
}

// The line that the listener answers to iLength bytes from this client.
std::string ExpectedLine(int iSocket, size_t iLength)
{
    return "127.0.0.1:" + std::to_string(LocalPort(iSocket)) + " " + std::to_string(iLength) + "\n";
}

bool IsServed(CTcpClient* pClient)
{
    const std::string sLine = ExpectedLine(pClient->Socket(), 1);
    return pClient->Send("?") && pClient->ReceiveRaw(sLine.size()) == sLine;
}

class SocketTest : public testing::Test {
protected:
    void SetUp() override
    {
        m_Utilities.SetCallback(&m_Log);
        m_Tcp.SetListener(&m_Listener);
        m_Tcp.SetRuntimeParam(&m_RuntimeParam);
        m_Udp.SetListener(&m_Listener);
    }

    void TearDown() override
    {
        m_Listener.m_Gate.Open();
        m_Tcp.Close();
        m_Udp.Close();
    }

    void OpenTcp(int nMaxNum = 10)
    {
        char cReason[REASON_SIZE] = "";
        ASSERT_TRUE(m_Tcp.Open(PROG, PORT, nMaxNum, &m_Utilities, cReason)) << cReason;
    }

    void OpenUdp()
    {
        char cReason[REASON_SIZE] = "";
        ASSERT_TRUE(m_Udp.Open(PROG, PORT, &m_Utilities, cReason)) << cReason;
    }

    // A client that is served, tried again only as long as the place of the last one is not free
    // yet; null if it is not served or hears what is not meant for it.
    static std::unique_ptr<CTcpClient> ConnectServed()
    {
        std::unique_ptr<CTcpClient> pClient;
        std::string sExpected;
        std::string sReceived;
        WaitUntil([&] {
            pClient = std::make_unique<CTcpClient>(PORT);
            sExpected = ExpectedLine(pClient->Socket(), 1);
            pClient->Send("?");
            sReceived = pClient->ReceiveRaw(sExpected.size());
            return !pClient->WasClosed() || !sReceived.empty();
        });
        return sReceived == sExpected ? std::move(pClient) : nullptr;
    }

    CLogWaiter m_Log;
    CUtilities m_Utilities;
    CRuntimeParam m_RuntimeParam{"test", LOG_CONTROL_ERROR};
    CListener m_Listener;
    CServerSocket m_Tcp;
    CDatagramSocket m_Udp;
};

}  // namespace

// ---- TCP listener: connections and their places ----

TEST_F(SocketTest, ConnectionBeyondTheLimit_IsClosedAndLoggedAndDisturbsNobody)
{
    OpenTcp(10);
    std::vector<CTcpClient> vClients;
    for (int i = 0; i < 10; i++) {
        vClients.emplace_back(PORT);
        ASSERT_TRUE(IsServed(&vClients.back())) << i;
    }
    for (size_t i = 1; i <= 3; i++) {
        CTcpClient excess(PORT);
        EXPECT_TRUE(excess.IsClosedByServer());
        EXPECT_TRUE(m_Log.WaitFor("error|test|[ServerSocket.Run] Connection refused, port 4000 "
                                  "has 10 already",
                                  i));
    }
    for (CTcpClient& client : vClients)
        EXPECT_TRUE(IsServed(&client));
}

TEST_F(SocketTest, ConnectionBeyondTheLimit_IsNotLoggedWithoutTheErrorBit)
{
    m_RuntimeParam.SetLogControl(0x3FF & ~LOG_CONTROL_ERROR);
    OpenTcp(1);
    CTcpClient client(PORT);
    ASSERT_TRUE(IsServed(&client));
    EXPECT_TRUE(CTcpClient(PORT).IsClosedByServer());
    EXPECT_TRUE(CTcpClient(PORT).IsClosedByServer());  // the first one is done with by now
    EXPECT_EQ(m_Log.Lines().size(), 0U);
}

TEST_F(SocketTest, ClientThatLeaves_FreesItsPlace)
{
    OpenTcp(2);
    CTcpClient stays(PORT);
    ASSERT_TRUE(IsServed(&stays));
    for (int i = 0; i < 20; i++) {
        const std::unique_ptr<CTcpClient> pClient = ConnectServed();
        ASSERT_TRUE(pClient != nullptr);
        if (i % 2 == 0)
            pClient->Abort();
    }
    EXPECT_TRUE(ConnectServed() != nullptr);
    EXPECT_TRUE(IsServed(&stays));
}

TEST_F(SocketTest, ReusedPlace_StartsWithoutUnreadInput)
{
    OpenTcp(1);
    CTcpClient first(PORT);
    ASSERT_TRUE(first.Send("kkkkkkk"));
    ASSERT_TRUE(WaitUntil([this] { return m_Listener.m_iReceived > 0; }));
    first.Close();
    EXPECT_TRUE(ConnectServed() != nullptr);  // it hears of one byte, and of its own address
}

TEST_F(SocketTest, ReusedPlace_StartsWithoutUnsentOutput)
{
    OpenTcp(1);
    CTcpClient first(PORT);
    ASSERT_TRUE(first.Send("l"));
    ASSERT_TRUE(WaitUntil([this] { return m_Listener.m_iReceived > 0; }));
    first.Close();
    const std::unique_ptr<CTcpClient> pSecond = ConnectServed();
    ASSERT_TRUE(pSecond != nullptr);
    EXPECT_FALSE(pSecond->HasBytes());
}

TEST_F(SocketTest, UnsentOutput_GoesWithTheNextSend)
{
    OpenTcp(1);
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send("l"));
    ASSERT_TRUE(WaitUntil([this] { return m_Listener.m_iReceived > 0; }));
    ASSERT_TRUE(client.Send("?"));
    EXPECT_EQ(client.ReceiveRaw(4), "left");
}

TEST_F(SocketTest, UnreadInput_IsKeptForTheNextReceive)
{
    OpenTcp(1);
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send("k"));
    ASSERT_TRUE(WaitUntil([this] { return m_Listener.m_iReceived > 0; }));
    ASSERT_TRUE(client.Send("k"));
    ASSERT_TRUE(WaitUntil([this] { return m_Listener.m_iReceived > 1; }));
    EXPECT_FALSE(client.HasBytes());
}

TEST_F(SocketTest, FullBuffer_EndsItsConnectionOnly)
{
    OpenTcp(2);
    CTcpClient neighbour(PORT);
    ASSERT_TRUE(IsServed(&neighbour));
    CTcpClient client(PORT);
    client.Send(std::string(BUFFER_SIZE + 1, 'k'));
    EXPECT_TRUE(client.IsClosedByServer());
    EXPECT_TRUE(IsServed(&neighbour));
    EXPECT_TRUE(ConnectServed() != nullptr);
}

TEST_F(SocketTest, AcceptedConnection_SendsWithoutDelayAndIsKeptAlive)
{
    OpenTcp(1);
    CTcpClient client(PORT);
    ASSERT_TRUE(IsServed(&client));
    const int iPort = LocalPort(client.Socket());
    bool bFound = false;
    for (int iFile = 0; iFile < 1024; iFile++) {
        sockaddr_in peer = {};
        socklen_t iLength = sizeof(peer);
        if (getpeername(iFile, reinterpret_cast<sockaddr*>(&peer), &iLength) != 0 ||
            ntohs(peer.sin_port) != iPort)
            continue;
        int iNoDelay = 0;
        iLength = sizeof(iNoDelay);
        EXPECT_EQ(getsockopt(iFile, IPPROTO_TCP, TCP_NODELAY, &iNoDelay, &iLength), 0);
        EXPECT_NE(iNoDelay, 0);
        int iKeepAlive = 0;  // or a peer that is gone without a word would keep its place
        EXPECT_EQ(getsockopt(iFile, SOL_SOCKET, SO_KEEPALIVE, &iKeepAlive, &iLength), 0);
        EXPECT_NE(iKeepAlive, 0);
        bFound = true;
    }
    EXPECT_TRUE(bFound);
}

TEST_F(SocketTest, PeerThatVanished_RaisesNoSignal)
{
    OpenTcp(2);
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send("g"));
    ASSERT_TRUE(WaitUntil([this] { return m_Listener.m_iReceived > 0; }));
    client.Abort();
    m_Listener.m_Gate.Open();
    EXPECT_TRUE(ConnectServed() != nullptr);
}

// ---- TCP listener: opening and closing ----

TEST_F(SocketTest, Open_TellsItsPortAndSocket)
{
    EXPECT_EQ(m_Tcp.GetSocket(), -1);
    OpenTcp();
    EXPECT_EQ(m_Tcp.GetPort(), PORT);
    EXPECT_EQ(LocalPort(m_Tcp.GetSocket()), PORT);
    m_Tcp.Close();
    EXPECT_EQ(m_Tcp.GetSocket(), -1);
}

TEST_F(SocketTest, Open_TakenPort_FailsWithReasonAndLeavesNothing)
{
    OpenTcp();
    const size_t iDescriptors = CountDescriptors();
    const size_t iThreads = CountThreads();
    CServerSocket second;
    char cReason[REASON_SIZE] = "";
    EXPECT_FALSE(second.Open(PROG, PORT, 10, &m_Utilities, cReason));
    EXPECT_STREQ(cReason, "Fail to bind server socket. Address already in use (98)");
    EXPECT_FALSE(second.Open(PROG, PORT, 10, &m_Utilities, nullptr));
    EXPECT_EQ(second.GetSocket(), -1);
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_EQ(CountThreads(), iThreads);

    m_Tcp.Close();
    EXPECT_TRUE(second.Open(PROG, PORT, 10, &m_Utilities, cReason));
}

TEST_F(SocketTest, Open_NoDescriptorLeft_FailsWithReason)
{
    char cReason[REASON_SIZE] = "";
    {
        const CDescriptorShortage shortage;
        EXPECT_FALSE(m_Tcp.Open(PROG, PORT, 10, &m_Utilities, cReason));
    }
    EXPECT_STREQ(cReason, "Fail to create server socket. Too many open files (24)");
    OpenTcp();
}

TEST_F(SocketTest, Open_ListenFails_FailsWithReasonAndLeavesNothing)
{
    const size_t iDescriptors = CountDescriptors();
    char cReason[REASON_SIZE] = "";
    g_iListenError = EOPNOTSUPP;
    EXPECT_FALSE(m_Tcp.Open(PROG, PORT, 10, &m_Utilities, cReason));
    EXPECT_STREQ(cReason, "Fail to listen server socket. Operation not supported (95)");
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    OpenTcp();
}

TEST_F(SocketTest, Open_NumberThatIsNoPort_FailsWithReason)
{
    for (const int iPort : {-1, 0x10000}) {
        char cReason[REASON_SIZE] = "";
        EXPECT_FALSE(m_Tcp.Open(PROG, iPort, 10, &m_Utilities, cReason));
        EXPECT_STREQ(cReason, "Fail to bind server socket. Invalid argument (22)");
        EXPECT_FALSE(m_Udp.Open(PROG, iPort, &m_Utilities, cReason));
        EXPECT_STREQ(cReason, "Fail to bind datagram socket. Invalid argument (22)");
    }
}

TEST_F(SocketTest, Open_Again_ReplacesTheListener)
{
    OpenTcp(1);
    CTcpClient client(PORT);
    ASSERT_TRUE(IsServed(&client));
    char cReason[REASON_SIZE] = "";
    ASSERT_TRUE(m_Tcp.Open(PROG, PORT + 1, 1, &m_Utilities, cReason)) << cReason;
    EXPECT_TRUE(client.IsClosedByServer());
    EXPECT_FALSE(CTcpClient(PORT).IsConnected());
    CTcpClient second(PORT + 1);
    EXPECT_TRUE(IsServed(&second));
}

TEST_F(SocketTest, Close_EndsConnectionsAndMayBeRepeated)
{
    OpenTcp();
    CTcpClient client(PORT);
    ASSERT_TRUE(IsServed(&client));
    m_Tcp.Close();
    EXPECT_TRUE(client.IsClosedByServer());
    EXPECT_FALSE(CTcpClient(PORT).IsConnected());
    m_Tcp.Close();
    OpenTcp();  // at once: what the old connections leave behind does not block the port
    EXPECT_TRUE(ConnectServed() != nullptr);
}

TEST_F(SocketTest, Close_DoesNotWaitForAPeerThatDoesNotRead)
{
    OpenTcp();
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send("f"));
    ASSERT_TRUE(WaitUntil([this] { return m_Listener.m_iFloods > 0; }));
    m_Tcp.Close();
    EXPECT_EQ(m_Listener.m_iFloods, 0);
}

TEST_F(SocketTest, PeerThatDoesNotRead_HoldsUpNobody)
{
    OpenTcp();
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send("f"));
    ASSERT_TRUE(WaitUntil([this] { return m_Listener.m_iFloods > 0; }));
    CTcpClient neighbour(PORT);
    EXPECT_TRUE(IsServed(&neighbour));
}

TEST_F(SocketTest, AThousandCycles_LeakNoThreadAndNoDescriptor)
{
    const size_t iDescriptors = CountDescriptors();
    const size_t iThreads = CountThreads();
    for (int i = 0; i < 1000; i++) {
        OpenTcp(3);
        OpenUdp();
        if (i % 50 == 0) {
            CTcpClient client(PORT);
            ASSERT_TRUE(IsServed(&client));
            m_Tcp.Close();
        }
        m_Tcp.Close();
        m_Udp.Close();
    }
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    // A joined thread may be listed a moment longer.
    EXPECT_TRUE(WaitUntil([iThreads] { return CountThreads() == iThreads; }));
}

// ---- Errors that pass ----

TEST_F(SocketTest, AcceptWithoutDescriptors_NeitherSpinsNorEnds)
{
    OpenTcp();
    const CAutoFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto start = std::chrono::steady_clock::now();
    {
        const CDescriptorShortage shortage;
        g_iAccepts = 0;
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(PORT);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        // The system completes the connection; only the server cannot take it.
        ASSERT_EQ(
            connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        ASSERT_TRUE(WaitUntil([] { return g_iAccepts >= 4; }));
    }
    // It tried again, but not without a pause: three of them took their time.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));

    const std::string sLine = ExpectedLine(client.Get(), 1);
    ASSERT_EQ(send(client.Get(), "?", 1, MSG_NOSIGNAL), 1);
    std::string sReceived(sLine.size(), '\0');
    EXPECT_EQ(recv(client.Get(), sReceived.data(), sReceived.size(), MSG_WAITALL),
              static_cast<ssize_t>(sLine.size()));
    EXPECT_EQ(sReceived, sLine);
}

TEST_F(SocketTest, AcceptThatFails_IsTriedAgain)
{
    OpenTcp();
    for (const int iError : {EINTR, ECONNABORTED, EMFILE, ENFILE, ENOBUFS, EPROTO}) {
        g_iAcceptError = iError;
        CTcpClient client(PORT);
        EXPECT_TRUE(IsServed(&client)) << iError;
        EXPECT_EQ(g_iAcceptError, 0);
    }
}

TEST_F(SocketTest, ReceiveThatFailsInPassing_IsTriedAgain)
{
    OpenTcp();
    OpenUdp();
    for (const int iError : {EINTR, ENOBUFS, ENOMEM}) {
        g_iReceiveError = iError;  // met by the thread of the new connection
        CTcpClient client(PORT);
        EXPECT_TRUE(IsServed(&client)) << iError;
        EXPECT_EQ(g_iReceiveError, 0);

        g_iReceiveError = iError;
        CUdpClient datagramClient(PORT);
        ASSERT_TRUE(datagramClient.Send("?"));
        EXPECT_TRUE(WaitUntil([&] { return datagramClient.HasBytes(); })) << iError;
        EXPECT_EQ(g_iReceiveError, 0);
    }
}

TEST_F(SocketTest, ReceiveErrorOnUdp_DoesNotEndTheService)
{
    OpenUdp();
    g_iReceiveError = ECONNREFUSED;  // about some earlier reply
    CUdpClient client(PORT);
    ASSERT_TRUE(client.Send("?"));
    EXPECT_TRUE(WaitUntil([&] { return client.HasBytes(); }));
    EXPECT_EQ(g_iReceiveError, 0);
}

TEST_F(SocketTest, ConnectionWithDescriptorZero_IsTurnedAwayAndTheNextOneServed)
{
    OpenTcp();
    const CAutoFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    CAutoFd input(fcntl(0, F_DUPFD_CLOEXEC, 3));  // what this program had for standard input
    close(0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
              0);
    char cByte = 0;
    EXPECT_EQ(recv(client.Get(), &cByte, 1, 0), 0);
    CTcpClient second(PORT);
    EXPECT_TRUE(IsServed(&second));
    if (input.Get() != -1)
        dup2(input.Get(), 0);
}

// ---- UDP ----

TEST_F(SocketTest, Datagram_IsAnsweredToItsSender)
{
    OpenUdp();
    EXPECT_EQ(m_Udp.GetPort(), PORT);
    const CAutoFd client(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
              0);
    for (const size_t iLength : {1U, 5U, 1U}) {
        ASSERT_EQ(send(client.Get(), "?????", iLength, 0), static_cast<ssize_t>(iLength));
        char cLine[100] = "";
        ASSERT_GT(recv(client.Get(), cLine, sizeof(cLine) - 1, 0), 0);
        EXPECT_EQ(cLine, ExpectedLine(client.Get(), iLength));
    }
}

TEST_F(SocketTest, EmptyDatagram_IsPassedOver)
{
    OpenUdp();
    CUdpClient client(PORT);
    ASSERT_TRUE(client.Send(""));
    ASSERT_TRUE(client.Send("?"));
    EXPECT_TRUE(WaitUntil([&] { return client.HasBytes(); }));
    EXPECT_EQ(m_Listener.m_iReceived, 1);
}

TEST_F(SocketTest, UnreadDatagram_DoesNotReachTheNextOne)
{
    OpenUdp();
    CUdpClient client(PORT);
    ASSERT_TRUE(client.Send("kkk"));
    // Had the first one stayed, the listener would find its 'k' again and stay silent.
    ASSERT_TRUE(client.Send("?"));
    EXPECT_TRUE(WaitUntil([&] { return client.HasBytes(); }));
}

TEST_F(SocketTest, ReplyThatNoDatagramHolds_IsDropped)
{
    OpenUdp();
    CUdpClient client(PORT);
    ASSERT_TRUE(client.Send("b"));
    ASSERT_TRUE(client.Send("?"));
    EXPECT_TRUE(WaitUntil([&] { return client.HasBytes(); }));
}

TEST_F(SocketTest, OpenUdp_TakenPort_FailsWithReasonAndLeavesNothing)
{
    OpenUdp();
    const size_t iDescriptors = CountDescriptors();
    const size_t iThreads = CountThreads();
    CDatagramSocket second;
    char cReason[REASON_SIZE] = "";
    EXPECT_FALSE(second.Open(PROG, PORT, &m_Utilities, cReason));
    EXPECT_STREQ(cReason, "Fail to bind datagram socket. Address already in use (98)");
    EXPECT_FALSE(second.Open(PROG, PORT, &m_Utilities, nullptr));
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_EQ(CountThreads(), iThreads);
    m_Udp.Close();
    m_Udp.Close();
    EXPECT_TRUE(second.Open(PROG, PORT, &m_Utilities, cReason));
}

TEST_F(SocketTest, OpenUdp_NoDescriptorLeft_FailsWithReason)
{
    char cReason[REASON_SIZE] = "";
    {
        const CDescriptorShortage shortage;
        EXPECT_FALSE(m_Udp.Open(PROG, PORT, &m_Utilities, cReason));
    }
    EXPECT_STREQ(cReason, "Fail to create datagram socket. Too many open files (24)");
    OpenUdp();
}

TEST_F(SocketTest, SamePort_IsSharedByTcpAndUdp)
{
    OpenTcp();
    OpenUdp();
    CTcpClient client(PORT);
    EXPECT_TRUE(IsServed(&client));
}

// ---- One connection object ----

TEST_F(SocketTest, ClosedSocket_IsInactiveAndSendsNothing)
{
    CSocket connection(SOCKET_STREAM, PROG);
    EXPECT_FALSE(connection.IsActive());
    EXPECT_EQ(connection.GetType(), SOCKET_STREAM);
    EXPECT_EQ(connection.GetProgId(), PROG);
    EXPECT_EQ(connection.GetRemoteAddress(), "0.0.0.0");
    EXPECT_EQ(connection.GetRemotePort(), 0);
    connection.GetOutputStream()->Write("text", 4);
    connection.Send();
    EXPECT_EQ(connection.GetOutputStream()->GetBufferSize(), 4U);
    EXPECT_FALSE(connection.Flush());
    EXPECT_FALSE(connection.Open(-1, &m_Listener, nullptr));
    EXPECT_FALSE(connection.IsActive());
    connection.Close();
}

TEST_F(SocketTest, OpenedSocket_IsActiveUntilItsPeerLeaves)
{
    int iPair[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, iPair), 0);
    CAutoFd peer(iPair[0]);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(700);
    address.sin_addr.s_addr = htonl(0x0A010203);
    CSocket connection(SOCKET_STREAM, PROG);
    ASSERT_TRUE(connection.Open(iPair[1], &m_Listener, &address));
    EXPECT_TRUE(connection.IsActive());
    EXPECT_EQ(connection.GetRemoteAddress(), "10.1.2.3");
    EXPECT_EQ(connection.GetRemotePort(), 700);
    peer.Reset();
    EXPECT_TRUE(WaitUntil([&] { return !connection.IsActive(); }));
}

TEST_F(SocketTest, OpenSocket_IsReplacedByTheNextOpen)
{
    CSocket connection(SOCKET_STREAM, PROG);
    const size_t iDescriptors = CountDescriptors();
    int iFirst[2] = {-1, -1};
    int iSecond[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, iFirst), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, iSecond), 0);
    CAutoFd firstPeer(iFirst[0]);
    CAutoFd secondPeer(iSecond[0]);
    ASSERT_TRUE(connection.Open(iFirst[1], &m_Listener, nullptr));
    ASSERT_TRUE(connection.Open(iSecond[1], &m_Listener, nullptr));
    char cByte = 0;
    EXPECT_EQ(recv(firstPeer.Get(), &cByte, 1, 0), 0);  // closed
    ASSERT_EQ(send(secondPeer.Get(), "?", 1, MSG_NOSIGNAL), 1);
    EXPECT_EQ(recv(secondPeer.Get(), &cByte, 1, 0), 1);
    connection.Close();
    firstPeer.Reset();
    secondPeer.Reset();
    EXPECT_EQ(CountDescriptors(), iDescriptors);
}
