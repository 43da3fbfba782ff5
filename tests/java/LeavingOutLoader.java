import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;

/**
 * Loads the test's classes anew, with other names for some methods of NfsLibNative: a host that has
 * never heard of them.
 */
final class LeavingOutLoader extends ClassLoader {
    private static final String PATCHED = "com.orvex.qlt.stagevm.nfs.NfsLibNative";
    private static final byte UTF8_CONSTANT = 1;

    private final String[] methods;

    LeavingOutLoader(ClassLoader parent, String[] methods) {
        super(parent);
        this.methods = methods;
    }

    @Override
    protected Class<?> loadClass(String name, boolean resolve) throws ClassNotFoundException {
        Class<?> loaded = findLoadedClass(name);
        if (loaded != null) {
            return loaded;
        }
        try (InputStream file = getParent().getResourceAsStream(name.replace('.', '/') + ".class")) {
            if (file == null || name.startsWith("java.") || name.startsWith("jdk.")) {
                return super.loadClass(name, resolve);
            }
            byte[] bytes = file.readAllBytes();
            if (name.equals(PATCHED)) {
                for (String method : methods) {
                    rename(bytes, method);
                }
            }
            return defineClass(name, bytes, 0, bytes.length);
        } catch (IOException e) {
            throw new ClassNotFoundException(name, e);
        }
    }

    // Names are constants of the class file: a tag, two bytes of length, the text.
    private static void rename(byte[] bytes, String method) {
        byte[] name = method.getBytes(StandardCharsets.UTF_8);
        for (int i = 3; i + name.length <= bytes.length; i++) {
            if (bytes[i - 3] == UTF8_CONSTANT && bytes[i - 2] == 0 && bytes[i - 1] == name.length
                    && startsAt(bytes, i, name)) {
                bytes[i] = '_';
                return;
            }
        }
        throw new IllegalArgumentException("There is no method " + method);
    }

    private static boolean startsAt(byte[] bytes, int start, byte[] name) {
        for (int i = 0; i < name.length; i++) {
            if (bytes[start + i] != name[i]) {
                return false;
            }
        }
        return true;
    }
}
