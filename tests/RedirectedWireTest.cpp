// Redirected files as clients meet them over the wire, and what the host is told meanwhile.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "NamespaceFixture.h"

namespace {

constexpr uint32_t ACCESS = 4;
constexpr uint32_t READDIRPLUS = 17;
constexpr uint32_t FSSTAT = 18;
constexpr uint32_t FSINFO = 19;
constexpr uint32_t PATHCONF = 20;

constexpr uint32_t STAT_NOENT = 2;
constexpr uint32_t STAT_IO = 5;
constexpr uint32_t STAT_EXIST = 17;
constexpr uint32_t STAT_INVAL = 22;
constexpr uint32_t STAT_FBIG = 27;

constexpr uint64_t TIB = uint64_t{1} << 40;
constexpr size_t SIZE_IN_ATTRIBUTES = 20;  // where the size stands, and behind it the space used

// Every case runs with segments in memory and with segments in an index file.
class RedirectedWire : public CNamespaceFixture, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        CNamespaceFixture::SetUp();
        m_Outside.Write("letters", "abcdefghijklmnopqrstuvwxyz");
        m_Outside.Write("digits", "0123456789");
    }

    using Texts = std::vector<std::string>;

    static bool HasIndex() { return GetParam(); }

    // Makes the file that stands for it, and opens it without a segment. The granule is in MiB.
    void Open(const std::string& sName, uint64_t iSize, int iGranule = 1)
    {
        m_Folder.Write(sName, "");
        Reopen(sName, iSize, iGranule);
    }
    void Reopen(const std::string& sName, uint64_t iSize, int iGranule = 1)
    {
        m_pMain->OpenRedirectedFile(m_Folder.Path(sName).c_str(), static_cast<long long>(iSize),
                                    HasIndex(), iGranule, 4 * iGranule);
    }

    // An empty source is none.
    void AddSegment(const std::string& sName, const std::string& sSource, long long iSourceOffset,
                    uint64_t iOffset, long long iLength)
    {
        const std::string sPath = sSource.empty() ? "" : m_Outside.Path(sSource);
        EXPECT_TRUE(m_pMain->AddRedirectedFileSegment(
            m_Folder.Path(sName).c_str(), sPath.c_str(), iSourceOffset,
            static_cast<long long>(iOffset), iLength, nullptr));
    }

    // The file of most cases: 10 letters, a gap of 10, 10 digits, and nothing up to 100.
    std::string OpenGapped()
    {
        Open("disk", 100);
        AddSegment("disk", "letters", 0, 0, 10);
        AddSegment("disk", "digits", 0, 20, 10);
        return Lookup(m_sRoot, "disk");
    }

    // What READ yields: the bytes, zeros shown as dots, with "+" behind them at the end of the
    // file; or "(status n)". A reply that carries more than was asked for is a failure.
    std::string ReadAt(const std::string& sHandle, uint64_t iOffset, uint32_t iCount)
    {
        return Show(Call(READ, MakeRead(sHandle, iOffset, iCount)), iCount);
    }
    static std::string MakeRead(const std::string& sHandle, uint64_t iOffset, uint32_t iCount)
    {
        return CXdr().Opaque(sHandle).Hyper(iOffset).Word(iCount).Bytes();
    }
    static std::string Show(CReply reply, uint32_t iAsked)
    {
        const uint32_t iStatus = reply.Word();
        EXPECT_EQ(reply.Word(), 0U);  // no attributes
        if (iStatus != 0) {
            EXPECT_EQ(reply.Left(), 0U);
            return "(status " + std::to_string(iStatus) + ")";
        }
        const uint32_t iCount = reply.Word();
        const bool bEof = reply.Bool();
        std::string sData = reply.Opaque();
        EXPECT_EQ(iCount, sData.size());
        EXPECT_LE(iCount, iAsked);
        EXPECT_EQ(reply.Left(), 0U);
        std::replace(sData.begin(), sData.end(), '\0', '.');
        return sData + (bEof ? "+" : "");
    }

    // The reply's words behind the status and the two absent halves: count, stability.
    std::string WriteAt(const std::string& sHandle, uint64_t iOffset, const std::string& sData)
    {
        CReply reply = Call(WRITE, CXdr()
                                       .Opaque(sHandle)
                                       .Hyper(iOffset)
                                       .Word(static_cast<uint32_t>(sData.size()))
                                       .Word(0)
                                       .Opaque(sData)
                                       .Bytes());
        const uint32_t iStatus = reply.Word();
        EXPECT_EQ(reply.Fixed(8), Words({0, 0}));
        if (iStatus != 0)
            return "(status " + std::to_string(iStatus) + ")";
        const uint32_t iCount = reply.Word();
        EXPECT_EQ(reply.Word(), 2U);  // it is as good as on the disk
        return std::to_string(iCount);
    }

    // The status of SETATTR; the guard is off.
    uint32_t Setattr(const std::string& sHandle, const std::string& sAttributes)
    {
        return Call(SETATTR, CXdr().Opaque(sHandle).Raw(sAttributes).Word(0).Bytes()).Word();
    }

    uint64_t GetSize(const std::string& sHandle)
    {
        const std::string sReply = Getattr(sHandle);
        EXPECT_EQ(GetWord(sReply, 0), 0U);
        return uint64_t{GetWord(sReply, 4 + SIZE_IN_ATTRIBUTES)} << 32 |
               GetWord(sReply, 8 + SIZE_IN_ATTRIBUTES);
    }

    // The attributes of the file that stands for it, with another size.
    std::string AttributesWithSize(const std::string& sName, uint64_t iSize) const
    {
        const std::string sAttributes = AttributesOf(m_Folder.Path(sName));
        return sAttributes.substr(0, SIZE_IN_ATTRIBUTES) +
               CXdr().Hyper(iSize).Hyper(iSize).Bytes() +
               sAttributes.substr(SIZE_IN_ATTRIBUTES + 16);
    }

    // What the host was told since the last call, the published folder's path left out.
    Texts TakeNotifications()
    {
        Texts vNotifications = m_Log.Notifications();
        const std::string sFolder = m_Folder.Path() + "/";
        for (std::string& sText : vNotifications)
            for (size_t i = sText.find(sFolder); i != std::string::npos; i = sText.find(sFolder, i))
                sText.erase(i, sFolder.size());
        m_Log.Clear();
        return vNotifications;
    }
    // The lines that tell of errors, with "?" for descriptors.
    Texts ErrorLines() const
    {
        Texts vLines;
        for (const std::string& sLine : m_Log.Lines())
            if (sLine.starts_with("error|"))
                vLines.push_back(
                    std::regex_replace(sLine, std::regex("file \\([0-9]+\\)"), "file (?)"));
        return vLines;
    }

    const CScratchFolder m_Outside;  // the sources; not published
};

