// The datastores that hypervisor hosts hold on our exports, and their clean-up.
//
// A clean-up holds m_hMutexVSphereCleanUp for the whole of its run, which lasts as long as the
// helper does. The table has a mutex of its own beside it, so that the lines of a clean-up, and
// with them the host, are not under a mutex that an operation on the table needs.
#include "Utilities.h"

#include "VSphereWebController.h"

// An operation on the table comes before or after a clean-up. One that the host asks for from
// within a call does not wait: the clean-up may be what made the call, or wait for it.
void CUtilities::WaitForVSphereCleanUp()
{
    if (IsInsideCallback())
        return;
    const CMutexLock lock(m_hMutexVSphereCleanUp);
}

void CUtilities::AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                                const char* pcUser, const char* pcPwd)
{
    WaitForVSphereCleanUp();
    const CMutexLock lock(m_hMutexVSphereInfos);
    m_VSphereInfos.erase(pcDatastoreMoid);
    m_VSphereInfos[pcDatastoreMoid] = {pcDatastoreMoid, pcHost, pcPort, pcUser, pcPwd};
}

void CUtilities::RemoveVSphereInfo(const char* pcDatastoreMoid)
{
    WaitForVSphereCleanUp();
    EraseVSphereInfo(pcDatastoreMoid);
}

void CUtilities::EraseVSphereInfo(const char* pcDatastoreMoid)
{
    const CMutexLock lock(m_hMutexVSphereInfos);
    m_VSphereInfos.erase(pcDatastoreMoid);
}

int CUtilities::GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails)
{
    WaitForVSphereCleanUp();
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

void CUtilities::RemoveAllVSphereInfoWithWebCtrl(CRuntimeParam* pRuntimeParam)
{
    const CMutexLock lock(m_hMutexVSphereCleanUp);
    CVSphereWebController controller;
    for (bool bFirst = true;; bFirst = false) {
        const std::optional<VSphereInfo> info = GetFirstVSphereInfo();
        if (!info.has_value())
            return;
        if (bFirst)
            LogInfo(pRuntimeParam, "Start cleanup mounted NFS datastores");
        RemoveVSphereInfoWithWebCtrl(pRuntimeParam, &controller, *info);
        EraseVSphereInfo(info->sDatastoreMoid.c_str());
    }
}

std::optional<VSphereInfo> CUtilities::GetFirstVSphereInfo()
{
    const CMutexLock lock(m_hMutexVSphereInfos);
    if (m_VSphereInfos.empty())
        return std::nullopt;
    return m_VSphereInfos.begin()->second;
}

void CUtilities::RemoveVSphereInfoWithWebCtrl(CRuntimeParam* pRuntimeParam,
                                              CVSphereWebController* pController,
                                              const VSphereInfo& info)
{
    const char* pcMoid = info.sDatastoreMoid.c_str();
    const char* pcHost = info.sHost.c_str();
    const char* pcPort = info.sPort.c_str();
    const char* pcUser = info.sUser.c_str();
    const char* pcPwd = info.sPwd.c_str();
    LogInfo(pRuntimeParam, "Unmount NFS datastore with MOID \"%s\" on host \"%s:%s\"", pcMoid,
            pcHost, pcPort);
    if (CVSphereWebController::HasRoom(pcMoid, pcHost, pcPort, pcUser, pcPwd))
        pController->RemoveSession(pcMoid, pcHost, pcPort, pcUser, pcPwd);
    else
        LogError(pRuntimeParam,
                 "Skip NFS datastore with MOID \"%s\". Reason=Command line would exceed %zu bytes",
                 pcMoid, CVSphereWebController::COMMAND_SIZE - 1);
}
