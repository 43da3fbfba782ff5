// The answering end of a local channel: opening, closing, one exchange after another, and what it
// writes about them.
#include "IpcServer.h"

#include <atomic>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/stat.h>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "DescriptorShortage.h"
#include "IpcFixture.h"
#include "NfsIpcServerMain.h"
#include "RuntimeParam.h"
#include "Sanitizers.h"

namespace {

// What the system's functions fail with, once each.
std::atomic<int> g_iAcceptError = 0;
std::atomic<int> g_iChmodError = 0;
std::atomic<int> g_iListenError = 0;
std::atomic<int> g_iReceiveError = 0;
std::atomic<int> g_iSendError = 0;

std::atomic<int> g_iSendLimit = 0;  // bytes that the next send takes; 0 for all

thread_local std::function<void()> g_AfterUnlock;  // runs once, when this thread unlocks a mutex

bool Fails(std::atomic<int>* pError)
{
    const int iError = pError->exchange(0);
    if (iError != 0)
        errno = iError;
    return iError != 0;
}

template <typename Function>
Function Next(const char* pcName)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, pcName));
}

}  // namespace

// These stand before the C library's.
extern "C" {

__attribute__((visibility("default"))) int accept4(int iSocket, struct sockaddr* pAddress,
                                                   socklen_t* pLength, int iFlags)
{
    using Function = int (*)(int, struct sockaddr*, socklen_t*, int);
    return Fails(&g_iAcceptError) ? -1
                                  : Next<Function>("accept4")(iSocket, pAddress, pLength, iFlags);
}

__attribute__((visibility("default"))) int chmod(const char* pcPath, mode_t iMode) noexcept
{
    using Function = int (*)(const char*, mode_t);
    return Fails(&g_iChmodError) ? -1 : Next<Function>("chmod")(pcPath, iMode);
}

__attribute__((visibility("default"))) int listen(int iSocket, int iBacklog) noexcept
{
    using Function = int (*)(int, int);
    return Fails(&g_iListenError) ? -1 : Next<Function>("listen")(iSocket, iBacklog);
}

__attribute__((visibility("default"))) ssize_t recv(int iSocket, void* pBuffer, size_t iSize,
                                                    int iFlags)
{
    using Function = ssize_t (*)(int, void*, size_t, int);
    return Fails(&g_iReceiveError) ? -1 : Next<Function>("recv")(iSocket, pBuffer, iSize, iFlags);
}

__attribute__((visibility("default"))) ssize_t send(int iSocket, const void* pBuffer, size_t iSize,
                                                    int iFlags)
{
    using Function = ssize_t (*)(int, const void*, size_t, int);
    if (Fails(&g_iSendError))
        return -1;
    const int iLimit = g_iSendLimit.exchange(0);
    return Next<Function>("send")(iSocket, pBuffer, iLimit == 0 ? iSize : size_t(iLimit), iFlags);
}

#ifndef STAGENFS_SANITIZED
__attribute__((visibility("default"))) int pthread_mutex_unlock(pthread_mutex_t* pMutex) noexcept
{
    using Function = int (*)(pthread_mutex_t*);
    static const auto unlock = Next<Function>("pthread_mutex_unlock");
    const int iResult = unlock(pMutex);
    if (g_AfterUnlock)
        std::exchange(g_AfterUnlock, nullptr)();
    return iResult;
}
#endif
}

namespace {

constexpr int LOG_STATE = LOG_CONTROL_IPC_STATE;

// A controller that lets a test look when it is asked to shut down.
class CShutdownMain : public CNfsIpcServerMain {
public:
    using CNfsIpcServerMain::CNfsIpcServerMain;

    void SetLook(std::function<void()> look) { m_look = std::move(look); }

    bool RequestAutoShutdown() override
    {
        if (m_look)
            m_look();
        return CNfsIpcServerMain::RequestAutoShutdown();
    }

private:
    std::function<void()> m_look;
};

class IpcServer : public CIpcServerFixture<CShutdownMain> {
protected:
    IpcServer() : CIpcServerFixture(0) {}

    void SetLog(int iLogControl) { m_main.GetRuntimeParam()->SetLogControl(iLogControl); }

    Lines TakeLines()
    {
        Lines vLines = m_recorder.Lines();
        m_recorder.Clear();
        return vLines;
    }

