// A controller that drives the server of another process, which is a fake.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FakeIpcServer.h"
#include "IpcBytes.h"
#include "LogRecorder.h"
#include "NfsIpcClientMain.h"
#include "TestEnvironment.h"
#include "Text.h"

using Lines = std::vector<std::string>;

constexpr int LOG_ERROR = 0x01;
constexpr int LOG_GENERAL = 0x02;
constexpr int LOG_STATE = 0x80;
constexpr int LOG_ALL = 0x3FF;

constexpr char NO_SERVER[] = "Fail to connect ipc client socket. No such file or directory (2)";
constexpr char NO_SERVER_LINE[] = "error|host|[IpcClient.SendRequest] Fail to connect ipc client "
                                  "socket. No such file or directory (2)";
constexpr char UNTOUCHED[] = "untouched";

class CNfsIpcClientFixture : public testing::Test {
protected:
    void SetUp() override { Make("host"); }

    void Make(const char* pcID, int iLogControl = LOG_ERROR | LOG_GENERAL)
    {
        m_pMain = std::make_unique<CNfsIpcClientMain>(pcID, iLogControl);
        m_pMain->SetCallback(&m_recorder);
    }

    // A server of that version, in place of the one that there was.
    CFakeIpcServer& Serve(const char* pcVersion = "1.2")
    {
        m_pServer.reset();
        m_pServer = std::make_unique<CFakeIpcServer>();
        m_pServer->SetVersion(pcVersion);
        return *m_pServer;
    }

    // What a call sends to the server.
    Lines Sent(const std::function<void()>& call)
    {
        m_pServer->ForgetRequests();
        call();
        return m_pServer->Requests();
    }

    void ExpectSent(const std::function<void()>& call, const std::string& sRequest)
    {
        const Lines vSent = Sent(call);
        ASSERT_EQ(vSent.size(), 1U);
        EXPECT_TRUE(SameMessage(vSent[0], sRequest));
    }

    std::string Version()
    {
        char cText[DESCRIPTION_SIZE];
        m_pMain->GetVersion(cText);
        return cText;
    }

    std::string Description()
    {
        char cText[DESCRIPTION_SIZE];
        m_pMain->GetDescription(cText);
        return cText;
    }

    // The reason that a call gives, behind whether it succeeded.
    std::string Try(const std::function<bool(char*)>& call)
    {
        char cReason[REASON_SIZE];
        CopyText(cReason, sizeof(cReason), UNTOUCHED);
        const bool bDone = call(cReason);
        return std::string(bDone ? "true, " : "false, ") + cReason;
    }

    std::unique_ptr<CFakeIpcServer> m_pServer;
    CLogRecorder m_recorder;
    std::unique_ptr<CNfsIpcClientMain> m_pMain;
    CRuntimeParam m_param{"caller", 0};
    char m_cReason[REASON_SIZE] = "";
};
