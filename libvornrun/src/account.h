#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vorn::run {

/// The user as which a program runs.
struct Account {
  uid_t user = 0;
  gid_t group = 0;
  std::vector<gid_t> groups;  // supplementary groups, with `group`
  // Empty for a number without an entry in the file of users.
  std::string name;
  std::string home;
  std::string shell;
};

/// Looks up `user` and `group`, names or numbers, in the texts `passwd` and
/// `groups` in the formats of passwd(5) and group(5): a static program cannot
/// use other sources of nsswitch.conf(5). An empty `group` means the user's
/// primary group. On failure, the result is empty and `error` contains the
/// reason.
std::optional<Account> findAccount(const std::string& user,
                                   const std::string& group,
                                   std::string_view passwd,
                                   std::string_view groups, std::string& error);

}  // namespace vorn::run
