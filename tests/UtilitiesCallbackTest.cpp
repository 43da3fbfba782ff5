// The hosts that a server has: which one is told what happens, and how long each of them lives.
#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "LogRecorder.h"
#include "RelayPeer.h"
#include "RuntimeParam.h"
#include "Sanitizers.h"
#include "Utilities.h"

using Lines = std::vector<std::string>;

namespace {

// Tells when it goes, holds whoever calls it until it is let go of, and must not be called later.
class CMortalHost : public CLogRecorder {
public:
    explicit CMortalHost(std::atomic<int>* piAlive) : m_piAlive(piAlive) { (*m_piAlive)++; }
    ~CMortalHost() override
    {
        m_bGone = true;
        (*m_piAlive)--;
    }

    bool LogInfo(const char* pcID, const char* pcMessage) override
    {
        EXPECT_FALSE(m_bGone);
        Hold();
        EXPECT_FALSE(m_bGone);
        return CLogRecorder::LogInfo(pcID, pcMessage);
    }
    int WriteRedirectedFile(const char*, const char*, unsigned long long, int,
                            unsigned int iLength) override
    {
        EXPECT_FALSE(m_bGone);
        Hold();
        EXPECT_FALSE(m_bGone);
        return static_cast<int>(iLength);
    }

    // From here on calls stay inside until Release.
    void HoldCalls() { m_bHold = true; }
    void WaitForCall() { m_Entered.get_future().wait(); }
    void Release() { m_Left.set_value(); }

private:
    void Hold()
    {
        if (!m_bHold)
            return;
        m_Entered.set_value();
        m_Left.get_future().wait();
    }

    std::atomic<int>* m_piAlive;
    std::atomic<bool> m_bGone = false;
    bool m_bHold = false;
    std::promise<void> m_Entered;
    std::promise<void> m_Left;
};

class HostLife : public testing::Test {
protected:
    std::shared_ptr<CMortalHost> Make() { return std::make_shared<CMortalHost>(&m_iAlive); }

    std::atomic<int> m_iAlive = 0;
    CUtilities m_utilities;
    CRuntimeParam m_param{"host", 0};
};

}  // namespace

TEST_F(HostLife, InstallCallback_None_IsInstalledAndKept)
{
    auto pHost = Make();
    const IHost* pRaw = pHost.get();
    m_utilities.InstallCallback(pHost);
    pHost.reset();
    EXPECT_EQ(m_iAlive, 1);
    EXPECT_EQ(m_utilities.GetCallback().get(), pRaw);
    m_utilities.RemoveCallback(pRaw);
    EXPECT_EQ(m_iAlive, 0);
    EXPECT_EQ(m_utilities.GetCallback(), nullptr);
}

// There is no moment without a host in between: whoever logs then reaches the next one.
TEST_F(HostLife, InstallCallback_OneIsThere_TakesOverWhenThatEnds)
{
    const auto pFirst = Make();
    const auto pSecond = Make();
    const auto pThird = Make();
    m_utilities.InstallCallback(pFirst);
    m_utilities.InstallCallback(pSecond);
    m_utilities.InstallCallback(pThird);
    m_utilities.LogInfo(&m_param, "%s", "one");
    m_utilities.RemoveCallback(pFirst.get());
    m_utilities.LogInfo(&m_param, "%s", "two");
    m_utilities.RemoveCallback(pSecond.get());
    m_utilities.LogInfo(&m_param, "%s", "three");
    EXPECT_EQ(pFirst->Lines(), Lines{"info|host|one"});
    EXPECT_EQ(pSecond->Lines(), Lines{"info|host|two"});
    EXPECT_EQ(pThird->Lines(), Lines{"info|host|three"});
    m_utilities.RemoveCallback(pThird.get());
    EXPECT_EQ(m_utilities.GetCallback(), nullptr);
}

TEST_F(HostLife, RemoveCallback_OneThatWaits_NeverHasItsTurn)
{
    const auto pFirst = Make();
    auto pSecond = Make();
    const auto pThird = Make();
    m_utilities.InstallCallback(pFirst);
    m_utilities.InstallCallback(pSecond);
    m_utilities.InstallCallback(pThird);
    m_utilities.RemoveCallback(pSecond.get());
    pSecond.reset();
    EXPECT_EQ(m_iAlive, 2);
    EXPECT_EQ(m_utilities.GetCallback(), pFirst);
    m_utilities.RemoveCallback(pFirst.get());
    EXPECT_EQ(m_utilities.GetCallback(), pThird);
}

TEST_F(HostLife, InstallCallback_OneWasSet_WaitsBehindIt)
{
    CLogRecorder set;
    m_utilities.SetCallback(&set);
    const auto pHost = Make();
    m_utilities.InstallCallback(pHost);
    EXPECT_EQ(m_utilities.GetCallback().get(), &set);
    m_utilities.RemoveCallback(&set);
    EXPECT_EQ(m_utilities.GetCallback(), pHost);
}

TEST_F(HostLife, SetCallback_SeveralWereInstalled_LetsAllOfThemGo)
{
    CLogRecorder set;
    m_utilities.InstallCallback(Make());
    m_utilities.InstallCallback(Make());
    m_utilities.SetCallback(&set);
    EXPECT_EQ(m_iAlive, 0);
    m_utilities.SetCallback(nullptr);
    EXPECT_EQ(m_utilities.GetCallback(), nullptr);
}

