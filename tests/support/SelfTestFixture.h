// Runs of the self-test: what they are to print, and a host that interferes with them.
#pragma once

#include <filesystem>
#include <functional>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "LogRecorder.h"
#include "NfsMain.h"
#include "RuntimeParam.h"
#include "TestEnvironment.h"
#include "Text.h"
#include "Utilities.h"

using Lines = std::vector<std::string>;

constexpr long long GIB = 0x40000000;

// How much is written and read back at which positions, in a file of that size.
struct SelfTestRun {
    long long iFileSize;
    long long iFirst;
    int iFirstLength;
    long long iSecond;
    int iSecondLength;
};

constexpr SelfTestRun SMALLEST_RUN = {1, 0, 0, 0, 0};
constexpr SelfTestRun SMALL_RUN = {1000, 0, 999, 0, 999};
constexpr SelfTestRun USUAL_RUN = {10000, 0, 2047, 7953, 2047};
constexpr SelfTestRun RUNS[] = {
    SMALLEST_RUN,
    SMALL_RUN,
    {2047, 0, 2046, 0, 2047},
    {2048, 0, 2047, 1, 2047},
    USUAL_RUN,
    {5 * GIB, 0, 2047, 5368707073, 2047},
};

// The verdict and the name of each step that reads or writes at a position.
inline Lines GetReadWriteLines(long long iPosition, int iLength,
                               const std::string& sVerdict = "[ OK ] ")
{
    const std::string sPosition = std::to_string(iPosition);
    const std::string sLength = std::to_string(iLength);
    return {sVerdict + "File seek to position " + sPosition + ".",
            sVerdict + "Write data with length " + sLength + ".",
            sVerdict + "Move pointer to position " + sPosition + ".",
            sVerdict + "Read data with length " + sLength + ".",
            sVerdict + "Verify data with size " + sLength + "."};
}

inline Lines GetSizeLines(const std::string& sLabel, const std::string& sFile, long long iSize)
{
    return {"[ OK ] " + sLabel + " \"" + sFile + "\" size to " + std::to_string(iSize) + ".",
            "[ OK ] Open file \"" + sFile + "\".", "[ OK ] Verify file size.",
            "[ OK ] Close file \"" + sFile + "\"."};
}

inline Lines GetModeLines(const std::string& sFile, const std::string& sMode)
{
    return {"[ OK ] Set file mode " + sMode + " to file \"" + sFile + "\".",
            "[ OK ] Get file mode from file \"" + sFile + "\".",
            "[ OK ] Verify file mode " + sMode + " from file \"" + sFile + "\"."};
}

inline void Append(Lines* pvLines, const Lines& vMore)
{
    pvLines->insert(pvLines->end(), vMore.begin(), vMore.end());
}

// One text, which shows best where two differ.
inline std::string Join(const Lines& vLines)
{
    std::string sText;
    for (const std::string& sLine : vLines)
        sText += sLine + "\n";
    return sText;
}

// All lines of a run in which every step goes well. sTarget is canonical; sMode, in hexadecimal, is
// the one that the file has in the beginning.
inline Lines GetGoodRun(const std::string& sTarget, const SelfTestRun& run = USUAL_RUN,
                        const std::string& sMode = "81A4")
{
    const std::string sFolder = sTarget + (sTarget == "/" ? "_test" : "/_test");
    const std::string sFile = sFolder + "/test.bak";
    Lines vLines = {
        "=============================== START TEST ===============================",
        " >> Directory : \"" + sFolder + "\"",
        " >> File      : \"" + sFile + "\"",
        "",
        "------------------------ ATTRIBUTES of file system -----------------------",
        "Current time (in milliseconds)          : (time)",
        "Maximum File Size                       : (bytes)",
        "Total Disk Space                        : (bytes)",
        "Free Disk Space                         : (bytes)",
        "Free Disk Space To Caller               : (bytes)",
        "Total File Slots                        : (count)",
        "Free File Slots                         : (count)",
        "Free File Slots To Caller               : (count)",
        "",
        "-------------------------------- FILE IO ---------------------------------",
        "[ OK ] Create directory \"" + sFolder + "\".",
        "[ OK ] Create file \"" + sFile + "\".",
        "[ OK ] Close file \"" + sFile + "\".",
    };
    Append(&vLines, GetSizeLines("Enlarge file", sFile, run.iFileSize + 1024));
    Append(&vLines, GetSizeLines("Shrink file", sFile, run.iFileSize));
    vLines.push_back("[ OK ] Open file \"" + sFile + "\".");
    Append(&vLines, GetReadWriteLines(run.iFirst, run.iFirstLength));
    Append(&vLines, GetReadWriteLines(run.iSecond, run.iSecondLength));
    vLines.push_back("[ OK ] Get file stat from file \"" + sFile + "\".");
    Append(&vLines, GetModeLines(sFile, "8124"));
    Append(&vLines, GetModeLines(sFile, sMode));
    Append(&vLines, {"[ OK ] Close file \"" + sFile + "\".",
                     "[ OK ] Rename file from \"" + sFile + "\" to \"" + sFile + "2\".",
                     "[ OK ] Remove file \"" + sFile + "2\".",
                     "[ OK ] Remove directory \"" + sFolder + "\".",
                     "================================ END TEST ================================"});
    return vLines;
}

