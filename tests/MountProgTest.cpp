#include "MountProg.h"

#include <atomic>
#include <barrier>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "InputStream.h"
#include "OutputStream.h"
#include "ServerFixture.h"
#include "Utilities.h"

namespace {

constexpr uint32_t STATUS_ACCESS = 13;
constexpr size_t VERSION_1_HANDLE = 32;

std::string Name(const std::string& sName)
{
    return CXdr().String(sName).Bytes();
}

RpcCall MountCall(uint32_t iProc, const std::string& sArguments, uint32_t iVers = 3)
{
    RpcCall call;
    call.iProg = WIRE_MOUNT_PROG;
    call.iVers = iVers;
    call.iProc = iProc;
    call.sArguments = sArguments;
    return call;
}

// Fails as soon as a line is written, as nothing of ours does.
class CThrowingUtilities : public CUtilities {
public:
    using CUtilities::LogInfo;
    void LogInfo(CRuntimeParam*, char*) override { throw std::runtime_error("no line"); }
};

class MountProgTest : public CServerFixture {
protected:
    void SetUp() override
    {
        CServerFixture::SetUp();
        m_Log.Clear();
    }

    // The status of a MNT, and that nothing follows where it failed.
    static uint32_t TryMount(const std::string& sName, const char* pcSourceAddress = "127.0.0.1")
    {
        CReply reply = CallMount(MOUNTPROC_MNT, Name(sName), 3, pcSourceAddress);
        if (!reply.IsSuccess(1))
            return 0xFFFFFFFF;
        const uint32_t iStatus = reply.Word();
        EXPECT_EQ(reply.Left() > 0, iStatus == MNT_OK);
        return iStatus;
    }

    bool IsHeldBy(const char* pcAddress)
    {
        return m_pMain->GetUtils()->IsRemoteAddrExists(pcAddress);
    }
};

// The program alone, for what no client can bring about.
class MountProgObjectTest : public testing::Test {
protected:
    void SetUp() override { m_Utilities.SetCallback(&m_Log); }

    int Process(CMountProg* pProg, uint32_t iProc, const std::string& sRemoteAddr,
                const std::string& sArguments)
    {
        CInputStream in;
        memcpy(in.GetFreeBuffer(), sArguments.data(), sArguments.size());
        in.AddFilledBufferSize(static_cast<unsigned int>(sArguments.size()));
        COutputStream out;
        ProcessParam param = {3, iProc, sRemoteAddr, &m_RuntimeParam};
        const int iResult = pProg->Process(&in, &out, &param);
        m_sResults.assign(reinterpret_cast<const char*>(out.GetBuffer()), out.GetBufferSize());
        return iResult;
    }

    CLogRecorder m_Log;
    CUtilities m_Utilities;
    CRuntimeParam m_RuntimeParam{"caller", 0x3FF};
    std::string m_sResults;
};

}  // namespace

// ---- MNT ----

TEST_F(MountProgTest, Mnt_Version3_YieldsHandleAndNoFlavours)
{
    CReply reply = CallMount(MOUNTPROC_MNT, Name("vm1"));
    ASSERT_TRUE(reply.IsSuccess(1));
    EXPECT_EQ(reply.Word(), static_cast<uint32_t>(MNT_OK));
    const std::string sHandle = reply.Opaque();
    ASSERT_EQ(sHandle.size(), HANDLE_SIZE);
    EXPECT_EQ(sHandle.substr(4), std::string(HANDLE_SIZE - 4, '\0'));
    EXPECT_EQ(reply.Word(), 0U);
    EXPECT_EQ(reply.Left(), 0U);

    char cPath[PATH_SIZE] = "";
    CRuntimeParam runtimeParam("", 0);
    ASSERT_TRUE(
        m_pMain->GetUtils()->GetFilePath(&runtimeParam, sHandle.data(), cPath, sizeof(cPath)));
    EXPECT_EQ(cPath, m_Folder.Path());
}

TEST_F(MountProgTest, Mnt_Version1_Yields32BytesWithoutLength)
{
    CReply reply = CallMount(MOUNTPROC_MNT, Name("vm1"), 1);
    ASSERT_TRUE(reply.IsSuccess(1));
    EXPECT_EQ(reply.Word(), static_cast<uint32_t>(MNT_OK));
    ASSERT_EQ(reply.Left(), VERSION_1_HANDLE);
    const std::string sHandle = reply.Fixed(VERSION_1_HANDLE);
    Unmount("vm1");
    EXPECT_EQ(Mount("vm1").substr(0, VERSION_1_HANDLE), sHandle);
}

