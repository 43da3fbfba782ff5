// What tests of the procedures that make, remove and rename names share: their arguments, and short
// calls for them over the wire.
#pragma once

#include <string>

#include <sys/mount.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "Nfs3Fixture.h"

constexpr uint32_t GETATTR = 1;
constexpr uint32_t SETATTR = 2;
constexpr uint32_t LOOKUP = 3;
constexpr uint32_t READ = 6;
constexpr uint32_t WRITE = 7;
constexpr uint32_t CREATE = 8;
constexpr uint32_t MKDIR = 9;
constexpr uint32_t SYMLINK = 10;
constexpr uint32_t MKNOD = 11;
constexpr uint32_t REMOVE = 12;
constexpr uint32_t RMDIR = 13;
constexpr uint32_t RENAME = 14;
constexpr uint32_t LINK = 15;

// sattr3 values. SATTR_ALL has every value in it.
const std::string SATTR_NONE = Words({0, 0, 0, 0, 0, 0});
const std::string SATTR_ALL = Words({1, 0640, 1, 1, 1, 1, 1, 0, 3, 2, 4, 5, 2, 6, 7});

inline std::string SattrMode(uint32_t iMode)
{
    return Words({1, iMode, 0, 0, 0, 0, 0});
}

inline std::string SattrSize(uint64_t iSize)
{
    return CXdr().Raw(Words({0, 0, 0, 1})).Hyper(iSize).Raw(Words({0, 0})).Bytes();
}

// createhow3 values.
inline std::string Unchecked(const std::string& sAttributes = SATTR_NONE)
{
    return Words({0}) + sAttributes;
}

inline std::string Guarded(const std::string& sAttributes = SATTR_NONE)
{
    return Words({1}) + sAttributes;
}

const std::string EXCLUSIVELY = Words({2, 0x12345678, 0x9ABCDEF0});

// A reply without results: the status, and one directory's two halves, both absent.
inline std::string Status(uint32_t iStatus)
{
    return Words({iStatus, 0, 0});
}

// The same for RENAME, which tells of two directories.
inline std::string RenameStatus(uint32_t iStatus)
{
    return Words({iStatus, 0, 0, 0, 0});
}

inline std::string DirOpArgs(const std::string& sDirectory, const std::string& sName)
{
    return CXdr().Opaque(sDirectory).String(sName).Bytes();
}

// What CREATE and MKDIR answer for what they made at sPath under the handle sHandle.
inline std::string MadeReply(const std::string& sHandle, const std::string& sPath)
{
    return CXdr()
        .Word(0)
        .Word(1)
        .Opaque(sHandle)
        .Word(1)
        .Raw(AttributesOf(sPath))
        .Raw(Words({0, 0}))
        .Bytes();
}

// A small file system in a folder of its own, gone with the object.
class CMountedFolder {
public:
    explicit CMountedFolder(const std::string& sPath, const char* pcOptions = "size=64k")
        : m_sPath(sPath), m_sOptions(pcOptions)
    {
        std::filesystem::create_directory(m_sPath);
        EXPECT_EQ(mount("tmpfs", m_sPath.c_str(), "tmpfs", 0, pcOptions), 0);
    }
    ~CMountedFolder() { umount2(m_sPath.c_str(), MNT_DETACH); }
    CMountedFolder(const CMountedFolder&) = delete;
    CMountedFolder& operator=(const CMountedFolder&) = delete;

    // Nothing on it can be changed any more.
    void Freeze() const
    {
        EXPECT_EQ(
            mount("tmpfs", m_sPath.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, m_sOptions.c_str()),
            0);
    }

private:
    std::string m_sPath;
    std::string m_sOptions;
};

// A server whose export is mounted; handles are given without their length, m_sRoot is the root's.
class CNamespaceFixture : public CNfs3WireFixture {
protected:
    std::string Create(const std::string& sDirectory, const std::string& sName,
                       const std::string& sHow = Unchecked())
    {
        return Results(CREATE, DirOpArgs(sDirectory, sName) + sHow);
    }

    std::string Mkdir(const std::string& sDirectory, const std::string& sName,
                      const std::string& sAttributes = SATTR_NONE)
    {
        return Results(MKDIR, DirOpArgs(sDirectory, sName) + sAttributes);
    }

