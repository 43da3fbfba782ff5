#include "PortmapProg.h"

#include <stdexcept>

#include <gtest/gtest.h>

#include "InputStream.h"
#include "OutputStream.h"
#include "ServerFixture.h"
#include "Utilities.h"

namespace {

constexpr uint32_t GETPORT_SIZE = 16;  // program, version, protocol, port

RpcCall PortmapCall(uint32_t iProc, const std::string& sArguments, uint32_t iVers = 2)
{
    RpcCall call;
    call.iProg = WIRE_PORTMAP_PROG;
    call.iVers = iVers;
    call.iProc = iProc;
    call.sArguments = sArguments;
    return call;
}

RpcCall GetPortCall(uint32_t iProg, uint32_t iVers = 3, uint32_t iProtocol = 6)
{
    return PortmapCall(MAPPROC_GETPORT,
                       CXdr().Word(iProg).Word(iVers).Word(iProtocol).Word(0).Bytes());
}

// Fails as soon as a line is written, as nothing of ours does.
class CThrowingUtilities : public CUtilities {
public:
    using CUtilities::LogInfo;
    void LogInfo(CRuntimeParam*, char*) override { throw std::runtime_error("no line"); }
};

class PortmapProgTest : public CServerFixture {
protected:
    void SetUp() override
    {
        CServerFixture::SetUp();
        m_Log.Clear();
    }

    // The result of a query, asked over TCP and over UDP, which must agree.
    static uint32_t Ask(const RpcCall& call)
    {
        CReply tcp = CallOnce(WIRE_PORTMAP_PORT, call);
        CReply udp = CUdpClient(WIRE_PORTMAP_PORT).Call(call);
        EXPECT_TRUE(tcp.IsSuccess(1));
        EXPECT_TRUE(udp.IsSuccess(1));
        if (!tcp.IsReceived() || !udp.IsReceived())
            return 0xFFFFFFFF;
        const uint32_t iPort = tcp.Word();
        EXPECT_EQ(udp.Word(), iPort);
        EXPECT_EQ(tcp.Left() + udp.Left(), 0U);
        return iPort;
    }
};

}  // namespace

TEST_F(PortmapProgTest, GetPort_KnownPrograms_YieldsTheirPorts)
{
    EXPECT_EQ(Ask(GetPortCall(100005)), 1058U);
    EXPECT_EQ(Ask(GetPortCall(100003)), 2049U);
}

TEST_F(PortmapProgTest, GetPort_OtherPrograms_YieldsZero)
{
    for (const uint32_t iProg : {100000U, 100004U, 100009U, 100010U, 99999U, 200000U, 0U,
                                 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU})
        EXPECT_EQ(Ask(GetPortCall(iProg)), 0U) << iProg;
}

TEST_F(PortmapProgTest, GetPort_VersionAndProtocolDoNotMatter)
{
    EXPECT_EQ(Ask(GetPortCall(100003, 2, 17)), 2049U);
    EXPECT_EQ(Ask(GetPortCall(100003, 0xFFFFFFFF, 0xFFFFFFFF)), 2049U);
    EXPECT_EQ(Ask(GetPortCall(100005, 1, 0)), 1058U);
}

TEST_F(PortmapProgTest, GetPort_AnyVersionOfThePortMapperItself)
{
    for (const uint32_t iVers : {0U, 2U, 3U, 4U, 0xFFFFFFFEU}) {
        RpcCall call = GetPortCall(100003);
        call.iVers = iVers;
        EXPECT_EQ(Ask(call), 2049U) << iVers;
    }
}

TEST_F(PortmapProgTest, GetPort_Logs)
{
    EXPECT_EQ(Ask(GetPortCall(100005)), 1058U);
    EXPECT_EQ(m_Log.Count("info|127.0.0.1|[PortmapProg.ProcedureGETPORT]"), 4U);
    EXPECT_EQ(
        m_Log.Count("info|127.0.0.1|[PortmapProg.ProcedureGETPORT] lProg = 100005, lPort = 1058"),
        2U);

    m_Log.Clear();
    m_pMain->SetLogControl(LOG_EVERYTHING & ~LOG_CONTROL_PROC_FUNC_NAME);
    Ask(GetPortCall(100005));
    EXPECT_EQ(m_Log.Count("[PortmapProg.ProcedureGETPORT]"), 2U);

    m_Log.Clear();
    m_pMain->SetLogControl(LOG_EVERYTHING & ~LOG_CONTROL_PROC_FUNC_ARGU);
    Ask(GetPortCall(100005));
    EXPECT_EQ(m_Log.Count("[PortmapProg.ProcedureGETPORT]"), 2U);
    EXPECT_FALSE(m_Log.Contains("lProg"));
}

