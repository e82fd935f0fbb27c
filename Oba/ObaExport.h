#pragma once
// What libObaEvpn.so exports: the state machines, their factories, the helper interfaces and
// their stubs. Everything else in the library is hidden.
#if defined(OBA_BUILDING_LIBRARY)
#define OBA_EXPORT __attribute__((visibility("default")))
#else
#define OBA_EXPORT
#endif