INSTANTIATE_TEST_SUITE_P(Modes, RedirectedWire, testing::Bool(), [](const auto& mode) {
    return std::string(mode.param ? "Index" : "Memory");
});

}  // namespace

// ---- Attributes ----

TEST_P(RedirectedWire, GetattrAndLookup_TellItsSize_AndElseOfThePlaceholder)
{
    for (const uint64_t iSize : {uint64_t{0}, uint64_t{1}, 4 * TIB + 12345}) {
        Open("disk", iSize);
        const std::string sHandle = Lookup(m_sRoot, "disk");
        const std::string sAttributes = AttributesWithSize("disk", iSize);
        EXPECT_EQ(ToHex(Getattr(sHandle)), ToHex(Words({0}) + sAttributes));
        const std::string sLookup = Results(LOOKUP, DirOpArgs(m_sRoot, "disk"));
        EXPECT_EQ(ToHex(sLookup.substr(8 + HANDLE_SIZE, 4 + sAttributes.size())),
                  ToHex(Words({1}) + sAttributes));
    }
}

TEST_P(RedirectedWire, Readdirplus_TellsItsSize)
{
    Open("disk", 4 * TIB + 12345);
    const std::string sListing = Results(
        READDIRPLUS, CXdr().Opaque(m_sRoot).Hyper(0).Hyper(0).Word(8192).Word(8192).Bytes());
    EXPECT_NE(sListing.find(AttributesWithSize("disk", 4 * TIB + 12345)), std::string::npos);
}

TEST_P(RedirectedWire, Close_GivesThePlaceholderBack)
{
    const std::string sHandle = OpenGapped();
    m_pMain->CloseRedirectedFile(m_Folder.Path("disk").c_str());
    EXPECT_EQ(GetSize(sHandle), std::filesystem::file_size(m_Folder.Path("disk")));
    EXPECT_EQ(WriteAt(sHandle, 0, "plain"), "5");
    EXPECT_EQ(Contents("disk").substr(0, 5), "plain");
    EXPECT_EQ(TakeNotifications(), Texts());
}