    bool OpenAt(const std::string& sChannel) { return m_pServer->Open(sChannel.c_str(), m_cError); }

    // Whether a socket listens at the path.
    bool IsServed() { return CIpcPeer(m_sChannel).IsConnected(); }

    mode_t GetMode()
    {
        struct stat info = {};
        EXPECT_EQ(stat(m_sChannel.c_str(), &info), 0);
        return info.st_mode;
    }

    // A server that cannot be opened leaves nothing behind and can be opened later.
    void ExpectOpenFails(const std::string& sChannel, const std::string& sReason)
    {
        const size_t iDescriptors = CountDescriptors();
        EXPECT_FALSE(OpenAt(sChannel));
        EXPECT_EQ(m_cError, sReason);
        EXPECT_FALSE(m_pServer->IsOpened());
        EXPECT_EQ(CountDescriptors(), iDescriptors);
    }
};

}  // namespace

// ---- Open and Close ----

TEST_F(IpcServer, Open_MakesASocketForEverybody)
{
    const mode_t iMask = umask(077);
    Open();
    umask(iMask);
    EXPECT_TRUE(m_pServer->IsOpened());
    EXPECT_EQ(GetMode(), static_cast<mode_t>(S_IFSOCK | 0777));
    EXPECT_TRUE(IsServed());
    EXPECT_STREQ(m_cError, "");
}

TEST_F(IpcServer, Open_WithoutAChannel_Fails)
{
    EXPECT_FALSE(m_pServer->Open(nullptr, m_cError));
    EXPECT_STREQ(m_cError, "Channel is not defined");
    ExpectOpenFails("", "Channel is not defined");
    EXPECT_FALSE(m_pServer->Open(nullptr, nullptr));
}

TEST_F(IpcServer, Open_Twice_FailsAndTheFirstServesOn)
{
    Open();
    EXPECT_FALSE(OpenAt(m_folder.Path("other")));
    EXPECT_STREQ(m_cError, "Channel already opened");
    EXPECT_TRUE(m_pServer->IsOpened());
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("other")));
    EXPECT_FALSE(m_pServer->Open(nullptr, m_cError));
    EXPECT_STREQ(m_cError, "Channel is not defined");  // asked first
    EXPECT_TRUE(SameReply(Ask(Request(1)), MsgReply("1.2")));
}

TEST_F(IpcServer, Open_PathThatDoesNotFitAnAddress_Fails)
{
    const size_t iLongest = sizeof(sockaddr_un::sun_path) - 1;
    std::string sPath = m_folder.Path("c");
    sPath.resize(iLongest, 'c');
    ExpectOpenFails(sPath + "c", "Channel path is longer than " + std::to_string(iLongest) +
                                     " bytes: " + sPath + "c");
    ASSERT_TRUE(OpenAt(sPath)) << m_cError;
    EXPECT_TRUE(CIpcPeer(sPath).IsConnected());
    EXPECT_TRUE(std::filesystem::exists(sPath));
}

TEST_F(IpcServer, Open_FolderAtThePath_FailsAndItStays)
{
    std::filesystem::create_directory(m_sChannel);
    ExpectOpenFails(m_sChannel, "Fail to bind ipc server socket. Address already in use (98)");
    EXPECT_TRUE(std::filesystem::is_directory(m_sChannel));
    std::filesystem::remove(m_sChannel);
    Open();
}

TEST_F(IpcServer, Open_MissingFolder_Fails)
{
    ExpectOpenFails(m_folder.Path("missing/channel"),
                    "Fail to bind ipc server socket. No such file or directory (2)");
}

TEST_F(IpcServer, Open_NoDescriptorLeft_Fails)
{
    ASSERT_TRUE(OpenAt(m_sChannel));  // a sanitizer's first look at a class needs a pipe
    m_pServer->Close();
    for (const size_t iLeft : {0U, 1U, 2U}) {
        const CDescriptorShortage shortage(iLeft);
        EXPECT_FALSE(OpenAt(m_sChannel)) << iLeft;
        EXPECT_STREQ(m_cError, "Fail to open ipc server socket. Too many open files (24)");
        EXPECT_FALSE(m_pServer->IsOpened());
    }
    EXPECT_FALSE(std::filesystem::exists(m_sChannel));
    Open();
}

