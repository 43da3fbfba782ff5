// The front of the NFS program: takes version 3 and refuses the others.
#pragma once

#include <memory>

#include "RpcProg.h"

class CNfs3Prog;

// Makes the version 3 program at its first call; until then calls of any version are taken for
// calls, and those of other versions refused as not implemented.
class CNfsProg : public CRpcProg {
public:
    explicit CNfsProg(CUtilities* pUtilities);
    ~CNfsProg() override;

    int Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) override;
    unsigned int GetVersion() override;
    unsigned int GetMaxSupportProc() override;

    // Before the server starts. The owner is kept, though no reply shows it; a read-only program
    // refuses changes.
    void SetUserID(unsigned int iUId, unsigned int iGId);
    void SetReadOnly(bool bReadOnly);

private:
    unsigned int m_iUId = 0;
    unsigned int m_iGId = 0;
    bool m_bReadOnly = false;
    std::unique_ptr<CNfs3Prog> m_pNfs3Prog;  // owned
};
