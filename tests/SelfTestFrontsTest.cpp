// The self-test as it is started from elsewhere: by the console's option and its command, and by
// clients of a server process.
#include <filesystem>
#include <sstream>

#include <gtest/gtest.h>

#include "ConsoleFixture.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "SelfTestFixture.h"

namespace {

// What a run prints under an ID, figures apart.
std::string GetPrintedRun(const std::string& sTarget, const char* pcID,
                          const SelfTestRun& run = USUAL_RUN)
{
    std::string sText;
    for (const std::string& sLine : GetGoodRun(sTarget, run))
        sText += std::string("[info] (") + pcID + ") " + sLine + "\n";
    return sText;
}

std::string GetPrintedRefusal(const std::string& sReason, const char* pcID)
{
    return std::string("[info] (") + pcID + ") Cannot start platrorm test. Error=" + sReason + "\n";
}

// The same output without its figures.
std::string MaskPrinted(const std::string& sOutput)
{
    std::istringstream lines(sOutput);
    std::string sText;
    for (std::string sLine; std::getline(lines, sLine);) {
        const size_t iStart = sLine.starts_with("[info] (") ? sLine.find(") ") + 2 : 0;
        sText += sLine.substr(0, iStart) + WithoutFigure(sLine.substr(iStart)) + "\n";
    }
    return sText;
}

class SelfTestFronts : public testing::Test {
protected:
    SelfTestFronts() : m_iMask(umask(022)) {}
    ~SelfTestFronts() override { umask(m_iMask); }

    void ExpectNothingLeft() { EXPECT_TRUE(std::filesystem::is_empty(m_folder.Path())); }

    const CScratchFolder m_folder;

private:
    const mode_t m_iMask;
};

class SelfTestOption : public SelfTestFronts, public testing::WithParamInterface<const char*> {
protected:
    Words Arguments(const std::string& sValue) const
    {
        return {"-md", GetParam(), "-test", sValue};
    }
    std::string Greeting() const
    {
        return GetParam() == std::string("int") ? VERSION_BLOCK : SERVER_VERSION_BLOCK;
    }
    // Under which ID lines come: that of the program that runs the test.
    const char* ID() const { return m_pServer == nullptr ? "tmRun" : "cRun"; }

    void SetUp() override
    {
        if (GetParam() == std::string("cli"))
            m_pServer = std::make_unique<CConsole>(Words{"-md", "svr"});
    }

    std::unique_ptr<CConsole> m_pServer;  // of the client
};

// A server and two clients of it, each with a host of its own.
class SelfTestOverIpc : public SelfTestFronts {
protected:
    void SetUp() override
    {
        m_server.SetCallback(&m_serverHost);
        Begin(&m_server);
        m_client.SetCallback(&m_host);
        Begin(&m_client);
        m_other.SetCallback(&m_otherHost);
        Begin(&m_other);
    }
    void TearDown() override
    {
        for (CNfsMain* pMain : {static_cast<CNfsMain*>(&m_other), static_cast<CNfsMain*>(&m_client),
                                static_cast<CNfsMain*>(&m_server)}) {
            pMain->StopRemoteController();
            pMain->Terminate();
            pMain->SetCallback(nullptr);
        }
    }

    // The lines that the client's host has been given, without kind and ID, which is that of
    // whoever ran the test.
    Lines TakeLines(const std::string& sID = "svr")
    {
        Lines vLines;
        const std::string sStart = "info|" + sID + "|";
        for (const std::string& sLine : m_host.Lines()) {
            EXPECT_TRUE(sLine.starts_with(sStart)) << sLine;
            vLines.push_back(sLine.substr(sStart.length()));
        }
        m_host.Clear();
        return WithoutFigures(vLines);
    }

    void ExpectGoodRun(const SelfTestRun& run)
    {
        m_client.RunTestMode(m_folder.Path().c_str(), run.iFileSize);
        EXPECT_EQ(Join(TakeLines()), Join(GetGoodRun(m_folder.Path(), run)));
        ExpectNothingLeft();
    }

