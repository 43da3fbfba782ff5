#include "Utilities.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "FileLogger.h"
#include "LogRecorder.h"
#include "TestEnvironment.h"
#include "Text.h"

namespace {

constexpr int ERROR_WITHOUT_TEXT = 98765;

using Lines = std::vector<std::string>;

// One kind of message, whichever it is: its three entries and how a line of it looks elsewhere.
struct MessageKind {
    const char* pcName;  // as the recorder calls it
    void (CUtilities::*pFormat)(CRuntimeParam*, const char*, ...);
    void (CUtilities::*pOverride)(CRuntimeParam*, char*);
    void (CUtilities::*pDeliver)(const char*, char*);
    const char* pcPrinted;  // what "x" for "abc" is on standard output
    const char* pcInFile;   // what "x" is in a log file, behind the time
};

const MessageKind KINDS[] = {
    {"info", &CUtilities::LogInfo, &CUtilities::LogInfo, &CUtilities::LogInfo, "[info] (abc) x\n",
     "[info] x\n"},
    {"error", &CUtilities::LogError, &CUtilities::LogError, &CUtilities::LogError,
     "[erro] (abc) x\n", "[error] x\n"},
    {"raw", &CUtilities::LogRaw, &CUtilities::LogRaw, &CUtilities::LogRaw, "x\n", " x\n"},
};

// Takes the place of standard output for its lifetime.
class CStandardOutput {
public:
    CStandardOutput() { testing::internal::CaptureStdout(); }
    ~CStandardOutput()
    {
        if (!m_bTaken)
            Take();
    }
    CStandardOutput(const CStandardOutput&) = delete;
    CStandardOutput& operator=(const CStandardOutput&) = delete;

    std::string Take()
    {
        m_bTaken = true;
        return testing::internal::GetCapturedStdout();
    }

private:
    bool m_bTaken = false;
};

// A relay: what it overrides stays with it.
class CRelay : public CUtilities {
public:
    using CUtilities::LogError;
    using CUtilities::LogInfo;
    using CUtilities::LogRaw;
    using CUtilities::LogRemoveRedirectedFile;
    using CUtilities::LogRenameRedirectedFile;
    using CUtilities::LogUpdateRedirectedFileAttributes;
    using CUtilities::LogWriteRedirectedFile;

    void LogInfo(CRuntimeParam*, char* pcText) override { m_sCalls += std::string("I:") + pcText; }
    void LogError(CRuntimeParam*, char* pcText) override { m_sCalls += std::string("E:") + pcText; }
    void LogRaw(CRuntimeParam*, char* pcText) override { m_sCalls += std::string("R:") + pcText; }
    int LogUpdateRedirectedFileAttributes(CRuntimeParam*, const char*, bool, unsigned long long,
                                          bool, unsigned long, bool, unsigned long) override
    {
        return 101;
    }
    int LogRemoveRedirectedFile(CRuntimeParam*, const char*) override { return 102; }
    int LogRenameRedirectedFile(CRuntimeParam*, const char*, const char*) override { return 103; }
    int LogWriteRedirectedFile(CRuntimeParam*, const char*, unsigned long long, int,
                               unsigned int) override
    {
        return 104;
    }

    std::string m_sCalls;
};

class UtilitiesLog : public testing::TestWithParam<MessageKind> {
protected:
    // Sends a line through the entry that all call sites use.
    void Send(const char* pcFormat, const char* pcArgument)
    {
        (m_utilities.*GetParam().pFormat)(&m_param, pcFormat, pcArgument);
    }
    std::string GetRecorded(const std::string& sText) const
    {
        return std::string(GetParam().pcName) + "|abc|" + sText;
    }

    CUtilities m_utilities;
    CRuntimeParam m_param{"abc", 0};
    CLogRecorder m_recorder;
};

std::string GetKindName(const testing::TestParamInfo<MessageKind>& info)
{
    return info.param.pcName;
}

}  // namespace

// Stands before the system's: one number has no text here.
extern "C" char* strerror_r(int iError, char* pcBuffer, size_t iSize) noexcept
{
    using Function = char* (*)(int, char*, size_t);
    if (iError == ERROR_WITHOUT_TEXT)
        return nullptr;
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "strerror_r"))(iError, pcBuffer, iSize);
}

