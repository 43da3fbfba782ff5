// Every native method, called by a host application in a Java virtual machine.
#include <algorithm>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "JavaFixture.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "NfsMain.h"
#include "SelfTestFixture.h"

namespace {

constexpr uint32_t STAT_ACCES = 13;

const std::string IO_EXCEPTION = "! java.io.IOException: ";

// A text with characters of each length that they can have, and how the driver shows it.
const std::string WIDE_TEXT = "a\\u0000\u00fc\u6f22\U0001f600z";  // the zero as a command takes it
const std::string WIDE_SHOWN = "a\\u0000\\u00fc\\u6f22\\ud83d\\ude00z";

class JavaMethods : public CJavaFixture {
protected:
    // What READ yields, zeros shown as dots.
    std::string ReadAll(const std::string& sHandle)
    {
        std::string sData = CNamespaceFixture::Read(sHandle);
        std::replace(sData.begin(), sData.end(), '\0', '.');
        return sData;
    }

    // How many descriptors of a path the virtual machine's process has.
    static size_t CountOpen(const std::string& sPath)
    {
        size_t iCount = 0;
        const std::string sFolder = "/proc/" + std::to_string(s_pJava->Pid()) + "/fd";
        for (const auto& entry : std::filesystem::directory_iterator(sFolder)) {
            std::error_code error;  // it may be closed by now
            iCount += std::filesystem::read_symlink(entry.path(), error) == sPath;
        }
        return iCount;
    }

    // A redirected file of ten letters and ten digits.
    std::string OpenFilled(const std::string& sName)
    {
        const std::string sHandle = OpenRedirected(sName, 20);
        const std::string sPath = Quote(m_Folder.Path(sName));
        const std::string sLetters = Quote(m_Outside.Write("letters", "abcdefghijklmnop"));
        const std::string sDigits = Quote(m_Outside.Write("digits", "0123456789"));
        EXPECT_EQ(Native("addRedirectedFileSegment", sPath, sLetters, "3", "0", "6"), "void");
        EXPECT_EQ(Native("addRedirectedFileSegment", sPath, sLetters, "0", "6", "4"), "void");
        EXPECT_EQ(Native("addRedirectedFileSegment", sPath, sDigits, "0", "10", "10"), "void");
        return sHandle;
    }

    // The texts of the lines that the host was given since the last time, figures of the self-test
    // apart. sBy is the thread that they come by, and the ID.
    static Lines TakeInfoLines(const std::string& sBy)
    {
        const std::string sStart = "@ logInfo|host|" + sBy + "|";
        Lines vLines;
        for (const std::string& sLine : s_pJava->Printed("@ ")) {
            EXPECT_TRUE(sLine.starts_with(sStart)) << sLine;
            vLines.push_back(
                WithoutFigure(sLine.substr(std::min(sStart.length(), sLine.length()))));
        }
        s_pJava->Clear();
        return vLines;
    }

    // The mode of a file that the virtual machine makes, in hexadecimal.
    static std::string GetFileMode()
    {
        const std::string sMask = std::to_string(s_pJava->GetStatus("Umask"));  // octal digits
        char cMode[16];
        snprintf(cMode, sizeof(cMode), "%lX", S_IFREG | (0666 & ~std::stoul(sMask, nullptr, 8)));
        return cMode;
    }

    const CScratchFolder m_Outside;  // not published
};

}  // namespace

// ---- Making and ending a controller ----

TEST_F(JavaMethods, Initial_ByMode_MakesThatController)
{
    const struct {
        const char* pcMode;
        const char* pcAccessMode;
        const char* pcDescription;
        const char* pcVersion;
    } MODES[] = {
        {"0", "0", "Internal NFS Server", "1.2"}, {"1", "1", "External NFS Server", "1.2"},
        {"2", "2", "Unknown", "Unknown"},  // nobody is there to answer
        {"3", "0", "Internal NFS Server", "1.2"}, {"-1", "0", "Internal NFS Server", "1.2"},
    };
    for (const auto& mode : MODES) {
        ASSERT_NE(Java(std::string("m = host.initial \"other\" ") + mode.pcMode + " 0"), "0");
        EXPECT_EQ(Java("host.getAccessMode $m"), mode.pcAccessMode) << mode.pcMode;
        EXPECT_EQ(Java("host.getDescription $m"), mode.pcDescription) << mode.pcMode;
        EXPECT_EQ(Java("host.getVersion $m"), mode.pcVersion) << mode.pcMode;
        EXPECT_EQ(Java("host.terminate $m"), "void");
    }
}

