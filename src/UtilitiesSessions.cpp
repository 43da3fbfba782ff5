// The table of backup sessions.
#include "Utilities.h"

void CUtilities::AddSessionInfo(const char* pcSessionID, const char* pcLocalPath)
{
    const CMutexLock lock(m_hMutexSessionInfos);
    m_SessionInfos[pcSessionID] = {pcSessionID, pcLocalPath};
}

void CUtilities::RemoveSessionInfo(const char* pcSessionID)
{
    const CMutexLock lock(m_hMutexSessionInfos);
    m_SessionInfos.erase(pcSessionID);
}

void CUtilities::RemoveSessionInfoByLocalMountPath(const char* pcLocalPath)
{
    const CMutexLock lock(m_hMutexSessionInfos);
    std::erase_if(m_SessionInfos, [pcLocalPath](const auto& entry) {
        return entry.second.sLocalMountPath == pcLocalPath;
    });
}

void CUtilities::RemoveAllSessionInfo()
{
    const CMutexLock lock(m_hMutexSessionInfos);
    m_SessionInfos.clear();
}

bool CUtilities::IsSessionExists(const char* pcSessionID)
{
    const CMutexLock lock(m_hMutexSessionInfos);
    return m_SessionInfos.count(pcSessionID) > 0;
}

int CUtilities::GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails)
{
    const CMutexLock lock(m_hMutexSessionInfos);
    int iCount = 0;
    for (const auto& [sID, info] : m_SessionInfos) {
        iCount++;
        if (bPrintDetails)
            LogRaw(pRuntimeParam, " session%d - %s : %s", iCount, info.sSessionID.c_str(),
                   info.sLocalMountPath.c_str());
    }
    return iCount;
}
