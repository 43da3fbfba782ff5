// A local channel under a crowd, and under rubbish.
#include "NfsIpcServerMain.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "IpcClient.h"
#include "IpcFixture.h"
#include "RuntimeParam.h"

namespace {

constexpr char CHANNEL[] = "/tmp/nfs-server";
constexpr int CLIENTS = 100;
constexpr int MESSAGES_BEFORE_CLEANING = 5000;

constexpr int TYPE_START = 4;
constexpr int TYPE_AUTO_SHUTDOWN = 22;

// Texts of messages begin at these bytes, whatever the type.
constexpr size_t TEXT_STARTS[] = {16, 272, 528, 784, 1040, 1296};

std::chrono::seconds GetDuration()
{
    const char* pcSeconds = getenv("STAGENFS_STRESS_SECONDS");
    const int iSeconds = pcSeconds == nullptr ? 0 : atoi(pcSeconds);
    return std::chrono::seconds(iSeconds > 0 ? iSeconds : 3);
}

// A host that wants no lines: what rubbish has the server say fills memory.
class CDeafHost : public CLogRecorder {
public:
    bool LogInfo(const char*, const char*) override { return true; }
    bool LogError(const char*, const char*) override { return true; }
    bool LogRaw(const char*, const char*) override { return true; }
};

// Rubbish must not open ports.
class CNotStartingMain : public CNfsIpcServerMain {
public:
    using CNfsIpcServerMain::CNfsIpcServerMain;

    bool StartServer(int, int, unsigned int, unsigned int, bool, char*) override { return false; }
};

class IpcStress : public testing::Test {
protected:
    IpcStress() : m_pMain(std::make_unique<CNotStartingMain>("svr", 0))
    {
        m_pMain->SetCallback(&m_host);
    }

    // Relative paths lead into the folder, should anything be made of them.
    void SetUp() override
    {
        ASSERT_EQ(chdir(m_folder.Path().c_str()), 0);
        ASSERT_TRUE(m_pMain->StartRemoteController(m_cReason)) << m_cReason;
    }

    void TearDown() override
    {
        ExpectReturns("The destructor", [this] { m_pMain.reset(); });
        ASSERT_EQ(chdir("/"), 0);
    }

    void ExpectServed()
    {
        EXPECT_TRUE(SameReply(Exchange(CHANNEL, Request(2)), MsgReply("External NFS Server")));
        const std::string sID = Field("afterwards", TEXT_FIELD);
        EXPECT_TRUE(SameReply(Exchange(CHANNEL, Request(7) + sID + Field("/f", PATH_FIELD)),
                              BoolReply(true)));
        EXPECT_TRUE(SameReply(Exchange(CHANNEL, Request(9) + sID), BoolReply(true)));
        EXPECT_TRUE(SameReply(Exchange(CHANNEL, Request(8) + sID), BoolReply(true)));
        EXPECT_TRUE(SameReply(Exchange(CHANNEL, Request(9) + sID), BoolReply(false)));
    }

    // A peer that says this and does not insist on an answer.
    static void Say(std::mt19937* pRandom, const std::string& sMessage)
    {
        CIpcPeer peer(CHANNEL);
        ASSERT_TRUE(peer.IsConnected());
        if (!sMessage.empty())
            peer.Send(sMessage);
        if ((*pRandom)() % 8 == 0)
            return;
        if (sMessage.empty())
            peer.Finish();
        peer.Read();
    }

    // Random bytes in which no text can be the path of anything on the machine.
    static std::string MakeRubbish(std::mt19937* pRandom, size_t iLength)
    {
        std::string sBytes(iLength, '\0');
        for (char& cByte : sBytes)
            cByte = static_cast<char>((*pRandom)() & 0xff);
        for (const size_t iStart : TEXT_STARTS)
            if (iStart < iLength)
                sBytes[iStart] = '\x01';
        return sBytes;
    }

    static std::string MakeHeader(std::mt19937* pRandom)
    {
        int iType = 0;
        do
            iType = static_cast<int>((*pRandom)() % 31) - 1;
        while (iType == TYPE_START || iType == TYPE_AUTO_SHUTDOWN);
        return Header(static_cast<int>((*pRandom)() % 5), iType);
    }

    // A known kind of message as often as not, of any length up to more than a server reads.
    static std::string MakeRubbishBehindAHeader(std::mt19937* pRandom)
    {
        const std::string sHeader = MakeHeader(pRandom);
        std::string sMessage = sHeader + MakeRubbish(pRandom, 5000).substr(sHeader.size());
        const size_t iLength = (*pRandom)() % 4 == 0 ? 32 : sMessage.size();
        sMessage.resize((*pRandom)() % (iLength + 1));
        return sMessage;
    }