TEST_F(IpcServer, Open_ModeCannotBeSet_FailsWithItsText)
{
    SetLog(LOG_CONTROL_ERROR);
    g_iChmodError = EPERM;
    ExpectOpenFails(m_sChannel, "Operation not permitted (1)");
    EXPECT_FALSE(std::filesystem::exists(m_sChannel));
    EXPECT_EQ(TakeLines(), (Lines{"error|svr|[IpcServer.Open] OS set file mode \"" + m_sChannel +
                                  "\" (mode = 511). Error=Operation not permitted (1)"}));
    Open();
}

TEST_F(IpcServer, Open_CannotListen_Fails)
{
    g_iListenError = EADDRINUSE;
    ExpectOpenFails(m_sChannel, "Fail to listen ipc server socket. Address already in use (98)");
    EXPECT_FALSE(std::filesystem::exists(m_sChannel));
    Open();
}

TEST_F(IpcServer, Open_WithoutRoomForTheReason_FailsAllTheSame)
{
    EXPECT_FALSE(m_pServer->Open(m_folder.Path("missing/channel").c_str(), nullptr));
}

TEST_F(IpcServer, Open_ReplacesWhatIsLeftAtThePath)
{
    const auto writeFile = [this] { std::ofstream(m_sChannel) << "left"; };
    const auto leaveSocket = [this] {
        const CAutoFd left(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        CopyText(address.sun_path, sizeof(address.sun_path), m_sChannel.c_str());
        ASSERT_EQ(bind(left.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
                  0);
    };
    const auto linkToNothing = [this] {
        std::filesystem::create_symlink(m_folder.Path("nothing"), m_sChannel);
    };
    for (const std::function<void()>& leave :
         {std::function<void()>(writeFile), std::function<void()>(leaveSocket),
          std::function<void()>(linkToNothing)}) {
        leave();
        Open();
        EXPECT_EQ(GetMode(), static_cast<mode_t>(S_IFSOCK | 0777));
        EXPECT_TRUE(IsServed());
        m_pServer->Close();
    }
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("nothing")));
}

TEST_F(IpcServer, OpenThatLogs_SaysWhyItFailed)
{
    SetLog(LOG_CONTROL_ERROR);
    EXPECT_FALSE(m_pServer->Open(nullptr));
    EXPECT_FALSE(m_pServer->Open(m_folder.Path("missing/channel").c_str()));
    EXPECT_TRUE(m_pServer->Open(m_sChannel.c_str()));
    EXPECT_FALSE(m_pServer->Open(m_sChannel.c_str()));
    EXPECT_EQ(TakeLines(),
              (Lines{"error|svr|[IpcServer.Open] Channel is not defined",
                     "error|svr|[IpcServer.Open] Fail to bind ipc server socket. No such file or "
                     "directory (2)",
                     "error|svr|[IpcServer.Open] Channel already opened"}));
    SetLog(~LOG_CONTROL_ERROR & 0x3ff);
    EXPECT_FALSE(m_pServer->Open(m_sChannel.c_str()));
    EXPECT_EQ(m_recorder.Count("error|"), 0U);
}

TEST_F(IpcServer, Close_RemovesThePathAndLeavesNothingOpen)
{
    const size_t iDescriptors = CountDescriptors();
    Open();
    CIpcPeer peer(m_sChannel);
    EXPECT_TRUE(SameReply(Ask(Request(1)), MsgReply("1.2")));
    EXPECT_TRUE(std::filesystem::exists(m_sChannel));
    EXPECT_TRUE(m_pServer->Close(m_cError));
    EXPECT_FALSE(m_pServer->IsOpened());
    EXPECT_FALSE(std::filesystem::exists(m_sChannel));
    EXPECT_EQ(peer.Read(), "");
    peer.Leave();
    EXPECT_EQ(CountDescriptors(), iDescriptors);
}

TEST_F(IpcServer, Close_OnAClosedServer_DoesNothing)
{
    EXPECT_TRUE(m_pServer->Close());
    Open();
    EXPECT_TRUE(m_pServer->Close());
    std::ofstream(m_sChannel) << "of somebody else";
    EXPECT_TRUE(m_pServer->Close());
    EXPECT_TRUE(m_pServer->Close(m_cError));
    EXPECT_TRUE(std::filesystem::exists(m_sChannel));
    EXPECT_STREQ(m_cError, "");
}

