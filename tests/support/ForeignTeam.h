// ForeignTeam.h: a live process of another team, for tests of team checks.
//
// ForeignTeam starts a copy of the running test executable (fork + exec of
// /proc/self/exe, so nothing but async-signal-safe calls run between fork and
// exec even in a multi-threaded test). The copy recognises its role before
// main() from the environment: it starts a second thread named
// "zvforeign", reports its process id and that thread's id through a pipe and
// waits until the control pipe is closed, then exits. So the test sees a
// real team (process) and a real thread of that team, both alive for the
// lifetime of the ForeignTeam object.
//
// The copy's role is an inline variable, so the header may be included by
// any number of source files of one executable.
#ifndef ZVKIT_FOREIGN_TEAM_H
#define ZVKIT_FOREIGN_TEAM_H

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace zvtest {

namespace foreign_team_detail {

constexpr int kReportFd = 100;
constexpr int kControlFd = 101;
constexpr const char* kRoleVariable = "ZVKIT_TEST_FOREIGN_TEAM";

inline void WaitForClose(int fd)
{
	char byte;
	while (read(fd, &byte, 1) != 0 && errno == EINTR) {
	}
}

inline void* ForeignThread(void* argument)
{
	prctl(PR_SET_NAME, "zvforeign", 0, 0, 0);
	const int reportPipe = *static_cast<int*>(argument);
	const long tid = syscall(SYS_gettid);
	(void)!write(reportPipe, &tid, sizeof(tid));
	WaitForClose(kControlFd);
	return nullptr;
}

// The role of the copy: runs before main() when the variable is set.
struct ChildRole
{
	ChildRole()
	{
		if (getenv(kRoleVariable) == nullptr)
			return;
		int inner[2];
		if (pipe(inner) != 0)
			_exit(2);
		pthread_t thread;
		if (pthread_create(&thread, nullptr, &ForeignThread, &inner[1]) != 0)
			_exit(3);
		long tid = 0;
		if (read(inner[0], &tid, sizeof(tid)) != sizeof(tid))
			_exit(4);
		char line[64];
		const int length =
		    snprintf(line, sizeof(line), "%ld %ld\n", static_cast<long>(getpid()), tid);
		(void)!write(kReportFd, line, static_cast<size_t>(length));
		close(kReportFd);
		WaitForClose(kControlFd);
		pthread_join(thread, nullptr);
		_exit(0);
	}
};

inline ChildRole sChildRole;

} // namespace foreign_team_detail

class ForeignTeam
{
public:
	ForeignTeam()
	{
		using namespace foreign_team_detail;
		int report[2];
		int control[2];
		if (pipe2(report, O_CLOEXEC) != 0)
			return;
		if (pipe2(control, O_CLOEXEC) != 0) {
			close(report[0]);
			close(report[1]);
			return;
		}
		// Everything the child needs is prepared before fork.
		std::vector<std::string> variables;
		for (char** entry = environ; *entry != nullptr; entry++)
			variables.emplace_back(*entry);
		variables.emplace_back(std::string(kRoleVariable) + "=1");
		std::vector<char*> envp;
		for (std::string& variable : variables)
			envp.push_back(&variable[0]);
		envp.push_back(nullptr);
		char path[] = "/proc/self/exe";
		char* argv[] = {path, nullptr};

		fPid = fork();
		if (fPid == 0) {
			// Async-signal-safe calls only until exec.
			dup2(report[1], kReportFd);
			dup2(control[0], kControlFd);
			execve(path, argv, envp.data());
			_exit(127);
		}
		close(report[1]);
		close(control[0]);
		fControl = control[1];
		if (fPid < 0) {
			close(report[0]);
			return;
		}
		char line[64] = {};
		size_t got = 0;
		while (got < sizeof(line) - 1) {
			const ssize_t n = read(report[0], line + got, sizeof(line) - 1 - got);
			if (n < 0 && errno == EINTR)
				continue;
			if (n <= 0)
				break;
			got += static_cast<size_t>(n);
		}
		close(report[0]);
		long team = 0;
		long thread = 0;
		if (sscanf(line, "%ld %ld", &team, &thread) == 2) {
			fTeam = static_cast<int>(team);
			fThread = static_cast<int>(thread);
		}
	}

	~ForeignTeam() { End(); }

	ForeignTeam(const ForeignTeam&) = delete;
	ForeignTeam& operator=(const ForeignTeam&) = delete;

	bool IsValid() const { return fTeam > 0 && fThread > 0; }
	int Team() const { return fTeam; }
	int Thread() const { return fThread; }

	// Lets the process exit and reaps it.
	void End()
	{
		if (fControl >= 0) {
			close(fControl);
			fControl = -1;
		}
		if (fPid > 0) {
			int status;
			while (waitpid(fPid, &status, 0) < 0 && errno == EINTR) {
			}
			fPid = -1;
		}
	}

private:
	pid_t fPid = -1;
	int fControl = -1;
	int fTeam = -1;
	int fThread = -1;
};

} // namespace zvtest

#endif // ZVKIT_FOREIGN_TEAM_H
