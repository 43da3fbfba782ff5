#include "ExportIndex.h"

#include <iterator>
#include <random>

#include <gtest/gtest.h>

#include "Text.h"

namespace {

using Names = std::set<std::string>;

std::string Find(const CExportIndex& index, const std::string& sPathToCompare)
{
    const std::string* pName = index.Find(sPathToCompare);
    return pName == nullptr ? "(none)" : *pName;
}

std::string GetPathToCompare(const std::string& sPath)
{
    return sPath.empty() || sPath.back() == '/' ? sPath : sPath + "/";
}

// The walk that the index stands for: all exports in the order of their names.
std::string Scan(const std::map<std::string, std::string>& exports,
                 const std::string& sPathToCompare)
{
    for (const auto& [sName, sPath] : exports) {
        if (sPathToCompare.starts_with(GetPathToCompare(sPath)))
            return sName;
    }
    return "(none)";
}

// Short names of which one begins with another, and the odd ends: roots, empty and double slashes.
std::string GetRandomPath(std::mt19937* pRandom)
{
    const char* const NAMES[] = {"a", "b", "ab", "a.b", ""};
    std::string sPath = (*pRandom)() % 8 == 0 ? "" : "/";
    for (auto i = (*pRandom)() % 5; i > 0; i--) {
        sPath += NAMES[(*pRandom)() % std::size(NAMES)];
        if (i > 1 || (*pRandom)() % 4 == 0)
            sPath += "/";
    }
    return sPath;
}

}  // namespace

TEST(ExportIndex, Empty_HoldsNothing)
{
    const CExportIndex index;
    EXPECT_EQ(Find(index, ""), "(none)");
    EXPECT_EQ(Find(index, "/"), "(none)");
    EXPECT_EQ(Find(index, "/a/"), "(none)");
}

TEST(ExportIndex, Find_FolderAndBelow_ButNoNeighbour)
{
    CExportIndex index;
    index.Add("/srv/a", "vm1");
    EXPECT_EQ(Find(index, "/srv/a/"), "vm1");
    EXPECT_EQ(Find(index, "/srv/a/x/y/"), "vm1");
    EXPECT_EQ(Find(index, "/srv/ab/"), "(none)");
    EXPECT_EQ(Find(index, "/srv/"), "(none)");
    EXPECT_EQ(Find(index, "/"), "(none)");
}

TEST(ExportIndex, Find_NestedExports_SmallestNameWinsWhicheverIsDeeper)
{
    CExportIndex index;
    index.Add("/srv", "b");
    index.Add("/srv/deep", "c");
    index.Add("/srv/deep/deeper", "a");
    EXPECT_EQ(Find(index, "/srv/deep/"), "b");
    EXPECT_EQ(Find(index, "/srv/deep/deeper/x/"), "a");
}

TEST(ExportIndex, Find_RootExport_HoldsEveryAbsolutePath)
{
    CExportIndex index;
    index.Add("/", "root");
    EXPECT_EQ(Find(index, "/"), "root");
    EXPECT_EQ(Find(index, "/any/where/"), "root");
    EXPECT_EQ(Find(index, "relative/"), "(none)");
    EXPECT_EQ(Find(index, ""), "(none)");
}

TEST(ExportIndex, Find_EmptyPathExport_HoldsEveryPath)
{
    CExportIndex index;
    index.Add("", "all");
    EXPECT_EQ(Find(index, ""), "all");
    EXPECT_EQ(Find(index, "/any/"), "all");
    EXPECT_EQ(Find(index, "relative/"), "all");
}

TEST(ExportIndex, Find_EmptyName_IsAnAnswerToo)
{
    CExportIndex index;
    index.Add("/a", "");
    ASSERT_NE(index.Find("/a/"), nullptr);
    EXPECT_EQ(*index.Find("/a/"), "");
}

