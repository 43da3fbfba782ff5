// The console's commands for those who look behind the scenes.
#include <filesystem>

#include <gtest/gtest.h>

#include "ConsoleFixture.h"

TEST(ConsoleCommands, Mount_IsUmountedByItsPathOnly)
{
    CConsole console;
    console.Type("debug");
    console.Type("mount /nowhere=vm1");
    EXPECT_EQ(console.Type("umount /else"), "");
    EXPECT_EQ(console.Type("umount vm1"), "");
    EXPECT_EQ(console.Type("status"), Status(false, {"/nowhere : vm1 () []"}));
    EXPECT_EQ(console.Type("umount /nowhere"), "");
    EXPECT_EQ(console.Type("status"), Status(false));
}

TEST(ConsoleCommands, Log_ThreeIsErrorsAndGeneralInformation)
{
    CConsole console;
    console.Type("debug");
    console.Type("start");
    EXPECT_EQ(console.Type("log 3"), "");
    EXPECT_EQ(Mount("nothing").Word(), 13U);
    console.ReadUntil("[erro] (127.0.0.1) ");
    console.Type("log 0");
    EXPECT_EQ(Mount("nothing").Word(), 13U);
    EXPECT_EQ(console.Type("status"), Status(true));
    console.ExpectQuit();
}

TEST(ConsoleCommands, Log_WhatIsNoNumber_IsZero)
{
    CConsole console({"-md", "int", "-log", "2"});
    EXPECT_EQ(console.Type("log much"), "");
    console.ExpectQuit();  // without the last line that this bit yields
}

TEST(ConsoleCommands, Test_BadValue_IsShownWithoutAPromptBehindIt)
{
    CConsole console;
    console.Type("debug");
    for (const char* pcValue : {"/tmp", "/tmp=1=2", "x y"}) {
        console.Write(std::string("test ") + pcValue + "\n");
        EXPECT_EQ(console.Type("xyz"), std::string("Fail to run test. Reason=In-valid input "
                                                   "value: ") +
                                           pcValue + "\n" + Unknown("xyz"));
    }
}

TEST(ConsoleCommands, Test_GoodValue_PromptsAgain)
{
    const CScratchFolder folder;
    CConsole console;
    console.Type("debug");
    console.Type("test " + folder.Path() + "=100");
    EXPECT_EQ(console.Type("status"), Status(false));
    console.ExpectQuit();
}

TEST(ConsoleCommands, LogFileSize_WithoutALogFile_SaysSo)
{
    CConsole console;
    console.Type("debug");
    EXPECT_EQ(console.Type("logfilesize 100"), "[info] (cRun) No file logger is defined\n");
}

TEST(ConsoleCommands, LogFileSize_ShowsBothAndRotatesFromThere)
{
    const CScratchFolder folder;
    CConsole console({"-md", "int", "-logfile", folder.Path("log")});
    console.Type("debug");
    EXPECT_EQ(console.Type("logfilesize 1"), "Current max log file size: 33554432\n"
                                             "Updated max log file size: 1\n");
    for (const char* pcValue : {"0", "-5", "x"})
        EXPECT_EQ(console.Type(std::string("logfilesize ") + pcValue),
                  "Current max log file size: 1\nUpdated max log file size: 1\n");
    EXPECT_FALSE(std::filesystem::exists(folder.Path("log.1")));
    EXPECT_EQ(console.Type("print hello"), "");
    EXPECT_TRUE(std::filesystem::exists(folder.Path("log.1")));
    EXPECT_TRUE(ReadWholeFile(folder.Path("log")).ends_with("][info] hello\n"));
    EXPECT_EQ(console.Type("logfilesize 12345678901"),
              "Current max log file size: 1\nUpdated max log file size: 12345678901\n");
}

TEST(ConsoleCommands, Print_WithoutALogFile_IsALineOnTheScreen)
{
    CConsole console;
    console.Type("debug");
    EXPECT_EQ(console.Type("print two words, 100%s%n"), "[info] (cRun) two words, 100%s%n\n");
    EXPECT_EQ(console.Type("print  "), "[info] (cRun)  \n");
}

TEST(ConsoleCommands, DebugAction_ShowsTheStatusWithItsBit)
{
    CConsole console;
    console.Type("debug");
    EXPECT_EQ(console.Type("debugaction 1"), "Current Server Status=5\n");
    EXPECT_EQ(console.Type("debugaction 0"), "Current Server Status=1\n");
    console.Type("start");
    EXPECT_EQ(console.Type("debugaction -7"), "Current Server Status=7\n");
    EXPECT_EQ(console.Type("debugaction x"), "Current Server Status=3\n");
}

TEST(ConsoleCommands, AddVSphereInfo_WithFewerThanFiveWords_IsShown)
{
    CConsole console;
    console.Type("debug");
    for (const char* pcValue : {"a", "ds1 host 443 user"})
        EXPECT_EQ(console.Type(std::string("addvsphereinfo ") + pcValue),
                  std::string("Fail to add VSphere info to NFS. Reason=In-valid input value: ") +
                      pcValue + "\n");
    EXPECT_EQ(console.Type("status"), Status(false));
}

TEST(ConsoleCommands, VSphereInfo_IsListedUntilItIsRemoved)
{
    CConsole console;
    console.Type("debug");
    EXPECT_EQ(console.Type("addvsphereinfo ds1 host1 443 user password"), "");
    EXPECT_EQ(console.Type("addvsphereinfo ds2 host2 444 user password more"), "");
    EXPECT_EQ(console.Type("status"), "\n" + StatusBlock(false, 0, "", 2,
                                                         " NFS datastore1 - ds1 (host1:443)\n"
                                                         " NFS datastore2 - ds2 (host2:444)\n"));
    EXPECT_EQ(console.Type("removevsphereinfo ds1"), "");
    EXPECT_EQ(console.Type("removevsphereinfo ds1"), "");
    EXPECT_EQ(console.Type("status"),
              "\n" + StatusBlock(false, 0, "", 1, " NFS datastore1 - ds2 (host2:444)\n"));
    EXPECT_EQ(console.Type("removevsphereinfo ds2"), "");
    EXPECT_EQ(console.Type("status"), Status(false));
}

TEST(ConsoleCommands, Status_ListsAllThatIsMounted)
{
    CConsole console;
    console.Type("debug");
    console.Type("mount /b=vm2");
    console.Type("mount /a=vm1");
    console.Type("addvsphereinfo ds1 host1 443 user password");
    EXPECT_EQ(console.Type("status"),
              "\n" + StatusBlock(false, 2, " mount1 - /a : vm1 () []\n mount2 - /b : vm2 () []\n",
                                 1, " NFS datastore1 - ds1 (host1:443)\n"));
}
