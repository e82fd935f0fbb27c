#pragma once
// Assertions: a broken invariant prints the condition's text and aborts the agent.
//
//   KIV_ASSERT(initialized());                                  // prints: initialized()
//   KIV_ASSERT_TEXT(intfVlanTunnelHas(key), "intfVlanTunnelHas( key )");
//
// The printed text is part of the contract (death tests and field diagnostics match it), so where
// the wanted text is not the formatted source, give it with KIV_ASSERT_TEXT.

namespace Kiv {

// Prints `assertion "<condition>" failed at <source>:<line>` on standard error, then aborts.
[[noreturn]] void assertionFailed(const char* condition, const char* source, int line);

}  // namespace Kiv

#define KIV_ASSERT_TEXT(cond, text) \
  ((cond) ? static_cast<void>(0) : ::Kiv::assertionFailed(text, __FILE__, __LINE__))
#define KIV_ASSERT(cond) KIV_ASSERT_TEXT(cond, #cond)
