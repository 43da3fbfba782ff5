// The table of redirected files, and what becomes of file operations on their paths.
#include "Utilities.h"

#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <future>
#include <sys/stat.h>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "RedirectedFileFixture.h"

namespace {

constexpr unsigned long long BEHIND_ALL = 0x8000000000000000ULL;  // negative for the system

// A host that, once it is told that an export wrote its first piece, lets another thread do
// something and waits for it.
class CMeddler : public CLogRecorder {
public:
    explicit CMeddler(std::function<void()> action) : m_Action(std::move(action)) {}

    bool LogInfo(const char* pcID, const char* pcMessage) override
    {
        if (strstr(pcMessage, "] Write ox:0,") != nullptr) {
            m_Done = std::async(std::launch::async, m_Action);
            m_iUnhindered += m_Done.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
        }
        return CLogRecorder::LogInfo(pcID, pcMessage);
    }

    int CountUnhindered() const { return m_iUnhindered; }

private:
    const std::function<void()> m_Action;
    std::future<void> m_Done;
    int m_iUnhindered = 0;
};

class UtilitiesRedirected : public CRedirectedFileFixture {
protected:
    // Opens a redirected file of 100 bytes, whose first 26 are letters, at a placeholder.
    CRedirectedFile* Open(const std::string& sPath, bool bIndex = false, long long iSize = 100)
    {
        m_folder.Write(std::filesystem::relative(sPath, m_folder.Path()), "");
        CRedirectedFile* pFile =
            m_utilities.OpenRedirectedFile(&m_param, sPath.c_str(), iSize, bIndex, 1, 1);
        EXPECT_TRUE(AddTo(sPath, m_sLetters, 0, 0, 26));
        return pFile;
    }
    bool AddTo(const std::string& sPath, const std::string& sSource, long long iSourceOffset,
               long long iOffset, long long iLength)
    {
        return m_utilities.AddRedirectedFileSegment(&m_param, sPath.c_str(), sSource.c_str(),
                                                    iSourceOffset, iOffset, iLength, nullptr);
    }
    void Close(const std::string& sPath)
    {
        m_utilities.CloseRedirectedFile(&m_param, sPath.c_str());
    }
    void Rename(const std::string& sFrom, const std::string& sTo)
    {
        m_utilities.RenameRedirectedFile(&m_param, sFrom.c_str(), sTo.c_str());
    }
    std::shared_ptr<CRedirectedFile> Find(const std::string& sPath)
    {
        return m_utilities.GetRedirectedFile(sPath.c_str());
    }
    bool IsOpen(const std::string& sPath) { return Find(sPath) != nullptr; }

    // As CRedirectedFileFixture::Read, of the file at a path.
    std::string ReadAt(const std::string& sPath, unsigned long long iSeek, unsigned int iLength,
                       int iSeekType = SEEK_SET)
    {
        std::string sText(iLength, '\xA5');
        bool bEof = false;
        const int iRead = m_utilities.ReadFile(&m_param, &m_argu, sPath.c_str(), iSeek, iSeekType,
                                               sText.data(), iLength, &bEof);
        sText = iRead < 0 ? std::to_string(iRead) : sText.substr(0, static_cast<size_t>(iRead));
        std::replace(sText.begin(), sText.end(), '\0', '.');
        return sText + (bEof ? "+" : "");
    }
    int WriteAt(const std::string& sPath, unsigned long long iSeek, const std::string& sText,
                int iSeekType = SEEK_SET)
    {
        return m_utilities.WriteFile(&m_param, &m_argu, sPath.c_str(), iSeek, iSeekType,
                                     sText.data(), static_cast<unsigned int>(sText.length()));
    }
    long long GetSize(const std::string& sPath)
    {
        return m_utilities.GetFileSize(&m_param, &m_argu, sPath.c_str(), -7);
    }
    bool RemoveFile(const std::string& sPath)
    {
        return m_utilities.RemoveFile(&m_param, &m_argu, sPath.c_str());
    }
    bool RenameFile(const std::string& sFrom, const std::string& sTo)
    {
        return m_utilities.RenameFile(&m_param, &m_argu, sFrom.c_str(), sTo.c_str());
    }

    const std::string m_sDisk = m_folder.Path("disk");
    const std::string m_sOther = m_folder.Path("other");
};

}  // namespace

// ---- The table ----

TEST_F(UtilitiesRedirected, Open_IsFoundUnderItsPath)
{
    CRedirectedFile* pFile = Open(m_sDisk);
    EXPECT_EQ(Find(m_sDisk).get(), pFile);
    EXPECT_EQ(pFile->GetFileSize(), 100);
    EXPECT_FALSE(IsOpen(m_sOther));
    EXPECT_FALSE(IsOpen(m_sDisk + "/"));
    EXPECT_FALSE(IsOpen(""));
    EXPECT_FALSE(IsOpen(m_folder.Path()));
}

