#include "SocketStream.h"

#include <new>

// calloc rather than new: the pages of a connection that carries little are never touched.
CSocketStream::CSocketStream()
    : m_pcBuffer(static_cast<unsigned char*>(calloc(1, GetMaxBufferSize())))
{
    if (m_pcBuffer == nullptr)
        throw std::bad_alloc();
}

unsigned int CSocketStream::ReverseByteOrder(const unsigned int* p)
{
    const auto* pcBytes = reinterpret_cast<const unsigned char*>(p);
    return static_cast<unsigned int>(pcBytes[0]) << 24 |
           static_cast<unsigned int>(pcBytes[1]) << 16 |
           static_cast<unsigned int>(pcBytes[2]) << 8 | static_cast<unsigned int>(pcBytes[3]);
}

void CSocketStream::ResetBuffer()
{
    m_iIndex = 0;
    m_iSize = 0;
}