    CLogRecorder m_serverHost;
    CMeddlingHost m_host;
    CLogRecorder m_otherHost;
    CNfsIpcServerMain m_server{"svr", 0};
    CNfsIpcClientMain m_client{"cli", 0};
    CNfsIpcClientMain m_other{"other", 0};

private:
    static void Begin(CNfsMain* pMain)
    {
        char cReason[REASON_SIZE] = "";
        ASSERT_TRUE(pMain->Initial(cReason)) << cReason;
        ASSERT_TRUE(pMain->StartRemoteController(cReason)) << cReason;
    }
};

INSTANTIATE_TEST_SUITE_P(Modes, SelfTestOption, testing::Values("int", "svr", "cli"));

}  // namespace

// ---- The option ----

TEST_P(SelfTestOption, Run_IsAllThatIsPrinted)
{
    const Outcome outcome = RunWith(Arguments(m_folder.Path() + "=10000"));
    EXPECT_EQ(outcome.iStatus, 0);
    EXPECT_EQ(MaskPrinted(outcome.sOutput), Greeting() + GetPrintedRun(m_folder.Path(), ID()));
    ExpectNothingLeft();
}

TEST_P(SelfTestOption, BigFile_HasItsSize)
{
    const Outcome outcome = RunWith(Arguments(m_folder.Path() + "=5368709120"));
    EXPECT_EQ(MaskPrinted(outcome.sOutput),
              Greeting() + GetPrintedRun(m_folder.Path(), ID(), RUNS[5]));
}

TEST_P(SelfTestOption, NoSize_IsPrinted)
{
    for (const char* pcSize : {"=", "=0", "=-1", "=x"}) {
        EXPECT_EQ(RunWith(Arguments(m_folder.Path() + pcSize)),
                  (Outcome{0, Greeting() + GetPrintedRefusal("File size is ZERO", ID())}));
    }
    ExpectNothingLeft();
}

TEST_P(SelfTestOption, MissingTarget_IsPrinted)
{
    EXPECT_EQ(RunWith(Arguments("/no/such=1")),
              (Outcome{0, Greeting() +
                              GetPrintedRefusal("Target directory \"/no/such\" not exist", ID())}));
}

TEST_P(SelfTestOption, ExistingTestFolder_IsPrinted)
{
    const std::string sFolder = m_folder.Path("_test");
    std::filesystem::create_directory(sFolder);
    EXPECT_EQ(
        RunWith(Arguments(m_folder.Path() + "=1")),
        (Outcome{0, Greeting() + GetPrintedRefusal(
                                     "Test directory \"" + sFolder + "\" already exist", ID())}));
    EXPECT_TRUE(std::filesystem::is_directory(sFolder));
}

TEST_F(SelfTestFronts, Option_WithAnID_PrintsUnderIt)
{
    const Outcome outcome =
        RunWith({"-md", "int", "-id", "mine", "-test", m_folder.Path() + "=1000"});
    EXPECT_EQ(MaskPrinted(outcome.sOutput),
              VERSION_BLOCK + GetPrintedRun(m_folder.Path(), "mine", SMALL_RUN));
}

// ---- The command ----

TEST_P(SelfTestOption, Command_PrintsTheRunAndPromptsAgain)
{
    CConsole console({"-md", GetParam()});
    console.Type("debug");
    const std::string sOutput = console.Type("test " + m_folder.Path() + "=1000");
    EXPECT_EQ(MaskPrinted(sOutput), GetPrintedRun(m_folder.Path(), "cRun", SMALL_RUN));
    EXPECT_EQ(console.Type("test /no/such=1"),
              GetPrintedRefusal("Target directory \"/no/such\" not exist", "cRun"));
    EXPECT_EQ(console.Type("test " + m_folder.Path() + "="),
              GetPrintedRefusal("File size is ZERO", "cRun"));
    console.ExpectQuit();
    ExpectNothingLeft();
}

