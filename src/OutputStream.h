// The reply that a connection is about to send, written as XDR.
#pragma once

#include "SocketStream.h"

// Sizes and positions are in bytes. Writing past 1 MiB is cut without an error: whoever needs the
// whole reply keeps it below that.
class COutputStream : public CSocketStream {
public:
    // Each returns the number of bytes written. A null pSource reserves the bytes and leaves them
    // as they are.
    unsigned int Write(const void* pSource, unsigned int iLength);
    unsigned int Write(unsigned int iValue);
    unsigned int Write8(unsigned long iValue);

    // Moves the position: 0 from the start, 1 from where it is, 2 from the end of the valid bytes.
    // It may go past those; they follow with the next write or at Truncate.
    void Seek(int iOffset, int iWhence);

    // Moves over the padding behind opaque data of iLength bytes; what the buffer holds there
    // stays.
    void WriteRemainOpaque(int iLength);

    // Makes the position the end of the valid bytes.
    void Truncate() { m_iSize = m_iIndex; }

    const unsigned char* GetBuffer() const { return m_pcBuffer.get(); }
    unsigned int GetBufferSize() const { return m_iSize; }
    unsigned int GetBufferIndex() const { return m_iIndex; }
    unsigned char* GetCurrentBuffer() { return m_pcBuffer.get() + m_iIndex; }
    unsigned int GetFreeBufferSize() const { return GetMaxBufferSize() - m_iIndex; }

    // Drops the first iLength bytes, which were sent.
    void FreeBuffer(unsigned int iLength);
};
