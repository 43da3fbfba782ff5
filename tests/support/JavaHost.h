// A host application in a Java virtual machine of its own, driven by a test.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Sanitizers.h"

// Starts the driver in tests/java/Driver.java, whose commands stand in tests/java/Interpreter.java,
// in the test program's own namespaces, and ends it with the object. That the virtual machine finds
// fault with how the library uses it, or does not end in good order, is a failure.
// Locking: safe from any thread, as long as each of the driver's threads is used by one.
class CJavaHost {
public:
    using Lines = std::vector<std::string>;

    // Further options for the virtual machine.
    explicit CJavaHost(const Lines& vOptions = {})
        : m_Process(MakeCommand(vOptions)), m_Reader([this] { ReadAll(); })
    {
    }

    ~CJavaHost()
    {
        if (!m_bKilled)
            Exit();
        m_Reader.join();
        ExpectNoComplaint();
    }
    CJavaHost(const CJavaHost&) = delete;
    CJavaHost& operator=(const CJavaHost&) = delete;

    pid_t Pid() const { return m_Process.Pid(); }

    // Runs a command on the driver's main thread and waits for its end. What it yields, or
    // "! CLASS: MESSAGE" for what it throws; a method without a result yields "void". Whatever is
    // no printable ASCII comes as \uXXXX for each of its 16-bit units.
    std::string Call(const std::string& sCommand) { return CallOn("main", sCommand); }

    // The same on the thread of that name, which is made when its name is first met.
    std::string CallOn(const std::string& sThread, const std::string& sCommand)
    {
        Begin(sThread, sCommand);
        return End(sThread);
    }

    // The same in two halves: gives the command to the thread, and waits for the end of the oldest
    // command of that thread that nobody has waited for.
    void Begin(const std::string& sThread, const std::string& sCommand)
    {
        m_Process.Write("@" + sThread + " " + sCommand + "\n");
    }
    std::string End(const std::string& sThread)
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        Lines& vResults = m_Results[sThread];
        const bool bDone = m_Changed.wait_for(
            lock, TIMEOUT, [this, &vResults] { return !vResults.empty() || m_bEnded; });
        if (!bDone || vResults.empty()) {
            ADD_FAILURE() << "Thread " << sThread << " of the driver does not answer:\n" << Dump();
            return "(no answer)";
        }
        const std::string sResult = vResults.front();
        vResults.erase(vResults.begin());
        return sResult;
    }

    // A text as a command takes it, in quotes.
    static std::string Quote(const std::string& sText)
    {
        std::string sQuoted = "\"";
        for (const char c : sText) {
            if (c == '"' || c == '\\')
                sQuoted += '\\';
            sQuoted += c == '\n' ? std::string("\\n") : std::string(1, c);
        }
        return sQuoted + "\"";
    }

    // Waits until iCount lines since the last Clear that are no results have sText in them; false
    // if they do not come.
    bool WaitFor(const std::string& sText, size_t iCount = 1)
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(
            lock, TIMEOUT, [this, &sText, iCount] { return CountHavingLocked(sText) >= iCount; });
    }
    size_t CountHaving(const std::string& sText)
    {
        Settle();
        const std::lock_guard<std::mutex> lock(m_Mutex);
        return CountHavingLocked(sText);
    }

    // The lines since the last Clear that begin so: "@ METHOD|HOST|THREAD|ARGUMENT|..." for a call
    // by the library, "> THREAD|RESULT" for a command that ran inside one; others are the virtual
    // machine's own. The thread is "native" where it is none of the driver's.
    Lines Printed(const std::string& sStart = "")
    {
        Settle();
        const std::lock_guard<std::mutex> lock(m_Mutex);
        Lines vLines;
        for (const std::string& sLine : m_vLines)
            if (sLine.starts_with(sStart))
                vLines.push_back(sLine);
        return vLines;
    }
    void Clear()
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_vLines.clear();
    }

    // The global references that the virtual machine keeps, after a collection. It is to be quiet
    // meanwhile.
    long CountGlobalReferences()
    {
        Call("heap");
        const std::string sLast = "  class space ";  // begins the last line of what it prints
        const std::string sStart = "JNI global refs: ";
        const size_t iBefore = CountHaving(sLast);
        m_Process.Signal(SIGQUIT);
        EXPECT_TRUE(WaitFor(sLast, iBefore + 1));
        const Lines vFound = Printed(sStart);
        return vFound.empty() ? -1 : atol(vFound.back().substr(sStart.size()).c_str());
    }

    // A value of /proc/PID/status; memory is in KiB.
    long GetStatus(const std::string& sName) const
    {
        std::ifstream file("/proc/" + std::to_string(Pid()) + "/status");
        std::string sLine;
        while (getline(file, sLine))
            if (sLine.starts_with(sName + ":"))
                return atol(sLine.substr(sName.size() + 1).c_str());
        ADD_FAILURE() << "No " << sName;
        return -1;
    }
    long GetResidentMemory() const { return GetStatus("VmRSS"); }
    long CountNativeThreads() const { return GetStatus("Threads"); }

    // The process is gone in the middle of what it does.
    void Kill()
    {
        m_bKilled = true;
        m_Process.Signal(SIGKILL);
        EXPECT_EQ(m_Process.WaitForExit(), -SIGKILL);
    }

    // Ends the driver in good order, whatever its threads do.
    void Exit()
    {
        m_bKilled = true;
        m_Process.CloseInput();
        {
            std::unique_lock<std::mutex> lock(m_Mutex);
            if (!m_Changed.wait_for(lock, TIMEOUT, [this] { return m_bEnded; })) {
                ADD_FAILURE() << "The virtual machine does not end:\n" << Dump();
                m_Process.Signal(SIGKILL);
            }
        }
        EXPECT_EQ(m_Process.WaitForExit(), 0);
    }

