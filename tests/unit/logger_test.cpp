// SPDX-License-Identifier: Apache-2.0
// The driver-log printer and record reader on hand-built records: the exact lines printed, the
// rejected and repaired records with their log lines, and the reader's handling of records,
// failing reads and short packets. The filter hook is proven through malloc-debug.
#include "libs/kestrel/logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "tests/support/log_capture.h"

using namespace tarvo::kestrel::logger;

namespace {

// The header of every record `fill` makes: 1970-01-02 03:04:05.006 UTC, pid 1234, tid 1240.
constexpr char kHeader[] = "01-02 03:04:05.006  1234  1240 I kestrel :";

const bool kUtc = (setenv("TZ", "UTC", 1), tzset(), true);

std::string payload(int priority, const std::string& tag, const std::string& message) {
  return std::string(1, static_cast<char>(priority)) + tag + '\0' + message + '\0';
}

// A record with the given payload and the zero byte after it, as the reader leaves it; the rest
// of the buffer is garbage.
void fill(RecordBuffer* buf, const std::string& payload) {
  memset(buf->bytes, 0xee, sizeof(buf->bytes));
  *buf->entry() = {.len = static_cast<uint16_t>(payload.size()), .pid = 1234, .tid = 1240,
                   .sec = 97445, .nsec = 6000000};
  memcpy(buf->entry()->msg, payload.data(), payload.size());
  buf->entry()->msg[payload.size()] = '\0';
}

// Runs the printer into a file in memory; returns its result and everything it wrote.
std::pair<int, std::string> print(RecordBuffer* buf) {
  const int fd = memfd_create("out", MFD_CLOEXEC);
  const int result = kestrel_logger_print(FORMAT_DEFAULT, fd, buf->entry(), nullptr, nullptr);
  std::string out(static_cast<size_t>(lseek(fd, 0, SEEK_CUR)), '\0');
  EXPECT_EQ(pread(fd, out.data(), out.size(), 0), static_cast<ssize_t>(out.size()));
  close(fd);
  return {result, out};
}

TEST(Logger, PrintsEachMessageLineBehindItsHeader) {
  struct Case { int priority; std::string tag, message, expected; };
  // 300 short lines need more than the printer's stack buffer.
  std::string many, many_out;
  for (int i = 0; i < 300; ++i) {
    many += std::string(1, char('a' + i % 26)) + "\n";
    many_out += kHeader + many.substr(many.size() - 2);
  }
  const std::string at = "01-02 03:04:05.006  1234  1240 ";
  const Case cases[] = {
      {2, "kestrel", "m", at + "V kestrel :m\n"},
      {8, "kestrel", "m", at + "S kestrel :m\n"},
      {1, "kestrel", "m", at + "? kestrel :m\n"},
      {9, "kestrel", "m", at + "? kestrel :m\n"},
      {0xf4, "kestrel", "m", at + "? kestrel :m\n"},
      {4, "kestrel", many, many_out},
  };
  kestrel_test::clear_log();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected.substr(0, 80));
    RecordBuffer buf;
    fill(&buf, payload(c.priority, c.tag, c.message));
    EXPECT_EQ(print(&buf), std::make_pair(0, c.expected));
  }
  EXPECT_TRUE(kestrel_test::logged().empty());
}

// Too short and unterminated tags are rejected with two log lines; a message without its zero
// byte loses its last byte to one.
TEST(Logger, MalformedRecordsAreRejectedOrRepaired) {
  struct Case { std::string payload; int result; std::string out, log; };
  const std::string at = "6 kestrel logger.cpp:", too_small = at + "445 +++ LOG: entry too small\n",
                    failed = at + "563 process buffer faile\n";
  const Case cases[] = {
      {std::string("\4\0", 2), -1, "", too_small + failed},
      {"\4kestrel", -1, "", at + "461 +++ LOG: malformed log message\n" + failed},
      {std::string("\4kestrel\0hello", 14), 0, std::string(kHeader) + "hell\n", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.payload);
    kestrel_test::clear_log();
    RecordBuffer buf;
    fill(&buf, c.payload);
    EXPECT_EQ(print(&buf), std::make_pair(c.result, c.out));
    std::string log;
    for (const auto& l : kestrel_test::logged()) log += std::to_string(l.priority) + " " + l.tag + " " + l.message;
    EXPECT_EQ(log, c.log);
  }
}

// The driver keeps one record per read, as a packet socket does. A packet shorter than a header
// is refused; the commands show the fatal texts of that, of silence and of the end of the stream.
TEST(FollowDriverLog, TerminatesEachRecordKeepsItOnAFailedReadAndRefusesShortPackets) {
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds), 0);
  RecordBuffer sent;
  fill(&sent, payload(4, "kestrel", "two"));
  const ssize_t size = sizeof(user_logger_entry_compat) + 13;
  ASSERT_EQ(write(fds[1], sent.bytes, size_t(size)), size);
  RecordBuffer buf;
  memset(buf.bytes, 0xee, sizeof(buf.bytes));
  EXPECT_EQ(follow_driver_log(fds[0], 5000, &buf), Follow::kRecord);
  EXPECT_EQ(memcmp(buf.bytes, sent.bytes, size_t(size) + 1), 0);
  // A directory is always readable to poll, and read fails on it with EISDIR.
  RecordBuffer before = buf;
  int dir = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  EXPECT_EQ(follow_driver_log(dir, kNoTimeout, &buf), Follow::kRecord);
  EXPECT_EQ(memcmp(before.bytes, buf.bytes, sizeof(buf.bytes)), 0);
  close(dir);
  ASSERT_EQ(write(fds[1], "\0\0\0\0", 4), 4);
  EXPECT_EQ(follow_driver_log(fds[0], 5000, &buf), Follow::kBadLength);
  EXPECT_EQ(buf.payload_read, -28);
  close(fds[0]);
  close(fds[1]);
}

}  // namespace
