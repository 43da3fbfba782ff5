package example;

import com.orvex.qlt.stagevm.nfs.NfsLibNative;
import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * Publishes a folder over NFS, and in it a disk image that exists nowhere in one piece: a manifest
 * says where its parts lie. Runs until "quit", the end of its input, Ctrl-C or SIGTERM.
 */
public final class PublishBackup extends NfsLibNative {
    private static final String USAGE =
            "usage: PublishBackup [--client] FOLDER EXPORT IMAGE MANIFEST";

    private final CountDownLatch listening = new CountDownLatch(1);
    private volatile boolean interrupted;
    private Thread listener;
    private volatile Path image; // an empty file, which clients see as the disk image

    // Only for the synchronized methods. No callback calls one: they wait for callbacks.
    private long handle;
    private boolean closing;
    private Path published;

    public static void main(String[] arguments) throws Exception {
        List<String> list = new ArrayList<>(List.of(arguments));
        int mode = list.remove("--client") ? MODE_CLIENT : MODE_INTERNAL;
        if (list.size() != 4) {
            System.err.println(USAGE);
            System.exit(2);
        }
        List<Segment> segments = readManifest(Path.of(list.get(3)));
        PublishBackup host = new PublishBackup();

        // The one way out, whatever leads to it: the server must stop before the machine does.
        Runtime.getRuntime().addShutdownHook(new Thread(host::close));
        host.open(mode);
        host.publish(Path.of(list.get(0)), list.get(1), list.get(2), segments);
        System.out.println("Published. \"quit\" ends it.");
        BufferedReader input = new BufferedReader(new InputStreamReader(System.in));
        String line = input.readLine();
        while (line != null && !line.trim().equals("quit"))
            line = input.readLine();
    }

    // ---- Starting and stopping ----

    private synchronized void open(int mode) throws IOException, InterruptedException {
        if (closing)
            return;
        handle = initial("publish-" + ProcessHandle.current().pid(), mode, LOG_ERROR);
        startRemoteController(handle); // for callbacks in client mode; else it does nothing

        // Callbacks reach this object while the loop runs. The first is isInterrupted.
        final long loopHandle = handle;
        listener = new Thread(() -> receiveCallbackLoop(loopHandle, -1), "nfs-callbacks");
        listener.setDaemon(true); // or it would keep the virtual machine from shutting down
        listener.start();
        listening.await();

        if (!isServerRunning(handle)) // in client mode, the other process may have started it
            startServer(handle, 0, 0, false); // the usual ports
    }

    private synchronized void publish(Path source, String exportName, String imageName,
            List<Segment> segments) throws IOException {
        if (closing)
            return;
        Path folder = source.toRealPath(); // redirected files go by the canonical path only
        String path = nameOf(folder.resolve(imageName));
        image = Files.createFile(Path.of(path)); // fails if it is there: then it is not ours

        long size = segments.get(segments.size() - 1).end();
        openRedirectedFile(handle, path, size, false, 0, 0);
        for (Segment segment : segments)
            addRedirectedFileSegment(handle, path, segment.source, segment.sourceOffset,
                    segment.offset, segment.length);

        // Last, so that no client meets an image that is not whole.
        addMountPoint(handle, nameOf(folder), exportName);
        published = folder;
    }

    private synchronized void close() {
        closing = true;
        if (handle == 0)
            return;
        if (published != null)
            removeMountPoint(handle, published.toString());
        Path placeholder = image;
        if (placeholder != null)
            closeRedirectedFile(handle, placeholder.toString());
        stopServer(handle); // waits for the calls in hand; in client mode the server runs on
        stopRemoteController(handle);
        interrupted = true; // the loop ends within a second
        try {
            if (listener != null)
                listener.join();
            terminate(handle); // by now, no other thread is inside a native method
            handle = 0;
            if (placeholder != null)
                Files.deleteIfExists(placeholder);
        } catch (IOException | InterruptedException e) {
            System.err.println(e);
        }
        System.out.println("Closed.");
    }

