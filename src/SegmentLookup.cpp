#include "SegmentLookup.h"

#include <algorithm>

namespace {

constexpr int64_t LOWEST = std::numeric_limits<int64_t>::min();
constexpr int64_t HIGHEST = std::numeric_limits<int64_t>::max();

// Behind the last byte; segments of no length end where they start.
int64_t GetEnd(const Segment& segment)
{
    int64_t iEnd = segment.iOffset;
    if (segment.iLength > 0 && __builtin_add_overflow(segment.iOffset, segment.iLength, &iEnd))
        return HIGHEST;
    return iEnd;
}

}  // namespace

void CSegmentLookup::Clear()
{
    *this = {};
}

void CSegmentLookup::Add(const std::vector<Segment>& vSegments)
{
    const Segment& segment = vSegments.back();
    if (m_bOrdered && segment.iOffset >= m_iEnd) {
        m_iEnd = GetEnd(segment);
        return;
    }
    if (!m_bOrdered) {
        AddPieces(segment, static_cast<int64_t>(vSegments.size()) - 1);
        return;
    }
    m_bOrdered = false;
    m_mGaps = {{LOWEST, HIGHEST}};
    for (size_t i = 0; i < vSegments.size(); i++)
        AddPieces(vSegments[i], static_cast<int64_t>(i));
}

// What earlier segments cover stays theirs: the new one gets only the gaps between them. Each gap
// is filled once, so that no order of additions is slow.
void CSegmentLookup::AddPieces(const Segment& segment, int64_t iSegment)
{
    const int64_t iStart = segment.iOffset;
    const int64_t iEnd = GetEnd(segment);
    auto it = m_mGaps.upper_bound(iStart);
    if (it != m_mGaps.begin())
        --it;
    while (it != m_mGaps.end() && it->first < iEnd) {
        const auto [iGapStart, iGapEnd] = *it;
        const int64_t iPieceStart = std::max(iGapStart, iStart);
        const int64_t iPieceEnd = std::min(iGapEnd, iEnd);
        if (iPieceStart >= iPieceEnd) {
            ++it;
            continue;
        }
        m_mPieces[iPieceStart] = {iPieceEnd, iSegment};
        it = m_mGaps.erase(it);
        if (iGapStart < iPieceStart)
            m_mGaps.emplace(iGapStart, iPieceStart);
        if (iPieceEnd < iGapEnd)
            it = std::next(m_mGaps.emplace(iPieceEnd, iGapEnd).first);
    }
}

int64_t CSegmentLookup::Find(const std::vector<Segment>& vSegments, int64_t iOffset) const
{
    if (!m_bOrdered) {
        auto it = m_mPieces.upper_bound(iOffset);
        if (it == m_mPieces.begin())
            return -1;
        --it;
        return iOffset < it->second.iEnd ? it->second.iSegment : -1;
    }
    const auto it = std::upper_bound(
        vSegments.begin(), vSegments.end(), iOffset,
        [](int64_t iWanted, const Segment& segment) { return iWanted < segment.iOffset; });
    if (it == vSegments.begin() || !std::prev(it)->Contains(iOffset))
        return -1;
    return it - vSegments.begin() - 1;
}