// A line with a figure of the file system, its form looked at, with what it is in place of the
// figure; any other line as it is.
inline std::string WithoutFigure(const std::string& sLine)
{
    constexpr size_t LABEL_WIDTH = 40;
    static const std::regex TIME("[0-9]{13}");
    static const std::regex BYTES("[0-9]{1,4}\\.[0-9](B|KB|MB|GB|TB|PB|EB)");
    static const std::regex COUNT("([0-9]+)\\(([0-9A-F]+)\\)");
    if (sLine.length() < LABEL_WIDTH + 2 || sLine.substr(LABEL_WIDTH, 2) != ": ")
        return sLine;
    const std::string sLabel = sLine.substr(0, LABEL_WIDTH + 2);
    const std::string sFigure = sLine.substr(LABEL_WIDTH + 2);
    std::smatch match;
    if (std::regex_match(sFigure, TIME))
        return sLabel + "(time)";
    if (std::regex_match(sFigure, BYTES))
        return sLabel + "(bytes)";
    if (std::regex_match(sFigure, match, COUNT) &&
        std::stoull(match[1]) == std::stoull(match[2], nullptr, 16))
        return sLabel + "(count)";
    return sLine;
}

inline Lines WithoutFigures(Lines vLines)
{
    for (std::string& sLine : vLines)
        sLine = WithoutFigure(sLine);
    return vLines;
}

// Does something once a line has come, which the run then waits for: what others do to the file
// system in the meantime. That a line which is waited for does not come is a failure.
class CMeddlingHost : public CLogRecorder {
public:
    ~CMeddlingHost() override
    {
        for (const Plan& plan : m_vPlans)
            ADD_FAILURE() << "There was no line for \"" << plan.sText << "\"";
    }

    // At the iCount-th line from now on that has sText in it.
    void When(const std::string& sText, const std::function<void()>& action, int iCount = 1)
    {
        m_vPlans.push_back({sText, iCount, action});
    }

    bool LogInfo(const char* pcID, const char* pcMessage) override
    {
        CLogRecorder::LogInfo(pcID, pcMessage);
        Act(pcMessage);
        return true;
    }
    bool LogError(const char* pcID, const char* pcMessage) override
    {
        CLogRecorder::LogError(pcID, pcMessage);
        Act(pcMessage);
        return true;
    }

private:
    struct Plan {
        std::string sText;
        int iLinesLeft;
        std::function<void()> action;
    };

    void Act(const std::string& sLine)
    {
        std::vector<std::function<void()>> vActions;
        for (size_t i = m_vPlans.size(); i-- > 0;) {
            Plan& plan = m_vPlans[i];
            if (sLine.find(plan.sText) == std::string::npos || --plan.iLinesLeft > 0)
                continue;
            vActions.push_back(plan.action);
            m_vPlans.erase(m_vPlans.begin() + static_cast<std::ptrdiff_t>(i));
        }
        for (const std::function<void()>& action : vActions)
            action();
    }

    std::vector<Plan> m_vPlans;
};

// A folder on the disk that the test program itself lies on, removed with the object. Scratch
// folders lie in memory, which is no disk.
class CDiskFolder {
public:
    CDiskFolder()
        : m_sPath(std::filesystem::canonical("/proc/self/exe").parent_path() / "folder-XXXXXX")
    {
        EXPECT_NE(mkdtemp(m_sPath.data()), nullptr);
    }
    ~CDiskFolder()
    {
        std::error_code error;
        std::filesystem::remove_all(m_sPath, error);
    }
    CDiskFolder(const CDiskFolder&) = delete;
    CDiskFolder& operator=(const CDiskFolder&) = delete;

