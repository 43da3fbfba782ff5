// What does the NFS program add to reading and writing a file? The file is warm, its descriptor
// cached and the log silent; the network is left out.
//   ReadCall, WriteCall     READ of 64 KiB and WRITE of 16 KiB, from the decoded header to the
//   reply BareRead, BareWrite     the same with nothing but the system calls that move the position
//   and
//                           the data
// "allocations" is what one call takes from the heap, which should be nothing.
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>
#include <vector>

#include <benchmark/benchmark.h>

#include "AllocationCounter.h"
#include "AutoFd.h"
#include "BenchFolder.h"
#include "Nfs3Limits.h"
#include "Nfs3Prog.h"
#include "Nfs3Xdr.h"
#include "Utilities.h"

namespace {

constexpr size_t FILE_SIZE = 16 * 1024 * 1024;  // bytes

// One call to the program, its arguments in a connection's buffer.
class CCall {
public:
    explicit CCall(NfsProcedure procedure) : m_nfs(&m_utilities)
    {
        m_call.iVersion = NFS_V3;
        m_call.iProc = procedure;
        m_call.sRemoteAddr = "192.168.100.100";
        m_call.pRuntimeParam = &m_param;

        const std::string sFile = m_folder.Write("flat.vmdk", FILE_SIZE);
        m_utilities.AddMountInfo(&m_param, &m_LogArgu, m_folder.Path().c_str(), "vm1", "", nullptr);
        nfs_fh3 handle;
        m_nfs.GetNfsFileHandle(&m_param, &m_LogArgu, sFile.c_str(), &handle);
        Write(&m_arguments, handle);
        m_arguments.Write8(FILE_SIZE / 2);  // offset
    }

    COutputStream& GetArguments() { return m_arguments; }

    // Puts the arguments where a connection would have received them.
    void Receive()
    {
        memcpy(m_in.GetFreeBuffer(), m_arguments.GetBuffer(), m_arguments.GetBufferSize());
        m_in.AddFilledBufferSize(m_arguments.GetBufferSize());
    }

    // False unless the call succeeds with a reply of iReplySize bytes.
    bool Process(unsigned int iReplySize)
    {
        m_in.SetBufferIndex(0);
        m_out.ResetBuffer();
        return m_nfs.Process(&m_in, &m_out, &m_call) == PRC_OK &&
               m_out.GetBufferSize() == iReplySize;
    }

private:
    CUtilities m_utilities;
    CRuntimeParam m_param{"", 0};
    LogArgu m_LogArgu{"ReadWriteBench"};
    CNfs3Prog m_nfs;
    CBenchFolder m_folder;
    ProcessParam m_call;
    COutputStream m_arguments;
    CInputStream m_in;
    COutputStream m_out;
};

void Repeat(benchmark::State& state, CCall* pCall, unsigned int iReplySize, unsigned int iBytes)
{
    if (!pCall->Process(iReplySize))  // opens the descriptor
        state.SkipWithError("wrong reply");
    const unsigned long iBefore = GetAllocationCount();
    for (auto _ : state) {
        if (!pCall->Process(iReplySize))
            state.SkipWithError("wrong reply");
    }
    state.counters["allocations"] = benchmark::Counter(
        static_cast<double>(GetAllocationCount() - iBefore), benchmark::Counter::kAvgIterations);
    state.SetBytesProcessed(state.iterations() * iBytes);
}

void ReadCall(benchmark::State& state)
{
    constexpr unsigned int REPLY_HEAD = 20;  // status, no attributes, count, end of file, length
    CCall call(NFSPROC3_READ);
    call.GetArguments().Write(NFS3_RTMAX);
    call.Receive();
    Repeat(state, &call, REPLY_HEAD + NFS3_RTMAX, NFS3_RTMAX);
}
BENCHMARK(ReadCall);

void BareRead(benchmark::State& state)
{
    const CBenchFolder folder;
    const CAutoFd file(open(folder.Write("flat.vmdk", FILE_SIZE).c_str(), O_RDWR | O_CLOEXEC));
    std::vector<unsigned char> vData(NFS3_RTMAX);
    for (auto _ : state) {
        if (lseek(file.Get(), FILE_SIZE / 2, SEEK_SET) < 0 ||
            read(file.Get(), vData.data(), vData.size()) != NFS3_RTMAX)
            state.SkipWithError("read failed");
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * NFS3_RTMAX);
}
BENCHMARK(BareRead);

void WriteCall(benchmark::State& state)
{
    constexpr unsigned int REPLY = 28;  // status, no attributes twice, count, stability, verifier
    CCall call(NFSPROC3_WRITE);
    COutputStream& arguments = call.GetArguments();
    const std::vector<unsigned char> vData(NFS3_WTMAX, 'y');
    arguments.Write(NFS3_WTMAX);
    Write(&arguments, UNSTABLE);
    Write(&arguments, opaque{vData.data(), NFS3_WTMAX});
    call.Receive();
    Repeat(state, &call, REPLY, NFS3_WTMAX);
}
BENCHMARK(WriteCall);

void BareWrite(benchmark::State& state)
{
    const CBenchFolder folder;
    const CAutoFd file(open(folder.Write("flat.vmdk", FILE_SIZE).c_str(), O_RDWR | O_CLOEXEC));
    const std::vector<unsigned char> vData(NFS3_WTMAX, 'y');
    for (auto _ : state) {
        if (lseek(file.Get(), FILE_SIZE / 2, SEEK_SET) < 0 ||
            write(file.Get(), vData.data(), vData.size()) != NFS3_WTMAX)
            state.SkipWithError("write failed");
    }
    state.SetBytesProcessed(state.iterations() * NFS3_WTMAX);
}
BENCHMARK(BareWrite);

}  // namespace
