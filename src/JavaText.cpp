#include "JavaText.h"

#include <cstddef>
#include <cstdint>

namespace {

constexpr uint32_t FIRST_SUPPLEMENTARY = 0x10000;
constexpr uint32_t LAST_CHARACTER = 0x10FFFF;

void AppendThreeBytes(std::string* psText, uint32_t iUnit)
{
    psText->push_back(static_cast<char>(0xE0 | (iUnit >> 12)));
    psText->push_back(static_cast<char>(0x80 | ((iUnit >> 6) & 0x3F)));
    psText->push_back(static_cast<char>(0x80 | (iUnit & 0x3F)));
}

// The number of bytes that a first byte announces; 0 for none that can be a first byte.
size_t GetLength(unsigned char cFirst)
{
    if (cFirst < 0x80)
        return 1;
    if (cFirst == 0xC0 || (cFirst >= 0xC2 && cFirst <= 0xDF))
        return 2;
    if ((cFirst & 0xF0) == 0xE0)
        return 3;
    return cFirst >= 0xF0 && cFirst <= 0xF4 ? 4 : 0;
}

// Reads the character at pcText, which has iLength bytes. False if they are not one.
bool Decode(const unsigned char* pcText, size_t iLength, uint32_t* piCharacter)
{
    uint32_t iCharacter = iLength == 1 ? pcText[0] : pcText[0] & (0x7FU >> iLength);
    for (size_t i = 1; i < iLength; i++) {
        if ((pcText[i] & 0xC0) != 0x80)  // a zero, too: nothing is read behind the end
            return false;
        iCharacter = iCharacter << 6 | (pcText[i] & 0x3F);
    }
    *piCharacter = iCharacter;
    // Not in more bytes than it needs. Surrogates and the zero in two bytes are let pass: the form
    // that is wanted has them, so what came from Java goes back as it was.
    switch (iLength) {
    case 2:
        return iCharacter >= 0x80 || iCharacter == 0;
    case 3:
        return iCharacter >= 0x800;
    case 4:
        return iCharacter >= FIRST_SUPPLEMENTARY && iCharacter <= LAST_CHARACTER;
    default:
        return true;
    }
}

}  // namespace

std::string ToModifiedUtf8(const char* pcText)
{
    std::string sText;
    const auto* pcNext = reinterpret_cast<const unsigned char*>(pcText == nullptr ? "" : pcText);
    while (*pcNext != '\0') {
        const size_t iLength = GetLength(*pcNext);
        uint32_t iCharacter = 0;
        if (iLength == 0 || !Decode(pcNext, iLength, &iCharacter)) {
            sText.push_back('?');
            pcNext++;
            continue;
        }
        if (iLength == 4) {
            iCharacter -= FIRST_SUPPLEMENTARY;
            AppendThreeBytes(&sText, 0xD800 + (iCharacter >> 10));
            AppendThreeBytes(&sText, 0xDC00 + (iCharacter & 0x3FF));
        } else {
            sText.append(reinterpret_cast<const char*>(pcNext), iLength);
        }
        pcNext += iLength;
    }
    return sText;
}
