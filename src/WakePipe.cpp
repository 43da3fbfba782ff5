#include "WakePipe.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>

bool CWakePipe::Open()
{
    int iEnds[2];
    if (pipe2(iEnds, O_CLOEXEC) != 0)
        return false;
    m_read.Reset(iEnds[0]);
    m_write.Reset(iEnds[1]);
    return true;
}

// End of file is the signal: it cannot be missed, consumed or find the pipe full.
void CWakePipe::Wake()
{
    m_write.Reset();
}

bool CWakePipe::WaitReadable(int iFile, int iTimeout)
{
    struct pollfd waits[2] = {{m_read.Get(), POLLIN, 0}, {iFile, POLLIN, 0}};
    while (poll(waits, iFile == -1 ? 1 : 2, iTimeout) == -1 && errno == EINTR)
        ;
    return waits[0].revents == 0;
}
