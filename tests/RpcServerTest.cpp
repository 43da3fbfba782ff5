#include "RpcServer.h"

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "RpcServerFixture.h"

namespace {

void Fill(CInputStream* pStream, const std::string& sBytes)
{
    memcpy(pStream->GetFreeBuffer(), sBytes.data(), sBytes.size());
    pStream->AddFilledBufferSize(static_cast<unsigned int>(sBytes.size()));
}

class RpcServerTest : public CRpcServerFixture {};

}  // namespace

// ---- Replies ----

TEST_F(RpcServerTest, TcpCall_IsAnsweredWordForWord)
{
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send(FakeCall(FAKE_NULL, 0x12345678).Record()));

    const std::string sExpected = CXdr()
                                      .Word(RECORD_MARK_LAST | 24)
                                      .Word(0x12345678)
                                      .Word(1)  // REPLY
                                      .Word(0)  // accepted
                                      .Word(0)  // verifier's flavor
                                      .Word(0)  // verifier's length
                                      .Word(0)  // success
                                      .Bytes();
    EXPECT_EQ(client.ReceiveRaw(sExpected.size()), sExpected);
    EXPECT_TRUE(client.IsOtherwiseSilent(PROG, 1));
}

TEST_F(RpcServerTest, UdpCall_IsAnsweredWithoutRecordMark)
{
    CUdpClient client(PORT);
    CReply reply = client.Call(EchoCall(0xCAFE, 9));
    ASSERT_TRUE(reply.IsSuccess(9));
    EXPECT_EQ(reply.Bytes().size(), 28U);
    EXPECT_EQ(reply.Word(), 0xCAFEU);
}

TEST_F(RpcServerTest, Verifier_IsEchoedByFlavorAndLengthWithoutBody)
{
    RpcCall call = EchoCall(0xCAFE, 10);
    call.iVerifierFlavor = 7;
    call.sVerifier = "abcdefgh";
    CReply reply = CTcpClient(PORT).Call(call);
    ASSERT_TRUE(reply.IsSuccess(10));
    EXPECT_EQ(reply.VerifierFlavor(), 7U);
    EXPECT_EQ(reply.VerifierLength(), 8U);
    EXPECT_EQ(reply.Word(), 0xCAFEU);
    EXPECT_EQ(reply.Left(), 0U);
}

TEST_F(RpcServerTest, Credential_IsSkipped)
{
    RpcCall call = EchoCall(0xCAFE, 11);
    call.iCredentialFlavor = AUTH_SYS;
    call.sCredential = AuthSysBody("client", 1000, 1000);
    CReply tcp = CTcpClient(PORT).Call(call);
    ASSERT_TRUE(tcp.IsSuccess(11));
    EXPECT_EQ(tcp.Word(), 0xCAFEU);
    CReply udp = CUdpClient(PORT).Call(call);
    ASSERT_TRUE(udp.IsSuccess(11));
    EXPECT_EQ(udp.Word(), 0xCAFEU);
}

TEST_F(RpcServerTest, MessageTypeAndRpcVersion_DoNotMatter)
{
    RpcCall call = EchoCall(5, 12);
    call.iMsg = 1;
    call.iRpcVers = 77;
    CReply reply = CTcpClient(PORT).Call(call);
    ASSERT_TRUE(reply.IsSuccess(12));
    EXPECT_EQ(reply.Word(), 5U);
}

TEST_F(RpcServerTest, PaddingAtTheEndOfTheResults_IsSent)
{
    CTcpClient client(PORT);
    CReply reply = client.Call(FakeCall(FAKE_ODD, 13));
    ASSERT_TRUE(reply.IsSuccess(13));
    EXPECT_EQ(reply.Opaque(), "abc");
    EXPECT_EQ(reply.Left(), 0U);
    EXPECT_TRUE(client.IsOtherwiseSilent(PROG, 1));
}

TEST_F(RpcServerTest, RefusedProcedure_IsAnsweredProcUnavailWithoutItsResults)
{
    CTcpClient client(PORT);
    const CReply reply = client.Call(FakeCall(FAKE_NOTIMP, 14));
    EXPECT_TRUE(reply.IsAccepted(14, ACCEPT_PROC_UNAVAIL));
    EXPECT_EQ(reply.Left(), 0U);
    EXPECT_TRUE(client.IsOtherwiseSilent(PROG, 1));  // nor do they follow behind the record

    const CReply datagram = CUdpClient(PORT).Call(FakeCall(FAKE_NOTIMP, 14));
    EXPECT_TRUE(datagram.IsAccepted(14, ACCEPT_PROC_UNAVAIL));
    EXPECT_EQ(datagram.Left(), 0U);
}

