// The command line and the course of a run; line commands are in ConsoleCommands.cpp, the pid file
// in ConsolePidFile.cpp.
#include "ConsoleUtilities.h"

#include <cstdlib>
#include <cstring>

#include "FileLogger.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "NfsMain.h"
#include "RuntimeParam.h"
#include "StopSignal.h"
#include "Text.h"
#include "Utilities.h"

namespace {

constexpr char OPTION_HELP[] = "-help";
constexpr char OPTION_SHUTDOWN[] = "-shutdown";
constexpr char OPTION_QUERY[] = "-query";
constexpr char OPTION_TEST[] = "-test";
constexpr char OPTION_ID[] = "-id";
constexpr char OPTION_LOG[] = "-log";
constexpr char OPTION_MODE[] = "-md";
constexpr char OPTION_LOG_FILE[] = "-logfile";
constexpr char OPTION_PID_FILE[] = "-pidfile";
constexpr char MODE_INTERNAL[] = "int";
constexpr char MODE_SERVER[] = "svr";
constexpr char MODE_CLIENT[] = "cli";

// IDs of a run that was not given one.
constexpr char ID_CONSOLE[] = "cRun";
constexpr char ID_SHUTDOWN[] = "shRun";
constexpr char ID_QUERY[] = "qyRun";
constexpr char ID_TEST[] = "tmRun";

constexpr char RULER[] = "------------------------------------\n";

}  // namespace

int CConsoleUtilities::Run(const char* pcProgram, const char* pcArguments)
{
    Settings settings;
    switch (ParseArguments(SplitIntoVector(pcArguments, '\n'), &settings)) {
    case PARSE_HELP:
        PrintUsage(pcProgram);
        return EXIT_SUCCESS;
    case PARSE_FAILED:
        return EXIT_FAILURE;
    case PARSE_OK:
        break;
    }
    CompleteSettings(&settings);

    const CStopSignal stop;
    char cReason[REASON_SIZE] = "";
    if (!CreatePidFile(settings.sPidFile.c_str(), settings.iLogControl, cReason)) {
        PrintText("Fail to create pid file \"%s\". Reason=%s\n", settings.sPidFile.c_str(),
                  cReason);
        return EXIT_FAILURE;
    }
    const int iResult = RunMode(settings);
    RemovePidFile(settings.sPidFile.c_str(), settings.iLogControl);
    return iResult;
}

// An option that is not known takes a value like the others, and both are passed over; one without
// its value ends the list.
CConsoleUtilities::ParseResult
CConsoleUtilities::ParseArguments(const std::vector<std::string>& vWords, Settings* pSettings)
{
    const size_t iWords = vWords.size() - 1;  // what stands behind the last newline is none
    for (size_t i = 0; i < iWords; i++) {
        const std::string& sOption = vWords[i];
        if (sOption == OPTION_HELP)
            return PARSE_HELP;
        if (sOption == OPTION_SHUTDOWN) {
            pSettings->bShutdown = true;
            continue;
        }
        if (sOption == OPTION_QUERY) {
            pSettings->bQuery = true;
            continue;
        }
        if (++i == iWords)
            break;
        const std::string& sValue = vWords[i];
        if (sOption == OPTION_ID) {
            pSettings->sID = sValue;
            pSettings->bHasID = true;
        } else if (sOption == OPTION_LOG) {
            pSettings->iLogControl = static_cast<int>(strtol(sValue.c_str(), nullptr, 10));
        } else if (sOption == OPTION_LOG_FILE) {
            pSettings->sLogFile = sValue;
        } else if (sOption == OPTION_PID_FILE) {
            pSettings->sPidFile = sValue;
        } else if ((sOption == OPTION_MODE && !ParseMode(sOption, sValue, pSettings)) ||
                   (sOption == OPTION_TEST && !ParseTest(sValue, pSettings))) {
            return PARSE_FAILED;
        }
    }
    return PARSE_OK;
}

bool CConsoleUtilities::ParseMode(const std::string& sOption, const std::string& sValue,
                                  Settings* pSettings)
{
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
    return true;
}

bool CConsoleUtilities::ParseTest(const std::string& sValue, Settings* pSettings)
{
    const std::vector<std::string> vParts = SplitIntoVector(sValue.c_str(), '=');
    if (vParts.size() < 2) {
        PrintText("In-valid test mode value: %s\n", sValue.c_str());
        return false;
    }
    pSettings->bTest = true;
    pSettings->sTestPath = vParts[0];
    pSettings->iTestSize = strtoll(vParts[1].c_str(), nullptr, 10);
    return true;
}

// Whoever shuts a server down or asks how it is does not run one.
void CConsoleUtilities::CompleteSettings(Settings* pSettings)
{
    if (pSettings->iAccessMode == -1)
        pSettings->iAccessMode =
            pSettings->bShutdown || pSettings->bQuery ? ACCESS_MODE_CLIENT : ACCESS_MODE_SERVER;
    if (pSettings->bHasID)
        return;
    pSettings->sID = ID_CONSOLE;
    if (pSettings->bShutdown)
        pSettings->sID = ID_SHUTDOWN;
    if (pSettings->bQuery)
        pSettings->sID = ID_QUERY;
    if (pSettings->bTest)
        pSettings->sID = ID_TEST;
}

