// Redirected files under many hands: clients and other threads read them while the host opens,
// fills, exports and closes them, and while they are renamed. What is read is the right bytes or
// zeros, and the right bytes alone where nobody meddles. The sanitizers look for the rest.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "CachedFile.h"
#include "NamespaceFixture.h"
#include "RuntimeParam.h"
#include "Sanitizers.h"
#include "Utilities.h"

namespace {

constexpr int ROUNDS = IS_SANITIZED ? 100 : 150;  // of what is slow
constexpr int READS = IS_SANITIZED ? 2000 : 3000;

constexpr int SOURCES = 3;
constexpr size_t SOURCE_SIZE = 0x20000;
constexpr size_t DISK_SIZE = 100000;
constexpr size_t LENGTH = 997;  // of a segment
constexpr size_t MAX_READ = 20000;

// While a disk is closed its index is an ordinary file, which ends before this.
constexpr size_t FIRST_READ = 8192;

// The first ones stay as they are, the others come and go; the last one is moved about.
constexpr int STEADY_DISKS = 2;
constexpr int LOOSE_DISKS = 4;
constexpr int MOVED_DISK = 4;

// What a thread does over and over; it gets the number of the round.
using Job = std::function<void(int, std::mt19937*)>;

class RedirectedStress : public CNamespaceFixture, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        CNamespaceFixture::SetUp();
        m_pMain->SetLogControl(0);
        std::mt19937 random(4);
        for (int i = 0; i < SOURCES; i++) {
            std::string sSource(SOURCE_SIZE, '\0');
            for (char& cByte : sSource)
                cByte = static_cast<char>(1 + random() % 255);
            m_vSources.push_back(sSource);
            m_Outside.Write("source" + std::to_string(i), sSource);
        }
        for (int iDisk = 0; iDisk <= MOVED_DISK; iDisk++)
            m_Folder.Write(GetName(iDisk), "");
        for (int iDisk = 0; iDisk < STEADY_DISKS; iDisk++) {
            Open(iDisk);
            Fill(iDisk);
        }
    }

    static std::string GetName(int iDisk) { return "disk" + std::to_string(iDisk); }
    std::string GetPath(int iDisk) const { return m_Folder.Path(GetName(iDisk)); }

    // Every disk is made of all sources, so that disks meet in them.
    static size_t GetSource(int iDisk, size_t iSegment)
    {
        return (static_cast<size_t>(iDisk) + iSegment) % SOURCES;
    }
    static size_t GetSourceOffset(int iDisk, size_t iSegment)
    {
        return (static_cast<size_t>(iDisk) * 10007 + iSegment * 4099) % (SOURCE_SIZE - LENGTH);
    }

    void Open(int iDisk)
    {
        if (GetParam())
            std::filesystem::resize_file(GetPath(iDisk), 0);
        m_pMain->OpenRedirectedFile(GetPath(iDisk).c_str(), DISK_SIZE, GetParam(), 1, 1);
    }

    // As hosts do, up to the first segment that is refused: it would leave a gap.
    void Fill(int iDisk)
    {
        bool bAdded = true;
        for (size_t i = 0; i * LENGTH < DISK_SIZE && bAdded; i++) {
            const std::string sSource = "source" + std::to_string(GetSource(iDisk, i));
            bAdded = m_pMain->AddRedirectedFileSegment(
                GetPath(iDisk).c_str(), m_Outside.Path(sSource).c_str(),
                static_cast<long long>(GetSourceOffset(iDisk, i)),
                static_cast<long long>(i * LENGTH), LENGTH, nullptr);
        }
        EXPECT_TRUE(bAdded || iDisk >= STEADY_DISKS);
    }

    std::string MakeContents(int iDisk) const
    {
        std::string sContents;
        for (size_t i = 0; i * LENGTH < DISK_SIZE; i++)
            sContents += m_vSources[GetSource(iDisk, i)].substr(GetSourceOffset(iDisk, i), LENGTH);
        return sContents.substr(0, DISK_SIZE);
    }

    // True if sData is what stands at iOffset, or, for a disk that comes and goes, less of it, with
    // zeros in place of some bytes.
    static bool IsRight(int iDisk, const std::string& sContents, size_t iOffset, size_t iAsked,
                        const std::string& sData)
    {
        const std::string sExpected = sContents.substr(iOffset, iAsked);
        if (iDisk < STEADY_DISKS)
            return sData == sExpected;
        if (sData.size() > sExpected.size())
            return false;
        for (size_t i = 0; i < sData.size(); i++)
            if (sData[i] != sExpected[i] && sData[i] != '\0')
                return false;
        return true;
    }

    // Reads anywhere in a disk, and counts what is wrong.
    using Reader = std::function<std::string(size_t iOffset, size_t iAsked)>;
    void ReadAnywhere(int iDisk, std::mt19937* pRandom, const Reader& read)
    {
        const size_t iOffset = FIRST_READ + (*pRandom)() % (DISK_SIZE - FIRST_READ);
        const size_t iAsked = 1 + (*pRandom)() % MAX_READ;
        if (!IsRight(iDisk, m_vContents[static_cast<size_t>(iDisk)], iOffset, iAsked,
                     read(iOffset, iAsked)))
            m_iWrong++;
        m_iReads++;
    }

    std::string ReadDirectly(const std::string& sName, size_t iOffset, size_t iAsked)
    {
        CRuntimeParam param("reader", 0);
        LogArgu argu{"Test"};
        std::string sData(iAsked, '\xA5');
        bool bEof = false;
        const int iRead = m_pMain->GetUtils()->ReadFile(&param, &argu, m_Folder.Path(sName).c_str(),
                                                        iOffset, SEEK_SET, sData.data(),
                                                        static_cast<unsigned int>(iAsked), &bEof);
        sData.resize(iRead < 0 ? 0 : static_cast<size_t>(iRead));
        return sData;
    }

    // By a handle of the disk, or of what has its name by then; empty after an error.
    static std::string ReadOverWire(CTcpClient* pClient, const std::string& sHandle, size_t iOffset,
                                    size_t iAsked)
    {
        CReply reply = pClient->Call(NfsCall(
            READ,
            CXdr().Opaque(sHandle).Hyper(iOffset).Word(static_cast<uint32_t>(iAsked)).Bytes()));
        if (reply.Word() != 0)
            return {};
        for (int i = 0; i < 3; i++)
            reply.Word();  // no attributes, count, end of file
        return reply.Opaque();
    }

    // A thread for each job.
    void Run(const std::vector<std::pair<int, Job>>& vJobs)
    {
        for (int iDisk = 0; iDisk <= MOVED_DISK; iDisk++)
            m_vContents.push_back(MakeContents(iDisk));
        std::vector<std::thread> vThreads;
        for (size_t i = 0; i < vJobs.size(); i++)
            vThreads.emplace_back([&job = vJobs[i], i] {
                std::mt19937 random(static_cast<unsigned int>(i));
                for (int iRound = 0; iRound < job.first; iRound++)
                    job.second(iRound, &random);
            });
        for (std::thread& thread : vThreads)
            thread.join();
        EXPECT_EQ(m_iWrong, 0) << "of " << m_iReads;
    }

    // Only clients read what may be a plain file just now: their calls come one after the other.
    Job ReadSteadyDisks()
    {
        return [this](int iRound, std::mt19937* pRandom) {
            const int iDisk = iRound % STEADY_DISKS;
            ReadAnywhere(iDisk, pRandom, [&](size_t iOffset, size_t iAsked) {
                return ReadDirectly(GetName(iDisk), iOffset, iAsked);
            });
        };
    }

    Job ReadEveryDiskOverWire(CTcpClient* pClient)
    {
        std::vector<std::string> vHandles;
        for (int iDisk = 0; iDisk <= MOVED_DISK; iDisk++)
            vHandles.push_back(Lookup(m_sRoot, GetName(iDisk)));
        return [this, pClient, vHandles](int iRound, std::mt19937* pRandom) {
            const int iDisk = iRound % (MOVED_DISK + 1);
            const std::string& sHandle = vHandles[static_cast<size_t>(iDisk)];
            ReadAnywhere(iDisk, pRandom, [&](size_t iOffset, size_t iAsked) {
                return ReadOverWire(pClient, sHandle, iOffset, iAsked);
            });
        };
    }

    Job OpenFillAndClose()
    {
        return [this](int iRound, std::mt19937*) {
            const int iDisk = STEADY_DISKS + iRound % (LOOSE_DISKS - STEADY_DISKS);
            Open(iDisk);
            Fill(iDisk);
            if (iRound % 3 == 0)
                m_pMain->CloseRedirectedFile(GetPath(iDisk).c_str());
            else if (iRound % 3 == 1)
                m_pMain->CloseAllRedirectedFiles(GetPath(iDisk).c_str());
        };
    }

    // There and back; its index, where it has one, is away in between.
    Job Move()
    {
        return [this](int iRound, std::mt19937*) {
            CRuntimeParam param("host", 0);
            LogArgu argu{"Test"};
            const std::string sPath = GetPath(MOVED_DISK);
            const std::string sMoved = m_Folder.Path("moved");
            if (iRound % 10 == 0) {
                Open(MOVED_DISK);
                Fill(MOVED_DISK);
            }
            m_pMain->GetUtils()->RenameFile(&param, &argu, sPath.c_str(), sMoved.c_str());
            m_pMain->GetUtils()->RenameFile(&param, &argu, sMoved.c_str(), sPath.c_str());
        };
    }

    Job Export()
    {
        return [this](int iRound, std::mt19937*) {
            const int iDisk = iRound % LOOSE_DISKS;
            const std::string sTarget = m_Folder.Write("target", "");
            m_pMain->ExportRedirectedFile(GetPath(iDisk).c_str(), sTarget.c_str());
            const std::string& sContents = m_vContents[static_cast<size_t>(iDisk)];
            if (!IsRight(iDisk, sContents, 0, DISK_SIZE, ReadWholeFile(sTarget)))
                m_iWrong++;
            const std::string sListing = m_Folder.Write("listing", "");
            m_pMain->ExportRedirectedFileInfo(GetPath(iDisk).c_str(), sListing.c_str(), false);
            const std::string sText = ReadWholeFile(sListing);
            if (iDisk < STEADY_DISKS && std::count(sText.begin(), sText.end(), '\n') !=
                                            static_cast<long>((DISK_SIZE + LENGTH - 1) / LENGTH))
                m_iWrong++;
        };
    }

    // Descriptors go, and sizes are asked for.
    Job DropDescriptors()
    {
        return [this](int iRound, std::mt19937*) {
            CRuntimeParam param("host", 0);
            LogArgu argu{"Test"};
            m_pMain->CloseAllCachedFileHandles(iRound % 2 == 0 ? "/" : m_Outside.Path().c_str());
            const int iDisk = iRound % STEADY_DISKS;
            const long long iSize =
                m_pMain->GetUtils()->GetFileSize(&param, &argu, GetPath(iDisk).c_str(), -1);
            if (iSize != DISK_SIZE)
                m_iWrong++;
        };
    }

    const CScratchFolder m_Outside;  // the sources; not published
    std::vector<std::string> m_vSources;
    std::vector<std::string> m_vContents;  // by disk
    std::atomic<int> m_iReads = 0;
    std::atomic<int> m_iWrong = 0;
};

