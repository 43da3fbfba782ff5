// The datastores that hypervisor hosts hold on our exports, and their clean-up.
//
// A clean-up takes all records out of the table and goes through them, which lasts as long as the
// helper takes. The table's mutex is not held meanwhile, for the clean-up tells the host, which may
// want the table; operations on the table wait at a gate instead.
#include "Utilities.h"

#include "Text.h"
#include "VSphereWebController.h"

namespace {

// A record that is not needed any more leaves no password behind in memory.
void WipePassword(VSphereInfo* pInfo)
{
    WipeText(pInfo->sPwd.data(), pInfo->sPwd.size());
}

}  // namespace

// Not where the host asks from within a call: the clean-up may be what made the call.
void CUtilities::WaitForVSphereCleanUp()
{
    if (!IsInsideCallback())
        m_VSphereCleanUp.Wait();
}

void CUtilities::AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                                const char* pcUser, const char* pcPwd)
{
    WaitForVSphereCleanUp();
    const CMutexLock lock(m_hMutexVSphereInfos);
    VSphereInfo& info = m_VSphereInfos[pcDatastoreMoid];
    WipePassword(&info);  // the former one's
    info.sDatastoreMoid = pcDatastoreMoid;
    info.sHost = pcHost;
    info.sPort = pcPort;
    info.sUser = pcUser;
    info.sPwd = pcPwd;
}

void CUtilities::RemoveVSphereInfo(const char* pcDatastoreMoid)
{
    WaitForVSphereCleanUp();
    const CMutexLock lock(m_hMutexVSphereInfos);
    const auto it = m_VSphereInfos.find(pcDatastoreMoid);
    if (it == m_VSphereInfos.end())
        return;
    WipePassword(&it->second);
    m_VSphereInfos.erase(it);
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

// A record that is added meanwhile is left to the next clean-up: a host that answers each line with
// another record does not keep the server from stopping.
void CUtilities::RemoveAllVSphereInfoWithWebCtrl(CRuntimeParam* pRuntimeParam)
{
    WaitForVSphereCleanUp();
    const CCleanUpGate::CRun run(m_VSphereCleanUp);
    std::map<std::string, VSphereInfo> infos;
    {
        const CMutexLock lock(m_hMutexVSphereInfos);
        infos.swap(m_VSphereInfos);
    }
    if (infos.empty())
        return;
    CVSphereWebController controller;
    {
        const CCleanUpGate::CTelling telling(m_VSphereCleanUp);
        LogInfo(pRuntimeParam, "Start cleanup mounted NFS datastores");
    }
    for (auto& [sMoid, info] : infos) {
        RemoveVSphereInfoWithWebCtrl(pRuntimeParam, &controller, info);
        WipePassword(&info);
    }
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
    const bool bRoom = CVSphereWebController::HasRoom(pcMoid, pcHost, pcPort, pcUser, pcPwd);
    {
        const CCleanUpGate::CTelling telling(m_VSphereCleanUp);
        LogInfo(pRuntimeParam, "Unmount NFS datastore with MOID \"%s\" on host \"%s:%s\"", pcMoid,
                pcHost, pcPort);
        if (!bRoom)
            LogError(pRuntimeParam,
                     "Skip NFS datastore with MOID \"%s\". Reason=Command line would exceed %zu "
                     "bytes",
                     pcMoid, CVSphereWebController::COMMAND_SIZE - 1);
    }
    if (bRoom)
        pController->RemoveSession(pcMoid, pcHost, pcPort, pcUser, pcPwd);
}
