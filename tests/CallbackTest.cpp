// The bridge to Java, against a virtual machine that does what a test wants.
#include "Callback.h"

#include <algorithm>
#include <cstdarg>
#include <jni.h>
#include <pthread.h>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

// As the virtual machine finds them.
#define NATIVE(name) Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_##name
extern "C" {
jlong NATIVE(initial)(JNIEnv*, jobject, jstring, jint, jint);
void NATIVE(terminate)(JNIEnv*, jobject, jlong);
jboolean NATIVE(addMountPoint)(JNIEnv*, jobject, jlong, jstring, jstring);
jint NATIVE(getMountInfo)(JNIEnv*, jobject, jlong, jboolean, jboolean);
void NATIVE(addSession)(JNIEnv*, jobject, jlong, jstring, jstring);
jboolean NATIVE(isSessionExists)(JNIEnv*, jobject, jlong, jstring);
}

namespace {

using Names = std::vector<std::string>;

// What the functions below do and write down; they get no pointer of ours.
struct Machine {
    bool bVM = true;        // GetJavaVM finds it
    jint iGetEnv = JNI_OK;  // what GetEnv says
    jint iAttach = JNI_OK;  // what AttachCurrentThread says
    bool bPending = false;  // an exception
    bool bMethod = true;    // the object has the method
    bool bThrows = false;   // a call throws
    std::string sNoText;    // for this one there is no memory
    jint iResult = 0;       // of the object's method
    Names vCalls;           // in their order, without those that only look
    int iLocals = 0;        // references in use
    int iTexts = 0;         // bytes of strings in use
};

Machine g_Machine;

int g_iObject = 0;

jobject MakeReference()
{
    g_Machine.iLocals++;
    return reinterpret_cast<jobject>(&g_iObject);
}

// The function tables, with what the bridge uses.
struct FakeJava {
    FakeJava()
    {
        g_Machine = {};
        vm.functions = &vmFunctions;
        env.functions = &envFunctions;
        s_pEnv = &env;
        s_pVM = &vm;
        vmFunctions.GetEnv = [](JavaVM*, void** ppEnv, jint) -> jint {
            *ppEnv = g_Machine.iGetEnv == JNI_OK ? s_pEnv : nullptr;
            return g_Machine.iGetEnv;
        };
        vmFunctions.AttachCurrentThread = [](JavaVM*, void** ppEnv, void* pArguments) -> jint {
            EXPECT_EQ(pArguments, nullptr);
            g_Machine.vCalls.push_back("attach");
            if (g_Machine.iAttach != JNI_OK)
                return g_Machine.iAttach;
            *ppEnv = s_pEnv;
            g_Machine.iGetEnv = JNI_OK;
            return JNI_OK;
        };
        vmFunctions.DetachCurrentThread = [](JavaVM*) -> jint {
            g_Machine.vCalls.push_back("detach");
            g_Machine.iGetEnv = JNI_EDETACHED;
            return JNI_OK;
        };
        envFunctions.GetJavaVM = [](JNIEnv*, JavaVM** ppVM) -> jint {
            *ppVM = g_Machine.bVM ? s_pVM : nullptr;
            return g_Machine.bVM ? JNI_OK : JNI_ERR;
        };
        SetObjects();
        SetTexts();
        SetCalls();
    }
    ~FakeJava()
    {
        EXPECT_EQ(g_Machine.iLocals, 0);
        EXPECT_EQ(g_Machine.iTexts, 0);
    }
    FakeJava(const FakeJava&) = delete;
    FakeJava& operator=(const FakeJava&) = delete;

    void SetObjects()
    {
        envFunctions.NewGlobalRef = [](JNIEnv*, jobject jObj) {
            g_Machine.vCalls.push_back("global");
            return jObj;
        };
        envFunctions.DeleteGlobalRef = [](JNIEnv*, jobject) {
            g_Machine.vCalls.push_back("delete global");
        };
        envFunctions.DeleteLocalRef = [](JNIEnv*, jobject) { g_Machine.iLocals--; };
        envFunctions.ExceptionCheck = [](JNIEnv*) -> jboolean {
            return g_Machine.bPending ? JNI_TRUE : JNI_FALSE;
        };
        envFunctions.ExceptionClear = [](JNIEnv*) { g_Machine.bPending = false; };
        envFunctions.GetObjectClass = [](JNIEnv*, jobject) {
            return static_cast<jclass>(MakeReference());
        };
        envFunctions.FindClass = [](JNIEnv*, const char* pcName) {
            g_Machine.vCalls.push_back(std::string("find ") + pcName);
            return static_cast<jclass>(MakeReference());
        };
        envFunctions.GetMethodID = [](JNIEnv*, jclass, const char* pcName,
                                      const char* pcSignature) -> jmethodID {
            g_Machine.vCalls.push_back(std::string(pcName) + pcSignature);
            if (!g_Machine.bMethod)
                g_Machine.bPending = true;
            return g_Machine.bMethod ? reinterpret_cast<jmethodID>(&g_iObject) : nullptr;
        };
        envFunctions.NewStringUTF = [](JNIEnv*, const char* pcText) -> jstring {
            g_Machine.vCalls.push_back(std::string("text ") + pcText);
            g_Machine.bPending = g_Machine.sNoText == pcText;
            return g_Machine.bPending ? nullptr : static_cast<jstring>(MakeReference());
        };
    }

