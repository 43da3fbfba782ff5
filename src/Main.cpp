// The console program.
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

#include "ConsoleUtilities.h"
#include "Text.h"

namespace {

// No client and no reader of our output may end the server, and the descriptor cache gets all the
// room that the system allows.
void PrepareProcess()
{
    signal(SIGPIPE, SIG_IGN);  // whoever reads our output has gone
    signal(SIGXFSZ, SIG_IGN);  // a client wrote past the limit for files: the write fails
    // Nor may a client's socket or file get the number of a closed standard channel.
    int iFile = open("/dev/null", O_RDWR);
    while (iFile != -1 && iFile <= STDERR_FILENO)
        iFile = open("/dev/null", O_RDWR);
    if (iFile != -1)
        close(iFile);
    struct rlimit files = {};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);  // refused: the cache makes do with less
    }
}

}  // namespace

int main(int iCount, char** ppcArguments)
{
    PrepareProcess();

    const char* pcProgram = iCount > 0 ? ppcArguments[0] : "";
    const char* pcLast = strrchr(pcProgram, '\\');  // kept: a slash is not looked for
    if (pcLast != nullptr)
        pcProgram = pcLast + 1;

    std::string sArguments;
    for (int i = 1; i < iCount; i++)
        sArguments.append(ppcArguments[i]).append("\n");
    if (sArguments.length() >= PATH_SIZE) {  // the last word would be cut
        PrintText("Too many arguments\n");
        return EXIT_FAILURE;
    }
    return CConsoleUtilities().Run(pcProgram, sArguments.c_str());
}
