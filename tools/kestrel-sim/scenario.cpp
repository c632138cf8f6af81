// SPDX-License-Identifier: Apache-2.0
// Reads the scenario file format: one directive per line, '#' starts a comment (except inside a
// log record's msg=, which runs to the end of the line).
#include "tools/kestrel-sim/scenario.h"

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <sstream>
#include <string_view>

#include "libs/kestrel/proc-ms-fields.h"

namespace kestrel_sim {

using tarvo::kestrel::logger::user_logger_entry_compat;

namespace {

struct Named {
  const char* name;
  int value;
};

constexpr Named kCalls[] = {
    {"open", kOpenRead},        {"open-write", kOpenWrite}, {"0xFA01", kGetVersion},
    {"0xFA02", kSetScene},      {"0xFA03", kClearScene},    {"0xFB01", kPidMemStat},
    {"0xFB02", kSizeMemStats},  {"0xFB03", kUidMemStats},
};

constexpr Named kErrnos[] = {
    {"EPERM", EPERM},   {"ENOENT", ENOENT}, {"ESRCH", ESRCH},   {"EINTR", EINTR},
    {"EIO", EIO},       {"ENXIO", ENXIO},   {"EBADF", EBADF},   {"EAGAIN", EAGAIN},
    {"ENOMEM", ENOMEM}, {"EACCES", EACCES}, {"EFAULT", EFAULT}, {"EBUSY", EBUSY},
    {"ENODEV", ENODEV}, {"EINVAL", EINVAL}, {"ENOTTY", ENOTTY}, {"ENOSPC", ENOSPC},
    {"ENOSYS", ENOSYS}, {"EOPNOTSUPP", EOPNOTSUPP}, {"ETIMEDOUT", ETIMEDOUT},
};

template <size_t N>
bool lookup(const Named (&table)[N], std::string_view name, int* value) {
  for (const Named& n : table) {
    if (name == n.name) {
      *value = n.value;
      return true;
    }
  }
  return false;
}

bool to_long(std::string_view text, long long* value) {
  if (text.empty()) return false;
  std::string s(text);
  char* end = nullptr;
  errno = 0;
  *value = strtoll(s.c_str(), &end, 0);
  return errno == 0 && *end == '\0';
}

bool parse_errno(std::string_view text, int* value) {
  long long n;
  if (lookup(kErrnos, text, value)) return true;
  if (!to_long(text, &n) || n <= 0 || n > 4095) return false;
  *value = static_cast<int>(n);
  return true;
}

// Appends the byte written as two hex digits.
bool hex_byte(std::string_view two, std::string* out) {
  int v = 0;
  for (char c : two) {
    if (!isxdigit(static_cast<unsigned char>(c))) return false;
    v = v * 16 + (isdigit(static_cast<unsigned char>(c)) ? c - '0' : (tolower(c) - 'a' + 10));
  }
  out->push_back(static_cast<char>(v));
  return true;
}

// \n \t \\ \0 and \xNN; anything else after a backslash is an error.
bool unescape(std::string_view in, std::string* out) {
  out->clear();
  for (size_t i = 0; i < in.size(); i++) {
    if (in[i] != '\\') {
      out->push_back(in[i]);
      continue;
    }
    if (++i == in.size()) return false;
    switch (in[i]) {
      case 'n': out->push_back('\n'); break;
      case 't': out->push_back('\t'); break;
      case '\\': out->push_back('\\'); break;
      case '0': out->push_back('\0'); break;
      case 'x':
        if (i + 2 >= in.size() || !hex_byte(in.substr(i + 1, 2), out)) return false;
        i += 2;
        break;
      default: return false;
    }
  }
  return true;
}

bool unhex(std::string_view in, std::string* out) {
  out->clear();
  if (in.size() % 2 != 0) return false;
  for (size_t i = 0; i < in.size(); i += 2) {
    if (!hex_byte(in.substr(i, 2), out)) return false;
  }
  return true;
}

// "key=value" words separated by blanks; msg= and raw= take the rest of the line.
struct Fields {
  std::vector<std::pair<std::string, std::string>> kv;
};

bool parse_fields(std::string_view rest, Fields* f, std::string* why) {
  size_t i = 0;
  while (i < rest.size()) {
    while (i < rest.size() && rest[i] == ' ') i++;
    if (i == rest.size()) break;
    size_t eq = rest.find('=', i);
    size_t sp = rest.find(' ', i);
    if (eq == std::string_view::npos || (sp != std::string_view::npos && sp < eq)) {
      *why = "expected key=value, got '" + std::string(rest.substr(i, sp - i)) + "'";
      return false;
    }
    std::string key(rest.substr(i, eq - i));
    if (key == "msg" || key == "raw") {
      f->kv.emplace_back(key, std::string(rest.substr(eq + 1)));
      return true;
    }
    size_t end = sp == std::string_view::npos ? rest.size() : sp;
    f->kv.emplace_back(key, std::string(rest.substr(eq + 1, end - eq - 1)));
    i = end;
  }
  return true;
}

bool parse_proc(std::string_view rest, proc_ms* ms, std::string* why) {
  Fields f;
  if (!parse_fields(rest, &f, why)) return false;
  *ms = {};
  bool has_pid = false;
  for (const auto& [key, value] : f.kv) {
    if (key == "comm") {
      if (value.size() > 15) {
        *why = "comm longer than 15 characters";
        return false;
      }
      memcpy(ms->comm, value.data(), value.size());
      continue;
    }
    long long n;
    if (!to_long(value, &n)) {
      *why = "bad number for " + key;
      return false;
    }
    using tarvo::kestrel::memstat::ProcMsField;
    const ProcMsField* field = nullptr;
    for (const ProcMsField& candidate : tarvo::kestrel::memstat::kProcMsFields) {
      if (key == candidate.name) field = &candidate;
    }
    if (field == nullptr) {
      *why = "unknown proc field " + key;
      return false;
    }
    tarvo::kestrel::memstat::proc_ms_set(ms, *field, n);
    has_pid |= key == "pid";
  }
  if (!has_pid) *why = "proc without pid=";
  return has_pid;
}

bool parse_log(std::string_view rest, FeedItem* item, std::string* why) {
  Fields f;
  if (!parse_fields(rest, &f, why)) return false;
  user_logger_entry_compat head = {};
  head.pid = 1;
  head.tid = 1;
  long long prio = 4, len_value = 0;
  bool len_relative = true;
  std::string tag = "kestrel", msg, raw;
  bool has_raw = false;
  for (const auto& [key, value] : f.kv) {
    long long n = 0;
    bool numeric = to_long(value, &n);
    if (key == "tag") {
      if (!unescape(value, &tag)) return *why = "bad escape in tag", false;
    } else if (key == "msg") {
      if (!unescape(value, &msg)) return *why = "bad escape in msg", false;
    } else if (key == "raw") {
      std::string hex = value;
      while (!hex.empty() && hex.back() == ' ') hex.pop_back();
      if (!unhex(hex, &raw)) return *why = "bad hex in raw", false;
      has_raw = true;
    } else if (key == "sec" && value == "now") {
      item->sec_now = true;
    } else if (!numeric) {
      return *why = "bad value for " + key, false;
    } else if (key == "pid") {
      head.pid = static_cast<int32_t>(n);
    } else if (key == "tid") {
      head.tid = static_cast<int32_t>(n);
    } else if (key == "prio") {
      prio = n;
    } else if (key == "sec") {
      head.sec = n;
    } else if (key == "nsec") {
      head.nsec = n;
      item->nsec_given = true;
    } else if (key == "len") {
      len_relative = value[0] == '+' || value[0] == '-';
      len_value = n;
    } else {
      return *why = "unknown log field " + key, false;
    }
  }
  std::string payload = raw;
  if (!has_raw) {
    payload.push_back(static_cast<char>(prio));
    payload += tag;
    payload.push_back('\0');
    payload += msg;
    payload.push_back('\0');
  }
  long long len = len_relative ? static_cast<long long>(payload.size()) + len_value : len_value;
  head.len = static_cast<uint16_t>(len);
  item->record.assign(reinterpret_cast<const char*>(&head), sizeof(head));
  item->record += payload;
  return true;
}

bool parse_line(std::string_view line, Scenario* sc, std::string* why) {
  size_t sp = line.find(' ');
  std::string_view word = line.substr(0, sp);
  std::string_view rest = sp == std::string_view::npos ? "" : line.substr(sp + 1);
  if (word != "log") {
    // Other directives may carry a trailing comment.
    rest = rest.substr(0, rest.find('#'));
  }
  while (!rest.empty() && (rest.back() == ' ' || rest.back() == '\t')) rest.remove_suffix(1);
  while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
  std::istringstream words{std::string(rest)};
  std::string a, b, extra;
  words >> a >> b >> extra;

  int call, err;
  long long n;
  if (word == "device") {
    if (a != "absent" && a != "present") return *why = "device absent|present", false;
    sc->present = a == "present";
  } else if (word == "version") {
    if (!to_long(a, &n)) return *why = "version needs a number", false;
    sc->version = static_cast<int>(n);
  } else if (word == "fail") {
    if (!lookup(kCalls, a, &call)) return *why = "unknown call '" + a + "'", false;
    if (!parse_errno(b, &err)) return *why = "unknown errno '" + b + "'", false;
    sc->fail_errno[call] = err;
  } else if (word == "eintr") {
    if (!lookup(kCalls, a, &call)) return *why = "unknown call '" + a + "'", false;
    sc->eintr[call] = true;
  } else if (word == "trace") {
    if (a.empty()) return *why = "trace needs a path", false;
    sc->trace = a;
  } else if (word == "log-file") {
    if (a.empty()) return *why = "log-file needs a path", false;
    sc->log_file = a;
  } else if (word == "proc") {
    proc_ms ms;
    if (!parse_proc(rest, &ms, why)) return false;
    sc->procs.push_back(ms);
  } else if (word == "host-procs") {
    sc->host_procs = true;
  } else if (word == "log") {
    FeedItem item;
    if (!parse_log(rest, &item, why)) return false;
    sc->feed.push_back(std::move(item));
  } else if (word == "delay") {
    if (!to_long(a, &n) || n < 0) return *why = "delay needs milliseconds", false;
    FeedItem item;
    item.delay_ms = static_cast<int>(n);
    sc->feed.push_back(std::move(item));
  } else if (word == "at-end") {
    if (a != "eof" && a != "hold") return *why = "at-end eof|hold", false;
    sc->hold = a == "hold";
  } else {
    return *why = "unknown directive '" + std::string(word) + "'", false;
  }
  return true;
}

}  // namespace

Scenario host_scenario() {
  Scenario sc;
  sc.host_procs = true;
  sc.hold = true;
  return sc;
}

bool parse_scenario(const std::string& text, Scenario* out, std::string* error) {
  *out = Scenario();
  std::istringstream in(text);
  std::string line;
  for (int number = 1; std::getline(in, line); number++) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#') continue;
    std::string why;
    if (!parse_line(std::string_view(line).substr(start), out, &why)) {
      *error = "line " + std::to_string(number) + ": " + why;
      return false;
    }
  }
  return true;
}

void apply_mask(const proc_ms& full, uint32_t flags, proc_ms* out) {
  using namespace tarvo::kestrel::memstat;
  *out = {};
  out->pid = full.pid;
  if (flags & kStatComm) memcpy(out->comm, full.comm, sizeof(out->comm));
  for (const ProcMsField& f : kProcMsFields) {
    if (flags & f.bit) proc_ms_copy(full, out, f);
  }
}

}  // namespace kestrel_sim
