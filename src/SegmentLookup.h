// Finds the segment of an offset in memory.
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <vector>

#include "Segment.h"

// Knows of a growing list of segments which one contains an offset: the first, in the order of the
// list, where several do. The list itself stays with the owner, who passes it in.
// Cost: as long as the segments come in ascending order without overlap, a binary search in the
// list and nothing beside it. From the first that does not, an index of two ordered maps.
// Locking: none of its own.
class CSegmentLookup {
public:
    void Clear();

    // Takes note of the segment at the end of vSegments. Every one must be told, once, in order.
    void Add(const std::vector<Segment>& vSegments);

    // The place of the first segment that contains iOffset; -1 if none does.
    int64_t Find(const std::vector<Segment>& vSegments, int64_t iOffset) const;

private:
    // Part of a segment, not covered by any before it.
    struct Piece {
        int64_t iEnd;
        int64_t iSegment;
    };

    void AddPieces(const Segment& segment, int64_t iSegment);

    bool m_bOrdered = true;
    int64_t m_iEnd = std::numeric_limits<int64_t>::min();  // of the last segment, while ordered

    // From here on once they are out of order. Together the two cover every offset.
    std::map<int64_t, Piece> m_mPieces;  // by start
    std::map<int64_t, int64_t> m_mGaps;  // end by start
};
