// READDIR and READDIRPLUS as clients see them.
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AutoFd.h"
#include "DescriptorShortage.h"
#include "FolderHooks.h"
#include "Listing.h"
#include "UnreadablePath.h"

namespace {

constexpr uint64_t ALL_ONES = ~uint64_t{0};

// The program as an object, for what no client can see or bring about.
class Nfs3ProgListing : public CNfs3ProgFixture {
protected:
    Nfs3ProgListing()
    {
        StopAccessTimes();
        Add(m_folder.Path(), "vm1");
        MakeFiles(m_sFolder, 0);
    }
    ~Nfs3ProgListing() override { g_pcUnreadable = nullptr; }

    std::string List(uint32_t iProc, const std::string& sFolder, uint64_t iCookie = 0)
    {
        return ClearPadding(iProc,
                            Process(iProc, ListArguments(iProc, HandleArgument(sFolder), iCookie)));
    }

    std::string Expected(uint32_t iProc, const std::string& sFolder, uint64_t iCookie = 0)
    {
        return ExpectedPage(iProc, sFolder, iCookie,
                            [this](const std::string& sPath) { return GetID(sPath); });
    }

    // Lists with so many descriptors left to open.
    std::string ListShort(uint32_t iProc, const std::string& sFolder, size_t iLeft = 0)
    {
        // Once before: a sanitizer's first look at a class needs a pipe.
        MakeFiles(m_folder.Path("empty"), 0);
        List(iProc, m_folder.Path("empty"));
        const std::string sArguments = ListArguments(iProc, HandleArgument(sFolder));
        std::string sReply;
        {
            const CDescriptorShortage shortage(iLeft);
            sReply = Process(iProc, sArguments);
        }
        return ClearPadding(iProc, sReply);
    }

    // Success without entries, at the end.
    static std::string NoEntries(const std::string& sPath)
    {
        return CXdr()
            .Raw(Words({0, 1}))
            .Raw(AttributesOf(sPath))
            .Hyper(VERIFIER)
            .Raw(Words({0, 1}))
            .Bytes();
    }

    const std::string m_sFolder = m_folder.Path("folder");
};

// The same over the wire.
class Nfs3ProgListingWire : public CNfs3WireFixture {
protected:
    void SetUp() override { SetUpFolder(false); }

    void SetUpFolder(bool bReadOnly)
    {
        StopAccessTimes();
        StartMounted(bReadOnly);
        MakeFiles(m_sFolder, 0);
        m_sHandle = HandleArgument("folder");
    }

    std::string List(uint32_t iProc, uint64_t iCookie = 0)
    {
        return CallList(iProc, ListArguments(iProc, m_sHandle, iCookie));
    }

    std::string CallList(uint32_t iProc, const std::string& sArguments)
    {
        return ClearPadding(iProc, Results(iProc, sArguments));
    }

    ListedPage GetPage(uint32_t iProc, uint64_t iCookie = 0)
    {
        return ParsePage(iProc, List(iProc, iCookie));
    }

    // Numbers are those of the handles that LOOKUP gives.
    NumberOf Number()
    {
        return [this](const std::string& sPath) {
            return GetNumber(Lookup(m_sRoot, sPath.substr(m_Folder.Path().size() + 1)));
        };
    }

    std::string Expected(uint32_t iProc, uint64_t iCookie = 0)
    {
        return ExpectedPage(iProc, m_sFolder, iCookie, Number());
    }

    static uint32_t GetNumber(const std::string& sHandle)
    {
        uint32_t iNumber = 0;
        EXPECT_EQ(sHandle.size(), HANDLE_SIZE);
        memcpy(&iNumber, sHandle.data(), std::min(sizeof(iNumber), sHandle.size()));
        return iNumber;
    }

    // Lists the folder from the start to its end, as a client does.
    std::vector<std::string> ListAll(uint32_t iProc)
    {
        std::vector<std::string> vNames;
        ListedPage page;
        do {
            page = GetPage(iProc, vNames.size());
            EXPECT_EQ(page.iStatus, 0U);
            EXPECT_EQ(page.bEof, page.vEntries.size() < PAGE_ENTRIES);
            for (const ListedEntry& entry : page.vEntries) {
                vNames.push_back(entry.sName);
                EXPECT_EQ(entry.iCookie, vNames.size());
            }
        } while (!page.bEof && !HasFailure());
        return vNames;
    }

