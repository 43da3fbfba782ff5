// READDIR and READDIRPLUS: how they are asked, how their replies are read, and what a reply must be
// for a directory as it stands on the disk.
#pragma once

#include <algorithm>
#include <cstdint>
#include <dirent.h>
#include <functional>
#include <string>
#include <sys/mount.h>
#include <vector>

#include <gtest/gtest.h>

#include "Nfs3Fixture.h"

constexpr uint32_t READDIR = 16;
constexpr uint32_t READDIRPLUS = 17;
constexpr uint32_t LISTING_PROCEDURES[] = {READDIR, READDIRPLUS};
constexpr size_t PAGE_ENTRIES = 10;
constexpr uint64_t VERIFIER = 0x0123456789ABCDEF;
const std::string LISTING_REFUSED = Words({5, 0});

// Stops the scratch root from noting when something was read: a directory's attributes would
// change by being listed, and a comparison fail whenever a second passes meanwhile.
inline void StopAccessTimes()
{
    ASSERT_EQ(mount(nullptr, "/run", nullptr, MS_REMOUNT | MS_BIND | MS_NOATIME, nullptr), 0);
}

// The arguments of a listing; sHandle stands behind its length.
inline std::string ListArguments(uint32_t iProc, const std::string& sHandle, uint64_t iCookie = 0,
                                 uint64_t iVerifier = VERIFIER, uint32_t iDirCount = 512,
                                 uint32_t iCount = 8192)
{
    CXdr xdr;
    xdr.Raw(sHandle).Hyper(iCookie).Hyper(iVerifier);
    if (iProc == READDIRPLUS)
        xdr.Word(iDirCount);
    return xdr.Word(iCount).Bytes();
}

struct ListedEntry {
    uint64_t iFileID = 0;
    std::string sName;
    uint64_t iCookie = 0;
    std::string sAttributes;  // empty if they are absent
    std::string sHandle;      // likewise
};

struct ListedPage {
    uint32_t iStatus = 0;
    std::string sAttributes;
    uint64_t iVerifier = 0;
    std::vector<ListedEntry> vEntries;
    bool bEof = false;
};

// Reads results from front to back; what is not there reads as zeros.
class CResultReader {
public:
    explicit CResultReader(const std::string& sResults) : m_sResults(sResults) {}

    uint32_t Word() { return GetWord(Take(4), 0); }
    uint64_t Hyper()
    {
        const uint64_t iHigh = Word();
        return iHigh << 32 | Word();
    }
    std::string Opaque()
    {
        const uint32_t iLength = Word();
        return Take((size_t{iLength} + 3) / 4 * 4).substr(0, iLength);
    }
    std::string Take(size_t iLength)
    {
        if (iLength > Left()) {
            ADD_FAILURE() << "The reply ends early";
            m_iPosition = m_sResults.size();
            return std::string(std::min<size_t>(iLength, 4096), '\0');
        }
        m_iPosition += iLength;
        return m_sResults.substr(m_iPosition - iLength, iLength);
    }
    bool Bool()
    {
        const uint32_t iWord = Word();
        EXPECT_LE(iWord, 1U);
        return iWord == 1;
    }
    std::string Attributes() { return Bool() ? Take(84) : ""; }
    size_t Left() const { return m_sResults.size() - m_iPosition; }

private:
    const std::string m_sResults;
    size_t m_iPosition = 0;
};

inline ListedPage ParsePage(uint32_t iProc, const std::string& sResults)
{
    CResultReader reader(sResults);
    ListedPage page;
    page.iStatus = reader.Word();
    page.sAttributes = reader.Attributes();
    if (page.iStatus == 0) {
        page.iVerifier = reader.Hyper();
        while (reader.Bool()) {
            ListedEntry entry;
            entry.iFileID = reader.Hyper();
            entry.sName = reader.Opaque();
            entry.iCookie = reader.Hyper();
            if (iProc == READDIRPLUS) {
                entry.sAttributes = reader.Attributes();
                entry.sHandle = reader.Bool() ? reader.Opaque() : "";
            }
            page.vEntries.push_back(entry);
        }
        page.bEof = reader.Bool();
    }
    EXPECT_EQ(reader.Left(), 0U);
    return page;
}

