// The link to a port mapper that this machine runs itself.
#pragma once

constexpr int PORTMAP_PORT = 111;

class CRuntimeParam;
class CServerSocket;
class CUtilities;

// Finds out, once, whether a port mapper is there, and announces programs to it. Reasons go into
// buffers of REASON_SIZE bytes, or nowhere if null.
// Locking: none; one thread at a time.
class CPortmap {
public:
    // Probes port 111. Neither pointer is owned; both outlive this object.
    CPortmap(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam);
    virtual ~CPortmap() = default;
    CPortmap(const CPortmap&) = delete;
    CPortmap& operator=(const CPortmap&) = delete;

    // What the probe at construction found; bProbe looks anew, and changes nothing.
    bool IsRunning() const { return bIsRunning; }
    bool IsRunning(bool bProbe);

    // A TCP socket bound to the port at any local address; the caller owns it. -1, with the
    // reason, if there is no socket, -2 if the port is taken.
    int CreateSocket(unsigned long lPort, char* pcReason);

    // Announces the program, for UDP and TCP, at the port of the listener or of a descriptor that
    // is bound to lPort; with descriptor 0 one is made for the purpose. An earlier mapping of the
    // same program and version is replaced.
    bool Register(unsigned long lProg, unsigned long lVers, CServerSocket* pServerSocket,
                  char* pcReason);
    bool Register(unsigned long lProg, unsigned long lVers, int iSocket, unsigned long lPort,
                  char* pcReason);
    bool RegisterSvc(long lProg, long lVers, int iSocket, char* pcReason);

    bool Unregister(unsigned long lProg, unsigned long lVers, char* pcReason);

private:
    bool bIsRunning = false;
    CUtilities* m_pUtilities;        // not owned
    CRuntimeParam* m_pRuntimeParam;  // not owned
};
