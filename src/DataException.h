// What reading past the end of a request throws.
#pragma once

#include <stdexcept>

// The request ends early. Whoever reads requests catches it: the RPC layer, to wait for more bytes,
// and each program, to report it as its result.
class CDataTruncatedExpt : public std::runtime_error {
public:
    // Both in bytes: what the reader asked for, and what was left.
    CDataTruncatedExpt(unsigned int iRequested, unsigned int iAvailable);

    const char* what() const noexcept override { return m_cMessage; }

private:
    char m_cMessage[255];
};
