#include "FileLogger.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <regex>
#include <sstream>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "RuntimeParam.h"
#include "SmallDisk.h"
#include "TestEnvironment.h"
#include "Utilities.h"

namespace {

std::atomic<bool> g_bCloseFails = false;

}  // namespace

// Stands before the C library's. The next close fails once this is asked for; as a real one that
// does, it lets the descriptor go all the same.
extern "C" __attribute__((visibility("default"))) int close(int iFile)
{
    const auto iResult = static_cast<int>(syscall(SYS_close, iFile));
    if (!g_bCloseFails.exchange(false))
        return iResult;
    errno = EIO;
    return -1;
}

namespace {

constexpr size_t TIME_LENGTH = 21;  // "[2026/01/31 23:59:59]"

// The line of an information message that is iLength bytes long, its newline included.
std::string GetTextForLine(size_t iLength)
{
    return std::string(iLength - TIME_LENGTH - std::string("[info] \n").length(), 'x');
}

std::string GetLocalTime()
{
    const time_t iNow = time(nullptr);
    struct tm now = {};
    localtime_r(&iNow, &now);
    char cTime[32];
    strftime(cTime, sizeof(cTime), "[%Y/%m/%d %H:%M:%S]", &now);
    return cTime;
}

// What a file holds, without the times.
std::string ReadTexts(const std::string& sPath)
{
    std::istringstream file(ReadWholeFile(sPath));
    std::string sTexts;
    for (std::string sLine; std::getline(file, sLine);)
        sTexts += sLine.substr(std::min(TIME_LENGTH, sLine.length())) + "\n";
    return sTexts;
}

class FileLogger : public testing::Test {
protected:
    std::string GetLog() const { return m_folder.Path("log"); }
    std::string GetLog(int iIndex) const { return GetLog() + "." + std::to_string(iIndex); }

    const CScratchFolder m_folder;
    CFileLogger m_logger{GetLog().c_str()};
};

// The logger as servers have it: behind the facade, which prints what the logger does not take.
class FileLoggerBehindFacade : public FileLogger {
protected:
    FileLoggerBehindFacade() { m_utilities.SetFileLogger(&m_logger); }

    // Logs one line and yields what was printed.
    std::string Log(const std::string& sText, CFileLogger* pLogger = nullptr)
    {
        if (pLogger != nullptr)
            m_utilities.SetFileLogger(pLogger);
        testing::internal::CaptureStdout();
        m_utilities.LogInfo(&m_param, "%s", sText.c_str());
        return testing::internal::GetCapturedStdout();
    }

    static std::string Printed(const std::string& sText) { return "[info] (me) " + sText + "\n"; }

    CUtilities m_utilities;
    CRuntimeParam m_param{"me", 0};
};

// Lets no descriptor be opened for its lifetime; open ones go on.
class CNoDescriptors {
public:
    CNoDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &m_saved);
        struct rlimit none = m_saved;
        none.rlim_cur = 0;
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~CNoDescriptors() { setrlimit(RLIMIT_NOFILE, &m_saved); }
    CNoDescriptors(const CNoDescriptors&) = delete;
    CNoDescriptors& operator=(const CNoDescriptors&) = delete;

private:
    struct rlimit m_saved = {};
};

}  // namespace

TEST_F(FileLogger, Constructor_OpensNothing)
{
    EXPECT_FALSE(std::filesystem::exists(GetLog()));
    EXPECT_FALSE(m_logger.LogInfo("x"));
    EXPECT_FALSE(m_logger.LogError("x"));
    EXPECT_FALSE(m_logger.LogRaw("x"));
    EXPECT_FALSE(std::filesystem::exists(GetLog()));
}

TEST_F(FileLogger, Open_CreatesTheFile)
{
    EXPECT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(std::filesystem::exists(GetLog()));
}

