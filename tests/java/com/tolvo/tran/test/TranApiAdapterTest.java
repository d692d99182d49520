package com.tolvo.tran.test;

import static java.nio.charset.StandardCharsets.ISO_8859_1;
import static java.nio.charset.StandardCharsets.UTF_8;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.tolvo.tran.api.TranApiAdapter;
import com.tolvo.tran.example.TraceOneService;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.LocalDate;
import java.util.Arrays;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.LockSupport;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;

/**
 * The binding in this JVM against a collector of its own. Records are compared byte for byte as Latin-1 text;
 * '#' in an expected record stands for any digit (dates, times, elapsed times).
 */
class TranApiAdapterTest {
    static final TranApiAdapter api = new TranApiAdapter();
    static final String HOST = Collector.hostName();
    static final int[] COLUMN_WIDTHS = {1, 6, 3, 12, 9, 7, 1, 9, 8, 39, 3, 3, 1, 1, 12, 16, 3, 4, 3, 39, 1, 1};
    // Offset and width in the STTL block of each telegram column (the flag is not in it).
    static final int[][] STTL_COLUMNS = {{0, 0}, {150, 6}, {140, 3}, {87, 12}, {156, 9}, {143, 7}, {127, 1},
        {131, 9}, {32, 8}, {40, 39}, {79, 3}, {82, 3}, {85, 1}, {86, 1}, {99, 12}, {111, 16}, {128, 3}, {165, 4},
        {169, 3}, {172, 39}, {212, 1}, {213, 1}};
    static int initRc;
    static byte[] initNotice;

    @BeforeAll
    static void startTracing() {
        assertEquals(0, Collector.create(1));
        Runtime.getRuntime().addShutdownHook(new Thread(Collector::remove));
        Collector.switches(0, false);
        start(1, "BEFORE-INIT", "SVC");  // no effect: the first record is the start notice
        initRc = api.Init("svr01");
        initNotice = Collector.receive();
    }

    @AfterAll
    static void stopTracing() {
        api.Done();
        Collector.remove();
    }

    static String pad(String s, int width) {
        String t = s == null ? "" : s;
        return t.length() >= width ? t.substring(0, width) : t + " ".repeat(width - t.length());
    }

    static String utf8(String s) {
        return new String(s.getBytes(UTF_8), ISO_8859_1);
    }

    /** Value, width, value, width...: each field padded and followed by a space. */
    static String fields(Object... valueWidth) {
        StringBuilder b = new StringBuilder();
        for (int i = 0; i < valueWidth.length; i += 2) b.append(pad((String) valueWidth[i], (Integer) valueWidth[i + 1])).append(' ');
        return b.toString();
    }

    static String columns(String... values) {
        StringBuilder b = new StringBuilder();
        for (int i = 0; i < COLUMN_WIDTHS.length; ++i) b.append(fields(i < values.length ? values[i] : "", COLUMN_WIDTHS[i]));
        return b.toString();
    }

    static String header(char type, String cls, String gid, String proc, String svc, long tid) {
        int bucket = (int) ((tid & 0xFF) != 0 ? tid & 0xFF : (tid >> 8) & 0xFF);
        return type + " " + fields(cls, 2, "", 1, gid, 32, proc, 15, svc, 16, HOST, 64)
                + String.format("%08d %015d %05d %05d ", ProcessHandle.current().pid(), tid, bucket, Collector.pidx(tid))
                + "######## ############ ";
    }

    static void assertRecord(String expected, byte[] body) {
        assertNotNull(body, "no record");
        StringBuilder actual = new StringBuilder(new String(body, ISO_8859_1));
        for (int i = 0; i < Math.min(expected.length(), actual.length()); ++i)
            if (expected.charAt(i) == '#' && Character.isDigit(actual.charAt(i))) actual.setCharAt(i, '#');
        assertEquals(expected, actual.toString());
    }

    static String types(int n) {
        StringBuilder b = new StringBuilder();
        for (int i = 0; i < n; ++i) {
            byte[] body = Collector.receive();
            b.append(body == null ? '-' : (char) body[0]);
        }
        assertNull(Collector.receive(), "more records than expected");
        return b.toString();
    }

    static String log() throws IOException {
        Path p = Path.of(Collector.home(), "agt/log/proc/libvarnix", "libvarnix-" + LocalDate.now() + "-log");
        return new String(Files.readAllBytes(p), UTF_8);
    }

    /** A start with the sub-class code, process id, date and time given too: none of them may reach the record. */
    static void start(long tid, String gid, String svc, String... columns) {
        String[] c = Arrays.copyOf(columns, 22);
        api.TranStart(tid, "ST", "D", gid, svc, "PID-X", "DATE-X", "TIME-X", c[0], c[1], c[2], c[3], c[4], c[5], c[6],
                c[7], c[8], c[9], c[10], c[11], c[12], c[13], c[14], c[15], c[16], c[17], c[18], c[19], c[20], c[21]);
    }