TEST_F(MountProgTest, Mnt_OtherVersions_AreAnsweredLikeVersion3)
{
    for (const uint32_t iVers : {0U, 2U, 4U, 0xFFFFFFFFU}) {
        CReply reply = CallMount(MOUNTPROC_MNT, Name("vm1"), iVers);
        ASSERT_TRUE(reply.IsSuccess(1));
        EXPECT_EQ(reply.Word(), static_cast<uint32_t>(MNT_OK));
        EXPECT_EQ(reply.Opaque().size(), HANDLE_SIZE);
        EXPECT_EQ(reply.Word(), 0U);
        EXPECT_EQ(reply.Left(), 0U);
        Unmount("vm1");
    }
}

TEST_F(MountProgTest, Mnt_OverUdp_IsTheSame)
{
    CUdpClient client(WIRE_MOUNT_PORT);
    CReply reply = client.Call(MountCall(MOUNTPROC_MNT, Name("vm1")));
    ASSERT_TRUE(reply.IsSuccess(1));
    EXPECT_EQ(reply.Word(), static_cast<uint32_t>(MNT_OK));
    EXPECT_EQ(reply.Opaque().size(), HANDLE_SIZE);
    EXPECT_TRUE(client.Call(MountCall(MOUNTPROC_UMNT, Name("vm1"))).IsSuccess(1));
    EXPECT_FALSE(IsHeldBy("127.0.0.1"));
}

TEST_F(MountProgTest, Mnt_Success_Logs)
{
    Mount("vm1");
    EXPECT_TRUE(m_Log.Contains("info|127.0.0.1|[MountProg.Process]"));
    EXPECT_TRUE(m_Log.Contains("info|127.0.0.1|[MountProg.ProcedureMNT]"));
    EXPECT_TRUE(m_Log.Contains(
        "info|127.0.0.1|[MountProg.ProcedureMNT] From 127.0.0.1, NFS Protocol Version=3"));
    EXPECT_TRUE(m_Log.Contains("info|127.0.0.1|[MountProg.ProcedureMNT] Read path = vm1"));
    EXPECT_TRUE(m_Log.Contains("info|127.0.0.1|[MountProg.ProcedureMNT] Mount OK"));
}

TEST_F(MountProgTest, WithoutTheirBits_NothingIsLogged)
{
    m_pMain->SetLogControl(0);
    EXPECT_EQ(TryMount("vm1"), static_cast<uint32_t>(MNT_OK));
    EXPECT_EQ(TryMount("vm1"), STATUS_ACCESS);
    EXPECT_EQ(TryMount(""), STATUS_ACCESS);
    Unmount("vm1");
    EXPECT_TRUE(CallMount(MOUNTPROC_DUMP, "").IsAccepted(1, ACCEPT_PROC_UNAVAIL));
    EXPECT_EQ(m_Log.Lines(), std::vector<std::string>());
}

TEST_F(MountProgTest, Mnt_UnknownName_IsRefused)
{
    EXPECT_EQ(TryMount("vm2"), STATUS_ACCESS);
    EXPECT_TRUE(
        m_Log.Contains("error|127.0.0.1|[MountProg.ProcedureMNT] Undefined export name \"vm2\""));
    EXPECT_TRUE(m_Log.Contains("info|127.0.0.1|[MountProg.ProcedureMNT] Mount FAIL"));
    EXPECT_FALSE(IsHeldBy("127.0.0.1"));
}

TEST_F(MountProgTest, Mnt_NameIsTakenExactlyAsSent)
{
    for (const char* pcName : {"/vm1", "vm1/", "VM1", " vm1", "vm"}) {
        EXPECT_EQ(TryMount(pcName), STATUS_ACCESS) << pcName;
        EXPECT_TRUE(m_Log.Contains(std::string("Undefined export name \"") + pcName + "\""))
            << pcName;
    }
}

TEST_F(MountProgTest, Mnt_NamesOfEveryPadding_AreRead)
{
    CTcpClient client(WIRE_MOUNT_PORT);
    for (const char* pcName : {"a", "ab", "abc", "abcd", "abcde"}) {
        const CScratchFolder folder;
        Export(folder.Path(), pcName);
        // The call behind it shows that exactly the padding was skipped.
        ASSERT_TRUE(client.Send(MountCall(MOUNTPROC_MNT, Name(pcName)).Record() +
                                MountCall(MOUNTPROC_UMNT, Name(pcName)).Record()));
        CReply reply = client.ReceiveReply();
        ASSERT_TRUE(reply.IsSuccess(1));
        EXPECT_EQ(reply.Word(), static_cast<uint32_t>(MNT_OK)) << pcName;
        EXPECT_TRUE(client.ReceiveReply().IsSuccess(1));
        m_pMain->RemoveMountPoint(folder.Path().c_str());
    }
    EXPECT_FALSE(m_Log.Contains("Skipped"));
}