TEST_F(FileLogger, Open_CreatesMissingFolders)
{
    const std::string sPath = m_folder.Path("a/b/c/log");
    CFileLogger logger(sPath.c_str());
    EXPECT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.LogInfo("x"));
    EXPECT_EQ(ReadTexts(sPath), "[info] x\n");
}

TEST_F(FileLogger, Open_Twice_OpensOnce)
{
    const size_t iBefore = CountDescriptors();
    EXPECT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.Open(0));
    EXPECT_EQ(CountDescriptors(), iBefore + 1);
}

TEST_F(FileLogger, Open_ExistingFile_Appends)
{
    m_folder.Write("log", "before\n");
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo("x"));
    const std::string sFile = ReadWholeFile(GetLog());
    EXPECT_TRUE(sFile.starts_with("before\n[")) << sFile;
    EXPECT_TRUE(sFile.ends_with("][info] x\n")) << sFile;
}

TEST_F(FileLogger, Open_Impossible_SaysWhyAndFails)
{
    const std::string sPath = m_folder.Write("file", "") + "/log";
    CFileLogger logger(sPath.c_str());
    testing::internal::CaptureStdout();
    EXPECT_FALSE(logger.Open(0));
    const std::string sOutput = testing::internal::GetCapturedStdout();
    EXPECT_NE(sOutput.find("[erro] () Fail to create log file \"" + sPath +
                           "\". Reason=Not a directory (20)\n"),
              std::string::npos)
        << sOutput;
    EXPECT_FALSE(logger.LogInfo("x"));
}

TEST_F(FileLogger, Open_Folder_SaysWhyAndFails)
{
    const std::string& sPath = m_folder.Path();
    CFileLogger logger(sPath.c_str());
    testing::internal::CaptureStdout();
    EXPECT_FALSE(logger.Open(0));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[erro] () [FileLogger.Open] OS open file \"" + sPath +
                  "\". Error=Is a directory (21)\n[erro] () Fail to create log file \"" + sPath +
                  "\". Reason=Is a directory (21)\n");
    EXPECT_FALSE(logger.LogInfo("x"));
}

TEST_F(FileLogger, Open_FolderThatCannotBeCreated_SaysWhyAndFails)
{
    CFileLogger logger("/proc/none/log");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(logger.Open(0));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[erro] () [FileLogger.Open] OS create folder \"/proc/none\" (mode = 493). Error=No "
              "such file or directory (2)\n[erro] () Fail to create log file "
              "\"/proc/none/log\". Reason=No such file or directory (2)\n");
    EXPECT_FALSE(std::filesystem::exists("/proc/none"));
}

TEST_F(FileLogger, Open_AfterAFailure_CanSucceed)
{
    m_folder.Write("file", "");
    CFileLogger logger(m_folder.Path("file/log").c_str());
    testing::internal::CaptureStdout();
    EXPECT_FALSE(logger.Open(0));
    EXPECT_NE(testing::internal::GetCapturedStdout(), "");
    EXPECT_TRUE(std::filesystem::remove(m_folder.Path("file")));
    EXPECT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.LogInfo("x"));
    EXPECT_EQ(ReadTexts(m_folder.Path("file/log")), "[info] x\n");
}

TEST_F(FileLogger, Open_GivenBits_WidensItsOwnLinesOnlyMeanwhile)
{
    testing::internal::CaptureStdout();
    EXPECT_TRUE(m_logger.Open(LOG_CONTROL_FILE_ACCESS));
    std::string sOutput = testing::internal::GetCapturedStdout();
    EXPECT_NE(sOutput.find("OS splited path \"" + GetLog() + "\" into"), std::string::npos);
    EXPECT_NE(sOutput.find("OS create file \"" + GetLog() + "\"\n"), std::string::npos);

    testing::internal::CaptureStdout();
    EXPECT_TRUE(m_logger.LogInfo("x"));
    m_logger.Close();
    EXPECT_TRUE(m_logger.Open(0));
    sOutput = testing::internal::GetCapturedStdout();
    EXPECT_EQ(sOutput, "");
}

