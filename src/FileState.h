// Whether a file is as it was.
#pragma once

#include <sys/stat.h>

// True if the two describe one file, and nothing changed in it between them. A change within one
// step of the clock that times are taken from can go unseen.
inline bool IsSameFileState(const struct stat& now, const struct stat& before)
{
    const auto IsSameTime = [](const struct timespec& time, const struct timespec& other) {
        return time.tv_sec == other.tv_sec && time.tv_nsec == other.tv_nsec;
    };
    return now.st_dev == before.st_dev && now.st_ino == before.st_ino &&
           now.st_size == before.st_size && IsSameTime(now.st_mtim, before.st_mtim) &&
           IsSameTime(now.st_ctim, before.st_ctim);
}
