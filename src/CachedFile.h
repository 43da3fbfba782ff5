// A cached descriptor in use.
#pragma once

#include "Utilities.h"

// Keeps a file's cached descriptor open for the length of a block, also when another thread closes
// or evicts it meanwhile: its number is then not given to another file under the reader's hands.
class CCachedFile {
public:
    // The parameters are those of CUtilities::GetCachedFileHandle and must outlive this object.
    CCachedFile(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                const char* pcPath, bool bWrite)
        : m_pUtilities(pUtilities),
          m_pRuntimeParam(pRuntimeParam),
          m_pLogArgu(pLogArgu),
          m_iFile(pUtilities->AcquireCachedFile(pRuntimeParam, pLogArgu, pcPath, bWrite))
    {
    }
    ~CCachedFile() { m_pUtilities->ReleaseCachedFile(m_pRuntimeParam, m_pLogArgu, m_iFile); }
    CCachedFile(const CCachedFile&) = delete;
    CCachedFile& operator=(const CCachedFile&) = delete;

    int Get() const { return m_iFile; }  // -1 if the file could not be opened

private:
    CUtilities* m_pUtilities;
    CRuntimeParam* m_pRuntimeParam;
    LogArgu* m_pLogArgu;
    int m_iFile;
};
