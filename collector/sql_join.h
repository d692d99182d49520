// SQL text records come as pieces of at most one field each; the statement's
// pieces follow each other from one thread (the records of a transaction
// share a queue), so the pieces a thread sends are joined until it sends
// anything else, or goes quiet, and then leave as one object.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "collector/json_record.h"

namespace varnix::agent {

class SqlJoiner {
public:
    using Emit = std::function<void(const Json&)>;
    // A statement waits at most this long for its next piece.
    static constexpr int64_t kQuietUs = 300'000;

    explicit SqlJoiner(Emit emit) : emit_(std::move(emit)) {}

    // Adds a piece (`d.sql`): the first opens a statement and completes the
    // thread's previous one; false, with the reason, for a piece whose header
    // is not one, or that continues no statement of its thread.
    bool add(Decoded& d, int64_t now_us, std::string& why);
    // The thread sent another record: its statement is complete.
    void end_thread(const std::string& thread);
    void flush_quiet(int64_t now_us);
    void flush_all();

private:
    struct Pending {
        Json json;
        std::string text;
        // The spaces that end the last piece with other bytes: padding or
        // not, as the next non-space byte tells.
        size_t pad_at = 0, pad_len = 0;
        int slot = 0;
        int pieces = 0;
        int64_t seen_us = 0;
        void append(std::string_view piece);
    };
    void finish(Pending& p);

    std::map<std::string, Pending> pending_;  // by thread
    Emit emit_;
};

}  // namespace varnix::agent
