// Exports: which directory is published under which name, and who has it mounted.
#include "Utilities.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include "Text.h"

namespace {

// True if a name in sPath is "..".
bool LeadsUpwards(const std::string& sPath)
{
    return ("/" + sPath + "/").find("/../") != std::string::npos;
}

// Where something made at sPath would come to stand: its folder's canonical path and its name.
// Nothing can be made in a folder that does not exist; the path stays as it is then, unless it
// leads upwards. Empty for that, and for a link to nothing: whoever made a file there would make it
// where the link leads.
std::string GetTargetPath(std::string sPath)
{
    while (sPath.length() > 1 && sPath.back() == '/')
        sPath.pop_back();
    const size_t iName = sPath.rfind('/') + 1;
    char cFolder[PATH_SIZE];
    if (realpath(sPath.substr(0, iName).c_str(), cFolder) == nullptr)
        return LeadsUpwards(sPath) ? "" : sPath;
    std::string sTarget = strcmp(cFolder, "/") == 0 ? "/" : std::string(cFolder) + "/";
    sTarget += sPath.substr(iName);
    struct stat info = {};
    const bool bLink = lstat(sTarget.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
    return bLink || sTarget.length() >= PATH_SIZE ? "" : sTarget;
}

}  // namespace

void CUtilities::GetCanonicalPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, char* pcOut,
                                  const char* pcIn)
{
    ResolvePath(pRuntimeParam, pLogArgu, pcOut, pcIn);
}

bool CUtilities::ResolvePath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, char* pcOut,
                             const char* pcIn)
{
    if (realpath(pcIn, pcOut) != nullptr) {
        if (pRuntimeParam->IsLogGeneralInfo())
            LogInfo(pRuntimeParam, "[%s] Get canonical path successfully: %s", pLogArgu->pcName,
                    pcOut);
        return true;
    }
    CopyText(pcOut, PATH_SIZE, pcIn);
    if (pRuntimeParam->IsLogGeneralInfo())
        LogInfo(pRuntimeParam, "[%s] Fail to get canonical path from non-exist path: %s",
                pLogArgu->pcName, pcIn);
    return false;
}

void CUtilities::GetCanonicalTargetPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                        char* pcOut, const char* pcIn)
{
    if (!ResolvePath(pRuntimeParam, pLogArgu, pcOut, pcIn))
        CopyText(pcOut, PATH_SIZE, GetTargetPath(pcIn).c_str());
}

void CUtilities::SetPathToCompare(char* pcPath)
{
    const size_t iLength = strlen(pcPath);
    if (iLength == 0 || pcPath[iLength - 1] == '/' || iLength + 1 >= PATH_SIZE)
        return;
    pcPath[iLength] = '/';
    pcPath[iLength + 1] = '\0';
}

bool CUtilities::AddMountInfo(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                              const char* pcLocalPath, const char* pcExportName,
                              const char* pcIpcID, char* pcReason)
{
    char cPath[PATH_SIZE];
    GetCanonicalPath(pRuntimeParam, pLogArgu, cPath, pcLocalPath);

    if (IsMountInfoExists(pRuntimeParam, pLogArgu, cPath, pcExportName, pcReason))
        return false;
    const size_t iInvalid = strcspn(pcExportName, "/ ");
    if (pcExportName[iInvalid] != '\0') {
        FormatReason(pcReason, "Invalid char \"%c\" inside export name", pcExportName[iInvalid]);
        return false;
    }
    // Tested again in the hold of the insert: of two adds at once, one wins.
    const CMutexLock lock(m_hMutexMountInfos);
    if (IsExportNameDefined(pcExportName, pcReason) || IsLocalMountPathDefined(cPath, pcReason))
        return false;
    m_MountInfos[pcExportName] = {cPath, pcExportName, pcIpcID == nullptr ? "" : pcIpcID, ""};
    m_ExportIndex.Add(cPath, pcExportName);
    return true;
}

bool CUtilities::IsMountInfoExists(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                   const char* pcLocalPath, const char* pcExportName,
                                   char* pcReason)
{
    // The name is tested first: a known one is reported as such also where the path is known too.
    if (pcExportName != nullptr) {
        const CMutexLock lock(m_hMutexMountInfos);
        if (IsExportNameDefined(pcExportName, pcReason))
            return true;
    }
    if (pcLocalPath == nullptr)
        return false;
    char cPath[PATH_SIZE];
    GetCanonicalPath(pRuntimeParam, pLogArgu, cPath, pcLocalPath);  // slow, so outside the mutex
    const CMutexLock lock(m_hMutexMountInfos);
    return IsLocalMountPathDefined(cPath, pcReason);
}

bool CUtilities::IsExportNameDefined(const char* pcExportName, char* pcReason) const
{
    if (m_MountInfos.count(pcExportName) == 0)
        return false;
    FormatReason(pcReason, "Export name \"%s\" already defined", pcExportName);
    return true;
}

bool CUtilities::IsLocalMountPathDefined(const char* pcCanonicalPath, char* pcReason) const
{
    if (FindMountInfoByLocalMountPath(pcCanonicalPath) == nullptr)
        return false;
    FormatReason(pcReason, "Local mount path \"%s\" already defined", pcCanonicalPath);
    return true;
}

// The first export, by name, of exactly this path; null if there is none.
const MountInfo* CUtilities::FindMountInfoByLocalMountPath(const char* pcCanonicalPath) const
{
    for (const std::string& sName : m_ExportIndex.GetNames(pcCanonicalPath)) {
        const MountInfo& info = m_MountInfos.find(sName)->second;
        if (info.sLocalMountPath == pcCanonicalPath)
            return &info;
    }
    return nullptr;
}

void CUtilities::RemoveMountInfoByLocalMountPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                                 const char* pcLocalPath)
{
    char cPath[PATH_SIZE];
    GetCanonicalPath(pRuntimeParam, pLogArgu, cPath, pcLocalPath);

    {
        const CMutexLock lock(m_hMutexMountInfos);
        const MountInfo* pInfo = FindMountInfoByLocalMountPath(cPath);
        if (pInfo != nullptr)
            EraseMountInfo(*pInfo);
        ResetFileTableIfUnused();
    }
    CloseAllFolders();
}

void CUtilities::RemoveMountInfoByExportName(const char* pcExportName)
{
    {
        const CMutexLock lock(m_hMutexMountInfos);
        const auto it = m_MountInfos.find(pcExportName);
        if (it != m_MountInfos.end())
            EraseMountInfo(it->second);
        ResetFileTableIfUnused();
    }
    CloseAllFolders();
}

void CUtilities::RemoveAllMountInfo()
{
    {
        const CMutexLock lock(m_hMutexMountInfos);
        m_MountInfos.clear();
        m_ExportIndex.Clear();
        ResetFileTable();
    }
    CloseAllFolders();
}

void CUtilities::EraseMountInfo(const MountInfo& info)
{
    const std::string sName = info.sExportName;  // the record goes with its entry
    m_ExportIndex.Remove(info.sLocalMountPath, sName);
    m_MountInfos.erase(sName);
}

void CUtilities::ResetFileTableIfUnused()
{
    if (m_MountInfos.empty())
        ResetFileTable();
}

bool CUtilities::UpdateMountClientIpAddrByExportName(const char* pcExportName,
                                                     const char* pcRemoteAddr, MountInfo* pInfo,
                                                     char* pcReason)
{
    const CMutexLock lock(m_hMutexMountInfos);
    const auto it = m_MountInfos.find(pcExportName);
    if (it == m_MountInfos.end()) {
        FormatReason(pcReason, "Undefined export name \"%s\"", pcExportName);
        return false;
    }
    MountInfo& info = it->second;
    // Whoever holds the export keeps it until UMNT: the same client is refused a second time too.
    if (pcRemoteAddr != nullptr && !info.sRemoteIpAddr.empty()) {
        FormatReason(pcReason, "This mount point \"%s\" already mounted by %s", pcExportName,
                     info.sRemoteIpAddr.c_str());
        return false;
    }
    info.sRemoteIpAddr = pcRemoteAddr == nullptr ? "" : pcRemoteAddr;
    if (pInfo != nullptr)
        *pInfo = info;
    return true;
}

bool CUtilities::GetMountInfoByPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                    const char* pcPath, MountInfo* pInfo)
{
    char cPath[PATH_SIZE];
    CopyText(cPath, sizeof(cPath), pcPath);
    SetPathToCompare(cPath);

    const CMutexLock lock(m_hMutexMountInfos);
    // Whoever wants to see the comparisons gets the walk that they describe; the index yields the
    // same export.
    const MountInfo* pFound = pRuntimeParam->IsLogGeneralInfo()
                                  ? ScanMountInfoByPath(pRuntimeParam, pLogArgu, cPath)
                                  : FindMountInfoByPath(cPath);
    if (pFound == nullptr)
        return false;
    if (pInfo != nullptr)
        *pInfo = *pFound;
    return true;
}

const MountInfo* CUtilities::FindMountInfoByPath(const char* pcPathToCompare) const
{
    const std::string* pName = m_ExportIndex.Find(pcPathToCompare);
    return pName == nullptr ? nullptr : &m_MountInfos.find(*pName)->second;
}

const MountInfo* CUtilities::ScanMountInfoByPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                                 const char* pcPathToCompare)
{
    for (const auto& [sName, info] : m_MountInfos) {
        const std::string& sLocal = info.sLocalMountPath;
        LogInfo(pRuntimeParam, "[%s] Path scan: \"%s\" vs \"%s\"", pLogArgu->pcName,
                pcPathToCompare, sLocal.c_str());
        if (strncmp(pcPathToCompare, sLocal.c_str(), sLocal.length()) != 0)
            continue;
        char cLocal[PATH_SIZE];
        CopyText(cLocal, sizeof(cLocal), sLocal.c_str());
        SetPathToCompare(cLocal);
        LogInfo(pRuntimeParam, "[%s] Path compare: \"%s\" vs \"%s\"", pLogArgu->pcName,
                pcPathToCompare, cLocal);
        if (strncmp(pcPathToCompare, cLocal, strlen(cLocal)) == 0) {
            LogInfo(pRuntimeParam, "[%s] Path match", pLogArgu->pcName);
            return &info;
        }
    }
    return nullptr;
}

bool CUtilities::IsRemoteAddrExists(const char* pcRemoteAddr)
{
    const CMutexLock lock(m_hMutexMountInfos);
    return std::any_of(m_MountInfos.begin(), m_MountInfos.end(), [&](const auto& entry) {
        return entry.second.sRemoteIpAddr == pcRemoteAddr;
    });
}

int CUtilities::GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly,
                             bool bPrintDetails)
{
    const CMutexLock lock(m_hMutexMountInfos);
    int iCount = 0;
    for (const auto& [sName, info] : m_MountInfos) {
        if (bClientMountedOnly && info.sRemoteIpAddr.empty())
            continue;
        iCount++;
        if (bPrintDetails)
            LogRaw(pRuntimeParam, " mount%d - %s : %s (%s) [%s]", iCount,
                   info.sLocalMountPath.c_str(), info.sExportName.c_str(),
                   info.sRemoteIpAddr.c_str(), info.sIcpID.c_str());
    }
    return iCount;
}
