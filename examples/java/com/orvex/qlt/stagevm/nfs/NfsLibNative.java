package com.orvex.qlt.stagevm.nfs;

import java.io.IOException;

/**
 * The library as Java sees it. Package, class and method names are fixed: the virtual machine finds
 * the native methods by them, and the library looks the callbacks up by name and signature. What
 * each one does is in docs/java.md.
 */
public abstract class NfsLibNative {
    static {
        System.loadLibrary("stagenfs"); // libstagenfs.so, in a folder of java.library.path
    }

    public static final int MODE_INTERNAL = 0; // the server runs in this process
    public static final int MODE_SERVER = 1; // the same, and other processes drive it
    public static final int MODE_CLIENT = 2; // drives the server of another process

    public static final int LOG_ERROR = 1; // see docs/java.md for the other bits

    // ---- What the host calls. The handle is what initial returned; for 0 nothing happens. ----

    public native long initial(String id, int mode, int logControl) throws IOException;
    public native void terminate(long handle);
    public native boolean startRemoteController(long handle) throws IOException;
    public native void stopRemoteController(long handle);
    public native boolean startServer(long handle, int mountPort, int nfsPort, boolean readOnly)
            throws IOException;
    public native void stopServer(long handle);
    public native boolean isServerRunning(long handle);
    public native boolean receiveCallbackLoop(long handle, int seconds);

    public native boolean addMountPoint(long handle, String localMountFolder, String exportName)
            throws IOException;
    public native void removeMountPoint(long handle, String localMountFolder);
    public native void addSession(long handle, String sessionID, String localMountFolder);
    public native void removeSession(long handle, String sessionID);
    public native boolean isSessionExists(long handle, String sessionID);
    public native boolean isLocalSessionExists(long handle, String sessionID);

    public native void openRedirectedFile(long handle, String path, long size,
            boolean createInfoFile, int infoFileSegmentSizeMB, int infoFileCheckPointSizeMB);
    public native void closeRedirectedFile(long handle, String path);
    public native void closeAllRedirectedFiles(long handle, String path);
    public native void addRedirectedFileSegment(long handle, String path, String srcPath,
            long srcFileOffset, long offset, long length) throws IOException;
    public native void exportRedirectedFile(long handle, String path, String exportPath);
    public native void exportRedirectedFileInfo(long handle, String path, String exportPath,
            boolean mergeRange);
    public native void closeOpenedFile(long handle, String path);
    public native void closeAllOpenedFiles(long handle, String path);

    public native void setLogControl(long handle, int logControl);
    public native String getVersion(long handle);
    public native String getDescription(long handle);
    public native int getAccessMode(long handle);
    public native int getServerStatus(long handle);
    public native int getMountInfo(long handle, boolean clientMountedOnly, boolean printDetails);
    public native int getSessionInfo(long handle, boolean printDetails);
    public native void runTestMode(long handle, String dirPath, long fileSize);
    public native void addVSphereInfo(long handle, String datastoreMoid, String host, String port,
            String user, String pwd);
    public native void removeVSphereInfo(long handle, String datastoreMoid);

    // ---- What the library calls, from threads of its own and several at once. ----

    /** True once receiveCallbackLoop is to end. Asked once a second, by the thread that runs it. */
    protected abstract boolean isInterrupted();

    protected abstract void logInfo(String id, String message);
    protected abstract void logError(String id, String message);
    protected abstract void logRaw(String id, String message);

    // A client changed a redirected file. 0 accepts; anything else makes the client's call fail.

    /** A value counts only where the flag before it is true. Times are seconds since 1970. */
    protected abstract int setRedirectedFileAttributes(String id, String path, boolean hasSize,
            long size, boolean hasAccessTime, long accessTime, boolean hasModifiedTime,
            long modifiedTime);
    protected abstract int removeRedirectedFile(String id, String path);
    protected abstract int renameRedirectedFile(String id, String pathFrom, String pathTo);

    /** The number of bytes that are accepted, as a rule length, or -1. The data do not come. */
    protected abstract int writeRedirectedFile(String id, String path, long seek, int seekType,
            int length);
}
