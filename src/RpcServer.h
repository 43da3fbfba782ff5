// The ONC RPC call layer (RFC 5531) that all programs share: finds calls in what a connection
// received, has them answered and frames the replies.
#pragma once

#include <array>

#include "LogArgu.h"
#include "Mutex.h"
#include "RpcProg.h"
#include "RuntimeParam.h"
#include "Socket.h"

enum RpcMessageType : unsigned int {
    CALL = 0,
    REPLY = 1,
};

enum RpcReplyState : unsigned int {
    MSG_ACCEPTED = 0,
    MSG_DENIED = 1,  // never sent
};

enum RpcAcceptState : unsigned int {
    SUCCESS = 0,
    PROG_UNAVAIL = 1,
    PROG_MISMATCH = 2,  // never sent: a call of a wrong version is not recognised as one
    PROC_UNAVAIL = 3,
    GARBAGE_ARGS = 4,
};

// A call's header as it lies on the wire: big-endian words, the bodies of credential and verifier
// (lLength bytes each) left out.
struct OPAQUE_AUTH {
    unsigned int lFlavor;
    unsigned int lLength;
};

struct RPC_HEADER {  // UDP
    unsigned int lXID;
    unsigned int lMsg;
    unsigned int lRpcvers;
    unsigned int lProg;
    unsigned int lVers;
    unsigned int lProc;
    OPAQUE_AUTH cred;
    OPAQUE_AUTH verf;
};

struct RPC_STM_HEADER {    // TCP
    unsigned int lHeader;  // record mark
    unsigned int lXID;
    unsigned int lMsg;
    unsigned int lRpcvers;
    unsigned int lProg;
    unsigned int lVers;
    unsigned int lProc;
    OPAQUE_AUTH cred;
    OPAQUE_AUTH verf;
};

static_assert(sizeof(RPC_HEADER) == 40 && sizeof(RPC_STM_HEADER) == 44);

// Locking: one mutex, so that one call at a time is decoded, executed and answered across all
// connections and programs. Only waiting for a peer that does not read its reply happens outside
// it, and holds up no one else.
class CRpcServer : public ISocketListener {
public:
    // pUtilities is not owned and outlives this object. The log control is copied from
    // pRuntimeParam.
    CRpcServer(CUtilities* pUtilities, const CRuntimeParam* pRuntimeParam);

    // Registers a program, which is not owned, under iProg (100000 to 100009). Before any socket
    // is opened with this as its listener.
    void Set(int iProg, CRpcProg* pProg);

    void SetLogControl(int iLogControl) { m_pRuntimeParam.SetLogControl(iLogControl); }

    // Answers every whole call that the socket has received.
    void SocketReceived(CSocket* pSocket) override;

    // Moves the read position to the next thing that looks like a call to program iProg, past
    // whatever lies before it. False, with the position unchanged, if nothing does yet.
    bool LookForValidHeader(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, unsigned long iProg,
                            int iSocketType, CInputStream* pIn, COutputStream* pOut);

    // Executes the call at the read position and writes its whole reply. The result is a PRC_
    // value.
    int Process(CRuntimeParam* pRuntimeParam, unsigned long iProg, int iSocketType,
                CInputStream* pIn, COutputStream* pOut, const char* pcRemoteAddr);

private:
    bool AnswerCalls(CSocket* pSocket) REQUIRES(m_hMutex);
    int AnswerCall(CSocket* pSocket, const std::string& sRemoteAddr) REQUIRES(m_hMutex);
    void RememberSearch(CSocket* pSocket);
    bool FindNextHeader(CSocket* pSocket, unsigned long long iRecordEnd, unsigned int iSearchedEnd);
    bool Search(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, unsigned long iProg,
                int iSocketType, CInputStream* pIn, unsigned int iFrom);
    CRpcProg* FindProgram(unsigned long iProg) const;
    bool IsValidHeader(unsigned long iProg, unsigned int iVers, unsigned int iProc) const;
    int ReadHeader(CRuntimeParam* pRuntimeParam, int iSocketType, CInputStream* pIn,
                   RPC_STM_HEADER* pHeader);
    void LogHeader(CRuntimeParam* pRuntimeParam, int iSocketType, const RPC_STM_HEADER& header);
    int CallProgram(CRuntimeParam* pRuntimeParam, const RPC_STM_HEADER& header, int iResult,
                    CInputStream* pIn, COutputStream* pOut, const char* pcRemoteAddr);

    CUtilities* m_pUtilities;  // not owned

    CMutex m_hMutex{HostCalls::ALLOWED};
    // Its IDs are those of the call in hand; the log control may be set from any thread.
    CRuntimeParam m_pRuntimeParam;

    std::array<CRpcProg*, PROGRAM_COUNT> m_pProgTable = {};  // not owned; by number - 100000
};