TEST_F(RpcServerTest, UndecodableArguments_AreAnsweredGarbageArgsWithoutResults)
{
    CTcpClient client(PORT);
    const CReply reply = client.Call(FakeCall(FAKE_FAIL, 15));
    EXPECT_TRUE(reply.IsAccepted(15, ACCEPT_GARBAGE_ARGS));
    EXPECT_EQ(reply.Left(), 0U);
    EXPECT_TRUE(client.IsOtherwiseSilent(PROG, 1));

    const CReply datagram = CUdpClient(PORT).Call(FakeCall(FAKE_FAIL, 15));
    EXPECT_TRUE(datagram.IsAccepted(15, ACCEPT_GARBAGE_ARGS));
    EXPECT_EQ(datagram.Left(), 0U);
}

TEST_F(RpcServerTest, UnregisteredProgram_IsAnsweredProgUnavail)
{
    // Inside the table's range, below it and above it.
    for (const uint32_t iProg : {100004U, 99999U, 100010U, 200001U}) {
        CServerSocket tcp;
        tcp.SetListener(&m_Rpc);
        ASSERT_TRUE(tcp.Open(iProg, PORT + 1, 3, &m_Utilities, nullptr));
        CDatagramSocket udp;
        udp.SetListener(&m_Rpc);
        ASSERT_TRUE(udp.Open(iProg, PORT + 1, &m_Utilities, nullptr));

        RpcCall call = FakeCall(FAKE_NULL, 16);
        call.iProg = iProg;
        CTcpClient client(PORT + 1);
        EXPECT_TRUE(client.Call(call).IsAccepted(16, ACCEPT_PROG_UNAVAIL)) << iProg;
        EXPECT_TRUE(client.IsOtherwiseSilent(iProg, 1)) << iProg;
        EXPECT_TRUE(CUdpClient(PORT + 1).Call(call).IsAccepted(16, ACCEPT_PROG_UNAVAIL)) << iProg;
    }
    EXPECT_EQ(m_Prog.m_iCalls, 0);
}

TEST_F(RpcServerTest, Context_IsTheClientsOwnInEveryCall)
{
    // The second call must not see the owner that the first one left.
    CTcpClient client(PORT, "127.0.0.3");
    RpcCall call = FakeCall(FAKE_CONTEXT, 17);
    call.iVers = 42;
    ASSERT_TRUE(client.Send(call.Record() + call.Record()));
    for (int i = 0; i < 2; i++) {
        CReply reply = client.ReceiveReply();
        ASSERT_TRUE(reply.IsSuccess(17));
        EXPECT_EQ(reply.Word(), 42U);
        EXPECT_EQ(reply.Opaque(), "127.0.0.3");
        EXPECT_EQ(reply.Opaque(), "127.0.0.3");
        EXPECT_EQ(reply.Opaque(), "");
    }
}

TEST_F(RpcServerTest, UdpContext_IsTheSendersOfTheDatagram)
{
    CUdpClient first(PORT, "127.0.0.4");
    CUdpClient second(PORT, "127.0.0.5");
    for (const auto& [pClient, sAddress] :
         {std::pair(&first, "127.0.0.4"), std::pair(&second, "127.0.0.5")}) {
        CReply reply = pClient->Call(FakeCall(FAKE_CONTEXT, 18));
        ASSERT_TRUE(reply.IsSuccess(18));
        reply.Word();
        EXPECT_EQ(reply.Opaque(), sAddress);
        EXPECT_EQ(reply.Opaque(), sAddress);
    }
}

// ---- Search for a header ----

TEST_F(RpcServerTest, GarbageBeforeCall_IsSkippedByteByByte)
{
    for (size_t iGarbage = 1; iGarbage <= 9; iGarbage++) {
        m_Log.Clear();
        CTcpClient client(PORT);
        ASSERT_TRUE(client.Send(std::string(iGarbage, 'x') + EchoCall(6, 20).Record()));
        ExpectOnlyEcho(&client, 6, 20);
        EXPECT_EQ(m_Log.Count("info|127.0.0.1|[RpcServer.SocketReceived] Skipped " +
                              std::to_string(iGarbage) + " data for next vaild header"),
                  1U);
    }
}

TEST_F(RpcServerTest, CallWithoutGarbage_LogsNoSkip)
{
    EXPECT_TRUE(CTcpClient(PORT).Call(FakeCall(FAKE_NULL, 21)).IsSuccess(21));
    EXPECT_FALSE(m_Log.Contains("Skipped"));
}

