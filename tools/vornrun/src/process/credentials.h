#pragma once

#include <optional>

#include "account.h"
#include "run_arguments.h"
#include "run_settings.h"

namespace vorn::run {

/// The account of --user in the files of this machine. Nothing without the
/// option or, with `error` set, if it cannot be found.
std::optional<Account> resolveAccount(const RunSettings& settings,
                                      std::optional<RunError>& error);

/// Sets the supplementary groups, the group and the user of this process,
/// unless it has them already. Returns the error, if any.
std::optional<RunError> applyAccount(const Account& account);

}  // namespace vorn::run