INSTANTIATE_TEST_SUITE_P(Modes, RedirectedStress, testing::Bool(), [](const auto& mode) {
    return std::string(mode.param ? "Index" : "Memory");
});

}  // namespace

TEST_P(RedirectedStress, ReadsMeetEverythingElse_AndGetTheRightBytes)
{
    CTcpClient first(WIRE_NFS_PORT);
    CTcpClient second(WIRE_NFS_PORT);
    Run({
        {READS, ReadSteadyDisks()},
        {READS, ReadSteadyDisks()},
        {READS, ReadEveryDiskOverWire(&first)},
        {READS, ReadEveryDiskOverWire(&second)},
        {ROUNDS, OpenFillAndClose()},
        {ROUNDS, Move()},
        {ROUNDS, Export()},
        {ROUNDS, DropDescriptors()},
    });
}

// They meet in the same descriptors.
TEST_P(RedirectedStress, FilesThatShareSources_DoNotDisturbEachOther)
{
    Run({
        {READS, ReadSteadyDisks()},
        {READS, ReadSteadyDisks()},
        {READS, ReadSteadyDisks()},
        {ROUNDS, Export()},
    });
}

// As by a read of the plain file that is still under way when the host makes a disk of it.
TEST_P(RedirectedStress, DescriptorsThatOthersMove_AreNeitherReadNorWrittenInTheWrongPlace)
{
    const auto MakeAndCheck = [this](int, std::mt19937*) {
        Open(STEADY_DISKS);
        Fill(STEADY_DISKS);
        if (ReadDirectly(GetName(STEADY_DISKS), 0, DISK_SIZE) != m_vContents[STEADY_DISKS])
            m_iWrong++;
        m_iReads++;
    };
    const auto Move = [this](int iRound, std::mt19937* pRandom) {
        CRuntimeParam param("host", 0);
        LogArgu argu{"Test"};
        const std::string sPath =
            iRound % 4 == 3 ? m_Outside.Path("source0") : GetPath(STEADY_DISKS);
        const CCachedFile file(m_pMain->GetUtils(), &param, &argu, sPath.c_str(), false);
        lseek(file.Get(), static_cast<off_t>((*pRandom)() % DISK_SIZE), SEEK_SET);
    };
    Run({{ROUNDS, MakeAndCheck}, {10 * READS, Move}});
}