TEST_F(IpcServer, Close_PathAlreadyGone_IsNoTrouble)
{
    SetLog(LOG_CONTROL_ERROR);
    Open();
    std::filesystem::remove(m_sChannel);
    EXPECT_TRUE(m_pServer->Close(m_cError));
    EXPECT_EQ(TakeLines(), Lines{});
}

TEST_F(IpcServer, Close_FolderInPlaceOfThePath_RemovesThatToo)
{
    Open();
    SetLog(LOG_CONTROL_ERROR | LOG_CONTROL_FILE_ACCESS);
    std::filesystem::remove(m_sChannel);
    std::filesystem::create_directory(m_sChannel);
    EXPECT_TRUE(m_pServer->Close(m_cError));
    EXPECT_FALSE(std::filesystem::exists(m_sChannel));
    EXPECT_EQ(TakeLines(),
              (Lines{"info|svr|[IpcServer.Close] OS remove file \"" + m_sChannel + "\""}));
}

TEST_F(IpcServer, Close_AndOpenAgain_ServesWithoutMemory)
{
    Open();
    EXPECT_TRUE(SameReply(Ask(Request(1)), MsgReply("1.2")));
    m_pServer->Close();
    Open();
    EXPECT_TRUE(SameReply(AskNothing(), ExptReply("Unknown action group: 0 (0)")));
    EXPECT_TRUE(SameReply(Ask(Request(1)), MsgReply("1.2")));
}

TEST_F(IpcServer, Destructor_Closes)
{
    const size_t iDescriptors = CountDescriptors();
    Open();
    m_pServer.reset();
    EXPECT_FALSE(std::filesystem::exists(m_sChannel));
    EXPECT_EQ(CountDescriptors(), iDescriptors);
}

// ---- Lines about steps and traffic ----

TEST_F(IpcServer, Open_TellsItsSteps)
{
    SetLog(LOG_STATE);
    Open();
    EXPECT_EQ(TakeLines(), (Lines{"info|svr|[IpcServer.Open] Open channel: " + m_sChannel,
                                  "info|svr|[IpcServer.Open] Bind ipc server socket"}));
    SetLog(LOG_CONTROL_FILE_ACCESS);
    m_pServer->Close();
    Open();
    EXPECT_EQ(TakeLines(), (Lines{"info|svr|[IpcServer.Open] OS set file mode \"" + m_sChannel +
                                  "\" (mode = 511)"}));
}

TEST_F(IpcServer, Exchange_TellsItsSteps)
{
    Open();
    SetLog(LOG_STATE);
    Ask(Request(1));
    EXPECT_EQ(TakeLines(), (Lines{"info|svr|[IpcServer.ReadRequest] Start",
                                  "info|svr|[IpcServer.ReadRequest] Accept ipc request",
                                  "info|svr|[IpcServer.ReadRequest] Read ipc request",
                                  "info|svr|[IpcServer.ReadRequest] Send ipc reply"}));
}

TEST_F(IpcServer, Exchange_TellsItsTraffic)
{
    Open();
    SetLog(LOG_CONTROL_IPC);
    const std::string sStart = "info|svr|[IpcServer.ReadRequest] ";
    Ask(Request(1));
    EXPECT_EQ(TakeLines(),
              (Lines{sStart + "Request action group (type = 1, ver = 1.2, dataLen = 16)",
                     sStart + "Reply action group (type = 5, ver = 1.2, dataLen = 2064)"}));
    Ask(Header(GROUP_CALLBACK, 99, "1.0") + "behind");
    EXPECT_EQ(TakeLines(),
              (Lines{sStart + "Callback action group (type = 99, ver = 1.0, dataLen = 22)",
                     sStart + "Reply action group (type = 4, ver = 1.2, dataLen = 2064)"}));
    Ask(Header(GROUP_REPLY, -2));
    EXPECT_EQ(TakeLines()[0], sStart + "Reply action group (type = -2, ver = 1.2, dataLen = 16)");
    Ask(Header(-5, 7, "12345678"));
    EXPECT_EQ(TakeLines()[0],
              sStart + "Unknown action group: -5 (type = 7, ver = 1234567, dataLen = 16)");
}

