#include "MountProg.h"

#include <iterator>

#include "DataException.h"
#include "InputStream.h"
#include "Nfs3Types.h"
#include "OutputStream.h"
#include "RuntimeParam.h"
#include "Text.h"
#include "Utilities.h"

namespace {

constexpr unsigned int FILLED_HANDLE_SIZE = 88;     // bytes; those behind the file ID are zero
constexpr unsigned int VERSION_1_HANDLE_SIZE = 32;  // bytes, sent without their length

}  // namespace

const CMountProg::PPROC CMountProg::PROCEDURES[] = {
    &CMountProg::ProcedureNULL, &CMountProg::ProcedureMNT,   &CMountProg::ProcedureNOIMP,
    &CMountProg::ProcedureUMNT, &CMountProg::ProcedureNOIMP, &CMountProg::ProcedureNOIMP,
};

int CMountProg::Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    LogName(pParam, "MountProg.Process");
    try {
        if (m_pUtilities == nullptr || pParam->iProc >= std::size(PROCEDURES))
            return ProcedureNOIMP(pIn, pOut, pParam);
        return (this->*PROCEDURES[pParam->iProc])(pIn, pOut, pParam);
    } catch (const CDataTruncatedExpt& error) {
        return FailTruncated(pParam, "MountProg.Process", error.what());
    } catch (...) {  // the client gets an answer whatever happened
        return FailUnknown(pParam, "MountProg.Process");
    }
}

int CMountProg::ProcedureNULL(CInputStream*, COutputStream*, ProcessParam* pParam)
{
    LogName(pParam, "MountProg.ProcedureNULL");
    return PRC_OK;
}

int CMountProg::ProcedureNOIMP(CInputStream*, COutputStream*, ProcessParam* pParam)
{
    LogName(pParam, "MountProg.ProcedureNOIMP");
    return PRC_NOTIMP;
}

bool CMountProg::ReadPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, CInputStream* pIn,
                          COpaquePath* pPath)
{
    if (pPath == nullptr)
        return false;
    unsigned int iLength = 0;
    pIn->Read(&iLength);
    if (iLength >= PATH_SIZE)
        return false;
    char cPath[PATH_SIZE];
    pIn->Read(cPath, iLength);
    pIn->SkipRemainOpaque(iLength);
    cPath[iLength] = '\0';
    pPath->Set(cPath);
    if (pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Read path = %s", pLogArgu->pcName, cPath);
    return true;
}

int CMountProg::ProcedureMNT(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    LogArgu logArgu = {"MountProg.ProcedureMNT"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogName(pParam, logArgu.pcName);
    if (pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] From %s, NFS Protocol Version=%u",
                              logArgu.pcName, pParam->sRemoteAddr.c_str(), pParam->iVersion);

    unsigned char cHandle[FILLED_HANDLE_SIZE];
    if (!Mount(pIn, pParam, &logArgu, cHandle)) {
        if (pRuntimeParam->IsLogGeneralInfo())
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Mount FAIL", logArgu.pcName);
        pOut->Write(MNTERR_ACCESS);
        return PRC_OK;
    }
    if (pRuntimeParam->IsLogGeneralInfo())
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Mount OK", logArgu.pcName);
    pOut->Write(MNT_OK);
    if (pParam->iVersion == 1) {
        pOut->Write(cHandle, VERSION_1_HANDLE_SIZE);
    } else {
        pOut->Write(NFS3_FHSIZE);
        pOut->Write(cHandle, NFS3_FHSIZE);
        pOut->Write(0U);  // no authentication flavours
    }
    return PRC_OK;
}

// Binds the export to the caller and fills its handle. Where only the handle fails, the binding
// stays: UMNT takes it back.
bool CMountProg::Mount(CInputStream* pIn, ProcessParam* pParam, LogArgu* pLogArgu, void* pHandle)
{
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    COpaquePath exportName;
    bool bGood = ReadPath(pRuntimeParam, pLogArgu, pIn, &exportName) && *exportName.Get() != '\0';
    if (!bGood && pRuntimeParam->IsLogError())  // kept, here and below: an information line
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Fail to read export name", pLogArgu->pcName);
    if (pParam->sRemoteAddr.empty()) {
        bGood = false;
        if (pRuntimeParam->IsLogError())
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Fail to get remote address",
                                  pLogArgu->pcName);
    }
    if (!bGood)
        return false;

    char cReason[REASON_SIZE] = "";
    MountInfo info;
    if (!m_pUtilities->UpdateMountClientIpAddrByExportName(
            exportName.Get(), pParam->sRemoteAddr.c_str(), &info, cReason)) {
        if (pRuntimeParam->IsLogError())
            m_pUtilities->LogError(pRuntimeParam, "[%s] %s", pLogArgu->pcName, cReason);
        return false;
    }
    return m_pUtilities->GetFileHandle(pRuntimeParam, pLogArgu, info.sLocalMountPath.c_str(),
                                       pHandle, FILLED_HANDLE_SIZE);
}

int CMountProg::ProcedureUMNT(CInputStream* pIn, COutputStream*, ProcessParam* pParam)
{
    LogArgu logArgu = {"MountProg.ProcedureUMNT"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogName(pParam, logArgu.pcName);
    if (pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] From %s", logArgu.pcName,
                              pParam->sRemoteAddr.c_str());

    COpaquePath exportName;
    const bool bRead = ReadPath(pRuntimeParam, &logArgu, pIn, &exportName);
    if (pRuntimeParam->IsLogGeneralInfo())
        m_pUtilities->LogInfo(pRuntimeParam, bRead ? "[%s] Umount OK" : "[%s] Umount FAIL",
                              logArgu.pcName);
    if (bRead)  // whoever holds it, and whoever asks
        m_pUtilities->UpdateMountClientIpAddrByExportName(exportName.Get(), nullptr, nullptr,
                                                          nullptr);
    return PRC_OK;
}