TEST_P(RedirectedWire, FileSystemProcedures_AreAnsweredAsForAPlainFile)
{
    m_Folder.Write("disk", "");
    const std::string sHandle = CXdr().Opaque(Lookup(m_sRoot, "disk")).Bytes();
    const auto Ask = [&] {
        std::string sReplies = Results(ACCESS, sHandle + Words({0x3F}));
        for (const uint32_t iProc : {FSSTAT, FSINFO, PATHCONF})
            sReplies += Results(iProc, sHandle);
        return ToHex(sReplies);
    };
    const std::string sPlain = Ask();
    Reopen("disk", 0);
    EXPECT_EQ(Ask(), sPlain);
    EXPECT_EQ(TakeNotifications(), Texts());
}

// ---- READ ----

TEST_P(RedirectedWire, Read_InsideAndAcrossSegments_GivesTheirBytes)
{
    Open("disk", 26);
    AddSegment("disk", "letters", 10, 0, 5);
    AddSegment("disk", "digits", 2, 5, 8);
    AddSegment("disk", "letters", 0, 13, 13);
    const std::string sHandle = Lookup(m_sRoot, "disk");
    EXPECT_EQ(ReadAt(sHandle, 1, 3), "lmn");
    EXPECT_EQ(ReadAt(sHandle, 3, 4), "no23");
    EXPECT_EQ(ReadAt(sHandle, 4, 10), "o23456789a");
    EXPECT_EQ(ReadAt(sHandle, 0, 26), "klmno23456789abcdefghijklm+");
}

TEST_P(RedirectedWire, Read_EndOfFile_IsToldWhereTheSizeIsReached)
{
    Open("disk", 10);
    AddSegment("disk", "digits", 0, 0, 10);
    const std::string sHandle = Lookup(m_sRoot, "disk");
    EXPECT_EQ(ReadAt(sHandle, 0, 9), "012345678");
    EXPECT_EQ(ReadAt(sHandle, 0, 10), "0123456789+");
    EXPECT_EQ(ReadAt(sHandle, 9, 1), "9+");
    EXPECT_EQ(ReadAt(sHandle, 5, 65536), "56789+");
    EXPECT_EQ(ReadAt(sHandle, 0, 0), "+");
}

// An offset at or behind the size is an error until a read has reached it, and empty then.
TEST_P(RedirectedWire, Read_AtAndBehindTheSize_DependsOnTheReadBefore)
{
    Open("disk", 10);
    AddSegment("disk", "digits", 0, 0, 10);
    const std::string sHandle = Lookup(m_sRoot, "disk");
    const uint64_t OFFSETS[] = {10,
                                11,
                                TIB,
                                uint64_t{1} << 62,
                                (uint64_t{1} << 63) - 1,
                                uint64_t{1} << 63,
                                (uint64_t{1} << 63) + 1,
                                ~uint64_t{0}};
    for (const uint64_t iOffset : OFFSETS) {
        EXPECT_EQ(ReadAt(sHandle, 0, 9), "012345678");
        EXPECT_EQ(ReadAt(sHandle, iOffset, 10), "(status 22)") << iOffset;
        EXPECT_EQ(ReadAt(sHandle, 0, 10), "0123456789+");
        EXPECT_EQ(ReadAt(sHandle, iOffset, 10), "+") << iOffset;
    }
}

TEST_P(RedirectedWire, Read_OfAnEmptyFile_IsAtItsEnd)
{
    Open("disk", 0);
    EXPECT_EQ(ReadAt(Lookup(m_sRoot, "disk"), 0, 10), "+");
}

TEST_P(RedirectedWire, Read_AcrossAGap_LeavesItOut)
{
    const std::string sHandle = OpenGapped();
    EXPECT_EQ(ReadAt(sHandle, 5, 10), "fghij01234");
    EXPECT_EQ(ReadAt(sHandle, 0, 20), "abcdefghij0123456789");
}

TEST_P(RedirectedWire, Read_ThatStartsInAGap_GivesZerosOnly)
{
    const std::string sHandle = OpenGapped();
    EXPECT_EQ(ReadAt(sHandle, 15, 10), "..........");
    EXPECT_EQ(ReadAt(sHandle, 19, 3), "...");
}

TEST_P(RedirectedWire, Read_BehindTheLastSegment_GivesZerosUpToWhatWasAskedFor)
{
    const std::string sHandle = OpenGapped();
    EXPECT_EQ(ReadAt(sHandle, 25, 20), "56789...............");
    EXPECT_EQ(ReadAt(sHandle, 40, 4), "....");
    EXPECT_EQ(ReadAt(sHandle, 95, 4), "....");
    EXPECT_EQ(ReadAt(sHandle, 95, 5), ".....+");
}

