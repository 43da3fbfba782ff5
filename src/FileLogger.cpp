#include "FileLogger.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

#include "LogArgu.h"
#include "Text.h"
#include "Utilities.h"

namespace {

constexpr size_t LINE_SIZE = 4096;  // bytes of one line in the file

}  // namespace

CFileLogger::CFileLogger(const char* pcPath)
    : m_LogFile(pcPath),
      m_pUtilities(std::make_unique<CUtilities>()),
      m_pRuntimeParam(std::make_unique<CRuntimeParam>("", LOG_CONTROL_ERROR))
{
}

CFileLogger::~CFileLogger()
{
    Close();
}

bool CFileLogger::Open(int iLogControl)
{
    const CMutexLock lock(m_hMutex);
    if (m_iLogFile.Get() != -1)
        return true;

    LogArgu logArgu = {"FileLogger.Open"};
    char cReason[REASON_SIZE] = "";
    m_pRuntimeParam->SetLogControl(LOG_CONTROL_ERROR | iLogControl);
    m_iLogFile.Reset(m_pUtilities->OS_FileForceOpen(m_pRuntimeParam.get(), &logArgu,
                                                    m_LogFile.c_str(), cReason));
    m_pRuntimeParam->SetLogControl(LOG_CONTROL_ERROR);
    if (m_iLogFile.Get() != -1)
        return true;
    m_pUtilities->LogError(m_pRuntimeParam.get(), "Fail to create log file \"%s\". Reason=%s",
                           m_LogFile.c_str(), cReason);
    return false;
}

void CFileLogger::Close()
{
    const CMutexLock lock(m_hMutex);
    m_iLogFile.Reset();
}

bool CFileLogger::LogInfo(const char* pcText)
{
    return LogMessage("info", pcText);
}

bool CFileLogger::LogError(const char* pcText)
{
    return LogMessage("error", pcText);
}

bool CFileLogger::LogRaw(const char* pcText)
{
    return LogMessage("", pcText);
}

void CFileLogger::SetMaxLogSize(long long iSize)
{
    const CMutexLock lock(m_hMutex);
    if (iSize > 0)
        m_iMaxLogSize = iSize;
}

long long CFileLogger::GetMaxLogSize()
{
    const CMutexLock lock(m_hMutex);
    return m_iMaxLogSize;
}

bool CFileLogger::LogMessage(const char* pcLevel, const char* pcText)
{
    const CMutexLock lock(m_hMutex);
    if (m_iLogFile.Get() == -1)
        return false;
    // What goes into a file that was removed is lost.
    struct stat file = {};
    if (fstat(m_iLogFile.Get(), &file) != 0 || file.st_nlink == 0)
        return false;
    // The size rather than the position: a file opened for appending starts at position 0.
    if (file.st_size >= m_iMaxLogSize && !Rotate())
        return false;
    const off_t iEnd = lseek(m_iLogFile.Get(), 0, SEEK_END);

    const time_t iNow = time(nullptr);
    struct tm now = {};
    localtime_r(&iNow, &now);
    char cTime[32];
    strftime(cTime, sizeof(cTime), "%Y/%m/%d %H:%M:%S", &now);

    char cLine[LINE_SIZE + 1];  // snprintf's zero does not go into the file
    const int iWanted =
        pcLevel[0] != '\0' ? snprintf(cLine, sizeof(cLine), "[%s][%s] %s\n", cTime, pcLevel, pcText)
                           : snprintf(cLine, sizeof(cLine), "[%s] %s\n", cTime, pcText);
    if (iWanted <= 0)
        return false;
    const size_t iLength = std::min(static_cast<size_t>(iWanted), LINE_SIZE);
    cLine[iLength - 1] = '\n';  // also where the text was cut

    LogArgu logArgu = {"FileLogger.LogMessage"};
    const int iWritten =
        m_pUtilities->OS_FileWrite(m_pRuntimeParam.get(), &logArgu, m_iLogFile.Get(), cLine,
                                   static_cast<unsigned int>(iLength), nullptr);
    if (iWritten == static_cast<int>(iLength))
        return true;
    // The disk is full. The line goes elsewhere as a whole, so no piece of it stays here.
    if (iWritten > 0 && ftruncate(m_iLogFile.Get(), iEnd) == 0)
        lseek(m_iLogFile.Get(), iEnd, SEEK_SET);
    return false;
}

bool CFileLogger::Rotate()
{
    LogArgu logArgu = {"FileLogger.Rotate"};
    if (m_pUtilities->OS_FileClose(m_pRuntimeParam.get(), &logArgu, m_LogFile.c_str(),
                                   m_iLogFile.Release(), nullptr) != 0)
        return false;

    std::string sRotated;
    do {
        char cName[PATH_SIZE];
        const int iLength =
            snprintf(cName, sizeof(cName), "%s.%d", m_LogFile.c_str(), m_iLastLogIndex);
        if (iLength >= static_cast<int>(sizeof(cName)))
            return false;  // no number fits behind this path
        sRotated = cName;
        m_iLastLogIndex++;
    } while (m_pUtilities->OS_IsFileExists(sRotated.c_str()));

    if (m_pUtilities->OS_FileRename(m_pRuntimeParam.get(), &logArgu, m_LogFile.c_str(),
                                    sRotated.c_str(), nullptr) != 0)
        return false;
    m_iLogFile.Reset(
        m_pUtilities->OS_FileCreate(m_pRuntimeParam.get(), &logArgu, m_LogFile.c_str(), nullptr));
    return m_iLogFile.Get() != -1;
}
