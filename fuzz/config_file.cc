// SPDX-License-Identifier: Apache-2.0

// The configuration file: any bytes end in values within their bounds or in a message that names the place,
// never in a crash, and what an earlier file said is gone.
//
// Input: the content of the file.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/check.h"
#include "platform/base/log.h"
#include "platform/config/config_center.h"

namespace config {
namespace {

constexpr char kName[] = "fuzz.toml";

struct Values {
  std::vector<base::Optional<uint64_t>> numbers;
  std::vector<base::Optional<std::string>> texts;
};

Values ReadValues(const ConfigCenterImpl& center) {
  Values values;
  for (const NumberEntry* entry : BaseCfg().numbers()) {
    values.numbers.push_back(center.GetValueWithPriority(*entry, std::nullopt));
  }
  for (const TextEntry* entry : BaseCfg().texts()) {
    values.texts.push_back(center.GetValueWithPriority(*entry, std::nullopt));
  }
  return values;
}

// Without a world there is no environment, so the file is the only layer. The log says nothing.
ConfigCenterImpl& PreparedCenter() {
  base::SetLogThreshold(base::kLogNothing);
  return *ConfigCenterImpl::GetInstance();
}

// A message begins with the file's name and a line that the file has.
bool NamesAPlace(const std::string& message, std::string_view text) {
  const std::string begin = std::string(kName) + ':';
  if (!message.starts_with(begin)) {
    return false;
  }
  const long line = std::strtol(message.c_str() + begin.size(), nullptr, 10);
  // Lines end with a line feed; the parser counts the other vertical white space too, and one line more at
  // the end.
  const auto breaks = std::count_if(text.begin(), text.end(), [](char c) { return c >= '\n' && c <= '\r'; });
  return line >= 1 && line <= breaks + 2;
}

void CheckText(ConfigCenterImpl& center, std::string_view text) {
  // Every entry has a value before, so that one that stays shows.
  const std::vector<std::string> none = center.LoadText(
      "[ntp]\nsync_interval = 7\nresolve_timeout_ms = 7\nrequests_per_burst = 7\n"
      "max_root_distance_ms = 7\nmax_round_trip_ms = 7\ndefault_domain = \"before\"\nwitnesses = \"off\"\n",
      kName);
  SKORRA_FUZZ_CHECK(none.empty());
  const Values before = ReadValues(center);
  SKORRA_FUZZ_CHECK(std::all_of(before.numbers.begin(), before.numbers.end(),
                                [](const auto& number) { return number == 7u; }));

  const std::vector<std::string> messages = center.LoadText(text, kName);
  const Values values = ReadValues(center);
  // A value that came out was written: the last part of its key is there, in letters or escaped.
  const auto is_written = [&](std::string_view key) {
    return text.find(key.substr(key.rfind('.') + 1)) != std::string_view::npos ||
           text.find('\\') != std::string_view::npos;
  };
  for (size_t i = 0; i < kNumberEntryCount; ++i) {
    const NumberEntry& entry = *BaseCfg().numbers()[i];
    const auto& number = values.numbers[i];
    SKORRA_FUZZ_CHECK(!number || (*number >= entry.min && *number <= entry.max && is_written(entry.key)));
  }
  for (size_t i = 0; i < kTextEntryCount; ++i) {
    const TextEntry& entry = *BaseCfg().texts()[i];
    const auto& value = values.texts[i];
    SKORRA_FUZZ_CHECK(!value || (IsValid(entry, *value) && is_written(entry.key)));
  }
  for (const std::string& message : messages) {
    SKORRA_FUZZ_CHECK(NamesAPlace(message, text));
  }
}

}  // namespace
}  // namespace config

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static config::ConfigCenterImpl& center = config::PreparedCenter();
  config::CheckText(center, {reinterpret_cast<const char*>(data), size});
  return 0;
}
