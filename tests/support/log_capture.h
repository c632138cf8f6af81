// SPDX-License-Identifier: Apache-2.0
// The log backend of the test binaries: instead of syslog, every __android_log_print call is
// kept in memory so that tests can assert the exact "file:line message" texts.
#pragma once

#include <string>
#include <vector>

namespace kestrel_test {

struct LogLine {
  int priority;
  std::string tag;
  std::string message;
};

// Everything logged since the last clear, in order.
std::vector<LogLine> logged();
void clear_log();

}  // namespace kestrel_test
