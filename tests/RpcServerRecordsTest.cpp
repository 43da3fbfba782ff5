// How the RPC server takes a stream apart: calls in pieces, several at once, and records whose mark
// or lengths are wrong.
#include "RpcServer.h"

#include <algorithm>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>

#include <gtest/gtest.h>

#include "RpcServerFixture.h"

namespace {

std::string WithMark(uint32_t iMark, const std::string& sRecord)
{
    std::string sResult = sRecord;
    PutWord(&sResult, 0, iMark);
    return sResult;
}

class RpcServerRecordsTest : public CRpcServerFixture {};

// One connection whose pieces are received one by one, also where no line tells of them.
class CPieces {
public:
    explicit CPieces(CRpcServer* pRpc)
    {
        int iPair[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, iPair), 0);
        m_Client.Reset(iPair[0]);
        m_iServer = iPair[1];
        EXPECT_TRUE(m_Connection.Open(m_iServer, pRpc, nullptr));
    }

    // Sends a piece and waits until the server has taken it in.
    void Send(const std::string& sPiece)
    {
        ASSERT_EQ(send(m_Client.Get(), sPiece.data(), sPiece.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(sPiece.size()));
        for (int iWaiting = 1; iWaiting != 0; std::this_thread::yield())
            ASSERT_EQ(ioctl(m_iServer, FIONREAD, &iWaiting), 0);
    }

    std::string Receive(size_t iLength)
    {
        std::string sBytes(iLength, '\0');
        const ssize_t iReceived = recv(m_Client.Get(), sBytes.data(), iLength, MSG_WAITALL);
        sBytes.resize(static_cast<size_t>(std::max(iReceived, ssize_t{0})));
        return sBytes;
    }

private:
    CAutoFd m_Client;
    int m_iServer = -1;  // owned by m_Connection
    CSocket m_Connection{SOCKET_STREAM, PROG};
};

std::string EchoReply(uint32_t iWord, uint32_t iXid)
{
    return CXdr()
        .Word(RECORD_MARK_LAST | 28)
        .Word(iXid)
        .Word(WIRE_REPLY)
        .Word(WIRE_ACCEPTED)
        .Word(0)
        .Word(0)
        .Word(ACCEPT_SUCCESS)
        .Word(iWord)
        .Bytes();
}

}  // namespace

// ---- Calls in pieces and in company ----

TEST_F(RpcServerRecordsTest, CallSplitInTwoAnywhere_IsAnsweredOnceAndOnlyWhenComplete)
{
    const std::string sRecord = EchoCall(0xBEEF, 30).Record();
    CTcpClient client(PORT);
    for (size_t iCut = 1; iCut < sRecord.size(); iCut++) {
        m_Log.Clear();
        ASSERT_TRUE(client.Send(sRecord.substr(0, iCut)));
        // The line comes when the server is done with the first part.
        ASSERT_TRUE(m_Log.WaitFor(iCut < TCP_HEADER_SIZE
                                      ? "[RpcServer.SocketReceived] Cannot find valid header!!"
                                      : "[RpcServer.SocketReceived] Output buf size(0)"))
            << iCut;
        EXPECT_EQ(m_Log.Contains("[RpcServer.SocketReceived] Reset input buffer postion"),
                  iCut >= TCP_HEADER_SIZE);
        EXPECT_FALSE(client.HasBytes()) << iCut;
        ASSERT_TRUE(client.Send(sRecord.substr(iCut)));
        ExpectOnlyEcho(&client, 0xBEEF, 30);
    }
}

TEST_F(RpcServerRecordsTest, CallSplitInsideItsCredential_DoesNotTakeItForArguments)
{
    RpcCall call = EchoCall(0xBEEF, 30);
    call.iCredentialFlavor = AUTH_SYS;
    call.sCredential = AuthSysBody("client", 1000, 1000);
    const std::string sRecord = call.Record();
    const size_t iHeader = TCP_HEADER_SIZE + call.sCredential.size();
    CTcpClient client(PORT);
    for (size_t iCut = TCP_HEADER_SIZE; iCut < sRecord.size(); iCut++) {
        m_Log.Clear();
        ASSERT_TRUE(client.Send(sRecord.substr(0, iCut)));
        ASSERT_TRUE(m_Log.WaitFor("[RpcServer.SocketReceived] Output buf size(")) << iCut;
        ASSERT_TRUE(m_Log.Contains("[RpcServer.SocketReceived] Output buf size(0)")) << iCut;
        ASSERT_EQ(m_Prog.m_iArguments, iCut < iHeader ? 0 : iCut - iHeader) << iCut;
        ASSERT_TRUE(client.Send(sRecord.substr(iCut)));
        ExpectOnlyEcho(&client, 0xBEEF, 30);
    }
}

