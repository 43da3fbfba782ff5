#include "FileLogger.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <sstream>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TestEnvironment.h"

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

TEST_F(FileLogger, LineOf4096Bytes_IsWhole)
{
    ASSERT_TRUE(m_logger.Open(0));
    const std::string sText = GetTextForLine(4096);
    EXPECT_TRUE(m_logger.LogInfo(sText.c_str()));
    EXPECT_EQ(ReadTexts(GetLog()), "[info] " + sText + "\n");
}

TEST_F(FileLogger, LongerLine_IsCutAt4096BytesAndStillEnds)
{
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo(std::string(10000, 'x').c_str()));
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
    m_logger.SetMaxLogSize(1);
    ASSERT_TRUE(m_logger.Open(0));
    ASSERT_TRUE(m_logger.LogInfo("a"));
    std::filesystem::remove(GetLog());  // so that there is nothing to move
    testing::internal::CaptureStdout();
    EXPECT_FALSE(m_logger.LogInfo("b"));
    const std::string sOutput = testing::internal::GetCapturedStdout();
    EXPECT_NE(sOutput.find("OS rename file from \"" + GetLog() + "\" to \"" + GetLog(1) +
                           "\". Error=No such file or directory (2)\n"),
              std::string::npos)
        << sOutput;
    EXPECT_FALSE(m_logger.LogInfo("c"));
    ASSERT_TRUE(m_logger.Open(0));
    EXPECT_TRUE(m_logger.LogInfo("d"));
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
    constexpr int THREADS = 4;
    constexpr int LINES = 100;
    m_logger.SetMaxLogSize(2000);
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
    EXPECT_GT(iFiles, 3);
    EXPECT_EQ(std::count(sTexts.begin(), sTexts.end(), '\n'), THREADS * LINES);
    for (int i = 0; i < THREADS; i++) {
        size_t iPosition = 0;  // the lines of a thread stand in their order
        for (int j = 0; j < LINES && iPosition != std::string::npos; j++)
            iPosition =
                sTexts.find(" " + std::to_string(i) + "." + std::to_string(j) + "\n", iPosition);
        EXPECT_NE(iPosition, std::string::npos) << i;
    }
}
