// What the controller of a client process sends, for each of its operations, and what it does not.
#include "NfsIpcClientMain.h"

#include <set>

#include <gtest/gtest.h>

#include "NfsIpcClientFixture.h"

namespace {

// An operation and all that it sends, once it knows whom it talks to.
struct Operation {
    const char* pcName;
    std::function<void(CNfsIpcClientMain&)> call;
    std::string sRequest;
    const char* pcUnknownTo = "";  // versions that are not asked; if there are any, they are told
};

class NfsIpcClientRequests : public CNfsIpcClientFixture {};

// The path of a message, the same in many.
std::string Path(const std::string& sPath)
{
    return Field(sPath, 1024);
}

std::string Text(const std::string& sText)
{
    return Field(sText, 256);
}

std::vector<Operation> MakeServerOperations()
{
    return {
        {"StartServer",
         [](CNfsIpcClientMain& main) {
             main.StartServer(1058, -2, 0xFFFFFFFE, 0x12345678, true, nullptr);
         },
         Request(4) + Int32(1058) + Int32(-2) + Int32(0xFFFFFFFE) + Int32(0x12345678) + Flag(1) +
             Pad(3)},
        {"GetVersion",
         [](CNfsIpcClientMain& main) {
             char cText[DESCRIPTION_SIZE];
             main.GetVersion(cText);
         },
         Request(1)},
        {"GetDescription",
         [](CNfsIpcClientMain& main) {
             char cText[DESCRIPTION_SIZE];
             main.GetDescription(cText);
         },
         Request(2)},
        {"IsServerRunning", [](CNfsIpcClientMain& main) { main.IsServerRunning(); }, Request(3)},
        {"SetLogControl", [](CNfsIpcClientMain& main) { main.SetLogControl(0x71234501); },
         Request(18) + Int32(0x71234501)},
        {"RequestAutoShutdown", [](CNfsIpcClientMain& main) { main.RequestAutoShutdown(); },
         Request(22)},
        {"GetServerStatus", [](CNfsIpcClientMain& main) { main.GetServerStatus(); }, Request(23),
         "1.0"},
        {"SetDebugActionEnabled", [](CNfsIpcClientMain& main) { main.SetDebugActionEnabled(true); },
         Request(24) + Flag(1) + Pad(3), "1.0"},
    };
}

std::vector<Operation> MakeExportOperations()
{
    return {
        {"AddMountPoint",
         [](CNfsIpcClientMain& main) { main.AddMountPoint("/folder", "name", nullptr); },
         Request(5) + Path("/folder") + Text("name") + Text("host")},
        {"RemoveMountPoint", [](CNfsIpcClientMain& main) { main.RemoveMountPoint("/folder"); },
         Request(6) + Path("/folder")},
        {"AddSessionInfo",
         [](CNfsIpcClientMain& main) { main.AddSessionInfo("session", "/folder"); },
         Request(7) + Text("session") + Path("/folder")},
        {"RemoveSessionInfo", [](CNfsIpcClientMain& main) { main.RemoveSessionInfo("session"); },
         Request(8) + Text("session")},
        {"IsSessionExists", [](CNfsIpcClientMain& main) { main.IsSessionExists("session"); },
         Request(9) + Text("session")},
        {"AddVSphereInfo",
         [](CNfsIpcClientMain& main) {
             main.AddVSphereInfo("datastore-1", "esx", "443", "root", "secret");
         },
         Request(26) + Text("datastore-1") + Text("esx") + Text("443") + Text("root") +
             Text("secret"),
         "1.0, 1.1"},
        {"RemoveVSphereInfo",
         [](CNfsIpcClientMain& main) { main.RemoveVSphereInfo("datastore-1"); },
         Request(27) + Text("datastore-1"), "1.0, 1.1"},
    };
}

std::vector<Operation> MakeFileOperations()
{
    return {
        {"OpenRedirectedFile",
         [](CNfsIpcClientMain& main) {
             main.OpenRedirectedFile("/file", 0x1122334455667788LL, true, -3, 0x01020304);
         },
         Request(10) + Path("/file") + Int64(0x1122334455667788LL) + Flag(1) + Pad(3) + Int32(-3) +
             Int32(0x01020304) + Pad(4)},
        {"CloseRedirectedFile", [](CNfsIpcClientMain& main) { main.CloseRedirectedFile("/file"); },
         Request(11) + Path("/file")},
        {"CloseAllRedirectedFiles",
         [](CNfsIpcClientMain& main) { main.CloseAllRedirectedFiles("/folder"); },
         Request(12) + Path("/folder")},
        {"AddRedirectedFileSegment",
         [](CNfsIpcClientMain& main) {
             main.AddRedirectedFileSegment("/file", "/source", 0x1111111122222222LL,
                                           0x3333333344444444LL, -5, nullptr);
         },
         Request(13) + Path("/file") + Path("/source") + Int64(0x1111111122222222LL) +
             Int64(0x3333333344444444LL) + Int64(-5)},
        {"ExportRedirectedFile",
         [](CNfsIpcClientMain& main) { main.ExportRedirectedFile("/file", "/target"); },
         Request(14) + Path("/file") + Path("/target")},
        {"ExportRedirectedFileInfo",
         [](CNfsIpcClientMain& main) { main.ExportRedirectedFileInfo("/file", "/target", true); },
         Request(15) + Path("/file") + Path("/target") + Flag(1) + Pad(3)},
        {"CloseCachedFileHandle",
         [](CNfsIpcClientMain& main) { main.CloseCachedFileHandle("/file"); },
         Request(16) + Path("/file")},
        {"CloseAllCachedFileHandles",
         [](CNfsIpcClientMain& main) { main.CloseAllCachedFileHandles("/folder"); },
         Request(17) + Path("/folder")},
    };
}

std::vector<Operation> MakeListingOperations(CRuntimeParam* pParam)
{
    return {
        {"GetMountInfo",
         [pParam](CNfsIpcClientMain& main) { main.GetMountInfo(pParam, true, false); },
         Request(19) + Text("caller") + Flag(1) + Flag(0) + Pad(2)},
        {"GetSessionInfo", [pParam](CNfsIpcClientMain& main) { main.GetSessionInfo(pParam, true); },
         Request(20) + Text("caller") + Flag(1) + Pad(3)},
        {"RunTestMode",
         [pParam](CNfsIpcClientMain& main) {
             main.RunTestMode(pParam, "/folder", 0x1122334455667788LL);
         },
         Request(21) + Text("caller") + Field("/folder", 3072) + Int64(0x1122334455667788LL)},
        {"GetVSphereInfo", [pParam](CNfsIpcClientMain& main) { main.GetVSphereInfo(pParam, true); },
         Request(25) + Text("caller") + Flag(1) + Pad(3), "1.0, 1.1"},
    };
}

std::vector<Operation> MakeOperations(CRuntimeParam* pParam)
{
    std::vector<Operation> vAll = MakeServerOperations();
    for (const std::vector<Operation>& vSome :
         {MakeExportOperations(), MakeFileOperations(), MakeListingOperations(pParam)})
        vAll.insert(vAll.end(), vSome.begin(), vSome.end());
    return vAll;
}

}  // namespace

