// The port mapper that other systems come with, as a test needs it.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "WireClient.h"

// Runs rpcbind in the test's own namespaces from the constructor, which waits until it answers, to
// the destructor, behind which its port is free again.
// It changes its user, and with that loses the wish to die with its parent. So it gets a process
// namespace of its own, whose first process keeps that wish: when that one goes, by our hand or
// because the test died, the kernel ends all of the namespace, and waiting for the first waits for
// the rest.
class CRpcbind {
public:
    CRpcbind()
    {
        m_iPid = Clone(CLONE_NEWPID);
        if (m_iPid == 0)
            RunFirst();
        EXPECT_NE(m_iPid, -1);
        RpcCall call;
        call.iProg = WIRE_PORTMAP_PROG;
        call.iVers = 2;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (m_iPid != -1 && !CallOnce(WIRE_PORTMAP_PORT, call).IsSuccess(call.iXid)) {
            if (waitpid(m_iPid, nullptr, WNOHANG) != 0) {
                ADD_FAILURE() << "rpcbind does not run";
                m_iPid = -1;
            } else if (std::chrono::steady_clock::now() > end) {
                ADD_FAILURE() << "rpcbind does not answer; does it know the services (netbase)?";
                Stop();
            }
            sched_yield();
        }
    }
    ~CRpcbind() { Stop(); }
    CRpcbind(const CRpcbind&) = delete;
    CRpcbind& operator=(const CRpcbind&) = delete;

private:
    // As fork, but without the library's own preparations, which may need a lock whose owner does
    // not exist in the new process.
    static pid_t Clone(unsigned long iFlags)
    {
        return static_cast<pid_t>(
            syscall(SYS_clone, iFlags | SIGCHLD, nullptr, nullptr, nullptr, nullptr));
    }

    void Stop()
    {
        if (m_iPid == -1)
            return;
        kill(m_iPid, SIGKILL);
        waitpid(m_iPid, nullptr, 0);
        m_iPid = -1;
    }

    [[noreturn]] static void RunFirst()
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close_range(STDERR_FILENO + 1, ~0U, 0);  // no socket of the test stays open in here
        if (Clone(0) == 0) {
            execl("/usr/sbin/rpcbind", "rpcbind", "-w", "-f", nullptr);
            _exit(127);
        }
        wait(nullptr);
        _exit(EXIT_FAILURE);  // it should not end before us
    }

    pid_t m_iPid = -1;
};
