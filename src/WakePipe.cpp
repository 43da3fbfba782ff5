#include "WakePipe.h"

#include <cerrno>
#include <fcntl.h>
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
    struct pollfd waits[2] = {{iFile, POLLIN, 0}, {m_read.Get(), POLLIN, 0}};
    return Wait(waits, 2, iTimeout);
}

bool CWakePipe::WaitReadable(std::vector<struct pollfd>* pvWaits, int iTimeout)
{
    pvWaits->push_back({m_read.Get(), POLLIN, 0});
    const bool bResult = Wait(pvWaits->data(), pvWaits->size(), iTimeout);
    pvWaits->pop_back();
    return bResult;
}

// The pipe is the last one. No descriptor (-1) among the others is passed over.
bool CWakePipe::Wait(struct pollfd* pWaits, size_t iCount, int iTimeout)
{
    while (poll(pWaits, static_cast<nfds_t>(iCount), iTimeout) == -1) {
        if (errno != EINTR)
            Pause(10);  // out of memory: asking at once again would spin
    }
    return pWaits[iCount - 1].revents == 0;
}
