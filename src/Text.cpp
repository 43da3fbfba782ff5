#include "Text.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <strings.h>  // systems have explicit_bzero here or in the one above

void CopyText(char* pcTarget, size_t iSize, const char* pcSource)
{
    if (pcTarget == nullptr || iSize == 0)
        return;
    const size_t iLength = pcSource == nullptr ? 0 : strnlen(pcSource, iSize - 1);
    if (iLength > 0)
        memcpy(pcTarget, pcSource, iLength);
    pcTarget[iLength] = '\0';
}

void WipeText(char* pcText, size_t iSize)
{
    explicit_bzero(pcText, iSize);
}

void FormatReason(char* pcReason, const char* pcFormat, ...)
{
    if (pcReason == nullptr)
        return;
    va_list arguments;
    va_start(arguments, pcFormat);
    vsnprintf(pcReason, REASON_SIZE, pcFormat, arguments);
    va_end(arguments);
}

void PrintText(const char* pcFormat, ...)
{
    va_list arguments;
    va_start(arguments, pcFormat);
    vprintf(pcFormat, arguments);
    va_end(arguments);
    fflush(stdout);
}

std::vector<std::string> SplitIntoVector(const char* pcText, char cDelimiter)
{
    std::vector<std::string> vParts;
    const std::string sText = pcText;
    size_t iStart = 0;
    for (;;) {
        const size_t iEnd = sText.find(cDelimiter, iStart);
        vParts.push_back(sText.substr(iStart, iEnd - iStart));
        if (iEnd == std::string::npos)
            return vParts;
        iStart = iEnd + 1;
    }
}

bool IsPathBelow(std::string_view sPath, std::string_view sFolder)
{
    if (sPath.length() <= sFolder.length() || sPath.substr(0, sFolder.length()) != sFolder)
        return false;
    return sFolder == "/" || sPath[sFolder.length()] == '/';
}
