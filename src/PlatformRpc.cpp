// Registration with the port mapper of this machine through the system's ONC RPC library.
#include "Platform.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <rpc/pmap_clnt.h>
#include <rpc/rpc.h>
#include <unistd.h>

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
    return svc_register(static_cast<SVCXPRT*>(m_pTransport), iProg, iVers, IgnoreRequest,
                        m_iProtocol);
}

void UnregisterRpcService(unsigned long iProg, unsigned long iVers)
{
    svc_unregister(iProg, iVers);
}

bool UnsetRpcMapping(unsigned long iProg, unsigned long iVers)
{
    return pmap_unset(iProg, iVers);
}

}  // namespace Platform
