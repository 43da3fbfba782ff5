#include "RedirectedFile.h"

#include <csignal>
#include <fcntl.h>
#include <limits>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "RedirectedFileFixture.h"

namespace {

constexpr long long HIGHEST = std::numeric_limits<long long>::max();
constexpr long long LOWEST = std::numeric_limits<long long>::min();
constexpr char ADD[] = "RedirectedFile.AddSegment";

using RedirectedFile = CRedirectedFileFixture;

// Lets no file grow behind so many bytes, as long as it lives.
class CFileSizeLimit {
public:
    explicit CFileSizeLimit(rlim_t iLimit)
    {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_saved);
        const struct rlimit limit = {iLimit, m_saved.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~CFileSizeLimit() { setrlimit(RLIMIT_FSIZE, &m_saved); }
    CFileSizeLimit(const CFileSizeLimit&) = delete;
    CFileSizeLimit& operator=(const CFileSizeLimit&) = delete;

private:
    struct rlimit m_saved = {};
};

}  // namespace

// ---- Opening ----

TEST_F(RedirectedFile, New_IsEmpty)
{
    m_pFile = std::make_unique<CRedirectedFile>(&m_utilities);
    EXPECT_EQ(m_pFile->GetFileSize(), 0);
    EXPECT_EQ(Read(0, 10), "+");
    EXPECT_EQ(Walk(), Lines{});
}

TEST_F(RedirectedFile, Open_TellsItsSizeAndWritesOneLine)
{
    SetBits(LOG_CONTROL_REDIRECT_FILE);
    OpenInMemory(5'000'000'000);
    EXPECT_EQ(m_pFile->GetFileSize(), 5'000'000'000);
    OpenWithIndex(100);
    EXPECT_EQ(m_pFile->GetFileSize(), 100);
    EXPECT_EQ(m_recorder.Lines(),
              MakeLines("RedirectedFile.Open", {"id=7, size=5000000000 (path=)",
                                                "id=7, size=100 (path=" + m_sIndex + ")"}));
}

TEST_F(RedirectedFile, WithoutItsBits_WritesNothing)
{
    SetBits(0x3FF & ~LOG_CONTROL_REDIRECT_FILE & ~LOG_CONTROL_FILE_ACCESS &
            ~LOG_CONTROL_GENERAL_INFO);  // the last one for the look at the exports
    OpenWithIndex(100);
    AddSegment(m_sLetters, 0, 0, 10);
    AddSegment(m_sLetters, 0, 20, 10);
    EXPECT_EQ(Read(5, 20), "fghijabcdefghij.....");
    m_pFile->Close(&m_param);
    EXPECT_EQ(m_recorder.Lines(), Lines{});
}

TEST_F(RedirectedFile, SizesOfZeroOrLess_HaveNoContents)
{
    for (const long long iSize : {0LL, -1LL, LOWEST}) {
        OpenInMemory(iSize);
        EXPECT_EQ(m_pFile->GetFileSize(), iSize);
        EXPECT_FALSE(AddSegment(m_sLetters, 0, 0, 10));
        EXPECT_EQ(Read(0, 10), "+");
        EXPECT_EQ(Read(HIGHEST, 10), "+");
    }
}

// ---- Adding, in memory ----

TEST_F(RedirectedFile, AddSegment_InMemory_IsOneEntryHoweverLong)
{
    OpenInMemory(GIB);
    EXPECT_TRUE(AddSegment(m_sLetters, 5, 10 * MIB, 100 * MIB));
    EXPECT_EQ(Walk(10 * MIB), (Lines{"0 5 10485760 104857600"}));
}

// Only an index makes sizes count: the list is not split.
TEST_F(RedirectedFile, Open_SizesWithoutIndex_AreIgnored)
{
    m_pFile = std::make_unique<CRedirectedFile>(&m_utilities);
    m_pFile->Open(&m_param, GIB, 1, nullptr, 1, 1);
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 0, 10 * MIB));
    EXPECT_EQ(Walk(), (Lines{"0 0 0 10485760"}));
}

TEST_F(RedirectedFile, AddSegment_AtOrBehindTheSize_IsRefusedButKeepsTheSource)
{
    OpenInMemory(100);
    EXPECT_FALSE(AddSegment(m_sDigits, 0, 100, 10));
    EXPECT_FALSE(AddSegment(m_sDigits, 0, HIGHEST, HIGHEST));
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 99, 10));
    EXPECT_EQ(Walk(99), (Lines{"1 0 99 1"}));
}

