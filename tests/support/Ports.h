// The ports of a test's own machine: taken by somebody else, or free.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "AutoFd.h"

// A socket that somebody else has bound to the port; a TCP one listens too. -1 if it cannot be had.
inline int OccupyPort(int iType, int iPort)
{
    CAutoFd socket(::socket(AF_INET, iType | SOCK_CLOEXEC, 0));
    const int iOn = 1;
    // A connection that is still fading away is no reason, a listener is.
    if (iType == SOCK_STREAM)
        setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(iPort));
    if (bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        (iType == SOCK_STREAM && listen(socket.Get(), 1) != 0))
        return -1;
    return socket.Release();
}

inline bool IsPortFree(int iType, int iPort)
{
    return CAutoFd(OccupyPort(iType, iPort)).Get() != -1;
}

inline void ExpectPortFree(int iPort)
{
    EXPECT_TRUE(IsPortFree(SOCK_STREAM, iPort)) << "TCP " << iPort;
    EXPECT_TRUE(IsPortFree(SOCK_DGRAM, iPort)) << "UDP " << iPort;
}
