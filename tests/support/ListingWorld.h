// Clients that list folders while the folders change, and a server that must answer each of them as
// one that opens the folder anew for every page.
#pragma once

#include <array>
#include <random>

#include <fcntl.h>
#include <sys/stat.h>

#include "FolderHooks.h"
#include "Listing.h"

// A few folders below one that is exported. Each step is a page for one of the clients, which go
// through the folders at their own pace, or a change, made through the server or behind its back.
class CListingWorld {
public:
    // Calls a procedure and returns its results.
    using Caller = std::function<std::string(uint32_t iProc, const std::string& sArguments)>;

    CListingWorld(const std::string& sRoot, const std::string& sRootHandle, Caller caller,
                  unsigned int iSeed)
        : m_sRoot(sRoot),
          m_sRootHandle(sRootHandle),
          m_Caller(std::move(caller)),
          m_iSeed(iSeed),
          m_Random(iSeed)
    {
        for (size_t i = 0; i < 4; i++)
            MakeFolder("folder" + std::to_string(i));
        for (Client& client : m_Clients)
            Restart(&client);
    }

    void Run(int iSteps)
    {
        for (int i = 0; i < iSteps; i++) {
            SCOPED_TRACE("seed " + std::to_string(m_iSeed) + ", step " + std::to_string(i));
            if (Pick(10) == 0)
                Change();
            else
                List(&m_Clients[Pick(m_Clients.size())]);
            if (testing::Test::HasFailure())
                return;
        }
    }

    // Pages with something to skip, and those of them for which no directory was opened.
    unsigned int GetLaterPages() const { return m_iLaterPages; }
    unsigned int GetContinuedPages() const { return m_iContinuedPages; }

private:
    struct Client {
        std::string sFolder;  // what its handle leads to, relative to the root
        std::string sHandle;
        uint32_t iProc = READDIR;
        uint64_t iCookie = 0;
    };

    size_t Pick(size_t iChoices) { return m_Random() % iChoices; }
    std::string PickFolder() { return m_vFolders[Pick(m_vFolders.size())]; }
    std::string GetPath(const std::string& sName) const { return m_sRoot + "/" + sName; }
    std::string GetFreshName() { return "fresh" + std::to_string(m_iFresh++); }

    // A directory and a name as arguments; names may lead deeper down.
    std::string Named(const std::string& sName) const
    {
        return CXdr().Opaque(m_sRootHandle).String(sName).Bytes();
    }

    std::string Lookup(const std::string& sName)
    {
        const std::string sReply = m_Caller(3, Named(sName));
        EXPECT_EQ(GetWord(sReply, 0), 0U) << sName;
        return sReply.size() < 64 ? MakeHandle(0xFFFFFFFF) : sReply.substr(8, NFS3_FHSIZE);
    }

    uint32_t GetNumber(const std::string& sPath)
    {
        const std::string sHandle = Lookup(sPath.substr(m_sRoot.size() + 1));
        uint32_t iNumber = 0;
        memcpy(&iNumber, sHandle.data(), sizeof(iNumber));
        return iNumber;
    }

    // ---- Listing ----

    void Restart(Client* pClient)
    {
        pClient->sFolder = PickFolder();
        pClient->sHandle = CXdr().Opaque(Lookup(pClient->sFolder)).Bytes();
        pClient->iProc = Pick(2) == 0 ? READDIR : READDIRPLUS;
        pClient->iCookie = 0;
    }

    void List(Client* pClient)
    {
        constexpr uint64_t ODD_COOKIES[] = {
            5, 10, 20, 0x7FFFFFFF, 0x80000000, uint64_t{1} << 32 | 10, ~uint64_t{0}};
        if (Pick(30) == 0)
            pClient->iCookie = ODD_COOKIES[Pick(std::size(ODD_COOKIES))];
        const std::string sArguments =
            ListArguments(pClient->iProc, pClient->sHandle, pClient->iCookie);
        const unsigned int iBefore = g_iOpened;
        const std::string sReply = m_Caller(pClient->iProc, sArguments);
        const unsigned int iOpened = g_iOpened - iBefore;

        const std::string sPath = GetPath(pClient->sFolder);
        const bool bExists = std::filesystem::exists(sPath);
        const std::string sExpected =
            bExists ? ExpectedPage(pClient->iProc, sPath, pClient->iCookie,
                                   [this](const std::string& sEntry) { return GetNumber(sEntry); })
                    : LISTING_REFUSED;
        ASSERT_EQ(ToHex(ClearPadding(pClient->iProc, sReply)), ToHex(sExpected))
            << pClient->sFolder << " from " << pClient->iCookie;
        EXPECT_LE(iOpened, bExists ? 1U : 0U);
        if (bExists && pClient->iCookie > 0) {
            m_iLaterPages++;
            m_iContinuedPages += iOpened == 0 ? 1 : 0;
        }
        const ListedPage page = ParsePage(pClient->iProc, sReply);
        pClient->iCookie += page.vEntries.size();
        if (page.iStatus != 0 || page.bEof)
            Restart(pClient);
    }

    // ---- Changes ----