    const std::string m_sFolder = m_Folder.Path("folder");
    std::string m_sHandle;  // of it, as an argument
};

class Nfs3ProgListingReadOnly : public Nfs3ProgListingWire {
protected:
    void SetUp() override { SetUpFolder(true); }
};

}  // namespace

// ---- Pages ----

TEST_F(Nfs3ProgListingWire, TwentyFiveFiles_ComeInThreePages)
{
    MakeFiles(m_sFolder, 25);
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        std::set<std::string> names;
        for (const auto& [iCookie, iEntries] :
             {std::pair{uint64_t{0}, size_t{10}}, {10, 10}, {20, 5}}) {
            const std::string sReply = List(iProc, iCookie);
            EXPECT_EQ(ToHex(sReply), ToHex(Expected(iProc, iCookie)));
            const ListedPage page = ParsePage(iProc, sReply);
            EXPECT_EQ(page.vEntries.size(), iEntries);
            EXPECT_EQ(page.bEof, iCookie == 20);
            for (size_t i = 0; i < page.vEntries.size(); i++) {
                EXPECT_EQ(page.vEntries[i].iCookie, iCookie + i + 1);
                names.insert(page.vEntries[i].sName);
            }
        }
        EXPECT_EQ(names.size(), 25U);
    }
}

TEST_F(Nfs3ProgListingWire, TenFiles_NeedASecondPage)
{
    MakeFiles(m_sFolder, 10);
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        const ListedPage first = GetPage(iProc);
        EXPECT_EQ(first.vEntries.size(), 10U);
        EXPECT_FALSE(first.bEof);
        const ListedPage second = GetPage(iProc, 10);
        EXPECT_EQ(second.iStatus, 0U);
        EXPECT_EQ(second.vEntries.size(), 0U);
        EXPECT_TRUE(second.bEof);
        EXPECT_EQ(ToHex(List(iProc, 10)), ToHex(Expected(iProc, 10)));
    }
}

TEST_F(Nfs3ProgListingWire, NineFiles_AreOnePage)
{
    MakeFiles(m_sFolder, 9);
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        const ListedPage page = GetPage(iProc);
        EXPECT_EQ(page.vEntries.size(), 9U);
        EXPECT_TRUE(page.bEof);
    }
}

TEST_F(Nfs3ProgListingWire, EmptyDirectory_HasNoEntries)
{
    for (const uint32_t iProc : LISTING_PROCEDURES)
        EXPECT_EQ(ToHex(List(iProc)), ToHex(CXdr()
                                                .Raw(Words({0, 1}))
                                                .Raw(AttributesOf(m_sFolder))
                                                .Hyper(VERIFIER)
                                                .Raw(Words({0, 1}))
                                                .Bytes()));
    EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureREADDIR] End stat=0"));
    EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureREADDIRPLUS] End stat=0"));
}

TEST_F(Nfs3ProgListingWire, OneEntry_InBytes)
{
    const std::string sPath = m_Folder.Write("folder/a b", "12345");
    const std::string sNumber = CXdr().Hyper(Number()(sPath)).Bytes();
    const std::string sHead = CXdr()
                                  .Raw(Words({0, 1}))
                                  .Raw(AttributesOf(m_sFolder))
                                  .Hyper(VERIFIER)
                                  .Word(1)
                                  .Raw(sNumber)
                                  .Raw(FromHex("00000003 61206200 00000000 00000001"))
                                  .Bytes();
    const std::string sTail = Words({0, 1});
    EXPECT_EQ(ToHex(List(READDIR)), ToHex(sHead + sTail));
    EXPECT_EQ(ToHex(List(READDIRPLUS)),
              ToHex(sHead + Words({1}) + AttributesOf(sPath) + Words({1, 56}) +
                    sNumber.substr(7, 1) + std::string(55, '\0') + sTail));
}

TEST_F(Nfs3ProgListingWire, DotEntries_AreNeitherListedNorCounted)
{
    for (const char* pcName : {"...", ".hidden", "..a", ". "})
        m_Folder.Write("folder/" + std::string(pcName), "");
    MakeFiles(m_sFolder, 20);
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        EXPECT_EQ(ListAll(iProc), ListNames(m_sFolder));
        // Wherever in the system's order the two stand: no cookie leads to them.
        for (uint64_t iCookie = 0; iCookie <= 25; iCookie++)
            EXPECT_EQ(ToHex(List(iProc, iCookie)), ToHex(Expected(iProc, iCookie))) << iCookie;
    }
    EXPECT_EQ(ListNames(m_sFolder).size(), 24U);
}

