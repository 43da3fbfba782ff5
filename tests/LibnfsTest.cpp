// The server as a client library meets it that nobody here wrote.
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <nfsc/libnfs.h>

#include <gtest/gtest.h>

#include "Digest.h"
#include "NfsMain.h"
#include "Rpcbind.h"
#include "Sanitizers.h"
#include "TestEnvironment.h"
#include "Text.h"
#include "WireClient.h"

namespace {

constexpr size_t CHUNK_SIZE = 0x10000;
constexpr size_t BIG_SIZE = IS_SANITIZED ? 0x1000000 : 0x10000000;  // 16 or 256 MiB

constexpr uint32_t PROC_UMNT = 3;

// Bytes without a pattern that a shifted or repeated piece could hide in; each seed has its own.
class CNoise {
public:
    explicit CNoise(uint64_t iSeed) : m_iState(iSeed) {}

    const char* NextChunk()
    {
        for (uint64_t& iWord : m_vWords) {
            m_iState ^= m_iState << 13;
            m_iState ^= m_iState >> 7;
            m_iState ^= m_iState << 17;
            iWord = m_iState;
        }
        return reinterpret_cast<const char*>(m_vWords.data());
    }

private:
    uint64_t m_iState;
    std::array<uint64_t, CHUNK_SIZE / sizeof(uint64_t)> m_vWords = {};
};

// The library asks for all exports of a server behind each mount, to find those inside of the
// mounted one, and gives up where the server has no such list.
constexpr char NO_EXPORT_LIST[] = "auto-traverse-mounts=0";

// It also pings the port mapper first, and ours refuses that. So it is told the ports, as an
// administrator would tell it.
constexpr char GIVEN_PORTS[] = "auto-traverse-mounts=0&mountport=1058&nfsport=2049";

// One user of the client library. Settings go in as the arguments of a URL.
class CNfsClient {
public:
    explicit CNfsClient(const std::string& sSettings = GIVEN_PORTS) : m_pNfs(nfs_init_context())
    {
        const std::string sUrl = "nfs://127.0.0.1/?" + sSettings;
        nfs_url* pUrl = nfs_parse_url_incomplete(m_pNfs, sUrl.c_str());
        EXPECT_NE(pUrl, nullptr) << Error();
        nfs_destroy_url(pUrl);
        EXPECT_EQ(nfs_set_version(m_pNfs, 3), 0);
        nfs_set_autoreconnect(m_pNfs, 0);
    }
    ~CNfsClient() { nfs_destroy_context(m_pNfs); }
    CNfsClient(const CNfsClient&) = delete;
    CNfsClient& operator=(const CNfsClient&) = delete;

    bool Mount(const char* pcExport) { return nfs_mount(m_pNfs, "127.0.0.1", pcExport) == 0; }

    nfs_context* Get() const { return m_pNfs; }
    const char* Error() const { return nfs_get_error(m_pNfs); }

private:
    nfs_context* m_pNfs;
};

// One opened file of such a user.
class CNfsFile {
public:
    CNfsFile(const CNfsClient& client, const char* pcPath, int iFlags) : m_pNfs(client.Get())
    {
        EXPECT_EQ(nfs_open(m_pNfs, pcPath, iFlags, &m_pFile), 0) << client.Error();
    }
    ~CNfsFile() { Close(); }
    CNfsFile(const CNfsFile&) = delete;
    CNfsFile& operator=(const CNfsFile&) = delete;

    int Read(uint64_t iOffset, void* pBuffer, size_t iLength)
    {
        return nfs_pread(m_pNfs, m_pFile, iOffset, iLength, pBuffer);
    }
    int Write(uint64_t iOffset, const void* pData, size_t iLength)
    {
        return nfs_pwrite(m_pNfs, m_pFile, iOffset, iLength, pData);
    }
    bool IsOpen() const { return m_pFile != nullptr; }

