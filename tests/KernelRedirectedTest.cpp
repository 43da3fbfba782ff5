// Disks that the server assembles from pieces, as the Linux kernel meets them: mounted by way of
// NFS and a loop device, then written, cut, renamed and removed. One job in a guest does all that;
// the cases look at what the guest found and at what the host was told.
#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Digest.h"
#include "KernelVisit.h"
#include "Sanitizers.h"
#include "Segment.h"

namespace {

constexpr char MKE2FS[] = "/sbin/mke2fs";
constexpr char BUSYBOX[] = "/bin/busybox";

constexpr size_t MIB = 0x100000;
constexpr size_t IMAGE_SIZE = (IS_SANITIZED ? 16 : 64) * MIB;
constexpr size_t RANGES = IS_SANITIZED ? 700 : 3000;
constexpr size_t FILES = IS_SANITIZED ? 10 : 40;
constexpr size_t LONGEST_FILE = IS_SANITIZED ? 600000 : 1000000;
constexpr int SOURCES = 7;
constexpr size_t MAX_WASTE = 100;  // bytes between two ranges of a source

constexpr int GRANULE_MIB = 1;
constexpr int64_t GRANULE = GRANULE_MIB * static_cast<int64_t>(MIB);
constexpr int CHECK_POINT_MIB = 4;

// What the guest writes: its noise at a page, and the start of it at a place aligned to nothing.
constexpr size_t NOISE_SIZE = MIB;
constexpr uint64_t WRITE_PAGE = 1000;
constexpr uint64_t PAGE = 4096;
constexpr uint64_t DIRECT_OFFSET = 7777777;
constexpr uint64_t DIRECT_LENGTH = 100001;
constexpr size_t HEAD_MIB = 10;  // both lie in it

constexpr size_t MEMORY = 0;
constexpr size_t INDEX = 1;
const std::vector<std::string> DISKS = {"memory", "index"};  // by where the ranges are kept

// A third disk is of this size, and has nothing in it but a note. The kernel reads no further than
// the size of the largest file that the server tells it of, which is 2 TiB.
constexpr char HUGE_DISK[] = "huge";
constexpr int64_t HUGE_SIZE = int64_t{4} << 40;
constexpr int64_t NOTE_OFFSET = (int64_t{2} << 40) - 4096;
constexpr char NOTE[] = "far out";

// A range that a client wrote.
struct Written {
    uint64_t iOffset;
    uint64_t iLength;
};

class RedirectedDisk : public CKernelTest {
protected:
    void SetUp() override
    {
        if (!std::filesystem::exists(MKE2FS))
            GTEST_SKIP() << "The kernel test is skipped without the package e2fsprogs";
        CKernelTest::SetUp();
    }

    static void SetUpTestSuite()
    {
        if (!std::filesystem::exists(MKE2FS) || !Prepare())
            return;
        MakeImage();
        s_vSegments = CutImage();
        for (const std::string& sDisk : DISKS) {
            s_pVisit->m_Folder.Write(sDisk, "");
            std::filesystem::create_hard_link(Published(sDisk), GetKept(sDisk));
        }
        const std::vector<std::string> vBefore = DigestSources();
        GuestJob job;
        job.sScript = "redirected.sh";
        job.mFiles["/noise"] = s_pVisit->m_Outside.Write("noise", Noise(NOISE_SIZE, 1));
        job.mVariables["WRITE_PAGE"] = std::to_string(WRITE_PAGE);
        job.mVariables["DIRECT_OFFSET"] = std::to_string(DIRECT_OFFSET);
        job.mVariables["DIRECT_LENGTH"] = std::to_string(DIRECT_LENGTH);
        job.mVariables["IMAGE_MIB"] = std::to_string(IMAGE_SIZE / MIB);
        job.mVariables["HEAD_MIB"] = std::to_string(HEAD_MIB);
        job.mVariables["NOTE_OFFSET"] = std::to_string(NOTE_OFFSET);
        job.vModules = {"crc32c-intel", "libcrc32c", "loop"};
        s_pVisit->Run(job, [](CNfsMain* pMain) {
            OpenDisks(pMain);
            OpenHugeDisk(pMain);
        });
        EXPECT_EQ(DigestSources(), vBefore);
    }