TEST_F(JavaMethods, Initial_ThatFails_ThrowsTheReason)
{
    EXPECT_EQ(Java("host.initial null 0 0"), IO_EXCEPTION + "ID is not defined");
    EXPECT_EQ(Java("host.initial \"\" 0 0"), IO_EXCEPTION + "ID is not defined");
    EXPECT_EQ(Java("host.initial null 1 0"), IO_EXCEPTION + "ID is not defined");
    EXPECT_EQ(Java("host.initial null 2 0"), IO_EXCEPTION + "ID is not defined");
    EXPECT_EQ(Java("host.initial \"a b\" 1 0"), IO_EXCEPTION + "Invalid char \" \" inside ID");
    EXPECT_EQ(Java("host.initial \"a/b\" 1 0"), IO_EXCEPTION + "Invalid char \"/\" inside ID");
}

TEST_F(JavaMethods, Initial_LogControl_IsInForce)
{
    Java("m = host.initial \"other\" 0 2");
    Java("host.startRemoteController $m");
    EXPECT_EQ(s_pJava->Printed("@ "),
              Lines{"@ logInfo|host|main|other|[NfsMain.StartRemoteController] No remote "
                    "controller to start. It is NOT support in internal server mode."});
    Java("host.terminate $m");
}

TEST_F(JavaMethods, Terminate_EndsAServerThatRuns)
{
    const long iThreads = s_pJava->CountNativeThreads();
    Java("m = host.initial \"other\" 0 0");
    ASSERT_EQ(Java("host.startServer $m 0 0 false"), "true");
    EXPECT_TRUE(IsServing());
    EXPECT_EQ(Java("host.terminate $m"), "void");
    EXPECT_FALSE(CTcpClient(WIRE_NFS_PORT).IsConnected());
    EXPECT_EQ(s_pJava->CountNativeThreads(), iThreads);
}

TEST_F(JavaMethods, EveryMethod_WithoutController_GivesItsNeutralValue)
{
    const std::pair<const char*, const char*> CALLS[] = {
        {"terminate 0", "void"},
        {"isServerRunning 0", "false"},
        {"startRemoteController 0", "false"},
        {"stopRemoteController 0", "void"},
        {"startServer 0 0 0 false", "false"},
        {"stopServer 0", "void"},
        {"receiveCallbackLoop 0 -1", "false"},
        {"addMountPoint 0 \"/\" \"root\"", "false"},
        {"removeMountPoint 0 \"/\"", "void"},
        {"addSession 0 \"s\" \"/\"", "void"},
        {"removeSession 0 \"s\"", "void"},
        {"isSessionExists 0 \"s\"", "false"},
        {"isLocalSessionExists 0 \"s\"", "false"},
        {"openRedirectedFile 0 \"/f\" 1 false 0 0", "void"},
        {"closeRedirectedFile 0 \"/f\"", "void"},
        {"closeAllRedirectedFiles 0 \"/\"", "void"},
        {"addRedirectedFileSegment 0 \"/f\" \"/s\" 0 0 1", "void"},
        {"exportRedirectedFile 0 \"/f\" \"/e\"", "void"},
        {"exportRedirectedFileInfo 0 \"/f\" \"/e\" true", "void"},
        {"closeOpenedFile 0 \"/f\"", "void"},
        {"closeAllOpenedFiles 0 \"/\"", "void"},
        {"setLogControl 0 1023", "void"},
        {"getVersion 0", "Not Defined"},
        {"getDescription 0", "Unknown"},
        {"getAccessMode 0", "-1"},
        {"getMountInfo 0 false true", "0"},
        {"getSessionInfo 0 true", "0"},
        {"runTestMode 0 \"/\" 1", "void"},
        {"getServerStatus 0", "0"},
        {"addVSphereInfo 0 \"m\" \"h\" \"p\" \"u\" \"w\"", "void"},
        {"removeVSphereInfo 0 \"m\"", "void"},
    };
    EXPECT_EQ(std::size(CALLS), 31U);  // all but initial, which has no handle
    for (const auto& [pcCall, pcResult] : CALLS)
        EXPECT_EQ(Java(std::string("host.") + pcCall), pcResult) << pcCall;
    EXPECT_EQ(s_pJava->Printed("@ "), Lines());
}

