// TeamCheck.h: the "alien" check of ZvSemaphore::Delete and ZvThread::Terminate.
#ifndef _ZV_KERNEL_TEAM_CHECK_H
#define _ZV_KERNEL_TEAM_CHECK_H

#include <OS.h>
#include <SupportDefs.h>

namespace zvkit::internal {

// True when the object's team is the calling thread's. lookup is the status
// of the query that gave ownerTeam; a failed query of the object or of the
// caller gives false silently. A foreign team prints refusal followed by the
// identifier ("%08x") and a newline on standard output, and gives false.
bool BelongsToCallersTeam(status_t lookup, team_id ownerTeam, const char* refusal, uint32 id);

} // namespace zvkit::internal

#endif // _ZV_KERNEL_TEAM_CHECK_H