INSTANTIATE_TEST_SUITE_P(Kinds, UtilitiesLog, testing::ValuesIn(KINDS), GetKindName);

TEST_P(UtilitiesLog, NoHostNoFile_GoesToStandardOutput)
{
    CStandardOutput output;
    Send("%s", "x");
    EXPECT_EQ(output.Take(), GetParam().pcPrinted);
}

TEST_P(UtilitiesLog, HostTakesIt_GoesNowhereElse)
{
    const CScratchFolder folder;
    CFileLogger logger(folder.Path("log").c_str());
    ASSERT_TRUE(logger.Open(0));
    m_utilities.SetFileLogger(&logger);
    m_utilities.SetCallback(&m_recorder);
    CStandardOutput output;
    Send("%s", "x");
    EXPECT_EQ(output.Take(), "");
    EXPECT_EQ(m_recorder.Lines(), Lines{GetRecorded("x")});
    EXPECT_EQ(ReadWholeFile(folder.Path("log")), "");
}

TEST_P(UtilitiesLog, HostRefuses_GoesToTheFileOnly)
{
    const CScratchFolder folder;
    CFileLogger logger(folder.Path("log").c_str());
    ASSERT_TRUE(logger.Open(0));
    m_utilities.SetFileLogger(&logger);
    m_utilities.SetCallback(&m_recorder);
    m_recorder.SetTakesLines(false);
    CStandardOutput output;
    Send("%s", "x");
    EXPECT_EQ(output.Take(), "");
    const std::string sFile = ReadWholeFile(folder.Path("log"));
    ASSERT_GT(sFile.length(), 21U);  // the time
    EXPECT_EQ(sFile.substr(21), GetParam().pcInFile);
}

TEST_P(UtilitiesLog, HostRefusesAndNoFile_GoesToStandardOutput)
{
    m_utilities.SetCallback(&m_recorder);
    m_recorder.SetTakesLines(false);
    CStandardOutput output;
    Send("%s", "x");
    EXPECT_EQ(output.Take(), GetParam().pcPrinted);
}

TEST_P(UtilitiesLog, FileIsNotOpen_GoesToStandardOutput)
{
    const CScratchFolder folder;
    CFileLogger logger(folder.Path("log").c_str());
    m_utilities.SetFileLogger(&logger);
    CStandardOutput output;
    Send("%s", "x");
    EXPECT_EQ(output.Take(), GetParam().pcPrinted);
}

TEST_P(UtilitiesLog, FileOnly_GoesToTheFile)
{
    const CScratchFolder folder;
    CFileLogger logger(folder.Path("log").c_str());
    ASSERT_TRUE(logger.Open(0));
    m_utilities.SetFileLogger(&logger);
    CStandardOutput output;
    Send("%s", "x");
    EXPECT_EQ(output.Take(), "");
    EXPECT_TRUE(ReadWholeFile(folder.Path("log")).ends_with(GetParam().pcInFile));
}

TEST_P(UtilitiesLog, NoBitsAtAll_FiltersNothing)
{
    m_param.SetLogControl(0);
    m_utilities.SetCallback(&m_recorder);
    Send("%s", "x");
    EXPECT_EQ(m_recorder.Lines().size(), 1U);
}

TEST_P(UtilitiesLog, LineOf2047Bytes_IsWhole)
{
    m_utilities.SetCallback(&m_recorder);
    const std::string sText(2047, 'y');
    Send("%s", sText.c_str());
    EXPECT_EQ(m_recorder.Lines(), Lines{GetRecorded(sText)});
}

TEST_P(UtilitiesLog, LongerLine_IsCutAt2047Bytes)
{
    m_utilities.SetCallback(&m_recorder);
    Send("%s", std::string(100000, 'y').c_str());
    EXPECT_EQ(m_recorder.Lines(), Lines{GetRecorded(std::string(2047, 'y'))});
}

TEST_P(UtilitiesLog, PercentInArgument_IsNotAFormat)
{
    m_utilities.SetCallback(&m_recorder);
    Send("%s", "100%s%n%d");
    EXPECT_EQ(m_recorder.Lines(), Lines{GetRecorded("100%s%n%d")});
    m_utilities.SetCallback(nullptr);
    CStandardOutput output;
    Send("%s", "100%s%n%d");
    EXPECT_NE(output.Take().find("100%s%n%d\n"), std::string::npos);
}

