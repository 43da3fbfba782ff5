#include "NfsIpcServerMain.h"

#include "IpcClient.h"
#include "IpcServerThread.h"
#include "RuntimeParam.h"
#include "StopSignal.h"
#include "Text.h"
#include "Utilities.h"
#include "UtilitiesIpcServer.h"

namespace {

constexpr char START_NAME[] = "NfsIpcServerMain.StartRemoteController";

}  // namespace

CNfsIpcServerMain::CNfsIpcServerMain() = default;

CNfsIpcServerMain::CNfsIpcServerMain(const char* pcID, int iLogControl)
{
    // This class's own, whatever derives from it: no derived object exists yet.
    CNfsIpcServerMain::InitMemberVaribles(pcID, iLogControl);
}

CNfsIpcServerMain::~CNfsIpcServerMain()
{
    CloseRemoteController();
}

void CNfsIpcServerMain::CloseRemoteController()
{
    const CMutexLock lock(m_hMutexController);
    m_pIpcServerThread.reset();
}

void CNfsIpcServerMain::InitMemberVaribles(const char* pcID, int iLogControl)
{
    CNfsMain::InitMemberVaribles(pcID, iLogControl);
}

// What happens on behalf of another process goes there.
std::unique_ptr<CUtilities> CNfsIpcServerMain::CreateUtilities()
{
    return std::make_unique<CUtilitiesIpcServer>();
}

bool CNfsIpcServerMain::Initial(char* pcReason)
{
    return CRuntimeParam::IsValidServerID(GetRuntimeParam()->GetID(), pcReason) &&
           CNfsMain::Initial(pcReason);
}

bool CNfsIpcServerMain::StartRemoteController(char* pcReason)
{
    if (IsRefusedInsideCallback(START_NAME)) {
        FormatReason(pcReason, "Remote controller cannot be started from a callback");
        return false;
    }
    const CMutexLock lock(m_hMutexController);
    if (HasFileLogger())
        GetUtils()->LogInfo(GetRuntimeParam(), "Start Remote Controller");
    if (m_pIpcServerThread != nullptr)
        return true;
    char cChannel[IPC_CHANNEL_SIZE];
    GetIpcServerThreadChannel(cChannel);
    if (IsServed(cChannel)) {
        FormatReason(pcReason, "Ipc channel is already created by others.");
        return false;
    }
    if (CStopSignal::IsRequested()) {  // perhaps it was served, and did not answer
        FormatReason(pcReason, "Stopped while waiting for the channel");
        return false;
    }
    m_pIpcServerThread = std::make_unique<CIpcServerThread>();
    char cReason[REASON_SIZE] = "";
    if (m_pIpcServerThread->Open(cChannel, this, cReason))
        return true;
    FormatReason(pcReason, "%s", cReason);
    if (GetRuntimeParam()->IsLogError())
        GetUtils()->LogError(GetRuntimeParam(), "[%s] Fail to start ipc server thread. Reason=%s",
                             START_NAME, cReason);
    return false;
}

// Nobody there is what is hoped for, and not worth a line.
bool CNfsIpcServerMain::IsServed(const char* pcChannel)
{
    CIpcClient client(GetUtils(), GetRuntimeParam());
    client.InitialRequest<Ipc_Header>(IPC_REQUEST_TYPE_GET_VERSION);
    return client.SendRequest(pcChannel, nullptr) && client.GetMsgReply() != nullptr;
}

void CNfsIpcServerMain::StopRemoteController()
{
    if (IsRefusedInsideCallback("NfsIpcServerMain.StopRemoteController"))
        return;
    const CMutexLock lock(m_hMutexController);
    if (HasFileLogger())
        GetUtils()->LogInfo(GetRuntimeParam(), "Stop Remote Controller");
    m_pIpcServerThread.reset();
}

int CNfsIpcServerMain::GetAccessMode()
{
    return ACCESS_MODE_SERVER;
}

void CNfsIpcServerMain::GetDescription(char* pcOut)
{
    CopyText(pcOut, DESCRIPTION_SIZE, "External NFS Server");
}

void CNfsIpcServerMain::GetIpcServerThreadChannel(char* pcOut)
{
    GetIpcChannel(pcOut, IPC_SERVER_NAME);
}
