#include "parser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <new>
#include <string>
#include <tuple>
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
using ::testing::Combine;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;
using ::testing::Values;
using ::testing::ValuesIn;

constexpr char kRoot[] = "/opt/root";
constexpr char kBadConversion[] =
    "yaml-cpp: error at line [0-9]+, column [0-9]+: bad conversion";
constexpr char kInvalidNode[] =
    "invalid node; this may result from using a map iterator as a sequence "
    "iterator, or vice-versa";

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
  static const Node& parseOnly(const std::string& description) {
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

TEST_F(LaunchFileTest, AFileWithoutReadPermissionIsOneErrorLineAndFalse) {
  constexpr uid_t kNobody = 65534;
  const TemporaryFile file("vornnode: {n: {path: /n}}");
  ASSERT_EQ(::chmod(file.path().c_str(), 0), 0);
  const uid_t user = ::geteuid();
  if (user == 0 && ::seteuid(kNobody) != 0) {
    GTEST_SKIP() << "The super-user may read every file and cannot be left.";
  }
  EXPECT_FALSE(Parser().Parse(file.path()));
  EXPECT_EQ(::seteuid(user), 0);
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("ERROR", false, "Parse",
                                  "Exception: bad file: " + file.path())));
  EXPECT_THAT(nodeNames(), IsEmpty());
}

struct Text {
  const char* name;
  const char* text;
};

std::string nameOfText(const ::testing::TestParamInfo<Text>& test) {
  return test.param.name;
}

class NothingToReadTest : public LaunchFileTest,
                          public ::testing::WithParamInterface<Text> {};

