#include "commands/apply_steps.h"

namespace vorn::launch {

ApplyResult ApplySteps::apply(const std::string& text) {
  if (!readState()) {
    finish(ApplyOutcome::NOT_APPLIED);
    return result_;
  }
  const bool is_interrupted = journal_ && journal_->isReplacing;
  if (!is_interrupted && current_ == text) {
    if (journal_) (void)operations_.remove(journalOf(launch_file_), error_);
    return result_;
  }
  if (!operations_.mayRestart(error_)) {
    say(error_);
    result_.outcome = ApplyOutcome::REFUSED;
    return result_;
  }
  if ((!is_interrupted && !keepOldFile()) || !replaceFile(text)) return result_;
  if (operations_.restart(error_)) {
    finish(ApplyOutcome::APPLIED);
  } else if (old_ == text) {
    say("the old launch file is in place, but it fails as well: " + error_);
    finish(ApplyOutcome::PUT_BACK);
  } else {
    putBack(error_);
  }
  return result_;
}

bool ApplySteps::readState() {
  std::optional<std::string> journal;
  if (!operations_.read(journalOf(launch_file_), journal, error_) ||
      !operations_.read(launch_file_, current_, error_)) {
    say(error_);
    return false;
  }
  old_ = current_;
  if (!journal) return true;
  journal_ = parseApplyJournal(*journal);
  say(describeInterruption(*journal_));
  // The launch file then counts as the old one.
  if (!journal_->isReplacing) return true;
  old_.reset();
  if (!journal_->hadFile ||
      operations_.read(previousFileOf(launch_file_), old_, error_)) {
    return true;
  }
  say(error_);
  return false;
}

bool ApplySteps::writeJournal(bool is_replacing) {
  const ApplyJournal journal{is_replacing, old_.has_value(), now_};
  return operations_.write(journalOf(launch_file_), textOf(journal), error_);
}

bool ApplySteps::keepOldFile() {
  // The journal precedes the copy: a copy without a journal is of a run that
  // has finished.
  if (writeJournal(false) &&
      (!old_ ||
       operations_.write(previousFileOf(launch_file_), *old_, error_))) {
    return true;
  }
  say(error_);
  finish(ApplyOutcome::NOT_APPLIED);
  return false;
}

bool ApplySteps::replaceFile(const std::string& text) {
  if (!writeJournal(true)) {
    say(error_);
    // After an interruption, the old journal is still needed.
    result_.outcome = ApplyOutcome::NOT_APPLIED;
    return false;
  }
  if (operations_.write(launch_file_, text, error_)) return true;
  say(error_);
  result_.outcome = ApplyOutcome::NOT_APPLIED;
  if (current_ == old_ && restoreOldFile()) finish(ApplyOutcome::NOT_APPLIED);
  return false;
}

/// Makes the launch file the old one, which it can still be: a write can fail
/// before or after it replaces the file.
bool ApplySteps::restoreOldFile() {
  std::optional<std::string> found;
  if (operations_.read(launch_file_, found, error_) && found == old_) {
    return true;
  }
  return old_ ? operations_.write(launch_file_, *old_, error_)
              : operations_.remove(launch_file_, error_);
}

void ApplySteps::putBack(const std::string& reason) {
  say("the new launch file has failed: " + reason);
  result_.outcome = ApplyOutcome::PUT_BACK;
  if (!restoreOldFile()) {
    say("the old launch file could not be put back: " + error_ +
        "; the next apply tries it again");
    return;
  }
  if (!old_) {
    say("there was no launch file before; it was removed");
  } else if (operations_.restart(error_)) {
    say("the old launch file is back, and its nodes are healthy");
  } else {
    say("the old launch file is back, but it fails as well: " + error_);
  }
  finish(ApplyOutcome::PUT_BACK);
}

void ApplySteps::finish(ApplyOutcome outcome) {
  result_.outcome = outcome;
  if (!operations_.remove(journalOf(launch_file_), error_)) say(error_);
}

}  // namespace vorn::launch
