// A service object with a host that listens, a caller, and a place for files.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "LogRecorder.h"
#include "TestEnvironment.h"
#include "Text.h"
#include "Utilities.h"

using Lines = std::vector<std::string>;

class CUtilitiesFixture : public testing::Test {
protected:
    CUtilitiesFixture() { m_utilities.SetCallback(&m_recorder); }

    // Publishes a directory; the reason is empty where that succeeds.
    std::string Add(const std::string& sPath, const std::string& sName)
    {
        char cReason[REASON_SIZE] = "";
        const bool bDone = m_utilities.AddMountInfo(&m_param, &m_argu, sPath.c_str(), sName.c_str(),
                                                    "ipc", cReason);
        EXPECT_EQ(bDone, cReason[0] == '\0');
        return cReason;
    }

    // The name of the export that holds a path.
    std::string Find(const std::string& sPath)
    {
        MountInfo info;
        const bool bFound = m_utilities.GetMountInfoByPath(&m_param, &m_argu, sPath.c_str(), &info);
        return bFound ? info.sExportName : "(none)";
    }

    int CountExports() { return m_utilities.GetMountInfo(&m_param, false, false); }

    unsigned int GetID(const std::string& sPath)
    {
        return m_utilities.GetFileID(&m_param, &m_argu, sPath.c_str());
    }

    // The path of a file number.
    std::string GetPath(unsigned int iID)
    {
        char cPath[PATH_SIZE];
        const bool bKnown = m_utilities.GetFilePath(&m_param, &iID, cPath, sizeof(cPath));
        return bKnown ? cPath : "(none)";
    }

    const CScratchFolder m_folder;
    CLogRecorder m_recorder;
    CUtilities m_utilities;
    CRuntimeParam m_param{"host", 0};
    LogArgu m_argu{"Test"};
};
