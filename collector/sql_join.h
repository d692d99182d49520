// SQL text records come as pieces of at most one field each; the statement's
// pieces follow each other from one thread (the records of a transaction
// share a queue), so the pieces a thread sends are joined until it sends
// anything else, or goes quiet, and then leave as one record.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "collector/record_decode.h"

namespace varnix::agent {

class SqlJoiner {
public:
    // A whole statement, and the record of its thread that completed it (null
    // when the thread went quiet or the agent stops).
    using Emit = std::function<void(const Record& statement, const Record* next)>;
    // A statement waits at most this long for its next piece.
    static constexpr int64_t kQuietUs = 300'000;

    explicit SqlJoiner(Emit emit) : emit_(std::move(emit)) {}

    // Adds a piece (`d.sql`) of message `m`: the first opens a statement and
    // completes the thread's previous one; false, with the reason, for a
    // piece whose header is not one, or that continues no statement of its
    // thread.
    bool add(const TRAN_LOG_MSG& m, Decoded& d, int64_t now_us, std::string& why);
    // The thread sent another record, `next`: its statement is complete.
    void end_thread(const Record& next);
    void flush_quiet(int64_t now_us);
    void flush_all();

private:
    struct Pending {
        TRAN_LOG_MSG first{};  // the first piece: its header is the statement's
        int64_t ts_us = 0;
        int queue = 0;
        int64_t rep = 0, elapsed = 0, sql_no = 0;
        std::string func;
        std::string text;
        // The spaces that end the last piece with other bytes: padding or
        // not, as the next non-space byte tells.
        size_t pad_at = 0, pad_len = 0;
        int slot = 0;
        int cnt = 0;
        int pieces = 0;
        int64_t seen_us = 0;
        void append(std::string_view piece);
    };
    void finish(Pending& p, const Record* next);

    std::unordered_map<ThreadKey, Pending, ThreadKeyHash> pending_;
    LocalTime clock_;
    Decoded head_;  // the statement's header, decoded again from its first piece
    Emit emit_;
};

}  // namespace varnix::agent
