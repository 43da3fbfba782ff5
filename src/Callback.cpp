#include "Callback.h"

#include <exception>
#include <pthread.h>
#include <string>

#include "JavaText.h"
#include "Text.h"

namespace {

constexpr char LOG_SIGNATURE[] = "(Ljava/lang/String;Ljava/lang/String;)V";

// What one call makes in the virtual machine: references that go when it is over, on a thread that
// is detached then, whoever attached it.
class CJavaCall {
public:
    explicit CJavaCall(CCallback* pCallback) : m_pCallback(pCallback)
    {
        const int iResult = pCallback->GetEnv(&m_pEnv);
        if (!pCallback->AttrachThisThread(&m_pEnv, iResult))
            m_pEnv = nullptr;
    }
    ~CJavaCall()
    {
        if (m_pEnv != nullptr)
            m_pCallback->DetachThisThread();
    }
    CJavaCall(const CJavaCall&) = delete;
    CJavaCall& operator=(const CJavaCall&) = delete;

    // Null if Java cannot be reached, also where an exception waits to be seen by the host.
    JNIEnv* GetEnv() const
    {
        return m_pEnv != nullptr && !m_pEnv->ExceptionCheck() ? m_pEnv : nullptr;
    }

private:
    CCallback* m_pCallback;  // not owned
    JNIEnv* m_pEnv = nullptr;
};

// A local reference that goes with the object. On a thread that runs no Java code nobody else would
// ever delete it.
template <typename Type>
class CLocalRef {
public:
    CLocalRef(JNIEnv* pEnv, Type jObj) : m_pEnv(pEnv), m_jObj(jObj) {}
    ~CLocalRef()
    {
        if (m_jObj != nullptr)
            m_pEnv->DeleteLocalRef(m_jObj);
    }
    CLocalRef(const CLocalRef&) = delete;
    CLocalRef& operator=(const CLocalRef&) = delete;

    Type Get() const { return m_jObj; }

private:
    JNIEnv* m_pEnv;
    Type m_jObj;
};

// Takes an exception away; true if there was one.
bool ClearException(JNIEnv* pEnv)
{
    if (!pEnv->ExceptionCheck())
        return false;
    pEnv->ExceptionClear();
    return true;
}

// Null if there is no memory.
jstring NewText(JNIEnv* pEnv, const char* pcText)
{
    try {
        jstring jText = pEnv->NewStringUTF(ToModifiedUtf8(pcText).c_str());
        ClearException(pEnv);
        return jText;
    } catch (const std::exception&) {
        return nullptr;
    }
}

jboolean ToJava(bool bValue)
{
    return bValue ? JNI_TRUE : JNI_FALSE;
}

// The object's method of that name; null if it has none.
jmethodID FindMethod(JNIEnv* pEnv, jclass jClass, const char* pcName, const char* pcSignature)
{
    jmethodID jMethod = pEnv->GetMethodID(jClass, pcName, pcSignature);
    return ClearException(pEnv) ? nullptr : jMethod;
}

// Lets operation make one call, if Java and the object can be reached; else -1.
template <typename Operation>
int CallHost(CCallback* pCallback, jobject jObj, Operation operation)
{
    if (jObj == nullptr)
        return -1;
    const CJavaCall call(pCallback);
    JNIEnv* pEnv = call.GetEnv();
    return pEnv == nullptr ? -1 : operation(pEnv);
}

// Calls a method that answers with an int and takes two texts first. -1 if it cannot be called or
// throws.
template <typename... Arguments>
int CallForInt(JNIEnv* pEnv, jobject jObj, const char* pcName, const char* pcSignature,
               const char* pcID, const char* pcPath, Arguments... arguments)
{
    const CLocalRef<jclass> jClass(pEnv, pEnv->GetObjectClass(jObj));
    jmethodID jMethod = FindMethod(pEnv, jClass.Get(), pcName, pcSignature);
    if (jMethod == nullptr)
        return -1;
    const CLocalRef<jstring> jID(pEnv, NewText(pEnv, pcID));
    const CLocalRef<jstring> jPath(pEnv, NewText(pEnv, pcPath));
    if (jID.Get() == nullptr || jPath.Get() == nullptr)
        return -1;
    const jint iResult = pEnv->CallIntMethod(jObj, jMethod, jID.Get(), jPath.Get(), arguments...);
    return ClearException(pEnv) ? -1 : iResult;
}

}  // namespace

