// The self-test: does the platform do to files what the server relies on?
#include "Utilities.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "Text.h"

namespace {

constexpr char OK_TEXT[] = "[ OK ] ";
constexpr char FAIL_TEXT[] = "[FAIL] ";

constexpr int TEST_FOLDER_MODE = 0755;
constexpr unsigned int READ_ONLY_MODE = S_IFREG | 0444;
constexpr long long ENLARGEMENT = 1024;

// What is written at a time, at most; one byte more for the zero behind it.
constexpr int TEST_DATA_LENGTH = 2047;
constexpr char TEST_DATA_BYTE = 1;

// The steps of a test, one after the other, and the usual lines of each.
class CTestSteps {
public:
    CTestSteps(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam, const char* pcOkText,
               const char* pcFailText)
        : m_pUtilities(pUtilities),
          m_pRuntimeParam(pRuntimeParam),
          m_pcOkText(pcOkText),
          m_pcFailText(pcFailText)
    {
    }
    CTestSteps(const CTestSteps&) = delete;
    CTestSteps& operator=(const CTestSteps&) = delete;

    // Names the step that comes next.
    void Begin(const char* pcFormat, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list arguments;
        va_start(arguments, pcFormat);
        vsnprintf(m_cStep, sizeof(m_cStep), pcFormat, arguments);
        va_end(arguments);
        m_cError[0] = '\0';
    }
    const char* GetStep() const { return m_cStep; }
    const char* GetFailText() const { return m_pcFailText; }

    // Where the step's system call leaves its error, REASON_SIZE bytes.
    char* GetError() { return m_cError; }

    // Writes the line of a step that was one system call. True if it went well.
    bool End(bool bDone)
    {
        if (bDone)
            m_pUtilities->LogInfo(m_pRuntimeParam, "%s%s.", m_pcOkText, m_cStep);
        else
            m_pUtilities->LogInfo(m_pRuntimeParam, "%s%s. Error=%s", m_pcFailText, m_cStep,
                                  m_cError);
        return bDone;
    }

private:
    CUtilities* m_pUtilities;
    CRuntimeParam* m_pRuntimeParam;
    const char* m_pcOkText;
    const char* m_pcFailText;
    char m_cStep[REASON_SIZE] = "";
    char m_cError[REASON_SIZE] = "";
};

// A whole run below one directory.
class CSelfTest {
public:
    CSelfTest(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
              const char* pcTarget)
        : m_pUtilities(pUtilities),
          m_pRuntimeParam(pRuntimeParam),
          m_pLogArgu(pLogArgu),
          m_sTarget(pcTarget),
          m_sFolder(m_sTarget + (m_sTarget.back() == '/' ? "" : "/") + "_test"),
          m_sFile(m_sFolder + "/test.bak"),
          m_sRenamedFile(m_sFile + "2"),
          m_steps(pUtilities, pRuntimeParam, OK_TEXT, FAIL_TEXT)
    {
    }
    CSelfTest(const CSelfTest&) = delete;
    CSelfTest& operator=(const CSelfTest&) = delete;

    const char* GetFolder() const { return m_sFolder.c_str(); }

    void Run(long long iFileSize)
    {
        Print("=============================== START TEST ===============================");
        m_pUtilities->LogInfo(m_pRuntimeParam, " >> Directory : \"%s\"", m_sFolder.c_str());
        m_pUtilities->LogInfo(m_pRuntimeParam, " >> File      : \"%s\"", m_sFile.c_str());
        Print("");
        Print("------------------------ ATTRIBUTES of file system -----------------------");
        PrintAttributes();
        Print("");
        Print("-------------------------------- FILE IO ---------------------------------");
        CreateFolder();
        CreateFile();
        RunSizeSteps(iFileSize);
        RunOpenedFileSteps(iFileSize);
        Rename();
        RemoveAll();
        CleanUp();
        Print("================================ END TEST ================================");
    }

private:
    void Print(const char* pcText) { m_pUtilities->LogInfo(m_pRuntimeParam, "%s", pcText); }

    void PrintBytes(const char* pcLabel, unsigned long long iBytes)
    {
        char cSize[REASON_SIZE];
        CUtilities::GetPrintableFileSize(iBytes, cSize);
        m_pUtilities->LogInfo(m_pRuntimeParam, "%-40s: %s", pcLabel, cSize);
    }

