#include "SocketStream.h"

#include <new>

// calloc rather than new: the pages of a connection that carries little are never touched.
CSocketStream::CSocketStream()
    : m_pcBuffer(static_cast<unsigned char*>(calloc(1, GetMaxBufferSize())))
{
    if (m_pcBuffer == nullptr)
        throw std::bad_alloc();
}

void CSocketStream::ResetBuffer()
{
    m_iIndex = 0;
    m_iSize = 0;
}
