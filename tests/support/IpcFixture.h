// A local channel from the outside: the bytes that a peer sends and what it gets for them.
#pragma once

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "IpcBytes.h"
#include "IpcServer.h"
#include "LogRecorder.h"
#include "TestEnvironment.h"
#include "Text.h"
#include "Utilities.h"

using Lines = std::vector<std::string>;

constexpr int IPC_PATIENCE = 20;  // seconds; whoever takes longer hangs

// One connection. Sending never raises a signal, and nothing here waits for ever.
class CIpcPeer {
public:
    explicit CIpcPeer(const std::string& sChannel)
        : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const struct timeval patience = {IPC_PATIENCE, 0};
        setsockopt(m_socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        setsockopt(m_socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        CopyText(address.sun_path, sizeof(address.sun_path), sChannel.c_str());
        m_bConnected = connect(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address),
                               sizeof(address)) == 0;
    }

    bool IsConnected() const { return m_bConnected; }

    void Send(const std::string& sBytes)
    {
        EXPECT_TRUE(m_bConnected);
        EXPECT_EQ(send(m_socket.Get(), sBytes.data(), sBytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(sBytes.size()));
    }

    // Says no more, but listens on.
    void Finish() { EXPECT_EQ(shutdown(m_socket.Get(), SHUT_WR), 0); }

    void Leave() { m_socket.Reset(); }

    // All that comes until the other end closes the connection.
    std::string Read()
    {
        std::string sBytes;
        char cBuffer[8192];
        ssize_t iReceived = 0;
        while ((iReceived = recv(m_socket.Get(), cBuffer, sizeof(cBuffer), 0)) > 0)
            sBytes.append(cBuffer, static_cast<size_t>(iReceived));
        // It may close with bytes of ours unread; that it closes is what counts.
        EXPECT_TRUE(iReceived == 0 || errno == ECONNRESET) << "it does not close";
        return sBytes;
    }

    // What is there already, without waiting for more.
    std::string Peek()
    {
        char cBuffer[8192];
        const ssize_t iThere =
            recv(m_socket.Get(), cBuffer, sizeof(cBuffer), MSG_DONTWAIT | MSG_PEEK);
        return iThere <= 0 ? "" : std::string(cBuffer, static_cast<size_t>(iThere));
    }

    // True as long as the other end neither says anything nor closes.
    bool IsKeptWaiting()
    {
        char cByte = 0;
        return recv(m_socket.Get(), &cByte, 1, MSG_DONTWAIT | MSG_PEEK) == -1 && errno == EAGAIN;
    }

private:
    CAutoFd m_socket;
    bool m_bConnected = false;
};

// One exchange with whoever serves the channel.
inline std::string Exchange(const std::string& sChannel, const std::string& sMessage)
{
    CIpcPeer peer(sChannel);
    peer.Send(sMessage);
    return peer.Read();
}

// Replies in full, apart from the padding of a flag and from what stands behind a text.
inline testing::AssertionResult SameReply(const std::string& sActual, const std::string& sWanted)
{
    if (sWanted.size() == 20 && sWanted[4] == REPLY_BOOL)
        return SameMessage(sActual, sWanted, {{17, 20}});
    if (sWanted.size() == 2064)
        return SameMessage(sActual, sWanted, {}, {{16, 2064}});
    return SameMessage(sActual, sWanted);
}

// Runs something that must come back. There is no way on if it does not.
inline void ExpectReturns(const char* pcWhat, const std::function<void()>& run)
{
    auto done = std::async(std::launch::async, run);
    if (done.wait_for(std::chrono::seconds(IPC_PATIENCE)) == std::future_status::ready)
        return;
    fprintf(stderr, "%s does not return\n", pcWhat);
    abort();
}

// Threads without those that are just ending: one that was joined shows for a moment longer.
inline size_t CountLiveThreads()
{
    constexpr unsigned long ENDING = 4;  // among the flags, the seventh word behind the name
    size_t iCount = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string sText = ReadWholeFile(entry.path() / "stat");
        std::istringstream words(sText.substr(sText.rfind(')') + 1));
        std::string sSkipped;
        for (int i = 0; i < 6; i++)
            words >> sSkipped;
        unsigned long iFlags = ENDING;
        words >> iFlags;
        iCount += (iFlags & ENDING) == 0 ? 1 : 0;
    }
    return iCount;
}

// A server that is asked in the test's own thread, so that each message is dealt with when the
// test wants it: a peer can connect and speak before anybody listens to it.
template <typename Main>
class CIpcServerFixture : public testing::Test {
protected:
    explicit CIpcServerFixture(int iLogControl) : m_main("svr", iLogControl)
    {
        signal(SIGPIPE, SIG_DFL);
        m_main.SetCallback(&m_recorder);
        m_pServer = std::make_unique<CIpcServer>(&m_main);
    }
    ~CIpcServerFixture() override { m_main.SetCallback(nullptr); }

    void Open() { ASSERT_TRUE(m_pServer->Open(m_sChannel.c_str(), m_cError)) << m_cError; }

    // The reply to a message of at least one byte.
    std::string Ask(const std::string& sMessage)
    {
        CIpcPeer peer(m_sChannel);
        peer.Send(sMessage);
        EXPECT_TRUE(m_pServer->ReadRequest(m_cError)) << m_cError;
        return peer.Read();
    }

    // The reply to nothing at all.
    std::string AskNothing()
    {
        CIpcPeer peer(m_sChannel);
        peer.Finish();
        EXPECT_TRUE(m_pServer->ReadRequest(m_cError)) << m_cError;
        return peer.Read();
    }

    CScratchFolder m_folder;
    const std::string m_sChannel = m_folder.Path("channel");
    CLogRecorder m_recorder;
    char m_cError[REASON_SIZE] = "";
    Main m_main;
    std::unique_ptr<CIpcServer> m_pServer;
};
