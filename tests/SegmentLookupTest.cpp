#include "SegmentLookup.h"

#include <algorithm>
#include <numeric>
#include <random>

#include <gtest/gtest.h>

namespace {

constexpr int64_t LOWEST = std::numeric_limits<int64_t>::min();
constexpr int64_t HIGHEST = std::numeric_limits<int64_t>::max();

class SegmentLookup : public testing::Test {
protected:
    void Add(int64_t iOffset, int64_t iLength)
    {
        Segment segment;
        segment.iOffset = iOffset;
        segment.iLength = iLength;
        m_vSegments.push_back(segment);
        m_lookup.Add(m_vSegments);
    }
    int64_t Find(int64_t iOffset) const { return m_lookup.Find(m_vSegments, iOffset); }

    // By asking one segment after the other.
    int64_t FindOneByOne(int64_t iOffset) const
    {
        for (size_t i = 0; i < m_vSegments.size(); i++)
            if (m_vSegments[i].iOffset <= iOffset &&
                iOffset < m_vSegments[i].iOffset + m_vSegments[i].iLength)
                return static_cast<int64_t>(i);
        return -1;
    }

    std::vector<Segment> m_vSegments;
    CSegmentLookup m_lookup;
};

}  // namespace

TEST_F(SegmentLookup, Nothing_ContainsNothing)
{
    for (const int64_t iOffset : {LOWEST, int64_t{-1}, int64_t{0}, int64_t{1}, HIGHEST})
        EXPECT_EQ(Find(iOffset), -1);
}

TEST_F(SegmentLookup, OrderedSegments_HoldTheirFirstByteAndNotTheOneBehindTheLast)
{
    Add(10, 10);
    Add(20, 5);
    Add(30, 1);
    const std::vector<std::pair<int64_t, int64_t>> vExpected = {
        {LOWEST, -1}, {9, -1},  {10, 0}, {19, 0},  {20, 1},      {24, 1},
        {25, -1},     {29, -1}, {30, 2}, {31, -1}, {HIGHEST, -1}};
    for (const auto& [iOffset, iSegment] : vExpected)
        EXPECT_EQ(Find(iOffset), iSegment) << iOffset;
}

TEST_F(SegmentLookup, Overlap_BelongsToTheFirstAdded)
{
    Add(10, 10);
    Add(15, 10);  // from here on they are not in order
    Add(0, 100);
    Add(12, 2);
    const std::vector<std::pair<int64_t, int64_t>> vExpected = {
        {0, 2}, {9, 2}, {10, 0}, {13, 0}, {19, 0}, {20, 1}, {24, 1}, {25, 2}, {99, 2}, {100, -1}};
    for (const auto& [iOffset, iSegment] : vExpected)
        EXPECT_EQ(Find(iOffset), iSegment) << iOffset;
}

TEST_F(SegmentLookup, DescendingSegments_AreFound)
{
    for (int64_t i = 9; i >= 0; i--)
        Add(i * 10, 5);
    for (int64_t i = 0; i < 100; i++)
        EXPECT_EQ(Find(i), i % 10 < 5 ? 9 - i / 10 : -1) << i;
}

TEST_F(SegmentLookup, SegmentsOfNoLength_ContainNothingAndHideNothing)
{
    Add(0, 10);
    Add(10, 0);
    Add(10, -5);
    Add(10, 10);
    EXPECT_EQ(Find(9), 0);
    EXPECT_EQ(Find(10), 3);
    EXPECT_EQ(Find(19), 3);
    EXPECT_EQ(Find(20), -1);
    Add(5, 0);  // not in order
    Add(5, -100);
    Add(HIGHEST, LOWEST);
    EXPECT_EQ(Find(5), 0);
    EXPECT_EQ(Find(10), 3);
    EXPECT_EQ(Find(-50), -1);
}

TEST_F(SegmentLookup, SegmentsThatEndBehindAllOffsets_AreFoundUpToThere)
{
    Add(LOWEST, 10);
    Add(HIGHEST - 10, HIGHEST);
    EXPECT_EQ(Find(LOWEST), 0);
    EXPECT_EQ(Find(LOWEST + 10), -1);
    EXPECT_EQ(Find(HIGHEST - 1), 1);
    Add(0, HIGHEST);
    Add(1, HIGHEST);
    EXPECT_EQ(Find(LOWEST), 0);
    EXPECT_EQ(Find(HIGHEST - 11), 2);
    EXPECT_EQ(Find(HIGHEST - 1), 1);
}

TEST_F(SegmentLookup, Clear_ForgetsAll)
{
    Add(10, 10);
    Add(0, 100);
    m_lookup.Clear();
    m_vSegments.clear();
    EXPECT_EQ(Find(15), -1);
    Add(20, 10);
    Add(30, 10);
    EXPECT_EQ(Find(15), -1);
    EXPECT_EQ(Find(35), 1);
}

TEST_F(SegmentLookup, RandomSegments_AreFoundAsOneByOne)
{
    std::mt19937 random(1);
    for (int iList = 0; iList < 200; iList++) {
        m_lookup.Clear();
        m_vSegments.clear();
        for (int i = 0; i < 30; i++) {
            Add(static_cast<int64_t>(random() % 200) - 20, static_cast<int64_t>(random() % 40) - 4);
            for (int64_t iOffset = -30; iOffset < 240; iOffset += 1 + random() % 7)
                ASSERT_EQ(Find(iOffset), FindOneByOne(iOffset)) << iList << " " << i;
        }
    }
}

TEST_F(SegmentLookup, AMillionOrderedSegments_AreFound)
{
    constexpr int64_t COUNT = 1'000'000;
    for (int64_t i = 0; i < COUNT; i++)
        Add(i * 0x100000, 0xFFFFF);  // a byte between them belongs to nobody
    for (int64_t i = 0; i < COUNT; i += i < 1000 ? 1 : 7) {
        ASSERT_EQ(Find(i * 0x100000), i);
        ASSERT_EQ(Find(i * 0x100000 + 0xFFFFE), i);
        ASSERT_EQ(Find(i * 0x100000 + 0xFFFFF), -1);
    }
}

// Would not come to an end in time if an addition or a search looked at every segment.
TEST_F(SegmentLookup, ManySegmentsInAnyOrder_AreFound)
{
    constexpr int64_t COUNT = 150'000;
    std::vector<int64_t> vOrder(COUNT);
    std::iota(vOrder.begin(), vOrder.end(), 0);
    std::shuffle(vOrder.begin(), vOrder.end(), std::mt19937(1));
    for (const int64_t i : vOrder)
        Add(i * 10, 5);
    Add(0, COUNT * 10);  // takes all that is left, in as many pieces
    for (int64_t i = 0; i < COUNT; i++) {
        const int64_t iOffset = vOrder[static_cast<size_t>(i)] * 10;
        ASSERT_EQ(Find(iOffset), i);
        ASSERT_EQ(Find(iOffset + 4), i);
        ASSERT_EQ(Find(iOffset + 5), COUNT);
    }
    Add(0, COUNT * 10);  // and nothing is left for this one
    EXPECT_EQ(Find(5), COUNT);
}