// The zeros come only where the read before did not reach the end.
TEST_P(RedirectedWire, Read_BehindTheLastSegment_AfterOneThatReachedTheEnd_IsEmptyOnce)
{
    const std::string sHandle = OpenGapped();
    EXPECT_EQ(ReadAt(sHandle, 98, 65536), "..+");
    EXPECT_EQ(ReadAt(sHandle, 98, 2), "");
    EXPECT_EQ(ReadAt(sHandle, 98, 2), "..+");
    EXPECT_EQ(ReadAt(sHandle, 25, 20), "56789");
    EXPECT_EQ(ReadAt(sHandle, 25, 20), "56789...............");
}

TEST_P(RedirectedWire, Read_WithoutSourceOrFromAMissingOrShortOne_GivesZeros)
{
    Open("disk", 40);
    AddSegment("disk", "", 0, 0, 5);
    AddSegment("disk", "missing", 0, 5, 5);
    AddSegment("disk", "digits", 7, 10, 10);
    AddSegment("disk", "letters", 0, 20, 20);
    EXPECT_EQ(ReadAt(Lookup(m_sRoot, "disk"), 0, 40), "..........789.......abcdefghijklmnopqrst+");
}

TEST_P(RedirectedWire, Read_Of65536Bytes_RunsThroughManySegments)
{
    constexpr long long LENGTH = 13;
    constexpr uint64_t COUNT = 6000;
    std::string sExpected;
    Open("disk", COUNT * LENGTH);
    for (uint64_t i = 0; i < COUNT; i++) {
        AddSegment("disk", i % 3 == 0 ? "" : "letters", static_cast<long long>(i % 13), i * LENGTH,
                   LENGTH);
        sExpected += i % 3 == 0 ? std::string(LENGTH, '.')
                                : std::string("abcdefghijklmnopqrstuvwxyz").substr(i % 13, LENGTH);
    }
    const std::string sHandle = Lookup(m_sRoot, "disk");
    EXPECT_EQ(ReadAt(sHandle, 0, 65536), sExpected.substr(0, 65536));
    EXPECT_EQ(ReadAt(sHandle, 7, 65536), sExpected.substr(7, 65536));
    EXPECT_EQ(ReadAt(sHandle, 65536, 65536), sExpected.substr(65536) + "+");
}

TEST_P(RedirectedWire, Read_Beyond4GiB_FindsItsSegment)
{
    constexpr uint64_t START = 4 * TIB - 10;
    Open("disk", 4 * TIB, 1024);
    AddSegment("disk", "", 0, 0, static_cast<long long>(START));
    AddSegment("disk", "digits", 0, START, 10);
    const std::string sHandle = Lookup(m_sRoot, "disk");
    EXPECT_EQ(ReadAt(sHandle, START - 3, 8), "...01234");
    EXPECT_EQ(ReadAt(sHandle, TIB * 3, 4), "....");
    EXPECT_EQ(ReadAt(sHandle, START + 8, 65536), "89+");
}

// What was delivered before stands.
TEST_P(RedirectedWire, Read_WhoseSourceCannotBeRead_EndsThere)
{
    std::filesystem::create_directory(m_Outside.Path("folder"));
    ASSERT_EQ(mkfifo(m_Outside.Path("pipe").c_str(), 0600), 0);
    Open("disk", 100);
    AddSegment("disk", "letters", 0, 0, 10);
    AddSegment("disk", "folder", 0, 10, 10);
    AddSegment("disk", "pipe", 0, 20, 10);
    AddSegment("disk", "digits", -5, 30, 10);
    AddSegment("disk", "digits", 0, 40, 10);
    const std::string sHandle = Lookup(m_sRoot, "disk");
    const std::tuple<uint64_t, const char*, const char*> CASES[] = {
        {5, "fghij", "OS read file (?). Error=Is a directory (21)"},
        {10, "", "OS read file (?). Error=Is a directory (21)"},
        {25, "", "OS seek file (?). Error=Illegal seek (29)"},
        {30, "", "OS seek file (?). Error=Invalid argument (22)"},
    };
    for (const auto& [iOffset, pcData, pcLine] : CASES) {
        m_Log.Clear();
        EXPECT_EQ(ReadAt(sHandle, iOffset, 30), pcData);
        EXPECT_EQ(ErrorLines(), Texts{std::string("error|vm1|[RedirectedFile.Read] ") + pcLine});
    }
    EXPECT_EQ(ReadAt(sHandle, 35, 10), "0123401234");  // from there on it is a file's bytes again
}

