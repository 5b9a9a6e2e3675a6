#include "file_text.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace vorn::run {
namespace {

class FileTextTest : public ::testing::Test {
 protected:
  FileTextTest() {
    path_ = ::testing::TempDir() + "file_text.XXXXXX";
    (void)::close(::mkstemp(path_.data()));
  }
  ~FileTextTest() override { (void)::unlink(path_.c_str()); }

  FileText written(const std::string& text) const {
    std::ofstream(path_, std::ios::binary) << text;
    return readFileText(path_);
  }

  std::string path_;
};

TEST_F(FileTextTest, AFileOfAnyBytesIsReadWhole) {
  const std::string text = std::string(9000, 'a') + std::string("\0\xFF\n", 3);
  EXPECT_EQ(written(text).text, text);
  EXPECT_EQ(written("").error, "");
}

TEST_F(FileTextTest, AFileThatIsTooLongIsAnError) {
  EXPECT_EQ(written(std::string(kLongestFile, 'a')).error, "");
  EXPECT_EQ(written(std::string(kLongestFile + 1, 'a')).error,
            "the file is too long");
}

TEST_F(FileTextTest, AMissingFileIsDistinguishedFromOtherErrors) {
  const FileText missing = readFileText(path_ + ".none");
  EXPECT_TRUE(missing.isMissing);
  EXPECT_EQ(missing.error, "No such file or directory");
  const FileText below_a_file = readFileText(path_ + "/x");
  EXPECT_FALSE(below_a_file.isMissing);
  EXPECT_EQ(below_a_file.error, "Not a directory");
  EXPECT_EQ(readFileText("/").error, "Is a directory");
}

}  // namespace
}  // namespace vorn::run
