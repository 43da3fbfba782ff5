#include "Utilities.h"

#include <chrono>
#include <fcntl.h>
#include <functional>
#include <future>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "UtilitiesFixture.h"

namespace {

// Called in the middle of each read and write, while it is set.
std::function<void()> g_DuringTransfer;

constexpr unsigned long long BEHIND_ALL = 0x8000000000000000ULL;  // negative for the system

class UtilitiesFiles : public CUtilitiesFixture {
protected:
    // The files are exported, as those that clients reach are.
    UtilitiesFiles() { EXPECT_EQ(Add(m_folder.Path(), "vm1"), ""); }
    ~UtilitiesFiles() override
    {
        m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu);
        EXPECT_EQ(CountDescriptors(), m_iDescriptors);
    }

    // What is read, with "+" behind it where the end of the file was reached; or "-1" likewise.
    std::string Read(const std::string& sPath, unsigned long long iSeek, unsigned int iLength,
                     int iSeekType = SEEK_SET)
    {
        std::string sText(iLength, '\0');
        bool bEof = false;
        const int iRead = m_utilities.ReadFile(&m_param, &m_argu, sPath.c_str(), iSeek, iSeekType,
                                               sText.data(), iLength, &bEof);
        sText = iRead < 0 ? std::to_string(iRead) : sText.substr(0, static_cast<size_t>(iRead));
        return sText + (bEof ? "+" : "");
    }

    int Write(const std::string& sPath, unsigned long long iSeek, const std::string& sText,
              int iSeekType = SEEK_SET)
    {
        return m_utilities.WriteFile(&m_param, &m_argu, sPath.c_str(), iSeek, iSeekType,
                                     sText.data(), static_cast<unsigned int>(sText.length()));
    }

    int GetCached(const std::string& sPath)
    {
        return m_utilities.GetCachedFileHandle(&m_param, &m_argu, sPath.c_str(), false);
    }

    // Writes down from here on; only what is asked for.
    void SetBits(int iBits)
    {
        m_param.SetLogControl(iBits);
        m_recorder.Clear();
    }

    // The lines of one call: all in the same form.
    static Lines MakeLines(const Lines& vTexts)
    {
        Lines vLines;
        for (const std::string& sText : vTexts)
            vLines.push_back("info|host|[Test] " + sText);
        return vLines;
    }
    static std::string Quote(const std::string& sText) { return "\"" + sText + "\""; }

    const size_t m_iDescriptors = CountDescriptors();
};

}  // namespace

// These two stand before the system's, to look around while a file is being read or written.
extern "C" ssize_t read(int iFile, void* pBuffer, size_t iLength)
{
    if (g_DuringTransfer)
        g_DuringTransfer();
    return syscall(SYS_read, iFile, pBuffer, iLength);
}

extern "C" ssize_t write(int iFile, const void* pBuffer, size_t iLength)
{
    if (g_DuringTransfer)
        g_DuringTransfer();
    return syscall(SYS_write, iFile, pBuffer, iLength);
}

// ---- Size and creation ----

TEST_F(UtilitiesFiles, GetFileSize_IsTheSizeNow)
{
    const std::string sFile = m_folder.Write("file", "12345");
    EXPECT_EQ(m_utilities.GetFileSize(&m_param, &m_argu, sFile.c_str(), 99), 5);
    EXPECT_EQ(Write(sFile, 0x100000000, "x"), 1);
    EXPECT_EQ(m_utilities.GetFileSize(&m_param, &m_argu, sFile.c_str(), 99), 0x100000001);
}

TEST_F(UtilitiesFiles, GetFileSize_NoDescriptor_IsTheDefault)
{
    EXPECT_EQ(m_utilities.GetFileSize(&m_param, &m_argu, m_folder.Path("missing").c_str(), 99), 99);
    EXPECT_EQ(m_utilities.GetFileSize(&m_param, &m_argu, "", -7), -7);
    EXPECT_EQ(m_utilities.GetFileSize(&m_param, &m_argu, nullptr, -7), -7);
}

TEST_F(UtilitiesFiles, GetFileSize_CannotSeek_IsTheDefault)
{
    ASSERT_EQ(mkfifo(m_folder.Path("fifo").c_str(), 0600), 0);
    SetBits(LOG_CONTROL_ERROR);
    EXPECT_EQ(m_utilities.GetFileSize(&m_param, &m_argu, m_folder.Path("fifo").c_str(), 99), 99);
    EXPECT_TRUE(m_recorder.Contains("Error=Illegal seek (29)"));
}

TEST_F(UtilitiesFiles, NewFile_IsCreatedAndClosed)
{
    const std::string sFile = m_folder.Path("new");
    SetBits(0x3FF & ~LOG_CONTROL_GENERAL_INFO);
    EXPECT_TRUE(m_utilities.NewFile(&m_param, &m_argu, sFile.c_str()));
    EXPECT_EQ(m_recorder.Lines(),
              MakeLines({"OS create file " + Quote(sFile), "OS close file " + Quote(sFile)}));
    EXPECT_EQ(std::filesystem::file_size(sFile), 0U);
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
}

