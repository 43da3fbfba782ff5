// A descriptor that closes itself.
#pragma once

#include <unistd.h>
#include <utility>

// Owns one descriptor, or none (-1). No locking.
class CAutoFd {
public:
    explicit CAutoFd(int iFile = -1) : m_iFile(iFile) {}
    ~CAutoFd() { Reset(); }
    CAutoFd(const CAutoFd&) = delete;
    CAutoFd& operator=(const CAutoFd&) = delete;
    CAutoFd(CAutoFd&& other) noexcept : m_iFile(other.Release()) {}
    CAutoFd& operator=(CAutoFd&& other) noexcept
    {
        Reset(other.Release());
        return *this;
    }

    int Get() const { return m_iFile; }

    // Hands the descriptor over to the caller.
    int Release() { return std::exchange(m_iFile, -1); }

    // Closes what is held and takes iFile instead.
    void Reset(int iFile = -1)
    {
        if (m_iFile != -1)
            close(m_iFile);
        m_iFile = iFile;
    }

private:
    int m_iFile;
};
