// READ, WRITE and COMMIT, over the wire where clients can tell the difference.
#include <atomic>
#include <cstdlib>
#include <new>
#include <random>
#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Nfs3Fixture.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HAS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HAS_SANITIZER 1
#endif
#endif

#ifndef HAS_SANITIZER  // which replace these operators themselves

namespace {

std::atomic<size_t> g_iAllocations = 0;

}  // namespace

__attribute__((noinline)) void* operator new(size_t iSize)
{
    g_iAllocations++;
    if (void* pMemory = malloc(iSize))
        return pMemory;
    throw std::bad_alloc();
}

__attribute__((noinline)) void operator delete(void* pMemory) noexcept
{
    free(pMemory);
}

__attribute__((noinline)) void operator delete(void* pMemory, size_t) noexcept
{
    free(pMemory);
}

#endif

namespace {

constexpr uint32_t READ = 6;
constexpr uint32_t WRITE = 7;
constexpr uint32_t COMMIT = 21;

constexpr uint32_t READ_LIMIT = 65536;
constexpr uint32_t WRITE_LIMIT = 16384;
constexpr uint64_t MAX_FILE_SIZE = 2199023255552;  // of a tmpfs
constexpr size_t READ_HEADER_SIZE = 20;            // of a successful READ, up to its data

const std::string READ_REFUSED = Words({22, 0});

// Bytes that differ wherever one looks.
std::string MakeData(size_t iLength, unsigned int iSeed = 1)
{
    std::mt19937 random(iSeed);
    std::string sData(iLength, '\0');
    for (char& cByte : sData)
        cByte = static_cast<char>(random());
    return sData;
}

std::string ReadArguments(uint64_t iOffset, uint32_t iCount)
{
    return CXdr().Hyper(iOffset).Word(iCount).Bytes();
}

std::string WriteArguments(uint64_t iOffset, uint32_t iCount, std::string_view sData,
                           uint32_t iStable = 0)
{
    return CXdr().Hyper(iOffset).Word(iCount).Word(iStable).Opaque(sData).Bytes();
}

std::string Refused(uint32_t iStatus)
{
    return Words({iStatus, 0, 0});
}

class Nfs3ProgData : public CNfs3WireFixture {
protected:
    // Makes a file and m_sHandle its handle.
    std::string MakeFile(const std::string& sContents)
    {
        const std::string sPath = m_Folder.Write("file", sContents);
        m_sHandle = HandleArgument("file");
        return sPath;
    }

    // A READ that succeeds: its reply is checked whole, and the data in it are returned.
    std::string Read(uint64_t iOffset, uint32_t iCount, bool bEof)
    {
        const std::string sReply = Results(READ, m_sHandle + ReadArguments(iOffset, iCount));
        if (sReply.size() < READ_HEADER_SIZE) {
            ADD_FAILURE() << "A short reply: " << ToHex(sReply);
            return {};
        }
        const uint32_t iRead = GetWord(sReply, 8);
        EXPECT_EQ(ToHex(sReply.substr(0, READ_HEADER_SIZE)),
                  ToHex(Words({0, 0, iRead, bEof ? 1U : 0U, iRead})));
        EXPECT_EQ(sReply.size(), READ_HEADER_SIZE + (iRead + 3) / 4 * 4) << "with its padding";
        return sReply.substr(READ_HEADER_SIZE, iRead);
    }

    std::string Write(uint64_t iOffset, uint32_t iCount, std::string_view sData,
                      uint32_t iStable = 0)
    {
        return Results(WRITE, m_sHandle + WriteArguments(iOffset, iCount, sData, iStable));
    }

    // A WRITE that succeeds: its reply is checked but for the verifier, and its count returned.
    uint32_t WriteSome(uint64_t iOffset, uint32_t iCount, std::string_view sData,
                       uint32_t iStable = 0)
    {
        const std::string sReply = Write(iOffset, iCount, sData, iStable);
        const uint32_t iWritten = GetWord(sReply, 12);
        EXPECT_EQ(sReply.size(), 28U);
        EXPECT_EQ(ToHex(sReply.substr(0, 20)), ToHex(Words({0, 0, 0, iWritten, 2})));
        return iWritten;
    }