TEST_F(Nfs3ProgListingWire, Fileid_IsThatOfTheHandle)
{
    MakeFiles(m_sFolder, 5);
    // READDIR alone makes the numbers that the others then give.
    const ListedPage page = GetPage(READDIR);
    const ListedPage plus = GetPage(READDIRPLUS);
    ASSERT_EQ(page.vEntries.size(), 5U);
    for (size_t i = 0; i < 5; i++) {
        const std::string sPath = m_sFolder + "/" + page.vEntries[i].sName;
        const auto iNumber = static_cast<uint32_t>(page.vEntries[i].iFileID);
        EXPECT_EQ(Results(1, CXdr().Opaque(MakeHandle(iNumber)).Bytes()),
                  Words({0}) + AttributesOf(sPath));
        EXPECT_EQ(plus.vEntries[i].iFileID, iNumber);
        EXPECT_EQ(plus.vEntries[i].sHandle, MakeHandle(iNumber));
        EXPECT_EQ(Number()(sPath), iNumber);
        // And not the inode number, which the attributes show.
        EXPECT_NE(CXdr().Hyper(iNumber).Bytes(), plus.vEntries[i].sAttributes.substr(52, 8));
    }
}

TEST_F(Nfs3ProgListingWire, Verifier_ComesBackAsSent)
{
    MakeFiles(m_sFolder, 15);
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        for (const uint64_t iVerifier : {uint64_t{0}, uint64_t{1}, VERIFIER, ALL_ONES}) {
            for (const uint64_t iCookie : {uint64_t{0}, uint64_t{10}})
                EXPECT_EQ(
                    ToHex(CallList(iProc, ListArguments(iProc, m_sHandle, iCookie, iVerifier))),
                    ToHex(ExpectedPage(iProc, m_sFolder, iCookie, Number(), iVerifier)));
        }
    }
}

TEST_F(Nfs3ProgListingWire, LimitsInBytes_AreNotHeldTo)
{
    MakeFiles(m_sFolder, 25);
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        for (const uint32_t iDirCount : {0U, 1U, 0x80000000U, 0xFFFFFFFFU}) {
            for (const uint32_t iCount : {0U, 1U, 100U, 0x7FFFFFFFU, 0xFFFFFFFFU})
                EXPECT_EQ(ToHex(CallList(iProc, ListArguments(iProc, m_sHandle, 10, VERIFIER,
                                                              iDirCount, iCount))),
                          ToHex(Expected(iProc, 10)));
        }
    }
}

// ---- Cookies ----

TEST_F(Nfs3ProgListingWire, CookiePastTheEnd_IsAnEmptyPage)
{
    MakeFiles(m_sFolder, 25);
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        for (const uint64_t iCookie : {25U, 26U, 30U, 1000U, 0x7FFFFFFFU}) {
            const std::string sReply = List(iProc, iCookie);
            EXPECT_EQ(ToHex(sReply), ToHex(Expected(iProc, iCookie)));
            const ListedPage page = ParsePage(iProc, sReply);
            EXPECT_EQ(page.iStatus, 0U);
            EXPECT_EQ(page.vEntries.size(), 0U) << iCookie;
            EXPECT_TRUE(page.bEof);
        }
    }
}

TEST_F(Nfs3ProgListingWire, LowerHalfOfTheCookie_IsASignedNumber)
{
    MakeFiles(m_sFolder, 25);
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        const std::string sFirst = GetPage(iProc).vEntries.at(0).sName;
        for (const uint64_t iCookie : {ALL_ONES, uint64_t{0xFFFFFFFF}, uint64_t{0x80000000},
                                       uint64_t{0x8000000A}, uint64_t{0x7FFFFFFF80000000}}) {
            const std::string sReply = List(iProc, iCookie);
            EXPECT_EQ(ToHex(sReply), ToHex(Expected(iProc, iCookie)));
            const ListedPage page = ParsePage(iProc, sReply);
            ASSERT_EQ(page.vEntries.size(), 10U);
            EXPECT_EQ(page.vEntries[0].sName, sFirst);  // nothing is skipped
            for (size_t i = 0; i < 10; i++)
                EXPECT_EQ(page.vEntries[i].iCookie, iCookie + i + 1);
        }
        EXPECT_EQ(GetPage(iProc, ALL_ONES).vEntries.at(0).iCookie, 0U);
    }
}

