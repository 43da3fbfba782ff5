// Ranges of a redirected file.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr int NO_SOURCE = -1;

// One range, and one record of an index file, which holds these bytes as they lie in memory.
struct Segment {
    int32_t iSource = NO_SOURCE;  // place in the file's list of sources; none reads as zeros
    int32_t iPadding = 0;         // named, so that it is zero in index files
    int64_t iFileOffset = 0;      // where the bytes start in the source
    int64_t iOffset = 0;          // where they start in the redirected file
    int64_t iLength = 0;          // bytes; whoever adds a segment may give 0 or less

    // True if the byte at iWanted belongs to it; right for any values, for a record may be garbage.
    bool Contains(int64_t iWanted) const
    {
        return iOffset <= iWanted && iLength > 0 &&
               static_cast<uint64_t>(iWanted) - static_cast<uint64_t>(iOffset) <
                   static_cast<uint64_t>(iLength);
    }
};

static_assert(sizeof(Segment) == 32 && offsetof(Segment, iFileOffset) == 8 &&
                  offsetof(Segment, iOffset) == 16 && offsetof(Segment, iLength) == 24,
              "the records of an index file are laid out so");

// A place in a walk over the segments.
struct ProcSegment {
    int64_t index = -1;       // below 0: there is no segment here
    int64_t iNextRecord = 0;  // where the walk goes on in the index file, in bytes
    Segment segment;
};

// A record of the index file from which a search can start.
struct CheckPointSegment {
    int64_t iFileOffset = 0;  // the record's place in the index file, in bytes
    int64_t iOffset = 0;      // where its segment starts in the redirected file
};
