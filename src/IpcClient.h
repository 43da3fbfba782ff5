// The asking end of a local channel.
#pragma once

#include <sys/types.h>

#include "IpcBasic.h"

// One exchange: fill the request, send it, read the reply. Then the object has had its day.
// Nothing here takes a time-out: an exchange lasts as long as the other process takes to answer. It
// fails soon if meanwhile a signal asks this process to stop (see CStopSignal), or the server in
// it, or the channel on whose behalf it takes place, is being stopped. Locking: one thread. Any
// number of objects may talk to one channel at once.
class CIpcClient : public CIpcBasic {
public:
    // Neither is owned; both outlive this object.
    CIpcClient(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam);

    // The buffers, which are zero at first.
    IpcDataInst* GetDataInst() { return &m_IpcDataInst; }

    // Makes the request one of this type, and shows it as its record.
    template <typename Record>
    Record* InitialRequest(int iType)
    {
        InitialRequestData(&m_IpcDataInst.request, iType);
        return AsRecord<Record>(&m_IpcDataInst.request);
    }

    // False, with the reason, if there was no exchange. A reply of any length is one, also none at
    // all: the readers below then find nothing.
    bool SendRequest(const char* pcChannel, char* pcError);

    // The same; a failure goes to the log.
    bool SendRequest(const char* pcChannel);

    // What the reply says, if it is of that kind; else the value that stands here.
    bool GetBoolReply();         // false
    long GetLongReply();         // 0
    int GetIntReply();           // -1
    const char* GetExptReply();  // null. Texts are good as long as this object
    const char* GetMsgReply();   // null

private:
    bool Exchange(LogArgu* pLogArgu, int iSocket, const sockaddr_un& address, char* pcError);
    bool HasPatience(int iWaited, int* piPatience);
    bool Connect(int iSocket, const sockaddr_un& address);
    ssize_t Receive(int iSocket, IpcDataBuf* pReply);
    bool IsReply(int iType);
    const char* GetText(int iType);

    IpcDataInst m_IpcDataInst = {};
};
