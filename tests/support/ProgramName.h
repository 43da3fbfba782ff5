// The name by which this process was started, where the system reads it, for a test that needs
// another one.
//
// A program that includes this starts itself anew before anything else, under a name so long that
// others have room in its place.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

constexpr size_t PROGRAM_NAME_ROOM = 8000;  // bytes, the terminating zero not included

constinit inline char* g_pcProgramName = nullptr;

__attribute__((constructor)) static void StartUnderLongName(int iCount, char** ppcArguments)
{
    if (strlen(ppcArguments[0]) == PROGRAM_NAME_ROOM) {
        g_pcProgramName = ppcArguments[0];
        return;
    }
    std::string sName = ppcArguments[0];
    sName.insert(0, PROGRAM_NAME_ROOM - sName.length(), '/');
    std::vector<char*> vArguments(ppcArguments, ppcArguments + iCount + 1);  // with the null
    vArguments[0] = sName.data();
    execv("/proc/self/exe", vArguments.data());
    perror("execv");
    _exit(EXIT_FAILURE);
}

// From here on the process was started by this name. What stands behind a zero in it are its
// further arguments.
inline void SetProgramName(const std::string& sName)
{
    ASSERT_LE(sName.length(), PROGRAM_NAME_ROOM);
    memset(g_pcProgramName, '\0', PROGRAM_NAME_ROOM);
    memcpy(g_pcProgramName, sName.data(), sName.length());
}
