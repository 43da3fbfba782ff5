// The NFS version 3 program (RFC 1813).
#pragma once

#include <cstddef>
#include <memory>

#include "FolderReader.h"
#include "LogArgu.h"
#include "MountInfo.h"
#include "Nfs3Types.h"
#include "RpcProg.h"
#include "RuntimeParam.h"

// Answers the procedures: numbers of files become local paths, paths are held against the exports,
// and the work is done through CUtilities. NFS errors travel in the reply; the result of Process
// only tells whether the call could be decoded.
// Locking: none of its own. The settings are made before the server starts, and calls come one at
// a time.
class CNfs3Prog : public CRpcProg {
public:
    // pUtilities is not owned and outlives the program.
    explicit CNfs3Prog(CUtilities* pUtilities);

    int Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) override;
    unsigned int GetVersion() override { return NFS_V3; }
    unsigned int GetMaxSupportProc() override { return NFSPROC3_MAX; }

    void SetUserID(unsigned int iUId, unsigned int iGId);
    void SetReadOnly(bool bReadOnly) { m_bReadOnly = bReadOnly; }

    // ---- What the procedures share. Paths are buffers of PATH_SIZE bytes. ----

    // Reads a handle and turns it into its path; false, with an empty path, if no file has it.
    bool ReadPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, CInputStream* pIn, char* pcPath);

    // Reads a directory's handle and a name and turns them into the canonical path of that entry,
    // or of where it would be made if it does not exist; false, with an empty path, if the
    // directory is unknown or the joined path too long. The name is not checked: ".." leads to the
    // parent, a name with a "/" deeper down.
    bool ReadPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, CInputStream* pIn,
                  diropargs3* pArguments, char* pcPath);

    // NFS3ERR_IO unless an export holds the path. Makes the export's owner the one that lines and
    // notifications of this call go to.
    nfsstat3 CheckProcessParam(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath);
    nfsstat3 CheckPath(const char* pcPath, bool bMustExist);

    bool GetNfsFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                          nfs_fh3* pHandle);
    bool GetNfsFileAttributes(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                              fattr3* pAttributes);

    // Attributes before a change are never told: always false, with nothing filled.
    bool GetNfsFileAttributes(const char* pcPath, wcc_attr* pAttributes);

    // Keep the permission, set-group-ID and set-user-ID bits; the sticky bit is not carried.
    static unsigned int ConvertFileModeToNfsFileMode(unsigned int iMode);
    static unsigned int ConvertNfsFileModeToFileMode(unsigned int iMode);

    // Writes "dir/name" to pcPath; false for null and for a path that does not fit, which is cut.
    static bool AppendFilePath(const char* pcDir, const char* pcName, char* pcPath);

    // True for null and the entries that no listing shows: "." and ".." (kept spelling).
    static bool IsInVaildDirName(const char* pcName);