CCallback::CCallback(JNIEnv* pEnv, jobject jObj)
{
    if (pEnv->GetJavaVM(&m_jVM) != JNI_OK)
        m_jVM = nullptr;
    if (m_jVM == nullptr)
        PrintText("[Callback::Constructor] vm = NULL\n");
    else
        m_jObj = GetGlobalRef(jObj);
}

// The last user may be a thread that the virtual machine does not know.
CCallback::~CCallback()
{
    if (m_jObj == nullptr)
        return;
    JNIEnv* pEnv = nullptr;
    const int iResult = GetEnv(&pEnv);
    if (!AttrachThisThread(&pEnv, iResult))
        return;
    FreeGlobalRef(m_jObj);
    if (iResult == JNI_EDETACHED)
        DetachThisThread();
}

jobject CCallback::GetGlobalRef(jobject jObj)
{
    JNIEnv* pEnv = nullptr;
    return GetEnv(&pEnv) == JNI_OK && jObj != nullptr ? pEnv->NewGlobalRef(jObj) : nullptr;
}

void CCallback::FreeGlobalRef(jobject jObj)
{
    JNIEnv* pEnv = nullptr;
    if (GetEnv(&pEnv) == JNI_OK && jObj != nullptr)
        pEnv->DeleteGlobalRef(jObj);
}

int CCallback::GetEnv(JNIEnv** ppEnv)
{
    if (m_jVM == nullptr)
        return -1;
    return m_jVM->GetEnv(reinterpret_cast<void**>(ppEnv), JNI_VERSION_1_4);
}

bool CCallback::AttrachThisThread(JNIEnv** ppEnv, int iGetEnvResult)
{
    if (m_jVM == nullptr)
        return false;
    if (iGetEnvResult != JNI_EDETACHED)
        return true;
    if (m_jVM->AttachCurrentThread(reinterpret_cast<void**>(ppEnv), nullptr) == JNI_OK)
        return true;
    PrintText("GetEnv: fail to attach thread (%lu)\n",
              reinterpret_cast<unsigned long>(pthread_self()));
    return false;
}

void CCallback::DetachThisThread()
{
    if (m_jVM != nullptr)
        m_jVM->DetachCurrentThread();
}

bool CCallback::IsInterrupted()
{
    JNIEnv* pEnv = nullptr;
    if (GetEnv(&pEnv) != JNI_OK || m_jObj == nullptr || pEnv->ExceptionCheck())
        return false;
    const CLocalRef<jclass> jClass(pEnv, pEnv->GetObjectClass(m_jObj));
    jmethodID jMethod = FindMethod(pEnv, jClass.Get(), "isInterrupted", "()Z");
    if (jMethod == nullptr)
        return false;
    const jboolean bResult = pEnv->CallBooleanMethod(m_jObj, jMethod);
    return !ClearException(pEnv) && bResult == JNI_TRUE;
}

bool CCallback::LogInfo(const char* pcID, const char* pcMessage)
{
    return FireMessageLog("logInfo", pcID, pcMessage);
}

bool CCallback::LogError(const char* pcID, const char* pcMessage)
{
    return FireMessageLog("logError", pcID, pcMessage);
}

bool CCallback::LogRaw(const char* pcID, const char* pcMessage)
{
    return FireMessageLog("logRaw", pcID, pcMessage);
}

bool CCallback::FireMessageLog(const char* pcMethod, const char* pcID, const char* pcMessage)
{
    if (m_jObj == nullptr)
        return false;
    const CJavaCall call(this);
    JNIEnv* pEnv = call.GetEnv();
    return pEnv != nullptr && FireMessageLogWOAT(pEnv, m_jObj, pcMethod, pcID, pcMessage);
}

