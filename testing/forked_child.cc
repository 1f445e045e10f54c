#include "testing/forked_child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

namespace skorra {

ForkedChild::ForkedChild(const std::function<std::string()>& body) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    std::abort();
  }
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
      _exit(126);
    }
    const std::string report = body();
    const bool is_written =
        write(fds[1], report.data(), report.size()) == static_cast<ssize_t>(report.size());
    _exit(is_written ? 0 : 125);
  }
  close(fds[1]);
  report_fd_ = fds[0];
}

ForkedChild::~ForkedChild() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  close(report_fd_);
}

std::string ForkedChild::Report(int timeout_ms) {
  if (pid_ <= 0) {
    return "it could not be forked";
  }
  int status = 0;
  const int64_t deadline_us = base::GetSteadyTimeTicks() + int64_t{timeout_ms} * 1000;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (base::GetSteadyTimeTicks() > deadline_us) {
      return "it hung";  // the destructor kills it
    }
    poll(nullptr, 0, 1);
  }
  pid_ = -1;
  if (WIFSIGNALED(status)) {
    return "signal " + std::to_string(WTERMSIG(status)) + " ended it";
  }
  if (WEXITSTATUS(status) != 0) {
    return "it ended with status " + std::to_string(WEXITSTATUS(status));
  }
  std::array<char, 4096> buffer;
  const ssize_t size = read(report_fd_, buffer.data(), buffer.size());
  return {buffer.data(), static_cast<size_t>(size > 0 ? size : 0)};
}

std::string RunInChild(const std::function<std::string()>& body) { return ForkedChild(body).Report(); }

}  // namespace skorra
