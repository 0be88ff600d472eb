// Checks.cpp: the checked mode's flag, its reading of ZVKIT_CHECKS and the
// report line.
#include "base/internal/Checks.h"

#include <ZvChecks.h>

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace zvkit {
namespace internal {

std::atomic<int> gChecksMode(-1);

namespace {

int ParseChecksVariable()
{
	const char* value = getenv("ZVKIT_CHECKS");
	if (value == nullptr || value[0] == '\0' || strcmp(value, "0") == 0)
		return ZV_CHECKS_OFF;
	if (strcmp(value, "fatal") == 0)
		return ZV_CHECKS_FATAL;
	// "1", and any other value asking for checks, reports.
	return ZV_CHECKS_REPORT;
}

} // namespace

int ReadChecksMode()
{
	int mode = gChecksMode.load(std::memory_order_relaxed);
	if (mode >= 0)
		return mode;
	const int parsed = ParseChecksVariable();
	// A mode chosen from code in the meantime wins over the variable.
	if (gChecksMode.compare_exchange_strong(mode, parsed, std::memory_order_relaxed))
		return parsed;
	return mode;
}

void CheckReport(const char* member, const char* format, ...)
{
	char line[1024];
	int used = snprintf(line, sizeof(line), "ZvKit-CHECK: %s: ", member);
	if (used < 0)
		return;
	va_list args;
	va_start(args, format);
	const int more = vsnprintf(line + used, sizeof(line) - used - 1, format, args);
	va_end(args);
	if (more > 0)
		used += more;
	if (used > static_cast<int>(sizeof(line)) - 2)
		used = static_cast<int>(sizeof(line)) - 2;
	line[used++] = '\n';
	// One write: lines from several threads stay whole.
	ssize_t written = write(STDERR_FILENO, line, used);
	(void)written;
	if (gChecksMode.load(std::memory_order_relaxed) == ZV_CHECKS_FATAL)
		abort();
}

} // namespace internal
} // namespace zvkit

status_t zv_set_checks(zv_checks_mode mode)
{
	if (mode != ZV_CHECKS_OFF && mode != ZV_CHECKS_REPORT && mode != ZV_CHECKS_FATAL)
		return B_BAD_VALUE;
	zvkit::internal::gChecksMode.store(mode, std::memory_order_relaxed);
	return B_OK;
}

zv_checks_mode zv_checks()
{
	return static_cast<zv_checks_mode>(zvkit::internal::ReadChecksMode());
}
