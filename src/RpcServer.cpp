#include "RpcServer.h"

#include <algorithm>
#include <cstddef>

#include "DataException.h"
#include "Utilities.h"

namespace {

constexpr unsigned int LAST_FRAGMENT = 0x80000000;  // bit of a record mark, beside the length
constexpr unsigned int MARK_SIZE = sizeof(RPC_STM_HEADER::lHeader);

// A header that is skipped is worth a line if its program and procedure lie in these ranges.
constexpr unsigned int LIKELY_PROGRAM_FIRST = 100000;
constexpr unsigned int LIKELY_PROGRAM_LAST = 199999;
constexpr unsigned int LIKELY_PROCEDURE_LAST = 99;

// What the mark at the read position announces: the bytes of the record behind it.
unsigned int GetRecordLength(const CInputStream* pIn)
{
    const unsigned char* pcMark = pIn->GetFilledBuffer(0, MARK_SIZE);
    return pcMark == nullptr ? 0 : CSocketStream::LoadWord(pcMark) & ~LAST_FRAGMENT;
}

unsigned int GetHeaderSize(int iSocketType)
{
    return iSocketType == SOCKET_STREAM ? sizeof(RPC_STM_HEADER) : sizeof(RPC_HEADER);
}

// Confines whoever reads to one record: what a length inside it claims cannot reach into the next.
// A mark too small for the header behind it says nothing, nor does a datagram, which has none.
class CRecordScope {
public:
    CRecordScope(int iSocketType, CInputStream* pIn) : m_pIn(pIn), m_iEnd(pIn->GetBufferEnd())
    {
        const unsigned int iLength = iSocketType == SOCKET_STREAM ? GetRecordLength(pIn) : 0;
        if (iLength >= sizeof(RPC_HEADER) && iLength < m_pIn->GetFilledBufferSize() - MARK_SIZE)
            m_pIn->SetBufferEnd(m_pIn->GetBufferIndex() + MARK_SIZE + iLength);
    }
    ~CRecordScope() { m_pIn->SetBufferEnd(m_iEnd); }
    CRecordScope(const CRecordScope&) = delete;
    CRecordScope& operator=(const CRecordScope&) = delete;

private:
    CInputStream* m_pIn;
    unsigned int m_iEnd;
};

void ReadAuth(CInputStream* pIn, OPAQUE_AUTH* pAuth)
{
    pIn->Read(&pAuth->lFlavor);
    pIn->Read(&pAuth->lLength);
    pIn->Skip(pAuth->lLength);
}

}  // namespace

CRpcServer::CRpcServer(CUtilities* pUtilities, const CRuntimeParam* pRuntimeParam)
    : m_pUtilities(pUtilities), m_pRuntimeParam("", pRuntimeParam->GetLogControl())
{
}

void CRpcServer::Set(int iProg, CRpcProg* pProg)
{
    m_pProgTable.at(static_cast<size_t>(iProg) - FIRST_PROGRAM) = pProg;
}

CRpcProg* CRpcServer::FindProgram(unsigned long iProg) const
{
    const unsigned long iIndex = iProg - FIRST_PROGRAM;
    return iIndex < PROGRAM_COUNT ? m_pProgTable[iIndex] : nullptr;
}

void CRpcServer::SocketReceived(CSocket* pSocket)
{
    bool bMore = true;
    while (bMore) {
        {
            const CMutexLock lock(m_hMutex);
            bMore = AnswerCalls(pSocket);
        }
        // A reply that the peer did not read at once: it alone waits, nobody else does.
        if (!pSocket->Flush())
            return;
    }
}

// Answers calls until none is left, and then yields false; or true as soon as a reply did not go
// out whole, for that must go before the next one.
bool CRpcServer::AnswerCalls(CSocket* pSocket)
{
    const std::string sRemoteAddr = pSocket->GetRemoteAddress();
    while (pSocket->GetInputStream()->GetFilledBufferSize() > 0) {
        const int iResult = AnswerCall(pSocket, sRemoteAddr);
        if (iResult != PRC_OK || pSocket->GetType() == SOCKET_DATAGRAM)
            return false;
        if (pSocket->GetOutputStream()->GetBufferSize() > 0)
            return true;
    }
    return false;
}