TEST_F(JavaMethods, EveryText_MayBeNull)
{
    const std::string sFolder = Quote(m_Folder.Path());
    const std::pair<std::string, std::string> CALLS[] = {
        {Command("addMountPoint", "null", "\"vm1\""),
         IO_EXCEPTION + "Local mount folder is not defined"},
        {Command("addMountPoint", "null", "null"),
         IO_EXCEPTION + "Local mount folder is not defined"},
        {Command("addMountPoint", sFolder, "null"), IO_EXCEPTION + "Export name is not defined"},
        {Command("removeMountPoint", "null"), "void"},
        {Command("addSession", "null", sFolder), "void"},
        {Command("addSession", "\"s\"", "null"), "void"},
        {Command("removeSession", "null"), "void"},
        {Command("isSessionExists", "null"), "false"},
        {Command("isLocalSessionExists", "null"), "false"},
        {Command("openRedirectedFile", "null", "1", "true", "0", "0"), "void"},
        {Command("closeRedirectedFile", "null"), "void"},
        {Command("closeAllRedirectedFiles", "null"), "void"},
        {Command("addRedirectedFileSegment", "null", "\"/s\"", "0", "0", "1"),
         IO_EXCEPTION + "Path is not defined"},
        {Command("exportRedirectedFile", "null", "\"/e\""), "void"},
        {Command("exportRedirectedFile", "\"/f\"", "null"), "void"},
        {Command("exportRedirectedFileInfo", "null", "\"/e\"", "true"), "void"},
        {Command("exportRedirectedFileInfo", "\"/f\"", "null", "false"), "void"},
        {Command("closeOpenedFile", "null"), "void"},
        {Command("closeAllOpenedFiles", "null"), "void"},
        {Command("runTestMode", "null", "1"), "void"},
        {Command("addVSphereInfo", "null", "null", "null", "null", "null"), "void"},
        {Command("addVSphereInfo", "\"m\"", "null", "null", "null", "null"), "void"},
        {Command("removeVSphereInfo", "null"), "void"},
    };
    for (const auto& mode : {"0", "1", "2"}) {
        TearDown();
        Initial(atoi(mode));
        for (const auto& [sCall, sResult] : CALLS)
            EXPECT_EQ(Java(sCall), sResult) << "mode " << mode << ": " << sCall;
    }
}

// No source is a segment of zeros.
TEST_F(JavaMethods, AddRedirectedFileSegment_WithoutSource_ReadsAsZeros)
{
    StartJavaServer();
    const std::string sHandle = OpenRedirected("disk", 5);
    EXPECT_EQ(
        Native("addRedirectedFileSegment", Quote(m_Folder.Path("disk")), "null", "0", "0", "5"),
        "void");
    EXPECT_EQ(ReadAll(sHandle), ".....");
}

// ---- The server ----

TEST_F(JavaMethods, StartAndStopServer_AreSeenInItsState)
{
    EXPECT_EQ(Native("isServerRunning"), "false");
    EXPECT_EQ(Native("getServerStatus"), "1");
    EXPECT_EQ(Native("startServer", "0", "0", "false"), "true");
    EXPECT_EQ(Native("isServerRunning"), "true");
    EXPECT_EQ(Native("getServerStatus"), "3");
    EXPECT_TRUE(IsServing());
    EXPECT_EQ(Native("stopServer"), "void");
    EXPECT_EQ(Native("isServerRunning"), "false");
    EXPECT_EQ(Native("getServerStatus"), "1");
    EXPECT_FALSE(CTcpClient(WIRE_NFS_PORT).IsConnected());
}

