// What a host may do while it is being told something, and what it may leave out.
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "LogRecorder.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "NfsMain.h"
#include "RedirectedFile.h"
#include "RelayPeer.h"
#include "RuntimeParam.h"
#include "TestEnvironment.h"
#include "Text.h"
#include "Utilities.h"

using Lines = std::vector<std::string>;

namespace {

// Does something once, at the next thing that it is told.
class CActingHost : public CLogRecorder {
public:
    void SetAction(std::function<void()> action) { m_Action = std::move(action); }

    bool LogInfo(const char* pcID, const char* pcMessage) override
    {
        CLogRecorder::LogInfo(pcID, pcMessage);
        Act();
        return true;
    }
    bool LogError(const char* pcID, const char* pcMessage) override
    {
        CLogRecorder::LogError(pcID, pcMessage);
        Act();
        return true;
    }
    bool LogRaw(const char* pcID, const char* pcMessage) override
    {
        CLogRecorder::LogRaw(pcID, pcMessage);
        Act();
        return true;
    }
    int UpdateRedirectedFileAttributes(const char*, const char*, bool, unsigned long long, bool,
                                       unsigned long, bool, unsigned long) override
    {
        Act();
        return 0;
    }
    int RemoveRedirectedFile(const char*, const char*) override
    {
        Act();
        return 0;
    }
    int RenameRedirectedFile(const char*, const char*, const char*) override
    {
        Act();
        return 0;
    }
    int WriteRedirectedFile(const char*, const char*, unsigned long long, int,
                            unsigned int) override
    {
        Act();
        return 0;
    }
    bool IsInterrupted() override
    {
        Act();
        return m_bInterrupted;
    }

    void SetInterrupted() { m_bInterrupted = true; }

private:
    void Act()
    {
        EXPECT_TRUE(CUtilities::IsInsideCallback());
        const std::function<void()> action = std::exchange(m_Action, {});
        if (action)
            action();
    }

    std::function<void()> m_Action;
    bool m_bInterrupted = false;
};

enum Mode {
    INTERNAL,
    SERVER,
    CLIENT,
};

std::unique_ptr<CNfsMain> MakeMain(int iMode, const char* pcID, int iLogControl)
{
    if (iMode == INTERNAL)
        return std::make_unique<CNfsMain>(pcID, iLogControl);
    if (iMode == SERVER)
        return std::make_unique<CNfsIpcServerMain>(pcID, iLogControl);
    return std::make_unique<CNfsIpcClientMain>(pcID, iLogControl);
}

class NfsMainCallback : public testing::Test {
protected:
    void Make(int iMode, int iLogControl = LOG_CONTROL_ERROR)
    {
        m_pMain = MakeMain(iMode, "host", iLogControl);
        m_pMain->SetCallback(&m_Host);
    }

    void TearDown() override
    {
        if (m_pMain == nullptr)
            return;
        m_pMain->StopRemoteController();
        m_pMain->StopServer();
        m_pMain->SetCallback(nullptr);
    }

    // The ways in which a host is called.
    std::vector<std::function<void()>> Ways()
    {
        CUtilities* pUtilities = m_pMain->GetUtils();
        CRuntimeParam* pParam = m_pMain->GetRuntimeParam();
        return {
            [=] { pUtilities->LogInfo(pParam, "%s", "line"); },
            [=] { pUtilities->LogError(pParam, "%s", "line"); },
            [=] { pUtilities->LogRaw(pParam, "%s", "line"); },
            [=] {
                pUtilities->LogUpdateRedirectedFileAttributes(pParam, "/f", false, 0, false, 0,
                                                              false, 0);
            },
            [=] { pUtilities->LogRemoveRedirectedFile(pParam, "/f"); },
            [=] { pUtilities->LogRenameRedirectedFile(pParam, "/f", "/g"); },
            [=] { pUtilities->LogWriteRedirectedFile(pParam, "/f", 0, 0, 1); },
            [=] { pUtilities->IsInterrupted(); },
        };
    }

