// A log recorder that a test can wait on: what a server writes is often the only sign that it has
// dealt with bytes which it does not answer.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "LogRecorder.h"

// Locking: safe from any thread.
class CLogWaiter : public CLogRecorder {
public:
    bool LogInfo(const char* pcID, const char* pcMessage) override
    {
        return Announce(CLogRecorder::LogInfo(pcID, pcMessage));
    }
    bool LogError(const char* pcID, const char* pcMessage) override
    {
        return Announce(CLogRecorder::LogError(pcID, pcMessage));
    }
    bool LogRaw(const char* pcID, const char* pcMessage) override
    {
        return Announce(CLogRecorder::LogRaw(pcID, pcMessage));
    }

    // Waits until iCount lines have sText in them; false if they do not come.
    bool WaitFor(const std::string& sText, size_t iCount = 1)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_Changed.wait_for(lock, std::chrono::seconds(20),
                                  [this, &sText, iCount] { return Count(sText) >= iCount; });
    }

private:
    bool Announce(bool bTaken)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_Changed.notify_all();
        return bTaken;
    }

    std::mutex m_mutex;
    std::condition_variable m_Changed;
};