TEST_P(NothingToReadTest, GivesTrueNoNodeNoVariableAndNoLine) {
  EXPECT_TRUE(parse(GetParam().text));
  EXPECT_THAT(nodeNames(), IsEmpty());
  EXPECT_THAT(globalEnvironment(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    File, NothingToReadTest,
    Values(Text{"Empty", ""}, Text{"OnlyAComment", "# nothing\n"},
           Text{"NullDocument", "~\n"},
           Text{"OnlyUnknownTopLevelKeys", "nodes: {n: {path: /n}}\nx: 1\n"},
           Text{"SequenceAsRoot", "- configure\n- vornnode\n"},
           Text{"NullConfigure", "configure:\n"},
           Text{"NullVornnode", "vornnode:\n"},
           Text{"TildeSections", "configure: ~\nvornnode: ~\n"},
           Text{"EmptySections", "configure: {}\nvornnode: {}\n"},
           Text{"SequenceConfigure", "configure: [environment, {A: 1}]\n"},
           Text{"UnknownConfigureKey", "configure: {env: {A: 1}}\n"},
           Text{"NullGlobalEnvironment", "configure: {environment: }\n"},
           Text{"ScalarGlobalEnvironment", "configure: {environment: A=1}\n"},
           Text{"EmptyGlobalEnvironment", "configure: {environment: {}}\n"},
           // Without an element there is none that lacks its key.
           Text{"EmptySequenceGlobalEnvironment",
                "configure: {environment: []}\n"},
           Text{"EmptySequenceVornnode", "vornnode: []\n"},
           Text{"ScalarVornnode", "vornnode: planner\n"}),
    nameOfText);

TEST_F(LaunchFileTest, ConfigureAloneGivesTrueAndAnEmptyRegistry) {
  EXPECT_TRUE(parse("configure: {environment: {A: x}}\n"));
  EXPECT_THAT(nodeNames(), IsEmpty());
  EXPECT_THAT(globalEnvironment(), ElementsAre(Pair("A", "x")));
}

TEST_F(LaunchFileTest, VornnodeAloneGivesTrueAndNoGlobalVariable) {
  EXPECT_TRUE(parse("vornnode: {n: {path: /n}}\n"));
  EXPECT_THAT(nodeNames(), ElementsAre("n"));
  EXPECT_THAT(globalEnvironment(), IsEmpty());
}

TEST_F(LaunchFileTest, ConfigureIsReadFirstWhereverItStands) {
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

TEST_F(LaunchFileTest, TheWholeExampleIsRead) {
  EXPECT_TRUE(parse(R"(
configure:
  environment:
    VORN_BIN_PATH: install://bin
    LD_LIBRARY_PATH: install://lib:/usr/local/lib
vornnode:
  controller:
    path: /usr/local/bin/controller
    argv: --rate 500 --log-level 2
    required: [planner, monitor]
  planner:
    path: planner
    sleep: 1500
    environment:
      PLANNER_MAPS: install://share/maps
      PLANNER_MODE: fast
  monitor:
    path: monitor
    autostart: false
  calibrate:
    path: calibrate
    oneshot: true
    disabled: false
)"));
  EXPECT_THAT(nodeNames(),
              ElementsAre("controller", "planner", "monitor", "calibrate"));
  EXPECT_THAT(
      globalEnvironment(),
      ElementsAre(Pair("VORN_BIN_PATH", "/opt/root/bin"),
                  Pair("LD_LIBRARY_PATH", "/opt/root/lib:/usr/local/lib")));
  EXPECT_THAT(node(0).argv, ElementsAre("/usr/local/bin/controller", "--rate",
                                        "500", "--log-level", "2"));
  EXPECT_THAT(node(0).required, ElementsAre("planner", "monitor"));
  EXPECT_THAT(node(1).argv, ElementsAre("/opt/root/bin/planner"));
  EXPECT_EQ(node(1).sleep, 1500U);
  EXPECT_THAT(node(1).environment,
              ElementsAre(Pair("__VORN_NODE_NAME__", "planner(vornlaunch)"),
                          Pair("PLANNER_MAPS", "/opt/root/share/maps"),
                          Pair("PLANNER_MODE", "fast")));
  EXPECT_FALSE(node(2).autostart);
  EXPECT_TRUE(node(3).oneshot);
  EXPECT_FALSE(node(3).disabled);
}

// ---- What ends the launcher: yaml-cpp's exceptions.

TEST_F(LaunchFileTest, ASyntaxErrorIsAParserExceptionThatNamesThePlace) {
  EXPECT_THAT([] { parse("vornnode:\n  n: {path: [\n"); },
              ThrowsMessage<YAML::ParserException>(
                  StartsWith("yaml-cpp: error at line 3, column 1: ")));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

struct Subscript {
  const char* name;
  const char* text;
  const char* key;
};

class ScalarInsteadOfMappingTest
    : public LaunchFileTest,
      public ::testing::WithParamInterface<Subscript> {};

TEST_P(ScalarInsteadOfMappingTest, IsABadSubscriptThatNamesTheKey) {
  EXPECT_THAT([] { parse(GetParam().text); },
              ThrowsMessage<YAML::BadSubscript>(
                  AllOf(HasSubstr("operator[] call on a scalar"),
                        HasSubstr("\"" + std::string(GetParam().key) + "\""))));
}

INSTANTIATE_TEST_SUITE_P(
    Of, ScalarInsteadOfMappingTest,
    Values(Subscript{"Root", "launch\n", "configure"},
           Subscript{"Configure", "configure: text\n", "environment"},
           Subscript{"NodeDescription", "vornnode: {n: /bin/n}\n", "path"}),
    [](const auto& test) { return test.param.name; });

class SequenceInsteadOfMappingTest
    : public LaunchFileTest,
      public ::testing::WithParamInterface<Text> {};

TEST_P(SequenceInsteadOfMappingTest, IsAnInvalidNode) {
  EXPECT_THAT([] { parse(GetParam().text); },
              ThrowsMessage<YAML::InvalidNode>(kInvalidNode));
}

INSTANTIATE_TEST_SUITE_P(
    Of, SequenceInsteadOfMappingTest,
    Values(Text{"Vornnode", "vornnode: [a, b]\n"},
           Text{"VornnodeOfMappings", "vornnode: [{path: /a}]\n"},
           Text{"GlobalEnvironment", "configure: {environment: [A, B]}\n"},
           Text{"NodeEnvironment",
                "vornnode: {n: {path: /n, environment: [A, B]}}\n"}),
    nameOfText);

TEST_F(LaunchFileTest, ABadConversionNamesLineAndColumnOfTheValue) {
  EXPECT_THAT([] { parse("vornnode:\n  n:\n    path: [/n]\n"); },
              ThrowsMessage<YAML::TypedBadConversion<std::string>>(
                  "yaml-cpp: error at line 3, column 11: bad conversion"));
}

TEST_F(LaunchFileTest, AFaultyNodeIsNotRegisteredAndThoseBeforeItStay) {
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

// ---- Strings: what is none, and what is one although it looks otherwise.

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
};

const Place kKeyInsideANode = {
    "KeyInsideANode", "vornnode:\n  n:\n    path: /n\n    @: x\n", nullptr};

/// All of them: an unknown key is ignored, but it must be a string.
std::vector<Place> placesAndKey() {
  std::vector<Place> places(std::begin(kPlaces), std::end(kPlaces));
  places.push_back(kKeyInsideANode);
  return places;
}

std::string with(const Place& place, const std::string& value) {
  std::string text = place.text;
  return text.replace(text.find('@'), 1, value);
}

using PlaceAndText = std::tuple<Place, Text>;

std::string nameOfPlaceAndText(
    const ::testing::TestParamInfo<PlaceAndText>& test) {
  return std::string(std::get<Place>(test.param).name) + "Is" +
         std::get<Text>(test.param).name;
}

class NoStringTest : public LaunchFileTest,
                     public ::testing::WithParamInterface<PlaceAndText> {};

TEST_P(NoStringTest, IsABadConversionToString) {
  const auto& [place, value] = GetParam();
  const std::string text = with(place, value.text);
  EXPECT_THAT([&] { parse(text); },
              ThrowsMessage<YAML::TypedBadConversion<std::string>>(
                  MatchesRegex(kBadConversion)));
  EXPECT_THAT(nodeNames(), IsEmpty());
  EXPECT_THAT(globalEnvironment(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Where, NoStringTest,
    Combine(ValuesIn(placesAndKey()),
            Values(Text{"Missing", ""}, Text{"Tilde", "~"},
                   Text{"LowerNull", "null"}, Text{"CapitalisedNull", "Null"},
                   Text{"UpperNull", "NULL"}, Text{"ASequence", "[x, y]"},
                   Text{"AMapping", "{x: y}"})),
    nameOfPlaceAndText);

class PlainStringTest : public LaunchFileTest,
                        public ::testing::WithParamInterface<PlaceAndText> {};

TEST_P(PlainStringTest, IsTakenAsItStands) {
  const auto& [place, value] = GetParam();
  const std::string quoted = value.text;
  EXPECT_TRUE(parse(with(place, quoted)));
  const bool is_quoted = quoted.front() == '"' || quoted.front() == '\'';
  EXPECT_EQ(place.read(),
            is_quoted ? quoted.substr(1, quoted.size() - 2) : quoted);
}

INSTANTIATE_TEST_SUITE_P(
    Where, PlainStringTest,
    Combine(ValuesIn(kPlaces),
            Values(Text{"DoubleQuotedNull", "\"null\""},
                   Text{"SingleQuotedNull", "'NULL'"},
                   Text{"QuotedTilde", "\"~\""}, Text{"ANumber", "12.50"},
                   Text{"ABool", "yes"}, Text{"Utf8", "ü→"},
                   Text{"AlmostNull", "nUll"})),
    nameOfPlaceAndText);

TEST_F(LaunchFileTest, AQuotedNullIsAnUnknownKeyInsideANode) {
  EXPECT_TRUE(parse(with(kKeyInsideANode, "\"null\"")));
  EXPECT_THAT(nodeNames(), ElementsAre("n"));
}

TEST_F(LaunchFileTest, AnEmptyQuotedVariableValueIsAnEmptyValue) {
  EXPECT_THAT(
      parseOnly("path: /n\nenvironment: {A: ''}").environment,
      ElementsAre(Pair("__VORN_NODE_NAME__", "n(vornlaunch)"), Pair("A", "")));
}

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

class NodeWithoutPathTest : public LaunchFileTest,
                            public ::testing::WithParamInterface<Text> {};

TEST_P(NodeWithoutPathTest, IsDroppedWithOneWarningAndTheNextIsRead) {
  EXPECT_TRUE(parse("vornnode:\n  dropped: " + std::string(GetParam().text) +
                    "\n  kept: {path: /kept}\n"));
  EXPECT_THAT(nodeNames(), ElementsAre("kept"));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(AllOf(logLine("WARN", false, "parseNode", "No node's path!"),
                        Field(&test::LogLine::file, "parser.cpp")),
                  logLine("INFO", false, "addNode", "name: kept")));
}

INSTANTIATE_TEST_SUITE_P(
    Description, NodeWithoutPathTest,
    Values(Text{"Null", ""}, Text{"Tilde", "~"}, Text{"EmptyMapping", "{}"},
           Text{"MappingWithoutPath", "{argv: -a, oneshot: true}"},
           Text{"MisspeltPath", "{Path: /n}"},
           // Its other keys are not even looked at.
           Text{"MappingWithAFaultButNoPath", "{sleep: long}"},
           Text{"EmptySequence", "[]"}, Text{"Sequence", "[path, /n]"},
           Text{"SequenceOfMappings", "[{path: /n}]"}),
    nameOfText);

TEST_F(LaunchFileTest, UnknownKeysOfANodeAreIgnoredWithoutALine) {
  EXPECT_THAT(parseOnly("path: /n\nargs: -a\nArgv: -b\nx: [1]").argv,
              ElementsAre("/n"));
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("INFO", false, "addNode", "name: n")));
}

TEST_F(LaunchFileTest, NodesAreRegisteredInFileOrder) {
  EXPECT_TRUE(
      parse("vornnode:\n"
            "  zeta: {path: /z}\n"
            "  alpha: {path: /a}\n"
            "  mid: {path: /m}\n"));
  EXPECT_THAT(nodeNames(), ElementsAre("zeta", "alpha", "mid"));
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("INFO", false, "addNode", "name: zeta"),
                          logLine("INFO", false, "addNode", "name: alpha"),
                          logLine("INFO", false, "addNode", "name: mid")));
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

TEST_F(LaunchFileTest, EveryNodesEnvironmentBeginsWithItsName) {
  EXPECT_TRUE(
      parse("vornnode:\n"
            "  a: {path: /a}\n"
            "  b: {environment: {X: y}, path: /b}\n"));
  EXPECT_THAT(node(0).environment.front(),
              Pair("__VORN_NODE_NAME__", "a(vornlaunch)"));
  EXPECT_THAT(node(1).environment.front(),
              Pair("__VORN_NODE_NAME__", "b(vornlaunch)"));
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

TEST_F(LaunchFileTest, AnEnvironmentThatIsNoMappingGivesNoVariables) {
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
           PathCase{"EmptyPathAndNoVariable", nullptr, "''", ""},
           PathCase{"NoNormalisation", "rel", "../x/./y", "rel/../x/./y"},
           PathCase{"InstallPrefix", nullptr, "install://x", "install://x"},
           PathCase{"InstallPrefixAndVariable", "/opt/b", "install://x",
                    "/opt/b/install://x"},
           PathCase{"InstallPrefixInVariable", "install://b", "x",
                    "install://b/x"},
           PathCase{"Spaces", "/opt/b", "a b", "/opt/b/a b"}),
    [](const auto& test) { return test.param.name; });

TEST_F(LaunchFileTest, AGlobalBinPathIsExpandedBeforePathsAreResolved) {
  EXPECT_TRUE(
      parse("configure: {environment: {VORN_BIN_PATH: install://bin}}\n"
            "vornnode: {a: {path: x}, b: {path: /y}}\n"));
  EXPECT_THAT(node(0).argv, ElementsAre("/opt/root/bin/x"));
  EXPECT_THAT(node(1).argv, ElementsAre("/y"));
}

TEST_F(LaunchFileTest, ANodesOwnBinPathDoesNotResolveItsPath) {
  EXPECT_THAT(parseOnly("environment: {VORN_BIN_PATH: /opt/b}\npath: x").argv,
              ElementsAre("x"));
}

// ---- argv.

struct ArgvCase {
  const char* name;
  const char* argv;
  Strings pieces;
};

class ArgvTest : public LaunchFileTest,
                 public ::testing::WithParamInterface<ArgvCase> {};

TEST_P(ArgvTest, IsCutAtSpacesAlone) {
  Strings expected = {"/n"};
  expected.insert(expected.end(), GetParam().pieces.begin(),
                  GetParam().pieces.end());
  EXPECT_EQ(parseOnly("path: /n\nargv: " + std::string(GetParam().argv)).argv,
            expected);
}

INSTANTIATE_TEST_SUITE_P(
    Of, ArgvTest,
    Values(ArgvCase{"RunsOfSpaces", "'  -a   -b  '", {"-a", "-b"}},
           ArgvCase{"OneWord", "-a", {"-a"}},
           ArgvCase{"ATab", R"("a\tb")", {"a\tb"}},
           ArgvCase{"ALineEnd", R"("a\nb c")", {"a\nb", "c"}},
           ArgvCase{"Empty", "''", {}}, ArgvCase{"OnlySpaces", "'   '", {}},
           ArgvCase{"Quotes", R"('"a b" c')", {"\"a", "b\"", "c"}},
           ArgvCase{"Backslashes", R"('a\ b')", {"a\\", "b"}},
           ArgvCase{"InstallPrefix", "--x=install://y", {"--x=install://y"}},
           ArgvCase{"Dollar", "$HOME *", {"$HOME", "*"}}),
    [](const auto& test) { return test.param.name; });

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

TEST_P(BoolKeyTest, AnythingElseIsABadConversionToBool) {
  for (const char* const value :
       {"1", "0", "tRUE", "enabled", "''", "", "~", "[true]", "{a: b}"}) {
    EXPECT_THAT([&] { parseOnly(description(value)); },
                ThrowsMessage<YAML::TypedBadConversion<bool>>(
                    MatchesRegex(kBadConversion)))
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

struct SleepCase {
  const char* name;
  const char* value;
  uint32_t milliseconds;
};

class SleepTest : public LaunchFileTest,
                  public ::testing::WithParamInterface<SleepCase> {};

TEST_P(SleepTest, IsReadAsMilliseconds) {
  EXPECT_EQ(
      parseOnly("path: /n\nsleep: " + std::string(GetParam().value)).sleep,
      GetParam().milliseconds);
}

INSTANTIATE_TEST_SUITE_P(
    Of, SleepTest,
    Values(SleepCase{"Decimal", "1500", 1500}, SleepCase{"Zero", "0", 0},
           SleepCase{"HexadecimalBase", "0x10", 16},
           SleepCase{"OctalBase", "010", 8}, SleepCase{"Quoted", "'250'", 250},
           SleepCase{"TheLargest", "4294967295", 4294967295}),
    [](const auto& test) { return test.param.name; });

class WrongSleepTest : public LaunchFileTest,
                       public ::testing::WithParamInterface<Text> {};

TEST_P(WrongSleepTest, IsABadConversionToUnsignedInt) {
  EXPECT_THAT(
      [] { parseOnly("path: /n\nsleep: " + std::string(GetParam().text)); },
      ThrowsMessage<YAML::TypedBadConversion<unsigned int>>(
          MatchesRegex(kBadConversion)));
  EXPECT_THAT(nodeNames(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Of, WrongSleepTest,
                         Values(Text{"Word", "long"}, Text{"Negative", "-1"},
                                Text{"BeyondThirtyTwoBits", "4294967296"},
                                Text{"Fraction", "1.5"}, Text{"Unit", "100ms"},
                                Text{"NoOctalDigit", "08"},
                                Text{"Bool", "true"}, Text{"EmptyText", "''"},
                                Text{"Missing", ""}, Text{"Tilde", "~"},
                                Text{"Sequence", "[1]"},
                                Text{"Mapping", "{a: 1}"}),
                         nameOfText);

TEST_F(LaunchFileTest, RequiredKeepsItsOrderAndUnknownNames) {
  EXPECT_THAT(parseOnly("path: /n\nrequired: [z, other, n, a, z]").required,
              ElementsAre("z", "other", "n", "a", "z"));
}

TEST_F(LaunchFileTest, AnEmptyRequiredListIsEmpty) {
  EXPECT_THAT(parseOnly("path: /n\nrequired: []").required, IsEmpty());
}

class WrongRequiredTest : public LaunchFileTest,
                          public ::testing::WithParamInterface<Text> {};

TEST_P(WrongRequiredTest, IsABadConversionToAListOfStrings) {
  EXPECT_THAT(
      [] { parseOnly("path: /n\nrequired: " + std::string(GetParam().text)); },
      ThrowsMessage<YAML::TypedBadConversion<Strings>>(
          MatchesRegex(kBadConversion)));
  EXPECT_THAT(nodeNames(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Of, WrongRequiredTest,
                         Values(Text{"Scalar", "planner"},
                                Text{"EmptyText", "''"},
                                Text{"Mapping", "{planner: 1}"},
                                Text{"Missing", ""}, Text{"Tilde", "~"},
                                Text{"Null", "null"}),
                         nameOfText);

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

TEST_F(LaunchFileTest, AFaultInARepeatedKeyIsStillAFault) {
  EXPECT_THROW(parseOnly("path: /n\nsleep: long\nsleep: 2"),
               YAML::TypedBadConversion<unsigned int>);
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

TEST_F(LaunchFileTest, AGlobalVariableReplacesTheInheritedOne) {
  (void)::setenv("VT_A", "inherited", 1);
  EXPECT_TRUE(parse("configure: {environment: {VT_A: global}}\n"));
  EXPECT_STREQ(::getenv("VT_A"), "global");
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

TEST_F(LaunchFileTest, NodeNamesAndRequiredNamesAreNotExpanded) {
  EXPECT_TRUE(
      parse("vornnode:\n"
            "  'install://a': {path: /n, required: ['install://b']}\n"));
  EXPECT_EQ(node(0).name, "install://a");
  EXPECT_THAT(node(0).required, ElementsAre("install://b"));
}

// ---- The steps by themselves.

class ParserTest : public LaunchFileTest {
 protected:
  Parser parser_;
};

TEST_F(ParserTest, ParseConfigsReadsOnlyTheEnvironment) {
  parser_.parseConfigs(
      YAML::Load("{other: {VT_B: x}, environment: {VT_A: y}}"));
  EXPECT_THAT(globalEnvironment(), ElementsAre(Pair("VT_A", "y")));
}

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
