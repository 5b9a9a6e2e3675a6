#include "process/execute.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "report.h"

namespace vorn::run {
namespace {

/// A directory with one file, removed at the end of the scope.
class ProgramDirectory {
 public:
  explicit ProgramDirectory(mode_t mode) {
    std::string name = testing::TempDir() + "vornrun_XXXXXX";
    EXPECT_NE(::mkdtemp(name.data()), nullptr);
    directory = name;
    file = directory + "/prog";
    std::ofstream(file) << "";
    EXPECT_EQ(::chmod(file.c_str(), mode), 0);
  }
  ProgramDirectory(const ProgramDirectory&) = delete;
  ProgramDirectory& operator=(const ProgramDirectory&) = delete;
  ~ProgramDirectory() {
    (void)std::remove(file.c_str());
    (void)std::remove(directory.c_str());
  }
  std::string directory;
  std::string file;
};

Environment withPath(const std::string& path) {
  Environment environment;
  environment.set("PATH", path);
  return environment;
}

TEST(FindProgram, TheFirstExecutableFileInPathIsFound) {
  const ProgramDirectory plain(0644);
  const ProgramDirectory program(0755);
  const Environment environment =
      withPath("/nonexistent:" + plain.directory + ":" + program.directory);
  EXPECT_EQ(findProgram("prog", environment), program.file);
  EXPECT_EQ(findProgram("prog", withPath(plain.directory)), std::nullopt);
}

TEST(FindProgram, AnEmptyNameIsNotFound) {
  const ProgramDirectory program(0755);
  EXPECT_EQ(findProgram("", withPath(program.directory)), std::nullopt);
}

TEST(FindProgram, AnEmptyPartOfPathIsTheCurrentDirectory) {
  const ProgramDirectory program(0755);
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(program.directory);
  EXPECT_EQ(findProgram("prog", withPath("/nonexistent:")), "./prog");
  std::filesystem::current_path(before);
}

TEST(FindProgram, APathIsItself) {
  EXPECT_EQ(findProgram("./x", withPath("/bin")), "./x");
}

TEST(PrivilegeOf, SetuidAndSetgidProgramsHaveOne) {
  EXPECT_EQ(privilegeOf(ProgramDirectory(0755).file), "");
  EXPECT_EQ(privilegeOf(ProgramDirectory(04755).file), "a setuid program");
  EXPECT_EQ(privilegeOf(ProgramDirectory(02755).file), "a setgid program");
  EXPECT_EQ(privilegeOf(ProgramDirectory(02745).file), "");
  EXPECT_EQ(privilegeOf("/nonexistent"), "");
}

TEST(ExecuteProgram, AFailureHasAStatusAndAReason) {
  const Environment environment = withPath("/nonexistent");
  std::string reason;
  EXPECT_EQ(executeProgram({"prog"}, environment, reason), kExitNotFound);
  EXPECT_EQ(reason, "no such program in PATH");
  EXPECT_EQ(executeProgram({"./nonexistent"}, environment, reason),
            kExitNotFound);
  EXPECT_EQ(reason, "cannot execute it: No such file or directory");
  const ProgramDirectory plain(0644);
  EXPECT_EQ(executeProgram({plain.file}, environment, reason),
            kExitNotExecutable);
  EXPECT_EQ(reason, "cannot execute it: Permission denied");
  const ProgramDirectory script(0755);
  std::ofstream(script.file) << "#!/nonexistent/sh\n";
  EXPECT_EQ(executeProgram({script.file}, environment, reason), kExitNotFound);
  EXPECT_EQ(reason, "its interpreter is missing");
}

}  // namespace
}  // namespace vorn::run
