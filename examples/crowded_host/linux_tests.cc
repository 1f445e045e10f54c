// SPDX-License-Identifier: Apache-2.0
#include "./host.h"

int main() { return DescribeHost() == "host time 42, host end point here" ? 0 : 1; }
