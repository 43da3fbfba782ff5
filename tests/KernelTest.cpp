// The server as the Linux kernel meets it. Each suite runs one job in a guest; its cases then look
// at what the guest found and at what is left in the published folder.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <vector>

#include <gtest/gtest.h>

#include "Digest.h"
#include "KernelVisit.h"
#include "Sanitizers.h"

namespace {

constexpr size_t MIB = 0x100000;
constexpr size_t IMAGE_SIZE = (IS_SANITIZED ? 64 : 512) * MIB;
constexpr size_t HALF_SIZE = (IS_SANITIZED ? 4 : 16) * MIB;  // of the disk that several use at once
constexpr size_t NOISE_SIZE = MIB;

// --- A hypervisor and its datastore

constexpr size_t MANY_FILES = 300;

// A write into the disk image: where, and which part of the noise.
struct Piece {
    size_t iPosition;
    size_t iLength;
    size_t iSkip;
};

// Big and small ones, aligned to nothing, some across others, the first at the image's start and
// the last at its end.
std::vector<Piece> MakePieces()
{
    std::vector<Piece> vPieces = {{0, 512, 0}};
    for (size_t i = 1; i < 48; i++) {
        const size_t iPosition = i * 7919 * 65521 % (IMAGE_SIZE - NOISE_SIZE);
        vPieces.push_back({iPosition, 1 + i * i * 97 % 200000, i * 1000});
    }
    vPieces.push_back({vPieces[5].iPosition + 100, 5000, 0});
    vPieces.push_back({IMAGE_SIZE - 4096, 4096, 500});
    return vPieces;
}

class Datastore : public CKernelTest {
protected:
    static void SetUpTestSuite()
    {
        if (!Prepare())
            return;
        std::filesystem::create_directory(Published("many"));
        for (size_t i = 0; i < MANY_FILES; i++)
            s_pVisit->m_Folder.Write("many/" + ManyName(i), std::string(i, 'x'));

        std::ostringstream pieces;
        for (const Piece& piece : MakePieces())
            pieces << piece.iPosition << " " << piece.iLength << " " << piece.iSkip << "\n";
        GuestJob job;
        job.sScript = "datastore.sh";
        job.mFiles["/noise"] = s_pVisit->m_Outside.Write("noise", Noise(NOISE_SIZE, 1));
        job.mFiles["/pieces"] = s_pVisit->m_Outside.Write("pieces", pieces.str());
        job.mVariables["IMAGE_MIB"] = std::to_string(IMAGE_SIZE / MIB);
        s_pVisit->Run(job);
    }

    static std::string ManyName(size_t iNumber) { return "file" + std::to_string(1000 + iNumber); }

    // The disk image as it must be, in a file outside of the server.
    static std::string WriteReference()
    {
        const std::string sNoise = Noise(NOISE_SIZE, 1);
        const std::string sPath = s_pVisit->m_Outside.Write("reference", "");
        std::filesystem::resize_file(sPath, IMAGE_SIZE);
        std::fstream file(sPath, std::ios::binary | std::ios::in | std::ios::out);
        for (const Piece& piece : MakePieces()) {
            file.seekp(static_cast<std::streamoff>(piece.iPosition));
            file.write(sNoise.data() + piece.iSkip, static_cast<std::streamsize>(piece.iLength));
        }
        return sPath;
    }
};

}  // namespace

TEST_F(Datastore, KernelLog_HasNoComplaint)
{
    ExpectQuietVisit();
    EXPECT_EQ(Result("umount"), DONE);
    EXPECT_EQ(Result("umnt"), UMNT_REPLY);
    EXPECT_EQ(Result("umnt_plain"), UMNT_REPLY);
}

TEST_F(Datastore, Procedures_AreAnsweredAtOnce_AndCommitIsNotNeeded)
{
    const std::string sProcedures = Result("procedures");
    EXPECT_FALSE(std::regex_search(sProcedures, std::regex("[A-Z]:[0-9]+:[1-9]")));
    EXPECT_TRUE(std::regex_search(sProcedures, std::regex(" WRITE:[1-9][0-9]*:0:0 ")));
    EXPECT_NE(sProcedures.find(" COMMIT:0:0:0"), std::string::npos);
    EXPECT_NE(sProcedures.find(" PATHCONF:1:0:1 "), std::string::npos);  // at the mount
}

