// A server process with one session, and clients of it whose every answer a test has in its hands.
#pragma once

#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "LogWaiter.h"
#include "NfsIpcServerMain.h"
#include "RelayPeer.h"
#include "RuntimeParam.h"
#include "Text.h"

constexpr char SERVER_CHANNEL[] = "/tmp/nfs-server";
constexpr char GAVE_UP[] = "[IpcClient.SendRequest] Fail to read ipc server reply. Interrupted "
                           "system call (4)";

inline std::string IsSessionExistsRequest(const std::string& sSession)
{
    return Header(GROUP_REQUEST, 9) + Field(sSession, 256);
}

inline std::string SessionListingRequest(const std::string& sIpcID)
{
    return Header(GROUP_REQUEST, 20) + Field(sIpcID, 256) + Int32(1);
}

// A client's channel whose every exchange the test has in its own hands.
class CHandPeer {
public:
    explicit CHandPeer(const std::string& sID) : m_sChannel("/tmp/nfs-" + sID)
    {
        const sockaddr_un address = relay::GetAddress(m_sChannel);
        EXPECT_EQ(
            bind(m_listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
            0);
        EXPECT_EQ(listen(m_listener.Get(), 100), 0);
    }
    ~CHandPeer() { unlink(m_sChannel.c_str()); }
    CHandPeer(const CHandPeer&) = delete;
    CHandPeer& operator=(const CHandPeer&) = delete;

    // Waits for a message, which is then open to be answered.
    std::string Take()
    {
        struct pollfd wait = {m_listener.Get(), POLLIN, 0};
        EXPECT_EQ(poll(&wait, 1, relay::PATIENCE * 1000), 1) << "nobody asks";
        m_vOpen.emplace_back(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        char cBuffer[8192];
        const ssize_t iReceived = recv(m_vOpen.back().Get(), cBuffer, sizeof(cBuffer), 0);
        EXPECT_GT(iReceived, 0);
        return relay::Describe({cBuffer, iReceived > 0 ? static_cast<size_t>(iReceived) : 0});
    }

    // Answers the one that was taken last.
    void Answer(const std::string& sReply)
    {
        EXPECT_EQ(send(m_vOpen.back().Get(), sReply.data(), sReply.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(sReply.size()));
        m_vOpen.pop_back();
    }

    size_t CountOpen() const { return m_vOpen.size(); }

private:
    const std::string m_sChannel;
    const CAutoFd m_listener{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::vector<CAutoFd> m_vOpen;
};

class IpcNested : public testing::Test {
protected:
    void SetUp() override
    {
        m_main.SetCallback(&m_Host);
        StartController();
        m_main.AddSessionInfo("s1", "/x");
    }

    void TearDown() override
    {
        relay::ExpectReturns("StopRemoteController", [this] { m_main.StopRemoteController(); });
        relay::ExpectReturns("StopServer", [this] { m_main.StopServer(); });
        m_main.SetCallback(nullptr);
    }

    void StartController()
    {
        char cReason[REASON_SIZE] = "";
        ASSERT_TRUE(m_main.StartRemoteController(cReason)) << cReason;
    }

    CLogWaiter m_Host;
    CNfsIpcServerMain m_main{"svr", LOG_CONTROL_ERROR};
};

constexpr char LINE[] = "raw|svr| session1 - s1 : /x";