TEST_F(UtilitiesFiles, NewFile_ExistingFile_KeepsItsContents)
{
    const std::string sFile = m_folder.Write("file", "text");
    EXPECT_TRUE(m_utilities.NewFile(&m_param, &m_argu, sFile.c_str()));
    EXPECT_EQ(ReadWholeFile(sFile), "text");
}

TEST_F(UtilitiesFiles, NewFile_Impossible_Fails)
{
    EXPECT_FALSE(m_utilities.NewFile(&m_param, &m_argu, m_folder.Path("missing/file").c_str()));
    EXPECT_FALSE(m_utilities.NewFile(&m_param, &m_argu, m_folder.Path().c_str()));
}

// ---- Reading ----

TEST_F(UtilitiesFiles, ReadFile_UpToOrBehindTheEnd_IsTheEnd)
{
    const std::string sFile = m_folder.Write("file", "0123456789");
    EXPECT_EQ(Read(sFile, 6, 4), "6789+");
    EXPECT_EQ(Read(sFile, 6, 100), "6789+");
    EXPECT_EQ(Read(sFile, 10, 4), "+");
    EXPECT_EQ(Read(sFile, 1000, 4), "+");
    EXPECT_EQ(Read(sFile, 10, 0), "+");
}

TEST_F(UtilitiesFiles, ReadFile_ShortOfTheEnd_IsNotTheEnd)
{
    const std::string sFile = m_folder.Write("file", "0123456789");
    EXPECT_EQ(Read(sFile, 0, 4), "0123");
    EXPECT_EQ(Read(sFile, 5, 4), "5678");
    EXPECT_EQ(Read(sFile, 5, 0), "");
}

TEST_F(UtilitiesFiles, ReadFile_EmptyFile_IsTheEnd)
{
    EXPECT_EQ(Read(m_folder.Write("file", ""), 0, 4), "+");
}

TEST_F(UtilitiesFiles, ReadFile_SeeksFromWhereItIsTold)
{
    const std::string sFile = m_folder.Write("file", "0123456789");
    EXPECT_EQ(Read(sFile, static_cast<unsigned long long>(-3), 2, SEEK_END), "78");
    EXPECT_EQ(Read(sFile, static_cast<unsigned long long>(-4), 2, SEEK_CUR), "67");  // after eof
}

TEST_F(UtilitiesFiles, ReadFile_NoDescriptor_FailsAtTheEnd)
{
    EXPECT_EQ(Read(m_folder.Path("missing"), 0, 4), "-1+");
    EXPECT_EQ(Read("", 0, 4), "-1+");
}

TEST_F(UtilitiesFiles, ReadFile_CannotSeek_Fails)
{
    const std::string sFile = m_folder.Write("file", "0123456789");
    EXPECT_EQ(Read(sFile, BEHIND_ALL, 4), "-1+");
}