    static void TearDownTestSuite()
    {
        s_vSegments.clear();
        s_vFiles.clear();
        CKernelTest::TearDownTestSuite();
    }

    static std::string GetImage() { return s_pVisit->m_Outside.Path("image"); }

    static std::string DigestOfHead()
    {
        std::string sBytes(HEAD_MIB * MIB, '\0');
        std::ifstream(GetImage(), std::ios::binary)
            .read(sBytes.data(), static_cast<std::streamsize>(sBytes.size()));
        return DigestOf(sBytes);
    }

    static std::string GetSource(int iSource)
    {
        return s_pVisit->m_Outside.Path("source" + std::to_string(iSource));
    }

    // A second name of the file that stands for a disk, which stays when the guest removes it.
    static std::string GetKept(const std::string& sDisk)
    {
        return s_pVisit->m_Outside.Path("kept-" + sDisk);
    }

    static std::vector<std::string> DigestSources()
    {
        std::vector<std::string> vDigests;
        for (int i = 0; i < SOURCES; i++)
            vDigests.push_back(DigestOfFile(GetSource(i)));
        return vDigests;
    }

    // A file system with noise and a program in it. s_vFiles tells what the guest is to find.
    static void MakeImage()
    {
        const std::filesystem::path folder = s_pVisit->m_Outside.Path("contents");
        std::filesystem::create_directories(folder / "data/deeper");
        std::filesystem::create_directories(folder / "bin");
        std::filesystem::copy_file(BUSYBOX, folder / "bin/busybox");
        s_vFiles = {"./bin/busybox " + DigestOfFile(BUSYBOX)};
        for (size_t i = 0; i < FILES; i++) {
            const std::string sName =
                (i % 2 == 0 ? "data/deeper/" : "data/") + std::to_string(100 + i);
            const std::string sContents = Noise(i * i * 170003 % LONGEST_FILE, i + 100);
            s_pVisit->m_Outside.Write("contents/" + sName, sContents);
            s_vFiles.push_back("./" + sName + " " + DigestOf(sContents));
        }
        std::sort(s_vFiles.begin(), s_vFiles.end());
        s_pVisit->m_Outside.Write("image", "");
        CChildProcess maker({MKE2FS, "-q", "-F", "-t", "ext4", "-d", folder, GetImage(),
                             std::to_string(IMAGE_SIZE / MIB) + "M"});
        maker.CloseInput();
        EXPECT_EQ(maker.ReadToEnd(), "");
        EXPECT_EQ(maker.WaitForExit(), 0);
        EXPECT_EQ(std::filesystem::file_size(GetImage()), IMAGE_SIZE);
    }

    // Cuts the image anywhere, and throws the ranges in any order into the sources, with waste
    // between them. Those without a byte that counts need no source.
    static std::vector<Segment> CutImage()
    {
        const std::string sImage = ReadWholeFile(GetImage());
        std::mt19937_64 random(4);
        std::vector<Segment> vSegments = CutAnywhere(&random);
        std::vector<size_t> vOrder(vSegments.size());
        std::iota(vOrder.begin(), vOrder.end(), size_t{0});
        std::shuffle(vOrder.begin(), vOrder.end(), random);
        std::vector<std::string> vSources(SOURCES);
        for (const size_t iRange : vOrder) {
            Segment& segment = vSegments[iRange];
            const std::string sBytes = sImage.substr(static_cast<size_t>(segment.iOffset),
                                                     static_cast<size_t>(segment.iLength));
            if (sBytes.find_first_not_of('\0') == std::string::npos)
                continue;
            segment.iSource = static_cast<int>(random() % SOURCES);
            std::string& sSource = vSources[static_cast<size_t>(segment.iSource)];
            sSource += Noise(random() % MAX_WASTE, random());
            segment.iFileOffset = static_cast<int64_t>(sSource.size());
            sSource += sBytes;
        }
        for (int i = 0; i < SOURCES; i++)
            s_pVisit->m_Outside.Write("source" + std::to_string(i),
                                      vSources[static_cast<size_t>(i)]);
        return vSegments;
    }

