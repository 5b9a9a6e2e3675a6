#include <fcntl.h>

#include <cerrno>
#include <string>

#include "check/rules.h"
#include "descriptor.h"
#include "launchfile/apply_journal.h"

namespace vorn::launch {
namespace {

/// Whether an apply holds the lock, or may hold it because the lock file is not
/// readable.
bool isApplyRunning(const std::string& lock_file) {
  const Descriptor lock(::open(lock_file.c_str(), O_RDONLY | O_CLOEXEC));
  if (lock.number() < 0) return errno != ENOENT;
  struct flock shared {};
  shared.l_type = F_RDLCK;
  return ::fcntl(lock.number(), F_OFD_GETLK, &shared) != 0 ||
         shared.l_type != F_UNLCK;
}

}  // namespace

void checkApply(const SourceText& document, Diagnostics& diagnostics) {
  const std::string file = replacedFile(document.name());
  std::string ignored;
  const auto journal = readSourceText(journalOf(file), ignored);
  if (!journal || isApplyRunning(lockFileOf(file))) return;
  diagnostics.add("interrupted-apply", {1, 1},
                  describeInterruption(parseApplyJournal(journal->text())) +
                      "; run 'vornctl apply' again");
}

}  // namespace vorn::launch