TEST_F(IpcServer, Exchange_AllBits_TellsStepsAndTrafficInTheirOrder)
{
    Open();
    SetLog(0x3ff);
    Ask(Request(3));
    const std::string sStart = "info|svr|[IpcServer.ReadRequest] ";
    EXPECT_EQ(TakeLines(),
              (Lines{sStart + "Start", sStart + "Accept ipc request", sStart + "Read ipc request",
                     sStart + "Request action group (type = 3, ver = 1.2, dataLen = 16)",
                     sStart + "Reply action group (type = 1, ver = 1.2, dataLen = 20)",
                     sStart + "Send ipc reply"}));
}

TEST_F(IpcServer, OtherBits_TellNothing)
{
    SetLog(0x3ff & ~(LOG_CONTROL_IPC | LOG_STATE | LOG_CONTROL_FILE_ACCESS));
    Open();
    Ask(Request(1));
    m_pServer->Close();
    EXPECT_EQ(TakeLines(), Lines{});
}

// ---- Exchanges that fail ----

TEST_F(IpcServer, ReadRequest_OnAClosedServer_Fails)
{
    SetLog(LOG_STATE);
    EXPECT_FALSE(m_pServer->ReadRequest(m_cError));
    EXPECT_STREQ(m_cError, "Channel not yet opened.");
    EXPECT_EQ(TakeLines(), (Lines{"info|svr|[IpcServer.ReadRequest] Start"}));
    EXPECT_FALSE(m_pServer->ReadRequest(nullptr));
    Open();
    m_pServer->Close();
    EXPECT_FALSE(m_pServer->ReadRequest(m_cError));
    EXPECT_STREQ(m_cError, "Channel not yet opened.");
}

TEST_F(IpcServer, ReadRequestThatLogs_SaysWhyItFailed)
{
    SetLog(LOG_CONTROL_ERROR);
    EXPECT_FALSE(m_pServer->ReadRequest());
    EXPECT_EQ(TakeLines(), (Lines{"error|svr|[IpcServer.SendRequest] Channel not yet opened."}));
    SetLog(0);
    EXPECT_FALSE(m_pServer->ReadRequest());
    EXPECT_EQ(TakeLines(), Lines{});
}

#ifndef STAGENFS_SANITIZED
TEST_F(IpcServer, ReadRequest_WhileOpenIsAboutToFail_Fails)
{
    Open();
    m_pServer->Close();
    bool bResult = true;
    {
        const CDescriptorShortage shortage;
        g_AfterUnlock = [&] { bResult = m_pServer->ReadRequest(m_cError); };
        EXPECT_FALSE(m_pServer->Open(m_sChannel.c_str(), nullptr));
    }
    EXPECT_FALSE(bResult);
    EXPECT_STREQ(m_cError, "Invalid socket descriptor.");
}
#endif

TEST_F(IpcServer, NoDescriptorLeft_TheOldestSilentPeerGoes_AndWhoSpokeIsServed)
{
    Open();
    CIpcPeer silent(m_sChannel);
    CIpcPeer speaker(m_sChannel);
    EXPECT_TRUE(SameReply(Ask(Request(1)), MsgReply("1.2")));  // both are accepted beside it

    speaker.Send(Request(3));
    CIpcPeer late(m_sChannel);
    g_iAcceptError = EMFILE;
    EXPECT_TRUE(m_pServer->ReadRequest(m_cError)) << m_cError;
    EXPECT_TRUE(SameReply(speaker.Read(), BoolReply(false)));
    EXPECT_EQ(silent.Read(), "");

    late.Send(Request(1));
    EXPECT_TRUE(m_pServer->ReadRequest(m_cError)) << m_cError;
    EXPECT_TRUE(SameReply(late.Read(), MsgReply("1.2")));
}

