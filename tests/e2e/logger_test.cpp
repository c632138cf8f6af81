// `kestrel logger` under the driver simulator: the exact lines printed for the records a
// scenario feeds, and the three ways the stream ends (end of stream, a record whose length
// disagrees with its header, no device), each with its message and status.
#include <gtest/gtest.h>

#include <string>

#include "tests/e2e/harness.h"

namespace {

struct Case {
  const char* name;
  std::string scenario;
  std::string out;
  std::string err;
  int status;
};

constexpr char kEof[] = "fatal: read: Unexpected EOF!\n\n";

// 1970-01-02 03:04:05.006 UTC; the harness runs every child with TZ=UTC.
constexpr char kAt[] = "sec=97445 nsec=6000000";

std::string log_line(const std::string& fields) { return "log " + fields + "\n"; }

void run_cases(const Case* begin, const Case* end) {
  for (const Case* c = begin; c != end; ++c) {
    SCOPED_TRACE(c->name);
    kestrel_e2e::RunOptions opts;
    opts.scenario = c->scenario;
    kestrel_e2e::Result r = kestrel_e2e::run_kestrel({"logger"}, opts);
    EXPECT_FALSE(r.timed_out);
    EXPECT_EQ(r.out, c->out);
    EXPECT_EQ(r.err, c->err);
    EXPECT_EQ(r.status, c->status);
  }
}

TEST(LoggerCommand, PrintsEveryRecordUntilTheStreamEnds) {
  const std::string at = kAt;
  const Case cases[] = {
      {"one record", log_line("pid=1234 tid=1240 prio=4 " + at + " tag=kestrel msg=message text"),
       "01-02 03:04:05.006  1234  1240 I kestrel :message text\n", kEof, 129},
      {"each message line gets the header",
       log_line("pid=1234 tid=1240 prio=6 " + at + " tag=lmkd msg=first\\nsecond\\n\\nfourth\\n"),
       "01-02 03:04:05.006  1234  1240 E lmkd    :first\n"
       "01-02 03:04:05.006  1234  1240 E lmkd    :second\n"
       "01-02 03:04:05.006  1234  1240 E lmkd    :\n"
       "01-02 03:04:05.006  1234  1240 E lmkd    :fourth\n",
       kEof, 129},
      {"several processes in arrival order",
       log_line("pid=1 tid=1 prio=3 sec=0 nsec=0 tag=init msg=boot") +
           log_line("pid=20011 tid=20042 prio=5 sec=97445 nsec=999999999 "
                    "tag=ActivityManager msg=low on memory") +
           log_line("pid=1234 tid=1240 prio=9 " + at + " tag=kestrel msg=odd priority") +
           log_line("pid=1 tid=7 prio=2 sec=97446 nsec=1000000 tag=init msg=tab\\there"),
       "01-01 00:00:00.000     1     1 D init    :boot\n"
       "01-02 03:04:05.999 20011 20042 W ActivityManager:low on memory\n"
       "01-02 03:04:05.006  1234  1240 ? kestrel :odd priority\n"
       "01-02 03:04:06.001     1     7 V init    :tab\there\n",
       kEof, 129},
      {"malformed and empty records print nothing and the stream goes on",
       "log pid=1 tid=1 prio=4 " + at + " raw=046b6573\n" +
           log_line("pid=1 tid=1 prio=4 " + at + " tag=kestrel msg=") +
           log_line("pid=1 tid=1 prio=4 " + at + " tag=kestrel msg=after"),
       "01-02 03:04:05.006     1     1 I kestrel :after\n", kEof, 129},
      {"nothing before the end", "at-end eof\n", "", kEof, 129},
  };
  run_cases(std::begin(cases), std::end(cases));
}

TEST(LoggerCommand, LongStreamArrivesWholeAndInOrder) {
  std::string scenario, expected;
  for (int i = 0; i < 300; ++i) {
    std::string n = std::to_string(i);
    scenario += log_line("pid=" + std::to_string(100 + i % 5) + " tid=" + std::to_string(200 + i) +
                         " prio=4 " + kAt + " tag=t" + std::to_string(i % 5) + " msg=record " + n +
                         (i % 10 == 0 ? "\\ncontinued" : ""));
    std::string head = "01-02 03:04:05.006   " + std::to_string(100 + i % 5) + "   " +
                       std::to_string(200 + i) + " I t" + std::to_string(i % 5) + "      :";
    expected += head + "record " + n + "\n";
    if (i % 10 == 0) expected += head + "continued\n";
  }
  const Case cases[] = {{"300 records", scenario, expected, kEof, 129}};
  run_cases(std::begin(cases), std::end(cases));
}

TEST(LoggerCommand, StopsAtTheFirstRecordOfWrongLength) {
  // Payload of tag "kestrel" and message "x": priority, 8 and 2 bytes.
  const std::string at = kAt;
  const Case cases[] = {
      {"header claims more",
       log_line("pid=1 tid=1 prio=4 " + at + " tag=kestrel msg=before") +
           log_line("pid=1 tid=1 prio=4 " + at + " len=+3 tag=kestrel msg=x") +
           log_line("pid=1 tid=1 prio=4 " + at + " tag=kestrel msg=never"),
       "01-02 03:04:05.006     1     1 I kestrel :before\n",
       "fatal: read: unexpected length. Expected 14, got 11\n\n", 129},
      {"header claims less", log_line("pid=1 tid=1 prio=4 " + at + " len=-11 tag=kestrel msg=x"),
       "", "fatal: read: unexpected length. Expected 0, got 11\n\n", 129},
  };
  run_cases(std::begin(cases), std::end(cases));
}

TEST(LoggerCommand, ExitsWhenTheDeviceIsMissing) {
  const Case cases[] = {
      {"absent", "device absent\n", "", "fatal: open kestrel failed\n", 129},
      {"refused", "fail open EACCES\n", "", "fatal: open kestrel failed\n", 129},
  };
  run_cases(std::begin(cases), std::end(cases));
}

}  // namespace
