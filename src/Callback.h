// The bridge to the host application's Java object.
#pragma once

#include <jni.h>

#include "Host.h"

// Calls methods of one Java object, from any native thread: a thread that the virtual machine does
// not know is made known for the length of one call. Nothing is looked up before it is needed, so a
// host may leave methods out; a call of one that is missing fails.
// A failure is a result and nothing else: an exception that the host throws is taken away, and no
// call is made on a thread that has one pending already.
// Locking: none is needed; the same object serves any number of threads at once.
class CCallback : public IHost {
public:
    // Keeps the object from being collected as long as this lives.
    CCallback(JNIEnv* pEnv, jobject jObj);
    ~CCallback() override;

    // Only on a thread that the virtual machine knows: it asks without making it known.
    bool IsInterrupted() override;

    // False if the host was not called.
    bool LogInfo(const char* pcID, const char* pcMessage) override;
    bool LogError(const char* pcID, const char* pcMessage) override;
    bool LogRaw(const char* pcID, const char* pcMessage) override;

    int UpdateRedirectedFileAttributes(const char* pcID, const char* pcPath, bool bSize,
                                       unsigned long long iSize, bool bAccessTime,
                                       unsigned long iAccessTimeSec, bool bLastModifiedTime,
                                       unsigned long iLastModifiedTimeSec) override;
    int RemoveRedirectedFile(const char* pcID, const char* pcPath) override;
    int RenameRedirectedFile(const char* pcID, const char* pcPathFrom,
                             const char* pcPathTo) override;
    int WriteRedirectedFile(const char* pcID, const char* pcPath, unsigned long long iSeek,
                            int iSeekType, unsigned int iLength) override;

    // Leaves a java.io.IOException pending on the calling thread, which the host meets when its
    // native method returns.
    void ThrowIOException(const char* pcMessage);

    // Global references; null and no effect on a thread that the virtual machine does not know.
    jobject GetGlobalRef(jobject jObj);
    void FreeGlobalRef(jobject jObj);

    // The environment of the calling thread, and what the virtual machine says about it: JNI_OK,
    // or JNI_EDETACHED for a thread that it does not know. -1 without a virtual machine.
    int GetEnv(JNIEnv** ppEnv);

    // Makes the calling thread known if GetEnv said that it is not. True if it is known now.
    bool AttrachThisThread(JNIEnv** ppEnv, int iGetEnvResult);

    // The virtual machine refuses this for a thread with Java frames, which is as it should be.
    void DetachThisThread();

private:
    bool FireMessageLog(const char* pcMethod, const char* pcID, const char* pcMessage);
    bool FireMessageLogWOAT(JNIEnv* pEnv, jobject jObj, const char* pcMethod, const char* pcID,
                            const char* pcMessage);

    JavaVM* m_jVM = nullptr;   // not owned
    jobject m_jObj = nullptr;  // global reference, owned
};