TEST_F(RedirectedFile, AddSegment_BeyondTheSize_IsCutThere)
{
    OpenInMemory(100);
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 0, 100));
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 90, 11));
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 99, HIGHEST));
    EXPECT_EQ(Walk(), (Lines{"0 0 0 100", "0 0 90 10", "0 0 99 1"}));
}

TEST_F(RedirectedFile, AddSegment_SumsBeyond63Bits_AreCutAtTheSize)
{
    OpenInMemory(HIGHEST);
    EXPECT_TRUE(AddSegment(m_sLetters, HIGHEST, 0, HIGHEST));
    EXPECT_TRUE(AddSegment(m_sLetters, 0, HIGHEST - 1, HIGHEST));
    EXPECT_EQ(Walk(),
              (Lines{"0 9223372036854775807 0 9223372036854775807", "0 0 9223372036854775806 1"}));
}

TEST_F(RedirectedFile, AddSegment_BelowZero_IsTaken)
{
    OpenInMemory(100);
    EXPECT_TRUE(AddSegment(m_sLetters, 0, -5, 10));
    EXPECT_TRUE(AddSegment(m_sLetters, 0, LOWEST, HIGHEST));
    EXPECT_TRUE(AddSegment(m_sLetters, 0, LOWEST, LOWEST));
    EXPECT_EQ(Walk(0), (Lines{"0 0 -5 10", "0 0 -9223372036854775808 9223372036854775807",
                              "0 0 -9223372036854775808 -9223372036854775808"}));
    EXPECT_EQ(Read(0, 5), "fghij");
}

TEST_F(RedirectedFile, AddSegment_SameSourceAgain_IsNamedOnceByExactBytes)
{
    OpenInMemory(100);
    const std::string sSame = m_folder.Path("/letters");  // the same file by another name
    for (const std::string& sSource : {m_sLetters, m_sDigits, sSame, m_sDigits, m_sLetters})
        EXPECT_TRUE(AddSegment(sSource, 0, 0, 1));
    EXPECT_EQ(Walk(), (Lines{"0 0 0 1", "1 0 0 1", "2 0 0 1", "1 0 0 1", "0 0 0 1"}));
}

TEST_F(RedirectedFile, AddSegment_NullOrEmptySource_IsNone)
{
    OpenInMemory(100);
    EXPECT_TRUE(AddSegment("", 3, 0, 4));
    EXPECT_TRUE(m_pFile->AddSegment(&m_param, nullptr, 5, 4, 4, nullptr));
    EXPECT_EQ(Walk(), (Lines{"-1 3 0 4", "-1 5 4 4"}));
    EXPECT_EQ(Read(0, 8), "........");
}

TEST_F(RedirectedFile, AddSegment_NoLengthOrLess_IsTakenAndContainsNothing)
{
    OpenInMemory(100);
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 0, 0));
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 0, -10));
    EXPECT_TRUE(AddSegment(m_sDigits, 0, 0, 5));
    EXPECT_EQ(Read(0, 5), "01234");
}

TEST_F(RedirectedFile, AddSegment_WritesSourceAndSegment)
{
    OpenInMemory(100);
    SetBits(LOG_CONTROL_REDIRECT_FILE);
    EXPECT_TRUE(AddSegment(m_sLetters, 5, 90, 20));
    EXPECT_FALSE(AddSegment("", 0, 100, 20));
    const Lines vLines = m_recorder.Lines();
    ASSERT_EQ(vLines.size(), 3U);
    EXPECT_EQ(vLines[0], MakeLines(ADD, {"Reference src (7): " + m_sLetters})[0]);
    EXPECT_EQ(vLines[2], MakeLines(ADD, {"Reference src (7): Null"})[0]);

    // The numbers come padded to 64 columns, as this C library reads the format.
    const auto Pad = [](const std::string& sNumber) {
        return std::string(64 - sNumber.length(), ' ') + sNumber;
    };
    EXPECT_EQ(vLines[1], MakeLines(ADD, {"Segment id=7, fox=" + Pad("5") + ", ox=" + Pad("90") +
                                         ", len=" + Pad("10")})[0]);
}

