#include "WireClient.h"

#include <arpa/inet.h>
#include <chrono>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>

#include <gtest/gtest.h>

namespace {

constexpr uint32_t PROBE_XID = 0x50524F42;
constexpr size_t MAX_DATAGRAM_SIZE = 65536;

size_t PaddedSize(size_t iSize)
{
    return (iSize + 3) & ~static_cast<size_t>(3);
}

struct sockaddr_in LoopbackAddress(const char* pcAddress, int iPort)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(iPort));
    inet_pton(AF_INET, pcAddress, &address.sin_addr);
    return address;
}

// A socket bound to a loopback address of our choice and connected to the server; -1 on failure.
int Connect(int iType, int iPort, const char* pcSourceAddress)
{
    CAutoFd socket(::socket(AF_INET, iType | SOCK_CLOEXEC, 0));
    const struct sockaddr_in source = LoopbackAddress(pcSourceAddress, 0);
    const struct sockaddr_in server = LoopbackAddress("127.0.0.1", iPort);
    const struct timeval timeout = {REPLY_TIMEOUT_MS / 1000, 0};
    setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    if (iType == SOCK_STREAM) {
        // Each send travels at once and alone: a test that splits a call means it.
        const int iOn = 1;
        setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &iOn, sizeof(iOn));
    }
    const bool bDone = bind(socket.Get(), reinterpret_cast<const struct sockaddr*>(&source),
                            sizeof(source)) == 0 &&
                       connect(socket.Get(), reinterpret_cast<const struct sockaddr*>(&server),
                               sizeof(server)) == 0;
    return bDone ? socket.Release() : -1;
}

bool WaitForBytes(int iSocket, int iTimeoutMs)
{
    struct pollfd poller = {iSocket, POLLIN, 0};
    return poll(&poller, 1, iTimeoutMs) == 1;
}

RpcCall ProbeCall(uint32_t iProg, uint32_t iVers)
{
    RpcCall call;
    call.iProg = iProg;
    call.iVers = iVers;
    call.iXid = PROBE_XID;
    return call;
}

}  // namespace

CXdr& CXdr::Word(uint32_t iValue)
{
    for (int iShift = 24; iShift >= 0; iShift -= 8)
        m_sBytes += static_cast<char>(iValue >> iShift & 0xFF);
    return *this;
}

CXdr& CXdr::Hyper(uint64_t iValue)
{
    return Word(static_cast<uint32_t>(iValue >> 32)).Word(static_cast<uint32_t>(iValue));
}

CXdr& CXdr::Fixed(std::string_view sBytes)
{
    m_sBytes += sBytes;
    m_sBytes.append(PaddedSize(sBytes.size()) - sBytes.size(), '\0');
    return *this;
}

CXdr& CXdr::Opaque(std::string_view sBytes)
{
    return Word(static_cast<uint32_t>(sBytes.size())).Fixed(sBytes);
}

CXdr& CXdr::Raw(std::string_view sBytes)
{
    m_sBytes += sBytes;
    return *this;
}

void PutWord(std::string* psBytes, size_t iPosition, uint32_t iValue)
{
    psBytes->replace(iPosition, 4, CXdr().Word(iValue).Bytes());
}

uint32_t GetWord(std::string_view sBytes, size_t iPosition)
{
    uint32_t iValue = 0;
    for (const char cByte : sBytes.substr(iPosition, 4))
        iValue = iValue << 8 | static_cast<unsigned char>(cByte);
    return iValue;
}

std::string RpcCall::Datagram() const
{
    return CXdr()
        .Word(iXid)
        .Word(iMsg)
        .Word(iRpcVers)
        .Word(iProg)
        .Word(iVers)
        .Word(iProc)
        .Word(iCredentialFlavor)
        .Opaque(sCredential)
        .Word(iVerifierFlavor)
        .Opaque(sVerifier)
        .Raw(sArguments)
        .Bytes();
}

std::string RpcCall::Record() const
{
    const std::string sDatagram = Datagram();
    return CXdr()
        .Word(RECORD_MARK_LAST | static_cast<uint32_t>(sDatagram.size()))
        .Raw(sDatagram)
        .Bytes();
}

std::string AuthSysBody(std::string_view sMachine, uint32_t iUid, uint32_t iGid)
{
    return CXdr().Word(0).String(sMachine).Word(iUid).Word(iGid).Word(0).Bytes();
}

CReply::CReply(std::string sDatagram) : m_bReceived(true), m_sBytes(std::move(sDatagram))
{
    m_iXid = Word();
    m_iMsg = Word();
    m_iReplyState = Word();
    m_iVerifierFlavor = Word();
    m_iVerifierLength = Word();  // the server echoes the length but sends no body
    m_iAccept = Word();
}

bool CReply::IsSuccess(uint32_t iXid) const
{
    return IsAccepted(iXid, ACCEPT_SUCCESS);
}

bool CReply::IsAccepted(uint32_t iXid, uint32_t iAccept) const
{
    return m_bReceived && m_iXid == iXid && m_iMsg == WIRE_REPLY &&
           m_iReplyState == WIRE_ACCEPTED && m_iAccept == iAccept;
}

uint32_t CReply::Word()
{
    if (Left() < 4) {
        ADD_FAILURE() << "The reply ends after " << m_sBytes.size() << " bytes";
        m_iPosition = m_sBytes.size();
        return 0;
    }
    m_iPosition += 4;
    return GetWord(m_sBytes, m_iPosition - 4);
}

uint64_t CReply::Hyper()
{
    const uint64_t iHigh = Word();
    return iHigh << 32 | Word();
}

