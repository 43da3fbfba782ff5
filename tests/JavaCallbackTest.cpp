// What the library calls in a host application: from native methods, and from the threads that
// serve NFS clients.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sched.h>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "JavaFixture.h"
#include "Sanitizers.h"

namespace {

constexpr uint32_t STAT_IO = 5;
constexpr uint32_t STAT_INVAL = 22;

constexpr long OWN_REFERENCES = 3;  // that the virtual machine takes and drops as it likes

const std::string IO_EXCEPTION = "! java.io.IOException: ";
const std::string CONTROLLER_LINE =
    "[NfsMain.StartRemoteController] No remote controller to start. "
    "It is NOT support in internal server mode.";

std::string SattrSizeAndTimes(uint64_t iSize, uint32_t iAccessTime, uint32_t iModifyTime)
{
    return Words({0, 0, 0, 1}) + CXdr().Hyper(iSize).Bytes() +
           Words({2, iAccessTime, 0, 2, iModifyTime, 0});
}

class JavaCallback : public CJavaFixture {
protected:
    void TearDown() override
    {
        StopLoop();
        CJavaFixture::TearDown();
    }

    // Keeps the callback of a host object installed: its loop does not come back from its first
    // question.
    void StartLoop(const std::string& sHost = "host")
    {
        Java("block " + sHost + " isInterrupted");
        s_pJava->Begin("loop", sHost + ".receiveCallbackLoop $h -1");
        EXPECT_TRUE(s_pJava->WaitFor("@ isInterrupted|" + sHost + "|loop"));
        s_pJava->Clear();
        m_sLoopHost = sHost;
    }
    void StopLoop()
    {
        if (m_sLoopHost.empty())
            return;
        Java("answer " + m_sLoopHost + " isInterrupted 1");
        Java("release " + m_sLoopHost + " isInterrupted");
        EXPECT_EQ(s_pJava->End("loop"), "false");
        m_sLoopHost.clear();
    }

    void StartServerAndLoop()
    {
        StartJavaServer();
        StartLoop();
    }

    // The calls by the library since the last time, the export's path left out.
    Lines TakeCalls()
    {
        Lines vLines = s_pJava->Printed("@ ");
        const std::string sFolder = m_Folder.Path() + "/";
        for (std::string& sLine : vLines)
            for (size_t i = sLine.find(sFolder); i != std::string::npos; i = sLine.find(sFolder, i))
                sLine.erase(i, sFolder.size());
        s_pJava->Clear();
        return vLines;
    }

    // Writes one line to the host.
    static std::string LogOneLine(const std::string& sHost = "host")
    {
        Java("host.setLogControl $h 2");
        const std::string sResult = Java(sHost + ".startRemoteController $h");
        Java("host.setLogControl $h 0");
        return sResult;
    }

    std::string m_sLoopHost;  // whose loop runs
};

// Runs every native method inside the next call of a host method, and looks at what each yields.
class JavaReentry : public JavaCallback {
protected:
    struct Reentry {
        std::string sCommand;
        std::string sResult;
    };

    std::vector<Reentry> GetCommands(const std::string& sStartController) const
    {
        const std::string sPath = Quote(m_Folder.Path("other"));
        const std::string sTarget = Quote(m_Folder.Path("target"));
        return {
            {"x = host.initial \"inner\" 0 0", ""},
            {"host.terminate $h", "void"},
            {Command("isServerRunning"), "true"},
            {Command("startRemoteController"), sStartController},
            {Command("stopRemoteController"), "void"},
            {Command("startServer", "0", "0", "false"),
             "! java.io.IOException: NFS cannot be started from a callback"},
            {Command("stopServer"), "void"},
            {Command("receiveCallbackLoop", "0"), "false"},
            {Command("addMountPoint", Quote(m_Outside.Path()), "\"vm2\""), "true"},
            {Command("addMountPoint", "null", "null"),
             "! java.io.IOException: Local mount folder is not defined"},
            {Command("getMountInfo", "false", "true"), "2"},
            {Command("removeMountPoint", Quote(m_Outside.Path())), "void"},
            {Command("getMountInfo", "false", "true"), "1"},
            {Command("addSession", "\"s\"", "\"/f\""), "void"},
            {Command("isSessionExists", "\"s\""), "true"},
            {Command("isLocalSessionExists", "\"s\""), "true"},
            {Command("getSessionInfo", "true"), "1"},
            {Command("removeSession", "\"s\""), "void"},
            {Command("openRedirectedFile", sPath, "10", "false", "0", "0"), "void"},
            {Command("addRedirectedFileSegment", sPath, "null", "0", "0", "10"), "void"},
            {Command("exportRedirectedFile", sPath, sTarget), "void"},
            {Command("exportRedirectedFileInfo", sPath, sTarget, "true"), "void"},
            {Command("closeRedirectedFile", sPath), "void"},
            {Command("closeAllRedirectedFiles", sPath), "void"},
            {Command("closeOpenedFile", sPath), "void"},
            {Command("closeAllOpenedFiles", Quote(m_Folder.Path())), "void"},
            {Command("setLogControl", "0"), "void"},
            {Command("getVersion"), "1.2"},
            {Command("getDescription"), ""},
            {Command("getAccessMode"), ""},
            {Command("runTestMode", sPath, "1"), "void"},
            {Command("getServerStatus"), "3"},
            {Command("addVSphereInfo", "\"m\"", "\"h\"", "\"p\"", "\"u\"", "\"w\""), "void"},
            {Command("removeVSphereInfo", "\"m\""), "void"},
            {"host.terminate $x", "void"},
        };
    }

