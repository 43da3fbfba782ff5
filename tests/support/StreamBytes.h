// Bytes into an input stream and out of an output stream, and a way to write them by hand.
#pragma once

#include <cstring>
#include <string>
#include <string_view>

#include "InputStream.h"
#include "OutputStream.h"

// "00 0a ff" becomes these three bytes; blanks are only for the eye.
inline std::string FromHex(std::string_view sHex)
{
    std::string sDigits;
    for (const char c : sHex) {
        if (c != ' ')
            sDigits += c;
    }
    std::string sBytes;
    for (size_t i = 0; i + 1 < sDigits.size(); i += 2)
        sBytes += static_cast<char>(std::stoi(sDigits.substr(i, 2), nullptr, 16));
    return sBytes;
}

// The other way, in groups of four bytes: for failures that can be read.
inline std::string ToHex(std::string_view sBytes)
{
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string sHex;
    for (size_t i = 0; i < sBytes.size(); i++) {
        const auto iByte = static_cast<unsigned char>(sBytes[i]);
        sHex += i > 0 && i % 4 == 0 ? " " : "";
        sHex += DIGITS[iByte >> 4];
        sHex += DIGITS[iByte & 15];
    }
    return sHex;
}

// Appends bytes as a receive does.
inline void Receive(CInputStream* pIn, std::string_view sBytes)
{
    memcpy(pIn->GetFreeBuffer(), sBytes.data(), sBytes.size());
    pIn->AddFilledBufferSize(static_cast<unsigned int>(sBytes.size()));
}

// Everything up to the position: what a reply would carry.
inline std::string GetWritten(const COutputStream& out)
{
    return {reinterpret_cast<const char*>(out.GetBuffer()), out.GetBufferIndex()};
}
