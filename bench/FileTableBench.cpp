// Does a file's number cost the same with ten known paths and with a million?
//   RegisterPaths   N new paths into an empty table
//   PathToId        the number of a known path, N paths known, the same ten asked again and again
//   AnyPathToId     the same, all of them asked in random order
//   IdToPath        the path of a number, likewise in random order
//   RenameFolder    a folder with a thousandth of the paths below it gets another name
//   RenameLeaf      likewise one with nothing below it: what the look at all entries costs
//   RenameAll       likewise the one that all paths lie below
// The argument is N. From some ten thousand paths on the table is larger than the processor's
// caches, and a random look-up waits for memory: that part of the curve no index can flatten.
#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "FileTable.h"
#include "Text.h"

namespace {

constexpr long long MAX_PATHS = 1000000;

std::vector<std::string> MakePaths(long long iCount)
{
    std::vector<std::string> vPaths;
    vPaths.reserve(static_cast<size_t>(iCount));
    for (long long i = 0; i < iCount; i++) {
        char cPath[64];
        snprintf(cPath, sizeof(cPath), "/backup/vm%04lld/disk-%07lld/flat.vmdk", i % 1000, i);
        vPaths.emplace_back(cPath);
    }
    return vPaths;
}

void Register(CFileTable* pTable, const std::vector<std::string>& vPaths)
{
    for (const std::string& sPath : vPaths)
        benchmark::DoNotOptimize(pTable->GetIDByPath(sPath.c_str()));
}

void RegisterPaths(benchmark::State& state)
{
    const std::vector<std::string> vPaths = MakePaths(state.range(0));
    for (auto _ : state) {
        CFileTable table;
        Register(&table, vPaths);
        state.PauseTiming();  // freeing it is no part of the question
        table.Clear();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(RegisterPaths)->RangeMultiplier(10)->Range(10, MAX_PATHS)->Unit(benchmark::kMillisecond);

// Asks for the first iAsked of N known paths, which are in random order.
void AskForNumbers(benchmark::State& state, size_t iAsked)
{
    std::vector<std::string> vPaths = MakePaths(state.range(0));
    CFileTable table;
    Register(&table, vPaths);
    std::shuffle(vPaths.begin(), vPaths.end(), std::mt19937(1));
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(table.GetIDByPath(vPaths[i].c_str()));
        i = i + 1 == iAsked ? 0 : i + 1;
    }
}

void PathToId(benchmark::State& state)
{
    AskForNumbers(state, 10);
}
BENCHMARK(PathToId)->RangeMultiplier(10)->Range(10, MAX_PATHS);

void AnyPathToId(benchmark::State& state)
{
    AskForNumbers(state, static_cast<size_t>(state.range(0)));
}
BENCHMARK(AnyPathToId)->RangeMultiplier(10)->Range(10, MAX_PATHS);

void IdToPath(benchmark::State& state)
{
    CFileTable table;
    Register(&table, MakePaths(state.range(0)));
    std::vector<unsigned int> vIDs;
    for (unsigned int i = 0; i < static_cast<unsigned int>(state.range(0)); i++)
        vIDs.push_back(i);
    std::shuffle(vIDs.begin(), vIDs.end(), std::mt19937(1));
    char cPath[PATH_SIZE];
    size_t i = 0;
    for (auto _ : state) {
        if (!table.GetPathByID(vIDs[i], cPath, sizeof(cPath)))
            state.SkipWithError("a number without a path");
        benchmark::DoNotOptimize(cPath);
        i = i + 1 == vIDs.size() ? 0 : i + 1;
    }
}
BENCHMARK(IdToPath)->RangeMultiplier(10)->Range(10, MAX_PATHS);

// Renames a folder there and back again.
void RenameThereAndBack(benchmark::State& state, const char* pcFrom, const char* pcTo)
{
    CFileTable table;
    Register(&table, MakePaths(state.range(0)));
    for (auto _ : state) {
        table.UpdateItemPathsBelow(pcFrom, pcTo);
        std::swap(pcFrom, pcTo);
    }
}

void RenameFolder(benchmark::State& state)
{
    RenameThereAndBack(state, "/backup/vm0000", "/backup/renamed");
}
BENCHMARK(RenameFolder)->RangeMultiplier(10)->Range(10, MAX_PATHS);

void RenameLeaf(benchmark::State& state)
{
    RenameThereAndBack(state, "/backup/none", "/backup/renamed");
}
BENCHMARK(RenameLeaf)->RangeMultiplier(10)->Range(10, MAX_PATHS);

void RenameAll(benchmark::State& state)
{
    RenameThereAndBack(state, "/backup", "/renamed");
}
BENCHMARK(RenameAll)->RangeMultiplier(10)->Range(10, MAX_PATHS);

}  // namespace