TEST_F(UtilitiesFiles, ReadFile_FailedRead_KeepsTheDescriptor)
{
    m_utilities.RemoveAllMountInfo();  // a folder can be opened for reading only
    std::filesystem::create_directory(m_folder.Path("sub"));
    SetBits(LOG_CONTROL_ERROR);
    EXPECT_TRUE(Read(m_folder.Path("sub"), 0, 4).starts_with("-1"));
    EXPECT_TRUE(m_recorder.Contains("Error=Is a directory (21)"));
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_NE(GetCached(m_folder.Path("sub")), -1);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(UtilitiesFiles, ReadFile_WithFileAccess_WritesEachStep)
{
    const std::string sFile = m_folder.Write("file", "0123456789");
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ(Read(sFile, 3, 4), "3456");
    const std::string sNumber = "(" + std::to_string(GetCached(sFile)) + ")";
    EXPECT_EQ(m_recorder.Lines(),
              MakeLines({"Read file, path=" + sFile + ", iSeek=3, iSeekType=0, length=4",
                         "open read/write mode " + sFile, "OS open file " + Quote(sFile),
                         "OS seek file " + sNumber, "OS read file " + sNumber,
                         "OS tell file " + sNumber, "OS seek file " + sNumber}));
}

TEST_F(UtilitiesFiles, ReadingTwice_OpensOnce)
{
    const std::string sFile = m_folder.Write("file", "0123456789");
    SetBits(LOG_CONTROL_FILE_ACCESS);
    Read(sFile, 0, 4);
    Read(sFile, 4, 4);
    EXPECT_EQ(m_recorder.Count("OS open file"), 1U);
}

// ---- Writing ----

TEST_F(UtilitiesFiles, WriteFile_WritesThere)
{
    const std::string sFile = m_folder.Write("file", "0123456789");
    EXPECT_EQ(Write(sFile, 3, "xyz"), 3);
    EXPECT_EQ(ReadWholeFile(sFile), "012xyz6789");
    EXPECT_EQ(Write(sFile, 12, "end"), 3);
    EXPECT_EQ(ReadWholeFile(sFile), std::string("012xyz6789\0\0end", 15));
    EXPECT_EQ(Write(sFile, 0, "+", SEEK_END), 1);
    EXPECT_EQ(Write(sFile, 0, "+", SEEK_CUR), 1);
    EXPECT_EQ(ReadWholeFile(sFile), std::string("012xyz6789\0\0end++", 17));
    EXPECT_EQ(Write(sFile, 0, ""), 0);
}

TEST_F(UtilitiesFiles, WriteFile_WithFileAccess_WritesEachStep)
{
    const std::string sFile = m_folder.Write("file", "");
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ(Write(sFile, 5000000000, "data"), 4);
    const std::string sNumber = "(" + std::to_string(GetCached(sFile)) + ")";
    EXPECT_EQ(m_recorder.Lines(),
              MakeLines({"Write file, path=" + sFile + ", iSeek=5000000000, iSeekType=0, length=4",
                         "open read/write mode " + sFile, "OS open file " + Quote(sFile),
                         "OS seek file " + sNumber, "OS write file " + sNumber}));
}

TEST_F(UtilitiesFiles, ReadAndWrite_WithoutTheBits_WriteNoLines)
{
    const std::string sFile = m_folder.Write("file", "text");
    SetBits(0x3FF & ~(LOG_CONTROL_FILE_ACCESS | LOG_CONTROL_GENERAL_INFO));
    EXPECT_EQ(Read(sFile, 0, 4), "text+");
    EXPECT_EQ(Write(sFile, 0, "data"), 4);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(UtilitiesFiles, WriteFile_NoDescriptor_FailsAndCreatesNothing)
{
    EXPECT_EQ(Write(m_folder.Path("missing"), 0, "data"), -1);
    EXPECT_EQ(Write("", 0, "data"), -1);
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("missing")));
}

TEST_F(UtilitiesFiles, WriteFile_CannotSeek_FailsAndWritesNothing)
{
    const std::string sFile = m_folder.Write("file", "text");
    EXPECT_EQ(Write(sFile, BEHIND_ALL, "data"), -1);
    EXPECT_EQ(ReadWholeFile(sFile), "text");
}

TEST_F(UtilitiesFiles, WriteFile_OutsideExports_HasAReadOnlyDescriptorAndKeepsIt)
{
    m_utilities.RemoveAllMountInfo();
    const std::string sFile = m_folder.Write("file", "text");
    SetBits(LOG_CONTROL_ERROR);
    EXPECT_EQ(Write(sFile, 0, "data"), -1);
    EXPECT_TRUE(m_recorder.Contains("Error=Bad file descriptor (9)"));
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_NE(GetCached(sFile), -1);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
    EXPECT_EQ(ReadWholeFile(sFile), "text");
}

// A slow disk holds up nobody but who waits for it.
TEST_F(UtilitiesFiles, ReadAndWrite_HoldNoTableMeanwhile)
{
    const std::string sFile = m_folder.Write("file", "0123456789");
    const std::string sOther = m_folder.Write("other", "");
    std::vector<std::future<void>> vOthers;  // outlives the transfers that one might wait for
    int iUnhindered = 0;
    g_DuringTransfer = [&] {
        vOthers.push_back(std::async(std::launch::async, [&] {
            CRuntimeParam param("other", 0);
            LogArgu argu = {"Other"};
            m_utilities.GetFileSize(&param, &argu, sOther.c_str(), 0);
            m_utilities.CloseCachedFileHandle(&param, &argu, sOther.c_str());
            m_utilities.GetMountInfo(&param, false, false);
            m_utilities.GetFileID(&param, &argu, sOther.c_str());
        }));
        iUnhindered +=
            vOthers.back().wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    };
    const std::string sRead = Read(sFile, 0, 4);
    const int iWritten = Write(sFile, 0, "abcd");
    g_DuringTransfer = nullptr;
    EXPECT_EQ(sRead, "0123");
    EXPECT_EQ(iWritten, 4);
    EXPECT_EQ(iUnhindered, 2);
}

TEST_F(UtilitiesFiles, PipeOutsideExports_CannotBeReadOrWrittenButKeepsNobodyWaiting)
{
    m_utilities.RemoveAllMountInfo();
    const std::string sFile = m_folder.Write("file", "");
    ASSERT_NE(fcntl(GetCached(sFile), F_GETFL) & O_NONBLOCK, 0);  // or what follows would wait
    const std::string sPipe = m_folder.Path("pipe");
    ASSERT_EQ(mkfifo(sPipe.c_str(), 0600), 0);
    EXPECT_EQ(Read(sPipe, 0, 4), "-1+");
    EXPECT_EQ(Write(sPipe, 0, "data"), -1);
    EXPECT_TRUE(m_utilities.NewFile(&m_param, &m_argu, sPipe.c_str()));
}

