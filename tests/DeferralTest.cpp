#include "Deferral.h"

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "CachedFile.h"
#include "LogRecorder.h"
#include "Mutex.h"
#include "NfsMain.h"
#include "RedirectedFile.h"
#include "RelayPeer.h"
#include "TestEnvironment.h"
#include "Text.h"
#include "Utilities.h"
#include "UtilitiesIpcServer.h"
#include "WireClient.h"

using Lines = std::vector<std::string>;

// ---- By itself ----

namespace {

class Deferral : public testing::Test {
protected:
    void Defer(const std::string& sText)
    {
        CDeferral::Defer([this, sText] { m_vDone.push_back(sText); });
    }

    Lines m_vDone;
};

}  // namespace

TEST_F(Deferral, Defer_UntilLeave_WaitsAndKeepsTheOrder)
{
    EXPECT_FALSE(CDeferral::IsHeld());
    CDeferral::Enter();
    EXPECT_TRUE(CDeferral::IsHeld());
    Defer("1");
    Defer("2");
    Defer("3");
    EXPECT_EQ(m_vDone, Lines{});
    CDeferral::Leave();
    EXPECT_FALSE(CDeferral::IsHeld());
    EXPECT_EQ(m_vDone, (Lines{"1", "2", "3"}));
}

TEST_F(Deferral, Leave_WithNothingWaiting_DoesNothing)
{
    CDeferral::Enter();
    CDeferral::Leave();
    EXPECT_FALSE(CDeferral::IsHeld());
}

TEST_F(Deferral, Leave_Inner_LetsThemWait)
{
    CDeferral::Enter();
    Defer("1");
    CDeferral::Enter();
    Defer("2");
    CDeferral::Leave();
    EXPECT_TRUE(CDeferral::IsHeld());
    EXPECT_EQ(m_vDone, Lines{});
    Defer("3");
    CDeferral::Leave();
    EXPECT_EQ(m_vDone, (Lines{"1", "2", "3"}));
}

TEST_F(Deferral, Leave_CallsAreMadeOnce)
{
    CDeferral::Enter();
    Defer("1");
    CDeferral::Leave();
    CDeferral::Enter();
    CDeferral::Leave();
    EXPECT_EQ(m_vDone, Lines{"1"});
}

// What a call makes wait is done when that has left again, and before those that wait longer: it is
// as if the call were on its own.
TEST_F(Deferral, Leave_CallThatDefers_HasItsOwnDoneAtOnce)
{
    CDeferral::Enter();
    CDeferral::Defer([this] {
        EXPECT_FALSE(CDeferral::IsHeld());
        CDeferral::Enter();
        EXPECT_TRUE(CDeferral::IsHeld());
        Defer("inner 1");
        Defer("inner 2");
        EXPECT_EQ(m_vDone, Lines{});
        CDeferral::Leave();
        m_vDone.push_back("outer");
    });
    Defer("next");
    CDeferral::Leave();
    EXPECT_EQ(m_vDone, (Lines{"inner 1", "inner 2", "outer", "next"}));
}

TEST_F(Deferral, Leave_CallThatThrows_CostsOnlyItself)
{
    CDeferral::Enter();
    Defer("1");
    CDeferral::Defer([] { throw std::bad_alloc(); });
    CDeferral::Defer([] { throw std::runtime_error("no"); });
    Defer("2");
    EXPECT_NO_THROW(CDeferral::Leave());
    EXPECT_EQ(m_vDone, (Lines{"1", "2"}));
    CDeferral::Enter();
    Defer("3");
    CDeferral::Leave();
    EXPECT_EQ(m_vDone, (Lines{"1", "2", "3"}));
}

TEST_F(Deferral, OtherThreads_HaveTheirOwn)
{
    CDeferral::Enter();
    Defer("mine");
    std::thread([this] {
        EXPECT_FALSE(CDeferral::IsHeld());
        CDeferral::Enter();
        Defer("theirs");
        CDeferral::Leave();
        EXPECT_EQ(m_vDone, Lines{"theirs"});
    }).join();
    EXPECT_TRUE(CDeferral::IsHeld());
    CDeferral::Leave();
    EXPECT_EQ(m_vDone, (Lines{"theirs", "mine"}));
}

