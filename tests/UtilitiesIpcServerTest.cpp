#include "UtilitiesIpcServer.h"

#include <functional>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "FileLogger.h"
#include "LogRecorder.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "RelayPeer.h"
#include "RuntimeParam.h"
#include "Sanitizers.h"
#include "TestEnvironment.h"
#include "Text.h"

using Lines = std::vector<std::string>;

namespace {

constexpr unsigned long long LARGE = 0x123456789ABCDEF0ULL;
constexpr char NO_CHANNEL[] = "error|svr|[IpcClient.SendRequest] Fail to connect ipc client "
                              "socket. No such file or directory (2)";
constexpr char GONE_MEANWHILE[] =
    "error|svr|[IpcClient.SendRequest] Fail to read ipc server reply. "
    "Connection reset by peer (104)";

class UtilitiesIpcServer : public testing::Test {
protected:
    UtilitiesIpcServer()
    {
        m_utilities.SetCallback(&m_recorder);
        m_param.SetIpcID("a");
    }

    int Update(CRuntimeParam* pParam)
    {
        return m_utilities.LogUpdateRedirectedFileAttributes(pParam, "/f", true, LARGE, false, 11,
                                                             true, 22);
    }

    // Every kind of notification, once.
    std::vector<int> NotifyAll(CRuntimeParam* pParam)
    {
        CUtilities* pUtilities = &m_utilities;
        return {Update(pParam), pUtilities->LogRemoveRedirectedFile(pParam, "/f"),
                pUtilities->LogRenameRedirectedFile(pParam, "/f", "/g"),
                pUtilities->LogWriteRedirectedFile(pParam, "/f", LARGE, 0, 4096)};
    }

    void LogAll(CRuntimeParam* pParam)
    {
        CUtilities* pUtilities = &m_utilities;  // the formatting forms are the base's
        pUtilities->LogInfo(pParam, "%s", "one");
        pUtilities->LogError(pParam, "%s", "two");
        pUtilities->LogRaw(pParam, "%s", "three");
    }

    CLogRecorder m_recorder;
    CUtilitiesIpcServer m_utilities;
    CRuntimeParam m_param{"svr", LOG_CONTROL_ERROR};
};

}  // namespace

// ---- Lines ----

TEST_F(UtilitiesIpcServer, Log_WithClient_SendsTheWholeMessageOfEachKind)
{
    const CRelayPeer peer("a");
    LogAll(&m_param);
    const Lines vMessages = peer.Messages();
    ASSERT_EQ(vMessages.size(), 3U);
    EXPECT_TRUE(SameMessage(vMessages[0], relay::Line("svr", "one", relay::INFO)));
    EXPECT_TRUE(SameMessage(vMessages[1], relay::Line("svr", "two", relay::ERROR)));
    EXPECT_TRUE(SameMessage(vMessages[2], relay::Line("svr", "three", relay::RAW)));
    EXPECT_EQ(vMessages[0].size(), 2324U);
}

TEST_F(UtilitiesIpcServer, Log_WithClient_IsLoggedHereFirst)
{
    Lines vBefore;
    {
        const CRelayPeer peer("a", [&](const std::string&) {
            const Lines vLines = m_recorder.Lines();
            vBefore.push_back(vLines.empty() ? "(none)" : vLines.back());
            return BoolReply(true);
        });
        LogAll(&m_param);
    }
    EXPECT_EQ(vBefore, (Lines{"info|svr|one", "error|svr|two", "raw|svr|three"}));
    EXPECT_EQ(m_recorder.Lines(), vBefore);
}

TEST_F(UtilitiesIpcServer, Log_NoHostHere_GoesToTheLogFileAndTheClient)
{
    const CScratchFolder folder;
    CFileLogger logger(folder.Path("log").c_str());
    ASSERT_TRUE(logger.Open(0));
    m_utilities.SetCallback(nullptr);
    m_utilities.SetFileLogger(&logger);
    const CRelayPeer peer("a");
    LogAll(&m_param);
    EXPECT_EQ(peer.Descriptions(), (Lines{"info|svr|one", "error|svr|two", "raw|svr|three"}));
    const std::string sLog = ReadWholeFile(folder.Path("log"));
    for (const char* pcText : {"one", "two", "three"})
        EXPECT_NE(sLog.find(pcText), std::string::npos) << pcText;
    m_utilities.SetFileLogger(nullptr);
}

