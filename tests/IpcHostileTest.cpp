// Messages that no honest peer sends: cut short, overlong, without an end to their texts.
#include "IpcServer.h"

#include <algorithm>
#include <climits>

#include <gtest/gtest.h>

#include "IpcFixture.h"
#include "IpcRecordingMain.h"
#include "RuntimeParam.h"

namespace {

constexpr size_t HEADER_LENGTH = 16;
constexpr size_t WHOLE_BUFFER = 4096;

// Every message that has fields: the bytes at which they, or the padding between them, begin, and
// where the last one ends.
struct Shape {
    int iGroup;
    int iType;
    std::vector<size_t> vBorders;
};

const std::vector<Shape> SHAPES = {
    {GROUP_REQUEST, 0, {16}},
    {GROUP_REQUEST, 1, {16}},
    {GROUP_REQUEST, 2, {16}},
    {GROUP_REQUEST, 3, {16}},
    {GROUP_REQUEST, 4, {16, 20, 24, 28, 32, 33, 36}},
    {GROUP_REQUEST, 5, {16, 1040, 1296, 1552}},
    {GROUP_REQUEST, 6, {16, 1040}},
    {GROUP_REQUEST, 7, {16, 272, 1296}},
    {GROUP_REQUEST, 8, {16, 272}},
    {GROUP_REQUEST, 9, {16, 272}},
    {GROUP_REQUEST, 10, {16, 1040, 1048, 1049, 1052, 1056, 1060, 1064}},
    {GROUP_REQUEST, 11, {16, 1040}},
    {GROUP_REQUEST, 12, {16, 1040}},
    {GROUP_REQUEST, 13, {16, 1040, 2064, 2072, 2080, 2088}},
    {GROUP_REQUEST, 14, {16, 1040, 2064}},
    {GROUP_REQUEST, 15, {16, 1040, 2064, 2065, 2068}},
    {GROUP_REQUEST, 16, {16, 1040}},
    {GROUP_REQUEST, 17, {16, 1040}},
    {GROUP_REQUEST, 18, {16, 20}},
    {GROUP_REQUEST, 19, {16, 272, 273, 274, 276}},
    {GROUP_REQUEST, 20, {16, 272, 273, 276}},
    {GROUP_REQUEST, 21, {16, 272, 3344, 3352}},
    {GROUP_REQUEST, 22, {16}},
    {GROUP_REQUEST, 23, {16}},
    {GROUP_REQUEST, 24, {16, 17, 20}},
    {GROUP_REQUEST, 25, {16, 272, 273, 276}},
    {GROUP_REQUEST, 26, {16, 272, 528, 784, 1040, 1296}},
    {GROUP_REQUEST, 27, {16, 272}},
    {GROUP_CALLBACK, 1, {16, 272, 2320, 2324}},
    {GROUP_CALLBACK, 2, {16, 272, 1296, 1297, 1304, 1312, 1313, 1320, 1328, 1329, 1336, 1344}},
    {GROUP_CALLBACK, 3, {16, 272, 1296}},
    {GROUP_CALLBACK, 4, {16, 272, 1296, 2320}},
    {GROUP_CALLBACK, 5, {16, 272, 1296, 1304, 1308, 1312}},
};

// A body that shows where each of its bytes stood: no text runs for more than a few of them.
std::string Numbered(size_t iFirst, size_t iLength, char cMark)
{
    std::string sBytes;
    for (size_t i = iFirst; i < iFirst + iLength; i++) {
        const size_t iPlace = i % 8;
        sBytes += iPlace == 7 ? '\0' : iPlace < 2 ? cMark : static_cast<char>('0' + i / 8 % 64);
    }
    return sBytes;
}

// In front of it, a controller and a host that only remember.
class IpcHostile : public CIpcServerFixture<CRecordingMain> {
protected:
    IpcHostile() : CIpcServerFixture(0) {}
    void SetUp() override { Open(); }

