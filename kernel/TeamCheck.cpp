// TeamCheck.cpp: whether a kernel object belongs to the caller's team.
#include "TeamCheck.h"

#include <pthread.h>

#include <atomic>
#include <cstdio>

namespace zvkit::internal {

namespace {

// Every thread of a process is in the same team, which only a fork changes:
// the first lookup is kept (asking for the caller's thread information costs
// far more than the check itself) and forgotten in a forked child.
std::atomic<team_id> sCallersTeam{0};

void ForgetTeamInChild()
{
	sCallersTeam.store(0, std::memory_order_relaxed);
}

struct ForkHandlerInstaller
{
	ForkHandlerInstaller() { pthread_atfork(nullptr, nullptr, &ForgetTeamInChild); }
} sForkHandlerInstaller;

// The caller's team, or 0 when it cannot be found.
team_id CallersTeam()
{
	team_id team = sCallersTeam.load(std::memory_order_relaxed);
	if (team > 0)
		return team;
	thread_info caller;
	if (get_thread_info(find_thread(nullptr), &caller) != B_OK)
		return 0;
	sCallersTeam.store(caller.team, std::memory_order_relaxed);
	return caller.team;
}

} // namespace

bool BelongsToCallersTeam(status_t lookup, team_id ownerTeam, const char* refusal, uint32 id)
{
	const team_id callersTeam = CallersTeam();
	if (callersTeam <= 0 || lookup != B_OK)
		return false;
	if (ownerTeam != callersTeam) {
		printf("%s%08x\n", refusal, id);
		return false;
	}
	return true;
}

} // namespace zvkit::internal
