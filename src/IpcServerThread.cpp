#include "IpcServerThread.h"

#include <exception>

#include "IpcServer.h"
#include "NfsMain.h"
#include "Text.h"
#include "Utilities.h"

namespace {

constexpr int PAUSE = 100;  // milliseconds between two tries to do what fails for now

}  // namespace

CIpcServerThread::CIpcServerThread() = default;

CIpcServerThread::~CIpcServerThread()
{
    Close();
}

bool CIpcServerThread::Open(const char* pcChannel, CNfsMain* pNfsHandle, char* pcError)
{
    Close();
    m_pServer = std::make_unique<CIpcServer>(pNfsHandle);
    if (!m_pServer->Open(pcChannel, pcError)) {
        m_pServer.reset();
        return false;
    }
    m_bActive = true;
    m_iThreadCreated = pthread_create(&m_hThread, nullptr, RunThread, this);
    if (m_iThreadCreated == 0)
        return true;

    // A channel that nobody serves would keep every client waiting for ever.
    char cText[REASON_SIZE] = "";
    pNfsHandle->GetUtils()->GetLastErrorText(cText, m_iThreadCreated);
    FormatReason(pcError, "Fail to create ipc server thread. %s", cText);
    m_bActive = false;
    Close();
    return false;
}

void CIpcServerThread::Close()
{
    if (m_pServer != nullptr)
        m_pServer->Close();
    if (m_iThreadCreated == 0)
        pthread_join(m_hThread, nullptr);
    m_iThreadCreated = -1;
    m_pServer.reset();
}

void* CIpcServerThread::RunThread(void* pThread)
{
    static_cast<CIpcServerThread*>(pThread)->Run();
    return nullptr;
}

void CIpcServerThread::Run()
{
    while (m_pServer->IsOpened()) {
        try {
            m_pServer->ReadRequest();
        } catch (const std::exception&) {
            // Out of memory, for one: it costs this request, not the process.
            m_pServer->WaitForClose(PAUSE);
        }
        if (m_pServer->IsAutoShutdownRequested())
            m_pServer->WaitForClose(PAUSE);  // there is nothing else left to do
    }
    m_bActive = false;
}
