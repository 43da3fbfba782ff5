// What tests of one host application share: its virtual machine, a controller, and NFS clients that
// meet the server in it.
#pragma once

#include <memory>
#include <string>

#include "JavaHost.h"
#include "NamespaceFixture.h"

// One virtual machine for all cases of a suite; each has a controller and a host object of its own.
// Native methods get the controller's handle, which is the driver's variable "h".
class CJavaFixture : public CNamespaceFixture {
protected:
    using Lines = CJavaHost::Lines;

    static void SetUpTestSuite() { s_pJava = std::make_unique<CJavaHost>(); }
    static void TearDownTestSuite() { s_pJava.reset(); }

    void SetUp() override { Initial(0); }

    void TearDown() override
    {
        CNamespaceFixture::TearDown();
        EXPECT_EQ(Native("stopServer"), "void");
        EXPECT_EQ(Native("stopRemoteController"), "void");
        EXPECT_EQ(Native("terminate"), "void");
        s_pJava->Clear();
    }

    // Makes the controller and a new host object. The ID is "test".
    static void Initial(int iMode, int iLogControl = 0)
    {
        Java("new host");
        const std::string sResult = Java("h = host.initial \"test\" " + std::to_string(iMode) +
                                         " " + std::to_string(iLogControl));
        ASSERT_FALSE(sResult.starts_with("!")) << sResult;
        ASSERT_NE(sResult, "0");
        s_pJava->Clear();
    }

    // A command on the driver's main thread.
    static std::string Java(const std::string& sCommand) { return s_pJava->Call(sCommand); }

    // A native method on the host object; the words of the arguments stand as in a command.
    template <typename... Words>
    static std::string Native(const std::string& sMethod, const Words&... words)
    {
        return Java(Command(sMethod, words...));
    }
    template <typename... Words>
    static std::string Command(const std::string& sMethod, const Words&... words)
    {
        std::string sCommand = "host." + sMethod + " $h";
        ((sCommand += std::string(" ") + words), ...);
        return sCommand;
    }

    static std::string Quote(const std::string& sText) { return CJavaHost::Quote(sText); }

    // Starts the server, publishes m_Folder as "vm1" and mounts it.
    void StartJavaServer()
    {
        ASSERT_EQ(Native("startServer", "0", "0", "false"), "true");
        ASSERT_EQ(Native("addMountPoint", Quote(m_Folder.Path()), Quote("vm1")), "true");
        m_sRoot = Mount("vm1");
    }

    // A redirected file in the export, without a segment; its handle. The server is to run.
    std::string OpenRedirected(const std::string& sName, uint64_t iSize = 100)
    {
        m_Folder.Write(sName, "");
        EXPECT_EQ(Native("openRedirectedFile", Quote(m_Folder.Path(sName)), std::to_string(iSize),
                         "false", "0", "0"),
                  "void");
        return Lookup(m_sRoot, sName);
    }

    // The status of SETATTR; the guard is off.
    uint32_t Setattr(const std::string& sHandle, const std::string& sAttributes)
    {
        return CServerFixture::Call(SETATTR,
                                    CXdr().Opaque(sHandle).Raw(sAttributes).Word(0).Bytes())
            .Word();
    }

    // The number of bytes that WRITE tells of, or "(status n)".
    std::string WriteAt(const std::string& sHandle, uint64_t iOffset, const std::string& sData)
    {
        const auto iLength = static_cast<uint32_t>(sData.size());
        CReply reply = CServerFixture::Call(
            WRITE,
            CXdr().Opaque(sHandle).Hyper(iOffset).Word(iLength).Word(2).Opaque(sData).Bytes());
        const uint32_t iStatus = reply.Word();
        reply.Hyper();  // two absent halves
        return iStatus != 0 ? "(status " + std::to_string(iStatus) + ")"
                            : std::to_string(reply.Word());
    }

    static inline std::unique_ptr<CJavaHost> s_pJava;
};
