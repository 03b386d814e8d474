// What Java itself reads from property files, for texts on which the library promises the same. Makes
// the table that the library's tests include:
//
//   java PropertiesTable.java > properties.inc
import java.io.StringReader;
import java.nio.charset.StandardCharsets;
import java.util.*;

public class PropertiesTable {
    static final String[] TEXTS = {
        "a=1\nb = 2\nc:3\nd : 4\ne 5\nf\t6\ng\f=\f7\n  h =  8  \ni =\nj:\nk#!=#!\nl=1\nl=2\n",
        "\n \n# a = 1\n! b = 2\n  # c = 3\nk = v # w\n", "a=1\rb=2\r\nc=3\n",
        "a = a = b : c\nb ==v\nc : = v\n", "a\\ b=1\na\\:b=2\na\\=b=3\na\\\\b=4\na\\\tb=5\n",
        "a = a\\\\b \\: \\\" \\' \\  c\nb = a\\\n   b\\\r\n\t c\nc = \\\n  v\nd = a\\\n\ne = m\n",
        "k = \\u00e9\\u20AC\\u0041\\u000a\\u000d\\uFFfd.\n\u00fc = \u00e9 \u20ac \ud83d\ude00 \u007f\n",
        "#\na = b\\:c\nk = v\\u00e9 = \\\\ \\u000a\\u000d\\u20ac.\n",
    };

    static String literal(Object s) {
        StringBuilder out = new StringBuilder("\"");
        for (byte b : s.toString().getBytes(StandardCharsets.UTF_8))
            out.append(b < 32 || b > 126 || b == '"' || b == '\\' ? String.format("\\%03o", b & 0xFF)
                                                                  : "" + (char) b);
        return out.append('"').toString();
    }

    public static void main(String[] arguments) throws Exception {
        System.out.println("// Made by PropertiesTable.java: a file's text, and what Java reads from it.");
        for (String text : TEXTS) {
            Properties properties = new Properties();
            properties.load(new StringReader(text));
            System.out.print("{" + literal(text) + ", {");
            new TreeMap<>(properties).forEach(
                (key, value) -> System.out.print("{" + literal(key) + ", " + literal(value) + "}, "));
            System.out.println("}},");
        }
    }
}
