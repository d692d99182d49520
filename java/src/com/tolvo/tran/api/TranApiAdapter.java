package com.tolvo.tran.api;

/**
 * Transaction tracing for Java application-server containers: the native methods of libvarnix.
 *
 * <p>Loading the class loads {@code libvarnix.so} from {@code java.library.path}. A container calls
 * {@link #Init} once, then traces from any thread; every tracing method does nothing until {@code Init}
 * succeeded. The first argument of each tracing method is a thread id: only its low 32 bits are used, and a
 * negative id means the calling native thread. A null String leaves its field blank. No method throws and no
 * tracing method reports its outcome: problems go to the library's diagnostic log.
 *
 * <p>Parameters documented as ignored keep their place for callers of the original signatures; their values
 * never reach a record.
 */
public class TranApiAdapter {
    static {
        System.loadLibrary("varnix");
    }

    /**
     * Starts tracing in this process and announces the container to the collector (event 1508).
     *
     * @param containerName the container's name, at most 30 characters kept; null keeps the last one given
     * @return 0, or the library's status (103 collector missing, 104 already started, 106 environment missing)
     */
    public native int Init(String containerName);

    /** Stops tracing in this process; tracing methods do nothing afterwards until the next {@link #Init}. */
    public native void Done();

    /**
     * Traces a service start: opens a service level on the thread.
     *
     * @param tid thread id
     * @param clsCd class code (2)
     * @param dtlCd ignored
     * @param gid global transaction id (32)
     * @param svcId service id (16)
     * @param pidStr ignored: the record carries this process's id
     * @param dateStr ignored: the record carries the date of the call
     * @param timeStr ignored: the record carries the time of the call
     * @param tmsgFlag telegram flag (1)
     * @param trscGrcoBr transaction group company code and branch number (6)
     * @param chnlTypCd channel type code (3)
     * @param recvSvcCd receiving service code (12)
     * @param scrnId screen id (9)
     * @param empNo employee number (7)
     * @param procRsltDvCd processing result code (1)
     * @param stdTmsgErrCd standard telegram error code (9)
     * @param stdTmsgLen standard telegram length (8)
     * @param ipv6Adr IPv6 address (39)
     * @param fstTrmsSysCd first transmitting system code (3)
     * @param trmsSysCd transmitting system code (3)
     * @param rqstRspsDvCd request/response code (1)
     * @param trscSyncDvCd synchronous/asynchronous code (1)
     * @param rsltRecvSvcCd result receiving service code (12)
     * @param eaiIntfId EAI interface id (16)
     * @param dsblSysCd failing system code (3)
     * @param otsdInstCd outside institution code (4)
     * @param otsdBizCd outside business code (3)
     * @param fstTrmsMdclCtt first transmitting medium content (39)
     * @param optFlag1 option flag 1 (1)
     * @param optFlag2 option flag 2 (1)
     */
    public native void TranStart(long tid, String clsCd, String dtlCd, String gid, String svcId, String pidStr,
            String dateStr, String timeStr, String tmsgFlag, String trscGrcoBr, String chnlTypCd, String recvSvcCd,
            String scrnId, String empNo, String procRsltDvCd, String stdTmsgErrCd, String stdTmsgLen,
            String ipv6Adr, String fstTrmsSysCd, String trmsSysCd, String rqstRspsDvCd, String trscSyncDvCd,
            String rsltRecvSvcCd, String eaiIntfId, String dsblSysCd, String otsdInstCd, String otsdBizCd,
            String fstTrmsMdclCtt, String optFlag1, String optFlag2);

    /**
     * Traces the normal end of the service opened last on the thread; parameters as {@link #TranStart}. The
     * record names the GID and service given at the start.
     */
    public native void TranEnd(long tid, String clsCd, String dtlCd, String gid, String svcId, String pidStr,
            String dateStr, String timeStr, String tmsgFlag, String trscGrcoBr, String chnlTypCd, String recvSvcCd,
            String scrnId, String empNo, String procRsltDvCd, String stdTmsgErrCd, String stdTmsgLen,
            String ipv6Adr, String fstTrmsSysCd, String trmsSysCd, String rqstRspsDvCd, String trscSyncDvCd,
            String rsltRecvSvcCd, String eaiIntfId, String dsblSysCd, String otsdInstCd, String otsdBizCd,
            String fstTrmsMdclCtt, String optFlag1, String optFlag2);

    /**
     * Traces the failure of the service open on the thread (it stays open until {@link #TranEnd}); parameters
     * as {@link #TranStart}.
     */
    public native void TranError(long tid, String clsCd, String dtlCd, String gid, String svcId, String pidStr,
            String dateStr, String timeStr, String tmsgFlag, String trscGrcoBr, String chnlTypCd, String recvSvcCd,
            String scrnId, String empNo, String procRsltDvCd, String stdTmsgErrCd, String stdTmsgLen,
            String ipv6Adr, String fstTrmsSysCd, String trmsSysCd, String rqstRspsDvCd, String trscSyncDvCd,
            String rsltRecvSvcCd, String eaiIntfId, String dsblSysCd, String otsdInstCd, String otsdBizCd,
            String fstTrmsMdclCtt, String optFlag1, String optFlag2);

    /**
     * Traces a service start from a standard telegram and captures the telegram (when the collector has
     * capture on).
     *
     * @param tid thread id
     * @param gid global transaction id; null or empty: the block's first 32 bytes
     * @param svcId service id
     * @param telegram the request telegram, or null to capture nothing
     * @param sttl the 531-byte block of standard telegram fields; null traces nothing
     */
    public native void TranStartX(long tid, String gid, String svcId, byte[] telegram, byte[] sttl);

