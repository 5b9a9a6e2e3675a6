#include "system/atomic_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace vorn::launch {
namespace {

/// A directory of its own for each test.
class AtomicFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string name = ::testing::TempDir() + "atomic_file.XXXXXX";
    ASSERT_NE(::mkdtemp(name.data()), nullptr);
    directory_ = name;
    path_ = name + "/file";
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

  std::string content() const {
    std::ifstream file(path_);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  std::string directory_;
  std::string path_;
  std::string error_;
};

TEST_F(AtomicFileTest, ANewFileIsOnlyForItsOwner) {
  ASSERT_TRUE(writeFile(path_, "text", false, error_)) << error_;
  EXPECT_EQ(content(), "text");
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(AtomicFileTest, AnExistingFileIsReplacedOnlyIfAllowed) {
  ASSERT_TRUE(writeFile(path_, "old", false, error_));
  EXPECT_FALSE(writeFile(path_, "new", false, error_));
  EXPECT_EQ(error_, "cannot write " + path_ +
                        ": the file exists; name another one, or replace it "
                        "with -o");
  EXPECT_EQ(content(), "old");
  EXPECT_TRUE(writeFile(path_, "new", true, error_));
  EXPECT_EQ(content(), "new");
}

TEST_F(AtomicFileTest, ASymbolicLinkIsNotFollowed) {
  ASSERT_EQ(::symlink("/dev/null", path_.c_str()), 0);
  EXPECT_FALSE(writeFile(path_, "text", true, error_));
  EXPECT_TRUE(std::filesystem::is_symlink(path_));
}

TEST_F(AtomicFileTest, AFailureIsASentenceWithTheReason) {
  EXPECT_FALSE(writeFile(path_ + "/below", "text", true, error_));
  EXPECT_EQ(error_,
            "cannot write " + path_ + "/below: No such file or directory");
}

TEST_F(AtomicFileTest, ANameWithoutASlashIsInTheWorkingDirectory) {
  EXPECT_TRUE(syncDirectoryOf("file", error_)) << error_;
}

TEST_F(AtomicFileTest, AMissingDirectoryCannotBeWrittenToTheDisk) {
  EXPECT_FALSE(syncDirectoryOf(path_ + "/below", error_));
  EXPECT_EQ(error_, "cannot write " + path_ + "/: No such file or directory");
}

}  // namespace
}  // namespace vorn::launch
