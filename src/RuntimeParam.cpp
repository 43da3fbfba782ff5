#include "RuntimeParam.h"

CRuntimeParam::CRuntimeParam(const char* pcID, int iLogControl)
{
    SetID(pcID);
    SetLogControl(iLogControl);
    SetIpcID(nullptr);
}

void CRuntimeParam::SetID(const char* pcID)
{
    m_sID = pcID == nullptr ? "" : pcID;
}

void CRuntimeParam::SetIpcID(const char* pcIpcID)
{
    m_sIpcID = pcIpcID == nullptr ? "" : pcIpcID;
}
