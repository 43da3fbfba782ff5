// The self-test where all goes well, and where it does not even begin. What it makes of trouble is
// in UtilitiesSelfTestTroubleTest.
#include "Utilities.h"

#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <limits>
#include <map>
#include <optional>
#include <sched.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <thread>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "SelfTestFixture.h"
#include "SmallDisk.h"

namespace {

constexpr int LOG_EVERYTHING = 0x3FF;
constexpr long long LEAST = std::numeric_limits<long long>::min();

// What the two system calls below answer for any path, while it is set.
std::optional<struct statvfs> g_pretendedFileSystem;
std::optional<unsigned long> g_iPretendedType;

class UtilitiesSelfTest : public CSelfTestFixture {
protected:
    ~UtilitiesSelfTest() override
    {
        g_pretendedFileSystem.reset();
        g_iPretendedType.reset();
    }

    void ExpectNoStart(const std::string& sTarget, long long iFileSize, const std::string& sReason)
    {
        EXPECT_EQ(Run(sTarget, iFileSize), Lines{"Cannot start platrorm test. Error=" + sReason});
    }

    CUtilities& m_utilities = *m_main.GetUtils();
};

// The relevant half of a file's state.
std::string Describe(const std::string& sPath)
{
    struct stat info = {};
    EXPECT_EQ(lstat(sPath.c_str(), &info), 0) << sPath;
    return std::to_string(info.st_ino) + ", " + std::to_string(info.st_mode) + ", " +
           std::to_string(info.st_mtim.tv_sec) + ":" + std::to_string(info.st_mtim.tv_nsec) + ", " +
           std::to_string(info.st_size);
}

std::map<std::string, std::string> DescribeTree(const std::string& sFolder)
{
    std::map<std::string, std::string> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(sFolder))
        found[entry.path()] = Describe(entry.path());
    return found;
}

}  // namespace

// These two stand before the system's, to show a file system whose figures all differ.
extern "C" int statvfs(const char* pcPath, struct statvfs* pInfo) noexcept
{
    if (g_pretendedFileSystem) {
        *pInfo = *g_pretendedFileSystem;
        return 0;
    }
    using Function = int (*)(const char*, struct statvfs*);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "statvfs"))(pcPath, pInfo);
}

extern "C" int statfs(const char* pcPath, struct statfs* pInfo) noexcept
{
    if (g_iPretendedType) {
        pInfo->f_type = static_cast<decltype(pInfo->f_type)>(*g_iPretendedType);
        return 0;
    }
    using Function = int (*)(const char*, struct statfs*);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "statfs"))(pcPath, pInfo);
}

// ---- Whole runs ----

TEST_F(UtilitiesSelfTest, Run_OfEachSize_WritesAllLinesAndLeavesNothing)
{
    for (const SelfTestRun& run : RUNS) {
        SCOPED_TRACE(run.iFileSize);
        ExpectGoodRun(m_sTarget, run);
        EXPECT_TRUE(std::filesystem::is_empty(m_sTarget));
    }
}

TEST_F(UtilitiesSelfTest, Run_OnADisk_IsTheSame)
{
    const CDiskFolder folder;
    m_sTarget = folder.Path();
    for (const SelfTestRun& run : RUNS) {
        SCOPED_TRACE(run.iFileSize);
        ExpectGoodRun(m_sTarget, run);
        EXPECT_TRUE(std::filesystem::is_empty(m_sTarget));
    }
}

TEST_F(UtilitiesSelfTest, Run_LogsUnderTheCallersID)
{
    m_main.RunTestMode(m_sTarget.c_str(), 1);
    EXPECT_EQ(m_host.Lines().size(), GetGoodRun(m_sTarget).size());
    EXPECT_EQ(m_host.Count("info|host|"), m_host.Lines().size());
}