TEST_F(FileLogger, Close_LetsTheDescriptorGo)
{
    const size_t iBefore = CountDescriptors();
    ASSERT_TRUE(m_logger.Open(0));
    m_logger.Close();
    m_logger.Close();
    EXPECT_EQ(CountDescriptors(), iBefore);
    EXPECT_FALSE(m_logger.LogInfo("x"));
}

TEST_F(FileLogger, Destructor_LetsTheDescriptorGo)
{
    const size_t iBefore = CountDescriptors();
    {
        CFileLogger logger(m_folder.Path("other").c_str());
        ASSERT_TRUE(logger.Open(0));
    }
    EXPECT_EQ(CountDescriptors(), iBefore);
}

TEST_F(FileLogger, ReopenedAfterClose_Appends)
{
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo("one"));
    m_logger.Close();
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo("two"));
    EXPECT_EQ(ReadTexts(GetLog()), "[info] one\n[info] two\n");
}

TEST_F(FileLogger, Lines_CarryTimeAndLevel)
{
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo("one"));
    EXPECT_TRUE(m_logger.LogError("two"));
    EXPECT_TRUE(m_logger.LogRaw("three"));
    const std::string sTime = "\\[\\d{4}/\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d\\]";
    const std::string sFile = ReadWholeFile(GetLog());
    EXPECT_TRUE(std::regex_match(sFile, std::regex(sTime + "\\[info\\] one\n" + sTime +
                                                   "\\[error\\] two\n" + sTime + " three\n")))
        << sFile;
}

TEST_F(FileLogger, Time_IsTheLocalOne)
{
    setenv("TZ", "TST-9:30", 1);  // nobody's time: half an hour off, to tell it from UTC
    tzset();
    ASSERT_TRUE(m_logger.Open(0));
    const std::string sBefore = GetLocalTime();
    EXPECT_TRUE(m_logger.LogRaw("x"));
    const std::string sAfter = GetLocalTime();
    unsetenv("TZ");
    tzset();
    const std::string sTime = ReadWholeFile(GetLog()).substr(0, TIME_LENGTH);
    EXPECT_LE(sBefore, sTime);
    EXPECT_LE(sTime, sAfter);
}

TEST_F(FileLogger, PercentInText_IsNotAFormat)
{
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo("100%s%n"));
    EXPECT_TRUE(m_logger.LogRaw("100%s%n"));
    EXPECT_EQ(ReadTexts(GetLog()), "[info] 100%s%n\n 100%s%n\n");
}

TEST_F(FileLogger, LineOfUpTo4096Bytes_IsWhole)
{
    ASSERT_TRUE(m_logger.Open(0));
    std::string sExpected;
    for (const size_t iLength : {4095U, 4096U}) {
        const std::string sText = GetTextForLine(iLength);
        EXPECT_TRUE(m_logger.LogInfo(sText.c_str()));
        sExpected += "[info] " + sText + "\n";
    }
    EXPECT_EQ(ReadTexts(GetLog()), sExpected);
    EXPECT_EQ(ReadWholeFile(GetLog()).length(), 4095U + 4096U);
}

TEST_F(FileLogger, LineOneByteLonger_LosesItsLast)
{
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo((GetTextForLine(4096) + "y").c_str()));
    EXPECT_EQ(ReadTexts(GetLog()), "[info] " + GetTextForLine(4096) + "\n");
}

TEST_F(FileLogger, LongerLine_IsCutAt4096BytesAndStillEnds)
{
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo(GetTextForLine(5000).c_str()));
    EXPECT_TRUE(m_logger.LogRaw(std::string(10000, 'y').c_str()));
    const std::string sFile = ReadWholeFile(GetLog());
    EXPECT_EQ(sFile.length(), 2 * 4096U);
    EXPECT_EQ(sFile[4095], '\n');
    EXPECT_EQ(sFile[8191], '\n');
}

