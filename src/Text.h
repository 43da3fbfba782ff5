// Bounded text: the sizes of the buffers that the interfaces pass, and the few ways to fill them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

constexpr size_t PATH_SIZE = 4096;    // bytes of a path buffer, its terminating zero included
constexpr size_t REASON_SIZE = 2048;  // bytes of a reason buffer and of a log line

// Copies pcSource into pcTarget, cut to iSize - 1 bytes and always terminated. A null source reads
// as the empty string; a null target or a size of 0 is left alone.
void CopyText(char* pcTarget, size_t iSize, const char* pcSource);

// Overwrites a secret of iSize bytes that is not needed any more.
void WipeText(char* pcText, size_t iSize);

// Null reads as the empty string.
inline const char* NotNull(const char* pcText)
{
    return pcText == nullptr ? "" : pcText;
}

// Fills a caller's reason buffer of REASON_SIZE bytes, cut and terminated; null means that the
// caller wants no words.
void FormatReason(char* pcReason, const char* pcFormat, ...) __attribute__((format(printf, 2, 3)));

// Prints to standard output and flushes at once: someone may be watching a pipe or a file.
void PrintText(const char* pcFormat, ...) __attribute__((format(printf, 1, 2)));

// Splits pcText at every cDelimiter. Empty parts are kept, so "/a" yields "" and "a"; the empty
// text yields one empty part.
std::vector<std::string> SplitIntoVector(const char* pcText, char cDelimiter);

// True if sPath lies somewhere below sFolder; not for sFolder itself. Neither is resolved.
bool IsPathBelow(std::string_view sPath, std::string_view sFolder);
