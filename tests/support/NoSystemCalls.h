// NoSystemCalls.h: proving that a piece of code makes no system call.
//
// RunsWithoutSystemCalls forks; the child runs setup, then installs a
// seccomp filter that kills the process on any system call but exit_group,
// runs body and exits with 0. So the result is true exactly when body made
// no system call. setup and body run in the forked child of a possibly
// multi-threaded process: they must not allocate or take locks that another
// thread might have held at the fork. A failure inside body is reported by
// exiting with another status through syscall(SYS_exit_group, status).
#ifndef ZVKIT_NO_SYSTEM_CALLS_H
#define ZVKIT_NO_SYSTEM_CALLS_H

#include <cerrno>
#include <cstddef>
#include <cstdio>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zvtest {

template <typename Setup, typename Body> bool RunsWithoutSystemCalls(Setup setup, Body body)
{
	fflush(stdout);
	fflush(stderr);
	const pid_t child = fork();
	if (child < 0)
		return false;
	if (child == 0) {
		setup();
		struct sock_filter filter[] = {
		    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
		    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_exit_group, 0, 1),
		    BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
		    BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
		};
		struct sock_fprog program = {
		    static_cast<unsigned short>(sizeof(filter) / sizeof(filter[0])), filter};
		if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
		    syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) != 0) {
			_exit(2);
		}
		body();
		// exit_group itself, not _exit: a sanitizer runtime may make other
		// system calls on its way out.
		syscall(SYS_exit_group, 0);
	}
	int status = 0;
	while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
	}
	return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace zvtest

#endif // ZVKIT_NO_SYSTEM_CALLS_H
