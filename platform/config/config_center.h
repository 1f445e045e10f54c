// SPDX-License-Identifier: Apache-2.0

// Configuration values from three layers.
//
// The first layer that has a value for an entry wins: the program (`Set`), the environment variable, the
// configuration file. When none has, the entry's default counts.
//
//   const uint64_t timeout_ms = config::GetNumber(config::BaseCfg().ntp_resolve_timeout_ms);
//
// Bad input never takes effect and never ends the process. A missing file, a malformed line, a value of the
// wrong type or out of range yields a message that names the file and line (or the variable). The message is
// logged at kLogFailure, and the layer has no value for that entry.
//
// Threads: everything may be called from any thread. Reading a number is lock-free, allocates nothing and
// makes no system call. Environment variables are read once, at the first use of the configuration, and again
// by `LoadEnvironment`.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "../base/export.h"
#include "../base/lock.h"
#include "../base/no_destructor.h"
#include "../base/optional.h"
#include "../base/thread_annotations.h"
#include "../config/base_cfg.h"

namespace config {
inline namespace skorra_ntp {

class FileReader;

class ConfigCenterImpl {
 public:
  // Never null, never destroyed.
  SKORRA_EXPORT static ConfigCenterImpl* GetInstance();

  // The value of `entry`, or `fallback` when no layer has one. Most readers want `GetNumber`.
  base::Optional<uint64_t> GetValueWithPriority(const NumberEntry& entry,
                                                base::Optional<uint64_t> fallback) const {
    const NumberSlot& slot = numbers_[entry.slot];
    return slot.present.load(std::memory_order_acquire) ? slot.value.load(std::memory_order_relaxed)
                                                        : fallback;
  }
  // Takes a lock; not for the hot path.
  SKORRA_EXPORT base::Optional<std::string> GetValueWithPriority(const TextEntry& entry,
                                                                 base::Optional<std::string> fallback) const;

  // Sets the program's layer; nullopt clears it. Returns an empty string. For a number out of the entry's
  // range, and for a text that is none of the entry's values, it returns a message, and the layer stays as it
  // was.
  SKORRA_EXPORT std::string Set(const NumberEntry& entry, base::Optional<uint64_t> value);
  SKORRA_EXPORT std::string Set(const TextEntry& entry, base::Optional<std::string> value);

  // Replaces the environment layer by what the environment holds now. Returns a message for each bad value.
  // Not safe while another thread changes the environment.
  SKORRA_EXPORT std::vector<std::string> LoadEnvironment();

  // Replaces the file layer by the TOML file's content. Returns a message for each unknown key and each bad
  // value. A file that cannot be read or is not TOML clears the layer.
  SKORRA_EXPORT std::vector<std::string> LoadFile(const std::string& path);
  // The same for content in memory; messages call the file `name`.
  SKORRA_EXPORT std::vector<std::string> LoadText(std::string_view text, const std::string& name);

 private:
  friend class base::NoDestructor<ConfigCenterImpl>;

  enum class Layer { kProgram, kEnvironment, kFile };
  static constexpr size_t kLayerCount = 3;
  template <class T>
  using Layers = std::array<base::Optional<T>, kLayerCount>;
  // The value of the first layer that has one.
  struct NumberSlot {
    std::atomic<uint64_t> value{0};
    std::atomic<bool> present{false};
  };

  ConfigCenterImpl();

  void SetNumber(const NumberEntry& entry, Layer layer, base::Optional<uint64_t> value);
  void SetText(const TextEntry& entry, Layer layer, base::Optional<std::string> value);
  std::vector<std::string> ApplyFileLayer(FileReader& reader);

  mutable base::Lock lock_;
  std::array<NumberSlot, kNumberEntryCount> numbers_;  // changed under lock_, read without
  std::array<Layers<uint64_t>, kNumberEntryCount> number_layers_ SKORRA_GUARDED_BY(lock_);
  std::array<Layers<std::string>, kTextEntryCount> texts_ SKORRA_GUARDED_BY(lock_);
};

// The value of `entry`, or its default when no layer has one. Lock-free.
SKORRA_EXPORT uint64_t GetNumber(const NumberEntry& entry);
// Takes a lock; not for the hot path.
SKORRA_EXPORT std::string GetText(const TextEntry& entry);

}  // namespace skorra_ntp
}  // namespace config
