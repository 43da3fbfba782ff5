// The contract between the RPC layer and a program.
#pragma once

#include <string>

class CInputStream;
class COutputStream;
class CRuntimeParam;
class CUtilities;

constexpr unsigned int FIRST_PROGRAM = 100000;  // the programs served are this and the next nine
constexpr unsigned int PROGRAM_COUNT = 10;

constexpr unsigned int ANY_VERSION = 0xFFFFFFFF;    // any version is taken
constexpr unsigned int ANY_PROCEDURE = 0xFFFFFFFF;  // any procedure number is taken

enum ProgramResult : int {
    PRC_OK = 0,         // answered, whatever status the answer carries
    PRC_FAIL = 1,       // the arguments could not be decoded
    PRC_NOTIMP = 2,     // no such procedure or version
    PRC_TRUNCATED = 3,  // the arguments run past what was received
};

// One call, as a program gets it.
struct ProcessParam {
    unsigned int iVersion = 0;               // the call's version of the program
    unsigned int iProc = 0;                  // procedure number
    std::string sRemoteAddr;                 // the client's IPv4 address in dotted text
    CRuntimeParam* pRuntimeParam = nullptr;  // not owned: the RPC server's own
};

// Base of the programs. The RPC server calls them one call at a time.
class CRpcProg {
public:
    // pUtilities is not owned, may be null, and outlives the program.
    explicit CRpcProg(CUtilities* pUtilities) : m_pUtilities(pUtilities) {}
    virtual ~CRpcProg() = default;
    CRpcProg(const CRpcProg&) = delete;
    CRpcProg& operator=(const CRpcProg&) = delete;

    // Reads the arguments, which start at the read position, and writes the results, nothing of
    // the reply around them. The result is a PRC_ value.
    virtual int Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) = 0;

    // What the search for a call accepts: this version only, and numbers below this one.
    virtual unsigned int GetVersion() { return ANY_VERSION; }
    virtual unsigned int GetMaxSupportProc() { return ANY_PROCEDURE; }

protected:
    // The line that names a procedure, under its log bit.
    void LogName(ProcessParam* pParam, const char* pcName);

    // Both are for a handler of exceptions: they log the failure and yield its result.
    int FailTruncated(ProcessParam* pParam, const char* pcName, const char* pcText);
    int FailUnknown(ProcessParam* pParam, const char* pcName);

    CUtilities* m_pUtilities;  // not owned
};