bool CCallback::FireMessageLogWOAT(JNIEnv* pEnv, jobject jObj, const char* pcMethod,
                                   const char* pcID, const char* pcMessage)
{
    const CLocalRef<jclass> jClass(pEnv, pEnv->GetObjectClass(jObj));
    jmethodID jMethod = FindMethod(pEnv, jClass.Get(), pcMethod, LOG_SIGNATURE);
    if (jMethod == nullptr)
        return false;
    const CLocalRef<jstring> jID(pEnv, NewText(pEnv, pcID));
    const CLocalRef<jstring> jMessage(pEnv, NewText(pEnv, pcMessage));
    if (jID.Get() == nullptr || jMessage.Get() == nullptr)
        return false;
    pEnv->CallVoidMethod(jObj, jMethod, jID.Get(), jMessage.Get());
    return !ClearException(pEnv);
}

int CCallback::UpdateRedirectedFileAttributes(const char* pcID, const char* pcPath, bool bSize,
                                              unsigned long long iSize, bool bAccessTime,
                                              unsigned long iAccessTimeSec, bool bLastModifiedTime,
                                              unsigned long iLastModifiedTimeSec)
{
    return CallHost(this, m_jObj, [&](JNIEnv* pEnv) {
        return CallForInt(pEnv, m_jObj, "setRedirectedFileAttributes",
                          "(Ljava/lang/String;Ljava/lang/String;ZJZJZJ)I", pcID, pcPath,
                          ToJava(bSize), static_cast<jlong>(iSize), ToJava(bAccessTime),
                          static_cast<jlong>(iAccessTimeSec), ToJava(bLastModifiedTime),
                          static_cast<jlong>(iLastModifiedTimeSec));
    });
}

int CCallback::RemoveRedirectedFile(const char* pcID, const char* pcPath)
{
    return CallHost(this, m_jObj, [&](JNIEnv* pEnv) {
        return CallForInt(pEnv, m_jObj, "removeRedirectedFile",
                          "(Ljava/lang/String;Ljava/lang/String;)I", pcID, pcPath);
    });
}

int CCallback::RenameRedirectedFile(const char* pcID, const char* pcPathFrom, const char* pcPathTo)
{
    return CallHost(this, m_jObj, [&](JNIEnv* pEnv) {
        const CLocalRef<jstring> jPathTo(pEnv, NewText(pEnv, pcPathTo));
        if (jPathTo.Get() == nullptr)
            return -1;
        return CallForInt(pEnv, m_jObj, "renameRedirectedFile",
                          "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;)I", pcID,
                          pcPathFrom, jPathTo.Get());
    });
}

int CCallback::WriteRedirectedFile(const char* pcID, const char* pcPath, unsigned long long iSeek,
                                   int iSeekType, unsigned int iLength)
{
    return CallHost(this, m_jObj, [&](JNIEnv* pEnv) {
        return CallForInt(pEnv, m_jObj, "writeRedirectedFile",
                          "(Ljava/lang/String;Ljava/lang/String;JII)I", pcID, pcPath,
                          static_cast<jlong>(iSeek), static_cast<jint>(iSeekType),
                          static_cast<jint>(iLength));
    });
}

void CCallback::ThrowIOException(const char* pcMessage)
{
    const CJavaCall call(this);
    JNIEnv* pEnv = call.GetEnv();
    if (pEnv == nullptr)
        return;
    const CLocalRef<jstring> jMessage(pEnv, NewText(pEnv, pcMessage));
    const CLocalRef<jclass> jClass(pEnv, pEnv->FindClass("java/io/IOException"));
    if (jClass.Get() == nullptr)
        return;  // whatever is pending instead tells the host enough
    jmethodID jConstructor = FindMethod(pEnv, jClass.Get(), "<init>", "(Ljava/lang/String;)V");
    if (jConstructor == nullptr)
        return;
    const CLocalRef<jobject> jException(
        pEnv, pEnv->NewObject(jClass.Get(), jConstructor, jMessage.Get()));
    if (jException.Get() != nullptr)
        pEnv->Throw(static_cast<jthrowable>(jException.Get()));
}
