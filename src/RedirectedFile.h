// A file that clients see and that is assembled from ranges of other files.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "LogArgu.h"
#include "Mutex.h"
#include "Segment.h"
#include "SegmentFile.h"
#include "SegmentLookup.h"

class CRuntimeParam;
class CUtilities;

// The host opens it with its size and describes its contents segment by segment; clients read it.
// The segments are kept in memory or, where the host gave an index file, as records in that file,
// which is asked anew with each call: as long as it cannot be opened, the list in memory counts.
// A read that starts where no segment lies, and one that runs behind the last, yields zeros; so
// does a source that is missing or too short.
// Locking: each operation holds the object's own mutex, below the mutexes of the table of
// redirected files and above the descriptor cache's. So reads and added segments wait for each
// other. An object that is closed reads as zeros.
class CRedirectedFile {
public:
    // pUtilities is not owned; it opens and caches all files.
    explicit CRedirectedFile(CUtilities* pUtilities);
    virtual ~CRedirectedFile();
    CRedirectedFile(const CRedirectedFile&) = delete;
    CRedirectedFile& operator=(const CRedirectedFile&) = delete;

    // iSize is the size in bytes that clients see; iId only marks log lines. pcInfoFilePath names
    // the index file, which must exist and be empty, or is null. The sizes in MiB count only with
    // an index file, and only above 0: segments are split at multiples of the first, and searches
    // can start at multiples of the second.
    void Open(CRuntimeParam* pRuntimeParam, long long iSize, int iId, const char* pcInfoFilePath,
              int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB);

    // Forgets the segments and closes the descriptors of sources and index. Done once.
    void Close(CRuntimeParam* pRuntimeParam);

    // What Open was told; takes no mutex.
    long long GetFileSize() const { return m_iSize; }

    bool IsClosed();

    // Bytes [iOffset, iOffset + iLength) are those of the source from iSrcFileOffset on; a null or
    // empty source means zeros. Cut at the file's size. False for an offset at or behind the size,
    // and if the index file does not take the record; pcReason is never written. Segments should
    // come in ascending order without overlap: nothing checks that.
    bool AddSegment(CRuntimeParam* pRuntimeParam, const char* pcSrcPath, long long iSrcFileOffset,
                    long long iOffset, long long iLength, char* pcReason);

    // The segment that contains iOffset, and the one behind it in the order of the list or of the
    // index file. A negative index in the cursor says that there is none.
    void GetSegment(CRuntimeParam* pRuntimeParam, long long iOffset, ProcSegment* pCursor);
    void GetNextSegment(CRuntimeParam* pRuntimeParam, ProcSegment* pCursor);

    // Bytes read, at most iLength. *pbEof tells whether this read, or one before it, ended at the
    // size. A read at or behind the size yields 0 if *pbEof and else -1.
    int Read(CRuntimeParam* pRuntimeParam, long long iOffset, void* pBuffer, unsigned int iLength,
             bool* pbEof);

    // Write the contents, or a listing of the segments, into a file that exists. With bMergeRange
    // neighbours of one source become one line, whether or not they touch.
    void Export(CRuntimeParam* pRuntimeParam, const char* pcExportPath);
    void ExportInfo(CRuntimeParam* pRuntimeParam, const char* pcExportPath, bool bMergeRange);

private:
    // A handle of -1 stands for a file that is not there: it reads as zeros, and any position in it
    // is good. Others go to CUtilities; those of sources are shared with whoever reads them too.
    int OS_FileReadAt(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile, long long iOffset,
                      void* pBuffer, unsigned int iLength);
    long long OS_FileSeek(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                          long long iOffset, int iWhence);
    long long OS_FileTell(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile);

    int GetSourceIndex(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcSrcPath)
        REQUIRES(m_hMutex);
    const char* GetSourcePath(int iSource) const REQUIRES(m_hMutex);
    bool AppendRecords(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iInfoFile,
                       Segment segment) REQUIRES(m_hMutex);
    bool WriteRecords(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iInfoFile,
                      long long* piPosition, std::vector<Segment>* pvRecords) REQUIRES(m_hMutex);
    void CreateCheckPointSegment(CRuntimeParam* pRuntimeParam, long long iPosition,
                                 const Segment& segment) REQUIRES(m_hMutex);

    void FindSegment(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iInfoFile,
                     long long iOffset, ProcSegment* pCursor) REQUIRES(m_hMutex);
    void FindNextSegment(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iInfoFile,
                         ProcSegment* pCursor) REQUIRES(m_hMutex);
    long long EstimateRecord(long long iOffset) const REQUIRES(m_hMutex);

    int Read(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, long long iOffset, void* pBuffer,
             unsigned int iLength) REQUIRES(m_hMutex);
    bool ReadSource(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const Segment& segment,
                    long long iInSegment, long long iReadOffset, char* pcBuffer,
                    unsigned int iLength) REQUIRES(m_hMutex);

    // Appends bytes to the target of an export; the result is that of the write.
    using Writer = std::function<int(const void* pBuffer, size_t iLength)>;

    // Calls fill with a writer for the target, or logs that there is none. The file's own index is
    // none.
    void WriteTarget(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                     const char* pcErrorFormat, const char* pcFormat,
                     const std::function<void(const Writer&)>& fill);
    void WriteContents(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const Writer& write);
    void WriteListing(CRuntimeParam* pRuntimeParam, bool bMergeRange, const Writer& write);
    bool IsInfoFile(const char* pcPath);
    void AppendCheckPoints(std::string* psListing);
    void AppendSegment(std::string* psListing, const char* pcFormat, const Segment& segment);

    CUtilities* m_pUtilities;  // not owned

    std::atomic<long long> m_iSize = 0;  // bytes; not changed after Open

    CMutex m_hMutex;
    int m_iId GUARDED_BY(m_hMutex) = 0;
    bool m_bClosed GUARDED_BY(m_hMutex) = false;
    long long m_iPos GUARDED_BY(m_hMutex) = 0;  // behind the last read that did not fail
    std::vector<std::string> m_vSource GUARDED_BY(m_hMutex);  // distinct paths, as first named
    std::map<std::string, int, std::less<>> m_mSourceIndex GUARDED_BY(m_hMutex);  // the same

    std::vector<Segment> m_vAllCachedSegment GUARDED_BY(m_hMutex);  // as added; memory only
    CSegmentLookup m_SegmentLookup GUARDED_BY(m_hMutex);            // into it

    std::string m_sInfoFile GUARDED_BY(m_hMutex);              // empty: there is none
    long long m_iInfoFileSegmentSize GUARDED_BY(m_hMutex);     // bytes
    long long m_iInfoFileCheckPointSize GUARDED_BY(m_hMutex);  // bytes
    std::vector<CheckPointSegment> m_vInfoFileCheckPoint GUARDED_BY(m_hMutex);  // as added
    bool m_bCheckPointsAscend GUARDED_BY(m_hMutex) = true;
    CSegmentFile m_SegmentFile GUARDED_BY(m_hMutex);  // reads m_sInfoFile
};