    // The line that READ's failures have in common.
    std::string Where(const std::string& sPath, uint64_t iOffset, uint32_t iCount) const
    {
        return "(path=" + sPath + ", offset=" + std::to_string(iOffset) +
               " length=" + std::to_string(iCount) + ")";
    }

    std::string m_sHandle;
};

class Nfs3ProgDataReadOnly : public Nfs3ProgData {
protected:
    void SetUp() override { StartMounted(true); }
};

// The program without a server.
class Nfs3ProgDataDirect : public CNfs3ProgFixture {
protected:
    Nfs3ProgDataDirect() { Add(m_folder.Path(), "vm1"); }

    static std::string Verifier(const std::string& sWriteReply)
    {
        return sWriteReply.size() == 28 ? sWriteReply.substr(20) : "(none)";
    }
};

// A file system of 64 KiB in a folder of its own; gone with the object.
class CSmallFileSystem {
public:
    explicit CSmallFileSystem(const std::string& sPath) : m_sPath(sPath)
    {
        std::filesystem::create_directory(m_sPath);
        EXPECT_EQ(mount("tmpfs", m_sPath.c_str(), "tmpfs", 0, "size=64k"), 0);
    }
    ~CSmallFileSystem() { umount2(m_sPath.c_str(), MNT_DETACH); }
    CSmallFileSystem(const CSmallFileSystem&) = delete;
    CSmallFileSystem& operator=(const CSmallFileSystem&) = delete;

private:
    std::string m_sPath;
};

}  // namespace

TEST_F(Nfs3ProgData, Read_AnyLength_IsWhole)
{
    const std::string sData = MakeData(50);
    MakeFile(sData);
    for (uint32_t iCount = 1; iCount < 50; iCount++)
        EXPECT_EQ(Read(0, iCount, false), sData.substr(0, iCount)) << iCount;
    for (uint32_t iOffset = 0; iOffset < 50; iOffset++)
        EXPECT_EQ(Read(iOffset, 1000, true), sData.substr(iOffset)) << iOffset;
}

TEST_F(Nfs3ProgData, Read_EofIsTrueOnlyAtTheEnd)
{
    MakeFile("0123456789");
    EXPECT_EQ(Read(0, 9, false), "012345678");
    EXPECT_EQ(Read(0, 10, true), "0123456789");
    EXPECT_EQ(Read(0, 11, true), "0123456789");
    EXPECT_EQ(Read(9, 1, true), "9");
    EXPECT_EQ(Read(10, 1, true), "");
    EXPECT_EQ(Read(1000000, 1, true), "");
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureREAD] Offset=0, length=9"));
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureREAD] Read=9 (eof=F)"));
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureREAD] Read=10 (eof=T)"));
    EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureREAD] End stat=0"));
}

TEST_F(Nfs3ProgData, Read_OfNothing_IsAnEmptySuccessAtTheEnd)
{
    MakeFile("0123456789");
    EXPECT_EQ(Read(0, 0, true), "");
    EXPECT_EQ(m_Log.Count("Read file, path="), 0U);  // the file is not touched
    m_Folder.Write("empty", "");
    m_sHandle = HandleArgument("empty");
    EXPECT_EQ(Read(0, 100, true), "");
}

TEST_F(Nfs3ProgData, Read_OfMoreThanTheLimit_IsCut)
{
    const std::string sData = MakeData(200000);
    MakeFile(sData);
    EXPECT_TRUE(Read(0, 100000, false) == sData.substr(0, READ_LIMIT));
    EXPECT_TRUE(Read(1, READ_LIMIT, false) == sData.substr(1, READ_LIMIT));
    EXPECT_EQ(Read(200000 - READ_LIMIT - 1, 100000, false).size(), READ_LIMIT);
    EXPECT_TRUE(Read(200000 - READ_LIMIT, 100000, true) == sData.substr(200000 - READ_LIMIT));
    EXPECT_EQ(Read(200000 - 5, 100000, true), sData.substr(200000 - 5));
}

