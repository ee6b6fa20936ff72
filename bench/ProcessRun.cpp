// A program started through a small launcher so that its time and peak memory are its own.
#include "ProcessRun.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

// Waits for `pid`, retrying when a signal interrupts the wait.
pid_t waitFor(pid_t pid, int& status, struct rusage* usage) {
    pid_t done;
    do {
        done = wait4(pid, &status, 0, usage);
    } while (done < 0 && errno == EINTR);
    return done;
}

int exitStatus(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

}  // namespace

int childMain(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "tessaline_bench --child: LOG PROGRAM [ARGUMENTS...]\n");
        return 2;
    }
    const char* log = argv[0];
    char** program = argv + 1;
    const auto start = Clock::now();
    const pid_t pid = fork();
    if (pid < 0) {
        std::perror("tessaline_bench --child: fork");
        return 1;
    }
    if (pid == 0) {
        const int fd = open(log, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            close(fd);
        }
        execv(program[0], program);
        _exit(127);
    }
    int status = 0;
    struct rusage usage = {};
    if (waitFor(pid, status, &usage) != pid) {
        std::perror("tessaline_bench --child: wait4");
        return 1;
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("child status %d seconds %.6f maxrss_kib %ld\n", exitStatus(status), seconds, usage.ru_maxrss);
    return std::fflush(stdout) == 0 ? 0 : 1;
}

ProcessRun runProcess(const std::string& self, const std::string& program, const std::vector<std::string>& arguments,
                      const std::string& log_path) {
    // The whole argument list is made before fork: the child only redirects and execs.
    std::vector<std::string> words = {self, "--child", log_path, program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    argv.push_back(nullptr);
    int pipe_fd[2];
    if (pipe(pipe_fd) != 0) throw std::runtime_error("cannot start the launcher (pipe)");
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t pid = fork();
    if (pid < 0) {
        close(pipe_fd[0]);
        close(pipe_fd[1]);
        throw std::runtime_error("cannot start the launcher (fork)");
    }
    if (pid == 0) {
        dup2(pipe_fd[1], STDOUT_FILENO);
        close(pipe_fd[0]);
        close(pipe_fd[1]);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(pipe_fd[1]);
    std::string answer;
    char buffer[256];
    for (;;) {
        const ssize_t n = read(pipe_fd[0], buffer, sizeof(buffer));
        if (n > 0) {
            answer.append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            break;
        }
    }
    close(pipe_fd[0]);
    int status = 0;
    waitFor(pid, status, nullptr);
    ProcessRun result;
    long maxrss_kib = 0;
    if (exitStatus(status) != 0 || std::sscanf(answer.c_str(), "child status %d seconds %lf maxrss_kib %ld",
                                               &result.status, &result.seconds, &maxrss_kib) != 3)
        throw std::runtime_error("the launcher failed (" + self + " --child " + program + ")");
    result.peak_mib = maxrss_kib / 1024.0;
    std::ifstream in(log_path);
    result.log.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return result;
}

}  // namespace bench
