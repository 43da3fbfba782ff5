// The parts of the self-test that have several steps, each on its own, and how it writes sizes.
#include "Utilities.h"

#include <fcntl.h>
#include <limits>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "SelfTestFixture.h"

namespace {

constexpr int LOG_EVERYTHING = 0x3FF;
constexpr long long MOST = std::numeric_limits<long long>::max();
constexpr long long LEAST = std::numeric_limits<long long>::min();

class UtilitiesSelfTestParts : public CSelfTestFixture {
protected:
    // The lines of one part, each behind "yes: " or "no: ".
    Lines ResizeFile(const std::string& sFile, long long iSize)
    {
        return Collect([&] {
            m_utilities.RunTestUpdateFileSize(&m_param, &m_argu, sFile.c_str(), iSize, "Bend",
                                              "yes: ", "no: ");
        });
    }
    Lines ReadWriteFile(int iFile, long long iPosition, long long iFileSize)
    {
        return Collect([&] {
            m_utilities.RunTestReadWriteFile(&m_param, &m_argu, iFile, iPosition, iFileSize,
                                             "yes: ", "no: ");
        });
    }
    Lines SetFileMode(const std::string& sFile, unsigned int iMode)
    {
        return Collect([&] {
            m_utilities.RunTestUpdateFileAttribute(&m_param, &m_argu, sFile.c_str(), iMode,
                                                   "yes: ", "no: ");
        });
    }

    CUtilities& m_utilities = *m_main.GetUtils();
    CRuntimeParam m_param{"caller", 0};
    LogArgu m_argu{"Part"};
};

}  // namespace

// ---- Setting the size ----

TEST_F(UtilitiesSelfTestParts, UpdateFileSize_SetsIt)
{
    const std::string sFile = m_folder.Write("file", "contents");
    for (const long long iSize : {0LL, 5LL, 5LL, 5 * GIB}) {
        EXPECT_EQ(ResizeFile(sFile, iSize),
                  (Lines{"yes: Bend \"" + sFile + "\" size to " + std::to_string(iSize) + ".",
                         "yes: Open file \"" + sFile + "\".", "yes: Verify file size.",
                         "yes: Close file \"" + sFile + "\"."}));
        EXPECT_EQ(std::filesystem::file_size(sFile), static_cast<unsigned long long>(iSize));
    }
}

TEST_F(UtilitiesSelfTestParts, UpdateFileSize_OfAMissingFile_MakesIt)
{
    EXPECT_EQ(ResizeFile(m_folder.Path("new"), 7)[0],
              "yes: Bend \"" + m_folder.Path("new") + "\" size to 7.");
    EXPECT_EQ(ReadWholeFile(m_folder.Path("new")), std::string(7, '\0'));
}

TEST_F(UtilitiesSelfTestParts, UpdateFileSize_ToLessThanNothing_FailsInAllSteps)
{
    const std::string sFile = m_folder.Write("file", "contents");
    EXPECT_EQ(ResizeFile(sFile, -1),
              (Lines{"no: Bend \"" + sFile + "\" size to -1. Error=Invalid argument (22)",
                     "no: Open file \"" + sFile + "\". Error=Set file size failed",
                     "no: Verify file size. Error=Open file failed",
                     "no: Close file \"" + sFile + "\". Error=Open file failed"}));
    EXPECT_EQ(ReadWholeFile(sFile), "contents");
}

TEST_F(UtilitiesSelfTestParts, Parts_LogTheirCallsUnderTheCallersLabel)
{
    m_param.SetLogControl(LOG_EVERYTHING);
    const std::string sFile = m_folder.Write("file", "contents");
    EXPECT_EQ(ResizeFile(sFile, 3)[0], "[Part] OS set file file \"" + sFile + "\"");
    EXPECT_EQ(SetFileMode(sFile, 0100600)[0],
              "[Part] OS set file mode \"" + sFile + "\" (mode = 33152)");
    EXPECT_EQ(ReadWriteFile(-1, 0, 3)[0], "no: File seek to position 0. Error=Bad file descriptor");
    EXPECT_EQ(m_host.Lines()[0],
              "error|caller|[Part] OS seek file (-1). Error=Bad file descriptor");
}

// ---- Writing and reading ----

TEST_F(UtilitiesSelfTestParts, ReadWriteFile_KeepsWithinTheFile)
{
    const struct {
        long long iPosition;
        long long iFileSize;
        long long iWantedPosition;
        int iWantedLength;
    } CASES[] = {
        {-5, 10000, 0, 2047},
        {LEAST, 10000, 0, 2047},
        {0, 10000, 0, 2047},
        {1, 10000, 1, 2047},
        {100, 10000, 100, 2047},
        {7952, 10000, 7952, 2047},
        {7953, 10000, 7953, 2046},
        {9000, 10000, 9000, 999},
        {9999, 10000, 9999, 0},
        {10000, 10000, 7953, 2047},
        {10001, 10000, 7953, 2047},
        {MOST, 10000, 7953, 2047},
        {-1, 2047, 0, 2046},
        {1, 2047, 1, 2045},
        {2046, 2047, 2046, 0},
        {2047, 2047, 0, 2047},
        {0, 2048, 0, 2047},
        {1, 2048, 1, 2046},
        {2048, 2048, 1, 2047},
        {0, 2046, 0, 2045},
        {2046, 2046, 0, 2045},
        {MOST, 2046, 0, 2045},
        {0, 1, 0, 0},
        {1, 1, 0, 0},
        {-1, 2, 0, 1},
        {1, 2, 1, 0},
        {2, 2, 0, 1},
    };
    for (const auto& range : CASES) {
        SCOPED_TRACE(std::to_string(range.iPosition) + " in " + std::to_string(range.iFileSize));
        std::string sContents(static_cast<size_t>(range.iFileSize), 'x');
        const std::string sPath = m_folder.Write("file", sContents);
        const CAutoFd file(open(sPath.c_str(), O_RDWR));
        EXPECT_EQ(ReadWriteFile(file.Get(), range.iPosition, range.iFileSize),
                  GetReadWriteLines(range.iWantedPosition, range.iWantedLength, "yes: "));
        const auto iLength = static_cast<size_t>(range.iWantedLength);
        sContents.replace(static_cast<size_t>(range.iWantedPosition), iLength,
                          std::string(iLength, '\1'));
        EXPECT_TRUE(ReadWholeFile(sPath) == sContents);
        EXPECT_EQ(lseek(file.Get(), 0, SEEK_CUR), range.iWantedPosition + range.iWantedLength);
    }
}