TEST_F(Nfs3ProgListingWire, UpperHalfOfTheCookie_SkipsNothingAndIsCountedOn)
{
    MakeFiles(m_sFolder, 25);
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        const std::string sTenth = GetPage(iProc, 10).vEntries.at(0).sName;
        for (const uint64_t iUpper : {uint64_t{1} << 32, uint64_t{0xFFFFFFFF} << 32}) {
            EXPECT_EQ(ToHex(List(iProc, iUpper)), ToHex(Expected(iProc, iUpper)));
            const ListedPage page = GetPage(iProc, iUpper + 10);
            ASSERT_EQ(page.vEntries.size(), 10U);
            EXPECT_EQ(page.vEntries[0].sName, sTenth);
            EXPECT_EQ(page.vEntries[0].iCookie, iUpper + 11);
            EXPECT_EQ(page.vEntries[9].iCookie, iUpper + 20);
            EXPECT_TRUE(GetPage(iProc, iUpper + 25).vEntries.empty());
        }
    }
}

TEST_F(Nfs3ProgListingWire, AnyCookie_InAnyOrder_IsAnswered)
{
    MakeFiles(m_sFolder, 25);
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        for (const uint64_t iCookie : {24U, 3U, 13U, 23U, 0U, 0U, 10U, 10U, 20U, 15U, 1U})
            EXPECT_EQ(ToHex(List(iProc, iCookie)), ToHex(Expected(iProc, iCookie))) << iCookie;
    }
}

// ---- Names and kinds of entries ----

TEST_F(Nfs3ProgListingWire, NamesOfAllSorts_ComeByteForByte)
{
    std::set<std::string> names = {"n",
                                   "na",
                                   "nam",
                                   "name",
                                   " leading and trailing ",
                                   "new\nline\ttab",
                                   "back\\slash*?\"",
                                   "gr\xC3\xBC\xC3\x9F Gott",
                                   "\xE2\x82\xAC\xF0\x9F\x98\x80",
                                   "\x80\xFE\xFF",
                                   "\x01\x7F%s%n",
                                   std::string(255, 'n'),
                                   std::string(254, 'n') + "\xFF"};
    for (const std::string& sName : names)
        m_Folder.Write("folder/" + sName, "x");
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        const std::vector<std::string> vNames = ListAll(iProc);
        EXPECT_EQ(std::set<std::string>(vNames.begin(), vNames.end()), names);
        EXPECT_EQ(vNames.size(), names.size());
        for (const uint64_t iCookie : {0U, 10U})
            EXPECT_EQ(ToHex(List(iProc, iCookie)), ToHex(Expected(iProc, iCookie)));
    }
}

TEST_F(Nfs3ProgListingWire, TenLongestNames_FitIntoAReply)
{
    for (char c = 'a'; c < 'a' + 10; c++)
        m_Folder.Write("folder/" + std::string(255, c), "x");
    for (const uint32_t iProc : LISTING_PROCEDURES)
        EXPECT_EQ(ToHex(List(iProc)), ToHex(Expected(iProc)));
}