TEST_F(Nfs3ProgData, Read_CountBiggerThanTheFreeBuffer_IsInvalid)
{
    const std::string sPath = MakeFile("0123456789");
    // In front of the data: mark, reply header, status, attributes' bool, count, eof and length.
    const uint32_t iFree = 0x100000 - 4 - REPLY_HEADER_SIZE - READ_HEADER_SIZE;
    EXPECT_EQ(Read(3, iFree, true), "3456789");
    for (const uint32_t iCount : {iFree + 1, 0x100000U, 0x80000000U, 0xFFFFFFFFU}) {
        m_Log.Clear();
        EXPECT_EQ(ToHex(Results(READ, m_sHandle + ReadArguments(3, iCount))), ToHex(READ_REFUSED));
        EXPECT_TRUE(m_Log.Contains("error|vm1|[Nfs3Prog.ProcedureREAD] Count bigger than free "
                                   "buffer " +
                                   Where(sPath, 3, iCount)));
        EXPECT_TRUE(m_Log.Contains("error|vm1|[Nfs3Prog.ProcedureREAD] Read fail"));
        EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureREAD] End stat=22"));
        EXPECT_FALSE(m_Log.Contains("Read return -1"));
    }
    EXPECT_EQ(Read(0, 4, false), "0123");  // the connection is as good as before
}

TEST_F(Nfs3ProgData, Read_OfADirectory_IsInvalid)
{
    m_sHandle = RootArgument();
    EXPECT_EQ(ToHex(Results(READ, m_sHandle + ReadArguments(5, 7))), ToHex(READ_REFUSED));
    EXPECT_TRUE(m_Log.Contains("error|vm1|[Nfs3Prog.ProcedureREAD] Read return -1 " +
                               Where(m_Folder.Path(), 5, 7)));
    EXPECT_TRUE(m_Log.Contains("error|vm1|[Nfs3Prog.ProcedureREAD] Read fail"));
    EXPECT_EQ(Read(0, 0, true), "");
}

TEST_F(Nfs3ProgData, Read_AtAnOffsetThatNoFileHas_IsInvalid)
{
    const std::string sPath = MakeFile("0123456789");
    for (const uint64_t iOffset : {uint64_t{1} << 63, ~uint64_t{0}}) {
        EXPECT_EQ(Results(READ, m_sHandle + ReadArguments(iOffset, 7)), READ_REFUSED);
        EXPECT_TRUE(m_Log.Contains("Read return -1 " + Where(sPath, iOffset, 7)));
    }
}

TEST_F(Nfs3ProgData, UnknownAndMissingObjects_AreIoErrors)
{
    std::filesystem::remove(MakeFile("x"));
    const std::string sUnknown = CXdr().Opaque(MakeHandle(999)).Bytes();
    EXPECT_EQ(Results(READ, m_sHandle + ReadArguments(0, 4)), Words({5, 0}));
    EXPECT_EQ(Write(0, 5, "hello"), Refused(5));
    EXPECT_FALSE(m_Log.Contains("Path record not found"));
    EXPECT_FALSE(m_Log.Contains("Read fail"));
    EXPECT_TRUE(m_Log.Contains("error|vm1|[Nfs3Prog.ProcedureWRITE] Write fail"));
    EXPECT_FALSE(std::filesystem::exists(m_Folder.Path("file")));

    EXPECT_EQ(Results(READ, sUnknown + ReadArguments(0, 4)), Words({5, 0}));
    EXPECT_EQ(Results(WRITE, sUnknown + WriteArguments(0, 5, "hello")), Refused(5));
    for (const char* pcName : {"READ", "WRITE"})
        EXPECT_TRUE(m_Log.Contains("error|127.0.0.1|[Nfs3Prog.Procedure" + std::string(pcName) +
                                   "] Path record not found"));
}

TEST_F(Nfs3ProgData, Write_ThenRead_GivesTheSameBytes)
{
    const std::string sPath = MakeFile("");
    std::string sExpected;
    std::mt19937 random(7);
    for (unsigned int i = 0; i < 60; i++) {
        const size_t iOffset = random() % 300000;
        const std::string sData = MakeData(1 + random() % WRITE_LIMIT, i);
        const auto iLength = static_cast<uint32_t>(sData.size());
        ASSERT_EQ(WriteSome(iOffset, iLength, sData), iLength);
        sExpected.resize(std::max(sExpected.size(), iOffset + iLength));
        sExpected.replace(iOffset, iLength, sData);
        ASSERT_TRUE(Read(iOffset, iLength, iOffset + iLength == sExpected.size()) == sData);
    }
    EXPECT_TRUE(ReadWholeFile(sPath) == sExpected);

    std::string sRead;
    while (sRead.size() < sExpected.size()) {
        const bool bLast = sExpected.size() - sRead.size() <= READ_LIMIT;
        const std::string sPart = Read(sRead.size(), READ_LIMIT, bLast);
        ASSERT_FALSE(sPart.empty());
        sRead += sPart;
    }
    EXPECT_TRUE(sRead == sExpected);
}

