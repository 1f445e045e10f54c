// SPDX-License-Identifier: Apache-2.0
#include "apps/skorra-ntp/terminal.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <system_error>

#include "apps/skorra-ntp/exit_status.h"

namespace skorra {
namespace {

// The number of bytes of the character at the start of `text`; 0 when a terminal must not get it as it is.
// Valid are the sequences of RFC 3629, section 4.
size_t PrintableSize(std::string_view text) {
  const auto byte = [text](size_t at) { return static_cast<unsigned char>(at < text.size() ? text[at] : 0); };
  const unsigned char first = byte(0);
  if (first < 0x80) {
    return first >= 0x20 && first != 0x7f ? 1 : 0;
  }
  const size_t size = first >= 0xc2 && first <= 0xdf ? 2 : first >> 4 == 0xe ? 3 : first >> 3 == 0x1e ? 4 : 0;
  for (size_t at = 1; at < size; ++at) {
    if (byte(at) >> 6 != 2) {
      return 0;
    }
  }
  // The second byte tells C1 controls, forms that are too long, surrogates and numbers above U+10FFFF.
  const unsigned char second = byte(1);
  const bool is_other = (first == 0xc2 && second < 0xa0) || (first == 0xe0 && second < 0xa0) ||
                        (first == 0xed && second > 0x9f) || (first == 0xf0 && second < 0x90) ||
                        (first == 0xf4 && second > 0x8f) || first > 0xf4;
  return is_other ? 0 : size;
}

std::string Escape(std::string_view text, bool keeps_line_ends) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string result;
  while (!text.empty()) {
    size_t size = keeps_line_ends && text[0] == '\n' ? 1 : PrintableSize(text);
    if (size > 0) {
      result += text.substr(0, size);
    } else {
      const auto byte = static_cast<unsigned char>(text[0]);
      result += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
      size = 1;
    }
    text.remove_prefix(size);
  }
  return result;
}

// Returns 0, or the error that kept a part of `text` back.
int Write(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t size = write(fd, text.data(), text.size());
    if (size < 0 && errno == EAGAIN) {
      // Somebody made the descriptor non-blocking: wait for room, as a blocking one does.
      pollfd entry{fd, POLLOUT, 0};
      poll(&entry, 1, -1);
    } else if (size < 0 && errno != EINTR) {
      return errno;
    }
    text.remove_prefix(size < 0 ? 0 : static_cast<size_t>(size));
  }
  return 0;
}

bool WriteOutput(std::string_view text) {
  const int error = Write(STDOUT_FILENO, text);
  if (error == 0) {
    return true;
  }
  const char* remedy = "Free some room there, or send the output elsewhere.";
  if (error == EBADF) {
    remedy = "It is closed, or open for reading only. Send it to a terminal, a file or a pipe.";
  } else if (error == EPIPE) {
    remedy = "The program that reads it has ended. Let that program read to the end.";
  }
  PrintProblem(
      "cannot write to standard output, so the report is lost: " + std::generic_category().message(error),
      remedy);
  return false;
}

}  // namespace

void PrepareStandardStreams() {
  std::array<pollfd, 3> streams{{{STDIN_FILENO, 0, 0}, {STDOUT_FILENO, 0, 0}, {STDERR_FILENO, 0, 0}}};
  poll(streams.data(), streams.size(), 0);
  for (const auto& [fd, asked, answer] : streams) {
    // The lowest number that is free is `fd`. Opened for reading, standard output fails each write as a
    // closed one does.
    if ((answer & POLLNVAL) != 0 && open("/dev/null", fd == STDERR_FILENO ? O_WRONLY : O_RDONLY) != fd) {
      _exit(kExitOutput);
    }
  }
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
}

std::string Printable(std::string_view text) { return Escape(text, false); }

bool PrintText(std::string_view text) { return WriteOutput(Escape(text, true)); }

bool PrintJson(std::string_view text) { return WriteOutput(text); }

void PrintProblem(std::string_view what, std::string_view remedy) {
  std::string text = Printable(program_invocation_short_name) + ": " + Printable(what) + '\n';
  if (!remedy.empty()) {
    text += Printable(remedy) + '\n';
  }
  WriteError(text);
}

void PrintErrorLine(std::string_view line, std::string_view before) {
  WriteError(std::string(before) + Printable(line) + '\n');
}

void WriteError(std::string_view text) { Write(STDERR_FILENO, text); }

}  // namespace skorra
