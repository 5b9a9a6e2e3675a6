#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "live/node_status.h"

namespace vorn::launch {

/// A column of the list of nodes.
struct TopColumn {
  const char* name;   // of statusColumns()
  const char* title;  // with the key in parentheses
  int key;            // sorts by this column; 0: none
};

const std::vector<TopColumn>& topColumns();

/// The nodes of `top` in the order of the screen, and the selected one.
class TopList {
 public:
  /// Replaces the nodes, which are in the order of the launch file. The
  /// selected node remains selected if it is still shown.
  void update(std::vector<NodeView> nodes);

  /// All nodes, in the order of the launch file.
  const std::vector<NodeView>& all() const { return nodes_; }

  /// The nodes that are shown, in their order; valid until the next change.
  const std::vector<const NodeView*>& shown() const { return shown_; }

  /// The index of the selected node in shown(), 0 if that is empty.
  size_t selectedIndex() const { return selected_index_; }

  /// Null if no node is shown.
  const NodeView* selected() const;

  /// Moves the selection by this number of rows.
  void select(long step);

  /// Sorts by the column with this key, or again by the default order, which
  /// has failing nodes first. False if no column has the key.
  bool toggleSort(int key);

  /// Shows only failing nodes, or all.
  void toggleFailing();

  /// Shows only nodes whose names contain this text.
  void setFilter(const std::string& text);
  const std::string& filter() const { return filter_; }

  /// The part of the list in `rows` rows from `first`, and how it was selected
  /// and sorted: "12-40 of 200, by cpu". Empty if it is the whole list in the
  /// default order.
  std::string position(size_t first, size_t rows) const;

 private:
  void arrange();

  std::vector<NodeView> nodes_;
  std::vector<const NodeView*> shown_;
  const TopColumn* sorted_by_ = nullptr;  // null: default
  bool is_failing_only_ = false;
  std::string filter_;
  std::string selected_name_;
  size_t selected_index_ = 0;
};

}  // namespace vorn::launch