TEST_P(RedirectedStress, ReadsMeetAReset_AndGetRightBytesOrZeros)
{
    CTcpClient client(WIRE_NFS_PORT);
    const std::string sHandle = Lookup(m_sRoot, GetName(0));
    const auto ReadLoose = [this](int iRound, std::mt19937* pRandom) {
        const int iDisk = STEADY_DISKS + iRound % (LOOSE_DISKS - STEADY_DISKS);
        ReadAnywhere(iDisk, pRandom, [&](size_t iOffset, size_t iAsked) {
            return ReadDirectly(GetName(iDisk), iOffset, iAsked);
        });
    };
    const auto AskOverWire = [&client, sHandle](int, std::mt19937*) {
        ReadOverWire(&client, sHandle, FIRST_READ,
                     MAX_READ);  // after a reset it is nobody's handle
    };
    const auto ResetAll = [this](int, std::mt19937*) {
        CRuntimeParam param("host", 0);
        LogArgu argu{"Test"};
        m_pMain->GetUtils()->Reset(&param, &argu);
        m_pMain->AddMountPoint(m_Folder.Path().c_str(), "vm1", nullptr);
    };
    Run({
        {READS, ReadLoose},
        {READS, AskOverWire},
        {ROUNDS, OpenFillAndClose()},
        {ROUNDS, ResetAll},
    });
    EXPECT_TRUE(IsServing());
}
