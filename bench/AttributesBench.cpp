// What do a file's attributes cost: reading them from the system, and putting them on the wire?
//   EncodeAttributes       one fattr3, 84 bytes
//   FileAttributes         GetNfsFileAttributes of a regular file whose descriptor is cached
//   FolderAttributes       the same of a folder, which needs no descriptor
//   BareSystemCalls        what the system takes for its share of FileAttributes
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "AutoFd.h"
#include "BenchFolder.h"
#include "Nfs3Prog.h"
#include "Nfs3Xdr.h"
#include "Utilities.h"

namespace {

constexpr unsigned int FATTR3_SIZE = 84;  // bytes on the wire

// A program with one file in one export.
class CPublishedFile {
public:
    CPublishedFile() : m_nfs(&m_utilities), m_sFile(m_folder.Write("flat.vmdk", 4096))
    {
        m_utilities.AddMountInfo(&m_param, &m_LogArgu, m_folder.Path().c_str(), "vm1", "", nullptr);
    }

    const std::string& GetFile() const { return m_sFile; }
    const std::string& GetFolder() const { return m_folder.Path(); }

    bool GetAttributes(const std::string& sPath, fattr3* pAttributes)
    {
        return m_nfs.GetNfsFileAttributes(&m_param, &m_LogArgu, sPath.c_str(), pAttributes);
    }

private:
    CUtilities m_utilities;
    CRuntimeParam m_param{"", 0};
    LogArgu m_LogArgu{"AttributesBench"};
    CNfs3Prog m_nfs;
    CBenchFolder m_folder;
    std::string m_sFile;
};

void EncodeAttributes(benchmark::State& state)
{
    COutputStream out;
    const fattr3 attributes;
    for (auto _ : state) {
        out.ResetBuffer();
        Write(&out, attributes);
        benchmark::ClobberMemory();
    }
    if (out.GetBufferSize() != FATTR3_SIZE)
        state.SkipWithError("not a whole fattr3");
    state.SetBytesProcessed(state.iterations() * FATTR3_SIZE);
}
BENCHMARK(EncodeAttributes);

void GetAgainAndAgain(benchmark::State& state, CPublishedFile* pPublished, const std::string& sPath)
{
    fattr3 attributes;
    for (auto _ : state) {
        if (!pPublished->GetAttributes(sPath, &attributes))
            state.SkipWithError("no attributes");
        benchmark::DoNotOptimize(attributes);
    }
}

void FileAttributes(benchmark::State& state)
{
    CPublishedFile published;
    GetAgainAndAgain(state, &published, published.GetFile());
}
BENCHMARK(FileAttributes);

void FolderAttributes(benchmark::State& state)
{
    CPublishedFile published;
    GetAgainAndAgain(state, &published, published.GetFolder());
}
BENCHMARK(FolderAttributes);

void BareSystemCalls(benchmark::State& state)
{
    CPublishedFile published;
    const char* pcPath = published.GetFile().c_str();
    const CAutoFd file(open(pcPath, O_RDWR | O_CLOEXEC));
    for (auto _ : state) {
        struct stat info = {};
        struct statvfs fileSystem = {};
        if (lstat(pcPath, &info) != 0 || lseek(file.Get(), 0, SEEK_END) < 0 ||
            statvfs(pcPath, &fileSystem) != 0)
            state.SkipWithError("a system call failed");
        benchmark::DoNotOptimize(info);
        benchmark::DoNotOptimize(fileSystem);
    }
}
BENCHMARK(BareSystemCalls);

}  // namespace