int CRpcServer::AnswerCall(CSocket* pSocket, const std::string& sRemoteAddr)
{
    CRuntimeParam* pRuntimeParam = &m_pRuntimeParam;
    LogArgu logArgu = {"RpcServer.SocketReceived"};
    CInputStream* pIn = pSocket->GetInputStream();
    COutputStream* pOut = pSocket->GetOutputStream();
    // Each call anew: the one before may have left the owner of its export here.
    pRuntimeParam->SetID(sRemoteAddr.c_str());
    pRuntimeParam->SetIpcID(nullptr);

    if (pRuntimeParam->IsLogRpc())
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Input buf size(%u) pos(%u)", logArgu.pcName,
                              pIn->GetFilledBufferSize(), pIn->GetBufferIndex());
    // What was searched in vain before is not searched again, unless someone wants to see the lines
    // of the search: what was no call does not become one.
    unsigned int iSearched = pRuntimeParam->IsLogRpc() ? 0 : pSocket->GetSearchedSize();
    const unsigned int iFirst = pIn->GetBufferIndex();
    if (!Search(pRuntimeParam, &logArgu, pSocket->GetProgId(), pSocket->GetType(), pIn,
                iSearched)) {
        RememberSearch(pSocket);
        if (pRuntimeParam->IsLogRpc())
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Cannot find valid header!!", logArgu.pcName);
        return PRC_TRUNCATED;
    }
    pSocket->SetSearchedSize(0);
    const unsigned int iStart = pIn->GetBufferIndex();
    if (iStart != iFirst)
        iSearched = 0;
    const unsigned long long iRecordEnd = 0ULL + iStart + MARK_SIZE + GetRecordLength(pIn);
    const int iResult = Process(pRuntimeParam, pSocket->GetProgId(), pSocket->GetType(), pIn, pOut,
                                sRemoteAddr.c_str());
    if (iResult == PRC_TRUNCATED && !FindNextHeader(pSocket, iRecordEnd, iStart + iSearched)) {
        pOut->ResetBuffer();
        pIn->SetBufferIndex(iStart);  // the whole record again, once more of it has arrived
        RememberSearch(pSocket);
        if (pRuntimeParam->IsLogRpc())
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Reset input buffer postion", logArgu.pcName);
    }
    if (pRuntimeParam->IsLogRpc())
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Output buf size(%u)", logArgu.pcName,
                              pOut->GetBufferSize());
    pSocket->Send();
    return iResult;
}

// Every place among the unread bytes that has room for a header was looked at.
void CRpcServer::RememberSearch(CSocket* pSocket)
{
    const unsigned int iUnread = pSocket->GetInputStream()->GetFilledBufferSize();
    const unsigned int iHeader = GetHeaderSize(pSocket->GetType());
    pSocket->SetSearchedSize(iUnread < iHeader ? 0 : iUnread - iHeader + 1);
}

// After a truncated call: is there another one behind it? Not before the end that its record
// announces, for whatever lies there is the record's own data, not a call; nor before iSearchedEnd.
bool CRpcServer::FindNextHeader(CSocket* pSocket, unsigned long long iRecordEnd,
                                unsigned int iSearchedEnd)
{
    CInputStream* pIn = pSocket->GetInputStream();
    if (pSocket->GetType() == SOCKET_STREAM) {
        if (iRecordEnd > pIn->GetBufferEnd())
            return false;
        pIn->SetBufferIndex(
            std::max({pIn->GetBufferIndex(), static_cast<unsigned int>(iRecordEnd), iSearchedEnd}));
    }
    LogArgu logArgu = {"RpcServer.SocketReceived"};
    return LookForValidHeader(&m_pRuntimeParam, &logArgu, pSocket->GetProgId(), pSocket->GetType(),
                              pIn, pSocket->GetOutputStream());
}