TEST_F(RpcServerRecordsTest, CallInFortySends_IsAnsweredOnce)
{
    const std::string sData(36, 'd');
    const std::string sRecord = FakeCall(FAKE_OPAQUE, 31, CXdr().Opaque(sData).Bytes()).Record();
    CTcpClient client(PORT);
    const size_t iSends = 40;
    for (size_t i = 0; i < iSends; i++) {
        const size_t iFrom = sRecord.size() * i / iSends;
        const size_t iTo = sRecord.size() * (i + 1) / iSends;
        ASSERT_TRUE(client.Send(sRecord.substr(iFrom, iTo - iFrom)));
        ASSERT_TRUE(m_Log.WaitFor("Input buf size(" + std::to_string(iTo) + ")")) << i;
    }
    CReply reply = client.ReceiveReply();
    ASSERT_TRUE(reply.IsSuccess(31));
    EXPECT_EQ(reply.Word(), sData.size());
    EXPECT_TRUE(client.IsOtherwiseSilent(PROG, 1));
}

TEST_F(RpcServerRecordsTest, ManyCallsInOneSend_AreAllAnsweredInOrder)
{
    std::string sRecords;
    for (uint32_t i = 0; i < 200; i++)
        sRecords += EchoCall(i * 3, 1000 + i).Record();
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send(sRecords));
    for (uint32_t i = 0; i < 200; i++) {
        CReply reply = client.ReceiveReply();
        ASSERT_TRUE(reply.IsSuccess(1000 + i));
        EXPECT_EQ(reply.Word(), i * 3);
    }
    EXPECT_TRUE(client.IsOtherwiseSilent(PROG, 1));
}

TEST_F(RpcServerRecordsTest, CallBehindARefusedOne_WaitsForTheNextReceive)
{
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send(FakeCall(FAKE_NOTIMP, 32).Record() + EchoCall(1, 33).Record()));
    EXPECT_TRUE(client.ReceiveReply().IsAccepted(32, ACCEPT_PROC_UNAVAIL));

    ASSERT_TRUE(client.Send(EchoCall(2, 34).Record()));
    EXPECT_TRUE(client.ReceiveReply().IsSuccess(33));
    EXPECT_TRUE(client.ReceiveReply().IsSuccess(34));
    // Both were in the buffer when the third arrived.
    EXPECT_TRUE(m_Log.Contains("[RpcServer.SocketReceived] Input buf size(96) pos(0)"));
    EXPECT_TRUE(client.IsOtherwiseSilent(PROG, 1));
}

TEST_F(RpcServerRecordsTest, TwoCallsInOneDatagram_OnlyTheFirstIsAnswered)
{
    CUdpClient client(PORT);
    ASSERT_TRUE(client.Send(EchoCall(1, 35).Datagram() + EchoCall(2, 36).Datagram()));
    EXPECT_TRUE(client.ReceiveReply().IsSuccess(35));
    EXPECT_TRUE(client.IsOtherwiseSilent(PROG, 1));
    EXPECT_EQ(m_Prog.m_iCalls, 2);  // the first one and the probe
}

TEST_F(RpcServerRecordsTest, EmptyDatagram_DoesNotEndTheService)
{
    CUdpClient client(PORT);
    for (int i = 0; i < 3; i++) {
        ASSERT_TRUE(client.Send(""));
        EXPECT_TRUE(client.Call(EchoCall(1, 37)).IsSuccess(37));
    }
}

TEST_F(RpcServerRecordsTest, HalvesOfACallFromTwoPeers_AreNotPutTogether)
{
    const std::string sDatagram = EchoCall(1, 38).Datagram();
    CUdpClient first(PORT, "127.0.0.4");
    CUdpClient second(PORT, "127.0.0.5");
    ASSERT_TRUE(first.Send(sDatagram.substr(0, 20)));
    ASSERT_TRUE(second.Send(sDatagram.substr(20)));
    EXPECT_TRUE(second.IsOtherwiseSilent(PROG, 1));
    EXPECT_TRUE(first.IsOtherwiseSilent(PROG, 1));
    EXPECT_FALSE(m_Log.Contains("Skipped"));  // the probes met an empty buffer
    EXPECT_EQ(m_Prog.m_iCalls, 2);
}