    void PrintCount(const char* pcLabel, unsigned long long iCount)
    {
        m_pUtilities->LogInfo(m_pRuntimeParam, "%-40s: %llu(%llX)", pcLabel, iCount, iCount);
    }

    void PrintAttributes()
    {
        const char* pcTarget = m_sTarget.c_str();
        m_pUtilities->LogInfo(m_pRuntimeParam, "%-40s: %llu", "Current time (in milliseconds)",
                              m_pUtilities->GetCurrentSystemTimeInMilliseconds());
        PrintBytes("Maximum File Size", m_pUtilities->GetMaxFileSize(pcTarget));
        PrintBytes("Total Disk Space", m_pUtilities->GetTotalDiskSpace(pcTarget));
        PrintBytes("Free Disk Space", m_pUtilities->GetFreeDiskSpace(pcTarget));
        PrintBytes("Free Disk Space To Caller",
                   m_pUtilities->GetFreeDiskSpaceAvailableToCaller(pcTarget));
        PrintCount("Total File Slots", m_pUtilities->GetTotalFileSlots(pcTarget));
        PrintCount("Free File Slots", m_pUtilities->GetFreeFileSlots(pcTarget));
        PrintCount("Free File Slots To Caller",
                   m_pUtilities->GetFreeFileSlotsAvailableToCaller(pcTarget));
    }

    void CreateFolder()
    {
        m_steps.Begin("Create directory \"%s\"", m_sFolder.c_str());
        const bool bDone =
            m_pUtilities->OS_FolderCreate(m_pRuntimeParam, m_pLogArgu, m_sFolder.c_str(),
                                          TEST_FOLDER_MODE, m_steps.GetError()) == 0;
        if (bDone && !m_pUtilities->OS_IsFileExists(m_sFolder.c_str()))
            m_pUtilities->LogInfo(m_pRuntimeParam, "%s%s. Error=Directory not exist", FAIL_TEXT,
                                  m_steps.GetStep());
        else
            m_steps.End(bDone);
    }

    void CreateFile()
    {
        m_steps.Begin("Create file \"%s\"", m_sFile.c_str());
        const int iFile = m_pUtilities->OS_FileCreate(m_pRuntimeParam, m_pLogArgu, m_sFile.c_str(),
                                                      m_steps.GetError());
        if (iFile != -1 && !m_pUtilities->OS_IsFileExists(m_sFile.c_str()))
            m_pUtilities->LogInfo(m_pRuntimeParam, "%s%s. Error=File not exist", FAIL_TEXT,
                                  m_steps.GetStep());
        else
            m_steps.End(iFile != -1);
        Close(iFile);
    }

    void Close(int iFile)
    {
        m_steps.Begin("Close file \"%s\"", m_sFile.c_str());
        m_steps.End(m_pUtilities->OS_FileClose(m_pRuntimeParam, m_pLogArgu, m_sFile.c_str(), iFile,
                                               m_steps.GetError()) == 0);
    }

    void RunSizeSteps(long long iFileSize)
    {
        constexpr long long LARGEST = std::numeric_limits<long long>::max() - ENLARGEMENT;
        m_pUtilities->RunTestUpdateFileSize(m_pRuntimeParam, m_pLogArgu, m_sFile.c_str(),
                                            std::min(iFileSize, LARGEST) + ENLARGEMENT,
                                            "Enlarge file", OK_TEXT, FAIL_TEXT);
        m_pUtilities->RunTestUpdateFileSize(m_pRuntimeParam, m_pLogArgu, m_sFile.c_str(), iFileSize,
                                            "Shrink file", OK_TEXT, FAIL_TEXT);
    }

    void RunOpenedFileSteps(long long iFileSize)
    {
        m_steps.Begin("Open file \"%s\"", m_sFile.c_str());
        const int iFile = m_pUtilities->OS_FileOpen(m_pRuntimeParam, m_pLogArgu, m_sFile.c_str(),
                                                    O_RDWR, false, m_steps.GetError());
        m_steps.End(iFile != -1);
        for (const long long iPosition : {0LL, iFileSize})
            m_pUtilities->RunTestReadWriteFile(m_pRuntimeParam, m_pLogArgu, iFile, iPosition,
                                               iFileSize, OK_TEXT, FAIL_TEXT);
        const unsigned int iModeBefore = GetMode();
        for (const unsigned int iMode : {READ_ONLY_MODE, iModeBefore})
            m_pUtilities->RunTestUpdateFileAttribute(m_pRuntimeParam, m_pLogArgu, m_sFile.c_str(),
                                                     iMode, OK_TEXT, FAIL_TEXT);
        Close(iFile);
    }

