// SPDX-License-Identifier: Apache-2.0
#include "testing/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "platform/base/clock.h"
#include "testing/fork.h"

namespace skorra {
namespace {

int64_t DeadlineTicksUs(int timeout_ms) { return base::GetSteadyTimeTicks() + int64_t{timeout_ms} * 1000; }

int RemainingMs(int64_t deadline_ticks_us) {
  return static_cast<int>(
      std::max<int64_t>((deadline_ticks_us - base::GetSteadyTimeTicks() + 999) / 1000, 0));
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (auto& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

// Appends what is there; closes the descriptor at its end.
void Drain(int& fd, std::string& text) {
  std::array<char, 4096> buffer;
  const ssize_t size = read(fd, buffer.data(), buffer.size());
  if (size > 0) {
    text.append(buffer.data(), static_cast<size_t>(size));
  } else {
    close(fd);
    fd = -1;
  }
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command,
                           const std::vector<std::string>& environment) {
  std::vector<std::string> arguments = command;
  std::vector<std::string> variables = environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    variables.emplace_back(*entry);
  }
  const auto argv = Pointers(arguments);
  const auto envp = Pointers(variables);
  int out[2];
  int err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    std::abort();
  }
  pid_ = ForkBoundToParent();
  if (pid_ == 0) {
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  out_fd_ = out[0];
  err_fd_ = err[0];
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    Signal(SIGKILL);
    Wait();
  }
}

void ChildProcess::Signal(int signal_number) const {
  if (pid_ > 0) {
    kill(pid_, signal_number);
  }
}

// Takes over what the child has written; false when both streams have ended or the time is up.
bool ChildProcess::Pump(int64_t deadline_ticks_us) {
  std::array<pollfd, 2> fds{{{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}}};
  if ((out_fd_ < 0 && err_fd_ < 0) || poll(fds.data(), fds.size(), RemainingMs(deadline_ticks_us)) <= 0) {
    return false;
  }
  if (fds[0].revents != 0) {
    Drain(out_fd_, out_);
  }
  if (fds[1].revents != 0) {
    Drain(err_fd_, err_);
  }
  return true;
}

std::optional<std::string> ChildProcess::ReadLine(int timeout_ms) {
  const int64_t deadline_ticks_us = DeadlineTicksUs(timeout_ms);
  size_t end = out_.find('\n');
  while (end == std::string::npos && Pump(deadline_ticks_us)) {
    end = out_.find('\n');
  }
  if (end == std::string::npos) {
    return std::nullopt;
  }
  std::string line = out_.substr(0, end);
  out_.erase(0, end + 1);
  return line;
}

ChildExit ChildProcess::Wait(int timeout_ms) {
  const int64_t deadline_ticks_us = DeadlineTicksUs(timeout_ms);
  while (Pump(deadline_ticks_us)) {
  }
  int status = 0;
  if (!WaitUntil([&] { return waitpid(pid_, &status, WNOHANG) != 0; }, RemainingMs(deadline_ticks_us))) {
    Signal(SIGKILL);
    waitpid(pid_, &status, 0);
  }
  pid_ = -1;
  for (int* fd : {&out_fd_, &err_fd_}) {
    if (*fd >= 0) {
      close(*fd);
      *fd = -1;
    }
  }
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), std::move(out_), std::move(err_)};
}

ChildExit RunChild(const std::vector<std::string>& command, const std::vector<std::string>& environment,
                   int timeout_ms) {
  return ChildProcess(command, environment).Wait(timeout_ms);
}

}  // namespace skorra
