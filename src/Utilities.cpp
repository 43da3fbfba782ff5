#include "Utilities.h"

#include "FileTable.h"

CUtilities::CUtilities() : m_pFileTable(std::make_unique<CFileTable>())
{
    m_vFilesInUse.reserve(16);  // so that a READ or WRITE allocates nothing
}

// Whoever ends without a Reset leaves no descriptor open either. Nothing is logged: the host's
// bridge and the log file may be gone already.
CUtilities::~CUtilities()
{
    CRuntimeParam silent("", 0);
    LogArgu logArgu;
    CUtilities::CloseAllRedirectedFiles(&silent);
    CUtilities::CloseAllCachedFileHandles(&silent, &logArgu);
}

void CUtilities::Reset(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu)
{
    RemoveAllMountInfo();
    RemoveAllSessionInfo();
    CloseAllCachedFileHandles(pRuntimeParam, pLogArgu);
    CloseAllRedirectedFiles(pRuntimeParam);
}
