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

/// The account of `user` and `group`, names or numbers, in files of the form of
/// passwd(5) and group(5). An empty `group` is the user's own. A static program
/// cannot use the other sources of nsswitch.conf(5). On failure, the result is
/// empty and `error` contains the reason.
std::optional<Account> findAccount(const std::string& user,
                                   const std::string& group,
                                   std::string_view passwd,
                                   std::string_view groups, std::string& error);

}  // namespace vorn::run
