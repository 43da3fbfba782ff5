// Sockets when the system is short of descriptors, memory or threads.
#include "Socket.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "DatagramSocket.h"
#include "DescriptorShortage.h"
#include "Ports.h"
#include "Sanitizers.h"
#include "ServerSocket.h"
#include "TestEnvironment.h"
#include "Text.h"
#include "Utilities.h"
#include "WireClient.h"

namespace {

constexpr int PORT = 4000;
constexpr unsigned long PROG = 100003;
constexpr char SERVED[] = "served as all others are";  // as long as a reply

std::atomic<int> g_iWaits = 0;       // of the threads that the sockets have
std::atomic<int> g_iTimedWaits = 0;  // those that end although nothing happens

}  // namespace

// Stands before the C library's in this program, to count.
extern "C" __attribute__((visibility("default"))) int poll(struct pollfd* pWaits, nfds_t iCount,
                                                           int iTimeout)
{
    if (syscall(SYS_gettid) != getpid()) {
        g_iWaits++;
        g_iTimedWaits += iTimeout >= 0 ? 1 : 0;
    }
    const struct timespec timeout = {iTimeout / 1000, iTimeout % 1000 * 1000000L};
    return static_cast<int>(
        syscall(SYS_ppoll, pWaits, iCount, iTimeout < 0 ? nullptr : &timeout, nullptr, 0));
}

#ifndef STAGENFS_SANITIZED

namespace {

constexpr int ALL = -1;

std::atomic<int> g_iStreamsLeft = ALL;  // so many are granted, one is not, and then all are
std::atomic<bool> g_bRefuseThread = false;

}  // namespace

// So do these two, to refuse.
extern "C" {

__attribute__((visibility("default"))) void* calloc(size_t iCount, size_t iSize) noexcept
{
    const size_t iBytes = iCount * iSize;
    if (iBytes == CSocketStream::GetMaxBufferSize() && g_iStreamsLeft != ALL &&
        g_iStreamsLeft-- == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    void* pBytes = realloc(nullptr, iBytes);
    return pBytes == nullptr ? nullptr : memset(pBytes, 0, iBytes);
}

__attribute__((visibility("default"))) int pthread_create(pthread_t* pThread,
                                                          const pthread_attr_t* pAttributes,
                                                          void* (*pRun)(void*),
                                                          void* pArgument) noexcept
{
    using Function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    if (g_bRefuseThread.exchange(false))
        return EAGAIN;
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_create"))(pThread, pAttributes,
                                                                          pRun, pArgument);
}
}

#endif

namespace {

class CListener : public ISocketListener {
public:
    void SocketReceived(CSocket* pSocket) override
    {
        pSocket->GetInputStream()->Skip(pSocket->GetInputStream()->GetFilledBufferSize());
        pSocket->GetOutputStream()->Write(SERVED, sizeof(SERVED) - 1);
        pSocket->Send();
    }
};

class SocketShortage : public testing::Test {
protected:
    void SetUp() override
    {
        m_Tcp.SetListener(&m_Listener);
        m_Udp.SetListener(&m_Listener);
    }

    bool OpenTcp() { return m_Tcp.Open(PROG, PORT, 1, &m_Utilities, m_cReason); }
    bool OpenUdp() { return m_Udp.Open(PROG, PORT, &m_Utilities, m_cReason); }

    // One client after another until one is served, as its predecessor's place becomes free; false
    // if none is.
    static bool IsServing()
    {
        for (int i = 0; i < 10000; i++) {
            CTcpClient client(PORT);
            client.Send("?");
            const std::string sReceived = client.ReceiveRaw(sizeof(SERVED) - 1);
            if (!sReceived.empty() || !client.WasClosed())
                return sReceived == SERVED;
        }
        return false;
    }

    // Both sockets must be gone, and must come back.
    void ExpectNothingLeft()
    {
        EXPECT_EQ(m_Tcp.GetSocket(), -1);
        EXPECT_EQ(CountDescriptors(), m_iDescriptors);
        ExpectPortFree(PORT);
        EXPECT_TRUE(OpenTcp()) << m_cReason;
        EXPECT_TRUE(OpenUdp()) << m_cReason;
        EXPECT_TRUE(IsServing());
        m_Tcp.Close();
        m_Udp.Close();
    }

    CUtilities m_Utilities;
    CListener m_Listener;
    CServerSocket m_Tcp;
    CDatagramSocket m_Udp;
    char m_cReason[REASON_SIZE] = "";
    const size_t m_iDescriptors = CountDescriptors();
};

}  // namespace

