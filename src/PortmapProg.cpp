#include "PortmapProg.h"

#include "DataException.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "RuntimeParam.h"
#include "Utilities.h"

void CPortmapProg::Set(unsigned long lProg, unsigned long lPort)
{
    m_lPortTable.at(lProg - FIRST_PROGRAM) = lPort;
}

int CPortmapProg::Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    try {
        if (pParam->iProc == MAPPROC_GETPORT)
            return ProcedureGETPORT(pIn, pOut, pParam);
        return ProcedureNOIMP(pParam);
    } catch (const CDataTruncatedExpt& error) {
        return FailTruncated(pParam, "PortmapProg.Process", error.what());
    } catch (...) {  // the client gets an answer whatever happened
        return FailUnknown(pParam, "PortmapProg.Process");
    }
}

int CPortmapProg::ProcedureGETPORT(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    LogName(pParam, "PortmapProg.ProcedureGETPORT");
    unsigned int lProg = 0;
    pIn->Read(&lProg);
    pIn->Skip(12);  // version, protocol and port

    const unsigned int iIndex = lProg - FIRST_PROGRAM;
    const unsigned long lPort = iIndex < m_lPortTable.size() ? m_lPortTable[iIndex] : 0;
    pOut->Write(static_cast<unsigned int>(lPort));
    if (m_pUtilities != nullptr && pParam->pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(pParam->pRuntimeParam, "[%s] lProg = %d, lPort = %d",
                              "PortmapProg.ProcedureGETPORT", static_cast<int>(lProg),
                              static_cast<int>(lPort));
    return PRC_OK;
}

int CPortmapProg::ProcedureNOIMP(ProcessParam* pParam)
{
    LogName(pParam, "PortmapProg.ProcedureNOIMP");
    return PRC_NOTIMP;
}
