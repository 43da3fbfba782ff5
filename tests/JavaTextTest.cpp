#include "JavaText.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Conversion {
    const char* pcName;
    std::string sText;
    std::string sWanted;
};

void ExpectAll(const std::vector<Conversion>& vConversions)
{
    for (const Conversion& conversion : vConversions) {
        SCOPED_TRACE(conversion.pcName);
        EXPECT_EQ(ToModifiedUtf8(conversion.sText.c_str()), conversion.sWanted);
        // The same with neighbours, which are not drawn in.
        EXPECT_EQ(ToModifiedUtf8(("a" + conversion.sText + "z").c_str()),
                  "a" + conversion.sWanted + "z");
        EXPECT_EQ(ToModifiedUtf8(("\xC3\xA9" + conversion.sText + "\xC3\xA9").c_str()),
                  "\xC3\xA9" + conversion.sWanted + "\xC3\xA9");
    }
}

}  // namespace

TEST(JavaText, ToModifiedUtf8_Null_IsEmpty)
{
    EXPECT_EQ(ToModifiedUtf8(nullptr), "");
    EXPECT_EQ(ToModifiedUtf8(""), "");
}

TEST(JavaText, ToModifiedUtf8_EveryAsciiCharacter_StaysAsItIs)
{
    std::string sText;
    for (char c = 1; c < 0x7F; c++)
        sText += c;
    sText += '\x7F';
    EXPECT_EQ(ToModifiedUtf8(sText.c_str()), sText);
}

TEST(JavaText, ToModifiedUtf8_TwoAndThreeBytes_StayAsTheyAre)
{
    ExpectAll({
        {"first of two bytes", "\xC2\x80", "\xC2\x80"},
        {"e with an accent", "\xC3\xA9", "\xC3\xA9"},
        {"last of two bytes", "\xDF\xBF", "\xDF\xBF"},
        {"first of three bytes", "\xE0\xA0\x80", "\xE0\xA0\x80"},
        {"euro", "\xE2\x82\xAC", "\xE2\x82\xAC"},
        {"last before the surrogates", "\xED\x9F\xBF", "\xED\x9F\xBF"},
        {"first behind the surrogates", "\xEE\x80\x80", "\xEE\x80\x80"},
        {"last of three bytes", "\xEF\xBF\xBF", "\xEF\xBF\xBF"},
    });
}

TEST(JavaText, ToModifiedUtf8_FourBytes_BecomeTwoSurrogates)
{
    ExpectAll({
        {"first of four bytes", "\xF0\x90\x80\x80", "\xED\xA0\x80\xED\xB0\x80"},
        {"face", "\xF0\x9F\x98\x80", "\xED\xA0\xBD\xED\xB8\x80"},
        {"last low surrogate", "\xF0\x90\x8F\xBF", "\xED\xA0\x80\xED\xBF\xBF"},
        {"second high surrogate", "\xF0\x90\x90\x80", "\xED\xA0\x81\xED\xB0\x80"},
        {"last of all", "\xF4\x8F\xBF\xBF", "\xED\xAF\xBF\xED\xBF\xBF"},
    });
}

// They are how the wanted form writes them; a text may have been converted before.
TEST(JavaText, ToModifiedUtf8_Surrogates_StayAsTheyAre)
{
    ExpectAll({
        {"high alone", "\xED\xA0\x80", "\xED\xA0\x80"},
        {"low alone", "\xED\xBF\xBF", "\xED\xBF\xBF"},
        {"both", "\xED\xA0\xBD\xED\xB8\x80", "\xED\xA0\xBD\xED\xB8\x80"},
    });
}

TEST(JavaText, ToModifiedUtf8_BytesThatCannotBeFirst_BecomeQuestionMarks)
{
    for (int i = 0x80; i <= 0xFF; i++) {
        if (i >= 0xC2 && i <= 0xF4)
            continue;
        SCOPED_TRACE(i);
        const std::string sByte(1, static_cast<char>(i));
        EXPECT_EQ(ToModifiedUtf8(sByte.c_str()), "?");
        EXPECT_EQ(ToModifiedUtf8(("a" + sByte + sByte + "z").c_str()), "a??z");
    }
}

TEST(JavaText, ToModifiedUtf8_FirstByteAlone_IsOneQuestionMark)
{
    for (int i = 0xC2; i <= 0xF4; i++) {
        SCOPED_TRACE(i);
        const std::string sByte(1, static_cast<char>(i));
        EXPECT_EQ(ToModifiedUtf8(sByte.c_str()), "?");
        EXPECT_EQ(ToModifiedUtf8((sByte + "abc").c_str()), "?abc");
        EXPECT_EQ(ToModifiedUtf8((sByte + sByte).c_str()), "??");
    }
}

TEST(JavaText, ToModifiedUtf8_CutAtTheEnd_EachByteBecomesAQuestionMark)
{
    ExpectAll({
        {"two of three bytes", "\xE2\x82", "??"},
        {"two of four bytes", "\xF0\x9F", "??"},
        {"three of four bytes", "\xF0\x9F\x98", "???"},
    });
}

TEST(JavaText, ToModifiedUtf8_BrokenInTheMiddle_GoesOnWithTheNextCharacter)
{
    ExpectAll({
        {"a letter for the third byte", "\xE2\x82x", "??x"},
        {"a character for the second byte", "\xE2\xC3\xA9", "?\xC3\xA9"},
        {"a character for the third byte", "\xF0\x9F\xE2\x82\xAC", "??\xE2\x82\xAC"},
        {"a letter for the fourth byte", "\xF0\x9F\x98x", "???x"},
        {"one byte too many", "\xC3\xA9\xA9", "\xC3\xA9?"},
    });
}

// It is how Java itself writes the zero in a text that it passes to us.
TEST(JavaText, ToModifiedUtf8_ZeroInTwoBytes_StaysAsItIs)
{
    ExpectAll({{"zero in two", "\xC0\x80", "\xC0\x80"}});
}

TEST(JavaText, ToModifiedUtf8_MoreBytesThanNeeded_BecomeQuestionMarks)
{
    ExpectAll({
        {"slash in two", "\xC0\xAF", "??"},
        {"last of one byte in two", "\xC1\xBF", "??"},
        {"slash in three", "\xE0\x80\xAF", "???"},
        {"last of two bytes in three", "\xE0\x9F\xBF", "???"},
        {"slash in four", "\xF0\x80\x80\xAF", "????"},
        {"last of three bytes in four", "\xF0\x8F\xBF\xBF", "????"},
    });
}

TEST(JavaText, ToModifiedUtf8_BeyondTheLastCharacter_BecomesQuestionMarks)
{
    ExpectAll({
        {"the next one", "\xF4\x90\x80\x80", "????"},
        {"the largest with that first byte", "\xF4\xBF\xBF\xBF", "????"},
        {"a larger first byte", "\xF5\x80\x80\x80", "????"},
        {"five bytes", "\xF8\x88\x80\x80\x80", "?????"},
        {"six bytes", "\xFC\x84\x80\x80\x80\x80", "??????"},
    });
}

TEST(JavaText, ToModifiedUtf8_LongText_IsWhole)
{
    std::string sText;
    std::string sWanted;
    for (int i = 0; i < 1000; i++) {
        sText += "x\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xFF";
        sWanted += "x\xC3\xA9\xE2\x82\xAC\xED\xA0\xBD\xED\xB8\x80?";
    }
    EXPECT_EQ(ToModifiedUtf8(sText.c_str()), sWanted);
}
