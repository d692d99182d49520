// Scenarios that start a full-message writer run in a child process: a writer
// keeps its data file open for the day and the file name carries the pid.
#pragma once

#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <thread>

#include "support/test_ipc.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizer runtimes keep their own heap; GCC ships no header for this.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace varnix::test {

inline size_t live_heap_bytes() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks + mallinfo2().hblkhd;
#endif
}

inline int thread_count() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

// Polls for up to 30 s.
template <typename Pred>
bool wait_for(Pred done) {
    for (int i = 0; i < 3000 && !done(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return done();
}

// Runs the scenario in a child process, which ends without the parent's exit handlers.
template <typename Scenario>
void in_child(Scenario scenario) {
    ASSERT_TRUE(TestIpc::get().ok());
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(60);  // a writer that never ends fails the scenario instead of hanging it
        // Sanitizer runtimes add helper threads of their own with the first
        // thread a process starts; after that, thread counts are ours.
        std::thread([] {}).join();
        scenario();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_TRUE(pid > 0 && waitpid(pid, &status, 0) == pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
}

}  // namespace varnix::test