    // 0 if it cannot be had.
    unsigned int GetMode()
    {
        struct stat info = {};
        m_steps.Begin("Get file stat from file \"%s\"", m_sFile.c_str());
        return m_steps.End(m_pUtilities->OS_GetFileStat(m_pRuntimeParam, m_pLogArgu,
                                                        m_sFile.c_str(), &info,
                                                        m_steps.GetError()) == 0)
                   ? static_cast<unsigned int>(info.st_mode)
                   : 0;
    }

    void Rename()
    {
        m_steps.Begin("Rename file from \"%s\" to \"%s\"", m_sFile.c_str(), m_sRenamedFile.c_str());
        m_steps.End(m_pUtilities->OS_FileRename(m_pRuntimeParam, m_pLogArgu, m_sFile.c_str(),
                                                m_sRenamedFile.c_str(), m_steps.GetError()) == 0);
    }

    void RemoveAll()
    {
        m_steps.Begin("Remove file \"%s\"", m_sRenamedFile.c_str());
        m_steps.End(m_pUtilities->OS_FileRemove(m_pRuntimeParam, m_pLogArgu, m_sRenamedFile.c_str(),
                                                m_steps.GetError()) == 0);
        m_steps.Begin("Remove directory \"%s\"", m_sFolder.c_str());
        const bool bDone =
            m_pUtilities->OS_FolderRemove(m_pRuntimeParam, m_pLogArgu, m_sFolder.c_str(),
                                          m_steps.GetError()) == 0;
        if (bDone && m_pUtilities->OS_IsFileExists(m_sFolder.c_str()))
            m_pUtilities->LogInfo(m_pRuntimeParam, "%s%s. Error=Directory still exist", FAIL_TEXT,
                                  m_steps.GetStep());
        else
            m_steps.End(bDone);
    }

    // Takes away what failed steps have left, as far as it can be done, without a line.
    void CleanUp()
    {
        remove(m_sFile.c_str());
        remove(m_sRenamedFile.c_str());
        rmdir(m_sFolder.c_str());
    }

    CUtilities* m_pUtilities;
    CRuntimeParam* m_pRuntimeParam;
    LogArgu* m_pLogArgu;
    const std::string m_sTarget;  // exists, so it is not empty
    const std::string m_sFolder;
    const std::string m_sFile;
    const std::string m_sRenamedFile;
    CTestSteps m_steps;
};

struct TestRange {
    long long iPosition;
    int iLength;
};

// A range that starts in the file is cut so that the last byte stays as it is. One behind the end
// moves back, so that it ends where the file does.
TestRange FitIntoFile(long long iPosition, long long iFileSize)
{
    long long iLength = TEST_DATA_LENGTH;
    if (iPosition < iFileSize) {
        iPosition = std::max(iPosition, 0LL);
        iLength = std::min(iLength, iFileSize - iPosition - 1);
    } else if (iLength <= iFileSize) {
        iPosition = iFileSize - iLength;
    } else {
        iPosition = 0;
        iLength = std::max(iFileSize, 1LL) - 1;
    }
    return {iPosition, static_cast<int>(std::max(iLength, 0LL))};
}

// A step on an open file.
struct TestCall {
    CUtilities* pUtilities;
    CRuntimeParam* pRuntimeParam;
    LogArgu* pLogArgu;
    int iFile;
    CTestSteps* pSteps;
};

bool TestSeek(const TestCall& call, long long iPosition)
{
    const long long iResult =
        call.pUtilities->OS_FileSeek(call.pRuntimeParam, call.pLogArgu, call.iFile, iPosition,
                                     SEEK_SET, call.pSteps->GetError());
    if (iResult == -1 || iResult == iPosition)
        return call.pSteps->End(iResult != -1);
    call.pUtilities->LogInfo(call.pRuntimeParam,
                             "%s%s. Error=Position not match (current pos = %llu)",
                             call.pSteps->GetFailText(), call.pSteps->GetStep(),
                             static_cast<unsigned long long>(iResult));
    return false;
}

bool TestWrite(const TestCall& call, const char* pcData, int iLength)
{
    const int iResult =
        call.pUtilities->OS_FileWrite(call.pRuntimeParam, call.pLogArgu, call.iFile, pcData,
                                      static_cast<unsigned int>(iLength), call.pSteps->GetError());
    if (iResult == -1 || iResult == iLength)
        return call.pSteps->End(iResult != -1);
    call.pUtilities->LogInfo(call.pRuntimeParam,
                             "%s%s. Error=Data lenght not match (write length = %d)",
                             call.pSteps->GetFailText(), call.pSteps->GetStep(), iResult);
    return false;
}

bool TestRead(const TestCall& call, char* pcData, int iLength)
{
    const int iResult =
        call.pUtilities->OS_FileRead(call.pRuntimeParam, call.pLogArgu, call.iFile, pcData,
                                     static_cast<unsigned int>(iLength), call.pSteps->GetError());
    if (iResult == -1 || iResult == iLength)
        return call.pSteps->End(iResult != -1);
    call.pUtilities->LogInfo(call.pRuntimeParam,
                             "%s%s. Error=Data lenght not match (read length = %d)",
                             call.pSteps->GetFailText(), call.pSteps->GetStep(), iResult);
    return false;
}

}  // namespace