TEST_F(UtilitiesSelfTest, Run_WithFileAccessLines_HasThoseOfEachCallInBetween)
{
    const std::string sLabel = "[Utilities.RunTestMode] OS ";
    Lines vCalls;
    Lines vLines;
    for (const std::string& sLine : Run(m_sTarget, 10000, LOG_CONTROL_FILE_ACCESS))
        (sLine.starts_with(sLabel) ? vCalls : vLines).push_back(sLine);
    EXPECT_EQ(Join(WithoutFigures(vLines)), Join(GetGoodRun(m_sTarget)));

    // The file's number is that of the next open one; it is the same each time.
    const std::string sNumber = " (" + std::to_string(CAutoFd(open("/", O_RDONLY)).Get()) + ")";
    Lines vWanted = {"create folder $D (mode = 493)", "create file $F", "close file $F"};
    for (int i = 0; i < 2; i++)
        Append(&vWanted,
               {"set file file $F", "open file $F", "seek file" + sNumber, "close file $F"});
    vWanted.push_back("open file $F");
    for (int i = 0; i < 2; i++)
        for (const char* pcCall : {"seek", "write", "seek", "read"})
            vWanted.push_back(std::string(pcCall) + " file" + sNumber);
    vWanted.push_back("get file stat $F");
    for (const char* pcMode : {"33060", "33188"})
        Append(&vWanted,
               {std::string("set file mode $F (mode = ") + pcMode + ")", "get file stat $F"});
    Append(&vWanted,
           {"close file $F", "rename file from $F to $2", "remove file $2", "remove folder $D"});
    for (std::string& sCall : vWanted)
        sCall = sLabel + FillIn(sCall);
    EXPECT_EQ(Join(vCalls), Join(vWanted));
}

TEST_F(UtilitiesSelfTest, Run_WithAllLines_HasNoOthersButThatOfThePath)
{
    Lines vOthers;
    Lines vLines;
    for (const std::string& sLine : Run(m_sTarget, 10000, LOG_EVERYTHING))
        if (!sLine.starts_with("[Utilities.RunTestMode] OS "))
            (sLine.starts_with("[Util") ? vOthers : vLines).push_back(sLine);
    EXPECT_EQ(Join(WithoutFigures(vLines)), Join(GetGoodRun(m_sTarget)));
    EXPECT_EQ(vOthers,
              Lines{"[Utilities.RunTestMode] Get canonical path successfully: " + m_sTarget});
    EXPECT_FALSE(m_host.Contains("error|"));
}

TEST_F(UtilitiesSelfTest, Run_WithBitsThatNothingHereNeeds_IsTheSame)
{
    constexpr int OTHERS = LOG_EVERYTHING & ~(LOG_CONTROL_FILE_ACCESS | LOG_CONTROL_GENERAL_INFO);
    EXPECT_EQ(Join(WithoutFigures(Run(m_sTarget, 10000, OTHERS))), Join(GetGoodRun(m_sTarget)));
}

TEST_F(UtilitiesSelfTest, Run_ChangesNothingElseInTheTarget)
{
    m_folder.Write("file", "contents");
    m_folder.Write("test.bak", "mine");
    m_folder.Write("test.bak2", "mine too");
    std::filesystem::create_directory(m_folder.Path("folder"));
    m_folder.Write("folder/inner", "more");
    std::filesystem::create_symlink("nowhere", m_folder.Path("link"));
    const auto before = DescribeTree(m_sTarget);
    ExpectGoodRun(m_sTarget);
    EXPECT_EQ(DescribeTree(m_sTarget), before);
    EXPECT_EQ(ReadWholeFile(m_folder.Path("test.bak2")), "mine too");
}

TEST_F(UtilitiesSelfTest, Run_Again_IsTheSame)
{
    for (int i = 0; i < 3; i++)
        ExpectGoodRun(m_sTarget);
}

