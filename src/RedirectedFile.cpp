#include "RedirectedFile.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>
#include <unistd.h>

#include "CachedFile.h"
#include "RuntimeParam.h"
#include "Utilities.h"

namespace {

constexpr long long DEFAULT_SEGMENT_SIZE = 32LL << 20;     // bytes
constexpr long long DEFAULT_CHECK_POINT_SIZE = 1LL << 30;  // bytes

// Kept: the conversions are those of another platform's C library, and what they show is what this
// one makes of them. Behind a function, since the compiler would warn of them.
const char* GetSegmentFormat()
{
    return "[%s] Segment id=%d, fox=%I64u, ox=%I64u, len=%I64u";
}

constexpr size_t RECORDS_PER_WRITE = 1024;

long long GetRecordsSize(const std::vector<Segment>& vRecords)
{
    const size_t iSize = vRecords.size() * sizeof(Segment);
    return static_cast<long long>(iSize);
}

// How far into a segment an offset is, and how many bytes are left from there. False where none can
// be: out of order, or garbage, a segment can end before the offset.
bool GetRest(const Segment& segment, long long iOffset, long long* piInSegment, long long* piRest)
{
    if (__builtin_sub_overflow(iOffset, segment.iOffset, piInSegment) ||
        __builtin_sub_overflow(segment.iLength, *piInSegment, piRest) || *piRest < 0)
        return false;
    if (iOffset > 0)  // nothing lies behind the last offset that there is
        *piRest = std::min(*piRest, std::numeric_limits<long long>::max() - iOffset);
    return true;
}

}  // namespace

CRedirectedFile::CRedirectedFile(CUtilities* pUtilities)
    : m_pUtilities(pUtilities),
      m_iInfoFileSegmentSize(DEFAULT_SEGMENT_SIZE),
      m_iInfoFileCheckPointSize(DEFAULT_CHECK_POINT_SIZE),
      m_SegmentFile(pUtilities)
{
}

CRedirectedFile::~CRedirectedFile()
{
    CRuntimeParam silent("", 0);
    Close(&silent);
}

void CRedirectedFile::Open(CRuntimeParam* pRuntimeParam, long long iSize, int iId,
                           const char* pcInfoFilePath, int iInfoFileSegmentSizeMB,
                           int iInfoFileCheckPointSizeMB)
{
    const CMutexLock lock(m_hMutex);
    m_iSize = iSize;
    m_iId = iId;
    if (pcInfoFilePath != nullptr) {
        m_sInfoFile = pcInfoFilePath;
        if (iInfoFileSegmentSizeMB > 0)
            m_iInfoFileSegmentSize = static_cast<long long>(iInfoFileSegmentSizeMB) << 20;
        if (iInfoFileCheckPointSizeMB > 0)
            m_iInfoFileCheckPointSize = static_cast<long long>(iInfoFileCheckPointSizeMB) << 20;
    }
    if (pRuntimeParam->IsLogRedirectFile())
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] id=%d, size=%llu (path=%s)",
                              "RedirectedFile.Open", m_iId,
                              static_cast<unsigned long long>(m_iSize.load()), m_sInfoFile.c_str());
}

void CRedirectedFile::Close(CRuntimeParam* pRuntimeParam)
{
    LogArgu logArgu{"RedirectedFile.Close"};
    const CMutexLock lock(m_hMutex);
    if (m_bClosed)
        return;
    m_bClosed = true;
    m_vAllCachedSegment.clear();
    m_vAllCachedSegment.shrink_to_fit();
    m_SegmentLookup.Clear();
    m_pUtilities->CloseCachedFileHandle(pRuntimeParam, &logArgu, m_sInfoFile.c_str());
    m_sInfoFile.clear();
    m_SegmentFile.Clear();
    m_vInfoFileCheckPoint = {};
    for (const std::string& sSource : m_vSource)
        m_pUtilities->CloseCachedFileHandle(pRuntimeParam, &logArgu, sSource.c_str());
    m_vSource.clear();
    m_mSourceIndex.clear();
}

bool CRedirectedFile::IsClosed()
{
    const CMutexLock lock(m_hMutex);
    return m_bClosed;
}

// ---- Segments ----

