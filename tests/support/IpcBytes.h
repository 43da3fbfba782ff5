// Messages of a local channel, written out by hand.
// A message is put together in the order of its bytes, so that a test shows the whole of it:
//     Header(GROUP_REQUEST, 5) + Field("/folder", 1024) + Field("name", 256) + Field("id", 256)
// Group numbers and field sizes are the test's own on purpose: a test that took them from the
// code would agree with whatever the code says.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

constexpr int GROUP_REPLY = 1;
constexpr int GROUP_REQUEST = 2;
constexpr int GROUP_CALLBACK = 3;

constexpr int REPLY_BOOL = 1;
constexpr int REPLY_LONG = 2;
constexpr int REPLY_INT = 3;
constexpr int REPLY_EXPT = 4;
constexpr int REPLY_MSG = 5;

constexpr size_t TEXT_FIELD = 256;
constexpr size_t PATH_FIELD = 1024;
constexpr size_t TEST_PATH_FIELD = 3072;
constexpr size_t MESSAGE_FIELD = 2048;

// Byte ranges [first, second) of a message that mean nothing.
using Padding = std::vector<std::pair<size_t, size_t>>;

// The lowest byte first, as on the machines that this runs on.
inline std::string Word(uint64_t iValue, size_t iBytes)
{
    std::string sBytes;
    for (size_t i = 0; i < iBytes; i++)
        sBytes += static_cast<char>((iValue >> (8 * i)) & 0xff);
    return sBytes;
}

inline std::string Int32(int64_t iValue)
{
    return Word(static_cast<uint64_t>(iValue), 4);
}

inline std::string Int64(int64_t iValue)
{
    return Word(static_cast<uint64_t>(iValue), 8);
}

// One byte.
inline std::string Flag(int iValue)
{
    return Word(static_cast<uint64_t>(iValue), 1);
}

inline std::string Pad(size_t iBytes)
{
    return std::string(iBytes, '\0');
}

// A text in a field of that size, zeros behind it. A text that fills the field has no end.
inline std::string Field(std::string_view sText, size_t iSize)
{
    EXPECT_LE(sText.size(), iSize);
    std::string sBytes(sText.substr(0, iSize));
    sBytes.resize(iSize, '\0');
    return sBytes;
}

inline std::string Header(int iGroup, int iType, std::string_view sVersion = "1.2")
{
    return Int32(iGroup) + Int32(iType) + Field(sVersion, 8);
}

inline std::string Request(int iType)
{
    return Header(GROUP_REQUEST, iType);
}

// ---- Whole replies ----

inline std::string BoolReply(bool bValue)
{
    return Header(GROUP_REPLY, REPLY_BOOL) + Flag(bValue ? 1 : 0) + Pad(3);
}

inline std::string LongReply(int64_t iValue)
{
    return Header(GROUP_REPLY, REPLY_LONG) + Int64(iValue);
}

inline std::string IntReply(int iValue)
{
    return Header(GROUP_REPLY, REPLY_INT) + Int32(iValue);
}

inline std::string ExptReply(std::string_view sText)
{
    return Header(GROUP_REPLY, REPLY_EXPT) + Field(sText, MESSAGE_FIELD);
}

inline std::string MsgReply(std::string_view sText)
{
    return Header(GROUP_REPLY, REPLY_MSG) + Field(sText, MESSAGE_FIELD);
}

// The reply to a message of no known kind.
inline std::string NoReply()
{
    return Header(GROUP_REPLY, 0);
}

// ---- Comparison ----

// The message without what means nothing: what stands in the padding, and what stands behind the
// end of each text (fields are [first, second) as well).
inline std::string WithoutPadding(std::string sMessage, const Padding& padding,
                                  const Padding& texts = {})
{
    for (const auto& [iBegin, iEnd] : padding)
        for (size_t i = iBegin; i < iEnd && i < sMessage.size(); i++)
            sMessage[i] = '\0';
    for (const auto& [iBegin, iEnd] : texts) {
        bool bEnded = false;
        for (size_t i = iBegin; i < iEnd && i < sMessage.size(); i++) {
            bEnded = bEnded || sMessage[i] == '\0';
            if (bEnded)
                sMessage[i] = '\0';
        }
    }
    return sMessage;
}

// Success if both are the same apart from the padding and the rests of texts; else where they
// differ first, since a whole message is more than anybody reads.
inline testing::AssertionResult SameMessage(const std::string& sActual, const std::string& sWanted,
                                            const Padding& padding = {}, const Padding& texts = {})
{
    if (sActual.size() != sWanted.size())
        return testing::AssertionFailure()
               << "the message has " << sActual.size() << " bytes, not " << sWanted.size();
    const std::string sLeft = WithoutPadding(sActual, padding, texts);
    const std::string sRight = WithoutPadding(sWanted, padding, texts);
    for (size_t i = 0; i < sLeft.size(); i++) {
        if (sLeft[i] == sRight[i])
            continue;
        char cText[80];
        snprintf(cText, sizeof(cText), "byte %zu is %02x, not %02x", i,
                 static_cast<unsigned char>(sLeft[i]), static_cast<unsigned char>(sRight[i]));
        return testing::AssertionFailure() << cText;
    }
    return testing::AssertionSuccess();
}
