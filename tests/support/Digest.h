// SHA-256, by which contents are compared that went a long way.
#pragma once

#include <cstdio>
#include <fstream>
#include <memory>
#include <openssl/evp.h>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

// Over pieces.
class CDigest {
public:
    CDigest() { EXPECT_EQ(EVP_DigestInit_ex(m_pContext.get(), EVP_sha256(), nullptr), 1); }

    void Add(const void* pData, size_t iLength)
    {
        EXPECT_EQ(EVP_DigestUpdate(m_pContext.get(), pData, iLength), 1);
    }

    // As sha256sum prints it. Nothing can be added afterwards.
    std::string Get()
    {
        unsigned char cDigest[EVP_MAX_MD_SIZE];
        unsigned int iLength = 0;
        EXPECT_EQ(EVP_DigestFinal_ex(m_pContext.get(), cDigest, &iLength), 1);
        std::string sText;
        char cByte[3];
        for (unsigned int i = 0; i < iLength; i++) {
            snprintf(cByte, sizeof(cByte), "%02x", cDigest[i]);
            sText += cByte;
        }
        return sText;
    }

private:
    struct Freer {
        void operator()(EVP_MD_CTX* pContext) const { EVP_MD_CTX_free(pContext); }
    };
    std::unique_ptr<EVP_MD_CTX, Freer> m_pContext{EVP_MD_CTX_new()};
};

inline std::string DigestOf(std::string_view sBytes)
{
    CDigest digest;
    digest.Add(sBytes.data(), sBytes.size());
    return digest.Get();
}

inline std::string DigestOfFile(const std::string& sPath)
{
    CDigest digest;
    std::ifstream file(sPath, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << sPath;
    std::vector<char> vBuffer(0x100000);
    while (file.read(vBuffer.data(), static_cast<std::streamsize>(vBuffer.size())) ||
           file.gcount() > 0)
        digest.Add(vBuffer.data(), static_cast<size_t>(file.gcount()));
    return digest.Get();
}
