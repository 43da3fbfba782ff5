// The datastores that hypervisor hosts hold on our exports, and their clean-up.
#include "Utilities.h"

#include <algorithm>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "HelperStandIn.h"
#include "WatchedThread.h"

using Lines = std::vector<std::string>;

// ---- The table ----

namespace {

class UtilitiesVSphere : public testing::Test {
protected:
    void SetUp() override { m_utilities.SetCallback(&m_recorder); }

    Lines GetDatastores()
    {
        m_recorder.Clear();
        const int iCount = m_utilities.GetVSphereInfo(&m_param, true);
        EXPECT_EQ(m_recorder.Lines().size(), static_cast<size_t>(iCount));
        return m_recorder.Lines();
    }

    CLogRecorder m_recorder;
    CUtilities m_utilities;
    CRuntimeParam m_param{"host", 0};
};

}  // namespace

TEST_F(UtilitiesVSphere, NoDatastores_AreCountedAsNone)
{
    EXPECT_EQ(m_utilities.GetVSphereInfo(&m_param, false), 0);
    EXPECT_EQ(GetDatastores(), Lines{});
}

TEST_F(UtilitiesVSphere, Datastores_AreListedByMoidWithoutUserAndPassword)
{
    m_utilities.AddVSphereInfo("datastore-9", "esx1", "443", "root", "secret");
    m_utilities.AddVSphereInfo("datastore-12", "esx2", "8443", "admin", "hidden");
    EXPECT_EQ(GetDatastores(), (Lines{"raw|host| NFS datastore1 - datastore-12 (esx2:8443)",
                                      "raw|host| NFS datastore2 - datastore-9 (esx1:443)"}));
}

TEST_F(UtilitiesVSphere, CountingOnly_WritesNothing)
{
    m_utilities.AddVSphereInfo("m", "h", "1", "u", "w");
    EXPECT_EQ(m_utilities.GetVSphereInfo(&m_param, false), 1);
    EXPECT_TRUE(m_recorder.Lines().empty());
}

TEST_F(UtilitiesVSphere, SameDatastoreAgain_ReplacesIt)
{
    m_utilities.AddVSphereInfo("m", "esx1", "443", "root", "secret");
    m_utilities.AddVSphereInfo("m", "esx2", "444", "root", "secret");
    EXPECT_EQ(GetDatastores(), Lines{"raw|host| NFS datastore1 - m (esx2:444)"});
}

TEST_F(UtilitiesVSphere, RemoveDatastore_TakesThatOneOnly)
{
    m_utilities.AddVSphereInfo("m1", "esx1", "443", "root", "secret");
    m_utilities.AddVSphereInfo("m2", "esx2", "443", "root", "secret");
    m_utilities.RemoveVSphereInfo("m1");
    m_utilities.RemoveVSphereInfo("never");
    EXPECT_EQ(GetDatastores(), Lines{"raw|host| NFS datastore1 - m2 (esx2:443)"});
}

// ---- The clean-up ----

namespace {

constexpr int LOG_EVERYTHING = 0x3FF;
constexpr char BEGIN[] = "info|host|Start cleanup mounted NFS datastores";

std::string Unmount(const std::string& sMoid)
{
    return "info|host|Unmount NFS datastore with MOID \"" + sMoid + "\" on host \"esx:443\"";
}

std::string Skip(const std::string& sMoid)
{
    return "error|host|Skip NFS datastore with MOID \"" + sMoid +
           "\". Reason=Command line would exceed 1023 bytes";
}

thread_local bool t_bBusy = false;

// A host that does something when it is told a line with a certain text in it, but not for what it
// is told of that.
class CActingHost : public CNotingHost {
public:
    using CNotingHost::CNotingHost;

    void ActAt(const std::string& sText, std::function<void()> action)
    {
        m_sText = sText;
        m_Action = std::move(action);
    }

    bool LogInfo(const char* pcID, const char* pcMessage) override
    {
        const bool bTaken = CNotingHost::LogInfo(pcID, pcMessage);
        Act(pcMessage);
        return bTaken;
    }
    bool LogError(const char* pcID, const char* pcMessage) override
    {
        const bool bTaken = CNotingHost::LogError(pcID, pcMessage);
        Act(pcMessage);
        return bTaken;
    }
    bool LogRaw(const char* pcID, const char* pcMessage) override
    {
        const bool bTaken = CNotingHost::LogRaw(pcID, pcMessage);
        Act(pcMessage);
        return bTaken;
    }

private:
    void Act(const std::string& sMessage)
    {
        if (t_bBusy || !m_Action || sMessage.find(m_sText) == std::string::npos)
            return;
        t_bBusy = true;
        m_Action();
        t_bBusy = false;
    }

