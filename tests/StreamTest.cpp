// The two buffers of a connection.
#include <gtest/gtest.h>

#include "DataException.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "StreamBytes.h"

namespace {

constexpr unsigned int BUFFER_SIZE = 0x100000;

// The text of what a read throws; empty if it throws nothing.
template <typename ReadSomething>
std::string CatchTruncation(ReadSomething readSomething)
{
    try {
        readSomething();
    } catch (const CDataTruncatedExpt& error) {
        return error.what();
    }
    return {};
}

// A stream with the bytes '0' to '9'.
class InputStream : public testing::Test {
protected:
    InputStream() { Receive(&m_in, "0123456789"); }

    // What is left to read.
    std::string Unread() const
    {
        return {reinterpret_cast<const char*>(m_in.GetCurrentBuffer()), m_in.GetFilledBufferSize()};
    }

    CInputStream m_in;
};

class OutputStream : public testing::Test {
protected:
    void WriteText(std::string_view sText)
    {
        m_out.Write(sText.data(), static_cast<unsigned int>(sText.size()));
    }

    // All valid bytes, wherever the position is.
    std::string Valid() const
    {
        return {reinterpret_cast<const char*>(m_out.GetBuffer()), m_out.GetBufferSize()};
    }

    COutputStream m_out;
};

}  // namespace

TEST(SocketStream, ReverseByteOrder_TakesTheMostSignificantByteFirst)
{
    const unsigned char cBytes[] = {0x81, 0x02, 0xA3, 0xF4};
    unsigned int iRaw = 0;
    memcpy(&iRaw, cBytes, sizeof(iRaw));
    EXPECT_EQ(CSocketStream::ReverseByteOrder(&iRaw), 0x8102A3F4U);
}

TEST(SocketStream, Construction_IsEmptyWithOneMebibyteOfRoom)
{
    CInputStream in;
    COutputStream out;
    EXPECT_EQ(CSocketStream::GetMaxBufferSize(), BUFFER_SIZE);
    EXPECT_EQ(in.GetFilledBufferSize(), 0U);
    EXPECT_EQ(in.GetBufferIndex(), 0U);
    EXPECT_EQ(in.GetFreeBufferSize(), BUFFER_SIZE);
    EXPECT_EQ(out.GetBufferSize(), 0U);
    EXPECT_EQ(out.GetBufferIndex(), 0U);
    EXPECT_EQ(out.GetFreeBufferSize(), BUFFER_SIZE);
}

TEST(DataTruncatedExpt, Message_TellsWhatIsMissing)
{
    EXPECT_STREQ(CDataTruncatedExpt(4, 3).what(), "Data is truncated.Missing 1 data");
    EXPECT_STREQ(CDataTruncatedExpt(0xFFFFFFFF, 0).what(),
                 "Data is truncated.Missing 4294967295 data");
}

TEST(DataTruncatedExpt, Copy_KeepsItsMessageAndTheEmptyOneOfItsBase)
{
    CDataTruncatedExpt copy(1, 1);
    {
        const CDataTruncatedExpt original(8, 2);
        copy = original;
    }
    EXPECT_STREQ(copy.what(), "Data is truncated.Missing 6 data");
    const std::runtime_error& base = copy;
    EXPECT_STREQ(base.what(), "Data is truncated.Missing 6 data");
    EXPECT_STREQ(base.std::runtime_error::what(), "");
}

TEST_F(InputStream, Read_CopiesAndAdvances)
{
    char cTarget[4] = "";
    EXPECT_EQ(m_in.Read(cTarget, 3), 3U);
    EXPECT_STREQ(cTarget, "012");
    EXPECT_EQ(m_in.GetBufferIndex(), 3U);
    EXPECT_EQ(Unread(), "3456789");
}

