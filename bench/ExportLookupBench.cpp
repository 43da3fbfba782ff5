// What does it cost to find the export that holds a path? Nearly every NFS call asks for it, and
// it should not depend on how much else is published.
//   FindExport     a file two folders below an export
//   FindDeepFile   a file sixteen folders below an export
//   FindNone       a path that lies in no export
//   AddExports     publishing as many
// The argument is the number of exports.
#include <cstdio>
#include <string>

#include <benchmark/benchmark.h>

#include "Utilities.h"

namespace {

// Publishes iCount folders, none of which exists: look-ups do not ask the file system.
class CExports {
public:
    explicit CExports(long long iCount)
    {
        for (long long i = 0; i < iCount; i++)
            m_utilities.AddMountInfo(&m_param, &m_LogArgu, GetFolder(i).c_str(), GetName(i).c_str(),
                                     "", nullptr);
    }

    bool Find(const std::string& sPath)
    {
        return m_utilities.GetMountInfoByPath(&m_param, &m_LogArgu, sPath.c_str(), &m_info);
    }

    static std::string GetName(long long i)
    {
        char cName[32];
        snprintf(cName, sizeof(cName), "vm%06lld", i);
        return cName;
    }
    static std::string GetFolder(long long i) { return "/stagenfs-bench/backup/" + GetName(i); }

private:
    CUtilities m_utilities;
    CRuntimeParam m_param{"", 0};
    LogArgu m_LogArgu{"ExportLookupBench"};
    MountInfo m_info;
};

void Look(benchmark::State& state, const std::string& sPath, bool bExpected)
{
    CExports exports(state.range(0));
    for (auto _ : state) {
        if (exports.Find(sPath) != bExpected)
            state.SkipWithError("wrong answer");
    }
}

void FindExport(benchmark::State& state)
{
    Look(state, CExports::GetFolder(state.range(0) / 2) + "/disk-1/flat.vmdk", true);
}
BENCHMARK(FindExport)->Arg(1)->Arg(100)->Arg(10000);

void FindDeepFile(benchmark::State& state)
{
    std::string sPath = CExports::GetFolder(state.range(0) / 2);
    for (int i = 0; i < 15; i++)
        sPath += "/folder";
    Look(state, sPath + "/flat.vmdk", true);
}
BENCHMARK(FindDeepFile)->Arg(1)->Arg(100)->Arg(10000);

void FindNone(benchmark::State& state)
{
    Look(state, "/stagenfs-bench/other/disk-1/flat.vmdk", false);
}
BENCHMARK(FindNone)->Arg(1)->Arg(100)->Arg(10000);

void AddExports(benchmark::State& state)
{
    for (auto _ : state)
        CExports exports(state.range(0));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(AddExports)->Arg(1)->Arg(100)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
