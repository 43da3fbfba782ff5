// A server process and two client processes, each in a virtual machine of its own, and NFS clients
// of what the two publish.
#include <csignal>
#include <filesystem>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "JavaHost.h"
#include "RelayPeer.h"
#include "Sanitizers.h"
#include "ServerFixture.h"

namespace {

using Lines = CJavaHost::Lines;

constexpr uint32_t STAT_INVAL = 22;
constexpr int LOG_ERRORS = 0x001;
constexpr int LOG_CALLS = 0x019;
constexpr int LOG_CHANNELS = 0x081;

// A process with a controller, which is the driver's variable "h", and a host object.
class CParty {
public:
    CParty(const char* pcID, int iMode) : m_sID(pcID), m_iMode(iMode) {}

    CJavaHost& Java() { return m_Java; }
    const std::string& ID() const { return m_sID; }

    void Initial(int iLogControl)
    {
        m_Java.Call("new host");
        const std::string sResult =
            m_Java.Call("h = host.initial \"" + m_sID + "\" " + std::to_string(m_iMode) + " " +
                        std::to_string(iLogControl));
        ASSERT_FALSE(sResult.starts_with("!")) << sResult;
        ASSERT_NE(sResult, "0");
        ASSERT_EQ(Native("startRemoteController"), "true");
        m_Java.Clear();
    }

    // Keeps the callback installed: the loop does not come back from its first question.
    void StartLoop()
    {
        m_Java.Call("block host isInterrupted");
        m_Java.Begin("loop", "host.receiveCallbackLoop $h -1");
        EXPECT_TRUE(m_Java.WaitFor("@ isInterrupted"));
        m_Java.Clear();
        m_bLoop = true;
    }
    void StopLoop()
    {
        if (!m_bLoop)
            return;
        m_Java.Call("answer host isInterrupted 1");
        m_Java.Call("release host isInterrupted");
        EXPECT_EQ(m_Java.End("loop"), "false");
        m_bLoop = false;
    }

    void Terminate()
    {
        StopLoop();
        EXPECT_EQ(Native("stopServer"), "void");
        EXPECT_EQ(Native("stopRemoteController"), "void");
        EXPECT_EQ(Native("terminate"), "void");
        m_Java.Clear();
    }

    template <typename... Words>
    std::string Native(const std::string& sMethod, const Words&... words)
    {
        return m_Java.Call(Command(sMethod, words...));
    }
    template <typename... Words>
    static std::string Command(const std::string& sMethod, const Words&... words)
    {
        std::string sCommand = "host." + sMethod + " $h";
        ((sCommand += std::string(" ") + words), ...);
        return sCommand;
    }

    // Runs a command within the next call of a method, once.
    void Inside(const std::string& sMethod, const std::string& sCommand)
    {
        EXPECT_EQ(m_Java.Call("inside host " + sMethod + " " + CJavaHost::Quote(sCommand)), "set");
    }

private:
    const std::string m_sID;
    const int m_iMode;
    CJavaHost m_Java;
    bool m_bLoop = false;
};

class JavaRelay : public CServerFixture {
protected:
    static void SetUpTestSuite()
    {
        s_pServer = std::make_unique<CParty>("svr", 1);
        s_pA = std::make_unique<CParty>("a", 2);
        s_pB = std::make_unique<CParty>("b", 2);
    }
    static void TearDownTestSuite()
    {
        s_pServer.reset();
        s_pA.reset();
        s_pB.reset();
    }

    void SetUp() override
    {
        s_pServer->Initial(LOG_ERRORS);
        s_pA->Initial(LOG_ERRORS);
        s_pB->Initial(LOG_ERRORS);
    }

    void TearDown() override
    {
        CServerFixture::TearDown();
        s_pA->Terminate();
        s_pB->Terminate();
        s_pServer->Terminate();
    }

    void StartAll()
    {
        ASSERT_EQ(s_pA->Native("startServer", "0", "0", "false"), "true");
        s_pServer->StartLoop();
        s_pA->StartLoop();
        s_pB->StartLoop();
        Publish(s_pA.get());
        Publish(s_pB.get());
    }

