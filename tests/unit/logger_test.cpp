// The driver-log printer and record reader on hand-built records: the exact lines printed for
// each format, the rejected and repaired records with their log lines, the filter hook, and the
// reader's handling of ready, failing and silent descriptors.
#include "libs/kestrel/logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/log_capture.h"

using namespace tarvo::kestrel::logger;

namespace {

// 1970-01-02 03:04:05.006 UTC.
constexpr int64_t kSec = 97445;
constexpr int64_t kNsec = 6000000;
constexpr char kHeader[] = "01-02 03:04:05.006  1234  1240 I kestrel :";

class LoggerTest : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    kestrel_test::clear_log();
  }
};

// A record with the given raw payload and the zero byte after it, as the reader leaves it.
void fill_raw(RecordBuffer* buf, const std::string& payload, int64_t sec = kSec,
              int64_t nsec = kNsec) {
  memset(buf->bytes, 0xee, sizeof(buf->bytes));
  user_logger_entry_compat* e = buf->entry();
  e->len = static_cast<uint16_t>(payload.size());
  e->reserved0 = 0;
  e->pid = 1234;
  e->tid = 1240;
  e->reserved1 = 0;
  e->sec = sec;
  e->nsec = nsec;
  memcpy(e->msg, payload.data(), payload.size());
  e->msg[payload.size()] = '\0';
}

void fill(RecordBuffer* buf, int priority, const std::string& tag, const std::string& message) {
  std::string payload(1, static_cast<char>(priority));
  payload += tag;
  payload += '\0';
  payload += message;
  payload += '\0';
  fill_raw(buf, payload);
}

// The bytes of one record as the driver sends it; len_delta makes the header disagree.
std::string record_bytes(const std::string& payload, int len_delta = 0) {
  RecordBuffer buf;
  fill_raw(&buf, payload);
  buf.entry()->len = static_cast<uint16_t>(static_cast<int>(payload.size()) + len_delta);
  return std::string(reinterpret_cast<const char*>(buf.bytes),
                     sizeof(user_logger_entry_compat) + payload.size());
}

// Runs the printer on a pipe and returns its result and everything it wrote.
struct Printed {
  int result;
  std::string out;
};

Printed print(RecordBuffer* buf, Format format = FORMAT_DEFAULT, EntryCallback callback = nullptr,
              void* data = nullptr) {
  int fds[2];
  EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
  fcntl(fds[1], F_SETPIPE_SZ, 1 << 20);
  Printed p;
  p.result = kestrel_logger_print(format, fds[1], buf->entry(), callback, data);
  close(fds[1]);
  char chunk[4096];
  ssize_t n;
  while ((n = read(fds[0], chunk, sizeof(chunk))) > 0) p.out.append(chunk, static_cast<size_t>(n));
  close(fds[0]);
  return p;
}

std::vector<std::string> log_messages() {
  std::vector<std::string> out;
  for (const auto& line : kestrel_test::logged()) {
    EXPECT_EQ(line.priority, 6);
    EXPECT_EQ(line.tag, "kestrel");
    out.push_back(line.message);
  }
  return out;
}