TEST_F(RpcServerTest, GarbageBeforeUdpCall_IsSkipped)
{
    CUdpClient client(PORT);
    ASSERT_TRUE(client.Send("xyz" + EchoCall(6, 22).Datagram()));
    EXPECT_TRUE(client.ReceiveReply().IsSuccess(22));
    EXPECT_TRUE(m_Log.Contains("Skipped 3 data for next vaild header"));
}

TEST_F(RpcServerTest, MuchGarbage_IsSkippedToo)
{
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send(std::string(900000, '\xFF') + EchoCall(6, 23).Record()));
    ExpectOnlyEcho(&client, 6, 23);
}

TEST_F(RpcServerTest, ForeignHeader_IsSkippedWithALineIfItLooksLikely)
{
    struct Case {
        uint32_t iProg;
        uint32_t iProc;
        bool bLine;
    };
    const Case cases[] = {{100000, 0, true},  {199999, 99, true}, {100003, 100, false},
                          {200000, 0, false}, {99999, 0, false},  {100003, 5, true}};
    for (const Case& oneCase : cases) {
        m_Log.Clear();
        RpcCall foreign = FakeCall(oneCase.iProc, 24);
        foreign.iProg = oneCase.iProg;
        CTcpClient client(PORT);
        ASSERT_TRUE(client.Send(foreign.Record() + EchoCall(7, 25).Record()));
        ExpectOnlyEcho(&client, 7, 25);
        const std::string sLine =
            "info|127.0.0.1|[RpcServer.SocketReceived] A possible valid header may be skipped, "
            "ProcId=" +
            std::to_string(oneCase.iProg) + ", ProcId=" + std::to_string(oneCase.iProc);
        // A part of the call may have come alone and been searched before.
        EXPECT_EQ(m_Log.Contains(sLine), oneCase.bLine) << oneCase.iProg << " " << oneCase.iProc;
        EXPECT_TRUE(m_Log.Contains("Skipped 44 data for next vaild header"));
    }
}

TEST_F(RpcServerTest, OtherVersion_IsNotRecognised)
{
    m_Prog.m_iVersion = 3;
    CTcpClient client(PORT);
    RpcCall call = FakeCall(FAKE_NULL, 26);
    call.iVers = 2;
    ASSERT_TRUE(client.Send(call.Record()));
    EXPECT_TRUE(client.IsOtherwiseSilent(PROG, 3));
    EXPECT_EQ(m_Prog.m_iCalls, 1);
}

TEST_F(RpcServerTest, ProcedureAtOrAboveTheMaximum_IsNotRecognised)
{
    m_Prog.m_iMaxProc = 6;
    for (const uint32_t iProc : {6U, 7U, 0xFFFFFFFFU}) {
        CTcpClient client(PORT);
        ASSERT_TRUE(client.Send(FakeCall(iProc, 27).Record()));
        EXPECT_TRUE(client.IsOtherwiseSilent(PROG, 1)) << iProc;
        CUdpClient datagramClient(PORT);
        ASSERT_TRUE(datagramClient.Send(FakeCall(iProc, 27).Datagram()));
        EXPECT_TRUE(datagramClient.IsOtherwiseSilent(PROG, 1)) << iProc;
    }
    EXPECT_EQ(m_Prog.m_iCalls, 6);
    EXPECT_TRUE(CTcpClient(PORT).Call(FakeCall(FAKE_CONTEXT, 28)).IsSuccess(28));
}

TEST_F(RpcServerTest, LookForValidHeader_TooFewBytes_LeavesThePosition)
{
    CInputStream in;
    COutputStream out;
    LogArgu logArgu = {"label"};
    const std::string sRecord = FakeCall(FAKE_NULL, 1).Record();
    Fill(&in, "abc" + sRecord.substr(0, TCP_HEADER_SIZE - 1));
    EXPECT_FALSE(
        m_Rpc.LookForValidHeader(&m_RuntimeParam, &logArgu, PROG, SOCKET_STREAM, &in, &out));
    EXPECT_EQ(in.GetBufferIndex(), 0U);

    Fill(&in, sRecord.substr(TCP_HEADER_SIZE - 1));
    EXPECT_TRUE(
        m_Rpc.LookForValidHeader(&m_RuntimeParam, &logArgu, PROG, SOCKET_STREAM, &in, &out));
    EXPECT_EQ(in.GetBufferIndex(), 3U);
    EXPECT_TRUE(m_Log.Contains("[label] Skipped 3 data for next vaild header"));
}

