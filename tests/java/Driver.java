import java.io.BufferedReader;
import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.InputStreamReader;
import java.lang.reflect.InvocationTargetException;
import java.nio.charset.StandardCharsets;
import java.util.HashMap;
import java.util.Map;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;

/**
 * Runs commands that it reads from its standard input, one a line, and writes what comes of them to
 * its standard output, one line each. The program ends with its input.
 *
 * A line is "COMMAND" for the main thread or "@NAME COMMAND" for a thread of that name, which is
 * made when its name is first met; each thread runs its commands in their order. The commands are
 * those of Interpreter. What is written:
 *
 *   "= THREAD|RESULT" for a command that has ended, "! THREAD|CLASS: MESSAGE" for one that threw;
 *   "@ METHOD|HOST|THREAD|ARGUMENT|..." for a call by the library, THREAD being "native" where it is
 *   none of the driver's own;
 *   "> THREAD|RESULT" or "> THREAD|! CLASS: MESSAGE" for a command that ran inside such a call.
 *
 * Texts are escaped as Text.escape does it. The property stagenfs.without names methods that the host
 * lacks, with commas between them.
 */
public final class Driver {
    private static final FileOutputStream OUTPUT = new FileOutputStream(FileDescriptor.out);
    private static final ThreadLocal<String> THREAD_NAME = new ThreadLocal<>();

    private final Interpreter interpreter = new Interpreter();
    private final Map<String, BlockingQueue<String>> queues = new HashMap<>();

    private Driver() {}

    public static void main(String[] arguments) throws Exception {
        String without = System.getProperty("stagenfs.without");
        ClassLoader usual = ClassLoader.getSystemClassLoader();
        if (without != null && Driver.class.getClassLoader() == usual) {
            ClassLoader loader = new LeavingOutLoader(usual, without.split(","));
            loader.loadClass("Driver").getMethod("main", String[].class)
                    .invoke(null, (Object) arguments);
            return;
        }
        Driver driver = new Driver();
        BlockingQueue<String> queue = new LinkedBlockingQueue<>();
        driver.queues.put("main", queue);
        start("input", driver::read);
        driver.run("main", queue);
    }

    /** The name of the calling thread, "native" for one that the driver did not start. */
    static String threadName() {
        String name = THREAD_NAME.get();
        return name == null ? "native" : name;
    }

    static void print(String line) {
        byte[] bytes = (line + "\n").getBytes(StandardCharsets.UTF_8);
        synchronized (OUTPUT) {
            try {
                OUTPUT.write(bytes);  // unbuffered: the line is out
            } catch (IOException e) {
                Runtime.getRuntime().halt(1);  // nobody reads any more
            }
        }
    }

    private static void start(String name, Runnable work) {
        Thread thread = new Thread(work, name);
        thread.setDaemon(true);
        thread.start();
    }

    private void read() {
        try {
            BufferedReader input =
                    new BufferedReader(new InputStreamReader(System.in, StandardCharsets.UTF_8));
            for (String line = input.readLine(); line != null; line = input.readLine()) {
                int end = line.startsWith("@") ? line.indexOf(' ') : -1;
                String name = end == -1 ? "main" : line.substring(1, end);
                queues.computeIfAbsent(name, this::startQueue).add(line.substring(end + 1));
            }
        } catch (IOException e) {
            print("the input cannot be read: " + e);
        }
        System.exit(0);
    }

    private BlockingQueue<String> startQueue(String name) {
        BlockingQueue<String> queue = new LinkedBlockingQueue<>();
        start(name, () -> run(name, queue));
        return queue;
    }

    private void run(String name, BlockingQueue<String> queue) {
        THREAD_NAME.set(name);
        while (true) {
            try {
                String command = queue.take();
                print(outcome(command, "= " + name + "|", "! " + name + "|"));
            } catch (InterruptedException e) {
                return;
            }
        }
    }

    /** Runs a command on the calling thread; a line about its end. */
    private String outcome(String command, String done, String failed) {
        try {
            return done + Text.show(interpreter.execute(command, this::runInside));
        } catch (InvocationTargetException e) {
            return failed + describe(e.getCause());
        } catch (Throwable e) {
            return failed + describe(e);
        }
    }

    private void runInside(String command) {
        String start = "> " + threadName() + "|";
        print(outcome(command, start, start + "! "));
    }

    private static String describe(Throwable thrown) {
        return thrown.getClass().getName() + ": " + Text.show(thrown.getMessage());
    }
}
