import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ConcurrentHashMap;
import java.util.function.Consumer;

/**
 * The driver's commands. A host object called "host" is there from the start.
 *
 *   HOST.METHOD ARGUMENT...      calls a native method; an argument is a number, true, false, null,
 *                                a text in quotes or $VARIABLE
 *   VARIABLE = COMMAND           the same, and keeps the result
 *   new HOST                     makes another host object
 *   answer HOST METHOD NUMBER    what the method answers from now on; "default" is what it answers
 *                                at first: the length for a write, else 0; 1 is true
 *   throw HOST METHOD CLASS      what it throws instead; "nothing" ends that
 *   block HOST METHOD            its calls wait, once they are printed,
 *   release HOST METHOD          until they are let go
 *   inside HOST METHOD "COMMAND" what its next call runs, once; several run in their order
 *   quiet HOST METHOD            its calls are counted but no longer printed
 *   print HOST METHOD            they are printed again
 *   count HOST METHOD            the number of its calls
 *   repeat NUMBER COMMAND        runs a command that often; the last result
 *   echo ARGUMENT                the argument
 *   heap                         the bytes in use, after a collection
 *   threads                      the number of live threads that the virtual machine knows
 */
final class Interpreter {
    private final Map<String, RecordingHost> hosts = new ConcurrentHashMap<>();
    private final Map<String, Object> variables = new ConcurrentHashMap<>();

    /** Commands that run inside a call of the library are given to runInside. */
    Object execute(String command, Consumer<String> runInside) throws Exception {
        hosts.computeIfAbsent("host", name -> new RecordingHost(name, runInside));
        return execute(Text.split(command), runInside);
    }

    private Object execute(List<String> words, Consumer<String> runInside) throws Exception {
        if (words.size() > 2 && words.get(1).equals("=")) {
            Object result = execute(words.subList(2, words.size()), runInside);
            variables.put(words.get(0), result);
            return result;
        }
        switch (words.get(0)) {
            case "new":
                hosts.put(words.get(1), new RecordingHost(words.get(1), runInside));
                return "new";
            case "repeat":
                Object result = null;
                for (long i = Long.parseLong(words.get(1)); i > 0; i--) {
                    result = execute(words.subList(2, words.size()), runInside);
                }
                return result;
            case "echo":
                return convert(words.get(1), String.class);
            case "heap":
                System.gc();
                return Runtime.getRuntime().totalMemory() - Runtime.getRuntime().freeMemory();
            case "threads":
                return Thread.getAllStackTraces().size();
            default:
                return words.get(0).contains(".") ? callNative(words) : control(words);
        }
    }

    private Object control(List<String> words) {
        RecordingHost host = find(words.get(1));
        String method = words.get(2);
        String value = words.size() > 3 ? Text.unquote(words.get(3)) : "";
        switch (words.get(0)) {
            case "answer":
                host.setAnswer(method, value.equals("default") ? null : Integer.valueOf(value));
                break;
            case "throw":
                host.setThrown(method, value.equals("nothing") ? null : value);
                break;
            case "block":
                host.setBlocked(method, true);
                break;
            case "release":
                host.setBlocked(method, false);
                break;
            case "inside":
                host.addCommand(method, value);
                break;
            case "quiet":
                host.setQuiet(method, true);
                break;
            case "print":
                host.setQuiet(method, false);
                break;
            case "count":
                return host.count(method);
            default:
                throw new IllegalArgumentException("There is no command " + words.get(0));
        }
        return "set";
    }

    private Object callNative(List<String> words) throws Exception {
        String[] target = words.get(0).split("\\.");
        Object library = find(target[0]).library;
        for (Method method : library.getClass().getMethods()) {
            if (!method.getName().equals(target[1]) || !Modifier.isNative(method.getModifiers())) {
                continue;
            }
            Class<?>[] types = method.getParameterTypes();
            if (types.length != words.size() - 1) {
                throw new IllegalArgumentException(types.length + " arguments are wanted");
            }
            Object[] arguments = new Object[types.length];
            for (int i = 0; i < types.length; i++) {
                arguments[i] = convert(words.get(i + 1), types[i]);
            }
            Object result = method.invoke(library, arguments);
            return method.getReturnType() == void.class ? "void" : result;
        }
        throw new IllegalArgumentException("There is no method " + words.get(0));
    }

    private RecordingHost find(String name) {
        RecordingHost host = hosts.get(name);
        if (host == null) {
            throw new IllegalArgumentException("There is no host " + name);
        }
        return host;
    }

    private Object convert(String word, Class<?> type) {
        if (word.startsWith("$")) {
            return variables.get(word.substring(1));
        }
        if (type == String.class) {
            return word.equals("null") ? null : Text.unquote(word);
        }
        if (type == boolean.class) {
            return Boolean.valueOf(word);
        }
        return type == long.class ? (Object) Long.valueOf(word) : (Object) Integer.valueOf(word);
    }
}
