#include "TestEnvironment.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "AutoFd.h"

namespace {

constexpr char SCRATCH_ROOT[] = "/run/stagenfs-test";

bool BringLoopbackUp()
{
    const CAutoFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    struct ifreq request = {};
    snprintf(request.ifr_name, sizeof(request.ifr_name), "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    return socket.Get() != -1 && ioctl(socket.Get(), SIOCSIFFLAGS, &request) == 0;
}

// An empty /tmp, but for the trees that were built from and in, should they lie there.
bool ReplaceTmp()
{
    const std::string sTrees[] = {STAGENFS_SOURCE_DIR, STAGENFS_BINARY_DIR};
    std::vector<CAutoFd> vTrees;
    for (const std::string& sTree : sTrees)
        vTrees.emplace_back(open(sTree.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0)
        return false;
    for (size_t i = 0; i < vTrees.size(); i++) {
        if (!sTrees[i].starts_with("/tmp/"))
            continue;
        std::error_code error;
        std::filesystem::create_directories(sTrees[i], error);
        const std::string sTree = "/proc/self/fd/" + std::to_string(vTrees[i].Get());
        if (mount(sTree.c_str(), sTrees[i].c_str(), nullptr, MS_BIND, nullptr) != 0)
            return false;
    }
    return true;
}

// A network with nothing but a loopback, and a /run and /tmp of its own: neither the machine's
// ports nor its port mapper's socket nor the local channels of other servers can be met, and
// whatever is left behind goes with the process.
bool EnterNamespaces()
{
    return unshare(CLONE_NEWNET | CLONE_NEWNS) == 0 &&
           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0 && mkdir(SCRATCH_ROOT, 0700) == 0 &&
           ReplaceTmp() && BringLoopbackUp();
}

size_t CountEntries(const char* pcFolder)
{
    const std::filesystem::directory_iterator folder(pcFolder);
    return static_cast<size_t>(std::distance(begin(folder), end(folder)));
}

}  // namespace

std::string GetScratchRoot()
{
    return SCRATCH_ROOT;
}

CScratchFolder::CScratchFolder() : m_sPath(GetScratchRoot() + "/folder-XXXXXX")
{
    if (mkdtemp(m_sPath.data()) == nullptr)
        perror("mkdtemp");
}

CScratchFolder::~CScratchFolder()
{
    std::error_code error;
    std::filesystem::remove_all(m_sPath, error);
}

std::string CScratchFolder::Write(const std::string& sName, const std::string& sContents) const
{
    std::ofstream(Path(sName), std::ios::binary) << sContents;
    return Path(sName);
}

std::string ReadWholeFile(const std::string& sPath)
{
    std::ifstream file(sPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

size_t CountDescriptors()
{
    return CountEntries("/proc/self/fd");
}

size_t CountThreads()
{
    return CountEntries("/proc/self/task");
}

int main(int iCount, char** ppcArguments)
{
    testing::InitGoogleTest(&iCount, ppcArguments);
    if (!EnterNamespaces()) {
        perror("Cannot enter namespaces of our own (are you root?)");
        return EXIT_FAILURE;
    }
    return RUN_ALL_TESTS();
}
