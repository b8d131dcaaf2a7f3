#pragma once
#include "host/data/data_set.h"
#include "host/messages/messages.h"
#include "host/results/results.h"
#include <optional>
#include <string>
#include <vector>

namespace torvale::host {

struct ByVariable {
  std::string name;
  bool descending = false; // DESCENDING stood before it
};

struct ByGroup {
  std::size_t begin = 0; // rows [begin, end) of the data set
  std::size_t end = 0;
  std::size_t rows() const { return end - begin; }
};

// The rows of a data set grouped by BY variables: runs of equal values, in file order. Without BY variables the whole
// data set is one group, also when it has no rows. Missing values are a group of their own.
class ByGroups {
public:
  // Finds the groups. An unknown variable, or (unless notsorted) a value out of order, is an error: -1 with a message,
  // and the groups before the row out of order are there.
  int build(const DataSet& data, std::vector<ByVariable> variables, bool notsorted, MessageSink& log);

  std::size_t count() const { return groups_.size(); }
  const ByGroup& group(std::size_t i) const { return groups_[i]; }
  ByValues values(std::size_t i) const; // names and values of group i

  // xbynext: advance to the next group; false after the last one. (x host, by, next.)
  bool xbynext();
  const ByGroup& current() const { return groups_[current_]; }
  std::size_t current_number() const { return current_; }

  // xbysync: the group of a second data set with the same values, wherever it stands there; nothing when there is none.
  // Both sets of groups must have the same BY variables with the same kinds.
  std::optional<std::size_t> xbysync(const ByGroups& other, std::size_t group_of_other) const;

  // xbylist: can the groups of two data sets be matched? 0 yes; 1 a variable differs in kind; 2 this set lacks a
  // variable.
  static int xbylist(const DataSet& main, const DataSet& second, const std::vector<ByVariable>& variables);

private:
  int find_groups(bool notsorted, MessageSink& log);
  // Order of the values of a group here and one there: negative, 0, positive.
  int compare_group(std::size_t group, const ByGroups& other, std::size_t other_group) const;

  const DataSet* data_ = nullptr; // borrowed
  std::vector<ByVariable> variables_;
  std::vector<std::size_t> columns_;
  std::vector<ByGroup> groups_;
  std::vector<std::size_t> by_key_; // the groups in rising order of their values; equal ones as they stand in the file
  std::size_t current_ = static_cast<std::size_t>(-1);
};

} // namespace torvale::host
