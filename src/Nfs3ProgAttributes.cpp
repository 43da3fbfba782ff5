// Attributes of local files as NFS shows them, and the procedures that read and change them.
#include "Nfs3Prog.h"

#include <sys/stat.h>

#include "Nfs3Xdr.h"
#include "Text.h"
#include "Utilities.h"

namespace {

constexpr unsigned int CARRIED_MODE_BITS = 0x1FF | 0x400 | 0x800;  // rwx, set-group-, set-user-ID

ftype3 GetFileType(mode_t iMode)
{
    switch (iMode & S_IFMT) {
    case S_IFIFO:
        return NF3FIFO;
    case S_IFCHR:
        return NF3CHR;
    case S_IFDIR:
        return NF3DIR;
    case S_IFBLK:
        return NF3BLK;
    case S_IFREG:
        return NF3REG;
    case S_IFLNK:
        return NF3LNK;
    case S_IFSOCK:
        return NF3SOCK;
    default:
        return NF3NONE;
    }
}

specdata3 SplitDevice(dev_t iDevice)
{
    const auto iNumber = static_cast<uint32_t>(iDevice);
    return {(iNumber >> 8) & 0xFF, iNumber & ~0xFF00U};
}

nfstime3 GetTime(time_t iSeconds)
{
    return {static_cast<uint32_t>(iSeconds), 0};
}

}  // namespace

unsigned int CNfs3Prog::ConvertFileModeToNfsFileMode(unsigned int iMode)
{
    return iMode & CARRIED_MODE_BITS;
}

unsigned int CNfs3Prog::ConvertNfsFileModeToFileMode(unsigned int iMode)
{
    return ConvertFileModeToNfsFileMode(iMode);
}

bool CNfs3Prog::GetNfsFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                 const char* pcPath, nfs_fh3* pHandle)
{
    if (pHandle == nullptr)
        return false;
    return m_pUtilities->GetFileHandle(pRuntimeParam, pLogArgu, pcPath, pHandle->cHandle,
                                       sizeof(pHandle->cHandle));
}

bool CNfs3Prog::GetNfsFileAttributes(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                     const char* pcPath, fattr3* pAttributes)
{
    struct stat info = {};
    if (m_pUtilities->OS_GetFileStat(pRuntimeParam, pLogArgu, pcPath, &info, nullptr) != 0)
        return false;
    fattr3& attr = *pAttributes;
    attr.type = GetFileType(info.st_mode);
    attr.mode = ConvertFileModeToNfsFileMode(info.st_mode);
    attr.nlink = static_cast<uint32_t>(info.st_nlink);
    attr.uid = info.st_uid;
    attr.gid = info.st_gid;
    attr.size = static_cast<uint64_t>(info.st_size);
    if (attr.type == NF3REG)
        attr.size = static_cast<uint64_t>(
            m_pUtilities->GetFileSize(pRuntimeParam, pLogArgu, pcPath, info.st_size));
    attr.used = attr.size;
    // Kept: what is no device shows the device that holds it.
    const bool bDevice = attr.type == NF3CHR || attr.type == NF3BLK;
    attr.rdev = SplitDevice(bDevice ? info.st_rdev : info.st_dev);
    attr.fsid = m_pUtilities->GetFileSystemID(pcPath);
    attr.fileid = info.st_ino;
    attr.atime = GetTime(info.st_atime);
    attr.mtime = GetTime(info.st_mtime);
    attr.ctime = GetTime(info.st_ctime);
    if (pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(
            pRuntimeParam,
            "[%s] Path=%s, type=%u, mode=%x, nlink=%u, uid=%u, gid=%u, size=%lld, used=%lld, "
            "rdev.1=%u, rdev.2=%u, fsid=%llu, atime.s=%u, atime.ns=%u, mtime.s=%u, mtime.ns=%u, "
            "ctime.s=%u, ctime.ns=%u",
            pLogArgu->pcName, pcPath, static_cast<unsigned int>(attr.type), attr.mode, attr.nlink,
            attr.uid, attr.gid, static_cast<long long>(attr.size),
            static_cast<long long>(attr.used), attr.rdev.specdata1, attr.rdev.specdata2,
            static_cast<unsigned long long>(attr.fsid), attr.atime.seconds, attr.atime.nseconds,
            attr.mtime.seconds, attr.mtime.nseconds, attr.ctime.seconds, attr.ctime.nseconds);
    return true;
}

bool CNfs3Prog::GetNfsFileAttributes(const char*, wcc_attr*)
{
    return false;
}

post_op_attr CNfs3Prog::GetPostOpAttributes(ProcedureCall* pCall, const char* pcPath)
{
    post_op_attr attr;
    attr.attributes_follow =
        GetNfsFileAttributes(pCall->m_pRuntimeParam, &pCall->m_LogArgu, pcPath, &attr.attributes);
    return attr;
}

post_op_fh3 CNfs3Prog::GetPostOpHandle(ProcedureCall* pCall, const char* pcPath)
{
    post_op_fh3 handle;
    handle.handle_follows =
        GetNfsFileHandle(pCall->m_pRuntimeParam, &pCall->m_LogArgu, pcPath, &handle.handle);
    return handle;
}

int CNfs3Prog::ProcedureGETATTR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureGETATTR");
    char cPath[PATH_SIZE];
    // Result unused: a handle that does not resolve leaves the path empty, which is refused below.
    ReadPath(call.m_pRuntimeParam, &call.m_LogArgu, pIn, cPath);

    nfsstat3 stat = CheckObject(&call, cPath, MUST_EXIST);
    fattr3 attributes;
    if (stat == NFS3_OK &&
        !GetNfsFileAttributes(call.m_pRuntimeParam, &call.m_LogArgu, cPath, &attributes))
        stat = NFS3ERR_IO;

    Write(pOut, stat);
    if (stat == NFS3_OK)
        Write(pOut, attributes);
    return call.End(stat);
}

