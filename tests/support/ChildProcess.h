// Another program, run by a test and gone with it.
#pragma once

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <utmp.h>
#include <vector>

#include <gtest/gtest.h>

#include "AutoFd.h"

// How a test talks to the program: through two pipes, as a user at a terminal, or as a user at a
// terminal that another job has in hand.
enum class Channel {
    PIPES,
    TERMINAL,
    BACKGROUND,
};

// Starts the program at once and kills and reaps it, if it still runs, with the object; should the
// test process die first, the program dies with it. What it writes to standard error goes where the
// test's own goes. The first word of the command is the program's path.
class CChildProcess {
public:
    explicit CChildProcess(const std::vector<std::string>& vCommand,
                           Channel channel = Channel::PIPES)
        : m_Channel(channel)
    {
        signal(SIGPIPE, SIG_IGN);  // a program that has ended is a test's failure, not our end
        if (!Open()) {
            ADD_FAILURE() << "No channel to " << vCommand[0];
            return;
        }
        std::vector<char*> vArguments;
        for (const std::string& sWord : vCommand)
            vArguments.push_back(const_cast<char*>(sWord.c_str()));
        vArguments.push_back(nullptr);

        const pid_t iParent = getpid();
        m_iPid = fork();
        if (m_iPid == 0)
            Run(vArguments, iParent);
        EXPECT_NE(m_iPid, -1);
        m_ChildInput.Reset();
        m_ChildOutput.Reset();
    }

    virtual ~CChildProcess()
    {
        if (m_iPid > 0) {
            kill(m_iPid, SIGKILL);
            Reap();
        }
    }
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    // In the background the ID of the job in front, which ends as the program does, and with
    // STOPPED_STATUS should the program be stopped.
    pid_t Pid() const { return m_iPid; }

    static constexpr int STOPPED_STATUS = 99;

    // The program in the background gets the terminal.
    void BringToFront() { Signal(SIGUSR1); }

    // The program's side of the terminal, for a look at its settings.
    int Terminal() const { return m_Terminal.Get(); }

    void Write(const std::string& sText)
    {
        EXPECT_EQ(write(m_Input.Get(), sText.data(), sText.size()),
                  static_cast<ssize_t>(sText.size()));
    }

    void CloseInput() { m_Input.Reset(); }

    // From here on nobody reads what the program writes.
    void CloseOutput() { m_Output.Reset(); }

    // Waits until the program has written sText and yields all that it wrote since the last call,
    // sText included. A failure, and what there is, if it ends or falls silent before.
    std::string ReadUntil(const std::string& sText)
    {
        size_t iFound = m_sOutput.find(sText);
        while (iFound == std::string::npos && ReadSome())
            iFound = m_sOutput.find(sText);
        if (iFound == std::string::npos) {
            ADD_FAILURE() << "\"" << sText << "\" does not come, only: " << m_sOutput;
            return std::exchange(m_sOutput, {});
        }
        const std::string sResult = m_sOutput.substr(0, iFound + sText.size());
        m_sOutput.erase(0, sResult.size());
        return sResult;
    }

    // The program's next line without its end, however long it takes; false at the end of its
    // output. For a thread that does nothing but read.
    bool ReadLine(std::string* psLine)
    {
        size_t iEnd = m_sOutput.find('\n');
        while (iEnd == std::string::npos && ReadSome(NO_TIMEOUT))
            iEnd = m_sOutput.find('\n');
        if (iEnd == std::string::npos)
            return false;
        *psLine = m_sOutput.substr(0, iEnd);
        m_sOutput.erase(0, iEnd + 1);
        return true;
    }

    // What the program writes until it closes its output. Only for pipes.
    std::string ReadToEnd()
    {
        while (ReadSome())
            ;
        EXPECT_TRUE(m_bEnded) << "The program does not end";
        return std::exchange(m_sOutput, {});
    }

    void Signal(int iSignal) { EXPECT_EQ(kill(m_iPid, iSignal), 0); }

    // Waits for the end. The exit status, or the negative number of the signal that ended it.
    int WaitForExit()
    {
        const int iStatus = Reap();
        return WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -WTERMSIG(iStatus);
    }

private:
    static constexpr int OUTPUT_TIMEOUT_MS = 30000;
    static constexpr int NO_TIMEOUT = -1;

