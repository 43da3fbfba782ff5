#include "Utilities.h"

#include "FileTable.h"

CUtilities::CUtilities() : m_pFileTable(std::make_unique<CFileTable>())
{
    m_vFilesInUse.reserve(16);  // so that a READ or WRITE allocates nothing
}

CUtilities::~CUtilities() = default;

void CUtilities::Reset(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu)
{
    RemoveAllMountInfo();
    RemoveAllSessionInfo();
    CloseAllCachedFileHandles(pRuntimeParam, pLogArgu);
    CloseAllRedirectedFiles(pRuntimeParam);
}