TEST_F(RedirectedFile, AddSegment_NeverWritesAReason)
{
    char cReason[REASON_SIZE] = "untouched";
    OpenInMemory(100);
    EXPECT_FALSE(m_pFile->AddSegment(&m_param, "x", 0, 100, 1, cReason));
    EXPECT_TRUE(m_pFile->AddSegment(&m_param, "x", 0, 0, 1, cReason));
    EXPECT_STREQ(cReason, "untouched");
}

// ---- Adding, into an index file ----

TEST_F(RedirectedFile, AddSegment_WithIndex_IsSplitAtTheGranule)
{
    OpenWithIndex(GIB);
    EXPECT_TRUE(AddSegment(m_sLetters, 5, 10 * MIB, 100 * MIB));
    EXPECT_EQ(Records(), (Lines{"0 5 10485760 23068672", "0 23068677 33554432 33554432",
                                "0 56623109 67108864 33554432", "0 90177541 100663296 14680064"}));
    EXPECT_EQ(Walk(10 * MIB), Records());
}

// Byte by byte, since others read these files.
TEST_F(RedirectedFile, AddSegment_WithIndex_AppendsLittleEndianRecords)
{
    OpenWithIndex(HIGHEST);
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 0, 1));
    EXPECT_TRUE(AddSegment(m_sDigits, 0x0102030405060708, 0x1112131415000000, 0x21));
    EXPECT_TRUE(AddSegment("", -2, 0x1112131415000021, 3));
    const std::string sExpected =
        std::string(24, '\0') + std::string("\1\0\0\0\0\0\0\0", 8) +
        std::string("\1\0\0\0\0\0\0\0", 8) + std::string("\x08\x07\x06\x05\x04\x03\x02\x01", 8) +
        std::string("\x00\x00\x00\x15\x14\x13\x12\x11", 8) + std::string("\x21\0\0\0\0\0\0\0", 8) +
        std::string("\xFF\xFF\xFF\xFF\0\0\0\0", 8) +
        std::string("\xFE\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 8) +
        std::string("\x21\x00\x00\x15\x14\x13\x12\x11", 8) + std::string("\3\0\0\0\0\0\0\0", 8);
    EXPECT_EQ(ReadWholeFile(m_sIndex), sExpected);
}

TEST_F(RedirectedFile, AddSegment_PiecesEndAtTheGranule)
{
    OpenWithIndex(GIB, 1);
    AddSegment("", 0, 0, MIB);                // exactly one
    AddSegment("", 0, MIB, 2 * MIB);          // exactly two
    AddSegment("", 0, 3 * MIB + 1, MIB - 1);  // up to the border
    AddSegment("", 0, 4 * MIB + 1, MIB);      // over it by one
    AddSegment("", 0, 6 * MIB, MIB + 1);
    AddSegment("", 0, 8 * MIB + 5, 10);  // within
    AddSegment("", 0, 9 * MIB - 1, 2 * MIB + 2);
    EXPECT_EQ(
        Records(),
        (Lines{"-1 0 0 1048576", "-1 0 1048576 1048576", "-1 1048576 2097152 1048576",
               "-1 0 3145729 1048575", "-1 0 4194305 1048575", "-1 1048575 5242880 1",
               "-1 0 6291456 1048576", "-1 1048576 7340032 1", "-1 0 8388613 10", "-1 0 9437183 1",
               "-1 1 9437184 1048576", "-1 1048577 10485760 1048576", "-1 2097153 11534336 1"}));
}