    void Change()
    {
        if (g_iClockAhead != 0)
            WaitForNextTimestamp();
        m_bThroughServer = Pick(2) == 0;
        switch (Pick(10)) {
        case 0:
            MakeFolder(Pick(2) == 0 ? GetFreshName() : PickFolder() + "/" + GetFreshName());
            break;
        case 1:
            RemoveFolder();
            break;
        case 2: {
            const std::string sFolder = PickFolder();
            RenameFolder(sFolder, GetFreshName());
            break;
        }
        case 3:
            ReplaceFolder();
            break;
        case 4:
            ChangeTimes(PickFolder());
            break;
        case 5:
        case 6:
            RemoveEntry();
            break;
        case 7:
            RenameEntry();
            break;
        default:
            Create(PickFolder() + "/" + GetEntryName());
        }
    }

    // Long ones too, so that a folder takes the system several reads.
    std::string GetEntryName()
    {
        const std::string sName = "entry" + std::to_string(Pick(400));
        return Pick(3) == 0 ? sName + std::string(200, '-') : sName;
    }

    void Create(const std::string& sName)
    {
        if (m_bThroughServer)
            m_Caller(8, Named(sName) + Words({0, 0, 0, 0, 0, 0, 0}));
        else
            CAutoFd(open(GetPath(sName).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    }

    void Remove(const std::string& sName)
    {
        if (m_bThroughServer)
            EXPECT_EQ(m_Caller(12, Named(sName)), Words({0, 0, 0})) << sName;
        else
            EXPECT_TRUE(std::filesystem::remove(GetPath(sName))) << sName;
    }

    // Kept: the server says that it failed where the old name had never been told to a client.
    void Rename(const std::string& sFrom, const std::string& sTo)
    {
        if (m_bThroughServer)
            m_Caller(14, Named(sFrom) + Named(sTo));
        else
            std::filesystem::rename(GetPath(sFrom), GetPath(sTo));
        EXPECT_TRUE(std::filesystem::exists(GetPath(sTo))) << sFrom;
    }

    // One entry of a folder that is no folder itself; empty if there is none.
    std::string PickEntry(const std::string& sFolder)
    {
        std::vector<std::string> vNames = ListNames(GetPath(sFolder));
        std::erase_if(vNames, [&](const std::string& sName) {
            return std::filesystem::is_directory(GetPath(sFolder + "/" + sName));
        });
        return vNames.empty() ? "" : sFolder + "/" + vNames[Pick(vNames.size())];
    }

    void RemoveEntry()
    {
        const std::string sEntry = PickEntry(PickFolder());
        if (!sEntry.empty())
            Remove(sEntry);
    }

    void RenameEntry()
    {
        const std::string sEntry = PickEntry(PickFolder());
        if (!sEntry.empty())
            Rename(sEntry, PickFolder() + "/" + GetFreshName());
    }

    void MakeFolder(const std::string& sName)
    {
        if (m_bThroughServer)
            EXPECT_EQ(GetWord(m_Caller(9, Named(sName) + Words({0, 0, 0, 0, 0, 0})), 0), 0U);
        else
            EXPECT_TRUE(std::filesystem::create_directory(GetPath(sName))) << sName;
        m_vFolders.push_back(sName);
        m_bThroughServer = false;
        constexpr std::array SIZES = {0, 3, 10, 35, 70, 200};
        for (int i = SIZES[Pick(SIZES.size())]; i > 0; i--)
            Create(sName + "/" + GetEntryName());
    }

    // Of one without folders in it.
    void RemoveFolder()
    {
        const std::string sFolder = PickFolder();
        if (m_vFolders.size() <= 4 ||
            std::any_of(m_vFolders.begin(), m_vFolders.end(),
                        [&](const std::string& sOther) { return IsPathBelow(sOther, sFolder); }))
            return;
        for (const std::string& sName : ListNames(GetPath(sFolder)))
            Remove(sFolder + "/" + sName);
        if (m_bThroughServer)
            EXPECT_EQ(m_Caller(13, Named(sFolder)), Words({0, 0, 0}));
        else
            EXPECT_TRUE(std::filesystem::remove(GetPath(sFolder)));
        std::erase(m_vFolders, sFolder);
    }

    // Through the server, handles of it and of all below follow.
    void RenameFolder(const std::string& sFrom, const std::string& sTo)
    {
        Rename(sFrom, sTo);
        const auto Follow = [&](std::string* psFolder) {
            if (*psFolder == sFrom || IsPathBelow(*psFolder, sFrom))
                *psFolder = sTo + psFolder->substr(sFrom.size());
        };
        for (std::string& sFolder : m_vFolders)
            Follow(&sFolder);
        if (!m_bThroughServer)
            return;
        for (Client& client : m_Clients)
            Follow(&client.sFolder);
    }

    void ReplaceFolder()
    {
        const std::string sFolder = PickFolder();
        RenameFolder(sFolder, GetFreshName());
        MakeFolder(sFolder);
    }

    void ChangeTimes(const std::string& sFolder)
    {
        const struct timespec times[] = {{0, UTIME_OMIT}, {1000000000, 0}};
        EXPECT_EQ(utimensat(AT_FDCWD, GetPath(sFolder).c_str(), times, 0), 0);
    }

    const std::string m_sRoot;
    const std::string m_sRootHandle;
    const Caller m_Caller;
    const unsigned int m_iSeed;
    std::mt19937 m_Random;

    std::vector<std::string> m_vFolders;  // those that exist, relative to the root
    std::array<Client, 6> m_Clients;
    bool m_bThroughServer = false;  // the change in hand
    int m_iFresh = 0;
    unsigned int m_iLaterPages = 0;
    unsigned int m_iContinuedPages = 0;
};
