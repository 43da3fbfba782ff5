// What each message that arrives on a local channel asks for, and the reply to it.
#include "IpcServer.h"

#include <climits>
#include <filesystem>

#include <gtest/gtest.h>

#include "IpcFixture.h"
#include "IpcRecordingMain.h"
#include "RuntimeParam.h"

namespace {

constexpr int LOG_CONTROL = 0x221;  // 545

std::string Junk(size_t iBytes)
{
    return std::string(iBytes, '\xA5');
}

// A server in front of a controller that only remembers.
class IpcRequests : public CIpcServerFixture<CRecordingMain> {
protected:
    IpcRequests() : CIpcServerFixture(LOG_CONTROL) {}
    void SetUp() override { Open(); }

    struct Row {
        std::string sRequest;
        std::string sCall;
        std::string sReply;
    };

    void Expect(const std::vector<Row>& vRows)
    {
        for (const Row& row : vRows) {
            SCOPED_TRACE(row.sCall);
            EXPECT_TRUE(SameReply(Ask(row.sRequest), row.sReply));
            EXPECT_EQ(m_main.TakeCalls(), (Lines{row.sCall}));
        }
    }
};

// The same in front of a real one.
class IpcEffects : public CIpcServerFixture<CNfsIpcServerMain> {
protected:
    IpcEffects() : CIpcServerFixture(0) {}
    void SetUp() override { Open(); }

    void ExpectReply(const std::string& sRequest, const std::string& sReply)
    {
        EXPECT_TRUE(SameReply(Ask(sRequest), sReply));
    }

    // The exports, as they are listed.
    Lines ListExports()
    {
        m_recorder.Clear();
        m_main.GetMountInfo(false, true);
        return m_recorder.Lines();
    }

    std::string AddMountPoint(const std::string& sFolder, const std::string& sName)
    {
        return Ask(Request(5) + Field(sFolder, PATH_FIELD) + Field(sName, TEXT_FIELD) +
                   Field("cli", TEXT_FIELD));
    }

    std::string PathRequest(int iType, const std::string& sPath)
    {
        return Request(iType) + Field(sPath, PATH_FIELD);
    }
};

// A host in front of what a server process tells it.
class IpcCallbacks : public CIpcServerFixture<CNfsMain> {
protected:
    IpcCallbacks() : CIpcServerFixture(0) {}
    void SetUp() override { Open(); }

    static std::string Callback(int iType, const std::string& sID)
    {
        return Header(GROUP_CALLBACK, iType) + Field(sID, TEXT_FIELD);
    }

    static std::string Message(const std::string& sText, int iKind)
    {
        return Callback(1, "vm7") + Field(sText, MESSAGE_FIELD) + Int32(iKind);
    }

    static std::string Attributes(int iSize, int iAccess, int iModified)
    {
        return Callback(2, "vm7") + Field("/disk", PATH_FIELD) + Flag(iSize) + Junk(7) +
               Int64(5000000000) + Flag(iAccess) + Junk(7) + Int64(6000000000) + Flag(iModified) +
               Junk(7) + Int64(-1);
    }
};

}  // namespace

// ---- What the controller is asked, and what its answer becomes ----

TEST_F(IpcRequests, OnTheServer_ReachTheController)
{
    m_main.SetResult(1);
    Expect({
        {Request(3), "IsServerRunning", BoolReply(true)},
        {Request(4) + Int32(3058) + Int32(3049) + Int32(7) + Int32(8) + Flag(1) + Junk(3),
         "StartServer|3058|3049|7|8|1", BoolReply(true)},
        {Request(4) + Int32(-1) + Int32(0) + Int32(-1) + Int32(-2) + Flag(0) + Junk(3),
         "StartServer|-1|0|4294967295|4294967294|0", BoolReply(true)},
        {Request(18) + Int32(0x3ff), "SetLogControl|1023", BoolReply(true)},
        {Request(18) + Int32(-1), "SetLogControl|-1", BoolReply(true)},
        {Request(24) + Flag(1) + Junk(3), "SetDebugActionEnabled|1", BoolReply(true)},
        {Request(24) + Flag(0) + Junk(3), "SetDebugActionEnabled|0", BoolReply(true)},
    });
    for (const int iStatus : {1, 7, 0, -1, INT_MAX, INT_MIN}) {
        m_main.SetResult(iStatus);
        Expect({{Request(23), "GetServerStatus", IntReply(iStatus)}});
    }
}

