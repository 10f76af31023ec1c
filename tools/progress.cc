#include "tools/progress.h"

#include <stdio.h>
#include <unistd.h>

namespace quarry_cli {

namespace {

constexpr int kBarWidth = 40;

}  // namespace

Progress::Progress(long long total) : total_(total), enabled_(total > 0 && isatty(2) != 0) {}

void Progress::advance(long long bytes) {
  done_ += bytes;
  if (enabled_) draw();
}

void Progress::draw() {
  int percent = static_cast<int>(done_ >= total_ ? 100 : done_ * 100 / total_);
  if (percent == last_percent_) return;
  last_percent_ = percent;
  int filled = percent * kBarWidth / 100;
  fprintf(stderr, "\r[");
  for (int i = 0; i < kBarWidth; ++i) fputc(i < filled ? '#' : ' ', stderr);
  fprintf(stderr, "] %3d%% %lld/%lld", percent, done_, total_);
}

void Progress::finish() {
  if (enabled_ && last_percent_ >= 0) fputc('\n', stderr);
}

}  // namespace quarry_cli