// ---- Requests, whole: what means nothing is zero, so that nothing of this process leaks ----

TEST_F(NfsIpcClientRequests, Requests_AreTheBytesThatAServerExpects)
{
    Serve();
    std::set<int> types;
    for (const Operation& operation : MakeOperations(&m_param)) {
        SCOPED_TRACE(operation.pcName);
        Lines vWanted;
        if (operation.pcUnknownTo[0] != '\0')
            vWanted.push_back(Request(1));
        vWanted.push_back(operation.sRequest);
        const Lines vSent = Sent([&] { operation.call(*m_pMain); });
        ASSERT_EQ(vSent.size(), vWanted.size());
        for (size_t i = 0; i < vSent.size(); i++)
            EXPECT_TRUE(SameMessage(vSent[i], vWanted[i]));
        types.insert(operation.sRequest[4]);
    }
    EXPECT_EQ(types.size(), 27U);  // all that there are
}

TEST_F(NfsIpcClientRequests, Requests_FlagsThatAreNotSet)
{
    Serve();
    ExpectSent([&] { m_pMain->StartServer(0, 0, 0, 0, false, nullptr); }, Request(4) + Pad(20));
    ExpectSent([&] { m_pMain->OpenRedirectedFile("/f", -1, false, 0, 0); },
               Request(10) + Path("/f") + Int64(-1) + Pad(16));
    ExpectSent([&] { m_pMain->ExportRedirectedFileInfo("/f", "/t", false); },
               Request(15) + Path("/f") + Path("/t") + Pad(4));
    ExpectSent([&] { m_pMain->GetMountInfo(&m_param, false, true); },
               Request(19) + Text("caller") + Flag(0) + Flag(1) + Pad(2));
    ExpectSent([&] { m_pMain->GetSessionInfo(&m_param, false); },
               Request(20) + Text("caller") + Pad(4));
    EXPECT_EQ(Sent([&] { m_pMain->SetDebugActionEnabled(false); }),
              (Lines{Request(1), Request(24) + Pad(4)}));
    EXPECT_EQ(Sent([&] { m_pMain->GetVSphereInfo(&m_param, false); }),
              (Lines{Request(1), Request(25) + Text("caller") + Pad(4)}));
}

