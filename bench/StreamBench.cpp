// What do the two buffers of a connection cost: XDR words, opaque data, and the two moves of bytes
// that were not sent, or not read, yet?
//   WriteWords, ReadWords        1024 words of 32 bits
//   WriteOpaque, ReadOpaque      length, bytes, padding; argument: bytes
//   FreeBuffer                   a reply of 64 KiB of which the peer took the argument in bytes
//   ConsolidateBuffer            a call of 256 bytes was read; argument: bytes that follow it
#include <vector>

#include <benchmark/benchmark.h>

#include "InputStream.h"
#include "OutputStream.h"

namespace {

constexpr unsigned int WORDS = 1024;
constexpr unsigned int REPLY_SIZE = 64 * 1024;  // bytes
constexpr unsigned int CALL_SIZE = 256;         // bytes

void WriteWords(benchmark::State& state)
{
    COutputStream out;
    for (auto _ : state) {
        out.ResetBuffer();
        for (unsigned int i = 0; i < WORDS; i++)
            out.Write(i);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * WORDS);
}
BENCHMARK(WriteWords);

void ReadWords(benchmark::State& state)
{
    CInputStream in;
    in.AddFilledBufferSize(WORDS * XDR_UNIT);
    for (auto _ : state) {
        in.SetBufferIndex(0);
        for (unsigned int i = 0; i < WORDS; i++) {
            unsigned int iWord = 0;
            in.Read(&iWord);
            benchmark::DoNotOptimize(iWord);
        }
    }
    state.SetItemsProcessed(state.iterations() * WORDS);
}
BENCHMARK(ReadWords);

void WriteOpaque(benchmark::State& state)
{
    const auto iLength = static_cast<unsigned int>(state.range(0));
    const std::vector<unsigned char> vData(iLength, 'x');
    COutputStream out;
    for (auto _ : state) {
        out.ResetBuffer();
        out.Write(iLength);
        out.Write(vData.data(), iLength);
        out.WriteRemainOpaque(static_cast<int>(iLength));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(WriteOpaque)->Arg(56)->Arg(8191)->Arg(65536);

void ReadOpaque(benchmark::State& state)
{
    const auto iLength = static_cast<unsigned int>(state.range(0));
    std::vector<unsigned char> vData(iLength);
    CInputStream in;
    in.AddFilledBufferSize(XDR_UNIT + iLength + GetPadding(iLength));
    for (auto _ : state) {
        unsigned int iWord = 0;
        in.SetBufferIndex(0);
        in.Read(&iWord);
        in.Read(vData.data(), iLength);
        in.SkipRemainOpaque(iLength);
        benchmark::DoNotOptimize(iWord);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(ReadOpaque)->Arg(56)->Arg(8191)->Arg(65536);

void FreeBuffer(benchmark::State& state)
{
    COutputStream out;
    for (auto _ : state) {
        out.Seek(0, 0);
        out.Write(nullptr, REPLY_SIZE);
        out.FreeBuffer(static_cast<unsigned int>(state.range(0)));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(FreeBuffer)->Arg(REPLY_SIZE)->Arg(REPLY_SIZE / 2)->Arg(1460);

void ConsolidateBuffer(benchmark::State& state)
{
    CInputStream in;
    for (auto _ : state) {
        in.ResetBuffer();
        in.AddFilledBufferSize(CALL_SIZE + static_cast<unsigned int>(state.range(0)));
        in.Skip(CALL_SIZE);
        in.ConsolidateBuffer(0);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(ConsolidateBuffer)->Arg(0)->Arg(1460)->Arg(65536)->Arg(0x80000);

}  // namespace