    /**
     * Traces a service end from a standard telegram and captures the telegram; parameters as
     * {@link #TranStartX}. A processing result code other than "0" or blank in the block first traces the
     * error and its error information (the block's message text).
     */
    public native void TranEndX(long tid, String gid, String svcId, byte[] telegram, byte[] sttl);

    /**
     * Traces the error of the service open on the thread as error information.
     *
     * @param tid thread id
     * @param clsCd class code
     * @param dtlCd ignored
     * @param gid ignored by the record, which names the open service
     * @param svcId ignored likewise
     * @param pidStr ignored
     * @param dateStr ignored
     * @param timeStr ignored
     * @param errNo error number (4)
     * @param recvSvcCd receiving service code (12)
     * @param chnlClass channel class (4)
     * @param msgText error text (350 bytes, in the platform's character set)
     */
    public native void TranErrorInfo(long tid, String clsCd, String dtlCd, String gid, String svcId, String pidStr,
            String dateStr, String timeStr, String errNo, String recvSvcCd, String chnlClass, String msgText);

    /**
     * Traces free text for the transaction.
     *
     * @param tid thread id
     * @param clsCd class code
     * @param dtlCd ignored
     * @param gid global transaction id; null: the open service's
     * @param svcId service id; null: the open service's
     * @param pidStr ignored
     * @param dateStr ignored
     * @param timeStr ignored
     * @param msgText the text (350 bytes, in the platform's character set)
     */
    public native void TranInfo(long tid, String clsCd, String dtlCd, String gid, String svcId, String pidStr,
            String dateStr, String timeStr, String msgText);

    /**
     * Traces free text with an information code. The text passes as many bytes of its modified UTF-8 form as it
     * has UTF-16 units: plain ASCII whole, other text cut short.
     *
     * @param tid thread id
     * @param clsCd class code
     * @param dtlCd ignored
     * @param gid global transaction id; null: the open service's
     * @param svcId service id
     * @param pidStr ignored
     * @param dateStr ignored
     * @param timeStr ignored
     * @param infoCd information code (4)
     * @param msgText the text (350)
     */
    public native void TranInfoEx(long tid, String clsCd, String dtlCd, String gid, String svcId, String pidStr,
            String dateStr, String timeStr, String infoCd, String msgText);

    /**
     * Traces an event.
     *
     * @param tid thread id
     * @param clsCd class code
     * @param dtlCd ignored
     * @param gid global transaction id
     * @param svcId service id
     * @param pidStr ignored
     * @param dateStr ignored
     * @param timeStr ignored
     * @param evtNo event number (4)
     * @param recvSvcCd receiving service code (12)
     * @param chnlClass channel class (4)
     * @param msgText event text (512 bytes, in the platform's character set)
     */
    public native void TranEvent(long tid, String clsCd, String dtlCd, String gid, String svcId, String pidStr,
            String dateStr, String timeStr, String evtNo, String recvSvcCd, String chnlClass, String msgText);

    /**
     * Traces the start of a business or database call inside the open service (a database call when the
     * function name carries the configured DBIO signature).
     *
     * @param tid thread id
     * @param sourceName source (file) name
     * @param funcName function or method name
     * @param dbio ignored: the function name decides
     * @param startOpt start option; -1 makes the finish's return code 99
     */
    public native void TranCallInfoS(long tid, String sourceName, String funcName, int dbio, int startOpt);

    /**
     * Traces the finish of the innermost open call, with return code 88.
     *
     * @param tid thread id
     * @param sourceName ignored
     * @param funcName ignored
     * @param dbio non-zero labels the call "DBIO"
     */
    public native void TranCallInfoF(long tid, String sourceName, String funcName, int dbio);

    /**
     * Stores an SQL identifier in the thread's entry of the process-thread table; no record.
     *
     * @param tid thread id
     * @param sqlId the identifier (200 bytes, in the platform's character set)
     */
    public native void TranSqlId(long tid, String sqlId);

    /**
     * Reports an SQL statement of the open database call (mode 0); the statements that ran at least the SQL
     * limit are traced when the call finishes.
     *
     * @param tid thread id
     * @param mode 0 reports the statement, 1 sends the kept statements at once; other values do nothing
     * @param sqlNo statement number; 9999 makes start and end microsecond counts, else seconds
     * @param start start time
     * @param end end time
     * @param sqlText the statement (8192 bytes kept, in the platform's character set)
     */
    public native void TranSqlStmt(long tid, int mode, int sqlNo, long start, long end, String sqlText);

    /**
     * Traces a process-tracing service start.
     *
     * @param tid thread id
     * @param gid global transaction id
     * @param svcId service id
     * @param pt the 103-byte block of the five process-tracing fields; null traces nothing
     */
    public native void TranStartM(long tid, String gid, String svcId, byte[] pt);

    /** Traces a process-tracing service end; parameters as {@link #TranStartM}. */
    public native void TranEndM(long tid, String gid, String svcId, byte[] pt);

    /**
     * The library's version banner.
     *
     * @return the banner
     */
    public native String TranLibV();

    /**
     * Presets the time of the thread's next outermost service start (or, inside a service, of its end) to now.
     *
     * @param tid thread id
     */
    public native void TranSetTime(long tid);
}