TEST_F(Datastore, List_Of300Files_ShowsEachOnce)
{
    std::vector<std::string> vNames;
    std::vector<std::string> vSizes;
    for (size_t i = 0; i < MANY_FILES; i++) {
        vNames.push_back(ManyName(i));
        vSizes.push_back(ManyName(i) + ":" + std::to_string(i));
    }
    EXPECT_EQ(Words(Result("names")), vNames);
    EXPECT_EQ(Words(Result("names_again")), vNames);
    EXPECT_EQ(Words(Result("sizes")), vSizes);
    EXPECT_EQ(Words(Result("names_plain")), vNames);
    EXPECT_TRUE(std::regex_search(Result("procedures"), std::regex(" READDIRPLUS:[1-9]")));
    EXPECT_TRUE(std::regex_search(Result("procedures_plain"), std::regex(" READDIR:[1-9]")));
}

TEST_F(Datastore, MakeFolders_OneInAnother_AreThere)
{
    EXPECT_EQ(Result("mkdir"), DONE);
    EXPECT_TRUE(std::filesystem::is_directory(Published("vms/one/logs")));
    EXPECT_EQ(Words(Result("folder")), (std::vector<std::string>{"config", "disk", "logs"}));
}

TEST_F(Datastore, DiskImage_WrittenInPieces_IsTheSameOnBothSides)
{
    EXPECT_EQ(Result("image_made"), DONE);
    EXPECT_TRUE(s_pVisit->m_Guest.Results("image_error").empty());
    EXPECT_EQ(Result("image_size"), std::to_string(IMAGE_SIZE));
    const std::string sDigest = DigestOfFile(WriteReference());
    EXPECT_EQ(DigestOfFile(Published("vms/one/disk")), sDigest);
    EXPECT_EQ(Result("image_read"), sDigest);
}

TEST_F(Datastore, DiskImage_StaysSparse)
{
    struct stat info;
    ASSERT_EQ(stat(Published("vms/one/disk").c_str(), &info), 0);
    EXPECT_EQ(static_cast<size_t>(info.st_size), IMAGE_SIZE);
    EXPECT_LT(static_cast<size_t>(info.st_blocks) * 512, 16 * MIB);
}

TEST_F(Datastore, Truncate_ChangesTheSizeBothWays)
{
    const std::string sNoise = Noise(NOISE_SIZE, 1).substr(0, 1000);
    EXPECT_EQ(Result("cut"), DONE);
    EXPECT_EQ(Contents("vms/one/logs/cut"), sNoise);
    EXPECT_EQ(Result("grow"), DONE);
    EXPECT_EQ(Contents("vms/one/logs/grown"), sNoise + std::string(4000, '\0'));
    EXPECT_TRUE(std::filesystem::is_empty(Published("vms/one/logs/emptied")));
}

TEST_F(Datastore, WriteAndSync_PutsTheBytesIntoTheFile)
{
    EXPECT_EQ(Result("synced"), DONE);
    EXPECT_EQ(DigestOfFile(Published("vms/one/logs/synced")), DigestOf(Noise(NOISE_SIZE, 1)));
}

TEST_F(Datastore, Append_AddsToTheEnd)
{
    EXPECT_EQ(Contents("vms/one/logs/appended"), "first\nsecond\nthird\n");
    EXPECT_EQ(Words(Result("appended")), (std::vector<std::string>{"first", "second", "third"}));
}

TEST_F(Datastore, Rename_OntoAFile_ReplacesIt)
{
    EXPECT_EQ(Result("rename"), DONE);
    EXPECT_EQ(Result("config"), "new settings");
    EXPECT_EQ(Result("config_again"), "new settings");
    EXPECT_EQ(Contents("vms/one/config"), "new settings\n");
    EXPECT_FALSE(std::filesystem::exists(Published("vms/one/config~")));
}

TEST_F(Datastore, Remove_TakesFilesAndEmptyFolders)
{
    EXPECT_EQ(Result("rmdir_full"), "1 rmdir: 'gone': Input/output error");
    EXPECT_EQ(Result("remove"), DONE);
    EXPECT_EQ(Result("remove_again"), "1 rm: can't remove 'gone/file': No such file or directory");
    EXPECT_EQ(Result("rmdir"), DONE);
    EXPECT_EQ(Result("read_gone"), "1 cat: can't open 'gone/file': No such file or directory");
    EXPECT_FALSE(std::filesystem::exists(Published("vms/one/gone")));
}