TEST_F(UtilitiesSelfTest, Run_OfSeveralAtOnce_KeepToTheirFolders)
{
    std::vector<std::thread> vThreads;
    for (int i = 0; i < 4; i++) {
        const std::string sTarget = m_folder.Path(std::to_string(i));
        std::filesystem::create_directory(sTarget);
        vThreads.emplace_back([this, sTarget, i] {
            CRuntimeParam param(("id" + std::to_string(i)).c_str(), 0);
            m_main.RunTestMode(&param, sTarget.c_str(), 10000);
        });
    }
    for (std::thread& thread : vThreads)
        thread.join();
    for (int i = 0; i < 4; i++) {
        const std::string sStart = "info|id" + std::to_string(i) + "|";
        Lines vLines;
        for (const std::string& sLine : m_host.Lines())
            if (sLine.starts_with(sStart))
                vLines.push_back(WithoutFigure(sLine.substr(sStart.length())));
        EXPECT_EQ(vLines, GetGoodRun(m_folder.Path(std::to_string(i))));
        EXPECT_TRUE(std::filesystem::is_empty(m_folder.Path(std::to_string(i))));
    }
}

// ---- What is done to the file ----

TEST_F(UtilitiesSelfTest, Folder_HasItsModeAndNothingInIt)
{
    m_host.When("Create directory", [this] {
        EXPECT_EQ(GetMode(Folder()), S_IFDIR | 0755U);
        EXPECT_TRUE(std::filesystem::is_empty(Folder()));
    });
    m_host.When("Create file", [this] {
        EXPECT_EQ(GetMode(File()), S_IFREG | 0644U);
        EXPECT_EQ(ReadWholeFile(File()), "");
    });
    ExpectGoodRun(m_sTarget);
}

TEST_F(UtilitiesSelfTest, Size_IsEnlargedAndShrunk)
{
    for (const SelfTestRun& run : RUNS) {
        const auto iSize = static_cast<unsigned long long>(run.iFileSize);
        m_host.When("Enlarge file",
                    [this, iSize] { EXPECT_EQ(std::filesystem::file_size(File()), iSize + 1024); });
        m_host.When("Shrink file",
                    [this, iSize] { EXPECT_EQ(std::filesystem::file_size(File()), iSize); });
        m_host.When("Rename file", [this, iSize] {
            EXPECT_EQ(std::filesystem::file_size(RenamedFile()), iSize);
            EXPECT_FALSE(std::filesystem::exists(File()));
        });
        ExpectGoodRun(m_sTarget, run);
    }
}

TEST_F(UtilitiesSelfTest, Data_AreBytesOfOne)
{
    std::string sContents(10000, '\0');
    m_host.When("Write data", [&] {
        sContents.replace(0, 2047, std::string(2047, '\1'));
        EXPECT_TRUE(ReadWholeFile(File()) == sContents);
    });
    m_host.When("Verify data", [&] { EXPECT_TRUE(ReadWholeFile(File()) == sContents); });
    m_host.When(
        "Verify data",
        [&] {
            sContents.replace(7953, 2047, std::string(2047, '\1'));
            EXPECT_TRUE(ReadWholeFile(File()) == sContents);
        },
        2);
    ExpectGoodRun(m_sTarget);
}

TEST_F(UtilitiesSelfTest, Data_OfASmallFile_SpareItsLastByte)
{
    m_host.When("Rename file", [this] {
        EXPECT_TRUE(ReadWholeFile(RenamedFile()) == std::string(999, '\1') + '\0');
    });
    ExpectGoodRun(m_sTarget, SMALL_RUN);
    m_host.When("Rename file",
                [this] { EXPECT_EQ(ReadWholeFile(RenamedFile()), std::string(1, '\0')); });
    ExpectGoodRun(m_sTarget, SMALLEST_RUN);
}

TEST_F(UtilitiesSelfTest, Data_OfABigFile_LeaveTheRestUnwritten)
{
    m_host.When("Rename file", [this] {
        struct stat info = {};
        ASSERT_EQ(stat(RenamedFile().c_str(), &info), 0);
        EXPECT_LE(info.st_blocks * 512, 4 * sysconf(_SC_PAGESIZE));
    });
    ExpectGoodRun(m_sTarget, RUNS[5]);
}