TEST_P(RedirectedWire, Read_OfASource_SaysSo)
{
    const std::string sHandle = OpenGapped();
    ReadAt(sHandle, 0, 5);
    m_Log.Clear();
    ReadAt(sHandle, 5, 5);
    EXPECT_EQ(m_Log.Count("info|vm1|[RedirectedFile.Read] OS seek file ("), 1U);
    EXPECT_EQ(m_Log.Count("info|vm1|[RedirectedFile.Read] OS read file ("), 1U);
    EXPECT_EQ(ErrorLines(), Texts());
}

// ---- WRITE ----

TEST_P(RedirectedWire, Write_IsToldToTheHost_WhoseCountIsTheReply)
{
    const std::string sHandle = OpenGapped();
    const std::string sBefore = Contents("disk");
    for (const int iTaken : {5, 3, 0, 100}) {
        m_Log.SetWriteResult(iTaken);
        EXPECT_EQ(WriteAt(sHandle, 2, "XXXXX"), std::to_string(iTaken));
        EXPECT_EQ(TakeNotifications(), Texts{"write|vm1|disk|2|0|5"});
    }
    EXPECT_EQ(ReadAt(sHandle, 0, 10), "abcdefghij");
    EXPECT_EQ(GetSize(sHandle), 100U);
    EXPECT_EQ(Contents("disk"), sBefore);
    EXPECT_EQ(ReadWholeFile(m_Outside.Path("letters")), "abcdefghijklmnopqrstuvwxyz");
}

TEST_P(RedirectedWire, Write_InAGapAndBehindTheSize_IsToldToTheHostToo)
{
    const std::string sHandle = OpenGapped();
    m_Log.SetWriteResult(3);
    EXPECT_EQ(WriteAt(sHandle, 12, "XXX"), "3");
    EXPECT_EQ(WriteAt(sHandle, 100, "XXX"), "3");
    EXPECT_EQ(WriteAt(sHandle, 2 * TIB - 3, "XXX"), "3");
    EXPECT_EQ(TakeNotifications(),
              (Texts{"write|vm1|disk|12|0|3", "write|vm1|disk|100|0|3",
                     "write|vm1|disk|" + std::to_string(2 * TIB - 3) + "|0|3"}));
    EXPECT_EQ(GetSize(sHandle), 100U);
}

TEST_P(RedirectedWire, Write_MoreThanTheLimit_IsToldUpToIt)
{
    const std::string sHandle = OpenGapped();
    m_Log.SetWriteResult(16384);
    EXPECT_EQ(WriteAt(sHandle, 0, std::string(20000, 'X')), "16384");
    EXPECT_EQ(TakeNotifications(), Texts{"write|vm1|disk|0|0|16384"});
}

TEST_P(RedirectedWire, Write_OfNothingOrTooFar_DoesNotReachTheHost)
{
    const std::string sHandle = OpenGapped();
    EXPECT_EQ(WriteAt(sHandle, 5, ""), "0");
    for (const uint64_t iOffset : {2 * TIB, uint64_t{1} << 63, ~uint64_t{0}})
        EXPECT_EQ(WriteAt(sHandle, iOffset, "X"), "(status " + std::to_string(STAT_FBIG) + ")");
    EXPECT_EQ(TakeNotifications(), Texts());
}

TEST_P(RedirectedWire, Write_ThatTheHostRefuses_IsInvalid)
{
    const std::string sHandle = OpenGapped();
    for (const int iResult : {-1, -22}) {
        m_Log.SetWriteResult(iResult);
        EXPECT_EQ(WriteAt(sHandle, 2, "XXXXX"), "(status 22)");
        EXPECT_EQ(TakeNotifications(), Texts{"write|vm1|disk|2|0|5"});
    }
    EXPECT_EQ(ReadAt(sHandle, 0, 10), "abcdefghij");
}

TEST_P(RedirectedWire, Changes_WithoutAHost_Fail)
{
    const std::string sHandle = OpenGapped();
    m_pMain->SetLogControl(0);
    m_pMain->SetCallback(nullptr);
    EXPECT_EQ(WriteAt(sHandle, 2, "XXXXX"), "(status 22)");
    EXPECT_EQ(Setattr(sHandle, SattrSize(5)), STAT_INVAL);
    EXPECT_EQ(GetWord(Create(m_sRoot, "disk", Unchecked(SattrSize(0))), 0), STAT_IO);
    EXPECT_EQ(Rename("disk", "moved"), RenameStatus(STAT_IO));
    EXPECT_EQ(Remove(m_sRoot, "moved"), Status(STAT_IO));
    EXPECT_TRUE(std::filesystem::is_empty(m_Folder.Path()));
}

// ---- SETATTR ----