private:
    static constexpr std::chrono::seconds TIMEOUT{IS_SANITIZED ? 120 : 40};

    static Lines MakeCommand(const Lines& vOptions)
    {
        Lines vCommand = {"/usr/bin/env"};
        const std::string sPreload = JAVA_PRELOAD;  // empty where nothing is needed
        if (!sPreload.empty()) {
            vCommand.push_back("LD_PRELOAD=" + sPreload);
            // The virtual machine uses the signal itself, and keeps memory for ever.
            vCommand.push_back("ASAN_OPTIONS=handle_segv=0:detect_leaks=0");
        }
        vCommand.insert(vCommand.end(),
                        {JAVA_PROGRAM, "-Xcheck:jni", "-Xmx64m", "-Xss512k", "-XX:+UseSerialGC",
                         "-XX:TieredStopAtLevel=1", "-XX:-UsePerfData", "-XX:+ErrorFileToStderr",
                         "-Djava.library.path=" JAVA_LIBRARY_DIR, "-cp", JAVA_CLASSES});
        vCommand.insert(vCommand.end(), vOptions.begin(), vOptions.end());
        vCommand.push_back("Driver");
        return vCommand;
    }

    // All that was printed before has been read after this.
    void Settle()
    {
        if (!m_bKilled)
            CallOn("settle", "echo null");
    }

    void ReadAll()
    {
        std::string sLine;
        while (m_Process.ReadLine(&sLine)) {
            const std::lock_guard<std::mutex> lock(m_Mutex);
            Sort(sLine);
            m_Changed.notify_all();
        }
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_bEnded = true;
        m_Changed.notify_all();
    }

    void Sort(const std::string& sLine)
    {
        const size_t iBar = sLine.find('|');
        const bool bResult = sLine.starts_with("= ");
        if ((!bResult && !sLine.starts_with("! ")) || iBar == std::string::npos) {
            m_vLines.push_back(sLine);
            m_vComplaints.insert(m_vComplaints.end(), IsComplaint(sLine) ? 1 : 0, sLine);
            return;
        }
        const std::string sText = sLine.substr(iBar + 1);
        m_Results[sLine.substr(2, iBar - 2)].push_back(bResult ? sText : "! " + sText);
    }

    static bool IsComplaint(const std::string& sLine)
    {
        for (const char* pcText :
             {"WARNING in native method", "FATAL ERROR in native method", "WARNING: JNI local refs",
              "Exception in thread", "the input cannot be read"})
            if (sLine.find(pcText) != std::string::npos)
                return !sLine.starts_with("@ ");
        return false;
    }

    void ExpectNoComplaint()
    {
        EXPECT_EQ(m_vComplaints, Lines());
        if (!m_vComplaints.empty())
            ADD_FAILURE() << Dump();
    }

    size_t CountHavingLocked(const std::string& sText) const
    {
        return static_cast<size_t>(
            std::count_if(m_vLines.begin(), m_vLines.end(), [&sText](const std::string& sLine) {
                return sLine.find(sText) != std::string::npos;
            }));
    }

    // The last lines.
    std::string Dump() const
    {
        constexpr size_t MOST = 200;
        std::string sText;
        for (size_t i = m_vLines.size() < MOST ? 0 : m_vLines.size() - MOST; i < m_vLines.size();
             i++)
            sText += m_vLines[i] + "\n";
        return sText;
    }

    CChildProcess m_Process;
    std::mutex m_Mutex;  // guards all below but the thread
    std::condition_variable m_Changed;
    std::map<std::string, Lines> m_Results;  // by thread, oldest first
    Lines m_vLines;                          // all others
    Lines m_vComplaints;
    bool m_bEnded = false;
    bool m_bKilled = false;  // or ended; only for the test's thread
    std::thread m_Reader;
};