    /** Characters beyond 16 bits reach the library in another form than the file system has. */
    private static String nameOf(Path path) throws IOException {
        String name = path.toString();
        if (name.codePoints().anyMatch(Character::isSupplementaryCodePoint))
            throw new IOException("The library cannot find " + name);
        return name;
    }

    // ---- What the library calls, from threads of its own. None of it may wait for long. ----

    @Override
    protected boolean isInterrupted() {
        listening.countDown();
        return interrupted;
    }

    @Override
    protected void logInfo(String id, String message) {
        System.out.println("info  " + id + ": " + message);
    }

    @Override
    protected void logError(String id, String message) {
        System.out.println("error " + id + ": " + message);
    }

    @Override
    protected void logRaw(String id, String message) {
        System.out.println(message);
    }

    @Override
    protected int setRedirectedFileAttributes(String id, String path, boolean hasSize, long size,
            boolean hasAccessTime, long accessTime, boolean hasModifiedTime, long modifiedTime) {
        System.out.println("set   " + id + ": " + path + (hasSize ? " size=" + size : "")
                + (hasAccessTime ? " accessed=" + accessTime : "")
                + (hasModifiedTime ? " modified=" + modifiedTime : ""));
        return 0;
    }

    @Override
    protected int removeRedirectedFile(String id, String path) {
        System.out.println("gone  " + id + ": " + path);
        if (Path.of(path).equals(image))
            image = null; // what comes to this path from now on is not ours to delete
        return 0;
    }

    @Override
    protected int renameRedirectedFile(String id, String pathFrom, String pathTo) {
        System.out.println("moved " + id + ": " + pathFrom + " -> " + pathTo);
        if (Path.of(pathFrom).equals(image))
            image = Path.of(pathTo);
        return 0;
    }

    /** The client learns that all is written. Answer -1 instead where that would be a lie. */
    @Override
    protected int writeRedirectedFile(String id, String path, long seek, int seekType, int length) {
        System.out.println("write " + id + ": " + path + " " + length + " bytes at " + seek);
        return length;
    }

    // ---- The manifest ----

    /** Bytes of the image from offset on, and where they lie; without a source they are zeros. */
    private record Segment(String source, long sourceOffset, long offset, long length) {
        long end() {
            return Math.addExact(offset, length);
        }
    }

    private static final Pattern LINE = Pattern.compile("(.*\\S)\\s+(\\d+)\\s+(\\d+)\\s+(\\d+)");

    /** One segment a line: source path, offset in the source, offset in the image, length. */
    private static List<Segment> readManifest(Path manifest) throws IOException {
        List<Segment> segments = new ArrayList<>();
        long end = 0;
        for (String text : Files.readAllLines(manifest)) {
            String line = text.trim();
            if (line.isEmpty() || line.startsWith("#"))
                continue;
            Matcher fields = LINE.matcher(line);
            if (!fields.matches())
                throw new IOException("Not a segment: " + line);
            // A source that cannot be read would read as zeros later on: better fail here.
            Path source = manifest.resolveSibling(fields.group(1)).toRealPath();
            long sourceOffset = Long.parseLong(fields.group(2));
            long offset = Long.parseLong(fields.group(3));
            long length = Long.parseLong(fields.group(4));
            if (length == 0 || offset < end || sourceOffset > Files.size(source) - length)
                throw new IOException("Empty, out of order, or not in the source: " + line);
            if (offset > end) // a gap must be told, or reads across it leave it out
                segments.add(new Segment(null, 0, end, offset - end));
            segments.add(new Segment(nameOf(source), sourceOffset, offset, length));
            end = segments.get(segments.size() - 1).end();
        }
        if (segments.isEmpty())
            throw new IOException("No segments in " + manifest);
        return segments;
    }
}
