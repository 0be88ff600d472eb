// ZvSemaphore.h: static wrappers over the kernel's semaphores.
//
// ZvSemaphore has no instances and no state. A semaphore identifier of 0
// means "no semaphore" throughout the library. Time-outs are milliseconds; a
// negative time-out is a very long one (2147483646 ms). Acquire returns
// 1 acquired, 2 timed out, 0 failed. Delete refuses a semaphore of another
// team (process), printing a one-line refusal on standard output.
//
// Thread safety: every function may be called from any thread.
#ifndef _ZV_SEMAPHORE_H
#define _ZV_SEMAPHORE_H

#include <SupportDefs.h>

#include <ZvExport.h>

// Static wrappers over the kernel kit's semaphores; see the file's
// description.
class ZV_EXPORT ZvSemaphore
{
public:
	// Creates a semaphore with count free units, named "ZvSemaphore" when
	// name is null. Returns its identifier, or 0 on failure.
	static uint32 Create(int32 count, const char* name);
	// Deletes a semaphore of the caller's team; refuses any other.
	static bool Delete(uint32 sem);
	// 1 acquired, 2 timed out, 0 failed (bad or deleted semaphore).
	static int32 Acquire(uint32 sem, int32 timeout);
	// Gives back one unit; false for a bad or deleted semaphore.
	static bool Release(uint32 sem);

private:
	ZvSemaphore() = delete;
};

#endif // _ZV_SEMAPHORE_H
