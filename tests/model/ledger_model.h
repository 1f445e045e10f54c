// The model's part that knows when requests may leave: what each address has said to this process, and how
// far the burst to it has come.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "netmodel/random.h"
#include "tests/model/surroundings.h"

namespace skorra::model {

class LedgerModel {
 public:
  // Draws the numbers that the manager's side draws: a nonce for each request, a jitter for each refusal.
  explicit LedgerModel(uint64_t seed) : random_(seed) {}

  // A call for a request to this address: true when it leaves. A burst goes on across the ends of attempts.
  bool Call(int address, int64_t now_us);

  void Answered(int address) { Of(address).is_heard = true; }
  void Refused(int address, ArrivalKind how, int64_t now_us);

  bool IsHeard(int address) const { return accounts_[static_cast<size_t>(address)].is_heard; }
  bool IsHeld(int address, int64_t now_us) const;

 private:
  struct Account {
    std::optional<int64_t> last_burst_us;
    bool is_heard = false;    // since then
    bool is_refused = false;  // in whatever words, since then
    int too_fast_count = 0;   // such bursts in a row
    bool was_ever_too_fast = false;
    std::optional<int64_t> closed_until_us;
    bool is_denied = false;  // why it is closed
  };
  struct Burst {
    int64_t begin_us;
    int calls = 0;
    int size = 20;  // requests that leave of 20 calls
  };

  Account& Of(int address) { return accounts_[static_cast<size_t>(address)]; }

  netmodel::Random random_;
  std::array<Account, kAddressCount> accounts_;
  std::array<std::optional<Burst>, kAddressCount> bursts_;
};

}  // namespace skorra::model