TEST_P(RedirectedWire, Setattr_IsToldToTheHost_AndChangesNothing)
{
    const std::string sHandle = OpenGapped();
    const mode_t iMode = GetMode("disk");
    const std::string sPlaceholder = AttributesOf(m_Folder.Path("disk"));
    const std::string sTimes = Words({0, 0, 0, 0, 2, 1000, 1, 2, 0xFFFFFFFF, 2});
    const std::string sServerTimes = Words({0, 0, 0, 0, 1, 1});
    const std::string sSize5Tib = std::to_string(5 * TIB);
    const std::pair<std::string, std::string> CASES[] = {
        {SattrSize(0), "1|0|0|0|0|0"},
        {SattrSize(5 * TIB), "1|" + sSize5Tib + "|0|0|0|0"},
        {SattrSize(~uint64_t{0}), "1|18446744073709551615|0|0|0|0"},
        {sTimes, "0|0|1|1000|1|4294967295"},
        {sServerTimes, "0|0|1|0|1|0"},
        {SattrMode(0600), "0|0|0|0|0|0"},
        {Words({0, 1, 1000, 1, 1000, 0, 0, 0}), "0|0|0|0|0|0"},
        {SATTR_ALL, "1|3|1|4|1|6"},
    };
    for (const auto& [sAttributes, sArguments] : CASES) {
        EXPECT_EQ(Setattr(sHandle, sAttributes), 0U) << sArguments;
        EXPECT_EQ(TakeNotifications(), Texts{"update|vm1|disk|" + sArguments});
    }
    EXPECT_EQ(GetMode("disk"), iMode);
    EXPECT_EQ(GetSize(sHandle), 100U);
    EXPECT_EQ(ToHex(AttributesOf(m_Folder.Path("disk"))), ToHex(sPlaceholder));
}

TEST_P(RedirectedWire, Setattr_OfNothing_DoesNotReachTheHost)
{
    EXPECT_EQ(Setattr(OpenGapped(), SATTR_NONE), 0U);
    EXPECT_EQ(TakeNotifications(), Texts());
}

TEST_P(RedirectedWire, Setattr_ThatTheHostRefuses_IsInvalid)
{
    const std::string sHandle = OpenGapped();
    for (const int iResult : {-1, 1}) {
        m_Log.SetUpdateResult(iResult);
        EXPECT_EQ(Setattr(sHandle, SattrSize(5)), STAT_INVAL);
        EXPECT_EQ(TakeNotifications(), Texts{"update|vm1|disk|1|5|0|0|0|0"});
    }
    EXPECT_EQ(GetSize(sHandle), 100U);
}

// ---- CREATE ----

TEST_P(RedirectedWire, Create_OverIt_KeepsIt_AndTellsTheHostOfTheAttributes)
{
    const std::string sHandle = OpenGapped();
    const std::string sBefore = Contents("disk");
    const std::string sMade = CXdr()
                                  .Word(0)
                                  .Word(1)
                                  .Opaque(sHandle)
                                  .Word(1)
                                  .Raw(AttributesWithSize("disk", 100))
                                  .Raw(Words({0, 0}))
                                  .Bytes();
    for (const std::string& sHow : {Unchecked(), EXCLUSIVELY}) {
        EXPECT_EQ(ToHex(Create(m_sRoot, "disk", sHow)), ToHex(sMade));
        EXPECT_EQ(TakeNotifications(), Texts());
    }
    EXPECT_EQ(ToHex(Create(m_sRoot, "disk", Unchecked(SattrSize(0)))), ToHex(sMade));
    EXPECT_EQ(TakeNotifications(), Texts{"update|vm1|disk|1|0|0|0|0|0"});
    EXPECT_EQ(Create(m_sRoot, "disk", Guarded()), Status(STAT_EXIST));
    EXPECT_EQ(TakeNotifications(), Texts());
    EXPECT_EQ(ReadAt(sHandle, 0, 10), "abcdefghij");
    EXPECT_EQ(Contents("disk"), sBefore);
}

TEST_P(RedirectedWire, Create_WhoseAttributesTheHostRefuses_IsAnIoError)
{
    OpenGapped();
    m_Log.SetUpdateResult(-1);
    EXPECT_EQ(Create(m_sRoot, "disk", Unchecked(SattrSize(0))), Status(STAT_IO));
    EXPECT_EQ(TakeNotifications(), Texts{"update|vm1|disk|1|0|0|0|0|0"});
}

// ---- RENAME ----

