// SPDX-License-Identifier: Apache-2.0
// `kestrel logger` under the driver simulator: the exact lines printed for the records a
// scenario feeds, and the ways the stream ends (end of stream, a record whose length disagrees
// with its header, no device), each with its message and status.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "tests/support/process.h"

namespace {

TEST(LoggerCommand, PrintsEveryRecordUntilTheStreamEnds) {
  struct Case { std::string scenario, out, err; };
  const std::string eof = "fatal: read: Unexpected EOF!\n\n";
  // 1970-01-02 03:04:05.006 UTC; the harness runs every child with TZ=UTC.
  const std::string log = "log pid=1 tid=1 prio=4 sec=97445 nsec=6000000 ";
  const Case cases[] = {
      {"log pid=1 tid=1 prio=3 sec=0 nsec=0 tag=init msg=boot\n"
       "log pid=20011 tid=20042 prio=6 sec=97445 nsec=999999999 tag=ActivityManager msg=low\\n\\nmem\n",
       "01-01 00:00:00.000     1     1 D init    :boot\n"
       "01-02 03:04:05.999 20011 20042 E ActivityManager:low\n"
       "01-02 03:04:05.999 20011 20042 E ActivityManager:\n"
       "01-02 03:04:05.999 20011 20042 E ActivityManager:mem\n",
       eof},
      // Malformed and empty records print nothing and the stream goes on.
      {log + "raw=046b6573\n" + log + "tag=kestrel msg=\n" + log + "tag=kestrel msg=after\n",
       "01-02 03:04:05.006     1     1 I kestrel :after\n", eof},
      // The payload of tag "kestrel" and message "x" is 11 bytes.
      {log + "tag=kestrel msg=before\n" + log + "len=+3 tag=kestrel msg=x\n" + log + "tag=kestrel msg=never\n",
       "01-02 03:04:05.006     1     1 I kestrel :before\n",
       "fatal: read: unexpected length. Expected 14, got 11\n\n"},
      {"device absent\n", "", "fatal: open kestrel failed\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.scenario);
    kestrel_e2e::Result r = kestrel_e2e::run_kestrel({"logger"}, {.scenario = c.scenario});
    EXPECT_EQ(std::tie(r.out, r.err, r.status, r.timed_out), std::tuple(c.out, c.err, 129, false));
  }
}

}  // namespace