    // Runs the action inside a call of the host; the lines that it leaves.
    Lines RunInside(const std::function<void()>& way, const std::function<void()>& action)
    {
        bool bDone = false;
        m_Host.Clear();
        m_Host.SetAction([&] {
            m_Host.Clear();
            action();
            bDone = true;
        });
        relay::ExpectReturns("the call of the host", way);
        EXPECT_TRUE(bDone);
        EXPECT_FALSE(CUtilities::IsInsideCallback());
        return m_Host.Lines();
    }

    bool Start() { return m_pMain->StartServer(0, 0, 0, 0, false, m_cReason); }

    CActingHost m_Host;
    std::unique_ptr<CNfsMain> m_pMain;
    char m_cReason[REASON_SIZE] = "";
};

}  // namespace

// ---- Starting and stopping from a callback ----

TEST_F(NfsMainCallback, StartServer_InsideAnyCallback_IsRefused)
{
    for (const int iMode : {INTERNAL, SERVER}) {
        Make(iMode);
        for (const auto& way : Ways()) {
            m_cReason[0] = '\0';
            EXPECT_EQ(RunInside(way, [this] { EXPECT_FALSE(Start()); }),
                      Lines{"error|host|[NfsMain.StartServer] Cannot be called from a callback."});
            EXPECT_STREQ(m_cReason, "NFS cannot be started from a callback");
            EXPECT_FALSE(m_pMain->IsServerRunning());
        }
        EXPECT_TRUE(Start()) << m_cReason;  // outside, it may
        m_pMain->StopServer();
    }
}

TEST_F(NfsMainCallback, StartServer_InsideWithoutReasonBuffer_IsRefused)
{
    Make(INTERNAL);
    RunInside(Ways()[0],
              [this] { EXPECT_FALSE(m_pMain->StartServer(0, 0, 0, 0, false, nullptr)); });
    EXPECT_FALSE(m_pMain->IsServerRunning());
}

TEST_F(NfsMainCallback, StopServer_InsideAnyCallback_IsRefused)
{
    for (const int iMode : {INTERNAL, SERVER}) {
        Make(iMode);
        ASSERT_TRUE(Start()) << m_cReason;
        m_pMain->AddSessionInfo("s1", "/x");
        for (const auto& way : Ways()) {
            EXPECT_EQ(RunInside(way, [this] { m_pMain->StopServer(); }),
                      Lines{"error|host|[NfsMain.StopServer] Cannot be called from a callback."});
            EXPECT_TRUE(m_pMain->IsServerRunning());
            EXPECT_TRUE(m_pMain->IsSessionExists("s1"));  // nothing of it was done
        }
        m_pMain->StopServer();
        EXPECT_FALSE(m_pMain->IsServerRunning());
    }
}

TEST_F(NfsMainCallback, RemoteController_InsideAnyCallback_IsRefused)
{
    for (const int iMode : {SERVER, CLIENT}) {
        Make(iMode);
        const std::string sChannel = iMode == SERVER ? "/tmp/nfs-server" : "/tmp/nfs-host";
        for (const auto& way : Ways()) {
            m_cReason[0] = '\0';
            EXPECT_EQ(
                RunInside(way, [this] { EXPECT_FALSE(m_pMain->StartRemoteController(m_cReason)); }),
                Lines{"error|host|[NfsIpcServerMain.StartRemoteController] Cannot be called from a "
                      "callback."});
            EXPECT_STREQ(m_cReason, "Remote controller cannot be started from a callback");
            EXPECT_NE(access(sChannel.c_str(), F_OK), 0);
        }
        ASSERT_TRUE(m_pMain->StartRemoteController(m_cReason)) << m_cReason;
        for (const auto& way : Ways()) {
            EXPECT_EQ(RunInside(way, [this] { m_pMain->StopRemoteController(); }),
                      Lines{"error|host|[NfsIpcServerMain.StopRemoteController] Cannot be called "
                            "from a callback."});
            EXPECT_EQ(access(sChannel.c_str(), F_OK), 0);
        }
        m_pMain->StopRemoteController();
        EXPECT_NE(access(sChannel.c_str(), F_OK), 0);
    }
}

