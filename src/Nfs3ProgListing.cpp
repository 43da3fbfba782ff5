// READDIR and READDIRPLUS. A cookie is the number of entries that the client has had.
#include "Nfs3Prog.h"

#include <cstring>
#include <utility>

#include "Nfs3Xdr.h"
#include "Text.h"
#include "Utilities.h"

namespace {

constexpr unsigned int ENTRIES_PER_PAGE = 10;  // whatever the client has room for

// The next name that a listing shows; null at the end.
const char* ReadListedName(CFolderReader* pFolder)
{
    const char* pcName = pFolder->ReadName();
    while (pcName != nullptr && CNfs3Prog::IsInVaildDirName(pcName))
        pcName = pFolder->ReadName();
    return pcName;
}

}  // namespace

int CNfs3Prog::ProcedureREADDIR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureREADDIR");
    return List(&call, pIn, pOut, false);
}

int CNfs3Prog::ProcedureREADDIRPLUS(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureREADDIRPLUS");
    return List(&call, pIn, pOut, true);
}

// Kept: the client's limits in bytes are shown and not held to, and the verifier of its cookies is
// sent back whatever it is.
int CNfs3Prog::List(ProcedureCall* pCall, CInputStream* pIn, COutputStream* pOut, bool bPlus)
{
    char cPath[PATH_SIZE];
    uint64_t iCookie = 0;
    uint64_t iVerifier = 0;
    uint32_t iDirCount = 0;
    uint32_t iCount = 0;
    ReadPath(pCall->m_pRuntimeParam, &pCall->m_LogArgu, pIn, cPath);
    Read(pIn, &iCookie);
    Read(pIn, &iVerifier);
    if (bPlus)
        Read(pIn, &iDirCount);
    Read(pIn, &iCount);
    LogListing(pCall, iCookie, iVerifier, iDirCount, iCount, bPlus);

    nfsstat3 stat = CheckObject(pCall, cPath, MUST_EXIST);
    post_op_attr attributes;
    if (stat == NFS3_OK) {
        attributes = GetPostOpAttributes(pCall, cPath);
        if (!attributes.attributes_follow)
            stat = NFS3ERR_IO;
    }
    if (stat != NFS3_OK)
        m_pUtilities->CloseFolders(cPath);  // a listing that cannot go on leaves nothing open
    Write(pOut, stat);
    Write(pOut, attributes);
    if (stat == NFS3_OK) {
        Write(pOut, iVerifier);
        const bool bEof = WriteEntries(pCall, pOut, cPath, iCookie, bPlus);
        Write(pOut, false);  // no entry follows
        Write(pOut, bEof);
    }
    return pCall->End(stat);
}

void CNfs3Prog::LogListing(ProcedureCall* pCall, unsigned long long iCookie,
                           unsigned long long iVerifier, uint32_t iDirCount, uint32_t iCount,
                           bool bPlus)
{
    if (!pCall->m_pRuntimeParam->IsLogProcFuncArgu())
        return;
    if (bPlus)
        m_pUtilities->LogInfo(pCall->m_pRuntimeParam,
                              "[%s] Cookie=%llu, cookieverf=%llu, dircount=%u, maxcount=%u",
                              pCall->m_LogArgu.pcName, iCookie, iVerifier, iDirCount, iCount);
    else
        m_pUtilities->LogInfo(pCall->m_pRuntimeParam, "[%s] Cookie=%llu, cookieverf=%llu, count=%u",
                              pCall->m_LogArgu.pcName, iCookie, iVerifier, iCount);
}

// Writes one page; true if it reached the directory's end. A directory that cannot be opened, or
// that has fewer entries than the client has had, is at its end at once.
bool CNfs3Prog::WriteEntries(ProcedureCall* pCall, COutputStream* pOut, const char* pcPath,
                             uint64_t iCookie, bool bPlus)
{
    // Kept: of the cookie only the lower half counts, and as a signed number.
    const auto iSigned = static_cast<int32_t>(static_cast<uint32_t>(iCookie));
    const unsigned int iHad = iSigned > 0 ? static_cast<unsigned int>(iSigned) : 0;
    std::unique_ptr<CFolderReader> pFolder = OpenFolderAt(pCall, pcPath, iHad);
    if (pFolder == nullptr)
        return true;
    for (unsigned int i = 0; i < ENTRIES_PER_PAGE; i++) {
        const char* pcName = ReadListedName(pFolder.get());
        if (pcName == nullptr)
            return true;
        WriteEntry(pCall, pOut, pcPath, pcName, ++iCookie, bPlus);
    }
    m_pUtilities->KeepFolder(std::move(pFolder), iHad + ENTRIES_PER_PAGE);
    return false;  // kept: also where nothing is left, which the next page finds out
}

// The directory behind the first iEntries entries that are listed; null if it has no more.
std::unique_ptr<CFolderReader> CNfs3Prog::OpenFolderAt(ProcedureCall* pCall, const char* pcPath,
                                                       unsigned int iEntries)
{
    std::unique_ptr<CFolderReader> pFolder = m_pUtilities->TakeFolder(pcPath, iEntries);
    if (pFolder != nullptr)
        return pFolder;
    pFolder = m_pUtilities->OpenFolder(pCall->m_pRuntimeParam, &pCall->m_LogArgu, pcPath);
    for (unsigned int i = 0; i < iEntries && pFolder != nullptr; i++)
        if (ReadListedName(pFolder.get()) == nullptr)
            pFolder.reset();
    return pFolder;
}

// Kept: the number shown is that of the file table, as in the entry's handle, and not the inode
// number that its attributes show.
void CNfs3Prog::WriteEntry(ProcedureCall* pCall, COutputStream* pOut, const char* pcFolder,
                           const char* pcName, uint64_t iCookie, bool bPlus)
{
    char cPath[PATH_SIZE];
    const char* pcBase = strcmp(pcFolder, "/") == 0 ? "" : pcFolder;
    const bool bFits = AppendFilePath(pcBase, pcName, cPath);
    const post_op_fh3 handle = GetPostOpHandle(pCall, bFits ? cPath : nullptr);
    unsigned int iFileID = 0;
    memcpy(&iFileID, handle.handle.cHandle, sizeof(iFileID));
    Write(pOut, true);  // an entry follows
    Write(pOut, uint64_t{iFileID});
    Write(pOut, opaque{reinterpret_cast<const unsigned char*>(pcName),
                       static_cast<unsigned int>(strlen(pcName))});
    Write(pOut, iCookie);
    if (pCall->m_pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(pCall->m_pRuntimeParam, "[%s] Cookie=%llu, name=%s",
                              pCall->m_LogArgu.pcName, static_cast<unsigned long long>(iCookie),
                              pcName);
    if (!bPlus)
        return;
    Write(pOut, bFits ? GetPostOpAttributes(pCall, cPath) : post_op_attr{});
    Write(pOut, handle);
}