TEST_F(InputStream, Read_OfIntegers_IsBigEndian)
{
    m_in.ResetBuffer();
    Receive(&m_in, FromHex("81 02 a3 f4  90 00 00 01 80 00 00 02"));
    unsigned int iWord = 0;
    unsigned long iLong = 0;
    EXPECT_EQ(m_in.Read(&iWord), 4U);
    EXPECT_EQ(iWord, 0x8102A3F4U);
    EXPECT_EQ(m_in.Read8(&iLong), 8U);
    EXPECT_EQ(iLong, 0x9000000180000002UL);
    EXPECT_EQ(m_in.GetFilledBufferSize(), 0U);
}

TEST_F(InputStream, Read_PastTheEnd_ThrowsAndConsumesNothing)
{
    m_in.SetBufferIndex(7);
    unsigned int iWord = 5;
    EXPECT_EQ(CatchTruncation([&] { m_in.Read(&iWord); }), "Data is truncated.Missing 1 data");
    EXPECT_EQ(m_in.GetBufferIndex(), 7U);
    EXPECT_EQ(iWord, 5U);

    unsigned long iLong = 5;
    EXPECT_EQ(CatchTruncation([&] { m_in.Read8(&iLong); }), "Data is truncated.Missing 5 data");
    char cTarget[16] = "";
    EXPECT_EQ(CatchTruncation([&] { m_in.Read(cTarget, 0xFFFFFFFF); }),
              "Data is truncated.Missing 4294967292 data");
    EXPECT_EQ(CatchTruncation([&] { m_in.Skip(4); }), "Data is truncated.Missing 1 data");
    EXPECT_EQ(Unread(), "789");
    EXPECT_EQ(iLong, 5U);
}

TEST_F(InputStream, Read_OfEverything_IsNoTruncation)
{
    char cTarget[11] = "";
    EXPECT_EQ(m_in.Read(cTarget, 10), 10U);
    EXPECT_STREQ(cTarget, "0123456789");
    EXPECT_EQ(m_in.Read(cTarget, 0), 0U);
    EXPECT_EQ(m_in.Skip(0), 0U);
}

TEST_F(InputStream, Skip_Advances)
{
    EXPECT_EQ(m_in.Skip(6), 6U);
    EXPECT_EQ(Unread(), "6789");
}

TEST_F(InputStream, SkipRemainOpaque_SkipsThePadding)
{
    EXPECT_EQ(m_in.SkipRemainOpaque(8), 0U);
    EXPECT_EQ(m_in.SkipRemainOpaque(0), 0U);
    EXPECT_EQ(m_in.GetBufferIndex(), 0U);
    EXPECT_EQ(m_in.SkipRemainOpaque(5), 3U);
    EXPECT_EQ(m_in.GetBufferIndex(), 3U);
    EXPECT_EQ(m_in.SkipRemainOpaque(6), 2U);
    EXPECT_EQ(m_in.SkipRemainOpaque(0xFFFFFFFF), 1U);
    EXPECT_EQ(m_in.GetBufferIndex(), 6U);
}

TEST_F(InputStream, SkipRemainOpaque_WithoutThePadding_ThrowsAndConsumesNothing)
{
    m_in.SetBufferIndex(8);
    EXPECT_EQ(CatchTruncation([&] { m_in.SkipRemainOpaque(1); }),
              "Data is truncated.Missing 1 data");
    EXPECT_EQ(m_in.GetBufferIndex(), 8U);
}

TEST_F(InputStream, ReceiveSide_AppendsBehindTheReceivedBytes)
{
    m_in.Skip(4);
    EXPECT_EQ(m_in.GetFreeBufferSize(), BUFFER_SIZE - 10);
    memcpy(m_in.GetFreeBuffer(), "ab", 2);
    m_in.AddFilledBufferSize(2);
    EXPECT_EQ(Unread(), "456789ab");
    EXPECT_EQ(m_in.GetFreeBufferSize(), BUFFER_SIZE - 12);
}

