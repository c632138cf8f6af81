// SPDX-License-Identifier: Apache-2.0
// The lines of the meminfo table, built from the proc_ms field table.
#include "libs/kestrel/proc-ms-fields.h"

#include <android-base/stringprintf.h>

namespace tarvo::kestrel::memstat {

namespace {

using android::base::StringPrintf;

// One cell of the table: the figure right-aligned in its column's width and a blank.
std::string cell(const proc_ms& ms, const ProcMsField& f) {
  const long long v = proc_ms_get(ms, f);
  switch (f.kind) {
    case ProcMsField::kFlag:
      return StringPrintf("%*s ", f.width, v ? "Y" : "N");
    case ProcMsField::kNumber:
      return StringPrintf("%*d ", f.width, static_cast<int>(v));
    case ProcMsField::kPages:
      break;
  }
  return StringPrintf("%*llu ", f.width,
                      static_cast<unsigned long long>(v) * tarvo::kestrel::driver::kPageKiB);
}

}  // namespace

std::string proc_ms_header(unsigned mask, bool cmdline) {
  std::string line;
  for (const ProcMsField& f : kProcMsFields) {
    if (mask & f.bit) line += StringPrintf("%*s ", f.width, f.title);
  }
  // The command line replaces comm whether or not comm was asked for.
  if (cmdline) {
    line += "cmdline";
  } else if (mask & kStatComm) {
    line += "comm";
  }
  return line;
}

std::string proc_ms_row(const proc_ms& ms, unsigned mask, const char* cmdline) {
  std::string line;
  for (const ProcMsField& f : kProcMsFields) {
    if (mask & f.bit) line += cell(ms, f);
  }
  if (cmdline != nullptr) {
    line += cmdline;
  } else if (mask & kStatComm) {
    // comm is terminated within its 16 bytes by the driver; do not trust it to be.
    line += StringPrintf("%.*s", static_cast<int>(sizeof(ms.comm)), ms.comm);
  }
  return line;
}

}  // namespace tarvo::kestrel::memstat