// The thread that would have to wait for itself.
TEST_F(NfsMainCallback, StopRemoteController_FromTheChannelsOwnThread_IsRefused)
{
    Make(CLIENT);
    ASSERT_TRUE(m_pMain->StartRemoteController(m_cReason)) << m_cReason;
    m_Host.SetAction([this] { m_pMain->StopRemoteController(); });
    relay::ExpectReturns("the exchange", [] {
        EXPECT_TRUE(SameMessage(
            relay::Ask("/tmp/nfs-host", relay::Line("svr", "line", relay::INFO)), BoolReply(true)));
    });
    const Lines vWanted = {"info|svr|line", "error|host|[NfsIpcServerMain.StopRemoteController] "
                                            "Cannot be called from a callback."};
    EXPECT_EQ(m_Host.Lines(), vWanted);
    EXPECT_TRUE(SameMessage(relay::Ask("/tmp/nfs-host", relay::Line("svr", "next", relay::INFO)),
                            BoolReply(true)));
}

TEST_F(NfsMainCallback, Refusal_ErrorsNotWanted_LeavesNoLine)
{
    Make(SERVER, 0x3FF & ~LOG_CONTROL_ERROR);
    EXPECT_EQ(RunInside(Ways()[0],
                        [this] {
                            EXPECT_FALSE(Start());
                            m_pMain->StopServer();
                            EXPECT_FALSE(m_pMain->StartRemoteController(nullptr));
                            m_pMain->StopRemoteController();
                        }),
              Lines{});
}

TEST_F(NfsMainCallback, RemoteController_InternalModeInside_SaysWhatItAlwaysSays)
{
    Make(INTERNAL, LOG_CONTROL_GENERAL_INFO);
    const Lines vLines = RunInside(Ways()[0], [this] {
        EXPECT_TRUE(m_pMain->StartRemoteController(m_cReason));
        m_pMain->StopRemoteController();
    });
    EXPECT_EQ(vLines.size(), 2U);
    EXPECT_FALSE(m_Host.Contains("callback"));
}

// Another process starts; that one only says that it cannot stop it.
TEST_F(NfsMainCallback, StartAndStopServer_ClientModeInside_AreWhatTheyAlwaysAre)
{
    CNfsIpcServerMain server("svr", 0);
    ASSERT_TRUE(server.StartRemoteController(m_cReason)) << m_cReason;
    Make(CLIENT, LOG_CONTROL_ERROR | LOG_CONTROL_GENERAL_INFO);
    EXPECT_EQ(RunInside(Ways()[0], [this] { EXPECT_TRUE(Start()) << m_cReason; }), Lines{});
    EXPECT_TRUE(server.IsServerRunning());
    EXPECT_EQ(RunInside(Ways()[0], [this] { m_pMain->StopServer(); }),
              Lines{"info|host|[NfsIpcClientMain.StopServer] Cannot stop NFS service in client "
                    "mode."});
    EXPECT_TRUE(server.IsServerRunning());
    server.StopRemoteController();
    server.StopServer();
}

TEST_F(NfsMainCallback, IsInsideCallback_OtherThread_IsNot)
{
    Make(INTERNAL);
    RunInside(Ways()[0], [] {
        std::thread([] { EXPECT_FALSE(CUtilities::IsInsideCallback()); }).join();
        EXPECT_TRUE(CUtilities::IsInsideCallback());
    });
}

