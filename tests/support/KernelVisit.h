// A kernel guest that comes to use a server, and the frame of the suites that ask about its visit.
#pragma once

#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <sys/statvfs.h>
#include <vector>

#include <gtest/gtest.h>

#include "KernelGuest.h"
#include "LogRecorder.h"
#include "NfsMain.h"
#include "TestEnvironment.h"
#include "Text.h"

constexpr char DONE[] = "0";  // what `try` tells of a command that succeeded without a word

// A mount is answered, and the reply is ours, accepted and without an error.
constexpr char UMNT_REPLY[] = "80000018000000070000000100000000000000000000000000000000";

// Bytes without a pattern that a shifted or repeated piece could hide in; each seed has its own.
inline std::string Noise(size_t iSize, uint64_t iState)
{
    std::string sBytes(iSize, '\0');
    for (char& cByte : sBytes) {
        iState ^= iState << 13;
        iState ^= iState >> 7;
        iState ^= iState << 17;
        cByte = static_cast<char>(iState >> 32);
    }
    return sBytes;
}

inline std::vector<std::string> Words(const std::string& sText)
{
    std::istringstream stream(sText);
    return {std::istream_iterator<std::string>(stream), std::istream_iterator<std::string>()};
}

// A host that remembers what it was told and takes every change as it comes.
class CAcceptingHost : public CLogRecorder {
public:
    int WriteRedirectedFile(const char* pcID, const char* pcPath, unsigned long long iSeek,
                            int iSeekType, unsigned int iLength) override
    {
        CLogRecorder::WriteRedirectedFile(pcID, pcPath, iSeek, iSeekType, iLength);
        return static_cast<int>(iLength);
    }
};

// A server with a published folder, and a guest that comes to use it.
class CVisit {
public:
    // The server has its export, and the guest is not there yet, when it is prepared further.
    void Run(const GuestJob& job, const std::function<void(CNfsMain*)>& prepare = {})
    {
        const size_t iDescriptors = CountDescriptors();
        char cReason[REASON_SIZE] = "";
        CNfsMain main("kernel test", 0);
        main.SetCallback(&m_Host);
        ASSERT_TRUE(main.Initial(cReason)) << cReason;
        ASSERT_TRUE(main.StartServer(0, 0, 0, 0, false, cReason)) << cReason;
        ASSERT_TRUE(main.AddMountPoint(m_Folder.Path().c_str(), "vm1", cReason)) << cReason;
        if (prepare)
            prepare(&main);
        m_Guest.Run(job);
        EXPECT_EQ(statvfs(m_Folder.Path().c_str(), &m_Space), 0);
        m_iMounted = main.GetMountInfo(true, false);
        main.StopServer();
        main.Terminate();
        EXPECT_EQ(CountDescriptors(), iDescriptors);
    }

    CScratchFolder m_Folder;   // published
    CScratchFolder m_Outside;  // not published
    CAcceptingHost m_Host;
    CKernelGuest m_Guest;
    struct statvfs m_Space = {};  // of the published folder, when the guest had ended
    int m_iMounted = -1;          // how many exports were mounted then
};

// A suite derives from this, makes its visit in SetUpTestSuite, and asks about it in its cases.
class CKernelTest : public testing::Test {
protected:
    static void TearDownTestSuite() { s_pVisit.reset(); }

    void SetUp() override
    {
        if (!CKernelGuest::WhatIsMissing().empty())
            GTEST_SKIP() << "The kernel test is skipped without " << CKernelGuest::WhatIsMissing();
        ASSERT_NE(s_pVisit, nullptr);
    }

    // False where no guest can run; the cases are skipped then.
    static bool Prepare()
    {
        if (!CKernelGuest::WhatIsMissing().empty())
            return false;
        s_pVisit = std::make_unique<CVisit>();
        return true;
    }

    static std::string Result(const std::string& sName) { return s_pVisit->m_Guest.Result(sName); }

    static std::string Published(const std::string& sName)
    {
        return s_pVisit->m_Folder.Path(sName);
    }

    static std::string Contents(const std::string& sName)
    {
        return ReadWholeFile(Published(sName));
    }

    // What every suite's guest must find at both ends of its visit.
    static void ExpectQuietVisit()
    {
        EXPECT_EQ(Result("mount"), DONE);
        EXPECT_EQ(s_pVisit->m_Guest.Complaints(), "");
        EXPECT_EQ(s_pVisit->m_iMounted, 0);
    }

    static inline std::unique_ptr<CVisit> s_pVisit;  // null where no guest can run
};
