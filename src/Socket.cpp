#include "Socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <exception>
#include <sys/socket.h>
#include <unistd.h>

#include "AutoFd.h"
#include "Pause.h"

namespace {

constexpr int SHORTAGE_PAUSE = 10;  // milliseconds, when the system is short of memory

bool IsShortage(int iError)
{
    return iError == ENOBUFS || iError == ENOMEM || iError == EAGAIN;
}

}  // namespace

bool BindToPort(int iSocket, int iPort)
{
    if (iPort < 0 || iPort > 0xFFFF) {
        errno = EINVAL;
        return false;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<in_port_t>(iPort));
    return bind(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

CSocket::CSocket(int iType, unsigned long lProgId)
    : m_iType(iType),
      m_lProgId(lProgId),
      m_pInputStream(std::make_unique<CInputStream>()),
      m_pOutputStream(std::make_unique<COutputStream>())
{
}

CSocket::~CSocket()
{
    Close();
}

bool CSocket::Open(int iSocket, ISocketListener* pListener, const sockaddr_in* pPeer)
{
    CAutoFd socket(iSocket);
    const bool bUsed = m_pListener != nullptr;
    Close();
    m_iSearchedSize = 0;
    if (bUsed) {  // fresh buffers: not a byte of the last peer may reach the next one
        m_pInputStream = std::make_unique<CInputStream>();
        m_pOutputStream = std::make_unique<COutputStream>();
    }
    m_pListener = pListener;
    m_RemoteAddr = pPeer == nullptr ? sockaddr_in{} : *pPeer;
    if (m_iType == SOCKET_DATAGRAM) {
        m_pWakePipe = std::make_unique<CWakePipe>();
        if (!m_pWakePipe->Open())
            return false;
    }
    m_Socket = socket.Release();
    if (m_Socket == -1) {
        errno = EBADF;
        return false;
    }
    m_bActive = true;
    m_iThreadCreated = pthread_create(&m_hThread, nullptr, RunThread, this);
    if (m_iThreadCreated == 0)
        return true;
    const int iError = m_iThreadCreated;
    Close();
    errno = iError;
    return false;
}

void CSocket::Close()
{
    // First: an endpoint that is shut down is readable all the time, and its thread would spin.
    if (m_pWakePipe != nullptr)
        m_pWakePipe->Wake();
    if (m_Socket != -1)
        shutdown(m_Socket, SHUT_RDWR);  // ends a receive and a send that waits
    if (m_iThreadCreated == 0)
        pthread_join(m_hThread, nullptr);
    m_iThreadCreated = -1;
    m_bActive = false;
    m_pWakePipe.reset();
    // Closed last: until the thread is gone, the number must not become another connection's.
    if (m_Socket != -1)
        close(m_Socket);
    m_Socket = -1;
}

void* CSocket::RunThread(void* pSocket)
{
    static_cast<CSocket*>(pSocket)->Run();
    return nullptr;
}

void CSocket::Run()
{
    for (;;) {
        m_pInputStream->ConsolidateBuffer(0);
        const ssize_t iReceived = Receive();
        if (iReceived <= 0)
            break;
        m_pInputStream->AddFilledBufferSize(static_cast<unsigned int>(iReceived));
        try {
            m_pListener->SocketReceived(this);
        } catch (const std::exception&) {
            // Out of memory, for one: it costs this connection, or this datagram, not the process.
            if (m_iType == SOCKET_STREAM)
                break;
            m_pOutputStream->ResetBuffer();
        }
        // What a datagram leaves unread goes with it: the next may be another peer's.
        if (m_iType == SOCKET_DATAGRAM) {
            m_pInputStream->ResetBuffer();
            m_iSearchedSize = 0;
        }
    }
    if (m_iType == SOCKET_STREAM)
        shutdown(m_Socket, SHUT_RDWR);  // the peer learns it now; the slot keeps the descriptor
    m_bActive = false;
}

// Bytes received; 0 or less ends the connection, which a full buffer does too.
ssize_t CSocket::Receive()
{
    return m_iType == SOCKET_DATAGRAM ? ReceiveDatagram() : ReceiveStream();
}

ssize_t CSocket::ReceiveStream()
{
    if (m_pInputStream->GetFreeBufferSize() == 0)
        return 0;
    for (;;) {
        const ssize_t iReceived =
            recv(m_Socket, m_pInputStream->GetFreeBuffer(), m_pInputStream->GetFreeBufferSize(), 0);
        if (iReceived >= 0 || (errno != EINTR && !IsShortage(errno)))
            return iReceived;
        if (errno != EINTR)
            Pause(SHORTAGE_PAUSE);
    }
}

// Only Close ends a UDP endpoint: an empty datagram says nothing, and an error belongs to some
// earlier datagram.
ssize_t CSocket::ReceiveDatagram()
{
    while (m_pWakePipe->WaitReadable(m_Socket, -1)) {
        socklen_t iLength = sizeof(m_RemoteAddr);
        const ssize_t iReceived =
            recvfrom(m_Socket, m_pInputStream->GetFreeBuffer(), m_pInputStream->GetFreeBufferSize(),
                     MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&m_RemoteAddr), &iLength);
        if (iReceived > 0)
            return iReceived;
        if (iReceived < 0 && errno != EAGAIN && IsShortage(errno))
            Pause(SHORTAGE_PAUSE);
    }
    return -1;
}

void CSocket::Send()
{
    SendSome(MSG_DONTWAIT);
    if (m_iType == SOCKET_DATAGRAM)
        m_pOutputStream->ResetBuffer();
}

bool CSocket::Flush()
{
    while (m_pOutputStream->GetBufferSize() > 0) {
        if (!SendSome(0))
            return false;
    }
    return true;
}

// One send of the whole output. False if the connection is gone; the output goes with it.
bool CSocket::SendSome(int iFlags)
{
    const unsigned int iSize = m_pOutputStream->GetBufferSize();
    if (m_Socket == -1 || iSize == 0)
        return iSize == 0;
    const bool bDatagram = m_iType == SOCKET_DATAGRAM;
    ssize_t iSent = -1;
    do {
        iSent = sendto(m_Socket, m_pOutputStream->GetBuffer(), iSize, iFlags | MSG_NOSIGNAL,
                       bDatagram ? reinterpret_cast<const sockaddr*>(&m_RemoteAddr) : nullptr,
                       bDatagram ? sizeof(m_RemoteAddr) : 0);
    } while (iSent == -1 && errno == EINTR);
    if (iSent > 0) {
        m_pOutputStream->FreeBuffer(static_cast<unsigned int>(iSent));
        return true;
    }
    if (iSent == -1 && IsShortage(errno)) {
        if (iFlags == 0)
            Pause(SHORTAGE_PAUSE);
        return true;  // nothing went; the output waits for the next send
    }
    m_pOutputStream->ResetBuffer();
    return false;
}

std::string CSocket::GetRemoteAddress() const
{
    char cText[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &m_RemoteAddr.sin_addr, cText, sizeof(cText));
    return cText;
}

int CSocket::GetRemotePort() const
{
    return ntohs(m_RemoteAddr.sin_port);
}
