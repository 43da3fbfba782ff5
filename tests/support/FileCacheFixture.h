// A service object whose descriptor cache is put through its paces.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "AutoFd.h"
#include "UtilitiesFixture.h"

constexpr int FILE_CACHE_LIMIT = 1024;  // entries

class CFileCacheFixture : public CUtilitiesFixture {
protected:
    CFileCacheFixture()
    {
        getrlimit(RLIMIT_NOFILE, &m_savedLimit);
        SetDescriptorLimit(2 * FILE_CACHE_LIMIT);
    }
    ~CFileCacheFixture() override
    {
        setrlimit(RLIMIT_NOFILE, &m_savedLimit);
        m_utilities.CloseAllCachedFileHandles(&m_param, &m_argu);
        EXPECT_EQ(CountDescriptors(), m_iDescriptors);
    }

    void SetDescriptorLimit(rlim_t iLimit) const
    {
        const struct rlimit limit = {iLimit, m_savedLimit.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }

    // From here on, no descriptor can be opened before another is closed.
    void AllowNoMoreDescriptors() const
    {
        const CAutoFd lowest(dup(STDOUT_FILENO));
        SetDescriptorLimit(static_cast<rlim_t>(lowest.Get()));
    }

    std::string GetName(int iNumber) const { return m_folder.Path(std::to_string(iNumber)); }

    int Get(const std::string& sPath, bool bWrite = false)
    {
        return m_utilities.GetCachedFileHandle(&m_param, &m_argu, sPath.c_str(), bWrite);
    }

    // Creates files by number and opens them through the cache; their descriptors.
    std::vector<int> OpenFiles(int iFirst, int iCount)
    {
        std::vector<int> vFiles;
        for (int i = iFirst; i < iFirst + iCount; i++) {
            m_folder.Write(std::to_string(i), "");
            vFiles.push_back(Get(GetName(i)));
            EXPECT_NE(vFiles.back(), -1) << i;
        }
        return vFiles;
    }

    void SetBits(int iBits)
    {
        m_param.SetLogControl(iBits);
        m_recorder.Clear();
    }

    static std::string GetCloseLine(const std::string& sPath)
    {
        return "info|host|[Test] OS close file \"" + sPath + "\"";
    }
    static std::string GetFailedCloseLine(const std::string& sPath)
    {
        return "error|host|[Test] OS close file \"" + sPath + "\". Error=Bad file descriptor";
    }
    static std::string GetOpenLine(const std::string& sPath)
    {
        return "info|host|[Test] OS open file \"" + sPath + "\"";
    }
    static std::string GetFullLine(const std::string& sPath)
    {
        return "error|host|[Test] OS open file \"" + sPath + "\". Error=Too many open files (24)";
    }
    static std::string GetModeLine(const char* pcMode, const std::string& sPath)
    {
        return std::string("info|host|[Test] open ") + pcMode + " mode " + sPath;
    }
    static std::string GetEvictionLine(const char* pcCount)
    {
        return std::string("info|host|[Test] Close exceeded cached file handle: ") + pcCount;
    }

    struct rlimit m_savedLimit = {};
    const size_t m_iDescriptors = CountDescriptors();
};

inline bool IsOpen(int iFile)
{
    return fcntl(iFile, F_GETFD) != -1;
}