TEST_F(Deferral, Mutex_LetsCallsWaitUntilItIsFree)
{
    CMutex mutex;
    {
        const CMutexLock lock(mutex);
        EXPECT_TRUE(CDeferral::IsHeld());
        CDeferral::Defer([&] {
            std::thread([&] { const CMutexLock lockAgain(mutex); }).join();
            const CMutexLock lockMine(mutex);
            m_vDone.push_back("done");
        });
        EXPECT_EQ(m_vDone, Lines{});
    }
    EXPECT_EQ(m_vDone, Lines{"done"});
}

TEST_F(Deferral, Mutex_ThatAllowsCalls_LetsNothingWait)
{
    CMutex mutex(HostCalls::ALLOWED);
    const CMutexLock lock(mutex);
    EXPECT_FALSE(CDeferral::IsHeld());
    {
        CMutex inner;
        const CMutexLock lockInner(inner);
        Defer("1");
    }
    EXPECT_EQ(m_vDone, Lines{"1"});
}

// ---- Lines under the mutexes of tables ----

namespace {

constexpr int LOG_EVERYTHING = 0x3FF;

thread_local bool t_bBusy = false;

// A host that does something each time it is told something, but not for what it is told of that.
class CBusyHost : public CLogRecorder {
public:
    void SetAction(std::function<void()> action) { m_Action = std::move(action); }
    size_t Calls() const { return m_iCalls; }

    bool LogInfo(const char* pcID, const char* pcMessage) override
    {
        const bool bTaken = CLogRecorder::LogInfo(pcID, pcMessage);
        Act();
        return bTaken;
    }
    bool LogError(const char* pcID, const char* pcMessage) override
    {
        const bool bTaken = CLogRecorder::LogError(pcID, pcMessage);
        Act();
        return bTaken;
    }
    bool LogRaw(const char* pcID, const char* pcMessage) override
    {
        const bool bTaken = CLogRecorder::LogRaw(pcID, pcMessage);
        Act();
        return bTaken;
    }
    int WriteRedirectedFile(const char* pcID, const char* pcPath, unsigned long long iSeek,
                            int iSeekType, unsigned int iLength) override
    {
        CLogRecorder::WriteRedirectedFile(pcID, pcPath, iSeek, iSeekType, iLength);
        Act();
        return static_cast<int>(iLength);
    }

private:
    void Act()
    {
        if (t_bBusy || !m_Action)
            return;
        t_bBusy = true;
        EXPECT_FALSE(CDeferral::IsHeld());
        m_iCalls++;
        m_Action();
        t_bBusy = false;
    }

    std::function<void()> m_Action;
    std::atomic<size_t> m_iCalls = 0;
};

// Everything that a host can ask for, on tables with something in them.
class CallingHost : public testing::Test {
protected:
    using Step = std::function<void()>;

    void SetUp() override
    {
        m_Folder.Write("file", "contents");
        m_Folder.Write("source", std::string(100, 's'));
        m_Folder.Write("disk", "");
        m_Folder.Write("index", "");
        m_Folder.Write("target", "");
        std::filesystem::create_directory(m_Folder.Path("sub"));
        m_Folder.Write("sub/other", "other");
        m_pUtilities = m_main.GetUtils();
        m_pParam = m_main.GetRuntimeParam();
        AddMount(m_Folder.Path("sub"), "sub");
        AddMount(m_Folder.Path(), "vm1");
        m_main.AddSessionInfo("s1", "/x");
        m_main.AddSessionInfo("s2", "/y");
        m_main.AddVSphereInfo("d1", "h", "1", "u", "p");
        m_main.AddVSphereInfo("d2", "h", "2", "u", "p");
        OpenDisk("disk", false);
        m_pUtilities->GetCachedFileHandle(m_pParam, &m_Argu, m_Folder.Path("file").c_str(), false);
        m_main.SetCallback(&m_Host);
    }

    void TearDown() override
    {
        m_Host.SetAction({});
        m_main.StopServer();
        m_main.SetCallback(nullptr);
    }

    void AddMount(const std::string& sPath, const char* pcName)
    {
        char cReason[REASON_SIZE] = "";
        EXPECT_TRUE(m_main.AddMountPoint(sPath.c_str(), pcName, cReason)) << cReason;
    }

