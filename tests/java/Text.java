import java.util.ArrayList;
import java.util.List;

/** The form of commands and results. */
final class Text {
    private Text() {}

    /**
     * Splits a command at its blanks. A word in double quotes may have any character; those that
     * are written with a backslash are \n, \\, \" and \\uXXXX. Such a word keeps a quote in front, so
     * that the word null, a number or a variable can be told from a text like it.
     */
    static List<String> split(String command) {
        List<String> words = new ArrayList<>();
        int i = 0;
        while (i < command.length()) {
            if (command.charAt(i) == ' ') {
                i++;
            } else if (command.charAt(i) == '"') {
                StringBuilder word = new StringBuilder("\"");
                i = readQuoted(command, i + 1, word);
                words.add(word.toString());
            } else {
                int end = command.indexOf(' ', i);
                end = end == -1 ? command.length() : end;
                words.add(command.substring(i, end));
                i = end;
            }
        }
        return words;
    }

    /** The text of a word, with or without quotes. */
    static String unquote(String word) {
        return word.startsWith("\"") ? word.substring(1) : word;
    }

    /** A value as it is printed: null as such in angle brackets, a text escaped. */
    static String show(Object value) {
        return value == null ? "<null>" : escape(value.toString());
    }

    /** Whatever is no printable ASCII becomes \\uXXXX for each of its char values. */
    static String escape(String text) {
        StringBuilder result = new StringBuilder();
        for (char c : text.toCharArray()) {
            if (c == '\\') {
                result.append("\\\\");
            } else if (c < ' ' || c > '~') {
                result.append(String.format("\\u%04x", (int) c));
            } else {
                result.append(c);
            }
        }
        return result.toString();
    }

    // Returns the position behind the closing quote.
    private static int readQuoted(String command, int start, StringBuilder word) {
        int i = start;
        while (command.charAt(i) != '"') {
            char c = command.charAt(i++);
            if (c == '\\') {
                c = command.charAt(i++);
                if (c == 'n') {
                    c = '\n';
                } else if (c == 'u') {
                    c = (char) Integer.parseInt(command.substring(i, i + 4), 16);
                    i += 4;
                }
            }
            word.append(c);
        }
        return i + 1;
    }
}