TEST_F(RedirectedFile, Open_SizesWithIndex_CountOnlyAboveZero)
{
    for (const int iSize : {0, -1, std::numeric_limits<int>::min()}) {
        OpenWithIndex(GIB, iSize, iSize);
        AddSegment("", 0, 0, 32 * MIB + 1);
        EXPECT_EQ(Records(), (Lines{"-1 0 0 33554432", "-1 33554432 33554432 1"}));
    }
    OpenWithIndex(HIGHEST, std::numeric_limits<int>::max(), std::numeric_limits<int>::max());
    AddSegment("", 0, 0, (0x7FFFFFFFLL << 20) + 1);
    EXPECT_EQ(Records(),
              (Lines{"-1 0 0 2251799812636672", "-1 2251799812636672 2251799812636672 1"}));
}

TEST_F(RedirectedFile, AddSegment_WithIndex_HasTheSameLimits)
{
    OpenWithIndex(100);
    EXPECT_FALSE(AddSegment(m_sDigits, 0, 100, 10));
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 90, HIGHEST));
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 20, 0));
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 20, -1));
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 20, LOWEST));
    EXPECT_EQ(Records(), (Lines{"1 0 90 10"}));
}

TEST_F(RedirectedFile, AddSegment_WithIndex_SourceOffsetsWrap)
{
    OpenWithIndex(GIB, 1);
    EXPECT_TRUE(AddSegment(m_sLetters, HIGHEST, 0, MIB + 5));
    EXPECT_EQ(Records(),
              (Lines{"0 9223372036854775807 0 1048576", "0 -9223372036853727233 1048576 5"}));
}

TEST_F(RedirectedFile, AddSegment_WithIndex_BelowZeroIsSplitFromItsStart)
{
    OpenWithIndex(100, 1);
    EXPECT_TRUE(AddSegment(m_sLetters, 0, -2 * MIB - 5, 3 * MIB));
    EXPECT_EQ(Records(),
              (Lines{"0 0 -2097157 1048576", "0 1048576 -1048581 1048576", "0 2097152 -5 105"}));
}

TEST_F(RedirectedFile, AddSegment_WithoutTheIndexFile_GoesToMemoryAndCreatesNothing)
{
    OpenWithIndexAt(m_sMissing, 100);
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 0, 10));
    EXPECT_FALSE(std::filesystem::exists(m_sMissing));
    EXPECT_EQ(Read(0, 10), "abcdefghij");
}

TEST_F(RedirectedFile, IndexThatIsAFolder_IsNone)
{
    OpenWithIndexAt(m_folder.Path(), 100);
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 0, 10));
    EXPECT_EQ(Read(0, 10), "abcdefghij");
}

// What is in memory is not looked at as long as there is an index, and counts again without it.
TEST_F(RedirectedFile, IndexMadeLater_CountsFromThenOn)
{
    OpenWithIndexAt(m_sMissing, 100);
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 0, 10));
    m_folder.Write("missing", "");
    EXPECT_EQ(Read(0, 10), "..........");
    EXPECT_TRUE(AddSegment(m_sDigits, 0, 0, 10));
    EXPECT_EQ(ReadRecords(m_sMissing), (Lines{"1 0 0 10"}));
    EXPECT_EQ(Read(0, 10), "0123456789");

    std::filesystem::remove(m_sMissing);
    EXPECT_EQ(Read(0, 10), "0123456789");  // its descriptor is still open
    m_utilities.CloseCachedFileHandle(&m_param, &m_argu, m_sMissing.c_str());
    EXPECT_EQ(Read(0, 10), "abcdefghij");
}