    // What came of the messages since the last call: calls, exports, lines and notifications.
    Lines TakeEffects()
    {
        Lines vEffects = m_main.TakeCalls();
        m_main.GetUtils()->GetMountInfo(m_main.GetRuntimeParam(), false, true);
        m_main.GetUtils()->RemoveAllMountInfo();
        for (const Lines& vLines : {m_recorder.Lines(), m_recorder.Notifications()})
            vEffects.insert(vEffects.end(), vLines.begin(), vLines.end());
        m_recorder.Clear();
        return vEffects;
    }

    // A short message is served as if it went on with what the one before it left behind.
    void ExpectServedWithTheRest(const std::string& sShort, const std::string& sBefore)
    {
        const std::string sWhole = sShort + sBefore.substr(sShort.size());
        ASSERT_EQ(sWhole.size(), WHOLE_BUFFER);
        const std::string sWanted = Ask(sWhole);
        const Lines vWanted = TakeEffects();
        Ask(sBefore);
        TakeEffects();
        EXPECT_TRUE(SameReply(Ask(sShort), sWanted));
        EXPECT_EQ(TakeEffects(), vWanted);
    }

    void ExpectWell() { EXPECT_TRUE(SameReply(Ask(Request(1)), MsgReply("1.2"))); }

    const std::string m_sBefore =
        Request(1) + Numbered(HEADER_LENGTH, WHOLE_BUFFER - HEADER_LENGTH, 'b');
};

}  // namespace

// ---- Lengths ----

TEST_F(IpcHostile, ShortestMessages_FreshServer_HaveAReply)
{
    EXPECT_TRUE(SameReply(AskNothing(), ExptReply("Unknown action group: 0 (0)")));
    EXPECT_TRUE(SameReply(Ask(Flag(2)), ExptReply("Unknown request type (0)")));
    EXPECT_TRUE(SameReply(Ask(Flag(7)), ExptReply("Unknown action group: 7 (0)")));
    EXPECT_TRUE(SameReply(Ask(Request(1).substr(0, 4)), ExptReply("Unknown request type (0)")));
    EXPECT_TRUE(SameReply(Ask(Request(99).substr(0, 5)), ExptReply("Unknown request type (99)")));
    EXPECT_TRUE(SameReply(Ask(Request(1).substr(0, 15)), MsgReply("1.2")));
    EXPECT_TRUE(SameReply(Ask(Request(1)), MsgReply("1.2")));
    EXPECT_TRUE(SameReply(Ask(Flag(1)), ExptReply("Reply action group is not support (1)")));
    EXPECT_TRUE(SameReply(Ask(Flag(3)), BoolReply(true)));  // a message for the host, and empty
    EXPECT_EQ(TakeEffects(), (Lines{"info||"}));
}

TEST_F(IpcHostile, LongMessages_AreReadUpToTheSizeOfTheBuffer)
{
    m_main.GetRuntimeParam()->SetLogControl(LOG_CONTROL_IPC);
    for (const size_t iLength : {17U, 4095U, 4096U, 4097U, 5000U, 60000U}) {
        const std::string sMessage =
            Request(9) + Field("id", TEXT_FIELD) + std::string(60000, '\xA5');
        EXPECT_TRUE(SameReply(Ask(sMessage.substr(0, iLength)), BoolReply(true))) << iLength;
        const size_t iRead = std::min<size_t>(iLength, 4096);
        EXPECT_EQ(m_recorder.Lines()[0],
                  "info|svr|[IpcServer.ReadRequest] Request action group (type = 9, ver = 1.2, "
                  "dataLen = " +
                      std::to_string(iRead) + ")");
        m_recorder.Clear();
    }
    ExpectWell();
}

TEST_F(IpcHostile, LongMessage_ItsRestIsNoSecondRequest)
{
    std::string sMessage = Request(1);
    sMessage.resize(WHOLE_BUFFER, '\0');
    CIpcPeer peer(m_sChannel);
    peer.Send(sMessage + Request(9) + Field("id", TEXT_FIELD));
    EXPECT_TRUE(m_pServer->ReadRequest(m_cError));
    EXPECT_TRUE(SameReply(peer.Read(), MsgReply("1.2")));
    ExpectWell();
    EXPECT_EQ(TakeEffects(), Lines{});
}