TEST_F(UtilitiesFiles, WriteFile_FullFileSystem_WritesWhatFitsThenFails)
{
    const std::string sMount = m_folder.Path("small");
    std::filesystem::create_directory(sMount);
    ASSERT_EQ(mount("tmpfs", sMount.c_str(), "tmpfs", 0, "size=64k"), 0);
    const std::string sFile = m_folder.Write("small/file", "");
    SetBits(LOG_CONTROL_ERROR);
    const int iWritten = Write(sFile, 0, std::string(100000, 'x'));
    EXPECT_GT(iWritten, 0);
    EXPECT_LE(iWritten, 65536);
    EXPECT_EQ(Write(sFile, static_cast<unsigned long long>(iWritten), "data"), -1);
    EXPECT_TRUE(m_recorder.Contains("Error=No space left on device (28)"));
    EXPECT_EQ(std::filesystem::file_size(sFile), static_cast<unsigned long long>(iWritten));
    m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu);
    EXPECT_EQ(umount(sMount.c_str()), 0);
}

// ---- Removing ----

TEST_F(UtilitiesFiles, RemoveFile_ClosesAndRemovesIt)
{
    const std::string sFile = m_folder.Write("file", "text");
    const unsigned int iID = GetID(sFile);
    GetCached(sFile);
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_TRUE(m_utilities.RemoveFile(&m_param, &m_argu, sFile.c_str()));
    EXPECT_EQ(m_recorder.Lines(),
              MakeLines({"Remove file, path=" + sFile, "OS close file " + Quote(sFile),
                         "OS remove file " + Quote(sFile)}));
    EXPECT_FALSE(std::filesystem::exists(sFile));
    EXPECT_EQ(GetPath(iID), sFile);  // its number stays its own
}

TEST_F(UtilitiesFiles, RemoveFile_Impossible_Fails)
{
    m_folder.Write("file", "");
    std::filesystem::create_directory(m_folder.Path("sub"));
    m_folder.Write("sub/file", "");
    SetBits(LOG_CONTROL_ERROR);
    EXPECT_FALSE(m_utilities.RemoveFile(&m_param, &m_argu, m_folder.Path("missing").c_str()));
    EXPECT_FALSE(m_utilities.RemoveFile(&m_param, &m_argu, m_folder.Path("sub").c_str()));
    EXPECT_TRUE(m_recorder.Contains("Error=No such file or directory (2)"));
    EXPECT_TRUE(m_recorder.Contains("Error=Directory not empty (39)"));
}

TEST_F(UtilitiesFiles, NothingRedirected_TellsTheHostNothing)
{
    const std::string sFile = m_folder.Write("file", "text");
    GetID(sFile);
    Write(sFile, 0, "data");
    m_utilities.UpdateFileAttributes(&m_param, &m_argu, sFile.c_str(), true, 0600, true, 0, true, 0,
                                     true, 3, true, 5, 6, true, 7, 8);
    m_utilities.RenameFile(&m_param, &m_argu, sFile.c_str(), m_folder.Path("to").c_str());
    m_utilities.RemoveFile(&m_param, &m_argu, m_folder.Path("to").c_str());
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}

// ---- Renaming ----

class UtilitiesFilesRename : public UtilitiesFiles {
protected:
    bool Rename()
    {
        return m_utilities.RenameFile(&m_param, &m_argu, m_sFrom.c_str(), m_sTo.c_str());
    }

    const std::string m_sFrom = m_folder.Path("from");
    const std::string m_sTo = m_folder.Path("to");
};

TEST_F(UtilitiesFilesRename, KnownFile_MovesWithItsNumber)
{
    m_folder.Write("from", "text");
    const unsigned int iID = GetID(m_sFrom);
    GetCached(m_sFrom);
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_TRUE(Rename());
    EXPECT_EQ(m_recorder.Lines(),
              MakeLines({"Rename file, pathFrom=" + m_sFrom + ", pathTo=" + m_sTo,
                         "OS close file " + Quote(m_sFrom),
                         "OS rename file from " + Quote(m_sFrom) + " to " + Quote(m_sTo)}));
    EXPECT_FALSE(std::filesystem::exists(m_sFrom));
    EXPECT_EQ(ReadWholeFile(m_sTo), "text");
    EXPECT_EQ(GetPath(iID), m_sTo);
    EXPECT_EQ(GetID(m_sTo), iID);
}

