#include "ConsoleUtilities.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include "NfsMain.h"
#include "Pause.h"
#include "Text.h"

namespace {

constexpr int POLL_PAUSE = 100;  // milliseconds between two looks at the keyboard

constexpr char OPTION_ID[] = "-id";
constexpr char OPTION_LOG[] = "-log";
constexpr char OPTION_MODE[] = "-md";
constexpr char MODE_INTERNAL[] = "int";
constexpr char MODE_SERVER[] = "svr";
constexpr char MODE_CLIENT[] = "cli";

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

constexpr char RULER[] = "------------------------------------\n";
constexpr char HELP_FRAME[] = "==========================\n";

int GetNumber(const std::string& sText)
{
    return static_cast<int>(strtol(sText.c_str(), nullptr, 10));
}

// True, with what follows the keyword, if the line is the keyword and more.
bool TakesValue(const std::string& sLine, const char* pcKeyword, std::string* psValue)
{
    const std::string sKeyword = pcKeyword;
    if (sLine.length() <= sKeyword.length() || sLine.compare(0, sKeyword.length(), sKeyword) != 0)
        return false;
    *psValue = sLine.substr(sKeyword.length());
    return true;
}

// The next line of standard input without its newline; what exceeds a path's size is dropped.
std::string ReadLine()
{
    std::string sLine;
    for (int iNext = getchar(); iNext != '\n' && iNext != EOF; iNext = getchar()) {
        if (sLine.length() + 1 < PATH_SIZE)
            sLine.push_back(static_cast<char>(iNext));
    }
    return sLine;
}

// A terminal that yields each key as it is typed, and as it was afterwards.
class CRawInput {
public:
    CRawInput()
    {
        m_bTerminal = tcgetattr(STDIN_FILENO, &m_Settings) == 0;
        if (m_bTerminal) {
            struct termios raw = m_Settings;
            raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
            tcsetattr(STDIN_FILENO, TCSANOW, &raw);
        }
    }
    ~CRawInput()
    {
        if (m_bTerminal)
            tcsetattr(STDIN_FILENO, TCSANOW, &m_Settings);
    }
    CRawInput(const CRawInput&) = delete;
    CRawInput& operator=(const CRawInput&) = delete;

private:
    struct termios m_Settings = {};
    bool m_bTerminal = false;
};

}  // namespace

int CConsoleUtilities::Run(const char*, const char* pcArguments)
{
    Settings settings;
    if (!ParseArguments(SplitIntoVector(pcArguments, '\n'), &settings))
        return EXIT_FAILURE;
    if (settings.iAccessMode == -1)
        settings.iAccessMode = ACCESS_MODE_SERVER;
    if (settings.iAccessMode != ACCESS_MODE_INTERNAL) {
        PrintText("Un-supported access mode: %d\n", settings.iAccessMode);
        return EXIT_FAILURE;
    }
    const auto pMain = std::make_unique<CNfsMain>(settings.sID.c_str(), settings.iLogControl);
    pMain->EnableAutoShutdown(true);
    return RunController(pMain.get());
}

// False, with the reason printed, for a mode that is none. An option that is not known takes a
// value like the others, and both are passed over; one without its value ends the list.
bool CConsoleUtilities::ParseArguments(const std::vector<std::string>& vWords, Settings* pSettings)
{
    const size_t iWords = vWords.size() - 1;  // what stands behind the last newline is none
    for (size_t i = 0; i + 1 < iWords; i += 2) {
        const std::string& sOption = vWords[i];
        const std::string& sValue = vWords[i + 1];
        if (sOption == OPTION_ID) {
            pSettings->sID = sValue;
        } else if (sOption == OPTION_LOG) {
            pSettings->iLogControl = GetNumber(sValue);
        } else if (sOption == OPTION_MODE) {
            if (sValue == MODE_INTERNAL) {
                pSettings->iAccessMode = ACCESS_MODE_INTERNAL;
            } else if (sValue == MODE_SERVER) {
                pSettings->iAccessMode = ACCESS_MODE_SERVER;
            } else if (sValue == MODE_CLIENT) {
                pSettings->iAccessMode = ACCESS_MODE_CLIENT;
            } else {
                PrintText("Un-supported mode: %s\n", sOption.c_str());  // kept: not the value
                return false;
            }
        }
    }
    return true;
}