    void OpenDisk(const char* pcName, bool bIndex)
    {
        const std::string sPath = m_Folder.Path(pcName);
        m_main.OpenRedirectedFile(sPath.c_str(), 200, bIndex, 1, 4);
        m_main.AddRedirectedFileSegment(sPath.c_str(), m_Folder.Path("source").c_str(), 0, 0, 100,
                                        nullptr);
    }

    // What a host may do at any moment. It touches every table and leaves each as it was.
    void DoEverything()
    {
        char cText[PATH_SIZE] = "";
        const std::string sFile = m_Folder.Path("sub/other");
        m_main.GetMountInfo(true, true);
        m_main.GetMountInfo(false, true);
        m_main.GetSessionInfo(true);
        m_main.GetVSphereInfo(true);
        m_main.GetVersion(cText);
        m_main.GetDescription(cText);
        m_main.GetServerStatus();
        m_main.SetLogControl(LOG_EVERYTHING);
        m_main.SetDebugActionEnabled(true);
        m_main.EnableAutoShutdown(false);
        m_main.AddMountPoint(m_Folder.Path("nothing").c_str(), "host", nullptr);
        m_main.RemoveMountPoint(m_Folder.Path("nothing").c_str());
        m_main.AddSessionInfo("host", "/z");
        m_main.IsSessionExists("host");
        m_main.RemoveSessionInfo("host");
        m_main.AddVSphereInfo("host", "h", "1", "u", "p");
        m_main.RemoveVSphereInfo("host");
        m_main.CloseCachedFileHandle(sFile.c_str());
        m_pUtilities->GetCachedFileHandle(m_pParam, &m_Argu, sFile.c_str(), false);
        m_main.CloseAllCachedFileHandles(m_Folder.Path("sub").c_str());
        m_pUtilities->GetFileID(m_pParam, &m_Argu, sFile.c_str());
        m_pUtilities->GetMountInfoByPath(m_pParam, &m_Argu, sFile.c_str(), nullptr);
        m_main.RunTestMode("/x", 1);
    }
    void DoEverythingRedirected()
    {
        const std::string sDisk = m_Folder.Path("sub/disk");
        const std::string sFile = m_Folder.Path("sub/other");
        m_main.OpenRedirectedFile(sDisk.c_str(), 10, false, 0, 0);
        m_main.AddRedirectedFileSegment(sDisk.c_str(), sFile.c_str(), 0, 0, 5, nullptr);
        m_main.ExportRedirectedFile(sDisk.c_str(), m_Folder.Path("target").c_str());
        m_main.ExportRedirectedFileInfo(sDisk.c_str(), m_Folder.Path("target").c_str(), true);
        m_main.CloseRedirectedFile(sDisk.c_str());
        m_main.CloseAllRedirectedFiles(sDisk.c_str());
    }

    // The host's own thread, and one that it waits for: that finds out about every mutex, also
    // about those that the calling thread would be allowed to have.
    // Only operations on redirected files wait for the one in hand, unless it called this host.
    void DoEverythingTwice(bool bRedirectedInHand)
    {
        DoEverything();
        DoEverythingRedirected();
        std::thread([this, bRedirectedInHand] {
            t_bBusy = true;
            DoEverything();
            if (!bRedirectedInHand)
                DoEverythingRedirected();
        }).join();
    }

    // Runs a step with a host that does everything at each line of it. There must be one.
    void ExpectSafe(const char* pcWhat, const Step& step, bool bRedirected = false)
    {
        SCOPED_TRACE(pcWhat);
        const size_t iCalls = m_Host.Calls();
        m_Host.SetAction([this, bRedirected] { DoEverythingTwice(bRedirected); });
        relay::ExpectReturns(pcWhat, step);
        EXPECT_GT(m_Host.Calls(), iCalls);
        m_Host.SetAction({});
    }

    void ExpectRedirectedSafe(const char* pcWhat, const Step& step)
    {
        ExpectSafe(pcWhat, step, true);
    }

    const CScratchFolder m_Folder;
    CBusyHost m_Host;
    LogArgu m_Argu{"Test"};
    CNfsMain m_main{"host", LOG_EVERYTHING};
    CUtilities* m_pUtilities = nullptr;
    CRuntimeParam* m_pParam = nullptr;
};

}  // namespace