TEST_F(UtilitiesSelfTestParts, ReadWriteFile_InNothing_WritesNothing)
{
    const std::string sPath = m_folder.Write("file", "");
    const CAutoFd file(open(sPath.c_str(), O_RDWR));
    for (const long long iFileSize : {0LL, -1LL, LEAST})
        for (const long long iPosition : {0LL, -1LL, 1LL, MOST, LEAST})
            EXPECT_EQ(ReadWriteFile(file.Get(), iPosition, iFileSize),
                      GetReadWriteLines(0, 0, "yes: "));
    EXPECT_EQ(ReadWholeFile(sPath), "");
}

TEST_F(UtilitiesSelfTestParts, ReadWriteFile_WithoutAFile_FailsInAllSteps)
{
    EXPECT_EQ(ReadWriteFile(-1, 0, 1000),
              (Lines{"no: File seek to position 0. Error=Bad file descriptor",
                     "no: Write data with length 999. Error=File seek failed",
                     "no: Move pointer to position 0. Error=File write failed",
                     "no: Read data with length 999. Error=File seek failed",
                     "no: Verify data with size 999. Error=File read failed"}));
}

// ---- Setting the mode ----

TEST_F(UtilitiesSelfTestParts, UpdateFileAttribute_SetsIt)
{
    const std::string sFile = m_folder.Write("file", "");
    const std::pair<unsigned int, const char*> modes[] = {
        {0100444, "8124"}, {0100000, "8000"}, {0107777, "8FFF"}, {0100640, "81A0"}};
    for (const auto& [iMode, pcMode] : modes) {
        EXPECT_EQ(
            SetFileMode(sFile, iMode),
            (Lines{std::string("yes: Set file mode ") + pcMode + " to file \"" + sFile + "\".",
                   "yes: Get file mode from file \"" + sFile + "\".",
                   std::string("yes: Verify file mode ") + pcMode + " from file \"" + sFile +
                       "\"."}));
        EXPECT_EQ(GetMode(sFile), iMode);
    }
}

TEST_F(UtilitiesSelfTestParts, UpdateFileAttribute_OfAnotherType_DoesNotMatch)
{
    const std::string sFile = m_folder.Write("file", "");
    EXPECT_EQ(SetFileMode(sFile, 0640)[2], "no: Verify file mode 1A0 from file \"" + sFile +
                                               "\". Error=File mode not match (current file mode "
                                               "= 81A0)");
    EXPECT_EQ(SetFileMode(m_sTarget, 0100700)[2],
              "no: Verify file mode 81C0 from file \"" + m_sTarget +
                  "\". Error=File mode not match (current file mode = 41C0)");
}

TEST_F(UtilitiesSelfTestParts, UpdateFileAttribute_OfAMissingFile_FailsInAllSteps)
{
    EXPECT_EQ(SetFileMode("/missing", 0100444),
              (Lines{"no: Set file mode 8124 to file \"/missing\". Error=No such file or directory "
                     "(2)",
                     "no: Get file mode from file \"/missing\". Error=Set file mode failed",
                     "no: Verify file mode 8124 from file \"/missing\". Error=Get file mode "
                     "failed"}));
}

// ---- Sizes for people ----

TEST(PrintableFileSize, HasOneDecimalAndAUnit)
{
    constexpr unsigned long long ONE = 1;
    const std::pair<unsigned long long, const char*> sizes[] = {
        {0, "0.0B"},
        {1, "1.0B"},
        {500, "500.0B"},
        {1023, "1023.0B"},
        {1024, "1024.0B"},  // of each unit this many are still written in it
        {1025, "1.0KB"},
        {1075, "1.0KB"},
        {1076, "1.1KB"},
        {1536, "1.5KB"},
        {10240, "10.0KB"},
        {1048575, "1024.0KB"},
        {1048576, "1024.0KB"},
        {1048577, "1.0MB"},
        {1572864, "1.5MB"},
        {ONE << 30, "1024.0MB"},
        {(ONE << 30) + 1, "1.0GB"},
        {5 * (ONE << 30), "5.0GB"},
        {ONE << 32, "4.0GB"},
        {ONE << 40, "1024.0GB"},
        {(ONE << 40) + 1, "1.0TB"},
        {ONE << 41, "2.0TB"},
        {ONE << 50, "1024.0TB"},
        {(ONE << 50) + 1, "1.0PB"},
        {ONE << 60, "1024.0PB"},
        {(ONE << 60) + 256, "1.0EB"},
        {ONE << 63, "8.0EB"},
        {0xFFFFFFFFFFFFFFFF, "16.0EB"},
    };
    for (const auto& [iBytes, pcWanted] : sizes) {
        char cText[REASON_SIZE];
        CUtilities::GetPrintableFileSize(iBytes, cText);
        EXPECT_STREQ(cText, pcWanted) << iBytes;
    }
}