TEST_F(IpcRequests, OnExportsAndSessions_ReachTheController)
{
    Expect({
        {Request(6) + Field("/f", PATH_FIELD), "RemoveMountPoint|/f", BoolReply(true)},
        {Request(7) + Field("id 1", TEXT_FIELD) + Field("/f", PATH_FIELD), "AddSessionInfo|id 1|/f",
         BoolReply(true)},
        {Request(8) + Field("id 1", TEXT_FIELD), "RemoveSessionInfo|id 1", BoolReply(true)},
        {Request(9) + Field("id 1", TEXT_FIELD), "IsSessionExists|id 1", BoolReply(true)},
        {Request(26) + Field("moid", TEXT_FIELD) + Field("host", TEXT_FIELD) +
             Field("443", TEXT_FIELD) + Field("user", TEXT_FIELD) + Field("secret", TEXT_FIELD),
         "AddVSphereInfo|moid|host|443|user|secret", BoolReply(true)},
        {Request(27) + Field("moid", TEXT_FIELD), "RemoveVSphereInfo|moid", BoolReply(true)},
    });
}

TEST_F(IpcRequests, OnFiles_ReachTheController)
{
    const std::string sPath = Field("/f", PATH_FIELD);
    const std::string sOther = Field("/other", PATH_FIELD);
    Expect({
        {Request(10) + sPath + Int64(5000000000) + Flag(1) + Junk(3) + Int32(64) + Int32(1024) +
             Junk(4),
         "OpenRedirectedFile|/f|5000000000|1|64|1024", BoolReply(true)},
        {Request(10) + sPath + Int64(-1) + Flag(0) + Junk(3) + Int32(-2) + Int32(-3) + Junk(4),
         "OpenRedirectedFile|/f|-1|0|-2|-3", BoolReply(true)},
        {Request(11) + sPath, "CloseRedirectedFile|/f", BoolReply(true)},
        {Request(12) + sPath, "CloseAllRedirectedFiles|/f", BoolReply(true)},
        {Request(13) + sPath + sOther + Int64(5000000000) + Int64(-6) + Int64(7000000000),
         "AddRedirectedFileSegment|/f|/other|5000000000|-6|7000000000", BoolReply(true)},
        {Request(14) + sPath + sOther, "ExportRedirectedFile|/f|/other", BoolReply(true)},
        {Request(15) + sPath + sOther + Flag(1) + Junk(3), "ExportRedirectedFileInfo|/f|/other|1",
         BoolReply(true)},
        {Request(15) + sPath + sOther + Flag(0) + Junk(3), "ExportRedirectedFileInfo|/f|/other|0",
         BoolReply(true)},
        {Request(16) + sPath, "CloseCachedFileHandle|/f", BoolReply(true)},
        {Request(17) + sPath, "CloseAllCachedFileHandles|/f", BoolReply(true)},
    });
}

TEST_F(IpcRequests, Listings_RunUnderTheServersContextForTheClient)
{
    const std::string sClient = Field("cli", TEXT_FIELD);
    for (const int iResult : {0, 3, -1}) {
        m_main.SetResult(iResult);
        Expect({
            {Request(19) + sClient + Flag(1) + Flag(0) + Junk(2), "GetMountInfo|svr,cli,545|1|0",
             IntReply(iResult)},
            {Request(19) + sClient + Flag(0) + Flag(1) + Junk(2), "GetMountInfo|svr,cli,545|0|1",
             IntReply(iResult)},
            {Request(20) + sClient + Flag(1) + Junk(3), "GetSessionInfo|svr,cli,545|1",
             IntReply(iResult)},
            {Request(20) + sClient + Flag(0) + Junk(3), "GetSessionInfo|svr,cli,545|0",
             IntReply(iResult)},
            {Request(25) + sClient + Flag(1) + Junk(3), "GetVSphereInfo|svr,cli,545|1",
             IntReply(iResult)},
            {Request(25) + sClient + Flag(0) + Junk(3), "GetVSphereInfo|svr,cli,545|0",
             IntReply(iResult)},
            {Request(21) + sClient + Field("/dir", TEST_PATH_FIELD) + Int64(5000000000),
             "RunTestMode|svr,cli,545|/dir|5000000000", BoolReply(true)},
        });
    }
}

