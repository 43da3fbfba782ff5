// Scratch space for the benchmarks that touch files.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

// A fresh folder in the system's place for temporary files, removed with the object. Its path is
// canonical, as the paths of exports are.
class CBenchFolder {
public:
    CBenchFolder()
        : m_sPath(std::filesystem::canonical(std::filesystem::temp_directory_path()).string() +
                  "/stagenfs-bench-XXXXXX")
    {
        if (mkdtemp(m_sPath.data()) == nullptr) {
            perror("mkdtemp");
            exit(EXIT_FAILURE);
        }
    }
    ~CBenchFolder()
    {
        std::error_code error;
        std::filesystem::remove_all(m_sPath, error);
    }
    CBenchFolder(const CBenchFolder&) = delete;
    CBenchFolder& operator=(const CBenchFolder&) = delete;

    const std::string& Path() const { return m_sPath; }

    // Writes a file of iSize bytes below the folder and returns its path.
    std::string Write(const std::string& sName, size_t iSize) const
    {
        const std::string sPath = m_sPath + "/" + sName;
        std::ofstream(sPath, std::ios::binary) << std::string(iSize, 'x');
        return sPath;
    }

private:
    std::string m_sPath;
};
