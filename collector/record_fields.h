// A decoded record as the agent passes it on: its kind, the thread that sent
// it, its time, and its named values in layout order.  Texts are views into
// the received message (or into the statement the SQL joiner holds): a Record
// lives only as long as the buffer it was decoded from.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace varnix::agent {

struct Value {
    std::string_view key;  // static storage: the layout's field names and literals
    std::string_view text;
    int64_t num = 0;
    bool number = false;
};

class Fields {
public:
    // More than any record kind has; a value past it is dropped.
    static constexpr int kMax = 48;

    void text(std::string_view key, std::string_view v) { add({key, v, 0, false}); }
    void number(std::string_view key, int64_t v) { add({key, {}, v, true}); }
    void clear() { n_ = 0; }

    std::span<const Value> all() const { return {v_, static_cast<size_t>(n_)}; }
    const Value* find(std::string_view key) const {
        for (int i = 0; i < n_; ++i)
            if (v_[i].key == key) return &v_[i];
        return nullptr;
    }
    std::string_view text_of(std::string_view key) const {
        const Value* v = find(key);
        return v && !v->number ? v->text : std::string_view{};
    }
    int64_t number_of(std::string_view key, int64_t absent = 0) const {
        const Value* v = find(key);
        return v && v->number ? v->num : absent;
    }

private:
    void add(const Value& v) {
        if (n_ < kMax) v_[n_++] = v;
    }
    Value v_[kMax];
    int n_ = 0;
};

// The thread a record came from.
struct ThreadKey {
    int64_t pid = -1;
    int64_t tid = -1;
    bool operator==(const ThreadKey&) const = default;
};

struct ThreadKeyHash {
    size_t operator()(const ThreadKey& k) const {
        return static_cast<size_t>(k.pid * 0x9E3779B97F4A7C15ull ^ static_cast<uint64_t>(k.tid));
    }
};

struct Record {
    char log_type = 0;
    std::string_view name;  // service_start, dbio, sql, ...
    int queue = 0;
    ThreadKey thread;
    int64_t ts_us = 0;  // UTC microseconds since the epoch
    Fields f;
};

}  // namespace varnix::agent
