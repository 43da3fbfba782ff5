// NFS calls that lead to questions to the owner of an export, and what becomes of them when
// somebody is stopped.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "IpcNestedFixture.h"
#include "RelayPeer.h"
#include "RuntimeParam.h"
#include "TestEnvironment.h"
#include "Text.h"
#include "WireClient.h"

using Lines = std::vector<std::string>;

namespace {

constexpr int LOG_EVERYTHING = 0x3FF;

// A server with an export that belongs to the client "a", with a redirected file in it.
class IpcNestedNfs : public IpcNested {
protected:
    void Serve(int iLogControl)
    {
        char cReason[REASON_SIZE] = "";
        m_Folder.Write("disk", "");
        m_main.SetLogControl(iLogControl);
        ASSERT_TRUE(m_main.StartServer(0, 0, 0, 0, false, cReason)) << cReason;
        ASSERT_TRUE(SameMessage(relay::Ask(SERVER_CHANNEL, Header(GROUP_REQUEST, 5) +
                                                               Field(m_Folder.Path(), 1024) +
                                                               Field("vm1", 256) + Field("a", 256)),
                                BoolReply(true)));
        m_main.OpenRedirectedFile(m_Folder.Path("disk").c_str(), 100, false, 0, 0);
    }

    static RpcCall MakeCall(uint32_t iProg, uint32_t iProc, const std::string& sArguments)
    {
        RpcCall call;
        call.iProg = iProg;
        call.iVers = 3;
        call.iProc = iProc;
        call.sArguments = sArguments;
        return call;
    }

    static std::string Mount()
    {
        CReply reply =
            CallOnce(WIRE_MOUNT_PORT, MakeCall(WIRE_MOUNT_PROG, 1, CXdr().String("vm1").Bytes()));
        EXPECT_EQ(reply.Word(), 0U);
        return reply.Opaque();
    }

    static RpcCall LookupCall(const std::string& sFolder)
    {
        return MakeCall(WIRE_NFS_PROG, 3, CXdr().Opaque(sFolder).String("disk").Bytes());
    }

    static std::string Lookup(const std::string& sFolder)
    {
        CReply reply = CallOnce(WIRE_NFS_PORT, LookupCall(sFolder));
        EXPECT_EQ(reply.Word(), 0U);
        return reply.Opaque();
    }

    static RpcCall WriteCall(const std::string& sFile)
    {
        return MakeCall(WIRE_NFS_PROG, 7,
                        CXdr().Opaque(sFile).Hyper(8).Word(3).Word(2).Opaque("new").Bytes());
    }

    CScratchFolder m_Folder;
};

constexpr uint32_t STAT_INVAL = 22;

}  // namespace

TEST_F(IpcNestedNfs, Write_AnsweredByTheOwner_Succeeds)
{
    Serve(LOG_CONTROL_ERROR);
    const std::string sFolder = Mount();
    CRelayPeer peer("a");
    const CRelayPeer other("b");
    peer.SetResult(3);
    const std::string sFile = Lookup(sFolder);
    EXPECT_EQ(CallOnce(WIRE_NFS_PORT, WriteCall(sFile)).Word(), 0U);
    const Lines vMessages = peer.Messages();
    ASSERT_EQ(vMessages.size(), 1U);
    // What happens in an export happens under its name.
    EXPECT_TRUE(SameMessage(vMessages[0], Header(GROUP_CALLBACK, relay::WRITE) +
                                              Field("vm1", TEXT_FIELD) +
                                              Field(m_Folder.Path("disk"), PATH_FIELD) +
                                              Word(8, 8) + Int32(0) + Int32(3)));
    EXPECT_EQ(other.Messages(), Lines{});
    EXPECT_EQ(m_Host.Notifications(), Lines{});
}

TEST_F(IpcNestedNfs, Write_OwnerGone_FailsWithALine)
{
    Serve(LOG_CONTROL_ERROR);
    const std::string sFolder = Mount();
    CReply lookup = CallOnce(WIRE_NFS_PORT, LookupCall(sFolder));
    ASSERT_EQ(lookup.Word(), 0U);
    const std::string sFile = lookup.Opaque();
    EXPECT_EQ(CallOnce(WIRE_NFS_PORT, WriteCall(sFile)).Word(), STAT_INVAL);
    EXPECT_GE(m_Host.Count("error|vm1|[IpcClient.SendRequest] Fail to connect ipc client socket. "
                           "No such file or directory (2)"),
              1U);
    EXPECT_EQ(m_Host.Notifications(), Lines{});

    CRelayPeer peer("a");  // back again
    peer.SetResult(3);
    EXPECT_EQ(CallOnce(WIRE_NFS_PORT, WriteCall(sFile)).Word(), 0U);
}

