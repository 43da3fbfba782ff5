// Two ways to call the NFS program: its object directly, and a whole server over the wire. Results
// are bytes, so that a test asserts the layout that clients see.
#pragma once

#include <initializer_list>
#include <string>

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <gtest/gtest.h>

#include "Nfs3Prog.h"
#include "ServerFixture.h"
#include "StreamBytes.h"
#include "UtilitiesFixture.h"

// XDR words.
inline std::string Words(std::initializer_list<uint32_t> words)
{
    CXdr xdr;
    for (const uint32_t iWord : words)
        xdr.Word(iWord);
    return xdr.Bytes();
}

// A handle as the server makes it, of a file number that it need not have given out.
inline std::string MakeHandle(unsigned int iFileID)
{
    std::string sHandle(NFS3_FHSIZE, '\0');
    memcpy(sHandle.data(), &iFileID, sizeof(iFileID));
    return sHandle;
}

// The fattr3 that describes a local file, taken from the file itself.
inline std::string AttributesOf(const std::string& sPath)
{
    struct stat info = {};
    struct statvfs fileSystem = {};
    EXPECT_EQ(lstat(sPath.c_str(), &info), 0) << sPath;
    EXPECT_EQ(statvfs(sPath.c_str(), &fileSystem), 0) << sPath;
    uint32_t iType = 0;
    for (const auto& [iMode, iFileType] : {std::pair<mode_t, uint32_t>{S_IFREG, 1},
                                           {S_IFDIR, 2},
                                           {S_IFBLK, 3},
                                           {S_IFCHR, 4},
                                           {S_IFLNK, 5},
                                           {S_IFSOCK, 6},
                                           {S_IFIFO, 7}}) {
        if ((info.st_mode & S_IFMT) == iMode)
            iType = iFileType;
    }
    const dev_t iDevice = iType == 3 || iType == 4 ? info.st_rdev : info.st_dev;
    const auto iSize = static_cast<uint64_t>(info.st_size);
    return CXdr()
        .Word(iType)
        .Word(info.st_mode & 06777)
        .Word(static_cast<uint32_t>(info.st_nlink))
        .Word(info.st_uid)
        .Word(info.st_gid)
        .Hyper(iSize)
        .Hyper(iSize)
        .Word(iDevice >> 8 & 0xFF)
        .Word(static_cast<uint32_t>(iDevice) & 0xFFFF00FF)
        .Hyper(fileSystem.f_fsid)
        .Hyper(info.st_ino)
        .Word(static_cast<uint32_t>(info.st_atime))
        .Word(0)
        .Word(static_cast<uint32_t>(info.st_mtime))
        .Word(0)
        .Word(static_cast<uint32_t>(info.st_ctime))
        .Word(0)
        .Bytes();
}

// A program without a server. Nothing is logged unless a test asks for it.
class CNfs3ProgFixture : public CUtilitiesFixture {
protected:
    // Calls a procedure of m_prog and returns what it wrote; m_iResult is its result.
    std::string Process(uint32_t iProc, const std::string& sArguments)
    {
        return Process(&m_prog, iProc, sArguments);
    }

    std::string Process(CRpcProg* pProg, uint32_t iProc, const std::string& sArguments,
                        uint32_t iVersion = 3)
    {
        m_in.ResetBuffer();
        m_out.ResetBuffer();
        Receive(&m_in, sArguments);
        ProcessParam param;
        param.iVersion = iVersion;
        param.iProc = iProc;
        param.sRemoteAddr = "10.1.2.3";
        param.pRuntimeParam = &m_param;
        m_iResult = pProg->Process(&m_in, &m_out, &param);
        return GetWritten(m_out);
    }

    // The lines of a call with only these log bits.
    Lines LinesOf(int iBits, uint32_t iProc, const std::string& sArguments)
    {
        const int iBefore = m_param.GetLogControl();
        m_param.SetID("host");
        m_param.SetLogControl(iBits);
        m_recorder.Clear();
        Process(iProc, sArguments);
        m_param.SetLogControl(iBefore);
        return m_recorder.Lines();
    }

    std::string HandleOf(const std::string& sPath) { return MakeHandle(GetID(sPath)); }

    // The handle as an argument, behind its length.
    std::string HandleArgument(const std::string& sPath)
    {
        return CXdr().Opaque(HandleOf(sPath)).Bytes();
    }

    CNfs3Prog m_prog{&m_utilities};
    CInputStream m_in;
    COutputStream m_out;
    int m_iResult = -1;
};

// A server whose export "vm1" is mounted.
class CNfs3WireFixture : public CServerFixture {
protected:
    static constexpr size_t REPLY_HEADER_SIZE = 24;  // up to the results, without record mark

    void SetUp() override { StartMounted(false); }

    void StartMounted(bool bReadOnly)
    {
        Start(LOG_EVERYTHING, bReadOnly);
        m_sRoot = Mount("vm1");
    }

    // Calls a procedure and returns its results.
    std::string Results(uint32_t iProc, const std::string& sArguments)
    {
        const CReply reply = Call(iProc, sArguments);
        if (!reply.IsSuccess(m_iXid)) {
            ADD_FAILURE() << "Procedure " << iProc << " gives no results";
            return {};
        }
        return reply.Bytes().substr(REPLY_HEADER_SIZE);
    }

    // The handle of an entry of the export's root, as an argument behind its length.
    std::string HandleArgument(const std::string& sName)
    {
        return CXdr().Opaque(Lookup(m_sRoot, sName)).Bytes();
    }

    std::string RootArgument() const { return CXdr().Opaque(m_sRoot).Bytes(); }

    std::string m_sRoot;  // the handle of the export's directory
};