TEST_F(RpcServerRecordsTest, CallThatIsShortInItsDatagram_GetsNoAnswerAndLeavesNothing)
{
    CUdpClient client(PORT);
    ASSERT_TRUE(client.Send(FakeCall(FAKE_ECHO, 39).Datagram()));
    ASSERT_TRUE(m_Log.WaitFor("Reset input buffer postion"));
    EXPECT_TRUE(client.IsOtherwiseSilent(PROG, 1));
    EXPECT_EQ(m_Prog.m_iCalls, 2);
}

TEST_F(RpcServerRecordsTest, GarbageInDatagrams_DoesNotFillTheBuffer)
{
    CUdpClient client(PORT);
    const std::string sGarbage(60000, 'g');
    for (size_t i = 1; i <= 20; i++) {  // more than the buffer holds
        ASSERT_TRUE(client.Send(sGarbage));
        ASSERT_TRUE(m_Log.WaitFor("Cannot find valid header!!", i));
    }
    EXPECT_TRUE(client.Call(EchoCall(1, 40)).IsSuccess(40));
    EXPECT_EQ(m_Log.Count("Input buf size(60000) pos(0)"), 20U);
}

TEST_F(RpcServerRecordsTest, WholeCallBehindAShortOneInADatagram_OnlyTheShortOneIsAnswered)
{
    CUdpClient client(PORT);
    const std::string sShort = FakeCall(FAKE_OPAQUE, 58, CXdr().Word(400).Bytes()).Datagram();
    ASSERT_TRUE(client.Send(sShort + EchoCall(1, 59).Datagram()));
    const CReply reply = client.ReceiveReply();
    EXPECT_TRUE(reply.IsSuccess(58));
    EXPECT_EQ(reply.Left(), 0U);
    EXPECT_TRUE(client.IsOtherwiseSilent(PROG, 1));
    EXPECT_EQ(m_Prog.m_iCalls, 2);
}

// ---- Record marks ----

TEST_F(RpcServerRecordsTest, MarkTooSmallForAHeader_SaysNothing)
{
    for (const uint32_t iMark : {0U, RECORD_MARK_LAST, RECORD_MARK_LAST | 1, 39U}) {
        CTcpClient client(PORT);
        ASSERT_TRUE(client.Send(WithMark(iMark, EchoCall(8, 41).Record())));
        ExpectOnlyEcho(&client, 8, 41);
    }
}

TEST_F(RpcServerRecordsTest, MarkWithoutLastBit_IsAnsweredAllTheSame)
{
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send(WithMark(TCP_HEADER_SIZE, EchoCall(8, 42).Record())));
    ExpectOnlyEcho(&client, 8, 42);
}

TEST_F(RpcServerRecordsTest, MarkBeyondTheArguments_DoesNotKeepACallWaiting)
{
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send(WithMark(0xFFFFFFFF, EchoCall(8, 43).Record())));
    ExpectOnlyEcho(&client, 8, 43);
}

TEST_F(RpcServerRecordsTest, LengthBeyondItsRecord_DoesNotReachIntoTheNextCall)
{
    // The first call claims 40 bytes and has none; those of the second must not be taken for them.
    CTcpClient client(PORT);
    const std::string sShort = FakeCall(FAKE_OPAQUE, 44, CXdr().Word(40).Bytes()).Record();
    ASSERT_TRUE(client.Send(sShort + EchoCall(1, 45).Record()));
    const CReply reply = client.ReceiveReply();
    EXPECT_TRUE(reply.IsSuccess(44));
    EXPECT_EQ(reply.Left(), 0U);  // no results: the program did not get that far

    ASSERT_TRUE(client.Send(EchoCall(2, 46).Record()));
    EXPECT_TRUE(client.ReceiveReply().IsSuccess(45));
    EXPECT_TRUE(client.ReceiveReply().IsSuccess(46));
    EXPECT_TRUE(client.IsOtherwiseSilent(PROG, 1));
}

