// The password of a hypervisor host: it reaches the helper, and nothing else that anybody can read
// later.
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ConsoleFixture.h"
#include "FileLogger.h"
#include "HelperStandIn.h"
#include "IpcFixture.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"

namespace {

constexpr int LOG_EVERYTHING = 0x3FF;
constexpr char PASSWORD[] = "pa55-not-for-the-log";
const std::string RUN = HelperRun("d1", "esx", "443", "root", PASSWORD);

void ExpectAbsent(const std::string& sText)
{
    EXPECT_NE(sText, "") << "There is nothing that it could be in";
    EXPECT_EQ(sText.find("pa55"), std::string::npos) << sText;
}

void ExpectAbsent(const CLogRecorder& recorder)
{
    EXPECT_NE(recorder.Lines(), Lines{});
    EXPECT_FALSE(recorder.Contains("pa55"));
}

class VSpherePassword : public testing::Test {
protected:
    // A datastore's whole life but for its end, and one that is too long to be removed.
    static void AddAndList(CNfsMain* pMain)
    {
        pMain->AddVSphereInfo("d1", "esx", "443", "root", PASSWORD);
        pMain->AddVSphereInfo("d2", "esx", "443", "root", PASSWORD);
        pMain->RemoveVSphereInfo("d2");
        EXPECT_EQ(pMain->GetVSphereInfo(true), 1);
    }
    static void StartAndStop(CNfsMain* pMain)
    {
        char cReason[REASON_SIZE] = "";
        EXPECT_TRUE(pMain->Initial(cReason)) << cReason;
        EXPECT_TRUE(pMain->StartServer(0, 0, 0, 0, false, cReason)) << cReason;
        AddAndList(pMain);
        const std::string sLong = PASSWORD + std::string(2000, 'x');
        pMain->AddVSphereInfo("d3", "esx", "443", "root", sLong.c_str());
        pMain->StopServer();
        pMain->Terminate();
    }

    CHelperStandIn m_helper;
};

// The console program beside a helper of its own, and all that it prints.
class CPasswordConsole : public CChildProcess {
public:
    CPasswordConsole(const std::string& sProgram, Words vArguments)
        : CChildProcess(Prepend(sProgram, std::move(vArguments)))
    {
        m_sOutput = ReadUntil(PROMPT);
        Type("debug");
    }

    void Type(const std::string& sLine)
    {
        Write(sLine + "\n");
        m_sOutput += ReadUntil(PROMPT);
    }

    // Everything from its start to its end.
    std::string Quit()
    {
        Write("quit\n");
        m_sOutput += ReadToEnd();
        EXPECT_EQ(WaitForExit(), 0);
        return m_sOutput;
    }

private:
    static Words Prepend(const std::string& sProgram, Words vArguments)
    {
        vArguments.insert(vArguments.begin(), sProgram);
        return vArguments;
    }

    std::string m_sOutput;
};

class VSpherePasswordConsole : public VSpherePassword {
protected:
    void SetUp() override { std::filesystem::create_symlink(CONSOLE_PROGRAM, m_sProgram); }

    const std::string m_sProgram = m_helper.Folder().Path("stagenfs");
    const std::string m_sAdd = std::string("addvsphereinfo d1 esx 443 root ") + PASSWORD;
};

}  // namespace

// ---- Through the controllers ----

TEST_F(VSpherePassword, Host_IsNotToldIt)
{
    CLogRecorder recorder;
    CNfsMain main("host", LOG_EVERYTHING);
    main.SetCallback(&recorder);
    StartAndStop(&main);
    ExpectAbsent(recorder);
    EXPECT_EQ(m_helper.Record(), Lines{RUN});
}

TEST_F(VSpherePassword, LogFile_IsWrittenWithoutIt)
{
    CFileLogger logger(m_helper.Folder().Path("log").c_str());
    ASSERT_TRUE(logger.Open(0));
    CNfsMain main("host", LOG_EVERYTHING);
    main.SetFileLogger(&logger);
    StartAndStop(&main);
    ExpectAbsent(ReadWholeFile(m_helper.Folder().Path("log")));
    EXPECT_EQ(m_helper.Record(), Lines{RUN});
}

