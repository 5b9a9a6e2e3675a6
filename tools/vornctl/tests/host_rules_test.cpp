#include <elf.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "commands/check.h"
#include "launchfile/parser.h"

namespace vorn::launch {
namespace {

namespace fs = std::filesystem;

/// Checks a node with a program of these bytes.
class HostRulesTest : public testing::Test {
 protected:
  HostRulesTest() {
    std::string path = fs::temp_directory_path() / "host.XXXXXX";
    directory_ = ::mkdtemp(path.data());
  }
  ~HostRulesTest() override { fs::remove_all(directory_); }

  std::string program(const std::string& bytes, mode_t mode = 0755) const {
    std::string path = directory_ / "program";
    std::ofstream(path, std::ios::binary) << bytes;
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
    return path;
  }

  /// The problem of the program of a node with these keys; empty without one.
  static std::string problemOf(const std::string& keys) {
    const SourceText document("x.yaml", "vornnode: {n: {" + keys + "}}\n");
    CheckOptions options;
    options.host = CheckOptions::Host::YES;
    const LaunchFile file = parseLaunchFile(document, LauncherEnvironment{});
    static const std::set<std::string> checks = {
        "missing-executable", "missing-interpreter", "wrong-format",
        "not-executable", "executable-directory"};
    const Diagnostics diagnostics = diagnose(document, file, options);
    for (const Diagnostic& each : diagnostics.all()) {
      const std::string name = each.check->name;
      if (checks.count(name) > 0) return name + ": " + each.message;
    }
    return "";
  }

  std::string problemOfProgram(const std::string& bytes) const {
    return problemOf("path: " + program(bytes));
  }

  bool hasProblem(const std::string& bytes, const std::string& text) const {
    return problemOfProgram(bytes).find(text) != std::string::npos;
  }

