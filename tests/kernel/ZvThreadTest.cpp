// Tests of ZvThread, the static thread wrappers.
#include <ZvThread.h>

#include <OS.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ForeignTeam.h"
#include "Polling.h"
#include "TestSupport.h"

using namespace std::chrono_literals;

namespace {

int32 ReturnData(void* data)
{
	return static_cast<int32>(reinterpret_cast<intptr_t>(data));
}

int32 CountAndReturn(void* data)
{
	static_cast<std::atomic<int>*>(data)->fetch_add(1);
	return 5;
}

int32 WaitOnSemaphore(void* data)
{
	return acquire_sem(static_cast<sem_id>(reinterpret_cast<intptr_t>(data)));
}

void* AsData(intptr_t value)
{
	return reinterpret_cast<void*>(value);
}

void* AsEntry(thread_func function)
{
	return reinterpret_cast<void*>(function);
}

thread_info InfoOf(int32 thread)
{
	thread_info info;
	memset(&info, 0, sizeof(info));
	EXPECT_EQ(get_thread_info(thread, &info), B_OK);
	return info;
}

} // namespace

TEST(ZvThread, CreateMakesASuspendedThreadNamedZvThread)
{
	zvtest::Watchdog watchdog(30s);
	std::atomic<int> ran{0};
	const int32 thread =
	    ZvThread::Create(AsEntry(&CountAndReturn), &ran, ZV_NORMAL_PRIORITY, nullptr);
	ASSERT_GT(thread, 0);
	const thread_info info = InfoOf(thread);
	EXPECT_STREQ(info.name, "ZvThread");
	EXPECT_EQ(info.state, B_THREAD_SUSPENDED);
	EXPECT_EQ(info.team, getpid());
	snooze(20000);
	EXPECT_EQ(ran.load(), 0);
	EXPECT_TRUE(ZvThread::Resume(static_cast<uint32>(thread)));
	int32 value = 0;
	EXPECT_TRUE(ZvThread::Wait(static_cast<uint32>(thread), &value));
	EXPECT_EQ(value, 5);
	EXPECT_EQ(ran.load(), 1);
}

TEST(ZvThread, CreateKeepsAGivenName)
{
	zvtest::Watchdog watchdog(30s);
	const int32 thread = ZvThread::Create(&ReturnData, nullptr, ZV_NORMAL_PRIORITY, "worker");
	EXPECT_STREQ(InfoOf(thread).name, "worker");
	EXPECT_TRUE(ZvThread::Resume(static_cast<uint32>(thread)));
	EXPECT_TRUE(ZvThread::Wait(static_cast<uint32>(thread), nullptr));
}

struct PriorityCase
{
	int priority;
	int32 kernelPriority;
};

class ZvThreadPriority : public testing::TestWithParam<PriorityCase>
{
};

TEST_P(ZvThreadPriority, MapsToTheKernelPriority)
{
	zvtest::Watchdog watchdog(30s);
	const int32 thread =
	    ZvThread::Create(AsEntry(&ReturnData), nullptr,
	                     static_cast<zv_thread_priority>(GetParam().priority), "prioritised");
	ASSERT_GT(thread, 0);
	EXPECT_EQ(InfoOf(thread).priority, GetParam().kernelPriority);
	EXPECT_TRUE(ZvThread::Resume(static_cast<uint32>(thread)));
	EXPECT_TRUE(ZvThread::Wait(static_cast<uint32>(thread), nullptr));
}

INSTANTIATE_TEST_SUITE_P(AllValues, ZvThreadPriority,
                         testing::Values(PriorityCase{ZV_LOW_PRIORITY, 5},
                                         PriorityCase{ZV_NORMAL_PRIORITY, 10},
                                         PriorityCase{ZV_REAL_TIME_PRIORITY, 120},
                                         PriorityCase{7, 10}, PriorityCase{-1, 10},
                                         PriorityCase{3, 10}));

TEST(ZvThread, CreatePassesTheKernelErrorThrough)
{
	EXPECT_EQ(ZvThread::Create(static_cast<void*>(nullptr), nullptr, ZV_NORMAL_PRIORITY, nullptr),
	          B_BAD_VALUE);
}

TEST(ZvThread, DeleteAlwaysReturnsTrueAndDoesNothing)
{
	zvtest::Watchdog watchdog(30s);
	EXPECT_TRUE(ZvThread::Delete(0));
	EXPECT_TRUE(ZvThread::Delete(0xFFFFFFFFu));
	EXPECT_TRUE(ZvThread::Delete(ZvThread::CurrentID()));
	const int32 thread =
	    ZvThread::Create(AsEntry(&ReturnData), AsData(11), ZV_NORMAL_PRIORITY, nullptr);
	EXPECT_TRUE(ZvThread::Delete(static_cast<uint32>(thread)));
	// Still there, still suspended, still runs to its end.
	EXPECT_EQ(InfoOf(thread).state, B_THREAD_SUSPENDED);
	EXPECT_TRUE(ZvThread::Resume(static_cast<uint32>(thread)));
	int32 value = 0;
	EXPECT_TRUE(ZvThread::Wait(static_cast<uint32>(thread), &value));
	EXPECT_EQ(value, 11);
}

TEST(ZvThread, WaitWithNullExitValueStillWaits)
{
	zvtest::Watchdog watchdog(30s);
	const sem_id gate = create_sem(0, "gate");
	const int32 thread =
	    ZvThread::Create(AsEntry(&WaitOnSemaphore), AsData(gate), ZV_NORMAL_PRIORITY, nullptr);
	ASSERT_TRUE(ZvThread::Resume(static_cast<uint32>(thread)));
	std::atomic<bool> returned{false};
	std::atomic<bool> result{false};
	std::thread waiter([&] {
		result = ZvThread::Wait(static_cast<uint32>(thread), nullptr);
		returned = true;
	});
	ASSERT_TRUE(zvtest::WaitUntil([&] { return InfoOf(thread).state == B_THREAD_WAITING; }));
	snooze(20000);
	EXPECT_FALSE(returned.load());
	release_sem(gate);
	waiter.join();
	EXPECT_TRUE(result.load());
	delete_sem(gate);
}

