// Every record against bytes written out by hand.
#include "Nfs3Xdr.h"

#include <concepts>

#include <gtest/gtest.h>

#include "DataException.h"
#include "StreamBytes.h"

namespace {

constexpr char SATTR_ALL_SET[] = "00000001 000001a4 00000001 000003e8 00000001 000003e9"
                                 "00000001 00000001 00000002"
                                 "00000002 0000000a 0000000b 00000002 0000000c 0000000d";
constexpr char SATTR_NONE_SET[] = "00000000 00000000 00000000 00000000 00000000 00000000";

// Reads one record and demands that just its bytes are consumed.
template <typename Record, typename... Flags>
void ReadHex(std::string_view sHex, Record* pRecord, Flags... flags)
{
    const std::string sBytes = FromHex(sHex);
    CInputStream in;
    Receive(&in, sBytes + "next");
    Read(&in, pRecord, flags...);
    EXPECT_EQ(in.GetBufferIndex(), sBytes.size());
}

template <typename Record>
Record ReadHex(std::string_view sHex)
{
    Record record{};
    ReadHex(sHex, &record);
    return record;
}

template <typename Record, typename... Flags>
std::string WriteHex(const Record& record, Flags... flags)
{
    COutputStream out;
    Write(&out, record, flags...);
    return ToHex(GetWritten(out));
}

// The record cut at every byte is a truncated request; whole it is not.
template <typename Record, typename... Flags>
void ExpectEveryCutThrows(std::string_view sHex, Flags... flags)
{
    const std::string sBytes = FromHex(sHex);
    for (size_t iLength = 0; iLength < sBytes.size(); iLength++) {
        CInputStream in;
        Receive(&in, std::string_view(sBytes).substr(0, iLength));
        Record record{};
        EXPECT_THROW(Read(&in, &record, flags...), CDataTruncatedExpt) << iLength;
    }
    Record record{};
    ReadHex(sHex, &record, flags...);
}

template <typename Record, typename... Flags>
void ExpectThrows(std::string_view sHex, Flags... flags)
{
    CInputStream in;
    Receive(&in, FromHex(sHex));
    Record record{};
    EXPECT_THROW(Read(&in, &record, flags...), CDataTruncatedExpt) << sHex;
}

void ExpectNothingSet(const sattr3& attr)
{
    EXPECT_FALSE(attr.mode.set_it || attr.uid.set_it || attr.gid.set_it || attr.size.set_it);
    EXPECT_EQ(attr.atime.set_it, DONT_CHANGE);
    EXPECT_EQ(attr.mtime.set_it, DONT_CHANGE);
    EXPECT_EQ(attr.mode.value | attr.uid.value | attr.gid.value, 0U);
    EXPECT_EQ(attr.size.value, 0U);
    EXPECT_EQ(attr.atime.value.seconds | attr.atime.value.nseconds, 0U);
    EXPECT_EQ(attr.mtime.value.seconds | attr.mtime.value.nseconds, 0U);
}

template <typename T>
concept Writable = requires(COutputStream* pOut, T value)
{
    Write(pOut, value);
};

static_assert(Writable<bool> && Writable<uint32_t> && Writable<uint64_t> && Writable<nfsstat3>);
static_assert(!Writable<int> && !Writable<const char*> && !Writable<const fattr3*>,
              "nothing becomes a word or a bool in silence");

}  // namespace

TEST(Nfs3XdrRead, Bool_IsTrueOnlyForOne)
{
    EXPECT_TRUE(ReadHex<bool>("00000001"));
    for (const char* pcHex : {"00000000", "00000002", "01000000", "80000001", "ffffffff"})
        EXPECT_FALSE(ReadHex<bool>(pcHex)) << pcHex;
    ExpectEveryCutThrows<bool>("00000001");
}

TEST(Nfs3XdrRead, Integers)
{
    EXPECT_EQ(ReadHex<uint32_t>("81020304"), 0x81020304U);
    EXPECT_EQ(ReadHex<uint64_t>("8102030405060708"), 0x8102030405060708U);
    ExpectEveryCutThrows<uint32_t>("81020304");
    ExpectEveryCutThrows<uint64_t>("8102030405060708");
}