    static void end(long tid, String gid, String svc) {
        api.TranEnd(tid, "EN", null, gid, svc, null, null, null, null, null, null, null, null, null, null, null, null,
                null, null, null, null, null, null, null, null, null, null, null, null, null);
    }

    /** A block of cyclic letters with a processing result, channel type ICC and a message text. */
    static byte[] sttl(int length, char rslt, String msg) {
        byte[] b = new byte[length];
        for (int i = 0; i < length; ++i) b[i] = (byte) ('a' + i % 26);
        b[127] = (byte) rslt;
        System.arraycopy("ICC".getBytes(ISO_8859_1), 0, b, 140, 3);
        byte[] m = (msg + "\0").getBytes(UTF_8);
        System.arraycopy(m, 0, b, 219, Math.min(m.length, length - 219));
        return b;
    }

    static String text(byte[] b, int offset, int width) {
        return new String(b, offset, width, ISO_8859_1);
    }

    @Test
    void initAnnouncesTheContainerInsteadOfTheProcess() throws IOException {
        assertEquals(0, initRc);
        assertEquals("libvarnix v13.5(2018.05.18) for TolvoSYSTEMS Varnix UI Project", api.TranLibV());
        String notice = "거래추적 대상 WAS컨테이너(svr01)가 기동되었습니다.";
        assertRecord(header('V', "", "", "svr01", "", 0) + fields("1508", 4, "", 12, "", 4, utf8(notice), 512), initNotice);
        String log = log();
        assertTrue(log.contains(">> 프로세스 기동 이벤트 생성 ret : 0, 내용 : " + notice + " \n"), log);
        assertTrue(log.contains("(I) JNI Process (java / svr01) Start OK (ret 0)"), log);
        assertFalse(log.contains("프로세스(java)가 기동"), log);
    }

    @Test
    void serviceEntriesActOnTheLow32BitsOfTheThreadId() {
        String[] values = {"F", "001002", "WEB", "RECV-SVC-01", "SCRN01", "EMP0001", "0", "ERR000001", "00000100",
            "::1", "AAA", "BBB", "Q", "S", "RSLT-SVC", "EAI-ID", "DSB", "INST", "BIZ", "MEDIUM", "1", "2"};
        start(1, "GID-JAVA-0001", "SVC-JAVA", values);
        assertRecord(header('1', "ST", "GID-JAVA-0001", "svr01", "SVC-JAVA", 1) + "0000000000 0000000000 01 "
                + columns(values), Collector.receive());
        end((1L << 32) + 1, "GID-JAVA-0001", "SVC-JAVA");
        assertRecord(header('2', "EN", "GID-JAVA-0001", "svr01", "SVC-JAVA", 1) + "########## 0000000000 01 "
                + columns(), Collector.receive());
        assertEquals("", types(0));
    }

    @Test
    void telegramEndTracesErrorErrorInformationAndEndInOrder() throws IOException {
        byte[] block = sttl(531, '1', "E0001 거래 오류");
        String gid = text(block, 0, 32);
        StringBuilder sttlColumns = new StringBuilder();
        for (int[] c : STTL_COLUMNS) sttlColumns.append(c[1] == 0 ? "  " : text(block, c[0], c[1]) + " ");
        api.TranStartX(3, "", "SVC-X", null, block);  // an empty GID: the block's
        assertRecord(header('1', "", gid, "svr01", "SVC-X", 3) + "0000000000 0000000000 01 " + sttlColumns,
                Collector.receive());
        api.TranEndX(3, null, "SVC-X", null, block);
        assertEquals('9', (char) Collector.receive()[0]);
        assertRecord(header('E', "", gid, "svr01", "SVC-X", 3)
                + fields("1105", 4, text(block, 87, 12), 12, "C", 4, utf8("E0001 거래 오류"), 350), Collector.receive());
        assertEquals("2", types(1));

        for (int length : new int[] {530, 600}) {  // a longer block gives its leading 531 bytes
            byte[] odd = sttl(length, '9', "E0009");
            api.TranStartX(3, null, "SVC-X", null, odd);
            api.TranEndX(3, null, "SVC-X", null, odd);
            assertEquals("192", types(3));
            assertTrue(log().contains("<!> TRAN_ERROR STTL_PARAM length error (arrlen : " + length
                    + ", STTL_PARAM : 531) GID : " + gid));
        }
        api.TranEndX(3, null, "SVC-X", null, null);
        api.TranStartM(4, "PT-GID", "SVC-PT", null);
        assertEquals("", types(0));
        assertTrue(log().contains("<!> API arg error, [TranEndX] STTL ByteArray is null"));
        assertTrue(log().contains("<!> API arg error, [TranStartM] PT_PARAM ByteArray is null"));

        byte[] pt = Arrays.copyOf(block, 90);  // short: the missing bytes are zero
        api.TranStartM(4, "PT-GID", "SVC-PT", pt);
        assertRecord(header('1', "", "PT-GID", "svr01", "SVC-PT", 4) + "0000000000 0000000000 01 "
                + columns().substring(0, 56) + text(pt, 0, 30) + " " + text(pt, 30, 20) + " " + text(pt, 50, 20) + " "
                + text(pt, 70, 20) + "\0".repeat(10) + " \0\0\0 ", Collector.receive());
        api.TranEndM(4, "PT-GID", "SVC-PT", pt);
        assertEquals("2", types(1));
    }

