#include "Text.h"

#include <string>

#include <gtest/gtest.h>

using Parts = std::vector<std::string>;

TEST(Text, CopyText_RoomForAll_CopiesWithTerminator)
{
    char cTarget[] = "........";
    CopyText(cTarget, 5, "four");
    EXPECT_EQ(std::string(cTarget, 8), std::string("four\0...", 8));
}

TEST(Text, CopyText_TooLong_IsCutAndTerminated)
{
    char cTarget[] = "........";
    CopyText(cTarget, 5, "fives");
    EXPECT_EQ(std::string(cTarget, 8), std::string("five\0...", 8));
}

TEST(Text, CopyText_SizeOne_LeavesOnlyTheTerminator)
{
    char cTarget[] = "..";
    CopyText(cTarget, 1, "text");
    EXPECT_EQ(std::string(cTarget, 2), std::string("\0.", 2));
}

TEST(Text, CopyText_NullSource_ReadsAsEmpty)
{
    char cTarget[] = "..";
    CopyText(cTarget, sizeof(cTarget), nullptr);
    EXPECT_STREQ(cTarget, "");
}

TEST(Text, CopyText_NullTargetOrSizeZero_TouchesNothing)
{
    CopyText(nullptr, 10, "text");
    char cTarget[] = "..";
    CopyText(cTarget, 0, "text");
    EXPECT_STREQ(cTarget, "..");
}

TEST(Text, CopyText_SourceWithoutTerminator_IsNotReadBeyondTheCut)
{
    const char cSource[4] = {'a', 'b', 'c', 'd'};  // asan would see a fifth byte being read
    char cTarget[5];
    CopyText(cTarget, sizeof(cTarget), cSource);
    EXPECT_STREQ(cTarget, "abcd");
}

TEST(Text, WipeText_LeavesNothingOfTheSecretAndTheRestAlone)
{
    char cText[] = "(secret)";
    WipeText(cText + 1, 6);
    EXPECT_EQ(std::string(cText, 8), std::string("(\0\0\0\0\0\0)", 8));
}

TEST(Text, WipeText_GoesBeyondAZero)
{
    char cText[] = "ab\0cd";
    WipeText(cText, sizeof(cText));
    EXPECT_EQ(std::string(cText, sizeof(cText)), std::string(sizeof(cText), '\0'));
}

TEST(Text, WipeText_OfNothing_TouchesNothing)
{
    char cText[] = "ab";
    WipeText(cText, 0);
    EXPECT_STREQ(cText, "ab");
}

TEST(Text, FormatReason_NullBuffer_WantsNoWords)
{
    FormatReason(nullptr, "%s", "text");
}

TEST(Text, FormatReason_Short_IsFormatted)
{
    char cReason[REASON_SIZE];
    FormatReason(cReason, "Reason %d of \"%s\"", 7, "name");
    EXPECT_STREQ(cReason, "Reason 7 of \"name\"");
}

TEST(Text, FormatReason_TooLong_IsCutAtTheBuffer)
{
    char cReason[REASON_SIZE + 1];
    cReason[REASON_SIZE] = 'x';
    FormatReason(cReason, "%s", std::string(5000, 'y').c_str());
    EXPECT_EQ(cReason, std::string(REASON_SIZE - 1, 'y'));
    EXPECT_EQ(cReason[REASON_SIZE], 'x');
}

TEST(Text, SplitIntoVector_KeepsEmptyParts)
{
    EXPECT_EQ(SplitIntoVector("/a", '/'), Parts({"", "a"}));
    EXPECT_EQ(SplitIntoVector("a//b/", '/'), Parts({"a", "", "b", ""}));
    EXPECT_EQ(SplitIntoVector("/", '/'), Parts({"", ""}));
}

TEST(Text, SplitIntoVector_NoDelimiter_IsOnePart)
{
    EXPECT_EQ(SplitIntoVector("a b", '/'), Parts({"a b"}));
    EXPECT_EQ(SplitIntoVector("", '/'), Parts({""}));
}

TEST(Text, SplitIntoVector_OtherDelimiter_Splits)
{
    EXPECT_EQ(SplitIntoVector("start 5 /a", ' '), Parts({"start", "5", "/a"}));
}

TEST(Text, IsPathBelow_IsTrueAtAnyDepth)
{
    EXPECT_TRUE(IsPathBelow("/a/b", "/a"));
    EXPECT_TRUE(IsPathBelow("/a/b/c", "/a"));
    EXPECT_TRUE(IsPathBelow("/a/b/c", "/a/b"));
}

TEST(Text, IsPathBelow_FolderItselfAndItsNeighbours_AreNotBelow)
{
    EXPECT_FALSE(IsPathBelow("/a", "/a"));
    EXPECT_FALSE(IsPathBelow("/ab", "/a"));
    EXPECT_FALSE(IsPathBelow("/ab/c", "/a"));
    EXPECT_FALSE(IsPathBelow("/", "/a"));
    EXPECT_FALSE(IsPathBelow("/b/a", "/a"));
    EXPECT_FALSE(IsPathBelow("/A/b", "/a"));
    EXPECT_FALSE(IsPathBelow("", "/a"));
}

TEST(Text, IsPathBelow_OfTheRoot_IsAllButTheRoot)
{
    EXPECT_TRUE(IsPathBelow("/a", "/"));
    EXPECT_TRUE(IsPathBelow("/a/b", "/"));
    EXPECT_FALSE(IsPathBelow("/", "/"));
    EXPECT_FALSE(IsPathBelow("", "/"));
}

TEST(Text, IsPathBelow_ResolvesNothing)
{
    EXPECT_TRUE(IsPathBelow("/a/../b", "/a"));
    EXPECT_FALSE(IsPathBelow("/b/../a/c", "/a"));
}