TEST_F(FileLogger, MaxLogSize_Is32MiBUntilSet)
{
    EXPECT_EQ(m_logger.GetMaxLogSize(), 0x2000000);
    m_logger.SetMaxLogSize(0x123456789ALL);
    EXPECT_EQ(m_logger.GetMaxLogSize(), 0x123456789ALL);
}

TEST_F(FileLogger, SetMaxLogSize_ZeroOrLess_KeepsTheLimit)
{
    m_logger.SetMaxLogSize(100);
    m_logger.SetMaxLogSize(0);
    EXPECT_EQ(m_logger.GetMaxLogSize(), 100);
    m_logger.SetMaxLogSize(-1);
    EXPECT_EQ(m_logger.GetMaxLogSize(), 100);
    m_logger.SetMaxLogSize(1);
    EXPECT_EQ(m_logger.GetMaxLogSize(), 1);
}

TEST_F(FileLogger, FileBelowTheLimit_IsNotRotated)
{
    m_logger.SetMaxLogSize(100);
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo(GetTextForLine(99).c_str()));
    EXPECT_TRUE(m_logger.LogInfo("second"));  // the line may pass the limit
    EXPECT_FALSE(std::filesystem::exists(GetLog(1)));
    EXPECT_EQ(ReadTexts(GetLog()), "[info] " + GetTextForLine(99) + "\n[info] second\n");
}

TEST_F(FileLogger, FileAtTheLimit_IsRotatedByTheNextLine)
{
    m_logger.SetMaxLogSize(100);
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo(GetTextForLine(100).c_str()));
    EXPECT_FALSE(std::filesystem::exists(GetLog(1)));
    EXPECT_TRUE(m_logger.LogInfo("second"));
    EXPECT_EQ(ReadTexts(GetLog(1)), "[info] " + GetTextForLine(100) + "\n");
    EXPECT_EQ(ReadTexts(GetLog()), "[info] second\n");
}

TEST_F(FileLogger, FileFoundAtTheLimit_IsRotatedByTheFirstLine)
{
    m_folder.Write("log", std::string(100, 'z'));
    m_logger.SetMaxLogSize(100);
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo("first"));
    EXPECT_EQ(ReadWholeFile(GetLog(1)), std::string(100, 'z'));
    EXPECT_EQ(ReadTexts(GetLog()), "[info] first\n");
}

TEST_F(FileLogger, Rotation_SkipsNamesThatExistAndNeverGoesBack)
{
    m_folder.Write("log.1", "old");
    m_logger.SetMaxLogSize(1);
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo("a"));
    EXPECT_TRUE(m_logger.LogInfo("b"));  // moves "a" to .2
    std::filesystem::remove(GetLog(1));
    std::filesystem::remove(GetLog(2));
    EXPECT_TRUE(m_logger.LogInfo("c"));  // moves "b" to .3, although .1 is free now
    EXPECT_FALSE(std::filesystem::exists(GetLog(1)));
    EXPECT_FALSE(std::filesystem::exists(GetLog(2)));
    EXPECT_EQ(ReadTexts(GetLog(3)), "[info] b\n");
    EXPECT_EQ(ReadTexts(GetLog()), "[info] c\n");
}

TEST_F(FileLogger, Rotation_NameThatExists_KeepsItsContents)
{
    m_folder.Write("log.1", "old");
    m_logger.SetMaxLogSize(1);
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo("a"));
    EXPECT_TRUE(m_logger.LogInfo("b"));
    EXPECT_EQ(ReadWholeFile(GetLog(1)), "old");
    EXPECT_EQ(ReadTexts(GetLog(2)), "[info] a\n");
}

