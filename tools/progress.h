// A progress bar on standard error, drawn only when standard error is a
// terminal and the total size is known.
#ifndef QUARRY_TOOLS_PROGRESS_H
#define QUARRY_TOOLS_PROGRESS_H

namespace quarry_cli {

class Progress {
 public:
  // |total| below 0 means unknown: nothing is drawn.
  explicit Progress(long long total);
  void advance(long long bytes);
  void finish();

 private:
  void draw();
  long long total_;
  long long done_ = 0;
  int last_percent_ = -1;
  bool enabled_;
};

}  // namespace quarry_cli

#endif  // QUARRY_TOOLS_PROGRESS_H
