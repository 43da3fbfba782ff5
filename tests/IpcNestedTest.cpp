// Requests that lead to questions to the one who asks, and what becomes of those that wait for each
// other when somebody is stopped.
#include <atomic>
#include <memory>
#include <poll.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "IpcNestedFixture.h"
#include "NfsIpcClientMain.h"
#include "RelayPeer.h"
#include "RuntimeParam.h"
#include "Text.h"
#include "Utilities.h"

using Lines = std::vector<std::string>;

namespace {

constexpr int LOG_EVERYTHING = 0x3FF;
constexpr size_t MAX_SERVING = 16;  // requests that a channel has in hand at most

}  // namespace

// ---- Served meanwhile ----

TEST_F(IpcNested, Client_AsksBeforeItAnswers_IsServed)
{
    std::string sInner;
    const CRelayPeer peer("a", [&](const std::string&) {
        sInner = relay::Ask(SERVER_CHANNEL, IsSessionExistsRequest("s1"));
        return BoolReply(true);
    });
    relay::ExpectReturns("the listing", [] {
        EXPECT_TRUE(
            SameMessage(relay::Ask(SERVER_CHANNEL, SessionListingRequest("a")), IntReply(1)));
    });
    EXPECT_TRUE(SameMessage(sInner, BoolReply(true)));
    EXPECT_EQ(peer.Descriptions(), Lines{LINE});
}

// The request whose lines are under way keeps its arguments: each has a buffer of its own.
TEST_F(IpcNested, Client_AsksForMoreBeforeItAnswers_EachListingIsWhole)
{
    for (int i = 2; i <= 5; i++)
        m_main.AddSessionInfo(("s" + std::to_string(i)).c_str(), "/x");
    const CRelayPeer peer("a", [](const std::string&) {
        EXPECT_TRUE(
            SameMessage(relay::Ask(SERVER_CHANNEL, SessionListingRequest("b")), IntReply(5)));
        return BoolReply(true);
    });
    const CRelayPeer other("b");
    relay::ExpectReturns("the listing", [] {
        EXPECT_TRUE(
            SameMessage(relay::Ask(SERVER_CHANNEL, SessionListingRequest("a")), IntReply(5)));
    });
    EXPECT_EQ(peer.Messages().size(), 5U);
    EXPECT_EQ(other.Messages().size(), 25U);
}

TEST_F(IpcNested, OtherClient_WhileOneThinks_IsServed)
{
    CHandPeer peer("a");
    relay::CAsking listing(SERVER_CHANNEL, SessionListingRequest("a"));
    EXPECT_EQ(peer.Take(), LINE);
    EXPECT_TRUE(
        SameMessage(relay::Ask(SERVER_CHANNEL, IsSessionExistsRequest("s2")), BoolReply(false)));
    EXPECT_TRUE(
        SameMessage(relay::Ask(SERVER_CHANNEL, IsSessionExistsRequest("s1")), BoolReply(true)));
    EXPECT_FALSE(listing.IsAnswered());
    peer.Answer(BoolReply(true));
    EXPECT_TRUE(SameMessage(listing.Read(), IntReply(1)));
}

// One that says nothing keeps neither those waiting who speak, nor the request in hand.
TEST_F(IpcNested, SilentClient_WhileOneThinks_KeepsNobodyWaiting)
{
    CHandPeer peer("a");
    relay::CAsking listing(SERVER_CHANNEL, SessionListingRequest("a"));
    EXPECT_EQ(peer.Take(), LINE);
    relay::CAsking silent(SERVER_CHANNEL, "");
    EXPECT_TRUE(
        SameMessage(relay::Ask(SERVER_CHANNEL, IsSessionExistsRequest("s1")), BoolReply(true)));
    peer.Answer(BoolReply(true));
    EXPECT_TRUE(SameMessage(listing.Read(), IntReply(1)));
    EXPECT_FALSE(silent.IsAnswered());
}

TEST_F(IpcNested, FailureMeanwhile_IsLoggedAndCostsNothingElse)
{
    CHandPeer peer("a");
    relay::CAsking listing(SERVER_CHANNEL, SessionListingRequest("a"));
    EXPECT_EQ(peer.Take(), LINE);
    {
        const relay::CAsking gone(SERVER_CHANNEL, "");
    }
    EXPECT_TRUE(m_Host.WaitFor("error|svr|[IpcServer.SendRequest] Fail to read ipc request. "
                               "Connection reset by peer (104)"));
    peer.Answer(BoolReply(true));
    EXPECT_TRUE(SameMessage(listing.Read(), IntReply(1)));
}

// ---- Both sides ----

namespace {

// A host in a client process that asks the server for a listing at every line, down to a depth.
class CAskingHost : public CLogRecorder {
public:
    CAskingHost(CNfsMain* pMain, int iDepth) : m_pMain(pMain), m_iDepth(iDepth) {}