    static std::vector<Segment> CutAnywhere(std::mt19937_64* pRandom)
    {
        std::vector<int64_t> vCuts = {0, static_cast<int64_t>(IMAGE_SIZE)};
        while (vCuts.size() <= RANGES)
            vCuts.push_back(static_cast<int64_t>((*pRandom)() % IMAGE_SIZE));
        std::sort(vCuts.begin(), vCuts.end());
        vCuts.erase(std::unique(vCuts.begin(), vCuts.end()), vCuts.end());
        std::vector<Segment> vSegments;
        for (size_t i = 0; i + 1 < vCuts.size(); i++) {
            Segment segment;
            segment.iOffset = vCuts[i];
            segment.iLength = vCuts[i + 1] - vCuts[i];
            vSegments.push_back(segment);
        }
        return vSegments;
    }

    static void OpenDisks(CNfsMain* pMain)
    {
        for (size_t i = 0; i < DISKS.size(); i++) {
            const std::string sPath = Published(DISKS[i]);
            pMain->OpenRedirectedFile(sPath.c_str(), IMAGE_SIZE, i == INDEX, GRANULE_MIB,
                                      CHECK_POINT_MIB);
            for (const Segment& segment : s_vSegments) {
                const std::string sSource =
                    segment.iSource == NO_SOURCE ? "" : GetSource(segment.iSource);
                EXPECT_TRUE(pMain->AddRedirectedFileSegment(sPath.c_str(), sSource.c_str(),
                                                            segment.iFileOffset, segment.iOffset,
                                                            segment.iLength, nullptr));
            }
        }
    }

    static void OpenHugeDisk(CNfsMain* pMain)
    {
        const std::string sPath = s_pVisit->m_Folder.Write(HUGE_DISK, "");
        const std::string sNote = s_pVisit->m_Outside.Write("note", std::string(NOTE) + "\n");
        pMain->OpenRedirectedFile(sPath.c_str(), HUGE_SIZE, false, 0, 0);
        EXPECT_TRUE(
            pMain->AddRedirectedFileSegment(sPath.c_str(), nullptr, 0, 0, NOTE_OFFSET, nullptr));
        EXPECT_TRUE(pMain->AddRedirectedFileSegment(sPath.c_str(), sNote.c_str(), 0, NOTE_OFFSET,
                                                    sizeof(NOTE), nullptr));
    }

    // What the host was told of a disk under any of its names, apart from writes.
    static std::vector<std::string> GetNotifications(const std::string& sDisk)
    {
        std::vector<std::string> vNotifications;
        for (const std::string& sText : s_pVisit->m_Host.Notifications())
            if (sText.find("|" + Published(sDisk)) != std::string::npos &&
                !sText.starts_with("write|"))
                vNotifications.push_back(sText);
        return vNotifications;
    }

    // Where it was written, in the order of the offsets. The two writes do not touch.
    static std::vector<Written> GetWritten(const std::string& sDisk)
    {
        const std::string sStart = "write|vm1|" + Published(sDisk) + "|";
        std::vector<Written> vWritten;
        for (const std::string& sText : s_pVisit->m_Host.Notifications()) {
            if (!sText.starts_with(sStart))
                continue;
            Written written{};
            int iSeekType = -1;
            EXPECT_EQ(sscanf(sText.c_str() + sStart.size(), "%" SCNu64 "|%d|%" SCNu64,
                             &written.iOffset, &iSeekType, &written.iLength),
                      3);
            EXPECT_EQ(iSeekType, SEEK_SET);
            vWritten.push_back(written);
        }
        std::sort(vWritten.begin(), vWritten.end(), [](const Written& one, const Written& other) {
            return one.iOffset < other.iOffset;
        });
        return vWritten;
    }