TEST_F(UtilitiesIpcServer, Log_NoHostAndNoLogFileHere_IsPrinted)
{
    m_utilities.SetCallback(nullptr);
    const CRelayPeer peer("a");
    testing::internal::CaptureStdout();
    LogAll(&m_param);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[info] (svr) one\n[erro] (svr) two\nthree\n");
    EXPECT_EQ(peer.Messages().size(), 3U);
}

// What the client answers to a line is all the same.
TEST_F(UtilitiesIpcServer, Log_AnyAnswer_IsIgnored)
{
    for (const std::string& sReply : Lines{BoolReply(false), IntReply(-1), ExptReply("no"), "x"}) {
        m_recorder.Clear();
        const CRelayPeer peer("a", [&](const std::string&) { return sReply; });
        LogAll(&m_param);
        EXPECT_EQ(peer.Messages().size(), 3U);
        EXPECT_EQ(m_recorder.Lines(), (Lines{"info|svr|one", "error|svr|two", "raw|svr|three"}));
    }
}

TEST_F(UtilitiesIpcServer, Log_NoIpcID_IsLoggedHereOnly)
{
    const CRelayPeer peer("a");
    const CRelayPeer nobody("");  // where the empty ID would lead
    m_param.SetIpcID("");
    LogAll(&m_param);
    m_param.SetIpcID(nullptr);
    LogAll(&m_param);
    EXPECT_EQ(m_recorder.Lines().size(), 6U);
    EXPECT_EQ(peer.Messages(), Lines{});
    EXPECT_EQ(nobody.Messages(), Lines{});
}

// Lines of one ID instead of a context are nobody else's.
TEST_F(UtilitiesIpcServer, Log_ByID_IsLoggedHereOnly)
{
    const CRelayPeer peer("a");
    char cText[] = "line";
    CUtilities* pUtilities = &m_utilities;
    pUtilities->LogInfo("a", cText);
    pUtilities->LogError("a", cText);
    pUtilities->LogRaw("a", cText);
    EXPECT_EQ(m_recorder.Lines(), (Lines{"info|a|line", "error|a|line", "raw|a|line"}));
    EXPECT_EQ(peer.Messages(), Lines{});
}

// ---- Notifications ----

TEST_F(UtilitiesIpcServer, UpdateAttributes_WithClient_SendsTheWholeMessage)
{
    CRelayPeer peer("a");
    peer.SetResult(7);
    EXPECT_EQ(Update(&m_param), 7);
    EXPECT_EQ(m_utilities.LogUpdateRedirectedFileAttributes(&m_param, "/other", false, 1, true,
                                                            LARGE + 1, false, LARGE + 2),
              7);
    const Lines vMessages = peer.Messages();
    ASSERT_EQ(vMessages.size(), 2U);
    EXPECT_EQ(vMessages[0].size(), 1344U);
    const std::string sStart =
        Header(GROUP_CALLBACK, relay::SET_ATTRIBUTES) + Field("svr", TEXT_FIELD);
    EXPECT_TRUE(SameMessage(vMessages[0], sStart + Field("/f", PATH_FIELD) + relay::LongFlag(true) +
                                              Word(LARGE, 8) + relay::LongFlag(false) +
                                              Word(11, 8) + relay::LongFlag(true) + Word(22, 8)));
    EXPECT_TRUE(SameMessage(vMessages[1], sStart + Field("/other", PATH_FIELD) +
                                              relay::LongFlag(false) + Word(1, 8) +
                                              relay::LongFlag(true) + Word(LARGE + 1, 8) +
                                              relay::LongFlag(false) + Word(LARGE + 2, 8)));
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}

