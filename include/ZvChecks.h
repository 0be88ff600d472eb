// ZvChecks.h: the checked mode.
//
// ZvKit keeps every documented behaviour of its classes, including the ones
// that lose data, cut a name short or wait for ever without a word (the
// list is in docs/checks.md). In checked mode the library says so: each such
// place writes one line on standard error before the behaviour goes on,
//
//   ZvKit-CHECK: Class::Member: what happened; what the caller will see
//
// and a call whose documented behaviour would touch memory that is already
// freed (a message sent through the link of a handler whose looper has
// ended) is refused with such a line instead. No result changes otherwise.
//
// The mode is chosen at run time: the environment variable ZVKIT_CHECKS is
// read once, at the first check (unset or "0": off; "1": report; "fatal":
// report, then abort), and zv_set_checks chooses it from code, overriding
// the variable. Off is the default and costs one load of a cached flag at
// each place.
//
// Thread safety: every function here may be called from any thread; a
// change of mode is seen by the checks that start after it.
#ifndef _ZV_CHECKS_H
#define _ZV_CHECKS_H

#include <SupportDefs.h>

#include <ZvExport.h>

// What the checks do: nothing, report, or report and abort.
enum zv_checks_mode
{
	ZV_CHECKS_OFF = 0,
	// One line on standard error per event, then the behaviour goes on.
	ZV_CHECKS_REPORT = 1,
	// The line, then abort().
	ZV_CHECKS_FATAL = 2
};

// Chooses the mode; B_BAD_VALUE (and no change) for a value outside the
// enumeration.
ZV_EXPORT status_t zv_set_checks(zv_checks_mode mode);

// The mode in force (reading ZVKIT_CHECKS first if nothing chose it yet).
ZV_EXPORT zv_checks_mode zv_checks();

#endif // _ZV_CHECKS_H