TEST_P(UtilitiesLog, BaseOverridePoint_DeliversUnderTheCallersID)
{
    m_utilities.SetCallback(&m_recorder);
    char cText[] = "direct";
    (m_utilities.*GetParam().pOverride)(&m_param, cText);
    EXPECT_EQ(m_recorder.Lines(), Lines{GetRecorded("direct")});
}

TEST_P(UtilitiesLog, Delivery_TakesAnIDInsteadOfAContext)
{
    m_utilities.SetCallback(&m_recorder);
    char cText[] = "direct";
    (m_utilities.*GetParam().pDeliver)("other", cText);
    EXPECT_EQ(m_recorder.Lines(), Lines{std::string(GetParam().pcName) + "|other|direct"});
}

TEST_P(UtilitiesLog, PrintedLine_IsFlushedAtOnce)
{
    int iPipe[2];
    ASSERT_EQ(pipe2(iPipe, O_CLOEXEC | O_NONBLOCK), 0);
    const CAutoFd readEnd(iPipe[0]);
    CAutoFd writeEnd(iPipe[1]);
    fflush(stdout);
    const CAutoFd saved(dup(STDOUT_FILENO));
    ASSERT_NE(dup2(writeEnd.Get(), STDOUT_FILENO), -1);

    Send("%s", "x");
    char cText[64] = "";
    const ssize_t iRead = read(readEnd.Get(), cText, sizeof(cText) - 1);

    fflush(stdout);
    ASSERT_NE(dup2(saved.Get(), STDOUT_FILENO), -1);
    EXPECT_GT(iRead, 0);
    EXPECT_STREQ(cText, GetParam().pcPrinted);
}

TEST_P(UtilitiesLog, ManyThreads_EveryLineArrives)
{
    m_utilities.SetCallback(&m_recorder);
    std::vector<std::thread> vThreads;
    for (int i = 0; i < 4; i++)
        vThreads.emplace_back([this] {
            CRuntimeParam param("abc", 0);
            for (int j = 0; j < 500; j++)
                (m_utilities.*GetParam().pFormat)(&param, "%s", "x");
        });
    for (std::thread& thread : vThreads)
        thread.join();
    EXPECT_EQ(m_recorder.Lines(), Lines(2000, GetRecorded("x")));
}

TEST(UtilitiesLogRelay, Overrides_GetEveryFormattedLine)
{
    CRelay relay;
    CRuntimeParam param("abc", 0);
    CStandardOutput output;
    relay.LogInfo(&param, "%d;", 1);
    relay.LogError(&param, "%d;", 2);
    relay.LogRaw(&param, "%d;", 3);
    EXPECT_EQ(relay.m_sCalls, "I:1;E:2;R:3;");
    EXPECT_EQ(output.Take(), "");
}

TEST(UtilitiesLogRelay, Overrides_AnswerNotifications)
{
    CRelay relay;
    CUtilities* pUtilities = &relay;
    CRuntimeParam param("abc", 0);
    EXPECT_EQ(
        pUtilities->LogUpdateRedirectedFileAttributes(&param, "/p", false, 0, false, 0, false, 0),
        101);
    EXPECT_EQ(pUtilities->LogRemoveRedirectedFile(&param, "/p"), 102);
    EXPECT_EQ(pUtilities->LogRenameRedirectedFile(&param, "/p", "/q"), 103);
    EXPECT_EQ(pUtilities->LogWriteRedirectedFile(&param, "/p", 0, 0, 0), 104);
}

TEST(UtilitiesNotification, NoHost_IsMinusOneAndPrintsNothing)
{
    CUtilities utilities;
    CRuntimeParam param("abc", 0x3FF);
    CStandardOutput output;
    EXPECT_EQ(utilities.LogUpdateRedirectedFileAttributes(&param, "/p", true, 1, true, 2, true, 3),
              -1);
    EXPECT_EQ(utilities.LogRemoveRedirectedFile(&param, "/p"), -1);
    EXPECT_EQ(utilities.LogRenameRedirectedFile(&param, "/p", "/q"), -1);
    EXPECT_EQ(utilities.LogWriteRedirectedFile(&param, "/p", 1, 2, 3), -1);
    EXPECT_EQ(output.Take(), "");
}