TEST_F(UtilitiesFilesRename, ExistingTarget_IsRemovedFirst)
{
    m_folder.Write("from", "new");
    m_folder.Write("to", "old");
    const unsigned int iFrom = GetID(m_sFrom);
    const unsigned int iTo = GetID(m_sTo);
    GetCached(m_sTo);
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_TRUE(Rename());
    EXPECT_EQ(m_recorder.Lines(),
              MakeLines({"Rename file, pathFrom=" + m_sFrom + ", pathTo=" + m_sTo,
                         "Remove file, path=" + m_sTo, "OS close file " + Quote(m_sTo),
                         "OS remove file " + Quote(m_sTo),
                         "OS rename file from " + Quote(m_sFrom) + " to " + Quote(m_sTo)}));
    EXPECT_EQ(Read(m_sTo, 0, 10), "new+");  // not through the old descriptor
    EXPECT_EQ(GetPath(iFrom), m_sTo);
    EXPECT_EQ(GetPath(iTo), m_sTo);
}

TEST_F(UtilitiesFilesRename, FileWithoutANumber_IsMovedAndReportedAsFailed)
{
    m_folder.Write("from", "text");
    EXPECT_FALSE(Rename());
    EXPECT_FALSE(std::filesystem::exists(m_sFrom));
    EXPECT_EQ(ReadWholeFile(m_sTo), "text");
}

TEST_F(UtilitiesFilesRename, TargetCannotBeRemoved_FailsBeforeTheMove)
{
    m_folder.Write("from", "text");
    const unsigned int iID = GetID(m_sFrom);
    std::filesystem::create_directory(m_sTo);
    m_folder.Write("to/file", "");
    SetBits(LOG_CONTROL_ERROR);
    EXPECT_FALSE(Rename());
    EXPECT_EQ(m_recorder.Lines(), Lines{"error|host|[Test] OS remove file " + Quote(m_sTo) +
                                        ". Error=Directory not empty (39)"});
    EXPECT_EQ(ReadWholeFile(m_sFrom), "text");
    EXPECT_EQ(GetPath(iID), m_sFrom);
}

TEST_F(UtilitiesFilesRename, SystemRefuses_FailsAndKeepsTheNumber)
{
    m_folder.Write("from", "text");
    const unsigned int iID = GetID(m_sFrom);
    const std::string sTo = m_folder.Path("missing/to");
    SetBits(LOG_CONTROL_ERROR);
    EXPECT_FALSE(m_utilities.RenameFile(&m_param, &m_argu, m_sFrom.c_str(), sTo.c_str()));
    EXPECT_TRUE(m_recorder.Contains("OS rename file from " + Quote(m_sFrom) + " to " + Quote(sTo) +
                                    ". Error=No such file or directory (2)"));
    EXPECT_EQ(ReadWholeFile(m_sFrom), "text");
    EXPECT_EQ(GetPath(iID), m_sFrom);
}

TEST_F(UtilitiesFilesRename, SourceIsGone_OnlyTheNumberMoves)
{
    m_folder.Write("from", "text");
    const unsigned int iID = GetID(m_sFrom);
    std::filesystem::remove(m_sFrom);
    EXPECT_TRUE(Rename());
    EXPECT_EQ(GetPath(iID), m_sTo);
    EXPECT_FALSE(std::filesystem::exists(m_sTo));
    EXPECT_FALSE(Rename());  // and now it has none any more
}

TEST_F(UtilitiesFilesRename, SourceIsGone_KeepsTheTarget)
{
    const unsigned int iID = GetID(m_folder.Write("from", "text"));
    m_folder.Write("to", "old");
    std::filesystem::remove(m_sFrom);
    EXPECT_TRUE(Rename());
    EXPECT_EQ(ReadWholeFile(m_sTo), "old");
    EXPECT_EQ(GetPath(iID), m_sTo);
}

TEST_F(UtilitiesFilesRename, OntoItself_KeepsTheFile)
{
    m_folder.Write("from", "text");
    const unsigned int iID = GetID(m_sFrom);
    GetCached(m_sFrom);
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_TRUE(m_utilities.RenameFile(&m_param, &m_argu, m_sFrom.c_str(), m_sFrom.c_str()));
    EXPECT_EQ(m_recorder.Lines(),
              MakeLines({"Rename file, pathFrom=" + m_sFrom + ", pathTo=" + m_sFrom}));
    EXPECT_EQ(ReadWholeFile(m_sFrom), "text");
    EXPECT_EQ(GetPath(iID), m_sFrom);
}

// Two names of one file: to the system they are renamed already, and neither is removed.
TEST_F(UtilitiesFilesRename, OntoAnotherNameOfTheSameFile_RemovesNeither)
{
    m_folder.Write("from", "text");
    ASSERT_EQ(link(m_sFrom.c_str(), m_sTo.c_str()), 0);
    const unsigned int iID = GetID(m_sFrom);
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_TRUE(Rename());
    EXPECT_EQ(m_recorder.Lines(),
              MakeLines({"Rename file, pathFrom=" + m_sFrom + ", pathTo=" + m_sTo,
                         "OS rename file from " + Quote(m_sFrom) + " to " + Quote(m_sTo)}));
    EXPECT_EQ(ReadWholeFile(m_sFrom), "text");
    EXPECT_EQ(ReadWholeFile(m_sTo), "text");
    EXPECT_EQ(GetPath(iID), m_sTo);
}