TEST_F(MountProgTest, Mnt_EmptyName_CannotBeRead)
{
    const CScratchFolder folder;
    Export(folder.Path(), "");  // no export of this name can ever be mounted
    EXPECT_EQ(TryMount(""), STATUS_ACCESS);
    EXPECT_TRUE(m_Log.Contains("info|127.0.0.1|[MountProg.ProcedureMNT] Fail to read export name"));
    EXPECT_TRUE(m_Log.Contains("[MountProg.ProcedureMNT] Mount FAIL"));
}

TEST_F(MountProgTest, Mnt_NameOf4095Bytes_IsRead)
{
    const std::string sName(4095, 'n');
    const CScratchFolder folder;
    Export(folder.Path(), sName.c_str());
    EXPECT_EQ(TryMount(sName), static_cast<uint32_t>(MNT_OK));
    EXPECT_FALSE(m_Log.Contains("Fail to read export name"));
}

TEST_F(MountProgTest, Mnt_NameOf4096Bytes_IsRefusedAtItsLength)
{
    const std::string sName(4096, 'n');
    const CScratchFolder folder;
    Export(folder.Path(), sName.c_str());
    CTcpClient client(WIRE_MOUNT_PORT);
    CReply reply = client.Call(MountCall(MOUNTPROC_MNT, Name(sName)));
    ASSERT_TRUE(reply.IsSuccess(1));
    EXPECT_EQ(reply.Word(), STATUS_ACCESS);
    EXPECT_TRUE(m_Log.Contains("info|127.0.0.1|[MountProg.ProcedureMNT] Fail to read export name"));

    // Its bytes were not consumed: the search for the next call runs over them.
    EXPECT_TRUE(client.IsOtherwiseSilent(WIRE_MOUNT_PROG, 3));
    EXPECT_TRUE(m_Log.Contains("Skipped 4096 data for next vaild header"));
}

