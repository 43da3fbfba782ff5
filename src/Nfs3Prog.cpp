// Dispatch, and what all procedures share.
#include "Nfs3Prog.h"

#include <cstdio>
#include <cstring>

#include "DataException.h"
#include "InputStream.h"
#include "Nfs3Xdr.h"
#include "Text.h"
#include "Utilities.h"

// In the order of the numbers.
const CNfs3Prog::PPROC CNfs3Prog::PROCEDURES[] = {
    &CNfs3Prog::ProcedureNULL,   &CNfs3Prog::ProcedureGETATTR, &CNfs3Prog::ProcedureSETATTR,
    &CNfs3Prog::ProcedureLOOKUP, &CNfs3Prog::ProcedureACCESS,  &CNfs3Prog::ProcedureREADLINK,
    &CNfs3Prog::ProcedureREAD,   &CNfs3Prog::ProcedureWRITE,   &CNfs3Prog::ProcedureCREATE,
    &CNfs3Prog::ProcedureMKDIR,  &CNfs3Prog::ProcedureSYMLINK, &CNfs3Prog::ProcedureMKNOD,
    &CNfs3Prog::ProcedureREMOVE, &CNfs3Prog::ProcedureRMDIR,   &CNfs3Prog::ProcedureRENAME,
    &CNfs3Prog::ProcedureLINK,   &CNfs3Prog::ProcedureREADDIR, &CNfs3Prog::ProcedureREADDIRPLUS,
    &CNfs3Prog::ProcedureFSSTAT, &CNfs3Prog::ProcedureFSINFO,  &CNfs3Prog::ProcedurePATHCONF,
    &CNfs3Prog::ProcedureCOMMIT,
};

CNfs3Prog::CNfs3Prog(CUtilities* pUtilities)
    : CRpcProg(pUtilities),
      m_iSysUpTime(pUtilities == nullptr ? 0 : pUtilities->GetCurrentSystemTimeInMilliseconds()),
      m_iFSF3Properties(FSF3_HOMOGENEOUS | FSF3_CANSETTIME)
{
}

void CNfs3Prog::SetUserID(unsigned int iUId, unsigned int iGId)
{
    m_iUId = iUId;
    m_iGId = iGId;
}

int CNfs3Prog::Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    LogName(pParam, "Nfs3Prog.Process");
    try {
        if (m_pUtilities == nullptr || pParam->iProc >= NFSPROC3_MAX)
            return ProcedureNOIMP(pIn, pOut, pParam);
        return (this->*PROCEDURES[pParam->iProc])(pIn, pOut, pParam);
    } catch (const CDataTruncatedExpt& error) {
        return FailTruncated(pParam, "Nfs3Prog.Process", error.what());
    } catch (...) {  // the client gets an answer whatever happened
        return FailUnknown(pParam, "Nfs3Prog.Process");
    }
}

int CNfs3Prog::ProcedureNULL(CInputStream*, COutputStream*, ProcessParam* pParam)
{
    LogName(pParam, "Nfs3Prog.ProcedureNULL");
    return PRC_OK;
}

int CNfs3Prog::ProcedureNOIMP(CInputStream*, COutputStream*, ProcessParam* pParam)
{
    LogName(pParam, "Nfs3Prog.ProcedureNOIMP");
    return PRC_NOTIMP;
}

CNfs3Prog::ProcedureCall::ProcedureCall(CNfs3Prog* pProg, ProcessParam* pParam, const char* pcName)
    : m_pUtilities(pProg->m_pUtilities), m_pRuntimeParam(pParam->pRuntimeParam), m_LogArgu{pcName}
{
    pProg->LogName(pParam, pcName);
}

int CNfs3Prog::ProcedureCall::End(nfsstat3 stat)
{
    if (m_pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] End stat=%d", m_LogArgu.pcName,
                              static_cast<int>(stat));
    return PRC_OK;
}

