// How the records of Nfs3Types.h lie on the wire: one Read and one Write for each, fields in order.
#pragma once

#include "InputStream.h"
#include "Nfs3Types.h"
#include "OutputStream.h"

// Each throws CDataTruncatedExpt where the request ends early. With bSkip the bytes are passed over
// and nothing of them is kept.
void Read(CInputStream* pIn, bool* pbValue);  // true only for the word 1
void Read(CInputStream* pIn, uint32_t* piValue);
void Read(CInputStream* pIn, uint64_t* piValue);
void Read(CInputStream* pIn, specdata3* pData);
void Read(CInputStream* pIn, nfstime3* pTime);
void Read(CInputStream* pIn, opaque* pOpaque);

// A path of PATH_SIZE bytes or more reads as the empty one; with bSkip the path stays as it was.
void Read(CInputStream* pIn, COpaquePath* pPath, bool bSkip = false);
void SkipOpaque(CInputStream* pIn);  // a handle, name or path that nobody needs
void Read(CInputStream* pIn, sattr3* pAttr, bool bSkip = false);
void Read(CInputStream* pIn, sattrguard3* pGuard);
void Read(CInputStream* pIn, createhow3* pHow);
void Read(CInputStream* pIn, mknoddata3* pData, bool bSkip = false);

// With bLengthOnly the word that holds the length is all that is written.
void Write(COutputStream* pOut, bool bValue);
void Write(COutputStream* pOut, uint32_t iValue);
void Write(COutputStream* pOut, uint64_t iValue);
void Write(COutputStream* pOut, nfsstat3 stat);
void Write(COutputStream* pOut, stable_how how);
void Write(COutputStream* pOut, const specdata3& data);
void Write(COutputStream* pOut, const nfstime3& time);
void Write(COutputStream* pOut, const opaque& data, bool bLengthOnly = false);
void Write(COutputStream* pOut, const COpaquePath& path, bool bLengthOnly = false);
void Write(COutputStream* pOut, const nfs_fh3& handle, bool bLengthOnly = false);
void Write(COutputStream* pOut, const fattr3& attr);
void Write(COutputStream* pOut, const wcc_attr& attr);
void Write(COutputStream* pOut, const pre_op_attr& attr);
void Write(COutputStream* pOut, const post_op_attr& attr);
void Write(COutputStream* pOut, const post_op_fh3& handle);
void Write(COutputStream* pOut, const wcc_data& data);
template <typename T>
void Write(COutputStream* pOut, T) = delete;  // nothing converts in silence
