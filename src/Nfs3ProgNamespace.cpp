// The procedures that create, remove and rename names. Links and special files are never made.
#include "Nfs3Prog.h"

#include "Nfs3Xdr.h"
#include "Text.h"
#include "Utilities.h"

namespace {

constexpr int DEFAULT_FOLDER_MODE = 0755;

// Reads over a directory's handle and a name.
void SkipDirOpArgs(CInputStream* pIn)
{
    SkipOpaque(pIn);
    SkipOpaque(pIn);
}

// True for an empty name, "." and a name too long to be read: they lead back to the directory.
// Nobody who names an entry means what it lies in.
bool IsDirectoryItself(const diropargs3& arguments, const char* pcPath)
{
    return arguments.dir == pcPath;
}

}  // namespace

nfsstat3 CNfs3Prog::CheckCreation(ProcedureCall* pCall, const diropargs3& where, const char* pcPath)
{
    const Existence existence = IsDirectoryItself(where, pcPath) ? MUST_EXIST : MAY_BE_MISSING;
    const nfsstat3 stat = CheckObject(pCall, pcPath, existence);
    return m_bReadOnly ? NFS3ERR_ACCES : stat;
}

int CNfs3Prog::ProcedureCREATE(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureCREATE");
    char cPath[PATH_SIZE];
    diropargs3 where;
    createhow3 how;
    ReadPath(call.m_pRuntimeParam, &call.m_LogArgu, pIn, &where, cPath);
    Read(pIn, &how);

    nfsstat3 stat = CheckCreation(&call, where, cPath);
    if (stat == NFS3_OK)
        stat = CreateFile(&call, cPath, how);
    return EndCreation(&call, pOut, cPath, stat);
}

// Kept: exclusive creation excludes nobody. Its verifier is not stored, so a repeated call could
// not be told from a second client's, and an existing file counts as created.
nfsstat3 CNfs3Prog::CreateFile(ProcedureCall* pCall, const char* pcPath, const createhow3& how)
{
    CRuntimeParam* pRuntimeParam = pCall->m_pRuntimeParam;
    const bool bExists = m_pUtilities->OS_IsFileExists(pcPath);
    if (pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Mode: %d, Is file exist before create: %d",
                              pCall->m_LogArgu.pcName, static_cast<int>(how.mode), bExists);
    nfsstat3 stat = NFS3_OK;
    if (how.mode != UNCHECKED && how.mode != GUARDED && how.mode != EXCLUSIVE)
        stat = NFS3ERR_IO;
    else if (how.mode == GUARDED && bExists)
        stat = NFS3ERR_EXIST;
    else
        stat = MakeFile(pCall, pcPath, how.obj_attributes, bExists);
    if (pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Is file exist after create: %d",
                              pCall->m_LogArgu.pcName, m_pUtilities->OS_IsFileExists(pcPath));
    return stat;
}

nfsstat3 CNfs3Prog::MakeFile(ProcedureCall* pCall, const char* pcPath, const sattr3& attributes,
                             bool bExists)
{
    // The host may have removed a file whose descriptor is still kept under this name: what is
    // meant for the new one must not go there.
    if (!bExists)
        m_pUtilities->CloseCachedFileHandle(pCall->m_pRuntimeParam, &pCall->m_LogArgu, pcPath);
    const bool bDone = m_pUtilities->NewFile(pCall->m_pRuntimeParam, &pCall->m_LogArgu, pcPath) &&
                       UpdateAttributes(pCall, pcPath, attributes);
    return bDone ? NFS3_OK : NFS3ERR_IO;
}

int CNfs3Prog::EndCreation(ProcedureCall* pCall, COutputStream* pOut, const char* pcPath,
                           nfsstat3 stat)
{
    Write(pOut, stat);
    if (stat == NFS3_OK) {
        Write(pOut, GetPostOpHandle(pCall, pcPath));
        Write(pOut, GetPostOpAttributes(pCall, pcPath));
    }
    Write(pOut, wcc_data{});
    return pCall->End(stat);
}

int CNfs3Prog::ProcedureMKDIR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureMKDIR");
    char cPath[PATH_SIZE];
    diropargs3 where;
    sattr3 attributes;  // only the mode counts
    ReadPath(call.m_pRuntimeParam, &call.m_LogArgu, pIn, &where, cPath);
    Read(pIn, &attributes);

    nfsstat3 stat = CheckCreation(&call, where, cPath);
    const int iMode =
        attributes.mode.set_it ? static_cast<int>(attributes.mode.value) : DEFAULT_FOLDER_MODE;
    if (stat == NFS3_OK && m_pUtilities->OS_FolderCreate(call.m_pRuntimeParam, &call.m_LogArgu,
                                                         cPath, iMode, nullptr) != 0)
        stat = NFS3ERR_IO;  // kept: also where the folder exists
    if (stat == NFS3_OK)    // as in CreateFile
        m_pUtilities->CloseCachedFileHandle(call.m_pRuntimeParam, &call.m_LogArgu, cPath);
    return EndCreation(&call, pOut, cPath, stat);
}