TEST_F(Nfs3ProgListing, FoldersPipesSocketsAndDevices_AreListed)
{
    MakeFiles(m_sFolder + "/folder", 3);
    ASSERT_EQ(mkfifo((m_sFolder + "/pipe").c_str(), 0600), 0);
    ASSERT_EQ(mknod((m_sFolder + "/device").c_str(), S_IFCHR | 0600, 0x0405), 0);
    const CAutoFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    CopyText(address.sun_path, sizeof(address.sun_path), (m_sFolder + "/socket").c_str());
    ASSERT_EQ(bind(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        const std::string sReply = List(iProc, m_sFolder);
        EXPECT_EQ(ToHex(sReply), ToHex(Expected(iProc, m_sFolder)));
        EXPECT_EQ(ParsePage(iProc, sReply).vEntries.size(), 4U);
    }
}

TEST_F(Nfs3ProgListing, Links_AreListedAsThemselvesWithTheNumberOfTheirTarget)
{
    const CScratchFolder outside;
    const std::string sFile = m_folder.Write("file", "12345");
    const std::pair<const char*, std::string> LINKS[] = {
        {"file", sFile}, {"folder", m_folder.Path()}, {"outside", outside.Path()}};
    for (const auto& [pcName, sTarget] : LINKS)
        std::filesystem::create_symlink(sTarget, m_sFolder + "/" + pcName);
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        const std::string sReply = List(iProc, m_sFolder);
        EXPECT_EQ(ToHex(sReply), ToHex(Expected(iProc, m_sFolder)));
        for (const ListedEntry& entry : ParsePage(iProc, sReply).vEntries) {
            const auto it = std::find_if(std::begin(LINKS), std::end(LINKS), [&](const auto& link) {
                return entry.sName == link.first;
            });
            ASSERT_NE(it, std::end(LINKS));
            EXPECT_EQ(GetPath(static_cast<unsigned int>(entry.iFileID)), it->second);
            if (iProc == READDIRPLUS) {
                EXPECT_EQ(GetWord(entry.sAttributes, 0), 5U);  // a link
            }
        }
    }
    // A number for what lies outside leads nowhere all the same.
    EXPECT_EQ(Process(1, CXdr().Opaque(HandleOf(outside.Path())).Bytes()), Words({5}));
}

TEST_F(Nfs3ProgListing, LinkToNothing_HasTheNumberOfItsOwnPath)
{
    std::filesystem::create_symlink("nowhere", m_sFolder + "/link");
    const unsigned int iNumber = GetID(m_sFolder + "/link");
    EXPECT_EQ(GetPath(iNumber), m_sFolder + "/link");
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        const ListedPage page = ParsePage(iProc, List(iProc, m_sFolder));
        ASSERT_EQ(page.vEntries.size(), 1U);
        EXPECT_EQ(page.vEntries[0].sName, "link");
        EXPECT_EQ(page.vEntries[0].iFileID, iNumber);
        if (iProc == READDIRPLUS) {
            EXPECT_EQ(page.vEntries[0].sHandle, MakeHandle(iNumber));
            EXPECT_EQ(GetWord(page.vEntries[0].sAttributes, 0), 5U);
        }
    }
}

TEST_F(Nfs3ProgListing, Entries_GetTheirNumbersByBeingListed)
{
    MakeFiles(m_sFolder, 12);
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        m_utilities.ResetFileTable();
        const ListedPage page = ParsePage(iProc, List(iProc, m_sFolder));  // the folder is 0
        EXPECT_EQ(page.vEntries.size(), 10U);
        uint64_t iNumber = 0;
        for (const ListedEntry& entry : page.vEntries) {
            EXPECT_EQ(entry.iFileID, ++iNumber);
            EXPECT_EQ(GetPath(static_cast<unsigned int>(iNumber)), m_sFolder + "/" + entry.sName);
        }
        EXPECT_EQ(GetPath(11), "(none)");  // none for what was not listed
    }
}

TEST_F(Nfs3ProgListing, EntryThatVanishesMeanwhile_HasNoAttributes)
{
    const std::string sPath = m_folder.Write("folder/name", "x");
    const unsigned int iNumber = GetID(sPath);
    g_pcUnreadable = sPath.c_str();
    EXPECT_EQ(ToHex(List(READDIR, m_sFolder)), ToHex(Expected(READDIR, m_sFolder)));
    EXPECT_EQ(ToHex(List(READDIRPLUS, m_sFolder)), ToHex(CXdr()
                                                             .Raw(Words({0, 1}))
                                                             .Raw(AttributesOf(m_sFolder))
                                                             .Hyper(VERIFIER)
                                                             .Word(1)
                                                             .Hyper(iNumber)
                                                             .String("name")
                                                             .Hyper(1)
                                                             .Raw(Words({0, 1}))
                                                             .Opaque(MakeHandle(iNumber))
                                                             .Raw(Words({0, 1}))
                                                             .Bytes()));
}