// The same results with zeros behind the names: a reply moves over its padding and leaves there
// what the buffer held.
inline std::string ClearPadding(uint32_t iProc, const std::string& sResults)
{
    const ListedPage page = ParsePage(iProc, sResults);
    CXdr xdr;
    const auto AddOptional = [&xdr](const std::string& sBytes, const std::string& sEncoded) {
        xdr.Bool(!sBytes.empty()).Raw(sBytes.empty() ? "" : sEncoded);
    };
    xdr.Word(page.iStatus);
    AddOptional(page.sAttributes, page.sAttributes);
    if (page.iStatus != 0)
        return xdr.Bytes();
    xdr.Hyper(page.iVerifier);
    for (const ListedEntry& entry : page.vEntries) {
        xdr.Bool(true).Hyper(entry.iFileID).String(entry.sName).Hyper(entry.iCookie);
        if (iProc != READDIRPLUS)
            continue;
        AddOptional(entry.sAttributes, entry.sAttributes);
        AddOptional(entry.sHandle, CXdr().Opaque(entry.sHandle).Bytes());
    }
    return xdr.Bool(false).Bool(page.bEof).Bytes();
}

// The names that a listing shows, in the system's order: the directory is read in one go.
inline std::vector<std::string> ListNames(const std::string& sFolder)
{
    std::vector<std::string> vNames;
    DIR* pFolder = opendir(sFolder.c_str());
    if (pFolder == nullptr)
        return vNames;
    while (const struct dirent* pEntry = readdir(pFolder)) {
        const std::string sName = pEntry->d_name;
        if (sName != "." && sName != "..")
            vNames.push_back(sName);
    }
    closedir(pFolder);
    return vNames;
}

// The number of a path, as the server has it.
using NumberOf = std::function<uint32_t(const std::string& sPath)>;

inline std::string ExpectedEntry(uint32_t iProc, const std::string& sFolder,
                                 const std::string& sName, uint64_t iCookie, const NumberOf& number)
{
    const std::string sPath = sFolder + "/" + sName;
    const uint32_t iNumber = number(sPath);
    CXdr xdr;
    xdr.Word(1).Hyper(iNumber).String(sName).Hyper(iCookie);
    if (iProc == READDIRPLUS)
        xdr.Word(1).Raw(AttributesOf(sPath)).Word(1).Opaque(MakeHandle(iNumber));
    return xdr.Bytes();
}

// What a page must be: a server that opens the directory anew and skips what the client has had.
inline std::string ExpectedPage(uint32_t iProc, const std::string& sFolder, uint64_t iCookie,
                                const NumberOf& number, uint64_t iVerifier = VERIFIER)
{
    CXdr xdr;
    xdr.Word(0).Word(1).Raw(AttributesOf(sFolder)).Hyper(iVerifier);
    const std::vector<std::string> vNames = ListNames(sFolder);
    const auto iSkipped = static_cast<int32_t>(static_cast<uint32_t>(iCookie));
    size_t iNext = iSkipped > 0 ? static_cast<size_t>(iSkipped) : 0;
    size_t iListed = 0;
    for (; iListed < PAGE_ENTRIES && iNext < vNames.size(); iListed++)
        xdr.Raw(ExpectedEntry(iProc, sFolder, vNames[iNext++], ++iCookie, number));
    return xdr.Word(0).Bool(iListed < PAGE_ENTRIES).Bytes();
}

// Files "0", "1", ... in a folder, which is made if it is missing.
inline void MakeFiles(const std::string& sFolder, size_t iCount)
{
    std::filesystem::create_directories(sFolder);
    for (size_t i = 0; i < iCount; i++)
        CAutoFd(open((sFolder + "/" + std::to_string(i)).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC,
                     0644));
}