TEST_F(FileLogger, Rotation_Several_NumberUpwards)
{
    m_logger.SetMaxLogSize(1);
    ASSERT_TRUE(m_logger.Open(0));
    for (int i = 1; i <= 12; i++)
        EXPECT_TRUE(m_logger.LogRaw(std::to_string(i).c_str()));
    for (int i = 1; i <= 11; i++)
        EXPECT_EQ(ReadTexts(GetLog(i)), " " + std::to_string(i) + "\n");
    EXPECT_EQ(ReadTexts(GetLog()), " 12\n");
}

TEST_F(FileLogger, Rotation_KeepsOneDescriptor)
{
    const size_t iBefore = CountDescriptors();
    m_logger.SetMaxLogSize(1);
    ASSERT_TRUE(m_logger.Open(0));
    for (int i = 0; i < 5; i++)
        EXPECT_TRUE(m_logger.LogInfo("x"));
    EXPECT_EQ(CountDescriptors(), iBefore + 1);
}

TEST_F(FileLogger, Rotation_CannotMove_FailsUntilOpenedAgain)
{
    const size_t iBefore = CountDescriptors();
    m_logger.SetMaxLogSize(1);
    ASSERT_TRUE(m_logger.Open(0));
    ASSERT_TRUE(m_logger.LogInfo("a"));
    {
        const CHeldFile held(GetLog());
        testing::internal::CaptureStdout();
        EXPECT_FALSE(m_logger.LogInfo("b"));
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "[erro] () [FileLogger.Rotate] OS rename file from \"" + GetLog() + "\" to \"" +
                      GetLog(1) + "\". Error=Device or resource busy (16)\n");
    }
    EXPECT_EQ(CountDescriptors(), iBefore);
    EXPECT_FALSE(m_logger.LogInfo("c"));
    EXPECT_EQ(ReadTexts(GetLog()), "[info] a\n");
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo("d"));
    EXPECT_EQ(ReadTexts(GetLog(2)), "[info] a\n") << "The number that was tried is not tried again";
    EXPECT_EQ(ReadTexts(GetLog()), "[info] d\n");
}

TEST_F(FileLogger, Rotation_CannotClose_MovesNothingAndFailsUntilOpenedAgain)
{
    m_logger.SetMaxLogSize(1);
    const size_t iBefore = CountDescriptors();
    ASSERT_TRUE(m_logger.Open(0));
    ASSERT_TRUE(m_logger.LogInfo("a"));
    testing::internal::CaptureStdout();
    g_bCloseFails = true;
    EXPECT_FALSE(m_logger.LogInfo("b"));
    const std::string sOutput = testing::internal::GetCapturedStdout();
    EXPECT_NE(sOutput.find("OS close file \"" + GetLog() + "\". Error=Input/output error (5)\n"),
              std::string::npos)
        << sOutput;
    EXPECT_FALSE(m_logger.LogInfo("c"));
    EXPECT_EQ(CountDescriptors(), iBefore);
    EXPECT_FALSE(std::filesystem::exists(GetLog(1)));
    EXPECT_EQ(ReadTexts(GetLog()), "[info] a\n");
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo("d"));
    EXPECT_EQ(ReadTexts(GetLog()), "[info] d\n");
}

TEST_F(FileLogger, Rotation_NoRoomForANumberBehindThePath_FailsUntilOpenedAgain)
{
    std::string sPath = m_folder.Path();
    while (sPath.length() < 3800)
        sPath += "/" + std::string(200, 'f');
    sPath += "/";
    sPath.resize(4094, 'l');  // ".1" makes it one byte too long
    CFileLogger logger(sPath.c_str());
    logger.SetMaxLogSize(1);
    ASSERT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.LogInfo("a"));
    EXPECT_FALSE(logger.LogInfo("b"));
    EXPECT_FALSE(logger.LogInfo("c"));
    EXPECT_EQ(ReadTexts(sPath), "[info] a\n");
    EXPECT_TRUE(logger.Open(0));
}