    // A string is the address of its bytes.
    void SetTexts()
    {
        envFunctions.GetStringUTFChars = [](JNIEnv*, jstring jText, jboolean*) -> const char* {
            const char* pcText = reinterpret_cast<const char*>(jText);
            g_Machine.bPending = g_Machine.sNoText == pcText;
            if (g_Machine.bPending)
                return nullptr;
            g_Machine.iTexts++;
            return pcText;
        };
        envFunctions.ReleaseStringUTFChars = [](JNIEnv*, jstring, const char*) {
            g_Machine.iTexts--;
        };
    }

    // The variadic ones reach the variants with a list.
    void SetCalls()
    {
        envFunctions.CallVoidMethodV = [](JNIEnv*, jobject, jmethodID, va_list) { NoteCall(); };
        envFunctions.CallBooleanMethodV = [](JNIEnv*, jobject, jmethodID, va_list) -> jboolean {
            NoteCall();
            return static_cast<jboolean>(g_Machine.iResult);
        };
        envFunctions.CallIntMethodV = [](JNIEnv*, jobject, jmethodID, va_list) -> jint {
            NoteCall();
            return g_Machine.iResult;
        };
        envFunctions.NewObjectV = [](JNIEnv*, jclass, jmethodID, va_list) {
            NoteCall();
            return MakeReference();
        };
        envFunctions.Throw = [](JNIEnv*, jthrowable) -> jint {
            g_Machine.vCalls.push_back("throw");
            g_Machine.bPending = true;
            return JNI_OK;
        };
    }

    static void NoteCall()
    {
        g_Machine.vCalls.push_back("call");
        g_Machine.bPending = g_Machine.bThrows;
    }

    static inline JNIEnv* s_pEnv = nullptr;
    static inline JavaVM* s_pVM = nullptr;

    JNIInvokeInterface_ vmFunctions = {};
    JNINativeInterface_ envFunctions = {};
    JavaVM vm;
    JNIEnv env;
};

class Callback : public testing::Test {
protected:
    // What is called between two looks.
    static Names TakeCalls() { return std::exchange(g_Machine.vCalls, {}); }

    // Every call of the host but the question; each yields whether it succeeded.
    static std::vector<bool> CallAll(CCallback* pCallback)
    {
        return {pCallback->LogInfo("id", "text"),
                pCallback->LogError("id", "text"),
                pCallback->LogRaw("id", "text"),
                pCallback->UpdateRedirectedFileAttributes("id", "/f", true, 1, true, 2, true, 3) !=
                    -1,
                pCallback->RemoveRedirectedFile("id", "/f") != -1,
                pCallback->RenameRedirectedFile("id", "/f", "/g") != -1,
                pCallback->WriteRedirectedFile("id", "/f", 1, 0, 2) != -1};
    }
    static const inline std::vector<bool> ALL_FAILED = std::vector<bool>(7, false);
    static const inline std::vector<bool> ALL_DONE = std::vector<bool>(7, true);

    FakeJava m_Java;
    jobject m_jObj = reinterpret_cast<jobject>(&g_iObject);
};

}  // namespace

TEST_F(Callback, Constructor_WithoutVirtualMachine_SaysSo_AndNothingIsCalled)
{
    g_Machine.bVM = false;
    testing::internal::CaptureStdout();
    CCallback callback(&m_Java.env, m_jObj);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[Callback::Constructor] vm = NULL\n");
    EXPECT_EQ(CallAll(&callback), ALL_FAILED);
    EXPECT_FALSE(callback.IsInterrupted());
    callback.ThrowIOException("text");
    JNIEnv* pEnv = nullptr;
    EXPECT_EQ(callback.GetEnv(&pEnv), -1);
    EXPECT_FALSE(callback.AttrachThisThread(&pEnv, JNI_EDETACHED));
    EXPECT_EQ(callback.GetGlobalRef(m_jObj), nullptr);
    callback.FreeGlobalRef(m_jObj);
    callback.DetachThisThread();
    EXPECT_EQ(TakeCalls(), Names());
}

