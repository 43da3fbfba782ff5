// One connection, or the UDP endpoint, of a program.
#pragma once

#include <atomic>
#include <memory>
#include <netinet/in.h>
#include <pthread.h>
#include <string>
#include <sys/types.h>

#include "InputStream.h"
#include "OutputStream.h"
#include "WakePipe.h"

class CSocket;

// Whoever makes sense of received bytes.
class ISocketListener {
public:
    virtual ~ISocketListener() = default;

    // Called on the socket's receive thread whenever bytes have come into its input stream.
    virtual void SocketReceived(CSocket* pSocket) = 0;
};

// Binds a socket to the port at any local IPv4 address; false, with errno set, if that fails.
bool BindToPort(int iSocket, int iPort);

enum SocketType : int {
    SOCKET_STREAM = 1,    // TCP connection
    SOCKET_DATAGRAM = 2,  // UDP
};

// Receives on a thread of its own, appends to the input stream and calls the listener, which
// writes its reply into the output stream and sends it on the same thread.
// Used again and again: inactive when its peer has gone, opened anew for the next one, then with
// empty streams and no trace of the last peer.
// Locking: Open and Close belong to one thread at a time, which is never the receive thread; the
// streams belong to the receive thread while it runs.
class CSocket {
public:
    CSocket(int iType, unsigned long lProgId);
    virtual ~CSocket();
    CSocket(const CSocket&) = delete;
    CSocket& operator=(const CSocket&) = delete;

    // Takes over the descriptor, closing any earlier one, and starts to receive. pListener is not
    // owned and outlives the connection; pPeer may be null. False, with errno set, if no thread
    // could be started; the descriptor is closed then too, as it is where memory runs out and this
    // throws.
    bool Open(int iSocket, ISocketListener* pListener, const sockaddr_in* pPeer);

    // Ends the receive thread, also one that waits for a peer to read, and closes the descriptor.
    void Close();

    // Sends what the output stream holds, as far as it goes without waiting for the peer; the rest
    // stays there. What does not fit a datagram is dropped.
    void Send();

    // Sends what Send left, waiting for the peer. False if the connection is gone or closed.
    bool Flush();

    // How many of the unread bytes the listener has searched in vain; 0 in a new connection. For
    // the listener's use alone.
    unsigned int GetSearchedSize() const { return m_iSearchedSize; }
    void SetSearchedSize(unsigned int iSize) { m_iSearchedSize = iSize; }

    bool IsActive() const { return m_bActive; }
    int GetType() const { return m_iType; }
    unsigned long GetProgId() const { return m_lProgId; }
    CInputStream* GetInputStream() { return m_pInputStream.get(); }
    COutputStream* GetOutputStream() { return m_pOutputStream.get(); }

    // The peer: IPv4 address in dotted text, and port. For UDP the sender of the last datagram.
    std::string GetRemoteAddress() const;
    int GetRemotePort() const;

private:
    static void* RunThread(void* pSocket);
    void Run();
    ssize_t Receive();
    ssize_t ReceiveStream();
    ssize_t ReceiveDatagram();
    bool SendSome(int iFlags);

    const int m_iType;  // SocketType
    const unsigned long m_lProgId;
    int m_Socket = -1;  // set while no receive thread runs
    sockaddr_in m_RemoteAddr = {};
    unsigned int m_iSearchedSize = 0;                // bytes
    ISocketListener* m_pListener = nullptr;          // not owned
    std::unique_ptr<CInputStream> m_pInputStream;    // owned
    std::unique_ptr<COutputStream> m_pOutputStream;  // owned
    std::unique_ptr<CWakePipe> m_pWakePipe;          // owned; only for UDP, see WakePipe.h
    std::atomic<bool> m_bActive = false;             // the receive thread runs
    pthread_t m_hThread = {};
    int m_iThreadCreated = -1;  // 0 if there is a thread to join
};