TEST_F(PortmapProgTest, OtherProcedures_AreRefusedAndNullToo)
{
    for (const uint32_t iProc :
         {MAPPROC_NULL, MAPPROC_SET, MAPPROC_UNSET, MAPPROC_DUMP, MAPPROC_CALLIT}) {
        m_Log.Clear();
        const RpcCall call = PortmapCall(iProc, std::string(GETPORT_SIZE, '\0'));
        const CReply tcp = CallOnce(WIRE_PORTMAP_PORT, call);
        EXPECT_TRUE(tcp.IsAccepted(1, ACCEPT_PROC_UNAVAIL)) << iProc;
        EXPECT_EQ(tcp.Left(), 0U);
        EXPECT_TRUE(CUdpClient(WIRE_PORTMAP_PORT).Call(call).IsAccepted(1, ACCEPT_PROC_UNAVAIL));
        EXPECT_EQ(m_Log.Count("info|127.0.0.1|[PortmapProg.ProcedureNOIMP]"), 2U) << iProc;
    }
}

TEST_F(PortmapProgTest, ProcedureSixAndAbove_IsNoCall)
{
    for (const uint32_t iProc : {6U, 7U, 0xFFFFFFFFU}) {
        CTcpClient client(WIRE_PORTMAP_PORT);
        ASSERT_TRUE(client.Send(PortmapCall(iProc, "").Record()));
        EXPECT_TRUE(client.IsOtherwiseSilent(WIRE_PORTMAP_PROG, 2)) << iProc;
        CUdpClient datagramClient(WIRE_PORTMAP_PORT);
        ASSERT_TRUE(datagramClient.Send(PortmapCall(iProc, "").Datagram()));
        EXPECT_TRUE(datagramClient.IsOtherwiseSilent(WIRE_PORTMAP_PROG, 2)) << iProc;
    }
}

TEST_F(PortmapProgTest, ShortArguments_WaitForTheRest)
{
    const std::string sRecord = GetPortCall(100003).Record();
    CTcpClient client(WIRE_PORTMAP_PORT);
    ASSERT_TRUE(client.Send(sRecord.substr(0, sRecord.size() - 1)));
    ASSERT_TRUE(m_Log.WaitFor("[RpcServer.SocketReceived] Output buf size(0)"));
    EXPECT_TRUE(
        m_Log.Contains("error|127.0.0.1|[PortmapProg.Process] Data is truncated.Missing 1 data"));
    EXPECT_FALSE(client.HasBytes());
    ASSERT_TRUE(client.Send(sRecord.substr(sRecord.size() - 1)));
    CReply reply = client.ReceiveReply();
    ASSERT_TRUE(reply.IsSuccess(1));
    EXPECT_EQ(reply.Word(), 2049U);
}

TEST(PortmapProgObjectTest, TableIsEmptyUntilSet)
{
    CUtilities utilities;
    CRuntimeParam runtimeParam("", 0);
    CPortmapProg prog(&utilities);
    EXPECT_EQ(prog.GetMaxSupportProc(), 6U);
    EXPECT_EQ(prog.GetVersion(), ANY_VERSION);
    prog.Set(100009, 4711);
    for (const auto& [iProg, iPort] : {std::pair(100003U, 0U), std::pair(100009U, 4711U)}) {
        CInputStream in;
        COutputStream out;
        const std::string sArguments = CXdr().Word(iProg).Word(3).Word(6).Word(0).Bytes();
        memcpy(in.GetFreeBuffer(), sArguments.data(), sArguments.size());
        in.AddFilledBufferSize(GETPORT_SIZE);
        ProcessParam param = {2, MAPPROC_GETPORT, "127.0.0.1", &runtimeParam};
        ASSERT_EQ(prog.Process(&in, &out, &param), PRC_OK);
        ASSERT_EQ(out.GetBufferSize(), 4U);
        EXPECT_EQ(GetWord({reinterpret_cast<const char*>(out.GetBuffer()), 4}, 0), iPort);
    }
}

TEST(PortmapProgObjectTest, UnknownException_IsLoggedAndFails)
{
    CLogRecorder log;
    CThrowingUtilities utilities;
    utilities.SetCallback(&log);
    CRuntimeParam runtimeParam("caller", LOG_CONTROL_ERROR | LOG_CONTROL_PROC_FUNC_NAME);
    CPortmapProg prog(&utilities);
    CInputStream in;
    COutputStream out;
    ProcessParam param = {2, MAPPROC_NULL, "127.0.0.1", &runtimeParam};
    EXPECT_EQ(prog.Process(&in, &out, &param), PRC_FAIL);
    EXPECT_EQ(log.Lines(),
              std::vector<std::string>{"error|caller|[PortmapProg.Process] Unknown exception"});
}

TEST(PortmapProgObjectTest, FailuresWithoutTheErrorBit_AreSilent)
{
    CLogRecorder log;
    CThrowingUtilities utilities;
    utilities.SetCallback(&log);
    CRuntimeParam runtimeParam("caller", LOG_CONTROL_PROC_FUNC_NAME);
    CPortmapProg prog(&utilities);
    CInputStream in;
    COutputStream out;
    ProcessParam param = {2, MAPPROC_GETPORT, "127.0.0.1", &runtimeParam};
    EXPECT_EQ(prog.Process(&in, &out, &param), PRC_FAIL);
    runtimeParam.SetLogControl(0x3FF & ~(LOG_CONTROL_ERROR | LOG_CONTROL_PROC_FUNC_NAME));
    EXPECT_EQ(prog.Process(&in, &out, &param), PRC_TRUNCATED);
    EXPECT_EQ(log.Lines(), std::vector<std::string>());
}