    // The records that the index file must hold. Sources have numbers in the order in which they
    // came; no range is longer than a granule, but some reach into the next one.
    static std::string MakeRecords()
    {
        std::string sRecords;
        const auto Append = [&sRecords](const Segment& segment) {
            sRecords.append(reinterpret_cast<const char*>(&segment), sizeof(segment));
        };
        std::map<int, int> mNumbers;
        for (Segment segment : s_vSegments) {
            if (segment.iSource != NO_SOURCE)
                segment.iSource =
                    mNumbers.try_emplace(segment.iSource, static_cast<int>(mNumbers.size()))
                        .first->second;
            const int64_t iRoom = GRANULE - segment.iOffset % GRANULE;
            if (segment.iLength > iRoom) {
                Segment first = segment;
                first.iLength = iRoom;
                Append(first);
                segment.iFileOffset += iRoom;
                segment.iOffset += iRoom;
                segment.iLength -= iRoom;
            }
            EXPECT_LE(segment.iLength, GRANULE);
            Append(segment);
        }
        return sRecords;
    }

    static inline std::vector<Segment> s_vSegments;   // of both disks, sources as GetSource counts
    static inline std::vector<std::string> s_vFiles;  // path and digest of what is in the image
};

}  // namespace

TEST_F(RedirectedDisk, KernelLog_HasNoComplaint)
{
    ExpectQuietVisit();
    EXPECT_EQ(Result("umnt"), UMNT_REPLY);
    for (const std::string& sLine : s_pVisit->m_Guest.KernelLog())
        EXPECT_FALSE(
            std::regex_search(sLine, std::regex("error|fail|corrupt|recover", std::regex::icase)))
            << sLine;
}

TEST_F(RedirectedDisk, Procedures_AreAnsweredAtOnce_AndNoneOfAFileFails)
{
    const std::string sProcedures = Result("procedures");
    EXPECT_FALSE(std::regex_search(sProcedures, std::regex("[A-Z]:[0-9]+:[1-9]")));
    for (const char* pcName : {"GETATTR", "SETATTR", "READ", "WRITE", "REMOVE", "RENAME"})
        EXPECT_TRUE(std::regex_search(sProcedures,
                                      std::regex(" " + std::string(pcName) + ":[1-9][0-9]*:0:0 ")))
            << pcName << " in " << sProcedures;
}

TEST_F(RedirectedDisk, Pieces_AreWhatTheTestIsAbout)
{
    EXPECT_GT(s_vSegments.size(), RANGES * 9 / 10);
    std::vector<size_t> vCounts(SOURCES + 1);
    for (const Segment& segment : s_vSegments)
        vCounts[static_cast<size_t>(segment.iSource + 1)]++;
    EXPECT_GT(*std::min_element(vCounts.begin(), vCounts.end()), RANGES / 100);
}

TEST_F(RedirectedDisk, Mount_ByWayOfALoopDevice_ShowsFilesAndRunsAProgram)
{
    for (const std::string& sDisk : DISKS) {
        EXPECT_EQ(Result(sDisk + "_losetup"), DONE);
        EXPECT_EQ(Result(sDisk + "_mount"), DONE);
        EXPECT_EQ(s_pVisit->m_Guest.Results(sDisk + "_file"), s_vFiles);
        EXPECT_EQ(Result(sDisk + "_program"), "0 runs");
        EXPECT_EQ(Result(sDisk + "_umount"), DONE);
        EXPECT_EQ(Result(sDisk + "_release"), DONE);
    }
}