    std::string Remove(const std::string& sDirectory, const std::string& sName)
    {
        return Results(REMOVE, DirOpArgs(sDirectory, sName));
    }

    std::string Rmdir(const std::string& sDirectory, const std::string& sName)
    {
        return Results(RMDIR, DirOpArgs(sDirectory, sName));
    }

    std::string Rename(const std::string& sFromDirectory, const std::string& sFrom,
                       const std::string& sToDirectory, const std::string& sTo)
    {
        return Results(RENAME, DirOpArgs(sFromDirectory, sFrom) + DirOpArgs(sToDirectory, sTo));
    }

    // Both names in the root.
    std::string Rename(const std::string& sFrom, const std::string& sTo)
    {
        return Rename(m_sRoot, sFrom, m_sRoot, sTo);
    }

    // The bytes of a short file, or "(status n)".
    std::string Read(const std::string& sHandle)
    {
        CReply reply = Call(READ, CXdr().Opaque(sHandle).Hyper(0).Word(65536).Bytes());
        const uint32_t iStatus = reply.Word();
        if (iStatus != 0)
            return "(status " + std::to_string(iStatus) + ")";
        for (int i = 0; i < 3; i++)
            reply.Word();  // no attributes, count, end of file
        return reply.Opaque();
    }

    // The status of a WRITE at the start of a file.
    uint32_t Write(const std::string& sHandle, const std::string& sData)
    {
        const auto iLength = static_cast<uint32_t>(sData.size());
        return Call(WRITE,
                    CXdr().Opaque(sHandle).Hyper(0).Word(iLength).Word(2).Opaque(sData).Bytes())
            .Word();
    }

    // Holds the reply of CREATE or MKDIR against the entry of the root that it tells of.
    void ExpectMade(const std::string& sReply, const std::string& sName)
    {
        EXPECT_EQ(ToHex(sReply), ToHex(MadeReply(Lookup(m_sRoot, sName), m_Folder.Path(sName))));
    }

    // The status of a LOOKUP.
    uint32_t LookupStatus(const std::string& sDirectory, const std::string& sName)
    {
        return Call(LOOKUP, DirOpArgs(sDirectory, sName)).Word();
    }

    // GETATTR's reply.
    std::string Getattr(const std::string& sHandle)
    {
        return Results(GETATTR, CXdr().Opaque(sHandle).Bytes());
    }

    // The descriptors of files and folders that the server holds; those of connections come and go
    // in their own time.
    static size_t CountOpenFiles()
    {
        size_t iCount = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code error;  // it may be closed by now
            const std::string sPath = std::filesystem::read_symlink(entry.path(), error);
            iCount += sPath.starts_with(GetScratchRoot());
        }
        return iCount;
    }

    // The same without those that are kept for further calls.
    size_t CountLeftOpen()
    {
        m_pMain->CloseAllCachedFileHandles("/");
        return CountOpenFiles();
    }

    std::string MakeFolder(const std::string& sName) const
    {
        std::filesystem::create_directories(m_Folder.Path(sName));
        return m_Folder.Path(sName);
    }

    bool Exists(const std::string& sName) const
    {
        return std::filesystem::exists(std::filesystem::symlink_status(m_Folder.Path(sName)));
    }

    std::string Contents(const std::string& sName) const
    {
        return ReadWholeFile(m_Folder.Path(sName));
    }

    mode_t GetMode(const std::string& sName) const
    {
        struct stat info = {};
        EXPECT_EQ(lstat(m_Folder.Path(sName).c_str(), &info), 0) << sName;
        return info.st_mode & 07777;
    }
};

// The same with a server that refuses changes.
class CReadOnlyNamespaceFixture : public CNamespaceFixture {
protected:
    void SetUp() override { StartMounted(true); }
};

// Sets the process's umask, as long as it lives.
class CUmask {
public:
    explicit CUmask(mode_t iMask) : m_iBefore(umask(iMask)) {}
    ~CUmask() { umask(m_iBefore); }
    CUmask(const CUmask&) = delete;
    CUmask& operator=(const CUmask&) = delete;

private:
    mode_t m_iBefore;
};
