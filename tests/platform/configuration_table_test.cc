// SPDX-License-Identifier: Apache-2.0

// docs/configuration.md shows the rows of platform/config/base_cfg.h, all of them and nothing else.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "platform/config/base_cfg.h"
#include "platform/config/config_center.h"
#include "testing/temp_dir.h"

namespace config {
namespace {

std::string Row(const char* key, const char* variable, const std::string& range, const std::string& value,
                const char* meaning) {
  return std::string("| `") + key + "` | `" + variable + "` | " + range + " | " + value + " | " + meaning +
         " |";
}

std::vector<std::string> ExpectedRows() {
  std::vector<std::string> rows;
  for (const NumberEntry* entry : BaseCfg().numbers()) {
    rows.push_back(Row(entry->key, entry->environment_variable, RangeText(*entry),
                       std::to_string(entry->default_value), entry->meaning));
  }
  for (const TextEntry* entry : BaseCfg().texts()) {
    const std::string value = entry->default_value;
    rows.push_back(Row(entry->key, entry->environment_variable, RangeText(*entry),
                       value.empty() ? "none" : value, entry->meaning));
  }
  return rows;
}

// The lines of the table that begins with `header`, without the header and the line below it.
std::vector<std::string> RowsBelow(const std::string& header, const std::string& document) {
  std::vector<std::string> rows;
  const size_t begin = document.find('\n' + header + '\n');
  size_t at = begin == std::string::npos ? document.size() : begin + 1;
  while (at < document.size() && document[at] == '|') {
    const size_t end = std::min(document.find('\n', at), document.size());
    rows.push_back(document.substr(at, end - at));
    at = end + 1;
  }
  rows.erase(rows.begin(), rows.begin() + std::min<ptrdiff_t>(2, std::ssize(rows)));
  return rows;
}

TEST(ConfigurationTableTest, TheDocumentShowsExactlyTheRowsOfTheTable) {
  const std::string document = skorra::ReadFile(SKORRA_DOCS "/configuration.md");
  EXPECT_THAT(RowsBelow("| key in the file | environment variable | range | default | meaning |", document),
              ::testing::ElementsAreArray(ExpectedRows()));
}

TEST(ConfigurationTableTest, KeysAndVariablesAreDifferentAndMeaningsFitIntoATable) {
  std::vector<std::string> names;
  std::vector<std::string> meanings;
  const auto add = [&](const auto& entry) {
    names.emplace_back(entry.key);
    names.emplace_back(entry.environment_variable);
    meanings.emplace_back(entry.meaning);
  };
  for (const NumberEntry* entry : BaseCfg().numbers()) {
    add(*entry);
  }
  for (const TextEntry* entry : BaseCfg().texts()) {
    add(*entry);
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
  for (const std::string& meaning : meanings) {
    EXPECT_FALSE(meaning.empty());
    EXPECT_EQ(meaning.find_first_of("|\n"), std::string::npos) << meaning;
  }
}

}  // namespace
}  // namespace config
