// The aging daemon's /proc/meminfo snapshot (parser and re-readable reader) and the priority
// letters of its log file.
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>

#include "cmds/aging.h"
#include "tests/support/log_capture.h"

namespace {

std::vector<std::string> logged_messages() {
  std::vector<std::string> messages;
  for (const kestrel_test::LogLine& line : kestrel_test::logged()) {
    messages.push_back(std::to_string(line.priority) + " " + line.tag + " " + line.message);
  }
  return messages;
}

struct ParseCase {
  const char* name;
  const char* content;
  bool ok;
  uint64_t mem_free;
};

TEST(MeminfoParse, LineRules) {
  const ParseCase cases[] = {
      {"later line of a key wins", "MemFree: 10 kB\nMemFree: 20 kB\n", true, 20},
      {"blank runs and empty lines", "\n\n   MemFree:     77   kB\n\n", true, 77},
      {"unit is not read", "MemFree: 5\n", true, 5},
      {"digits then junk", "MemFree: 12abc kB\n", true, 12},
      {"unknown word skipped without its number", "Zswap: none\nMemFree: 3 kB\n", true, 3},
      {"keys compare case-sensitively", "memfree: 9 kB\n", true, 0},
      {"key without colon is unknown", "MemFree 9 kB\n", true, 0},
      {"one-word line fails", "MemFree: 3 kB\nHugePages\n", false, 3},
      {"blank-only line fails", "MemFree: 3 kB\n   \n", false, 3},
      {"key without a number fails", "MemFree: kB\n", false, 0},
  };
  for (const ParseCase& c : cases) {
    SCOPED_TRACE(c.name);
    kestrel_test::clear_log();
    meminfo mem = {};
    EXPECT_EQ(parse_meminfo(c.content, &mem), c.ok);
    EXPECT_EQ(mem.mem_free, c.mem_free);
    std::vector<std::string> expected_log;
    if (!c.ok) expected_log.push_back("6 kestrel-aging /proc/meminfo parse error");
    EXPECT_EQ(logged_messages(), expected_log);
  }
}

class MeminfoReaderTest : public ::testing::Test {
 protected:
  void SetUp() override { path_ = std::string(dir_.path) + "/meminfo"; }

  void write(const std::string& content) {
    ASSERT_TRUE(android::base::WriteStringToFile(content, path_));
  }

  TemporaryDir dir_;
  std::string path_;
  const size_t page_ = getpagesize();
};

// Content of exactly `size` bytes made of whole meminfo lines ("Key: nnn kB\n").
std::string meminfo_text(size_t size) {
  std::string text;
  while (text.size() + 19 + 11 <= size) text += "Filler:     123 kB\n";
  text += "MemFree: ";
  text += std::string(size - text.size() - 1, '7');
  text += "\n";
  return text;
}

TEST_F(MeminfoReaderTest, BufferDoublesUntilTheContentFits) {
  struct Case {
    size_t content_pages_num, content_pages_den;  // content size as a fraction of a page
    int extra_bytes;
    size_t buffer_pages;
  };
  const Case cases[] = {
      {1, 2, 0, 1},    // half a page fits the first buffer
      {1, 1, -2, 1},   // size - 2 bytes: complete at once
      {1, 1, -1, 2},   // size - 1 bytes fill the buffer, so it doubles once more
      {5, 2, 0, 4},    // two and a half pages: doubled twice
  };
  for (const Case& c : cases) {
    size_t size = page_ * c.content_pages_num / c.content_pages_den + c.extra_bytes;
    SCOPED_TRACE(size);
    std::string text = meminfo_text(size);
    write(text);
    MeminfoReader reader(path_);
    std::string_view content;
    ASSERT_TRUE(reader.Read(&content));
    EXPECT_EQ(content, text);
    EXPECT_EQ(content.data()[content.size()], '\0');
    EXPECT_EQ(reader.buffer_size(), c.buffer_pages * page_);
  }
}

TEST_F(MeminfoReaderTest, ReadsAgainFromTheStartThroughTheSameDescriptor) {
  write("MemFree: 1 kB\n");
  MeminfoReader reader(path_);
  std::string_view content;
  ASSERT_TRUE(reader.Read(&content));
  EXPECT_EQ(content, "MemFree: 1 kB\n");

  // Rewritten in place: the reader must see the new content of the file it holds open, even
  // after the name is gone.
  std::string longer = meminfo_text(3 * page_);
  {
    android::base::unique_fd fd(open(path_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    ASSERT_GE(fd.get(), 0);
    ASSERT_TRUE(android::base::WriteStringToFd(longer, fd));
  }
  ASSERT_EQ(unlink(path_.c_str()), 0);
  ASSERT_TRUE(reader.Read(&content));
  EXPECT_EQ(content, longer);
  EXPECT_EQ(reader.buffer_size(), 4 * page_);
}

TEST_F(MeminfoReaderTest, MissingFileIsLogged) {
  kestrel_test::clear_log();
  MeminfoReader reader(path_);
  std::string_view content;
  EXPECT_FALSE(reader.Read(&content));
  EXPECT_EQ(logged_messages(),
            std::vector<std::string>{"6 kestrel-aging " + path_ + " open: No such file or directory"});
}

TEST(AgingLogFile, PriorityLettersAndTag) {
  TemporaryFile log;
  const int saved = aging_data.log_fd;
  aging_data.log_fd = log.fd;
  for (int priority : {1, 2, 3, 4, 5, 6, 7, 8, 9}) log_to_file(priority, "kestrel-aging", "p%d", priority);
  aging_data.log_fd = -1;
  log_to_file(4, "kestrel-aging", "not written while the log is closed");
  aging_data.log_fd = saved;

  std::string text;
  ASSERT_TRUE(android::base::ReadFileToString(log.path, &text));
  // Each line starts with "MM-DD HH:MM:SS " (15 characters).
  std::string stripped;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    ASSERT_NE(end, std::string::npos);
    ASSERT_GE(end - start, 15u);
    stripped += text.substr(start + 15, end + 1 - start - 15);
    start = end + 1;
  }
  EXPECT_EQ(stripped,
            "? kestrel-aging: p1\n"
            "V kestrel-aging: p2\n"
            "D kestrel-aging: p3\n"
            "I kestrel-aging: p4\n"
            "W kestrel-aging: p5\n"
            "E kestrel-aging: p6\n"
            "F kestrel-aging: p7\n"
            "S kestrel-aging: p8\n"
            "? kestrel-aging: p9\n");
}

}  // namespace