    static void Prepare(const std::string& sMethod, const std::vector<Reentry>& vCommands)
    {
        for (const Reentry& reentry : vCommands)
            Java("inside host " + sMethod + " " + Quote(reentry.sCommand));
    }

    // The thread is the one that the commands ran on. An empty expectation takes what comes.
    static void ExpectDone(const std::string& sThread, const std::vector<Reentry>& vCommands)
    {
        const std::string sStart = "> " + sThread + "|";
        ASSERT_TRUE(s_pJava->WaitFor(sStart, vCommands.size()));
        const Lines vLines = s_pJava->Printed(sStart);
        ASSERT_EQ(vLines.size(), vCommands.size());
        for (size_t i = 0; i < vLines.size(); i++) {
            const bool bAny = vCommands[i].sResult.empty();
            EXPECT_EQ(vLines[i], bAny ? vLines[i] : sStart + vCommands[i].sResult)
                << vCommands[i].sCommand;
        }
    }

    // Nothing of what was refused has happened.
    void ExpectAlive()
    {
        EXPECT_TRUE(IsServing());
        EXPECT_EQ(Native("isServerRunning"), "true");
        EXPECT_EQ(Native("getMountInfo", "false", "false"), "1");
        // A controller that was made inside a callback is not ended there either.
        EXPECT_EQ(Java("host.terminate $x"), "void");
    }

    const CScratchFolder m_Outside;
};

// Hosts that lack a method: a virtual machine for each.
class JavaMissing : public JavaCallback {
protected:
    static void SetUpTestSuite() {}
    void SetUp() override {}

    static void StartWithout(const std::string& sMethods)
    {
        s_pJava = std::make_unique<CJavaHost>(Lines{"-Dstagenfs.without=" + sMethods});
        Initial(0);
    }
};

class JavaLoad : public JavaCallback {
protected:
    static void SetUpTestSuite() {}
    static void TearDownTestSuite() { s_pJava.reset(); }
    void SetUp() override
    {
        // The whole heap is there from the start, so that only what the library leaves can grow.
        s_pJava = std::make_unique<CJavaHost>(Lines{"-Xms64m", "-XX:+AlwaysPreTouch"});
        Initial(0);
    }

    static constexpr unsigned int CLIENTS = 10;

    // A connection that the server has taken. All its places are needed, and one whose client has
    // gone is free only when the server has seen that.
    static std::unique_ptr<CTcpClient> ConnectWhenThereIsRoom()
    {
        for (int iTries = 0; iTries < 10000; iTries++) {
            auto pClient = std::make_unique<CTcpClient>(WIRE_NFS_PORT);
            const RpcCall call = NfsCall(0, "");
            if (pClient->Call(call).IsSuccess(call.iXid))
                return pClient;
            sched_yield();
        }
        ADD_FAILURE() << "there is no room";
        return std::make_unique<CTcpClient>(WIRE_NFS_PORT);
    }

    // The clients write that often between them, each over a connection of its own.
    static void WriteMany(const std::string& sHandle, long long iCount)
    {
        std::vector<std::thread> vClients;
        for (unsigned int i = 0; i < CLIENTS; i++)
            vClients.emplace_back([&sHandle, i, iCount] {
                const std::unique_ptr<CTcpClient> pClient = ConnectWhenThereIsRoom();
                RpcCall call = NfsCall(
                    WRITE, CXdr().Opaque(sHandle).Hyper(i).Word(4).Word(2).Opaque("data").Bytes());
                for (long long j = 0; j < iCount / CLIENTS; j++) {
                    call.iXid++;
                    CReply reply = pClient->Call(call);
                    ASSERT_TRUE(reply.IsSuccess(call.iXid));
                    ASSERT_EQ(reply.Word(), 0U);
                }
            });
        for (std::thread& client : vClients)
            client.join();
    }
};

}  // namespace

