// The loop of line commands.
#include <cerrno>
#include <cstdlib>
#include <poll.h>
#include <unistd.h>
#include <utility>

#include "ConsoleUtilities.h"
#include "FileLogger.h"
#include "NfsMain.h"
#include "Pause.h"
#include "RawInput.h"
#include "StopSignal.h"
#include "Text.h"
#include "Utilities.h"

namespace {

constexpr int POLL_PAUSE = 100;  // milliseconds between two looks at the keyboard

// Keywords; one that takes a value ends in a blank.
constexpr char COMMAND_HELP[] = "help";
constexpr char COMMAND_QUIT[] = "quit";
constexpr char COMMAND_LOG[] = "log ";
constexpr char COMMAND_STATUS[] = "status";
constexpr char COMMAND_DEBUG[] = "debug";
constexpr char COMMAND_START[] = "start";
constexpr char COMMAND_START_VALUE[] = "start ";
constexpr char COMMAND_MOUNT[] = "mount ";
constexpr char COMMAND_UMOUNT[] = "umount ";
constexpr char COMMAND_TEST[] = "test ";
constexpr char COMMAND_LOG_FILE_SIZE[] = "logfilesize ";
constexpr char COMMAND_PRINT[] = "print ";
constexpr char COMMAND_DEBUG_ACTION[] = "debugaction ";
constexpr char COMMAND_ADD_VSPHERE[] = "addvsphereinfo ";
constexpr char COMMAND_REMOVE_VSPHERE[] = "removevsphereinfo ";

constexpr char HELP_FRAME[] = "==========================\n";

long long GetNumber(const std::string& sText)
{
    return strtoll(sText.c_str(), nullptr, 10);
}

// True, with what follows the keyword, if the line is the keyword and more.
bool TakesValue(const std::string& sLine, const char* pcKeyword, std::string* psValue)
{
    const std::string sKeyword = pcKeyword;
    if (sLine.length() <= sKeyword.length() || !sLine.starts_with(sKeyword))
        return false;
    *psValue = sLine.substr(sKeyword.length());
    return true;
}

bool IsInputReady(int iTimeout)
{
    struct pollfd input = {STDIN_FILENO, POLLIN, 0};
    return poll(&input, 1, iTimeout) == 1;
}

enum KeyResult {
    KEY_READ,
    KEY_NONE,  // "end of input" was typed; more can follow all the same
    KEY_END,   // nothing will ever follow
};

// Byte by byte and past the buffers of the C library, so that poll knows of all that is not read.
KeyResult ReadKey(char* pcKey)
{
    ssize_t iRead = -1;
    do {
        iRead = read(STDIN_FILENO, pcKey, 1);
    } while (iRead == -1 && errno == EINTR);
    if (iRead == 1)
        return KEY_READ;
    if (iRead == -1)
        return errno == EAGAIN ? KEY_NONE : KEY_END;
    struct pollfd input = {STDIN_FILENO, 0, 0};
    const bool bGone = poll(&input, 1, 0) == 1 && (input.revents & (POLLHUP | POLLERR)) != 0;
    return isatty(STDIN_FILENO) == 1 && !bGone ? KEY_NONE : KEY_END;
}

}  // namespace

void CConsoleUtilities::RunCommands(CNfsMain* pMain, CFileLogger* pFileLogger)
{
    Loop loop;
    loop.pMain = pMain;
    loop.pFileLogger = pFileLogger;
    PrintText("Type '%s' to see help\n", COMMAND_HELP);
    PrintPrompt();
    std::string sLine;
    while (!loop.bQuit) {
        if (IsStopRequested(loop)) {
            PrintText(pMain->IsAutoShutdownRequested() ? "\nExit by request" : "\nExit");
            return;
        }
        if (!IsKeyboardHit(&loop))
            MsSleep(POLL_PAUSE);
        else if (ReadLine(&loop, &sLine) && ProcessCommand(sLine, &loop))
            PrintPrompt();
    }
}

bool CConsoleUtilities::IsStopRequested(const Loop& loop)
{
    return loop.pMain->IsAutoShutdownRequested() || CStopSignal::IsRequested();
}

// True if something was typed. It is pushed back, so that the line begins with it.
bool CConsoleUtilities::IsKeyboardHit(Loop* pLoop)
{
    if (pLoop->bEndOfInput)
        return false;
    const CRawInput raw;
    // Asked for rather than read without blocking: on a terminal that mode would hold for standard
    // output too, and lines that other threads print meanwhile would be lost.
    if (!raw.IsOurs() || !IsInputReady(0))
        return false;
    char cKey = '\0';
    const KeyResult result = ReadKey(&cKey);
    pLoop->bEndOfInput = result == KEY_END;
    if (result != KEY_READ || (raw.IsTerminal() && raw.IsEndKey(cKey)))
        return false;
    pLoop->sPushedBack = cKey;
    return true;
}

