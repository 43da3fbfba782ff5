// What does a question to a server process cost, and how many are answered in a second?
//   Exchange               CIpcClient asks for the version: connect, ask, read, close
//   BareExchange           the same system calls and sizes with nothing around them
// Each with one client, whose time is that of a round trip, and with a hundred at once.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "AutoFd.h"
#include "IpcClient.h"
#include "NfsIpcServerMain.h"

namespace {

constexpr int MANY_CLIENTS = 100;
constexpr int BACKLOG = 5;  // as the channel's own

// A channel of this process alone: a server process of the machine is not met.
std::string GetChannel(const char* pcName)
{
    char cChannel[IPC_CHANNEL_SIZE];
    GetIpcChannel(cChannel, ("bench-" + std::to_string(getpid()) + pcName).c_str());
    return cChannel;
}

class CBenchMain : public CNfsIpcServerMain {
public:
    CBenchMain() : CNfsIpcServerMain("bench", 0)
    {
        char cReason[REASON_SIZE] = "";
        if (!StartRemoteController(cReason)) {
            fprintf(stderr, "%s\n", cReason);
            exit(EXIT_FAILURE);
        }
    }
    ~CBenchMain() override { StopRemoteController(); }

    void GetIpcServerThreadChannel(char* pcOut) override
    {
        CopyText(pcOut, IPC_CHANNEL_SIZE, m_sChannel.c_str());
    }

    const char* GetPath() const { return m_sChannel.c_str(); }

private:
    const std::string m_sChannel = GetChannel("");
};

// Made by the first client thread, before the clock runs.
CBenchMain* GetServer()
{
    static CBenchMain s_main;
    return &s_main;
}

void Exchange(benchmark::State& state)
{
    CBenchMain* pServer = GetServer();
    for (auto _ : state) {
        CIpcClient client(pServer->GetUtils(), pServer->GetRuntimeParam());
        client.InitialRequest<Ipc_Header>(IPC_REQUEST_TYPE_GET_VERSION);
        if (!client.SendRequest(pServer->GetPath(), nullptr) || client.GetMsgReply() == nullptr)
            state.SkipWithError("no reply");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(Exchange)->Threads(1)->Threads(MANY_CLIENTS)->UseRealTime();

// Answers a header with a text, until someone connects and says nothing.
class CBareServer {
public:
    CBareServer() : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const std::string sPath = GetChannel("-bare");
        m_address.sun_family = AF_UNIX;
        memcpy(m_address.sun_path, sPath.c_str(), sPath.length() + 1);
        unlink(m_address.sun_path);
        if (bind(m_socket.Get(), GetAddress(), sizeof(m_address)) != 0 ||
            listen(m_socket.Get(), BACKLOG) != 0) {
            perror("bare server");
            exit(EXIT_FAILURE);
        }
        m_thread = std::thread([this] { Run(); });
    }
    ~CBareServer()
    {
        Connect().Reset();
        m_thread.join();
        unlink(m_address.sun_path);
    }
    CBareServer(const CBareServer&) = delete;
    CBareServer& operator=(const CBareServer&) = delete;

    bool Ask()
    {
        const CAutoFd peer = Connect();
        char cReply[IPC_MESSAGE_SIZE];
        const Ipc_Header request = {IPC_GROUP_REQUEST, IPC_REQUEST_TYPE_GET_VERSION, "1.2"};
        const bool bDone = send(peer.Get(), &request, sizeof(request), MSG_NOSIGNAL) ==
                               static_cast<ssize_t>(sizeof(request)) &&
                           recv(peer.Get(), cReply, sizeof(cReply), 0) ==
                               static_cast<ssize_t>(sizeof(IpcReply_Message));
        shutdown(peer.Get(), SHUT_RDWR);
        return bDone;
    }

private:
    const sockaddr* GetAddress() const { return reinterpret_cast<const sockaddr*>(&m_address); }

    CAutoFd Connect() const
    {
        CAutoFd peer(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (connect(peer.Get(), GetAddress(), sizeof(m_address)) != 0)
            perror("connect");
        return peer;
    }

    void Run()
    {
        const IpcReply_Message reply = {};
        char cRequest[IPC_MESSAGE_SIZE];
        for (bool bAsked = true; bAsked;) {
            const CAutoFd peer(accept4(m_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            bAsked = recv(peer.Get(), cRequest, sizeof(cRequest), 0) > 0;
            if (bAsked)
                send(peer.Get(), &reply, sizeof(reply), MSG_NOSIGNAL);
        }
    }

    CAutoFd m_socket;
    sockaddr_un m_address = {};
    std::thread m_thread;
};

CBareServer* GetBareServer()
{
    static CBareServer s_server;
    return &s_server;
}

void BareExchange(benchmark::State& state)
{
    CBareServer* pServer = GetBareServer();
    for (auto _ : state) {
        if (!pServer->Ask())
            state.SkipWithError("no reply");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BareExchange)->Threads(1)->Threads(MANY_CLIENTS)->UseRealTime();

}  // namespace
