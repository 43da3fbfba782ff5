// The UDP endpoint of a program.
#pragma once

#include <memory>

#include "Socket.h"

class CUtilities;

// Binds a UDP port and lets one CSocket receive on it.
// Locking: Open and Close belong to one thread at a time.
class CDatagramSocket {
public:
    CDatagramSocket() = default;
    virtual ~CDatagramSocket();
    CDatagramSocket(const CDatagramSocket&) = delete;
    CDatagramSocket& operator=(const CDatagramSocket&) = delete;

    // Receives on any local IPv4 address at iPort for program lProgId. False, with the reason and
    // nothing left open, if that fails. pUtilities is only used for the reason.
    bool Open(unsigned long lProgId, int iPort, CUtilities* pUtilities, char* pcReason);
    void Close();

    // Not owned; set before Open, outlives this object.
    void SetListener(ISocketListener* pListener) { m_pListener = pListener; }
    int GetPort() const { return m_iPort; }

private:
    int m_iPort = 0;
    ISocketListener* m_pListener = nullptr;  // not owned
    std::unique_ptr<CSocket> m_pSocket;      // owned, and with it the descriptor; null while closed
};