TEST_F(UtilitiesIpcServer, Remove_WithClient_SendsTheWholeMessage)
{
    CRelayPeer peer("a");
    peer.SetResult(-5);
    EXPECT_EQ(m_utilities.LogRemoveRedirectedFile(&m_param, "/folder/file"), -5);
    const Lines vMessages = peer.Messages();
    ASSERT_EQ(vMessages.size(), 1U);
    EXPECT_EQ(vMessages[0].size(), 1296U);
    EXPECT_TRUE(SameMessage(vMessages[0], Header(GROUP_CALLBACK, relay::REMOVE) +
                                              Field("svr", TEXT_FIELD) +
                                              Field("/folder/file", PATH_FIELD)));
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}

TEST_F(UtilitiesIpcServer, Rename_WithClient_SendsTheWholeMessage)
{
    CRelayPeer peer("a");
    peer.SetResult(2147483647);
    EXPECT_EQ(m_utilities.LogRenameRedirectedFile(&m_param, "/from", "/to"), 2147483647);
    const Lines vMessages = peer.Messages();
    ASSERT_EQ(vMessages.size(), 1U);
    EXPECT_EQ(vMessages[0].size(), 2320U);
    EXPECT_TRUE(
        SameMessage(vMessages[0], Header(GROUP_CALLBACK, relay::RENAME) + Field("svr", TEXT_FIELD) +
                                      Field("/from", PATH_FIELD) + Field("/to", PATH_FIELD)));
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}

TEST_F(UtilitiesIpcServer, Write_WithClient_SendsTheWholeMessage)
{
    CRelayPeer peer("a");
    peer.SetResult(4096);
    EXPECT_EQ(m_utilities.LogWriteRedirectedFile(&m_param, "/disk", LARGE, -2, 0xFFFFFFFE), 4096);
    const Lines vMessages = peer.Messages();
    ASSERT_EQ(vMessages.size(), 1U);
    EXPECT_EQ(vMessages[0].size(), 1312U);
    EXPECT_TRUE(SameMessage(vMessages[0], Header(GROUP_CALLBACK, relay::WRITE) +
                                              Field("svr", TEXT_FIELD) +
                                              Field("/disk", PATH_FIELD) + Word(LARGE, 8) +
                                              Int32(-2) + Int32(0xFFFFFFFE)));
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}

TEST_F(UtilitiesIpcServer, Notification_NoIpcID_GoesToTheHostHereAndNowhereElse)
{
    const CRelayPeer peer("a");
    const CRelayPeer nobody("");
    m_param.SetIpcID("");
    m_recorder.SetUpdateResult(1);
    m_recorder.SetRemoveResult(2);
    m_recorder.SetRenameResult(3);
    m_recorder.SetWriteResult(4);
    EXPECT_EQ(NotifyAll(&m_param), (std::vector<int>{1, 2, 3, 4}));
    const std::string sLarge = std::to_string(LARGE);
    EXPECT_EQ(m_recorder.Notifications(),
              (Lines{"update|svr|/f|1|" + sLarge + "|0|11|1|22", "remove|svr|/f",
                     "rename|svr|/f|/g", "write|svr|/f|" + sLarge + "|0|4096"}));
    EXPECT_EQ(peer.Messages(), Lines{});
    EXPECT_EQ(nobody.Messages(), Lines{});
}

TEST_F(UtilitiesIpcServer, Notification_NoIpcIDAndNoHost_IsMinusOne)
{
    const CRelayPeer nobody("");
    m_param.SetIpcID("");
    m_utilities.SetCallback(nullptr);
    EXPECT_EQ(NotifyAll(&m_param), (std::vector<int>{-1, -1, -1, -1}));
    EXPECT_EQ(nobody.Messages(), Lines{});
}

TEST_F(UtilitiesIpcServer, Notification_OtherAnswersThanANumber_AreMinusOne)
{
    const std::string sInt = Int32(5);
    for (const std::string& sReply : Lines{
             BoolReply(true), LongReply(5), ExptReply("failed"), MsgReply("text"),
             Header(GROUP_REPLY, 0), Header(GROUP_REPLY, 6) + sInt, Header(GROUP_REQUEST, 3) + sInt,
             Header(GROUP_CALLBACK, 3) + sInt, Header(0, 3) + sInt, std::string("x")}) {
        SCOPED_TRACE(sReply.size());
        const CRelayPeer peer("a", [&](const std::string&) { return sReply; });
        EXPECT_EQ(NotifyAll(&m_param), (std::vector<int>{-1, -1, -1, -1}));
        EXPECT_EQ(peer.Messages().size(), 4U);
    }
    EXPECT_EQ(m_recorder.Lines(), Lines{});  // the exchange itself was one
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}