TEST_F(NfsIpcClientRequests, Requests_WithoutAContext_BearTheControllersOwnID)
{
    Serve();
    CNfsMain* pMain = m_pMain.get();
    ExpectSent([&] { pMain->GetMountInfo(true, true); },
               Request(19) + Text("host") + Flag(1) + Flag(1) + Pad(2));
    ExpectSent([&] { pMain->GetSessionInfo(true); }, Request(20) + Text("host") + Flag(1) + Pad(3));
    ExpectSent([&] { pMain->RunTestMode("/folder", 5); },
               Request(21) + Text("host") + Field("/folder", 3072) + Int64(5));
    EXPECT_EQ(Sent([&] { pMain->GetVSphereInfo(false); }),
              (Lines{Request(1), Request(25) + Text("host") + Pad(4)}));
}

// An empty text would mean something else to the server: every file, for one.
TEST_F(NfsIpcClientRequests, Requests_AboutNothing_AreNotSent)
{
    Serve();
    const std::vector<std::function<void()>> vCalls = {
        [&] { m_pMain->AddMountPoint(nullptr, "name", nullptr); },
        [&] { m_pMain->AddMountPoint("", "name", nullptr); },
        [&] { m_pMain->AddMountPoint("/folder", nullptr, nullptr); },
        [&] { m_pMain->RemoveMountPoint(nullptr); },
        [&] { m_pMain->AddSessionInfo(nullptr, "/folder"); },
        [&] { m_pMain->RemoveSessionInfo(nullptr); },
        [&] { m_pMain->IsSessionExists(nullptr); },
        [&] { m_pMain->OpenRedirectedFile(nullptr, 0, false, 0, 0); },
        [&] { m_pMain->CloseRedirectedFile(nullptr); },
        [&] { m_pMain->CloseAllRedirectedFiles(nullptr); },
        [&] { m_pMain->AddRedirectedFileSegment(nullptr, "/source", 0, 0, 0, nullptr); },
        [&] { m_pMain->ExportRedirectedFile(nullptr, "/target"); },
        [&] { m_pMain->ExportRedirectedFile("/file", nullptr); },
        [&] { m_pMain->ExportRedirectedFileInfo(nullptr, "/target", false); },
        [&] { m_pMain->ExportRedirectedFileInfo("/file", nullptr, false); },
        [&] { m_pMain->CloseCachedFileHandle(nullptr); },
        [&] { m_pMain->CloseAllCachedFileHandles(nullptr); },
        [&] { m_pMain->RunTestMode(&m_param, nullptr, 1); },  // is answered here
        [&] { m_pMain->RunTestMode(nullptr, "/folder", 1); },
        [&] { m_pMain->AddVSphereInfo(nullptr, "h", "p", "u", "w"); },
        [&] { m_pMain->RemoveVSphereInfo(nullptr); },
    };
    for (const std::function<void()>& call : vCalls)
        EXPECT_EQ(Sent(call), Lines{});
}

