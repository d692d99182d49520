package com.tolvo.tran.test;

/** The collector of the JVM tests (native, tests/java/collector_jni.cpp). */
final class Collector {
    static {
        System.loadLibrary("varnix_test_collector");
    }

    private Collector() {}

    /** A collector under this JVM's keys, with IDLE_THREAD_RELEASE at the value given; 0 or -1. */
    static native int create(int idleThreadRelease);

    static native void remove();

    /** The collector's temporary home. */
    static native String home();

    /** The queue mask (0: every record on queue 0, in order) and the capture switch. */
    static native void switches(int queMask, boolean capture);

    /** The body of one waiting record, or null. */
    static native byte[] receive();

    /** Discards the waiting records; how many. */
    static native int drain();

    /** Sends the queues refused so far. */
    static native long refused();

    /** The process-thread table entry of a thread id of this process, or -1. */
    static native int pidx(long tid);

    static native String hostName();
}
