// What the controller of a client process answers, and what it does on its own. What it sends is in
// NfsIpcClientRequestsTest.
#include "NfsIpcClientMain.h"

#include <condition_variable>
#include <mutex>
#include <sys/stat.h>
#include <thread>
#include <typeinfo>
#include <unistd.h>

#include <gtest/gtest.h>

#include "IpcClient.h"
#include "NfsIpcClientFixture.h"
#include "Utilities.h"

namespace {

bool IsSocket(const std::string& sPath)
{
    struct stat info = {};
    return lstat(sPath.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

class NfsIpcClientMain : public CNfsIpcClientFixture {};

}  // namespace

// ---- Results ----

TEST_F(NfsIpcClientMain, FlagResults_AreTheServersOrFalse)
{
    const std::vector<std::pair<int, std::function<bool()>>> vCalls = {
        {3, [&] { return m_pMain->IsServerRunning(); }},
        {9, [&] { return m_pMain->IsSessionExists("session"); }},
        {22, [&] { return m_pMain->RequestAutoShutdown(); }},
        {24, [&] { return m_pMain->SetDebugActionEnabled(true); }},
    };
    for (const auto& [iType, call] : vCalls) {
        SCOPED_TRACE(iType);
        CFakeIpcServer& server = Serve();
        server.Answer(iType, BoolReply(true));
        EXPECT_TRUE(call());
        for (const std::string& sReply : {BoolReply(false), IntReply(1), LongReply(1),
                                          ExptReply("no"), MsgReply("yes"), NoReply(), Pad(0)}) {
            server.Answer(iType, sReply);
            EXPECT_FALSE(call());
        }
        m_pServer.reset();
        EXPECT_FALSE(call());
    }
}

TEST_F(NfsIpcClientMain, ReasonedResults_AreTheServersOrFalse)
{
    const std::vector<std::pair<int, std::function<bool(char*)>>> vCalls = {
        {4, [&](char* p) { return m_pMain->StartServer(0, 0, 0, 0, false, p); }},
        {5, [&](char* p) { return m_pMain->AddMountPoint("/p", "n", p); }},
        {13, [&](char* p) { return m_pMain->AddRedirectedFileSegment("/f", "/s", 0, 0, 0, p); }},
    };
    const std::string sEndless(2048, 'x');
    for (const auto& [iType, call] : vCalls) {
        SCOPED_TRACE(iType);
        CFakeIpcServer& server = Serve();
        server.Answer(iType, BoolReply(true));
        EXPECT_EQ(Try(call), "true, untouched");
        EXPECT_TRUE(call(nullptr));
        for (const std::string& sReply :
             {BoolReply(false), IntReply(1), LongReply(1), MsgReply("yes"), NoReply(), Pad(0)}) {
            server.Answer(iType, sReply);
            EXPECT_EQ(Try(call), "false, untouched");
        }
        server.Answer(iType, ExptReply("100%s no"));
        EXPECT_EQ(Try(call), "false, 100%s no");
        EXPECT_FALSE(call(nullptr));
        server.Answer(iType, ExptReply(sEndless));
        EXPECT_EQ(Try(call), "false, " + sEndless.substr(1));
        m_pServer.reset();
        EXPECT_EQ(Try(call), std::string("false, ") + NO_SERVER);
        EXPECT_FALSE(call(nullptr));
    }
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(NfsIpcClientMain, CountResults_AreTheServersOrTellWhatWentWrong)
{
    const std::vector<std::pair<int, std::function<int()>>> vCalls = {
        {19, [&] { return m_pMain->GetMountInfo(&m_param, false, false); }},
        {20, [&] { return m_pMain->GetSessionInfo(&m_param, false); }},
        {25, [&] { return m_pMain->GetVSphereInfo(&m_param, false); }},
    };
    for (const auto& [iType, call] : vCalls) {
        SCOPED_TRACE(iType);
        CFakeIpcServer& server = Serve();
        for (const int iCount : {0, 5, -3, 0x12345678}) {
            server.Answer(iType, IntReply(iCount));
            EXPECT_EQ(call(), iCount);
        }
        for (const std::string& sReply :
             {BoolReply(true), LongReply(5), ExptReply("no"), MsgReply("5"), NoReply(), Pad(0)}) {
            server.Answer(iType, sReply);
            EXPECT_EQ(call(), -1);
        }
        m_pServer.reset();
        EXPECT_EQ(call(), 0);
    }
}

TEST_F(NfsIpcClientMain, TextResults_AreTheServersOrUnknown)
{
    CFakeIpcServer& server = Serve();
    server.Answer(1, MsgReply("7.8 beta"));
    server.Answer(2, MsgReply("External NFS Server"));
    EXPECT_EQ(Version(), "7.8 beta");
    EXPECT_EQ(Description(), "External NFS Server");
    for (const std::string& sReply :
         {BoolReply(true), IntReply(1), LongReply(1), ExptReply("no"), NoReply(), Pad(0)}) {
        server.Answer(1, sReply);
        server.Answer(2, sReply);
        EXPECT_EQ(Version(), "Unknown");
        EXPECT_EQ(Description(), "Unknown");
    }
    m_pServer.reset();
    EXPECT_EQ(Version(), "Unknown");
    EXPECT_EQ(Description(), "Unknown");
}

TEST_F(NfsIpcClientMain, TextResults_LongOnes_AreCutToTheCallersBuffer)
{
    CFakeIpcServer& server = Serve();
    server.AnswerAll(MsgReply(std::string(2048, 'd')));
    server.Answer(1, MsgReply(std::string(2048, 'v')));
    EXPECT_EQ(Version(), std::string(255, 'v'));
    EXPECT_EQ(Description(), std::string(255, 'd'));
}

// ---- Status ----

TEST_F(NfsIpcClientMain, ServerStatus_OutOfReach_IsZero)
{
    EXPECT_EQ(m_pMain->GetServerStatus(), 0);
    CFakeIpcServer& server = Serve("Unknown");
    server.AnswerAll(IntReply(7));
    EXPECT_EQ(m_pMain->GetServerStatus(), 0);
    server.Answer(1, IntReply(7));
    EXPECT_EQ(m_pMain->GetServerStatus(), 0);
    EXPECT_EQ(server.Requests(), (Lines{Request(1), Request(1)}));
}

TEST_F(NfsIpcClientMain, ServerStatus_Version10_IsGatheredHere)
{
    CFakeIpcServer& server = Serve("1.0");
    server.Answer(23, IntReply(7));
    server.Answer(3, BoolReply(true));
    EXPECT_EQ(m_pMain->GetServerStatus(), 3);
    EXPECT_EQ(server.Requests(), (Lines{Request(1), Request(3)}));
    server.Answer(3, BoolReply(false));
    EXPECT_EQ(m_pMain->GetServerStatus(), 1);
    server.Answer(3, IntReply(1));
    EXPECT_EQ(m_pMain->GetServerStatus(), 1);
}

TEST_F(NfsIpcClientMain, ServerStatus_LaterVersions_IsWhatTheServerSays)
{
    for (const char* pcVersion : {"1.1", "1.2"}) {
        CFakeIpcServer& server = Serve(pcVersion);
        for (const int iStatus : {7, 5, 1, 0, -9}) {
            server.Answer(23, IntReply(iStatus));
            EXPECT_EQ(m_pMain->GetServerStatus(), iStatus);
        }
        for (const std::string& sReply : {BoolReply(true), ExptReply("no"), NoReply(), Pad(0)}) {
            server.Answer(23, sReply);
            EXPECT_EQ(m_pMain->GetServerStatus(), -1);
        }
        server.ForgetRequests();
        m_pMain->GetServerStatus();
        EXPECT_EQ(server.Requests(), (Lines{Request(1), Request(23)}));
    }
}

TEST_F(NfsIpcClientMain, ServerStatus_ServerGoesBetweenTheQuestions_IsReachable)
{
    Serve().SetHandler([](const std::string&) {
        unlink(SERVER_CHANNEL);
        return MsgReply("1.2");
    });
    EXPECT_EQ(m_pMain->GetServerStatus(), 1);
    EXPECT_EQ(m_pServer->Requests(), (Lines{Request(1)}));
}

// ---- What never leaves this process ----

TEST_F(NfsIpcClientMain, AccessMode_IsTheClients)
{
    Serve();
    EXPECT_EQ(m_pMain->GetAccessMode(), 2);
    EXPECT_EQ(m_pServer->Requests(), Lines{});
}

TEST_F(NfsIpcClientMain, StopServer_OnlySaysThatItCannot)
{
    Make("host", LOG_GENERAL);
    Serve();
    m_pMain->StopServer();
    EXPECT_EQ(m_recorder.Lines(), (Lines{"info|host|[NfsIpcClientMain.StopServer] Cannot stop NFS "
                                         "service in client mode."}));
    EXPECT_EQ(m_pServer->Requests(), Lines{});
}

TEST_F(NfsIpcClientMain, EnableAutoShutdown_SaysSoAndLeavesItDisabled)
{
    Make("host", LOG_GENERAL);
    Serve();
    m_pMain->EnableAutoShutdown(true);
    EXPECT_FALSE(m_pMain->IsAutoShutdownEnabled());
    m_pMain->EnableAutoShutdown(false);
    EXPECT_FALSE(m_pMain->IsAutoShutdownEnabled());
    const std::string sLine = "info|host|[NfsIpcClientMain.EnableAutoShutdown] Auto shutdown is "
                              "supported in client mode.";
    EXPECT_EQ(m_recorder.Lines(), (Lines{sLine, sLine}));
    EXPECT_EQ(m_pServer->Requests(), Lines{});
}

TEST_F(NfsIpcClientMain, EnableAutoShutdown_EnabledByTheBase_IsDisabled)
{
    m_pMain->CNfsMain::EnableAutoShutdown(true);
    ASSERT_TRUE(m_pMain->IsAutoShutdownEnabled());
    m_pMain->EnableAutoShutdown(true);
    EXPECT_FALSE(m_pMain->IsAutoShutdownEnabled());
}

TEST_F(NfsIpcClientMain, RequestAutoShutdown_AsksTheServerAndNotThisProcess)
{
    Serve().AnswerAll(BoolReply(true));
    EXPECT_TRUE(m_pMain->RequestAutoShutdown());
    EXPECT_FALSE(m_pMain->IsAutoShutdownRequested());
}

TEST_F(NfsIpcClientMain, LocalOnlyOperations_WithoutTheGeneralBit_AreSilent)
{
    Make("host", LOG_ALL & ~LOG_GENERAL);
    m_pMain->StopServer();
    m_pMain->EnableAutoShutdown(true);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(NfsIpcClientMain, SetLogControl_TakesEffectHereBeforeItIsSent)
{
    Make("host", 0);
    Serve();
    m_pMain->SetLogControl(LOG_STATE);
    EXPECT_EQ(m_pMain->GetRuntimeParam()->GetLogControl(), LOG_STATE);
    EXPECT_TRUE(m_recorder.Contains("info|host|[IpcClient.SendRequest] Open channel: "
                                    "/tmp/nfs-server"));
    EXPECT_EQ(m_pServer->Requests(), (Lines{Request(18) + Int32(LOG_STATE)}));
    m_pServer.reset();
    m_pMain->SetLogControl(-1);
    EXPECT_EQ(m_pMain->GetRuntimeParam()->GetLogControl(), -1);
}

TEST_F(NfsIpcClientMain, Utilities_AreThePlainOnes)
{
    const CUtilities& utilities = *m_pMain->GetUtils();
    EXPECT_TRUE(typeid(utilities) == typeid(CUtilities));
}

// ---- Initial ----

TEST_F(NfsIpcClientMain, InitialAndTerminate_OpenNothingAndAskNobody)
{
    Serve();
    const size_t iBefore = CountDescriptors();
    EXPECT_EQ(Try([&](char* p) { return m_pMain->Initial(p); }), "true, untouched");
    EXPECT_EQ(CountDescriptors(), iBefore);
    m_pMain->Terminate();
    EXPECT_EQ(m_pServer->Requests(), Lines{});
}

TEST_F(NfsIpcClientMain, Initial_IDsThatCannotNameAChannel_AreRefused)
{
    const std::pair<const char*, std::string> ids[] = {
        {"server", "Cannot use \"server\" as ID"},
        {"a b", "Invalid char \" \" inside ID"},
        {" ", "Invalid char \" \" inside ID"},
        {"a/b", "Invalid char \"/\" inside ID"},
        {"/ ", "Invalid char \"/\" inside ID"},
        {"a /", "Invalid char \" \" inside ID"},
        {"", "ID is not defined"},
    };
    for (const auto& [pcID, sReason] : ids) {
        Make(pcID);
        EXPECT_EQ(Try([&](char* p) { return m_pMain->Initial(p); }), "false, " + sReason);
        EXPECT_FALSE(m_pMain->Initial(nullptr));
    }
    for (const char* pcID : {"Server", "server2", "a.b", "a-b"}) {
        Make(pcID);
        EXPECT_TRUE(m_pMain->Initial(nullptr)) << pcID;
    }
}

// ---- The channel of this process ----

TEST_F(NfsIpcClientMain, OwnChannel_IsNamedAfterTheID)
{
    char cChannel[IPC_CHANNEL_SIZE];
    m_pMain->GetIpcServerThreadChannel(cChannel);
    EXPECT_STREQ(cChannel, "/tmp/nfs-host");
}

TEST_F(NfsIpcClientMain, RemoteController_OpensAndRemovesTheOwnChannel)
{
    const size_t iDescriptors = CountDescriptors();
    const size_t iThreads = CountThreads();
    EXPECT_EQ(Try([&](char* p) { return m_pMain->StartRemoteController(p); }), "true, untouched");
    EXPECT_TRUE(IsSocket("/tmp/nfs-host"));
    EXPECT_FALSE(IsSocket(SERVER_CHANNEL));

    Serve("9.9");  // what is asked here, this controller has to ask there
    CIpcClient client(m_pMain->GetUtils(), m_pMain->GetRuntimeParam());
    client.InitialRequest<Ipc_Header>(1);
    EXPECT_TRUE(client.SendRequest("/tmp/nfs-host"));
    EXPECT_STREQ(client.GetMsgReply(), "9.9");
    m_pServer.reset();

    m_pMain->StopRemoteController();
    EXPECT_NE(access("/tmp/nfs-host", F_OK), 0);
    EXPECT_EQ(CountDescriptors(), iDescriptors);
    EXPECT_EQ(CountThreads(), iThreads);
}

TEST_F(NfsIpcClientMain, RemoteController_EndsWithItsController)
{
    EXPECT_TRUE(m_pMain->StartRemoteController(nullptr));
    EXPECT_TRUE(IsSocket("/tmp/nfs-host"));
    m_pMain.reset();
    EXPECT_NE(access("/tmp/nfs-host", F_OK), 0);
}

TEST_F(NfsIpcClientMain, StartRemoteController_ChannelOfAnotherClient_IsRefused)
{
    EXPECT_TRUE(m_pMain->StartRemoteController(nullptr));
    CNfsIpcClientMain second("host", 0);
    EXPECT_EQ(Try([&](char* p) { return second.StartRemoteController(p); }),
              "false, Ipc channel is already created by others.");
    CNfsIpcClientMain other("other", 0);
    EXPECT_TRUE(other.StartRemoteController(nullptr));
    EXPECT_TRUE(IsSocket("/tmp/nfs-other"));
}

TEST_F(NfsIpcClientMain, StartRemoteController_LongestIDThatFits_IsServed)
{
    const std::string sID(98, 'i');
    Make(sID.c_str());
    EXPECT_EQ(Try([&](char* p) { return m_pMain->StartRemoteController(p); }), "true, untouched");
    EXPECT_TRUE(IsSocket("/tmp/nfs-" + sID));
}

TEST_F(NfsIpcClientMain, StartRemoteController_IDTooLong_IsRefused)
{
    for (const size_t iLength : {99U, 200U, 245U, 246U, 5000U}) {
        const std::string sID(iLength, 'i');
        Make(sID.c_str(), LOG_ERROR);
        m_recorder.Clear();
        const std::string sReason =
            "Channel path is longer than 107 bytes: /tmp/nfs-" + sID.substr(0, 245);
        EXPECT_EQ(Try([&](char* p) { return m_pMain->StartRemoteController(p); }),
                  "false, " + sReason);
        EXPECT_EQ(m_recorder.Lines(),
                  (Lines{"error|" + sID +
                         "|[NfsIpcServerMain.StartRemoteController] Fail to start ipc server "
                         "thread. Reason=" +
                         sReason}));
    }
    EXPECT_FALSE(IsSocket("/tmp/nfs-" + std::string(98, 'i')));
}

// ---- Threads ----

// The server answers nobody before all have asked.
TEST_F(NfsIpcClientMain, Operations_FromSeveralThreads_EachGetTheirOwnReply)
{
    constexpr int THREADS = 16;
    std::mutex mutex;
    std::condition_variable changed;
    int iAsked = 0;
    Serve().SetHandler([&](const std::string& sRequest) {
        std::unique_lock<std::mutex> lock(mutex);
        iAsked++;
        changed.notify_all();
        changed.wait(lock, [&iAsked] { return iAsked >= THREADS; });
        return IntReply(std::stoi(sRequest.substr(16, 256)));
    });
    std::vector<int> vResults(THREADS);
    std::vector<std::thread> vThreads;
    for (int i = 0; i < THREADS; i++) {
        vThreads.emplace_back([this, &vResults, i] {
            CRuntimeParam param(std::to_string(1000 + i).c_str(), 0);
            vResults[static_cast<size_t>(i)] = m_pMain->GetMountInfo(&param, false, false);
        });
    }
    for (std::thread& hThread : vThreads)
        hThread.join();
    for (int i = 0; i < THREADS; i++)
        EXPECT_EQ(vResults[static_cast<size_t>(i)], 1000 + i);
    EXPECT_EQ(m_pServer->Requests().size(), static_cast<size_t>(THREADS));
}