int CConsoleUtilities::RunController(CNfsMain* pMain)
{
    PrintVersion(pMain);
    char cReason[REASON_SIZE] = "";
    int iResult = EXIT_FAILURE;
    if (pMain->Initial(cReason)) {
        if (pMain->StartRemoteController(cReason)) {
            RunCommands(pMain);
            pMain->StopServer();
            pMain->StopRemoteController();
            iResult = EXIT_SUCCESS;
        }
        pMain->Terminate();
    }
    if (iResult != EXIT_SUCCESS)
        PrintText("Terminated. Reason=%s\n", cReason);
    return iResult;
}

void CConsoleUtilities::PrintVersion(CNfsMain* pMain)
{
    char cVersion[DESCRIPTION_SIZE] = "";
    char cDescription[DESCRIPTION_SIZE] = "";
    pMain->GetVersion(cVersion);
    pMain->GetDescription(cDescription);
    PrintText("%s", RULER);
    PrintText("%s %s\n", "Execute Version:", LIBRARY_VERSION);
    PrintText("%s %s\n", "Server Version:", cVersion);
    PrintText("%s %s\n", "Server Description:", cDescription);
    PrintText("%s", RULER);
}

void CConsoleUtilities::RunCommands(CNfsMain* pMain)
{
    Loop loop;
    setvbuf(stdin, nullptr, _IONBF, 0);  // so that poll knows of all that is not read yet
    PrintText("Type '%s' to see help\n", COMMAND_HELP);
    PrintPrompt();
    while (!loop.bQuit) {
        if (pMain->IsAutoShutdownRequested()) {
            PrintText("\nExit by request");
            return;
        }
        if (!IsKeyboardHit(&loop))
            MsSleep(POLL_PAUSE);
        else if (ProcessCommand(pMain, ReadLine(), &loop))
            PrintPrompt();
    }
}

// True if something was typed. It is pushed back, so that the next read finds it.
bool CConsoleUtilities::IsKeyboardHit(Loop* pLoop)
{
    if (pLoop->bEndOfInput)
        return false;
    const CRawInput raw;
    // Asked for rather than read without blocking: on a terminal that mode would hold for standard
    // output too, and lines that other threads print meanwhile would be lost.
    struct pollfd input = {STDIN_FILENO, POLLIN, 0};
    if (poll(&input, 1, 0) != 1)
        return false;
    const int iKey = getchar();
    pLoop->bEndOfInput = iKey == EOF;
    return iKey != EOF && ungetc(iKey, stdin) != EOF;
}

void CConsoleUtilities::MsSleep(int iMilliseconds)
{
    Pause(iMilliseconds);
}

bool CConsoleUtilities::ProcessCommand(CNfsMain* pMain, const std::string& sLine, Loop* pLoop)
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
        pMain->SetLogControl(GetNumber(sValue));
        return true;
    }
    if (sLine == COMMAND_STATUS) {
        PrintText("\n");
        PrintStatus(pMain);
        return true;
    }
    if (sLine == COMMAND_DEBUG) {
        pLoop->bExtended = true;
        return true;
    }
    if (!pLoop->bExtended)
        return ProcessUnknownCommand(sLine);

    if (sLine == COMMAND_START || TakesValue(sLine, COMMAND_START_VALUE, &sValue))
        return Start(pMain, sValue);
    if (TakesValue(sLine, COMMAND_MOUNT, &sValue))
        return Mount(pMain, sValue);
    if (TakesValue(sLine, COMMAND_UMOUNT, &sValue)) {
        pMain->RemoveMountPoint(sValue.c_str());
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
        iMountPort = GetNumber(vPorts[0]);
        iNfsPort = GetNumber(vPorts[1]);
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
    }
    PrintText("%s", HELP_FRAME);
}

void CConsoleUtilities::PrintPrompt()
{
    PrintText("\n%s: ", "Command");
}

void CConsoleUtilities::PrintStatus(CNfsMain* pMain)
{
    PrintText("%s %s\n", "Server Status:", pMain->IsServerRunning() ? "Started" : "Stopped");
    PrintText("%s", RULER);

    const int iMounts = pMain->GetMountInfo(false, false);
    PrintText("%s %d\n", "Number of Mount Point:", iMounts);
    if (iMounts > 0)
        pMain->GetMountInfo(false, true);
    PrintText("%s", RULER);

    const int iSessions = pMain->GetSessionInfo(false);
    PrintText("%s %d\n", "Number of Session:", iSessions);
    if (iSessions > 0)
        pMain->GetSessionInfo(true);
    PrintText("%s", RULER);

    const int iDatastores = pMain->GetVSphereInfo(false);
    PrintText("%s %d\n", "Number of mounted NFS datastore:", iDatastores);
    if (iDatastores > 0)
        pMain->GetVSphereInfo(true);
    PrintText("%s", RULER);
}