    std::string Folder(const CParty* pParty) const { return m_Folder.Path("of-" + pParty->ID()); }
    static std::string Export(const CParty* pParty) { return "vm-" + pParty->ID(); }
    static std::string Quoted(const std::string& sText) { return CJavaHost::Quote(sText); }

    // The party publishes a folder with a redirected file in it.
    void Publish(CParty* pParty)
    {
        std::filesystem::create_directory(Folder(pParty));
        m_Folder.Write("of-" + pParty->ID() + "/disk", "");
        ASSERT_EQ(pParty->Native("addMountPoint", Quoted(Folder(pParty)), Quoted(Export(pParty))),
                  "true");
        ASSERT_EQ(pParty->Native("openRedirectedFile", Quoted(Folder(pParty) + "/disk"), "1000",
                                 "false", "0", "0"),
                  "void");
        const std::string sRoot = Mount(Export(pParty).c_str());
        m_Handles[pParty->ID()] = Lookup(sRoot, "disk");
    }

    RpcCall WriteCall(const CParty* pParty, uint64_t iOffset) const
    {
        return NfsCall(7, CXdr()
                              .Opaque(m_Handles.at(pParty->ID()))
                              .Hyper(iOffset)
                              .Word(4)
                              .Word(2)
                              .Opaque("data")
                              .Bytes());
    }
    uint32_t Write(const CParty* pParty, uint64_t iOffset = 0) const
    {
        return CallOnce(WIRE_NFS_PORT, WriteCall(pParty, iOffset)).Word();
    }

    std::string Notification(const CParty* pParty, uint64_t iOffset) const
    {
        return "@ writeRedirectedFile|host|native|" + Export(pParty) + "|" + Folder(pParty) +
               "/disk|" + std::to_string(iOffset) + "|0|4";
    }

    // All that the party was told is about its own export, and it has all notifications.
    void ExpectOwn(CParty* pParty, int iWrites)
    {
        Lines vWanted;
        for (int i = 0; i < iWrites; i++)
            vWanted.push_back(Notification(pParty, static_cast<uint64_t>(i)));
        EXPECT_EQ(pParty->Java().Printed("@ writeRedirectedFile"), vWanted);
        const Lines vLines = pParty->Java().Printed("@ log");
        EXPECT_GE(vLines.size(), static_cast<size_t>(iWrites));
        for (const std::string& sLine : vLines)
            EXPECT_TRUE(sLine.starts_with("@ logInfo|host|native|" + Export(pParty) + "|"))
                << sLine;
    }

    static inline std::unique_ptr<CParty> s_pServer;
    static inline std::unique_ptr<CParty> s_pA;
    static inline std::unique_ptr<CParty> s_pB;
    std::map<std::string, std::string> m_Handles;  // of the redirected file, by owner
};

}  // namespace

// ---- Whose an event is ----

TEST_F(JavaRelay, TwoExportsAtOnce_EachOwnerHearsOfItsOwn)
{
    constexpr int WRITES = IS_SANITIZED ? 10 : 50;
    StartAll();
    s_pServer->Native("setLogControl", std::to_string(LOG_CALLS));
    s_pA->Java().Clear();
    s_pB->Java().Clear();
    s_pServer->Java().Clear();
    const auto writeAll = [this](const CParty* pParty) {
        CTcpClient client(WIRE_NFS_PORT);
        for (int i = 0; i < WRITES; i++)
            EXPECT_EQ(client.Call(WriteCall(pParty, static_cast<uint64_t>(i))).Word(), 0U);
    };
    std::thread thread(writeAll, s_pA.get());
    writeAll(s_pB.get());
    thread.join();
    s_pServer->Native("setLogControl", "0");
    ExpectOwn(s_pA.get(), WRITES);
    ExpectOwn(s_pB.get(), WRITES);

    // The server's own log has every line, too, and none of the notifications.
    EXPECT_EQ(s_pServer->Java().Printed("@ writeRedirectedFile"), Lines());
    for (CParty* pParty : {s_pA.get(), s_pB.get()}) {
        Lines vHere = s_pServer->Java().Printed("@ logInfo|host|native|" + Export(pParty) + "|");
        EXPECT_EQ(vHere, pParty->Java().Printed("@ logInfo"));
    }
}