TEST_F(CallingHost, Listings_EveryLine_DoesNotHang)
{
    ExpectSafe("GetMountInfo", [this] { EXPECT_EQ(m_main.GetMountInfo(false, true), 2); });
    ExpectSafe("GetSessionInfo", [this] { EXPECT_EQ(m_main.GetSessionInfo(true), 2); });
    ExpectSafe("GetVSphereInfo", [this] { EXPECT_EQ(m_main.GetVSphereInfo(true), 2); });
}

TEST_F(CallingHost, Exports_EveryLine_DoesNotHang)
{
    const std::string sPath = m_Folder.Path("third");
    ExpectSafe("AddMountPoint", [&] { AddMount(sPath, "third"); });
    ExpectSafe("GetMountInfoByPath", [&] {
        EXPECT_TRUE(m_pUtilities->GetMountInfoByPath(m_pParam, &m_Argu,
                                                     m_Folder.Path("sub/other").c_str(), nullptr));
    });
    ExpectSafe("IsMountInfoExists", [&] {
        EXPECT_TRUE(
            m_pUtilities->IsMountInfoExists(m_pParam, &m_Argu, sPath.c_str(), nullptr, nullptr));
    });
    ExpectSafe("RemoveMountPoint", [&] { m_main.RemoveMountPoint(sPath.c_str()); });
    ExpectSafe("GetFileID",
               [&] { m_pUtilities->GetFileID(m_pParam, &m_Argu, m_Folder.Path("file").c_str()); });
}

TEST_F(CallingHost, Descriptors_EveryLine_DoesNotHang)
{
    const std::string sFile = m_Folder.Path("file");
    ExpectSafe("CloseCachedFileHandle", [&] { m_main.CloseCachedFileHandle(sFile.c_str()); });
    ExpectSafe("GetCachedFileHandle",
               [&] { m_pUtilities->GetCachedFileHandle(m_pParam, &m_Argu, sFile.c_str(), false); });
    ExpectSafe("ReleaseCachedFile", [&] {
        const CCachedFile file(m_pUtilities, m_pParam, &m_Argu, sFile.c_str(), false);
        m_main.CloseCachedFileHandle(sFile.c_str());  // the last user closes it
    });
    m_pUtilities->GetCachedFileHandle(m_pParam, &m_Argu, sFile.c_str(), false);
    ExpectSafe("CloseAllCachedFileHandles of a folder",
               [&] { m_main.CloseAllCachedFileHandles(m_Folder.Path().c_str()); });
    m_pUtilities->GetCachedFileHandle(m_pParam, &m_Argu, sFile.c_str(), false);
    ExpectSafe("CloseAllCachedFileHandles",
               [&] { m_pUtilities->CloseAllCachedFileHandles(m_pParam, &m_Argu); });
    ExpectSafe("GetCachedFileHandle of nothing", [&] {
        EXPECT_EQ(m_pUtilities->GetCachedFileHandle(m_pParam, &m_Argu, "/nothing/there", true), -1);
    });
}

TEST_F(CallingHost, Files_EveryLine_DoesNotHang)
{
    const std::string sFile = m_Folder.Path("file");
    const std::string sMoved = m_Folder.Path("moved");
    char cBuffer[16];
    bool bEof = false;
    ExpectSafe("ReadFile", [&] {
        EXPECT_EQ(m_pUtilities->ReadFile(m_pParam, &m_Argu, sFile.c_str(), 0, SEEK_SET, cBuffer, 8,
                                         &bEof),
                  8);
    });
    ExpectSafe("WriteFile", [&] {
        EXPECT_EQ(m_pUtilities->WriteFile(m_pParam, &m_Argu, sFile.c_str(), 0, SEEK_SET, "new", 3),
                  3);
    });
    m_pUtilities->GetFileID(m_pParam, &m_Argu, sFile.c_str());
    ExpectSafe("RenameFile", [&] {
        EXPECT_TRUE(m_pUtilities->RenameFile(m_pParam, &m_Argu, sFile.c_str(), sMoved.c_str()));
    });
    ExpectSafe("RemoveFile",
               [&] { EXPECT_TRUE(m_pUtilities->RemoveFile(m_pParam, &m_Argu, sMoved.c_str())); });
    ExpectSafe("NewFile",
               [&] { EXPECT_TRUE(m_pUtilities->NewFile(m_pParam, &m_Argu, sFile.c_str())); });
}

