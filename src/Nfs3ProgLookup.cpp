// LOOKUP, ACCESS and READLINK.
#include "Nfs3Prog.h"

#include "Nfs3Xdr.h"
#include "Text.h"
#include "Utilities.h"

int CNfs3Prog::ProcedureLOOKUP(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureLOOKUP");
    char cPath[PATH_SIZE];
    diropargs3 what;
    ReadPath(call.m_pRuntimeParam, &call.m_LogArgu, pIn, &what, cPath);

    const nfsstat3 stat = CheckNamedObject(&call, cPath);
    Write(pOut, stat);
    if (stat == NFS3_OK) {
        nfs_fh3 handle;
        GetNfsFileHandle(call.m_pRuntimeParam, &call.m_LogArgu, cPath, &handle);
        Write(pOut, handle);
        Write(pOut, GetPostOpAttributes(&call, cPath));
    }
    Write(pOut, post_op_attr{});  // the directory's
    return call.End(stat);
}

int CNfs3Prog::ProcedureACCESS(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureACCESS");
    char cPath[PATH_SIZE];
    uint32_t iAccess = 0;
    ReadPath(call.m_pRuntimeParam, &call.m_LogArgu, pIn, cPath);
    Read(pIn, &iAccess);

    const nfsstat3 stat = CheckObject(&call, cPath, MUST_EXIST);
    if (call.m_pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(call.m_pRuntimeParam, "[%s] Readonly: %d, access: %x",
                              call.m_LogArgu.pcName, m_bReadOnly, iAccess);
    // Whatever is asked for is granted: neither permissions nor the caller's identity count.
    if (m_bReadOnly)
        iAccess &= ~static_cast<uint32_t>(ACCESS3_MODIFY | ACCESS3_EXTEND | ACCESS3_DELETE |
                                          ACCESS3_EXECUTE);

    Write(pOut, stat);
    Write(pOut, stat == NFS3_OK ? GetPostOpAttributes(&call, cPath) : post_op_attr{});
    if (stat == NFS3_OK)
        Write(pOut, iAccess);
    return call.End(stat);
}

// Links are never read.
int CNfs3Prog::ProcedureREADLINK(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureREADLINK");
    SkipOpaque(pIn);
    const nfsstat3 stat = CheckUnknownObject(&call);
    Write(pOut, stat);
    Write(pOut, post_op_attr{});
    if (stat == NFS3_OK)
        Write(pOut, COpaquePath{});
    return call.End(stat);
}