TEST_F(VSpherePassword, StandardOutput_IsWrittenWithoutIt)
{
    CNfsMain main("host", LOG_EVERYTHING);
    testing::internal::CaptureStdout();
    StartAndStop(&main);
    ExpectAbsent(testing::internal::GetCapturedStdout());
    EXPECT_EQ(m_helper.Record(), Lines{RUN});
}

TEST_F(VSpherePassword, Channel_BothEndsTraceItWithoutIt)
{
    CLogRecorder serverHost;
    CLogRecorder clientHost;
    CNfsIpcServerMain server("svr", LOG_EVERYTHING);
    CNfsIpcClientMain client("cli", LOG_EVERYTHING);
    server.SetCallback(&serverHost);
    client.SetCallback(&clientHost);
    char cReason[REASON_SIZE] = "";
    ASSERT_TRUE(server.StartRemoteController(cReason)) << cReason;
    ASSERT_TRUE(client.StartRemoteController(cReason)) << cReason;
    AddAndList(&client);
    server.StopServer();
    client.StopRemoteController();
    server.StopRemoteController();
    ExpectAbsent(serverHost);
    ExpectAbsent(clientHost);
    EXPECT_TRUE(serverHost.Contains("Request action group (type = 26"));
    EXPECT_TRUE(clientHost.Contains("Request action group (type = 26"));
    EXPECT_EQ(m_helper.Record(), Lines{RUN});
}

// ---- Through the console ----

TEST_F(VSpherePasswordConsole, InternalServer_PrintsAllWithoutIt)
{
    CPasswordConsole console(m_sProgram, {"-md", "int", "-log", "1023"});
    console.Type("start");
    console.Type(m_sAdd);
    console.Type("status");
    ExpectAbsent(console.Quit());
    EXPECT_EQ(m_helper.Record(), Lines{RUN});
}

TEST_F(VSpherePasswordConsole, LogFile_IsWrittenWithoutIt)
{
    const std::string sLog = m_helper.Folder().Path("log");
    CPasswordConsole console(m_sProgram, {"-md", "int", "-log", "1023", "-logfile", sLog});
    console.Type("start");
    console.Type(m_sAdd);
    console.Type("status");
    ExpectAbsent(console.Quit());
    ExpectAbsent(ReadWholeFile(sLog));
    EXPECT_EQ(m_helper.Record(), Lines{RUN});
}

TEST_F(VSpherePasswordConsole, ServerAndClient_PrintAllWithoutIt)
{
    CPasswordConsole server(m_sProgram, {"-md", "svr", "-log", "1023"});
    CPasswordConsole client(m_sProgram, {"-md", "cli", "-log", "1023"});
    client.Type("start");
    client.Type(m_sAdd);
    client.Type("status");
    ExpectAbsent(client.Quit());
    EXPECT_EQ(m_helper.Record(), Lines{});
    ExpectAbsent(server.Quit());
    EXPECT_EQ(m_helper.Record(), Lines{RUN});
}

// ---- In the channel's buffer ----

namespace {

constexpr int ADD_DATASTORE = 26;

class VSpherePasswordBuffer : public CIpcServerFixture<CNfsIpcServerMain> {
protected:
    VSpherePasswordBuffer() : CIpcServerFixture(0) {}
    void SetUp() override { Open(); }

    static std::string Message(const std::string& sMoid)
    {
        return Request(ADD_DATASTORE) + Field(sMoid, TEXT_FIELD) + Field("esx", TEXT_FIELD) +
               Field("443", TEXT_FIELD) + Field("root", TEXT_FIELD);
    }

    CHelperStandIn m_helper;
};

}  // namespace

// What a message does not bring is what the last one left in the buffer.
TEST_F(VSpherePasswordBuffer, NextMessage_DoesNotFindIt)
{
    const std::string sFull(TEXT_FIELD - 1, 'p');
    for (const std::string& sPwd : {std::string(PASSWORD), sFull}) {
        EXPECT_TRUE(SameReply(Ask(Message("d1") + Field(sPwd, TEXT_FIELD)), BoolReply(true)));
        EXPECT_TRUE(SameReply(Ask(Message("d2")), BoolReply(true)));
        m_main.StopServer();
    }
    const std::string sNone = "run [-host] [esx] [-port] [443] [-user] [root] [-pwd] [-method] "
                              "[removeDatastore] [-argu] [d2]";
    EXPECT_EQ(m_helper.Record(),
              (Lines{RUN, sNone, HelperRun("d1", "esx", "443", "root", sFull), sNone}));
}