TEST_F(Callback, GlobalReference_LivesAsLongAsTheCallback)
{
    {
        const CCallback callback(&m_Java.env, m_jObj);
        EXPECT_EQ(TakeCalls(), Names{"global"});
    }
    EXPECT_EQ(TakeCalls(), Names{"delete global"});
}

// The last user may be a thread of the server.
TEST_F(Callback, Destructor_OnAnUnknownThread_MakesItKnown)
{
    {
        const CCallback callback(&m_Java.env, m_jObj);
        g_Machine.iGetEnv = JNI_EDETACHED;
        TakeCalls();
    }
    EXPECT_EQ(TakeCalls(), (Names{"attach", "delete global", "detach"}));
}

TEST_F(Callback, GlobalReferences_OnAnUnknownThread_AreNone)
{
    CCallback callback(&m_Java.env, m_jObj);
    TakeCalls();
    EXPECT_EQ(callback.GetGlobalRef(nullptr), nullptr);
    callback.FreeGlobalRef(nullptr);
    g_Machine.iGetEnv = JNI_EDETACHED;
    EXPECT_EQ(callback.GetGlobalRef(m_jObj), nullptr);
    callback.FreeGlobalRef(m_jObj);
    EXPECT_EQ(TakeCalls(), Names());
}

TEST_F(Callback, EachCall_OnAnUnknownThread_AttachesAndDetaches)
{
    CCallback callback(&m_Java.env, m_jObj);
    g_Machine.iGetEnv = JNI_EDETACHED;
    for (int i = 0; i < 2; i++) {
        TakeCalls();
        EXPECT_EQ(callback.RemoveRedirectedFile("id", "/f"), 0);
        EXPECT_EQ(TakeCalls(),
                  (Names{"attach", "removeRedirectedFile(Ljava/lang/String;Ljava/lang/String;)I",
                         "text id", "text /f", "call", "detach"}));
    }
}

// Whoever made the thread known.
TEST_F(Callback, EachCall_OnAKnownThread_DetachesAllTheSame)
{
    CCallback callback(&m_Java.env, m_jObj);
    for (const bool bMethod : {true, false}) {
        g_Machine.bMethod = bMethod;
        g_Machine.iGetEnv = JNI_OK;
        TakeCalls();
        EXPECT_EQ(callback.LogInfo("id", "text"), bMethod);
        const Names vCalls = TakeCalls();
        EXPECT_EQ(vCalls.front(), "logInfo(Ljava/lang/String;Ljava/lang/String;)V");
        EXPECT_EQ(vCalls.back(), "detach");
    }
    g_Machine.iGetEnv = JNI_OK;
}

TEST_F(Callback, EachMethod_IsLookedUpByItsSignature)
{
    CCallback callback(&m_Java.env, m_jObj);
    TakeCalls();
    EXPECT_EQ(CallAll(&callback), ALL_DONE);
    Names vMethods;
    for (const std::string& sCall : TakeCalls())
        if (sCall.find('(') != std::string::npos)
            vMethods.push_back(sCall);
    EXPECT_EQ(vMethods,
              (Names{"logInfo(Ljava/lang/String;Ljava/lang/String;)V",
                     "logError(Ljava/lang/String;Ljava/lang/String;)V",
                     "logRaw(Ljava/lang/String;Ljava/lang/String;)V",
                     "setRedirectedFileAttributes(Ljava/lang/String;Ljava/lang/String;ZJZJZJ)I",
                     "removeRedirectedFile(Ljava/lang/String;Ljava/lang/String;)I",
                     "renameRedirectedFile(Ljava/lang/String;Ljava/lang/String;"
                     "Ljava/lang/String;)I",
                     "writeRedirectedFile(Ljava/lang/String;Ljava/lang/String;JII)I"}));
}

