// READ, WRITE and COMMIT.
#include "Nfs3Prog.h"

#include <algorithm>
#include <cstdio>

#include "Nfs3Limits.h"
#include "Nfs3Xdr.h"
#include "Text.h"
#include "Utilities.h"

// The data are read straight into the reply, and the words in front of them, which depend on how
// much there was, are written afterwards.
int CNfs3Prog::ProcedureREAD(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureREAD");
    char cPath[PATH_SIZE];
    uint64_t iOffset = 0;
    uint32_t iCount = 0;
    ReadPath(call.m_pRuntimeParam, &call.m_LogArgu, pIn, cPath);
    Read(pIn, &iOffset);
    Read(pIn, &iCount);

    nfsstat3 stat = CheckObject(&call, cPath, MUST_EXIST);
    opaque data;
    bool bEof = true;
    const int iStatus = static_cast<int>(pOut->GetBufferIndex());
    Write(pOut, stat);
    const int iBody = static_cast<int>(pOut->GetBufferIndex());
    const auto WriteBody = [&] {
        Write(pOut, post_op_attr{});
        Write(pOut, data.iBufLen);
        Write(pOut, bEof);
        Write(pOut, data, true);
    };
    if (stat == NFS3_OK) {
        WriteBody();
        stat = ReadData(&call, pOut, cPath, iOffset, iCount, &data.iBufLen, &bEof);
    }
    if (stat == NFS3_OK) {
        if (call.m_pRuntimeParam->IsLogProcFuncArgu())
            m_pUtilities->LogInfo(call.m_pRuntimeParam, "[%s] Read=%u (eof=%s)",
                                  call.m_LogArgu.pcName, data.iBufLen, bEof ? "T" : "F");
        pOut->Write(nullptr, data.iBufLen);
        pOut->WriteRemainOpaque(static_cast<int>(data.iBufLen));
        const int iEnd = static_cast<int>(pOut->GetBufferIndex());
        pOut->Seek(iBody, 0);
        WriteBody();
        pOut->Seek(iEnd, 0);
    } else {
        pOut->Seek(iStatus, 0);
        Write(pOut, stat);
        Write(pOut, post_op_attr{});
    }
    return call.End(stat);
}

nfsstat3 CNfs3Prog::ReadData(ProcedureCall* pCall, COutputStream* pOut, const char* pcPath,
                             uint64_t iOffset, uint32_t iCount, unsigned int* piRead, bool* pbEof)
{
    CRuntimeParam* pRuntimeParam = pCall->m_pRuntimeParam;
    const char* pcName = pCall->m_LogArgu.pcName;
    const unsigned long long iShownOffset = iOffset;
    if (pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Offset=%llu, length=%u", pcName, iShownOffset,
                              iCount);

    nfsstat3 stat = NFS3_OK;
    if (pOut->GetFreeBufferSize() < iCount) {
        stat = NFS3ERR_INVAL;
        if (pRuntimeParam->IsLogError())
            m_pUtilities->LogError(
                pRuntimeParam,
                "[%s] Count bigger than free buffer (path=%s, offset=%llu length=%u)", pcName,
                pcPath, iShownOffset, iCount);
    } else if (iCount != 0) {
        const int iRead =
            m_pUtilities->ReadFile(pRuntimeParam, &pCall->m_LogArgu, pcPath, iOffset, SEEK_SET,
                                   pOut->GetCurrentBuffer(), std::min(iCount, NFS3_RTMAX), pbEof);
        if (iRead >= 0) {
            *piRead = static_cast<unsigned int>(iRead);
        } else {
            stat = NFS3ERR_INVAL;
            if (pRuntimeParam->IsLogError())
                m_pUtilities->LogError(pRuntimeParam,
                                       "[%s] Read return -1 (path=%s, offset=%llu length=%u)",
                                       pcName, pcPath, iShownOffset, iCount);
        }
    }
    if (stat != NFS3_OK && pRuntimeParam->IsLogError())
        m_pUtilities->LogError(pRuntimeParam, "[%s] Read fail", pcName);
    return stat;
}

int CNfs3Prog::ProcedureWRITE(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureWRITE");
    char cPath[PATH_SIZE];
    uint64_t iOffset = 0;
    uint32_t iCount = 0;
    uint32_t iStable = 0;  // every write goes to the file at once, whatever is asked for
    opaque data;
    ReadPath(call.m_pRuntimeParam, &call.m_LogArgu, pIn, cPath);
    Read(pIn, &iOffset);
    Read(pIn, &iCount);
    Read(pIn, &iStable);
    Read(pIn, &data);

    nfsstat3 stat = CheckObject(&call, cPath, MUST_EXIST);
    if (m_bReadOnly)
        stat = NFS3ERR_ACCES;  // kept: not NFS3ERR_ROFS, and whatever the checks gave
    unsigned int iWritten = 0;
    if (stat == NFS3_OK)
        stat = WriteData(&call, cPath, iOffset, iCount, data, &iWritten);

    Write(pOut, stat);
    Write(pOut, wcc_data{});
    if (stat == NFS3_OK) {
        if (call.m_pRuntimeParam->IsLogProcFuncArgu())
            m_pUtilities->LogInfo(call.m_pRuntimeParam, "[%s] Write=%u", call.m_LogArgu.pcName,
                                  iWritten);
        Write(pOut, iWritten);
        Write(pOut, FILE_SYNC);
        Write(pOut, static_cast<uint64_t>(m_iSysUpTime));
    } else if (call.m_pRuntimeParam->IsLogError()) {
        m_pUtilities->LogError(call.m_pRuntimeParam, "[%s] Write fail", call.m_LogArgu.pcName);
    }
    return call.End(stat);
}

// A client that sends more than the limit learns by the count how much of it was written.
nfsstat3 CNfs3Prog::WriteData(ProcedureCall* pCall, const char* pcPath, uint64_t iOffset,
                              uint32_t iCount, const opaque& data, unsigned int* piWritten)
{
    if (pCall->m_pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(pCall->m_pRuntimeParam, "[%s] Offset=%llu, length=%u, count=%u",
                              pCall->m_LogArgu.pcName, static_cast<unsigned long long>(iOffset),
                              data.iBufLen, iCount);
    const unsigned long long iMaximum = m_pUtilities->GetMaxFileSize(pcPath);
    if (iOffset > iMaximum || iCount > iMaximum - iOffset)
        return NFS3ERR_FBIG;
    if (iCount == 0)
        return NFS3_OK;
    const unsigned int iLength = std::min({iCount, NFS3_WTMAX, data.iBufLen});
    const int iResult = m_pUtilities->WriteFile(pCall->m_pRuntimeParam, &pCall->m_LogArgu, pcPath,
                                                iOffset, SEEK_SET, data.pBuf, iLength);
    if (iResult < 0)
        return NFS3ERR_INVAL;
    *piWritten = static_cast<unsigned int>(iResult);
    return NFS3_OK;
}

// There is nothing to flush, and the object is not looked at.
int CNfs3Prog::ProcedureCOMMIT(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureCOMMIT");
    uint64_t iOffset = 0;
    uint32_t iCount = 0;
    SkipOpaque(pIn);
    Read(pIn, &iOffset);
    Read(pIn, &iCount);
    const nfsstat3 stat = CheckUnknownObject(&call);
    Write(pOut, stat);
    Write(pOut, wcc_data{});
    if (stat == NFS3_OK)
        Write(pOut, uint64_t{0});  // kept: not the verifier of WRITE
    return call.End(stat);
}
