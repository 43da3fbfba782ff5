// What the two buffers of a connection have in common.
#pragma once

#include <cstdlib>
#include <memory>

constexpr unsigned int XDR_UNIT = 4;  // bytes: everything in XDR is padded to a multiple of it

// The bytes that fill up opaque data of iLength bytes to a multiple of XDR_UNIT.
constexpr unsigned int GetPadding(unsigned int iLength)
{
    return (XDR_UNIT - iLength % XDR_UNIT) % XDR_UNIT;
}

// A buffer of 1 MiB, allocated once and zeroed, with a position and a count of valid bytes.
// Locking: none; a stream belongs to the thread of its connection.
class CSocketStream {
public:
    CSocketStream();
    virtual ~CSocketStream() = default;
    CSocketStream(const CSocketStream&) = delete;
    CSocketStream& operator=(const CSocketStream&) = delete;

    static constexpr unsigned int GetMaxBufferSize() { return 0x100000; }

    // The 32-bit value whose bytes, most significant first, are the four at the pointer.
    static unsigned int LoadWord(const unsigned char* pcBytes)
    {
        return static_cast<unsigned int>(pcBytes[0]) << 24 |
               static_cast<unsigned int>(pcBytes[1]) << 16 |
               static_cast<unsigned int>(pcBytes[2]) << 8 | static_cast<unsigned int>(pcBytes[3]);
    }
    static unsigned int ReverseByteOrder(const unsigned int* p)
    {
        return LoadWord(reinterpret_cast<const unsigned char*>(p));
    }

    void ResetBuffer();

protected:
    struct Freer {
        void operator()(unsigned char* p) const { free(p); }
    };

    std::unique_ptr<unsigned char[], Freer> m_pcBuffer;  // owned
    unsigned int m_iIndex = 0;                           // where the next byte is read or written
    unsigned int m_iSize = 0;                            // valid bytes
};
