#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "check/rules.h"
#include "check/vornrun_command.h"
#include "output/text.h"

namespace vorn::launch {
namespace {

namespace fs = std::filesystem;

constexpr size_t kReadByKernel = 256;  // of a program, for its "#!" line
constexpr char kEveryFiveSeconds[] =
    ", so it exits with status 127 and is restarted every 5 s";
constexpr char kVornrunFails[] =
    ", so vornrun fails and the node is restarted every 5 s";

/// The reason why a program cannot be executed: a diagnostic without its
/// location.
struct ProgramProblem {
  std::string check;
  std::string description;
};

/// At most `size` bytes from the start of a file; nothing if it cannot be read.
std::optional<std::string> beginningOf(const std::string& path, size_t size) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::string text(size, '\0');
  file.read(text.data(), static_cast<std::streamsize>(size));
  text.resize(static_cast<size_t>(file.gcount()));
  return text;
}

bool exists(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

bool mayExecute(const std::string& path) {
  return ::faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
}

/// Whether the kernel cannot execute a program for this machine, apart from
/// settings such as binfmt_misc.
bool isForeign(uint16_t machine) {
  switch (machine) {
#if defined(__x86_64__)
    case EM_X86_64:
    case EM_386:
#elif defined(__aarch64__)
    case EM_AARCH64:
    case EM_ARM:
#elif defined(__arm__)
    case EM_ARM:
#elif defined(__riscv)
    case EM_RISCV:
#else
    case EM_NONE:
#endif
      return false;
    default:
      break;
  }
#if defined(__x86_64__) || defined(__aarch64__) || defined(__arm__) || \
    defined(__riscv)
  return true;
#else
  return false;
#endif
}

template <typename T>
std::optional<T> readAt(std::ifstream& file, uint64_t offset) {
  T value{};
  file.clear();
  file.seekg(static_cast<std::streamoff>(offset));
  file.read(reinterpret_cast<char*>(&value), sizeof(value));
  if (file.gcount() != sizeof(value)) return std::nullopt;
  return value;
}

/// The loader in the header of a 64-bit ELF program; empty if it has none.
std::string loaderOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const auto header = readAt<Elf64_Ehdr>(file, 0);
  if (!header || header->e_ident[EI_CLASS] != ELFCLASS64) return "";
  for (uint64_t i = 0; i < header->e_phnum; ++i) {
    const auto part = readAt<Elf64_Phdr>(
        file, header->e_phoff + i * uint64_t{header->e_phentsize});
    if (!part || part->p_type != PT_INTERP) continue;
    constexpr uint64_t kLongestPath = 4096;
    if (part->p_filesz == 0 || part->p_filesz > kLongestPath) return "";
    std::string loader(part->p_filesz, '\0');
    file.seekg(static_cast<std::streamoff>(part->p_offset));
    file.read(loader.data(), static_cast<std::streamsize>(loader.size()));
    return untilNul(loader);
  }
  return "";
}

std::optional<ProgramProblem> problemOfElf(const std::string& path,
                                           const std::string& beginning) {
  Elf64_Half machine = 0;  // at the same offset for 32 bits
  constexpr size_t kMachineAt = offsetof(Elf64_Ehdr, e_machine);
  if (beginning.size() < kMachineAt + sizeof(machine)) {
    return ProgramProblem{"wrong-format", "is truncated"};
  }
  std::memcpy(&machine, beginning.data() + kMachineAt, sizeof(machine));
  if (isForeign(machine)) {
    return ProgramProblem{"wrong-format", "is for another kind of machine"};
  }
  const std::string loader = loaderOf(path);
  if (!loader.empty() && !exists(loader)) {
    return ProgramProblem{"missing-interpreter", "needs the loader " + loader +
                                                     ", which does not exist"};
  }
  return std::nullopt;
}

/// Whether a directory of this PATH has the program, as "env NAME" searches it.
bool isInPath(const std::string& program, const std::string& path) {
  std::istringstream directories(path);
  for (std::string file; std::getline(directories, file, ':');) {
    if (file.empty()) file = ".";
    file.append("/").append(program);
    std::error_code error;
    if (mayExecute(file) && !fs::is_directory(file, error)) return true;
  }
  return false;
}

std::optional<ProgramProblem> problemOfScript(const std::string& beginning,
                                              const std::string& path) {
  const std::string line = beginning.substr(2, beginning.find('\n') - 2);
  std::istringstream words(line);
  std::string interpreter;
  std::string argument;
  words >> interpreter >> argument;
  // The kernel splits only at spaces and tabs.
  if (line.find('\r') != std::string::npos && argument.empty()) {
    interpreter += '\r';
  }
  if (interpreter.empty() || !exists(interpreter)) {
    return ProgramProblem{
        "missing-interpreter",
        "needs the interpreter '" + interpreter + "', which does not exist"};
  }
  const bool is_env = fs::path(interpreter).filename() == "env";
  const bool is_name = !argument.empty() && argument[0] != '-' &&
                       argument.find('=') == std::string::npos &&
                       argument.find('/') == std::string::npos;
  if (is_env && is_name && !isInPath(argument, path)) {
    return ProgramProblem{
        "missing-interpreter",
        "needs '" + argument + "', which is not in any directory of PATH"};
  }
  return std::nullopt;
}

/// Whether the text up to the first space of a path is a program.
bool hasArguments(const std::string& path) {
  const size_t space = path.find(' ');
  if (space == std::string::npos) return false;
  std::error_code error;
  const std::string program = path.substr(0, space);
  return fs::is_regular_file(program, error) && mayExecute(program);
}

/// `path` is the PATH that the program is given.
std::optional<ProgramProblem> problemOf(const std::string& program,
                                        const std::string& path) {
  struct stat status {};
  if (::stat(program.c_str(), &status) != 0) {
    const std::string reason = std::strerror(errno);
    return ProgramProblem{"missing-executable",
                          "cannot be found (" + reason + ")"};
  }
  if (S_ISDIR(status.st_mode)) {
    return ProgramProblem{"executable-directory", "is a directory"};
  }
  if (!S_ISREG(status.st_mode) || !mayExecute(program)) {
    return ProgramProblem{"not-executable", "is not executable"};
  }
  const auto beginning = beginningOf(program, kReadByKernel);
  if (!beginning) return std::nullopt;
  std::optional<ProgramProblem> problem;
  if (beginning->rfind(ELFMAG, 0) == 0) {
    problem = problemOfElf(program, *beginning);
  } else if (beginning->rfind("#!", 0) == 0) {
    problem = problemOfScript(*beginning, path);
  } else {
    problem = ProgramProblem{
        "wrong-format",
        "is neither a program nor a script that starts with '#!'"};
  }
  return problem;
}

/// The value of PATH that these variables set last; otherwise `value`.
std::string pathFrom(const std::vector<Variable>& variables,
                     std::string value) {
  for (const Variable& variable : variables) {
    if (exportedName(variable.name.value) == "PATH") {
      value = untilNul(variable.value.value);
    }
  }
  return value;
}

/// The result of the problem for a node.
std::string resultOf(const ProgramProblem& problem,
                     const std::string& program) {
  if (problem.check != "missing-executable") return kEveryFiveSeconds;
  return std::string(": the node is disabled at its first start") +
         (hasArguments(program) ? "; write arguments in 'argv', not in 'path'"
                                : "");
}

/// The program that vornrun executes, with a '/' in it; empty if it is unknown.
/// A program that is in no directory of `path` is a problem.
std::string programOfVornrun(const run::RunSettings& settings,
                             const std::string& path,
                             std::optional<ProgramProblem>& problem) {
  if (settings.program.empty()) return "";
  const std::string& program = settings.program[0];
  const bool is_variable =
      settings.expandsVariables && program.find('$') != std::string::npos;
  if (is_variable) return "";
  if (program.find('/') == std::string::npos) {
    if (!isInPath(program, path)) {
      problem = ProgramProblem{"missing-executable",
                               "is not in any directory of PATH"};
    }
    return "";
  }
  const bool is_relative = program[0] != '/' && !settings.directory.empty();
  return is_relative ? settings.directory + "/" + program : program;
}

/// Checks the program that vornrun executes for a node. `path` is its PATH.
void checkWrapped(const LaunchFile::Node& node, const std::string& path,
                  Diagnostics& diagnostics) {
  const run::RunArguments parsed = parseVornrun(node, true).parsed;
  if (!parsed.errors.empty()) return;
  std::optional<ProgramProblem> problem;
  const std::string program = programOfVornrun(parsed.settings, path, problem);
  if (!program.empty()) problem = problemOf(program, path);
  if (!problem) return;
  const std::string& name = parsed.settings.program[0];
  diagnostics.add(problem->check, argumentWith(node, name),
                  "'" + name + "' of node '" + node.name.value + "' " +
                      problem->description + kVornrunFails);
}

void checkPrograms(const LaunchFile& file, const std::string& path,
                   Diagnostics& diagnostics) {
  std::map<std::pair<std::string, std::string>, std::optional<ProgramProblem>>
      known;
  for (const LaunchFile::Node& node : file.nodes) {
    if (!node.hasPath) continue;
    const std::string program = untilNul(node.executable);
    const std::string node_path = pathFrom(node.environment, path);
    if (runsVornrun(node)) checkWrapped(node, node_path, diagnostics);
    const auto [entry, is_new] = known.try_emplace({program, node_path});
    if (is_new) entry->second = problemOf(program, node_path);
    if (!entry->second) continue;
    diagnostics.add(entry->second->check, node.path.location,
                    "'" + program + "' of node '" + node.name.value + "' " +
                        entry->second->description +
                        resultOf(*entry->second, program));
  }
}

void checkTools(const LaunchFile& file, const std::string& path,
                Diagnostics& diagnostics) {
  SourceLocation location{1, 1};
  for (const Variable& variable : file.environment) {
    if (variable.name.value == "PATH") location = variable.value.location;
  }
  for (const char* const tool : {"ps", "grep"}) {
    if (isInPath(tool, path)) continue;
    diagnostics.add("missing-tool", location,
                    std::string("'") + tool +
                        "' is not in any directory of the launcher's PATH, '" +
                        path +
                        "'; without it a stop takes its full 10 s or does not "
                        "wait at all");
  }
}

/// popen(3) starts the shell with clone3(), and uses another system call only
/// if the kernel does not have that one.
void checkClone(Diagnostics& diagnostics) {
#if defined(SYS_clone3)
  // Without arguments the call always fails.
  const auto result = ::syscall(SYS_clone3, nullptr, size_t{0});
  if (result >= 0 || errno == EINVAL || errno == ENOSYS) return;
  diagnostics.add(
      "clone-refused", {1, 1},
      std::string("the system call clone3 is refused here (") +
          std::strerror(errno) +
          "), so the launcher cannot run 'ps' and every stop takes "
          "10 s; update the container engine or its seccomp profile");
#endif
}

/// The file `path`, or the directory above it, that any user can change; empty
/// if there is none.
std::string writableByOthers(const std::string& path) {
  std::error_code error;
  const fs::path real = fs::canonical(path, error);
  if (error) return "";
  for (fs::path each = real; !each.empty(); each = each.parent_path()) {
    struct stat status {};
    const bool is_known = ::stat(each.c_str(), &status) == 0;
    // In a sticky directory, such as /tmp, users cannot replace the files of
    // other users.
    const bool is_protected =
        S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    if (is_known && (status.st_mode & S_IWOTH) != 0 && !is_protected) {
      return each.string();
    }
    if (each == each.root_path()) break;
  }
  return "";
}

void checkRights(const SourceText& document, const LaunchFile& file,
                 Diagnostics& diagnostics) {
  if (::geteuid() != 0) return;
  const auto check = [&](const std::string& path,
                         const SourceLocation& location) {
    const std::string writable = writableByOthers(path);
    if (writable.empty()) return;
    diagnostics.add(
        "writable-by-others", location,
        "any user can change '" + writable +
            "', and so the programs that the launcher runs as root");
  };
  check(document.name(), {1, 1});
  std::set<std::string> seen;
  for (const LaunchFile::Node& node : file.nodes) {
    if (!seen.insert(node.executable).second) continue;
    check(node.executable, node.path.location);
  }
}

}  // namespace

void checkHost(const SourceText& document, const LaunchFile& file,
               Diagnostics& diagnostics) {
  const char* const own_path = std::getenv("PATH");
  // The default of the C library for a missing PATH.
  const std::string path = pathFrom(
      file.environment, own_path == nullptr ? "/bin:/usr/bin" : own_path);
  checkPrograms(file, path, diagnostics);
  checkVornrunHost(file, diagnostics);
  checkTools(file, path, diagnostics);
  checkClone(diagnostics);
  checkRights(document, file, diagnostics);
}

}  // namespace vorn::launch