    // The library's result. It commits a file that was written to, and so passes on that the server
    // refuses this: there is nothing to commit, for each write is in the file when it is answered.
    int Close()
    {
        nfsfh* pFile = std::exchange(m_pFile, nullptr);
        return pFile == nullptr ? 0 : nfs_close(m_pNfs, pFile);
    }

private:
    nfs_context* m_pNfs;
    nfsfh* m_pFile = nullptr;
};

// A server that publishes a folder as "vm1", and a client.
class Libnfs : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_main.Initial(m_cReason)) << m_cReason;
        Start();
    }

    void Start()
    {
        ASSERT_TRUE(m_main.StartServer(0, 0, 0, 0, false, m_cReason)) << m_cReason;
        ASSERT_TRUE(m_main.AddMountPoint(m_folder.Path().c_str(), "vm1", m_cReason)) << m_cReason;
    }

    // Without a mount every other operation of the library would wait for ever.
    testing::AssertionResult Mount()
    {
        if (m_client.Mount("vm1"))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << m_client.Error();
    }

    CScratchFolder m_folder;
    CNfsMain m_main{"host", 0};
    CNfsClient m_client;
    char m_cReason[REASON_SIZE] = "";
};

}  // namespace

TEST_F(Libnfs, Mount_UnknownName_IsRefused)
{
    EXPECT_FALSE(m_client.Mount("vm2"));
    EXPECT_EQ(m_main.GetMountInfo(true, false), 0);
}

TEST_F(Libnfs, Mount_BareName_BindsTheExport)
{
    ASSERT_TRUE(Mount());
    EXPECT_EQ(m_main.GetMountInfo(true, false), 1);
}

TEST_F(Libnfs, Mount_BesideAPortMapper_FindsTheServerThere)
{
    m_main.StopServer();
    const CRpcbind rpcbind;
    Start();
    m_folder.Write("file", "data");
    CNfsClient client(NO_EXPORT_LIST);
    ASSERT_TRUE(client.Mount("vm1")) << client.Error();
    struct nfs_stat_64 info;
    EXPECT_EQ(nfs_stat64(client.Get(), "/file", &info), 0) << client.Error();
    EXPECT_EQ(info.nfs_size, 4U);
    m_main.StopServer();  // while its port mapper is still there
}

TEST_F(Libnfs, Stat_OfFileAndFolder_IsWhatTheServerSees)
{
    const std::string sFile = m_folder.Write("file", "twelve bytes");
    std::filesystem::create_directory(m_folder.Path("folder"));
    ASSERT_EQ(chmod(sFile.c_str(), 0640), 0);
    ASSERT_EQ(chown(sFile.c_str(), 1234, 2345), 0);
    const struct timespec times[] = {{1000000000, 0}, {1100000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, sFile.c_str(), times, 0), 0);
    struct stat local;
    ASSERT_EQ(stat(sFile.c_str(), &local), 0);

    ASSERT_TRUE(Mount());
    struct nfs_stat_64 info = {};
    ASSERT_EQ(nfs_stat64(m_client.Get(), "/file", &info), 0) << m_client.Error();
    EXPECT_EQ(info.nfs_mode, local.st_mode);
    EXPECT_EQ(info.nfs_size, 12U);
    EXPECT_EQ(info.nfs_uid, 1234U);
    EXPECT_EQ(info.nfs_gid, 2345U);
    EXPECT_EQ(info.nfs_nlink, 1U);
    EXPECT_EQ(info.nfs_ino, local.st_ino);
    EXPECT_EQ(info.nfs_atime, 1000000000U);
    EXPECT_EQ(info.nfs_mtime, 1100000000U);
    ASSERT_EQ(nfs_stat64(m_client.Get(), "/folder", &info), 0) << m_client.Error();
    EXPECT_TRUE(S_ISDIR(info.nfs_mode));
    EXPECT_NE(nfs_stat64(m_client.Get(), "/nothing", &info), 0);
}