TEST_F(IpcHostile, EveryMessage_CutShortAtEveryBorder_GoesOnWithWhatWasThere)
{
    for (const Shape& shape : SHAPES) {
        const std::string sMessage =
            Header(shape.iGroup, shape.iType) +
            Numbered(HEADER_LENGTH, shape.vBorders.back() - HEADER_LENGTH, 'm');
        for (const size_t iBorder : shape.vBorders) {
            for (const size_t iLength : {iBorder - 1, iBorder, iBorder + 1}) {
                if (iLength > sMessage.size())
                    continue;
                SCOPED_TRACE(std::to_string(shape.iGroup) + " " + std::to_string(shape.iType) +
                             " " + std::to_string(iLength));
                ExpectServedWithTheRest(sMessage.substr(0, iLength), m_sBefore);
            }
        }
    }
    ExpectWell();
}

TEST_F(IpcHostile, Header_CutShortAnywhere_GoesOnWithWhatWasThere)
{
    for (const Shape& shape : SHAPES)
        for (size_t iLength = 1; iLength <= HEADER_LENGTH; iLength++) {
            SCOPED_TRACE(std::to_string(shape.iType) + " " + std::to_string(iLength));
            ExpectServedWithTheRest(Header(shape.iGroup, shape.iType).substr(0, iLength),
                                    m_sBefore);
        }
}

TEST_F(IpcHostile, MessageInTwoParts_IsServedAfterTheFirst)
{
    CIpcPeer peer(m_sChannel);
    peer.Send(Request(9).substr(0, 6));
    EXPECT_TRUE(m_pServer->ReadRequest(m_cError));
    peer.Leave();
    EXPECT_EQ(TakeEffects(), (Lines{"IsSessionExists|"}));
    ExpectWell();
}

// ---- Texts without an end ----

TEST_F(IpcHostile, TextsWithoutAnEnd_EndWithTheirFields)
{
    const std::string sFull(WHOLE_BUFFER - HEADER_LENGTH, 'x');
    const std::string sText(255, 'x');
    const std::string sPath(1023, 'x');
    const std::string sNumber32 = std::to_string(0x78787878);
    const std::string sNumber64 = std::to_string(0x7878787878787878);
    const std::vector<std::pair<int, std::string>> vRequests = {
        {6, "RemoveMountPoint|" + sPath},
        {7, "AddSessionInfo|" + sText + "|" + sPath},
        {8, "RemoveSessionInfo|" + sText},
        {9, "IsSessionExists|" + sText},
        {10, "OpenRedirectedFile|" + sPath + "|" + sNumber64 + "|1|" + sNumber32 + "|" + sNumber32},
        {11, "CloseRedirectedFile|" + sPath},
        {12, "CloseAllRedirectedFiles|" + sPath},
        {13, "AddRedirectedFileSegment|" + sPath + "|" + sPath + "|" + sNumber64 + "|" + sNumber64 +
                 "|" + sNumber64},
        {14, "ExportRedirectedFile|" + sPath + "|" + sPath},
        {15, "ExportRedirectedFileInfo|" + sPath + "|" + sPath + "|1"},
        {16, "CloseCachedFileHandle|" + sPath},
        {17, "CloseAllCachedFileHandles|" + sPath},
        {19, "GetMountInfo|svr," + sText + ",0|1|1"},
        {20, "GetSessionInfo|svr," + sText + ",0|1"},
        {21, "RunTestMode|svr," + sText + ",0|" + std::string(3071, 'x') + "|" + sNumber64},
        {25, "GetVSphereInfo|svr," + sText + ",0|1"},
        {26, "AddVSphereInfo|" + sText + "|" + sText + "|" + sText + "|" + sText + "|" + sText},
        {27, "RemoveVSphereInfo|" + sText},
    };
    for (const auto& [iType, sCall] : vRequests) {
        const std::string sReply = Ask(Request(iType) + sFull);
        EXPECT_EQ(sReply.size(), 20U) << iType;
        EXPECT_EQ(TakeEffects(), (Lines{sCall}));
    }
    EXPECT_TRUE(SameReply(Ask(Request(5) + "/" + sFull.substr(1)), BoolReply(true)));
    EXPECT_EQ(TakeEffects(), (Lines{"raw|svr| mount1 - /" + sPath.substr(1) + " : " + sText +
                                    " () [" + sText + "]"}));
}