TEST(Nfs3XdrRead, PairsOfWords)
{
    const auto time = ReadHex<nfstime3>("80000001 80000002");
    EXPECT_EQ(time.seconds, 0x80000001U);
    EXPECT_EQ(time.nseconds, 0x80000002U);
    const auto data = ReadHex<specdata3>("00000003 00000004");
    EXPECT_EQ(data.specdata1, 3U);
    EXPECT_EQ(data.specdata2, 4U);
    ExpectEveryCutThrows<nfstime3>("80000001 80000002");
    ExpectEveryCutThrows<specdata3>("00000003 00000004");
}

TEST(Nfs3XdrRead, Opaque_PointsIntoTheRequestAndSkipsThePadding)
{
    CInputStream in;
    Receive(&in, FromHex("00000005 6162636465 000000 00000000 99"));
    opaque data;
    Read(&in, &data);
    EXPECT_EQ(data.pBuf, in.GetCurrentBuffer() - 8);
    EXPECT_EQ(data.iBufLen, 5U);
    EXPECT_EQ(memcmp(data.pBuf, "abcde", 5), 0);
    Read(&in, &data);
    EXPECT_EQ(data.iBufLen, 0U);
    EXPECT_EQ(in.GetFilledBufferSize(), 1U);
}

TEST(Nfs3XdrRead, Opaque_HasNoLimitButTheReceivedBytes)
{
    CInputStream in;
    Receive(&in, FromHex("000ffff8") + std::string(0xFFFF8, 'x'));
    opaque data;
    Read(&in, &data);
    EXPECT_EQ(data.iBufLen, 0xFFFF8U);
    EXPECT_EQ(in.GetFilledBufferSize(), 0U);
}

TEST(Nfs3XdrRead, Opaque_CutOrLongerThanWhatCame_Throws)
{
    ExpectEveryCutThrows<opaque>("00000005 6162636465 000000");
    for (const char* pcLength : {"fffffffd", "fffffffe", "ffffffff", "80000000", "7fffffff"})
        ExpectThrows<opaque>(std::string(pcLength) + "61626364 61626364");
}

TEST(Nfs3XdrRead, Path_IsReadAndTerminated)
{
    EXPECT_STREQ(ReadHex<COpaquePath>("00000003 616263 00").Get(), "abc");
    EXPECT_STREQ(ReadHex<COpaquePath>("00000004 61626364").Get(), "abcd");
    EXPECT_STREQ(ReadHex<COpaquePath>("00000000").Get(), "");
    EXPECT_STREQ(ReadHex<COpaquePath>("00000003 610063 00").Get(), "a");  // ends at its zero
}

TEST(Nfs3XdrRead, Path_SetFromBytes_EndsAtTheFirstZeroAmongThem)
{
    const unsigned char cBytes[] = {'a', 'b', 0, 'c', 'd'};
    COpaquePath path;
    path.Set(cBytes, 5);
    EXPECT_STREQ(path.Get(), "ab");
    EXPECT_EQ(WriteHex(path), "00000002 61620000");
    path.Set(cBytes, 1);
    EXPECT_STREQ(path.Get(), "a");  // and never behind the length
    path.Set(cBytes + 3, 2);
    EXPECT_STREQ(path.Get(), "cd");
    path.Set(cBytes + 2, 3);
    EXPECT_STREQ(path.Get(), "");
    path.Set(cBytes, 0);
    EXPECT_STREQ(path.Get(), "");
}

TEST(Nfs3XdrRead, Path_Of4095BytesIsKeptAndOf4096IsEmpty)
{
    const struct {
        const char* pcLength;
        size_t iLength;
        size_t iKept;
    } CASES[] = {{"00000fff", 4095, 4095}, {"00001000", 4096, 0}, {"00001001", 4097, 0}};
    for (const auto& [pcLength, iLength, iKept] : CASES) {
        CInputStream in;
        Receive(&in, FromHex(pcLength) + std::string((iLength + 3) / 4 * 4, 'n') + "next");
        COpaquePath path;
        path.Set("old");
        Read(&in, &path);
        EXPECT_EQ(path.Get(), std::string(iKept, 'n'));
        EXPECT_EQ(in.GetFilledBufferSize(), 4U) << "of " << iLength;
    }
}