TEST_F(MountProgTest, Mnt_HugeLengths_AreRefused)
{
    for (const uint32_t iLength : {4096U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        CReply reply = CallMount(MOUNTPROC_MNT, CXdr().Word(iLength).Bytes());
        ASSERT_TRUE(reply.IsSuccess(1)) << iLength;
        EXPECT_EQ(reply.Word(), STATUS_ACCESS);
    }
}

TEST_F(MountProgTest, Mnt_BoundExport_IsRefusedUntilUnmounted)
{
    EXPECT_EQ(TryMount("vm1"), static_cast<uint32_t>(MNT_OK));
    EXPECT_TRUE(IsHeldBy("127.0.0.1"));
    EXPECT_EQ(TryMount("vm1"), STATUS_ACCESS);
    EXPECT_EQ(TryMount("vm1", "127.0.0.2"), STATUS_ACCESS);
    EXPECT_EQ(m_Log.Count("[MountProg.ProcedureMNT] This mount point \"vm1\" already mounted by "
                          "127.0.0.1"),
              2U);
    EXPECT_TRUE(m_Log.Contains("error|127.0.0.2|[MountProg.ProcedureMNT] This mount point"));

    Unmount("vm1");
    EXPECT_FALSE(IsHeldBy("127.0.0.1"));
    EXPECT_EQ(TryMount("vm1", "127.0.0.2"), static_cast<uint32_t>(MNT_OK));
    EXPECT_TRUE(IsHeldBy("127.0.0.2"));
}

TEST_F(MountProgTest, Mnt_ShortName_WaitsForTheRest)
{
    const std::string sRecord = MountCall(MOUNTPROC_MNT, Name("vm1")).Record();
    CTcpClient client(WIRE_MOUNT_PORT);
    ASSERT_TRUE(client.Send(sRecord.substr(0, sRecord.size() - 1)));
    ASSERT_TRUE(m_Log.WaitFor("[RpcServer.SocketReceived] Output buf size(0)"));
    EXPECT_TRUE(
        m_Log.Contains("error|127.0.0.1|[MountProg.Process] Data is truncated.Missing 1 data"));
    EXPECT_FALSE(client.HasBytes());
    EXPECT_FALSE(IsHeldBy("127.0.0.1"));
    ASSERT_TRUE(client.Send(sRecord.substr(sRecord.size() - 1)));
    EXPECT_TRUE(client.ReceiveReply().IsSuccess(1));
    EXPECT_TRUE(IsHeldBy("127.0.0.1"));
}

TEST_F(MountProgTest, Mnt_TwoAtTheSameTime_ExactlyOneSucceeds)
{
    for (int iRound = 0; iRound < 30; iRound++) {
        std::atomic<int> iGranted = 0;
        std::atomic<int> iRefused = 0;
        std::barrier start(2);
        const auto mount = [&](const char* pcAddress) {
            start.arrive_and_wait();
            const uint32_t iStatus = TryMount("vm1", pcAddress);
            iGranted += iStatus == MNT_OK;
            iRefused += iStatus == STATUS_ACCESS;
        };
        std::thread other(mount, "127.0.0.2");
        mount("127.0.0.1");
        other.join();
        ASSERT_EQ(iGranted, 1);
        ASSERT_EQ(iRefused, 1);
        ASSERT_NE(IsHeldBy("127.0.0.1"), IsHeldBy("127.0.0.2"));
        Unmount("vm1");
    }
}

// ---- UMNT ----

TEST_F(MountProgTest, Umnt_FromAnotherAddress_ClearsTheBinding)
{
    EXPECT_EQ(TryMount("vm1"), static_cast<uint32_t>(MNT_OK));
    const CReply reply = CallMount(MOUNTPROC_UMNT, Name("vm1"), 3, "127.0.0.2");
    EXPECT_TRUE(reply.IsSuccess(1));
    EXPECT_EQ(reply.Left(), 0U);
    EXPECT_FALSE(IsHeldBy("127.0.0.1"));
    EXPECT_TRUE(m_Log.Contains("info|127.0.0.2|[MountProg.ProcedureUMNT]"));
    EXPECT_TRUE(m_Log.Contains("info|127.0.0.2|[MountProg.ProcedureUMNT] From 127.0.0.2"));
    EXPECT_TRUE(m_Log.Contains("info|127.0.0.2|[MountProg.ProcedureUMNT] Read path = vm1"));
    EXPECT_TRUE(m_Log.Contains("info|127.0.0.2|[MountProg.ProcedureUMNT] Umount OK"));
}

TEST_F(MountProgTest, Umnt_UnknownOrEmptyName_IsIgnored)
{
    EXPECT_EQ(TryMount("vm1"), static_cast<uint32_t>(MNT_OK));
    for (const char* pcName : {"vm2", ""}) {
        m_Log.Clear();
        const CReply reply = CallMount(MOUNTPROC_UMNT, Name(pcName));
        EXPECT_TRUE(reply.IsSuccess(1)) << pcName;
        EXPECT_EQ(reply.Left(), 0U);
        EXPECT_TRUE(m_Log.Contains("[MountProg.ProcedureUMNT] Umount OK"));
        EXPECT_FALSE(m_Log.Contains("Undefined"));
    }
    EXPECT_TRUE(IsHeldBy("127.0.0.1"));
}

TEST_F(MountProgTest, Umnt_NameOf4096Bytes_FailsWithoutAStatus)
{
    const CReply reply = CallMount(MOUNTPROC_UMNT, Name(std::string(4096, 'n')));
    EXPECT_TRUE(reply.IsSuccess(1));
    EXPECT_EQ(reply.Left(), 0U);
    EXPECT_TRUE(m_Log.Contains("info|127.0.0.1|[MountProg.ProcedureUMNT] Umount FAIL"));
}

// ---- The other procedures ----

TEST_F(MountProgTest, Null_IsAnsweredEmpty)
{
    const CReply reply = CallMount(MOUNTPROC_NULL, "");
    EXPECT_TRUE(reply.IsSuccess(1));
    EXPECT_EQ(reply.Left(), 0U);
    EXPECT_TRUE(m_Log.Contains("info|127.0.0.1|[MountProg.ProcedureNULL]"));
}

TEST_F(MountProgTest, DumpUmntallExport_AreRefused)
{
    for (const uint32_t iProc : {MOUNTPROC_DUMP, MOUNTPROC_UMNTALL, MOUNTPROC_EXPORT}) {
        m_Log.Clear();
        const CReply reply = CallMount(iProc, "");
        EXPECT_TRUE(reply.IsAccepted(1, ACCEPT_PROC_UNAVAIL)) << iProc;
        EXPECT_EQ(reply.Left(), 0U);
        EXPECT_TRUE(m_Log.Contains("info|127.0.0.1|[MountProg.ProcedureNOIMP]"));
    }
}

TEST_F(MountProgTest, ProcedureSixAndAbove_IsNoCall)
{
    for (const uint32_t iProc : {6U, 7U, 0xFFFFFFFFU}) {
        CTcpClient client(WIRE_MOUNT_PORT);
        ASSERT_TRUE(client.Send(MountCall(iProc, "").Record()));
        EXPECT_TRUE(client.IsOtherwiseSilent(WIRE_MOUNT_PROG, 3)) << iProc;
        client.ShutDownSending();
        EXPECT_TRUE(client.IsClosedByServer());
    }
}

TEST_F(MountProgObjectTest, ProcedureSixAndAbove_IsRefusedByTheProgramToo)
{
    CMountProg prog(&m_Utilities);
    EXPECT_EQ(prog.GetMaxSupportProc(), 6U);
    EXPECT_EQ(prog.GetVersion(), ANY_VERSION);
    for (const uint32_t iProc : {6U, 0xFFFFFFFFU}) {
        EXPECT_EQ(Process(&prog, iProc, "127.0.0.1", ""), PRC_NOTIMP);
        EXPECT_EQ(m_sResults, "");
    }
    EXPECT_EQ(m_Log.Count("[MountProg.ProcedureNOIMP]"), 2U);
}

TEST_F(MountProgObjectTest, WithoutUtilities_EverythingIsRefused)
{
    CMountProg prog(nullptr);
    for (uint32_t iProc = 0; iProc < MOUNTPROC_MAX; iProc++)
        EXPECT_EQ(Process(&prog, iProc, "127.0.0.1", Name("vm1")), PRC_NOTIMP) << iProc;
}

TEST_F(MountProgObjectTest, Mnt_WithoutRemoteAddress_Fails)
{
    char cReason[REASON_SIZE] = "";
    LogArgu logArgu = {"test"};
    ASSERT_TRUE(
        m_Utilities.AddMountInfo(&m_RuntimeParam, &logArgu, "/nowhere", "vm1", "", cReason));
    CMountProg prog(&m_Utilities);
    EXPECT_EQ(Process(&prog, MOUNTPROC_MNT, "", Name("vm1")), PRC_OK);
    EXPECT_EQ(m_sResults, CXdr().Word(STATUS_ACCESS).Bytes());
    EXPECT_TRUE(m_Log.Contains("info|caller|[MountProg.ProcedureMNT] Fail to get remote address"));
    EXPECT_FALSE(m_Log.Contains("Fail to read export name"));

    // Both tests run.
    EXPECT_EQ(Process(&prog, MOUNTPROC_MNT, "", Name("")), PRC_OK);
    EXPECT_EQ(m_Log.Count("Fail to get remote address"), 2U);
    EXPECT_EQ(m_Log.Count("Fail to read export name"), 1U);
}

TEST_F(MountProgObjectTest, UnknownException_IsLoggedAndFails)
{
    CThrowingUtilities utilities;
    utilities.SetCallback(&m_Log);
    CMountProg prog(&utilities);
    m_RuntimeParam.SetLogControl(LOG_CONTROL_ERROR | LOG_CONTROL_PROC_FUNC_ARGU);
    EXPECT_EQ(Process(&prog, MOUNTPROC_MNT, "127.0.0.1", Name("vm1")), PRC_FAIL);
    EXPECT_EQ(m_Log.Lines(),
              std::vector<std::string>{"error|caller|[MountProg.Process] Unknown exception"});
}

TEST_F(MountProgObjectTest, FailuresWithoutTheErrorBit_AreSilent)
{
    CThrowingUtilities utilities;
    utilities.SetCallback(&m_Log);
    CMountProg throwing(&utilities);
    m_RuntimeParam.SetLogControl(LOG_CONTROL_PROC_FUNC_ARGU);
    EXPECT_EQ(Process(&throwing, MOUNTPROC_MNT, "127.0.0.1", Name("vm1")), PRC_FAIL);

    CMountProg prog(&m_Utilities);
    m_RuntimeParam.SetLogControl(0x3FF & ~(LOG_CONTROL_ERROR | LOG_CONTROL_PROC_FUNC_NAME |
                                           LOG_CONTROL_PROC_FUNC_ARGU | LOG_CONTROL_GENERAL_INFO));
    EXPECT_EQ(Process(&prog, MOUNTPROC_MNT, "127.0.0.1", CXdr().Word(5).Bytes()), PRC_TRUNCATED);
    EXPECT_EQ(Process(&prog, MOUNTPROC_UMNT, "127.0.0.1", ""), PRC_TRUNCATED);
    EXPECT_EQ(Process(&prog, MOUNTPROC_MNT, "127.0.0.1", Name("vm1")), PRC_OK);
    EXPECT_EQ(Process(&prog, MOUNTPROC_MNT, "", Name("")), PRC_OK);
    EXPECT_EQ(m_Log.Lines(), std::vector<std::string>());
}
