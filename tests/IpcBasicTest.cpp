#include "IpcBasic.h"

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "IpcBytes.h"
#include "UtilitiesFixture.h"

namespace {

constexpr int LOG_IPC = 0x40;  // the only bit that makes trace lines
constexpr int LOG_REST = 0x3FF & ~LOG_IPC;

// Numbers that are no type, whatever the group.
constexpr int NO_TYPES[] = {-1, 28, 29, 99, 256, 65536, INT_MAX, INT_MIN};

struct TypeLength {
    int iType;
    long lLength;  // bytes
};

constexpr TypeLength REQUESTS[] = {
    {0, 16},    {1, 16},    {2, 16},    {3, 16},    {4, 36},    {5, 1552},  {6, 1040},
    {7, 1296},  {8, 272},   {9, 272},   {10, 1064}, {11, 1040}, {12, 1040}, {13, 2088},
    {14, 2064}, {15, 2068}, {16, 1040}, {17, 1040}, {18, 20},   {19, 276},  {20, 276},
    {21, 3352}, {22, 16},   {23, 16},   {24, 20},   {25, 276},  {26, 1296}, {27, 272},
};
constexpr TypeLength REPLIES[] = {{0, 16}, {1, 20}, {2, 24}, {3, 20}, {4, 2064}, {5, 2064}};
constexpr TypeLength CALLBACKS[] = {{0, 16}, {1, 2324}, {2, 1344}, {3, 1296}, {4, 2320}, {5, 1312}};

// Makes what every channel's end does with messages open to a test.
class CBasic : public CIpcBasic {
public:
    CBasic(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam)
        : CIpcBasic(pUtilities, pRuntimeParam)
    {
    }
};

// Like one that relays lines to another process: it takes those that come with a context.
class CRelay : public CUtilities {
public:
    using CUtilities::LogError;
    using CUtilities::LogInfo;
    using CUtilities::LogRaw;
    void LogInfo(CRuntimeParam*, char* pcText) override { m_vTaken.emplace_back(pcText); }
    void LogError(CRuntimeParam*, char* pcText) override { m_vTaken.emplace_back(pcText); }
    void LogRaw(CRuntimeParam*, char* pcText) override { m_vTaken.emplace_back(pcText); }

    Lines m_vTaken;
};

using Initializer = void (CIpcBasic::*)(IpcDataBuf*, int);

class IpcBasic : public CUtilitiesFixture {
protected:
    // A buffer that an earlier message has been in.
    IpcDataBuf& UsedBuffer()
    {
        memset(m_data.cBuf, 0xA5, sizeof(m_data.cBuf));
        m_data.lDataLen = 77;
        return m_data;
    }

    void ExpectHeader(Initializer initialize, int iType, const std::string& sHeader, long lLength)
    {
        IpcDataBuf& data = UsedBuffer();
        (m_basic.*initialize)(&data, iType);
        EXPECT_EQ(data.lDataLen, lLength) << "type " << iType;
        const std::string sWanted =
            sHeader + std::string(sizeof(data.cBuf) - 16, static_cast<char>(0xA5));
        EXPECT_TRUE(SameMessage(std::string(data.cBuf, sizeof(data.cBuf)), sWanted))
            << "type " << iType;
    }

    template <size_t COUNT>
    void ExpectHeaders(Initializer initialize, int iGroup, const TypeLength (&types)[COUNT])
    {
        for (const auto& [iType, lLength] : types)
            ExpectHeader(initialize, iType, Header(iGroup, iType), lLength);
        ExpectHeader(initialize, static_cast<int>(COUNT), Header(iGroup, 0), 16);
        for (const int iType : NO_TYPES)
            ExpectHeader(initialize, iType, Header(iGroup, 0), 16);
    }

    // The trace of a message.
    Lines Trace(const std::string& sMessage, long lLength)
    {
        m_recorder.Clear();
        memcpy(UsedBuffer().cBuf, sMessage.data(), sMessage.size());
        m_data.lDataLen = lLength;
        m_basic.PrintData(&m_argu, &m_data);
        return m_recorder.Lines();
    }

    IpcDataBuf m_data = {};
    CBasic m_basic{&m_utilities, &m_param};
};

}  // namespace

// ---- Headers ----

TEST_F(IpcBasic, InitialRequestData_EveryType_HasItsHeaderAndLength)
{
    ASSERT_EQ(std::size(REQUESTS), 28U);
    ExpectHeaders(&CIpcBasic::InitialRequestData, 2, REQUESTS);
}

