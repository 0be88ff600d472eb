// Checks.h: the checked mode's flag and report line (private).
//
// A check costs one relaxed load of a cached flag while the mode is off:
//
//   if (zvkit::internal::ChecksOn())
//       zvkit::internal::CheckReport("ZvMessage::AddInt32", "name of %d ...", ...);
//
// The flag starts unknown; the first check reads ZVKIT_CHECKS (unless
// zv_set_checks chose a mode before) and caches it.
#ifndef ZVKIT_BASE_INTERNAL_CHECKS_H
#define ZVKIT_BASE_INTERNAL_CHECKS_H

#include <atomic>

namespace zvkit {
namespace internal {

// The mode (a zv_checks_mode), or -1 before the environment was read.
extern std::atomic<int> gChecksMode;

// Reads ZVKIT_CHECKS (once) and returns the mode in force.
int ReadChecksMode();

inline bool ChecksOn()
{
	const int mode = gChecksMode.load(std::memory_order_relaxed);
	if (__builtin_expect(mode == 0, 1))
		return false;
	return (mode < 0 ? ReadChecksMode() : mode) > 0;
}

// Writes "ZvKit-CHECK: member: " and the formatted text as one line on
// standard error (one write, so lines of several threads do not mix), then
// aborts in fatal mode. member is "Class::Member".
void CheckReport(const char* member, const char* format, ...) __attribute__((format(printf, 2, 3)));

// At most this many bytes of a caller's text (a name, a string) are quoted
// in a report; longer ones end in "...".
const int kQuotedBytes = 40;

} // namespace internal
} // namespace zvkit

#endif // ZVKIT_BASE_INTERNAL_CHECKS_H