    std::string m_sText;
    std::function<void()> m_Action;
};

class VSphereCleanUp : public testing::Test {
protected:
    void SetUp() override { m_utilities.SetCallback(&m_host); }

    void Add(const std::string& sMoid, const std::string& sPwd = "secret")
    {
        m_utilities.AddVSphereInfo(sMoid.c_str(), "esx", "443", "root", sPwd.c_str());
    }
    void Remove(const std::string& sMoid) { m_utilities.RemoveVSphereInfo(sMoid.c_str()); }
    int Count() { return m_utilities.GetVSphereInfo(&m_param, false); }
    void CleanUp() { m_utilities.RemoveAllVSphereInfoWithWebCtrl(&m_param); }

    // From here on a helper passes the gate and then notes its end.
    void InstallGate() { m_helper.Install(m_gate.Script() + "\nnote end"); }

    // Does something on a thread of its own while the first helper is held: it must wait for the
    // end of the clean-up. The record shows when it is done.
    void ExpectWaitsForTheCleanUp(const std::function<void()>& run)
    {
        InstallGate();
        CWatchedThread cleanUp([this] { CleanUp(); });
        m_gate.WaitUntilHeld();
        CWatchedThread other([this, &run] {
            run();
            m_helper.Note("other");
        });
        EXPECT_TRUE(other.WaitUntilAsleep());
        m_gate.LetGo();
        cleanUp.Join();
        other.WaitUntilDone();
    }

    // The same for something that must end while the helper is held.
    void ExpectDoesNotWait(const std::function<void()>& run)
    {
        InstallGate();
        CWatchedThread cleanUp([this] { CleanUp(); });
        m_gate.WaitUntilHeld();
        CWatchedThread other(run);
        other.WaitUntilDone();
        EXPECT_FALSE(cleanUp.IsDone());
        m_gate.LetGo();
    }

    CHelperStandIn m_helper;
    CHelperGate m_gate;
    CActingHost m_host{&m_helper};
    CUtilities m_utilities;
    CRuntimeParam m_param{"host", 0};  // the lines are written whatever the bits say
};

}  // namespace

TEST_F(VSphereCleanUp, WithoutDatastores_WritesAndRunsNothing)
{
    CleanUp();
    EXPECT_EQ(m_helper.Record(), Lines{});
    Add("d1");
    Remove("d1");
    CleanUp();
    EXPECT_EQ(m_helper.Record(), Lines{});
}

TEST_F(VSphereCleanUp, TwoDatastores_AreAnnouncedAndRemovedOneAfterTheOther)
{
    Add("d2");
    Add("d1");
    CleanUp();
    EXPECT_EQ(m_helper.Record(),
              (Lines{BEGIN, Unmount("d1"), HelperRun("d1"), Unmount("d2"), HelperRun("d2")}));
    EXPECT_EQ(Count(), 0);
}

TEST_F(VSphereCleanUp, EachDatastore_IsRemovedWithValuesOfItsOwn)
{
    m_utilities.AddVSphereInfo("d1", "h1", "1", "u1", "p1");
    m_utilities.AddVSphereInfo("d2", "h2", "2", "u2", "p2");
    CleanUp();
    EXPECT_EQ(m_helper.Record(),
              (Lines{BEGIN, "info|host|Unmount NFS datastore with MOID \"d1\" on host \"h1:1\"",
                     HelperRun("d1", "h1", "1", "u1", "p1"),
                     "info|host|Unmount NFS datastore with MOID \"d2\" on host \"h2:2\"",
                     HelperRun("d2", "h2", "2", "u2", "p2")}));
}

TEST_F(VSphereCleanUp, Order_IsThatOfTheBytesOfTheIDs)
{
    for (const char* pcMoid : {"b", "\xC3\xA4", "B", "d-9", "d-10", "a"})
        Add(pcMoid);
    CleanUp();
    Lines vWanted = {BEGIN};
    for (const char* pcMoid : {"B", "a", "b", "d-10", "d-9", "\xC3\xA4"})
        vWanted.insert(vWanted.end(), {Unmount(pcMoid), HelperRun(pcMoid)});
    EXPECT_EQ(m_helper.Record(), vWanted);
}