TEST_F(IpcBasic, InitialReplyData_EveryType_HasItsHeaderAndLength)
{
    ASSERT_EQ(std::size(REPLIES), 6U);
    ExpectHeaders(&CIpcBasic::InitialReplyData, 1, REPLIES);
}

TEST_F(IpcBasic, InitialCallbackData_EveryType_HasItsHeaderAndLength)
{
    ASSERT_EQ(std::size(CALLBACKS), 6U);
    ExpectHeaders(&CIpcBasic::InitialCallbackData, 3, CALLBACKS);
}

TEST_F(IpcBasic, InitialReplyData_TypeZeroOrBehindTheLast_IsAHeaderOfTypeZero)
{
    for (const int iType : {0, 6}) {
        m_basic.InitialReplyData(&UsedBuffer(), iType);
        EXPECT_EQ(m_data.lDataLen, 16);
        EXPECT_EQ(std::string(m_data.cBuf, 16),
                  std::string("\x01\0\0\0\0\0\0\0\x31\x2E\x32\0\0\0\0\0", 16));
    }
}

TEST_F(IpcBasic, InitialRequestData_TypeBehindTheLast_IsAHeaderOfTypeZero)
{
    for (const int iType : {28, 29, INT_MAX}) {
        m_basic.InitialRequestData(&UsedBuffer(), iType);
        EXPECT_EQ(m_data.lDataLen, 16);
        EXPECT_EQ(std::string(m_data.cBuf, 16),
                  std::string("\x02\0\0\0\0\0\0\0\x31\x2E\x32\0\0\0\0\0", 16));
    }
}

TEST_F(IpcBasic, Messages_HaveTheBytesThatOtherBuildsSend)
{
    m_basic.InitialRequestData(&UsedBuffer(), 1);
    EXPECT_EQ(std::string(m_data.cBuf, 16),
              std::string("\x02\0\0\0\x01\0\0\0\x31\x2E\x32\0\0\0\0\0", 16));

    m_basic.InitialReplyData(&UsedBuffer(), 1);
    AsRecord<IpcReply_Bool>(&m_data)->bVal = 1;
    EXPECT_EQ(std::string(m_data.cBuf, 17),
              std::string("\x01\0\0\0\x01\0\0\0\x31\x2E\x32\0\0\0\0\0\x01", 17));
    EXPECT_EQ(m_data.lDataLen, 20);

    m_basic.InitialReplyData(&UsedBuffer(), 3);
    AsRecord<IpcReply_Int>(&m_data)->iVal = 3;
    EXPECT_EQ(std::string(m_data.cBuf, 20),
              std::string("\x01\0\0\0\x03\0\0\0\x31\x2E\x32\0\0\0\0\0\x03\0\0\0", 20));
    EXPECT_EQ(m_data.lDataLen, 20);
}

// ---- Replies and callbacks, whose fields a client never writes ----

TEST_F(IpcBasic, Replies_HaveTheirFieldsInPlace)
{
    m_data = {};
    m_basic.InitialReplyData(&m_data, 2);
    AsRecord<IpcReply_Long>(&m_data)->lVal = -0x123456789ALL;
    EXPECT_TRUE(SameMessage(std::string(m_data.cBuf, 24), LongReply(-0x123456789ALL)));

    m_data = {};
    m_basic.InitialReplyData(&m_data, 5);
    EXPECT_TRUE(SetField(AsRecord<IpcReply_Message>(&m_data)->cMsg, "text"));
    EXPECT_TRUE(SameMessage(std::string(m_data.cBuf, 2064), MsgReply("text")));
}

TEST_F(IpcBasic, MessageCallback_HasItsFieldsInPlace)
{
    m_data = {};
    m_basic.InitialCallbackData(&m_data, 1);
    auto* pMessage = AsRecord<IpcCb_LogMessage>(&m_data);
    SetField(pMessage->cID, "id");
    SetField(pMessage->cMsg, "line");
    pMessage->iType = 2;
    EXPECT_TRUE(
        SameMessage(std::string(m_data.cBuf, static_cast<size_t>(m_data.lDataLen)),
                    Header(GROUP_CALLBACK, 1) + Field("id", 256) + Field("line", 2048) + Int32(2)));
}

