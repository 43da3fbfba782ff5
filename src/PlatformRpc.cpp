// Registration with the port mapper of this machine through the system's ONC RPC library.
#include "Platform.h"

#include <fcntl.h>
#include <netconfig.h>
#include <netinet/in.h>
#include <unistd.h>

#include <rpc/rpc.h>  // before what belongs to it

#include <rpc/pmap_clnt.h>

namespace Platform {

namespace {

// What the library would call for an arriving request. None arrives: the transports are gone
// before anyone could poll them, and requests come in through our own sockets.
void IgnoreRequest(struct svc_req*, SVCXPRT*) {}

}  // namespace

CRpcTransport::CRpcTransport(int iSocket, int iProtocol) : m_iProtocol(iProtocol)
{
    // A duplicate, because destroying a transport closes its descriptor.
    const int iCopy = fcntl(iSocket, F_DUPFD_CLOEXEC, 3);
    if (iCopy == -1)
        return;
    SVCXPRT* pTransport =
        iProtocol == IPPROTO_UDP ? svcudp_create(iCopy) : svctcp_create(iCopy, 0, 0);
    if (pTransport == nullptr)
        close(iCopy);
    m_pTransport = pTransport;
}

CRpcTransport::~CRpcTransport()
{
    if (m_pTransport != nullptr)
        svc_destroy(static_cast<SVCXPRT*>(m_pTransport));
}

bool CRpcTransport::Register(unsigned long iProg, unsigned long iVers)
{
    // Not svc_register: libtirpc's loses the memory of an address at each call.
    struct netconfig* pNetwork = getnetconfigent(m_iProtocol == IPPROTO_UDP ? "udp" : "tcp");
    if (pNetwork == nullptr)
        return false;
    const bool bDone = svc_reg(static_cast<SVCXPRT*>(m_pTransport), static_cast<rpcprog_t>(iProg),
                               static_cast<rpcvers_t>(iVers), IgnoreRequest, pNetwork);
    freenetconfigent(pNetwork);
    return bDone;
}

void UnregisterRpcService(unsigned long iProg, unsigned long iVers)
{
    svc_unreg(static_cast<rpcprog_t>(iProg), static_cast<rpcvers_t>(iVers));
}

bool UnsetRpcMapping(unsigned long iProg, unsigned long iVers)
{
    return pmap_unset(iProg, iVers);
}

}  // namespace Platform
