// The methods that the host application's class com.orvex.qlt.stagevm.nfs.NfsLibNative declares as
// native. The virtual machine finds them by their names, which are all that the library exports.
// A handle is the address of a controller; 0 is none, and every method then does nothing.
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <exception>
#include <jni.h>
#include <memory>
#include <new>

#include "Callback.h"
#include "JavaText.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "NfsMain.h"
#include "Text.h"
#include "Utilities.h"

namespace {

constexpr size_t TEXT_SIZE = DESCRIPTION_SIZE;  // bytes of the buffers of the two text results

// One second, also where signals come in between.
void Rest()
{
    struct timespec rest = {1, 0};
    while (nanosleep(&rest, &rest) == -1 && errno == EINTR)
        ;
}

CNfsMain* GetController(jlong jHandle)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): Java keeps a handle as a number
    return reinterpret_cast<CNfsMain*>(static_cast<uintptr_t>(jHandle));
}

jboolean ToJava(bool bValue)
{
    return bValue ? JNI_TRUE : JNI_FALSE;
}

bool FromJava(jboolean bValue)
{
    return bValue == JNI_TRUE;
}

// A Java string as the virtual machine writes it in bytes; null stays null.
class CTextArgument {
public:
    CTextArgument(JNIEnv* pEnv, jstring jText)
        : m_pEnv(pEnv),
          m_jText(jText),
          m_pcText(jText == nullptr ? nullptr : pEnv->GetStringUTFChars(jText, nullptr))
    {
        if (m_pcText == nullptr && jText != nullptr)
            throw std::bad_alloc();  // and the host finds its OutOfMemoryError
    }
    ~CTextArgument()
    {
        if (m_pcText != nullptr)
            m_pEnv->ReleaseStringUTFChars(m_jText, m_pcText);
    }
    CTextArgument(const CTextArgument&) = delete;
    CTextArgument& operator=(const CTextArgument&) = delete;

    const char* Get() const { return m_pcText; }

private:
    JNIEnv* m_pEnv;
    jstring m_jText;
    const char* m_pcText;
};

// While it lives, the host hears of what happens: through the callback that was installed before,
// or, where there is none, through this call's own.
class CGuard {
public:
    CGuard(JNIEnv* pEnv, jobject jThis, CNfsMain* pMain)
        : m_pUtilities(pMain->GetUtils()), m_pCallback(std::make_shared<CCallback>(pEnv, jThis))
    {
        m_pUtilities->InstallCallback(m_pCallback);
    }
    ~CGuard() { m_pUtilities->RemoveCallback(m_pCallback.get()); }
    CGuard(const CGuard&) = delete;
    CGuard& operator=(const CGuard&) = delete;

    void ThrowIOException(const char* pcMessage) const { m_pCallback->ThrowIOException(pcMessage); }

private:
    CUtilities* m_pUtilities;  // not owned
    std::shared_ptr<CCallback> m_pCallback;
};

jstring NewText(JNIEnv* pEnv, const char* pcText)
{
    try {
        return pEnv->NewStringUTF(ToModifiedUtf8(pcText).c_str());
    } catch (const std::exception&) {
        return nullptr;
    }
}

std::unique_ptr<CNfsMain> CreateController(jint iMode, const char* pcID, jint iLogControl)
{
    switch (iMode) {
    case ACCESS_MODE_SERVER:
        return std::make_unique<CNfsIpcServerMain>(pcID, iLogControl);
    case ACCESS_MODE_CLIENT:
        return std::make_unique<CNfsIpcClientMain>(pcID, iLogControl);
    default:
        return std::make_unique<CNfsMain>(pcID, iLogControl);
    }
}

// Calls an operation of the controller; without one, or without memory, the neutral value.
template <typename Result, typename Operation>
Result Call(jlong jHandle, Result neutral, Operation operation)
{
    CNfsMain* pMain = GetController(jHandle);
    if (pMain == nullptr)
        return neutral;
    try {
        return operation(pMain);
    } catch (const std::exception&) {
        return neutral;
    }
}

template <typename Operation>
void CallVoid(jlong jHandle, Operation operation)
{
    Call(jHandle, 0, [&](CNfsMain* pMain) {
        operation(pMain);
        return 0;
    });
}

