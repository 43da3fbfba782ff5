// The bytes that a connection received, read as XDR.
#pragma once

#include "SocketStream.h"

// Sizes and positions are in bytes. Every read that runs past the received bytes throws
// CDataTruncatedExpt and consumes nothing.
class CInputStream : public CSocketStream {
public:
    // Each returns the number of bytes consumed.
    unsigned int Read(void* pTarget, unsigned int iLength);
    unsigned int Read(unsigned int* piValue);
    unsigned int Read8(unsigned long* piValue);
    unsigned int Skip(unsigned int iLength);

    // Skips the padding behind opaque data of iLength bytes.
    unsigned int SkipRemainOpaque(unsigned int iLength);

    // Where the next received bytes go, how many there is room for, and what came.
    unsigned char* GetFreeBuffer() { return m_pcBuffer.get() + m_iSize; }
    unsigned int GetFreeBufferSize() const { return GetMaxBufferSize() - m_iSize; }
    void AddFilledBufferSize(unsigned int iLength) { m_iSize += iLength; }

    // What is not read yet. GetFilledBuffer peeks: null if iOffset + iLength reaches past it.
    unsigned int GetFilledBufferSize() const { return m_iSize - m_iIndex; }
    const unsigned char* GetCurrentBuffer() const { return m_pcBuffer.get() + m_iIndex; }
    const unsigned char* GetFilledBuffer(unsigned int iOffset, unsigned int iLength) const;

    // The read position, for coming back to a record's start. A position behind the received bytes
    // is taken for their end.
    unsigned int GetBufferIndex() const { return m_iIndex; }
    void SetBufferIndex(unsigned int iIndex);

    // The end of the received bytes. Whoever confines a reader to one record sets it lower, never
    // below the read position, and sets it back afterwards.
    unsigned int GetBufferEnd() const { return m_iSize; }
    void SetBufferEnd(unsigned int iEnd) { m_iSize = iEnd; }

    // Moves the unread bytes to the front, once iThreshold bytes or more before them were read.
    void ConsolidateBuffer(unsigned int iThreshold);
};
