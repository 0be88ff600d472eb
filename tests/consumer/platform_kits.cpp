// Uses the installed headers and libraries the way an application would.
#include <ZvKit.h>

#include <cstdio>
#include <cstring>

int main()
{
	// The platform headers come along on the include path.
	const sem_id sem = create_sem(1, "consumer");
	if (sem <= 0 || acquire_sem(sem) != B_OK || release_sem(sem) != B_OK)
		return 1;
	delete_sem(sem);
	std::printf("consumer: ZvKit %s works\n", ZVKIT_VERSION_STRING);
	return 0;
}