TEST(ExportIndex, Remove_TakesOnlyThatName)
{
    CExportIndex index;
    index.Add("/a", "one");
    index.Add("/a", "two");
    index.Remove("/a", "one");
    EXPECT_EQ(Find(index, "/a/"), "two");
    index.Remove("/a", "never");
    index.Remove("/never", "two");
    EXPECT_EQ(Find(index, "/a/"), "two");
    index.Remove("/a", "two");
    EXPECT_EQ(Find(index, "/a/"), "(none)");
}

TEST(ExportIndex, Clear_ForgetsAll)
{
    CExportIndex index;
    index.Add("/a", "one");
    index.Add("", "all");
    index.Clear();
    EXPECT_EQ(Find(index, "/a/"), "(none)");
}

TEST(ExportIndex, GetNames_AreThoseOfJustThatFolder)
{
    CExportIndex index;
    index.Add("/a", "two");
    index.Add("/a/", "one");
    index.Add("/a/b", "below");
    index.Add("", "all");
    EXPECT_EQ(index.GetNames("/a"), (Names{"one", "two"}));
    EXPECT_EQ(index.GetNames("/a/"), (Names{"one", "two"}));
    EXPECT_EQ(index.GetNames("/a/b"), Names{"below"});
    EXPECT_EQ(index.GetNames(""), Names{"all"});
    EXPECT_EQ(index.GetNames("/"), Names{});
    EXPECT_EQ(index.GetNames("/ab"), Names{});
    EXPECT_EQ(index.GetNames("/a/b/c"), Names{});
}

TEST(ExportIndex, GetNames_FollowsWhatIsRemoved)
{
    CExportIndex index;
    index.Add("/a", "one");
    index.Add("/a/", "two");
    index.Remove("/a/", "one");
    EXPECT_EQ(index.GetNames("/a"), Names{"two"});
    index.Remove("/a", "two");
    EXPECT_EQ(index.GetNames("/a"), Names{});
    index.Add("/b", "three");
    index.Clear();
    EXPECT_EQ(index.GetNames("/b"), Names{});
}

// A path that fills a buffer has no room for a slash: nothing is appended to it here either.
TEST(ExportIndex, LongestPath_StaysAsItIs)
{
    const std::string sFull = "/" + std::string(PATH_SIZE - 2, 'x');
    const std::string sFits = "/" + std::string(PATH_SIZE - 3, 'y');
    CExportIndex index;
    index.Add(sFull, "full");
    index.Add(sFits, "fits");
    EXPECT_EQ(Find(index, sFull), "full");
    EXPECT_EQ(Find(index, sFits + "/"), "fits");
    EXPECT_EQ(Find(index, sFits), "(none)");
    EXPECT_EQ(index.GetNames(sFull), Names{"full"});
    EXPECT_EQ(index.GetNames(sFits), Names{"fits"});
    index.Remove(sFull, "full");
    EXPECT_EQ(Find(index, sFull), "(none)");
}

TEST(ExportIndex, RandomExports_GiveWhatTheWalkGives)
{
    std::mt19937 random(51);
    CExportIndex index;
    std::map<std::string, std::string> exports;
    int iFound = 0;
    for (int i = 0; i < 50000; i++) {
        if (random() % 10 == 0) {
            const std::string sName = "vm" + std::to_string(random() % 40);
            const auto it = exports.find(sName);
            if (it != exports.end()) {
                index.Remove(it->second, sName);
                exports.erase(it);
            } else if (exports.size() < 12) {  // or nearly every path would have an export
                exports[sName] = GetRandomPath(&random);
                index.Add(exports[sName], sName);
            }
        }
        const std::string sPath = GetPathToCompare(GetRandomPath(&random));
        ASSERT_EQ(Find(index, sPath), Scan(exports, sPath)) << i << " " << sPath;
        iFound += Find(index, sPath) != "(none)";
    }
    EXPECT_GT(iFound, 1000);
    EXPECT_LT(iFound, 49000);
}
