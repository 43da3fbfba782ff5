// What does it cost that a file is assembled from pieces of others? All of 1 GiB, in the page
// cache, by READ calls to the program, from the decoded header to the reply; the log is silent, the
// network is left out.
//   SequentialPlain, RandomPlain   64 KiB after 64 KiB, and 4 KiB anywhere, of a plain file
//   Sequential, Random             the same of a redirected file of that many segments, in memory
//                                  (index:0) or in an index file (index:1): one, a thousand of
//                                  1 MiB, a million of 1 KiB. They lie in eight sources, in another
//                                  order than in the file; the single one is the plain file itself
//   LookUp                         only the search for the segment of any offset
//   AddSegments                    a million segments for a new file
//   TenMillionSegments             the same ten times over; "resident" is by how many bytes the
//                                  program has grown at the end, "searching" likewise after a
//                                  thousand searches
// All bytes are the same, so each file holds what the plain one does.
#include <cstdio>
#include <cstring>
#include <endian.h>
#include <map>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>

#include "BenchFolder.h"
#include "Nfs3Limits.h"
#include "Nfs3Prog.h"
#include "Nfs3Xdr.h"
#include "RedirectedFile.h"
#include "Utilities.h"

namespace {

constexpr int64_t FILE_SIZE = 1LL << 30;  // bytes
constexpr int SOURCES = 8;
constexpr unsigned int SMALL_READ = 4096;  // bytes
constexpr int64_t MILLION = 1 << 20;
constexpr int GRANULE_MIB = 32;
constexpr int CHECK_POINT_MIB = 1024;
constexpr unsigned int REPLY_HEAD = 20;  // status, no attributes, count, end of file, length

// A program with an export, the plain file, the sources, and the redirected files that were asked
// for so far.
class CWorld {
public:
    static CWorld& Get()
    {
        static CWorld world;
        return world;
    }

    // Segments of the same length, as many as that. Null if they cannot be added.
    CRedirectedFile* Make(const std::string& sName, int64_t iSegments, bool bIndex)
    {
        const std::string sPath = m_folder.Write(sName, 0);
        CRedirectedFile* pFile = m_utilities.OpenRedirectedFile(
            &m_param, sPath.c_str(), FILE_SIZE, bIndex, GRANULE_MIB, CHECK_POINT_MIB);
        const int64_t iLength = FILE_SIZE / iSegments;
        const int64_t iInSource = FILE_SIZE / SOURCES / iLength;  // pieces of a source
        for (int64_t i = 0; i < iSegments; i++) {
            const int64_t iPiece = i * 4097 % iSegments;  // each comes once: the number is odd
            const bool bAdded =
                iSegments == 1 ? Add(sPath, m_sPlain, 0, 0, FILE_SIZE)
                               : Add(sPath, m_vSources[static_cast<size_t>(iPiece / iInSource)],
                                     iPiece % iInSource * iLength, i * iLength, iLength);
            if (!bAdded)
                return nullptr;
        }
        return pFile;
    }

    // The same, made once and kept; and its path.
    CRedirectedFile* Keep(int64_t iSegments, bool bIndex, std::string* psPath)
    {
        const std::string sName = std::to_string(iSegments) + (bIndex ? "-index" : "-memory");
        *psPath = m_folder.Path() + "/" + sName;
        if (!m_mKept.contains(sName))
            m_mKept[sName] = Make(sName, iSegments, bIndex);
        return m_mKept[sName];
    }

    bool Add(const std::string& sPath, const std::string& sSource, int64_t iSourceOffset,
             int64_t iOffset, int64_t iLength)
    {
        return m_utilities.AddRedirectedFileSegment(&m_param, sPath.c_str(), sSource.c_str(),
                                                    iSourceOffset, iOffset, iLength, nullptr);
    }

    void Close(const std::string& sName)
    {
        m_utilities.CloseRedirectedFile(&m_param, (m_folder.Path() + "/" + sName).c_str());
    }