    // Forgets what came of the messages so far.
    void Clean()
    {
        LogArgu argu{"Test"};
        m_pMain->GetUtils()->Reset(m_pMain->GetRuntimeParam(), &argu);
        m_host.Clear();
    }

    CScratchFolder m_folder;
    CDeafHost m_host;
    char m_cReason[REASON_SIZE] = "";
    std::unique_ptr<CNfsIpcServerMain> m_pMain;
};

// One of a crowd. Each of its requests has a reply that nobody else gets.
class CCrowdClient {
public:
    explicit CCrowdClient(int iNumber)
        : m_sName("client" + std::to_string(iNumber)), m_bSession(iNumber % 2 == 0)
    {
    }

    void Run(std::chrono::steady_clock::time_point end)
    {
        const std::string sID = Field(m_sName, TEXT_FIELD);
        const std::string sFolder = Field("/folder/" + m_sName, PATH_FIELD);
        const std::string sExport = Request(5) + sFolder + sID + sID;
        if (m_bSession)
            Expect(Request(7) + sID + sFolder, BoolReply(true));
        Expect(sExport, BoolReply(true));
        do {
            Expect(Request(9) + sID, BoolReply(m_bSession));
            Expect(sExport, ExptReply("Export name \"" + m_sName + "\" already defined"));
            const int iType = 1000 + static_cast<int>(m_iExchanges);
            Expect(Request(iType),
                   ExptReply("Unknown request type (" + std::to_string(iType) + ")"));
            ExpectThroughAClient();
        } while (m_bWell && std::chrono::steady_clock::now() < end);
        Expect(Request(6) + sFolder, BoolReply(true));
    }

    bool IsWell() const { return m_bWell; }
    size_t GetExchanges() const { return m_iExchanges; }

private:
    void Expect(const std::string& sRequest, const std::string& sReply)
    {
        const auto result = SameReply(Exchange(CHANNEL, sRequest), sReply);
        EXPECT_TRUE(result) << m_sName;
        Count(bool(result));
    }

    void ExpectThroughAClient()
    {
        CIpcClient client(&m_utilities, &m_param);
        auto* pRequest = client.InitialRequest<IpcRequest_IsSessionExists>(9);
        SetField(pRequest->cSessionID, m_sName.c_str());
        char cError[REASON_SIZE] = "";
        const bool bDone = client.SendRequest(CHANNEL, cError);
        EXPECT_TRUE(bDone) << cError;
        EXPECT_EQ(client.GetBoolReply(), m_bSession) << m_sName;
        Count(bDone && client.GetBoolReply() == m_bSession);
    }

    void Count(bool bWell)
    {
        m_bWell = m_bWell && bWell;
        m_iExchanges++;
    }

    const std::string m_sName;
    const bool m_bSession;
    CUtilities m_utilities;
    CRuntimeParam m_param{"crowd", 0};
    bool m_bWell = true;
    size_t m_iExchanges = 0;
};

}  // namespace

TEST_F(IpcStress, Crowd_EachRequestHasItsOwnReply)
{
    const size_t iDescriptors = CountDescriptors();
    std::vector<std::unique_ptr<CCrowdClient>> vClients;
    for (int i = 0; i < CLIENTS; i++)
        vClients.push_back(std::make_unique<CCrowdClient>(i));
    const auto end = std::chrono::steady_clock::now() + GetDuration();
    std::vector<std::thread> vThreads;
    for (const auto& pClient : vClients)
        vThreads.emplace_back([&pClient, end] { pClient->Run(end); });
    for (std::thread& thread : vThreads)
        thread.join();

    size_t iExchanges = 0;
    for (const auto& pClient : vClients) {
        EXPECT_TRUE(pClient->IsWell());
        EXPECT_GE(pClient->GetExchanges(), 6U);
        iExchanges += pClient->GetExchanges();
    }
    std::cout << iExchanges << " exchanges" << std::endl;
    EXPECT_EQ(m_pMain->GetMountInfo(false, false), 0);
    EXPECT_EQ(m_pMain->GetSessionInfo(false), CLIENTS / 2);
    ExpectServed();
    EXPECT_EQ(CountDescriptors(), iDescriptors);
}

TEST_F(IpcStress, Rubbish_IsSurvived)
{
    std::mt19937 random(1);
    const auto end = std::chrono::steady_clock::now() + GetDuration();
    int iMessages = 0;
    while (std::chrono::steady_clock::now() < end && !HasFailure()) {
        Say(&random, random() % 2 == 0 ? MakeRubbish(&random, random() % 5000)
                                       : MakeRubbishBehindAHeader(&random));
        if (++iMessages % MESSAGES_BEFORE_CLEANING == 0)
            Clean();
    }
    Clean();
    std::cout << iMessages << " messages" << std::endl;
    ExpectServed();
}
