// Backup sessions, and the datastores that hypervisor hosts hold on our exports.
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

void CUtilities::AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                                const char* pcUser, const char* pcPwd)
{
    const CMutexLock lock(m_hMutexVSphereInfos);
    m_VSphereInfos[pcDatastoreMoid] = {pcDatastoreMoid, pcHost, pcPort, pcUser, pcPwd};
}

void CUtilities::RemoveVSphereInfo(const char* pcDatastoreMoid)
{
    const CMutexLock lock(m_hMutexVSphereInfos);
    m_VSphereInfos.erase(pcDatastoreMoid);
}

int CUtilities::GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails)
{
    const CMutexLock lock(m_hMutexVSphereInfos);
    int iCount = 0;
    for (const auto& [sMoid, info] : m_VSphereInfos) {
        iCount++;
        if (bPrintDetails)
            LogRaw(pRuntimeParam, " NFS datastore%d - %s (%s:%s)", iCount,
                   info.sDatastoreMoid.c_str(), info.sHost.c_str(), info.sPort.c_str());
    }
    return iCount;
}

void CUtilities::RemoveAllVSphereInfoWithWebCtrl(CRuntimeParam*) {}