// Reads up to the end of the line or of the input; what exceeds a path's size is dropped. False if
// the line does not come to its end before the loop does.
bool CConsoleUtilities::ReadLine(Loop* pLoop, std::string* psLine)
{
    *psLine = std::exchange(pLoop->sPushedBack, {});
    if (*psLine == "\n") {
        psLine->clear();
        return true;
    }
    for (;;) {
        while (!IsInputReady(POLL_PAUSE)) {
            if (IsStopRequested(*pLoop))
                return false;
        }
        char cKey = '\0';
        const KeyResult result = ReadKey(&cKey);
        pLoop->bEndOfInput = result == KEY_END;
        if (result == KEY_END || (result == KEY_READ && cKey == '\n'))
            return true;
        if (result == KEY_READ && psLine->length() + 1 < PATH_SIZE)
            psLine->push_back(cKey);
    }
}

void CConsoleUtilities::MsSleep(int iMilliseconds)
{
    Pause(iMilliseconds);
}

bool CConsoleUtilities::ProcessCommand(const std::string& sLine, Loop* pLoop)
{
    std::string sValue;
    if (sLine.empty())
        return true;
    if (sLine == COMMAND_HELP) {
        PrintCommandHelp(*pLoop);
        return true;
    }
    if (sLine == COMMAND_QUIT) {
        PrintText("\nExit");
        pLoop->bQuit = true;
        return false;
    }
    if (TakesValue(sLine, COMMAND_LOG, &sValue)) {
        pLoop->pMain->SetLogControl(static_cast<int>(GetNumber(sValue)));
        return true;
    }
    if (sLine == COMMAND_STATUS) {
        PrintText("\n");
        PrintStatus(pLoop->pMain);
        return true;
    }
    if (sLine == COMMAND_DEBUG) {
        pLoop->bExtended = true;
        return true;
    }
    return pLoop->bExtended ? ProcessExtendedCommand(sLine, *pLoop) : ProcessUnknownCommand(sLine);
}

bool CConsoleUtilities::ProcessExtendedCommand(const std::string& sLine, const Loop& loop)
{
    CNfsMain* pMain = loop.pMain;
    std::string sValue;
    if (sLine == COMMAND_START || TakesValue(sLine, COMMAND_START_VALUE, &sValue))
        return Start(pMain, sValue);
    if (TakesValue(sLine, COMMAND_MOUNT, &sValue))
        return Mount(pMain, sValue);
    if (TakesValue(sLine, COMMAND_UMOUNT, &sValue)) {
        pMain->RemoveMountPoint(sValue.c_str());
        return true;
    }
    if (TakesValue(sLine, COMMAND_TEST, &sValue))
        return Test(pMain, sValue);
    if (TakesValue(sLine, COMMAND_LOG_FILE_SIZE, &sValue))
        return SetLogFileSize(loop, sValue);
    if (TakesValue(sLine, COMMAND_PRINT, &sValue))
        return Print(pMain, sValue);
    if (TakesValue(sLine, COMMAND_DEBUG_ACTION, &sValue))
        return SetDebugAction(pMain, sValue);
    if (TakesValue(sLine, COMMAND_ADD_VSPHERE, &sValue))
        return AddVSphereInfo(pMain, sValue);
    if (TakesValue(sLine, COMMAND_REMOVE_VSPHERE, &sValue)) {
        pMain->RemoveVSphereInfo(sValue.c_str());
        return true;
    }
    return ProcessUnknownCommand(sLine);
}

bool CConsoleUtilities::ProcessUnknownCommand(const std::string& sLine)
{
    PrintText("Unknown command: '%s'\n", sLine.c_str());
    PrintText("Type '%s' to see help\n", COMMAND_HELP);
    return true;
}

bool CConsoleUtilities::Start(CNfsMain* pMain, const std::string& sValue)
{
    int iMountPort = 0;  // the controller's defaults
    int iNfsPort = 0;
    if (!sValue.empty()) {
        const std::vector<std::string> vPorts = SplitIntoVector(sValue.c_str(), '=');
        if (vPorts.size() != 2) {
            PrintText("Fail to start NFS. Reason=In-valid input value: %s\n", sValue.c_str());
            return false;  // kept: no prompt behind this one
        }
        iMountPort = static_cast<int>(GetNumber(vPorts[0]));
        iNfsPort = static_cast<int>(GetNumber(vPorts[1]));
    }
    char cReason[REASON_SIZE] = "";
    if (pMain->IsServerRunning())
        PrintText("NFS already running");
    else if (pMain->StartServer(iMountPort, iNfsPort, 0, 0, false, cReason))
        PrintText("Start NFS success");
    else
        PrintText("Fail to start NFS. %s\n", cReason);
    return true;
}