TEST_F(UtilitiesRedirected, Open_NeedsNoPlaceholder)
{
    m_utilities.OpenRedirectedFile(&m_param, m_sDisk.c_str(), 100, true, 0, 0);
    EXPECT_TRUE(AddTo(m_sDisk, m_sLetters, 0, 0, 26));
    EXPECT_EQ(ReadAt(m_sDisk, 0, 3), "abc");
    EXPECT_FALSE(std::filesystem::exists(m_sDisk));
}

// Kept: an id is the number of open files, so it can come twice.
TEST_F(UtilitiesRedirected, Open_CountsTheOpenFilesForTheId)
{
    SetBits(LOG_CONTROL_REDIRECT_FILE);
    const auto OpenOnly = [this](const std::string& sPath, bool bIndex) {
        m_utilities.OpenRedirectedFile(&m_param, sPath.c_str(), 100, bIndex, 0, 0);
    };
    OpenOnly("/a", false);
    OpenOnly("/b", true);
    OpenOnly("/c", false);
    OpenOnly("/b", true);  // in the place of the one before
    Close("/a");
    OpenOnly("/d", false);
    EXPECT_EQ(m_recorder.Lines(), MakeLines("RedirectedFile.Open",
                                            {"id=0, size=100 (path=)", "id=1, size=100 (path=/b)",
                                             "id=2, size=100 (path=)", "id=2, size=100 (path=/b)",
                                             "id=2, size=100 (path=)"}));
}

TEST_F(UtilitiesRedirected, Open_WithIndex_UsesThePlaceholder)
{
    Open(m_sDisk, true, 10 * MIB);
    EXPECT_TRUE(AddTo(m_sDisk, m_sDigits, 0, 2 * MIB - 5, MIB));
    EXPECT_EQ(ReadRecords(m_sDisk), (Lines{"0 0 0 26", "1 0 2097147 5", "1 5 2097152 1048571"}));
    Open(m_sOther, false, 10 * MIB);
    EXPECT_EQ(ReadRecords(m_sOther), Lines{});
}

TEST_F(UtilitiesRedirected, Open_SamePathAgain_ReplacesAndCloses)
{
    const std::shared_ptr<CRedirectedFile> pOld = (Open(m_sDisk), Find(m_sDisk));
    EXPECT_EQ(ReadAt(m_sDisk, 0, 3), "abc");
    EXPECT_EQ(CountDescriptors(), m_iDescriptors + 1);
    m_utilities.OpenRedirectedFile(&m_param, m_sDisk.c_str(), 50, false, 0, 0);
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
    EXPECT_NE(Find(m_sDisk), pOld);
    EXPECT_EQ(GetSize(m_sDisk), 50);
    EXPECT_EQ(ReadAt(m_sDisk, 0, 3), "...");
    EXPECT_EQ(ReadFrom(pOld.get(), &m_param, 0, 3), "...");
}

TEST_F(UtilitiesRedirected, Close_ClosesOnlyThisOne)
{
    Open(m_sDisk, true);
    Open(m_sOther);
    EXPECT_EQ(ReadAt(m_sDisk, 0, 3), "abc");
    EXPECT_EQ(CountDescriptors(), m_iDescriptors + 2);
    Close(m_sDisk);
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
    EXPECT_FALSE(IsOpen(m_sDisk));
    EXPECT_EQ(ReadAt(m_sOther, 0, 3), "abc");
    EXPECT_EQ(GetSize(m_sDisk), 32);  // the index file, which is a plain one now
}

// A reader keeps the object beyond its closing, and gets zeros from then on.
TEST_F(UtilitiesRedirected, Close_LeavesTheObjectToItsReader)
{
    for (const bool bIndex : {false, true}) {
        Open(m_sDisk, bIndex);
        const std::shared_ptr<CRedirectedFile> pReader = Find(m_sDisk);
        EXPECT_EQ(ReadFrom(pReader.get(), &m_param, 0, 3), "abc");
        Close(m_sDisk);
        EXPECT_EQ(CountDescriptors(), m_iDescriptors);
        EXPECT_EQ(ReadFrom(pReader.get(), &m_param, 0, 3), "...");
        EXPECT_EQ(ReadFrom(pReader.get(), &m_param, 98, 5), "..+");
        EXPECT_EQ(pReader->GetFileSize(), 100);
        EXPECT_EQ(CountDescriptors(), m_iDescriptors);
    }
}