TEST_F(VSphereCleanUp, EveryLogBit_AddsNoLine)
{
    m_param.SetLogControl(LOG_EVERYTHING);
    Add("d1");
    CleanUp();
    EXPECT_EQ(m_helper.Record(), (Lines{BEGIN, Unmount("d1"), HelperRun("d1")}));
}

TEST_F(VSphereCleanUp, Lines_ReachTheHostWhileTheHelperRuns)
{
    Add("d1");
    InstallGate();
    CWatchedThread cleanUp([this] { CleanUp(); });
    m_gate.WaitUntilHeld();
    EXPECT_EQ(m_host.Lines(), (Lines{BEGIN, Unmount("d1")}));
    EXPECT_TRUE(cleanUp.WaitUntilAsleep());
    m_gate.LetGo();
}

TEST_F(VSphereCleanUp, Again_HasNothingToDo)
{
    Add("d1");
    CleanUp();
    const Lines vRecord = m_helper.Record();
    CleanUp();
    EXPECT_EQ(m_helper.Record(), vRecord);
    Add("d2");
    CleanUp();
    EXPECT_EQ(m_helper.Record(), (Lines{BEGIN, Unmount("d1"), HelperRun("d1"), BEGIN, Unmount("d2"),
                                        HelperRun("d2")}));
}

TEST_F(VSphereCleanUp, ReplacedDatastore_IsRemovedOnceWithItsNewValues)
{
    Add("d1", "old");
    Add("d1", "new");
    CleanUp();
    EXPECT_EQ(m_helper.Record(),
              (Lines{BEGIN, Unmount("d1"), HelperRun("d1", "esx", "443", "root", "new")}));
}

// ---- Trouble ----

TEST_F(VSphereCleanUp, HelperThatFails_IsNotTriedAgainAndTheTableIsEmpty)
{
    Add("d1");
    Add("d2");
    m_helper.Install("exit 3");
    CleanUp();
    EXPECT_EQ(m_helper.Record(),
              (Lines{BEGIN, Unmount("d1"), HelperRun("d1"), Unmount("d2"), HelperRun("d2")}));
    EXPECT_EQ(Count(), 0);
}

TEST_F(VSphereCleanUp, WithoutAHelper_WritesTheLinesAndEmptiesTheTable)
{
    Add("d1");
    Add("d2");
    m_helper.Remove();
    testing::internal::CaptureStderr();
    CleanUp();
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(m_helper.Record(), (Lines{BEGIN, Unmount("d1"), Unmount("d2")}));
    EXPECT_EQ(Count(), 0);
}

TEST_F(VSphereCleanUp, ValuesTooLong_SkipThatDatastoreOnly)
{
    const std::string sLong(1024, 'x');
    Add("d1");
    Add("d2", sLong);
    Add("d3");
    m_utilities.AddVSphereInfo("d4", "esx", "443", sLong.c_str(), "secret");
    CleanUp();
    EXPECT_EQ(m_helper.Record(),
              (Lines{BEGIN, Unmount("d1"), HelperRun("d1"), Unmount("d2"), Skip("d2"),
                     Unmount("d3"), HelperRun("d3"), Unmount("d4"), Skip("d4")}));
    EXPECT_FALSE(m_host.Contains("xxx"));
    EXPECT_FALSE(m_host.Contains("secret"));
    EXPECT_EQ(Count(), 0);
}

TEST_F(VSphereCleanUp, IDTooLong_SkipsItAndCutsTheLines)
{
    const std::string sLong(5000, 'x');
    Add(sLong);
    Add("y");
    CleanUp();
    const Lines vRecord = m_helper.Record();
    ASSERT_EQ(vRecord.size(), 5U);
    EXPECT_TRUE(vRecord[1].starts_with("info|host|Unmount NFS datastore with MOID \"xxx"));
    EXPECT_TRUE(vRecord[2].starts_with("error|host|Skip NFS datastore with MOID \"xxx"));
    EXPECT_EQ(vRecord[3], Unmount("y"));
    EXPECT_EQ(vRecord[4], HelperRun("y"));
    EXPECT_EQ(Count(), 0);
}

