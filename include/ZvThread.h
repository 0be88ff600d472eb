// ZvThread.h: static wrappers over the kernel's threads.
//
// ZvThread has no instances and no state; each call maps to one kernel call,
// turns the kernel's status into a bool, supplies the default thread name
// "ZvThread" and translates zv_thread_priority into kernel priorities.
// Terminate refuses a thread of another team (process), printing a one-line
// refusal on standard output. Thread identifiers are passed as uint32.
//
// Thread safety: every function may be called from any thread.
#ifndef _ZV_THREAD_H
#define _ZV_THREAD_H

#include <OS.h>
#include <SupportDefs.h>

#include <ZvExport.h>

// Library-level thread priorities; any other value means normal.
enum zv_thread_priority
{
	ZV_LOW_PRIORITY = 0,       // kernel priority 5
	ZV_NORMAL_PRIORITY = 1,    // kernel priority 10
	ZV_REAL_TIME_PRIORITY = 2, // kernel priority 120
};

// Static wrappers over the kernel kit's threads; see the file's
// description.
class ZV_EXPORT ZvThread
{
public:
	// Creates a suspended thread running entry(data); start it with Resume.
	// entry has the form of thread_func. Returns the new thread's identifier,
	// or the kernel's negative error code.
	static int32 Create(void* entry, void* data, zv_thread_priority priority, const char* name);
	static int32 Create(thread_func entry, void* data, zv_thread_priority priority,
	                    const char* name);

	// Always true; deliberately does nothing.
	static bool Delete(uint32 thread);
	// Starts a new thread or resumes a suspended one; false when the kernel
	// refuses.
	static bool Resume(uint32 thread);
	// Suspends the thread wherever it runs; false when the kernel refuses.
	static bool Suspend(uint32 thread);
	// Waits for the thread to end; stores its exit value when exitValue is
	// not null. On failure *exitValue is left untouched.
	static bool Wait(uint32 thread, int32* exitValue);
	// Kills a thread of the caller's own team; refuses any other.
	static bool Terminate(uint32 thread);
	// The calling thread's identifier.
	static uint32 CurrentID();

private:
	ZvThread() = delete;
};

#endif // _ZV_THREAD_H
