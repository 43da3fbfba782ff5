#include "DatagramSocket.h"

#include <cerrno>
#include <netinet/in.h>
#include <new>
#include <sys/socket.h>

#include "AutoFd.h"
#include "Text.h"
#include "Utilities.h"

CDatagramSocket::~CDatagramSocket()
{
    Close();
}

bool CDatagramSocket::Open(unsigned long lProgId, int iPort, CUtilities* pUtilities, char* pcReason)
{
    Close();
    m_iPort = iPort;
    char cError[REASON_SIZE] = "";
    CAutoFd endpoint(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (endpoint.Get() == -1) {
        pUtilities->GetLastErrorText(cError, errno);
        FormatReason(pcReason, "Fail to create datagram socket. %s", cError);
        return false;
    }
    if (!BindToPort(endpoint.Get(), iPort)) {
        pUtilities->GetLastErrorText(cError, errno);
        FormatReason(pcReason, "Fail to bind datagram socket. %s", cError);
        return false;
    }
    int iError = ENOMEM;
    try {
        m_pSocket = std::make_unique<CSocket>(SOCKET_DATAGRAM, lProgId);
        if (m_pSocket->Open(endpoint.Release(), m_pListener, nullptr))
            return true;
        iError = errno;
    } catch (const std::bad_alloc&) {  // its streams are large
    }
    Close();
    pUtilities->GetLastErrorText(cError, iError);
    FormatReason(pcReason, "Fail to create datagram socket. %s", cError);
    return false;
}

void CDatagramSocket::Close()
{
    m_pSocket.reset();
}
