// The MOUNT program: turns an export's name into the handle of its directory and remembers which
// client holds it.
#pragma once

#include "LogArgu.h"
#include "RpcProg.h"

class COpaquePath;

constexpr unsigned long MOUNT_V3 = 3;  // the version that is announced

enum MountProcedure : unsigned int {
    MOUNTPROC_NULL = 0,
    MOUNTPROC_MNT = 1,
    MOUNTPROC_DUMP = 2,
    MOUNTPROC_UMNT = 3,
    MOUNTPROC_UMNTALL = 4,
    MOUNTPROC_EXPORT = 5,
    MOUNTPROC_MAX = 6,
};

enum MountStatus : unsigned int {
    MNT_OK = 0,
    MNTERR_PERM = 1,
    MNTERR_NOENT = 2,
    MNTERR_IO = 5,
    MNTERR_ACCESS = 13,  // the only failure that is ever sent
    MNTERR_NOTDIR = 20,
    MNTERR_INVAL = 22,
};

// Keeps no state of its own: who holds an export is in the export table. DUMP, UMNTALL and EXPORT
// are not implemented.
class CMountProg : public CRpcProg {
public:
    explicit CMountProg(CUtilities* pUtilities) : CRpcProg(pUtilities) {}

    int Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) override;
    unsigned int GetMaxSupportProc() override { return MOUNTPROC_MAX; }

private:
    using PPROC = int (CMountProg::*)(CInputStream*, COutputStream*, ProcessParam*);
    static const PPROC PROCEDURES[MOUNTPROC_MAX];

    int ProcedureNULL(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureMNT(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureUMNT(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureNOIMP(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);

    // Reads an XDR string of less than PATH_SIZE bytes; false for a longer one, of which only the
    // length is consumed.
    bool ReadPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, CInputStream* pIn,
                  COpaquePath* pPath);
    bool Mount(CInputStream* pIn, ProcessParam* pParam, LogArgu* pLogArgu, void* pHandle);
};
