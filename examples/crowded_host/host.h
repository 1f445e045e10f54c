// SPDX-License-Identifier: Apache-2.0
// What the host program's own facilities say. Files that include our headers see only this of them.
#pragma once

#include <string>

std::string DescribeHost();