TEST_F(RpcServerRecordsTest, TruncatedCallWithNothingBehindIt_IsAnsweredWhenTheNextCallComes)
{
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send(FakeCall(FAKE_OPAQUE, 47, CXdr().Word(0xFFFFFFFF).Bytes()).Record()));
    ASSERT_TRUE(m_Log.WaitFor("[RpcServer.SocketReceived] Output buf size(0)"));
    EXPECT_FALSE(client.HasBytes());

    ASSERT_TRUE(client.Send(EchoCall(1, 48).Record()));
    EXPECT_TRUE(client.ReceiveReply().IsSuccess(47));
    ASSERT_TRUE(client.Send(EchoCall(2, 49).Record()));
    EXPECT_TRUE(client.ReceiveReply().IsSuccess(48));
    EXPECT_TRUE(client.ReceiveReply().IsSuccess(49));
}

TEST_F(RpcServerRecordsTest, TruncatedCall_KeepsTheResultsThatItWrote)
{
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send(FakeCall(FAKE_TRUNCATED, 50).Record() + EchoCall(1, 51).Record()));
    CReply reply = client.ReceiveReply();
    ASSERT_TRUE(reply.IsSuccess(50));
    EXPECT_EQ(reply.Word(), 0xDEADBEEFU);
    EXPECT_EQ(reply.Word(), 0xDEADBEEFU);
    EXPECT_EQ(reply.Left(), 0U);
}

TEST_F(RpcServerRecordsTest, CallInsideTheDataOfAnUnfinishedRecord_IsNotACall)
{
    // File data may hold anything, also a call of its own: while the record is on its way and when
    // it is there.
    const std::string sData =
        std::string(50, 'a') + EchoCall(1, 52).Record() + std::string(50, 'b');
    const std::string sRecord = FakeCall(FAKE_OPAQUE, 53, CXdr().Opaque(sData).Bytes()).Record();
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send(sRecord.substr(0, sRecord.size() - 20)));
    ASSERT_TRUE(m_Log.WaitFor("[RpcServer.SocketReceived] Output buf size(0)"));
    EXPECT_FALSE(client.HasBytes());
    ASSERT_TRUE(client.Send(sRecord.substr(sRecord.size() - 20)));
    CReply reply = client.ReceiveReply();
    ASSERT_TRUE(reply.IsSuccess(53));
    EXPECT_EQ(reply.Word(), sData.size());
    EXPECT_TRUE(client.IsOtherwiseSilent(PROG, 1));
    EXPECT_FALSE(m_Log.Contains("Skipped"));
}

TEST_F(RpcServerRecordsTest, CallInsideTheDataOfATruncatedRecord_IsNotTheNextCall)
{
    // The record is whole but claims one byte more; what lies inside it stays data, and the search
    // starts behind it.
    const std::string sInner = EchoCall(1, 54).Record();
    const std::string sArguments =
        CXdr().Word(static_cast<uint32_t>(sInner.size()) + 4).Raw(sInner).Bytes();
    CTcpClient client(PORT);
    ASSERT_TRUE(
        client.Send(FakeCall(FAKE_OPAQUE, 55, sArguments).Record() + EchoCall(2, 56).Record()));
    EXPECT_TRUE(client.ReceiveReply().IsSuccess(55));
    ASSERT_TRUE(client.Send(EchoCall(3, 57).Record()));
    EXPECT_TRUE(client.ReceiveReply().IsSuccess(56));
    EXPECT_TRUE(client.ReceiveReply().IsSuccess(57));
    EXPECT_TRUE(client.IsOtherwiseSilent(PROG, 1));
}

// ---- Headers that are cut short ----

TEST_F(RpcServerRecordsTest, CredentialBeyondTheRecord_IsATruncatedRequest)
{
    for (const uint32_t iLength : {4U, 400U, 0x7FFFFFFFU, 0xFFFFFFFCU, 0xFFFFFFFFU}) {
        m_Log.Clear();
        std::string sRecord = FakeCall(FAKE_ECHO, 60).Record();
        PutWord(&sRecord, 32, iLength);
        // Verifier flavor and length are what is left, and the program takes a word for its own.
        sRecord.resize(36);
        PutWord(&sRecord, 0, RECORD_MARK_LAST | 32);
        CTcpClient client(PORT);
        ASSERT_TRUE(client.Send(sRecord + std::string(8, '\0')));
        ASSERT_TRUE(m_Log.WaitFor("error|127.0.0.1|[RpcServer.Process] Data is truncated.Missing "))
            << iLength;
    }
    EXPECT_TRUE(CTcpClient(PORT).Call(EchoCall(1, 61)).IsSuccess(61));
}