TEST_F(NfsIpcClientRequests, Requests_OtherNullTexts_AreEmpty)
{
    Serve();
    ExpectSent([&] { m_pMain->AddSessionInfo("id", nullptr); }, Request(7) + Text("id") + Path(""));
    ExpectSent([&] { m_pMain->AddRedirectedFileSegment("/file", nullptr, 0, 0, 0, nullptr); },
               Request(13) + Path("/file") + Path("") + Pad(24));
    EXPECT_EQ(Sent([&] { m_pMain->AddVSphereInfo("id", nullptr, nullptr, nullptr, nullptr); }),
              (Lines{Request(1), Request(26) + Text("id") + Pad(1024)}));
}

// ---- Texts that do not fit ----

TEST_F(NfsIpcClientRequests, AddMountPoint_LongestTexts_AreSent)
{
    const std::string sPath(1023, 'p');
    const std::string sName(255, 'n');
    const std::string sID(255, 'i');
    Make(sID.c_str());
    Serve();
    ExpectSent([&] { m_pMain->AddMountPoint(sPath.c_str(), sName.c_str(), m_cReason); },
               Request(5) + Path(sPath) + Text(sName) + Text(sID));
    EXPECT_STREQ(m_cReason, "");
}

TEST_F(NfsIpcClientRequests, AddMountPoint_TextTooLong_IsRefusedAndNothingIsSent)
{
    const std::string sPath(1024, 'p');
    const std::string sName(256, 'n');
    Serve().AnswerAll(BoolReply(true));
    EXPECT_EQ(Try([&](char* p) { return m_pMain->AddMountPoint(sPath.c_str(), "n", p); }),
              "false, Text is too long: " + sPath);
    EXPECT_EQ(Try([&](char* p) { return m_pMain->AddMountPoint("/p", sName.c_str(), p); }),
              "false, Text is too long: " + sName);
    EXPECT_FALSE(m_pMain->AddMountPoint(sPath.c_str(), "n", nullptr));
    const std::string sID(256, 'i');
    Make(sID.c_str());
    EXPECT_EQ(Try([&](char* p) { return m_pMain->AddMountPoint("/p", "n", p); }),
              "false, Text is too long: " + sID);
    EXPECT_EQ(m_pServer->Requests(), Lines{});
}

TEST_F(NfsIpcClientRequests, AddMountPoint_EndlessText_HasItsReasonCut)
{
    const std::string sPath(5000, 'p');
    EXPECT_EQ(Try([&](char* p) { return m_pMain->AddMountPoint(sPath.c_str(), "n", p); }),
              "false, " + ("Text is too long: " + sPath).substr(0, 2047));
}

TEST_F(NfsIpcClientRequests, AddRedirectedFileSegment_TextTooLong_IsRefusedAndNothingIsSent)
{
    const std::string sFits(1023, 'f');
    const std::string sLong(1024, 'l');
    Serve().AnswerAll(BoolReply(true));
    const auto add = [this](const std::string& sPath, const std::string& sSource) {
        return Try([&](char* p) {
            return m_pMain->AddRedirectedFileSegment(sPath.c_str(), sSource.c_str(), 0, 0, 0, p);
        });
    };
    EXPECT_EQ(add(sLong, "/s"), "false, Text is too long: " + sLong);
    EXPECT_EQ(add("/f", sLong), "false, Text is too long: " + sLong);
    EXPECT_FALSE(m_pMain->AddRedirectedFileSegment(sLong.c_str(), "/s", 0, 0, 0, nullptr));
    EXPECT_EQ(m_pServer->Requests(), Lines{});
    EXPECT_EQ(add(sFits, sFits), "true, untouched");
    EXPECT_EQ(m_pServer->Requests(), (Lines{Request(13) + Path(sFits) + Path(sFits) + Pad(24)}));
}

