// ZvThread.cpp: static wrappers over the kernel's threads.
#include <ZvThread.h>

#include "TeamCheck.h"
#include "base/internal/CurrentThread.h"

#include <OS.h>

namespace {

int32 KernelPriority(zv_thread_priority priority)
{
	switch (priority) {
	case ZV_LOW_PRIORITY:
		return B_LOW_PRIORITY;
	case ZV_REAL_TIME_PRIORITY:
		return B_REAL_TIME_PRIORITY;
	case ZV_NORMAL_PRIORITY:
	default:
		return B_NORMAL_PRIORITY;
	}
}

} // namespace

int32 ZvThread::Create(void* entry, void* data, zv_thread_priority priority, const char* name)
{
	// entry is a thread_func passed as a data pointer; on every host the
	// library runs on, code and data pointers have the same representation.
	return Create(reinterpret_cast<thread_func>(entry), data, priority, name);
}

int32 ZvThread::Create(thread_func entry, void* data, zv_thread_priority priority, const char* name)
{
	return spawn_thread(entry, name != nullptr ? name : "ZvThread", KernelPriority(priority), data);
}

bool ZvThread::Delete(uint32 /*thread*/)
{
	return true;
}

bool ZvThread::Resume(uint32 thread)
{
	return resume_thread(static_cast<thread_id>(thread)) == B_OK;
}

bool ZvThread::Suspend(uint32 thread)
{
	return suspend_thread(static_cast<thread_id>(thread)) == B_OK;
}

bool ZvThread::Wait(uint32 thread, int32* exitValue)
{
	status_t value = B_OK;
	if (wait_for_thread(static_cast<thread_id>(thread), &value) != B_OK)
		return false;
	if (exitValue != nullptr)
		*exitValue = value;
	return true;
}

bool ZvThread::Terminate(uint32 thread)
{
	thread_info target = {};
	const status_t lookup = get_thread_info(static_cast<thread_id>(thread), &target);
	if (!zvkit::internal::BelongsToCallersTeam(
	        lookup, target.team, "Fatal! Trying to terminate an alien thread! Thread ", thread))
		return false;
	return kill_thread(static_cast<thread_id>(thread)) == B_OK;
}

uint32 ZvThread::CurrentID()
{
	return zvkit::internal::CurrentThread();
}
