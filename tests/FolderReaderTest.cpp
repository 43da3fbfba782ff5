#include "FolderReader.h"

#include <algorithm>
#include <fcntl.h>
#include <functional>
#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ClockTick.h"
#include "FolderHooks.h"
#include "Listing.h"

namespace {

// Called with what stat is about to tell, while it is set.
std::function<void(struct stat*)> g_Falsify;

class FolderReader : public testing::Test {
protected:
    ~FolderReader() override
    {
        g_Falsify = nullptr;
        EXPECT_EQ(CountDescriptors(), m_iDescriptors);
    }

    // All that a reader yields from where it stands.
    static std::vector<std::string> ReadAll(CFolderReader* pReader)
    {
        std::vector<std::string> vNames;
        while (const char* pcName = pReader->ReadName())
            vNames.emplace_back(pcName);
        return vNames;
    }

    const size_t m_iDescriptors = CountDescriptors();
    const CScratchFolder m_folder;
};

// Times of a path; nothing is set where the mark says so.
void SetTimes(const std::string& sPath, struct timespec access, struct timespec modification)
{
    const struct timespec times[] = {access, modification};
    ASSERT_EQ(utimensat(AT_FDCWD, sPath.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

constexpr struct timespec AS_IT_IS = {0, UTIME_OMIT};

}  // namespace

// Stands before the system's, to change one thing about a folder and nothing else.
extern "C" int stat(const char* pcPath, struct stat* pInfo) noexcept
{
    using Function = int (*)(const char*, struct stat*);
    const int iResult = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "stat"))(pcPath, pInfo);
    if (iResult == 0 && g_Falsify)
        g_Falsify(pInfo);
    return iResult;
}

TEST_F(FolderReader, YieldsEveryNameOnceAndTheDotNames)
{
    MakeFiles(m_folder.Path(), 500);
    CFolderReader reader(m_folder.Path().c_str());
    ASSERT_TRUE(reader.IsOpen());
    EXPECT_EQ(reader.GetPath(), m_folder.Path());
    std::vector<std::string> vNames = ReadAll(&reader);
    EXPECT_EQ(vNames.size(), 502U);
    std::vector<std::string> vExpected = ListNames(m_folder.Path());
    vExpected.insert(vExpected.end(), {".", ".."});
    std::sort(vNames.begin(), vNames.end());
    std::sort(vExpected.begin(), vExpected.end());
    EXPECT_EQ(vNames, vExpected);
    EXPECT_EQ(reader.ReadName(), nullptr);  // still
}

TEST_F(FolderReader, YieldsTheNamesInTheSystemsOrder)
{
    MakeFiles(m_folder.Path(), 100);
    CFolderReader reader(m_folder.Path().c_str());
    std::vector<std::string> vNames = ReadAll(&reader);
    std::erase_if(vNames, [](const std::string& sName) { return sName[0] == '.'; });
    EXPECT_EQ(vNames, ListNames(m_folder.Path()));
}

TEST_F(FolderReader, WhatIsNoDirectory_IsNotOpenAndTellsWhy)
{
    const std::string sFile = m_folder.Write("file", "x");
    for (const auto& [sPath, iError] :
         {std::pair{sFile, ENOTDIR}, {m_folder.Path("missing"), ENOENT}}) {
        errno = 0;
        const CFolderReader reader(sPath.c_str());
        EXPECT_EQ(errno, iError);
        EXPECT_FALSE(reader.IsOpen());
        EXPECT_FALSE(reader.IsReusable());
        EXPECT_EQ(reader.GetPath(), sPath);
    }
}

TEST_F(FolderReader, LivesAsLongAsItsDescriptor)
{
    {
        const CFolderReader reader(m_folder.Path().c_str());
        EXPECT_EQ(CountDescriptors(), m_iDescriptors + 1);
    }
    EXPECT_EQ(CountDescriptors(), m_iDescriptors);
}

// ---- At rest ----

TEST_F(FolderReader, JustChanged_IsNotAtRest)
{
    EXPECT_FALSE(CFolderReader(m_folder.Path().c_str()).IsReusable());
}

TEST_F(FolderReader, OldModificationAlone_IsNotAtRest)
{
    SetTimes(m_folder.Path(), AS_IT_IS, {1000000000, 0});
    EXPECT_FALSE(CFolderReader(m_folder.Path().c_str()).IsReusable());
}

TEST_F(FolderReader, OldChangeAlone_IsNotAtRest)
{
    const CClockAhead ahead;
    SetTimes(m_folder.Path(), AS_IT_IS, {time(nullptr), 0});
    EXPECT_FALSE(CFolderReader(m_folder.Path().c_str()).IsReusable());
}

TEST_F(FolderReader, BothTimesMoreThanTwoSecondsOld_IsAtRest)
{
    struct stat info = {};
    ASSERT_EQ(stat(m_folder.Path().c_str(), &info), 0);
    ASSERT_EQ(info.st_mtime, info.st_ctime);
    const auto IsAtRest = [&](time_t iAge) {
        g_iClockAhead = 0;
        // Tried again where a second passed meanwhile.
        for (;;) {
            const time_t iNow = time(nullptr);
            g_iClockAhead = info.st_mtime + iAge - iNow;
            const bool bAtRest = CFolderReader(m_folder.Path().c_str()).IsReusable();
            const bool bSameSecond = time(nullptr) == info.st_mtime + iAge;
            g_iClockAhead = 0;
            if (bSameSecond)
                return bAtRest;
        }
    };
    EXPECT_FALSE(IsAtRest(-1));
    EXPECT_FALSE(IsAtRest(0));
    EXPECT_FALSE(IsAtRest(2));
    EXPECT_TRUE(IsAtRest(3));
    EXPECT_TRUE(IsAtRest(1000000));
}

// Any change would take that time away.
TEST_F(FolderReader, ModificationSetIntoTheFuture_IsAtRest)
{
    const CClockAhead ahead;
    SetTimes(m_folder.Path(), AS_IT_IS, {time(nullptr) + 1000, 0});
    const CFolderReader reader(m_folder.Path().c_str());
    EXPECT_TRUE(reader.IsReusable());
    m_folder.Write("new", "");
    EXPECT_FALSE(reader.IsUnchanged());
}

TEST_F(FolderReader, AtRestIsWhatItWasWhenOpened)
{
    const CFolderReader early(m_folder.Path().c_str());
    const CClockAhead ahead;
    const CFolderReader late(m_folder.Path().c_str());
    EXPECT_FALSE(early.IsReusable());
    EXPECT_TRUE(late.IsReusable());
    g_iClockAhead = 0;
    EXPECT_TRUE(late.IsReusable());
}

// ---- Changes ----

TEST_F(FolderReader, Untouched_IsUnchanged)
{
    MakeFiles(m_folder.Path(), 20);
    CFolderReader reader(m_folder.Path().c_str());
    EXPECT_TRUE(reader.IsUnchanged());
    ReadAll(&reader);
    CFolderReader other(m_folder.Path().c_str());
    ReadAll(&other);
    EXPECT_TRUE(reader.IsUnchanged());
    m_folder.Write("0", "what a file holds is no matter of its folder");
    EXPECT_TRUE(reader.IsUnchanged());
}

TEST_F(FolderReader, EveryChange_IsSeen)
{
    const std::string sPath = m_folder.Path("folder");
    const std::string sInside = m_folder.Path("folder/inside");
    const std::pair<const char*, std::function<void()>> CHANGES[] = {
        {"create", [&] { m_folder.Write("folder/new", ""); }},
        {"remove", [&] { std::filesystem::remove(sInside); }},
        {"rename", [&] { std::filesystem::rename(sInside, sPath + "/other"); }},
        {"move out", [&] { std::filesystem::rename(sInside, m_folder.Path("outside")); }},
        {"move in", [&] { std::filesystem::rename(m_folder.Write("x", ""), sPath + "/x"); }},
        {"replace", [&] { std::filesystem::rename(m_folder.Write("x", ""), sInside); }},
        {"folder", [&] { std::filesystem::create_directory(sPath + "/new"); }},
        {"link", [&] { std::filesystem::create_symlink("nowhere", sPath + "/new"); }},
        {"hard link", [&] { std::filesystem::create_hard_link(sInside, sPath + "/new"); }},
        {"mode", [&] { EXPECT_EQ(chmod(sPath.c_str(), 0711), 0); }},
        {"own rename", [&] { std::filesystem::rename(sPath, m_folder.Path("aside")); }},
        {"own removal", [&] { std::filesystem::remove_all(sPath); }},
        {"mount", [&] { EXPECT_EQ(mount("tmpfs", sPath.c_str(), "tmpfs", 0, "size=64k"), 0); }},
    };
    for (const auto& [pcName, Change] : CHANGES) {
        std::filesystem::create_directory(sPath);
        m_folder.Write("folder/inside", "");
        {
            const CFolderReader reader(sPath.c_str());
            WaitForClockTick(sPath);
            EXPECT_TRUE(reader.IsUnchanged()) << pcName;
            Change();
            EXPECT_FALSE(reader.IsUnchanged()) << pcName;
        }
        umount2(sPath.c_str(), MNT_DETACH);
        for (const std::string& sLeft : ListNames(m_folder.Path()))
            std::filesystem::remove_all(m_folder.Path(sLeft));
    }
}

TEST_F(FolderReader, EverySign_CountsAlone)
{
    const std::pair<const char*, std::function<void(struct stat*)>> SIGNS[] = {
        {"device", [](struct stat* pInfo) { pInfo->st_dev++; }},
        {"inode", [](struct stat* pInfo) { pInfo->st_ino++; }},
        {"modified, seconds", [](struct stat* pInfo) { pInfo->st_mtim.tv_sec--; }},
        {"modified, nanoseconds", [](struct stat* pInfo) { pInfo->st_mtim.tv_nsec++; }},
        {"changed, seconds", [](struct stat* pInfo) { pInfo->st_ctim.tv_sec--; }},
        {"changed, nanoseconds", [](struct stat* pInfo) { pInfo->st_ctim.tv_nsec++; }},
    };
    const CFolderReader reader(m_folder.Path().c_str());
    for (const auto& [pcName, Falsify] : SIGNS) {
        g_Falsify = Falsify;
        EXPECT_FALSE(reader.IsUnchanged()) << pcName;
    }
    g_Falsify = [](struct stat* pInfo) { pInfo->st_atim.tv_sec++; };  // it was read
    EXPECT_TRUE(reader.IsUnchanged());
}

TEST_F(FolderReader, ModificationSetBack_IsSeenByTheTimeOfThatChange)
{
    const CFolderReader reader(m_folder.Path().c_str());
    struct stat info = {};
    ASSERT_EQ(stat(m_folder.Path().c_str(), &info), 0);
    WaitForClockTick(m_folder.Path());
    m_folder.Write("new", "");
    SetTimes(m_folder.Path(), AS_IT_IS, info.st_mtim);
    EXPECT_FALSE(reader.IsUnchanged());
}

TEST_F(FolderReader, AnotherOfTheSameName_IsNotTheSame)
{
    const std::string sPath = m_folder.Path("folder");
    std::filesystem::create_directory(sPath);
    const CFolderReader reader(sPath.c_str());
    std::filesystem::rename(sPath, m_folder.Path("old"));
    std::filesystem::create_directory(sPath);
    struct stat old = {};
    ASSERT_EQ(stat(m_folder.Path("old").c_str(), &old), 0);
    SetTimes(sPath, AS_IT_IS, old.st_mtim);
    EXPECT_FALSE(reader.IsUnchanged());
}
