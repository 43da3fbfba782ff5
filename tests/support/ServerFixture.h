// A whole server on its usual ports, with one export, as its clients meet it.
#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "LogWaiter.h"
#include "NfsMain.h"
#include "RuntimeParam.h"
#include "TestEnvironment.h"
#include "Text.h"
#include "WireClient.h"

// Runs a server with every log bit set, which publishes the folder m_Folder as "vm1", for the
// length of one test. A fixture that wants it otherwise overrides SetUp and calls Start itself.
class CServerFixture : public testing::Test {
protected:
    static constexpr int LOG_EVERYTHING = 0x3FF;
    static constexpr size_t HANDLE_SIZE = 56;

    void SetUp() override { Start(LOG_EVERYTHING, false); }

    void TearDown() override
    {
        m_pNfs.reset();
        if (m_pMain) {
            m_pMain->StopServer();
            m_pMain->Terminate();
        }
        m_pMain.reset();
    }

    void Start(int iLogControl, bool bReadOnly)
    {
        char pcReason[REASON_SIZE] = "";
        m_pMain = std::make_unique<CNfsMain>("test", iLogControl);
        m_pMain->SetCallback(&m_Log);
        ASSERT_TRUE(m_pMain->Initial(pcReason)) << pcReason;
        ASSERT_TRUE(m_pMain->StartServer(0, 0, 0, 0, bReadOnly, pcReason)) << pcReason;
        Export(m_Folder.Path(), "vm1");
    }

    void Export(const std::string& sPath, const char* pcName)
    {
        char pcReason[REASON_SIZE] = "";
        ASSERT_TRUE(m_pMain->AddMountPoint(sPath.c_str(), pcName, pcReason)) << pcReason;
    }

    // One call of the MOUNT program over a connection of its own.
    static CReply CallMount(uint32_t iProc, const std::string& sArguments, uint32_t iVers = 3,
                            const char* pcSourceAddress = "127.0.0.1")
    {
        RpcCall call;
        call.iProg = WIRE_MOUNT_PROG;
        call.iVers = iVers;
        call.iProc = iProc;
        call.sArguments = sArguments;
        return CallOnce(WIRE_MOUNT_PORT, call, pcSourceAddress);
    }

    // Mounts an export; the 56-byte handle of its directory, or the empty string after a failure.
    static std::string Mount(const char* pcName)
    {
        CReply reply = CallMount(1, CXdr().String(pcName).Bytes());
        if (!reply.IsSuccess(1) || reply.Word() != 0) {
            ADD_FAILURE() << "Cannot mount " << pcName;
            return {};
        }
        const std::string sHandle = reply.Opaque();
        EXPECT_EQ(sHandle.size(), HANDLE_SIZE);
        return sHandle;
    }

    static void Unmount(const char* pcName)
    {
        EXPECT_TRUE(CallMount(3, CXdr().String(pcName).Bytes()).IsSuccess(1));
    }

    // One call of the NFS program over the test's one NFS connection. A reply that does not belong
    // to the call is a failure.
    CReply Call(uint32_t iProc, const std::string& sArguments)
    {
        if (!m_pNfs)
            m_pNfs = std::make_unique<CTcpClient>(WIRE_NFS_PORT);
        RpcCall call = NfsCall(iProc, sArguments);
        call.iXid = ++m_iXid;
        CReply reply = m_pNfs->Call(call);
        EXPECT_TRUE(reply.IsReceived()) << "No reply to procedure " << iProc;
        EXPECT_EQ(reply.Xid(), m_iXid);
        return reply;
    }

    // The handle that LOOKUP gives for a name in a directory; empty, with a failure, if it does
    // not.
    std::string Lookup(const std::string& sDirectoryHandle, const std::string& sName)
    {
        CReply reply = Call(3, CXdr().Opaque(sDirectoryHandle).String(sName).Bytes());
        const uint32_t iStatus = reply.Word();
        EXPECT_EQ(iStatus, 0U) << "LOOKUP of " << sName;
        return iStatus == 0 ? reply.Opaque() : std::string();
    }

    static RpcCall NfsCall(uint32_t iProc, const std::string& sArguments)
    {
        RpcCall call;
        call.iProg = WIRE_NFS_PROG;
        call.iVers = 3;
        call.iProc = iProc;
        call.sArguments = sArguments;
        return call;
    }

    // True if a fresh client of each program is answered, over TCP and over UDP.
    static bool IsServing()
    {
        return IsAnswered(WIRE_NFS_PROG, WIRE_NFS_PORT) &&
               IsAnswered(WIRE_MOUNT_PROG, WIRE_MOUNT_PORT) &&
               IsAnswered(WIRE_PORTMAP_PROG, WIRE_PORTMAP_PORT);
    }

    static bool IsAnswered(uint32_t iProg, int iPort)
    {
        const bool bPortmap = iProg == WIRE_PORTMAP_PROG;
        RpcCall call;
        call.iProg = iProg;
        call.iVers = bPortmap ? 2 : 3;
        call.iXid = 0x600D;
        // The port mapper has no null procedure, but says so.
        const AcceptState state = bPortmap ? ACCEPT_PROC_UNAVAIL : ACCEPT_SUCCESS;
        return CallOnce(iPort, call).IsAccepted(0x600D, state) &&
               CUdpClient(iPort).Call(call).IsAccepted(0x600D, state);
    }

    CScratchFolder m_Folder;  // what "vm1" publishes
    CLogWaiter m_Log;
    std::unique_ptr<CNfsMain> m_pMain;
    std::unique_ptr<CTcpClient> m_pNfs;
    uint32_t m_iXid = 100;
};
