// A client that speaks ONC RPC byte by byte over real sockets, so that a test can also say what no
// well-behaved client would.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "AutoFd.h"

// How long a client waits for bytes that must come. Only a test that fails ever waits that long.
constexpr int REPLY_TIMEOUT_MS = 20000;

constexpr uint32_t RECORD_MARK_LAST = 0x80000000;  // the last-fragment bit of a record mark
constexpr uint32_t AUTH_NONE = 0;
constexpr uint32_t AUTH_SYS = 1;

// Program numbers and the port that each is served on when the machine has no port mapper.
constexpr uint32_t WIRE_PORTMAP_PROG = 100000;
constexpr uint32_t WIRE_NFS_PROG = 100003;
constexpr uint32_t WIRE_MOUNT_PROG = 100005;
constexpr int WIRE_PORTMAP_PORT = 111;
constexpr int WIRE_NFS_PORT = 2049;
constexpr int WIRE_MOUNT_PORT = 1058;

// Reply and accept states.
constexpr uint32_t WIRE_REPLY = 1;
constexpr uint32_t WIRE_ACCEPTED = 0;
enum AcceptState : uint32_t {
    ACCEPT_SUCCESS = 0,
    ACCEPT_PROG_UNAVAIL = 1,
    ACCEPT_PROG_MISMATCH = 2,
    ACCEPT_PROC_UNAVAIL = 3,
    ACCEPT_GARBAGE_ARGS = 4,
};

// Builds XDR data; the operations can be chained.
class CXdr {
public:
    CXdr& Word(uint32_t iValue);
    CXdr& Hyper(uint64_t iValue);
    CXdr& Bool(bool bValue) { return Word(bValue ? 1 : 0); }
    CXdr& Fixed(std::string_view sBytes);   // the bytes and zeros up to a multiple of four
    CXdr& Opaque(std::string_view sBytes);  // a length word, then as Fixed
    CXdr& String(std::string_view sText) { return Opaque(sText); }
    CXdr& Raw(std::string_view sBytes);  // the bytes alone

    const std::string& Bytes() const { return m_sBytes; }

private:
    std::string m_sBytes;
};

// Overwrites the word at a byte position, which must lie inside sBytes.
void PutWord(std::string* psBytes, size_t iPosition, uint32_t iValue);
uint32_t GetWord(std::string_view sBytes, size_t iPosition);

// One call. Every field may be set to nonsense.
struct RpcCall {
    uint32_t iProg = 0;
    uint32_t iVers = 0;
    uint32_t iProc = 0;
    std::string sArguments;  // XDR data
    uint32_t iXid = 1;
    uint32_t iMsg = 0;
    uint32_t iRpcVers = 2;
    uint32_t iCredentialFlavor = AUTH_NONE;
    std::string sCredential;
    uint32_t iVerifierFlavor = AUTH_NONE;
    std::string sVerifier;

    std::string Datagram() const;  // without record mark
    std::string Record() const;    // one fragment, its mark in front
};

// The body of an AUTH_SYS credential: stamp 0, machine name, IDs, no further groups.
std::string AuthSysBody(std::string_view sMachine, uint32_t iUid, uint32_t iGid);

// A received reply, read from front to back. A read past its end is a test failure and yields
// zeros.
class CReply {
public:
    CReply() = default;                      // nothing was received
    explicit CReply(std::string sDatagram);  // without record mark

    bool IsReceived() const { return m_bReceived; }
    uint32_t Xid() const { return m_iXid; }
    uint32_t Msg() const { return m_iMsg; }
    uint32_t ReplyState() const { return m_iReplyState; }
    uint32_t VerifierFlavor() const { return m_iVerifierFlavor; }
    uint32_t VerifierLength() const { return m_iVerifierLength; }
    uint32_t Accept() const { return m_iAccept; }

    // True for a reply that was received, belongs to iXid and carries results.
    bool IsSuccess(uint32_t iXid) const;
    bool IsAccepted(uint32_t iXid, uint32_t iAccept) const;

    // The results behind the accept state.
    uint32_t Word();
    uint64_t Hyper();
    bool Bool() { return Word() != 0; }
    std::string Fixed(size_t iLength);  // skips the padding too
    std::string Opaque();
    size_t Left() const { return m_sBytes.size() - m_iPosition; }

    const std::string& Bytes() const { return m_sBytes; }

private:
    bool m_bReceived = false;
    std::string m_sBytes;
    size_t m_iPosition = 0;
    uint32_t m_iXid = 0;
    uint32_t m_iMsg = 0;
    uint32_t m_iReplyState = 0;
    uint32_t m_iVerifierFlavor = 0;
    uint32_t m_iVerifierLength = 0;
    uint32_t m_iAccept = 0;
};

// A TCP connection to a server on the loopback, open from the constructor on. Blocks, but never
// longer than REPLY_TIMEOUT_MS.
class CTcpClient {
public:
    explicit CTcpClient(int iPort, const char* pcSourceAddress = "127.0.0.1");
    CTcpClient(CTcpClient&&) noexcept = default;
    CTcpClient(const CTcpClient&) = delete;
    CTcpClient& operator=(const CTcpClient&) = delete;

    bool IsConnected() const { return m_Socket.Get() != -1; }
    int Socket() const { return m_Socket.Get(); }

    // False if the server does not take the bytes.
    bool Send(std::string_view sBytes);

    // The next reply; one that was not received if none comes in time or the server closes.
    CReply ReceiveReply();
    CReply Call(const RpcCall& call);

    // As much as comes, up to iLength bytes; less only if the server closes or falls silent.
    std::string ReceiveRaw(size_t iLength);

    // True if the server closes the connection before it sends another byte.
    bool IsClosedByServer();

    // True if a receive met the end of the connection instead of bytes.
    bool WasClosed() const { return m_bClosed; }

    // True if a byte waits to be read; does not wait for one.
    bool HasBytes() const;

    // Sends a call that the server answers in any case and tells whether nothing but that answer
    // comes: so whatever was sent before it stays unanswered.
    bool IsOtherwiseSilent(uint32_t iProg, uint32_t iVers);

    void ShutDownSending();
    void Close() { m_Socket.Reset(); }

    // Closes with a reset instead of a farewell, as a client that vanishes.
    void Abort();

private:
    CAutoFd m_Socket;
    bool m_bClosed = false;
};

// One call over a TCP connection of its own. The place of a client that left may still be taken for
// a moment, so a connection that the server closes without a reply is tried again.
CReply CallOnce(int iPort, const RpcCall& call, const char* pcSourceAddress = "127.0.0.1");

// The same for UDP. Replies are taken only from the server.
class CUdpClient {
public:
    explicit CUdpClient(int iPort, const char* pcSourceAddress = "127.0.0.1");
    CUdpClient(const CUdpClient&) = delete;
    CUdpClient& operator=(const CUdpClient&) = delete;

    bool IsConnected() const { return m_Socket.Get() != -1; }
    bool Send(std::string_view sDatagram);
    CReply ReceiveReply();
    CReply Call(const RpcCall& call);
    bool HasBytes() const;
    bool IsOtherwiseSilent(uint32_t iProg, uint32_t iVers);

private:
    CAutoFd m_Socket;
};