bool CRedirectedFile::AddSegment(CRuntimeParam* pRuntimeParam, const char* pcSrcPath,
                                 long long iSrcFileOffset, long long iOffset, long long iLength,
                                 char*)
{
    LogArgu logArgu{"RedirectedFile.AddSegment"};
    const CMutexLock lock(m_hMutex);
    Segment segment;
    segment.iSource = GetSourceIndex(pRuntimeParam, &logArgu, pcSrcPath);
    if (iOffset >= m_iSize)
        return false;
    segment.iFileOffset = iSrcFileOffset;
    segment.iOffset = iOffset;
    segment.iLength = iLength;
    long long iRoom = 0;  // none is needed in front of an offset so far below 0
    if (!__builtin_sub_overflow(m_iSize.load(), iOffset, &iRoom))
        segment.iLength = std::min(iLength, iRoom);

    const CCachedFile infoFile(m_pUtilities, pRuntimeParam, &logArgu, m_sInfoFile.c_str(), true);
    if (infoFile.Get() != -1) {
        if (!AppendRecords(pRuntimeParam, &logArgu, infoFile.Get(), segment))
            return false;
    } else {
        m_vAllCachedSegment.push_back(segment);
        m_SegmentLookup.Add(m_vAllCachedSegment);
    }
    if (pRuntimeParam->IsLogRedirectFile())
        m_pUtilities->LogInfo(pRuntimeParam, GetSegmentFormat(), logArgu.pcName, m_iId,
                              static_cast<unsigned int>(segment.iFileOffset),
                              static_cast<unsigned int>(segment.iOffset),
                              static_cast<unsigned int>(segment.iLength));
    return true;
}

int CRedirectedFile::GetSourceIndex(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                    const char* pcSrcPath)
{
    if (pcSrcPath == nullptr || pcSrcPath[0] == '\0') {
        if (pRuntimeParam->IsLogRedirectFile())
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Reference src (%d): Null", pLogArgu->pcName,
                                  m_iId);
        return NO_SOURCE;
    }
    const auto [it, bNew] =
        m_mSourceIndex.try_emplace(pcSrcPath, static_cast<int>(m_vSource.size()));
    if (bNew)
        m_vSource.emplace_back(pcSrcPath);
    if (pRuntimeParam->IsLogRedirectFile())
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Reference src (%d): %s", pLogArgu->pcName, m_iId,
                              pcSrcPath);
    return it->second;
}

// Null for a segment without source, and for what garbage in an index file names.
const char* CRedirectedFile::GetSourcePath(int iSource) const
{
    if (iSource < 0 || static_cast<size_t>(iSource) >= m_vSource.size())
        return nullptr;
    return m_vSource[static_cast<size_t>(iSource)].c_str();
}

// Splits the segment at multiples of the granule, so that a search can tell from an offset where
// its record stands at the earliest. Appends all of its records or none.
bool CRedirectedFile::AppendRecords(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iInfoFile,
                                    Segment segment)
{
    // The descriptor is shared with a client that reads the file as a plain one, and may still do
    // so after it was opened: its position is neither used nor moved. Kept: the line of a seek.
    OS_FileSeek(pRuntimeParam, pLogArgu, iInfoFile, 0, SEEK_CUR);
    const long long iStart = m_SegmentFile.BeginAppend(iInfoFile);
    if (iStart < 0)
        return false;
    const size_t iCheckPoints = m_vInfoFileCheckPoint.size();
    const long long iInGranule = segment.iOffset % m_iInfoFileSegmentSize;
    long long iRoom = m_iInfoFileSegmentSize - (iInGranule > 0 ? iInGranule : 0);
    long long iLeft = segment.iLength;
    long long iPosition = iStart;
    bool bDone = true;
    std::vector<Segment> vRecords;
    while (iLeft > 0 && bDone) {
        segment.iLength = std::min(iLeft, iRoom);
        CreateCheckPointSegment(pRuntimeParam, iPosition + GetRecordsSize(vRecords), segment);
        vRecords.push_back(segment);
        segment.iFileOffset =
            static_cast<int64_t>(static_cast<uint64_t>(segment.iFileOffset) +
                                 static_cast<uint64_t>(segment.iLength));  // the host's may be any
        segment.iOffset += segment.iLength;
        iLeft -= segment.iLength;
        iRoom = m_iInfoFileSegmentSize;
        if (iLeft <= 0 || vRecords.size() >= RECORDS_PER_WRITE)
            bDone = WriteRecords(pRuntimeParam, pLogArgu, iInfoFile, &iPosition, &vRecords);
    }
    if (!bDone) {  // a record that was cut short would shift all that follow
        m_vInfoFileCheckPoint.resize(iCheckPoints);
        if (ftruncate(iInfoFile, iStart) != 0 && pRuntimeParam->IsLogError())
            m_pUtilities->LogError(pRuntimeParam, "[%s] Cannot take back records of \"%s\"",
                                   pLogArgu->pcName, m_sInfoFile.c_str());
    }
    m_SegmentFile.EndAppend(iInfoFile, bDone);
    return bDone;
}

