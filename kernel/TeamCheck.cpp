// TeamCheck.cpp: whether a kernel object belongs to the caller's team.
#include "TeamCheck.h"

#include <cstdio>

namespace zvkit::internal {

bool BelongsToCallersTeam(status_t lookup, team_id ownerTeam, const char* refusal, uint32 id)
{
	thread_info caller;
	if (get_thread_info(find_thread(nullptr), &caller) != B_OK || lookup != B_OK)
		return false;
	if (ownerTeam != caller.team) {
		printf("%s%08x\n", refusal, id);
		return false;
	}
	return true;
}

} // namespace zvkit::internal
