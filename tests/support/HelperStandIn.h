// A stand-in for the helper that takes datastores off their hosts. A program that includes this has
// the name under which it was started changed; see ProgramName.h.
#pragma once

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "LogRecorder.h"
#include "ProgramName.h"
#include "TestEnvironment.h"
#include "Text.h"

constexpr char HELPER_NAME[] = "VcDatastoreCtlFbdX64";

// How a record shows a run of the helper with these values.
inline std::string HelperRun(const std::string& sMoid, const std::string& sHost = "esx",
                             const std::string& sPort = "443", const std::string& sUser = "root",
                             const std::string& sPwd = "secret")
{
    return "run [-host] [" + sHost + "] [-port] [" + sPort + "] [-user] [" + sUser + "] [-pwd] [" +
           sPwd + "] [-method] [removeDatastore] [-argu] [" + sMoid + "]";
}

// Puts a shell script in the place of the helper, and this process beside it. Each run appends
// "run", with every argument in brackets behind it, to a record that others may note things in too.
class CHelperStandIn {
public:
    // The name may have folders in front of it.
    explicit CHelperStandIn(const std::string& sProgram = "program")
    {
        SetProgramName(m_folder.Path(sProgram));
        m_sPath = std::filesystem::path(m_folder.Path(sProgram)).replace_filename(HELPER_NAME);
        std::filesystem::create_directories(std::filesystem::path(m_sPath).parent_path());
        Install();
    }

    const std::string& Path() const { return m_sPath; }
    const CScratchFolder& Folder() const { return m_folder; }

    // From here on the helper does this, in the language of the shell, once it has noted its run.
    void Install(const std::string& sScript = "") { InstallAt(m_sPath, sScript); }
    void InstallAt(const std::string& sPath, const std::string& sScript = "")
    {
        FILE* pFile = fopen(sPath.c_str(), "we");
        ASSERT_NE(pFile, nullptr);
        fprintf(pFile,
                "#!/bin/sh\n"
                "line=run\n"
                "for argument; do line=\"$line [$argument]\"; done\n"
                "note() { printf '%%s\\n' \"$1\" >>'%s'; }\n"
                "note \"$line\"\n"
                "%s\n",
                m_folder.Path("record").c_str(), sScript.c_str());
        fclose(pFile);
        ASSERT_EQ(chmod(sPath.c_str(), 0755), 0);
    }

    void Remove() { std::filesystem::remove(m_sPath); }

    // Appends a line to the record; in the script, the same is: note 'line'.
    void Note(const std::string& sLine) const
    {
        const CAutoFd file(
            open(m_folder.Path("record").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
        const std::string sText = sLine + "\n";
        EXPECT_EQ(write(file.Get(), sText.data(), sText.length()),
                  static_cast<ssize_t>(sText.length()));
    }

    std::vector<std::string> Record() const
    {
        std::vector<std::string> vLines =
            SplitIntoVector(ReadWholeFile(m_folder.Path("record")).c_str(), '\n');
        vLines.pop_back();  // what stands behind the last end of a line
        return vLines;
    }

private:
    CScratchFolder m_folder;
    std::string m_sPath;
};

// Holds every helper that passes until the test lets it go.
class CHelperGate {
public:
    CHelperGate()
    {
        for (const char* pcName : {"held", "go"})
            EXPECT_EQ(mkfifo(m_folder.Path(pcName).c_str(), 0600), 0);
        m_Held.Reset(open(m_folder.Path("held").c_str(), O_RDWR | O_CLOEXEC));
        m_Go.Reset(open(m_folder.Path("go").c_str(), O_RDWR | O_CLOEXEC));
    }

    // The gate in the helper's script.
    std::string Script() const
    {
        return "echo >'" + m_folder.Path("held") + "'; read word <'" + m_folder.Path("go") + "'";
    }

    // Waits for one more helper at the gate.
    void WaitUntilHeld()
    {
        struct pollfd poller = {m_Held.Get(), POLLIN, 0};
        int iReady = -1;
        do {
            iReady = poll(&poller, 1, 20000);
        } while (iReady == -1 && errno == EINTR);
        ASSERT_EQ(iReady, 1) << "The helper does not come";
        char cByte = 0;
        ASSERT_EQ(read(m_Held.Get(), &cByte, 1), 1);
    }

    // One helper goes on, now or when it comes.
    void LetGo() { EXPECT_EQ(write(m_Go.Get(), "\n", 1), 1); }

private:
    CScratchFolder m_folder;
    CAutoFd m_Held;
    CAutoFd m_Go;
};

// A host that notes its lines in the same record, so that it shows what came first.
class CNotingHost : public CLogRecorder {
public:
    explicit CNotingHost(const CHelperStandIn* pHelper) : m_pHelper(pHelper) {}

    bool LogInfo(const char* pcID, const char* pcMessage) override
    {
        m_pHelper->Note(std::string("info|") + pcID + "|" + pcMessage);
        return CLogRecorder::LogInfo(pcID, pcMessage);
    }
    bool LogError(const char* pcID, const char* pcMessage) override
    {
        m_pHelper->Note(std::string("error|") + pcID + "|" + pcMessage);
        return CLogRecorder::LogError(pcID, pcMessage);
    }
    bool LogRaw(const char* pcID, const char* pcMessage) override
    {
        m_pHelper->Note(std::string("raw|") + pcID + "|" + pcMessage);
        return CLogRecorder::LogRaw(pcID, pcMessage);
    }

private:
    const CHelperStandIn* m_pHelper;  // not owned
};
