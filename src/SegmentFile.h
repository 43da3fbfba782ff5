// Finds segments in an index file.
#pragma once

#include <cstdint>
#include <limits>
#include <sys/stat.h>
#include <vector>

#include "LogArgu.h"
#include "Segment.h"

class CRuntimeParam;
class CUtilities;

// Reads the records of an index file in large pieces and keeps the piece read last.
// What a search yields is what reading record by record would yield. It is found faster
// where every record was appended here, in ascending order without overlap, and the file is still
// as it was left after the last of them: then the search halves its way to the record.
// Memory: one piece, however many records there are.
// Locking: none of its own. The file's descriptor is the caller's; its position is not moved.
class CSegmentFile {
public:
    // pUtilities is not owned; it reads the file.
    explicit CSegmentFile(CUtilities* pUtilities) : m_pUtilities(pUtilities) {}

    // Forgets the file.
    void Clear();

    // Around the appending of records: before the first, for each, and after the last, which tells
    // whether they stay. The first yields where the file ends, in bytes; -1 if that is not known.
    int64_t BeginAppend(int iFile);
    void Append(const Segment& segment);
    void EndAppend(int iFile, bool bDone);

    // Finds the first record at or behind byte iStart whose segment contains iOffset. False, with
    // the cursor as it was, if there is none.
    bool Find(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile, int64_t iStart,
              int64_t iOffset, ProcSegment* pCursor);

    // Reads the record at pCursor->iNextRecord and moves behind it; false if there is no whole one.
    bool ReadNext(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile, ProcSegment* pCursor);

private:
    bool IsAsLeft(int iFile) const;
    const Segment* GetRecord(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                             int64_t iPosition);
    bool IsInPiece(int64_t iPosition) const;
    void ReadPiece(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile, int64_t iPosition);
    bool FindByHalving(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile, int64_t iStart,
                       int64_t iOffset, ProcSegment* pCursor);
    int ReadAt(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile, int64_t iPosition,
               void* pBuffer, unsigned int iLength);
    void TakeRecord(const Segment& segment, int64_t iPosition, ProcSegment* pCursor);

    CUtilities* m_pUtilities;

    std::vector<Segment> m_vPiece;  // records that were read together
    int64_t m_iPiece = 0;           // where they stand in the file, in bytes

    bool m_bAscending = true;  // all records are ours, and so is their order
    int64_t m_iEnd = std::numeric_limits<int64_t>::min();  // of the last one's segment
    bool m_bAscendingBefore = true;  // these two before the append that is going on
    int64_t m_iEndBefore = std::numeric_limits<int64_t>::min();
    bool m_bAppended = false;
    struct stat m_Left = {};  // the file after the last append

    Segment m_Last;              // the record that was found last
    int64_t m_iLastRecord = -1;  // where it stands; -1 if none was
};
