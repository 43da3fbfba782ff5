// The console program.
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ConsoleUtilities.h"
#include "Text.h"

int main(int iCount, char** ppcArguments)
{
    signal(SIGPIPE, SIG_IGN);  // whoever stops reading our output does not stop the server

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
