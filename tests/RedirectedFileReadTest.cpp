// Reading redirected files, also from sources and with index files that are not as they should be.
#include "RedirectedFile.h"

#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "ClockTick.h"
#include "RedirectedFileFixture.h"

namespace {

constexpr long long HIGHEST = std::numeric_limits<long long>::max();
constexpr long long LOWEST = std::numeric_limits<long long>::min();

using RedirectedFileRead = CRedirectedFileFixture;

// What an index file is made of: any values at all.
class RedirectedFileGarbage : public CRedirectedFileFixture {
protected:
    // Opens a file whose index holds these records, with a granule of 1 MiB.
    void OpenWithRecords(long long iSize, const std::vector<Segment>& vRecords)
    {
        OpenWithIndex(iSize, 1);
        m_folder.Write("index", std::string(reinterpret_cast<const char*>(vRecords.data()),
                                            vRecords.size() * sizeof(Segment)));
        AddSegment(m_sLetters, 0, HIGHEST, 0);  // refused, but now it is source 0
    }
    static Segment MakeRecord(long long iSourceOffset, long long iOffset, long long iLength,
                              int iSource = 0)
    {
        Segment segment;
        segment.iSource = iSource;
        segment.iFileOffset = iSourceOffset;
        segment.iOffset = iOffset;
        segment.iLength = iLength;
        return segment;
    }
};

}  // namespace

// ---- Reading ----

TEST_F(RedirectedFileRead, Read_GapInside_IsLeftOut)
{
    for (const bool bIndex : {false, true}) {
        bIndex ? OpenWithIndex(100) : OpenInMemory(100);
        AddSegment(m_sLetters, 0, 0, 10);
        AddSegment(m_sDigits, 0, 50, 10);
        EXPECT_EQ(Read(5, 10), "fghij01234");
        EXPECT_EQ(Read(0, 20), "abcdefghij0123456789");
        // behind the last segment: up to the size, counted from where that segment ends
        EXPECT_EQ(Read(0, 100), "abcdefghij0123456789" + std::string(40, '.'));
    }
}

// The gap need not fit into what the reader has room for.
TEST_F(RedirectedFileRead, Read_GapOfTerabytesInside_IsLeftOut)
{
    OpenInMemory(8192 * GIB);
    AddSegment(m_sLetters, 0, 0, 10);
    AddSegment(m_sDigits, 0, 4096 * GIB, 10);
    EXPECT_EQ(Read(5, 10), "fghij01234");
}

TEST_F(RedirectedFileRead, Read_StartInAGap_IsZerosThroughout)
{
    for (const bool bIndex : {false, true}) {
        bIndex ? OpenWithIndex(100) : OpenInMemory(100);
        AddSegment(m_sLetters, 0, 0, 10);
        AddSegment(m_sDigits, 0, 15, 10);
        EXPECT_EQ(Read(12, 10), "..........");
        EXPECT_EQ(Read(12, 95), std::string(88, '.') + "+");
    }
}

TEST_F(RedirectedFileRead, Read_BehindTheLastSegment_IsZerosUpToTheSize)
{
    OpenInMemory(100);
    AddSegment(m_sLetters, 0, 0, 10);
    EXPECT_EQ(Read(50, 10), "..........");
    EXPECT_EQ(Read(5, 10), "fghij.....");
    EXPECT_EQ(Read(5, 200), "fghij" + std::string(90, '.') + "+");
}

// A reply never carries more than was asked for.
TEST_F(RedirectedFileRead, Read_Tail_IsHeldToTheRoomLeft)
{
    OpenInMemory(GIB);
    AddSegment(m_sLetters, 0, 0, 26);
    EXPECT_EQ(Read(20, 10), "uvwxyz....");
    EXPECT_EQ(Read(25, 2), "z.");
}

TEST_F(RedirectedFileRead, Read_TailOfTerabytes_FillsWhatIsAskedFor)
{
    for (const long long iRest : {2 * GIB, 4 * GIB, 4096 * GIB}) {
        OpenInMemory(26 + iRest);
        AddSegment(m_sLetters, 0, 0, 26);
        EXPECT_EQ(Read(25, 5), "z....");
        EXPECT_EQ(Read(26, 5), ".....");
    }
}

