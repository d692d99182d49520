// A private scratch directory under /tmp, removed with everything in it when
// the owner goes out of scope.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace varnix::test {

class TempDir {
public:
    TempDir() {
        char tmpl[] = "/tmp/varnix-scratch-XXXXXX";
        if (mkdtemp(tmpl)) path_ = tmpl;
    }
    ~TempDir() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

}  // namespace varnix::test