TEST_F(RedirectedFile, AddSegment_IndexOnAFullDisk_FailsAndTakesAllBack)
{
    const std::string sMount = m_folder.Path("small");
    std::filesystem::create_directory(sMount);
    ASSERT_EQ(mount("tmpfs", sMount.c_str(), "tmpfs", 0, "size=4k"), 0);
    const std::string sIndex = m_folder.Write("small/index", "");
    OpenWithIndexAt(sIndex, 4096 * GIB, 1, 1);
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 0, MIB + 26));
    const Lines vBefore = ReadRecords(sIndex);
    EXPECT_FALSE(AddSegment(m_sLetters, 0, 2 * MIB, 500 * MIB));
    EXPECT_EQ(ReadRecords(sIndex), vBefore);
    EXPECT_EQ(Read(3 * MIB, 5), ".....");
    EXPECT_TRUE(AddSegment(m_sDigits, 0, 2 * MIB, 5));
    EXPECT_EQ(ReadRecords(sIndex).back(), "1 0 2097152 5");

    // nor did check points stay of what was taken back
    m_pFile->ExportInfo(&m_param, m_folder.Write("listing", "").c_str(), true);
    EXPECT_EQ(ReadWholeFile(m_folder.Path("listing")).substr(0, 106),
              "--> CheckPoint Segment fox=32, ox=1048576\n"
              "--> CheckPoint Segment fox=64, ox=2097152\n"
              "-------------------\n--");
    EXPECT_EQ(Read(2 * MIB, 5), "01234");
    m_pFile->Close(&m_param);
    EXPECT_EQ(umount(sMount.c_str()), 0);
}

// A record cut short in the middle would shift all that follow.
TEST_F(RedirectedFile, AddSegment_RecordCutShort_IsTakenBack)
{
    OpenWithIndex(GIB, 1, 1);
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 0, 10));
    SetBits(LOG_CONTROL_ERROR);
    {
        const CFileSizeLimit limit(100);
        EXPECT_FALSE(AddSegment(m_sDigits, 0, MIB, 10 * MIB));
    }
    EXPECT_EQ(m_recorder.Lines(), Lines{});
    EXPECT_EQ(Records(), (Lines{"0 0 0 10"}));
    EXPECT_TRUE(AddSegment(m_sLetters, 10, MIB, 10));
    EXPECT_EQ(Records(), (Lines{"0 0 0 10", "0 10 1048576 10"}));
    EXPECT_EQ(Read(MIB, 10), "klmnopqrst");
    EXPECT_EQ(Read(0, 10), "abcdefghij");
}

// Where even that fails, at least nothing goes astray.
TEST_F(RedirectedFile, AddSegment_RecordsThatCannotBeTakenBack_AreReported)
{
    const CAutoFd file(memfd_create("index", MFD_ALLOW_SEALING | MFD_CLOEXEC));
    ASSERT_EQ(fcntl(file.Get(), F_ADD_SEALS, F_SEAL_SHRINK), 0);
    const std::string sIndex = "/proc/self/fd/" + std::to_string(file.Get());
    OpenWithIndexAt(sIndex, GIB, 1);
    SetBits(LOG_CONTROL_ERROR);
    {
        const CFileSizeLimit limit(40);
        EXPECT_FALSE(AddSegment(m_sDigits, 0, 0, 10 * MIB));
    }
    EXPECT_EQ(m_recorder.Lines(), Lines{"error|host|[" + std::string(ADD) +
                                        "] Cannot take back records of \"" + sIndex + "\""});
    EXPECT_TRUE(AddSegment(m_sLetters, 0, MIB, 10));
    EXPECT_EQ(Read(0, 5), "01234");
    EXPECT_EQ(Read(MIB, 5), ".....");  // its record does not stand where records stand
    m_pFile.reset();
}

// Outside exports a read opens the index for reading only, and then nothing can be written.
TEST_F(RedirectedFile, AddSegment_IndexOpenForReadingOnly_Fails)
{
    m_utilities.RemoveAllMountInfo();
    OpenWithIndex(100);
    EXPECT_EQ(Read(0, 5), ".....");
    EXPECT_FALSE(AddSegment(m_sLetters, 0, 0, 10));
    EXPECT_EQ(Records(), Lines{});
    m_utilities.CloseCachedFileHandle(&m_param, &m_argu, m_sIndex.c_str());
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 0, 10));
    EXPECT_EQ(Read(0, 5), "abcde");
}

// ---- Looking up ----