TEST(Nfs3XdrRead, Path_Skipped_StaysAsItWas)
{
    COpaquePath path;
    path.Set("old");
    ReadHex("00000003 616263 00", &path, true);
    EXPECT_STREQ(path.Get(), "old");
    ReadHex("00000000", &path, true);
    EXPECT_STREQ(path.Get(), "old");
}

TEST(Nfs3XdrRead, Path_CutOrLongerThanWhatCame_Throws)
{
    for (const bool bSkip : {false, true}) {
        ExpectEveryCutThrows<COpaquePath>("00000003 616263 00", bSkip);
        for (const char* pcLength : {"fffffffd", "fffffffe", "ffffffff", "80000000", "00001000"})
            ExpectThrows<COpaquePath>(std::string(pcLength) + "61626364 61626364", bSkip);
    }
}

TEST(Nfs3XdrRead, Attributes_AllSet)
{
    const auto attr = ReadHex<sattr3>(SATTR_ALL_SET);
    EXPECT_TRUE(attr.mode.set_it && attr.uid.set_it && attr.gid.set_it && attr.size.set_it);
    EXPECT_EQ(attr.mode.value, 0644U);
    EXPECT_EQ(attr.uid.value, 1000U);
    EXPECT_EQ(attr.gid.value, 1001U);
    EXPECT_EQ(attr.size.value, 0x100000002U);
    EXPECT_EQ(attr.atime.set_it, SET_TO_CLIENT_TIME);
    EXPECT_EQ(attr.atime.value.seconds, 10U);
    EXPECT_EQ(attr.atime.value.nseconds, 11U);
    EXPECT_EQ(attr.mtime.set_it, SET_TO_CLIENT_TIME);
    EXPECT_EQ(attr.mtime.value.seconds, 12U);
    EXPECT_EQ(attr.mtime.value.nseconds, 13U);
}

TEST(Nfs3XdrRead, Attributes_NoneSet_ClearsWhatWasThere)
{
    sattr3 attr;
    ReadHex(SATTR_ALL_SET, &attr);
    ReadHex(SATTR_NONE_SET, &attr);
    ExpectNothingSet(attr);
}

TEST(Nfs3XdrRead, Attributes_ServerTime_CarriesNoTime)
{
    const auto attr = ReadHex<sattr3>("00000000 00000000 00000000 00000000 00000001 00000001");
    EXPECT_EQ(attr.atime.set_it, SET_TO_SERVER_TIME);
    EXPECT_EQ(attr.mtime.set_it, SET_TO_SERVER_TIME);
    EXPECT_EQ(attr.atime.value.seconds | attr.atime.value.nseconds, 0U);
    EXPECT_EQ(attr.mtime.value.seconds | attr.mtime.value.nseconds, 0U);
}

TEST(Nfs3XdrRead, Attributes_Skipped_PassesOverEveryValueAndKeepsNone)
{
    sattr3 attr;
    ReadHex(SATTR_ALL_SET, &attr);
    ReadHex(SATTR_ALL_SET, &attr, true);
    ExpectNothingSet(attr);
}

TEST(Nfs3XdrRead, Attributes_CutAnywhere_Throws)
{
    for (const bool bSkip : {false, true}) {
        ExpectEveryCutThrows<sattr3>(SATTR_ALL_SET, bSkip);
        ExpectEveryCutThrows<sattr3>(SATTR_NONE_SET, bSkip);
    }
}

TEST(Nfs3XdrRead, Guard_CarriesATimeOnlyIfItChecks)
{
    auto guard = ReadHex<sattrguard3>("00000001 00000007 00000008");
    EXPECT_TRUE(guard.check);
    EXPECT_EQ(guard.obj_ctime.seconds, 7U);
    EXPECT_EQ(guard.obj_ctime.nseconds, 8U);
    ReadHex("00000000", &guard);
    EXPECT_FALSE(guard.check);
    EXPECT_EQ(guard.obj_ctime.seconds | guard.obj_ctime.nseconds, 0U);
    ExpectEveryCutThrows<sattrguard3>("00000001 00000007 00000008");
}

