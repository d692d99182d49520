// Child programs of a test: started with their output in files, given SIGTERM
// should the test process die first.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

namespace varnix::test {

// Runs a program with standard output and error into files; its pid.
inline pid_t spawn(std::vector<std::string> v, const std::string& out, const std::string& err) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    std::vector<char*> argv;
    for (std::string& a : v) argv.push_back(a.data());
    argv.push_back(nullptr);
    if (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || !freopen(out.c_str(), "w", stdout) ||
        !freopen(err.c_str(), "w", stderr))
        _exit(127);
    execvp(argv[0], argv.data());
    _exit(127);
}

inline int exit_status(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace varnix::test