TEST_F(IpcBasic, AttributeCallback_HasItsFieldsInPlace)
{
    m_data = {};
    m_basic.InitialCallbackData(&m_data, 2);
    auto* pAttributes = AsRecord<IpcCb_SetRedirectedFileAttributes>(&m_data);
    SetField(pAttributes->cID, "id");
    SetField(pAttributes->cPath, "/file");
    pAttributes->bSize = 1;
    pAttributes->iSize = 0x1122334455667788ULL;
    pAttributes->bAccessTime = 2;
    pAttributes->lAccessTimeSec = 0x99;
    pAttributes->bLastModifiedTime = 3;
    pAttributes->lLastModifiedTimeSec = 0xFFFFFFFFFFFFFFFFULL;
    EXPECT_TRUE(SameMessage(std::string(m_data.cBuf, static_cast<size_t>(m_data.lDataLen)),
                            Header(GROUP_CALLBACK, 2) + Field("id", 256) + Field("/file", 1024) +
                                Flag(1) + Pad(7) + Int64(0x1122334455667788LL) + Flag(2) + Pad(7) +
                                Int64(0x99) + Flag(3) + Pad(7) + Int64(-1),
                            {{1297, 1304}, {1313, 1320}, {1329, 1336}}));
}

TEST_F(IpcBasic, RemoveAndRenameCallbacks_HaveTheirFieldsInPlace)
{
    m_data = {};
    m_basic.InitialCallbackData(&m_data, 3);
    auto* pRemoved = AsRecord<IpcCb_RemoveRedirectedFile>(&m_data);
    SetField(pRemoved->cID, "id");
    SetField(pRemoved->cPath, "/file");
    EXPECT_TRUE(SameMessage(std::string(m_data.cBuf, static_cast<size_t>(m_data.lDataLen)),
                            Header(GROUP_CALLBACK, 3) + Field("id", 256) + Field("/file", 1024)));

    m_data = {};
    m_basic.InitialCallbackData(&m_data, 4);
    auto* pRenamed = AsRecord<IpcCb_RenameRedirectedFile>(&m_data);
    SetField(pRenamed->cID, "id");
    SetField(pRenamed->cPathFm, "/from");
    SetField(pRenamed->cPathTo, "/to");
    EXPECT_TRUE(SameMessage(std::string(m_data.cBuf, static_cast<size_t>(m_data.lDataLen)),
                            Header(GROUP_CALLBACK, 4) + Field("id", 256) + Field("/from", 1024) +
                                Field("/to", 1024)));
}

TEST_F(IpcBasic, WriteCallback_HasItsFieldsInPlace)
{
    m_data = {};
    m_basic.InitialCallbackData(&m_data, 5);
    auto* pWritten = AsRecord<IpcCb_WriteRedirectedFile>(&m_data);
    SetField(pWritten->cID, "id");
    SetField(pWritten->cPath, "/file");
    pWritten->iSeek = 0x1122334455667788ULL;
    pWritten->iSeekType = -2;
    pWritten->iLen = 0x99AABBCC;
    EXPECT_TRUE(SameMessage(std::string(m_data.cBuf, static_cast<size_t>(m_data.lDataLen)),
                            Header(GROUP_CALLBACK, 5) + Field("id", 256) + Field("/file", 1024) +
                                Int64(0x1122334455667788LL) + Int32(-2) + Int32(0x99AABBCC)));
}

// ---- Text fields ----

TEST_F(IpcBasic, SetField_CutsAndTerminates)
{
    char cField[4];
    EXPECT_TRUE(SetField(cField, "abc"));
    EXPECT_EQ(std::string(cField, 4), std::string("abc\0", 4));
    EXPECT_FALSE(SetField(cField, "abcd"));
    EXPECT_EQ(std::string(cField, 4), std::string("abc\0", 4));
    EXPECT_TRUE(SetField(cField, ""));
    EXPECT_STREQ(cField, "");
    cField[0] = 'x';
    EXPECT_TRUE(SetField(cField, nullptr));
    EXPECT_STREQ(cField, "");
}

TEST_F(IpcBasic, GetField_TerminatesWhatCameWithoutAnEnd)
{
    char cField[4] = {'a', 'b', 'c', 'd'};
    EXPECT_STREQ(GetField(cField), "abc");
}

// ---- Trace ----

TEST_F(IpcBasic, PrintData_EachGroup_HasItsLine)
{
    m_param.SetLogControl(LOG_IPC);
    EXPECT_EQ(Trace(Header(2, 5), 1552), (Lines{"info|host|[Test] Request action group (type = 5, "
                                                "ver = 1.2, dataLen = 1552)"}));
    EXPECT_EQ(Trace(Header(3, 4, "1.0"), 2320),
              (Lines{"info|host|[Test] Callback action group (type = 4, ver = 1.0, "
                     "dataLen = 2320)"}));
    EXPECT_EQ(Trace(Header(1, -7, ""), 0),
              (Lines{"info|host|[Test] Reply action group (type = -7, ver = , dataLen = 0)"}));
}