TEST_F(FileLogger, Rotation_CannotCreateTheNewFile_FailsUntilOpenedAgain)
{
    m_logger.SetMaxLogSize(1);
    ASSERT_TRUE(m_logger.Open(0));
    ASSERT_TRUE(m_logger.LogInfo("a"));
    testing::internal::CaptureStdout();
    {
        const CNoDescriptors noDescriptors;
        EXPECT_FALSE(m_logger.LogInfo("b"));
    }
    const std::string sOutput = testing::internal::GetCapturedStdout();
    EXPECT_NE(sOutput.find("OS create file \"" + GetLog() + "\". Error=Too many open files (24)\n"),
              std::string::npos)
        << sOutput;
    EXPECT_FALSE(m_logger.LogInfo("c"));
    EXPECT_EQ(ReadTexts(GetLog(1)), "[info] a\n");
    EXPECT_FALSE(std::filesystem::exists(GetLog()));
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo("d"));
    EXPECT_EQ(ReadTexts(GetLog()), "[info] d\n");
}

TEST_F(FileLogger, FailedWrite_IsFalse)
{
    CFileLogger logger("/dev/full");
    ASSERT_TRUE(logger.Open(0));
    testing::internal::CaptureStdout();
    EXPECT_FALSE(logger.LogInfo("x"));
    const std::string sOutput = testing::internal::GetCapturedStdout();
    EXPECT_NE(sOutput.find("Error=No space left on device (28)\n"), std::string::npos) << sOutput;
}

TEST_F(FileLogger, ManyThreadsAndRotations_TearAndLoseNoLine)
{
    constexpr int THREADS = 10;
    constexpr int LINES = 2000;
    m_logger.SetMaxLogSize(5000);
    ASSERT_TRUE(m_logger.Open(0));
    std::vector<std::thread> vThreads;
    for (int i = 0; i < THREADS; i++)
        vThreads.emplace_back([this, i] {
            for (int j = 0; j < LINES; j++)
                EXPECT_TRUE(m_logger.LogRaw((std::to_string(i) + "." + std::to_string(j)).c_str()));
        });
    for (std::thread& thread : vThreads)
        thread.join();

    std::string sTexts;
    int iFiles = 1;
    for (; std::filesystem::exists(GetLog(iFiles)); iFiles++)
        sTexts += ReadTexts(GetLog(iFiles));
    sTexts += ReadTexts(GetLog());
    EXPECT_GT(iFiles, 50);
    // The lines of a thread stand in their order, and nothing else does.
    std::vector<int> vNext(THREADS, 0);
    std::istringstream lines(sTexts);
    for (std::string sLine; std::getline(lines, sLine);) {
        const auto iThread = static_cast<size_t>(sLine.at(1) - '0');
        ASSERT_LT(iThread, vNext.size()) << sLine;
        ASSERT_EQ(sLine, " " + std::to_string(iThread) + "." + std::to_string(vNext[iThread]++));
    }
    EXPECT_EQ(vNext, std::vector<int>(THREADS, LINES));
}

// ---- What the file does not take ----

TEST_F(FileLoggerBehindFacade, NotOpen_LinesArePrinted)
{
    EXPECT_EQ(Log("x"), Printed("x"));
    testing::internal::CaptureStdout();
    m_utilities.LogError(&m_param, "y");
    m_utilities.LogRaw(&m_param, "z");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[erro] (me) y\nz\n");
}

TEST_F(FileLoggerBehindFacade, Open_NothingIsPrinted)
{
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_EQ(Log("x"), "");
    testing::internal::CaptureStdout();
    m_utilities.LogError(&m_param, "y");
    m_utilities.LogRaw(&m_param, "z");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(ReadTexts(GetLog()), "[info] x\n[error] y\n z\n");
}