    CBenchFolder m_folder;
    CUtilities m_utilities;
    CRuntimeParam m_param{"", 0};
    LogArgu m_LogArgu{"RedirectedFileBench"};
    CNfs3Prog m_nfs{&m_utilities};
    std::string m_sPlain;
    std::vector<std::string> m_vSources;

private:
    CWorld()
    {
        m_utilities.AddMountInfo(&m_param, &m_LogArgu, m_folder.Path().c_str(), "vm1", "", nullptr);
        m_sPlain = m_folder.Write("plain", FILE_SIZE);
        for (int i = 0; i < SOURCES; i++)
            m_vSources.push_back(m_folder.Write("source" + std::to_string(i), FILE_SIZE / SOURCES));
    }

    std::map<std::string, CRedirectedFile*> m_mKept;  // by name; owned by m_utilities
};

// READ calls of one file, all of one length.
class CReader {
public:
    CReader(const std::string& sPath, unsigned int iLength) : m_iLength(iLength)
    {
        CWorld& world = CWorld::Get();
        m_call.iVersion = NFS_V3;
        m_call.iProc = NFSPROC3_READ;
        m_call.sRemoteAddr = "192.168.100.100";
        m_call.pRuntimeParam = &world.m_param;
        nfs_fh3 handle;
        world.m_nfs.GetNfsFileHandle(&world.m_param, &world.m_LogArgu, sPath.c_str(), &handle);
        COutputStream arguments;
        Write(&arguments, handle);
        m_pOffset = static_cast<unsigned char*>(m_in.GetFreeBuffer()) + arguments.GetBufferSize();
        arguments.Write8(0);
        arguments.Write(iLength);
        memcpy(m_in.GetFreeBuffer(), arguments.GetBuffer(), arguments.GetBufferSize());
        m_in.AddFilledBufferSize(arguments.GetBufferSize());
    }

    // False unless all bytes come.
    bool Read(int64_t iOffset)
    {
        const uint64_t iNumber = htobe64(static_cast<uint64_t>(iOffset));
        memcpy(m_pOffset, &iNumber, sizeof(iNumber));
        m_in.SetBufferIndex(0);
        m_out.ResetBuffer();
        return CWorld::Get().m_nfs.Process(&m_in, &m_out, &m_call) == PRC_OK &&
               m_out.GetBufferSize() == REPLY_HEAD + m_iLength;
    }

