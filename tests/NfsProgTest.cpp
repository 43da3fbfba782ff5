#include "NfsProg.h"

#include <gtest/gtest.h>

#include "ServerFixture.h"

namespace {

class NfsProgTest : public CServerFixture {
protected:
    static RpcCall NullCall(uint32_t iVers, uint32_t iXid)
    {
        RpcCall call = NfsCall(0, "");
        call.iVers = iVers;
        call.iXid = iXid;
        return call;
    }
};

}  // namespace

TEST_F(NfsProgTest, OtherVersions_BeforeTheFirstCallOfVersion3_AreRefused)
{
    CTcpClient client(WIRE_NFS_PORT);
    for (const uint32_t iVers : {0U, 2U, 4U, 0xFFFFFFFFU}) {
        const CReply reply = client.Call(NullCall(iVers, iVers + 7));
        EXPECT_TRUE(reply.IsAccepted(iVers + 7, ACCEPT_PROC_UNAVAIL)) << iVers;
        EXPECT_EQ(reply.Left(), 0U);
    }
    EXPECT_TRUE(client.Call(NullCall(3, 1)).IsSuccess(1));
}

TEST_F(NfsProgTest, OtherVersions_AfterTheFirstCallOfVersion3_AreNoCalls)
{
    EXPECT_TRUE(CallOnce(WIRE_NFS_PORT, NullCall(3, 1)).IsSuccess(1));
    for (const uint32_t iVers : {0U, 2U, 4U, 0xFFFFFFFFU}) {
        CTcpClient client(WIRE_NFS_PORT);
        ASSERT_TRUE(client.Send(NullCall(iVers, 2).Record()));
        EXPECT_TRUE(client.IsOtherwiseSilent(WIRE_NFS_PROG, 3)) << iVers;
        CUdpClient datagramClient(WIRE_NFS_PORT);
        ASSERT_TRUE(datagramClient.Send(NullCall(iVers, 2).Datagram()));
        EXPECT_TRUE(datagramClient.IsOtherwiseSilent(WIRE_NFS_PROG, 3)) << iVers;
    }
}

TEST_F(NfsProgTest, ProceduresAboveTheLast_AreRefusedOnlyBeforeTheFirstCall)
{
    RpcCall call = NullCall(3, 3);
    call.iProc = 22;
    // Any number passes at first; this very call makes the program that limits them.
    EXPECT_TRUE(CallOnce(WIRE_NFS_PORT, call).IsAccepted(3, ACCEPT_PROC_UNAVAIL));
    CTcpClient client(WIRE_NFS_PORT);
    ASSERT_TRUE(client.Send(call.Record()));
    EXPECT_TRUE(client.IsOtherwiseSilent(WIRE_NFS_PROG, 3));
}

TEST_F(NfsProgTest, Limits_AreThoseOfVersion3OnceItExists)
{
    CRuntimeParam runtimeParam("", 0);
    CNfsProg prog(m_pMain->GetUtils());
    EXPECT_EQ(prog.GetVersion(), ANY_VERSION);
    EXPECT_EQ(prog.GetMaxSupportProc(), ANY_PROCEDURE);

    ProcessParam param = {2, 0, "127.0.0.1", &runtimeParam};
    EXPECT_EQ(prog.Process(nullptr, nullptr, &param), PRC_NOTIMP);
    EXPECT_EQ(prog.GetVersion(), ANY_VERSION);

    param.iVersion = 3;
    EXPECT_EQ(prog.Process(nullptr, nullptr, &param), PRC_OK);
    EXPECT_EQ(prog.GetVersion(), 3U);
    EXPECT_EQ(prog.GetMaxSupportProc(), 22U);
}
