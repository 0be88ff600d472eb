// LiveLoopers.h: the process-wide record of live loopers, seen from the
// rest of the library (private).
//
// Every ZvLooper is entered in a table from its constructor until its
// deletion begins (see ZvLooper.cpp). The checked mode consults it to refuse
// a call through a link to a looper that is gone, instead of touching freed
// memory.
#ifndef ZVKIT_LOOPER_INTERNAL_LIVE_LOOPERS_H
#define ZVKIT_LOOPER_INTERNAL_LIVE_LOOPERS_H

class ZvLooper;

namespace zvkit {
namespace internal {

// Whether looper is a looper that exists now (compares the address only,
// never reads the object).
bool LooperIsLive(const ZvLooper* looper);

// True when looper is null or live; otherwise reports, as member, a call
// through a stale link and returns false (the caller then refuses it).
bool CheckLooperLive(const ZvLooper* looper, const char* member);

} // namespace internal
} // namespace zvkit

#endif // ZVKIT_LOOPER_INTERNAL_LIVE_LOOPERS_H
