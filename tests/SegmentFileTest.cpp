#include "SegmentFile.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "ClockTick.h"
#include "UtilitiesFixture.h"

namespace {

constexpr int64_t RECORD = sizeof(Segment);
constexpr int64_t LOWEST = std::numeric_limits<int64_t>::min();
constexpr int64_t HIGHEST = std::numeric_limits<int64_t>::max();

class SegmentFile : public CUtilitiesFixture {
protected:
    static Segment MakeSegment(int64_t iOffset, int64_t iLength, int32_t iSource = 0)
    {
        Segment segment;
        segment.iSource = iSource;
        segment.iOffset = iOffset;
        segment.iLength = iLength;
        return segment;
    }

    // As the server appends records: through the object.
    void Append(const std::vector<Segment>& vSegments)
    {
        m_segmentFile.BeginAppend(m_file.Get());
        for (const Segment& segment : vSegments)
            m_segmentFile.Append(segment);
        Put(GetSize(), vSegments);
        m_segmentFile.EndAppend(m_file.Get(), true);
    }

    // As anybody else writes them: behind its back.
    void Put(int64_t iPosition, const std::vector<Segment>& vSegments) const
    {
        const size_t iBytes = vSegments.size() * sizeof(Segment);
        ASSERT_EQ(pwrite(m_file.Get(), vSegments.data(), iBytes, iPosition),
                  static_cast<ssize_t>(iBytes));
    }
    int64_t GetSize() const { return static_cast<int64_t>(std::filesystem::file_size(m_sFile)); }

    // The place of the record that is found, counted in records; -1 if there is none.
    int64_t Find(int64_t iOffset, int64_t iStartRecord = 0)
    {
        const bool bFound = m_segmentFile.Find(&m_param, &m_argu, m_file.Get(),
                                               iStartRecord * RECORD, iOffset, &m_cursor);
        return bFound ? m_cursor.iNextRecord / RECORD - 1 : -1;
    }
    bool ReadNext() { return m_segmentFile.ReadNext(&m_param, &m_argu, m_file.Get(), &m_cursor); }

    // The reads that a search costs.
    size_t CountReads(int64_t iOffset)
    {
        m_param.SetLogControl(LOG_CONTROL_FILE_ACCESS);
        m_recorder.Clear();
        EXPECT_NE(Find(iOffset), -1);
        m_param.SetLogControl(0);
        return m_recorder.Count("OS read file");
    }

    const std::string m_sFile = m_folder.Write("index", "");
    const CAutoFd m_file{open(m_sFile.c_str(), O_RDWR | O_CLOEXEC)};
    CSegmentFile m_segmentFile{&m_utilities};
    ProcSegment m_cursor;
};

std::vector<Segment> MakeMany(int64_t iCount)
{
    std::vector<Segment> vSegments(static_cast<size_t>(iCount));
    for (int64_t i = 0; i < iCount; i++) {
        vSegments[static_cast<size_t>(i)].iSource = static_cast<int32_t>(i);
        vSegments[static_cast<size_t>(i)].iOffset = i * 10;
        vSegments[static_cast<size_t>(i)].iLength = 9;
    }
    return vSegments;
}

}  // namespace

TEST_F(SegmentFile, EmptyFile_ContainsNothing)
{
    m_cursor.index = 5;
    m_cursor.iNextRecord = 64;
    EXPECT_FALSE(m_segmentFile.Find(&m_param, &m_argu, m_file.Get(), 0, 0, &m_cursor));
    EXPECT_EQ(m_cursor.index, 5);  // as it was
    EXPECT_EQ(m_cursor.iNextRecord, 64);
    EXPECT_FALSE(ReadNext());
}

TEST_F(SegmentFile, NoFile_ContainsNothing)
{
    EXPECT_FALSE(m_segmentFile.Find(&m_param, &m_argu, -1, 0, 0, &m_cursor));
    EXPECT_FALSE(m_segmentFile.ReadNext(&m_param, &m_argu, -1, &m_cursor));
}

TEST_F(SegmentFile, ForeignRecords_TheFirstFromTheStartCounts)
{
    Put(0, {MakeSegment(10, 10), MakeSegment(0, 100), MakeSegment(12, 2), MakeSegment(10, 10)});
    EXPECT_EQ(Find(12), 0);
    EXPECT_EQ(Find(12, 1), 1);
    EXPECT_EQ(Find(12, 2), 2);
    EXPECT_EQ(Find(12, 3), 3);
    EXPECT_EQ(Find(12, 4), -1);
    EXPECT_EQ(Find(5), 1);
    EXPECT_EQ(Find(5, 2), -1);
    EXPECT_EQ(Find(100), -1);
}