// No rename leads there, so nothing may be removed for it.
TEST_F(UtilitiesFilesRename, OntoAnotherFileSystem_FailsAndKeepsBoth)
{
    const std::string sMount = m_folder.Path("mount");
    std::filesystem::create_directory(sMount);
    ASSERT_EQ(mount("tmpfs", sMount.c_str(), "tmpfs", 0, "size=64k"), 0);
    m_folder.Write("from", "text");
    const std::string sTo = m_folder.Write("mount/to", "old");
    const unsigned int iFrom = GetID(m_sFrom);
    SetBits(LOG_CONTROL_ERROR | LOG_CONTROL_FILE_ACCESS);
    EXPECT_FALSE(m_utilities.RenameFile(&m_param, &m_argu, m_sFrom.c_str(), sTo.c_str()));
    EXPECT_EQ(m_recorder.Lines(),
              (Lines{"info|host|[Test] Rename file, pathFrom=" + m_sFrom + ", pathTo=" + sTo,
                     "error|host|[Test] OS rename file from " + Quote(m_sFrom) + " to " +
                         Quote(sTo) + ". Error=Invalid cross-device link (18)"}));
    EXPECT_EQ(ReadWholeFile(m_sFrom), "text");
    EXPECT_EQ(ReadWholeFile(sTo), "old");
    EXPECT_EQ(GetPath(iFrom), m_sFrom);
    EXPECT_EQ(umount2(sMount.c_str(), MNT_DETACH), 0);
}

TEST_F(UtilitiesFilesRename, OntoALinkToTheFile_ReplacesTheLink)
{
    m_folder.Write("from", "text");
    std::filesystem::create_symlink("from", m_sTo);
    GetID(m_sFrom);
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_TRUE(Rename());
    EXPECT_TRUE(m_recorder.Contains("OS remove file " + Quote(m_sTo)));
    EXPECT_FALSE(std::filesystem::is_symlink(m_sTo));
    EXPECT_EQ(ReadWholeFile(m_sTo), "text");
    EXPECT_FALSE(std::filesystem::exists(m_sFrom));
}

TEST_F(UtilitiesFilesRename, Folder_MovesWithItsContents)
{
    std::filesystem::create_directory(m_sFrom);
    m_folder.Write("from/file", "text");
    GetID(m_sFrom);
    EXPECT_TRUE(Rename());
    EXPECT_EQ(ReadWholeFile(m_sTo + "/file"), "text");
}

TEST_F(UtilitiesFilesRename, Folder_ClosesWhatIsOpenBelowBothNames)
{
    std::filesystem::create_directories(m_sFrom + "/sub");
    m_folder.Write("from/sub/file", "text");
    m_folder.Write("from2", "neighbour");
    GetID(m_sFrom);
    std::filesystem::create_directory(m_sTo);
    m_folder.Write("to/stale", "stale");
    GetCached(m_sFrom + "/sub/file");
    GetCached(m_sTo + "/stale");
    GetCached(m_folder.Path("from2"));
    std::filesystem::remove(m_sTo + "/stale");
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_TRUE(Rename());
    EXPECT_EQ(
        m_recorder.Lines(),
        (Lines{"info|host|[Test] Rename file, pathFrom=" + m_sFrom + ", pathTo=" + m_sTo,
               "info|host|[Test] Remove file, path=" + m_sTo,
               "info|host|[Test] OS remove file " + Quote(m_sTo),
               "info|host|[Test] OS close file " + Quote(m_sFrom + "/sub/file"),
               "info|host|[Test] OS close file " + Quote(m_sTo + "/stale"),
               "info|host|[Test] OS rename file from " + Quote(m_sFrom) + " to " + Quote(m_sTo)}));
    EXPECT_EQ(CountDescriptors(), m_iDescriptors + 1);  // the neighbour's
}

TEST_F(UtilitiesFilesRename, Folder_TakesTheNumbersBelowItAlong)
{
    std::filesystem::create_directories(m_sFrom + "/sub");
    m_folder.Write("from/sub/file", "text");
    m_folder.Write("from2", "neighbour");
    const unsigned int iFolder = GetID(m_sFrom);
    const unsigned int iSub = GetID(m_sFrom + "/sub");
    const unsigned int iFile = GetID(m_sFrom + "/sub/file");
    const unsigned int iNeighbour = GetID(m_folder.Path("from2"));
    EXPECT_TRUE(Rename());
    EXPECT_EQ(GetPath(iFolder), m_sTo);
    EXPECT_EQ(GetPath(iSub), m_sTo + "/sub");
    EXPECT_EQ(GetPath(iFile), m_sTo + "/sub/file");
    EXPECT_EQ(GetPath(iNeighbour), m_folder.Path("from2"));
}

