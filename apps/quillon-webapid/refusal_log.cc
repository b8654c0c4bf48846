#include "refusal_log.h"

#include <syslog.h>

#include <velamailserver/maillog.h>

namespace quillon::webapid {

namespace {

constexpr char kSourceFile[] = "apps/quillon-webapid/refusal_log";
constexpr int kLeftOutLine = 23;

}  // namespace

bool RefusalLog::MayWrite(Time now) {
  Report(now);
  if (asked_ == 0) {
    second_ = now;
  }
  return ++asked_ <= kMostLinesPerSecond;
}

void RefusalLog::Report(Time now) {
  if (now - second_ < std::chrono::seconds(1)) {
    return;
  }
  if (asked_ > kMostLinesPerSecond) {
    maillog(LOG_WARNING, "%s:%d %d more lines about refused clients were left out", kSourceFile,
            kLeftOutLine, asked_ - kMostLinesPerSecond);
  }
  asked_ = 0;
}

}  // namespace quillon::webapid