TEST_F(IpcRequests, Listings_TakeTheLogControlOfTheMoment)
{
    m_main.GetRuntimeParam()->SetLogControl(7);
    Expect({{Request(20) + Field("", TEXT_FIELD) + Flag(0) + Junk(3), "GetSessionInfo|svr,,7|0",
             IntReply(1)}});
    EXPECT_STREQ(m_main.GetRuntimeParam()->GetIpcID(), "");
}

TEST_F(IpcRequests, AnswerNo_IsAReplyOfFalse)
{
    m_main.SetResult(0);
    Expect({{Request(3), "IsServerRunning", BoolReply(false)},
            {Request(9) + Field("id", TEXT_FIELD), "IsSessionExists|id", BoolReply(false)},
            {Request(24) + Flag(1) + Junk(3), "SetDebugActionEnabled|1", BoolReply(true)}});
}

TEST_F(IpcRequests, Failure_IsAReplyOfItsText)
{
    const std::string sStart =
        Request(4) + Int32(1) + Int32(2) + Int32(3) + Int32(4) + Flag(0) + Junk(3);
    const std::string sSegment = Request(13) + Field("/f", PATH_FIELD) + Field("/s", PATH_FIELD) +
                                 Int64(1) + Int64(2) + Int64(3);
    for (const std::string& sReason : {std::string("no port"), std::string(REASON_SIZE - 1, 'r')}) {
        m_main.SetResult(0, sReason);
        Expect({{sStart, "StartServer|1|2|3|4|0", ExptReply(sReason)},
                {sSegment, "AddRedirectedFileSegment|/f|/s|1|2|3", ExptReply(sReason)}});
    }
}

TEST_F(IpcRequests, FailureWithoutWords_DoesNotRepeatTheLastOnes)
{
    EXPECT_TRUE(SameReply(Ask(Request(99)), ExptReply("Unknown request type (99)")));
    m_main.SetResult(0);
    Expect({{Request(13) + Field("/f", PATH_FIELD) + Field("/s", PATH_FIELD) + Int64(1) + Int64(2) +
                 Int64(3),
             "AddRedirectedFileSegment|/f|/s|1|2|3", ExptReply("")}});
}

TEST_F(IpcRequests, Success_LeavesNothingOfTheTextItMightHaveHad)
{
    m_main.SetResult(1, "a warning that nobody asked for");
    Expect({{Request(4) + Int32(1) + Int32(2) + Int32(3) + Int32(4) + Flag(0) + Junk(3),
             "StartServer|1|2|3|4|0", BoolReply(true)}});
}

TEST_F(IpcRequests, Flags_CountAsSetUnlessTheyAreZero)
{
    const std::string sPath = Field("/f", PATH_FIELD);
    const std::string sClient = Field("c", TEXT_FIELD);
    for (const int iFlag : {0, 1, 2, 128, 255}) {
        const std::string sFlag = iFlag == 0 ? "0" : "1";
        Expect({
            {Request(4) + Int32(1) + Int32(2) + Int32(3) + Int32(4) + Flag(iFlag) + Junk(3),
             "StartServer|1|2|3|4|" + sFlag, BoolReply(true)},
            {Request(10) + sPath + Int64(1) + Flag(iFlag) + Junk(3) + Int32(2) + Int32(3) + Junk(4),
             "OpenRedirectedFile|/f|1|" + sFlag + "|2|3", BoolReply(true)},
            {Request(15) + sPath + sPath + Flag(iFlag) + Junk(3),
             "ExportRedirectedFileInfo|/f|/f|" + sFlag, BoolReply(true)},
            {Request(19) + sClient + Flag(iFlag) + Flag(0) + Junk(2),
             "GetMountInfo|svr,c,545|" + sFlag + "|0", IntReply(1)},
            {Request(19) + sClient + Flag(0) + Flag(iFlag) + Junk(2),
             "GetMountInfo|svr,c,545|0|" + sFlag, IntReply(1)},
            {Request(20) + sClient + Flag(iFlag) + Junk(3), "GetSessionInfo|svr,c,545|" + sFlag,
             IntReply(1)},
            {Request(24) + Flag(iFlag) + Junk(3), "SetDebugActionEnabled|" + sFlag,
             BoolReply(true)},
            {Request(25) + sClient + Flag(iFlag) + Junk(3), "GetVSphereInfo|svr,c,545|" + sFlag,
             IntReply(1)},
        });
    }
}

