// How long does the search for the next call take? Every TCP connection's bytes go through it, and
// it runs while all other connections wait.
//   ValidAtOnce        the call stands where it should
//   BehindGarbage      random bytes fill the buffer up to a call at its very end
//   BehindLookalikes   the same with the program's number in every word, but no valid version
//   GarbageInPieces    random bytes that arrive in pieces of the argument in bytes until the buffer
//                      is full: the server looks at each piece
#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <random>

#include <benchmark/benchmark.h>

#include "Nfs3Prog.h"
#include "RpcServer.h"
#include "Utilities.h"

namespace {

constexpr unsigned int NFS_PROGRAM = 100003;
constexpr unsigned int GARBAGE_SIZE =
    CSocketStream::GetMaxBufferSize() - static_cast<unsigned int>(sizeof(RPC_STM_HEADER));

// A server that knows the NFS program, and what a connection of that program received.
class CSearch {
public:
    CSearch() : m_server(&m_utilities, &m_param), m_nfs(&m_utilities)
    {
        m_server.Set(static_cast<int>(NFS_PROGRAM), &m_nfs);
    }

    bool Find()
    {
        return m_server.LookForValidHeader(&m_param, &m_LogArgu, NFS_PROGRAM, SOCKET_STREAM, &m_in,
                                           &m_out);
    }

    void AddWord(unsigned int iWord)
    {
        const unsigned int iBigEndian = CSocketStream::ReverseByteOrder(&iWord);
        memcpy(m_in.GetFreeBuffer(), &iBigEndian, sizeof(iBigEndian));
        m_in.AddFilledBufferSize(sizeof(iBigEndian));
    }

    void AddHeader()
    {
        const unsigned int iMark = 0x80000000U + sizeof(RPC_HEADER);
        for (const unsigned int iWord :
             {iMark, 1U, static_cast<unsigned int>(CALL), 2U, NFS_PROGRAM, NFS_V3,
              static_cast<unsigned int>(NFSPROC3_NULL), 0U, 0U, 0U, 0U})
            AddWord(iWord);
    }

    void AddGarbage(unsigned int iLength)
    {
        std::mt19937 random(1);  // the same bytes at every run
        for (unsigned int i = 0; i < iLength; i += XDR_UNIT)
            AddWord(static_cast<unsigned int>(random()));
    }

    // As a connection's receive thread would, after each piece.
    void Receive() { m_server.SocketReceived(&m_socket); }

    CSocket m_socket{SOCKET_STREAM, NFS_PROGRAM};  // never opened: only its streams are used
    CInputStream& m_in = *m_socket.GetInputStream();

private:
    CUtilities m_utilities;
    CRuntimeParam m_param{"", 0};
    LogArgu m_LogArgu{"HeaderSearchBench"};
    CRpcServer m_server;
    CNfs3Prog m_nfs;
    COutputStream m_out;
};

void FindAgainAndAgain(benchmark::State& state, CSearch* pSearch)
{
    for (auto _ : state) {
        pSearch->m_in.SetBufferIndex(0);
        if (!pSearch->Find())
            state.SkipWithError("no call found");
    }
}

void ValidAtOnce(benchmark::State& state)
{
    CSearch search;
    search.AddHeader();
    FindAgainAndAgain(state, &search);
}
BENCHMARK(ValidAtOnce);

void BehindGarbage(benchmark::State& state)
{
    CSearch search;
    search.AddGarbage(GARBAGE_SIZE);
    search.AddHeader();
    FindAgainAndAgain(state, &search);
    state.SetBytesProcessed(state.iterations() * GARBAGE_SIZE);
}
BENCHMARK(BehindGarbage)->Unit(benchmark::kMicrosecond);

void BehindLookalikes(benchmark::State& state)
{
    CSearch search;
    for (unsigned int i = 0; i < GARBAGE_SIZE; i += XDR_UNIT)
        search.AddWord(NFS_PROGRAM);
    search.AddHeader();
    FindAgainAndAgain(state, &search);
    state.SetBytesProcessed(state.iterations() * GARBAGE_SIZE);
}
BENCHMARK(BehindLookalikes)->Unit(benchmark::kMicrosecond);

void GarbageInPieces(benchmark::State& state)
{
    CSearch search;
    const auto iPiece = static_cast<unsigned int>(state.range(0));
    search.AddGarbage(CSocketStream::GetMaxBufferSize());
    for (auto _ : state) {
        search.m_in.ResetBuffer();  // the bytes stay in the buffer
        search.m_socket.SetSearchedSize(0);
        while (search.m_in.GetFreeBufferSize() > 0) {
            search.m_in.AddFilledBufferSize(std::min(iPiece, search.m_in.GetFreeBufferSize()));
            search.Receive();
        }
    }
    state.SetBytesProcessed(state.iterations() * CSocketStream::GetMaxBufferSize());
}
BENCHMARK(GarbageInPieces)->Arg(65536)->Arg(1460)->Unit(benchmark::kMillisecond);

}  // namespace