TEST_F(Datastore, Chmod_ChangesTheMode)
{
    EXPECT_EQ(Result("chmod"), DONE);
    EXPECT_EQ(Result("mode"), "640");
    struct stat info;
    ASSERT_EQ(stat(Published("vms/one/config").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640U);
}

TEST_F(Datastore, Space_IsWhatTheServerSees)
{
    const std::vector<std::string> vSpace = Words(Result("space"));
    ASSERT_EQ(vSpace.size(), 6U);
    const struct statvfs& local = s_pVisit->m_Space;
    const uint64_t iUnit = std::stoull(vSpace[0]);
    const auto units = [&](uint64_t iBlocks) {  // the kernel rounds up to blocks of its own
        return (iBlocks * local.f_frsize + iUnit - 1) / iUnit;
    };
    EXPECT_EQ(std::stoull(vSpace[1]), units(local.f_blocks));
    EXPECT_EQ(std::stoull(vSpace[2]), units(local.f_bfree));
    EXPECT_EQ(std::stoull(vSpace[3]), units(local.f_bavail));
    EXPECT_EQ(std::stoull(vSpace[4]), local.f_files);
    EXPECT_EQ(std::stoull(vSpace[5]), local.f_ffree);
}

namespace {

// --- Several at once, and coming back

class Sharing : public CKernelTest {
protected:
    static void SetUpTestSuite()
    {
        if (!Prepare())
            return;
        s_pVisit->m_Folder.Write("disk", Noise(2 * HALF_SIZE, 2));
        std::filesystem::create_directory(Published("vm"));
        s_pVisit->m_Folder.Write("vm/disk", Noise(MIB, 3));
        s_pVisit->m_Folder.Write("vm/log", "----- the log\n");
        GuestJob job;
        job.sScript = "sharing.sh";
        job.mFiles["/noise"] = s_pVisit->m_Outside.Write("noise", Noise(NOISE_SIZE, 1));
        job.mVariables["HALF_MIB"] = std::to_string(HALF_SIZE / MIB);
        s_pVisit->Run(job);
    }
};

constexpr char TREE[] = "./disk ./moved/disk ./moved/log ./vm/disk";

}  // namespace

TEST_F(Sharing, KernelLog_HasNoComplaint)
{
    ExpectQuietVisit();
}

TEST_F(Sharing, TwoReadersAndAWriter_OfOneDisk_SeeAndLeaveTheRightBytes)
{
    const std::string sHalf = Noise(2 * HALF_SIZE, 2).substr(0, HALF_SIZE);
    EXPECT_EQ(Result("first_reader"), DigestOf(sHalf));
    EXPECT_EQ(Result("second_reader"), DigestOf(sHalf));
    std::string sDisk = sHalf;
    while (sDisk.size() < 2 * HALF_SIZE)
        sDisk += Noise(NOISE_SIZE, 1);
    EXPECT_EQ(DigestOfFile(Published("disk")), DigestOf(sDisk));
}

TEST_F(Sharing, RenameOfAFolder_WithOpenFiles_GoesOnWithTheSameFiles)
{
    const std::string sDisk = Noise(MIB, 3);
    EXPECT_EQ(Result("move"), DONE);
    EXPECT_EQ(Result("head"), DigestOf(sDisk.substr(0, 4096)));
    EXPECT_EQ(Result("rest"), DigestOf(sDisk.substr(4096)));
    EXPECT_EQ(Result("new_place"), DigestOf(sDisk));
    EXPECT_EQ(DigestOfFile(Published("moved/disk")), DigestOf(sDisk));
    EXPECT_EQ(Contents("moved/log"), "MORE\n the log\n");
}

TEST_F(Sharing, RenameOfAFolder_OtherFilesInTheOldPlace_HaveTheirOwnBytes)
{
    EXPECT_EQ(Result("replace"), DONE);
    EXPECT_EQ(Result("old_place"), "another disk");
    EXPECT_EQ(Contents("vm/disk"), "another disk\n");
}

TEST_F(Sharing, RemoveOfAnOpenFile_KeepsItUntilItIsClosed)
{
    EXPECT_EQ(Result("remove_open"), DONE);
    EXPECT_EQ(Result("removed"), "another log");
    EXPECT_EQ(Result("left"), "disk");
    EXPECT_FALSE(std::filesystem::exists(Published("vm/log")));
}

TEST_F(Sharing, Mount_BeforeTheServerWasTold_IsRefused)
{
    EXPECT_EQ(Result("umount"), DONE);
    EXPECT_EQ(Result("mount_early"), "255 mount: mounting 10.0.2.2:vm1 on /mnt failed: "
                                     "Permission denied");
}

TEST_F(Sharing, MountAgain_FindsEverything)
{
    EXPECT_EQ(Result("umnt"), UMNT_REPLY);
    EXPECT_EQ(Result("mount_again"), DONE);
    EXPECT_EQ(Result("tree"), TREE);
    EXPECT_EQ(Result("tree_again"), TREE);
    EXPECT_EQ(Result("new_place_again"), DigestOf(Noise(MIB, 3)));
    EXPECT_EQ(Result("umnt_again"), UMNT_REPLY);
}

namespace {

// --- What is deliberately different

class Oddities : public CKernelTest {
protected:
    static constexpr size_t FULL_FILES = 400;  // more than rm asks the kernel for at once

    static void SetUpTestSuite()
    {
        if (!Prepare())
            return;
        std::filesystem::create_directories(Published("known/not"));
        s_pVisit->m_Folder.Write("present", "old contents");
        std::filesystem::create_directory(Published("full"));
        for (size_t i = 0; i < FULL_FILES; i++)
            s_pVisit->m_Folder.Write("full/" + std::string(200, 'x') + std::to_string(i), "data");
        GuestJob job;
        job.sScript = "oddities.sh";
        s_pVisit->Run(job);
    }
};

}  // namespace

TEST_F(Oddities, KernelLog_HasNoComplaint)
{
    ExpectQuietVisit();
    EXPECT_EQ(Result("umnt"), UMNT_REPLY);
}

TEST_F(Oddities, MakeFolders_OverOneNotLookedUp_Fails)
{
    EXPECT_EQ(Result("mkdir_unknown"),
              "1 mkdir: can't create directory 'known/': Input/output error");
    EXPECT_EQ(Result("mkdir_known"), DONE);
    EXPECT_EQ(Result("mkdir_made"), "new");
    EXPECT_TRUE(std::filesystem::is_directory(Published("known/not/new")));
}

TEST_F(Oddities, ExclusiveCreation_OfAFileNotLookedUp_TakesTheOldOne)
{
    EXPECT_EQ(Result("exclusive_new"), DONE);
    EXPECT_EQ(Contents("exclusive"), "new");
    EXPECT_EQ(Result("exclusive_known"), "1 gunzip: can't open 'exclusive': File exists");
    EXPECT_EQ(Result("exclusive_present"), DONE);
    EXPECT_EQ(Result("exclusive_contents"), "new contents");
    EXPECT_EQ(Contents("present"), "new contents");
}

TEST_F(Oddities, RemoveOfAFullFolder_TakesSeveralPasses)
{
    const std::vector<std::string> vPasses = s_pVisit->m_Guest.Results("pass");
    ASSERT_GT(vPasses.size(), 1U);
    EXPECT_EQ(vPasses.front(), "1 rm: can't remove 'full': Input/output error");
    EXPECT_EQ(vPasses.back(), DONE);
    EXPECT_FALSE(std::filesystem::exists(Published("full")));
}

TEST_F(Oddities, LinksAndSpecialFiles_AreRefused)
{
    EXPECT_EQ(Result("symlink"), "1 ln: symlink: Input/output error");
    EXPECT_EQ(Result("hardlink"), "1 ln: hardlink: Input/output error");
    EXPECT_EQ(Result("fifo"), "1 mkfifo: fifo: Unknown error 524");
    EXPECT_EQ(Result("links"), "");
}

TEST_F(Oddities, TimesAndOwners_AreAcceptedWithoutEffect)
{
    EXPECT_EQ(Result("touch"), DONE);
    EXPECT_EQ(Result("chown"), DONE);
    EXPECT_EQ(Result("unchanged"), "0");
}

TEST_F(Oddities, UnusualNames_NameFiles)
{
    const std::vector<std::string> vNames = {"with two  blanks", "größe 日本", "byte\xFF", "-rf",
                                             "a*b?\"\\"};
    EXPECT_EQ(s_pVisit->m_Guest.Results("name"), vNames);
    for (size_t i = 1; i < vNames.size(); i++)
        EXPECT_EQ(Contents(vNames[i]), vNames[i] + "\n");
    EXPECT_EQ(Result("name_removed"), DONE);
    EXPECT_FALSE(std::filesystem::exists(Published(vNames[0])));
    EXPECT_EQ(Result("long_name"), DONE);
    EXPECT_TRUE(std::filesystem::exists(Published(std::string(255, '0'))));
    EXPECT_NE(Result("too_long_name").find("File name too long"), std::string::npos);
}