TEST_F(IpcRequests, UnknownType_IsRefused)
{
    for (const int iType : {0, 28, 29, 99, -1, 0x10009, INT_MAX, INT_MIN})
        EXPECT_TRUE(SameReply(Ask(Request(iType)),
                              ExptReply("Unknown request type (" + std::to_string(iType) + ")")))
            << iType;
    EXPECT_EQ(m_main.TakeCalls(), Lines{});
}

TEST_F(IpcRequests, Reply_IsNotAnswered)
{
    for (const int iType : {0, 1, 4, 6, 99, -1})
        EXPECT_TRUE(SameReply(
            Ask(Header(GROUP_REPLY, iType)),
            ExptReply("Reply action group is not support (" + std::to_string(iType) + ")")))
            << iType;
    EXPECT_EQ(m_main.TakeCalls(), Lines{});
}

TEST_F(IpcRequests, UnknownGroup_IsRefused)
{
    for (const int iGroup : {0, 4, 5, -1, 0x102, INT_MAX, INT_MIN})
        for (const int iType : {0, 9, 99, -1})
            EXPECT_TRUE(SameReply(Ask(Header(iGroup, iType)),
                                  ExptReply("Unknown action group: " + std::to_string(iGroup) +
                                            " (" + std::to_string(iType) + ")")))
                << iGroup << " " << iType;
    EXPECT_EQ(m_main.TakeCalls(), Lines{});
}

TEST_F(IpcRequests, Version_IsNotLookedAt)
{
    for (const char* pcVersion : {"", "1.0", "9.9", "\xff\xff\xff\xff\xff\xff\xff\xff"})
        EXPECT_TRUE(SameReply(Ask(Header(GROUP_REQUEST, 1, pcVersion)), MsgReply("1.2")));
}

TEST_F(IpcRequests, FirstReplies_HoldNothingButTheirOwn)
{
    EXPECT_EQ(Ask(Request(1)), MsgReply("1.2"));  // padding included: nothing was there before
    EXPECT_EQ(Ask(Request(2)), MsgReply("External NFS Server"));
}

// ---- What comes of it ----

TEST_F(IpcEffects, StartServer_StartsAndSaysWhyNot)
{
    const std::string sStart =
        Request(4) + Int32(3058) + Int32(3049) + Int32(0) + Int32(0) + Flag(0) + Junk(3);
    ExpectReply(Request(3), BoolReply(false));
    ExpectReply(Request(23), IntReply(1));
    ExpectReply(sStart, BoolReply(true));
    EXPECT_TRUE(m_main.IsServerRunning());
    ExpectReply(Request(3), BoolReply(true));
    ExpectReply(Request(23), IntReply(3));
    ExpectReply(sStart, ExptReply("NFS already running"));
    m_main.StopServer();
    ExpectReply(Request(3), BoolReply(false));
}

TEST_F(IpcEffects, VersionAndDescription_AreTheControllers)
{
    ExpectReply(Request(1), MsgReply("1.2"));
    ExpectReply(Request(2), MsgReply("External NFS Server"));
}

TEST_F(IpcEffects, AddMountPoint_RemembersTheClientAndSaysWhyNot)
{
    const std::string sFolder = m_folder.Path();
    EXPECT_TRUE(SameReply(AddMountPoint(sFolder, "vm1"), BoolReply(true)));
    EXPECT_EQ(ListExports(), (Lines{"raw|svr| mount1 - " + sFolder + " : vm1 () [cli]"}));
    EXPECT_TRUE(SameReply(AddMountPoint("/elsewhere", "vm1"),
                          ExptReply("Export name \"vm1\" already defined")));
    EXPECT_TRUE(SameReply(AddMountPoint(sFolder, "vm2"),
                          ExptReply("Local mount path \"" + sFolder + "\" already defined")));
    EXPECT_TRUE(SameReply(AddMountPoint("/elsewhere", "a/b"),
                          ExptReply("Invalid char \"/\" inside export name")));
    EXPECT_EQ(ListExports().size(), 1U);

    ExpectReply(PathRequest(6, "/elsewhere"), BoolReply(true));
    EXPECT_EQ(ListExports().size(), 1U);
    ExpectReply(PathRequest(6, sFolder), BoolReply(true));
    EXPECT_EQ(ListExports(), Lines{});
}

