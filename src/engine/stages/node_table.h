#pragma once
// Values and sets by node, as arrays: nodes are numbered from 0.

#include "engine/graph/graph.h"

#include <algorithm>

namespace torvale::engine {

// A value for every node, `none` until it is set.
template <class T> class NodeTable {
public:
  explicit NodeTable(T none) : none_(none) {}
  T get(NodeId id) const
  {
    return static_cast<std::size_t>(id) < values_.size() ? values_[static_cast<std::size_t>(id)] : none_;
  }
  T& operator[](NodeId id)
  {
    const auto at = static_cast<std::size_t>(id);
    if (at >= values_.size()) values_.resize(at + at / 2 + 64, none_);
    return values_[at];
  }

private:
  std::vector<T> values_;
  T none_;
};

class NodeSet {
public:
  bool has(NodeId id) const { return in_.get(id) != 0; }
  bool insert(NodeId id) // false: it was there
  {
    char& in = in_[id];
    if (in != 0) return false;
    in = 1;
    members_.push_back(id);
    return true;
  }
  const std::vector<NodeId>& members() const { return members_; } // as they came
  std::vector<NodeId> ascending() const
  {
    std::vector<NodeId> sorted = members_;
    std::sort(sorted.begin(), sorted.end());
    return sorted;
  }
  void clear()
  {
    for (const NodeId id : members_) in_[id] = 0;
    members_.clear();
  }

private:
  NodeTable<char> in_{0};
  std::vector<NodeId> members_;
};

} // namespace torvale::engine