TEST_F(LoggerTest, PrintsEachMessageLineBehindItsHeader) {
  struct Case {
    const char* name;
    int priority;
    std::string tag;
    std::string message;
    Format format;
    std::string expected;
  };
  const std::string h = kHeader;
  const Case cases[] = {
      {"one line", 4, "kestrel", "message text", FORMAT_DEFAULT, h + "message text\n"},
      {"two lines", 4, "kestrel", "a\nb", FORMAT_DEFAULT, h + "a\n" + h + "b\n"},
      {"final newline ends the last line", 4, "kestrel", "a\n", FORMAT_DEFAULT, h + "a\n"},
      {"empty inner line keeps its header", 4, "kestrel", "a\n\nb", FORMAT_DEFAULT,
       h + "a\n" + h + "\n" + h + "b\n"},
      {"verbose", 2, "kestrel", "m", FORMAT_DEFAULT,
       "01-02 03:04:05.006  1234  1240 V kestrel :m\n"},
      {"silent", 8, "kestrel", "m", FORMAT_DEFAULT,
       "01-02 03:04:05.006  1234  1240 S kestrel :m\n"},
      {"below the table", 1, "kestrel", "m", FORMAT_DEFAULT,
       "01-02 03:04:05.006  1234  1240 ? kestrel :m\n"},
      {"above the table", 9, "kestrel", "m", FORMAT_DEFAULT,
       "01-02 03:04:05.006  1234  1240 ? kestrel :m\n"},
      {"high byte", 0xf4, "kestrel", "m", FORMAT_DEFAULT,
       "01-02 03:04:05.006  1234  1240 ? kestrel :m\n"},
      {"short tag padded to eight", 3, "ab", "m", FORMAT_DEFAULT,
       "01-02 03:04:05.006  1234  1240 D ab      :m\n"},
      {"empty tag padded", 3, "", "m", FORMAT_DEFAULT,
       "01-02 03:04:05.006  1234  1240 D         :m\n"},
      {"long tag kept whole", 5, "malloc_debug", "x\ny", FORMAT_DEFAULT,
       "01-02 03:04:05.006  1234  1240 W malloc_debug:x\n"
       "01-02 03:04:05.006  1234  1240 W malloc_debug:y\n"},
      {"bare lines", 4, "kestrel", "a\nb", FORMAT_MESSAGE, "a\nb\n"},
      {"bare line with final newline", 4, "kestrel", "a\n", FORMAT_MESSAGE, "a\n"},
      {"empty message prints nothing", 4, "kestrel", "", FORMAT_DEFAULT, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RecordBuffer buf;
    fill(&buf, c.priority, c.tag, c.message);
    Printed p = print(&buf, c.format);
    EXPECT_EQ(p.result, 0);
    EXPECT_EQ(p.out, c.expected);
  }
  EXPECT_TRUE(log_messages().empty());
}

TEST_F(LoggerTest, HeaderNumbersKeepTheirWidthsForAnyValue) {
  struct Case {
    int64_t sec, nsec;
    int pid, tid;
    const char* expected;
  };
  const Case cases[] = {
      {0, 0, 1, 2, "01-01 00:00:00.000     1     2 I t       :m\n"},
      {kSec, 999999999, 1234, 1240, "01-02 03:04:05.999  1234  1240 I t       :m\n"},
      {kSec, 1999999, 1234, 1240, "01-02 03:04:05.001  1234  1240 I t       :m\n"},
      {1700000000, 42000000, 123456, 7, "11-14 22:13:20.042 123456     7 I t       :m\n"},
      {kSec, -5000000, -1, -2147483647 - 1, "01-02 03:04:05.-05    -1 -2147483648 I t       :m\n"},
      {kSec, 12345000000, 2147483647, 0, "01-02 03:04:05.12345 2147483647     0 I t       :m\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    RecordBuffer buf;
    fill_raw(&buf, std::string("\4t\0m\0", 5), c.sec, c.nsec);
    buf.entry()->pid = c.pid;
    buf.entry()->tid = c.tid;
    EXPECT_EQ(print(&buf).out, c.expected);
  }
}

TEST_F(LoggerTest, MalformedRecordsAreRejectedWithTheirLogLines) {
  struct Case {
    const char* name;
    std::string payload;
    std::vector<std::string> log;
  };
  const std::string too_small = "logger.cpp:445 +++ LOG: entry too small\n";
  const std::string malformed = "logger.cpp:461 +++ LOG: malformed log message\n";
  const std::string failed = "logger.cpp:563 process buffer faile\n";
  const Case cases[] = {
      {"empty payload", "", {too_small, failed}},
      {"priority and one byte", std::string("\4a", 2), {too_small, failed}},
      {"priority and zero", std::string("\4\0", 2), {too_small, failed}},
      {"tag runs to the end", "\4kestrel", {malformed, failed}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    kestrel_test::clear_log();
    RecordBuffer buf;
    fill_raw(&buf, c.payload);
    Printed p = print(&buf);
    EXPECT_EQ(p.result, -1);
    EXPECT_EQ(p.out, "");
    EXPECT_EQ(log_messages(), c.log);
  }
}

TEST_F(LoggerTest, UnterminatedMessageLosesItsLastByteToTheTerminator) {
  RecordBuffer buf;
  fill_raw(&buf, std::string("\4kestrel\0hello", 14));
  Printed p = print(&buf);
  EXPECT_EQ(p.result, 0);
  EXPECT_EQ(p.out, std::string(kHeader) + "hell\n");
  EXPECT_EQ(buf.entry()->msg[13], '\0');
  EXPECT_TRUE(log_messages().empty());
}

TEST_F(LoggerTest, TagEndingThePayloadLeavesAnEmptyMessage) {
  RecordBuffer buf;
  fill_raw(&buf, std::string("\4kestrel\0", 9));
  Printed p = print(&buf);
  EXPECT_EQ(p.result, 0);
  EXPECT_EQ(p.out, "");
}

TEST_F(LoggerTest, LongOutputIsBuiltWholeAndWrittenOnce) {
  // 600 characters on one line fit the fixed buffer; 300 two-byte lines need the heap.
  struct Case {
    const char* name;
    std::string message;
    size_t lines;
  };
  const Case cases[] = {
      {"long single line", std::string(600, 'x'), 1},
      {"many short lines",
       [] {
         std::string m;
         for (int i = 0; i < 300; ++i) m += static_cast<char>('a' + i % 26), m += '\n';
         return m;
       }(),
       300},
      {"largest payload", std::string(kMaxPayload - 10, 'y'), 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RecordBuffer buf;
    fill(&buf, 4, "kestrel", c.message);
    std::string expected;
    size_t start = 0;
    for (size_t i = 0; i < c.lines; ++i) {
      size_t nl = c.message.find('\n', start);
      if (nl == std::string::npos) nl = c.message.size();
      expected += kHeader + c.message.substr(start, nl - start) + "\n";
      start = nl + 1;
    }
    Printed p = print(&buf);
    EXPECT_EQ(p.result, 0);
    EXPECT_EQ(p.out, expected);
  }
}

struct Seen {
  int calls = 0;
  Entry entry = {};
  std::string tag, message;
  int answer = 0;
};

int remember(const Entry* entry, void* data) {
  Seen* seen = static_cast<Seen*>(data);
  ++seen->calls;
  seen->entry = *entry;
  seen->tag = entry->tag;
  seen->message = std::string(entry->message, static_cast<size_t>(entry->messageLen));
  return seen->answer;
}

TEST_F(LoggerTest, FilterSeesTheDecodedEntryAndCanSuppressIt) {
  for (int answer : {0, 1, -1}) {
    SCOPED_TRACE(answer);
    RecordBuffer buf;
    fill(&buf, 4, "kestrel", "a\nb");
    Seen seen;
    seen.answer = answer;
    Printed p = print(&buf, FORMAT_MESSAGE, remember, &seen);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.entry.tv_sec, kSec);
    EXPECT_EQ(seen.entry.tv_nsec, kNsec);
    EXPECT_EQ(seen.entry.priority, 4);
    EXPECT_EQ(seen.entry.pid, 1234);
    EXPECT_EQ(seen.entry.tid, 1240);
    EXPECT_EQ(seen.entry.reserved, 0);
    EXPECT_EQ(seen.tag, "kestrel");
    EXPECT_EQ(seen.entry.messageLen, 3);
    EXPECT_EQ(seen.message, "a\nb");
    EXPECT_EQ(p.result, answer == 0 ? 0 : -1);
    EXPECT_EQ(p.out, answer == 0 ? "a\nb\n" : "");
  }
}

// The reader on a packet socket, which keeps the driver's one-record-per-read boundaries.
class ReadRecordTest : public LoggerTest {
 protected:
  void SetUp() override {
    LoggerTest::SetUp();
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds_), 0);
  }
  void TearDown() override {
    close(fds_[0]);
    if (fds_[1] >= 0) close(fds_[1]);
  }
  void send_record(const std::string& payload) {
    std::string bytes = record_bytes(payload);
    ASSERT_EQ(write(fds_[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  int fds_[2] = {-1, -1};
};

TEST_F(ReadRecordTest, ReadsOneRecordAndTerminatesItsPayload) {
  send_record(std::string("\4kestrel\0first message", 22));
  send_record(std::string("\4kestrel\0two\0", 13));
  RecordBuffer buf;
  memset(buf.bytes, 0xee, sizeof(buf.bytes));
  const timeval limit = {5, 0};
  read_record(fds_[0], &buf, &limit);
  EXPECT_EQ(buf.entry()->len, 22);
  EXPECT_EQ(buf.entry()->msg[22], '\0');
  read_record(fds_[0], &buf, nullptr);
  EXPECT_EQ(buf.entry()->len, 13);
  EXPECT_EQ(buf.entry()->msg[13], '\0');
  EXPECT_EQ(print(&buf).out, std::string(kHeader) + "two\n");
}

TEST_F(ReadRecordTest, FailedReadLeavesThePreviousRecord) {
  send_record(std::string("\4kestrel\0kept", 13));
  RecordBuffer buf;
  read_record(fds_[0], &buf, nullptr);
  RecordBuffer before = buf;
  // A directory is always readable to select, and read fails on it with EISDIR.
  int dir = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(dir, 0);
  read_record(dir, &buf, nullptr);
  close(dir);
  EXPECT_EQ(memcmp(before.bytes, buf.bytes, sizeof(buf.bytes)), 0);
}

// Each case builds its own stream inside the dying child, so the cases share nothing.
TEST(ReadRecordDeathTest, EndsTheProcessOnSilenceEndOfStreamAndBadLengths) {
  struct Case {
    const char* name;
    std::string bytes;  // written as one packet before reading; empty writes nothing
    bool close_writer;
    const char* expected;
  };
  const Case cases[] = {
      {"silence past the time-out", "", false, "^fatal: read: timeout!\n\n$"},
      {"end of stream", "", true, "^fatal: read: Unexpected EOF!\n\n$"},
      {"header longer than the record", record_bytes(std::string("\4t\0m\0", 5), 3), false,
       "^fatal: read: unexpected length. Expected 8, got 5\n\n$"},
      {"record shorter than a header", std::string(4, '\0'), false,
       "^fatal: read: unexpected length. Expected 0, got -28\n\n$"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto run = [&c] {
      int fds[2];
      if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) _exit(2);
      if (!c.bytes.empty() &&
          write(fds[1], c.bytes.data(), c.bytes.size()) != static_cast<ssize_t>(c.bytes.size())) {
        _exit(2);
      }
      if (c.close_writer) close(fds[1]);
      const timeval limit = {0, 20000};
      RecordBuffer buf;
      read_record(fds[0], &buf, &limit);
      _exit(0);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(129), c.expected);
  }
}

}  // namespace
