// SPDX-License-Identifier: Apache-2.0
#include "testing/noted_calls.h"

#include <cstdint>

#include "platform/config/vorq_env_config.h"
#include "platform/metrics/key_metrics.h"

// The names that the compiler gives to the two functions.
#if __SIZEOF_LONG__ == 8
#define SKORRA_COUNT_PV "_ZN4base10skorra_ntp10KeyMetrics7CountPVEmi"
#else
#define SKORRA_COUNT_PV "_ZN4base10skorra_ntp10KeyMetrics7CountPVEyi"
#endif
#define SKORRA_GET_DEFAULT_NTP_DOMAIN "_ZNK6config10skorra_ntp13VorqEnvConfig19GetDefaultNtpDomainB5cxx11Ev"

namespace skorra {
namespace {

NotedCalls* current = nullptr;

void Note(const std::string& call) {
  if (current == nullptr) {
    return;
  }
  current->calls.push_back(call);
  if (current->on_call) {
    current->on_call(call);
  }
}

}  // namespace

// The linker sends every call to these, and calls of the second kind to the functions themselves.
void NotedCountPV(uint64_t key, int value) asm("__wrap_" SKORRA_COUNT_PV);
void RealCountPV(uint64_t key, int value) asm("__real_" SKORRA_COUNT_PV);
std::string NotedDefaultDomain(const config::VorqEnvConfig* self) asm(
    "__wrap_" SKORRA_GET_DEFAULT_NTP_DOMAIN);
std::string RealDefaultDomain(const config::VorqEnvConfig* self) asm("__real_" SKORRA_GET_DEFAULT_NTP_DOMAIN);

void NotedCountPV(uint64_t key, int value) {
  Note("count " + std::to_string(key));
  RealCountPV(key, value);
}

std::string NotedDefaultDomain(const config::VorqEnvConfig* self) {
  Note("default domain");
  return RealDefaultDomain(self);
}

NotedCalls::NotedCalls() { current = this; }
NotedCalls::~NotedCalls() { current = nullptr; }

}  // namespace skorra
