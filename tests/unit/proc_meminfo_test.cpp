// SPDX-License-Identifier: Apache-2.0
// The /proc/meminfo parser and reader. (The kit's priority letters and time stamps are proven
// through the log printer, whose lines carry both.)
#include <unistd.h>

#include <string>

#include <android-base/file.h>
#include <gtest/gtest.h>

#include "libs/kestrel/proc-meminfo.h"

namespace {

TEST(MeminfoParse, LineRules) {
  const struct {
    const char* content;
    bool ok;
    uint64_t mem_free;
  } cases[] = {
      {"\n\n   MemFree:     77   kB\n\n", true, 77},
      {"Zswap: none\nMemFree: 3 kB\n", true, 3},  // an unknown word is skipped with its number
      {"memfree: 9 kB\nMemFree 9 kB\n", true, 0},  // keys match exactly, colon included
      {"MemFree: 3 kB\nHugePages\n", false, 3},
      {"MemFree: kB\n", false, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.content);
    meminfo mem = {.mem_total = 1};
    EXPECT_EQ(parse_meminfo(c.content, &mem), c.ok);
    EXPECT_EQ(mem.mem_free, c.mem_free);
    EXPECT_EQ(mem.mem_total, 1u);  // a key not in the content keeps its value
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
  MeminfoReader absent("/absent/meminfo");
  EXPECT_FALSE(absent.Read(&content));
  EXPECT_EQ(absent.error(), "/absent/meminfo open: No such file or directory");

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

}  // namespace