TEST_F(NfsIpcClientRequests, TextTooLong_WithoutAReasonToGive_IsCutAndTerminated)
{
    const std::string sLong(4000, 'x');
    const char* pcLong = sLong.c_str();
    const std::string sPath = Path(sLong.substr(0, 1023));
    const std::string sText = Text(sLong.substr(0, 255));
    CRuntimeParam param(pcLong, 0);
    Serve();
    ExpectSent([&] { m_pMain->RemoveMountPoint(pcLong); }, Request(6) + sPath);
    ExpectSent([&] { m_pMain->AddSessionInfo(pcLong, pcLong); }, Request(7) + sText + sPath);
    ExpectSent([&] { m_pMain->RemoveSessionInfo(pcLong); }, Request(8) + sText);
    ExpectSent([&] { m_pMain->IsSessionExists(pcLong); }, Request(9) + sText);
    ExpectSent([&] { m_pMain->OpenRedirectedFile(pcLong, 0, false, 0, 0); },
               Request(10) + sPath + Pad(24));
    ExpectSent([&] { m_pMain->CloseRedirectedFile(pcLong); }, Request(11) + sPath);
    ExpectSent([&] { m_pMain->CloseAllRedirectedFiles(pcLong); }, Request(12) + sPath);
    ExpectSent([&] { m_pMain->ExportRedirectedFile(pcLong, pcLong); }, Request(14) + sPath + sPath);
    ExpectSent([&] { m_pMain->ExportRedirectedFileInfo(pcLong, pcLong, false); },
               Request(15) + sPath + sPath + Pad(4));
    ExpectSent([&] { m_pMain->CloseCachedFileHandle(pcLong); }, Request(16) + sPath);
    ExpectSent([&] { m_pMain->CloseAllCachedFileHandles(pcLong); }, Request(17) + sPath);
    ExpectSent([&] { m_pMain->GetMountInfo(&param, false, false); }, Request(19) + sText + Pad(4));
    ExpectSent([&] { m_pMain->GetSessionInfo(&param, false); }, Request(20) + sText + Pad(4));
    ExpectSent([&] { m_pMain->RunTestMode(&param, pcLong, 7); },
               Request(21) + sText + Field(sLong.substr(0, 3071), 3072) + Int64(7));
    EXPECT_EQ(Sent([&] { m_pMain->GetVSphereInfo(&param, false); }),
              (Lines{Request(1), Request(25) + sText + Pad(4)}));
    EXPECT_EQ(Sent([&] { m_pMain->AddVSphereInfo(pcLong, pcLong, pcLong, pcLong, pcLong); }),
              (Lines{Request(1), Request(26) + sText + sText + sText + sText + sText}));
    EXPECT_EQ(Sent([&] { m_pMain->RemoveVSphereInfo(pcLong); }),
              (Lines{Request(1), Request(27) + sText}));
}