TEST_F(RpcServerTest, LookForValidHeader_Datagram_NeedsFortyBytes)
{
    CInputStream in;
    COutputStream out;
    LogArgu logArgu = {"label"};
    const std::string sDatagram = FakeCall(FAKE_NULL, 1).Datagram();
    ASSERT_EQ(sDatagram.size(), 40U);
    Fill(&in, sDatagram.substr(0, 39));
    EXPECT_FALSE(
        m_Rpc.LookForValidHeader(&m_RuntimeParam, &logArgu, PROG, SOCKET_DATAGRAM, &in, &out));
    Fill(&in, sDatagram.substr(39));
    EXPECT_TRUE(
        m_Rpc.LookForValidHeader(&m_RuntimeParam, &logArgu, PROG, SOCKET_DATAGRAM, &in, &out));
    EXPECT_EQ(in.GetBufferIndex(), 0U);
}

// ---- Log ----

TEST_F(RpcServerTest, RpcBit_TracesACallOverTcp)
{
    RpcCall call = EchoCall(1, 70);
    call.iVers = 5;
    call.iMsg = 6;
    call.iRpcVers = 7;
    EXPECT_TRUE(CTcpClient(PORT).Call(call).IsSuccess(70));
    // The reply leaves after the last of them.
    EXPECT_EQ(m_Log.Lines(),
              (std::vector<std::string>{
                  "info|127.0.0.1|[RpcServer.SocketReceived] Input buf size(48) pos(0)",
                  "info|127.0.0.1|[RpcServer.Process] request header",
                  "info|127.0.0.1| --- header=2147483692",
                  "info|127.0.0.1| --- nXID=70",
                  "info|127.0.0.1| --- nmsg=6",
                  "info|127.0.0.1| --- nrpcvers=7",
                  "info|127.0.0.1| --- nprog=100007",
                  "info|127.0.0.1| --- nvers=5",
                  "info|127.0.0.1| --- nproc=1",
                  "info|127.0.0.1|[RpcServer.SocketReceived] Output buf size(32)",
              }));
}

TEST_F(RpcServerTest, RpcBit_TracesACallOverUdpWithoutMark)
{
    EXPECT_TRUE(CUdpClient(PORT).Call(EchoCall(1, 71)).IsSuccess(71));
    EXPECT_EQ(m_Log.Lines(),
              (std::vector<std::string>{
                  "info|127.0.0.1|[RpcServer.SocketReceived] Input buf size(44) pos(0)",
                  "info|127.0.0.1|[RpcServer.Process] request header",
                  "info|127.0.0.1| --- nXID=71",
                  "info|127.0.0.1| --- nmsg=0",
                  "info|127.0.0.1| --- nrpcvers=2",
                  "info|127.0.0.1| --- nprog=100007",
                  "info|127.0.0.1| --- nvers=1",
                  "info|127.0.0.1| --- nproc=1",
                  "info|127.0.0.1|[RpcServer.SocketReceived] Output buf size(28)",
              }));
}

TEST_F(RpcServerTest, WithoutRpcBit_NothingIsTraced)
{
    m_Rpc.SetLogControl(LOG_EVERYTHING & ~LOG_CONTROL_RPC);
    RpcCall foreign = FakeCall(FAKE_NULL, 72);
    foreign.iProg = 100003;
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send(foreign.Record() + "abc" + EchoCall(1, 73).Record()));
    EXPECT_TRUE(client.ReceiveReply().IsSuccess(73));
    ASSERT_TRUE(client.Send(FakeCall(FAKE_ECHO, 74).Record()));
    EXPECT_TRUE(client.Call(EchoCall(1, 75)).IsSuccess(74));
    EXPECT_EQ(m_Log.Lines(), std::vector<std::string>());
}

TEST_F(RpcServerTest, LogControl_IsThatOfTheCreatorUntilItIsSet)
{
    const CRuntimeParam quiet("quiet", 0);
    CRpcServer rpc(&m_Utilities, &quiet);
    rpc.Set(100008, &m_Prog);
    CServerSocket tcp;
    tcp.SetListener(&rpc);
    ASSERT_TRUE(tcp.Open(100008, PORT + 1, 1, &m_Utilities, nullptr));
    RpcCall call = FakeCall(FAKE_NULL, 76);
    call.iProg = 100008;
    CTcpClient client(PORT + 1);
    EXPECT_TRUE(client.Call(call).IsSuccess(76));
    EXPECT_EQ(m_Log.Lines().size(), 0U);
    rpc.SetLogControl(LOG_CONTROL_RPC);
    EXPECT_TRUE(client.Call(call).IsSuccess(76));
    EXPECT_TRUE(m_Log.Contains(" --- nXID=76"));
}

