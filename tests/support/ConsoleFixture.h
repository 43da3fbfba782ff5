// The console program as tests talk to it; they name it in CONSOLE_PROGRAM.
#pragma once

#include <csignal>
#include <fstream>
#include <ostream>
#include <sched.h>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "TestEnvironment.h"
#include "WireClient.h"

using Words = std::vector<std::string>;

constexpr char PROMPT[] = "\nCommand: ";
constexpr char RULER[] = "------------------------------------\n";
constexpr char HELP_HINT[] = "Type 'help' to see help\n";
constexpr char INTERNAL_SERVER[] = "Internal NFS Server";
constexpr char EXTERNAL_SERVER[] = "External NFS Server";
constexpr char SERVER_CHANNEL[] = "/tmp/nfs-server";

// What every run prints first.
inline std::string VersionBlock(const std::string& sDescription, const std::string& sVersion)
{
    return std::string(RULER) + "Execute Version: 1.2\n" + "Server Version: " + sVersion + "\n" +
           "Server Description: " + sDescription + "\n" + RULER;
}

inline const std::string VERSION_BLOCK = VersionBlock(INTERNAL_SERVER, "1.2");
inline const std::string SERVER_VERSION_BLOCK = VersionBlock(EXTERNAL_SERVER, "1.2");
inline const std::string UNKNOWN_VERSION_BLOCK = VersionBlock("Unknown", "Unknown");
inline const std::string GREETING = VERSION_BLOCK + HELP_HINT;
inline const std::string SERVER_GREETING = SERVER_VERSION_BLOCK + HELP_HINT;

inline Words Command(const Words& vArguments)
{
    Words vCommand = {CONSOLE_PROGRAM};
    vCommand.insert(vCommand.end(), vArguments.begin(), vArguments.end());
    return vCommand;
}

// The value of a line of the process's status; empty if there is no such process any more.
inline std::string ProcessStatus(pid_t iPid, const std::string& sName)
{
    std::ifstream status("/proc/" + std::to_string(iPid) + "/status");
    std::string sLine;
    while (std::getline(status, sLine)) {
        if (sLine.starts_with("State:") && sLine.find('Z') != std::string::npos)
            break;
        if (sLine.starts_with(sName + ":\t"))
            return sLine.substr(sName.length() + 2);
    }
    return "";
}

// Waits until the program has looked for input some times and gone to rest again: resting is the
// only thing that its first thread does when idle.
inline void WaitForRounds(pid_t iPid, int iRounds = 5)
{
    const std::string sName = "voluntary_ctxt_switches";
    std::string sNow = ProcessStatus(iPid, sName);
    const long iEnd = sNow.empty() ? 0 : std::stol(sNow) + iRounds;
    while (!sNow.empty() && std::stol(sNow) < iEnd) {
        sched_yield();
        sNow = ProcessStatus(iPid, sName);
    }
    EXPECT_NE(sNow, "") << "The program has ended";
}

#if defined(__SANITIZE_THREAD__)
#define STAGENFS_THREAD_SANITIZED
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define STAGENFS_THREAD_SANITIZED
#endif
#endif

#ifdef STAGENFS_THREAD_SANITIZED
constexpr bool IS_THREAD_SANITIZED = true;
#else
constexpr bool IS_THREAD_SANITIZED = false;
#endif

// Before a first signal is sent: one that meets a program at its very first wait is lost if the
// thread sanitizer watches it.
inline void WaitForFirstRest(pid_t iPid)
{
    if (IS_THREAD_SANITIZED)
        WaitForRounds(iPid, 2);
}

// The console over pipes, at its first prompt.
class CConsole : public CChildProcess {
public:
    explicit CConsole(const Words& vArguments = {"-md", "int"}) : CChildProcess(Command(vArguments))
    {
        m_sGreeting = ReadToPrompt();
    }

    // What it wrote before the first prompt.
    const std::string& Greeting() const { return m_sGreeting; }

    // Everything up to the next prompt, which is left out.
    std::string ReadToPrompt()
    {
        std::string sText = ReadUntil(PROMPT);
        if (sText.ends_with(PROMPT))
            sText.resize(sText.size() - (sizeof(PROMPT) - 1));
        return sText;
    }

    // Enters a line and yields what stands between it and the next prompt.
    std::string Type(const std::string& sLine)
    {
        Write(sLine + "\n");
        return ReadToPrompt();
    }

    // Enters all lines in one go, so that the program need not rest in between; each leaves a
    // prompt to be read.
    void Enter(const Words& vLines)
    {
        std::string sText;
        for (const std::string& sLine : vLines)
            sText += sLine + "\n";
        Write(sText);
    }

    // It ends well, and sOutput is all that it still has to say.
    void ExpectEnd(const std::string& sOutput = "\nExit")
    {
        EXPECT_EQ(ReadToEnd(), sOutput);
        EXPECT_EQ(WaitForExit(), 0);
    }

    void ExpectQuit()
    {
        Write("quit\n");
        ExpectEnd();
    }

    void Signal(int iSignal)
    {
        WaitForFirstRest(Pid());
        CChildProcess::Signal(iSignal);
    }

    void WaitForRounds() { ::WaitForRounds(Pid()); }

private:
    std::string m_sGreeting;
};

// What the program prints, and ends with, without a word from us.
struct Outcome {
    int iStatus;
    std::string sOutput;
    bool operator==(const Outcome&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Outcome& outcome)
{
    return out << outcome.iStatus << ": " << outcome.sOutput;
}

inline Outcome RunCommand(const Words& vCommand)
{
    CChildProcess console(vCommand);
    const std::string sOutput = console.ReadToEnd();
    return {console.WaitForExit(), sOutput};
}

inline Outcome RunWith(const Words& vArguments)
{
    return RunCommand(Command(vArguments));
}

inline std::string Unknown(const std::string& sLine)
{
    return "Unknown command: '" + sLine + "'\n" + HELP_HINT;
}

// The status with so many exports and datastores; vMounts and vDatastores are their lines.
inline std::string StatusBlock(bool bStarted, size_t iMounts = 0, const std::string& sMounts = "",
                               size_t iDatastores = 0, const std::string& sDatastores = "")
{
    return std::string("Server Status: ") + (bStarted ? "Started" : "Stopped") + "\n" + RULER +
           "Number of Mount Point: " + std::to_string(iMounts) + "\n" + sMounts + RULER +
           "Number of Session: 0\n" + RULER +
           "Number of mounted NFS datastore: " + std::to_string(iDatastores) + "\n" + sDatastores +
           RULER;
}

// What the command prints, with the exports listed.
inline std::string Status(bool bStarted, const Words& vMounts = {})
{
    std::string sMounts;
    for (size_t i = 0; i < vMounts.size(); i++)
        sMounts += " mount" + std::to_string(i + 1) + " - " + vMounts[i] + "\n";
    return "\n" + StatusBlock(bStarted, vMounts.size(), sMounts);
}

inline RpcCall NullCall(uint32_t iProg)
{
    RpcCall call;
    call.iProg = iProg;
    call.iVers = 3;
    return call;
}

inline bool IsServed(uint32_t iProg, int iPort)
{
    return CallOnce(iPort, NullCall(iProg)).IsSuccess(1);
}

inline CReply Mount(const char* pcName)
{
    RpcCall call = NullCall(WIRE_MOUNT_PROG);
    call.iProc = 1;
    call.sArguments = CXdr().String(pcName).Bytes();
    return CallOnce(WIRE_MOUNT_PORT, call);
}

inline uint32_t MountStatus(const char* pcName)
{
    return Mount(pcName).Word();
}
