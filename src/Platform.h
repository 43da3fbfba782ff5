// Everything that FreeBSD and Linux do differently, behind functions that read the same on both.
// PlatformFreeBSD.cpp and PlatformLinux.cpp define the system calls, PlatformRpc.cpp the part that
// talks to the system's ONC RPC library (libc on FreeBSD, libtirpc on Linux).
#pragma once

#include <cstddef>

namespace Platform {

// File-system type numbers, as statfs reports them, that limit a file's size.
enum FileSystemType : unsigned long {
    FILE_SYSTEM_MSDOS = 0x4D44,
    FILE_SYSTEM_EXT = 0xEF53,
    FILE_SYSTEM_REISERFS = 0x52654973,
};

// The type number of the file system that holds pcPath, or 0 if it cannot be asked.
unsigned long GetFileSystemType(const char* pcPath);

// Copies the system's text for the error number into pcBuffer, cut to iSize bytes and terminated.
// False, with pcBuffer untouched, if the system has no text. Safe from any thread.
bool GetErrorText(int iError, char* pcBuffer, size_t iSize);

// Copies the argument strings of this process into pcBuffer, each with its zero, as many bytes as
// fit; the last byte is always zero. The first string is the name by which the process was started.
// All of the buffer is zeros if the system cannot be asked.
void GetProgramArguments(char* pcBuffer, size_t iSize);

// One service transport of the ONC RPC library. It exists only to announce a service to the port
// mapper of this machine: the library never receives a call on it, and the descriptor that it is
// made from stays the caller's, open and untouched, when the transport goes.
class CRpcTransport {
public:
    // Makes the transport for iProtocol (IPPROTO_UDP or IPPROTO_TCP) on a duplicate of iSocket, a
    // bound descriptor whose port is the one that will be announced.
    CRpcTransport(int iSocket, int iProtocol);
    ~CRpcTransport();
    CRpcTransport(const CRpcTransport&) = delete;
    CRpcTransport& operator=(const CRpcTransport&) = delete;

    bool IsCreated() const { return m_pTransport != nullptr; }

    // Announces (iProg, iVers) at the descriptor's port; false if the port mapper refuses it.
    bool Register(unsigned long iProg, unsigned long iVers);

private:
    void* m_pTransport = nullptr;  // the library's SVCXPRT, owned
    int m_iProtocol;
};

// Takes (iProg, iVers) out of the ONC RPC library and out of the port mapper of this machine.
void UnregisterRpcService(unsigned long iProg, unsigned long iVers);

// Removes the port mapper's mapping of (iProg, iVers), whoever made it; false if there was none.
bool UnsetRpcMapping(unsigned long iProg, unsigned long iVers);

}  // namespace Platform