TEST_F(UtilitiesSelfTest, Mode_IsTakenAwayAndGivenBack)
{
    umask(0);
    m_host.When("Set file mode 8124", [this] { EXPECT_EQ(GetMode(File()), S_IFREG | 0444U); });
    m_host.When("Rename file", [this] { EXPECT_EQ(GetMode(RenamedFile()), S_IFREG | 0666U); });
    EXPECT_EQ(Join(WithoutFigures(Run(m_sTarget, 10000))),
              Join(GetGoodRun(m_sTarget, USUAL_RUN, "81B6")));
}

// ---- The figures ----

TEST_F(UtilitiesSelfTest, Figures_AreThoseOfTheFileSystem)
{
    struct statvfs info = {};
    info.f_frsize = 4096;
    info.f_blocks = 0x10000000;
    info.f_bfree = 1000;
    info.f_bavail = 1;
    info.f_files = 5000000000;
    info.f_ffree = 255;
    g_pretendedFileSystem = info;
    g_iPretendedType = 0x4D44;
    const Lines vLines = Run(m_sTarget, 1);
    ASSERT_EQ(vLines.size(), GetGoodRun(m_sTarget).size());
    EXPECT_EQ(Lines(vLines.begin() + 6, vLines.begin() + 13),
              (Lines{
                  "Maximum File Size                       : 4.0GB",
                  "Total Disk Space                        : 1024.0GB",
                  "Free Disk Space                         : 3.9MB",
                  "Free Disk Space To Caller               : 4.0KB",
                  "Total File Slots                        : 5000000000(12A05F200)",
                  "Free File Slots                         : 255(FF)",
                  "Free File Slots To Caller               : 255(FF)",
              }));
}

TEST_F(UtilitiesSelfTest, Figures_AreTakenAtTheTarget)
{
    const CSmallDisk disk;
    m_sTarget = disk.Path();
    std::ofstream(disk.Path("file")) << std::string(12288, 'x');
    struct statvfs info = {};
    ASSERT_EQ(statvfs(m_sTarget.c_str(), &info), 0);
    char cSlots[64];
    snprintf(cSlots, sizeof(cSlots), "%llu(%llX)", static_cast<unsigned long long>(info.f_ffree),
             static_cast<unsigned long long>(info.f_ffree));
    const Lines vLines = Run(m_sTarget, 10000);
    EXPECT_EQ(Join(WithoutFigures(vLines)), Join(GetGoodRun(m_sTarget)));
    ASSERT_GT(vLines.size(), 12U);
    EXPECT_EQ(vLines[6], "Maximum File Size                       : 2.0TB");
    EXPECT_EQ(vLines[7], "Total Disk Space                        : 64.0KB");
    EXPECT_EQ(vLines[8], "Free Disk Space                         : 52.0KB");
    EXPECT_EQ(vLines[9], "Free Disk Space To Caller               : 52.0KB");
    EXPECT_EQ(vLines[11], std::string("Free File Slots                         : ") + cSlots);
}

TEST_F(UtilitiesSelfTest, Figures_BeginWithTheTimeOfTheRun)
{
    const unsigned long long iBefore = m_utilities.GetCurrentSystemTimeInMilliseconds();
    const Lines vLines = Run(m_sTarget, 1);
    const unsigned long long iAfter = m_utilities.GetCurrentSystemTimeInMilliseconds();
    ASSERT_GT(vLines.size(), 5U);
    const unsigned long long iTime = std::stoull(vLines[5].substr(42));
    EXPECT_LE(iBefore, iTime);
    EXPECT_LE(iTime, iAfter);
}

// ---- Names of the target ----

TEST_F(UtilitiesSelfTest, Target_IsNamedByItsCanonicalPath)
{
    std::filesystem::create_directory(m_folder.Path("real"));
    std::filesystem::create_directory_symlink("real", m_folder.Path("link"));
    m_sTarget = m_folder.Path("real");
    for (const char* pcName :
         {"real/", "real//", "./real/.", "real/../real", "link", "link/", "link/../link//."})
        ExpectGoodRun(m_folder.Path(pcName));
}