TEST_F(Libnfs, Statvfs_IsWhatTheServerSees)
{
    struct statvfs local;
    ASSERT_EQ(statvfs(m_folder.Path().c_str(), &local), 0);
    ASSERT_TRUE(Mount());
    struct statvfs info = {};
    ASSERT_EQ(nfs_statvfs(m_client.Get(), "/", &info), 0) << m_client.Error();
    EXPECT_EQ(info.f_blocks * info.f_frsize, local.f_blocks * local.f_frsize);
    EXPECT_EQ(info.f_files, local.f_files);
}

TEST_F(Libnfs, Access_OfAFile_IsGranted)
{
    m_folder.Write("file", "data");
    ASSERT_TRUE(Mount());
    EXPECT_EQ(nfs_access(m_client.Get(), "/file", R_OK | W_OK), 0) << m_client.Error();
}

TEST_F(Libnfs, Read_InSubfolder_StopsAtTheEndOfTheFile)
{
    std::filesystem::create_directory(m_folder.Path("folder"));
    m_folder.Write("folder/file", "0123456789");
    ASSERT_TRUE(Mount());
    CNfsFile file(m_client, "/folder/file", O_RDONLY);
    ASSERT_TRUE(file.IsOpen());
    char cBuffer[100] = "";
    EXPECT_EQ(file.Read(4, cBuffer, 3), 3);
    EXPECT_STREQ(cBuffer, "456");
    EXPECT_EQ(file.Read(4, cBuffer, sizeof(cBuffer)), 6);
    EXPECT_EQ(file.Read(10, cBuffer, sizeof(cBuffer)), 0);
    EXPECT_EQ(file.Close(), 0) << m_client.Error();
}

TEST_F(Libnfs, Write_BehindTheEnd_IsInTheFileAtOnce)
{
    const std::string sFile = m_folder.Write("file", "ab");
    ASSERT_TRUE(Mount());
    CNfsFile file(m_client, "/file", O_RDWR);
    ASSERT_TRUE(file.IsOpen());
    EXPECT_EQ(file.Write(4, "ef", 2), 2);
    EXPECT_EQ(ReadWholeFile(sFile), std::string("ab\0\0ef", 6));
    EXPECT_EQ(file.Close(), -EIO);
    EXPECT_EQ(ReadWholeFile(sFile), std::string("ab\0\0ef", 6));
}

TEST_F(Libnfs, Truncate_ChangesTheSizeBothWays)
{
    const std::string sFile = m_folder.Write("file", "0123456789");
    ASSERT_TRUE(Mount());
    EXPECT_EQ(nfs_truncate(m_client.Get(), "/file", 4), 0) << m_client.Error();
    EXPECT_EQ(ReadWholeFile(sFile), "0123");
    EXPECT_EQ(nfs_truncate(m_client.Get(), "/file", 6), 0) << m_client.Error();
    EXPECT_EQ(ReadWholeFile(sFile), std::string("0123\0\0", 6));
}

