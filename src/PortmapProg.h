// The internal port mapper, for a machine that runs none.
#pragma once

#include <array>

#include "RpcProg.h"

enum PortmapProcedure : unsigned int {
    MAPPROC_NULL = 0,
    MAPPROC_SET = 1,
    MAPPROC_UNSET = 2,
    MAPPROC_GETPORT = 3,
    MAPPROC_DUMP = 4,
    MAPPROC_CALLIT = 5,
    MAPPROC_MAX = 6,
};

// Knows only GETPORT, and there only the program: version and protocol make no difference. Every
// other procedure, the null procedure too, is refused as not implemented.
class CPortmapProg : public CRpcProg {
public:
    explicit CPortmapProg(CUtilities* pUtilities) : CRpcProg(pUtilities) {}

    // Announces lProg (100000 to 100009) at lPort. Before the server starts.
    void Set(unsigned long lProg, unsigned long lPort);

    int Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) override;
    unsigned int GetMaxSupportProc() override { return MAPPROC_MAX; }

private:
    int ProcedureGETPORT(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureNOIMP(ProcessParam* pParam);

    std::array<unsigned long, PROGRAM_COUNT> m_lPortTable =
        {};  // by program number - 100000; 0 for none
};
