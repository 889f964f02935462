// The wire checks' Java side: Debian's libhdrhistogram-java reads and writes
// histogram encodings, one histogram per input line (formats as hdr_wire_tool).
//   java -cp hdrhistogram.jar HdrJavaCodec.java encode|decode < lines
import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.nio.ByteBuffer;
import java.util.Arrays;
import java.util.Base64;
import org.HdrHistogram.Histogram;

public class HdrJavaCodec {
    static String stats(Histogram h) {
        long total = h.getTotalCount();
        long minNonZero = h.getMinNonZeroValue();
        StringBuilder sb = new StringBuilder();
        sb.append(total).append(' ').append(total == 0 || minNonZero == Long.MAX_VALUE ? 0 : minNonZero);
        sb.append(' ').append(h.getMaxValue());
        if (total > 0) {
            for (int p = 1; p <= 100; p++) sb.append(' ').append(h.getValueAtPercentile(p));
            sb.append(' ').append(h.getValueAtPercentile(0.1)).append(' ').append(h.getValueAtPercentile(99.9));
        }
        return sb.toString();
    }

    public static void main(String[] args) throws Exception {
        boolean encode = args[0].equals("encode");
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in));
        StringBuilder out = new StringBuilder();
        for (String line; (line = in.readLine()) != null;) {
            try {
                if (encode) {
                    String[] f = line.trim().split(" ");
                    Histogram h = new Histogram(1, 3600000000L, Integer.parseInt(f[0]));
                    for (int i = 1; i < f.length; i++) h.recordValue(Long.parseLong(f[i]));
                    ByteBuffer buf = ByteBuffer.allocate(h.getNeededByteBufferCapacity());
                    int n = h.encodeIntoCompressedByteBuffer(buf);
                    out.append(Base64.getEncoder().encodeToString(Arrays.copyOf(buf.array(), n)));
                    out.append(' ').append(stats(h)).append('\n');
                } else {
                    ByteBuffer buf = ByteBuffer.wrap(Base64.getDecoder().decode(line.trim()));
                    out.append(stats(Histogram.decodeFromCompressedByteBuffer(buf, 0))).append('\n');
                }
            } catch (Exception e) {
                out.append("error ").append(e).append('\n');
            }
        }
        System.out.print(out);
    }
}
