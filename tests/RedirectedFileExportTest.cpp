#include "RedirectedFile.h"

#include <random>
#include <sys/mount.h>

#include <gtest/gtest.h>

#include "RedirectedFileFixture.h"

namespace {

constexpr char EXPORT[] = "RedirectedFile.Export";
constexpr char EXPORT_INFO[] = "RedirectedFile.ExportInfo";
constexpr char SEPARATOR[] = "-------------------\n";  // 19 hyphens

class RedirectedFileExport : public CRedirectedFileFixture {
protected:
    void Export(const std::string& sTarget) { m_pFile->Export(&m_param, sTarget.c_str()); }
    void ExportInfo(const std::string& sTarget, bool bMergeRange)
    {
        m_pFile->ExportInfo(&m_param, sTarget.c_str(), bMergeRange);
    }

    // Both into a target that exists and is empty.
    std::string GetContents()
    {
        Export(m_folder.Write("target", ""));
        return ReadWholeFile(m_sTarget);
    }
    std::string GetListing(bool bMergeRange)
    {
        ExportInfo(m_folder.Write("target", ""), bMergeRange);
        return ReadWholeFile(m_sTarget);
    }

    // The lines of the exports themselves, with "fid=" cut off behind the target.
    Lines GetOwnLines() const
    {
        Lines vLines = m_recorder.Lines();
        for (std::string& sLine : vLines)
            sLine.resize(std::min(sLine.size(), sLine.find(" (fid=")));
        return vLines;
    }

    static std::string GetLine(const std::string& sSource, long long iSourceOffset,
                               long long iOffset, long long iLength)
    {
        return "Segment path=" + sSource + ", fox=" + std::to_string(iSourceOffset) +
               ", ox=" + std::to_string(iOffset) + ", len=" + std::to_string(iLength) + "\n";
    }
    static std::string GetMerged(const std::string& sSource, long long iSourceOffset,
                                 long long iOffset, long long iLength)
    {
        return "--> Merged " + GetLine(sSource, iSourceOffset, iOffset, iLength);
    }
    static std::string GetCheckPoint(long long iFileOffset, long long iOffset)
    {
        return "--> CheckPoint Segment fox=" + std::to_string(iFileOffset) +
               ", ox=" + std::to_string(iOffset) + "\n";
    }

    const std::string m_sTarget = m_folder.Path("target");
};

}  // namespace

// ---- Contents ----