// A call inside a call: the inner one's end is not the outer one's.
TEST_F(NfsMainCallback, StopServer_AfterAnInnerCallback_IsStillRefused)
{
    Make(INTERNAL);
    ASSERT_TRUE(Start()) << m_cReason;
    RunInside(Ways()[6], [this] {
        m_pMain->GetUtils()->LogInfo(m_pMain->GetRuntimeParam(), "%s", "inner");
        m_pMain->StopServer();
    });
    EXPECT_TRUE(m_pMain->IsServerRunning());
}

// ---- Calls inside calls ----

namespace {

// Stops the server at every line about an error, also at the one that this is refused with.
class CStubbornHost : public CLogRecorder {
public:
    explicit CStubbornHost(CNfsMain* pMain) : m_pMain(pMain) {}

    bool LogError(const char* pcID, const char* pcMessage) override
    {
        CLogRecorder::LogError(pcID, pcMessage);
        m_pMain->StopServer();
        return true;
    }

private:
    CNfsMain* m_pMain;
};

constexpr size_t MAX_HOST_CALLS = 16;

}  // namespace

TEST_F(NfsMainCallback, StopServer_FromEveryErrorLine_EndsByItself)
{
    Make(INTERNAL);
    ASSERT_TRUE(Start()) << m_cReason;
    CStubbornHost host(m_pMain.get());
    m_pMain->SetCallback(&host);
    const std::string sRefusal = "[NfsMain.StopServer] Cannot be called from a callback.";
    for (int i = 0; i < 2; i++) {  // the second time is like the first
        host.Clear();
        testing::internal::CaptureStdout();
        relay::ExpectReturns("the line", Ways()[1]);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "[erro] (host) " + sRefusal + "\n");
        Lines vWanted(MAX_HOST_CALLS, "error|host|" + sRefusal);
        vWanted[0] = "error|host|line";
        EXPECT_EQ(host.Lines(), vWanted);
        EXPECT_TRUE(m_pMain->IsServerRunning());
    }
}

TEST_F(NfsMainCallback, IsInterrupted_IsTheHostsAnswer)
{
    Make(INTERNAL);
    EXPECT_FALSE(m_pMain->GetUtils()->IsInterrupted());
    m_Host.SetInterrupted();
    EXPECT_TRUE(m_pMain->GetUtils()->IsInterrupted());
    m_pMain->SetCallback(nullptr);
    EXPECT_FALSE(m_pMain->GetUtils()->IsInterrupted());
}

// ---- Null arguments ----

namespace {

class NfsMainNull : public NfsMainCallback, public testing::WithParamInterface<int> {
protected:
    // In client mode a server answers, whose tables are looked at.
    void SetUp() override
    {
        Make(GetParam());
        m_pOwner = m_pMain.get();
        if (GetParam() != CLIENT)
            return;
        m_pServer = std::make_unique<CNfsIpcServerMain>("svr", LOG_CONTROL_ERROR);
        m_pServer->SetCallback(&m_Host);
        ASSERT_TRUE(m_pServer->StartRemoteController(m_cReason)) << m_cReason;
        m_pOwner = m_pServer.get();
    }

    void TearDown() override
    {
        if (m_pServer != nullptr) {
            m_pServer->StopRemoteController();
            m_pServer->StopServer();
            m_pServer->SetCallback(nullptr);
        }
        NfsMainCallback::TearDown();
    }