TEST_F(JavaRelay, Answers_OfEachOwner_ReachTheNfsClient)
{
    StartAll();
    s_pA->Java().Call("answer host writeRedirectedFile -1");
    EXPECT_EQ(Write(s_pA.get()), STAT_INVAL);
    EXPECT_EQ(Write(s_pB.get()), 0U);
    s_pA->Java().Call("answer host writeRedirectedFile default");
    EXPECT_EQ(Write(s_pA.get()), 0U);
}

TEST_F(JavaRelay, Loop_NotRunning_NotificationsFailAndLinesArePrinted)
{
    StartAll();
    s_pA->StopLoop();
    s_pA->Java().Clear();
    s_pServer->Native("setLogControl", std::to_string(LOG_CALLS));
    EXPECT_EQ(Write(s_pA.get()), STAT_INVAL);
    s_pServer->Native("setLogControl", "0");
    EXPECT_EQ(s_pA->Java().Printed("@ "), Lines());
    EXPECT_GE(s_pA->Java().CountHaving("[info] (vm-a) "), 1U);

    s_pA->StartLoop();
    EXPECT_EQ(Write(s_pA.get()), 0U);
    EXPECT_EQ(s_pA->Java().Printed("@ write"), Lines{Notification(s_pA.get(), 0)});
}

// The object whose method asks gets the lines, if there is no loop.
TEST_F(JavaRelay, Loop_NotRunning_ListingReachesTheCaller)
{
    s_pA->Native("addSession", "\"s1\"", "\"/x\"");
    EXPECT_EQ(s_pA->Native("getSessionInfo", "true"), "1");
    EXPECT_EQ(s_pA->Java().Printed("@ "), Lines{"@ logRaw|host|native|svr| session1 - s1 : /x"});
    EXPECT_EQ(s_pB->Java().Printed("@ "), Lines());
}

// ---- From callbacks back into the library ----

TEST_F(JavaRelay, Listing_FromANotification_IsWholeBeforeItsResult)
{
    StartAll();
    s_pA->Inside("writeRedirectedFile", CParty::Command("getMountInfo", "false", "true"));
    EXPECT_EQ(Write(s_pA.get()), 0U);
    const std::string sStart = "@ logRaw|host|native|svr| mount";
    const std::string sAddress = " (127.0.0.1) [";
    EXPECT_EQ(
        s_pA->Java().Printed(),
        (Lines{Notification(s_pA.get(), 0),
               sStart + "1 - " + Folder(s_pA.get()) + " : vm-a" + sAddress + "a]",
               sStart + "2 - " + Folder(s_pB.get()) + " : vm-b" + sAddress + "b]", "> native|2"}));
    EXPECT_EQ(s_pB->Java().Printed("@ "), Lines());
}

TEST_F(JavaRelay, Everything_FromANotificationOrALine_Returns)
{
    StartAll();
    const std::string sOther = Quoted(m_Folder.Path());
    const std::vector<std::pair<std::string, std::string>> vCommands = {
        {CParty::Command("isServerRunning"), "true"},
        {CParty::Command("getServerStatus"), "3"},
        {CParty::Command("getVersion"), "1.2"},
        {CParty::Command("addSession", "\"s1\"", "\"/x\""), "void"},
        {CParty::Command("isSessionExists", "\"s1\""), "true"},
        {CParty::Command("isLocalSessionExists", "\"s1\""), "false"},
        {CParty::Command("getSessionInfo", "true"), "1"},
        {CParty::Command("removeSession", "\"s1\""), "void"},
        {CParty::Command("addMountPoint", sOther, "\"other\""), "true"},
        {CParty::Command("getMountInfo", "false", "true"), "3"},
        {CParty::Command("removeMountPoint", sOther), "void"},
        {CParty::Command("closeAllOpenedFiles", sOther), "void"},
        {CParty::Command("exportRedirectedFileInfo", Quoted(Folder(s_pA.get()) + "/disk"),
                         Quoted(m_Folder.Write("target", "")), "false"),
         "void"},
        {CParty::Command("startServer", "0", "0", "false"),
         "! java.io.IOException: NFS already running"},
        {CParty::Command("startRemoteController"),
         "! java.io.IOException: Remote controller cannot be started from a callback"},
        {CParty::Command("stopRemoteController"), "void"},
        {CParty::Command("stopServer"), "void"},
    };
    Lines vWanted;
    for (const auto& [sCommand, sResult] : vCommands)
        vWanted.push_back("> native|" + sResult);

    for (const auto& [sCommand, sResult] : vCommands)
        s_pA->Inside("writeRedirectedFile", sCommand);
    EXPECT_EQ(Write(s_pA.get()), 0U);
    EXPECT_EQ(s_pA->Java().Printed("> "), vWanted);

    s_pA->Java().Clear();
    for (const auto& [sCommand, sResult] : vCommands)
        s_pA->Inside("logInfo", sCommand);
    s_pServer->Native("setLogControl", std::to_string(LOG_CALLS));
    EXPECT_EQ(Write(s_pA.get()), 0U);
    EXPECT_EQ(s_pA->Java().Printed("> "), vWanted);
    s_pServer->Native("setLogControl", "1");
    EXPECT_EQ(Write(s_pB.get()), 0U);
}

