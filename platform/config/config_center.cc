#include "platform/config/config_center.h"

#include <charconv>
#include <cstdlib>
#include <utility>

#include "platform/base/log.h"

namespace config {
inline namespace skorra_ntp {

namespace {

constexpr char kLogFile[] = "platform/config/config_center";

std::string RangeText(const NumberEntry& entry) {
  return std::to_string(entry.min) + " to " + std::to_string(entry.max);
}

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

void ConfigCenterImpl::Set(const TextEntry& entry, base::Optional<std::string> value) {
  SetText(entry, Layer::kProgram, std::move(value));
}

std::vector<std::string> ConfigCenterImpl::LoadEnvironment() {
  const BaseConfig& entries = BaseCfg();
  std::vector<std::string> messages;
  for (const NumberEntry* entry : entries.numbers()) {
    base::Optional<uint64_t> value;
    if (const char* text = std::getenv(entry->environment_variable); text != nullptr) {
      std::string error;
      value = ParseNumber(*entry, text, &error);
      if (!value) {
        messages.push_back(std::move(error));
      }
    }
    SetNumber(*entry, Layer::kEnvironment, value);
  }
  for (const TextEntry* entry : entries.texts()) {
    const char* text = std::getenv(entry->environment_variable);
    SetText(*entry, Layer::kEnvironment,
            text == nullptr ? base::Optional<std::string>() : base::Optional<std::string>(text));
  }
  for (const std::string& message : messages) {
    base::LocalLog(base::kLogFailure, kLogFile, __LINE__, "%s", message.c_str());
  }
  return messages;
}

void ConfigCenterImpl::SetNumber(const NumberEntry& entry, Layer layer, base::Optional<uint64_t> value) {
  const base::AutoLock lock(lock_);
  NumberSlot& slot = numbers_[entry.slot];
  slot.layers[static_cast<size_t>(layer)] = value;
  for (const auto& winner : slot.layers) {
    if (winner) {
      // In this order, so that whoever sees `present` sees a value that was set.
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

}  // namespace skorra_ntp
}  // namespace config
