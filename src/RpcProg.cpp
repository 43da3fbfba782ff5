#include "RpcProg.h"

#include "RuntimeParam.h"
#include "Utilities.h"

void CRpcProg::LogName(ProcessParam* pParam, const char* pcName)
{
    if (m_pUtilities != nullptr && pParam->pRuntimeParam->IsLogProcFuncName())
        m_pUtilities->LogInfo(pParam->pRuntimeParam, "[%s]", pcName);
}

int CRpcProg::FailTruncated(ProcessParam* pParam, const char* pcName, const char* pcText)
{
    if (m_pUtilities != nullptr && pParam->pRuntimeParam->IsLogError())
        m_pUtilities->LogError(pParam->pRuntimeParam, "[%s] %s", pcName, pcText);
    return PRC_TRUNCATED;
}

int CRpcProg::FailUnknown(ProcessParam* pParam, const char* pcName)
{
    if (m_pUtilities != nullptr && pParam->pRuntimeParam->IsLogError())
        m_pUtilities->LogError(pParam->pRuntimeParam, "[%s] Unknown exception", pcName);
    return PRC_FAIL;
}