// The same for operations that the host hears of while they run.
template <typename Result, typename Operation>
Result CallGuarded(JNIEnv* pEnv, jobject jThis, jlong jHandle, Result neutral, Operation operation)
{
    return Call(jHandle, neutral, [&](CNfsMain* pMain) {
        const CGuard guard(pEnv, jThis, pMain);
        return operation(pMain);
    });
}

// Those with one text, which have no result.
using TextOperation = void (CNfsMain::*)(const char*);

void CallWithText(JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jText,
                  TextOperation operation)
{
    CallGuarded(pEnv, jThis, jHandle, 0, [&](CNfsMain* pMain) {
        const CTextArgument text(pEnv, jText);
        (pMain->*operation)(text.Get());
        return 0;
    });
}

// Those that can fail with a reason, which becomes an exception when all else is done.
template <typename Operation>
jboolean CallThrowing(JNIEnv* pEnv, jobject jThis, jlong jHandle, Operation operation)
{
    return Call(jHandle, static_cast<jboolean>(JNI_FALSE), [&](CNfsMain* pMain) {
        const CGuard guard(pEnv, jThis, pMain);
        char cReason[REASON_SIZE] = "";
        const bool bResult = operation(pMain, cReason);
        if (!bResult)
            guard.ThrowIOException(cReason);
        return ToJava(bResult);
    });
}

}  // namespace

