#include "Utilities.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <ostream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "UtilitiesFixture.h"

namespace {

constexpr char UNTOUCHED[] = "untouched";

// One use of a wrapper: where it may work, and what it left.
struct OsUse {
    CUtilities* pUtilities;
    CRuntimeParam* pParam;
    LogArgu* pArgu;
    const CScratchFolder& folder;
    char* pcError;
    std::string sLine = {};  // set by the use: its line without label and error text
};

// A wrapper, used so that the system call succeeds and so that it fails.
struct OsWrapper {
    const char* pcName;
    long long iGood;  // the result of success; -2 is any that is not negative
    std::function<long long(OsUse*)> Succeed;
    long long iBad;
    const char* pcError;
    std::function<long long(OsUse*)> Fail;
};

std::ostream& operator<<(std::ostream& out, const OsWrapper& wrapper)
{
    return out << wrapper.pcName;
}

// A descriptor that cannot be positioned: the reading end of a pipe, and its writing end.
class CPipe {
public:
    CPipe()
    {
        int iEnds[2] = {-1, -1};
        if (pipe2(iEnds, O_CLOEXEC) == 0) {
            m_read.Reset(iEnds[0]);
            m_write.Reset(iEnds[1]);
        }
    }
    int Read() const { return m_read.Get(); }
    int Write() const { return m_write.Get(); }

private:
    CAutoFd m_read;
    CAutoFd m_write;
};

std::string GetPathLine(const char* pcStart, const std::string& sPath, const char* pcEnd = "")
{
    return std::string(pcStart) + " \"" + sPath + "\"" + pcEnd;
}

std::string GetFileLine(const char* pcStart, int iFile)
{
    return std::string(pcStart) + " file (" + std::to_string(iFile) + ")";
}

int Open(const std::string& sPath, int iFlags = O_RDWR)
{
    return open(sPath.c_str(), iFlags | O_CLOEXEC);
}

long long Create(OsUse* pUse, const std::string& sPath)
{
    pUse->sLine = GetPathLine("OS create file", sPath);
    const CAutoFd file(
        pUse->pUtilities->OS_FileCreate(pUse->pParam, pUse->pArgu, sPath.c_str(), pUse->pcError));
    return file.Get();
}

long long Remove(OsUse* pUse, const std::string& sPath)
{
    pUse->sLine = GetPathLine("OS remove file", sPath);
    return pUse->pUtilities->OS_FileRemove(pUse->pParam, pUse->pArgu, sPath.c_str(), pUse->pcError);
}

long long Rename(OsUse* pUse, const std::string& sFrom, const std::string& sTo)
{
    pUse->sLine = GetPathLine("OS rename file from", sFrom) + GetPathLine(" to", sTo);
    return pUse->pUtilities->OS_FileRename(pUse->pParam, pUse->pArgu, sFrom.c_str(), sTo.c_str(),
                                           pUse->pcError);
}

long long OpenFile(OsUse* pUse, const std::string& sPath)
{
    pUse->sLine = GetPathLine("OS open file", sPath);
    const CAutoFd file(pUse->pUtilities->OS_FileOpen(pUse->pParam, pUse->pArgu, sPath.c_str(),
                                                     O_RDONLY, true, pUse->pcError));
    return file.Get();
}

long long Close(OsUse* pUse, int iFile)
{
    pUse->sLine = GetPathLine("OS close file", "/its/path");
    return pUse->pUtilities->OS_FileClose(pUse->pParam, pUse->pArgu, "/its/path", iFile,
                                          pUse->pcError);
}

long long Read(OsUse* pUse, int iFile)
{
    char cBuffer[8];
    pUse->sLine = GetFileLine("OS read", iFile);
    return pUse->pUtilities->OS_FileRead(pUse->pParam, pUse->pArgu, iFile, cBuffer, sizeof(cBuffer),
                                         pUse->pcError);
}

long long Write(OsUse* pUse, int iFile)
{
    pUse->sLine = GetFileLine("OS write", iFile);
    return pUse->pUtilities->OS_FileWrite(pUse->pParam, pUse->pArgu, iFile, "data", 4,
                                          pUse->pcError);
}

long long Seek(OsUse* pUse, int iFile)
{
    pUse->sLine = GetFileLine("OS seek", iFile);
    return pUse->pUtilities->OS_FileSeek(pUse->pParam, pUse->pArgu, iFile, 3, SEEK_SET,
                                         pUse->pcError);
}

long long Tell(OsUse* pUse, int iFile)
{
    pUse->sLine = GetFileLine("OS tell", iFile);
    return pUse->pUtilities->OS_FileTell(pUse->pParam, pUse->pArgu, iFile, pUse->pcError);
}

long long CreateFolder(OsUse* pUse, const std::string& sPath)
{
    pUse->sLine = GetPathLine("OS create folder", sPath, " (mode = 493)");
    return pUse->pUtilities->OS_FolderCreate(pUse->pParam, pUse->pArgu, sPath.c_str(), 0755,
                                             pUse->pcError);
}

long long RemoveFolder(OsUse* pUse, const std::string& sPath)
{
    pUse->sLine = GetPathLine("OS remove folder", sPath);
    return pUse->pUtilities->OS_FolderRemove(pUse->pParam, pUse->pArgu, sPath.c_str(),
                                             pUse->pcError);
}

long long SetMode(OsUse* pUse, const std::string& sPath)
{
    pUse->sLine = GetPathLine("OS set file mode", sPath, " (mode = 416)");
    return pUse->pUtilities->OS_SetFileMode(pUse->pParam, pUse->pArgu, sPath.c_str(), 0640,
                                            pUse->pcError);
}

long long GetStat(OsUse* pUse, const std::string& sPath)
{
    struct stat info = {};
    pUse->sLine = GetPathLine("OS get file stat", sPath);
    return pUse->pUtilities->OS_GetFileStat(pUse->pParam, pUse->pArgu, sPath.c_str(), &info,
                                            pUse->pcError);
}

long long SetSize(OsUse* pUse, const std::string& sPath, long long iSize)
{
    pUse->sLine = GetPathLine("OS set file file", sPath);  // kept wording
    return pUse->pUtilities->OS_SetFileSize(pUse->pParam, pUse->pArgu, sPath.c_str(), iSize,
                                            pUse->pcError);
}

std::string MakeFile(OsUse* pUse)
{
    return pUse->folder.Write("file", "contents");
}

std::string MakeFolder(OsUse* pUse)
{
    std::filesystem::create_directory(pUse->folder.Path("sub"));
    return pUse->folder.Path("sub");
}

// A folder that nothing can be done to: it has a file in it.
std::string MakeFullFolder(OsUse* pUse)
{
    MakeFolder(pUse);
    pUse->folder.Write("sub/file", "");
    return pUse->folder.Path("sub");
}

std::string GetMissing(OsUse* pUse)
{
    return pUse->folder.Path("missing/file");
}

constexpr long long ANY = -2;
constexpr char NO_ENTRY[] = "No such file or directory (2)";
constexpr char BAD_FILE[] = "Bad file descriptor (9)";
constexpr char NO_FILE[] = "Bad file descriptor";  // no call was made: there is no number
constexpr char NO_SEEK[] = "Illegal seek (29)";
constexpr char NOT_EMPTY[] = "Directory not empty (39)";

const OsWrapper WRAPPERS[] = {
    {"Create", ANY, [](OsUse* p) { return Create(p, p->folder.Path("new")); }, -1, NO_ENTRY,
     [](OsUse* p) { return Create(p, GetMissing(p)); }},
    {"Remove", 0, [](OsUse* p) { return Remove(p, MakeFile(p)); }, -1, NO_ENTRY,
     [](OsUse* p) { return Remove(p, GetMissing(p)); }},
    {"RemoveFolderAsFile", 0, [](OsUse* p) { return Remove(p, MakeFolder(p)); }, -1, NOT_EMPTY,
     [](OsUse* p) { return Remove(p, MakeFullFolder(p)); }},
    {"Rename", 0, [](OsUse* p) { return Rename(p, MakeFile(p), p->folder.Path("to")); }, -1,
     NO_ENTRY, [](OsUse* p) { return Rename(p, MakeFile(p), GetMissing(p)); }},
    {"Open", ANY, [](OsUse* p) { return OpenFile(p, MakeFile(p)); }, -1, NO_ENTRY,
     [](OsUse* p) { return OpenFile(p, GetMissing(p)); }},
    {"Close", 0, [](OsUse* p) { return Close(p, Open(MakeFile(p))); }, -1, BAD_FILE,
     [](OsUse* p) { return Close(p, 19999); }},
    {"CloseNone", 0, [](OsUse* p) { return Close(p, Open(MakeFile(p))); }, -1, NO_FILE,
     [](OsUse* p) { return Close(p, -1); }},
    {"Read", 8, [](OsUse* p) { return Read(p, CAutoFd(Open(MakeFile(p))).Get()); }, -1, BAD_FILE,
     [](OsUse* p) { return Read(p, CAutoFd(Open(MakeFile(p), O_WRONLY)).Get()); }},
    {"ReadNone", 8, [](OsUse* p) { return Read(p, CAutoFd(Open(MakeFile(p))).Get()); }, -1, NO_FILE,
     [](OsUse* p) { return Read(p, -1); }},
    {"Write", 4, [](OsUse* p) { return Write(p, CAutoFd(Open(MakeFile(p))).Get()); }, -1, BAD_FILE,
     [](OsUse* p) { return Write(p, CAutoFd(Open(MakeFile(p), O_RDONLY)).Get()); }},
    {"WriteNone", 4, [](OsUse* p) { return Write(p, CAutoFd(Open(MakeFile(p))).Get()); }, -1,
     NO_FILE, [](OsUse* p) { return Write(p, -1); }},
    {"Seek", 3, [](OsUse* p) { return Seek(p, CAutoFd(Open(MakeFile(p))).Get()); }, -1, NO_SEEK,
     [](OsUse* p) { return Seek(p, CPipe().Read()); }},
    {"SeekNone", 3, [](OsUse* p) { return Seek(p, CAutoFd(Open(MakeFile(p))).Get()); }, -1, NO_FILE,
     [](OsUse* p) { return Seek(p, -1); }},
    {"Tell", 0, [](OsUse* p) { return Tell(p, CAutoFd(Open(MakeFile(p))).Get()); }, -1, NO_SEEK,
     [](OsUse* p) { return Tell(p, CPipe().Write()); }},
    {"TellNone", 0, [](OsUse* p) { return Tell(p, CAutoFd(Open(MakeFile(p))).Get()); }, -1, NO_FILE,
     [](OsUse* p) { return Tell(p, -1); }},
    {"CreateFolder", 0, [](OsUse* p) { return CreateFolder(p, p->folder.Path("new")); }, -1,
     "File exists (17)", [](OsUse* p) { return CreateFolder(p, p->folder.Path()); }},
    {"RemoveFolder", 0, [](OsUse* p) { return RemoveFolder(p, MakeFolder(p)); }, -1,
     "Not a directory (20)", [](OsUse* p) { return RemoveFolder(p, MakeFile(p)); }},
    {"SetMode", 0, [](OsUse* p) { return SetMode(p, MakeFile(p)); }, -1, NO_ENTRY,
     [](OsUse* p) { return SetMode(p, GetMissing(p)); }},
    {"GetStat", 0, [](OsUse* p) { return GetStat(p, MakeFile(p)); }, -1, NO_ENTRY,
     [](OsUse* p) { return GetStat(p, GetMissing(p)); }},
    {"SetSize", 1, [](OsUse* p) { return SetSize(p, MakeFile(p), 3); }, 0, NO_ENTRY,
     [](OsUse* p) { return SetSize(p, GetMissing(p), 3); }},
    {"SetSizeBelowZero", 1, [](OsUse* p) { return SetSize(p, MakeFile(p), 0); }, 0,
     "Invalid argument (22)", [](OsUse* p) { return SetSize(p, MakeFile(p), -1); }},
};

// Every wrapper: which line it writes when, and what it leaves in the caller's buffer.
class UtilitiesOsWrapper : public CUtilitiesFixture, public testing::WithParamInterface<OsWrapper> {
protected:
    // Tests the result; returns the line that goes with it.
    std::string Succeed(char* pcError)
    {
        OsUse use = {&m_utilities, &m_param, &m_argu, m_folder, pcError};
        const long long iResult = GetParam().Succeed(&use);
        if (GetParam().iGood == ANY)
            EXPECT_GE(iResult, 0);
        else
            EXPECT_EQ(iResult, GetParam().iGood);
        return use.sLine;
    }
    std::string Fail(char* pcError)
    {
        OsUse use = {&m_utilities, &m_param, &m_argu, m_folder, pcError};
        EXPECT_EQ(GetParam().Fail(&use), GetParam().iBad);
        return use.sLine;
    }