// Each line is in the file or on the screen, and whole; that the file could not be written to may
// stand on the screen too.
TEST_F(FileLoggerBehindFacade, FullDisk_PrintsWholeLinesUntilThereIsRoom)
{
    CSmallDisk disk;
    CFileLogger logger(disk.Path("log").c_str());
    ASSERT_TRUE(logger.Open(0));
    EXPECT_EQ(Log("first", &logger), "");
    disk.Fill();

    const std::string sLong(100, 'x');
    std::string sWritten = "[info] first\n";
    int iPrinted = 0;
    for (int i = 0; i < 100; i++) {
        const std::string sText = std::to_string(i) + sLong;
        const std::string sOutput = Log(sText);
        if (sOutput.empty())
            sWritten += "[info] " + sText + "\n";
        else
            iPrinted += sOutput.ends_with(Printed(sText)) ? 1 : -1000;
    }
    EXPECT_GT(iPrinted, 0);
    EXPECT_LT(iPrinted, 100) << "Some still fit behind the first";
    EXPECT_EQ(ReadTexts(disk.Path("log")), sWritten);

    disk.Free();
    EXPECT_EQ(Log("last"), "");
    EXPECT_EQ(ReadTexts(disk.Path("log")), sWritten + "[info] last\n");
    m_utilities.SetFileLogger(nullptr);
}

// A file that was there before is written to at its end by the system itself.
TEST_F(FileLoggerBehindFacade, FullDisk_WithAFileThatIsContinued)
{
    CSmallDisk disk;
    std::ofstream(disk.Path("log")) << std::string(4000, 'z') << "\n";
    CFileLogger logger(disk.Path("log").c_str());
    ASSERT_TRUE(logger.Open(0));
    disk.Fill();
    const std::string sText(200, 'x');  // its first bytes fit
    EXPECT_EQ(Log(sText, &logger), Printed(sText));
    EXPECT_EQ(ReadWholeFile(disk.Path("log")), std::string(4000, 'z') + "\n");
    EXPECT_EQ(Log("short"), "");
    disk.Free();
    EXPECT_EQ(Log("last"), "");
    EXPECT_TRUE(ReadWholeFile(disk.Path("log")).starts_with(std::string(4000, 'z') + "\n["));
    m_utilities.SetFileLogger(nullptr);
}

TEST_F(FileLoggerBehindFacade, FileRemoved_LinesArePrinted)
{
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_EQ(Log("a"), "");
    EXPECT_TRUE(std::filesystem::remove(GetLog()));
    EXPECT_EQ(Log("b"), Printed("b"));
    EXPECT_EQ(Log("c"), Printed("c"));
    EXPECT_FALSE(std::filesystem::exists(GetLog()));
    m_logger.Close();
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_EQ(Log("d"), "");
    EXPECT_EQ(ReadTexts(GetLog()), "[info] d\n");
}

TEST_F(FileLoggerBehindFacade, FolderRemoved_LinesArePrinted)
{
    const std::string sFolder = m_folder.Path("logs");
    CFileLogger logger((sFolder + "/log").c_str());
    logger.SetMaxLogSize(1);
    ASSERT_TRUE(logger.Open(0));
    EXPECT_EQ(Log("a", &logger), "");
    std::filesystem::remove_all(sFolder);
    EXPECT_EQ(Log("b"), Printed("b"));
    EXPECT_EQ(Log("c"), Printed("c"));
    EXPECT_FALSE(std::filesystem::exists(sFolder));
    m_utilities.SetFileLogger(nullptr);
}

TEST_F(FileLoggerBehindFacade, RotationThatFails_PrintsTheLine)
{
    m_logger.SetMaxLogSize(1);
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_EQ(Log("a"), "");
    const CHeldFile held(GetLog());
    EXPECT_TRUE(Log("b").ends_with("(16)\n" + Printed("b")));
    EXPECT_EQ(Log("c"), Printed("c"));
    EXPECT_EQ(ReadTexts(GetLog()), "[info] a\n");
}