std::string CReply::Fixed(size_t iLength)
{
    if (Left() < PaddedSize(iLength)) {
        ADD_FAILURE() << "The reply ends after " << m_sBytes.size() << " bytes, " << iLength
                      << " more wanted at " << m_iPosition;
        m_iPosition = m_sBytes.size();
        return {};
    }
    const std::string sBytes = m_sBytes.substr(m_iPosition, iLength);
    m_iPosition += PaddedSize(iLength);
    return sBytes;
}

std::string CReply::Opaque()
{
    const uint32_t iLength = Word();
    return Fixed(iLength);
}

CTcpClient::CTcpClient(int iPort, const char* pcSourceAddress)
    : m_Socket(Connect(SOCK_STREAM, iPort, pcSourceAddress))
{
}

bool CTcpClient::Send(std::string_view sBytes)
{
    while (!sBytes.empty()) {
        const ssize_t iSent = send(m_Socket.Get(), sBytes.data(), sBytes.size(), MSG_NOSIGNAL);
        if (iSent <= 0)
            return false;
        sBytes.remove_prefix(static_cast<size_t>(iSent));
    }
    return true;
}

std::string CTcpClient::ReceiveRaw(size_t iLength)
{
    std::string sBytes(iLength, '\0');
    size_t iFilled = 0;
    while (iFilled < iLength && WaitForBytes(m_Socket.Get(), REPLY_TIMEOUT_MS)) {
        const ssize_t iReceived =
            recv(m_Socket.Get(), sBytes.data() + iFilled, iLength - iFilled, 0);
        if (iReceived <= 0) {
            m_bClosed = true;
            break;
        }
        iFilled += static_cast<size_t>(iReceived);
    }
    sBytes.resize(iFilled);
    return sBytes;
}

CReply CTcpClient::ReceiveReply()
{
    const std::string sMark = ReceiveRaw(4);
    if (sMark.size() < 4)
        return {};
    const uint32_t iMark = GetWord(sMark, 0);
    EXPECT_NE(iMark & RECORD_MARK_LAST, 0U) << "A reply is one last fragment";
    const size_t iLength = iMark & ~RECORD_MARK_LAST;
    if (iLength > 0x100000) {  // no reply outgrows the server's buffer
        ADD_FAILURE() << "No record mark: " << iMark;
        return {};
    }
    std::string sBytes = ReceiveRaw(iLength);
    if (sBytes.size() < iLength)
        return {};
    return CReply(std::move(sBytes));
}

CReply CTcpClient::Call(const RpcCall& call)
{
    return Send(call.Record()) ? ReceiveReply() : CReply();
}

bool CTcpClient::IsClosedByServer()
{
    char cByte = 0;
    return WaitForBytes(m_Socket.Get(), REPLY_TIMEOUT_MS) &&
           recv(m_Socket.Get(), &cByte, 1, 0) <= 0;
}

bool CTcpClient::HasBytes() const
{
    return WaitForBytes(m_Socket.Get(), 0);
}

bool CTcpClient::IsOtherwiseSilent(uint32_t iProg, uint32_t iVers)
{
    const CReply reply = Call(ProbeCall(iProg, iVers));
    return reply.IsReceived() && reply.Xid() == PROBE_XID && !HasBytes();
}

void CTcpClient::ShutDownSending()
{
    shutdown(m_Socket.Get(), SHUT_WR);
}

void CTcpClient::Abort()
{
    const struct linger nothing = {1, 0};
    setsockopt(m_Socket.Get(), SOL_SOCKET, SO_LINGER, &nothing, sizeof(nothing));
    m_Socket.Reset();
}

CReply CallOnce(int iPort, const RpcCall& call, const char* pcSourceAddress)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(REPLY_TIMEOUT_MS);
    for (;;) {
        CTcpClient client(iPort, pcSourceAddress);
        if (!client.IsConnected())
            return {};
        CReply reply = client.Send(call.Record()) ? client.ReceiveReply() : CReply();
        if (reply.IsReceived() || !client.WasClosed() || std::chrono::steady_clock::now() > end)
            return reply;
        std::this_thread::yield();
    }
}

CUdpClient::CUdpClient(int iPort, const char* pcSourceAddress)
    : m_Socket(Connect(SOCK_DGRAM, iPort, pcSourceAddress))
{
}

bool CUdpClient::Send(std::string_view sDatagram)
{
    return send(m_Socket.Get(), sDatagram.data(), sDatagram.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(sDatagram.size());
}

CReply CUdpClient::ReceiveReply()
{
    std::string sBytes(MAX_DATAGRAM_SIZE, '\0');
    const ssize_t iReceived = WaitForBytes(m_Socket.Get(), REPLY_TIMEOUT_MS)
                                  ? recv(m_Socket.Get(), sBytes.data(), sBytes.size(), 0)
                                  : -1;
    if (iReceived < 0)
        return {};
    sBytes.resize(static_cast<size_t>(iReceived));
    return CReply(std::move(sBytes));
}

CReply CUdpClient::Call(const RpcCall& call)
{
    return Send(call.Datagram()) ? ReceiveReply() : CReply();
}

bool CUdpClient::HasBytes() const
{
    return WaitForBytes(m_Socket.Get(), 0);
}

bool CUdpClient::IsOtherwiseSilent(uint32_t iProg, uint32_t iVers)
{
    const CReply reply = Call(ProbeCall(iProg, iVers));
    return reply.IsReceived() && reply.Xid() == PROBE_XID && !HasBytes();
}
