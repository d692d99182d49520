#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets into fuzz/corpus/<target>/.

The encodings follow the decoders: fuzz_api.cpp, api_ops.cpp and api_args.cpp
for fuzz_api; the headers of fuzz_tmsg.cpp, fuzz_readcfg.cpp and fuzz_hcut.cpp
for the others.
Run it again after changing a decoder.
"""
import os
import struct

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")

# Operation codes: positions in the operation table of api_ops.cpp.
START, END, ERROR, PT_START, PT_END, CALL_S, CALL_F, SQL_STMT, SQL_ID, INFO, INFO_EX, ERRINFO, EVENT = range(13)
SET_TIME, CHECK_SQL_TIME, HASH, DBIO_STS, SQLCA, DBCONN, FETCH, SVCTIMEOUT = range(13, 21)
ENTRY, REWRITE, RESTART = 0xFD, 0xFE, 0xFF
# Word numbers of api_args.cpp.
W_SVC, W_SVC2, W_DBIO, W_DBIO2, W_BIZ, W_GID, W_GID2 = range(7)
W_SQL, W_UTF8, W_EUCKR = 13, 14, 15
CALLER = 0x80


def null():
    return bytes([0, 0])


def text(s):
    """A NUL-terminated text of up to 63 bytes."""
    return bytes([1, len(s)]) + s


def exact(s):
    return bytes([2, len(s)]) + s


def long_text(n, terminated=False):
    """n bytes repeating the 64 given: "SELECT ..." for an SQL text."""
    return bytes([4 if terminated else 3]) + struct.pack("<H", n) + (b"SELECT A, B FROM T WHERE C = :1 " * 2)


def long_cstr(n):
    return bytes([2]) + long_text(n)[1:]


def word(n):
    return bytes([5, n])


def cword(n):
    return bytes([3, n])


def head(gid=W_GID, svc=W_SVC):
    return text(b"ST") + text(b"1") + word(gid) + word(svc) + null() + null() + null()


def service(code, gid=W_GID, svc=W_SVC, tid=CALLER, columns=22):
    """A service entry: 22 telegram columns, or 8 and 5 process-tracing parameters."""
    tail = text(b"Y") + text(b"KB0001") + word(16) + text(b"RECV-SVC-01") + null() * (columns - 4)
    return bytes([code, tid]) + head(gid, svc) + tail


def call_s(func, tid=CALLER):
    return bytes([CALL_S, tid]) + head() + text(b"mod") + text(b"src.c") + struct.pack("<i", 7) + b"\x00" + \
        struct.pack("<i", 0) + cword(func)


def call_f(func, rc=0, tid=CALLER):
    return bytes([CALL_F, tid]) + head() + text(b"mod") + text(b"src.c") + struct.pack("<i", 9) + \
        struct.pack("<b", rc) + cword(func) + text(b"L")


def sql(sql_word=W_SQL, tid=CALLER):
    return bytes([SQL_STMT, tid, 0]) + null() + null() + b"\x00" + struct.pack("<i", 1) + b"\x01\x01" + cword(sql_word)


def info(msg, tid=CALLER):
    return bytes([INFO, tid]) + head() + text(msg)


def event(code_word, tid=CALLER):
    return bytes([EVENT, tid]) + head() + word(code_word) + text(b"RECV") + text(b"O") + text(b"event text")


# fuzz_tmsg: flag bits, service choices and table entry numbers of fuzz_tmsg.cpp.
STD, FLAG, START_ONLY, END_ONLY, TWO_ENDS, CAPTURE, LEN_NUL, LEN_CUT, NO_TMSG, NO_GID = \
    1, 2, 1 << 2, 2 << 2, 3 << 2, 0x10, 1 << 5, 2 << 5, 3 << 5, 0x80
SVC_12, SVC_CLH, SVC_GW, SVC_SPF, SVC_SHORT = range(5)
E_GLBL_ID, E_CHNL_TYP_CD, E_ERR_CNT, E_ADTN_MSG = 1, 13, 22, 28


def std_telegram(n, result=b"9", kind=b"EM", channel=b"ICC"):
    """A standard telegram of n bytes with its header fields and an error-message part."""
    t = bytearray(b" " * n)
    for off, value in ((0, b"%08d" % n), (9, b"20261123-TMSG-000000000000000001"), (132, b"RECV-SVC-001"),
                       (188, result), (209, channel), (315, b"KB0001"), (512, kind)):
        t[off:off + len(value)] = value
    part = b"01" + b"ITEM".ljust(20) + b"01" + b"MSG000001" + b"the account is closed".ljust(300) + b"02" + \
        b"ADD000001" + b"first".ljust(200) + b"ADD000002" + b"second".ljust(200)
    t[561:561 + len(part)] = part[:max(0, n - 561)]
    return bytes(t)


def tmsg_input(flags, svc, tel, moves=(), cut=0):
    """moves: (entry, offset, length) with 16-bit offsets and 8-bit lengths."""
    head = bytes([flags, svc, len(moves)])
    for entry, off, length in moves:
        head += bytes([entry, 0]) + struct.pack("<hb", off, length)
    return head + bytes([cut]) + tel


SEEDS = {
    "fuzz_tmsg": {
        "failed_end_messages": tmsg_input(STD | FLAG, SVC_12, std_telegram(1400)),
        "moved_fields": tmsg_input(STD | CAPTURE, SVC_SHORT, std_telegram(1400, channel=b"XYZ"),
                                   [(E_CHNL_TYP_CD, 600, 3), (E_ERR_CNT, 1300, 2), (E_ADTN_MSG, -1, 100)]),
        "fixed_layout": tmsg_input(TWO_ENDS, SVC_SHORT, std_telegram(700, channel=b"   ")),
        "client_handler": tmsg_input(STD | LEN_NUL | NO_GID, SVC_CLH, std_telegram(1200)),
        "gateway_no_telegram": tmsg_input(NO_TMSG | STD, SVC_GW, b""),
        "short_capture": tmsg_input(STD | CAPTURE | LEN_CUT | START_ONLY, SVC_SPF, std_telegram(1084), cut=200),
        "end_only_gid_moved": tmsg_input(STD | END_ONLY, SVC_12, std_telegram(1100), [(E_GLBL_ID, 1080, 32)]),
    },
    "fuzz_api": {
        "transaction": service(START) + call_s(W_BIZ) + call_s(W_DBIO) + sql() + sql(W_UTF8) + call_f(W_DBIO)
        + call_f(W_BIZ) + info(b"done") + service(END),
        "nested_error": service(START) + service(START, svc=W_SVC2) + service(ERROR, svc=W_SVC2)
        + service(END, svc=W_SVC2) + service(END, gid=W_GID2),
        "process_tracing": service(PT_START, columns=13) + service(PT_END, columns=13),
        "setters": service(START) + call_s(W_DBIO) + bytes([DBIO_STS, CALLER]) + struct.pack("<i", 5)
        + bytes([SQLCA, CALLER, 2]) + struct.pack("<q", -904) + cword(W_SQL) + struct.pack("<h", 12)
        + bytes([FETCH, CALLER]) + struct.pack("<iqh", 10, 1500, 3) + bytes([SQL_ID, CALLER]) + exact(b"sqlid-1")
        + call_f(W_DBIO, rc=-1) + bytes([SET_TIME, CALLER]) + service(END),
        "notices": event(9) + bytes([ERRINFO, CALLER]) + head() + word(7) + null() * 3
        + bytes([INFO_EX, 3]) + head() + text(b"I001") + long_text(3000) + bytes([HASH]) + cword(W_GID),
        "switches": bytes([REWRITE, 0, 0x0F]) + service(START) + bytes([REWRITE, 8, 1]) + struct.pack("<I", 1)
        + info(b"x") + bytes([REWRITE, 6, 0]) + service(END),
        "entry_extremes": service(START) + call_s(W_BIZ) + call_s(W_DBIO)
        + bytes([ENTRY, 1, 1]) + struct.pack("<q", -2**63) + bytes([ENTRY, 0, 2]) + struct.pack("<q", 2**63 - 1)
        + bytes([ENTRY, 0, 5]) + struct.pack("<i", 2**31 - 1) + bytes([ENTRY, 0, 7]) + struct.pack("<q", 10**15)
        + call_f(W_DBIO) + call_f(W_BIZ) + bytes([ENTRY, 0, 9]) + struct.pack("<q", -2**31)
        + service(START, gid=W_GID2) + bytes([ENTRY, 0, 8]) + struct.pack("<qq", -2**63, -5) + service(END)
        + service(END),
        "long_sql": service(START) + call_s(W_DBIO2) + bytes([SQL_STMT, CALLER, 0]) + null() + null() + b"\x01"
        + b"\x00" + bytes(16) + b"\x01" + long_cstr(8500) + call_f(W_DBIO2) + service(END),
        "timeout_restart": service(START) + bytes([SVCTIMEOUT, CALLER]) + info(b"after") + bytes([RESTART])
        + bytes([DBCONN, CALLER]) + cword(W_EUCKR) + text(b"SID"),
    },
    "fuzz_readcfg": {
        "token": b"\x01\x40TRAN_LOGF\x00QUE_CNT\x00[COMMON]\nLOG_HOME = log\n\n[TRAN_LOGF]\nQUE_CNT = 4\n",
        "second_token": b"\x02\x40TRAN_LOGF\x00IDLE_THREAD_RELEASE\x00[TRAN_LOGF_X]\nQ = 1\n[TRAN_LOGF]\n"
        b"# comment\nIDLE_THREAD_RELEASE = 30 60\n",
        "no_space": b"\x01\x08TRAN_LOGF\x00QUE_CNT\x00[TRAN_LOGF]\nQUE_CNT=4\nQUE_CNT =5\n",
        "many_tokens": b"\x11\xff S\x00K\x00[S]\nK = " + b" ".join(b"t%d" % i for i in range(17)) + b"\n",
        "long_line": b"\x01\x10S\x00K\x00[S]\nK = " + b"x" * 300 + b" y\n" + b"K" * 70 + b" = z\n",
    },
    "fuzz_hcut": {
        "utf8_cut_inside": bytes([1, 0]) + struct.pack("<h", 3) + b"a\xea\xb0\x80bcd",
        "utf8_two": bytes([1, 0]) + struct.pack("<h", 5) + b"\xea\xb0\x80\xeb\x82\x98xyz",
        "euckr_pair": bytes([0, 0]) + struct.pack("<h", 3) + b"\xb0\xb3a\xb0\xa1",
        "terminated": bytes([0, 1]) + struct.pack("<h", 4) + b"\xb0\xb0\xb0\xb0\xb0\x00\xb0",
        "other_encoding": bytes([0x82, 2 | (3 << 2)]) + struct.pack("<h", 2) + b"abcdef",
    },
}


def main():
    for target, seeds in SEEDS.items():
        folder = os.path.join(ROOT, target)
        os.makedirs(folder, exist_ok=True)
        for name, data in seeds.items():
            with open(os.path.join(folder, name), "wb") as f:
                f.write(data)


if __name__ == "__main__":
    main()