TEST_F(SelfTestFronts, Command_WhileTheServerRuns_LeavesItRunning)
{
    CConsole console;
    console.Type("debug");
    EXPECT_EQ(console.Type("start"), "Start NFS success");
    EXPECT_EQ(console.Type("mount " + m_folder.Path() + "=vm1"), "");
    const std::string sOutput = console.Type("test " + m_folder.Path() + "=10000");
    EXPECT_EQ(MaskPrinted(sOutput), GetPrintedRun(m_folder.Path(), "cRun"));
    EXPECT_EQ(MountStatus("vm1"), 0U);
    console.ExpectQuit();
}

// ---- A client of a server process ----

TEST_F(SelfTestOverIpc, Run_IsTheServersAndItsLinesComeToTheClient)
{
    for (const SelfTestRun& run : RUNS)
        ExpectGoodRun(run);
    EXPECT_EQ(m_otherHost.Lines(), Lines{});
    EXPECT_EQ(m_serverHost.Count("START TEST"), std::size(RUNS));
}

TEST_F(SelfTestOverIpc, NoTarget_IsSaidByTheClientItself)
{
    m_client.RunTestMode(nullptr, 1000);
    EXPECT_EQ(TakeLines("cli"),
              Lines{"Cannot start platrorm test. Error=Target directory is NULL"});
    CNfsMain* pBase = &m_client;
    pBase->RunTestMode(nullptr, m_folder.Path().c_str(), 1000);
    pBase->RunTestMode(nullptr, nullptr, 1000);
    EXPECT_EQ(TakeLines(), Lines{});
    EXPECT_EQ(m_serverHost.Lines(), Lines{});
}

TEST_F(SelfTestOverIpc, WhatCannotStart_IsSaidByTheServer)
{
    m_client.RunTestMode("/no/such", 1000);
    m_client.RunTestMode("", 1000);
    m_client.RunTestMode(m_folder.Path().c_str(), 0);
    m_client.RunTestMode(m_folder.Path().c_str(), -5);
    EXPECT_EQ(TakeLines(),
              (Lines{"Cannot start platrorm test. Error=Target directory \"/no/such\" not exist",
                     "Cannot start platrorm test. Error=Target directory \"\" not exist",
                     "Cannot start platrorm test. Error=File size is ZERO",
                     "Cannot start platrorm test. Error=File size is ZERO"}));
}

TEST_F(SelfTestOverIpc, TargetThatVanishes_LeavesTheServerHealthy)
{
    const std::string sTarget = m_folder.Path("target");
    std::filesystem::create_directory(sTarget);
    m_host.When("Shrink file", [&sTarget] { std::filesystem::remove_all(sTarget); });
    m_client.RunTestMode(sTarget.c_str(), 10000);
    const Lines vLines = TakeLines();
    ASSERT_EQ(vLines.size(), GetGoodRun(sTarget).size());
    EXPECT_EQ(vLines.back(), GetGoodRun(sTarget).back());
    EXPECT_EQ(vLines[vLines.size() - 2], "[FAIL] Remove directory \"" + sTarget +
                                             "/_test\". Error=No such file or directory (2)");
    ExpectGoodRun(USUAL_RUN);
}

TEST_F(SelfTestOverIpc, TwoClients_GetEachTheLinesOfTheirOwnRun)
{
    const std::string sTarget = m_folder.Path("target");
    std::filesystem::create_directory(sTarget);
    std::thread other([&] { m_other.RunTestMode(sTarget.c_str(), 1000); });
    m_client.RunTestMode(m_folder.Path().c_str(), 10000);
    other.join();
    EXPECT_EQ(Join(TakeLines()), Join(GetGoodRun(m_folder.Path())));
    EXPECT_EQ(m_otherHost.Lines().size(), GetGoodRun(sTarget).size());
    EXPECT_EQ(m_otherHost.Count("info|svr|"), m_otherHost.Lines().size());
    EXPECT_EQ(m_otherHost.Count("File seek to position 0"), 2U);
}