TEST_F(RedirectedFile, GetSegment_InMemory_CountsPlaces)
{
    OpenInMemory(100);
    AddSegment(m_sLetters, 0, 0, 10);
    AddSegment(m_sDigits, 3, 20, 10);
    ProcSegment cursor;
    m_pFile->GetSegment(&m_param, 25, &cursor);
    EXPECT_EQ(cursor.index, 1);
    EXPECT_EQ(GetText(cursor.segment), "1 3 20 10");
    m_pFile->GetSegment(&m_param, 9, &cursor);
    EXPECT_EQ(cursor.index, 0);
    m_pFile->GetNextSegment(&m_param, &cursor);
    EXPECT_EQ(cursor.index, 1);
    EXPECT_EQ(GetText(cursor.segment), "1 3 20 10");
    m_pFile->GetNextSegment(&m_param, &cursor);
    EXPECT_EQ(cursor.index, -1);
    m_pFile->GetNextSegment(&m_param, &cursor);
    EXPECT_EQ(cursor.index, -1);
    for (const long long iOffset : {10LL, 19LL, 30LL, 100LL, -1LL, HIGHEST, LOWEST}) {
        cursor.index = 5;
        m_pFile->GetSegment(&m_param, iOffset, &cursor);
        EXPECT_EQ(cursor.index, -1) << iOffset;
    }
}

TEST_F(RedirectedFile, GetSegment_WithIndex_MarksWithTheOffset)
{
    OpenWithIndex(100);
    AddSegment(m_sLetters, 0, 0, 10);
    AddSegment(m_sDigits, 3, 20, 10);
    AddSegment(m_sDigits, 3, 50, 10);
    ProcSegment cursor;
    m_pFile->GetSegment(&m_param, 25, &cursor);
    EXPECT_EQ(cursor.index, 20);
    EXPECT_EQ(GetText(cursor.segment), "1 3 20 10");
    m_pFile->GetNextSegment(&m_param, &cursor);
    EXPECT_EQ(cursor.index, 21);
    EXPECT_EQ(GetText(cursor.segment), "1 3 50 10");
    m_pFile->GetNextSegment(&m_param, &cursor);
    EXPECT_EQ(cursor.index, -1);
    for (const long long iOffset : {10LL, 60LL, 100LL, -1LL, HIGHEST}) {
        cursor.index = 5;
        m_pFile->GetSegment(&m_param, iOffset, &cursor);
        EXPECT_EQ(cursor.index, -1) << iOffset;
    }
}

TEST_F(RedirectedFile, Overlap_BelongsToTheFirstAdded)
{
    for (const bool bIndex : {false, true}) {
        bIndex ? OpenWithIndex(100) : OpenInMemory(100);
        AddSegment(m_sLetters, 0, 20, 10);
        AddSegment(m_sDigits, 0, 25, 10);
        AddSegment(m_sLetters, 10, 0, 100);
        EXPECT_EQ(Read(25, 5), "fghij");
        EXPECT_EQ(Read(30, 5), "56789");
        EXPECT_EQ(Read(2, 5), "mnopq");
    }
}

// Kept: the search starts where the record stood if every granule had one.
TEST_F(RedirectedFile, GranulesWithoutRecord_HideWhatFollows)
{
    OpenWithIndex(GIB, 1);
    AddSegment(m_sLetters, 0, 5 * MIB, 10);
    EXPECT_EQ(Read(5 * MIB, 5), ".....");
    for (int i = 0; i < 5; i++)
        AddSegment("", 0, i * MIB, 1);
    AddSegment(m_sDigits, 0, 5 * MIB, 10);
    EXPECT_EQ(Read(5 * MIB, 5), "01234");
}