private:
    // One call: its context, its label and its first and last line.
    struct ProcedureCall {
        ProcedureCall(CNfs3Prog* pProg, ProcessParam* pParam, const char* pcName);

        // Writes the last line; what every procedure returns.
        int End(nfsstat3 stat);

        CUtilities* m_pUtilities;
        CRuntimeParam* m_pRuntimeParam;
        LogArgu m_LogArgu;
    };

    enum Existence {
        MUST_EXIST,
        MAY_BE_MISSING,
    };

    using PPROC = int (CNfs3Prog::*)(CInputStream*, COutputStream*, ProcessParam*);
    static const PPROC PROCEDURES[NFSPROC3_MAX];

    int ProcedureNULL(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureGETATTR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureSETATTR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureLOOKUP(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureACCESS(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureREADLINK(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureREAD(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureWRITE(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureCREATE(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureMKDIR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureSYMLINK(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureMKNOD(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureREMOVE(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureRMDIR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureRENAME(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureLINK(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureREADDIR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureREADDIRPLUS(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureFSSTAT(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureFSINFO(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedurePATHCONF(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureCOMMIT(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureNOIMP(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);

    // The checks that open every procedure.
    nfsstat3 CheckObject(ProcedureCall* pCall, const char* pcPath, Existence existence);

    // The same for an object that must be there, where one that is missing or outside the exports
    // is NFS3ERR_NOENT: to the client there is no such name.
    nfsstat3 CheckNamedObject(ProcedureCall* pCall, const char* pcPath);

    // The same for a procedure that reads over its handle and so never knows its object: no
    // ordinary export holds the empty path, and the call is refused.
    nfsstat3 CheckUnknownObject(ProcedureCall* pCall);

    // The attributes and the handle that follow a reply, where they can be had.
    post_op_attr GetPostOpAttributes(ProcedureCall* pCall, const char* pcPath);
    post_op_fh3 GetPostOpHandle(ProcedureCall* pCall, const char* pcPath);

    // FSSTAT and FSINFO: reads the handle, checks the object and takes its attributes.
    nfsstat3 CheckFileSystemObject(ProcedureCall* pCall, CInputStream* pIn, char* pcPath,
                                   post_op_attr* pAttributes);

    // SETATTR and CREATE.
    nfsstat3 CheckGuard(ProcedureCall* pCall, const char* pcPath, const sattrguard3& guard);
    nfsstat3 SetAttributes(ProcedureCall* pCall, const char* pcPath, const sattr3& attributes);
    bool UpdateAttributes(ProcedureCall* pCall, const char* pcPath, const sattr3& attributes);

    // CREATE and MKDIR: the checks, what they do, and the reply that both send.
    nfsstat3 CheckCreation(ProcedureCall* pCall, const diropargs3& where, const char* pcPath);
    nfsstat3 CreateFile(ProcedureCall* pCall, const char* pcPath, const createhow3& how);
    nfsstat3 MakeFile(ProcedureCall* pCall, const char* pcPath, const sattr3& attributes,
                      bool bExists);
    int EndCreation(ProcedureCall* pCall, COutputStream* pOut, const char* pcPath, nfsstat3 stat);

    // REMOVE, RMDIR and the source of RENAME: the checks, for the first two with their arguments.
    nfsstat3 ReadRemoval(ProcedureCall* pCall, CInputStream* pIn, char* pcPath);
    nfsstat3 CheckRemoval(ProcedureCall* pCall, const diropargs3& what, const char* pcPath);

    // READDIR and, with bPlus, READDIRPLUS.
    int List(ProcedureCall* pCall, CInputStream* pIn, COutputStream* pOut, bool bPlus);
    void LogListing(ProcedureCall* pCall, unsigned long long iCookie, unsigned long long iVerifier,
                    uint32_t iDirCount, uint32_t iCount, bool bPlus);
    bool WriteEntries(ProcedureCall* pCall, COutputStream* pOut, const char* pcPath,
                      uint64_t iCookie, bool bPlus);
    void WriteEntry(ProcedureCall* pCall, COutputStream* pOut, const char* pcFolder,
                    const char* pcName, uint64_t iCookie, bool bPlus);
    std::unique_ptr<CFolderReader> OpenFolderAt(ProcedureCall* pCall, const char* pcPath,
                                                unsigned int iEntries);

    // READ and WRITE, behind their checks.
    nfsstat3 ReadData(ProcedureCall* pCall, COutputStream* pOut, const char* pcPath,
                      uint64_t iOffset, uint32_t iCount, unsigned int* piRead, bool* pbEof);
    nfsstat3 WriteData(ProcedureCall* pCall, const char* pcPath, uint64_t iOffset, uint32_t iCount,
                       const opaque& data, unsigned int* piWritten);

    unsigned long m_iUId = 0;  // kept for the controller; no reply shows them
    unsigned long m_iGId = 0;
    const unsigned long long m_iSysUpTime;  // milliseconds since 1970; the write verifier
    const unsigned int m_iFSF3Properties;   // FileSystemProperty bits
    bool m_bReadOnly = false;               // refuse changes

    // Of the call in hand. A member, so that its texts keep their room and no call allocates.
    MountInfo m_Export;
};