int CNfs3Prog::ProcedureSYMLINK(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureSYMLINK");
    sattr3 attributes;
    COpaquePath text;
    SkipDirOpArgs(pIn);
    Read(pIn, &attributes, true);
    Read(pIn, &text);

    const nfsstat3 stat = CheckUnknownObject(&call);
    Write(pOut, stat);
    if (stat == NFS3_OK) {
        Write(pOut, post_op_fh3{});
        Write(pOut, post_op_attr{});
    }
    Write(pOut, wcc_data{});
    return call.End(stat);
}

int CNfs3Prog::ProcedureMKNOD(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureMKNOD");
    mknoddata3 what;
    SkipDirOpArgs(pIn);
    Read(pIn, &what, true);

    CheckUnknownObject(&call);  // for its line: the answer depends on the type alone
    const bool bSpecial =
        what.type == NF3CHR || what.type == NF3BLK || what.type == NF3SOCK || what.type == NF3FIFO;
    const nfsstat3 stat = bSpecial ? NFS3ERR_NOTSUPP : NFS3ERR_BADTYPE;
    Write(pOut, stat);
    Write(pOut, wcc_data{});
    return call.End(stat);
}

nfsstat3 CNfs3Prog::CheckRemoval(ProcedureCall* pCall, const diropargs3& what, const char* pcPath)
{
    const nfsstat3 stat = CheckNamedObject(pCall, pcPath);
    if (stat == NFS3ERR_NOENT)
        return stat;  // kept: also where nothing may be changed
    if (m_bReadOnly)
        return NFS3ERR_ACCES;
    // The root of an export is as little an entry as the directory that the entry is named in.
    const bool bEntry = !IsDirectoryItself(what, pcPath) &&
                        !m_pUtilities->IsMountInfoExists(pCall->m_pRuntimeParam, &pCall->m_LogArgu,
                                                         pcPath, nullptr, nullptr);
    return stat == NFS3_OK && !bEntry ? NFS3ERR_IO : stat;
}

nfsstat3 CNfs3Prog::ReadRemoval(ProcedureCall* pCall, CInputStream* pIn, char* pcPath)
{
    diropargs3 what;
    ReadPath(pCall->m_pRuntimeParam, &pCall->m_LogArgu, pIn, &what, pcPath);
    return CheckRemoval(pCall, what, pcPath);
}

int CNfs3Prog::ProcedureREMOVE(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureREMOVE");
    char cPath[PATH_SIZE];
    nfsstat3 stat = ReadRemoval(&call, pIn, cPath);
    if (stat == NFS3_OK && !m_pUtilities->RemoveFile(call.m_pRuntimeParam, &call.m_LogArgu, cPath))
        stat = NFS3ERR_IO;
    Write(pOut, stat);
    Write(pOut, wcc_data{});
    return call.End(stat);
}

int CNfs3Prog::ProcedureRMDIR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureRMDIR");
    char cPath[PATH_SIZE];
    nfsstat3 stat = ReadRemoval(&call, pIn, cPath);
    if (stat == NFS3_OK &&
        m_pUtilities->OS_FolderRemove(call.m_pRuntimeParam, &call.m_LogArgu, cPath, nullptr) != 0)
        stat = NFS3ERR_IO;  // kept: also where the folder is not empty
    if (stat == NFS3_OK)    // the host may have emptied it, with files open
        m_pUtilities->CloseAllCachedFileHandles(call.m_pRuntimeParam, &call.m_LogArgu, cPath);
    Write(pOut, stat);
    Write(pOut, wcc_data{});
    return call.End(stat);
}

// Kept: the target is not held against the exports.
int CNfs3Prog::ProcedureRENAME(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureRENAME");
    char cFrom[PATH_SIZE];
    char cTo[PATH_SIZE];
    diropargs3 from;
    diropargs3 to;
    ReadPath(call.m_pRuntimeParam, &call.m_LogArgu, pIn, &from, cFrom);
    ReadPath(call.m_pRuntimeParam, &call.m_LogArgu, pIn, &to, cTo);

    nfsstat3 stat = CheckRemoval(&call, from, cFrom);
    if (stat == NFS3_OK)
        stat = IsDirectoryItself(to, cTo) ? NFS3ERR_IO : CheckPath(cTo, false);
    if (stat == NFS3_OK &&
        !m_pUtilities->RenameFile(call.m_pRuntimeParam, &call.m_LogArgu, cFrom, cTo))
        stat = NFS3ERR_IO;
    Write(pOut, stat);
    Write(pOut, wcc_data{});  // of the source's directory
    Write(pOut, wcc_data{});  // of the target's
    return call.End(stat);
}

int CNfs3Prog::ProcedureLINK(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureLINK");
    SkipOpaque(pIn);
    SkipDirOpArgs(pIn);

    const nfsstat3 stat = CheckUnknownObject(&call);
    Write(pOut, stat);
    Write(pOut, post_op_attr{});
    Write(pOut, wcc_data{});
    return call.End(stat);
}
