package com.tolvo.tran.test;

import static java.nio.charset.StandardCharsets.ISO_8859_1;
import static java.nio.charset.StandardCharsets.UTF_8;
import static org.junit.jupiter.api.Assertions.*;

import com.tolvo.tran.api.TranApiAdapter;
import com.tolvo.tran.example.TraceOneService;
import java.io.IOException;
import java.nio.file.*;
import java.time.LocalDate;
import java.util.Arrays;
import java.util.concurrent.atomic.*;
import java.util.concurrent.locks.LockSupport;
import org.junit.jupiter.api.*;

/**
 * The binding in this JVM against a collector of its own. Records are compared byte for byte as Latin-1 text;
 * '#' in an expected record stands for any digit (dates, times, elapsed times).
 */
class TranApiAdapterTest {
    static final TranApiAdapter api = new TranApiAdapter();
    static String HOST;
    static final int[] COLUMN_WIDTHS = {1, 6, 3, 12, 9, 7, 1, 9, 8, 39, 3, 3, 1, 1, 12, 16, 3, 4, 3, 39, 1, 1};
    static final int[][] STTL_COLUMNS = {{0, 0}, {150, 6}, {140, 3}, {87, 12}, {156, 9}, {143, 7}, {127, 1},
        {131, 9}, {32, 8}, {40, 39}, {79, 3}, {82, 3}, {85, 1}, {86, 1}, {99, 12}, {111, 16}, {128, 3}, {165, 4},
        {169, 3}, {172, 39}, {212, 1}, {213, 1}};
    static int initRc;
    static byte[] initNotice;

    // The collector (collector_jni.cpp), under this JVM's keys.
    static {
        System.loadLibrary("varnix_test_collector");
    }
    static native int create(int idleThreadRelease);  // 0 or -1
    static native void remove();
    static native String home();
    static native void switches(int queMask, boolean capture);  // mask 0: every record on queue 0, in order
    static native byte[] receive();  // the body of one waiting record, or null
    static native long refused();  // sends the queues refused
    static native int pidx(long tid);  // the process-thread table entry of a thread id, or -1

    @BeforeAll
    static void startTracing() throws IOException {
        HOST = Files.readString(Path.of("/proc/sys/kernel/hostname")).strip();
        assertEquals(0, create(1));  // IDLE_THREAD_RELEASE 1
        Runtime.getRuntime().addShutdownHook(new Thread(TranApiAdapterTest::remove));
        switches(0, false);
        start(1, "BEFORE-INIT", "SVC");  // no effect: the first record is the start notice
        initRc = api.Init("svr01");
        initNotice = receive();
    }

    @AfterAll
    static void stopTracing() { api.Done(); remove(); }

    /** Value, width, value, width...: each field cut or space-padded to its width, then a space. */
    static String fields(Object... valueWidth) {
        StringBuilder b = new StringBuilder();
        for (int i = 0; i < valueWidth.length; i += 2) {
            String v = valueWidth[i] == null ? "" : (String) valueWidth[i];
            int width = (Integer) valueWidth[i + 1];
            b.append(v.length() >= width ? v.substring(0, width) : v + " ".repeat(width - v.length())).append(' ');
        }
        return b.toString();
    }
    static String columns(String... values) {
        StringBuilder b = new StringBuilder();
        for (int i = 0; i < COLUMN_WIDTHS.length; ++i)
            b.append(fields(i < values.length ? values[i] : "", COLUMN_WIDTHS[i]));
        return b.toString();
    }
    static String utf8(String s) { return new String(s.getBytes(UTF_8), ISO_8859_1); }
    static String text(byte[] b, int offset, int width) { return new String(b, offset, width, ISO_8859_1); }

    static String header(char type, String cls, String gid, String proc, String svc, long tid) {
        int bucket = (int) ((tid & 0xFF) != 0 ? tid & 0xFF : (tid >> 8) & 0xFF);
        return type + " " + fields(cls, 2, "", 1, gid, 32, proc, 15, svc, 16, HOST, 64)
                + String.format("%08d %015d %05d %05d ", ProcessHandle.current().pid(), tid, bucket, pidx(tid))
                + "######## ############ ";
    }

