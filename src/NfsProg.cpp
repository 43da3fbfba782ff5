#include "NfsProg.h"

#include "Nfs3Prog.h"

CNfsProg::CNfsProg(CUtilities* pUtilities) : CRpcProg(pUtilities) {}

CNfsProg::~CNfsProg() = default;

void CNfsProg::SetUserID(unsigned int iUId, unsigned int iGId)
{
    m_iUId = iUId;
    m_iGId = iGId;
    if (m_pNfs3Prog != nullptr)
        m_pNfs3Prog->SetUserID(iUId, iGId);
}

void CNfsProg::SetReadOnly(bool bReadOnly)
{
    m_bReadOnly = bReadOnly;
    if (m_pNfs3Prog != nullptr)
        m_pNfs3Prog->SetReadOnly(bReadOnly);
}

unsigned int CNfsProg::GetVersion()
{
    return m_pNfs3Prog == nullptr ? CRpcProg::GetVersion() : m_pNfs3Prog->GetVersion();
}

unsigned int CNfsProg::GetMaxSupportProc()
{
    return m_pNfs3Prog == nullptr ? CRpcProg::GetMaxSupportProc()
                                  : m_pNfs3Prog->GetMaxSupportProc();
}

int CNfsProg::Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam)
{
    if (pParam->iVersion != NFS_V3)
        return PRC_NOTIMP;
    if (m_pNfs3Prog == nullptr) {
        m_pNfs3Prog = std::make_unique<CNfs3Prog>(m_pUtilities);
        m_pNfs3Prog->SetUserID(m_iUId, m_iGId);
        m_pNfs3Prog->SetReadOnly(m_bReadOnly);
    }
    return m_pNfs3Prog->Process(pIn, pOut, pParam);
}