TEST_F(RpcServerRecordsTest, TruncatedHeader_ReachesTheProgramButIsNotAnswered)
{
    // The null procedure would need no more bytes.
    std::string sRecord = FakeCall(FAKE_NULL, 62).Record();
    PutWord(&sRecord, 32, 0xFFFFFFFF);
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send(sRecord));
    ASSERT_TRUE(m_Log.WaitFor("[RpcServer.SocketReceived] Output buf size(0)"));
    EXPECT_EQ(m_Prog.m_iCalls, 1);
    EXPECT_FALSE(client.HasBytes());
    EXPECT_EQ(m_Log.Count("error|127.0.0.1|[RpcServer.Process] Data is truncated.Missing "
                          "4294967287 data"),
              1U);

    std::string sDatagram = FakeCall(FAKE_NULL, 63).Datagram();
    PutWord(&sDatagram, 28, 0xFFFFFFFF);
    CUdpClient datagramClient(PORT);
    ASSERT_TRUE(datagramClient.Send(sDatagram));
    EXPECT_TRUE(datagramClient.IsOtherwiseSilent(PROG, 1));
    EXPECT_EQ(m_Prog.m_iCalls, 3);
}

TEST_F(RpcServerRecordsTest, VerifierBeyondTheRecord_IsATruncatedRequest)
{
    std::string sRecord = FakeCall(FAKE_ECHO, 64).Record();
    PutWord(&sRecord, 40, 0xFFFFFFFF);
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send(sRecord));
    ASSERT_TRUE(m_Log.WaitFor("[RpcServer.SocketReceived] Output buf size(0)"));
    EXPECT_TRUE(m_Log.Contains("error|127.0.0.1|[RpcServer.Process] Data is truncated.Missing "
                               "4294967295 data"));
    EXPECT_FALSE(client.HasBytes());
}

TEST_F(RpcServerRecordsTest, Errors_AreSilentWithoutTheirBit)
{
    m_Rpc.SetLogControl(LOG_EVERYTHING & ~LOG_CONTROL_ERROR);
    std::string sRecord = FakeCall(FAKE_NULL, 65).Record();
    PutWord(&sRecord, 40, 0xFFFFFFFF);
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send(sRecord));
    ASSERT_TRUE(m_Log.WaitFor("[RpcServer.SocketReceived] Output buf size(0)"));
    EXPECT_FALSE(m_Log.Contains("truncated"));
}

// ---- Without the lines of the search, which then does less ----

TEST_F(RpcServerRecordsTest, Quiet_GarbageAndCallSplitAnywhere_IsAnswered)
{
    m_Rpc.SetLogControl(0);
    const std::string sBytes = std::string(60, 'x') + EchoCall(0xBEEF, 90).Record();
    CPieces pieces(&m_Rpc);
    for (size_t iCut = 1; iCut < sBytes.size(); iCut++) {
        pieces.Send(sBytes.substr(0, iCut));
        pieces.Send(sBytes.substr(iCut));
        ASSERT_EQ(pieces.Receive(32), EchoReply(0xBEEF, 90)) << iCut;
    }
}

TEST_F(RpcServerRecordsTest, Quiet_GarbageAndCallByteByByte_IsAnswered)
{
    m_Rpc.SetLogControl(0);
    CPieces pieces(&m_Rpc);
    for (uint32_t iXid = 1; iXid <= 3; iXid++) {
        for (const char cByte : std::string(60, 'x') + EchoCall(iXid, iXid).Record())
            pieces.Send(std::string(1, cByte));
        ASSERT_EQ(pieces.Receive(32), EchoReply(iXid, iXid));
    }
}

TEST_F(RpcServerRecordsTest, Quiet_GarbageInOneDatagram_DoesNotHideTheNext)
{
    m_Rpc.SetLogControl(0);
    CUdpClient client(PORT);
    for (uint32_t iXid = 1; iXid <= 3; iXid++) {
        ASSERT_TRUE(client.Send(std::string(5000, 'x')));
        EXPECT_TRUE(client.Call(EchoCall(1, iXid)).IsSuccess(iXid));
    }
}