    char m_cError[REASON_SIZE] = "untouched";
    const size_t m_iDescriptors = CountDescriptors();
};

std::string GetWrapperName(const testing::TestParamInfo<OsWrapper>& info)
{
    return info.param.pcName;
}

class UtilitiesOs : public CUtilitiesFixture {
protected:
    int ForceOpen(const std::string& sPath)
    {
        return m_utilities.OS_FileForceOpen(&m_param, &m_argu, sPath.c_str(), m_cError);
    }

    // The lines that come before those about m_folder's own contents.
    Lines GetFolderLines() const
    {
        Lines vLines;
        size_t iSlash = 0;
        while ((iSlash = m_folder.Path().find('/', iSlash + 1)) != std::string::npos)
            vLines.push_back(GetCheckLine(m_folder.Path().substr(0, iSlash)));
        vLines.push_back(GetCheckLine(m_folder.Path()));
        return vLines;
    }
    static std::string GetCheckLine(const std::string& sPath)
    {
        return "info|host|[Test] Check folder \"" + sPath + "\" exists";
    }

    char m_cError[REASON_SIZE] = "untouched";
};

mode_t GetMode(const std::string& sPath)
{
    struct stat info = {};
    EXPECT_EQ(stat(sPath.c_str(), &info), 0);
    return info.st_mode & 07777;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(All, UtilitiesOsWrapper, testing::ValuesIn(WRAPPERS), GetWrapperName);

TEST_P(UtilitiesOsWrapper, Success_WithFileAccess_WritesItsLine)
{
    m_param.SetLogControl(LOG_CONTROL_FILE_ACCESS);
    const std::string sLine = Succeed(m_cError);
    EXPECT_EQ(m_recorder.Lines(), Lines{"info|host|[Test] " + sLine});
    EXPECT_STREQ(m_cError, UNTOUCHED);
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
}

TEST_P(UtilitiesOsWrapper, Success_WithEveryOtherBit_WritesNothing)
{
    m_param.SetLogControl(0x3FF & ~LOG_CONTROL_FILE_ACCESS);
    Succeed(nullptr);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_P(UtilitiesOsWrapper, Failure_WithError_WritesItsLineAndGivesTheText)
{
    m_param.SetLogControl(LOG_CONTROL_ERROR);
    const std::string sLine = Fail(m_cError);
    EXPECT_EQ(m_recorder.Lines(),
              Lines{"error|host|[Test] " + sLine + ". Error=" + GetParam().pcError});
    EXPECT_STREQ(m_cError, GetParam().pcError);
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
}

TEST_P(UtilitiesOsWrapper, Failure_WithEveryOtherBit_OnlyGivesTheText)
{
    m_param.SetLogControl(0x3FF & ~LOG_CONTROL_ERROR);
    Fail(m_cError);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
    EXPECT_STREQ(m_cError, GetParam().pcError);
}

TEST_P(UtilitiesOsWrapper, Failure_NoTextWanted_StillWritesItsLine)
{
    m_param.SetLogControl(LOG_CONTROL_ERROR);
    const std::string sLine = Fail(nullptr);
    EXPECT_EQ(m_recorder.Lines(),
              Lines{"error|host|[Test] " + sLine + ". Error=" + GetParam().pcError});
}

// ---- What the calls do ----

TEST_F(UtilitiesOs, FileCreate_NewFile_IsForAllWithinTheMask)
{
    const mode_t iMask = umask(02);
    const CAutoFd file(
        m_utilities.OS_FileCreate(&m_param, &m_argu, m_folder.Path("new").c_str(), nullptr));
    umask(iMask);
    EXPECT_EQ(GetMode(m_folder.Path("new")), 0664U);
    EXPECT_EQ(fcntl(file.Get(), F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(fcntl(file.Get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(UtilitiesOs, FileCreate_ExistingFile_KeepsItsContents)
{
    const std::string sFile = m_folder.Write("file", "contents");
    const CAutoFd file(m_utilities.OS_FileCreate(&m_param, &m_argu, sFile.c_str(), nullptr));
    EXPECT_NE(file.Get(), -1);
    EXPECT_EQ(ReadWholeFile(sFile), "contents");
}

TEST_F(UtilitiesOs, FileOpen_UsesTheFlagsAndCreatesNothing)
{
    const std::string sFile = m_folder.Write("file", "contents");
    const CAutoFd file(
        m_utilities.OS_FileOpen(&m_param, &m_argu, sFile.c_str(), O_WRONLY, false, nullptr));
    EXPECT_EQ(fcntl(file.Get(), F_GETFL) & O_ACCMODE, O_WRONLY);
    EXPECT_EQ(fcntl(file.Get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(m_utilities.OS_FileOpen(&m_param, &m_argu, m_folder.Path("new").c_str(), O_RDWR,
                                      false, nullptr),
              -1);
}

// A pipe in an export: without its other end, an open would wait for ever.
TEST_F(UtilitiesOs, Opens_OfAPipe_DoNotWait)
{
    const std::string sFile = m_folder.Write("file", "");
    const CAutoFd opened(
        m_utilities.OS_FileOpen(&m_param, &m_argu, sFile.c_str(), O_RDONLY, false, nullptr));
    const CAutoFd created(m_utilities.OS_FileCreate(&m_param, &m_argu, sFile.c_str(), nullptr));
    const CAutoFd forced(ForceOpen(sFile));
    for (const int iFile : {opened.Get(), created.Get(), forced.Get()})
        ASSERT_NE(fcntl(iFile, F_GETFL) & O_NONBLOCK, 0);  // or what follows would wait

    const std::string sPipe = m_folder.Path("pipe");
    ASSERT_EQ(mkfifo(sPipe.c_str(), 0600), 0);
    EXPECT_EQ(m_utilities.OS_FileOpen(&m_param, &m_argu, sPipe.c_str(), O_WRONLY, true, m_cError),
              -1);
    EXPECT_STREQ(m_cError, "No such device or address (6)");  // nobody reads
    const CAutoFd reader(
        m_utilities.OS_FileOpen(&m_param, &m_argu, sPipe.c_str(), O_RDONLY, true, nullptr));
    EXPECT_NE(reader.Get(), -1);
    char cByte = 0;
    EXPECT_EQ(m_utilities.OS_FileRead(&m_param, &m_argu, reader.Get(), &cByte, 1, nullptr), 0);
    EXPECT_FALSE(m_utilities.OS_SetFileSize(&m_param, &m_argu, sPipe.c_str(), 3, m_cError));
    EXPECT_STREQ(m_cError, "Invalid argument (22)");
}

// A terminal in an export: whoever hangs it up must not end the server.
TEST_F(UtilitiesOs, Opens_OfATerminal_DoNotMakeItTheServersOwn)
{
    const CAutoFd master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    char cName[64];
    ASSERT_EQ(grantpt(master.Get()) | unlockpt(master.Get()), 0);
    ASSERT_EQ(ptsname_r(master.Get(), cName, sizeof(cName)), 0);
    const pid_t iChild = fork();
    if (iChild == 0) {
        setsid();  // without a terminal, as a daemon
        const int iFile = m_utilities.OS_FileOpen(&m_param, &m_argu, cName, O_RDWR, false, nullptr);
        const int iCreated = m_utilities.OS_FileCreate(&m_param, &m_argu, cName, nullptr);
        m_utilities.OS_SetFileSize(&m_param, &m_argu, cName, 3, nullptr);
        if (iFile == -1 || iCreated == -1)
            _exit(2);
        _exit(tcgetsid(iFile) == -1 ? 0 : 1);
    }
    int iStatus = -1;
    ASSERT_EQ(waitpid(iChild, &iStatus, 0), iChild);
    EXPECT_EQ(iStatus, 0);
}

TEST_F(UtilitiesOs, FileReadAndWrite_MoveThePosition)
{
    const CAutoFd file(Open(m_folder.Write("file", "0123456789")));
    char cBuffer[4] = {};
    EXPECT_EQ(m_utilities.OS_FileRead(&m_param, &m_argu, file.Get(), cBuffer, 4, nullptr), 4);
    EXPECT_EQ(std::string(cBuffer, 4), "0123");
    EXPECT_EQ(m_utilities.OS_FileTell(&m_param, &m_argu, file.Get(), nullptr), 4);
    EXPECT_EQ(m_utilities.OS_FileWrite(&m_param, &m_argu, file.Get(), "XY", 2, nullptr), 2);
    EXPECT_EQ(m_utilities.OS_FileSeek(&m_param, &m_argu, file.Get(), -1, SEEK_END, nullptr), 9);
    EXPECT_EQ(m_utilities.OS_FileSeek(&m_param, &m_argu, file.Get(), -2, SEEK_CUR, nullptr), 7);
    EXPECT_EQ(
        m_utilities.OS_FileSeek(&m_param, &m_argu, file.Get(), 0x100000000, SEEK_SET, nullptr),
        0x100000000);
    EXPECT_EQ(ReadWholeFile(m_folder.Path("file")), "0123XY6789");
}

// For descriptors that several use at once. The lines are those of the calls that they stand for.
TEST_F(UtilitiesOs, FileReadAtAndWriteAt_LeaveThePosition)
{
    const CAutoFd file(Open(m_folder.Write("file", "0123456789")));
    m_param.SetLogControl(LOG_CONTROL_FILE_ACCESS | LOG_CONTROL_ERROR);
    m_recorder.Clear();
    const std::string sFile = " file (" + std::to_string(file.Get()) + ")";
    char cBuffer[4] = {};
    EXPECT_EQ(m_utilities.OS_FileReadAt(&m_param, &m_argu, file.Get(), 3, cBuffer, 4, nullptr), 4);
    EXPECT_EQ(std::string(cBuffer, 4), "3456");
    EXPECT_EQ(m_utilities.OS_FileReadAt(&m_param, &m_argu, file.Get(), 10, cBuffer, 4, nullptr), 0);
    EXPECT_EQ(m_utilities.OS_FileWriteAt(&m_param, &m_argu, file.Get(), 8, "XYZ", 3, nullptr), 3);
    EXPECT_EQ(lseek(file.Get(), 0, SEEK_CUR), 0);
    EXPECT_EQ(ReadWholeFile(m_folder.Path("file")), "01234567XYZ");
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"info|host|[Test] OS seek" + sFile, "info|host|[Test] OS read" + sFile,
                     "info|host|[Test] OS seek" + sFile, "info|host|[Test] OS read" + sFile,
                     "info|host|[Test] OS write" + sFile}));
}

TEST_F(UtilitiesOs, FileReadAtAndWriteAt_Failures_SayWhatFailed)
{
    const CAutoFd file(Open(m_folder.Write("file", "0123456789")));
    const CAutoFd folder(open(m_folder.Path().c_str(), O_RDONLY | O_CLOEXEC));
    m_param.SetLogControl(LOG_CONTROL_ERROR);
    m_recorder.Clear();
    char cBuffer[4] = {};
    char cReason[REASON_SIZE] = "";
    EXPECT_EQ(m_utilities.OS_FileReadAt(&m_param, &m_argu, file.Get(), -1, cBuffer, 4, cReason),
              -1);
    EXPECT_STREQ(cReason, "Invalid argument (22)");
    EXPECT_EQ(m_utilities.OS_FileReadAt(&m_param, &m_argu, folder.Get(), 0, cBuffer, 4, nullptr),
              -1);
    EXPECT_EQ(m_utilities.OS_FileReadAt(&m_param, &m_argu, -1, 0, cBuffer, 4, nullptr), -1);
    EXPECT_EQ(m_utilities.OS_FileWriteAt(&m_param, &m_argu, folder.Get(), 0, "X", 1, nullptr), -1);
    EXPECT_EQ(m_utilities.OS_FileWriteAt(&m_param, &m_argu, -1, 0, "X", 1, cReason), -1);
    EXPECT_STREQ(cReason, "Bad file descriptor");
    const std::string sFile = std::to_string(file.Get());
    const std::string sFolder = std::to_string(folder.Get());
    EXPECT_EQ(
        m_recorder.Lines(),
        (Lines{"error|host|[Test] OS seek file (" + sFile + "). Error=Invalid argument (22)",
               "error|host|[Test] OS read file (" + sFolder + "). Error=Is a directory (21)",
               "error|host|[Test] OS seek file (-1). Error=Bad file descriptor",
               "error|host|[Test] OS write file (" + sFolder + "). Error=Bad file descriptor (9)",
               "error|host|[Test] OS write file (-1). Error=Bad file descriptor"}));
}

TEST_F(UtilitiesOs, FolderCreate_UsesTheMode)
{
    const mode_t iMask = umask(0);
    EXPECT_EQ(
        m_utilities.OS_FolderCreate(&m_param, &m_argu, m_folder.Path("new").c_str(), 0711, nullptr),
        0);
    umask(iMask);
    EXPECT_EQ(GetMode(m_folder.Path("new")), 0711U);
}

TEST_F(UtilitiesOs, SetFileMode_SetsAllTwelveBits)
{
    const std::string sFile = m_folder.Write("file", "");
    EXPECT_EQ(m_utilities.OS_SetFileMode(&m_param, &m_argu, sFile.c_str(), 07751, nullptr), 0);
    EXPECT_EQ(GetMode(sFile), 07751U);
}

TEST_F(UtilitiesOs, GetFileStat_DoesNotFollowLinks)
{
    std::filesystem::create_symlink("nowhere", m_folder.Path("link"));
    struct stat info = {};
    EXPECT_EQ(m_utilities.OS_GetFileStat(&m_param, &m_argu, m_folder.Path("link").c_str(), &info,
                                         nullptr),
              0);
    EXPECT_TRUE(S_ISLNK(info.st_mode));
}

TEST_F(UtilitiesOs, IsFileExists_FollowsLinksAndWritesNothing)
{
    m_param.SetLogControl(0x3FF);
    m_folder.Write("file", "");
    std::filesystem::create_symlink("file", m_folder.Path("good"));
    std::filesystem::create_symlink("nowhere", m_folder.Path("dangling"));
    EXPECT_TRUE(m_utilities.OS_IsFileExists(m_folder.Path("file").c_str()));
    EXPECT_TRUE(m_utilities.OS_IsFileExists(m_folder.Path().c_str()));
    EXPECT_TRUE(m_utilities.OS_IsFileExists(m_folder.Path("good").c_str()));
    EXPECT_FALSE(m_utilities.OS_IsFileExists(m_folder.Path("dangling").c_str()));
    EXPECT_FALSE(m_utilities.OS_IsFileExists(m_folder.Path("missing").c_str()));
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(UtilitiesOs, SetFileSize_CutsAndExtends)
{
    const std::string sFile = m_folder.Write("file", "contents");
    EXPECT_TRUE(m_utilities.OS_SetFileSize(&m_param, &m_argu, sFile.c_str(), 3, nullptr));
    EXPECT_EQ(ReadWholeFile(sFile), "con");
    EXPECT_TRUE(m_utilities.OS_SetFileSize(&m_param, &m_argu, sFile.c_str(), 5, nullptr));
    EXPECT_EQ(ReadWholeFile(sFile), std::string("con\0\0", 5));
}

TEST_F(UtilitiesOs, SetFileSize_SizeItHasAlready_WritesNothing)
{
    m_param.SetLogControl(0x3FF);
    const std::string sFile = m_folder.Write("file", "contents");
    EXPECT_TRUE(m_utilities.OS_SetFileSize(&m_param, &m_argu, sFile.c_str(), 8, nullptr));
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(UtilitiesOs, SetFileSize_MissingFile_IsCreated)
{
    const mode_t iMask = umask(022);
    EXPECT_TRUE(
        m_utilities.OS_SetFileSize(&m_param, &m_argu, m_folder.Path("new").c_str(), 5, nullptr));
    umask(iMask);
    EXPECT_EQ(GetMode(m_folder.Path("new")), 0755U);
    EXPECT_EQ(std::filesystem::file_size(m_folder.Path("new")), 5U);
}

// ---- Forced open ----

TEST_F(UtilitiesOs, ForceOpen_NewFileInNewFolders_CreatesThemStepByStep)
{
    m_param.SetLogControl(0x3FF);
    const std::string sFile = m_folder.Path("a/b/file");
    const CAutoFd file(ForceOpen(sFile));
    EXPECT_NE(file.Get(), -1);
    const auto iElements = std::count(sFile.begin(), sFile.end(), '/') + 1;
    Lines vExpected = {"info|host|[Test] OS splited path \"" + sFile + "\" into " +
                       std::to_string(iElements) + " elements"};
    for (const std::string& sLine : GetFolderLines())
        vExpected.push_back(sLine);
    for (const char* pcFolder : {"a", "a/b"}) {
        const std::string sFolder = m_folder.Path(pcFolder);
        vExpected.push_back(GetCheckLine(sFolder));
        vExpected.push_back("info|host|[Test] Create folder \"" + sFolder + "\"");
        vExpected.push_back("info|host|[Test] OS create folder \"" + sFolder + "\" (mode = 493)");
    }
    vExpected.push_back("info|host|[Test] OS create file \"" + sFile + "\"");
    EXPECT_EQ(m_recorder.Lines(), vExpected);
    EXPECT_STREQ(m_cError, UNTOUCHED);
}

TEST_F(UtilitiesOs, ForceOpen_ExistingFile_IsOpenedForAppending)
{
    const std::string sFile = m_folder.Write("file", "old");
    m_param.SetLogControl(0x3FF);
    const CAutoFd file(ForceOpen(sFile));
    EXPECT_EQ(m_recorder.Lines().back(), "info|host|[Test] OS open file \"" + sFile + "\"");
    EXPECT_EQ(fcntl(file.Get(), F_GETFL) & (O_ACCMODE | O_APPEND), O_RDWR | O_APPEND);
    EXPECT_EQ(write(file.Get(), "new", 3), 3);
    EXPECT_EQ(ReadWholeFile(sFile), "oldnew");
}

TEST_F(UtilitiesOs, ForceOpen_WithoutFileAccess_WritesNothing)
{
    m_param.SetLogControl(0x3FF & ~LOG_CONTROL_FILE_ACCESS);
    const CAutoFd file(ForceOpen(m_folder.Path("a/file")));
    EXPECT_NE(file.Get(), -1);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(UtilitiesOs, ForceOpen_RelativePath_StartsAtTheCurrentFolder)
{
    const CAutoFd before(open(".", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(chdir(m_folder.Path().c_str()), 0);
    m_param.SetLogControl(0x3FF);
    const CAutoFd file(ForceOpen("file"));
    const CAutoFd deepFile(ForceOpen("x/file"));
    ASSERT_EQ(fchdir(before.Get()), 0);
    EXPECT_NE(file.Get(), -1);
    EXPECT_NE(deepFile.Get(), -1);
    EXPECT_EQ(
        m_recorder.Lines(),
        (Lines{"info|host|[Test] OS splited path \"file\" into 1 elements",
               "info|host|[Test] OS create file \"file\"",
               "info|host|[Test] OS splited path \"x/file\" into 2 elements",
               "info|host|[Test] Check folder \"x\" exists", "info|host|[Test] Create folder \"x\"",
               "info|host|[Test] OS create folder \"x\" (mode = 493)",
               "info|host|[Test] OS create file \"x/file\""}));
    EXPECT_TRUE(std::filesystem::exists(m_folder.Path("x/file")));
}

TEST_F(UtilitiesOs, ForceOpen_FolderCannotBeMade_FailsWithTheReason)
{
    m_param.SetLogControl(LOG_CONTROL_ERROR);
    EXPECT_EQ(ForceOpen("/proc/nothing/file"), -1);
    EXPECT_STREQ(m_cError, NO_ENTRY);
    EXPECT_EQ(m_recorder.Lines(),
              Lines{"error|host|[Test] OS create folder \"/proc/nothing\" (mode = 493). "
                    "Error=No such file or directory (2)"});
}

TEST_F(UtilitiesOs, ForceOpen_FileInTheWay_FailsWithTheReason)
{
    m_param.SetLogControl(LOG_CONTROL_ERROR);
    const std::string sFile = m_folder.Write("file", "") + "/below";
    EXPECT_EQ(ForceOpen(sFile), -1);
    EXPECT_STREQ(m_cError, "Not a directory (20)");
    EXPECT_EQ(m_recorder.Lines(), Lines{"error|host|[Test] OS create file \"" + sFile +
                                        "\". Error=Not a directory (20)"});
}