TEST_F(IpcEffects, AddMountPoint_TextsAsLongAsTheirFields_AreWhole)
{
    const std::string sName(TEXT_FIELD - 1, 'n');
    const std::string sFolder = "/" + std::string(PATH_FIELD - 2, 'f');
    EXPECT_TRUE(SameReply(AddMountPoint(sFolder, sName), BoolReply(true)));
    EXPECT_EQ(ListExports(), (Lines{"raw|svr| mount1 - " + sFolder + " : " + sName + " () [cli]"}));
}

TEST_F(IpcEffects, Sessions_AreAddedFoundListedAndRemoved)
{
    const std::string sID = Field("s1", TEXT_FIELD);
    const std::string sList = Request(20) + Field("cli", TEXT_FIELD) + Flag(1) + Junk(3);
    ExpectReply(Request(9) + sID, BoolReply(false));
    ExpectReply(sList, IntReply(0));
    ExpectReply(Request(7) + sID + Field("/f", PATH_FIELD), BoolReply(true));
    ExpectReply(Request(9) + sID, BoolReply(true));
    ExpectReply(sList, IntReply(1));
    EXPECT_EQ(m_recorder.Lines(), (Lines{"raw|svr| session1 - s1 : /f"}));
    ExpectReply(Request(8) + sID, BoolReply(true));
    ExpectReply(Request(8) + sID, BoolReply(true));
    ExpectReply(Request(9) + sID, BoolReply(false));
}

TEST_F(IpcEffects, Datastores_AreAddedListedAndRemoved)
{
    const std::string sMoid = Field("ds-1", TEXT_FIELD);
    const std::string sList = Request(25) + Field("cli", TEXT_FIELD) + Flag(1) + Junk(3);
    ExpectReply(sList, IntReply(0));
    ExpectReply(Request(26) + sMoid + Field("host", TEXT_FIELD) + Field("443", TEXT_FIELD) +
                    Field("user", TEXT_FIELD) + Field("secret", TEXT_FIELD),
                BoolReply(true));
    ExpectReply(sList, IntReply(1));
    EXPECT_EQ(m_recorder.Lines(), (Lines{"raw|svr| NFS datastore1 - ds-1 (host:443)"}));
    ExpectReply(Request(27) + sMoid, BoolReply(true));
    ExpectReply(sList, IntReply(0));
}

TEST_F(IpcEffects, MountInfo_CountsAndListsWhatItIsAskedFor)
{
    const std::string sClient = Field("cli", TEXT_FIELD);
    EXPECT_TRUE(SameReply(AddMountPoint("/a", "vm1"), BoolReply(true)));
    EXPECT_TRUE(SameReply(AddMountPoint("/b", "vm2"), BoolReply(true)));
    ExpectReply(Request(19) + sClient + Flag(0) + Flag(0) + Junk(2), IntReply(2));
    ExpectReply(Request(19) + sClient + Flag(1) + Flag(0) + Junk(2), IntReply(0));
    EXPECT_EQ(m_recorder.Lines(), Lines{});
    ASSERT_TRUE(m_main.GetUtils()->UpdateMountClientIpAddrByExportName("vm2", "10.0.0.7", nullptr,
                                                                       nullptr));
    ExpectReply(Request(19) + sClient + Flag(1) + Flag(1) + Junk(2), IntReply(1));
    EXPECT_EQ(m_recorder.Lines(), (Lines{"raw|svr| mount1 - /b : vm2 (10.0.0.7) [cli]"}));
}