extern "C" {

JNIEXPORT jlong JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_initial(JNIEnv* pEnv,
                                                                            jobject jThis,
                                                                            jstring jID, jint iMode,
                                                                            jint iLogControl)
{
    try {
        std::unique_ptr<CNfsMain> pMain;
        {
            const CTextArgument id(pEnv, jID);
            pMain = CreateController(iMode, id.Get(), iLogControl);
        }
        char cReason[REASON_SIZE] = "";
        if (pMain->Initial(cReason))
            return static_cast<jlong>(reinterpret_cast<uintptr_t>(pMain.release()));
        CCallback(pEnv, jThis).ThrowIOException(cReason);
    } catch (const std::exception&) {
        // Out of memory.
    }
    return 0;
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_terminate(JNIEnv*, jobject,
                                                                             jlong jHandle)
{
    // Whoever is called by the controller would come back into it.
    if (CUtilities::IsInsideCallback())
        return;
    CallVoid(jHandle, [](CNfsMain* pMain) {
        const std::unique_ptr<CNfsMain> pOwned(pMain);
        pOwned->Terminate();
    });
}

JNIEXPORT jboolean JNICALL
Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_isServerRunning(JNIEnv*, jobject, jlong jHandle)
{
    return Call(jHandle, static_cast<jboolean>(JNI_FALSE),
                [](CNfsMain* pMain) { return ToJava(pMain->IsServerRunning()); });
}

JNIEXPORT jboolean JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_startRemoteController(
    JNIEnv* pEnv, jobject jThis, jlong jHandle)
{
    return CallThrowing(pEnv, jThis, jHandle, [](CNfsMain* pMain, char* pcReason) {
        return pMain->StartRemoteController(pcReason);
    });
}

JNIEXPORT void JNICALL
Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_stopRemoteController(JNIEnv*, jobject, jlong jHandle)
{
    CallVoid(jHandle, [](CNfsMain* pMain) { pMain->StopRemoteController(); });
}

JNIEXPORT jboolean JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_startServer(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jint iMountPort, jint iNfsPort, jboolean bReadOnly)
{
    return CallThrowing(pEnv, jThis, jHandle, [&](CNfsMain* pMain, char* pcReason) {
        return pMain->StartServer(iMountPort, iNfsPort, 0, 0, FromJava(bReadOnly), pcReason);
    });
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_stopServer(JNIEnv*, jobject,
                                                                              jlong jHandle)
{
    CallVoid(jHandle, [](CNfsMain* pMain) { pMain->StopServer(); });
}

JNIEXPORT jboolean JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_receiveCallbackLoop(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jint iSeconds)
{
    return Call(jHandle, static_cast<jboolean>(JNI_FALSE), [&](CNfsMain* pMain) {
        const CGuard guard(pEnv, jThis, pMain);
        while (iSeconds != 0 && !pMain->GetUtils()->IsInterrupted()) {
            if (iSeconds > 0)
                iSeconds--;
            Rest();
        }
        return static_cast<jboolean>(JNI_FALSE);
    });
}

JNIEXPORT jboolean JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_addMountPoint(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jLocalMountFolder, jstring jExportName)
{
    return CallThrowing(pEnv, jThis, jHandle, [&](CNfsMain* pMain, char* pcReason) {
        const CTextArgument folder(pEnv, jLocalMountFolder);
        const CTextArgument name(pEnv, jExportName);
        return pMain->AddMountPoint(folder.Get(), name.Get(), pcReason);
    });
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_removeMountPoint(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jLocalMountFolder)
{
    CallWithText(pEnv, jThis, jHandle, jLocalMountFolder, &CNfsMain::RemoveMountPoint);
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_addSession(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jSessionID, jstring jLocalMountFolder)
{
    CallGuarded(pEnv, jThis, jHandle, 0, [&](CNfsMain* pMain) {
        const CTextArgument first(pEnv, jSessionID);
        const CTextArgument second(pEnv, jLocalMountFolder);
        pMain->AddSessionInfo(first.Get(), second.Get());
        return 0;
    });
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_removeSession(JNIEnv* pEnv,
                                                                                 jobject jThis,
                                                                                 jlong jHandle,
                                                                                 jstring jSessionID)
{
    CallWithText(pEnv, jThis, jHandle, jSessionID, &CNfsMain::RemoveSessionInfo);
}

JNIEXPORT jboolean JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_isSessionExists(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jSessionID)
{
    return CallGuarded(pEnv, jThis, jHandle, static_cast<jboolean>(JNI_FALSE),
                       [&](CNfsMain* pMain) {
                           const CTextArgument id(pEnv, jSessionID);
                           return ToJava(pMain->IsSessionExists(id.Get()));
                       });
}

JNIEXPORT jboolean JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_isLocalSessionExists(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jSessionID)
{
    return CallGuarded(pEnv, jThis, jHandle, static_cast<jboolean>(JNI_FALSE),
                       [&](CNfsMain* pMain) {
                           const CTextArgument id(pEnv, jSessionID);
                           return ToJava(pMain->IsLocalSessionExists(id.Get()));
                       });
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_openRedirectedFile(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jPath, jlong lSize,
    jboolean bCreateInfoFile, jint iInfoFileSegmentSizeMB, jint iInfoFileCheckPointSizeMB)
{
    CallGuarded(pEnv, jThis, jHandle, 0, [&](CNfsMain* pMain) {
        const CTextArgument path(pEnv, jPath);
        pMain->OpenRedirectedFile(path.Get(), lSize, FromJava(bCreateInfoFile),
                                  iInfoFileSegmentSizeMB, iInfoFileCheckPointSizeMB);
        return 0;
    });
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_closeRedirectedFile(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jPath)
{
    CallWithText(pEnv, jThis, jHandle, jPath, &CNfsMain::CloseRedirectedFile);
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_closeAllRedirectedFiles(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jPath)
{
    CallWithText(pEnv, jThis, jHandle, jPath, &CNfsMain::CloseAllRedirectedFiles);
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_addRedirectedFileSegment(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jPath, jstring jSrcPath,
    jlong lSrcFileOffset, jlong lOffset, jlong lLength)
{
    CallThrowing(pEnv, jThis, jHandle, [&](CNfsMain* pMain, char* pcReason) {
        const CTextArgument path(pEnv, jPath);
        const CTextArgument srcPath(pEnv, jSrcPath);
        return pMain->AddRedirectedFileSegment(path.Get(), srcPath.Get(), lSrcFileOffset, lOffset,
                                               lLength, pcReason);
    });
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_exportRedirectedFile(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jPath, jstring jExportPath)
{
    CallGuarded(pEnv, jThis, jHandle, 0, [&](CNfsMain* pMain) {
        const CTextArgument first(pEnv, jPath);
        const CTextArgument second(pEnv, jExportPath);
        pMain->ExportRedirectedFile(first.Get(), second.Get());
        return 0;
    });
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_exportRedirectedFileInfo(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jPath, jstring jExportPath,
    jboolean bMergeRange)
{
    CallGuarded(pEnv, jThis, jHandle, 0, [&](CNfsMain* pMain) {
        const CTextArgument first(pEnv, jPath);
        const CTextArgument second(pEnv, jExportPath);
        pMain->ExportRedirectedFileInfo(first.Get(), second.Get(), FromJava(bMergeRange));
        return 0;
    });
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_closeOpenedFile(JNIEnv* pEnv,
                                                                                   jobject jThis,
                                                                                   jlong jHandle,
                                                                                   jstring jPath)
{
    CallWithText(pEnv, jThis, jHandle, jPath, &CNfsMain::CloseCachedFileHandle);
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_closeAllOpenedFiles(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jPath)
{
    CallWithText(pEnv, jThis, jHandle, jPath, &CNfsMain::CloseAllCachedFileHandles);
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_setLogControl(JNIEnv*, jobject,
                                                                                 jlong jHandle,
                                                                                 jint iLogControl)
{
    CallVoid(jHandle, [&](CNfsMain* pMain) { pMain->SetLogControl(iLogControl); });
}

JNIEXPORT jstring JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_getVersion(JNIEnv* pEnv,
                                                                                 jobject,
                                                                                 jlong jHandle)
{
    char cText[TEXT_SIZE] = "Not Defined";
    CallVoid(jHandle, [&](CNfsMain* pMain) { pMain->GetVersion(cText); });
    return NewText(pEnv, cText);
}

JNIEXPORT jstring JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_getDescription(JNIEnv* pEnv,
                                                                                     jobject,
                                                                                     jlong jHandle)
{
    char cText[TEXT_SIZE] = "Unknown";
    CallVoid(jHandle, [&](CNfsMain* pMain) { pMain->GetDescription(cText); });
    return NewText(pEnv, cText);
}

JNIEXPORT jint JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_getAccessMode(JNIEnv*, jobject,
                                                                                 jlong jHandle)
{
    return Call(jHandle, -1, [](CNfsMain* pMain) { return pMain->GetAccessMode(); });
}

JNIEXPORT jint JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_getMountInfo(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jboolean bClientMountedOnly, jboolean bPrintDetails)
{
    return CallGuarded(pEnv, jThis, jHandle, 0, [&](CNfsMain* pMain) {
        return pMain->GetMountInfo(FromJava(bClientMountedOnly), FromJava(bPrintDetails));
    });
}

JNIEXPORT jint JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_getSessionInfo(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jboolean bPrintDetails)
{
    return CallGuarded(pEnv, jThis, jHandle, 0, [&](CNfsMain* pMain) {
        return pMain->GetSessionInfo(FromJava(bPrintDetails));
    });
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_runTestMode(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jDirPath, jlong lFileSize)
{
    CallGuarded(pEnv, jThis, jHandle, 0, [&](CNfsMain* pMain) {
        const CTextArgument path(pEnv, jDirPath);
        pMain->RunTestMode(path.Get(), lFileSize);
        return 0;
    });
}

JNIEXPORT jint JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_getServerStatus(JNIEnv*, jobject,
                                                                                   jlong jHandle)
{
    return Call(jHandle, 0, [](CNfsMain* pMain) { return pMain->GetServerStatus(); });
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_addVSphereInfo(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jDatastoreMoid, jstring jHost,
    jstring jPort, jstring jUser, jstring jPwd)
{
    CallGuarded(pEnv, jThis, jHandle, 0, [&](CNfsMain* pMain) {
        const CTextArgument moid(pEnv, jDatastoreMoid);
        const CTextArgument host(pEnv, jHost);
        const CTextArgument port(pEnv, jPort);
        const CTextArgument user(pEnv, jUser);
        const CTextArgument pwd(pEnv, jPwd);
        pMain->AddVSphereInfo(moid.Get(), host.Get(), port.Get(), user.Get(), pwd.Get());
        return 0;
    });
}

JNIEXPORT void JNICALL Java_com_orvex_qlt_stagevm_nfs_NfsLibNative_removeVSphereInfo(
    JNIEnv* pEnv, jobject jThis, jlong jHandle, jstring jDatastoreMoid)
{
    CallWithText(pEnv, jThis, jHandle, jDatastoreMoid, &CNfsMain::RemoveVSphereInfo);
}

}  // extern "C"