TEST_F(IpcServer, PeerThatIsGone_IsNotServed)
{
    Open();
    SetLog(LOG_CONTROL_ERROR);
    EXPECT_TRUE(SameReply(Ask(Request(7) + Field("s1", TEXT_FIELD) + Field("/f", PATH_FIELD)),
                          BoolReply(true)));
    m_main.RemoveSessionInfo("s1");
    CIpcPeer(m_sChannel).Leave();
    EXPECT_FALSE(m_pServer->ReadRequest());
    EXPECT_EQ(TakeLines(), (Lines{"error|svr|[IpcServer.SendRequest] Fail to read ipc request. "
                                  "Connection reset by peer (104)"}));
    EXPECT_FALSE(m_main.IsSessionExists("s1"));  // the last request is not served once more
    EXPECT_TRUE(SameReply(Ask(Request(1)), MsgReply("1.2")));
}

TEST_F(IpcServer, PeerThatOnlyListens_GetsTheLastMessageServedAgain)
{
    Open();
    EXPECT_TRUE(SameReply(AskNothing(), ExptReply("Unknown action group: 0 (0)")));
    Ask(Request(2));
    EXPECT_TRUE(SameReply(AskNothing(), MsgReply("External NFS Server")));
    SetLog(LOG_CONTROL_IPC);
    AskNothing();
    EXPECT_EQ(TakeLines()[0], "info|svr|[IpcServer.ReadRequest] Request action group (type = 2, "
                              "ver = 1.2, dataLen = 0)");
}

TEST_F(IpcServer, Reading_Fails_CostsThatConnection)
{
    Open();
    SetLog(LOG_CONTROL_ERROR);
    CIpcPeer peer(m_sChannel);
    peer.Send(Request(1));
    g_iReceiveError = ECONNRESET;
    EXPECT_FALSE(m_pServer->ReadRequest());
    EXPECT_EQ(peer.Read(), "");
    EXPECT_EQ(TakeLines(), (Lines{"error|svr|[IpcServer.SendRequest] Fail to read ipc request. "
                                  "Connection reset by peer (104)"}));
    EXPECT_TRUE(SameReply(Ask(Request(1)), MsgReply("1.2")));
}

TEST_F(IpcServer, PeerThatLeavesBeforeTheReply_KillsNobody)
{
    Open();
    SetLog(LOG_CONTROL_ERROR);
    CIpcPeer peer(m_sChannel);
    peer.Send(Request(1));
    peer.Leave();
    EXPECT_FALSE(m_pServer->ReadRequest());
    EXPECT_EQ(TakeLines(), (Lines{"error|svr|[IpcServer.SendRequest] Fail to send ipc reply. "
                                  "Broken pipe (32)"}));
    EXPECT_TRUE(SameReply(Ask(Request(1)), MsgReply("1.2")));
}

TEST_F(IpcServer, PeerThatTakesNothing_HoldsNobody)
{
    Open();
    SetLog(LOG_CONTROL_ERROR);
    CIpcPeer peer(m_sChannel);
    peer.Send(Request(1));
    g_iSendError = EAGAIN;
    EXPECT_FALSE(m_pServer->ReadRequest());
    EXPECT_EQ(peer.Read(), "");
    EXPECT_EQ(TakeLines(), (Lines{"error|svr|[IpcServer.SendRequest] Fail to send ipc reply. "
                                  "Resource temporarily unavailable (11)"}));
}

TEST_F(IpcServer, ReplyThatIsNotRead_WaitsForItsPeer)
{
    Open();
    CIpcPeer slow(m_sChannel);
    slow.Send(Request(1));
    EXPECT_TRUE(m_pServer->ReadRequest(m_cError));
    for (int i = 0; i < 20; i++)
        EXPECT_TRUE(SameReply(Ask(Request(2)), MsgReply("External NFS Server")));
    EXPECT_TRUE(SameReply(slow.Read(), MsgReply("1.2")));
}

TEST_F(IpcServer, ReplyThatIsCut_IsAnError)
{
    Open();
    CIpcPeer peer(m_sChannel);
    peer.Send(Request(23));
    g_iSendLimit = 7;
    EXPECT_TRUE(m_pServer->ReadRequest(m_cError));
    EXPECT_EQ(peer.Read(), IntReply(1).substr(0, 7));
    EXPECT_EQ(TakeLines(),
              (Lines{"error|svr|Fail to send ipc complete reply. (Send = 7, Target = 20)"}));
}