void CConsoleUtilities::PrintUsage(const char* pcProgram)
{
    PrintText("\n");
    PrintText("Usage: %s [%s]\n", pcProgram, OPTION_HELP);
    PrintText("       [%s]\n", OPTION_SHUTDOWN);
    PrintText("       [%s]\n", OPTION_QUERY);
    PrintText("       [%s <path=max_file_size>]\n", OPTION_TEST);
    PrintText("       [%s <name>] [%s <num>] [%s <%s|%s|%s>] [%s <path>] [%s <path>]\n", OPTION_ID,
              OPTION_LOG, OPTION_MODE, MODE_INTERNAL, MODE_SERVER, MODE_CLIENT, OPTION_LOG_FILE,
              OPTION_PID_FILE);
}

int CConsoleUtilities::RunMode(const Settings& settings)
{
    if (settings.bShutdown && settings.iAccessMode != ACCESS_MODE_CLIENT) {
        PrintText("Auto shutdown is activated, terminate now");
        return EXIT_SUCCESS;
    }
    // The log file outlives the controller, whose threads may write to it until the end.
    std::unique_ptr<CFileLogger> pFileLogger;
    const std::unique_ptr<CNfsMain> pMain = CreateController(settings);
    if (pMain == nullptr)
        return EXIT_FAILURE;
    if (!settings.sLogFile.empty())
        pFileLogger = CreateFileLogger(settings, pMain.get());
    char cReason[REASON_SIZE] = "";
    if (RunController(settings, pMain.get(), pFileLogger.get(), cReason))
        return EXIT_SUCCESS;
    PrintText("Terminated. Reason=%s\n", cReason);
    return EXIT_FAILURE;
}

std::unique_ptr<CNfsMain> CConsoleUtilities::CreateController(const Settings& settings)
{
    const char* pcID = settings.sID.c_str();
    std::unique_ptr<CNfsMain> pMain;
    switch (settings.iAccessMode) {
    case ACCESS_MODE_CLIENT:
        return std::make_unique<CNfsIpcClientMain>(pcID, settings.iLogControl);
    case ACCESS_MODE_SERVER:
        pMain = std::make_unique<CNfsIpcServerMain>(pcID, settings.iLogControl);
        break;
    case ACCESS_MODE_INTERNAL:
        pMain = std::make_unique<CNfsMain>(pcID, settings.iLogControl);
        break;
    default:
        PrintText("Un-supported access mode: %d\n", settings.iAccessMode);
        return nullptr;
    }
    pMain->EnableAutoShutdown(true);
    return pMain;
}

// Null, with the controller left as it is, if the log file cannot be opened.
std::unique_ptr<CFileLogger> CConsoleUtilities::CreateFileLogger(const Settings& settings,
                                                                 CNfsMain* pMain)
{
    auto pFileLogger = std::make_unique<CFileLogger>(settings.sLogFile.c_str());
    if (!pFileLogger->Open(settings.iLogControl)) {
        PrintText("Fail to create log file: %s\n", settings.sLogFile.c_str());
        return nullptr;
    }
    pMain->SetFileLogger(pFileLogger.get());
    pMain->GetUtils()->LogInfo(pMain->GetRuntimeParam(),
                               "ID = %s, LogControl = %d, AccessMode = %d", settings.sID.c_str(),
                               settings.iLogControl, settings.iAccessMode);
    if (!settings.sPidFile.empty())
        pMain->GetUtils()->LogInfo(pMain->GetRuntimeParam(), "Create pid file \"%s\"",
                                   settings.sPidFile.c_str());
    return pFileLogger;
}

bool CConsoleUtilities::RunController(const Settings& settings, CNfsMain* pMain,
                                      CFileLogger* pFileLogger, char* pcReason)
{
    char cVersion[DESCRIPTION_SIZE] = "";
    char cDescription[DESCRIPTION_SIZE] = "";
    pMain->GetVersion(cVersion);
    pMain->GetDescription(cDescription);
    PrintVersion(cVersion, cDescription);
    if (strcmp(cVersion, "Unknown") == 0) {
        if (settings.bQuery) {
            PrintText("%s %s\n", "Server Status:", "NotAccessible");
            PrintText("%s", RULER);
            return true;
        }
        FormatReason(pcReason, "Fail to get server version");
        return false;
    }

    if (!pMain->Initial(pcReason))
        return false;
    const bool bStarted = pMain->StartRemoteController(pcReason);
    if (bStarted) {
        if (settings.bShutdown)
            pMain->RequestAutoShutdown();
        else if (settings.bQuery)
            PrintStatus(pMain);
        else if (settings.bTest)
            pMain->RunTestMode(settings.sTestPath.c_str(), settings.iTestSize);
        else
            RunCommands(pMain, pFileLogger);
        pMain->StopServer();
        pMain->StopRemoteController();
    }
    pMain->Terminate();
    return bStarted;
}

void CConsoleUtilities::PrintVersion(const char* pcVersion, const char* pcDescription)
{
    PrintText("%s", RULER);
    PrintText("%s %s\n", "Execute Version:", LIBRARY_VERSION);
    PrintText("%s %s\n", "Server Version:", pcVersion);
    PrintText("%s %s\n", "Server Description:", pcDescription);
    PrintText("%s", RULER);
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