TEST_F(InputStream, FullBuffer_HasNoRoomAndCanBeReadToItsEnd)
{
    m_in.AddFilledBufferSize(m_in.GetFreeBufferSize());
    EXPECT_EQ(m_in.GetFreeBufferSize(), 0U);
    EXPECT_EQ(m_in.Skip(BUFFER_SIZE), BUFFER_SIZE);
    EXPECT_EQ(m_in.GetFilledBufferSize(), 0U);
}

TEST_F(InputStream, GetFilledBuffer_PeeksWithinTheReceivedBytes)
{
    m_in.Skip(2);
    const unsigned char* pcPeeked = m_in.GetFilledBuffer(3, 5);
    ASSERT_EQ(pcPeeked, m_in.GetCurrentBuffer() + 3);
    EXPECT_EQ(*pcPeeked, '5');
    EXPECT_EQ(m_in.GetBufferIndex(), 2U);
    EXPECT_EQ(m_in.GetFilledBuffer(8, 0), m_in.GetCurrentBuffer() + 8);
    EXPECT_EQ(m_in.GetFilledBuffer(3, 6), nullptr);
    EXPECT_EQ(m_in.GetFilledBuffer(9, 0), nullptr);
    EXPECT_EQ(m_in.GetFilledBuffer(0xFFFFFFFF, 2), nullptr);  // their sum would wrap
    EXPECT_EQ(m_in.GetFilledBuffer(2, 0xFFFFFFFF), nullptr);
}

TEST_F(InputStream, SetBufferIndex_RewindsAndStopsAtTheEnd)
{
    m_in.Skip(9);
    m_in.SetBufferIndex(1);
    EXPECT_EQ(Unread(), "123456789");
    m_in.SetBufferIndex(11);
    EXPECT_EQ(m_in.GetBufferIndex(), 10U);
}

TEST_F(InputStream, SetBufferEnd_ConfinesTheReader)
{
    EXPECT_EQ(m_in.GetBufferEnd(), 10U);
    m_in.SetBufferEnd(4);
    EXPECT_EQ(Unread(), "0123");
    EXPECT_EQ(CatchTruncation([&] { m_in.Skip(5); }), "Data is truncated.Missing 1 data");
    m_in.SetBufferEnd(10);
    EXPECT_EQ(Unread(), "0123456789");
}

TEST_F(InputStream, ConsolidateBuffer_BelowTheThreshold_DoesNothing)
{
    m_in.AddFilledBufferSize(120);
    m_in.SetBufferIndex(50);
    m_in.ConsolidateBuffer(100);
    EXPECT_EQ(m_in.GetBufferIndex(), 50U);
    EXPECT_EQ(m_in.GetFilledBufferSize(), 80U);
    EXPECT_EQ(m_in.GetFreeBufferSize(), BUFFER_SIZE - 130);
}

TEST_F(InputStream, ConsolidateBuffer_AtTheThreshold_MovesTheRestToTheFront)
{
    Receive(&m_in, std::string(90, '.'));
    Receive(&m_in, "abcdefghijklmnopqrstuvwxyz1234");
    m_in.SetBufferIndex(100);
    m_in.ConsolidateBuffer(100);
    EXPECT_EQ(m_in.GetBufferIndex(), 0U);
    EXPECT_EQ(Unread(), "abcdefghijklmnopqrstuvwxyz1234");
    EXPECT_EQ(m_in.GetFreeBufferSize(), BUFFER_SIZE - 30);
}

TEST_F(InputStream, ConsolidateBuffer_OverlappingMove_KeepsTheBytes)
{
    m_in.SetBufferIndex(3);
    m_in.ConsolidateBuffer(1);
    EXPECT_EQ(Unread(), "3456789");
}

TEST_F(InputStream, ConsolidateBuffer_WithNothingUnread_Empties)
{
    m_in.SetBufferIndex(10);
    m_in.ConsolidateBuffer(10);
    EXPECT_EQ(m_in.GetBufferIndex(), 0U);
    EXPECT_EQ(m_in.GetFreeBufferSize(), BUFFER_SIZE);
}

