#include "OutputStream.h"

#include <algorithm>
#include <cstring>

unsigned int COutputStream::Write(const void* pSource, unsigned int iLength)
{
    const unsigned int iWritten = std::min(iLength, GetFreeBufferSize());
    if (pSource != nullptr && iWritten > 0)
        memcpy(GetCurrentBuffer(), pSource, iWritten);
    m_iIndex += iWritten;
    m_iSize = std::max(m_iSize, m_iIndex);
    return iWritten;
}

unsigned int COutputStream::Write(unsigned int iValue)
{
    const unsigned int iBigEndian = ReverseByteOrder(&iValue);
    return Write(&iBigEndian, sizeof(iBigEndian));
}

unsigned int COutputStream::Write8(unsigned long iValue)
{
    const unsigned int iHigh = Write(static_cast<unsigned int>(iValue >> 32));
    return iHigh + Write(static_cast<unsigned int>(iValue));
}

void COutputStream::Seek(int iOffset, int iWhence)
{
    long long iTarget = iOffset;
    if (iWhence == 1)
        iTarget += m_iIndex;
    else if (iWhence == 2)
        iTarget += m_iSize;
    else if (iWhence != 0)
        return;
    m_iIndex = static_cast<unsigned int>(std::clamp<long long>(iTarget, 0, GetMaxBufferSize()));
}

void COutputStream::WriteRemainOpaque(int iLength)
{
    Seek(static_cast<int>(GetPadding(static_cast<unsigned int>(iLength))), 1);
}

void COutputStream::FreeBuffer(unsigned int iLength)
{
    if (m_iSize <= iLength) {
        ResetBuffer();
        return;
    }
    m_iSize -= iLength;
    memmove(m_pcBuffer.get(), m_pcBuffer.get() + iLength, m_iSize);
    if (m_iIndex <= iLength)
        m_iIndex = 0;  // kept: a position further on is not reduced
}