TEST_F(RedirectedDisk, Read_OfAllOfIt_GivesTheImage)
{
    for (const std::string& sDisk : DISKS) {
        EXPECT_EQ(Result(sDisk + "_size"), std::to_string(IMAGE_SIZE));
        EXPECT_EQ(Result(sDisk + "_bytes"), DigestOfFile(GetImage()));
    }
}

TEST_F(RedirectedDisk, Write_TellsTheHostEachByteOnce_AndStoresNothing)
{
    const std::string sHead = DigestOfHead();
    for (const std::string& sDisk : DISKS) {
        EXPECT_EQ(Result(sDisk + "_write"), DONE);
        EXPECT_EQ(Result(sDisk + "_write_direct"), DONE);
        uint64_t iNext = WRITE_PAGE * PAGE;
        for (const Written& written : GetWritten(sDisk)) {
            if (iNext == WRITE_PAGE * PAGE + NOISE_SIZE)
                iNext = DIRECT_OFFSET;
            EXPECT_EQ(written.iOffset, iNext);
            iNext += written.iLength;
        }
        EXPECT_EQ(iNext, DIRECT_OFFSET + DIRECT_LENGTH);
        EXPECT_EQ(Result(sDisk + "_head_written"), sHead);
    }
}

TEST_F(RedirectedDisk, Changes_ReachTheHostWithTheirArguments)
{
    for (const std::string& sDisk : DISKS) {
        for (const char* pcChange : {"_truncate", "_touch", "_rename", "_remove"})
            EXPECT_EQ(Result(sDisk + pcChange), DONE);
        const std::string sPath = Published(sDisk);
        EXPECT_EQ(GetNotifications(sDisk),
                  (std::vector<std::string>{
                      "update|vm1|" + sPath + "|1|1000000|0|0|1|0",  // the time is the server's
                      "update|vm1|" + sPath + "|0|0|1|978307200|1|978307200",
                      "rename|vm1|" + sPath + "|" + sPath + ".moved",
                      "remove|vm1|" + sPath + ".moved",
                  }));
    }
}

TEST_F(RedirectedDisk, Truncate_LeavesTheSizeToTheHost)
{
    for (const std::string& sDisk : DISKS)
        EXPECT_EQ(Result(sDisk + "_size_changed"), std::to_string(IMAGE_SIZE));
}

// The index is no longer where the disk looks for it.
TEST_F(RedirectedDisk, Rename_KeepsTheBytesInMemory_AndLosesThoseWithAnIndex)
{
    const std::string sHead = DigestOfHead();
    for (const std::string& sDisk : DISKS)
        EXPECT_EQ(Result(sDisk + "_size_moved"), std::to_string(IMAGE_SIZE));
    EXPECT_EQ(Result(DISKS[MEMORY] + "_head_moved"), sHead);
    EXPECT_EQ(Result(DISKS[INDEX] + "_head_moved"), DigestOf(std::string(HEAD_MIB * MIB, '\0')));
}

TEST_F(RedirectedDisk, Placeholders_HoldNothingButTheIndex_AndGo)
{
    EXPECT_EQ(Result(DISKS[MEMORY] + "_left"), std::string(HUGE_DISK) + " " + DISKS[INDEX]);
    EXPECT_EQ(Result(DISKS[INDEX] + "_left"), HUGE_DISK);
    for (const std::string& sDisk : DISKS) {
        EXPECT_FALSE(std::filesystem::exists(Published(sDisk)));
        EXPECT_FALSE(std::filesystem::exists(Published(sDisk + ".moved")));
    }
    EXPECT_EQ(ReadWholeFile(GetKept(DISKS[MEMORY])), "");
    EXPECT_TRUE(ReadWholeFile(GetKept(DISKS[INDEX])) == MakeRecords());
}

TEST_F(RedirectedDisk, HugeDisk_IsReadFarBeyond32Bits)
{
    EXPECT_EQ(Result("huge_size"), std::to_string(HUGE_SIZE));
    EXPECT_EQ(Result("huge_note"), NOTE);
}
