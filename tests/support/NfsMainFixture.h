// A controller under test, and what tells whether it serves.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FileLogger.h"
#include "LogRecorder.h"
#include "NfsMain.h"
#include "Ports.h"
#include "TestEnvironment.h"
#include "Text.h"
#include "WireClient.h"

using Lines = std::vector<std::string>;

constexpr int LOG_EVERYTHING = 0x3FF;
constexpr int PORTS[] = {PORTMAP_PORT, NFS_PORT, MOUNT_PORT};

constexpr uint32_t PROC_GETPORT = 3;
constexpr uint32_t PROC_MNT = 1;
constexpr uint32_t PROC_READ = 6;
constexpr uint32_t PROC_WRITE = 7;
constexpr uint32_t STATUS_ACCESS = 13;

inline RpcCall MakeCall(uint32_t iProg, uint32_t iVers, uint32_t iProc,
                        const std::string& sArguments = {})
{
    RpcCall call;
    call.iProg = iProg;
    call.iVers = iVers;
    call.iProc = iProc;
    call.sArguments = sArguments;
    return call;
}

inline bool AnswersNull(uint32_t iProg, int iPort)
{
    const RpcCall call = MakeCall(iProg, 3, 0);
    return CallOnce(iPort, call).IsSuccess(call.iXid) &&
           CUdpClient(iPort).Call(call).IsSuccess(call.iXid);
}

// What the port mapper says; it is asked both ways.
inline uint32_t GetPort(uint32_t iProg)
{
    const RpcCall call = MakeCall(WIRE_PORTMAP_PROG, 2, PROC_GETPORT,
                                  CXdr().Word(iProg).Word(3).Word(6).Word(0).Bytes());
    CReply overTcp = CallOnce(PORTMAP_PORT, call);
    CReply overUdp = CUdpClient(PORTMAP_PORT).Call(call);
    const uint32_t iPort = overTcp.Word();
    EXPECT_EQ(iPort, overUdp.Word());
    return iPort;
}

inline void ExpectServing(int iMountPort = MOUNT_PORT, int iNfsPort = NFS_PORT)
{
    EXPECT_TRUE(AnswersNull(WIRE_MOUNT_PROG, iMountPort));
    EXPECT_TRUE(AnswersNull(WIRE_NFS_PROG, iNfsPort));
    EXPECT_EQ(GetPort(WIRE_MOUNT_PROG), static_cast<uint32_t>(iMountPort));
    EXPECT_EQ(GetPort(WIRE_NFS_PROG), static_cast<uint32_t>(iNfsPort));
}

inline void ExpectAllPortsFree()
{
    for (const int iPort : PORTS)
        ExpectPortFree(iPort);
}

// Lines of a log file without the time in front.
inline Lines ReadLog(const std::string& sPath)
{
    Lines vLines;
    for (const std::string& sLine : SplitIntoVector(ReadWholeFile(sPath).c_str(), '\n'))
        if (const size_t iEnd = sLine.find(']'); iEnd != std::string::npos)
            vLines.push_back(sLine.substr(iEnd + 1));
    return vLines;
}

// One controller, which reports to a recorder until a test gives it a log file.
class NfsMain : public testing::Test {
protected:
    void SetUp() override { Make("host", LOG_EVERYTHING); }

    void TearDown() override
    {
        m_pMain.reset();
        ExpectAllPortsFree();
    }

    void Make(const char* pcID, int iLogControl)
    {
        m_pMain = std::make_unique<CNfsMain>(pcID, iLogControl);
        m_pMain->SetCallback(&m_recorder);
    }

    // From here on lines go to a log file, and only there.
    void OpenLogFile()
    {
        ASSERT_TRUE(m_logger.Open(0));
        m_pMain->SetCallback(nullptr);
        m_pMain->SetFileLogger(&m_logger);
    }

    void Start(bool bReadOnly = false)
    {
        ASSERT_TRUE(m_pMain->StartServer(0, 0, 0, 0, bReadOnly, m_cReason)) << m_cReason;
    }

    void Export()
    {
        ASSERT_TRUE(m_pMain->AddMountPoint(m_folder.Path().c_str(), "vm1", m_cReason)) << m_cReason;
    }

    // The handle of a file in the export.
    std::string MountAndLookup(const std::string& sName)
    {
        CReply mount = CallOnce(
            MOUNT_PORT, MakeCall(WIRE_MOUNT_PROG, 3, PROC_MNT, CXdr().String("vm1").Bytes()));
        EXPECT_EQ(mount.Word(), 0U);
        const std::string sArguments = CXdr().Opaque(mount.Opaque()).String(sName).Bytes();
        CReply lookup = CallOnce(NFS_PORT, MakeCall(WIRE_NFS_PROG, 3, 3, sArguments));
        EXPECT_EQ(lookup.Word(), 0U);
        return lookup.Opaque();
    }

    uint32_t ReadStatus(const std::string& sHandle)
    {
        const std::string sArguments = CXdr().Opaque(sHandle).Hyper(0).Word(4).Bytes();
        return CallOnce(NFS_PORT, MakeCall(WIRE_NFS_PROG, 3, PROC_READ, sArguments)).Word();
    }

    uint32_t WriteStatus(const std::string& sHandle, const std::string& sData)
    {
        const std::string sArguments = CXdr()
                                           .Opaque(sHandle)
                                           .Hyper(0)
                                           .Word(static_cast<uint32_t>(sData.size()))
                                           .Word(2)
                                           .Opaque(sData)
                                           .Bytes();
        return CallOnce(NFS_PORT, MakeCall(WIRE_NFS_PROG, 3, PROC_WRITE, sArguments)).Word();
    }

    CScratchFolder m_folder;
    CScratchFolder m_logFolder;
    CFileLogger m_logger{m_logFolder.Path("log").c_str()};
    CLogRecorder m_recorder;
    char m_cReason[REASON_SIZE] = "";
    std::unique_ptr<CNfsMain> m_pMain;
};
