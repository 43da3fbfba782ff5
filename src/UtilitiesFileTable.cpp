// File numbers and the handles made of them.
#include "Utilities.h"

#include <cstring>

#include "FileTable.h"
#include "Text.h"

unsigned int CUtilities::GetFileID(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                   const char* pcPath)
{
    if (pcPath == nullptr)
        return NO_FILE_ID;
    char cPath[PATH_SIZE];
    GetCanonicalPath(pRuntimeParam, pLogArgu, cPath, pcPath);  // slow, so outside the mutex
    const CMutexLock lock(m_hMutexFileTable);
    return m_pFileTable->GetIDByPath(cPath);
}

bool CUtilities::GetFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                               void* pBuffer, unsigned int iLength)
{
    if (pBuffer == nullptr)
        return false;
    memset(pBuffer, 0, iLength);
    const unsigned int iID =
        iLength > sizeof(iID) ? GetFileID(pRuntimeParam, pLogArgu, pcPath) : NO_FILE_ID;
    if (iLength > sizeof(iID))
        memcpy(pBuffer, &iID, sizeof(iID));  // the machine's byte order: only we read it back
    return iID != NO_FILE_ID;
}

bool CUtilities::GetFilePath(CRuntimeParam*, const void* pHandle, char* pcBuffer, size_t iSize)
{
    if (pHandle == nullptr)
        return false;
    unsigned int iID = NO_FILE_ID;
    memcpy(&iID, pHandle, sizeof(iID));
    if (iID == NO_FILE_ID)
        return false;
    const CMutexLock lock(m_hMutexFileTable);
    return m_pFileTable->GetPathByID(iID, pcBuffer, iSize);
}

void CUtilities::ResetFileTable()
{
    const CMutexLock lock(m_hMutexFileTable);
    m_pFileTable->Clear();
}