    bool LogInfo(const char* pcID, const char* pcMessage) override
    {
        const std::string sBefore = pcMessage;  // see below
        CLogRecorder::LogInfo(pcID, pcMessage);
        Ask();
        EXPECT_EQ(pcMessage, sBefore);
        return true;
    }
    bool LogError(const char* pcID, const char* pcMessage) override
    {
        const std::string sBefore = pcMessage;
        CLogRecorder::LogError(pcID, pcMessage);
        Ask();
        EXPECT_EQ(pcMessage, sBefore);
        return true;
    }
    bool LogRaw(const char* pcID, const char* pcMessage) override
    {
        // The text belongs to whoever calls, who must not use its place for something else.
        const std::string sBefore = pcMessage;
        CLogRecorder::LogRaw(pcID, pcMessage);
        Ask();
        EXPECT_EQ(pcMessage, sBefore);
        return true;
    }

    std::vector<int> Results() const { return m_vResults; }
    void SetDepth(int iDepth) { m_iDepth = iDepth; }

private:
    void Ask()
    {
        if (m_iNow >= m_iDepth)
            return;
        m_iNow++;
        const int iResult = m_pMain->GetSessionInfo(true);
        m_iNow--;
        m_vResults.push_back(iResult);
    }

    CNfsMain* m_pMain;
    std::atomic<int> m_iDepth;
    int m_iNow = 0;               // of the one thread that is inside at a time
    std::vector<int> m_vResults;  // innermost first
};

class IpcNestedBothSides : public IpcNested {
protected:
    void StartClient(int iLogControl, int iDepth)
    {
        char cReason[REASON_SIZE] = "";
        m_pClient = std::make_unique<CNfsIpcClientMain>("a", iLogControl);
        ASSERT_TRUE(m_pClient->StartRemoteController(cReason)) << cReason;
        m_pAsking = std::make_unique<CAskingHost>(m_pClient.get(), iDepth);
        m_pClient->SetCallback(m_pAsking.get());
    }

    void TearDown() override
    {
        if (m_pAsking != nullptr)
            m_pAsking->SetDepth(0);
        relay::ExpectReturns("the client", [this] {
            if (m_pClient != nullptr)
                m_pClient->StopRemoteController();
        });
        IpcNested::TearDown();
        m_pClient.reset();
    }

    // Of those that the client is told of, some may be under way after a listing.
    void WaitForLines(size_t iCount)
    {
        relay::ExpectReturns("the wait for lines", [this, iCount] {
            while (m_pAsking->Count(LINE) < iCount)
                std::this_thread::yield();
        });
    }

    std::unique_ptr<CNfsIpcClientMain> m_pClient;
    std::unique_ptr<CAskingHost> m_pAsking;
};

}  // namespace

TEST_F(IpcNestedBothSides, ListingFromEachLineOfAListing_AllAreWhole)
{
    StartClient(LOG_CONTROL_ERROR, 6);
    relay::ExpectReturns("the listing", [this] {
        EXPECT_TRUE(
            SameMessage(relay::Ask(SERVER_CHANNEL, SessionListingRequest("a")), IntReply(1)));
        m_pClient->StopRemoteController();  // no line is under way any more
    });
    EXPECT_EQ(m_pAsking->Results(), std::vector<int>(6, 1));
    EXPECT_EQ(m_pAsking->Lines(), Lines(7, LINE));
}

// However often the client asks back: no more requests are begun below others than there may be.
TEST_F(IpcNestedBothSides, ListingFromEveryLine_EndsByItself)
{
    StartClient(LOG_CONTROL_ERROR, 1000000);
    relay::ExpectReturns("the listing", [] {
        EXPECT_TRUE(
            SameMessage(relay::Ask(SERVER_CHANNEL, SessionListingRequest("a")), IntReply(1)));
    });
    m_pAsking->SetDepth(0);
    EXPECT_TRUE(SameMessage(relay::Ask("/tmp/nfs-a", relay::Line("svr", "last", relay::INFO)),
                            BoolReply(true)));  // whatever was under way is done
    EXPECT_GT(m_pAsking->Count(LINE), 10U);

    // And both go on as before.
    m_pAsking->Clear();
    EXPECT_EQ(m_pClient->GetSessionInfo(true), 1);
    EXPECT_GE(m_pAsking->Count(LINE), 1U);  // others may be of what was given up
}

// Traces of its channel, too, come from the thread that serves it.
TEST_F(IpcNestedBothSides, ListingFromATraceOfTheChannel_DoesNotHang)
{
    StartClient(LOG_EVERYTHING, 1);
    relay::ExpectReturns("the listing", [] {
        EXPECT_TRUE(
            SameMessage(relay::Ask(SERVER_CHANNEL, SessionListingRequest("a")), IntReply(1)));
    });
    m_pAsking->SetDepth(0);
    WaitForLines(2);
}

TEST_F(IpcNestedBothSides, ListingFromTheLineOfAFailedRequest_DoesNotHang)
{
    StartClient(LOG_CONTROL_ERROR, 1);
    {
        const relay::CAsking gone("/tmp/nfs-a", "");
    }
    relay::ExpectReturns("the listing", [] {
        EXPECT_TRUE(
            SameMessage(relay::Ask(SERVER_CHANNEL, SessionListingRequest("a")), IntReply(1)));
    });
    WaitForLines(2);
    m_pClient->StopRemoteController();
    EXPECT_EQ(m_pAsking->Count("Connection reset by peer"), 1U);
    EXPECT_GE(m_pAsking->Count(LINE), 2U);  // from the line of the failure, and the test's
    EXPECT_EQ(m_pAsking->Results(), std::vector<int>(m_pAsking->Results().size(), 1));
    EXPECT_GE(m_pAsking->Results().size(), 1U);
}