bool CRpcServer::IsValidHeader(unsigned long iProg, unsigned int iVers, unsigned int iProc) const
{
    CRpcProg* pProg = FindProgram(iProg);
    if (pProg == nullptr)
        return true;  // nothing to hold it against; it is answered PROG_UNAVAIL
    const unsigned int iWanted = pProg->GetVersion();
    const unsigned int iMaximum = pProg->GetMaxSupportProc();
    return (iWanted == ANY_VERSION || iWanted == iVers) &&
           (iMaximum == ANY_PROCEDURE || iProc < iMaximum);
}

bool CRpcServer::LookForValidHeader(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                    unsigned long iProg, int iSocketType, CInputStream* pIn,
                                    COutputStream*)
{
    return Search(pRuntimeParam, pLogArgu, iProg, iSocketType, pIn, 0);
}

// Looks at the read position and then from iFrom bytes behind it.
bool CRpcServer::Search(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, unsigned long iProg,
                        int iSocketType, CInputStream* pIn, unsigned int iFrom)
{
    const unsigned int iSize = GetHeaderSize(iSocketType);
    const unsigned int iProgAt = iSocketType == SOCKET_STREAM ? offsetof(RPC_STM_HEADER, lProg)
                                                              : offsetof(RPC_HEADER, lProg);
    const bool bLog = pRuntimeParam->IsLogRpc();

    const unsigned int iFilled = pIn->GetFilledBufferSize();
    const unsigned char* pcBuffer = pIn->GetCurrentBuffer();
    for (unsigned int k = 0; k + iSize <= iFilled; k = std::max(k + 1, iFrom)) {
        const unsigned char* pcWords = pcBuffer + k + iProgAt;
        const unsigned int iFound = CSocketStream::LoadWord(pcWords);
        if (iFound == iProg) {
            if (!IsValidHeader(iProg, CSocketStream::LoadWord(pcWords + 4),
                               CSocketStream::LoadWord(pcWords + 8)))
                continue;
            if (k > 0) {
                pIn->Skip(k);
                if (bLog)  // kept: "vaild"
                    m_pUtilities->LogInfo(pRuntimeParam,
                                          "[%s] Skipped %u data for next vaild header",
                                          pLogArgu->pcName, k);
            }
            return true;
        }
        if (bLog && iFound >= LIKELY_PROGRAM_FIRST && iFound <= LIKELY_PROGRAM_LAST &&
            CSocketStream::LoadWord(pcWords + 8) <=
                LIKELY_PROCEDURE_LAST)  // kept: "ProcId" for the program too
            m_pUtilities->LogInfo(
                pRuntimeParam, "[%s] A possible valid header may be skipped, ProcId=%u, ProcId=%u",
                pLogArgu->pcName, iFound, CSocketStream::LoadWord(pcWords + 8));
    }
    return false;
}

int CRpcServer::Process(CRuntimeParam* pRuntimeParam, unsigned long, int iSocketType,
                        CInputStream* pIn, COutputStream* pOut, const char* pcRemoteAddr)
{
    const CRecordScope scope(iSocketType, pIn);
    RPC_STM_HEADER header = {};
    int iResult = ReadHeader(pRuntimeParam, iSocketType, pIn, &header);
    if (pRuntimeParam->IsLogRpc())
        LogHeader(pRuntimeParam, iSocketType, header);

    const unsigned int iMark = pOut->GetBufferIndex();
    if (iSocketType == SOCKET_STREAM)
        pOut->Write(header.lHeader);  // holds the place of the reply's own mark
    pOut->Write(header.lXID);
    pOut->Write(REPLY);
    pOut->Write(MSG_ACCEPTED);
    pOut->Write(header.verf.lFlavor);
    pOut->Write(header.verf.lLength);
    iResult = CallProgram(pRuntimeParam, header, iResult, pIn, pOut, pcRemoteAddr);

    // The reply ends where the position is: padding that was only moved over belongs to it, results
    // behind an overwritten state do not.
    pOut->Truncate();
    if (iSocketType == SOCKET_STREAM) {
        const unsigned int iLength = pOut->GetBufferIndex() - iMark - MARK_SIZE;
        pOut->Seek(static_cast<int>(iMark), 0);
        pOut->Write(LAST_FRAGMENT + iLength);
    }
    return iResult;
}

