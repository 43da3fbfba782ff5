#include "WakePipe.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "Pause.h"

bool CWakePipe::Open()
{
    int iEnds[2];
    if (pipe2(iEnds, O_CLOEXEC) != 0)
        return false;
    m_read.Reset(iEnds[0]);
    m_write.Reset(iEnds[1]);
    return true;
}

// Nobody reads the byte, so the pipe stays readable and the signal cannot be missed.
void CWakePipe::Wake()
{
    while (write(m_write.Get(), "", 1) == -1 && errno == EINTR)
        ;
}

bool CWakePipe::WaitReadable(int iFile, int iTimeout)
{
    struct pollfd waits[2] = {{m_read.Get(), POLLIN, 0}, {iFile, POLLIN, 0}};
    while (poll(waits, iFile == -1 ? 1 : 2, iTimeout) == -1) {
        if (errno != EINTR)
            Pause(10);  // out of memory: asking at once again would spin
    }
    return waits[0].revents == 0;
}