// ---- The limit ----

namespace {

class IpcNestedLimit : public IpcNested {
protected:
    // As many requests in hand as there may be, each waiting for the client's word about its line.
    void FillUp()
    {
        for (size_t i = 0; i < MAX_SERVING; i++) {
            m_vListings.push_back(
                std::make_unique<relay::CAsking>(SERVER_CHANNEL, SessionListingRequest("a")));
            EXPECT_EQ(m_Peer.Take(), LINE);
        }
    }

    void ExpectUnanswered(relay::CAsking* pAsking)
    {
        poll(nullptr, 0, 200);  // time for an answer that should not come
        EXPECT_FALSE(pAsking->IsAnswered());
    }

    CHandPeer m_Peer{"a"};
    std::vector<std::unique_ptr<relay::CAsking>> m_vListings;
};

}  // namespace

TEST_F(IpcNestedLimit, Beyond_WaitsUntilOneIsDone)
{
    FillUp();
    relay::CAsking further(SERVER_CHANNEL, IsSessionExistsRequest("s1"));
    ExpectUnanswered(&further);
    m_Peer.Answer(BoolReply(true));
    EXPECT_TRUE(SameMessage(m_vListings.back()->Read(), IntReply(1)));
    EXPECT_TRUE(SameMessage(further.Read(), BoolReply(true)));
    m_vListings.pop_back();
    while (m_Peer.CountOpen() > 0) {
        m_Peer.Answer(BoolReply(true));
        EXPECT_TRUE(SameMessage(m_vListings.back()->Read(), IntReply(1)));
        m_vListings.pop_back();
    }
}

TEST_F(IpcNestedLimit, Close_AllInHandWait_EndsThem)
{
    FillUp();
    relay::ExpectReturns("StopRemoteController", [this] { m_main.StopRemoteController(); });
    EXPECT_EQ(m_Host.Count(GAVE_UP), MAX_SERVING);
    for (const auto& pListing : m_vListings)
        EXPECT_TRUE(SameMessage(pListing->Read(), IntReply(1)));
}

// ---- Stopping ----

// Its queue is full after a few; all lines together have no more time than the first.
TEST_F(IpcNested, Close_ClientNeverAnswersManyLines_EndsThemAll)
{
    for (int i = 0; i < 500; i++)
        m_main.AddSessionInfo(std::to_string(i).c_str(), "/x");
    relay::CFrozenPeer peer("a");
    relay::CAsking listing(SERVER_CHANNEL, SessionListingRequest("a"));
    peer.WaitForMessage();
    relay::ExpectReturns("StopRemoteController", [this] { m_main.StopRemoteController(); });
    EXPECT_EQ(m_Host.Count("raw|svr| session"), 501U);  // here, none is lost
    EXPECT_EQ(m_Host.Count("error|svr|[IpcClient.SendRequest] "), 501U);
    EXPECT_EQ(m_Host.Lines()[1], std::string("error|svr|") + GAVE_UP);
    EXPECT_TRUE(SameMessage(listing.Read(), IntReply(501)));

    // And the next stop gives as much time as the first did: an answer in time is taken.
    StartController();
    m_main.GetUtils()->RemoveAllSessionInfo();
    m_main.AddSessionInfo("s1", "/x");
    m_Host.Clear();
    CHandPeer later("b");
    relay::CAsking second(SERVER_CHANNEL, SessionListingRequest("b"));
    EXPECT_EQ(later.Take(), LINE);
    std::thread stopping([this] { m_main.StopRemoteController(); });
    poll(nullptr, 0, 300);  // the stop is under way; the client thinks for a moment longer
    later.Answer(BoolReply(true));
    stopping.join();
    EXPECT_TRUE(SameMessage(second.Read(), IntReply(1)));
    EXPECT_EQ(m_Host.Lines(), Lines{LINE});
}

// Whoever asks for a shutdown while another request waits is heard at once.
TEST_F(IpcNested, AutoShutdown_WhileARelayWaits_IsRequestedAndCanBeFollowed)
{
    m_main.EnableAutoShutdown(true);
    relay::CFrozenPeer peer("a");
    relay::CAsking listing(SERVER_CHANNEL, SessionListingRequest("a"));
    peer.WaitForMessage();
    EXPECT_TRUE(
        SameMessage(relay::Ask(SERVER_CHANNEL, Header(GROUP_REQUEST, 22)), BoolReply(true)));
    relay::ExpectReturns("the controller", [this] {
        while (!m_main.IsAutoShutdownRequested())
            std::this_thread::yield();
    });
    relay::ExpectReturns("StopRemoteController", [this] { m_main.StopRemoteController(); });
    EXPECT_TRUE(SameMessage(listing.Read(), IntReply(1)));
}