TEST_F(IpcServer, DisturbedCalls_AreMadeAgain)
{
    Open();
    CIpcPeer peer(m_sChannel);
    peer.Send(Request(1));
    for (std::atomic<int>* pError : {&g_iAcceptError, &g_iReceiveError, &g_iSendError})
        *pError = EINTR;
    EXPECT_TRUE(m_pServer->ReadRequest(m_cError)) << m_cError;
    EXPECT_TRUE(SameReply(peer.Read(), MsgReply("1.2")));
}

TEST_F(IpcServer, ConnectionAbortedInTheQueue_IsPassedOver)
{
    Open();
    CIpcPeer peer(m_sChannel);
    peer.Send(Request(1));
    g_iAcceptError = ECONNABORTED;
    EXPECT_TRUE(m_pServer->ReadRequest(m_cError)) << m_cError;
    EXPECT_TRUE(SameReply(peer.Read(), MsgReply("1.2")));
}

TEST_F(IpcServer, NoDescriptorForAConnection_FailsAndRecovers)
{
    Open();
    Ask(Request(1));  // a sanitizer's first look at a class needs a pipe
    SetLog(LOG_CONTROL_ERROR);
    CIpcPeer peer(m_sChannel);
    peer.Send(Request(1));
    {
        const CDescriptorShortage shortage;
        EXPECT_FALSE(m_pServer->ReadRequest());
        EXPECT_FALSE(m_pServer->ReadRequest(m_cError));
    }
    EXPECT_STREQ(m_cError, "Fail to accept ipc request. Too many open files (24)");
    EXPECT_EQ(TakeLines(), (Lines{"error|svr|[IpcServer.SendRequest] Fail to accept ipc request. "
                                  "Too many open files (24)"}));
    EXPECT_TRUE(m_pServer->ReadRequest(m_cError));
    EXPECT_TRUE(SameReply(peer.Read(), MsgReply("1.2")));
}

TEST_F(IpcServer, NoDescriptorForAConnection_ServesThoseThatAreThere)
{
    Open();
    CIpcPeer first(m_sChannel);
    Ask(Request(1));  // the silent one is taken in meanwhile
    CIpcPeer second(m_sChannel);
    first.Send(Request(2));
    second.Send(Request(1));
    {
        const CDescriptorShortage shortage;
        EXPECT_TRUE(m_pServer->ReadRequest(m_cError)) << m_cError;
    }
    EXPECT_TRUE(SameReply(first.Read(), MsgReply("External NFS Server")));
    EXPECT_TRUE(m_pServer->ReadRequest(m_cError));
    EXPECT_TRUE(SameReply(second.Read(), MsgReply("1.2")));
}

// ---- One connection, one message ----

TEST_F(IpcServer, SilentPeer_KeepsNobodyWaitingAndHasItsTurn)
{
    Open();
    CIpcPeer silent(m_sChannel);
    EXPECT_TRUE(SameReply(Ask(Request(1)), MsgReply("1.2")));
    EXPECT_TRUE(silent.IsKeptWaiting());
    silent.Send(Request(2));
    EXPECT_TRUE(m_pServer->ReadRequest(m_cError));
    EXPECT_TRUE(SameReply(silent.Read(), MsgReply("External NFS Server")));
}

TEST_F(IpcServer, ConnectionsThatSpoke_AreServedOneAfterAnother)
{
    Open();
    std::vector<std::unique_ptr<CIpcPeer>> vPeers;
    for (int i = 0; i < 5; i++) {
        vPeers.push_back(std::make_unique<CIpcPeer>(m_sChannel));
        vPeers.back()->Send(Request(100 + i));
    }
    for (int i = 0; i < 5; i++) {
        EXPECT_TRUE(m_pServer->ReadRequest(m_cError));
        EXPECT_TRUE(SameReply(vPeers[static_cast<size_t>(i)]->Read(),
                              ExptReply("Unknown request type (" + std::to_string(100 + i) + ")")));
    }
}

TEST_F(IpcServer, SecondMessageOnAConnection_IsNotRead)
{
    Open();
    CIpcPeer peer(m_sChannel);
    peer.Send(Request(1));
    EXPECT_TRUE(m_pServer->ReadRequest(m_cError));
    EXPECT_TRUE(SameReply(peer.Read(), MsgReply("1.2")));  // and the connection is closed
}

// ---- Close while someone waits ----