TEST_F(SocketShortage, NothingToDo_AllThreadsWaitWithoutEnd)
{
    ASSERT_TRUE(OpenTcp()) << m_cReason;
    ASSERT_TRUE(OpenUdp()) << m_cReason;
    g_iWaits = 0;
    g_iTimedWaits = 0;
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send("?"));
    EXPECT_EQ(client.ReceiveRaw(sizeof(SERVED) - 1), SERVED);
    CUdpClient datagramClient(PORT);
    ASSERT_TRUE(datagramClient.Send("?"));
    EXPECT_EQ(datagramClient.ReceiveReply().Bytes(), SERVED);
    m_Tcp.Close();
    m_Udp.Close();
    EXPECT_EQ(g_iTimedWaits, 0);
    EXPECT_LE(g_iWaits, 8);  // not more than there were events
}

TEST_F(SocketShortage, OpenTcp_DescriptorsForThePortOnly_FailsWithReasonAndLeavesNothing)
{
    for (const int iLeft : {1, 2}) {
        m_cReason[0] = '\0';
        {
            const CDescriptorShortage few(static_cast<size_t>(iLeft));
            EXPECT_FALSE(OpenTcp());
        }
        EXPECT_STREQ(m_cReason, "Fail to create server socket. Too many open files (24)") << iLeft;
        ExpectNothingLeft();
    }
}

TEST_F(SocketShortage, OpenUdp_DescriptorsForThePortOnly_FailsWithReasonAndLeavesNothing)
{
    for (const int iLeft : {1, 2}) {
        m_cReason[0] = '\0';
        {
            const CDescriptorShortage few(static_cast<size_t>(iLeft));
            EXPECT_FALSE(OpenUdp());
        }
        EXPECT_STREQ(m_cReason, "Fail to create datagram socket. Too many open files (24)")
            << iLeft;
        ExpectNothingLeft();
    }
}

#ifndef STAGENFS_SANITIZED

TEST_F(SocketShortage, OpenTcp_NoThread_FailsWithReasonAndLeavesNothing)
{
    g_bRefuseThread = true;
    EXPECT_FALSE(OpenTcp());
    EXPECT_STREQ(m_cReason, "Fail to create server socket. Resource temporarily unavailable (11)");
    ExpectNothingLeft();
}

TEST_F(SocketShortage, OpenUdp_NoThread_FailsWithReasonAndLeavesNothing)
{
    g_bRefuseThread = true;
    EXPECT_FALSE(OpenUdp());
    EXPECT_STREQ(m_cReason,
                 "Fail to create datagram socket. Resource temporarily unavailable (11)");
    ExpectNothingLeft();
}

TEST_F(SocketShortage, OpenTcp_NoMemoryForTheStreams_FailsWithReasonAndLeavesNothing)
{
    g_iStreamsLeft = 1;
    EXPECT_FALSE(OpenTcp());
    EXPECT_STREQ(m_cReason, "Fail to create server socket. Cannot allocate memory (12)");
    ExpectNothingLeft();
}

TEST_F(SocketShortage, OpenUdp_NoMemoryForTheStreams_FailsWithReasonAndLeavesNothing)
{
    g_iStreamsLeft = 1;
    EXPECT_FALSE(OpenUdp());
    EXPECT_STREQ(m_cReason, "Fail to create datagram socket. Cannot allocate memory (12)");
    ExpectNothingLeft();
}

TEST_F(SocketShortage, Connection_NoThread_IsClosedAndItsPlaceServesTheNext)
{
    ASSERT_TRUE(OpenTcp()) << m_cReason;
    g_bRefuseThread = true;
    EXPECT_TRUE(CTcpClient(PORT).IsClosedByServer());
    EXPECT_FALSE(g_bRefuseThread);
    EXPECT_TRUE(IsServing());
    m_Tcp.Close();
    ExpectNothingLeft();
}

TEST_F(SocketShortage, Connection_NoMemoryForEitherStream_IsClosedAndItsPlaceServesTheNext)
{
    ASSERT_TRUE(OpenTcp()) << m_cReason;
    EXPECT_TRUE(IsServing());  // a place that is used again gets new streams
    for (const int iGranted : {0, 1}) {
        g_iStreamsLeft = iGranted;
        while (g_iStreamsLeft != ALL)  // the place may not be free at once
            ASSERT_TRUE(CTcpClient(PORT).IsClosedByServer());
        EXPECT_TRUE(IsServing()) << iGranted;
    }
    m_Tcp.Close();
    ExpectNothingLeft();
}

TEST_F(SocketShortage, OpenedSocket_NoMemoryForAStream_ThrowsAndClosesTheDescriptor)
{
    int iPair[2] = {-1, -1};
    CSocket connection(SOCKET_STREAM, PROG);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, iPair), 0);
    CAutoFd peer(iPair[0]);
    ASSERT_TRUE(connection.Open(iPair[1], &m_Listener, nullptr));
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, iPair), 0);
    peer.Reset(iPair[0]);
    g_iStreamsLeft = 0;
    EXPECT_THROW(connection.Open(iPair[1], &m_Listener, nullptr), std::bad_alloc);
    char cByte = 0;
    EXPECT_EQ(recv(peer.Get(), &cByte, 1, 0), 0);  // closed
    EXPECT_FALSE(connection.IsActive());
    peer.Reset();
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
}

#endif