void CUtilities::RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcDirPath,
                             long long iFileSize)
{
    if (pRuntimeParam == nullptr)
        return;
    if (pcDirPath == nullptr) {
        LogInfo(pRuntimeParam, "Cannot start platrorm test. Error=Target directory is NULL");
        return;
    }
    if (iFileSize <= 0) {
        LogInfo(pRuntimeParam, "Cannot start platrorm test. Error=File size is ZERO");
        return;
    }
    LogArgu logArgu = {"Utilities.RunTestMode"};
    char cTarget[PATH_SIZE];
    GetCanonicalPath(pRuntimeParam, &logArgu, cTarget, pcDirPath);
    if (!OS_IsFileExists(cTarget)) {
        LogInfo(pRuntimeParam,
                "Cannot start platrorm test. Error=Target directory \"%s\" not exist", cTarget);
        return;
    }
    CSelfTest test(this, pRuntimeParam, &logArgu, cTarget);
    if (OS_IsFileExists(test.GetFolder())) {
        LogInfo(pRuntimeParam,
                "Cannot start platrorm test. Error=Test directory \"%s\" already exist",
                test.GetFolder());
        return;
    }
    test.Run(iFileSize);
}

void CUtilities::RunTestUpdateFileSize(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                       const char* pcPath, long long iSize, const char* pcLabel,
                                       const char* pcOkText, const char* pcFailText)
{
    CTestSteps steps(this, pRuntimeParam, pcOkText, pcFailText);
    steps.Begin("%s \"%s\" size to %lld", pcLabel, pcPath, iSize);
    const bool bDone =
        steps.End(OS_SetFileSize(pRuntimeParam, pLogArgu, pcPath, iSize, steps.GetError()));

    steps.Begin("Open file \"%s\"", pcPath);
    int iFile = -1;
    if (!bDone) {
        LogInfo(pRuntimeParam, "%s%s. Error=Set file size failed", pcFailText, steps.GetStep());
    } else {
        iFile = OS_FileOpen(pRuntimeParam, pLogArgu, pcPath, O_RDWR, false, steps.GetError());
        steps.End(iFile != -1);
    }

    steps.Begin("Verify file size");
    if (iFile == -1) {
        LogInfo(pRuntimeParam, "%s%s. Error=Open file failed", pcFailText, steps.GetStep());
    } else {
        const long long iEnd =
            OS_FileSeek(pRuntimeParam, pLogArgu, iFile, 0, SEEK_END, steps.GetError());
        if (iEnd == -1 || iEnd == iSize)
            steps.End(iEnd != -1);
        else
            LogInfo(pRuntimeParam, "%s%s. Error=Size not match (current size = %llu)", pcFailText,
                    steps.GetStep(), static_cast<unsigned long long>(iEnd));
    }

    steps.Begin("Close file \"%s\"", pcPath);
    if (iFile == -1)
        LogInfo(pRuntimeParam, "%s%s. Error=Open file failed", pcFailText, steps.GetStep());
    else
        steps.End(OS_FileClose(pRuntimeParam, pLogArgu, pcPath, iFile, steps.GetError()) == 0);
}

