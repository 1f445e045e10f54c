// SPDX-License-Identifier: Apache-2.0
#include "platform/config/vorq_env_config.h"

#include "platform/base/no_destructor.h"
#include "platform/config/config_center.h"

namespace config {
inline namespace skorra_ntp {

VorqEnvConfig* VorqEnvConfig::GetInstance() {
  static base::NoDestructor<VorqEnvConfig> instance;
  return instance.get();
}

std::string VorqEnvConfig::GetDefaultNtpDomain() const { return GetText(BaseCfg().ntp_default_domain); }

}  // namespace skorra_ntp
}  // namespace config
