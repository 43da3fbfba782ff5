// A disk that a test can fill.
#pragma once

#include <fstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "TestEnvironment.h"

// A file system of its own with room for 64 KiB, in a folder below the scratch root; nobody outside
// the test program sees it, its child processes do. It goes with the object.
class CSmallDisk {
public:
    CSmallDisk()
    {
        EXPECT_EQ(mkdir(Path().c_str(), 0700), 0);
        EXPECT_EQ(mount("tmpfs", Path().c_str(), "tmpfs", 0, "size=65536"), 0);
    }
    ~CSmallDisk() { umount2(Path().c_str(), MNT_DETACH); }
    CSmallDisk(const CSmallDisk&) = delete;
    CSmallDisk& operator=(const CSmallDisk&) = delete;

    std::string Path() const { return m_folder.Path("disk"); }
    std::string Path(const std::string& sName) const { return Path() + "/" + sName; }

    // Takes all the room that is left; the last piece of other files that is begun stays theirs.
    void Fill()
    {
        std::ofstream file(Path("filler"), std::ios::binary);
        const std::string sPiece(4096, 'f');
        while (file.write(sPiece.data(), static_cast<std::streamsize>(sPiece.size())).flush())
            ;
    }

    // Gives back what Fill took.
    void Free() { EXPECT_TRUE(std::filesystem::remove(Path("filler"))); }

private:
    const CScratchFolder m_folder;
};

// Makes a file that cannot be removed or renamed as long as the object exists.
class CHeldFile {
public:
    explicit CHeldFile(const std::string& sPath) : m_sPath(sPath)
    {
        EXPECT_EQ(mount(m_sPath.c_str(), m_sPath.c_str(), nullptr, MS_BIND, nullptr), 0);
    }
    ~CHeldFile() { umount2(m_sPath.c_str(), MNT_DETACH); }
    CHeldFile(const CHeldFile&) = delete;
    CHeldFile& operator=(const CHeldFile&) = delete;

private:
    const std::string m_sPath;
};