TEST(Nfs3XdrRead, CreateHow_CarriesAttributesOrTheVerifier)
{
    const std::string sAttributes = SATTR_ALL_SET;
    for (const createmode3 mode : {UNCHECKED, GUARDED}) {
        const auto how =
            ReadHex<createhow3>((mode == UNCHECKED ? "00000000" : "00000001") + sAttributes);
        EXPECT_EQ(how.mode, mode);
        EXPECT_TRUE(how.obj_attributes.size.set_it);
        EXPECT_EQ(how.obj_attributes.mtime.value.nseconds, 13U);
        EXPECT_EQ(how.verf, 0U);
    }
    createhow3 how = ReadHex<createhow3>("00000000" + sAttributes);
    ReadHex("00000002 81020304 05060708", &how);
    EXPECT_EQ(how.mode, EXCLUSIVE);
    EXPECT_EQ(how.verf, 0x8102030405060708U);
    ExpectNothingSet(how.obj_attributes);
    ExpectEveryCutThrows<createhow3>("00000001" + sAttributes);
    ExpectEveryCutThrows<createhow3>("00000002 81020304 05060708");
}

TEST(Nfs3XdrRead, CreateHow_OtherMode_ReadsNothingMore)
{
    createhow3 how = ReadHex<createhow3>("00000002 81020304 05060708");
    ReadHex("00000003", &how);
    EXPECT_EQ(static_cast<unsigned int>(how.mode), 3U);
    EXPECT_EQ(how.verf, 0U);
    ExpectNothingSet(how.obj_attributes);
}

TEST(Nfs3XdrRead, MakeNode_DeviceCarriesAttributesAndNumbers)
{
    const std::string sArm = SATTR_ALL_SET + std::string("00000008 00000003");
    for (const ftype3 type : {NF3CHR, NF3BLK}) {
        const std::string sHex = (type == NF3CHR ? "00000004" : "00000003") + sArm;
        mknoddata3 data = ReadHex<mknoddata3>(sHex);
        EXPECT_EQ(data.type, type);
        EXPECT_EQ(data.dev_attributes.gid.value, 1001U);
        EXPECT_EQ(data.dev_spec.specdata1, 8U);
        EXPECT_EQ(data.dev_spec.specdata2, 3U);
        ExpectNothingSet(data.pipe_attributes);
        ExpectEveryCutThrows<mknoddata3>(sHex);

        ReadHex(sHex, &data, true);
        EXPECT_EQ(data.type, type);
        ExpectNothingSet(data.dev_attributes);
        EXPECT_EQ(data.dev_spec.specdata1 | data.dev_spec.specdata2, 0U);
        ExpectEveryCutThrows<mknoddata3>(sHex, true);
    }
}

TEST(Nfs3XdrRead, MakeNode_PipeCarriesAttributes)
{
    for (const ftype3 type : {NF3SOCK, NF3FIFO}) {
        const std::string sHex =
            (type == NF3SOCK ? "00000006" : "00000007") + std::string(SATTR_ALL_SET);
        mknoddata3 data = ReadHex<mknoddata3>(sHex);
        EXPECT_EQ(data.type, type);
        EXPECT_EQ(data.pipe_attributes.gid.value, 1001U);
        ExpectNothingSet(data.dev_attributes);
        ReadHex(sHex, &data, true);
        ExpectNothingSet(data.pipe_attributes);
        ExpectEveryCutThrows<mknoddata3>(sHex);
    }
}

TEST(Nfs3XdrRead, MakeNode_OtherType_ReadsNothingMore)
{
    mknoddata3 data = ReadHex<mknoddata3>("00000007" + std::string(SATTR_ALL_SET));
    for (const char* pcHex : {"00000001", "00000002", "00000005", "00000000", "ffffffff"}) {
        ReadHex(pcHex, &data);
        ExpectNothingSet(data.dev_attributes);
        ExpectNothingSet(data.pipe_attributes);
        EXPECT_EQ(data.dev_spec.specdata1 | data.dev_spec.specdata2, 0U);
    }
}

