// The other end of a local channel as a test wants it: it takes whatever bytes come and answers
// with bytes that the test gives.
#pragma once

#include <cerrno>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <poll.h>
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

constexpr char SERVER_CHANNEL[] = "/tmp/nfs-server";

inline sockaddr_un MakeChannelAddress(const std::string& sChannel)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    EXPECT_LT(sChannel.size(), sizeof(address.sun_path));
    sChannel.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

// A socket that is bound to the channel, and nothing more. -1 if it cannot be had.
inline int BindChannel(const std::string& sChannel)
{
    CAutoFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = MakeChannelAddress(sChannel);
    if (bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        return -1;
    return socket.Release();
}

// Listens from construction to destruction, each connection on a thread of its own, so that no
// client waits for another one. A request that no answer is given for is read, and the connection
// closed without a word.
// Locking: safe from any thread.
class CFakeIpcServer {
public:
    // Makes the reply to a message, on the connection's thread. An empty one is not sent.
    using Handler = std::function<std::string(const std::string&)>;

    enum class Manners {
        ANSWERS,
        CLOSES_AT_ONCE,  // before the client says a word
        CLOSES_UNREAD,   // when the client has spoken, but without listening
    };

    explicit CFakeIpcServer(std::string sChannel = SERVER_CHANNEL,
                            Manners manners = Manners::ANSWERS)
        : m_sChannel(std::move(sChannel)), m_Manners(manners), m_Listener(BindChannel(m_sChannel))
    {
        if (m_Listener.Get() == -1 || listen(m_Listener.Get(), 128) != 0)
            ADD_FAILURE() << "No channel " << m_sChannel;
        m_hThread = std::thread([this] { Listen(); });
    }

    // Clients that still talk are cut off.
    ~CFakeIpcServer()
    {
        shutdown(m_Listener.Get(), SHUT_RDWR);
        m_hThread.join();
        {
            const std::lock_guard<std::mutex> lock(m_Mutex);
            for (const int iConnection : m_vOpen)
                shutdown(iConnection, SHUT_RDWR);
        }
        for (std::thread& hThread : m_vThreads)
            hThread.join();
        unlink(m_sChannel.c_str());
    }
    CFakeIpcServer(const CFakeIpcServer&) = delete;
    CFakeIpcServer& operator=(const CFakeIpcServer&) = delete;

    // The answer to requests of that type, and to those of types that have none.
    void Answer(int iType, std::string sReply)
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_Answers[iType] = std::move(sReply);
    }
    void AnswerAll(std::string sReply)
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_sAnswer = std::move(sReply);
    }

    // What it says when it is asked for its version.
    void SetVersion(std::string_view sVersion) { Answer(1, MsgReply(sVersion)); }

    // Takes the place of all answers.
    void SetHandler(Handler handler)
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_Handler = std::move(handler);
    }

    // All that clients sent, one text per connection in the order in which they spoke, once every
    // connection is closed by its client.
    std::vector<std::string> Requests()
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Changed.wait(lock, [this] { return m_vOpen.empty(); });
        return m_vRequests;
    }

    void ForgetRequests()
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Changed.wait(lock, [this] { return m_vOpen.empty(); });
        m_vRequests.clear();
    }

    // Returns once so many clients have come and their connections are closed.
    void WaitForClosed(size_t iConnections)
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Changed.wait(lock, [this, iConnections] { return m_iClosed >= iConnections; });
    }

private:
    void Listen()
    {
        for (;;) {
            // An accept that waits would hold a descriptor all the time, which a test may count.
            struct pollfd waits = {m_Listener.Get(), POLLIN, 0};
            if (poll(&waits, 1, -1) != 1)
                continue;
            const int iConnection = accept4(m_Listener.Get(), nullptr, nullptr, SOCK_CLOEXEC);
            if (iConnection == -1 && errno == EINVAL)  // shut down
                return;
            if (iConnection == -1)
                continue;
            const std::lock_guard<std::mutex> lock(m_Mutex);
            m_vOpen.push_back(iConnection);
            m_vThreads.emplace_back([this, iConnection] {
                Serve(iConnection);
                Close(iConnection);
            });
        }
    }

    void Serve(int iConnection)
    {
        char cBuffer[8192];
        if (m_Manners == Manners::CLOSES_AT_ONCE)
            return;
        if (m_Manners == Manners::CLOSES_UNREAD) {
            recv(iConnection, cBuffer, sizeof(cBuffer), MSG_PEEK);
            return;
        }
        const ssize_t iReceived = recv(iConnection, cBuffer, sizeof(cBuffer), 0);
        if (iReceived <= 0)
            return;
        const std::string sRequest(cBuffer, static_cast<size_t>(iReceived));
        const size_t iIndex = Record(sRequest);
        const std::string sReply = MakeReply(sRequest);
        if (sReply.empty())
            return;
        send(iConnection, sReply.data(), sReply.size(), MSG_NOSIGNAL);
        for (;;) {  // until the client closes; what else it says is a part of its message
            const ssize_t iMore = recv(iConnection, cBuffer, sizeof(cBuffer), 0);
            if (iMore <= 0)
                return;
            const std::lock_guard<std::mutex> lock(m_Mutex);
            m_vRequests[iIndex].append(cBuffer, static_cast<size_t>(iMore));
        }
    }

    size_t Record(const std::string& sRequest)
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_vRequests.push_back(sRequest);
        return m_vRequests.size() - 1;
    }

    std::string MakeReply(const std::string& sRequest)
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        if (m_Handler) {
            const Handler handler = m_Handler;
            lock.unlock();
            return handler(sRequest);
        }
        const int iType = sRequest.size() < 8 ? 0 : static_cast<unsigned char>(sRequest[4]);
        const auto iterator = m_Answers.find(iType);
        return iterator == m_Answers.end() ? m_sAnswer : iterator->second;
    }

    // Closed before it is counted: who waits for the count finds it closed.
    void Close(int iConnection)
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        close(iConnection);
        std::erase(m_vOpen, iConnection);
        m_iClosed++;
        m_Changed.notify_all();
    }

    const std::string m_sChannel;
    const Manners m_Manners;
    const CAutoFd m_Listener;
    std::thread m_hThread;
    std::vector<std::thread> m_vThreads;  // one per connection; the listening thread's

    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    Handler m_Handler;
    std::map<int, std::string> m_Answers;  // by the type of the request
    std::string m_sAnswer;
    std::vector<std::string> m_vRequests;
    std::vector<int> m_vOpen;
    size_t m_iClosed = 0;
};
