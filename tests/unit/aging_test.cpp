// SPDX-License-Identifier: Apache-2.0
// The aging daemon's /proc/meminfo parser and reader, and the priority letters of its log file.
#include <unistd.h>

#include <regex>
#include <string>

#include <android-base/file.h>
#include <gtest/gtest.h>

#include "cmds/aging.h"
#include "tests/support/log_capture.h"

namespace {

// What was logged since clear_log(), one "<priority> <tag> <message>" line each.
std::string logged() {
  std::string all;
  for (const kestrel_test::LogLine& l : kestrel_test::logged()) {
    all += std::to_string(l.priority) + " " + l.tag + " " + l.message + "\n";
  }
  return all;
}

TEST(MeminfoParse, LineRules) {
  const struct {
    const char* content;
    bool ok;
    uint64_t mem_free;
  } cases[] = {
      {"MemFree: 10 kB\nMemFree: 20 kB\n", true, 20},
      {"\n\n   MemFree:     77   kB\n\n", true, 77},
      {"MemFree: 12abc\n", true, 12},
      {"Zswap: none\nMemFree: 3 kB\n", true, 3},  // an unknown word is skipped with its number
      {"memfree: 9 kB\nMemFree 9 kB\n", true, 0},  // keys match exactly, colon included
      {"MemFree: 3 kB\nHugePages\n", false, 3},
      {"MemFree: 3 kB\n   \n", false, 3},
      {"MemFree: kB\n", false, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.content);
    kestrel_test::clear_log();
    meminfo mem = {.mem_total = 1};
    EXPECT_EQ(parse_meminfo(c.content, &mem), c.ok);
    EXPECT_EQ(mem.mem_free, c.mem_free);
    EXPECT_EQ(mem.mem_total, 1u);  // a key not in the content keeps its value
    EXPECT_EQ(logged(), c.ok ? "" : "6 kestrel-aging /proc/meminfo parse error\n");
  }
}

// Content of exactly `size` bytes made of whole meminfo lines.
std::string meminfo_text(size_t size) {
  std::string text;
  while (text.size() + 19 + 11 <= size) text += "Filler:     123 kB\n";
  return text + "MemFree: " + std::string(size - text.size() - 10, '7') + "\n";
}

TEST(MeminfoReader, RereadsItsOpenFileAndDoublesUntilTheContentFits) {
  std::string_view content;
  kestrel_test::clear_log();
  EXPECT_FALSE(MeminfoReader("/absent/meminfo").Read(&content));
  EXPECT_EQ(logged(), "6 kestrel-aging /absent/meminfo open: No such file or directory\n");

  // The file grows in place and loses its name after the first read. Content of size - 1 bytes
  // fills the buffer, so it doubles once more.
  TemporaryFile file;
  MeminfoReader reader(file.path);
  const size_t page = getpagesize();
  const struct { size_t size, buffer; } rounds[] = {
      {page / 2, page}, {page - 2, page}, {page - 1, 2 * page}, {page * 5 / 2, 4 * page}};
  for (const auto& r : rounds) {
    SCOPED_TRACE(r.size);
    const std::string text = meminfo_text(r.size);
    ASSERT_EQ(pwrite(file.fd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    ASSERT_TRUE(reader.Read(&content));
    unlink(file.path);
    EXPECT_EQ(content, text);
    EXPECT_EQ(content.data()[content.size()], '\0');
    EXPECT_EQ(reader.buffer_size(), r.buffer);
  }
}

TEST(AgingLogFile, PriorityLettersAndTag) {
  TemporaryFile log;
  aging_data.log_fd = log.fd;
  for (int priority = 1; priority <= 9; priority++) log_to_file(priority, "tag", "p%d", priority);
  aging_data.log_fd = -1;
  log_to_file(4, "tag", "not written while the log is closed");

  std::string text;
  ASSERT_TRUE(android::base::ReadFileToString(log.path, &text));
  EXPECT_EQ(std::regex_replace(text, std::regex(R"((^|\n)\d\d-\d\d \d\d:\d\d:\d\d )"), "$1"),
            "? tag: p1\nV tag: p2\nD tag: p3\nI tag: p4\nW tag: p5\nE tag: p6\nF tag: p7\nS tag: p8\n"
            "? tag: p9\n");
}

}  // namespace
