#include "Utilities.h"

#include <chrono>
#include <dlfcn.h>
#include <optional>
#include <sys/statfs.h>
#include <sys/statvfs.h>

#include <gtest/gtest.h>

#include "TestEnvironment.h"

namespace {

constexpr unsigned long long ALL_BITS = 0xFFFFFFFFFFFFFFFFULL;
constexpr char NOWHERE[] = "/no/such/path";

// What the two system calls below answer for PRETENDED, while it is set.
constexpr char PRETENDED[] = "/pretended";
std::optional<struct statvfs> g_pretendedFileSystem;
std::optional<unsigned long> g_iPretendedType;

class UtilitiesFileSystem : public testing::Test {
protected:
    ~UtilitiesFileSystem() override
    {
        g_pretendedFileSystem.reset();
        g_iPretendedType.reset();
    }

    unsigned long long GetMaxFileSizeOfType(unsigned long iType)
    {
        g_iPretendedType = iType;
        return m_utilities.GetMaxFileSize(PRETENDED);
    }

    const CScratchFolder m_folder;
    CUtilities m_utilities;
};

}  // namespace

// These two stand before the system's, to show file systems that no test machine has.
extern "C" int statvfs(const char* pcPath, struct statvfs* pInfo) noexcept
{
    if (g_pretendedFileSystem && std::string(pcPath) == PRETENDED) {
        *pInfo = *g_pretendedFileSystem;
        return 0;
    }
    using Function = int (*)(const char*, struct statvfs*);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "statvfs"))(pcPath, pInfo);
}

extern "C" int statfs(const char* pcPath, struct statfs* pInfo) noexcept
{
    if (g_iPretendedType && std::string(pcPath) == PRETENDED) {
        pInfo->f_type = static_cast<decltype(pInfo->f_type)>(*g_iPretendedType);
        return 0;
    }
    using Function = int (*)(const char*, struct statfs*);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "statfs"))(pcPath, pInfo);
}

TEST_F(UtilitiesFileSystem, SpaceAndSlots_AreThoseOfTheFileSystem)
{
    struct statvfs info = {};
    info.f_bsize = 1000000;  // the fragment size counts, not this
    info.f_frsize = 4096;
    info.f_blocks = 0x1000000000;  // products beyond 32 bits
    info.f_bfree = 0x200000000;
    info.f_bavail = 0x100000000;
    info.f_files = 5000000000;
    info.f_ffree = 4000000000;
    info.f_favail = 3;  // not asked for
    info.f_fsid = 0x1234567890ABCDEF;
    g_pretendedFileSystem = info;
    EXPECT_EQ(m_utilities.GetTotalDiskSpace(PRETENDED), 0x1000000000000ULL);
    EXPECT_EQ(m_utilities.GetFreeDiskSpace(PRETENDED), 0x200000000000ULL);
    EXPECT_EQ(m_utilities.GetFreeDiskSpaceAvailableToCaller(PRETENDED), 0x100000000000ULL);
    EXPECT_EQ(m_utilities.GetTotalFileSlots(PRETENDED), 5000000000ULL);
    EXPECT_EQ(m_utilities.GetFreeFileSlots(PRETENDED), 4000000000ULL);
    EXPECT_EQ(m_utilities.GetFreeFileSlotsAvailableToCaller(PRETENDED), 4000000000ULL);
    EXPECT_EQ(m_utilities.GetFileSystemID(PRETENDED), 0x1234567890ABCDEFULL);
}

TEST_F(UtilitiesFileSystem, RealFileSystem_IsAskedForThePath)
{
    struct statvfs info = {};
    ASSERT_EQ(statvfs(m_folder.Path().c_str(), &info), 0);
    const char* pcPath = m_folder.Path().c_str();
    EXPECT_EQ(m_utilities.GetTotalDiskSpace(pcPath), info.f_frsize * info.f_blocks);
    EXPECT_EQ(m_utilities.GetTotalFileSlots(pcPath), info.f_files);
    EXPECT_EQ(m_utilities.GetFileSystemID(pcPath), info.f_fsid);
}

TEST_F(UtilitiesFileSystem, MissingPath_HasAllBitsSetAndFileSystemFour)
{
    EXPECT_EQ(m_utilities.GetTotalDiskSpace(NOWHERE), ALL_BITS);
    EXPECT_EQ(m_utilities.GetFreeDiskSpace(NOWHERE), ALL_BITS);
    EXPECT_EQ(m_utilities.GetFreeDiskSpaceAvailableToCaller(NOWHERE), ALL_BITS);
    EXPECT_EQ(m_utilities.GetTotalFileSlots(NOWHERE), ALL_BITS);
    EXPECT_EQ(m_utilities.GetFreeFileSlots(NOWHERE), ALL_BITS);
    EXPECT_EQ(m_utilities.GetFreeFileSlotsAvailableToCaller(NOWHERE), ALL_BITS);
    EXPECT_EQ(m_utilities.GetFileSystemID(NOWHERE), 4U);
}

TEST_F(UtilitiesFileSystem, GetMaxFileSize_DependsOnTheType)
{
    EXPECT_EQ(GetMaxFileSizeOfType(0x52654973), 1ULL << 43);
    EXPECT_EQ(GetMaxFileSizeOfType(0x4D44), 1ULL << 32);
    EXPECT_EQ(GetMaxFileSizeOfType(0xEF53), 1ULL << 41);
    EXPECT_EQ(GetMaxFileSizeOfType(0x58465342), 2199023255552ULL);
    EXPECT_EQ(GetMaxFileSizeOfType(0), 1ULL << 41);
}

TEST_F(UtilitiesFileSystem, GetMaxFileSize_OtherTypeOrMissingPath_Is2To41)
{
    EXPECT_EQ(m_utilities.GetMaxFileSize(m_folder.Path().c_str()), 2199023255552ULL);  // a tmpfs
    EXPECT_EQ(m_utilities.GetMaxFileSize(NOWHERE), 2199023255552ULL);
}

TEST_F(UtilitiesFileSystem, SystemTime_IsTheWallClockInMilliseconds)
{
    const auto GetNow = [] {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        return static_cast<unsigned long long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
    };
    const unsigned long long iBefore = GetNow();
    const unsigned long long iTime = m_utilities.GetCurrentSystemTimeInMilliseconds();
    EXPECT_LE(iBefore, iTime);
    EXPECT_LE(iTime, GetNow());
}
