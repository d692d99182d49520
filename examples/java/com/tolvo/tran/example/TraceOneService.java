package com.tolvo.tran.example;

import com.tolvo.tran.api.TranApiAdapter;

/** How a container traces: start tracing once, then one service per request on the request's thread. */
public final class TraceOneService {
    private TraceOneService() {}

    /** One service on the calling thread, with its GID and service id and no telegram columns. */
    public static void traceOneService(TranApiAdapter api, String gid, String svcId) {
        long tid = Thread.currentThread().getId();
        api.TranStart(tid, "JV", null, gid, svcId, null, null, null, null, null, null, null, null, null, null, null,
                null, null, null, null, null, null, null, null, null, null, null, null, null, null);
        api.TranInfo(tid, null, null, null, null, null, null, null, "request handled");
        api.TranEnd(tid, "JV", null, gid, svcId, null, null, null, null, null, null, null, null, null, null, null,
                null, null, null, null, null, null, null, null, null, null, null, null, null, null);
    }

    /** Starts tracing as container "svr01", traces one service and stops. */
    public static void main(String[] args) {
        TranApiAdapter api = new TranApiAdapter();
        System.out.println(api.TranLibV());
        int rc = api.Init("svr01");
        System.out.println("Init: " + rc);
        traceOneService(api, "GID-EXAMPLE-0001", "SVC-EXAMPLE");
        api.Done();
    }
}