TEST_F(Nfs3ProgData, Write_SmallPieces_LeaveTheRestAlone)
{
    const std::string sPath = MakeFile("0123456789");
    EXPECT_EQ(WriteSome(3, 3, "abc"), 3U);
    EXPECT_EQ(ReadWholeFile(sPath), "012abc6789");
    EXPECT_EQ(WriteSome(12, 1, "z"), 1U);
    EXPECT_EQ(ReadWholeFile(sPath), std::string("012abc6789\0\0z", 13));
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureWRITE] Offset=3, length=3, count=3"));
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureWRITE] Write=3"));
    EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureWRITE] End stat=0"));
}

TEST_F(Nfs3ProgData, Write_OfMoreThanTheLimit_IsCut)
{
    const std::string sPath = MakeFile("");
    const std::string sData = MakeData(32768);
    EXPECT_EQ(WriteSome(0, 32768, sData), WRITE_LIMIT);
    EXPECT_TRUE(ReadWholeFile(sPath) == sData.substr(0, WRITE_LIMIT));
    EXPECT_EQ(WriteSome(100, WRITE_LIMIT + 1, sData), WRITE_LIMIT);
    EXPECT_EQ(std::filesystem::file_size(sPath), WRITE_LIMIT + 100);
}

TEST_F(Nfs3ProgData, Write_IsAlwaysDeclaredStable)
{
    MakeFile("");
    for (const uint32_t iStable : {0U, 1U, 2U, 3U, 0xFFFFFFFFU})
        EXPECT_EQ(WriteSome(0, 1, "x", iStable), 1U);
}

TEST_F(Nfs3ProgData, Write_CountDiffersFromTheData)
{
    const std::string sPath = MakeFile("----------");
    EXPECT_EQ(WriteSome(0, 2, "abcd"), 2U);  // the count is what counts
    EXPECT_EQ(ReadWholeFile(sPath), "ab--------");
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureWRITE] Offset=0, length=4, count=2"));
    EXPECT_EQ(WriteSome(4, 100, "efg"), 3U);  // but nothing that did not come is written
    EXPECT_EQ(WriteSome(0, 0x7FFFFFFF, "AB"), 2U);
    EXPECT_EQ(WriteSome(0, 0xFFFFFFFF, "AB"), 2U);
    EXPECT_EQ(WriteSome(0, 100, ""), 0U);
    EXPECT_EQ(ReadWholeFile(sPath), "AB--efg---");
}

TEST_F(Nfs3ProgData, Write_OfNothing_IsAnEmptySuccess)
{
    const std::string sPath = MakeFile("0123456789");
    EXPECT_EQ(WriteSome(20, 0, ""), 0U);
    EXPECT_EQ(WriteSome(0, 0, "abc"), 0U);
    EXPECT_EQ(ReadWholeFile(sPath), "0123456789");
    EXPECT_EQ(m_Log.Count("Write file, path="), 0U);
}

TEST_F(Nfs3ProgData, Write_BeyondTheMaximumFileSize_IsTooBig)
{
    const std::string sPath = MakeFile("0123456789");
    const struct {
        uint64_t iOffset;
        uint32_t iCount;
    } CASES[] = {{MAX_FILE_SIZE - 2, 3},    {MAX_FILE_SIZE, 1},
                 {MAX_FILE_SIZE + 1, 1},    {MAX_FILE_SIZE - 0xFFFFFFFE, 0xFFFFFFFF},
                 {uint64_t{1} << 63, 1},    {~uint64_t{0}, 1},
                 {~uint64_t{0}, 0xFFFFFFFF}};
    for (const auto& [iOffset, iCount] : CASES) {
        m_Log.Clear();
        EXPECT_EQ(ToHex(Write(iOffset, iCount, "abc")), ToHex(Refused(27))) << iOffset;
        EXPECT_TRUE(m_Log.Contains("error|vm1|[Nfs3Prog.ProcedureWRITE] Write fail"));
        EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureWRITE] End stat=27"));
    }
    EXPECT_EQ(ReadWholeFile(sPath), "0123456789");
    EXPECT_EQ(WriteSome(MAX_FILE_SIZE, 0, ""), 0U);
    EXPECT_EQ(WriteSome(MAX_FILE_SIZE - 3, 3, "abc"), 3U);  // up to the last byte
    EXPECT_EQ(std::filesystem::file_size(sPath), MAX_FILE_SIZE);
    EXPECT_EQ(Read(MAX_FILE_SIZE - 4, 100, true), std::string("\0abc", 4));
}

