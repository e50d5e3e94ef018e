#include "captureRecorder.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace kelctl {

CaptureRecorder::CaptureRecorder(CaptureSources sources, bool history, std::int64_t factsEvery, Write write)
    : sources_(std::move(sources)),
      factsEvery_(factsEvery),
      write_(std::move(write)),
      clock_(sources_.clocks()),
      wantsHistory_(history) {
  factsRead_ = sources_.clocks().monotonic;
  if (sources_.facts) facts_ = sources_.facts();
}

void CaptureRecorder::connected() {
  splitter_ = TraceSplitter();
  if (served_) {
    mode_ = Mode::compareHistory;
  } else {
    mode_ = wantsHistory_ ? Mode::takeHistory : Mode::skipHistory;
  }
}

void CaptureRecorder::take(std::string_view bytes) {
  lookAtClock();
  splitter_.feed(bytes, [this](std::string_view entry) {
    collect(entry, splitter_.recovered());
    return true;
  });
  if (mode_ != Mode::compareHistory) writeBatch();
}

void CaptureRecorder::idle() {
  lookAtClock();
  writeStep();
}

std::size_t CaptureRecorder::disconnected() {
  splitter_.finish([this](std::string_view entry) {
    collect(entry, splitter_.recovered());
    return true;
  });
  // A history that broke off is sent again.
  if (mode_ == Mode::compareHistory) batch_.clear();
  writeBatch();
  writeStep();
  return mode_ == Mode::live ? splitter_.pending() : 0;
}

void CaptureRecorder::collect(std::string_view entry, bool recovered) {
  if (mode_ != Mode::live && entry.empty()) {
    endHistory();
    return;
  }
  if (mode_ == Mode::skipHistory) {
    newest_ = entry;
    return;
  }
  batch_.push_back({std::string(entry), recovered});
}

// A daemon that was started anew cannot know the line that came last. One that does know it has only closed
// the connection, as it does when it runs out of descriptors.
void CaptureRecorder::endHistory() {
  if (mode_ == Mode::compareHistory) {
    const auto known =
        std::find_if(batch_.rbegin(), batch_.rend(), [this](const Entry& entry) { return entry.text == newest_; });
    restarted_ = known == batch_.rend();
    batch_.erase(batch_.begin(), known.base());
  }
  served_ = true;
  mode_ = Mode::live;
}

CaptureTime CaptureRecorder::firstTime() const {
  const CaptureTime now = sources_.clocks().real;
  for (const Entry& entry : batch_) {
    if (const auto time = renderingTime(entry.text)) return std::min(*time, now);
  }
  return now;
}

void CaptureRecorder::writeBatch() {
  if (batch_.empty() && !restarted_) return;
  const CaptureTime time = firstTime();
  lookAtFacts(time);
  if (std::exchange(restarted_, false)) write_(restartLine(time));
  for (const Entry& entry : batch_) writeEntry(entry);
  if (!batch_.empty()) {
    newest_ = std::move(batch_.back().text);
    served_ = true;
  }
  batch_.clear();
}

// The clock's setting has its place among the lines that came at the same time: before the first that shows a
// time after the old clock's, or one that runs backwards.
void CaptureRecorder::writeEntry(const Entry& entry) {
  const auto time = renderingTime(entry.text);
  if (time && step_) {
    const bool forwards = step_->to > step_->from;
    if (forwards ? *time > step_->from : !newestTime_ || *time < *newestTime_) {
      backdateStep(*time);
      writeStep();
    }
  }
  write_(captureEntry(entry.text, entry.recovered));
  if (time) newestTime_ = time;
}

// It was noticed a moment after the line that shows it; told so late, that line would seem to be another
// setting, backwards. A line that is nearer to the time before shows nothing of it.
void CaptureRecorder::backdateStep(CaptureTime time) {
  if (time >= step_->to) return;
  const CaptureTime noticed = step_->to - time;
  if (noticed > std::abs(time - step_->from)) return;
  step_->from -= noticed;
  if (newestTime_) step_->from = std::max(step_->from, *newestTime_);
  step_->to = time;
}

void CaptureRecorder::lookAtClock() {
  const auto step = clock_.look(sources_.clocks());
  if (!step) return;
  writeStep();
  step_ = step;
}

void CaptureRecorder::writeStep() {
  if (!step_) return;
  write_(stepLine(step_->from, step_->to));
  step_.reset();
}

void CaptureRecorder::lookAtFacts(CaptureTime time) {
  if (!sources_.facts) return;
  const std::int64_t now = sources_.clocks().monotonic;
  if (!restarted_ && now - factsRead_ < factsEvery_) return;
  nlohmann::json facts = sources_.facts();
  factsRead_ = now;
  if (facts == facts_) return;
  const std::string line = factsLine(time, mergePatch(facts_, facts));
  if (line.size() > TraceSplitter::kMaxDirectiveBytes) return;
  facts_ = std::move(facts);
  write_(line);
}

}  // namespace kelctl
