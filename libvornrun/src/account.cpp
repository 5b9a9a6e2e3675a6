#include "account.h"

#include <algorithm>

#include "option_values.h"

namespace vorn::run {
namespace {

constexpr long kLargestId = 4294967294;  // the largest number is "unchanged"

std::vector<std::string> splitFields(std::string_view line, char separator) {
  std::vector<std::string> fields;
  for (;;) {
    const size_t end = line.find(separator);
    fields.emplace_back(line.substr(0, end));
    if (end == std::string_view::npos) return fields;
    line.remove_prefix(end + 1);
  }
}

/// The fields of each line that has at least `least` of them.
std::vector<std::vector<std::string>> recordsOf(std::string_view text,
                                                size_t least) {
  std::vector<std::vector<std::string>> records;
  for (const std::string& line : splitFields(text, '\n')) {
    auto fields = splitFields(line, ':');
    if (fields.size() >= least) records.push_back(std::move(fields));
  }
  return records;
}

using Records = std::vector<std::vector<std::string>>;

/// The record of this name, otherwise that of this number in the third field.
const std::vector<std::string>* findRecord(const Records& records,
                                           const std::string& wanted) {
  for (const size_t field : {size_t{0}, size_t{2}}) {
    for (const auto& record : records) {
      if (record[field] == wanted) return &record;
    }
  }
  return nullptr;
}

std::optional<uint32_t> parseId(const std::string& text) {
  const auto number = parseNumber(text, 0, kLargestId);
  if (!number) return std::nullopt;
  return static_cast<uint32_t>(*number);
}

/// `group`, and every group that lists the user `name`.
std::vector<gid_t> groupsOf(const std::string& name, gid_t group,
                            const Records& groups) {
  std::vector<gid_t> result = {group};
  for (const auto& record : groups) {
    const auto members = splitFields(record[3], ',');
    const bool is_member =
        std::find(members.begin(), members.end(), name) != members.end();
    const auto id = parseId(record[2]);
    if (!name.empty() && is_member && id && *id != group) result.push_back(*id);
  }
  return result;
}

}  // namespace

std::optional<Account> findAccount(const std::string& user,
                                   const std::string& group,
                                   std::string_view passwd,
                                   std::string_view groups,
                                   std::string& error) {
  constexpr size_t kPasswdFields = 7;
  constexpr size_t kGroupFields = 4;
  const Records users = recordsOf(passwd, kPasswdFields);
  const Records all_groups = recordsOf(groups, kGroupFields);
  Account account;
  const auto* const entry = findRecord(users, user);
  const auto user_id = parseId(entry == nullptr ? user : (*entry)[2]);
  if (!user_id) {
    error = "/etc/passwd has no user '" + user + "'";
    return std::nullopt;
  }
  account.user = *user_id;
  if (entry == nullptr && group.empty()) {
    error =
        "/etc/passwd has no user " + user + "; add a group: " + user + ":GROUP";
    return std::nullopt;
  }
  if (entry != nullptr) {
    account.name = (*entry)[0];
    account.home = (*entry)[5];
    account.shell = (*entry)[6];
  }
  const std::string& wanted = group.empty() ? (*entry)[3] : group;
  const auto* const group_entry = findRecord(all_groups, wanted);
  const auto group_id =
      parseId(group_entry == nullptr ? wanted : (*group_entry)[2]);
  if (!group_id) {
    error = "/etc/group has no group '" + wanted + "'";
    return std::nullopt;
  }
  account.group = *group_id;
  account.groups = groupsOf(account.name, account.group, all_groups);
  return account;
}

}  // namespace vorn::run
