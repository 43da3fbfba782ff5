#include "InputStream.h"

#include <algorithm>
#include <cstring>

#include "DataException.h"

unsigned int CInputStream::Read(void* pTarget, unsigned int iLength)
{
    const unsigned char* pcSource = GetCurrentBuffer();
    Skip(iLength);
    memcpy(pTarget, pcSource, iLength);
    return iLength;
}

unsigned int CInputStream::Read(unsigned int* piValue)
{
    unsigned int iRaw = 0;
    Read(&iRaw, sizeof(iRaw));
    *piValue = ReverseByteOrder(&iRaw);
    return sizeof(iRaw);
}

unsigned int CInputStream::Read8(unsigned long* piValue)
{
    unsigned int iRaw[2] = {};
    Read(iRaw, sizeof(iRaw));
    *piValue =
        static_cast<unsigned long>(ReverseByteOrder(&iRaw[0])) << 32 | ReverseByteOrder(&iRaw[1]);
    return sizeof(iRaw);
}

unsigned int CInputStream::Skip(unsigned int iLength)
{
    if (iLength > GetFilledBufferSize())
        throw CDataTruncatedExpt(iLength, GetFilledBufferSize());
    m_iIndex += iLength;
    return iLength;
}

unsigned int CInputStream::SkipRemainOpaque(unsigned int iLength)
{
    return Skip(GetPadding(iLength));
}

const unsigned char* CInputStream::GetFilledBuffer(unsigned int iOffset, unsigned int iLength) const
{
    const unsigned int iFilled = GetFilledBufferSize();
    if (iOffset > iFilled || iLength > iFilled - iOffset)
        return nullptr;
    return GetCurrentBuffer() + iOffset;
}

void CInputStream::SetBufferIndex(unsigned int iIndex)
{
    m_iIndex = std::min(iIndex, m_iSize);
}

void CInputStream::ConsolidateBuffer(unsigned int iThreshold)
{
    if (m_iIndex < iThreshold)
        return;
    const unsigned int iUnread = GetFilledBufferSize();
    if (m_iIndex > 0 && iUnread > 0)
        memmove(m_pcBuffer.get(), GetCurrentBuffer(), iUnread);
    m_iIndex = 0;
    m_iSize = iUnread;
}