  fs::path directory_;
};

/// A 64-bit program for this machine with these parts and the text `loader`.
std::string elfWith(std::vector<Elf64_Phdr> parts, const std::string& loader) {
  Elf64_Ehdr header{};
  std::ifstream("/proc/self/exe", std::ios::binary)
      .read(reinterpret_cast<char*>(&header), sizeof(header));
  header.e_phoff = sizeof(header);
  header.e_phentsize = sizeof(Elf64_Phdr);
  header.e_phnum = static_cast<Elf64_Half>(parts.size());
  std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
  for (Elf64_Phdr& part : parts) {
    part.p_offset = sizeof(header) + parts.size() * sizeof(part);
    bytes.append(reinterpret_cast<const char*>(&part), sizeof(part));
  }
  return bytes + loader;
}

Elf64_Phdr partOf(Elf64_Word type, size_t size) {
  Elf64_Phdr part{};
  part.p_type = type;
  part.p_filesz = size;
  return part;
}

TEST_F(HostRulesTest, AProgramIsForThisMachine) {
  EXPECT_TRUE(
      hasProblem("\x7f"
                 "ELF",
                 "is truncated"));
  std::string elf = elfWith({}, "");
  EXPECT_EQ(problemOfProgram(elf), "");
  elf[offsetof(Elf64_Ehdr, e_machine) + 1] = '\x7f';
  EXPECT_TRUE(hasProblem(elf, "is for another kind of machine"));
}

TEST_F(HostRulesTest, TheLoaderOfAProgramExists) {
  const std::string missing = "/nonexistent/loader";
  const auto loader = [](const std::string& path) {
    return elfWith({partOf(PT_LOAD, 0), partOf(PT_INTERP, path.size() + 1)},
                   path + '\0');
  };
  EXPECT_TRUE(hasProblem(loader(missing), "needs the loader " + missing));
  EXPECT_EQ(problemOfProgram(loader("/proc/self/exe")), "");
}

TEST_F(HostRulesTest, AnUnknownLoaderIsNotAProblem) {
  EXPECT_EQ(problemOfProgram(elfWith({partOf(PT_LOAD, 0)}, "")), "");
  EXPECT_EQ(problemOfProgram(elfWith({partOf(PT_INTERP, 0)}, "")), "");
  EXPECT_EQ(problemOfProgram(elfWith({partOf(PT_INTERP, 5000)}, "")), "");
  std::string elf = elfWith({partOf(PT_INTERP, 2)}, "/");
  EXPECT_EQ(problemOfProgram(elf.substr(0, sizeof(Elf64_Ehdr) + 8)), "");
  elf[EI_CLASS] = ELFCLASS32;
  EXPECT_EQ(problemOfProgram(elf), "");
}

TEST_F(HostRulesTest, TheInterpreterOfAScriptExists) {
  EXPECT_TRUE(hasProblem("#!\n", "needs the interpreter ''"));
  EXPECT_TRUE(hasProblem("#!/nonexistent -e\n", "interpreter '/nonexistent'"));
  EXPECT_TRUE(hasProblem("#!/bin/sh\r\n", "needs the interpreter '/bin/sh\r'"));
  EXPECT_EQ(problemOfProgram("#! /bin/sh -e\r\n"), "");
  EXPECT_TRUE(hasProblem("echo\n", "is neither a program nor a script"));
}

TEST_F(HostRulesTest, EnvSearchesTheInterpreterInThePathOfTheNode) {
  EXPECT_TRUE(hasProblem("#!/usr/bin/env no-such-program\n",
                         "needs 'no-such-program'"));
  for (const char* const words :
       {"sh", "-S sh -e", "A=1", "/nonexistent", ""}) {
    EXPECT_EQ(problemOfProgram(std::string("#!/usr/bin/env ") + words + "\n"),
              "")
        << words;
  }
  const std::string path = "path: " + program("#!/usr/bin/env program\n");
  EXPECT_NE(problemOf(path), "");
  EXPECT_EQ(problemOf(path + ", environment: {A: 1, PATH: '/nonexistent:" +
                      directory_.string() + "'}"),
            "");
  // A directory is not an interpreter.
  fs::create_directory(directory_ / "sub");
  fs::create_directory(directory_ / "sub/program");
  EXPECT_NE(problemOf(path + ", environment: {PATH: ':" +
                      (directory_ / "sub").string() + "'}"),
            "");
}

TEST_F(HostRulesTest, AProgramIsAnExecutableFile) {
  const std::string path = "path: " + program("#!/bin/sh\n", 0644);
  EXPECT_EQ(problemOf(path).rfind("not-executable", 0), 0U);
  EXPECT_EQ(problemOf("path: /dev/null").rfind("not-executable", 0), 0U);
  EXPECT_EQ(problemOf("path: /").rfind("executable-directory", 0), 0U);
  EXPECT_EQ(problemOf("path: /nonexistent").rfind("missing-executable", 0), 0U);
}

TEST_F(HostRulesTest, ArgumentsInThePathAreSuspected) {
  const std::string hint = "write arguments in 'argv'";
  const std::string path = program("#!/bin/sh\n");
  EXPECT_NE(problemOf("path: " + path + " -x").find(hint), std::string::npos);
  EXPECT_EQ(problemOf("path: / x").find(hint), std::string::npos);
  EXPECT_EQ(problemOf("path: /nonexistent -x").find(hint), std::string::npos);
  (void)program("", 0644);
  EXPECT_EQ(problemOf("path: " + path + " -x").find(hint), std::string::npos);
}

TEST_F(HostRulesTest, TheProgramOfVornrunIsChecked) {
  const std::string vornrun = directory_ / "vornrun";
  fs::create_symlink("/bin/sh", vornrun);
  const auto problem = [&](const std::string& argv) {
    return problemOf("path: " + vornrun + ", argv: '" + argv + "'");
  };
  EXPECT_NE(problem("-- /nonexistent").find("/nonexistent"), std::string::npos);
  EXPECT_NE(problem("-- no-such-program").find("not in any directory of PATH"),
            std::string::npos);
  EXPECT_NE(problem("--directory /proc -- nonexistent/x"), "");
  for (const char* const argv :
       {"-- sh", "--expand -- $HOME/x", "--expand -- /bin/sh", "--help",
        "-- /bin/sh", "--directory / -- bin/sh"}) {
    EXPECT_EQ(problem(argv), "") << argv;
  }
}

}  // namespace
}  // namespace vorn::launch
