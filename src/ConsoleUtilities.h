// The console: runs a server without a host application, or talks to one that runs.
#pragma once

#include <memory>
#include <string>
#include <vector>

class CFileLogger;
class CNfsMain;

// Parses the command line, makes the controller, and then does one thing (shut a running server
// process down, ask how it is, run the self-test) or runs a loop of line commands until the user
// quits, a signal comes in or a shutdown is requested. Apart from log and pid file, standard output
// is the only thing it writes to, and each piece is flushed at once.
// Locking: one thread.
class CConsoleUtilities {
public:
    CConsoleUtilities() = default;
    virtual ~CConsoleUtilities() = default;
    CConsoleUtilities(const CConsoleUtilities&) = delete;
    CConsoleUtilities& operator=(const CConsoleUtilities&) = delete;

    // pcArguments holds the words of the command line, each followed by a newline. The result is
    // the process's exit status: 0, or 1 with the reason on standard output.
    int Run(const char* pcProgram, const char* pcArguments);

private:
    struct Settings {
        std::string sID;
        bool bHasID = false;   // one was given, be it the empty one
        int iLogControl = 0;   // LogControl bits
        int iAccessMode = -1;  // AccessMode; -1 until it is chosen
        std::string sLogFile;
        std::string sPidFile;
        bool bShutdown = false;
        bool bQuery = false;
        bool bTest = false;
        std::string sTestPath;
        long long iTestSize = 0;  // bytes
    };

    enum ParseResult {
        PARSE_OK,
        PARSE_HELP,  // the usage was asked for
        PARSE_FAILED,
    };

    // What the loop of line commands remembers.
    struct Loop {
        CNfsMain* pMain = nullptr;           // not owned
        CFileLogger* pFileLogger = nullptr;  // not owned; null without a log file
        bool bExtended = false;              // the "debug" command was given
        bool bEndOfInput = false;            // no more commands; the server keeps running
        bool bQuit = false;
        std::string sPushedBack;  // the key that was hit, which the line begins with
    };

    ParseResult ParseArguments(const std::vector<std::string>& vWords, Settings* pSettings);
    bool ParseMode(const std::string& sOption, const std::string& sValue, Settings* pSettings);
    bool ParseTest(const std::string& sValue, Settings* pSettings);
    void CompleteSettings(Settings* pSettings);
    void PrintUsage(const char* pcProgram);

    int RunMode(const Settings& settings);
    std::unique_ptr<CNfsMain> CreateController(const Settings& settings);
    std::unique_ptr<CFileLogger> CreateFileLogger(const Settings& settings, CNfsMain* pMain);
    bool RunController(const Settings& settings, CNfsMain* pMain, CFileLogger* pFileLogger,
                       char* pcReason);
    void PrintVersion(const char* pcVersion, const char* pcDescription);

    // An empty path means no pid file. False, with the reason, if a living process has it.
    bool CreatePidFile(const char* pcPath, int iLogControl, char* pcReason);
    void RemovePidFile(const char* pcPath, int iLogControl);

    void RunCommands(CNfsMain* pMain, CFileLogger* pFileLogger);
    bool IsStopRequested(const Loop& loop);
    bool IsKeyboardHit(Loop* pLoop);
    bool ReadLine(Loop* pLoop, std::string* psLine);
    void MsSleep(int iMilliseconds);

    // Each executes one line, or one command's value. True if a prompt is due behind it.
    bool ProcessCommand(const std::string& sLine, Loop* pLoop);
    bool ProcessExtendedCommand(const std::string& sLine, const Loop& loop);
    bool ProcessUnknownCommand(const std::string& sLine);
    bool Start(CNfsMain* pMain, const std::string& sValue);
    bool Mount(CNfsMain* pMain, const std::string& sValue);
    bool Test(CNfsMain* pMain, const std::string& sValue);
    bool SetLogFileSize(const Loop& loop, const std::string& sValue);
    bool Print(CNfsMain* pMain, const std::string& sValue);
    bool SetDebugAction(CNfsMain* pMain, const std::string& sValue);
    bool AddVSphereInfo(CNfsMain* pMain, const std::string& sValue);

    void PrintCommandHelp(const Loop& loop);
    void PrintPrompt();
    void PrintStatus(CNfsMain* pMain);
};