TEST_F(IpcHostile, TextsWithoutAnEnd_ForTheHost_EndWithTheirFields)
{
    const std::string sFull(WHOLE_BUFFER - HEADER_LENGTH, 'x');
    const std::string sText(255, 'x');
    const std::string sPath(1023, 'x');
    const std::string sNumber32 = std::to_string(0x78787878);
    const std::string sNumber64 = std::to_string(0x7878787878787878);
    const std::vector<std::pair<int, std::string>> vCallbacks = {
        {1, "info|" + sText + "|" + std::string(2047, 'x')},
        {2, "update|" + sText + "|" + sPath + "|1|" + sNumber64 + "|1|" + sNumber64 + "|1|" +
                sNumber64},
        {3, "remove|" + sText + "|" + sPath},
        {4, "rename|" + sText + "|" + sPath + "|" + sPath},
        {5, "write|" + sText + "|" + sPath + "|" + sNumber64 + "|" + sNumber32 + "|" + sNumber32},
    };
    for (const auto& [iType, sEffect] : vCallbacks) {
        EXPECT_EQ(Ask(Header(GROUP_CALLBACK, iType) + sFull).size(), 20U) << iType;
        EXPECT_EQ(TakeEffects(), (Lines{sEffect}));
    }
}

TEST_F(IpcHostile, VersionWithoutAnEnd_IsTracedUpToItsEnd)
{
    m_main.GetRuntimeParam()->SetLogControl(LOG_CONTROL_IPC);
    Ask(Int32(GROUP_REQUEST) + Int32(99) + std::string(WHOLE_BUFFER - 8, 'v'));
    EXPECT_EQ(m_recorder.Lines()[0], "info|svr|[IpcServer.ReadRequest] Request action group (type "
                                     "= 99, ver = vvvvvvv, dataLen = 4096)");
}

TEST_F(IpcHostile, TextsWithFormatsInThem_AreOnlyTexts)
{
    const std::string sText = "%s%n%1000d";
    EXPECT_TRUE(SameReply(Ask(Request(5) + Field("/f", PATH_FIELD) + Field(sText, TEXT_FIELD) +
                              Field(sText, TEXT_FIELD)),
                          BoolReply(true)));
    EXPECT_EQ(TakeEffects(), (Lines{"raw|svr| mount1 - /f : " + sText + " () [" + sText + "]"}));
    Ask(Header(GROUP_CALLBACK, 1) + Field(sText, TEXT_FIELD) + Field(sText, MESSAGE_FIELD) +
        Int32(2));
    EXPECT_EQ(TakeEffects(), (Lines{"error|" + sText + "|" + sText}));
    m_main.SetResult(0, sText);
    EXPECT_TRUE(SameReply(Ask(Request(4) + Pad(20)), ExptReply(sText)));
}

// ---- Numbers at their ends ----

TEST_F(IpcHostile, Numbers_AtTheirEnds_ArriveAsTheyAre)
{
    const std::string sPath = Field("f", PATH_FIELD);
    for (const int64_t iValue : {int64_t(LLONG_MIN), int64_t(-1), int64_t(0), int64_t(LLONG_MAX)}) {
        const std::string sValue = std::to_string(iValue);
        Ask(Request(13) + sPath + sPath + Int64(iValue) + Int64(iValue) + Int64(iValue));
        EXPECT_EQ(TakeEffects(),
                  (Lines{"AddRedirectedFileSegment|f|f|" + sValue + "|" + sValue + "|" + sValue}));
        Ask(Request(21) + Field("", TEXT_FIELD) + Field("d", TEST_PATH_FIELD) + Int64(iValue));
        EXPECT_EQ(TakeEffects(), (Lines{"RunTestMode|svr,,0|d|" + sValue}));
    }
    for (const int iValue : {INT_MIN, -1, 0, INT_MAX}) {
        Ask(Request(18) + Int32(iValue));
        EXPECT_EQ(TakeEffects(), (Lines{"SetLogControl|" + std::to_string(iValue)}));
    }
}
