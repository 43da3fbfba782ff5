// Does a page of ten entries cost the same at the start and at the end of a big directory?
//   List, ListPlus              100,000 files, listed once from start to end by READDIR and by
//                               READDIRPLUS, from the decoded header to the reply
//   ListChanging, ...Plus       the same directory, touched before each page, so that each page
//                               opens it anew and skips; only a few pages of each part
//   BareReaddir                 the system's share: all names, read in one go
//   BareStat                    likewise the attributes of all files that READDIRPLUS tells
// "first", "middle" and "last" are the means over the first, middle and last thousand pages
// (twenty, where it is touched); for the bare ones "page" is the share of ten entries. The
// directory is left alone for some seconds before each, for a position is kept only in one that is
// at rest.
#include <chrono>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>

#include "AutoFd.h"
#include "BenchFolder.h"
#include "Nfs3Prog.h"
#include "Nfs3Xdr.h"
#include "Utilities.h"

namespace {

constexpr unsigned int FILES = 100000;
constexpr unsigned int PAGE = 10;  // entries
constexpr unsigned int PAGES = FILES / PAGE;
constexpr unsigned int PART = 1000;         // pages
constexpr unsigned int PART_CHANGING = 20;  // pages
constexpr std::chrono::seconds AT_REST{4};

// The directory, made once. Names are of the length that backup software gives.
class CBigFolder {
public:
    CBigFolder()
    {
        for (unsigned int i = 0; i < FILES; i++) {
            char cName[64];
            snprintf(cName, sizeof(cName), "/virtual-machine-%06u-flat.vmdk", i);
            CAutoFd(open((m_folder.Path() + cName).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        }
    }

    const std::string& Path() const { return m_folder.Path(); }
    void Touch() const { utimensat(AT_FDCWD, Path().c_str(), nullptr, 0); }

    static const CBigFolder& Get()
    {
        static const CBigFolder folder;
        return folder;
    }

    static const CBigFolder& GetAtRest()
    {
        const CBigFolder& folder = Get();
        struct stat info = {};
        if (stat(folder.Path().c_str(), &info) == 0)
            std::this_thread::sleep_until(std::chrono::system_clock::from_time_t(info.st_ctime) +
                                          AT_REST);
        return folder;
    }

private:
    CBenchFolder m_folder;
};

// Microseconds that this thread has had, in the system too: what else the machine does is left out.
double GetProcessorTime()
{
    struct timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

// A client of a fresh server that asks for one page after the other.
class CListing {
public:
    CListing(const CBigFolder& folder, NfsProcedure procedure) : m_nfs(&m_utilities)
    {
        m_call.iVersion = NFS_V3;
        m_call.iProc = procedure;
        m_call.sRemoteAddr = "192.168.100.100";
        m_call.pRuntimeParam = &m_param;
        m_utilities.AddMountInfo(&m_param, &m_LogArgu, folder.Path().c_str(), "vm1", "", nullptr);
        m_nfs.GetNfsFileHandle(&m_param, &m_LogArgu, folder.Path().c_str(), &m_handle);
    }

    // Microseconds that the page behind iCookie entries takes; -1 unless it is a full one.
    double GetPage(unsigned long iCookie)
    {
        m_arguments.ResetBuffer();
        Write(&m_arguments, m_handle);
        m_arguments.Write8(iCookie);
        m_arguments.Write8(0);     // verifier
        m_arguments.Write(8192U);  // bytes of names
        if (m_call.iProc == NFSPROC3_READDIRPLUS)
            m_arguments.Write(32768U);  // bytes in all
        m_in.ResetBuffer();
        memcpy(m_in.GetFreeBuffer(), m_arguments.GetBuffer(), m_arguments.GetBufferSize());
        m_in.AddFilledBufferSize(m_arguments.GetBufferSize());
        m_out.ResetBuffer();

        const double fStart = GetProcessorTime();
        const int iResult = m_nfs.Process(&m_in, &m_out, &m_call);
        const double fTaken = GetProcessorTime() - fStart;
        const bool bFull = m_out.GetBufferSize() > PAGE * 60 &&
                           m_out.GetBuffer()[m_out.GetBufferSize() - 1] == 0;  // no end yet
        return iResult == PRC_OK && bFull ? fTaken : -1;
    }

private:
    CUtilities m_utilities;
    CRuntimeParam m_param{"", 0};
    LogArgu m_LogArgu{"ListingBench"};
    CNfs3Prog m_nfs;
    ProcessParam m_call;
    nfs_fh3 m_handle;
    COutputStream m_arguments;
    CInputStream m_in;
    COutputStream m_out;
};

// The mean over the pages from iFirst on.
double GetMean(const std::vector<double>& vPages, size_t iFirst, size_t iCount)
{
    double fSum = 0;
    for (size_t i = iFirst; i < iFirst + iCount; i++)
        fSum += vPages[i];
    return fSum / static_cast<double>(iCount);
}

void ShowParts(benchmark::State& state, const std::vector<double>& vPages, size_t iPart)
{
    state.counters["first_us"] = GetMean(vPages, 0, iPart);
    state.counters["middle_us"] = GetMean(vPages, (vPages.size() - iPart) / 2, iPart);
    state.counters["last_us"] = GetMean(vPages, vPages.size() - iPart, iPart);
}

void ListAll(benchmark::State& state, NfsProcedure procedure)
{
    const CBigFolder& folder = CBigFolder::GetAtRest();
    std::vector<double> vPages(PAGES);
    for (auto _ : state) {
        state.PauseTiming();
        auto pListing = std::make_unique<CListing>(folder, procedure);
        state.ResumeTiming();
        for (unsigned int i = 0; i < PAGES; i++) {
            vPages[i] = pListing->GetPage(i * PAGE);
            if (vPages[i] < 0)
                state.SkipWithError("not a full page");
        }
        state.PauseTiming();
        pListing.reset();
        state.ResumeTiming();
    }
    ShowParts(state, vPages, PART);
}

void ListChangingAll(benchmark::State& state, NfsProcedure procedure)
{
    const CBigFolder& folder = CBigFolder::Get();
    CListing listing(folder, procedure);
    std::vector<double> vPages;
    for (auto _ : state) {
        vPages.clear();
        for (const unsigned int iFirst : {0U, (PAGES - PART_CHANGING) / 2, PAGES - PART_CHANGING}) {
            for (unsigned int i = iFirst; i < iFirst + PART_CHANGING; i++) {
                folder.Touch();
                vPages.push_back(listing.GetPage(i * PAGE));
                if (vPages.back() < 0)
                    state.SkipWithError("not a full page");
            }
        }
    }
    ShowParts(state, vPages, PART_CHANGING);
}

void List(benchmark::State& state)
{
    ListAll(state, NFSPROC3_READDIR);
}
BENCHMARK(List)->Unit(benchmark::kMillisecond)->Iterations(3);

void ListPlus(benchmark::State& state)
{
    ListAll(state, NFSPROC3_READDIRPLUS);
}
BENCHMARK(ListPlus)->Unit(benchmark::kMillisecond)->Iterations(3);

void ListChanging(benchmark::State& state)
{
    ListChangingAll(state, NFSPROC3_READDIR);
}
BENCHMARK(ListChanging)->Unit(benchmark::kMillisecond)->Iterations(1);

void ListChangingPlus(benchmark::State& state)
{
    ListChangingAll(state, NFSPROC3_READDIRPLUS);
}
BENCHMARK(ListChangingPlus)->Unit(benchmark::kMillisecond)->Iterations(1);

struct CloseStream {
    void operator()(DIR* pStream) const { closedir(pStream); }
};

// Calls a function with every name.
template <typename Function>
void ForEachName(const std::string& sFolder, Function function)
{
    const std::unique_ptr<DIR, CloseStream> pFolder(opendir(sFolder.c_str()));
    while (const struct dirent* pEntry = readdir(pFolder.get()))
        function(pEntry->d_name);
}

void ShowPage(benchmark::State& state, double fStart)
{
    state.counters["page_us"] = (GetProcessorTime() - fStart) /
                                static_cast<double>(state.iterations()) /
                                static_cast<double>(PAGES);
}

void BareReaddir(benchmark::State& state)
{
    const CBigFolder& folder = CBigFolder::Get();
    const double fStart = GetProcessorTime();
    for (auto _ : state)
        ForEachName(folder.Path(), [](const char* pcName) { benchmark::DoNotOptimize(pcName); });
    ShowPage(state, fStart);
}
BENCHMARK(BareReaddir)->Unit(benchmark::kMillisecond);

void BareStat(benchmark::State& state)
{
    const CBigFolder& folder = CBigFolder::Get();
    const double fStart = GetProcessorTime();
    for (auto _ : state)
        ForEachName(folder.Path(), [&folder](const char* pcName) {
            const std::string sPath = folder.Path() + "/" + pcName;
            struct stat info = {};
            struct statvfs fileSystem = {};
            lstat(sPath.c_str(), &info);
            statvfs(sPath.c_str(), &fileSystem);
            const CAutoFd file(open(sPath.c_str(), O_RDWR | O_CLOEXEC));
            benchmark::DoNotOptimize(lseek(file.Get(), 0, SEEK_END));
        });
    ShowPage(state, fStart);
}
BENCHMARK(BareStat)->Unit(benchmark::kMillisecond);

}  // namespace