// Kept: what the read before this one reached decides on the zeros.
TEST_F(RedirectedFileRead, Read_AfterTheEnd_GetsNoZerosOnce)
{
    OpenInMemory(100);
    AddSegment(m_sLetters, 0, 0, 10);
    AddSegment(m_sDigits, 0, 90, 10);
    EXPECT_EQ(Read(90, 10), "0123456789+");
    EXPECT_EQ(Read(50, 10), "");
    EXPECT_EQ(Read(50, 10), "..........");
    EXPECT_EQ(Read(95, 10), "56789+");
    EXPECT_EQ(Read(92, 5), "23456");
    EXPECT_EQ(Read(95, 10), "56789+");
    EXPECT_EQ(Read(5, 20), "fghij0123456789");  // in front of the end, by the count of bytes
}

TEST_F(RedirectedFileRead, Read_AtOrBehindTheSize_IsTheEndOnlyAfterTheEnd)
{
    OpenInMemory(10);
    AddSegment(m_sLetters, 0, 0, 10);
    EXPECT_EQ(Read(10, 5), "-1");
    EXPECT_EQ(Read(HIGHEST, 5), "-1");
    EXPECT_EQ(Read(5, 5), "fghij+");
    EXPECT_EQ(Read(10, 5), "+");
    EXPECT_EQ(Read(HIGHEST, 5), "+");
    EXPECT_EQ(Read(0, 5), "abcde");
    EXPECT_EQ(Read(10, 5), "-1");
}

TEST_F(RedirectedFileRead, Read_NoBytes_YieldsNone)
{
    OpenInMemory(10);
    EXPECT_EQ(Read(5, 0), "");
    AddSegment(m_sLetters, 0, 0, 10);
    EXPECT_EQ(Read(5, 0), "");
    EXPECT_EQ(Read(9, 1), "j+");
    EXPECT_EQ(Read(5, 0), "");
    EXPECT_EQ(Read(10, 0), "-1");
}

TEST_F(RedirectedFileRead, Read_BelowZero_IsZeros)
{
    OpenInMemory(10);
    AddSegment(m_sLetters, 0, 0, 10);
    EXPECT_EQ(Read(-5, 5), ".....");
}

TEST_F(RedirectedFileRead, Read_OutOfOrder_GoesOnInTheOrderOfAddition)
{
    for (const bool bIndex : {false, true}) {
        bIndex ? OpenWithIndex(100) : OpenInMemory(100);
        AddSegment(m_sDigits, 0, 10, 10);
        AddSegment(m_sLetters, 0, 0, 10);
        EXPECT_EQ(Read(0, 20), "abcdefghij..........");
        EXPECT_EQ(Read(10, 20), "0123456789");  // the next one ends before it
    }
}

// The next segment in the list begins before the place that is reached, but ends behind it.
TEST_F(RedirectedFileRead, Read_NextOverlaps_GoesOnInsideIt)
{
    OpenInMemory(100);
    AddSegment(m_sDigits, 0, 10, 5);
    AddSegment(m_sLetters, 0, 0, 26);
    EXPECT_EQ(Read(10, 10), "01234pqrst");
}

TEST_F(RedirectedFileRead, Read_SegmentOfNegativeLengthOnTheWay_EndsTheRead)
{
    OpenInMemory(100);
    AddSegment(m_sLetters, 0, 0, 5);
    AddSegment(m_sLetters, 0, 5, 0);  // but this one does not
    AddSegment(m_sDigits, 0, 5, 5);
    AddSegment(m_sLetters, 0, 10, -1);
    AddSegment(m_sDigits, 0, 10, 5);
    EXPECT_EQ(Read(0, 20), "abcde01234");
    EXPECT_EQ(Read(10, 5), "01234");
}