TEST(Nfs3XdrWrite, BoolAndIntegers)
{
    EXPECT_EQ(WriteHex(true), "00000001");
    EXPECT_EQ(WriteHex(false), "00000000");
    EXPECT_EQ(WriteHex(uint32_t{0x81020304}), "81020304");
    EXPECT_EQ(WriteHex(uint64_t{0x8102030405060708}), "81020304 05060708");
    EXPECT_EQ(WriteHex(NFS3ERR_JUKEBOX), "00002718");
    EXPECT_EQ(WriteHex(FILE_SYNC), "00000002");
    EXPECT_EQ(WriteHex(specdata3{3, 4}), "00000003 00000004");
    EXPECT_EQ(WriteHex(nfstime3{5, 6}), "00000005 00000006");
}

TEST(Nfs3XdrWrite, OpaqueAndPath_WithPadding)
{
    const opaque data = {reinterpret_cast<const unsigned char*>("abcde"), 5};
    EXPECT_EQ(WriteHex(data), "00000005 61626364 65000000");
    EXPECT_EQ(WriteHex(opaque{data.pBuf, 4}), "00000004 61626364");
    EXPECT_EQ(WriteHex(opaque{}), "00000000");
    EXPECT_EQ(WriteHex(data, true), "00000005");
    COpaquePath path;
    path.Set("ab");
    EXPECT_EQ(WriteHex(path), "00000002 61620000");
    EXPECT_EQ(WriteHex(path, true), "00000002");
    EXPECT_EQ(WriteHex(COpaquePath()), "00000000");
}

TEST(Nfs3XdrWrite, Handle_IsAlways56Bytes)
{
    nfs_fh3 handle;
    handle.cHandle[0] = 0xAB;
    handle.cHandle[55] = 0xCD;
    COutputStream out;
    Write(&out, handle);
    EXPECT_EQ(GetWritten(out), FromHex("00000038 ab") + std::string(54, '\0') + FromHex("cd"));
    EXPECT_EQ(WriteHex(handle, true), "00000038");
}

namespace {

// Every field has a value of its own.
fattr3 MakeAttributes()
{
    return {NF3BLK,
            1,
            2,
            3,
            4,
            0x0500000006,
            0x0700000008,
            {9, 10},
            0x0B0000000C,
            0x0D0000000E,
            {15, 16},
            {17, 18},
            {19, 20}};
}

constexpr char ATTRIBUTES[] = "00000003 00000001 00000002 00000003 00000004 00000005 00000006 "
                              "00000007 00000008 00000009 0000000a 0000000b 0000000c 0000000d "
                              "0000000e 0000000f 00000010 00000011 00000012 00000013 00000014";
const wcc_attr BEFORE = {0x0100000002, {3, 4}, {5, 6}};
constexpr char BEFORE_HEX[] = "00000001 00000002 00000003 00000004 00000005 00000006";

}  // namespace

TEST(Nfs3XdrWrite, Attributes_InTheirOrder)
{
    EXPECT_EQ(WriteHex(MakeAttributes()), ATTRIBUTES);
    EXPECT_EQ(WriteHex(BEFORE), BEFORE_HEX);
}

TEST(Nfs3XdrWrite, OptionalRecords_FollowTheirBool)
{
    EXPECT_EQ(WriteHex(pre_op_attr{true, BEFORE}), std::string("00000001 ") + BEFORE_HEX);
    EXPECT_EQ(WriteHex(pre_op_attr{false, BEFORE}), "00000000");
    EXPECT_EQ(WriteHex(post_op_attr{true, MakeAttributes()}),
              std::string("00000001 ") + ATTRIBUTES);
    EXPECT_EQ(WriteHex(post_op_attr{false, MakeAttributes()}), "00000000");
    EXPECT_EQ(WriteHex(post_op_fh3{false, {}}), "00000000");
    EXPECT_EQ(WriteHex(post_op_fh3{true, {}}), "00000001 " + WriteHex(nfs_fh3{}));
}

TEST(Nfs3XdrWrite, WeakCacheData_BeforeAndThenAfter)
{
    EXPECT_EQ(WriteHex(wcc_data{}), "00000000 00000000");
    EXPECT_EQ(WriteHex(wcc_data{{true, BEFORE}, {false, {}}}),
              std::string("00000001 ") + BEFORE_HEX + " 00000000");
    EXPECT_EQ(WriteHex(wcc_data{{false, {}}, {true, MakeAttributes()}}),
              std::string("00000000 00000001 ") + ATTRIBUTES);
}
