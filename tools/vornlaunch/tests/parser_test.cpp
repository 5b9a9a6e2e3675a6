#include "parser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "config.h"
#include "node_manager.h"
#include "support/log_capture.h"

namespace {

/// How often memory was asked for by `new (std::nothrow)`, as the singletons
/// do.
int nothrow_allocations = 0;

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  ++nothrow_allocations;
  try {
    return ::operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

namespace vorn::launch {
namespace {

using test::logLine;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::ThrowsMessage;
using ::testing::Values;
using ::testing::ValuesIn;

constexpr char kRoot[] = "/opt/root";
constexpr char kBadConversion[] = ": bad conversion";
constexpr char kInvalidNode[] =
    "invalid node; this may result from using a map";

using Strings = std::vector<std::string>;

/// A file that lives as long as this object.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& text)
      : path_(::testing::TempDir() + "launch-XXXXXX") {
    const int fd = ::mkstemp(path_.data());
    const auto size = static_cast<ssize_t>(text.size());
    if (fd == -1 || ::write(fd, text.data(), text.size()) != size) {
      throw std::runtime_error("cannot write " + path_);
    }
    (void)::close(fd);
  }
  ~TemporaryFile() { (void)::unlink(path_.c_str()); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

const Node& node(size_t index) {
  return *NodeManager::getInstance().nodes().at(index);
}

Strings nodeNames() {
  Strings names;
  for (const auto& each : NodeManager::getInstance().nodes()) {
    names.push_back(each->name);
  }
  return names;
}

const Environment& globalEnvironment() {
  return Config::getInstance().environment;
}

/// Whole launch files, read as the launcher reads them.
class LaunchFileTest : public ::testing::Test {
 protected:
  LaunchFileTest() {
    (void)::setenv("VORN_ROOT", kRoot, 1);
    (void)::unsetenv("VORN_BIN_PATH");
  }

  static bool parse(const std::string& text) {
    const TemporaryFile file(text);
    return Parser().Parse(file.path());
  }

  /// Reads a file whose only node, "n", has the lines of `description`.
  static const Node& parseOnly(std::string_view description) {
    std::string text = "vornnode:\n  n:\n    ";
    for (const char c : description) {
      text += c;
      if (c == '\n') text += "    ";
    }
    EXPECT_TRUE(parse(text));
    return node(0);
  }

  const test::LogCapture log_;
};

// ---- The document.

TEST_F(LaunchFileTest, AFileThatDoesNotExistIsOneErrorLineAndFalse) {
  EXPECT_FALSE(Parser().Parse("/nowhere/launch.yaml"));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(AllOf(logLine("ERROR", false, "Parse",
                                "Exception: bad file: /nowhere/launch.yaml"),
                        Field(&test::LogLine::file, "parser.cpp"))));
}

TEST_F(LaunchFileTest, AFileWithoutANodeOrVariableIsReadWithoutALine) {
  for (const char* const text :
       {"", "nodes: {n: {path: /n}}\nx: 1\n", "- configure\n- vornnode\n",
        "configure: ~\nvornnode: ~\n", "configure: {}\nvornnode: {}\n",
        "configure: {env: {A: 1}}\n", "configure: {environment: }\n",
        "configure: {environment: A=1}\n", "vornnode: planner\n",
        "configure: [environment, {A: 1}]\nvornnode: []\n"}) {
    EXPECT_TRUE(parse(text)) << text;
  }
  EXPECT_THAT(nodeNames(), IsEmpty());
  EXPECT_THAT(globalEnvironment(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(LaunchFileTest, ConfigureIsReadFirstInAnyPosition) {
  EXPECT_TRUE(
      parse("vornnode:\n"
            "  n: {path: tool}\n"
            "configure:\n"
            "  environment: {VORN_BIN_PATH: /opt/b}\n"));
  EXPECT_THAT(node(0).argv, ElementsAre("/opt/b/tool"));
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("INFO", false, "parseSetenv",
                                  "setenv VORN_BIN_PATH: /opt/b"),
                          logLine("INFO", false, "addNode", "name: n")));
}

TEST_F(LaunchFileTest, ASecondParseRegistersEveryNodeAgain) {
  const TemporaryFile file("vornnode: {a: {path: /a}, b: {path: /b}}\n");
  Parser parser;
  EXPECT_TRUE(parser.Parse(file.path()));
  EXPECT_TRUE(parser.Parse(file.path()));
  EXPECT_THAT(nodeNames(), ElementsAre("a", "b", "a", "b"));
}

// ---- The exceptions of yaml-cpp that end the launcher.

struct Fault {
  const char* name;
  const char* text;
  const char* message;
};

class FaultyFileTest : public LaunchFileTest,
                       public ::testing::WithParamInterface<Fault> {};

TEST_P(FaultyFileTest, IsAnExceptionThatNamesTheFault) {
  EXPECT_THAT([] { parse(GetParam().text); },
              ThrowsMessage<YAML::Exception>(HasSubstr(GetParam().message)));
  EXPECT_THAT(nodeNames(), IsEmpty());
  EXPECT_THAT(globalEnvironment(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Of, FaultyFileTest,
    Values(Fault{"Syntax", "vornnode:\n  n: {path: [\n",
                 "yaml-cpp: error at line 3, column 1: "},
           Fault{"Conversion", "vornnode:\n  n:\n    path: [/n]\n",
                 "yaml-cpp: error at line 3, column 11: bad conversion"},
           Fault{"ScalarRoot", "launch\n", "(key: \"configure\")"},
           Fault{"ScalarConfigure", "configure: x\n", "(key: \"environment\")"},
           Fault{"ScalarNode", "vornnode: {n: /bin/n}\n", "(key: \"path\")"},
           Fault{"SequenceVornnode", "vornnode: [a, b]\n", kInvalidNode},
           Fault{"SequenceGlobalEnvironment",
                 "configure: {environment: [A, B]}\n", kInvalidNode},
           Fault{"SequenceEnvironment",
                 "vornnode: {n: {path: /n, environment: [A]}}\n", kInvalidNode},
           Fault{"Sleep", "vornnode: {n: {path: /n, sleep: -1}}\n",
                 kBadConversion},
           Fault{"RepeatedSleep",
                 "vornnode: {n: {path: /n, sleep: x, sleep: 1}}\n",
                 kBadConversion},
           Fault{"ScalarRequired", "vornnode: {n: {path: /n, required: a}}\n",
                 kBadConversion},
           Fault{"NullRequired", "vornnode: {n: {path: /n, required: ~}}\n",
                 kBadConversion},
           Fault{"MappingRequired",
                 "vornnode: {n: {path: /n, required: {a: 1}}}\n",
                 kBadConversion}),
    [](const auto& test) { return test.param.name; });

TEST_F(LaunchFileTest, AnInvalidNodeIsNotRegisteredButThoseBeforeItAre) {
  EXPECT_THROW(parse("vornnode:\n"
                     "  first: {path: /first}\n"
                     "  faulty: {path: /faulty, argv: -a, sleep: long}\n"
                     "  last: {path: /last}\n"),
               YAML::TypedBadConversion<unsigned int>);
  EXPECT_THAT(nodeNames(), ElementsAre("first"));
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("INFO", false, "addNode", "name: first")));
}

TEST_F(LaunchFileTest, VariablesBeforeAFaultyOneAreExportedAndLogged) {
  EXPECT_THROW(parse("configure:\n"
                     "  environment: {VT_A: x, VT_B: [y], VT_C: z}\n"
                     "vornnode: {n: {path: /n}}\n"),
               YAML::TypedBadConversion<std::string>);
  EXPECT_STREQ(::getenv("VT_A"), "x");
  EXPECT_EQ(::getenv("VT_C"), nullptr);
  EXPECT_THAT(globalEnvironment(), ElementsAre(Pair("VT_A", "x")));
  EXPECT_THAT(log_.lines(), ElementsAre(logLine("INFO", false, "parseSetenv",
                                                "setenv VT_A: x")));
  EXPECT_THAT(nodeNames(), IsEmpty());
}

// ---- Strings.

/// A place in a launch file where a text is wanted, marked by '@'.
struct Place {
  const char* name;
  const char* text;
  std::string (*read)();
};

const Place kPlaces[] = {
    {"Path", "vornnode:\n  n:\n    path: @\n",
     [] { return node(0).argv.at(0); }},
    {"Argv", "vornnode:\n  n:\n    path: /n\n    argv: @\n",
     [] { return node(0).argv.at(1); }},
    {"NodeName", "vornnode:\n  @: {path: /n}\n", [] { return node(0).name; }},
    {"NodeVariableName",
     "vornnode:\n  n:\n    path: /n\n    environment:\n      @: x\n",
     [] { return node(0).environment.at(1).first; }},
    {"NodeVariableValue",
     "vornnode:\n  n:\n    path: /n\n    environment:\n      A: @\n",
     [] { return node(0).environment.at(1).second; }},
    {"GlobalVariableName", "configure:\n  environment:\n    @: x\n",
     [] { return globalEnvironment().at(0).first; }},
    {"GlobalVariableValue", "configure:\n  environment:\n    A: @\n",
     [] { return globalEnvironment().at(0).second; }},
    {"RequiredElement",
     "vornnode:\n  n:\n    path: /n\n    required:\n      - a\n      - @\n",
     [] { return node(0).required.at(1); }},
    // An unknown key is ignored, but it must be a string.
    {"UnknownKey", "vornnode:\n  n:\n    path: /n\n    @: x\n", nullptr},
};

std::string with(const Place& place, const std::string& value) {
  std::string text = place.text;
  return text.replace(text.find('@'), 1, value);
}

class StringTest : public LaunchFileTest,
                   public ::testing::WithParamInterface<Place> {};

TEST_P(StringTest, IsNeitherNullNorAListNorAMapping) {
  for (const char* const value :
       {"", "~", "null", "Null", "NULL", "[x, y]", "{x: y}"}) {
    EXPECT_THAT([&] { parse(with(GetParam(), value)); },
                ThrowsMessage<YAML::TypedBadConversion<std::string>>(
                    HasSubstr(kBadConversion)))
        << value;
  }
  EXPECT_THAT(nodeNames(), IsEmpty());
  EXPECT_THAT(globalEnvironment(), IsEmpty());
}

TEST_P(StringTest, IsAnyOtherScalar) {
  EXPECT_TRUE(parse(with(GetParam(), "'null'")));
  if (GetParam().read != nullptr) {
    EXPECT_EQ(GetParam().read(), "null");
  }
}

INSTANTIATE_TEST_SUITE_P(As, StringTest, ValuesIn(kPlaces),
                         [](const auto& test) { return test.param.name; });

TEST_F(LaunchFileTest, AnEmptyQuotedGlobalValueIsExportedEmpty) {
  EXPECT_TRUE(parse("configure: {environment: {VT_A: ''}}\n"));
  EXPECT_STREQ(::getenv("VT_A"), "");
}

// ---- A node's description.

TEST_F(LaunchFileTest, ANodeWithOnlyAPathHasTheDefaults) {
  const Node& only = parseOnly("path: /bin/n");
  EXPECT_EQ(only.name, "n");
  EXPECT_THAT(only.argv, ElementsAre("/bin/n"));
  EXPECT_TRUE(only.autostart);
  EXPECT_FALSE(only.disabled);
  EXPECT_FALSE(only.oneshot);
  EXPECT_EQ(only.sleep, 0U);
  EXPECT_THAT(only.required, IsEmpty());
  EXPECT_THAT(only.environment,
              ElementsAre(Pair("__VORN_NODE_NAME__", "n(vornlaunch)")));
}

TEST_F(LaunchFileTest, ANodeWithoutAPathIsDroppedWithOneWarning) {
  for (const char* const description :
       {"", "{}", "{Path: /n}", "{sleep: long}", "[]", "[{path: /n}]"}) {
    EXPECT_TRUE(
        parse("vornnode:\n  dropped: " + std::string(description) + "\n"));
    EXPECT_EQ(log_.lines().back(),
              logLine("WARN", false, "parseNode", "No node's path!"))
        << description;
  }
  EXPECT_THAT(log_.lines(), SizeIs(6));
  EXPECT_THAT(nodeNames(), IsEmpty());
}

TEST_F(LaunchFileTest, UnknownKeysOfANodeAreIgnoredWithoutALine) {
  EXPECT_THAT(parseOnly("path: /n\nargs: -a\nArgv: -b\nx: [1]").argv,
              ElementsAre("/n"));
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("INFO", false, "addNode", "name: n")));
}

TEST_F(LaunchFileTest, ARepeatedNodeNameGivesTwoNodesInFileOrder) {
  EXPECT_TRUE(
      parse("vornnode:\n"
            "  twin: {path: /first}\n"
            "  other: {path: /other}\n"
            "  twin: {path: /second}\n"));
  EXPECT_THAT(nodeNames(), ElementsAre("twin", "other", "twin"));
  EXPECT_THAT(node(0).argv, ElementsAre("/first"));
  EXPECT_THAT(node(2).argv, ElementsAre("/second"));
}

TEST_F(LaunchFileTest, ANodesOwnNodeNameVariableFollowsTheBuiltInOne) {
  const std::string text = "path: /n\nenvironment: {__VORN_NODE_NAME__: own}";
  EXPECT_THAT(parseOnly(text).environment,
              ElementsAre(Pair("__VORN_NODE_NAME__", "n(vornlaunch)"),
                          Pair("__VORN_NODE_NAME__", "own")));
}

TEST_F(LaunchFileTest, NodeVariablesStayOutOfTheLaunchersEnvironment) {
  parseOnly("path: /n\nenvironment: {VT_NODE: x}");
  EXPECT_EQ(::getenv("VT_NODE"), nullptr);
  EXPECT_THAT(globalEnvironment(), IsEmpty());
}

TEST_F(LaunchFileTest, AnEnvironmentThatIsNotAMappingGivesNoVariables) {
  for (const char* const value : {"", "~", "text", "{}", "[]"}) {
    EXPECT_TRUE(parse("vornnode:\n  n:\n    path: /n\n    environment: " +
                      std::string(value) + "\n"));
    const auto& nodes = NodeManager::getInstance().nodes();
    EXPECT_THAT(nodes.back()->environment, SizeIs(1)) << value;
  }
}

// ---- path.

TEST_F(LaunchFileTest, APathWrittenLastIsStillTheFirstArgument) {
  EXPECT_THAT(parseOnly("argv: -a -b\npath: /n").argv,
              ElementsAre("/n", "-a", "-b"));
}

struct PathCase {
  const char* name;
  const char* bin_path;  // nullptr: not set
  const char* path;
  const char* resolved;
};

class PathTest : public LaunchFileTest,
                 public ::testing::WithParamInterface<PathCase> {};

TEST_P(PathTest, IsResolved) {
  const PathCase& given = GetParam();
  if (given.bin_path != nullptr) {
    (void)::setenv("VORN_BIN_PATH", given.bin_path, 1);
  }
  EXPECT_THAT(parseOnly("path: " + std::string(given.path)).argv,
              ElementsAre(given.resolved));
}

INSTANTIATE_TEST_SUITE_P(
    With, PathTest,
    Values(PathCase{"NoVariable", nullptr, "bin/x", "bin/x"},
           PathCase{"EmptyVariable", "", "x", "x"},
           PathCase{"RelativePath", "/opt/b", "x", "/opt/b/x"},
           PathCase{"AbsolutePath", "/opt/b", "/x", "/x"},
           PathCase{"TrailingSlash", "/opt/b/", "x", "/opt/b//x"},
           PathCase{"EmptyPath", "/opt/b", "''", "/opt/b/"},
           PathCase{"NoNormalisation", "rel", "../x/./y", "rel/../x/./y"},
           PathCase{"InstallPrefixAndVariable", "/opt/b", "install://x",
                    "/opt/b/install://x"}),
    [](const auto& test) { return test.param.name; });

TEST_F(LaunchFileTest, AGlobalBinPathIsExpandedBeforePathsAreResolved) {
  EXPECT_TRUE(
      parse("configure: {environment: {VORN_BIN_PATH: install://bin}}\n"
            "vornnode: {a: {path: x}, b: {path: /y}}\n"));
  EXPECT_THAT(node(0).argv, ElementsAre("/opt/root/bin/x"));
  EXPECT_THAT(node(1).argv, ElementsAre("/y"));
}

// ---- argv.

TEST_F(LaunchFileTest, ArgvIsCutAtSpacesOnly) {
  const std::pair<const char*, Strings> cases[] = {
      {"'  -a   -b  '", {"-a", "-b"}},
      {R"("a\tb\nc d")", {"a\tb\nc", "d"}},
      {"''", {}},
      {"'   '", {}},
      {R"('"a b" c')", {"\"a", "b\"", "c"}},
      {R"('a\ b')", {"a\\", "b"}},
      {"install://y $HOME ~", {"install://y", "$HOME", "~"}}};
  for (const auto& [argv, pieces] : cases) {
    parseOnly("path: /n\nargv: " + std::string(argv));
    Strings expected = {"/n"};
    expected.insert(expected.end(), pieces.begin(), pieces.end());
    EXPECT_EQ(NodeManager::getInstance().nodes().back()->argv, expected);
  }
}

// ---- Flags, sleep and required.

using Flag = bool Node::*;

struct BoolKey {
  const char* name;
  Flag flag;
};

const BoolKey kBoolKeys[] = {{"disabled", &Node::disabled},
                             {"oneshot", &Node::oneshot},
                             {"autostart", &Node::autostart}};

class BoolKeyTest : public LaunchFileTest,
                    public ::testing::WithParamInterface<BoolKey> {
 protected:
  static std::string description(const std::string& value) {
    return "path: /n\n" + std::string(GetParam().name) + ": " + value;
  }

  static bool flagOfLastNode() {
    return *NodeManager::getInstance().nodes().back().*GetParam().flag;
  }
};

TEST_P(BoolKeyTest, EveryWordForTrueSetsTheFlag) {
  for (const char* const word : {"true", "True", "TRUE", "yes", "Yes", "YES",
                                 "on", "On", "ON", "y", "Y"}) {
    parseOnly(description("false") + "\n" + GetParam().name + ": " + word);
    EXPECT_TRUE(flagOfLastNode()) << word;
  }
}

TEST_P(BoolKeyTest, EveryWordForFalseClearsTheFlag) {
  for (const char* const word : {"false", "False", "FALSE", "no", "No", "NO",
                                 "off", "Off", "OFF", "n", "N"}) {
    parseOnly(description("true") + "\n" + GetParam().name + ": " + word);
    EXPECT_FALSE(flagOfLastNode()) << word;
  }
}

TEST_P(BoolKeyTest, AnythingElseIsABadConversion) {
  for (const char* const value : {"1", "tRUE", "''", "~", "[true]"}) {
    EXPECT_THAT([&] { parseOnly(description(value)); },
                ThrowsMessage<YAML::TypedBadConversion<bool>>(
                    HasSubstr(kBadConversion)))
        << value;
  }
  EXPECT_THAT(nodeNames(), IsEmpty());
}

TEST_P(BoolKeyTest, ChangesNoOtherFlag) {
  parseOnly(description("true"));
  parseOnly(description("false"));
  for (const BoolKey& other : kBoolKeys) {
    if (other.flag == GetParam().flag) continue;
    EXPECT_EQ(node(0).*other.flag, Node("").*other.flag) << other.name;
    EXPECT_EQ(node(1).*other.flag, Node("").*other.flag) << other.name;
  }
}

INSTANTIATE_TEST_SUITE_P(Named, BoolKeyTest, ValuesIn(kBoolKeys),
                         [](const auto& test) { return test.param.name; });

TEST_F(LaunchFileTest, SleepTakesItsBaseFromThePrefixAndHas32Bits) {
  const std::pair<const char*, uint32_t> cases[] = {
      {"1500", 1500}, {"0", 0},     {"0x10", 16},
      {"010", 8},     {"'25'", 25}, {"4294967295", 4294967295}};
  for (const auto& [value, milliseconds] : cases) {
    parseOnly("path: /n\nsleep: " + std::string(value));
    EXPECT_EQ(NodeManager::getInstance().nodes().back()->sleep, milliseconds);
  }
  for (const char* const value : {"4294967296", "1.5", "10ms", "08", "''"}) {
    EXPECT_THROW(parseOnly("path: /n\nsleep: " + std::string(value)),
                 YAML::TypedBadConversion<unsigned int>)
        << value;
  }
}

TEST_F(LaunchFileTest, RequiredKeepsItsOrderAndUnknownNames) {
  EXPECT_THAT(parseOnly("path: /n\nrequired: [z, other, n, a, z]").required,
              ElementsAre("z", "other", "n", "a", "z"));
}

// ---- Repeated keys.

TEST_F(LaunchFileTest, ARepeatedArgvAddsItsArguments) {
  EXPECT_THAT(parseOnly("argv: -a -b\npath: /n\nargv: -c").argv,
              ElementsAre("/n", "-a", "-b", "-c"));
}

TEST_F(LaunchFileTest, ARepeatedEnvironmentAddsItsVariables) {
  const std::string text =
      "path: /n\nenvironment: {A: x}\nenvironment: {A: y, B: z}";
  EXPECT_THAT(parseOnly(text).environment,
              ElementsAre(Pair("__VORN_NODE_NAME__", "n(vornlaunch)"),
                          Pair("A", "x"), Pair("A", "y"), Pair("B", "z")));
}

TEST_F(LaunchFileTest, ARepeatedRequiredKeepsOnlyTheLastList) {
  EXPECT_THAT(parseOnly("path: /n\nrequired: [a, b]\nrequired: [c]").required,
              ElementsAre("c"));
}

TEST_F(LaunchFileTest, ARepeatedSleepKeepsTheLastValue) {
  EXPECT_EQ(parseOnly("path: /n\nsleep: 1\nsleep: 2").sleep, 2U);
}

TEST_F(LaunchFileTest, ARepeatedPathCountsOnlyTheFirstTime) {
  EXPECT_THAT(parseOnly("path: /first\nargv: -a\npath: /second").argv,
              ElementsAre("/first", "-a"));
}

// ---- Variables.

TEST_F(LaunchFileTest, GlobalVariablesAreExportedKeptAndLogged) {
  EXPECT_TRUE(parse("configure: {environment: {VT_Z: 1, VT_A: install://b}}"));
  EXPECT_STREQ(::getenv("VT_Z"), "1");
  EXPECT_STREQ(::getenv("VT_A"), "/opt/root/b");
  EXPECT_THAT(globalEnvironment(),
              ElementsAre(Pair("VT_Z", "1"), Pair("VT_A", "/opt/root/b")));
  EXPECT_THAT(
      log_.lines(),
      AllOf(ElementsAre(logLine("INFO", false, "parseSetenv", "setenv VT_Z: 1"),
                        logLine("INFO", false, "parseSetenv",
                                "setenv VT_A: /opt/root/b")),
            Each(Field(&test::LogLine::file, "parser.cpp"))));
}

TEST_F(LaunchFileTest, ARepeatedGlobalVariableIsKeptTwiceAndTheLastWins) {
  EXPECT_TRUE(parse("configure:\n  environment:\n    VT_A: 1\n    VT_A: 2\n"));
  EXPECT_STREQ(::getenv("VT_A"), "2");
  EXPECT_THAT(globalEnvironment(),
              ElementsAre(Pair("VT_A", "1"), Pair("VT_A", "2")));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(logLine("INFO", false, "parseSetenv", "setenv VT_A: 1"),
                  logLine("INFO", false, "parseSetenv", "setenv VT_A: 2")));
}

TEST_F(LaunchFileTest, ANameThatCannotBeExportedStaysInTheListAndTheLog) {
  EXPECT_TRUE(parse("configure: {environment: {'': x, VT_A=B: y}}\n"));
  EXPECT_EQ(::getenv("VT_A"), nullptr);
  EXPECT_THAT(globalEnvironment(),
              ElementsAre(Pair("", "x"), Pair("VT_A=B", "y")));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(logLine("INFO", false, "parseSetenv", "setenv : x"),
                  logLine("INFO", false, "parseSetenv", "setenv VT_A=B: y")));
}

TEST_F(LaunchFileTest, VariableNamesAreNotExpanded) {
  EXPECT_TRUE(
      parse("configure: {environment: {'install://a': x}}\n"
            "vornnode:\n"
            "  n: {path: /n, environment: {'install://b': y}}\n"));
  EXPECT_THAT(globalEnvironment(), ElementsAre(Pair("install://a", "x")));
  EXPECT_THAT(node(0).environment.at(1), Pair("install://b", "y"));
}

// ---- The steps by themselves.

class ParserTest : public LaunchFileTest {
 protected:
  Parser parser_;
};

TEST_F(ParserTest, ParseNodeAppliesTheRowsOfTheGivenTable) {
  Strings calls;
  const Parser::KeyHandlers rows = {
      {"first", [&](const auto& node, const YAML::Node& value) {
         calls.push_back(node->name + " " + value.as<std::string>());
       }}};
  parser_.parseNode("n", YAML::Load("{first: x, path: /n, argv: -a}"), rows);
  EXPECT_THAT(calls, ElementsAre("n x"));
  EXPECT_THAT(node(0).argv, ElementsAre("/n"));
}

TEST_F(ParserTest, ParseNodeVisitsTheKeysInFileOrder) {
  Strings calls;
  const auto record = [&](const char* key) {
    return [&calls, key](const auto&, const auto&) { calls.push_back(key); };
  };
  const Parser::KeyHandlers rows = {
      {"a", record("a")}, {"b", record("b")}, {"c", record("c")}};
  parser_.parseNode("n", YAML::Load("{c: 1, a: 1, path: /n, b: 1, a: 2}"),
                    rows);
  EXPECT_THAT(calls, ElementsAre("c", "a", "b", "a"));
}

TEST_F(ParserTest, ParseNodeReadsThePathBeforeTheRows) {
  Strings argv_in_handler;
  const Parser::KeyHandlers rows = {
      {"x", [&](const auto& node, const YAML::Node&) {
         argv_in_handler = node->argv;
       }}};
  parser_.parseNode("n", YAML::Load("{x: 1, path: /n}"), rows);
  EXPECT_THAT(argv_in_handler, ElementsAre("/n"));
}

TEST_F(ParserTest, ParseNodeDestroysAHalfBuiltNode) {
  const Parser::KeyHandlers rows = {
      {"x", [](const auto&, const auto&) { throw std::runtime_error("x"); }}};
  EXPECT_THROW(parser_.parseNode("n", YAML::Load("{path: /n, x: 1}"), rows),
               std::runtime_error);
  EXPECT_THAT(nodeNames(), IsEmpty());
}

TEST_F(ParserTest, ReadingNodesLeavesTheDocumentAsItWas) {
  const YAML::Node configure = YAML::Load("{other: 1}");
  const YAML::Node nodes = YAML::Load("{n: {argv: -a}}");
  parser_.parseConfigs(configure);
  parser_.parseNodes(nodes);
  EXPECT_THAT(configure, SizeIs(1));
  EXPECT_THAT(nodes["n"], SizeIs(1));
}

// ---- The settings' instance.

TEST(ConfigTest, AnEmptyEnvironmentMappingCreatesTheInstance) {
  const int before = nothrow_allocations;
  Parser().parseConfigs(YAML::Load("{environment: {}}"));
  EXPECT_EQ(nothrow_allocations, before + 1);
  (void)Config::getInstance();
  EXPECT_EQ(nothrow_allocations, before + 1);
}

TEST(ConfigTest, WithoutAnEnvironmentTheLauncherCreatesNoInstance) {
  const int before = nothrow_allocations;
  const TemporaryFile file("configure: {other: 1}\n");
  EXPECT_TRUE(Parser().Parse(file.path()));
  EXPECT_EQ(nothrow_allocations, before);
  (void)Config::getInstance();
  EXPECT_EQ(nothrow_allocations, before + 1);
}

}  // namespace
}  // namespace vorn::launch
