#include "import/systemd.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "import/node_order.h"
#include "import/systemd_unit.h"
#include "output/text.h"

namespace vorn::launch {
namespace {

constexpr char kUnitSuffix[] = ".service";

/// The name of the unit in a file; systemctl cat writes it in a comment.
std::string unitNameOf(const SourceText& file) {
  std::string name = std::filesystem::path(file.name()).filename().string();
  if (file.isStandardInput()) {
    const std::string first(file.line(1));
    name = startsWith(first, "# /")
               ? std::filesystem::path(first.substr(2)).filename().string()
               : std::string("node") + kUnitSuffix;
  }
  const size_t end = name.rfind(kUnitSuffix);
  const bool is_service = end != std::string::npos && end > 0 &&
                          end + sizeof(kUnitSuffix) - 1 == name.size();
  if (is_service) return name;
  throw ImportError(
      file, 0,
      std::string("the name of a unit must end with '") + kUnitSuffix + "'");
}

/// Whether the restart of a node restarts the other one.
bool isRestartedWith(const Imported& imported,
                     const std::map<std::string, size_t>& index,
                     const std::string& node, const std::string& other) {
  if (node == other) return true;
  // Without cycles the recursion ends.
  const auto& required = imported.nodes[index.at(node)].required;
  return std::any_of(required.begin(), required.end(),
                     [&](const std::string& next) {
                       return isRestartedWith(imported, index, next, other);
                     });
}

/// Makes the nodes whose restart restarts this one require it, without a cycle,
/// which would deadlock the launcher. `index` is by node.
void addRequired(UnitImporter& unit, const std::map<std::string, size_t>& index,
                 Imported& imported) {
  const std::string& name = unit.node().name;
  for (const char* const key : {"Requires", "Requisite", "BindsTo", "PartOf"}) {
    for (const std::string& other : unit.unitsIn(key)) {
      const auto found = index.find(nodeNameOf(other));
      if (found == index.end()) continue;
      if (isRestartedWith(imported, index, name, found->first)) continue;
      auto& required = imported.nodes[found->second].required;
      if (std::count(required.begin(), required.end(), name) == 0) {
        required.push_back(name);
      }
    }
  }
}

}  // namespace

Imported importSystemd(const std::vector<SourceText>& files) {
  std::vector<UnitImporter> units;
  std::set<std::string> names;
  std::map<std::string, size_t> index;
  for (const SourceText& file : files) {
    const std::string name = unitNameOf(file);
    if (!names.insert(name).second) {
      throw ImportError(file, 0, "a second unit " + name);
    }
    index[nodeNameOf(name)] = units.size();
    units.emplace_back(file, name);
  }
  Imported imported;
  std::map<std::string, std::set<std::string>> earlier;
  for (UnitImporter& unit : units) {
    unit.convert(names);
    for (const std::string& other : unit.unitsIn("After")) {
      earlier[unit.node().name].insert(nodeNameOf(other));
    }
    for (const std::string& other : unit.unitsIn("Before")) {
      earlier[nodeNameOf(other)].insert(unit.node().name);
    }
    imported.nodes.push_back(unit.node());
  }
  for (UnitImporter& unit : units) addRequired(unit, index, imported);
  orderNodes(imported, earlier);
  return imported;
}

}  // namespace vorn::launch
