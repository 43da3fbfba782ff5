#include "VSphereWebController.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "Platform.h"
#include "Text.h"

namespace {

constexpr size_t ARGUMENTS_SIZE = 4096;

constexpr char HELPER_NAME[] = "VcDatastoreCtlFbdX64";

// Started by the search path, this process knows no folder, and the shell finds the helper where it
// found this program.
std::string GetHelperPath()
{
    char cArguments[ARGUMENTS_SIZE];
    Platform::GetProgramArguments(cArguments, sizeof(cArguments));
    std::string sPath = cArguments;
    sPath.erase(sPath.rfind('/') + 1);
    return sPath + HELPER_NAME;
}

// Writes the command line, cut to iSize bytes; the result is the length that it would have.
size_t FormatCommand(char* pcTarget, size_t iSize, const char* pcDatastoreMoid, const char* pcHost,
                     const char* pcPort, const char* pcUser, const char* pcPwd)
{
    const int iLength =
        snprintf(pcTarget, iSize,
                 "\"%s\" -host %s -port %s -user %s -pwd %s"
                 " -method removeDatastore -argu %s",
                 GetHelperPath().c_str(), pcHost, pcPort, pcUser, pcPwd, pcDatastoreMoid);
    return iLength < 0 ? std::string::npos : static_cast<size_t>(iLength);
}

}  // namespace

void CVSphereWebController::RemoveSession(const char* pcDatastoreMoid, const char* pcHost,
                                          const char* pcPort, const char* pcUser, const char* pcPwd)
{
    if (pcDatastoreMoid == nullptr || pcHost == nullptr || pcPort == nullptr || pcUser == nullptr ||
        pcPwd == nullptr)
        return;
    const CMutexLock lock(m_hMutex);
    char cCommand[COMMAND_SIZE];
    if (FormatCommand(cCommand, sizeof(cCommand), pcDatastoreMoid, pcHost, pcPort, pcUser, pcPwd) <
        sizeof(cCommand)) {
        // What went wrong, the shell and the helper print themselves.
        // NOLINTNEXTLINE(concurrency-mt-unsafe): other threads are free to start processes too
        const int iStatus = system(cCommand);
        static_cast<void>(iStatus);
    }
    WipeText(cCommand, sizeof(cCommand));
}

bool CVSphereWebController::HasRoom(const char* pcDatastoreMoid, const char* pcHost,
                                    const char* pcPort, const char* pcUser, const char* pcPwd)
{
    return FormatCommand(nullptr, 0, pcDatastoreMoid, pcHost, pcPort, pcUser, pcPwd) < COMMAND_SIZE;
}