// With an index the bytes are lost: it is no longer where the file looks for it.
TEST_P(RedirectedWire, Rename_IsToldToTheHost_AndTheHandleFollows)
{
    const std::string sHandle = OpenGapped();
    EXPECT_EQ(ReadAt(sHandle, 0, 10), "abcdefghij");
    EXPECT_EQ(Rename("disk", "moved"), RenameStatus(0));
    EXPECT_EQ(TakeNotifications(), Texts{"rename|vm1|disk|moved"});
    EXPECT_EQ(Lookup(m_sRoot, "moved"), sHandle);
    EXPECT_EQ(LookupStatus(m_sRoot, "disk"), STAT_NOENT);
    EXPECT_EQ(GetSize(sHandle), 100U);
    EXPECT_EQ(ReadAt(sHandle, 0, 10), HasIndex() ? ".........." : "abcdefghij");
    m_Log.SetWriteResult(1);
    EXPECT_EQ(WriteAt(sHandle, 7, "X"), "1");
    EXPECT_EQ(TakeNotifications(), Texts{"write|vm1|moved|7|0|1"});
}

TEST_P(RedirectedWire, Rename_ThatTheHostRefuses_IsAnIoError_ButDone)
{
    OpenGapped();
    m_Log.SetRenameResult(-1);
    EXPECT_EQ(Rename("disk", "moved"), RenameStatus(STAT_IO));
    EXPECT_EQ(TakeNotifications(), Texts{"rename|vm1|disk|moved"});
    EXPECT_FALSE(Exists("disk"));
    EXPECT_EQ(GetSize(Lookup(m_sRoot, "moved")), 100U);
}

TEST_P(RedirectedWire, Rename_OntoARedirectedFile_RemovesThatOneFirst)
{
    const std::string sHandle = OpenGapped();
    Open("target", 7);
    Lookup(m_sRoot, "target");
    EXPECT_EQ(Rename("disk", "target"), RenameStatus(0));
    EXPECT_EQ(TakeNotifications(), (Texts{"remove|vm1|target", "rename|vm1|disk|target"}));
    EXPECT_EQ(GetSize(sHandle), 100U);
    EXPECT_EQ(GetSize(Lookup(m_sRoot, "target")), 100U);
}

TEST_P(RedirectedWire, Rename_OntoARedirectedFileThatTheHostKeeps_IsAnIoError)
{
    const std::string sHandle = OpenGapped();
    Open("target", 7);
    m_Log.SetRemoveResult(-1);
    EXPECT_EQ(Rename("disk", "target"), RenameStatus(STAT_IO));
    EXPECT_EQ(TakeNotifications(), Texts{"remove|vm1|target"});
    EXPECT_EQ(ReadAt(sHandle, 0, 10), "abcdefghij");
}

TEST_P(RedirectedWire, Rename_OfAPlainFileOntoIt_LeavesAPlainFile)
{
    OpenGapped();
    m_Folder.Write("plain", "plain text");
    const std::string sHandle = Lookup(m_sRoot, "plain");
    EXPECT_EQ(Rename("plain", "disk"), RenameStatus(0));
    EXPECT_EQ(TakeNotifications(), Texts{"remove|vm1|disk"});
    EXPECT_EQ(ReadAt(sHandle, 0, 100), "plain text+");
    EXPECT_EQ(GetSize(Lookup(m_sRoot, "disk")), 10U);
}

TEST_P(RedirectedWire, Rename_OfAFolder_TakesTheFilesBelowAlong)
{
    MakeFolder("folder/deeper");
    MakeFolder("folder2");
    Open("folder/disk", 100);
    AddSegment("folder/disk", "letters", 0, 0, 10);
    Open("folder/deeper/disk", 200);
    Open("folder2/disk", 300);
    const std::string sFolder = Lookup(m_sRoot, "folder");
    const std::string sDisk = Lookup(sFolder, "disk");
    const std::string sDeeper = Lookup(Lookup(sFolder, "deeper"), "disk");
    const std::string sOther = Lookup(Lookup(m_sRoot, "folder2"), "disk");
    EXPECT_EQ(Rename("folder", "moved"), RenameStatus(0));
    EXPECT_EQ(TakeNotifications(), (Texts{"rename|vm1|folder/deeper/disk|moved/deeper/disk",
                                          "rename|vm1|folder/disk|moved/disk"}));
    EXPECT_EQ(GetSize(sDisk), 100U);
    EXPECT_EQ(GetSize(sDeeper), 200U);
    EXPECT_EQ(GetSize(sOther), 300U);
    EXPECT_EQ(ReadAt(sDisk, 0, 10), HasIndex() ? ".........." : "abcdefghij");
    EXPECT_EQ(Lookup(Lookup(m_sRoot, "moved"), "disk"), sDisk);
    m_Log.SetWriteResult(1);
    EXPECT_EQ(WriteAt(sDeeper, 7, "X"), "1");
    EXPECT_EQ(TakeNotifications(), Texts{"write|vm1|moved/deeper/disk|7|0|1"});
}

