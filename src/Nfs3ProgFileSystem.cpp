// FSSTAT, FSINFO and PATHCONF.
#include "Nfs3Prog.h"

#include "Nfs3Limits.h"
#include "Nfs3Xdr.h"
#include "Text.h"
#include "Utilities.h"

int CNfs3Prog::ProcedureFSSTAT(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureFSSTAT");
    char cPath[PATH_SIZE];
    post_op_attr attributes;
    const nfsstat3 stat = CheckFileSystemObject(&call, pIn, cPath, &attributes);
    Write(pOut, stat);
    Write(pOut, attributes);
    if (stat == NFS3_OK) {  // a counter that cannot be had is all ones
        pOut->Write8(m_pUtilities->GetTotalDiskSpace(cPath));
        pOut->Write8(m_pUtilities->GetFreeDiskSpace(cPath));
        pOut->Write8(m_pUtilities->GetFreeDiskSpaceAvailableToCaller(cPath));
        pOut->Write8(m_pUtilities->GetTotalFileSlots(cPath));
        pOut->Write8(m_pUtilities->GetFreeFileSlots(cPath));
        pOut->Write8(m_pUtilities->GetFreeFileSlotsAvailableToCaller(cPath));
        pOut->Write(0U);  // invarsec: the counts may change at any time
    }
    return call.End(stat);
}

int CNfs3Prog::ProcedureFSINFO(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureFSINFO");
    char cPath[PATH_SIZE];
    post_op_attr attributes;
    const nfsstat3 stat = CheckFileSystemObject(&call, pIn, cPath, &attributes);
    Write(pOut, stat);
    Write(pOut, attributes);
    if (stat == NFS3_OK) {
        pOut->Write(NFS3_RTMAX);
        pOut->Write(NFS3_RTMAX);  // rtpref
        pOut->Write(NFS3_TRANSFER_MULTIPLE);
        pOut->Write(NFS3_WTMAX);
        pOut->Write(NFS3_WTMAX);  // wtpref
        pOut->Write(NFS3_TRANSFER_MULTIPLE);
        pOut->Write(NFS3_DTPREF);
        pOut->Write8(m_pUtilities->GetMaxFileSize(cPath));
        Write(pOut, nfstime3{1, 0});  // time_delta
        pOut->Write(m_iFSF3Properties);
    }
    return call.End(stat);
}

// The checks that both make, and the attributes that both send; NFS3ERR_IO if there are none.
nfsstat3 CNfs3Prog::CheckFileSystemObject(ProcedureCall* pCall, CInputStream* pIn, char* pcPath,
                                          post_op_attr* pAttributes)
{
    ReadPath(pCall->m_pRuntimeParam, &pCall->m_LogArgu, pIn, pcPath);
    const nfsstat3 stat = CheckObject(pCall, pcPath, MUST_EXIST);
    if (stat != NFS3_OK)
        return stat;
    *pAttributes = GetPostOpAttributes(pCall, pcPath);
    return pAttributes->attributes_follow ? NFS3_OK : NFS3ERR_IO;
}

int CNfs3Prog::ProcedurePATHCONF(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedurePATHCONF");
    SkipOpaque(pIn);
    const nfsstat3 stat = CheckUnknownObject(&call);
    Write(pOut, stat);
    Write(pOut, post_op_attr{});
    if (stat == NFS3_OK) {
        pOut->Write(0U);     // linkmax
        pOut->Write(255U);   // name_max
        Write(pOut, false);  // no_trunc
        Write(pOut, true);   // chown_restricted
        Write(pOut, true);   // case_insensitive; kept, though local names are not
        Write(pOut, true);   // case_preserving
    }
    return call.End(stat);
}