TEST_F(Nfs3ProgData, Write_ToADirectory_IsInvalid)
{
    m_sHandle = RootArgument();
    EXPECT_EQ(Write(0, 5, "hello"), Refused(22));
    EXPECT_TRUE(m_Log.Contains("error|vm1|[Nfs3Prog.ProcedureWRITE] Write fail"));
}

TEST_F(Nfs3ProgData, Write_ToAFullFileSystem_WritesWhatFitsAndThenFails)
{
    const CSmallFileSystem fileSystem(m_Folder.Path("small"));
    const std::string sPath = m_Folder.Write("small/file", "");
    m_sHandle = CXdr().Opaque(Lookup(Lookup(m_sRoot, "small"), "file")).Bytes();
    const std::string sData = MakeData(WRITE_LIMIT);
    for (uint32_t iPart = 0; iPart < 3; iPart++)
        EXPECT_EQ(WriteSome(iPart * WRITE_LIMIT, WRITE_LIMIT, sData), WRITE_LIMIT);
    EXPECT_EQ(WriteSome(3 * WRITE_LIMIT, 8192, sData), 8192U);
    const uint32_t iOffset = 3 * WRITE_LIMIT + 8192;  // 8 KiB are left
    EXPECT_EQ(WriteSome(iOffset, WRITE_LIMIT, sData), 8192U);
    EXPECT_FALSE(m_Log.Contains("Write fail"));
    EXPECT_EQ(Write(4 * WRITE_LIMIT, WRITE_LIMIT, sData), Refused(22));
    EXPECT_TRUE(m_Log.Contains("error|vm1|[Nfs3Prog.ProcedureWRITE] Write fail"));
    EXPECT_TRUE(m_Log.Contains("[Nfs3Prog.ProcedureWRITE] End stat=22"));
    EXPECT_TRUE(Read(iOffset, 100000, true) == sData.substr(0, 8192));  // what was there stays
    EXPECT_EQ(std::filesystem::file_size(sPath), 4 * WRITE_LIMIT);
}

TEST_F(Nfs3ProgData, Write_Verifier_StaysTheSame)
{
    MakeFile("");
    const std::string sFirst = Write(0, 1, "x");
    const std::string sSecond = Write(5, 2, "yz");
    ASSERT_EQ(sFirst.size(), 28U);
    EXPECT_EQ(sFirst.substr(20), sSecond.substr(20));
    EXPECT_NE(sFirst.substr(20), std::string(8, '\0'));
}

TEST_F(Nfs3ProgData, Commit_IsRefused)
{
    MakeFile("x");
    EXPECT_EQ(Results(COMMIT, m_sHandle + ReadArguments(0, 0)), Refused(5));
    EXPECT_TRUE(m_Log.Contains("error|127.0.0.1|[Nfs3Prog.ProcedureCOMMIT] Path record not found"));
    EXPECT_TRUE(m_Log.Contains("info|127.0.0.1|[Nfs3Prog.ProcedureCOMMIT] End stat=5"));
}

TEST_F(Nfs3ProgDataReadOnly, Write_IsRefusedWhateverElseIsWrong)
{
    const std::string sPath = MakeFile("0123456789");
    const std::string sHandle = m_sHandle;
    EXPECT_EQ(Write(0, 3, "abc"), Refused(13));
    EXPECT_EQ(Write(~uint64_t{0}, 3, "abc"), Refused(13));
    m_sHandle = CXdr().Opaque(MakeHandle(999)).Bytes();
    EXPECT_EQ(Write(0, 3, "abc"), Refused(13));
    EXPECT_EQ(m_Log.Count("[Nfs3Prog.ProcedureWRITE] Write fail"), 3U);
    EXPECT_EQ(m_Log.Count("[Nfs3Prog.ProcedureWRITE] End stat=13"), 3U);
    EXPECT_EQ(ReadWholeFile(sPath), "0123456789");
    m_sHandle = sHandle;
    EXPECT_EQ(Read(0, 4, false), "0123");
}

