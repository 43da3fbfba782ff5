package com.orvex.qlt.stagevm.nfs;

import java.io.IOException;

/**
 * The library's two sides in Java: what a host calls, and what the library calls. Everything that
 * the library calls is handed to a listener.
 */
public class NfsLibNative {
    static {
        System.loadLibrary("stagenfs");
    }

    /** Hears of every call of the library, on whatever thread it comes. */
    public interface Listener {
        /** The result counts only for methods that have one; 1 is true. */
        int called(String method, Object... arguments);
    }

    private final Listener listener;

    public NfsLibNative(Listener listener) {
        this.listener = listener;
    }

    // ---- What the host calls ----

    public native long initial(String id, int mode, int logControl) throws IOException;

    public native void terminate(long handle);

    public native boolean isServerRunning(long handle);

    public native boolean startRemoteController(long handle) throws IOException;

    public native void stopRemoteController(long handle);

    public native boolean startServer(long handle, int mountPort, int nfsPort, boolean readOnly)
            throws IOException;

    public native void stopServer(long handle);

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

    public native int getMountInfo(long handle, boolean clientMountedOnly, boolean printDetails);

    public native int getSessionInfo(long handle, boolean printDetails);

    public native void runTestMode(long handle, String dirPath, long fileSize);

    public native int getServerStatus(long handle);

    public native void addVSphereInfo(long handle, String datastoreMoid, String host, String port,
            String user, String pwd);

    public native void removeVSphereInfo(long handle, String datastoreMoid);

    // ---- What the library calls ----

    public boolean isInterrupted() {
        return listener.called("isInterrupted") == 1;
    }

    public void logInfo(String id, String message) {
        listener.called("logInfo", id, message);
    }

    public void logError(String id, String message) {
        listener.called("logError", id, message);
    }

    public void logRaw(String id, String message) {
        listener.called("logRaw", id, message);
    }

    public int setRedirectedFileAttributes(String id, String path, boolean hasSize, long size,
            boolean hasAccessTime, long accessTimeSec, boolean hasLastModifiedTime,
            long lastModifiedTimeSec) {
        return listener.called("setRedirectedFileAttributes", id, path, hasSize, size,
                hasAccessTime, accessTimeSec, hasLastModifiedTime, lastModifiedTimeSec);
    }

    public int removeRedirectedFile(String id, String path) {
        return listener.called("removeRedirectedFile", id, path);
    }

    public int renameRedirectedFile(String id, String pathFrom, String pathTo) {
        return listener.called("renameRedirectedFile", id, pathFrom, pathTo);
    }

    public int writeRedirectedFile(String id, String path, long seek, int seekType, int length) {
        return listener.called("writeRedirectedFile", id, path, seek, seekType, length);
    }
}
