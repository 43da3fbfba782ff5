#include "Utilities.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "UtilitiesFixture.h"

namespace {

// Called in the middle of each resolution of a path, while it is set.
std::function<void()> g_DuringResolution;

constexpr unsigned int HANDLE_SIZE = 56;  // bytes of a handle on the wire

class UtilitiesFileTable : public CUtilitiesFixture {
protected:
    // The first iLength bytes of a buffer that was not zero, and that one byte more was left alone.
    std::string MakeHandle(const char* pcPath, unsigned int iLength, bool bExpected)
    {
        std::string sBuffer(iLength + 1, '\x55');
        EXPECT_EQ(m_utilities.GetFileHandle(&m_param, &m_argu, pcPath, sBuffer.data(), iLength),
                  bExpected);
        EXPECT_EQ(sBuffer[iLength], '\x55');
        return sBuffer.substr(0, iLength);
    }
};

std::string GetBytes(unsigned int iID)
{
    std::string sBytes(sizeof(iID), '\0');
    memcpy(sBytes.data(), &iID, sizeof(iID));
    return sBytes;
}

}  // namespace

// Stands before the system's, to look around while a path is being resolved.
extern "C" char* realpath(const char* pcPath, char* pcResolved) noexcept
{
    if (g_DuringResolution)
        g_DuringResolution();
    const std::unique_ptr<char, decltype(&free)> name(canonicalize_file_name(pcPath), &free);
    if (name == nullptr)
        return nullptr;
    return pcResolved == nullptr ? strdup(name.get()) : strcpy(pcResolved, name.get());
}

TEST_F(UtilitiesFileTable, GetFileID_SameFileInOtherWords_IsOneNumber)
{
    const std::string sFile = m_folder.Write("file", "");
    std::filesystem::create_symlink("file", m_folder.Path("link"));
    EXPECT_EQ(GetID(sFile), 0U);
    EXPECT_EQ(GetID(m_folder.Path("link")), 0U);
    EXPECT_EQ(GetID(m_folder.Path() + "/./file"), 0U);
    EXPECT_EQ(GetID(m_folder.Path()), 1U);
    EXPECT_EQ(GetPath(0), sFile);
}

TEST_F(UtilitiesFileTable, GetFileID_MissingFile_GetsANumberForThePathAsItIs)
{
    EXPECT_EQ(GetID("/no/such//file"), 0U);
    EXPECT_EQ(GetPath(0), "/no/such//file");
}

TEST_F(UtilitiesFileTable, GetFileID_NullPath_HasNone)
{
    EXPECT_EQ(m_utilities.GetFileID(&m_param, &m_argu, nullptr), 0xFFFFFFFF);
}

// A slow folder holds up nobody who asks for other files.
TEST_F(UtilitiesFileTable, GetFileID_ResolvesThePathWithoutTheTable)
{
    std::future<bool> other;  // outlives the resolution that it might wait for
    bool bUnhindered = false;
    GetID("/known");
    g_DuringResolution = [&] {
        other = std::async(std::launch::async, [this] {
            const unsigned int iHandle = 0;
            return m_utilities.GetFilePath(&m_param, &iHandle, nullptr, 0);
        });
        bUnhindered = other.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    };
    const unsigned int iID = GetID(m_folder.Path());
    g_DuringResolution = nullptr;
    EXPECT_EQ(iID, 1U);
    EXPECT_TRUE(bUnhindered);
    EXPECT_TRUE(other.get());
}

TEST_F(UtilitiesFileTable, GetFileHandle_IsTheNumberAndZeros)
{
    EXPECT_EQ(GetID("/first"), 0U);
    EXPECT_EQ(MakeHandle("/second", HANDLE_SIZE, true), GetBytes(1) + std::string(52, '\0'));
    EXPECT_EQ(MakeHandle("/second", 88, true), GetBytes(1) + std::string(84, '\0'));
    EXPECT_EQ(MakeHandle("/second", 5, true), GetBytes(1) + std::string(1, '\0'));
    EXPECT_EQ(MakeHandle("/first", HANDLE_SIZE, true), std::string(HANDLE_SIZE, '\0'));
}

TEST_F(UtilitiesFileTable, GetFileHandle_FourBytesOrLess_FailsWithAZeroedBuffer)
{
    EXPECT_EQ(MakeHandle("/a", 4, false), std::string(4, '\0'));
    EXPECT_EQ(MakeHandle("/a", 3, false), std::string(3, '\0'));
    EXPECT_EQ(MakeHandle("/a", 0, false), "");
    EXPECT_EQ(GetPath(0), "(none)");  // and gives no number away
}

