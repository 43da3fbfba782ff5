// A host that remembers what it was told.
#pragma once

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "Host.h"

// Collects every line as "info|ID|text", "error|ID|text" or "raw|ID|text", and every notification
// likewise as "update|ID|...", "remove|ID|...", "rename|ID|..." or "write|ID|...", its arguments in
// their order with bars between them. Install it with CUtilities::SetCallback.
// Locking: safe from any thread; the results may be changed at any time.
class CLogRecorder : public IHost {
public:
    // What the operations answer from here on.
    void SetTakesLines(bool bTakesLines) { m_bTakesLines = bTakesLines; }
    void SetUpdateResult(int iResult) { m_iUpdateResult = iResult; }
    void SetRemoveResult(int iResult) { m_iRemoveResult = iResult; }
    void SetRenameResult(int iResult) { m_iRenameResult = iResult; }
    void SetWriteResult(int iResult) { m_iWriteResult = iResult; }

    // Log lines, and notifications, in the order of their arrival.
    std::vector<std::string> Lines() const { return Copy(m_vLines); }
    std::vector<std::string> Notifications() const { return Copy(m_vNotifications); }

    // True if any line has sText in it.
    bool Contains(const std::string& sText) const { return Count(sText) > 0; }

    // The number of lines that have sText in them.
    size_t Count(const std::string& sText) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<size_t>(
            std::count_if(m_vLines.begin(), m_vLines.end(), [&sText](const std::string& sLine) {
                return sLine.find(sText) != std::string::npos;
            }));
    }

    // Forgets lines and notifications.
    void Clear()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_vLines.clear();
        m_vNotifications.clear();
    }

    bool LogInfo(const char* pcID, const char* pcMessage) override
    {
        return AddLine("info", pcID, pcMessage);
    }
    bool LogError(const char* pcID, const char* pcMessage) override
    {
        return AddLine("error", pcID, pcMessage);
    }
    bool LogRaw(const char* pcID, const char* pcMessage) override
    {
        return AddLine("raw", pcID, pcMessage);
    }

    int UpdateRedirectedFileAttributes(const char* pcID, const char* pcPath, bool bSize,
                                       unsigned long long iSize, bool bAccessTime,
                                       unsigned long iAccessTimeSec, bool bLastModifiedTime,
                                       unsigned long iLastModifiedTimeSec) override
    {
        AddNotification({"update", pcID, pcPath, std::to_string(bSize), std::to_string(iSize),
                         std::to_string(bAccessTime), std::to_string(iAccessTimeSec),
                         std::to_string(bLastModifiedTime), std::to_string(iLastModifiedTimeSec)});
        return m_iUpdateResult;
    }
    int RemoveRedirectedFile(const char* pcID, const char* pcPath) override
    {
        AddNotification({"remove", pcID, pcPath});
        return m_iRemoveResult;
    }
    int RenameRedirectedFile(const char* pcID, const char* pcPathFrom,
                             const char* pcPathTo) override
    {
        AddNotification({"rename", pcID, pcPathFrom, pcPathTo});
        return m_iRenameResult;
    }
    int WriteRedirectedFile(const char* pcID, const char* pcPath, unsigned long long iSeek,
                            int iSeekType, unsigned int iLength) override
    {
        AddNotification({"write", pcID, pcPath, std::to_string(iSeek), std::to_string(iSeekType),
                         std::to_string(iLength)});
        return m_iWriteResult;
    }

private:
    std::vector<std::string> Copy(const std::vector<std::string>& vTexts) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return vTexts;
    }

    // A line that is refused is not remembered: it goes elsewhere.
    bool AddLine(const char* pcKind, const char* pcID, const char* pcMessage)
    {
        if (!m_bTakesLines)
            return false;
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_vLines.push_back(std::string(pcKind) + "|" + pcID + "|" + pcMessage);
        return true;
    }

    void AddNotification(const std::vector<std::string>& vParts)
    {
        std::string sNotification;
        for (const std::string& sPart : vParts)
            sNotification += (sNotification.empty() ? "" : "|") + sPart;
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_vNotifications.push_back(sNotification);
    }

    mutable std::mutex m_mutex;
    std::vector<std::string> m_vLines;
    std::vector<std::string> m_vNotifications;

    std::atomic<bool> m_bTakesLines = true;
    std::atomic<int> m_iUpdateResult = 0;
    std::atomic<int> m_iRemoveResult = 0;
    std::atomic<int> m_iRenameResult = 0;
    std::atomic<int> m_iWriteResult = 0;
};
