// An RPC server with one program of the tests' own behind a TCP and a UDP port.
#pragma once

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "DataException.h"
#include "DatagramSocket.h"
#include "InputStream.h"
#include "LogWaiter.h"
#include "OutputStream.h"
#include "RpcServer.h"
#include "ServerSocket.h"
#include "Text.h"
#include "Utilities.h"
#include "WireClient.h"

constexpr int LOG_EVERYTHING = 0x3FF;
constexpr int PORT = 4000;
constexpr uint32_t PROG = 100007;
constexpr size_t TCP_HEADER_SIZE = 44;
constexpr uint32_t EMPTY_REPLY_SIZE = 28;  // with its record mark
constexpr unsigned int BIG_REPLY_SIZE = 500000;

enum FakeProcedure : uint32_t {
    FAKE_NULL = 0,
    FAKE_ECHO = 1,    // one word back
    FAKE_FAIL = 2,    // writes results, then fails
    FAKE_NOTIMP = 3,  // likewise, then refuses
    FAKE_THROW = 4,
    FAKE_CONTEXT = 5,     // what it was called with
    FAKE_OPAQUE = 6,      // the length of an opaque
    FAKE_EXCLUSIVE = 7,   // how many calls run at once
    FAKE_BIG = 8,         // a reply of BIG_REPLY_SIZE bytes
    FAKE_ODD = 9,         // an opaque of three bytes
    FAKE_TRUNCATED = 10,  // writes results, then claims to be short of bytes
};

// A program whose procedures show one behaviour each.
class CFakeProg : public CRpcProg {
public:
    CFakeProg() : CRpcProg(nullptr) {}

    int Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) override
    {
        m_iCalls++;
        m_iArguments = pIn->GetFilledBufferSize();
        try {
            return Answer(pIn, pOut, pParam);
        } catch (const CDataTruncatedExpt&) {
            return PRC_TRUNCATED;
        }
    }
    unsigned int GetVersion() override { return m_iVersion; }
    unsigned int GetMaxSupportProc() override { return m_iMaxProc; }

    std::atomic<unsigned int> m_iVersion = ANY_VERSION;
    std::atomic<unsigned int> m_iMaxProc = ANY_PROCEDURE;
    std::atomic<int> m_iCalls = 0;
    std::atomic<unsigned int> m_iArguments = 0;  // bytes that the last call found

private:
    int Answer(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
    {
        switch (pParam->iProc) {
        case FAKE_NULL:
            return PRC_OK;
        case FAKE_ECHO: {
            unsigned int iWord = 0;
            pIn->Read(&iWord);
            pOut->Write(iWord);
            return PRC_OK;
        }
        case FAKE_FAIL:
            return WriteJunk(pOut, PRC_FAIL);
        case FAKE_NOTIMP:
            return WriteJunk(pOut, PRC_NOTIMP);
        case FAKE_TRUNCATED:
            return WriteJunk(pOut, PRC_TRUNCATED);
        case FAKE_THROW:
            throw std::runtime_error("no more");
        case FAKE_CONTEXT:
            return WriteContext(pOut, pParam);
        case FAKE_OPAQUE:
            return SkipOpaque(pIn, pOut);
        case FAKE_EXCLUSIVE:
            return CountRunning(pOut);
        case FAKE_BIG:
            for (unsigned int i = 0; i < BIG_REPLY_SIZE / 4; i++)
                pOut->Write(i);
            return PRC_OK;
        case FAKE_ODD:
            pOut->Write(3U);
            pOut->Write("abc", 3);
            pOut->WriteRemainOpaque(3);
            return PRC_OK;
        default:
            return PRC_NOTIMP;
        }
    }

    static int WriteJunk(COutputStream* pOut, int iResult)
    {
        pOut->Write(0xDEADBEEFU);
        pOut->Write(0xDEADBEEFU);
        return iResult;
    }

    static void WriteText(COutputStream* pOut, const std::string& sText)
    {
        pOut->Write(static_cast<unsigned int>(sText.size()));
        const std::string sPadded = CXdr().Fixed(sText).Bytes();
        pOut->Write(sPadded.data(), static_cast<unsigned int>(sPadded.size()));
    }

    static int WriteContext(COutputStream* pOut, ProcessParam* pParam)
    {
        pOut->Write(pParam->iVersion);
        WriteText(pOut, pParam->sRemoteAddr);
        WriteText(pOut, pParam->pRuntimeParam->GetID());
        WriteText(pOut, pParam->pRuntimeParam->GetIpcID());
        // As a program does that finds the owner of an export.
        pParam->pRuntimeParam->SetID("vm1");
        pParam->pRuntimeParam->SetIpcID("owner");
        return PRC_OK;
    }

    static int SkipOpaque(CInputStream* pIn, COutputStream* pOut)
    {
        unsigned int iLength = 0;
        pIn->Read(&iLength);
        pIn->Skip(iLength);
        pIn->SkipRemainOpaque(iLength);
        pOut->Write(iLength);
        return PRC_OK;
    }

    int CountRunning(COutputStream* pOut)
    {
        const int iRunning = ++m_iRunning;
        std::this_thread::yield();
        pOut->Write(static_cast<unsigned int>(iRunning));
        m_iRunning--;
        return PRC_OK;
    }

    std::atomic<int> m_iRunning = 0;
};

inline RpcCall FakeCall(uint32_t iProc, uint32_t iXid, const std::string& sArguments = "")
{
    RpcCall call;
    call.iProg = PROG;
    call.iVers = 1;
    call.iProc = iProc;
    call.iXid = iXid;
    call.sArguments = sArguments;
    return call;
}

inline RpcCall EchoCall(uint32_t iWord, uint32_t iXid)
{
    return FakeCall(FAKE_ECHO, iXid, CXdr().Word(iWord).Bytes());
}

// The server, its ports and what it logs.
class CRpcServerFixture : public testing::Test {
protected:
    void SetUp() override
    {
        m_Utilities.SetCallback(&m_Log);
        m_Rpc.Set(PROG, &m_Prog);
        char pcReason[REASON_SIZE] = "";
        m_Tcp.SetListener(&m_Rpc);
        m_Udp.SetListener(&m_Rpc);
        ASSERT_TRUE(m_Tcp.Open(PROG, PORT, 10, &m_Utilities, pcReason)) << pcReason;
        ASSERT_TRUE(m_Udp.Open(PROG, PORT, &m_Utilities, pcReason)) << pcReason;
    }

    void TearDown() override
    {
        m_Tcp.Close();
        m_Udp.Close();
    }

    void ExpectOnlyEcho(CTcpClient* pClient, uint32_t iWord, uint32_t iXid)
    {
        CReply reply = pClient->ReceiveReply();
        ASSERT_TRUE(reply.IsSuccess(iXid));
        EXPECT_EQ(reply.Word(), iWord);
        EXPECT_EQ(reply.Left(), 0U);
        EXPECT_TRUE(pClient->IsOtherwiseSilent(PROG, 1));
    }

    CLogWaiter m_Log;
    CUtilities m_Utilities;
    CRuntimeParam m_RuntimeParam{"test", LOG_EVERYTHING};
    CRpcServer m_Rpc{&m_Utilities, &m_RuntimeParam};
    CFakeProg m_Prog;
    CServerSocket m_Tcp;
    CDatagramSocket m_Udp;
};