// ---- What arrives ----

TEST_F(JavaCallback, Write_ArrivesFromTheServersThread)
{
    StartServerAndLoop();
    const std::string sHandle = OpenRedirected("disk");
    EXPECT_EQ(WriteAt(sHandle, 0, "data"), "4");
    EXPECT_EQ(WriteAt(sHandle, (uint64_t{1} << 40) + 5, "X"), "1");
    EXPECT_EQ(TakeCalls(), (Lines{"@ writeRedirectedFile|host|native|vm1|disk|0|0|4",
                                  "@ writeRedirectedFile|host|native|vm1|disk|1099511627781|0|1"}));
}

TEST_F(JavaCallback, Setattr_ArrivesWithEachOfItsValues)
{
    StartServerAndLoop();
    const std::string sHandle = OpenRedirected("disk");
    const std::pair<std::string, std::string> CASES[] = {
        {SattrSize(5), "true|5|false|0|false|0"},
        {SattrSize(uint64_t{1} << 40), "true|1099511627776|false|0|false|0"},
        {SattrSize(~uint64_t{0}), "true|-1|false|0|false|0"},  // the same bits
        {Words({0, 0, 0, 0, 2, 7, 0, 0}), "false|0|true|7|false|0"},
        {Words({0, 0, 0, 0, 0, 2, 8, 0}), "false|0|false|0|true|8"},
        {SattrSizeAndTimes(3, 0xFFFFFFFF, 0x80000000), "true|3|true|4294967295|true|2147483648"},
    };
    for (const auto& [sAttributes, sArguments] : CASES) {
        EXPECT_EQ(Setattr(sHandle, sAttributes), 0U) << sArguments;
        EXPECT_EQ(TakeCalls(),
                  Lines{"@ setRedirectedFileAttributes|host|native|vm1|disk|" + sArguments});
    }
}

TEST_F(JavaCallback, RenameAndRemove_Arrive)
{
    StartServerAndLoop();
    OpenRedirected("disk");
    EXPECT_EQ(Rename("disk", "moved"), RenameStatus(0));
    EXPECT_EQ(TakeCalls(), Lines{"@ renameRedirectedFile|host|native|vm1|disk|moved"});
    EXPECT_EQ(Remove(m_sRoot, "moved"), Status(0));
    EXPECT_EQ(TakeCalls(), Lines{"@ removeRedirectedFile|host|native|vm1|moved"});
}

TEST_F(JavaCallback, LogLines_ArriveByTheirKind)
{
    EXPECT_EQ(LogOneLine(), "true");
    EXPECT_EQ(TakeCalls(), Lines{"@ logInfo|host|main|test|" + CONTROLLER_LINE});
    Native("setLogControl", "1");
    EXPECT_TRUE(Native("startServer", "0", "70000", "false").starts_with(IO_EXCEPTION));
    const Lines vErrors = TakeCalls();
    ASSERT_EQ(vErrors.size(), 1U);
    EXPECT_TRUE(vErrors[0].starts_with("@ logError|host|main|test|[NfsMain.StartServer] Fail to "
                                       "start NFS daemon. Reason="))
        << vErrors[0];
    Native("addSession", "\"s\"", "\"/f\"");
    EXPECT_EQ(Native("getSessionInfo", "true"), "1");
    EXPECT_EQ(TakeCalls(), Lines{"@ logRaw|host|main|test| session1 - s : /f"});
}

// Each byte that belongs to no character is shown as a question mark.
TEST_F(JavaCallback, Name_ThatIsNoUtf8_ArrivesAllTheSame)
{
    StartServerAndLoop();
    OpenRedirected("disk");
    EXPECT_EQ(Rename("disk", "a\xFF\xC3z"), RenameStatus(0));
    EXPECT_EQ(Rename("a\xFF\xC3z", "\u00fc\u6f22\U0001f600"), RenameStatus(0));
    EXPECT_EQ(TakeCalls(),
              (Lines{"@ renameRedirectedFile|host|native|vm1|disk|a??z",
                     "@ renameRedirectedFile|host|native|vm1|a??z|\\u00fc\\u6f22\\ud83d\\ude00"}));
    Native("setLogControl", "16");
    EXPECT_NE(LookupStatus(m_sRoot, "no\xFE file"), 0U);
    EXPECT_GT(s_pJava->CountHaving("no? file"), 0U);
}

// ---- What the host answers ----