TEST_F(SegmentFile, OwnRecords_AreFoundAndWalked)
{
    Append({MakeSegment(0, 10, 1), MakeSegment(10, 10, 2)});
    Append({MakeSegment(30, 10, 3)});
    EXPECT_EQ(Find(9), 0);
    EXPECT_EQ(m_cursor.segment.iSource, 1);
    EXPECT_TRUE(ReadNext());
    EXPECT_EQ(m_cursor.segment.iSource, 2);
    EXPECT_TRUE(ReadNext());
    EXPECT_EQ(m_cursor.segment.iSource, 3);
    EXPECT_FALSE(ReadNext());
    EXPECT_EQ(m_cursor.segment.iSource, 3);  // as it was
    EXPECT_EQ(Find(20), -1);
    EXPECT_EQ(Find(29), -1);
    EXPECT_EQ(Find(39), 2);
    EXPECT_EQ(Find(40), -1);
    EXPECT_EQ(Find(15, 1), 1);
    EXPECT_EQ(Find(15, 2), -1);  // nobody looks in front of the start
    EXPECT_EQ(Find(39, 99), -1);
}

// Also where the search before it found that very record.
TEST_F(SegmentFile, RecordFoundBefore_IsNotFoundFromBehindIt)
{
    Append({MakeSegment(0, 10), MakeSegment(10, 10)});
    EXPECT_EQ(Find(5), 0);
    EXPECT_EQ(Find(5, 1), -1);
    EXPECT_EQ(Find(5), 0);
}

TEST_F(SegmentFile, AppendedAfterASearch_IsFound)
{
    Append({MakeSegment(0, 10)});
    EXPECT_EQ(Find(5), 0);
    EXPECT_EQ(Find(15), -1);
    EXPECT_FALSE(m_segmentFile.ReadNext(&m_param, &m_argu, m_file.Get(), &m_cursor));
    Append({MakeSegment(10, 10)});
    EXPECT_TRUE(ReadNext());
    EXPECT_EQ(Find(15), 1);
    EXPECT_EQ(Find(5), 0);
}

TEST_F(SegmentFile, RecordsOutOfOrderOrOverlapping_AreFoundAsOneByOne)
{
    Append({MakeSegment(0, 10), MakeSegment(20, 10)});
    Append({MakeSegment(25, 20)});
    EXPECT_EQ(Find(27), 1);
    EXPECT_EQ(Find(27, 2), 2);
    EXPECT_EQ(Find(44), 2);
    Append({MakeSegment(0, 100)});
    EXPECT_EQ(Find(5), 0);
    EXPECT_EQ(Find(15), 3);
    EXPECT_EQ(Find(5, 1), 3);
}

TEST_F(SegmentFile, RandomRecords_AreFoundAsOneByOne)
{
    std::mt19937 random(1);
    const auto Pick = [&random](int64_t iLimit) { return static_cast<int64_t>(random()) % iLimit; };
    for (int iList = 0; iList < 40; iList++) {
        m_segmentFile.Clear();
        ASSERT_EQ(ftruncate(m_file.Get(), 0), 0);
        const bool bOrdered = iList % 2 == 0;
        std::vector<Segment> vAll;
        int64_t iEnd = 0;
        while (vAll.size() < 5000) {
            std::vector<Segment> vNew(static_cast<size_t>(1 + Pick(800)));
            for (Segment& segment : vNew) {
                segment = MakeSegment(iEnd + Pick(3), 1 + Pick(3));
                if (!bOrdered && Pick(100) == 0)
                    segment.iOffset = Pick(5000);
                iEnd = segment.iOffset + segment.iLength;
            }
            Append(vNew);
            vAll.insert(vAll.end(), vNew.begin(), vNew.end());
            for (int i = 0; i < 20; i++) {
                const int64_t iOffset = Pick(iEnd + 10);
                const int64_t iStart = Pick(2) == 0 ? 0 : Pick(static_cast<int64_t>(vAll.size()));
                const auto found =
                    std::find_if(vAll.begin() + iStart, vAll.end(),
                                 [=](const Segment& segment) { return segment.Contains(iOffset); });
                ASSERT_EQ(Find(iOffset, iStart), found == vAll.end() ? -1 : found - vAll.begin())
                    << iList;
            }
        }
    }
}

// ---- What it costs ----

