// SPDX-License-Identifier: Apache-2.0
#include "platform/config/config_center.h"

#include <charconv>
#include <system_error>
#include <utility>

#include "platform/base/environment.h"
#include "platform/base/log.h"

namespace config {
inline namespace skorra_ntp {

namespace {

constexpr char kLogFile[] = "platform/config/config_center";

// A table of rows in which a row does not stand at its slot does not compile.
template <class Entries>
constexpr bool AreInOrder(const Entries& entries) {
  for (size_t i = 0; i < entries.size(); ++i) {
    if (entries[i]->slot != i) {
      return false;
    }
  }
  return true;
}
static_assert(AreInOrder(kBaseConfig.numbers()) && AreInOrder(kBaseConfig.texts()));

// The number in `text`, or nothing with `*error` set.
base::Optional<uint64_t> ParseNumber(const NumberEntry& entry, std::string_view text, std::string* error) {
  uint64_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, status] = std::from_chars(text.data(), end, value);
  if (stop == end && status == std::errc() && value >= entry.min && value <= entry.max) {
    return value;
  }
  *error = std::string(entry.environment_variable) + ": '" + std::string(text) +
           "' is not a whole number from " + RangeText(entry) + "; the variable is ignored";
  return std::nullopt;
}

}  // namespace

ConfigCenterImpl* ConfigCenterImpl::GetInstance() {
  static base::NoDestructor<ConfigCenterImpl> instance;
  return instance.get();
}

ConfigCenterImpl::ConfigCenterImpl() { LoadEnvironment(); }

base::Optional<std::string> ConfigCenterImpl::GetValueWithPriority(
    const TextEntry& entry, base::Optional<std::string> fallback) const {
  const base::AutoLock lock(lock_);
  for (const auto& layer : texts_[entry.slot]) {
    if (layer) {
      return layer;
    }
  }
  return fallback;
}

std::string ConfigCenterImpl::Set(const NumberEntry& entry, base::Optional<uint64_t> value) {
  if (value && (*value < entry.min || *value > entry.max)) {
    return std::string(entry.key) + ": " + std::to_string(*value) + " is not in the range " +
           RangeText(entry);
  }
  SetNumber(entry, Layer::kProgram, value);
  return {};
}

std::string ConfigCenterImpl::Set(const TextEntry& entry, base::Optional<std::string> value) {
  if (value && !IsValid(entry, *value)) {
    return std::string(entry.key) + ": '" + *value + "' is not " + RangeText(entry);
  }
  SetText(entry, Layer::kProgram, std::move(value));
  return {};
}

std::vector<std::string> ConfigCenterImpl::LoadEnvironment() {
  const BaseConfig& entries = BaseCfg();
  std::vector<std::string> messages;
  for (const NumberEntry* entry : entries.numbers()) {
    base::Optional<uint64_t> value;
    if (const auto text = base::GetEnvironmentVariable(entry->environment_variable)) {
      std::string error;
      value = ParseNumber(*entry, *text, &error);
      if (!value) {
        messages.push_back(std::move(error));
      }
    }
    SetNumber(*entry, Layer::kEnvironment, value);
  }
  for (const TextEntry* entry : entries.texts()) {
    auto text = base::GetEnvironmentVariable(entry->environment_variable);
    if (text && !IsValid(*entry, *text)) {
      messages.push_back(std::string(entry->environment_variable) + ": '" + *text + "' is not " +
                         RangeText(*entry) + "; the variable is ignored");
      text.reset();
    }
    SetText(*entry, Layer::kEnvironment, std::move(text));
  }
  for (const std::string& message : messages) {
    base::LocalLog(base::kLogFailure, kLogFile, __LINE__, "%s", message.c_str());
  }
  return messages;
}

void ConfigCenterImpl::SetNumber(const NumberEntry& entry, Layer layer, base::Optional<uint64_t> value) {
  const base::AutoLock lock(lock_);
  NumberSlot& slot = numbers_[entry.slot];
  Layers<uint64_t>& layers = number_layers_[entry.slot];
  layers[static_cast<size_t>(layer)] = value;
  for (const auto& winner : layers) {
    if (winner) {
      // In this order, so that a reader that sees `present` sees a value that was set.
      slot.value.store(*winner, std::memory_order_relaxed);
      slot.present.store(true, std::memory_order_release);
      return;
    }
  }
  slot.present.store(false, std::memory_order_release);
}

void ConfigCenterImpl::SetText(const TextEntry& entry, Layer layer, base::Optional<std::string> value) {
  const base::AutoLock lock(lock_);
  texts_[entry.slot][static_cast<size_t>(layer)] = std::move(value);
}

uint64_t GetNumber(const NumberEntry& entry) {
  return ConfigCenterImpl::GetInstance()
      ->GetValueWithPriority(entry, base::Optional<uint64_t>())
      .value_or(entry.default_value);
}

std::string GetText(const TextEntry& entry) {
  return ConfigCenterImpl::GetInstance()
      ->GetValueWithPriority(entry, base::Optional<std::string>())
      .value_or(entry.default_value);
}

}  // namespace skorra_ntp
}  // namespace config
