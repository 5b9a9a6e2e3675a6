// Compiled by the LogCallFormat tests, with a value that fits its text and with
// one that does not.
#include "vornlib/trace.h"

void logCall() {
#ifdef VORN_WRONG_VALUE
  VTRACE(vorn::kInfo, vorn::kPlain, "name: %s", 1);
#else
  VTRACE(vorn::kInfo, vorn::kPlain, "name: %s", "planner");
#endif
}
