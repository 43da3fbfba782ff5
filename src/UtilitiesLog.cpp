// Where log lines and notifications go.
#include "Utilities.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Deferral.h"
#include "FileLogger.h"
#include "Host.h"
#include "Platform.h"
#include "Text.h"

namespace {

// A host that is told of what it does from being told, and does it again, is not told for ever.
constexpr int MAX_HOST_CALLS = 16;

thread_local int t_iHostCalls = 0;  // that this thread is below

// The host, kept alive for one call.
class CHostCall {
public:
    explicit CHostCall(const CUtilities* pUtilities) : m_pHost(pUtilities->GetCallback())
    {
        t_iHostCalls++;
    }
    ~CHostCall() { t_iHostCalls--; }
    CHostCall(const CHostCall&) = delete;
    CHostCall& operator=(const CHostCall&) = delete;

    bool IsThere() const { return m_pHost != nullptr && t_iHostCalls <= MAX_HOST_CALLS; }
    IHost* operator->() const { return m_pHost.get(); }

private:
    std::shared_ptr<IHost> m_pHost;
};

}  // namespace

void CUtilities::SetCallback(IHost* pCallback)
{
    std::vector<std::shared_ptr<IHost>> vCallbacks;  // those that go do so after the mutex
    if (pCallback != nullptr)
        vCallbacks.emplace_back(pCallback, [](IHost*) {});  // nothing happens to it at the end
    const CMutexLock lock(m_hMutexCallback);
    m_vCallbacks.swap(vCallbacks);
}

void CUtilities::InstallCallback(std::shared_ptr<IHost> pCallback)
{
    const CMutexLock lock(m_hMutexCallback);
    m_vCallbacks.push_back(std::move(pCallback));
}

void CUtilities::RemoveCallback(const IHost* pCallback)
{
    std::shared_ptr<IHost> pRemoved;  // goes after the mutex
    const CMutexLock lock(m_hMutexCallback);
    const auto it = std::find_if(m_vCallbacks.begin(), m_vCallbacks.end(),
                                 [pCallback](const auto& p) { return p.get() == pCallback; });
    if (it == m_vCallbacks.end())
        return;
    pRemoved = std::move(*it);
    m_vCallbacks.erase(it);
}

std::shared_ptr<IHost> CUtilities::GetCallback() const
{
    const CMutexLock lock(m_hMutexCallback);
    return m_vCallbacks.empty() ? nullptr : m_vCallbacks.front();
}

bool CUtilities::IsInterrupted()
{
    const CHostCall host(this);
    return host.IsThere() && host->IsInterrupted();
}

bool CUtilities::IsInsideCallback()
{
    return t_iHostCalls > 0;
}

// Under a mutex the line waits, with all that it needs of the caller.
void CUtilities::Deliver(LogOperation operation, CRuntimeParam* pRuntimeParam, char* pcText)
{
    if (!CDeferral::IsHeld()) {
        (this->*operation)(pRuntimeParam, pcText);
        return;
    }
    CDeferral::Defer([this, operation, sID = std::string(pRuntimeParam->GetID()),
                      sIpcID = std::string(pRuntimeParam->GetIpcID()),
                      iLogControl = pRuntimeParam->GetLogControl(), sText = std::string(pcText)]() {
        CRuntimeParam param(sID.c_str(), iLogControl);
        param.SetIpcID(sIpcID.c_str());
        std::string sCopy = sText;
        (this->*operation)(&param, sCopy.data());
    });
}

void CUtilities::LogInfo(CRuntimeParam* pRuntimeParam, const char* pcFormat, ...)
{
    char cText[REASON_SIZE];
    va_list arguments;
    va_start(arguments, pcFormat);
    vsnprintf(cText, sizeof(cText), pcFormat, arguments);
    va_end(arguments);
    Deliver(&CUtilities::LogInfo, pRuntimeParam, cText);
}

void CUtilities::LogError(CRuntimeParam* pRuntimeParam, const char* pcFormat, ...)
{
    char cText[REASON_SIZE];
    va_list arguments;
    va_start(arguments, pcFormat);
    vsnprintf(cText, sizeof(cText), pcFormat, arguments);
    va_end(arguments);
    Deliver(&CUtilities::LogError, pRuntimeParam, cText);
}

void CUtilities::LogRaw(CRuntimeParam* pRuntimeParam, const char* pcFormat, ...)
{
    char cText[REASON_SIZE];
    va_list arguments;
    va_start(arguments, pcFormat);
    vsnprintf(cText, sizeof(cText), pcFormat, arguments);
    va_end(arguments);
    Deliver(&CUtilities::LogRaw, pRuntimeParam, cText);
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
    {
        const CHostCall host(this);
        if (host.IsThere() && host->LogInfo(pcID, pcText))
            return;
    }
    CFileLogger* pFileLogger = GetFileLogger();
    if (pFileLogger != nullptr && pFileLogger->LogInfo(pcText))
        return;
    PrintText("[info] (%s) %s\n", pcID, pcText);
}

void CUtilities::LogError(const char* pcID, char* pcText)
{
    {
        const CHostCall host(this);
        if (host.IsThere() && host->LogError(pcID, pcText))
            return;
    }
    CFileLogger* pFileLogger = GetFileLogger();
    if (pFileLogger != nullptr && pFileLogger->LogError(pcText))
        return;
    PrintText("[erro] (%s) %s\n", pcID, pcText);
}

void CUtilities::LogRaw(const char* pcID, char* pcText)
{
    {
        const CHostCall host(this);
        if (host.IsThere() && host->LogRaw(pcID, pcText))
            return;
    }
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
    const CHostCall host(this);
    if (!host.IsThere())
        return -1;
    return host->UpdateRedirectedFileAttributes(pcID, pcPath, bSize, iSize, bAccessTime,
                                                iAccessTimeSec, bLastModifiedTime,
                                                iLastModifiedTimeSec);
}

int CUtilities::LogRemoveRedirectedFile(const char* pcID, const char* pcPath)
{
    const CHostCall host(this);
    return !host.IsThere() ? -1 : host->RemoveRedirectedFile(pcID, pcPath);
}

int CUtilities::LogRenameRedirectedFile(const char* pcID, const char* pcPathFrom,
                                        const char* pcPathTo)
{
    const CHostCall host(this);
    return !host.IsThere() ? -1 : host->RenameRedirectedFile(pcID, pcPathFrom, pcPathTo);
}

int CUtilities::LogWriteRedirectedFile(const char* pcID, const char* pcPath,
                                       unsigned long long iSeek, int iSeekType,
                                       unsigned int iLength)
{
    const CHostCall host(this);
    if (!host.IsThere())
        return -1;
    return host->WriteRedirectedFile(pcID, pcPath, iSeek, iSeekType, iLength);
}

void CUtilities::GetLastErrorText(char* pcTarget, int iError)
{
    char cText[256];
    if (Platform::GetErrorText(iError, cText, sizeof(cText)))
        snprintf(pcTarget, REASON_SIZE, "%s (%d)", cText, iError);
}