TEST_F(VSphereCleanUp, LongestCommandLine_IsNotSkipped)
{
    const std::string sRest = "\"" + m_helper.Path() +
                              "\" -host esx -port 443 -user root -pwd  -method removeDatastore "
                              "-argu d1";
    const std::string sPwd(1023 - sRest.length(), 'x');
    Add("d1", sPwd);
    CleanUp();
    EXPECT_EQ(m_helper.Record(),
              (Lines{BEGIN, Unmount("d1"), HelperRun("d1", "esx", "443", "root", sPwd)}));
    Add("d1", sPwd + "x");
    CleanUp();
    EXPECT_EQ(m_host.Lines().back(), Skip("d1"));
}

// ---- Operations from other threads meanwhile ----

TEST_F(VSphereCleanUp, AddMeanwhile_WaitsAndTheDatastoreStays)
{
    Add("d1");
    ExpectWaitsForTheCleanUp([this] { Add("d2"); });
    EXPECT_EQ(m_helper.Record(), (Lines{BEGIN, Unmount("d1"), HelperRun("d1"), "end", "other"}));
    EXPECT_EQ(Count(), 1);
    m_gate.LetGo();
    CleanUp();
    EXPECT_EQ(m_helper.Record().at(7), HelperRun("d2"));
}

TEST_F(VSphereCleanUp, AddOfTheOneInHand_WaitsAndTheDatastoreStays)
{
    Add("d1", "old");
    ExpectWaitsForTheCleanUp([this] { Add("d1", "new"); });
    EXPECT_EQ(m_helper.Record().back(), "other");
    EXPECT_EQ(Count(), 1);
}

TEST_F(VSphereCleanUp, RemoveMeanwhile_WaitsAndComesTooLate)
{
    Add("d1");
    Add("d2");
    m_gate.LetGo();  // for one of the two
    ExpectWaitsForTheCleanUp([this] { Remove("d2"); });
    EXPECT_EQ(m_helper.Record(), (Lines{BEGIN, Unmount("d1"), HelperRun("d1"), "end", Unmount("d2"),
                                        HelperRun("d2"), "end", "other"}));
}

TEST_F(VSphereCleanUp, CountMeanwhile_WaitsAndFindsNone)
{
    Add("d1");
    int iCount = -1;
    ExpectWaitsForTheCleanUp([this, &iCount] { iCount = Count(); });
    EXPECT_EQ(m_helper.Record().back(), "other");
    EXPECT_EQ(iCount, 0);
}

TEST_F(VSphereCleanUp, CleanUpMeanwhile_WaitsAndHasNothingToDo)
{
    Add("d1");
    ExpectWaitsForTheCleanUp([this] { CleanUp(); });
    EXPECT_EQ(m_helper.Record(), (Lines{BEGIN, Unmount("d1"), HelperRun("d1"), "end", "other"}));
}

TEST_F(VSphereCleanUp, OtherTables_DoNotWait)
{
    Add("d1");
    ExpectDoesNotWait([this] {
        m_utilities.AddSessionInfo("s1", "/p");
        EXPECT_EQ(m_utilities.GetSessionInfo(&m_param, true), 1);
        EXPECT_EQ(m_utilities.GetMountInfo(&m_param, false, true), 0);
    });
}

TEST_F(VSphereCleanUp, ManyThreads_NoDatastoreIsRemovedTwiceOrLost)
{
    static constexpr int THREADS = 4;
    static constexpr int ROUNDS = 5;
    std::vector<std::thread> vThreads;
    for (int i = 0; i < THREADS; i++)
        vThreads.emplace_back([this, i] {
            for (int iRound = 0; iRound < ROUNDS; iRound++) {
                Add(std::to_string(i) + "-" + std::to_string(iRound));
                EXPECT_LE(Count(), THREADS);
                CleanUp();
            }
        });
    for (std::thread& thread : vThreads)
        thread.join();
    EXPECT_EQ(Count(), 0);
    Lines vRecord = m_helper.Record();
    for (int i = 0; i < THREADS; i++)
        for (int iRound = 0; iRound < ROUNDS; iRound++)
            EXPECT_EQ(std::count(vRecord.begin(), vRecord.end(),
                                 HelperRun(std::to_string(i) + "-" + std::to_string(iRound))),
                      1);
}

// ---- Operations from within a call of the host ----