TEST_F(Libnfs, Chmod_ChangesTheMode)
{
    const std::string sFile = m_folder.Write("file", "data");
    ASSERT_TRUE(Mount());
    EXPECT_EQ(nfs_chmod(m_client.Get(), "/file", 0604), 0) << m_client.Error();
    struct stat info;
    ASSERT_EQ(stat(sFile.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0604U);
}

TEST_F(Libnfs, BigFile_FromTheServer_ArrivesUnchanged)
{
    CDigest written;
    {
        std::ofstream out(m_folder.Path("disk"), std::ios::binary);
        CNoise noise(1);
        for (size_t i = 0; i < BIG_SIZE; i += CHUNK_SIZE) {
            const char* pcChunk = noise.NextChunk();
            written.Add(pcChunk, CHUNK_SIZE);
            out.write(pcChunk, CHUNK_SIZE);
        }
    }
    ASSERT_TRUE(Mount());
    CNfsFile file(m_client, "/disk", O_RDONLY);
    ASSERT_TRUE(file.IsOpen());
    CDigest read;
    std::vector<char> vBuffer(nfs_get_readmax(m_client.Get()));
    uint64_t iOffset = 0;
    int iRead = 0;
    while ((iRead = file.Read(iOffset, vBuffer.data(), vBuffer.size())) > 0) {
        read.Add(vBuffer.data(), static_cast<size_t>(iRead));
        iOffset += static_cast<uint64_t>(iRead);
    }
    EXPECT_EQ(iRead, 0) << m_client.Error();
    EXPECT_EQ(iOffset, BIG_SIZE);
    EXPECT_EQ(read.Get(), written.Get());
}

TEST_F(Libnfs, BigFile_FromTheClient_ArrivesUnchanged)
{
    const std::string sFile = m_folder.Write("disk", "");
    ASSERT_TRUE(Mount());
    CDigest written;
    {
        CNfsFile file(m_client, "/disk", O_RDWR);
        ASSERT_TRUE(file.IsOpen());
        CNoise noise(2);
        for (size_t i = 0; i < BIG_SIZE; i += CHUNK_SIZE) {
            const char* pcChunk = noise.NextChunk();
            written.Add(pcChunk, CHUNK_SIZE);
            ASSERT_EQ(file.Write(i, pcChunk, CHUNK_SIZE), static_cast<int>(CHUNK_SIZE))
                << m_client.Error();
        }
    }
    EXPECT_EQ(std::filesystem::file_size(sFile), BIG_SIZE);
    EXPECT_EQ(DigestOfFile(sFile), written.Get());
}

TEST_F(Libnfs, SecondMount_IsRefusedUntilTheFirstIsUnmounted)
{
    ASSERT_TRUE(Mount());
    CNfsClient second;
    EXPECT_FALSE(second.Mount("vm1"));
    EXPECT_EQ(m_main.GetMountInfo(true, false), 1);

    EXPECT_EQ(nfs_umount(m_client.Get()), 0) << m_client.Error();
    EXPECT_EQ(m_main.GetMountInfo(true, false), 0);
    CNfsClient third;
    EXPECT_TRUE(third.Mount("vm1")) << third.Error();
}

TEST_F(Libnfs, SecondMount_AfterAClientThatLeftWithoutUnmounting_IsRefused)
{
    {
        CNfsClient client;
        ASSERT_TRUE(client.Mount("vm1")) << client.Error();
    }
    EXPECT_FALSE(m_client.Mount("vm1"));

    RpcCall umount;
    umount.iProg = WIRE_MOUNT_PROG;
    umount.iVers = 3;
    umount.iProc = PROC_UMNT;
    umount.sArguments = CXdr().String("vm1").Bytes();
    EXPECT_TRUE(CallOnce(WIRE_MOUNT_PORT, umount).IsSuccess(umount.iXid));
    CNfsClient again;
    EXPECT_TRUE(again.Mount("vm1")) << again.Error();
}

TEST_F(Libnfs, TwoExports_AreMountedSideBySide)
{
    CScratchFolder other;
    other.Write("file", "other");
    m_folder.Write("file", "first");
    ASSERT_TRUE(m_main.AddMountPoint(other.Path().c_str(), "vm2", m_cReason)) << m_cReason;
    ASSERT_TRUE(Mount());
    CNfsClient second;
    ASSERT_TRUE(second.Mount("vm2")) << second.Error();
    char cBuffer[6] = "";
    EXPECT_EQ(CNfsFile(m_client, "/file", O_RDONLY).Read(0, cBuffer, 5), 5);
    EXPECT_STREQ(cBuffer, "first");
    EXPECT_EQ(CNfsFile(second, "/file", O_RDONLY).Read(0, cBuffer, 5), 5);
    EXPECT_STREQ(cBuffer, "other");
}