bool CNfs3Prog::ReadPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, CInputStream* pIn,
                         char* pcPath)
{
    pcPath[0] = '\0';
    opaque handle;
    Read(pIn, &handle);
    if (handle.iBufLen < sizeof(unsigned int) ||
        !m_pUtilities->GetFilePath(pRuntimeParam, handle.pBuf, pcPath, PATH_SIZE))
        return false;
    if (pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Path = %s", pLogArgu->pcName, pcPath);
    return true;
}

bool CNfs3Prog::ReadPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, CInputStream* pIn,
                         diropargs3* pArguments, char* pcPath)
{
    char cDir[PATH_SIZE];
    char cJoined[PATH_SIZE];
    COpaquePath name;
    pcPath[0] = '\0';
    const bool bResolved = ReadPath(pRuntimeParam, pLogArgu, pIn, cDir);
    Read(pIn, &name);  // in any case, so that the next argument is read from its own place
    if (!bResolved)
        return false;

    pArguments->dir = cDir;
    pArguments->name = name.Get();
    if (pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Read path=%s, name=%s", pLogArgu->pcName, cDir,
                              name.Get());
    if (!AppendFilePath(cDir, name.Get(), cJoined))
        return false;
    m_pUtilities->GetCanonicalTargetPath(pRuntimeParam, pLogArgu, pcPath, cJoined);
    if (pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Path = %s", pLogArgu->pcName, pcPath);
    return true;
}

bool CNfs3Prog::AppendFilePath(const char* pcDir, const char* pcName, char* pcPath)
{
    if (pcDir == nullptr || pcName == nullptr || pcPath == nullptr)
        return false;
    return snprintf(pcPath, PATH_SIZE, "%s%c%s", pcDir, '/', pcName) < static_cast<int>(PATH_SIZE);
}

bool CNfs3Prog::IsInVaildDirName(const char* pcName)
{
    return pcName == nullptr || strcmp(pcName, ".") == 0 || strcmp(pcName, "..") == 0;
}

nfsstat3 CNfs3Prog::CheckProcessParam(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                      const char* pcPath)
{
    if (pcPath == nullptr ||
        !m_pUtilities->GetMountInfoByPath(pRuntimeParam, pLogArgu, pcPath, &m_Export)) {
        if (pRuntimeParam->IsLogError())
            m_pUtilities->LogError(pRuntimeParam, "[%s] Path record not found", pLogArgu->pcName);
        return NFS3ERR_IO;
    }
    pRuntimeParam->SetID(m_Export.sExportName.c_str());
    pRuntimeParam->SetIpcID(m_Export.sIcpID.c_str());
    return NFS3_OK;
}

nfsstat3 CNfs3Prog::CheckPath(const char* pcPath, bool bMustExist)
{
    if (pcPath == nullptr)
        return NFS3ERR_STALE;
    return bMustExist && !m_pUtilities->OS_IsFileExists(pcPath) ? NFS3ERR_IO : NFS3_OK;
}

nfsstat3 CNfs3Prog::CheckObject(ProcedureCall* pCall, const char* pcPath, Existence existence)
{
    const nfsstat3 stat = CheckProcessParam(pCall->m_pRuntimeParam, &pCall->m_LogArgu, pcPath);
    return stat == NFS3_OK ? CheckPath(pcPath, existence == MUST_EXIST) : stat;
}

nfsstat3 CNfs3Prog::CheckNamedObject(ProcedureCall* pCall, const char* pcPath)
{
    const nfsstat3 stat = CheckObject(pCall, pcPath, MUST_EXIST);
    return stat == NFS3ERR_IO ? NFS3ERR_NOENT : stat;
}

nfsstat3 CNfs3Prog::CheckUnknownObject(ProcedureCall* pCall)
{
    return CheckProcessParam(pCall->m_pRuntimeParam, &pCall->m_LogArgu, "");
}
