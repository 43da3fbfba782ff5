// The console: runs a server without a host application.
#pragma once

#include <string>
#include <vector>

class CNfsMain;

// Parses the command line, makes the controller and runs a loop of line commands until the user
// quits or a shutdown is requested. Standard output is the only thing it writes to, and each piece
// is flushed at once.
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
        std::string sID = "cRun";
        int iLogControl = 0;   // LogControl bits
        int iAccessMode = -1;  // AccessMode; -1 until it is chosen
    };

    // What the loop of line commands remembers.
    struct Loop {
        bool bExtended = false;    // the "debug" command was given
        bool bEndOfInput = false;  // no more commands will come; the server keeps running
        bool bQuit = false;
    };

    bool ParseArguments(const std::vector<std::string>& vWords, Settings* pSettings);
    int RunController(CNfsMain* pMain);
    void PrintVersion(CNfsMain* pMain);

    void RunCommands(CNfsMain* pMain);
    bool IsKeyboardHit(Loop* pLoop);
    void MsSleep(int iMilliseconds);

    // Both execute one line. True if a prompt is due behind it.
    bool ProcessCommand(CNfsMain* pMain, const std::string& sLine, Loop* pLoop);
    bool ProcessUnknownCommand(const std::string& sLine);

    bool Start(CNfsMain* pMain, const std::string& sValue);
    bool Mount(CNfsMain* pMain, const std::string& sValue);
    void PrintCommandHelp(const Loop& loop);
    void PrintPrompt();
    void PrintStatus(CNfsMain* pMain);
};