    static void assertRecord(String expected, byte[] body) {
        assertNotNull(body, "no record");
        StringBuilder actual = new StringBuilder(new String(body, ISO_8859_1));
        for (int i = 0; i < Math.min(expected.length(), actual.length()); ++i)
            if (expected.charAt(i) == '#' && Character.isDigit(actual.charAt(i))) actual.setCharAt(i, '#');
        assertEquals(expected, actual.toString());
    }

    /** The types of the next n records; the last ones waiting unless more are expected. */
    static String types(int n, boolean last) {
        StringBuilder b = new StringBuilder();
        for (byte[] r; b.length() < n; b.append(r == null ? '-' : (char) r[0])) r = receive();
        if (last) assertNull(receive(), "more records than expected");
        return b.toString();
    }
    static String types(int n) { return types(n, true); }

    static String log() throws IOException {
        Path path = Path.of(home(), "agt/log/proc/libvarnix/libvarnix-" + LocalDate.now() + "-log");
        return new String(Files.readAllBytes(path), UTF_8);
    }

    static String errorLines(String log) {
        return log.lines().filter(l -> l.contains("<!>")).limit(20).reduce("", (a, b) -> a + b + "\n");
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

    @Test
    void initAnnouncesTheContainerInsteadOfTheProcess() throws IOException {
        assertEquals(0, initRc);
        assertEquals("libvarnix v13.5(2018.05.18) for TolvoSYSTEMS Varnix UI Project", api.TranLibV());
        String notice = "거래추적 대상 WAS컨테이너(svr01)가 기동되었습니다.";
        assertRecord(header('V', "", "", "svr01", "", 0) + fields("1508", 4, "", 12, "", 4, utf8(notice), 512),
                initNotice);
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
                + columns(values), receive());
        end((1L << 32) + 1, "GID-JAVA-0001", "SVC-JAVA");
        assertRecord(header('2', "EN", "GID-JAVA-0001", "svr01", "SVC-JAVA", 1) + "########## 0000000000 01 "
                + columns(), receive());
        assertEquals("", types(0));
    }

    @Test
    void telegramEndTracesErrorErrorInformationAndEndInOrder() throws Exception {
        byte[] block = sttl(531, '1', "E0001 거래 오류"), tmsg = "0123456789ABCDEFGHIJ".getBytes(ISO_8859_1);
        String gid = text(block, 0, 32);
        StringBuilder sttlColumns = new StringBuilder();  // each column at its offset in the block; no flag there
        for (int[] c : STTL_COLUMNS) sttlColumns.append(c[1] == 0 ? "  " : text(block, c[0], c[1]) + " ");
        switches(0, true);  // capture: telegrams of any length
        api.TranStartX(3, "", "SVC-X", tmsg, block);  // an empty GID: the block's
        assertRecord(header('1', "", gid, "svr01", "SVC-X", 3) + "0000000000 0000000000 01 " + sttlColumns, receive());
        api.TranEndX(3, null, "SVC-X", tmsg, block);
        switches(0, false);
        assertEquals("9", types(1, false));
        assertRecord(header('E', "", gid, "svr01", "SVC-X", 3)
                + fields("1105", 4, text(block, 87, 12), 12, "C", 4, utf8("E0001 거래 오류"), 350), receive());
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
                + text(pt, 70, 20) + "\0".repeat(10) + " \0\0\0 ", receive());
        api.TranEndM(4, "PT-GID", "SVC-PT", pt);
        assertEquals("2", types(1));