    CScratchFolder m_Folder;
    std::unique_ptr<CNfsIpcServerMain> m_pServer;
    CNfsMain* m_pOwner = nullptr;  // of the tables
};

std::string GetModeName(const testing::TestParamInfo<int>& info)
{
    const char* const pcNames[] = {"Internal", "Server", "Client"};
    return pcNames[info.param];
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Modes, NfsMainNull, testing::Values(INTERNAL, SERVER, CLIENT),
                         GetModeName);

TEST_P(NfsMainNull, NoID_InitialFails)
{
    const auto pMain = MakeMain(GetParam(), nullptr, 0);
    EXPECT_FALSE(pMain->Initial(m_cReason));
    EXPECT_STREQ(m_cReason, "ID is not defined");
    EXPECT_FALSE(pMain->Initial(nullptr));
    EXPECT_TRUE(m_pMain->Initial(nullptr));
    m_pMain->Terminate();
}

TEST_P(NfsMainNull, AddMountPoint_NoFolder_IsRefused)
{
    for (const char* pcFolder : {static_cast<const char*>(nullptr), ""}) {
        m_cReason[0] = '\0';
        EXPECT_FALSE(m_pMain->AddMountPoint(pcFolder, "vm1", m_cReason));
        EXPECT_STREQ(m_cReason, "Local mount folder is not defined");
        EXPECT_FALSE(m_pMain->AddMountPoint(pcFolder, "vm1", nullptr));
        EXPECT_FALSE(m_pMain->AddMountPoint(pcFolder, nullptr, m_cReason));
        EXPECT_STREQ(m_cReason, "Local mount folder is not defined");
        EXPECT_FALSE(m_pMain->AddMountPoint(pcFolder, "vm1", "a", m_cReason));
    }
    EXPECT_EQ(m_pOwner->GetMountInfo(false, false), 0);
    EXPECT_EQ(m_pMain->GetMountInfo(false, false), 0);
}

TEST_P(NfsMainNull, AddMountPoint_NoName_IsRefused)
{
    EXPECT_FALSE(m_pMain->AddMountPoint(m_Folder.Path().c_str(), nullptr, m_cReason));
    EXPECT_STREQ(m_cReason, "Export name is not defined");
    EXPECT_FALSE(m_pMain->AddMountPoint(m_Folder.Path().c_str(), nullptr, nullptr));
    EXPECT_FALSE(m_pMain->AddMountPoint(m_Folder.Path().c_str(), nullptr, "a", m_cReason));
    EXPECT_EQ(m_pOwner->GetMountInfo(false, false), 0);
    EXPECT_EQ(m_pMain->GetMountInfo(false, false), 0);
}

TEST_P(NfsMainNull, AddMountPoint_NoIpcIDOrReason_Succeeds)
{
    CNfsMain* pBase = m_pMain.get();
    EXPECT_TRUE(pBase->AddMountPoint(m_Folder.Path().c_str(), "vm1", nullptr, nullptr));
    EXPECT_FALSE(m_pMain->AddMountPoint(m_Folder.Path().c_str(), "a b", nullptr));
}

TEST_P(NfsMainNull, Everything_WithNothingToBeAbout_DoesNothing)
{
    const std::string sFile = m_Folder.Write("file", "contents");
    EXPECT_TRUE(m_pMain->AddMountPoint(m_Folder.Path().c_str(), "vm1", m_cReason));
    m_pMain->AddSessionInfo("s1", "/x");
    m_pMain->AddVSphereInfo("d1", "h", "1", "u", "p");
    m_pMain->OpenRedirectedFile(sFile.c_str(), 10, false, 0, 0);
    m_Host.Clear();

    m_pMain->RemoveMountPoint(nullptr);
    m_pMain->AddSessionInfo(nullptr, "/y");
    m_pMain->RemoveSessionInfo(nullptr);
    EXPECT_FALSE(m_pMain->IsSessionExists(nullptr));
    EXPECT_FALSE(m_pMain->IsLocalSessionExists(nullptr));
    m_pMain->OpenRedirectedFile(nullptr, 1, true, 1, 1);
    m_pMain->CloseRedirectedFile(nullptr);
    m_pMain->CloseAllRedirectedFiles(nullptr);
    m_pMain->ExportRedirectedFile(nullptr, sFile.c_str());
    m_pMain->ExportRedirectedFile(sFile.c_str(), nullptr);
    m_pMain->ExportRedirectedFile(nullptr, nullptr);
    m_pMain->ExportRedirectedFileInfo(nullptr, sFile.c_str(), true);
    m_pMain->ExportRedirectedFileInfo(sFile.c_str(), nullptr, true);
    m_pMain->ExportRedirectedFileInfo(nullptr, nullptr, true);
    m_pMain->CloseCachedFileHandle(nullptr);
    m_pMain->CloseAllCachedFileHandles(nullptr);
    m_pMain->RunTestMode(nullptr, sFile.c_str(), 1);
    m_pMain->AddVSphereInfo(nullptr, "h", "1", "u", "p");
    m_pMain->RemoveVSphereInfo(nullptr);

    EXPECT_EQ(m_Host.Lines(), Lines{});
    m_pMain->RunTestMode(nullptr, 1);
    EXPECT_TRUE(m_Host.Contains("Error=Target directory is NULL"));
    EXPECT_EQ(m_pOwner->GetMountInfo(false, false), 1);
    EXPECT_EQ(m_pOwner->GetSessionInfo(false), 1);
    EXPECT_EQ(m_pOwner->GetVSphereInfo(false), 1);
    EXPECT_NE(m_pOwner->GetUtils()->GetRedirectedFile(sFile.c_str()), nullptr);
    EXPECT_EQ(ReadWholeFile(sFile), "contents");
}

TEST_P(NfsMainNull, AddRedirectedFileSegment_NoPath_IsRefused)
{
    EXPECT_FALSE(m_pMain->AddRedirectedFileSegment(nullptr, "/source", 0, 0, 1, m_cReason));
    EXPECT_STREQ(m_cReason, "Path is not defined");
    EXPECT_FALSE(m_pMain->AddRedirectedFileSegment(nullptr, "/source", 0, 0, 1, nullptr));
}

// No source means zeros.
TEST_P(NfsMainNull, AddRedirectedFileSegment_NoSource_IsZeros)
{
    const std::string sFile = m_Folder.Write("file", "");
    m_pMain->OpenRedirectedFile(sFile.c_str(), 4, false, 0, 0);
    EXPECT_TRUE(m_pMain->AddRedirectedFileSegment(sFile.c_str(), nullptr, 0, 0, 4, nullptr));
    char cBuffer[4] = {'x', 'x', 'x', 'x'};
    bool bEof = false;
    const auto pFile = m_pOwner->GetUtils()->GetRedirectedFile(sFile.c_str());
    ASSERT_NE(pFile, nullptr);
    EXPECT_EQ(pFile->Read(m_pOwner->GetRuntimeParam(), 0, cBuffer, 4, &bEof), 4);
    EXPECT_EQ(std::string(cBuffer, 4), std::string(4, '\0'));
}

TEST_P(NfsMainNull, SessionsAndDatastores_NoOtherTexts_AreEmptyTexts)
{
    m_pMain->AddSessionInfo("s1", nullptr);
    EXPECT_TRUE(m_pMain->IsSessionExists("s1"));
    m_pMain->AddVSphereInfo("d1", nullptr, nullptr, nullptr, nullptr);
    m_Host.Clear();
    EXPECT_EQ(m_pOwner->GetSessionInfo(true), 1);
    EXPECT_EQ(m_pOwner->GetVSphereInfo(true), 1);
    EXPECT_TRUE(m_Host.Contains(" session1 - s1 : "));
    EXPECT_TRUE(m_Host.Contains(" NFS datastore1 - d1 (:)"));
}

TEST_P(NfsMainNull, StartAndControllers_NoReason_FailQuietly)
{
    ASSERT_TRUE(m_pMain->StartServer(0, 0, 0, 0, false, nullptr));
    EXPECT_FALSE(m_pMain->StartServer(0, 0, 0, 0, false, nullptr));
    EXPECT_TRUE(m_pMain->StartRemoteController(nullptr));
}

TEST_P(NfsMainNull, Callback_None_LinesGoElsewhere)
{
    m_pMain->SetCallback(nullptr);
    EXPECT_EQ(m_pMain->GetCallback(), nullptr);
    testing::internal::CaptureStdout();
    m_pMain->GetUtils()->LogRaw(m_pMain->GetRuntimeParam(), "%s", "line");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "line\n");
}