TEST_F(UtilitiesFileTable, GetFileHandle_NullBufferOrPath_Fails)
{
    EXPECT_FALSE(m_utilities.GetFileHandle(&m_param, &m_argu, "/a", nullptr, HANDLE_SIZE));
    EXPECT_EQ(MakeHandle(nullptr, HANDLE_SIZE, false),
              GetBytes(0xFFFFFFFF) + std::string(52, '\0'));
}

TEST_F(UtilitiesFileTable, GetFilePath_KnownHandle_IsItsPath)
{
    const std::string sHandle = MakeHandle("/some/path", HANDLE_SIZE, true);
    char cPath[PATH_SIZE];
    EXPECT_TRUE(m_utilities.GetFilePath(&m_param, sHandle.data(), cPath, sizeof(cPath)));
    EXPECT_STREQ(cPath, "/some/path");
    EXPECT_TRUE(m_utilities.GetFilePath(&m_param, sHandle.data(), cPath, strlen(cPath) + 1));
    EXPECT_FALSE(m_utilities.GetFilePath(&m_param, sHandle.data(), cPath, strlen(cPath)));
    EXPECT_TRUE(m_utilities.GetFilePath(&m_param, sHandle.data(), nullptr, 0));
}

TEST_F(UtilitiesFileTable, GetFilePath_InvalidUnknownOrNullHandle_Fails)
{
    EXPECT_EQ(GetID("/a"), 0U);
    char cPath[PATH_SIZE] = "before";
    for (const unsigned int iID : {0xFFFFFFFFU, 1U, 0x400U, 0x80000000U})
        EXPECT_FALSE(m_utilities.GetFilePath(&m_param, &iID, cPath, sizeof(cPath))) << iID;
    EXPECT_FALSE(m_utilities.GetFilePath(&m_param, nullptr, cPath, sizeof(cPath)));
    EXPECT_STREQ(cPath, "before");
}

TEST_F(UtilitiesFileTable, ResetFileTable_MakesHandlesStaleAndStartsAgainAtZero)
{
    GetID("/a");
    GetID("/b");
    m_utilities.ResetFileTable();
    EXPECT_EQ(GetPath(0), "(none)");
    EXPECT_EQ(GetPath(1), "(none)");
    EXPECT_EQ(GetID("/c"), 0U);
}

TEST_F(UtilitiesFileTable, RemovingTheOnlyExport_MakesHandlesStale)
{
    ASSERT_EQ(Add("/a", "vm1"), "");
    const unsigned int iID = GetID("/a/x");
    m_utilities.RemoveMountInfoByExportName("vm1");
    EXPECT_EQ(GetPath(iID), "(none)");
    EXPECT_EQ(GetID("/b/y"), 0U);
}

TEST_F(UtilitiesFileTable, CanonicalisationLines_ComeWithGeneralInfo)
{
    m_param.SetLogControl(LOG_CONTROL_GENERAL_INFO);
    GetID("/no/such/file");
    EXPECT_EQ(m_recorder.Lines(),
              Lines{"info|host|[Test] Fail to get canonical path from non-exist path: "
                    "/no/such/file"});
}

// Several threads ask for the same paths: each path has one number, each number one path.
TEST_F(UtilitiesFileTable, ManyThreads_AgreeOnTheNumbers)
{
    constexpr int PATHS = 1500;
    std::vector<std::vector<unsigned int>> vvIDs(3, std::vector<unsigned int>(PATHS));
    std::vector<std::thread> vThreads;
    for (std::vector<unsigned int>& vIDs : vvIDs)
        vThreads.emplace_back([this, &vIDs] {
            CRuntimeParam param("", 0);
            LogArgu argu = {"Test"};
            for (size_t i = 0; i < vIDs.size(); i++)
                vIDs[i] = m_utilities.GetFileID(&param, &argu, ("/p" + std::to_string(i)).c_str());
        });
    for (std::thread& thread : vThreads)
        thread.join();
    EXPECT_EQ(vvIDs[0], vvIDs[1]);
    EXPECT_EQ(vvIDs[0], vvIDs[2]);
    EXPECT_EQ(std::set<unsigned int>(vvIDs[0].begin(), vvIDs[0].end()).size(), size_t{PATHS});
    EXPECT_EQ(GetPath(PATHS), "(none)");
}