// ---- REMOVE ----

TEST_P(RedirectedWire, Remove_TakesThePlaceholder_ClosesIt_AndTellsTheHost)
{
    const std::string sHandle = OpenGapped();
    ReadAt(sHandle, 0, 10);
    EXPECT_EQ(Remove(m_sRoot, "disk"), Status(0));
    EXPECT_EQ(TakeNotifications(), Texts{"remove|vm1|disk"});
    EXPECT_FALSE(Exists("disk"));
    EXPECT_EQ(LookupStatus(m_sRoot, "disk"), STAT_NOENT);
    EXPECT_EQ(ReadAt(sHandle, 0, 10), "(status 5)");
    EXPECT_EQ(CountOpenFiles(), 0U);
    m_Folder.Write("disk", "plain text");
    EXPECT_EQ(ReadAt(sHandle, 0, 100), "plain text+");
    EXPECT_TRUE(std::filesystem::exists(m_Outside.Path("letters")));
}

TEST_P(RedirectedWire, Remove_ThatTheHostRefuses_IsAnIoError_ButDone)
{
    OpenGapped();
    m_Log.SetRemoveResult(1);
    EXPECT_EQ(Remove(m_sRoot, "disk"), Status(STAT_IO));
    EXPECT_EQ(TakeNotifications(), Texts{"remove|vm1|disk"});
    EXPECT_FALSE(Exists("disk"));
    m_Folder.Write("disk", "plain");
    EXPECT_EQ(GetSize(Lookup(m_sRoot, "disk")), 5U);
}

TEST_P(RedirectedWire, Remove_WhosePlaceholderIsMissing_KeepsItOpen)
{
    OpenGapped();
    std::filesystem::remove(m_Folder.Path("disk"));
    EXPECT_EQ(Remove(m_sRoot, "disk"), Status(STAT_NOENT));
    EXPECT_EQ(TakeNotifications(), Texts());
    m_Folder.Write("disk", "");
    EXPECT_EQ(GetSize(Lookup(m_sRoot, "disk")), 100U);
}

// ---- Many at once ----

// The host closes the file while they read. An index then lies there as a plain file, but ends long
// before the place where they read.
TEST_P(RedirectedWire, Close_WhileTenClientsRead_YieldsRightBytesOrZerosToEach)
{
    constexpr uint64_t START = 0x10000;
    constexpr int CLIENTS = 10;
    constexpr int READS = 200;
    const std::string sExpected = "hijklmnopqrstuvwxyz0123456";
    const auto iCount = static_cast<uint32_t>(sExpected.size());
    Open("disk", 4 * START);
    AddSegment("disk", "", 0, 0, START);
    AddSegment("disk", "letters", 0, START, 26);
    AddSegment("disk", "digits", 0, START + 26, 10);
    const std::string sHandle = Lookup(m_sRoot, "disk");

    std::atomic<int> iRight = 0;
    std::atomic<int> iLost = 0;
    std::atomic<int> iWrong = 0;
    const auto ReadOften = [&](CTcpClient* pClient) {
        for (int i = 0; i < READS; i++) {
            const std::string sShown =
                Show(pClient->Call(NfsCall(READ, MakeRead(sHandle, START + 7, iCount))), iCount);
            if (sShown == sExpected) {
                iRight++;
                iRight.notify_all();
            } else if (sShown == std::string(iCount, '.') || sShown == "+") {
                iLost++;
            } else {
                iWrong++;
            }
        }
    };
    std::vector<CTcpClient> vClients;
    for (int i = 1; i < CLIENTS; i++)
        vClients.emplace_back(WIRE_NFS_PORT);
    std::vector<std::thread> vThreads;
    for (CTcpClient& client : vClients)
        vThreads.emplace_back(ReadOften, &client);
    vThreads.emplace_back(ReadOften, m_pNfs.get());
    for (int iSeen = 0; iSeen < READS; iSeen = iRight)
        iRight.wait(iSeen);
    m_pMain->CloseRedirectedFile(m_Folder.Path("disk").c_str());
    for (std::thread& thread : vThreads)
        thread.join();
    EXPECT_EQ(iWrong, 0);
    EXPECT_EQ(iRight + iLost, CLIENTS * READS);
    EXPECT_EQ(Show(m_pNfs->Call(NfsCall(READ, MakeRead(sHandle, START + 7, iCount))), iCount), "+");
}
