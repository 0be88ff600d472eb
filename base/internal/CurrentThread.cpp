// CurrentThread.cpp: the per-thread identifier cache and its reset on fork.
#include "CurrentThread.h"

#include <pthread.h>

namespace zvkit::internal {

__thread uint32 tCurrentThread __attribute__((tls_model("initial-exec"))) = 0;

uint32 LookUpCurrentThread()
{
	const uint32 id = static_cast<uint32>(find_thread(nullptr));
	tCurrentThread = id;
	return id;
}

namespace {

// The forking thread is the child's only thread, with a new identifier.
void ForgetThreadInChild()
{
	tCurrentThread = 0;
}

struct ForkHandlerInstaller
{
	ForkHandlerInstaller() { pthread_atfork(nullptr, nullptr, &ForgetThreadInChild); }
} sForkHandlerInstaller;

} // namespace

} // namespace zvkit::internal