    @Test
    void koreanTextIsWholeInTranInfoAndCutByUtf16UnitsInTranInfoEx() {
        start(5, "KO-GID", "SVC-KO");
        Collector.receive();
        api.TranInfo(5, null, null, null, null, "ignored", "ignored", "ignored", "가나다 정보");
        assertRecord(header('I', "", "KO-GID", "svr01", "SVC-KO", 5) + fields(utf8("가나다 정보"), 350),
                Collector.receive());
        api.TranInfoEx(5, null, null, null, null, null, null, null, "INFO", "가나다");
        assertRecord(header('X', "", "KO-GID", "svr01", "", 5) + fields("INFO", 4, utf8("가"), 350), Collector.receive());
        end(5, "KO-GID", "SVC-KO");
        assertEquals("2", types(1));
    }

    @Test
    void sqlTimesPassAsFull64BitValues() {
        start(7, "SQL-GID", "SVC-SQL");
        Collector.receive();
        api.TranCallInfoS(7, "Dao.java", "DBIO_selectUser", 0, 0);
        api.TranSqlStmt(7, 0, 9999, 0L, 5_000_000_000L, "SELECT 1 FROM DUAL");
        api.TranCallInfoF(7, null, null, 1);
        assertRecord(header('Q', "", "SQL-GID", "", "SVC-SQL", 7)
                + fields("1,1,1,1,5000.000000,9999,DBIO_selectUser,SELECT 1 FROM DUAL", 350), Collector.receive());
        // The finish names no function, so its record is a BIZCALL one, labelled DBIO.
        String call = new String(Collector.receive(), ISO_8859_1);
        assertTrue(call.startsWith("C ") && call.contains(",[DBIO][DBIO_selectUser at  (Dao.java::00000){1}]#RC 88 "), call);
        end(7, "SQL-GID", "SVC-SQL");
        assertEquals("I2", types(2));  // the call statistics, the end
    }

    @Test
    void telegramsOfAnyLengthAreCaptured() throws Exception {
        Collector.switches(0, true);
        byte[] tmsg = "0123456789ABCDEFGHIJ".getBytes(ISO_8859_1);
        api.TranStartX(8, "CAP-GID", "SVC-CAP", tmsg, sttl(531, '0', ""));
        api.TranEndX(8, "CAP-GID", "SVC-CAP", tmsg, sttl(531, '0', ""));
        Collector.switches(0, false);
        assertEquals("12", types(2));
        String host = HOST + "\0".repeat(64 - HOST.length());
        String expected = "";
        for (char flag : new char[] {'S', 'F'})
            expected += "9ABCDEFGHIJ" + " ".repeat(19) + "#".repeat(16) + host + flag + "000020" + "0123456789ABCDEFGHIJ\n";
        byte[] data = new byte[0];
        for (int i = 0; i < 500 && data.length < expected.length(); ++i) {
            Thread.sleep(10);
            try (Stream<Path> files = Files.list(Path.of(Collector.home(), "tong"))) {
                for (Path f : files.toList()) data = Files.readAllBytes(f);
            }
        }
        assertRecord(expected, data);
    }

    @Test
    void endedJavaThreadsLeaveRoomForNewOnes() throws Exception {
        Collector.switches(3, false);  // four queues: room for the drainer to keep up
        AtomicBoolean running = new AtomicBoolean(true);
        AtomicLong received = new AtomicLong();
        Thread drainer = new Thread(() -> {
            while (running.get()) {
                int n = Collector.drain();
                received.addAndGet(n);
                if (n == 0) LockSupport.parkNanos(100_000);
            }
        });
        drainer.start();
        long refused = Collector.refused();
        int rounds = 20, threads = 200;  // 4000 thread ids for 2560 contexts
        for (int r = 0; r < rounds; ++r) {
            Thread[] t = new Thread[threads];
            for (int i = 0; i < threads; ++i) {
                t[i] = new Thread(() -> TraceOneService.traceOneService(api, "CHURN-GID", "SVC-CHURN"));
                t[i].start();
            }
            for (Thread x : t) x.join();
            // A context is needed again about 12 rounds later: idle for over 2 s by then.
            Thread.sleep(250);
        }
        running.set(false);
        drainer.join();
        received.addAndGet(Collector.drain());
        Collector.switches(0, false);
        assertEquals(3L * rounds * threads, received.get() + Collector.refused() - refused);
        String log = log();
        assertFalse(log.contains("return code 107"));
        assertTrue(log.contains("(thread idle, ptrc 1) resource clear."));
    }
}