TEST_F(SegmentFile, OwnRecordsInOrder_AreFoundWithFewReads)
{
    constexpr int64_t COUNT = 300'000;
    Append(MakeMany(COUNT));
    for (const int64_t i : {int64_t{0}, COUNT / 3, COUNT / 2, COUNT - 1}) {
        EXPECT_LE(CountReads(i * 10), 12U);  // the halvings to 1,024 records, and those
        EXPECT_EQ(m_cursor.segment.iSource, i);
        EXPECT_EQ(CountReads(i * 10 + 8), 0U);  // where a sequential reader goes on
    }
}

TEST_F(SegmentFile, OtherRecords_AreReadInLargePieces)
{
    constexpr int64_t COUNT = 300'000;
    Put(0, MakeMany(COUNT));
    EXPECT_EQ(CountReads((COUNT - 1) * 10), static_cast<size_t>(COUNT + 1023) / 1024);
}

TEST_F(SegmentFile, Walk_ReadsInLargePieces)
{
    constexpr int64_t COUNT = 5000;
    Append(MakeMany(COUNT));
    EXPECT_EQ(Find(0), 0);
    m_param.SetLogControl(LOG_CONTROL_FILE_ACCESS);
    for (int64_t i = 1; i < COUNT; i++) {
        ASSERT_TRUE(ReadNext());
        ASSERT_EQ(m_cursor.segment.iSource, i);
    }
    EXPECT_LE(m_recorder.Count("OS read file"), 5U);
}

// ---- Somebody else writes it ----

TEST_F(SegmentFile, NotEmptyWhenTheFirstIsAppended_IsSearchedFromTheStart)
{
    Put(0, {MakeSegment(100, 10)});
    Append({MakeSegment(0, 10), MakeSegment(10, 10)});
    EXPECT_EQ(Find(105), 0);
    EXPECT_EQ(Find(5), 1);
}

TEST_F(SegmentFile, ChangedRecord_CountsAsItIsNow)
{
    Append({MakeSegment(0, 10), MakeSegment(10, 10), MakeSegment(20, 10)});
    EXPECT_EQ(Find(5), 0);  // known from here on
    WaitForClockTick(m_file.Get());
    Put(0, {MakeSegment(20, 10), MakeSegment(5, 1)});
    EXPECT_EQ(Find(5), 1);
    EXPECT_EQ(Find(25), 0);
    EXPECT_EQ(Find(0), -1);
    Append({MakeSegment(0, 3)});
    EXPECT_EQ(Find(0), 3);
    EXPECT_EQ(Find(25), 0);
}

TEST_F(SegmentFile, ChangedBetweenTwoAppends_CountsAsItIsNow)
{
    Append({MakeSegment(0, 10), MakeSegment(10, 10)});
    WaitForClockTick(m_file.Get());
    Put(0, {MakeSegment(10, 5)});
    Append({MakeSegment(20, 10)});
    EXPECT_EQ(Find(12), 0);
    EXPECT_EQ(Find(5), -1);
}

TEST_F(SegmentFile, AppendedBySomebodyElse_IsFound)
{
    Append({MakeSegment(0, 10)});
    EXPECT_EQ(Find(5), 0);
    Put(RECORD, {MakeSegment(0, 20)});
    EXPECT_EQ(Find(5), 0);
    EXPECT_EQ(Find(15), 1);
}

TEST_F(SegmentFile, CutFile_LosesWhatIsNotWhole)
{
    Append({MakeSegment(0, 10), MakeSegment(10, 10)});
    EXPECT_EQ(Find(15), 1);
    ASSERT_EQ(ftruncate(m_file.Get(), 2 * RECORD - 1), 0);
    EXPECT_EQ(Find(15), -1);
    EXPECT_EQ(Find(5), 0);
    EXPECT_FALSE(ReadNext());
    ASSERT_EQ(ftruncate(m_file.Get(), 0), 0);
    EXPECT_EQ(Find(5), -1);
}

// What was read while it was somebody else's is not what stands there later.
TEST_F(SegmentFile, EmptiedBeforeTheFirstAppend_IsForgotten)
{
    Put(0, {MakeSegment(0, 10, 8), MakeSegment(10, 10, 9)});
    EXPECT_EQ(Find(5), 0);
    ASSERT_EQ(ftruncate(m_file.Get(), 0), 0);
    Append({MakeSegment(0, 5, 1), MakeSegment(7, 10, 2)});
    EXPECT_EQ(Find(8), 1);
    EXPECT_EQ(m_cursor.segment.iSource, 2);
    EXPECT_EQ(Find(3), 0);
    EXPECT_EQ(m_cursor.segment.iSource, 1);
    EXPECT_EQ(Find(6), -1);
}