TEST_F(Nfs3ProgDataDirect, Write_Verifier_IsTheTimeWhenTheProgramWasMade)
{
    const std::string sArguments =
        HandleArgument(m_folder.Write("file", "")) + WriteArguments(0, 1, "x");
    const uint64_t iBefore = m_utilities.GetCurrentSystemTimeInMilliseconds();
    CNfs3Prog first(&m_utilities);
    const uint64_t iAfter = m_utilities.GetCurrentSystemTimeInMilliseconds();
    while (m_utilities.GetCurrentSystemTimeInMilliseconds() <= iAfter)
        ;  // until the clock shows another millisecond
    CNfs3Prog second(&m_utilities);

    const std::string sFirst = Verifier(Process(&first, WRITE, sArguments));
    const uint64_t iFirst = uint64_t{GetWord(sFirst, 0)} << 32 | GetWord(sFirst, 4);
    EXPECT_LE(iBefore, iFirst);
    EXPECT_LE(iFirst, iAfter);
    EXPECT_EQ(Verifier(Process(&first, WRITE, sArguments)), sFirst);
    EXPECT_NE(Verifier(Process(&second, WRITE, sArguments)), sFirst);
}

TEST_F(Nfs3ProgDataDirect, Read_KeepsTheReplyInFrontOfIt)
{
    const std::string sArguments =
        HandleArgument(m_folder.Write("file", "hello")) + ReadArguments(0, 100);
    Receive(&m_in, sArguments);
    m_out.Write("head", 4);
    ProcessParam param;
    param.iVersion = 3;
    param.iProc = READ;
    param.pRuntimeParam = &m_param;
    EXPECT_EQ(m_prog.Process(&m_in, &m_out, &param), PRC_OK);
    EXPECT_EQ(GetWritten(m_out).substr(0, 29), "head" + Words({0, 0, 5, 1, 5}) + "hello");
    EXPECT_EQ(m_out.GetBufferIndex(), 32U);
}

TEST_F(Nfs3ProgDataDirect, Arguments_AreShownByTheirBitAlone)
{
    const std::string sPath = m_folder.Write("file", "hello");
    const std::string sRead = HandleArgument(sPath) + ReadArguments(1, 3);
    const std::string sWrite = HandleArgument(sPath) + WriteArguments(1, 2, "abc");
    EXPECT_EQ(LinesOf(LOG_CONTROL_PROC_FUNC_ARGU, READ, sRead),
              (Lines{"info|host|[Nfs3Prog.ProcedureREAD] Path = " + sPath,
                     "info|vm1|[Nfs3Prog.ProcedureREAD] Offset=1, length=3",
                     "info|vm1|[Nfs3Prog.ProcedureREAD] Read=3 (eof=F)",
                     "info|vm1|[Nfs3Prog.ProcedureREAD] End stat=0"}));
    EXPECT_EQ(LinesOf(LOG_CONTROL_PROC_FUNC_ARGU, WRITE, sWrite),
              (Lines{"info|host|[Nfs3Prog.ProcedureWRITE] Path = " + sPath,
                     "info|vm1|[Nfs3Prog.ProcedureWRITE] Offset=1, length=3, count=2",
                     "info|vm1|[Nfs3Prog.ProcedureWRITE] Write=2",
                     "info|vm1|[Nfs3Prog.ProcedureWRITE] End stat=0"}));
    const int iOthers = 0x3FF & ~(LOG_CONTROL_PROC_FUNC_ARGU | LOG_CONTROL_PROC_FUNC_NAME |
                                  LOG_CONTROL_FILE_ACCESS | LOG_CONTROL_GENERAL_INFO);
    EXPECT_EQ(LinesOf(iOthers, READ, sRead), Lines{});
    EXPECT_EQ(LinesOf(iOthers, WRITE, sWrite), Lines{});
}