// Writes the records at *piPosition, moves it behind them and empties the list.
bool CRedirectedFile::WriteRecords(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iInfoFile,
                                   long long* piPosition, std::vector<Segment>* pvRecords)
{
    const long long iSize = GetRecordsSize(*pvRecords);
    if (m_pUtilities->OS_FileWriteAt(pRuntimeParam, pLogArgu, iInfoFile, *piPosition,
                                     pvRecords->data(), static_cast<unsigned int>(iSize),
                                     nullptr) != iSize)
        return false;
    for (const Segment& record : *pvRecords)
        m_SegmentFile.Append(record);
    *piPosition += iSize;
    pvRecords->clear();
    return true;
}

// A search estimates the record's place by counting granules, which is wrong where segments are
// smaller. So the places of some records are kept. Called before the record is written.
void CRedirectedFile::CreateCheckPointSegment(CRuntimeParam* pRuntimeParam, long long iPosition,
                                              const Segment& segment)
{
    LogArgu logArgu{"RedirectedFile.CreateCheckPointSegment"};
    if (segment.iOffset <= 0 || segment.iOffset % m_iInfoFileCheckPointSize != 0)
        return;
    const CCachedFile infoFile(m_pUtilities, pRuntimeParam, &logArgu, m_sInfoFile.c_str(), false);
    if (infoFile.Get() == -1)
        return;
    if (!m_vInfoFileCheckPoint.empty() && segment.iOffset < m_vInfoFileCheckPoint.back().iOffset)
        m_bCheckPointsAscend = false;
    OS_FileTell(pRuntimeParam, &logArgu, infoFile.Get());  // kept: only for its line
    m_vInfoFileCheckPoint.push_back({iPosition, segment.iOffset});
}

void CRedirectedFile::GetSegment(CRuntimeParam* pRuntimeParam, long long iOffset,
                                 ProcSegment* pCursor)
{
    LogArgu logArgu{"RedirectedFile.GetSegment"};
    const CMutexLock lock(m_hMutex);
    const CCachedFile infoFile(m_pUtilities, pRuntimeParam, &logArgu, m_sInfoFile.c_str(), false);
    FindSegment(pRuntimeParam, &logArgu, infoFile.Get(), iOffset, pCursor);
}

void CRedirectedFile::GetNextSegment(CRuntimeParam* pRuntimeParam, ProcSegment* pCursor)
{
    LogArgu logArgu{"RedirectedFile.GetNextSegment"};
    const CMutexLock lock(m_hMutex);
    const CCachedFile infoFile(m_pUtilities, pRuntimeParam, &logArgu, m_sInfoFile.c_str(), false);
    FindNextSegment(pRuntimeParam, &logArgu, infoFile.Get(), pCursor);
}

void CRedirectedFile::FindSegment(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iInfoFile,
                                  long long iOffset, ProcSegment* pCursor)
{
    pCursor->index = -1;
    if (iInfoFile != -1) {
        if (m_SegmentFile.Find(pRuntimeParam, pLogArgu, iInfoFile, EstimateRecord(iOffset), iOffset,
                               pCursor))
            pCursor->index = pCursor->segment.iOffset;
        return;
    }
    pCursor->index = m_SegmentLookup.Find(m_vAllCachedSegment, iOffset);
    if (pCursor->index >= 0)
        pCursor->segment = m_vAllCachedSegment[static_cast<size_t>(pCursor->index)];
}