TEST_F(RpcServerRecordsTest, Quiet_GarbageOfTheLastPeer_DoesNotHideTheCallsOfTheNext)
{
    m_Rpc.SetLogControl(0);
    for (uint32_t iXid = 1; iXid <= 3; iXid++) {
        CTcpClient first(PORT);
        ASSERT_TRUE(first.Send(std::string(5000, 'x')));
        first.ShutDownSending();
        ASSERT_TRUE(first.IsClosedByServer());
        EXPECT_TRUE(CallOnce(PORT, EchoCall(1, iXid)).IsSuccess(iXid));
    }
}

TEST_F(RpcServerRecordsTest, Quiet_WhatWasSearchedInVain_IsNotSearchedAgain)
{
    m_Rpc.SetLogControl(0);
    CSocket connection(SOCKET_STREAM, PROG);  // not open: replies stay in its output
    CInputStream* pIn = connection.GetInputStream();
    const std::string sGarbage(1000, 'x');
    for (unsigned int i = 1; i <= 3; i++) {
        memcpy(pIn->GetFreeBuffer(), sGarbage.data(), sGarbage.size());
        pIn->AddFilledBufferSize(1000);
        m_Rpc.SocketReceived(&connection);
        EXPECT_EQ(connection.GetSearchedSize(), i * 1000 - TCP_HEADER_SIZE + 1);
    }
    // A call that only a search of it all would find; nothing of it is ever sent there.
    const std::string sRecord = FakeCall(FAKE_NULL, 91).Record();
    memcpy(pIn->GetFreeBuffer() - 2500, sRecord.data(), sRecord.size());
    m_Rpc.SocketReceived(&connection);
    EXPECT_EQ(m_Prog.m_iCalls, 0);
    m_Rpc.SetLogControl(LOG_CONTROL_RPC);  // whoever wants the lines gets the whole search
    m_Rpc.SocketReceived(&connection);
    EXPECT_EQ(m_Prog.m_iCalls, 1);
    EXPECT_EQ(connection.GetOutputStream()->GetBufferSize(), EMPTY_REPLY_SIZE);
}

TEST_F(RpcServerRecordsTest, Quiet_BehindACallThatNeverEnds_IsSearchedOnceAndTheNextCallIsFound)
{
    m_Rpc.SetLogControl(0);
    CSocket connection(SOCKET_STREAM, PROG);  // not open: replies stay in its output
    CInputStream* pIn = connection.GetInputStream();
    const auto Receive = [&](const std::string& sBytes) {
        memcpy(pIn->GetFreeBuffer(), sBytes.data(), sBytes.size());
        pIn->AddFilledBufferSize(static_cast<unsigned int>(sBytes.size()));
        m_Rpc.SocketReceived(&connection);
    };
    std::string sEndless = FakeCall(FAKE_NULL, 90).Record();
    sEndless.replace(0, 4, 4, '\0');     // a mark that announces nothing
    sEndless.replace(32, 4, 4, '\xFF');  // a credential that is longer than anything
    Receive(sEndless);
    for (unsigned int i = 1; i <= 3; i++) {
        Receive(std::string(1000, 'x'));
        EXPECT_EQ(connection.GetSearchedSize(), i * 1000 + 1);
    }
    const std::string sRecord = FakeCall(FAKE_NULL, 91).Record();
    memcpy(pIn->GetFreeBuffer() - 2500, sRecord.data(), sRecord.size());
    Receive("x");
    EXPECT_EQ(connection.GetOutputStream()->GetBufferSize(), 0U);
    pIn->SetBufferEnd(pIn->GetBufferEnd() - 1);

    // Behind what was searched, it counts: the endless call is given up, and the next receive
    // answers the one behind it.
    const int iCalls = m_Prog.m_iCalls;
    Receive(FakeCall(FAKE_NULL, 92).Record());
    connection.GetOutputStream()->ResetBuffer();
    m_Rpc.SocketReceived(&connection);
    EXPECT_EQ(m_Prog.m_iCalls, iCalls + 2);
    EXPECT_EQ(connection.GetOutputStream()->GetBufferSize(), EMPTY_REPLY_SIZE);
    EXPECT_EQ(pIn->GetFilledBufferSize(), 0U);
}
