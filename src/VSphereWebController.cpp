#include "VSphereWebController.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "Platform.h"
#include "Text.h"

namespace {

constexpr size_t ARGUMENTS_SIZE = 4096;

constexpr char HELPER_NAME[] = "VcDatastoreCtlFbdX64";

// The folder is that of the name by which this process was started. Started without one, by the
// search path, it has none.
std::string GetHelperPath()
{
    char cArguments[ARGUMENTS_SIZE] = "";
    Platform::GetProgramArguments(cArguments, sizeof(cArguments));
    std::string sPath = cArguments;
    const size_t iSlash = sPath.rfind('/');
    if (iSlash != std::string::npos)
        sPath.erase(iSlash + 1);
    return sPath + HELPER_NAME;
}

// The command line, which holds the password; wiped at the end.
class CCommandLine {
public:
    CCommandLine(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                 const char* pcUser, const char* pcPwd)
    {
        const int iLength =
            snprintf(m_cText, sizeof(m_cText),
                     "\"%s\" -host %s -port %s -user %s -pwd %s"
                     " -method removeDatastore -argu %s",
                     GetHelperPath().c_str(), pcHost, pcPort, pcUser, pcPwd, pcDatastoreMoid);
        m_bWhole = iLength > 0 && static_cast<size_t>(iLength) < sizeof(m_cText);
    }
    ~CCommandLine() { WipeText(m_cText, sizeof(m_cText)); }
    CCommandLine(const CCommandLine&) = delete;
    CCommandLine& operator=(const CCommandLine&) = delete;

    bool IsWhole() const { return m_bWhole; }
    const char* Get() const { return m_cText; }

private:
    char m_cText[CVSphereWebController::COMMAND_SIZE];
    bool m_bWhole;
};

}  // namespace

void CVSphereWebController::RemoveSession(const char* pcDatastoreMoid, const char* pcHost,
                                          const char* pcPort, const char* pcUser, const char* pcPwd)
{
    if (pcDatastoreMoid == nullptr || pcHost == nullptr || pcPort == nullptr || pcUser == nullptr ||
        pcPwd == nullptr)
        return;
    const CMutexLock lock(m_hMutex);
    const CCommandLine command(pcDatastoreMoid, pcHost, pcPort, pcUser, pcPwd);
    if (!command.IsWhole())
        return;
    // What the shell and the helper have to say they print themselves.
    if (system(command.Get()) != 0)
        return;
}

bool CVSphereWebController::HasRoom(const char* pcDatastoreMoid, const char* pcHost,
                                    const char* pcPort, const char* pcUser, const char* pcPwd)
{
    return CCommandLine(pcDatastoreMoid, pcHost, pcPort, pcUser, pcPwd).IsWhole();
}
