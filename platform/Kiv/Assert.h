#pragma once
// Assertions: a broken invariant prints the condition's text and aborts the agent.
//
//   KIV_ASSERT(initialized());                                  // prints: initialized()
//   KIV_ASSERT_TEXT(intfVlanTunnelHas(key), "intfVlanTunnelHas( key )");
//
// The printed text is part of the contract (death tests and field diagnostics match it), so where
// the wanted text is not the formatted source, give it with KIV_ASSERT_TEXT.
//
// A host that must survive a broken invariant to report it (a simulator replaying a scenario that
// expects the abort) can ask for a thrown Kiv::AssertionFailure instead, for as long as a
// Kiv::ThrowingAssertions lives. Nothing catches it on the way out but what the host wrote: a
// notifiee list stops its delivery at once and passes it on.

#include <exception>
#include <string>

namespace Kiv {

// Prints `assertion "<condition>" failed at <source>:<line>` on standard error, then aborts; or,
// while assertions throw, throws AssertionFailure and prints nothing.
[[noreturn]] void assertionFailed(const char* condition, const char* source, int line);

class AssertionFailure : public std::exception {
 public:
  AssertionFailure(const char* condition, const char* source, int line);
  const char* what() const noexcept override { return text_.c_str(); }
  const char* condition() const { return condition_; }
  const char* source() const { return source_; }
  int line() const { return line_; }

 private:
  const char* condition_;
  const char* source_;
  int line_;
  std::string text_;  // assertion "<condition>" failed at <source>:<line>
};

// While one lives (on this thread's event loop), assertions throw.
class ThrowingAssertions {
 public:
  ThrowingAssertions();
  ~ThrowingAssertions();
  ThrowingAssertions(const ThrowingAssertions&) = delete;
  ThrowingAssertions& operator=(const ThrowingAssertions&) = delete;
};

}  // namespace Kiv

#define KIV_ASSERT_TEXT(cond, text) \
  ((cond) ? static_cast<void>(0) : ::Kiv::assertionFailed(text, __FILE__, __LINE__))
#define KIV_ASSERT(cond) KIV_ASSERT_TEXT(cond, #cond)