// Both owners ask for a listing at the same moment, each from a notification.
TEST_F(JavaRelay, Listings_FromNotificationsOfBothOwners_ReachEachTheirs)
{
    constexpr int ROUNDS = IS_SANITIZED ? 3 : 10;
    StartAll();
    const auto writeAll = [this](CParty* pParty) {
        CTcpClient client(WIRE_NFS_PORT);
        for (int i = 0; i < ROUNDS; i++) {
            pParty->Inside("writeRedirectedFile", CParty::Command("getMountInfo", "false", "true"));
            EXPECT_EQ(client.Call(WriteCall(pParty, 0)).Word(), 0U);
        }
    };
    std::thread thread(writeAll, s_pA.get());
    writeAll(s_pB.get());
    thread.join();
    for (CParty* pParty : {s_pA.get(), s_pB.get()}) {
        EXPECT_EQ(pParty->Java().Printed("> "), Lines(ROUNDS, "> native|2"));
        EXPECT_EQ(pParty->Java().Printed("@ logRaw").size(), 2U * ROUNDS);
    }
}

// ---- A client that is gone, and one that stands still ----

TEST_F(JavaRelay, Client_Killed_CostsItsOwnNotificationsOnly)
{
    StartAll();
    CParty doomed("c", 2);
    doomed.Initial(LOG_ERRORS);
    doomed.StartLoop();
    Publish(&doomed);
    EXPECT_EQ(Write(&doomed), 0U);

    // In the middle of a notification, and before the next.
    doomed.Java().Call("block host writeRedirectedFile");
    CTcpClient client(WIRE_NFS_PORT);
    ASSERT_TRUE(client.Send(WriteCall(&doomed, 0).Record()));
    EXPECT_TRUE(doomed.Java().WaitFor("@ writeRedirectedFile", 2));
    doomed.Java().Kill();
    EXPECT_EQ(client.ReceiveReply().Word(), STAT_INVAL);
    EXPECT_GE(s_pServer->Java().CountHaving("@ logError|host|native|vm-c|[IpcClient.SendRequest] "
                                            "Fail to read ipc server reply. Connection reset by "
                                            "peer (104)"),
              1U);
    s_pServer->Java().Clear();
    EXPECT_EQ(Write(&doomed), STAT_INVAL);
    EXPECT_GE(s_pServer->Java().CountHaving("@ logError|host|native|vm-c|[IpcClient.SendRequest] "
                                            "Fail to connect ipc client socket. Connection refused "
                                            "(111)"),
              1U);
    EXPECT_EQ(Write(s_pA.get()), 0U);
    EXPECT_EQ(s_pA->Native("getServerStatus"), "3");
    EXPECT_EQ(s_pB->Native("getMountInfo", "false", "false"), "3");
    EXPECT_EQ(s_pA->Java().CountHaving("vm-c"), 0U);
    unlink("/tmp/nfs-c");
}