TEST_F(RedirectedFile, CheckPoint_FindsWhatGranulesWithoutRecordHide)
{
    OpenWithIndex(GIB, 1, 4);
    AddSegment(m_sLetters, 0, 3 * MIB, 10);
    AddSegment(m_sLetters, 10, 4 * MIB, MIB + 10);
    AddSegment(m_sLetters, 20, 7 * MIB, 5);
    EXPECT_EQ(Read(3 * MIB, 5), ".....");  // in front of the first check point
    EXPECT_EQ(Read(4 * MIB, 5), "klmno");
    EXPECT_EQ(Walk(5 * MIB), (Lines{"0 1048586 5242880 10", "0 20 7340032 5"}));
    EXPECT_EQ(Read(7 * MIB, 5), ".....");  // counted on from the check point
}

// Kept: where they do not ascend, the last in the list counts that does not lie behind.
TEST_F(RedirectedFile, CheckPointsOutOfOrder_TheLastAddedCounts)
{
    OpenWithIndex(GIB, 1, 1);
    AddSegment(m_sLetters, 0, 5 * MIB, 2 * MIB);
    EXPECT_EQ(Read(5 * MIB, 5), "abcde");
    AddSegment(m_sDigits, 0, 2 * MIB, MIB);
    EXPECT_EQ(Read(2 * MIB, 5), "01234");
    EXPECT_EQ(Read(5 * MIB, 5), ".....");  // searched behind the last check point
    AddSegment(m_sDigits, 5, 5 * MIB, MIB);
    EXPECT_EQ(Read(5 * MIB, 5), "56789");
    EXPECT_EQ(Read(2 * MIB, 5), "01234");
}

// ---- Closing ----

TEST_F(RedirectedFile, Close_ForgetsAllAndClosesIndexAndSources)
{
    OpenWithIndex(100);
    AddSegment(m_sLetters, 0, 0, 10);
    AddSegment(m_sDigits, 0, 10, 10);
    EXPECT_EQ(Read(5, 10), "fghij01234");
    EXPECT_EQ(CountDescriptors(), m_iDescriptors + 3);
    SetBits(LOG_CONTROL_FILE_ACCESS);
    m_pFile->Close(&m_param);
    EXPECT_EQ(m_recorder.Lines(),
              MakeLines("RedirectedFile.Close", {"OS close file \"" + m_sIndex + "\"",
                                                 "OS close file \"" + m_sLetters + "\"",
                                                 "OS close file \"" + m_sDigits + "\""}));
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
    SetBits(0);
    EXPECT_EQ(Read(5, 10), "..........");
    EXPECT_EQ(Walk(), Lines{});
    EXPECT_EQ(m_pFile->GetFileSize(), 100);
    EXPECT_EQ(Records().size(), 2U);  // the index stays as it is
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
}

TEST_F(RedirectedFile, Close_InMemory_ForgetsTheSegments)
{
    for (const bool bOrdered : {true, false}) {
        OpenInMemory(100);
        AddSegment(m_sLetters, 0, bOrdered ? 0 : 50, 10);
        AddSegment(m_sLetters, 0, bOrdered ? 50 : 0, 10);
        EXPECT_EQ(Read(0, 5), "abcde");
        m_pFile->Close(&m_param);
        for (const long long iOffset : {0LL, 50LL}) {
            EXPECT_EQ(Walk(iOffset), Lines{});
            EXPECT_EQ(Read(iOffset, 5), ".....");
        }
    }
}

// What is added to a closed file, its host's mistake, shows that the second time does nothing.
TEST_F(RedirectedFile, Close_Again_DoesNothing)
{
    OpenInMemory(100);
    AddSegment(m_sLetters, 0, 0, 10);
    m_pFile->Close(&m_param);
    AddSegment(m_sLetters, 5, 0, 10);
    EXPECT_EQ(Read(0, 5), "fghij");
    m_pFile->Close(&m_param);
    EXPECT_EQ(Read(0, 5), "fghij");
}

TEST_F(RedirectedFile, Destructor_Closes)
{
    OpenWithIndex(100);
    AddSegment(m_sLetters, 0, 0, 10);
    EXPECT_EQ(Read(0, 5), "abcde");
    EXPECT_EQ(CountDescriptors(), m_iDescriptors + 2);
    SetBits(0x3FF);
    m_pFile.reset();
    EXPECT_EQ(m_recorder.Lines(), Lines{});
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
}
