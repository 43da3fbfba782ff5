// A process that is short of descriptors.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <vector>

#include "AutoFd.h"

// Leaves this process so many descriptors to open, as long as it lives; open ones go on.
class CDescriptorShortage {
public:
    explicit CDescriptorShortage(size_t iLeft = 0)
    {
        getrlimit(RLIMIT_NOFILE, &m_Limit);
        const struct rlimit low = {64, m_Limit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &low);
        for (;;) {
            CAutoFd file(open("/dev/null", O_RDONLY | O_CLOEXEC));
            if (file.Get() == -1)
                break;
            m_vFiles.push_back(std::move(file));
        }
        for (size_t i = 0; i < iLeft && !m_vFiles.empty(); i++)
            m_vFiles.pop_back();
    }
    ~CDescriptorShortage()
    {
        m_vFiles.clear();
        setrlimit(RLIMIT_NOFILE, &m_Limit);
    }
    CDescriptorShortage(const CDescriptorShortage&) = delete;
    CDescriptorShortage& operator=(const CDescriptorShortage&) = delete;

private:
    struct rlimit m_Limit = {};
    std::vector<CAutoFd> m_vFiles;
};
