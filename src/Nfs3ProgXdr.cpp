#include "Nfs3Xdr.h"

#include <cstring>

#include "Text.h"

void Read(CInputStream* pIn, bool* pbValue)
{
    unsigned int iWord = 0;
    pIn->Read(&iWord);
    *pbValue = iWord == 1;
}

void Read(CInputStream* pIn, uint32_t* piValue)
{
    pIn->Read(piValue);
}

void Read(CInputStream* pIn, uint64_t* piValue)
{
    unsigned long iValue = 0;
    pIn->Read8(&iValue);
    *piValue = iValue;
}

void Read(CInputStream* pIn, specdata3* pData)
{
    Read(pIn, &pData->specdata1);
    Read(pIn, &pData->specdata2);
}

void Read(CInputStream* pIn, nfstime3* pTime)
{
    Read(pIn, &pTime->seconds);
    Read(pIn, &pTime->nseconds);
}

void Read(CInputStream* pIn, opaque* pOpaque)
{
    pIn->Read(&pOpaque->iBufLen);
    pOpaque->pBuf = pIn->GetCurrentBuffer();
    pIn->Skip(pOpaque->iBufLen);
    pIn->SkipRemainOpaque(pOpaque->iBufLen);
}

void Read(CInputStream* pIn, COpaquePath* pPath, bool bSkip)
{
    opaque data;
    Read(pIn, &data);
    if (bSkip)
        return;
    pPath->Set(data.pBuf, data.iBufLen < PATH_SIZE ? data.iBufLen : 0);
}

void SkipOpaque(CInputStream* pIn)
{
    COpaquePath unused;
    Read(pIn, &unused, true);
}

namespace {

template <typename Setting>
void ReadSetting(CInputStream* pIn, Setting* pSetting)
{
    Read(pIn, &pSetting->set_it);
    if (pSetting->set_it)
        Read(pIn, &pSetting->value);
}

void ReadSetting(CInputStream* pIn, set_time* pSetting)
{
    uint32_t iHow = 0;
    Read(pIn, &iHow);
    pSetting->set_it = static_cast<time_how>(iHow);
    if (pSetting->set_it == SET_TO_CLIENT_TIME)
        Read(pIn, &pSetting->value);
}

}  // namespace

void Read(CInputStream* pIn, sattr3* pAttr, bool bSkip)
{
    *pAttr = {};
    ReadSetting(pIn, &pAttr->mode);
    ReadSetting(pIn, &pAttr->uid);
    ReadSetting(pIn, &pAttr->gid);
    ReadSetting(pIn, &pAttr->size);
    ReadSetting(pIn, &pAttr->atime);
    ReadSetting(pIn, &pAttr->mtime);
    if (bSkip)
        *pAttr = {};
}

void Read(CInputStream* pIn, sattrguard3* pGuard)
{
    *pGuard = {};
    Read(pIn, &pGuard->check);
    if (pGuard->check)
        Read(pIn, &pGuard->obj_ctime);
}

void Read(CInputStream* pIn, createhow3* pHow)
{
    *pHow = {};
    uint32_t iMode = 0;
    Read(pIn, &iMode);
    pHow->mode = static_cast<createmode3>(iMode);
    if (pHow->mode == UNCHECKED || pHow->mode == GUARDED)
        Read(pIn, &pHow->obj_attributes);
    else if (pHow->mode == EXCLUSIVE)
        Read(pIn, &pHow->verf);
}

void Read(CInputStream* pIn, mknoddata3* pData, bool bSkip)
{
    *pData = {};
    uint32_t iType = 0;
    Read(pIn, &iType);
    pData->type = static_cast<ftype3>(iType);
    if (pData->type == NF3CHR || pData->type == NF3BLK) {
        Read(pIn, &pData->dev_attributes, bSkip);
        Read(pIn, &pData->dev_spec);
        if (bSkip)
            pData->dev_spec = {};
    } else if (pData->type == NF3SOCK || pData->type == NF3FIFO) {
        Read(pIn, &pData->pipe_attributes, bSkip);
    }
}

void Write(COutputStream* pOut, bool bValue)
{
    pOut->Write(bValue ? 1U : 0U);
}

void Write(COutputStream* pOut, uint32_t iValue)
{
    pOut->Write(iValue);
}

void Write(COutputStream* pOut, uint64_t iValue)
{
    pOut->Write8(iValue);
}

void Write(COutputStream* pOut, nfsstat3 stat)
{
    pOut->Write(static_cast<unsigned int>(stat));
}

void Write(COutputStream* pOut, stable_how how)
{
    pOut->Write(static_cast<unsigned int>(how));
}

void Write(COutputStream* pOut, const specdata3& data)
{
    Write(pOut, data.specdata1);
    Write(pOut, data.specdata2);
}

void Write(COutputStream* pOut, const nfstime3& time)
{
    Write(pOut, time.seconds);
    Write(pOut, time.nseconds);
}

void Write(COutputStream* pOut, const opaque& data, bool bLengthOnly)
{
    pOut->Write(data.iBufLen);
    if (bLengthOnly)
        return;
    pOut->Write(data.pBuf, data.iBufLen);
    pOut->WriteRemainOpaque(static_cast<int>(data.iBufLen));
}

void Write(COutputStream* pOut, const COpaquePath& path, bool bLengthOnly)
{
    const opaque data = {reinterpret_cast<const unsigned char*>(path.Get()),
                         static_cast<unsigned int>(strlen(path.Get()))};
    Write(pOut, data, bLengthOnly);
}

void Write(COutputStream* pOut, const nfs_fh3& handle, bool bLengthOnly)
{
    Write(pOut, opaque{handle.cHandle, sizeof(handle.cHandle)}, bLengthOnly);
}

void Write(COutputStream* pOut, const fattr3& attr)
{
    pOut->Write(static_cast<unsigned int>(attr.type));
    Write(pOut, attr.mode);
    Write(pOut, attr.nlink);
    Write(pOut, attr.uid);
    Write(pOut, attr.gid);
    Write(pOut, attr.size);
    Write(pOut, attr.used);
    Write(pOut, attr.rdev);
    Write(pOut, attr.fsid);
    Write(pOut, attr.fileid);
    Write(pOut, attr.atime);
    Write(pOut, attr.mtime);
    Write(pOut, attr.ctime);
}

void Write(COutputStream* pOut, const wcc_attr& attr)
{
    Write(pOut, attr.size);
    Write(pOut, attr.mtime);
    Write(pOut, attr.ctime);
}

void Write(COutputStream* pOut, const pre_op_attr& attr)
{
    Write(pOut, attr.attributes_follow);
    if (attr.attributes_follow)
        Write(pOut, attr.attributes);
}

void Write(COutputStream* pOut, const post_op_attr& attr)
{
    Write(pOut, attr.attributes_follow);
    if (attr.attributes_follow)
        Write(pOut, attr.attributes);
}

void Write(COutputStream* pOut, const post_op_fh3& handle)
{
    Write(pOut, handle.handle_follows);
    if (handle.handle_follows)
        Write(pOut, handle.handle);
}

void Write(COutputStream* pOut, const wcc_data& data)
{
    Write(pOut, data.before);
    Write(pOut, data.after);
}