// The folder fits into a path buffer, and some of the names in it do not fit behind it.
TEST_F(Nfs3ProgListing, PathThatDoesNotFit_HasNoNumberNorAttributesNorHandle)
{
    std::string sDeep = m_sFolder;
    const std::string sPart(200, 'd');
    while (sDeep.size() + 1 + sPart.size() < PATH_SIZE - 100)
        sDeep += "/" + sPart;
    std::filesystem::create_directories(sDeep);
    const size_t iFits = PATH_SIZE - 1 - sDeep.size() - 1;
    ASSERT_LT(iFits, 255U);
    const CAutoFd folder(open(sDeep.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::string sLong(iFits + 1, 'n');
    for (const std::string& sName : {sLong, std::string(iFits, 'n')})
        CAutoFd(openat(folder.Get(), sName.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));

    for (const uint32_t iProc : LISTING_PROCEDURES) {
        const std::string sReply = List(iProc, sDeep);
        const ListedPage page = ParsePage(iProc, sReply);
        ASSERT_EQ(page.vEntries.size(), 2U);
        EXPECT_TRUE(page.bEof);
        const size_t iLong = page.vEntries[0].sName == sLong ? 0 : 1;
        EXPECT_EQ(page.vEntries[iLong].sName, sLong);
        EXPECT_EQ(page.vEntries[iLong].iFileID, 0xFFFFFFFFU);
        EXPECT_EQ(page.vEntries[iLong].sAttributes, "");
        EXPECT_EQ(page.vEntries[iLong].sHandle, "");
        const ListedEntry& fitting = page.vEntries[1 - iLong];
        const std::string sPath = sDeep + "/" + std::string(iFits, 'n');
        EXPECT_EQ(GetPath(static_cast<unsigned int>(fitting.iFileID)), sPath);
        if (iProc == READDIRPLUS) {
            EXPECT_EQ(fitting.sHandle, MakeHandle(GetID(sPath)));
            EXPECT_EQ(ToHex(fitting.sAttributes), ToHex(AttributesOf(sPath)));
        }
    }
    EXPECT_EQ(unlinkat(folder.Get(), sLong.c_str(), 0), 0);
}

// ---- Failures ----

TEST_F(Nfs3ProgListingWire, UnknownHandleAndRemovedExport_AreIoErrors)
{
    const CScratchFolder other;
    Export(other.Path(), "other");
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        for (const std::string& sHandle : {MakeHandle(999), MakeHandle(0xFFFFFFFF), std::string()})
            EXPECT_EQ(CallList(iProc, ListArguments(iProc, CXdr().Opaque(sHandle).Bytes())),
                      LISTING_REFUSED);
    }
    EXPECT_EQ(m_Log.Count("error|127.0.0.1|[Nfs3Prog.ProcedureREADDIR] Path record not found"), 3U);
    EXPECT_EQ(m_Log.Count("error|127.0.0.1|[Nfs3Prog.ProcedureREADDIRPLUS] Path record not found"),
              3U);
    EXPECT_EQ(m_Log.Count("info|127.0.0.1|[Nfs3Prog.ProcedureREADDIR] End stat=5"), 3U);
    EXPECT_EQ(m_Log.Count("info|127.0.0.1|[Nfs3Prog.ProcedureREADDIRPLUS] End stat=5"), 3U);
    m_pMain->RemoveMountPoint(m_Folder.Path().c_str());
    for (const uint32_t iProc : LISTING_PROCEDURES)
        EXPECT_EQ(List(iProc), LISTING_REFUSED);
    EXPECT_EQ(m_Log.Count("] Path record not found"), 8U);
}

TEST_F(Nfs3ProgListingWire, MissingDirectory_IsAnIoError)
{
    MakeFiles(m_sFolder, 0);
    std::filesystem::remove(m_sFolder);
    for (const uint32_t iProc : LISTING_PROCEDURES)
        EXPECT_EQ(List(iProc), LISTING_REFUSED);
    EXPECT_FALSE(m_Log.Contains("Path record not found"));
    EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureREADDIR] End stat=5"));
    EXPECT_TRUE(m_Log.Contains("info|vm1|[Nfs3Prog.ProcedureREADDIRPLUS] End stat=5"));
}

TEST_F(Nfs3ProgListing, FolderOutsideTheExports_IsAnIoError)
{
    const CScratchFolder outside;
    MakeFiles(outside.Path(), 3);
    for (const uint32_t iProc : LISTING_PROCEDURES)
        EXPECT_EQ(List(iProc, outside.Path()), LISTING_REFUSED);
}

TEST_F(Nfs3ProgListing, UnreadableAttributes_AreAnIoError)
{
    MakeFiles(m_sFolder, 3);
    const std::string sHandle = HandleArgument(m_sFolder);
    g_pcUnreadable = m_sFolder.c_str();
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        EXPECT_EQ(Process(iProc, ListArguments(iProc, sHandle)), LISTING_REFUSED);
        EXPECT_EQ(m_iResult, PRC_OK);
    }
}