TEST_F(InputStream, ResetBuffer_Empties)
{
    m_in.Skip(3);
    m_in.ResetBuffer();
    EXPECT_EQ(m_in.GetBufferIndex(), 0U);
    EXPECT_EQ(m_in.GetFilledBufferSize(), 0U);
    EXPECT_EQ(m_in.GetFreeBufferSize(), BUFFER_SIZE);
}

TEST_F(OutputStream, Write_AppendsAndTheSizeFollows)
{
    EXPECT_EQ(m_out.Write("abc", 3), 3U);
    EXPECT_EQ(Valid(), "abc");
    EXPECT_EQ(m_out.GetBufferIndex(), 3U);
    EXPECT_EQ(m_out.GetCurrentBuffer(), m_out.GetBuffer() + 3);
    EXPECT_EQ(m_out.GetFreeBufferSize(), BUFFER_SIZE - 3);
}

TEST_F(OutputStream, Write_OfIntegers_IsBigEndian)
{
    EXPECT_EQ(m_out.Write(0x8102A3F4U), 4U);
    EXPECT_EQ(m_out.Write8(0x9000000180000002UL), 8U);
    EXPECT_EQ(ToHex(Valid()), "8102a3f4 90000001 80000002");
}

TEST_F(OutputStream, Write_OfNull_ReservesTheBytesAsTheyAre)
{
    WriteText("abcdef");
    m_out.Seek(2, 0);
    EXPECT_EQ(m_out.Write(nullptr, 8), 8U);
    EXPECT_EQ(m_out.GetBufferIndex(), 10U);
    EXPECT_EQ(Valid().substr(0, 6), "abcdef");
    EXPECT_EQ(m_out.GetBufferSize(), 10U);
}

TEST_F(OutputStream, Write_PastTheEnd_IsClipped)
{
    m_out.Seek(BUFFER_SIZE - 4, 0);
    EXPECT_EQ(m_out.Write("0123456789", 10), 4U);
    EXPECT_EQ(m_out.GetBufferSize(), BUFFER_SIZE);
    EXPECT_EQ(m_out.GetFreeBufferSize(), 0U);
    EXPECT_EQ(Valid().substr(BUFFER_SIZE - 4), "0123");
    EXPECT_EQ(m_out.Write("x", 1), 0U);
    EXPECT_EQ(m_out.Write(1U), 0U);
    EXPECT_EQ(m_out.Write(nullptr, 0xFFFFFFFF), 0U);
    EXPECT_EQ(m_out.GetBufferSize(), BUFFER_SIZE);
}

TEST_F(OutputStream, Write_OfIntegersPastTheEnd_IsClipped)
{
    m_out.Seek(BUFFER_SIZE - 6, 0);
    EXPECT_EQ(m_out.Write8(0x0102030405060708UL), 6U);
    EXPECT_EQ(ToHex(Valid().substr(BUFFER_SIZE - 6)), "01020304 0506");
}

TEST_F(OutputStream, Seek_MovesFromStartPositionAndEnd)
{
    WriteText("0123456789");
    m_out.Seek(4, 0);
    EXPECT_EQ(m_out.GetBufferIndex(), 4U);
    m_out.Seek(3, 1);
    EXPECT_EQ(m_out.GetBufferIndex(), 7U);
    m_out.Seek(-2, 1);
    EXPECT_EQ(m_out.GetBufferIndex(), 5U);
    m_out.Seek(-1, 2);
    EXPECT_EQ(m_out.GetBufferIndex(), 9U);
    m_out.Seek(1, 3);
    m_out.Seek(1, -1);
    EXPECT_EQ(m_out.GetBufferIndex(), 9U);
    EXPECT_EQ(m_out.GetBufferSize(), 10U);
}

TEST_F(OutputStream, Seek_OutOfTheBuffer_StopsAtItsEnds)
{
    WriteText("abc");
    m_out.Seek(-4, 1);
    EXPECT_EQ(m_out.GetBufferIndex(), 0U);
    m_out.Seek(0x7FFFFFFF, 2);
    EXPECT_EQ(m_out.GetBufferIndex(), BUFFER_SIZE);
    EXPECT_EQ(m_out.GetFreeBufferSize(), 0U);
}

