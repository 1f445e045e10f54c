// Configuration values from three layers.
//
// For each entry the first of these that is there wins: the value set by the program (`Set`), the
// environment variable, the configuration file, the default that the reader passes in.
//
//   const auto seconds = config::ConfigCenterImpl::GetInstance()->GetValueWithPriority(
//       config::BaseCfg().ntp_sync_interval, 3600);
//
// Bad input never takes effect and never ends anything: a missing file, a malformed line, a value of the
// wrong type or out of range yields a message that names the file and line (or the variable), logged at
// level 1, and the layer is treated as unset.
//
// Threads: everything may be called from any thread. Reading a number is lock-free, allocates nothing and
// makes no system call. Environment variables are read once, at the first use of the centre, or again by
// `LoadEnvironment`.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/lock.h"
#include "platform/base/no_destructor.h"
#include "platform/base/optional.h"
#include "platform/config/base_cfg.h"

namespace config {
inline namespace skorra_ntp {

enum class Layer { kProgram, kEnvironment, kFile };
inline constexpr size_t kLayerCount = 3;

class FileReader;

class ConfigCenterImpl {
 public:
  // Never null, never destroyed.
  static ConfigCenterImpl* GetInstance() {
    static base::NoDestructor<ConfigCenterImpl> instance;
    return instance.get();
  }

  // The value of `entry`, or `fallback` when no layer has one.
  base::Optional<uint64_t> GetValueWithPriority(const NumberEntry& entry,
                                                base::Optional<uint64_t> fallback) const {
    const NumberSlot& slot = numbers_[entry.slot];
    return slot.present.load(std::memory_order_acquire) ? slot.value.load(std::memory_order_relaxed)
                                                        : fallback;
  }
  // Takes a lock; not for the hot path.
  base::Optional<std::string> GetValueWithPriority(const TextEntry& entry,
                                                   base::Optional<std::string> fallback) const;

  // Sets the program's layer; nullopt clears it. A number out of the entry's range is refused with a
  // message, and the layer stays as it was. An empty string means success.
  std::string Set(const NumberEntry& entry, base::Optional<uint64_t> value);
  void Set(const TextEntry& entry, base::Optional<std::string> value);

  // Replaces the environment layer by what the environment holds now. Returns the messages of bad values.
  // Not safe beside another thread's setenv.
  std::vector<std::string> LoadEnvironment();

  // Replaces the file layer by the TOML file's content. Returns the messages of everything that was not
  // taken over (unknown keys among them); a file that cannot be read or is not TOML clears the layer.
  std::vector<std::string> LoadFile(const std::string& path);
  // The same with the content at hand; `name` stands for the file in the messages.
  std::vector<std::string> LoadText(std::string_view text, const std::string& name);

 private:
  friend class base::NoDestructor<ConfigCenterImpl>;

  // The three layers of one number and, for readers, the value that wins.
  struct NumberSlot {
    std::array<base::Optional<uint64_t>, kLayerCount> layers;  // under lock_
    std::atomic<uint64_t> value{0};
    std::atomic<bool> present{false};
  };
  using TextSlot = std::array<base::Optional<std::string>, kLayerCount>;  // under lock_

  ConfigCenterImpl();

  void SetNumber(const NumberEntry& entry, Layer layer, base::Optional<uint64_t> value);
  void SetText(const TextEntry& entry, Layer layer, base::Optional<std::string> value);
  std::vector<std::string> TakeOver(FileReader& reader);

  mutable base::Lock lock_;
  std::array<NumberSlot, kNumberEntryCount> numbers_;
  std::array<TextSlot, kTextEntryCount> texts_;
};

}  // namespace skorra_ntp
}  // namespace config