TEST_F(Nfs3ProgListing, DirectoryThatCannotBeOpened_HasNoEntries)
{
    MakeFiles(m_sFolder, 25);
    for (const int iError : {EACCES, ENOENT, ENFILE, ENOMEM}) {
        const COpenFailure failure(iError);
        for (const uint32_t iProc : LISTING_PROCEDURES) {
            for (const uint64_t iCookie : {0U, 10U})
                EXPECT_EQ(ToHex(List(iProc, m_sFolder, iCookie)), ToHex(NoEntries(m_sFolder)));
        }
    }
    EXPECT_EQ(ParsePage(READDIR, List(READDIR, m_sFolder)).vEntries.size(), 10U);
}

TEST_F(Nfs3ProgListing, RegularFile_HasNoEntries)
{
    const std::string sPath = m_folder.Write("file", "12345");
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        for (const uint64_t iCookie : {uint64_t{0}, uint64_t{10}, ALL_ONES})
            EXPECT_EQ(ToHex(List(iProc, sPath, iCookie)), ToHex(NoEntries(sPath)));
    }
}

TEST_F(Nfs3ProgListing, NoFreeDescriptor_CachedFilesAreGivenUpAndItWorks)
{
    MakeFiles(m_sFolder, 25);
    std::vector<int> vFiles;
    for (int i = 0; i < 10; i++) {
        const std::string sPath = m_folder.Write("file" + std::to_string(i), "x");
        vFiles.push_back(m_utilities.GetCachedFileHandle(&m_param, &m_argu, sPath.c_str(), false));
    }
    EXPECT_EQ(ToHex(ListShort(READDIR, m_sFolder)), ToHex(Expected(READDIR, m_sFolder)));
    EXPECT_EQ(std::count_if(vFiles.begin(), vFiles.end(),
                            [](int iFile) { return fcntl(iFile, F_GETFD) == -1; }),
              1);
}

TEST_F(Nfs3ProgListing, NoFreeDescriptorAndNothingToGiveUp_HasNoEntries)
{
    MakeFiles(m_sFolder, 25);
    for (const uint32_t iProc : LISTING_PROCEDURES)
        EXPECT_EQ(ToHex(ListShort(iProc, m_sFolder)), ToHex(NoEntries(m_sFolder)));
}

// The directory takes the last one, and the size of a file is then what the system says.
TEST_F(Nfs3ProgListing, OneFreeDescriptor_IsEnough)
{
    MakeFiles(m_sFolder, 25);
    for (const uint32_t iProc : LISTING_PROCEDURES)
        EXPECT_EQ(ToHex(ListShort(iProc, m_sFolder, 1)), ToHex(Expected(iProc, m_sFolder)));
}

TEST_F(Nfs3ProgListing, Listings_LeaveNoDescriptorBehind)
{
    MakeFiles(m_sFolder, 25);
    const std::string sFile = m_folder.Write("file", "");
    List(READDIR, sFile);  // its size takes a descriptor, which stays cached
    const size_t iBefore = CountDescriptors();
    for (const uint64_t iCookie : {uint64_t{0}, uint64_t{10}, uint64_t{20}, uint64_t{30}, ALL_ONES})
        List(READDIR, m_sFolder, iCookie);
    List(READDIR, sFile);
    EXPECT_EQ(CountDescriptors(), iBefore);
}

// ---- Lines ----

