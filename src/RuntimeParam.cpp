#include "RuntimeParam.h"

#include <cstring>

#include "Text.h"

namespace {

constexpr char RESERVED_ID[] = "server";

}  // namespace

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

bool CRuntimeParam::IsValidServerID(const char* pcID, char* pcReason)
{
    if (strcmp(pcID, RESERVED_ID) == 0) {
        FormatReason(pcReason, "Cannot use \"%s\" as ID", RESERVED_ID);
        return false;
    }
    const char cInvalid = pcID[strcspn(pcID, "/ ")];
    if (cInvalid != '\0')
        FormatReason(pcReason, "Invalid char \"%c\" inside ID", cInvalid);
    return cInvalid == '\0';
}