TEST_F(JavaMethods, StartServer_TakesThePortsInTheirOrder)
{
    ASSERT_EQ(Native("startServer", "1601", "1602", "false"), "true");
    EXPECT_TRUE(IsAnswered(WIRE_MOUNT_PROG, 1601));
    EXPECT_TRUE(IsAnswered(WIRE_NFS_PROG, 1602));
}

TEST_F(JavaMethods, StartServer_ReadOnly_RefusesChanges)
{
    ASSERT_EQ(Native("startServer", "0", "0", "true"), "true");
    ASSERT_EQ(Native("addMountPoint", Quote(m_Folder.Path()), "\"vm1\""), "true");
    m_sRoot = Mount("vm1");
    EXPECT_EQ(Create(m_sRoot, "file"), Status(STAT_ACCES));
}

TEST_F(JavaMethods, StartServer_MakesFilesForRoot)
{
    StartJavaServer();
    Create(m_sRoot, "file");
    struct stat info = {};
    ASSERT_EQ(lstat(m_Folder.Path("file").c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, 0U);
    EXPECT_EQ(info.st_gid, 0U);
}

TEST_F(JavaMethods, StartServer_ThatFails_ThrowsTheReason)
{
    Java("m = host.initial \"other\" 0 0");
    ASSERT_EQ(Native("startServer", "0", "0", "false"), "true");
    EXPECT_EQ(Native("startServer", "0", "0", "false"), IO_EXCEPTION + "NFS already running");
    EXPECT_EQ(Java("host.startServer $m 1601 2049 false"),
              IO_EXCEPTION + "NFS daemon failed to open port 2049");
    EXPECT_EQ(Java("host.isServerRunning $m"), "false");
    EXPECT_EQ(Java("host.startServer $m 1058 1602 false"),
              IO_EXCEPTION + "Mount daemon failed to open port 1058");
    Java("host.terminate $m");
}

TEST_F(JavaMethods, RemoteController_InModes)
{
    EXPECT_EQ(Native("startRemoteController"), "true");  // there is none to start
    EXPECT_EQ(Native("stopRemoteController"), "void");

    const std::pair<const char*, const char*> CHANNELS[] = {{"1", "/tmp/nfs-server"},
                                                            {"2", "/tmp/nfs-other"}};
    for (const auto& [pcMode, pcChannel] : CHANNELS) {
        Java(std::string("m = host.initial \"other\" ") + pcMode + " 0");
        Java(std::string("n = host.initial \"other\" ") + pcMode + " 0");
        EXPECT_EQ(Java("host.startRemoteController $m"), "true");
        EXPECT_TRUE(std::filesystem::exists(pcChannel)) << pcChannel;
        EXPECT_EQ(Java("host.startRemoteController $n"),
                  IO_EXCEPTION + "Ipc channel is already created by others.");
        EXPECT_EQ(Java("host.stopRemoteController $m"), "void");
        EXPECT_EQ(Java("host.startRemoteController $n"), "true");
        Java("host.stopRemoteController $n");
        Java("host.terminate $m");
        Java("host.terminate $n");
    }
}

TEST_F(JavaMethods, SetLogControl_ChangesWhatIsLogged)
{
    Native("startRemoteController");
    EXPECT_EQ(s_pJava->Printed("@ "), Lines());
    EXPECT_EQ(Native("setLogControl", "2"), "void");
    Native("startRemoteController");
    EXPECT_EQ(s_pJava->Printed("@ ").size(), 1U);
    Native("setLogControl", "0");
    Native("startRemoteController");
    EXPECT_EQ(s_pJava->Printed("@ ").size(), 1U);
}

// ---- Exports and sessions ----

TEST_F(JavaMethods, MountPoints_ComeAndGo)
{
    const std::string sFolder = m_Folder.Path();
    StartJavaServer();
    EXPECT_EQ(Native("addMountPoint", Quote(m_Outside.Path()), "\"vm2\""), "true");
    EXPECT_EQ(Native("getMountInfo", "false", "false"), "2");
    EXPECT_EQ(Native("getMountInfo", "true", "false"), "1");
    EXPECT_EQ(s_pJava->Printed("@ "), Lines());
    EXPECT_EQ(Native("getMountInfo", "true", "true"), "1");
    const std::string sFirst =
        "@ logRaw|host|main|test| mount1 - " + sFolder + " : vm1 (127.0.0.1) []";
    EXPECT_EQ(s_pJava->Printed("@ "), Lines{sFirst});
    s_pJava->Clear();
    EXPECT_EQ(Native("getMountInfo", "false", "true"), "2");
    EXPECT_EQ(s_pJava->Printed("@ "), (Lines{sFirst, "@ logRaw|host|main|test| mount2 - " +
                                                         m_Outside.Path() + " : vm2 () []"}));
    EXPECT_EQ(Native("removeMountPoint", Quote(sFolder)), "void");
    EXPECT_EQ(Native("getMountInfo", "false", "false"), "1");
    CReply reply = CallMount(1, CXdr().String("vm1").Bytes());
    EXPECT_NE(reply.Word(), 0U);
}

TEST_F(JavaMethods, AddMountPoint_ThatFails_ThrowsTheReason)
{
    const std::string sFolder = Quote(m_Folder.Path());
    EXPECT_EQ(Native("addMountPoint", "\"\"", "\"vm1\""),
              IO_EXCEPTION + "Local mount folder is not defined");
    EXPECT_EQ(Native("addMountPoint", sFolder, "\"vm/1\""),
              IO_EXCEPTION + "Invalid char \"/\" inside export name");
    EXPECT_EQ(Native("addMountPoint", sFolder, "\"vm1\""), "true");
    EXPECT_EQ(Native("addMountPoint", Quote(m_Outside.Path()), "\"vm1\""),
              IO_EXCEPTION + "Export name \"vm1\" already defined");
    EXPECT_EQ(Native("addMountPoint", sFolder, "\"vm2\""),
              IO_EXCEPTION + "Local mount path \"" + m_Folder.Path() + "\" already defined");
}

TEST_F(JavaMethods, Sessions_ComeAndGo)
{
    EXPECT_EQ(Native("isSessionExists", "\"s1\""), "false");
    EXPECT_EQ(Native("addSession", "\"s1\"", "\"/folder\""), "void");
    EXPECT_EQ(Native("isSessionExists", "\"s1\""), "true");
    EXPECT_EQ(Native("isLocalSessionExists", "\"s1\""), "true");
    EXPECT_EQ(Native("getSessionInfo", "false"), "1");
    EXPECT_EQ(s_pJava->Printed("@ "), Lines());
    EXPECT_EQ(Native("getSessionInfo", "true"), "1");
    EXPECT_EQ(s_pJava->Printed("@ "), Lines{"@ logRaw|host|main|test| session1 - s1 : /folder"});
    EXPECT_EQ(Native("removeSession", "\"s1\""), "void");
    EXPECT_EQ(Native("isSessionExists", "\"s1\""), "false");
    EXPECT_EQ(Native("isLocalSessionExists", "\"s1\""), "false");
    EXPECT_EQ(Native("getSessionInfo", "true"), "0");
}

// ---- Redirected files ----

TEST_F(JavaMethods, RedirectedFile_IsReadFromItsSegments_UntilItIsClosed)
{
    StartJavaServer();
    const std::string sHandle = OpenFilled("disk");
    EXPECT_EQ(ReadAll(sHandle), "defghiabcd0123456789");
    EXPECT_EQ(Native("closeRedirectedFile", Quote(m_Folder.Path("disk"))), "void");
    EXPECT_EQ(ReadAll(sHandle), "");
}

TEST_F(JavaMethods, CloseAllRedirectedFiles_ClosesThoseOfTheFolder)
{
    StartJavaServer();
    MakeFolder("inner");
    const std::string sOuter = OpenFilled("disk");
    m_Folder.Write("inner/disk", "");
    Native("openRedirectedFile", Quote(m_Folder.Path("inner/disk")), "77", "false", "0", "0");
    const std::string sInner = Lookup(Lookup(m_sRoot, "inner"), "disk");
    EXPECT_EQ(ReadAll(sInner).size(), 77U);
    EXPECT_EQ(Native("closeAllRedirectedFiles", Quote(m_Folder.Path("inner"))), "void");
    EXPECT_EQ(ReadAll(sInner), "");
    EXPECT_EQ(ReadAll(sOuter), "defghiabcd0123456789");
}

// Granules of 1 MiB, and a check point wherever one begins at a multiple of 2 MiB.
TEST_F(JavaMethods, OpenRedirectedFile_WithIndex_KeepsItInTheFile)
{
    StartJavaServer();
    const std::string sPath = m_Folder.Write("disk", "");
    const std::string sListing = m_Folder.Write("listing", "");
    Native("openRedirectedFile", Quote(sPath), "4194304", "true", "1", "2");
    Native("addRedirectedFileSegment", Quote(sPath), "\"/s\"", "0", "0", "4194304");
    constexpr size_t RECORD_SIZE = 32;
    EXPECT_EQ(std::filesystem::file_size(sPath), 4 * RECORD_SIZE);
    Native("exportRedirectedFileInfo", Quote(sPath), Quote(sListing), "true");
    EXPECT_EQ(ReadWholeFile(sListing), "--> CheckPoint Segment fox=64, ox=2097152\n"
                                       "-------------------\n"
                                       "--> Merged Segment path=/s, fox=0, ox=0, len=4194304\n");
}

TEST_F(JavaMethods, AddRedirectedFileSegment_ThatFails_Throws)
{
    EXPECT_EQ(Native("addRedirectedFileSegment", "\"/nothing\"", "\"/s\"", "0", "0", "1"),
              IO_EXCEPTION);  // kept: nobody says why
}

// The target is writable because it lies in an export.
TEST_F(JavaMethods, Export_WritesContentsAndListing)
{
    StartJavaServer();
    OpenFilled("disk");
    const std::string sPath = Quote(m_Folder.Path("disk"));
    const std::string sContents = m_Folder.Write("contents", "");
    EXPECT_EQ(Native("exportRedirectedFile", sPath, Quote(sContents)), "void");
    EXPECT_EQ(ReadWholeFile(sContents), "defghiabcd0123456789");

    const std::string sLetters = m_Outside.Path("letters");
    const std::string sDigits = m_Outside.Path("digits");
    const std::string sListing = m_Folder.Write("listing", "");
    EXPECT_EQ(Native("exportRedirectedFileInfo", sPath, Quote(sListing), "false"), "void");
    EXPECT_EQ(ReadWholeFile(sListing), "Segment path=" + sLetters + ", fox=3, ox=0, len=6\n" +
                                           "Segment path=" + sLetters + ", fox=0, ox=6, len=4\n" +
                                           "Segment path=" + sDigits + ", fox=0, ox=10, len=10\n");
    const std::string sMerged = m_Folder.Write("merged", "");
    EXPECT_EQ(Native("exportRedirectedFileInfo", sPath, Quote(sMerged), "true"), "void");
    EXPECT_EQ(ReadWholeFile(sMerged),
              "--> Merged Segment path=" + sLetters + ", fox=3, ox=0, len=10\n" +
                  "--> Merged Segment path=" + sDigits + ", fox=0, ox=10, len=10\n");
}

// ---- Descriptors that are kept open, and the rest ----

TEST_F(JavaMethods, CloseOpenedFiles_LetsGoOfDescriptors)
{
    StartJavaServer();
    MakeFolder("inner");
    const std::string sOne = m_Folder.Write("one", "1");
    const std::string sTwo = m_Folder.Write("inner/two", "2");
    const std::string sThree = m_Folder.Write("inner/three", "3");
    const std::string sInner = Lookup(m_sRoot, "inner");
    const std::string sOneHandle = Lookup(m_sRoot, "one");
    EXPECT_EQ(CNamespaceFixture::Read(sOneHandle), "1");
    EXPECT_EQ(CNamespaceFixture::Read(Lookup(sInner, "two")), "2");
    EXPECT_EQ(CNamespaceFixture::Read(Lookup(sInner, "three")), "3");
    ASSERT_EQ(CountOpen(sOne) + CountOpen(sTwo) + CountOpen(sThree), 3U);
    EXPECT_EQ(Native("closeOpenedFile", Quote(sTwo)), "void");
    EXPECT_EQ(CountOpen(sTwo), 0U);
    EXPECT_EQ(CountOpen(sOne) + CountOpen(sThree), 2U);
    EXPECT_EQ(CNamespaceFixture::Read(Lookup(sInner, "two")), "2");
    EXPECT_EQ(Native("closeAllOpenedFiles", Quote(m_Folder.Path("inner"))), "void");
    EXPECT_EQ(CountOpen(sTwo) + CountOpen(sThree), 0U);
    EXPECT_EQ(CountOpen(sOne), 1U);
}

TEST_F(JavaMethods, RunTestMode_GivesItsLinesToTheHost)
{
    for (const SelfTestRun& run : RUNS) {
        s_pJava->Clear();
        EXPECT_EQ(Native("runTestMode", Quote(m_Folder.Path()), std::to_string(run.iFileSize)),
                  "void");
        EXPECT_EQ(Join(TakeInfoLines("main|test")),
                  Join(GetGoodRun(m_Folder.Path(), run, GetFileMode())));
        EXPECT_TRUE(std::filesystem::is_empty(m_Folder.Path()));
    }
}

TEST_F(JavaMethods, RunTestMode_WithNothingToTest_SaysSo)
{
    EXPECT_EQ(Native("runTestMode", "null", "4096"), "void");
    EXPECT_EQ(Native("runTestMode", Quote(m_Folder.Path()), "0"), "void");
    EXPECT_EQ(Native("runTestMode", Quote(m_Folder.Path()), "-4096"), "void");
    EXPECT_EQ(Native("runTestMode", Quote("/no/such"), "1"), "void");
    EXPECT_EQ(TakeInfoLines("main|test"),
              (Lines{"Cannot start platrorm test. Error=Target directory is NULL",
                     "Cannot start platrorm test. Error=File size is ZERO",
                     "Cannot start platrorm test. Error=File size is ZERO",
                     "Cannot start platrorm test. Error=Target directory \"/no/such\" not exist"}));
    EXPECT_TRUE(std::filesystem::is_empty(m_Folder.Path()));
}

TEST_F(JavaMethods, RunTestMode_OfAClient_RunsInTheServer)
{
    CLogRecorder log;
    CNfsIpcServerMain server("svr", 0);
    server.SetCallback(&log);
    char cReason[REASON_SIZE] = "";
    ASSERT_TRUE(server.StartRemoteController(cReason)) << cReason;
    TearDown();
    Initial(2);
    ASSERT_EQ(Native("startRemoteController"), "true");

    const mode_t iMask = umask(022);
    EXPECT_EQ(Native("runTestMode", Quote(m_Folder.Path()), "10000"), "void");
    umask(iMask);
    EXPECT_EQ(Join(TakeInfoLines("native|svr")), Join(GetGoodRun(m_Folder.Path())));
    EXPECT_EQ(Native("runTestMode", "null", "10000"), "void");
    EXPECT_EQ(TakeInfoLines("main|test"),
              Lines{"Cannot start platrorm test. Error=Target directory is NULL"});
    EXPECT_EQ(Native("stopRemoteController"), "void");
    server.StopRemoteController();
    server.SetCallback(nullptr);
}

// Only another process can look at them.
TEST_F(JavaMethods, VSphereInfo_ComesAndGoes)
{
    TearDown();
    Initial(1);
    ASSERT_EQ(Native("startRemoteController"), "true");
    EXPECT_EQ(Native("addVSphereInfo", "\"moid\"", "\"host\"", "\"port\"", "\"user\"", "\"pwd\""),
              "void");
    CLogRecorder log;
    CNfsIpcClientMain reader("reader", 0);
    reader.SetCallback(&log);
    char cReason[REASON_SIZE] = "";
    ASSERT_TRUE(reader.Initial(cReason)) << cReason;
    ASSERT_TRUE(reader.StartRemoteController(cReason)) << cReason;
    EXPECT_EQ(reader.GetVSphereInfo(true), 1);
    EXPECT_EQ(log.Lines(), Lines{"raw|test| NFS datastore1 - moid (host:port)"});
    EXPECT_EQ(Native("removeVSphereInfo", "\"moid\""), "void");
    EXPECT_EQ(reader.GetVSphereInfo(true), 0);
    reader.StopRemoteController();
    reader.Terminate();
}

// ---- Texts ----

TEST_F(JavaMethods, Texts_OfAllCharacters_GoBothWays)
{
    Java("m = host.initial \"" + WIDE_TEXT + "\" 0 0");
    Java("host.addSession $m \"" + WIDE_TEXT + "\" \"/" + WIDE_TEXT + "\"");
    EXPECT_EQ(Java("host.isSessionExists $m \"" + WIDE_TEXT + "\""), "true");
    EXPECT_EQ(Java("host.isSessionExists $m \"a\""), "false");  // it does not end at the zero
    EXPECT_EQ(Java("host.getSessionInfo $m true"), "1");
    EXPECT_EQ(s_pJava->Printed("@ "), Lines{"@ logRaw|host|main|" + WIDE_SHOWN + "| session1 - " +
                                            WIDE_SHOWN + " : /" + WIDE_SHOWN});
    EXPECT_EQ(Java("host.addMountPoint $m \"/" + WIDE_TEXT + "\" \"" + WIDE_TEXT + " x\""),
              IO_EXCEPTION + "Invalid char \" \" inside export name");
    Java("host.addMountPoint $m " + Quote(m_Folder.Path()) + " \"" + WIDE_TEXT + "\"");
    EXPECT_EQ(Java("host.addMountPoint $m " + Quote(m_Outside.Path()) + " \"" + WIDE_TEXT + "\""),
              IO_EXCEPTION + "Export name \"" + WIDE_SHOWN + "\" already defined");
    Java("host.terminate $m");
}

TEST_F(JavaMethods, Path_OutsideAscii_IsTheFoldersName)
{
    const std::string sFolder = MakeFolder("\u00fc\u6f22");
    ASSERT_EQ(Native("startServer", "0", "0", "false"), "true");
    ASSERT_EQ(Native("addMountPoint", Quote(sFolder), Quote("\u00fc\u6f22")), "true");
    m_Folder.Write("\u00fc\u6f22/file", "");
    EXPECT_NE(Lookup(Mount("\u00fc\u6f22"), "file"), "");
}

// ---- The loop ----

TEST_F(JavaMethods, ReceiveCallbackLoop_ForNoTime_AsksNobody)
{
    EXPECT_EQ(Native("receiveCallbackLoop", "0"), "false");
    EXPECT_EQ(Java("count host isInterrupted"), "0");
}

TEST_F(JavaMethods, ReceiveCallbackLoop_ForSeconds_AsksBeforeEach)
{
    EXPECT_EQ(Native("receiveCallbackLoop", "3"), "false");
    EXPECT_EQ(s_pJava->Printed("@ "), Lines(3, "@ isInterrupted|host|main"));
}

TEST_F(JavaMethods, ReceiveCallbackLoop_ForSeconds_EndsWithAnInterruption)
{
    Java("answer host isInterrupted 1");
    EXPECT_EQ(Native("receiveCallbackLoop", "3"), "false");
    EXPECT_EQ(Java("count host isInterrupted"), "1");
}

TEST_F(JavaMethods, ReceiveCallbackLoop_ForEver_EndsWithAnInterruption)
{
    s_pJava->Begin("loop", Command("receiveCallbackLoop", "-1"));
    EXPECT_TRUE(s_pJava->WaitFor("@ isInterrupted|host|loop", 2));
    Java("answer host isInterrupted 1");
    EXPECT_EQ(s_pJava->End("loop"), "false");
}