// ---- Exceptions, threads, slow peers ----

TEST_F(RpcServerTest, Process_ExceptionOfTheProgram_PassesThrough)
{
    CInputStream in;
    COutputStream out;
    Fill(&in, FakeCall(FAKE_THROW, 80).Record());
    EXPECT_THROW(m_Rpc.Process(&m_RuntimeParam, PROG, SOCKET_STREAM, &in, &out, "127.0.0.1"),
                 std::runtime_error);
}

TEST_F(RpcServerTest, Process_YieldsTheProgramsResult)
{
    const std::pair<uint32_t, int> cases[] = {{FAKE_NULL, PRC_OK},
                                              {FAKE_FAIL, PRC_FAIL},
                                              {FAKE_NOTIMP, PRC_NOTIMP},
                                              {FAKE_TRUNCATED, PRC_TRUNCATED}};
    for (const auto& [iProc, iResult] : cases) {
        CInputStream in;
        COutputStream out;
        Fill(&in, FakeCall(iProc, 81).Record());
        EXPECT_EQ(m_Rpc.Process(&m_RuntimeParam, PROG, SOCKET_STREAM, &in, &out, "127.0.0.1"),
                  iResult);
        EXPECT_GE(out.GetBufferSize(), EMPTY_REPLY_SIZE);
    }
}

TEST_F(RpcServerTest, ExceptionOfTheProgram_CostsOnlyItsConnection)
{
    CTcpClient neighbour(PORT);
    EXPECT_TRUE(neighbour.Call(EchoCall(1, 82)).IsSuccess(82));
    CTcpClient client(PORT);
    ASSERT_TRUE(client.Send(FakeCall(FAKE_THROW, 83).Record()));
    EXPECT_TRUE(client.IsClosedByServer());
    EXPECT_TRUE(neighbour.Call(EchoCall(2, 84)).IsSuccess(84));
    EXPECT_TRUE(CTcpClient(PORT).Call(EchoCall(3, 85)).IsSuccess(85));
}

TEST_F(RpcServerTest, ExceptionOfTheProgram_DoesNotEndUdp)
{
    CUdpClient client(PORT);
    ASSERT_TRUE(client.Send(FakeCall(FAKE_THROW, 86).Datagram()));
    EXPECT_TRUE(client.Call(EchoCall(1, 87)).IsSuccess(87));
}

TEST_F(RpcServerTest, Calls_RunOneAtATime)
{
    std::vector<std::thread> vThreads;
    std::atomic<uint32_t> iMost = 0;
    std::atomic<int> iAnswered = 0;
    for (int i = 0; i < 4; i++)
        vThreads.emplace_back([&] {
            CTcpClient client(PORT);
            for (uint32_t iXid = 1; iXid <= 100; iXid++) {
                CReply reply = client.Call(FakeCall(FAKE_EXCLUSIVE, iXid));
                if (!reply.IsSuccess(iXid))
                    return;
                iAnswered++;
                iMost = std::max(iMost.load(), reply.Word());
            }
        });
    for (std::thread& thread : vThreads)
        thread.join();
    EXPECT_EQ(iAnswered, 400);
    EXPECT_EQ(iMost, 1U);
}

TEST_F(RpcServerTest, ClientThatDoesNotRead_HoldsUpNobodyAndGetsItsRepliesWhole)
{
    constexpr uint32_t CALLS = 40;  // 20 MB: more than the system takes for a peer that is silent
    CTcpClient slow(PORT);
    std::string sRecords;
    for (uint32_t i = 0; i < CALLS; i++)
        sRecords += FakeCall(FAKE_BIG, 90 + i).Record();
    ASSERT_TRUE(slow.Send(sRecords));
    ASSERT_TRUE(m_Log.WaitFor("Output buf size(500028)"));
    EXPECT_TRUE(CTcpClient(PORT).Call(EchoCall(1, 88)).IsSuccess(88));
    EXPECT_TRUE(CUdpClient(PORT).Call(EchoCall(1, 89)).IsSuccess(89));

    for (uint32_t i = 0; i < CALLS; i++) {
        CReply reply = slow.ReceiveReply();
        ASSERT_TRUE(reply.IsSuccess(90 + i));
        ASSERT_EQ(reply.Left(), BIG_REPLY_SIZE);
        for (uint32_t iWord = 0; iWord < BIG_REPLY_SIZE / 4; iWord++)
            ASSERT_EQ(reply.Word(), iWord);
    }
    EXPECT_TRUE(slow.IsOtherwiseSilent(PROG, 1));
}
