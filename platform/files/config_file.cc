// SPDX-License-Identifier: Apache-2.0
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <toml++/toml.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/base/log.h"
#include "platform/config/config_center.h"
#include "platform/files/file_kind.h"

namespace config {
inline namespace skorra_ntp {

namespace {

constexpr char kLogFile[] = "platform/files/config_file";
// Far above any real file: a key of dots only must not exhaust the parser's stack.
constexpr size_t kMaxFileBytes = 16 * 1024;

std::string CannotRead(int error) {
  return std::system_category().message(error) + "; give a file that exists and may be read";
}

// Appends the file's content, but no more than one block beyond kMaxFileBytes. Returns an empty string, or
// why the file cannot be read.
std::string ReadRegularFile(int fd, std::string* bytes) {
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    return CannotRead(errno);
  }
  if (!S_ISREG(status.st_mode)) {
    return std::string("it is ") + base::FileKind(status.st_mode) + "; give a regular file";
  }
  while (bytes->size() <= kMaxFileBytes) {
    std::array<char, 4096> block;
    const ssize_t got = read(fd, block.data(), block.size());
    if (got <= 0) {
      return got == 0 ? std::string() : CannotRead(errno);
    }
    bytes->append(block.data(), static_cast<size_t>(got));
  }
  return {};
}

}  // namespace

// Reads a file into values by slot and messages about its mistakes.
class FileReader {
 public:
  explicit FileReader(std::string path) : path_(std::move(path)) {}

  void ReadFile();
  void ReadText(std::string_view text);

  std::array<base::Optional<uint64_t>, kNumberEntryCount> numbers;
  std::array<base::Optional<std::string>, kTextEntryCount> texts;
  std::vector<std::string> messages;

 private:
  // Returns false and adds a message when the file cannot be read.
  bool ReadBytes(std::string* bytes);
  void ReadTable(const toml::table& table, const std::string& prefix);
  void ReadValue(const std::string& key, const toml::node& value);
  void ReadNumber(const NumberEntry& entry, const toml::node& value);
  void ReadText(const TextEntry& entry, const toml::node& value);
  void AddMessage(const toml::source_region& place, const std::string& text);

  const std::string path_;
};

void FileReader::AddMessage(const toml::source_region& place, const std::string& text) {
  messages.push_back(path_ + ':' + std::to_string(place.begin.line) + ": " + text);
}

bool FileReader::ReadBytes(std::string* bytes) {
  // Without waiting: the open of a FIFO would wait for a writer.
  const int fd = open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  const std::string reason = fd < 0 ? CannotRead(errno) : ReadRegularFile(fd, bytes);
  if (fd >= 0) {
    close(fd);
  }
  if (!reason.empty()) {
    messages.push_back(path_ + ": cannot read the configuration file: " + reason);
  }
  return reason.empty();
}

void FileReader::ReadFile() {
  std::string bytes;
  if (ReadBytes(&bytes)) {
    ReadText(bytes);
  }
}

void FileReader::ReadText(std::string_view text) {
  if (text.size() > kMaxFileBytes) {
    messages.push_back(path_ + ": the configuration file is larger than " +
                       std::to_string(kMaxFileBytes / 1024) + " KiB and is not read");
    return;
  }
  try {
    ReadTable(toml::parse(text, path_), {});
  } catch (const toml::parse_error& error) {
    AddMessage(error.source(), std::string(error.description()));
  }
}

namespace {

// Whether a known key begins with `prefix`.
bool IsTableOfKeys(const std::string& prefix) {
  const auto begins = [&](const auto* entry) { return std::string_view(entry->key).starts_with(prefix); };
  const auto numbers = BaseCfg().numbers();
  const auto texts = BaseCfg().texts();
  return std::any_of(numbers.begin(), numbers.end(), begins) ||
         std::any_of(texts.begin(), texts.end(), begins);
}

}  // namespace

void FileReader::ReadTable(const toml::table& table, const std::string& prefix) {
  for (const auto& [name, value] : table) {
    const std::string key = prefix + std::string(name.str());
    const toml::table* const inner = value.as_table();
    // A table that holds no known key is one unknown key, however deep it goes.
    if (inner != nullptr && IsTableOfKeys(key + '.')) {
      ReadTable(*inner, key + '.');
    } else {
      ReadValue(key, value);
    }
  }
}

void FileReader::ReadValue(const std::string& key, const toml::node& value) {
  std::string known_keys;
  for (const NumberEntry* entry : BaseCfg().numbers()) {
    if (key == entry->key) {
      ReadNumber(*entry, value);
      return;
    }
    known_keys += std::string(known_keys.empty() ? "" : ", ") + entry->key;
  }
  for (const TextEntry* entry : BaseCfg().texts()) {
    if (key == entry->key) {
      ReadText(*entry, value);
      return;
    }
    known_keys += std::string(known_keys.empty() ? "" : ", ") + entry->key;
  }
  AddMessage(value.source(), "unknown key '" + key + "'; the known keys are " + known_keys);
}

void FileReader::ReadNumber(const NumberEntry& entry, const toml::node& value) {
  const auto number = value.value_exact<int64_t>();
  if (!number) {
    AddMessage(value.source(), std::string(entry.key) + ": must be a whole number, without quotes");
    return;
  }
  if (*number < 0 || static_cast<uint64_t>(*number) < entry.min ||
      static_cast<uint64_t>(*number) > entry.max) {
    AddMessage(value.source(), std::string(entry.key) + ": " + std::to_string(*number) +
                                   " is not in the range " + RangeText(entry));
    return;
  }
  numbers[entry.slot] = static_cast<uint64_t>(*number);
}

void FileReader::ReadText(const TextEntry& entry, const toml::node& value) {
  const auto text = value.value_exact<std::string>();
  if (!text) {
    AddMessage(value.source(), std::string(entry.key) + ": must be a text in quotes");
    return;
  }
  if (!IsValid(entry, *text)) {
    AddMessage(value.source(), std::string(entry.key) + ": '" + *text + "' is not " + RangeText(entry));
    return;
  }
  texts[entry.slot] = *text;
}

std::vector<std::string> ConfigCenterImpl::LoadFile(const std::string& path) {
  FileReader reader(path);
  reader.ReadFile();
  return ApplyFileLayer(reader);
}

std::vector<std::string> ConfigCenterImpl::LoadText(std::string_view text, const std::string& name) {
  FileReader reader(name);
  reader.ReadText(text);
  return ApplyFileLayer(reader);
}

std::vector<std::string> ConfigCenterImpl::ApplyFileLayer(FileReader& reader) {
  for (const NumberEntry* entry : BaseCfg().numbers()) {
    SetNumber(*entry, Layer::kFile, reader.numbers[entry->slot]);
  }
  for (const TextEntry* entry : BaseCfg().texts()) {
    SetText(*entry, Layer::kFile, std::move(reader.texts[entry->slot]));
  }
  for (const std::string& message : reader.messages) {
    base::LocalLog(base::kLogFailure, kLogFile, __LINE__, "%s", message.c_str());
  }
  return std::move(reader.messages);
}

}  // namespace skorra_ntp
}  // namespace config
