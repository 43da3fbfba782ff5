#include "SegmentFile.h"

#include <algorithm>
#include <iterator>

#include "FileState.h"
#include "Utilities.h"

namespace {

constexpr int64_t RECORD_SIZE = sizeof(Segment);
constexpr int64_t PIECE_RECORDS = 1024;  // 32 KiB

}  // namespace

void CSegmentFile::Clear()
{
    *this = CSegmentFile(m_pUtilities);
}

// A file that holds anything before the first append is not ours, and what was read until then is
// not what it holds now.
int64_t CSegmentFile::BeginAppend(int iFile)
{
    m_iEndBefore = m_iEnd;
    m_bAscendingBefore = m_bAscending;
    if (m_bAppended && IsAsLeft(iFile))
        return m_Left.st_size;
    m_vPiece.clear();
    m_iLastRecord = -1;
    struct stat now = {};
    const bool bKnown = fstat(iFile, &now) == 0;
    if (m_bAppended || !bKnown || now.st_size != 0)
        m_bAscending = m_bAscendingBefore = false;
    return bKnown ? now.st_size : -1;
}

void CSegmentFile::Append(const Segment& segment)
{
    if (segment.iOffset < m_iEnd ||
        __builtin_add_overflow(segment.iOffset, segment.iLength, &m_iEnd))
        m_bAscending = false;
}

void CSegmentFile::EndAppend(int iFile, bool bDone)
{
    if (!bDone) {
        m_iEnd = m_iEndBefore;
        m_bAscending = m_bAscendingBefore;
    }
    m_bAppended = fstat(iFile, &m_Left) == 0;
    if (m_Left.st_size % RECORD_SIZE != 0)
        m_bAscending = false;  // part of a record shifts all that follow
}

bool CSegmentFile::IsAsLeft(int iFile) const
{
    struct stat now = {};
    return fstat(iFile, &now) == 0 && IsSameFileState(now, m_Left);
}

bool CSegmentFile::Find(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile, int64_t iStart,
                        int64_t iOffset, ProcSegment* pCursor)
{
    if (m_bAppended && m_bAscending && IsAsLeft(iFile)) {
        // Only one record can contain it: where a reader goes on in its segment, it is known.
        if (m_iLastRecord >= iStart && m_Last.Contains(iOffset)) {
            TakeRecord(m_Last, m_iLastRecord, pCursor);
            return true;
        }
        return FindByHalving(pRuntimeParam, pLogArgu, iFile, iStart, iOffset, pCursor);
    }
    m_vPiece.clear();  // somebody else may write this file
    for (int64_t iPosition = iStart;; iPosition += RECORD_SIZE) {
        const Segment* pRecord = GetRecord(pRuntimeParam, pLogArgu, iFile, iPosition);
        if (pRecord == nullptr)
            return false;
        if (pRecord->Contains(iOffset)) {
            TakeRecord(*pRecord, iPosition, pCursor);
            return true;
        }
    }
}

// The record wanted is the last one that starts at or before iOffset, if it is not in front of
// iStart: nobody looks there.
bool CSegmentFile::FindByHalving(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                                 int64_t iStart, int64_t iOffset, ProcSegment* pCursor)
{
    int64_t iLow = iStart / RECORD_SIZE;
    int64_t iHigh = m_Left.st_size / RECORD_SIZE;
    while (iHigh - iLow > PIECE_RECORDS) {
        const int64_t iMiddle = iLow + (iHigh - iLow) / 2;
        Segment record;
        if (ReadAt(pRuntimeParam, pLogArgu, iFile, iMiddle * RECORD_SIZE, &record, RECORD_SIZE) !=
            RECORD_SIZE)
            return false;
        (record.iOffset <= iOffset ? iLow : iHigh) = iMiddle;
    }
    // iLow starts at or before iOffset, or is where the search began; all that is left fits a piece
    const int64_t iFirst = iLow * RECORD_SIZE;
    const int64_t iLast = (iHigh - 1) * RECORD_SIZE;
    if (iLast < iFirst)
        return false;
    if (!IsInPiece(iFirst) || !IsInPiece(iLast))
        ReadPiece(pRuntimeParam, pLogArgu, iFile, iFirst);
    if (!IsInPiece(iFirst) || !IsInPiece(iLast))
        return false;
    const auto first = m_vPiece.begin() + (iFirst - m_iPiece) / RECORD_SIZE;
    const auto it = std::upper_bound(
        first, first + (iHigh - iLow), iOffset,
        [](int64_t iWanted, const Segment& segment) { return iWanted < segment.iOffset; });
    if (it == first || !std::prev(it)->Contains(iOffset))
        return false;
    TakeRecord(*std::prev(it), iFirst + (it - first - 1) * RECORD_SIZE, pCursor);
    return true;
}

bool CSegmentFile::ReadNext(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                            ProcSegment* pCursor)
{
    const Segment* pRecord = GetRecord(pRuntimeParam, pLogArgu, iFile, pCursor->iNextRecord);
    if (pRecord == nullptr)
        return false;
    TakeRecord(*pRecord, pCursor->iNextRecord, pCursor);
    return true;
}

void CSegmentFile::TakeRecord(const Segment& segment, int64_t iPosition, ProcSegment* pCursor)
{
    m_Last = segment;
    m_iLastRecord = iPosition;
    pCursor->segment = segment;
    pCursor->iNextRecord = iPosition + RECORD_SIZE;
}

// The record at a place in the file; null if no whole one stands there. Good until the next call.
const Segment* CSegmentFile::GetRecord(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                                       int64_t iPosition)
{
    if (!IsInPiece(iPosition))
        ReadPiece(pRuntimeParam, pLogArgu, iFile, iPosition);
    if (!IsInPiece(iPosition))
        return nullptr;
    return &m_vPiece[static_cast<size_t>((iPosition - m_iPiece) / RECORD_SIZE)];
}

bool CSegmentFile::IsInPiece(int64_t iPosition) const
{
    const int64_t iInPiece = iPosition - m_iPiece;
    return iInPiece >= 0 && iInPiece % RECORD_SIZE == 0 &&
           iInPiece / RECORD_SIZE < static_cast<int64_t>(m_vPiece.size());
}

void CSegmentFile::ReadPiece(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                             int64_t iPosition)
{
    m_vPiece.resize(PIECE_RECORDS);
    const int iRead = ReadAt(pRuntimeParam, pLogArgu, iFile, iPosition, m_vPiece.data(),
                             static_cast<unsigned int>(PIECE_RECORDS * RECORD_SIZE));
    m_vPiece.resize(iRead <= 0 ? 0 : static_cast<size_t>(iRead) / RECORD_SIZE);
    m_iPiece = iPosition;
}

int CSegmentFile::ReadAt(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                         int64_t iPosition, void* pBuffer, unsigned int iLength)
{
    return m_pUtilities->OS_FileReadAt(pRuntimeParam, pLogArgu, iFile, iPosition, pBuffer, iLength,
                                       nullptr);
}