TEST_F(VSphereCleanUp, HostOperationsFromALine_DoNotWaitAndAreForTheNextOne)
{
    Add("d1");
    Add("d3");
    m_host.ActAt("\"d1\"", [this] {
        EXPECT_EQ(Count(), 0);
        Remove("d3");
        Add("d2");
        EXPECT_EQ(m_utilities.GetVSphereInfo(&m_param, true), 1);
    });
    CleanUp();
    Lines vWanted = {BEGIN,           Unmount("d1"), "raw|host| NFS datastore1 - d2 (esx:443)",
                     HelperRun("d1"), Unmount("d3"), HelperRun("d3")};
    EXPECT_EQ(m_helper.Record(), vWanted);
    EXPECT_EQ(Count(), 1);
    CleanUp();
    vWanted.insert(vWanted.end(), {BEGIN, Unmount("d2"), HelperRun("d2")});
    EXPECT_EQ(m_helper.Record(), vWanted);
}

TEST_F(VSphereCleanUp, HostThatAddsAtEveryLine_DoesNotKeepItFromEnding)
{
    Add("d1");
    m_host.ActAt("", [this] { Add("d2"); });
    CleanUp();
    EXPECT_EQ(m_helper.Record(), (Lines{BEGIN, Unmount("d1"), HelperRun("d1")}));
    EXPECT_EQ(Count(), 1);
}

TEST_F(VSphereCleanUp, HostThatAddsTheOneInHandAgain_KeepsIt)
{
    Add("d1", "old");
    m_host.ActAt("Unmount", [this] { Add("d1", "new"); });
    CleanUp();
    EXPECT_EQ(m_helper.Record(),
              (Lines{BEGIN, Unmount("d1"), HelperRun("d1", "esx", "443", "root", "old")}));
    EXPECT_EQ(Count(), 1);
}

// As a host does that has a thread of its own for what it asks of the library.
TEST_F(VSphereCleanUp, HostThatWaitsForAnotherThread_DoesNotHang)
{
    for (const char* pcLine : {"Start cleanup", "Unmount", "Skip"}) {
        Add("d1", std::string(1024, 'x'));
        int iActions = 0;
        m_host.ActAt(pcLine, [this, &iActions] {
            CWatchedThread other([this] {
                Add("d2");
                EXPECT_EQ(Count(), 1);
                Remove("d2");
            });
            other.WaitUntilDone();
            iActions++;
        });
        CleanUp();
        EXPECT_GT(iActions, 0) << pcLine;
        EXPECT_EQ(Count(), 0) << pcLine;
    }
}

// Another thread's call of the host may hold what comes after the clean-up waits for.
TEST_F(VSphereCleanUp, HostOperationsFromAnotherThreadsLine_DoNotWait)
{
    Add("d1");
    m_utilities.AddSessionInfo("s1", "/p");
    m_host.ActAt(" session1", [this] {
        Add("d2");
        EXPECT_EQ(Count(), 1);
        Remove("d2");
        EXPECT_EQ(Count(), 0);
    });
    ExpectDoesNotWait([this] { m_utilities.GetSessionInfo(&m_param, true); });
    EXPECT_EQ(Count(), 0);
}

TEST_F(VSphereCleanUp, HostOperationsFromAnExport_DoNotWait)
{
    const std::string sDisk = m_helper.Folder().Write("disk", "");
    const std::string sSource = m_helper.Folder().Write("source", std::string(100, 's'));
    const std::string sTarget = m_helper.Folder().Write("target", "");
    CRuntimeParam param("export", LOG_EVERYTHING);
    LogArgu argu = {"Test"};
    EXPECT_TRUE(m_utilities.AddMountInfo(&param, &argu, m_helper.Folder().Path().c_str(), "vm1", "",
                                         nullptr));
    m_utilities.OpenRedirectedFile(&param, sDisk.c_str(), 100, false, 0, 0);
    EXPECT_TRUE(m_utilities.AddRedirectedFileSegment(&param, sDisk.c_str(), sSource.c_str(), 0, 0,
                                                     100, nullptr));
    Add("d1");
    int iActions = 0;
    m_host.ActAt(sTarget, [this, &iActions] {
        Add("d2");
        iActions++;
    });
    ExpectDoesNotWait(
        [&] { m_utilities.ExportRedirectedFile(&param, sDisk.c_str(), sTarget.c_str()); });
    EXPECT_GT(iActions, 0);
    EXPECT_EQ(ReadWholeFile(sTarget), std::string(100, 's'));
    EXPECT_EQ(Count(), 1);
    m_utilities.Reset(&param, &argu);
}