TEST_F(IpcServer, Close_WhileSomebodyWaits_EndsTheWaitWithoutAFailure)
{
    Open();
    SetLog(LOG_STATE);
    auto waiting = std::async(std::launch::async, [this] { return m_pServer->ReadRequest(); });
    while (!m_recorder.Contains("Accept ipc request"))
        std::this_thread::yield();
    ExpectReturns("Close", [this] { m_pServer->Close(); });
    EXPECT_TRUE(waiting.get());
    EXPECT_EQ(TakeLines(), (Lines{"info|svr|[IpcServer.ReadRequest] Start",
                                  "info|svr|[IpcServer.ReadRequest] Accept ipc request",
                                  "info|svr|[IpcServer.ReadRequest] Socket closed"}));
    EXPECT_FALSE(std::filesystem::exists(m_sChannel));
}

TEST_F(IpcServer, WaitForClose_EndsWithItsTimeOrTheServer)
{
    ExpectReturns("WaitForClose of a closed server", [this] { m_pServer->WaitForClose(-1); });
    Open();
    m_pServer->WaitForClose(1);
    EXPECT_TRUE(m_pServer->IsOpened());
    auto waiting = std::async(std::launch::async, [this] { m_pServer->WaitForClose(-1); });
    ExpectReturns("Close", [this] { m_pServer->Close(); });
    waiting.get();
}

// ---- Shutting down on request ----

TEST_F(IpcServer, AutoShutdown_Disabled_ServesOn)
{
    Open();
    CIpcPeer peer(m_sChannel);
    peer.Send(Request(22));
    EXPECT_TRUE(m_pServer->ReadRequest());
    EXPECT_TRUE(SameReply(peer.Read(), BoolReply(false)));
    EXPECT_FALSE(m_pServer->IsAutoShutdownRequested());
    EXPECT_FALSE(m_main.IsAutoShutdownRequested());
    EXPECT_TRUE(SameReply(Ask(Request(1)), MsgReply("1.2")));
}

TEST_F(IpcServer, AutoShutdown_Enabled_ReachesTheControllerBehindTheReply)
{
    Open();
    m_main.EnableAutoShutdown(true);
    CIpcPeer peer(m_sChannel);
    peer.Send(Request(22));
    bool bAnswered = false;
    m_main.SetLook([&] { bAnswered = bool(SameReply(peer.Peek(), BoolReply(true))); });
    EXPECT_TRUE(m_pServer->ReadRequest());
    EXPECT_TRUE(bAnswered);
    EXPECT_TRUE(SameReply(peer.Read(), BoolReply(true)));
    EXPECT_TRUE(m_pServer->IsAutoShutdownRequested());
    EXPECT_TRUE(m_main.IsAutoShutdownRequested());
    EXPECT_TRUE(m_pServer->IsOpened());
}

TEST_F(IpcServer, AutoShutdown_AfterIt_NothingIsRead)
{
    Open();
    m_main.EnableAutoShutdown(true);
    CIpcPeer peer(m_sChannel);
    peer.Send(Request(22));
    EXPECT_TRUE(m_pServer->ReadRequest());

    SetLog(LOG_STATE | LOG_CONTROL_ERROR);
    CIpcPeer late(m_sChannel);
    late.Send(Request(1));
    EXPECT_FALSE(m_pServer->ReadRequest());
    EXPECT_FALSE(m_pServer->ReadRequest());
    const std::string sLine = "info|svr|[IpcServer.SendRequest] Waiting to auto shutdown";
    EXPECT_EQ(TakeLines(), (Lines{sLine, sLine}));
    EXPECT_TRUE(late.IsKeptWaiting());
    SetLog(LOG_CONTROL_ERROR);
    EXPECT_FALSE(m_pServer->ReadRequest());
    EXPECT_EQ(TakeLines(), Lines{});
    m_pServer->Close();
    EXPECT_EQ(late.Read(), "");
}

TEST_F(IpcServer, AutoShutdown_PeerGoneBeforeTheReply_ReachesTheController)
{
    Open();
    m_main.EnableAutoShutdown(true);
    CIpcPeer peer(m_sChannel);
    peer.Send(Request(22));
    peer.Leave();
    EXPECT_FALSE(m_pServer->ReadRequest());
    EXPECT_TRUE(m_main.IsAutoShutdownRequested());
}