// The host tries again what a full disk refused.
TEST_F(SegmentFile, RecordsThatWereTakenBack_LeaveTheOrderAsItWas)
{
    constexpr int64_t COUNT = 300'000;
    Append(MakeMany(COUNT));
    for (int i = 0; i < 2; i++) {
        m_segmentFile.BeginAppend(m_file.Get());
        m_segmentFile.Append(MakeSegment(COUNT * 10, 10));
        m_segmentFile.EndAppend(m_file.Get(), false);
    }
    Append({MakeSegment(COUNT * 10, 10, 7)});
    EXPECT_LE(CountReads(COUNT * 10), 12U);
    EXPECT_EQ(m_cursor.segment.iSource, 7);
}

// Bytes that belong to no record shift all that follow.
TEST_F(SegmentFile, PartOfARecordBetweenTwoAppends_ShiftsWhatFollows)
{
    Append({MakeSegment(0, 10)});
    m_segmentFile.BeginAppend(m_file.Get());
    ASSERT_EQ(pwrite(m_file.Get(), "\1\0\0\0\0\0\0\0", 8, RECORD), 8);  // of a write cut short
    m_segmentFile.EndAppend(m_file.Get(), true);
    for (int64_t i = 1; i < 3000; i++)
        Append({MakeSegment(i * 10, 10)});
    const std::string sBytes = ReadWholeFile(m_sFile);
    for (int64_t iOffset = 0; iOffset < 30000; iOffset += 111) {
        int64_t iExpected = -1;
        for (size_t i = 0; iExpected == -1 && (i + 1) * sizeof(Segment) <= sBytes.size(); i++) {
            Segment segment;
            memcpy(&segment, sBytes.data() + i * sizeof(Segment), sizeof(segment));
            if (segment.Contains(iOffset))
                iExpected = static_cast<int64_t>(i);
        }
        ASSERT_EQ(Find(iOffset), iExpected) << iOffset;
    }
}

TEST_F(SegmentFile, GarbageValues_ContainWhatTheyContain)
{
    Put(0, {MakeSegment(HIGHEST, HIGHEST), MakeSegment(LOWEST, HIGHEST), MakeSegment(5, LOWEST),
            MakeSegment(LOWEST, LOWEST), MakeSegment(LOWEST, -1), MakeSegment(7, HIGHEST)});
    EXPECT_EQ(Find(LOWEST), 1);
    EXPECT_EQ(Find(-2), 1);
    EXPECT_EQ(Find(-1), -1);
    EXPECT_EQ(Find(0), -1);
    EXPECT_EQ(Find(7), 5);
    EXPECT_EQ(Find(HIGHEST - 1), 5);
    EXPECT_EQ(Find(HIGHEST), 0);
    Append({MakeSegment(HIGHEST, HIGHEST), MakeSegment(0, 7)});
    EXPECT_EQ(Find(0), 7);
}

TEST_F(SegmentFile, AppendedRecordThatEndsBehindAllOffsets_EndsTheOrder)
{
    Append({MakeSegment(100, HIGHEST), MakeSegment(0, 10), MakeSegment(10, 10)});
    EXPECT_EQ(Find(5), 1);
    EXPECT_EQ(Find(15), 2);
    EXPECT_EQ(Find(100), 0);
}

TEST_F(SegmentFile, PositionsThatNoFileHas_ContainNothing)
{
    Append({MakeSegment(0, 10)});
    EXPECT_FALSE(m_segmentFile.Find(&m_param, &m_argu, m_file.Get(), -RECORD * 100, 50, &m_cursor));
    EXPECT_EQ(Find(5, int64_t{1} << 57), -1);
    m_cursor.iNextRecord = -RECORD;
    EXPECT_FALSE(ReadNext());
}

TEST_F(SegmentFile, Clear_ForgetsTheFile)
{
    Append({MakeSegment(0, 10), MakeSegment(10, 10)});
    EXPECT_EQ(Find(5), 0);
    m_segmentFile.Clear();
    const CAutoFd other(open(m_folder.Write("other", "").c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_FALSE(m_segmentFile.Find(&m_param, &m_argu, other.Get(), 0, 5, &m_cursor));
    m_cursor.iNextRecord = 0;
    EXPECT_FALSE(m_segmentFile.ReadNext(&m_param, &m_argu, other.Get(), &m_cursor));
}