TEST_F(HostLife, RemoveCallback_AnotherOne_StaysThere)
{
    const auto pHost = Make();
    const auto pOther = Make();
    m_utilities.InstallCallback(pHost);
    m_utilities.RemoveCallback(pOther.get());
    m_utilities.RemoveCallback(nullptr);
    EXPECT_EQ(m_utilities.GetCallback(), pHost);
}

TEST_F(HostLife, SetCallback_InPlaceOfAnInstalledOne_LetsThatGo)
{
    CLogRecorder set;
    m_utilities.InstallCallback(Make());
    m_utilities.SetCallback(&set);
    EXPECT_EQ(m_iAlive, 0);
    m_utilities.SetCallback(nullptr);  // not owned, so it goes on living
    EXPECT_EQ(set.Lines(), Lines{});
}

TEST_F(HostLife, Destructor_LetsTheInstalledOneGo)
{
    auto pUtilities = std::make_unique<CUtilities>();
    pUtilities->InstallCallback(Make());
    EXPECT_EQ(m_iAlive, 1);
    pUtilities.reset();
    EXPECT_EQ(m_iAlive, 0);
}

TEST_F(HostLife, RemoveCallback_AnotherThreadInside_LivesUntilThatLeaves)
{
    for (const bool bNotification : {false, true}) {
        auto pHost = Make();
        CMortalHost* pRaw = pHost.get();
        pRaw->HoldCalls();
        m_utilities.InstallCallback(std::move(pHost));
        std::thread inside([&] {
            if (bNotification)
                EXPECT_EQ(m_utilities.LogWriteRedirectedFile(&m_param, "/f", 0, 0, 7), 7);
            else
                m_utilities.LogInfo(&m_param, "%s", "line");
        });
        pRaw->WaitForCall();
        relay::ExpectReturns("RemoveCallback", [&] { m_utilities.RemoveCallback(pRaw); });
        EXPECT_EQ(m_utilities.GetCallback(), nullptr);
        EXPECT_EQ(m_iAlive, 1);

        const auto pNext = Make();  // calls from now on are another one's
        m_utilities.InstallCallback(pNext);
        m_utilities.LogInfo(&m_param, "%s", "next");
        EXPECT_EQ(pNext->Lines(), Lines{"info|host|next"});
        EXPECT_EQ(m_iAlive, 2);

        pRaw->Release();
        inside.join();
        EXPECT_EQ(m_iAlive, 1);
        m_utilities.RemoveCallback(pNext.get());
    }
}

TEST_F(HostLife, RemoveCallback_FromItsOwnCall_LivesUntilThatReturns)
{
    class CLeavingHost : public CLogRecorder {
    public:
        CLeavingHost(CUtilities* pUtilities, bool* pbGone)
            : m_pUtilities(pUtilities), m_pbGone(pbGone)
        {
        }
        ~CLeavingHost() override { *m_pbGone = true; }
        bool LogInfo(const char*, const char*) override
        {
            m_pUtilities->RemoveCallback(this);
            EXPECT_FALSE(*m_pbGone);
            return true;
        }

    private:
        CUtilities* m_pUtilities;
        bool* m_pbGone;
    };
    bool bGone = false;
    m_utilities.InstallCallback(std::make_shared<CLeavingHost>(&m_utilities, &bGone));
    relay::ExpectReturns("LogInfo", [this] { m_utilities.LogInfo(&m_param, "%s", "line"); });
    EXPECT_TRUE(bGone);
}

TEST_F(HostLife, ManyThreads_WhileHostsComeAndGo_CallNoneThatIsGone)
{
    constexpr int ROUNDS = IS_SANITIZED ? 2000 : 20000;
    std::atomic<bool> bStop = false;
    std::vector<std::thread> vThreads;
    for (int i = 0; i < 4; i++)
        vThreads.emplace_back([&, i] {
            CRuntimeParam param("host", 0);
            while (!bStop) {
                // Where there is none, the answer is no.
                const int iResult = m_utilities.LogWriteRedirectedFile(&param, "/f", 0, 0, 1);
                EXPECT_TRUE(iResult == 1 || iResult == -1) << i;
            }
        });
    for (int i = 0; i < ROUNDS; i++) {
        const auto pHost = Make();
        const IHost* pRaw = pHost.get();
        m_utilities.InstallCallback(pHost);
        m_utilities.RemoveCallback(pRaw);
    }
    bStop = true;
    for (std::thread& hThread : vThreads)
        hThread.join();
    EXPECT_EQ(m_iAlive, 0);
}

// A call that begins while hosts hand over to each other always finds one of them.
TEST_F(HostLife, ManyThreads_WhileHostsHandOver_AlwaysFindOne)
{
    constexpr int ROUNDS = IS_SANITIZED ? 2000 : 20000;
    std::shared_ptr<CMortalHost> pCurrent = Make();
    m_utilities.InstallCallback(pCurrent);
    std::atomic<bool> bStop = false;
    std::thread caller([&] {
        CRuntimeParam param("host", 0);
        while (!bStop)
            EXPECT_EQ(m_utilities.LogWriteRedirectedFile(&param, "/f", 0, 0, 1), 1);
    });
    for (int i = 0; i < ROUNDS; i++) {
        const auto pNext = Make();
        m_utilities.InstallCallback(pNext);
        m_utilities.RemoveCallback(pCurrent.get());
        pCurrent = pNext;
    }
    bStop = true;
    caller.join();
    EXPECT_EQ(m_utilities.GetCallback(), pCurrent);
}