// Where in the index file to look for the record of an offset, in bytes. Kept: where granules have
// no record at all, this can lie behind the record wanted, which is then not found.
long long CRedirectedFile::EstimateRecord(long long iOffset) const
{
    constexpr long long RECORD_SIZE = sizeof(Segment);
    if (iOffset < 0)
        return 0;
    const auto IsAtOrBefore = [=](const CheckPointSegment& point) {
        return point.iOffset <= iOffset;
    };
    // The last one in the list that does not lie behind the offset.
    auto it = m_vInfoFileCheckPoint.rend();
    if (iOffset >= m_iInfoFileCheckPointSize && m_bCheckPointsAscend)
        it = std::make_reverse_iterator(std::partition_point(
            m_vInfoFileCheckPoint.begin(), m_vInfoFileCheckPoint.end(), IsAtOrBefore));
    else if (iOffset >= m_iInfoFileCheckPointSize)
        it = std::find_if(m_vInfoFileCheckPoint.rbegin(), m_vInfoFileCheckPoint.rend(),
                          IsAtOrBefore);
    if (it == m_vInfoFileCheckPoint.rend())
        return iOffset / m_iInfoFileSegmentSize * RECORD_SIZE;
    return it->iFileOffset + (iOffset - it->iOffset) / m_iInfoFileSegmentSize * RECORD_SIZE;
}

void CRedirectedFile::FindNextSegment(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                      int iInfoFile, ProcSegment* pCursor)
{
    if (pCursor->index < 0)
        return;
    if (pCursor->index < std::numeric_limits<int64_t>::max())  // an offset, and it may be garbage
        pCursor->index++;
    if (iInfoFile != -1) {
        if (!m_SegmentFile.ReadNext(pRuntimeParam, pLogArgu, iInfoFile, pCursor))
            pCursor->index = -1;
    } else if (static_cast<size_t>(pCursor->index) < m_vAllCachedSegment.size()) {
        pCursor->segment = m_vAllCachedSegment[static_cast<size_t>(pCursor->index)];
    } else {
        pCursor->index = -1;
    }
}

// ---- Reading ----

int CRedirectedFile::Read(CRuntimeParam* pRuntimeParam, long long iOffset, void* pBuffer,
                          unsigned int iLength, bool* pbEof)
{
    LogArgu logArgu{"RedirectedFile.Read"};
    const CMutexLock lock(m_hMutex);
    const int iRead = Read(pRuntimeParam, &logArgu, iOffset, pBuffer, iLength);
    if (iRead >= 0)
        m_iPos = iOffset + iRead;
    *pbEof = m_iPos >= m_iSize;
    if (pRuntimeParam->IsLogFileAccess())
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Eof=%s, ox=%llu, size=%llu", logArgu.pcName,
                              *pbEof ? "T" : "F", static_cast<unsigned long long>(m_iPos),
                              static_cast<unsigned long long>(m_iSize.load()));
    return *pbEof && iRead < 0 ? 0 : iRead;
}