TEST_F(IpcBasic, PrintData_UnknownGroup_SaysSo)
{
    m_param.SetLogControl(LOG_IPC);
    EXPECT_EQ(Trace(Header(4, 3), 16), (Lines{"info|host|[Test] Unknown action group: 4 (type = 3, "
                                              "ver = 1.2, dataLen = 16)"}));
    EXPECT_EQ(Trace(Header(0, 0), 16), (Lines{"info|host|[Test] Unknown action group: 0 (type = 0, "
                                              "ver = 1.2, dataLen = 16)"}));
    EXPECT_EQ(Trace(Header(-1, INT_MIN), 4096),
              (Lines{"info|host|[Test] Unknown action group: -1 (type = -2147483648, ver = 1.2, "
                     "dataLen = 4096)"}));
}

TEST_F(IpcBasic, PrintData_OtherBitsThanItsOwn_IsSilent)
{
    m_param.SetLogControl(LOG_REST);
    for (int iGroup = 0; iGroup <= 4; iGroup++)
        EXPECT_EQ(Trace(Header(iGroup, 1), 16), Lines{});
}

TEST_F(IpcBasic, PrintData_VersionWithoutEnd_IsCutAndTheMessageStaysAsItIs)
{
    m_param.SetLogControl(LOG_IPC);
    const std::string sMessage = Header(2, 1, "12345678") + "behind";
    EXPECT_EQ(Trace(sMessage, 22), (Lines{"info|host|[Test] Request action group (type = 1, "
                                          "ver = 1234567, dataLen = 22)"}));
    EXPECT_EQ(std::string(m_data.cBuf, sMessage.size()), sMessage);
}

// ---- Lines ----

TEST_F(IpcBasic, LogInfoAndLogError_GoOutUnderTheContextsID)
{
    m_basic.LogInfo("[%s] %d", "Label", 42);
    m_basic.LogError("%s", "100%s");
    EXPECT_EQ(m_recorder.Lines(), (Lines{"info|host|[Label] 42", "error|host|100%s"}));
}

TEST_F(IpcBasic, LogInfoAndLogError_LongText_IsCut)
{
    const std::string sLong(3000, 'x');
    m_basic.LogInfo("%s", sLong.c_str());
    m_basic.LogError("%s", sLong.c_str());
    const std::string sCut(2047, 'x');
    EXPECT_EQ(m_recorder.Lines(), (Lines{"info|host|" + sCut, "error|host|" + sCut}));
}

TEST_F(IpcBasic, Lines_PassByARelay)
{
    CRelay relay;
    relay.SetCallback(&m_recorder);
    m_param.SetLogControl(LOG_IPC);
    CBasic basic(&relay, &m_param);
    basic.LogInfo("%s", "one");
    basic.LogError("%s", "two");
    basic.InitialRequestData(&m_data, 1);
    basic.PrintData(&m_argu, &m_data);
    EXPECT_EQ(relay.m_vTaken, Lines{});
    EXPECT_EQ(m_recorder.Lines(), (Lines{"info|host|one", "error|host|two",
                                         "info|host|[Test] Request action group (type = 1, "
                                         "ver = 1.2, dataLen = 16)"}));
}

// ---- Channels ----

TEST_F(IpcBasic, GetIpcChannel_PutsTheNameBehindTheCommonStart)
{
    char cChannel[IPC_CHANNEL_SIZE];
    GetIpcChannel(cChannel, "server");
    EXPECT_STREQ(cChannel, "/tmp/nfs-server");
    GetIpcChannel(cChannel, "");
    EXPECT_STREQ(cChannel, "/tmp/nfs-");
    GetIpcChannel(cChannel, "a%sb");
    EXPECT_STREQ(cChannel, "/tmp/nfs-a%sb");
}

TEST_F(IpcBasic, GetIpcChannel_LongName_IsCutAt254Bytes)
{
    char cChannel[256];
    cChannel[255] = 'q';
    GetIpcChannel(cChannel, std::string(300, 'n').c_str());
    EXPECT_EQ(std::string(cChannel), "/tmp/nfs-" + std::string(245, 'n'));
    EXPECT_EQ(cChannel[255], 'q');
    GetIpcChannel(cChannel, std::string(245, 'n').c_str());
    EXPECT_EQ(std::string(cChannel), "/tmp/nfs-" + std::string(245, 'n'));
}