TEST_F(IpcEffects, RedirectedFile_IsOpenedFilledExportedAndClosed)
{
    const std::string sPath = m_folder.Write("disk", "");
    const std::string sSource = m_folder.Write("source", "0123456789");
    const std::string sCopy = m_folder.Write("copy", "");
    const std::string sListing = m_folder.Write("listing", "");
    const std::string sPathField = Field(sPath, PATH_FIELD);
    const std::string sSegment =
        Request(13) + sPathField + Field(sSource, PATH_FIELD) + Int64(2) + Int64(0) + Int64(4);

    EXPECT_TRUE(SameReply(AddMountPoint(m_folder.Path(), "vm1"), BoolReply(true)));
    ExpectReply(sSegment, ExptReply(""));  // not open
    ExpectReply(Request(10) + sPathField + Int64(8) + Flag(0) + Junk(3) + Int32(0) + Int32(0) +
                    Junk(4),
                BoolReply(true));
    ExpectReply(sSegment, BoolReply(true));
    ExpectReply(Request(14) + sPathField + Field(sCopy, PATH_FIELD), BoolReply(true));
    EXPECT_EQ(ReadWholeFile(sCopy).substr(0, 4), "2345");
    ExpectReply(Request(15) + sPathField + Field(sListing, PATH_FIELD) + Flag(1) + Junk(3),
                BoolReply(true));
    EXPECT_NE(ReadWholeFile(sListing).find(sSource), std::string::npos);
    ExpectReply(PathRequest(11, sPath), BoolReply(true));
    EXPECT_EQ(m_main.GetUtils()->GetRedirectedFile(sPath.c_str()), nullptr);
}

TEST_F(IpcEffects, CloseAllRedirectedFiles_ClosesThoseBelow)
{
    for (const char* pcPath : {"/a/1", "/a/2", "/b"})
        m_main.OpenRedirectedFile(pcPath, 1, false, 0, 0);
    ExpectReply(PathRequest(12, "/a"), BoolReply(true));
    EXPECT_EQ(m_main.GetUtils()->GetRedirectedFile("/a/1"), nullptr);
    EXPECT_EQ(m_main.GetUtils()->GetRedirectedFile("/a/2"), nullptr);
    EXPECT_NE(m_main.GetUtils()->GetRedirectedFile("/b"), nullptr);
}

TEST_F(IpcEffects, CachedFiles_AreClosed)
{
    CRuntimeParam param("host", 0);
    LogArgu argu{"Test"};
    const std::string sFirst = m_folder.Write("first", "1");
    const std::string sSecond = m_folder.Write("second", "2");
    const size_t iDescriptors = CountDescriptors();
    for (const std::string& sPath : {sFirst, sSecond})
        m_main.GetUtils()->GetCachedFileHandle(&param, &argu, sPath.c_str(), false);
    EXPECT_EQ(CountDescriptors(), iDescriptors + 2);
    ExpectReply(PathRequest(16, sFirst), BoolReply(true));
    EXPECT_EQ(CountDescriptors(), iDescriptors + 1);
    ExpectReply(PathRequest(17, m_folder.Path()), BoolReply(true));
    EXPECT_EQ(CountDescriptors(), iDescriptors);
}

TEST_F(IpcEffects, LogControlAndDebugActions_AreSet)
{
    ExpectReply(Request(18) + Int32(0x123), BoolReply(true));
    EXPECT_EQ(m_main.GetRuntimeParam()->GetLogControl(), 0x123);
    ExpectReply(Request(24) + Flag(1) + Junk(3), BoolReply(true));
    ExpectReply(Request(23), IntReply(5));
    ExpectReply(Request(24) + Flag(0) + Junk(3), BoolReply(true));
    ExpectReply(Request(23), IntReply(1));
}

TEST_F(IpcEffects, TestMode_IsTaken)
{
    ExpectReply(Request(21) + Field("cli", TEXT_FIELD) + Field(m_folder.Path(), TEST_PATH_FIELD) +
                    Int64(1),
                BoolReply(true));
}

TEST_F(IpcEffects, AutoShutdown_IsWantedOnlyWhereItIsEnabled)
{
    ExpectReply(Request(22), BoolReply(false));
    EXPECT_FALSE(m_pServer->IsAutoShutdownRequested());
    m_main.EnableAutoShutdown(true);
    ExpectReply(Request(22), BoolReply(true));
    EXPECT_TRUE(m_pServer->IsAutoShutdownRequested());
}

// ---- What a server process tells the host ----