// Kept: a gap between two segments that one read touches is left out. What follows it stands right
// behind what came before, and the result does not count it.
int CRedirectedFile::Read(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, long long iOffset,
                          void* pBuffer, unsigned int iLength)
{
    if (iOffset >= m_iSize)
        return -1;
    auto* pcBuffer = static_cast<char*>(pBuffer);
    const CCachedFile infoFile(m_pUtilities, pRuntimeParam, pLogArgu, m_sInfoFile.c_str(), false);
    ProcSegment cursor;
    FindSegment(pRuntimeParam, pLogArgu, infoFile.Get(), iOffset, &cursor);
    long long iCurrent = iOffset;
    unsigned int iDelivered = 0;
    while (cursor.index >= 0) {
        const Segment segment = cursor.segment;
        if (segment.iOffset > iCurrent) {
            if (pRuntimeParam->IsLogFileAccess())
                m_pUtilities->LogInfo(pRuntimeParam, "[%s] Fill missing segment len:%d",
                                      pLogArgu->pcName,
                                      static_cast<int>(static_cast<uint64_t>(segment.iOffset) -
                                                       static_cast<uint64_t>(iCurrent)));
            iCurrent = segment.iOffset;
        }
        long long iInSegment = 0;
        long long iRest = 0;
        if (!GetRest(segment, iCurrent, &iInSegment, &iRest))
            return static_cast<int>(iDelivered);
        const unsigned int iRoom = iLength - iDelivered;
        if (iRest <= iRoom)
            FindNextSegment(pRuntimeParam, pLogArgu, infoFile.Get(), &cursor);
        const auto iChunk = static_cast<unsigned int>(std::min<long long>(iRest, iRoom));
        if (!ReadSource(pRuntimeParam, pLogArgu, segment, iInSegment, iOffset,
                        pcBuffer + iDelivered, iChunk))
            return static_cast<int>(iDelivered);
        iCurrent += iChunk;
        iDelivered += iChunk;
        if (iDelivered >= iLength)
            return static_cast<int>(iDelivered);
    }
    if (m_iPos >= m_iSize)  // kept: where the read before this one ended, not this one
        return static_cast<int>(iDelivered);
    long long iLeft = 0;
    if (__builtin_sub_overflow(m_iSize.load(), iCurrent, &iLeft))
        iLeft = std::numeric_limits<long long>::max();
    const auto iTail =
        static_cast<unsigned int>(std::clamp<long long>(iLeft, 0, iLength - iDelivered));
    memset(pcBuffer + iDelivered, 0, iTail);
    return static_cast<int>(iDelivered + iTail);
}

// Fills iLength bytes from a segment's source, with zeros where the source is missing or has ended.
// False if it cannot be read. iReadOffset is only shown.
bool CRedirectedFile::ReadSource(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                 const Segment& segment, long long iInSegment,
                                 long long iReadOffset, char* pcBuffer, unsigned int iLength)
{
    const char* pcSource = GetSourcePath(segment.iSource);
    long long iSeek = 0;
    if (__builtin_add_overflow(segment.iFileOffset, iInSegment, &iSeek))
        iSeek = std::numeric_limits<long long>::max();
    if (pRuntimeParam->IsLogFileAccess())  // kept: "fox" is where the read began
        m_pUtilities->LogInfo(pRuntimeParam,
                              "[%s] Segment (%d) path:%s, fox:%llu, len:%d (seek:%llu)",
                              pLogArgu->pcName, m_iId, pcSource == nullptr ? "Null" : pcSource,
                              static_cast<unsigned long long>(iReadOffset),
                              static_cast<int>(iLength), static_cast<unsigned long long>(iSeek));
    const CCachedFile source(m_pUtilities, pRuntimeParam, pLogArgu, pcSource, false);
    if (iSeek < 0)  // fails and moves nothing
        return OS_FileSeek(pRuntimeParam, pLogArgu, source.Get(), iSeek, SEEK_SET) >= 0;
    for (unsigned int iDone = 0; iDone < iLength;) {
        const int iRead = OS_FileReadAt(pRuntimeParam, pLogArgu, source.Get(), iSeek + iDone,
                                        pcBuffer + iDone, iLength - iDone);
        if (iRead < 0)
            return false;
        if (iRead == 0) {
            memset(pcBuffer + iDone, 0, iLength - iDone);
            break;
        }
        iDone += static_cast<unsigned int>(iRead);
    }
    return true;
}

int CRedirectedFile::OS_FileReadAt(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                                   long long iOffset, void* pBuffer, unsigned int iLength)
{
    if (iFile != -1)
        return m_pUtilities->OS_FileReadAt(pRuntimeParam, pLogArgu, iFile, iOffset, pBuffer,
                                           iLength, nullptr);
    memset(pBuffer, 0, iLength);
    return static_cast<int>(iLength);
}

long long CRedirectedFile::OS_FileSeek(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                                       long long iOffset, int iWhence)
{
    if (iFile == -1)
        return iOffset;
    return m_pUtilities->OS_FileSeek(pRuntimeParam, pLogArgu, iFile, iOffset, iWhence, nullptr);
}

long long CRedirectedFile::OS_FileTell(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile)
{
    return m_pUtilities->OS_FileTell(pRuntimeParam, pLogArgu, iFile, nullptr);
}