TEST_F(JavaRelay, Client_Frozen_DoesNotKeepTheServerFromStopping)
{
    StartAll();
    ASSERT_EQ(kill(s_pA->Java().Pid(), SIGSTOP), 0);
    siginfo_t info;  // it goes on for a moment
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(s_pA->Java().Pid()), &info, WSTOPPED), 0);
    s_pServer->Native("setLogControl", std::to_string(LOG_CHANNELS));
    CTcpClient client(WIRE_NFS_PORT);
    ASSERT_TRUE(client.Send(WriteCall(s_pA.get(), 0).Record()));
    const char* const pcWaiting = "[IpcClient.SendRequest] Read ipc server reply";
    EXPECT_TRUE(s_pServer->Java().WaitFor(pcWaiting));
    EXPECT_EQ(s_pServer->Native("stopServer"), "void");
    const char* const pcGaveUp = "[IpcClient.SendRequest] Fail to read ipc server reply. "
                                 "Interrupted system call (4)";
    EXPECT_GE(s_pServer->Java().CountHaving(pcGaveUp), 1U);

    // A listing for it, and then the channel.
    s_pServer->Native("addSession", "\"s1\"", "\"/x\"");
    s_pServer->Java().Clear();
    const relay::CAsking listing("/tmp/nfs-server",
                                 Header(GROUP_REQUEST, 20) + Field("a", 256) + Int32(1));
    EXPECT_TRUE(s_pServer->Java().WaitFor(pcWaiting));
    EXPECT_EQ(s_pServer->Native("stopRemoteController"), "void");
    EXPECT_EQ(s_pServer->Java().CountHaving(pcGaveUp), 1U);
    ASSERT_EQ(kill(s_pA->Java().Pid(), SIGCONT), 0);
}

// ---- Client mode ----

TEST_F(JavaRelay, StartServer_InClientMode_IsTheServersWithItsText)
{
    EXPECT_EQ(s_pA->Native("isServerRunning"), "false");
    EXPECT_EQ(s_pServer->Native("isServerRunning"), "false");
    const CAutoFd taken(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int iOn = 1;  // connections of another case may still be going
    setsockopt(taken.Get(), SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(WIRE_NFS_PORT);
    ASSERT_EQ(bind(taken.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(taken.Get(), 1), 0);
    EXPECT_EQ(s_pA->Native("startServer", "0", "0", "false"),
              "! java.io.IOException: NFS daemon failed to open port 2049");
    EXPECT_EQ(s_pA->Native("startServer", "0", "3049", "false"), "true");
    EXPECT_EQ(s_pServer->Native("isServerRunning"), "true");
    EXPECT_EQ(s_pB->Native("isServerRunning"), "true");
    EXPECT_EQ(s_pB->Native("startServer", "0", "0", "false"),
              "! java.io.IOException: NFS already running");
    EXPECT_EQ(s_pA->Native("stopServer"), "void");  // which it cannot
    EXPECT_EQ(s_pServer->Native("isServerRunning"), "true");
}

TEST_F(JavaRelay, AddMountPoint_OfANameThatTheOtherHas_FailsWithTheServersText)
{
    const std::string sFolder = Quoted(m_Folder.Path());
    EXPECT_EQ(s_pA->Native("addMountPoint", sFolder, "\"vm1\""), "true");
    EXPECT_EQ(s_pB->Native("addMountPoint", sFolder, "\"vm1\""),
              "! java.io.IOException: Export name \"vm1\" already defined");
}

TEST_F(JavaRelay, Sessions_InClientMode_AreTheServers)
{
    s_pA->Native("addSession", "\"s1\"", "\"/x\"");
    for (CParty* pParty : {s_pA.get(), s_pB.get(), s_pServer.get()})
        EXPECT_EQ(pParty->Native("isSessionExists", "\"s1\""), "true");
    EXPECT_EQ(s_pA->Native("isLocalSessionExists", "\"s1\""), "false");
    EXPECT_EQ(s_pServer->Native("isLocalSessionExists", "\"s1\""), "true");
}

TEST_F(JavaRelay, Modes_AreTold)
{
    EXPECT_EQ(s_pServer->Native("getAccessMode"), "1");
    EXPECT_EQ(s_pA->Native("getAccessMode"), "2");
    EXPECT_EQ(s_pServer->Native("getDescription"), "External NFS Server");
    EXPECT_EQ(s_pA->Native("getDescription"), "External NFS Server");
}