TEST_F(CallingHost, RedirectedFiles_EveryLine_DoesNotHang)
{
    const std::string sDisk = m_Folder.Path("disk");
    const std::string sIndex = m_Folder.Path("index");
    const std::string sTarget = m_Folder.Path("target");
    for (const std::string& sPath : {sDisk, sIndex}) {
        const bool bIndex = sPath == sIndex;
        ExpectRedirectedSafe("OpenRedirectedFile",
                             [&] { m_main.OpenRedirectedFile(sPath.c_str(), 200, bIndex, 1, 4); });
        ExpectRedirectedSafe("AddRedirectedFileSegment", [&] {
            EXPECT_TRUE(m_main.AddRedirectedFileSegment(
                sPath.c_str(), m_Folder.Path("source").c_str(), 0, 0, 100, nullptr));
        });
        ExpectSafe("Read", [&] {
            char cBuffer[100];
            bool bEof = false;
            const auto pFile = m_pUtilities->GetRedirectedFile(sPath.c_str());
            EXPECT_EQ(pFile->Read(m_pParam, 0, cBuffer, 100, &bEof), 100);
        });
        ExpectRedirectedSafe("ExportRedirectedFile",
                             [&] { m_main.ExportRedirectedFile(sPath.c_str(), sTarget.c_str()); });
        ExpectRedirectedSafe("ExportRedirectedFileInfo", [&] {
            m_main.ExportRedirectedFileInfo(sPath.c_str(), sTarget.c_str(), false);
        });
        ExpectRedirectedSafe("CloseRedirectedFile",
                             [&] { m_main.CloseRedirectedFile(sPath.c_str()); });
    }
    OpenDisk("disk", false);
    ExpectRedirectedSafe("CloseAllRedirectedFiles of a folder",
                         [&] { m_main.CloseAllRedirectedFiles(m_Folder.Path().c_str()); });
}

TEST_F(CallingHost, StartAndStop_EveryLine_DoesNotHang)
{
    char cReason[REASON_SIZE] = "";
    CUtilities* pUtilities = m_pUtilities;
    ExpectSafe("StartServer", [&] {
        // All bits, and still the start itself may have nothing to say.
        EXPECT_TRUE(m_main.StartServer(0, 0, 0, 0, false, cReason)) << cReason;
        pUtilities->LogInfo(m_pParam, "%s", "started");
    });
    ExpectSafe("StopServer", [&] { m_main.StopServer(); });
}

TEST_F(CallingHost, Calls_EveryLineAndNotification_DoesNotHang)
{
    char cReason[REASON_SIZE] = "";
    ASSERT_TRUE(m_main.StartServer(0, 0, 0, 0, false, cReason)) << cReason;
    ExpectSafe("a read and a write", [&] {
        RpcCall mount;
        mount.iProg = WIRE_MOUNT_PROG;
        mount.iVers = 3;
        mount.iProc = 1;
        mount.sArguments = CXdr().String("vm1").Bytes();
        CReply mounted = CallOnce(WIRE_MOUNT_PORT, mount);
        ASSERT_EQ(mounted.Word(), 0U);
        const auto call = [](uint32_t iProc, const std::string& sArguments) {
            RpcCall nfs;
            nfs.iProg = WIRE_NFS_PROG;
            nfs.iVers = 3;
            nfs.iProc = iProc;
            nfs.sArguments = sArguments;
            return CallOnce(WIRE_NFS_PORT, nfs);
        };
        CReply found = call(3, CXdr().Opaque(mounted.Opaque()).String("disk").Bytes());
        ASSERT_EQ(found.Word(), 0U);
        const std::string sHandle = found.Opaque();
        EXPECT_EQ(call(6, CXdr().Opaque(sHandle).Hyper(0).Word(50).Bytes()).Word(), 0U);
        EXPECT_EQ(
            call(7, CXdr().Opaque(sHandle).Hyper(0).Word(3).Word(2).Opaque("new").Bytes()).Word(),
            0U);
    });
    EXPECT_EQ(m_Host.Notifications(), Lines{"write|vm1|" + m_Folder.Path("disk") + "|0|0|3"});
}

// ---- None lost, and in their order ----