TEST_F(JavaCallback, Answers_BecomeWhatTheClientIsTold)
{
    StartServerAndLoop();
    const std::string sHandle = OpenRedirected("disk");
    for (const char* pcTaken : {"4", "1", "0"}) {
        Java(std::string("answer host writeRedirectedFile ") + pcTaken);
        EXPECT_EQ(WriteAt(sHandle, 0, "data"), pcTaken);
    }
    Java("answer host writeRedirectedFile -1");
    EXPECT_EQ(WriteAt(sHandle, 0, "data"), "(status 22)");
    for (const char* pcMethod :
         {"setRedirectedFileAttributes", "renameRedirectedFile", "removeRedirectedFile"})
        Java(std::string("answer host ") + pcMethod + " -1");
    EXPECT_EQ(Setattr(sHandle, SattrSize(5)), STAT_INVAL);
    EXPECT_EQ(Rename("disk", "moved"), RenameStatus(STAT_IO));
    EXPECT_EQ(Remove(m_sRoot, "moved"), Status(STAT_IO));
}

TEST_F(JavaCallback, WithoutCallback_NotificationsFail)
{
    StartJavaServer();
    const std::string sHandle = OpenRedirected("disk");
    EXPECT_EQ(WriteAt(sHandle, 0, "data"), "(status 22)");
    EXPECT_EQ(Setattr(sHandle, SattrSize(5)), STAT_INVAL);
    EXPECT_EQ(TakeCalls(), Lines());
    StartLoop();
    EXPECT_EQ(WriteAt(sHandle, 0, "data"), "4");
    StopLoop();
    EXPECT_EQ(WriteAt(sHandle, 0, "data"), "(status 22)");
}

TEST_F(JavaCallback, Notification_ThatThrows_CountsAsFailed)
{
    StartServerAndLoop();
    for (const std::string sClass :
         {"java.lang.RuntimeException", "java.io.IOException", "java.lang.Error",
          "java.lang.OutOfMemoryError", "java.lang.StackOverflowError", "java.lang.ThreadDeath",
          "java.lang.InterruptedException"}) {
        SCOPED_TRACE(sClass);
        const std::string sHandle = OpenRedirected("disk");
        for (const char* pcMethod : {"writeRedirectedFile", "setRedirectedFileAttributes",
                                     "renameRedirectedFile", "removeRedirectedFile"})
            Java(std::string("throw host ") + pcMethod + " " + sClass);
        EXPECT_EQ(WriteAt(sHandle, 0, "data"), "(status 22)");
        EXPECT_EQ(Setattr(sHandle, SattrSize(5)), STAT_INVAL);
        Java("throw host writeRedirectedFile nothing");
        EXPECT_EQ(WriteAt(sHandle, 0, "data"), "4");  // nothing is left on the thread
        EXPECT_EQ(Rename("disk", "moved"), RenameStatus(STAT_IO));
        EXPECT_EQ(Remove(m_sRoot, "moved"), Status(STAT_IO));
    }
}

// The line goes where it would go without a host, and the method that wrote it ends as usual.
TEST_F(JavaCallback, LogLine_ThatThrows_IsPrinted)
{
    for (const std::string sClass : {"java.lang.RuntimeException", "java.io.IOException",
                                     "java.lang.Error", "java.lang.OutOfMemoryError"}) {
        SCOPED_TRACE(sClass);
        for (const char* pcMethod : {"logInfo", "logError", "logRaw"})
            Java(std::string("throw host ") + pcMethod + " " + sClass);
        s_pJava->Clear();
        EXPECT_EQ(LogOneLine(), "true");
        EXPECT_TRUE(s_pJava->WaitFor("[info] (test) " + CONTROLLER_LINE));
        Native("addSession", "\"s\"", "\"/f\"");
        EXPECT_EQ(Native("getSessionInfo", "true"), "1");
        EXPECT_EQ(s_pJava->Printed(" session1 - s : /f").size(), 1U);
        // The method's own exception is the one that the host meets.
        Native("setLogControl", "1");
        EXPECT_TRUE(Native("startServer", "0", "70000", "false")
                        .starts_with(IO_EXCEPTION + "NFS daemon failed"));
        EXPECT_EQ(s_pJava->Printed("[erro] (test) [NfsMain.StartServer] Fail to").size(), 1U);
        Native("setLogControl", "0");
    }
}

TEST_F(JavaCallback, IsInterrupted_ThatThrows_IsANo)
{
    Java("throw host isInterrupted java.lang.RuntimeException");
    EXPECT_EQ(Native("receiveCallbackLoop", "1"), "false");
    EXPECT_EQ(TakeCalls(), Lines{"@ isInterrupted|host|main"});
}

