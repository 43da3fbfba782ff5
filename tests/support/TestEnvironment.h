// Where a test runs: cut off from the machine's network, with scratch space that nobody else sees.
#pragma once

#include <filesystem>
#include <string>

// The program's private scratch root, a tmpfs that goes with the process.
std::string GetScratchRoot();

// A fresh folder below the scratch root, removed with the object. Its path is canonical.
class CScratchFolder {
public:
    CScratchFolder();
    ~CScratchFolder();
    CScratchFolder(const CScratchFolder&) = delete;
    CScratchFolder& operator=(const CScratchFolder&) = delete;

    const std::string& Path() const { return m_sPath; }
    std::string Path(const std::string& sName) const { return m_sPath + "/" + sName; }

    // Writes a file below the folder and returns its path.
    std::string Write(const std::string& sName, const std::string& sContents) const;

private:
    std::string m_sPath;
};

std::string ReadWholeFile(const std::string& sPath);

// Open descriptors and threads of this process: for comparing before and after.
size_t CountDescriptors();
size_t CountThreads();
