// Text on its way to a Java virtual machine.
#pragma once

#include <string>

// Java's native interface wants its own form of UTF-8: characters beyond 16 bits as two surrogates
// of three bytes each. File names and system texts come as UTF-8, or as any bytes at all; a byte
// that belongs to no character becomes "?". Null reads as the empty text.
std::string ToModifiedUtf8(const char* pcText);