TEST_F(JavaMissing, EachMethod_CountsAsFailed)
{
    StartWithout("writeRedirectedFile,removeRedirectedFile,logRaw");
    Native("addSession", "\"s\"", "\"/f\"");
    EXPECT_EQ(LogOneLine(), "true");
    EXPECT_EQ(TakeCalls(), Lines{"@ logInfo|host|main|test|" + CONTROLLER_LINE});
    EXPECT_EQ(Native("getSessionInfo", "true"), "1");
    EXPECT_EQ(s_pJava->Printed(), Lines{" session1 - s : /f"});

    StartServerAndLoop();
    const std::string sHandle = OpenRedirected("disk");
    EXPECT_EQ(WriteAt(sHandle, 0, "data"), "(status 22)");
    EXPECT_EQ(Setattr(sHandle, SattrSize(6)), 0U);
    EXPECT_EQ(Rename("disk", "moved"), RenameStatus(0));
    EXPECT_EQ(Remove(m_sRoot, "moved"), Status(STAT_IO));
    EXPECT_EQ(TakeCalls(),
              (Lines{"@ setRedirectedFileAttributes|host|native|vm1|disk|true|6|false|0|false|0",
                     "@ renameRedirectedFile|host|native|vm1|disk|moved"}));
}

TEST_F(JavaMissing, EachOtherMethod_CountsAsFailed)
{
    StartWithout("setRedirectedFileAttributes,renameRedirectedFile,logInfo,logError");
    EXPECT_EQ(LogOneLine(), "true");
    EXPECT_EQ(s_pJava->Printed(), Lines{"[info] (test) " + CONTROLLER_LINE});
    s_pJava->Clear();
    Native("setLogControl", "1");
    EXPECT_EQ(Native("startServer", "0", "70000", "false"),
              IO_EXCEPTION + "NFS daemon failed to open port 70000");
    EXPECT_EQ(s_pJava->Printed("[erro] (test) [NfsMain.StartServer] Fail to start NFS daemon. Rea")
                  .size(),
              1U);
    Native("setLogControl", "0");
    s_pJava->Clear();
    Native("addSession", "\"s\"", "\"/f\"");
    EXPECT_EQ(Native("getSessionInfo", "true"), "1");
    EXPECT_EQ(TakeCalls(), Lines{"@ logRaw|host|main|test| session1 - s : /f"});

    StartServerAndLoop();
    const std::string sHandle = OpenRedirected("disk");
    EXPECT_EQ(Setattr(sHandle, SattrSize(5)), STAT_INVAL);
    EXPECT_EQ(WriteAt(sHandle, 0, "data"), "4");
    EXPECT_EQ(Rename("disk", "moved"), RenameStatus(STAT_IO));
    EXPECT_EQ(Remove(m_sRoot, "moved"), Status(0));
    EXPECT_EQ(TakeCalls(), (Lines{"@ writeRedirectedFile|host|native|vm1|disk|0|0|4",
                                  "@ removeRedirectedFile|host|native|vm1|moved"}));
}

TEST_F(JavaMissing, IsInterrupted_IsANo)
{
    StartWithout("isInterrupted");
    EXPECT_EQ(Native("receiveCallbackLoop", "1"), "false");
    EXPECT_EQ(LogOneLine(), "true");
    EXPECT_EQ(TakeCalls(), Lines{"@ logInfo|host|main|test|" + CONTROLLER_LINE});
}

// ---- Threads ----

// A thread with Java frames stays known, though every call ends with a detach.
TEST_F(JavaCallback, ThreadOfTheHost_GoesOnAfterCallbacks)
{
    for (int i = 0; i < 50; i++)
        Native("addSession", "\"s" + std::to_string(i) + "\"", "\"/f\"");
    EXPECT_EQ(Native("getSessionInfo", "true"), "50");
    EXPECT_EQ(TakeCalls().size(), 50U);
    EXPECT_EQ(Native("getVersion"), "1.2");
    EXPECT_EQ(s_pJava->CallOn("other", Command("getSessionInfo", "true")), "50");
    EXPECT_EQ(s_pJava->CallOn("other", Command("getDescription")), "Internal NFS Server");
    EXPECT_EQ(TakeCalls().size(), 50U);
    Native("setLogControl", "1");
    EXPECT_EQ(Native("startServer", "0", "70000", "false"),
              IO_EXCEPTION + "NFS daemon failed to open port 70000");
    EXPECT_EQ(Native("getVersion"), "1.2");
}