bool CConsoleUtilities::Mount(CNfsMain* pMain, const std::string& sValue)
{
    const std::vector<std::string> vParts = SplitIntoVector(sValue.c_str(), '=');
    char cReason[REASON_SIZE] = "";
    // No path is a bad value too: it would publish everything.
    if (vParts.size() != 2 || vParts[0].empty())
        PrintText("Fail to add mount point to NFS. Reason=In-valid input value: %s\n",
                  sValue.c_str());
    else if (!pMain->AddMountPoint(vParts[0].c_str(), vParts[1].c_str(), cReason))
        PrintText("Fail to add mount point to NFS. Reason=%s\n", cReason);
    return true;
}

bool CConsoleUtilities::Test(CNfsMain* pMain, const std::string& sValue)
{
    const std::vector<std::string> vParts = SplitIntoVector(sValue.c_str(), '=');
    if (vParts.size() != 2) {
        PrintText("Fail to run test. Reason=In-valid input value: %s\n", sValue.c_str());
        return false;  // kept: no prompt behind this one
    }
    pMain->RunTestMode(vParts[0].c_str(), GetNumber(vParts[1]));
    return true;
}

bool CConsoleUtilities::SetLogFileSize(const Loop& loop, const std::string& sValue)
{
    CFileLogger* pFileLogger = loop.pFileLogger;
    if (pFileLogger == nullptr) {
        loop.pMain->GetUtils()->LogInfo(loop.pMain->GetRuntimeParam(), "No file logger is defined");
        return true;
    }
    PrintText("Current max log file size: %llu\n",
              static_cast<unsigned long long>(pFileLogger->GetMaxLogSize()));
    pFileLogger->SetMaxLogSize(GetNumber(sValue));
    PrintText("Updated max log file size: %llu\n",
              static_cast<unsigned long long>(pFileLogger->GetMaxLogSize()));
    return true;
}

bool CConsoleUtilities::Print(CNfsMain* pMain, const std::string& sValue)
{
    std::string sText = sValue;
    pMain->GetUtils()->LogInfo(pMain->GetRuntimeParam(), sText.data());
    return true;
}

bool CConsoleUtilities::SetDebugAction(CNfsMain* pMain, const std::string& sValue)
{
    pMain->SetDebugActionEnabled(GetNumber(sValue) != 0);
    PrintText("Current Server Status=%d\n", pMain->GetServerStatus());
    return true;
}

bool CConsoleUtilities::AddVSphereInfo(CNfsMain* pMain, const std::string& sValue)
{
    const std::vector<std::string> vParts = SplitIntoVector(sValue.c_str(), ' ');
    if (vParts.size() < 5)
        PrintText("Fail to add VSphere info to NFS. Reason=In-valid input value: %s\n",
                  sValue.c_str());
    else
        pMain->AddVSphereInfo(vParts[0].c_str(), vParts[1].c_str(), vParts[2].c_str(),
                              vParts[3].c_str(), vParts[4].c_str());
    return true;
}

void CConsoleUtilities::PrintCommandHelp(const Loop& loop)
{
    PrintText("%s", HELP_FRAME);
    PrintText("%s:\n", "Command");
    PrintText("  %s: display help\n", COMMAND_HELP);
    PrintText("  %s: quit this program\n", COMMAND_QUIT);
    PrintText("  %s<num>: display log messages or not\n", COMMAND_LOG);
    PrintText("  %s: show status\n", COMMAND_STATUS);
    if (loop.bExtended) {
        PrintText("  %s<mount_port=nfs_port]: start server\n", COMMAND_START_VALUE);
        PrintText("  %s<path=exportName>: add mount point\n", COMMAND_MOUNT);
        PrintText("  %s<path>: remove mount point\n", COMMAND_UMOUNT);
        PrintText("  %s<dirPath=fileSizeInByte>: run platform test on target file\n", COMMAND_TEST);
        PrintText("  %s<size>: set max log file size\n", COMMAND_LOG_FILE_SIZE);
        PrintText("  %s<message>: print message to log\n", COMMAND_PRINT);
        PrintText("  %s<num>: turn on/off debug action control in KVR\n", COMMAND_DEBUG_ACTION);
        PrintText("  %s<datastore MOID> <host> <port> <user> <password>: add VSphere info\n",
                  COMMAND_ADD_VSPHERE);
        PrintText("  %s<datastore MOID>: remove VSphere info\n", COMMAND_REMOVE_VSPHERE);
    }
    PrintText("%s", HELP_FRAME);
}

void CConsoleUtilities::PrintPrompt()
{
    PrintText("\n%s: ", "Command");
}
