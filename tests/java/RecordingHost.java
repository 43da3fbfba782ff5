import com.orvex.qlt.stagevm.nfs.NfsLibNative;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.atomic.AtomicLong;
import java.util.function.Consumer;

/** One host object: prints each call of the library and answers it as it has been told to. */
final class RecordingHost implements NfsLibNative.Listener {
    /** What is to happen when one method is called. */
    private static final class Behaviour {
        final AtomicLong calls = new AtomicLong();
        List<String> commands = new ArrayList<>();
        boolean quiet;
        boolean blocked;
        String thrown;
        Integer answer;  // null: the one of a host that accepts everything
    }

    final NfsLibNative library = new NfsLibNative(this);

    private final String name;
    private final Consumer<String> runInside;
    private final Map<String, Behaviour> behaviours = new HashMap<>();

    /** Commands that run inside a call are given to runInside. */
    RecordingHost(String name, Consumer<String> runInside) {
        this.name = name;
        this.runInside = runInside;
    }

    synchronized void setAnswer(String method, Integer answer) {
        get(method).answer = answer;
    }

    /** A null class lets the method end as usual again. */
    synchronized void setThrown(String method, String className) {
        get(method).thrown = className;
    }

    synchronized void setQuiet(String method, boolean quiet) {
        get(method).quiet = quiet;
    }

    /** Calls wait until the block is taken away. */
    synchronized void setBlocked(String method, boolean blocked) {
        get(method).blocked = blocked;
        notifyAll();
    }

    /** The command runs inside the next call of the method, once. */
    synchronized void addCommand(String method, String command) {
        get(method).commands.add(command);
    }

    synchronized long count(String method) {
        return get(method).calls.get();
    }

    @Override
    public int called(String method, Object... arguments) {
        Behaviour behaviour;
        List<String> commands;
        synchronized (this) {
            behaviour = get(method);
            commands = behaviour.commands;
            behaviour.commands = new ArrayList<>();
        }
        behaviour.calls.incrementAndGet();
        if (!behaviour.quiet) {
            print(method, arguments);
        }
        for (String command : commands) {
            runInside.accept(command);
        }
        synchronized (this) {
            while (behaviour.blocked) {
                try {
                    wait();
                } catch (InterruptedException e) {
                    break;
                }
            }
        }
        if (behaviour.thrown != null) {
            throwAnything(behaviour.thrown);
        }
        if (behaviour.answer != null) {
            return behaviour.answer;
        }
        return method.equals("writeRedirectedFile") ? (Integer) arguments[4] : 0;
    }

    private synchronized Behaviour get(String method) {
        return behaviours.computeIfAbsent(method, key -> new Behaviour());
    }

    private void print(String method, Object[] arguments) {
        StringBuilder line = new StringBuilder("@ " + method + "|" + name + "|");
        line.append(Driver.threadName());
        for (Object argument : arguments) {
            line.append('|').append(Text.show(argument));
        }
        Driver.print(line.toString());
    }

    // Also what the compiler would not let pass here.
    @SuppressWarnings("unchecked")
    private static <T extends Throwable> void throwAnything(String className) throws T {
        Throwable thrown;
        try {
            thrown = (Throwable) Class.forName(className).getConstructor().newInstance();
        } catch (ReflectiveOperationException e) {
            thrown = e;
        }
        throw (T) thrown;
    }
}