TEST_F(IpcCallbacks, Message_IsALogLineOfItsKind)
{
    EXPECT_TRUE(SameReply(Ask(Message("an info", 1)), BoolReply(true)));
    EXPECT_TRUE(SameReply(Ask(Message("an error", 2)), BoolReply(true)));
    EXPECT_TRUE(SameReply(Ask(Message("100%s raw", 3)), BoolReply(true)));
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"info|vm7|an info", "error|vm7|an error", "raw|vm7|100%s raw"}));
}

TEST_F(IpcCallbacks, MessageOfAnotherKind_IsAnInfo)
{
    for (const int iKind : {0, 4, 99, -1}) {
        m_recorder.Clear();
        EXPECT_TRUE(SameReply(Ask(Message("text", iKind)), BoolReply(true)));
        EXPECT_EQ(m_recorder.Lines(), (Lines{"info|vm7|text"})) << iKind;
    }
}

TEST_F(IpcCallbacks, LongestMessage_IsWhole)
{
    const std::string sText(MESSAGE_FIELD - 1, 'm');
    EXPECT_TRUE(SameReply(Ask(Message(sText, 1)), BoolReply(true)));
    EXPECT_EQ(m_recorder.Lines(), (Lines{"info|vm7|" + sText}));
}

TEST_F(IpcCallbacks, ChangedAttributes_ReachTheHost)
{
    m_recorder.SetUpdateResult(-7);
    EXPECT_TRUE(SameReply(Ask(Attributes(1, 0, 0)), IntReply(-7)));
    EXPECT_TRUE(SameReply(Ask(Attributes(0, 2, 0)), IntReply(-7)));
    EXPECT_TRUE(SameReply(Ask(Attributes(0, 0, 255)), IntReply(-7)));
    const std::string sStart = "update|vm7|/disk|";
    EXPECT_EQ(m_recorder.Notifications(),
              (Lines{sStart + "1|5000000000|0|6000000000|0|18446744073709551615",
                     sStart + "0|5000000000|1|6000000000|0|18446744073709551615",
                     sStart + "0|5000000000|0|6000000000|1|18446744073709551615"}));
}

TEST_F(IpcCallbacks, RemovedFile_ReachesTheHost)
{
    m_recorder.SetRemoveResult(3);
    EXPECT_TRUE(SameReply(Ask(Callback(3, "vm7") + Field("/disk", PATH_FIELD)), IntReply(3)));
    EXPECT_EQ(m_recorder.Notifications(), (Lines{"remove|vm7|/disk"}));
}

TEST_F(IpcCallbacks, RenamedFile_ReachesTheHost)
{
    m_recorder.SetRenameResult(-1);
    EXPECT_TRUE(
        SameReply(Ask(Callback(4, "vm7") + Field("/from", PATH_FIELD) + Field("/to", PATH_FIELD)),
                  IntReply(-1)));
    EXPECT_EQ(m_recorder.Notifications(), (Lines{"rename|vm7|/from|/to"}));
}

TEST_F(IpcCallbacks, WrittenFile_ReachesTheHost)
{
    m_recorder.SetWriteResult(4096);
    EXPECT_TRUE(SameReply(Ask(Callback(5, "vm7") + Field("/disk", PATH_FIELD) + Int64(5000000000) +
                              Int32(2) + Int32(-1)),
                          IntReply(4096)));
    EXPECT_EQ(m_recorder.Notifications(), (Lines{"write|vm7|/disk|5000000000|2|4294967295"}));
}

TEST_F(IpcCallbacks, WithoutAHost_NotificationsFail)
{
    m_main.SetCallback(nullptr);
    EXPECT_TRUE(SameReply(Ask(Attributes(1, 1, 1)), IntReply(-1)));
    EXPECT_TRUE(SameReply(Ask(Callback(3, "vm7") + Field("/disk", PATH_FIELD)), IntReply(-1)));
}

TEST_F(IpcCallbacks, UnknownType_IsRefused)
{
    for (const int iType : {0, 6, 99, -1, INT_MAX, INT_MIN})
        EXPECT_TRUE(SameReply(Ask(Header(GROUP_CALLBACK, iType)),
                              ExptReply("Unknown callback type (" + std::to_string(iType) + ")")))
            << iType;
    EXPECT_EQ(m_recorder.Lines(), Lines{});
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}
