// What the self-test says where the file system does not do what it should: full, read-only, blind
// to modes, or changed by others in the middle of a run.
#include "Utilities.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <limits>
#include <memory>
#include <optional>
#include <poll.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <vector>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "ChildProcess.h"
#include "DescriptorShortage.h"
#include "SelfTestFixture.h"
#include "SmallDisk.h"

namespace {

constexpr int LOG_EVERYTHING = 0x3FF;
constexpr char NOT_FOUND[] = "No such file or directory (2)";
constexpr char READ_ONLY[] = "Read-only file system (30)";
constexpr char MODE_OF_RESIZED[] = "81ED";  // a file that setting its size has made
constexpr char BIND_PROGRAM[] = "/usr/bin/bindfs";
constexpr char FUSE_DEVICE[] = "/dev/fuse";

// A second view of a folder, in which files keep their modes whatever anybody does.
class CModelessView {
public:
    CModelessView(const std::string& sFolder, const std::string& sView)
        : m_sView(sView), m_Process({BIND_PROGRAM, "-f", "--chmod-ignore", sFolder, sView})
    {
        const CAutoFd mounts(open("/proc/self/mounts", O_RDONLY | O_CLOEXEC));
        while (!IsMounted()) {  // each change of the mounts is told
            struct pollfd change = {mounts.Get(), POLLPRI, 0};
            if (poll(&change, 1, PATIENCE_MS) != 1) {
                ADD_FAILURE() << "There is no view of " << sFolder;
                break;
            }
        }
    }
    ~CModelessView() { umount2(m_sView.c_str(), MNT_DETACH); }
    CModelessView(const CModelessView&) = delete;
    CModelessView& operator=(const CModelessView&) = delete;

    static bool CanBeHad()
    {
        return access(BIND_PROGRAM, X_OK) == 0 && access(FUSE_DEVICE, R_OK | W_OK) == 0;
    }

private:
    static constexpr int PATIENCE_MS = 20000;

    bool IsMounted() const
    {
        return ReadWholeFile("/proc/self/mounts").find(" " + m_sView + " fuse") !=
               std::string::npos;
    }

    const std::string m_sView;
    CChildProcess m_Process;  // ends as soon as nobody sees the view any more, or with the object
};

// No file can be made larger than so many bytes.
class CSizeLimit {
public:
    CSizeLimit()
    {
        EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &m_before), 0);
        m_handler = signal(SIGXFSZ, SIG_IGN);
    }
    ~CSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &m_before);
        signal(SIGXFSZ, m_handler);
    }
    CSizeLimit(const CSizeLimit&) = delete;
    CSizeLimit& operator=(const CSizeLimit&) = delete;

    void Set(rlim_t iBytes)
    {
        struct rlimit limit = m_before;
        limit.rlim_cur = iBytes;
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }

private:
    struct rlimit m_before = {};
    sighandler_t m_handler;
};

// The steps of a part that depend on one which went wrong.
Lines GetFailuresBehindSize()
{
    return {"Open file $F. Error=Set file size failed", "Verify file size. Error=Open file failed",
            "Close file $F. Error=Open file failed"};
}

Lines GetFailuresBehindWrite(long long iPosition, int iLength)
{
    const std::string sLength = std::to_string(iLength);
    return {"Move pointer to position " + std::to_string(iPosition) + ". Error=File write failed",
            "Read data with length " + sLength + ". Error=File seek failed",
            "Verify data with size " + sLength + ". Error=File read failed"};
}

Lines GetFailuresOfRange(long long iPosition, int iLength, const std::string& sError)
{
    Lines vLines = {"File seek to position " + std::to_string(iPosition) + ". Error=" + sError,
                    "Write data with length " + std::to_string(iLength) +
                        ". Error=File seek failed"};
    Append(&vLines, GetFailuresBehindWrite(iPosition, iLength));
    return vLines;
}