    bool Open()
    {
        if (m_Channel != Channel::PIPES) {
            int iMaster = -1;
            int iTerminal = -1;
            if (openpty(&iMaster, &iTerminal, nullptr, nullptr, nullptr) != 0)
                return false;
            m_Terminal.Reset(iTerminal);
            m_Output.Reset(iMaster);
            m_Input.Reset(fcntl(iMaster, F_DUPFD_CLOEXEC, 0));
            fcntl(iMaster, F_SETFD, FD_CLOEXEC);
            fcntl(iTerminal, F_SETFD, FD_CLOEXEC);
            return true;
        }
        int iInput[2];
        int iOutput[2];
        if (pipe2(iInput, O_CLOEXEC) != 0)
            return false;
        m_ChildInput.Reset(iInput[0]);
        m_Input.Reset(iInput[1]);
        if (pipe2(iOutput, O_CLOEXEC) != 0)
            return false;
        m_Output.Reset(iOutput[0]);
        m_ChildOutput.Reset(iOutput[1]);
        return true;
    }

    // In the new process: nothing here may need a lock, for its owner has stayed behind.
    [[noreturn]] void Run(const std::vector<char*>& vArguments, pid_t iParent)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        signal(SIGPIPE, SIG_DFL);
        if (getppid() != iParent)
            _exit(EXIT_FAILURE);
        if (m_Channel == Channel::PIPES) {
            dup2(m_ChildInput.Get(), STDIN_FILENO);
            dup2(m_ChildOutput.Get(), STDOUT_FILENO);
        } else {
            login_tty(m_Terminal.Get());
        }
        if (m_Channel == Channel::BACKGROUND)
            RunBehind();
        execv(vArguments[0], vArguments.data());
        _exit(127);
    }

    // In the new process, which leads the terminal's session: returns in one that is a background
    // job. It is the job in front that waits for it, as a shell does.
    static void RunBehind()
    {
        sigset_t front;  // waits until there is a job to bring to the front
        sigemptyset(&front);
        sigaddset(&front, SIGUSR1);
        sigprocmask(SIG_BLOCK, &front, nullptr);
        s_iJob = fork();
        if (s_iJob == 0) {
            setpgid(0, 0);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            sigprocmask(SIG_UNBLOCK, &front, nullptr);
            return;
        }
        setpgid(s_iJob, s_iJob);
        signal(SIGUSR1, [](int) { tcsetpgrp(STDIN_FILENO, s_iJob); });
        sigprocmask(SIG_UNBLOCK, &front, nullptr);
        int iStatus = 0;
        while (waitpid(s_iJob, &iStatus, WUNTRACED) == -1 && errno == EINTR)
            ;
        if (WIFSTOPPED(iStatus))
            _exit(STOPPED_STATUS);
        _exit(WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : EXIT_FAILURE);
    }

    // Appends what the program writes next; false at its end or after a long silence.
    bool ReadSome(int iTimeout = OUTPUT_TIMEOUT_MS)
    {
        struct pollfd poller = {m_Output.Get(), POLLIN, 0};
        if (poll(&poller, 1, iTimeout) != 1)
            return false;
        char cBuffer[4096];
        const ssize_t iRead = read(m_Output.Get(), cBuffer, sizeof(cBuffer));
        if (iRead <= 0) {
            m_bEnded = true;
            return false;
        }
        m_sOutput.append(cBuffer, static_cast<size_t>(iRead));
        return true;
    }

    int Reap()
    {
        int iStatus = 0;
        while (waitpid(m_iPid, &iStatus, 0) == -1 && errno == EINTR)
            ;
        m_iPid = -1;
        return iStatus;
    }

    static inline pid_t s_iJob = -1;  // of the job in front: the one behind

    const Channel m_Channel;
    pid_t m_iPid = -1;     // -1 once it is reaped
    CAutoFd m_Input;       // what we write to the program
    CAutoFd m_Output;      // what it writes to us
    CAutoFd m_ChildInput;  // the program's ends of the pipes, until it has them
    CAutoFd m_ChildOutput;
    CAutoFd m_Terminal;
    std::string m_sOutput;  // read, but not yet asked for
    bool m_bEnded = false;
};