TEST(UtilitiesNotification, Host_GetsTheArgumentsUnchangedAndItsResultIsReturned)
{
    CUtilities utilities;
    CRuntimeParam param("abc", 0);
    CLogRecorder recorder;
    utilities.SetCallback(&recorder);
    recorder.SetUpdateResult(11);
    recorder.SetRemoveResult(12);
    recorder.SetRenameResult(13);
    recorder.SetWriteResult(14);
    EXPECT_EQ(utilities.LogUpdateRedirectedFileAttributes(&param, "/p", true, 0xFFFFFFFFFFFFFFFFULL,
                                                          false, 5, true, 6),
              11);
    EXPECT_EQ(utilities.LogRemoveRedirectedFile(&param, "/r"), 12);
    EXPECT_EQ(utilities.LogRenameRedirectedFile(&param, "/f", "/t"), 13);
    EXPECT_EQ(utilities.LogWriteRedirectedFile(&param, "/w", 0x123456789AULL, SEEK_END, 7), 14);
    EXPECT_EQ(recorder.Notifications(),
              (Lines{"update|abc|/p|1|18446744073709551615|0|5|1|6", "remove|abc|/r",
                     "rename|abc|/f|/t", "write|abc|/w|78187493530|2|7"}));
    EXPECT_EQ(recorder.Lines(), Lines{});
}

TEST(UtilitiesNotification, ByID_ReachesTheHostToo)
{
    CUtilities utilities;
    CLogRecorder recorder;
    EXPECT_EQ(utilities.LogUpdateRedirectedFileAttributes("id", "/p", false, 1, true, 2, false, 3),
              -1);
    EXPECT_EQ(utilities.LogRemoveRedirectedFile("id", "/p"), -1);
    EXPECT_EQ(utilities.LogRenameRedirectedFile("id", "/p", "/q"), -1);
    EXPECT_EQ(utilities.LogWriteRedirectedFile("id", "/p", 1, 0, 3), -1);
    utilities.SetCallback(&recorder);
    recorder.SetWriteResult(3);
    EXPECT_EQ(utilities.LogUpdateRedirectedFileAttributes("id", "/p", false, 1, true, 2, false, 3),
              0);
    EXPECT_EQ(utilities.LogRemoveRedirectedFile("id", "/p"), 0);
    EXPECT_EQ(utilities.LogRenameRedirectedFile("id", "/p", "/q"), 0);
    EXPECT_EQ(utilities.LogWriteRedirectedFile("id", "/p", 1, 0, 3), 3);
    EXPECT_EQ(recorder.Notifications(), (Lines{"update|id|/p|0|1|1|2|0|3", "remove|id|/p",
                                               "rename|id|/p|/q", "write|id|/p|1|0|3"}));
}

TEST(UtilitiesSetters, HostAndLogFile_AreNullUntilSet)
{
    CUtilities utilities;
    EXPECT_EQ(utilities.GetCallback(), nullptr);
    EXPECT_EQ(utilities.GetFileLogger(), nullptr);
    CLogRecorder recorder;
    CFileLogger logger("/nowhere");
    utilities.SetCallback(&recorder);
    utilities.SetFileLogger(&logger);
    EXPECT_EQ(utilities.GetCallback().get(), &recorder);
    EXPECT_EQ(utilities.GetFileLogger(), &logger);
    utilities.SetCallback(nullptr);
    utilities.SetFileLogger(nullptr);
    EXPECT_EQ(utilities.GetCallback(), nullptr);
    EXPECT_EQ(utilities.GetFileLogger(), nullptr);
}

TEST(UtilitiesSetters, Destructor_LeavesHostAndLogFileToTheirOwner)
{
    const CScratchFolder folder;
    CLogRecorder recorder;
    CFileLogger logger(folder.Path("log").c_str());
    ASSERT_TRUE(logger.Open(0));
    {
        CUtilities utilities;
        utilities.SetCallback(&recorder);
        utilities.SetFileLogger(&logger);
    }
    EXPECT_TRUE(recorder.LogInfo("abc", "x"));
    EXPECT_TRUE(logger.LogInfo("x"));
}