// Those of the file, opened with that error.
Lines GetFailuresOfOpen(const std::string& sError)
{
    Lines vLines = {"Open file $F. Error=" + sError};
    Append(&vLines, GetFailuresOfRange(0, 2047, "Bad file descriptor"));
    Append(&vLines, GetFailuresOfRange(7953, 2047, "Bad file descriptor"));
    return vLines;
}

Lines GetFailuresOfMode(const std::string& sMode, const std::string& sError)
{
    return {"Set file mode " + sMode + " to file $F. Error=" + sError,
            "Get file mode from file $F. Error=Set file mode failed",
            "Verify file mode " + sMode + " from file $F. Error=Get file mode failed"};
}

// Those of a run without a file from the beginning on, and without the folder.
Lines GetAllFailures(const std::string& sFolderError, const std::string& sFileError)
{
    Lines vLines = {"Create directory $D. Error=" + sFolderError,
                    "Create file $F. Error=" + sFileError,
                    "Close file $F. Error=Bad file descriptor"};
    for (const char* pcStep : {"Enlarge file $F size to 11024", "Shrink file $F size to 10000"}) {
        vLines.push_back(std::string(pcStep) + ". Error=" + sFileError);
        Append(&vLines, GetFailuresBehindSize());
    }
    Append(&vLines, GetFailuresOfOpen(sFileError));
    vLines.push_back("Get file stat from file $F. Error=" + sFileError);
    Append(&vLines, GetFailuresOfMode("8124", sFileError));
    Append(&vLines, GetFailuresOfMode("0", sFileError));
    Append(&vLines,
           {"Close file $F. Error=Bad file descriptor",
            "Rename file from $F to $2. Error=" + sFileError, "Remove file $2. Error=" + sFileError,
            "Remove directory $D. Error=" + sFileError});
    return vLines;
}

// The verdict and the reason taken away.
Lines GetSteps(const Lines& vLines)
{
    Lines vSteps;
    for (const std::string& sLine : vLines) {
        const bool bFailed = sLine.starts_with("[FAIL] ");
        if (bFailed || sLine.starts_with("[ OK ] "))
            vSteps.push_back(sLine.substr(7, sLine.find(". Error=") - 7) + (bFailed ? "." : ""));
        else
            vSteps.push_back(WithoutFigure(sLine));
    }
    return vSteps;
}

class UtilitiesSelfTestTrouble : public CSelfTestFixture {
protected:
    // The descriptor that the run has of the file.
    int GetDescriptor() const
    {
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code error;
            if (std::filesystem::read_symlink(entry.path(), error) == File())
                return std::stoi(entry.path().filename());
        }
        ADD_FAILURE() << "Nobody has the file open";
        return -1;
    }

    // From here on the run's descriptor is one of something else.
    void Exchange(const std::string& sPath, int iFlags)
    {
        const CAutoFd other(open(sPath.c_str(), iFlags | O_CLOEXEC));
        EXPECT_NE(other.Get(), -1);
        EXPECT_NE(dup3(other.Get(), GetDescriptor(), O_CLOEXEC), -1);
    }

    // The file is gone, and there is something else in its place, or nothing.
    void RemoveFile() { EXPECT_TRUE(std::filesystem::remove(File())); }
    void PutLink(const std::string& sTarget)
    {
        RemoveFile();
        std::filesystem::create_symlink(sTarget, File());
    }
    void PutPipe()
    {
        RemoveFile();
        EXPECT_EQ(mkfifo(File().c_str(), 0644), 0);
    }

    // For each line: a run in the middle of which, at that line, everything goes away.
    void ExpectToSurvive(const std::function<void()>& begin, const std::function<void()>& vanish)
    {
        const size_t iLines = GetGoodRun(m_sTarget).size();
        for (size_t i = 1; i <= iLines; i++) {
            SCOPED_TRACE(i);
            begin();
            m_host.When("", vanish, static_cast<int>(i));
            const Lines vSteps = GetSteps(Run(m_sTarget, 10000));
            const std::string sMode = Contains(vSteps, "Set file mode 0 ") ? "0" : "81A4";
            EXPECT_EQ(Join(vSteps), Join(GetSteps(GetGoodRun(m_sTarget, USUAL_RUN, sMode))));
            EXPECT_FALSE(std::filesystem::exists(Folder()));
        }
    }

    static bool Contains(const Lines& vLines, const std::string& sText)
    {
        return std::any_of(vLines.begin(), vLines.end(), [&sText](const std::string& sLine) {
            return sLine.find(sText) != std::string::npos;
        });
    }

    void ExpectNothingLeft() { EXPECT_TRUE(std::filesystem::is_empty(m_sTarget)); }
};

}  // namespace

