#include "RuntimeParam.h"

#include <climits>

#include <gtest/gtest.h>

#include "Text.h"

TEST(RuntimeParam, NullIDs_ReadBackAsEmptyText)
{
    CRuntimeParam param(nullptr, 0);
    EXPECT_STREQ(param.GetID(), "");
    EXPECT_STREQ(param.GetIpcID(), "");
}

TEST(RuntimeParam, Construction_SetsIDAndLogControlAndNoIpcID)
{
    CRuntimeParam param("host", 3);
    EXPECT_STREQ(param.GetID(), "host");
    EXPECT_STREQ(param.GetIpcID(), "");
    EXPECT_EQ(param.GetLogControl(), 3);
}

TEST(RuntimeParam, SetNullIDs_ClearThem)
{
    CRuntimeParam param("host", 0);
    param.SetIpcID("client");
    EXPECT_STREQ(param.GetIpcID(), "client");
    param.SetID(nullptr);
    param.SetIpcID(nullptr);
    EXPECT_STREQ(param.GetID(), "");
    EXPECT_STREQ(param.GetIpcID(), "");
}

TEST(RuntimeParam, LogControlZero_SilencesEveryClass)
{
    const CRuntimeParam param("", 0);
    EXPECT_FALSE(param.IsLogError());
    EXPECT_FALSE(param.IsLogGeneralInfo());
    EXPECT_FALSE(param.IsLogRpc());
    EXPECT_FALSE(param.IsLogProcFuncName());
    EXPECT_FALSE(param.IsLogProcFuncArgu());
    EXPECT_FALSE(param.IsLogRedirectFile());
    EXPECT_FALSE(param.IsLogIpc());
    EXPECT_FALSE(param.IsLogIpcState());
    EXPECT_FALSE(param.IsLogFileAccess());
    EXPECT_FALSE(param.IsLogPortmap());
}

TEST(RuntimeParam, EachBit_EnablesItsOwnClassOnly)
{
    using BitTest = bool (CRuntimeParam::*)() const;
    const std::pair<int, BitTest> classes[] = {
        {0x001, &CRuntimeParam::IsLogError},        {0x002, &CRuntimeParam::IsLogGeneralInfo},
        {0x004, &CRuntimeParam::IsLogRpc},          {0x008, &CRuntimeParam::IsLogProcFuncName},
        {0x010, &CRuntimeParam::IsLogProcFuncArgu}, {0x020, &CRuntimeParam::IsLogRedirectFile},
        {0x040, &CRuntimeParam::IsLogIpc},          {0x080, &CRuntimeParam::IsLogIpcState},
        {0x100, &CRuntimeParam::IsLogFileAccess},   {0x200, &CRuntimeParam::IsLogPortmap},
    };
    for (const auto& [iBit, unused] : classes) {
        const CRuntimeParam param("", iBit);
        for (const auto& [iOther, pTest] : classes)
            EXPECT_EQ((param.*pTest)(), iOther == iBit) << iBit << " " << iOther;
    }
    const CRuntimeParam all("", 0x3FF);
    for (const auto& [iBit, pTest] : classes)
        EXPECT_TRUE((all.*pTest)()) << iBit;
}

TEST(RuntimeParam, UnknownBits_AreKeptAndTestNothing)
{
    const CRuntimeParam param("", 0x7C00);
    EXPECT_EQ(param.GetLogControl(), 0x7C00);
    EXPECT_FALSE(param.IsLogEnabled(0x3FF));
}

TEST(RuntimeParam, MaskWithSignBitInCommon_TestsFalse)
{
    const CRuntimeParam param("", -1);
    EXPECT_TRUE(param.IsLogEnabled(INT_MAX));
    EXPECT_FALSE(param.IsLogEnabled(INT_MIN));
    EXPECT_FALSE(param.IsLogEnabled(-1));
}

TEST(RuntimeParam, ServerID_OnlyTheExactReservedWordIsRefused)
{
    char cReason[REASON_SIZE] = "";
    EXPECT_FALSE(CRuntimeParam::IsValidServerID("server", cReason));
    EXPECT_STREQ(cReason, "Cannot use \"server\" as ID");
    EXPECT_TRUE(CRuntimeParam::IsValidServerID("server1", cReason));
    EXPECT_TRUE(CRuntimeParam::IsValidServerID("Server", cReason));
    EXPECT_TRUE(CRuntimeParam::IsValidServerID("", cReason));
}

TEST(RuntimeParam, ServerID_FirstInvalidCharacterIsNamed)
{
    char cReason[REASON_SIZE] = "";
    EXPECT_FALSE(CRuntimeParam::IsValidServerID("server/", cReason));
    EXPECT_STREQ(cReason, "Invalid char \"/\" inside ID");
    EXPECT_FALSE(CRuntimeParam::IsValidServerID("a b/c", cReason));
    EXPECT_STREQ(cReason, "Invalid char \" \" inside ID");
    EXPECT_FALSE(CRuntimeParam::IsValidServerID("a/b", nullptr));
    EXPECT_TRUE(CRuntimeParam::IsValidServerID("a\\b\tc:d", cReason));
}