TEST_F(Callback, ThreadThatCannotBeAttached_SaysSo_AndNothingIsCalled)
{
    CCallback callback(&m_Java.env, m_jObj);
    TakeCalls();
    g_Machine.iGetEnv = JNI_EDETACHED;
    g_Machine.iAttach = JNI_ERR;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(callback.LogInfo("id", "text"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "GetEnv: fail to attach thread (" +
                  std::to_string(reinterpret_cast<unsigned long>(pthread_self())) + ")\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(CallAll(&callback), ALL_FAILED);
    callback.ThrowIOException("text");
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(TakeCalls(), Names(9, "attach"));
    g_Machine.iAttach = JNI_OK;
}

TEST_F(Callback, MachineThatIsTooOld_IsNotCalled)
{
    CCallback callback(&m_Java.env, m_jObj);
    TakeCalls();
    g_Machine.iGetEnv = JNI_EVERSION;
    EXPECT_EQ(CallAll(&callback), ALL_FAILED);
    EXPECT_FALSE(callback.IsInterrupted());
    EXPECT_EQ(TakeCalls(), Names());
    g_Machine.iGetEnv = JNI_OK;
}

TEST_F(Callback, MissingMethod_CountsAsFailed_AndLeavesNothingPending)
{
    CCallback callback(&m_Java.env, m_jObj);
    g_Machine.bMethod = false;
    EXPECT_EQ(CallAll(&callback), ALL_FAILED);
    EXPECT_FALSE(g_Machine.bPending);
    g_Machine.iGetEnv = JNI_OK;
    EXPECT_FALSE(callback.IsInterrupted());
    EXPECT_FALSE(g_Machine.bPending);
}

TEST_F(Callback, NoMemoryForAText_CountsAsFailed_AndNothingIsCalled)
{
    CCallback callback(&m_Java.env, m_jObj);
    const Names::value_type sTexts[] = {"id", "text", "/f", "/g"};
    const std::vector<std::vector<bool>> vDone = {
        ALL_FAILED,
        {false, false, false, true, true, true, true},
        {true, true, true, false, false, false, false},
        {true, true, true, true, true, false, true},
    };
    for (size_t i = 0; i < vDone.size(); i++) {
        g_Machine.sNoText = sTexts[i];
        TakeCalls();
        EXPECT_EQ(CallAll(&callback), vDone[i]) << sTexts[i];
        EXPECT_FALSE(g_Machine.bPending);
        const Names vCalls = TakeCalls();
        EXPECT_EQ(std::count(vCalls.begin(), vCalls.end(), "call"),
                  std::count(vDone[i].begin(), vDone[i].end(), true));
    }
}

TEST_F(Callback, ExceptionOfTheHost_CountsAsFailed_AndLeavesNothingPending)
{
    CCallback callback(&m_Java.env, m_jObj);
    g_Machine.bThrows = true;
    g_Machine.iResult = 1;
    EXPECT_EQ(CallAll(&callback), ALL_FAILED);
    EXPECT_FALSE(g_Machine.bPending);
    g_Machine.iGetEnv = JNI_OK;
    EXPECT_FALSE(callback.IsInterrupted());
    EXPECT_FALSE(g_Machine.bPending);
}

// It is the host's, which has not seen it yet.
TEST_F(Callback, ExceptionThatIsPendingBefore_Stays_AndNothingIsCalled)
{
    CCallback callback(&m_Java.env, m_jObj);
    g_Machine.bPending = true;
    g_Machine.iGetEnv = JNI_OK;
    EXPECT_EQ(callback.WriteRedirectedFile("id", "/f", 1, 0, 2), -1);
    g_Machine.iGetEnv = JNI_OK;
    EXPECT_FALSE(callback.LogInfo("id", "text"));
    g_Machine.iGetEnv = JNI_OK;
    EXPECT_FALSE(callback.IsInterrupted());
    EXPECT_TRUE(g_Machine.bPending);
    EXPECT_EQ(TakeCalls(), (Names{"global", "detach", "detach"}));
    g_Machine.bPending = false;
}

TEST_F(Callback, Notifications_GiveTheHostsAnswer)
{
    CCallback callback(&m_Java.env, m_jObj);
    for (const jint iResult : {0, 1, 4096, -1, -7}) {
        g_Machine.iResult = iResult;
        EXPECT_EQ(callback.UpdateRedirectedFileAttributes("id", "/f", true, 1, true, 2, true, 3),
                  iResult);
        EXPECT_EQ(callback.RemoveRedirectedFile("id", "/f"), iResult);
        EXPECT_EQ(callback.RenameRedirectedFile("id", "/f", "/g"), iResult);
        EXPECT_EQ(callback.WriteRedirectedFile("id", "/f", 1, 0, 2), iResult);
    }
}

TEST_F(Callback, IsInterrupted_IsTheHostsAnswer_WithoutDetach)
{
    CCallback callback(&m_Java.env, m_jObj);
    TakeCalls();
    g_Machine.iResult = JNI_TRUE;
    EXPECT_TRUE(callback.IsInterrupted());
    EXPECT_EQ(TakeCalls(), (Names{"isInterrupted()Z", "call"}));
    g_Machine.iResult = JNI_FALSE;
    EXPECT_FALSE(callback.IsInterrupted());
    g_Machine.iResult = 2;  // nothing but true is true
    EXPECT_FALSE(callback.IsInterrupted());
}

TEST_F(Callback, IsInterrupted_OnAnUnknownThread_IsANo)
{
    CCallback callback(&m_Java.env, m_jObj);
    TakeCalls();
    g_Machine.iResult = JNI_TRUE;
    g_Machine.iGetEnv = JNI_EDETACHED;
    EXPECT_FALSE(callback.IsInterrupted());
    EXPECT_EQ(TakeCalls(), Names());
}

TEST_F(Callback, ThrowIOException_LeavesItPending)
{
    CCallback callback(&m_Java.env, m_jObj);
    TakeCalls();
    callback.ThrowIOException("reason");
    EXPECT_EQ(TakeCalls(), (Names{"text reason", "find java/io/IOException",
                                  "<init>(Ljava/lang/String;)V", "call", "throw", "detach"}));
    EXPECT_TRUE(g_Machine.bPending);
    g_Machine.bPending = false;
    g_Machine.iGetEnv = JNI_OK;
}

TEST_F(Callback, NullObject_IsNotCalled_ButThrows)
{
    CCallback callback(&m_Java.env, nullptr);
    EXPECT_EQ(CallAll(&callback), ALL_FAILED);
    EXPECT_FALSE(callback.IsInterrupted());
    EXPECT_EQ(TakeCalls(), Names());
    callback.ThrowIOException("reason");
    EXPECT_TRUE(g_Machine.bPending);
    g_Machine.bPending = false;
}

// ---- Texts of native methods for which there is no memory ----

namespace {

class NativeTexts : public Callback {
protected:
    static jstring Text(const char* pcText)
    {
        return reinterpret_cast<jstring>(const_cast<char*>(pcText));
    }

    jlong Initial() { return NATIVE(initial)(&m_Java.env, m_jObj, Text("id"), 0, 0); }

    // The host finds the exception that the virtual machine has left, and no other one.
    void ExpectOnlyOutOfMemory()
    {
        EXPECT_TRUE(std::exchange(g_Machine.bPending, false));
        for (const std::string& sCall : TakeCalls())
            EXPECT_TRUE(sCall == "global" || sCall == "delete global") << sCall;
    }
};

}  // namespace

TEST_F(NativeTexts, NoMemory_NoControllerIsMade)
{
    g_Machine.sNoText = "id";
    EXPECT_EQ(Initial(), 0);
    ExpectOnlyOutOfMemory();
}

TEST_F(NativeTexts, NoMemory_NothingIsDone)
{
    const jlong jHandle = Initial();
    ASSERT_NE(jHandle, 0);
    TakeCalls();
    for (const char* pcNoText : {"s1", "/a"}) {
        g_Machine.sNoText = pcNoText;
        NATIVE(addSession)(&m_Java.env, m_jObj, jHandle, Text("s1"), Text("/a"));
        ExpectOnlyOutOfMemory();
        EXPECT_FALSE(NATIVE(addMountPoint)(&m_Java.env, m_jObj, jHandle, Text("/a"), Text("s1")));
        ExpectOnlyOutOfMemory();
    }
    g_Machine.sNoText.clear();
    EXPECT_EQ(NATIVE(isSessionExists)(&m_Java.env, m_jObj, jHandle, Text("s1")), JNI_FALSE);
    EXPECT_EQ(NATIVE(getMountInfo)(&m_Java.env, m_jObj, jHandle, JNI_FALSE, JNI_FALSE), 0);

    NATIVE(addSession)(&m_Java.env, m_jObj, jHandle, Text("s1"), Text("/a"));  // now there is
    EXPECT_TRUE(NATIVE(addMountPoint)(&m_Java.env, m_jObj, jHandle, Text("/a"), Text("s1")));
    EXPECT_EQ(NATIVE(isSessionExists)(&m_Java.env, m_jObj, jHandle, Text("s1")), JNI_TRUE);
    EXPECT_EQ(NATIVE(getMountInfo)(&m_Java.env, m_jObj, jHandle, JNI_FALSE, JNI_FALSE), 1);
    g_Machine.sNoText = "s1";
    EXPECT_EQ(NATIVE(isSessionExists)(&m_Java.env, m_jObj, jHandle, Text("s1")), JNI_FALSE);
    ExpectOnlyOutOfMemory();
    NATIVE(terminate)(&m_Java.env, m_jObj, jHandle);
}