        String expected = "", host = HOST + "\0".repeat(64 - HOST.length());
        for (char flag : new char[] {'S', 'F'})
            expected += "9ABCDEFGHIJ" + " ".repeat(19) + "#".repeat(16) + host + flag + "000020" + text(tmsg, 0, 20) + "\n";
        byte[] data = new byte[0];
        for (int i = 0; i < 500 && data.length < expected.length(); ++i, Thread.sleep(10))
            try (var files = Files.list(Path.of(home(), "tong"))) {
                for (Path f : files.toList()) data = Files.readAllBytes(f);
            }
        assertRecord(expected, data);
    }

    @Test
    void freeTextsPassWholeAndOtherStringsByUtf16Units() {
        start(5, "TXT-GID", "SVC-TXT");
        assertEquals("1", types(1, false));
        api.TranInfo(5, null, null, null, null, "ignored", "ignored", "ignored", "가나다 정보");
        assertRecord(header('I', "", "TXT-GID", "svr01", "SVC-TXT", 5) + fields(utf8("가나다 정보"), 350), receive());
        api.TranInfoEx(5, null, null, null, null, null, null, null, "INFO", "가나다");  // 3 units: 3 bytes
        assertRecord(header('X', "", "TXT-GID", "svr01", "", 5) + fields("INFO", 4, utf8("가"), 350), receive());
        api.TranCallInfoS(5, "Dao.java", "DBIO_selectUser", 0, 0);
        api.TranSqlStmt(5, 0, 9999, 0L, 5_000_000_000L, "SELECT 1 FROM DUAL");  // microseconds, in 64 bits
        api.TranCallInfoF(5, null, null, 1);
        assertRecord(header('Q', "", "TXT-GID", "", "SVC-TXT", 5)
                + fields("1,1,1,1,5000.000000,9999,DBIO_selectUser,SELECT 1 FROM DUAL", 350), receive());
        String call = new String(receive(), ISO_8859_1);  // a finish naming no function: a BIZCALL record
        assertTrue(call.startsWith("C ") && call.contains(",[DBIO][DBIO_selectUser at  (Dao.java::00000){1}]#RC 88 "));
        end(5, "TXT-GID", "SVC-TXT");
        assertEquals("I2", types(2));  // the call statistics, the end
    }

    @Test
    void endedJavaThreadsLeaveRoomForNewOnes() throws Exception {
        switches(3, false);  // four queues: room for the drainer to keep up
        AtomicBoolean running = new AtomicBoolean(true);
        AtomicLong received = new AtomicLong();
        Thread drainer = new Thread(() -> {
            for (; running.get(); LockSupport.parkNanos(50_000)) while (receive() != null) received.incrementAndGet();
        });
        drainer.start();
        long refused = refused();
        int rounds = 20, threads = 200;  // 4000 thread ids for 2560 contexts
        for (int r = 0; r < rounds; ++r) {
            Thread[] t = new Thread[threads];
            for (int i = 0; i < threads; ++i)
                (t[i] = new Thread(() -> TraceOneService.traceOneService(api, "CHURN-GID", "SVC-CHURN"))).start();
            for (Thread x : t) x.join();
            // A context is needed again about 12 rounds later: idle for over 2 s by then.
            Thread.sleep(250);
        }
        running.set(false);
        drainer.join();
        while (receive() != null) received.incrementAndGet();
        switches(0, false);
        long traced = received.get() + refused() - refused;
        String log = log();
        assertTrue(log.contains("(thread idle, ptrc 1) resource clear."));
        // On a loaded machine a new thread may find its bucket's mutex, or the table's semaphore, busy past its
        // bounded wait, and each says so; nothing else may cost a record.  A bucket that times out refuses with 107,
        // as a full one does: a 107 needs the bucket's line.
        boolean bucketBusy = log.contains(" mutex busy for ");
        if (log.contains("return code 107"))
            assertTrue(bucketBusy, "107 from a full bucket; log:\n" + errorLines(log));
        if (traced != 3L * rounds * threads)
            assertTrue(bucketBusy || log.contains("semaphore busy"), traced + " records; log:\n" + errorLines(log));
    }
}