TEST_F(UtilitiesSelfTest, Target_MayBeRelative)
{
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(m_sTarget);
    ExpectGoodRun(".");
    std::filesystem::create_directory("below");
    m_sTarget = m_folder.Path("below");
    ExpectGoodRun("below");
    std::filesystem::current_path(before);
}

TEST_F(UtilitiesSelfTest, Target_MayBeTheRootOfAFileSystem)
{
    const CSmallDisk disk;
    m_sTarget = disk.Path();
    ExpectGoodRun(m_sTarget);
    ExpectGoodRun(m_sTarget + "/");
}

TEST_F(UtilitiesSelfTest, Target_MayBeTheRootOfAll)
{
    Lines vLines;
    std::thread([&] {  // whose root is another than that of the test
        ASSERT_EQ(unshare(CLONE_FS), 0);
        ASSERT_EQ(chroot(m_folder.Path().c_str()), 0);
        ASSERT_EQ(chdir("/"), 0);
        m_main.RunTestMode("/", 10000);
        m_main.RunTestMode("", 10000);
    })
        .join();
    for (const std::string& sLine : m_host.Lines())
        vLines.push_back(WithoutFigure(sLine.substr(strlen("info|host|"))));
    Lines vWanted = GetGoodRun("/");
    vWanted.push_back("Cannot start platrorm test. Error=Target directory \"\" not exist");
    EXPECT_EQ(Join(vLines), Join(vWanted));
    EXPECT_TRUE(std::filesystem::is_empty(m_folder.Path()));
}

TEST_F(UtilitiesSelfTest, Target_WithAPercentSign_IsNoFormat)
{
    m_sTarget = m_folder.Path("100%s %n\"");
    std::filesystem::create_directory(m_sTarget);
    ExpectGoodRun(m_sTarget);
}

// Lines are cut, the steps go well nevertheless.
TEST_F(UtilitiesSelfTest, Target_WithALongName_IsTested)
{
    m_sTarget += "/" + std::string(250, 'a');
    while (m_sTarget.length() < 3500)
        m_sTarget += "/" + std::string(250, 'b');
    std::filesystem::create_directories(m_sTarget);
    bool bThere = false;
    m_host.When("Create file", [&] { bThere = std::filesystem::exists(File()); });
    const Lines vLines = Run(m_sTarget, 10000);
    EXPECT_TRUE(bThere);
    const Lines vWanted = GetGoodRun(m_sTarget);
    ASSERT_EQ(vLines.size(), vWanted.size());
    for (size_t i = 0; i < vLines.size(); i++)
        EXPECT_EQ(WithoutFigure(vLines[i]), vWanted[i].substr(0, REASON_SIZE - 1));
    EXPECT_TRUE(std::filesystem::is_empty(m_sTarget));
}

TEST_F(UtilitiesSelfTest, Target_WithALongestName_FailsInEveryStep)
{
    while (m_sTarget.length() + 250 < PATH_SIZE)
        m_sTarget += "/" + std::string(200, 'a');
    m_sTarget += "/" + std::string(PATH_SIZE - m_sTarget.length() - 2, 'b');
    std::filesystem::create_directories(m_sTarget);
    const Lines vLines = Run(m_sTarget, 10000);
    EXPECT_EQ(vLines.size(), GetGoodRun(m_sTarget).size());
    for (const std::string& sLine : vLines)
        EXPECT_FALSE(sLine.starts_with("[ OK ]")) << sLine;
    EXPECT_TRUE(std::filesystem::is_empty(m_sTarget));
}

// ---- Where nothing is begun ----

TEST_F(UtilitiesSelfTest, NoContext_DoesNothing)
{
    m_main.RunTestMode(nullptr, m_sTarget.c_str(), 1000);
    m_main.RunTestMode(nullptr, nullptr, 0);
    EXPECT_EQ(m_host.Lines(), Lines{});
    EXPECT_TRUE(std::filesystem::is_empty(m_sTarget));
}