TEST_F(UtilitiesFilesRename, FolderWithoutANumber_IsReportedAsFailedButTakesNumbersBelowItAlong)
{
    std::filesystem::create_directory(m_sFrom);
    const unsigned int iFile = GetID(m_folder.Write("from/file", "text"));
    EXPECT_FALSE(Rename());
    EXPECT_EQ(ReadWholeFile(m_sTo + "/file"), "text");
    EXPECT_EQ(GetPath(iFile), m_sTo + "/file");
}

// A file has nothing below it: what once was there, when it was a folder, stays what it was.
TEST_F(UtilitiesFilesRename, File_LeavesNumbersBelowItAlone)
{
    std::filesystem::create_directory(m_sFrom);
    const unsigned int iBelow = GetID(m_folder.Write("from/file", ""));
    std::filesystem::remove_all(m_sFrom);
    m_folder.Write("from", "text");
    GetID(m_sFrom);
    EXPECT_TRUE(Rename());
    EXPECT_EQ(GetPath(iBelow), m_sFrom + "/file");
}

TEST_F(UtilitiesFilesRename, FolderThatCannotBeMoved_KeepsItsNumbers)
{
    std::filesystem::create_directory(m_sFrom);
    const unsigned int iFolder = GetID(m_sFrom);
    const unsigned int iFile = GetID(m_folder.Write("from/file", "text"));
    const std::string sTo = m_folder.Path("missing/to");
    EXPECT_FALSE(m_utilities.RenameFile(&m_param, &m_argu, m_sFrom.c_str(), sTo.c_str()));
    EXPECT_EQ(GetPath(iFolder), m_sFrom);
    EXPECT_EQ(GetPath(iFile), m_sFrom + "/file");
}

TEST_F(UtilitiesFilesRename, FolderIntoItself_FailsAndKeepsWhatIsThere)
{
    std::filesystem::create_directories(m_sFrom + "/empty");
    const unsigned int iFile = GetID(m_folder.Write("from/file", "text"));
    GetID(m_sFrom);
    SetBits(LOG_CONTROL_ERROR);
    for (const char* pcName : {"/file", "/empty", "/new"}) {
        const std::string sTo = m_sFrom + pcName;
        EXPECT_FALSE(m_utilities.RenameFile(&m_param, &m_argu, m_sFrom.c_str(), sTo.c_str()));
    }
    EXPECT_EQ(m_recorder.Count("Error=Invalid argument (22)"), 3U);
    EXPECT_EQ(ReadWholeFile(m_sFrom + "/file"), "text");
    EXPECT_TRUE(std::filesystem::is_directory(m_sFrom + "/empty"));
    EXPECT_EQ(GetPath(iFile), m_sFrom + "/file");
}

TEST_F(UtilitiesFilesRename, SeveralNumbersOfOnePath_AllMove)
{
    const unsigned int iFirst = GetID(m_folder.Write("first", "1"));
    const unsigned int iFrom = GetID(m_folder.Write("from", "2"));
    ASSERT_TRUE(
        m_utilities.RenameFile(&m_param, &m_argu, m_folder.Path("first").c_str(), m_sFrom.c_str()));
    EXPECT_TRUE(Rename());
    EXPECT_EQ(GetPath(iFirst), m_sTo);
    EXPECT_EQ(GetPath(iFrom), m_sTo);
    EXPECT_EQ(GetID(m_folder.Write("from", "3")), iFrom + 1);
}

// The host may have removed the target while its descriptor was kept.
TEST_F(UtilitiesFilesRename, DescriptorOfATargetThatIsGone_IsNotReadAfterwards)
{
    m_folder.Write("from", "new");
    m_folder.Write("to", "old");
    GetID(m_sFrom);
    EXPECT_EQ(Read(m_sTo, 0, 10), "old+");
    std::filesystem::remove(m_sTo);
    EXPECT_TRUE(Rename());
    EXPECT_EQ(Read(m_sTo, 0, 10), "new+");
}

TEST_F(UtilitiesFilesRename, FolderOntoAFile_AndFileOntoAnEmptyFolder_ReplaceIt)
{
    std::filesystem::create_directory(m_sFrom);
    m_folder.Write("from/file", "text");
    m_folder.Write("to", "old");
    GetID(m_sFrom);
    EXPECT_TRUE(Rename());
    EXPECT_EQ(ReadWholeFile(m_sTo + "/file"), "text");

    const std::string sFile = m_folder.Write("other", "new");
    std::filesystem::create_directory(m_sFrom);
    GetID(sFile);
    EXPECT_TRUE(m_utilities.RenameFile(&m_param, &m_argu, sFile.c_str(), m_sFrom.c_str()));
    EXPECT_EQ(ReadWholeFile(m_sFrom), "new");
}

// ---- Attributes ----