int CRpcServer::ReadHeader(CRuntimeParam* pRuntimeParam, int iSocketType, CInputStream* pIn,
                           RPC_STM_HEADER* pHeader)
{
    try {
        if (iSocketType == SOCKET_STREAM)
            pIn->Read(&pHeader->lHeader);
        pIn->Read(&pHeader->lXID);
        pIn->Read(&pHeader->lMsg);
        pIn->Read(&pHeader->lRpcvers);
        pIn->Read(&pHeader->lProg);
        pIn->Read(&pHeader->lVers);
        pIn->Read(&pHeader->lProc);
        ReadAuth(pIn, &pHeader->cred);
        ReadAuth(pIn, &pHeader->verf);
        return PRC_OK;
    } catch (const CDataTruncatedExpt& error) {
        if (pRuntimeParam->IsLogError())
            m_pUtilities->LogError(pRuntimeParam, "[%s] %s", "RpcServer.Process", error.what());
        return PRC_TRUNCATED;
    } catch (...) {  // whatever else reading throws, the client gets an answer
        if (pRuntimeParam->IsLogError())
            m_pUtilities->LogError(pRuntimeParam, "[%s] Unknown exception", "RpcServer.Process");
        return PRC_FAIL;
    }
}

void CRpcServer::LogHeader(CRuntimeParam* pRuntimeParam, int iSocketType,
                           const RPC_STM_HEADER& header)
{
    m_pUtilities->LogInfo(pRuntimeParam, "[%s] request header", "RpcServer.Process");
    if (iSocketType == SOCKET_STREAM)
        m_pUtilities->LogInfo(pRuntimeParam, " --- header=%u", header.lHeader);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nXID=%u", header.lXID);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nmsg=%u", header.lMsg);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nrpcvers=%u", header.lRpcvers);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nprog=%u", header.lProg);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nvers=%u", header.lVers);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nproc=%u", header.lProc);
}

// Writes the accept state and has the program write its results behind it. A header that was cut
// short still goes to its program, which meets the end itself: there are no arguments behind such a
// header, and what is left of it must not be taken for some.
int CRpcServer::CallProgram(CRuntimeParam* pRuntimeParam, const RPC_STM_HEADER& header, int iResult,
                            CInputStream* pIn, COutputStream* pOut, const char* pcRemoteAddr)
{
    if (iResult == PRC_FAIL) {
        pOut->Write(GARBAGE_ARGS);
        return iResult;
    }
    CRpcProg* pProg = FindProgram(header.lProg);
    if (pProg == nullptr) {
        pOut->Write(PROG_UNAVAIL);
        return iResult;
    }
    const int iState = static_cast<int>(pOut->GetBufferIndex());
    pOut->Write(SUCCESS);
    ProcessParam param = {header.lVers, header.lProc, pcRemoteAddr, pRuntimeParam};
    const bool bShort = iResult == PRC_TRUNCATED;
    const unsigned int iStop = pIn->GetBufferIndex();
    if (bShort)
        pIn->Skip(pIn->GetFilledBufferSize());
    iResult = pProg->Process(pIn, pOut, &param);
    if (bShort) {
        pIn->SetBufferIndex(iStop);
        return PRC_TRUNCATED;  // also where the program did without arguments
    }
    if (iResult == PRC_NOTIMP || iResult == PRC_FAIL) {
        pOut->Seek(iState, 0);
        pOut->Write(iResult == PRC_NOTIMP ? PROC_UNAVAIL : GARBAGE_ARGS);
    }
    return iResult;
}