TEST(UtilitiesErrorText, KnownNumber_IsTextAndNumber)
{
    CUtilities utilities;
    char cText[REASON_SIZE] = "";
    utilities.GetLastErrorText(cText, ENOENT);
    EXPECT_STREQ(cText, "No such file or directory (2)");
    utilities.GetLastErrorText(cText, EMFILE);
    EXPECT_STREQ(cText, "Too many open files (24)");
}

TEST(UtilitiesErrorText, UnknownNumber_IsTheSystemsWordsForIt)
{
    CUtilities utilities;
    char cText[REASON_SIZE] = "";
    utilities.GetLastErrorText(cText, 54321);
    EXPECT_STREQ(cText, "Unknown error 54321 (54321)");
}

TEST(UtilitiesErrorText, NoTextForTheNumber_LeavesTheTargetUntouched)
{
    CUtilities utilities;
    char cText[REASON_SIZE] = "before";
    utilities.GetLastErrorText(cText, ERROR_WITHOUT_TEXT);
    EXPECT_STREQ(cText, "before");
}

namespace {

// A host that looks around at the moment when a descriptor is closed.
class CCloseWatcher : public CLogRecorder {
public:
    explicit CCloseWatcher(CUtilities* pUtilities) : m_pUtilities(pUtilities) {}

    bool LogInfo(const char* pcID, const char* pcMessage) override
    {
        if (strstr(pcMessage, "OS close file") != nullptr) {
            CRuntimeParam param("", 0);
            m_iExportsAtClose = m_pUtilities->GetMountInfo(&param, false, false);
            m_iSessionsAtClose = m_pUtilities->GetSessionInfo(&param, false);
        }
        return CLogRecorder::LogInfo(pcID, pcMessage);
    }

    int m_iExportsAtClose = -1;
    int m_iSessionsAtClose = -1;

private:
    CUtilities* m_pUtilities;
};

}  // namespace

TEST(UtilitiesReset, EmptiesExportsSessionsAndDescriptorsInThisOrder)
{
    const CScratchFolder folder;
    const std::string sFile = folder.Write("file", "text");
    CUtilities utilities;
    CCloseWatcher watcher(&utilities);
    utilities.SetCallback(&watcher);
    CRuntimeParam param("abc", LOG_CONTROL_FILE_ACCESS);
    LogArgu argu = {"Test"};
    ASSERT_TRUE(utilities.AddMountInfo(&param, &argu, folder.Path().c_str(), "vm", "", nullptr));
    utilities.AddSessionInfo("s", "/p");
    utilities.AddVSphereInfo("moid", "host", "443", "user", "pwd");
    const int iFile = utilities.GetCachedFileHandle(&param, &argu, sFile.c_str(), false);
    ASSERT_NE(iFile, -1);
    ASSERT_EQ(utilities.GetFileID(&param, &argu, sFile.c_str()), 0U);

    utilities.Reset(&param, &argu);
    EXPECT_EQ(utilities.GetMountInfo(&param, false, false), 0);
    EXPECT_EQ(utilities.GetSessionInfo(&param, false), 0);
    EXPECT_EQ(fcntl(iFile, F_GETFD), -1);
    EXPECT_EQ(watcher.m_iExportsAtClose, 0);
    EXPECT_EQ(watcher.m_iSessionsAtClose, 0);
    const unsigned int iHandle = 0;
    EXPECT_FALSE(utilities.GetFilePath(&param, &iHandle, nullptr, 0));
    EXPECT_EQ(utilities.GetVSphereInfo(&param, false), 1);  // kept: only its clean-up empties it
}

TEST(UtilitiesReset, Twice_IsHarmlessAndTheObjectGoesOn)
{
    CUtilities utilities;
    CRuntimeParam param("abc", 0);
    LogArgu argu = {"Test"};
    utilities.Reset(&param, &argu);
    utilities.Reset(&param, &argu);
    EXPECT_TRUE(utilities.AddMountInfo(&param, &argu, "/nowhere", "vm", "", nullptr));
}