TEST_F(Nfs3ProgListing, Arguments_AreShownByTheirBitAlone)
{
    MakeFiles(m_sFolder, 2);
    const std::vector<std::string> vNames = ListNames(m_sFolder);
    const std::string sHandle = HandleArgument(m_sFolder);
    const uint64_t iCookie = 0xFFFFFFFF00000000;
    const std::string sArguments =
        ListArguments(READDIR, sHandle, iCookie, ALL_ONES, 1, 0xFFFFFFFE);
    const std::string sLabel = "|[Nfs3Prog.ProcedureREADDIR] ";
    Lines vLines = LinesOf(LOG_CONTROL_PROC_FUNC_ARGU, READDIR, sArguments);
    ASSERT_EQ(vLines.size(), 6U);
    EXPECT_EQ(vLines[0], "info|host" + sLabel + "Path = " + m_sFolder);
    EXPECT_EQ(vLines[1], "info|host" + sLabel +
                             "Cookie=18446744069414584320, cookieverf=18446744073709551615, "
                             "count=4294967294");
    EXPECT_EQ(vLines[2].rfind("info|vm1" + sLabel + "Path=" + m_sFolder + ", type=2,", 0), 0U);
    EXPECT_EQ(vLines[3], "info|vm1" + sLabel + "Cookie=18446744069414584321, name=" + vNames[0]);
    EXPECT_EQ(vLines[4], "info|vm1" + sLabel + "Cookie=18446744069414584322, name=" + vNames[1]);
    EXPECT_EQ(vLines[5], "info|vm1" + sLabel + "End stat=0");
    EXPECT_EQ(LinesOf(LOG_CONTROL_ERROR, READDIR, sArguments), Lines{});
    EXPECT_EQ(LinesOf(LOG_CONTROL_PROC_FUNC_NAME, READDIR, sArguments),
              (Lines{"info|host|[Nfs3Prog.Process]", "info|host|[Nfs3Prog.ProcedureREADDIR]"}));
}

TEST_F(Nfs3ProgListing, ArgumentsOfReaddirplus_AreShownByTheirBitAlone)
{
    MakeFiles(m_sFolder, 1);
    const std::string sArguments =
        ListArguments(READDIRPLUS, HandleArgument(m_sFolder), 0, VERIFIER, 0xFFFFFFFF, 7);
    const std::string sLabel = "|[Nfs3Prog.ProcedureREADDIRPLUS] ";
    const Lines vLines = LinesOf(LOG_CONTROL_PROC_FUNC_ARGU, READDIRPLUS, sArguments);
    ASSERT_EQ(vLines.size(), 6U);
    EXPECT_EQ(vLines[0], "info|host" + sLabel + "Path = " + m_sFolder);
    EXPECT_EQ(vLines[1], "info|host" + sLabel +
                             "Cookie=0, cookieverf=81985529216486895, dircount=4294967295, "
                             "maxcount=7");
    EXPECT_EQ(vLines[2].rfind("info|vm1" + sLabel + "Path=" + m_sFolder + ", type=2,", 0), 0U);
    EXPECT_EQ(vLines[3], "info|vm1" + sLabel + "Cookie=1, name=0");
    EXPECT_EQ(vLines[4].rfind("info|vm1" + sLabel + "Path=" + m_sFolder + "/0, type=1,", 0), 0U);
    EXPECT_EQ(vLines[5], "info|vm1" + sLabel + "End stat=0");
    EXPECT_EQ(LinesOf(LOG_CONTROL_ERROR, READDIRPLUS, sArguments), Lines{});
    EXPECT_EQ(LinesOf(LOG_CONTROL_PROC_FUNC_NAME, READDIRPLUS, sArguments),
              (Lines{"info|host|[Nfs3Prog.Process]", "info|host|[Nfs3Prog.ProcedureREADDIRPLUS]"}));
}

TEST_F(Nfs3ProgListing, Refusal_IsShownByTheErrorBitAlone)
{
    const std::string sHandle = CXdr().Opaque(MakeHandle(77)).Bytes();
    for (const auto& [iProc, pcName] :
         {std::pair{READDIR, "READDIR"}, {READDIRPLUS, "READDIRPLUS"}}) {
        const std::string sLabel = "[Nfs3Prog.Procedure" + std::string(pcName) + "] ";
        const std::string sArguments = ListArguments(iProc, sHandle);
        EXPECT_EQ(LinesOf(LOG_CONTROL_ERROR, iProc, sArguments),
                  Lines{"error|host|" + sLabel + "Path record not found"});
        const Lines vLines = LinesOf(LOG_CONTROL_PROC_FUNC_ARGU, iProc, sArguments);
        ASSERT_EQ(vLines.size(), 2U);
        EXPECT_EQ(vLines[1], "info|host|" + sLabel + "End stat=5");
    }
}

// ---- Read-only ----

TEST_F(Nfs3ProgListingReadOnly, Listings_AreNotAffected)
{
    MakeFiles(m_sFolder, 15);
    for (const uint32_t iProc : LISTING_PROCEDURES) {
        EXPECT_EQ(ToHex(List(iProc)), ToHex(Expected(iProc)));
        EXPECT_EQ(ToHex(List(iProc, 10)), ToHex(Expected(iProc, 10)));
    }
}