TEST_F(Nfs3ProgDataDirect, Failures_AreShownByTheErrorBitAlone)
{
    const std::string sPath = m_folder.Write("file", "hello");
    const std::string sFolder = m_folder.Path();
    const std::string sOpen = " OS open file \"" + sFolder + "\". Error=Is a directory (21)";
    const struct {
        uint32_t iProc;
        std::string sArguments;
        Lines vTexts;
    } CASES[] = {
        {READ,
         HandleArgument(sPath) + ReadArguments(7, 0x100000),
         {" Count bigger than free buffer (path=" + sPath + ", offset=7 length=1048576)",
          " Read fail"}},
        {READ,
         HandleArgument(sFolder) + ReadArguments(5, 7),
         {sOpen, " Read return -1 (path=" + sFolder + ", offset=5 length=7)", " Read fail"}},
        {WRITE, HandleArgument(sPath) + WriteArguments(MAX_FILE_SIZE, 1, "x"), {" Write fail"}},
        {WRITE, HandleArgument(sFolder) + WriteArguments(0, 1, "x"), {sOpen, " Write fail"}},
    };
    for (const auto& [iProc, sArguments, vTexts] : CASES) {
        Lines vExpected;
        for (const std::string& sText : vTexts)
            vExpected.push_back(std::string("error|vm1|[Nfs3Prog.Procedure") +
                                (iProc == READ ? "READ]" : "WRITE]") + sText);
        EXPECT_EQ(LinesOf(LOG_CONTROL_ERROR, iProc, sArguments), vExpected);
        for (const std::string& sLine : LinesOf(0x3FF & ~LOG_CONTROL_ERROR, iProc, sArguments))
            EXPECT_TRUE(sLine.starts_with("info|")) << sLine;
    }
}

TEST_F(Nfs3ProgDataDirect, PipeInAnExport_RefusesAtOnce)
{
    const std::string sPipe = m_folder.Path("pipe");
    ASSERT_EQ(mkfifo(sPipe.c_str(), 0600), 0);
    const std::string sHandle = HandleArgument(sPipe);
    EXPECT_EQ(Process(READ, sHandle + ReadArguments(0, 4)), READ_REFUSED);
    EXPECT_EQ(Process(WRITE, sHandle + WriteArguments(0, 1, "x")), Refused(22));
    EXPECT_EQ(ToHex(Process(1, sHandle)), ToHex(Words({0}) + AttributesOf(sPipe)));
}

TEST_F(Nfs3ProgDataDirect, Write_DataLongerThanTheRequest_IsTruncated)
{
    const std::string sPath = m_folder.Write("file", "");
    for (const uint32_t iLength : {9U, 0x7FFFFFFFU, 0xFFFFFFFDU, 0xFFFFFFFFU}) {
        EXPECT_EQ(Process(WRITE, HandleArgument(sPath) + Words({0, 0, 5, 0, iLength}) + "abcdefgh"),
                  "");
        EXPECT_EQ(m_iResult, PRC_TRUNCATED);
    }
    EXPECT_EQ(ReadWholeFile(sPath), "");
}

#ifndef HAS_SANITIZER

TEST_F(Nfs3ProgDataDirect, ReadAndWrite_OfAWarmFile_AllocateNothing)
{
    const std::string sHandle = HandleArgument(m_folder.Write("file", MakeData(READ_LIMIT)));
    const struct {
        uint32_t iProc;
        std::string sArguments;
        uint32_t iCount;
    } CASES[] = {
        {READ, sHandle + ReadArguments(0, READ_LIMIT), READ_LIMIT},
        {WRITE, sHandle + WriteArguments(0, WRITE_LIMIT, MakeData(WRITE_LIMIT)), WRITE_LIMIT}};
    for (const auto& [iProc, sArguments, iCount] : CASES) {
        ProcessParam param;
        param.iVersion = 3;
        param.iProc = iProc;
        param.pRuntimeParam = &m_param;
        size_t iAllocations = 0;
        for (int i = 0; i < 3; i++) {  // the first ones open the file and warm up
            m_in.ResetBuffer();
            m_out.ResetBuffer();
            Receive(&m_in, sArguments);
            iAllocations = g_iAllocations;
            m_iResult = m_prog.Process(&m_in, &m_out, &param);
            iAllocations = g_iAllocations - iAllocations;
        }
        EXPECT_EQ(m_iResult, PRC_OK);
        EXPECT_EQ(GetWord(GetWritten(m_out), iProc == READ ? 8 : 12), iCount);
        EXPECT_EQ(iAllocations, 0U) << (iProc == READ ? "READ" : "WRITE");
    }
}

#endif