TEST_F(RedirectedFileExport, Export_WritesInPiecesAndStopsAtTheEnd)
{
    std::string sBytes(100'000, '\0');
    std::mt19937 random(1);
    for (char& cByte : sBytes)
        cByte = static_cast<char>(random());
    const std::string sSource = m_folder.Write("source", sBytes);
    OpenInMemory(100'000);
    AddSegment(sSource, 0, 0, 30'000);
    AddSegment(sSource, 30'000, 30'000, 100'000);
    m_folder.Write("target", "");
    SetBits(LOG_CONTROL_REDIRECT_FILE);
    Export(m_sTarget);
    EXPECT_EQ(GetOwnLines(),
              MakeLines(EXPORT, {"Content to file: " + m_sTarget, "Write ox:0, r:65536, w:65536",
                                 "Write ox:65536, r:34464, w:34464"}));
    EXPECT_EQ(ReadWholeFile(m_sTarget) == sBytes, true);
    m_pFile->Close(&m_param);
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);  // the target's is closed too
}

TEST_F(RedirectedFileExport, Export_WritesTheTargetsDescriptor)
{
    OpenInMemory(10);
    m_folder.Write("target", "");
    SetBits(LOG_CONTROL_REDIRECT_FILE | LOG_CONTROL_FILE_ACCESS);
    Export(m_sTarget);
    ExportInfo(m_sTarget, false);
    const Lines vLines = m_recorder.Lines();
    const std::string sStart = "info|host|[" + std::string(EXPORT) + "] OS write file (";
    const auto write = std::find_if(vLines.begin(), vLines.end(), [&](const std::string& sLine) {
        return sLine.find(sStart) == 0;
    });
    ASSERT_NE(write, vLines.end());
    const std::string sFile = write->substr(sStart.length(), write->length() - sStart.length() - 1);
    EXPECT_TRUE(m_recorder.Contains("[" + std::string(EXPORT) + "] Content to file: " + m_sTarget +
                                    " (fid=" + sFile + ")"));
    EXPECT_TRUE(m_recorder.Contains("[" + std::string(EXPORT_INFO) +
                                    "] Info to file: " + m_sTarget + " (fid=" + sFile + ")"));
    EXPECT_EQ(m_recorder.Count("OS close file \"" + m_sTarget + "\""), 2U);
}

TEST_F(RedirectedFileExport, Export_OfAWholePiece_StopsAtItsEnd)
{
    OpenInMemory(65536);
    m_folder.Write("target", "");
    SetBits(LOG_CONTROL_REDIRECT_FILE);
    Export(m_sTarget);
    EXPECT_EQ(GetOwnLines(),
              MakeLines(EXPORT, {"Content to file: " + m_sTarget, "Write ox:0, r:65536, w:65536"}));
}

TEST_F(RedirectedFileExport, Export_OfNothing_WritesNothing)
{
    for (const long long iSize : {0LL, -1LL}) {
        OpenInMemory(iSize);
        m_folder.Write("target", "old");
        SetBits(LOG_CONTROL_REDIRECT_FILE);
        Export(m_sTarget);
        EXPECT_EQ(GetOwnLines(),
                  MakeLines(EXPORT, {"Content to file: " + m_sTarget, "Write ox:0, r:0, w:0"}));
        EXPECT_EQ(ReadWholeFile(m_sTarget), "old");
    }
}

// Kept: a target is neither created nor cut.
TEST_F(RedirectedFileExport, Export_LongerTarget_KeepsItsRest)
{
    OpenInMemory(10);
    AddSegment(m_sDigits, 0, 0, 10);
    m_folder.Write("target", "abcdefghijklm");
    Export(m_sTarget);
    EXPECT_EQ(ReadWholeFile(m_sTarget), "0123456789klm");
}

TEST_F(RedirectedFileExport, Export_WithIndex_WritesTheSame)
{
    OpenWithIndex(3 * MIB, 1);
    AddSegment(m_sLetters, 0, 0, MIB + 10);
    AddSegment(m_sDigits, 0, MIB + 10, 2 * MIB);
    const std::string sContents = GetContents();
    EXPECT_EQ(sContents.size(), 3U * MIB);
    EXPECT_EQ(sContents.substr(0, 27), "abcdefghijklmnopqrstuvwxyz" + std::string(1, '\0'));
    EXPECT_EQ(sContents.substr(MIB + 9, 12),
              std::string(1, '\0') + "0123456789" + std::string(1, '\0'));
}

TEST_F(RedirectedFileExport, IntoTheOwnIndex_IsRefused)
{
    OpenWithIndex(3 * MIB, 1);
    AddSegment(m_sLetters, 0, 0, MIB);
    const std::string sIndex = ReadWholeFile(m_sIndex);
    SetBits(LOG_CONTROL_REDIRECT_FILE);
    Export(m_sIndex);
    EXPECT_EQ(GetOwnLines(), MakeLines(EXPORT, {"Content to file error: " + m_sIndex}));
    ExportInfo(m_sIndex, false);
    EXPECT_EQ(ReadWholeFile(m_sIndex), sIndex);
    EXPECT_TRUE(m_recorder.Contains("Info to file error: " + m_sIndex));
}

// The position that reads are measured by is the same for all.
TEST_F(RedirectedFileExport, Export_MovesThePositionOfReads)
{
    OpenInMemory(10);
    EXPECT_EQ(Read(10, 1), "-1");
    EXPECT_EQ(GetContents(), std::string(10, '\0'));
    EXPECT_EQ(Read(10, 1), "+");
}

TEST_F(RedirectedFileExport, Export_ReadThatDeliversNothing_EndsIt)
{
    OpenInMemory(100);
    AddSegment(m_sDigits, 0, 0, 10);
    AddSegment(m_sDigits, -50, 10, 10);  // cannot be read
    m_folder.Write("target", "");
    SetBits(LOG_CONTROL_REDIRECT_FILE);
    Export(m_sTarget);
    EXPECT_EQ(GetOwnLines(),
              MakeLines(EXPORT, {"Content to file: " + m_sTarget, "Write ox:0, r:10, w:10",
                                 "Write ox:10, r:0, w:0", "Nothing to read at ox:10"}));
    EXPECT_EQ(ReadWholeFile(m_sTarget), "0123456789");
}

// After the end, a file whose start is a gap delivers nothing: it must not be asked for ever.
TEST_F(RedirectedFileExport, Export_SecondOneOfAGap_Ends)
{
    OpenInMemory(100);
    EXPECT_EQ(GetContents(), std::string(100, '\0'));
    SetBits(LOG_CONTROL_REDIRECT_FILE);
    EXPECT_EQ(GetContents(), "");
    EXPECT_TRUE(m_recorder.Contains("Nothing to read at ox:0"));
    EXPECT_EQ(GetContents(), std::string(100, '\0'));
}

// Left out gaps are missing: the export reads on at the number of bytes that it got.
TEST_F(RedirectedFileExport, Export_Gap_IsLeftOut)
{
    OpenInMemory(30);
    AddSegment(m_sDigits, 0, 0, 10);
    AddSegment(m_sLetters, 0, 20, 10);
    EXPECT_EQ(GetContents(), "0123456789abcdefghij"
                             "abcdefghij");
}

TEST_F(RedirectedFileExport, Export_MissingTarget_IsReportedAndNotCreated)
{
    OpenInMemory(10);
    SetBits(LOG_CONTROL_REDIRECT_FILE);
    Export(m_sMissing);
    ExportInfo(m_sMissing, false);
    ExportInfo(m_folder.Path(), true);  // a folder
    Lines vExpected = MakeLines(EXPORT, {"Content to file error: " + m_sMissing});
    for (const std::string& sLine :
         MakeLines(EXPORT_INFO,
                   {"Info to file error: " + m_sMissing, "Info to file error: " + m_folder.Path()}))
        vExpected.push_back(sLine);
    EXPECT_EQ(m_recorder.Lines(), vExpected);
    EXPECT_FALSE(std::filesystem::exists(m_sMissing));
}

TEST_F(RedirectedFileExport, WithoutItsBit_WritesNoLines)
{
    OpenInMemory(100);
    SetBits(0x3FF & ~LOG_CONTROL_REDIRECT_FILE & ~LOG_CONTROL_FILE_ACCESS & ~LOG_CONTROL_ERROR &
            ~LOG_CONTROL_GENERAL_INFO);
    GetContents();
    GetContents();
    GetListing(true);
    Export(m_sMissing);
    ExportInfo(m_sMissing, true);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

// Outside exports the target is opened for reading only.
TEST_F(RedirectedFileExport, TargetOutsideExports_IsOnlyReported)
{
    const CScratchFolder outside;
    const std::string sTarget = outside.Write("target", "old");
    OpenInMemory(100'000);
    SetBits(LOG_CONTROL_REDIRECT_FILE | LOG_CONTROL_ERROR);
    Export(sTarget);
    EXPECT_TRUE(m_recorder.Contains("Write ox:0, r:65536, w:-1"));
    EXPECT_TRUE(m_recorder.Contains("Write ox:65536, r:34464, w:-1"));
    EXPECT_TRUE(m_recorder.Contains("Error=Bad file descriptor (9)"));
    ExportInfo(sTarget, true);
    EXPECT_EQ(ReadWholeFile(sTarget), "old");
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
}

TEST_F(RedirectedFileExport, Export_FullDisk_GoesOnWithoutAnotherTry)
{
    const std::string sMount = m_folder.Path("small");
    std::filesystem::create_directory(sMount);
    ASSERT_EQ(mount("tmpfs", sMount.c_str(), "tmpfs", 0, "size=80k"), 0);
    const std::string sTarget = m_folder.Write("small/target", "");
    OpenInMemory(3 * 65536);
    SetBits(LOG_CONTROL_REDIRECT_FILE);
    Export(sTarget);
    EXPECT_TRUE(m_recorder.Contains("Write ox:0, r:65536, w:65536"));
    EXPECT_TRUE(m_recorder.Contains("Write ox:65536, r:65536, w:16384"));
    EXPECT_TRUE(m_recorder.Contains("Write ox:131072, r:65536, w:-1"));
    EXPECT_EQ(std::filesystem::file_size(sTarget), 81920U);
    EXPECT_EQ(umount(sMount.c_str()), 0);
}

TEST_F(RedirectedFileExport, AfterClose_ThereAreZerosAndNothingToList)
{
    OpenWithIndex(2 * MIB, 1, 1);
    AddSegment(m_sDigits, 0, 0, 2 * MIB);
    EXPECT_NE(GetListing(false).find("CheckPoint"), std::string::npos);
    m_pFile->Close(&m_param);
    EXPECT_EQ(GetContents() == std::string(2 * MIB, '\0'), true);
    EXPECT_EQ(GetListing(false), "");
    EXPECT_EQ(GetListing(true), GetMerged("Null", 0, 0, 0));
}

// ---- Listings ----

TEST_F(RedirectedFileExport, ExportInfo_ListsTheSegments)
{
    OpenInMemory(8192 * GIB);
    AddSegment(m_sLetters, 5, 0, 10);
    AddSegment(m_sLetters, 5'000'000'000, 10, 20);
    AddSegment("", 3, 5'000'000'000, 6'000'000'000);
    EXPECT_EQ(GetListing(false), GetLine(m_sLetters, 5, 0, 10) +
                                     GetLine(m_sLetters, 5'000'000'000, 10, 20) +
                                     GetLine("Null", 3, 5'000'000'000, 6'000'000'000));
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
}

TEST_F(RedirectedFileExport, ExportInfo_NumbersAreUnsigned)
{
    OpenInMemory(100);
    AddSegment(m_sLetters, -1, 0, 10);
    AddSegment(m_sLetters, 0, -2, -3);
    EXPECT_EQ(GetListing(false),
              "Segment path=" + m_sLetters + ", fox=18446744073709551615, ox=0, len=10\n" +
                  "Segment path=" + m_sLetters +
                  ", fox=0, ox=18446744073709551614, len=18446744073709551613\n");
}

TEST_F(RedirectedFileExport, ExportInfo_Merged_JoinsNeighboursOfOneSource)
{
    OpenInMemory(1000);
    AddSegment(m_sMissing, 100, 0, 10);
    AddSegment(m_sMissing, 900, 30, 5);  // they need not touch
    AddSegment(m_sLetters, 7, 35, 10);
    AddSegment(m_sMissing, 3, 45, 10);
    AddSegment("", 1, 60, 10);
    AddSegment("", 2, 70, 15);
    EXPECT_EQ(GetListing(true),
              GetMerged(m_sMissing, 100, 0, 15) + GetMerged(m_sLetters, 7, 35, 10) +
                  GetMerged(m_sMissing, 3, 45, 10) + GetMerged("Null", 1, 60, 25));
}

TEST_F(RedirectedFileExport, ExportInfo_MergedWithoutSegments_IsOneLineOfZeros)
{
    OpenInMemory(1000);
    EXPECT_EQ(GetListing(true), GetMerged("Null", 0, 0, 0));
    AddSegment(m_sLetters, 7, 35, 10);  // not at the start, where the walk begins
    EXPECT_EQ(GetListing(true), GetMerged(m_sLetters, 0, 0, 0));
}

TEST_F(RedirectedFileExport, ExportInfo_FirstSegmentAboveZero_ListsNone)
{
    OpenInMemory(1000);
    AddSegment(m_sLetters, 7, 1, 10);
    AddSegment(m_sLetters, 7, 11, 10);
    EXPECT_EQ(GetListing(false), "");
}

TEST_F(RedirectedFileExport, ExportInfo_StartsAtTheSegmentOfTheStart)
{
    OpenInMemory(1000);
    AddSegment(m_sLetters, 7, 10, 10);
    AddSegment(m_sDigits, 0, 0, 10);
    AddSegment(m_sLetters, 0, 0, 10);
    EXPECT_EQ(GetListing(false), GetLine(m_sDigits, 0, 0, 10) + GetLine(m_sLetters, 0, 0, 10));
}

TEST_F(RedirectedFileExport, ExportInfo_CheckPoints_StandInFront)
{
    OpenWithIndex(4 * GIB);
    AddSegment(m_sLetters, 0, 0, GIB - 32 * MIB);
    AddSegment(m_sDigits, 0, GIB - 32 * MIB, 32 * MIB);
    AddSegment(m_sLetters, 5, GIB, 10);
    AddSegment(m_sLetters, 9, 3 * GIB, 10);
    const std::string sMerged = GetListing(true);
    EXPECT_EQ(sMerged, GetCheckPoint(32 * 32, GIB) + GetCheckPoint(33 * 32, 3 * GIB) + SEPARATOR +
                           GetMerged(m_sLetters, 0, 0, GIB - 32 * MIB) +
                           GetMerged(m_sDigits, 0, GIB - 32 * MIB, 32 * MIB) +
                           GetMerged(m_sLetters, 5, GIB, 20));
    EXPECT_EQ(GetListing(false).find(GetCheckPoint(32 * 32, GIB) + GetCheckPoint(33 * 32, 3 * GIB) +
                                     SEPARATOR + GetLine(m_sLetters, 0, 0, 32 * MIB)),
              0U);
}

TEST_F(RedirectedFileExport, ExportInfo_WithoutCheckPoints_HasNoSeparator)
{
    OpenWithIndex(4 * GIB);
    AddSegment(m_sLetters, 0, 0, 10);
    AddSegment(m_sLetters, 5, GIB + 1, 10);  // near one
    EXPECT_EQ(GetListing(false),
              GetLine(m_sLetters, 0, 0, 10) + GetLine(m_sLetters, 5, GIB + 1, 10));
}

// ---- Check points ----

TEST_F(RedirectedFileExport, CheckPoints_StandWhereRecordsStartAtThem)
{
    OpenWithIndex(100 * MIB, 2, 3);  // every second is no start of a record
    AddSegment("", 0, 0, 20 * MIB);
    EXPECT_EQ(GetListing(true), GetCheckPoint(3 * 32, 6 * MIB) + GetCheckPoint(6 * 32, 12 * MIB) +
                                    GetCheckPoint(9 * 32, 18 * MIB) + SEPARATOR +
                                    GetMerged("Null", 0, 0, 20 * MIB));
    AddSegment("", 0, 21 * MIB, MIB);  // but here one starts
    EXPECT_NE(GetListing(true).find(GetCheckPoint(10 * 32, 21 * MIB)), std::string::npos);
}

TEST_F(RedirectedFileExport, CheckPoints_NoneAtZeroOrBelow)
{
    OpenWithIndex(100 * MIB, 1, 1);
    AddSegment("", 0, 0, MIB);
    AddSegment("", 0, -2 * MIB, 2 * MIB);
    EXPECT_EQ(GetListing(true).find("CheckPoint"), std::string::npos);
}

TEST_F(RedirectedFileExport, CheckPoints_InMemory_ThereAreNone)
{
    OpenInMemory(4 * GIB);
    AddSegment("", 0, 0, GIB);
    AddSegment("", 0, GIB, GIB);
    EXPECT_EQ(GetListing(true), GetMerged("Null", 0, 0, 2 * GIB));
}

TEST_F(RedirectedFileExport, CheckPoints_ArePlacedUnderTheirOwnLabel)
{
    OpenWithIndex(100 * MIB, 1, 2);
    AddSegment("", 0, 0, MIB);
    SetBits(LOG_CONTROL_FILE_ACCESS);
    AddSegment("", 0, MIB, 4 * MIB);
    EXPECT_EQ(m_recorder.Count("[RedirectedFile.CreateCheckPointSegment] OS tell file ("), 2U);
}

// Kept: nobody looks which records an index file holds already.
TEST_F(RedirectedFileExport, CheckPoints_OfAnOlderIndex_AreNotRebuilt)
{
    OpenWithIndex(10 * MIB, 1, 1);
    AddSegment("", 0, 0, 3 * MIB);
    OpenWithIndexAt(m_sIndex, 10 * MIB, 1, 1);
    EXPECT_EQ(GetListing(true), GetMerged("Null", 0, 0, 3 * MIB));
    AddSegment("", 0, 3 * MIB, MIB);
    EXPECT_EQ(GetListing(true),
              GetCheckPoint(3 * 32, 3 * MIB) + SEPARATOR + GetMerged("Null", 0, 0, 4 * MIB));
}

// ---- Long ones ----

TEST_F(RedirectedFileExport, ExportInfo_ManySegments_AreAllListed)
{
    OpenWithIndex(GIB);
    std::string sExpected;
    long long iLength = 0;
    for (int i = 0; i < 5000; i++) {
        AddSegment(m_sDigits, i, i * 5, 5);
        sExpected += GetLine(m_sDigits, i, i * 5, 5);
        iLength += 5;
    }
    EXPECT_EQ(GetListing(false) == sExpected, true);
    EXPECT_EQ(GetListing(true), GetMerged(m_sDigits, 0, 0, iLength));
}

TEST_F(RedirectedFileExport, ExportInfo_LongPath_IsWrittenWhole)
{
    OpenInMemory(100);
    const std::string sSource(10'000, 'x');
    AddSegment(sSource, 0, 0, 5);
    AddSegment(m_sDigits, 0, 5, 5);
    EXPECT_EQ(GetListing(false), GetLine(sSource, 0, 0, 5) + GetLine(m_sDigits, 0, 5, 5));
}

TEST_F(RedirectedFileExport, ExportInfo_Garbage_IsListedAsItIs)
{
    OpenWithIndex(100);
    std::string sIndex(32 * 20, '\xFF');  // all values are -1
    sIndex[8 * 2] = 0;                    // but the first segment's offset is not
    std::fill(sIndex.begin() + 16, sIndex.begin() + 24, '\0');
    std::fill(sIndex.begin() + 24, sIndex.begin() + 31, '\1');
    sIndex[31] = 0;
    m_folder.Write("index", sIndex);
    const std::string sListing = GetListing(false);
    EXPECT_EQ(sListing.find("Segment path=Null, fox=18446744073709551615, ox=0, len="), 0U);
    EXPECT_EQ(std::count(sListing.begin(), sListing.end(), '\n'), 20);
    EXPECT_NE(GetListing(true), "");
}