void CUtilities::RunTestReadWriteFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                                      long long iPosition, long long iFileSize,
                                      const char* pcOkText, const char* pcFailText)
{
    const TestRange range = FitIntoFile(iPosition, iFileSize);
    char cData[TEST_DATA_LENGTH + 1] = "";
    char cRead[TEST_DATA_LENGTH + 1] = "";
    memset(cData, TEST_DATA_BYTE, static_cast<size_t>(range.iLength));

    CTestSteps steps(this, pRuntimeParam, pcOkText, pcFailText);
    const TestCall call = {this, pRuntimeParam, pLogArgu, iFile, &steps};
    steps.Begin("File seek to position %llu", static_cast<unsigned long long>(range.iPosition));
    bool bDone = TestSeek(call, range.iPosition);

    steps.Begin("Write data with length %d", range.iLength);
    if (!bDone)
        LogInfo(pRuntimeParam, "%s%s. Error=File seek failed", pcFailText, steps.GetStep());
    else
        bDone = TestWrite(call, cData, range.iLength);

    steps.Begin("Move pointer to position %llu", static_cast<unsigned long long>(range.iPosition));
    if (!bDone)
        LogInfo(pRuntimeParam, "%s%s. Error=File write failed", pcFailText, steps.GetStep());
    else
        bDone = TestSeek(call, range.iPosition);

    steps.Begin("Read data with length %d", range.iLength);
    if (!bDone)
        LogInfo(pRuntimeParam, "%s%s. Error=File seek failed", pcFailText, steps.GetStep());
    else
        bDone = TestRead(call, cRead, range.iLength);

    steps.Begin("Verify data with size %d", range.iLength);
    if (!bDone)
        LogInfo(pRuntimeParam, "%s%s. Error=File read failed", pcFailText, steps.GetStep());
    else if (strcmp(cData, cRead) != 0)
        LogInfo(pRuntimeParam, "%s%s. Error=Data content not match", pcFailText, steps.GetStep());
    else
        steps.End(true);
}

void CUtilities::RunTestUpdateFileAttribute(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                            const char* pcPath, unsigned int iMode,
                                            const char* pcOkText, const char* pcFailText)
{
    CTestSteps steps(this, pRuntimeParam, pcOkText, pcFailText);
    steps.Begin("Set file mode %X to file \"%s\"", iMode, pcPath);
    bool bDone = steps.End(OS_SetFileMode(pRuntimeParam, pLogArgu, pcPath, static_cast<int>(iMode),
                                          steps.GetError()) == 0);

    struct stat info = {};
    steps.Begin("Get file mode from file \"%s\"", pcPath);
    if (!bDone)
        LogInfo(pRuntimeParam, "%s%s. Error=Set file mode failed", pcFailText, steps.GetStep());
    else
        bDone = steps.End(
            OS_GetFileStat(pRuntimeParam, pLogArgu, pcPath, &info, steps.GetError()) == 0);

    steps.Begin("Verify file mode %X from file \"%s\"", iMode, pcPath);
    if (!bDone)
        LogInfo(pRuntimeParam, "%s%s. Error=Get file mode failed", pcFailText, steps.GetStep());
    else if (info.st_mode != iMode)
        LogInfo(pRuntimeParam, "%s%s. Error=File mode not match (current file mode = %X)",
                pcFailText, steps.GetStep(), static_cast<unsigned int>(info.st_mode));
    else
        steps.End(true);
}

void CUtilities::GetPrintableFileSize(unsigned long long iBytes, char* pcOut)
{
    constexpr std::array FORMATS = {"%.1fB",  "%.1fKB", "%.1fMB", "%.1fGB",
                                    "%.1fTB", "%.1fPB", "%.1fEB"};
    double fValue = static_cast<double>(iBytes) / 1024;
    size_t iUnit = 0;
    while (fValue > 1.0 && iUnit + 1 < FORMATS.size()) {
        iUnit++;
        fValue /= 1024;
    }
    snprintf(pcOut, REASON_SIZE, FORMATS[iUnit], fValue * 1024);
}