// ---- File systems ----

TEST_F(UtilitiesSelfTestTrouble, FullDisk_TakesNoData)
{
    CSmallDisk disk;
    m_sTarget = disk.Path();
    disk.Fill();
    Lines vFailures;
    for (const long long iPosition : {0LL, 7953LL}) {
        vFailures.push_back("Write data with length 2047. Error=No space left on device (28)");
        Append(&vFailures, GetFailuresBehindWrite(iPosition, 2047));
    }
    ExpectFailures(vFailures);
    EXPECT_FALSE(std::filesystem::exists(Folder()));
    disk.Free();
    ExpectGoodRun(m_sTarget);
}

TEST_F(UtilitiesSelfTestTrouble, DiskThatFills_TakesLessThanAll)
{
    CSmallDisk disk;
    m_sTarget = disk.Path();
    m_host.When("File seek to position 7953", [&] {  // one more page is left, and two are needed
        disk.Fill();
        const std::string sFiller = disk.Path("filler");
        std::filesystem::resize_file(sFiller, std::filesystem::file_size(sFiller) - 4096);
    });
    Lines vFailures = {"Write data with length 2047. Error=Data lenght not match (write length = "
                       "239)"};
    Append(&vFailures, GetFailuresBehindWrite(7953, 2047));
    ExpectFailures(vFailures);
    EXPECT_FALSE(std::filesystem::exists(Folder()));
}