    // True if the reply's bytes are those of every file here.
    bool IsRight() const
    {
        const std::string sData(reinterpret_cast<const char*>(m_out.GetBuffer()) + REPLY_HEAD,
                                m_iLength);
        return sData == std::string(m_iLength, 'x');
    }

private:
    unsigned int m_iLength;
    ProcessParam m_call;
    CInputStream m_in;
    COutputStream m_out;
    unsigned char* m_pOffset;  // into m_in
};

void ReadSequentially(benchmark::State& state, const std::string& sPath)
{
    CReader reader(sPath, NFS3_RTMAX);
    if (!reader.Read(0) || !reader.IsRight())
        state.SkipWithError("wrong bytes");
    int64_t iOffset = 0;
    for (auto _ : state) {
        if (!reader.Read(iOffset))
            state.SkipWithError("wrong reply");
        iOffset = (iOffset + NFS3_RTMAX) % FILE_SIZE;
    }
    state.SetBytesProcessed(state.iterations() * NFS3_RTMAX);
}

void ReadRandomly(benchmark::State& state, const std::string& sPath)
{
    CReader reader(sPath, SMALL_READ);
    if (!reader.Read(0) || !reader.IsRight())
        state.SkipWithError("wrong bytes");
    std::minstd_rand random(4);
    for (auto _ : state) {
        if (!reader.Read(static_cast<int64_t>(random() % (FILE_SIZE / SMALL_READ)) * SMALL_READ))
            state.SkipWithError("wrong reply");
    }
    state.SetBytesProcessed(state.iterations() * SMALL_READ);
}

// The file that the arguments tell of.
std::string GetPath(benchmark::State& state)
{
    std::string sPath;
    if (CWorld::Get().Keep(state.range(0), state.range(1) != 0, &sPath) == nullptr)
        state.SkipWithError("segments are refused");
    return sPath;
}

void SequentialPlain(benchmark::State& state)
{
    ReadSequentially(state, CWorld::Get().m_sPlain);
}
BENCHMARK(SequentialPlain);

void Sequential(benchmark::State& state)
{
    ReadSequentially(state, GetPath(state));
}
BENCHMARK(Sequential)
    ->ArgNames({"segments", "index"})
    ->ArgsProduct({{1, FILE_SIZE >> 20, MILLION}, {0, 1}});

void RandomPlain(benchmark::State& state)
{
    ReadRandomly(state, CWorld::Get().m_sPlain);
}
BENCHMARK(RandomPlain);

void Random(benchmark::State& state)
{
    ReadRandomly(state, GetPath(state));
}
BENCHMARK(Random)
    ->ArgNames({"segments", "index"})
    ->ArgsProduct({{1, FILE_SIZE >> 20, MILLION}, {0, 1}});

void LookUp(benchmark::State& state)
{
    CWorld& world = CWorld::Get();
    std::string sPath;
    CRedirectedFile* pFile = world.Keep(state.range(0), state.range(1) != 0, &sPath);
    std::minstd_rand random(4);
    for (auto _ : state) {
        ProcSegment cursor;
        pFile->GetSegment(&world.m_param, static_cast<int64_t>(random() % FILE_SIZE), &cursor);
        if (cursor.index < 0)
            state.SkipWithError("not found");
    }
}
BENCHMARK(LookUp)->ArgNames({"segments", "index"})->ArgsProduct({{MILLION}, {0, 1}});

void AddSegments(benchmark::State& state)
{
    CWorld& world = CWorld::Get();
    for (auto _ : state) {
        if (world.Make("new", state.range(0), state.range(1) != 0) == nullptr)
            state.SkipWithError("segments are refused");
        world.Close("new");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(AddSegments)
    ->ArgNames({"segments", "index"})
    ->ArgsProduct({{MILLION}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

// Bytes of this program that are in memory.
double GetResident()
{
    long iPages = 0;
    FILE* pFile = fopen("/proc/self/statm", "r");
    if (pFile == nullptr || fscanf(pFile, "%*d %ld", &iPages) != 1)
        perror("/proc/self/statm");
    if (pFile != nullptr)
        fclose(pFile);
    return static_cast<double>(iPages) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

void TenMillionSegments(benchmark::State& state)
{
    constexpr int64_t SEGMENTS = 10000000;
    constexpr int64_t LENGTH = 4096;
    CWorld& world = CWorld::Get();
    const std::string sPath = world.m_folder.Write("huge", 0);
    for (auto _ : state) {
        const double dBefore = GetResident();
        CRedirectedFile* pFile =
            world.m_utilities.OpenRedirectedFile(&world.m_param, sPath.c_str(), SEGMENTS * LENGTH,
                                                 state.range(0) != 0, GRANULE_MIB, CHECK_POINT_MIB);
        for (int64_t i = 0; i < SEGMENTS; i++)
            if (!world.Add(sPath, world.m_vSources[static_cast<size_t>(i % SOURCES)],
                           i % 32768 * LENGTH, i * LENGTH, LENGTH))
                state.SkipWithError("a segment is refused");
        state.counters["resident"] = GetResident() - dBefore;
        std::mt19937_64 random(4);
        for (int i = 0; i < 1000; i++) {
            ProcSegment cursor;
            pFile->GetSegment(&world.m_param, static_cast<int64_t>(random() % (SEGMENTS * LENGTH)),
                              &cursor);
            if (cursor.index < 0)
                state.SkipWithError("not found");
        }
        state.counters["searching"] = GetResident() - dBefore;
        world.Close("huge");
    }
    state.SetItemsProcessed(state.iterations() * SEGMENTS);
}
BENCHMARK(TenMillionSegments)
    ->ArgName("index")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