namespace {

class CountingHost : public testing::Test {
protected:
    static constexpr int COUNT = 200;

    void SetUp() override
    {
        for (int i = 0; i < COUNT; i++)
            m_utilities.AddSessionInfo(std::to_string(1000 + i).c_str(), "/x");
    }

    static Lines MakeListing()
    {
        Lines vLines;
        for (int i = 0; i < COUNT; i++)
            vLines.push_back("raw|host| session" + std::to_string(i + 1) + " - " +
                             std::to_string(1000 + i) + " : /x");
        return vLines;
    }

    CBusyHost m_Host;
    CUtilitiesIpcServer m_utilities;
    CRuntimeParam m_param{"host", LOG_EVERYTHING};
};

}  // namespace

TEST_F(CountingHost, Listing_ComesWholeAndInOrder)
{
    m_utilities.SetCallback(&m_Host);
    EXPECT_EQ(m_utilities.GetSessionInfo(&m_param, true), COUNT);
    EXPECT_EQ(m_Host.Lines(), MakeListing());
}

// A listing that is asked for from a line is told within that line, whole, and before its result.
TEST_F(CountingHost, Listing_FromALineOfAListing_IsWholeBeforeItsResult)
{
    m_utilities.SetCallback(&m_Host);
    bool bAsked = false;
    m_Host.SetAction([&] {
        if (std::exchange(bAsked, true))
            return;
        const size_t iBefore = m_Host.Lines().size();
        EXPECT_EQ(m_utilities.GetSessionInfo(&m_param, true), COUNT);
        EXPECT_EQ(m_Host.Lines().size(), iBefore + COUNT);
    });
    EXPECT_EQ(m_utilities.GetSessionInfo(&m_param, true), COUNT);
    const Lines vListing = MakeListing();
    Lines vWanted = {vListing[0]};
    vWanted.insert(vWanted.end(), vListing.begin(), vListing.end());
    vWanted.insert(vWanted.end(), vListing.begin() + 1, vListing.end());
    EXPECT_EQ(m_Host.Lines(), vWanted);
}

// The mutex is free when the first line arrives, and all that the listing says is what it found.
TEST_F(CountingHost, Listing_TableChangedFromTheFirstLine_ShowsItAsItWas)
{
    m_utilities.SetCallback(&m_Host);
    m_Host.SetAction([this] { m_utilities.RemoveAllSessionInfo(); });
    relay::ExpectReturns("GetSessionInfo",
                         [this] { EXPECT_EQ(m_utilities.GetSessionInfo(&m_param, true), COUNT); });
    EXPECT_EQ(m_Host.Lines(), MakeListing());
    EXPECT_EQ(m_utilities.GetSessionInfo(&m_param, false), 0);
}

// A line that waits takes along whose it is: its context may be another one's by then.
TEST_F(CountingHost, Listing_ForAClient_IsRelayedWholeAndInOrder)
{
    m_utilities.SetCallback(&m_Host);
    m_param.SetIpcID("a");
    m_param.SetLogControl(0);  // the channel's own lines would come between
    const CRelayPeer peer("a");
    const CRelayPeer other("b");
    m_Host.SetAction([this] { m_param.SetIpcID("b"); });
    EXPECT_EQ(m_utilities.GetSessionInfo(&m_param, true), COUNT);
    EXPECT_EQ(peer.Descriptions(), MakeListing());
    EXPECT_EQ(m_Host.Lines(), MakeListing());
    EXPECT_EQ(other.Messages(), Lines{});
}

// While the client that gets the listing thinks about it, nobody else waits for the table.
TEST_F(CountingHost, Listing_ForASlowClient_KeepsNobodyWaiting)
{
    m_utilities.SetCallback(&m_Host);
    m_param.SetIpcID("a");
    bool bDone = false;
    const CRelayPeer peer("a", [&](const std::string&) {
        if (!bDone)
            m_utilities.AddSessionInfo("more", "/y");
        bDone = true;
        return BoolReply(true);
    });
    relay::ExpectReturns("GetSessionInfo",
                         [this] { EXPECT_EQ(m_utilities.GetSessionInfo(&m_param, true), COUNT); });
    EXPECT_EQ(m_utilities.GetSessionInfo(&m_param, false), COUNT + 1);
}