    const std::string& Path() const { return m_sPath; }

private:
    std::string m_sPath;
};

// Runs of an application that has the server inside of it. Their target is m_sTarget.
class CSelfTestFixture : public testing::Test {
protected:
    CSelfTestFixture() : m_iMask(umask(022)) { m_main.SetCallback(&m_host); }
    ~CSelfTestFixture() override
    {
        m_main.SetCallback(nullptr);
        umask(m_iMask);
    }

    std::string Folder() const { return m_sTarget + "/_test"; }
    std::string File() const { return Folder() + "/test.bak"; }
    std::string RenamedFile() const { return File() + "2"; }

    // What comes of a run, which neither leaks a descriptor nor writes anything but such lines.
    Lines Run(const std::string& sTarget, long long iFileSize, int iLogControl = 0)
    {
        CRuntimeParam param("caller", iLogControl);
        return Collect([&] { m_main.RunTestMode(&param, sTarget.c_str(), iFileSize); });
    }

    Lines Collect(const std::function<void()>& run)
    {
        m_host.Clear();
        const size_t iDescriptors = CountDescriptors();
        run();
        EXPECT_EQ(CountDescriptors(), iDescriptors);
        const std::string sStart = "info|caller|";
        Lines vLines;
        for (const std::string& sLine : m_host.Lines()) {
            EXPECT_TRUE(sLine.starts_with(sStart) || sLine.starts_with("error|caller|[")) << sLine;
            if (sLine.starts_with(sStart))
                vLines.push_back(sLine.substr(sStart.length()));
        }
        return vLines;
    }

    // A run after which nothing is left behind.
    void ExpectGoodRun(const std::string& sTarget, const SelfTestRun& run = USUAL_RUN)
    {
        EXPECT_EQ(Join(WithoutFigures(Run(sTarget, run.iFileSize))),
                  Join(GetGoodRun(m_sTarget, run)));
        EXPECT_FALSE(std::filesystem::exists(Folder()));
    }

    // A run whose lines are those of a good one, but that the steps named here fail, each with its
    // text, in which $D, $F and $2 are the folder and the two names of the file. Lines of the
    // system calls may stand between.
    void ExpectFailures(const Lines& vFailures, const SelfTestRun& run = USUAL_RUN,
                        const std::string& sMode = "81A4", int iLogControl = 0)
    {
        Lines vLines = WithoutFigures(Run(m_sTarget, run.iFileSize, iLogControl));
        std::erase_if(vLines, [](const std::string& sLine) { return sLine.starts_with("[Util"); });
        Lines vWanted = GetGoodRun(m_sTarget, run, sMode);
        ASSERT_EQ(vLines.size(), vWanted.size()) << Join(vLines);
        Lines vFailed;
        for (size_t i = 0; i < vLines.size(); i++) {
            if (!vLines[i].starts_with("[FAIL] "))
                continue;
            vFailed.push_back(vLines[i].substr(7));
            if (vFailed.back().starts_with(vWanted[i].substr(7) + " Error="))
                vWanted[i] = vLines[i];
        }
        EXPECT_EQ(Join(vLines), Join(vWanted));
        Lines vTexts = vFailures;
        for (std::string& sText : vTexts)
            sText = FillIn(sText);
        EXPECT_EQ(Join(vFailed), Join(vTexts));
    }

    static unsigned int GetMode(const std::string& sPath)
    {
        struct stat info = {};
        EXPECT_EQ(stat(sPath.c_str(), &info), 0) << sPath;
        return info.st_mode;
    }

    std::string FillIn(std::string sText) const
    {
        const std::pair<std::string, std::string> NAMES[] = {
            {"$D", "\"" + Folder() + "\""},
            {"$F", "\"" + File() + "\""},
            {"$2", "\"" + RenamedFile() + "\""},
        };
        for (const auto& [sName, sPath] : NAMES)
            for (size_t i = sText.find(sName); i != std::string::npos; i = sText.find(sName, i + 1))
                sText.replace(i, sName.length(), sPath);
        return sText;
    }

    const CScratchFolder m_folder;
    std::string m_sTarget = m_folder.Path();
    CMeddlingHost m_host;
    CNfsMain m_main{"host", 0};

private:
    const mode_t m_iMask;
};
