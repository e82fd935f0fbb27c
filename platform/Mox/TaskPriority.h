#pragma once
// The priority of a scheduled task: among tasks due at the same time, the smaller value runs first.
//
//   Mox::TaskPriority reviewPriority(2);   // what the state machines' review tasks use
//
// A plain value: cheap to copy, compared by value.

#include <compare>

namespace Mox {

class TaskPriority {
 public:
  explicit constexpr TaskPriority(int value) : value_(value) {}
  constexpr int value() const { return value_; }
  constexpr bool operator==(const TaskPriority&) const = default;
  constexpr auto operator<=>(const TaskPriority&) const = default;

 private:
  int value_;
};

}  // namespace Mox