// ---- A client that cannot be reached ----

// It took the message, and died before it answered.
TEST_F(UtilitiesIpcServer, Notification_ClientGoneMeanwhile_IsMinusOneAndALine)
{
    const CRelayPeer peer("a", [](const std::string&) { return std::string(); });
    EXPECT_EQ(NotifyAll(&m_param), (std::vector<int>{-1, -1, -1, -1}));
    EXPECT_EQ(peer.Messages().size(), 4U);
    EXPECT_EQ(m_recorder.Lines(), Lines(4, GONE_MEANWHILE));
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}

TEST_F(UtilitiesIpcServer, Log_ClientGoneMeanwhile_IsLoggedHereWithOneLineMore)
{
    const CRelayPeer peer("a", [](const std::string&) { return std::string(); });
    LogAll(&m_param);
    EXPECT_EQ(peer.Messages().size(), 3U);  // the lines about it do not go there
    EXPECT_EQ(m_recorder.Lines(), (Lines{"info|svr|one", GONE_MEANWHILE, "error|svr|two",
                                         GONE_MEANWHILE, "raw|svr|three", GONE_MEANWHILE}));
}

TEST_F(UtilitiesIpcServer, ClientGoneMeanwhile_ErrorsNotWanted_LeavesNoLine)
{
    m_param.SetLogControl(0);
    const CRelayPeer peer("a", [](const std::string&) { return std::string(); });
    EXPECT_EQ(NotifyAll(&m_param), (std::vector<int>{-1, -1, -1, -1}));
    EXPECT_EQ(peer.Messages().size(), 4U);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(UtilitiesIpcServer, Notification_ClientGone_IsMinusOneAndALine)
{
    EXPECT_EQ(NotifyAll(&m_param), (std::vector<int>{-1, -1, -1, -1}));
    EXPECT_EQ(m_recorder.Lines(), Lines(4, NO_CHANNEL));
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}

TEST_F(UtilitiesIpcServer, Log_ClientGone_IsLoggedHereWithOneLineMore)
{
    LogAll(&m_param);
    EXPECT_EQ(m_recorder.Lines(), (Lines{"info|svr|one", NO_CHANNEL, "error|svr|two", NO_CHANNEL,
                                         "raw|svr|three", NO_CHANNEL}));
}

TEST_F(UtilitiesIpcServer, Notification_ChannelLeftBehind_IsMinusOneAndALine)
{
    {
        const CAutoFd left(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address = relay::GetAddress("/tmp/nfs-a");
        ASSERT_EQ(bind(left.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
                  0);
    }
    EXPECT_EQ(m_utilities.LogRemoveRedirectedFile(&m_param, "/f"), -1);
    EXPECT_EQ(m_recorder.Lines(), (Lines{"error|svr|[IpcClient.SendRequest] Fail to connect ipc "
                                         "client socket. Connection refused (111)"}));
    unlink("/tmp/nfs-a");
}

TEST_F(UtilitiesIpcServer, Failure_ErrorsNotWanted_LeavesNoLine)
{
    m_param.SetLogControl(0x3FF & ~(LOG_CONTROL_ERROR | LOG_CONTROL_IPC | LOG_CONTROL_IPC_STATE));
    EXPECT_EQ(NotifyAll(&m_param), (std::vector<int>{-1, -1, -1, -1}));
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

// The client is there all the time, but turns the message away: the line about that is not brought
// to it.
TEST_F(UtilitiesIpcServer, Failure_ClientThere_IsNotRelayedItself)
{
    const CAutoFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = relay::GetAddress("/tmp/nfs-a");
    ASSERT_EQ(bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
              0);
    ASSERT_EQ(listen(listener.Get(), 5), 0);
    int iConnections = 0;
    std::thread thread([&] {
        for (;;) {
            const CAutoFd connection(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (connection.Get() == -1)
                return;
            iConnections++;
            char cByte = 0;
            recv(connection.Get(), &cByte, 1, 0);  // closed with the rest unread
        }
    });
    EXPECT_EQ(m_utilities.LogRemoveRedirectedFile(&m_param, "/f"), -1);
    CUtilities* pUtilities = &m_utilities;
    pUtilities->LogInfo(&m_param, "%s", "line");
    shutdown(listener.Get(), SHUT_RDWR);
    thread.join();
    unlink("/tmp/nfs-a");
    EXPECT_EQ(iConnections, 2);
    EXPECT_EQ(m_recorder.Lines(), (Lines{GONE_MEANWHILE, "info|svr|line", GONE_MEANWHILE}));
}

// The trace of a relay is this process's own.
TEST_F(UtilitiesIpcServer, Log_WithTraffic_TraceIsNotRelayed)
{
    CRelayPeer peer("a");
    m_param.SetLogControl(LOG_CONTROL_IPC | LOG_CONTROL_IPC_STATE);
    CUtilities* pUtilities = &m_utilities;
    pUtilities->LogInfo(&m_param, "%s", "line");
    EXPECT_EQ(peer.Descriptions(), Lines{"info|svr|line"});
    const std::string sStep = "info|svr|[IpcClient.SendRequest] ";
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"info|svr|line", sStep + "Open channel: /tmp/nfs-a",
                     sStep + "Callback action group (type = 1, ver = 1.2, dataLen = 2324)",
                     sStep + "Open ipc client socket", sStep + "Connect ipc client socket",
                     sStep + "Send ipc client request", sStep + "Read ipc server reply",
                     sStep + "Reply action group (type = 1, ver = 1.2, dataLen = 20)"}));
}

// ---- Long texts ----

TEST_F(UtilitiesIpcServer, Notification_LongTexts_AreCutAndTerminated)
{
    CRelayPeer peer("a");
    peer.SetResult(3);
    m_param.SetID(std::string(300, 'i').c_str());
    const std::string sFrom(1023, 'f');
    const std::string sTo(5000, 't');
    EXPECT_EQ(m_utilities.LogRenameRedirectedFile(&m_param, sFrom.c_str(), sTo.c_str()), 3);
    EXPECT_EQ(m_utilities.LogRemoveRedirectedFile(&m_param, sTo.c_str()), 3);
    EXPECT_EQ(m_utilities.LogWriteRedirectedFile(&m_param, sTo.c_str(), 1, 2, 3), 3);
    EXPECT_EQ(m_utilities.LogUpdateRedirectedFileAttributes(&m_param, sTo.c_str(), false, 0, false,
                                                            0, false, 0),
              3);
    const Lines vMessages = peer.Messages();
    ASSERT_EQ(vMessages.size(), 4U);
    const std::string sID = Field(std::string(255, 'i'), TEXT_FIELD);
    const std::string sCut = Field(std::string(1023, 't'), PATH_FIELD);
    EXPECT_TRUE(SameMessage(vMessages[0], Header(GROUP_CALLBACK, relay::RENAME) + sID +
                                              Field(sFrom, PATH_FIELD) + sCut));
    EXPECT_TRUE(SameMessage(vMessages[1], Header(GROUP_CALLBACK, relay::REMOVE) + sID + sCut));
    EXPECT_TRUE(SameMessage(vMessages[2], Header(GROUP_CALLBACK, relay::WRITE) + sID + sCut +
                                              Word(1, 8) + Int32(2) + Int32(3)));
    EXPECT_TRUE(SameMessage(vMessages[3], Header(GROUP_CALLBACK, relay::SET_ATTRIBUTES) + sID +
                                              sCut + std::string(48, '\0')));
}

TEST_F(UtilitiesIpcServer, Log_LongText_IsCutAndTerminated)
{
    const CRelayPeer peer("a");
    std::string sText(5000, 'x');
    m_utilities.LogInfo(&m_param, sText.data());  // whoever formats it cuts it before
    const Lines vMessages = peer.Messages();
    ASSERT_EQ(vMessages.size(), 1U);
    EXPECT_TRUE(SameMessage(vMessages[0], relay::Line("svr", std::string(2047, 'x'), relay::INFO)));
    EXPECT_EQ(m_recorder.Lines(), Lines{"info|svr|" + sText});
}

TEST_F(UtilitiesIpcServer, Notification_IpcIDThatNoChannelCanHave_IsMinusOneAndALine)
{
    for (const size_t iLength : {99U, 300U}) {
        m_recorder.Clear();
        m_param.SetIpcID(std::string(iLength, 'z').c_str());
        EXPECT_EQ(m_utilities.LogRemoveRedirectedFile(&m_param, "/f"), -1);
        const std::string sChannel =
            ("/tmp/nfs-" + std::string(iLength, 'z')).substr(0, IPC_CHANNEL_SIZE - 1);
        EXPECT_EQ(
            m_recorder.Lines(),
            Lines{"error|svr|[IpcClient.SendRequest] Channel path is longer than 107 bytes: " +
                  sChannel});
    }
}

TEST_F(UtilitiesIpcServer, Notification_LongestIpcIDThatFits_Arrives)
{
    const std::string sID(98, 'z');
    CRelayPeer peer(sID);
    peer.SetResult(9);
    m_param.SetIpcID(sID.c_str());
    EXPECT_EQ(m_utilities.LogRemoveRedirectedFile(&m_param, "/f"), 9);
}

TEST_F(UtilitiesIpcServer, GetIpcCallbackChannel_NamesTheClientsChannel)
{
    char cRelay[IPC_CHANNEL_SIZE];
    m_utilities.GetIpcCallbackChannel("some-client", cRelay);
    EXPECT_STREQ(cRelay, "/tmp/nfs-some-client");
    CNfsIpcClientMain client("some-client", 0);
    char cClient[IPC_CHANNEL_SIZE];
    client.GetIpcServerThreadChannel(cClient);
    EXPECT_STREQ(cClient, cRelay);
}

// ---- Several at once ----

TEST_F(UtilitiesIpcServer, TwoThreads_TwoClients_EachReachesItsOwn)
{
    constexpr int ROUNDS = IS_SANITIZED ? 200 : 1000;
    const auto makeHandler = [](int iResult) {
        return [iResult](const std::string& sMessage) {
            return relay::IsLine(sMessage) ? BoolReply(true) : IntReply(iResult);
        };
    };
    const CRelayPeer first("a", makeHandler(1));
    const CRelayPeer second("b", makeHandler(2));
    const auto relayAll = [this](const char* pcIpcID, int iResult) {
        CRuntimeParam param("svr", LOG_CONTROL_ERROR);
        param.SetIpcID(pcIpcID);
        CUtilities* pUtilities = &m_utilities;
        for (int i = 0; i < ROUNDS; i++) {
            pUtilities->LogInfo(&param, "%s %d", pcIpcID, i);
            EXPECT_EQ(pUtilities->LogWriteRedirectedFile(&param, pcIpcID, 0, 0, 1), iResult);
        }
    };
    std::thread thread(relayAll, "a", 1);
    relayAll("b", 2);
    thread.join();
    const auto expectOwn = [](const CRelayPeer& peer, const std::string& sOwn) {
        Lines vWanted;
        for (int i = 0; i < ROUNDS; i++) {
            vWanted.push_back("info|svr|" + sOwn + " " + std::to_string(i));
            vWanted.push_back("#5|svr|" + sOwn);
        }
        EXPECT_EQ(peer.Descriptions(), vWanted);
    };
    expectOwn(first, "a");
    expectOwn(second, "b");
    EXPECT_EQ(m_recorder.Lines().size(), 2U * ROUNDS);
}

// ---- In the controllers ----

namespace {

// A server process, which adds what clients ask it to.
class RelayingServer : public testing::Test {
protected:
    void SetUp() override
    {
        char cReason[REASON_SIZE] = "";
        m_main.SetCallback(&m_recorder);
        ASSERT_TRUE(m_main.StartRemoteController(cReason)) << cReason;
    }
    void TearDown() override
    {
        m_main.StopRemoteController();
        m_main.SetCallback(nullptr);
    }

    static std::string AskServer(const std::string& sMessage)
    {
        return relay::Ask("/tmp/nfs-server", sMessage);
    }

    static std::string MountInfoRequest(const std::string& sIpcID)
    {
        return Header(GROUP_REQUEST, 19) + Field(sIpcID, 256) + Int32(0x100);
    }

    CLogRecorder m_recorder;
    CNfsIpcServerMain m_main{"svr", LOG_CONTROL_ERROR};
};

}  // namespace

TEST_F(RelayingServer, Listings_ReachTheAskingClientBeforeTheReply)
{
    CRelayPeer peer("a");
    const CRelayPeer other("b");
    ASSERT_TRUE(SameMessage(AskServer(Header(GROUP_REQUEST, 5) + Field("/x", 1024) +
                                      Field("vm1", 256) + Field("b", 256)),
                            BoolReply(true)));
    m_main.AddSessionInfo("s1", "/x");
    m_main.AddVSphereInfo("moid", "host", "443", "user", "secret");
    EXPECT_EQ(peer.Messages().size(), 0U);

    EXPECT_TRUE(SameMessage(AskServer(MountInfoRequest("a")), IntReply(1)));
    EXPECT_EQ(peer.Messages().size(), 1U);
    EXPECT_TRUE(SameMessage(AskServer(Header(GROUP_REQUEST, 20) + Field("a", 256) + Int32(1)),
                            IntReply(1)));
    EXPECT_EQ(peer.Messages().size(), 2U);
    EXPECT_TRUE(SameMessage(AskServer(Header(GROUP_REQUEST, 25) + Field("a", 256) + Int32(1)),
                            IntReply(1)));
    const Lines vWanted = {"raw|svr| mount1 - /x : vm1 () [b]", "raw|svr| session1 - s1 : /x",
                           "raw|svr| NFS datastore1 - moid (host:443)"};
    EXPECT_EQ(peer.Descriptions(), vWanted);
    EXPECT_EQ(m_recorder.Lines(), vWanted);  // the server's own log has them, too
    EXPECT_EQ(other.Messages(), Lines{});    // owning the export does not matter here
}

TEST_F(RelayingServer, Listing_ClientGone_IsCountedAllTheSame)
{
    m_main.AddSessionInfo("s1", "/x");
    EXPECT_TRUE(SameMessage(AskServer(Header(GROUP_REQUEST, 20) + Field("a", 256) + Int32(1)),
                            IntReply(1)));
    EXPECT_EQ(m_recorder.Lines(), (Lines{"raw|svr| session1 - s1 : /x", NO_CHANNEL}));
}

TEST_F(RelayingServer, Listing_NoDetails_SaysNothing)
{
    const CRelayPeer peer("a");
    m_main.AddSessionInfo("s1", "/x");
    EXPECT_TRUE(SameMessage(AskServer(Header(GROUP_REQUEST, 20) + Field("a", 256) + Int32(0)),
                            IntReply(1)));
    EXPECT_EQ(peer.Messages(), Lines{});
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

// What arrives at a client process is for its own host, whatever IPC ID is about.
TEST_F(UtilitiesIpcServer, ClientController_RelaysNothing)
{
    const CRelayPeer peer("a");
    CNfsIpcClientMain client("client", LOG_CONTROL_ERROR);
    client.SetCallback(&m_recorder);
    client.GetUtils()->LogInfo(&m_param, "%s", "line");
    EXPECT_EQ(client.GetUtils()->LogRemoveRedirectedFile(&m_param, "/f"), 0);
    client.SetCallback(nullptr);
    EXPECT_EQ(m_recorder.Lines(), Lines{"info|svr|line"});
    EXPECT_EQ(m_recorder.Notifications(), Lines{"remove|svr|/f"});
    EXPECT_EQ(peer.Messages(), Lines{});
}