// A thread of the server is known for the length of a call.
TEST_F(JavaCallback, ThreadOfTheServer_IsKnownDuringACallOnly)
{
    StartServerAndLoop();
    const std::string sHandle = OpenRedirected("disk");
    const std::string sBefore = Java("threads");
    for (int i = 0; i < 3; i++) {
        Java("inside host writeRedirectedFile \"threads\"");
        EXPECT_EQ(WriteAt(sHandle, 0, "data"), "4");
        EXPECT_EQ(s_pJava->Printed("> "),
                  Lines{"> native|" + std::to_string(std::stoi(sBefore) + 1)});
        s_pJava->Clear();
    }
    EXPECT_EQ(Java("threads"), sBefore);
}

TEST_F(JavaCallback, ManyLinesOfOneCall_LeaveNoReferences)
{
    constexpr int SESSIONS = 500;
    for (int i = 0; i < SESSIONS; i++)
        Native("addSession", "\"s" + std::to_string(i) + "\"", "\"/f\"");
    Java("quiet host logRaw");
    EXPECT_EQ(Native("getSessionInfo", "true"), "500");
    EXPECT_EQ(Java("count host logRaw"), "500");
    const long iBefore = s_pJava->CountGlobalReferences();
    Java("repeat 20 " + Command("getSessionInfo", "true"));
    EXPECT_LE(s_pJava->CountGlobalReferences(), iBefore + OWN_REFERENCES);
}

TEST_F(JavaCallback, GuardedCalls_LeaveNoReferences)
{
    Native("isSessionExists", "\"s\"");
    Java("host.initial null 0 0");
    Native("addMountPoint", "null", "null");
    const long iBefore = s_pJava->CountGlobalReferences();
    Java("repeat 200 " + Command("isSessionExists", "\"s\""));
    for (int i = 0; i < 50; i++) {
        Java("host.initial null 0 0");
        Native("addMountPoint", "null", "null");
    }
    EXPECT_LE(s_pJava->CountGlobalReferences(), iBefore + OWN_REFERENCES);
}

// ---- Which host object ----

TEST_F(JavaCallback, TemporaryCallback_IsTheObjectOfTheCall)
{
    Java("new other");
    Native("addSession", "\"s\"", "\"/f\"");
    EXPECT_EQ(Java("other.getSessionInfo $h true"), "1");
    EXPECT_EQ(Native("getSessionInfo", "true"), "1");
    EXPECT_EQ(TakeCalls(), (Lines{"@ logRaw|other|main|test| session1 - s : /f",
                                  "@ logRaw|host|main|test| session1 - s : /f"}));
}

TEST_F(JavaCallback, TemporaryCallback_ServesAllUntilItsCallEnds)
{
    StartJavaServer();
    const std::string sHandle = OpenRedirected("disk");
    Native("addSession", "\"s\"", "\"/f\"");
    Java("new other");
    Java("block other logRaw");
    s_pJava->Begin("aside", "other.getSessionInfo $h true");
    ASSERT_TRUE(s_pJava->WaitFor("@ logRaw|other|aside"));
    s_pJava->Clear();
    EXPECT_EQ(WriteAt(sHandle, 0, "data"), "4");
    EXPECT_EQ(LogOneLine("host"), "true");
    EXPECT_EQ(TakeCalls(), (Lines{"@ writeRedirectedFile|other|native|vm1|disk|0|0|4",
                                  "@ logInfo|other|main|test|" + CONTROLLER_LINE}));
    Java("release other logRaw");
    EXPECT_EQ(s_pJava->End("aside"), "1");
    EXPECT_EQ(WriteAt(sHandle, 0, "data"), "(status 22)");
    EXPECT_EQ(LogOneLine("host"), "true");
    EXPECT_EQ(TakeCalls(), Lines{"@ logInfo|host|main|test|" + CONTROLLER_LINE});
}

// The object of a call that has ended is kept for whoever is still in it.
TEST_F(JavaCallback, TemporaryCallback_OutlivesItsCallWhereItIsUsed)
{
    Native("addSession", "\"s1\"", "\"/f\"");
    Native("addSession", "\"s2\"", "\"/f\"");
    Native("setLogControl", "2");
    Java("new first");
    Java("block first logInfo");
    Java("block first logRaw");
    s_pJava->Begin("one", "first.startRemoteController $h");
    ASSERT_TRUE(s_pJava->WaitFor("@ logInfo|first|one"));
    s_pJava->Begin("two", "host.getSessionInfo $h true");
    ASSERT_TRUE(s_pJava->WaitFor("@ logRaw|first|two|test| session1"));
    Java("release first logInfo");
    EXPECT_EQ(s_pJava->End("one"), "true");
    Java("heap");  // a collection
    Java("release first logRaw");
    EXPECT_EQ(s_pJava->End("two"), "2");
    EXPECT_EQ(s_pJava->CountHaving(" session1 - s1 : /f"), 1U);
    EXPECT_EQ(s_pJava->CountHaving(" session2 - s2 : /f"), 1U);
}

