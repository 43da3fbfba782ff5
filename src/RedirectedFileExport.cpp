// Writing a redirected file's contents, or a listing of its segments, into another file.
#include "RedirectedFile.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "CachedFile.h"
#include "RuntimeParam.h"
#include "Utilities.h"

namespace {

constexpr unsigned int CONTENTS_PIECE = 65536;  // bytes of one read
constexpr size_t LISTING_PIECE = 65536;         // bytes that are collected before they are written
constexpr char SEGMENT_FORMAT[] = "Segment path=%s, fox=%llu, ox=%llu, len=%llu\n";
constexpr char MERGED_FORMAT[] = "--> Merged Segment path=%s, fox=%llu, ox=%llu, len=%llu\n";

void AppendText(std::string* psTarget, const char* pcFormat, ...)
    __attribute__((format(printf, 2, 3)));

void AppendText(std::string* psTarget, const char* pcFormat, ...)
{
    va_list arguments;
    va_start(arguments, pcFormat);
    va_list counted;
    va_copy(counted, arguments);
    const int iLength = vsnprintf(nullptr, 0, pcFormat, counted);
    va_end(counted);
    if (iLength > 0) {
        const size_t iStart = psTarget->length();
        psTarget->resize(iStart + static_cast<size_t>(iLength) + 1);
        vsnprintf(&(*psTarget)[iStart], static_cast<size_t>(iLength) + 1, pcFormat, arguments);
        psTarget->pop_back();  // the terminating zero
    }
    va_end(arguments);
}

unsigned long long Shown(int64_t iNumber)
{
    return static_cast<unsigned long long>(iNumber);
}

}  // namespace

// Kept here and below: the target must exist, is written from where its descriptor stands and is
// never cut, and only the log tells what went wrong.
void CRedirectedFile::Export(CRuntimeParam* pRuntimeParam, const char* pcExportPath)
{
    LogArgu logArgu{"RedirectedFile.Export"};
    WriteTarget(pRuntimeParam, &logArgu, pcExportPath, "[%s] Content to file error: %s",
                "[%s] Content to file: %s (fid=%d)",
                [&](const Writer& write) { WriteContents(pRuntimeParam, &logArgu, write); });
}

void CRedirectedFile::ExportInfo(CRuntimeParam* pRuntimeParam, const char* pcExportPath,
                                 bool bMergeRange)
{
    LogArgu logArgu{"RedirectedFile.ExportInfo"};
    WriteTarget(pRuntimeParam, &logArgu, pcExportPath, "[%s] Info to file error: %s",
                "[%s] Info to file: %s (fid=%d)",
                [&](const Writer& write) { WriteListing(pRuntimeParam, bMergeRange, write); });
}

bool CRedirectedFile::IsInfoFile(const char* pcPath)
{
    const CMutexLock lock(m_hMutex);
    return m_sInfoFile == pcPath;
}

void CRedirectedFile::WriteTarget(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                  const char* pcPath, const char* pcErrorFormat,
                                  const char* pcFormat,
                                  const std::function<void(const Writer&)>& fill)
{
    {
        const CCachedFile target(m_pUtilities, pRuntimeParam, pLogArgu, pcPath, false);
        if (target.Get() == -1 || IsInfoFile(pcPath)) {
            if (pRuntimeParam->IsLogRedirectFile())
                m_pUtilities->LogInfo(pRuntimeParam, pcErrorFormat, pLogArgu->pcName, pcPath);
            return;
        }
        if (pRuntimeParam->IsLogRedirectFile())
            m_pUtilities->LogInfo(pRuntimeParam, pcFormat, pLogArgu->pcName, pcPath, target.Get());
        // Clients that look at the target meanwhile move the descriptor.
        long long iPosition = OS_FileTell(pRuntimeParam, pLogArgu, target.Get());
        fill([&](const void* pBuffer, size_t iLength) {
            const int iWritten =
                m_pUtilities->OS_FileWriteAt(pRuntimeParam, pLogArgu, target.Get(), iPosition,
                                             pBuffer, static_cast<unsigned int>(iLength), nullptr);
            iPosition += std::max(iWritten, 0);
            return iWritten;
        });
    }
    m_pUtilities->CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPath);
}

void CRedirectedFile::WriteContents(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                    const Writer& write)
{
    std::vector<char> vPiece(CONTENTS_PIECE);
    long long iOffset = 0;
    const bool bOpen = !IsClosed();
    for (bool bEof = false; !bEof;) {
        const int iRead = Read(pRuntimeParam, iOffset, vPiece.data(), CONTENTS_PIECE, &bEof);
        if (iRead < 0)
            return;
        const int iWritten = write(vPiece.data(), static_cast<size_t>(iRead));
        if (pRuntimeParam->IsLogRedirectFile())
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Write ox:%llu, r:%d, w:%d", pLogArgu->pcName,
                                  Shown(iOffset), iRead, iWritten);
        iOffset += iRead;
        // Every further read would deliver nothing either, or nothing but zeros where a client has
        // just removed the file.
        if (!bEof && (iRead == 0 || (bOpen && IsClosed()))) {
            if (pRuntimeParam->IsLogRedirectFile())
                m_pUtilities->LogInfo(pRuntimeParam, "[%s] Nothing to read at ox:%llu",
                                      pLogArgu->pcName, Shown(iOffset));
            return;
        }
    }
}

void CRedirectedFile::WriteListing(CRuntimeParam* pRuntimeParam, bool bMergeRange,
                                   const Writer& write)
{
    std::string sListing;
    AppendCheckPoints(&sListing);
    Segment run;
    run.iSource = 0;  // kept: what is listed where there is no segment at all
    bool bRun = false;
    ProcSegment cursor;
    for (GetSegment(pRuntimeParam, 0, &cursor); cursor.index >= 0;
         GetNextSegment(pRuntimeParam, &cursor)) {
        if (!bMergeRange) {
            AppendSegment(&sListing, SEGMENT_FORMAT, cursor.segment);
        } else if (bRun && cursor.segment.iSource == run.iSource) {
            // Kept: the two need not touch, neither in the source nor in the file.
            run.iLength = static_cast<int64_t>(Shown(run.iLength) + Shown(cursor.segment.iLength));
        } else {
            if (bRun)
                AppendSegment(&sListing, MERGED_FORMAT, run);
            run = cursor.segment;
            bRun = true;
        }
        if (sListing.length() >= LISTING_PIECE) {
            write(sListing.data(), sListing.length());
            sListing.clear();
        }
    }
    if (bMergeRange)
        AppendSegment(&sListing, MERGED_FORMAT, run);
    write(sListing.data(), sListing.length());
}

void CRedirectedFile::AppendCheckPoints(std::string* psListing)
{
    const CMutexLock lock(m_hMutex);
    for (const CheckPointSegment& point : m_vInfoFileCheckPoint)
        AppendText(psListing, "--> CheckPoint Segment fox=%llu, ox=%llu\n",
                   Shown(point.iFileOffset), Shown(point.iOffset));
    if (!m_vInfoFileCheckPoint.empty())
        *psListing += "-------------------\n";
}

void CRedirectedFile::AppendSegment(std::string* psListing, const char* pcFormat,
                                    const Segment& segment)
{
    const CMutexLock lock(m_hMutex);
    const char* pcSource = GetSourcePath(segment.iSource);
    AppendText(psListing, pcFormat, pcSource == nullptr ? "Null" : pcSource,
               Shown(segment.iFileOffset), Shown(segment.iOffset), Shown(segment.iLength));
}
