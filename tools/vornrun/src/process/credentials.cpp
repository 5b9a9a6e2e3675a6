#include "process/credentials.h"

#include <grp.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "file_text.h"

namespace vorn::run {
namespace {

constexpr char kUsers[] = "/etc/passwd";
constexpr char kGroups[] = "/etc/group";

/// Whether the entries are known. A missing file has none: numbers can still be
/// used.
bool isKnown(const char* path, const FileText& file,
             std::optional<RunError>& error) {
  if (file.error.empty() || file.isMissing) return true;
  error = RunError{"--user",
                   std::string("cannot read ") + path + ": " + file.error};
  return false;
}

RunError userError(const char* what) {
  std::string reason =
      std::string("cannot set ") + what + ": " + std::strerror(errno);
  if (errno == EPERM) reason += "; only root can change the user";
  return {"--user", reason};
}

}  // namespace

std::optional<Account> resolveAccount(const RunSettings& settings,
                                      std::optional<RunError>& error) {
  if (settings.user.empty()) return std::nullopt;
  const FileText users = readFileText(kUsers);
  const FileText groups = readFileText(kGroups);
  if (!isKnown(kUsers, users, error) || !isKnown(kGroups, groups, error)) {
    return std::nullopt;
  }
  std::string reason;
  auto account = findAccount(settings.user, settings.group, users.text,
                             groups.text, reason);
  if (!account) error = RunError{"--user", reason};
  return account;
}

std::optional<RunError> applyAccount(const Account& account) {
  const bool is_current = ::geteuid() != 0 && ::geteuid() == account.user &&
                          ::getuid() == account.user &&
                          ::getegid() == account.group;
  if (is_current) return std::nullopt;
  if (::setgroups(account.groups.size(), account.groups.data()) != 0) {
    return userError("the groups");
  }
  if (::setresgid(account.group, account.group, account.group) != 0) {
    return userError("the group");
  }
  if (::setresuid(account.user, account.user, account.user) != 0) {
    return userError("the user");
  }
  return std::nullopt;
}

}  // namespace vorn::run