TEST(ZvThread, FailedWaitLeavesTheExitValueUntouched)
{
	int32 value = 1234;
	EXPECT_FALSE(ZvThread::Wait(0, &value));
	EXPECT_FALSE(ZvThread::Wait(0x7FFFFFF0u, &value));
	EXPECT_EQ(value, 1234);
}

TEST(ZvThread, SuspendAndResumeReportKernelResults)
{
	zvtest::Watchdog watchdog(30s);
	const sem_id gate = create_sem(0, "gate");
	const int32 thread =
	    ZvThread::Create(AsEntry(&WaitOnSemaphore), AsData(gate), ZV_NORMAL_PRIORITY, nullptr);
	EXPECT_TRUE(ZvThread::Resume(static_cast<uint32>(thread)));
	// Resuming a running thread is refused by the kernel.
	EXPECT_FALSE(ZvThread::Resume(static_cast<uint32>(thread)));
	EXPECT_TRUE(ZvThread::Suspend(static_cast<uint32>(thread)));
	EXPECT_EQ(InfoOf(thread).state, B_THREAD_SUSPENDED);
	EXPECT_TRUE(ZvThread::Resume(static_cast<uint32>(thread)));
	release_sem(gate);
	EXPECT_TRUE(ZvThread::Wait(static_cast<uint32>(thread), nullptr));
	EXPECT_FALSE(ZvThread::Resume(static_cast<uint32>(thread)));
	EXPECT_FALSE(ZvThread::Suspend(static_cast<uint32>(thread)));
	EXPECT_FALSE(ZvThread::Suspend(0));
	delete_sem(gate);
}

TEST(ZvThread, TerminateKillsAThreadOfTheOwnTeam)
{
	zvtest::Watchdog watchdog(30s);
	const sem_id gate = create_sem(0, "never released");
	const int32 thread =
	    ZvThread::Create(AsEntry(&WaitOnSemaphore), AsData(gate), ZV_NORMAL_PRIORITY, nullptr);
	ASSERT_TRUE(ZvThread::Resume(static_cast<uint32>(thread)));
	ASSERT_TRUE(zvtest::WaitUntil([&] { return InfoOf(thread).state == B_THREAD_WAITING; }));
	zvtest::OutputCapture capture;
	EXPECT_TRUE(ZvThread::Terminate(static_cast<uint32>(thread)));
	int32 value = 0;
	EXPECT_TRUE(ZvThread::Wait(static_cast<uint32>(thread), &value));
	EXPECT_EQ(value, B_INTERRUPTED);
	EXPECT_EQ(capture.Finish(), "");
	delete_sem(gate);
}

TEST(ZvThread, TerminateOfANonThreadReturnsFalseSilently)
{
	zvtest::OutputCapture capture;
	EXPECT_FALSE(ZvThread::Terminate(0));
	EXPECT_FALSE(ZvThread::Terminate(0x7FFFFFF0u));
	EXPECT_EQ(capture.Finish(), "");
}

TEST(ZvThread, TerminateOfAThreadOfTheOwnTeamNotMadeBySpawnFails)
{
	// Same team, so no alien message; kill_thread refuses a thread it did
	// not create, so the result is false.
	zvtest::OutputCapture capture;
	EXPECT_FALSE(ZvThread::Terminate(ZvThread::CurrentID()));
	EXPECT_EQ(capture.Finish(), "");
}

TEST(ZvThread, TerminateOfAThreadOfAnotherProcessPrintsAndRefuses)
{
	zvtest::ForeignTeam other;
	ASSERT_TRUE(other.IsValid());
	zvtest::OutputCapture capture;
	EXPECT_FALSE(ZvThread::Terminate(static_cast<uint32>(other.Thread())));
	char expected[128];
	snprintf(expected, sizeof(expected),
	         "Fatal! Trying to terminate an alien thread! Thread %08x\n",
	         static_cast<uint32>(other.Thread()));
	EXPECT_EQ(capture.Finish(), expected);
	// The other process's thread is still alive.
	thread_info info;
	EXPECT_EQ(get_thread_info(other.Thread(), &info), B_OK);
	EXPECT_EQ(info.team, other.Team());
}

TEST(ZvThread, CurrentIDIsTheKernelThreadId)
{
	zvtest::Watchdog watchdog(30s);
	EXPECT_EQ(ZvThread::CurrentID(), static_cast<uint32>(find_thread(nullptr)));
	uint32 other = 0;
	std::thread([&] { other = ZvThread::CurrentID(); }).join();
	EXPECT_NE(other, ZvThread::CurrentID());
	EXPECT_NE(other, 0u);
}

TEST(ZvThread, CurrentIDInAForkedChildIsTheChildsThread)
{
	const uint32 parent = ZvThread::CurrentID();
	fflush(stdout);
	const pid_t child = fork();
	if (child == 0) {
		const uint32 mine = ZvThread::CurrentID();
		const bool good = mine == static_cast<uint32>(syscall(SYS_gettid)) && mine != parent &&
		                  mine == static_cast<uint32>(find_thread(nullptr));
		_exit(good ? 0 : 1);
	}
	ASSERT_GT(child, 0);
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	ASSERT_TRUE(WIFEXITED(status));
	EXPECT_EQ(WEXITSTATUS(status), 0);
	EXPECT_EQ(ZvThread::CurrentID(), parent);
}
