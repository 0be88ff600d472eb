// OneThread.h: tests of the paths a process takes while it has one thread.
//
// The semaphores (and the locks over them) change their counts without the
// bus lock while the process has never had a second thread. Each test runs
// in a process of its own, so a test that starts no thread before its first
// call sees that path; these helpers say whether it does, and run a
// sequence of calls on both paths so that the test can compare the answers.
#ifndef ZVKIT_ONE_THREAD_H
#define ZVKIT_ONE_THREAD_H

#include <sys/single_threaded.h>

#include <thread>
#include <utility>

namespace zvtest {

// What a test that needs the one-thread path says when it is skipped.
constexpr const char* kThreadAlreadyStarted = "an earlier test of this process started a thread";

// Whether this process has never started a second thread.
inline bool NeverThreaded()
{
	return __libc_single_threaded != 0;
}

// sequence()'s answers while the process has one thread (when it has), then
// its answers after a thread has started and ended.
template <typename Sequence> auto BeforeAndAfterAThread(Sequence sequence)
{
	auto alone = sequence();
	std::thread([] {}).join();
	auto shared = sequence();
	return std::make_pair(std::move(alone), std::move(shared));
}

} // namespace zvtest

#endif // ZVKIT_ONE_THREAD_H