TEST_F(JavaCallback, Loop_IsTheObjectOfAllCalls)
{
    Java("new other");
    StartLoop("other");
    EXPECT_EQ(LogOneLine("host"), "true");
    EXPECT_EQ(TakeCalls(), Lines{"@ logInfo|other|main|test|" + CONTROLLER_LINE});
    StopLoop();
    s_pJava->Clear();
    EXPECT_EQ(LogOneLine("host"), "true");
    EXPECT_EQ(TakeCalls(), Lines{"@ logInfo|host|main|test|" + CONTROLLER_LINE});
}

// It asks whoever is in force, and takes over when nobody else is.
TEST_F(JavaCallback, Loop_DuringAnotherCall_TakesOverFromIt)
{
    StartJavaServer();
    const std::string sHandle = OpenRedirected("disk");
    Native("addSession", "\"s\"", "\"/f\"");
    Java("new other");
    Java("block other logRaw");
    s_pJava->Begin("aside", "other.getSessionInfo $h true");
    ASSERT_TRUE(s_pJava->WaitFor("@ logRaw|other|aside"));
    s_pJava->Begin("loop", Command("receiveCallbackLoop", "-1"));
    ASSERT_TRUE(s_pJava->WaitFor("@ isInterrupted|other|loop"));
    EXPECT_EQ(Java("count host isInterrupted"), "0");
    Java("release other logRaw");
    EXPECT_EQ(s_pJava->End("aside"), "1");
    ASSERT_TRUE(s_pJava->WaitFor("@ isInterrupted|host|loop"));
    EXPECT_EQ(WriteAt(sHandle, 0, "data"), "4");
    EXPECT_EQ(s_pJava->Printed("@ write").size(), 1U);
    EXPECT_TRUE(s_pJava->Printed("@ write")[0].starts_with("@ writeRedirectedFile|host|native|"));
    Java("answer host isInterrupted 1");
    EXPECT_EQ(s_pJava->End("loop"), "false");
}

// ---- Calls back into the library ----

TEST_F(JavaReentry, EveryMethod_InsideALogLine_Returns)
{
    StartJavaServer();
    const auto vCommands = GetCommands("true");
    Prepare("logInfo", vCommands);
    EXPECT_EQ(LogOneLine(), "true");
    ExpectDone("main", vCommands);
    ExpectAlive();
}

TEST_F(JavaReentry, EveryMethod_InsideANotification_Returns)
{
    StartServerAndLoop();
    const std::string sHandle = OpenRedirected("disk");
    const auto vCommands = GetCommands("true");
    Prepare("writeRedirectedFile", vCommands);
    EXPECT_EQ(WriteAt(sHandle, 0, "data"), "4");
    ExpectDone("native", vCommands);
    EXPECT_EQ(WriteAt(sHandle, 0, "data"), "4");  // the file was left open
    ExpectAlive();
}

// On a log line that is written for a client.
TEST_F(JavaReentry, EveryMethod_InsideALineOfTheServer_Returns)
{
    StartServerAndLoop();
    Native("setLogControl", "1023");
    m_Folder.Write("file", "");
    const auto vCommands = GetCommands("true");
    Prepare("logInfo", vCommands);
    Lookup(m_sRoot, "file");
    ExpectDone("native", vCommands);
    Native("setLogControl", "0");
    ExpectAlive();
}

TEST_F(JavaReentry, EveryMethod_InsideACallback_AsServerProcess_Returns)
{
    TearDown();
    Initial(1);
    ASSERT_EQ(Native("startRemoteController"), "true");
    StartServerAndLoop();
    const std::string sHandle = OpenRedirected("disk");
    const auto vCommands =
        GetCommands(IO_EXCEPTION + "Remote controller cannot be started from a callback");
    Prepare("writeRedirectedFile", vCommands);
    EXPECT_EQ(WriteAt(sHandle, 0, "data"), "4");
    ExpectDone("native", vCommands);
    // The controller was not stopped either.
    Java("y = host.initial \"second\" 1 0");
    EXPECT_EQ(Java("host.startRemoteController $y"),
              IO_EXCEPTION + "Ipc channel is already created by others.");
    Java("host.terminate $y");
    ExpectAlive();
}

TEST_F(JavaReentry, Refusals_LeaveALine)
{
    StartJavaServer();
    Native("setLogControl", "3");
    for (const char* pcMethod : {"startServer $h 0 0 false", "stopServer $h"})
        Java(std::string("inside host logInfo \"host.") + pcMethod + "\"");
    Native("startRemoteController");
    EXPECT_EQ(s_pJava->Printed("@ logError"),
              (Lines{"@ logError|host|main|test|[NfsMain.StartServer] Cannot be called from a "
                     "callback.",
                     "@ logError|host|main|test|[NfsMain.StopServer] Cannot be called from a "
                     "callback."}));
}

