#include "collector/line_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace varnix::agent {
namespace {

constexpr size_t kBatchBytes = 64 << 10;  // a batch this large is written at once

}  // namespace

LineWriter::LineWriter(const std::string& path)
    : fd_(path.empty() ? STDOUT_FILENO : open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644)),
      own_fd_(!path.empty()),
      name_(path.empty() ? "standard output" : path) {
    if (fd_ < 0) std::fprintf(stderr, "varnix-agent: cannot write %s: %s\n", path.c_str(), std::strerror(errno));
    batch_.reserve(kBatchBytes * 2);
}

LineWriter::~LineWriter() {
    flush();
    if (own_fd_ && fd_ >= 0 && close(fd_) != 0)
        std::fprintf(stderr, "varnix-agent: closing %s: %s\n", name_.c_str(), std::strerror(errno));
}

void LineWriter::add(std::string_view line) {
    batch_.append(line);
    if (batch_.size() >= kBatchBytes) flush();
}

bool LineWriter::flush() {
    if (batch_.empty()) return true;
    size_t done = 0;
    while (done < batch_.size()) {
        const ssize_t n = write(fd_, batch_.data() + done, batch_.size() - done);
        if (n > 0)
            done += static_cast<size_t>(n);
        else if (n == 0 || errno != EINTR)
            break;
    }
    if (done == batch_.size()) {
        batch_.clear();
        failing_ = false;
        return true;
    }
    const int err = errno;
    // Whole lines written stay; the piece of the line after them goes.
    const size_t nl = done == 0 ? std::string::npos : batch_.rfind('\n', done - 1);
    const size_t whole = nl == std::string::npos ? 0 : nl + 1;
    if (whole < done) cut_back(done - whole);
    unwritten_ += static_cast<uint64_t>(std::count(batch_.begin() + static_cast<long>(whole), batch_.end(), '\n'));
    if (!failing_)
        std::fprintf(stderr, "varnix-agent: writing records to %s failed: %s; the lines lost are counted\n",
                     name_.c_str(), std::strerror(err));
    failing_ = true;
    batch_.clear();
    return false;
}

// The agent is the file's only writer: its end is where the torn piece ends.
void LineWriter::cut_back(size_t bytes) {
    struct stat st{};
    if (fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) return;
    if (ftruncate(fd_, st.st_size - static_cast<off_t>(bytes)) != 0)
        std::fprintf(stderr, "varnix-agent: %s ends with a piece of a line: %s\n", name_.c_str(), std::strerror(errno));
}

}  // namespace varnix::agent
