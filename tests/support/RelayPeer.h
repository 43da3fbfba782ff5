// A client process as a relay meets it, played by a test: it listens on the client's channel, takes
// whatever bytes come and answers with bytes that the test gives. Messages are written out by hand
// on purpose: a test that took the layouts from the code would agree with whatever the code says.
#pragma once

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "IpcBytes.h"

// What a relay says, beside the bytes of all messages.
namespace relay {

constexpr int MESSAGE = 1;  // types of callbacks
constexpr int SET_ATTRIBUTES = 2;
constexpr int REMOVE = 3;
constexpr int RENAME = 4;
constexpr int WRITE = 5;

constexpr int INFO = 1;  // kinds of lines
constexpr int ERROR = 2;
constexpr int RAW = 3;

// A byte that is 0 or 1, and seven that mean nothing: a 64-bit word follows.
inline std::string LongFlag(bool bValue)
{
    return Word(bValue ? 1 : 0, 8);
}

inline std::string Line(std::string_view sID, std::string_view sText, int iKind)
{
    return Header(GROUP_CALLBACK, MESSAGE) + Field(sID, TEXT_FIELD) + Field(sText, MESSAGE_FIELD) +
           Int32(iKind);
}

// ---- What a message says ----

inline uint64_t GetWord(const std::string& sMessage, size_t iOffset, size_t iBytes = 4)
{
    uint64_t iValue = 0;
    for (size_t i = 0; i < iBytes && iOffset + i < sMessage.size(); i++)
        iValue |= static_cast<uint64_t>(static_cast<unsigned char>(sMessage[iOffset + i]))
                  << (8 * i);
    return iValue;
}

inline std::string GetText(const std::string& sMessage, size_t iOffset)
{
    return iOffset < sMessage.size() ? std::string(sMessage.c_str() + iOffset) : std::string();
}

inline bool IsLine(const std::string& sMessage)
{
    return GetWord(sMessage, 0) == GROUP_CALLBACK && GetWord(sMessage, 4) == MESSAGE;
}

// A line as "kind|ID|text", a notification as its type: "#5|ID|path".
inline std::string Describe(const std::string& sMessage)
{
    const std::string sID = GetText(sMessage, 16);
    const std::string sText = GetText(sMessage, 272);
    if (!IsLine(sMessage))
        return "#" + std::to_string(GetWord(sMessage, 4)) + "|" + sID + "|" + sText;
    const char* const pcKinds[] = {"none", "info", "error", "raw"};
    const uint64_t iKind = GetWord(sMessage, 2320);
    return std::string(iKind < 4 ? pcKinds[iKind] : "?") + "|" + sID + "|" + sText;
}

constexpr int PATIENCE = 20;  // seconds; whoever takes longer hangs

inline sockaddr_un GetAddress(const std::string& sChannel)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    EXPECT_LT(sChannel.size(), sizeof(address.sun_path));
    sChannel.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

// A connection to a channel that has sent its message; the answer may be long in coming.
class CAsking {
public:
    CAsking(const std::string& sChannel, const std::string& sMessage)
        : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const struct timeval patience = {PATIENCE, 0};
        setsockopt(m_socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        const sockaddr_un address = GetAddress(sChannel);
        EXPECT_EQ(
            connect(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
            0);
        EXPECT_EQ(send(m_socket.Get(), sMessage.data(), sMessage.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(sMessage.size()));
    }

    // All that comes until the other end closes.
    std::string Read()
    {
        std::string sBytes;
        char cBuffer[8192];
        ssize_t iReceived = 0;
        while ((iReceived = recv(m_socket.Get(), cBuffer, sizeof(cBuffer), 0)) > 0)
            sBytes.append(cBuffer, static_cast<size_t>(iReceived));
        EXPECT_EQ(iReceived, 0) << "no answer";
        return sBytes;
    }

    bool IsAnswered()
    {
        char cByte = 0;
        return recv(m_socket.Get(), &cByte, 1, MSG_DONTWAIT | MSG_PEEK) >= 0;
    }

private:
    const CAutoFd m_socket;
};

inline std::string Ask(const std::string& sChannel, const std::string& sMessage)
{
    return CAsking(sChannel, sMessage).Read();
}

// Runs something that must come back. There is no way on if it does not.
inline void ExpectReturns(const char* pcWhat, const std::function<void()>& run)
{
    auto done = std::async(std::launch::async, run);
    if (done.wait_for(std::chrono::seconds(PATIENCE)) == std::future_status::ready) {
        done.get();
        return;
    }
    fprintf(stderr, "%s does not return\n", pcWhat);
    abort();
}

// A channel that is open but looked after by nobody, as a stopped process leaves it. Connections
// and messages go into it until its short queue is full.
class CFrozenPeer {
public:
    explicit CFrozenPeer(const std::string& sID) : m_sChannel("/tmp/nfs-" + sID)
    {
        const sockaddr_un address = GetAddress(m_sChannel);
        EXPECT_EQ(
            bind(m_listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
            0);
        EXPECT_EQ(listen(m_listener.Get(), 5), 0);
    }
    ~CFrozenPeer() { unlink(m_sChannel.c_str()); }
    CFrozenPeer(const CFrozenPeer&) = delete;
    CFrozenPeer& operator=(const CFrozenPeer&) = delete;

    // Returns once somebody has sent it something; the first message that came.
    std::string WaitForMessage()
    {
        m_first.Reset(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        char cBuffer[8192];
        const ssize_t iReceived = recv(m_first.Get(), cBuffer, sizeof(cBuffer), MSG_PEEK);
        EXPECT_GT(iReceived, 0);
        return {cBuffer, iReceived > 0 ? static_cast<size_t>(iReceived) : 0};
    }

private:
    const std::string m_sChannel;
    const CAutoFd m_listener{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    CAutoFd m_first;
};

}  // namespace relay

// Listens as the client of that ID from construction to destruction, and serves one connection
// after the other, as a client process does.
// Locking: safe from any thread.
class CRelayPeer {
public:
    // Makes the answer to a message, on the peer's thread. An empty one is not sent.
    using Handler = std::function<std::string(const std::string&)>;

    explicit CRelayPeer(const std::string& sID, Handler handler = {})
        : m_sChannel("/tmp/nfs-" + sID), m_Handler(std::move(handler))
    {
        const sockaddr_un address = relay::GetAddress(m_sChannel);
        if (bind(m_listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
                0 ||
            listen(m_listener.Get(), 5) != 0)
            ADD_FAILURE() << "No channel " << m_sChannel;
        m_hThread = std::thread([this] { Serve(); });
    }
    ~CRelayPeer()
    {
        shutdown(m_listener.Get(), SHUT_RDWR);
        m_hThread.join();
        unlink(m_sChannel.c_str());
    }
    CRelayPeer(const CRelayPeer&) = delete;
    CRelayPeer& operator=(const CRelayPeer&) = delete;

    // What notifications are answered with, unless there is a handler.
    void SetResult(int iResult)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_iResult = iResult;
    }

    // All messages so far, in their order; a message counts before it is answered.
    std::vector<std::string> Messages() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_vMessages;
    }
    std::vector<std::string> Descriptions() const
    {
        std::vector<std::string> vTexts;
        for (const std::string& sMessage : Messages())
            vTexts.push_back(relay::Describe(sMessage));
        return vTexts;
    }

    // Waits until a message has sText in its description; false if none comes.
    bool WaitFor(const std::string& sText) const
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(relay::PATIENCE), [&] {
            for (const std::string& sMessage : m_vMessages)
                if (relay::Describe(sMessage).find(sText) != std::string::npos)
                    return true;
            return false;
        });
    }

private:
    void Serve()
    {
        for (;;) {
            const CAutoFd connection(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (connection.Get() == -1 && errno == EINVAL)  // shut down
                return;
            char cBuffer[8192];
            const ssize_t iReceived = recv(connection.Get(), cBuffer, sizeof(cBuffer), 0);
            if (iReceived <= 0)
                continue;
            const std::string sMessage(cBuffer, static_cast<size_t>(iReceived));
            const std::string sReply = Note(sMessage);
            send(connection.Get(), sReply.data(), sReply.size(), MSG_NOSIGNAL);
        }
    }

    std::string Note(const std::string& sMessage)
    {
        int iResult = 0;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_vMessages.push_back(sMessage);
            iResult = m_iResult;
            m_changed.notify_all();
        }
        if (m_Handler)
            return m_Handler(sMessage);
        return relay::IsLine(sMessage) ? BoolReply(true) : IntReply(iResult);
    }

    const std::string m_sChannel;
    const Handler m_Handler;
    const CAutoFd m_listener{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::thread m_hThread;

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<std::string> m_vMessages;
    int m_iResult = 0;
};