TEST_F(JavaReentry, EveryMethod_InsideTheQuestion_Returns)
{
    StartJavaServer();
    const auto vCommands = GetCommands("true");
    Prepare("isInterrupted", vCommands);
    Java("answer host isInterrupted 1");
    EXPECT_EQ(Native("receiveCallbackLoop", "-1"), "false");
    ExpectDone("main", vCommands);
    ExpectAlive();
}

// ---- Load ----

// The callback is installed, replaced and freed while the server's threads use it.
TEST_F(JavaLoad, CallbackThatComesAndGoes_DisturbsNoClient)
{
    StartJavaServer();
    const std::string sHandle = OpenRedirected("disk");
    Native("addSession", "\"s\"", "\"/f\"");
    constexpr int THREADS = 4;
    const std::string sRounds = IS_SANITIZED ? "200" : "2000";
    for (int i = 0; i < THREADS; i++) {
        const std::string sHost = "host" + std::to_string(i);
        Java("new " + sHost);
        for (const char* pcMethod : {"logRaw", "writeRedirectedFile"})
            Java("quiet " + sHost + " " + pcMethod);
    }
    std::atomic<bool> bDone = false;
    std::atomic<int> iAccepted = 0;
    std::atomic<int> iRefused = 0;
    std::vector<std::thread> vClients;
    for (int i = 0; i < 3; i++)
        vClients.emplace_back([&] {
            CTcpClient client(WIRE_NFS_PORT);
            const RpcCall call = NfsCall(
                WRITE, CXdr().Opaque(sHandle).Hyper(0).Word(4).Word(2).Opaque("data").Bytes());
            while (!bDone) {
                CReply reply = client.Call(call);
                ASSERT_TRUE(reply.IsReceived());
                const uint32_t iStatus = reply.Word();
                ASSERT_TRUE(iStatus == 0 || iStatus == STAT_INVAL) << iStatus;
                (iStatus == 0 ? iAccepted : iRefused)++;
            }
        });
    for (int i = 0; i < THREADS; i++) {
        const std::string sThread = std::to_string(i);
        s_pJava->Begin(sThread,
                       "repeat " + sRounds + " host" + sThread + ".getSessionInfo $h true");
    }
    for (int i = 0; i < THREADS; i++)
        EXPECT_EQ(s_pJava->End(std::to_string(i)), "1");
    bDone = true;
    for (std::thread& client : vClients)
        client.join();
    EXPECT_GT(iAccepted, 0);
    EXPECT_EQ(Native("getSessionInfo", "true"), "1");
    // Lines that met no callback were printed, each as a whole.
    for (const std::string& sLine : s_pJava->Printed())
        EXPECT_TRUE(sLine == " session1 - s : /f" || sLine.starts_with("@ logRaw|host|main|"))
            << sLine;
}

// STAGENFS_NOTIFICATIONS sets another number of writes.
TEST_F(JavaLoad, ManyNotifications_LeaveNothingBehind)
{
    StartServerAndLoop();
    const std::string sHandle = OpenRedirected("disk");
    m_pNfs.reset();  // its place is needed
    Java("quiet host writeRedirectedFile");
    const char* pcCount = getenv("STAGENFS_NOTIFICATIONS");
    const long long iCount = pcCount != nullptr ? atoll(pcCount) : IS_SANITIZED ? 2000 : 20000;

    WriteMany(sHandle, iCount / 10);
    const long iMemory = s_pJava->GetResidentMemory();
    const long iGlobals = s_pJava->CountGlobalReferences();
    const auto start = std::chrono::steady_clock::now();
    WriteMany(sHandle, iCount - iCount / 10);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;

    const long iMemoryAfter = s_pJava->GetResidentMemory();
    printf("%lld notifications, %.0f calls per second, resident memory %ld KiB before and %ld KiB "
           "after, %ld global references\n",
           iCount, static_cast<double>(iCount - iCount / 10) / seconds.count(), iMemory,
           iMemoryAfter, iGlobals);
    EXPECT_EQ(Java("count host writeRedirectedFile"), std::to_string(iCount));
    EXPECT_LE(s_pJava->CountGlobalReferences(), iGlobals + OWN_REFERENCES);
    // The virtual machine has its own ups and downs; a sanitizer keeps for a while what was freed.
    constexpr long MARGIN_KIB = (IS_SANITIZED ? 400 : 8) << 10;
    EXPECT_LT(iMemoryAfter, iMemory + MARGIN_KIB);
}