// The owner asks about the server before it answers the notification.
TEST_F(IpcNestedNfs, Write_OwnerAsksBeforeItAnswers_Succeeds)
{
    Serve(LOG_CONTROL_ERROR);
    const std::string sFolder = Mount();
    CReply lookup = CallOnce(WIRE_NFS_PORT, LookupCall(sFolder));
    ASSERT_EQ(lookup.Word(), 0U);
    const CRelayPeer peer("a", [](const std::string& sMessage) {
        if (relay::IsLine(sMessage))
            return BoolReply(true);
        EXPECT_TRUE(
            SameMessage(relay::Ask(SERVER_CHANNEL, IsSessionExistsRequest("s1")), BoolReply(true)));
        EXPECT_TRUE(SameMessage(relay::Ask(SERVER_CHANNEL, Header(GROUP_REQUEST, 18) + Int32(1)),
                                BoolReply(true)));
        return IntReply(3);
    });
    relay::ExpectReturns("the write", [&] {
        EXPECT_EQ(CallOnce(WIRE_NFS_PORT, WriteCall(lookup.Opaque())).Word(), 0U);
    });
}

// A stop that takes its time, because of the owner of an export, takes none from another client's
// listing.
TEST_F(IpcNestedNfs, StopServer_WhileAListingIsRelayed_LeavesThatWhole)
{
    Serve(LOG_CONTROL_ERROR);
    m_main.AddSessionInfo("s2", "/y");
    const std::string sFolder = Mount();
    const std::string sFile = Lookup(sFolder);
    relay::CFrozenPeer frozen("a");
    CTcpClient client(WIRE_NFS_PORT);
    ASSERT_TRUE(client.Send(WriteCall(sFile).Record()));
    frozen.WaitForMessage();

    CHandPeer peer("b");
    relay::CAsking listing(SERVER_CHANNEL, SessionListingRequest("b"));
    EXPECT_EQ(peer.Take(), LINE);
    relay::ExpectReturns("StopServer", [this] { m_main.StopServer(); });
    EXPECT_TRUE(m_Host.WaitFor(GAVE_UP));  // about the frozen one
    const size_t iGaveUp = m_Host.Count(GAVE_UP);
    peer.Answer(BoolReply(true));
    EXPECT_EQ(peer.Take(), "raw|svr| session2 - s2 : /y");
    peer.Answer(BoolReply(true));
    EXPECT_TRUE(SameMessage(listing.Read(), IntReply(2)));
    EXPECT_EQ(m_Host.Count(GAVE_UP), iGaveUp);
}

// All lines of the call in hand, and of those that wait for their turn, are still to come.
TEST_F(IpcNestedNfs, StopServer_OwnerNeverAnswersLines_Returns)
{
    Serve(LOG_EVERYTHING);
    std::string sFolder;
    {
        const CRelayPeer alive("a");
        sFolder = Mount();
    }
    relay::CFrozenPeer peer("a");
    std::vector<std::unique_ptr<CTcpClient>> vClients;
    for (int i = 0; i < 8; i++) {
        vClients.push_back(std::make_unique<CTcpClient>(WIRE_NFS_PORT));
        ASSERT_TRUE(vClients.back()->Send(LookupCall(sFolder).Record()));
    }
    EXPECT_TRUE(relay::IsLine(peer.WaitForMessage()));
    relay::ExpectReturns("StopServer", [this] { m_main.StopServer(); });
    EXPECT_FALSE(m_main.IsServerRunning());
    EXPECT_TRUE(m_Host.Contains(GAVE_UP));

    char cReason[REASON_SIZE] = "";  // and it starts again
    EXPECT_TRUE(m_main.StartServer(0, 0, 0, 0, false, cReason)) << cReason;
    m_main.SetLogControl(LOG_CONTROL_ERROR);
}