TEST_F(UtilitiesSelfTest, NoTarget_SaysSo)
{
    for (const long long iSize : {1000LL, 0LL}) {
        m_host.Clear();
        m_main.RunTestMode(nullptr, iSize);
        EXPECT_EQ(m_host.Lines(), Lines{"info|host|Cannot start platrorm test. Error=Target "
                                        "directory is NULL"});
    }
}

TEST_F(UtilitiesSelfTest, SizeNotAboveZero_SaysSo)
{
    for (const long long iSize : {0LL, -1LL, LEAST}) {
        ExpectNoStart(m_sTarget, iSize, "File size is ZERO");
        ExpectNoStart("/no/such/folder", iSize, "File size is ZERO");
    }
    EXPECT_TRUE(std::filesystem::is_empty(m_sTarget));
}

TEST_F(UtilitiesSelfTest, MissingTarget_SaysSo)
{
    std::filesystem::create_symlink("nowhere", m_folder.Path("dangling"));
    for (const std::string& sTarget :
         {std::string("/no/such/folder"), std::string("no/such/folder/"), std::string(),
          m_folder.Path("missing"), m_folder.Path("dangling")})
        ExpectNoStart(sTarget, 1, "Target directory \"" + sTarget + "\" not exist");
    EXPECT_EQ(Run("/no/such", 1, LOG_EVERYTHING),
              (Lines{"[Utilities.RunTestMode] Fail to get canonical path from non-exist path: "
                     "/no/such",
                     "Cannot start platrorm test. Error=Target directory \"/no/such\" not exist"}));
}

TEST_F(UtilitiesSelfTest, ExistingTestFolder_SaysSoAndIsLeftAlone)
{
    std::filesystem::create_directory(m_folder.Path("_test"));
    m_folder.Write("_test/test.bak", "precious");
    m_folder.Write("_test/test.bak2", "precious too");
    const auto before = DescribeTree(m_sTarget);
    ExpectNoStart(m_sTarget + "/", 1000, FillIn("Test directory $D already exist"));
    EXPECT_EQ(DescribeTree(m_sTarget), before);
    EXPECT_EQ(ReadWholeFile(m_folder.Path("_test/test.bak")), "precious");
}

TEST_F(UtilitiesSelfTest, ExistingEmptyTestFolderFileOrLink_IsLeftAloneToo)
{
    std::filesystem::create_directory(m_folder.Path("_test"));
    ExpectNoStart(m_sTarget, 1000, FillIn("Test directory $D already exist"));
    EXPECT_TRUE(std::filesystem::is_directory(m_folder.Path("_test")));
    std::filesystem::remove(m_folder.Path("_test"));
    m_folder.Write("_test", "a file");
    ExpectNoStart(m_sTarget, 1000, FillIn("Test directory $D already exist"));
    EXPECT_EQ(ReadWholeFile(m_folder.Path("_test")), "a file");
    std::filesystem::rename(m_folder.Path("_test"), m_folder.Path("file"));
    std::filesystem::create_symlink("file", m_folder.Path("_test"));
    ExpectNoStart(m_sTarget, 1000, FillIn("Test directory $D already exist"));
    EXPECT_TRUE(std::filesystem::is_symlink(m_folder.Path("_test")));
}

TEST_F(UtilitiesSelfTest, SecondRun_DuringTheFirst_DoesNotDisturbIt)
{
    Lines vSecond;
    CRuntimeParam other("other", 0);
    m_host.When("Verify data", [&] {
        CLogRecorder recorder;
        CNfsMain main("second", 0);
        main.SetCallback(&recorder);
        main.RunTestMode(m_sTarget.c_str(), 1);
        vSecond = recorder.Lines();
        main.SetCallback(nullptr);
    });
    ExpectGoodRun(m_sTarget);
    EXPECT_EQ(vSecond, Lines{FillIn("info|second|Cannot start platrorm test. Error=Test directory "
                                    "$D already exist")});
}
