// The agent's output: JSON lines appended to a file, or written to standard
// output, each line whole.  Lines are gathered and written with write(2) in
// batches of whole lines (one system call carries many), a short write is
// continued, and a batch that cannot be written leaves no piece of a line in
// a file: the file is cut back to its last whole line and the batch's lines
// are counted as lost.  A crash can thus cut the file only after a whole line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace varnix::agent {

class LineWriter {
public:
    // Appends to `path` (created when missing, never truncated); "" is
    // standard output.  Check ok().
    explicit LineWriter(const std::string& path);
    ~LineWriter();
    LineWriter(const LineWriter&) = delete;
    LineWriter& operator=(const LineWriter&) = delete;

    bool ok() const { return fd_ >= 0; }
    const std::string& name() const { return name_; }

    // One line, ending with '\n'; written at the latest by the next flush.
    void add(std::string_view line);
    // Writes what was added; false when some of it could not be (the first
    // failure of a run of failures is reported on standard error).
    bool flush();
    // Lines that could not be written.
    uint64_t unwritten() const { return unwritten_; }

private:
    void cut_back(size_t bytes);

    int fd_;
    bool own_fd_;
    std::string name_;
    std::string batch_;
    uint64_t unwritten_ = 0;
    bool failing_ = false;
};

}  // namespace varnix::agent
