// ForkedChild.h: runs a piece of a test in a child made by fork().
//
// RunInChild forks, runs body in the child and ends the child with _exit and
// body's result (so no destructor or atexit handler of the parent's copy
// runs there), and waits for it in the parent. The test then checks the
// result, which is body's own 0..255 or -1 when no child could be made or it
// did not end by exiting (a crash, a signal). RunInChildWithin bounds the
// wait.
//
// Only for tests whose subject is the library's behaviour after fork(): in a
// multi-threaded test the child has just the forking thread.
#ifndef ZVKIT_FORKED_CHILD_H
#define ZVKIT_FORKED_CHILD_H

#include "Polling.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

namespace zvtest {

// Forks a child that runs body and exits with its result; the child's pid,
// or -1 when none could be made.
template <typename Body> pid_t StartChild(Body body)
{
	const pid_t child = fork();
	if (child == 0)
		_exit(body());
	return child;
}

// A waited-for child's result: its exit status, or -1 when it did not end
// by exiting.
inline int ChildResult(int status)
{
	return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

template <typename Body> int RunInChild(Body body)
{
	const pid_t child = StartChild(body);
	if (child < 0)
		return -1;
	int status = -1;
	if (waitpid(child, &status, 0) != child)
		return -1;
	return ChildResult(status);
}

// As RunInChild, for a child that may hang (a lock left held by fork()):
// a child that has not ended within limit is killed, and the result is -2.
template <typename Body> int RunInChildWithin(std::chrono::milliseconds limit, Body body)
{
	const pid_t child = StartChild(body);
	if (child < 0)
		return -1;
	int status = -1;
	if (!WaitUntil([&] { return waitpid(child, &status, WNOHANG) == child; }, limit)) {
		kill(child, SIGKILL);
		waitpid(child, &status, 0);
		return -2;
	}
	return ChildResult(status);
}

} // namespace zvtest

#endif // ZVKIT_FORKED_CHILD_H