TEST_F(OutputStream, Seek_PastTheSize_TheSizeFollowsAtTheNextWrite)
{
    WriteText("abc");
    m_out.Seek(2, 2);
    EXPECT_EQ(m_out.GetBufferIndex(), 5U);
    EXPECT_EQ(m_out.GetBufferSize(), 3U);
    WriteText("f");
    EXPECT_EQ(m_out.GetBufferSize(), 6U);
}

TEST_F(OutputStream, Write_BeforeTheEnd_OverwritesAndKeepsTheSize)
{
    WriteText("0123456789");
    m_out.Seek(2, 0);
    WriteText("ab");
    EXPECT_EQ(Valid(), "01ab456789");
    EXPECT_EQ(m_out.GetBufferIndex(), 4U);
}

TEST_F(OutputStream, WriteRemainOpaque_MovesOverThePaddingAndLeavesItAsItIs)
{
    WriteText("0123456789");
    m_out.Seek(5, 0);
    m_out.WriteRemainOpaque(0);
    m_out.WriteRemainOpaque(8);
    EXPECT_EQ(m_out.GetBufferIndex(), 5U);
    m_out.WriteRemainOpaque(5);
    EXPECT_EQ(m_out.GetBufferIndex(), 8U);
    m_out.WriteRemainOpaque(6);
    m_out.WriteRemainOpaque(7);
    EXPECT_EQ(m_out.GetBufferIndex(), 11U);
    EXPECT_EQ(Valid(), "0123456789");  // neither cleared nor longer yet
    m_out.Write(nullptr, 1);
    EXPECT_EQ(m_out.GetBufferSize(), 12U);
}

TEST_F(OutputStream, Truncate_MakesThePositionTheEnd)
{
    WriteText("0123456789");
    m_out.Seek(4, 0);
    m_out.Truncate();
    EXPECT_EQ(Valid(), "0123");
    m_out.WriteRemainOpaque(3);
    m_out.Truncate();
    EXPECT_EQ(m_out.GetBufferSize(), 5U);
}

TEST_F(OutputStream, FreeBuffer_OfPart_KeepsAPositionFurtherOn)
{
    WriteText("0123456789");
    m_out.Seek(6, 0);
    m_out.FreeBuffer(4);
    EXPECT_EQ(Valid(), "456789");
    EXPECT_EQ(m_out.GetBufferSize(), 6U);
    EXPECT_EQ(m_out.GetBufferIndex(), 6U);  // not reduced to 2
}

TEST_F(OutputStream, FreeBuffer_UpToThePosition_PutsItToTheFront)
{
    WriteText("0123456789");
    m_out.Seek(4, 0);
    m_out.FreeBuffer(4);
    EXPECT_EQ(Valid(), "456789");
    EXPECT_EQ(m_out.GetBufferIndex(), 0U);
    m_out.Seek(5, 0);
    m_out.FreeBuffer(4);
    EXPECT_EQ(Valid(), "89");
    EXPECT_EQ(m_out.GetBufferIndex(), 5U);
}

TEST_F(OutputStream, FreeBuffer_OfAll_Empties)
{
    for (const unsigned int iLength : {10U, 11U, 0xFFFFFFFFU}) {
        WriteText("0123456789");
        m_out.FreeBuffer(iLength);
        EXPECT_EQ(m_out.GetBufferSize(), 0U);
        EXPECT_EQ(m_out.GetBufferIndex(), 0U);
    }
}

TEST_F(OutputStream, ResetBuffer_Empties)
{
    WriteText("abc");
    m_out.ResetBuffer();
    EXPECT_EQ(m_out.GetBufferSize(), 0U);
    EXPECT_EQ(m_out.GetBufferIndex(), 0U);
    EXPECT_EQ(m_out.GetFreeBufferSize(), BUFFER_SIZE);
}