TEST_F(RedirectedFileRead, Read_ManySegments_AreOneAfterTheOther)
{
    for (const bool bIndex : {false, true}) {
        bIndex ? OpenWithIndex(GIB) : OpenInMemory(GIB);
        std::string sExpected;
        for (int i = 0; i < 3000; i++) {
            AddSegment(i % 2 == 0 ? m_sLetters : m_sDigits, i % 10, i * 3, 3);
            sExpected += i % 2 == 0
                             ? std::string("abcdefghijklmnopqrstuvwxyz")
                                   .substr(static_cast<size_t>(i % 10), 3)
                             : std::string("0123456789...").substr(static_cast<size_t>(i % 10), 3);
        }
        EXPECT_EQ(Read(0, 9000), sExpected);
        for (unsigned int i = 0; i < 8990; i += 97)
            ASSERT_EQ(Read(i, 10), sExpected.substr(i, 10)) << i;
    }
}

TEST_F(RedirectedFileRead, Read_WritesWhatItDoes)
{
    OpenInMemory(5'000'000'000);
    AddSegment(m_sLetters, 3, 0, 10);
    AddSegment("", 0, 14, 5);
    AddSegment(m_sMissing, 7, 19, 5);
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ(Read(5, 13), "ijklm........");
    Lines vLines = m_recorder.Lines();
    std::erase_if(vLines, [](const std::string& sLine) {
        return sLine.find(" OS ") != std::string::npos || sLine.find(" open ") != std::string::npos;
    });
    EXPECT_EQ(vLines, MakeLines("RedirectedFile.Read",
                                {"Segment (7) path:" + m_sLetters + ", fox:5, len:5 (seek:8)",
                                 "Fill missing segment len:4",
                                 "Segment (7) path:Null, fox:5, len:5 (seek:0)",
                                 "Segment (7) path:" + m_sMissing + ", fox:5, len:3 (seek:7)",
                                 "Eof=F, ox=18, size=5000000000"}));
}

TEST_F(RedirectedFileRead, Read_WritesTheEnd)
{
    OpenInMemory(10);
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ(Read(10, 5), "-1");
    EXPECT_EQ(Read(5, 9), ".....+");
    EXPECT_EQ(Read(11, 5), "+");
    EXPECT_EQ(m_recorder.Lines(),
              MakeLines("RedirectedFile.Read", {"Eof=F, ox=0, size=10", "Eof=T, ox=10, size=10",
                                                "Eof=T, ox=10, size=10"}));
}

// ---- Sources ----

TEST_F(RedirectedFileRead, MissingSource_IsZerosUntilItIsThere)
{
    OpenInMemory(100);
    AddSegment(m_sMissing, 0, 0, 10);
    AddSegment(m_sDigits, 0, 10, 10);
    EXPECT_EQ(Read(0, 20), "..........0123456789");
    m_folder.Write("missing", "ABCDEFGHIJ");
    EXPECT_EQ(Read(0, 20), "ABCDEFGHIJ0123456789");
}

TEST_F(RedirectedFileRead, SourceThatEndsInItsSegment_IsZerosToTheSegmentsEnd)
{
    for (const bool bIndex : {false, true}) {
        bIndex ? OpenWithIndex(100) : OpenInMemory(100);
        AddSegment(m_sDigits, 5, 0, 10);
        AddSegment(m_sLetters, 0, 10, 5);
        AddSegment(m_sDigits, 10, 15, 5);
        AddSegment(m_sDigits, HIGHEST - 10, 20, 5);
        AddSegment(m_sLetters, 5, 25, 5);
        EXPECT_EQ(Read(0, 30), "56789.....abcde..........fghij");
        EXPECT_EQ(Read(7, 5), "...ab");
    }
}

TEST_F(RedirectedFileRead, SourceThatShrinksAndGrows_IsReadAsItIs)
{
    OpenInMemory(100);
    AddSegment(m_sLetters, 0, 0, 26);
    EXPECT_EQ(Read(0, 26), "abcdefghijklmnopqrstuvwxyz");
    std::filesystem::resize_file(m_sLetters, 3);
    EXPECT_EQ(Read(0, 26), "abc" + std::string(23, '.'));
    m_folder.Write("letters", "ABCDEF");
    EXPECT_EQ(Read(0, 26), "ABCDEF" + std::string(20, '.'));
}

// In an export everything is opened for writing too, and then neither can be opened.
TEST_F(RedirectedFileRead, SourcesThatCannotBeOpened_AreZeros)
{
    std::filesystem::create_symlink("loop", m_folder.Path("loop"));
    std::filesystem::create_symlink("nothing", m_folder.Path("dangling"));
    OpenInMemory(100);
    const Lines vSources = {m_folder.Path(),           m_folder.Path("loop"),
                            m_folder.Path("dangling"), m_folder.Path("letters/below"),
                            std::string(5000, 'x'),    "relative"};
    for (size_t i = 0; i < vSources.size(); i++)
        AddSegment(vSources[i], 0, static_cast<long long>(i) * 5, 5);
    AddSegment(m_sLetters, 0, static_cast<long long>(vSources.size()) * 5, 5);
    EXPECT_EQ(Read(0, 35), std::string(30, '.') + "abcde");
}

TEST_F(RedirectedFileRead, SourceThatCannotBeRead_EndsTheReadWithWhatThereIs)
{
    const CScratchFolder outside;  // of all exports, so that a folder can be opened
    OpenInMemory(100);
    AddSegment(m_sLetters, 0, 0, 10);
    AddSegment(outside.Path(), 0, 10, 10);
    AddSegment(m_sDigits, 0, 20, 10);
    SetBits(LOG_CONTROL_ERROR);
    EXPECT_EQ(Read(0, 30), "abcdefghij");
    EXPECT_TRUE(m_recorder.Contains("Error=Is a directory (21)"));
    EXPECT_EQ(Read(15, 10), "");
    EXPECT_EQ(Read(20, 10), "0123456789");
}

TEST_F(RedirectedFileRead, SourceThatCannotBeSought_EndsTheReadWithWhatThereIs)
{
    const std::string sPipe = m_folder.Path("pipe");
    ASSERT_EQ(mkfifo(sPipe.c_str(), 0600), 0);
    OpenInMemory(100);
    AddSegment(m_sLetters, 0, 0, 10);
    AddSegment(sPipe, 0, 10, 10);
    SetBits(LOG_CONTROL_ERROR);
    EXPECT_EQ(Read(0, 30), "abcdefghij");
    EXPECT_TRUE(m_recorder.Contains("Error=Illegal seek (29)"));
}

// A position before the start is as bad without a source as with one.
TEST_F(RedirectedFileRead, NegativeSourceOffset_EndsTheReadWithWhatThereIs)
{
    for (const std::string& sSource : {m_sDigits, m_sMissing, std::string()}) {
        OpenInMemory(100);
        AddSegment(m_sLetters, 0, 0, 10);
        AddSegment(sSource, -5, 10, 10);
        EXPECT_EQ(Read(0, 30), "abcdefghij") << sSource;
        EXPECT_EQ(Read(14, 3), "");
        EXPECT_EQ(Read(0, 5), "abcde");
    }
    AddSegment(m_sDigits, -5, 20, 10);
    EXPECT_EQ(Read(25, 5), "01234");  // from its fifth byte on it lies in the source
}

TEST_F(RedirectedFileRead, SourceOffsetsBeyond63Bits_AreZerosOrEndTheRead)
{
    OpenInMemory(100);
    AddSegment("", HIGHEST, 0, 10);
    EXPECT_EQ(Read(5, 5), ".....");
    AddSegment(m_sLetters, HIGHEST, 10, 10);
    EXPECT_EQ(Read(15, 5), "");  // the system refuses it
}

// ---- Large ----

TEST_F(RedirectedFileRead, FourTebibytes_AreReadEverywhere)
{
    constexpr long long SIZE = 4096 * GIB;
    const std::string sSource = m_folder.Write("large", "");
    std::filesystem::resize_file(sSource, SIZE + 100);
    const CAutoFd file(open(sSource.c_str(), O_WRONLY | O_CLOEXEC));
    const std::vector<long long> vPlaces = {0,           2 * GIB,    4 * GIB - 5,    4 * GIB,
                                            5 * GIB + 1, 1024 * GIB, 4095 * GIB + 7, SIZE - 10};
    for (const long long iPlace : vPlaces)
        ASSERT_EQ(pwrite(file.Get(), std::to_string(iPlace).data(), 1, iPlace + 100), 1);
    for (const bool bIndex : {false, true}) {
        bIndex ? OpenWithIndex(SIZE, 4096, 8192) : OpenInMemory(SIZE);
        for (long long iOffset = 0; iOffset < SIZE; iOffset += 512 * GIB)
            EXPECT_TRUE(AddSegment(sSource, 100 + iOffset, iOffset, 512 * GIB));
        for (const long long iPlace : vPlaces)
            EXPECT_EQ(Read(iPlace, 3), std::to_string(iPlace).substr(0, 1) + "..") << iPlace;
        EXPECT_EQ(Read(SIZE - 3, 10), "...+");
    }
    EXPECT_EQ(Records().size(), 1024U);
    EXPECT_EQ(Records()[1023], "0 4393751543908 4393751543808 4294967296");
}

TEST_F(RedirectedFileRead, ManyRecords_AreFoundAndReadOnWithoutTheIndex)
{
    constexpr long long COUNT = 200'000;
    OpenWithIndex(COUNT * MIB, 1);
    EXPECT_TRUE(AddSegment(m_sLetters, 0, 0, MIB));
    EXPECT_TRUE(AddSegment("", 0, MIB, (COUNT - 2) * MIB));
    EXPECT_TRUE(AddSegment(m_sDigits, 0, (COUNT - 1) * MIB, MIB));
    for (long long i = 1; i < COUNT - 1; i += 97) {
        ProcSegment cursor;
        m_pFile->GetSegment(&m_param, i * MIB + 5, &cursor);
        ASSERT_EQ(cursor.index, i * MIB);
        ASSERT_EQ(cursor.segment.iFileOffset, (i - 1) * MIB);
    }
    EXPECT_EQ(Read((COUNT - 1) * MIB, 5), "01234");
    SetBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ(Read((COUNT - 1) * MIB + 5, 5), "56789");
    EXPECT_EQ(m_recorder.Count("OS read file"), 1U);  // of the source
}

// ---- Garbage in the index ----

TEST_F(RedirectedFileGarbage, TruncatedIndex_EndsWithItsLastWholeRecord)
{
    OpenWithIndex(100);
    AddSegment(m_sLetters, 0, 0, 10);
    AddSegment(m_sDigits, 0, 10, 10);
    EXPECT_EQ(Read(5, 10), "fghij01234");
    std::filesystem::resize_file(m_sIndex, 63);
    EXPECT_EQ(Read(5, 10), "fghij.....");
    EXPECT_EQ(Read(10, 5), ".....");
    std::filesystem::resize_file(m_sIndex, 31);
    EXPECT_EQ(Read(5, 10), "..........");
    std::filesystem::resize_file(m_sIndex, 0);
    EXPECT_EQ(Read(5, 10), "..........");
}

TEST_F(RedirectedFileGarbage, ReplacedIndex_CountsOnceItsDescriptorIsClosed)
{
    OpenWithIndex(100);
    AddSegment(m_sLetters, 0, 0, 10);
    const Segment record = MakeRecord(10, 0, 10);
    m_folder.Write("new", std::string(reinterpret_cast<const char*>(&record), sizeof(record)));
    EXPECT_EQ(Read(0, 5), "abcde");
    std::filesystem::rename(m_folder.Path("new"), m_sIndex);
    m_utilities.CloseCachedFileHandle(&m_param, &m_argu, m_sIndex.c_str());
    EXPECT_EQ(Read(0, 5), "klmno");
}

TEST_F(RedirectedFileGarbage, ChangedIndex_CountsAtOnce)
{
    OpenWithIndex(100);
    AddSegment(m_sLetters, 0, 0, 10);
    EXPECT_EQ(Read(0, 5), "abcde");
    const CAutoFd file(open(m_sIndex.c_str(), O_WRONLY | O_CLOEXEC));
    WaitForClockTick(file.Get());
    const Segment record = MakeRecord(10, 0, 10);
    ASSERT_EQ(pwrite(file.Get(), &record, sizeof(record), 0), 32);
    EXPECT_EQ(Read(0, 5), "klmno");
}

TEST_F(RedirectedFileGarbage, SourcesThatAreNone_AreZeros)
{
    OpenWithRecords(100,
                    {MakeRecord(0, 0, 5), MakeRecord(0, 5, 5, 1), MakeRecord(0, 10, 5, -2),
                     MakeRecord(0, 15, 5, std::numeric_limits<int>::max()),
                     MakeRecord(0, 20, 5, std::numeric_limits<int>::min()), MakeRecord(5, 25, 5)});
    EXPECT_EQ(Read(0, 30), "abcde....................fghij");
}

TEST_F(RedirectedFileGarbage, NegativeOffsets_AreNoSegments)
{
    OpenWithRecords(100, {MakeRecord(0, -5, 50), MakeRecord(0, 10, 5)});
    EXPECT_EQ(Read(0, 5), ".....");  // the first that contains it, but its mark says there is none
    EXPECT_EQ(Read(12, 5), ".....");
}

TEST_F(RedirectedFileGarbage, AbsurdValues_ReadNothingOutside)
{
    const std::vector<long long> vValues = {LOWEST, LOWEST + 1, -MIB, -1,          0,
                                            1,      7,          MIB,  HIGHEST - 1, HIGHEST};
    std::vector<Segment> vRecords;
    for (const long long iSourceOffset : {LOWEST, -1LL, 0LL, HIGHEST})
        for (const long long iOffset : vValues)
            for (const long long iLength : vValues)
                vRecords.push_back(MakeRecord(iSourceOffset, iOffset, iLength));
    // so that each of them is the first, and is followed by others
    for (size_t iFirst = 0; iFirst < vRecords.size(); iFirst += 3) {
        std::rotate(vRecords.begin(), vRecords.begin() + 3, vRecords.end());
        OpenWithRecords(iFirst % 2 == 0 ? HIGHEST : 8 * MIB, vRecords);
        for (const long long iOffset : vValues)
            if (iOffset >= 0)
                Read(iOffset, 50);  // looks for itself that all stays inside
    }
}

TEST_F(RedirectedFileGarbage, LastOffsetThereIs_CanBeReached)
{
    OpenWithRecords(HIGHEST, {MakeRecord(0, 0, 2), MakeRecord(5, HIGHEST - 3, HIGHEST),
                              MakeRecord(9, HIGHEST, HIGHEST)});
    EXPECT_EQ(Read(0, 9), "abfgh");  // three bytes, and then there are no offsets any more
    EXPECT_EQ(Read(0, 4), "abfg");
}

// The mark of a place in the index is an offset, and it is counted up.
TEST_F(RedirectedFileGarbage, MarkAtTheLastOffset_GoesNoFurther)
{
    OpenWithIndex(HIGHEST, std::numeric_limits<int>::max());
    const long long iRecord = (HIGHEST - 1) / (0x7FFFFFFFLL << 20);
    const CAutoFd file(open(m_sIndex.c_str(), O_WRONLY | O_CLOEXEC));
    const std::vector<Segment> vRecords = {
        MakeRecord(0, HIGHEST - 1, 1, -1), MakeRecord(0, HIGHEST - 1, 1, -1),
        MakeRecord(0, HIGHEST - 1, 1, -1), MakeRecord(0, HIGHEST - 1, 1, -1)};
    ASSERT_EQ(pwrite(file.Get(), vRecords.data(), vRecords.size() * sizeof(Segment),
                     iRecord * static_cast<long long>(sizeof(Segment))),
              128);
    EXPECT_EQ(Walk(HIGHEST - 1).size(), 4U);
    EXPECT_EQ(Read(HIGHEST - 1, 5), ".+");
}
