// Where log lines and notifications go.
#include "Utilities.h"

#include <cstdarg>
#include <cstdio>

#include "Callback.h"
#include "FileLogger.h"
#include "Platform.h"
#include "Text.h"

void CUtilities::LogInfo(CRuntimeParam* pRuntimeParam, const char* pcFormat, ...)
{
    char cText[REASON_SIZE];
    va_list arguments;
    va_start(arguments, pcFormat);
    vsnprintf(cText, sizeof(cText), pcFormat, arguments);
    va_end(arguments);
    LogInfo(pRuntimeParam, cText);
}

void CUtilities::LogError(CRuntimeParam* pRuntimeParam, const char* pcFormat, ...)
{
    char cText[REASON_SIZE];
    va_list arguments;
    va_start(arguments, pcFormat);
    vsnprintf(cText, sizeof(cText), pcFormat, arguments);
    va_end(arguments);
    LogError(pRuntimeParam, cText);
}

void CUtilities::LogRaw(CRuntimeParam* pRuntimeParam, const char* pcFormat, ...)
{
    char cText[REASON_SIZE];
    va_list arguments;
    va_start(arguments, pcFormat);
    vsnprintf(cText, sizeof(cText), pcFormat, arguments);
    va_end(arguments);
    LogRaw(pRuntimeParam, cText);
}

void CUtilities::LogInfo(CRuntimeParam* pRuntimeParam, char* pcText)
{
    LogInfo(pRuntimeParam->GetID(), pcText);
}

void CUtilities::LogError(CRuntimeParam* pRuntimeParam, char* pcText)
{
    LogError(pRuntimeParam->GetID(), pcText);
}

void CUtilities::LogRaw(CRuntimeParam* pRuntimeParam, char* pcText)
{
    LogRaw(pRuntimeParam->GetID(), pcText);
}

void CUtilities::LogInfo(const char* pcID, char* pcText)
{
    CCallback* pCallback = GetCallback();
    if (pCallback != nullptr && pCallback->LogInfo(pcID, pcText))
        return;
    CFileLogger* pFileLogger = GetFileLogger();
    if (pFileLogger != nullptr && pFileLogger->LogInfo(pcText))
        return;
    PrintText("[info] (%s) %s\n", pcID, pcText);
}

void CUtilities::LogError(const char* pcID, char* pcText)
{
    CCallback* pCallback = GetCallback();
    if (pCallback != nullptr && pCallback->LogError(pcID, pcText))
        return;
    CFileLogger* pFileLogger = GetFileLogger();
    if (pFileLogger != nullptr && pFileLogger->LogError(pcText))
        return;
    PrintText("[erro] (%s) %s\n", pcID, pcText);
}

void CUtilities::LogRaw(const char* pcID, char* pcText)
{
    CCallback* pCallback = GetCallback();
    if (pCallback != nullptr && pCallback->LogRaw(pcID, pcText))
        return;
    CFileLogger* pFileLogger = GetFileLogger();
    if (pFileLogger != nullptr && pFileLogger->LogRaw(pcText))
        return;
    PrintText("%s\n", pcText);
}

int CUtilities::LogUpdateRedirectedFileAttributes(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                                  bool bSize, unsigned long long iSize,
                                                  bool bAccessTime, unsigned long iAccessTimeSec,
                                                  bool bLastModifiedTime,
                                                  unsigned long iLastModifiedTimeSec)
{
    return LogUpdateRedirectedFileAttributes(pRuntimeParam->GetID(), pcPath, bSize, iSize,
                                             bAccessTime, iAccessTimeSec, bLastModifiedTime,
                                             iLastModifiedTimeSec);
}

int CUtilities::LogRemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath)
{
    return LogRemoveRedirectedFile(pRuntimeParam->GetID(), pcPath);
}

int CUtilities::LogRenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFrom,
                                        const char* pcPathTo)
{
    return LogRenameRedirectedFile(pRuntimeParam->GetID(), pcPathFrom, pcPathTo);
}

int CUtilities::LogWriteRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                       unsigned long long iSeek, int iSeekType,
                                       unsigned int iLength)
{
    return LogWriteRedirectedFile(pRuntimeParam->GetID(), pcPath, iSeek, iSeekType, iLength);
}

int CUtilities::LogUpdateRedirectedFileAttributes(const char* pcID, const char* pcPath, bool bSize,
                                                  unsigned long long iSize, bool bAccessTime,
                                                  unsigned long iAccessTimeSec,
                                                  bool bLastModifiedTime,
                                                  unsigned long iLastModifiedTimeSec)
{
    CCallback* pCallback = GetCallback();
    if (pCallback == nullptr)
        return -1;
    return pCallback->UpdateRedirectedFileAttributes(pcID, pcPath, bSize, iSize, bAccessTime,
                                                     iAccessTimeSec, bLastModifiedTime,
                                                     iLastModifiedTimeSec);
}

int CUtilities::LogRemoveRedirectedFile(const char* pcID, const char* pcPath)
{
    CCallback* pCallback = GetCallback();
    return pCallback == nullptr ? -1 : pCallback->RemoveRedirectedFile(pcID, pcPath);
}

int CUtilities::LogRenameRedirectedFile(const char* pcID, const char* pcPathFrom,
                                        const char* pcPathTo)
{
    CCallback* pCallback = GetCallback();
    return pCallback == nullptr ? -1 : pCallback->RenameRedirectedFile(pcID, pcPathFrom, pcPathTo);
}

int CUtilities::LogWriteRedirectedFile(const char* pcID, const char* pcPath,
                                       unsigned long long iSeek, int iSeekType,
                                       unsigned int iLength)
{
    CCallback* pCallback = GetCallback();
    if (pCallback == nullptr)
        return -1;
    return pCallback->WriteRedirectedFile(pcID, pcPath, iSeek, iSeekType, iLength);
}

void CUtilities::GetLastErrorText(char* pcTarget, int iError)
{
    char cText[256];
    if (Platform::GetErrorText(iError, cText, sizeof(cText)))
        snprintf(pcTarget, REASON_SIZE, "%s (%d)", cText, iError);
}