TEST_F(UtilitiesSelfTestTrouble, LimitedFileSize_TakesLessThanAll)
{
    CSizeLimit limit;
    m_host.When("File seek to position 7953", [&] { limit.Set(9000); });
    Lines vFailures = {"Write data with length 2047. Error=Data lenght not match (write length = "
                       "1047)"};
    Append(&vFailures, GetFailuresBehindWrite(7953, 2047));
    ExpectFailures(vFailures);
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, LimitedFileSize_KeepsTheFileSmall)
{
    CSizeLimit limit;
    limit.Set(10000);
    Lines vFailures = {"Enlarge file $F size to 11024. Error=File too large (27)"};
    Append(&vFailures, GetFailuresBehindSize());
    ExpectFailures(vFailures);
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, ReadOnlyDisk_FailsInEveryStep)
{
    CSmallDisk disk;
    m_sTarget = disk.Path();
    ASSERT_EQ(mount(nullptr, m_sTarget.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    Lines vFailures = GetAllFailures(READ_ONLY, NOT_FOUND);
    vFailures.back() = std::string("Remove directory $D. Error=") + READ_ONLY;
    ExpectFailures(vFailures, USUAL_RUN, "0");
    EXPECT_EQ(m_host.Lines().size(), GetGoodRun(m_sTarget).size());
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, DiskThatBecomesReadOnly_KeepsWhatIsThere)
{
    CSmallDisk disk;
    m_sTarget = disk.Path();
    m_host.When("Close file", [this] {
        EXPECT_EQ(mount(nullptr, m_sTarget.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    });
    Lines vFailures;
    for (const char* pcStep : {"Enlarge file $F size to 11024", "Shrink file $F size to 10000"}) {
        vFailures.push_back(std::string(pcStep) + ". Error=" + READ_ONLY);
        Append(&vFailures, GetFailuresBehindSize());
    }
    Append(&vFailures, GetFailuresOfOpen(READ_ONLY));
    Append(&vFailures, GetFailuresOfMode("8124", READ_ONLY));
    Append(&vFailures, GetFailuresOfMode("81A4", READ_ONLY));
    Append(&vFailures, {"Close file $F. Error=Bad file descriptor",
                        std::string("Rename file from $F to $2. Error=") + READ_ONLY,
                        std::string("Remove file $2. Error=") + READ_ONLY,
                        std::string("Remove directory $D. Error=") + READ_ONLY});
    ExpectFailures(vFailures);
    EXPECT_TRUE(std::filesystem::exists(File()));
}

TEST_F(UtilitiesSelfTestTrouble, FileSystemWithoutModes_KeepsTheMode)
{
    if (!CModelessView::CanBeHad())
        GTEST_SKIP() << "There is no " << BIND_PROGRAM << " (package bindfs) or no " << FUSE_DEVICE;
    const CScratchFolder viewed;
    const CModelessView view(viewed.Path(), m_sTarget);
    ExpectFailures({"Verify file mode 8124 from file $F. Error=File mode not match (current file "
                    "mode = 81A4)"});
    ExpectNothingLeft();
    EXPECT_TRUE(std::filesystem::is_empty(viewed.Path()));
}

TEST_F(UtilitiesSelfTestTrouble, LargestSizes_DoNotOverflow)
{
    constexpr long long MOST = std::numeric_limits<long long>::max();
    const CDiskFolder folder;  // which no file of that size fits in
    m_sTarget = folder.Path();
    for (const auto& [iSize, iEnlarged] :
         {std::pair{MOST, MOST}, std::pair{MOST - 1023, MOST}, std::pair{MOST - 1024, MOST},
          std::pair{MOST - 1025, MOST - 1}}) {
        SCOPED_TRACE(iSize);
        const Lines vLines = Run(m_sTarget, iSize);
        ASSERT_EQ(vLines.size(), GetGoodRun(m_sTarget).size());
        EXPECT_EQ(vLines[18], FillIn("[FAIL] Enlarge file $F size to " + std::to_string(iEnlarged) +
                                     ". Error=File too large (27)"));
        EXPECT_EQ(vLines[22], FillIn("[FAIL] Shrink file $F size to " + std::to_string(iSize) +
                                     ". Error=File too large (27)"));
        EXPECT_TRUE(Contains(vLines, "File seek to position " + std::to_string(iSize - 2047)));
        EXPECT_TRUE(Contains(vLines, "Verify data with size 2047"));
        ExpectNothingLeft();
    }
}

TEST_F(UtilitiesSelfTestTrouble, TargetThatIsAFile_FailsInEveryStep)
{
    m_sTarget = m_folder.Write("file", "contents");
    ExpectFailures(GetAllFailures("Not a directory (20)", "Not a directory (20)"), USUAL_RUN, "0");
    EXPECT_EQ(ReadWholeFile(m_sTarget), "contents");
}

// ---- The folder and the file ----

TEST_F(UtilitiesSelfTestTrouble, FolderMadeByOthers_IsUsed)
{
    m_host.When("START TEST", [this] { std::filesystem::create_directory(Folder()); });
    ExpectFailures({"Create directory $D. Error=File exists (17)"});
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, DanglingLinkInPlaceOfTheFolder_IsLeftAlone)
{
    std::filesystem::create_symlink("nowhere", Folder());
    Lines vFailures = GetAllFailures("File exists (17)", NOT_FOUND);
    vFailures.back() = "Remove directory $D. Error=Not a directory (20)";
    ExpectFailures(vFailures, USUAL_RUN, "0");
    EXPECT_EQ(std::filesystem::read_symlink(Folder()), "nowhere");
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("nowhere")));
}

TEST_F(UtilitiesSelfTestTrouble, FolderGoneAtOnce_DoesNotExist)
{
    m_host.When("OS create folder", [this] { std::filesystem::remove(Folder()); });
    Lines vFailures = GetAllFailures("Directory not exist", NOT_FOUND);
    ExpectFailures(vFailures, USUAL_RUN, "0", LOG_CONTROL_FILE_ACCESS);
}

TEST_F(UtilitiesSelfTestTrouble, FileGoneAtOnce_DoesNotExist)
{
    m_host.When("OS create file", [this] { RemoveFile(); });
    ExpectFailures({"Create file $F. Error=File not exist"}, USUAL_RUN, MODE_OF_RESIZED,
                   LOG_CONTROL_FILE_ACCESS);
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, FileThatCannotBeMade_IsNotClosed)
{
    m_host.When("Create directory", [this] { std::filesystem::create_directory(File()); });
    m_host.When("Close file", [this] { std::filesystem::remove(File()); });
    ExpectFailures(
        {"Create file $F. Error=Is a directory (21)", "Close file $F. Error=Bad file descriptor"},
        USUAL_RUN, MODE_OF_RESIZED);
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, DescriptorClosedByOthers_CannotBeClosed)
{
    m_host.When("Create file", [&] { close(GetDescriptor()); });
    m_host.When("Verify file size", [&] { close(GetDescriptor()); });
    m_host.When("Set file mode 81A4", [&] { close(GetDescriptor()); });
    ExpectFailures({"Close file $F. Error=Bad file descriptor (9)",
                    "Close file $F. Error=Bad file descriptor (9)",
                    "Close file $F. Error=Bad file descriptor (9)"});
    ExpectNothingLeft();
}

// ---- The size ----

TEST_F(UtilitiesSelfTestTrouble, FileWithoutAFolder_HasNoSize)
{
    m_host.When("Close file", [this] { std::filesystem::remove_all(Folder()); });
    Lines vFailures = GetAllFailures("", NOT_FOUND);
    vFailures.erase(vFailures.begin(), vFailures.begin() + 3);
    ExpectFailures(vFailures, USUAL_RUN, "0");
}

TEST_F(UtilitiesSelfTestTrouble, FileGoneBehindItsSize_CannotBeOpened)
{
    m_host.When("Enlarge file", [this] { RemoveFile(); });
    m_host.When("Shrink file", [this] { RemoveFile(); });
    Lines vPart = {std::string("Open file $F. Error=") + NOT_FOUND,
                   "Verify file size. Error=Open file failed",
                   "Close file $F. Error=Open file failed"};
    Lines vFailures = vPart;
    Append(&vFailures, vPart);
    // From the last opening on there is a file again.
    m_host.When(
        "Close file", [this] { std::ofstream(File()) << std::string(10000, 'x'); }, 3);
    ExpectFailures(vFailures);
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, SizeChangedByOthers_DoesNotMatch)
{
    m_host.When("Enlarge file", [this] { std::filesystem::resize_file(File(), 5); });
    m_host.When("Shrink file", [this] { std::filesystem::resize_file(File(), 5 * GIB); });
    ExpectFailures({"Verify file size. Error=Size not match (current size = 5)",
                    "Verify file size. Error=Size not match (current size = 5368709120)"});
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, PipeInPlaceOfTheFile_HasNoSize)
{
    m_host.When("Enlarge file", [this] { PutPipe(); });
    m_host.When("Shrink file", [this] { RemoveFile(); });
    m_host.When(
        "Close file", [this] { std::ofstream(File()) << std::string(10000, 'x'); }, 3);
    Lines vFailures = {"Verify file size. Error=Illegal seek (29)",
                       "Shrink file $F size to 10000. Error=Invalid argument (22)"};
    Append(&vFailures, GetFailuresBehindSize());
    ExpectFailures(vFailures);
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, Opening_DoesNotTakeDescriptorsFromTheCache)
{
    const std::string sCached = m_folder.Write("cached", "");
    CRuntimeParam param("caller", 0);
    LogArgu argu = {"Test"};
    ASSERT_NE(m_main.GetUtils()->GetCachedFileHandle(&param, &argu, sCached.c_str(), false), -1);
    std::optional<CDescriptorShortage> shortage;
    const auto begin = [&] { shortage.emplace(); };
    const auto end = [&] { shortage.reset(); };
    m_host.When("Enlarge file", begin);
    m_host.When("Open file", end);
    m_host.When("Close file", begin, 3);
    m_host.When("Verify data", end, 2);
    Lines vFailures = {"Open file $F. Error=Too many open files (24)",
                       "Verify file size. Error=Open file failed",
                       "Close file $F. Error=Open file failed"};
    Append(&vFailures, GetFailuresOfOpen("Too many open files (24)"));
    vFailures.push_back("Close file $F. Error=Bad file descriptor");
    ExpectFailures(vFailures);
    m_main.CloseCachedFileHandle(sCached.c_str());
}

// ---- Writing and reading ----

TEST_F(UtilitiesSelfTestTrouble, Device_StaysAtItsBeginning)
{
    m_host.When(
        "Close file", [this] { PutLink("/dev/null"); }, 3);
    m_host.When(
        "Verify data",
        [this] {
            RemoveFile();
            std::ofstream(File()) << 'x';
        },
        2);
    Lines vFailures = {"Read data with length 2047. Error=Data lenght not match (read length = 0)",
                       "Verify data with size 2047. Error=File read failed"};
    Append(&vFailures, GetFailuresOfRange(7953, 2047, "Position not match (current pos = 0)"));
    ExpectFailures(vFailures);
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, Pipe_CannotBeSought)
{
    m_host.When(
        "Close file", [this] { PutPipe(); }, 3);
    m_host.When(
        "Verify data",
        [this] {
            RemoveFile();
            std::ofstream(File()) << 'x';
        },
        2);
    Lines vFailures = GetFailuresOfRange(0, 2047, "Illegal seek (29)");
    Append(&vFailures, GetFailuresOfRange(7953, 2047, "Illegal seek (29)"));
    ExpectFailures(vFailures);
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, DescriptorForReading_CannotBeWritten)
{
    m_host.When("File seek", [this] { Exchange(File(), O_RDONLY); });
    Lines vFailures;
    for (const long long iPosition : {0LL, 7953LL}) {
        vFailures.push_back("Write data with length 2047. Error=Bad file descriptor (9)");
        Append(&vFailures, GetFailuresBehindWrite(iPosition, 2047));
    }
    ExpectFailures(vFailures);
}

TEST_F(UtilitiesSelfTestTrouble, DescriptorForWriting_CannotBeRead)
{
    m_host.When("File seek", [this] { Exchange(File(), O_WRONLY); });
    const Lines vPart = {"Read data with length 2047. Error=Bad file descriptor (9)",
                         "Verify data with size 2047. Error=File read failed"};
    Lines vFailures = vPart;
    Append(&vFailures, vPart);
    ExpectFailures(vFailures);
}

TEST_F(UtilitiesSelfTestTrouble, PointerThatCannotBeMoved_LeavesNothingToRead)
{
    const std::string sPipe = m_folder.Path("pipe");
    ASSERT_EQ(mkfifo(sPipe.c_str(), 0600), 0);
    m_host.When("Write data", [&] { Exchange(sPipe, O_RDWR); });
    m_host.When("Verify data", [&] {  // the run's descriptor is the only one of the pipe
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code error;
            if (std::filesystem::read_symlink(entry.path(), error) != sPipe)
                continue;
            const CAutoFd file(open(File().c_str(), O_RDWR | O_CLOEXEC));
            dup3(file.Get(), std::stoi(entry.path().filename()), O_CLOEXEC);
            break;
        }
    });
    m_host.When(
        "Write data", [&] { Exchange("/dev/null", O_RDWR); }, 2);
    ExpectFailures({"Move pointer to position 0. Error=Illegal seek (29)",
                    "Read data with length 2047. Error=File seek failed",
                    "Verify data with size 2047. Error=File read failed",
                    "Move pointer to position 7953. Error=Position not match (current pos = 0)",
                    "Read data with length 2047. Error=File seek failed",
                    "Verify data with size 2047. Error=File read failed"});
}

TEST_F(UtilitiesSelfTestTrouble, FileShortenedByOthers_HasLessToRead)
{
    m_host.When(
        "Write data", [this] { std::filesystem::resize_file(File(), 8000); }, 2);
    ExpectFailures({"Read data with length 2047. Error=Data lenght not match (read length = 47)",
                    "Verify data with size 2047. Error=File read failed"});
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, DataChangedByOthers_DoNotMatch)
{
    const struct {
        const char* pcWhen;
        int iCount;
        long long iPosition;
        char cByte;
    } CHANGES[] = {
        {"Write data", 1, 0, 'x'},     {"Write data", 1, 2046, 'x'},  {"Write data", 1, 1000, '\0'},
        {"Write data", 2, 7953, '\0'}, {"Write data", 2, 9999, '\2'},
    };
    for (const auto& change : CHANGES) {
        SCOPED_TRACE(change.iPosition);
        m_host.When(
            change.pcWhen,
            [&] { EXPECT_EQ(pwrite(GetDescriptor(), &change.cByte, 1, change.iPosition), 1); },
            change.iCount);
        ExpectFailures({"Verify data with size 2047. Error=Data content not match"});
    }
}

TEST_F(UtilitiesSelfTestTrouble, DataBehindTheRange_DoNotMatter)
{
    m_host.When("Write data", [this] { EXPECT_EQ(pwrite(GetDescriptor(), "xyz", 3, 2047), 3); });
    ExpectGoodRun(m_sTarget);
}

// ---- The mode ----

TEST_F(UtilitiesSelfTestTrouble, FileGoneBeforeItsMode_HasNone)
{
    m_host.When("Get file stat", [this] { RemoveFile(); });
    Lines vFailures = GetFailuresOfMode("8124", NOT_FOUND);
    Append(&vFailures, GetFailuresOfMode("81A4", NOT_FOUND));
    Append(&vFailures, {std::string("Rename file from $F to $2. Error=") + NOT_FOUND,
                        std::string("Remove file $2. Error=") + NOT_FOUND});
    ExpectFailures(vFailures);
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, FileGoneBehindItsMode_HasNoneToVerify)
{
    m_host.When("Set file mode 8124", [this] { RemoveFile(); });
    m_host.When("Verify file mode 8124", [this] { std::ofstream(File()) << 'x'; });
    ExpectFailures({std::string("Get file mode from file $F. Error=") + NOT_FOUND,
                    "Verify file mode 8124 from file $F. Error=Get file mode failed"});
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, ModeChangedByOthers_DoesNotMatch)
{
    m_host.When("Set file mode 8124", [this] { chmod(File().c_str(), 0600); });
    m_host.When("Set file mode 81A4", [this] { PutLink("nowhere"); });
    ExpectFailures({"Verify file mode 8124 from file $F. Error=File mode not match (current file "
                    "mode = 8180)",
                    "Verify file mode 81A4 from file $F. Error=File mode not match (current file "
                    "mode = A1FF)"});
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, ModeThatWasNotFound_IsZero)
{
    m_host.When(
        "Verify data", [this] { RemoveFile(); }, 2);
    m_host.When("Get file stat", [this] { std::ofstream(File()) << 'x'; });
    ExpectFailures({std::string("Get file stat from file $F. Error=") + NOT_FOUND,
                    "Verify file mode 0 from file $F. Error=File mode not match (current file mode "
                    "= 8000)"},
                   USUAL_RUN, "0");
    ExpectNothingLeft();
}

// ---- The end ----

TEST_F(UtilitiesSelfTestTrouble, FileThatCannotBeRenamed_IsRemovedInSilence)
{
    m_host.When(
        "Close file", [this] { std::filesystem::create_directory(RenamedFile()); }, 4);
    m_host.When("Rename file", [this] { std::filesystem::remove(RenamedFile()); });
    ExpectFailures({"Rename file from $F to $2. Error=Is a directory (21)",
                    std::string("Remove file $2. Error=") + NOT_FOUND,
                    "Remove directory $D. Error=Directory not empty (39)"});
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, FilesThatAreLeft_AreRemovedInSilence)
{
    m_host.When("[ OK ] Remove file", [this] {
        std::ofstream(File()) << 'x';
        std::ofstream(RenamedFile()) << 'x';
    });
    const Lines vLines = Run(m_sTarget, 10000, LOG_EVERYTHING);
    ASSERT_GT(vLines.size(), 2U);
    EXPECT_EQ(Lines(vLines.end() - 2, vLines.end()),
              (Lines{FillIn("[FAIL] Remove directory $D. Error=Directory not empty (39)"),
                     "================================ END TEST "
                     "================================"}));
    EXPECT_EQ(m_host.Count("OS remove"), 2U);  // one for each of the two steps
    EXPECT_EQ(m_host.Lines().back(), "info|caller|" + vLines.back());
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, FolderMadeAgain_StillExists)
{
    m_host.When("OS remove folder", [this] { std::filesystem::create_directory(Folder()); });
    ExpectFailures({"Remove directory $D. Error=Directory still exist"}, USUAL_RUN, "81A4",
                   LOG_CONTROL_FILE_ACCESS);
    ExpectNothingLeft();
}

TEST_F(UtilitiesSelfTestTrouble, FolderRemovedByOthers_CannotBeRemoved)
{
    m_host.When("Remove file", [this] { std::filesystem::remove(Folder()); });
    ExpectFailures({std::string("Remove directory $D. Error=") + NOT_FOUND});
}

TEST_F(UtilitiesSelfTestTrouble, FilesOfOthers_StayWithTheFolder)
{
    m_host.When("Verify data", [this] { std::ofstream(Folder() + "/other") << "theirs"; });
    ExpectFailures({"Remove directory $D. Error=Directory not empty (39)"});
    EXPECT_EQ(ReadWholeFile(Folder() + "/other"), "theirs");
    EXPECT_FALSE(std::filesystem::exists(File()));
    EXPECT_FALSE(std::filesystem::exists(RenamedFile()));
}

// ---- A target that vanishes ----

TEST_F(UtilitiesSelfTestTrouble, TargetRemoved_AtAnyLine_IsSurvived)
{
    m_sTarget = m_folder.Path("target");
    ExpectToSurvive([this] { std::filesystem::create_directory(m_sTarget); },
                    [this] { std::filesystem::remove_all(m_sTarget); });
}

TEST_F(UtilitiesSelfTestTrouble, TargetUnmounted_AtAnyLine_IsSurvived)
{
    std::unique_ptr<CSmallDisk> disk;
    ExpectToSurvive(
        [&] {
            disk = std::make_unique<CSmallDisk>();
            m_sTarget = disk->Path();
        },
        [this] { EXPECT_EQ(umount2(m_sTarget.c_str(), MNT_DETACH), 0); });
}

TEST_F(UtilitiesSelfTestTrouble, TargetReplacedByAnother_InTheMiddle_IsSurvived)
{
    m_sTarget = m_folder.Path("target");
    std::filesystem::create_directory(m_sTarget);
    m_host.When("Shrink file", [this] {
        std::filesystem::rename(m_sTarget, m_folder.Path("moved"));
        std::filesystem::create_directories(Folder());
    });
    Lines vFailures = {std::string("Open file $F. Error=") + NOT_FOUND,
                       "Verify file size. Error=Open file failed",
                       "Close file $F. Error=Open file failed"};
    Append(&vFailures, GetFailuresOfOpen(NOT_FOUND));
    vFailures.push_back(std::string("Get file stat from file $F. Error=") + NOT_FOUND);
    Append(&vFailures, GetFailuresOfMode("8124", NOT_FOUND));
    Append(&vFailures, GetFailuresOfMode("0", NOT_FOUND));
    Append(&vFailures, {"Close file $F. Error=Bad file descriptor",
                        std::string("Rename file from $F to $2. Error=") + NOT_FOUND,
                        std::string("Remove file $2. Error=") + NOT_FOUND});
    ExpectFailures(vFailures, USUAL_RUN, "0");
    ExpectNothingLeft();
    EXPECT_EQ(std::filesystem::file_size(m_folder.Path("moved/_test/test.bak")), 10000U);
}