TEST_F(NfsIpcClientRequests, IgnoredReplies_LeaveNoTrace)
{
    Make("host", LOG_ERROR);
    CFakeIpcServer& server = Serve();
    for (const std::string& sReply : {BoolReply(false), ExptReply("no"), NoReply(), Pad(0)}) {
        server.AnswerAll(sReply);
        for (const Operation& operation : MakeOperations(&m_param))
            if (operation.sRequest != Request(1) && operation.sRequest[4] != 18)
                operation.call(*m_pMain);
    }
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

// ---- No server ----

TEST_F(NfsIpcClientRequests, NoServer_EachExchangeWithoutAReasonBufferHasItsLine)
{
    for (const Operation& operation : MakeOperations(&m_param)) {
        SCOPED_TRACE(operation.pcName);
        const int iType = operation.sRequest[4];
        size_t iLines = 1;
        if (iType == 4 || iType == 5 || iType == 13)
            iLines = 0;  // have a buffer
        else if (operation.pcUnknownTo[0] != '\0' && iType != 23)
            iLines = 2;  // ask for the version before
        m_recorder.Clear();
        operation.call(*m_pMain);
        EXPECT_EQ(m_recorder.Lines(), Lines(iLines, NO_SERVER_LINE));
        m_pMain->GetRuntimeParam()->SetLogControl(LOG_ERROR);
    }
}

TEST_F(NfsIpcClientRequests, NoServer_WithoutTheErrorBit_IsSilent)
{
    for (const Operation& operation : MakeOperations(&m_param)) {
        m_pMain->GetRuntimeParam()->SetLogControl(LOG_GENERAL);
        if (operation.sRequest[4] != 18)
            operation.call(*m_pMain);
    }
    m_pMain->SetLogControl(0);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(NfsIpcClientRequests, NoServer_LeavesNothingOpen)
{
    const size_t iBefore = CountDescriptors();
    for (const Operation& operation : MakeOperations(&m_param))
        operation.call(*m_pMain);
    EXPECT_EQ(CountDescriptors(), iBefore);
}

TEST_F(NfsIpcClientRequests, ServerComesAndGoes_EachOperationConnectsAnew)
{
    EXPECT_EQ(Version(), "Unknown");
    Serve("1.2");
    EXPECT_EQ(Version(), "1.2");
    m_pServer.reset();
    EXPECT_EQ(Version(), "Unknown");
    Serve("1.3");
    EXPECT_EQ(Version(), "1.3");
}

// ---- Older servers ----

TEST_F(NfsIpcClientRequests, OlderServers_AreNotAskedForWhatTheyDoNotKnow)
{
    for (const char* pcVersion : {"1.0", "1.1"}) {
        CFakeIpcServer& server = Serve(pcVersion);
        server.AnswerAll(BoolReply(true));
        for (const Operation& operation : MakeOperations(&m_param)) {
            SCOPED_TRACE(std::string(operation.pcName) + " " + pcVersion);
            const std::string sUnknownTo = operation.pcUnknownTo;
            const bool bUnknown = sUnknownTo.find(pcVersion) != std::string::npos;
            Lines vWanted;
            if (!sUnknownTo.empty())
                vWanted.push_back(Request(1));
            if (!bUnknown)
                vWanted.push_back(operation.sRequest);
            else if (operation.sRequest == Request(23))
                vWanted.push_back(Request(3));  // asked instead
            EXPECT_EQ(Sent([&] { operation.call(*m_pMain); }), vWanted);
        }
    }
}

TEST_F(NfsIpcClientRequests, OlderServers_YieldFallbacks)
{
    for (const char* pcVersion : {"1.0", "1.1"}) {
        CFakeIpcServer& server = Serve(pcVersion);
        server.Answer(24, BoolReply(true));
        server.Answer(25, IntReply(5));
        EXPECT_EQ(m_pMain->SetDebugActionEnabled(true), std::string(pcVersion) == "1.1");
        EXPECT_EQ(m_pMain->GetVSphereInfo(&m_param, false), 0);
    }
}

TEST_F(NfsIpcClientRequests, OtherVersions_AreAsked)
{
    for (const char* pcVersion : {"1.2", "1.3", "1.00", "1.10", "1", "", "2.0", "Unknown"}) {
        SCOPED_TRACE(pcVersion);
        CFakeIpcServer& server = Serve(pcVersion);
        server.Answer(24, BoolReply(true));
        server.Answer(25, IntReply(5));
        EXPECT_TRUE(m_pMain->SetDebugActionEnabled(true));
        EXPECT_EQ(m_pMain->GetVSphereInfo(&m_param, false), 5);
        EXPECT_EQ(Sent([&] { m_pMain->RemoveVSphereInfo("moid"); }),
                  (Lines{Request(1), Request(27) + Text("moid")}));
        EXPECT_EQ(Sent([&] { m_pMain->AddVSphereInfo("moid", "", "", "", ""); }),
                  (Lines{Request(1), Request(26) + Text("moid") + Pad(1024)}));
    }
}
