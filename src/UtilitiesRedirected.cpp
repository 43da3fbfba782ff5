// The table of redirected files.
//
// The host's operations hold m_hMutexRedirectedFiles for the whole of their run, however long an
// export takes. The table itself has a mutex of its own beside it. What clients do takes only that:
// reads, which look here first for every file, and renames and removals too. So no client waits for
// an export.
#include "Utilities.h"

#include <cstring>
#include <utility>

#include "RedirectedFile.h"
#include "Text.h"

// What was open under the path is replaced in one step: no client meets the placeholder between.
CRedirectedFile* CUtilities::OpenRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                                long long iSize, bool bCreateInfoFile,
                                                int iInfoFileSegmentSizeMB,
                                                int iInfoFileCheckPointSizeMB)
{
    const std::lock_guard lock(m_hMutexRedirectedFiles);
    auto pFile = std::make_shared<CRedirectedFile>(this);
    pFile->Open(pRuntimeParam, iSize, CountRedirectedFilesBeside(pcPath),
                bCreateInfoFile ? pcPath : nullptr, iInfoFileSegmentSizeMB,
                iInfoFileCheckPointSizeMB);
    CRedirectedFile* pResult = pFile.get();
    {
        const CMutexLock lockTable(m_hMutexRedirectedTable);
        m_mRedirectedFiles[pcPath].swap(pFile);
    }
    if (pFile != nullptr)
        pFile->Close(pRuntimeParam);
    return pResult;
}

int CUtilities::CountRedirectedFilesBeside(const char* pcPath)
{
    const CMutexLock lock(m_hMutexRedirectedTable);
    return static_cast<int>(m_mRedirectedFiles.size() - m_mRedirectedFiles.count(pcPath));
}

std::shared_ptr<CRedirectedFile> CUtilities::GetRedirectedFile(const char* pcPath)
{
    const CMutexLock lock(m_hMutexRedirectedTable);
    const auto it = m_mRedirectedFiles.find(pcPath);
    return it == m_mRedirectedFiles.end() ? nullptr : it->second;
}

void CUtilities::CloseRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath)
{
    const std::lock_guard lock(m_hMutexRedirectedFiles);
    DropRedirectedFile(pRuntimeParam, pcPath);
}

// False if none was open. Whoever reads the file just now keeps the object; closed, it reads as
// zeros.
bool CUtilities::DropRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath)
{
    std::shared_ptr<CRedirectedFile> pFile;
    {
        const CMutexLock lock(m_hMutexRedirectedTable);
        const auto it = m_mRedirectedFiles.find(pcPath);
        if (it == m_mRedirectedFiles.end())
            return false;
        pFile = std::move(it->second);
        m_mRedirectedFiles.erase(it);
    }
    pFile->Close(pRuntimeParam);
    return true;
}

void CUtilities::CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam, const char* pcDirPath)
{
    char cPrefix[PATH_SIZE];
    CopyText(cPrefix, sizeof(cPrefix), pcDirPath);
    SetPathToCompare(cPrefix);

    const std::lock_guard lock(m_hMutexRedirectedFiles);
    std::vector<std::string> vPaths = GetRedirectedFilePaths();
    for (auto it = vPaths.begin(); it != vPaths.end();) {
        char cPath[PATH_SIZE];
        CopyText(cPath, sizeof(cPath), it->c_str());
        SetPathToCompare(cPath);
        if (pRuntimeParam->IsLogGeneralInfo())
            LogInfo(pRuntimeParam, "[CloseAllRedirectedFiles] Path compare: \"%s\" vs \"%s\"",
                    cPrefix, cPath);
        if (strncmp(cPath, cPrefix, strlen(cPrefix)) != 0) {
            ++it;
            continue;
        }
        DropRedirectedFile(pRuntimeParam, it->c_str());
        vPaths.erase(it);
        it = vPaths.begin();
    }
}

void CUtilities::CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam)
{
    DropRedirectedFiles(pRuntimeParam);  // an export in hand ends with its next piece
    const std::lock_guard lock(m_hMutexRedirectedFiles);
    DropRedirectedFiles(pRuntimeParam);  // what the operation in hand has opened
}

void CUtilities::DropRedirectedFiles(CRuntimeParam* pRuntimeParam)
{
    std::map<std::string, std::shared_ptr<CRedirectedFile>, std::less<>> closed;
    {
        const CMutexLock lock(m_hMutexRedirectedTable);
        closed.swap(m_mRedirectedFiles);
    }
    for (const auto& [sPath, pFile] : closed)
        pFile->Close(pRuntimeParam);
}

bool CUtilities::AddRedirectedFileSegment(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                          const char* pcSrcPath, long long iSrcFileOffset,
                                          long long iOffset, long long iLength, char* pcReason)
{
    const std::lock_guard lock(m_hMutexRedirectedFiles);
    const std::shared_ptr<CRedirectedFile> pFile = GetRedirectedFile(pcPath);
    return pFile != nullptr &&
           pFile->AddSegment(pRuntimeParam, pcSrcPath, iSrcFileOffset, iOffset, iLength, pcReason);
}

void CUtilities::RenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFrom,
                                      const char* pcPathTo)
{
    std::shared_ptr<CRedirectedFile> pReplaced;
    {
        const CMutexLock lock(m_hMutexRedirectedTable);
        const auto to = m_mRedirectedFiles.find(pcPathTo);
        if (to != m_mRedirectedFiles.end()) {
            pReplaced = std::move(to->second);
            m_mRedirectedFiles.erase(to);
        }
        auto node = m_mRedirectedFiles.extract(pcPathFrom);
        if (!node.empty()) {
            node.key() = pcPathTo;
            m_mRedirectedFiles.insert(std::move(node));
        }
    }
    if (pReplaced != nullptr)
        pReplaced->Close(pRuntimeParam);
}

std::vector<std::string> CUtilities::GetRedirectedFilePaths()
{
    std::vector<std::string> vPaths;
    const CMutexLock lock(m_hMutexRedirectedTable);
    for (const auto& [sPath, pFile] : m_mRedirectedFiles)
        vPaths.push_back(sPath);
    return vPaths;
}

void CUtilities::ExportRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                      const char* pcExportPath)
{
    const std::lock_guard lock(m_hMutexRedirectedFiles);
    if (const std::shared_ptr<CRedirectedFile> pFile = GetRedirectedFile(pcPath))
        pFile->Export(pRuntimeParam, pcExportPath);
}

void CUtilities::ExportRedirectedFileInfo(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                          const char* pcExportPath, bool bMergeRange)
{
    const std::lock_guard lock(m_hMutexRedirectedFiles);
    if (const std::shared_ptr<CRedirectedFile> pFile = GetRedirectedFile(pcPath))
        pFile->ExportInfo(pRuntimeParam, pcExportPath, bMergeRange);
}