class UtilitiesFilesAttributes : public UtilitiesFiles {
protected:
    bool Update(bool bMode, unsigned int iMode, bool bOthers, bool bSize, unsigned long long iSize)
    {
        return m_utilities.UpdateFileAttributes(&m_param, &m_argu, m_sFile.c_str(), bMode, iMode,
                                                bOthers, 11, bOthers, 12, bSize, iSize, bOthers, 13,
                                                14, bOthers, 15, 16);
    }
    struct stat GetStat() const
    {
        struct stat info = {};
        EXPECT_EQ(stat(m_sFile.c_str(), &info), 0);
        return info;
    }

    const std::string m_sFile = m_folder.Write("file", "0123456789");
};

TEST_F(UtilitiesFilesAttributes, OwnerGroupAndTimes_AreAcceptedWithoutEffect)
{
    GetCached(m_sFile);
    const struct stat before = GetStat();
    SetBits(0x3FF & ~LOG_CONTROL_FILE_ACCESS);
    EXPECT_TRUE(Update(false, 0777, true, false, 3));
    EXPECT_EQ(m_recorder.Lines(), Lines{});
    const struct stat after = GetStat();
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_size, before.st_size);
    EXPECT_EQ(after.st_atim.tv_sec, before.st_atim.tv_sec);
    EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
    EXPECT_EQ(CountDescriptors(), m_iDescriptors + 1);  // still cached
}

TEST_F(UtilitiesFilesAttributes, EachFlag_IsWrittenBesideItsValue)
{
    SetBits(LOG_CONTROL_FILE_ACCESS);
    const std::string sStart = "Update file attributes, path=" + m_sFile + ", ";
    EXPECT_TRUE(Update(false, 0640, true, false, 5000000000));
    EXPECT_TRUE(Update(true, 0640, false, true, 10));
    EXPECT_EQ(m_recorder.Lines(),
              MakeLines({sStart + "set_mode=0, mode=416, set_uid=1, uid=11, set_gid=1, gid=12, "
                                  "set_size=0, size=5000000000, set_atime=1, atime.sec=13, "
                                  "atime.nsec=14, set_mtime=1, mtime.sec=15, mtime.nsec=16",
                         sStart + "set_mode=1, mode=416, set_uid=0, uid=11, set_gid=0, gid=12, "
                                  "set_size=1, size=10, set_atime=0, atime.sec=13, "
                                  "atime.nsec=14, set_mtime=0, mtime.sec=15, mtime.nsec=16",
                         "OS set file mode " + Quote(m_sFile) + " (mode = 416)"}));
}

TEST_F(UtilitiesFilesAttributes, NoFlagAtAll_SucceedsEvenForAMissingFile)
{
    std::filesystem::remove(m_sFile);
    EXPECT_TRUE(Update(false, 0, false, false, 0));
    EXPECT_TRUE(Update(false, 0, true, false, 0));
    EXPECT_FALSE(std::filesystem::exists(m_sFile));
}

TEST_F(UtilitiesFilesAttributes, Mode_IsSetAndTheDescriptorClosed)
{
    GetCached(m_sFile);
    EXPECT_TRUE(Update(true, 04711, false, false, 3));
    EXPECT_EQ(GetStat().st_mode & 07777, 04711U);
    EXPECT_EQ(GetStat().st_size, 10);
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
}

TEST_F(UtilitiesFilesAttributes, Size_IsSetAndTheDescriptorClosed)
{
    const mode_t iMode = GetStat().st_mode;
    GetCached(m_sFile);
    EXPECT_TRUE(Update(false, 0, false, true, 3));
    EXPECT_EQ(ReadWholeFile(m_sFile), "012");
    EXPECT_EQ(GetStat().st_mode, iMode);
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
    EXPECT_TRUE(Update(false, 0, false, true, 0x100000000));
    EXPECT_EQ(GetStat().st_size, 0x100000000);
}

TEST_F(UtilitiesFilesAttributes, ModeAndSize_AreSetInThisOrder)
{
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_TRUE(Update(true, 0640, false, true, 3));
    const Lines vLines = m_recorder.Lines();
    ASSERT_EQ(vLines.size(), 3U);
    EXPECT_EQ(Lines(vLines.begin() + 1, vLines.end()),
              MakeLines({"OS set file mode " + Quote(m_sFile) + " (mode = 416)",
                         "OS set file file " + Quote(m_sFile)}));
}

TEST_F(UtilitiesFilesAttributes, FailedMode_FailsBeforeTheSize)
{
    std::filesystem::remove(m_sFile);
    EXPECT_FALSE(Update(true, 0640, false, true, 3));
    EXPECT_FALSE(std::filesystem::exists(m_sFile));  // setting the size would have created it
}

TEST_F(UtilitiesFilesAttributes, FailedSize_Fails)
{
    EXPECT_FALSE(Update(false, 0, false, true, BEHIND_ALL));
    EXPECT_FALSE(Update(true, 0640, false, true, BEHIND_ALL));
    EXPECT_EQ(GetStat().st_mode & 07777, 0640U);  // which came first
    EXPECT_EQ(GetStat().st_size, 10);
}
