// What both systems do alike. Transports of the ONC RPC library are met in PortmapTest.
#include "Platform.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/mount.h>

#include <gtest/gtest.h>

#include "ProgramName.h"
#include "TestEnvironment.h"

namespace {

constexpr size_t SIZE = 64;

// What the call makes of a buffer of iSize bytes that were something else before; whatever stands
// behind them is left alone.
std::string GetArguments(size_t iSize)
{
    std::string sBuffer(iSize + 1, '#');
    Platform::GetProgramArguments(sBuffer.data(), iSize);
    EXPECT_EQ(sBuffer[iSize], '#');
    return sBuffer.substr(0, iSize);
}

// The text with zeros behind it.
std::string Filled(std::string sText, size_t iSize = SIZE)
{
    sText.resize(iSize, '\0');
    return sText;
}

}  // namespace

TEST(Platform, GetProgramArguments_FirstStringIsTheNameOfTheStart)
{
    SetProgramName("/folder of it/program");
    EXPECT_EQ(GetArguments(SIZE), Filled("/folder of it/program"));
}

TEST(Platform, GetProgramArguments_OthersFollowWithTheirZeros)
{
    const std::string sArguments("program\0-md\0\0int", 16);
    SetProgramName(sArguments);
    EXPECT_EQ(GetArguments(SIZE), Filled(sArguments));
}

TEST(Platform, GetProgramArguments_WithoutAName_BeginsWithAnEmptyString)
{
    SetProgramName(std::string("\0second", 7));
    EXPECT_STREQ(GetArguments(SIZE).c_str(), "");
    EXPECT_EQ(GetArguments(SIZE).substr(1, 6), "second");
}

TEST(Platform, GetProgramArguments_MoreThanFits_IsCutAndTerminated)
{
    const std::string sFits(SIZE - 1, 'a');
    const std::string sLonger = sFits + "bcd";
    SetProgramName(sLonger);
    EXPECT_EQ(GetArguments(SIZE), Filled(sFits));
    EXPECT_EQ(GetArguments(SIZE + 1), Filled(sLonger.substr(0, SIZE), SIZE + 1));
    EXPECT_EQ(GetArguments(2), Filled("a", 2));
    EXPECT_EQ(GetArguments(1), Filled("", 1));
}

TEST(Platform, GetProgramArguments_MoreThanOnePage_IsReadWhole)
{
    const std::string sName(PROGRAM_NAME_ROOM - 1, 'n');
    SetProgramName(sName);
    EXPECT_EQ(GetArguments(PROGRAM_NAME_ROOM), Filled(sName, PROGRAM_NAME_ROOM));
}

TEST(Platform, GetProgramArguments_SystemThatCannotBeAsked_LeavesZeros)
{
    SetProgramName("program");
    ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);  // seen by this process only
    const std::string sArguments = GetArguments(SIZE);
    ASSERT_EQ(umount("/proc"), 0);
    EXPECT_EQ(sArguments, Filled(""));
}

TEST(Platform, GetProgramArguments_LeavesNothingOpen)
{
    const size_t iDescriptors = CountDescriptors();
    GetArguments(SIZE);
    EXPECT_EQ(CountDescriptors(), iDescriptors);
}

TEST(Platform, GetErrorText_IsTheSystemsOwn)
{
    char cText[SIZE] = "";
    ASSERT_TRUE(Platform::GetErrorText(ENOENT, cText, sizeof(cText)));
    EXPECT_STREQ(cText, "No such file or directory");
}

TEST(Platform, GetErrorText_TooLong_IsCutAndTerminated)
{
    char cText[SIZE] = "########";
    ASSERT_TRUE(Platform::GetErrorText(ENOENT, cText, 3));
    EXPECT_EQ(std::string(cText, 8), std::string("No\0#####", 8));
}

TEST(Platform, GetFileSystemType_TellsOneFromAnother)
{
    constexpr unsigned long TMPFS = 0x01021994;
    constexpr unsigned long PROCFS = 0x9FA0;
    EXPECT_EQ(Platform::GetFileSystemType(GetScratchRoot().c_str()), TMPFS);
    EXPECT_EQ(Platform::GetFileSystemType("/proc"), PROCFS);
}

TEST(Platform, GetFileSystemType_NothingThere_IsZero)
{
    EXPECT_EQ(Platform::GetFileSystemType((GetScratchRoot() + "/missing").c_str()), 0UL);
}