int CNfs3Prog::ProcedureSETATTR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    ProcedureCall call(this, pParam, "Nfs3Prog.ProcedureSETATTR");
    char cPath[PATH_SIZE];
    sattr3 attributes;
    sattrguard3 guard;
    ReadPath(call.m_pRuntimeParam, &call.m_LogArgu, pIn, cPath);
    Read(pIn, &attributes);
    Read(pIn, &guard);
    if (call.m_pRuntimeParam->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(call.m_pRuntimeParam, "[%s] Guard check: %d, time: %lld",
                              call.m_LogArgu.pcName, guard.check,
                              static_cast<long long>(guard.obj_ctime.seconds));

    nfsstat3 stat = CheckObject(&call, cPath, MUST_EXIST);
    if (stat == NFS3_OK)
        stat = CheckGuard(&call, cPath, guard);
    if (stat == NFS3_OK)
        stat = SetAttributes(&call, cPath, attributes);

    Write(pOut, stat);
    Write(pOut, wcc_data{});
    return call.End(stat);
}

// Seconds only. Since attributes before a change are never known, they stand as 0, and a guard
// with any other time fails, on every run alike.
nfsstat3 CNfs3Prog::CheckGuard(ProcedureCall* pCall, const char* pcPath, const sattrguard3& guard)
{
    wcc_attr before;
    GetNfsFileAttributes(pcPath, &before);
    if (!guard.check || guard.obj_ctime.seconds == before.ctime.seconds)
        return NFS3_OK;
    if (pCall->m_pRuntimeParam
            ->IsLogError())  // kept: the two times stand behind each other's label
        m_pUtilities->LogError(
            pCall->m_pRuntimeParam, "[%s] Guard check fail, client: %lld, server: %lld",
            pCall->m_LogArgu.pcName, static_cast<long long>(before.ctime.seconds),
            static_cast<long long>(guard.obj_ctime.seconds));
    return NFS3ERR_NOT_SYNC;
}

nfsstat3 CNfs3Prog::SetAttributes(ProcedureCall* pCall, const char* pcPath,
                                  const sattr3& attributes)
{
    if ((m_iFSF3Properties & FSF3_CANSETTIME) == 0 &&
        (attributes.atime.set_it != DONT_CHANGE || attributes.mtime.set_it != DONT_CHANGE)) {
        if (pCall->m_pRuntimeParam->IsLogError())
            m_pUtilities->LogError(pCall->m_pRuntimeParam, "[%s] Server don't allow settime",
                                   pCall->m_LogArgu.pcName);
        return NFS3ERR_INVAL;
    }
    if (UpdateAttributes(pCall, pcPath, attributes))
        return NFS3_OK;
    if (pCall->m_pRuntimeParam->IsLogError())
        m_pUtilities->LogError(pCall->m_pRuntimeParam, "[%s] Update file attribute to %s fail",
                               pCall->m_LogArgu.pcName, pcPath);
    return NFS3ERR_INVAL;
}

// A time that the server is to set is passed on as "set" with the value 0, not as the clock's.
bool CNfs3Prog::UpdateAttributes(ProcedureCall* pCall, const char* pcPath, const sattr3& attributes)
{
    return m_pUtilities->UpdateFileAttributes(
        pCall->m_pRuntimeParam, &pCall->m_LogArgu, pcPath, attributes.mode.set_it,
        attributes.mode.value, attributes.uid.set_it, attributes.uid.value, attributes.gid.set_it,
        attributes.gid.value, attributes.size.set_it, attributes.size.value,
        attributes.atime.set_it != DONT_CHANGE, attributes.atime.value.seconds,
        attributes.atime.value.nseconds, attributes.mtime.set_it != DONT_CHANGE,
        attributes.mtime.value.seconds, attributes.mtime.value.nseconds);
}