TEST_F(UtilitiesRedirected, UnknownPaths_AreIgnored)
{
    m_folder.Write("target", "old");
    SetBits(0x3FF & ~LOG_CONTROL_GENERAL_INFO);
    Close(m_sDisk);
    Rename(m_sDisk, m_sOther);
    EXPECT_FALSE(AddTo(m_sDisk, m_sLetters, 0, 0, 26));
    m_utilities.ExportRedirectedFile(&m_param, m_sDisk.c_str(), m_folder.Path("target").c_str());
    m_utilities.ExportRedirectedFileInfo(&m_param, m_sDisk.c_str(), m_folder.Path("target").c_str(),
                                         true);
    m_utilities.CloseAllRedirectedFiles(&m_param, m_sDisk.c_str());
    m_utilities.CloseAllRedirectedFiles(&m_param);
    EXPECT_EQ(ReadWholeFile(m_folder.Path("target")), "old");
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(UtilitiesRedirected, CloseAllBelow_ClosesTheFolderAndWhatIsBelow)
{
    for (const char* pcPath : {"/a/b", "/a/b/c", "/a/bc", "/a", "/a/b/c/d"})
        m_utilities.OpenRedirectedFile(&m_param, pcPath, 100, false, 0, 0);
    m_utilities.CloseAllRedirectedFiles(&m_param, "/a/b");
    EXPECT_TRUE(IsOpen("/a"));
    EXPECT_TRUE(IsOpen("/a/bc"));
    EXPECT_FALSE(IsOpen("/a/b"));
    EXPECT_FALSE(IsOpen("/a/b/c"));
    EXPECT_FALSE(IsOpen("/a/b/c/d"));
    m_utilities.CloseAllRedirectedFiles(&m_param, "/");
    EXPECT_FALSE(IsOpen("/a"));
}

TEST_F(UtilitiesRedirected, CloseAllBelow_ClosesTheirDescriptors)
{
    std::filesystem::create_directory(m_folder.Path("sub"));
    Open(m_folder.Path("sub/disk"), true);
    const std::shared_ptr<CRedirectedFile> pReader = Find(m_folder.Path("sub/disk"));
    EXPECT_EQ(ReadAt(m_folder.Path("sub/disk"), 0, 3), "abc");
    EXPECT_EQ(CountDescriptors(), m_iDescriptors + 2);
    m_utilities.CloseAllRedirectedFiles(&m_param, (m_folder.Path("sub") + "/").c_str());
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
    EXPECT_EQ(ReadFrom(pReader.get(), &m_param, 0, 3), "...");
}

// After each one that is closed the comparisons start anew.
TEST_F(UtilitiesRedirected, CloseAllBelow_WritesEachComparison)
{
    for (const char* pcPath : {"/a", "/a/b", "/a/b/c", "/a/bc"})
        m_utilities.OpenRedirectedFile(&m_param, pcPath, 100, false, 0, 0);
    SetBits(LOG_CONTROL_GENERAL_INFO);
    m_utilities.CloseAllRedirectedFiles(&m_param, "/a/b");
    EXPECT_EQ(
        m_recorder.Lines(),
        MakeLines("CloseAllRedirectedFiles",
                  {"Path compare: \"/a/b/\" vs \"/a/\"", "Path compare: \"/a/b/\" vs \"/a/b/\"",
                   "Path compare: \"/a/b/\" vs \"/a/\"", "Path compare: \"/a/b/\" vs \"/a/b/c/\"",
                   "Path compare: \"/a/b/\" vs \"/a/\"", "Path compare: \"/a/b/\" vs \"/a/bc/\""}));
    EXPECT_TRUE(IsOpen("/a"));
    EXPECT_TRUE(IsOpen("/a/bc"));
    EXPECT_FALSE(IsOpen("/a/b"));
    EXPECT_FALSE(IsOpen("/a/b/c"));
}

TEST_F(UtilitiesRedirected, CloseAll_ClosesEveryOne)
{
    Open(m_sDisk, true);
    Open(m_sOther);
    const std::shared_ptr<CRedirectedFile> pReader = Find(m_sDisk);
    EXPECT_EQ(ReadAt(m_sDisk, 0, 3), "abc");
    m_utilities.CloseAllRedirectedFiles(&m_param);
    EXPECT_FALSE(IsOpen(m_sDisk));
    EXPECT_FALSE(IsOpen(m_sOther));
    EXPECT_EQ(ReadFrom(pReader.get(), &m_param, 0, 3), "...");
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
}

TEST_F(UtilitiesRedirected, Reset_ClosesEveryOne)
{
    Open(m_sDisk, true);
    const std::shared_ptr<CRedirectedFile> pReader = Find(m_sDisk);
    EXPECT_EQ(ReadAt(m_sDisk, 0, 3), "abc");
    m_utilities.Reset(&m_param, &m_argu);
    EXPECT_FALSE(IsOpen(m_sDisk));
    EXPECT_EQ(ReadFrom(pReader.get(), &m_param, 0, 3), "...");
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
}

TEST_F(UtilitiesRedirected, Destructor_ClosesEveryOneSilently)
{
    {
        CUtilities utilities;
        utilities.SetCallback(&m_recorder);
        utilities.OpenRedirectedFile(&m_param, m_sDisk.c_str(), 100, false, 0, 0);
        utilities.AddRedirectedFileSegment(&m_param, m_sDisk.c_str(), m_sLetters.c_str(), 0, 0, 26,
                                           nullptr);
        char cBuffer[3];
        bool bEof = false;
        EXPECT_EQ(
            utilities.GetRedirectedFile(m_sDisk.c_str())->Read(&m_param, 0, cBuffer, 3, &bEof), 3);
        EXPECT_EQ(CountDescriptors(), m_iDescriptors + 1);
        SetBits(0x3FF);
    }
    EXPECT_EQ(m_recorder.Lines(), Lines{});
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
}

TEST_F(UtilitiesRedirected, AddSegment_AnswersAsTheFileDoes)
{
    char cReason[REASON_SIZE] = "untouched";
    Open(m_sDisk);
    EXPECT_TRUE(AddTo(m_sDisk, m_sDigits, 0, 99, 10));
    EXPECT_FALSE(m_utilities.AddRedirectedFileSegment(&m_param, m_sDisk.c_str(), m_sDigits.c_str(),
                                                      0, 100, 10, cReason));
    EXPECT_FALSE(m_utilities.AddRedirectedFileSegment(&m_param, m_sOther.c_str(), nullptr, 0, 0, 1,
                                                      cReason));
    EXPECT_TRUE(
        m_utilities.AddRedirectedFileSegment(&m_param, m_sDisk.c_str(), nullptr, 0, 0, 1, cReason));
    EXPECT_STREQ(cReason, "untouched");
    EXPECT_EQ(ReadAt(m_sDisk, 99, 10), "0+");
}

TEST_F(UtilitiesRedirected, Exports_GoToTheFile)
{
    Open(m_sDisk);
    const std::string sTarget = m_folder.Write("target", "");
    m_utilities.ExportRedirectedFile(&m_param, m_sDisk.c_str(), sTarget.c_str());
    EXPECT_EQ(ReadWholeFile(sTarget), "abcdefghijklmnopqrstuvwxyz" + std::string(74, '\0'));
    m_folder.Write("target", "");
    m_utilities.ExportRedirectedFileInfo(&m_param, m_sDisk.c_str(), sTarget.c_str(), false);
    EXPECT_EQ(ReadWholeFile(sTarget), "Segment path=" + m_sLetters + ", fox=0, ox=0, len=26\n");
    m_folder.Write("target", "");
    m_utilities.ExportRedirectedFileInfo(&m_param, m_sDisk.c_str(), sTarget.c_str(), true);
    EXPECT_EQ(ReadWholeFile(sTarget),
              "--> Merged Segment path=" + m_sLetters + ", fox=0, ox=0, len=26\n");
}

// ---- Moving a file in the table ----

TEST_F(UtilitiesRedirected, Rename_MovesTheObjectWithItsId)
{
    Open(m_sOther);
    CRedirectedFile* pFile = Open(m_sDisk);
    Rename(m_sDisk, "/moved");
    EXPECT_EQ(Find("/moved").get(), pFile);
    EXPECT_FALSE(IsOpen(m_sDisk));
    EXPECT_EQ(ReadAt("/moved", 0, 3), "abc");
    SetBits(LOG_CONTROL_REDIRECT_FILE);
    EXPECT_TRUE(AddTo("/moved", "", 0, 50, 1));
    EXPECT_TRUE(m_recorder.Contains("Reference src (1): Null"));
}

TEST_F(UtilitiesRedirected, Rename_ClosesWhatIsAtTheTarget)
{
    Open(m_sDisk);
    Open(m_sOther);
    const std::shared_ptr<CRedirectedFile> pReader = Find(m_sOther);
    const std::shared_ptr<CRedirectedFile> pMoved = Find(m_sDisk);
    Rename(m_sDisk, m_sOther);
    EXPECT_EQ(Find(m_sOther), pMoved);
    EXPECT_EQ(ReadFrom(pReader.get(), &m_param, 0, 3), "...");
    EXPECT_EQ(ReadAt(m_sOther, 0, 3), "abc");
}

// Kept: the target is closed before anybody looks for the source, also where both are one.
TEST_F(UtilitiesRedirected, Rename_OfNothingOrOntoItself_ClosesTheTarget)
{
    Open(m_sOther);
    Rename(m_sDisk, m_sOther);
    EXPECT_FALSE(IsOpen(m_sOther));
    Open(m_sOther);
    Rename(m_sOther, m_sOther);
    EXPECT_FALSE(IsOpen(m_sOther));
}

TEST_F(UtilitiesRedirected, Rename_InTheTableOnly_KeepsTheIndexWhereItIs)
{
    Open(m_sDisk, true);
    Rename(m_sDisk, "/moved");
    EXPECT_TRUE(AddTo("/moved", m_sDigits, 0, 26, 5));
    EXPECT_EQ(ReadRecords(m_sDisk), (Lines{"0 0 0 26", "1 0 26 5"}));
    EXPECT_EQ(ReadAt("/moved", 24, 5), "yz012");
}

// ---- Size and reads ----

TEST_F(UtilitiesRedirected, GetFileSize_IsTheHosts)
{
    Open(m_sDisk);
    EXPECT_EQ(GetSize(m_sDisk), 100);
    Open(m_sDisk, true, 8192 * GIB);
    EXPECT_EQ(GetSize(m_sDisk), 8192 * GIB);
    Close(m_sDisk);
    EXPECT_EQ(GetSize(m_sDisk), 32);
    EXPECT_EQ(GetSize(m_sOther), -7);
}

TEST_F(UtilitiesRedirected, ReadFile_IsTheFilesOwn)
{
    Open(m_sDisk);
    EXPECT_EQ(ReadAt(m_sDisk, 20, 10), "uvwxyz....");
    EXPECT_EQ(ReadAt(m_sDisk, 100, 10), "-1");
    EXPECT_EQ(ReadAt(m_sDisk, 95, 10), ".....+");
    EXPECT_EQ(ReadAt(m_sDisk, 100, 10), "+");
    EXPECT_EQ(ReadAt(m_sDisk, 5, 3, SEEK_END), "fgh");  // the kind of seek has no meaning here
    Close(m_sDisk);
    EXPECT_EQ(ReadAt(m_sDisk, 0, 10), "+");  // the placeholder is empty
}

TEST_F(UtilitiesRedirected, ReadFile_OffsetsThatNoFileHas_AreBehindTheEnd)
{
    Open(m_sDisk);
    for (const unsigned long long iSeek : {BEHIND_ALL - 1, BEHIND_ALL, BEHIND_ALL + 5, ULLONG_MAX})
        EXPECT_EQ(ReadAt(m_sDisk, iSeek, 10), "-1") << iSeek;
    EXPECT_EQ(ReadAt(m_sDisk, 90, 10), "..........+");
    for (const unsigned long long iSeek : {BEHIND_ALL - 1, BEHIND_ALL, BEHIND_ALL + 5, ULLONG_MAX})
        EXPECT_EQ(ReadAt(m_sDisk, iSeek, 10), "+") << iSeek;
}

TEST_F(UtilitiesRedirected, ReadFile_WritesItsLine)
{
    Open(m_sDisk);
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ(ReadAt(m_sDisk, 50, 3), "...");
    EXPECT_EQ(
        m_recorder.Lines(),
        (Lines{"info|host|[Test] Read file, path=" + m_sDisk + ", iSeek=50, iSeekType=0, length=3",
               "info|host|[RedirectedFile.Read] Eof=F, ox=53, size=100"}));
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}

// Whoever exports holds up those who change the table, but no reader and no writer.
TEST_F(UtilitiesRedirected, Export_LetsReadersAndWritersGoOn)
{
    Open(m_sDisk);
    Open(m_sOther);
    m_folder.Write("target", "");
    CMeddler host([this] {
        EXPECT_EQ(ReadAt(m_sDisk, 0, 3), "abc");
        EXPECT_EQ(ReadAt(m_sOther, 0, 3), "abc");
        EXPECT_EQ(WriteAt(m_sDisk, 0, "data"), 0);
        EXPECT_EQ(GetSize(m_sDisk), 100);
    });
    m_utilities.SetCallback(&host);
    CRuntimeParam exporter("exporter", LOG_CONTROL_REDIRECT_FILE);
    m_utilities.ExportRedirectedFile(&exporter, m_sDisk.c_str(), m_folder.Path("target").c_str());
    EXPECT_EQ(host.CountUnhindered(), 1);
    EXPECT_EQ(host.Notifications(), Lines{"write|host|" + m_sDisk + "|0|0|4"});
    m_utilities.SetCallback(&m_recorder);
}

// What clients do to other files, and to the target, does not wait for an export or show in it.
TEST_F(UtilitiesRedirected, Export_LetsRemovalsAndRenamesGoOn)
{
    const std::string sThird = m_folder.Path("third");
    const std::string sTarget = m_folder.Write("target", std::string(200, '-'));
    Open(m_sDisk, false, 70000);
    Open(m_sOther);
    Open(sThird);
    GetID(sThird);
    CMeddler host([&] {
        EXPECT_TRUE(m_utilities.RemoveFile(&m_param, &m_argu, m_sOther.c_str()));
        EXPECT_TRUE(m_utilities.RenameFile(&m_param, &m_argu, sThird.c_str(), m_sOther.c_str()));
        EXPECT_EQ(ReadAt(sTarget, 3, 5), "defgh");
        EXPECT_EQ(GetSize(sTarget), 65536);
    });
    m_utilities.SetCallback(&host);
    CRuntimeParam exporter("exporter", LOG_CONTROL_REDIRECT_FILE);
    m_utilities.ExportRedirectedFile(&exporter, m_sDisk.c_str(), sTarget.c_str());
    m_utilities.SetCallback(&m_recorder);
    EXPECT_EQ(host.CountUnhindered(), 1);
    EXPECT_EQ(ReadWholeFile(sTarget), "abcdefghijklmnopqrstuvwxyz" + std::string(69974, '\0'));
    EXPECT_EQ(GetSize(m_sOther), 100);
}

TEST_F(UtilitiesRedirected, Export_OfAFileThatAClientRemoves_Stops)
{
    const std::string sTarget = m_folder.Write("target", "");
    Open(m_sDisk, false, 1'000'000'000);
    CMeddler host([&] { EXPECT_TRUE(m_utilities.RemoveFile(&m_param, &m_argu, m_sDisk.c_str())); });
    m_utilities.SetCallback(&host);
    CRuntimeParam exporter("exporter", LOG_CONTROL_REDIRECT_FILE);
    m_utilities.ExportRedirectedFile(&exporter, m_sDisk.c_str(), sTarget.c_str());
    m_utilities.SetCallback(&m_recorder);
    EXPECT_EQ(host.CountUnhindered(), 1);
    EXPECT_TRUE(host.Contains("[RedirectedFile.Export] Nothing to read at ox:65536"));
    EXPECT_EQ(std::filesystem::file_size(sTarget), 65536U);
}

// Clients never meet the placeholder while the host opens the file anew.
TEST_F(UtilitiesRedirected, Open_OfAnOpenFile_ReplacesItInOneStep)
{
    Open(m_sDisk);
    std::atomic<bool> bEnd = false;
    std::atomic<int> iWrong = 0;
    std::thread client([&] {
        while (!bEnd)
            iWrong += GetSize(m_sDisk) != 100;
    });
    for (int i = 0; i < 3000; i++)
        m_utilities.OpenRedirectedFile(&m_param, m_sDisk.c_str(), 100, true, 1, 1);
    bEnd = true;
    client.join();
    EXPECT_EQ(iWrong, 0);
}

// ---- Writes ----

TEST_F(UtilitiesRedirected, WriteFile_IsReportedAndNotStored)
{
    for (const bool bIndex : {false, true}) {
        Open(m_sDisk, bIndex);
        const std::string sPlaceholder = ReadWholeFile(m_sDisk);
        m_recorder.Clear();
        m_recorder.SetWriteResult(4);
        EXPECT_EQ(WriteAt(m_sDisk, 5'000'000'000, "data"), 4);
        m_recorder.SetWriteResult(2);
        EXPECT_EQ(WriteAt(m_sDisk, 0, "data", SEEK_CUR), 2);  // the host's answer
        m_recorder.SetWriteResult(-1);
        EXPECT_EQ(WriteAt(m_sDisk, ULLONG_MAX, "", SEEK_END), -1);
        EXPECT_EQ(
            m_recorder.Notifications(),
            (Lines{"write|host|" + m_sDisk + "|5000000000|0|4", "write|host|" + m_sDisk + "|0|1|4",
                   "write|host|" + m_sDisk + "|18446744073709551615|2|0"}));
        EXPECT_EQ(ReadWholeFile(m_sDisk), sPlaceholder);
        EXPECT_EQ(ReadWholeFile(m_sLetters), "abcdefghijklmnopqrstuvwxyz");
        EXPECT_EQ(ReadAt(m_sDisk, 0, 3), "abc");
        EXPECT_EQ(GetSize(m_sDisk), 100);
    }
}

TEST_F(UtilitiesRedirected, WriteFile_WritesItsLine)
{
    Open(m_sDisk);
    SetBits(LOG_CONTROL_FILE_ACCESS);
    WriteAt(m_sDisk, 50, "data");
    EXPECT_EQ(m_recorder.Lines(), Lines{"info|host|[Test] Write file, path=" + m_sDisk +
                                        ", iSeek=50, iSeekType=0, length=4"});
}

TEST_F(UtilitiesRedirected, OtherFiles_AreWrittenWithoutNotice)
{
    Open(m_sDisk);
    m_folder.Write("other", "text");
    GetID(m_sOther);
    EXPECT_EQ(WriteAt(m_sOther, 0, "data"), 4);
    EXPECT_TRUE(RenameFile(m_sOther, m_folder.Path("moved")));
    EXPECT_EQ(ReadWholeFile(m_folder.Path("moved")), "data");
    EXPECT_TRUE(RemoveFile(m_folder.Path("moved")));
    Close(m_sDisk);
    EXPECT_EQ(WriteAt(m_sDisk, 0, "data"), 4);
    EXPECT_EQ(ReadWholeFile(m_sDisk), "data");
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}

// ---- Removing ----

TEST_F(UtilitiesRedirected, RemoveFile_RemovesClosesAndReports)
{
    Open(m_sDisk, true);
    const std::shared_ptr<CRedirectedFile> pReader = Find(m_sDisk);
    EXPECT_EQ(ReadAt(m_sDisk, 0, 3), "abc");
    EXPECT_TRUE(RemoveFile(m_sDisk));
    EXPECT_FALSE(std::filesystem::exists(m_sDisk));
    EXPECT_FALSE(IsOpen(m_sDisk));
    EXPECT_EQ(m_recorder.Notifications(), Lines{"remove|host|" + m_sDisk});
    EXPECT_EQ(ReadFrom(pReader.get(), &m_param, 0, 3), "...");
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
    EXPECT_EQ(ReadWholeFile(m_sLetters), "abcdefghijklmnopqrstuvwxyz");
}

TEST_F(UtilitiesRedirected, RemoveFile_HostRefuses_FailsThoughItIsGone)
{
    for (const int iResult : {-1, 1}) {
        Open(m_sDisk);
        m_recorder.SetRemoveResult(iResult);
        EXPECT_FALSE(RemoveFile(m_sDisk));
        EXPECT_FALSE(std::filesystem::exists(m_sDisk));
        EXPECT_FALSE(IsOpen(m_sDisk));
    }
}

TEST_F(UtilitiesRedirected, RemoveFile_PlaceholderIsMissing_FailsAndStaysOpen)
{
    Open(m_sDisk);
    std::filesystem::remove(m_sDisk);
    EXPECT_FALSE(RemoveFile(m_sDisk));
    EXPECT_TRUE(IsOpen(m_sDisk));
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}

// ---- Renaming ----

TEST_F(UtilitiesRedirected, RenameFile_MovesFileTableAndNumber)
{
    Open(m_sDisk);
    const unsigned int iID = GetID(m_sDisk);
    EXPECT_TRUE(RenameFile(m_sDisk, m_sOther));
    EXPECT_FALSE(std::filesystem::exists(m_sDisk));
    EXPECT_TRUE(std::filesystem::exists(m_sOther));
    EXPECT_FALSE(IsOpen(m_sDisk));
    EXPECT_EQ(ReadAt(m_sOther, 0, 3), "abc");
    EXPECT_EQ(GetPath(iID), m_sOther);
    EXPECT_EQ(m_recorder.Notifications(), Lines{"rename|host|" + m_sDisk + "|" + m_sOther});
}

// Its index is not found any more, where the rename took it away.
TEST_F(UtilitiesRedirected, RenameFile_WithIndex_ReadsAsZerosUntilItIsOpenedAgain)
{
    Open(m_sDisk, true);
    GetID(m_sDisk);
    EXPECT_EQ(ReadAt(m_sDisk, 0, 3), "abc");
    EXPECT_TRUE(RenameFile(m_sDisk, m_sOther));
    EXPECT_EQ(GetSize(m_sOther), 100);
    EXPECT_EQ(ReadAt(m_sOther, 0, 3), "...");
    EXPECT_EQ(ReadRecords(m_sOther), (Lines{"0 0 0 26"}));
    Open(m_sOther, true);
    EXPECT_EQ(ReadAt(m_sOther, 0, 3), "abc");
}

TEST_F(UtilitiesRedirected, RenameFile_OntoARedirectedFile_RemovesThatFirst)
{
    Open(m_sDisk);
    Open(m_sOther);
    GetID(m_sDisk);
    const std::shared_ptr<CRedirectedFile> pMoved = Find(m_sDisk);
    EXPECT_TRUE(RenameFile(m_sDisk, m_sOther));
    EXPECT_EQ(Find(m_sOther), pMoved);
    EXPECT_EQ(m_recorder.Notifications(),
              (Lines{"remove|host|" + m_sOther, "rename|host|" + m_sDisk + "|" + m_sOther}));
}

TEST_F(UtilitiesRedirected, RenameFile_PlainFileOntoARedirectedOne_ClosesThat)
{
    m_folder.Write("disk", "text");
    Open(m_sOther);
    GetID(m_sDisk);
    EXPECT_TRUE(RenameFile(m_sDisk, m_sOther));
    EXPECT_FALSE(IsOpen(m_sOther));
    EXPECT_EQ(ReadAt(m_sOther, 0, 10), "text+");
    EXPECT_EQ(m_recorder.Notifications(), Lines{"remove|host|" + m_sOther});
}

// The host keeps its target: nothing is moved.
TEST_F(UtilitiesRedirected, RenameFile_HostRefusesTheTargetsRemoval_MovesNothing)
{
    Open(m_sDisk);
    Open(m_sOther);
    GetID(m_sDisk);
    m_recorder.SetRemoveResult(-1);
    EXPECT_FALSE(RenameFile(m_sDisk, m_sOther));
    EXPECT_TRUE(IsOpen(m_sDisk));
    EXPECT_TRUE(std::filesystem::exists(m_sDisk));
    EXPECT_EQ(m_recorder.Notifications(), Lines{"remove|host|" + m_sOther});
}

// Kept: file and table have moved by then, but the number has not.
TEST_F(UtilitiesRedirected, RenameFile_HostRefuses_FailsThoughItIsMoved)
{
    Open(m_sDisk);
    const unsigned int iID = GetID(m_sDisk);
    m_recorder.SetRenameResult(1);
    EXPECT_FALSE(RenameFile(m_sDisk, m_sOther));
    EXPECT_TRUE(std::filesystem::exists(m_sOther));
    EXPECT_TRUE(IsOpen(m_sOther));
    EXPECT_FALSE(IsOpen(m_sDisk));
    EXPECT_EQ(GetPath(iID), m_sDisk);
}

TEST_F(UtilitiesRedirected, RenameFile_SystemRefuses_MovesNothing)
{
    Open(m_sDisk);
    GetID(m_sDisk);
    EXPECT_FALSE(RenameFile(m_sDisk, m_folder.Path("missing/disk")));
    EXPECT_TRUE(IsOpen(m_sDisk));
    EXPECT_EQ(ReadAt(m_sDisk, 0, 3), "abc");
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}

TEST_F(UtilitiesRedirected, RenameFile_OntoItself_KeepsIt)
{
    Open(m_sDisk);
    GetID(m_sDisk);
    EXPECT_TRUE(RenameFile(m_sDisk, m_sDisk));
    EXPECT_EQ(ReadAt(m_sDisk, 0, 3), "abc");
    EXPECT_EQ(m_recorder.Notifications(), Lines{});
}

TEST_F(UtilitiesRedirected, RenameFile_PlaceholderIsMissing_MovesTheTable)
{
    Open(m_sDisk);
    GetID(m_sDisk);
    std::filesystem::remove(m_sDisk);
    EXPECT_TRUE(RenameFile(m_sDisk, m_sOther));
    EXPECT_EQ(ReadAt(m_sOther, 0, 3), "abc");
    EXPECT_EQ(m_recorder.Notifications(), Lines{"rename|host|" + m_sDisk + "|" + m_sOther});
}

TEST_F(UtilitiesRedirected, RenameFile_OfAFolder_MovesTheFilesInIt)
{
    std::filesystem::create_directories(m_folder.Path("a/sub"));
    std::filesystem::create_directories(m_folder.Path("ab"));
    for (const char* pcName : {"a/x", "a/sub/y", "ab/z"})
        Open(m_folder.Path(pcName));
    const std::string sFrom = m_folder.Path("a");
    const std::string sTo = m_folder.Path("b");
    GetID(sFrom);
    m_recorder.SetRenameResult(-1);  // for files in a folder nobody asks
    EXPECT_TRUE(RenameFile(sFrom, sTo));
    EXPECT_EQ(ReadAt(sTo + "/x", 0, 3), "abc");
    EXPECT_EQ(ReadAt(sTo + "/sub/y", 0, 3), "abc");
    EXPECT_FALSE(IsOpen(sFrom + "/x"));
    EXPECT_FALSE(IsOpen(sFrom + "/sub/y"));
    EXPECT_TRUE(IsOpen(m_folder.Path("ab/z")));
    EXPECT_EQ(m_recorder.Notifications(),
              (Lines{"rename|host|" + sFrom + "/sub/y|" + sTo + "/sub/y",
                     "rename|host|" + sFrom + "/x|" + sTo + "/x"}));
}

// ---- Attributes ----

TEST_F(UtilitiesRedirected, UpdateFileAttributes_EachCombination_IsReported)
{
    Open(m_sDisk);
    struct stat before = {};
    ASSERT_EQ(stat(m_sDisk.c_str(), &before), 0);
    for (int iFlags = 0; iFlags < 64; iFlags++) {
        const auto Has = [iFlags](int iFlag) { return (iFlags & 1 << iFlag) != 0; };
        m_recorder.Clear();
        m_recorder.SetUpdateResult(0);
        const auto Update = [&] {
            return m_utilities.UpdateFileAttributes(
                &m_param, &m_argu, m_sDisk.c_str(), Has(0), 0777, Has(1), 11, Has(2), 12, Has(3),
                5'000'000'000, Has(4), 4'000'000'000, 14, Has(5), 15, 16);
        };
        EXPECT_TRUE(Update());
        const std::string sExpected = "update|host|" + m_sDisk + "|" + std::to_string(Has(3)) +
                                      "|5000000000|" + std::to_string(Has(4)) + "|4000000000|" +
                                      std::to_string(Has(5)) + "|15";
        EXPECT_EQ(m_recorder.Notifications(), iFlags == 0 ? Lines{} : Lines{sExpected}) << iFlags;
        m_recorder.SetUpdateResult(1);
        EXPECT_EQ(Update(), iFlags == 0) << iFlags;
    }
    struct stat after = {};
    ASSERT_EQ(stat(m_sDisk.c_str(), &after), 0);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_size, before.st_size);
    EXPECT_EQ(GetSize(m_sDisk), 100);
}

// ---- Nobody listens ----

TEST_F(UtilitiesRedirected, WithoutHost_ChangesFail)
{
    m_utilities.SetCallback(nullptr);
    Open(m_sDisk);
    const auto Update = [&](bool bSetMode) {
        return m_utilities.UpdateFileAttributes(&m_param, &m_argu, m_sDisk.c_str(), bSetMode, 0777,
                                                false, 0, false, 0, false, 0, false, 0, 0, false, 0,
                                                0);
    };
    EXPECT_EQ(WriteAt(m_sDisk, 0, "data"), -1);
    EXPECT_FALSE(Update(true));
    EXPECT_TRUE(Update(false));
    GetID(m_sDisk);
    EXPECT_FALSE(RenameFile(m_sDisk, m_sOther));
    EXPECT_TRUE(IsOpen(m_sOther));
    EXPECT_FALSE(RemoveFile(m_sOther));
    EXPECT_FALSE(IsOpen(m_sOther));
}

TEST_F(UtilitiesRedirected, Notifications_BearTheCallersId)
{
    Open(m_sDisk);
    m_param.SetID("client");
    WriteAt(m_sDisk, 0, "data");
    EXPECT_EQ(m_recorder.Notifications(), Lines{"write|client|" + m_sDisk + "|0|0|4"});
}
